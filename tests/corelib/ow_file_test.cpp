// Tests of ow_file against real files, pipes, sockets and processes: the lock is checked by
// two processes racing on one counter, the block size by a packet socket that keeps each
// write(2) apart, and the read time-out against a writer that delivers too slowly.
#include "ow_file.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

namespace fs = std::filesystem;
using clock_type = std::chrono::steady_clock;

std::string err(int e) { return std::strerror(e); }

// Runs body in a child process and returns the child's pid; the child exits with 0 when
// body returns true. The child writes no log lines: its sink is removed first.
pid_t spawn(const std::function<bool()>& body) {
    const pid_t pid = fork();
    if (pid == 0) {
        ow_set_log_function(nullptr);
        _exit(body() ? 0 : 1);
    }
    return pid;
}

int wait_exit(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

bool readable_within(int fd, int ms) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1;
}

class FileTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        char tmpl[] = "/tmp/ow_file_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
        LogCaptureTest::TearDown();
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    std::string put(const std::string& name, const std::string& bytes) const {
        const std::string p = path(name);
        FILE* f = std::fopen(p.c_str(), "wb");
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
        return p;
    }
    static std::string slurp(const std::string& p) {
        uint64_t size = 0;
        char* data = ow_file_get_contents_ex(p.c_str(), &size);
        std::string out = data != nullptr ? std::string(data, size) : std::string("<none>");
        std::free(data);
        return out;
    }
    std::string dir_;
};

// ---------------------------------------------------------------------------------------
// The lock

TEST_F(FileTest, LockSerialisesReadModifyWriteAcrossProcesses) {
    const std::string counter = put("counter", "0");
    auto bump_1000 = [&] {
        for (int i = 0; i < 1000; ++i) {
            const int fd = ow_open_ex(counter.c_str(), true, O_RDWR, 0);
            char text[32] = {};
            if (fd == -1 || !ow_read(fd, text, sizeof text - 1)) return false;
            const long value = std::strtol(text, nullptr, 10);
            sched_yield();  // invite the other process in between the read and the write
            if (!ow_seek(fd, 0, SEEK_SET) || !ow_fprintf(fd, "%ld", value + 1) ||
                !ow_truncate(fd) || !ow_close(fd)) {
                return false;
            }
        }
        return true;
    };
    const pid_t a = spawn(bump_1000);
    const pid_t b = spawn(bump_1000);
    EXPECT_EQ(wait_exit(a), 0);
    EXPECT_EQ(wait_exit(b), 0);
    EXPECT_EQ(slurp(counter), "2000");
}

// A second locker, whether ow_open_ex itself or ow_copyfile onto the locked file, waits until
// the holder closes its descriptor.
TEST_F(FileTest, SecondLockerWaitsForTheFirstToClose) {
    const std::string target = path("target");
    const std::string source = put("source", "copied while waiting");
    const std::vector<std::pair<const char*, std::function<bool()>>> lockers = {
        {"ow_open_ex",
         [&] {
             const int fd = ow_open_ex(target.c_str(), true, O_RDWR, 0);
             return fd != -1 && ow_close(fd);
         }},
        {"ow_copyfile", [&] { return ow_copyfile(target.c_str(), source.c_str()); }},
    };
    for (const auto& [name, locker] : lockers) {
        SCOPED_TRACE(name);
        const int held = ow_open_ex(target.c_str(), true, O_RDWR | O_CREAT, 0600);
        ASSERT_NE(held, -1);
        int done[2];
        ASSERT_EQ(pipe(done), 0);
        const pid_t child = spawn([&] { return locker() && write(done[1], "x", 1) == 1; });
        close(done[1]);
        EXPECT_FALSE(readable_within(done[0], 300)) << "the second locker did not wait";
        EXPECT_TRUE(ow_close(held));
        EXPECT_TRUE(readable_within(done[0], 5000)) << "the second locker never got the lock";
        EXPECT_EQ(wait_exit(child), 0);
        close(done[0]);
    }
    EXPECT_EQ(slurp(target), "copied while waiting");
}

// ---------------------------------------------------------------------------------------
// Writes and reads

TEST_F(FileTest, WriteGoesOutIn4096ByteBlocks) {
    // A packet socket keeps every write(2) a record of its own, so the receiver sees the
    // block sizes exactly as they were issued.
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    std::string data(10000, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
    ASSERT_TRUE(ow_write(sv[0], data.data(), data.size()));

    std::vector<ssize_t> records;
    std::string received;
    char buf[65536];
    for (ssize_t n; (n = recv(sv[1], buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
        records.push_back(n);
        received.append(buf, static_cast<std::size_t>(n));
    }
    EXPECT_EQ(records, (std::vector<ssize_t>{4096, 4096, 1808}));
    EXPECT_EQ(received, data);
    close(sv[0]);
    close(sv[1]);
}

void on_alarm(int) {}

TEST_F(FileTest, WriteInterruptedBySignalRepeatsTheBlock) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    // Fill the pipe so the first block blocks, and let a timer interrupt it before a reader
    // comes to drain the pipe.
    fcntl(p[1], F_SETFL, O_NONBLOCK);
    std::size_t prefill = 0;
    char chunk[4096] = {};
    for (ssize_t n; (n = write(p[1], chunk, sizeof chunk)) > 0;) prefill += n;
    fcntl(p[1], F_SETFL, 0);

    int result[2];
    ASSERT_EQ(pipe(result), 0);
    const pid_t reader = spawn([&] {
        close(p[1]);
        usleep(400000);
        uint64_t total = 0;
        char buf[4096];
        for (ssize_t n; (n = read(p[0], buf, sizeof buf)) > 0;) total += n;
        return write(result[1], &total, sizeof total) == sizeof total;
    });
    close(p[0]);
    close(result[1]);

    struct sigaction sa {};
    struct sigaction old {};
    sa.sa_handler = on_alarm;  // no SA_RESTART: the blocked write must fail with EINTR
    sigaction(SIGALRM, &sa, &old);
    itimerval timer{{0, 0}, {0, 100000}};
    setitimer(ITIMER_REAL, &timer, nullptr);
    const std::string data(10000, 'w');
    EXPECT_TRUE(ow_write(p[1], data.data(), data.size()));
    sigaction(SIGALRM, &old, nullptr);
    close(p[1]);

    uint64_t total = 0;
    EXPECT_EQ(read(result[0], &total, sizeof total), static_cast<ssize_t>(sizeof total));
    EXPECT_EQ(total, prefill + data.size());
    EXPECT_EQ(wait_exit(reader), 0);
    close(result[0]);
    EXPECT_ERROR_LINE("ow_write", "Write operation was interrupted... trying again...");
}

TEST_F(FileTest, ReadNonblockTimesOutOnASilentPipe) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    char buf[16] = {};
    int timed_out = 0;
    uint32_t count = 99;
    const auto start = clock_type::now();
    EXPECT_FALSE(ow_read_nonblock(p[0], buf, sizeof buf, 200000, &timed_out, &count));
    const auto waited = clock_type::now() - start;
    EXPECT_EQ(timed_out, 1);
    EXPECT_EQ(count, 99u);
    EXPECT_GE(waited, std::chrono::milliseconds(200));
    EXPECT_LT(waited, std::chrono::seconds(2));
    EXPECT_TRUE(
        ow_test::has_debug("ow_read_nonblock", "no data ready to read within 200000 microseconds"));
    EXPECT_NO_ERRORS();
    close(p[0]);
    close(p[1]);
}

// Each block waits at most the rest of the one time-out: three full blocks 400 ms apart do
// not fit in 600 ms, although no single wait is longer than 400 ms.
TEST_F(FileTest, ReadNonblockTimeOutBoundsTheWholeCall) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    const pid_t writer = spawn([&] {
        const std::string block(4096, 'b');
        for (int i = 0; i < 3; ++i) {
            if (i > 0) usleep(400000);
            if (write(p[1], block.data(), block.size()) != 4096) return false;
        }
        return true;
    });
    close(p[1]);
    std::vector<char> buf(3 * 4096);
    int timed_out = 0;
    EXPECT_FALSE(ow_read_nonblock(p[0], buf.data(), static_cast<int64_t>(buf.size()), 600000,
                                  &timed_out, nullptr));
    EXPECT_EQ(timed_out, 1);
    EXPECT_EQ(wait_exit(writer), 0);
    close(p[0]);
}

TEST_F(FileTest, ReadNonblockCollectsPiecesUntilAShortOne) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    const std::string sent = std::string(4096, 'x') + std::string(4096, 'y') + "tail";
    const pid_t writer = spawn([&] {
        for (std::size_t off : {0, 4096, 8192}) {
            const std::size_t len = off == 8192 ? 4 : 4096;
            if (write(p[1], sent.data() + off, len) != static_cast<ssize_t>(len)) return false;
            usleep(100000);
        }
        return true;
    });
    close(p[1]);
    std::vector<char> buf(10000, '\0');
    int timed_out = 0;
    uint32_t count = 0;
    EXPECT_TRUE(ow_read_nonblock(p[0], buf.data(), 10000, 5000000, &timed_out, &count));
    EXPECT_EQ(timed_out, 0);
    EXPECT_EQ(count, sent.size());
    EXPECT_EQ(std::string(buf.data(), count), sent);
    EXPECT_EQ(wait_exit(writer), 0);
    close(p[0]);
}

TEST_F(FileTest, SeekTellTruncateAndSizeAgree) {
    const int fd = ow_open_ex(path("f").c_str(), false, O_RDWR | O_CREAT, 0);
    ASSERT_NE(fd, -1);
    const std::string data(100, 'd');
    ASSERT_TRUE(ow_write(fd, data.data(), data.size()));
    EXPECT_TRUE(ow_seek(fd, 40, SEEK_SET));
    EXPECT_EQ(ow_filesize(fd), 100);
    EXPECT_EQ(ow_tell(fd), 40) << "ow_filesize moved the position";
    EXPECT_TRUE(ow_truncate(fd));
    EXPECT_EQ(ow_filesize(fd), 40);
    // A read asking for more than there is stops at the end of the file and succeeds.
    EXPECT_TRUE(ow_seek(fd, 0, SEEK_SET));
    std::vector<char> buf(10000, '\0');
    EXPECT_TRUE(ow_read(fd, buf.data(), 10000));
    EXPECT_EQ(std::string(buf.data()), std::string(40, 'd'));
    EXPECT_TRUE(ow_close(fd));
    struct stat st {};
    ASSERT_EQ(stat(path("f").c_str(), &st), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0666u & ~mask);  // mode 0 means 0666
}

// ---------------------------------------------------------------------------------------
// Whole-file reads

TEST_F(FileTest, WholeFileReadsAreCappedAt100MiB) {
    // Tens of thousands of block lines are not what this test is about.
    unsetenv("VERBOSEDEBUG");
    ow::testing::reset_debug_decision();
    const std::string file = path("sparse");
    const int fd = open(file.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(ftruncate(fd, 104857600), 0);
    ASSERT_EQ(pwrite(fd, "end", 3, 104857600 - 3), 3);
    close(fd);

    uint64_t size = 0;
    char* data = ow_file_get_contents_ex(file.c_str(), &size);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(size, 104857600u);
    EXPECT_STREQ(data + size - 3, "end");
    std::free(data);
    EXPECT_NO_ERRORS();

    ASSERT_EQ(truncate(file.c_str(), 104857601), 0);
    size = 7;
    EXPECT_EQ(ow_file_get_contents_ex(file.c_str(), &size), nullptr);
    EXPECT_EQ(size, 7u);
    EXPECT_ERROR_LINE("ow_fd_get_contents_ex", err(EFBIG));
    EXPECT_ERROR_LINE("ow_file_get_contents_ex",
                      "Failed to get file contents [" + file + "]: " + err(EFBIG));
}

TEST_F(FileTest, WholeFileReadOfEmptyAndBinaryFiles) {
    uint64_t size = 9;
    char* data = ow_file_get_contents_ex(put("empty", "").c_str(), &size);
    ASSERT_NE(data, nullptr);
    EXPECT_STREQ(data, "");
    EXPECT_EQ(size, 0u);
    std::free(data);
    const std::string binary("a\0b\0\xff", 5);
    EXPECT_EQ(slurp(put("bin", binary)), binary);
    EXPECT_NO_ERRORS();
}

// ---------------------------------------------------------------------------------------
// Paths

TEST_F(FileTest, ExistsChecksTheTypeAgainstTheMask) {
    const std::string file = put("file", "x");
    const std::string dir = path("dir");
    fs::create_directory(dir);
    fs::create_symlink(file, path("link"));
    fs::create_symlink(path("nowhere"), path("dangling"));
    mkfifo(path("fifo").c_str(), 0600);
    const int s = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path("sock").c_str());
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);

    const struct {
        std::string path;
        unsigned mask;
        bool expected;
    } cases[] = {
        {file, 16, true},
        {file, 4, false},
        {dir, 16, false},
        {dir, 20, true},
        {path("link"), 32, true},
        {path("link"), 16, true},
        {path("link"), 48, true},
        {file, 32, false},
        {path("dangling"), 32, true},
        {path("dangling"), 16, false},
        {path("fifo"), 1, true},
        {"/dev/null", 2, true},
        {path("sock"), 64, true},
        {path("sock"), 0xFF & ~64u, false},
        {file, 0x100 | 16, true},
        {path("missing"), 0xFF, false},
        {file + "/below", 0xFF, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path + " mask " + std::to_string(c.mask));
        EXPECT_EQ(ow_file_exists_ex(c.path.c_str(), c.mask), c.expected);
    }
    close(s);
    EXPECT_NO_ERRORS();  // a missing path is an answer, not a fault
    EXPECT_TRUE(ow_test::has_debug("ow_file_exists_ex",
                                   "[" + dir + "] exists but is of unexpected type [40000]"));
    EXPECT_TRUE(ow_test::has_debug("ow_file_exists_ex", "[" + file + "] exists and is a [100000]"));
}

TEST_F(FileTest, SizeAndExecutableAskForRegularFiles) {
    const std::string script = put("script", "#!/bin/sh\n");
    const std::string plain = put("plain", std::string(5000, 'p'));
    chmod(script.c_str(), 0755);
    chmod(plain.c_str(), 0644);
    uint64_t size = 0;
    EXPECT_TRUE(ow_get_filesize(plain.c_str(), &size));
    EXPECT_EQ(size, 5000u);
    EXPECT_FALSE(ow_get_filesize(dir_.c_str(), &size));
    EXPECT_TRUE(ow_file_executable(script.c_str()));
    EXPECT_FALSE(ow_file_executable(plain.c_str()));
    EXPECT_FALSE(ow_file_executable(dir_.c_str()));
    EXPECT_FALSE(ow_file_executable(path("missing").c_str()));
    EXPECT_NO_ERRORS();
}

TEST_F(FileTest, TmpFileNamesComeFromTmpdirPrefixAndPid) {
    const char* saved = std::getenv("TMPDIR");
    const std::string restore = saved != nullptr ? saved : "";
    const std::string pid = std::to_string(getpid());
    const struct {
        const char* tmpdir;  // nullptr: unset
        std::string expected;
    } cases[] = {
        {nullptr, "/tmp/axd." + pid},
        {"/var/tmp", "/var/tmp/axd." + pid},
        {"/var/tmp/", "/var/tmp//axd." + pid},
        {"", "/axd." + pid},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        if (c.tmpdir == nullptr) {
            unsetenv("TMPDIR");
        } else {
            setenv("TMPDIR", c.tmpdir, 1);
        }
        ow::unique_cstr name(ow_tmp_file("axd"));
        ASSERT_NE(name, nullptr);
        EXPECT_EQ(std::string(name.get()), c.expected);
    }
    // When TMPDIR is set but cannot be copied, there is no silent fall-back to /tmp.
    setenv("TMPDIR", "/var/tmp", 1);
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ow_tmp_file("axd"), nullptr);
    ow::testing::fail_allocation(2);
    EXPECT_EQ(ow_tmp_file("axd"), nullptr);
    EXPECT_ERROR_LINE("__getenv", err(ENOMEM));
    EXPECT_ERROR_LINE("ow_tmp_file", err(ENOMEM));
    if (saved != nullptr) {
        setenv("TMPDIR", restore.c_str(), 1);
    } else {
        unsetenv("TMPDIR");
    }
}

TEST_F(FileTest, BuildPathJoinsWithOneSlash) {
    const char* const cases[][3] = {
        {"/etc/ardvex", "list", "/etc/ardvex/list"},
        {"/etc/ardvex/", "list", "/etc/ardvex/list"},
        {"/", "x", "/x"},
        {"rel", "a/b", "rel/a/b"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c[2]);
        ow::unique_cstr joined(__build_path(c[0], c[1]));
        ASSERT_NE(joined, nullptr);
        EXPECT_STREQ(joined.get(), c[2]);
    }
}

// ---------------------------------------------------------------------------------------
// Copying, formatted writes, lines

TEST_F(FileTest, CopyReplacesTheDestinationExactly) {
    std::string binary(10000, '\0');
    for (std::size_t i = 0; i < binary.size(); ++i) binary[i] = static_cast<char>(i % 251);
    const std::string src = put("src", binary);
    const std::string longer = put("longer", std::string(20000, 'L'));
    EXPECT_TRUE(ow_copyfile(longer.c_str(), src.c_str()));
    EXPECT_EQ(slurp(longer), binary);
    EXPECT_TRUE(ow_copyfile(path("new").c_str(), src.c_str()));
    EXPECT_EQ(slurp(path("new")), binary);
    EXPECT_TRUE(ow_copyfile(longer.c_str(), put("empty", "").c_str()));
    EXPECT_EQ(slurp(longer), "");
    EXPECT_NO_ERRORS();
}

TEST_F(FileTest, FprintfFitsAt1022Characters) {
    const int fd = ow_open_ex(path("out").c_str(), false, O_RDWR | O_CREAT, 0);
    ASSERT_NE(fd, -1);
    EXPECT_TRUE(ow_fprintf(fd, "%s=%d;", "n", 42));
    EXPECT_TRUE(ow_fprintf(fd, "%s", std::string(1022, 'a').c_str()));
    EXPECT_FALSE(ow_fprintf(fd, "%s", std::string(1023, 'b').c_str()));
    EXPECT_ERROR_LINE("ow_fprintf", err(E2BIG));
    EXPECT_TRUE(ow_fprintf(fd, "%s", ""));
    EXPECT_TRUE(ow_close(fd));
    EXPECT_EQ(slurp(path("out")), "n=42;" + std::string(1022, 'a'));
}

TEST_F(FileTest, ReadlineReturnsSuccessiveLines) {
    const struct {
        std::string content;
        int64_t size;
        std::vector<std::string> lines;
    } cases[] = {
        {"a\r\nb", 64, {"a", "b"}},
        {"\n\r\nx\n", 64, {"", "", "x"}},
        {"first\nsecond\n", 64, {"first", "second"}},
        // A line longer than the buffer comes back in pieces of the buffer's size.
        {"abcdefgh\nz", 4, {"abcd", "efgh", "", "z"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        const int fd = ow_open_ex(put("lines", c.content).c_str(), false, O_RDONLY, 0);
        ASSERT_NE(fd, -1);
        std::vector<std::string> got;
        std::vector<char> buf(static_cast<std::size_t>(c.size) + 1, 'J');
        while (ow_readline(fd, buf.data(), c.size)) {
            got.emplace_back(buf.data(), strnlen(buf.data(), static_cast<std::size_t>(c.size)));
        }
        EXPECT_EQ(got, c.lines);
        ow_close(fd);
    }
    EXPECT_NO_ERRORS();
}

// ---------------------------------------------------------------------------------------
// Refusals and failures: each gives its failure value and exactly one telling line.

TEST_F(FileTest, RefusalsGiveTheFailureValueAndTheirLine) {
    const std::string file = put("file", "content");
    const int ro = open(file.c_str(), O_RDONLY);
    const int dir_fd = open(dir_.c_str(), O_RDONLY);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    fs::create_symlink(path("loop2"), path("loop1"));
    fs::create_symlink(path("loop1"), path("loop2"));
    char buf[8] = {};
    uint64_t size = 0;
    const char* no_format = nullptr;
    const std::string einval = err(EINVAL);
    const std::string canceled = err(ECANCELED);

    const struct {
        const char* what;
        std::function<bool()> failed;
        const char* func;
        std::string message;
    } cases[] = {
        {"open null", [&] { return ow_open_ex(nullptr, false, O_RDONLY, 0) == -1; }, "ow_open_ex",
         einval},
        {"open missing", [&] { return ow_open_ex(path("no").c_str(), false, O_RDONLY, 0) == -1; },
         "ow_open_ex", err(ENOENT)},
        {"lock read-only", [&] { return ow_open_ex(file.c_str(), true, O_RDONLY, 0) == -1; },
         "ow_open_ex", "request for lock " + err(EBADF)},
        {"close -1", [&] { return !ow_close(-1); }, "ow_close", einval},
        {"close unknown", [&] { return !ow_close(987); }, "ow_close", err(EBADF)},
        {"write -1", [&] { return !ow_write(-1, "x", 1); }, "ow_write", einval},
        {"write null", [&] { return !ow_write(p[1], nullptr, 1); }, "ow_write", einval},
        {"write 0", [&] { return !ow_write(p[1], "x", 0); }, "ow_write", einval},
        {"write read-only", [&] { return !ow_write(ro, "x", 1); }, "ow_write", err(EBADF)},
        {"read -1", [&] { return !ow_read(-1, buf, 1); }, "ow_read", "Invalid file handler!"},
        {"read null", [&] { return !ow_read(ro, nullptr, 1); }, "ow_read",
         "Invalid buffer parameter!"},
        {"read 0", [&] { return !ow_read(ro, buf, 0); }, "ow_read", "Invalid read size: 0"},
        {"read dir", [&] { return !ow_read(dir_fd, buf, 1); }, "ow_read", err(EISDIR)},
        {"nonblock -1", [&] { return !ow_read_nonblock(-1, buf, 1, 1, nullptr, nullptr); },
         "ow_read_nonblock", einval},
        {"nonblock null", [&] { return !ow_read_nonblock(p[0], nullptr, 1, 1, nullptr, nullptr); },
         "ow_read_nonblock", einval},
        {"nonblock size 0", [&] { return !ow_read_nonblock(p[0], buf, 0, 1, nullptr, nullptr); },
         "ow_read_nonblock", einval},
        {"nonblock timeout 0", [&] { return !ow_read_nonblock(p[0], buf, 1, 0, nullptr, nullptr); },
         "ow_read_nonblock", einval},
        {"seek -1", [&] { return !ow_seek(-1, 0, SEEK_SET); }, "ow_seek", einval},
        {"seek pipe", [&] { return !ow_seek(p[0], 0, SEEK_SET); }, "ow_seek", err(ESPIPE)},
        {"seek negative", [&] { return !ow_seek(ro, -5, SEEK_SET); }, "ow_seek", einval},
        {"filesize pipe", [&] { return ow_filesize(p[0]) == -1; }, "ow_filesize", err(ESPIPE)},
        {"filesize -1", [&] { return ow_filesize(-1) == -1; }, "ow_filesize", einval},
        {"truncate -1", [&] { return !ow_truncate(-1); }, "ow_truncate", einval},
        {"truncate pipe", [&] { return !ow_truncate(p[0]); }, "ow_truncate", err(ESPIPE)},
        {"tell -1", [&] { return ow_tell(-1) == -1; }, "ow_tell", einval},
        {"tell pipe", [&] { return ow_tell(p[0]) == -3; }, "ow_tell", err(ESPIPE)},
        {"contents -1", [&] { return ow_fd_get_contents_ex(-1, &size) == nullptr; },
         "ow_fd_get_contents_ex", einval},
        {"contents pipe", [&] { return ow_fd_get_contents_ex(p[0], &size) == nullptr; },
         "ow_fd_get_contents_ex", err(ESPIPE)},
        {"file contents null", [&] { return ow_file_get_contents_ex(nullptr, &size) == nullptr; },
         "ow_file_get_contents_ex", einval},
        {"file contents empty", [&] { return ow_file_get_contents_ex("", &size) == nullptr; },
         "ow_file_get_contents_ex", einval},
        {"file contents missing",
         [&] { return ow_file_get_contents_ex(path("no").c_str(), &size) == nullptr; },
         "ow_open_ex", err(ENOENT)},
        {"exists null", [&] { return !ow_file_exists_ex(nullptr, 16); }, "ow_file_exists_ex",
         einval},
        {"exists empty", [&] { return !ow_file_exists_ex("", 16); }, "ow_file_exists_ex", einval},
        {"exists loop", [&] { return !ow_file_exists_ex(path("loop1").c_str(), 16); },
         "ow_file_exists_ex", "Failed to stat [" + path("loop1") + "]: " + err(ELOOP)},
        {"filesize null", [&] { return !ow_get_filesize(nullptr, &size); }, "ow_get_filesize",
         einval},
        {"filesize empty", [&] { return !ow_get_filesize("", &size); }, "ow_get_filesize", einval},
        {"filesize no out", [&] { return !ow_get_filesize(file.c_str(), nullptr); },
         "ow_get_filesize", einval},
        {"executable null", [&] { return !ow_file_executable(nullptr); }, "ow_file_executable",
         einval},
        {"tmp null", [&] { return ow_tmp_file(nullptr) == nullptr; }, "ow_tmp_file", einval},
        {"tmp empty", [&] { return ow_tmp_file("") == nullptr; }, "ow_tmp_file", einval},
        {"copy no dst", [&] { return !ow_copyfile(nullptr, file.c_str()); }, "ow_copyfile", einval},
        {"copy empty dst", [&] { return !ow_copyfile("", file.c_str()); }, "ow_copyfile", einval},
        {"copy no src", [&] { return !ow_copyfile(path("d").c_str(), nullptr); }, "ow_copyfile",
         einval},
        {"copy empty src", [&] { return !ow_copyfile(path("d").c_str(), ""); }, "ow_copyfile",
         einval},
        {"copy missing src", [&] { return !ow_copyfile(path("d").c_str(), path("no").c_str()); },
         "ow_copyfile", canceled},
        {"copy dst in missing dir",
         [&] { return !ow_copyfile(path("no/d").c_str(), file.c_str()); }, "ow_copyfile", canceled},
        {"copy onto itself", [&] { return !ow_copyfile(file.c_str(), file.c_str()); },
         "ow_copyfile", einval},
        {"fprintf -1", [&] { return !ow_fprintf(-1, "x"); }, "ow_fprintf", einval},
        {"fprintf no format", [&] { return !ow_fprintf(p[1], no_format); }, "ow_fprintf", einval},
        // A wide character the C locale cannot convert makes the formatting itself fail.
        {"fprintf bad format", [&] { return !ow_fprintf(p[1], "%ls", L"\u00e9"); }, "ow_fprintf",
         "unknown error on vsnprintf() " + err(56)},
        {"readline -1", [&] { return !ow_readline(-1, buf, 8); }, "ow_readline", einval},
        {"readline null", [&] { return !ow_readline(ro, nullptr, 8); }, "ow_readline", einval},
        {"readline 0", [&] { return !ow_readline(ro, buf, 0); }, "ow_readline", einval},
        {"readline negative", [&] { return !ow_readline(ro, buf, -1); }, "ow_readline", einval},
        {"readline pipe", [&] { return !ow_readline(p[0], buf, 8); }, "ow_readline", canceled},
        {"path no dir", [&] { return __build_path(nullptr, "n") == nullptr; }, "__build_path",
         einval},
        {"path empty dir", [&] { return __build_path("", "n") == nullptr; }, "__build_path",
         einval},
        {"path no name", [&] { return __build_path("/d", nullptr) == nullptr; }, "__build_path",
         einval},
        {"path empty name", [&] { return __build_path("/d", "") == nullptr; }, "__build_path",
         einval},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        clear_log();
        EXPECT_TRUE(c.failed());
        EXPECT_ERROR_LINE(c.func, c.message);
    }
    EXPECT_EQ(slurp(file), "content") << "a refused copy onto itself lost the data";
    close(ro);
    close(dir_fd);
    close(p[0]);
    close(p[1]);
}

TEST_F(FileTest, AllocationFailuresAreReportedNotCrashed) {
    const std::string file = put("file", "content");
    ow::testing::fail_allocation(1);
    uint64_t size = 0;
    EXPECT_EQ(ow_file_get_contents_ex(file.c_str(), &size), nullptr);
    EXPECT_ERROR_LINE("ow_fd_get_contents_ex", err(ENOMEM));
    EXPECT_ERROR_LINE("ow_file_get_contents_ex",
                      "Failed to get file contents [" + file + "]: " + err(ENOMEM));
    ow::testing::fail_allocation(1);
    EXPECT_EQ(__build_path("/d", "n"), nullptr);
    EXPECT_ERROR_LINE("__build_path", err(ENOMEM));
}

}  // namespace

// Tests of ow_file against real files, pipes, sockets and processes: two processes race on
// one locked counter, a packet socket keeps each write(2) apart, slow writers meet time-outs.
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
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

namespace fs = std::filesystem;

std::string err(int e) { return std::strerror(e); }

// Runs body in a child (with no log sink) that exits 0 when body returns true.
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
        std::ofstream(p, std::ios::binary) << bytes;
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

// ow_copyfile locks its destination just as ow_open_ex does.
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

TEST_F(FileTest, WriteGoesOutIn4096ByteBlocks) {
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

// A full pipe blocks the first block until a timer interrupts it; a late reader then checks
// that every byte arrived exactly once.
TEST_F(FileTest, WriteInterruptedBySignalRepeatsTheBlock) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    fcntl(p[1], F_SETFL, O_NONBLOCK);
    std::size_t prefill = 0;
    char chunk[4096] = {};
    for (ssize_t n; (n = write(p[1], chunk, sizeof chunk)) > 0;) prefill += n;
    fcntl(p[1], F_SETFL, 0);
    const std::string data(10000, 'w');
    const pid_t reader = spawn([&] {
        close(p[1]);
        usleep(400000);
        std::size_t total = 0;
        char buf[4096];
        for (ssize_t n; (n = read(p[0], buf, sizeof buf)) > 0;) total += n;
        return total == prefill + data.size();
    });
    close(p[0]);
    struct sigaction sa {};
    struct sigaction old {};
    sa.sa_handler = on_alarm;  // no SA_RESTART: the blocked write must fail with EINTR
    sigaction(SIGALRM, &sa, &old);
    itimerval timer{{0, 0}, {0, 100000}};
    setitimer(ITIMER_REAL, &timer, nullptr);
    EXPECT_TRUE(ow_write(p[1], data.data(), data.size()));
    sigaction(SIGALRM, &old, nullptr);
    close(p[1]);
    EXPECT_EQ(wait_exit(reader), 0);
    EXPECT_ERROR_LINE("ow_write", "Write operation was interrupted... trying again...");
}

// The time-out bounds the whole call: three blocks 400 ms apart do not fit in 600 ms,
// although no single wait is longer than 400 ms.
TEST_F(FileTest, ReadNonblockTimeOutAndShortPieces) {
    const std::string block(4096, 'b');
    const struct {
        const char* what;
        useconds_t pause_us;  // between writes
        std::vector<std::string> writes;
        int64_t size;
        uint64_t timeout_us;
        bool ok;
    } cases[] = {
        {"silent", 0, {}, 16, 200000, false},
        {"slow blocks", 400000, {block, block, block}, 3 * 4096, 600000, false},
        {"until short", 100000, {std::string(4096, 'x'), block, "tail"}, 10000, 5000000, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        clear_log();
        int p[2];
        ASSERT_EQ(pipe(p), 0);
        const pid_t writer = spawn([&] {
            for (std::size_t i = 0; i < c.writes.size(); ++i) {
                if (i > 0) usleep(c.pause_us);
                if (write(p[1], c.writes[i].data(), c.writes[i].size()) < 0) return false;
            }
            return true;
        });
        std::vector<char> buf(static_cast<std::size_t>(c.size));
        int timed_out = 0;
        uint32_t count = 99;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(ow_read_nonblock(p[0], buf.data(), c.size, c.timeout_us, &timed_out, &count),
                  c.ok);
        const auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(timed_out, c.ok ? 0 : 1);
        if (c.ok) {
            EXPECT_EQ(std::string(buf.data(), count), c.writes[0] + c.writes[1] + c.writes[2]);
        } else {
            EXPECT_EQ(count, 99u) << "a failed read reported a count";
            EXPECT_GE(waited, std::chrono::microseconds(c.timeout_us));
            EXPECT_LT(waited, std::chrono::seconds(2));
        }
        EXPECT_NO_ERRORS();
        EXPECT_EQ(wait_exit(writer), 0);
        close(p[0]);
        close(p[1]);
    }
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
    EXPECT_TRUE(ow_seek(fd, 0, SEEK_SET));
    std::vector<char> buf(10000, '\0');
    EXPECT_TRUE(ow_read(fd, buf.data(), 10000)) << "a read past the end must stop and succeed";
    EXPECT_EQ(std::string(buf.data()), std::string(40, 'd'));
    EXPECT_TRUE(ow_close(fd));
    struct stat st {};
    ASSERT_EQ(stat(path("f").c_str(), &st), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0666u & ~mask);  // mode 0 means 0666
}

TEST_F(FileTest, WholeFileReadsOfEmptyBinaryAndCappedFiles) {
    uint64_t size = 9;
    char* data = ow_file_get_contents_ex(put("empty", "").c_str(), &size);
    ASSERT_NE(data, nullptr);
    EXPECT_STREQ(data, "");
    EXPECT_EQ(size, 0u);
    std::free(data);
    const std::string binary("a\0b\0\xff", 5);
    EXPECT_EQ(slurp(put("bin", binary)), binary);

    unsetenv("VERBOSEDEBUG");  // spare the log tens of thousands of block lines
    ow::testing::reset_debug_decision();
    const std::string file = path("sparse");
    const int fd = open(file.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(ftruncate(fd, 104857600), 0);
    ASSERT_EQ(pwrite(fd, "end", 3, 104857600 - 3), 3);
    close(fd);
    data = ow_file_get_contents_ex(file.c_str(), &size);
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
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ow_file_get_contents_ex(put("small", "x").c_str(), &size), nullptr);
    EXPECT_ERROR_LINE("ow_fd_get_contents_ex", err(ENOMEM));
    EXPECT_ERROR_LINE("ow_file_get_contents_ex",
                      "Failed to get file contents [" + path("small") + "]: " + err(ENOMEM));
}

TEST_F(FileTest, ExistsSizeAndExecutableCheckTheType) {
    const std::string file = put("file", std::string(5000, 'p'));
    const std::string script = put("script", "#!/bin/sh\n");
    chmod(script.c_str(), 0755);
    chmod(file.c_str(), 0644);
    const std::string dir = path("dir"), link = path("link"), dangling = path("dangling");
    fs::create_directory(dir);
    fs::create_symlink(file, link);
    fs::create_symlink(path("nowhere"), dangling);
    mkfifo(path("fifo").c_str(), 0600);
    const int s = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path("sock").c_str());
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    const struct {
        std::string path;
        std::vector<unsigned> accepted, refused;  // masks
    } cases[] = {
        {file, {16, 0x100 | 16}, {4, 32}},
        {dir, {20}, {16}},
        {link, {32, 16, 48}, {}},  // alone the link bit examines the link, else its target
        {dangling, {32}, {16}},
        {path("fifo"), {1}, {}},
        {"/dev/null", {2}, {}},
        {path("sock"), {64}, {0xFF & ~64u}},
        {path("missing"), {}, {0xFF}},
        {file + "/below", {}, {0xFF}},
    };
    for (const auto& c : cases) {
        for (const unsigned mask : c.accepted) {
            SCOPED_TRACE(c.path + " mask " + std::to_string(mask));
            EXPECT_TRUE(ow_file_exists_ex(c.path.c_str(), mask));
        }
        for (const unsigned mask : c.refused) {
            SCOPED_TRACE(c.path + " mask " + std::to_string(mask));
            EXPECT_FALSE(ow_file_exists_ex(c.path.c_str(), mask));
        }
    }
    close(s);
    uint64_t size = 0;
    EXPECT_TRUE(ow_get_filesize(file.c_str(), &size));
    EXPECT_EQ(size, 5000u);
    EXPECT_FALSE(ow_get_filesize(dir_.c_str(), &size));
    EXPECT_TRUE(ow_file_executable(script.c_str()));
    EXPECT_FALSE(ow_file_executable(file.c_str()));
    EXPECT_FALSE(ow_file_executable(dir_.c_str()));
    EXPECT_FALSE(ow_file_executable(path("missing").c_str()));
    EXPECT_NO_ERRORS();  // a missing path or a wrong type is an answer, not a fault
}

TEST_F(FileTest, TmpFileNamesAndJoinedPaths) {
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
        c.tmpdir == nullptr ? unsetenv("TMPDIR") : setenv("TMPDIR", c.tmpdir, 1);
        ow::unique_cstr name(ow_tmp_file("axd"));
        ASSERT_NE(name, nullptr);
        EXPECT_EQ(std::string(name.get()), c.expected);
    }
    // A TMPDIR that cannot be copied gives no silent fall-back to /tmp.
    setenv("TMPDIR", "/var/tmp", 1);
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ow_tmp_file("axd"), nullptr);
    ow::testing::fail_allocation(2);
    EXPECT_EQ(ow_tmp_file("axd"), nullptr);
    EXPECT_ERROR_LINE("__getenv", err(ENOMEM));
    EXPECT_ERROR_LINE("ow_tmp_file", err(ENOMEM));
    saved != nullptr ? setenv("TMPDIR", restore.c_str(), 1) : unsetenv("TMPDIR");

    const char* const joins[][3] = {
        {"/etc/ardvex", "list", "/etc/ardvex/list"},
        {"/etc/ardvex/", "list", "/etc/ardvex/list"},
        {"/", "x", "/x"},
        {"rel", "a/b", "rel/a/b"},
    };
    for (const auto& j : joins) {
        SCOPED_TRACE(j[2]);
        ow::unique_cstr joined(__build_path(j[0], j[1]));
        ASSERT_NE(joined, nullptr);
        EXPECT_STREQ(joined.get(), j[2]);
    }
    ow::testing::fail_allocation(1);
    EXPECT_EQ(__build_path("/d", "n"), nullptr);
    EXPECT_ERROR_LINE("__build_path", err(ENOMEM));
}

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
        {"abcdefgh\nz", 4, {"abcd", "efgh", "", "z"}},  // a long line comes in buffer-sized pieces
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

// Each refusal gives its failure value and its own ERROR line.
TEST_F(FileTest, RefusalsGiveTheFailureValueAndTheirLine) {
    const std::string file = put("file", "content");
    const int ro = open(file.c_str(), O_RDONLY);
    const int dir_fd = open(dir_.c_str(), O_RDONLY);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    const std::string loop = path("loop1"), no = path("no"), d = path("d");
    fs::create_symlink(path("loop2"), loop);
    fs::create_symlink(loop, path("loop2"));
    const char* f = file.c_str();
    char buf[8] = {};
    uint64_t size = 0;
    const char* no_format = nullptr;
    const std::string inval = err(EINVAL), canceled = err(ECANCELED);
    const struct {
        const char* func;
        std::string message;
        std::function<bool()> failed;
    } cases[] = {
        {"ow_open_ex", inval, [&] { return ow_open_ex(nullptr, false, O_RDONLY, 0) == -1; }},
        {"ow_open_ex", err(ENOENT), [&] { return ow_open_ex(no.c_str(), 0, O_RDONLY, 0) == -1; }},
        {"ow_open_ex", "request for lock " + err(EBADF),
         [&] { return ow_open_ex(f, true, O_RDONLY, 0) == -1; }},
        {"ow_close", inval, [&] { return !ow_close(-1); }},
        {"ow_close", err(EBADF), [&] { return !ow_close(987); }},
        {"ow_write", inval, [&] { return !ow_write(-1, "x", 1); }},
        {"ow_write", inval, [&] { return !ow_write(p[1], nullptr, 1); }},
        {"ow_write", inval, [&] { return !ow_write(p[1], "x", 0); }},
        {"ow_write", err(EBADF), [&] { return !ow_write(ro, "x", 1); }},
        {"ow_read", "Invalid file handler!", [&] { return !ow_read(-1, buf, 1); }},
        {"ow_read", "Invalid buffer parameter!", [&] { return !ow_read(ro, nullptr, 1); }},
        {"ow_read", "Invalid read size: 0", [&] { return !ow_read(ro, buf, 0); }},
        {"ow_read", err(EISDIR), [&] { return !ow_read(dir_fd, buf, 1); }},
        {"ow_read_nonblock", inval, [&] { return !ow_read_nonblock(-1, buf, 1, 1, 0, 0); }},
        {"ow_read_nonblock", inval, [&] { return !ow_read_nonblock(p[0], 0, 1, 1, 0, 0); }},
        {"ow_read_nonblock", inval, [&] { return !ow_read_nonblock(p[0], buf, 0, 1, 0, 0); }},
        {"ow_read_nonblock", inval, [&] { return !ow_read_nonblock(p[0], buf, 1, 0, 0, 0); }},
        {"ow_seek", inval, [&] { return !ow_seek(-1, 0, SEEK_SET); }},
        {"ow_seek", err(ESPIPE), [&] { return !ow_seek(p[0], 0, SEEK_SET); }},
        {"ow_seek", inval, [&] { return !ow_seek(ro, -5, SEEK_SET); }},
        {"ow_filesize", err(ESPIPE), [&] { return ow_filesize(p[0]) == -1; }},
        {"ow_filesize", inval, [&] { return ow_filesize(-1) == -1; }},
        {"ow_truncate", inval, [&] { return !ow_truncate(-1); }},
        {"ow_truncate", err(ESPIPE), [&] { return !ow_truncate(p[0]); }},
        {"ow_tell", inval, [&] { return ow_tell(-1) == -1; }},
        {"ow_tell", err(ESPIPE), [&] { return ow_tell(p[0]) == -3; }},
        {"ow_fd_get_contents_ex", inval, [&] { return !ow_fd_get_contents_ex(-1, &size); }},
        {"ow_fd_get_contents_ex", err(ESPIPE), [&] { return !ow_fd_get_contents_ex(p[0], &size); }},
        {"ow_file_get_contents_ex", inval, [&] { return !ow_file_get_contents_ex(0, &size); }},
        {"ow_file_get_contents_ex", inval, [&] { return !ow_file_get_contents_ex("", &size); }},
        {"ow_open_ex", err(ENOENT), [&] { return !ow_file_get_contents_ex(no.c_str(), &size); }},
        {"ow_file_exists_ex", inval, [&] { return !ow_file_exists_ex(nullptr, 16); }},
        {"ow_file_exists_ex", inval, [&] { return !ow_file_exists_ex("", 16); }},
        {"ow_file_exists_ex", "Failed to stat [" + loop + "]: " + err(ELOOP),
         [&] { return !ow_file_exists_ex(loop.c_str(), 16); }},
        {"ow_get_filesize", inval, [&] { return !ow_get_filesize(nullptr, &size); }},
        {"ow_get_filesize", inval, [&] { return !ow_get_filesize("", &size); }},
        {"ow_get_filesize", inval, [&] { return !ow_get_filesize(f, nullptr); }},
        {"ow_file_executable", inval, [&] { return !ow_file_executable(nullptr); }},
        {"ow_tmp_file", inval, [&] { return ow_tmp_file(nullptr) == nullptr; }},
        {"ow_tmp_file", inval, [&] { return ow_tmp_file("") == nullptr; }},
        {"ow_copyfile", inval, [&] { return !ow_copyfile(nullptr, f); }},
        {"ow_copyfile", inval, [&] { return !ow_copyfile("", f); }},
        {"ow_copyfile", inval, [&] { return !ow_copyfile(d.c_str(), nullptr); }},
        {"ow_copyfile", inval, [&] { return !ow_copyfile(d.c_str(), ""); }},
        {"ow_copyfile", canceled, [&] { return !ow_copyfile(d.c_str(), no.c_str()); }},
        {"ow_copyfile", canceled, [&] { return !ow_copyfile(path("no/d").c_str(), f); }},
        {"ow_copyfile", inval, [&] { return !ow_copyfile(f, f); }},
        {"ow_fprintf", inval, [&] { return !ow_fprintf(-1, "x"); }},
        {"ow_fprintf", inval, [&] { return !ow_fprintf(p[1], no_format); }},
        // A wide character the C locale cannot convert makes the formatting itself fail.
        {"ow_fprintf", "unknown error on vsnprintf() " + err(56),
         [&] { return !ow_fprintf(p[1], "%ls", L"\u00e9"); }},
        {"ow_readline", inval, [&] { return !ow_readline(-1, buf, 8); }},
        {"ow_readline", inval, [&] { return !ow_readline(ro, nullptr, 8); }},
        {"ow_readline", inval, [&] { return !ow_readline(ro, buf, 0); }},
        {"ow_readline", inval, [&] { return !ow_readline(ro, buf, -1); }},
        {"ow_readline", canceled, [&] { return !ow_readline(p[0], buf, 8); }},
        {"__build_path", inval, [&] { return __build_path(nullptr, "n") == nullptr; }},
        {"__build_path", inval, [&] { return __build_path("", "n") == nullptr; }},
        {"__build_path", inval, [&] { return __build_path("/d", nullptr) == nullptr; }},
        {"__build_path", inval, [&] { return __build_path("/d", "") == nullptr; }},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE("row " + std::to_string(i) + ": " + cases[i].func);
        clear_log();
        EXPECT_TRUE(cases[i].failed());
        EXPECT_ERROR_LINE(cases[i].func, cases[i].message);
    }
    EXPECT_EQ(slurp(file), "content") << "a refused copy onto itself lost the data";
    close(ro);
    close(dir_fd);
    close(p[0]);
    close(p[1]);
}

}  // namespace

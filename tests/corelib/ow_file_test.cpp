// ow_file against real files, pipes, sockets and racing or slow processes.
#include "ow_file.h"

#include "scratch.hpp"

#include <signal.h>
#include <sys/socket.h>

#include <functional>
#include <thread>

#include "ow_internal.hpp"

namespace {

using ow_test::refused;
using ow_test::slurp;
using FileTest = ow_test::ScratchTest;
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
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(FileTest, LockSerialisesReadModifyWriteAcrossProcesses) {
    const std::string counter = path("counter");
    ow_test::spit(counter, "0");
    auto bump_1000 = [&] {
        bool ok = true;
        for (int i = 0; ok && i < 1000; ++i) {
            const int fd = ow_open_ex(counter.c_str(), true, O_RDWR, 0);
            char text[32] = {};
            ok = fd != -1 && ow_read(fd, text, sizeof text - 1);
            sched_yield();  // invite the other process in between the read and the write
            ok = ok && ow_seek(fd, 0, SEEK_SET) &&
                 ow_fprintf(fd, "%ld", std::strtol(text, nullptr, 10) + 1) && ow_truncate(fd) &&
                 ow_close(fd);
        }
        return ok;
    };
    const pid_t a = spawn(bump_1000), b = spawn(bump_1000);
    EXPECT_EQ(std::make_pair(wait_exit(a), wait_exit(b)), std::make_pair(0, 0));
    EXPECT_EQ(slurp(counter), "2000");
}

// A packet socket keeps each write(2) apart; a signal interrupts a block waiting for room.
TEST_F(FileTest, WriteGoesOutIn4096ByteBlocksAndRepeatsAnInterruptedOne) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv), 0);
    const int small = 4096;
    ASSERT_EQ(setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    // A pattern that does not repeat every block, so a block sent from the wrong place shows.
    std::string data(10000, '\0'), received;
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i % 251);
    std::vector<ssize_t> records;
    struct sigaction sa = {}, old = {};
    sa.sa_handler = [](int) {};  // no SA_RESTART: the blocked write must fail with EINTR
    sigaction(SIGUSR1, &sa, &old);
    std::thread reader([&, writer = pthread_self()] {
        usleep(100000);
        pthread_kill(writer, SIGUSR1);
        usleep(300000);
        char buf[65536];
        for (ssize_t n; (n = recv(sv[1], buf, sizeof buf, 0)) > 0; received.append(buf, n)) {
            records.push_back(n);
        }
    });
    EXPECT_TRUE(ow_write(sv[0], data.data(), data.size()));
    close(sv[0]);  // the reader's end of data
    reader.join();
    sigaction(SIGUSR1, &old, nullptr);
    close(sv[1]);
    EXPECT_EQ(records, (std::vector<ssize_t>{4096, 4096, 1808}));
    EXPECT_EQ(received, data);
    EXPECT_ERROR_LINE("ow_write", "Write operation was interrupted... trying again...");
}

// The time-out bounds the whole call, not each wait: 3 blocks 400 ms apart miss 600 ms.
TEST_F(FileTest, ReadNonblockTimeOutAndShortPieces) {
    const std::string block(4096, 'b');
    const struct {
        useconds_t pause_us;  // before each write
        std::vector<std::string> writes;
        uint64_t timeout_us;
        bool ok;
    } cases[] = {
        {0, {}, 200000, false},  // silent
        {400000, {block, block, block}, 600000, false},
        {100000, {std::string(4096, 'x'), block, "tail"}, 5000000, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.timeout_us);
        int p[2];
        ASSERT_EQ(pipe(p), 0);
        const pid_t writer = spawn([&] {
            for (const std::string& w : c.writes) {
                usleep(c.pause_us);
                if (write(p[1], w.data(), w.size()) < 0) return false;
            }
            return true;
        });
        std::vector<char> buf(3 * 4096);
        int timed_out = 0;
        uint32_t count = 99;
        EXPECT_EQ(ow_read_nonblock(p[0], buf.data(), 3 * 4096, c.timeout_us, &timed_out, &count),
                  c.ok);
        EXPECT_EQ(timed_out, c.ok ? 0 : 1);
        EXPECT_EQ(c.ok ? std::string(buf.data(), count) : std::to_string(count),
                  c.ok ? c.writes[0] + c.writes[1] + c.writes[2] : "99");
        EXPECT_NO_ERRORS();
        EXPECT_EQ(wait_exit(writer), 0);
        for (const int fd : p) close(fd);
    }
}

TEST_F(FileTest, WritesSeeksSizesAndReadsLineByLine) {
    const int fd = ow_open_ex(path("f").c_str(), false, O_RDWR | O_CREAT, 0);
    ASSERT_NE(fd, -1);
    EXPECT_TRUE(ow_fprintf(fd, "%s=%d;", "n", 42) && ow_fprintf(fd, "%s", "") &&
                ow_fprintf(fd, "%s", std::string(1022, 'a').c_str()));
    refused("ow_fprintf", err(E2BIG), {!ow_fprintf(fd, "%s", std::string(1023, 'b').c_str())});
    EXPECT_TRUE(ow_seek(fd, 40, SEEK_SET));
    EXPECT_EQ(ow_filesize(fd), 5 + 1022) << "the refused text was written";
    EXPECT_EQ(ow_tell(fd), 40) << "ow_filesize moved the position";
    EXPECT_TRUE(ow_truncate(fd) && ow_close(fd));
    EXPECT_EQ(slurp(path("f")), "n=42;" + std::string(35, 'a'));
    // A longer line comes in buffer-sized pieces; a CR before the LF goes, even alone.
    ow_test::spit(path("lines"), "a\r\nb\n\r\nabcdefgh\nz");
    const int lines = ow_open_ex(path("lines").c_str(), false, O_RDONLY, 0);
    std::vector<std::string> got;
    char line[5] = "JJJJ";
    while (got.size() < 9 && ow_readline(lines, line, 4)) got.emplace_back(line, strnlen(line, 4));
    EXPECT_EQ(got, (std::vector<std::string>{"a", "b", "", "abcd", "efgh", "", "z"}));
    EXPECT_TRUE(ow_close(lines));
    EXPECT_NO_ERRORS();
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(fs::status(path("f")).permissions(), fs::perms(0666 & ~mask));  // mode 0: 0666
}

TEST_F(FileTest, WholeFileReadsOfEmptyAndCappedFiles) {
    const std::string file = path("f");
    ow_test::spit(file, "");
    uint64_t size = 9;
    ow::unique_cstr data(ow_file_get_contents_ex(file.c_str(), &size));
    EXPECT_TRUE(data && *data == '\0' && size == 0) << "an empty file gives an empty string";
    unsetenv("VERBOSEDEBUG");  // spare the log tens of thousands of block lines
    ow::testing::reset_debug_decision();
    ASSERT_EQ(ow_test::sh("truncate -s 104857597 " + file + " && printf end >>" + file), 0);
    data.reset(ow_file_get_contents_ex(file.c_str(), &size));
    ASSERT_TRUE(data && size == 104857600u) << size;
    EXPECT_STREQ(data.get() + size - 3, "end");
    EXPECT_NO_ERRORS();
    // One byte over the cap, then a small file and no memory for it: no contents, size untouched.
    size = 7;
    for (const auto& [length, e] : {std::pair{104857601, EFBIG}, {1, ENOMEM}}) {
        ASSERT_EQ(truncate(file.c_str(), length), 0);
        ow::testing::fail_allocation(e == ENOMEM ? 1 : 0);
        EXPECT_EQ(ow_file_get_contents_ex(file.c_str(), &size), nullptr);
        EXPECT_ERROR_LINE("ow_fd_get_contents_ex", err(e));
        EXPECT_ERROR_LINE("ow_file_get_contents_ex",
                          "Failed to get file contents [" + file + "]: " + err(e));
    }
    EXPECT_EQ(size, 7u);
}

TEST_F(FileTest, ExistsSizeExecutableAndCopy) {
    const std::string file = path("file"), script = path("script"), dir = path("dir");
    ow_test::spit(file, std::string(5000, 'p'));
    ow_test::spit(script, "#!/bin/sh\n", 0755);
    const std::string kinds = "mkdir dir && mkfifo fifo && ln -s file link && ln -s no dangling";
    ASSERT_EQ(ow_test::sh("cd " + dir_ + " && " + kinds), 0);
    const struct {
        std::string path;
        std::vector<unsigned> masks;
        std::string want;  // per mask: + exists as one of the types, - not
    } cases[] = {
        {file, {16, 4, 32, 0xFF & ~16u}, "+---"},
        {dir, {20, 16, 0xFF & ~4u}, "+--"},
        // Only a mask of exactly the link bit (in the low 8 bits) examines the link itself.
        {path("link"), {32, 0x100 | 32, 16}, "+++"},
        {path("dangling"), {32, 16, 48}, "+--"},
        {path("fifo"), {1}, "+"},
        {path("missing"), {0xFF}, "-"},
        {file + "/below", {0xFF}, "-"},
    };
    for (const auto& c : cases) {
        std::string got;
        for (const unsigned m : c.masks) got += ow_file_exists_ex(c.path.c_str(), m) ? '+' : '-';
        EXPECT_EQ(got, c.want) << c.path;
    }
    // A copy replaces a longer destination exactly.
    const std::string bytes("copied\0bytes", 12);
    ow_test::spit(path("src"), bytes);
    EXPECT_TRUE(ow_copyfile(file.c_str(), path("src").c_str()));
    EXPECT_TRUE(ow_copyfile(path("new").c_str(), file.c_str()));
    EXPECT_EQ(slurp(file) + slurp(path("new")), bytes + bytes);
    uint64_t size = 0;
    EXPECT_TRUE(ow_get_filesize(script.c_str(), &size) && size == 10u) << size;
    EXPECT_FALSE(ow_get_filesize(dir.c_str(), &size));
    EXPECT_TRUE(ow_file_executable(script.c_str()));
    for (const std::string& no : {file, dir, path("missing")}) {
        EXPECT_FALSE(ow_file_executable(no.c_str())) << no;
    }
    EXPECT_NO_ERRORS();  // a missing path or a wrong type is an answer, not a fault
}

TEST_F(FileTest, TmpFileNamesAndJoinedPaths) {
    const std::string pid = std::to_string(getpid());
    const std::pair<const char*, std::string> cases[] = {
        {nullptr, "/tmp/axd." + pid},  // TMPDIR unset
        {"/var/tmp/", "/var/tmp//axd." + pid},
        {"", "/axd." + pid},
    };
    for (const auto& [tmpdir, expected] : cases) {
        tmpdir == nullptr ? unsetenv("TMPDIR") : setenv("TMPDIR", tmpdir, 1);
        EXPECT_STREQ(ow::unique_cstr(ow_tmp_file("axd")).get(), expected.c_str());
    }
    // A TMPDIR that cannot be copied gives no silent fall-back to /tmp.
    setenv("TMPDIR", "/var/tmp", 1);
    for (long n : {1, 2}) {
        ow::testing::fail_allocation(n);
        EXPECT_EQ(ow_tmp_file("axd"), nullptr) << n;
    }
    EXPECT_ERROR_LINE("__getenv", err(ENOMEM));
    EXPECT_ERROR_LINE("ow_tmp_file", err(ENOMEM));

    for (const char* dir : {"/etc/ardvex", "/etc/ardvex/"}) {
        EXPECT_STREQ(ow::unique_cstr(__build_path(dir, "list")).get(), "/etc/ardvex/list");
    }
    ow::testing::fail_allocation(1);
    refused("__build_path", err(ENOMEM), {!__build_path("/d", "n")});
}

TEST_F(FileTest, RefusalsGiveTheFailureValueAndTheirLine) {
    const std::string file = path("file"), loop = path("loop1"), no = path("no"), dst = path("d");
    ow_test::spit(file, "content");
    const int ro = open(file.c_str(), O_RDONLY), dir_fd = open(dir_.c_str(), O_RDONLY);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    const int r = p[0], w = p[1];
    ASSERT_EQ(ow_test::sh("cd " + dir_ + " && ln -s loop2 loop1 && ln -s loop1 loop2"), 0);
    const char *f = file.c_str(), *d = dst.c_str(), *n = no.c_str(), *none = nullptr;
    char buf[8] = {};
    uint64_t size = 0;
    const std::string inval = err(EINVAL), canceled = err(ECANCELED);
    refused("ow_open_ex", inval, {ow_open_ex(nullptr, false, O_RDONLY, 0) == -1});
    refused("ow_open_ex", err(ENOENT),
            {ow_open_ex(n, false, O_RDONLY, 0) == -1, !ow_file_get_contents_ex(n, &size)});
    refused("ow_open_ex", "request for lock " + err(EBADF),
            {ow_open_ex(f, true, O_RDONLY, 0) == -1});
    refused("ow_close", err(EBADF), {!ow_close(987)});
    refused("ow_write", inval,
            {!ow_write(-1, "x", 1), !ow_write(w, nullptr, 1), !ow_write(w, "x", 0)});
    refused("ow_write", err(EBADF), {!ow_write(ro, "x", 1)});
    refused("ow_read", "Invalid file handler!", {!ow_read(-1, buf, 1)});
    refused("ow_read", "Invalid buffer parameter!", {!ow_read(ro, nullptr, 1)});
    refused("ow_read", "Invalid read size: 0", {!ow_read(ro, buf, 0)});
    refused("ow_read", err(EISDIR), {!ow_read(dir_fd, buf, 1)});
    refused("ow_read_nonblock", inval,
            {!ow_read_nonblock(-1, buf, 1, 1, 0, 0), !ow_read_nonblock(r, 0, 1, 1, 0, 0),
             !ow_read_nonblock(r, buf, 0, 1, 0, 0), !ow_read_nonblock(r, buf, 1, 0, 0, 0)});
    refused("ow_seek", inval, {!ow_seek(-1, 0, SEEK_SET), !ow_seek(ro, -5, SEEK_SET)});
    refused("ow_seek", err(ESPIPE), {!ow_seek(r, 0, SEEK_SET)});
    // -1 is reported and handed on, so the failed seek adds its own line.
    EXPECT_EQ(ow_filesize(-1), -1);
    EXPECT_ERROR_LINE("ow_filesize", inval);
    EXPECT_ERROR_LINE("ow_filesize", err(EBADF));
    clear_log();
    refused("ow_filesize", err(ESPIPE), {ow_filesize(r) == -1});
    refused("ow_truncate", inval, {!ow_truncate(-1)});
    refused("ow_truncate", err(ESPIPE), {!ow_truncate(r)});
    refused("ow_tell", inval, {ow_tell(-1) == -1});
    refused("ow_tell", err(ESPIPE), {ow_tell(r) == -3});
    refused("ow_fd_get_contents_ex", inval, {!ow_fd_get_contents_ex(-1, &size)});
    refused("ow_fd_get_contents_ex", err(ESPIPE), {!ow_fd_get_contents_ex(r, &size)});
    refused("ow_file_get_contents_ex", inval, {!ow_file_get_contents_ex("", &size)});
    refused("ow_file_exists_ex", inval, {!ow_file_exists_ex("", 16)});
    refused("ow_file_exists_ex", "Failed to stat [" + loop + "]: " + err(ELOOP),
            {!ow_file_exists_ex(loop.c_str(), 16)});
    refused("ow_get_filesize", inval, {!ow_get_filesize("", &size), !ow_get_filesize(f, nullptr)});
    refused("ow_file_executable", inval, {!ow_file_executable(none)});
    refused("ow_tmp_file", inval, {!ow_tmp_file("")});
    refused("ow_copyfile", inval, {!ow_copyfile("", f), !ow_copyfile(d, ""), !ow_copyfile(f, f)});
    refused("ow_copyfile", canceled, {!ow_copyfile(d, n), !ow_copyfile(path("no/d").c_str(), f)});
    refused("ow_fprintf", inval, {!ow_fprintf(-1, "x"), !ow_fprintf(w, none)});
    // A wide character the C locale cannot convert makes the formatting itself fail.
    refused("ow_fprintf", "unknown error on vsnprintf() " + err(56),
            {!ow_fprintf(w, "%ls", L"\u00e9")});
    refused("ow_readline", inval,
            {!ow_readline(-1, buf, 8), !ow_readline(ro, nullptr, 8), !ow_readline(ro, buf, 0),
             !ow_readline(ro, buf, -1)});
    refused("ow_readline", canceled, {!ow_readline(r, buf, 8)});
    refused("__build_path", inval, {!__build_path("", "n"), !__build_path("/d", "")});
    EXPECT_EQ(slurp(file), "content") << "a refused copy onto itself lost the data";
    for (const int fd : {ro, dir_fd, r, w}) close(fd);
}

}  // namespace

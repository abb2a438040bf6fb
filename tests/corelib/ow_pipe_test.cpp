// Tests of ow_pipe: the argument vector the child really gets, input and output through the
// callbacks, exit codes, refusals, lines the child logs, and children that write more than
// a pipe holds.
#include "ow_pipe.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

// Started as a child of the code under test with OW_PIPE_TEST_ARGV set, this program prints
// its own argument vector as "arg|arg|...|" and ends before any test runs: the only way to
// see argv[0] and the word boundaries exactly.
const bool g_printed_argv = [] {
    if (std::getenv("OW_PIPE_TEST_ARGV") == nullptr) return false;
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::string cmdline((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (char& c : cmdline) {
        if (c == '\0') c = '|';
    }
    std::fwrite(cmdline.data(), 1, cmdline.size(), stdout);
    std::fflush(stdout);
    ::_exit(0);
    return true;
}();

const std::string kEinval = std::strerror(EINVAL);
const std::string kEnomem = std::strerror(ENOMEM);
constexpr std::size_t kMiB = 1u << 20;

std::string self_path() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

void read_all(int32_t fd, void* user) {
    auto* out = static_cast<std::string*>(user);
    char buf[65536];
    ssize_t got = 0;
    while ((got = ::read(fd, buf, sizeof buf)) > 0) out->append(buf, static_cast<size_t>(got));
    ::close(fd);
}

void read_one_byte(int32_t fd, void* user) {
    char c = 0;
    if (::read(fd, &c, 1) == 1) static_cast<std::string*>(user)->push_back(c);
    ::close(fd);
}

// Feeds the child the text in *user, then leaves the descriptor to ow_pipe.
void write_text(int32_t fd, void* user) {
    const auto* text = static_cast<std::string*>(user);
    std::size_t done = 0;
    while (done < text->size()) {
        const ssize_t put = ::write(fd, text->data() + done, text->size() - done);
        if (put <= 0) return;
        done += static_cast<std::size_t>(put);
    }
}

// Lines written by a child end up in the child's copy of the capture buffer; this sink also
// appends every line to a file both processes share.
int g_child_log_fd = -1;
void tee_sink(int priority, const char* format, ...) {
    char line[2048];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    ow_test::captured().push_back({priority, line});
    if (g_child_log_fd >= 0) ::dprintf(g_child_log_fd, "%s\n", line);
}

class PipeTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        char pattern[] = "/tmp/ow_pipe_test-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir_ = pattern;
        g_child_log_fd = ::open((dir_ + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        ow_set_log_function(&tee_sink);
        ::alarm(60);  // a hang is a failure, not a stuck test run
    }
    void TearDown() override {
        ::alarm(0);
        ::close(g_child_log_fd);
        g_child_log_fd = -1;
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
        ::unsetenv("OW_PIPE_TEST_ARGV");
        LogCaptureTest::TearDown();
    }
    // True when a line of the shared log file ends with " ERROR func(): message".
    bool child_logged(const std::string& func, const std::string& message) const {
        std::ifstream in(dir_ + "/log");
        const std::string tail = " ERROR " + func + "(): " + message;
        for (std::string line; std::getline(in, line);) {
            if (line.size() >= tail.size() &&
                line.compare(line.size() - tail.size(), tail.size(), tail) == 0) {
                return true;
            }
        }
        return false;
    }
    std::string dir_;
};

TEST_F(PipeTest, SplitsTheArgumentStringIntoTheChildsVector) {
    // The child is this very program under another name, so argv[0] shows too.
    const std::string prog = dir_ + "/my prog";
    ASSERT_EQ(::symlink(self_path().c_str(), prog.c_str()), 0);
    struct Case {
        const char* args;
        const char* expected;
    };
    const Case cases[] = {
        {"a \"b c\" d", "my prog|a|b c|d|"},
        {"a  b", "my prog|a|b|"},
        {" lead trail ", "my prog|lead|trail|"},
        {nullptr, "my prog|"},
        {"", "my prog|"},
        {"x\"y z\"w", "my prog|x|y z|w|"},
        {"\"open  quote", "my prog|open  quote|"},
        {"'single quotes' stay", "my prog|'single|quotes'|stay|"},
    };
    ::setenv("OW_PIPE_TEST_ARGV", "1", 1);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args != nullptr ? c.args : "(null)");
        std::string out;
        EXPECT_EQ(ow_pipe(prog.c_str(), c.args, read_all, nullptr, &out), 0);
        EXPECT_EQ(out, c.expected);
    }
    EXPECT_TRUE(ow_test::has_debug(
        "ow_pipe", "preparing to pipe for program [" + prog + "] with args [a \"b c\" d]"));
    EXPECT_NO_ERRORS();
}

TEST_F(PipeTest, ExitCodes) {
    struct Case {
        const char* path;
        const char* args;
        int32_t expected;
        const char* debug;  // ow_clean_pipe's line
    };
    const Case cases[] = {
        {"/bin/sh", "-c \"exit 3\"", 3, "got exit code [768] => [3]"},
        {"/bin/sh", "-c \"exit 255\"", 255, "got exit code [65280] => [255]"},
        // A killed child cannot be told from one that exited with 0.
        {"/bin/sh", "-c \"kill -9 $$\"", 0, "Killed with signal [9] => [0]"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        clear_log();
        EXPECT_EQ(ow_pipe(c.path, c.args, nullptr, nullptr, nullptr), c.expected);
        EXPECT_TRUE(ow_test::has_debug("ow_clean_pipe", c.debug)) << ow_test::dump();
    }
    EXPECT_NO_ERRORS();
}

TEST_F(PipeTest, WriterFeedsAndReaderConsumes) {
    struct io {
        std::string in;
        std::string out;
    } data{"line one\nline \"two\"; 3\n", ""};
    auto writer = [](int32_t fd, void* user) { write_text(fd, &static_cast<io*>(user)->in); };
    auto reader = [](int32_t fd, void* user) { read_all(fd, &static_cast<io*>(user)->out); };
    EXPECT_EQ(ow_pipe("/bin/cat", nullptr, reader, writer, &data), 0);
    EXPECT_EQ(data.out, data.in);

    std::string out;
    EXPECT_EQ(ow_pipe("/bin/echo", "hello   world", read_all, nullptr, &out), 0);
    EXPECT_EQ(out, "hello world\n");
    EXPECT_NO_ERRORS();
}

TEST_F(PipeTest, ChildrenWritingMoreThanAPipeHoldsNeverHang) {
    const std::string big(kMiB, 'x');
    struct io {
        const std::string* in;
        std::string out;
    };
    auto writer = [](int32_t fd, void* user) {
        write_text(fd, const_cast<std::string*>(static_cast<io*>(user)->in));
    };
    auto reader = [](int32_t fd, void* user) { read_all(fd, &static_cast<io*>(user)->out); };

    // Nobody reads: the output is drained, and the child's own exit code comes back.
    EXPECT_EQ(
        ow_pipe("/bin/sh", "-c \"head -c 1048576 /dev/zero && exit 7\"", nullptr, nullptr, nullptr),
        7);

    // The child answers while it is still being fed a megabyte.
    io both{&big, ""};
    EXPECT_EQ(ow_pipe("/bin/cat", nullptr, reader, writer, &both), 0);
    EXPECT_EQ(both.out.size(), big.size());
    EXPECT_TRUE(both.out == big);

    io fed{&big, ""};
    EXPECT_EQ(ow_pipe("/bin/sh", "-c \"cat && exit 4\"", nullptr, writer, &fed), 4);

    // A reader that stops early closes the pipe: the child, which would write forever, ends
    // as with any closed pipe.
    std::string first;
    EXPECT_EQ(ow_pipe("/usr/bin/yes", nullptr, read_one_byte, nullptr, &first), 0);
    EXPECT_EQ(first, "y");
    EXPECT_NO_ERRORS();
}

TEST_F(PipeTest, HandleGivesTheDescriptors) {
    ow_pipe_handle* handle = ow_init_pipe("/bin/sh", "-c \"read x && echo got $x && exit 2\"");
    ASSERT_NE(handle, nullptr);
    const int32_t in = ow_pipe_write_fd(handle);
    const int32_t out = ow_pipe_read_fd(handle);
    ASSERT_GE(in, 0);
    ASSERT_GE(out, 0);
    EXPECT_EQ(handle->in_read, -1);  // the child's ends are closed in the parent
    EXPECT_EQ(handle->out_write, -1);
    ASSERT_EQ(::write(in, "42\n", 3), 3);
    ::close(in);
    std::string answer;
    read_all(out, &answer);
    EXPECT_EQ(answer, "got 42\n");
    EXPECT_EQ(ow_clean_pipe(handle), 2);
    EXPECT_NO_ERRORS();
}

TEST_F(PipeTest, Refusals) {
    const std::string marker = dir_ + "/marker";
    const std::string args = marker + " x;y";
    EXPECT_EQ(ow_pipe("/usr/bin/touch", args.c_str(), nullptr, nullptr, nullptr), -1);
    EXPECT_ERROR_LINE("ow_init_pipe", "You may not use semicolons in ow_pipe arguments");
    EXPECT_FALSE(std::filesystem::exists(marker));  // nothing was started

    EXPECT_EQ(ow_pipe("", "a", nullptr, nullptr, nullptr), -1);
    EXPECT_ERROR_LINE("ow_pipe", kEinval);
    EXPECT_EQ(ow_init_pipe("", nullptr), nullptr);
    EXPECT_ERROR_LINE("ow_init_pipe", kEinval);
    EXPECT_EQ(ow_clean_pipe(nullptr), -1);
    EXPECT_ERROR_LINE("ow_clean_pipe", kEinval);
    EXPECT_EQ(ow_pipe_read_fd(nullptr), -1);
    EXPECT_ERROR_LINE("ow_pipe_read_fd", kEinval);
    EXPECT_EQ(ow_pipe_write_fd(nullptr), -1);
    EXPECT_ERROR_LINE("ow_pipe_write_fd", kEinval);

    ow::testing::fail_allocation(1);
    EXPECT_EQ(ow_pipe("/bin/true", nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_ERROR_LINE("ow_init_pipe", kEnomem);
}

TEST_F(PipeTest, FailuresInTheChildEndItWithOne) {
    EXPECT_EQ(ow_pipe("/nonexistent/prog", "a \"b c\"", nullptr, nullptr, nullptr), 1);
    EXPECT_TRUE(child_logged("ow_init_pipe", "execv(/nonexistent/prog, prog a \"b c\") failed: " +
                                                 std::string(std::strerror(ENOENT))));
    EXPECT_EQ(ow_pipe("/nonexistent/prog", nullptr, nullptr, nullptr, nullptr), 1);
    EXPECT_TRUE(child_logged("ow_init_pipe", "execv(/nonexistent/prog, prog) failed: " +
                                                 std::string(std::strerror(ENOENT))));

    // The handle is the parent's only allocation; everything after it fails in the child.
    ow::testing::fail_allocation(2, true);
    EXPECT_EQ(ow_pipe("/bin/echo", "a b", nullptr, nullptr, nullptr), 1);
    ow::testing::fail_allocation(0);
    EXPECT_TRUE(child_logged("ow_init_pipe", kEnomem)) << ow_test::dump();
    EXPECT_NO_ERRORS();  // in the parent
}

}  // namespace

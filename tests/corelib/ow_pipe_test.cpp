// Tests of ow_pipe with real children: their argument vectors, input, output and exit codes,
// refusals, and the lines a child logs before it ends.
#include "ow_pipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

// Started as a child with OW_PIPE_TEST_ARGV set, this program prints its own argument vector
// as "arg|arg|...|" and ends before any test runs: the only way to see argv[0] and the word
// boundaries exactly.
const bool g_printed_argv = [] {
    if (std::getenv("OW_PIPE_TEST_ARGV") == nullptr) return false;
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    std::string cmdline((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (char& c : cmdline) c = c == '\0' ? '|' : c;
    std::fwrite(cmdline.data(), 1, cmdline.size(), stdout);
    std::fflush(stdout);
    ::_exit(0);
}();

const std::string kEinval = std::strerror(EINVAL);
const std::string kEnomem = std::strerror(ENOMEM);

struct io {
    std::string in;
    std::string out;
};

void read_all(int32_t fd, void* user) {
    char buf[65536];
    for (ssize_t got; (got = ::read(fd, buf, sizeof buf)) > 0;) {
        static_cast<io*>(user)->out.append(buf, static_cast<size_t>(got));
    }
    ::close(fd);
}

void read_one_byte(int32_t fd, void* user) {
    char c = 0;
    if (::read(fd, &c, 1) == 1) static_cast<io*>(user)->out.push_back(c);
    ::close(fd);
}

void write_in(int32_t fd, void* user) {
    const std::string& text = static_cast<io*>(user)->in;
    EXPECT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

// A child's lines land in its own copy of the capture buffer; this sink also appends them to
// a file both processes share.
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
        std::filesystem::remove_all(dir_);
        ::unsetenv("OW_PIPE_TEST_ARGV");
        LogCaptureTest::TearDown();
    }
    // True when a line of the shared log file ends with " ERROR func(): message".
    bool child_logged(const std::string& func, const std::string& message) const {
        std::ifstream in(dir_ + "/log");
        for (std::string line; std::getline(in, line);) {
            if (line.ends_with(" ERROR " + func + "(): " + message)) return true;
        }
        return false;
    }
    std::string dir_;
};

TEST_F(PipeTest, RunsTheChildWithItsArgumentsInputAndOutput) {
    // The child is this very program under another name, so argv[0] shows too.
    const std::string prog = dir_ + "/my prog";
    ASSERT_EQ(::symlink(std::filesystem::read_symlink("/proc/self/exe").c_str(), prog.c_str()), 0);
    ::setenv("OW_PIPE_TEST_ARGV", "1", 1);
    const std::string mib(1u << 20, 'x');
    const struct {
        std::string path;
        const char* args;
        std::string in;  // fed by a writer unless empty
        ow_pipe_reader_fn reader;
        std::string out;
        int32_t code;
    } cases[] = {
        {prog, "a \"b c\" d", "", read_all, "my prog|a|b c|d|", 0},
        {prog, " lead  trail ", "", read_all, "my prog|lead|trail|", 0},
        {prog, nullptr, "", read_all, "my prog|", 0},
        {prog, "x\"y z\"w 'single quotes'", "", read_all, "my prog|x|y z|w|'single|quotes'|", 0},
        {prog, "\"open  quote", "", read_all, "my prog|open  quote|", 0},
        {"/bin/cat", nullptr, "line one\nline \"two\"; 3\n", read_all,
         "line one\nline \"two\"; 3\n", 0},
        {"/bin/sh", "-c \"exit 255\"", "", nullptr, "", 255},
        // A killed child cannot be told from one that exited with 0.
        {"/bin/sh", "-c \"kill -9 $$\"", "", nullptr, "", 0},
        // More than a pipe holds: unread output is drained, and the child may answer while
        // it is still being fed.
        {"/bin/sh", "-c \"head -c 1048576 /dev/zero && exit 7\"", "", nullptr, "", 7},
        {"/bin/cat", nullptr, mib, read_all, mib, 0},
        {"/bin/sh", "-c \"cat && exit 4\"", mib, nullptr, "", 4},
        // A reader that stops early closes the pipe: the child, which would write forever,
        // ends as with any closed pipe.
        {"/usr/bin/yes", nullptr, "", read_one_byte, "y", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path + " " + (c.args != nullptr ? c.args : "(null)"));
        io data{c.in, ""};
        EXPECT_EQ(
            ow_pipe(c.path.c_str(), c.args, c.reader, c.in.empty() ? nullptr : write_in, &data),
            c.code);
        EXPECT_TRUE(data.out == c.out) << data.out.size() << " bytes: " << data.out.substr(0, 80);
    }
    EXPECT_NO_ERRORS();
}

TEST_F(PipeTest, HandleGivesTheDescriptors) {
    ow_pipe_handle* handle = ow_init_pipe("/bin/sh", "-c \"read x && echo got $x && exit 2\"");
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->in_read, -1);  // the child's ends are closed in the parent
    EXPECT_EQ(handle->out_write, -1);
    const int32_t in = ow_pipe_write_fd(handle);
    ASSERT_EQ(::write(in, "42\n", 3), 3);
    ::close(in);
    io answer;
    read_all(ow_pipe_read_fd(handle), &answer);
    EXPECT_EQ(answer.out, "got 42\n");
    EXPECT_EQ(ow_clean_pipe(handle), 2);
    EXPECT_NO_ERRORS();
}

TEST_F(PipeTest, Refusals) {
    const std::string marker = dir_ + "/marker";
    const std::string touch_args = marker + " x;y";
    const struct {
        const char* func;
        std::string message;
        std::function<bool()> refused;
    } cases[] = {
        {"ow_init_pipe", "You may not use semicolons in ow_pipe arguments",
         [&] {
             return ow_pipe("/usr/bin/touch", touch_args.c_str(), nullptr, nullptr, nullptr) == -1;
         }},
        {"ow_pipe", kEinval, [] { return ow_pipe("", "a", nullptr, nullptr, nullptr) == -1; }},
        {"ow_init_pipe", kEinval, [] { return ow_init_pipe("", nullptr) == nullptr; }},
        {"ow_clean_pipe", kEinval, [] { return ow_clean_pipe(nullptr) == -1; }},
        {"ow_pipe_read_fd", kEinval, [] { return ow_pipe_read_fd(nullptr) == -1; }},
        {"ow_pipe_write_fd", kEinval, [] { return ow_pipe_write_fd(nullptr) == -1; }},
        {"ow_init_pipe", kEnomem,
         [] {
             ow::testing::fail_allocation(1);
             return ow_pipe("/bin/true", nullptr, nullptr, nullptr, nullptr) == -1;
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.func + (" " + c.message));
        clear_log();
        EXPECT_TRUE(c.refused());
        EXPECT_ERROR_LINE(c.func, c.message);
    }
    EXPECT_FALSE(std::filesystem::exists(marker));  // nothing was started
}

TEST_F(PipeTest, FailuresInTheChildEndItWithOne) {
    const std::string enoent = std::strerror(ENOENT);
    EXPECT_EQ(ow_pipe("/nonexistent/prog", "a \"b c\"", nullptr, nullptr, nullptr), 1);
    EXPECT_TRUE(
        child_logged("ow_init_pipe", "execv(/nonexistent/prog, prog a \"b c\") failed: " + enoent));
    EXPECT_EQ(ow_pipe("/nonexistent/prog", nullptr, nullptr, nullptr, nullptr), 1);
    EXPECT_TRUE(child_logged("ow_init_pipe", "execv(/nonexistent/prog, prog) failed: " + enoent));

    // The handle is the parent's only allocation; everything after it fails in the child.
    ow::testing::fail_allocation(2, true);
    EXPECT_EQ(ow_pipe("/bin/echo", "a b", nullptr, nullptr, nullptr), 1);
    ow::testing::fail_allocation(0);
    EXPECT_TRUE(child_logged("ow_init_pipe", kEnomem)) << ow_test::dump();
    EXPECT_NO_ERRORS();  // in the parent
}

}  // namespace

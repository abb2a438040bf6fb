// ow_pipe with real children: argument vectors, input, output, exit codes and descriptors.
#include "ow_pipe.h"

#include "scratch.hpp"

#include "common_libs.h"
#include "ow_file.h"
#include "ow_internal.hpp"

namespace {

using ow_test::refused;
using PipeTest = ow_test::LogCaptureTest;

// With OW_PIPE_TEST_ARGV set, this program prints its argv as "arg|arg|...|" (word boundaries
// and argv[0] exactly) and exits.
const bool g_printed_argv = [] {
    if (std::getenv("OW_PIPE_TEST_ARGV") == nullptr) return false;
    std::string cmdline = ow_test::slurp("/proc/self/cmdline");
    for (char& c : cmdline) c = c == '\0' ? '|' : c;
    std::fwrite(cmdline.data(), 1, cmdline.size(), stdout);
    std::fflush(stdout);
    ::_exit(0);
}();

struct io {
    std::string in, out;
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

TEST_F(PipeTest, RunsTheChildWithItsArgumentsInputAndOutput) {
    // The child is this very program under another name, so argv[0] shows too.
    const std::string prog = "/tmp/ow_pipe_test." + std::to_string(::getpid()) + " prog";
    ASSERT_EQ(::symlink(std::filesystem::read_symlink("/proc/self/exe").c_str(), prog.c_str()), 0);
    ::setenv("OW_PIPE_TEST_ARGV", "1", 1);
    const std::string base = prog.substr(5), mib(1u << 20, 'x');
    const struct {
        std::string path;
        const char* args;
        std::string in;  // fed by a writer unless empty
        ow_pipe_reader_fn reader;
        std::string out;
        int32_t code;
    } cases[] = {
        {prog, " lead  trail ", "", read_all, base + "|lead|trail|", 0},
        {prog, nullptr, "", read_all, base + "|", 0},
        {prog, "x\"y z\"w 'single quotes'", "", read_all, base + "|x|y z|w|'single|quotes'|", 0},
        {prog, "\"open  quote", "", read_all, base + "|open  quote|", 0},
        {"/bin/sh", "-c \"exit 255\"", "", nullptr, "", 255},
        // A killed child cannot be told from one that exited with 0.
        {"/bin/sh", "-c \"kill -9 $$\"", "", nullptr, "", 0},
        // More than a pipe holds: unread output is drained; a child may answer while fed.
        {"/bin/sh", "-c \"head -c 1048576 /dev/zero && exit 7\"", "", nullptr, "", 7},
        {"/bin/cat", nullptr, mib, read_all, mib, 0},
        {"/bin/sh", "-c \"cat && exit 4\"", mib, nullptr, "", 4},
        // A reader that stops early closes the pipe: the endless writer ends on it.
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
    ::unlink(prog.c_str());
    ::unsetenv("OW_PIPE_TEST_ARGV");
    EXPECT_NO_ERRORS();
}

// Children get stderr and their own pipes only, not the library's handles, files or relays.
void list_descriptors_while_writing(int32_t, void* user) {
    char* argv[] = {const_cast<char*>("ls"), const_cast<char*>("/proc/self/fd"), nullptr};
    char listing[64] = {};
    EXPECT_TRUE(execute_program("/bin/ls", argv, listing, sizeof listing - 1, nullptr));
    static_cast<io*>(user)->out = listing;
}

TEST_F(PipeTest, ChildrenInheritOnlyTheirOwnDescriptors) {
    // Descriptors of the test harness are not the library's to close.
    for (int fd = 3; fd < 1024; ++fd) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    ow_pipe_handle* held = ow_init_pipe("/bin/sh", "-c \"read x && echo got $x && exit 2\"");
    ASSERT_NE(held, nullptr);
    EXPECT_EQ(held->in_read + held->out_write, -2);  // the child's ends are closed here
    const int file = ow_open_ex("/proc/self/exe", false, O_RDONLY, 0);
    ASSERT_GE(file, 0);
    // ls itself opens the directory it lists as 3.
    io listing{"-", ""}, direct;
    EXPECT_EQ(ow_pipe("/bin/true", nullptr, nullptr, list_descriptors_while_writing, &listing), 0);
    EXPECT_EQ(ow_pipe("/bin/ls", "/proc/self/fd", read_all, nullptr, &direct), 0);
    EXPECT_EQ(listing.out + direct.out, "0\n1\n2\n3\n0\n1\n2\n3\n");
    ::close(file);
    ASSERT_EQ(::write(ow_pipe_write_fd(held), "42\n", 3), 3);
    ::close(ow_pipe_write_fd(held));
    io answer;
    read_all(ow_pipe_read_fd(held), &answer);
    EXPECT_EQ(answer.out, "got 42\n");
    EXPECT_EQ(ow_clean_pipe(held), 2);
    EXPECT_NO_ERRORS();
}

TEST_F(PipeTest, RefusalsAndFailuresBeforeTheProgramRuns) {
    const std::string einval = std::strerror(EINVAL), enoent = std::strerror(ENOENT);
    const std::string marker = "/tmp/ow_pipe_test." + std::to_string(::getpid());
    refused(
        "ow_init_pipe", "You may not use semicolons in ow_pipe arguments",
        {ow_pipe("/usr/bin/touch", (marker + " x;y").c_str(), nullptr, nullptr, nullptr) == -1});
    EXPECT_FALSE(std::filesystem::exists(marker));  // nothing was started
    refused("ow_pipe", einval, {ow_pipe("", "a", nullptr, nullptr, nullptr) == -1});
    refused("ow_init_pipe", einval, {ow_init_pipe("", nullptr) == nullptr});
    refused("ow_clean_pipe", einval, {ow_clean_pipe(nullptr) == -1});
    refused("ow_pipe_read_fd", einval, {ow_pipe_read_fd(nullptr) == -1});
    refused("ow_pipe_write_fd", einval, {ow_pipe_write_fd(nullptr) == -1});
    // The handle, the joined line, the vector: each failure starts nothing.
    for (long n = 1; n <= 4; ++n) {
        SCOPED_TRACE(n);
        ow::testing::fail_allocation(n);
        refused("ow_init_pipe", std::strerror(ENOMEM),
                {ow_pipe("/bin/echo", "a b", nullptr, nullptr, nullptr) == -1});
    }
    // A program that cannot be run: the parent says so, and the child's status is 1.
    refused("ow_init_pipe", "execv(/nonexistent/prog, prog a \"b c\") failed: " + enoent,
            {ow_pipe("/nonexistent/prog", "a \"b c\"", nullptr, nullptr, nullptr) == 1});
    refused("ow_init_pipe", "execv(/nonexistent/prog, prog) failed: " + enoent,
            {ow_pipe("/nonexistent/prog", nullptr, nullptr, nullptr, nullptr) == 1});
}

}  // namespace

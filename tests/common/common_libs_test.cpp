// execute_program, system_exit_code, and fetch_remote_url against a stand-in transfer tool.
#include "common_libs.h"

#include "scratch.hpp"

#include "ow_file.h"
#include "ow_internal.hpp"

namespace {

namespace fs = std::filesystem;
using ow_test::refused;
using ow_test::slurp;

std::string failure_text(int code) {
    return "Fatal error executing remote url fetch. Exit code: [" + std::to_string(code) + "]";
}

class CommonLibsTest : public ow_test::ScratchTest {
   protected:
    void SetUp() override {
        ScratchTest::SetUp();
        ::setenv("TMPDIR", dir_.c_str(), 1);  // the transfer's files land where only we look
        for (const char* prefix : {"axp", "axd", "axh"}) {
            files_.push_back(path(prefix + ("." + std::to_string(::getpid()))));
        }
        // Records its arguments, answers $FAKE_HEADERS and the posted data, runs $FAKE_END.
        ow_test::spit(path("tool"),
                      "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"${0%/*}/args\"\n"
                      "for a; do case $prev in --data-binary) data=${a#@} ;; -o) body=$a ;;"
                      " -D) hdr=$a ;; esac; prev=$a; done\n"
                      "printf '%b' \"$FAKE_HEADERS\" > \"$hdr\"; cat \"$data\" > \"$body\"\n"
                      "eval \"$FAKE_END\"\n",
                      0755);
        ::alarm(60);  // a hang is a failure, not a stuck test run
    }
    void TearDown() override {
        ::alarm(0);
        std::free(response_);
        ::unsetenv("TMPDIR");
        ScratchTest::TearDown();
    }
    bool fetch(const std::string& data, const char* headers = "HTTP/1.1 200 OK\\r\\n\\r\\n",
               const char* end = "", const std::string& program = "") {
        ::setenv("FAKE_HEADERS", headers, 1);
        ::setenv("FAKE_END", end, 1);
        return fetch_remote_url((program.empty() ? path("tool") : program).c_str(), data.c_str(),
                                "-q  -s\t-S", "https://h/p", &response_, &status_);
    }
    std::string response() const { return response_ != nullptr ? response_ : "(null)"; }
    void expect_no_files_left() const {
        for (const std::string& f : files_) EXPECT_FALSE(fs::exists(fs::symlink_status(f))) << f;
    }

    std::vector<std::string> files_;  // the post, body and header files
    char* response_ = nullptr;
    int32_t status_ = -7;
};

TEST_F(CommonLibsTest, ExecuteProgram) {
    const std::string mib_of_y = "head -c 1048576 /dev/zero | tr '\\0' y";
    // Size 0: no buffer. Past `expected` the buffer stays as it was.
    const struct {
        const char* path;
        std::string script;
        std::size_t size;
        bool ok;
        int32_t code;
        std::string expected, error;
    } cases[] = {
        {"/bin/sh", "echo hello", 16, true, 0, "hello\n", ""},
        {"/bin/sh", "exit 3", 0, true, 3, "", ""},
        {"/bin/sh", "echo output; exit 2", 16, true, 2, "", ""},  // untouched on a non-zero exit
        {"/nonexistent/program", "", 16, true, 1, "",
         std::string("Failed to execute program: ") + std::strerror(ENOENT)},
        {"/bin/sh", "echo never; kill -9 $$", 16, false, -7, "",
         "The program did not terminate normally"},
        // More than a pipe holds: all of it drained, the start kept.
        {"/bin/sh", mib_of_y, 8, true, 0, "yyyyyyyy", ""},
        {"/bin/sh", mib_of_y, (1u << 20) + 4, true, 0, std::string(1u << 20, 'y'), ""},
        // A grandchild that keeps the output pipe open does not keep the caller waiting.
        {"/bin/sh", "sleep 100 2>/dev/null & echo started", 16, true, 0, "started\n", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.path) + " " + c.script.substr(0, 40));
        clear_log();
        std::string buffer(c.size, 'Z');
        char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                        const_cast<char*>(c.script.c_str()), nullptr};
        int32_t code = -7;
        EXPECT_EQ(execute_program(c.path, argv, c.size ? buffer.data() : nullptr, c.size, &code),
                  c.ok);
        EXPECT_EQ(code, c.code);
        EXPECT_EQ(buffer, c.expected + std::string(c.size - c.expected.size(), 'Z'));
        if (!c.error.empty()) refused("execute_program", c.error, {true});
        EXPECT_NO_ERRORS();
    }
    EXPECT_EQ(system_exit_code("exit 7"), 7);
    EXPECT_EQ(system_exit_code("kill -9 $$"), 0);  // the shell itself was killed
    EXPECT_EQ(system_exit_code(nullptr), -1);
}

// The data reaches the tool exactly, through a file: never in arguments all users can read.
TEST_F(CommonLibsTest, PostsThroughAFileOfItsOwn) {
    const std::string bodies[] = {"a='b c'&d=it's $(id) `id` ; | * caf\xc3\xa9 \xff\x01\nx\r\n",
                                  "@/etc/passwd", ""};
    response_ = ::strdup("previous answer");  // each call frees and replaces the last answer
    for (const std::string& body : bodies) {
        SCOPED_TRACE(body);
        EXPECT_TRUE(fetch(body));
        EXPECT_EQ(response() + std::to_string(status_), body + "200");
        expect_no_files_left();
    }
    EXPECT_EQ(slurp(path("args")), "-q\n-s\n-S\n--data-binary\n@" + files_[0] + "\n-o\n" +
                                       files_[1] + "\n-D\n" + files_[2] + "\nhttps://h/p\n");
    EXPECT_TRUE(fetch("a=1", "HTTP/1.1 200 OK\\r\\n\\r\\n", "stat -c %a \"$data\" > \"$body\""));
    EXPECT_EQ(response(), "600\n");
    EXPECT_NO_ERRORS();
}

TEST_F(CommonLibsTest, StatusAndFailures) {
    const std::string not_executable = path("not-executable");
    ow_test::spit(not_executable, "#!/bin/sh\n", 0644);
    const struct {
        const char *headers, *end;
        std::string program, response;
        int32_t status;
        std::string error;  // "transfer tool exited with code [...]: ..." when not empty
    } cases[] = {
        // The status is that of the last block starting with "HTTP/1.".
        {"HTTP/1.1 100 x\\r\\n\\r\\nHTTP/1.1 404 x\\r\\n\\r\\n", "", "", "a=1", 404, ""},
        {"HTTP/1.1 100 x\\n\\nHTTP/1.1 404 x\\n\\n", "", "", "a=1", 100, ""},  // bare LFs
        {"HTTP/2 200\\r\\n\\r\\n", "", "", "a=1", 0, ""},
        {"HTTP/1.0 302 x\\r\\nX: y\\r\\n\\r\\nX-Trailer: 1\\r\\n\\r\\n", "", "", "a=1", 302, ""},
        {"HTTP/1.1 301 x\\r\\n\\r\\nhttp/1.1 500 lower case\\r\\n\\r\\n", "", "", "a=1", 301, ""},
        {"HTTP/1.1 \\t 503x", "", "", "a=1", 503, ""},
        {"HTTP/1.1 -99999999999", "", "", "a=1", -2147483647 - 1, ""},
        {"HTTP/1.1 abc", "", "", "a=1", 0, ""},
        {"HTTP/1.1 200 OK\\r\\n\\r\\n", "rm \"$body\"", "", "(null)", 200, ""},
        {"", "", "", failure_text(0), 0, ""},  // exit 0 but no headers
        {"", "echo 'curl: (7) Failed to connect' >&2; exit 7", "", failure_text(7), 0,
         "[7]: curl: (7) Failed to connect"},
        {"", "kill -9 $$", "", failure_text(137), 0, "[137]: "},
        {"", "", "/nonexistent/tool", failure_text(127), 0,
         std::string("[127]: ") + std::strerror(ENOENT)},
        {"", "", not_executable, failure_text(126), 0,
         std::string("[126]: ") + std::strerror(EACCES)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.program + " [" + c.headers + "] " + c.end);
        clear_log();
        EXPECT_EQ(fetch("a=1", c.headers, c.end, c.program), !c.response.starts_with("Fatal"));
        EXPECT_EQ(response(), c.response);
        EXPECT_EQ(status_, c.status);
        const std::string line = "transfer tool exited with code " + c.error;
        if (!c.error.empty()) refused("fetch_remote_url", line, {true});
        EXPECT_NO_ERRORS();
        expect_no_files_left();
    }
}

TEST_F(CommonLibsTest, NeverWritesThroughWhatStandsAtItsNames) {
    const std::string victim = path("victim"), through = path("created-through-link");
    ow_test::spit(victim, "precious");
    const char* plants[] = {"ln -s victim", "ln -s created-through-link", "mkdir"};
    for (int i = 0; i < 9; ++i) {  // each kind at each of the three names
        const std::string& name = files_[i / 3];
        SCOPED_TRACE(name + ": " + plants[i % 3]);
        clear_log();
        ASSERT_EQ(ow_test::sh("cd " + dir_ + " && rm -f args && " + plants[i % 3] + " " + name), 0);
        EXPECT_FALSE(fetch("a=1"));
        EXPECT_EQ(response() + " " + std::to_string(status_), failure_text(-1) + " 0");
        EXPECT_ERROR_LINE(
            "fetch_remote_url",
            "refusing to let [" + name + "] be written: it exists and is not a regular file");
        // Nothing written through the link, and the tool never ran.
        EXPECT_EQ(slurp(victim) + slurp(through, "-") + slurp(path("args"), "-"), "precious--");
        // What was planted stays; only files the call made are removed.
        EXPECT_TRUE(fs::exists(fs::symlink_status(name)));
        fs::remove_all(name);
        expect_no_files_left();
    }
    // A stale regular file, even a hard link to someone else's file, is only unlinked.
    clear_log();
    ASSERT_EQ(::link(victim.c_str(), files_[0].c_str()), 0);
    ow_test::spit(files_[2], "stale headers");
    EXPECT_TRUE(fetch("a=1") && response() == "a=1") << response();
    EXPECT_EQ(slurp(victim), "precious");
    expect_no_files_left();
    EXPECT_NO_ERRORS();
}

TEST_F(CommonLibsTest, RefusalsAndAllocationFailuresLeaveTheOutputsAlone) {
    char* const before = ::strdup("kept");
    response_ = before;
    char* argv[] = {const_cast<char*>("sh"), nullptr};
    int32_t code = -7;
    refused("execute_program", std::strerror(EINVAL),
            {!execute_program("", argv, nullptr, 0, &code),
             !execute_program("/bin/sh", nullptr, nullptr, 0, &code)});
    refused("fetch_remote_url", std::strerror(EINVAL),
            {!fetch_remote_url("", "a", nullptr, "u", &response_, &status_),
             !fetch_remote_url("p", nullptr, nullptr, "u", &response_, &status_),
             !fetch_remote_url("p", "a", nullptr, "", &response_, &status_),
             !fetch_remote_url("p", "a", nullptr, "u", nullptr, &status_),
             !fetch_remote_url("p", "a", nullptr, "u", &response_, nullptr)});
    EXPECT_EQ(code, -7);

    // Fail the first allocation (a name), then the first after the names (the vector).
    const long start = ow::testing::allocation_count();
    for (const char* prefix : {"axp", "axd", "axh"}) std::free(ow_tmp_file(prefix));
    const long for_names = ow::testing::allocation_count() - start;
    for (long n : {1L, for_names + 1}) {
        SCOPED_TRACE(n);
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_FALSE(fetch("a=1"));
        EXPECT_TRUE(n == 1 || ow_test::has_error("fetch_remote_url", std::strerror(ENOMEM)));
        EXPECT_FALSE(fs::exists(path("args")));
        expect_no_files_left();
    }
    EXPECT_EQ(response_, before);
    EXPECT_EQ(status_, -7);
}

}  // namespace

// Tests of execute_program, system_exit_code and fetch_remote_url. Transfers run the real tool
// against a recording HTTPS endpoint on 127.0.0.1, or a stand-in for what a server never sends.
#include "common_libs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "ardvex_config.h"
#include "https_endpoint.hpp"
#include "log_capture.hpp"
#include "ow_file.h"
#include "ow_internal.hpp"

namespace {

namespace fs = std::filesystem;

const std::string kEinval = std::strerror(EINVAL);

std::string failure_text(int code) {
    return "Fatal error executing remote url fetch. Exit code: [" + std::to_string(code) + "]";
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void write_file(const std::string& path, const std::string& text, mode_t mode = 0644) {
    std::ofstream(path, std::ios::binary) << text;
    ::chmod(path.c_str(), mode);
}

class CommonLibsTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        char pattern[] = "/tmp/common_libs_test-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir_ = pattern;
        ::setenv("TMPDIR", dir_.c_str(), 1);  // the response files land where only we look
        body_file_ = dir_ + "/axd." + std::to_string(::getpid());
        header_file_ = dir_ + "/axh." + std::to_string(::getpid());
        ::alarm(120);  // a hang is a failure, not a stuck test run
    }
    void TearDown() override {
        ::alarm(0);
        std::free(response_);
        ::unsetenv("TMPDIR");
        std::error_code ec;
        fs::remove_all(dir_, ec);
        LogCaptureTest::TearDown();
    }
    bool fetch(const std::string& program, const std::string& data, const std::string& url) {
        return fetch_remote_url(program.c_str(), data.c_str(), "-q -s -k", url.c_str(), &response_,
                                &status_);
    }
    std::string response() const { return response_ != nullptr ? response_ : "(null)"; }
    void expect_no_response_files() const {
        EXPECT_FALSE(fs::exists(fs::symlink_status(body_file_)));
        EXPECT_FALSE(fs::exists(fs::symlink_status(header_file_)));
    }

    std::string dir_, body_file_, header_file_;
    char* response_ = nullptr;
    int32_t status_ = -7;
};

TEST_F(CommonLibsTest, ExecuteProgram) {
    struct Case {
        const char* path;
        const char* script;
        std::size_t size;  // 0: no output buffer
        bool ok;
        int32_t code;
        std::string expected;  // the buffer's first bytes; the rest must stay as it was
    };
    const char* mib_of_y = "head -c 1048576 /dev/zero | tr '\\0' y";
    const Case cases[] = {
        {"/bin/sh", "echo hello", 16, true, 0, "hello\n"},
        {"/bin/sh", "echo hello world", 5, true, 0, "hello"},
        {"/bin/sh", "echo output; exit 2", 16, true, 2, ""},  // untouched on a non-zero exit
        {"/bin/sh", "exit 3", 0, true, 3, ""},
        {"/nonexistent/program", "", 0, true, 1, ""},
        {"/bin/sh", "echo never; kill -9 $$", 16, false, -7, ""},
        // More than a pipe holds: all of it drained, the start kept.
        {"/bin/sh", mib_of_y, 8, true, 0, "yyyyyyyy"},
        {"/bin/sh", mib_of_y, (1u << 20) + 4, true, 0, std::string(1u << 20, 'y')},
        // A grandchild that keeps the output pipe open does not keep the caller waiting.
        {"/bin/sh", "sleep 3 2>/dev/null & echo started", 16, true, 0, "started\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.path) + " " + c.script);
        clear_log();
        std::string buffer(c.size, 'Z');
        char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                        const_cast<char*>(c.script), nullptr};
        int32_t code = -7;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(
            execute_program(c.path, argv, c.size != 0 ? buffer.data() : nullptr, c.size, &code),
            c.ok);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
        EXPECT_EQ(code, c.code);
        EXPECT_EQ(buffer.substr(0, c.expected.size()), c.expected);
        EXPECT_EQ(buffer.find_first_not_of('Z', c.expected.size()), std::string::npos);
        if (c.ok) {
            EXPECT_NO_ERRORS();
        } else {
            EXPECT_ERROR_LINE("execute_program", "The program did not terminate normally");
        }
    }
}

TEST_F(CommonLibsTest, SystemExitCode) {
    EXPECT_EQ(system_exit_code("exit 7"), 7);
    EXPECT_EQ(system_exit_code("/nonexistent/program 2>/dev/null"), 127);
    EXPECT_EQ(system_exit_code("kill -9 $$"), 0);  // the shell itself was killed
    EXPECT_EQ(system_exit_code(nullptr), -1);
}

TEST_F(CommonLibsTest, PostsWithTheRealToolAndNeverWritesThroughTheTemporaryNames) {
    // Every answer comes after an interim "100 Continue", which must not count.
    ow_test::https_endpoint endpoint({.interim_100 = true, .reply = "stored"});
    ASSERT_TRUE(endpoint.ok()) << endpoint.error();
    const std::string bodies[] = {"a=1&b=2",
                                  "a='b c'&d=it's",
                                  "\"double\" $HOME `id` $(id) ; | & > " + dir_ + "/pwned *",
                                  "caf\xc3\xa9 \xe2\x82\xac \xff\xfe\x01\x7f",
                                  "  two leading and trailing  ",
                                  "line one\nline two\r\n",
                                  "-d",
                                  ""};
    response_ = ::strdup("previous answer");  // each call frees and replaces the last answer
    int n = 0;
    for (const std::string& body : bodies) {
        SCOPED_TRACE(body);
        EXPECT_TRUE(fetch(ARDVEX_CURL, body, endpoint.url())) << response();
        EXPECT_EQ(status_, 200);
        EXPECT_EQ(response(), "stored");
        EXPECT_EQ(endpoint.body(++n), body);
        expect_no_response_files();
    }
    EXPECT_EQ(endpoint.request(1).rfind("POST /store/metrics.php HTTP/1.1\r\n", 0), 0u);
    EXPECT_FALSE(fs::exists(dir_ + "/pwned"));
    endpoint.set_status(404);  // not a failure of the transfer
    EXPECT_TRUE(fetch(ARDVEX_CURL, "a=1", endpoint.url())) << response();
    EXPECT_EQ(status_, 404);
    EXPECT_NO_ERRORS();

    const std::string victim = dir_ + "/victim";
    const std::string through = dir_ + "/created-through-link";
    write_file(victim, "precious");
    const std::pair<const char*, std::function<int(const char*)>> plants[] = {
        {"symlink", [&](const char* p) { return ::symlink(victim.c_str(), p); }},
        {"dangling symlink", [&](const char* p) { return ::symlink(through.c_str(), p); }},
        {"directory", [](const char* p) { return ::mkdir(p, 0700); }},
        {"fifo", [](const char* p) { return ::mkfifo(p, 0600); }}};
    for (const std::string& name : {body_file_, header_file_}) {
        for (const auto& [kind, plant] : plants) {
            SCOPED_TRACE(name + " as " + kind);
            clear_log();
            ASSERT_EQ(plant(name.c_str()), 0);
            EXPECT_FALSE(fetch(ARDVEX_CURL, "a=1", endpoint.url()));
            EXPECT_EQ(response(), failure_text(-1));
            EXPECT_EQ(status_, 0);
            EXPECT_ERROR_LINE(
                "fetch_remote_url",
                "refusing to let [" + name + "] be written: it exists and is not a regular file");
            EXPECT_EQ(read_file(victim), "precious");
            EXPECT_FALSE(fs::exists(through));
            EXPECT_EQ(endpoint.request(n + 2), "");  // the tool never ran
            // What was planted stays; only files the call made are removed.
            EXPECT_TRUE(fs::exists(fs::symlink_status(name)));
            fs::remove_all(name);
            expect_no_response_files();
        }
    }
    // A stale regular file, even a hard link to someone else's file, is only unlinked.
    clear_log();
    ASSERT_EQ(::link(victim.c_str(), body_file_.c_str()), 0);
    write_file(header_file_, "stale headers");
    EXPECT_TRUE(fetch(ARDVEX_CURL, "a=1", endpoint.url())) << response();
    EXPECT_EQ(status_, 404);
    EXPECT_EQ(response(), "stored");
    EXPECT_EQ(endpoint.body(n + 2), "a=1");
    EXPECT_EQ(read_file(victim), "precious");
    expect_no_response_files();
    EXPECT_NO_ERRORS();
}

// A stand-in tool gives the header files and failures a real server and tool would not.
TEST_F(CommonLibsTest, StatusAndFailuresWithAStandInTool) {
    // Writes $FAKE_HEADERS (printf %b escapes) to its -D file and "body" to its -o file, then
    // runs $FAKE_END.
    const std::string tool = dir_ + "/fake-tool";
    write_file(tool,
               "#!/bin/sh\n"
               "for a; do case $prev in -o) body=$a ;; -D) hdr=$a ;; esac; prev=$a; done\n"
               "printf '%b' \"$FAKE_HEADERS\" > \"$hdr\"; printf body > \"$body\"\n"
               "eval \"$FAKE_END\"\n",
               0755);
    const std::string not_executable = dir_ + "/not-executable";
    write_file(not_executable, "#!/bin/sh\n", 0644);
    struct Case {
        std::string program;
        const char* headers;
        const char* end;
        std::string response;
        int32_t status;
    };
    auto headers = [&](const char* h, int32_t status) { return Case{tool, h, "", "body", status}; };
    const char* ok = "HTTP/1.1 200 OK\\r\\n\\r\\n";
    const Case cases[] = {
        // The status is that of the last block starting with "HTTP/1.".
        headers(ok, 200),
        headers("HTTP/1.1 100 x\\r\\n\\r\\nHTTP/1.1 404 x\\r\\n\\r\\n", 404),
        headers("HTTP/1.1 100 x\\n\\nHTTP/1.1 404 x\\n\\n", 100),  // bare LFs end no block
        headers("HTTP/2 200\\r\\n\\r\\n", 0),
        headers("HTTP/1.0 302 Found\\r\\nX: y\\r\\n\\r\\nX-Trailer: 1\\r\\n\\r\\n", 302),
        headers("HTTP/1.1 301 x\\r\\n\\r\\nhttp/1.1 500 lower case\\r\\n\\r\\n", 301),
        headers("HTTP/1.1\\r\\n\\r\\n", 0),
        headers("HTTP/1.1 \\t 503x", 503),
        headers("HTTP/1.1 abc", 0),
        headers("garbage", 0),
        {tool, ok, "rm \"$body\"", "(null)", 200},
        {tool, ok, "exit 6", failure_text(6), 0},
        {"/bin/true", ok, "", failure_text(0), 0},  // exit 0 but no headers
        {"/nonexistent/tool", ok, "", failure_text(127), 0},
        {not_executable, ok, "", failure_text(126), 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.program + " [" + c.headers + "] " + c.end);
        ::setenv("FAKE_HEADERS", c.headers, 1);
        ::setenv("FAKE_END", c.end, 1);
        const bool failed = c.response.starts_with("Fatal error");
        EXPECT_EQ(fetch(c.program, "a=1", "https://127.0.0.1:1/"), !failed);
        EXPECT_EQ(response(), c.response);
        EXPECT_EQ(status_, c.status);
        expect_no_response_files();
    }
    ::unsetenv("FAKE_HEADERS");
    ::unsetenv("FAKE_END");
}

TEST_F(CommonLibsTest, RefusalsAndAllocationFailuresLeaveTheOutputsAlone) {
    char* const before = ::strdup("kept");
    response_ = before;
    char* argv[] = {const_cast<char*>("sh"), nullptr};
    int32_t code = -7;
    auto fetch_with = [&](const char* program, const char* data, const char* url, char** response,
                          int32_t* status) {
        return [=] { return fetch_remote_url(program, data, nullptr, url, response, status); };
    };
    const std::pair<const char*, std::function<bool()>> refusals[] = {
        {"execute_program", [&] { return execute_program(nullptr, argv, nullptr, 0, &code); }},
        {"execute_program", [&] { return execute_program("", argv, nullptr, 0, &code); }},
        {"execute_program", [&] { return execute_program("/bin/sh", nullptr, nullptr, 0, &code); }},
        {"fetch_remote_url", fetch_with(nullptr, "a", "u", &response_, &status_)},
        {"fetch_remote_url", fetch_with("", "a", "u", &response_, &status_)},
        {"fetch_remote_url", fetch_with("p", nullptr, "u", &response_, &status_)},
        {"fetch_remote_url", fetch_with("p", "a", nullptr, &response_, &status_)},
        {"fetch_remote_url", fetch_with("p", "a", "", &response_, &status_)},
        {"fetch_remote_url", fetch_with("p", "a", "u", nullptr, &status_)},
        {"fetch_remote_url", fetch_with("p", "a", "u", &response_, nullptr)},
    };
    int row = 0;
    for (const auto& [func, call] : refusals) {
        SCOPED_TRACE(row++);
        clear_log();
        EXPECT_FALSE(call());
        EXPECT_ERROR_LINE(func, kEinval);
    }
    EXPECT_EQ(code, -7);

    // Fail the first allocation (the temporary names), then the first one after the names
    // (the argument vector).
    const long start = ow::testing::allocation_count();
    std::free(ow_tmp_file("axd"));
    std::free(ow_tmp_file("axh"));
    const long for_names = ow::testing::allocation_count() - start;
    for (long n : {1L, for_names + 1}) {
        SCOPED_TRACE(n);
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_FALSE(fetch(ARDVEX_CURL, "a=1", "https://127.0.0.1:1/"));
        if (n > 1) {
            EXPECT_ERROR_LINE("fetch_remote_url", std::strerror(ENOMEM));
        }
        expect_no_response_files();
    }
    EXPECT_EQ(response_, before);
    EXPECT_EQ(status_, -7);
}

}  // namespace

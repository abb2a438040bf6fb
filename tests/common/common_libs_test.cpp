// Tests of execute_program, system_exit_code and fetch_remote_url. The transfer runs the real
// transfer tool against a recording HTTPS endpoint on 127.0.0.1; the header parser is also
// driven by a stand-in tool that writes header files a real server would not send.
#include "common_libs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "ardvex_config.h"
#include "https_endpoint.hpp"
#include "log_capture.hpp"
#include "ow_file.h"
#include "ow_internal.hpp"

namespace {

namespace fs = std::filesystem;

const std::string kEinval = std::strerror(EINVAL);
constexpr const char* kOptions = "-q -s -k";

std::string failure_text(int code) {
    return "Fatal error executing remote url fetch. Exit code: [" + std::to_string(code) + "]";
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
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
        // The response files go to a directory of this test alone.
        ::setenv("TMPDIR", dir_.c_str(), 1);
        const std::string pid = std::to_string(::getpid());
        body_file_ = dir_ + "/axd." + pid;
        header_file_ = dir_ + "/axh." + pid;
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
    bool fetch(const char* program, const std::string& data, const std::string& url) {
        return fetch_remote_url(program, data.c_str(), kOptions, url.c_str(), &response_, &status_);
    }
    std::string response() const { return response_ != nullptr ? response_ : "(null)"; }
    void expect_no_response_files() const {
        EXPECT_FALSE(fs::exists(fs::symlink_status(body_file_)));
        EXPECT_FALSE(fs::exists(fs::symlink_status(header_file_)));
    }
    // A stand-in for the transfer tool: writes $FAKE_HEADERS (printf %b escapes) to its -D
    // file and "body" to its -o file, or removes that with FAKE_NO_BODY, and exits with
    // $FAKE_EXIT.
    std::string fake_tool() const {
        const std::string path = dir_ + "/fake-tool";
        write_file(path,
                   "#!/bin/sh\n"
                   "while [ $# -gt 0 ]; do\n"
                   "  case \"$1\" in -o) body=$2; shift ;; -D) hdr=$2; shift ;; esac\n"
                   "  shift\n"
                   "done\n"
                   "printf '%b' \"$FAKE_HEADERS\" > \"$hdr\"\n"
                   "printf body > \"$body\"\n"
                   "[ -n \"$FAKE_NO_BODY\" ] && rm -f \"$body\"\n"
                   "exit ${FAKE_EXIT:-0}\n",
                   0755);
        return path;
    }

    std::string dir_;
    std::string body_file_;
    std::string header_file_;
    char* response_ = nullptr;
    int32_t status_ = -7;
};

// ---------------------------------------------------------------------------------------
// execute_program

TEST_F(CommonLibsTest, ExecuteProgramCapturesTheStartOfTheOutput) {
    char hello_argv0[] = "sh";
    char dash_c[] = "-c";
    struct Case {
        const char* script;
        std::size_t size;
        bool ok;
        int32_t code;
        std::string expected;  // the buffer's first bytes; the rest must stay as it was
    };
    const std::string mib(1u << 20, 'y');
    const Case cases[] = {
        {"echo hello", 16, true, 0, "hello\n"},
        {"echo hello world", 5, true, 0, "hello"},
        {"echo output; exit 2", 16, true, 2, ""},  // untouched on a non-zero exit
        {"echo never; kill -9 $$", 16, false, -7, ""},
        // More than a pipe holds: all of it drained, the start kept.
        {"head -c 1048576 /dev/zero | tr '\\0' y", 8, true, 0, "yyyyyyyy"},
        {"head -c 1048576 /dev/zero | tr '\\0' y", mib.size() + 4, true, 0, mib},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.script);
        clear_log();
        std::string buffer(c.size, 'Z');
        char* script = const_cast<char*>(c.script);
        char* argv[] = {hello_argv0, dash_c, script, nullptr};
        int32_t code = -7;
        EXPECT_EQ(execute_program("/bin/sh", argv, buffer.data(), buffer.size(), &code), c.ok);
        EXPECT_EQ(code, c.code);
        EXPECT_EQ(buffer.substr(0, c.expected.size()), c.expected);
        EXPECT_EQ(buffer.find_first_not_of('Z', c.expected.size()), std::string::npos);
        if (!c.ok) {
            EXPECT_ERROR_LINE("execute_program", "The program did not terminate normally");
        }
    }
}

TEST_F(CommonLibsTest, ExecuteProgramWithoutBuffers) {
    char sh[] = "sh";
    char dash_c[] = "-c";
    char exit3[] = "exit 3";
    char* argv[] = {sh, dash_c, exit3, nullptr};
    int32_t code = -7;
    EXPECT_TRUE(execute_program("/bin/sh", argv, nullptr, 0, &code));
    EXPECT_EQ(code, 3);

    // A program that cannot be executed is a child that ends with 1.
    char* missing[] = {sh, nullptr};
    EXPECT_TRUE(execute_program("/nonexistent/program", missing, nullptr, 0, &code));
    EXPECT_EQ(code, 1);

    // A grandchild that keeps the output pipe open does not keep the caller waiting.
    char daemonish[] = "sleep 3 2>/dev/null & echo started";
    char* bg[] = {sh, dash_c, daemonish, nullptr};
    char buffer[32] = {};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(execute_program("/bin/sh", bg, buffer, sizeof buffer - 1, &code));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_STREQ(buffer, "started\n");
    EXPECT_NO_ERRORS();

    EXPECT_FALSE(execute_program(nullptr, argv, nullptr, 0, &code));
    EXPECT_FALSE(execute_program("", argv, nullptr, 0, &code));
    EXPECT_FALSE(execute_program("/bin/sh", nullptr, nullptr, 0, &code));
    EXPECT_ERROR_LINE("execute_program", kEinval);
}

TEST_F(CommonLibsTest, SystemExitCode) {
    EXPECT_EQ(system_exit_code("exit 0"), 0);
    EXPECT_EQ(system_exit_code("exit 7"), 7);
    EXPECT_EQ(system_exit_code("/nonexistent/program 2>/dev/null"), 127);
    EXPECT_EQ(system_exit_code("kill -9 $$"), 0);  // the shell itself was killed
    EXPECT_EQ(system_exit_code(nullptr), -1);
}

// ---------------------------------------------------------------------------------------
// fetch_remote_url through the real transfer tool

TEST_F(CommonLibsTest, PostsToTheEndpointAndReadsTheAnswer) {
    ow_test::https_endpoint endpoint({.status = 200, .reply = "stored"});
    ASSERT_TRUE(endpoint.ok()) << endpoint.error();

    response_ = ::strdup("previous answer");  // freed and replaced
    EXPECT_TRUE(fetch(ARDVEX_CURL, "a=1&b=2", endpoint.url())) << response();
    EXPECT_EQ(status_, 200);
    EXPECT_EQ(response(), "stored");
    ASSERT_EQ(endpoint.request_count(), 1);
    EXPECT_EQ(endpoint.body(1), "a=1&b=2");
    EXPECT_EQ(endpoint.request(1).rfind("POST /store/metrics.php HTTP/1.1\r\n", 0), 0u);
    expect_no_response_files();

    endpoint.set_status(404);
    EXPECT_TRUE(fetch(ARDVEX_CURL, "a=1", endpoint.url())) << response();
    EXPECT_EQ(status_, 404);
    EXPECT_EQ(response(), "stored");
    expect_no_response_files();
    EXPECT_NO_ERRORS();
}

TEST_F(CommonLibsTest, TheFinalStatusWinsOverAnInterimOne) {
    ow_test::https_endpoint endpoint({.status = 503, .interim_100 = true, .reply = "busy"});
    ASSERT_TRUE(endpoint.ok()) << endpoint.error();
    EXPECT_TRUE(fetch(ARDVEX_CURL, "x=1", endpoint.url())) << response();
    EXPECT_EQ(status_, 503);
    EXPECT_EQ(response(), "busy");
    expect_no_response_files();
}

TEST_F(CommonLibsTest, BodiesReachTheEndpointByteForByte) {
    ow_test::https_endpoint endpoint({.reply = "ok"});
    ASSERT_TRUE(endpoint.ok()) << endpoint.error();
    const std::string bodies[] = {
        "a='b c'&d=it's",
        "\"double\" $HOME `id` $(id) ; | & > " + dir_ + "/pwned *",
        "caf\xc3\xa9 \xe2\x82\xac \xff\xfe\x01\x7f",
        "  two leading and trailing  ",
        "line one\nline two\r\n",
        "-d",
        "",
    };
    int n = 0;
    for (const std::string& body : bodies) {
        SCOPED_TRACE(body);
        EXPECT_TRUE(fetch(ARDVEX_CURL, body, endpoint.url())) << response();
        EXPECT_EQ(status_, 200);
        EXPECT_EQ(endpoint.body(++n), body);
    }
    EXPECT_FALSE(fs::exists(dir_ + "/pwned"));
    expect_no_response_files();
}

TEST_F(CommonLibsTest, ARefusedConnectionGivesTheToolsExitCode) {
    // A port that was free a moment ago: nothing listens there.
    int port = 0;
    {
        ow_test::https_endpoint endpoint;
        ASSERT_TRUE(endpoint.ok()) << endpoint.error();
        port = endpoint.port();
    }
    response_ = ::strdup("previous answer");
    EXPECT_FALSE(fetch(ARDVEX_CURL, "a=1",
                       "https://127.0.0.1:" + std::to_string(port) + "/store/metrics.php"));
    EXPECT_EQ(response(), failure_text(7));  // the tool's "failed to connect"
    EXPECT_EQ(status_, 0);
    expect_no_response_files();
}

TEST_F(CommonLibsTest, NeverWritesThroughWhatStandsAtTheTemporaryNames) {
    ow_test::https_endpoint endpoint({.reply = "secret reply"});
    ASSERT_TRUE(endpoint.ok()) << endpoint.error();
    const std::string victim = dir_ + "/victim";
    const std::string target_names[] = {body_file_, header_file_};
    for (const std::string& name : target_names) {
        for (const char* kind : {"symlink", "dangling symlink", "directory", "fifo"}) {
            SCOPED_TRACE(name + " as " + kind);
            clear_log();
            write_file(victim, "precious");
            const std::string what = kind;
            if (what == "symlink") {
                ASSERT_EQ(::symlink(victim.c_str(), name.c_str()), 0);
            } else if (what == "dangling symlink") {
                ASSERT_EQ(::symlink((dir_ + "/created-through-link").c_str(), name.c_str()), 0);
            } else if (what == "directory") {
                ASSERT_EQ(::mkdir(name.c_str(), 0700), 0);
            } else {
                ASSERT_EQ(::mkfifo(name.c_str(), 0600), 0);
            }
            EXPECT_FALSE(fetch(ARDVEX_CURL, "a=1", endpoint.url()));
            EXPECT_EQ(response(), failure_text(-1));
            EXPECT_EQ(status_, 0);
            EXPECT_ERROR_LINE(
                "fetch_remote_url",
                "refusing to let [" + name + "] be written: it exists and is not a regular file");
            EXPECT_EQ(read_file(victim), "precious");
            EXPECT_FALSE(fs::exists(dir_ + "/created-through-link"));
            EXPECT_EQ(endpoint.request_count(), 0);  // the tool never ran
            // What was planted stays; only files the call made are removed.
            EXPECT_TRUE(fs::exists(fs::symlink_status(name)));
            EXPECT_FALSE(
                fs::exists(fs::symlink_status(name == body_file_ ? header_file_ : body_file_)));
            fs::remove_all(name);
        }
    }

    // A stale regular file, even a hard link to someone else's file, is only unlinked.
    clear_log();
    ASSERT_EQ(::link(victim.c_str(), body_file_.c_str()), 0);
    write_file(header_file_, "stale headers");
    EXPECT_TRUE(fetch(ARDVEX_CURL, "a=1", endpoint.url())) << response();
    EXPECT_EQ(response(), "secret reply");
    EXPECT_EQ(read_file(victim), "precious");
    expect_no_response_files();
    EXPECT_NO_ERRORS();
}

// ---------------------------------------------------------------------------------------
// fetch_remote_url with a stand-in tool

TEST_F(CommonLibsTest, StatusIsTheLastHttp1BlockOfTheHeaders) {
    const std::string tool = fake_tool();
    struct Case {
        const char* headers;
        int32_t status;
    };
    const Case cases[] = {
        {"HTTP/1.1 200 OK\\r\\n\\r\\n", 200},
        {"HTTP/1.1 100 Continue\\r\\n\\r\\nHTTP/1.1 404 Not Found\\r\\n\\r\\n", 404},
        // Bare line feeds do not end a block: only the first is read.
        {"HTTP/1.1 100 Continue\\n\\nHTTP/1.1 404 Not Found\\n\\n", 100},
        {"HTTP/2 200\\r\\n\\r\\n", 0},
        {"HTTP/1.0 302 Found\\r\\nX: y\\r\\n\\r\\nX-Trailer: 1\\r\\n\\r\\n", 302},
        {"HTTP/1.1 301 Moved\\r\\n\\r\\nhttp/1.1 500 lower case\\r\\n\\r\\n", 301},
        {"HTTP/1.1\\r\\n\\r\\n", 0},
        {"HTTP/1.1 \\t 503x", 503},
        {"HTTP/1.1 abc", 0},
        {"garbage", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.headers);
        ::setenv("FAKE_HEADERS", c.headers, 1);
        EXPECT_TRUE(fetch(tool.c_str(), "a=1", "https://127.0.0.1:1/")) << response();
        EXPECT_EQ(status_, c.status);
        EXPECT_EQ(response(), "body");
        expect_no_response_files();
    }
    ::unsetenv("FAKE_HEADERS");
}

TEST_F(CommonLibsTest, ToolFailuresGiveTheFailureText) {
    const std::string tool = fake_tool();
    ::setenv("FAKE_HEADERS", "HTTP/1.1 200 OK\\r\\n\\r\\n", 1);
    struct Case {
        const char* program;
        const char* exit;     // FAKE_EXIT
        const char* no_body;  // FAKE_NO_BODY
        bool ok;
        const char* response;  // nullptr: no response body
        int32_t status;
    };
    const std::string fail6 = failure_text(6);
    const std::string fail0 = failure_text(0);
    const std::string fail127 = failure_text(127);
    const std::string fail126 = failure_text(126);
    const std::string not_executable = dir_ + "/not-executable";
    write_file(not_executable, "#!/bin/sh\n", 0644);
    const Case cases[] = {
        {tool.c_str(), "6", "", false, fail6.c_str(), 0},
        {tool.c_str(), "0", "1", true, nullptr, 200},
        {"/bin/true", "0", "", false, fail0.c_str(), 0},  // exit 0 but no headers
        {"/nonexistent/tool", "0", "", false, fail127.c_str(), 0},
        {not_executable.c_str(), "0", "", false, fail126.c_str(), 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.program) + " exit " + c.exit);
        ::setenv("FAKE_EXIT", c.exit, 1);
        ::setenv("FAKE_NO_BODY", c.no_body, 1);
        response_ = ::strdup("previous answer");
        EXPECT_EQ(fetch(c.program, "a=1", "https://127.0.0.1:1/"), c.ok);
        if (c.response == nullptr) {
            EXPECT_EQ(response_, nullptr);
        } else {
            EXPECT_EQ(response(), c.response);
        }
        EXPECT_EQ(status_, c.status);
        expect_no_response_files();
        std::free(response_);
        response_ = nullptr;
    }
    for (const char* v : {"FAKE_HEADERS", "FAKE_EXIT", "FAKE_NO_BODY"}) ::unsetenv(v);
}

TEST_F(CommonLibsTest, RefusalsAndAllocationFailuresLeaveTheOutputsAlone) {
    char* const before = ::strdup("kept");
    response_ = before;
    struct Case {
        const char* program;
        const char* data;
        const char* url;
        char** response;
        int32_t* status;
    };
    const Case cases[] = {
        {nullptr, "a", "u", &response_, &status_}, {"", "a", "u", &response_, &status_},
        {"p", nullptr, "u", &response_, &status_}, {"p", "a", nullptr, &response_, &status_},
        {"p", "a", "", &response_, &status_},      {"p", "a", "u", nullptr, &status_},
        {"p", "a", "u", &response_, nullptr},
    };
    for (const Case& c : cases) {
        clear_log();
        EXPECT_FALSE(fetch_remote_url(c.program, c.data, kOptions, c.url, c.response, c.status));
        EXPECT_ERROR_LINE("fetch_remote_url", kEinval);
    }

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
        EXPECT_EQ(response_, before);
        EXPECT_EQ(status_, -7);
        if (n > 1) {
            EXPECT_ERROR_LINE("fetch_remote_url", std::strerror(ENOMEM));
        }
        expect_no_response_files();
    }
}

}  // namespace

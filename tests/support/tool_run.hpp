// tool_run.hpp: the fixture of tests that run one of the built programs: a scratch directory
// per test and run(), which returns the program's exit status with its standard output and
// standard error kept apart. A test program whose build fragment did not pass the program's
// path skips.
#ifndef ARDVEX_TESTS_TOOL_RUN_HPP
#define ARDVEX_TESTS_TOOL_RUN_HPP

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "log_capture.hpp"

namespace ow_test {

class ToolTest : public LogCaptureTest {
   protected:
    explicit ToolTest(const char* tool) : tool_(tool) {}
    void SetUp() override {
        LogCaptureTest::SetUp();
        if (tool_ == nullptr) GTEST_SKIP() << "the tool's build fragment did not pass its path";
        char dir[] = "/tmp/ardvex_tool_test.XXXXXX";
        ASSERT_NE(::mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override {
        if (!dir_.empty()) std::system(("rm -rf '" + dir_ + "'").c_str());
        LogCaptureTest::TearDown();
    }
    // Exit status; out_ gets standard output, err_ standard error.
    int run(const std::string& args) {
        const std::string cmd =
            "env -u VERBOSEDEBUG " + std::string(tool_) + " " + args + " 2>" + dir_ + "/err";
        FILE* p = popen(cmd.c_str(), "r");
        if (p == nullptr) return -1;
        out_.clear();
        for (int c; (c = std::fgetc(p)) != EOF;) out_ += static_cast<char>(c);
        const int status = pclose(p);
        std::ifstream e(dir_ + "/err");
        err_.assign(std::istreambuf_iterator<char>(e), {});
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    const char* tool_;
    std::string dir_, out_, err_;
};

}  // namespace ow_test

#endif  // ARDVEX_TESTS_TOOL_RUN_HPP

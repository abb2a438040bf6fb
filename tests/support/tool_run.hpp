// tool_run.hpp: the fixture of tests that run one of the built programs: run() returns the
// program's exit status with its standard output and standard error kept apart. A test
// program whose build fragment did not pass the program's path skips.
#ifndef ARDVEX_TESTS_TOOL_RUN_HPP
#define ARDVEX_TESTS_TOOL_RUN_HPP

#include "scratch.hpp"

namespace ow_test {

class ToolTest : public ScratchTest {
   protected:
    explicit ToolTest(const char* tool) : tool_(tool) {}
    void SetUp() override {
        if (tool_ == nullptr) GTEST_SKIP() << "the tool's build fragment did not pass its path";
        ScratchTest::SetUp();
    }
    // Exit status; out_ gets standard output, err_ standard error.
    int run(const std::string& args) {
        const std::string cmd =
            "env -u VERBOSEDEBUG " + std::string(tool_) + " " + args + " 2>" + path("err");
        FILE* p = popen(cmd.c_str(), "r");
        if (p == nullptr) return -1;
        out_.clear();
        for (int c; (c = std::fgetc(p)) != EOF;) out_ += static_cast<char>(c);
        const int status = pclose(p);
        err_ = slurp(path("err"));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    const char* tool_;
    std::string out_, err_;
};

}  // namespace ow_test

#endif  // ARDVEX_TESTS_TOOL_RUN_HPP

// Tests of mail header folding and the suite tool launchers. The launchers run in a child
// with a private mount namespace and a tmpfs over the suite's bin directory.
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ardvex_config.h"
#include "common_libs.h"
#include "log_capture.hpp"

namespace {

namespace fs = std::filesystem;

std::vector<std::string> lines_of(const std::string& s) {
    std::vector<std::string> out;
    for (size_t at = 0;;) {
        const size_t crlf = s.find("\r\n", at);
        out.push_back(s.substr(at, crlf == std::string::npos ? std::string::npos : crlf - at));
        if (crlf == std::string::npos) return out;
        at = crlf + 2;
    }
}

std::string fold(const std::string& header) {
    char* value = nullptr;
    char* folded = fold_header(&value, "%s", header.c_str());
    if (folded == nullptr) return "<refused>";
    EXPECT_EQ(value, folded + header.find(':') + 1);
    std::string out(folded);
    std::free(folded);
    return out;
}

class Headers : public ow_test::LogCaptureTest {};

TEST_F(Headers, FoldingBreaksBeforeWhiteSpaceAndKeepsEveryByte) {
    std::string words = "Subject:";
    for (int i = 0; i < 30; ++i) words += " abcdefg";
    const std::string long_word = "X: " + std::string(80, 'w') + " next word";
    const std::string tabs = "X-Tabs: " + std::string(60, 't') + "\tsecond\tthird" +
                             std::string(10, 'x') + "\x01\x80\xff more";
    const struct {
        std::string header;
        std::vector<std::string> lines;
    } cases[] = {
        {"A: " + std::string(72, 'v'), {"A: " + std::string(72, 'v')}},  // 75: not folded
        {"A: " + std::string(73, 'v'), {"A: " + std::string(73, 'v')}},  // 76: whole word
        {"A:" + std::string(100, 'v'), {"A:" + std::string(100, 'v')}},  // no white space
        {words,
         {words.substr(0, 72), words.substr(72, 72), words.substr(144, 72), words.substr(216)}},
        {long_word, {"X: " + std::string(80, 'w'), " next word"}},
        {tabs,
         {"X-Tabs: " + std::string(60, 't') + "\tsecond",
          "\tthird" + std::string(10, 'x') + "\x01\x80\xff more"}},
        {"Blank:" + std::string(80, ' '), {"Blank:"}},  // no word at all: dropped
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.header);
        EXPECT_EQ(lines_of(fold(c.header)), c.lines);
    }
    const std::string name76 = std::string(75, 'N') + ":";
    EXPECT_EQ(fold(name76 + " v"), name76 + " v");
    EXPECT_NO_ERRORS();
    EXPECT_EQ(fold("N" + name76 + " v"), "<refused>");
    EXPECT_ERROR_LINE("fold_header", "Invalid header, header name exceeds 76 characters");
    EXPECT_EQ(fold("no colon"), "<refused>");
    EXPECT_ERROR_LINE("fold_header", "Invalid header, no colon found");
    EXPECT_EQ(fold_header(nullptr, nullptr), nullptr);
}

TEST_F(Headers, FprintfHeaderWritesTheFoldedTextOnce) {
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    // The formatted header is folded as it is, never read as a format again.
    EXPECT_EQ(fprintf_header(out, "%s: %d%%s", "Rate", 100), 11);
    EXPECT_EQ(fprintf_header(out, "%s", "no colon"), -1);
    std::fclose(out);
    EXPECT_EQ(std::string(text, size), "Rate: 100%s");
    std::free(text);
    EXPECT_ERROR_LINE("fold_header", "Invalid header, no colon found");
    EXPECT_EQ(fprintf_header(nullptr, "A: b"), -1);
    EXPECT_EQ(fprintf_header(stdout, nullptr), -1);
}

// Runs each launcher scenario in a child that owns its mount namespace; returns, per
// scenario, "<status>|<standard output>".
std::vector<std::string> run_launchers(const std::string& results) {
    const pid_t pid = fork();
    if (pid != 0) {
        int status = 0;
        waitpid(pid, &status, 0);
        std::vector<std::string> out;
        std::ifstream in(results);
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }
    fs::path top = ARDVEX_SUITE_BIN_DIR;
    while (!fs::exists(top)) top = top.parent_path();
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
        mount("tmpfs", top.c_str(), "tmpfs", 0, nullptr) != 0) {
        _exit(1);
    }
    const fs::path bin = ARDVEX_SUITE_BIN_DIR;
    fs::create_directories(bin);
    const auto script = [](const fs::path& p, const std::string& body) {
        std::ofstream(p) << "#!/bin/sh\n" << body << "\n";
        fs::permissions(p, fs::perms::owner_all);
    };
    std::ofstream log(results);
    const auto run = [&](int32_t (*launcher)()) {
        testing::internal::CaptureStdout();
        const int32_t status = launcher();
        log << status << "|" << testing::internal::GetCapturedStdout() << "\n";
    };
    run(run_init_plugin);  // nothing installed: the tool is named, not the wrapper
    script(bin / "activate_plugin", "exit 0");
    run(run_activate_plugin);  // the tool but no wrapper
    script(bin / "ardvex-secure", "exec \"$@\"");
    script(bin / "deactivate_plugin", "echo deactivating; exit 2");
    run(run_deactivate_plugin);
    run(run_activate_plugin);
    run(run_deinit_plugin);
    log.close();
    _exit(0);
}

TEST_F(Headers, LaunchersCheckToolThenWrapperAndReturnTheRawStatus) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace";
    char dir[] = "/tmp/ow_launch.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string results = std::string(dir) + "/results";
    const std::string repair = ". Please try re-installing the Ardvex package to repair";
    EXPECT_EQ(run_launchers(results),
              (std::vector<std::string>{"1|Missing initialization tool" + repair,
                                        "1|Missing ardvex-secure utility", "512|deactivating", "",
                                        "0|", "1|Missing de-init tool" + repair}));
    fs::remove_all(dir);
}

}  // namespace

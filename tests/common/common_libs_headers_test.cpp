// Mail header folding and the suite tool launchers.
#include <sched.h>
#include <sys/mount.h>

#include "ardvex_config.h"
#include "common_libs.h"
#include "scratch.hpp"

namespace {

namespace fs = std::filesystem;

std::string fold(const std::string& header) {
    char* value = nullptr;
    char* folded = fold_header(&value, "%s", header.c_str());
    if (folded == nullptr) return "<refused>";
    EXPECT_EQ(value, folded + header.find(':') + 1);
    std::string out(folded);
    std::free(folded);
    return out;
}

class Headers : public ow_test::ScratchTest {};

TEST_F(Headers, FoldingBreaksBeforeWhiteSpaceAndKeepsEveryByte) {
    std::string words = "Subject:";
    for (int i = 0; i < 30; ++i) words += " abcdefg";
    const std::string v72(72, 'v'), w80(80, 'w'), t60(60, 't'), n75(75, 'N');
    const std::pair<std::string, std::string> cases[] = {
        {"A: " + v72, "A: " + v72},            // 75: not folded
        {"A: v" + v72, "A: v" + v72},          // 76: whole word
        {"A:" + w80 + w80, "A:" + w80 + w80},  // no white space
        {words, words.substr(0, 72) + "\r\n" + words.substr(72, 72) + "\r\n" +
                    words.substr(144, 72) + "\r\n" + words.substr(216)},
        {"X: " + w80 + " next word", "X: " + w80 + "\r\n next word"},
        {"X-Tabs: " + t60 + "\tsecond\tthird\x01\x80\xff more",
         "X-Tabs: " + t60 + "\tsecond\r\n\tthird\x01\x80\xff more"},
        {"Blank:" + std::string(80, ' '), "Blank:"},  // no word at all: dropped
        {n75 + ": v", n75 + ": v"},
        {"N" + n75 + ": v", "<refused>"},
        {"no colon", "<refused>"},
    };
    for (const auto& [header, folded] : cases) EXPECT_EQ(fold(header), folded) << header;
    EXPECT_ERROR_LINE("fold_header", "Invalid header, header name exceeds 76 characters");
    EXPECT_ERROR_LINE("fold_header", "Invalid header, no colon found");
    EXPECT_EQ(fold_header(nullptr, nullptr), nullptr);
    clear_log();
    FILE* out = std::fopen(path("out").c_str(), "w");
    // The formatted header is folded as it is, never read as a format again.
    EXPECT_EQ(fprintf_header(out, "%s: %d%%s", "Rate", 100), 11);
    EXPECT_EQ(fprintf_header(out, "%s", "no colon"), -1);
    std::fclose(out);
    EXPECT_EQ(ow_test::slurp(path("out")), "Rate: 100%s");
    EXPECT_ERROR_LINE("fold_header", "Invalid header, no colon found");
    EXPECT_EQ(fprintf_header(nullptr, "A: b"), -1);
    EXPECT_EQ(fprintf_header(stdout, nullptr), -1);
}

// In a child with its own mount namespace and a tmpfs over the suite's bin directory, writes
// "<status>|<standard output>" of each launcher scenario to `results`.
[[noreturn]] void run_launchers(const std::string& results) {
    fs::path top = ARDVEX_SUITE_BIN_DIR;
    while (!fs::exists(top)) top = top.parent_path();
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
        mount("tmpfs", top.c_str(), "tmpfs", 0, nullptr) != 0) {
        _exit(1);
    }
    const std::string bin = ARDVEX_SUITE_BIN_DIR;
    fs::create_directories(bin);
    std::ofstream log(results);
    const auto run = [&](int32_t (*launcher)()) {
        testing::internal::CaptureStdout();
        const int32_t status = launcher();
        log << status << "|" << testing::internal::GetCapturedStdout() << "\n";
    };
    run(run_init_plugin);  // nothing installed: the tool is named, not the wrapper
    ow_test::spit(bin + "/activate_plugin", "#!/bin/sh\nexit 0\n", 0700);
    run(run_activate_plugin);  // the tool but no wrapper
    ow_test::spit(bin + "/ardvex-secure", "#!/bin/sh\nexec \"$@\"\n", 0700);
    ow_test::spit(bin + "/deactivate_plugin", "#!/bin/sh\necho deactivating; exit 2\n", 0700);
    run(run_deactivate_plugin);
    run(run_activate_plugin);
    run(run_deinit_plugin);
    log.close();
    _exit(0);
}

TEST_F(Headers, LaunchersCheckToolThenWrapperAndReturnTheRawStatus) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a private mount namespace";
    if (fork() == 0) run_launchers(path("results"));
    ::wait(nullptr);
    const std::string repair = ". Please try re-installing the Ardvex package to repair\n";
    EXPECT_EQ(ow_test::slurp(path("results")),
              "1|Missing initialization tool" + repair +
                  "1|Missing ardvex-secure utility\n512|deactivating\n\n0|\n"
                  "1|Missing de-init tool" +
                  repair);
}

}  // namespace

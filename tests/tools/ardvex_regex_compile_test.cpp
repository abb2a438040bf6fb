// Runs the real ardvex-regex-compile on pattern files and checks what it leaves behind: a
// file the engine reads, or, for any bad pattern, a report with line numbers and no file.
#include <algorithm>
#include <tuple>

#include "tiny_rex_storage.h"
#include "tool_run.hpp"

namespace {

#ifdef ARDVEX_REGEX_COMPILE
constexpr const char* kTool = ARDVEX_REGEX_COMPILE;
#else
constexpr const char* kTool = nullptr;
#endif

using names = std::vector<std::string>;

class RegexCompileTool : public ow_test::ToolTest {
   protected:
    RegexCompileTool() : ToolTest(kTool) {}
    // Every entry but the captured standard error, hidden ones too, so that a stray temporary
    // file shows.
    names entries() const {
        names found;
        for (const auto& e : ow_test::fs::directory_iterator(dir_)) {
            if (e.path().filename() != "err") found.push_back(e.path().filename());
        }
        std::sort(found.begin(), found.end());
        return found;
    }
};

TEST_F(RegexCompileTool, WritesAFileTheEngineReads) {
    const std::string out = path("dyna.cregexes");
    ow_test::spit(path("dyna.txt"),
                  "# dynamic hosts\r\n\r\n"
                  "[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}\r\n"
                  "   \n^dsl\\d+\\.\n\\.dyn\\.example\\.net$");  // no final line feed
    EXPECT_EQ(run(path("dyna.txt") + " " + out), 0) << err_;
    EXPECT_NE(out_.find("3 patterns written"), std::string::npos) << out_;
    for (const char* s : {"host-10-1-2-3.net", "DSL42.example.org", "a.DYN.example.net"}) {
        EXPECT_TRUE(compiled_regex_match(out.c_str(), s)) << s;
    }
    for (const char* s : {"mail.example.com", "a.dyn.example.net.x"}) {
        EXPECT_FALSE(compiled_regex_match(out.c_str(), s)) << s;
    }
    EXPECT_EQ(ow_test::fs::status(out).permissions(), ow_test::fs::perms(0644));
    EXPECT_EQ(entries(), (names{"dyna.cregexes", "dyna.txt"}));
}

TEST_F(RegexCompileTool, ABadPatternIsReportedAndNothingIsWritten) {
    const std::string src = path("spam.txt"), out = path("spam.cregexes"), longest(5000, 'a');
    ow_test::spit(out, "previous file");
    ow_test::spit(src, "good\n[z-a]\n# fine\nalso(good)\na{2,1}\n^*x\n(unclosed\n" + longest +
                           "\n(x|y{65535})\n");
    EXPECT_EQ(run(src + " " + out), 1);
    const auto bad = [&](int line, const std::string& why) {
        return src + ":" + std::to_string(line) + ": cannot compile [" + why + "\n";
    };
    EXPECT_EQ(err_, bad(2, "[z-a]]: invalid range [z-a].*$]; failed to parse class") +
                        bad(5, "a{2,1}]: greedy operator range 2 - 1 is invalid") +
                        bad(6, "^*x]: misplaced repetition operator") +
                        bad(7, "(unclosed]: failed to find expected character [)]") +
                        bad(8, longest + "]: the pattern needs 5004 nodes, at most 4095 fit in "
                                         "a record") +
                        bad(9, "(x|y{65535})]: greedy operator must have value in 'right'") +
                        "ardvex-regex-compile: " + out + " not written\n");
    EXPECT_EQ(ow_test::slurp(out), "previous file");
    EXPECT_EQ(entries(), (names{"spam.cregexes", "spam.txt"}));
}

TEST_F(RegexCompileTool, UsageAndUnusablePaths) {
    const std::string patterns = path("p.txt"), missing = path("missing.txt");
    ow_test::spit(patterns, "x\n");
    const std::tuple<std::string, int, std::string> cases[] = {
        {"--help", 0, "Usage: ardvex-regex-compile PATTERNS.txt OUTPUT.cregexes"},
        {"", 2, "Usage:"},
        {patterns, 2, "Usage:"},
        {missing + " " + path("o.cregexes"), 1, "cannot open " + missing},
        {patterns + " " + path("no/such/dir/o.cregexes"), 1, "cannot create a temporary file"},
    };
    for (const auto& [args, status, text] : cases) {
        SCOPED_TRACE(args);
        EXPECT_EQ(run(args), status) << err_;
        EXPECT_NE((out_ + err_).find(text), std::string::npos) << out_ << err_;
    }
    EXPECT_EQ(entries(), names{"p.txt"});
}

}  // namespace

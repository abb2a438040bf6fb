// Runs the real ardvex-regex-compile on pattern files and checks what it leaves behind: a
// file the engine reads, or, for any bad pattern, a report with line numbers and no file.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tiny_rex_storage.h"

namespace {

using names = std::vector<std::string>;

class RegexCompileToolTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
#ifndef ARDVEX_REGEX_COMPILE
        GTEST_SKIP() << "the tool's build fragment did not pass its path";
#endif
        char dir[] = "/tmp/ardvex_regex_compile_test.XXXXXX";
        ASSERT_NE(::mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override {
        if (!dir_.empty()) std::system(("rm -rf '" + dir_ + "'").c_str());
        LogCaptureTest::TearDown();
    }

    // Runs the tool; returns its exit status and sets output_ to stdout and stderr together.
    int run(const std::string& args) {
        output_.clear();
#ifdef ARDVEX_REGEX_COMPILE
        FILE* p = ::popen((std::string(ARDVEX_REGEX_COMPILE) + " " + args + " 2>&1").c_str(), "r");
        if (p == nullptr) return -1;
        char buffer[4096];
        for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, p)) > 0;)
            output_.append(buffer, n);
        const int status = ::pclose(p);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#else
        (void)args;
        return -1;
#endif
    }

    std::string write_text(const std::string& name, const std::string& text) {
        const std::string path = dir_ + "/" + name;
        FILE* fp = std::fopen(path.c_str(), "wb");
        std::fwrite(text.data(), 1, text.size(), fp);
        std::fclose(fp);
        return path;
    }

    // Every entry, hidden ones too, so that a stray temporary file shows.
    names entries() {
        names found;
        DIR* d = ::opendir(dir_.c_str());
        while (dirent* e = ::readdir(d)) {
            if (std::string n = e->d_name; n != "." && n != "..") found.push_back(n);
        }
        ::closedir(d);
        std::sort(found.begin(), found.end());
        return found;
    }

    std::string dir_;
    std::string output_;
};

TEST_F(RegexCompileToolTest, WritesAFileTheEngineReads) {
    const std::string patterns =
        write_text("dyna.txt",
                   "# dynamic hosts\r\n\r\n"
                   "[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}\r\n"
                   "   \n^dsl\\d+\\.\n\\.dyn\\.example\\.net$");  // no final line feed
    const std::string out = dir_ + "/dyna.cregexes";
    EXPECT_EQ(run(patterns + " " + out), 0) << output_;
    EXPECT_NE(output_.find("3 patterns written"), std::string::npos) << output_;
    for (const auto& [subject, expected] : {std::pair{"host-10-1-2-3.net", true},
                                            {"DSL42.example.org", true},
                                            {"a.DYN.example.net", true},
                                            {"mail.example.com", false},
                                            {"a.dyn.example.net.x", false}}) {
        SCOPED_TRACE(subject);
        EXPECT_EQ(compiled_regex_match(out.c_str(), subject), expected);
    }
    struct stat st {};
    ASSERT_EQ(::stat(out.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(entries(), (names{"dyna.cregexes", "dyna.txt"}));
}

TEST_F(RegexCompileToolTest, ABadPatternIsReportedAndNothingIsWritten) {
    const std::string out = write_text("spam.cregexes", "previous file");
    const std::string patterns =
        write_text("spam.txt", "good\n[z-a]\n# fine\nalso(good)\na{2,1}\n^*x\n(unclosed\n" +
                                   std::string(5000, 'a') + "\n(x|y{65535})\n");
    EXPECT_EQ(run(patterns + " " + out), 1);
    for (const std::string& expected : {
             patterns +
                 ":2: cannot compile [[z-a]]: invalid range [z-a].*$]; failed to parse class",
             patterns + ":5: cannot compile [a{2,1}]: greedy operator range 2 - 1 is invalid",
             patterns + ":6: cannot compile [^*x]: misplaced repetition operator",
             patterns + ":7: cannot compile [(unclosed]: failed to find expected character [)]",
             patterns + ":8: cannot compile [aaaa",
             std::string("the pattern needs 5004 nodes, at most 4095 fit in a record"),
             patterns + ":9: cannot compile [(x|y{65535})]: greedy operator must have value "
                        "in 'right'",
             out + " not written",
         }) {
        EXPECT_NE(output_.find(expected), std::string::npos) << expected << "\n" << output_;
    }
    for (const char* good : {":1:", ":4:"}) EXPECT_EQ(output_.find(good), std::string::npos);
    std::ifstream kept(out, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "previous file");
    EXPECT_EQ(entries(), (names{"spam.cregexes", "spam.txt"}));
}

TEST_F(RegexCompileToolTest, UsageAndUnusablePaths) {
    const std::string patterns = write_text("p.txt", "x\n");
    const std::string missing = dir_ + "/missing.txt";
    struct usage_case {
        std::string args;
        int status;
        std::string text;
    };
    const std::vector<usage_case> cases = {
        {"--help", 0, "Usage: ardvex-regex-compile PATTERNS.txt OUTPUT.cregexes"},
        {"", 2, "Usage:"},
        {patterns, 2, "Usage:"},
        {missing + " " + dir_ + "/o.cregexes", 1, "cannot open " + missing},
        {patterns + " " + dir_ + "/no/such/dir/o.cregexes", 1, "cannot create a temporary file"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        EXPECT_EQ(run(c.args), c.status) << output_;
        EXPECT_NE(output_.find(c.text), std::string::npos) << output_;
    }
    EXPECT_EQ(entries(), names{"p.txt"});
}

}  // namespace

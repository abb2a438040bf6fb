// Runs the real ardvex-regex-compile on pattern files and checks what it leaves behind: a
// file the engine reads, or, for any bad pattern, a report with line numbers and no file.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "tiny_rex_storage.h"

namespace {

struct result {
    int status;
    std::string output;  // standard output and standard error together
};

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

    result run(const std::string& args) {
        result r{-1, {}};
#ifdef ARDVEX_REGEX_COMPILE
        FILE* p = ::popen((std::string(ARDVEX_REGEX_COMPILE) + " " + args + " 2>&1").c_str(), "r");
        if (p == nullptr) return r;
        char buffer[4096];
        std::size_t n = 0;
        while ((n = std::fread(buffer, 1, sizeof buffer, p)) > 0) r.output.append(buffer, n);
        const int status = ::pclose(p);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#else
        (void)args;
#endif
        return r;
    }

    std::string write_text(const std::string& name, const std::string& text) {
        const std::string path = dir_ + "/" + name;
        FILE* fp = std::fopen(path.c_str(), "wb");
        std::fwrite(text.data(), 1, text.size(), fp);
        std::fclose(fp);
        return path;
    }

    std::vector<std::string> entries() {
        std::vector<std::string> names;
        DIR* d = ::opendir(dir_.c_str());
        while (dirent* e = ::readdir(d)) {
            if (e->d_name[0] != '.' || std::string(e->d_name).size() > 2)
                names.push_back(e->d_name);
        }
        ::closedir(d);
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string dir_;
};

TEST_F(RegexCompileToolTest, WritesAFileTheEngineReads) {
    const std::string patterns = write_text("dyna.txt",
                                            "# dynamic hosts\r\n"
                                            "\r\n"
                                            "[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}"
                                            "(\\-|_|\\.)[0-9]{1,3}\r\n"
                                            "   \n"
                                            "^dsl\\d+\\.\n"
                                            "\\.dyn\\.example\\.net$");  // no final line feed
    const std::string out = dir_ + "/dyna.cregexes";
    const result r = run(patterns + " " + out);
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("3 patterns written"), std::string::npos) << r.output;

    const std::vector<std::pair<const char*, bool>> subjects = {
        {"host-10-1-2-3.net", true}, {"DSL42.example.org", true},    {"a.DYN.example.net", true},
        {"mail.example.com", false}, {"a.dyn.example.net.x", false},
    };
    for (const auto& [subject, expected] : subjects) {
        SCOPED_TRACE(subject);
        EXPECT_EQ(compiled_regex_match(out.c_str(), subject), expected);
    }
    struct stat st {};
    ASSERT_EQ(::stat(out.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(entries(), (std::vector<std::string>{"dyna.cregexes", "dyna.txt"}));
}

TEST_F(RegexCompileToolTest, ABadPatternIsReportedAndNothingIsWritten) {
    const std::string out = write_text("spam.cregexes", "previous file");
    const std::string patterns = write_text("spam.txt",
                                            "good\n"
                                            "[z-a]\n"
                                            "# fine\n"
                                            "also(good)\n"
                                            "a{2,1}\n"
                                            "^*x\n"
                                            "(unclosed\n" +
                                                std::string(5000, 'a') + "\n");
    const result r = run(patterns + " " + out);
    EXPECT_EQ(r.status, 1);
    for (const std::string& expected : std::vector<std::string>{
             patterns +
                 ":2: cannot compile [[z-a]]: invalid range [z-a].*$]; failed to parse class",
             patterns + ":5: cannot compile [a{2,1}]: repetition {2,1} has its minimum above",
             patterns + ":6: cannot compile [^*x]: misplaced repetition operator",
             patterns + ":7: cannot compile [(unclosed]: failed to find expected character [)]",
             patterns + ":8: cannot compile [aaaa",
             "the pattern needs 5004 nodes, at most 4095 fit in a record",
             out + " not written",
         }) {
        EXPECT_NE(r.output.find(expected), std::string::npos) << expected << "\n" << r.output;
    }
    EXPECT_EQ(r.output.find(":1:"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find(":4:"), std::string::npos) << r.output;
    FILE* fp = std::fopen(out.c_str(), "rb");
    char buffer[64] = {};
    std::fread(buffer, 1, sizeof buffer - 1, fp);
    std::fclose(fp);
    EXPECT_STREQ(buffer, "previous file");
    EXPECT_EQ(entries(), (std::vector<std::string>{"spam.cregexes", "spam.txt"}));
}

TEST_F(RegexCompileToolTest, UsageAndUnusablePaths) {
    const std::string patterns = write_text("p.txt", "x\n");
    struct usage_case {
        std::string args;
        int status;
        std::string text;
    };
    const std::vector<usage_case> cases = {
        {"--help", 0, "Usage: ardvex-regex-compile PATTERNS.txt OUTPUT.cregexes"},
        {"", 2, "Usage:"},
        {patterns, 2, "Usage:"},
        {dir_ + "/missing.txt " + dir_ + "/o.cregexes", 1, "cannot open " + dir_ + "/missing.txt"},
        {patterns + " " + dir_ + "/no/such/dir/o.cregexes", 1, "cannot create a temporary file"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const result r = run(c.args);
        EXPECT_EQ(r.status, c.status) << r.output;
        EXPECT_NE(r.output.find(c.text), std::string::npos) << r.output;
    }
    EXPECT_EQ(entries(), (std::vector<std::string>{"p.txt"}));
}

}  // namespace

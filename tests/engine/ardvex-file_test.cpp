// Tests of the list files: what a wildcard entry matches, which lines a search sees (comments,
// blanks, CR, pieces of over-long lines, NUL bytes), the edit outcomes with exact file
// contents, the opposite lists, and many processes editing one list while a reader watches.
#include "ardvex-file.h"

#include <gtest/gtest.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace fs = std::filesystem;

namespace {

using ow_test::refused;

const std::string inval = std::strerror(EINVAL);

// Lists live under tmpfs where there is one, as on the mail servers.
std::string make_dir(const char* tag) {
    std::string tmpl = (fs::is_directory("/dev/shm") ? "/dev/shm/" : "/tmp/") + std::string(tag);
    tmpl += ".XXXXXX";
    return mkdtemp(tmpl.data()) != nullptr ? tmpl : "";
}

class ListFileTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        dir_ = make_dir("ardvex_file_test");
        ASSERT_FALSE(dir_.empty());
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
        LogCaptureTest::TearDown();
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    void put(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
    }
    std::string get(const std::string& name) const {
        std::ifstream in(path(name), std::ios::binary);
        return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "<none>";
    }
    bool has(const std::string& name, const char* entry,
             ow_line_compare_fn cmp = __wildcardmatch) const {
        return __file_contains_line(dir_.c_str(), name.c_str(), entry, cmp);
    }
    const char* add(const char* entry, const char* comment = nullptr,
                    const std::string& name = "list") const {
        return ow_add_entry(dir_.c_str(), name.c_str(), entry, comment, strcasecmp);
    }
    const char* del(const char* entry, bool keep = false) const {
        return ow_del_entry(dir_.c_str(), "list", entry, keep, strcasecmp);
    }
    std::string dir_;
};

TEST_F(ListFileTest, WildcardPatterns) {
    const struct {
        const char* pattern;
        const char* text;
        bool match;
    } cases[] = {
        {"*@example.com", "bob@example.com", true},
        {"*@example.com", "BOB@EXAMPLE.COM", true},            // case never counts
        {"*@example.com", "bob@example.com.evil.org", false},  // anchored at the end
        {"*@example.com", "bob@exampleXcom", false},           // a dot is only a dot
        {"*@example.com", "bob@sub.example.com", false},
        {"bob*@example.com", "xbob@example.com", false},  // anchored at the start
        {"*@*.example.com", "a@mx.example.com", true},
        {"ab+c*", "abbbcd", true},  // other characters keep their regex meaning
        {"ab+c", "abbc", false},    // without '*' the pattern is compared as text
        {"Bob@Example.com", "bob@example.COM", true},
        {"*", "anything", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.pattern) + " ~ " + c.text);
        EXPECT_EQ(__wildcardmatch(c.pattern, c.text) == 0, c.match);
    }
    EXPECT_TRUE(ow_test::has_debug("__regexmatch",
                                   "got a match [a@mx.example.com] => "
                                   "[^.*@.*\\.example\\.com$]"));
    EXPECT_NO_ERRORS();
    refused("__wildcardmatch", inval,
            {__wildcardmatch(nullptr, "a") != 0, __wildcardmatch("*", "") != 0,
             __wildcardmatch("", "a") != 0});
    refused("__regexmatch", inval, {__regexmatch(nullptr, "a") == 1});
    EXPECT_EQ(__regexmatch("(", "a"), 1);  // does not compile
}

TEST_F(ListFileTest, SearchSeesEntryLinesOnly) {
    const std::string long_line(1022, 'a');
    put("list",
        "# bob@example.com\n"
        "\n"
        "   \t\n"
        "  spaced@example.com\n"
        "trailing@example.com \n"
        "crlf@example.com\r\n"
        "\tcommented@example.com\n"
        "*@wild.example\n" +
            long_line + "tail@example.com\n" + std::string("nul@example.com\0hidden\n", 23) +
            "last@example.com");
    const struct {
        const char* entry;
        bool found;
    } cases[] = {
        {"bob@example.com", false},  // a comment line never matches
        {"spaced@example.com", true},
        {"trailing@example.com", false},  // blanks after an entry belong to it
        {"trailing@example.com ", true},
        {"crlf@example.com", false},  // the search strips only the LF
        {"commented@example.com", true},
        {"x@WILD.example", true},
        {"tail@example.com", true},  // the rest of an over-long line counts as a line
        {"nul@example.com", true},
        {"hidden", false},
        {"last@example.com", true},  // no LF at the end of the file
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.entry);
        EXPECT_EQ(has("list", c.entry), c.found);
    }
    EXPECT_TRUE(has("list", std::string(1022, 'A').c_str(), strcasecmp));
    EXPECT_TRUE(ow_test::has_debug("__file_contains_line",
                                   "__file_contains_line(" + path("list") +
                                       ", line 10): hit [tail@example.com][tail@example.com]"));
    EXPECT_NO_ERRORS();

    EXPECT_FALSE(has("missing", "a"));
    EXPECT_NO_ERRORS();  // a list that does not exist lists nothing
    const std::string d = dir_ + "/";
    EXPECT_TRUE(__file_contains_line(d.c_str(), "list", "last@example.com", strcasecmp));
    refused("__file_contains_line", inval,
            {!__file_contains_line(dir_.c_str(), "", "a", strcasecmp),
             !__file_contains_line(dir_.c_str(), "list", nullptr, strcasecmp),
             !__file_contains_line(dir_.c_str(), "list", "a", nullptr),
             !__file_contains_line(nullptr, "list", "a", strcasecmp)});
}

std::vector<std::string>& seen() {
    static std::vector<std::string> lines;
    return lines;
}
void collect(const char* line) { seen().emplace_back(line); }

TEST_F(ListFileTest, IterateAndLoad) {
    put("list", "a\r\n# c\r\r\n\nb");
    seen().clear();
    EXPECT_TRUE(ow_iterate_file(dir_.c_str(), "list", collect));
    EXPECT_EQ(seen(), (std::vector<std::string>{"a", "# c", "", "b"}));
    EXPECT_FALSE(ow_iterate_file(dir_.c_str(), "missing", collect));
    refused(
        "ow_iterate_file", inval,
        {!ow_iterate_file(dir_.c_str(), "list", nullptr), !ow_iterate_file("", "list", collect)});

    ow_list* list = ow_file_to_list(dir_.c_str(), "list");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(ow_list_count(list), 4u);
    EXPECT_STREQ(static_cast<const char*>(ow_list_data_at(list, 3)), "b");
    ow_destroy_list(&list, std::free);
    put("empty", "");
    EXPECT_EQ(ow_file_to_list(dir_.c_str(), "empty"), nullptr);
    EXPECT_EQ(ow_file_to_list(dir_.c_str(), "missing"), nullptr);
    EXPECT_TRUE(ow_test::has_debug("ow_file_to_list",
                                   "file " + path("missing") + " does not exist. Aborting"));

    put("number", " -42 messages\n");
    EXPECT_EQ(ow_file_to_int(dir_.c_str(), "number"), -42);
    EXPECT_EQ(ow_file_to_int(dir_.c_str(), "missing"), 0);
    EXPECT_EQ(ow_file_to_int("", "number"), 0);
    EXPECT_NO_ERRORS();
}

TEST_F(ListFileTest, EditOutcomes) {
    put("list", "keep\r\nbob@example.com\n\told note\nlast");
    ASSERT_EQ(::chmod(path("list").c_str(), 0640), 0);
    const std::string comment255(255, 'c');
    const struct {
        const char* what;
        const char* result;  // nullptr: success
        std::string after;
    } steps[] = {
        {"add", nullptr, "keep\nbob@example.com\n\told note\nlast\nnew@example.com\n"},
        {"add again", "Entry already exists", ""},
        {"comment missing", "Entry not found", ""},
        {"comment", nullptr, "keep\nBOB@example.com\n\tfresh\nlast\nnew@example.com\n"},
        {"comment 255", nullptr,
         "keep\nbob@example.com\n\t" + comment255 + "\nlast\nnew@example.com\n"},
        {"drop comment", nullptr, "keep\nbob@example.com\nlast\nnew@example.com\n"},
        {"delete", nullptr, "keep\nlast\nnew@example.com\n"},
        {"delete again", "Entry not found", ""},
    };
    std::string expected = get("list");
    for (const auto& s : steps) {
        SCOPED_TRACE(s.what);
        const std::string w = s.what;
        const char* r = w == "add"               ? add("new@example.com")
                        : w == "add again"       ? add("NEW@example.com")
                        : w == "comment missing" ? add("nobody@example.com", "x")
                        : w == "comment"         ? add("BOB@example.com", "fresh")
                        : w == "comment 255"     ? add("bob@example.com", comment255.c_str())
                        : w == "drop comment"    ? del("bob@example.com", true)
                                                 : del("bob@example.com");
        if (s.result == nullptr) {
            EXPECT_EQ(r, nullptr) << r;
            expected = s.after;
        } else {
            EXPECT_STREQ(r, s.result);
        }
        EXPECT_EQ(get("list"), expected);
    }
    struct stat st {};
    ASSERT_EQ(::stat(path("list").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_FALSE(fs::exists(path("list.tmp")));
    EXPECT_NO_ERRORS();

    EXPECT_STREQ(add("x", std::string(256, 'c').c_str()), "Invalid comment to add");
    EXPECT_STREQ(add("x", ""), "Invalid comment to add");
    EXPECT_STREQ(del("x"), "Entry not found");
    EXPECT_EQ(ow_del_entry(dir_.c_str(), "missing", "x", false, strcasecmp), nullptr);
    EXPECT_FALSE(fs::exists(path("missing")));
    EXPECT_EQ(add("first", nullptr, "created"), nullptr);
    EXPECT_EQ(get("created"), "first\n");
    EXPECT_EQ(get("list"), expected);
    refused("ow_add_entry", inval,
            {ow_add_entry(dir_.c_str(), "list", "", nullptr, strcasecmp) != nullptr,
             ow_add_entry(dir_.c_str(), "list", "x", nullptr, nullptr) != nullptr});
    refused("ow_del_entry", inval, {ow_del_entry("", "list", "x", false, strcasecmp) != nullptr});
    EXPECT_STREQ(ow_add_entry(nullptr, "list", "x", nullptr, strcasecmp),
                 "Invalid arguments to add");
    EXPECT_STREQ(ow_del_entry(dir_.c_str(), "list", "x", false, nullptr),
                 "Invalid arguments to del");
}

TEST_F(ListFileTest, DeleteEveryMatchAndWildcardEdits) {
    put("list", "a@x.org\n\tone\n*@x.org\nA@X.ORG\n\ttwo\n\tthree\n");
    EXPECT_EQ(del("a@x.org"), nullptr);
    EXPECT_EQ(get("list"), "*@x.org\n\tthree\n");  // only the line right under a match goes
    // With the wildcard comparison the list's patterns catch the entry being edited, and the
    // comment line under the pattern is replaced.
    EXPECT_EQ(ow_add_entry(dir_.c_str(), "list", "b@x.org", "note", __wildcardmatch), nullptr);
    EXPECT_EQ(get("list"), "b@x.org\n\tnote\n");
}

TEST_F(ListFileTest, OppositeLists) {
    put("from_blacklist", "*@spam.example\n");
    put("exempt_ips", "192.0.2.1\n");
    const char* d = dir_.c_str();
    EXPECT_STREQ(ow_add_entry(d, "from_whitelist", "x@spam.example", nullptr, __wildcardmatch),
                 "Entry is present in the opposite table");
    EXPECT_FALSE(fs::exists(path("from_whitelist")));
    EXPECT_STREQ(ow_add_entry(d, "blocked_ips", "192.0.2.1", nullptr, strcasecmp),
                 "Entry is present in the opposite table");
    EXPECT_EQ(ow_add_entry(d, "blocked_ips", "192.0.2.2", nullptr, strcasecmp), nullptr);
    EXPECT_STREQ(ow_add_entry(d, "exempt_ips", "192.0.2.2", nullptr, strcasecmp),
                 "Entry is present in the opposite table");
    EXPECT_EQ(ow_add_entry(d, "rl_whitelist.lst", "a", nullptr, strcasecmp), nullptr);
    EXPECT_STREQ(ow_add_entry(d, "ra_whitelist.lst", "a", nullptr, strcasecmp),
                 "Entry is present in the opposite table");
    // Names are compared exactly: a list of another name has no opposite.
    EXPECT_EQ(ow_add_entry(d, "from_blacklist.old", "x@spam.example", nullptr, strcasecmp),
              nullptr);
    EXPECT_EQ(ow_add_entry(d, "From_whitelist", "x@spam.example", nullptr, strcasecmp), nullptr);
}

TEST_F(ListFileTest, FailedAllocationLeavesListUnchanged) {
    put("from_blacklist", "other\n");
    put("from_whitelist", "a\n\tnote\n");
    const long before = ow::testing::allocation_count();
    ASSERT_EQ(ow_add_entry(dir_.c_str(), "from_whitelist", "b", nullptr, strcasecmp), nullptr);
    const long needed = ow::testing::allocation_count() - before;
    ASSERT_GT(needed, 0);
    for (long n = 1; n <= needed; ++n) {
        SCOPED_TRACE(n);
        put("from_whitelist", "a\n\tnote\n");
        ow::testing::fail_allocation(n);
        const char* r = ow_add_entry(dir_.c_str(), "from_whitelist", "b", nullptr, strcasecmp);
        ow::testing::fail_allocation(0);
        if (r != nullptr) {
            EXPECT_EQ(get("from_whitelist"), "a\n\tnote\n") << r;
        }
        EXPECT_FALSE(fs::exists(path("from_whitelist.tmp")));
    }
}

// ---------------------------------------------------------------------------------------
// Many processes, one list.

int child_errors = 0;
void counting_sink(int priority, const char*, ...) { child_errors += priority == LOG_ERR; }

std::string entry_of(int proc, int i) {
    return "p" + std::to_string(proc) + "-" + std::to_string(i) + "@example.com";
}

// Each child adds its 1,000 entries one by one and removes each again after the next one is
// in, except every hundredth and the last: the list stays short and its end is known.
constexpr int kProcs = 8;
constexpr int kEntries = 1000;
bool kept(int i) { return i % 100 == 0 || i == kEntries - 1; }

[[noreturn]] void editor(const std::string& dir, int proc) {
    ow_set_log_function(counting_sink);
    int failures = 0;
    for (int i = 0; i < kEntries; ++i) {
        failures += ow_add_entry(dir.c_str(), "list", entry_of(proc, i).c_str(), nullptr,
                                 strcasecmp) != nullptr;
        if (i > 0 && !kept(i - 1))
            failures += ow_del_entry(dir.c_str(), "list", entry_of(proc, i - 1).c_str(), false,
                                     strcasecmp) != nullptr;
    }
    _exit(failures == 0 && child_errors == 0 ? 0 : 1);
}

TEST_F(ListFileTest, ManyProcessesOneList) {
    ::unsetenv("VERBOSEDEBUG");
    ow::testing::reset_debug_decision();
    put("list", "");
    std::vector<pid_t> kids;
    for (int p = 0; p < kProcs; ++p) {
        const pid_t pid = fork();
        ASSERT_NE(pid, -1);
        if (pid == 0) editor(dir_, p);
        kids.push_back(pid);
    }
    // Read the list over and over while they work: it is always whole lines of whole entries.
    static const std::regex line_re(R"(p[0-7]-[0-9]{1,3}@example\.com)");
    int reads = 0;
    int torn = 0;
    std::string bad;
    for (std::size_t done = 0; done < kids.size();) {
        const std::string text = get("list");
        ++reads;
        if (!text.empty() && text.back() != '\n') ++torn, bad = text;
        std::size_t start = 0;
        for (std::size_t lf; (lf = text.find('\n', start)) != std::string::npos; start = lf + 1) {
            if (!std::regex_match(text.substr(start, lf - start), line_re))
                ++torn, bad = text.substr(start, lf - start);
        }
        for (auto& k : kids) {
            int status = 0;
            if (k > 0 && waitpid(k, &status, WNOHANG) == k) {
                EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
                k = -1;
                ++done;
            }
        }
    }
    EXPECT_EQ(torn, 0) << bad;
    EXPECT_GT(reads, 1);

    std::set<std::string> expected;
    for (int p = 0; p < kProcs; ++p)
        for (int i = 0; i < kEntries; ++i)
            if (kept(i)) expected.insert(entry_of(p, i));
    std::set<std::string> got;
    seen().clear();
    ASSERT_TRUE(ow_iterate_file(dir_.c_str(), "list", collect));
    got.insert(seen().begin(), seen().end());
    EXPECT_EQ(seen().size(), expected.size());
    EXPECT_EQ(got, expected);
    EXPECT_FALSE(fs::exists(path("list.tmp")));
}

}  // namespace

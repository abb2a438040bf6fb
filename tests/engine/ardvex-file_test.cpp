#include "ardvex-file.h"

#include "scratch.hpp"

#include <strings.h>
#include <syslog.h>

#include <regex>
#include <set>
#include <tuple>

#include "ardvex-iprange.h"
#include "ow_internal.hpp"

namespace {

namespace fs = std::filesystem;
using ow_test::slurp;
using ow_test::spit;
const std::string inval = std::strerror(EINVAL);

class ListFileTest : public ow_test::ScratchTest {
   protected:
    const char* add(const char* entry, const char* comment = nullptr, const char* name = "list",
                    ow_line_compare_fn compare = strcasecmp) const {
        return ow_add_entry(dir_.c_str(), name, entry, comment, compare);
    }
    const char* del(const char* entry, bool keep = false) const {
        return ow_del_entry(dir_.c_str(), "list", entry, keep, strcasecmp);
    }
    std::string list() const { return slurp(path("list"), "<none>"); }
};

TEST_F(ListFileTest, WildcardPatterns) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"*@example.com", "BOB@EXAMPLE.COM", true},            // case never counts
        {"*@example.com", "bob@example.com.evil.org", false},  // anchored at the end
        {"*@example.com", "bob@exampleXcom", false},           // a dot is only a dot
        {"bob*@example.com", "xbob@example.com", false},       // anchored at the start
        {"ab+c*", "abbbcd", true},  // other characters keep their regex meaning
        {"ab+c", "abbc", false},    // without '*' the pattern is compared as text
        {"a***b", "axxb", true},    // a run of stars is one: no backtracking
        {"*@*.example.com", "a@mx.example.com", true},
        {"Bob@Example.com", "bob@example.COM", true},
    };
    for (const auto& [pattern, text, match] : cases) {
        SCOPED_TRACE(std::string(pattern) + " ~ " + text);
        EXPECT_EQ(__wildcardmatch(pattern, text) == 0, match);
    }
    EXPECT_TRUE(ow_test::has_debug("__regexmatch", "got a match [axxb] => [^a.*b$]"));
    EXPECT_NO_ERRORS();
    ow_test::refused("__wildcardmatch", inval,
                     {__wildcardmatch(nullptr, "a") != 0, __wildcardmatch("*", "") != 0});
    EXPECT_EQ(__regexmatch("(", "a"), 1);  // does not compile
}

std::vector<std::string> seen;
void collect(const char* line) { seen.emplace_back(line); }

TEST_F(ListFileTest, Reading) {
    spit(path("list"),
         "# bob@example.com\n\n   \t\n  spaced@example.com\ntrailing@example.com \n"
         "crlf@example.com\r\n\tcommented@example.com\n*@wild.example\n" +
             std::string(1022, 'a') + "tail@example.com\n" +
             std::string("nul@example.com\0hidden\n", 23) + "last@example.com");
    // Found: indented lines, patterns, an over-long line's rest, text before a NUL, a last line
    // without LF. Not found: comments, entries trailed by blanks or CR (only LF is cut), text
    // after a NUL.
    for (const char* e : {"spaced@example.com", "commented@example.com", "x@WILD.example",
                          "tail@example.com", "nul@example.com", "last@example.com"})
        EXPECT_TRUE(__file_contains_line(dir_.c_str(), "list", e, __wildcardmatch)) << e;
    for (const char* e : {"bob@example.com", "trailing@example.com", "crlf@example.com", "hidden"})
        EXPECT_FALSE(__file_contains_line(dir_.c_str(), "list", e, __wildcardmatch)) << e;
    EXPECT_FALSE(__file_contains_line(dir_.c_str(), "missing", "a", strcasecmp));
    EXPECT_NO_ERRORS();  // a list that does not exist lists nothing
    ow_test::refused("__file_contains_line", inval,
                     {!__file_contains_line(dir_.c_str(), "", "a", strcasecmp),
                      !__file_contains_line(dir_.c_str(), "list", "a", nullptr)});

    // Every line, blank and comment lines too; loaded into a list, the CRs stay.
    spit(path("crlf"), "a\r\n# c\r\r\n\nb");
    seen.clear();
    EXPECT_TRUE(ow_iterate_file(dir_.c_str(), "crlf", collect));
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "# c", "", "b"}));
    ow_list* loaded = ow_file_to_list(dir_.c_str(), "crlf");
    EXPECT_EQ(ow_list_count(loaded), 4u);
    EXPECT_STREQ(static_cast<const char*>(ow_list_data_at(loaded, 0)), "a\r");
    ow_destroy_list(&loaded, std::free);
}

TEST_F(ListFileTest, EditOutcomes) {
    spit(path("list"), "keep\r\nbob@example.com\n\told note\nlast", 0640);
    const std::string c255(255, 'c');
    auto step = [&](const char* result, const std::string& after) {
        EXPECT_EQ(result, nullptr) << result;
        EXPECT_EQ(list(), after);
    };
    step(add("new@example.com"), "keep\nbob@example.com\n\told note\nlast\nnew@example.com\n");
    const std::string before = list();
    EXPECT_STREQ(add("NEW@example.com"), "Entry already exists");
    EXPECT_STREQ(add("nobody@example.com", "x"), "Entry not found");
    EXPECT_STREQ(add("x", std::string(256, 'c').c_str()), "Invalid comment to add");
    EXPECT_EQ(list(), before);
    // The matching line takes the caller's spelling; the old comment line goes.
    step(add("BOB@example.com", c255.c_str()),
         "keep\nBOB@example.com\n\t" + c255 + "\nlast\nnew@example.com\n");
    step(del("bob@example.com", true), "keep\nBOB@example.com\nlast\nnew@example.com\n");
    step(del("bob@example.com"), "keep\nlast\nnew@example.com\n");
    EXPECT_STREQ(del("bob@example.com"), "Entry not found");
    EXPECT_EQ(fs::status(path("list")).permissions(), fs::perms(0640));
    EXPECT_NO_ERRORS();

    spit(path("list"), "a@x.org\n\tone\n*@x.org\nA@X.ORG\n\ttwo\n\tthree\n");
    step(del("a@x.org"), "*@x.org\n\tthree\n");  // every match, and only the line under it
    // With the wildcard comparison the list's own patterns catch the entry being edited.
    step(add("b@x.org", "n", "list", __wildcardmatch), "b@x.org\n\tn\n");

    EXPECT_EQ(ow_del_entry(dir_.c_str(), "missing", "x", false, strcasecmp), nullptr);
    EXPECT_FALSE(fs::exists(path("missing")));
    EXPECT_EQ(add("first", nullptr, "created"), nullptr);
    // A list linked in from elsewhere stays a link, and the file it names gets the entry.
    fs::create_symlink(path("created"), path("linked"));
    EXPECT_EQ(add("second", nullptr, "linked"), nullptr);
    EXPECT_TRUE(fs::is_symlink(path("linked")));
    EXPECT_EQ(slurp(path("created")), "first\nsecond\n");
    ow_test::refused("ow_add_entry", inval,
                     {add("") == std::string("Invalid arguments to add"),
                      ow_add_entry(dir_.c_str(), "list", "x", nullptr, nullptr) != nullptr});
    ow_test::refused("ow_del_entry", inval,
                     {ow_del_entry("", "list", "x", false, strcasecmp) ==
                      std::string("Invalid arguments to del")});

    // Each of a pair is the other's opposite, and the comparison sees the opposite's patterns.
    const char* lists[] = {"from_blacklist", "from_whitelist",   "exempt_ips",
                           "blocked_ips",    "rl_whitelist.lst", "ra_whitelist.lst"};
    for (int i = 0; i < 6; ++i) {
        SCOPED_TRACE(lists[i]);
        spit(path(lists[i]), "*@spam.example\n");
        EXPECT_STREQ(add("x@spam.example", nullptr, lists[i ^ 1], __wildcardmatch),
                     "Entry is present in the opposite table");
        EXPECT_FALSE(fs::exists(path(lists[i ^ 1])));
        ::unlink(path(lists[i]).c_str());
    }
    spit(path("from_blacklist"), "*@spam.example\n");  // names are compared exactly
    EXPECT_EQ(add("x@spam.example", nullptr, "From_whitelist", __wildcardmatch), nullptr);
}

// Many processes, one list and one range file: each child adds hosts as entries and ranges and
// removes each once the next is in, but every hundredth and the last: short files, known ends.
constexpr int kProcs = 8, kEntries = 1000;
bool kept(int i) { return i % 100 == 0 || i == kEntries - 1; }
std::string host(int p, int i) {  // 10.0.(4p + i/250).(i%250 + 1)
    return "10.0." + std::to_string(p * 4 + i / 250) + "." + std::to_string(i % 250 + 1);
}

void exit_on_error(int priority, const char*, ...) {
    if (priority == LOG_ERR) _exit(2);
}
[[noreturn]] void editor(const char* d, int p) {
    ow_set_log_function(exit_on_error);
    const std::string tag = "p" + std::to_string(p);
    for (int i = 0; i < kEntries; ++i) {
        const std::string h = host(p, i), prev = host(p, i - 1);
        if (ow_add_entry(d, "list", h.c_str(), nullptr, strcasecmp) ||
            !ipr_add_range_to_file(d, "r", h.c_str(), h.c_str(), tag.c_str(), nullptr))
            _exit(1);
        if (i > 0 && !kept(i - 1) &&
            (ow_del_entry(d, "list", prev.c_str(), false, strcasecmp) ||
             !ipr_del_range_from_file(d, "r", prev.c_str(), prev.c_str(), nullptr)))
            _exit(1);
    }
    _exit(0);
}

// What a reader without a lock may meet: whole lines of whole entries, and a range file whose
// count agrees with its size and whose records are whole.
std::string check_list(const std::string& text) {
    static const std::regex line(R"((10\.0\.[0-9]{1,2}\.[0-9]{1,3}\n)*)");
    return std::regex_match(text, line) ? "" : "torn list: " + text;
}
std::string check_ranges(const std::string& bytes) {
    uint32_t count = UINT32_MAX;
    if (bytes.size() >= 16) std::memcpy(&count, bytes.data() + 12, 4);
    if (bytes.size() != 16 + std::size_t{count} * 264)
        return "range count disagrees with size " + std::to_string(bytes.size());
    for (std::size_t at = 16; at < bytes.size(); at += 264) {
        ipr_range r{};
        std::memcpy(&r, bytes.data() + at, 8);
        if (!ax_valid_ip_range(&r) || bytes[at + 8] != 'p' || bytes[at + 10] != '\0')
            return "torn range record at " + std::to_string(at);
    }
    return "";
}

TEST_F(ListFileTest, ManyProcessesOneListOneRangeFile) {
    ::unsetenv("VERBOSEDEBUG");  // the children would keep every line in memory
    ow::testing::reset_debug_decision();
    spit(path("list"), "");
    ASSERT_TRUE(ipr_add_range_to_file(dir_.c_str(), "r", "10.9.0.1", "10.9.0.2", "p9", nullptr));
    for (int p = 0; p < kProcs; ++p) {
        const pid_t pid = fork();
        ASSERT_NE(pid, -1);
        if (pid == 0) editor(dir_.c_str(), p);
    }
    int reads = 0, status = 0;
    std::string problem;
    for (int done = 0; done < kProcs; ++reads) {
        if (problem.empty()) problem = check_list(list()) + check_ranges(slurp(path("r")));
        if (waitpid(-1, &status, WNOHANG) > 0) {
            EXPECT_EQ(status, 0) << "a child failed";
            ++done;
        }
    }
    EXPECT_EQ(problem, "");
    EXPECT_GT(reads, 1);

    std::multiset<std::string> expected;
    for (int p = 0; p < kProcs; ++p)
        for (int i = 0; i < kEntries; ++i)
            if (kept(i)) expected.insert(host(p, i));
    seen.clear();
    ASSERT_TRUE(ow_iterate_file(dir_.c_str(), "list", collect));
    EXPECT_EQ(std::multiset<std::string>(seen.begin(), seen.end()), expected);

    const std::string ranges = slurp(path("r"));
    ASSERT_EQ(check_ranges(ranges), "");
    EXPECT_EQ(ranges.size(), 16 + (expected.size() + 1) * 264);
    EXPECT_TRUE(file_contains_ip_range_match("r", "10.0.31.250", dir_.c_str()));  // p7's last
    EXPECT_FALSE(file_contains_ip_range_match("r", "10.0.28.2", dir_.c_str()));   // p7's 2nd
    for (const char* leftover : {"list.tmp", "r.new", "r.bak"})
        EXPECT_FALSE(fs::exists(path(leftover))) << leftover;
}

}  // namespace

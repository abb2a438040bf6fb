#include "ardvex-file.h"

#include <gtest/gtest.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "ardvex-iprange.h"
#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace fs = std::filesystem;

namespace {

const std::string inval = std::strerror(EINVAL);

class ListFileTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        // Lists live under tmpfs where there is one, as on the mail servers.
        dir_ = fs::is_directory("/dev/shm") ? "/dev/shm/ardvex_file.XXXXXX"
                                            : "/tmp/ardvex_file.XXXXXX";
        ASSERT_NE(mkdtemp(dir_.data()), nullptr);
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
    const char* add(const char* entry, const char* comment = nullptr,
                    const char* name = "list") const {
        return ow_add_entry(dir_.c_str(), name, entry, comment, strcasecmp);
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
        {"*@example.com", "BOB@EXAMPLE.COM", true},            // case never counts
        {"*@example.com", "bob@example.com.evil.org", false},  // anchored at the end
        {"*@example.com", "bob@exampleXcom", false},           // a dot is only a dot
        {"*@example.com", "bob@sub.example.com", false},
        {"bob*@example.com", "xbob@example.com", false},  // anchored at the start
        {"*@*.example.com", "a@mx.example.com", true},
        {"ab+c*", "abbbcd", true},  // other characters keep their regex meaning
        {"ab+c", "abbc", false},    // without '*' the pattern is compared as text
        {"Bob@Example.com", "bob@example.COM", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.pattern) + " ~ " + c.text);
        EXPECT_EQ(__wildcardmatch(c.pattern, c.text) == 0, c.match);
    }
    EXPECT_EQ(__wildcardmatch("a***b", "axxb"), 0);  // a run of stars is one: no backtracking
    EXPECT_TRUE(ow_test::has_debug("__regexmatch", "got a match [axxb] => [^a.*b$]"));
    EXPECT_NO_ERRORS();
    ow_test::refused("__wildcardmatch", inval,
                     {__wildcardmatch(nullptr, "a") != 0, __wildcardmatch("*", "") != 0});
    EXPECT_EQ(__regexmatch("(", "a"), 1);  // does not compile
}

TEST_F(ListFileTest, SearchSeesEntryLinesOnly) {
    put("list",
        "# bob@example.com\n\n   \t\n  spaced@example.com\ntrailing@example.com \n"
        "crlf@example.com\r\n\tcommented@example.com\n*@wild.example\n" +
            std::string(1022, 'a') + "tail@example.com\n" +
            std::string("nul@example.com\0hidden\n", 23) + "last@example.com");
    const struct {
        const char* entry;
        bool found;
    } cases[] = {
        {"bob@example.com", false},  // a comment line never matches
        {"spaced@example.com", true},
        {"trailing@example.com", false},  // blanks after an entry belong to it
        {"crlf@example.com", false},      // the search strips only the LF
        {"commented@example.com", true},
        {"x@WILD.example", true},
        {"tail@example.com", true},  // the rest of an over-long line counts as a line
        {"hidden", false},           // after a NUL
        {"nul@example.com", true},
        {"last@example.com", true},  // no LF at the end of the file
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.entry);
        EXPECT_EQ(__file_contains_line(dir_.c_str(), "list", c.entry, __wildcardmatch), c.found);
    }
    EXPECT_FALSE(__file_contains_line(dir_.c_str(), "missing", "a", strcasecmp));
    EXPECT_NO_ERRORS();  // a list that does not exist lists nothing
    ow_test::refused("__file_contains_line", inval,
                     {!__file_contains_line(dir_.c_str(), "", "a", strcasecmp),
                      !__file_contains_line(dir_.c_str(), "list", "a", nullptr)});
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
    ow_list* list = ow_file_to_list(dir_.c_str(), "list");
    EXPECT_EQ(ow_list_count(list), 4u);  // the CRs stay
    EXPECT_STREQ(static_cast<const char*>(ow_list_data_at(list, 0)), "a\r");
    ow_destroy_list(&list, std::free);
    EXPECT_NO_ERRORS();
}

TEST_F(ListFileTest, EditOutcomes) {
    put("list", "keep\r\nbob@example.com\n\told note\nlast");
    ASSERT_EQ(::chmod(path("list").c_str(), 0640), 0);
    const std::string c255(255, 'c');
    auto step = [&](const char* result, const std::string& after) {
        EXPECT_EQ(result, nullptr) << result;
        EXPECT_EQ(get("list"), after);
    };
    step(add("new@example.com"), "keep\nbob@example.com\n\told note\nlast\nnew@example.com\n");
    const std::string before = get("list");
    EXPECT_STREQ(add("NEW@example.com"), "Entry already exists");
    EXPECT_STREQ(add("nobody@example.com", "x"), "Entry not found");
    EXPECT_STREQ(add("x", std::string(256, 'c').c_str()), "Invalid comment to add");
    EXPECT_EQ(get("list"), before);
    // The matching line takes the caller's spelling; the old comment line goes.
    step(add("BOB@example.com", c255.c_str()),
         "keep\nBOB@example.com\n\t" + c255 + "\nlast\nnew@example.com\n");
    step(del("bob@example.com", true), "keep\nBOB@example.com\nlast\nnew@example.com\n");
    step(del("bob@example.com"), "keep\nlast\nnew@example.com\n");
    EXPECT_STREQ(del("bob@example.com"), "Entry not found");
    struct stat st {};
    ASSERT_EQ(::stat(path("list").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_FALSE(fs::exists(path("list.tmp")));
    EXPECT_NO_ERRORS();

    put("list", "a@x.org\n\tone\n*@x.org\nA@X.ORG\n\ttwo\n\tthree\n");
    step(del("a@x.org"), "*@x.org\n\tthree\n");  // every match, and only the line under it
    // With the wildcard comparison the list's own patterns catch the entry being edited.
    step(ow_add_entry(dir_.c_str(), "list", "b@x.org", "n", __wildcardmatch), "b@x.org\n\tn\n");

    EXPECT_EQ(ow_del_entry(dir_.c_str(), "missing", "x", false, strcasecmp), nullptr);
    EXPECT_FALSE(fs::exists(path("missing")));
    EXPECT_EQ(add("first", nullptr, "created"), nullptr);
    EXPECT_EQ(get("created"), "first\n");
    // A list linked in from elsewhere stays a link, and the file it names gets the entry.
    fs::create_symlink(path("created"), path("linked"));
    EXPECT_EQ(add("second", nullptr, "linked"), nullptr);
    EXPECT_TRUE(fs::is_symlink(path("linked")));
    EXPECT_EQ(get("created"), "first\nsecond\n");
    ow_test::refused("ow_add_entry", inval,
                     {add("") == std::string("Invalid arguments to add"),
                      ow_add_entry(dir_.c_str(), "list", "x", nullptr, nullptr) != nullptr});
    ow_test::refused("ow_del_entry", inval,
                     {ow_del_entry("", "list", "x", false, strcasecmp) ==
                      std::string("Invalid arguments to del")});
}

TEST_F(ListFileTest, OppositeLists) {
    put("from_blacklist", "*@spam.example\n");
    const char* d = dir_.c_str();
    const char* opposite = "Entry is present in the opposite table";
    EXPECT_STREQ(ow_add_entry(d, "from_whitelist", "x@spam.example", nullptr, __wildcardmatch),
                 opposite);
    EXPECT_FALSE(fs::exists(path("from_whitelist")));
    const char* pairs[][2] = {{"exempt_ips", "blocked_ips"},
                              {"blocked_ips", "exempt_ips"},
                              {"rl_whitelist.lst", "ra_whitelist.lst"},
                              {"ra_whitelist.lst", "rl_whitelist.lst"}};
    for (const auto& p : pairs) {
        SCOPED_TRACE(p[0]);
        ASSERT_EQ(add(p[0], nullptr, p[0]), nullptr);
        EXPECT_STREQ(add(p[0], nullptr, p[1]), opposite);
        ::unlink(path(p[0]).c_str());
    }
    // Names are compared exactly: a list of another name has no opposite.
    EXPECT_EQ(add("x@spam.example", nullptr, "From_whitelist"), nullptr);
}

// ---------------------------------------------------------------------------------------
// Many processes, one list and one range file.

int child_errors = 0;
void counting_sink(int priority, const char*, ...) { child_errors += priority == LOG_ERR; }

constexpr int kProcs = 8;
constexpr int kEntries = 1000;
// Each child removes every entry again once the next one is in, except every hundredth and
// the last: the files stay short and their end is known.
bool kept(int i) { return i % 100 == 0 || i == kEntries - 1; }
std::string entry_of(int p, int i) {
    return "p" + std::to_string(p) + "-" + std::to_string(i) + "@example.com";
}
// 10.p.(i/4).(i%4*64+1) to .+62: no two ranges overlap.
std::pair<std::string, std::string> range_of(int p, int i) {
    const std::string net = "10." + std::to_string(p) + "." + std::to_string(i / 4) + ".";
    return {net + std::to_string(i % 4 * 64 + 1), net + std::to_string(i % 4 * 64 + 63)};
}

[[noreturn]] void editor(const std::string& dir, int p) {
    ow_set_log_function(counting_sink);
    const char* d = dir.c_str();
    const std::string tag = "p" + std::to_string(p);
    int failures = 0;
    for (int i = 0; i < kEntries; ++i) {
        const auto [lo, hi] = range_of(p, i);
        failures += ow_add_entry(d, "list", entry_of(p, i).c_str(), nullptr, strcasecmp) != nullptr;
        failures += !ipr_add_range_to_file(d, "r", lo.c_str(), hi.c_str(), tag.c_str(), nullptr);
        if (i == 0 || kept(i - 1)) continue;
        const auto [plo, phi] = range_of(p, i - 1);
        failures +=
            ow_del_entry(d, "list", entry_of(p, i - 1).c_str(), false, strcasecmp) != nullptr;
        failures += !ipr_del_range_from_file(d, "r", plo.c_str(), phi.c_str(), nullptr);
    }
    _exit(failures == 0 && child_errors == 0 ? 0 : 1);
}

// What a reader without a lock may meet: whole lines of whole entries, and a range file whose
// count agrees with its size and whose records are whole.
std::string check_list(const std::string& text) {
    static const std::regex line(R"((p[0-7]-[0-9]{1,3}@example\.com\n)*)");
    return std::regex_match(text, line) ? "" : "torn list: " + text;
}
std::string check_ranges(const std::string& bytes) {
    uint32_t count = 0;
    if (bytes.size() >= 16) std::memcpy(&count, bytes.data() + 12, 4);
    if (bytes.size() < 16 || bytes.size() != 16 + std::size_t{count} * 264)
        return "range count disagrees with size " + std::to_string(bytes.size());
    for (uint32_t i = 0; i < count; ++i) {
        ipr_range r{};
        std::memcpy(&r, bytes.data() + 16 + i * 264, 8);
        const char* comment = bytes.data() + 16 + i * 264 + 8;
        if (!ax_valid_ip_range(&r) || comment[0] != 'p' || comment[2] != '\0')
            return "torn range record " + std::to_string(i);
    }
    return "";
}

TEST_F(ListFileTest, ManyProcessesOneListOneRangeFile) {
    ::unsetenv("VERBOSEDEBUG");  // the children would keep every line in memory
    ow::testing::reset_debug_decision();
    put("list", "");
    ASSERT_TRUE(ipr_convert_file(dir_.c_str(), "r"));  // nothing there yet
    ASSERT_TRUE(ipr_add_range_to_file(dir_.c_str(), "r", "10.9.0.1", "10.9.0.2", "p9", nullptr));
    std::vector<pid_t> kids;
    for (int p = 0; p < kProcs; ++p) {
        const pid_t pid = fork();
        ASSERT_NE(pid, -1);
        if (pid == 0) editor(dir_, p);
        kids.push_back(pid);
    }
    int reads = 0;
    std::string problem;
    for (std::size_t done = 0; done < kids.size(); ++reads) {
        for (const std::string& seen : {check_list(get("list")), check_ranges(get("r"))})
            if (!seen.empty()) problem = seen;
        for (auto& k : kids) {
            int status = 0;
            if (k > 0 && waitpid(k, &status, WNOHANG) == k) {
                EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
                k = -1;
                ++done;
            }
        }
    }
    EXPECT_EQ(problem, "");
    EXPECT_GT(reads, 1);

    std::multiset<std::string> expected, got;
    for (int p = 0; p < kProcs; ++p)
        for (int i = 0; i < kEntries; ++i)
            if (kept(i)) expected.insert(entry_of(p, i));
    seen().clear();
    ASSERT_TRUE(ow_iterate_file(dir_.c_str(), "list", collect));
    got.insert(seen().begin(), seen().end());
    EXPECT_EQ(got, expected);

    const std::string ranges = get("r");
    ASSERT_EQ(check_ranges(ranges), "");
    EXPECT_EQ(ranges.size(), 16 + (expected.size() + 1) * 264);
    EXPECT_TRUE(file_contains_ip_range_match("r", "10.7.249.200", dir_.c_str()));  // p7's last
    EXPECT_FALSE(file_contains_ip_range_match("r", "10.7.0.70", dir_.c_str()));    // p7's 2nd
    for (const char* leftover : {"list.tmp", "r.new", "r.bak"})
        EXPECT_FALSE(fs::exists(path(leftover))) << leftover;
}

}  // namespace

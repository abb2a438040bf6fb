// Tests of the heap-string operations: results, the in-place/replaceable contracts, the
// refusal and debug lines, and that a failed allocation leaves the caller's string alone.
#include "ow_stringutils.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

using StringUtilsTest = ow_test::LogCaptureTest;
using op_fn = std::function<bool(char**)>;
const std::string kEinval = std::strerror(EINVAL);
const std::string kEnomem = std::strerror(ENOMEM);

char* heap(const char* s) { return s == nullptr ? nullptr : strdup(s); }

int format_via_list(char** out, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int n = ow_vasprintf(out, format, args);
    va_end(args);
    return n;
}

TEST_F(StringUtilsTest, ReplaceableOperations) {
    struct Case {
        const char* start;  // nullptr: no string yet
        op_fn op;
        const char* expected;
        bool same_pointer;
    };
    const auto trim = [](char** s) { return ow_trim(s), true; };
    const auto chomp = [](char** s) { return ow_chomp(s), true; };
    const auto simplify = [](char** s) { return ow_simplify_whitespace(s); };
    const auto strip = [](char** s) { return ow_strip_whitespace(s), true; };
    const Case cases[] = {
        {nullptr, [](char** s) { return ow_strcat(s, "abc"); }, "abc", false},
        {"abc", [](char** s) { return ow_strcat(s, ""); }, "abc", false},
        {nullptr, [](char** s) { return ow_ccat(s, 'x'); }, "x", false},
        {"ab", [](char** s) { return ow_ccat(s, 'c'); }, "abc", false},
        {"n=", [](char** s) { return ow_icat(s, -42); }, "n=-42", false},
        {"old", [](char** s) { return ow_ltoa(s, 5); }, "5", false},
        {" a b\r\n", trim, "a b", false},
        {"   ", trim, "", false},
        {"", trim, "", true},
        {"abc\r\ndef", chomp, "abc", false},
        {"\rabc\n", chomp, "", false},
        {"abc", chomp, "abc", true},
        {"  a \t\t b\tc  ", simplify, "a b\tc", false},  // a lone tab stays a tab
        {"a\n\nb\v\fc d", simplify, "a b c d", false},
        {"   ", simplify, "", false},
        {"", simplify, "", true},
        {" a b ", strip, "ab", false},
        {"\xA0\t", strip, "\xA0", false},  // high bytes are not whitespace
        {"ab", strip, "ab", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "[" << (c.start ? c.start : "(null)") << "] -> [" << c.expected << "]");
        char* s = heap(c.start);
        char* before = s;
        EXPECT_TRUE(c.op(&s));
        EXPECT_STREQ(s, c.expected);
        if (c.same_pointer) {
            EXPECT_EQ(s, before);
        }
        std::free(s);
    }
    EXPECT_NO_ERRORS();
    EXPECT_TRUE(ow_test::has_debug("ow_strcat", "destination is NULL - new string"));
    EXPECT_TRUE(ow_test::has_debug("ow_ccat", "original string [ab] character to append [c]"));
    EXPECT_TRUE(ow_test::has_debug("ow_ccat", "character appended [abc] [c]"));
    EXPECT_TRUE(ow_test::has_debug("ow_trim", "trimmed is [a b]"));
    EXPECT_TRUE(ow_test::has_debug("ow_simplify_whitespace", "simplified is [a b?c]"));
    EXPECT_TRUE(ow_test::has_debug("ow_simplify_whitespace", "empty string: nothing to simplify"));
}

TEST_F(StringUtilsTest, StrcatOfAStringOntoItself) {
    char* s = heap("abcdefghijklmnopqrstuvwxyz");  // the source lies in the moving block
    ASSERT_TRUE(ow_strcat(&s, s + 20));
    ASSERT_TRUE(ow_strcat(&s, s));
    EXPECT_STREQ(s, "abcdefghijklmnopqrstuvwxyzuvwxyzabcdefghijklmnopqrstuvwxyzuvwxyz");
    std::free(s);
}

TEST_F(StringUtilsTest, LtoaSizesItsBufferExactly) {
    const struct {
        int64_t number;
        const char* text;
        int size;
    } cases[] = {{0, "0", 2},
                 {-7, "-7", 3},
                 {10, "10", 3},
                 {1234567890, "1234567890", 11},
                 {INT64_MAX, "9223372036854775807", 20},
                 {INT64_MIN, "-9223372036854775808", 21}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        clear_log();
        char* s = nullptr;
        ASSERT_TRUE(ow_ltoa(&s, c.number));
        EXPECT_STREQ(s, c.text);
        EXPECT_TRUE(
            ow_test::has_debug("ow_ltoa", "determined buffer size of " + std::to_string(c.size)));
        std::free(s);
    }
}

TEST_F(StringUtilsTest, RefusedArgumentsAreLoggedUnderTheOperation) {
    char* s = heap("keep");
    char* none = nullptr;
    const char* stop = nullptr;
    const std::pair<const char*, std::function<bool()>> cases[] = {
        {"ow_strcat", [&] { return ow_strcat(&s, nullptr); }},
        {"ow_ccat", [&] { return ow_ccat(&s, '\0'); }},
        {"ow_ltoa", [] { return ow_ltoa(nullptr, 1); }},
        {"ow_icat", [] { return ow_icat(nullptr, 1); }},
        {"ow_lower", [] { return ow_lower(nullptr), false; }},
        {"ow_upper", [] { return ow_upper(nullptr), false; }},
        {"ow_trim_left", [] { return ow_trim_left(nullptr), false; }},
        {"ow_trim_right", [] { return ow_trim_right(nullptr), false; }},
        {"ow_trim_ex", [&] { return ow_trim_ex(s, 0), false; }},
        {"ow_trim_ex", [&] { return ow_trim_ex(s, 4), false; }},
        {"ow_trim", [&] { return ow_trim(&none), false; }},
        {"ow_chomp", [] { return ow_chomp(nullptr), false; }},
        {"ow_simplify_whitespace", [&] { return ow_simplify_whitespace(&none); }},
        {"ow_strip_whitespace", [&] { return ow_strip_whitespace(&none), false; }},
        {"ow_str_replace_smaller", [&] { return ow_str_replace_smaller(s, "", ""); }},
        {"ow_str_replace_smaller", [&] { return ow_str_replace_smaller(s, "e", nullptr); }},
        {"ow_str_replace", [&] { return ow_str_replace(&s, "", "x"); }},
        {"ow_str_replace", [&] { return ow_str_replace(&none, "e", "x"); }},
        {"ow_asprintf", [] { return ow_asprintf(nullptr, "x") != -1; }},
        {"ow_strdup_till", [&] { return ow_strdup_till(s, &stop, '\0') != nullptr; }},
    };
    for (const auto& [func, call] : cases) {
        SCOPED_TRACE(func);
        clear_log();
        EXPECT_FALSE(call());
        EXPECT_ERROR_LINE(func, kEinval);
        EXPECT_EQ(ow_test::error_count(), 1u);
    }
    EXPECT_STREQ(s, "keep");
    EXPECT_EQ(stop, nullptr);
    std::free(s);
}

TEST_F(StringUtilsTest, InPlaceOperations) {
    const struct {
        const char* in;
        std::function<void(char*)> op;
        const char* out;
    } cases[] = {
        {"  a b  ", [](char* s) { ow_trim_ex(s, OW_TRIM_LEFT); }, "a b  "},
        {"  a b  ", [](char* s) { ow_trim_ex(s, OW_TRIM_RIGHT); }, "  a b"},
        {"  a b  ", [](char* s) { ow_trim_ex(s, OW_TRIM_BOTH); }, "a b"},
        {" \t\n\v\f\r", [](char* s) { ow_trim_ex(s, OW_TRIM_LEFT); }, ""},
        {" \t\n\v\f\r", [](char* s) { ow_trim_ex(s, OW_TRIM_BOTH); }, ""},
        {"\xA0x\xA0", [](char* s) { ow_trim_ex(s, OW_TRIM_BOTH); }, "\xA0x\xA0"},
        {"\t x \n", [](char* s) { ow_trim_right(s); }, "\t x"},
        {"\t x \n", [](char* s) { ow_trim_left(s); }, "x \n"},
        {"Mixed-09\xC4z@[`{", [](char* s) { ow_upper(s); }, "MIXED-09\xC4Z@[`{"},
        {"Mixed-09\xC4Z@[`{", [](char* s) { ow_lower(s); }, "mixed-09\xC4z@[`{"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.in);
        std::string buffer(c.in);
        c.op(buffer.data());
        EXPECT_STREQ(buffer.c_str(), c.out);
    }
    EXPECT_NO_ERRORS();
}

TEST_F(StringUtilsTest, ReplaceOnBothPaths) {
    const struct {
        const char *in, *pattern, *replacement, *out;
    } cases[] = {
        {"a b", " ", "%20", "a%20b"},
        {"abb", "ab", "a", "ab"},  // produced text is not searched again
        {"aaa", "aa", "a", "aa"},  // matches do not overlap
        {".a.", ".", "%2E", "%2Ea%2E"},
        {"xyz", "q", "QQ", "xyz"},
        {"ab", "abc", "", "ab"},
        {"abab", "ab", "", ""},
        {"AB\r\nCD\n", "\n", "", "AB\rCD"},
        {"", "a", "bb", ""},
        {"-=-=-=-=-=-=-=-=-=-=", "=", "<>", "-<>-<>-<>-<>-<>-<>-<>-<>-<>-<>"},
        {"same", "am", "am", "same"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "[" << c.in << "] " << c.pattern << " -> " << c.replacement);
        const bool in_place = std::strlen(c.replacement) <= std::strlen(c.pattern);
        char* s = heap(c.in);
        char* before = s;
        ASSERT_TRUE(ow_str_replace(&s, c.pattern, c.replacement));
        EXPECT_STREQ(s, c.out);
        if (in_place) {
            EXPECT_EQ(s, before);
            std::string buffer(c.in);
            EXPECT_TRUE(ow_str_replace_smaller(buffer.data(), c.pattern, c.replacement));
            EXPECT_STREQ(buffer.c_str(), c.out);
        }
        std::free(s);
    }
    EXPECT_NO_ERRORS();
}

TEST_F(StringUtilsTest, ReplaceAgreesWithAPlainReplaceAll) {
    // A two-letter alphabet gives many adjacent and overlapping candidate matches, where an
    // off-by-one in either path shows.
    std::mt19937 rng(12345);
    const char* const patterns[] = {"a", "ab", "aa", "aba", "bbb"};
    const char* const replacements[] = {"", "x", "xy", "xyzw", "ab"};
    ow_set_log_function(nullptr);  // thousands of debug lines are of no interest here
    for (int round = 0; round < 300; ++round) {
        std::string in(rng() % 40, 'a');
        for (char& ch : in) ch = (rng() % 2) != 0 ? 'a' : 'b';
        const std::string pattern = patterns[rng() % 5];
        const char* replacement = replacements[rng() % 5];
        std::string expected;
        std::size_t from = 0;
        for (std::size_t at; (at = in.find(pattern, from)) != std::string::npos;
             from = at + pattern.size()) {
            expected += in.substr(from, at - from) + replacement;
        }
        expected += in.substr(from);
        SCOPED_TRACE(in + " " + pattern + " -> " + replacement);
        char* s = heap(in.c_str());
        ASSERT_TRUE(ow_str_replace(&s, pattern.c_str(), replacement));
        EXPECT_EQ(std::string(s), expected);
        std::free(s);
    }
}

TEST_F(StringUtilsTest, ReplaceLines) {
    char* s = heap("a.b.c");
    ASSERT_TRUE(ow_str_replace(&s, ".", "%2E"));
    ASSERT_TRUE(ow_str_replace(&s, "%2E", "%2E"));
    ASSERT_TRUE(ow_str_replace(&s, "%2E", "."));
    EXPECT_STREQ(s, "a.b.c");
    const std::pair<const char*, const char*> expected[] = {
        {"ow_str_replace", "Detected 2 patterns to replace"},
        {"ow_str_replace", "search and replace patterns are the same: nothing to do [%2E]"},
        {"ow_str_replace", "calling ow_str_replace_smaller for improved performance"},
        {"ow_str_replace_smaller", "replacing [%2E] with [.] in [a%2Eb%2Ec]"},
        {"ow_str_replace_smaller", "pattern %2E not found - nothing to replace"},
    };
    for (const auto& [func, line] : expected) EXPECT_TRUE(ow_test::has_debug(func, line)) << line;

    EXPECT_FALSE(ow_str_replace_smaller(s, "b", "bb"));
    EXPECT_ERROR_LINE("ow_str_replace_smaller",
                      "Pattern [b] is shorter than it's replacement [bb]. Use ow_str_replace() "
                      "instead!");
    EXPECT_STREQ(s, "a.b.c");
    std::free(s);
}

TEST_F(StringUtilsTest, FailedAllocationLeavesTheStringAlone) {
    const struct {
        std::vector<std::string> reporters;  // operations that may report the ENOMEM
        op_fn op;
        const char* start;
    } cases[] = {
        // 20 matches: the position table grows twice.
        {{"ow_str_replace"},
         [](char** s) { return ow_str_replace(s, ".", "%2E"); },
         "x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x."},
        {{"ow_str_replace"}, [](char** s) { return ow_str_replace(s, "q", "%2E"); }, "x.x"},
        {{"ow_strcat"}, [](char** s) { return ow_strcat(s, "tail"); }, "head"},
        {{"ow_strcat"}, [](char** s) { return ow_strcat(s, "tail"); }, nullptr},
        {{"ow_ccat"}, [](char** s) { return ow_ccat(s, 'c'); }, "head"},
        {{"ow_ltoa", "ow_strcat"}, [](char** s) { return ow_icat(s, 55); }, "head"},
        {{"ow_strip_whitespace"}, [](char** s) { return ow_strip_whitespace(s), false; }, " a "},
        {{"ow_trim"}, [](char** s) { return ow_trim(s), false; }, "   "},
        {{"ow_trim"}, [](char** s) { return ow_simplify_whitespace(s); }, "\t\ta  b"},
    };
    for (const auto& c : cases) {
        // Fail each allocation of the call in turn until the call no longer needs one more.
        for (long n = 1;; ++n) {
            SCOPED_TRACE(testing::Message() << c.reporters.front() << " allocation " << n);
            clear_log();
            char* s = heap(c.start);
            const long before = ow::testing::allocation_count();
            ow::testing::fail_allocation(n);
            const bool ok = c.op(&s);
            ow::testing::fail_allocation(0);
            const bool failed = ow::testing::allocation_count() - before >= n;
            if (failed) {
                EXPECT_FALSE(ok);
                EXPECT_EQ(ow_test::error_count(), 1u) << ow_test::dump();
                bool reported = false;
                for (const auto& f : c.reporters) reported |= ow_test::has_error(f, kEnomem);
                EXPECT_TRUE(reported) << ow_test::dump();
                EXPECT_STREQ(s, c.start);
            }
            std::free(s);
            if (!failed) break;
        }
    }
}

TEST_F(StringUtilsTest, Formatting) {
    const struct {
        std::function<int(char**)> call;
        const char* expected;
    } cases[] = {
        {[](char** out) { return ow_asprintf(out, "%s-%d", "a", 42); }, "a-42"},
        {[](char** out) { return ow_asprintf(out, "%s", ""); }, ""},
        {[](char** out) { return format_via_list(out, "%s%s=%s", "", "K", "v"); }, "K=v"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        char* out = nullptr;
        EXPECT_EQ(c.call(&out), static_cast<int>(std::strlen(c.expected)));
        EXPECT_STREQ(out, c.expected);
        std::free(out);
    }
    EXPECT_NO_ERRORS();

    char* out = nullptr;
    // A wide character the C locale cannot encode makes the measuring pass fail.
    const wchar_t wide[] = {static_cast<wchar_t>(0x100), 0};
    EXPECT_EQ(ow_asprintf(&out, "%ls", wide), -1);
    EXPECT_ERROR_LINE("ow_asprintf", "Failed to determine the necessary buffer size");
    EXPECT_EQ(format_via_list(&out, "%ls", wide), -1);
    EXPECT_ERROR_LINE("ow_vasprintf", "Failed to determine the necessary buffer size");
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ow_asprintf(&out, "%d", 1), -1);
    EXPECT_ERROR_LINE("ow_asprintf", kEnomem);
    ow::testing::fail_allocation(1);
    EXPECT_EQ(format_via_list(&out, "%d", 1), -1);
    EXPECT_ERROR_LINE("ow_vasprintf", kEnomem);
    EXPECT_EQ(out, nullptr);
}

TEST_F(StringUtilsTest, StrdupTill) {
    const struct {
        const char* in;
        const char* copy;
        std::size_t stop;
    } cases[] = {{"key=value", "key", 3}, {"=v", "", 0}, {"k=a=b", "k", 1}, {"key", "key", 3}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.in);
        const char* stop = nullptr;
        char* copy = ow_strdup_till(c.in, &stop, '=');
        EXPECT_STREQ(copy, c.copy);
        EXPECT_EQ(stop, c.in + c.stop);
        std::free(copy);
    }
    const char* stop = nullptr;
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ow_strdup_till("a=b", &stop, '='), nullptr);
    EXPECT_ERROR_LINE("ow_strdup_till", kEnomem);
    EXPECT_EQ(stop, nullptr);
}

}  // namespace

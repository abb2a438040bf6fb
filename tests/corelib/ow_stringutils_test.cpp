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

op_fn in_place(void (*f)(char*)) {
    return [f](char** s) { return f(*s), true; };
}
op_fn trim_ex(uint32_t mode) {
    return [mode](char** s) { return ow_trim_ex(*s, mode), true; };
}
op_fn ltoa(int64_t n) {
    return [n](char** s) { return ow_ltoa(s, n); };
}
op_fn replace(const char* pattern, const char* replacement) {
    return [=](char** s) { return ow_str_replace(s, pattern, replacement); };
}

TEST_F(StringUtilsTest, Operations) {
    struct Case {
        const char* start;  // nullptr: no string yet
        op_fn op;
        const char* expected;
        bool same_pointer = false;
    };
    const auto trim = [](char** s) { return ow_trim(s), true; };
    const auto chomp = [](char** s) { return ow_chomp(s), true; };
    const auto simplify = [](char** s) { return ow_simplify_whitespace(s); };
    const auto strip = [](char** s) { return ow_strip_whitespace(s), true; };
    const Case cases[] = {
        {nullptr, [](char** s) { return ow_strcat(s, "abc"); }, "abc"},
        {"abc", [](char** s) { return ow_strcat(s, ""); }, "abc"},
        {nullptr, [](char** s) { return ow_ccat(s, 'x'); }, "x"},
        {"ab", [](char** s) { return ow_ccat(s, 'c'); }, "abc"},
        {"n=", [](char** s) { return ow_icat(s, -42); }, "n=-42"},
        {"old", ltoa(5), "5"},
        {nullptr, ltoa(0), "0"},
        {nullptr, ltoa(INT64_MAX), "9223372036854775807"},
        {nullptr, ltoa(INT64_MIN), "-9223372036854775808"},
        {" a b\r\n", trim, "a b"},
        {"   ", trim, ""},
        {"", trim, "", true},
        {"abc\r\ndef", chomp, "abc"},
        {"\rabc\n", chomp, ""},
        {"abc", chomp, "abc", true},
        {"  a \t\t b\tc  ", simplify, "a b\tc"},  // a lone tab stays a tab
        {"a\n\nb\v\fc d", simplify, "a b c d"},
        {"   ", simplify, ""},
        {"", simplify, "", true},
        {" a b ", strip, "ab"},
        {"\xA0\t", strip, "\xA0"},  // high bytes are not whitespace
        {"ab", strip, "ab", true},
        {"  a b  ", trim_ex(OW_TRIM_LEFT), "a b  ", true},
        {"  a b  ", trim_ex(OW_TRIM_RIGHT), "  a b", true},
        {"  a b  ", trim_ex(OW_TRIM_BOTH), "a b", true},
        {" \t\n\v\f\r", trim_ex(OW_TRIM_LEFT), "", true},
        {" \t\n\v\f\r", trim_ex(OW_TRIM_BOTH), "", true},
        {"\xA0x\xA0", trim_ex(OW_TRIM_BOTH), "\xA0x\xA0", true},
        {"\t x \n", in_place(ow_trim_right), "\t x", true},
        {"\t x \n", in_place(ow_trim_left), "x \n", true},
        {"Mixed-09\xC4z@[`{", in_place(ow_upper), "MIXED-09\xC4Z@[`{", true},
        {"Mixed-09\xC4Z@[`{", in_place(ow_lower), "mixed-09\xC4z@[`{", true},
        {"a b", replace(" ", "%20"), "a%20b"},
        {"abb", replace("ab", "a"), "ab", true},  // produced text is not searched again
        {"aaa", replace("aa", "a"), "aa", true},  // matches do not overlap
        {".a.", replace(".", "%2E"), "%2Ea%2E"},
        {"xyz", replace("q", "QQ"), "xyz"},
        {"ab", replace("abc", ""), "ab", true},
        {"abab", replace("ab", ""), "", true},
        {"AB\r\nCD\n", replace("\n", ""), "AB\rCD", true},
        {"", replace("a", "bb"), ""},
        {"-=-=-=-=-=-=-=-=-=-=", replace("=", "<>"), "-<>-<>-<>-<>-<>-<>-<>-<>-<>-<>"},
        {"same", replace("am", "am"), "same", true},
        {nullptr, [](char** s) { return ow_asprintf(s, "%s-%d", "a", 42) == 4; }, "a-42"},
        {nullptr, [](char** s) { return ow_asprintf(s, "%s", "") == 0; }, ""},
        {nullptr, [](char** s) { return format_via_list(s, "%s%s=%s", "", "K", "v") == 3; },
         "K=v"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "[" << (c.start ? c.start : "(null)") << "] -> [" << c.expected << "]");
        char* s = heap(c.start);
        char* before = s;
        EXPECT_TRUE(c.op(&s));
        EXPECT_STREQ(s, c.expected);
        EXPECT_TRUE(!c.same_pointer || s == before) << "the string moved";
        std::free(s);
    }
    EXPECT_NO_ERRORS();
}

TEST_F(StringUtilsTest, StrcatOfAStringOntoItself) {
    char* s = heap("abcdefghijklmnopqrstuvwxyz");  // the source lies in the moving block
    ASSERT_TRUE(ow_strcat(&s, s + 20));
    ASSERT_TRUE(ow_strcat(&s, s));
    EXPECT_STREQ(s, "abcdefghijklmnopqrstuvwxyzuvwxyzabcdefghijklmnopqrstuvwxyzuvwxyz");
    std::free(s);
}

TEST_F(StringUtilsTest, RefusalsAreLoggedUnderTheOperation) {
    char* s = heap("keep");
    char* none = nullptr;
    const char* stop = nullptr;
    // A wide character the C locale cannot encode makes the measuring pass fail.
    const wchar_t wide[] = {static_cast<wchar_t>(0x100), 0};
    const std::string unmeasurable = "Failed to determine the necessary buffer size";
    const struct {
        const char* func;
        std::function<bool()> call;
        std::string line = kEinval;
    } cases[] = {
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
        {"ow_str_replace_smaller", [&] { return ow_str_replace_smaller(s, "e", "ee"); },
         "Pattern [e] is shorter than it's replacement [ee]. Use ow_str_replace() instead!"},
        {"ow_str_replace", [&] { return ow_str_replace(&s, "", "x"); }},
        {"ow_str_replace", [&] { return ow_str_replace(&none, "e", "x"); }},
        {"ow_asprintf", [] { return ow_asprintf(nullptr, "x") != -1; }},
        {"ow_vasprintf", [] { return format_via_list(nullptr, "x") != -1; }},
        {"ow_asprintf", [&] { return ow_asprintf(&none, "%ls", wide) != -1; }, unmeasurable},
        {"ow_vasprintf", [&] { return format_via_list(&none, "%ls", wide) != -1; }, unmeasurable},
        {"ow_strdup_till", [&] { return ow_strdup_till(s, &stop, '\0') != nullptr; }}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.func);
        clear_log();
        EXPECT_FALSE(c.call());
        EXPECT_ERROR_LINE(c.func, c.line);
        EXPECT_EQ(ow_test::error_count(), 1u);
    }
    EXPECT_STREQ(s, "keep");
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(stop, nullptr);
    std::free(s);
}

TEST_F(StringUtilsTest, FailedAllocationLeavesTheStringAlone) {
    const struct {
        std::vector<std::string> reporters;  // operations that may report the ENOMEM
        op_fn op;
        const char* start;
    } cases[] = {
        // 20 matches: the position table grows twice.
        {{"ow_str_replace"}, replace(".", "%2E"), "x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x."},
        {{"ow_str_replace"}, replace("q", "%2E"), "x.x"},
        {{"ow_strcat"}, [](char** s) { return ow_strcat(s, "tail"); }, "head"},
        {{"ow_strcat"}, [](char** s) { return ow_strcat(s, "tail"); }, nullptr},
        {{"ow_ccat"}, [](char** s) { return ow_ccat(s, 'c'); }, "head"},
        {{"ow_ltoa", "ow_strcat"}, [](char** s) { return ow_icat(s, 55); }, "head"},
        {{"ow_strip_whitespace"}, [](char** s) { return ow_strip_whitespace(s), false; }, " a "},
        {{"ow_trim"}, [](char** s) { return ow_trim(s), false; }, "   "},
        {{"ow_trim"}, [](char** s) { return ow_simplify_whitespace(s); }, "\t\ta  b"},
        {{"ow_asprintf"}, [](char** s) { return ow_asprintf(s, "%d", 1) == 1; }, nullptr},
        {{"ow_vasprintf"}, [](char** s) { return format_via_list(s, "%d", 1) == 1; }, nullptr},
        // A failed copy must not move the caller's stop pointer either.
        {{"ow_strdup_till"},
         [](char** s) {
             const char* stop = nullptr;
             *s = ow_strdup_till("a=b", &stop, '=');
             return stop != nullptr;
         },
         nullptr}};
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
}

}  // namespace

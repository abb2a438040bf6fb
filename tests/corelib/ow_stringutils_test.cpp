// Tests of the heap-string operations: results, the in-place/replaceable contracts, the
// refusal lines, and that a failed allocation leaves the caller's string alone.
#include "ow_stringutils.h"

#include <gtest/gtest.h>

#include <cstdarg>
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
// A table entry acting on the string s; a void call is followed by the result to report,
// as in "ow_trim(s), true".
#define OP(...) op_fn([&]([[maybe_unused]] char** s) -> bool { return (__VA_ARGS__); })
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

TEST_F(StringUtilsTest, Operations) {
    const char* stop = nullptr;
    const char* const kv = "k=a=b";
    const struct {
        const char* start;  // nullptr: no string yet
        op_fn op;
        const char* expected;
        bool same_pointer = false;
    } cases[] = {
        {nullptr, OP(ow_strcat(s, "abc")), "abc"},
        // The source lies in the block that the reallocation may move.
        {"abcdefghijklmnopqrstuvwxyz", OP(ow_strcat(s, *s + 20) && ow_strcat(s, *s)),
         "abcdefghijklmnopqrstuvwxyzuvwxyzabcdefghijklmnopqrstuvwxyzuvwxyz"},
        {nullptr, OP(ow_ccat(s, 'x')), "x"},
        {"n=", OP(ow_icat(s, -42)), "n=-42"},
        {nullptr, OP(ow_ltoa(s, INT64_MIN)), "-9223372036854775808"},
        {" a b\r\n", OP(ow_trim(s), true), "a b"},
        {"", OP(ow_trim(s), true), "", true},
        {"abc\r\ndef", OP(ow_chomp(s), true), "abc"},
        {"  a \t\t b\tc  ", OP(ow_simplify_whitespace(s)), "a b\tc"},  // a lone tab stays
        {" x\xA0 z\t", OP(ow_strip_whitespace(s), true), "x\xA0z"},    // high bytes stay
        {"ab", OP(ow_strip_whitespace(s), true), "ab", true},
        {"  a b  ", OP(ow_trim_ex(*s, OW_TRIM_LEFT), true), "a b  ", true},
        {"  a b  ", OP(ow_trim_ex(*s, OW_TRIM_RIGHT), true), "  a b", true},
        {" \t\n\v\f\r\xA0x\xA0 \t\n\v\f\r", OP(ow_trim_ex(*s, OW_TRIM_BOTH), true), "\xA0x\xA0",
         true},
        {"Mixed-09\xC4z@[`{", OP(ow_upper(*s), true), "MIXED-09\xC4Z@[`{", true},
        {"Mixed-09\xC4Z@[`{", OP(ow_lower(*s), true), "mixed-09\xC4z@[`{", true},
        {"a b", OP(ow_str_replace(s, " ", "%20")), "a%20b"},
        {"abb", OP(ow_str_replace(s, "ab", "a")), "ab", true},  // output is not searched again
        {"aaa", OP(ow_str_replace(s, "aa", "a")), "aa", true},  // matches do not overlap
        {"abab", OP(ow_str_replace(s, "ab", "")), "", true},
        {"=-=-=-=-=-=-=-=-=-=", OP(ow_str_replace(s, "=", "<>")), "<>-<>-<>-<>-<>-<>-<>-<>-<>-<>"},
        {nullptr, OP(ow_asprintf(s, "%s-%d", "a", 42) == 4), "a-42"},
        {nullptr, OP(format_via_list(s, "%s%s=%s", "", "K", "v") == 3), "K=v"},
        {nullptr, OP((*s = ow_strdup_till(kv, &stop, '=')) && stop == kv + 1), "k"},
        {nullptr, OP((*s = ow_strdup_till(kv + 2, &stop, '+')) && stop == kv + 5), "a=b"}};
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

TEST_F(StringUtilsTest, RefusalsAreLoggedUnderTheOperation) {
    char* keep = heap("keep");
    char* none = nullptr;
    const char* stop = nullptr;
    // A wide character the C locale cannot encode makes the measuring pass fail.
    const wchar_t wide[] = {static_cast<wchar_t>(0x100), 0};
    const std::string unmeasurable = "Failed to determine the necessary buffer size";
    const struct {
        const char* func;
        op_fn call;  // gets &keep
        std::string line = kEinval;
    } cases[] = {
        {"ow_strcat", OP(ow_strcat(s, nullptr))},
        {"ow_ccat", OP(ow_ccat(s, '\0'))},
        {"ow_ltoa", OP(ow_ltoa(nullptr, 1))},
        {"ow_icat", OP(ow_icat(nullptr, 1))},
        {"ow_lower", OP(ow_lower(nullptr), false)},
        {"ow_upper", OP(ow_upper(nullptr), false)},
        {"ow_trim_left", OP(ow_trim_left(nullptr), false)},
        {"ow_trim_right", OP(ow_trim_right(nullptr), false)},
        {"ow_trim_ex", OP(ow_trim_ex(*s, 4), false)},
        {"ow_trim", OP(ow_trim(&none), false)},
        {"ow_chomp", OP(ow_chomp(nullptr), false)},
        {"ow_simplify_whitespace", OP(ow_simplify_whitespace(&none))},
        {"ow_strip_whitespace", OP(ow_strip_whitespace(&none), false)},
        {"ow_str_replace_smaller", OP(ow_str_replace_smaller(*s, "e", nullptr))},
        {"ow_str_replace_smaller", OP(ow_str_replace_smaller(*s, "e", "ee")),
         "Pattern [e] is shorter than it's replacement [ee]. Use ow_str_replace() instead!"},
        {"ow_str_replace", OP(ow_str_replace(&none, "e", "x"))},
        {"ow_asprintf", OP(ow_asprintf(nullptr, "x") != -1)},
        {"ow_vasprintf", OP(format_via_list(nullptr, "x") != -1)},
        {"ow_asprintf", OP(ow_asprintf(&none, "%ls", wide) != -1), unmeasurable},
        {"ow_vasprintf", OP(format_via_list(&none, "%ls", wide) != -1), unmeasurable},
        {"ow_strdup_till", OP(ow_strdup_till(*s, &stop, '\0') != nullptr)}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.func);
        clear_log();
        EXPECT_FALSE(c.call(&keep));
        EXPECT_ERROR_LINE(c.func, c.line);
        EXPECT_EQ(ow_test::error_count(), 1u);
    }
    EXPECT_STREQ(keep, "keep");
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(stop, nullptr);
    std::free(keep);
}

TEST_F(StringUtilsTest, FailedAllocationLeavesTheStringAlone) {
    const char* stop = nullptr;
    const struct {
        std::vector<std::string> reporters;  // operations that may report the ENOMEM
        op_fn op;
        const char* start;
    } cases[] = {
        // 20 matches: the position table grows twice.
        {{"ow_str_replace"},
         OP(ow_str_replace(s, ".", "%2E")),
         "x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x.x."},
        {{"ow_strcat"}, OP(ow_strcat(s, "tail")), "head"},
        {{"ow_ccat"}, OP(ow_ccat(s, 'c')), "head"},
        {{"ow_ltoa", "ow_strcat"}, OP(ow_icat(s, 55)), "head"},
        {{"ow_strip_whitespace"}, OP(ow_strip_whitespace(s), false), " a "},
        {{"ow_trim"}, OP(ow_simplify_whitespace(s)), "\t\ta  b"},
        {{"ow_asprintf"}, OP(ow_asprintf(s, "%d", 1) == 1), nullptr},
        // A failed copy must not move the caller's stop pointer either.
        {{"ow_strdup_till"}, OP(*s = ow_strdup_till("a=b", &stop, '='), stop != nullptr), nullptr}};
    for (const auto& c : cases) {
        // Fail each allocation of the call in turn until the call no longer needs one more.
        for (long n = 1;; ++n) {
            SCOPED_TRACE(testing::Message() << c.reporters.front() << " allocation " << n);
            clear_log();
            char* s = heap(c.start);
            stop = nullptr;
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

}  // namespace

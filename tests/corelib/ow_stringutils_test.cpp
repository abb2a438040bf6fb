// The heap-string operations; a failed allocation leaves the caller's string alone.
#include "ow_stringutils.h"

#include <cstdarg>
#include <functional>

#include "ow_internal.hpp"
#include "scratch.hpp"

namespace {

using StringUtilsTest = ow_test::LogCaptureTest;
using op_fn = std::function<bool(char**)>;
// A call on the string s; a void call's result is that it wrote no ERROR line.
#define OP(...) op_fn([&]([[maybe_unused]] char** s) -> bool { return (__VA_ARGS__); })
#define OP_VOID(...) OP((__VA_ARGS__), ow_test::error_count() == 0)
const std::string kEinval = std::strerror(EINVAL), kEnomem = std::strerror(ENOMEM);

char* heap(const char* s) { return s == nullptr ? nullptr : strdup(s); }

int format_via_list(char** out, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int n = ow_vasprintf(out, format, args);
    va_end(args);
    return n;
}

TEST_F(StringUtilsTest, OperationsAndTheirFailedAllocations) {
    const char* stop = nullptr;
    const char* const kv = "k=a=b";
    const struct {
        const char* start;  // nullptr: no string yet
        op_fn op;
        const char* expected;
        bool same_pointer = false;
        const char* kept = nullptr;  // left by a failed allocation when not the start
    } cases[] = {
        {nullptr, OP(ow_strcat(s, "abc")), "abc"},
        // The source lies in the block that the reallocation may move.
        {"abcdefghijklmnopqrstuvwxyz", OP(ow_strcat(s, *s + 20)),
         "abcdefghijklmnopqrstuvwxyzuvwxyz"},
        {"abc", OP(ow_strcat(s, *s)), "abcabc"},
        {nullptr, OP(ow_ccat(s, 'x')), "x"},
        {"hea", OP(ow_ccat(s, 'd')), "head"},
        {"n=", OP(ow_icat(s, -42)), "n=-42"},
        {nullptr, OP(ow_ltoa(s, INT64_MIN)), "-9223372036854775808"},
        {" a b\r\n", OP_VOID(ow_trim(s)), "a b", false, " a b"},  // the end is cut first
        {"", OP_VOID(ow_trim(s)), "", true},
        {"abc\r\ndef", OP_VOID(ow_chomp(s)), "abc"},
        // A lone tab stays.
        {"  a \t\t b\tc  ", OP(ow_simplify_whitespace(s)), "a b\tc", false, "  a \t\t b\tc"},
        {" x\xA0 z\t", OP_VOID(ow_strip_whitespace(s)), "x\xA0z"},  // high bytes stay
        {"ab", OP_VOID(ow_strip_whitespace(s)), "ab", true},
        {"  a b  ", OP_VOID(ow_trim_ex(*s, OW_TRIM_LEFT)), "a b  ", true},
        {"  a b  ", OP_VOID(ow_trim_ex(*s, OW_TRIM_RIGHT)), "  a b", true},
        {" \t\n\v\f\r\xA0x\xA0 \t\n\v\f\r", OP_VOID(ow_trim_ex(*s, OW_TRIM_BOTH)), "\xA0x\xA0",
         true},
        {"Mixed-09\xC4z@[`{", OP_VOID(ow_upper(*s)), "MIXED-09\xC4Z@[`{", true},
        {"Mixed-09\xC4Z@[`{", OP_VOID(ow_lower(*s)), "mixed-09\xC4z@[`{", true},
        {"a b", OP(ow_str_replace(s, " ", "%20")), "a%20b"},
        {"abb", OP(ow_str_replace(s, "ab", "a")), "ab", true},  // output is not searched again
        {"aaa", OP(ow_str_replace(s, "aa", "a")), "aa", true},  // matches do not overlap
        // Ten matches: the position table grows once.
        {"=-=-=-=-=-=-=-=-=-=", OP(ow_str_replace(s, "=", "<>")), "<>-<>-<>-<>-<>-<>-<>-<>-<>-<>"},
        {nullptr, OP(ow_asprintf(s, "%s-%d", "a", 42) == 4), "a-42"},
        {nullptr, OP(format_via_list(s, "%s%s=%s", "", "K", "v") == 3), "K=v"},
        {nullptr, OP(*s = ow_strdup_till(kv, &stop, '='), stop == kv + 1), "k"},
        {nullptr, OP(*s = ow_strdup_till(kv + 2, &stop, '+'), stop == kv + 5), "a=b"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "[" << (c.start ? c.start : "(null)") << "] -> [" << c.expected << "]");
        // Then each allocation fails in turn: the call gets along without it (the chomp's
        // shrink) or fails with one ENOMEM line, leaving the string and stop pointer alone.
        for (long n = 0, used = 0; n <= used; ++n) {
            SCOPED_TRACE(testing::Message() << "allocation " << n << " fails");
            clear_log();
            char* s = heap(c.start);
            char* const before = s;
            stop = nullptr;
            const long count = ow::testing::allocation_count();
            ow::testing::fail_allocation(n);
            const bool ok = c.op(&s);
            ow::testing::fail_allocation(0);
            if (n == 0) used = ow::testing::allocation_count() - count;
            if (ok) {
                EXPECT_STREQ(s, c.expected);
                EXPECT_TRUE(!c.same_pointer || s == before) << "the string moved";
                EXPECT_NO_ERRORS();
            } else {
                EXPECT_STREQ(s, c.kept != nullptr ? c.kept : c.start);
                EXPECT_TRUE(n != 0 && ow_test::error_count() == 1 &&
                            ow_test::dump().find("(): " + kEnomem + "\n") != std::string::npos)
                    << ow_test::dump();
            }
            std::free(s);
        }
    }
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
        {"ow_lower", OP_VOID(ow_lower(nullptr))},
        {"ow_upper", OP_VOID(ow_upper(nullptr))},
        {"ow_trim_left", OP_VOID(ow_trim_left(nullptr))},
        {"ow_trim_right", OP_VOID(ow_trim_right(nullptr))},
        {"ow_trim_ex", OP_VOID(ow_trim_ex(*s, 4))},
        {"ow_trim", OP_VOID(ow_trim(&none))},
        {"ow_chomp", OP_VOID(ow_chomp(nullptr))},
        {"ow_simplify_whitespace", OP(ow_simplify_whitespace(&none))},
        {"ow_strip_whitespace", OP_VOID(ow_strip_whitespace(&none))},
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
    EXPECT_TRUE(none == nullptr && stop == nullptr);
    std::free(keep);
}

}  // namespace

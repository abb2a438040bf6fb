// Tests of the regex compiler and matcher: anchoring by wrapping, case modes, classes,
// repetition bounds, alternation, every compiler error text, node validation and the limits
// that keep hostile input cheap.
#include "tiny_rex.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

using ow_test::LogCaptureTest;

class TinyRexTest : public LogCaptureTest {};

struct match_case {
    const char* pattern;
    uint8_t case_mode;
    const char* subject;
    bool expected;
};

constexpr const char* kDyna =
    "[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}";

void expect_matches(const std::vector<match_case>& cases) {
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("pattern [") + c.pattern + "] subject [" + c.subject + "] mode " +
                     std::to_string(c.case_mode));
        TRex* exp = trex_compile_ex(c.pattern, c.case_mode);
        ASSERT_NE(exp, nullptr) << ow_test::dump();
        EXPECT_EQ(trex_match(exp, c.subject), c.expected);
        trex_free(exp);
    }
    EXPECT_NO_ERRORS();
}

TEST_F(TinyRexTest, WrappingAnchorsAndCaseModes) {
    expect_matches({
        {"abc", 0, "xxABCyy", true},   {"abc", 1, "xxABCyy", false},
        {"abc", 1, "xxabcyy", true},   {"ABC", 0, "xxabcyy", true},
        {"abc", 0, "ab", false},       {"^abc", 0, "abcd", true},
        {"^abc", 0, "xabc", false},    {"abc$", 0, "xabc", true},
        {"abc$", 0, "abcx", false},    {"^abc$", 0, "abc", true},
        {"^abc$", 0, "abcabc", false}, {".*abc", 0, "zzabczz", true},
        {"a.c", 0, "xabcx", true},     {"a.c", 0, "ac", false},
        {"a", 0, "", false},           {"^$", 0, "", true},
        {"^$", 0, "x", false},         {"a\\.b", 0, "a.b", true},
        {"a\\.b", 0, "axb", false},    {"a\\tb", 0, "a\tb", true},
        {"a^b", 0, "xa^b", true},  // "^" inside a sequence is a literal
    });
}

TEST_F(TinyRexTest, ClassesRangesAndClassLetters) {
    expect_matches({
        {"[abc]", 0, "B", false},  // single characters of a class compare exactly
        {"[abc]", 0, "b", true},
        {"[a-c]", 0, "B", true},  // ranges follow the case mode
        {"[a-c]", 1, "B", false},
        {"[A-C]", 0, "b", true},
        {"^[^0-9]+$", 0, "abc", true},
        {"^[^0-9]+$", 0, "ab1", false},
        {"[-x]", 0, "-", true},
        {"^[a-z-9]$", 0, "-", true},
        {"^[\\d_]+$", 0, "12_3", true},
        {"^[\\d_]+$", 0, "12-3", false},
        {"[\\]]", 0, "a]", true},
        {"^\\d\\D\\s\\S\\w\\W$", 0, "1a b_.", true},
        {"^\\a\\A\\u\\l\\x\\X$", 0, "a1ZbFg", true},
        {"^\\p\\P\\c\\C$", 0, "!a\x01z", true},
        {"^\\u$", 0, "z", false},  // class letters ignore the case mode
        // A word block takes the character at the edge with it.
        {"\\bfoo", 0, "a foo", true},
        {"\\bfoo", 0, "foo bar", false},
        {"\\Bfoo", 0, "xxfoo", true},
        {"\\Bfoo", 0, "a foo", false},
        {"^[\\b]$", 0, "b", true},  // inside a class \b is the letter
    });
}

TEST_F(TinyRexTest, DynamicHostPatternOnRealisticNames) {
    const std::vector<std::pair<const char*, bool>> hosts = {
        {"host-10-1-2-3.net", true},
        {"host.net", false},
        {"dsl-187-12-34-56.dyn.example.net", true},
        {"81-64-2-7.rev.example.fr", true},
        {"c-98-207-11-4.hsd1.ca.example.com", true},
        {"ip10_1_2_3.pool.example.org", true},
        {"static.10.20.30.40.clients.example.de", true},
        {"ppp-2-3.example.com", false},
        {"mail.example.com", false},
        {"1234.5678.9.10", false},  // the middle field has four digits
        {"mx1.example-2.com", false},
        {"a1b2c3d4", false},
    };
    TRex* exp = trex_compile_ex(kDyna, 0);
    ASSERT_NE(exp, nullptr);
    for (const auto& [host, expected] : hosts) {
        SCOPED_TRACE(host);
        EXPECT_EQ(trex_match(exp, host), expected);
    }
    trex_free(exp);
    EXPECT_NO_ERRORS();
}

TEST_F(TinyRexTest, RepetitionBounds) {
    expect_matches({
        {"^a{3}$", 0, "aaa", true},
        {"^a{3}$", 0, "aa", false},
        {"^a{3}$", 0, "aaaa", false},
        {"^xa{0}y$", 0, "xy", true},
        {"^a{2,3}$", 0, "a", false},
        {"^a{2,3}$", 0, "aa", true},
        {"^a{2,3}$", 0, "aaa", true},
        {"^a{2,3}$", 0, "aaaa", false},
        {"^a{2,}$", 0, "aaaaaaa", true},
        {"^a{2,}$", 0, "a", false},
        {"^a{0,1}b$", 0, "b", true},
        {"^ab?c$", 0, "abc", true},
        {"^ab?c$", 0, "ac", true},
        {"^ab?c$", 0, "abbc", false},
        {"^ab*c$", 0, "ac", true},
        {"^ab*c$", 0, "abbbc", true},
        {"^ab+c$", 0, "ac", false},
        {"^ab+c$", 0, "abbc", true},
        {"^\\d+\\.\\d+$", 0, "10.25", true},
        {"^\\d+\\.\\d+$", 0, "10.", false},
        {"x(ab)+y", 0, "-xababy-", true},
        {"(xb*y)", 0, "axbbyz", true},  // a repetition in a group sees what follows it
        {"(a.*b)c", 0, "axxbc", true},
        {"^(a{1,3}b)+$", 0, "aabab", true},
    });
    // A minimum above the maximum compiles but is refused each time it is matched.
    TRex* exp = trex_compile_ex("a{2,1}", 0);
    ASSERT_NE(exp, nullptr);
    EXPECT_FALSE(trex_match(exp, "aa"));
    EXPECT_ERROR_LINE("__trex_node_is_valid", "greedy operator range 2 - 1 is invalid");
    EXPECT_ERROR_LINE("trex_match", std::strerror(EINVAL));
    trex_free(exp);
    // {65535} packs to the bit pattern of -1, the "unused" marker: it compiles and is refused.
    exp = trex_compile_ex("a{65535}", 0);
    ASSERT_NE(exp, nullptr);
    EXPECT_FALSE(trex_match(exp, "a"));
    EXPECT_ERROR_LINE("__trex_node_is_valid", "greedy operator must have value in 'right'");
    trex_free(exp);
}

TEST_F(TinyRexTest, AlternationAndTheWrapping) {
    // "abc|def" is compiled as ".*abc|def.*$": the prefix belongs to the first alternative
    // and the suffix to the last.
    expect_matches({
        {"abc|def", 0, "xxabc", true},
        {"abc|def", 0, "defxx", true},
        {"abc|def", 0, "xxabcxx", false},
        {"abc|def", 0, "xdefx", false},
        {"(abc|def)", 0, "xxdefxx", true},
        {"(abc|def)", 0, "xxabcxx", true},
        {"(abc|def)", 0, "xxabdefxx", true},
        {"^(a|b|c|d)$", 0, "c", true},
        {"^(a|b|c|d)$", 0, "e", false},
        {"^a|^b", 0, "bcd", true},
        {"^(mx|mx1)\\.", 0, "mx1.example", true},  // a later alternative after a failed rest
        {"\\.(dsl|cable|dyn)\\.", 0, "h.cable.example", true},
        {"\\.(dsl|cable|dyn)\\.", 0, "h.cablex.example", false},
    });
}

TEST_F(TinyRexTest, CompilerErrorTexts) {
    const std::string nested(TREX_MAX_NESTING + 1, '(');
    struct error_case {
        std::string pattern;
        std::vector<std::string> lines;
    };
    const std::vector<error_case> cases = {
        {"", {"Invalid argument: []"}},
        {"[]", {"empty class match segment", "failed to parse class"}},
        {"[^]", {"empty class match segment", "failed to parse class"}},
        {"[z-a]", {"invalid range [z-a].*$]", "failed to parse class"}},
        {"[a-]", {"unfinished range: ]", "failed to parse class"}},
        {"[a-\x01]", {"letter expected", "failed to parse class"}},
        {"[\x01]", {"non-printable character 1 found", "failed to parse class"}},
        {"[ab", {"failed to find expected character []]", "failed to parse class"}},
        {"(?:a)", {"failed to find expected character [:]"}},
        {"(ab", {"failed to find expected character [)]"}},
        {"(a[])",
         {"empty class match segment", "failed to parse class",
          "failed to parse through sub expression"}},
        {"a)", {"Unexpected character ) after processing"}},
        {"a**", {"Unexpected character * after processing"}},
        {"a{x}", {"number expected"}},
        {"a{65536}", {"number exceeds maximum value 65535"}},
        {"a{1,70000}", {"number 70000 exceeds maximum value 65535"}},
        {"a{99999999999}", {"overflow in numeric constant"}},
        {"a{1,2", {"expected character '}' not found"}},
        {"a{1,x}", {"expected character '}' not found"}},
        {"a{1x}", {", or } expected"}},
        {"a\x01", {"non-printable character 1 found"}},
        {"a\\\x01", {"non-printable character 1 found"}},  // escaped: still no node can hold it
        {"a\xc3\xa9", {"non-printable character 195 found"}},
        {nested + "a", {"groups nested deeper than 50"}},
        {"^*a", {}},  // a repetition with nothing to repeat has no line of its own
        {"a??", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("pattern [" + c.pattern + "]");
        clear_log();
        EXPECT_EQ(trex_compile_ex(c.pattern.c_str(), 0), nullptr);
        for (const auto& line : c.lines) EXPECT_ERROR_LINE("trex_compile_ex", line);
        if (c.lines.empty()) {
            EXPECT_NO_ERRORS();
        }
    }
    clear_log();
    EXPECT_EQ(trex_compile_ex(nullptr, 0), nullptr);
    EXPECT_ERROR_LINE("trex_compile_ex", "Invalid argument: [NULL]");

    // "*a" is ".**a" once wrapped: a repetition of the ".*" run, which is legal.
    TRex* exp = trex_compile_ex("*a", 0);
    EXPECT_NE(exp, nullptr);
    trex_free(exp);
    exp = trex_compile_ex(
        std::string(TREX_MAX_NESTING, '(').append("a").append(TREX_MAX_NESTING, ')').c_str(), 0);
    ASSERT_NE(exp, nullptr);
    EXPECT_TRUE(trex_match(exp, "xax"));
    trex_free(exp);
}

TEST_F(TinyRexTest, EveryAllocationFailureIsReportedAndReleased) {
    // "^a$" needs one node more than its text has characters, so the array must grow once:
    // allocations are the record, the text, the array and the growth.
    long before = ow::testing::allocation_count();
    TRex* exp = trex_compile_ex("^a$", 0);
    ASSERT_NE(exp, nullptr);
    const long needed = ow::testing::allocation_count() - before;
    EXPECT_EQ(needed, 4);
    trex_free(exp);
    for (long n = 1; n <= needed; ++n) {
        SCOPED_TRACE(n);
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_EQ(trex_compile_ex("^a$", 0), nullptr);
        EXPECT_ERROR_LINE("trex_compile_ex", std::strerror(ENOMEM));
    }
    EXPECT_ERROR_LINE("trex_compile_ex", "failed to create EOL node");
    ow::testing::fail_allocation(1);
    EXPECT_EQ(trex_escape("a.b"), nullptr);
    EXPECT_ERROR_LINE("trex_escape", std::strerror(ENOMEM));
}

// Builds a pattern record around hand-made nodes, as a damaged file would deliver them.
TRex* make_pattern(const std::vector<TRexNode>& nodes) {
    auto* exp = static_cast<TRex*>(std::calloc(1, sizeof(TRex)));
    exp->nodes = static_cast<TRexNode*>(std::malloc(nodes.size() * sizeof(TRexNode) + 1));
    if (!nodes.empty()) std::memcpy(exp->nodes, nodes.data(), nodes.size() * sizeof(TRexNode));
    exp->nallocated = static_cast<int32_t>(nodes.size());
    exp->nsize = exp->nallocated;
    return exp;
}

TEST_F(TinyRexTest, CorruptNodesAreRefusedBeforeUse) {
    struct corrupt_case {
        const char* what;
        std::vector<TRexNode> nodes;
        const char* line;  // nullptr: refused without a line of its own
    };
    constexpr int32_t kBadBounds = 5 | (7 << 16);
    const std::vector<corrupt_case> cases = {
        {"empty", {}, "node is NULL"},
        {"left", {{OP_EXPRESSION, 9, 0, -1}}, "corrupt regex: node->left is out of range 9 > 1"},
        {"right", {{OP_OR, 0, 4, -1}}, "corrupt regex: node->right is out of range 4 > 1"},
        {"next",
         {{OP_EXPRESSION, 1, 0, -1}, {'a', -1, -1, 2}},
         "corrupt regex: node->next is out of range 2 > 2"},
        {"greedy right",
         {{OP_EXPRESSION, 1, 0, -1}, {OP_GREEDY, 0, -1, -1}},
         "greedy operator must have value in 'right'"},
        {"greedy left",
         {{OP_EXPRESSION, 1, 0, -1}, {OP_GREEDY, -1, 1, -1}},
         "greedy operator must have value in 'left'"},
        {"greedy range",
         {{OP_EXPRESSION, 1, 0, -1}, {OP_GREEDY, 0, kBadBounds, -1}},
         "greedy operator range 7 - 5 is invalid"},
        {"or left",
         {{OP_EXPRESSION, 1, 0, -1}, {OP_OR, -1, 0, -1}},
         "OR operator must have value in 'left'"},
        {"or right",
         {{OP_EXPRESSION, 1, 0, -1}, {OP_OR, 0, -1, -1}},
         "OR operator must have value in 'right'"},
        {"expression",
         {{OP_EXPRESSION_ALT, -1, 0, -1}},
         "expr () operator must have value in 'left'"},
        {"class",
         {{OP_EXPRESSION, 1, 0, -1}, {OP_CLASS, -1, -1, -1}},
         "class operator must have value in 'left'"},
        {"range left",
         {{OP_EXPRESSION, 1, 0, -1}, {OP_CLASS, 2, -1, -1}, {OP_RANGE, -1, 'z', -1}},
         "range operator must have value in 'left'"},
        {"range right",
         {{OP_EXPRESSION, 1, 0, -1}, {OP_CLASS, 2, -1, -1}, {OP_RANGE, 'a', -1, -1}},
         "range operator must have value in 'right'"},
        {"unused type", {{OP_EXPRESSION, 1, 0, -1}, {OP_UNUSED, -1, -1, -1}}, nullptr},
        {"control code", {{OP_EXPRESSION, 1, 0, -1}, {7, -1, -1, -1}}, nullptr},
        {"high code", {{OP_EXPRESSION, 1, 0, -1}, {200, -1, -1, -1}}, nullptr},
        {"negative type", {{OP_EXPRESSION, 1, 0, -1}, {-3, -1, -1, -1}}, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        clear_log();
        TRex* exp = make_pattern(c.nodes);
        EXPECT_FALSE(trex_match(exp, "abc"));
        if (c.line != nullptr) {
            EXPECT_ERROR_LINE("__trex_node_is_valid", c.line);
        }
        EXPECT_ERROR_LINE("trex_match", std::strerror(EINVAL));
        EXPECT_EQ(ow_test::error_count(), c.line != nullptr ? 2u : 1u) << ow_test::dump();
        trex_free(exp);
    }
    clear_log();
    EXPECT_FALSE(trex_match(nullptr, "x"));
    EXPECT_ERROR_LINE("trex_match", std::strerror(EINVAL));
    trex_free(nullptr);

    // The control codes the escapes produce are valid in stored nodes as well.
    TRex* tab = make_pattern({{OP_EXPRESSION, 1, 0, -1},
                              {OP_ANY_RUN, -1, -1, 2},
                              {9, -1, -1, 3},
                              {OP_ANY_RUN, -1, -1, 4},
                              {OP_EOL, -1, -1, -1}});
    clear_log();
    EXPECT_TRUE(trex_match(tab, "a\tb"));
    EXPECT_FALSE(trex_match(tab, "a b"));
    EXPECT_NO_ERRORS();
    trex_free(tab);
}

TEST_F(TinyRexTest, HostileInputEndsQuicklyWithALine) {
    struct limit_case {
        const char* what;
        TRex* exp;
        std::string subject;
        const char* line;
    };
    // A cycle through an expression's own operand, a sequence that loops back on itself, and
    // a pattern whose repetitions backtrack exponentially.
    const std::vector<limit_case> cases = {
        {"recursion", make_pattern({{OP_EXPRESSION, 0, 0, -1}}), "abc",
         "match abandoned at recursion depth 1000"},
        {"cycle", make_pattern({{OP_EXPRESSION, 1, 0, -1}, {OP_BOL, -1, -1, 1}}), "abc",
         "match abandoned after 1000000 steps"},
        {"backtracking", trex_compile_ex("a*a*a*a*a*a*a*a*a*a*a*a*a*a*b", 0), std::string(64, 'a'),
         "match abandoned after 1000000 steps"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_NE(c.exp, nullptr);
        clear_log();
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(trex_match(c.exp, c.subject.c_str()));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
        EXPECT_ERROR_LINE("trex_match", c.line);
        EXPECT_EQ(ow_test::error_count(), 1u) << ow_test::dump();
        trex_free(c.exp);
    }

    // Found by fuzzing: repetitions of wide classes that backtrack a long time; both inputs
    // (and the pattern as its own subject) must give up within the budget.
    const std::string slow =
        "[" + std::string(119, '6') + "^\\s]+[0-9]+[0-9]*\\a-z]+[0-9]*\\.po\\w+\\s?\\bx\\B";
    TRex* found = trex_compile_ex(slow.c_str(), 0);
    ASSERT_NE(found, nullptr);
    for (const std::string& subject : {std::string("d q word dd;ddHddddc"), slow}) {
        const auto start = std::chrono::steady_clock::now();
        trex_match(found, subject.c_str());
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    }
    trex_free(found);

    // A class whose member list loops back on itself is walked once per character.
    TRex* cycle = make_pattern({{OP_EXPRESSION, 1, 0, -1},
                                {OP_ANY_RUN, -1, -1, 2},
                                {OP_CLASS, 3, -1, -1},
                                {'a', -1, -1, 3}});
    clear_log();
    EXPECT_FALSE(trex_match(cycle, std::string(10000, 'b').c_str()));
    EXPECT_TRUE(trex_match(cycle, "bba"));
    EXPECT_NO_ERRORS();
    trex_free(cycle);

    // Many alternatives and a long sequence cost no stack in the compiler or the matcher.
    std::string alternatives = "^(x0";
    for (int i = 1; i < 20000; ++i) alternatives += "|x" + std::to_string(i);
    alternatives += ")$";
    const std::string literal(200000, 'q');
    for (const std::string& pattern : {alternatives, literal}) {
        clear_log();
        TRex* exp = trex_compile_ex(pattern.c_str(), 0);
        ASSERT_NE(exp, nullptr);
        EXPECT_TRUE(trex_match(exp, pattern == literal ? literal.c_str() : "x19999"));
        EXPECT_NO_ERRORS();
        trex_free(exp);
    }
}

TEST_F(TinyRexTest, Escape) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"a.b*c", "a\\.b\\*c"},
        {"$()*+.?[\\]^{|}", "\\$\\(\\)\\*\\+\\.\\?\\[\\\\\\]\\^\\{\\|\\}"},
        {"plain-host_1", "plain-host_1"},
    };
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        ow::unique_cstr escaped(trex_escape(text));
        ASSERT_NE(escaped, nullptr);
        EXPECT_STREQ(escaped.get(), expected);
        // The escaped text finds the original literally, and only it.
        TRex* exp = trex_compile_ex(escaped.get(), 1);
        ASSERT_NE(exp, nullptr);
        EXPECT_TRUE(trex_match(exp, (std::string("<") + text + ">").c_str()));
        trex_free(exp);
    }
    EXPECT_NO_ERRORS();
    EXPECT_EQ(trex_escape(""), nullptr);
    EXPECT_EQ(trex_escape(nullptr), nullptr);
    EXPECT_ERROR_LINE("trex_escape", std::strerror(EINVAL));
}

}  // namespace

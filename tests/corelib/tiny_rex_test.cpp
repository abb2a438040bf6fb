// The regex compiler and matcher, and the limits that keep hostile input cheap.
#include "tiny_rex.h"

#include <tuple>

#include "ow_internal.hpp"
#include "scratch.hpp"

namespace {

using TinyRexTest = ow_test::LogCaptureTest;
const std::string kNested(TREX_MAX_NESTING, '(');
constexpr TRexNode kRoot = {OP_EXPRESSION, 1, 0, -1};

// Builds a pattern record around hand-made nodes, as a damaged file would deliver them.
TRex* nodes(const std::vector<TRexNode>& nodes) {
    auto* exp = static_cast<TRex*>(std::calloc(1, sizeof(TRex)));
    exp->nodes = static_cast<TRexNode*>(std::malloc(nodes.size() * sizeof(TRexNode) + 1));
    if (!nodes.empty()) std::memcpy(exp->nodes, nodes.data(), nodes.size() * sizeof(TRexNode));
    exp->nallocated = static_cast<int32_t>(nodes.size());
    exp->nsize = exp->nallocated;
    return exp;
}

TEST_F(TinyRexTest, Matches) {
    // Many alternatives and a long sequence cost no stack in the compiler or the matcher.
    std::string alternatives = "^(x0";
    for (int i = 1; i < 20000; ++i) alternatives += "|x" + std::to_string(i);
    const std::string literal(200000, 'q');
    using subjects = std::vector<const char*>;
    const std::tuple<std::string, uint8_t, subjects, subjects> cases[] = {
        {"abc", 0, {"xxABCyy"}, {"ab"}},
        {"abc", 1, {"xxabcyy"}, {"xxABCyy"}},
        {"^abc", 0, {"abcd"}, {"xabc"}},
        {"abc$", 0, {"xabc"}, {"abcx"}},
        {".*abc", 0, {"zzabczz"}, {}},
        {"*a", 0, {}, {}},  // ".**a" once wrapped: a legal repetition of the ".*" run
        {"a.c", 0, {"xabcx"}, {"ac"}},
        {"^$", 0, {""}, {"x"}},
        {"a\\.b", 0, {"a.b"}, {"axb"}},
        {"a\\tb", 0, {"a\tb"}, {}},
        {"a^b", 0, {"xa^b"}, {}},  // "^" inside a sequence is a literal
        {kNested + "a" + std::string(TREX_MAX_NESTING, ')'), 0, {"xax"}, {}},
        {alternatives + ")$", 0, {"x19999"}, {}},
        {literal, 0, {literal.c_str()}, {}},
        // Classes: single characters compare exactly, ranges follow the case mode and class
        // letters ignore it.
        {"[abc]", 0, {"b"}, {"B"}},
        {"[a-c]", 0, {"B"}, {}},
        {"[a-c]", 1, {}, {"B"}},
        {"[A-C]", 0, {"b"}, {}},
        {"^[^0-9]+$", 0, {"abc"}, {"ab1"}},
        {"[-x]", 0, {"-"}, {}},
        {"^[a-z-9]$", 0, {"-"}, {}},
        {"^[\\d_]+$", 0, {"12_3"}, {"12-3"}},
        {"[\\]]", 0, {"a]"}, {}},
        {"^\\d\\D\\s\\S\\w\\W$", 0, {"1a b_."}, {}},
        {"^\\a\\A\\u\\l\\x\\X$", 0, {"a1ZbFg"}, {"a1zbFg"}},
        {"^\\p\\P\\c\\C$", 0, {"!a\x01z"}, {}},
        {"\\bfoo", 0, {"a foo"}, {"foo bar"}},  // a word block takes the edge character with it
        {"\\Bfoo", 0, {"xxfoo"}, {"a foo"}},
        {"^[\\b]$", 0, {"b"}, {}},  // inside a class \b is the letter
        {"^a{3}$", 0, {"aaa"}, {"aa", "aaaa"}},
        {"^xa{0}y$", 0, {"xy"}, {}},
        {"^a{2,3}$", 0, {"aa", "aaa"}, {"a", "aaaa"}},
        {"^a{2,}$", 0, {"aaaaaaa"}, {"a"}},
        {"^ab?c$", 0, {"abc", "ac"}, {"abbc"}},
        {"^ab*c$", 0, {"ac", "abbbc"}, {}},
        {"^ab+c$", 0, {"abbc"}, {"ac"}},
        {"(xb*y)", 0, {"axbbyz"}, {}},  // a repetition in a group sees what follows it
        {"(a.*b)c", 0, {"axxbc"}, {}},
        {"^(a{1,3}b)+$", 0, {"aabab"}, {}},
        // "abc|def" is compiled as ".*abc|def.*$": the prefix belongs to the first alternative
        // and the suffix to the last.
        {"abc|def", 0, {"xxabc", "defxx"}, {"xxabcxx", "xdefx"}},
        {"(abc|def)", 0, {"xxdefxx", "xxabcxx", "xxabdefxx"}, {}},
        {"^a|^b", 0, {"bcd"}, {}},
        {"^(mx|mx1)\\.", 0, {"mx1.example"}, {}},  // a later alternative after a failed rest
        {"\\.(dsl|cable|dyn)\\.", 0, {"h.cable.example"}, {"h.cablex.example"}},
        // What a matching subject must begin with, end with or contain, in both case modes.
        {"^(dsl|cable)\\d", 0, {"Cable7.x", "DSL1"}, {"xcable1", "", "dsl"}},
        {"^[^a-c]x", 0, {"dx"}, {"Bx", "x"}},
        {"\\.netco\\.net$", 0, {"a.NETCO.Net"}, {"a.netco.net.x", "netco.net"}},
        {"\\.netco\\.net$", 1, {"a.netco.net"}, {"a.NETCO.net"}},
        {"netco-\\d+\\.", 0, {"x.NetCo-12.y"}, {"netco.12.", "netc"}},
        {"^a?b+(x|\\d)y$", 0, {"abbxy", "b5y"}, {"abby", "ab5"}},
        {"[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}",
         0,
         {"host-10-1-2-3.net", "dsl-187-12-34-56.dyn.example.net", "81-64-2-7.rev.example.fr",
          "c-98-207-11-4.hsd1.ca.example.com", "ip10_1_2_3.pool.example.org",
          "static.10.20.30.40.clients.example.de"},
         {"host.net", "ppp-2-3.example.com", "mail.example.com", "1234.5678.9.10",
          "mx1.example-2.com", "a1b2c3d4"}},
    };
    for (const auto& [pattern, case_mode, hits, misses] : cases) {
        SCOPED_TRACE("pattern [" + pattern + "] mode " + std::to_string(case_mode));
        TRex* exp = trex_compile_ex(pattern.c_str(), case_mode);
        ASSERT_NE(exp, nullptr) << ow_test::dump();
        // Without its prepared facts the record checks every node as it goes; both agree.
        TRex plain = *exp;
        plain.cursor = nullptr;
        for (TRex* e : {exp, &plain}) {
            for (const char* s : hits) EXPECT_TRUE(trex_match(e, s)) << s;
            for (const char* s : misses) EXPECT_FALSE(trex_match(e, s)) << s;
        }
        trex_free(exp);
    }
    EXPECT_NO_ERRORS();
}

TEST_F(TinyRexTest, CompilerErrorTexts) {
    const std::string cls = "failed to parse class";
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"", {"Invalid argument: []"}},
        {"[]", {"empty class match segment", cls}},
        {"[z-a]", {"invalid range [z-a].*$]", cls}},
        {"[a-]", {"unfinished range: ]", cls}},
        {"[a-\x01]", {"letter expected", cls}},
        {"[ab", {"failed to find expected character []]", cls}},
        {"(?:a)", {"failed to find expected character [:]"}},
        {"(ab", {"failed to find expected character [)]"}},
        {"(a[])", {"empty class match segment", cls, "failed to parse through sub expression"}},
        {"a)", {"Unexpected character ) after processing"}},
        {"a{x}", {"number expected"}},
        {"a{65536}", {"number exceeds maximum value 65535"}},
        {"a{1,70000}", {"number 70000 exceeds maximum value 65535"}},
        {"a{99999999999}", {"overflow in numeric constant"}},
        {"a{1,2", {"expected character '}' not found"}},
        {"a{1x}", {", or } expected"}},
        {"a\x01", {"non-printable character 1 found"}},
        {"a\\\x01", {"non-printable character 1 found"}},  // escaped: still no node can hold it
        {"a\xc3\xa9", {"non-printable character 195 found"}},
        {kNested + "(a", {"groups nested deeper than 50"}},
        {"^*a", {}},  // a repetition with nothing to repeat has no line of its own
        {"a??", {}},
    };
    for (const auto& [pattern, lines] : cases) {
        SCOPED_TRACE("pattern [" + pattern + "]");
        clear_log();
        EXPECT_EQ(trex_compile_ex(pattern.c_str(), 0), nullptr);
        for (const auto& line : lines) EXPECT_ERROR_LINE("trex_compile_ex", line);
        EXPECT_EQ(ow_test::error_count() == 0, lines.empty()) << ow_test::dump();
    }
    clear_log();
    ow_test::refused("trex_compile_ex", "Invalid argument: [NULL]", {!trex_compile_ex(nullptr, 0)});
}

TEST_F(TinyRexTest, EveryAllocationFailureIsReportedAndReleased) {
    // The record, the text, the node array, its growth ("^a$" needs one node more than it
    // has characters) and the room for the matcher's facts.
    const long before = ow::testing::allocation_count();
    trex_free(trex_compile_ex("^a$", 0));
    EXPECT_EQ(ow::testing::allocation_count() - before, 5);
    for (long n = 1; n <= 5; ++n) {
        SCOPED_TRACE(n);
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_EQ(trex_compile_ex("^a$", 0), nullptr);
        EXPECT_ERROR_LINE("trex_compile_ex", std::strerror(ENOMEM));
        EXPECT_TRUE(n != 4 || ow_test::has_error("trex_compile_ex", "failed to create EOL node"));
    }
}

TEST_F(TinyRexTest, CorruptNodesAreRefusedBeforeUse) {
    constexpr int32_t kBadBounds = 5 | (7 << 16);
    // Each record and the line refusing it; nullptr: refused without a line of its own.
    const std::vector<std::pair<TRex*, const char*>> cases = {
        // A minimum above the maximum compiles but is refused each time it is matched, and
        // {65535} packs to the bit pattern of -1, the "unused" marker.
        {trex_compile_ex("a{2,1}", 0), "greedy operator range 2 - 1 is invalid"},
        {trex_compile_ex("a{65535}", 0), "greedy operator must have value in 'right'"},
        {nodes({}), "node is NULL"},
        {nodes({{OP_EXPRESSION, 9, 0, -1}}), "corrupt regex: node->left is out of range 9 > 1"},
        {nodes({{OP_OR, 0, 4, -1}}), "corrupt regex: node->right is out of range 4 > 1"},
        {nodes({kRoot, {'a', -1, -1, 2}}), "corrupt regex: node->next is out of range 2 > 2"},
        {nodes({kRoot, {OP_GREEDY, 0, -1, -1}}), "greedy operator must have value in 'right'"},
        {nodes({kRoot, {OP_GREEDY, -1, 1, -1}}), "greedy operator must have value in 'left'"},
        {nodes({kRoot, {OP_GREEDY, 0, kBadBounds, -1}}), "greedy operator range 7 - 5 is invalid"},
        {nodes({kRoot, {OP_OR, -1, 0, -1}}), "OR operator must have value in 'left'"},
        {nodes({kRoot, {OP_OR, 0, -1, -1}}), "OR operator must have value in 'right'"},
        {nodes({{OP_EXPRESSION_ALT, -1, 0, -1}}), "expr () operator must have value in 'left'"},
        {nodes({kRoot, {OP_CLASS, -1, -1, -1}}), "class operator must have value in 'left'"},
        {nodes({kRoot, {OP_CLASS, 2, -1, -1}, {OP_RANGE, -1, 'z', -1}}),
         "range operator must have value in 'left'"},
        {nodes({kRoot, {OP_CLASS, 2, -1, -1}, {OP_RANGE, 'a', -1, -1}}),
         "range operator must have value in 'right'"},
        // Node types no compiler writes: unused, a control code and a high one.
        {nodes({kRoot, {OP_UNUSED, -1, -1, -1}}), nullptr},
        {nodes({kRoot, {7, -1, -1, -1}}), nullptr},
        {nodes({kRoot, {200, -1, -1, -1}}), nullptr},
        {nullptr, nullptr},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const auto& [exp, line] = cases[i];
        SCOPED_TRACE("case " + std::to_string(i));
        // Validation ahead of matching refuses the same node with the same line; matching
        // adds its EINVAL, as validation does for no record at all.
        for (bool validating : {false, true}) {
            clear_log();
            EXPECT_FALSE(validating ? trex_validate(exp) : trex_match(exp, "aa"));
            EXPECT_TRUE(line == nullptr || ow_test::has_error("__trex_node_is_valid", line));
            const bool einval = !validating || exp == nullptr;
            EXPECT_EQ(ow_test::has_error(validating ? "trex_validate" : "trex_match",
                                         std::strerror(EINVAL)),
                      einval);
            EXPECT_EQ(ow_test::error_count(), (line != nullptr) + einval) << ow_test::dump();
        }
        trex_free(exp);
    }
}

TEST_F(TinyRexTest, HostileInputEndsQuicklyWithALine) {
    const std::string steps = "match abandoned after 1000000 steps";
    // A cycle through an expression's own operand, a sequence that loops back on itself and a
    // pattern whose repetitions backtrack exponentially.
    const std::tuple<TRex*, std::string, std::string> cases[] = {
        {nodes({{OP_EXPRESSION, 0, 0, -1}}), "abc", "match abandoned at recursion depth 1000"},
        {nodes({kRoot, {OP_BOL, -1, -1, 1}}), "abc", steps},
        {trex_compile_ex("^a*a*a*a*a*a*a*a*a*a*a*a*a*a*b", 0), std::string(64, 'a') + "cb", steps},
    };
    for (const auto& [exp, subject, line] : cases) {
        SCOPED_TRACE(subject.substr(0, 30));
        clear_log();
        EXPECT_FALSE(trex_match(exp, subject.c_str()));
        EXPECT_ERROR_LINE("trex_match", line);
        EXPECT_EQ(ow_test::error_count(), 1u) << ow_test::dump();
        trex_free(exp);
    }
}

TEST_F(TinyRexTest, PreparedAndPlainMatchesGiveUpAtTheSameSubject) {
    // Both ways of matching count the same steps, so the shortest subject of a family that
    // exceeds the limit on the plain path is the shortest one on the prepared path too.
    const std::tuple<const char*, std::string, std::string> families[] = {
        {"[0-9]{1,3}(\\-|_|\\.)z", "z", "1-22_"},
        {"[a-c0-9_]+x[^a-c]z", "xz", "b1_x"},
        {"q\\d?[^q]z", "z", "q1q"},
        {"(a|b)c*d", "d", "acab"},
    };
    for (const auto& [pattern, head, unit] : families) {
        SCOPED_TRACE(pattern);
        TRex* exp = trex_compile_ex(pattern, 0);
        ASSERT_TRUE(exp != nullptr && exp->cursor != nullptr);
        TRex plain = *exp;
        plain.cursor = nullptr;
        const auto gives_up = [&](TRex* e, long units) {
            std::string subject = head;
            for (long k = 0; k < units; ++k) subject += unit;
            clear_log();
            return !trex_match(e, subject.c_str()) &&
                   ow_test::has_error("trex_match", "match abandoned after 1000000 steps");
        };
        long fine = 0, over = 1 << 20;
        ASSERT_TRUE(gives_up(&plain, over));
        while (over - fine > 1) {
            const long mid = (fine + over) / 2;
            (gives_up(&plain, mid) ? over : fine) = mid;
        }
        EXPECT_TRUE(gives_up(exp, over)) << over;
        EXPECT_FALSE(gives_up(exp, fine)) << fine;
        trex_free(exp);
    }
}

// Facts prepared for one node array and case mode must not answer for another.
TEST_F(TinyRexTest, PreparedFactsOnlyServeTheArrayAndCaseModeTheyDescribe) {
    TRex* exp = trex_compile_ex("\\.netco\\.net$", 1);
    ASSERT_NE(exp, nullptr);
    EXPECT_FALSE(trex_match(exp, "a.NETCO.net"));
    exp->case_mode = 0;
    EXPECT_TRUE(trex_match(exp, "a.NETCO.net"));
    std::vector<TRexNode> copy(exp->nodes, exp->nodes + exp->nallocated);
    copy[4].type = 'x';  // ".nxtco.net"
    TRex moved = *exp;
    moved.nodes = copy.data();
    EXPECT_TRUE(trex_match(&moved, "a.NXTCO.net"));
    EXPECT_FALSE(trex_match(&moved, "a.netco.net"));
    trex_free(exp);
    EXPECT_NO_ERRORS();
}

TEST_F(TinyRexTest, Escape) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"a.b*c", "a\\.b\\*c"},
        {"$()*+.?[\\]^{|}", "\\$\\(\\)\\*\\+\\.\\?\\[\\\\\\]\\^\\{\\|\\}"},
        {"plain-host_1", "plain-host_1"},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_STREQ(ow::unique_cstr(trex_escape(text)).get(), expected) << text;
    EXPECT_NO_ERRORS();
    ow_test::refused("trex_escape", std::strerror(EINVAL),
                     {!trex_escape(""), !trex_escape(nullptr)});
    ow::testing::fail_allocation(1);
    ow_test::refused("trex_escape", std::strerror(ENOMEM), {!trex_escape("a.b")});
}

}  // namespace

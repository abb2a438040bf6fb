// Compiled pattern files: their records, their bounds and damaged or foreign files.
#include "tiny_rex_storage.h"

#include <tuple>

#include "ow_internal.hpp"
#include "scratch.hpp"

namespace {

// Lays out a file by hand, as a damaged disk might: the magic, then each record as its node
// count and nodes; `tail` is appended raw.
std::string file_of(const std::vector<std::vector<TRexNode>>& records,
                    const std::vector<int32_t>& tail = {}) {
    std::vector<int32_t> ints = {TRS_MAGIC};
    for (const auto& nodes : records) {
        ints.push_back(static_cast<int32_t>(nodes.size()));
        for (const auto& n : nodes) ints.insert(ints.end(), {n.type, n.left, n.right, n.next});
    }
    ints.insert(ints.end(), tail.begin(), tail.end());
    return std::string(reinterpret_cast<const char*>(ints.data()), ints.size() * sizeof(int32_t));
}

// A pattern matching subjects that contain the character c: .*c.*$
std::vector<TRexNode> contains(char c) {
    return {{OP_EXPRESSION, 1, 0, -1},
            {OP_ANY_RUN, -1, -1, 2},
            {c, -1, -1, 3},
            {OP_ANY_RUN, -1, -1, 4},
            {OP_EOL, -1, -1, -1}};
}

using TinyRexStorageTest = ow_test::ScratchTest;

TEST_F(TinyRexStorageTest, StoredPatternsReadBackAndIgnoreCase) {
    const std::string file = path("test.cregexes");
    FILE* fp = std::fopen(file.c_str(), "w+b");
    ASSERT_TRUE(trs_set_header(fp));
    std::vector<TRex*> compiled;
    for (const char* p : {"^mail\\d+\\.", "(dsl|cable)\\.example\\.net$", "[a-c]x|zz"}) {
        compiled.push_back(trex_compile_ex(p, 1));  // exact case in memory
        ASSERT_TRUE(trs_store(fp, compiled.back()));
    }
    ASSERT_TRUE(trs_valid_file(fp));
    TRex read_back{};
    for (TRex* exp : compiled) {
        ASSERT_TRUE(trs_next(fp, &read_back));
        ASSERT_EQ(read_back.nallocated, exp->nsize);  // only the used nodes
        EXPECT_EQ(0, std::memcmp(read_back.nodes, exp->nodes,
                                 sizeof(TRexNode) * static_cast<std::size_t>(exp->nsize)));
        trex_free(exp);
    }
    EXPECT_FALSE(trs_next(fp, &read_back));
    std::free(read_back.nodes);
    std::fclose(fp);
    for (const char* s : {"MAIL12.EXAMPLE.COM", "ppp.DSL.example.NET", "Bx", "zzz"})
        EXPECT_TRUE(compiled_regex_match(file.c_str(), s)) << s;
    EXPECT_FALSE(compiled_regex_match(file.c_str(), "mail.example.com"));
    EXPECT_NO_ERRORS();
}

TEST_F(TinyRexStorageTest, ScanOfAFile) {
    const std::string file = path("test.cregexes");
    using errs = std::vector<std::pair<const char*, std::string>>;
    auto corrupt_next = contains('q');
    corrupt_next[2].next = 77;
    // 4095 nodes fill 65520 bytes and are accepted; 4096 would need 65536.
    std::vector<TRexNode> big = contains('x');
    big.resize(TRS_MAX_NODES, TRexNode{'z', -1, -1, -1});
    // Found by fuzzing, shapes no compiler writes: a repeated line start matches by itself,
    // without the node after it; a root that is no group is matched wherever the match ends.
    const std::vector<TRexNode> bol_run = {{OP_EXPRESSION, 1, 0, -1},
                                           {OP_GREEDY, 2, 3 << 16 | 3, -1},
                                           {OP_BOL, -1, -1, 3},
                                           {'a', -1, -1, -1}};
    const std::vector<TRexNode> no_group = {{'x', -1, -1, 1}, {'y', -1, -1, -1}};
    const std::string foreign = "file [" + file + "] is not a valid ordwin generated regex file";
    // What the file holds, the subject, the answer, and every ERROR line in any order.
    const std::tuple<const char*, std::string, std::string, bool, errs> cases[] = {
        {"largest record", file_of({big}), "axb", true, {}},
        {"repeated line start", file_of({bol_run}), "", true, {}},
        {"root that is no group", file_of({no_group}), "xq", true, {}},
        {"root that is no group, elsewhere", file_of({no_group}), "qx", false, {}},
        {"only the magic", file_of({}), "x", false, {}},
        // The empty third record would log if it were read.
        {"second of three matches", file_of({contains('x'), contains('y'), {}}), "y", true, {}},
        {"zero count passed over", file_of({contains('x'), {}, contains('y')}), "y", true,
         errs{{"trs_next", "node count size of zero read: invalid regex"}}},
        {"truncated count", file_of({contains('x')}) + std::string("\1\0", 2), "z", false,
         errs{{"trs_next", "Error reading node block size: Success"},
              {"trs_next", "nallocated is 1"},
              {"trs_next", "bytes read is 2"}}},
        {"short node block", file_of({contains('x')}, {3, OP_EXPRESSION}), "z", false,
         errs{{"trs_next", "short read when attempting to read node #0"}}},
        {"negative count", file_of({}, {-1}), "z", false,
         errs{{"trs_next", "block size -16 exceeds sane boundaries"}}},
        // The matcher refuses the corrupt node and the scan goes on with the next record.
        {"corrupt node passed over", file_of({corrupt_next, contains('y')}), "qy", true,
         errs{{"__trex_node_is_valid", "corrupt regex: node->next is out of range 77 > 5"},
              {"trex_match", std::strerror(EINVAL)}}},
        {"foreign file", "dsl\nx\n", "dsl", false, errs{{"compiled_regex_match", foreign}}},
        {"empty file", "", "x", false,
         errs{{"trs_valid_file", "failed to read header bit: Success"},
              {"compiled_regex_match", foreign}}},
    };
    for (const auto& [what, bytes, subject, expected, errors] : cases) {
        SCOPED_TRACE(what);
        clear_log();
        ow_test::spit(file, bytes);
        EXPECT_EQ(compiled_regex_match(file.c_str(), subject.c_str()), expected);
        EXPECT_EQ(ow_test::error_count(), errors.size()) << ow_test::dump();
        for (const auto& [func, text] : errors) EXPECT_ERROR_LINE(func, text);
    }
}

TEST_F(TinyRexStorageTest, RefusalsAndFailures) {
    const std::string file = path("test.cregexes");
    EXPECT_FALSE(compiled_regex_match(path("missing.cregexes").c_str(), "x"));
    EXPECT_FALSE(compiled_regex_match(dir_.c_str(), "x"));  // a directory is not a pattern file
    EXPECT_NO_ERRORS();

    // A record of 4096 nodes is refused by the reader and the writer alike.
    std::vector<TRexNode> nodes = contains('x');
    nodes.resize(TRS_MAX_NODES + 1, TRexNode{'z', -1, -1, -1});
    ow_test::spit(file, file_of({nodes}));
    FILE* fp = std::fopen(file.c_str(), "r+b");
    ASSERT_TRUE(trs_valid_file(fp));
    TRex empty{};
    ow_test::refused("trs_next", "block size 65536 exceeds sane boundaries",
                     {!trs_next(fp, &empty)});
    EXPECT_EQ(empty.nodes, nullptr);
    TRex* too_big = trex_compile_ex(std::string(5000, 'a').c_str(), 0);
    ow_test::refused("trs_store", "allocation 5004 size exceeds maximum sane boundaries",
                     {!trs_store(fp, too_big)});
    trex_free(too_big);

    const std::string einval = std::strerror(EINVAL);
    ow_test::refused(
        "compiled_regex_match", einval,
        {!compiled_regex_match("", "x"), !compiled_regex_match(file.c_str(), nullptr)});
    ow_test::refused("trs_valid_file", einval, {!trs_valid_file(nullptr)});
    ow_test::refused("trs_set_header", einval, {!trs_set_header(nullptr)});
    ow_test::refused("trs_store", einval, {!trs_store(fp, &empty)});
    ow_test::refused("trs_next", einval, {!trs_next(fp, nullptr)});

    // Setting the header empties whatever the file held.
    ASSERT_TRUE(trs_set_header(fp));
    std::fclose(fp);
    EXPECT_EQ(ow_test::slurp(file), std::string("\xB9\xEB\0\0", 4));

    // The record allocation of the scan can fail, and so can the node array of a record.
    ow_test::spit(file, file_of({contains('x')}));
    for (long n = 1; n <= 2; ++n) {
        SCOPED_TRACE(n);
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_FALSE(compiled_regex_match(file.c_str(), "x"));
        EXPECT_ERROR_LINE(n == 1 ? "compiled_regex_match" : "trs_next", std::strerror(ENOMEM));
    }
}

}  // namespace

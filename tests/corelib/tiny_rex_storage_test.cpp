// Tests of the compiled pattern files: store and read back, record bounds, damaged records
// passed over, the end of the list and foreign files.
#include "tiny_rex_storage.h"

#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

using bytes_t = std::vector<unsigned char>;

void put_int(bytes_t* out, int32_t v) {
    unsigned char raw[4];
    std::memcpy(raw, &v, 4);
    out->insert(out->end(), raw, raw + 4);
}

// Lays out a file by hand, as a damaged disk might: the magic, then each record as its node
// count and nodes; `tail` is appended raw.
bytes_t file_of(const std::vector<std::vector<TRexNode>>& records,
                const std::vector<int32_t>& tail = {}) {
    bytes_t out;
    put_int(&out, TRS_MAGIC);
    for (const auto& nodes : records) {
        put_int(&out, static_cast<int32_t>(nodes.size()));
        for (const auto& n : nodes) {
            for (int32_t v : {n.type, n.left, n.right, n.next}) put_int(&out, v);
        }
    }
    for (int32_t v : tail) put_int(&out, v);
    return out;
}

// A pattern matching subjects that contain the character c: .*c.*$
std::vector<TRexNode> contains(char c) {
    return {{OP_EXPRESSION, 1, 0, -1},
            {OP_ANY_RUN, -1, -1, 2},
            {c, -1, -1, 3},
            {OP_ANY_RUN, -1, -1, 4},
            {OP_EOL, -1, -1, -1}};
}

class TinyRexStorageTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        char dir[] = "/tmp/tiny_rex_storage_test.XXXXXX";
        ASSERT_NE(::mkdtemp(dir), nullptr);
        dir_ = dir;
        path_ = dir_ + "/test.cregexes";
    }
    void TearDown() override {
        ::unlink(path_.c_str());
        ::rmdir(dir_.c_str());
        LogCaptureTest::TearDown();
    }

    void write_bytes(const bytes_t& bytes) const {
        std::ofstream(path_, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(bytes.size()));
    }

    std::string dir_;
    std::string path_;
};

TEST_F(TinyRexStorageTest, StoredPatternsAnswerAsBeforeButIgnoreCase) {
    const std::vector<const char*> patterns = {
        "^mail\\d+\\.", "[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}",
        "(dsl|cable)\\.example\\.net$", "[a-c]x|zz"};
    const std::vector<std::string> subjects = {
        "MAIL12.EXAMPLE.COM", "host-10-1-2-3.net", "ppp.DSL.example.NET", "Bx", "zzz", "nothing",
    };
    FILE* fp = std::fopen(path_.c_str(), "w+b");
    ASSERT_NE(fp, nullptr);
    ASSERT_TRUE(trs_set_header(fp));
    std::vector<TRex*> compiled;
    for (const char* p : patterns) {
        compiled.push_back(trex_compile_ex(p, 1));  // exact case in memory
        ASSERT_NE(compiled.back(), nullptr);
        ASSERT_TRUE(trs_store(fp, compiled.back()));
    }
    ASSERT_TRUE(trs_valid_file(fp));
    TRex read_back{};
    for (std::size_t i = 0; i < compiled.size(); ++i) {
        SCOPED_TRACE(patterns[i]);
        ASSERT_TRUE(trs_next(fp, &read_back));
        ASSERT_EQ(read_back.nallocated, compiled[i]->nsize);  // only the used nodes
        EXPECT_EQ(0, std::memcmp(read_back.nodes, compiled[i]->nodes,
                                 sizeof(TRexNode) * static_cast<std::size_t>(compiled[i]->nsize)));
        for (const auto& s : subjects) {
            SCOPED_TRACE(s);
            std::string lower;
            for (unsigned char c : s) lower += static_cast<char>(std::tolower(c));
            // The same answers as before where case does not matter, and case never matters.
            EXPECT_EQ(trex_match(&read_back, lower.c_str()),
                      trex_match(compiled[i], lower.c_str()));
            EXPECT_EQ(trex_match(&read_back, s.c_str()), trex_match(&read_back, lower.c_str()));
        }
    }
    EXPECT_FALSE(trs_next(fp, &read_back));
    std::free(read_back.nodes);
    for (TRex* exp : compiled) trex_free(exp);
    std::fclose(fp);
    EXPECT_NO_ERRORS();

    EXPECT_TRUE(compiled_regex_match(path_.c_str(), "ppp.DSL.example.NET"));
    EXPECT_FALSE(compiled_regex_match(path_.c_str(), "smtp.example.org"));
}

TEST_F(TinyRexStorageTest, ScanOfAFile) {
    using errs = std::vector<std::pair<const char*, std::string>>;
    struct file_case {
        const char* what;
        bytes_t bytes;
        const char* subject;
        bool expected;
        errs errors;  // every ERROR line, in any order
    };
    auto truncated = file_of({contains('x')});
    truncated.insert(truncated.end(), {1, 0});
    auto corrupt_next = contains('q');
    corrupt_next[2].next = 77;
    // 4095 nodes fill 65520 bytes and are accepted; 4096 would need 65536.
    std::vector<TRexNode> big = contains('x');
    big.resize(TRS_MAX_NODES, TRexNode{'z', -1, -1, -1});
    // Thirty classes in a row share one chain of 4000 members, of which only the last takes
    // 'a': too much to tabulate when the record is read, so it is matched member by member.
    std::vector<TRexNode> classes = {{OP_EXPRESSION, 1, 0, -1}, {OP_ANY_RUN, -1, -1, 2}};
    constexpr int32_t kClasses = 30, kMembers = 4000, kFirstMember = 2 + kClasses + 2;
    for (int32_t i = 0; i < kClasses; ++i) classes.push_back({OP_CLASS, kFirstMember, -1, 3 + i});
    classes.push_back({OP_ANY_RUN, -1, -1, 3 + kClasses});
    classes.push_back({OP_EOL, -1, -1, -1});
    for (int32_t i = 0; i < kMembers; ++i) {
        const bool last = i == kMembers - 1;
        classes.push_back({last ? 'a' : 'b' + i % 20, -1, -1, last ? -1 : kFirstMember + i + 1});
    }
    // Found by fuzzing, shapes no compiler writes: a repeated line start matches by itself,
    // without the node after it; a root that is no group is matched wherever the match ends.
    const std::vector<TRexNode> bol_run = {{OP_EXPRESSION, 1, 0, -1},
                                           {OP_GREEDY, 2, 3 << 16 | 3, -1},
                                           {OP_BOL, -1, -1, 3},
                                           {'a', -1, -1, -1}};
    const std::vector<TRexNode> no_group = {{'x', -1, -1, 1}, {'y', -1, -1, -1}};
    const bytes_t text = {'d', 's', 'l', '\n', 'x', '\n'};
    const std::string foreign = "file [" + path_ + "] is not a valid ordwin generated regex file";
    const std::vector<file_case> cases = {
        {"largest record", file_of({big}), "axb", true, {}},
        {"classes matched member by member",
         file_of({classes}),
         "xaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa",
         true,
         {}},
        {"one class short", file_of({classes}), "aaaaaaaaaaaaaaaaaaaaaaaaaaaaa", false, {}},
        {"repeated line start", file_of({bol_run}), "", true, {}},
        {"root that is no group", file_of({no_group}), "xq", true, {}},
        {"root that is no group, elsewhere", file_of({no_group}), "qx", false, {}},
        {"only the magic", file_of({}), "x", false, {}},
        // The empty third record would log if it were read.
        {"second of three matches", file_of({contains('x'), contains('y'), {}}), "y", true, {}},
        {"zero count passed over", file_of({contains('x'), {}, contains('y')}), "y", true,
         errs{{"trs_next", "node count size of zero read: invalid regex"}}},
        {"truncated count", truncated, "z", false,
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
        {"foreign file", text, "dsl", false, errs{{"compiled_regex_match", foreign}}},
        {"empty file", bytes_t{}, "x", false,
         errs{{"trs_valid_file", "failed to read header bit: Success"},
              {"compiled_regex_match", foreign}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        clear_log();
        write_bytes(c.bytes);
        EXPECT_EQ(compiled_regex_match(path_.c_str(), c.subject), c.expected);
        EXPECT_EQ(ow_test::error_count(), c.errors.size()) << ow_test::dump();
        for (const auto& [func, text] : c.errors) EXPECT_ERROR_LINE(func, text);
    }
}

TEST_F(TinyRexStorageTest, RecordSizeLimit) {
    std::vector<TRexNode> too_big = contains('x');
    too_big.resize(TRS_MAX_NODES + 1, TRexNode{'z', -1, -1, -1});
    write_bytes(file_of({too_big}));
    FILE* fp = std::fopen(path_.c_str(), "rb");
    ASSERT_TRUE(trs_valid_file(fp));
    TRex exp{};
    EXPECT_FALSE(trs_next(fp, &exp));
    EXPECT_ERROR_LINE("trs_next", "block size 65536 exceeds sane boundaries");
    EXPECT_EQ(exp.nodes, nullptr);
    std::fclose(fp);

    // The writer refuses the same record.
    TRex* compiled = trex_compile_ex(std::string(5000, 'a').c_str(), 0);
    ASSERT_NE(compiled, nullptr);
    fp = std::fopen(path_.c_str(), "w+b");
    ASSERT_TRUE(trs_set_header(fp));
    clear_log();
    EXPECT_FALSE(trs_store(fp, compiled));
    EXPECT_ERROR_LINE("trs_store", "allocation 5004 size exceeds maximum sane boundaries");
    std::fclose(fp);
    trex_free(compiled);
}

TEST_F(TinyRexStorageTest, MissingFilesAndRefusedArguments) {
    EXPECT_FALSE(compiled_regex_match((dir_ + "/missing.cregexes").c_str(), "x"));
    EXPECT_FALSE(compiled_regex_match(dir_.c_str(), "x"));  // a directory is not a pattern file
    EXPECT_NO_ERRORS();

    const std::string einval = std::strerror(EINVAL);
    TRex empty{};
    FILE* fp = std::fopen(path_.c_str(), "w+b");
    ow_test::refused(
        "compiled_regex_match", einval,
        {!compiled_regex_match("", "x"), !compiled_regex_match(path_.c_str(), nullptr)});
    ow_test::refused("trs_valid_file", einval, {!trs_valid_file(nullptr)});
    ow_test::refused("trs_set_header", einval, {!trs_set_header(nullptr)});
    ow_test::refused("trs_store", einval, {!trs_store(fp, &empty)});
    ow_test::refused("trs_next", einval, {!trs_next(fp, nullptr)});

    // Setting the header empties whatever the file held.
    std::fputs("old contents that must go", fp);
    ASSERT_TRUE(trs_set_header(fp));
    std::fclose(fp);
    FILE* check = std::fopen(path_.c_str(), "rb");
    unsigned char raw[8];
    EXPECT_EQ(bytes_t(raw, raw + std::fread(raw, 1, sizeof raw, check)),
              (bytes_t{0xB9, 0xEB, 0, 0}));
    std::fclose(check);

    // The record allocation of the scan can fail, and so can the node array of a record.
    write_bytes(file_of({contains('x')}));
    for (long n = 1; n <= 2; ++n) {
        SCOPED_TRACE(n);
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_FALSE(compiled_regex_match(path_.c_str(), "x"));
        EXPECT_ERROR_LINE(n == 1 ? "compiled_regex_match" : "trs_next", std::strerror(ENOMEM));
    }
}

}  // namespace

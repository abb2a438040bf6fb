// Tests of the map file and control files: the exact byte layout, round trips that keep
// slots and iteration order, the atomic replace, every refusal of a damaged image, and the
// control-file syntax.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "ow_hashmap.h"
#include "ow_internal.hpp"

namespace {

using Bytes = std::vector<unsigned char>;
using Words = std::vector<uint32_t>;

Bytes read_bytes(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}
void write_bytes(const std::string& p, const Bytes& b) {
    std::ofstream(p, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}
uint32_t u32(const Bytes& b, size_t at) {
    uint32_t v;
    std::memcpy(&v, b.data() + at, 4);
    return v;
}
Words words(const Bytes& b, size_t at, size_t n) {
    Words out;
    for (size_t i = 0; i < n; ++i) out.push_back(u32(b, at + 4 * i));
    return out;
}
void set32(Bytes& b, size_t at, uint32_t v) { std::memcpy(b.data() + at, &v, 4); }
bool put(ow_hashmap* m, const std::string& k, const std::string& v) {
    return ow_map_store_ex(m, k.c_str(), const_cast<char*>(v.data()), v.size() + 1, true, nullptr);
}
// A map as text: its size, each used slot with key and value length, then the iteration order.
std::vector<std::string> describe(const ow_hashmap* m) {
    std::vector<std::string> out{std::to_string(m->map_size)};
    for (uint32_t i = 0; i < m->map_size; ++i) {
        const hash_pair_t* p = m->pairs[i];
        if (p != nullptr)
            out.push_back(std::to_string(i) + ":" + p->key + ":" + std::to_string(p->length));
    }
    ow_map_iterator it;
    ow_map_iterator_init(&it, m);
    for (const char* k; ow_map_iterator_next(&it, &k, nullptr);) out.emplace_back(k);
    return out;
}

class MapFile : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        char tmpl[] = "/tmp/ow_mapfile.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        path_ = dir_ + "/map";
    }
    void TearDown() override {
        std::filesystem::remove_all(dir_);
        LogCaptureTest::TearDown();
    }
    std::string dir_, path_;
};

TEST_F(MapFile, ImageHasTheDocumentedLayout) {
    ow_hashmap* m = ow_map_create(0, 0);
    ASSERT_TRUE(put(m, "a", "1"));
    ASSERT_TRUE(put(m, "b", "22"));
    ASSERT_TRUE(ow_map_save(m, path_.c_str(), true));
    ow_map_destroy(m);
    const Bytes b = read_bytes(path_);
    ASSERT_EQ(b.size(), 28u + 23 + 24);
    const uint32_t slot_a = ow_map_hash("a") % 5 * 13, slot_b = ow_map_hash("b") % 5 * 13;
    EXPECT_EQ(words(b, 0, 7), (Words{0, 5, 13, 65, 2, slot_a, slot_b}));
    // Records in slot order: slot, next pair's slot, flags, key and value lengths, bytes.
    const size_t rec_a = slot_a < slot_b ? 28 : 28 + 24, rec_b = slot_a < slot_b ? 28 + 23 : 28;
    EXPECT_EQ(words(b, rec_a, 5), (Words{slot_a, slot_b, PAIR_FLAG_COPY, 1, 2}));
    EXPECT_EQ(std::memcmp(b.data() + rec_a + 20, "a1\0", 3), 0);
    EXPECT_EQ(words(b, rec_b, 5), (Words{slot_b, 0, PAIR_FLAG_COPY, 1, 3}));
    EXPECT_EQ(std::memcmp(b.data() + rec_b + 20, "b22\0", 4), 0);

    ow_hashmap* empty = ow_map_create(0, 0);
    ASSERT_TRUE(ow_map_save(empty, path_.c_str(), true));
    EXPECT_EQ(read_bytes(path_), Bytes(28, 0));
    ow_map_destroy(empty);
    ow_hashmap* none = ow_map_load(path_.c_str());
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->map_size, 0u);
    ow_map_destroy(none);
    EXPECT_NO_ERRORS();
}

TEST_F(MapFile, RoundTripKeepsSlotsOrderAndValueKinds) {
    ow_hashmap* m = ow_map_create(0, 0);
    std::vector<std::string> keys;
    std::mt19937 rng(7);
    for (int i = 0; i < 3000; ++i) keys.push_back("k" + std::to_string(rng()));
    for (const auto& k : keys) ASSERT_TRUE(put(m, k, std::string(rng() % 300, 'v')));
    for (int i = 0; i < 3000; i += 3) ASSERT_TRUE(ow_map_remove(m, keys[i].c_str()));
    ASSERT_TRUE(
        ow_map_store_ex(m, "int32", reinterpret_cast<void*>(uintptr_t{7}), 4, false, nullptr));
    ASSERT_TRUE(ow_map_store_ex(m, "nine", const_cast<char*>("123456789"), 9, true, nullptr));
    ASSERT_TRUE(ow_map_save(m, path_.c_str(), true));

    ow_hashmap* back = ow_map_load(path_.c_str());
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(describe(back), describe(m));
    void* v = nullptr;
    ASSERT_TRUE(ow_map_fetch(back, "int32", &v));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(v), 7u);  // inline again
    ASSERT_TRUE(ow_map_fetch(back, "nine", &v));
    EXPECT_EQ(std::memcmp(v, "123456789", 9), 0);
    ow_map_destroy(m);
    ow_map_destroy(back);
    EXPECT_NO_ERRORS();
}

TEST_F(MapFile, SaveReplacesAtomicallyAndRespectsOverwrite) {
    ow_hashmap* m = ow_map_create(0, 0);
    ASSERT_TRUE(put(m, "k", "v"));
    write_bytes(path_, {'o', 'l', 'd'});
    EXPECT_FALSE(ow_map_save(m, path_.c_str(), false));
    EXPECT_EQ(read_bytes(path_), (Bytes{'o', 'l', 'd'}));
    ASSERT_EQ(chmod(path_.c_str(), 0640), 0);
    EXPECT_TRUE(ow_map_save(m, path_.c_str(), true));
    struct stat st {};
    ASSERT_EQ(stat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);  // a replaced file keeps its mode
    const std::string fresh = dir_ + "/fresh";
    ASSERT_TRUE(ow_map_save(m, fresh.c_str(), false));
    ASSERT_EQ(stat(fresh.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);

    // A link at the path is replaced, never written through.
    const std::string victim = dir_ + "/victim", link = dir_ + "/link";
    write_bytes(victim, {'x'});
    ASSERT_EQ(symlink(victim.c_str(), link.c_str()), 0);
    ASSERT_TRUE(ow_map_save(m, link.c_str(), true));
    EXPECT_EQ(read_bytes(victim), Bytes{'x'});
    ASSERT_EQ(lstat(link.c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_NO_ERRORS();

    const std::string sub = dir_ + "/sub";
    ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
    EXPECT_FALSE(ow_map_save(m, sub.c_str(), true));
    EXPECT_ERROR_LINE("ow_map_save", std::string("Failed to write the data to the file during "
                                                 "save: [") +
                                         std::strerror(EISDIR) + "]");
    // Nothing is left behind next to the target: map, fresh, victim, link, sub.
    const auto entries = std::filesystem::directory_iterator(dir_);
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 5);

    ASSERT_TRUE(ow_map_store_ex(m, "complex", strdup("x"), 2, false, [](void* p) { free(p); }));
    const std::string never = dir_ + "/never";
    EXPECT_FALSE(ow_map_save(m, never.c_str(), true));
    EXPECT_ERROR_LINE("ow_map_save", "Cannot save complex maps!");
    EXPECT_FALSE(std::filesystem::exists(never));
    ow_map_destroy(m);
}

TEST_F(MapFile, DamagedImagesAreRefused) {
    ow_hashmap* m = ow_map_create(0, 0);
    for (const char* k : {"alpha", "beta", "gamma"}) ASSERT_TRUE(put(m, k, k));
    ASSERT_TRUE(ow_map_save(m, path_.c_str(), true));
    const Bytes good = read_bytes(path_);
    ow_map_destroy(m);
    const size_t r0 = 28, r1 = r0 + 20 + u32(good, r0 + 12) + u32(good, r0 + 16);  // records
    const uint32_t slot0 = u32(good, r0), first = u32(good, 20);
    const auto at = [](size_t offset, uint32_t v) {
        return [=](Bytes& b) { set32(b, offset, v); };
    };
    const struct {
        std::function<void(Bytes&)> damage;
        std::string message;  // after "Map file [<path>]"
    } cases[] = {
        {[](Bytes& b) { b.resize(27); }, " is too short for a map: 27 bytes"},
        {at(12, 64), " has 5 buckets of 13 slots but claims 64 slots"},
        {at(16, 9), " has an impossible header (9 pairs in 65 slots, first " +
                        std::to_string(first) + ", last " + std::to_string(u32(good, 24)) + ")"},
        {at(r0, 65), ": record 0 names slot 65, which is out of range or taken"},
        {at(r1, slot0),
         ": record 1 names slot " + std::to_string(slot0) + ", which is out of range or taken"},
        {at(r0, (slot0 + 13) % 65), ": record 0 is in slot " + std::to_string((slot0 + 13) % 65) +
                                        ", outside the bucket of its key"},
        {at(r0 + 16, 1000), " ends inside record 0"},
        {[](Bytes& b) { b.push_back(0); }, " has 1 bytes after its last record"},
        {[&](Bytes& b) { b[r0 + 21] = 0; }, ": record 0 has a key with a NUL byte"},
        {at(20, (first + 1) % 65), " has a broken insertion order"},  // first slot is empty
        {[&](Bytes& b) {  // the first pair's record points back at itself
             for (size_t r = 28; r < b.size(); r += 20 + u32(b, r + 12) + u32(b, r + 16)) {
                 if (u32(b, r) == first) set32(b, r + 4, first);
             }
         },
         " has a broken insertion order"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        clear_log();
        Bytes b = good;
        c.damage(b);
        write_bytes(path_, b);
        EXPECT_EQ(ow_map_load(path_.c_str()), nullptr);
        EXPECT_ERROR_LINE("ow_map_load", "Map file [" + path_ + "]" + c.message);
    }

    write_bytes(path_, good);
    const long before = ow::testing::allocation_count();
    ow_map_destroy(ow_map_load(path_.c_str()));
    const long needed = ow::testing::allocation_count() - before;
    for (long n = 1; n <= needed; ++n) {
        SCOPED_TRACE(n);
        ow::testing::fail_allocation(n);
        ow_hashmap* partial = ow_map_load(path_.c_str());
        ow::testing::fail_allocation(0);
        EXPECT_EQ(partial, nullptr);  // every allocation is needed; ASan checks nothing leaks
        ow_map_destroy(partial);
    }
    clear_log();
    EXPECT_EQ(ow_map_load((dir_ + "/missing").c_str()), nullptr);
    EXPECT_EQ(ow_map_load(dir_.c_str()), nullptr);
    EXPECT_NO_ERRORS();
}

TEST_F(MapFile, ControlFilesFollowTheirSyntax) {
    using Pairs = std::vector<std::pair<std::string, std::string>>;
    const std::string unsplit = "Invalid syntax in control file: [" + path_ + "]";
    const std::string bad_line = "Invalid syntax in control files: [" + path_ + "]";
    const struct {
        const char* text;
        int result;
        Pairs pairs;
        std::string error;  // empty: none
    } cases[] = {
        {"a = 1\nb=two words # note\n", 1, {{"a", "1"}, {"b", "two words"}}, ""},
        {"k=v#c\nx = y = z", 1, {{"k", "v"}, {"x", "y = z"}}, ""},
        {"a=1\n\nb=2\n", -1, {}, bad_line},
        {"# comment\na=1\n", -1, {}, bad_line},
        {"a=1\nb", -1, {}, unsplit},
        {"a=1\na=2\n", -1, {}, "Failed to store key/value in map"},
        {"", 0, {}, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        clear_log();
        write_bytes(path_, Bytes(c.text, c.text + std::strlen(c.text)));
        ow_hashmap* out = reinterpret_cast<ow_hashmap*>(0x1);
        ASSERT_EQ(ow_map_load_control_file(path_.c_str(), 0, '=', &out), c.result);
        EXPECT_TRUE(c.error.empty() || ow_test::has_error("ow_map_load_control_file", c.error))
            << ow_test::dump();
        if (c.result != 1) {
            EXPECT_EQ(out, reinterpret_cast<ow_hashmap*>(0x1));
            continue;
        }
        Pairs got;
        for (const hash_pair_t* p = out->first; p != nullptr; p = p->next) {
            got.emplace_back(p->key, static_cast<char*>(p->value));
            EXPECT_EQ(p->length, got.back().second.size() + 1);
        }
        EXPECT_EQ(got, c.pairs);
        ow_map_destroy(out);
    }
    write_bytes(path_, Bytes{'a', '=', '1', '\n', 'b', '=', '2', '\n'});
    ow_hashmap* one = nullptr;
    ASSERT_EQ(ow_map_load_control_file(path_.c_str(), 1, '=', &one), 1);
    EXPECT_EQ(ow_map_count(one), 1u);
    ow_map_destroy(one);
    EXPECT_EQ(ow_map_load_control_file(path_.c_str(), 0, '\0', &one), -1);
    EXPECT_ERROR_LINE("ow_map_load_control_file", std::strerror(EINVAL));
}

}  // namespace

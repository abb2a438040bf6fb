// Tests of the map file and control files: the exact byte layout, round trips that keep
// slots and iteration order, the atomic replace, every refusal of a damaged image, and the
// control-file syntax.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "ow_hashmap.h"
#include "ow_internal.hpp"

namespace {

using Bytes = std::vector<unsigned char>;

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
        std::string cmd = "rm -rf '" + dir_ + "'";
        ASSERT_EQ(std::system(cmd.c_str()), 0);
        LogCaptureTest::TearDown();
    }
    static Bytes read_bytes(const std::string& p) {
        std::ifstream in(p, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }
    static void write_bytes(const std::string& p, const Bytes& b) {
        std::ofstream out(p, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
    }
    static uint32_t u32(const Bytes& b, size_t at) {
        uint32_t v;
        std::memcpy(&v, b.data() + at, 4);
        return v;
    }
    static void set32(Bytes& b, size_t at, uint32_t v) { std::memcpy(b.data() + at, &v, 4); }
    static bool put(ow_hashmap* m, const std::string& k, const std::string& v) {
        return ow_map_store_ex(m, k.c_str(), const_cast<char*>(v.data()), v.size() + 1, true,
                               nullptr);
    }
    static std::vector<std::string> order(const ow_hashmap* m) {
        std::vector<std::string> out;
        ow_map_iterator it;
        ow_map_iterator_init(&it, m);
        const char* k;
        while (ow_map_iterator_next(&it, &k, nullptr)) out.emplace_back(k);
        return out;
    }
    std::string dir_, path_;
};

TEST_F(MapFile, ImageHasTheDocumentedLayout) {
    ow_hashmap* m = ow_map_create(0, 0);
    ASSERT_TRUE(ow_map_store_ex(m, "a", const_cast<char*>("1"), 2, true, nullptr));
    ASSERT_TRUE(ow_map_store_ex(m, "b", const_cast<char*>("22"), 3, true, nullptr));
    ASSERT_TRUE(ow_map_save(m, path_.c_str(), true));
    const Bytes b = read_bytes(path_);
    ASSERT_EQ(b.size(), 28u + 23 + 24);
    const uint32_t slot_a = ow_map_hash("a") % 5 * 13, slot_b = ow_map_hash("b") % 5 * 13;
    EXPECT_EQ((std::vector<uint32_t>{u32(b, 0), u32(b, 4), u32(b, 8), u32(b, 12), u32(b, 16),
                                     u32(b, 20), u32(b, 24)}),
              (std::vector<uint32_t>{0, 5, 13, 65, 2, slot_a, slot_b}));
    // Records in slot order; a's record points at b's slot.
    const bool a_first = slot_a < slot_b;
    const size_t rec_a = a_first ? 28 : 28 + 24, rec_b = a_first ? 28 + 23 : 28;
    EXPECT_EQ(u32(b, rec_a), slot_a);
    EXPECT_EQ(u32(b, rec_a + 4), slot_b);
    EXPECT_EQ(u32(b, rec_a + 12), 1u);
    EXPECT_EQ(u32(b, rec_a + 16), 2u);
    EXPECT_EQ(std::memcmp(b.data() + rec_a + 20, "a1\0", 3), 0);
    EXPECT_EQ(u32(b, rec_b + 4), 0u);
    EXPECT_EQ(std::memcmp(b.data() + rec_b + 20, "b22\0", 4), 0);
    ow_map_destroy(m);

    ow_hashmap* back = ow_map_load(path_.c_str());
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(order(back), (std::vector<std::string>{"a", "b"}));
    void* v = nullptr;
    ASSERT_TRUE(ow_map_fetch(back, "b", &v));
    EXPECT_STREQ(static_cast<char*>(v), "22");
    ow_map_destroy(back);

    ow_hashmap* empty = ow_map_create(0, 0);
    ASSERT_TRUE(ow_map_save(empty, path_.c_str(), true));
    EXPECT_EQ(read_bytes(path_), Bytes(28, 0));
    ow_map_destroy(empty);
    ow_hashmap* none = ow_map_load(path_.c_str());
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->map_size, 0u);
    EXPECT_EQ(none->pairs, nullptr);
    ow_map_destroy(none);
    EXPECT_NO_ERRORS();
}

TEST_F(MapFile, RoundTripKeepsSlotsOrderAndValueKinds) {
    ow_hashmap* m = ow_map_create(0, 0);
    std::vector<std::string> keys;
    std::mt19937 rng(7);
    for (int i = 0; i < 3000; ++i) keys.push_back("k" + std::to_string(rng()));
    for (const auto& k : keys) ASSERT_TRUE(put(m, k, std::string(rng() % 300, 'v')));
    ASSERT_TRUE(
        ow_map_store_ex(m, "int32", reinterpret_cast<void*>(uintptr_t{7}), 4, false, nullptr));
    ASSERT_TRUE(ow_map_store_ex(m, "nine", const_cast<char*>("123456789"), 9, true, nullptr));
    keys.push_back("int32");
    keys.push_back("nine");
    for (int i = 0; i < 3000; i += 3) ASSERT_TRUE(ow_map_remove(m, keys[i].c_str()));
    ASSERT_TRUE(ow_map_save(m, path_.c_str(), true));

    ow_hashmap* back = ow_map_load(path_.c_str());
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(order(back), order(m));
    ASSERT_EQ(back->map_size, m->map_size);
    for (uint32_t i = 0; i < m->map_size; ++i) {
        ASSERT_EQ(back->pairs[i] == nullptr, m->pairs[i] == nullptr) << i;
        if (m->pairs[i] == nullptr) continue;
        ASSERT_STREQ(back->pairs[i]->key, m->pairs[i]->key);
        ASSERT_EQ(back->pairs[i]->length, m->pairs[i]->length);
    }
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
    // Nothing is left behind next to the target.
    std::string cmd = "test $(ls '" + dir_ + "' | wc -l) -eq 5";
    EXPECT_EQ(std::system(cmd.c_str()), 0);

    ASSERT_TRUE(ow_map_store_ex(m, "complex", strdup("x"), 2, false, [](void* p) { free(p); }));
    const std::string never = dir_ + "/never";
    EXPECT_FALSE(ow_map_save(m, never.c_str(), true));
    EXPECT_ERROR_LINE("ow_map_save", "Cannot save complex maps!");
    EXPECT_NE(access(never.c_str(), F_OK), 0);
    ow_map_destroy(m);
}

TEST_F(MapFile, DamagedImagesAreRefused) {
    ow_hashmap* m = ow_map_create(0, 0);
    for (const char* k : {"alpha", "beta", "gamma"}) ASSERT_TRUE(put(m, k, k));
    ASSERT_TRUE(ow_map_save(m, path_.c_str(), true));
    const Bytes good = read_bytes(path_);
    ow_map_destroy(m);
    const size_t r0 = 28;  // first record
    const uint32_t slot0 = u32(good, r0);
    const size_t r1 = r0 + 20 + u32(good, r0 + 12) + u32(good, r0 + 16);

    struct Case {
        const char* name;
        void (*mutate)(Bytes&, size_t, size_t, uint32_t);
        std::string message;  // after "Map file [<path>]"
    };
    const std::vector<Case> cases = {
        {"short", [](Bytes& b, size_t, size_t, uint32_t) { b.resize(27); },
         " is too short for a map: 27 bytes"},
        {"dimensions", [](Bytes& b, size_t, size_t, uint32_t) { set32(b, 12, 64); },
         " has 5 buckets of 13 slots but claims 64 slots"},
        {"overflowing dimensions",
         [](Bytes& b, size_t, size_t, uint32_t) {
             set32(b, 4, 0x10000);
             set32(b, 8, 0x10000);
             set32(b, 12, 0);
         },
         " has 65536 buckets of 65536 slots but claims 0 slots"},
        {"too many pairs", [](Bytes& b, size_t, size_t, uint32_t) { set32(b, 16, 9); },
         " has an impossible header (9 pairs in 65 slots, first " + std::to_string(u32(good, 20)) +
             ", last " + std::to_string(u32(good, 24)) + ")"},
        {"slot out of range", [](Bytes& b, size_t r, size_t, uint32_t) { set32(b, r, 65); },
         ": record 0 names slot 65, which is out of range or taken"},
        {"slot twice", [](Bytes& b, size_t r, size_t r1, uint32_t) { set32(b, r1, u32(b, r)); },
         ": record 1 names slot " + std::to_string(slot0) + ", which is out of range or taken"},
        {"wrong bucket", [](Bytes& b, size_t r, size_t, uint32_t s) { set32(b, r, (s + 13) % 65); },
         ": record 0 is in slot " + std::to_string((slot0 + 13) % 65) +
             ", outside the bucket of its key"},
        {"record past the end",
         [](Bytes& b, size_t r, size_t, uint32_t) { set32(b, r + 16, 1000); },
         " ends inside record 0"},
        {"truncated record", [](Bytes& b, size_t, size_t, uint32_t) { b.resize(b.size() - 1); },
         " ends inside record 2"},
        {"trailing bytes", [](Bytes& b, size_t, size_t, uint32_t) { b.push_back(0); },
         " has 1 bytes after its last record"},
        {"key with NUL", [](Bytes& b, size_t r, size_t, uint32_t) { b[r + 21] = 0; },
         ": record 0 has a key with a NUL byte"},
        {"first holds nothing",
         [](Bytes& b, size_t, size_t, uint32_t) { set32(b, 20, (u32(b, 20) + 1) % 65); },
         " has a broken insertion order"},
        {"chain loops",
         [](Bytes& b, size_t, size_t, uint32_t) {
             // the first pair's record points back at itself
             const uint32_t first = u32(b, 20);
             for (size_t at = 28; at < b.size(); at += 20 + u32(b, at + 12) + u32(b, at + 16)) {
                 if (u32(b, at) == first) set32(b, at + 4, first);
             }
         },
         " has a broken insertion order"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        clear_log();
        Bytes b = good;
        c.mutate(b, r0, r1, slot0);
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
    struct Case {
        const char* text;
        int result;
        std::vector<std::pair<std::string, std::string>> pairs;
        const char* error;
    };
    const std::vector<Case> cases = {
        {"a = 1\nb=two words # note\n", 1, {{"a", "1"}, {"b", "two words"}}, nullptr},
        {"k=v", 1, {{"k", "v"}}, nullptr},
        {"k=v#c\nx = y = z\n", 1, {{"k", "v"}, {"x", "y = z"}}, nullptr},
        {"a=1\n\nb=2\n", -1, {}, "Invalid syntax in control files: [%s]"},
        {"# comment\na=1\n", -1, {}, "Invalid syntax in control files: [%s]"},
        {"a=1\nb", -1, {}, "Invalid syntax in control file: [%s]"},
        {"a=1\na=2\n", -1, {}, "Failed to store key/value in map"},
        {"", 0, {}, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        clear_log();
        write_bytes(path_, Bytes(c.text, c.text + std::strlen(c.text)));
        ow_hashmap* out = reinterpret_cast<ow_hashmap*>(0x1);
        ASSERT_EQ(ow_map_load_control_file(path_.c_str(), 0, '=', &out), c.result);
        if (c.error != nullptr) {
            std::string msg = c.error;
            if (auto at = msg.find("%s"); at != std::string::npos) msg.replace(at, 2, path_);
            EXPECT_ERROR_LINE("ow_map_load_control_file", msg);
        }
        if (c.result != 1) {
            EXPECT_EQ(out, reinterpret_cast<ow_hashmap*>(0x1));
            continue;
        }
        std::vector<std::pair<std::string, std::string>> got;
        ow_map_iterator it;
        ow_map_iterator_init(&it, out);
        const char* k;
        void* v;
        while (ow_map_iterator_next(&it, &k, &v)) {
            got.emplace_back(k, static_cast<char*>(v));
            EXPECT_EQ(ow_map_iterator_cur(&it)->length, std::strlen(static_cast<char*>(v)) + 1);
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

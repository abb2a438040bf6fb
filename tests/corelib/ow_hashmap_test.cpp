// Tests of the map core: hashing, geometry, ownership, growth, rename, iteration (ordered and
// static), positional lookup, refusals with their exact lines, and out-of-memory paths.
#include "ow_hashmap.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

using ow_test::LogCaptureTest;

class Hashmap : public LogCaptureTest {
   protected:
    void TearDown() override {
        for (auto* m : maps_) ow_map_destroy(m);
        LogCaptureTest::TearDown();
    }
    ow_hashmap* make(uint32_t buckets = 0, uint32_t size = 0) {
        ow_hashmap* m = ow_map_create(buckets, size);
        if (m != nullptr) maps_.push_back(m);
        return m;
    }
    static bool put(ow_hashmap* m, const std::string& key, const std::string& value) {
        return ow_map_store_ex(m, key.c_str(), const_cast<char*>(value.c_str()), value.size() + 1,
                               true, nullptr);
    }
    static std::string get(const ow_hashmap* m, const std::string& key) {
        void* v = nullptr;
        return ow_map_fetch(m, key.c_str(), &v) ? static_cast<const char*>(v) : "<absent>";
    }
    static std::vector<std::string> keys_forward(const ow_hashmap* m) {
        std::vector<std::string> out;
        ow_map_iterator it;
        ow_map_iterator_init(&it, m);
        const char* k = nullptr;
        while (ow_map_iterator_next(&it, &k, nullptr)) out.emplace_back(k);
        return out;
    }
    static std::vector<std::string> keys_backward(const ow_hashmap* m) {
        std::vector<std::string> out;
        ow_map_iterator* it = ow_map_iterator_start_ex(m, 1);
        const char* k = nullptr;
        while (ow_map_iterator_prev(it, &k, nullptr)) out.insert(out.begin(), k);
        ow_map_iterator_end(it);
        return out;
    }
    // n distinct keys that all land in the same bucket of a map with `buckets` buckets.
    static std::vector<std::string> same_bucket_keys(size_t n, uint32_t buckets, uint32_t bucket) {
        std::vector<std::string> out;
        for (int i = 0; out.size() < n; ++i) {
            std::string k = "key" + std::to_string(i);
            if (ow_map_hash(k.c_str()) % buckets == bucket) out.push_back(k);
        }
        return out;
    }
    std::vector<ow_hashmap*> maps_;
};

int g_freed = 0;
void counting_free(void* p) {
    ++g_freed;
    std::free(p);
}

TEST_F(Hashmap, HashFollowsTheAlgorithmWithUnsignedTailBytes) {
    struct {
        const char* key;
        uint32_t hash;
    } const cases[] = {
        {"a", 291415938u},       {"ab", 1366002500u},    {"abc", 3535673738u},
        {"abcd", 3671636187u},   {"abcde", 1374488366u}, {"ardvex_version", 1838784686u},
        {"\xe9", 2099089130u},  // 233, not -23
        {"ab\xe9", 1558931023u},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        EXPECT_EQ(ow_map_hash(c.key), c.hash);
    }
    EXPECT_NO_ERRORS();
    EXPECT_EQ(ow_map_hash(""), 0u);
    EXPECT_ERROR_LINE("__super_fast_hash", std::strerror(EINVAL));
    EXPECT_EQ(ow_map_hash(nullptr), 0u);
    EXPECT_ERROR_LINE("ow_map_hash", std::strerror(EINVAL));
}

TEST_F(Hashmap, TableIsSetUpAtFirstStoreAndCreationChecksTheProduct) {
    ow_hashmap* m = make();
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->num_buckets, 0u);
    EXPECT_EQ(m->map_size, 0u);
    ASSERT_TRUE(put(m, "k", "v"));
    EXPECT_EQ(m->num_buckets, 5u);
    EXPECT_EQ(m->bucket_size, 13u);
    EXPECT_EQ(m->map_size, 65u);

    // 65535 * 65537 == UINT32_MAX passes the size check; failing the slot array allocation
    // (the second one) proves it got that far without allocating 32 GiB.
    ow::testing::fail_allocation(2);
    EXPECT_EQ(ow_map_create(65535, 65537), nullptr);
    EXPECT_ERROR_LINE("ow_map_create", "Failed to initialize buckets of new map");
    EXPECT_EQ(ow_map_create(65536, 65537), nullptr);
    EXPECT_ERROR_LINE("ow_map_create",
                      "Cannot create a map that big! (65536 buckets * 65537 bucket size > "
                      "UINT32_MAX)");
}

TEST_F(Hashmap, FullBucketGrowsThroughPrimesAndKeepsInsertionOrder) {
    ow_hashmap* m = make();
    auto keys = same_bucket_keys(14, 5, 2);
    keys.insert(keys.begin() + 3, "other");
    for (const auto& k : keys) ASSERT_TRUE(put(m, k, "v" + k));
    EXPECT_EQ(m->num_buckets, 11u);
    EXPECT_EQ(m->map_size, 143u);
    EXPECT_EQ(keys_forward(m), keys);
    EXPECT_EQ(keys_backward(m), keys);

    std::vector<std::string> many;
    for (int i = 0; i < 5000; ++i) many.push_back("k" + std::to_string(i * 7919));
    ow_hashmap* big = make();
    for (const auto& k : many) ASSERT_TRUE(put(big, k, k));
    EXPECT_EQ(ow_map_count(big), 5000u);
    EXPECT_EQ(keys_forward(big), many);
    for (const auto& k : many) ASSERT_EQ(get(big, k), k);
    EXPECT_NO_ERRORS();
}

TEST_F(Hashmap, ValuesAreReleasedPerOwnership) {
    g_freed = 0;
    ow_hashmap* m = ow_map_create(0, 0);
    // A duplicate store changes nothing, and a value handed over without copy stays the
    // caller's when the store fails.
    ASSERT_TRUE(put(m, "k", "first"));
    EXPECT_FALSE(put(m, "k", "second"));
    EXPECT_EQ(get(m, "k"), "first");
    char* mine = strdup("mine");
    EXPECT_FALSE(ow_map_store_ex(m, "k", mine, 5, false, counting_free));
    EXPECT_EQ(g_freed, 0);
    std::free(mine);
    ASSERT_TRUE(ow_map_remove(m, "k"));

    for (const char* k : {"a", "b", "c", "d"}) {
        ASSERT_TRUE(ow_map_store_ex(m, k, strdup(k), 2, false, counting_free));
    }
    int stack_value = 7;
    ASSERT_TRUE(ow_map_store_ex(m, "borrowed", &stack_value, sizeof stack_value, false, nullptr));
    ASSERT_TRUE(ow_map_store_ex(m, "copied", &stack_value, sizeof stack_value, true, std::free));
    EXPECT_TRUE(ow_map_remove(m, "a"));
    EXPECT_EQ(g_freed, 1);
    EXPECT_TRUE(ow_map_clear(m));
    EXPECT_EQ(g_freed, 4);
    EXPECT_EQ(ow_map_count(m), 0u);
    EXPECT_EQ(m->first, nullptr);
    EXPECT_EQ(m->map_size, 65u);  // clear keeps the table
    ASSERT_TRUE(ow_map_store_ex(m, "e", strdup("e"), 2, false, counting_free));
    ow_map_destroy(m);
    EXPECT_EQ(g_freed, 5);

    ow_hashmap* n = make();
    EXPECT_FALSE(ow_map_store_ex(n, "x", &stack_value, 4, true, counting_free));
    EXPECT_ERROR_LINE("ow_map_store_ex",
                      "Cannot request 'copy' and specify a freefn that isn't 'void free(void *)'");
}

TEST_F(Hashmap, RemoveKeepsTheChainAndReusesHoles) {
    ow_hashmap* m = make();
    ASSERT_TRUE(put(m, "only", "1"));
    EXPECT_TRUE(ow_map_remove(m, "only"));
    EXPECT_EQ(m->first, nullptr);
    EXPECT_EQ(m->last, nullptr);
    ASSERT_TRUE(put(m, "new", "2"));
    EXPECT_EQ(m->first, m->last);
    EXPECT_STREQ(m->first->key, "new");

    for (const char* k : {"a", "b", "c", "d"}) ASSERT_TRUE(put(m, k, k));
    EXPECT_TRUE(ow_map_remove(m, "new"));  // first
    EXPECT_TRUE(ow_map_remove(m, "d"));    // last
    EXPECT_TRUE(ow_map_remove(m, "b"));    // middle
    EXPECT_FALSE(ow_map_remove(m, "b"));
    EXPECT_EQ(keys_forward(m), (std::vector<std::string>{"a", "c"}));
    EXPECT_EQ(keys_backward(m), (std::vector<std::string>{"a", "c"}));

    // A full bucket with a hole: the key comes back once, no growth needed.
    ow_hashmap* full = make();
    auto keys = same_bucket_keys(13, 5, 0);
    for (const auto& k : keys) ASSERT_TRUE(put(full, k, k));
    ASSERT_TRUE(ow_map_remove(full, keys[4].c_str()));
    ASSERT_TRUE(put(full, keys[4], "again"));
    EXPECT_FALSE(put(full, keys[4], "twice"));
    EXPECT_EQ(full->num_buckets, 5u);
    EXPECT_EQ(ow_map_count(full), 13u);
    EXPECT_NO_ERRORS();
}

TEST_F(Hashmap, RenameKeepsPositionAndGrowsWhenItMustOrFailsCleanly) {
    ow_hashmap* m = make();
    for (const char* k : {"a", "b", "c"}) ASSERT_TRUE(put(m, k, std::string("v") + k));
    EXPECT_TRUE(ow_map_rename(m, "b", "renamed"));
    EXPECT_EQ(keys_forward(m), (std::vector<std::string>{"a", "renamed", "c"}));
    EXPECT_EQ(get(m, "renamed"), "vb");
    EXPECT_EQ(get(m, "b"), "<absent>");
    EXPECT_FALSE(ow_map_rename(m, "a", "c"));
    EXPECT_FALSE(ow_map_rename(m, "missing", "z"));
    EXPECT_NO_ERRORS();

    // The target bucket is full: the rename grows the map first.
    ow_hashmap* g = make();
    auto keys = same_bucket_keys(14, 5, 1);
    for (size_t i = 0; i < 13; ++i) ASSERT_TRUE(put(g, keys[i], keys[i]));
    ASSERT_TRUE(put(g, "mover", "m"));
    ASSERT_NE(ow_map_hash("mover") % 5, 1u);
    {
        ASSERT_TRUE(ow_map_rename(g, "mover", keys[13].c_str()));
        EXPECT_EQ(g->num_buckets, 11u);
        EXPECT_EQ(get(g, keys[13]), "m");
        EXPECT_EQ(keys_forward(g).back(), keys[13]);
    }

    // Same situation with memory exhausted during the growth: nothing changes.
    ow_hashmap* h = make();
    for (size_t i = 0; i < 13; ++i) ASSERT_TRUE(put(h, keys[i], keys[i]));
    ASSERT_TRUE(put(h, "mover", "m"));
    ow::testing::fail_allocation(2, true);
    EXPECT_FALSE(ow_map_rename(h, "mover", keys[13].c_str()));
    ow::testing::fail_allocation(0);
    EXPECT_ERROR_LINE("ow_map_rename", "Failed to store pair with new key [" + keys[13] +
                                           "] for map entry rename! Map may be corrupted!");
    EXPECT_EQ(get(h, "mover"), "m");
    EXPECT_EQ(ow_map_count(h), 14u);
    EXPECT_EQ(keys_forward(h).size(), 14u);
}

TEST_F(Hashmap, FailedGrowthLeavesEveryPairInPlace) {
    ow_hashmap* m = make();
    auto keys = same_bucket_keys(14, 5, 3);
    for (size_t i = 0; i < 13; ++i) ASSERT_TRUE(put(m, keys[i], keys[i]));
    // Allocations of the 14th store: pair, key, value copy, then the grown table.
    for (long n = 1; n <= 5; ++n) {
        SCOPED_TRACE(n);
        ow::testing::fail_allocation(n, true);
        EXPECT_FALSE(put(m, keys[13], "x"));
        ow::testing::fail_allocation(0);
        EXPECT_EQ(ow_map_count(m), 13u);
        EXPECT_EQ(m->num_buckets, 5u);
        for (size_t i = 0; i < 13; ++i) ASSERT_EQ(get(m, keys[i]), keys[i]);
        EXPECT_EQ(keys_forward(m), std::vector<std::string>(keys.begin(), keys.begin() + 13));
    }
    EXPECT_ERROR_LINE("ow_map_store_ex",
                      "Cannot create new key-value pair when attemping to store data in map");
    EXPECT_ERROR_LINE("ow_map_rehash", "Cannot create new map during rehash");
    EXPECT_ERROR_LINE("__map_store", "Failed to rehash map.?");
    ASSERT_TRUE(put(m, keys[13], "x"));
    EXPECT_EQ(m->num_buckets, 11u);

    // The first table of a (0, 0) map cannot be allocated.
    ow_hashmap* fresh = make();
    ow::testing::fail_allocation(4);  // pair, key, copy, table
    EXPECT_FALSE(put(fresh, "k", "v"));
    EXPECT_ERROR_LINE("__map_store", "Failed to initialize new map");
}

TEST_F(Hashmap, GrowthStopsAtTheLastPrime) {
    ow_hashmap at_max{};
    at_max.num_buckets = 4294967291u;
    EXPECT_FALSE(ow_map_rehash(&at_max));
    EXPECT_ERROR_LINE("ow_map_rehash", "Map is at max size: 4294967291 buckets.");
    ow_hashmap odd{};
    odd.num_buckets = 3000000000u;
    EXPECT_FALSE(ow_map_rehash(&odd));
    EXPECT_ERROR_LINE("ow_map_rehash", "Cannot determine new table size.");
    ow_hashmap wide{};
    wide.num_buckets = 1164186217u;
    wide.bucket_size = 13;
    EXPECT_FALSE(ow_map_rehash(&wide));
    EXPECT_ERROR_LINE("ow_map_create",
                      "Cannot create a map that big! (2364114217 buckets * 13 bucket size > "
                      "UINT32_MAX)");
    EXPECT_ERROR_LINE("ow_map_rehash", "Cannot create new map during rehash");
}

TEST_F(Hashmap, OrderedIteratorMovesPeeksAndStops) {
    ow_hashmap* m = make();
    for (const char* k : {"one", "two", "three"}) ASSERT_TRUE(put(m, k, k));
    ow_map_iterator* it = ow_map_iterator_start_ex(m, 1);
    const char* k = nullptr;
    EXPECT_EQ(ow_map_iterator_cur(it), nullptr);
    EXPECT_TRUE(ow_map_iterator_peek_prev(it, &k, nullptr));
    EXPECT_STREQ(k, "three");
    EXPECT_FALSE(ow_map_iterator_peek_next(it, nullptr, nullptr));
    ASSERT_TRUE(ow_map_iterator_prev(it, &k, nullptr));
    EXPECT_STREQ(k, "three");
    EXPECT_STREQ(ow_map_iterator_cur(it)->key, "three");
    EXPECT_FALSE(ow_map_iterator_peek_next(it, nullptr, nullptr));  // at the last pair
    EXPECT_FALSE(ow_map_iterator_next(it, nullptr, nullptr));
    EXPECT_FALSE(ow_map_iterator_next(it, nullptr, nullptr));
    ASSERT_TRUE(ow_map_iterator_prev(it, &k, nullptr));  // back from past the end
    EXPECT_STREQ(k, "three");
    ASSERT_TRUE(ow_map_iterator_prev(it, &k, nullptr));
    ASSERT_TRUE(ow_map_iterator_prev(it, &k, nullptr));
    EXPECT_STREQ(k, "one");
    EXPECT_FALSE(ow_map_iterator_peek_prev(it, nullptr, nullptr));  // at the first pair
    EXPECT_FALSE(ow_map_iterator_prev(it, nullptr, nullptr));       // now before the first
    EXPECT_FALSE(ow_map_iterator_prev(it, nullptr, nullptr));
    ASSERT_TRUE(ow_map_iterator_peek_next(it, &k, nullptr));
    EXPECT_STREQ(k, "one");
    ASSERT_TRUE(ow_map_iterator_next(it, &k, nullptr));
    EXPECT_STREQ(k, "one");
    ow_map_iterator_end(it);

    ow_hashmap* empty = make();
    ow_map_iterator e;
    ow_map_iterator_init(&e, empty);
    EXPECT_FALSE(ow_map_iterator_peek_next(&e, nullptr, nullptr));
    EXPECT_FALSE(ow_map_iterator_next(&e, nullptr, nullptr));
    EXPECT_FALSE(ow_map_iterator_prev(&e, nullptr, nullptr));
    EXPECT_NO_ERRORS();
}

TEST_F(Hashmap, IndexWalksFromTheNearerEnd) {
    ow_hashmap* m = make();
    std::vector<std::string> keys;
    for (int i = 0; i < 9; ++i) keys.push_back("idx" + std::to_string(i));
    for (const auto& k : keys) ASSERT_TRUE(put(m, k, k));
    for (uint32_t i = 0; i < keys.size(); ++i) {
        const char* k = nullptr;
        void* v = nullptr;
        ASSERT_TRUE(ow_map_index(m, i, &k, &v));
        EXPECT_EQ(k, keys[i]);
        EXPECT_EQ(static_cast<const char*>(v), keys[i]);
    }
    EXPECT_NO_ERRORS();
    const char* untouched = "untouched";
    EXPECT_FALSE(ow_map_index(m, 9, &untouched, nullptr));
    EXPECT_STREQ(untouched, "untouched");
    EXPECT_ERROR_LINE("ow_map_index", std::strerror(EINVAL));
    ow::testing::fail_allocation(1);
    EXPECT_FALSE(ow_map_index(m, 1, nullptr, nullptr));
    EXPECT_ERROR_LINE("__map_index_forward", "Failed to create map iterator");
}

TEST_F(Hashmap, StaticMapsAreReadOnlyAndVisitEverySlotOnceEachWay) {
    hash_pair_t p0{}, p2{}, p4{};
    char k0[] = "zero", k2[] = "two", k4[] = "four";
    p0.key = k0;
    p2.key = k2;
    p4.key = k4;
    hash_pair_t* slots[5] = {};
    for (hash_pair_t* p : {&p0, &p2, &p4}) {
        p->hash = ow_map_hash(p->key);
        // A static map of one bucket of five slots: the generator places pairs in order.
    }
    slots[0] = &p0;
    slots[2] = &p2;
    slots[4] = &p4;
    ow_hashmap s{};
    s.flags = MAP_FLAG_STATIC;
    s.num_buckets = 1;
    s.bucket_size = 5;
    s.map_size = 5;
    s.num_pairs = 3;
    s.const_pairs = slots;

    EXPECT_TRUE(ow_map_fetch(&s, "two", nullptr));
    EXPECT_EQ(keys_forward(&s), (std::vector<std::string>{"zero", "two", "four"}));
    EXPECT_EQ(keys_backward(&s), (std::vector<std::string>{"zero", "two", "four"}));
    ow_map_iterator it;
    ow_map_iterator_init(&it, &s);
    const char* k = nullptr;
    ASSERT_TRUE(ow_map_iterator_peek_next(&it, &k, nullptr));
    EXPECT_STREQ(k, "zero");
    ASSERT_TRUE(ow_map_iterator_next(&it, nullptr, nullptr));
    EXPECT_EQ(ow_map_iterator_cur(&it), &p0);
    ASSERT_TRUE(ow_map_iterator_next(&it, nullptr, nullptr));
    ASSERT_TRUE(ow_map_iterator_peek_prev(&it, &k, nullptr));
    EXPECT_STREQ(k, "zero");
    const char* key = nullptr;
    ASSERT_TRUE(ow_map_index(&s, 2, &key, nullptr));
    EXPECT_STREQ(key, "four");
    EXPECT_NO_ERRORS();

    int v = 1;
    EXPECT_FALSE(ow_map_store_ex(&s, "x", &v, 4, false, nullptr));
    EXPECT_FALSE(ow_map_remove(&s, "two"));
    EXPECT_FALSE(ow_map_rename(&s, "two", "deux"));
    EXPECT_FALSE(ow_map_clear(&s));
    EXPECT_FALSE(ow_map_rehash(&s));
    ow_map_destroy(&s);
    EXPECT_ERROR_LINE("ow_map_store_ex", "Attempting to store entries in a static hashmap!");
    EXPECT_ERROR_LINE("ow_map_remove", "Attempting to remove entries from a static hashmap!");
    EXPECT_ERROR_LINE("ow_map_rename", "Attempting to rename entries in a static hashmap!");
    EXPECT_ERROR_LINE("ow_map_clear", "Attempting to clear a static hashmap!");
    EXPECT_ERROR_LINE("ow_map_rehash", "Attempting to rehash a static hashmap!");
    EXPECT_ERROR_LINE("ow_map_destroy", "Attempting to destroy a static hashmap!");
    EXPECT_EQ(ow_map_count(&s), 3u);
}

TEST_F(Hashmap, NullArgumentsAreRefusedWithEinval) {
    const std::string einval = std::strerror(EINVAL);
    ow_hashmap* m = make();
    EXPECT_FALSE(ow_map_store_ex(nullptr, "k", nullptr, 0, false, nullptr));
    EXPECT_FALSE(ow_map_store_ex(m, nullptr, nullptr, 0, false, nullptr));
    EXPECT_FALSE(ow_map_fetch(nullptr, "k", nullptr));
    EXPECT_FALSE(ow_map_remove(m, nullptr));
    EXPECT_FALSE(ow_map_rename(m, "a", nullptr));
    EXPECT_FALSE(ow_map_clear(nullptr));
    EXPECT_FALSE(ow_map_rehash(nullptr));
    EXPECT_EQ(ow_map_iterator_start_ex(nullptr, 0), nullptr);
    EXPECT_EQ(ow_map_count(nullptr), 0u);
    ow_map_destroy(nullptr);
    for (const char* f :
         {"ow_map_store_ex", "ow_map_fetch", "ow_map_remove", "ow_map_rename", "ow_map_clear",
          "ow_map_rehash", "ow_map_iterator_start_ex", "ow_map_destroy"}) {
        EXPECT_ERROR_LINE(f, einval);
    }
    // The empty key is an ordinary key.
    ASSERT_TRUE(put(m, "", "empty"));
    EXPECT_EQ(get(m, ""), "empty");
    EXPECT_TRUE(ow_map_remove(m, ""));
}

}  // namespace

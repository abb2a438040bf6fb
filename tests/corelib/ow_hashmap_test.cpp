#include "ow_hashmap.h"

#include <functional>
#include <random>
#include <set>
#include <sstream>

#include "ow_internal.hpp"
#include "scratch.hpp"

namespace {

namespace fs = std::filesystem;
using keys_t = std::vector<std::string>;

// "key=value ..." of a map of string values in iteration order; each length counts the NUL.
std::string contents(const ow_hashmap* m) {
    std::string out;
    for (const hash_pair_t* p = m->first; p != nullptr; p = p->next) {
        const char* v = static_cast<const char*>(p->value);
        EXPECT_EQ(p->length, std::strlen(v) + 1) << p->key;
        out += (p == m->first ? "" : " ") + std::string(p->key) + "=" + v;
    }
    return out;
}

class Hashmap : public ow_test::ScratchTest {
   protected:
    void TearDown() override {
        for (auto* m : maps_) ow_map_destroy(m);
        ScratchTest::TearDown();
    }
    // A (0, 0) map, destroyed with the test, holding each key with itself as value.
    ow_hashmap* make(const keys_t& keys = {}) {
        ow_hashmap* m = maps_.emplace_back(ow_map_create(0, 0));
        for (const auto& k : keys) EXPECT_TRUE(put(m, k, k)) << k;
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
    // The keys in iteration order, found walking forward and, from past the end, backward.
    static void expect_order(const ow_hashmap* m, const keys_t& expected) {
        keys_t fwd, bwd;
        ow_map_iterator *f = ow_map_iterator_start_ex(m, 0), *b = ow_map_iterator_start_ex(m, 1);
        for (const char* k; ow_map_iterator_next(f, &k, nullptr);) fwd.push_back(k);
        for (const char* k; ow_map_iterator_prev(b, &k, nullptr);) bwd.push_back(k);
        ow_map_iterator_end(f);
        ow_map_iterator_end(b);
        EXPECT_EQ(fwd, expected);
        EXPECT_EQ(keys_t(bwd.rbegin(), bwd.rend()), expected);
    }
    // The first n keys "k<i>" whose hash passes `keep`.
    static keys_t keys_where(size_t n, const std::function<bool(uint32_t)>& keep) {
        keys_t out;
        for (int i = 0; out.size() < n; ++i) {
            std::string k = "k" + std::to_string(i);
            if (keep(ow_map_hash(k.c_str()))) out.push_back(k);
        }
        return out;
    }
    std::string render(void (*fn)(FILE*, const ow_hashmap*, const char*), const ow_hashmap* m,
                       const char* name = nullptr) {
        FILE* out = std::fopen(path("rendered").c_str(), "w");
        fn(out, m, name);
        std::fclose(out);
        return ow_test::slurp(path("rendered"));
    }
    std::vector<ow_hashmap*> maps_;
};

// Runs steps "<op>:<key>" on it: n/p move to the next/previous pair, N/P peek at it; <key> is
// the key reached, "-" for none. A move must also leave the iterator on what it reported.
// "r:-" removes the pair the iterator stands on, "r:x" expects that to be refused.
void run_script(ow_map_iterator* it, const std::string& script) {
    std::istringstream in(script);
    for (std::string step; in >> step;) {
        SCOPED_TRACE(step);
        const char* k = nullptr;
        if (step[0] == 'r') {
            EXPECT_EQ(ow_map_iterator_remove(it), step[2] == '-');
            EXPECT_EQ(ow_map_iterator_cur(it), nullptr);
            continue;
        }
        const bool reached = step[0] == 'n'   ? ow_map_iterator_next(it, &k, nullptr)
                             : step[0] == 'p' ? ow_map_iterator_prev(it, &k, nullptr)
                             : step[0] == 'N' ? ow_map_iterator_peek_next(it, &k, nullptr)
                                              : ow_map_iterator_peek_prev(it, &k, nullptr);
        EXPECT_EQ(std::string(reached ? k : "-"), step.substr(2));
        if (step[0] == 'n' || step[0] == 'p') {
            const hash_pair_t* cur = ow_map_iterator_cur(it);
            EXPECT_EQ(std::string(cur != nullptr ? cur->key : "-"), step.substr(2));
        }
    }
}

int g_freed = 0;
void counting_free(void* p) {
    ++g_freed;
    std::free(p);
}

TEST_F(Hashmap, HashFollowsTheAlgorithmWithUnsignedTailBytes) {
    // 0xe9 counts as 233, not -23.
    const std::pair<const char*, uint32_t> cases[] = {
        {"a", 291415938u},     {"ab", 1366002500u},    {"abc", 3535673738u},
        {"abcd", 3671636187u}, {"abcde", 1374488366u}, {"ardvex_version", 1838784686u},
        {"\xe9", 2099089130u}, {"ab\xe9", 1558931023u}};
    for (const auto& [key, hash] : cases) EXPECT_EQ(ow_map_hash(key), hash) << key;
    EXPECT_NO_ERRORS();
    EXPECT_EQ(ow_map_hash("") + ow_map_hash(nullptr), 0u);
    EXPECT_ERROR_LINE("__super_fast_hash", std::strerror(EINVAL));
    EXPECT_ERROR_LINE("ow_map_hash", std::strerror(EINVAL));
    EXPECT_EQ(ow_map_count(nullptr), 0u);
    ow_map_destroy(nullptr);
}

TEST_F(Hashmap, GeometryIsBounded) {
    // 65535 * 65537 == UINT32_MAX passes the size check; failing the slot array allocation
    // (the second one) proves it got that far without allocating 32 GiB.
    ow::testing::fail_allocation(2);
    EXPECT_EQ(ow_map_create(65535, 65537), nullptr);
    EXPECT_ERROR_LINE("ow_map_create", "Failed to initialize buckets of new map");
    EXPECT_EQ(ow_map_create(65536, 65537), nullptr);
    EXPECT_ERROR_LINE("ow_map_create",
                      "Cannot create a map that big! (65536 buckets * 65537 bucket size > "
                      "UINT32_MAX)");

    // Growth stops at the last prime and past the table of primes.
    ow_hashmap at_max{}, odd{};
    at_max.num_buckets = 4294967291u;
    odd.num_buckets = 3000000000u;
    EXPECT_FALSE(ow_map_rehash(&at_max) || ow_map_rehash(&odd));
    EXPECT_ERROR_LINE("ow_map_rehash", "Map is at max size: 4294967291 buckets.");
    EXPECT_ERROR_LINE("ow_map_rehash", "Cannot determine new table size.");
}

// A 14th key for a full bucket of 13, stored or renamed: the map grows, or nothing changes.
TEST_F(Hashmap, FullBucketGrowsOrFailsWithEveryPairInPlace) {
    keys_t keys = keys_where(14, [](uint32_t h) { return h % 5 == 1; });
    const std::string target = keys.back();
    keys.back() = "mover";  // another bucket
    ow_hashmap* m = make(keys);
    const auto unchanged = [&] {
        EXPECT_EQ(m->num_buckets, 5u);
        EXPECT_EQ(ow_map_count(m), 14u);
        for (const auto& k : keys) ASSERT_EQ(get(m, k), k);
        expect_order(m, keys);
    };
    // Allocations of the store: pair with its key, value copy, then the grown map and table.
    for (long n = 1; n <= 4; ++n) {
        SCOPED_TRACE(n);
        ow::testing::fail_allocation(n, true);
        EXPECT_FALSE(put(m, target, "x"));
        ow::testing::fail_allocation(0);
        unchanged();
    }
    EXPECT_ERROR_LINE("ow_map_store_ex",
                      "Cannot create new key-value pair when attemping to store data in map");
    EXPECT_ERROR_LINE("ow_map_rehash", "Cannot create new map during rehash");
    EXPECT_ERROR_LINE("__map_store", "Failed to rehash map.?");
    ow::testing::fail_allocation(2, true);  // the key copy succeeds, the growth does not
    EXPECT_FALSE(ow_map_rename(m, "mover", target.c_str()));
    ow::testing::fail_allocation(0);
    EXPECT_ERROR_LINE("ow_map_rename", "Failed to store pair with new key [" + target +
                                           "] for map entry rename! Map may be corrupted!");
    unchanged();

    // A rename never overwrites, nor makes a pair up.
    EXPECT_FALSE(ow_map_rename(m, "mover", keys[0].c_str()) || ow_map_rename(m, "no", "z"));
    ASSERT_TRUE(ow_map_rename(m, "mover", target.c_str()));
    EXPECT_EQ(m->num_buckets, 11u);  // the next prime
    EXPECT_EQ(get(m, target), "mover");
    ASSERT_TRUE(put(m, "mover", "again"));  // the old key is gone
    keys.back() = target;
    keys.push_back("mover");
    expect_order(m, keys);

    ow_hashmap* fresh = make();
    ow::testing::fail_allocation(3);  // pair, copy, table
    EXPECT_FALSE(put(fresh, "k", "v"));
    EXPECT_ERROR_LINE("__map_store", "Failed to initialize new map");
}

TEST_F(Hashmap, ValuesAreReleasedPerOwnership) {
    g_freed = 0;
    ow_hashmap* m = ow_map_create(0, 0);
    // A value handed over without copy stays the caller's when the store fails.
    ASSERT_TRUE(put(m, "k", "first"));
    char* mine = strdup("mine");
    EXPECT_FALSE(ow_map_store_ex(m, "k", mine, 5, false, counting_free));
    std::free(mine);
    for (const char* k : {"a", "b", "c"})
        ASSERT_TRUE(ow_map_store_ex(m, k, strdup(k), 2, false, counting_free));
    int stack_value = 7;
    ASSERT_TRUE(ow_map_store_ex(m, "borrowed", &stack_value, sizeof stack_value, false, nullptr));
    ASSERT_TRUE(ow_map_store_ex(m, "copied", &stack_value, sizeof stack_value, true, std::free));
    EXPECT_TRUE(ow_map_remove(m, "a"));
    EXPECT_EQ(g_freed, 1);
    EXPECT_TRUE(ow_map_clear(m));
    EXPECT_EQ(g_freed, 3);
    EXPECT_EQ(ow_map_count(m), 0u);
    expect_order(m, {});
    EXPECT_EQ(m->map_size, 65u);  // clear keeps the table
    ASSERT_TRUE(ow_map_store_ex(m, "e", strdup("e"), 2, false, counting_free));
    ow_map_destroy(m);
    EXPECT_EQ(g_freed, 4);

    EXPECT_FALSE(ow_map_store_ex(make(), "x", &stack_value, 4, true, counting_free));
    EXPECT_ERROR_LINE("ow_map_store_ex",
                      "Cannot request 'copy' and specify a freefn that isn't 'void free(void *)'");
}

// Buckets narrower and wider than one 16-slot scan, of keys whose hashes share the top byte:
// each key in its own slot, a hole refilled in place, only an overflowing key grows the map.
TEST_F(Hashmap, WideBucketsAndLookalikeHashesKeepKeysApart) {
    const keys_t lookalikes = keys_where(42, [](uint32_t h) { return h >> 24 <= 1; });
    for (uint32_t width : {1u, 15u, 16u, 17u, 33u, 40u}) {
        SCOPED_TRACE(width);
        ow_hashmap* m = maps_.emplace_back(ow_map_create(1, width));
        const keys_t keys(lookalikes.begin(), lookalikes.begin() + width);
        for (const auto& k : keys) ASSERT_TRUE(put(m, k, k));
        for (uint32_t i = 0; i < width; ++i) ASSERT_EQ(m->pairs[i]->key, keys[i]);
        for (const auto& k : keys) ASSERT_EQ(get(m, k), k);
        EXPECT_EQ(get(m, lookalikes[width]), "<absent>");
        EXPECT_FALSE(put(m, keys.back(), "twice"));

        const uint32_t hole = width / 2;
        ASSERT_TRUE(ow_map_remove(m, keys[hole].c_str()));
        ASSERT_TRUE(put(m, keys[hole], "back"));
        EXPECT_EQ(m->pairs[hole]->key, keys[hole]);

        ASSERT_TRUE(put(m, lookalikes[width], "over"));
        EXPECT_GE(m->num_buckets, 5u);
        EXPECT_EQ(m->bucket_size, width);
        for (uint32_t i = 0; i < width; ++i)
            ASSERT_EQ(get(m, keys[i]), i == hole ? "back" : keys[i]);
        EXPECT_EQ(get(m, lookalikes[width]), "over");
    }
    EXPECT_NO_ERRORS();
}

TEST_F(Hashmap, StaticMapsAreReadOnlyAndVisitEverySlotOnceEachWay) {
    // One bucket of five slots as the generator lays it out, the first and the last used.
    hash_pair_t p[3] = {};
    for (int i = 0; const char* name : {"zero", "two", "four"}) {
        p[i].key = const_cast<char*>(name);
        p[i++].hash = ow_map_hash(name);
    }
    hash_pair_t* slots[5] = {&p[0], nullptr, &p[1], nullptr, &p[2]};
    ow_hashmap s{MAP_FLAG_STATIC, 1, 5, 5, 3, {slots}, nullptr, nullptr};

    expect_order(&s, {"zero", "two", "four"});
    ow_map_iterator it;
    ow_map_iterator_init(&it, &s);
    run_script(&it, "P:- N:zero n:zero n:two P:zero p:zero p:- n:zero n:two n:four n:- p:four");
    const char* key = nullptr;
    EXPECT_TRUE(ow_map_index(&s, 2, &key, nullptr) && std::strcmp(key, "four") == 0);
    EXPECT_NO_ERRORS();

    int v = 1;
    EXPECT_FALSE(ow_map_store_ex(&s, "x", &v, 4, false, nullptr) || ow_map_remove(&s, "two") ||
                 ow_map_rename(&s, "two", "deux") || ow_map_clear(&s) || ow_map_rehash(&s) ||
                 ow_map_update_ex(&s, "two", &v, 4, true, nullptr) || ow_map_shrink(&s) != nullptr);
    ow_map_destroy(&s);
    EXPECT_ERROR_LINE("ow_map_store_ex", "Attempting to store entries in a static hashmap!");
    EXPECT_ERROR_LINE("ow_map_update_ex", "Attempting to update entries in a static hashmap!");
    EXPECT_ERROR_LINE("ow_map_remove", "Attempting to remove entries from a static hashmap!");
    EXPECT_ERROR_LINE("ow_map_rename", "Attempting to rename entries in a static hashmap!");
    EXPECT_ERROR_LINE("ow_map_shrink", "Attempting to shrink a static hashmap!");
    EXPECT_ERROR_LINE("ow_map_clear", "Attempting to clear a static hashmap!");
    EXPECT_ERROR_LINE("ow_map_rehash", "Attempting to rehash a static hashmap!");
    EXPECT_ERROR_LINE("ow_map_destroy", "Attempting to destroy a static hashmap!");
    // A copy of a static map is an ordinary map in the same order.
    ow_hashmap* copy = maps_.emplace_back(ow_map_copy_ex(&s, 0, 0));
    EXPECT_TRUE(ow_map_remove(copy, "two"));
    expect_order(copy, {"zero", "four"});
}

// Removing through the iterator leaves it in a gap both directions go on from (ASan: no stale
// pointer), first and last pairs included.
TEST_F(Hashmap, IteratorRemoveLeavesAGapBothDirectionsLeave) {
    const std::tuple<uint32_t, const char*, keys_t> cases[] = {
        // Past the end, at the last pair, past the end again, down to before the first pair.
        {1,
         "P:three N:- p:three N:- n:- n:- p:three p:two p:one P:- p:- p:- N:one n:one",
         {"one", "two", "three"}},
        {0, "r:x n:one r:- r:x P:- N:two n:two n:three r:- N:- p:two n:-", {"two"}},
        {0, "n:one n:two r:- p:one n:three n:- r:x", {"one", "three"}},
        {1, "p:three r:- p:two r:- p:one r:- p:- n:-", {}},
        {1, "r:x p:three p:two r:- n:three p:one r:- n:three p:-", {"three"}},
    };
    for (const auto& [direction, script, left] : cases) {
        SCOPED_TRACE(script);
        ow_hashmap* m = make({"one", "two", "three"});
        ow_map_iterator* it = ow_map_iterator_start_ex(m, direction);
        run_script(it, script);
        ow_map_iterator_end(it);
        expect_order(m, left);
        EXPECT_EQ(ow_map_count(m), left.size());
    }
    EXPECT_ERROR_LINE("ow_map_iterator_remove", std::strerror(EINVAL));
}

TEST_F(Hashmap, TypedValuesLiveInTheValueWord) {
    ow_hashmap* m = make({"text"});
    ASSERT_TRUE(ow_map_store_int32(m, "i32", -1) && ow_map_store_int64(m, "i64", INT64_MIN) &&
                ow_map_store_uint64(m, "u64", ~0ull) && ow_map_store_double(m, "d", -2.5) &&
                ow_map_store_float(m, "f", 0.25f) && ow_map_store_uint32(m, "u32", 7) &&
                ow_map_store_bool(m, "b", true));
    EXPECT_FALSE(ow_map_store_bool(m, "b", false));  // the key exists: the first value stays
    std::tuple<uint32_t, int64_t, uint64_t, double, float, bool> got{};
    auto& [u32, i64, u64, d, f, b] = got;
    EXPECT_TRUE(ow_map_fetch_uint32(m, "i32", &u32) && ow_map_fetch_int64(m, "i64", &i64) &&
                ow_map_fetch_uint64(m, "u64", &u64) && ow_map_fetch_double(m, "d", &d) &&
                ow_map_fetch_float(m, "f", &f) && ow_map_fetch_bool(m, "b", &b));
    EXPECT_EQ(got, std::tuple(4294967295u, INT64_MIN, ~0ull, -2.5, 0.25f, true));
    EXPECT_EQ(m->last->length, 1u);
    ASSERT_TRUE(ow_map_update_bool(m, "b", false));
    EXPECT_TRUE(ow_map_fetch_bool(m, "b", &b) && !b);
    // Updating a private string copy releases it (LeakSanitizer would see it otherwise).
    ASSERT_TRUE(ow_map_update_int64(m, "text", 5));
    EXPECT_TRUE(m->first->length == 8 && m->first->flags == 0);
    EXPECT_FALSE(ow_map_update_int32(m, "missing", 1));  // an update never adds a pair
    // update_ex copies like a store and refuses what a store refuses.
    char text[] = "fresh";
    ASSERT_TRUE(ow_map_update_ex(m, "d", text, sizeof text, true, nullptr));
    text[0] = 'X';
    EXPECT_EQ(get(m, "d"), "fresh");
    EXPECT_FALSE(ow_map_update_ex(m, "d", text, 6, true, counting_free));
    EXPECT_ERROR_LINE("ow_map_update_ex",
                      "Cannot request 'copy' and specify a freefn that isn't 'void free(void *)'");
}

TEST_F(Hashmap, FirstLastFindSortAndSize) {
    ow_hashmap* m = make();
    EXPECT_FALSE(ow_map_get_first_entry(m, nullptr, nullptr));
    for (const char* k : {"pear", "apple", "fig"}) ASSERT_TRUE(put(m, k, std::string(k) + "!"));
    ASSERT_TRUE(ow_map_store_uint32(m, "n", 42));
    const char *first = nullptr, *last = nullptr, *apple = nullptr, *n = nullptr, *kiwi = nullptr;
    // By the bytes behind the value, or of a typed value's word; the needle spans the longest.
    const uint64_t answer = 42;
    EXPECT_TRUE(ow_map_get_first_entry(m, &first, nullptr) &&
                ow_map_get_last_entry(m, &last, nullptr) &&
                ow_map_find(m, "apple!", nullptr, &apple) && ow_map_find(m, &answer, nullptr, &n));
    EXPECT_EQ(keys_t({first, last, apple, n}), (keys_t{"pear", "n", "apple", "n"}));
    EXPECT_FALSE(ow_map_find(m, "kiwi!!!", nullptr, &kiwi));

    const auto by_string = [](const void* a, const void* b) {
        return std::strcmp(*static_cast<char* const*>(a), *static_cast<char* const*>(b));
    };
    ASSERT_TRUE(ow_map_sort(m, by_string, true));
    expect_order(m, {"apple", "fig", "n", "pear"});
    EXPECT_EQ(ow_map_memory_size(m), sizeof(ow_hashmap) + 65 * sizeof(void*) +
                                         4 * sizeof(hash_pair_t) + (5 + 6) + (6 + 7) + (4 + 5) +
                                         (2 + 4));
    EXPECT_NO_ERRORS();
}

// Values the source owns are copied; shared ones are released once, by their last holder.
TEST_F(Hashmap, CopiesOwnTheirCopiesAndShareTheRestSafely) {
    for (bool source_first : {true, false}) {
        SCOPED_TRACE(source_first);
        g_freed = 0;
        ow_hashmap* src = ow_map_create(0, 0);
        ASSERT_TRUE(put(src, "copy", "mine"));
        ASSERT_TRUE(ow_map_store_ex(src, "shared", strdup("s"), 2, false, counting_free));
        ASSERT_TRUE(ow_map_store_ex(src, "gone", strdup("g"), 2, false, counting_free));
        ASSERT_TRUE(ow_map_store_int32(src, "n", -3));
        ow_hashmap* copy = ow_map_copy_ex(src, 0, 0);
        ow_hashmap* copy2 = ow_map_copy_ex(copy, 1, 2);  // grows past 1 x 2
        ASSERT_NE(copy2, nullptr);
        expect_order(copy2, {"copy", "shared", "gone", "n"});
        void *a = nullptr, *b = nullptr, *c = nullptr, *d = nullptr;
        ASSERT_TRUE(ow_map_fetch(src, "copy", &a) && ow_map_fetch(copy, "copy", &b) &&
                    ow_map_fetch(src, "shared", &c) && ow_map_fetch(copy, "shared", &d));
        EXPECT_TRUE(a != b && c == d);
        EXPECT_TRUE(ow_map_remove(copy, "gone") && ow_map_update_int32(copy2, "gone", 1));
        EXPECT_EQ(g_freed, 0);
        ow_map_destroy(source_first ? src : copy2);
        ow_map_destroy(copy);
        EXPECT_EQ(g_freed, source_first ? 1 : 0);  // "gone" goes with its last holder, src
        ow_map_destroy(source_first ? copy2 : src);
        EXPECT_EQ(g_freed, 2);
    }
    // Allocations of a copy: the map record, its table, the iterator, then the first pair.
    const std::pair<const char*, const char*> failures[] = {
        {"ow_map_copy_ex", "Failed to create empty map for copying"},
        {"ow_map_create", "Failed to initialize buckets of new map"},
        {"ow_map_copy_ex", "Failed to create map iterator"},
        {"ow_map_copy_ex", "Failed to copy map element [key = a]"}};
    ow_hashmap* six = make({"a", "b", "c", "d", "e", "f"});
    for (long n = 1; n <= 4; ++n) {
        ow::testing::fail_allocation(n);
        EXPECT_EQ(ow_map_copy_ex(six, 0, 0), nullptr);
        EXPECT_ERROR_LINE(failures[n - 1].first, failures[n - 1].second);
    }
    ow_hashmap* small = maps_.emplace_back(ow_map_shrink(six));
    ASSERT_NE(small, nullptr);
    EXPECT_EQ(std::pair(small->num_buckets, small->bucket_size), std::pair(1u, 6u));
    EXPECT_EQ(contents(small), "a=a b=b c=c d=d e=e f=f");
}

// Both texts are read by people and programs outside the library: their layout is fixed.
TEST_F(Hashmap, DumpAndStaticSourceLayOutEverySlot) {
    const std::string d =
        render([](FILE* o, const ow_hashmap* m, const char*) { ow_map_dump(o, m); }, make({"k"}));
    EXPECT_EQ(d.substr(0, d.find("0. ")), "Hashmap (5 buckets, 13 slots per bucket, 1 pairs)\n" +
                                              std::string(53, '=') +
                                              "\n[bucket][slot] <key>:<hash> = <pointer>\n");
    EXPECT_EQ(std::count(d.begin(), d.end(), '\n'), 3 + 65);
    size_t empty = 0;
    for (size_t at = 0; (at = d.find("<null>:00000000 = (nil)\n", at)) != std::string::npos; ++at)
        ++empty;
    EXPECT_EQ(empty, 64u);
    EXPECT_NE(d.find("\n64. [4][12] "), std::string::npos);

    ow_hashmap* m = maps_.emplace_back(ow_map_create(1, 15));
    ASSERT_TRUE(ow_map_store_ex(m, "a\"b", const_cast<char*>("v\n"), 3, true, nullptr) &&
                ow_map_store_int32(m, "n", 7));
    char slots[160];
    std::snprintf(slots, sizeof slots,
                  "        SLOT(0x%x, \"a\\\"b\", \"v\\012\", 0x0),\n"
                  "        SLOT(0x%x, \"n\", (void*)0x7ull, 0x0),\n",
                  ow_map_hash("a\"b"), ow_map_hash("n"));
    EXPECT_EQ(render(gen_static_map_ex, m, "cache"),
              "const ow_hashmap *cache = &(const ow_hashmap){\n   .flags = MAP_FLAG_STATIC,\n"
              "   .num_buckets = 1,\n   .bucket_size = 15,\n   .map_size = 15,\n"
              "   .num_pairs = 2,\n   .const_pairs = (const hash_pair_t *[]) {\n" +
                  std::string(slots) +
                  "        NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL,\n"
                  "        NULL, NULL, NULL\n    }\n};\n");
    ow_hashmap* perfect = maps_.emplace_back(ow_map_create(1, 1));
    ASSERT_TRUE(ow_map_store_ex(perfect, "p", nullptr, 0, false, nullptr));
    EXPECT_EQ(render(gen_static_map_ex, perfect).substr(0, 95),
              "// \\(^_^)/ Yay! A perfect hashmap! (num pairs == num buckets)\n"
              "const ow_hashmap *static_map = &(");
    EXPECT_NO_ERRORS();
}

// The generated source compiles as C11 and gives back every awkward key and value unchanged.
TEST_F(Hashmap, StaticSourceCompilesAndReadsBackEveryPair) {
    const keys_t awkward = {"quote\"", "back\\slash",  "new\nline\ttab", "high\xe9\xff\x80",
                            "",        "tri?\?=graph", "\x01\x7f",       "digit\0017"};
    ow_hashmap* m = make();
    std::set<std::string> expected{"null=-", "n=7"};
    for (size_t i = 0; i < awkward.size(); ++i) {
        const std::string value = i == 4 ? "" : awkward[(i + 1) % awkward.size()] + "\"\\?";
        ASSERT_TRUE(put(m, awkward[i], value));
        expected.insert(awkward[i] + "=" + value);
    }
    ASSERT_TRUE(ow_map_store_ex(m, "null", nullptr, 0, false, nullptr) &&
                ow_map_store_uint32(m, "n", 7));
    ow_test::spit(path("gen.c"), render(gen_static_map_ex, m, "cache"));
    // Each key and value goes out NUL-terminated: no byte of theirs can be mistaken for the end.
    ow_test::spit(path("main.c"), R"(#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include "ow_hashmap.h"
#include "gen.c"
static void out(const char* s) { fwrite(s, 1, strlen(s) + 1, stdout); }
int main(void) {
    ow_map_iterator it;
    const char* k;
    void *v, *fetched;
    unsigned n = 0;
    for (ow_map_iterator_init(&it, cache); ow_map_iterator_next(&it, &k, &v); ++n) {
        if (!ow_map_fetch(cache, k, &fetched) || fetched != v) return 2;
        out(k);
        if (strcmp(k, "n") == 0) printf("%lu%c", (unsigned long)(uintptr_t)v, 0);
        else out(v == NULL ? "-" : v);
    }
    return n == cache->num_pairs ? 0 : 3;
}
)");
#ifdef __SANITIZE_ADDRESS__
    const std::string sanitize = " -fsanitize=address,undefined";
#else
    const std::string sanitize;
#endif
    const std::string cc = "cc -std=c11 -Wall -Wextra -pedantic -Werror" + sanitize + " -I" +
                           ARDVEX_SOURCE_DIR + "/include -o " + path("prog") + " " +
                           path("main.c") + " -L" + ARDVEX_BINARY_DIR + " -Wl,-rpath," +
                           ARDVEX_BINARY_DIR + " -lardvex";
    ASSERT_EQ(ow_test::sh(cc), 0) << cc;
    ASSERT_EQ(ow_test::sh(path("prog") + " > " + path("out")), 0);
    std::istringstream out(ow_test::slurp(path("out")));
    std::set<std::string> got;
    for (std::string k, v; std::getline(out, k, '\0') && std::getline(out, v, '\0');)
        got.insert(k + "=" + v);
    EXPECT_EQ(got, expected);
}

uint32_t u32(const std::string& b, size_t at) {
    uint32_t v;
    std::memcpy(&v, b.data() + at, 4);
    return v;
}
std::string words(std::initializer_list<uint32_t> ws) {
    std::string out;
    for (uint32_t w : ws) out.append(reinterpret_cast<const char*>(&w), 4);
    return out;
}

using MapFile = Hashmap;

TEST_F(MapFile, ImageHasTheDocumentedLayout) {
    const std::string file = path("map");
    ow_hashmap* m = make();
    ASSERT_TRUE(put(m, "a", "1") && put(m, "b", "22") && ow_map_save(m, file.c_str(), true));
    // Header: flags, geometry, pairs, first and last slot; records in slot order: slot, next
    // pair's slot, flags, key and value lengths, then their bytes.
    const uint32_t a = ow_map_hash("a") % 5 * 13, b = ow_map_hash("b") % 5 * 13;
    const std::string rec_a = words({a, b, PAIR_FLAG_COPY, 1, 2}) + std::string("a1\0", 3);
    const std::string rec_b = words({b, 0, PAIR_FLAG_COPY, 1, 3}) + std::string("b22\0", 4);
    EXPECT_EQ(ow_test::slurp(file),
              words({0, 5, 13, 65, 2, a, b}) + (a < b ? rec_a + rec_b : rec_b + rec_a));

    ASSERT_TRUE(ow_map_save(make(), file.c_str(), true));
    EXPECT_EQ(ow_test::slurp(file), std::string(28, '\0'));
    EXPECT_EQ(maps_.emplace_back(ow_map_load(file.c_str()))->map_size, 0u);
}

// Thousands of pairs: growths keep the insertion order, the file keeps that and every slot.
TEST_F(MapFile, GrowthsAndRoundTripKeepSlotsOrderAndValueKinds) {
    const std::string file = path("map");
    ow_hashmap* m = make();
    keys_t keys, kept;
    std::mt19937 rng(7);
    for (int i = 0; i < 3000; ++i) {
        keys.push_back("k" + std::to_string(rng()));
        ASSERT_TRUE(put(m, keys.back(), std::string(rng() % 300, 'v')));
    }
    for (int i = 0; i < 3000; i += 3) ASSERT_TRUE(ow_map_remove(m, keys[i].c_str()));
    for (int i = 0; i < 3000; ++i)
        if (i % 3 != 0) kept.push_back(keys[i]);
    expect_order(m, kept);
    // Positions below half the count are walked to from the front, the others from the back.
    for (uint32_t i : {0u, 1u, 999u, 1000u, 1998u, 1999u}) {
        const char* k = nullptr;
        EXPECT_TRUE(ow_map_index(m, i, &k, nullptr) && k == kept[i]) << i;
    }
    ASSERT_TRUE(
        ow_map_store_ex(m, "int32", reinterpret_cast<void*>(uintptr_t{7}), 4, false, nullptr));
    ASSERT_TRUE(ow_map_store_ex(m, "nine", const_cast<char*>("123456789"), 9, true, nullptr));
    ASSERT_TRUE(ow_map_save(m, file.c_str(), true));

    ow_hashmap* back = maps_.emplace_back(ow_map_load(file.c_str()));
    ASSERT_TRUE(ow_map_save(back, path("again").c_str(), true));
    EXPECT_EQ(ow_test::slurp(path("again")), ow_test::slurp(file));
    EXPECT_NO_ERRORS();

    EXPECT_FALSE(ow_map_index(m, 2002, nullptr, nullptr));
    EXPECT_ERROR_LINE("ow_map_index", std::strerror(EINVAL));
    ow::testing::fail_allocation(1);
    EXPECT_FALSE(ow_map_index(m, 1, nullptr, nullptr));
    EXPECT_ERROR_LINE("__map_index_forward", "Failed to create map iterator");
}

TEST_F(MapFile, SaveReplacesAtomicallyAndRespectsOverwrite) {
    const std::string file = path("map");
    ow_hashmap* m = make({"k"});
    ow_test::spit(file, "old", 0640);
    EXPECT_FALSE(ow_map_save(m, file.c_str(), false));
    EXPECT_EQ(ow_test::slurp(file), "old");
    EXPECT_TRUE(ow_map_save(m, file.c_str(), true));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0640));  // a replaced file keeps it
    ASSERT_TRUE(ow_map_save(m, path("fresh").c_str(), false));
    EXPECT_EQ(fs::status(path("fresh")).permissions(), fs::perms(0644));
    // A link at the path is replaced, never written through.
    ow_test::spit(path("victim"), "x");
    fs::create_symlink(path("victim"), path("link"));
    ASSERT_TRUE(ow_map_save(m, path("link").c_str(), true));
    EXPECT_EQ(ow_test::slurp(path("victim")), "x");
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path("link"))));
    EXPECT_NO_ERRORS();

    fs::create_directory(path("sub"));
    EXPECT_FALSE(ow_map_save(m, path("sub").c_str(), true));
    EXPECT_ERROR_LINE("ow_map_save", "Failed to write the data to the file during save: [" +
                                         std::string(std::strerror(EISDIR)) + "]");
    // Nothing is left behind next to the target: map, fresh, victim, link, sub.
    const auto entries = fs::directory_iterator(dir_);
    EXPECT_EQ(std::distance(begin(entries), end(entries)), 5);

    ASSERT_TRUE(ow_map_store_ex(m, "complex", strdup("x"), 2, false, [](void* p) { free(p); }));
    EXPECT_FALSE(ow_map_save(m, path("never").c_str(), true));
    EXPECT_ERROR_LINE("ow_map_save", "Cannot save complex maps!");
    EXPECT_FALSE(fs::exists(path("never")));
}

TEST_F(MapFile, DamagedImagesAreRefused) {
    const std::string file = path("map");
    ASSERT_TRUE(ow_map_save(make({"alpha", "beta", "gamma"}), file.c_str(), true));
    const std::string good = ow_test::slurp(file);
    // Records 0, 1 and 2 in slot order, and the one of the first pair in insertion order.
    const size_t r1 = 48 + u32(good, 40) + u32(good, 44);
    const size_t r2 = r1 + 20 + u32(good, r1 + 12) + u32(good, r1 + 16);
    const uint32_t first = u32(good, 20), last = u32(good, 24), slot0 = u32(good, 28);
    const size_t r_first = slot0 == first ? 28 : u32(good, r1) == first ? r1 : r2;
    const uint32_t other = (slot0 + 13) % 65;
    const auto with = [&](size_t offset, uint32_t v) {
        std::string b = good;
        std::memcpy(b.data() + offset, &v, 4);
        return b;
    };
    const std::pair<std::string, std::string> cases[] = {
        // image, what follows "Map file [<path>]"
        {good.substr(0, 27), " is too short for a map: 27 bytes"},
        {with(12, 64), " has 5 buckets of 13 slots but claims 64 slots"},
        {with(16, 9), " has an impossible header (9 pairs in 65 slots, first " +
                          std::to_string(first) + ", last " + std::to_string(last) + ")"},
        {with(28, 65), ": record 0 names slot 65, which is out of range or taken"},
        {with(r1, slot0),
         ": record 1 names slot " + std::to_string(slot0) + ", which is out of range or taken"},
        {with(28, other),
         ": record 0 is in slot " + std::to_string(other) + ", outside the bucket of its key"},
        {with(28 + 16, 1000), " ends inside record 0"},
        {good + '\0', " has 1 bytes after its last record"},
        {with(48, 0x78780078), ": record 0 has a key with a NUL byte"},  // "x\0xx"
        {with(20, (first + 1) % 65), " has a broken insertion order"},   // first slot is empty
        {with(r_first + 4, first), " has a broken insertion order"},     // first points at itself
    };
    for (const auto& [image, message] : cases) {
        SCOPED_TRACE(message);
        clear_log();
        ow_test::spit(file, image);
        EXPECT_EQ(ow_map_load(file.c_str()), nullptr);
        EXPECT_ERROR_LINE("ow_map_load", "Map file [" + file + "]" + message);
    }

    ow_test::spit(file, good);
    const long before = ow::testing::allocation_count();
    ow_map_destroy(ow_map_load(file.c_str()));
    const long needed = ow::testing::allocation_count() - before;
    // Every allocation is needed; ASan checks nothing leaks.
    for (long n = 1; n <= needed; ++n) {
        ow::testing::fail_allocation(n);
        EXPECT_EQ(maps_.emplace_back(ow_map_load(file.c_str())), nullptr) << n;
    }
    clear_log();
    EXPECT_EQ(ow_map_load(path("missing").c_str()), nullptr);
    EXPECT_NO_ERRORS();
}

TEST_F(MapFile, ControlFilesFollowTheirSyntax) {
    const std::string file = path("map");
    const std::string unsplit = "Invalid syntax in control file: [" + file + "]";
    const std::string bad_line = "Invalid syntax in control files: [" + file + "]";
    // Text, maximum, result, the pairs ("-": output left alone), the error (empty: none).
    const std::tuple<const char*, uint32_t, int, std::string, std::string> cases[] = {
        {"a = 1\nb=two words # note\n", 0, 1, "a=1 b=two words", ""},
        {"k=v#c\nx = y = z", 0, 1, "k=v x=y = z", ""},
        {"a=1\nb=2\n", 1, 1, "a=1", ""},
        {"a=1\n\nb=2\n", 0, -1, "-", bad_line},
        {"# comment\na=1\n", 0, -1, "-", bad_line},
        {"a=1\nb", 0, -1, "-", unsplit},
        {"a=1\na=2\n", 0, -1, "-", "Failed to store key/value in map"},
        {"", 0, 0, "-", ""},
    };
    ow_hashmap untouched{};
    for (const auto& [text, max, result, pairs, error] : cases) {
        SCOPED_TRACE(text);
        clear_log();
        ow_test::spit(file, text);
        ow_hashmap* out = &untouched;
        ASSERT_EQ(ow_map_load_control_file(file.c_str(), max, '=', &out), result);
        EXPECT_TRUE(error.empty() || ow_test::has_error("ow_map_load_control_file", error))
            << ow_test::dump();
        EXPECT_EQ(out == &untouched ? "-" : contents(maps_.emplace_back(out)), pairs);
    }
}

}  // namespace

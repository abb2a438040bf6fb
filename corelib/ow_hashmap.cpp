// ow_hashmap: a bucketed open-addressing map from strings to byte values. A key's hash picks
// a bucket, a fixed run of slots scanned linearly; a store that finds its bucket full grows
// the whole table to the next prime bucket count. Independently of the table, every pair is
// chained in insertion order, and iteration follows that chain, so a map enumerates its
// pairs in the order they were stored across growth, renames, saving and loading.
//
// Growth and rename are all-or-nothing: the grown table is built completely beside the old
// one and only swapped in once every pair is placed, and a rename makes room for its key
// before it moves the pair, so a failure (out of memory in the middle of a nested growth)
// leaves the map exactly as it was, with every pair reachable.
#include "ow_hashmap.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cctype>
#include <cstddef>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ow_file.h"
#include "ow_internal.hpp"

static_assert(sizeof(void*) == 8, "the map file and static maps assume 64-bit words");
static_assert(offsetof(hash_pair_t, flags) == 0 && offsetof(hash_pair_t, hash) == 4 &&
              offsetof(hash_pair_t, key) == 8 && offsetof(hash_pair_t, value) == 16 &&
              offsetof(hash_pair_t, length) == 24 && offsetof(hash_pair_t, freefn) == 32 &&
              offsetof(hash_pair_t, prev) == 40 && offsetof(hash_pair_t, next) == 48 &&
              sizeof(hash_pair_t) == 56);
static_assert(offsetof(ow_hashmap, flags) == 0 && offsetof(ow_hashmap, num_buckets) == 4 &&
              offsetof(ow_hashmap, bucket_size) == 8 && offsetof(ow_hashmap, map_size) == 12 &&
              offsetof(ow_hashmap, num_pairs) == 16 && offsetof(ow_hashmap, pairs) == 24 &&
              offsetof(ow_hashmap, first) == 32 && offsetof(ow_hashmap, last) == 40 &&
              sizeof(ow_hashmap) == 48);
static_assert(offsetof(ow_map_iterator, first) == 0 && offsetof(ow_map_iterator, last) == 8 &&
              offsetof(ow_map_iterator, slot.map_size) == 8 &&
              offsetof(ow_map_iterator, slot.index) == 12 &&
              offsetof(ow_map_iterator, current) == 16 && offsetof(ow_map_iterator, flags) == 24);

namespace {

// ----------------------------------------------------------------------------------------
// Hashing and table geometry

constexpr uint32_t kDefaultBuckets = 5;
constexpr uint32_t kDefaultBucketSize = 13;

// Bucket counts used by growth; the last entry (the largest prime below 2^32) is never chosen:
// it marks the ceiling.
constexpr uint32_t kPrimes[] = {
    5,         11,        23,        47,         97,          199,        409,      823,
    1741,      3469,      6949,      14033,      28411,       57557,      116731,   236897,
    480881,    976369,    1982627,   4026031,    8175383,     16601593,   33712729, 68460391,
    139022417, 282312799, 573292817, 1164186217, 2364114217u, 4294967291u};
constexpr uint32_t kMaxBuckets = kPrimes[sizeof kPrimes / sizeof kPrimes[0] - 1];

inline uint32_t get16(const unsigned char* p) noexcept {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8);
}

// The hash proper, for data known to hold length > 0 bytes. Inlined into the lookups: a fetch
// is a short chain of dependent steps, and the fewer instructions it takes, the sooner the
// processor reaches the next call's memory accesses while this one's are still on their way.
__attribute__((always_inline)) inline uint32_t hash_bytes(const char* data,
                                                          size_t length) noexcept {
    const auto* d = reinterpret_cast<const unsigned char*>(data);
    uint32_t h = static_cast<uint32_t>(length);
    for (size_t blocks = length >> 2; blocks > 0; --blocks, d += 4) {
        h += get16(d);
        h ^= (h << 16) ^ (get16(d + 2) << 11);
        h += h >> 11;
    }
    switch (length & 3) {
        case 3:
            h += get16(d);
            h ^= h << 16;
            h ^= static_cast<uint32_t>(d[2]) << 18;
            h += h >> 11;
            break;
        case 2:
            h += get16(d);
            h ^= h << 11;
            h += h >> 17;
            break;
        case 1:
            h += d[0];
            h ^= h << 10;
            h += h >> 1;
            break;
        default:
            break;
    }
    h ^= h << 3;
    h += h >> 5;
    h ^= h << 4;
    h += h >> 17;
    h ^= h << 25;
    h += h >> 6;
    return h;
}

// SuperFastHash over the key bytes. Tail bytes are taken as unsigned values, so keys whose
// length is not a multiple of 4 and whose tail holds bytes >= 0x80 hash differently from the
// published reference, which sign-extends them; saved static maps depend on this choice.
uint32_t __super_fast_hash(const char* data, size_t length) {
    if (data == nullptr || length == 0) {
        OW_EINVAL();
        return 0;
    }
    return hash_bytes(data, length);
}

// The map accepts the empty key as an ordinary key with hash 0; only direct calls of
// ow_map_hash report it, so storing or fetching "" does not flood the log.
inline uint32_t key_hash(const char* key) noexcept {
    return key[0] == '\0' ? 0 : hash_bytes(key, std::strlen(key));
}

inline bool is_static(const ow_hashmap* map) noexcept {
    return (map->flags & MAP_FLAG_STATIC) != 0;
}

// ----------------------------------------------------------------------------------------
// Pairs
//
// Every pair the library makes is one allocation: the public record, what only the library
// needs to know about it, and the key bytes. Static maps' constant pairs are bare records;
// nothing below touches the extra fields of a pair in a static map.

// The count of maps holding one value that ow_map_copy_ex shared with its free function.
struct shared_value {
    uint64_t holders;
};

struct pair_node {
    ow_hashmap* owner;             // the map that linked it, for iterator removal
    mutable shared_value* shared;  // set while the value is shared with a copy
    bool typed;                    // the value word holds a number, not a pointer
    hash_pair_t pair;              // followed at once by the key, so both share cache lines
    char key[1];                   // the key's bytes start here
};
static_assert(offsetof(pair_node, key) == offsetof(pair_node, pair) + sizeof(hash_pair_t));

inline pair_node* node_of(hash_pair_t* pair) noexcept {
    return reinterpret_cast<pair_node*>(reinterpret_cast<char*>(pair) - offsetof(pair_node, pair));
}
inline const pair_node* node_of(const hash_pair_t* pair) noexcept {
    return reinterpret_cast<const pair_node*>(reinterpret_cast<const char*>(pair) -
                                              offsetof(pair_node, pair));
}

// The slot table is one block: map_size pair pointers, then one tag byte per slot, then
// kTagPad zero bytes. A tag is 0 for an empty slot, else the top byte of the pair's hash (1
// standing in for 0). A bucket is scanned in its tags alone, 16 at a time, and a pointer is
// followed only for a likely match (about one slot in 255 matches by chance). One byte rather
// than the whole hash keeps the tags of a large table small enough to stay cached, and a
// bucket's tags on one cache line; growth reads the full hash from the pairs instead. Only
// maps the library built have tags; static maps take the plain scan.
constexpr uint32_t kGroup = 16;
constexpr size_t kTagPad = kGroup;  // a group read at the last bucket stays inside the block

inline uint8_t* slot_tags(const ow_hashmap* map) noexcept {
    return reinterpret_cast<uint8_t*>(map->pairs + map->map_size);
}
inline uint8_t tag_of(uint32_t hash) noexcept {
    const auto top = static_cast<uint8_t>(hash >> 24);
    return top != 0 ? top : 1;
}

// Bit i set where tags[i] equals tag, for the 16 tags from tags on.
inline uint32_t group_match(const uint8_t* tags, uint8_t tag) noexcept {
#if defined(__SSE2__)
    const __m128i group = _mm_loadu_si128(reinterpret_cast<const __m128i*>(tags));
    const __m128i same = _mm_cmpeq_epi8(group, _mm_set1_epi8(static_cast<char>(tag)));
    return static_cast<uint32_t>(_mm_movemask_epi8(same));
#else
    uint32_t bits = 0;
    for (uint32_t i = 0; i < kGroup; ++i) bits |= static_cast<uint32_t>(tags[i] == tag) << i;
    return bits;
#endif
}

// The bits of a group that still lie inside a bucket with remaining slots from the group on.
inline uint32_t group_limit(uint64_t remaining) noexcept {
    return remaining >= kGroup ? (1u << kGroup) - 1 : (1u << remaining) - 1;
}

inline uint32_t lowest_bit(uint32_t bits) noexcept {
    return static_cast<uint32_t>(__builtin_ctz(bits));
}

inline void put_slot(ow_hashmap* map, uint64_t slot, hash_pair_t* pair) noexcept {
    assert(slot < map->map_size);
    map->pairs[slot] = pair;
    slot_tags(map)[slot] = tag_of(pair->hash);
}

inline void empty_slot(ow_hashmap* map, uint64_t slot) noexcept {
    assert(slot < map->map_size);
    map->pairs[slot] = nullptr;
    slot_tags(map)[slot] = 0;
}

inline uint64_t bucket_start(const ow_hashmap* map, uint32_t hash) noexcept {
    return static_cast<uint64_t>(hash % map->num_buckets) * map->bucket_size;
}

// Index of the slot of the bucket starting at start that holds key, or -1.
inline int64_t find_in_bucket(const ow_hashmap* map, uint64_t start, const char* key,
                              uint32_t hash) noexcept {
    const uint8_t* tags = slot_tags(map) + start;
    const uint8_t tag = tag_of(hash);
    for (uint64_t group = 0; group < map->bucket_size; group += kGroup) {
        uint32_t bits = group_match(tags + group, tag) & group_limit(map->bucket_size - group);
        for (; bits != 0; bits &= bits - 1) {
            const uint64_t slot = start + group + lowest_bit(bits);
            const hash_pair_t* p = map->pairs[slot];
            if (p->hash == hash && std::strcmp(p->key, key) == 0) {
                return static_cast<int64_t>(slot);
            }
        }
    }
    return -1;
}

// Index of the first empty slot of the bucket starting at start, or -1.
inline int64_t hole_in_bucket(const ow_hashmap* map, uint64_t start) noexcept {
    const uint8_t* tags = slot_tags(map) + start;
    for (uint64_t group = 0; group < map->bucket_size; group += kGroup) {
        const uint32_t bits = group_match(tags + group, 0) & group_limit(map->bucket_size - group);
        if (bits != 0) return static_cast<int64_t>(start + group + lowest_bit(bits));
    }
    return -1;
}

// Index of the slot holding key, or -1.
int64_t find_slot(const ow_hashmap* map, const char* key, uint32_t hash) noexcept {
    if (map->num_buckets == 0 || map->bucket_size == 0 || map->pairs == nullptr) return -1;
    const uint64_t start = bucket_start(map, hash);
    if (is_static(map)) {
        for (uint64_t i = start; i < start + map->bucket_size; ++i) {
            const hash_pair_t* p = map->const_pairs[i];
            if (p != nullptr && p->hash == hash && std::strcmp(p->key, key) == 0) {
                return static_cast<int64_t>(i);
            }
        }
        return -1;
    }
    __builtin_prefetch(map->pairs + start);  // in parallel with the tags: a hit needs both
    return find_in_bucket(map, start, key, hash);
}

// Index of the first empty slot of the bucket of hash, or -1. Never for a static map.
int64_t free_slot(const ow_hashmap* map, uint32_t hash) noexcept {
    if (map->num_buckets == 0 || map->bucket_size == 0 || map->pairs == nullptr) return -1;
    return hole_in_bucket(map, bucket_start(map, hash));
}

// A key measured and hashed once: a store hashes before it allocates, so the bucket it
// will scan is already on its way into the cache while the pair is being built.
struct hashed_key {
    const char* key;
    size_t length;
    uint32_t hash;
};

inline hashed_key hash_key(const char* key) noexcept {
    const size_t length = std::strlen(key);
    return {key, length, length == 0 ? 0 : hash_bytes(key, length)};
}

// Starts loading the tags and pointers of hash's bucket. Never for a static map.
inline void prefetch_bucket(const ow_hashmap* map, uint32_t hash) noexcept {
    if (map->pairs == nullptr || map->num_buckets == 0) return;
    const uint64_t start = bucket_start(map, hash);
    __builtin_prefetch(slot_tags(map) + start, 1);
    __builtin_prefetch(map->pairs + start, 1);
}

hash_pair_t* make_pair(const hashed_key& k, void* value, uint64_t length, bool copy,
                       ow_map_free_fn freefn) noexcept;

hash_pair_t* __create_pair(const char* key, void* value, uint64_t length, bool copy,
                           ow_map_free_fn freefn) {
    return make_pair(hash_key(key), value, length, copy, freefn);
}

hash_pair_t* make_pair(const hashed_key& k, void* value, uint64_t length, bool copy,
                       ow_map_free_fn freefn) noexcept {
    const char* key = k.key;
    const size_t key_length = k.length;
    size_t size = 0;
    if (ow::add_overflows(offsetof(pair_node, key), key_length + 1, &size)) return nullptr;
    auto* node = static_cast<pair_node*>(ow::mem_malloc(size));
    if (node == nullptr) return nullptr;
    hash_pair_t* pair = &node->pair;
    pair->flags = 0;
    pair->hash = k.hash;
    std::memcpy(node->key, key, key_length + 1);
    pair->key = node->key;
    pair->value = value;
    pair->length = length;
    pair->freefn = freefn;
    pair->prev = pair->next = nullptr;
    node->owner = nullptr;
    node->shared = nullptr;
    node->typed = false;
    if (copy && value != nullptr) {
        void* own = length > SIZE_MAX ? nullptr : ow::mem_calloc(1, static_cast<size_t>(length));
        if (own == nullptr && length > 0) {
            std::free(node);
            return nullptr;
        }
        if (length > 0) std::memcpy(own, value, static_cast<size_t>(length));
        pair->value = own;
        pair->flags |= PAIR_FLAG_COPY;
    }
    return pair;
}

// Lets go of a pair's value: through its free function when release is set, else a private
// copy with free. A value shared with a copy of the map is released only by its last holder.
void release_value(hash_pair_t* pair, bool release) noexcept {
    pair_node* node = node_of(pair);
    if (node->shared != nullptr) {
        shared_value* shared = node->shared;
        node->shared = nullptr;
        if (--shared->holders > 0) return;
        std::free(shared);
    }
    if (pair->freefn != nullptr && release) {
        pair->freefn(pair->value);
    } else if ((pair->flags & PAIR_FLAG_COPY) != 0) {
        std::free(pair->value);
    }
}

// release is set when the pair leaves the map for good (remove, clear, destroy); it is clear
// when a store fails, so a value the caller still owns survives.
void __destroy_pair(hash_pair_t* pair, bool release) {
    release_value(pair, release);
    pair_node* node = node_of(pair);
    if (pair->key != node->key) std::free(pair->key);  // renamed: the key is its own block
    std::free(node);
}

// ----------------------------------------------------------------------------------------
// Table

// Large tables are probed at random, one cache line per lookup, so on small pages nearly
// every probe also misses the TLB. Asking for huge pages on the aligned inside of a large
// block (fresh from mmap, not yet touched) makes the probe cost a cache miss only. Only a
// hint: nothing depends on it being honoured.
void advise_huge_pages(void* block, size_t bytes) noexcept {
    constexpr uintptr_t kHuge = uintptr_t{2} << 20;
    if (bytes < 2 * kHuge) return;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(block) + kHuge - 1) & ~(kHuge - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + bytes) & ~(kHuge - 1);
    if (end > begin) (void)::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}

bool __map_init(ow_hashmap* map, uint32_t num_buckets, uint32_t bucket_size) {
    const uint32_t size = num_buckets * bucket_size;  // callers checked the product
    hash_pair_t** slots = nullptr;
    if (size != 0) {
        const size_t bytes = static_cast<size_t>(size) * (sizeof(hash_pair_t*) + 1) + kTagPad;
        slots = static_cast<hash_pair_t**>(ow::mem_calloc(1, bytes));
        if (slots == nullptr) return false;
        advise_huge_pages(slots, bytes);
    }
    map->num_buckets = num_buckets;
    map->bucket_size = bucket_size;
    map->map_size = size;
    map->pairs = slots;
    return true;
}

// The pair holding key, or none: find_slot with the common case, a library map whose buckets
// fit one 16-slot scan, written out so that a fetch stays short (see hash_bytes).
__attribute__((always_inline)) inline hash_pair_t* lookup(const ow_hashmap* map, const char* key,
                                                          uint32_t hash) noexcept {
    const uint32_t width = map->bucket_size;
    if (is_static(map) || width > kGroup || map->num_buckets == 0 || width == 0 ||
        map->pairs == nullptr) {
        const int64_t slot = find_slot(map, key, hash);
        return slot < 0 ? nullptr : map->pairs[slot];
    }
    const uint64_t start = static_cast<uint64_t>(hash % map->num_buckets) * width;
    hash_pair_t* const* slots = map->pairs + start;
    __builtin_prefetch(slots);
    const uint8_t* tags = slot_tags(map) + start;
    for (uint32_t bits = group_match(tags, tag_of(hash)) & group_limit(width); bits != 0;
         bits &= bits - 1) {
        hash_pair_t* p = slots[lowest_bit(bits)];
        if (p->hash == hash && std::strcmp(p->key, key) == 0) return p;
    }
    return nullptr;
}

hash_pair_t* __map_fetch_hash(const ow_hashmap* map, const char* key, uint32_t hash) {
    if (map == nullptr || key == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    return lookup(map, key, hash);
}

void link_last(ow_hashmap* map, hash_pair_t* pair) noexcept {
    pair->next = nullptr;
    if (map->first == nullptr) {
        pair->prev = nullptr;
        map->first = map->last = pair;
    } else {
        pair->prev = map->last;
        map->last->next = pair;
        map->last = pair;
    }
}

void unlink_pair(ow_hashmap* map, hash_pair_t* pair) noexcept {
    if (pair->prev != nullptr && pair->next != nullptr) {
        pair->prev->next = pair->next;
        pair->next->prev = pair->prev;
    } else if (pair->prev != nullptr) {
        map->last = pair->prev;
        pair->prev->next = nullptr;
    } else if (pair->next != nullptr) {
        map->first = pair->next;
        pair->next->prev = nullptr;
    } else {
        map->first = map->last = nullptr;
    }
    pair->prev = pair->next = nullptr;
}

bool __map_store(ow_hashmap* map, hash_pair_t* pair, bool link) {
    if (map->pairs == nullptr) {
        if (!__map_init(map, kDefaultBuckets, kDefaultBucketSize)) {
            OW_ERROR("Failed to initialize new map");
            return false;
        }
    }
    for (;;) {
        // One pass over the bucket finds both a key stored before and the first hole.
        const uint64_t start = bucket_start(map, pair->hash);
        const uint8_t* tags = slot_tags(map) + start;
        const uint8_t tag = tag_of(pair->hash);
        int64_t hole = -1;
        for (uint64_t group = 0; group < map->bucket_size; group += kGroup) {
            const uint32_t limit = group_limit(map->bucket_size - group);
            for (uint32_t bits = group_match(tags + group, tag) & limit; bits != 0;
                 bits &= bits - 1) {
                const hash_pair_t* p = map->pairs[start + group + lowest_bit(bits)];
                if (p->hash == pair->hash && std::strcmp(p->key, pair->key) == 0) {
                    return false;  // a key is never stored twice
                }
            }
            const uint32_t empty = group_match(tags + group, 0) & limit;
            if (hole < 0 && empty != 0) hole = static_cast<int64_t>(group + lowest_bit(empty));
        }
        if (hole >= 0) {
            put_slot(map, start + static_cast<uint64_t>(hole), pair);
            ++map->num_pairs;
            if (link) link_last(map, pair);
            return true;
        }
        if (!ow_map_rehash(map)) {
            OW_ERROR("Failed to rehash map.\n");
            return false;
        }
    }
}

// Places every pair of map into fresh, which already has its new table. The old slots are
// left alone so that a failure half way costs nothing but fresh. Keys are known to be
// distinct, so a pair goes straight to the first hole of its bucket; only a full bucket takes
// the general store, which grows fresh.
bool __map_redistribute(const ow_hashmap* map, ow_hashmap* fresh) {
    // The old table is read in order, but its pairs lie anywhere and the new table is written
    // at random, so both are fetched ahead: a pair kPairAhead slots on, then, once it has
    // arrived, the new bucket of the pair kBucketAhead slots on. The distances count slots; a
    // table grows when about a quarter of its slots are used, so they are some 16 and 8 pairs.
    constexpr uint32_t kPairAhead = 64;
    constexpr uint32_t kBucketAhead = 32;
    hash_pair_t* const* old = map->pairs;
    const uint32_t size = map->map_size;
    uint8_t* fresh_tags = slot_tags(fresh);
    for (uint32_t i = 0; i < size; ++i) {
        if (i + kPairAhead < size && old[i + kPairAhead] != nullptr) {
            __builtin_prefetch(old[i + kPairAhead]);
        }
        if (i + kBucketAhead < size && old[i + kBucketAhead] != nullptr) {
            const uint64_t ahead = bucket_start(fresh, old[i + kBucketAhead]->hash);
            __builtin_prefetch(fresh_tags + ahead, 1);
            __builtin_prefetch(fresh->pairs + ahead, 1);
        }
        hash_pair_t* pair = old[i];
        if (pair == nullptr) continue;
        const int64_t hole = free_slot(fresh, pair->hash);
        if (hole >= 0) {
            fresh->pairs[hole] = pair;
            fresh_tags[hole] = tag_of(pair->hash);
            ++fresh->num_pairs;
        } else if (!__map_store(fresh, pair, false)) {
            OW_ERROR("Failed to store pair");
            return false;
        } else {
            fresh_tags = slot_tags(fresh);  // fresh grew
        }
    }
    return true;
}

// Pairs are small blocks, and glibc keeps freed small blocks aside unmerged until a request
// for a large block makes it sort them all out at once. After a big map is destroyed that
// would fall on whatever asks for a large block next, typically the next map's first growth,
// which would then pay for this map's pairs. A large request here settles them in destroy,
// where the cost belongs. (Called through a volatile pointer: a compiler may otherwise drop
// an allocation that is freed unused.)
constexpr uint32_t kSettleAfterPairs = 4096;
constexpr size_t kSettleRequest = 4096;

void settle_freed_pairs() noexcept {
    void* (*volatile allocate)(size_t) = &std::malloc;
    std::free(allocate(kSettleRequest));
}

// Frees a scratch map's record and table without touching the pairs it points at.
void drop_table(ow_hashmap* fresh) noexcept {
    std::free(fresh->pairs);
    std::free(fresh);
}

// Stores a pair made by the caller, linked last. False when the key exists or the store
// failed; the pair is then destroyed without releasing a value the caller still owns.
bool store_new_pair(ow_hashmap* map, hash_pair_t* pair) noexcept {
    if (!__map_store(map, pair, true)) {
        __destroy_pair(pair, false);
        return false;
    }
    node_of(pair)->owner = map;
    return true;
}

// ----------------------------------------------------------------------------------------
// Iteration

void __static_iterator_start_ex(ow_map_iterator* it, const ow_hashmap* map, uint32_t direction) {
    // Static iterators keep "index" one past the slot they stand on: 0 is before the first
    // slot, so slot 0 is an ordinary slot visited once in each direction.
    it->const_pairs = map->const_pairs;
    it->slot.map_size = map->map_size;
    it->slot.index = 0;
    it->current = nullptr;
    it->flags = MAP_ITER_FLAG_STATIC | (direction == 1 ? MAP_ITER_FLAG_END : 0);
}

void ordered_iterator_start(ow_map_iterator* it, const ow_hashmap* map, uint32_t direction) {
    it->first = map->first;
    it->last = map->last;
    it->current = nullptr;
    it->flags = direction == 1 ? MAP_ITER_FLAG_END : 0;
}

inline bool at_end(const ow_map_iterator* it) noexcept {
    return (it->flags & MAP_ITER_FLAG_END) != 0;
}

// After ow_map_iterator_remove the iterator stands between current (NULL: before the first
// pair) and current's next.
inline bool in_gap(const ow_map_iterator* it) noexcept {
    return (it->flags & MAP_ITER_FLAG_GAP) != 0;
}

// The slot position (1-based) of the next occupied slot after position pos, or 0.
uint32_t static_next_position(const ow_map_iterator* it, uint32_t pos) noexcept {
    for (uint64_t p = static_cast<uint64_t>(pos) + 1; p <= it->slot.map_size; ++p) {
        if (it->const_pairs[p - 1] != nullptr) return static_cast<uint32_t>(p);
    }
    return 0;
}

// The slot position (1-based) of the previous occupied slot before position pos, or 0.
uint32_t static_prev_position(const ow_map_iterator* it, uint64_t pos) noexcept {
    for (uint64_t p = pos; p > 1; --p) {
        if (it->const_pairs[p - 2] != nullptr) return static_cast<uint32_t>(p - 1);
    }
    return 0;
}

// The pair next (forward) or prev (backward) would reach, without moving; for static
// iterators also the position it would move to.
hash_pair_t* candidate(const ow_map_iterator* it, bool forward, uint32_t* position) noexcept {
    if ((it->flags & MAP_ITER_FLAG_STATIC) != 0) {
        uint32_t pos = 0;
        if (forward) {
            if (at_end(it)) return nullptr;
            pos = static_next_position(it, it->slot.index);
        } else {
            const uint64_t from =
                at_end(it) ? static_cast<uint64_t>(it->slot.map_size) + 1 : it->slot.index;
            pos = static_prev_position(it, from);
        }
        if (position != nullptr) *position = pos;
        // The interface hands out pairs as writable records; a static map's stay constant.
        return pos == 0 ? nullptr : const_cast<hash_pair_t*>(it->const_pairs[pos - 1]);
    }
    if (forward) {
        if (at_end(it)) return nullptr;
        return it->current != nullptr ? it->current->next : it->first;
    }
    if (at_end(it)) return it->last;
    if (in_gap(it)) return it->current;  // the pair before the removed one
    return it->current != nullptr ? it->current->prev : nullptr;
}

bool report(const hash_pair_t* pair, const char** key, void** value) noexcept {
    if (pair == nullptr) return false;
    if (key != nullptr) *key = pair->key;
    if (value != nullptr) *value = pair->value;
    return true;
}

bool step(ow_map_iterator* it, bool forward, const char** key, void** value) noexcept {
    uint32_t position = 0;
    hash_pair_t* next = candidate(it, forward, &position);
    if ((it->flags & MAP_ITER_FLAG_STATIC) != 0) {
        if (forward && at_end(it)) return false;
        it->flags &= static_cast<uint8_t>(~MAP_ITER_FLAG_END);
        if (next == nullptr) {
            // Running off either end: forward lands past the end, backward before the start.
            if (forward) it->flags |= MAP_ITER_FLAG_END;
            it->slot.index = 0;
            return false;
        }
        it->slot.index = position;
        return report(next, key, value);
    }
    if (forward) {
        if (at_end(it)) return false;
        it->flags &= static_cast<uint8_t>(~MAP_ITER_FLAG_GAP);
        it->current = next;
        if (next == nullptr) it->flags |= MAP_ITER_FLAG_END;
        return report(next, key, value);
    }
    it->flags &= static_cast<uint8_t>(~MAP_ITER_FLAG_GAP);
    if (!at_end(it) && it->current == nullptr) return false;  // before the first pair
    it->flags &= static_cast<uint8_t>(~MAP_ITER_FLAG_END);
    it->current = next;
    return report(next, key, value);
}

// Steps an iterator started at one end steps + 1 times; the last pair reached is the one
// wanted. False only when the iterator cannot be made; *found is none when a step fell off.
bool walk_to(const ow_hashmap* map, bool forward, uint32_t steps, const char** key, void** value,
             bool* found) {
    ow_map_iterator* it = ow_map_iterator_start_ex(map, forward ? 0 : 1);
    if (it == nullptr) return false;
    const char* k = nullptr;
    void* v = nullptr;
    bool ok = true;
    for (uint32_t i = 0; i <= steps && ok; ++i) {
        ok = forward ? ow_map_iterator_next(it, &k, &v) : ow_map_iterator_prev(it, &k, &v);
    }
    ow_map_iterator_end(it);
    *found = ok;
    if (ok && key != nullptr) *key = k;
    if (ok && value != nullptr) *value = v;
    return true;
}

bool __map_index_forward(const ow_hashmap* map, uint32_t index, const char** key, void** value) {
    bool found = false;
    if (!walk_to(map, true, index, key, value, &found)) {
        OW_ERROR("Failed to create map iterator");
        return false;
    }
    if (!found) OW_ERROR("Failed to iterate to requested index");
    return found;
}

bool __map_index_reverse(const ow_hashmap* map, uint32_t index, const char** key, void** value) {
    bool found = false;
    if (!walk_to(map, false, map->num_pairs - 1 - index, key, value, &found)) {
        OW_ERROR("Failed to create map iterator");
        return false;
    }
    if (!found) OW_ERROR("Failed to iterate to requested index");
    return found;
}

// ----------------------------------------------------------------------------------------
// Map file

constexpr size_t kHeaderSize = 28;
constexpr size_t kRecordHeaderSize = 20;
// A loaded table may be far larger than its pairs need (maps are often created wide), but a
// file claiming billions of slots for a handful of pairs is corrupt, and honouring it would
// allocate gigabytes.
constexpr uint64_t kMaxSlotsWithoutPairs = 1u << 20;
constexpr uint64_t kMaxSlotsPerPair = 64;

inline void put32(unsigned char* at, uint32_t v) noexcept { std::memcpy(at, &v, 4); }
inline uint32_t get32(const unsigned char* at) noexcept {
    uint32_t v;
    std::memcpy(&v, at, 4);
    return v;
}

// The slot holding exactly this pair, searched in its own bucket.
int64_t slot_of(const ow_hashmap* map, const hash_pair_t* pair) noexcept {
    const uint64_t start = static_cast<uint64_t>(pair->hash % map->num_buckets) * map->bucket_size;
    for (uint64_t i = start; i < start + map->bucket_size; ++i) {
        if (map->const_pairs[i] == pair) return static_cast<int64_t>(i);
    }
    return -1;
}

inline bool saved_as_copy(const hash_pair_t* pair) noexcept {
    return pair->length > 8 || (pair->flags & PAIR_FLAG_COPY) != 0;
}

// A name beside path for the new image: same directory, so the rename stays on one file
// system and is atomic.
std::string temp_name_beside(std::string_view path) {
    static unsigned counter = 0;
    return std::string(path) + ".tmp." + std::to_string(::getpid()) + "." +
           std::to_string(++counter);
}

inline bool is_blank(char c) noexcept { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::string_view trimmed(std::string_view s) noexcept {
    while (!s.empty() && is_blank(s.front())) s.remove_prefix(1);
    while (!s.empty() && is_blank(s.back())) s.remove_suffix(1);
    return s;
}

}  // namespace

// ==========================================================================================
// Public interface

extern "C" {

uint32_t ow_map_hash(const char* key) {
    if (key == nullptr) {
        OW_EINVAL();
        return 0;
    }
    return __super_fast_hash(key, std::strlen(key));
}

ow_hashmap* ow_map_create(uint32_t num_buckets, uint32_t bucket_size) {
    if (bucket_size != 0 && UINT32_MAX / bucket_size < num_buckets) {
        OW_ERROR("Cannot create a map that big! (%u buckets * %u bucket size > UINT32_MAX)",
                 num_buckets, bucket_size);
        return nullptr;
    }
    auto* map = static_cast<ow_hashmap*>(ow::mem_calloc(1, sizeof(ow_hashmap)));
    if (map == nullptr) {
        OW_ENOMEM();
        return nullptr;
    }
    if (!__map_init(map, num_buckets, bucket_size)) {
        OW_ERROR("Failed to initialize buckets of new map");
        std::free(map);
        return nullptr;
    }
    return map;
}

uint32_t ow_map_count(const ow_hashmap* map) { return map == nullptr ? 0 : map->num_pairs; }

bool ow_map_store_ex(ow_hashmap* map, const char* key, void* value, uint64_t length, bool copy,
                     ow_map_free_fn freefn) {
    if (map == nullptr || key == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (is_static(map)) {
        OW_ERROR("Attempting to store entries in a static hashmap!");
        return false;
    }
    if (copy && freefn != nullptr && freefn != &std::free) {
        OW_ERROR("Cannot request 'copy' and specify a freefn that isn't 'void free(void *)'");
        return false;
    }
    const hashed_key k = hash_key(key);
    if (!is_static(map)) prefetch_bucket(map, k.hash);
    hash_pair_t* pair = make_pair(k, value, length, copy, freefn);
    if (pair == nullptr) {
        OW_ERROR("Cannot create new key-value pair when attemping to store data in map");
        return false;
    }
    return store_new_pair(map, pair);
}

bool ow_map_fetch(const ow_hashmap* map, const char* key, void** value) {
    if (map == nullptr || key == nullptr) {
        OW_EINVAL();
        return false;
    }
    const hash_pair_t* pair = lookup(map, key, key_hash(key));
    if (pair == nullptr) return false;
    if (value != nullptr) *value = pair->value;
    return true;
}

bool ow_map_remove(ow_hashmap* map, const char* key) {
    if (map == nullptr || key == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (is_static(map)) {
        OW_ERROR("Attempting to remove entries from a static hashmap!");
        return false;
    }
    const int64_t slot = find_slot(map, key, key_hash(key));
    if (slot < 0) return false;
    hash_pair_t* pair = map->pairs[slot];
    unlink_pair(map, pair);
    empty_slot(map, static_cast<uint64_t>(slot));
    --map->num_pairs;
    __destroy_pair(pair, true);
    return true;
}

bool ow_map_rename(ow_hashmap* map, const char* old_key, const char* new_key) {
    if (map == nullptr || old_key == nullptr || new_key == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (is_static(map)) {
        OW_ERROR("Attempting to rename entries in a static hashmap!");
        return false;
    }
    const uint32_t old_hash = key_hash(old_key);
    const uint32_t new_hash = key_hash(new_key);
    if (find_slot(map, old_key, old_hash) < 0 || find_slot(map, new_key, new_hash) >= 0) {
        return false;
    }
    char* copy = ow::dup_cstr(new_key);
    if (copy == nullptr) {
        OW_ENOMEM();
        return false;
    }
    // Make room in the new key's bucket first (growing if needed); until the pair moves,
    // every failure leaves the map as it was. The pair's own slot counts as room when both
    // keys share a bucket.
    int64_t from = find_slot(map, old_key, old_hash);
    int64_t to = free_slot(map, new_hash);
    while (to < 0 && (new_hash % map->num_buckets) != (old_hash % map->num_buckets)) {
        if (!ow_map_rehash(map)) {
            OW_ERROR(
                "Failed to store pair with new key [%s] for map entry rename! Map may be "
                "corrupted!",
                new_key);
            std::free(copy);
            return false;
        }
        from = find_slot(map, old_key, old_hash);
        to = free_slot(map, new_hash);
    }
    if (from < 0) {
        OW_ERROR("Failed to manually remove old pair from map");
        std::free(copy);
        return false;
    }
    hash_pair_t* pair = map->pairs[from];
    empty_slot(map, static_cast<uint64_t>(from));
    if (to < 0) to = free_slot(map, new_hash);  // same bucket: the slot just emptied
    if (pair->key != node_of(pair)->key) std::free(pair->key);
    pair->key = copy;
    pair->hash = new_hash;
    put_slot(map, static_cast<uint64_t>(to), pair);
    return true;
}

bool ow_map_rehash(ow_hashmap* map) {
    if (map == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (is_static(map)) {
        OW_ERROR("Attempting to rehash a static hashmap!");
        return false;
    }
    uint32_t buckets = 0;
    for (size_t i = 0; i + 1 < sizeof kPrimes / sizeof kPrimes[0]; ++i) {
        if (kPrimes[i] > map->num_buckets) {
            buckets = kPrimes[i];
            break;
        }
    }
    if (buckets == 0) {
        if (map->num_buckets == kMaxBuckets) {
            OW_ERROR("Map is at max size: %u buckets.", map->num_buckets);
        } else {
            OW_ERROR("Cannot determine new table size.");
        }
        return false;
    }
    ow_hashmap* fresh = ow_map_create(buckets, map->bucket_size);
    if (fresh == nullptr) {
        OW_ERROR("Cannot create new map during rehash");
        return false;
    }
    const uint32_t before = map->num_pairs;
    if (!__map_redistribute(map, fresh)) {
        OW_ERROR("Failed to redistribute map");
        drop_table(fresh);
        return false;
    }
    if (fresh->num_pairs != before) {
        OW_ERROR("Maps have different counts after redistribution: old:%d != new:%d.\n",
                 static_cast<int>(before), static_cast<int>(fresh->num_pairs));
        drop_table(fresh);
        return false;
    }
    std::free(map->pairs);
    map->pairs = fresh->pairs;
    map->map_size = fresh->map_size;
    map->num_pairs = fresh->num_pairs;
    map->num_buckets = fresh->num_buckets;
    std::free(fresh);
    return true;
}

bool ow_map_clear(ow_hashmap* map) {
    if (map == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (is_static(map)) {
        OW_ERROR("Attempting to clear a static hashmap!");
        return false;
    }
    for (uint32_t i = 0; i < map->map_size; ++i) {
        if (map->pairs[i] != nullptr) {
            __destroy_pair(map->pairs[i], true);
            empty_slot(map, i);
        }
    }
    map->num_pairs = 0;
    map->first = map->last = nullptr;
    return true;
}

void ow_map_destroy(ow_hashmap* map) {
    if (map == nullptr) {
        OW_EINVAL();
        return;
    }
    if (is_static(map)) {
        OW_ERROR("Attempting to destroy a static hashmap!");
        return;
    }
    const uint32_t pairs = map->num_pairs;
    for (uint32_t i = 0; i < map->map_size; ++i) {
        if (map->pairs[i] != nullptr) __destroy_pair(map->pairs[i], true);
    }
    std::free(map->pairs);
    std::free(map);
    if (pairs >= kSettleAfterPairs) settle_freed_pairs();
}

ow_map_iterator* ow_map_iterator_start_ex(const ow_hashmap* map, uint32_t direction) {
    if (map == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    auto* it = static_cast<ow_map_iterator*>(ow::mem_calloc(1, sizeof(ow_map_iterator)));
    if (it == nullptr) {
        OW_ENOMEM();
        return nullptr;
    }
    if (is_static(map)) {
        __static_iterator_start_ex(it, map, direction);
    } else {
        ordered_iterator_start(it, map, direction);
    }
    return it;
}

void ow_map_iterator_init(ow_map_iterator* it, const ow_hashmap* map) {
    if (it == nullptr || map == nullptr) {
        OW_EINVAL();
        return;
    }
    std::memset(it, 0, sizeof *it);
    if (is_static(map)) {
        __static_iterator_start_ex(it, map, 0);
    } else {
        ordered_iterator_start(it, map, 0);
    }
}

bool ow_map_iterator_next(ow_map_iterator* it, const char** key, void** value) {
    if (it == nullptr) {
        OW_EINVAL();
        return false;
    }
    return step(it, true, key, value);
}

bool ow_map_iterator_prev(ow_map_iterator* it, const char** key, void** value) {
    if (it == nullptr) {
        OW_EINVAL();
        return false;
    }
    return step(it, false, key, value);
}

bool ow_map_iterator_peek_next(const ow_map_iterator* it, const char** key, void** value) {
    if (it == nullptr) {
        OW_EINVAL();
        return false;
    }
    if ((it->flags & MAP_ITER_FLAG_STATIC) == 0 && it->current == it->last && !at_end(it) &&
        it->current != nullptr) {
        return false;
    }
    return report(candidate(it, true, nullptr), key, value);
}

bool ow_map_iterator_peek_prev(const ow_map_iterator* it, const char** key, void** value) {
    if (it == nullptr) {
        OW_EINVAL();
        return false;
    }
    if ((it->flags & MAP_ITER_FLAG_STATIC) == 0 && !at_end(it) && it->current == nullptr) {
        return false;  // before the first pair
    }
    return report(candidate(it, false, nullptr), key, value);
}

hash_pair_t* ow_map_iterator_cur(const ow_map_iterator* it) {
    if (it == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    if ((it->flags & MAP_ITER_FLAG_STATIC) != 0) {
        if (at_end(it) || it->slot.index == 0 || it->slot.index > it->slot.map_size) return nullptr;
        return const_cast<hash_pair_t*>(it->const_pairs[it->slot.index - 1]);
    }
    return at_end(it) || in_gap(it) ? nullptr : it->current;
}

void ow_map_iterator_end(ow_map_iterator* it) { std::free(it); }

bool ow_map_index(const ow_hashmap* map, uint32_t index, const char** key, void** value) {
    if (map == nullptr || index >= map->num_pairs) {
        OW_EINVAL();
        return false;
    }
    if (index < map->num_pairs / 2) return __map_index_forward(map, index, key, value);
    return __map_index_reverse(map, index, key, value);
}

bool ow_map_save(const ow_hashmap* map, const char* path, bool overwrite) {
    if (map == nullptr || path == nullptr || path[0] == '\0') {
        OW_EINVAL();
        return false;
    }
    if (!overwrite && ow_file_exists_ex(path, OW_FILE_REGULAR)) return false;

    // Size the image exactly in a first pass, refusing what cannot be saved before anything
    // is allocated or written.
    uint64_t total = kHeaderSize;
    for (uint32_t i = 0; i < map->map_size; ++i) {
        const hash_pair_t* pair = map->const_pairs[i];
        if (pair == nullptr) continue;
        if (pair->freefn != nullptr && pair->freefn != &std::free) {
            OW_ERROR("Cannot save complex maps!");
            return false;
        }
        const uint64_t key_length = std::strlen(pair->key);
        if (key_length > UINT32_MAX || pair->length > UINT32_MAX) {
            OW_ERROR("Key or value is too big, failed to save");
            return false;
        }
        total += kRecordHeaderSize + key_length + pair->length;
    }
    if (total > SIZE_MAX) {
        OW_ENOMEM();
        return false;
    }
    ow::unique_cptr<unsigned char> image(
        static_cast<unsigned char*>(ow::mem_calloc(1, static_cast<size_t>(total))));
    if (!image) {
        OW_ENOMEM();
        return false;
    }
    unsigned char* out = image.get();
    put32(out + 0, map->flags);
    put32(out + 4, map->num_buckets);
    put32(out + 8, map->bucket_size);
    put32(out + 12, map->map_size);
    put32(out + 16, map->num_pairs);
    size_t at = kHeaderSize;
    for (uint32_t i = 0; i < map->map_size; ++i) {
        const hash_pair_t* pair = map->const_pairs[i];
        if (pair == nullptr) continue;
        uint32_t next = 0;
        if (pair->prev == nullptr) put32(out + 20, i);
        if (pair->next == nullptr) {
            put32(out + 24, i);
        } else {
            const int64_t slot = slot_of(map, pair->next);
            if (slot < 0) {
                OW_ERROR("Map is corrupted: the pair after [%s] is not in its bucket", pair->key);
                return false;
            }
            next = static_cast<uint32_t>(slot);
        }
        const auto key_length = static_cast<uint32_t>(std::strlen(pair->key));
        const auto value_length = static_cast<uint32_t>(pair->length);
        const bool copy = saved_as_copy(pair);
        put32(out + at, i);
        put32(out + at + 4, next);
        put32(out + at + 8, copy ? (pair->flags | PAIR_FLAG_COPY) : pair->flags);
        put32(out + at + 12, key_length);
        put32(out + at + 16, value_length);
        at += kRecordHeaderSize;
        std::memcpy(out + at, pair->key, key_length);
        at += key_length;
        if (value_length > 0) {
            if (copy && pair->value == nullptr) {
                OW_ERROR("Map is corrupted: [%s] has a length but no value", pair->key);
                return false;
            }
            std::memcpy(out + at, copy ? pair->value : &pair->value, value_length);
        }
        at += value_length;
    }

    // Write beside the target, flush, then rename over it: a crash or a full disk leaves the
    // old file or the whole new one, never a truncated image. A link at path is replaced, not
    // written through.
    std::string temp;
    try {
        temp = temp_name_beside(path);
    } catch (...) {
        OW_ENOMEM();
        return false;
    }
    const int fd = ow_open_ex(temp.c_str(), false, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    struct stat old {};
    if (::stat(path, &old) == 0 && S_ISREG(old.st_mode)) {
        (void)::fchmod(fd, old.st_mode & 07777);
    } else {
        (void)::fchmod(fd, 0644);  // as a new file should be, whatever the umask
    }
    const bool written = ow_write(fd, image.get(), total);
    int err = errno;
    const bool synced = written && ::fsync(fd) == 0;
    if (written && !synced) err = errno;
    ow_close(fd);
    if (!written || !synced) {
        OW_ERROR("Failed to write the data to the file during save: [%s]", std::strerror(err));
        ::unlink(temp.c_str());
        return false;
    }
    if (::rename(temp.c_str(), path) != 0) {
        err = errno;
        OW_ERROR("Failed to write the data to the file during save: [%s]", std::strerror(err));
        ::unlink(temp.c_str());
        return false;
    }
    return true;
}

ow_hashmap* ow_map_load(const char* path) {
    if (path == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    if (!ow_file_exists_ex(path, OW_FILE_REGULAR)) return nullptr;
    errno = 0;
    uint64_t size = 0;
    ow::unique_cptr<char> contents(ow_file_get_contents_ex(path, &size));
    if (!contents) {
        const int err = errno;
        OW_ERROR("Failed to grab contents of file [%s]: [%s]", path,
                 err != 0 ? std::strerror(err) : "unkown error");
        return nullptr;
    }
    const auto* data = reinterpret_cast<const unsigned char*>(contents.get());
    if (size < kHeaderSize) {
        OW_ERROR("Map file [%s] is too short for a map: %llu bytes", path,
                 static_cast<unsigned long long>(size));
        return nullptr;
    }
    const uint32_t flags = get32(data);
    const uint32_t num_buckets = get32(data + 4);
    const uint32_t bucket_size = get32(data + 8);
    const uint32_t map_size = get32(data + 12);
    const uint32_t num_pairs = get32(data + 16);
    const uint32_t first = get32(data + 20);
    const uint32_t last = get32(data + 24);
    if (static_cast<uint64_t>(num_buckets) * bucket_size != map_size) {
        OW_ERROR("Map file [%s] has %u buckets of %u slots but claims %u slots", path, num_buckets,
                 bucket_size, map_size);
        return nullptr;
    }
    const uint64_t max_records = (size - kHeaderSize) / kRecordHeaderSize;
    if (num_pairs > map_size || num_pairs > max_records ||
        (num_pairs == 0 && (first != 0 || last != 0)) ||
        (num_pairs > 0 && (first >= map_size || last >= map_size))) {
        OW_ERROR("Map file [%s] has an impossible header (%u pairs in %u slots, first %u, last %u)",
                 path, num_pairs, map_size, first, last);
        return nullptr;
    }
    if (map_size > kMaxSlotsWithoutPairs && map_size / kMaxSlotsPerPair > num_pairs) {
        OW_ERROR("Map file [%s] has an implausible table of %u slots for %u pairs", path, map_size,
                 num_pairs);
        return nullptr;
    }
    ow_hashmap* map = ow_map_create(num_buckets, bucket_size);
    if (map == nullptr) {
        OW_ERROR("Failed to create new map");
        return nullptr;
    }
    // A loaded map lives on the heap and must stay destroyable, so the static flag of a saved
    // constant map is not carried over; every other flag is.
    map->flags = flags & ~MAP_FLAG_STATIC;
    auto fail = ow::scope_guard([map] { ow_map_destroy(map); });

    std::unordered_map<uint32_t, uint32_t> next_of;
    try {
        next_of.reserve(num_pairs);
    } catch (...) {
        OW_ENOMEM();
        return nullptr;
    }
    uint64_t at = kHeaderSize;
    for (uint32_t r = 0; r < num_pairs; ++r) {
        if (size - at < kRecordHeaderSize) {
            OW_ERROR("Map file [%s] ends inside record %u", path, r);
            return nullptr;
        }
        const uint32_t slot = get32(data + at);
        const uint32_t next = get32(data + at + 4);
        uint32_t pair_flags = get32(data + at + 8);
        const uint32_t key_length = get32(data + at + 12);
        const uint32_t value_length = get32(data + at + 16);
        at += kRecordHeaderSize;
        if (static_cast<uint64_t>(key_length) + value_length > size - at) {
            OW_ERROR("Map file [%s] ends inside record %u", path, r);
            return nullptr;
        }
        const char* key_bytes = reinterpret_cast<const char*>(data + at);
        const unsigned char* value_bytes = data + at + key_length;
        at += static_cast<uint64_t>(key_length) + value_length;
        if (std::memchr(key_bytes, '\0', key_length) != nullptr) {
            OW_ERROR("Map file [%s]: record %u has a key with a NUL byte", path, r);
            return nullptr;
        }
        if (slot >= map_size || map->pairs[slot] != nullptr) {
            OW_ERROR("Map file [%s]: record %u names slot %u, which is out of range or taken", path,
                     r, slot);
            return nullptr;
        }
        ow::unique_cstr key(ow::dup_cstr(std::string_view(key_bytes, key_length)));
        if (!key) {
            OW_ENOMEM();
            return nullptr;
        }
        const uint32_t hash = key_hash(key.get());
        if (slot / bucket_size != hash % num_buckets) {
            OW_ERROR("Map file [%s]: record %u is in slot %u, outside the bucket of its key", path,
                     r, slot);
            return nullptr;
        }
        if (find_slot(map, key.get(), hash) >= 0) {
            OW_ERROR("Map file [%s]: record %u repeats a key", path, r);
            return nullptr;
        }
        void* value = nullptr;
        ow_map_free_fn freefn = nullptr;
        if (value_length > 8 || (pair_flags & PAIR_FLAG_COPY) != 0) {
            value = ow::mem_malloc(value_length);
            if (value == nullptr) {
                OW_ENOMEM();
                return nullptr;
            }
            if (value_length > 0) std::memcpy(value, value_bytes, value_length);
            freefn = &std::free;
            pair_flags |= PAIR_FLAG_COPY;
        } else {
            std::memcpy(&value, value_bytes, value_length);
        }
        hash_pair_t* pair = __create_pair(key.get(), value, value_length, false, freefn);
        if (pair == nullptr) {
            if (freefn != nullptr) std::free(value);
            OW_ENOMEM();
            return nullptr;
        }
        pair->flags = pair_flags;
        node_of(pair)->owner = map;
        node_of(pair)->typed = freefn == nullptr;  // short values are read back inline
        put_slot(map, slot, pair);
        ++map->num_pairs;
        try {
            next_of.emplace(slot, next);
        } catch (...) {
            OW_ENOMEM();
            return nullptr;
        }
    }
    if (at != size) {
        OW_ERROR("Map file [%s] has %llu bytes after its last record", path,
                 static_cast<unsigned long long>(size - at));
        return nullptr;
    }

    // Rebuild the insertion order from first to last, making sure the chain visits every pair
    // exactly once: a file whose chain loops, skips pairs or points at empty slots is refused.
    if (num_pairs > 0) {
        hash_pair_t* previous = nullptr;
        uint32_t slot = first;
        for (uint32_t step = 1;; ++step) {
            hash_pair_t* pair = slot < map_size ? map->pairs[slot] : nullptr;
            if (pair == nullptr || (previous != nullptr && pair->prev != nullptr) ||
                pair == map->first) {
                OW_ERROR("Map file [%s] has a broken insertion order", path);
                return nullptr;
            }
            if (previous == nullptr) {
                map->first = pair;
            } else {
                previous->next = pair;
                pair->prev = previous;
            }
            previous = pair;
            if (step == num_pairs) {
                if (slot != last) {
                    OW_ERROR("Map file [%s] has a broken insertion order", path);
                    return nullptr;
                }
                map->last = pair;
                break;
            }
            slot = next_of[slot];
        }
    }
    fail.dismiss();
    return map;
}

int ow_map_load_control_file(const char* path, uint32_t max, char separator, ow_hashmap** out) {
    if (path == nullptr || separator == '\0' || out == nullptr) {
        OW_EINVAL();
        return -1;
    }
    if (!ow_file_exists_ex(path, OW_FILE_REGULAR)) return -1;
    errno = 0;
    uint64_t size = 0;
    ow::unique_cptr<char> contents(ow_file_get_contents_ex(path, &size));
    if (!contents) {
        const int err = errno;
        OW_ERROR("Failed to grab contents of file [%s]: [%s]", path,
                 err != 0 ? std::strerror(err) : "unkown error");
        return -1;
    }
    if (size == 0) return 0;
    const std::string_view text(contents.get(), static_cast<size_t>(size));
    ow_hashmap* map = ow_map_create(0, 0);
    if (map == nullptr) {
        OW_ENOMEM();
        return -1;
    }
    auto fail = ow::scope_guard([map] { ow_map_destroy(map); });

    size_t pos = 0;
    for (;;) {
        const size_t sep = text.find(separator, pos);
        const size_t feed = text.find('\n', pos);
        const size_t hash = text.find('#', pos);
        const size_t end = feed == std::string_view::npos ? text.size() : feed;
        if (sep == std::string_view::npos) {
            OW_ERROR("Invalid syntax in control file: [%s]", path);
            return -1;
        }
        if (sep >= end || (hash != std::string_view::npos && hash < sep)) {
            OW_ERROR("Invalid syntax in control files: [%s]", path);
            return -1;
        }
        const size_t value_end = hash != std::string_view::npos && hash < end ? hash : end;
        const std::string_view key = trimmed(text.substr(pos, sep - pos));
        const std::string_view value = trimmed(text.substr(sep + 1, value_end - sep - 1));
        ow::unique_cstr key_copy(ow::dup_cstr(key));
        ow::unique_cstr value_copy(ow::dup_cstr(value));
        if (!key_copy || !value_copy) {
            OW_ENOMEM();
            return -1;
        }
        if (!ow_map_store_ex(map, key_copy.get(), value_copy.get(), value.size() + 1, true,
                             nullptr)) {
            OW_ERROR("Failed to store key/value in map");
            return -1;
        }
        if (end >= text.size() || end + 1 >= text.size() || (max != 0 && map->num_pairs >= max)) {
            break;
        }
        pos = end + 1;
    }
    fail.dismiss();
    *out = map;
    return 1;
}

}  // extern "C"

// ==========================================================================================
// Walk-and-delete, typed values, whole-map operations and text renderings

namespace {

// A typed value as the bytes of a value word.
template <typename T>
inline void* word_of(T value) noexcept {
    void* word = nullptr;
    std::memcpy(&word, &value, sizeof value);
    return word;
}

// Gives an existing pair a new value, releasing the old one first.
void replace_value(hash_pair_t* pair, void* value, uint64_t length, uint32_t flags,
                   ow_map_free_fn freefn, bool typed) noexcept {
    release_value(pair, true);
    pair->value = value;
    pair->length = length;
    pair->flags = flags;
    pair->freefn = freefn;
    node_of(pair)->typed = typed;
}

// The bytes a value stands for: behind its pointer, or the word itself for a typed value.
const void* value_bytes(const hash_pair_t* pair, bool library_pair) noexcept {
    return library_pair && node_of(pair)->typed ? static_cast<const void*>(&pair->value)
                                                : pair->value;
}

// Makes the pair's value shareable: a holder count of 1 for the pair itself.
bool make_shareable(const hash_pair_t* pair) noexcept {
    const pair_node* node = node_of(pair);
    if (node->shared != nullptr) return true;
    node->shared = static_cast<shared_value*>(ow::mem_malloc(sizeof(shared_value)));
    if (node->shared == nullptr) return false;
    node->shared->holders = 1;
    return true;
}

// Writes bytes as the inside of a C string literal. Octal escapes always take three digits,
// so a following digit can never join them; "?" is escaped against trigraphs.
void write_c_string(FILE* out, const unsigned char* bytes, size_t length) {
    std::fputc('"', out);
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = bytes[i];
        if (c == '"' || c == '\\' || c == '?') {
            std::fprintf(out, "\\%c", c);
        } else if (c >= 0x20 && c < 0x7F) {
            std::fputc(c, out);
        } else {
            std::fprintf(out, "\\%03o", c);
        }
    }
    std::fputc('"', out);
}

void write_static_value(FILE* out, const hash_pair_t* pair) {
    const pair_node* node = node_of(pair);
    if (node->typed) {
        std::fprintf(out, "(void*)0x%llxull",
                     static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pair->value)));
    } else if (pair->value == nullptr) {
        std::fputs("NULL", out);
    } else if (pair->length == 0) {
        std::fputs(static_cast<const char*>(pair->value), out);  // the caller's C expression
    } else {
        auto length = static_cast<size_t>(pair->length);
        const auto* bytes = static_cast<const unsigned char*>(pair->value);
        if (bytes[length - 1] == '\0') --length;  // the literal brings its own
        write_c_string(out, bytes, length);
    }
}

// The stable bottom-up merge sort of the insertion chain. Returns the new first pair.
hash_pair_t* merge_sort(hash_pair_t* list, int (*compare)(const void*, const void*),
                        bool by_key) noexcept {
    const auto field = [by_key](hash_pair_t* p) -> const void* {
        return by_key ? static_cast<const void*>(&p->key) : static_cast<const void*>(&p->value);
    };
    for (size_t width = 1;; width *= 2) {
        hash_pair_t* left = list;
        hash_pair_t* tail = nullptr;
        list = nullptr;
        size_t merges = 0;
        while (left != nullptr) {
            ++merges;
            hash_pair_t* right = left;
            size_t left_size = 0;
            for (; left_size < width && right != nullptr; ++left_size) right = right->next;
            size_t right_size = width;
            while (left_size > 0 || (right_size > 0 && right != nullptr)) {
                hash_pair_t* take = nullptr;
                if (left_size == 0) {
                    take = right;
                    right = right->next;
                    --right_size;
                } else if (right_size == 0 || right == nullptr ||
                           compare(field(left), field(right)) <= 0) {
                    take = left;
                    left = left->next;
                    --left_size;
                } else {
                    take = right;
                    right = right->next;
                    --right_size;
                }
                if (tail != nullptr) {
                    tail->next = take;
                } else {
                    list = take;
                }
                tail = take;
            }
            left = right;
        }
        tail->next = nullptr;
        if (merges <= 1) return list;
    }
}

}  // namespace

extern "C" {

bool ow_map_iterator_remove(ow_map_iterator* it) {
    if (it == nullptr) {
        OW_EINVAL();
        return false;
    }
    if ((it->flags & MAP_ITER_FLAG_STATIC) != 0) {
        OW_ERROR("Attempting to remove entries from a static hashmap!");
        return false;
    }
    hash_pair_t* pair = it->current;
    if (pair == nullptr || at_end(it) || in_gap(it)) {
        OW_EINVAL();
        return false;
    }
    ow_hashmap* map = node_of(pair)->owner;
    const int64_t slot = map != nullptr ? slot_of(map, pair) : -1;
    if (slot < 0) {
        OW_ERROR("Map is corrupted: [%s] is not in its bucket", pair->key);
        return false;
    }
    // The iterator keeps its own copies of the map's ends; keep them off the freed pair.
    if (it->first == pair) it->first = pair->next;
    if (it->last == pair) it->last = pair->prev;
    it->current = pair->prev;
    it->flags |= MAP_ITER_FLAG_GAP;
    unlink_pair(map, pair);
    empty_slot(map, static_cast<uint64_t>(slot));
    --map->num_pairs;
    __destroy_pair(pair, true);
    return true;
}

#define OW_MAP_TYPED_DEF(name, type)                                                          \
    bool ow_map_store_##name(ow_hashmap* map, const char* key, type value) {                  \
        if (map == nullptr || key == nullptr) {                                               \
            OW_EINVAL();                                                                      \
            return false;                                                                     \
        }                                                                                     \
        if (is_static(map)) {                                                                 \
            OW_ERROR("Attempting to store entries in a static hashmap!");                     \
            return false;                                                                     \
        }                                                                                     \
        const hashed_key k = hash_key(key);                                                   \
        prefetch_bucket(map, k.hash);                                                         \
        hash_pair_t* pair = make_pair(k, word_of(value), sizeof(type), false, nullptr);       \
        if (pair == nullptr) {                                                                \
            OW_ERROR("Cannot create new key-value pair when attemping to store data in map"); \
            return false;                                                                     \
        }                                                                                     \
        node_of(pair)->typed = true;                                                          \
        return store_new_pair(map, pair);                                                     \
    }                                                                                         \
    bool ow_map_update_##name(ow_hashmap* map, const char* key, type value) {                 \
        if (map == nullptr || key == nullptr) {                                               \
            OW_EINVAL();                                                                      \
            return false;                                                                     \
        }                                                                                     \
        if (is_static(map)) {                                                                 \
            OW_ERROR("Attempting to update entries in a static hashmap!");                    \
            return false;                                                                     \
        }                                                                                     \
        hash_pair_t* pair = __map_fetch_hash(map, key, key_hash(key));                        \
        if (pair == nullptr) return false;                                                    \
        replace_value(pair, word_of(value), sizeof(type), 0, nullptr, true);                  \
        return true;                                                                          \
    }                                                                                         \
    bool ow_map_fetch_##name(const ow_hashmap* map, const char* key, type* out) {             \
        if (map == nullptr || key == nullptr || out == nullptr) {                             \
            OW_EINVAL();                                                                      \
            return false;                                                                     \
        }                                                                                     \
        const hash_pair_t* pair = __map_fetch_hash(map, key, key_hash(key));                  \
        if (pair == nullptr) return false;                                                    \
        std::memcpy(out, &pair->value, sizeof(type));                                         \
        return true;                                                                          \
    }
OW_MAP_TYPED_DEF(int64, int64_t)
OW_MAP_TYPED_DEF(uint64, uint64_t)
OW_MAP_TYPED_DEF(int32, int32_t)
OW_MAP_TYPED_DEF(uint32, uint32_t)
OW_MAP_TYPED_DEF(double, double)
OW_MAP_TYPED_DEF(float, float)
OW_MAP_TYPED_DEF(bool, bool)
#undef OW_MAP_TYPED_DEF

bool ow_map_update_ex(ow_hashmap* map, const char* key, void* value, uint64_t length, bool copy,
                      ow_map_free_fn freefn) {
    if (map == nullptr || key == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (is_static(map)) {
        OW_ERROR("Attempting to update entries in a static hashmap!");
        return false;
    }
    if (copy && freefn != nullptr && freefn != &std::free) {
        OW_ERROR("Cannot request 'copy' and specify a freefn that isn't 'void free(void *)'");
        return false;
    }
    hash_pair_t* pair = __map_fetch_hash(map, key, key_hash(key));
    if (pair == nullptr) return false;
    if (copy) {
        void* own = length > SIZE_MAX ? nullptr : ow::mem_calloc(1, static_cast<size_t>(length));
        if (own == nullptr) {
            OW_ENOMEM();
            return false;
        }
        if (length > 0 && value != nullptr) std::memcpy(own, value, static_cast<size_t>(length));
        value = own;
    }
    replace_value(pair, value, length, copy ? PAIR_FLAG_COPY : 0, freefn, false);
    return true;
}

bool ow_map_get_first_entry(const ow_hashmap* map, const char** key, void** value) {
    if (map == nullptr) {
        OW_EINVAL();
        return false;
    }
    return report(map->first, key, value);
}

bool ow_map_get_last_entry(const ow_hashmap* map, const char** key, void** value) {
    if (map == nullptr) {
        OW_EINVAL();
        return false;
    }
    return report(map->last, key, value);
}

bool ow_map_find(const ow_hashmap* map, const void* needle, ow_map_match_fn match,
                 const char** key) {
    if (map == nullptr) {
        OW_EINVAL();
        return false;
    }
    const bool library_pairs = !is_static(map);
    for (uint32_t i = 0; i < map->map_size; ++i) {
        const hash_pair_t* pair = map->const_pairs[i];
        if (pair == nullptr) continue;
        bool found = false;
        if (match != nullptr) {
            found = match(needle, pair->value);
        } else if (pair->length == 0) {
            found = pair->value == needle;
        } else {
            const void* bytes = value_bytes(pair, library_pairs);
            found = bytes != nullptr && needle != nullptr &&
                    std::memcmp(bytes, needle, static_cast<size_t>(pair->length)) == 0;
        }
        if (found) {
            if (key != nullptr) *key = pair->key;
            return true;
        }
    }
    return false;
}

ow_hashmap* ow_map_copy_ex(const ow_hashmap* map, uint32_t num_buckets, uint32_t bucket_size) {
    if (map == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    ow_hashmap* copy = ow_map_create(num_buckets != 0 ? num_buckets : map->num_buckets,
                                     bucket_size != 0 ? bucket_size : map->bucket_size);
    if (copy == nullptr) {
        OW_ERROR("Failed to create empty map for copying");
        return nullptr;
    }
    copy->flags = map->flags & ~MAP_FLAG_STATIC;
    auto fail = ow::scope_guard([copy] { ow_map_destroy(copy); });
    ow_map_iterator* it = ow_map_iterator_start_ex(map, 0);
    if (it == nullptr) {
        OW_ERROR("Failed to create map iterator");
        return nullptr;
    }
    auto end = ow::scope_guard([it] { ow_map_iterator_end(it); });
    const bool from_static = is_static(map);
    while (ow_map_iterator_next(it, nullptr, nullptr)) {
        const hash_pair_t* pair = ow_map_iterator_cur(it);
        const bool own = pair->length != 0 && !from_static &&
                         ((pair->flags & PAIR_FLAG_COPY) != 0 || pair->freefn == &std::free);
        // A constant map's values are never released; a shared value with a free function
        // is counted so that only its last holder releases it.
        const ow_map_free_fn freefn = from_static ? nullptr : pair->freefn;
        const bool shared = !own && freefn != nullptr;
        if ((shared && !make_shareable(pair)) ||
            !ow_map_store_ex(copy, pair->key, pair->value, pair->length, own, freefn)) {
            OW_ERROR("Failed to copy map element [key = %s]", pair->key);
            return nullptr;
        }
        pair_node* added = node_of(copy->last);
        added->typed = !from_static && node_of(pair)->typed;
        if (shared) {
            added->shared = node_of(pair)->shared;
            ++added->shared->holders;
        }
    }
    fail.dismiss();
    return copy;
}

ow_hashmap* ow_map_shrink(const ow_hashmap* map) {
    if (map == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    if (is_static(map)) {
        OW_ERROR("Attempting to shrink a static hashmap!");
        return nullptr;
    }
    uint32_t best_buckets = map->num_buckets;
    uint32_t best_size = map->bucket_size;
    uint64_t best = map->map_size;
    if (map->map_size != 0) {
        for (uint32_t b = 1; b < map->num_buckets; ++b) {
            for (uint32_t s = 1; s < map->bucket_size; ++s) {
                if (static_cast<uint64_t>(b) * s < map->num_pairs) continue;
                ow_hashmap* trial = ow_map_copy_ex(map, b, s);
                if (trial == nullptr) {
                    OW_ENOMEM();
                    return nullptr;
                }
                if (trial->map_size < best) {
                    if (trial->map_size == map->num_pairs) return trial;  // every slot used
                    best_buckets = b;
                    best_size = s;
                    best = trial->map_size;
                }
                ow_map_destroy(trial);
            }
        }
    }
    ow_hashmap* smallest = ow_map_copy_ex(map, best_buckets, best_size);
    if (smallest == nullptr) OW_ENOMEM();
    return smallest;
}

bool ow_map_sort(ow_hashmap* map, int (*compare)(const void*, const void*), bool by_key) {
    if (map == nullptr || compare == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (map->num_pairs < 2 || map->first == nullptr) return true;
    map->first = merge_sort(map->first, compare, by_key);
    hash_pair_t* prev = nullptr;
    for (hash_pair_t* p = map->first; p != nullptr; p = p->next) {
        p->prev = prev;
        prev = p;
    }
    map->last = prev;
    return true;
}

uint64_t ow_map_memory_size(const ow_hashmap* map) {
    if (map == nullptr) return 0;
    uint64_t total = sizeof(ow_hashmap) + static_cast<uint64_t>(map->map_size) * sizeof(void*);
    for (uint32_t i = 0; i < map->map_size; ++i) {
        const hash_pair_t* pair = map->const_pairs[i];
        if (pair == nullptr) continue;
        total += sizeof(hash_pair_t) + pair->length;
        if (pair->key != nullptr) total += std::strlen(pair->key) + 1;
    }
    return total;
}

void ow_map_dump(FILE* out, const ow_hashmap* map) {
    if (map == nullptr || out == nullptr) {
        OW_EINVAL();
        return;
    }
    std::fprintf(out, "Hashmap (%u buckets, %u slots per bucket, %u pairs)\n", map->num_buckets,
                 map->bucket_size, map->num_pairs);
    std::fputs("=====================================================\n", out);
    std::fputs("[bucket][slot] <key>:<hash> = <pointer>\n", out);
    if (map->const_pairs == nullptr) return;
    int line = 0;
    for (uint32_t b = 0; b < map->num_buckets; ++b) {
        for (uint32_t s = 0; s < map->bucket_size; ++s, ++line) {
            const hash_pair_t* pair =
                map->const_pairs[static_cast<uint64_t>(b) * map->bucket_size + s];
            std::fprintf(out, "%d. [%d][%d] %s:%08x = %p\n", line, static_cast<int>(b),
                         static_cast<int>(s), pair != nullptr ? pair->key : "<null>",
                         pair != nullptr ? pair->hash : 0u,
                         pair != nullptr ? pair->value : nullptr);
        }
    }
}

void gen_static_map_ex(FILE* out, const ow_hashmap* map, const char* name) {
    if (map == nullptr || out == nullptr) {
        OW_EINVAL();
        return;
    }
    if (map->num_pairs == map->num_buckets) {
        std::fputs("// \\(^_^)/ Yay! A perfect hashmap! (num pairs == num buckets)\n", out);
    }
    std::fprintf(out,
                 "const ow_hashmap *%s = &(const ow_hashmap){\n   .flags = MAP_FLAG_STATIC,\n"
                 "   .num_buckets = %u,\n   .bucket_size = %u,\n   .map_size = %u,\n"
                 "   .num_pairs = %u,\n   .const_pairs = (const hash_pair_t *[]) {\n",
                 name != nullptr ? name : "static_map", map->num_buckets, map->bucket_size,
                 map->map_size, map->num_pairs);
    const bool library_pairs = !is_static(map);
    unsigned nulls_on_line = 0;  // NULL entries on the current line; 0 after a SLOT entry
    for (uint32_t i = 0; i < map->map_size && map->const_pairs != nullptr; ++i) {
        const hash_pair_t* pair = map->const_pairs[i];
        if (i > 0) {
            std::fputs(pair == nullptr && nulls_on_line > 0 && nulls_on_line < 10 ? "," : ",\n",
                       out);
        }
        if (pair == nullptr) {
            if (nulls_on_line == 0 || nulls_on_line >= 10) {
                std::fputs("        NULL", out);
                nulls_on_line = 1;
            } else {
                std::fputs(" NULL", out);
                ++nulls_on_line;
            }
            continue;
        }
        nulls_on_line = 0;
        std::fprintf(out, "        SLOT(0x%x, ", pair->hash);
        write_c_string(out, reinterpret_cast<const unsigned char*>(pair->key),
                       std::strlen(pair->key));
        std::fputs(", ", out);
        if (library_pairs) {
            write_static_value(out, pair);
        } else if (pair->value == nullptr) {
            std::fputs("NULL", out);
        } else {
            // A static map's value: its text is a string (the map was generated from one).
            const auto* text = static_cast<const unsigned char*>(pair->value);
            write_c_string(out, text, std::strlen(static_cast<const char*>(pair->value)));
        }
        std::fprintf(out, ", 0x%x)", pair->flags & ~PAIR_FLAG_COPY);
    }
    std::fputs("\n    }\n};\n", out);
}

}  // extern "C"

/* ow_hashmap.h: the library's string-keyed map of byte values, iterated in insertion order.
 *
 * Conventions:
 *  1. Keys are NUL-terminated strings that the map copies. Values are described by a
 *     pointer-sized value word, a length and an optional free function; the map owns a value
 *     only when it was asked to copy it (PAIR_FLAG_COPY), and releases a value it was handed
 *     through the pair's free function.
 *  2. Every failure writes one ERROR line (ow_log.h) naming the operation and returns false,
 *     0 or NULL; nothing aborts. A missing key is no error for fetch, remove and rename, and
 *     a present key is no error for store: they return false silently.
 *  3. Keys and value words handed out are borrowed: valid until the pair is removed, renamed
 *     (key), updated (value), or the map is cleared or destroyed.
 *  4. Static maps (MAP_FLAG_STATIC) are compile-time constants: they can be fetched from and
 *     iterated, and every changing operation refuses them.
 *  5. A map and its iterators belong to one thread at a time.
 *  6. Iterators (ow_map_iterator) copy the map's first and last pair when they start and
 *     follow the pairs' insertion chain from there; no map operation updates them. So:
 *       - they survive fetches, stores (a new pair is appended to the chain: a forward walk
 *         that has not yet run off the end reaches it, but peeks at the old last pair and a
 *         walk from past the end do not see it), value updates, renames and growth (pairs
 *         never move in the chain), and removal of pairs other than those named below;
 *       - ow_map_iterator_remove on the iterator itself keeps it valid (the safe way to
 *         delete while walking); for every other iterator of the map it is a removal;
 *       - they are invalidated by removing (ow_map_remove, or another iterator's remove)
 *         the pair the iterator stands on, the pair before the gap a removal through it left,
 *         or the map's first or last pair as they were when it started; and by ow_map_sort,
 *         ow_map_clear and ow_map_destroy. An invalid iterator may only be ended or
 *         re-initialised.
 *     Static maps never change, so their iterators stay valid for the program's life.
 *
 * The records below are laid out field by field as the map file and the static-map generator
 * expect; never reorder them.
 *
 * Iteration:
 *     ow_map_iterator it;
 *     const char* key;
 *     void* value;
 *     ow_map_iterator_init(&it, map);
 *     while (ow_map_iterator_next(&it, &key, &value)) { ... }
 *
 * Walking and deleting:
 *     while (ow_map_iterator_next(&it, &key, &value))
 *         if (unwanted(value)) ow_map_iterator_remove(&it);
 */
#ifndef OW_HASHMAP_H
#define OW_HASHMAP_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define MAP_FLAG_STATIC 0x1u /* constant map: every changing operation refuses it */
#define PAIR_FLAG_COPY 0x1u  /* the value word points to a private copy the map owns */

#define MAP_ITER_FLAG_STATIC 0x1u /* iterator over a static map's slot array */
#define MAP_ITER_FLAG_END 0x2u    /* positioned past the end */
#define MAP_ITER_FLAG_GAP 0x4u    /* in the gap ow_map_iterator_remove left after current */

typedef void (*ow_map_free_fn)(void* value);

typedef struct hash_pair_t hash_pair_t;
struct hash_pair_t {
    uint32_t flags;        /* PAIR_FLAG_COPY */
    uint32_t hash;         /* __super_fast_hash of the key bytes */
    char* key;             /* the map's own copy of the key */
    void* value;           /* pointer to the value bytes, or an inline typed value */
    uint64_t length;       /* value length in bytes */
    ow_map_free_fn freefn; /* releases a handed-over value; may be NULL */
    hash_pair_t* prev;     /* previous pair in insertion order */
    hash_pair_t* next;     /* next pair in insertion order */
};

typedef struct ow_hashmap {
    uint32_t flags;       /* MAP_FLAG_STATIC; other bits are carried along */
    uint32_t num_buckets; /* number of buckets */
    uint32_t bucket_size; /* slots per bucket; kept by growth */
    uint32_t map_size;    /* num_buckets * bucket_size */
    uint32_t num_pairs;   /* pairs held */
    union {
        hash_pair_t** pairs;                   /* map_size slots, NULL while map_size is 0 */
        const hash_pair_t* const* const_pairs; /* a static map's constant slot array */
    };
    hash_pair_t* first; /* oldest pair, or NULL */
    hash_pair_t* last;  /* newest pair, or NULL */
} ow_hashmap;

/* One constant pair of a static map, as the source gen_static_map_ex writes uses it: a
 * pointer to a constant hash_pair_t holding the hash, key, value word and pair flags. C only
 * (a compound literal). */
#define SLOT(hash_, key_, value_, flags_) \
    (&(const hash_pair_t){                \
        .flags = (flags_), .hash = (hash_), .key = (char*)(key_), .value = (void*)(value_)})

/* Position of an iterator over a static map's slot array. */
typedef struct ow_map_slot_position {
    uint32_t map_size; /* slot count */
    uint32_t index;    /* one past the slot the iterator stands on; 0 before the first */
} ow_map_slot_position;

typedef struct ow_map_iterator {
    union {
        hash_pair_t* first;                    /* ordered map: its first pair at start */
        const hash_pair_t* const* const_pairs; /* static map: the slot array */
    };
    union {
        hash_pair_t* last;         /* ordered map: its last pair at start */
        ow_map_slot_position slot; /* static map: slot count and position */
    };
    hash_pair_t* current; /* ordered map: the pair at the position, or NULL */
    uint8_t flags;        /* MAP_ITER_FLAG_STATIC, MAP_ITER_FLAG_END */
} ow_map_iterator;

/* A new empty map, or NULL. (0, 0) is the usual call: the table (5 buckets of 13 slots) is
 * then set up at the first store. Refuses dimensions whose product exceeds UINT32_MAX.
 * Free with ow_map_destroy. */
OW_API ow_hashmap* ow_map_create(uint32_t num_buckets, uint32_t bucket_size);
/* Removes every pair (releasing values per convention 1); the table keeps its size. */
OW_API bool ow_map_clear(ow_hashmap* map);
/* Releases every pair, the table and the map. A NULL or static map is refused (logged). */
OW_API void ow_map_destroy(ow_hashmap* map);
/* Number of pairs; 0 for NULL. */
OW_API uint32_t ow_map_count(const ow_hashmap* map);
/* Adds key -> value. With copy set the map keeps its own copy of length bytes (freefn must
 * then be NULL or free); otherwise it keeps the value word and calls freefn (if any) when
 * the pair goes. Returns false if the key is present or on failure; after a failed store a
 * caller-owned value is still the caller's. Grows the table when the key's bucket is full. */
OW_API bool ow_map_store_ex(ow_hashmap* map, const char* key, void* value, uint64_t length,
                            bool copy, ow_map_free_fn freefn);
/* True if key is present; its value word is written to *value when value is not NULL. */
OW_API bool ow_map_fetch(const ow_hashmap* map, const char* key, void** value);
/* True if a pair was removed (its key, record and owned value released). */
OW_API bool ow_map_remove(ow_hashmap* map, const char* key);
/* Gives the pair of old_key the key new_key, keeping its place in iteration order. False if
 * old_key is absent or new_key present (silently), or on failure. */
OW_API bool ow_map_rename(ow_hashmap* map, const char* old_key, const char* new_key);
/* Grows the table to the next prime bucket count; true if it grew. On failure the map is
 * unchanged and holds every pair. */
OW_API bool ow_map_rehash(ow_hashmap* map);
/* The map's 32-bit hash of a string (0, logged, for NULL or ""). */
OW_API uint32_t ow_map_hash(const char* key);

/* A malloc'd iterator positioned before the first pair, or past the last for direction 1.
 * Free with ow_map_iterator_end. */
OW_API ow_map_iterator* ow_map_iterator_start_ex(const ow_hashmap* map, uint32_t direction);
/* Positions caller-held iterator storage before the first pair. */
OW_API void ow_map_iterator_init(ow_map_iterator* it, const ow_hashmap* map);
/* Move to the next / previous pair; true and its borrowed key and value word (each out
 * pointer may be NULL) if one was reached. */
OW_API bool ow_map_iterator_next(ow_map_iterator* it, const char** key, void** value);
OW_API bool ow_map_iterator_prev(ow_map_iterator* it, const char** key, void** value);
/* As next / prev, without moving. */
OW_API bool ow_map_iterator_peek_next(const ow_map_iterator* it, const char** key, void** value);
OW_API bool ow_map_iterator_peek_prev(const ow_map_iterator* it, const char** key, void** value);
/* The pair at the iterator's position, or NULL. */
OW_API hash_pair_t* ow_map_iterator_cur(const ow_map_iterator* it);
/* Frees an iterator from ow_map_iterator_start_ex; NULL is a no-op. */
OW_API void ow_map_iterator_end(ow_map_iterator* it);
/* Removes the pair the iterator stands on (releasing it as ow_map_remove does) and leaves
 * the iterator in its place, so that the next ow_map_iterator_next reaches the pair that
 * followed it and the next ow_map_iterator_prev the pair that preceded it; the first and last
 * pairs included. True on success; false (logged) when it is NULL, stands on no pair (before
 * the first, past the end, or in the gap of an earlier removal) or walks a static map. */
OW_API bool ow_map_iterator_remove(ow_map_iterator* it);
/* The pair at a 0-based position in iteration order: true and its borrowed key and value
 * word (each out pointer may be NULL). An index not below the count is refused (EINVAL). */
OW_API bool ow_map_index(const ow_hashmap* map, uint32_t index, const char** key, void** value);

/* ---- Typed values ------------------------------------------------------------------------
 * Numbers and booleans held in the value word itself (length = the type's size, no copy, no
 * free function). Nothing records the type: fetching with another type reinterprets the
 * bytes. store: true if a new pair was added (false, silently, if the key exists). update:
 * true if an existing pair now holds the value; its old value is released first; never
 * inserts. fetch: true and *out if the key is present; NULL out is refused (EINVAL). */
#define OW_MAP_TYPED_DECL(name, type)                                               \
    OW_API bool ow_map_store_##name(ow_hashmap* map, const char* key, type value);  \
    OW_API bool ow_map_update_##name(ow_hashmap* map, const char* key, type value); \
    OW_API bool ow_map_fetch_##name(const ow_hashmap* map, const char* key, type* out);
OW_MAP_TYPED_DECL(int64, int64_t)
OW_MAP_TYPED_DECL(uint64, uint64_t)
OW_MAP_TYPED_DECL(int32, int32_t)
OW_MAP_TYPED_DECL(uint32, uint32_t)
OW_MAP_TYPED_DECL(double, double)
OW_MAP_TYPED_DECL(float, float)
OW_MAP_TYPED_DECL(bool, bool)
#undef OW_MAP_TYPED_DECL

/* Replaces the value of an existing key as ow_map_store_ex would store it (same copy and
 * free-function rules); the old value is released first. False if the key is absent
 * (silently), for a static map, or on failure (the pair unchanged). */
OW_API bool ow_map_update_ex(ow_hashmap* map, const char* key, void* value, uint64_t length,
                             bool copy, ow_map_free_fn freefn);
/* The first / last pair in iteration order: true and its borrowed key and value word (each
 * out pointer may be NULL); false for an empty map. */
OW_API bool ow_map_get_first_entry(const ow_hashmap* map, const char** key, void** value);
OW_API bool ow_map_get_last_entry(const ow_hashmap* map, const char** key, void** value);

/* Decides whether a value word matches the needle of ow_map_find. */
typedef bool (*ow_map_match_fn)(const void* needle, const void* value);
/* Finds the first pair, in slot order, whose value matches needle: true and its borrowed key
 * in *key (may be NULL). With match NULL: a typed value compares the bytes of its word, any
 * other value of length 0 by identity of the word, others their length bytes with needle's. */
OW_API bool ow_map_find(const ow_hashmap* map, const void* needle, ow_map_match_fn match,
                        const char** key);
/* A new map with the same pairs in the same order (the caller destroys it) and num_buckets x
 * bucket_size slots (0: the source's), or more if a bucket overflowed. Values the source owns
 * (private copies, or values with free as their free function) are copied; other values are
 * shared, and a shared value with a free function is released once, by whichever of the two
 * maps lets go of it last, whatever the order. Values of a static source are never released.
 * The static flag is not copied. NULL (logged) on failure. */
OW_API ow_hashmap* ow_map_copy_ex(const ow_hashmap* map, uint32_t num_buckets,
                                  uint32_t bucket_size);
/* A copy (as ow_map_copy_ex) with the smallest table the search over every smaller bucket
 * count and bucket size finds to hold the pairs; for preparing static maps (slow for large
 * maps). NULL (logged) for a static map or on failure. */
OW_API ow_hashmap* ow_map_shrink(const ow_hashmap* map);
/* Reorders the iteration order with a stable merge sort; compare gets the addresses of the
 * two pairs' key fields (by_key) or value words, and the right pair goes first only when it
 * returns more than 0. Slots do not move. True unless map or compare is NULL. */
OW_API bool ow_map_sort(ow_hashmap* map, int (*compare)(const void*, const void*), bool by_key);
/* Bytes the map occupies: its record, one pointer per slot and, per pair, a pair record, the
 * key with its NUL and the value's length. 0 for NULL. */
OW_API uint64_t ow_map_memory_size(const ow_hashmap* map);

/* ---- Text renderings ----------------------------------------------------------------------- */

/* Prints every slot of map to out for diagnosis: a heading, then per slot its number,
 * bucket, slot, key, hash and value word ("<null>" for empty slots). */
OW_API void ow_map_dump(FILE* out, const ow_hashmap* map);
/* Writes C11 source defining `const ow_hashmap* name` (name NULL: static_map), a static map
 * with map's dimensions and slot layout, so it fetches and iterates as map does. Keys are
 * written as string literals, escaped where C needs it. A typed value (and a short value a
 * map file held inline) is written as the integer its word holds; another value with a
 * length as a string literal of its length bytes (a trailing NUL left to the literal); a
 * NULL word as NULL; a value of length 0 as the C expression its text holds, unchanged.
 * The pair flags are written without PAIR_FLAG_COPY. */
OW_API void gen_static_map_ex(FILE* out, const ow_hashmap* map, const char* name);

/* ---- Files -------------------------------------------------------------------------------
 * The map file is the binary image of a map: a 28-byte header (flags, num_buckets,
 * bucket_size, map_size, num_pairs, slot of the first and of the last pair; unsigned 32-bit,
 * machine byte order) followed by one record per pair in slot order (slot, slot of the next
 * pair, flags, key length K, value length V, K key bytes, V value bytes). Values longer than
 * 8 bytes and private copies are saved as the bytes they point to; other values as the bytes
 * of the value word (inline typed values). */

/* Writes the image of map to path. With overwrite false an existing regular file is left
 * alone and false returned without a line. The image is written to a new file beside path,
 * flushed to disk and renamed over path, so path always holds either the old or the whole new
 * image. A new file gets mode 0644, a replaced one keeps its mode. Pairs with a free function
 * other than free cannot be saved. True when the whole image is in place. */
OW_API bool ow_map_save(const ow_hashmap* map, const char* path, bool overwrite);
/* Reads a map file into a new map (the caller destroys it), with every pair in its saved slot
 * and the saved iteration order; values longer than 8 bytes or saved as copies become private
 * copies, others inline values. A file that is not a well-formed image is refused with an
 * ERROR line and NULL; NULL without a line when path is not an existing regular file. */
OW_API ow_hashmap* ow_map_load(const char* path);
/* Reads a control file: lines "key<separator>value", an optional "#" comment after the
 * separator, key and value trimmed, values stored as string copies. Loads at most max pairs
 * (0 = no limit). Returns 1 and the new map in *out (the caller destroys it), 0 for an empty
 * file (*out untouched), -1 on any failure (the whole file is refused). */
OW_API int ow_map_load_control_file(const char* path, uint32_t max, char separator,
                                    ow_hashmap** out);

#ifdef __cplusplus
}
#endif

#endif /* OW_HASHMAP_H */

/* ow_list.h: the library's singly linked list of byte blobs, used by the rule engine, list
 * files, address parsing and the XML reader.
 *
 * Conventions:
 *  1. A list is the address of its head pointer; a NULL head is an empty list. Operations
 *     that can change the head take that address (ow_list**); read-only walks take the first
 *     entry (which may be NULL).
 *  2. The list owns its entry records. Data is either borrowed (copy false: the entry points
 *     at the caller's bytes) or a private malloc'd copy (copy true). The list does not record
 *     which: data is released only through the release function handed to ow_destroy_list,
 *     ow_list_remove_ex or ow_list_free_entry (normally free()).
 *  3. Refused arguments write one ERROR line with the system's text for EINVAL, failed
 *     allocations one with the text for ENOMEM (ow_log.h). Searches that find nothing and
 *     removal of an entry that is not in the list return NULL or false without a line.
 *  4. Append walks to the end (no tail pointer) and counts as it goes; prepend is constant
 *     time; the sort allocates nothing.
 *
 * Walking and deleting:
 *     for (ow_list* e = head; e != NULL; e = next) { next = e->next; ... }
 * is safe when the body removes e with ow_list_remove_ex(&head, e, true, free).
 */
#ifndef OW_LIST_H
#define OW_LIST_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One entry. data comes first: the sort comparator relies on it (see ow_list_sort). */
typedef struct ow_list {
    void* data;           /* the entry's bytes: borrowed, or a copy made at insertion */
    uint64_t size;        /* their size in bytes, as given at insertion */
    struct ow_list* next; /* the following entry, NULL for the last */
} ow_list;

/* Releases one entry's data; free has this shape. */
typedef void (*ow_list_free_fn)(void* data);
/* Search comparator: (entry data, key, byte count), 0 for a match; memcmp has this shape. */
typedef int (*ow_list_search_fn)(const void* data, const void* key, size_t n);
/* Sort comparator: called with two entries, the earlier first. Because an entry begins with
 * its data pointer, a comparator written for an array of data pointers (as for qsort over
 * char*) works unchanged. > 0 means the first sorts after the second. */
typedef int (*ow_list_sort_fn)(const void* a, const void* b);

/* Appends an entry holding size bytes at data, copied when copy is set. Returns the list's
 * new number of entries (1 or more); -1 when head or data is NULL or size is 0; -2 when the
 * entry, -3 when the copy could not be allocated. The list is unchanged on failure. */
OW_API int64_t ow_append_list_entry(ow_list** head, void* data, uint64_t size, bool copy);
/* As ow_append_list_entry at the front; returns 1, or -1, -2, -3 as append. */
OW_API int64_t ow_prepend_list_entry(ow_list** head, void* data, uint64_t size, bool copy);

/* Frees every entry record, calling release (may be NULL) on each entry's data first, and
 * sets *head to NULL. A NULL head address is refused. */
OW_API void ow_destroy_list(ow_list** head, ow_list_free_fn release);

/* Number of entries reachable from first; 0 for NULL. */
OW_API uint32_t ow_list_count(const ow_list* first);

/* The first entry with data for which cmp(data, key, min(entry size, key_len)) is 0, or
 * NULL. A NULL key or cmp or a key_len of 0 is refused (NULL). */
OW_API ow_list* ow_list_search(ow_list* first, const void* key, uint64_t key_len,
                               ow_list_search_fn cmp);
/* True when ow_list_search finds an entry. */
OW_API bool ow_list_has_entry(ow_list* first, const void* key, uint64_t key_len,
                              ow_list_search_fn cmp);
/* The first entry whose data, as a NUL-terminated string, equals s (ignoring the case of
 * ASCII letters when ignore_case is set), or NULL. The entries' data must be strings. A NULL
 * s is refused. */
OW_API ow_list* ow_list_search_string(ow_list* first, const char* s, bool ignore_case);
/* True when ow_list_search_string finds an entry. */
OW_API bool ow_list_has_string(ow_list* first, const char* s, bool ignore_case);

/* Unlinks entry from the list at *head and clears its next. When release is set and
 * release_fn is given, the data is released and the record freed; otherwise the detached
 * entry is the caller's to free (ow_list_free_entry). True when the entry was unlinked;
 * false (logged) for a NULL head address, NULL entry or empty list; false without a line
 * when the entry is not in the list. */
OW_API bool ow_list_remove_ex(ow_list** head, ow_list* entry, bool release,
                              ow_list_free_fn release_fn);
/* Calls release (may be NULL) on the entry's data and clears it, then frees the record when
 * free_record is set. A NULL entry does nothing. */
OW_API void ow_list_free_entry(ow_list* entry, bool free_record, ow_list_free_fn release);

/* Cuts the length bytes at buffer (NUL not needed) at every delim and appends each piece as
 * a new malloc'd string: n delimiters give n + 1 entries, empty pieces included. A piece of
 * L > 0 bytes has size L + 2 (a zeroed buffer), an empty one size 1. Destroy the list with
 * free. True on success; false when head or buffer is NULL, length is 0, or on allocation
 * failure; pieces appended before a failure stay in the list. */
OW_API bool ow_list_from_string_by_char(ow_list** head, const char* buffer, uint64_t length,
                                        char delim);

/* Stable merge sort of the links (no allocation, O(n log n) comparisons). True; false when
 * head or cmp is NULL. */
OW_API bool ow_list_sort(ow_list** head, ow_list_sort_fn cmp);

/* The entry at the 0-based index (an index of 0 or less gives the first entry); NULL for an
 * empty list (no line) or an index not below the count (ERANGE line). */
OW_API ow_list* ow_list_pindex(ow_list* first, int32_t index);
/* The data of ow_list_pindex's entry, or NULL. */
OW_API void* ow_list_data_at(ow_list* first, int32_t index);

#ifdef __cplusplus
}
#endif

#endif /* OW_LIST_H */

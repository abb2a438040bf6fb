/* ow_nulltermlist.h: growable arrays of string pointers ended by a NULL pointer, the shape of
 * a program's argument vector.
 *
 * Conventions:
 *  1. An array is a malloc'd block of n entry pointers followed by one NULL. Operations that
 *     grow it take the address of the caller's array pointer, may move the block, and store
 *     the new address there. A NULL array pointer is an empty array.
 *  2. Entries are stored as they are: appending never copies a string, and the array frees
 *     entries only through the release function given to ow_lstremove or ow_lstfree. The
 *     pieces made by ow_lstsplode_ex are malloc'd strings: release them with free().
 *  3. Comparators get the array's entry first and the needle (or the other array's entry)
 *     second, and return 0 for a match, so strcmp fits. Without one, entries match only
 *     when they are the same pointer.
 *  4. Refused arguments and failed allocations write one ERROR line (ow_log.h) and return
 *     NULL, false or -1. After a failed allocation the old array is unchanged and valid.
 *  5. Lengths are found by walking to the terminator; every append resizes the block to the
 *     exact new length.
 */
#ifndef OW_NULLTERMLIST_H
#define OW_NULLTERMLIST_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Compares an array entry with a needle; 0 means they match. strcmp has this shape. */
typedef int (*ow_lst_cmp_fn)(const char* entry, const char* needle);
/* Releases one entry; free has this shape. */
typedef void (*ow_lst_free_fn)(void* entry);

/* Number of entries before the terminator; 0 for a NULL or empty array. */
OW_API size_t ow_lstcount(char* const* list);

/* Appends entry (stored as it is, not copied). Returns the possibly moved array, also stored
 * in *list, or NULL when list or entry is NULL or the block cannot grow. */
OW_API char** ow_lstcat(char*** list, char* entry);

/* Appends every entry of second (the pointers are shared, not copied) behind *list, which
 * may be NULL. Returns the possibly moved array, also stored in *list, or NULL when list or
 * second is NULL or the block cannot grow. */
OW_API char** ow_lstappend(char*** list, char* const* second);

/* The address of the first element of list that matches needle under cmp (may be NULL), or
 * NULL when nothing matches. A NULL list or needle is refused (NULL). */
OW_API char** ow_lstfind(char** list, const char* needle, ow_lst_cmp_fn cmp);

/* 1 when both arrays have the same length and each pair of entries matches under cmp (may
 * be NULL); 0 when not; -1 when either array is NULL. Two empty arrays are equal. */
OW_API int ow_lstequal(char* const* first, char* const* second, ow_lst_cmp_fn cmp);

/* Cuts str at every delim and appends each piece, as a new malloc'd string, to *list (which
 * may be NULL). Empty pieces are skipped unless keep_empty is set. An empty str adds nothing.
 * True on success. On failure false; pieces appended before it stay in the array. A NULL
 * list or str, or a NUL delim, is refused. */
OW_API bool ow_lstsplode_ex(char*** list, const char* str, char delim, bool keep_empty);

/* Removes the entry at index, calling release (may be NULL) on it first, and moves the rest
 * forward; the block keeps its size. False (logged) for a NULL list or an index not below
 * the length. */
OW_API bool ow_lstremove(char** list, uint64_t index, ow_lst_free_fn release);

/* Calls release (may be NULL) on every entry in order, frees the block and sets *list to
 * NULL. A NULL list address does nothing. */
OW_API void ow_lstfree(char*** list, ow_lst_free_fn release);

#ifdef __cplusplus
}
#endif

#endif /* OW_NULLTERMLIST_H */

/* ardvex-file.h: the engine's white- and blacklists, plain text files of one entry per line
 * in a directory the caller names: searching them with a pluggable comparison, adding and
 * removing entries (with an optional comment line under an entry), and loading a file as a
 * list of lines or as a number.
 *
 * Conventions:
 *  1. A list line whose first non-blank character is '#' is a comment; a blank line is
 *     ignored; blanks before an entry are skipped when searching, blanks after it belong to
 *     it. An entry may be followed by one line starting with a TAB: its comment. Lines are
 *     read in pieces of at most 1022 characters, so a longer line counts as several lines.
 *  2. A comparison takes (line text, entry) and returns 0 for a match, like strcasecmp, which
 *     is one of them (exact, ignoring case); __wildcardmatch is the other ('*' wildcards).
 *  3. Editing (ow_add_entry, ow_del_entry) holds the whole-file write lock of ow_open_ex on
 *     the list while it works and replaces the list by renaming a complete new file
 *     "<list>.tmp" over it, keeping the list's permission bits (a list that is a symbolic
 *     link is replaced where the link points). Readers take no lock and always see either
 *     the old or the new list, never a part of one; an interrupted edit leaves the old list
 *     in place.
 *  4. An entry may not be added to "from_whitelist", "exempt_ips" or "rl_whitelist.lst"
 *     while it stands in "from_blacklist", "blocked_ips" or "ra_whitelist.lst" respectively,
 *     nor the other way round.
 *  5. Refused arguments write one ERROR line (ow_log.h) with the system's text for EINVAL.
 *     Message results are constant texts: never free them.
 */
#ifndef ARDVEX_FILE_H
#define ARDVEX_FILE_H

#include <stdbool.h>

#include "ow_export.h"
#include "ow_list.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Compares a list line with an entry: 0 for a match. strcasecmp has this shape. */
typedef int (*ow_line_compare_fn)(const char* line, const char* entry);
/* Receives each line of ow_iterate_file; the text is valid only during the call. */
typedef void (*ow_line_callback_fn)(const char* line);

/* True when some entry line of the list dir/name matches entry under compare. False when it
 * does not, when the file is missing or not a regular file, or when dir, name or entry is
 * NULL or empty or compare is NULL (ERROR line). A hit writes a DEBUG line naming the path,
 * the line number, the entry and the line. */
OW_API bool __file_contains_line(const char* dir, const char* name, const char* entry,
                                 ow_line_compare_fn compare);

/* 0 when text matches pattern, non-zero otherwise. A pattern without '*' is compared with
 * strcasecmp (its result is returned). Otherwise the pattern is anchored at both ends, each
 * '*' matches any run of characters and each '.' only a dot; every other character keeps its
 * regular-expression meaning (tiny_rex.h), so "+" or "[" work as operators. Letter case
 * never counts. NULL or empty arguments: ERROR line, 1. */
OW_API int __wildcardmatch(const char* pattern, const char* text);

/* 0 when text matches the regular expression (compiled ignoring case), 1 when it does not,
 * when the expression does not compile, or when either argument is NULL (ERROR line). */
OW_API int __regexmatch(const char* regex, const char* text);

/* Calls callback with every line of dir/name in order, each without its trailing CR and LF
 * characters (comment and blank lines included). True at the end of the file; false when an
 * argument is NULL or empty (ERROR line), the file is not a regular file, or it cannot be
 * opened or read (ERROR line). */
OW_API bool ow_iterate_file(const char* dir, const char* name, ow_line_callback_fn callback);

/* Without comment (NULL): appends entry as the last line of dir/name, creating the list
 * (mode 0666 before the umask) when it does not exist. With a comment (1 to 255
 * characters): sets the comment line under the matching entry, replacing its old one. Lines
 * matching entry under compare are rewritten in the caller's spelling. Returns NULL on
 * success, otherwise one of "Invalid arguments to add", "Invalid comment to add", "Out of
 * memory error", "Entry is present in the opposite table", "Error opening file", "Error
 * reading file", "Error writing file", "Entry already exists" (no comment, entry listed) or
 * "Entry not found" (comment, entry not listed); the list is unchanged then. */
OW_API const char* ow_add_entry(const char* dir, const char* name, const char* entry,
                                const char* comment, ow_line_compare_fn compare);

/* Removes every line of dir/name matching entry under compare, each with the comment line
 * directly under it; with keep_entry only those comment lines go. A list that does not exist
 * is success. Returns NULL on success, otherwise one of "Invalid arguments to del", "Out of
 * memory error", "Error opening file", "Error reading file", "Error writing file" or "Entry
 * not found"; the list is unchanged then. */
OW_API const char* ow_del_entry(const char* dir, const char* name, const char* entry,
                                bool keep_entry, ow_line_compare_fn compare);

/* The content of dir/name cut at every LF into a new list of malloc'd strings (see
 * ow_list_from_string_by_char; a final LF gives a last, empty entry). Destroy it with
 * ow_destroy_list(&list, free). NULL when an argument is NULL or empty (ERROR line), when the
 * file is missing, empty or unreadable, or when memory runs out. */
OW_API ow_list* ow_file_to_list(const char* dir, const char* name);

/* The content of dir/name read as a decimal number by strtol (leading blanks and a sign
 * allowed, reading stops at the first other character). 0 when an argument is NULL or empty,
 * or the file is missing or unreadable. */
OW_API long ow_file_to_int(const char* dir, const char* name);

#ifdef __cplusplus
}
#endif

#endif /* ARDVEX_FILE_H */

/* ardvex-iprange.h: ranges of IPv4 addresses kept in a binary companion file beside a text
 * IP list ("blocked_ips.range" beside "blocked_ips"): the file format, range arithmetic,
 * lookup, exact search, adding, deleting, converting the older format and listing.
 *
 * Conventions:
 *  1. Addresses are IPv4 numbers in network byte order, as ip_string_to_number
 *     (ardvex-ip-funcs.h) gives them: the first octet is the first byte in memory. They are
 *     compared octet by octet. A range holds low and high, both inclusive, and never leaves
 *     the /16 of its low address. 0.0.0.0, 255.255.255.255 and IPv6 are never accepted.
 *  2. The file: a 16-byte header (ipr_header), then count records back to back, 264-byte
 *     ipr_record in version 2, 8-byte ipr_range in version 1. Integers are in the machine's
 *     byte order. Records stay in the order they were added. A file of fewer than 16 bytes or
 *     with a bad signature or version is corrupt: lookups answer false, and adding rewrites
 *     it as an empty version 2 file. Only version 2 files are modified.
 *  3. Writers hold the whole-file write lock of ow_open_ex (ow_file.h) on the range file and
 *     replace it by renaming a complete new file "<file>.new" over it (where a symbolic link
 *     points, when it is one), so a reader sees the old or the new file whole: its count
 *     always agrees with its size. Deletion and conversion keep a "<file>.bak" link to the
 *     old file only while the swap is under way.
 *  4. Failures write one ERROR line (ow_log.h); steps are narrated as DEBUG lines. Message
 *     out-parameters receive constant texts: never free them.
 */
#ifndef ARDVEX_IPRANGE_H
#define ARDVEX_IPRANGE_H

#include <stdbool.h>
#include <stdint.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The file's first 8 bytes, read as a 64-bit integer: bytes ea d3 37 a9 80 6c d7 66. */
#define IPR_SIGNATURE 0x66d76c80a937d3eaULL
#define IPR_VERSION_LEGACY 1
#define IPR_VERSION_CURRENT 2
#define IPR_COMMENT_SIZE 256 /* a comment holds at most 255 characters and its NUL */

typedef struct ipr_header {
    uint64_t signature;  /* IPR_SIGNATURE */
    uint8_t version;     /* 1 or 2; readers look at this byte only */
    uint8_t reserved[3]; /* zero when written */
    uint32_t count;      /* records that follow */
} ipr_header;

/* A range, and the whole version 1 record. */
typedef struct ipr_range {
    uint32_t low;  /* network byte order */
    uint32_t high; /* network byte order, in the same /16 as low and not below it */
} ipr_range;

/* A version 2 record. */
typedef struct ipr_record {
    ipr_range range;
    char comment[IPR_COMMENT_SIZE]; /* NUL-terminated, zero-filled */
} ipr_record;

/* True when a is at or above b, comparing octets first to last, after a scope check: level
 * 1 needs equal first octets, level 2 equal first two octets, level 3 and above equal first
 * three (then only the fourth octets are compared). A failed scope check is false with a
 * DEBUG line. Level 0 compares without a scope. */
OW_API bool ax_ip_ge(uint32_t a, uint32_t b, int level);

/* True when range is not NULL and high is at or above low within low's /16. */
OW_API bool ax_valid_ip_range(const ipr_range* range);

/* True when ip lies in the valid range; 0.0.0.0 and 255.255.255.255 never do. */
OW_API bool ax_ip_in_range(uint32_t ip, const ipr_range* range);

/* True when the IPv4 address text ip lies in some range of the range file dir/name. False
 * when it does not, when ip is refused, or when the file is missing, empty or corrupt (a
 * record that is no valid range makes the whole file corrupt). */
OW_API bool file_contains_ip_range_match(const char* name, const char* ip, const char* dir);

/* True when the range file at path records exactly low-high; when offset is not NULL it
 * receives the record's byte offset (16 + index * 264). False otherwise. */
OW_API bool ipr_file_contains_range(const char* path, const char* low, const char* high,
                                    uint32_t* offset);

/* Records low-high with comment (NULL, or at most 255 characters), creating the file when
 * missing or corrupt. A range already recorded is refused ("Entry already exists") without a
 * comment; with one, its comment is replaced. True on success; otherwise false and *message
 * (when message is not NULL) is one of "Invalid arguments to add", "Error opening file",
 * "Legacy format detected, abort", "Invalid ip range to add", "Entry already exists",
 * "Error reading file", "Error traversing file", "Error writing file", "Out of memory
 * error". The file is unchanged on failure. */
OW_API bool ipr_add_range_to_file(const char* dir, const char* name, const char* low,
                                  const char* high, const char* comment, const char** message);

/* Removes every record of exactly low-high from the existing version 2 file dir/name; a
 * range not recorded is success and the file is untouched. True on success; otherwise false
 * and *message is one of "Invalid arguments to add" (sic, for deletion too), "Error opening
 * file", "Legacy format detected, abort", "Out of memory error", "Error reading file",
 * "Error writing file", "Error traversing file", "Error removing old backup file", "Error
 * creating backup file". The file is unchanged on failure. */
OW_API bool ipr_del_range_from_file(const char* dir, const char* name, const char* low,
                                    const char* high, const char** message);

/* Rewrites the version 1 file dir/name as version 2 with the same ranges and empty comments.
 * True when done, when the file is already version 2, or when it does not exist; false on
 * empty arguments or any failure (the old file stays in place). */
OW_API bool ipr_convert_file(const char* dir, const char* name);

/* Prints each range of dir/name to standard output as "low - high", followed by a line of
 * TAB and the comment when a version 2 record has one. */
OW_API void ipr_list_file(const char* dir, const char* name);

/* True when the IPv4 address text ip lies in the block 192.0.2.0/24 (TEST-NET-1, reserved for
 * documentation), which the mail-server side treats as its own test clients. False for NULL
 * or empty text. */
OW_API bool ip_in_builtin_range(const char* ip);

#ifdef __cplusplus
}
#endif

#endif /* ARDVEX_IPRANGE_H */

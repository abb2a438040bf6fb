/* ow_stringutils.h: small heap-string operations: appending, number formatting, case and
 * whitespace changes, pattern replacement and formatting into a new string.
 *
 * Conventions:
 *  1. Strings are NUL-terminated byte strings. An argument is either in place (char*: the
 *     bytes are changed where they are and the string can only get shorter) or replaceable
 *     (char**: the address of the caller's pointer; the operation may free the old string
 *     and store a new one there). Every string handed out or stored through a replaceable
 *     argument comes from malloc; the caller frees it with free().
 *  2. For the appending operations a NULL string behind a replaceable argument is an empty
 *     string that is allocated on first use; the other operations refuse it.
 *  3. A refused argument writes an ERROR line with the system's text for EINVAL, an
 *     allocation failure one with the text for ENOMEM (ow_log.h); the caller's string is
 *     then left as it was unless the function's comment says otherwise. Most operations
 *     narrate their work as DEBUG lines.
 *  4. Whitespace is that of the POSIX locale (space, \t, \n, \v, \f, \r) and letters are
 *     A-Z and a-z; bytes of 0x80 and above are neither.
 */
#ifndef OW_STRINGUTILS_H
#define OW_STRINGUTILS_H

#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Modes of ow_trim_ex; they are bits and may be or-ed. */
#define OW_TRIM_LEFT 1u
#define OW_TRIM_RIGHT 2u
#define OW_TRIM_BOTH 3u

/* Appends src to *dst, growing it (or allocating it when *dst is NULL). True on success;
 * false when dst or src is NULL or on allocation failure, *dst unchanged. src may point
 * into *dst. */
OW_API bool ow_strcat(char** dst, const char* src);
/* Appends the character c to *dst as ow_strcat does. False when dst is NULL, c is NUL or on
 * allocation failure, *dst unchanged. */
OW_API bool ow_ccat(char** dst, char c);
/* Replaces *dst (freed when not NULL) by a new string holding number in decimal. False when
 * dst is NULL or on allocation failure, *dst unchanged. */
OW_API bool ow_ltoa(char** dst, int64_t number);
/* Appends number in decimal to *dst as ow_strcat does; false as ow_strcat. */
OW_API bool ow_icat(char** dst, int64_t number);

/* Turn every upper-case letter of s into lower case (ow_lower) or the reverse (ow_upper),
 * in place. A NULL s is refused. */
OW_API void ow_lower(char* s);
OW_API void ow_upper(char* s);

/* Remove trailing (ow_trim_right) or leading (ow_trim_left) whitespace in place; the
 * buffer does not move. A NULL s is refused. */
OW_API void ow_trim_right(char* s);
OW_API void ow_trim_left(char* s);
/* In-place trim by mode: OW_TRIM_LEFT (1), OW_TRIM_RIGHT (2) or OW_TRIM_BOTH (3). A NULL s
 * or a mode with neither bit is refused. */
OW_API void ow_trim_ex(char* s, uint32_t mode);
/* Replaces *s by a new string without leading and trailing whitespace; an empty string is
 * left as it is (same pointer). On allocation failure the old string stays, possibly with
 * its trailing whitespace already cut. A NULL s or *s is refused. */
OW_API void ow_trim(char** s);
/* Cuts *s at its first \r or \n and shrinks the allocation to fit. A NULL s or *s is
 * refused. */
OW_API void ow_chomp(char** s);
/* Trims *s at both ends (as ow_trim) and replaces every run of two or more whitespace
 * bytes by one space; a lone whitespace byte stays as it is. True on success; false when s
 * or *s is NULL or when the trim could not allocate. */
OW_API bool ow_simplify_whitespace(char** s);
/* Replaces *s by a new string holding only its non-whitespace bytes; a string without
 * whitespace stays where it is. On allocation failure the old string stays. A NULL s or *s
 * is refused. */
OW_API void ow_strip_whitespace(char** s);

/* Replaces every non-overlapping occurrence of pattern in s, left to right, by replacement,
 * in place; text produced by a replacement is never searched again. replacement must not
 * be longer than pattern. True on success, also when nothing matched; false (logged) when
 * s, pattern or replacement is NULL, pattern is empty, or replacement is longer. */
OW_API bool ow_str_replace_smaller(char* s, const char* pattern, const char* replacement);
/* As ow_str_replace_smaller for any lengths. A longer replacement makes a new string of
 * exactly the right size that replaces *s; otherwise the work is done in place and *s keeps
 * its value. True on success, also when nothing matched; false when s, *s, pattern or
 * replacement is NULL, pattern is empty, or on allocation failure (*s unchanged). */
OW_API bool ow_str_replace(char** s, const char* pattern, const char* replacement);

/* Formats into a new string stored in *out (any string *out held is not freed). Returns the
 * length of the text, or -1 (logged) when out or format is NULL, the format fails, or on
 * allocation failure; *out is then unchanged. */
OW_API int ow_asprintf(char** out, const char* format, ...) OW_PRINTF(2, 3);
/* As ow_asprintf with an argument list; args is read only through copies, so the caller
 * may still va_end or reuse it. */
OW_API int ow_vasprintf(char** out, const char* format, va_list args) OW_PRINTF(2, 0);

/* A new string holding the bytes of s before the first delimiter, or all of s when the
 * delimiter does not occur; when stop is not NULL, *stop is set to that delimiter or to the
 * terminating NUL of s. NULL (logged) when s is NULL, delimiter is NUL or on allocation
 * failure; *stop is then unchanged. Free the result with free(). */
OW_API char* ow_strdup_till(const char* s, const char** stop, char delimiter);

#ifdef __cplusplus
}
#endif

#endif /* OW_STRINGUTILS_H */

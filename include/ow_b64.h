/* ow_b64.h: base64 text (RFC 4648 standard alphabet, "=" padding, no line breaks) to and
 * from byte strings.
 *
 * Conventions:
 *  1. Results are delivered through a replaceable pointer (the address of the caller's
 *     pointer): on success a string already held there is freed with free() and replaced by a
 *     new malloc'd one; on any failure it is left exactly as it was.
 *  2. Refused arguments write an ERROR line with the system's text for EINVAL; an allocation
 *     failure writes the out-of-memory line (ow_log_oom). Malformed base64 text is refused
 *     silently: it is ordinary input, not a programming error.
 *  3. Each success is narrated as one DEBUG line showing input and result as text (binary
 *     data only up to its first NUL byte).
 */
#ifndef OW_B64_H
#define OW_B64_H

#include <stdbool.h>
#include <stdint.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Encodes length bytes of input (length 0: input is a NUL-terminated string, use its
 * length) into a NUL-terminated base64 string stored in *out. False when out or input is
 * NULL or there is nothing to encode (EINVAL), or on allocation failure. */
OW_API bool ow_base64_encode_ex(char** out, const void* input, uint64_t length);

/* Decodes the NUL-terminated base64 text into a new buffer stored in *out; the buffer holds
 * the decoded bytes followed by at least one NUL. When decoded_length is not NULL the number
 * of decoded bytes is stored there. Decoding stops after the first group that ends in "=";
 * a "=" in the first two places of a group counts as zero bits. False when out or text is
 * NULL or text is empty (EINVAL), silently when the text's length is not a multiple of 4 or
 * a character outside the alphabet and "=" is met before decoding stops, and on allocation
 * failure. */
OW_API bool ow_base64_decode_ex(char** out, const char* text, uint64_t* decoded_length);

#ifdef __cplusplus
}
#endif

#endif /* OW_B64_H */

/* ardvex-ip-funcs.h: IPv4 addresses between dotted text and a 32-bit number, and the
 * loopback test, for the engine's IP range files.
 *
 * Conventions:
 *  1. An IPv4 number is in network byte order exactly as inet_aton stores it in s_addr: its
 *     bytes in memory are the octets in written order (on a little-endian host 1.2.3.4 is
 *     0x04030201). Convert to host order before comparing numbers as ranges.
 *  2. Failures write one ERROR line (ow_log.h) with the system's text for EINVAL or ENOMEM;
 *     numeric results use 0 for failure, text results NULL. Text results are malloc'd: free
 *     them with free().
 */
#ifndef ARDVEX_IP_FUNCS_H
#define ARDVEX_IP_FUNCS_H

#include <stdint.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The IPv4 number of text, which inet_aton reads (so shorthand such as 10.1 and hexadecimal
 * or octal parts count). 0 for NULL or empty text (ERROR line), for text inet_aton refuses
 * (DEBUG line only) and for 255.255.255.255 (ERROR line); 0.0.0.0 also gives 0. */
OW_API uint32_t ip_string_to_number(const char* text);

/* A new "%d.%d.%d.%d" text of the number's four bytes in memory order, or NULL when out of
 * memory. Free with free(). */
OW_API char* ip_number_to_string(int32_t number);

/* 1 when text is exactly "127.0.0.1", or an IPv6 address equal to ::1; otherwise 0 (also for
 * NULL or empty text, which is refused with an ERROR line). */
OW_API int is_localhost(const char* text);

#ifdef __cplusplus
}
#endif

#endif /* ARDVEX_IP_FUNCS_H */

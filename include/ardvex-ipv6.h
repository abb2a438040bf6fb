/* ardvex-ipv6.h: recognise IPv6 text and bring it to the platform's canonical form.
 *
 * Conventions: failures write one ERROR line (ow_log.h) with the system's text for EINVAL or
 * ENOMEM unless said otherwise; text results are malloc'd (free with free()) and NULL on
 * failure.
 */
#ifndef ARDVEX_IPV6_H
#define ARDVEX_IPV6_H

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* 1 when inet_pton(AF_INET6) accepts text, else 0; NULL or empty text is refused (0). */
OW_API int is_ipv6(const char* text);

/* A new string holding text in inet_ntop's canonical IPv6 form (lower-case groups without
 * leading zeros, the longest zero run as ::, IPv4-mapped addresses with a dotted tail), or
 * NULL when text is NULL, empty or not IPv6 (EINVAL), or on allocation failure. */
OW_API char* compress_ipv6(const char* text);

#ifdef __cplusplus
}
#endif

#endif /* ARDVEX_IPV6_H */

/* ow_rfc.h: is a text from an SMTP conversation or a message header usable? Domain names,
 * bare addresses (user@domain), RFC 822 address fields, IP address families and private or
 * reserved ranges; and the bare addresses of a header that lists several mailboxes.
 *
 * Conventions:
 *  1. Every check is a pure function of its text and the character classes of the POSIX
 *     locale (printable is 0x20-0x7E; bytes of 0x80 and above are never letters, digits,
 *     white space or printable), whatever locale the process has set.
 *  2. Reasons for refusing are DEBUG lines (ow_log.h); a missing argument or exhausted
 *     allocation is an ERROR line with the system's text for EINVAL or ENOMEM, and the
 *     operation's negative value (0, false or NULL). ow_rfc822_email_address is the
 *     exception: it accepts a missing field and accepts when it cannot allocate, so that a
 *     bounce or a resource shortage never rejects mail.
 *  3. Lists are ow_list lists of malloc'd NUL-terminated strings whose size is the string's
 *     length plus one; they own their strings: destroy with ow_destroy_list(&list, free).
 *     Returned strings are malloc'd: free with free().
 *  4. Work is linear in the length of the text; nothing recurses on nesting depth.
 */
#ifndef OW_RFC_H
#define OW_RFC_H

#include <stdbool.h>

#include "ow_export.h"
#include "ow_list.h"

#ifdef __cplusplus
extern "C" {
#endif

/* 1 when domain has at least 3 characters and a dot, neither starts nor ends with a dot,
 * is not an IP address, has no empty label and holds only letters, digits, '-' and '.';
 * else 0. No length limits apply. */
OW_API int ow_valid_domain(const char* domain);

/* 1 when address is local@domain with a non-empty local part of letters, digits and
 * !#$%&'*+-./=?^_`{|}~ (not starting or ending with '.', no "..") and a domain part of at
 * most 254 characters that ow_valid_domain accepts; else 0 (NULL or empty: ERROR line). */
OW_API int ow_valid_email_address(const char* address);

/* 1 when field is an acceptable address field: a bare address with optional comments, or
 * an optional phrase (quoted or not) with one <address> (which may be empty, <>, for a
 * bounce); else 0. A NULL or empty field is accepted. When bracketed is not NULL it is set
 * to true when the field held an angle-bracket address that was accepted (and left alone
 * otherwise). */
OW_API int ow_rfc822_email_address(const char* field, bool* bracketed);

/* The top-level comma-separated pieces of a header value (commas inside quotes or comments
 * do not split), each with its white space collapsed, or NULL for a NULL (ERROR line) or
 * empty value or on allocation failure. Adjacent commas give an empty piece; a trailing
 * piece that is empty after collapsing is dropped. */
OW_API ow_list* ow_split_addresses(const char* value);

/* The bare address of one mailbox, lower-cased and trimmed: the text between the first
 * '<' and the following '>', or without brackets the whole text with its comments removed.
 * Not validated. NULL when mailbox is NULL or empty, holds a non-printable byte, a broken
 * quoted phrase or comment, an empty <> or no closing '>', or nothing is left. */
OW_API char* ow_extract_address_from_mailbox(const char* mailbox);

/* The bare addresses of a header value's mailboxes in order (duplicates kept; pieces that
 * yield none skipped), or NULL when the value is NULL or empty (ERROR line), nothing could
 * be extracted, or on allocation failure. */
OW_API ow_list* ow_parse_addresses_from_header(const char* value);

/* 2 (AF_INET) for a strict dotted-quad IPv4 address, 10 (AF_INET6) for IPv6 text, 0 for
 * neither (and for NULL or empty text, with an ERROR line). */
OW_API int ow_is_ip(const char* text);

/* True when text is an IPv6 address; NULL or empty text is refused (false). */
OW_API bool ow_is_ipv6(const char* text);

/* True when text is an address in a private or reserved range: IPv4 0/8, 10/8, 127/8,
 * 169.254/16, 172.16/12, 192.168/16, 240/4 and above; IPv6 fc00::/7, ::, ::1,
 * ::ffff:0:0/96 and fe80::/10. False otherwise, also for text that is no address (ERROR
 * line). Multicast, 100.64/10 and the documentation ranges count as routable. */
OW_API bool ow_is_unroutable_ip(const char* text);

#ifdef __cplusplus
}
#endif

#endif /* OW_RFC_H */

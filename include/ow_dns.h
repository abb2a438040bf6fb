/* ow_dns.h: the screening rules' naming questions (does a domain have an address or a
 * mail-exchanger record, which host names does an IP address resolve back to) and the
 * checked address conversions the rest of the naming code builds on.
 *
 * Conventions:
 *  1. Lookups return a small result code, an interface contract for callers that cache
 *     verdicts: OW_DNS_FOUND (0) a record was found, OW_DNS_NO_NAME (1) the name does not
 *     exist (or holds no record of the asked type), OW_DNS_FAILURE (2) the question could not
 *     be answered. Negative codes are refusals (see each function). Only 0 and 1 are
 *     verdicts; every other value must not be held against a client.
 *  2. Lookups follow the system's resolver configuration (/etc/resolv.conf, and for the
 *     address lookup /etc/nsswitch.conf); a server that never answers ends the lookup after
 *     the resolver's own time-out and retry count. The resolver option the engine hands down
 *     is accepted and not used.
 *  3. A name array is a malloc'd array of malloc'd NUL-terminated host names ending with a
 *     NULL entry; the receiver frees each name and then the array. An out-pointer to a name
 *     array is written only on success.
 *  4. Every failure writes one ERROR line and progress is narrated as DEBUG lines (ow_log.h).
 *  5. Only the hosts-file scan takes a lock (a process-wide mutex around the reading of
 *     /etc/hosts); the rest keeps no state between calls.
 */
#ifndef OW_DNS_H
#define OW_DNS_H

#include <stdint.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

#define OW_DNS_FOUND 0
#define OW_DNS_NO_NAME 1
#define OW_DNS_FAILURE 2
/* ow_resolv_A: EAI_FAIL; ow_has_a_or_mx: not a valid domain; ow_lookup_reverse_dns: the
 * response carried no answer records. */
#define OW_DNS_REFUSED (-1)
#define OW_DNS_BAD_ARGUMENT (-2)

/* Size of the text buffers ow_inet_ntop and ow_compress_ipv6 write (INET6_ADDRSTRLEN). */
#define OW_DNS_ADDRSTRLEN 46

/* inet_pton for AF_INET (2) or AF_INET6 (10) only, into dst (16 bytes are enough for
 * both). Returns inet_pton's result: 1 converted, 0 not an address of that family. 0 with
 * an ERROR line for another family or a NULL pointer. */
OW_API int32_t ow_inet_pton(int32_t family, const char* src, void* dst);

/* inet_ntop for AF_INET or AF_INET6 into dst, which must hold OW_DNS_ADDRSTRLEN bytes.
 * Returns dst, or NULL (logged) for another family, a NULL pointer or a failed conversion. */
OW_API const char* ow_inet_ntop(int32_t family, const void* src, char* dst);

/* The IPv4 address in text (any inet_aton form, such as 127.1 or 0x7f.1) as a number in
 * network byte order. 0 on failure, which includes a NULL or empty text and the all-ones
 * address 255.255.255.255 (refused, so that it can never stand for "no address"). */
OW_API uint32_t ow_inet_addr(const char* text);

/* Writes the canonical text of the IPv6 address in text (lower-case hexadecimal, the
 * longest run of zero groups as ::) into out, which must hold OW_DNS_ADDRSTRLEN bytes and
 * may be text itself. 1 on success, 0 (logged) on failure; out is unchanged then unless
 * the conversion back to text failed. */
OW_API int32_t ow_compress_ipv6(const char* text, char* out);

/* Stores at *out the reverse-lookup name of the IPv4 or IPv6 address in ip
 * (10.2.0.192.in-addr.arpa. for 192.0.2.10; 32 nibbles and ip6.arpa. for IPv6), freeing
 * the text previously held there. 1 on success, 0 (logged) on failure with *out unchanged.
 * Free the result with free(). */
OW_API int32_t ow_arpa(char** out, const char* ip);

/* Does domain have an address (IPv4 or IPv6)? 0 yes, 1 the name does not exist, 2 the
 * lookup failed, -1 the resolver reported a permanent failure (EAI_FAIL), -2 a NULL or
 * empty domain. */
OW_API int32_t ow_resolv_A(const char* domain, int32_t resolver);

/* Does domain have a mail-exchanger record? 0 yes, 1 the name does not exist or its answer
 * holds no MX record, 2 the query failed, -2 a NULL or empty domain. */
OW_API int32_t ow_resolv_MX(const char* domain, int32_t resolver);

/* Can domain receive mail: does it (made absolute with a final dot) have an address or,
 * failing that, a mail-exchanger record? 0 yes; 1 only when both lookups say the name does
 * not exist; 2 otherwise; -1 when domain is not a valid domain name; -2 NULL or empty. */
OW_API int32_t ow_has_a_or_mx(const char* domain, int32_t resolver);

/* The host names /etc/hosts gives the IPv4 or IPv6 address in ip (IPv6 compared in
 * canonical form, without regard to case), in file order, every matching line adding its
 * names. Returns how many were found (0 or more) and, when names is not NULL, stores the
 * name array at *names (NULL when none was found). -1 (logged) on failure. */
OW_API int32_t ow_gethostent(const char* ip, char*** names);

/* The host names the address in ip resolves back to: those of /etc/hosts when it lists the
 * address (as written there, and the DNS is not asked), otherwise the PTR records of its
 * reverse name, lower-cased, in answer order; mode 0 returns all of them, mode 1 the first.
 * 0 found (when names is not NULL, the name array held at *names, if any, is freed and the
 * new one stored there), 1 no such name or no PTR record, 2 failure, -1 the response held no
 * answer records, -2 a NULL or empty ip or a mode other than 0 or 1. */
OW_API int32_t ow_lookup_reverse_dns(char*** names, const char* ip, int32_t resolver, int32_t mode);

#ifdef __cplusplus
}
#endif

#endif /* OW_DNS_H */

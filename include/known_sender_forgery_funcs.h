/* known_sender_forgery_funcs.h: sender domains that may send only from known IPv4 networks.
 * The administrator lists each such domain with its addresses and CIDR blocks in one control
 * file; the rule known_sender_forgery rejects mail from a listed domain sent by a client
 * outside them. Domains that are not listed are unrestricted.
 *
 * The file: lines separated by LF, each trimmed of surrounding white space; empty lines and
 * lines starting with '#' are skipped; every other line is
 *     domain : element [, element ...]
 * where an element is an IPv4 address (a /32) or address/prefix with no host bits set.
 * Invalid elements are dropped; a line left with none is ignored as a whole. A domain on
 * several lines counts with its first line only.
 *
 * Conventions:
 *  1. The file is read and parsed afresh by every check: edits take effect at once.
 *  2. Refused arguments write one ERROR line with the system's text for EINVAL, failed
 *     allocations one with the text for ENOMEM (ow_log.h). What the loader drops is told in
 *     DEBUG lines, and also in ERROR lines while the verbose switch is on.
 *  3. The restriction check fails open: whatever goes wrong, the client may send.
 *  4. Returned strings and records are malloc'd; free them with free() or the destructors
 *     below.
 */
#ifndef KNOWN_SENDER_FORGERY_FUNCS_H
#define KNOWN_SENDER_FORGERY_FUNCS_H

#include <stdbool.h>
#include <stdint.h>

#include "ow_export.h"
#include "ow_list.h"
#include "owspamrule.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One allowed network. */
typedef struct ksf_ip_range {
    uint32_t network; /* IPv4 number in host byte order, host bits clear */
    uint32_t prefix;  /* 0 to 32; a single address is a /32 */
} ksf_ip_range;

/* One usable line of the file. */
typedef struct ksf_domain_ips {
    char* domain;    /* lower case, owned */
    ow_list* ranges; /* ksf_ip_range records in file order, owned (never empty when loaded) */
} ksf_domain_ips;

/* A loaded file. */
typedef struct ksf_list {
    ow_list* domains;       /* ksf_domain_ips records in file order, owned */
    uint32_t ignored_lines; /* lines that were neither blank, comments nor usable */
} ksf_list;

/* Turns the verbose switch on or off (off at start): when on, the loader also reports each
 * refused domain, element and line as an ERROR line. Process-wide and unlocked. */
OW_API void ksf_set_verbose(bool value);

/* Loads the file at path. Returns a new list (an empty file gives one with no domains), to
 * be freed with ksf_destroy_list; NULL when path is NULL or empty, the file cannot be read,
 * or on allocation failure (nothing is left allocated then). */
OW_API ksf_list* ksf_load_list(const char* path);

/* As ksf_load_list, but returns only the domains: a list of ksf_domain_ips, which the caller
 * destroys with ow_destroy_list(&domains, ksf_destroy_domain_ips). NULL when loading failed
 * and when the file lists no domain. */
OW_API ow_list* ksf_get_domain_ip_sets_from_file(const char* path);

/* The lower-case domain of a MAIL FROM address (the text after its last '@'), malloc'd, or
 * NULL when the address is NULL or empty (a bounce), is not a valid address, its domain is
 * not valid, or on allocation failure. */
OW_API char* ksf_parse_mail_from_domain(const char* address);

/* True when the IPv4 address ip may send for domain according to the file at path: the
 * domain is not listed, or ip lies in one of the networks of its first line. False only when
 * the domain is listed and ip lies outside. Any failure (arguments missing, a blank domain,
 * no file, an address that is not IPv4 text) answers true. Letter case of domain is
 * ignored. */
OW_API bool ksf_check_domain_to_ip_restriction(const char* ip, const char* domain,
                                               const char* path);

/* The rule known_sender_forgery: true (reject) when the session's sender domain is listed in
 * the suite's control file valid_domain_ips and the session's ip may not send for it. False
 * for a NULL session (EINVAL), a bounce, an unknown ip, a missing control file, and every
 * failure. */
OW_API bool rule_known_sender_forgery(spam_session* session);

/* Frees a ksf_domain_ips with its domain and ranges; NULL is ignored. Untyped so that it is
 * also the release function of ow_destroy_list. */
OW_API void ksf_destroy_domain_ips(void* domain_ips);

/* Frees a ksf_list with everything it holds; NULL is ignored. */
OW_API void ksf_destroy_list(ksf_list* list);

#ifdef __cplusplus
}
#endif

#endif /* KNOWN_SENDER_FORGERY_FUNCS_H */

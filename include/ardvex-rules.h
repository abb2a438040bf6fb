/* ardvex-rules.h: the check functions of the screening engine's rules and the hooks the
 * engine registers for them. The rule table (owspamrule.h) binds each check to its rule's
 * name and notice; the mail-server component calls them through that table.
 *
 * Conventions:
 *  1. A check takes the transaction's spam_session and returns true when the rule matches
 *     (reject with its notice). False covers no match, nothing to check and a failed check
 *     alike: a DNS failure other than "no such name" is never held against the client.
 *  2. A NULL session writes one ERROR line with the system's text for EINVAL; every decision
 *     is narrated as a DEBUG line of the rule's own function (ow_log.h).
 *  3. Rules write only the session's verdict caches (from_format, helo_dns,
 *     from_domain_dns, ptr_state), ptr_names and rdns, and may replace helo and mail_from by
 *     trimmed copies. A cached verdict of 1 or 2 answers every later rule that shares it
 *     without a lookup; a temporary failure leaves the DNS caches at 0 (ptr_state: see the
 *     reverse-DNS rules).
 *  4. Pattern and list files are read afresh at every call; nothing is kept between calls.
 */
#ifndef ARDVEX_RULES_H
#define ARDVEX_RULES_H

#include <stdbool.h>

#include "ow_export.h"
#include "owspamrule.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- What the client says about itself and its message --------------------------------
 * HELO, MAIL FROM and RCPT TO as given, and whether the session authenticated. */

/* Matches a missing or empty HELO. */
OW_API bool rule_require_helo(spam_session* session);
/* Matches a HELO that is not a valid domain name (after trimming blanks), and the HELO
 * "localhost.localdomain". A NULL HELO is not judged. */
OW_API bool rule_valid_helo_domain(spam_session* session);
/* Matches a HELO that rule_valid_helo_domain rejects or whose name does not exist in the DNS
 * (helo_dns). A NULL HELO is refused (EINVAL). */
OW_API bool rule_resolve_helo_domain(spam_session* session);
/* Matches a sender that is neither empty (a bounce) nor a valid address (from_format). */
OW_API bool rule_mail_from_strict_addr_parse(spam_session* session);
/* Matches a sender without '@' or not a valid address, and one at localhost or
 * localhost.localdomain from any IP but 127.0.0.1. An empty or NULL sender is a bounce only
 * when an earlier rule set from_format. */
OW_API bool rule_rfc_mail_from(spam_session* session);
/* Matches a sender without '@' (so also a bounce), with an invalid domain, or whose domain
 * does not exist in the DNS (from_domain_dns); an IP literal domain passes. A NULL sender is
 * refused (EINVAL). */
OW_API bool rule_valid_from_domain(spam_session* session);
/* Matches when the domain of the sender or of the recipient is an IP address. */
OW_API bool rule_block_ip_in_addr(spam_session* session);
/* Matches a missing, empty or invalid recipient address. */
OW_API bool rule_require_full_addr(spam_session* session);
/* Matches when sender and recipient are the same address, ignoring case. */
OW_API bool rule_block_mail_from_self(spam_session* session);
/* Matches every session: the recipient takes only what a whitelist rule lets through. */
OW_API bool rule_block_all_mail(spam_session* session);
/* Matches an unauthenticated session whose sender's domain is hosted here
 * (is_local_domain.h). */
OW_API bool rule_local_require_auth(spam_session* session);
/* Matches an IPv6 client that neither authenticated nor is exempted (auth_exempt). */
OW_API bool rule_block_nonauth_ipv6(spam_session* session);

/* ---- The client's reverse DNS ---------------------------------------------------------
 * All skip a session without ip or with routable clear, and share one PTR lookup per
 * transaction through ptr_state and ptr_names: the first to find ptr_state 0 asks, caching
 * 1 (names found), 2 (no such name) or 3 (temporary failure); rule_valid_ptr leaves a
 * failure uncached so a later rule asks again. A cached or fresh "no such name" makes
 * rule_check_ip_reverse_dns match and every other rule here pass. */

/* Matches a client whose address has no PTR record. */
OW_API bool rule_check_ip_reverse_dns(spam_session* session);
/* Matches unless some PTR name is a valid domain other than localhost.localdomain (case
 * ignored); that name becomes rdns. */
OW_API bool rule_valid_ptr(spam_session* session);
/* Matches when every PTR name carries four groups of 1-3 digits joined by '-', '_' or '.'
 * and none matches the exemption patterns (exempt.cregexes). The first name that does not
 * match, or is exempt, becomes rdns. */
OW_API bool rule_check_dynamic_reverse_dns_default(spam_session* session);
/* These three hand the session, once the PTR names are known, to the hook registered for
 * them (ardvex-spam-hooks.h); no hook, no match. */
OW_API bool rule_check_dynamic_reverse_dns(spam_session* session);
OW_API bool rule_check_confirmed_dyna(spam_session* session);
OW_API bool rule_check_reverse_dns_list(spam_session* session);

/* The engine's pattern hooks: true when every PTR name matches the compiled pattern file
 * (dyna.cregexes, confirmed.cregexes, spam.cregexes in the pattern directory) and none the
 * exemption patterns, as rule_check_dynamic_reverse_dns_default. False when ptr_names is NULL
 * or the file is missing (the list is switched off). */
OW_API bool dyna_list_hook(spam_session* session);
OW_API bool confirmed_list_hook(spam_session* session);
OW_API bool spam_list_hook(spam_session* session);

#ifdef __cplusplus
}
#endif

#endif /* ARDVEX_RULES_H */

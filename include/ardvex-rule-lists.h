/* ardvex-rule-lists.h: the rules that let an administrator or a user white- or blacklist
 * senders, recipients, client addresses, HELO names and countries, and the hooks behind them
 * that look the session's field up in the list files of its list_dir.
 *
 * Conventions:
 *  1. A rule checks the one session field it is about and hands the session to its hook in
 *     rule_hooks (ardvex-spam-hooks.h), read at each call; with no hook registered the rule
 *     does not match. ardvex_init registers the hooks below; no hook is registered for the
 *     HELO lists, so the HELO rules match only when the host registers its own.
 *  2. True means listed: a whitelist rule accepts the transaction, a blacklist rule rejects
 *     it with its notice. False covers not listed, nothing to check and every failure.
 *  3. A NULL session is refused with an ERROR line (the system's text for EINVAL); an empty
 *     field is a DEBUG line for a rule and an EINVAL ERROR line for a hook.
 *  4. The hooks read, in list_dir:
 *        fromwhitelist_hook    mail_from  "from_whitelist"     '*' wildcards, case ignored
 *        fromblacklist_hook    mail_from  "from_blacklist"     '*' wildcards, case ignored
 *        towhitelist_hook      rcpt_to    "exempt_users"       '*' wildcards, case ignored
 *        ipwhitelist_hook      ip         "exempt_ips"         exact, case ignored, then the
 *                                                              ranges of "exempt_ips.range"
 *        ipblacklist_hook      ip         "blocked_ips"        likewise, "blocked_ips.range"
 *        countryblacklist_hook country    "country_blacklist"  exact, case ignored
 *     A list file that does not exist lists nothing. Files are read at every lookup.
 */
#ifndef ARDVEX_RULE_LISTS_H
#define ARDVEX_RULE_LISTS_H

#include <stdbool.h>

#include "ow_export.h"
#include "owspamrule.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The rules. */
OW_API bool rule_from_whitelist(spam_session* session);
OW_API bool rule_from_blacklist(spam_session* session);
OW_API bool rule_to_whitelist(spam_session* session);
OW_API bool rule_ip_whitelist(spam_session* session);
OW_API bool rule_ip_blacklist(spam_session* session);
OW_API bool rule_helo_whitelist(spam_session* session);
OW_API bool rule_helo_blacklist(spam_session* session);
/* Also false, with a DEBUG line, for the catch-all country "**". */
OW_API bool rule_country_blacklist(spam_session* session);

/* The hooks (see convention 4); true when the session's field is listed. */
OW_API bool fromwhitelist_hook(spam_session* session);
OW_API bool fromblacklist_hook(spam_session* session);
OW_API bool towhitelist_hook(spam_session* session);
OW_API bool ipwhitelist_hook(spam_session* session);
OW_API bool ipblacklist_hook(spam_session* session);
/* An empty country is false without a line. */
OW_API bool countryblacklist_hook(spam_session* session);

#ifdef __cplusplus
}
#endif

#endif /* ARDVEX_RULE_LISTS_H */

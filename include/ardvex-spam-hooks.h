/* ardvex-spam-hooks.h: the hook table through which the engine's rules reach list files,
 * pattern files and the message log, and the resolver option every DNS-using rule passes on.
 *
 * Conventions:
 *  1. There is one process-wide table, all zero (no hooks, option false) until
 *     register_rule_hooks fills it; engine start-up does so, and a hosting program may call
 *     it again to install its own hooks. Write it before judging transactions: it has no
 *     lock, and the rules only read it.
 *  2. A rule whose hook is NULL simply does not match.
 *  3. The three reserved slots belong to the hosting program, for session hooks of its own
 *     that it wants to keep beside the engine's; nothing in the engine reads them.
 */
#ifndef ARDVEX_SPAM_HOOKS_H
#define ARDVEX_SPAM_HOOKS_H

#include <stdbool.h>
#include <stdint.h>

#include "ow_export.h"
#include "owspamrule.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The message-log function: session, reason text (may be NULL), message log type (0..6). */
typedef void (*spam_message_log_fn)(spam_session* session, const char* reason, uint8_t type);

/* The table; a session hook returns true when the session is listed (matches). */
typedef struct spam_rule_hooks {
    bool dns_option;                           /* the resolver option of every rule lookup */
    spam_rule_check_fn dyna_hook;              /* rule_check_dynamic_reverse_dns */
    spam_rule_check_fn reverse_dns_list_hook;  /* rule_check_reverse_dns_list */
    spam_rule_check_fn confirmed_dyna_hook;    /* rule_check_confirmed_dyna */
    spam_rule_check_fn from_whitelist_hook;    /* rule_from_whitelist */
    spam_rule_check_fn from_blacklist_hook;    /* rule_from_blacklist */
    spam_rule_check_fn reserved_hook2;         /* the hosting program's */
    spam_rule_check_fn reserved_hook3;         /* the hosting program's */
    spam_rule_check_fn helo_whitelist_hook;    /* rule_helo_whitelist */
    spam_rule_check_fn helo_blacklist_hook;    /* rule_helo_blacklist */
    spam_rule_check_fn ip_whitelist_hook;      /* rule_ip_whitelist */
    spam_rule_check_fn ip_blacklist_hook;      /* rule_ip_blacklist */
    spam_rule_check_fn country_blacklist_hook; /* rule_country_blacklist */
    spam_rule_check_fn to_whitelist_hook;      /* rule_to_whitelist */
    spam_message_log_fn message_log_hook;      /* for the caller's verdict logging */
    spam_rule_check_fn reserved_hook4;         /* the hosting program's */
} spam_rule_hooks;

/* The process-wide table (see convention 1). */
OW_API extern spam_rule_hooks rule_hooks;

/* Stores the sixteen arguments into rule_hooks in member order, replacing every member,
 * including those passed as NULL. */
OW_API void register_rule_hooks(
    bool dns_option, spam_rule_check_fn dyna, spam_rule_check_fn reverse_dns_list,
    spam_rule_check_fn confirmed_dyna, spam_rule_check_fn from_whitelist,
    spam_rule_check_fn from_blacklist, spam_rule_check_fn reserved2, spam_rule_check_fn reserved3,
    spam_rule_check_fn helo_whitelist, spam_rule_check_fn helo_blacklist,
    spam_rule_check_fn ip_whitelist, spam_rule_check_fn ip_blacklist,
    spam_rule_check_fn country_blacklist, spam_rule_check_fn to_whitelist,
    spam_message_log_fn message_log, spam_rule_check_fn reserved4);

#ifdef __cplusplus
}
#endif

#endif /* ARDVEX_SPAM_HOOKS_H */

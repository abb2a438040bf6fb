// ardvex-spam-hooks.cpp: the engine's hook table. It decouples the rule checks from where
// their data lives; a plain aggregate, zero-initialised before any code runs, so no rule can
// see a half-built table.
#include "ardvex-spam-hooks.h"

#include <cstddef>

static_assert(offsetof(spam_rule_hooks, dns_option) == 0);
static_assert(offsetof(spam_rule_hooks, dyna_hook) == 8);
static_assert(offsetof(spam_rule_hooks, reserved_hook2) == 48);
static_assert(offsetof(spam_rule_hooks, to_whitelist_hook) == 104);
static_assert(offsetof(spam_rule_hooks, message_log_hook) == 112);
static_assert(offsetof(spam_rule_hooks, reserved_hook4) == 120);
static_assert(sizeof(spam_rule_hooks) == 128);

extern "C" {

// Process-wide because the rules are plain functions of a session and reach their data
// through it; written only by register_rule_hooks.
spam_rule_hooks rule_hooks = {};

void register_rule_hooks(bool dns_option, spam_rule_check_fn dyna,
                         spam_rule_check_fn reverse_dns_list, spam_rule_check_fn confirmed_dyna,
                         spam_rule_check_fn from_whitelist, spam_rule_check_fn from_blacklist,
                         spam_rule_check_fn reserved2, spam_rule_check_fn reserved3,
                         spam_rule_check_fn helo_whitelist, spam_rule_check_fn helo_blacklist,
                         spam_rule_check_fn ip_whitelist, spam_rule_check_fn ip_blacklist,
                         spam_rule_check_fn country_blacklist, spam_rule_check_fn to_whitelist,
                         spam_message_log_fn message_log, spam_rule_check_fn reserved4) {
    rule_hooks =
        spam_rule_hooks{dns_option,        dyna,           reverse_dns_list, confirmed_dyna,
                        from_whitelist,    from_blacklist, reserved2,        reserved3,
                        helo_whitelist,    helo_blacklist, ip_whitelist,     ip_blacklist,
                        country_blacklist, to_whitelist,   message_log,      reserved4};
}

}  // extern "C"

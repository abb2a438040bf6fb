// rule_check_reverse_dns_list.cpp: rejects clients when every PTR name matches a pattern of known
// abusive senders (spam.cregexes); the hook registered at start-up does the matching, so a host
// program may put its own lists in place.
#include "ardvex-rules.h"
#include "ardvex-spam-hooks.h"
#include "rule-internal.hpp"

extern "C" bool rule_check_reverse_dns_list(spam_session* session) {
    using ow::rules::ptr_next;
    if (ow::rules::ptr_prologue(session, OW_RULE_SITE, ow::rules::ptr_rule::pattern_list) !=
        ptr_next::check) {
        return false;
    }
    if (rule_hooks.reverse_dns_list_hook == nullptr) {
        OW_DEBUG("no hook registered");
        return false;
    }
    return rule_hooks.reverse_dns_list_hook(session);
}

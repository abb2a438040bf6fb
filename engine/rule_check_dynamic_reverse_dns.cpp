// rule_check_dynamic_reverse_dns.cpp: rejects clients when every PTR name looks like a dynamic
// pool's (dyna.cregexes); the hook registered at start-up does the matching, so a host program may
// put its own lists in place.
#include "ardvex-rules.h"
#include "ardvex-spam-hooks.h"
#include "rule-internal.hpp"

extern "C" bool rule_check_dynamic_reverse_dns(spam_session* session) {
    using ow::rules::ptr_next;
    if (ow::rules::ptr_prologue(session, OW_RULE_SITE, ow::rules::ptr_rule::pattern) !=
        ptr_next::check) {
        return false;
    }
    if (rule_hooks.dyna_hook == nullptr) {
        OW_DEBUG("no hook registered");
        return false;
    }
    return rule_hooks.dyna_hook(session);
}

// rule_walk.hpp: one transaction judged as the hosting mail-server component does it, through
// the C interface only: the started engine's rules in order, up to the first whitelist or
// blocking match, its notice, the logged verdict. The end-to-end test and the per-transaction
// benchmark share it so both measure the same walk.
#ifndef ARDVEX_TESTS_RULE_WALK_HPP
#define ARDVEX_TESTS_RULE_WALK_HPP

#include <cstdlib>
#include <set>
#include <string>

#include "ardvex-log.h"
#include "ardvex-spam-hooks.h"
#include "ardvex.h"
#include "owspamrule.h"

namespace ow_test {

struct verdict {
    std::string rule;  // the rule that ended the walk, empty when none matched
    bool whitelisted = false;
    std::string notice;  // the rejection notice of a blocking match
};

// Rules on: those on by default plus `also_on`; a rule is skipped for an authenticated
// session or an IPv6 client unless its flags say it applies to them.
inline verdict judge(spam_session* s, const std::set<std::string>& also_on = {}) {
    verdict v;
    for (ow_list* e = ardvex_rule_list(); e != nullptr && v.rule.empty(); e = e->next) {
        const auto* r = static_cast<const spam_rule*>(e->data);
        if (r->check == nullptr) continue;  // rate limits and block lists are the host's
        if (!r->enabled_by_default && also_on.count(r->name) == 0) continue;
        if (s->authenticated && !r->applies_to_authenticated) continue;
        if ((s->is_ipv6 && !r->applies_to_ipv6) || !r->check(s)) continue;
        v.rule = r->name;
        v.whitelisted = v.rule.ends_with("_whitelist");
        if (v.whitelisted) break;
        char* notice = build_rejection_notice(r, s, nullptr);
        v.notice = notice != nullptr ? notice : "";
        std::free(notice);
    }
    if (rule_hooks.message_log_hook != nullptr) {
        const uint8_t type = v.rule.empty()  ? ARDVEX_LOG_HAM
                             : v.whitelisted ? ARDVEX_LOG_EXEMPT
                                             : ARDVEX_LOG_SPAM;
        rule_hooks.message_log_hook(s, v.rule.empty() ? nullptr : v.rule.c_str(), type);
    }
    return v;
}

}  // namespace ow_test

#endif  // ARDVEX_TESTS_RULE_WALK_HPP

// rule_check_ip_reverse_dns.cpp: the client's address must have a PTR record.
#include "ardvex-rules.h"
#include "rule-internal.hpp"

extern "C" bool rule_check_ip_reverse_dns(spam_session* session) {
    using ow::rules::ptr_next;
    return ow::rules::ptr_prologue(session, OW_RULE_SITE, ow::rules::ptr_rule::reverse_dns) ==
           ptr_next::match;
}

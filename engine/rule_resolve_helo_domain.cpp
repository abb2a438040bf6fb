// rule_resolve_helo_domain.cpp: the HELO name must exist in the DNS. The verdict is cached in
// the session (helo_dns) so the name is asked once per transaction.
#include "ardvex-rules.h"
#include "ardvex-spam-hooks.h"
#include "ow_dns.h"
#include "rule-internal.hpp"

extern "C" bool rule_resolve_helo_domain(spam_session* session) {
    if (session == nullptr || session->helo == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (session->helo_dns == SPAM_DNS_FOUND || session->helo_dns == SPAM_DNS_NXDOMAIN) {
        return session->helo_dns == SPAM_DNS_NXDOMAIN;
    }
    if (rule_valid_helo_domain(session)) {
        OW_DEBUG("HELO [%s] is not valid", session->helo);
        return true;
    }
    switch (ow_has_a_or_mx(session->helo, rule_hooks.dns_option ? 1 : 0)) {
        case OW_DNS_NO_NAME:
            OW_DEBUG("HELO [%s] returns NXDOMAIN - setting flag", session->helo);
            session->helo_dns = SPAM_DNS_NXDOMAIN;
            return true;
        case OW_DNS_FOUND:
            OW_DEBUG("HELO [%s] resolves - setting flag", session->helo);
            session->helo_dns = SPAM_DNS_FOUND;
            return false;
        default:
            return false;  // left uncached: a later rule may ask again
    }
}

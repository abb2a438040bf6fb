// rule_valid_from_domain.cpp: the sender's domain must exist in the DNS (an A or MX record).
// The verdict is cached in the session (from_domain_dns) so the domain is asked once per
// transaction.
#include "ardvex-rules.h"
#include "ardvex-spam-hooks.h"
#include "ow_dns.h"
#include "ow_rfc.h"
#include "rule-internal.hpp"

extern "C" bool rule_valid_from_domain(spam_session* session) {
    if (session == nullptr || session->mail_from == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (session->from_domain_dns == SPAM_DNS_FOUND ||
        session->from_domain_dns == SPAM_DNS_NXDOMAIN) {
        return session->from_domain_dns == SPAM_DNS_NXDOMAIN;
    }
    ow::rules::trim_blank_ends(&session->mail_from);
    const char* domain = ow::rules::domain_part(session->mail_from);
    if (domain == nullptr) {
        OW_DEBUG("address [%s] does not contain '@' symbol", session->mail_from);
        return true;
    }
    if (*domain != '\0' && ow_is_ip(domain) != 0) {
        session->from_domain_dns = SPAM_DNS_FOUND;
        return false;
    }
    if (ow_valid_domain(domain) == 0) {
        OW_DEBUG("domain [%s] flagged as invalid", domain);
        return true;
    }
    switch (ow_has_a_or_mx(domain, rule_hooks.dns_option ? 1 : 0)) {
        case OW_DNS_NO_NAME:
            OW_DEBUG("address [%s] returns NXDOMAIN - setting flag", session->mail_from);
            session->from_domain_dns = SPAM_DNS_NXDOMAIN;
            return true;
        case OW_DNS_FOUND:
            OW_DEBUG("address [%s] resolves - setting flag", session->mail_from);
            session->from_domain_dns = SPAM_DNS_FOUND;
            return false;
        default:
            return false;  // left uncached: a later rule may ask again
    }
}

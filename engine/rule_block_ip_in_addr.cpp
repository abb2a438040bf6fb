// rule_block_ip_in_addr.cpp: addresses must name a domain, not an IP address.
#include "ardvex-rules.h"
#include "ow_rfc.h"
#include "rule-internal.hpp"

namespace {

// An empty domain is no address; asked of ow_is_ip it would only add an error line.
bool is_ip_domain(const char* domain) { return *domain != '\0' && ow_is_ip(domain) != 0; }

}  // namespace

extern "C" bool rule_block_ip_in_addr(spam_session* session) {
    if (session == nullptr) {
        OW_DEBUG("%s", std::strerror(EINVAL));
        return false;
    }
    if (session->mail_from != nullptr) {
        const char* domain = ow::rules::domain_part(session->mail_from);
        if (domain == nullptr) {
            OW_DEBUG("failed to find domain part of from address [%s]. Skipping",
                     session->mail_from);
        } else if (is_ip_domain(domain)) {
            OW_DEBUG("from domain [%s] is an ip address", domain);
            return true;
        }
    }
    if (session->rcpt_to == nullptr) return false;
    const char* domain = ow::rules::domain_part(session->rcpt_to);
    if (domain == nullptr) {
        OW_DEBUG("failed to find domain part of rcpt to address [%s]. Skipping", session->rcpt_to);
        return false;
    }
    if (is_ip_domain(domain)) {
        OW_DEBUG("rcpt domain [%s] is an ip address", domain);
        return true;
    }
    return false;
}

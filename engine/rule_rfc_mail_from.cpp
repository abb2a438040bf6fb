// rule_rfc_mail_from.cpp: the sender must be a full address, and one that claims to be local
// must come from the local host. An empty sender counts as a bounce only when an earlier
// rule has already judged the sender (from_format), as the table order arranges.
#include <strings.h>

#include "ardvex-rules.h"
#include "ow_rfc.h"
#include "rule-internal.hpp"

extern "C" bool rule_rfc_mail_from(spam_session* session) {
    if (session == nullptr) {
        OW_EINVAL();
        return false;
    }
    ow::rules::trim_blank_ends(&session->mail_from);
    const char* from = session->mail_from;
    if (from == nullptr) {
        if (session->from_format != SPAM_VERDICT_UNCHECKED) {
            OW_DEBUG("argument [%s] detected as NDR. Skipping", "");
            return false;
        }
        OW_DEBUG("from argument is NULL");
        return true;
    }
    if (session->from_format != SPAM_VERDICT_UNCHECKED && *from == '\0') {
        OW_DEBUG("argument [%s] detected as NDR. Skipping", from);
        return false;
    }
    if (ow_valid_email_address(from) == 0) {
        OW_DEBUG("from argument failed ow_valid_email_address test");
        return true;
    }
    const char* domain = ow::rules::domain_part(from);
    if (domain == nullptr) {
        OW_DEBUG("address [%s] does not contain '@' symbol", from);
        return true;
    }
    if (strcasecmp(domain, "localhost.localdomain") == 0 || strcasecmp(domain, "localhost") == 0) {
        if (session->ip != nullptr && std::strcmp(session->ip, "127.0.0.1") == 0) return false;
        OW_DEBUG("address is claiming to come from localhost, but not really from localhost");
        return true;
    }
    return false;
}

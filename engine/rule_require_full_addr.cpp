// rule_require_full_addr.cpp: the recipient must be a complete address. Only the recipient
// is judged, although the notice shows both addresses.
#include "ardvex-rules.h"
#include "ow_rfc.h"
#include "rule-internal.hpp"

extern "C" bool rule_require_full_addr(spam_session* session) {
    if (session == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (session->rcpt_to == nullptr || *session->rcpt_to == '\0') {
        OW_DEBUG("NULL or empty recipient address");
        return true;
    }
    if (ow_valid_email_address(session->rcpt_to) == 0) {
        OW_DEBUG("Recipient address [%s] is invalid", session->rcpt_to);
        return true;
    }
    return false;
}

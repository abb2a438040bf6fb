// rule_mail_from_strict_addr_parse.cpp: the sender must be a well-formed address or empty (a
// bounce). The verdict (from_format) also tells rule_rfc_mail_from that an empty sender was
// accepted as a bounce.
#include "ardvex-rules.h"
#include "ow_rfc.h"
#include "rule-internal.hpp"

extern "C" bool rule_mail_from_strict_addr_parse(spam_session* session) {
    if (session == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (session->from_format == SPAM_FROM_WELL_FORMED) {
        OW_DEBUG("cached value RFC format flagged as 'yes'");
        return false;
    }
    if (session->from_format == SPAM_FROM_MALFORMED) {
        OW_DEBUG("cached value RFC format flagged as 'no'");
        return true;
    }
    if (session->mail_from == nullptr || *session->mail_from == '\0') {
        OW_DEBUG("from address detected as bounce");
        session->from_format = SPAM_FROM_WELL_FORMED;
        return false;
    }
    if (ow_valid_email_address(session->mail_from) == 0) {
        OW_DEBUG("from address [%s] is not a valid address", session->mail_from);
        session->from_format = SPAM_FROM_MALFORMED;
        return true;
    }
    OW_DEBUG("from address [%s] is valid", session->mail_from);
    session->from_format = SPAM_FROM_WELL_FORMED;
    return false;
}

// rule_block_mail_from_self.cpp: mail that claims to come from its own recipient is a common
// forgery.
#include <strings.h>

#include "ardvex-rules.h"
#include "rule-internal.hpp"

extern "C" bool rule_block_mail_from_self(spam_session* session) {
    if (session == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (session->mail_from == nullptr || session->rcpt_to == nullptr) {
        OW_DEBUG("NULL parameters found - skipping");
        return false;
    }
    if (strcasecmp(session->mail_from, session->rcpt_to) == 0) {
        OW_DEBUG("from [%s] and to [%s] addresses match", session->mail_from, session->rcpt_to);
        return true;
    }
    OW_DEBUG("from [%s] and to [%s] addresses no match", session->mail_from, session->rcpt_to);
    return false;
}

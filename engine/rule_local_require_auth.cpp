// rule_local_require_auth.cpp: a sender claiming a domain hosted on this server must have
// authenticated; otherwise anyone could send as a local user.
#include "ardvex-rules.h"
#include "is_local_domain.h"
#include "rule-internal.hpp"

extern "C" bool rule_local_require_auth(spam_session* session) {
    if (session == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (session->mail_from == nullptr || *session->mail_from == '\0') {
        OW_DEBUG("MAIL FROM is NULL or empty - nothing to check");
        return false;
    }
    if (!is_local_domain(session->mail_from)) {
        OW_DEBUG("Nothing to check when sender is not local");
        return false;
    }
    if (session->authenticated) {
        OW_DEBUG("Sender domain is local and SMTP session is authenticated");
        return false;
    }
    return true;
}

// rule_require_helo.cpp: the client must introduce itself.
#include "ardvex-rules.h"
#include "rule-internal.hpp"

extern "C" bool rule_require_helo(spam_session* session) {
    if (session == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (session->helo != nullptr && *session->helo != '\0') {
        OW_DEBUG("HELO [%s] exists!", session->helo);
        return false;
    }
    OW_DEBUG("HELO is NULL or empty");
    return true;
}

// rule_valid_helo_domain.cpp: the HELO must be a domain name, and not the name every
// unconfigured host gives itself.
#include <cstring>

#include "ardvex-rules.h"
#include "ow_rfc.h"
#include "rule-internal.hpp"

extern "C" bool rule_valid_helo_domain(spam_session* session) {
    if (session == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (session->helo == nullptr) {
        OW_DEBUG("HELO is NULL - skipping check");
        return false;
    }
    ow::rules::trim_blank_ends(&session->helo);
    if (ow_valid_domain(session->helo) == 0) {
        OW_DEBUG("HELO [%s] is not a valid domain", session->helo);
        return true;
    }
    if (std::strcmp(session->helo, "localhost.localdomain") == 0) {
        OW_DEBUG("HELO is \"localhost.localdomain\"");
        return true;
    }
    return false;
}

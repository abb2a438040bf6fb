// rule_block_nonauth_ipv6.cpp: IPv6 clients must authenticate unless the mail server exempts
// them.
#include "ardvex-rules.h"
#include "rule-internal.hpp"

extern "C" bool rule_block_nonauth_ipv6(spam_session* session) {
    if (session == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (session->ip == nullptr) {
        OW_DEBUG("no IP address found. Can't run test");
        return false;
    }
    if (session->is_ipv6 && !session->authenticated && !session->auth_exempt) {
        OW_DEBUG("non authentication ipv6 connection detected");
        return true;
    }
    return false;
}

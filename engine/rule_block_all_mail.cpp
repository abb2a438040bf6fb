// rule_block_all_mail.cpp: for recipients who accept only what a whitelist rule lets
// through; the whitelists run before it, so the rule itself looks at nothing.
#include "ardvex-rules.h"
#include "rule-internal.hpp"

extern "C" bool rule_block_all_mail(spam_session* session) {
    if (session == nullptr) {
        OW_EINVAL();
        return false;
    }
    return true;
}

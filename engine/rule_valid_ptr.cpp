// rule_valid_ptr.cpp: one of the client's PTR names must be a plausible host name; the first
// such name is the one the notices show.
#include <strings.h>

#include "ardvex-rules.h"
#include "ow_rfc.h"
#include "rule-internal.hpp"

extern "C" bool rule_valid_ptr(spam_session* session) {
    using ow::rules::ptr_next;
    if (ow::rules::ptr_prologue(session, OW_RULE_SITE, ow::rules::ptr_rule::valid_ptr) !=
        ptr_next::check) {
        return false;
    }
    for (char** name = session->ptr_names; name != nullptr && *name != nullptr; ++name) {
        if (**name == '\0' || ow_valid_domain(*name) == 0 ||
            strcasecmp(*name, "localhost.localdomain") == 0) {
            continue;
        }
        OW_DEBUG("PTR name [%s] is valid", *name);
        session->rdns = *name;
        return false;
    }
    OW_DEBUG("no valid PTR name");
    return true;
}

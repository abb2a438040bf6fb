// rule_lists.cpp: the white- and blacklist rules. A rule only checks its session field and
// asks the hook registered for it, read at each call, so a host that registers its own hooks
// (the HELO lists, say) needs no change here; the product's hooks live beside the hook table
// in ardvex-spam-hooks.cpp.
#include "ardvex-rule-lists.h"

#include <strings.h>

#include <cerrno>
#include <cstring>

#include "ardvex-spam-hooks.h"
#include "ow_internal.hpp"

// The rules and the hooks share their checks; the lines name the rule or hook that was asked,
// as its own would.
#define NAMED_ERROR(func, ...) \
    ::ow_log_error(func, ::ow::base_name(__FILE__), static_cast<uint32_t>(__LINE__), __VA_ARGS__)
#define NAMED_DEBUG(func, ...) \
    ::ow_log_debug(func, ::ow::base_name(__FILE__), static_cast<uint32_t>(__LINE__), __VA_ARGS__)

namespace {

using session_field = char* spam_session::*;
using hook_slot = spam_rule_check_fn spam_rule_hooks::*;

// The pattern of the seven field rules: what names the field in the "nothing to check" line.
bool ask_hook(const char* rule, spam_session* session, session_field field, const char* what,
              hook_slot slot) {
    if (session == nullptr) {
        NAMED_ERROR(rule, "%s", ::strerror(EINVAL));
        return false;
    }
    const char* value = session->*field;
    if (value == nullptr || *value == '\0') {
        NAMED_DEBUG(rule, "%s is empty or NULL-nothing to check", what);
        return false;
    }
    NAMED_DEBUG(rule, "checking for entry [%s]", value);
    const spam_rule_check_fn hook = rule_hooks.*slot;
    return hook != nullptr && hook(session);
}

}  // namespace

extern "C" {

// ---------------------------------------------------------------------------------------
// Rules

bool rule_from_whitelist(spam_session* session) {
    return ask_hook(__func__, session, &spam_session::mail_from, "MAIL FROM",
                    &spam_rule_hooks::from_whitelist_hook);
}

bool rule_from_blacklist(spam_session* session) {
    return ask_hook(__func__, session, &spam_session::mail_from, "MAIL FROM",
                    &spam_rule_hooks::from_blacklist_hook);
}

bool rule_to_whitelist(spam_session* session) {
    return ask_hook(__func__, session, &spam_session::rcpt_to, "RCPT TO",
                    &spam_rule_hooks::to_whitelist_hook);
}

bool rule_ip_whitelist(spam_session* session) {
    return ask_hook(__func__, session, &spam_session::ip, "IP",
                    &spam_rule_hooks::ip_whitelist_hook);
}

bool rule_ip_blacklist(spam_session* session) {
    return ask_hook(__func__, session, &spam_session::ip, "IP",
                    &spam_rule_hooks::ip_blacklist_hook);
}

bool rule_helo_whitelist(spam_session* session) {
    return ask_hook(__func__, session, &spam_session::helo, "HELO",
                    &spam_rule_hooks::helo_whitelist_hook);
}

bool rule_helo_blacklist(spam_session* session) {
    return ask_hook(__func__, session, &spam_session::helo, "HELO",
                    &spam_rule_hooks::helo_blacklist_hook);
}

bool rule_country_blacklist(spam_session* session) {
    if (session == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (session->country == nullptr || *session->country == '\0') {
        OW_DEBUG("Nothing to check as the ip country is NULL or empty");
        return false;
    }
    // "**" is what the country lookup answers when it knows nothing; listing it must not
    // block every client of unknown origin.
    if (std::strcmp(session->country, "**") == 0) {
        OW_DEBUG("Nothing to check as the ip country is catch-all");
        return false;
    }
    const spam_rule_check_fn hook = rule_hooks.country_blacklist_hook;
    return hook != nullptr && hook(session);
}

}  // extern "C"

#undef NAMED_ERROR
#undef NAMED_DEBUG

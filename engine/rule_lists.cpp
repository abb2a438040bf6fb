// rule_lists.cpp: the white- and blacklist rules and the hooks behind them. A rule only checks
// its session field and asks the hook registered for it, read at each call, so a host that
// registers its own hooks (the HELO lists, say) needs no change here; the hooks look the
// field up in the session's list files, and for client addresses in the companion range
// files.
#include "ardvex-rule-lists.h"

#include <strings.h>

#include <cerrno>
#include <cstring>

#include "ardvex-file.h"
#include "ardvex-iprange.h"
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

int wildcard_compare(const char* line, const char* entry) { return __wildcardmatch(line, entry); }

struct list_lookup {
    session_field field;
    const char* list;  // the text list in list_dir
    ow_line_compare_fn compare;
    const char* range_file;  // the companion range file, or nullptr
};

constexpr list_lookup from_whitelist{&spam_session::mail_from, "from_whitelist", wildcard_compare,
                                     nullptr};
constexpr list_lookup from_blacklist{&spam_session::mail_from, "from_blacklist", wildcard_compare,
                                     nullptr};
constexpr list_lookup to_whitelist{&spam_session::rcpt_to, "exempt_users", wildcard_compare,
                                   nullptr};
constexpr list_lookup ip_whitelist{&spam_session::ip, "exempt_ips", strcasecmp, "exempt_ips.range"};
constexpr list_lookup ip_blacklist{&spam_session::ip, "blocked_ips", strcasecmp,
                                   "blocked_ips.range"};
constexpr list_lookup country_blacklist{&spam_session::country, "country_blacklist", strcasecmp,
                                        nullptr};

bool look_up(const char* hook, spam_session* session, const list_lookup& l) {
    const char* value = session != nullptr ? session->*l.field : nullptr;
    if (value == nullptr || *value == '\0') {
        NAMED_ERROR(hook, "%s", ::strerror(EINVAL));
        return false;
    }
    if (__file_contains_line(session->list_dir, l.list, value, l.compare)) return true;
    return l.range_file != nullptr &&
           file_contains_ip_range_match(l.range_file, value, session->list_dir);
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

// ---------------------------------------------------------------------------------------
// Hooks

bool fromwhitelist_hook(spam_session* session) {
    return look_up(__func__, session, from_whitelist);
}

bool fromblacklist_hook(spam_session* session) {
    return look_up(__func__, session, from_blacklist);
}

bool towhitelist_hook(spam_session* session) { return look_up(__func__, session, to_whitelist); }

bool ipwhitelist_hook(spam_session* session) { return look_up(__func__, session, ip_whitelist); }

bool ipblacklist_hook(spam_session* session) { return look_up(__func__, session, ip_blacklist); }

bool countryblacklist_hook(spam_session* session) {
    if (session != nullptr && session->country != nullptr && *session->country == '\0') {
        return false;  // no country known: nothing to look up, and nothing wrong either
    }
    return look_up(__func__, session, country_blacklist);
}

}  // extern "C"

#undef NAMED_ERROR
#undef NAMED_DEBUG

// ardvex-spam-hooks.cpp: the engine's hook table and the product's list hooks. The table decouples
// the rule checks from where their data lives; a plain aggregate, zero-initialised before any
// code runs, so no rule can see a half-built table.
#include "ardvex-spam-hooks.h"

#include <strings.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "ardvex-file.h"
#include "ardvex-iprange.h"
#include "ardvex-rule-lists.h"
#include "ow_internal.hpp"

static_assert(offsetof(spam_rule_hooks, dns_option) == 0);
static_assert(offsetof(spam_rule_hooks, dyna_hook) == 8);
static_assert(offsetof(spam_rule_hooks, reserved_hook2) == 48);
static_assert(offsetof(spam_rule_hooks, to_whitelist_hook) == 104);
static_assert(offsetof(spam_rule_hooks, message_log_hook) == 112);
static_assert(offsetof(spam_rule_hooks, reserved_hook4) == 120);
static_assert(sizeof(spam_rule_hooks) == 128);

namespace {

using session_field = char* spam_session::*;

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
        ::ow_log_error(hook, ::ow::base_name(__FILE__), static_cast<uint32_t>(__LINE__), "%s",
                       ::strerror(EINVAL));
        return false;
    }
    if (__file_contains_line(session->list_dir, l.list, value, l.compare)) return true;
    return l.range_file != nullptr &&
           file_contains_ip_range_match(l.range_file, value, session->list_dir);
}

}  // namespace

extern "C" {

// Process-wide because the rules are plain functions of a session and reach their data
// through it; written only by register_rule_hooks.
spam_rule_hooks rule_hooks = {};

void register_rule_hooks(bool dns_option, spam_rule_check_fn dyna,
                         spam_rule_check_fn reverse_dns_list, spam_rule_check_fn confirmed_dyna,
                         spam_rule_check_fn from_whitelist, spam_rule_check_fn from_blacklist,
                         spam_rule_check_fn reserved2, spam_rule_check_fn reserved3,
                         spam_rule_check_fn helo_whitelist, spam_rule_check_fn helo_blacklist,
                         spam_rule_check_fn ip_whitelist, spam_rule_check_fn ip_blacklist,
                         spam_rule_check_fn country_blacklist, spam_rule_check_fn to_whitelist,
                         spam_message_log_fn message_log, spam_rule_check_fn reserved4) {
    rule_hooks =
        spam_rule_hooks{dns_option,        dyna,           reverse_dns_list, confirmed_dyna,
                        from_whitelist,    from_blacklist, reserved2,        reserved3,
                        helo_whitelist,    helo_blacklist, ip_whitelist,     ip_blacklist,
                        country_blacklist, to_whitelist,   message_log,      reserved4};
}

// The product's list hooks: each looks its session field up in the session's list files,
// and for client addresses in the companion range files.
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

// owspamrule.cpp: the rule table of the screening engine and the builder of rejection
// notices. The table is a constexpr array whose notices are complete at compile time (the
// advisory link is joined by string-literal concatenation from the build's configuration),
// so building the list only copies.
#include "owspamrule.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "ardvex-rule-lists.h"
#include "ardvex-rules.h"
#include "ardvex_config.h"
#include "known_sender_forgery_funcs.h"
#include "ow_internal.hpp"
#include "ow_stringutils.h"

// The records are the ABI the mail-server component compiles against.
static_assert(sizeof(bool) == 1, "8-bit booleans");
static_assert(offsetof(spam_session, ip) == 0);
static_assert(offsetof(spam_session, port) == 8);
static_assert(offsetof(spam_session, rdns) == 16);
static_assert(offsetof(spam_session, ptr_names) == 24);
static_assert(offsetof(spam_session, helo) == 32);
static_assert(offsetof(spam_session, mail_from) == 40);
static_assert(offsetof(spam_session, rcpt_to) == 48);
static_assert(offsetof(spam_session, auth_user) == 56);
static_assert(offsetof(spam_session, country) == 64);
static_assert(offsetof(spam_session, from_format) == 72);
static_assert(offsetof(spam_session, authenticated) == 76);
static_assert(offsetof(spam_session, tls) == 77);
static_assert(offsetof(spam_session, helo_dns) == 80);
static_assert(offsetof(spam_session, from_domain_dns) == 84);
static_assert(offsetof(spam_session, ptr_state) == 88);
static_assert(offsetof(spam_session, list_dir) == 96);
static_assert(offsetof(spam_session, user_log_dirs) == 104);
static_assert(offsetof(spam_session, is_ipv6) == 112);
static_assert(offsetof(spam_session, auth_exempt) == 113);
static_assert(offsetof(spam_session, routable) == 114);
static_assert(sizeof(spam_session) == 120);
static_assert(offsetof(spam_rule, name) == 0);
static_assert(offsetof(spam_rule, check) == 8);
static_assert(offsetof(spam_rule, notice) == 16);
static_assert(offsetof(spam_rule, user_configurable) == 24);
static_assert(offsetof(spam_rule, enabled_by_default) == 25);
static_assert(offsetof(spam_rule, applies_to_authenticated) == 26);
static_assert(offsetof(spam_rule, applies_to_ipv6) == 27);
static_assert(sizeof(spam_rule) == 32);

namespace {

// A notice that ends with a link to the advisory page at path.
#define ADVISED(text, path) text " See " ARDVEX_ADVISORY_URL path " for more information."

constexpr const char* dynamic_rdns_notice =
    ADVISED("Your server IP address [%IP%] does not have a valid reverse DNS entry [%RDNS%].",
            "/best-practices/check_dynamic_reverse_dns/");
constexpr const char* recipient_blacklist_notice =
    ADVISED("Your email is rejected -- you are on the recipient's blacklist.",
            "/best-practices/empowering-your-users/");
constexpr const char* abusive_ip_notice =
    ADVISED("Server IP %IP% listed as abusive.", "/best-practices/ip-reputation/");

struct rule_row {
    const char* name;
    spam_rule_check_fn check;
    bool user_configurable, enabled_by_default, applies_to_authenticated, applies_to_ipv6;
    const char* notice;
};

// The table, in the order the caller walks it. The check column stays empty until the rule
// modules are linked in; rows 1, 2, 6 and 7 never get one (the mail server carries out rate
// limits and DNS block lists itself and takes only the name and notice).
constexpr rule_row rule_table[SPAM_RULE_COUNT] = {
    {"inbound", nullptr, 1, 1, 0, 0, "Server %IP% has sent too much mail. Try again later."},
    {"outbound", nullptr, 1, 1, 1, 1, "You have sent too much mail. Try again later."},
    {"to_whitelist", rule_to_whitelist, 1, 1, 1, 1, "whitelist"},
    {"from_whitelist", rule_from_whitelist, 1, 0, 1, 1, "whitelisted"},
    {"ip_whitelist", rule_ip_whitelist, 1, 1, 1, 1, "whitelisted"},
    {"block_lists", nullptr, 0, 1, 0, 0, abusive_ip_notice},
    {"block_rbl_lists", nullptr, 0, 1, 0, 0, abusive_ip_notice},
    {"block_all_mail", rule_block_all_mail, 1, 0, 0, 1,
     ADVISED("Recipient %RCPT% only accepts white listed emails.",
             "/best-practices/empowering-your-users/")},
    {"block_ip_in_addr", rule_block_ip_in_addr, 1, 1, 1, 1,
     ADVISED("The system does not allow messages that use IP addresses instead of domain names.",
             "/best-practices/block-ip-in-address/")},
    {"require_helo", rule_require_helo, 1, 1, 1, 1,
     ADVISED("Missing HELO.", "/best-practices/require-helo-identifier/")},
    {"valid_helo_domain", rule_valid_helo_domain, 0, 0, 0, 1,
     ADVISED("HELO argument [%HELO%] is malformed.", "/best-practices/valid-helo-identifier/")},
    {"block_mail_from_self", rule_block_mail_from_self, 1, 0, 0, 1,
     ADVISED("Recipient %RCPT% does not allow messages that appear to come from themselves "
             "(possible forgery).",
             "/best-practices/block-email-from-self/")},
    {"require_full_addr", rule_require_full_addr, 1, 1, 0, 1,
     ADVISED("Incomplete email address [%FROM%] [%RCPT%].",
             "/best-practices/require-full-email-address/")},
    {"mail_from_strict_addr_parse", rule_mail_from_strict_addr_parse, 1, 1, 0, 1,
     ADVISED("Bad or malformed FROM address [%FROM%].", "/best-practices/strict-address-parsing/")},
    {"rfc_mail_from", rule_rfc_mail_from, 1, 0, 0, 1,
     ADVISED("Email address [%FROM%] fails to meet RFC 2821 requirements.",
             "/best-practices/rfc-mail-from/")},
    {"valid_ptr", rule_valid_ptr, 0, 0, 0, 0,
     ADVISED("Server %IP% has an invalid PTR record.",
             "/best-practices/reverse-dns-naming-conventions-valid-ptr/")},
    {"check_ip_reverse_dns", rule_check_ip_reverse_dns, 0, 1, 0, 0,
     ADVISED("Your server IP address [%IP%] is missing a reverse DNS entry.",
             "/best-practices/check-ip-reverse-dns/")},
    {"check_dynamic_reverse_dns_default", rule_check_dynamic_reverse_dns_default, 0, 1, 0, 0,
     dynamic_rdns_notice},
    {"check_dynamic_reverse_dns", rule_check_dynamic_reverse_dns, 0, 1, 0, 0, dynamic_rdns_notice},
    {"check_reverse_dns_list", rule_check_reverse_dns_list, 0, 1, 0, 0,
     ADVISED("Your server hostname [%RDNS%] for IP [%IP%] matches a pattern which was abusive "
             "in the past.",
             "/best-practices/check_reverse_dns_list/")},
    {"check_confirmed_dyna", rule_check_confirmed_dyna, 0, 1, 0, 0, dynamic_rdns_notice},
    {"ip_blacklist", rule_ip_blacklist, 1, 1, 0, 1, recipient_blacklist_notice},
    {"from_blacklist", rule_from_blacklist, 1, 0, 0, 1, recipient_blacklist_notice},
    {"helo_blacklist", rule_helo_blacklist, 1, 1, 0, 1,
     ADVISED("Your server has been blacklisted.", "/best-practices/empowering-your-users/")},
    {"country_blacklist", rule_country_blacklist, 0, 1, 0, 0,
     ADVISED("Your country has been blacklisted.", "/best-practices/empowering-your-users/")},
    {"helo_whitelist", rule_helo_whitelist, 1, 1, 0, 1, "whitelisted"},
    {"resolve_helo_domain", rule_resolve_helo_domain, 0, 0, 0, 1,
     ADVISED("HELO argument [%HELO%] is missing a DNS entry.",
             "/best-practices/resolve-helo-identifier/")},
    {"valid_from_domain", rule_valid_from_domain, 1, 0, 0, 1,
     ADVISED("Mail from domain [%FROM%] is missing A or MX DNS record.",
             "/best-practices/valid_from_address/")},
    {"known_sender_forgery", rule_known_sender_forgery, 1, 0, 0, 0,
     ADVISED("Mail from domain does not match with valid sender source.",
             "/best-practices/known_sender_forgery/")},
    {"local_require_auth", rule_local_require_auth, 0, 0, 0, 1,
     "Please check your email settings for SMTP Authentication or contact your email service "
     "provider for assistance."},
    {"block_nonauth_ipv6", rule_block_nonauth_ipv6, 0, 0, 0, 1,
     ADVISED("This server only accepts deliveries from IPv6 clients when they use SMTP "
             "authentication.",
             "/best-practices/block-nonauth-ipv6/")},
};

#undef ADVISED

constexpr const char* product_banner = "Ardvex 2.1-12.2 " ARDVEX_PRODUCT_URL;

// A macro's value when the session has none.
const char* or_unknown(const char* value) noexcept { return value != nullptr ? value : "unknown"; }

}  // namespace

extern "C" {

spam_rule* new_rule(const char* name, spam_rule_check_fn check, bool user_configurable,
                    bool enabled_by_default, bool applies_to_authenticated, bool applies_to_ipv6,
                    const char* notice) {
    if (name == nullptr || *name == '\0' || notice == nullptr || *notice == '\0') {
        OW_EINVAL();
        return nullptr;
    }
    auto* rule = static_cast<spam_rule*>(ow::mem_calloc(1, sizeof(spam_rule)));
    if (rule == nullptr) {
        OW_ENOMEM();
        return nullptr;
    }
    rule->name = ow::dup_cstr(name);
    rule->check = check;
    rule->user_configurable = user_configurable;
    rule->enabled_by_default = enabled_by_default;
    rule->applies_to_authenticated = applies_to_authenticated;
    rule->applies_to_ipv6 = applies_to_ipv6;
    rule->notice = rule->name != nullptr ? ow::dup_cstr(notice) : nullptr;
    if (rule->notice == nullptr) {
        free_rule(rule);
        OW_ENOMEM();
        return nullptr;
    }
    return rule;
}

void free_rule(void* rule) {
    if (rule == nullptr) return;
    auto* r = static_cast<spam_rule*>(rule);
    std::free(r->name);
    std::free(r->notice);
    std::free(r);
}

int rule_name_compare(const void* rule, const void* name, size_t /*unused*/) {
    const auto* r = static_cast<const spam_rule*>(rule);
    if (r == nullptr || r->name == nullptr || name == nullptr) return -1;
    return std::strcmp(r->name, static_cast<const char*>(name));
}

ow_list* build_rule_list(void) {
    ow_list* rules = nullptr;
    for (const rule_row& row : rule_table) {
        spam_rule* rule =
            new_rule(row.name, row.check, row.user_configurable, row.enabled_by_default,
                     row.applies_to_authenticated, row.applies_to_ipv6, row.notice);
        if (rule == nullptr) continue;  // reported; the other rules still count
        if (ow_append_list_entry(&rules, rule, sizeof(spam_rule), false) < 0) free_rule(rule);
    }
    return rules;
}

char* build_rejection_notice(const spam_rule* rule, spam_session* session,
                             spam_notice_override_fn notice_override) {
    if (rule == nullptr || rule->notice == nullptr || rule->name == nullptr || session == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    ow::unique_cstr text(notice_override != nullptr ? notice_override(rule->name, session)
                                                    : nullptr);
    if (!text) {
        text.reset(ow::dup_cstr(rule->notice));
        if (!text) {
            OW_ENOMEM();
            return nullptr;
        }
    }
    const char* rdns = session->rdns;
    if (rdns == nullptr && session->ptr_names != nullptr) rdns = session->ptr_names[0];
    // %IP% has no fallback: a notice should not claim an address it does not know.
    const struct {
        const char* macro;
        const char* value;
    } macros[] = {
        {"%IP%", session->ip},
        {"%RDNS%", or_unknown(rdns)},
        {"%HELO%", or_unknown(session->helo)},
        {"%FROM%", or_unknown(session->mail_from)},
        {"%RCPT%", or_unknown(session->rcpt_to)},
        {"%TO%", or_unknown(session->rcpt_to)},
    };
    for (const auto& m : macros) {
        if (m.value == nullptr) continue;
        char* raw = text.release();
        const bool replaced = ow_str_replace(&raw, m.macro, m.value);
        text.reset(raw);
        if (!replaced) return nullptr;  // ow_str_replace has reported it
    }
    OW_DEBUG("after replacement macros: rejection is: [%s]", text.get());

    char* full = nullptr;
    if (ow_asprintf(&full, "%s. Protection provided by %s", text.get(), product_banner) < 0) {
        return nullptr;  // reported by ow_asprintf
    }
    OW_DEBUG("full notice: [%s]", full);
    return full;
}

}  // extern "C"

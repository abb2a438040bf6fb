// policy_judge.cpp: the rule walk of the policy service and of ardvex-admin judge. The engine
// decides each rule; this file decides what the answers mean together: the first whitelist
// match ends the walk, the first blocking match decides, a warn-only match is noted and the
// walk goes on, and a rule that could not ask DNS never rejects.
#include "policy_judge.hpp"

#include <arpa/nameser.h>
#include <netdb.h>
#include <resolv.h>
#include <sys/stat.h>

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "ardvex-log.h"
#include "ow_dns.h"
#include "ow_rfc.h"

namespace ow::policy {

namespace {

char* dup_or_null(std::string_view v) {
    if (v.empty()) return nullptr;
    return strndup(v.data(), v.size());
}

// data() of an empty view may be null, which strndup must not see.
char* dup_always(std::string_view v) {
    return v.empty() ? strdup("") : strndup(v.data(), v.size());
}

bool is_directory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// A name that stays a single path component inside the list root.
bool safe_component(std::string_view name) {
    if (name.empty() || name.size() > 255 || name.front() == '.') return false;
    for (const char c : name) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '/' || u < 0x21 || u == 0x7f) return false;
    }
    return true;
}

std::string lower(std::string_view v) {
    std::string out(v);
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// Which verdict cache tells that a rule could not get its DNS answer: a rule that returns
// false with its cache still unset (or set to a temporary failure) did not decide.
enum class dns_cache { none, ptr, helo, from };

struct dns_rule {
    std::string_view name;
    dns_cache cache;
};
constexpr dns_rule kDnsRules[] = {
    {"valid_ptr", dns_cache::ptr},
    {"check_ip_reverse_dns", dns_cache::ptr},
    {"check_dynamic_reverse_dns_default", dns_cache::ptr},
    {"check_dynamic_reverse_dns", dns_cache::ptr},
    {"check_reverse_dns_list", dns_cache::ptr},
    {"check_confirmed_dyna", dns_cache::ptr},
    {"resolve_helo_domain", dns_cache::helo},
    {"valid_from_domain", dns_cache::from},
};

bool undecided(std::string_view rule, const spam_session& s) {
    for (const auto& r : kDnsRules) {
        if (r.name != rule) continue;
        switch (r.cache) {
            case dns_cache::ptr:
                return s.ip != nullptr && s.routable &&
                       (s.ptr_state == SPAM_VERDICT_UNCHECKED || s.ptr_state == SPAM_PTR_TEMPFAIL);
            case dns_cache::helo:
                return s.helo != nullptr && s.helo[0] != '\0' &&
                       s.helo_dns == SPAM_VERDICT_UNCHECKED;
            case dns_cache::from:
                return s.mail_from != nullptr && s.mail_from[0] != '\0' &&
                       s.from_domain_dns == SPAM_VERDICT_UNCHECKED;
            case dns_cache::none:
                return false;
        }
    }
    return false;
}

// The rules the engine leaves to its host (no check function). matched is set when the
// rule matched; the result is false when the rule could not decide (why says so) or is off.
enum class host_result { matched, not_matched, undecided, skipped };

host_result host_rule(std::string_view name, const config& cfg, const rate_verdicts& rates,
                      const spam_session& s, std::string& why) {
    if (name == "inbound" || name == "outbound") {
        const bool in = name == "inbound";
        if ((in ? cfg.inbound : cfg.outbound).limit == 0) {
            why = "no limit configured";
            return host_result::skipped;
        }
        if (!rates.counted) {
            why = "rates are counted by the running service only";
            return host_result::skipped;
        }
        if (!in && !s.authenticated) {
            why = "counted per SASL user; the session is not authenticated";
            return host_result::skipped;
        }
        return (in ? rates.inbound_over : rates.outbound_over) ? host_result::matched
                                                               : host_result::not_matched;
    }
    if (name == "block_lists" || name == "block_rbl_lists") {
        const auto& zones = name == "block_lists" ? cfg.block_list_zones : cfg.rbl_zones;
        if (zones.empty()) {
            why = "no block-list zones configured";
            return host_result::skipped;
        }
        if (s.ip == nullptr) {
            why = "no client address";
            return host_result::skipped;
        }
        bool failed = false;
        for (const auto& zone : zones) {
            switch (query_block_list(s.ip, zone)) {
                case dnsbl_answer::listed:
                    why = "listed by " + zone;
                    return host_result::matched;
                case dnsbl_answer::failed:
                    failed = true;
                    why = "no answer from " + zone;
                    break;
                case dnsbl_answer::not_listed:
                    break;
            }
        }
        return failed ? host_result::undecided : host_result::not_matched;
    }
    why = "no check in this build";
    return host_result::skipped;
}

std::string notice_for(const spam_rule& rule, spam_session* s) {
    char* text = build_rejection_notice(&rule, s, nullptr);
    if (text == nullptr) return rule.notice;
    std::string out(text);
    std::free(text);
    // One SMTP reply line holds 512 bytes with its code; keep well inside it, and never cut
    // a UTF-8 character of a client's HELO or address in two.
    if (out.size() > 420) {
        size_t cut = 420;
        while (cut > 0 && (static_cast<unsigned char>(out[cut]) & 0xC0) == 0x80) --cut;
        out.resize(cut);
    }
    return out;
}

uint8_t log_type_for(const verdict& v, const spam_session& s) {
    if (v.taken == action::on) return ARDVEX_LOG_EXEMPT;
    if (v.taken == action::reject) {
        if (v.rule == "inbound") return ARDVEX_LOG_RATELIMIT1;
        if (v.rule == "outbound") return ARDVEX_LOG_RATELIMIT2;
        return ARDVEX_LOG_SPAM;
    }
    return (s.mail_from != nullptr && s.mail_from[0] == '\0') ? ARDVEX_LOG_NDR : ARDVEX_LOG_HAM;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// The session.

session_holder::session_holder(const request& req, const config& cfg) {
    const std::string_view ip = req.get("client_address");
    s_.ip = dup_or_null(ip);
    s_.port = dup_or_null(req.get("client_port"));
    if (s_.ip != nullptr && ow_is_ip(s_.ip) != 0) {
        s_.is_ipv6 = ow_is_ipv6(s_.ip);
        s_.routable = !ow_is_unroutable_ip(s_.ip);
    }
    // Postfix has already asked for the client's PTR name: hand it to the rules so that they
    // need not ask again. "unknown" covers both no name and a failed lookup, so then the
    // rules look for themselves.
    const std::string_view reverse = req.get("reverse_client_name");
    if (!reverse.empty() && reverse != "unknown") {
        const std::string_view verified = req.get("client_name");
        const bool second = !verified.empty() && verified != "unknown" && verified != reverse;
        s_.ptr_names = static_cast<char**>(std::calloc(second ? 3 : 2, sizeof(char*)));
        if (s_.ptr_names != nullptr) {
            s_.ptr_names[0] = dup_always(lower(reverse));
            if (second) s_.ptr_names[1] = dup_always(lower(verified));
            s_.ptr_state = SPAM_PTR_FOUND;
        }
    }
    // The rules may replace these two, so they are malloc'd even when empty.
    s_.helo = dup_always(req.get("helo_name"));
    s_.mail_from = dup_always(req.get("sender"));
    const std::string_view rcpt = req.get("recipient");
    s_.rcpt_to = dup_or_null(rcpt);
    s_.auth_user = dup_or_null(req.get("sasl_username"));
    s_.authenticated = s_.auth_user != nullptr;
    s_.tls = !req.get("encryption_protocol").empty();
    s_.country = dup_always("**");
    s_.list_dir = dup_always(choose_list_dir(cfg.list_dir, rcpt));
}

session_holder::~session_holder() {
    for (char* p : {s_.ip, s_.port, s_.helo, s_.mail_from, s_.rcpt_to, s_.auth_user, s_.country,
                    s_.list_dir}) {
        std::free(p);
    }
    if (s_.ptr_names != nullptr) {
        for (char** n = s_.ptr_names; *n != nullptr; ++n) std::free(*n);
        std::free(s_.ptr_names);
    }
}

std::string choose_list_dir(const std::string& root, std::string_view recipient) {
    const std::string rcpt = lower(recipient);
    if (safe_component(rcpt)) {
        const std::string own = root + "/" + rcpt;
        if (is_directory(own)) return own;
        const size_t at = rcpt.rfind('@');
        if (at != std::string::npos) {
            const std::string domain = rcpt.substr(at + 1);
            if (safe_component(domain) && is_directory(root + "/" + domain)) {
                return root + "/" + domain;
            }
        }
    }
    return root;
}

bool rule_applies(const spam_rule& rule, bool authenticated, bool ipv6) noexcept {
    return (!authenticated || rule.applies_to_authenticated) && (!ipv6 || rule.applies_to_ipv6);
}

// ---------------------------------------------------------------------------------------
// DNS block lists.

dnsbl_answer query_block_list(const char* ip, std::string_view zone) {
    char* arpa = nullptr;
    if (ip == nullptr || ow_arpa(&arpa, ip) == 0) return dnsbl_answer::failed;
    std::string name(arpa);
    std::free(arpa);
    for (const std::string_view suffix : {"in-addr.arpa.", "ip6.arpa."}) {
        if (name.ends_with(suffix)) name.resize(name.size() - suffix.size());
    }
    name.append(zone).append(".");

    unsigned char answer[4096];
    const int length = res_query(name.c_str(), ns_c_in, ns_t_a, answer, sizeof answer);
    if (length < 0) {
        return (h_errno == HOST_NOT_FOUND || h_errno == NO_DATA) ? dnsbl_answer::not_listed
                                                                 : dnsbl_answer::failed;
    }
    ns_msg msg;
    if (ns_initparse(answer, length, &msg) < 0) return dnsbl_answer::failed;
    for (int i = 0; i < ns_msg_count(msg, ns_s_an); ++i) {
        ns_rr rr;
        if (ns_parserr(&msg, ns_s_an, i, &rr) < 0) return dnsbl_answer::failed;
        if (ns_rr_type(rr) != ns_t_a || ns_rr_rdlen(rr) != 4) continue;
        const unsigned char* a = ns_rr_rdata(rr);
        // Other answers (127.255.255.x and the like) are the list's own error codes.
        if (a[0] == 127 && a[1] == 0 && a[2] == 0) return dnsbl_answer::listed;
    }
    return dnsbl_answer::not_listed;
}

// ---------------------------------------------------------------------------------------
// The walk.

verdict judge(const config& cfg, const ow_list* rules, const request& req,
              const rate_verdicts& rates, bool log) {
    verdict v;
    session_holder holder(req, cfg);
    spam_session& s = *holder.get();
    std::string undecided_rule;
    std::string warned_rule, warned_notice;
    bool decided = false;

    for (const ow_list* e = rules; e != nullptr; e = e->next) {
        const auto* rule = static_cast<const spam_rule*>(e->data);
        if (rule == nullptr || rule->name == nullptr) continue;
        rule_step& step = v.steps.emplace_back();
        step.name = rule->name;
        if (decided) continue;  // not_reached
        const action act = action_for(cfg, *rule);
        if (act == action::off) {
            step.what = rule_step::result::skipped;
            step.why = "off";
            continue;
        }
        if (!rule_applies(*rule, s.authenticated, s.is_ipv6)) {
            step.what = rule_step::result::skipped;
            step.why = s.authenticated && !rule->applies_to_authenticated
                           ? "not judged for authenticated sessions"
                           : "not judged for IPv6 clients";
            continue;
        }
        bool matched = false;
        if (rule->check == nullptr) {
            switch (host_rule(rule->name, cfg, rates, s, step.why)) {
                case host_result::matched:
                    matched = true;
                    break;
                case host_result::not_matched:
                    break;
                case host_result::undecided:
                    step.what = rule_step::result::undecided;
                    if (undecided_rule.empty()) undecided_rule = rule->name;
                    continue;
                case host_result::skipped:
                    step.what = rule_step::result::skipped;
                    continue;
            }
        } else {
            matched = rule->check(&s);
        }
        if (!matched) {
            if (undecided(rule->name, s)) {
                step.what = rule_step::result::undecided;
                step.why = "DNS did not answer";
                if (undecided_rule.empty()) undecided_rule = rule->name;
            } else {
                step.what = rule_step::result::not_matched;
            }
            continue;
        }
        step.what = rule_step::result::matched;
        if (act == action::warn) {
            step.why = "warn only";
            if (warned_rule.empty()) {
                warned_rule = rule->name;
                warned_notice = notice_for(*rule, &s);
            }
            continue;
        }
        decided = true;
        v.rule = rule->name;
        v.taken = act;
        if (act != action::on) v.notice = notice_for(*rule, &s);
    }

    if (v.taken == action::reject) {
        v.answer = "550 5.7.1 " + v.notice;
    } else if (v.taken == action::defer) {
        v.answer = "450 4.7.1 " + v.notice;
    } else if (v.taken == action::off && !undecided_rule.empty() && cfg.defer_on_dns_failure) {
        v.taken = action::defer;
        v.rule = undecided_rule;
        v.dns_deferred = true;
        v.answer = "450 4.4.3 Temporary DNS failure while checking " + undecided_rule +
                   "; try again later";
    } else if (v.taken == action::off && !warned_rule.empty()) {
        v.taken = action::warn;
        v.rule = warned_rule;
        v.notice = warned_notice;
        v.answer = "WARN " + warned_rule + ": " + warned_notice;
    } else {
        v.answer = "DUNNO";
    }

    // A deferred transaction comes back and is logged when it is finally judged; counting
    // each attempt would count one message many times.
    if (log && v.taken != action::defer) {
        const uint8_t type = log_type_for(v, s);
        log_message(&s, v.rule.empty() ? nullptr : v.rule.c_str(), type);
    }
    return v;
}

const char* step_result_name(rule_step::result r) noexcept {
    switch (r) {
        case rule_step::result::matched:
            return "matched";
        case rule_step::result::not_matched:
            return "not matched";
        case rule_step::result::undecided:
            return "undecided";
        case rule_step::result::skipped:
            return "skipped";
        case rule_step::result::not_reached:
            return "not reached";
    }
    return "";
}

}  // namespace ow::policy

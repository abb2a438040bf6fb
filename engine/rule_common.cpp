// rule_common.cpp: the steps several rules share: trimming the client's words in the record,
// the reverse-DNS rules' use of the one PTR lookup per transaction, and their pattern check.
#include <cstring>

#include "ardvex-spam-hooks.h"
#include "ardvex_config.h"
#include "ow_dns.h"
#include "ow_file.h"
#include "ow_stringutils.h"
#include "rule-internal.hpp"
#include "tiny_rex_storage.h"

namespace ow::rules {

namespace {

constexpr const char* exempt_patterns = ARDVEX_DYNAREGEX_DIR "exempt.cregexes";

bool has_names(const spam_session* session) noexcept {
    return session->ptr_names != nullptr && session->ptr_names[0] != nullptr;
}

ptr_next ptr_lookup(spam_session* session, site where, ptr_rule rule) noexcept {
    const int32_t found =
        ow_lookup_reverse_dns(&session->ptr_names, session->ip, rule_hooks.dns_option ? 1 : 0, 0);
    if (found == OW_DNS_FAILURE || found == OW_DNS_BAD_ARGUMENT) {
        OW_SITE_DEBUG(where, "DNS lookup failure - skipping");
        if (rule != ptr_rule::valid_ptr) session->ptr_state = SPAM_PTR_TEMPFAIL;
        return ptr_next::pass;
    }
    if (found != OW_DNS_FOUND) {
        // Cached for valid_ptr too: a missing PTR record is check_ip_reverse_dns's verdict,
        // and every other rule passes on it, fresh or cached alike.
        OW_SITE_DEBUG(where, "DNS NXDOMAIN. setting cache");
        session->ptr_state = SPAM_PTR_NXDOMAIN;
        return rule == ptr_rule::reverse_dns ? ptr_next::match : ptr_next::pass;
    }
    if (!has_names(session) && rule != ptr_rule::reverse_dns &&
        rule != ptr_rule::pattern_confirmed) {
        if (rule == ptr_rule::pattern_list) {
            // Misspelt since the first release; log watchers match this rule's line as it is.
            OW_SITE_DEBUG(where, "DNS lookupo failure - skipping");
        } else {
            OW_SITE_DEBUG(where, "DNS lookup failure - skipping");
        }
        if (rule != ptr_rule::valid_ptr) session->ptr_state = SPAM_PTR_TEMPFAIL;
        return ptr_next::pass;
    }
    OW_SITE_DEBUG(where, "DNS lookup success. setting cache");
    session->ptr_state = SPAM_PTR_FOUND;
    return rule == ptr_rule::reverse_dns ? ptr_next::pass : ptr_next::check;
}

class pattern_file final : public name_pattern {
   public:
    explicit pattern_file(const char* path) noexcept : path_(path) {}
    bool matches(const char* name) noexcept override { return compiled_regex_match(path_, name); }

   private:
    const char* path_;
};

}  // namespace

void trim_blank_ends(char** text) noexcept {
    if (*text == nullptr || **text == '\0') return;
    if (**text == ' ' || (*text)[std::strlen(*text) - 1] == ' ') ow_trim(text);
}

const char* domain_part(const char* address) noexcept {
    const char* at = std::strchr(address, '@');
    return at != nullptr ? at + 1 : nullptr;
}

ptr_next ptr_prologue(spam_session* session, site where, ptr_rule rule) noexcept {
    if (session == nullptr) {
        OW_SITE_EINVAL(where);
        return ptr_next::pass;
    }
    if (session->ip == nullptr) {
        OW_SITE_DEBUG(where, "no IP address found. Can't run test");
        return ptr_next::pass;
    }
    if (!session->routable) {
        OW_SITE_DEBUG(where, "IP address is not routable, skipping rule...");
        return ptr_next::pass;
    }
    const bool pattern = rule != ptr_rule::reverse_dns && rule != ptr_rule::valid_ptr;
    switch (session->ptr_state) {
        case SPAM_VERDICT_UNCHECKED:
            return ptr_lookup(session, where, rule);
        case SPAM_PTR_FOUND:
            if (rule == ptr_rule::reverse_dns) {
                OW_SITE_DEBUG(where, "cache shows PTR resolves");
                return ptr_next::pass;
            }
            if (pattern && session->ptr_names == nullptr) {
                OW_SITE_DEBUG(where, "cache shows DNS lookup error. Skipping test");
                return ptr_next::pass;
            }
            return ptr_next::check;
        case SPAM_PTR_NXDOMAIN:
            if (pattern) {
                OW_SITE_DEBUG(where, "cache shows PTR is NXDOMAIN. Can't run test");
                return ptr_next::pass;
            }
            OW_SITE_DEBUG(where, "cache shows PTR is NXDOMAIN");
            return rule == ptr_rule::reverse_dns ? ptr_next::match : ptr_next::pass;
        case SPAM_PTR_TEMPFAIL:
            OW_SITE_DEBUG(where, "cache shows PTR is temporarily unavailable");
            return ptr_next::pass;
        default:
            // A value no rule writes: only the rule that judges the missing PTR asks again.
            return rule == ptr_rule::reverse_dns ? ptr_lookup(session, where, rule)
                                                 : ptr_next::check;
    }
}

bool every_ptr_name(spam_session* session, site where, name_pattern& pattern) noexcept {
    if (session->ptr_names == nullptr) return false;
    // One client is enough to clear: a host with a real name beside its pool name is not a
    // dial-up host.
    for (char** name = session->ptr_names; *name != nullptr; ++name) {
        if (!pattern.matches(*name)) {
            OW_SITE_DEBUG(where, "PTR name [%s] does not match", *name);
            session->rdns = *name;
            return false;
        }
        if (ow_file_exists_ex(exempt_patterns, OW_FILE_REGULAR) &&
            compiled_regex_match(exempt_patterns, *name)) {
            OW_SITE_DEBUG(where, "PTR name [%s] is exempt", *name);
            session->rdns = *name;
            return false;
        }
    }
    OW_SITE_DEBUG(where, "every PTR name matches");
    return true;
}

bool pattern_file_hook(spam_session* session, site where, const char* path) noexcept {
    if (session == nullptr) {
        OW_SITE_EINVAL(where);
        return false;
    }
    if (session->ptr_names == nullptr) return false;
    // Without its file the hook is switched off, not an error: the administrator has not
    // compiled that list.
    if (!ow_file_exists_ex(path, OW_FILE_REGULAR)) {
        OW_SITE_DEBUG(where, "no pattern file [%s]", path);
        return false;
    }
    pattern_file in_file(path);
    return every_ptr_name(session, where, in_file);
}

}  // namespace ow::rules

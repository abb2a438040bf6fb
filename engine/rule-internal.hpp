// rule-internal.hpp: what the rule modules share. Every rule's log lines must read as the
// rule's own (its function and source file), even when a shared helper writes them, so the
// helpers take the caller's site and log through it.
#ifndef ARDVEX_RULE_INTERNAL_HPP
#define ARDVEX_RULE_INTERNAL_HPP

#include <cstdint>

#include "ow_internal.hpp"
#include "owspamrule.h"

namespace ow::rules {

// The function and source file a line is written for.
struct site {
    const char* func;
    const char* file;
};

}  // namespace ow::rules

// The site of the enclosing function; call it from the rule itself, never from a lambda.
#define OW_RULE_SITE (::ow::rules::site{__func__, ::ow::base_name(__FILE__)})
#define OW_SITE_DEBUG(where, ...) \
    ::ow_log_debug((where).func, (where).file, static_cast<uint32_t>(__LINE__), __VA_ARGS__)
#define OW_SITE_EINVAL(where)                                                         \
    ::ow_log_error((where).func, (where).file, static_cast<uint32_t>(__LINE__), "%s", \
                   ::strerror(EINVAL))

namespace ow::rules {

// Trims *text in the session record when it begins or ends with a blank, so that every later
// rule sees the trimmed value; an empty or NULL text is left alone.
void trim_blank_ends(char** text) noexcept;

// The text after the first '@' of address, or nullptr when it has none.
const char* domain_part(const char* address) noexcept;

// How a reverse-DNS rule reads the shared PTR cache; the rules differ in what a cached or
// fresh answer means to them.
enum class ptr_rule {
    reverse_dns,        // a missing PTR is this rule's own verdict
    valid_ptr,          // a failed lookup is not cached, so a later rule asks again
    pattern,            // the dynamic-name rules
    pattern_list,       // the abusive-name rule
    pattern_confirmed,  // an answer without names still counts as a lookup that succeeded
};

// What the rule does after the common start.
enum class ptr_next { pass, match, check };

// The common start of every reverse-DNS rule: refuses a NULL session, skips a client without
// an address or with an unroutable one, and answers from ptr_state or fills it (one PTR
// lookup per transaction).
ptr_next ptr_prologue(spam_session* session, site where, ptr_rule rule) noexcept;

// What a pattern rule looks for in a PTR name.
class name_pattern {
   public:
    virtual bool matches(const char* name) noexcept = 0;

   protected:
    ~name_pattern() = default;
};

// The pattern check shared by the built-in dynamic-name rule and the pattern-file hooks: true
// when every PTR name matches pattern and none is exempt. The first name that does not match,
// or is exempt, becomes rdns.
bool every_ptr_name(spam_session* session, site where, name_pattern& pattern) noexcept;

// A pattern hook over the compiled pattern file at path.
bool pattern_file_hook(spam_session* session, site where, const char* path) noexcept;

}  // namespace ow::rules

#endif  // ARDVEX_RULE_INTERNAL_HPP

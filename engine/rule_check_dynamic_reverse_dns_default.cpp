// rule_check_dynamic_reverse_dns_default.cpp: rejects clients whose every PTR name is built
// from an address (four digit groups), as the names of dial-up and dynamic pools are. The
// pattern is compiled at each call so nothing stays in memory between transactions.
#include "ardvex-rules.h"
#include "rule-internal.hpp"
#include "tiny_rex.h"

namespace {

constexpr const char* address_name_pattern =
    "[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}";

// Owns the compiled pattern for the length of one call.
class address_name final : public ow::rules::name_pattern {
   public:
    address_name() noexcept : exp_(trex_compile_ex(address_name_pattern, 0)) {}
    address_name(const address_name&) = delete;
    address_name& operator=(const address_name&) = delete;
    ~address_name() { trex_free(exp_); }
    bool compiled() const noexcept { return exp_ != nullptr; }
    bool matches(const char* name) noexcept override { return trex_match(exp_, name); }

   private:
    TRex* exp_;
};

}  // namespace

extern "C" bool rule_check_dynamic_reverse_dns_default(spam_session* session) {
    using ow::rules::ptr_next;
    if (ow::rules::ptr_prologue(session, OW_RULE_SITE, ow::rules::ptr_rule::pattern) !=
        ptr_next::check) {
        return false;
    }
    address_name pattern;
    if (!pattern.compiled()) return false;
    return ow::rules::every_ptr_name(session, OW_RULE_SITE, pattern);
}

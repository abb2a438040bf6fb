// Tests of the hook table: empty at load, each argument lands in its own member, and a
// second registration replaces every member.
#include "ardvex-spam-hooks.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// Distinct hooks, so a member that received the wrong argument shows which one it got.
template <int N>
bool hook(spam_session*) {
    return N % 2 == 0;
}
void log_hook(spam_session*, const char*, uint8_t) {}

// The check members in argument order (padding after dns_option carries no meaning).
std::vector<spam_rule_check_fn> checks(const spam_rule_hooks& h) {
    return {h.dyna_hook,           h.reverse_dns_list_hook, h.confirmed_dyna_hook,
            h.from_whitelist_hook, h.from_blacklist_hook,   h.reserved_hook2,
            h.reserved_hook3,      h.helo_whitelist_hook,   h.helo_blacklist_hook,
            h.ip_whitelist_hook,   h.ip_blacklist_hook,     h.country_blacklist_hook,
            h.to_whitelist_hook,   h.reserved_hook4};
}

TEST(SpamHooksTest, RegistrationFillsAndReplacesEveryMember) {
    const std::vector<spam_rule_check_fn> none(14, nullptr);
    EXPECT_EQ(checks(rule_hooks), none);  // nothing registered yet
    register_rule_hooks(true, hook<1>, hook<2>, hook<3>, hook<4>, hook<5>, hook<6>, hook<7>,
                        hook<8>, hook<9>, hook<10>, hook<11>, hook<12>, hook<13>, log_hook,
                        hook<14>);
    EXPECT_TRUE(rule_hooks.dns_option);
    EXPECT_EQ(checks(rule_hooks),
              (std::vector<spam_rule_check_fn>{hook<1>, hook<2>, hook<3>, hook<4>, hook<5>, hook<6>,
                                               hook<7>, hook<8>, hook<9>, hook<10>, hook<11>,
                                               hook<12>, hook<13>, hook<14>}));
    EXPECT_EQ(rule_hooks.message_log_hook, log_hook);
    register_rule_hooks(false, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                        nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(checks(rule_hooks), none);
    EXPECT_FALSE(rule_hooks.dns_option || rule_hooks.message_log_hook != nullptr);
}

}  // namespace

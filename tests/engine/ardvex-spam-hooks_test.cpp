// Tests of the hook table: empty at load, each argument lands in its own member, and a
// second registration replaces every member.
#include "ardvex-spam-hooks.h"

#include <gtest/gtest.h>

#include <iterator>

namespace {

// Distinct hooks, so a member that received the wrong argument shows which one it got.
template <int N>
bool hook(spam_session*) {
    return N % 2 == 0;
}
void log_hook(spam_session*, const char*, uint8_t) {}

// Members compared one by one: padding after dns_option carries no meaning.
bool all_empty(const spam_rule_hooks& h) {
    const spam_rule_check_fn hooks[] = {
        h.dyna_hook,           h.reverse_dns_list_hook, h.confirmed_dyna_hook,
        h.from_whitelist_hook, h.from_blacklist_hook,   h.reserved_hook2,
        h.reserved_hook3,      h.helo_whitelist_hook,   h.helo_blacklist_hook,
        h.ip_whitelist_hook,   h.ip_blacklist_hook,     h.country_blacklist_hook,
        h.to_whitelist_hook,   h.reserved_hook4};
    for (auto f : hooks)
        if (f != nullptr) return false;
    return !h.dns_option && h.message_log_hook == nullptr;
}

TEST(SpamHooksTest, RegistrationFillsAndReplacesEveryMember) {
    EXPECT_TRUE(all_empty(rule_hooks));  // nothing registered yet

    register_rule_hooks(true, hook<1>, hook<2>, hook<3>, hook<4>, hook<5>, hook<6>, hook<7>,
                        hook<8>, hook<9>, hook<10>, hook<11>, hook<12>, hook<13>, log_hook,
                        hook<14>);
    const spam_rule_hooks& h = rule_hooks;
    EXPECT_TRUE(h.dns_option);
    const spam_rule_check_fn in_order[] = {
        h.dyna_hook,           h.reverse_dns_list_hook, h.confirmed_dyna_hook,
        h.from_whitelist_hook, h.from_blacklist_hook,   h.reserved_hook2,
        h.reserved_hook3,      h.helo_whitelist_hook,   h.helo_blacklist_hook,
        h.ip_whitelist_hook,   h.ip_blacklist_hook,     h.country_blacklist_hook,
        h.to_whitelist_hook,   h.reserved_hook4};
    const spam_rule_check_fn expected[] = {hook<1>,  hook<2>,  hook<3>,  hook<4>, hook<5>,
                                           hook<6>,  hook<7>,  hook<8>,  hook<9>, hook<10>,
                                           hook<11>, hook<12>, hook<13>, hook<14>};
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(in_order[i], expected[i]);
    }
    EXPECT_EQ(h.message_log_hook, log_hook);
    spam_session s{};
    EXPECT_TRUE(h.helo_whitelist_hook(&s));
    EXPECT_FALSE(h.helo_blacklist_hook(&s));  // a caller's HELO hook answers for the rule

    register_rule_hooks(false, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                        nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_TRUE(all_empty(rule_hooks));
}

}  // namespace

// Engine start-up: the hook table it installs, each argument of the registration in its own
// member, the rule list's life, and the one refusal.
#include "ardvex.h"

#include "scratch.hpp"

#include "ardvex-log.h"
#include "ardvex-rule-lists.h"
#include "ardvex-rules.h"
#include "ardvex-spam-hooks.h"
#include "ow_internal.hpp"
#include "owspamrule.h"

namespace {

using EngineTest = ow_test::LogCaptureTest;

TEST_F(EngineTest, InitInstallsTheProductHooksAndAFreshRuleList) {
    // Whatever a host installed before is replaced, the HELO and reserved slots included.
    const spam_rule_check_fn yes = [](spam_session*) { return true; };
    register_rule_hooks(false, yes, yes, yes, yes, yes, yes, yes, yes, yes, yes, yes, yes, yes,
                        nullptr, yes);
    ASSERT_TRUE(ardvex_init());
    // The check members in argument order; the product's hooks are distinct, so a member
    // given another's argument shows.
    const spam_rule_hooks& h = rule_hooks;
    EXPECT_EQ(
        (std::vector<spam_rule_check_fn>{
            h.dyna_hook, h.reverse_dns_list_hook, h.confirmed_dyna_hook, h.from_whitelist_hook,
            h.from_blacklist_hook, h.reserved_hook2, h.reserved_hook3, h.helo_whitelist_hook,
            h.helo_blacklist_hook, h.ip_whitelist_hook, h.ip_blacklist_hook,
            h.country_blacklist_hook, h.to_whitelist_hook, h.reserved_hook4}),
        (std::vector<spam_rule_check_fn>{dyna_list_hook, spam_list_hook, confirmed_list_hook,
                                         fromwhitelist_hook, fromblacklist_hook, nullptr, nullptr,
                                         nullptr, nullptr, ipwhitelist_hook, ipblacklist_hook,
                                         countryblacklist_hook, towhitelist_hook, nullptr}));
    EXPECT_TRUE(h.dns_option);
    EXPECT_EQ(h.message_log_hook, &log_message);
    EXPECT_EQ(ow_list_count(ardvex_rule_list()), static_cast<uint32_t>(SPAM_RULE_COUNT));

    ASSERT_TRUE(ardvex_init());  // a restart replaces the list (LeakSanitizer sees the old one)
    ardvex_shutdown();
    EXPECT_EQ(ardvex_rule_list(), nullptr);
    ardvex_shutdown();
    EXPECT_EQ(rule_hooks.message_log_hook, &log_message);  // shutdown leaves the hooks
    EXPECT_NO_ERRORS();
}

TEST_F(EngineTest, NoRuleMadeMeansNoEngine) {
    ow::testing::fail_allocation(1, true);
    EXPECT_FALSE(ardvex_init());
    EXPECT_EQ(ardvex_rule_list(), nullptr);
    EXPECT_ERROR_LINE("ardvex_init", "no rules loaded.. engine cannot be initialized");
}

}  // namespace

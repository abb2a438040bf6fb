// Engine start-up: the hook table the product installs, the rule list's life, and the one
// refusal.
#include "ardvex.h"

#include <gtest/gtest.h>

#include "ardvex-log.h"
#include "ardvex-spam-hooks.h"
#include "log_capture.hpp"
#include "ow_internal.hpp"
#include "owspamrule.h"

namespace {

class EngineTest : public ow_test::LogCaptureTest {
   protected:
    void TearDown() override {
        ardvex_shutdown();
        LogCaptureTest::TearDown();
    }
};

const spam_rule* rule_at(ow_list* list, uint32_t index) {
    while (index-- > 0 && list != nullptr) list = list->next;
    return list != nullptr ? static_cast<const spam_rule*>(list->data) : nullptr;
}

TEST_F(EngineTest, InitFillsHooksAndRulesAndShutdownEmptiesTheList) {
    // Whatever a host installed before is replaced, the HELO slots included.
    register_rule_hooks(
        false, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
        [](spam_session*) { return true; }, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
        nullptr);
    ASSERT_TRUE(ardvex_init());
    EXPECT_TRUE(rule_hooks.dns_option);
    EXPECT_EQ(rule_hooks.message_log_hook, &log_message);
    EXPECT_EQ(rule_hooks.helo_whitelist_hook, nullptr);
    ow_list* rules = ardvex_rule_list();
    ASSERT_EQ(ow_list_count(rules), static_cast<uint32_t>(SPAM_RULE_COUNT));
    EXPECT_STREQ(rule_at(rules, 0)->name, "inbound");
    EXPECT_STREQ(rule_at(rules, SPAM_RULE_COUNT - 1)->name, "block_nonauth_ipv6");

    ASSERT_TRUE(ardvex_init());  // a restart replaces the list (LeakSanitizer sees the old one)
    ardvex_shutdown();
    EXPECT_EQ(ardvex_rule_list(), nullptr);
    ardvex_shutdown();
    EXPECT_EQ(ardvex_rule_list(), nullptr);
    EXPECT_EQ(rule_hooks.message_log_hook, &log_message);  // shutdown leaves the hooks
    EXPECT_NO_ERRORS();
}

TEST_F(EngineTest, NoRuleMadeMeansNoEngine) {
    ow::testing::fail_allocation(1, true);
    EXPECT_FALSE(ardvex_init());
    ow::testing::fail_allocation(0);
    EXPECT_EQ(ardvex_rule_list(), nullptr);
    EXPECT_ERROR_LINE("ardvex_init", "no rules loaded.. engine cannot be initialized");
}

}  // namespace

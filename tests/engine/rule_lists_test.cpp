// The list rules and their hooks against real list and range files in a private directory:
// each rule reached through its row of the started engine's rule list, the rules' guards
// without hooks, and the hooks' refusals.
#include "ardvex-rule-lists.h"

#include "scratch.hpp"

#include "ardvex-iprange.h"
#include "ardvex-spam-hooks.h"
#include "ardvex.h"

namespace {

using field = char* spam_session::*;

class RuleListsTest : public ow_test::ScratchTest {
   protected:
    void TearDown() override {
        ardvex_shutdown();
        no_hooks();
        ScratchTest::TearDown();
    }
    static void no_hooks() {
        register_rule_hooks(false, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    }
    // A session whose list directory is the test's, with one field set.
    spam_session& with(field f, const char* value) {
        value_ = value != nullptr ? value : "";
        session_ = spam_session{};
        session_.list_dir = dir_.data();
        session_.*f = value != nullptr ? value_.data() : nullptr;
        return session_;
    }
    std::string value_;
    spam_session session_{};
};

TEST_F(RuleListsTest, StartedEngineLooksFieldsUpInListAndRangeFiles) {
    using ow_test::spit;
    spit(path("from_whitelist"), "# partners\n*@partner.example\n  boss@corp.example\n");
    spit(path("from_blacklist"), "spam@bad.example\n");
    spit(path("exempt_users"), "postmaster@*\n");
    spit(path("exempt_ips"), "192.0.2.10\n2001:db8::1\n");
    spit(path("blocked_ips"), "203.0.113.1\n");
    spit(path("country_blacklist"), "CN\n**\n");
    const char* message = nullptr;
    ASSERT_TRUE(ipr_add_range_to_file(dir_.c_str(), "blocked_ips.range", "10.1.0.0", "10.1.255.255",
                                      nullptr, &message));
    ASSERT_TRUE(ardvex_init());
    const struct {
        const char* rule;
        field f;
        const char* value;
        bool listed;
    } cases[] = {
        {"from_whitelist", &spam_session::mail_from, "anyone@Partner.Example", true},
        {"from_whitelist", &spam_session::mail_from, "anyone@partner.example.net", false},
        {"from_whitelist", &spam_session::mail_from, "Boss@Corp.Example", true},
        {"from_blacklist", &spam_session::mail_from, "spam@bad.example", true},
        {"to_whitelist", &spam_session::rcpt_to, "postmaster@here.example", true},
        {"to_whitelist", &spam_session::rcpt_to, "user@here.example", false},
        {"ip_whitelist", &spam_session::ip, "2001:DB8::1", true},
        {"ip_whitelist", &spam_session::ip, "203.0.113.1", false},
        {"ip_blacklist", &spam_session::ip, "203.0.113.1", true},
        {"ip_blacklist", &spam_session::ip, "10.1.5.7", true},  // only in the range file
        {"ip_blacklist", &spam_session::ip, "10.2.5.7", false},
        {"country_blacklist", &spam_session::country, "cn", true},
        {"country_blacklist", &spam_session::country, "**", false},  // listed, but catch-all
        {"helo_whitelist", &spam_session::helo, "mx.partner.example", false},  // no hook
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.rule) + " " + c.value);
        const ow_list* row =
            ow_list_search(ardvex_rule_list(), c.rule, std::strlen(c.rule) + 1, rule_name_compare);
        ASSERT_NE(row, nullptr);
        const spam_rule_check_fn check = static_cast<const spam_rule*>(row->data)->check;
        ASSERT_NE(check, nullptr);
        EXPECT_EQ(check(&with(c.f, c.value)), c.listed);
    }
    EXPECT_NO_ERRORS();
    // An IPv6 client missing from the text list reaches the range file, which refuses it.
    EXPECT_FALSE(rule_ip_blacklist(&with(&spam_session::ip, "2001:db8::2")));
    EXPECT_NE(ow_test::dump().find("does not yet support IPv6 range checks for address "
                                   "[2001:db8::2]"),
              std::string::npos);
}

TEST_F(RuleListsTest, RulesGuardTheirFieldAndNeedAHook) {
    const struct {
        spam_rule_check_fn rule;
        const char* name;
        field f;
        const char* what;
    } rules[] = {
        {rule_from_whitelist, "rule_from_whitelist", &spam_session::mail_from, "MAIL FROM"},
        {rule_from_blacklist, "rule_from_blacklist", &spam_session::mail_from, "MAIL FROM"},
        {rule_to_whitelist, "rule_to_whitelist", &spam_session::rcpt_to, "RCPT TO"},
        {rule_ip_whitelist, "rule_ip_whitelist", &spam_session::ip, "IP"},
        {rule_ip_blacklist, "rule_ip_blacklist", &spam_session::ip, "IP"},
        {rule_helo_whitelist, "rule_helo_whitelist", &spam_session::helo, "HELO"},
        {rule_helo_blacklist, "rule_helo_blacklist", &spam_session::helo, "HELO"},
        {rule_country_blacklist, "rule_country_blacklist", &spam_session::country, nullptr},
    };
    // Every list slot answers "listed", a rule that says false did not ask; the reserved slots
    // stay empty, so a list hook stored there fails its rule.
    const spam_rule_check_fn yes = [](spam_session*) { return true; };
    for (const auto& r : rules) {
        SCOPED_TRACE(r.name);
        const std::string empty = r.what != nullptr
                                      ? std::string(r.what) + " is empty or NULL-nothing to check"
                                      : "Nothing to check as the ip country is NULL or empty";
        no_hooks();
        EXPECT_FALSE(r.rule(&with(r.f, "XX")));
        register_rule_hooks(true, nullptr, nullptr, nullptr, yes, yes, nullptr, nullptr, yes, yes,
                            yes, yes, yes, yes, nullptr, nullptr);
        EXPECT_TRUE(r.rule(&with(r.f, "XX")));
        EXPECT_FALSE(r.rule(&with(r.f, nullptr)) || r.rule(&with(r.f, "")));
        EXPECT_TRUE(ow_test::has_debug(r.name, empty)) << ow_test::dump();
        ow_test::refused(r.name, "Invalid argument", {!r.rule(nullptr)});
    }
}

TEST_F(RuleListsTest, HooksRefuseMissingFields) {
    const std::tuple<spam_rule_check_fn, const char*, field> hooks[] = {
        {fromwhitelist_hook, "fromwhitelist_hook", &spam_session::mail_from},
        {fromblacklist_hook, "fromblacklist_hook", &spam_session::mail_from},
        {towhitelist_hook, "towhitelist_hook", &spam_session::rcpt_to},
        {ipwhitelist_hook, "ipwhitelist_hook", &spam_session::ip},
        {ipblacklist_hook, "ipblacklist_hook", &spam_session::ip},
        {countryblacklist_hook, "countryblacklist_hook", &spam_session::country},
    };
    for (const auto& [hook, name, f] : hooks) {
        EXPECT_FALSE(hook(&with(f, "")));
        // No country known is no mistake: no line.
        EXPECT_EQ(ow_test::has_error(name, "Invalid argument"), hook != countryblacklist_hook);
        clear_log();
        ow_test::refused(name, "Invalid argument", {!hook(nullptr), !hook(&with(f, nullptr))});
    }
}

}  // namespace

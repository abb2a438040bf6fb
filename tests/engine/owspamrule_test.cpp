// The rule table and the rejection notices: the table's order, flags and texts as the mail
// server reads them, macro expansion and its fallbacks, overrides, and refusals.
#include "owspamrule.h"

#include "scratch.hpp"

#include "ardvex_config.h"
#include "ow_internal.hpp"

// Sessions are written with designated initializers naming only what a case sets.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using ow_test::refused;

const std::string banner = ". Protection provided by Ardvex 2.1-12.2 " ARDVEX_PRODUCT_URL;

std::string advised(const std::string& text, const std::string& path) {
    return text + " See " ARDVEX_ADVISORY_URL + path + " for more information.";
}

class SpamRuleTest : public ow_test::LogCaptureTest {
   protected:
    void TearDown() override {
        ow_destroy_list(&rules_, free_rule);
        free_rule(rule_);
        LogCaptureTest::TearDown();
    }
    // The notice for rule_ with session_, as a string ("(null)" when refused).
    std::string notice(spam_notice_override_fn override = nullptr) {
        char* text = build_rejection_notice(rule_, &session_, override);
        std::string out = text != nullptr ? text : "(null)";
        std::free(text);
        return out;
    }
    ow_list* rules_ = nullptr;
    spam_rule* rule_ = nullptr;
    spam_session session_{};
};

const spam_rule* find(ow_list* rules, const char* name) {
    ow_list* e = ow_list_search(rules, name, std::strlen(name) + 1, rule_name_compare);
    return e != nullptr ? static_cast<const spam_rule*>(e->data) : nullptr;
}

TEST_F(SpamRuleTest, TableOrderFlagsAndNotices) {
    rules_ = build_rule_list();
    // Each row's name and flags: user configurable, enabled by default, applies to
    // authenticated sessions, applies to IPv6 clients.
    std::string rows;
    for (const ow_list* e = rules_; e != nullptr; e = e->next) {
        const auto* r = static_cast<const spam_rule*>(e->data);
        rows += std::string(rows.empty() ? "" : " ") + r->name + ":";
        for (bool b : {r->user_configurable, r->enabled_by_default, r->applies_to_authenticated,
                       r->applies_to_ipv6})
            rows += b ? '1' : '0';
        EXPECT_NE(r->notice[0], '\0') << r->name;
    }
    EXPECT_EQ(rows,
              "inbound:1100 outbound:1111 to_whitelist:1111 from_whitelist:1011 ip_whitelist:1111 "
              "block_lists:0100 block_rbl_lists:0100 block_all_mail:1001 block_ip_in_addr:1111 "
              "require_helo:1111 valid_helo_domain:0001 block_mail_from_self:1001 "
              "require_full_addr:1101 mail_from_strict_addr_parse:1101 rfc_mail_from:1001 "
              "valid_ptr:0000 check_ip_reverse_dns:0100 check_dynamic_reverse_dns_default:0100 "
              "check_dynamic_reverse_dns:0100 check_reverse_dns_list:0100 "
              "check_confirmed_dyna:0100 ip_blacklist:1101 from_blacklist:1001 "
              "helo_blacklist:1101 country_blacklist:0100 helo_whitelist:1101 "
              "resolve_helo_domain:0001 valid_from_domain:1001 known_sender_forgery:1000 "
              "local_require_auth:0001 block_nonauth_ipv6:0001");
    // Spot checks of the texts: a plain notice and an advised one.
    EXPECT_STREQ(find(rules_, "inbound")->notice,
                 "Server %IP% has sent too much mail. Try again later.");
    EXPECT_EQ(find(rules_, "valid_ptr")->notice,
              advised("Server %IP% has an invalid PTR record.",
                      "/best-practices/reverse-dns-naming-conventions-valid-ptr/"));
    EXPECT_EQ(rule_name_compare(nullptr, "x", 0), -1);
    EXPECT_NO_ERRORS();
}

char* override_for_plain(const char* name, spam_session* session) {
    if (std::strcmp(name, "plain") != 0) return nullptr;
    return ow::dup_cstr(std::string("custom for ") + session->ip);
}

TEST_F(SpamRuleTest, MacrosExpandWithFallbacksAndOverrides) {
    char ptr1[] = "first.example.net", ptr2[] = "second.example.net";
    char* ptrs[] = {ptr1, ptr2, nullptr};
    char ip[] = "192.0.2.7", helo[] = "mx.example.org", from[] = "a@example.org",
         rcpt[] = "b@example.com";
    rule_ = new_rule("t", nullptr, 0, 0, 0, 0, "%IP% %RDNS% %HELO% %FROM% %RCPT% %TO% %IP%");
    ASSERT_NE(rule_, nullptr);

    const struct {
        spam_session session;
        std::string expected;
    } cases[] = {
        {{.rdns = ptr2, .ptr_names = ptrs},
         "%IP% second.example.net unknown unknown unknown unknown %IP%"},
        {{.ip = ip, .ptr_names = ptrs, .helo = helo, .mail_from = from, .rcpt_to = rcpt},
         "192.0.2.7 first.example.net mx.example.org a@example.org b@example.com "
         "b@example.com 192.0.2.7"},
        {{}, "%IP% unknown unknown unknown unknown unknown %IP%"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        session_ = c.session;
        EXPECT_EQ(notice(), c.expected + banner);
    }
    // An override with nothing for this rule leaves it its own template.
    EXPECT_EQ(notice(override_for_plain), cases[2].expected + banner);

    // A template without macros only gains the banner, so a final full stop is doubled.
    free_rule(rule_);
    rule_ = new_rule("plain", nullptr, 0, 0, 0, 0, "Missing HELO.");
    session_ = {.ip = ip};
    EXPECT_EQ(notice(), "Missing HELO.." + banner.substr(1));
    // An override's text is expanded like the rule's own.
    char macro[] = "%HELO%";
    session_ = {.ip = macro, .helo = helo};
    EXPECT_EQ(notice(override_for_plain), "custom for mx.example.org" + banner);
    EXPECT_NO_ERRORS();
}

TEST_F(SpamRuleTest, RefusalsAndAllocationFailures) {
    const std::string inval = std::strerror(EINVAL), enomem = std::strerror(ENOMEM);
    refused("new_rule", inval,
            {!new_rule("", nullptr, 0, 0, 0, 0, "n"), !new_rule("x", nullptr, 0, 0, 0, 0, "")});
    rule_ = new_rule("x", nullptr, 0, 0, 0, 0, "n");
    spam_rule nameless{};
    refused("build_rejection_notice", inval,
            {!build_rejection_notice(rule_, nullptr, nullptr),
             !build_rejection_notice(&nameless, &session_, nullptr)});
    for (long n = 1; n <= 3; ++n) {
        SCOPED_TRACE(n);
        ow::testing::fail_allocation(n);
        EXPECT_EQ(new_rule("x", nullptr, 0, 0, 0, 0, "n"), nullptr);
        refused("new_rule", enomem, {true});
    }
    // With the first rule's record failing, the other thirty are still built.
    ow::testing::fail_allocation(1);
    rules_ = build_rule_list();
    EXPECT_EQ(ow_list_count(rules_), static_cast<uint32_t>(SPAM_RULE_COUNT - 1));
    EXPECT_STREQ(static_cast<spam_rule*>(rules_->data)->name, "outbound");
    refused("new_rule", enomem, {true});
    ow::testing::fail_allocation(1);
    EXPECT_EQ(notice(), "(null)");
    refused("build_rejection_notice", enomem, {true});
}

}  // namespace

// The message identity rules that need no DNS: what each rule decides from the client's
// words, the trimming they do in the record, the sender verdict two rules share, and the
// refusal of a missing session by every rule and hook.
#include "ardvex-rules.h"

#include "scratch.hpp"

#include "owspamrule.h"

// Table rows name only the session fields they set; the rest are null on purpose.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using ow_test::has_debug;

char* dup_or_null(const char* s) { return s != nullptr ? strdup(s) : nullptr; }

// The rules trim the client's words in place, so the session holds its own copies.
class IdentityRuleTest : public ow_test::LogCaptureTest {
   protected:
    void TearDown() override {
        set(nullptr, nullptr);
        LogCaptureTest::TearDown();
    }
    void set(const char* helo, const char* from, const char* rcpt = nullptr,
             const char* ip = "192.0.2.9") {
        for (char* owned : {s_.helo, s_.mail_from, s_.rcpt_to}) std::free(owned);
        s_ = spam_session{};
        s_.helo = dup_or_null(helo), s_.mail_from = dup_or_null(from),
        s_.rcpt_to = dup_or_null(rcpt);
        s_.ip = const_cast<char*>(ip);
    }
    spam_session s_{};
};

#define RULE(f) f, #f

TEST_F(IdentityRuleTest, Decisions) {
    const struct {
        bool (*rule)(spam_session*);
        const char* rule_name;
        bool expected;
        const char* line;  // a DEBUG line the decision must write, or nullptr
        const char *helo, *from, *rcpt, *ip;
    } cases[] = {
        {RULE(rule_require_helo), true, "HELO is NULL or empty", ""},
        {RULE(rule_valid_helo_domain), true, "HELO is \"localhost.localdomain\"",
         "localhost.localdomain"},
        {RULE(rule_valid_helo_domain), false, nullptr, "localhost.localdomain.example.test"},
        {RULE(rule_valid_helo_domain), true, "HELO [[192.0.2.9]] is not a valid domain",
         "[192.0.2.9]"},
        {RULE(rule_mail_from_strict_addr_parse), true,
         "from address [a..b@example.test] is not a valid address", nullptr, "a..b@example.test"},
        {RULE(rule_rfc_mail_from), true, "from argument failed ow_valid_email_address test",
         nullptr, ""},
        {RULE(rule_rfc_mail_from), true,
         "address is claiming to come from localhost, but not really from localhost", nullptr,
         "root@LocalHost.localdomain", nullptr, "192.0.2.9"},
        {RULE(rule_rfc_mail_from), false, nullptr, nullptr, "root@localhost.localdomain", nullptr,
         "127.0.0.1"},
        {RULE(rule_block_ip_in_addr), true, "from domain [192.0.2.1] is an ip address", nullptr,
         "a@192.0.2.1", "b@example.test"},
        {RULE(rule_block_ip_in_addr), true, "rcpt domain [2001:db8::1] is an ip address", nullptr,
         "postmaster", "b@2001:db8::1"},
        {RULE(rule_require_full_addr), true, "Recipient address [postmaster] is invalid", nullptr,
         nullptr, "postmaster"},
        {RULE(rule_block_mail_from_self), true,
         "from [Ann@Example.test] and to [ann@example.TEST] addresses match", nullptr,
         "Ann@Example.test", "ann@example.TEST"},
        {RULE(rule_block_mail_from_self), false,
         "from [a@example.test] and to [b@example.test] addresses no match", nullptr,
         "a@example.test", "b@example.test"},
        {RULE(rule_valid_from_domain), true, "domain [bad_domain.test] flagged as invalid", nullptr,
         "a@bad_domain.test"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.rule_name) + " " + (c.from != nullptr ? c.from : ""));
        set(c.helo, c.from, c.rcpt, c.ip);
        EXPECT_EQ(c.rule(&s_), c.expected);
        if (c.line != nullptr) {
            EXPECT_TRUE(has_debug(c.rule_name, c.line)) << ow_test::dump();
        }
        clear_log();
    }
}

TEST_F(IdentityRuleTest, TrimmingHappensInTheRecord) {
    set(" mail.example.test ", " a@192.0.2.1 ");
    EXPECT_FALSE(rule_valid_helo_domain(&s_));
    EXPECT_STREQ(s_.helo, "mail.example.test");
    // An IP-literal sender domain is settled without DNS.
    EXPECT_FALSE(rule_valid_from_domain(&s_));
    EXPECT_STREQ(s_.mail_from, "a@192.0.2.1");
    EXPECT_EQ(s_.from_domain_dns, SPAM_DNS_FOUND);
    set(nullptr, " a@example.test");
    EXPECT_FALSE(rule_rfc_mail_from(&s_));
    EXPECT_STREQ(s_.mail_from, "a@example.test");
}

TEST_F(IdentityRuleTest, BounceVerdictIsSharedInTableOrder) {
    set(nullptr, "");
    EXPECT_FALSE(rule_mail_from_strict_addr_parse(&s_));
    EXPECT_EQ(s_.from_format, SPAM_FROM_WELL_FORMED);
    EXPECT_FALSE(rule_rfc_mail_from(&s_));
    EXPECT_TRUE(has_debug("rule_rfc_mail_from", "argument [] detected as NDR. Skipping"));
    EXPECT_TRUE(rule_valid_from_domain(&s_));
    // A cached "malformed" stands even for an address that would now pass.
    set(nullptr, "a@example.test");
    s_.from_format = SPAM_FROM_MALFORMED;
    EXPECT_TRUE(rule_mail_from_strict_addr_parse(&s_));
    EXPECT_TRUE(
        has_debug("rule_mail_from_strict_addr_parse", "cached value RFC format flagged as 'no'"));
}

TEST_F(IdentityRuleTest, Ipv6ClientsMustAuthenticateUnlessExempt) {
    // ipv6, authenticated, exempt -> matches
    const bool cases[][4] = {{1, 0, 0, 1}, {1, 1, 0, 0}, {1, 0, 1, 0}, {0, 0, 0, 0}};
    for (const auto& c : cases) {
        set(nullptr, nullptr, nullptr, "2001:db8::9");
        s_.is_ipv6 = c[0], s_.authenticated = c[1], s_.auth_exempt = c[2];
        EXPECT_EQ(rule_block_nonauth_ipv6(&s_), c[3]) << c[0] << c[1] << c[2];
    }
    EXPECT_TRUE(rule_block_all_mail(&s_));
}

TEST_F(IdentityRuleTest, EveryCheckRefusesAMissingSession) {
    using check = bool (*)(spam_session*);
    for (check c : {rule_require_helo, rule_valid_helo_domain, rule_mail_from_strict_addr_parse,
                    rule_rfc_mail_from, rule_valid_from_domain, rule_require_full_addr,
                    rule_block_mail_from_self, rule_block_all_mail, rule_local_require_auth,
                    rule_block_nonauth_ipv6})
        EXPECT_FALSE(c(nullptr));
    for (check c : {rule_resolve_helo_domain, rule_check_ip_reverse_dns, rule_valid_ptr,
                    rule_check_dynamic_reverse_dns_default, rule_check_dynamic_reverse_dns,
                    rule_check_confirmed_dyna, rule_check_reverse_dns_list, dyna_list_hook,
                    confirmed_list_hook, spam_list_hook})
        EXPECT_FALSE(c(nullptr));
    EXPECT_EQ(ow_test::error_count(), 20u) << "one line per check: " << ow_test::dump();
    clear_log();
    // The one rule that only narrates it.
    EXPECT_FALSE(rule_block_ip_in_addr(nullptr));
    EXPECT_TRUE(has_debug("rule_block_ip_in_addr", std::strerror(EINVAL)));
    EXPECT_NO_ERRORS();
}

}  // namespace

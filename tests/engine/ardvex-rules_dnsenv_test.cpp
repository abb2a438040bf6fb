// The rules that ask the DNS or the outside world, run inside tests/support/dnsenv.sh: HELO
// and sender domain verdicts, the one PTR lookup per transaction shared by the reverse-DNS
// rules (counted at the scripted server), pattern files written by ardvex-regex-compile, and
// the Zimbra map asked through the secure wrapper and the postmap stand-in.
#include "ardvex-rules.h"
#include "ardvex.h"
#include "dnsenv.hpp"
#include "is_local_domain.h"
#include "owspamrule.h"

namespace {

namespace dnsenv = ow_test::dnsenv;
using ow_test::has_debug;

class OutsideWorldRuleTest : public ow_test::LogCaptureTest {
   protected:
    static void SetUpTestSuite() {
        if (dnsenv::inside())
            dnsenv::private_suite(ARDVEX_DYNAREGEX_DIR, "local.example.test local.example.test\n");
    }
    void SetUp() override {
        if (!dnsenv::inside()) GTEST_SKIP() << "runs only inside tests/support/dnsenv.sh";
        LogCaptureTest::SetUp();
        ASSERT_TRUE(ardvex_init());
        dnsenv::script(R"({
          "1.113.0.203.in-addr.arpa": {"PTR": {"records": [
              "@ PTR 203-0-113-1.pool.example.test.", "@ PTR mail.example.test."]}},
          "2.113.0.203.in-addr.arpa": {"PTR": {"records": [
              "@ PTR host-203.0.113.2.dyn.example.test."]}},
          "3.113.0.203.in-addr.arpa": {"*": {"rcode": 2}},
          "5.113.0.203.in-addr.arpa": {"PTR": {"records": ["@ PTR LOCALHOST.localdomain."]}}
        })");
        ow_test::sh("rm -f " ARDVEX_DYNAREGEX_DIR "*");
        dnsenv::reset_queries();
    }
    void TearDown() override {
        if (dnsenv::inside()) reset();
        ardvex_shutdown();
        LogCaptureTest::TearDown();
    }
    // A fresh transaction from ip.
    void reset(const char* ip = nullptr, const char* helo = nullptr, const char* from = nullptr) {
        std::free(s_.helo);
        std::free(s_.mail_from);
        for (char** n = s_.ptr_names; n != nullptr && *n != nullptr; ++n) std::free(*n);
        std::free(s_.ptr_names);
        s_ = spam_session{};
        s_.ip = const_cast<char*>(ip);
        s_.routable = true;
        s_.helo = helo != nullptr ? strdup(helo) : nullptr;
        s_.mail_from = from != nullptr ? strdup(from) : nullptr;
    }
    static std::size_t ptr_queries(const char* last_octet) {
        return dnsenv::query_count(std::string(last_octet) + ".113.0.203.in-addr.arpa", "PTR");
    }
    std::string rdns() const { return s_.rdns != nullptr ? s_.rdns : "(null)"; }
    spam_session s_{};
};

// The reverse-DNS rules in table order.
bool (*const rdns_rules[])(spam_session*) = {rule_valid_ptr,
                                             rule_check_ip_reverse_dns,
                                             rule_check_dynamic_reverse_dns_default,
                                             rule_check_dynamic_reverse_dns,
                                             rule_check_reverse_dns_list,
                                             rule_check_confirmed_dyna};

TEST_F(OutsideWorldRuleTest, OnePtrLookupServesEveryReverseDnsRule) {
    reset("203.0.113.1");
    EXPECT_FALSE(rule_valid_ptr(&s_));
    ASSERT_STREQ(s_.ptr_names[0], "203-0-113-1.pool.example.test");
    EXPECT_EQ(rdns(), s_.ptr_names[0]);
    s_.rdns = nullptr;
    for (auto rule : rdns_rules) EXPECT_FALSE(rule(&s_));
    EXPECT_EQ(ptr_queries("1"), 1u) << dnsenv::queries();
    EXPECT_EQ(s_.ptr_state, SPAM_PTR_FOUND);
    // The pool name matches the address pattern, the second name does not: it is the one
    // that clears the client.
    EXPECT_EQ(rdns(), "mail.example.test");

    // No such name: only the missing-PTR rule matches, fresh or cached.
    reset("203.0.113.4");
    EXPECT_FALSE(rule_valid_ptr(&s_));
    EXPECT_EQ(s_.ptr_state, SPAM_PTR_NXDOMAIN);
    for (auto rule : rdns_rules) EXPECT_EQ(rule(&s_), rule == rule_check_ip_reverse_dns);
    EXPECT_EQ(ptr_queries("4"), 1u) << dnsenv::queries();

    // An unroutable client is never looked up.
    reset("203.0.113.2");
    s_.routable = false;
    for (auto rule : rdns_rules) EXPECT_FALSE(rule(&s_));
    EXPECT_EQ(ptr_queries("2"), 0u);
}

TEST_F(OutsideWorldRuleTest, TemporaryFailureIsCachedByAllButValidPtr) {
    reset("203.0.113.3");
    EXPECT_FALSE(rule_valid_ptr(&s_));
    EXPECT_EQ(s_.ptr_state, SPAM_VERDICT_UNCHECKED);
    EXPECT_TRUE(has_debug("rule_valid_ptr", "DNS lookup failure - skipping")) << ow_test::dump();
    const std::size_t first = ptr_queries("3");
    EXPECT_GE(first, 1u);
    EXPECT_FALSE(rule_check_ip_reverse_dns(&s_));
    EXPECT_EQ(s_.ptr_state, SPAM_PTR_TEMPFAIL);
    EXPECT_EQ(ptr_queries("3"), 2 * first) << "the later rule asks again";
    for (auto rule : rdns_rules) EXPECT_FALSE(rule(&s_));
    EXPECT_EQ(ptr_queries("3"), 2 * first);
    EXPECT_TRUE(
        has_debug("rule_check_confirmed_dyna", "cache shows PTR is temporarily unavailable"));
    // Lines of the shared start carry the rule's own source file.
    bool own_file = false;
    for (const auto& l : lines()) own_file |= l.text.starts_with("rule_check_confirmed_dyna.cpp:");
    EXPECT_TRUE(own_file) << ow_test::dump();
}

TEST_F(OutsideWorldRuleTest, PatternFilesAndExemptions) {
    reset("203.0.113.2");
    // Without pattern files only the built-in address pattern judges.
    EXPECT_TRUE(rule_check_dynamic_reverse_dns_default(&s_));
    EXPECT_FALSE(rule_check_dynamic_reverse_dns(&s_));
    EXPECT_EQ(s_.rdns, nullptr);

    dnsenv::compile_patterns("dyna.cregexes", "^host-[0-9.]+\\.dyn\\.\n");
    dnsenv::compile_patterns("spam.cregexes", "\\.pool\\.example\\.test$\n");
    dnsenv::compile_patterns("confirmed.cregexes", "dyn\\.example\\.test$\n");
    EXPECT_TRUE(rule_check_dynamic_reverse_dns(&s_));
    EXPECT_TRUE(rule_check_confirmed_dyna(&s_));
    EXPECT_FALSE(rule_check_reverse_dns_list(&s_));
    EXPECT_EQ(rdns(), "host-203.0.113.2.dyn.example.test");

    // An exempt name clears the client in the built-in rule and in every hook.
    dnsenv::compile_patterns("exempt.cregexes", "^host-203\\.0\\.113\\.2\\.\n");
    s_.rdns = nullptr;
    EXPECT_FALSE(rule_check_dynamic_reverse_dns_default(&s_));
    EXPECT_EQ(rdns(), "host-203.0.113.2.dyn.example.test");
    for (auto rule : rdns_rules) EXPECT_FALSE(rule(&s_));
    EXPECT_EQ(ptr_queries("2"), 1u);

    reset("203.0.113.5");
    EXPECT_TRUE(rule_valid_ptr(&s_)) << "localhost.localdomain is no host name, in any case";
}

TEST_F(OutsideWorldRuleTest, HeloAndSenderDomainVerdictsAreAskedOnce) {
    const struct {
        const char* name;
        bool matches;
        uint32_t cached;
    } cases[] = {
        {"a.plain.test", false, SPAM_DNS_FOUND},
        {"nx.rules.test", true, SPAM_DNS_NXDOMAIN},
        {"servfail.scripted.test", false, SPAM_VERDICT_UNCHECKED},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        reset(nullptr, c.name, (std::string("a@") + c.name).c_str());
        EXPECT_EQ(rule_resolve_helo_domain(&s_), c.matches);
        EXPECT_EQ(s_.helo_dns, c.cached);
        const std::size_t asked = dnsenv::query_count(c.name);
        EXPECT_GE(asked, 1u);
        EXPECT_EQ(rule_resolve_helo_domain(&s_), c.matches);
        EXPECT_EQ(rule_valid_from_domain(&s_), c.matches);
        EXPECT_EQ(s_.from_domain_dns, c.cached);
        // A cached verdict asks nothing; an uncached failure asks again each time.
        const std::size_t calls = c.cached == SPAM_VERDICT_UNCHECKED ? 3 : 2;
        EXPECT_EQ(dnsenv::query_count(c.name), calls * asked) << dnsenv::queries();
        dnsenv::reset_queries();
    }
}

TEST_F(OutsideWorldRuleTest, LocalSendersMustAuthenticate) {
    ow_test::spit(ARDVEX_LDAP_VMD_MAP ".calls", "");
    reset(nullptr, nullptr, "ann@Local.Example.test");
    EXPECT_TRUE(rule_local_require_auth(&s_));
    s_.authenticated = true;
    EXPECT_FALSE(rule_local_require_auth(&s_));
    reset(nullptr, nullptr, "ann@elsewhere.test");
    EXPECT_FALSE(rule_local_require_auth(&s_));
    EXPECT_TRUE(ow_test::slurp(ARDVEX_LDAP_VMD_MAP ".calls")
                    .starts_with("-q Local.Example.test proxy:ldap:" ARDVEX_LDAP_VMD_MAP "\n"));

    // A broken map or a missing postmap makes nobody local.
    const std::string table = ARDVEX_LDAP_VMD_MAP ".table";
    ASSERT_EQ(ow_test::sh("mv " + table + " " + table + ".saved"), 0);
    EXPECT_FALSE(is_local_domain("ann@local.example.test"));
    ASSERT_EQ(ow_test::sh("mv " + table + ".saved " + table +
                          " && mv " ARDVEX_POSTMAP " " ARDVEX_POSTMAP ".off"),
              0);
    EXPECT_FALSE(is_local_domain("ann@local.example.test"));
    ASSERT_EQ(ow_test::sh("mv " ARDVEX_POSTMAP ".off " ARDVEX_POSTMAP), 0);
    EXPECT_TRUE(is_local_domain("ann@local.example.test"));
}

}  // namespace

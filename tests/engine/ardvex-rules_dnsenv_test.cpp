// The rules that ask the outside world, inside tests/support/dnsenv.sh: HELO and sender domain
// verdicts, the one PTR lookup per transaction (counted at the scripted server), compiled
// pattern files, the Zimbra map; then whole transactions judged as the hosting mail server
// does it (rule_walk.hpp), down to the message log and the counter files.
#include <algorithm>
#include <array>
#include <ctime>
#include <tuple>

#include "ardvex-iprange.h"
#include "ardvex-log.h"
#include "ardvex-rules.h"
#include "ardvex.h"
#include "ardvex_config.h"
#include "dnsenv.hpp"
#include "is_local_domain.h"
#include "owspamrule.h"
#include "rule_walk.hpp"

namespace {

namespace dnsenv = ow_test::dnsenv;
using ow_test::has_debug;

class OutsideWorldRuleTest : public ow_test::LogCaptureTest {
   protected:
    static void SetUpTestSuite() {
        if (!dnsenv::inside()) return;
        // Private directories; the Zimbra map reached through the wrapper and postmap stand-in.
        const std::string work = dnsenv::env("DNSENV_WORK");
        ASSERT_EQ(ow_test::sh(ARDVEX_SOURCE_DIR "/tests/support/private_dirs.sh " + work +
                              "/private " ARDVEX_ZIMBRA_DIR " " ARDVEX_SUITE_BIN_DIR
                              " " ARDVEX_DYNAREGEX_DIR " " ARDVEX_CONTROL_DIR " " ARDVEX_LOG_DIR),
                  0);
        ASSERT_EQ(ow_test::sh("install -D -m 755 " ARDVEX_BINARY_DIR
                              "/tools/ardvex-secure " ARDVEX_SECURE_WRAPPER
                              " && install -D -m 755 " ARDVEX_SOURCE_DIR
                              "/tools/zimbra-postmap " ARDVEX_POSTMAP " && mkdir -p " +
                              list_dir() + " $(dirname " ARDVEX_LDAP_VMD_MAP ")"),
                  0);
        ow_test::spit(ARDVEX_LDAP_VMD_MAP, "server_host = ldap://127.0.0.1:389\n");
        ow_test::spit(ARDVEX_LDAP_VMD_MAP ".table", "local.example.test local.example.test\n");
        // A domain that sends only from its own network.
        ow_test::spit(ARDVEX_CONTROL_DIR "valid_domain_ips", "bank.example.test: 192.0.2.0/24\n");
        ow_test::spit(list_dir() + "from_blacklist", "*@spammer.example.test\n");
        ASSERT_TRUE(ipr_add_range_to_file(list_dir().c_str(), "exempt_ips.range", "198.51.100.0",
                                          "198.51.100.255", nullptr, nullptr));
    }
    static std::string list_dir() { return dnsenv::env("DNSENV_WORK") + "/lists/"; }
    void SetUp() override {
        if (!dnsenv::inside()) GTEST_SKIP() << "runs only inside tests/support/dnsenv.sh";
        LogCaptureTest::SetUp();
        ASSERT_TRUE(ardvex_init());
        dnsenv::script(R"({
          "1.113.0.203.in-addr.arpa": {"PTR": {"records": [
              "@ PTR 203-0-113-1.pool.example.test.", "@ PTR mail.example.test."]}},
          "2.113.0.203.in-addr.arpa": {"PTR": {"records": ["@ PTR host-203.0.113.2.dyn.example.test."]}},
          "3.113.0.203.in-addr.arpa": {"*": {"rcode": 2}},
          "5.113.0.203.in-addr.arpa": {"PTR": {"records": ["@ PTR LOCALHOST.localdomain."]}},
          "20.113.0.203.in-addr.arpa": {"PTR": {"records": ["@ PTR mail.sender.example.test."]}},
          "23.113.0.203.in-addr.arpa": {"PTR": {"records": ["@ PTR dsl-home.isp.example.test."]}},
          "mail.sender.example.test": {"A": {"records": ["@ A 203.0.113.20"]}},
          "sender.example.test": {"MX": {"records": ["@ MX 10 mail.sender.example.test."]},
                                  "A": {"records": ["@ A 203.0.113.20"]}},
          "spammer.example.test": {"A": {"records": ["@ A 203.0.113.20"]}},
          "bank.example.test": {"A": {"records": ["@ A 192.0.2.80"]}}
        })");
        ow_test::sh("rm -f " ARDVEX_DYNAREGEX_DIR "*");
        dnsenv::reset_queries();
    }
    void TearDown() override {
        if (dnsenv::inside()) reset();
        ardvex_shutdown();
        LogCaptureTest::TearDown();
    }
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
    spam_session s_{};
};

// Compiles the patterns into the pattern directory's file with the administrator's tool.
void compile_patterns(const std::string& file, const std::string& patterns) {
    const std::string text = dnsenv::env("DNSENV_WORK") + "/" + file + ".txt";
    ow_test::spit(text, patterns);
    ASSERT_EQ(ow_test::sh(ARDVEX_BINARY_DIR "/tools/ardvex-regex-compile " + text +
                          " " ARDVEX_DYNAREGEX_DIR + file + " >/dev/null"),
              0);
}

// Today's record of the daily counter file.
ardvex_counter_record today() {
    ardvex_counter_record r{};
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char path[128];
    std::snprintf(path, sizeof path, ARDVEX_LOG_DIR ARDVEX_COUNTER_BASE ".%02d", tm.tm_mon + 1);
    std::ifstream in(path, std::ios::binary);
    in.seekg(ARDVEX_COUNTER_HEADER_SIZE + sizeof r * (tm.tm_mday - 1));
    in.read(reinterpret_cast<char*>(&r), sizeof r);
    return r;
}

// The reverse-DNS rules in table order.
const spam_rule_check_fn rdns_rules[] = {rule_valid_ptr,
                                         rule_check_ip_reverse_dns,
                                         rule_check_dynamic_reverse_dns_default,
                                         rule_check_dynamic_reverse_dns,
                                         rule_check_reverse_dns_list,
                                         rule_check_confirmed_dyna};

TEST_F(OutsideWorldRuleTest, OnePtrLookupServesEveryReverseDnsRule) {
    reset("203.0.113.1");
    EXPECT_FALSE(rule_valid_ptr(&s_));
    ASSERT_STREQ(s_.ptr_names[0], "203-0-113-1.pool.example.test");
    EXPECT_EQ(s_.rdns, s_.ptr_names[0]);
    s_.rdns = nullptr;
    for (auto rule : rdns_rules) EXPECT_FALSE(rule(&s_));
    EXPECT_EQ(ptr_queries("1"), 1u) << dnsenv::queries();
    EXPECT_EQ(s_.ptr_state, SPAM_PTR_FOUND);
    // The pool name matches the address pattern; the second name clears the client.
    EXPECT_STREQ(s_.rdns, "mail.example.test");

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

    // A temporary failure is cached by every rule but valid_ptr.
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
    EXPECT_TRUE(std::any_of(lines().begin(), lines().end(), [](const auto& l) {
        return l.text.starts_with("rule_check_confirmed_dyna.cpp:");
    })) << ow_test::dump();
}

TEST_F(OutsideWorldRuleTest, PatternFilesAndExemptions) {
    reset("203.0.113.2");
    // Without pattern files only the built-in address pattern judges.
    EXPECT_TRUE(rule_check_dynamic_reverse_dns_default(&s_));
    EXPECT_FALSE(rule_check_dynamic_reverse_dns(&s_));
    EXPECT_EQ(s_.rdns, nullptr);

    compile_patterns("dyna.cregexes", "^host-[0-9.]+\\.dyn\\.\n");
    compile_patterns("spam.cregexes", "\\.pool\\.example\\.test$\n");
    compile_patterns("confirmed.cregexes", "dyn\\.example\\.test$\n");
    EXPECT_TRUE(rule_check_dynamic_reverse_dns(&s_));
    EXPECT_TRUE(rule_check_confirmed_dyna(&s_));
    EXPECT_FALSE(rule_check_reverse_dns_list(&s_));
    EXPECT_STREQ(s_.rdns, "host-203.0.113.2.dyn.example.test");

    // An exempt name clears the client in the built-in rule and in every hook.
    compile_patterns("exempt.cregexes", "^host-203\\.0\\.113\\.2\\.\n");
    s_.rdns = nullptr;
    EXPECT_FALSE(rule_check_dynamic_reverse_dns_default(&s_));
    EXPECT_STREQ(s_.rdns, "host-203.0.113.2.dyn.example.test");
    for (auto rule : rdns_rules) EXPECT_FALSE(rule(&s_));
    EXPECT_EQ(ptr_queries("2"), 1u);

    reset("203.0.113.5");
    EXPECT_TRUE(rule_valid_ptr(&s_)) << "localhost.localdomain is no host name, in any case";
}

TEST_F(OutsideWorldRuleTest, HeloAndSenderDomainVerdictsAreAskedOnce) {
    const std::tuple<const char*, bool, uint32_t> cases[] = {
        {"a.plain.test", false, SPAM_DNS_FOUND},
        {"nx.rules.test", true, SPAM_DNS_NXDOMAIN},
        {"servfail.scripted.test", false, SPAM_VERDICT_UNCHECKED}};
    for (const auto& [name, matches, cached] : cases) {
        SCOPED_TRACE(name);
        reset(nullptr, name, (std::string("a@") + name).c_str());
        dnsenv::reset_queries();
        EXPECT_EQ(rule_resolve_helo_domain(&s_), matches);
        const std::size_t asked = dnsenv::query_count(name);
        EXPECT_GE(asked, 1u);
        EXPECT_EQ(rule_resolve_helo_domain(&s_), matches);
        EXPECT_EQ(rule_valid_from_domain(&s_), matches);
        EXPECT_EQ(std::make_pair(s_.helo_dns, s_.from_domain_dns), std::make_pair(cached, cached));
        // A cached verdict asks nothing; an uncached failure asks again each time.
        EXPECT_EQ(dnsenv::query_count(name), (cached == SPAM_VERDICT_UNCHECKED ? 3 : 2) * asked)
            << dnsenv::queries();
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
    for (const std::string moved : {ARDVEX_LDAP_VMD_MAP ".table", ARDVEX_POSTMAP}) {
        ASSERT_EQ(ow_test::sh("mv " + moved + " " + moved + ".off"), 0);
        EXPECT_FALSE(is_local_domain("ann@local.example.test")) << moved;
        ASSERT_EQ(ow_test::sh("mv " + moved + ".off " + moved), 0);
    }
    EXPECT_TRUE(is_local_domain("ann@local.example.test"));
}

struct transaction {
    const char* ip = "203.0.113.20";
    const char* helo = "mail.sender.example.test";
    const char* from = "anna@sender.example.test";
    bool ipv6 = false, auth = false;
    const char* rule = "";    // the rule that ends the walk, "" for none
    const char* notice = "";  // the start of its notice
};

TEST_F(OutsideWorldRuleTest, EachTransactionGetsItsVerdictNoticeLogLineAndCount) {
    compile_patterns("dyna.cregexes", "^dsl-[a-z]+\\.isp\\.\n");
    const transaction table[] = {
        {},  // clean mail
        {.ip = "203.0.113.2",
         .rule = "check_dynamic_reverse_dns_default",
         .notice = "Your server IP address [203.0.113.2] does not have a valid reverse DNS entry "
                   "[host-203.0.113.2.dyn.example.test]."},
        {.ip = "203.0.113.23",  // in the administrator's dynamic patterns
         .rule = "check_dynamic_reverse_dns",
         .notice = "Your server IP address [203.0.113.23] does not have"},
        {.helo = nullptr, .rule = "require_helo", .notice = "Missing HELO."},
        {.from = "ceo@bank.example.test", .rule = "known_sender_forgery"},
        {.from = "bulk@spammer.example.test", .rule = "from_blacklist"},
        {.ip = "198.51.100.9",
         .helo = nullptr,
         .from = "bulk@spammer.example.test",
         .rule = "ip_whitelist"},
        {.ip = "2001:db8::25", .ipv6 = true, .rule = "block_nonauth_ipv6"},
        {.ip = "2001:db8::25", .ipv6 = true, .auth = true},
        {.ip = "203.0.113.3"},  // the DNS failing for now never rejects
    };
    const std::string lists = list_dir();
    for (const auto& t : table) {
        const std::string rule = t.rule;
        SCOPED_TRACE(std::string(t.ip) + " " + rule);
        reset(t.ip, t.helo, t.from);
        s_.rcpt_to = const_cast<char*>("bob@local.example.test");
        s_.list_dir = const_cast<char*>(lists.c_str());
        s_.is_ipv6 = t.ipv6;
        s_.authenticated = t.auth;
        s_.auth_user = const_cast<char*>(t.auth ? "anna" : "");
        const std::string before = ow_test::slurp(ARDVEX_LOG_DIR "axlog");
        const ardvex_counter_record was = today();

        const ow_test::verdict v =
            ow_test::judge(&s_, {"known_sender_forgery", "block_nonauth_ipv6", "from_blacklist"});

        const bool exempt = rule.ends_with("_whitelist");
        EXPECT_EQ(v.rule, rule) << ow_test::dump();
        EXPECT_TRUE(v.notice.starts_with(t.notice)) << v.notice;
        EXPECT_EQ(v.notice.empty(), rule.empty() || exempt);
        const std::string line = ow_test::slurp(ARDVEX_LOG_DIR "axlog").substr(before.size());
        const std::string logged =
            rule.empty() ? "HAM:" : (exempt ? "EXEMPT[" : "SPAM[") + rule + "]:";
        EXPECT_NE(line.find(logged + " mua=["), std::string::npos) << line;
        EXPECT_NE(line.find(std::string("ip=[") + t.ip), std::string::npos) << line;
        EXPECT_EQ(line.find("\r\n"), line.size() - 2) << "one line per transaction";
        const ardvex_counter_record now = today();
        const std::array<uint32_t, 4> counted{now.ham - was.ham, now.spam - was.spam,
                                              now.exempt - was.exempt,
                                              now.authenticated - was.authenticated};
        EXPECT_EQ(counted, (std::array<uint32_t, 4>{rule.empty(), !rule.empty() && !exempt, exempt,
                                                    t.auth}));
    }
}

}  // namespace

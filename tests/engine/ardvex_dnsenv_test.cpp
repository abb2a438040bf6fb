// One transaction judged end to end the way the hosting mail-server component does it, through
// the C interface: ardvex_init, a filled spam_session, the rule walk to the first whitelist or
// blocking match, the notice, log_message, ardvex_shutdown. Real name servers (dnsenv.sh),
// real list, range, pattern and forgery files, the real message log and counter files.
#include <strings.h>

#include <array>
#include <ctime>

#include "ardvex-file.h"
#include "ardvex-iprange.h"
#include "ardvex-log.h"
#include "ardvex.h"
#include "dnsenv.hpp"
#include "rule_walk.hpp"

namespace {

namespace dnsenv = ow_test::dnsenv;

// Today's record of the daily counter file.
ardvex_counter_record today() {
    ardvex_counter_record r{};
    char month[16];
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    std::snprintf(month, sizeof month, "%02d", tm.tm_mon + 1);
    std::ifstream in(std::string(ARDVEX_LOG_DIR) + ARDVEX_COUNTER_BASE "." + month,
                     std::ios::binary);
    in.seekg(ARDVEX_COUNTER_HEADER_SIZE + sizeof r * (tm.tm_mday - 1));
    in.read(reinterpret_cast<char*>(&r), sizeof r);
    return r;
}

class TransactionTest : public ow_test::LogCaptureTest {
   protected:
    static void SetUpTestSuite() {
        if (!dnsenv::inside()) return;
        dnsenv::private_suite(ARDVEX_DYNAREGEX_DIR " " ARDVEX_CONTROL_DIR " " ARDVEX_LOG_DIR,
                              "local.example.test local.example.test\n");
        dnsenv::compile_patterns("dyna.cregexes", "^dsl-[a-z]+\\.isp\\.\n");
        // A domain that sends only from its own network.
        ow_test::spit(ARDVEX_CONTROL_DIR "valid_domain_ips", "bank.example.test: 192.0.2.0/24\n");
        list_dir_ = dnsenv::env("DNSENV_WORK") + "/lists/";
        ASSERT_EQ(ow_test::sh("mkdir -p " + list_dir_), 0);
        ASSERT_EQ(ow_add_entry(list_dir_.c_str(), "from_blacklist", "*@spammer.example.test",
                               nullptr, strcasecmp),
                  nullptr);
        ASSERT_TRUE(ipr_add_range_to_file(list_dir_.c_str(), "exempt_ips.range", "198.51.100.0",
                                          "198.51.100.255", nullptr, nullptr));
    }
    void SetUp() override {
        if (!dnsenv::inside()) GTEST_SKIP() << "runs only inside tests/support/dnsenv.sh";
        LogCaptureTest::SetUp();
        dnsenv::script(R"({
          "20.113.0.203.in-addr.arpa": {"PTR": {"records": ["@ PTR mail.sender.example.test."]}},
          "21.113.0.203.in-addr.arpa": {"PTR": {"records": ["@ PTR 203-0-113-21.pool.example.test."]}},
          "22.113.0.203.in-addr.arpa": {"*": {"rcode": 2}},
          "23.113.0.203.in-addr.arpa": {"PTR": {"records": ["@ PTR dsl-home.isp.example.test."]}},
          "mail.sender.example.test": {"A": {"records": ["@ A 203.0.113.20"]}},
          "sender.example.test": {"MX": {"records": ["@ MX 10 mail.sender.example.test."]},
                                  "A": {"records": ["@ A 203.0.113.20"]}},
          "spammer.example.test": {"A": {"records": ["@ A 203.0.113.20"]}},
          "bank.example.test": {"A": {"records": ["@ A 192.0.2.80"]}},
          "nowhere.example.test": {"*": {"rcode": 3}}
        })");
        ASSERT_TRUE(ardvex_init());
        log_program_name = "ardvex-test";
    }
    void TearDown() override {
        ardvex_shutdown();
        LogCaptureTest::TearDown();
    }
    static std::string list_dir_;
};
std::string TransactionTest::list_dir_;

struct transaction {
    const char* ip = "203.0.113.20";
    const char* helo = "mail.sender.example.test";
    const char* from = "anna@sender.example.test";
    bool ipv6 = false, auth = false;
    const char* rule = "";    // the rule that ends the walk, "" for none
    const char* notice = "";  // the start of its notice
};

TEST_F(TransactionTest, EachTransactionGetsItsVerdictNoticeLogLineAndCount) {
    const transaction table[] = {
        {},  // clean mail
        {.ip = "203.0.113.21",
         .rule = "check_dynamic_reverse_dns_default",
         .notice = "Your server IP address [203.0.113.21] does not have a valid reverse DNS entry "
                   "[203-0-113-21.pool.example.test]."},
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
        {.ip = "203.0.113.22"},  // the DNS failing for now never rejects
    };
    for (const auto& t : table) {
        const std::string rule = t.rule;
        SCOPED_TRACE(std::string(t.ip) + " " + rule);
        spam_session s{};
        s.ip = const_cast<char*>(t.ip);
        s.port = const_cast<char*>("40123");
        s.helo = t.helo != nullptr ? strdup(t.helo) : nullptr;
        s.mail_from = strdup(t.from);
        s.rcpt_to = const_cast<char*>("bob@local.example.test");
        s.list_dir = list_dir_.data();
        s.is_ipv6 = t.ipv6;
        s.authenticated = t.auth;
        s.auth_user = const_cast<char*>(t.auth ? "anna" : "");
        s.routable = true;
        const std::string before = ow_test::slurp(ARDVEX_LOG_DIR "axlog");
        const ardvex_counter_record was = today();

        const ow_test::verdict v =
            ow_test::judge(&s, {"known_sender_forgery", "block_nonauth_ipv6", "from_blacklist"});

        const bool exempt = rule.ends_with("_whitelist");
        EXPECT_EQ(v.rule, rule) << ow_test::dump();
        EXPECT_EQ(v.notice.rfind(t.notice, 0), 0u) << v.notice;
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

        std::free(s.helo);
        std::free(s.mail_from);
        for (char** n = s.ptr_names; n != nullptr && *n != nullptr; ++n) std::free(*n);
        std::free(s.ptr_names);
    }
}

}  // namespace

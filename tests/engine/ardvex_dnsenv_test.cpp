// One transaction judged end to end the way the hosting mail-server component does it, through
// the C interface: ardvex_init, a filled spam_session, the rule walk to the first whitelist or
// blocking match, the notice, log_message, ardvex_shutdown. Real name servers (dnsenv.sh),
// real list, range, pattern and forgery files, the real message log and counter files.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <strings.h>

#include "ardvex-file.h"
#include "ardvex-iprange.h"
#include "ardvex-log.h"
#include "ardvex.h"
#include "ardvex_config.h"
#include "dnsenv.hpp"
#include "log_capture.hpp"
#include "rule_walk.hpp"

namespace {

namespace dnsenv = ow_test::dnsenv;

bool run(const std::string& command) { return std::system(command.c_str()) == 0; }

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

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
        const std::string work = dnsenv::env("DNSENV_WORK");
        ASSERT_TRUE(run(ARDVEX_SOURCE_DIR "/tests/support/private_dirs.sh " + work +
                        "/private " ARDVEX_DYNAREGEX_DIR " " ARDVEX_CONTROL_DIR " " ARDVEX_LOG_DIR
                        " " ARDVEX_ZIMBRA_DIR " " ARDVEX_SUITE_BIN_DIR));
        // The Zimbra map says which domains are local; the wrapper reaches it.
        ASSERT_TRUE(
            run("install -D -m 755 " ARDVEX_BINARY_DIR "/tools/ardvex-secure " ARDVEX_SECURE_WRAPPER
                " && install -D -m 755 " ARDVEX_SOURCE_DIR "/tools/zimbra-postmap " ARDVEX_POSTMAP
                " && mkdir -p $(dirname " ARDVEX_LDAP_VMD_MAP ")"));
        std::ofstream(ARDVEX_LDAP_VMD_MAP) << "server_host = ldap://127.0.0.1:389\n";
        std::ofstream(ARDVEX_LDAP_VMD_MAP ".table") << "local.example.test local.example.test\n";
        // The administrator's pattern file of dynamic-looking host names.
        std::ofstream(work + "/dyna.txt") << "^dsl-[a-z]+\\.isp\\.\n";
        ASSERT_TRUE(run(ARDVEX_BINARY_DIR "/tools/ardvex-regex-compile " + work +
                        "/dyna.txt " ARDVEX_DYNAREGEX_DIR "dyna.cregexes >/dev/null"));
        // A domain that sends only from its own network.
        std::ofstream(ARDVEX_CONTROL_DIR "valid_domain_ips") << "bank.example.test: 192.0.2.0/24\n";
        list_dir_ = work + "/lists/";
        ASSERT_TRUE(run("mkdir -p " + list_dir_));
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
    const char* what;
    const char* ip;
    const char* helo;
    const char* from;
    bool ipv6;
    bool auth;
    const char* rule;    // expected: the rule that ends the walk, "" for none
    const char* notice;  // expected: start of the notice, "" for none
    const char* logged;  // expected: the verdict in the log line
    uint32_t ham, spam, exempt;
};

TEST_F(TransactionTest, EachTransactionGetsItsVerdictNoticeLogLineAndCount) {
    const transaction table[] = {
        {"clean mail", "203.0.113.20", "mail.sender.example.test", "anna@sender.example.test",
         false, false, "", "", "HAM:", 1, 0, 0},
        {"address-shaped PTR", "203.0.113.21", "mail.sender.example.test",
         "anna@sender.example.test", false, false, "check_dynamic_reverse_dns_default",
         "Your server IP address [203.0.113.21] does not have a valid reverse DNS entry "
         "[203-0-113-21.pool.example.test].",
         "SPAM[check_dynamic_reverse_dns_default]:", 0, 1, 0},
        {"PTR in the administrator's dynamic patterns", "203.0.113.23", "mail.sender.example.test",
         "anna@sender.example.test", false, false, "check_dynamic_reverse_dns",
         "Your server IP address [203.0.113.23] does not have",
         "SPAM[check_dynamic_reverse_dns]:", 0, 1, 0},
        {"missing HELO", "203.0.113.20", nullptr, "anna@sender.example.test", false, false,
         "require_helo", "Missing HELO.", "SPAM[require_helo]:", 0, 1, 0},
        {"forged sender domain", "203.0.113.20", "mail.sender.example.test",
         "ceo@bank.example.test", false, false, "known_sender_forgery", "",
         "SPAM[known_sender_forgery]:", 0, 1, 0},
        {"blacklisted sender", "203.0.113.20", "mail.sender.example.test",
         "bulk@spammer.example.test", false, false, "from_blacklist", "",
         "SPAM[from_blacklist]:", 0, 1, 0},
        {"whitelisted IP range", "198.51.100.9", nullptr, "bulk@spammer.example.test", false, false,
         "ip_whitelist", "", "EXEMPT[ip_whitelist]:", 0, 0, 1},
        {"IPv6 without auth", "2001:db8::25", "mail.sender.example.test",
         "anna@sender.example.test", true, false, "block_nonauth_ipv6", "",
         "SPAM[block_nonauth_ipv6]:", 0, 1, 0},
        {"IPv6 with auth", "2001:db8::25", "mail.sender.example.test", "anna@sender.example.test",
         true, true, "", "", "HAM:", 1, 0, 0},
        {"DNS temporarily failing never rejects", "203.0.113.22", "mail.sender.example.test",
         "anna@sender.example.test", false, false, "", "", "HAM:", 1, 0, 0},
    };
    for (const auto& t : table) {
        SCOPED_TRACE(t.what);
        spam_session s{};
        s.ip = const_cast<char*>(t.ip);
        s.port = const_cast<char*>("40123");
        s.helo = t.helo != nullptr ? strdup(t.helo) : nullptr;
        s.mail_from = strdup(t.from);
        s.rcpt_to = const_cast<char*>("bob@local.example.test");
        s.list_dir = const_cast<char*>(list_dir_.c_str());
        s.is_ipv6 = t.ipv6;
        s.authenticated = t.auth;
        s.auth_user = const_cast<char*>(t.auth ? "anna" : "");
        s.routable = true;
        const std::string before = slurp(ARDVEX_LOG_DIR "axlog");
        const ardvex_counter_record was = today();

        const ow_test::verdict v =
            ow_test::judge(&s, {"known_sender_forgery", "block_nonauth_ipv6", "from_blacklist"});

        EXPECT_EQ(v.rule, t.rule) << ow_test::dump();
        EXPECT_EQ(v.notice.rfind(t.notice, 0), 0u) << v.notice;
        EXPECT_EQ(v.notice.empty(), v.rule.empty() || v.whitelisted);
        const std::string line = slurp(ARDVEX_LOG_DIR "axlog").substr(before.size());
        EXPECT_NE(line.find(std::string(t.logged) + " mua=["), std::string::npos) << line;
        EXPECT_NE(line.find(std::string("ip=[") + t.ip), std::string::npos) << line;
        EXPECT_EQ(line.find("\r\n"), line.size() - 2) << "one line per transaction";
        const ardvex_counter_record now = today();
        EXPECT_EQ(now.ham - was.ham, t.ham);
        EXPECT_EQ(now.spam - was.spam, t.spam);
        EXPECT_EQ(now.exempt - was.exempt, t.exempt);
        EXPECT_EQ(now.authenticated - was.authenticated, t.auth ? 1u : 0u);

        std::free(s.helo);
        std::free(s.mail_from);
        for (char** n = s.ptr_names; n != nullptr && *n != nullptr; ++n) std::free(*n);
        std::free(s.ptr_names);
    }
}

}  // namespace

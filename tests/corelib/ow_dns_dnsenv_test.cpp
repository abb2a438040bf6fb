// Lookups against dnsmasq (ordinary records, dnsmasq.conf) and the scripted server (broken
// ones, dns_script.json), both started by tests/support/dnsenv.sh, with a private /etc/hosts.
#include <sys/mount.h>

#include <tuple>

#include "ardvex_config.h"
#include "dnsenv.hpp"
#include "ow_dns.h"

namespace {

namespace dnsenv = ow_test::dnsenv;
using ow_test::dnsenv::strings;
using ow_test::dnsenv::take_names;

const std::string emsgsize = std::strerror(EMSGSIZE);
const std::string timed_out = std::string("DNS query failure: ") + std::strerror(ETIMEDOUT);

class DnsLiveTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        if (!dnsenv::inside()) GTEST_SKIP() << "runs only inside tests/support/dnsenv.sh";
        if (std::string(ARDVEX_HOSTS_FILE) != "/etc/hosts") GTEST_SKIP() << "hosts file moved";
        LogCaptureTest::SetUp();
        ow_test::spit("/etc/hosts", "127.0.0.1\tlocalhost\n");
        dnsenv::reset_queries();
    }
};

// The one error line of func, or none at all when error is empty.
void expect_error(const char* func, const std::string& error) {
    EXPECT_EQ(ow_test::error_count(), error.empty() ? 0u : 1u) << ow_test::dump();
    EXPECT_TRUE(error.empty() || ow_test::has_error(func, error)) << ow_test::dump();
}

// Each name asked for an address of either family, a mail exchanger, and either of the two.
TEST_F(DnsLiveTest, AddressAndMailExchangerLookups) {
    const std::string no_answer = "Expected at least 1 answers from server";
    const std::tuple<const char*, int32_t, int32_t, int32_t, std::string> cases[] = {
        {"a.plain.test", 0, 2, 0, no_answer},
        {"aaaa.plain.test", 0, 2, 0, no_answer},
        {"mx.plain.test", 2, 0, 0, ""},             // EAI_NODATA, and a mail exchanger
        {"nx.plain.test", 1, 1, 1, ""},             // EAI_NONAME and NXDOMAIN
        {"cname-only.scripted.test", 2, 1, 2, ""},  // the answer holds the CNAME chain only
        {"formerr.scripted.test", 1, 2, 2,
         "DNS query response failure: Name server thinks the query format is invalid"},
        // The resolver library drops these answers as the server's failure and, with
        // no other server to ask, gives up as it does on silence.
        {"servfail.scripted.test", 2, 2, 2, timed_out},
        {"silent.scripted.test", 2, 2, 2, timed_out},
        {"a-fails-mx-nx.scripted.test", 2, 1, 2, ""},  // a failing address lookup is no denial
        {"truncated.scripted.test", 2, 2, 2, "failed to parse NS server response: " + emsgsize},
        {"owner-loop.scripted.test", 2, 2, 2, "failed to parse RR: " + emsgsize},
        {"tc.scripted.test", 2, 0, 0, ""},
    };
    for (const auto& [domain, a, mx, a_or_mx, mx_error] : cases) {
        SCOPED_TRACE(domain);
        clear_log();
        EXPECT_EQ(ow_resolv_A(domain, 0), a);
        EXPECT_NO_ERRORS();
        EXPECT_EQ(ow_resolv_MX(domain, 0), mx);
        expect_error("ow_resolv_MX", mx_error);
        EXPECT_EQ(ow_has_a_or_mx(domain, 0), a_or_mx);
    }
    EXPECT_EQ(dnsenv::query_count("a.plain.test", "MX"), 1u) << dnsenv::queries();
    EXPECT_EQ(dnsenv::query_count("nx.plain.test", "MX"), 2u) << dnsenv::queries();
    // The truncated answer was fetched again over TCP, for each of the two MX lookups.
    EXPECT_EQ(dnsenv::query_count("tc.scripted.test", "MX"), 4u) << dnsenv::queries();
}

TEST_F(DnsLiveTest, ReverseLookupReturnsPtrNamesByMode) {
    const std::tuple<const char*, int32_t, int32_t, strings, std::string> cases[] = {
        {"192.0.2.11", 0, 0, {"third.plain.test", "second.plain.test", "first.plain.test"}, ""},
        {"192.0.2.12", 0, 1, {}, ""},
        // Mode 1 takes the first PTR record, past the CNAME of a classless delegation.
        {"198.51.100.8", 1, 0, {"classless.example.test"}, ""},
        {"198.51.100.8", 0, 0, {"classless.example.test", "second.example.test"}, ""},
        {"198.51.100.14", 0, 0, {"big.example.test", "other.example.test"}, ""},  // over TCP
        {"198.51.100.13", 0, 1, {}, ""},
        {"198.51.100.13", 1, 2, {}, std::string("Failed to parse RR: ") + std::strerror(ENODEV)},
        {"198.51.100.6", 0, -1, {}, "Expected at least 1 answer from the server"},
        {"198.51.100.7", 1, 2, {}, timed_out},
        {"198.51.100.9", 0, 2, {}, "Failed to uncompress response value: " + emsgsize},
        {"198.51.100.12", 0, 2, {}, "Failed to parse NS server response: " + emsgsize},
    };
    for (const auto& [ip, mode, verdict, found, error] : cases) {
        SCOPED_TRACE(std::string(ip) + " mode " + std::to_string(mode));
        clear_log();
        char** names = nullptr;
        EXPECT_EQ(ow_lookup_reverse_dns(&names, ip, 0, mode), verdict);
        EXPECT_EQ(take_names(names), found);
        expect_error("ow_lookup_reverse_dns", error);
    }
    EXPECT_EQ(dnsenv::query_count("14.100.51.198.in-addr.arpa", "PTR"), 2u) << dnsenv::queries();
}

TEST_F(DnsLiveTest, HostsFileAnswersFirst) {
    ow_test::spit("/etc/hosts",
                  "127.0.0.1\tlocalhost\n"
                  "192.0.2.10 Listed.Example.TEST other\n"
                  "0:0:0:0:0:0:0:1 ip6-localhost\n"
                  "192.0.2.10 second-line\n");
    EXPECT_EQ(ow_gethostent("192.0.2.10", nullptr), 3);
    char** names = nullptr;
    EXPECT_EQ(ow_gethostent("192.0.2.99", &names), 0);
    EXPECT_EQ(names, nullptr);
    // A single name found for the query in any IPv6 form, and the DNS never asked.
    EXPECT_EQ(ow_lookup_reverse_dns(&names, "0:0::1", 0, 1), 0);
    EXPECT_EQ(take_names(names), strings{"ip6-localhost"});
    EXPECT_EQ(dnsenv::queries(), "");
    EXPECT_NO_ERRORS();

    // A hosts file that cannot be opened fails the scan, and releases its lock.
    ASSERT_EQ(mount("dnsenv-empty-etc", "/etc", "tmpfs", 0, nullptr), 0) << std::strerror(errno);
    names = nullptr;
    EXPECT_EQ(ow_gethostent("127.0.0.1", &names), -1);
    EXPECT_EQ(names, nullptr);
    EXPECT_ERROR_LINE("ow_gethostent", "Failed to open /etc/hosts");
    ASSERT_EQ(umount("/etc"), 0) << std::strerror(errno);
    EXPECT_EQ(ow_gethostent("127.0.0.1", &names), 1);
    EXPECT_EQ(take_names(names), strings{"localhost"});
}

// Nobody listens where the configuration points; the resolver notices the change unasked.
TEST_F(DnsLiveTest, UnreachableServerIsNamedAsSuch) {
    const std::string options = "options timeout:1 attempts:1\n";
    ow_test::spit("/etc/resolv.conf", "nameserver 127.0.0.99\n" + options);
    const std::string line = std::string("DNS query failure: No nameservers could be reached: ") +
                             std::strerror(ECONNREFUSED);
    EXPECT_EQ(ow_resolv_MX("mx.plain.test", 0), 2);
    ow_test::spit("/etc/resolv.conf", "nameserver 127.0.0.1\n" + options);
    EXPECT_ERROR_LINE("ow_resolv_MX", line);
    EXPECT_EQ(ow_resolv_MX("mx.plain.test", 0), 0);
}

}  // namespace

// Lookups against real name servers: dnsmasq for ordinary records and the scripted server
// for broken ones, both started by tests/support/dnsenv.sh (see dnsmasq.conf and
// dns_script.json there for the names used here), with a private /etc/hosts.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "ardvex_config.h"
#include "dnsenv.hpp"
#include "log_capture.hpp"
#include "ow_dns.h"

namespace {

namespace dnsenv = ow_test::dnsenv;
using strings = std::vector<std::string>;

strings take_names(char** names) {
    strings out;
    for (std::size_t i = 0; names != nullptr && names[i] != nullptr; ++i) {
        out.emplace_back(names[i]);
        std::free(names[i]);
    }
    std::free(names);
    return out;
}

const std::string timed_out_line = std::string("DNS query failure: ") + std::strerror(ETIMEDOUT);
const std::string emsgsize = std::strerror(EMSGSIZE);

class DnsLiveTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        if (!dnsenv::inside()) GTEST_SKIP() << "runs only inside tests/support/dnsenv.sh";
        if (std::string(ARDVEX_HOSTS_FILE) != "/etc/hosts") GTEST_SKIP() << "hosts file moved";
        LogCaptureTest::SetUp();
        dnsenv::write_hosts("127.0.0.1\tlocalhost\n");
        dnsenv::script("{}");
        dnsenv::reset_queries();
    }
};

// An error line expected from func, or none at all when error is empty.
void expect_error(const char* func, const std::string& error) {
    if (error.empty()) {
        EXPECT_NO_ERRORS();
    } else {
        EXPECT_ERROR_LINE(func, error);
    }
}

TEST_F(DnsLiveTest, AddressLookupCountsEitherFamily) {
    const struct {
        const char* domain;
        int32_t verdict;
    } cases[] = {
        {"a.plain.test", 0},
        {"aaaa.plain.test", 0},
        {"cname.plain.test", 0},
        {"nx.plain.test", 1},
        {"mx.plain.test", 2},  // the name exists without an address:
                               // EAI_NODATA
        {"servfail.scripted.test", 2},
        {"silent.scripted.test", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.domain);
        clear_log();
        EXPECT_EQ(ow_resolv_A(c.domain, 0), c.verdict);
        EXPECT_NO_ERRORS();
    }
}

TEST_F(DnsLiveTest, MxLookupTellsTheServersAnswersApart) {
    const struct {
        const char* domain;
        int32_t verdict;
        std::string error;
    } cases[] = {
        {"mx.plain.test", 0, ""},
        {"cname.plain.test", 1, ""},  // the answer holds the CNAME chain only
        {"cname-only.scripted.test", 1, ""},
        {"nx.plain.test", 1, ""},
        {"a.plain.test", 2, "Expected at least 1 answers from server"},
        {"empty.scripted.test", 2, "Expected at least 1 answers from server"},
        {"formerr.scripted.test", 2,
         "DNS query response failure: Name server thinks the query format is invalid"},
        {"rcode9.scripted.test", 2, "Unknown response from NS server"},
        // The resolver library drops these answers as the server's failure and, with
        // no other server to ask, gives up as it does on silence.
        {"servfail.scripted.test", 2, timed_out_line},
        {"silent.scripted.test", 2, timed_out_line},
        {"truncated.scripted.test", 2, "failed to parse NS server response: " + emsgsize},
        {"owner-loop.scripted.test", 2, "failed to parse RR: " + emsgsize},
        {"tc.scripted.test", 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.domain);
        clear_log();
        EXPECT_EQ(ow_resolv_MX(c.domain, 0), c.verdict);
        expect_error("ow_resolv_MX", c.error);
    }
    // The truncated answer was fetched again over TCP.
    EXPECT_EQ(dnsenv::query_count("tc.scripted.test", "MX"), 2u) << dnsenv::queries();
}

TEST_F(DnsLiveTest, HasAOrMxNeedsBothLookupsToDenyTheName) {
    const struct {
        const char* domain;
        int32_t verdict;
    } cases[] = {
        {"a.plain.test", 0},
        {"mx.plain.test", 0},                // no address, a mail exchanger
        {"nx.plain.test", 1},                // EAI_NONAME and NXDOMAIN
        {"a-fails-mx-nx.scripted.test", 2},  // a failing address lookup is no denial
        {"servfail.scripted.test", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.domain);
        EXPECT_EQ(ow_has_a_or_mx(c.domain, 0), c.verdict);
    }
    // The MX query is made only when the address lookup found nothing.
    EXPECT_EQ(dnsenv::query_count("a.plain.test", "MX"), 0u) << dnsenv::queries();
    EXPECT_EQ(dnsenv::query_count("nx.plain.test", "MX"), 1u) << dnsenv::queries();
}

TEST_F(DnsLiveTest, ReverseLookupReturnsPtrNamesByMode) {
    const struct {
        const char* ip;
        int32_t mode;
        int32_t verdict;
        strings names;
        std::string error;
    } cases[] = {
        {"192.0.2.10", 0, 0, {"one.plain.test"}, ""},
        {"192.0.2.11", 0, 0, {"third.plain.test", "second.plain.test", "first.plain.test"}, ""},
        {"192.0.2.11", 1, 0, {"third.plain.test"}, ""},
        {"2001:db8::10", 0, 0, {"six.plain.test"}, ""},
        {"192.0.2.12", 0, 1, {}, ""},
        {"198.51.100.8", 1, 0, {"classless.example.test"}, ""},
        {"198.51.100.8", 0, 0, {"classless.example.test", "second.example.test"}, ""},
        {"198.51.100.15", 0, 0, {"a.example.test", "b.example.test", "c.example.test"}, ""},
        {"198.51.100.14", 0, 0, {"big.example.test", "other.example.test"}, ""},  // over TCP
        {"198.51.100.13", 0, 1, {}, ""},
        {"198.51.100.13", 1, 2, {}, std::string("Failed to parse RR: ") + std::strerror(ENODEV)},
        {"198.51.100.6", 0, -1, {}, "Expected at least 1 answer from the server"},
        {"198.51.100.4",
         0,
         2,
         {},
         "DNS query response failure: Name server thinks the query format is invalid"},
        {"198.51.100.5", 0, 2, {}, "Unknown response from NS server"},
        {"198.51.100.1", 0, 2, {}, timed_out_line},
        {"198.51.100.7", 1, 2, {}, timed_out_line},
        {"198.51.100.9", 0, 2, {}, "Failed to uncompress response value: " + emsgsize},
        {"198.51.100.10", 1, 2, {}, "Failed to uncompress response value: " + emsgsize},
        {"198.51.100.11", 0, 2, {}, "Failed to parse RR: " + emsgsize},
        {"198.51.100.12", 0, 2, {}, "Failed to parse NS server response: " + emsgsize},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.ip) + " mode " + std::to_string(c.mode));
        clear_log();
        char** names = nullptr;
        EXPECT_EQ(ow_lookup_reverse_dns(&names, c.ip, 0, c.mode), c.verdict);
        EXPECT_EQ(take_names(names), c.names);
        expect_error("ow_lookup_reverse_dns", c.error);
    }
    EXPECT_EQ(dnsenv::query_count("14.100.51.198.in-addr.arpa", "PTR"), 2u) << dnsenv::queries();
    clear_log();
    EXPECT_EQ(ow_lookup_reverse_dns(nullptr, "not-an-ip", 0, 0), 2);
    EXPECT_ERROR_LINE("ow_arpa", "Address is not an IP");
}

TEST_F(DnsLiveTest, HostsFileAnswersFirstAndAsWritten) {
    dnsenv::write_hosts(
        "# private hosts\r\n"
        "127.0.0.1\tlocalhost loghost # comment\n"
        "192.0.2.10 Listed.Example.TEST other\r\n"
        "0:0:0:0:0:0:0:1 ip6-localhost\n"
        "2001:DB8:0:0:0:0:0:10 Six-Listed\n"
        "192.0.2.10 second-line\n");
    const struct {
        const char* ip;
        strings names;
    } cases[] = {
        {"127.0.0.1", {"localhost", "loghost"}},
        {"192.0.2.10", {"Listed.Example.TEST", "other\r", "second-line"}},
        {"::1", {"ip6-localhost"}},
        {"2001:db8::10", {"Six-Listed"}},
        {"0:0::1", {"ip6-localhost"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ip);
        char** names = nullptr;
        EXPECT_EQ(ow_gethostent(c.ip, &names), static_cast<int32_t>(c.names.size()));
        EXPECT_EQ(take_names(names), c.names);
        names = nullptr;
        EXPECT_EQ(ow_lookup_reverse_dns(&names, c.ip, 0, 1), 0);
        EXPECT_EQ(take_names(names), c.names);  // every name of the file, whatever the mode
    }
    EXPECT_NO_ERRORS();
    EXPECT_EQ(dnsenv::queries(), "");  // the DNS was never asked

    char** names = nullptr;
    EXPECT_EQ(ow_gethostent("192.0.2.99", &names), 0);
    EXPECT_EQ(names, nullptr);
    EXPECT_EQ(ow_gethostent("192.0.2.10", nullptr), 3);
}

// A hosts file that cannot be opened fails the scan, and releases its lock: the next scan
// works.
TEST_F(DnsLiveTest, MissingHostsFileFailsTheScanOnly) {
    ASSERT_EQ(mount("dnsenv-empty-etc", "/etc", "tmpfs", 0, nullptr), 0) << std::strerror(errno);
    char** names = nullptr;
    EXPECT_EQ(ow_gethostent("127.0.0.1", &names), -1);
    EXPECT_EQ(names, nullptr);
    EXPECT_ERROR_LINE("ow_gethostent", "Failed to open /etc/hosts");
    ASSERT_EQ(umount("/etc"), 0) << std::strerror(errno);
    EXPECT_EQ(ow_gethostent("127.0.0.1", &names), 1);
    EXPECT_EQ(take_names(names), strings{"localhost"});
}

// With nobody listening where the configuration points, both queries say so; the resolver
// notices the changed configuration on its own.
TEST_F(DnsLiveTest, UnreachableServerIsNamedAsSuch) {
    const char* options = "options timeout:1 attempts:1\n";
    std::ofstream("/etc/resolv.conf", std::ios::trunc) << "nameserver 127.0.0.99\n" << options;
    const std::string line = std::string("DNS query failure: No nameservers could be reached: ") +
                             std::strerror(ECONNREFUSED);
    char** names = nullptr;
    EXPECT_EQ(ow_resolv_MX("mx.plain.test", 0), 2);
    EXPECT_EQ(ow_lookup_reverse_dns(&names, "192.0.2.10", 0, 0), 2);
    std::ofstream("/etc/resolv.conf", std::ios::trunc) << "nameserver 127.0.0.1\n" << options;
    EXPECT_ERROR_LINE("ow_resolv_MX", line);
    EXPECT_ERROR_LINE("ow_lookup_reverse_dns", line);
    EXPECT_EQ(names, nullptr);
    EXPECT_EQ(ow_resolv_MX("mx.plain.test", 0), 0);
}

}  // namespace

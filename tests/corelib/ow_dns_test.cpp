// The DNS module without a server: conversions, refusals, walks over bytes no real server
// sends (ow_dns_dnsenv_test.cpp has the real lookups).
#include "ow_dns.h"

#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <resolv.h>

#include <utility>

#include "dnsenv.hpp"
#include "ow_dns_internal.hpp"
#include "ow_internal.hpp"

namespace {

using ow_test::dnsenv::strings;
using ow_test::dnsenv::take_names;
using bytes = std::vector<unsigned char>;

// A received answer to the query for qname and qtype, with the response code rcode and,
// when ptr is given, one PTR record naming it.
bytes answer(const std::string& qname, int qtype, int rcode, const char* ptr = nullptr) {
    bytes msg(512);
    msg.resize(static_cast<std::size_t>(res_mkquery(ns_o_query, qname.c_str(), ns_c_in, qtype,
                                                    nullptr, 0, nullptr, msg.data(), 512)));
    msg[2] |= 0x80;  // a response
    msg[3] = static_cast<unsigned char>(0x80 | rcode);
    if (ptr == nullptr) return msg;
    unsigned char name[256];
    const auto length =
        static_cast<unsigned char>(dn_comp(ptr, name, sizeof name, nullptr, nullptr));
    msg[7] = 1;
    // Owner: a pointer to the question's name; type PTR, class IN, TTL 60.
    msg.insert(msg.end(), {0xc0, 0x0c, 0, 12, 0, 1, 0, 0, 0, 60, 0, length});
    msg.insert(msg.end(), name, name + length);
    return msg;
}

const std::string reverse = "4.3.2.1.in-addr.arpa.";

class DnsTest : public ow_test::LogCaptureTest {};

// ow_inet_addr takes every inet_aton form but all-ones; the others take the two families only.
TEST_F(DnsTest, Conversions) {
    const std::pair<const char*, uint32_t> accepted[] = {
        {"192.0.2.10", 0xc000020a}, {"127.1", 0x7f000001}, {"0x7f.0.0.1", 0x7f000001},
        {"010.1", 0x08000001},      {"0.0.0.0", 0},
    };
    for (const auto& [text, host_order] : accepted)
        EXPECT_EQ(ow_inet_addr(text), htonl(host_order)) << text;
    for (const char* text : {"256.1.1.1", "example.test"}) EXPECT_EQ(ow_inet_addr(text), 0u);
    EXPECT_NO_ERRORS();  // no address, no error
    ow_test::refused(
        "ow_inet_addr", std::strerror(EINVAL),
        {ow_inet_addr("255.255.255.255") == 0, ow_inet_addr("") == 0, ow_inet_addr(nullptr) == 0});

    const std::pair<const char*, const char*> canonical[] = {
        {"2001:DB8:0:0:0:0:0:1", "2001:db8::1"},
        {"1::2:3:4:5:6:7", "1:0:2:3:4:5:6:7"},  // longer than its input
        {"::FFFF:c000:0201", "::ffff:192.0.2.1"}};
    for (const auto& [text, want] : canonical) {
        char same[OW_DNS_ADDRSTRLEN];
        std::snprintf(same, sizeof same, "%s", text);
        EXPECT_EQ(ow_compress_ipv6(same, same), 1);  // in place
        EXPECT_STREQ(same, want);
    }
    unsigned char binary[16] = {};
    char text[OW_DNS_ADDRSTRLEN] = "unchanged";
    EXPECT_EQ(ow_inet_pton(AF_INET6, "192.0.2.1", binary), 0);
    EXPECT_EQ(ow_inet_pton(AF_INET, "127.1", binary), 0);  // only the strict form
    EXPECT_NO_ERRORS();
    ow_test::refused("ow_compress_ipv6", std::strerror(EINVAL),
                     {ow_compress_ipv6("192.0.2.1", text) == 0,
                      ow_compress_ipv6("1::2::3", text) == 0, ow_compress_ipv6("", text) == 0,
                      ow_compress_ipv6(nullptr, text) == 0, ow_compress_ipv6("::1", nullptr) == 0});
    EXPECT_STREQ(text, "unchanged");
    ow_test::refused(
        "ow_inet_pton", std::strerror(EINVAL),
        {ow_inet_pton(AF_UNIX, "192.0.2.1", binary) == 0,
         ow_inet_pton(AF_INET, nullptr, binary) == 0, ow_inet_pton(AF_INET6, "::1", nullptr) == 0});
    ow_test::refused("ow_inet_ntop", std::strerror(EINVAL),
                     {ow_inet_ntop(AF_UNIX, binary, text) == nullptr,
                      ow_inet_ntop(AF_INET, nullptr, text) == nullptr,
                      ow_inet_ntop(AF_INET6, binary, nullptr) == nullptr});
    ASSERT_EQ(ow_inet_pton(AF_INET, "192.0.2.1", binary), 1);
    EXPECT_EQ(ow_inet_ntop(AF_INET, binary, text), text);
    EXPECT_STREQ(text, "192.0.2.1");
}

TEST_F(DnsTest, ArpaBuildsReverseNamesAndReplacesTheOldText) {
    const std::pair<const char*, const char*> cases[] = {
        {"255.255.255.255", "255.255.255.255.in-addr.arpa."},
        {"FFFF::ABCD",
         "d.c.b.a.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.f.f.f.f.ip6.arpa."}};
    char* name = ow::dup_cstr("previous text, freed on success");
    for (const auto& [ip, want] : cases) {
        ASSERT_EQ(ow_arpa(&name, ip), 1);
        EXPECT_STREQ(name, want);
    }
    EXPECT_NO_ERRORS();
    char* const kept = name;
    ow_test::refused("ow_arpa", "Address is not an IP",
                     {ow_arpa(&name, "host.test") == 0, ow_arpa(&name, "") == 0,
                      ow_arpa(&name, "192.0.2") == 0});
    ow_test::refused("ow_arpa", std::strerror(EINVAL),
                     {ow_arpa(nullptr, "192.0.2.1") == 0, ow_arpa(&name, nullptr) == 0});
    for (const char* ip : {"192.0.2.1", "2001:db8::1"}) {
        ow::testing::fail_allocation(1);
        EXPECT_EQ(ow_arpa(&name, ip), 0);
        EXPECT_ERROR_LINE("ow_arpa", std::strerror(ENOMEM));
    }
    EXPECT_EQ(name, kept);
    std::free(name);
}

TEST_F(DnsTest, LookupsRefuseBeforeAsking) {
    const std::string einval = std::strerror(EINVAL);
    ow_test::refused("ow_resolv_A", einval, {ow_resolv_A("", 0) == -2});
    ow_test::refused("ow_resolv_MX", einval, {ow_resolv_MX("", 0) == -2});
    ow_test::refused("ow_has_a_or_mx", einval, {ow_has_a_or_mx("", 0) == -2});
    char** names = nullptr;
    ow_test::refused("ow_lookup_reverse_dns", einval,
                     {ow_lookup_reverse_dns(&names, "", 0, 1) == -2,
                      ow_lookup_reverse_dns(&names, "192.0.2.1", 0, 2) == -2,
                      ow_lookup_reverse_dns(&names, "192.0.2.1", 0, -1) == -2});
    ow_test::refused("ow_gethostent", einval, {ow_gethostent("", &names) == -1});
    ow_test::refused("ow_gethostent", "Address[host.test] is not an IP",
                     {ow_gethostent("host.test", &names) == -1});
    ow_test::refused("ow_arpa", "Address is not an IP",
                     {ow_lookup_reverse_dns(&names, "not-an-ip", 0, 0) == 2});
    EXPECT_EQ(names, nullptr);
    // No query for a name that cannot be a domain, and no error line.
    for (const char* domain :
         {"localhost", "a.b.", ".a.b", "a..b", "a_b.test", "192.0.2.1", "ab", "a b.test"})
        EXPECT_EQ(ow_has_a_or_mx(domain, 0), -1) << domain;
    EXPECT_NO_ERRORS();
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ow_has_a_or_mx("mail.example.test", 0), 2);
    EXPECT_ERROR_LINE("ow_has_a_or_mx", "out of memory error resolving A/MX for mail.example.test");
}

int32_t mx_walk(const bytes& msg) {
    return ow::dns::mx_answer(msg.data(), static_cast<int>(msg.size()), "example.test");
}

int32_t ptr_walk(const bytes& msg, char*** names, int32_t mode = 0) {
    return ow::dns::ptr_answer(msg.data(), static_cast<int>(msg.size()), reverse.c_str(), mode,
                               names);
}

// Every response code but NOERROR decides before any record is read, the same for both.
TEST_F(DnsTest, ResponseCodesDecideBothWalks) {
    const std::pair<int, const char*> cases[] = {
        {1, "DNS query response failure: Name server thinks the query format is invalid"},
        {2, "DNS query response failure: Name server replied with SERVFAIL"},
        {3, nullptr},
        {4, "DNS query response failure: Name server thinks the function is not implemented"},
        {5, "DNS query response failure: Name server refused connections from this host"},
        {6, "Unknown response from NS server"}};
    for (const auto& [rcode, error] : cases) {
        SCOPED_TRACE(rcode);
        clear_log();
        // A record in the answer must not change the verdict.
        char** names = nullptr;
        const int32_t verdict = error == nullptr ? 1 : 2;
        EXPECT_EQ(mx_walk(answer("example.test", ns_t_mx, rcode, "mx.example.test")), verdict);
        EXPECT_EQ(ptr_walk(answer(reverse, ns_t_ptr, rcode, "host.example.test"), &names), verdict);
        EXPECT_EQ(names, nullptr);
        EXPECT_EQ(ow_test::error_count(), error == nullptr ? 0u : 2u) << ow_test::dump();
        for (const char* func : {"ow_resolv_MX", "ow_lookup_reverse_dns"})
            EXPECT_TRUE(error == nullptr || ow_test::has_error(func, error)) << func;
    }
}

TEST_F(DnsTest, WalksOverFoundAnswers) {
    // A record that does not parse is passed over, and an MX record after it still counts.
    bytes msg = answer("example.test", ns_t_mx, 0, "mx.example.test");
    const std::size_t at = answer("example.test", ns_t_mx, 0).size();
    const std::size_t record = msg.size() - at;
    msg.insert(msg.end(), msg.begin() + static_cast<long>(at), msg.end());
    msg[7] = 2;
    msg[at] = 0xc0;  // the first owner name points at itself
    msg[at + 1] = static_cast<unsigned char>(at);
    msg[at + record + 3] = ns_t_mx;
    EXPECT_EQ(mx_walk(msg), 0);
    EXPECT_ERROR_LINE("ow_resolv_MX",
                      std::string("failed to parse RR: ") + std::strerror(EMSGSIZE));

    const bytes one = answer(reverse, ns_t_ptr, 0, "One.Example.TEST");
    char** names = nullptr;
    ASSERT_EQ(ptr_walk(one, &names), 0);
    // The caller's array is freed (the leak checker sees to it) and replaced on success only.
    ASSERT_EQ(ptr_walk(one, &names, 1), 0);
    char** const second = names;
    EXPECT_EQ(ptr_walk(answer(reverse, ns_t_ptr, 3), &names), 1);
    // Both allocations of a found answer (the array, the copy of the name) may fail.
    for (long n : {1L, 2L}) {
        SCOPED_TRACE(n);
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_EQ(ptr_walk(one, &names), 2);
        EXPECT_ERROR_LINE("ow_lookup_reverse_dns", std::strerror(ENOMEM));
    }
    EXPECT_EQ(names, second);
    EXPECT_EQ(take_names(names), strings{"one.example.test"});
}

// The scan of text for query, of the family its text shows.
std::pair<int32_t, strings> scan(const std::string& text, const char* query) {
    std::string buffer = text;
    std::FILE* file = fmemopen(buffer.data(), buffer.size(), "r");
    EXPECT_NE(file, nullptr);
    char** names = reinterpret_cast<char**>(1);
    const int family = std::strchr(query, ':') != nullptr ? AF_INET6 : AF_INET;
    const int32_t count = ow::dns::scan_hosts(file, query, family, &names);
    std::fclose(file);
    if (count < 0) return {count, {}};
    EXPECT_EQ(count == 0, names == nullptr);
    return {count, take_names(names)};
}

TEST_F(DnsTest, HostsScanReadsLinesTheWayTheFileMeansThem) {
    // A line that fills the 1024-byte buffer exactly, and one a byte too long whose
    // remainder looks like an entry of its own.
    const std::string fits = "127.0.0.1 " + std::string(1012, 'f') + "\n";
    const std::string too_long = "127.0.0.1 " + std::string(1013, 'x') + "127.0.0.1 smuggled\n";
    ASSERT_EQ(fits.size(), 1023u);
    const std::string hosts =
        "# 127.0.0.1 commented\n"
        "\n"
        "127.0.0.1\tlocalhost loghost # comment\n"
        "127.0.0.1 crlf\r\n"
        "::1 ip6-localhost\n"
        "0:0:0:0:0:0:0:1\tip6-long\t \tIP6-Tab  \n"
        " 127.0.0.1 leading-blank\n"
        "notanip name\n"
        "127.0.0.1\n" +
        too_long + fits +
        "2001:DB8:0:0::A Upper\n"
        "127.0.0.10 prefix-only\n"
        "127.0.0.1 last-line-without-newline";

    const std::pair<const char*, strings> cases[] = {
        {"127.0.0.1", {"localhost", "loghost", "crlf\r", std::string(1012, 'f')}},
        {"::1", {"ip6-localhost", "ip6-long", "IP6-Tab"}},
        {"2001:db8::a", {"Upper"}}};
    for (const auto& [query, names] : cases) {
        SCOPED_TRACE(query);
        clear_log();
        EXPECT_EQ(scan(hosts, query), std::make_pair(static_cast<int32_t>(names.size()), names));
        EXPECT_ERROR_LINE("ow_gethostent", "Address[] in /etc/hosts is not an IP");
        EXPECT_ERROR_LINE("ow_gethostent", "Address[notanip] in /etc/hosts is not an IP");
    }

    // Every allocation of a matching scan may fail; nothing leaks and nothing is stored.
    for (long n = 1; n <= 4; ++n) {
        SCOPED_TRACE(n);
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_EQ(scan("::1 a b\n", "::1").first, -1);
        EXPECT_ERROR_LINE("ow_gethostent", std::strerror(ENOMEM));
    }
}

}  // namespace

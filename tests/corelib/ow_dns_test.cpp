// Tests of the DNS module that need no name server: the address conversions and reverse
// names, the refusals of every entry point, and the walks over received bytes (hosts-file
// lines, MX and PTR answers) fed with hand-built input. The lookups against real servers
// are in ow_dns_dnsenv_test.cpp.
#include "ow_dns.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "ow_dns_internal.hpp"
#include "ow_internal.hpp"

namespace {

using strings = std::vector<std::string>;
using bytes = std::vector<unsigned char>;

// Takes over a name array: its names, and frees it.
strings take_names(char** names) {
    strings out;
    for (std::size_t i = 0; names != nullptr && names[i] != nullptr; ++i) {
        out.emplace_back(names[i]);
        std::free(names[i]);
    }
    std::free(names);
    return out;
}

// A DNS answer built byte by byte: the header, the question, and answer records whose owner
// is (by default) a pointer to the question's name.
class message {
   public:
    message(const std::string& qname, uint16_t qtype, int rcode = 0) {
        put16(0x1234);
        put16(static_cast<uint16_t>(0x8180 | rcode));  // response, RD, RA
        put16(1);
        put16(0);
        put16(0);
        put16(0);
        append(name(qname));
        put16(qtype);
        put16(1);
    }
    static bytes name(const std::string& dotted) {
        bytes out;
        std::size_t start = 0;
        while (start < dotted.size()) {
            std::size_t dot = dotted.find('.', start);
            if (dot == std::string::npos) dot = dotted.size();
            out.push_back(static_cast<unsigned char>(dot - start));
            out.insert(out.end(), dotted.begin() + start, dotted.begin() + dot);
            start = dot + 1;
        }
        out.push_back(0);
        return out;
    }
    static bytes mx(const std::string& host) {
        bytes out{0, 10};
        const bytes n = name(host);
        out.insert(out.end(), n.begin(), n.end());
        return out;
    }
    message& answer(uint16_t type, const bytes& rdata, bytes owner = {0xc0, 0x0c}) {
        append(owner);
        put16(type);
        put16(1);
        put16(0);
        put16(60);
        put16(static_cast<uint16_t>(rdata.size()));
        append(rdata);
        data[7] = static_cast<unsigned char>(data[7] + 1);
        return *this;
    }
    // Points the two bytes at offset from the end at target (a compression pointer).
    message& pointer_at_end(std::size_t from_end, std::size_t target) {
        const std::size_t at = data.size() - from_end;
        data[at] = static_cast<unsigned char>(0xc0 | (target >> 8));
        data[at + 1] = static_cast<unsigned char>(target & 0xff);
        return *this;
    }
    message& cut(std::size_t n) {
        data.resize(data.size() - n);
        return *this;
    }
    int size() const { return static_cast<int>(data.size()); }
    bytes data;

   private:
    void put16(uint16_t v) {
        data.push_back(static_cast<unsigned char>(v >> 8));
        data.push_back(static_cast<unsigned char>(v & 0xff));
    }
    void append(const bytes& b) { data.insert(data.end(), b.begin(), b.end()); }
};

constexpr uint16_t t_cname = 5, t_ptr = 12, t_mx = 15, t_txt = 16;
const std::string reverse = "4.3.2.1.in-addr.arpa";
const std::string emsgsize = std::strerror(EMSGSIZE);

class DnsTest : public ow_test::LogCaptureTest {};

// --- conversions ------------------------------------------------------------------------

TEST_F(DnsTest, InetAddrAcceptsEveryInetAtonFormButAllOnes) {
    const struct {
        const char* text;
        uint32_t host_order;  // 0: refused
        const char* error;    // ERROR line, or nullptr for none
        bool not_converted;   // a DEBUG line with the EINVAL text
    } cases[] = {
        {"192.0.2.10", 0xc000020a, nullptr, false},
        {"127.1", 0x7f000001, nullptr, false},
        {"0x7f.0.0.1", 0x7f000001, nullptr, false},
        {"010.1", 0x08000001, nullptr, false},
        {"0.0.0.0", 0, nullptr, false},
        {"255.255.255.255", 0, "Invalid argument", false},
        {"256.1.1.1", 0, nullptr, true},
        {"example.test", 0, nullptr, true},
        {"", 0, "Invalid argument", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        clear_log();
        EXPECT_EQ(ow_inet_addr(c.text), htonl(c.host_order));
        if (c.error != nullptr) {
            EXPECT_ERROR_LINE("ow_inet_addr", c.error);
        } else {
            EXPECT_NO_ERRORS();
        }
        EXPECT_EQ(ow_test::has_debug("ow_inet_addr", std::strerror(EINVAL)), c.not_converted);
    }
    clear_log();
    ow_test::refused("ow_inet_addr", std::strerror(EINVAL), {ow_inet_addr(nullptr) == 0});
}

TEST_F(DnsTest, CompressIpv6GivesTheCanonicalTextEvenInPlace) {
    const struct {
        const char* text;
        const char* canonical;
    } cases[] = {
        {"2001:DB8:0:0:0:0:0:1", "2001:db8::1"},
        {"0:0:0:0:0:0:0:1", "::1"},
        {"::", "::"},
        {"1:0:0:2:0:0:0:3", "1:0:0:2::3"},
        {"1::2:3:4:5:6:7", "1:0:2:3:4:5:6:7"},  // longer than its input
        {"::FFFF:c000:0201", "::ffff:192.0.2.1"},
        {"fe80:0000:0000:0000:0204:61ff:fe9d:f156", "fe80::204:61ff:fe9d:f156"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        char out[OW_DNS_ADDRSTRLEN] = {};
        ASSERT_EQ(ow_compress_ipv6(c.text, out), 1);
        EXPECT_STREQ(out, c.canonical);
        char same[OW_DNS_ADDRSTRLEN];
        std::snprintf(same, sizeof same, "%s", c.text);
        ASSERT_EQ(ow_compress_ipv6(same, same), 1);
        EXPECT_STREQ(same, c.canonical);
    }
    EXPECT_NO_ERRORS();
    char out[OW_DNS_ADDRSTRLEN] = "unchanged";
    ow_test::refused("ow_compress_ipv6", std::strerror(EINVAL),
                     {ow_compress_ipv6("192.0.2.1", out) == 0,
                      ow_compress_ipv6("1::2::3", out) == 0, ow_compress_ipv6("", out) == 0,
                      ow_compress_ipv6(nullptr, out) == 0, ow_compress_ipv6("::1", nullptr) == 0});
    EXPECT_STREQ(out, "unchanged");
}

TEST_F(DnsTest, InetPtonAndNtopTakeOnlyTheTwoFamilies) {
    unsigned char binary[16] = {};
    char text[OW_DNS_ADDRSTRLEN] = {};
    EXPECT_EQ(ow_inet_pton(AF_INET, "192.0.2.1", binary), 1);
    EXPECT_EQ(ow_inet_ntop(AF_INET, binary, text), text);
    EXPECT_STREQ(text, "192.0.2.1");
    EXPECT_EQ(ow_inet_pton(AF_INET6, "192.0.2.1", binary), 0);
    EXPECT_EQ(ow_inet_pton(AF_INET, "127.1", binary), 0);  // only the strict form
    EXPECT_NO_ERRORS();
    ow_test::refused(
        "ow_inet_pton", std::strerror(EINVAL),
        {ow_inet_pton(AF_UNIX, "192.0.2.1", binary) == 0,
         ow_inet_pton(AF_INET, nullptr, binary) == 0, ow_inet_pton(AF_INET6, "::1", nullptr) == 0});
    ow_test::refused("ow_inet_ntop", std::strerror(EINVAL),
                     {ow_inet_ntop(AF_UNIX, binary, text) == nullptr,
                      ow_inet_ntop(AF_INET, nullptr, text) == nullptr,
                      ow_inet_ntop(AF_INET6, binary, nullptr) == nullptr});
}

TEST_F(DnsTest, ArpaBuildsReverseNamesAndReplacesTheOldText) {
    const struct {
        const char* ip;
        const char* name;
    } cases[] = {
        {"192.0.2.10", "10.2.0.192.in-addr.arpa."},
        {"255.255.255.255", "255.255.255.255.in-addr.arpa."},
        {"0.0.0.0", "0.0.0.0.in-addr.arpa."},
        {"2001:db8::1",
         "1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.b.d.0.1.0.0.2.ip6.arpa."},
        {"FFFF::ABCD", "d.c.b.a.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.f.f.f.f.ip6.arpa."},
    };
    char* name = ow::dup_cstr("previous text, freed on success");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ip);
        ASSERT_EQ(ow_arpa(&name, c.ip), 1);
        EXPECT_STREQ(name, c.name);
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

// --- refusals of the lookups --------------------------------------------------------------

TEST_F(DnsTest, LookupsRefuseMissingArgumentsBeforeAsking) {
    const std::string einval = std::strerror(EINVAL);
    ow_test::refused("ow_resolv_A", einval,
                     {ow_resolv_A(nullptr, 0) == -2, ow_resolv_A("", 0) == -2});
    ow_test::refused("ow_resolv_MX", einval,
                     {ow_resolv_MX(nullptr, 0) == -2, ow_resolv_MX("", 0) == -2});
    ow_test::refused("ow_has_a_or_mx", einval,
                     {ow_has_a_or_mx(nullptr, 0) == -2, ow_has_a_or_mx("", 0) == -2});
    char** names = nullptr;
    ow_test::refused("ow_lookup_reverse_dns", einval,
                     {ow_lookup_reverse_dns(&names, nullptr, 0, 0) == -2,
                      ow_lookup_reverse_dns(&names, "", 0, 1) == -2,
                      ow_lookup_reverse_dns(&names, "192.0.2.1", 0, 2) == -2,
                      ow_lookup_reverse_dns(&names, "192.0.2.1", 0, -1) == -2});
    ow_test::refused("ow_gethostent", einval,
                     {ow_gethostent(nullptr, &names) == -1, ow_gethostent("", &names) == -1});
    ow_test::refused("ow_gethostent", "Address[host.test] is not an IP",
                     {ow_gethostent("host.test", &names) == -1});
    EXPECT_EQ(names, nullptr);
}

TEST_F(DnsTest, HasAOrMxRefusesInvalidDomainsWithoutAQuery) {
    for (const char* domain :
         {"localhost", "a.b.", ".a.b", "a..b", "a_b.test", "192.0.2.1", "ab", "a b.test"}) {
        SCOPED_TRACE(domain);
        clear_log();
        EXPECT_EQ(ow_has_a_or_mx(domain, 0), -1);
        EXPECT_TRUE(ow_test::has_debug("ow_has_a_or_mx",
                                       "domain [" + std::string(domain) + "] flagged as invalid."))
            << ow_test::dump();
        EXPECT_NO_ERRORS();
    }
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ow_has_a_or_mx("mail.example.test", 0), 2);
    EXPECT_ERROR_LINE("ow_has_a_or_mx", "out of memory error resolving A/MX for mail.example.test");
}

// --- the answer walks ---------------------------------------------------------------------

// Every response code but NOERROR decides before any record is read, the same for both.
TEST_F(DnsTest, ResponseCodesDecideBothWalks) {
    const struct {
        int rcode;
        int32_t verdict;
        const char* error;
    } cases[] = {
        {1, 2, "DNS query response failure: Name server thinks the query format is invalid"},
        {2, 2, "DNS query response failure: Name server replied with SERVFAIL"},
        {3, 1, nullptr},
        {4, 2, "DNS query response failure: Name server thinks the function is not implemented"},
        {5, 2, "DNS query response failure: Name server refused connections from this host"},
        {6, 2, "Unknown response from NS server"},
        {15, 2, "Unknown response from NS server"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rcode);
        clear_log();
        // A record in the answer must not change the verdict.
        message mx("example.test", t_mx, c.rcode);
        mx.answer(t_mx, message::mx("mx.example.test"));
        EXPECT_EQ(ow::dns::mx_answer(mx.data.data(), mx.size(), "example.test"), c.verdict);
        message ptr(reverse, t_ptr, c.rcode);
        ptr.answer(t_ptr, message::name("host.example.test"));
        char** names = nullptr;
        EXPECT_EQ(ow::dns::ptr_answer(ptr.data.data(), ptr.size(), reverse.c_str(), 0, &names),
                  c.verdict);
        EXPECT_EQ(names, nullptr);
        if (c.error != nullptr) {
            EXPECT_ERROR_LINE("ow_resolv_MX", c.error);
            EXPECT_ERROR_LINE("ow_lookup_reverse_dns", c.error);
            EXPECT_EQ(ow_test::error_count(), 2u);
        } else {
            EXPECT_NO_ERRORS();
            EXPECT_TRUE(ow_test::has_debug("ow_resolv_MX", "NXDomain response for example.test"));
            EXPECT_TRUE(
                ow_test::has_debug("ow_lookup_reverse_dns", "NXDomain response for " + reverse));
        }
    }
}

TEST_F(DnsTest, MxWalkLooksForTheFirstMxRecord) {
    message loop_owner("example.test", t_mx);
    loop_owner.answer(t_mx, message::mx("mx.example.test"), {0xc0, 0x1e});  // points at itself
    message bad_then_mx = loop_owner;
    bad_then_mx.answer(t_mx, message::mx("mx2.example.test"));
    const struct {
        const char* what;
        message msg;
        int32_t verdict;
        std::string error;
    } cases[] = {
        {"mx", message("example.test", t_mx).answer(t_mx, message::mx("mx.example.test")), 0, ""},
        {"cname then mx",
         message("example.test", t_mx)
             .answer(t_cname, message::name("other.example.test"))
             .answer(t_mx, message::mx("mx.example.test")),
         0, ""},
        {"only a cname",
         message("example.test", t_mx).answer(t_cname, message::name("other.example.test")), 1, ""},
        {"no records", message("example.test", t_mx), 2, "Expected at least 1 answers from server"},
        {"record that does not parse, then mx", bad_then_mx, 0, "failed to parse RR: " + emsgsize},
        {"only a record that does not parse", loop_owner, 2, "failed to parse RR: " + emsgsize},
        {"cut short", message("example.test", t_mx).answer(t_mx, message::mx("m.test")).cut(2), 2,
         "failed to parse NS server response: " + emsgsize},
        {"header only", message("example.test", t_mx).cut(18), 2,
         "failed to parse NS server response: " + emsgsize},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        clear_log();
        EXPECT_EQ(ow::dns::mx_answer(c.msg.data.data(), c.msg.size(), "example.test"), c.verdict);
        if (!c.error.empty()) {
            EXPECT_ERROR_LINE("ow_resolv_MX", c.error);
        } else {
            EXPECT_NO_ERRORS();
        }
    }
}

TEST_F(DnsTest, PtrWalkCollectsLowerCasedNamesByMode) {
    message three(reverse, t_ptr);
    three.answer(t_ptr, message::name("A.Example.TEST"))
        .answer(t_ptr, message::name("b.example.test"))
        .answer(t_ptr, message::name("C.example.test"));
    message classless(reverse, t_ptr);
    classless.answer(t_cname, message::name("4.0/25.3.2.1.in-addr.arpa"))
        .answer(t_txt, {4, 't', 'e', 'x', 't'})
        .answer(t_ptr, message::name("Classless.Example.Test"))
        .answer(t_ptr, message::name("second.example.test"));
    message only_cname(reverse, t_ptr);
    only_cname.answer(t_cname, message::name("elsewhere.example.test"));
    message loop_data(reverse, t_ptr);
    loop_data.answer(t_ptr, message::name("host.test"));
    loop_data.pointer_at_end(11, loop_data.data.size() - 11);
    message past_end(reverse, t_ptr);
    past_end.answer(t_ptr, message::name("host.test")).pointer_at_end(11, 0x3fff);
    message loop_owner(reverse, t_ptr);
    loop_owner.answer(t_ptr, message::name("host.test"), {0xc0, 0x26});
    ASSERT_EQ(loop_owner.data[0x26], 0xc0);

    const std::string parse_rr = "Failed to parse RR: ";
    const std::string uncompress = "Failed to uncompress response value: " + emsgsize;
    const struct {
        const char* what;
        const message& msg;
        int32_t mode;
        int32_t verdict;
        strings names;
        std::string error;
        std::string debug;
    } cases[] = {
        {"three, all", three, 0, 0, {"a.example.test", "b.example.test", "c.example.test"}, "", ""},
        {"three, first", three, 1, 0, {"a.example.test"}, "", ""},
        {"classless, all",
         classless,
         0,
         0,
         {"classless.example.test", "second.example.test"},
         "",
         "skipping rr type: [16]"},
        {"classless, first",
         classless,
         1,
         0,
         {"classless.example.test"},
         "",
         "skipping rr type: [5]"},
        {"only a cname, all", only_cname, 0, 1, {}, "", "No answers to return. Had 1 answers"},
        // The limit moves past the last record, whose parse then fails.
        {"only a cname, first", only_cname, 1, 2, {}, parse_rr + std::strerror(ENODEV), ""},
        {"no records",
         message(reverse, t_ptr),
         0,
         -1,
         {},
         "Expected at least 1 answer from the server",
         ""},
        {"data pointing at itself", loop_data, 0, 2, {}, uncompress, ""},
        {"data pointing past the end", past_end, 1, 2, {}, uncompress, ""},
        {"owner pointing at itself", loop_owner, 0, 2, {}, parse_rr + emsgsize, ""},
        {"cut short",
         message(three).cut(1),
         0,
         2,
         {},
         "Failed to parse NS server response: " + emsgsize,
         ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        clear_log();
        char** names = nullptr;
        EXPECT_EQ(
            ow::dns::ptr_answer(c.msg.data.data(), c.msg.size(), reverse.c_str(), c.mode, &names),
            c.verdict);
        EXPECT_EQ(take_names(names), c.names);
        if (c.error.empty()) {
            EXPECT_NO_ERRORS();
        } else {
            EXPECT_ERROR_LINE("ow_lookup_reverse_dns", c.error);
        }
        if (!c.debug.empty()) {
            EXPECT_TRUE(ow_test::has_debug("ow_lookup_reverse_dns", c.debug)) << ow_test::dump();
        }
    }
    // Without an out-pointer the names are found and dropped.
    EXPECT_EQ(ow::dns::ptr_answer(three.data.data(), three.size(), reverse.c_str(), 0, nullptr), 0);
}

TEST_F(DnsTest, PtrWalkReplacesTheCallersArrayOnlyOnSuccess) {
    message one(reverse, t_ptr);
    one.answer(t_ptr, message::name("one.example.test"));
    char** names = nullptr;
    ASSERT_EQ(ow::dns::ptr_answer(one.data.data(), one.size(), reverse.c_str(), 0, &names), 0);
    // The array held before is freed (the leak checker sees to it) and replaced.
    ASSERT_EQ(ow::dns::ptr_answer(one.data.data(), one.size(), reverse.c_str(), 1, &names), 0);
    EXPECT_NE(names, nullptr);
    char** const second = names;
    const message nx(reverse, t_ptr, 3);
    EXPECT_EQ(ow::dns::ptr_answer(nx.data.data(), nx.size(), reverse.c_str(), 0, &names), 1);
    EXPECT_EQ(names, second);
    // Both allocations of a found answer (the array, the copy of the name) may fail.
    for (long n : {1L, 2L}) {
        SCOPED_TRACE(n);
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_EQ(ow::dns::ptr_answer(one.data.data(), one.size(), reverse.c_str(), 0, &names), 2);
        EXPECT_ERROR_LINE("ow_lookup_reverse_dns", std::strerror(ENOMEM));
        EXPECT_EQ(names, second);
    }
    EXPECT_EQ(take_names(names), strings{"one.example.test"});
}

// --- the hosts-file scan ------------------------------------------------------------------

struct scan_result {
    int32_t count;
    strings names;
};

scan_result scan(const std::string& text, const char* query, int family) {
    std::string buffer = text;
    std::FILE* file = fmemopen(buffer.data(), buffer.size(), "r");
    EXPECT_NE(file, nullptr);
    char** names = reinterpret_cast<char**>(1);
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

    const struct {
        const char* query;
        int family;
        strings names;
    } cases[] = {
        {"127.0.0.1", AF_INET, {"localhost", "loghost", "crlf\r", std::string(1012, 'f')}},
        {"::1", AF_INET6, {"ip6-localhost", "ip6-long", "IP6-Tab"}},
        {"2001:db8::a", AF_INET6, {"Upper"}},
        {"192.0.2.99", AF_INET, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.query);
        clear_log();
        const scan_result r = scan(hosts, c.query, c.family);
        EXPECT_EQ(r.count, static_cast<int32_t>(c.names.size()));
        EXPECT_EQ(r.names, c.names);
        EXPECT_ERROR_LINE("ow_gethostent", "Address[] in /etc/hosts is not an IP");
        EXPECT_ERROR_LINE("ow_gethostent", "Address[notanip] in /etc/hosts is not an IP");
        EXPECT_EQ(ow_test::error_count(), 2u) << ow_test::dump();
    }
    EXPECT_TRUE(ow_test::has_debug(
        "ow_gethostent",
        "protocol mismatch between [192.0.2.99] and [2001:DB8:0:0::A] - skipping"));
    EXPECT_TRUE(ow_test::has_debug("ow_gethostent", "[192.0.2.99] doesn't match [127.0.0.10]"));

    // Every allocation of a matching scan may fail; nothing leaks and nothing is stored.
    for (long n = 1; n <= 4; ++n) {
        SCOPED_TRACE(n);
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_EQ(scan("::1 a b\n", "::1", AF_INET6).count, -1);
        EXPECT_ERROR_LINE("ow_gethostent", std::strerror(ENOMEM));
    }
}

}  // namespace

// The address helpers: IPv4 conversions (byte order, inet_aton's shorthand, round trips), what
// counts as local, and IPv6 recognition and normalisation, with their failure lines.
#include "ardvex-ip-funcs.h"

#include "scratch.hpp"

#include <arpa/inet.h>

#include "ardvex-ipv6.h"
#include "ow_internal.hpp"

namespace {

using ow_test::refused;
using IpFuncsTest = ow_test::LogCaptureTest;

std::string text_of(uint32_t number) {
    ow::unique_cstr s(ip_number_to_string(static_cast<int32_t>(number)));
    return s ? s.get() : "(null)";
}

// The number is compared with the platform's own, so the byte order is not restated here.
TEST_F(IpFuncsTest, TextToNumberAndBack) {
    const std::pair<const char*, const char*> cases[] = {
        {"1.2.3.4", "1.2.3.4"},  {"10.1", "10.0.0.1"},
        {"0x7f.1", "127.0.0.1"}, {"4294967294", "255.255.255.254"},
        {"1.2.3.4.5", nullptr},  {"::1", nullptr},
    };
    for (const auto& [text, dotted] : cases) {
        SCOPED_TRACE(text);
        in_addr a{};
        if (dotted != nullptr) inet_pton(AF_INET, dotted, &a);
        const uint32_t n = ip_string_to_number(text);
        EXPECT_EQ(n, a.s_addr);
        EXPECT_EQ(n != 0 ? text_of(n) : "", dotted != nullptr ? dotted : "");
    }
    EXPECT_EQ(text_of(0xFFFFFFFFu), "255.255.255.255");
    EXPECT_NO_ERRORS();
}

TEST_F(IpFuncsTest, LocalhostIsExactly127001OrIpv6Loopback) {
    const std::pair<const char*, int> cases[] = {
        {"127.0.0.1", 1}, {"::1", 1}, {"0000::0001", 1},       {"127.0.0.2", 0},
        {"127.1", 0},     {"::", 0},  {"::ffff:127.0.0.1", 0}, {"localhost", 0},
    };
    for (const auto& [text, local] : cases) EXPECT_EQ(is_localhost(text), local) << text;
    EXPECT_NO_ERRORS();
}

TEST_F(IpFuncsTest, Ipv6CanonicalForms) {
    const std::pair<const char*, const char*> cases[] = {
        {"2001:0DB8:0000:0000:0000:0000:0000:0001", "2001:db8::1"},
        {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},  // the first of equal zero runs
        {"::FFFF:1.2.3.4", "::ffff:1.2.3.4"},
        {"fe80::1%eth0", nullptr},
        {"1.2.3.4", nullptr},
        {"2001:db8::1::2", nullptr},
    };
    for (const auto& [text, canonical] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(is_ipv6(text), canonical != nullptr ? 1 : 0);
        ow::unique_cstr out(compress_ipv6(text));
        EXPECT_STREQ(out.get(), canonical);
        if (canonical == nullptr) refused("compress_ipv6", std::strerror(EINVAL), {true});
        EXPECT_NO_ERRORS();
    }
}

TEST_F(IpFuncsTest, RefusalsAndAllocationFailures) {
    const std::string inval = std::strerror(EINVAL), enomem = std::strerror(ENOMEM);
    refused("ip_string_to_number", inval,
            {ip_string_to_number(nullptr) == 0, ip_string_to_number("") == 0});
    refused("is_localhost", inval, {is_localhost(nullptr) == 0, is_localhost("") == 0});
    refused("is_ipv6", inval, {is_ipv6(nullptr) == 0, is_ipv6("") == 0});
    refused("compress_ipv6", inval, {compress_ipv6(nullptr) == nullptr});
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ip_number_to_string(1), nullptr);
    refused("ip_number_to_string", enomem, {true});
    ow::testing::fail_allocation(1);
    EXPECT_EQ(compress_ipv6("::1"), nullptr);
    refused("compress_ipv6", enomem, {true});
}

}  // namespace

// The IPv4 conversions and the loopback test: byte order, inet_aton's shorthand, round trips,
// and what counts as local.
#include "ardvex-ip-funcs.h"

#include "scratch.hpp"

#include <arpa/inet.h>

#include "ow_internal.hpp"

namespace {

using ow_test::refused;

std::string text_of(uint32_t number) {
    char* s = ip_number_to_string(static_cast<int32_t>(number));
    std::string out = s != nullptr ? s : "(null)";
    std::free(s);
    return out;
}

using IpFuncsTest = ow_test::LogCaptureTest;

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

TEST_F(IpFuncsTest, RefusalsAndAllocationFailure) {
    const std::string inval = std::strerror(EINVAL);
    refused("ip_string_to_number", inval,
            {ip_string_to_number(nullptr) == 0, ip_string_to_number("") == 0});
    refused("is_localhost", inval, {is_localhost(nullptr) == 0, is_localhost("") == 0});
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ip_number_to_string(1), nullptr);
    refused("ip_number_to_string", std::strerror(ENOMEM), {true});
}

}  // namespace

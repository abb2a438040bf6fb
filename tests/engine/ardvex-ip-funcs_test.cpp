// Tests of the IPv4 conversions and the loopback test: byte order, inet_aton's shorthand,
// the all-ones refusal, round trips, and what counts as local.
#include "ardvex-ip-funcs.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

using ow_test::refused;

// The number as the platform stores it, to compare against without restating the code.
uint32_t network(const char* dotted) {
    in_addr a{};
    EXPECT_EQ(inet_pton(AF_INET, dotted, &a), 1) << dotted;
    return a.s_addr;
}

std::string text_of(uint32_t number) {
    char* s = ip_number_to_string(static_cast<int32_t>(number));
    std::string out = s != nullptr ? s : "(null)";
    std::free(s);
    return out;
}

// The conversion's own lines may name the checked conversion it goes through.
bool conversion_line(bool error, const std::string& message) {
    for (const char* func : {"ip_string_to_number", "inet_addr_checked", "ow_inet_addr"}) {
        if (error ? ow_test::has_error(func, message) : ow_test::has_debug(func, message))
            return true;
    }
    return false;
}

class IpFuncsTest : public ow_test::LogCaptureTest {};

TEST_F(IpFuncsTest, TextToNumberAndBack) {
    const struct {
        const char* text;
        const char* expected;  // dotted form of the result; nullptr for 0
    } cases[] = {
        {"1.2.3.4", "1.2.3.4"},
        {"10.1", "10.0.0.1"},
        {"0x7f.1", "127.0.0.1"},
        {"010.0.0.1", "8.0.0.1"},
        {"4294967294", "255.255.255.254"},
        {"0.0.0.0", nullptr},
        {"1.2.3.4.5", nullptr},
        {"256.1.1.1", nullptr},
        {"1.2.3.4 x", "1.2.3.4"},  // glibc stops reading at white space
        {"::1", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const uint32_t n = ip_string_to_number(c.text);
        if (c.expected == nullptr) {
            EXPECT_EQ(n, 0u);
        } else {
            EXPECT_EQ(n, network(c.expected));
            EXPECT_EQ(text_of(n), c.expected);
        }
    }
    EXPECT_EQ(network("1.2.3.4"), ip_string_to_number("1.2.3.4"));
    EXPECT_TRUE(
        conversion_line(false, "[1.2.3.4] converted to " + std::to_string(network("1.2.3.4"))));
    EXPECT_TRUE(conversion_line(false, std::strerror(EINVAL)));  // inet_aton refused
    EXPECT_NO_ERRORS();

    EXPECT_EQ(ip_string_to_number("255.255.255.255"), 0u);
    EXPECT_TRUE(conversion_line(true, std::strerror(EINVAL))) << ow_test::dump();
    EXPECT_EQ(text_of(0xFFFFFFFFu), "255.255.255.255");
    EXPECT_EQ(text_of(0), "0.0.0.0");
}

TEST_F(IpFuncsTest, LocalhostIsExactly127001OrIpv6Loopback) {
    const struct {
        const char* text;
        int local;
    } cases[] = {
        {"127.0.0.1", 1}, {"::1", 1},       {"0:0:0:0:0:0:0:1", 1}, {"0000::0001", 1},
        {"127.0.0.2", 0}, {"127.1", 0},     {"127.0.0.1 ", 0},      {"::ffff:127.0.0.1", 0},
        {"::", 0},        {"localhost", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(is_localhost(c.text), c.local);
    }
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

// Tests of IPv6 recognition and normalisation, with their failure lines.
#include "ardvex-ipv6.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

using ow_test::refused;

class Ipv6Test : public ow_test::LogCaptureTest {};

TEST_F(Ipv6Test, CanonicalForms) {
    const struct {
        const char* text;
        const char* canonical;  // nullptr: not IPv6
    } cases[] = {
        {"2001:0DB8:0000:0000:0000:0000:0000:0001", "2001:db8::1"},
        {"0:0:0:0:0:0:0:1", "::1"},
        {"::", "::"},
        {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},  // the first of equal zero runs
        {"::FFFF:1.2.3.4", "::ffff:1.2.3.4"},
        {"fe80::1%eth0", nullptr},
        {"1.2.3.4", nullptr},
        {"2001:db8::1::2", nullptr},
        {"12345::", nullptr},
        {" ::1", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(is_ipv6(c.text), c.canonical != nullptr ? 1 : 0);
        char* out = compress_ipv6(c.text);
        if (c.canonical == nullptr) {
            EXPECT_EQ(out, nullptr);
            refused("compress_ipv6", std::strerror(EINVAL), {true});
        } else {
            ASSERT_NE(out, nullptr);
            EXPECT_STREQ(out, c.canonical);
            // The format ends in a line feed, which the log shows as '?'.
            EXPECT_TRUE(ow_test::has_debug(
                "compress_ipv6", std::string("Converted [") + c.text + "] to [" + out + "]?"))
                << ow_test::dump();
        }
        std::free(out);
    }
    EXPECT_NO_ERRORS();
}

TEST_F(Ipv6Test, RefusalsAndAllocationFailure) {
    const std::string inval = std::strerror(EINVAL);
    refused("is_ipv6", inval, {is_ipv6(nullptr) == 0, is_ipv6("") == 0});
    EXPECT_EQ(compress_ipv6(nullptr), nullptr);
    EXPECT_ERROR_LINE("compress_ipv6", inval);
    clear_log();
    ow::testing::fail_allocation(1);
    EXPECT_EQ(compress_ipv6("::1"), nullptr);
    refused("compress_ipv6", std::strerror(ENOMEM), {true});
}

}  // namespace

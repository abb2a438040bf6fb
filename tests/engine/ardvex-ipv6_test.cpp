// IPv6 recognition and normalisation, with their failure lines.
#include "ardvex-ipv6.h"

#include "scratch.hpp"

#include "ow_internal.hpp"

namespace {

using ow_test::refused;

using Ipv6Test = ow_test::LogCaptureTest;

TEST_F(Ipv6Test, CanonicalFormsAndRefusals) {
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
        EXPECT_EQ(ow_test::error_count(), canonical != nullptr ? 0u : 1u);
        if (canonical == nullptr) refused("compress_ipv6", std::strerror(EINVAL), {true});
    }
    refused("is_ipv6", std::strerror(EINVAL), {is_ipv6(nullptr) == 0, is_ipv6("") == 0});
    refused("compress_ipv6", std::strerror(EINVAL), {compress_ipv6(nullptr) == nullptr});
    ow::testing::fail_allocation(1);
    EXPECT_EQ(compress_ipv6("::1"), nullptr);
    refused("compress_ipv6", std::strerror(ENOMEM), {true});
}

}  // namespace

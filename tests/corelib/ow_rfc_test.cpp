#include "ow_rfc.h"

#include <optional>
#include <tuple>

#include "ow_internal.hpp"
#include "scratch.hpp"

namespace {

using ow_test::refused;
using strings = std::vector<std::string>;

strings take(ow_list* list) {
    strings out;
    for (const ow_list* e = list; e != nullptr; e = e->next) {
        out.emplace_back(static_cast<const char*>(e->data));
        EXPECT_EQ(e->size, out.back().size() + 1) << out.back();
    }
    ow_destroy_list(&list, std::free);
    return out;
}

std::optional<std::string> extract(const char* mailbox) {
    const ow::unique_cstr s(ow_extract_address_from_mailbox(mailbox));
    return s ? std::optional<std::string>(s.get()) : std::nullopt;
}

const std::string long_label(std::size_t n) { return std::string(n, 'a'); }

class RfcTest : public ow_test::LogCaptureTest {};

TEST_F(RfcTest, DomainsAndBareAddresses) {
    const std::string d254 =
        long_label(63) + "." + long_label(63) + "." + long_label(63) + "." + long_label(60) + ".a";
    const std::pair<std::string, int> domains[] = {
        {"a.b", 1},    {"1and1.com", 1}, {"-x-.com", 1}, {long_label(300) + ".com", 1},
        {"ab", 0},     {"abc", 0},       {".a.b", 0},    {"a.b.", 0},
        {"a..b", 0},   {"a_b.c", 0},     {"1.2.3.4", 0}, {"ex\xc3\xa4mple.com", 0},
        {"1::2.3", 0}, {"1.2.3.4.5", 1},  // begins with a digit but is no address
    };
    for (const auto& [domain, valid] : domains)
        EXPECT_EQ(ow_valid_domain(domain.c_str()), valid) << domain;
    EXPECT_EQ(ow_valid_domain(nullptr), 0);
    // No limit on the local part.
    const strings good = {"o'neil+x@b.c", "!#$%&'*+-/=?^_`{|}~@b.c", "x@" + d254,
                          long_label(65) + "@b.c"};
    const strings bad = {
        "abc",    "@b.c",     "a@",      "a@b",      "a@b@c.d",         ".a@b.c",
        "a.@b.c", "a..b@c.d", "a b@c.d", "a\\b@c.d", "x@" + d254 + "a", "x@.." + d254.substr(2)};
    for (const auto& a : good) EXPECT_EQ(ow_valid_email_address(a.c_str()), 1) << a;
    for (const auto& a : bad) EXPECT_EQ(ow_valid_email_address(a.c_str()), 0) << a.substr(0, 40);
    EXPECT_NO_ERRORS();
    refused("ow_valid_email_address", std::strerror(EINVAL),
            {!ow_valid_email_address(nullptr), !ow_valid_email_address("")});
}

// Addresses met in practice: the field check, its bracket flag, the address extracted.
TEST_F(RfcTest, TrickyAddresses) {
    const std::tuple<std::string, int, bool, std::optional<std::string>> cases[] = {
        {"\"john doe\"@example.com", 0, false, "\"john doe\"@example.com"},
        {"<\"john doe\"@example.com>", 0, false, "\"john doe\"@example.com"},
        {"\"Doe, John\" <John@Example.com>", 1, true, "john@example.com"},
        {"\"a\\\"b\" <x@y.z>", 1, true, "x@y.z"},
        {"\"a\\\\\" <x@y.z>", 1, true, "x@y.z"},  // \\ does not escape the closing quote
        {"\"ab\"", 0, false, std::nullopt},       // a phrase may not end the text
        {"user@[192.0.2.1]", 0, false, "user@[192.0.2.1]"},
        // UTF-8 bytes are neither printable nor letters
        {"j\xc3\xb6rg@example.com", 0, false, std::nullopt},
        {"\"J\xc3\xb6rg\" <j@example.com>", 0, false, std::nullopt},
        // brackets, bounces and comments
        {"<>", 1, true, std::nullopt},
        {"< >", 1, true, ""},
        {"<user@example.com", 0, false, std::nullopt},
        {"Joe <joe@x.y> (home)", 1, true, "joe@x.y"},
        {"joe@x.y (Joe (at home))", 1, false, "joe@x.y"},
        {"(a\\)b)x@y.z", 1, false, "x@y.z"},
        {"(abc x@y.z", 0, false, std::nullopt},
        {"a@b.c <d@e.f>", 0, false, "d@e.f"},
        {"<a@b.c> <d@e.f>", 0, false, "a@b.c"},
        {"<a@b.c> \"x\"", 0, false, "a@b.c"},
        {"User+Tag@Example.COM", 1, false, "user+tag@example.com"},
        {"  user@example.com ", 1, false, "user@example.com"},
    };
    for (const auto& [tricky, field, in_brackets, mailbox] : cases) {
        SCOPED_TRACE(tricky.substr(0, 40));
        bool bracketed = false;
        EXPECT_EQ(ow_rfc822_email_address(tricky.c_str(), &bracketed), field);
        EXPECT_EQ(bracketed, in_brackets);
        EXPECT_EQ(extract(tricky.c_str()), mailbox);
    }
    EXPECT_EQ(ow_rfc822_email_address(nullptr, nullptr), 1);
    EXPECT_EQ(ow_rfc822_email_address("", nullptr), 1);
    EXPECT_EQ(ow_rfc822_email_address("<>", nullptr), 1);
    // Deep nesting costs neither stack nor time (quietly: a DEBUG line per level would).
    ow_set_log_function(nullptr);
    const std::string deep = std::string(200000, '(') + "x" + std::string(200000, ')') + "a@b.c";
    EXPECT_EQ(ow_rfc822_email_address(deep.c_str(), nullptr), 1);
    EXPECT_EQ(extract(std::string(200000, '(').c_str()), std::nullopt);
    ow_set_log_function(&ow_test::capture_sink);
}

TEST_F(RfcTest, SplittingAndParsingHeaders) {
    const std::tuple<const char*, strings, strings> cases[] = {
        {"a@b.c, \"x, y\" <D@E.f>, (p,q) g@h.i",
         {"a@b.c", "\"x, y\" <D@E.f>", "(p,q) g@h.i"},
         {"a@b.c", "d@e.f", "g@h.i"}},
        {"a@b.c, ", {"a@b.c"}, {"a@b.c"}},
        {"a@b.c,,d@e.f", {"a@b.c", "", "d@e.f"}, {"a@b.c", "d@e.f"}},
        {"  x   y  <a@b.c>  ", {"x y <a@b.c>"}, {"a@b.c"}},
        {"\"q\\\",\" <a@b.c>, d@e.f", {"\"q\\\",\" <a@b.c>", "d@e.f"}, {"a@b.c", "d@e.f"}},
        {"(\\), x) a@b.c, d@e.f", {"(\\), x) a@b.c", "d@e.f"}, {"a@b.c", "d@e.f"}},
        {"a\\,b@c.d", {"a\\", "b@c.d"}, {"a\\", "b@c.d"}},              // no escape outside quotes
        {"x) a@b.c, d@e.f", {"x) a@b.c, d@e.f"}, {"x) a@b.c, d@e.f"}},  // unmatched )
        {"<>, \"bad, a@b.c", {"<>", "\"bad, a@b.c"}, {}},
        {"(x\\", {"(x\\"}, {}},
    };
    for (const auto& [header, pieces, addresses] : cases) {
        SCOPED_TRACE(header);
        EXPECT_EQ(take(ow_split_addresses(header)), pieces);
        EXPECT_EQ(take(ow_parse_addresses_from_header(header)), addresses);
    }
    EXPECT_EQ(ow_split_addresses(""), nullptr);
    refused("ow_parse_addresses_from_header", "Unable to split address list",
            {!ow_parse_addresses_from_header(" \t ")});
}

TEST_F(RfcTest, IpClassification) {
    // Routable, then unroutable; every text with a colon is IPv6.
    const std::vector<const char*> texts[] = {
        {"169.255.1.1", "172.15.0.1", "172.32.0.1", "192.169.0.1", "224.0.0.1", "100.64.0.1",
         "192.0.2.1", "fe00::1", "fec0::1", "::2", "::1.2.3.4", "2002:c000:201::", "ff02::1",
         "2001:db8::1"},
        {"0.1.2.3", "10.0.0.1", "127.0.0.1", "169.254.1.1", "172.16.0.1", "172.31.255.255",
         "192.168.0.1", "240.0.0.1", "255.255.255.255", "fd00::1", "fc00::", "fe80::1", "febf::1",
         "::", "::1", "::ffff:1.2.3.4"}};
    for (const bool unroutable : {false, true}) {
        for (const char* text : texts[unroutable]) {
            SCOPED_TRACE(text);
            const bool v6 = std::strchr(text, ':') != nullptr;
            EXPECT_EQ(ow_is_ip(text), v6 ? 10 : 2);
            EXPECT_EQ(ow_is_ipv6(text), v6);
            EXPECT_EQ(ow_is_unroutable_ip(text), unroutable);
            // The line a public address gets, and only a public one.
            EXPECT_EQ(ow_test::has_debug("ow_is_unroutable_ip",
                                         std::string("Address [") + text +
                                             "] is not a private or reserved address"),
                      !unroutable);
        }
    }
    for (const char* no : {"1.2.3", "01.2.3.4", "1.2.3.4 ", "0x1.2.3.4", "::1%lo", "example.com"}) {
        EXPECT_EQ(ow_is_ip(no), 0) << no;
        refused("ow_is_unroutable_ip",
                std::string("Address [") + no + "] is not a valid ipv4 or ipv6 address",
                {!ow_is_unroutable_ip(no)});
    }
    EXPECT_NO_ERRORS();
}

TEST_F(RfcTest, RefusalsAndAllocationFailures) {
    const std::string inval = std::strerror(EINVAL);
    refused("ow_extract_address_from_mailbox", inval, {!extract("")});
    refused("ow_parse_addresses_from_header", inval, {!ow_parse_addresses_from_header("")});
    refused("ow_split_addresses", inval, {!ow_split_addresses(nullptr)});
    refused("ow_is_ip", inval, {!ow_is_ip("")});
    refused("ow_is_ipv6", inval, {!ow_is_ipv6("")});
    refused("ow_is_unroutable_ip", inval, {!ow_is_unroutable_ip("")});
    EXPECT_EQ(extract(" (gone) "), std::nullopt);
    refused("ow_extract_address_from_mailbox", "zero length address", {true});

    const std::string enomem = std::strerror(ENOMEM);
    // The field check accepts when either copy fails (it cannot run); the extraction fails.
    for (long n : {1L, 2L}) {
        SCOPED_TRACE(n);
        bool bracketed = false;
        ow::testing::fail_allocation(n);
        EXPECT_EQ(ow_rfc822_email_address("<bad address>", &bracketed), 1);
        EXPECT_EQ(bracketed, n == 2);
        refused(n == 1 ? "ow_rfc822_email_address" : "__ow_parse_rfc_address", enomem, {true});
        ow::testing::fail_allocation(n);
        EXPECT_EQ(extract("<a@b.c>"), std::nullopt);
        refused("ow_extract_address_from_mailbox", enomem, {true});
    }

    // Every allocation of a split and a parse fails in turn: nothing leaks, each reports.
    for (const char* header : {"a@b.c, \"x\" <d@e.f>", "x@y.z,  p@q.r  "}) {
        for (auto* fn : {&ow_split_addresses, &ow_parse_addresses_from_header}) {
            const long before = ow::testing::allocation_count();
            ASSERT_FALSE(take(fn(header)).empty());
            const long needed = ow::testing::allocation_count() - before;
            for (long n = 1; n <= needed; ++n) {
                SCOPED_TRACE(std::string(header) + " allocation " + std::to_string(n));
                clear_log();
                ow::testing::fail_allocation(n);
                take(fn(header));
                // A failed allocation the result could do without (a trim) still reports.
                EXPECT_GE(ow_test::error_count(), 1u) << ow_test::dump();
            }
        }
    }
}

}  // namespace

#include "known_sender_forgery_funcs.h"

#include "scratch.hpp"

#include <arpa/inet.h>
#include <sched.h>

#include <tuple>

#include "ardvex_config.h"
#include "ow_internal.hpp"
#include "owspamrule.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using ow_test::spit;

// "domain=net/prefix,net/prefix;..." of a loaded domain list, in order.
std::string describe(const ow_list* domains) {
    std::string out;
    for (const ow_list* e = domains; e != nullptr; e = e->next) {
        const auto* d = static_cast<const ksf_domain_ips*>(e->data);
        out += std::string(out.empty() ? "" : ";") + d->domain + "=";
        for (const ow_list* r = d->ranges; r != nullptr; r = r->next) {
            const auto* range = static_cast<const ksf_ip_range*>(r->data);
            out += std::string(r == d->ranges ? "" : ",") +
                   inet_ntoa(in_addr{htonl(range->network)}) + "/" + std::to_string(range->prefix);
        }
    }
    return out;
}

class KsfTest : public ow_test::ScratchTest {
   protected:
    void SetUp() override {
        ScratchTest::SetUp();
        path_ = path("valid_domain_ips");
    }
    std::string path_;
};

TEST_F(KsfTest, LoaderKeepsUsableLinesAndElementsInFileOrder) {
    spit(path_,
         "# domains bound to their networks\n\n   \t\n"
         "Example.ORG : 192.0.2.0/24, 198.51.100.7\r\n"
         "dropped.example: 192.0.2.1/24\n"  // host bits set: nothing left
         "prefixes.example: 10.1.0.0/33, 10.2.0.0/-8, 10.3.0.0/24x,10.4.0.0/\n"
         "mixed.example: 10.0.0.0/8,, 300.1.1.1, 10.4.0.0/16/8, /8, 10.5.0.0/ 16, "
         "0.0.0.0/0, 203.0.113.9/32, 255.255.255.255\n"
         "v6.example: 2001:db8::/32\n"  // the colons of IPv6 split the line
         "a:b:c\n:192.0.2.1\nnot_a_domain:192.0.2.1\n192.0.2.1:192.0.2.1\nempty.example:\n"
         "commas.example: , ,\n"
         "example.org: 203.0.113.0/24\n"  // second line of a listed domain
         "nul.example: 192.0.2.9\0: junk after a NUL\n"
         "last.example: 198.51.100.0/25"s);  // no final LF
    ksf_list* list = ksf_load_list(path_.c_str());
    ASSERT_NE(list, nullptr) << ow_test::dump();
    EXPECT_EQ(describe(list->domains),
              "example.org=192.0.2.0/24,198.51.100.7/32;"
              "mixed.example=10.0.0.0/8,0.0.0.0/0,203.0.113.9/32;"
              "example.org=203.0.113.0/24;nul.example=192.0.2.9/32;"
              "last.example=198.51.100.0/25");
    EXPECT_EQ(list->ignored_lines, 9u);
    EXPECT_NO_ERRORS();  // only the verbose switch makes errors of dropped input
    ksf_destroy_list(list);

    spit(path_, "Bad_Domain: 192.0.2.1\nexample.org: 192.0.2.1/24, 192.0.2.5\nx.org 1\n");
    ksf_set_verbose(true);
    list = ksf_load_list(path_.c_str());
    ksf_set_verbose(false);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->ignored_lines, 2u);
    for (const char* line :
         {"Domain [bad_domain] is not valid", "Ignored unparseable line [Bad_Domain: 192.0.2.1]",
          "Failed to parse [192.0.2.1/24] as CIDR or IP", "Ignored unparseable line [x.org 1]"})
        EXPECT_ERROR_LINE("ksf_load_list", line);
    EXPECT_EQ(ow_test::error_count(), 4u) << ow_test::dump();
    ksf_destroy_list(list);
}

// Refusals; each allocation of a load failing in turn: NULL, its line, no leak (asan build).
TEST_F(KsfTest, LoaderFailures) {
    ow_test::refused("ksf_load_list", "Invalid argument",
                     {!ksf_load_list(nullptr), !ksf_load_list("")});
    const std::string unreadable = "Failed to read domain/ip list file: " + path_;
    EXPECT_EQ(ksf_load_list(path_.c_str()), nullptr);
    EXPECT_ERROR_LINE("ksf_load_list", unreadable);

    spit(path_, "a.example: 192.0.2.0/24, 192.0.2.77\nb.example: 10.0.0.0/8\n#\n");
    const long before = ow::testing::allocation_count();
    ksf_destroy_list(ksf_load_list(path_.c_str()));
    const long needed = ow::testing::allocation_count() - before;
    for (long n = 1; n <= needed; ++n) {
        SCOPED_TRACE(n);
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_EQ(ksf_load_list(path_.c_str()), nullptr);
        EXPECT_TRUE(ow_test::has_error("ksf_load_list", "Unable to load KSF list: " + path_) ||
                    ow_test::has_error("ksf_load_list", unreadable))
            << ow_test::dump();
    }
}

TEST_F(KsfTest, RestrictionAllowsOnlyTheFirstLinesNetworksAndFailsOpen) {
    spit(path_,
         "example.org: 192.0.2.0/24, 198.51.100.7\nexample.org: 203.0.113.0/24\n"
         "any.example: 0.0.0.0/0\nedge.example: 10.20.0.0/15\n");
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"192.0.2.200", "example.org", true},   {"198.51.100.7", " EXAMPLE.Org ", true},
        {"198.51.100.8", "Example.ORG", false}, {"192.0.3.0", "example.org", false},
        {"203.0.113.5", "example.org", false},   // the second line of the domain does not count
        {"203.0.113.5", "other.example", true},  // not listed: unrestricted
        {"8.8.8.8", "any.example", true},       {"10.21.255.255", "edge.example", true},
        {"10.22.0.0", "edge.example", false},   {"10.19.255.255", "edge.example", false},
    };
    const char* p = path_.c_str();
    for (const auto& [ip, domain, may_send] : cases) {
        SCOPED_TRACE(std::string(ip) + " for " + domain);
        EXPECT_EQ(ksf_check_domain_to_ip_restriction(ip, domain, p), may_send);
    }
    EXPECT_NO_ERRORS();

    // Failures let the client send.
    const std::tuple<const char*, const char*, std::string> refusals[] = {
        {"1.2.3.4", "", "Invalid argument"},
        {"1.2.3.4", " \t ", "Invalid domain - blank after trimming whitespace"},
        {"2001:db8::1", "example.org", "failed to convert ip [2001:db8::1] to host order bytes"},
    };
    for (const auto& [ip, domain, line] : refusals)
        ow_test::refused("ksf_check_domain_to_ip_restriction", line,
                         {ksf_check_domain_to_ip_restriction(ip, domain, p)});
    spit(path_, "# nothing usable\nexample.org: 192.0.2.1/24\n");
    EXPECT_TRUE(ksf_check_domain_to_ip_restriction("1.2.3.4", "example.org", p));
}

// The rule reads the real control file: here on a tmpfs of a private mount namespace (root).
bool private_control_directory() {
    static const bool ready =
        geteuid() == 0 && unshare(CLONE_NEWNS) == 0 &&
        ow_test::sh("mount --make-rprivate / && mount -t tmpfs tmpfs /mnt && " ARDVEX_SOURCE_DIR
                    "/tests/support/private_dirs.sh /mnt " ARDVEX_CONTROL_DIR) == 0;
    return ready;
}

TEST_F(KsfTest, RuleRejectsListedDomainsFromForeignAddressesOnly) {
    if (!private_control_directory()) GTEST_SKIP() << "needs root for a private /etc";
    // The rule's place in the rule table is shown with the other rules on a real transaction.
    const auto judge = [](const char* ip, std::string mail_from) {
        spam_session s{};
        s.ip = const_cast<char*>(ip);
        s.mail_from = mail_from.data();
        return rule_known_sender_forgery(&s);
    };

    EXPECT_FALSE(judge("198.51.100.8", "a@example.org"));  // no control file: the rule is off
    spit(ARDVEX_CONTROL_DIR "valid_domain_ips", "example.org: 192.0.2.0/24, 198.51.100.7\n");
    EXPECT_TRUE(judge("198.51.100.8", "Someone@Example.Org"));
    EXPECT_TRUE(
        ow_test::has_debug("rule_known_sender_forgery",
                           "IP address [198.51.100.8] may not send for domain [example.org]"));
    // An allowed address, IPv6 (the check fails open), a bounce, no or unusable addresses.
    const std::pair<const char*, const char*> passing[] = {
        {"198.51.100.7", "a@example.org"},
        {"2001:db8::1", "a@example.org"},
        {"198.51.100.8", ""},
        {nullptr, "a@example.org"},
        {"mail.example.org", "a@example.org"},
        {"198.51.100.8", "a@b@example.org"},
    };
    for (const auto& [ip, mail_from] : passing) {
        SCOPED_TRACE(std::string(ip ? ip : "(null)") + " " + mail_from);
        EXPECT_FALSE(judge(ip, mail_from));
    }
    ow_test::refused("rule_known_sender_forgery", "Invalid argument",
                     {!rule_known_sender_forgery(nullptr)});
}

}  // namespace

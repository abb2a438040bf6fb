#include "known_sender_forgery_funcs.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "ardvex_config.h"
#include "log_capture.hpp"
#include "ow_internal.hpp"
#include "owspamrule.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using ow_test::has_debug;
using ow_test::has_error;

void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// "domain=net/prefix,net/prefix;..." of a loaded domain list, in order.
std::string describe(const ow_list* domains) {
    std::string out;
    for (const ow_list* e = domains; e != nullptr; e = e->next) {
        const auto* d = static_cast<const ksf_domain_ips*>(e->data);
        out += std::string(out.empty() ? "" : ";") + d->domain + "=";
        for (const ow_list* r = d->ranges; r != nullptr; r = r->next) {
            const auto* range = static_cast<const ksf_ip_range*>(r->data);
            in_addr a{htonl(range->network)};
            out += std::string(r == d->ranges ? "" : ",") + inet_ntoa(a) + "/" +
                   std::to_string(range->prefix);
        }
    }
    return out;
}

class KsfTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        char dir[] = "/tmp/ksf_test.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        path_ = dir_ + "/valid_domain_ips";
    }
    void TearDown() override {
        ksf_set_verbose(false);
        fs::remove_all(dir_);
        LogCaptureTest::TearDown();
    }
    std::string dir_, path_;
};

TEST_F(KsfTest, LoaderKeepsUsableLinesAndElementsInFileOrder) {
    write_file(path_,
               "# domains bound to their networks\n"
               "\n"
               "   \t\n"
               "Example.ORG : 192.0.2.0/24, 198.51.100.7\r\n"
               "dropped.example: 192.0.2.1/24\n"  // host bits set: nothing left
               "prefixes.example: 10.1.0.0/33, 10.2.0.0/-8, 10.3.0.0/24x,10.4.0.0/\n"
               "mixed.example: 10.0.0.0/8,, 300.1.1.1, 10.4.0.0/16/8, /8, 10.5.0.0/ 16, "
               "0.0.0.0/0, 203.0.113.9/32, 255.255.255.255\n"
               "v6.example: 2001:db8::/32\n"  // the colons of IPv6 split the line
               "a:b:c\n"
               ":192.0.2.1\n"
               "not_a_domain:192.0.2.1\n"
               "192.0.2.1:192.0.2.1\n"
               "empty.example:\n"
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
}

TEST_F(KsfTest, VerboseLoaderReportsWhatItDrops) {
    write_file(path_, "Bad_Domain: 192.0.2.1\nexample.org: 192.0.2.1/24, 192.0.2.5\nx.org 1\n");
    ksf_set_verbose(true);
    ksf_list* list = ksf_load_list(path_.c_str());
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->ignored_lines, 2u);
    EXPECT_ERROR_LINE("ksf_load_list", "Domain [bad_domain] is not valid");
    EXPECT_ERROR_LINE("ksf_load_list", "Ignored unparseable line [Bad_Domain: 192.0.2.1]");
    EXPECT_ERROR_LINE("ksf_load_list", "Failed to parse [192.0.2.1/24] as CIDR or IP");
    EXPECT_ERROR_LINE("ksf_load_list", "Ignored unparseable line [x.org 1]");
    EXPECT_EQ(ow_test::error_count(), 4u) << ow_test::dump();
    ksf_destroy_list(list);
}

// Refusals, and every allocation of a load failing in turn: NULL with its line, and nothing
// left allocated (the sanitizer build reports leaks).
TEST_F(KsfTest, LoaderFailures) {
    ow_test::refused("ksf_load_list", "Invalid argument",
                     {!ksf_load_list(nullptr), !ksf_load_list("")});
    EXPECT_EQ(ksf_load_list(path_.c_str()), nullptr);
    EXPECT_ERROR_LINE("ksf_load_list", "Failed to read domain/ip list file: " + path_);

    write_file(path_, "a.example: 192.0.2.0/24, 192.0.2.77\nb.example: 10.0.0.0/8\n#\n");
    const long before = ow::testing::allocation_count();
    ksf_destroy_list(ksf_load_list(path_.c_str()));
    const long needed = ow::testing::allocation_count() - before;
    for (long n = 1; n <= needed; ++n) {
        SCOPED_TRACE(n);
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_EQ(ksf_load_list(path_.c_str()), nullptr);
        EXPECT_TRUE(has_error("ksf_load_list", "Unable to load KSF list: " + path_) ||
                    has_error("ksf_load_list", "Failed to read domain/ip list file: " + path_))
            << ow_test::dump();
    }
}

TEST_F(KsfTest, RestrictionAllowsOnlyTheFirstLinesNetworksAndFailsOpen) {
    write_file(path_,
               "example.org: 192.0.2.0/24, 198.51.100.7\n"
               "example.org: 203.0.113.0/24\n"
               "any.example: 0.0.0.0/0\n"
               "edge.example: 10.20.0.0/15\n");
    const struct {
        const char* ip;
        const char* domain;
        bool may_send;
    } cases[] = {
        {"192.0.2.200", "example.org", true},   {"198.51.100.7", " EXAMPLE.Org ", true},
        {"198.51.100.8", "Example.ORG", false}, {"192.0.3.0", "example.org", false},
        {"203.0.113.5", "example.org", false},   // the second line of the domain does not count
        {"203.0.113.5", "other.example", true},  // not listed: unrestricted
        {"8.8.8.8", "any.example", true},       {"10.21.255.255", "edge.example", true},
        {"10.22.0.0", "edge.example", false},   {"10.19.255.255", "edge.example", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.ip) + " for " + c.domain);
        EXPECT_EQ(ksf_check_domain_to_ip_restriction(c.ip, c.domain, path_.c_str()), c.may_send);
    }
    EXPECT_NO_ERRORS();

    // Failures let the client send.
    const char* p = path_.c_str();
    ow_test::refused("ksf_check_domain_to_ip_restriction", "Invalid argument",
                     {ksf_check_domain_to_ip_restriction("1.2.3.4", "", p)});
    ow_test::refused("ksf_check_domain_to_ip_restriction",
                     "Invalid domain - blank after trimming whitespace",
                     {ksf_check_domain_to_ip_restriction("1.2.3.4", " \t ", p)});
    ow_test::refused("ksf_check_domain_to_ip_restriction",
                     "failed to convert ip [2001:db8::1] to host order bytes",
                     {ksf_check_domain_to_ip_restriction("2001:db8::1", "example.org", p)});

    write_file(path_, "# nothing usable\nexample.org: 192.0.2.1/24\n");
    EXPECT_TRUE(ksf_check_domain_to_ip_restriction("1.2.3.4", "example.org", p));
}

// ---------------------------------------------------------------------------------------
// The rule reads the suite's real control file. Its directory is made on an overlay of its
// nearest existing parent, whose layers live on a tmpfs over /mnt, seen only by this process.
// False without root.
bool private_control_directory() {
    static const bool ready = [] {
        if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0) return false;
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
        if (mount("tmpfs", "/mnt", "tmpfs", 0, "mode=0755") != 0) return false;
        const fs::path control = fs::path(ARDVEX_CONTROL_DIR).parent_path();  // drops the "/"
        fs::path base = control;
        while (!fs::exists(base)) base = base.parent_path();
        if (base == base.root_path()) return false;
        fs::create_directories("/mnt/upper");
        fs::create_directories("/mnt/work");
        const std::string options =
            "lowerdir=" + base.string() + ",upperdir=/mnt/upper,workdir=/mnt/work";
        if (mount("overlay", base.c_str(), "overlay", 0, options.c_str()) != 0) return false;
        std::error_code ec;
        return fs::create_directories(control, ec) || fs::is_directory(control);
    }();
    return ready;
}

TEST_F(KsfTest, RuleRejectsListedDomainsFromForeignAddressesOnly) {
    if (!private_control_directory()) GTEST_SKIP() << "needs root for a private /etc";
    const std::string control_file = std::string(ARDVEX_CONTROL_DIR) + "valid_domain_ips";
    fs::remove(control_file);
    ow_list* rules = build_rule_list();
    const ow_list* row = ow_list_search(rules, "known_sender_forgery",
                                        sizeof "known_sender_forgery", rule_name_compare);
    const spam_rule_check_fn check =
        row ? static_cast<const spam_rule*>(row->data)->check : nullptr;
    ow_destroy_list(&rules, free_rule);
    ASSERT_EQ(check, rule_known_sender_forgery);
    const auto judge = [check](const char* ip, const char* mail_from) {
        std::string from = mail_from != nullptr ? mail_from : "";
        spam_session s{};
        s.ip = const_cast<char*>(ip);
        s.mail_from = mail_from != nullptr ? from.data() : nullptr;
        return check(&s);
    };

    EXPECT_FALSE(judge("198.51.100.8", "a@example.org"));  // no control file: the rule is off
    write_file(control_file, "example.org: 192.0.2.0/24, 198.51.100.7\n");
    EXPECT_TRUE(judge("198.51.100.8", "Someone@Example.Org"));
    EXPECT_TRUE(has_debug("rule_known_sender_forgery",
                          "IP address [198.51.100.8] may not send for domain [example.org]"));
    // An allowed address, an IPv6 client (the check fails open), a bounce, an unknown client
    // and unusable addresses.
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

// Many processes sharing one range file are tested with the list files.
#include "ardvex-iprange.h"

#include "scratch.hpp"

#include <arpa/inet.h>

#include <tuple>

#include "ow_internal.hpp"

namespace {

namespace fs = std::filesystem;

uint32_t ip(const char* dotted) { return inet_addr(dotted); }
using rec = std::tuple<const char*, const char*, std::string>;  // low, high, comment

// A file image as the format defines it, written out independently of the module.
std::string image(char version, const std::vector<rec>& recs, long count = -1) {
    std::string out = std::string("\xea\xd3\x37\xa9\x80\x6c\xd7\x66", 8) + version;
    out.resize(12, '\0');  // three bytes of padding
    auto u32 = [&out](uint32_t v) { out.append(reinterpret_cast<const char*>(&v), 4); };
    u32(count < 0 ? recs.size() : count);
    for (const auto& [low, high, comment] : recs) {
        u32(ip(low));
        u32(ip(high));
        if (version == 2) out += comment + std::string(256 - comment.size(), '\0');
    }
    return out;
}

class RangeFileTest : public ow_test::ScratchTest {
   protected:
    std::string file() const { return path("r"); }
    void put(const std::string& bytes) const { ow_test::spit(file(), bytes); }
    std::string get() const { return ow_test::slurp(file(), "<none>"); }
    // Each edit gives nullptr on success, else its message.
    const char* add(const char* lo, const char* hi, const char* comment = nullptr) const {
        const char* msg = "(no message)";
        return ipr_add_range_to_file(dir_.c_str(), "r", lo, hi, comment, &msg) ? nullptr : msg;
    }
    const char* del(const char* lo, const char* hi, const char* name = "r") const {
        const char* msg = "(no message)";
        return ipr_del_range_from_file(dir_.c_str(), name, lo, hi, &msg) ? nullptr : msg;
    }
    bool lookup(const char* a) const { return file_contains_ip_range_match("r", a, dir_.c_str()); }
    std::string listing() const {
        testing::internal::CaptureStdout();
        ipr_list_file(dir_.c_str(), "r");
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(RangeFileTest, AddressesAndScopes) {
    const std::tuple<const char*, const char*, int, bool> cases[] = {
        // a >= b once their first `level` octets (three at most) are equal; else false.
        {"10.1.3.0", "10.1.2.255", 2, true},      {"11.0.0.0", "10.255.255.255", 0, true},
        {"11.0.0.0", "10.255.255.255", 1, false}, {"10.2.0.0", "10.1.0.0", 2, false},
        {"10.1.3.1", "10.1.2.9", 3, false},       {"10.1.2.9", "10.1.2.1", 5, true},
        {"10.1.2.9", "10.1.2.9", 3, true},        {"10.1.2.9", "10.1.2.9", 0, true},
    };
    for (const auto& [a, b, level, ge] : cases)
        EXPECT_EQ(ax_ip_ge(ip(a), ip(b), level), ge) << a << " " << b << " " << level;

    const ipr_range net{ip("10.1.0.0"), ip("10.1.255.255")};
    EXPECT_FALSE(ax_ip_in_range(0, &net) || ax_ip_in_range(UINT32_MAX, &net));
    EXPECT_TRUE(ip_in_builtin_range("192.0.2.200"));
    EXPECT_FALSE(ip_in_builtin_range("192.0.3.1") || ip_in_builtin_range(""));
    EXPECT_NO_ERRORS();

    const std::pair<const char*, std::string> refusals[] = {
        {"", "IP address argument is empty or NULL"},
        {"2001:db8::1",
         "Sorry but this system does not yet support IPv6 range checks for "
         "address [2001:db8::1]"},
        {"10.1", "Invalid IP address argument [10.1]"},
        {"10.1.1.1 ", "Invalid IP address argument [10.1.1.1 ]"},
        {"0.0.0.0", "This system does not support broadcast addresses [0.0.0.0]"},
        {"255.255.255.255", "This system does not support broadcast addresses [255.255.255.255]"},
    };
    for (const auto& [addr, line] : refusals) {
        SCOPED_TRACE(addr);
        EXPECT_STREQ(add(addr, "10.1.1.1"), "Invalid arguments to add");
        EXPECT_STREQ(del("10.1.1.1", addr), "Invalid arguments to add");
        EXPECT_FALSE(lookup(addr));
        ow_test::refused("__sane_ip", line, {true, true, true});
    }
    EXPECT_FALSE(fs::exists(file()));
    EXPECT_STREQ(add("10.1.0.0", "10.1.0.1", std::string(256, 'c').c_str()),
                 "Invalid arguments to add");
    EXPECT_STREQ(add("10.1.0.0", "10.2.0.0"), "Invalid ip range to add");
    EXPECT_STREQ(add("10.1.0.9", "10.1.0.1"), "Invalid ip range to add");
    EXPECT_EQ(get(), image(2, {}));  // created, still empty
}

TEST_F(RangeFileTest, AddDeleteImages) {
    const std::string c255(255, 'z');
    ASSERT_EQ(add("10.1.0.0", "10.1.255.255"), nullptr);
    ASSERT_EQ(add("192.168.7.1", "192.168.7.1", "one host"), nullptr);
    ASSERT_EQ(add("10.3.0.5", "10.3.0.9"), nullptr);
    EXPECT_STREQ(add("10.1.0.0", "10.1.255.255"), "Entry already exists");
    ASSERT_EQ(add("10.1.0.0", "10.1.255.255", c255.c_str()), nullptr);  // replaced in place
    EXPECT_EQ(get(), image(2, {{"10.1.0.0", "10.1.255.255", c255},
                               {"192.168.7.1", "192.168.7.1", "one host"},
                               {"10.3.0.5", "10.3.0.9", ""}}));

    EXPECT_TRUE(lookup("10.1.5.7"));
    EXPECT_FALSE(lookup("10.2.5.7"));  // another /16
    EXPECT_EQ(listing(), "10.1.0.0 - 10.1.255.255\n\t" + c255 +
                             "\n192.168.7.1 - 192.168.7.1\n\tone host\n10.3.0.5 - 10.3.0.9\n");

    uint32_t offset = 0;
    EXPECT_TRUE(ipr_file_contains_range(file().c_str(), "10.3.0.5", "10.3.0.9", &offset));
    EXPECT_EQ(offset, 16u + 2 * 264);
    EXPECT_FALSE(ipr_file_contains_range(file().c_str(), "10.3.0.5", "10.3.0.8", nullptr));
    EXPECT_FALSE(ipr_file_contains_range(file().c_str(), "10.3.0.9", "10.3.0.5", nullptr));
    EXPECT_ERROR_LINE("ipr_file_contains_range", "Invalid arguments for low and high range");
    clear_log();

    // Deleting what is not there leaves the very same file.
    fs::create_hard_link(file(), path("same"));
    EXPECT_EQ(del("10.3.0.5", "10.3.0.8"), nullptr);
    EXPECT_TRUE(fs::equivalent(file(), path("same")));

    // Leftovers of a writer that died are replaced, and the swap leaves none of its own.
    ow_test::spit(file() + ".new", std::string(2000, 'j'));  // longer than the new file
    ow_test::spit(file() + ".bak", "old backup");
    ASSERT_EQ(::chmod(file().c_str(), 0640), 0);
    EXPECT_EQ(del("10.1.0.0", "10.1.255.255"), nullptr);
    EXPECT_EQ(get(),
              image(2, {{"192.168.7.1", "192.168.7.1", "one host"}, {"10.3.0.5", "10.3.0.9", ""}}));
    EXPECT_FALSE(fs::exists(file() + ".new") || fs::exists(file() + ".bak"));
    EXPECT_EQ(fs::status(file()).permissions(), fs::perms(0640));
    fs::create_symlink(file(), path("linked"));  // a linked file stays linked
    EXPECT_EQ(del("10.3.0.5", "10.3.0.9", "linked"), nullptr);
    EXPECT_TRUE(fs::is_symlink(path("linked")));
    EXPECT_EQ(get(), image(2, {{"192.168.7.1", "192.168.7.1", "one host"}}));
    EXPECT_NO_ERRORS();
    EXPECT_STREQ(del("10.1.1.1", "10.1.1.2", "absent"), "Error opening file");
}

TEST_F(RangeFileTest, DamagedFiles) {
    const std::string good = image(2, {{"10.1.0.0", "10.1.0.255", ""}});
    std::string version3 = good, no_nul = good;
    version3[8] = 3;
    no_nul.replace(16 + 8, 256, std::string(256, 'n'));
    const std::string invalid = " has an invalid range - treating as corrupt";
    // The error line follows "file <path>"; 10.1.0.7 is in the one good range.
    const std::tuple<const char*, std::string, std::string, bool> cases[] = {
        {"short", good.substr(0, 10), "", false},
        {"signature", "x" + good.substr(1), "", false},
        {"version 3", version3, "", false},
        {"count beyond size", image(2, {{"10.2.0.0", "10.2.0.9", ""}}, 2), " is corrupt", false},
        {"low above high", image(2, {{"10.1.0.9", "10.1.0.1", ""}, {"10.1.0.0", "10.1.0.9", ""}}),
         invalid, false},
        {"crossing a /16", image(1, {{"10.1.0.0", "10.2.0.0", ""}}), invalid, false},
        {"comment without NUL", no_nul, "", true},
        {"trailing bytes", good + "xyz", "", true},
    };
    for (const auto& [what, bytes, error, found] : cases) {
        SCOPED_TRACE(what);
        put(bytes);
        clear_log();
        EXPECT_EQ(lookup("10.1.0.7"), found);
        EXPECT_EQ(ow_test::error_count(), error.empty() ? 0u : 1u) << ow_test::dump();
        EXPECT_TRUE(error.empty() ||
                    ow_test::has_error("file_contains_ip_range_match", "file " + file() + error));
    }
    // Listing stops at the 255th character of an unterminated comment.
    put(no_nul);
    EXPECT_EQ(listing(), "10.1.0.0 - 10.1.0.255\n\t" + std::string(255, 'n') + "\n");

    // A writer resets a file too short or too damaged to read.
    for (const std::string& bytes : {good.substr(0, 10), version3, std::string()}) {
        put(bytes);
        EXPECT_EQ(add("10.9.0.1", "10.9.0.2"), nullptr);
        EXPECT_EQ(get(), image(2, {{"10.9.0.1", "10.9.0.2", ""}}));
    }
    put(image(2, {{"10.2.0.0", "10.2.0.9", ""}}, 2));
    EXPECT_STREQ(add("10.9.0.1", "10.9.0.2"), "Error reading file");
    EXPECT_FALSE(fs::exists(file() + ".new"));
}

TEST_F(RangeFileTest, LegacyFormat) {
    const std::vector<rec> recs = {{"10.1.0.0", "10.1.0.255", ""}, {"10.4.0.1", "10.4.0.9", ""}};
    put(image(1, recs));
    EXPECT_TRUE(lookup("10.4.0.5"));
    EXPECT_EQ(listing(), "10.1.0.0 - 10.1.0.255\n10.4.0.1 - 10.4.0.9\n");
    uint32_t offset = 0;
    EXPECT_TRUE(ipr_file_contains_range(file().c_str(), "10.4.0.1", "10.4.0.9", &offset));
    EXPECT_EQ(offset, 16u + 8);
    EXPECT_STREQ(add("10.5.0.1", "10.5.0.2"), "Legacy format detected, abort");
    EXPECT_STREQ(del("10.1.0.0", "10.1.0.255"), "Legacy format detected, abort");
    EXPECT_EQ(get(), image(1, recs));

    EXPECT_TRUE(ipr_convert_file(dir_.c_str(), "r"));
    EXPECT_EQ(get(), image(2, recs));
    EXPECT_TRUE(ipr_convert_file(dir_.c_str(), "absent"));
    put(image(1, {recs[0]}, 3));  // count beyond the records
    EXPECT_FALSE(ipr_convert_file(dir_.c_str(), "r"));
    EXPECT_EQ(get(), image(1, {recs[0]}, 3));
    EXPECT_FALSE(fs::exists(file() + ".new") || fs::exists(file() + ".bak"));
}

TEST_F(RangeFileTest, FailedAllocationLeavesFileUnchanged) {
    const std::string start = image(2, {{"10.1.0.0", "10.1.0.255", "a"}});
    put(start);
    const long before = ow::testing::allocation_count();
    ASSERT_EQ(del("10.1.0.0", "10.1.0.255"), nullptr);
    const long needed = ow::testing::allocation_count() - before;
    for (long n = 1; n <= needed; ++n) {
        SCOPED_TRACE(n);
        put(start);
        ow::testing::fail_allocation(n);
        const bool ok = del("10.1.0.0", "10.1.0.255") == nullptr;
        ow::testing::fail_allocation(0);
        EXPECT_EQ(get(), ok ? image(2, {}) : start);
        EXPECT_FALSE(fs::exists(file() + ".new"));
    }
}

}  // namespace

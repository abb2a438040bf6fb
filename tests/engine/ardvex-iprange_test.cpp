// Many processes sharing one range file are tested with the list files.
#include "ardvex-iprange.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace fs = std::filesystem;

namespace {

uint32_t ip(const char* dotted) {
    in_addr a{};
    EXPECT_EQ(inet_pton(AF_INET, dotted, &a), 1) << dotted;
    return a.s_addr;
}

struct rec {
    const char* low;
    const char* high;
    std::string comment;
};

// A file image as the format defines it, written out independently of the module.
std::string image(uint8_t version, const std::vector<rec>& recs, long count = -1) {
    std::string out("\xea\xd3\x37\xa9\x80\x6c\xd7\x66", 8);
    out += static_cast<char>(version);
    out += std::string(3, '\0');
    const uint32_t n =
        count < 0 ? static_cast<uint32_t>(recs.size()) : static_cast<uint32_t>(count);
    out.append(reinterpret_cast<const char*>(&n), 4);
    for (const auto& r : recs) {
        const uint32_t lo = ip(r.low), hi = ip(r.high);
        out.append(reinterpret_cast<const char*>(&lo), 4);
        out.append(reinterpret_cast<const char*>(&hi), 4);
        if (version == 2) {
            std::string c = r.comment;
            c.resize(256, '\0');
            out += c;
        }
    }
    return out;
}

class RangeFileTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        std::string tmpl = fs::is_directory("/dev/shm") ? "/dev/shm/" : "/tmp/";
        tmpl += "ardvex_iprange_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
        LogCaptureTest::TearDown();
    }
    std::string path(const std::string& name = "r.range") const { return dir_ + "/" + name; }
    void put(const std::string& bytes, const std::string& name = "r.range") const {
        std::ofstream(path(name), std::ios::binary) << bytes;
    }
    std::string get(const std::string& name = "r.range") const {
        std::ifstream in(path(name), std::ios::binary);
        return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "<none>";
    }
    bool add(const char* lo, const char* hi, const char* comment = nullptr,
             const char** msg = nullptr) const {
        return ipr_add_range_to_file(dir_.c_str(), "r.range", lo, hi, comment, msg);
    }
    bool del(const char* lo, const char* hi, const char** msg = nullptr) const {
        return ipr_del_range_from_file(dir_.c_str(), "r.range", lo, hi, msg);
    }
    bool lookup(const char* addr) const {
        return file_contains_ip_range_match("r.range", addr, dir_.c_str());
    }
    std::string listing() const {
        testing::internal::CaptureStdout();
        ipr_list_file(dir_.c_str(), "r.range");
        return testing::internal::GetCapturedStdout();
    }
    std::string dir_;
};

TEST_F(RangeFileTest, OctetComparisonAndScopes) {
    const struct {
        const char* a;
        const char* b;
        int level;
        bool ge;
    } cases[] = {
        {"10.1.3.0", "10.1.2.255", 2, true},  // the third octet decides first
        {"11.0.0.0", "10.255.255.255", 0, true}, {"11.0.0.0", "10.255.255.255", 1, false},
        {"10.2.0.0", "10.1.0.0", 2, false},      {"10.1.3.1", "10.1.2.9", 3, false},
        {"10.1.2.9", "10.1.2.1", 5, true},       {"10.1.2.9", "10.1.2.9", 3, true},
        {"10.1.2.9", "10.1.2.9", 0, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ax_ip_ge(ip(c.a), ip(c.b), c.level), c.ge) << c.a << " " << c.b << " " << c.level;
    }

    const ipr_range net{ip("10.1.0.0"), ip("10.1.255.255")};
    EXPECT_FALSE(ax_ip_in_range(0, &net) || ax_ip_in_range(UINT32_MAX, &net));
    EXPECT_TRUE(ip_in_builtin_range("192.0.2.200"));
    EXPECT_FALSE(ip_in_builtin_range("192.0.3.1"));
    EXPECT_FALSE(ip_in_builtin_range(""));
    EXPECT_NO_ERRORS();
}

TEST_F(RangeFileTest, RefusedAddresses) {
    const struct {
        const char* addr;
        std::string line;
    } cases[] = {
        {"", "IP address argument is empty or NULL"},
        {"2001:db8::1",
         "Sorry but this system does not yet support IPv6 range checks for "
         "address [2001:db8::1]"},
        {"10.1", "Invalid IP address argument [10.1]"},
        {"10.1.1.1 ", "Invalid IP address argument [10.1.1.1 ]"},
        {"0.0.0.0", "This system does not support broadcast addresses [0.0.0.0]"},
        {"255.255.255.255", "This system does not support broadcast addresses [255.255.255.255]"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.addr);
        const char* msg = nullptr;
        EXPECT_FALSE(add(c.addr, "10.1.1.1", nullptr, &msg));
        EXPECT_STREQ(msg, "Invalid arguments to add");
        EXPECT_FALSE(del("10.1.1.1", c.addr, &msg));
        EXPECT_STREQ(msg, "Invalid arguments to add");
        EXPECT_FALSE(lookup(c.addr));
        ow_test::refused("__sane_ip", c.line, {true, true, true});
    }
    EXPECT_FALSE(fs::exists(path()));
    const char* msg = nullptr;
    EXPECT_FALSE(add("10.1.0.0", "10.1.0.1", std::string(256, 'c').c_str(), &msg));
    EXPECT_STREQ(msg, "Invalid arguments to add");
    EXPECT_FALSE(add("10.1.0.0", "10.2.0.0", nullptr, &msg));
    EXPECT_STREQ(msg, "Invalid ip range to add");
    EXPECT_FALSE(add("10.1.0.9", "10.1.0.1", nullptr, &msg));
    EXPECT_STREQ(msg, "Invalid ip range to add");
    EXPECT_EQ(get(), image(2, {}));  // created, still empty
}

TEST_F(RangeFileTest, AddDeleteImages) {
    const std::string c255(255, 'z');
    const char* msg = nullptr;
    ASSERT_TRUE(add("10.1.0.0", "10.1.255.255"));
    ASSERT_TRUE(add("192.168.7.1", "192.168.7.1", "one host"));
    ASSERT_TRUE(add("10.3.0.5", "10.3.0.9"));
    EXPECT_EQ(get(), image(2, {{"10.1.0.0", "10.1.255.255", ""},
                               {"192.168.7.1", "192.168.7.1", "one host"},
                               {"10.3.0.5", "10.3.0.9", ""}}));
    EXPECT_FALSE(add("10.1.0.0", "10.1.255.255", nullptr, &msg));
    EXPECT_STREQ(msg, "Entry already exists");
    ASSERT_TRUE(add("10.1.0.0", "10.1.255.255", c255.c_str()));  // comment replaced in place
    EXPECT_EQ(get(), image(2, {{"10.1.0.0", "10.1.255.255", c255},
                               {"192.168.7.1", "192.168.7.1", "one host"},
                               {"10.3.0.5", "10.3.0.9", ""}}));

    EXPECT_TRUE(lookup("10.1.5.7"));
    EXPECT_FALSE(lookup("10.2.5.7"));  // another /16
    EXPECT_EQ(listing(), "10.1.0.0 - 10.1.255.255\n\t" + c255 +
                             "\n192.168.7.1 - 192.168.7.1\n\tone host\n10.3.0.5 - 10.3.0.9\n");

    uint32_t offset = 0;
    EXPECT_TRUE(ipr_file_contains_range(path().c_str(), "10.3.0.5", "10.3.0.9", &offset));
    EXPECT_EQ(offset, 16u + 2 * 264);
    EXPECT_FALSE(ipr_file_contains_range(path().c_str(), "10.3.0.5", "10.3.0.8", nullptr));
    EXPECT_FALSE(ipr_file_contains_range(path().c_str(), "10.3.0.9", "10.3.0.5", nullptr));
    EXPECT_ERROR_LINE("ipr_file_contains_range", "Invalid arguments for low and high range");
    clear_log();

    // Deleting what is not there leaves the very same file.
    struct stat before {
    }, after{};
    ASSERT_EQ(::stat(path().c_str(), &before), 0);
    EXPECT_TRUE(del("10.3.0.5", "10.3.0.8"));
    ASSERT_EQ(::stat(path().c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);

    // Leftovers of a writer that died are replaced, and the swap leaves none of its own.
    put("junk that is longer than the new file will be" + std::string(2000, 'j'), "r.range.new");
    put("old backup", "r.range.bak");
    ASSERT_EQ(::chmod(path().c_str(), 0640), 0);
    EXPECT_TRUE(del("10.1.0.0", "10.1.255.255"));
    EXPECT_EQ(get(),
              image(2, {{"192.168.7.1", "192.168.7.1", "one host"}, {"10.3.0.5", "10.3.0.9", ""}}));
    EXPECT_FALSE(fs::exists(path("r.range.new")));
    EXPECT_FALSE(fs::exists(path("r.range.bak")));
    ASSERT_EQ(::stat(path().c_str(), &after), 0);
    EXPECT_EQ(after.st_mode & 0777, 0640u);
    fs::create_symlink(path(), path("linked"));  // a linked file stays linked
    EXPECT_TRUE(ipr_del_range_from_file(dir_.c_str(), "linked", "10.3.0.5", "10.3.0.9", &msg));
    EXPECT_TRUE(fs::is_symlink(path("linked")));
    EXPECT_EQ(get(), image(2, {{"192.168.7.1", "192.168.7.1", "one host"}}));
    EXPECT_NO_ERRORS();

    EXPECT_FALSE(ipr_del_range_from_file(dir_.c_str(), "absent", "10.1.1.1", "10.1.1.2", &msg));
    EXPECT_STREQ(msg, "Error opening file");
}

TEST_F(RangeFileTest, DamagedFiles) {
    const std::string good = image(2, {{"10.1.0.0", "10.1.0.255", ""}});
    std::string version3 = good;
    version3[8] = 3;
    std::string bad_signature = good;
    bad_signature[0] = 'x';
    std::string no_nul = good;
    no_nul.replace(16 + 8, 256, std::string(256, 'n'));
    const struct {
        const char* what;
        std::string bytes;
        std::string error;  // after "file <path>"; empty: none
        bool found;         // 10.1.0.7 is found
    } cases[] = {
        {"empty", "", "", false},
        {"short", good.substr(0, 10), "", false},
        {"signature", bad_signature, "", false},
        {"version 3", version3, "", false},
        {"count beyond size", image(2, {{"10.2.0.0", "10.2.0.9", ""}}, 2), " is corrupt", false},
        {"low above high", image(2, {{"10.1.0.9", "10.1.0.1", ""}, {"10.1.0.0", "10.1.0.9", ""}}),
         " has an invalid range - treating as corrupt", false},
        {"crossing a /16", image(1, {{"10.1.0.0", "10.2.0.0", ""}}),
         " has an invalid range - treating as corrupt", false},
        {"comment without NUL", no_nul, "", true},
        {"trailing bytes", good + "xyz", "", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        put(c.bytes);
        clear_log();
        EXPECT_EQ(lookup("10.1.0.7"), c.found);
        if (c.error.empty()) {
            EXPECT_NO_ERRORS();
        } else {
            EXPECT_ERROR_LINE("file_contains_ip_range_match", "file " + path() + c.error);
        }
    }
    // Listing stops at the 255th character of an unterminated comment.
    put(no_nul);
    EXPECT_EQ(listing(), "10.1.0.0 - 10.1.0.255\n\t" + std::string(255, 'n') + "\n");

    // A writer resets a file too short or too damaged to read.
    for (const std::string& bytes : {good.substr(0, 10), version3, std::string()}) {
        put(bytes);
        EXPECT_TRUE(add("10.9.0.1", "10.9.0.2"));
        EXPECT_EQ(get(), image(2, {{"10.9.0.1", "10.9.0.2", ""}}));
    }
    put(image(2, {{"10.2.0.0", "10.2.0.9", ""}}, 2));
    const char* msg = nullptr;
    EXPECT_FALSE(add("10.9.0.1", "10.9.0.2", nullptr, &msg));
    EXPECT_STREQ(msg, "Error reading file");
    EXPECT_FALSE(fs::exists(path("r.range.new")));
}

TEST_F(RangeFileTest, LegacyFormat) {
    const std::string v1 =
        image(1, {{"10.1.0.0", "10.1.0.255", ""}, {"172.16.4.1", "172.16.4.9", ""}});
    put(v1);
    EXPECT_TRUE(lookup("172.16.4.5"));
    EXPECT_EQ(listing(), "10.1.0.0 - 10.1.0.255\n172.16.4.1 - 172.16.4.9\n");
    uint32_t offset = 0;
    EXPECT_TRUE(ipr_file_contains_range(path().c_str(), "172.16.4.1", "172.16.4.9", &offset));
    EXPECT_EQ(offset, 16u + 8);
    const char* msg = nullptr;
    EXPECT_FALSE(add("10.5.0.1", "10.5.0.2", nullptr, &msg));
    EXPECT_STREQ(msg, "Legacy format detected, abort");
    EXPECT_FALSE(del("10.1.0.0", "10.1.0.255", &msg));
    EXPECT_STREQ(msg, "Legacy format detected, abort");
    EXPECT_EQ(get(), v1);

    EXPECT_TRUE(ipr_convert_file(dir_.c_str(), "r.range"));
    const std::string v2 =
        image(2, {{"10.1.0.0", "10.1.0.255", ""}, {"172.16.4.1", "172.16.4.9", ""}});
    EXPECT_EQ(get(), v2);
    EXPECT_TRUE(ipr_convert_file(dir_.c_str(), "absent"));
    put(image(1, {{"10.1.0.0", "10.1.0.255", ""}}, 3));  // count beyond the records
    EXPECT_FALSE(ipr_convert_file(dir_.c_str(), "r.range"));
    EXPECT_EQ(get(), image(1, {{"10.1.0.0", "10.1.0.255", ""}}, 3));
    EXPECT_FALSE(fs::exists(path("r.range.new")));
    EXPECT_FALSE(fs::exists(path("r.range.bak")));
}

TEST_F(RangeFileTest, FailedAllocationLeavesFileUnchanged) {
    const std::string start = image(2, {{"10.1.0.0", "10.1.0.255", "a"}});
    put(start);
    const long before = ow::testing::allocation_count();
    ASSERT_TRUE(del("10.1.0.0", "10.1.0.255"));
    const long needed = ow::testing::allocation_count() - before;
    for (long n = 1; n <= needed; ++n) {
        SCOPED_TRACE(n);
        put(start);
        ow::testing::fail_allocation(n);
        const bool ok = del("10.1.0.0", "10.1.0.255");
        ow::testing::fail_allocation(0);
        EXPECT_EQ(get(), ok ? image(2, {}) : start);
        EXPECT_FALSE(fs::exists(path("r.range.new")));
    }
}

}  // namespace

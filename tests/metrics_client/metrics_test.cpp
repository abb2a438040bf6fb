// Tests of the metric collectors where the run of the whole client cannot reach: how the
// enabled switch, the panel tool's output and the identity files are read, case by case.
#include "metrics.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "log_capture.hpp"

namespace {

class MetricsTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        const char* tmp = std::getenv("TMPDIR");
        std::string templ =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/metrics_test.XXXXXX";
        ASSERT_NE(mkdtemp(templ.data()), nullptr);
        dir_ = templ + "/";
    }
    void TearDown() override {
        for (const char* name : {"enabled", "license_key", "product_id", "server_id", "output"}) {
            std::string path = dir_ + name;
            if (::unlink(path.c_str()) != 0) ::rmdir(path.c_str());
        }
        ::rmdir(dir_.c_str());
        LogCaptureTest::TearDown();
    }
    void put(const char* name, const std::string& contents) {
        FILE* f = std::fopen((dir_ + name).c_str(), "wb");
        ASSERT_NE(f, nullptr);
        std::fwrite(contents.data(), 1, contents.size(), f);
        std::fclose(f);
    }
    // The value of a collector as a string, "(none)" for NULL.
    static std::string take(char* value) {
        std::string out = value != nullptr ? value : "(none)";
        std::free(value);
        return out;
    }
    std::string dir_;
};

TEST_F(MetricsTest, EnabledSwitchReadsAsStrtolCutTo32Bits) {
    const struct {
        const char* contents;
        bool on;
    } cases[] = {
        {"1", true},     {"1\n", true},        {" 01", true}, {"1abc", true},
        {"+1", true},    {"4294967297", true}, {"0", false},  {"2", false},
        {"", false},     {"yes", false},       {"-1", false}, {"4294967296", false},
        {"1.5e0", true}, {"\n\n 1", true},     {"11", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("contents [") + c.contents + "]");
        put("enabled", c.contents);
        EXPECT_EQ(ardvex_enabled_ex(dir_.c_str()), c.on);
    }
    EXPECT_NO_ERRORS();
}

TEST_F(MetricsTest, EnabledSwitchMissingOrNotAFileIsOff) {
    EXPECT_FALSE(ardvex_enabled_ex(dir_.c_str()));
    ASSERT_EQ(::mkdir((dir_ + "enabled").c_str(), 0755), 0);
    EXPECT_FALSE(ardvex_enabled_ex(dir_.c_str()));
    // The directory without its trailing slash reaches the same file.
    ASSERT_EQ(::rmdir((dir_ + "enabled").c_str()), 0);
    put("enabled", "1");
    EXPECT_TRUE(ardvex_enabled_ex(dir_.substr(0, dir_.size() - 1).c_str()));
    EXPECT_NO_ERRORS();
}

// The panel tool's output, produced by running /bin/cat on a file that holds it.
TEST_F(MetricsTest, PanelVersionIsTheFirstDottedRunOfTheFirstLine) {
    const struct {
        const char* output;
        const char* value;
    } cases[] = {
        {"8.8.15_GA_3869\n", "8.8.15"},
        {"Release 10.0.2.1 build 4\n", "10.0.2.1"},
        {"1.2.3.4.5\n", "1.2.3.4"},
        {"Release 8.8.15_GA_3869.UBUNTU16.64 UBUNTU16_64 FOSS edition.\n", "8.8.15"},
        {"v9.0.0", "9.0.0"},  // no line feed at the end
        // Without a match the line itself is the value; the loader trims it.
        {"8.8\n", "8.8\n"},
        {"unknown\n", "unknown\n"},
        {"\n", "\n"},
        // Only the first line counts.
        {"no version here\n8.8.15\n", "no version here\n"},
    };
    const std::string output = dir_ + "output";
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("output [") + c.output + "]");
        put("output", c.output);
        EXPECT_EQ(take(metric_web_panel_version_ex("/bin/cat", output.c_str())), c.value);
    }
    EXPECT_NO_ERRORS();
}

TEST_F(MetricsTest, PanelVersionWithoutOutputIsNone) {
    put("output", "");
    const std::string output = dir_ + "output";
    EXPECT_EQ(take(metric_web_panel_version_ex("/bin/cat", output.c_str())), "(none)");
    EXPECT_ERROR_LINE("__read_line_from_pipe",
                      std::string("failed to read from pipe: ") + std::strerror(ENODATA));
    // A wrapper that cannot be started prints nothing either.
    clear_log();
    EXPECT_EQ(take(metric_web_panel_version_ex((dir_ + "missing").c_str(), output.c_str())),
              "(none)");
    EXPECT_ERROR_LINE("__read_line_from_pipe",
                      std::string("failed to read from pipe: ") + std::strerror(ENODATA));
}

TEST_F(MetricsTest, IdentityFiles) {
    const char* dir = dir_.c_str();
    // Nothing there: no value and no line (the metric set names the metric).
    EXPECT_EQ(take(metric_license_key_ex(dir)), "(none)");
    EXPECT_EQ(take(metric_product_id_ex(dir)), "(none)");
    EXPECT_EQ(take(metric_permitted_use_code_ex(dir)), "(none)");
    EXPECT_NO_ERRORS();

    // The key and the server id come as the files hold them, less CR and LF for the id.
    put("license_key", " K-1 2\n");
    put("server_id", "AB\r\nCD\n");
    EXPECT_EQ(take(metric_license_key_ex(dir)), " K-1 2\n");
    EXPECT_EQ(take(metric_permitted_use_code_ex(dir)), "ABCD");
    put("server_id", "\r\n");
    EXPECT_EQ(take(metric_permitted_use_code_ex(dir)), "(none)");
    put("license_key", " \n\t");
    EXPECT_EQ(take(metric_license_key_ex(dir)), "(none)");
    put("license_key", "K");
    EXPECT_NO_ERRORS();

    const struct {
        const char* contents;
        const char* value;
    } products[] = {
        {"7", "7"},
        {"7\n", "7"},
        {" \t007 \n", "7"},
        {"-12", "-12"},
        {"2147483647", "2147483647"},
        {"-2147483648", "-2147483648"},
        {"", "(none)"},
        {" \n", "(none)"},
    };
    for (const auto& p : products) {
        SCOPED_TRACE(std::string("product_id [") + p.contents + "]");
        put("product_id", p.contents);
        EXPECT_EQ(take(metric_product_id_ex(dir)), p.value);
    }
    EXPECT_NO_ERRORS();

    const std::string malformed =
        std::string("product id in [") + dir + "product_id] is not a decimal 32-bit integer";
    for (const char* bad : {"2147483648", "7x", "seven", "+7", "7 7", "0x7"}) {
        SCOPED_TRACE(std::string("product_id [") + bad + "]");
        clear_log();
        put("product_id", bad);
        EXPECT_EQ(take(metric_product_id_ex(dir)), "(none)");
        EXPECT_ERROR_LINE("identity_key_and_product", malformed);
    }

    // The product number comes only together with a key.
    put("product_id", "7");
    ::unlink((dir_ + "license_key").c_str());
    EXPECT_EQ(take(metric_product_id_ex(dir)), "(none)");
}

TEST_F(MetricsTest, IdentityFileThatIsADirectoryIsNone) {
    ASSERT_EQ(::mkdir((dir_ + "license_key").c_str(), 0755), 0);
    EXPECT_EQ(take(metric_license_key_ex(dir_.c_str())), "(none)");
    EXPECT_NO_ERRORS();
}

}  // namespace

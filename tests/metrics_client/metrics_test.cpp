// Tests of the metric collectors where the run of the whole client cannot reach: how the
// enabled switch, the panel tool's output and the identity files are read, case by case.
#include "metrics.h"

#include "scratch.hpp"

namespace {

using ow_test::spit;

using MetricsTest = ow_test::ScratchTest;

// The value of a collector as a string, "(none)" for NULL.
std::string take(char* value) {
    std::string out = value != nullptr ? value : "(none)";
    std::free(value);
    return out;
}

TEST_F(MetricsTest, EnabledSwitchReadsAsStrtolCutTo32Bits) {
    EXPECT_FALSE(ardvex_enabled_ex(dir_.c_str()));  // missing
    const struct {
        const char* contents;
        bool on;
    } cases[] = {{"1\n", true}, {" 01", true},        {"1abc", true}, {"4294967297", true},
                 {"0", false},  {"2", false},         {"", false},    {"-1", false},
                 {"11", false}, {"4294967296", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("contents [") + c.contents + "]");
        spit(path("enabled"), c.contents);
        EXPECT_EQ(ardvex_enabled_ex(dir_.c_str()), c.on);
    }
    // The directory with a trailing slash reaches the same file.
    spit(path("enabled"), "1");
    EXPECT_TRUE(ardvex_enabled_ex((dir_ + "/").c_str()));
    // Files that are directories read as missing.
    ow_test::fs::remove(path("enabled"));
    for (const char* name : {"enabled", "license_key"}) ow_test::fs::create_directory(path(name));
    EXPECT_FALSE(ardvex_enabled_ex(dir_.c_str()));
    EXPECT_EQ(take(metric_license_key_ex(dir_.c_str())), "(none)");
    EXPECT_NO_ERRORS();
}

// The panel tool's output, produced by running /bin/cat on a file that holds it.
TEST_F(MetricsTest, PanelVersionIsTheFirstDottedRunOfTheFirstLine) {
    const struct {
        const char* output;
        const char* value;
    } cases[] = {{"8.8.15_GA_3869\n", "8.8.15"},
                 {"Release 10.0.2.1 build 4\n", "10.0.2.1"},
                 {"1.2.3.4.5\n", "1.2.3.4"},
                 {"v9.0.0", "9.0.0"},  // no line feed at the end
                 // Without a match the line itself is the value; the loader trims it.
                 {"8.8\n", "8.8\n"},
                 {"\n", "\n"},
                 {"no version here\n8.8.15\n", "no version here\n"},  // only the first line counts
                 {"", "(none)"}};
    const std::string output = path("output");
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("output [") + c.output + "]");
        spit(output, c.output);
        EXPECT_EQ(take(metric_web_panel_version_ex("/bin/cat", output.c_str())), c.value);
    }
    // A wrapper that cannot be started prints nothing either.
    EXPECT_EQ(take(metric_web_panel_version_ex(path("missing").c_str(), output.c_str())), "(none)");
    EXPECT_EQ(ow_test::error_count(), 3u) << ow_test::dump();
    EXPECT_ERROR_LINE("__read_line_from_pipe",
                      std::string("failed to read from pipe: ") + std::strerror(ENODATA));
}

TEST_F(MetricsTest, IdentityFiles) {
    using collector = char* (*)(const char*);
    const collector key = metric_license_key_ex, product = metric_product_id_ex,
                    use_code = metric_permitted_use_code_ex;
    // Steps run in order on one directory; file nullptr writes nothing.
    const struct {
        const char* file;
        const char* contents;
        collector metric;
        const char* value;
    } steps[] = {
        // Nothing there: no value and no line (the metric set names the metric).
        {nullptr, "", key, "(none)"},
        {nullptr, "", product, "(none)"},
        {nullptr, "", use_code, "(none)"},
        // The key and the server id come as the files hold them, less CR and LF for the id.
        {"license_key", " K-1 2\n", key, " K-1 2\n"},
        {"server_id", "AB\r\nCD\n", use_code, "ABCD"},
        {"server_id", "\r\n", use_code, "(none)"},
        {"license_key", " \n\t", key, "(none)"},
        {"product_id", "7", product, "(none)"},  // the product number comes only with a key
        {"license_key", "K", product, "7"},
        {"product_id", " \t007 \n", product, "7"},
        {"product_id", "2147483647", product, "2147483647"},
        {"product_id", "-2147483648", product, "-2147483648"},
        {"product_id", " \n", product, "(none)"}};
    for (const auto& s : steps) {
        SCOPED_TRACE(std::string(s.file ? s.file : "-") + " [" + s.contents + "]");
        if (s.file != nullptr) spit(path(s.file), s.contents);
        EXPECT_EQ(take(s.metric(dir_.c_str())), s.value);
    }
    EXPECT_NO_ERRORS();
    const std::string malformed =
        "product id in [" + path("product_id") + "] is not a decimal 32-bit integer";
    for (const char* bad : {"2147483648", "7x", "+7", "7 7"}) {
        SCOPED_TRACE(std::string("product_id [") + bad + "]");
        spit(path("product_id"), bad);
        ow_test::refused("identity_key_and_product", malformed,
                         {take(product(dir_.c_str())) == "(none)"});
    }
}

}  // namespace

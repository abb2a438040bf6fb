// Tests of the NULL-terminated string arrays: splitting, growth, lookup, removal, and the
// failure paths with their log lines.
#include "ow_nulltermlist.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

const std::string kEinval = std::strerror(EINVAL);
const std::string kEnomem = std::strerror(ENOMEM);

std::vector<std::string> entries(char* const* list) {
    std::vector<std::string> out;
    for (std::size_t i = 0; list != nullptr && list[i] != nullptr; ++i) out.emplace_back(list[i]);
    return out;
}

class NullTermListTest : public ow_test::LogCaptureTest {
   protected:
    void TearDown() override {
        ow_lstfree(&list_, std::free);
        LogCaptureTest::TearDown();
    }
    char** list_ = nullptr;
};

TEST_F(NullTermListTest, SplodeCutsAtEveryDelimiter) {
    struct Case {
        const char* input;
        char delim;
        bool keep_empty;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"ls -l  /tmp", ' ', false, {"ls", "-l", "/tmp"}},
        {"ls -l  /tmp", ' ', true, {"ls", "-l", "", "/tmp"}},
        {"whole", ',', false, {"whole"}},
        {"", ',', true, {}},
        {",a,", ',', true, {"", "a", ""}},
        {",a,", ',', false, {"a"}},
        {",,,", ',', false, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string("[") + c.input + "] keep_empty=" + (c.keep_empty ? "1" : "0"));
        char** list = nullptr;
        EXPECT_TRUE(ow_lstsplode_ex(&list, c.input, c.delim, c.keep_empty));
        EXPECT_EQ(entries(list), c.expected);
        ow_lstfree(&list, std::free);
        EXPECT_EQ(list, nullptr);
    }
    EXPECT_NO_ERRORS();
}

TEST_F(NullTermListTest, GrowsAndSharesEntries) {
    char a[] = "a";
    char b[] = "b";
    char c[] = "c";
    ASSERT_NE(ow_lstcat(&list_, a), nullptr);
    ASSERT_EQ(ow_lstcount(list_), 1u);
    EXPECT_EQ(list_[0], a);  // stored, not copied
    EXPECT_EQ(list_[1], nullptr);

    char* second[] = {b, c, nullptr};
    ASSERT_NE(ow_lstappend(&list_, second), nullptr);
    EXPECT_EQ(entries(list_), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(list_[2], c);
    EXPECT_EQ(list_[3], nullptr);
    ow_lstfree(&list_, nullptr);  // the entries are ours here

    char* empty[] = {nullptr};
    ASSERT_NE(ow_lstappend(&list_, empty), nullptr);
    EXPECT_EQ(list_[0], nullptr);
    EXPECT_EQ(ow_lstcount(list_), 0u);
    ow_lstfree(&list_, nullptr);
    EXPECT_EQ(ow_lstcount(nullptr), 0u);
    EXPECT_NO_ERRORS();
}

TEST_F(NullTermListTest, FindAndEqualUseTheComparator) {
    ASSERT_TRUE(ow_lstsplode_ex(&list_, "x y z", ' ', false));
    char** other = nullptr;
    ASSERT_TRUE(ow_lstsplode_ex(&other, "x y z", ' ', false));

    char** hit = ow_lstfind(list_, "y", std::strcmp);
    ASSERT_NE(hit, nullptr);
    EXPECT_EQ(hit, list_ + 1);
    EXPECT_EQ(ow_lstfind(list_, "y", nullptr), nullptr);  // a different pointer
    EXPECT_EQ(ow_lstfind(list_, list_[2], nullptr), list_ + 2);

    EXPECT_EQ(ow_lstequal(list_, other, std::strcmp), 1);
    EXPECT_EQ(ow_lstequal(list_, other, nullptr), 0);
    char* shorter[] = {list_[0], list_[1], nullptr};
    EXPECT_EQ(ow_lstequal(list_, shorter, std::strcmp), 0);
    EXPECT_EQ(ow_lstequal(shorter, list_, std::strcmp), 0);
    char* none[] = {nullptr};
    EXPECT_EQ(ow_lstequal(none, none, nullptr), 1);
    EXPECT_EQ(ow_lstequal(nullptr, none, nullptr), -1);
    ow_lstfree(&other, std::free);
    EXPECT_NO_ERRORS();
}

TEST_F(NullTermListTest, RemoveShiftsTheRestAndReleases) {
    ASSERT_TRUE(ow_lstsplode_ex(&list_, "a b c", ' ', false));
    EXPECT_TRUE(ow_lstremove(list_, 0, std::free));
    EXPECT_EQ(entries(list_), (std::vector<std::string>{"b", "c"}));
    EXPECT_EQ(list_[2], nullptr);

    EXPECT_FALSE(ow_lstremove(list_, 2, std::free));
    EXPECT_ERROR_LINE("ow_lstremove", kEinval);
    EXPECT_FALSE(ow_lstremove(nullptr, 0, std::free));
}

TEST_F(NullTermListTest, RefusedArguments) {
    char a[] = "a";
    char* empty[] = {nullptr};
    struct Case {
        const char* func;
        bool refused;
    };
    const Case cases[] = {
        {"ow_lstcat", ow_lstcat(nullptr, a) == nullptr},
        {"ow_lstcat", ow_lstcat(&list_, nullptr) == nullptr},
        {"ow_lstappend", ow_lstappend(nullptr, empty) == nullptr},
        {"ow_lstappend", ow_lstappend(&list_, nullptr) == nullptr},
        {"ow_lstfind", ow_lstfind(nullptr, "a", nullptr) == nullptr},
        {"ow_lstfind", ow_lstfind(empty, nullptr, nullptr) == nullptr},
        {"ow_lstsplode_ex", !ow_lstsplode_ex(nullptr, "a", ' ', false)},
        {"ow_lstsplode_ex", !ow_lstsplode_ex(&list_, nullptr, ' ', false)},
        {"ow_lstsplode_ex", !ow_lstsplode_ex(&list_, "a", '\0', false)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.func);
        EXPECT_TRUE(c.refused);
        EXPECT_ERROR_LINE(c.func, kEinval);
    }
    EXPECT_EQ(list_, nullptr);
    ow_lstfree(nullptr, std::free);  // no-op
}

TEST_F(NullTermListTest, FailedGrowthKeepsTheOldArray) {
    ASSERT_TRUE(ow_lstsplode_ex(&list_, "a b", ' ', false));
    char** before = list_;
    char c[] = "c";
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ow_lstcat(&list_, c), nullptr);
    EXPECT_ERROR_LINE("ow_lstcat", kEnomem);
    EXPECT_EQ(list_, before);
    EXPECT_EQ(entries(list_), (std::vector<std::string>{"a", "b"}));

    // Splitting "x y": piece copy, block growth, piece copy, block growth. Failing the
    // growth for "y" keeps "x" and frees the copy of "y".
    clear_log();
    ow_lstfree(&list_, std::free);
    ow::testing::fail_allocation(4);
    EXPECT_FALSE(ow_lstsplode_ex(&list_, "x y", ' ', false));
    EXPECT_ERROR_LINE("ow_lstcat", kEnomem);
    EXPECT_ERROR_LINE("ow_lstsplode_ex", "Failed to append entry to list");
    EXPECT_EQ(entries(list_), (std::vector<std::string>{"x"}));

    clear_log();
    ow::testing::fail_allocation(1);
    EXPECT_FALSE(ow_lstsplode_ex(&list_, "y", ' ', false));
    EXPECT_ERROR_LINE("ow_lstsplode_ex", kEnomem);
    EXPECT_EQ(entries(list_), (std::vector<std::string>{"x"}));
}

}  // namespace

// The NULL-terminated string arrays, their failure paths and log lines.
#include "ow_nulltermlist.h"

#include <tuple>

#include "ow_internal.hpp"
#include "scratch.hpp"

namespace {

using ow_test::refused;
using strings = std::vector<std::string>;

strings entries(char* const* list) {
    strings out;
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
    const std::tuple<const char*, char, bool, strings> cases[] = {
        {"ls -l  /tmp", ' ', false, {"ls", "-l", "/tmp"}},
        {"ls -l  /tmp", ' ', true, {"ls", "-l", "", "/tmp"}},
        {",a,", ',', true, {"", "a", ""}},
        {",,,", ',', false, {}},
    };
    for (const auto& [input, delim, keep_empty, expected] : cases) {
        SCOPED_TRACE(std::string("[") + input + "] keep_empty=" + (keep_empty ? "1" : "0"));
        EXPECT_TRUE(ow_lstsplode_ex(&list_, input, delim, keep_empty));
        EXPECT_EQ(entries(list_), expected);
        ow_lstfree(&list_, std::free);
    }
    EXPECT_NO_ERRORS();
}

TEST_F(NullTermListTest, GrowFindEqualAndRemove) {
    char a[] = "a", b[] = "b", c[] = "c";
    char* tail[] = {b, c, nullptr};
    char* prefix[] = {a, b, nullptr};
    char* none[] = {nullptr};
    ASSERT_TRUE(ow_lstcat(&list_, a) && ow_lstappend(&list_, tail) && ow_lstappend(&list_, none));
    ASSERT_EQ(ow_lstcount(list_), 3u);
    EXPECT_EQ(list_[0], a);  // stored, not copied

    // Without a comparator only the same pointer matches.
    char** copies = nullptr;
    ASSERT_TRUE(ow_lstsplode_ex(&copies, "a b c", ' ', false));
    EXPECT_EQ(ow_lstfind(list_, "b", std::strcmp), list_ + 1);
    EXPECT_EQ(ow_lstfind(list_, "b", nullptr), nullptr);
    EXPECT_EQ(ow_lstequal(list_, copies, std::strcmp), 1);
    EXPECT_EQ(ow_lstequal(list_, copies, nullptr), 0);
    EXPECT_EQ(ow_lstequal(list_, prefix, std::strcmp), 0);
    EXPECT_EQ(ow_lstequal(none, none, nullptr), 1);
    EXPECT_EQ(ow_lstequal(nullptr, none, nullptr), -1);

    EXPECT_TRUE(ow_lstremove(copies, 0, std::free));
    EXPECT_EQ(entries(copies), (strings{"b", "c"}));
    ow_lstfree(&copies, std::free);
    ow_lstfree(&list_, nullptr);                                     // the entries are ours here
    EXPECT_TRUE(ow_lstappend(&list_, none) && list_[0] == nullptr);  // empty, not a failure
    EXPECT_EQ(ow_lstcount(nullptr), 0u);
    EXPECT_NO_ERRORS();
}

TEST_F(NullTermListTest, RefusalsAndFailedGrowth) {
    char a[] = "a";
    char* one[] = {a, nullptr};
    const std::string inval = std::strerror(EINVAL), enomem = std::strerror(ENOMEM);
    refused("ow_lstcat", inval, {!ow_lstcat(nullptr, a), !ow_lstcat(&list_, nullptr)});
    refused("ow_lstappend", inval, {!ow_lstappend(nullptr, one), !ow_lstappend(&list_, nullptr)});
    refused("ow_lstfind", inval, {!ow_lstfind(one, nullptr, nullptr)});
    refused("ow_lstsplode_ex", inval, {!ow_lstsplode_ex(&list_, "a", '\0', false)});
    refused("ow_lstremove", inval,  // the second index is past the end
            {!ow_lstremove(nullptr, 0, std::free), !ow_lstremove(one, 1, nullptr)});
    EXPECT_EQ(list_, nullptr);
    EXPECT_EQ(entries(one), strings{"a"});
    // "x y": copy, growth, copy, growth; failing the growth for "y" keeps "x", frees the copy.
    ow::testing::fail_allocation(4);
    const bool failed = !ow_lstsplode_ex(&list_, "x y", ' ', false);
    EXPECT_ERROR_LINE("ow_lstcat", enomem);
    refused("ow_lstsplode_ex", "Failed to append entry to list", {failed});
    ow::testing::fail_allocation(1);
    refused("ow_lstsplode_ex", enomem, {!ow_lstsplode_ex(&list_, "y", ' ', false)});
    EXPECT_EQ(entries(list_), strings{"x"});
}

}  // namespace

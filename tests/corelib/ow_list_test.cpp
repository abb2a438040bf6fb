// Tests of the linked list: insertion and its counts, splitting, the stable sort, searches,
// removal, positional access, and the refusals and allocation failures with their lines.
#include "ow_list.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

using ow_test::refused;
using strings = std::vector<std::string>;

strings texts(const ow_list* l) {
    strings out;
    for (; l != nullptr; l = l->next) out.emplace_back(static_cast<const char*>(l->data));
    return out;
}

// A comparator for an array of string pointers, used unchanged on list entries.
int by_string(const void* a, const void* b) {
    return std::strcmp(*static_cast<char* const*>(a), *static_cast<char* const*>(b));
}
// Orders by the first character only, so entries that differ later are "equal".
int by_first_char(const void* a, const void* b) {
    return **static_cast<char* const*>(a) - **static_cast<char* const*>(b);
}

class ListTest : public ow_test::LogCaptureTest {
   protected:
    void TearDown() override {
        ow_destroy_list(&list_, std::free);
        LogCaptureTest::TearDown();
    }
    void add(const char* s) {
        std::string copy(s);
        ASSERT_GT(ow_append_list_entry(&list_, copy.data(), copy.size() + 1, true), 0);
    }
    ow_list* list_ = nullptr;
};

TEST_F(ListTest, AppendCountsAndPrependGoesFirst) {
    char a[] = "a", b[] = "b", c[] = "c", z[] = "z";
    EXPECT_EQ(ow_append_list_entry(&list_, a, 2, true), 1);
    EXPECT_EQ(ow_append_list_entry(&list_, b, 2, true), 2);
    EXPECT_EQ(ow_append_list_entry(&list_, c, 2, true), 3);
    EXPECT_EQ(ow_prepend_list_entry(&list_, z, 2, true), 1);
    EXPECT_EQ(texts(list_), (strings{"z", "a", "b", "c"}));
    EXPECT_EQ(ow_list_count(list_), 4u);
    EXPECT_NE(list_->data, static_cast<void*>(z));  // copied

    // Borrowed data is the caller's: destroying with no release frees only the records.
    ow_list* borrowed = nullptr;
    EXPECT_EQ(ow_append_list_entry(&borrowed, a, 2, false), 1);
    EXPECT_EQ(borrowed->data, static_cast<void*>(a));
    EXPECT_EQ(borrowed->size, 2u);
    ow_destroy_list(&borrowed, nullptr);
    EXPECT_EQ(borrowed, nullptr);
    EXPECT_NO_ERRORS();
}

TEST_F(ListTest, SplitKeepsEveryPiece) {
    const struct {
        std::string input;
        strings pieces;
        std::vector<uint64_t> sizes;
    } cases[] = {
        {"a,,b,", {"a", "", "b", ""}, {3, 1, 3, 1}},
        {",", {"", ""}, {1, 1}},
        {"abc", {"abc"}, {5}},
        {std::string("x\0y,z", 5), {"x", "z"}, {5, 3}},  // NUL bytes are data, not ends
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.input);
        ASSERT_TRUE(ow_list_from_string_by_char(&list_, c.input.data(), c.input.size(), ','));
        EXPECT_EQ(texts(list_), c.pieces);
        std::vector<uint64_t> sizes;
        for (const ow_list* e = list_; e != nullptr; e = e->next) sizes.push_back(e->size);
        EXPECT_EQ(sizes, c.sizes);
        ow_destroy_list(&list_, std::free);
    }
    EXPECT_NO_ERRORS();
}

TEST_F(ListTest, SortIsStable) {
    for (const char* s : {"b1", "a1", "c1", "a2", "b2", "a3"}) add(s);
    ASSERT_TRUE(ow_list_sort(&list_, by_first_char));
    EXPECT_EQ(texts(list_), (strings{"a1", "a2", "a3", "b1", "b2", "c1"}));

    // A long reversed list exercises runs of unequal length at the end of each pass.
    ow_destroy_list(&list_, std::free);
    strings expected;
    for (int i = 0; i < 37; ++i) expected.push_back(std::to_string(1000 + i));
    for (auto it = expected.rbegin(); it != expected.rend(); ++it) add(it->c_str());
    ASSERT_TRUE(ow_list_sort(&list_, by_string));
    EXPECT_EQ(texts(list_), expected);
    EXPECT_NO_ERRORS();
}

TEST_F(ListTest, SearchesCompareTheShorterLength) {
    for (const char* s : {"abc", "ABC", "abcdef"}) add(s);
    EXPECT_EQ(ow_list_search_string(list_, "ABC", false), list_->next);
    EXPECT_EQ(ow_list_search_string(list_, "ABC", true), list_);
    EXPECT_FALSE(ow_list_has_string(list_, "abcd", true));
    EXPECT_TRUE(ow_list_has_string(list_, "abcdef", false));
    // memcmp over min(size, key length): the 2-byte key "ab" matches the first entry.
    EXPECT_EQ(ow_list_search(list_, "ab", 2, std::memcmp), list_);
    EXPECT_EQ(ow_list_search(list_, "abcdef", 7, std::memcmp), list_->next->next);
    EXPECT_FALSE(ow_list_has_entry(list_, "zz", 2, std::memcmp));
    // Entries whose data was released are skipped.
    ow_list_free_entry(list_, false, std::free);
    EXPECT_EQ(list_->data, nullptr);
    EXPECT_EQ(ow_list_search_string(list_, "abc", true), list_->next);
    EXPECT_NO_ERRORS();
}

TEST_F(ListTest, RemoveAndPositionalAccess) {
    for (const char* s : {"a", "b", "c"}) add(s);
    EXPECT_STREQ(static_cast<char*>(ow_list_data_at(list_, 2)), "c");
    EXPECT_EQ(ow_list_pindex(list_, 0), list_);
    EXPECT_EQ(ow_list_pindex(list_, -1), list_);
    EXPECT_EQ(ow_list_pindex(nullptr, 0), nullptr);
    EXPECT_NO_ERRORS();
    EXPECT_EQ(ow_list_pindex(list_, 3), nullptr);
    EXPECT_EQ(ow_list_data_at(list_, 3), nullptr);
    refused("ow_list_pindex", std::strerror(ERANGE), {true, true});

    ow_list* middle = list_->next;
    ASSERT_TRUE(ow_list_remove_ex(&list_, middle, false, std::free));  // handed back
    EXPECT_EQ(middle->next, nullptr);
    EXPECT_STREQ(static_cast<char*>(middle->data), "b");
    EXPECT_FALSE(ow_list_remove_ex(&list_, middle, true, std::free));  // no longer there
    ow_list_free_entry(middle, true, std::free);
    EXPECT_EQ(texts(list_), (strings{"a", "c"}));
    ASSERT_TRUE(ow_list_remove_ex(&list_, list_, true, std::free));
    ASSERT_TRUE(ow_list_remove_ex(&list_, list_, true, std::free));
    EXPECT_EQ(list_, nullptr);
    EXPECT_NO_ERRORS();
}

TEST_F(ListTest, RefusedArguments) {
    const std::string inval = std::strerror(EINVAL);
    char a[] = "a";
    refused("ow_append_list_entry", inval,
            {ow_append_list_entry(nullptr, a, 1, true) == -1,
             ow_append_list_entry(&list_, a, 0, true) == -1});
    refused("ow_prepend_list_entry", inval, {ow_prepend_list_entry(&list_, a, 0, false) == -1});
    EXPECT_EQ(list_, nullptr);
    add("x");
    refused("ow_list_search", inval,
            {!ow_list_search(list_, "x", 0, std::memcmp), !ow_list_search(list_, "x", 1, nullptr)});
    refused("ow_list_search_string", inval, {!ow_list_has_string(list_, nullptr, false)});
    ow_list* empty = nullptr;
    refused("ow_list_remove_ex", inval,
            {!ow_list_remove_ex(&list_, nullptr, true, free),
             !ow_list_remove_ex(&empty, list_, true, free)});
    refused("ow_list_from_string_by_char", inval,
            {!ow_list_from_string_by_char(&list_, "a", 0, ',')});
    refused("ow_list_sort", inval, {!ow_list_sort(&list_, nullptr)});
    ow_destroy_list(nullptr, std::free);
    refused("ow_destroy_list", inval, {true});
    EXPECT_EQ(texts(list_), strings{"x"});
}

TEST_F(ListTest, AllocationFailures) {
    const std::string enomem = std::strerror(ENOMEM);
    char a[] = "a";
    add("first");
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ow_append_list_entry(&list_, a, 2, true), -2);
    ow::testing::fail_allocation(2);
    EXPECT_EQ(ow_append_list_entry(&list_, a, 2, true), -3);
    refused("ow_append_list_entry", enomem, {true, true});
    ow::testing::fail_allocation(2);
    EXPECT_EQ(ow_prepend_list_entry(&list_, a, 2, true), -3);
    refused("ow_prepend_list_entry", enomem, {true});
    EXPECT_EQ(texts(list_), strings{"first"});

    // Split "p,q": piece, entry, piece, entry. Failing the second piece keeps the first;
    // failing its entry cancels the append and frees the piece.
    ow_destroy_list(&list_, std::free);
    ow::testing::fail_allocation(3);
    EXPECT_FALSE(ow_list_from_string_by_char(&list_, "p,q", 3, ','));
    refused("ow_list_from_string_by_char", enomem, {true});
    EXPECT_EQ(texts(list_), strings{"p"});
    ow_destroy_list(&list_, std::free);
    ow::testing::fail_allocation(4);
    EXPECT_FALSE(ow_list_from_string_by_char(&list_, "p,q", 3, ','));
    EXPECT_ERROR_LINE("ow_append_list_entry", enomem);
    EXPECT_ERROR_LINE("ow_list_from_string_by_char", std::strerror(ECANCELED));
    EXPECT_EQ(texts(list_), strings{"p"});
}

}  // namespace

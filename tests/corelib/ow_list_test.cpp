// The linked list: insertion, splitting, the stable sort, searches, removal and positions.
#include "ow_list.h"

#include "ow_internal.hpp"
#include "scratch.hpp"

namespace {

using ow_test::refused;
using strings = std::vector<std::string>;

strings texts(const ow_list* l, bool sizes = false) {
    strings out;
    for (; l != nullptr; l = l->next) {
        out.push_back(static_cast<const char*>(l->data) +
                      (sizes ? ":" + std::to_string(l->size) : std::string()));
    }
    return out;
}

// An array-of-strings comparator used unchanged on entries: "a1" and "a2" are equal.
int by_first_char(const void* a, const void* b) {
    return **static_cast<char* const*>(a) - **static_cast<char* const*>(b);
}

class ListTest : public ow_test::LogCaptureTest {
   protected:
    void TearDown() override {
        ow_destroy_list(&list_, std::free);
        LogCaptureTest::TearDown();
    }
    void add(std::initializer_list<const char*> texts) {
        for (const char* s : texts) {
            ASSERT_GT(ow_append_list_entry(&list_, const_cast<char*>(s), std::strlen(s) + 1, true),
                      0);
        }
    }
    ow_list* list_ = nullptr;
};

TEST_F(ListTest, InsertSortAndSplit) {
    char a[] = "a", b[] = "b", c[] = "c", z[] = "z";
    int count = 0;
    for (char* s : {a, b, c}) EXPECT_EQ(ow_append_list_entry(&list_, s, 2, true), ++count);
    EXPECT_EQ(ow_prepend_list_entry(&list_, z, 2, true), 1);
    EXPECT_EQ(texts(list_), (strings{"z", "a", "b", "c"}));
    EXPECT_EQ(ow_list_count(list_), 4u);
    EXPECT_NE(list_->data, static_cast<void*>(z));  // copied

    // Borrowed data is the caller's: destroying with no release frees only the records.
    ow_list* borrowed = nullptr;
    EXPECT_EQ(ow_append_list_entry(&borrowed, a, 2, false), 1);
    EXPECT_EQ(borrowed->data, static_cast<void*>(a));
    ow_destroy_list(&borrowed, nullptr);
    EXPECT_EQ(borrowed, nullptr);

    ow_destroy_list(&list_, std::free);
    add({"b1", "a1", "c1", "a2", "b2", "a3"});
    ASSERT_TRUE(ow_list_sort(&list_, by_first_char));
    // Stable; six entries leave a run alone in the second pass and end with unequal runs.
    EXPECT_EQ(texts(list_), (strings{"a1", "a2", "a3", "b1", "b2", "c1"}));

    // Every piece is kept, with two spare zero bytes, or one byte when empty.
    const std::pair<std::string, strings> splits[] = {
        {"a,,b,", {"a:3", ":1", "b:3", ":1"}},
        {",", {":1", ":1"}},
        {std::string("x\0y,z", 5), {"x:5", "z:3"}},  // NUL bytes are data, not ends
    };
    for (const auto& [input, pieces] : splits) {
        ow_destroy_list(&list_, std::free);
        ASSERT_TRUE(ow_list_from_string_by_char(&list_, input.data(), input.size(), ','));
        EXPECT_EQ(texts(list_, true), pieces) << input;
    }
    EXPECT_NO_ERRORS();
}

TEST_F(ListTest, SearchRemoveAndPositionalAccess) {
    add({"abc", "ABC", "abcdef"});
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

    EXPECT_STREQ(static_cast<char*>(ow_list_data_at(list_, 2)), "abcdef");
    EXPECT_EQ(ow_list_pindex(list_, 0), list_);
    EXPECT_EQ(ow_list_pindex(list_, -1), list_);
    EXPECT_EQ(ow_list_pindex(nullptr, 0), nullptr);
    EXPECT_NO_ERRORS();
    refused("ow_list_pindex", std::strerror(ERANGE),
            {!ow_list_pindex(list_, 3), !ow_list_data_at(list_, 3)});

    ow_list* middle = list_->next;
    ASSERT_TRUE(ow_list_remove_ex(&list_, middle, false, std::free));  // handed back
    EXPECT_EQ(texts(middle), strings{"ABC"});                          // unlinked
    EXPECT_FALSE(ow_list_remove_ex(&list_, middle, true, std::free));  // no longer there
    ow_list_free_entry(middle, true, std::free);
    EXPECT_EQ(texts(list_->next), strings{"abcdef"});
    EXPECT_TRUE(ow_list_remove_ex(&list_, list_, true, std::free) &&
                ow_list_remove_ex(&list_, list_, true, std::free) && list_ == nullptr);
    EXPECT_NO_ERRORS();
}

TEST_F(ListTest, RefusalsAndAllocationFailures) {
    const std::string inval = std::strerror(EINVAL), enomem = std::strerror(ENOMEM);
    char a[] = "a";
    refused("ow_append_list_entry", inval,
            {ow_append_list_entry(nullptr, a, 1, true) == -1,
             ow_append_list_entry(&list_, a, 0, true) == -1});
    refused("ow_prepend_list_entry", inval, {ow_prepend_list_entry(&list_, a, 0, false) == -1});
    EXPECT_EQ(list_, nullptr);
    add({"x"});
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
    for (long n : {1, 2}) {
        ow::testing::fail_allocation(n);
        EXPECT_EQ(ow_append_list_entry(&list_, a, 2, true), -1 - n);  // the record, the copy
    }
    refused("ow_append_list_entry", enomem, {true, true});
    ow::testing::fail_allocation(2);
    EXPECT_EQ(ow_prepend_list_entry(&list_, a, 2, true), -3);
    refused("ow_prepend_list_entry", enomem, {true});
    EXPECT_EQ(texts(list_), strings{"x"});
    // "p,q": piece, entry, piece, entry; failing the second piece keeps "p", failing its entry
    // cancels the append and frees the piece.
    for (long n : {3, 4}) {
        ow_destroy_list(&list_, std::free);
        clear_log();
        ow::testing::fail_allocation(n);
        EXPECT_FALSE(ow_list_from_string_by_char(&list_, "p,q", 3, ','));
        EXPECT_ERROR_LINE(n == 3 ? "ow_list_from_string_by_char" : "ow_append_list_entry", enomem);
        EXPECT_EQ(texts(list_), strings{"p"});
    }
    EXPECT_ERROR_LINE("ow_list_from_string_by_char", std::strerror(ECANCELED));
}

}  // namespace

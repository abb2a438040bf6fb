// Tests of the metric set: collection over a table, comparison with a cached set, and the
// POST body (the full eleven-row table is posted by tests/integration).
#include "ax_metric.h"

#include <utility>

#include "ow_internal.hpp"
#include "scratch.hpp"

namespace {

using MetricTest = ow_test::LogCaptureTest;
const std::string kEinval = std::strerror(EINVAL);
const std::string kEnomem = std::strerror(ENOMEM);

// Every row of a test table shares one collector that hands out the next queued value
// (nullptr: the collector fails); how far it got shows which rows ran.
std::vector<const char*> g_values;
std::size_t g_next = 0;
char* next_value() {
    const char* v = g_next < g_values.size() ? g_values[g_next] : nullptr;
    ++g_next;
    return v != nullptr ? strdup(v) : nullptr;
}

struct Row {
    const char *name, *key, *value;
};

ow_hashmap* load(const std::vector<Row>& rows) {
    g_values.clear();
    g_next = 0;
    std::vector<ax_metric_record> records;
    for (const auto& r : rows) {
        records.push_back({r.name, r.key, next_value});
        g_values.push_back(r.value);
    }
    std::vector<const ax_metric_record*> table;
    for (const auto& r : records) table.push_back(&r);
    return ax_metric_load(table.data(), table.size());
}

ow_hashmap* make_set(const std::vector<std::pair<const char*, const char*>>& pairs) {
    ow_hashmap* set = ow_map_create(0, 0);
    for (const auto& [key, value] : pairs) {
        EXPECT_TRUE(ow_map_store_ex(set, key, const_cast<char*>(value), std::strlen(value) + 1,
                                    true, nullptr));
    }
    return set;
}

TEST_F(MetricTest, BodyEncoding) {
    const struct {
        std::vector<Row> rows;
        const char* body;
    } cases[] = {{{{"license_key", "AXLICENSE", "K"},
                   {"ardvex_version", "AXVER", "2.1-12.2"},
                   {"web_panel_version", "PANELVER", "  8.8.15\n"}},  // trimmed at both ends
                  "AXLICENSE=K&AXVER=2%2E1-12%2E2&PANELVER=8%2E8%2E15"},
                 {{{"b", "BLANK", " \t\r\n\v\f "}, {"e", "ON", "1"}}, "BLANK=&ON=1"},
                 {{{"s", "S", "x&y=z%+?'\"-_"}}, "S=x&y=z%+?'\"-_"},
                 // The key is encoded too, and the percent signs of earlier escapes survive.
                 {{{"e", "A.B", "x #@.,/:;><"}}, "A%2EB=x%20%23%40%2E%2C%2F%3A%3B%3E%3C"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        ow_hashmap* set = load(c.rows);
        ASSERT_NE(set, nullptr) << ow_test::dump();
        char* body = ax_metric_build_postdata(set);
        EXPECT_STREQ(body, c.body);
        std::free(body);
        ow_map_destroy(set);
    }
    ow_hashmap* empty = make_set({});
    EXPECT_EQ(ax_metric_build_postdata(empty), nullptr);
    ow_map_destroy(empty);
    EXPECT_NO_ERRORS();
    ow_test::refused("ax_metric_build_postdata", kEinval, {!ax_metric_build_postdata(nullptr)});
}

TEST_F(MetricTest, LoadFailures) {
    // A collector that fails, or a key stored twice: no set, and the rows after it never ran.
    EXPECT_EQ(load({{"a", "A", "1"}, {"version", "VER", nullptr}, {"c", "C", "3"}}), nullptr);
    EXPECT_EQ(g_next, 2u);
    ow_test::refused("ax_metric_load", "failed to load version metric", {true});
    EXPECT_EQ(load({{"a", "A", "1"}, {"again", "A", "2"}, {"c", "C", "3"}}), nullptr);
    EXPECT_EQ(g_next, 2u);
    ow_test::refused("ax_metric_load", "failed to store metric", {true});
    const ax_metric_record* const table[] = {nullptr};
    ow_test::refused("ax_metric_load", kEinval,
                     {ax_metric_load(nullptr, 1) == nullptr, ax_metric_load(table, 0) == nullptr,
                      ax_metric_load(table, 1) == nullptr});
}

TEST_F(MetricTest, FailedAllocationLeavesNoSetAndNoBody) {
    for (long n = 1;; ++n) {
        SCOPED_TRACE(testing::Message() << "allocation " << n);
        clear_log();
        const long before = ow::testing::allocation_count();
        ow::testing::fail_allocation(n);
        ow_hashmap* set = load({{"a", "A", " 1 "}, {"b", "B", "t.o"}, {"c", "C", "3"}});
        char* body = set != nullptr ? ax_metric_build_postdata(set) : nullptr;
        ow::testing::fail_allocation(0);
        const bool failed = ow::testing::allocation_count() - before >= n;
        // LeakSanitizer checks that a partial set or body went; whichever step failed, formatting
        // or an escape pass, there is no body rather than a half-encoded one.
        EXPECT_STREQ(body, failed ? nullptr : "A=1&B=t%2Eo&C=3");
        const bool said = set == nullptr
                              ? ow_test::has_error("ax_metric_load", kEnomem) ||
                                    ow_test::has_error("ax_metric_load", "failed to store metric")
                              : ow_test::has_error("ax_metric_build_postdata", kEnomem) ||
                                    ow_test::has_error("ow_str_replace", kEnomem);
        EXPECT_TRUE(said || !failed) << ow_test::dump();
        ow_map_destroy(set);
        std::free(body);
        if (!failed) break;
    }
}

TEST_F(MetricTest, OnlyCachedEntriesDecide) {
    ow_hashmap* live = make_set({{"K1", "1"}, {"K2", "2"}});
    const struct {
        const char* name;
        std::vector<std::pair<const char*, const char*>> cache;
        bool different;
    } cases[] = {{"subset", {{"K1", "1"}}, false},
                 {"empty cache", {}, false},
                 {"key only in cache", {{"K1", "1"}, {"K3", "3"}}, true},
                 {"other value", {{"K1", "2"}}, true},
                 {"shorter cached value", {{"K1", ""}}, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ow_hashmap* cache = make_set(c.cache);
        EXPECT_EQ(ax_metric_different(live, cache), c.different);
        ow_map_destroy(cache);
    }
    // A short value held in the value word, as a map file gives back a value that was not
    // saved as a copy, is read from the word and never followed as a pointer.
    ow_hashmap* inline_cache = make_set({});
    void* word = nullptr;
    std::memcpy(&word, "2", 2);
    ASSERT_TRUE(ow_map_store_ex(inline_cache, "K2", word, 2, false, nullptr));
    EXPECT_FALSE(ax_metric_different(live, inline_cache));
    ow_map_destroy(inline_cache);
    EXPECT_NO_ERRORS();
    ow_test::refused("ax_metric_different", kEinval,
                     {!ax_metric_different(live, nullptr), !ax_metric_different(nullptr, live)});
    ow_map_destroy(live);
}

TEST_F(MetricTest, CreatedRecordOwnsItsStrings) {
    ax_metric_record* record = ax_metric_create();
    ASSERT_NE(record, nullptr);
    record->name = strdup("product_id");
    record->key = strdup("PRODUCTID");
    ax_metric_destroy(record);  // LeakSanitizer checks that name and key went with it
    ax_metric_destroy(nullptr);
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ax_metric_create(), nullptr);
    EXPECT_ERROR_LINE("ax_metric_create", kEnomem);
}

}  // namespace

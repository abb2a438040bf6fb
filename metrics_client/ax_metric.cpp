// ax_metric: the metric set of the metrics client: collection from the metric table,
// comparison with the cached set of the last post, and the percent-encoded POST body. Sets
// hold about a dozen entries, so the body is simply re-formatted at each step.
#include "ax_metric.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "ow_internal.hpp"
#include "ow_stringutils.h"

// The record is handed across the C interface; its layout is part of the ABI.
static_assert(offsetof(ax_metric_record, name) == 0);
static_assert(offsetof(ax_metric_record, key) == sizeof(void*));
static_assert(offsetof(ax_metric_record, collector) == 2 * sizeof(void*));
static_assert(sizeof(ax_metric_record) == 3 * sizeof(void*));

namespace {

// Percent-encoding of the POST body, applied one character after the other in this order.
// No escape contains a character of a later row, so no pass re-encodes an earlier one.
struct escape {
    const char* character;
    const char* replacement;
};
constexpr escape kEscapes[] = {
    {" ", "%20"}, {"#", "%23"}, {"@", "%40"}, {".", "%2E"}, {",", "%2C"},
    {"/", "%2F"}, {":", "%3A"}, {";", "%3B"}, {">", "%3E"}, {"<", "%3C"},
};

// The text of a pair's value, up to its first NUL and never past its stored length. A set
// read from the cache file holds private copies behind the value word; a short value that
// is not a copy and has no free function is held inside the word itself (that is how the
// map file gives back inline values), so a damaged cache can never make us follow a
// pointer that is not one.
std::string_view value_text(const hash_pair_t* pair) noexcept {
    if (pair == nullptr) return {};
    const bool behind_word = (pair->flags & PAIR_FLAG_COPY) != 0 || pair->freefn != nullptr ||
                             pair->length > sizeof pair->value;
    const char* bytes = behind_word ? static_cast<const char*>(pair->value)
                                    : reinterpret_cast<const char*>(&pair->value);
    if (bytes == nullptr) return {};
    return {bytes, strnlen(bytes, static_cast<std::size_t>(pair->length))};
}

}  // namespace

extern "C" {

ax_metric_record* ax_metric_create(void) {
    auto* record = static_cast<ax_metric_record*>(ow::mem_calloc(1, sizeof(ax_metric_record)));
    if (record == nullptr) {
        OW_ENOMEM();
        return nullptr;
    }
    return record;
}

void ax_metric_destroy(ax_metric_record* record) {
    if (record == nullptr) return;
    // The fields are const because table rows point at literals; a record from
    // ax_metric_create owns malloc'd copies, and this is the one place that frees them.
    std::free(const_cast<char*>(record->name));
    std::free(const_cast<char*>(record->key));
    std::free(record);
}

ow_hashmap* ax_metric_load(const ax_metric_record* const* table, uint64_t count) {
    if (table == nullptr || count == 0) {
        OW_EINVAL();
        return nullptr;
    }
    ow_hashmap* set = ow_map_create(0, 0);
    if (set == nullptr) {
        OW_ENOMEM();
        return nullptr;
    }
    for (uint64_t row = 0; row < count; ++row) {
        const ax_metric_record* metric = table[row];
        if (metric == nullptr || metric->key == nullptr || metric->collector == nullptr) {
            OW_EINVAL();
            ow_map_destroy(set);
            return nullptr;
        }
        char* value = metric->collector();
        if (value == nullptr) {
            OW_ERROR("failed to load %s metric", metric->name != nullptr ? metric->name : "");
            ow_map_destroy(set);
            return nullptr;
        }
        ow_trim_ex(value, OW_TRIM_BOTH);
        if (!ow_map_store_ex(set, metric->key, value, std::strlen(value) + 1, true, nullptr)) {
            OW_ERROR("failed to store metric");
            ow_map_destroy(set);
            std::free(value);
            return nullptr;
        }
        std::free(value);
    }
    return set;
}

bool ax_metric_different(const ow_hashmap* live, const ow_hashmap* cache) {
    if (live == nullptr || cache == nullptr) {
        OW_EINVAL();
        return false;
    }
    ow_map_iterator it;
    const char* key = nullptr;
    ow_map_iterator_init(&it, cache);
    while (ow_map_iterator_next(&it, &key, nullptr)) {
        const std::string_view cached = value_text(ow_map_iterator_cur(&it));
        void* word = nullptr;
        if (!ow_map_fetch(live, key, &word)) return true;
        const char* current = word != nullptr ? static_cast<const char*>(word) : "";
        // strncmp stops at the live value's NUL, so neither side is read past its end.
        if (std::strncmp(current, cached.data() != nullptr ? cached.data() : "", cached.size()) !=
                0 ||
            current[cached.size()] != '\0') {
            return true;
        }
    }
    return false;
}

char* ax_metric_build_postdata(const ow_hashmap* set) {
    if (set == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    char* body = nullptr;
    ow_map_iterator it;
    const char* key = nullptr;
    ow_map_iterator_init(&it, set);
    while (ow_map_iterator_next(&it, &key, nullptr)) {
        const std::string_view value = value_text(ow_map_iterator_cur(&it));
        if (value.size() > INT_MAX) {
            OW_ENOMEM();
            std::free(body);
            return nullptr;
        }
        const int value_len = static_cast<int>(value.size());
        const char* value_bytes = value.data() != nullptr ? value.data() : "";
        char* next = nullptr;
        const int length =
            body == nullptr
                ? ow_asprintf(&next, "%s%s=%.*s", "", key, value_len, value_bytes)
                : ow_asprintf(&next, "%s%s%s=%.*s", body, "&", key, value_len, value_bytes);
        if (length < 0) {
            OW_ENOMEM();
            std::free(body);
            return nullptr;
        }
        std::free(body);
        body = next;
    }
    if (body == nullptr) return nullptr;

    // A half-encoded body must never be posted (and then cached as reported), so a pass that
    // cannot allocate fails the whole build; ow_str_replace has logged why.
    for (const escape& e : kEscapes) {
        if (!ow_str_replace(&body, e.character, e.replacement)) {
            std::free(body);
            return nullptr;
        }
    }
    return body;
}

}  // extern "C"

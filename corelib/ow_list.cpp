// ow_list.cpp: the singly linked list of byte blobs. There is no tail pointer and no
// ownership flag per entry: the list stays one pointer wide, and whoever destroys it says how
// the data goes. The sort is a bottom-up merge sort on the links so it never allocates.
#include "ow_list.h"

#include <strings.h>

#include <cstddef>
#include <cstring>

#include "ow_internal.hpp"

static_assert(offsetof(ow_list, data) == 0, "the sort comparator relies on data coming first");
static_assert(offsetof(ow_list, size) == sizeof(void*));
static_assert(offsetof(ow_list, next) == sizeof(void*) + sizeof(uint64_t));
static_assert(sizeof(ow_list) == 2 * sizeof(void*) + sizeof(uint64_t));

namespace {

// The failure codes shared by append and prepend.
constexpr int64_t refused = -1;
constexpr int64_t no_entry = -2;
constexpr int64_t no_copy = -3;

// A new entry for data (copied when asked), or the negative code of what failed. The
// caller has checked the arguments; the error line names the caller's function, so each
// public function logs for itself.
int64_t make_entry(void* data, uint64_t size, bool copy, ow_list** out) noexcept {
    auto* entry = static_cast<ow_list*>(ow::mem_calloc(1, sizeof(ow_list)));
    if (entry == nullptr) return no_entry;
    if (copy) {
        if (size > SIZE_MAX) {
            std::free(entry);
            return no_copy;
        }
        void* block = ow::mem_malloc(static_cast<std::size_t>(size));
        if (block == nullptr) {
            std::free(entry);
            return no_copy;
        }
        std::memcpy(block, data, static_cast<std::size_t>(size));
        entry->data = block;
    } else {
        entry->data = data;
    }
    entry->size = size;
    *out = entry;
    return 0;
}

// Takes up to `width` entries from *list as one run; returns its first entry and leaves
// *list at what follows. The run stays linked to the rest: the merge counts entries.
struct run {
    ow_list* head;
    long length;
};

run take_run(ow_list** list, long width) noexcept {
    run r{*list, 0};
    while (*list != nullptr && r.length < width) {
        *list = (*list)->next;
        ++r.length;
    }
    return r;
}

}  // namespace

extern "C" {

int64_t ow_append_list_entry(ow_list** head, void* data, uint64_t size, bool copy) {
    if (head == nullptr || data == nullptr || size == 0) {
        OW_EINVAL();
        return refused;
    }
    ow_list* entry = nullptr;
    if (const int64_t failed = make_entry(data, size, copy, &entry); failed != 0) {
        OW_ENOMEM();
        return failed;
    }
    if (*head == nullptr) {
        *head = entry;
        return 1;
    }
    int64_t count = 1;
    ow_list* last = *head;
    while (last->next != nullptr) {
        last = last->next;
        ++count;
    }
    last->next = entry;
    return count + 1;
}

int64_t ow_prepend_list_entry(ow_list** head, void* data, uint64_t size, bool copy) {
    if (head == nullptr || data == nullptr || size == 0) {
        OW_EINVAL();
        return refused;
    }
    ow_list* entry = nullptr;
    if (const int64_t failed = make_entry(data, size, copy, &entry); failed != 0) {
        OW_ENOMEM();
        return failed;
    }
    entry->next = *head;
    *head = entry;
    return 1;
}

void ow_destroy_list(ow_list** head, ow_list_free_fn release) {
    if (head == nullptr) {
        OW_EINVAL();
        return;
    }
    ow_list* entry = *head;
    while (entry != nullptr) {
        ow_list* next = entry->next;
        if (release != nullptr && entry->data != nullptr) release(entry->data);
        std::free(entry);
        entry = next;
    }
    *head = nullptr;
}

uint32_t ow_list_count(const ow_list* first) {
    uint32_t n = 0;
    for (; first != nullptr; first = first->next) ++n;
    return n;
}

ow_list* ow_list_search(ow_list* first, const void* key, uint64_t key_len, ow_list_search_fn cmp) {
    if (key == nullptr || key_len == 0 || cmp == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    for (ow_list* entry = first; entry != nullptr; entry = entry->next) {
        if (entry->data == nullptr) continue;
        const uint64_t n = entry->size < key_len ? entry->size : key_len;
        if (cmp(entry->data, key, static_cast<std::size_t>(n)) == 0) return entry;
    }
    return nullptr;
}

bool ow_list_has_entry(ow_list* first, const void* key, uint64_t key_len, ow_list_search_fn cmp) {
    return ow_list_search(first, key, key_len, cmp) != nullptr;
}

ow_list* ow_list_search_string(ow_list* first, const char* s, bool ignore_case) {
    if (s == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    for (ow_list* entry = first; entry != nullptr; entry = entry->next) {
        if (entry->data == nullptr) continue;
        const auto* data = static_cast<const char*>(entry->data);
        // strcasecmp folds only ASCII letters in the POSIX locale the library runs in.
        const int order = ignore_case ? ::strcasecmp(data, s) : std::strcmp(data, s);
        if (order == 0) return entry;
    }
    return nullptr;
}

bool ow_list_has_string(ow_list* first, const char* s, bool ignore_case) {
    return ow_list_search_string(first, s, ignore_case) != nullptr;
}

void ow_list_free_entry(ow_list* entry, bool free_record, ow_list_free_fn release) {
    if (entry == nullptr) return;
    if (entry->data != nullptr && release != nullptr) {
        release(entry->data);
        entry->data = nullptr;
    }
    if (free_record) std::free(entry);
}

bool ow_list_remove_ex(ow_list** head, ow_list* entry, bool release, ow_list_free_fn release_fn) {
    if (head == nullptr || entry == nullptr || *head == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (*head == entry) {
        *head = entry->next;
    } else {
        ow_list* before = *head;
        while (before->next != nullptr && before->next != entry) before = before->next;
        if (before->next == nullptr) return false;
        before->next = entry->next;
    }
    entry->next = nullptr;
    if (release && release_fn != nullptr) ow_list_free_entry(entry, true, release_fn);
    return true;
}

bool ow_list_from_string_by_char(ow_list** head, const char* buffer, uint64_t length, char delim) {
    if (head == nullptr || buffer == nullptr || length == 0 || length > SIZE_MAX - 2) {
        OW_EINVAL();
        return false;
    }
    const std::string_view all(buffer, static_cast<std::size_t>(length));
    std::size_t start = 0;
    for (;;) {
        const std::size_t cut = all.find(delim, start);
        const std::size_t end = cut == std::string_view::npos ? all.size() : cut;
        const std::size_t piece = end - start;
        // A piece gets two spare zero bytes, an empty piece a lone terminator; both are
        // ordinary C strings to whoever reads the list.
        const std::size_t bytes = piece == 0 ? 1 : piece + 2;
        auto* copy = static_cast<char*>(ow::mem_calloc(1, bytes));
        if (copy == nullptr) {
            OW_ENOMEM();
            return false;
        }
        if (piece != 0) std::memcpy(copy, all.data() + start, piece);
        if (ow_append_list_entry(head, copy, bytes, false) < 0) {
            std::free(copy);
            OW_ERRNO(ECANCELED);
            return false;
        }
        if (cut == std::string_view::npos) return true;
        start = cut + 1;
    }
}

bool ow_list_sort(ow_list** head, ow_list_sort_fn cmp) {
    if (head == nullptr || cmp == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (*head == nullptr || (*head)->next == nullptr) return true;
    for (long width = 1;; width *= 2) {
        ow_list* rest = *head;
        ow_list* out = nullptr;
        ow_list** tail = &out;
        long merges = 0;
        while (rest != nullptr) {
            ++merges;
            run left = take_run(&rest, width);
            run right = take_run(&rest, width);
            // Take from the right only when the left head sorts strictly after it, so equal
            // entries keep their order.
            while (left.length > 0 || right.length > 0) {
                ow_list* pick = nullptr;
                if (right.length == 0 || (left.length > 0 && cmp(left.head, right.head) <= 0)) {
                    pick = left.head;
                    left.head = left.head->next;
                    --left.length;
                } else {
                    pick = right.head;
                    right.head = right.head->next;
                    --right.length;
                }
                *tail = pick;
                tail = &pick->next;
            }
        }
        *tail = nullptr;
        *head = out;
        if (merges <= 1) return true;
    }
}

ow_list* ow_list_pindex(ow_list* first, int32_t index) {
    if (first == nullptr) return nullptr;
    if (index > 0 && ow_list_count(first) <= static_cast<uint32_t>(index)) {
        OW_ERRNO(ERANGE);
        return nullptr;
    }
    ow_list* entry = first;
    for (int32_t i = 0; i < index; ++i) entry = entry->next;
    return entry;
}

void* ow_list_data_at(ow_list* first, int32_t index) {
    ow_list* entry = ow_list_pindex(first, index);
    return entry == nullptr ? nullptr : entry->data;
}

}  // extern "C"

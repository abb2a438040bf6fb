// ow_nulltermlist.cpp: NULL-terminated arrays of string pointers. The array never owns its
// strings unless told to release them, and every growth reallocates to the exact length, so
// a block is always n + 1 pointers and a failed growth leaves the caller's array intact.
#include "ow_nulltermlist.h"

#include <string_view>

#include "ow_internal.hpp"

namespace {

bool entries_match(const char* entry, const char* other, ow_lst_cmp_fn cmp) noexcept {
    if (cmp == nullptr) return entry == other;
    return cmp(entry, other) == 0;
}

// Resizes *list to hold `slots` pointers. nullptr when the size overflows or realloc fails;
// *list is left as it was then.
char** resize_block(char** list, std::size_t slots) noexcept {
    std::size_t bytes = 0;
    if (ow::mul_overflows(slots, sizeof(char*), &bytes)) return nullptr;
    return static_cast<char**>(ow::mem_realloc(list, bytes));
}

}  // namespace

extern "C" {

size_t ow_lstcount(char* const* list) {
    if (list == nullptr) return 0;
    std::size_t n = 0;
    while (list[n] != nullptr) ++n;
    return n;
}

char** ow_lstcat(char*** list, char* entry) {
    if (list == nullptr || entry == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    const std::size_t length = ow_lstcount(*list);
    std::size_t slots = 0;
    if (ow::add_overflows(length, 2, &slots)) {
        OW_OOM();
        return nullptr;
    }
    char** grown = resize_block(*list, slots);
    if (grown == nullptr) {
        OW_OOM();
        return nullptr;
    }
    grown[length] = entry;
    grown[length + 1] = nullptr;
    *list = grown;
    return grown;
}

char** ow_lstappend(char*** list, char* const* second) {
    if (list == nullptr || second == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    const std::size_t first_length = ow_lstcount(*list);
    const std::size_t second_length = ow_lstcount(second);
    std::size_t slots = 0;
    if (ow::add_overflows(first_length, second_length, &slots) ||
        ow::add_overflows(slots, 1, &slots)) {
        OW_OOM();
        return nullptr;
    }
    char** grown = resize_block(*list, slots);
    if (grown == nullptr) {
        OW_OOM();
        return nullptr;
    }
    // Copy the terminator too, so the block is complete whatever second held.
    for (std::size_t i = 0; i <= second_length; ++i) grown[first_length + i] = second[i];
    *list = grown;
    return grown;
}

char** ow_lstfind(char** list, const char* needle, ow_lst_cmp_fn cmp) {
    if (list == nullptr || needle == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    for (char** element = list; *element != nullptr; ++element) {
        if (entries_match(*element, needle, cmp)) return element;
    }
    return nullptr;
}

int ow_lstequal(char* const* first, char* const* second, ow_lst_cmp_fn cmp) {
    if (first == nullptr || second == nullptr) return -1;
    std::size_t i = 0;
    for (; first[i] != nullptr && second[i] != nullptr; ++i) {
        if (!entries_match(first[i], second[i], cmp)) return 0;
    }
    return first[i] == nullptr && second[i] == nullptr ? 1 : 0;
}

bool ow_lstsplode_ex(char*** list, const char* str, char delim, bool keep_empty) {
    if (list == nullptr || str == nullptr || delim == '\0') {
        OW_EINVAL();
        return false;
    }
    std::string_view rest(str);
    if (rest.empty()) return true;
    for (;;) {
        const std::size_t cut = rest.find(delim);
        const std::string_view piece(rest.data(),
                                     cut == std::string_view::npos ? rest.size() : cut);
        if (!piece.empty() || keep_empty) {
            ow::unique_cstr copy(ow::dup_cstr(piece));
            if (!copy) {
                OW_OOM();
                return false;
            }
            if (ow_lstcat(list, copy.get()) == nullptr) {
                OW_ERROR("Failed to append entry to list");
                return false;
            }
            (void)copy.release();  // the array holds it now
        }
        if (cut == std::string_view::npos) return true;
        rest.remove_prefix(cut + 1);
    }
}

bool ow_lstremove(char** list, uint64_t index, ow_lst_free_fn release) {
    const std::size_t length = ow_lstcount(list);
    if (list == nullptr || index >= length) {
        OW_EINVAL();
        return false;
    }
    const auto at = static_cast<std::size_t>(index);
    if (release != nullptr) release(list[at]);
    // Shift the terminator along with the entries; the block is not shrunk.
    for (std::size_t i = at; i < length; ++i) list[i] = list[i + 1];
    return true;
}

void ow_lstfree(char*** list, ow_lst_free_fn release) {
    if (list == nullptr) return;
    if (*list != nullptr && release != nullptr) {
        for (char** element = *list; *element != nullptr; ++element) release(*element);
    }
    std::free(*list);
    *list = nullptr;
}

}  // extern "C"

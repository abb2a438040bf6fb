// ow_stringutils: heap-string building, trimming, whitespace clean-up, pattern replacement
// and formatting into new strings. Replacement is the one hot path: a growing replacement is
// sized exactly in one counting pass and built with one allocation, and a replacement that
// does not grow the string is compacted in place in a single pass.
#include "ow_stringutils.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "ow_internal.hpp"

namespace {

// The six whitespace bytes of the POSIX locale; isspace() would follow a changed locale.
constexpr bool is_space(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

constexpr char to_lower(char c) noexcept { return (c >= 'A' && c <= 'Z') ? c + ('a' - 'A') : c; }
constexpr char to_upper(char c) noexcept { return (c >= 'a' && c <= 'z') ? c - ('a' - 'A') : c; }

// Number of decimal digits of n (its magnitude), computed without negating, so that the
// most negative value needs no special case.
constexpr int decimal_digits(int64_t n) noexcept {
    int digits = 1;
    while (n >= 10 || n <= -10) {
        n /= 10;
        ++digits;
    }
    return digits;
}

void trim_right(char* s) noexcept {
    std::size_t len = std::strlen(s);
    while (len > 0 && is_space(s[len - 1])) s[--len] = '\0';
}

void trim_left(char* s) noexcept {
    const char* start = s;
    while (is_space(*start)) ++start;
    if (start == s) return;
    // The tail and its terminator move up; memmove because the ranges overlap.
    std::memmove(s, start, std::strlen(start) + 1);
}

// First occurrence of pattern (pat_len > 0 bytes) in [from, end), or nullptr. memchr for the
// first byte, then a compare: matches here are short and frequent, and memmem's per-call
// set-up costs more than the search itself between two close matches.
const char* find(const char* from, const char* end, const char* pattern,
                 std::size_t pat_len) noexcept {
    const char first = pattern[0];
    while (static_cast<std::size_t>(end - from) >= pat_len) {
        const auto* hit = static_cast<const char*>(
            std::memchr(from, first, static_cast<std::size_t>(end - from) - pat_len + 1));
        if (hit == nullptr) return nullptr;
        if (std::memcmp(hit + 1, pattern + 1, pat_len - 1) == 0) return hit;
        from = hit + 1;
    }
    return nullptr;
}

// Outcome of format_alloc, so that each public formatting function writes its own line.
enum class format_status { ok, measure_failed, no_memory, short_write };

format_status format_alloc(char** out, int* length, const char* format, va_list args) noexcept {
    va_list measure;
    va_copy(measure, args);
    const int n = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (n < 0) return format_status::measure_failed;

    ow::unique_cstr buffer(static_cast<char*>(ow::mem_calloc(static_cast<std::size_t>(n) + 1, 1)));
    if (!buffer) return format_status::no_memory;
    va_list write;
    va_copy(write, args);
    const int written =
        std::vsnprintf(buffer.get(), static_cast<std::size_t>(n) + 1, format, write);
    va_end(write);
    if (written != n) return format_status::short_write;

    *out = buffer.release();
    *length = n;
    return format_status::ok;
}

}  // namespace

extern "C" {

// ---------------------------------------------------------------------------------------
// Appending.

bool ow_strcat(char** dst, const char* src) {
    if (dst == nullptr || src == nullptr) {
        OW_EINVAL();
        return false;
    }
    const std::size_t src_len = std::strlen(src);
    char* result = nullptr;
    std::size_t dst_len = 0;
    if (*dst != nullptr) {
        OW_DEBUG("destination set - reallocating length");
        dst_len = std::strlen(*dst);
        // src may lie inside *dst (appending a string to itself); keep its offset, because
        // the reallocation may move the block.
        const bool inside = src >= *dst && src <= *dst + dst_len;
        const std::size_t src_offset = inside ? static_cast<std::size_t>(src - *dst) : 0;
        std::size_t size = 0;
        if (ow::add_overflows(dst_len, src_len, &size) || ow::add_overflows(size, 1, &size)) {
            OW_ENOMEM();
            return false;
        }
        result = static_cast<char*>(ow::mem_realloc(*dst, size));
        if (result == nullptr) {
            OW_ENOMEM();
            return false;
        }
        OW_DEBUG("destination length reallocated");
        if (inside) src = result + src_offset;
    } else {
        OW_DEBUG("destination is NULL - new string");
        result = static_cast<char*>(ow::mem_calloc(src_len + 1, 1));
        if (result == nullptr) {
            OW_ENOMEM();
            return false;
        }
        OW_DEBUG("allocated");
    }
    std::memmove(result + dst_len, src, src_len);
    result[dst_len + src_len] = '\0';
    *dst = result;
    OW_DEBUG("string appended [%s]", result);
    return true;
}

bool ow_ccat(char** dst, char c) {
    if (dst == nullptr || c == '\0') {
        OW_EINVAL();
        return false;
    }
    OW_DEBUG("original string [%s] character to append [%c]", *dst != nullptr ? *dst : "", c);
    char* result = nullptr;
    std::size_t len = 0;
    if (*dst != nullptr) {
        OW_DEBUG("destination set - reallocating length");
        len = std::strlen(*dst);
        result = static_cast<char*>(ow::mem_realloc(*dst, len + 2));
        if (result == nullptr) {
            OW_ENOMEM();
            return false;
        }
        OW_DEBUG("destination length reallocated");
    } else {
        OW_DEBUG("destination is NULL - new string");
        result = static_cast<char*>(ow::mem_calloc(2, 1));
        if (result == nullptr) {
            OW_ENOMEM();
            return false;
        }
        OW_DEBUG("allocated");
    }
    result[len] = c;
    result[len + 1] = '\0';
    *dst = result;
    OW_DEBUG("character appended [%s] [%c]", result, c);
    return true;
}

bool ow_ltoa(char** dst, int64_t number) {
    if (dst == nullptr) {
        OW_EINVAL();
        return false;
    }
    OW_DEBUG("converting [%ld]", static_cast<long>(number));
    int size = decimal_digits(number) + 1;
    if (number < 0) {
        OW_DEBUG("added room for '-' sign");
        ++size;
    }
    OW_DEBUG("determined buffer size of %d", size);
    char* buffer = static_cast<char*>(ow::mem_calloc(static_cast<std::size_t>(size), 1));
    if (buffer == nullptr) {
        OW_ENOMEM();
        return false;
    }
    OW_DEBUG("buffer allocated");
    std::snprintf(buffer, static_cast<std::size_t>(size), "%ld", static_cast<long>(number));
    if (*dst != nullptr) {
        OW_DEBUG("destination buffer already set - calling free to replace");
        std::free(*dst);
    }
    *dst = buffer;
    OW_DEBUG("converted to %s", buffer);
    return true;
}

bool ow_icat(char** dst, int64_t number) {
    if (dst == nullptr) {
        OW_EINVAL();
        return false;
    }
    char* text = nullptr;
    if (!ow_ltoa(&text, number)) return false;
    const bool appended = ow_strcat(dst, text);
    std::free(text);
    return appended;
}

// ---------------------------------------------------------------------------------------
// Case.

void ow_lower(char* s) {
    if (s == nullptr) {
        OW_EINVAL();
        return;
    }
    OW_DEBUG("converting from [%s]", s);
    for (char* p = s; *p != '\0'; ++p) *p = to_lower(*p);
    OW_DEBUG("converted to [%s]", s);
}

void ow_upper(char* s) {
    if (s == nullptr) {
        OW_EINVAL();
        return;
    }
    OW_DEBUG("converting from [%s]", s);
    for (char* p = s; *p != '\0'; ++p) *p = to_upper(*p);
    OW_DEBUG("converted to [%s]", s);
}

// ---------------------------------------------------------------------------------------
// Whitespace.

void ow_trim_right(char* s) {
    if (s == nullptr) {
        OW_EINVAL();
        return;
    }
    trim_right(s);
}

void ow_trim_left(char* s) {
    if (s == nullptr) {
        OW_EINVAL();
        return;
    }
    trim_left(s);
}

void ow_trim_ex(char* s, uint32_t mode) {
    if (s == nullptr || (mode & OW_TRIM_BOTH) == 0) {
        OW_EINVAL();
        return;
    }
    if (*s == '\0') return;
    // The right end first: a string that was only whitespace is then empty and the left
    // pass has nothing to move.
    if ((mode & OW_TRIM_RIGHT) != 0) {
        trim_right(s);
        if (*s == '\0') return;
    }
    if ((mode & OW_TRIM_LEFT) != 0) trim_left(s);
}

void ow_trim(char** s) {
    if (s == nullptr || *s == nullptr) {
        OW_EINVAL();
        return;
    }
    OW_DEBUG("parameter [%s]", *s);
    char* old = *s;
    if (*old == '\0') return;

    const char* start = old;
    while (is_space(*start)) ++start;
    if (*start == '\0') {
        char* empty = static_cast<char*>(ow::mem_calloc(1, 1));
        if (empty == nullptr) {
            OW_ENOMEM();
            return;
        }
        std::free(old);
        *s = empty;
        OW_DEBUG("trimmed is [%s]", empty);
        return;
    }
    // start is not whitespace, so the backward walk stops at it at the latest.
    char* end = old + std::strlen(old);
    while (is_space(end[-1])) --end;
    *end = '\0';
    char* trimmed = ow::dup_cstr(std::string_view(start, static_cast<std::size_t>(end - start)));
    if (trimmed == nullptr) {
        OW_ENOMEM();
        return;
    }
    std::free(old);
    *s = trimmed;
    OW_DEBUG("trimmed is [%s]", trimmed);
}

void ow_chomp(char** s) {
    if (s == nullptr || *s == nullptr) {
        OW_EINVAL();
        return;
    }
    OW_DEBUG("parameter [%s]", *s);
    const std::size_t len = std::strlen(*s);
    const std::size_t cut = std::strcspn(*s, "\r\n");
    if (cut < len) {
        (*s)[cut] = '\0';
        // Giving the tail back is a courtesy: when the shrink fails the string simply stays
        // in its larger block, which is no failure of the chomp.
        char* smaller = static_cast<char*>(ow::mem_realloc(*s, cut + 1));
        if (smaller != nullptr) *s = smaller;
    }
    OW_DEBUG("converted to [%s]", *s);
}

bool ow_simplify_whitespace(char** s) {
    if (s == nullptr || *s == nullptr) {
        OW_EINVAL();
        return false;
    }
    OW_DEBUG("parameter [%s]", *s);
    if (**s == '\0') {
        OW_DEBUG("empty string: nothing to simplify");
        return true;
    }
    ow_trim(s);
    // A trimmed string never starts with whitespace; if it still does, ow_trim could not
    // allocate (and said so).
    if (is_space(**s)) return false;

    // One pass with a read and a write position: runs of two or more whitespace bytes
    // become a single space, a lone whitespace byte is copied as it is.
    char* out = *s;
    for (const char* in = *s; *in != '\0';) {
        if (!is_space(*in)) {
            *out++ = *in++;
            continue;
        }
        const char* run_end = in;
        while (is_space(*run_end)) ++run_end;
        *out++ = (run_end - in >= 2) ? ' ' : *in;
        in = run_end;
    }
    *out = '\0';
    OW_DEBUG("simplified is [%s]", *s);
    return true;
}

void ow_strip_whitespace(char** s) {
    if (s == nullptr || *s == nullptr) {
        OW_EINVAL();
        return;
    }
    const char* old = *s;
    if (*old == '\0') {
        OW_DEBUG("no length to string... no point in going on");
        return;
    }
    std::size_t len = 0;
    std::size_t keep = 0;
    for (; old[len] != '\0'; ++len) keep += is_space(old[len]) ? 0 : 1;
    if (keep == len) {
        OW_DEBUG("stripped is [%s]", old);
        return;
    }
    char* stripped = static_cast<char*>(ow::mem_calloc(keep + 1, 1));
    if (stripped == nullptr) {
        OW_ENOMEM();
        return;
    }
    char* out = stripped;
    for (const char* in = old; *in != '\0'; ++in) {
        if (!is_space(*in)) *out++ = *in;
    }
    std::free(*s);
    *s = stripped;
    OW_DEBUG("stripped is [%s]", stripped);
}

// ---------------------------------------------------------------------------------------
// Replacement.

bool ow_str_replace_smaller(char* s, const char* pattern, const char* replacement) {
    if (s == nullptr || pattern == nullptr || *pattern == '\0' || replacement == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (*s == '\0') return true;
    const std::size_t pat_len = std::strlen(pattern);
    const std::size_t rep_len = std::strlen(replacement);
    if (rep_len > pat_len) {
        OW_ERROR(
            "Pattern [%s] is shorter than it's replacement [%s]. Use ow_str_replace() instead!",
            pattern, replacement);
        return false;
    }
    OW_DEBUG("replacing [%s] with [%s] in [%s]", pattern, replacement, s);

    // Compaction with a read and a write position. The write position never passes the
    // read position (the replacement is not longer than the pattern), so the text still to
    // be searched is never overwritten and each byte moves at most once.
    const std::size_t len = std::strlen(s);
    const char* const end = s + len;
    const char* in = s;
    char* out = s;
    for (const char* hit; (hit = find(in, end, pattern, pat_len)) != nullptr;) {
        const auto before = static_cast<std::size_t>(hit - in);
        if (out != in) std::memmove(out, in, before);
        out += before;
        std::memcpy(out, replacement, rep_len);
        out += rep_len;
        in = hit + pat_len;
    }
    if (out != in) std::memmove(out, in, static_cast<std::size_t>(end - in) + 1);
    OW_DEBUG("pattern %s not found - nothing to replace", pattern);
    return true;
}

bool ow_str_replace(char** s, const char* pattern, const char* replacement) {
    if (s == nullptr || *s == nullptr || pattern == nullptr || *pattern == '\0' ||
        replacement == nullptr) {
        OW_EINVAL();
        return false;
    }
    const std::size_t pat_len = std::strlen(pattern);
    const std::size_t rep_len = std::strlen(replacement);
    if (rep_len <= pat_len) {
        if (std::strcmp(pattern, replacement) == 0) {
            OW_DEBUG("search and replace patterns are the same: nothing to do [%s]", pattern);
            return true;
        }
        OW_DEBUG("calling ow_str_replace_smaller for improved performance");
        return ow_str_replace_smaller(*s, pattern, replacement);
    }

    const char* const old = *s;
    const std::size_t len = std::strlen(old);
    const char* const end = old + len;

    // Counting pass: remember where every match starts, so that the result can be sized
    // exactly and the build pass need not search again. The table starts with room for 8
    // positions and doubles, so a string dense with matches costs few reallocations.
    std::size_t capacity = 8;
    ow::unique_cptr<std::size_t> positions(
        static_cast<std::size_t*>(ow::mem_malloc(capacity * sizeof(std::size_t))));
    if (!positions) {
        OW_ENOMEM();
        return false;
    }
    std::size_t count = 0;
    for (const char* in = old, *hit; (hit = find(in, end, pattern, pat_len)) != nullptr;) {
        if (count == capacity) {
            std::size_t bytes = 0;
            if (ow::mul_overflows(capacity * 2, sizeof(std::size_t), &bytes)) {
                OW_ENOMEM();
                return false;
            }
            auto* grown = static_cast<std::size_t*>(ow::mem_realloc(positions.get(), bytes));
            if (grown == nullptr) {
                OW_ENOMEM();
                return false;
            }
            positions.release();
            positions.reset(grown);
            capacity *= 2;
        }
        positions.get()[count++] = static_cast<std::size_t>(hit - old);
        in = hit + pat_len;
    }
    OW_DEBUG("Detected %zu patterns to replace", count);

    std::size_t size = 0;
    if (ow::mul_overflows(rep_len - pat_len, count, &size) || ow::add_overflows(size, len, &size) ||
        ow::add_overflows(size, 1, &size)) {
        OW_ENOMEM();
        return false;
    }
    // Every byte of the block is written below, so it is not zeroed first.
    char* result = static_cast<char*>(ow::mem_malloc(size));
    if (result == nullptr) {
        OW_ENOMEM();
        return false;
    }
    char* out = result;
    std::size_t from = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t at = positions.get()[i];
        std::memcpy(out, old + from, at - from);
        out += at - from;
        std::memcpy(out, replacement, rep_len);
        out += rep_len;
        from = at + pat_len;
    }
    std::memcpy(out, old + from, len - from + 1);  // with the terminator
    std::free(*s);
    *s = result;
    return true;
}

// ---------------------------------------------------------------------------------------
// Formatting and copying.

int ow_vasprintf(char** out, const char* format, va_list args) {
    if (out == nullptr || format == nullptr) {
        OW_EINVAL();
        return -1;
    }
    int length = 0;
    switch (format_alloc(out, &length, format, args)) {
        case format_status::ok:
            return length;
        case format_status::measure_failed:
            OW_ERROR("Failed to determine the necessary buffer size");
            return -1;
        case format_status::no_memory:
            OW_ENOMEM();
            return -1;
        case format_status::short_write:
            OW_ERROR("Failed to completely write formatted string to buffer");
            return -1;
    }
    return -1;
}

int ow_asprintf(char** out, const char* format, ...) {
    if (out == nullptr || format == nullptr) {
        OW_EINVAL();
        return -1;
    }
    int length = 0;
    va_list args;
    va_start(args, format);
    const format_status status = format_alloc(out, &length, format, args);
    va_end(args);
    switch (status) {
        case format_status::ok:
            return length;
        case format_status::measure_failed:
            OW_ERROR("Failed to determine the necessary buffer size");
            return -1;
        case format_status::no_memory:
            OW_ENOMEM();
            return -1;
        case format_status::short_write:
            OW_ERROR("Failed to completely write formatted string to buffer");
            return -1;
    }
    return -1;
}

char* ow_strdup_till(const char* s, const char** stop, char delimiter) {
    if (s == nullptr || delimiter == '\0') {
        OW_EINVAL();
        return nullptr;
    }
    const char* at = std::strchr(s, delimiter);
    if (at == nullptr) at = s + std::strlen(s);
    char* copy = ow::dup_cstr(std::string_view(s, static_cast<std::size_t>(at - s)));
    if (copy == nullptr) {
        OW_ENOMEM();
        return nullptr;
    }
    if (stop != nullptr) *stop = at;
    return copy;
}

}  // extern "C"

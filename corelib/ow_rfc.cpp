// ow_rfc.cpp: address and domain validation for texts that strangers send. Comments are cut
// out of a private copy in place; nested comments are matched with a depth count in one pass
// rather than by recursion, so a long run of '(' costs neither stack nor repeated scans.
#include "ow_rfc.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "ow_dns.h"
#include "ow_internal.hpp"
#include "ow_stringutils.h"

static_assert(AF_INET == 2 && AF_INET6 == 10, "ow_is_ip returns the Linux family numbers");

namespace {

// ---------------------------------------------------------------------------------------
// Character classes of the POSIX locale, independent of whatever locale the host set.
constexpr bool is_print(char c) noexcept { return c >= 0x20 && c <= 0x7e; }
constexpr bool is_space(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }
constexpr bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }
constexpr bool is_alnum(char c) noexcept {
    return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// The specials a local part may hold besides letters and digits.
constexpr std::string_view local_specials = "!#$%&'*+-./=?^_`{|}~";

constexpr bool is_local_char(char c) noexcept {
    return is_alnum(c) || local_specials.find(c) != std::string_view::npos;
}

// The characters a bare (unbracketed) address field may not hold.
constexpr std::string_view raw_specials = "\\:;[],";

// Appends s (which the list then owns) with its terminator counted in the size, so an
// empty string is a valid entry. False when the list could not take it; s is still the
// caller's then.
bool append_owned(ow_list** list, char* s) noexcept {
    return ow_append_list_entry(list, s, std::strlen(s) + 1, false) > 0;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// The three scanners of address syntax. They work on the caller's private copy.

// p points at an opening '"'. Returns the character after the closing quote, or nullptr
// when the phrase holds a non-printable byte, never closes, or closes at the end of the
// text (a phrase is never the last thing in a field).
static char* __ow_parse_quotes(char* p) {
    if (p == nullptr || *p != '"') {
        OW_EINVAL();
        return nullptr;
    }
    char* s = p + 1;
    bool escaped = false;
    while (*s != '\0' && *s != '"') {
        if (!is_print(*s)) {
            OW_DEBUG("Found non printable character");
            return nullptr;
        }
        if (*s == '\\' && !escaped) {
            // An escaped quote is passed over whole; any other escaped byte is ordinary.
            if (s[1] == '"') {
                s += 2;
            } else {
                ++s;
                escaped = true;
            }
        } else {
            ++s;
            escaped = false;
        }
    }
    if (*s == '"') {
        OW_DEBUG("found end of quote marker: incrementing");
        ++s;
    }
    if (*s == '\0') {
        OW_DEBUG("found illegal quotation at end of address");
        return nullptr;
    }
    return s;
}

// p points at '('. Removes the comment up to its matching ')' (nested comments included)
// by moving the rest of the text down, and sets *out to where '(' stood. False, with the
// text unchanged, when the comment never closes.
static bool __ow_parse_comment(char* p, char** out) {
    if (p == nullptr || *p != '(' || out == nullptr) {
        OW_EINVAL();
        return false;
    }
    OW_DEBUG("parsing [%s]", p);
    // Removing an inner comment first and then the rest of the outer one leaves the same
    // text as removing the outer span at once, so a depth count finds the end.
    unsigned long depth = 1;
    bool escaped = false;
    char* s = p + 1;
    for (;;) {
        if (*s == '\0') return false;
        if (*s == ')') {
            if (--depth == 0) break;
            ++s;
            escaped = false;
        } else if (*s == '(' && !escaped) {
            OW_DEBUG("Found nested comment.. re looping");
            ++depth;
            ++s;
        } else if (*s == '\\' && !escaped) {
            OW_DEBUG("found escape character, next character is exempt");
            if (s[1] == ')') {
                s += 2;
            } else {
                ++s;
                escaped = true;
            }
        } else {
            ++s;
            escaped = false;
        }
    }
    OW_DEBUG("found end of comment marker. Removing comment");
    OW_DEBUG("content of string where ptr is: [%s]", s + 1);
    std::memmove(p, s + 1, std::strlen(s + 1) + 1);
    OW_DEBUG("after shift: [%s]", p);
    *out = p;
    return true;
}

// p points at '<'. True when the bracketed address is empty or blank (a bounce), when it
// is a valid bare address, or when no copy could be made to check it; *out is then set
// past the '>'.
static bool __ow_parse_rfc_address(char* p, char** out) {
    if (p == nullptr || *p != '<' || out == nullptr) {
        OW_EINVAL();
        return false;
    }
    char* close = std::strchr(p + 1, '>');
    if (close == nullptr) {
        OW_DEBUG("missing closing '>' for rfc address");
        return false;
    }
    char* end = close + 1;
    if (close == p + 1) {
        OW_DEBUG("RFC address portion detected as empty. Passing as bounce");
        *out = end;
        return true;
    }
    const char* first = p + 1;
    const char* last = close;
    while (first < last && is_space(*first)) ++first;
    while (last > first && is_space(last[-1])) --last;
    if (first == last) {
        OW_DEBUG("RFC address portion detected as empty. Passing as bounce (2)");
        *out = end;
        return true;
    }
    ow::unique_cstr copy(
        ow::dup_cstr(std::string_view(first, static_cast<std::size_t>(last - first))));
    if (!copy) {
        OW_ENOMEM();
        OW_DEBUG("out of memory allocating copy of address. Passing back true for now.");
        *out = end;
        return true;
    }
    if (ow_valid_email_address(copy.get()) == 0) return false;
    *out = end;
    return true;
}

extern "C" {

// ---------------------------------------------------------------------------------------
// Domains and bare addresses.

int ow_valid_domain(const char* domain) {
    const std::string_view d = domain != nullptr ? domain : "";
    const char* shown = domain != nullptr ? domain : "(null)";
    if (d.size() < 3 || d.find('.') == std::string_view::npos || d.front() == '.' ||
        d.back() == '.') {
        OW_DEBUG(
            "domain [%s] does not meet minimum criteria for length, number of dots, first "
            "character, or last character",
            shown);
        return 0;
    }
    if (is_digit(d.front()) && ow_is_ip(domain) != 0) {
        OW_DEBUG("[%s] is an IP address", domain);
        return 0;
    }
    if (d.find("..") != std::string_view::npos) {
        OW_DEBUG("domain [%s] contains consecutive '.' characters", domain);
        return 0;
    }
    for (const char c : d) {
        if (!is_alnum(c) && c != '-' && c != '.') {
            OW_DEBUG("domain [%s] contains invalid characters", domain);
            return 0;
        }
    }
    return 1;
}

int ow_valid_email_address(const char* address) {
    if (address == nullptr || *address == '\0') {
        OW_EINVAL();
        return 0;
    }
    OW_DEBUG("parameter [%s]", address);
    const std::string_view a = address;
    const std::size_t at = a.find('@');
    if (at == std::string_view::npos) {
        OW_DEBUG("address [%s] missing '@' character", address);
        return 0;
    }
    if (at == 0) {
        OW_DEBUG("address [%s] missing user portion", address);
        return 0;
    }
    const std::string_view local = a.substr(0, at);
    const std::string_view domain = a.substr(at + 1);
    if (domain.size() > 254) {
        OW_DEBUG("domain portion is greater than RFC specifications permit");
        return 0;
    }
    if (domain.empty() || ow_valid_domain(address + at + 1) == 0) {
        OW_DEBUG("invalid domain part for address [%s]", address);
        return 0;
    }
    if (a.front() == '.' || local.back() == '.' || a.find("..") != std::string_view::npos) {
        OW_DEBUG("address [%s] violates RFC pattern specifications", address);
        return 0;
    }
    for (const char c : local) {
        if (!is_local_char(c)) {
            OW_DEBUG("address [%s] contains invalid characters", address);
            return 0;
        }
    }
    return 1;
}

// ---------------------------------------------------------------------------------------
// Address fields.

int ow_rfc822_email_address(const char* field, bool* bracketed) {
    if (field == nullptr || *field == '\0') {
        OW_DEBUG(
            "argument is empty or NULL, returning true in the event this is a Mailer-Daemon "
            "bounce");
        return 1;
    }
    char* copy = ow::dup_cstr(field);
    if (copy == nullptr) {
        OW_ENOMEM();
        OW_DEBUG(
            "out of memory allocating address copy - returning true as this check can't "
            "be run");
        return 1;
    }
    // ow_trim may replace the copy, so the guard frees whatever it holds at the end.
    ow::scope_guard release([&copy] { std::free(copy); });

    bool quoted = false, has_bracket = false, bare_at = false;
    for (char* s = copy; *s != '\0';) {
        const char c = *s;
        if (!is_print(c)) {
            OW_DEBUG("non-printable character found in address");
            return 0;
        }
        if (c == '"') {
            if (has_bracket) {
                OW_DEBUG("found quotes after RFC address");
                return 0;
            }
            char* after = __ow_parse_quotes(s);
            if (after == nullptr) {
                OW_DEBUG("invalid quoted phrase");
                return 0;
            }
            quoted = true;
            s = after;
        } else if (c == '(') {
            if (!__ow_parse_comment(s, &s)) {
                OW_DEBUG("comment parse failed");
                return 0;
            }
        } else if (c == '<') {
            if (has_bracket) {
                OW_DEBUG("RFC address already found once.. we won't accept another");
                return 0;
            }
            if (!__ow_parse_rfc_address(s, &s)) {
                OW_DEBUG("RFC address parse failed");
                return 0;
            }
            has_bracket = true;
        } else if (c == '@') {
            bare_at = true;
            ++s;
        } else if (raw_specials.find(c) != std::string_view::npos) {
            OW_DEBUG("Invalid character %c found in raw address", c);
            return 0;
        } else {
            ++s;
        }
    }
    if (quoted && !has_bracket) {
        OW_DEBUG("Quotes require RFC braces");
        return 0;
    }
    if (has_bracket && bare_at) {
        OW_DEBUG("Found unquoted '@' symbol outside of email address");
        return 0;
    }
    if (has_bracket) {
        if (bracketed != nullptr) *bracketed = true;
        return 1;
    }
    ow_trim(&copy);
    if (*copy == '\0') {
        OW_DEBUG("Empty string after parsing and trimming");
        return 0;
    }
    return ow_valid_email_address(copy);
}

// ---------------------------------------------------------------------------------------
// Header values with several mailboxes.

ow_list* ow_split_addresses(const char* value) {
    if (value == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    if (*value == '\0') return nullptr;
    ow_list* pieces = nullptr;
    ow::scope_guard on_failure([&pieces] { ow_destroy_list(&pieces, std::free); });
    // Cuts [start, end) off as the next piece; false when out of memory (reported).
    auto cut = [&pieces](const char* start, const char* end, bool keep_empty) noexcept {
        char* piece = ow::dup_cstr(std::string_view(start, static_cast<std::size_t>(end - start)));
        if (piece == nullptr || !ow_simplify_whitespace(&piece)) {
            std::free(piece);
            return false;
        }
        if (*piece == '\0' && !keep_empty) {
            std::free(piece);
            return true;
        }
        if (!append_owned(&pieces, piece)) {
            std::free(piece);
            return false;
        }
        return true;
    };

    bool in_quotes = false;
    // A signed 8-bit count: an unmatched ')' makes it negative, and then no comma splits.
    int8_t depth = 0;
    const char* start = value;
    const char* s = value;
    while (*s != '\0') {
        const char c = *s;
        if (c == '\\' && (in_quotes || depth != 0)) {
            if (s[1] == '\0') break;
            s += 2;
            continue;
        }
        if (c == '"' && depth == 0) {
            in_quotes = !in_quotes;
        } else if (c == '(') {
            ++depth;
        } else if (c == ')') {
            --depth;
        } else if (c == ',' && depth == 0 && !in_quotes) {
            if (!cut(start, s, true)) {
                OW_ENOMEM();
                return nullptr;
            }
            start = s + 1;
        }
        ++s;
    }
    if (!cut(start, start + std::strlen(start), false)) {
        OW_ENOMEM();
        return nullptr;
    }
    on_failure.dismiss();
    return pieces;
}

char* ow_extract_address_from_mailbox(const char* mailbox) {
    if (mailbox == nullptr || *mailbox == '\0') {
        OW_EINVAL();
        return nullptr;
    }
    char* copy = ow::dup_cstr(mailbox);
    if (copy == nullptr) {
        OW_ENOMEM();
        return nullptr;
    }
    ow::scope_guard release([&copy] { std::free(copy); });

    for (char* s = copy; *s != '\0';) {
        if (!is_print(*s)) return nullptr;
        if (*s == '"') {
            s = __ow_parse_quotes(s);
            if (s == nullptr) return nullptr;
        } else if (*s == '(') {
            if (!__ow_parse_comment(s, &s)) return nullptr;
        } else if (*s == '<') {
            if (s[1] == '>' || s[1] == '\0') return nullptr;
            const char* close = std::strchr(s + 1, '>');
            if (close == nullptr) return nullptr;
            char* address =
                ow::dup_cstr(std::string_view(s + 1, static_cast<std::size_t>(close - s - 1)));
            if (address == nullptr) {
                OW_ENOMEM();
                return nullptr;
            }
            ow_lower(address);
            ow_trim(&address);
            return address;
        } else {
            ++s;
        }
    }
    ow_lower(copy);
    ow_trim(&copy);
    if (*copy == '\0') {
        OW_ERROR("zero length address");
        return nullptr;
    }
    release.dismiss();
    return copy;
}

ow_list* ow_parse_addresses_from_header(const char* value) {
    if (value == nullptr || *value == '\0') {
        OW_EINVAL();
        return nullptr;
    }
    ow_list* pieces = ow_split_addresses(value);
    if (pieces == nullptr) {
        OW_ERROR("Unable to split address list");
        return nullptr;
    }
    ow_list* addresses = nullptr;
    for (const ow_list* piece = pieces; piece != nullptr; piece = piece->next) {
        const auto* text = static_cast<const char*>(piece->data);
        if (text == nullptr || *text == '\0') continue;
        char* address = ow_extract_address_from_mailbox(text);
        if (address == nullptr) continue;
        if (!append_owned(&addresses, address)) {
            OW_ENOMEM();
            std::free(address);
            ow_destroy_list(&addresses, std::free);
            ow_destroy_list(&pieces, std::free);
            return nullptr;
        }
    }
    ow_destroy_list(&pieces, std::free);
    return addresses;
}

// ---------------------------------------------------------------------------------------
// IP addresses.

int ow_is_ip(const char* text) {
    if (text == nullptr || *text == '\0') {
        OW_EINVAL();
        return 0;
    }
    unsigned char binary[16];
    if (ow_inet_pton(AF_INET, text, binary) == 1) {
        OW_DEBUG("[%s] is an IPv4 address", text);
        return AF_INET;
    }
    if (ow_inet_pton(AF_INET6, text, binary) == 1) {
        OW_DEBUG("[%s] is an IPv6 address", text);
        return AF_INET6;
    }
    OW_DEBUG("[%s] is not an ip address", text);
    return 0;
}

bool ow_is_ipv6(const char* text) {
    if (text == nullptr || *text == '\0') {
        OW_EINVAL();
        return false;
    }
    unsigned char binary[16];
    return ow_inet_pton(AF_INET6, text, binary) == 1;
}

bool ow_is_unroutable_ip(const char* text) {
    if (text == nullptr || *text == '\0') {
        OW_EINVAL();
        return false;
    }
    const int family = ow_is_ip(text);
    if (family == 0) {
        OW_ERROR("Address [%s] is not a valid ipv4 or ipv6 address", text);
        return false;
    }
    unsigned char b[16] = {};
    if (ow_inet_pton(family, text, b) != 1) {
        OW_ERROR("Failed to convert address [%s] to binary buffer", text);
        return false;
    }
    bool reserved = false;
    if (family == AF_INET) {
        reserved = b[0] == 0 || b[0] == 10 || b[0] == 127 || (b[0] == 169 && b[1] == 254) ||
                   (b[0] == 172 && b[1] >= 16 && b[1] <= 31) || (b[0] == 192 && b[1] == 168) ||
                   b[0] >= 240;
    } else {
        const auto zeros = [&b](int n) {
            for (int i = 0; i < n; ++i)
                if (b[i] != 0) return false;
            return true;
        };
        reserved = b[0] == 0xfc || b[0] == 0xfd ||                   // unique local
                   (zeros(15) && b[15] <= 1) ||                      // :: and ::1
                   (zeros(10) && b[10] == 0xff && b[11] == 0xff) ||  // IPv4-mapped
                   (b[0] == 0xfe && b[1] >= 0x80 && b[1] <= 0xbf);   // link-local
    }
    if (!reserved) OW_DEBUG("Address [%s] is not a private or reserved address", text);
    return reserved;
}

}  // extern "C"

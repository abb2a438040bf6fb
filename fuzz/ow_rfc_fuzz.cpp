// Feeds arbitrary bytes to the address and domain checks. The first byte picks the
// operation, the rest is its text (cut at the first NUL, as a C caller would see it). Beyond
// not crashing, the checks must agree with each other: a valid bare address is an acceptable
// field, a valid domain makes a valid address, and extracted addresses are lower-case and
// trimmed.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ow_list.h"
#include "ow_rfc.h"

namespace {

bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

void check_bare_address(const char* s) {
    if (*s == '\0') return;
    const std::size_t len = std::strlen(s);
    if (is_space(s[0]) || is_space(s[len - 1])) abort();
    for (const char* p = s; *p != '\0'; ++p) {
        if (*p >= 'A' && *p <= 'Z') abort();
    }
}

void check_list(ow_list* list, bool addresses) {
    for (const ow_list* e = list; e != nullptr; e = e->next) {
        const auto* s = static_cast<const char*>(e->data);
        if (s == nullptr || e->size != std::strlen(s) + 1) abort();
        if (addresses) check_bare_address(s);
    }
    ow_destroy_list(&list, std::free);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const char* s = text.c_str();
    switch (data[0] % 5) {
        case 0: {
            bool bracketed = false;
            const int field = ow_rfc822_email_address(s, &bracketed);
            if (field != 0 && field != 1) abort();
            if (bracketed && field != 1) abort();
            break;
        }
        case 1: {
            const int bare = ow_valid_email_address(s);
            if (bare == 1 && ow_rfc822_email_address(s, nullptr) != 1) abort();
            break;
        }
        case 2:
            check_list(ow_split_addresses(s), false);
            break;
        case 3: {
            check_list(ow_parse_addresses_from_header(s), true);
            char* one = ow_extract_address_from_mailbox(s);
            if (one != nullptr) check_bare_address(one);
            std::free(one);
            break;
        }
        case 4: {
            if (ow_valid_domain(s) == 1) {
                if (std::strlen(s) <= 254 && ow_valid_email_address(("x@" + text).c_str()) != 1)
                    abort();
                if (ow_is_ip(s) != 0) abort();
            }
            const int family = ow_is_ip(s);
            if (family != 0 && family != 2 && family != 10) abort();
            if (ow_is_unroutable_ip(s) && family == 0) abort();
            if (ow_is_ipv6(s) != (family == 10)) abort();
            break;
        }
    }
    return 0;
}

// Feeds arbitrary bytes to the walks over a received DNS answer, as the answer to an MX and
// to a PTR query in both modes. The verdicts must come from the documented set, and a found
// PTR answer must hand back a well-formed name array: lower-case names, one at most in mode
// 1, never more than the answer's records.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ow_dns_internal.hpp"
#include "ow_log.h"

namespace {
void quiet(int, const char*, ...) {}

void check_names(char** names, std::size_t most) {
    if (names == nullptr || names[0] == nullptr) abort();
    std::size_t n = 0;
    for (; names[n] != nullptr; ++n) {
        for (const char* p = names[n]; *p != '\0'; ++p) {
            if (std::isupper(static_cast<unsigned char>(*p))) abort();
        }
        std::free(names[n]);
    }
    if (n > most) abort();
    std::free(names);
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ow_set_log_function(quiet);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 65535) return 0;
    const int length = static_cast<int>(size);
    const int32_t mx = ow::dns::mx_answer(data, length, "example.test");
    if (mx < 0 || mx > 2) abort();

    const std::size_t records = size >= 8 ? (std::size_t{data[6]} << 8 | data[7]) : 0;
    for (int32_t mode = 0; mode <= 1; ++mode) {
        char** names = nullptr;
        const int32_t rc =
            ow::dns::ptr_answer(data, length, "1.2.0.192.in-addr.arpa.", mode, &names);
        if (rc < -1 || rc > 2) abort();
        if (rc == 0) {
            check_names(names, mode == 1 ? 1 : records);
        } else if (names != nullptr) {
            abort();
        }
    }
    return 0;
}

// Feeds arbitrary bytes to the hosts-file scan as the file's contents. The first byte picks
// the address asked for. Whatever it finds must be a well-formed name array: as many names
// as it says, each a string without a blank, tab or line end in it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ow_dns_internal.hpp"
#include "ow_log.h"

namespace {
void quiet(int, const char*, ...) {}

// Canonical texts, as the public scan hands them down.
constexpr const char* queries[] = {"127.0.0.1",  "::1",       "2001:db8::1",
                                   "192.0.2.10", "fe80::a:b", "::ffff:192.0.2.1",
                                   "10.0.0.1",   "::"};
constexpr int families[] = {2, 10, 10, 2, 10, 10, 2, 10};
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ow_set_log_function(quiet);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const std::size_t pick = data[0] % (sizeof queries / sizeof queries[0]);
    // fmemopen needs a writable buffer for "r" only in name; keep a private copy anyway.
    char* copy = static_cast<char*>(std::malloc(size - 1));
    if (copy == nullptr) return 0;
    std::memcpy(copy, data + 1, size - 1);
    std::FILE* file = fmemopen(copy, size - 1, "r");
    if (file == nullptr) {
        std::free(copy);
        return 0;
    }
    char** names = nullptr;
    const int32_t count = ow::dns::scan_hosts(file, queries[pick], families[pick], &names);
    std::fclose(file);
    std::free(copy);
    if (count < 0) abort();
    if ((count == 0) != (names == nullptr)) abort();
    for (int32_t i = 0; i < count; ++i) {
        if (names[i] == nullptr || names[i][0] == '\0') abort();
        if (std::strpbrk(names[i], " \t\n#") != nullptr) abort();
        std::free(names[i]);
    }
    if (names != nullptr && names[count] != nullptr) abort();
    std::free(names);
    return 0;
}

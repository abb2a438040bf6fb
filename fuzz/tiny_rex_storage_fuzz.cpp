// Fuzz target: arbitrary bytes as a compiled pattern file, read and matched against a few
// subjects. The bytes go to a file because the reader takes a path.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "tiny_rex_storage.h"

namespace {

const std::string& file_path() {
    static const std::string path = [] {
        const char* dir = std::getenv("TMPDIR");
        return std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") +
               "/tiny_rex_storage_fuzz." + std::to_string(::getpid());
    }();
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FILE* fp = std::fopen(file_path().c_str(), "wb");
    if (fp == nullptr) return 0;
    if (size > 0) std::fwrite(data, 1, size, fp);
    std::fclose(fp);
    for (const char* subject :
         {"", "host-10-1-2-3.dsl.example.net", "mail.example.com", "a\tb c\x01\xff"}) {
        compiled_regex_match(file_path().c_str(), subject);
    }
    return 0;
}

// Arbitrary bytes as an IP range file, read by every reader and then changed by a writer.
// Readers must never crash or read past the file; a writer must leave either the very bytes
// it found or a version 2 file whose count agrees with its size, and never a ".new" file.
//
// Input: 1 byte operation (add, add with comment, delete, convert), 2 bytes choosing the
// range's third and fourth octets, then the file's bytes (at most 40 records' worth).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ardvex-iprange.h"
#include "ow_log.h"

namespace {
const std::string& scratch_dir() {
    static const std::string dir = "/dev/shm/ardvex-iprange_fuzz." + std::to_string(getpid());
    return dir;
}
std::string slurp(const std::string& path) {
    std::string out;
    if (FILE* fp = std::fopen(path.c_str(), "rb")) {
        char buf[4096];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, fp)) > 0;) out.append(buf, n);
        std::fclose(fp);
    }
    return out;
}
void quiet(int, const char*, ...) {}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    mkdir(scratch_dir().c_str(), 0700);
    ow_set_log_function(quiet);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) abort();  // the listing
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3 || size > 3 + 16 + 40 * sizeof(ipr_record)) return 0;
    const std::string& dir = scratch_dir();
    const std::string path = dir + "/r";
    const std::string bytes(reinterpret_cast<const char*>(data) + 3, size - 3);
    {
        FILE* fp = std::fopen(path.c_str(), "wb");
        if (fp == nullptr) abort();
        std::fwrite(bytes.data(), 1, bytes.size(), fp);
        std::fclose(fp);
    }
    const std::string low = "10.1." + std::to_string(data[1]) + "." + std::to_string(data[2] | 1);
    const std::string high = "10.1." + std::to_string(data[1]) + ".254";
    for (const char* ip : {"10.1.0.1", low.c_str(), "172.16.254.254", "192.168.1.1"})
        file_contains_ip_range_match("r", ip, dir.c_str());
    uint32_t offset = 0;
    ipr_file_contains_range(path.c_str(), low.c_str(), high.c_str(), &offset);
    ipr_list_file(dir.c_str(), "r");

    switch (data[0] % 4) {
        case 0:
            ipr_add_range_to_file(dir.c_str(), "r", low.c_str(), high.c_str(), nullptr, nullptr);
            break;
        case 1:

            ipr_add_range_to_file(dir.c_str(), "r", low.c_str(), high.c_str(), "fuzz", nullptr);
            break;
        case 2:

            ipr_del_range_from_file(dir.c_str(), "r", low.c_str(), high.c_str(), nullptr);
            break;
        default:
            ipr_convert_file(dir.c_str(), "r");
            break;
    }
    const std::string after = slurp(path);
    if (after != bytes) {
        // Anything new must be a whole version 2 file.
        uint32_t count = 0;
        if (after.size() < 16 || static_cast<uint8_t>(after[8]) != 2) abort();
        std::memcpy(&count, after.data() + 12, 4);
        if (after.size() != 16 + static_cast<size_t>(count) * sizeof(ipr_record)) abort();
    }
    struct stat st {};
    if (stat((path + ".new").c_str(), &st) == 0 || stat((path + ".bak").c_str(), &st) == 0) abort();
    unlink(path.c_str());
    return 0;
}

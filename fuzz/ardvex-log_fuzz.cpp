// Counts one message into a counter file of arbitrary bytes at an arbitrary time (local time
// in a zone with daylight saving). Whatever the file held, the count must leave it exactly
// 997 (daily) or 773 (hourly) bytes long with its version byte set, and never crash.
//
// Input: 4 bytes time (seconds since the epoch, host order), 1 byte type, 1 byte flags
// (bit 0 authenticated, bit 1 hourly file), then the file's bytes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "ardvex-log.h"
#include "ow_internal.hpp"

namespace {
const std::string& scratch_dir() {
    static const std::string dir = "/dev/shm/ardvex-log_fuzz." + std::to_string(getpid());
    return dir;
}
void write_file(const std::string& path, const uint8_t* data, size_t size) {
    unlink(path.c_str());
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) abort();
    if (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) abort();
    close(fd);
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    mkdir(scratch_dir().c_str(), 0700);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 6) return 0;
    uint32_t when = 0;
    std::memcpy(&when, data, 4);
    const uint8_t type = data[4];
    const bool authenticated = (data[5] & 1) != 0, is_hourly = (data[5] & 2) != 0;
    // Not the first day of the epoch: 0 would mean the real clock, and an hour start of 0 is
    // the failure value of the hour computation.
    const std::time_t now = static_cast<std::time_t>(when < 86400 ? when + 86400 : when);
    struct tm local {};
    if (localtime_r(&now, &local) == nullptr) return 0;

    const std::string& dir = scratch_dir();
    char name[64];
    std::snprintf(name, sizeof name, "/.counterv2.dat.%s",
                  is_hourly ? "hourly" : std::to_string(local.tm_mon + 101).substr(1).c_str());
    const std::string path = dir + name;
    write_file(path, data + 6, size - 6);

    ow::testing::set_clock(now);
    if (is_hourly) {
        ardvex_increment_counter_hourly(dir.c_str(), type, authenticated);
    } else {
        ardvex_increment_counter(dir.c_str(), type, authenticated);
    }
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) abort();
    const off_t expected = is_hourly ? ARDVEX_COUNTER_HOURLY_SIZE : ARDVEX_COUNTER_DAILY_SIZE;
    if (st.st_size != expected) abort();
    unlink(path.c_str());
    return 0;
}

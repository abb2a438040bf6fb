// ardvex-log-internal.hpp: the record-level steps of the counter files, shared by ardvex-log.cpp
// and its tests only (never installed). Descriptors are those of ow_open_ex; every step writes
// its own ERROR line on failure. Records handed out are malloc'd (free with free()).
#ifndef ARDVEX_LOG_INTERNAL_HPP
#define ARDVEX_LOG_INTERNAL_HPP

#include <cstdint>

#include "ardvex-log.h"

// "<dir>/<base>.MM" and "<dir>/<base>.hourly"; malloc'd, or nullptr (logged).
char* al_get_counter_file(const char* dir, const char* base, int month);
char* al_get_counter_file_hourly(const char* dir, const char* base);

// Rewrite the file as a fresh 997- or 773-byte file and leave it positioned at 0.
bool al_initialise_stat_file(int fd);
bool al_initialise_stat_file_hourly(int fd);

// Daily records, day index 0..30.
bool al_seek_to_counter_day(int fd, int day);
ardvex_counter_record* al_read_counter_day(int fd, int day);
// As above into *out, without allocating: the validity scan must not reset a month of
// counts because memory was short for a moment.
bool al_read_counter_day(int fd, int day, ardvex_counter_record* out);
bool al_write_counter_day(int fd, int day, const ardvex_counter_record* record);

// Hourly records, hour 0..23, and the last-update word of the hourly header.
uint32_t al_read_last_update(int fd);
bool al_seek_to_counter_hour(int fd, int hour);
bool al_clear_counter_hour(int fd, int hour, int count);
ardvex_counter_record* al_read_counter_hour(int fd, int hour);
bool al_write_counter_hour(int fd, uint32_t period_start, int hour,
                           const ardvex_counter_record* record);

#endif  // ARDVEX_LOG_INTERNAL_HPP

/* ardvex-log.h: the screening engine's statistics: a daily and an hourly counter file per log
 * directory, counted into once for every message the engine logs.
 *
 * Conventions:
 *  1. Counter files are fixed-size binary files that other programs of the suite read, so their
 *     layout below is an interface. Every number in them is an unsigned 32-bit integer in the
 *     machine's byte order; a fresh file is all zero bytes except its version byte (2).
 *       <dir>/.counterv2.dat.MM     (MM = month 01..12) 997 bytes: version (1 byte), a reserved
 *                                   word that is 0 (4 bytes), 31 records, one per day of month.
 *       <dir>/.counterv2.dat.hourly 773 bytes: version (1 byte), the hour start of the last
 *                                   update (4 bytes), 24 records, one per hour of the day.
 *  2. Each call opens the file under the whole-file write lock of ow_open_ex (ow_file.h),
 *     repairs or resets it when needed, counts and closes it: processes that share a log
 *     directory never lose a count, and nothing is kept in memory between calls.
 *  3. A file of the wrong size or version is rewritten as a fresh file before counting. The
 *     daily file is also reset when one of its records is more than 31 days old (the same
 *     month of an earlier year). The hourly file keeps a rolling day: the records of hours
 *     that passed without traffic are zeroed when traffic resumes.
 *  4. The calls return nothing: every failure writes one ERROR line (ow_log.h) and leaves the
 *     file as the last successful count left it.
 *  5. Local time decides days and hours. Across a daylight-saving change the hourly file is
 *     rolled by the local hour of the day: the hour that is repeated when clocks go back
 *     keeps the counts of both its passes, and the hour skipped when they go forward is
 *     zeroed like any hour without traffic.
 */
#ifndef ARDVEX_LOG_H
#define ARDVEX_LOG_H

#include <stdbool.h>
#include <stdint.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Base name of both counter files inside a log directory. */
#define ARDVEX_COUNTER_BASE ".counterv2.dat"
#define ARDVEX_COUNTER_VERSION 2
#define ARDVEX_COUNTER_HEADER_SIZE 5 /* version byte and one 32-bit word */
#define ARDVEX_COUNTER_DAILY_RECORDS 31
#define ARDVEX_COUNTER_HOURLY_RECORDS 24
#define ARDVEX_COUNTER_DAILY_SIZE 997
#define ARDVEX_COUNTER_HOURLY_SIZE 773

/* One record of either file: 32 bytes, record n at offset 5 + 32 * n. Every counted message
 * adds one to exactly one of unauthenticated and authenticated, and to one of ham .. ratelimit2
 * (none for an unknown type). */
typedef struct ardvex_counter_record {
    uint32_t period_start;    /* daily: local midnight of the day the record was first used;
                                 hourly: start of the hour of the record's last update
                                 (seconds since the epoch); 0 in an unused record */
    uint32_t ham;             /* types 0 (HAM) and 5 (NDR) */
    uint32_t spam;            /* type 1 (SPAM; the message log counts QUARANTINE here) */
    uint32_t exempt;          /* type 2 (EXEMPT) */
    uint32_t ratelimit1;      /* type 3 (RATELIMIT, first kind) */
    uint32_t ratelimit2;      /* type 4 (RATELIMIT, second kind) */
    uint32_t unauthenticated; /* messages of sessions without SMTP authentication */
    uint32_t authenticated;   /* messages of authenticated sessions */
} ardvex_counter_record;

/* Counts one message of log type 0..5 in the daily file of log_dir. A missing or empty
 * log_dir, or one that is not a directory, is ignored without a line. */
OW_API void ardvex_increment_counter(const char* log_dir, uint8_t type, bool authenticated);

/* Counts one message of log type 0..5 in the hourly file of log_dir. A missing or empty
 * log_dir is refused (EINVAL), one that is not a directory reported as missing. Refuses to
 * count when the file's last update lies in a later hour than now (clock set back). */
OW_API void ardvex_increment_counter_hourly(const char* log_dir, uint8_t type, bool authenticated);

#ifdef __cplusplus
}
#endif

#endif /* ARDVEX_LOG_H */

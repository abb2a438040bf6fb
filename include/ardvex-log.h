/* ardvex-log.h: the screening engine's record of its verdicts: the message log (one text line
 * per judged message, in the suite's log directory and in per-user directories), the
 * authentication log, and the daily and hourly counter files of every directory logged to.
 *
 * Message log conventions:
 *  A. log_message appends one line to <log dir>/axlog and counts it in that directory's
 *     counter files, then does the same for every non-empty directory in the session's
 *     user_log_dirs, in list order. log_auth_message appends to <log dir>/axauthlog and counts
 *     nothing. The log dir is /var/log/ardvex/ unless the build chose another. Files are
 *     created with mode 0666 before the umask; every append happens under the whole-file lock,
 *     so lines of concurrent processes never interleave.
 *  B. Lines end in CR LF. Session strings are written as they are except that control bytes
 *     (below 0x20, and 0x7f) become '?', so no field can end a line or forge another; bytes
 *     from 0x80 up (UTF-8) are kept. A NULL string is written as "(null)". When a line would
 *     exceed the 1022 characters a log write may hold, the longest fields are cut (the cut
 *     marked "...") until it fits, so every verdict leaves a line.
 *  C. Nothing is returned. A shared log that cannot be opened ends the call silently; a user
 *     log that cannot be opened ends the per-user loop with an ERROR line.
 *
 * Counter file conventions:
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
#include "owspamrule.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Message log types (log_message) and what they are counted as. */
#define ARDVEX_LOG_HAM 0        /* "HAM", counted as ham */
#define ARDVEX_LOG_SPAM 1       /* "SPAM[reason]", counted as spam */
#define ARDVEX_LOG_EXEMPT 2     /* "EXEMPT[reason]", counted as exempt */
#define ARDVEX_LOG_RATELIMIT1 3 /* "RATELIMIT[reason]", first kind */
#define ARDVEX_LOG_RATELIMIT2 4 /* "RATELIMIT[reason]", second kind */
#define ARDVEX_LOG_NDR 5        /* "NDR", counted as ham */
#define ARDVEX_LOG_QUARANTINE 6 /* "QUARANTINE[reason]", counted as spam */
/* Authentication log types (log_auth_message). */
#define ARDVEX_AUTH_PASS 1   /* "PASS", no reason */
#define ARDVEX_AUTH_BLOCK 2  /* "BLOCK[reason]" */
#define ARDVEX_AUTH_EXEMPT 3 /* "EXEMPT[reason]" */

/* The hosting program's name, written before the process id in every log line ("(null)" while
 * unset). The host assigns it once, before its first log call, to a string that outlives all
 * logging (a literal, or its argv[0]); the library never writes or frees it. */
OW_API extern const char* log_program_name;

/* Logs the verdict on session with type 0..6 (ARDVEX_LOG_*) and reason (may be NULL; shown as
 * "NULL" for the types that show one) and counts it; see conventions A to C. A NULL session or
 * a type above 6 is ignored without a line. Its shape is the engine's message-log hook. */
OW_API void log_message(spam_session* session, const char* reason, uint8_t type);

/* Logs an SMTP authentication outcome of type 1..3 (ARDVEX_AUTH_*). reason is required
 * (non-empty) for types 2 and 3 and ignored for type 1. A NULL session, another type or a
 * missing reason is refused with an ERROR line (EINVAL) and nothing is written. */
OW_API void log_auth_message(spam_session* session, int type, const char* reason);

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

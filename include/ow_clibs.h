/* ow_clibs.h: process-environment services of the ardvex library: a wall-clock stopwatch
 * and the switch of the effective user to a named service account.
 *
 * Conventions:
 *  1. Every failure writes one ERROR line (ow_log.h) and returns false or -1.0.
 *  2. The stopwatch is a plain record held by the caller; nothing is allocated.
 *  3. ow_set_run_as changes only the effective user id, so a process started as root can
 *     return to root later with ow_set_run_as("root").
 */
#ifndef OW_CLIBS_H
#define OW_CLIBS_H

#include <stdbool.h>
#include <stdint.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Wall-clock readings (gettimeofday). start_sec 0 means not started. */
typedef struct ow_stopwatch {
    int64_t start_sec;  /* seconds at start; 0 = not started */
    int64_t start_usec; /* microseconds part at start */
    int64_t stop_sec;   /* seconds at the last stop */
    int64_t stop_usec;  /* microseconds part at the last stop */
} ow_stopwatch;

/* Clears sw and records the start time. False when sw is NULL or the clock fails. */
OW_API bool ow_stopwatch_start(ow_stopwatch* sw);

/* Records the stop time and returns the seconds elapsed since the start, or -1.0 when sw is
 * NULL, was never started, or the clock fails. May be called several times; each call
 * measures from the same start. */
OW_API double ow_stopwatch_stop(ow_stopwatch* sw);

/* Makes user's id the effective user id of the process. True when the process now runs with
 * it (or already did, or is root and user is root); false when user is NULL or empty,
 * unknown, or the process is neither root nor that user, or seteuid fails. */
OW_API bool ow_set_run_as(const char* user);

#ifdef __cplusplus
}
#endif

#endif /* OW_CLIBS_H */

/* ow_log.h: the one way every module of ardvex reports what it does and what went wrong.
 *
 * Conventions:
 *  1. Every line goes to a single replaceable sink with the shape of syslog(3):
 *     sink(priority, format, ...). With no sink installed nothing is written at all.
 *  2. ERROR lines ("%s:%d ERROR %s(): %s", priority 3) are always written; DEBUG lines
 *     ("%s:%d DEBUG %s(): %s", priority 7) only when VERBOSEDEBUG was in the environment at
 *     the first DEBUG call of the process; informational lines ("%s", priority 6) carry the
 *     bare text.
 *  3. A message keeps at most its first 254 characters, and every byte outside 0x20..0x7E
 *     is shown as '?', so one call is always one log record. The message is passed to the
 *     sink as an argument, never as a format.
 *  4. Logging never fails and never allocates on the heap.
 *  5. The sink and the out-of-memory handler are plain process-wide values: set them before
 *     starting threads.
 */
#ifndef OW_LOG_H
#define OW_LOG_H

#include <stddef.h>
#include <stdint.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A printf-like sink; syslog(3) has this shape. */
typedef void (*ow_log_function_t)(int priority, const char* format, ...);
/* Called after an allocation failure has been reported; it decides whether the process
 * goes on. */
typedef void (*ow_oom_handler_t)(void);

/* Replaces the sink; NULL silences every line. */
OW_API void ow_set_log_function(ow_log_function_t sink);
/* Replaces the out-of-memory handler; NULL removes it. */
OW_API void ow_set_oom_handler(ow_oom_handler_t handler);

/* Writes an ERROR line naming func, file and line. Does nothing when func or format is NULL
 * or no sink is installed. */
OW_API void ow_log_error(const char* func, const char* file, uint32_t line, const char* format, ...)
    OW_PRINTF(4, 5);
/* Writes a DEBUG line when debugging is enabled (see convention 2). */
OW_API void ow_log_debug(const char* func, const char* file, uint32_t line, const char* format, ...)
    OW_PRINTF(4, 5);
/* Writes an informational line: the bare message, no position prefix. */
OW_API void ow_log_info(const char* format, ...) OW_PRINTF(1, 2);
/* Writes the out-of-memory ERROR line (the system's text for ENOMEM), then calls the
 * handler if one is installed. */
OW_API void ow_log_oom(const char* func, const char* file, uint32_t line);
/* Zeroed allocation of count * size bytes. On failure (or overflow of the product) reports
 * through ow_log_oom with the caller's position and returns NULL. Free with free(). */
OW_API void* ow_calloc(const char* func, const char* file, uint32_t line, size_t count,
                       size_t size);
/* A sink that prints the formatted text (at most 254 characters) and a line feed on
 * standard output. The priority is ignored and the text is printed as it is. */
OW_API void ow_log_stdout(int priority, const char* format, ...) OW_PRINTF(2, 3);

#ifdef __cplusplus
}
#endif

#endif /* OW_LOG_H */

/* ax_metric.h: the metric set of the metrics client. A metric set is an ow_hashmap from a
 * metric's upper-case key to its value string; this module collects one from a table of
 * metric records, compares it with the set reported last time and builds the POST body.
 *
 * Conventions:
 *  1. A metric set's values are private copies (PAIR_FLAG_COPY) of NUL-terminated strings,
 *     terminator included in the stored length, as ax_metric_load and ow_map_load leave
 *     them. A set is never changed by the functions below; destroy it with ow_map_destroy.
 *  2. Every failure writes one ERROR line (ow_log.h) and returns NULL or false.
 */
#ifndef AX_METRIC_H
#define AX_METRIC_H

#include <stdbool.h>
#include <stdint.h>

#include "ow_export.h"
#include "ow_hashmap.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Produces a metric's current value: a malloc'd NUL-terminated string the caller frees,
 * or NULL when the value cannot be had. */
typedef char* (*ax_metric_collector_fn)(void);

/* One metric. The rows of the metric table are static constants; a record made by
 * ax_metric_create owns its name and key, which ax_metric_destroy frees. */
typedef struct ax_metric_record {
    const char* name;                 /* lower-case name, e.g. "product_id"; for log lines */
    const char* key;                  /* upper-case key the value is stored and posted under */
    ax_metric_collector_fn collector; /* produces the value */
} ax_metric_record;

/* A new record with every field NULL, or NULL (logged). Fill name and key with malloc'd
 * strings; free it with ax_metric_destroy. */
OW_API ax_metric_record* ax_metric_create(void);
/* Frees a record from ax_metric_create with its name and key; NULL is a no-op. Never call it
 * on a static table row. */
OW_API void ax_metric_destroy(ax_metric_record* record);

/* Runs the collectors of table[0..count-1] in order and stores each value, trimmed of
 * whitespace at both ends, under the row's key. Returns the new set (free with
 * ow_map_destroy), or NULL (logged) when table is NULL, count is 0, a collector returns
 * NULL (later rows are not run), a key repeats, or on allocation failure. */
OW_API ow_hashmap* ax_metric_load(const ax_metric_record* const* table, uint64_t count);
/* True when some key of cache is missing from live or has another value there (compared
 * as strings, case-sensitive). Keys only in live do not count, so an empty cache never
 * differs. False (logged) when either set is NULL. */
OW_API bool ax_metric_different(const ow_hashmap* live, const ow_hashmap* cache);
/* The POST body of set: "KEY=value" pairs in the set's order joined by "&", with space # @
 * . , / : ; > < percent-encoded. A malloc'd string the caller frees; NULL for an empty set
 * (not logged), and NULL (logged) when set is NULL or on allocation failure. */
OW_API char* ax_metric_build_postdata(const ow_hashmap* set);

#ifdef __cplusplus
}
#endif

#endif /* AX_METRIC_H */

/* metrics.h: the metric table of the metrics client and the collectors behind its rows.
 *
 * Conventions:
 *  1. Every collector takes no arguments and returns a malloc'd NUL-terminated value that
 *     the caller frees with free(), or NULL when it cannot produce one. ax_metric_load
 *     trims, stores and frees the values; a NULL fails the whole collection.
 *  2. The _ex forms take the directories and programs the plain forms have fixed by the
 *     build (ardvex_config.h), so that tests can point them elsewhere; each plain form is a
 *     single call of its _ex form.
 *  3. The installation's identity is three files in the control directory: "license_key"
 *     (the whole file), "product_id" (a decimal 32-bit integer, white space around it
 *     allowed) and "server_id" (the whole file, every CR and LF removed). A missing,
 *     unreadable or blank file, or a product id that is not a whole decimal 32-bit integer,
 *     means no value.
 *  4. Failures are logged as ERROR lines (ow_log.h) where the platform or a library call
 *     fails; an identity value that is simply absent is not logged here (ax_metric_load
 *     names the metric).
 */
#ifndef AX_METRICS_H
#define AX_METRICS_H

#include <stdbool.h>

#include "ax_metric.h"
#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Number of rows of metric_table. */
#define METRIC_TABLE_COUNT 11

/* The metric table in reporting order: AXLICENSE, PRODUCTID, USECODE, AXVER, AXTIER, OS,
 * ARCH, MTA, PANEL, PANELVER, AXENABLED. The order is also the order of the POST body. */
extern OW_API const ax_metric_record* const metric_table[METRIC_TABLE_COUNT];

/* Rows 1 to 3: the installation key, the product number in decimal, and the server
 * identifier with every CR and LF removed; NULL when the identity file gives no value. */
OW_API char* metric_license_key(void);
OW_API char* metric_license_key_ex(const char* control_dir);
OW_API char* metric_product_id(void);
OW_API char* metric_product_id_ex(const char* control_dir);
OW_API char* metric_permitted_use_code(void);
OW_API char* metric_permitted_use_code_ex(const char* control_dir);

/* Rows 4 to 9: fixed values of this build; NULL only when the copy cannot be allocated. */
OW_API char* metric_ardvex_version(void);
OW_API char* metric_ardvex_tier(void);
OW_API char* metric_operating_system(void);
OW_API char* metric_architecture(void);
OW_API char* metric_mail_transfer_agent(void);
OW_API char* metric_web_panel(void);

/* Row 10: runs wrapper with tool as its only argument (ow_pipe, no shell) and returns the
 * leftmost run of three or four dot-separated digit groups in the first line of the
 * output; when the line holds none, the line itself (with its line feed). NULL when there
 * is no output or the line is empty. The plain form runs the suite's secure wrapper with
 * the panel-version tool. tool must not contain ';'. */
OW_API char* metric_web_panel_version(void);
OW_API char* metric_web_panel_version_ex(const char* wrapper, const char* tool);

/* True when the file "enabled" in control_dir is a regular file whose contents read as the
 * integer 1 (strtol in base 10, cut to its low 32 bits). A missing file, one of another type
 * or one that cannot be read is off. The plain form reads the suite's control directory. */
OW_API bool ardvex_enabled(void);
OW_API bool ardvex_enabled_ex(const char* control_dir);

/* Row 11: "1" when ardvex_enabled(), else "0". */
OW_API char* metric_ardvex_enabled(void);

#ifdef __cplusplus
}
#endif

#endif /* AX_METRICS_H */

/* ow_compat.h: small portability helpers of the ardvex library; for now the environment
 * lookup that hands back a private copy of a variable's value.
 *
 * Conventions:
 *  1. Refused arguments write one ERROR line (ow_log.h) with the system's text for EINVAL;
 *     an allocation failure writes the ENOMEM line. Both return false.
 *  2. A missing variable is no error: false, with a DEBUG line only.
 */
#ifndef OW_COMPAT_H
#define OW_COMPAT_H

#include <stdbool.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Looks the environment variable name up. When it exists (an empty value counts), stores a
 * malloc'd copy of its value through value, freeing the string *value held before, and
 * returns true; the caller frees the new copy with free(). When it does not exist, or on
 * failure, returns false and leaves *value as it was. name must be non-empty and value
 * non-NULL (*value may be NULL). */
OW_API bool __getenv(const char* name, char** value);

#ifdef __cplusplus
}
#endif

#endif /* OW_COMPAT_H */

/* ardvex.h: start-up and shutdown of the screening engine.
 *
 * The mail-server component calls ardvex_init once, before judging any transaction, and
 * ardvex_shutdown after the last. Between the two it walks ardvex_rule_list() in order,
 * calling each rule's check on the transaction's spam_session (see owspamrule.h).
 *
 * Nothing is reloaded while the engine runs: list and pattern files are read at each lookup,
 * so an administrator's edits take effect at once, while the rule table itself is fixed.
 * The engine has no locks; start and stop it from one thread while no rule runs.
 */
#ifndef ARDVEX_H
#define ARDVEX_H

#include <stdbool.h>

#include "ow_export.h"
#include "ow_list.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Registers the product's own hooks (replacing any a caller installed before) and builds
 * the rule list. False, with an error line, when no rule could be made; calling it again
 * while started first releases the list it built before. */
OW_API bool ardvex_init(void);

/* Frees the rule list; the hook table stays as it is. Harmless when not started. */
OW_API void ardvex_shutdown(void);

/* The rule list, first rule first: spam_rule records. NULL before start-up and after
 * shutdown. Owned by the engine: do not free or modify it. */
OW_API ow_list* ardvex_rule_list(void);

#ifdef __cplusplus
}
#endif

#endif /* ARDVEX_H */

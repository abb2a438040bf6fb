/* is_local_domain.h: whether an address's domain is a mail domain hosted on this server,
 * as Zimbra's LDAP map of virtual mail domains says.
 *
 * The question is put to Zimbra's postmap through the suite's secure wrapper (the engine may
 * run as a user that cannot read the map itself). Anything that stops the answer (no
 * wrapper, no Zimbra, no map, a failed run) counts as "not local", so the rules that ask
 * never reject because of it.
 */
#ifndef IS_LOCAL_DOMAIN_H
#define IS_LOCAL_DOMAIN_H

#include <stdbool.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* True when the text after the first '@' of address is found in the map (postmap exits 0).
 * False otherwise, and with an ERROR line (EINVAL) for a NULL or empty address. */
OW_API bool is_local_domain(const char* address);

#ifdef __cplusplus
}
#endif

#endif /* IS_LOCAL_DOMAIN_H */

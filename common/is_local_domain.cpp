// is_local_domain.cpp: asks Zimbra's LDAP map of virtual mail domains whether a domain is
// hosted here. The query runs through the suite's secure wrapper because the engine's user
// may not read the map; any obstacle makes the domain count as not local.
#include "is_local_domain.h"

#include <cstring>

#include "ardvex_config.h"
#include "common_libs.h"
#include "ow_file.h"
#include "ow_internal.hpp"

extern "C" bool is_local_domain(const char* address) {
    if (address == nullptr || *address == '\0') {
        OW_EINVAL();
        return false;
    }
    if (!ow_file_executable(ARDVEX_SECURE_WRAPPER) ||
        !ow_file_exists_ex(ARDVEX_POSTMAP, OW_FILE_REGULAR) ||
        !ow_file_exists_ex(ARDVEX_LDAP_VMD_MAP, OW_FILE_REGULAR)) {
        OW_DEBUG("no Zimbra map to ask");
        return false;
    }
    const char* at = std::strchr(address, '@');
    if (at == nullptr) {
        OW_DEBUG("address [%s] has no domain", address);
        return false;
    }
    // execv takes writable strings, so the vector is built of copies.
    char wrapper[] = ARDVEX_SECURE_WRAPPER;
    char postmap[] = ARDVEX_POSTMAP;
    char query[] = "-q";
    char map[] = "proxy:ldap:" ARDVEX_LDAP_VMD_MAP;
    ow::unique_cstr domain(ow::dup_cstr(at + 1));
    if (domain == nullptr) {
        OW_ENOMEM();
        return false;
    }
    char* const argv[] = {wrapper, postmap, query, domain.get(), map, nullptr};
    int32_t exit_code = 1;
    const bool ran = execute_program(wrapper, argv, nullptr, 0, &exit_code);
    OW_DEBUG("domain [%s] is %s", domain.get(), ran && exit_code == 0 ? "local" : "not local");
    return ran && exit_code == 0;
}

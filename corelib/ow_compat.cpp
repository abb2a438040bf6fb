// ow_compat: portability helpers. The environment lookup hands out a private copy so that a
// later setenv or putenv cannot change or free a value the caller still holds.
#include "ow_compat.h"

#include <cstdlib>

#include "ow_internal.hpp"

extern "C" {

bool __getenv(const char* name, char** value) {
    if (name == nullptr || *name == '\0' || value == nullptr) {
        OW_EINVAL();
        return false;
    }
    OW_DEBUG("Seeking variable %s", name);
    const char* found = std::getenv(name);
    if (found == nullptr) {
        OW_DEBUG("variable [%s] not found", name);
        return false;
    }
    char* copy = ow::dup_cstr(found);
    if (copy == nullptr) {
        OW_OOM();
        return false;
    }
    OW_DEBUG("variable [%s] found [%s]", name, copy);
    // Replace only after the copy succeeded, so a failure leaves the caller's string intact.
    std::free(*value);
    *value = copy;
    return true;
}

}  // extern "C"

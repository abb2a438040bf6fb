// ardvex-ipv6.cpp: IPv6 recognition and normalisation. Both lean on the platform's
// inet_pton/inet_ntop so that "canonical" means what the rest of the system prints.
#include "ardvex-ipv6.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include "ow_internal.hpp"

extern "C" {

int is_ipv6(const char* text) {
    if (text == nullptr || *text == '\0') {
        OW_EINVAL();
        return 0;
    }
    in6_addr binary{};
    return ::inet_pton(AF_INET6, text, &binary) == 1 ? 1 : 0;
}

char* compress_ipv6(const char* text) {
    if (text == nullptr || *text == '\0' || is_ipv6(text) == 0) {
        OW_EINVAL();
        return nullptr;
    }
    in6_addr binary{};
    if (::inet_pton(AF_INET6, text, &binary) != 1) {
        OW_EINVAL();
        return nullptr;
    }
    ow::unique_cstr out(static_cast<char*>(ow::mem_calloc(1, INET6_ADDRSTRLEN)));
    if (!out) {
        OW_ENOMEM();
        return nullptr;
    }
    if (::inet_ntop(AF_INET6, &binary, out.get(), INET6_ADDRSTRLEN) == nullptr) {
        OW_ERROR("failed to convert structure back to string");
        return nullptr;
    }
    OW_DEBUG("Converted [%s] to [%s]\n", text, out.get());
    return out.release();
}

}  // extern "C"

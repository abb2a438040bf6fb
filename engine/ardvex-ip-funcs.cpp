// ardvex-ip-funcs.cpp: IPv4 text <-> number conversions and the loopback test. Numbers stay
// in network byte order throughout, so the two conversions are inverse to each other.
#include "ardvex-ip-funcs.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>

#include "ardvex-ipv6.h"
#include "ow_dns.h"
#include "ow_internal.hpp"

extern "C" {

uint32_t ip_string_to_number(const char* text) {
    if (text == nullptr || *text == '\0') {
        OW_EINVAL();
        return 0;
    }
    return ow_inet_addr(text);
}

char* ip_number_to_string(int32_t number) {
    constexpr std::size_t size = 17;  // 15 characters at most, plus room to spare
    auto* out = static_cast<char*>(ow::mem_calloc(1, size));
    if (out == nullptr) {
        OW_ENOMEM();
        return nullptr;
    }
    unsigned char octets[4];
    std::memcpy(octets, &number, sizeof octets);
    std::snprintf(out, size - 1, "%d.%d.%d.%d", octets[0], octets[1], octets[2], octets[3]);
    return out;
}

int is_localhost(const char* text) {
    if (text == nullptr || *text == '\0') {
        OW_EINVAL();
        return 0;
    }
    if (is_ipv6(text) == 0) return std::strcmp(text, "127.0.0.1") == 0 ? 1 : 0;
    ow::unique_cstr canonical(compress_ipv6(text));
    return canonical && std::strcmp(canonical.get(), "::1") == 0 ? 1 : 0;
}

}  // extern "C"

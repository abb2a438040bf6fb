/* c_api_dns.c: the address conversions and reverse names as a C11 caller uses them (the
 * lookups themselves need name servers and are tested inside dnsenv.sh). */
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "ow_dns.h"
#include "ow_log.h"

#include "c_check.h"

int main(void) {
    ow_set_log_function(count_sink);
    char text[OW_DNS_ADDRSTRLEN] = "2001:DB8:0:0:0:0:0:1";
    CHECK(ow_compress_ipv6(text, text) == 1);
    CHECK(strcmp(text, "2001:db8::1") == 0);

    unsigned char binary[16];
    CHECK(ow_inet_pton(AF_INET, "192.0.2.1", binary) == 1);
    CHECK(ow_inet_ntop(AF_INET, binary, text) == text && strcmp(text, "192.0.2.1") == 0);
    const unsigned char* n = NULL;
    uint32_t number = ow_inet_addr("127.1");
    n = (const unsigned char*)&number;
    CHECK(n[0] == 127 && n[1] == 0 && n[2] == 0 && n[3] == 1);

    char* name = NULL;
    CHECK(ow_arpa(&name, "192.0.2.10") == 1);
    CHECK(name != NULL && strcmp(name, "10.2.0.192.in-addr.arpa.") == 0);
    CHECK(ow_arpa(&name, "::1") == 1);
    CHECK(name != NULL && strncmp(name, "1.0.0.0.", 8) == 0);
    free(name);
    CHECK(errors_seen == 0);

    char** names = NULL;
    CHECK(ow_lookup_reverse_dns(&names, "192.0.2.1", 0, 7) == OW_DNS_BAD_ARGUMENT);
    CHECK(ow_resolv_MX("", 0) == OW_DNS_BAD_ARGUMENT);
    CHECK(names == NULL && errors_seen == 2);
    return failures == 0 ? 0 : 1;
}

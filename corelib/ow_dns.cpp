// ow_dns.cpp: address, mail-exchanger and reverse lookups for the screening rules, the hosts
// file scan, and the checked address conversions. Address lookups go through getaddrinfo;
// MX and PTR queries go through the resolver's query interface so that the response code
// can be told apart. Everything that reads received bytes (hosts-file lines, answers) sits
// behind ow_dns_internal.hpp so that it can be driven without a file or a server.
//
// glibc's res_send treats a SERVFAIL, NOTIMP or REFUSED answer as that server's failure: it
// moves on to the next server and, when none is left, fails with ECONNREFUSED. Those answers
// therefore reach the response-code table only from resolvers that pass them on; with glibc
// they end as "DNS query failure" lines, with the same result (2).
#include "ow_dns.h"

#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pthread.h>
#include <resolv.h>
#include <strings.h>
#include <sys/socket.h>

#include <cassert>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ardvex_config.h"
#include "ow_dns_internal.hpp"
#include "ow_internal.hpp"
#include "ow_stringutils.h"

// The parsers log under the name of the public function they serve, not their own.
#define DNS_ERROR(func, ...) \
    ::ow_log_error(func, ::ow::base_name(__FILE__), static_cast<uint32_t>(__LINE__), __VA_ARGS__)
#define DNS_DEBUG(func, ...) \
    ::ow_log_debug(func, ::ow::base_name(__FILE__), static_cast<uint32_t>(__LINE__), __VA_ARGS__)

static_assert(AF_INET == 2 && AF_INET6 == 10, "the interface promises these family numbers");
static_assert(OW_DNS_ADDRSTRLEN == INET6_ADDRSTRLEN);

namespace {

constexpr int query_buffer_size = 512;
constexpr int answer_buffer_size = 65535;
constexpr std::size_t name_buffer_size = 1025;  // NS_MAXDNAME
constexpr int hosts_line_size = 1024;
constexpr std::size_t ipv6_arpa_size = 74;  // 64 nibble characters, "ip6.arpa.", NUL
constexpr std::size_t ipv4_arpa_extra = 15;

constexpr const char* mx_func = "ow_resolv_MX";
constexpr const char* ptr_func = "ow_lookup_reverse_dns";
constexpr const char* hosts_func = "ow_gethostent";

// Serialises every reading of the hosts file, so the scan may be called from several
// threads; statically initialised, it lives as long as the process.
pthread_mutex_t hosts_mutex = PTHREAD_MUTEX_INITIALIZER;

// The address family of text: AF_INET for four dotted decimal numbers, AF_INET6 for IPv6
// text, 0 otherwise. Stands in for the address classification of the validation module,
// without its log lines.
int ip_family(const char* text) noexcept {
    unsigned char buffer[sizeof(in6_addr)];
    if (text == nullptr || *text == '\0') return 0;
    if (inet_pton(AF_INET, text, buffer) == 1) return AF_INET;
    if (inet_pton(AF_INET6, text, buffer) == 1) return AF_INET6;
    return 0;
}

// The domain-name rule of the validation module: at least three characters with a dot,
// neither first nor last; not an IP address; no empty label; letters, digits, '-' and '.'.
bool valid_domain(const char* domain) noexcept {
    const std::size_t length = std::strlen(domain);
    if (length < 3 || std::strchr(domain, '.') == nullptr || domain[0] == '.' ||
        domain[length - 1] == '.') {
        return false;
    }
    if (std::isdigit(static_cast<unsigned char>(domain[0])) && ip_family(domain) != 0) {
        return false;
    }
    if (std::strstr(domain, "..") != nullptr) return false;
    for (const char* p = domain; *p != '\0'; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        if (!std::isalnum(c) && c != '-' && c != '.') return false;
    }
    return true;
}

// A name array under construction: always ends with a null entry once anything was added.
struct name_array {
    char** names = nullptr;
    std::size_t count = 0;

    name_array() = default;
    name_array(const name_array&) = delete;
    name_array& operator=(const name_array&) = delete;
    ~name_array() { release(); }

    void release() noexcept;
    // Appends a copy of the first length bytes of name; false when an allocation fails.
    bool append(const char* name, std::size_t length) noexcept;
    char** take() noexcept {
        char** out = names;
        names = nullptr;
        count = 0;
        return out;
    }
};

void __ow_free_name_array(char** names) noexcept {
    if (names == nullptr) return;
    for (char** p = names; *p != nullptr; ++p) std::free(*p);
    std::free(names);
}

void name_array::release() noexcept {
    __ow_free_name_array(names);
    names = nullptr;
    count = 0;
}

bool name_array::append(const char* name, std::size_t length) noexcept {
    std::size_t bytes = 0;
    if (ow::mul_overflows(count + 2, sizeof(char*), &bytes)) return false;
    char* copy = ow::dup_cstr(std::string_view(name, length));
    if (copy == nullptr) return false;
    auto* grown = static_cast<char**>(ow::mem_realloc(names, bytes));
    if (grown == nullptr) {
        std::free(copy);
        return false;
    }
    names = grown;
    names[count++] = copy;
    names[count] = nullptr;
    return true;
}

// The verdict for a response code other than NOERROR, the same for MX and PTR queries.
int32_t rcode_verdict(const char* func, int rcode, const char* name) noexcept {
    switch (rcode) {
        case ns_r_formerr:
            DNS_ERROR(func,
                      "DNS query response failure: Name server thinks the query format is "
                      "invalid");
            return OW_DNS_FAILURE;
        case ns_r_servfail:
            DNS_ERROR(func, "DNS query response failure: Name server replied with SERVFAIL");
            return OW_DNS_FAILURE;
        case ns_r_nxdomain:
            DNS_DEBUG(func, "NXDomain response for %s", name);
            return OW_DNS_NO_NAME;
        case ns_r_notimpl:
            DNS_ERROR(func,
                      "DNS query response failure: Name server thinks the function is not "
                      "implemented");
            return OW_DNS_FAILURE;
        case ns_r_refused:
            DNS_ERROR(func,
                      "DNS query response failure: Name server refused connections from this "
                      "host");
            return OW_DNS_FAILURE;
        default:
            DNS_ERROR(func, "Unknown response from NS server");
            return OW_DNS_FAILURE;
    }
}

// Builds the query for name and type and sends it; the answer's length, or -1 (logged).
// The packet buffers are the fixed sizes of the interface; answer holds answer_buffer_size.
int send_query(const char* func, const char* name, int type, const char* created_format,
               unsigned char* answer) noexcept {
    unsigned char query[query_buffer_size];
    const int query_length =
        res_mkquery(ns_o_query, name, ns_c_in, type, nullptr, 0, nullptr, query, sizeof query);
    if (query_length < 0) {
        DNS_ERROR(func, "Error creating query packet");
        return -1;
    }
    DNS_DEBUG(func, created_format, query_length);
    int length = res_send(query, query_length, answer, answer_buffer_size);
    if (length < 0) {
        const int err = errno;
        if (err == ECONNREFUSED) {
            DNS_ERROR(func, "DNS query failure: No nameservers could be reached: %s",
                      std::strerror(err));
        } else {
            DNS_ERROR(func, "DNS query failure: %s", std::strerror(err));
        }
        return -1;
    }
    // Over TCP the resolver reports the length the server announced even when it kept less.
    if (length > answer_buffer_size) length = answer_buffer_size;
    DNS_DEBUG(func, "Received response of %d bytes", length);
    return length;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Received bytes.

namespace ow::dns {

int32_t scan_hosts(std::FILE* file, const char* query, int family, char*** names) noexcept {
    name_array found;
    char line[hosts_line_size];
    // A read that filled the buffer without reaching the line's end leaves the rest of that
    // line for the next reads; those pieces are never taken for lines of their own.
    bool rest_of_long_line = false;
    for (;;) {
        line[sizeof line - 1] = '\x01';
        if (std::fgets(line, sizeof line, file) == nullptr) break;
        const bool cut_short = line[sizeof line - 1] == '\0' && line[sizeof line - 2] != '\n';
        const bool skip = rest_of_long_line;
        rest_of_long_line = cut_short;
        if (skip || line[0] == '\0' || line[0] == '\n' || line[0] == '#') continue;

        char* end = std::strpbrk(line, "#\n");
        if (end == nullptr) continue;  // over-long, or a last line without its newline
        *end = '\0';
        char* blank = std::strpbrk(line, " \t");
        if (blank == nullptr) continue;
        *blank = '\0';
        const char* field = line;
        const int field_family = ip_family(field);
        if (field_family == 0) {
            DNS_ERROR(hosts_func, "Address[%s] in /etc/hosts is not an IP", field);
            continue;
        }
        if (field_family != family) {
            DNS_DEBUG(hosts_func, "protocol mismatch between [%s] and [%s] - skipping", query,
                      field);
            continue;
        }
        // Canonical text may be longer than the field, so it never goes back into the line.
        char canonical[OW_DNS_ADDRSTRLEN];
        if (field_family == AF_INET6) {
            if (ow_compress_ipv6(field, canonical) == 0) continue;
            field = canonical;
        }
        if (strcasecmp(field, query) != 0) {
            DNS_DEBUG(hosts_func, "[%s] doesn't match [%s]", query, field);
            continue;
        }
        for (const char* p = blank + 1; *p != '\0';) {
            if (std::isspace(static_cast<unsigned char>(*p))) {
                ++p;
                continue;
            }
            const std::size_t length = std::strcspn(p, " \t");
            if (!found.append(p, length)) {
                DNS_ERROR(hosts_func, "%s", std::strerror(ENOMEM));
                return -1;
            }
            p += length;
        }
    }
    const auto count = static_cast<int32_t>(found.count);
    *names = found.take();
    return count;
}

int32_t mx_answer(const unsigned char* msg, int length, const char* name) noexcept {
    ns_msg handle;
    if (ns_initparse(msg, length, &handle) < 0) {
        DNS_ERROR(mx_func, "failed to parse NS server response: %s", std::strerror(errno));
        return OW_DNS_FAILURE;
    }
    const int rcode = ns_msg_getflag(handle, ns_f_rcode);
    if (rcode != ns_r_noerror) return rcode_verdict(mx_func, rcode, name);
    const int count = ns_msg_count(handle, ns_s_an);
    if (count == 0) {
        DNS_ERROR(mx_func, "Expected at least 1 answers from server");
        return OW_DNS_FAILURE;
    }
    bool parsed = false;
    for (int i = 0; i < count; ++i) {
        ns_rr record;
        if (ns_parserr(&handle, ns_s_an, i, &record) < 0) {
            DNS_ERROR(mx_func, "failed to parse RR: %s", std::strerror(errno));
            continue;
        }
        parsed = true;
        if (ns_rr_type(record) == ns_t_mx) return OW_DNS_FOUND;
    }
    return parsed ? OW_DNS_NO_NAME : OW_DNS_FAILURE;
}

int32_t ptr_answer(const unsigned char* msg, int length, const char* name, int32_t mode,
                   char*** names) noexcept {
    ns_msg handle;
    if (ns_initparse(msg, length, &handle) < 0) {
        DNS_ERROR(ptr_func, "Failed to parse NS server response: %s", std::strerror(errno));
        return OW_DNS_FAILURE;
    }
    const int rcode = ns_msg_getflag(handle, ns_f_rcode);
    if (rcode != ns_r_noerror) return rcode_verdict(ptr_func, rcode, name);
    const unsigned count = ns_msg_count(handle, ns_s_an);
    if (count == 0) {
        DNS_ERROR(ptr_func, "Expected at least 1 answer from the server");
        return OW_DNS_REFUSED;
    }
    // The array is sized up front: mode 1 keeps one name, mode 0 at most one per record.
    const std::size_t slots = mode == 1 ? 2 : std::size_t{count} + 1;
    auto* collected = static_cast<char**>(ow::mem_calloc(slots, sizeof(char*)));
    if (collected == nullptr) {
        DNS_ERROR(ptr_func, "%s", std::strerror(ENOMEM));
        return OW_DNS_FAILURE;
    }
    ow::scope_guard release([&collected] { __ow_free_name_array(collected); });
    std::size_t kept = 0;
    // Mode 1 stops at the first PTR record: every other record before it moves the limit on.
    unsigned limit = mode == 1 ? 1 : count;
    for (unsigned i = 0; i < limit; ++i) {
        ns_rr record;
        if (ns_parserr(&handle, ns_s_an, static_cast<int>(i), &record) < 0) {
            DNS_ERROR(ptr_func, "Failed to parse RR: %s", std::strerror(errno));
            return OW_DNS_FAILURE;
        }
        char host[name_buffer_size];
        if (ns_name_uncompress(ns_msg_base(handle), ns_msg_end(handle), ns_rr_rdata(record), host,
                               sizeof host) < 0) {
            DNS_ERROR(ptr_func, "Failed to uncompress response value: %s", std::strerror(errno));
            return OW_DNS_FAILURE;
        }
        if (ns_rr_type(record) != ns_t_ptr) {
            DNS_DEBUG(ptr_func, "skipping rr type: [%d]", ns_rr_type(record));
            if (mode == 1) ++limit;
            continue;
        }
        assert(kept + 1 < slots);
        ow_lower(host);
        collected[kept] = ow::dup_cstr(host);
        if (collected[kept] == nullptr) {
            DNS_ERROR(ptr_func, "%s", std::strerror(ENOMEM));
            return OW_DNS_FAILURE;
        }
        ++kept;
    }
    if (kept == 0) {
        DNS_DEBUG(ptr_func, "No answers to return. Had %u answers", count);
        return OW_DNS_NO_NAME;
    }
    release.dismiss();
    if (names != nullptr) {
        __ow_free_name_array(*names);
        *names = collected;
    } else {
        __ow_free_name_array(collected);
    }
    return OW_DNS_FOUND;
}

}  // namespace ow::dns

// ---------------------------------------------------------------------------------------
// Public interface.

extern "C" {

int32_t ow_inet_pton(int32_t family, const char* src, void* dst) {
    if ((family != AF_INET && family != AF_INET6) || src == nullptr || dst == nullptr) {
        OW_EINVAL();
        return 0;
    }
    return inet_pton(family, src, dst);
}

const char* ow_inet_ntop(int32_t family, const void* src, char* dst) {
    if ((family != AF_INET && family != AF_INET6) || src == nullptr || dst == nullptr) {
        OW_EINVAL();
        return nullptr;
    }
    return inet_ntop(family, src, dst, OW_DNS_ADDRSTRLEN);
}

uint32_t ow_inet_addr(const char* text) {
    if (text == nullptr || *text == '\0') {
        OW_EINVAL();
        return 0;
    }
    in_addr address{};
    if (inet_aton(text, &address) == 0) {
        OW_DEBUG("%s", std::strerror(EINVAL));
        return 0;
    }
    if (address.s_addr == INADDR_NONE) {
        OW_EINVAL();
        return 0;
    }
    OW_DEBUG("[%s] converted to %lu", text, static_cast<unsigned long>(address.s_addr));
    return address.s_addr;
}

int32_t ow_compress_ipv6(const char* text, char* out) {
    if (text == nullptr || *text == '\0' || out == nullptr) {
        OW_EINVAL();
        return 0;
    }
    unsigned char binary[sizeof(in6_addr)] = {};
    if (ow_inet_pton(AF_INET6, text, binary) != 1) {
        OW_EINVAL();
        return 0;
    }
    // The debug line shows the input, which out may be about to overwrite.
    char input[OW_DNS_ADDRSTRLEN];
    std::snprintf(input, sizeof input, "%s", text);
    if (ow_inet_ntop(AF_INET6, binary, out) == nullptr) {
        OW_ERROR("failed to convert structure back to string");
        return 0;
    }
    OW_DEBUG("Converted [%s] to [%s]", input, out);
    return 1;
}

int32_t ow_arpa(char** out, const char* ip) {
    if (out == nullptr || ip == nullptr) {
        OW_EINVAL();
        return 0;
    }
    OW_DEBUG("parameter [%s]", ip);
    const int family = ip_family(ip);
    if (family == 0) {
        OW_ERROR("Address is not an IP");
        return 0;
    }
    unsigned char b[sizeof(in6_addr)] = {};
    inet_pton(family, ip, b);
    ow::unique_cstr name;
    if (family == AF_INET) {
        const std::size_t size = std::strlen(ip) + ipv4_arpa_extra;
        name.reset(static_cast<char*>(ow::mem_calloc(size, 1)));
        if (name == nullptr) {
            OW_ENOMEM();
            return 0;
        }
        std::snprintf(name.get(), size, "%d.%d.%d.%d.%s", b[3], b[2], b[1], b[0], "in-addr.arpa.");
    } else {
        name.reset(static_cast<char*>(ow::mem_calloc(ipv6_arpa_size, 1)));
        if (name == nullptr) {
            OW_ENOMEM();
            return 0;
        }
        constexpr char hex[] = "0123456789abcdef";
        char* p = name.get();
        for (int i = 15; i >= 0; --i) {
            *p++ = hex[b[i] & 0x0f];
            *p++ = '.';
            *p++ = hex[b[i] >> 4];
            *p++ = '.';
        }
        std::memcpy(p, "ip6.arpa.", sizeof "ip6.arpa.");
    }
    OW_DEBUG("[%s] converts to %s", ip, name.get());
    std::free(*out);
    *out = name.release();
    return 1;
}

int32_t ow_resolv_A(const char* domain, int32_t /*resolver*/) {
    if (domain == nullptr || *domain == '\0') {
        OW_EINVAL();
        return OW_DNS_BAD_ARGUMENT;
    }
    addrinfo hints{};
    addrinfo* result = nullptr;
    const int rc = getaddrinfo(domain, nullptr, &hints, &result);
    if (result != nullptr) freeaddrinfo(result);
    OW_DEBUG("DNS lookup returned %d", rc);
    switch (rc) {
        case 0:
            return OW_DNS_FOUND;
        case EAI_NONAME:
            return OW_DNS_NO_NAME;
        case EAI_FAIL:
            return OW_DNS_REFUSED;
        default:
            return OW_DNS_FAILURE;
    }
}

int32_t ow_resolv_MX(const char* domain, int32_t /*resolver*/) {
    if (domain == nullptr || *domain == '\0') {
        OW_EINVAL();
        return OW_DNS_BAD_ARGUMENT;
    }
    ow::unique_cptr<unsigned char> answer(
        static_cast<unsigned char*>(ow::mem_malloc(answer_buffer_size)));
    if (answer == nullptr) {
        OW_ENOMEM();
        return OW_DNS_FAILURE;
    }
    const int length =
        send_query(mx_func, domain, ns_t_mx, "query packet of %d bytes created", answer.get());
    if (length < 0) return OW_DNS_FAILURE;
    return ow::dns::mx_answer(answer.get(), length, domain);
}

int32_t ow_has_a_or_mx(const char* domain, int32_t resolver) {
    if (domain == nullptr || *domain == '\0') {
        OW_EINVAL();
        return OW_DNS_BAD_ARGUMENT;
    }
    if (!valid_domain(domain)) {
        OW_DEBUG("domain [%s] flagged as invalid.", domain);
        return OW_DNS_REFUSED;
    }
    // Absolute, so that no search domain of the resolver configuration is tried.
    const std::size_t length = std::strlen(domain);
    ow::unique_cstr absolute(static_cast<char*>(ow::mem_malloc(length + 2)));
    if (absolute == nullptr) {
        OW_ERROR("out of memory error resolving A/MX for %s", domain);
        return OW_DNS_FAILURE;
    }
    std::memcpy(absolute.get(), domain, length);
    absolute.get()[length] = '.';
    absolute.get()[length + 1] = '\0';

    const int32_t a = ow_resolv_A(absolute.get(), resolver);
    if (a == OW_DNS_FOUND) {
        OW_DEBUG("domain [%s] found A record", domain);
        return OW_DNS_FOUND;
    }
    OW_DEBUG("domain [%s] no A record found. Seeking MX", domain);
    const int32_t mx = ow_resolv_MX(absolute.get(), resolver);
    if (mx == OW_DNS_FOUND) return OW_DNS_FOUND;
    return a == mx ? a : OW_DNS_FAILURE;
}

int32_t ow_gethostent(const char* ip, char*** names) {
    if (ip == nullptr || *ip == '\0') {
        OW_EINVAL();
        return -1;
    }
    const int family = ip_family(ip);
    if (family == 0) {
        OW_ERROR("Address[%s] is not an IP", ip);
        return -1;
    }
    char query[OW_DNS_ADDRSTRLEN];
    if (family == AF_INET6) {
        if (ow_compress_ipv6(ip, query) == 0) return -1;
    } else {
        std::snprintf(query, sizeof query, "%s", ip);
    }

    int rc = pthread_mutex_lock(&hosts_mutex);
    if (rc != 0) {
        OW_ERROR("Error locking mutex: [%s]", std::strerror(rc));
        return -1;
    }
    char** found = nullptr;
    int32_t count = -1;
    std::FILE* file = std::fopen(ARDVEX_HOSTS_FILE, "re");
    if (file == nullptr) {
        OW_ERROR("Failed to open %s", ARDVEX_HOSTS_FILE);
    } else {
        count = ow::dns::scan_hosts(file, query, family, &found);
        std::fclose(file);
    }
    rc = pthread_mutex_unlock(&hosts_mutex);
    if (rc != 0) {
        OW_ERROR("Error unlocking mutex: [%s]", std::strerror(rc));
        __ow_free_name_array(found);
        return -1;
    }
    if (count < 0) return -1;
    if (names != nullptr) {
        *names = found;
    } else {
        __ow_free_name_array(found);
    }
    return count;
}

int32_t ow_lookup_reverse_dns(char*** names, const char* ip, int32_t /*resolver*/, int32_t mode) {
    if (ip == nullptr || *ip == '\0' || (mode != 0 && mode != 1)) {
        OW_EINVAL();
        return OW_DNS_BAD_ARGUMENT;
    }
    OW_DEBUG("Attempting to lookup records for %s", ip);
    char** listed = nullptr;
    if (ow_gethostent(ip, &listed) > 0) {
        if (names != nullptr) {
            __ow_free_name_array(*names);
            *names = listed;
        } else {
            __ow_free_name_array(listed);
        }
        return OW_DNS_FOUND;
    }
    OW_DEBUG("Did not find [%s] in /etc/hosts, moving on.", ip);
    char* arpa_text = nullptr;
    const bool built = ow_arpa(&arpa_text, ip) == 1;
    ow::unique_cstr arpa(arpa_text);
    if (!built || arpa == nullptr || *arpa == '\0') return OW_DNS_FAILURE;
    OW_DEBUG("Address %s converted to ARPA %s", ip, arpa.get());

    ow::unique_cptr<unsigned char> answer(
        static_cast<unsigned char*>(ow::mem_malloc(answer_buffer_size)));
    if (answer == nullptr) {
        OW_ENOMEM();
        return OW_DNS_FAILURE;
    }
    const int length = send_query(ptr_func, arpa.get(), ns_t_ptr,
                                  "Query packet of %d bytes created", answer.get());
    if (length < 0) return OW_DNS_FAILURE;
    return ow::dns::ptr_answer(answer.get(), length, arpa.get(), mode, names);
}

}  // extern "C"

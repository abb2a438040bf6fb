// known_sender_forgery_funcs.cpp: the list of sender domains bound to known IPv4 networks,
// its loader, the restriction check and the rule. The file is small and edited by hand, so it
// is parsed afresh on every check and nothing is cached; the loader drops what it cannot use
// line by line and element by element rather than refusing the whole file.
#include "known_sender_forgery_funcs.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "ardvex_config.h"
#include "ow_file.h"
#include "ow_internal.hpp"
#include "ow_rfc.h"
#include "ow_stringutils.h"

static_assert(offsetof(ksf_ip_range, network) == 0);
static_assert(offsetof(ksf_ip_range, prefix) == 4);
static_assert(sizeof(ksf_ip_range) == 8);
static_assert(offsetof(ksf_domain_ips, domain) == 0);
static_assert(offsetof(ksf_domain_ips, ranges) == 8);
static_assert(sizeof(ksf_domain_ips) == 16);
static_assert(offsetof(ksf_list, domains) == 0);
static_assert(offsetof(ksf_list, ignored_lines) == 8);
static_assert(sizeof(ksf_list) == 16);

// The loader's helpers report under the loader's name: it is the operation a reader of the
// log knows, and its lines are one narrative of one file.
#define LOADER_DEBUG(...)                                                                       \
    ::ow_log_debug("ksf_load_list", ::ow::base_name(__FILE__), static_cast<uint32_t>(__LINE__), \
                   __VA_ARGS__)
#define LOADER_ERROR(...)                                                                       \
    ::ow_log_error("ksf_load_list", ::ow::base_name(__FILE__), static_cast<uint32_t>(__LINE__), \
                   __VA_ARGS__)

namespace {

// Set by ksf_set_verbose. Process-wide because an administrator's tool turns it on once to
// see, as errors, every line the loader throws away; the mail path leaves it off.
bool verbose = false;

constexpr const char* control_file = ARDVEX_CONTROL_DIR "valid_domain_ips";

constexpr bool is_space(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::string_view trim(std::string_view s) noexcept {
    while (!s.empty() && is_space(s.front())) s.remove_prefix(1);
    while (!s.empty() && is_space(s.back())) s.remove_suffix(1);
    return s;
}

void lower(std::string& s) noexcept {
    for (char& c : s) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
}

std::size_t count_of(std::string_view s, char c) noexcept {
    std::size_t n = 0;
    for (const char x : s) n += x == c;
    return n;
}

// The file's lines are one entry each, so it is cheaper to remember where the list ends than
// to let every append walk from the head.
class tail_appender {
   public:
    explicit tail_appender(ow_list** head) noexcept : next_(head) {
        while (*next_ != nullptr) next_ = &(*next_)->next;
    }
    // False (ENOMEM logged by the list) when the entry could not be made.
    bool append(void* data, uint64_t size, bool copy) noexcept {
        if (ow_append_list_entry(next_, data, size, copy) < 0) return false;
        next_ = &(*next_)->next;
        return true;
    }

   private:
    ow_list** next_;
};

struct list_deleter {
    void operator()(ksf_list* list) const noexcept { ksf_destroy_list(list); }
};
struct domain_ips_deleter {
    void operator()(ksf_domain_ips* d) const noexcept { ksf_destroy_domain_ips(d); }
};

// "address/prefix" with no host bits set; false with the reason as a DEBUG line.
bool parse_cidr(const std::string& element, ksf_ip_range* out) {
    const std::size_t parts = count_of(element, '/') + 1;
    if (parts != 2) {
        LOADER_DEBUG("invalid cidr format - number of elements not as expected: %d",
                     static_cast<int>(parts));
        return false;
    }
    const std::size_t slash = element.find('/');
    const std::string address = element.substr(0, slash);
    // ow_is_ip would call an empty address a refused argument, not a bad element.
    if (address.empty() || ow_is_ip(address.c_str()) == 0) {
        LOADER_DEBUG("invalid ip");
        return false;
    }
    const in_addr_t network = ::inet_network(address.c_str());
    if (network == INADDR_NONE) {
        LOADER_DEBUG("failed to convert ip to host byte order");
        return false;
    }
    // Digits only: a sign, blanks or a trailing word would make the block mean something the
    // administrator did not write.
    const std::string_view digits = std::string_view(element).substr(slash + 1);
    uint32_t prefix = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), prefix);
    if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size() ||
        prefix > 32) {
        LOADER_DEBUG("cidr has invalid prefix");
        return false;
    }
    // What is left after shifting out the network bits are the host bits (a /32 has none, and
    // a shift by 32 would be undefined).
    const uint32_t host_bits = prefix == 32 ? 0u : network << prefix;
    if (host_bits != 0) {
        LOADER_DEBUG("cidr is not valid given the prefix. addr: %d prefix: %d",
                     static_cast<int>(host_bits), static_cast<int>(prefix));
        return false;
    }
    *out = {network, prefix};
    return true;
}

bool parse_single_ip(const std::string& element, ksf_ip_range* out) {
    if (ow_is_ip(element.c_str()) == 0) return false;
    const in_addr_t address = ::inet_network(element.c_str());
    if (address == INADDR_NONE) {  // IPv6 text, or 255.255.255.255
        LOADER_DEBUG("failed to convert ip %s to host byte order", element.c_str());
        return false;
    }
    *out = {address, 32};
    return true;
}

enum class line_outcome { skipped, ignored, stored, out_of_memory };

line_outcome ignore(ksf_list* list, const std::string& line) {
    ++list->ignored_lines;
    if (verbose) LOADER_ERROR("Ignored unparseable line [%s]", line.c_str());
    return line_outcome::ignored;
}

// The usable elements of an IP set appended to *ranges; false only when out of memory.
bool parse_ip_set(std::string_view set, ow_list** ranges) {
    tail_appender out(ranges);
    for (std::size_t start = 0;;) {
        const std::size_t comma = set.find(',', start);
        const std::string element(trim(set.substr(start, comma - start)));
        ksf_ip_range range{};
        if (element.empty()) {
            // an empty element (",," or a trailing comma) is no mistake worth a line
        } else if (parse_cidr(element, &range) || parse_single_ip(element, &range)) {
            if (!out.append(&range, sizeof range, true)) return false;
            LOADER_DEBUG("stored IP range from [%s]", element.c_str());
        } else if (verbose) {
            LOADER_ERROR("Failed to parse [%s] as CIDR or IP", element.c_str());
        }
        if (comma == std::string_view::npos) return true;
        start = comma + 1;
    }
}

// One line of the file: skipped, ignored (counted), or its domain appended to domains.
line_outcome parse_line(std::string_view raw, ksf_list* list, tail_appender& domains) {
    raw = raw.substr(0, raw.find('\0'));  // a C string ends at its first NUL
    if (raw.empty()) {
        LOADER_DEBUG("skipping blank line");
        return line_outcome::skipped;
    }
    const std::string line(trim(raw));
    if (line.empty()) {
        LOADER_DEBUG("skipping blank line (after trim)");
        return line_outcome::skipped;
    }
    if (line.front() == '#') {
        LOADER_DEBUG("skipping comment line");
        return line_outcome::skipped;
    }
    if (const std::size_t fields = count_of(line, ':') + 1; fields != 2) {
        LOADER_DEBUG("invalid number of elements in domain/ip range line: %d",
                     static_cast<int>(fields));
        return ignore(list, line);
    }
    const std::size_t colon = line.find(':');
    if (colon == 0) {
        LOADER_DEBUG("invalid domain - empty");
        return ignore(list, line);
    }
    std::string domain(trim(std::string_view(line).substr(0, colon)));
    lower(domain);
    if (domain.empty() || ow_valid_domain(domain.c_str()) == 0) {
        LOADER_DEBUG("domain %s is not valid", domain.c_str());
        if (verbose) LOADER_ERROR("Domain [%s] is not valid", domain.c_str());
        return ignore(list, line);
    }
    const std::string_view set = std::string_view(line).substr(colon + 1);
    if (set.empty()) {
        LOADER_DEBUG("invalid ip set string - blank");
        return ignore(list, line);
    }

    std::unique_ptr<ksf_domain_ips, domain_ips_deleter> entry(
        static_cast<ksf_domain_ips*>(ow::mem_calloc(1, sizeof(ksf_domain_ips))));
    if (!entry) {
        LOADER_ERROR("%s", ::strerror(ENOMEM));
        return line_outcome::out_of_memory;
    }
    if (!parse_ip_set(set, &entry->ranges)) return line_outcome::out_of_memory;
    if (entry->ranges == nullptr) {
        LOADER_DEBUG("failed to parse ip set");
        return ignore(list, line);
    }
    entry->domain = ow::dup_cstr(domain);
    if (entry->domain == nullptr) {
        LOADER_ERROR("%s", ::strerror(ENOMEM));
        return line_outcome::out_of_memory;
    }
    if (!domains.append(entry.get(), sizeof(ksf_domain_ips), false)) {
        return line_outcome::out_of_memory;
    }
    entry.release();  // the list holds it now
    LOADER_DEBUG("stored domain/IPs range from [%s]", line.c_str());
    return line_outcome::stored;
}

// Every line of text into list; false only when out of memory.
bool parse_lines(std::string_view text, ksf_list* list) {
    tail_appender domains(&list->domains);
    for (;;) {
        const std::size_t lf = text.find('\n');
        if (parse_line(text.substr(0, lf), list, domains) == line_outcome::out_of_memory) {
            return false;
        }
        if (lf == std::string_view::npos) return true;
        text.remove_prefix(lf + 1);
    }
}

}  // namespace

extern "C" {

void ksf_set_verbose(bool value) { verbose = value; }

ksf_list* ksf_load_list(const char* path) {
    if (path == nullptr || *path == '\0') {
        OW_EINVAL();
        return nullptr;
    }
    try {
        uint64_t size = 0;
        const ow::unique_cstr text(ow_file_get_contents_ex(path, &size));
        if (!text) {
            OW_ERROR("Failed to read domain/ip list file: %s", path);
            return nullptr;
        }
        std::unique_ptr<ksf_list, list_deleter> list(
            static_cast<ksf_list*>(ow::mem_calloc(1, sizeof(ksf_list))));
        if (!list) {
            OW_ENOMEM();
            OW_ERROR("Unable to load KSF list: %s", path);
            return nullptr;
        }
        if (size == 0) {
            OW_DEBUG("empty file");
            return list.release();
        }
        if (!parse_lines(std::string_view(text.get(), size), list.get())) {
            OW_ERROR("Unable to load KSF list: %s", path);
            return nullptr;
        }
        return list.release();
    } catch (...) {  // std::bad_alloc from a line's working copy
        OW_ENOMEM();
        OW_ERROR("Unable to load KSF list: %s", path);
        return nullptr;
    }
}

ow_list* ksf_get_domain_ip_sets_from_file(const char* path) {
    if (path == nullptr || *path == '\0') {
        OW_EINVAL();
        return nullptr;
    }
    ksf_list* list = ksf_load_list(path);
    if (list == nullptr) {
        OW_DEBUG("Unable to load list: %s", path);
        return nullptr;
    }
    ow_list* domains = list->domains;
    list->domains = nullptr;
    ksf_destroy_list(list);
    return domains;
}

char* ksf_parse_mail_from_domain(const char* address) {
    if (address == nullptr || *address == '\0') {
        OW_DEBUG("empty or NULL MAIL FROM argument - possible bounce");
        return nullptr;
    }
    if (ow_valid_email_address(address) == 0) {
        OW_DEBUG("email address is not valid");
        return nullptr;
    }
    const std::string_view domain = trim(std::strrchr(address, '@') + 1);
    ow::unique_cstr copy(ow::dup_cstr(domain));
    if (!copy) {
        OW_ENOMEM();
        return nullptr;
    }
    ow_lower(copy.get());
    if (domain.empty() || ow_valid_domain(copy.get()) == 0) {
        OW_DEBUG("domain is not valid: %s", copy.get());
        return nullptr;
    }
    return copy.release();
}

bool ksf_check_domain_to_ip_restriction(const char* ip, const char* domain, const char* path) {
    if (ip == nullptr || *ip == '\0' || domain == nullptr || *domain == '\0' || path == nullptr ||
        *path == '\0') {
        OW_EINVAL();
        return true;
    }
    const std::string_view trimmed = trim(domain);
    if (trimmed.empty()) {
        OW_ERROR("Invalid domain - blank after trimming whitespace");
        return true;
    }
    const ow::unique_cstr wanted(ow::dup_cstr(trimmed));
    if (!wanted) {
        OW_ENOMEM();
        return true;
    }
    ow_lower(wanted.get());

    ow_list* domains = ksf_get_domain_ip_sets_from_file(path);
    if (domains == nullptr) {
        OW_DEBUG("could not get domains/ips, or none in file");
        return true;
    }
    const ow::scope_guard release(
        [&domains] { ow_destroy_list(&domains, ksf_destroy_domain_ips); });

    const ksf_domain_ips* listed = nullptr;
    for (const ow_list* e = domains; e != nullptr && listed == nullptr; e = e->next) {
        const auto* d = static_cast<const ksf_domain_ips*>(e->data);
        if (std::strcmp(d->domain, wanted.get()) == 0) listed = d;
    }
    if (listed == nullptr) return true;

    const in_addr_t address = ::inet_network(ip);
    if (address == INADDR_NONE) {
        OW_ERROR("failed to convert ip [%s] to host order bytes", ip);
        return true;
    }
    for (const ow_list* e = listed->ranges; e != nullptr; e = e->next) {
        const auto* r = static_cast<const ksf_ip_range*>(e->data);
        if (r->network == UINT32_MAX || r->prefix > 32) continue;
        if (r->prefix == 0) return true;
        if (((address ^ r->network) >> (32 - r->prefix)) == 0) return true;
    }
    return false;
}

bool rule_known_sender_forgery(spam_session* session) {
    if (session == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (session->mail_from == nullptr || *session->mail_from == '\0') {
        OW_DEBUG("MAIL FROM is empty or NULL-nothing to check");
        return false;
    }
    if (session->ip == nullptr || *session->ip == '\0' || ow_is_ip(session->ip) == 0) {
        OW_DEBUG("session ip address is unknown or not an IP");
        return false;
    }
    if (!ow_file_exists_ex(control_file, OW_FILE_REGULAR)) {
        OW_DEBUG("valid_domain_ips files not set or missing");
        return false;
    }
    const ow::unique_cstr domain(ksf_parse_mail_from_domain(session->mail_from));
    if (!domain || *domain == '\0') return false;
    if (!ksf_check_domain_to_ip_restriction(session->ip, domain.get(), control_file)) {
        OW_DEBUG("IP address [%s] may not send for domain [%s]", session->ip, domain.get());
        return true;
    }
    return false;
}

void ksf_destroy_domain_ips(void* domain_ips) {
    if (domain_ips == nullptr) return;
    auto* d = static_cast<ksf_domain_ips*>(domain_ips);
    std::free(d->domain);
    ow_destroy_list(&d->ranges, std::free);
    std::free(d);
}

void ksf_destroy_list(ksf_list* list) {
    if (list == nullptr) return;
    ow_destroy_list(&list->domains, ksf_destroy_domain_ips);
    std::free(list);
}

}  // extern "C"

#undef LOADER_DEBUG
#undef LOADER_ERROR

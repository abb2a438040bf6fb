// Feeds arbitrary bytes to the forgery-list loader as the contents of a real file. The first
// byte sets the verbose switch (bit 0) and whether the rest is also parsed as a MAIL FROM
// address (bit 1). Beyond not crashing or reading past the file: every kept domain is a valid
// lower-case domain with at least one network, every network has its host bits clear, no more
// lines are kept or ignored than the file has, and the check lets each domain's first network
// send for it.
#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "known_sender_forgery_funcs.h"
#include "ow_log.h"
#include "ow_rfc.h"

namespace {

// Formats every line, so a format that disagrees with its arguments shows under the
// sanitizers, and throws it away.
void formatting_sink(int, const char* format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
}

std::string path;

bool is_lower_domain(const char* d) {
    for (const char* p = d; *p != '\0'; ++p) {
        if (*p >= 'A' && *p <= 'Z') return false;
    }
    return ow_valid_domain(d) == 1;
}

std::string dotted(uint32_t host_order) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", host_order >> 24, (host_order >> 16) & 255,
                  (host_order >> 8) & 255, host_order & 255);
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("VERBOSEDEBUG", "1", 1);
    ow_set_log_function(formatting_sink);
    const char* tmp = std::getenv("TMPDIR");
    path = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/ksf_fuzz." +
           std::to_string(getpid());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) abort();
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) abort();
    close(fd);

    ksf_set_verbose((data[0] & 1) != 0);
    ksf_list* list = ksf_load_list(path.c_str());
    if (list == nullptr) abort();
    std::size_t lines = 1, kept = 0;
    for (const char c : text) lines += c == '\n';
    for (const ow_list* e = list->domains; e != nullptr; e = e->next, ++kept) {
        const auto* d = static_cast<const ksf_domain_ips*>(e->data);
        if (d->domain == nullptr || !is_lower_domain(d->domain) || d->ranges == nullptr) abort();
        for (const ow_list* r = d->ranges; r != nullptr; r = r->next) {
            const auto* range = static_cast<const ksf_ip_range*>(r->data);
            if (range->prefix > 32 || range->network == UINT32_MAX) abort();
            if (range->prefix < 32 && (range->network << range->prefix) != 0) abort();
        }
        bool first = true;  // a later line of the same domain does not count
        for (const ow_list* p = list->domains; p != e; p = p->next) {
            first = first && std::strcmp(static_cast<const ksf_domain_ips*>(p->data)->domain,
                                         d->domain) != 0;
        }
        const auto* range = static_cast<const ksf_ip_range*>(d->ranges->data);
        if (first && !ksf_check_domain_to_ip_restriction(dotted(range->network).c_str(), d->domain,
                                                         path.c_str())) {
            abort();
        }
    }
    if (kept + list->ignored_lines > lines) abort();
    ksf_destroy_list(list);
    ksf_set_verbose(false);

    if ((data[0] & 2) != 0) {
        char* domain = ksf_parse_mail_from_domain(text.c_str());
        if (domain != nullptr && !is_lower_domain(domain)) abort();
        std::free(domain);
    }
    return 0;
}

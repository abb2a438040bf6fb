// Fuzzes what ardvex-policyd reads from others: a client's byte stream cut into requests and
// each request split into attributes (first byte even), and the settings file (odd).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ardvex.h"
#include "policy_config.hpp"
#include "policy_request.hpp"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ardvex_init();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string_view all(reinterpret_cast<const char*>(data) + 1, size - 1);
    if ((data[0] & 1) != 0) {
        ow::policy::config cfg;
        std::string error;
        if (!ow::policy::parse_config(all, ardvex_rule_list(), cfg, error) && error.empty()) {
            std::abort();  // a refusal always says why
        }
        return 0;
    }
    std::string_view rest = all;
    for (;;) {
        size_t body = 0;
        const size_t end = ow::policy::find_request_end(rest, body);
        if (end == 0) break;
        if (body >= end || end > rest.size()) std::abort();
        ow::policy::request req;
        std::string why;
        if (ow::policy::parse_request(rest.substr(0, body), req, why)) {
            if (req.attributes.size() > ow::policy::kMaxAttributes) std::abort();
            for (const auto& [name, value] : req.attributes) {
                if (name.empty() || name.data() < rest.data() ||
                    value.data() + value.size() > rest.data() + body) {
                    std::abort();
                }
            }
            (void)req.get("client_address");
        } else if (why.empty()) {
            std::abort();
        }
        rest.remove_prefix(end);
    }
    return 0;
}

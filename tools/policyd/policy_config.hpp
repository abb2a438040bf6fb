// policy_config.hpp: the settings of the Postfix policy service and of ardvex-admin's judge,
// read from one small "key = value" file. Parsing is all-or-nothing: a file with one bad
// line yields an error naming that line and no settings, so a reload can keep the old ones.
#ifndef ARDVEX_POLICY_CONFIG_HPP
#define ARDVEX_POLICY_CONFIG_HPP

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "owspamrule.h"

namespace ow::policy {

// What a rule's match does. Whitelist rules know only on and off.
enum class action : uint8_t { off, on, reject, defer, warn };

struct rate_limit {
    uint32_t limit = 0;      // messages per window; 0 = no limit
    uint32_t window = 3600;  // seconds
};

struct config {
    std::map<std::string, action, std::less<>> actions;  // only the rules the file names
    std::vector<std::string> block_list_zones;           // DNS block lists of block_lists
    std::vector<std::string> rbl_zones;                  // and of block_rbl_lists
    rate_limit inbound;                                  // per client address
    rate_limit outbound;                                 // per SASL user name
    bool defer_on_dns_failure = false;
    std::string list_dir = "/etc/ardvex/lists";
    // Service only; the judge ignores them.
    std::vector<std::string> listen;  // unix:PATH or inet:HOST:PORT, when not socket-activated
    std::string user = "ardvex";
    uint32_t workers = 8;
    uint32_t idle_timeout = 300;        // seconds a connection may wait between requests
    uint32_t read_timeout = 10;         // seconds a started request may take to arrive
    uint32_t request_timeout = 60;      // seconds from a complete request to its answer
    uint32_t max_request_size = 16384;  // bytes of one request, at most 65536
    uint32_t max_connections = 4096;
};

constexpr const char* kDefaultConfigPath = "/etc/ardvex/policyd.conf";

// True for the rules whose match lists the transaction instead of blocking it.
bool is_whitelist_rule(std::string_view name) noexcept;

// The action of rule under cfg: the file's setting, else the product default (a rule that is
// on by default rejects, the rate limits defer; whitelists are on when on by default).
action action_for(const config& cfg, const spam_rule& rule) noexcept;

const char* action_name(action a) noexcept;

// Parses text into out. rules is the engine's rule list: rule names are checked against it.
// On failure out is untouched and error says which line is wrong and why.
bool parse_config(std::string_view text, const ow_list* rules, config& out, std::string& error);

// Reads and parses path; the error also covers a file that cannot be read or is larger than
// kMaxConfigSize. text, when given, receives the file's bytes (the service hands them on to
// its workers). A missing file is an error; the service treats it as the defaults.
constexpr size_t kMaxConfigSize = 65536;
bool load_config(const char* path, const ow_list* rules, config& out, std::string& error,
                 std::string* text = nullptr);

}  // namespace ow::policy

#endif  // ARDVEX_POLICY_CONFIG_HPP

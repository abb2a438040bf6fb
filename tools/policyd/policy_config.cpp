// policy_config.cpp: the policy service's settings file. The format is Postfix's own
// main.cf shape (key = value, # comments) because the people who edit it run Postfix; every
// key is known in advance, so a typo is an error rather than a silently ignored line.
#include "policy_config.hpp"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iterator>

namespace ow::policy {

namespace {

constexpr const char* kBlanks = " \t\r";

std::string_view trim(std::string_view s) {
    const size_t first = s.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    const size_t last = s.find_last_not_of(kBlanks);
    return s.substr(first, last - first + 1);
}

bool parse_number(std::string_view v, uint32_t low, uint32_t high, uint32_t& out) {
    uint32_t n = 0;
    const auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), n);
    if (ec != std::errc() || end != v.data() + v.size() || n < low || n > high) return false;
    out = n;
    return true;
}

bool parse_action(std::string_view v, bool whitelist, action& out) {
    struct entry {
        std::string_view word;
        action value;
        bool for_whitelist;
    };
    constexpr entry kWords[] = {{"off", action::off, true},
                                {"on", action::on, true},
                                {"reject", action::reject, false},
                                {"defer", action::defer, false},
                                {"warn", action::warn, false}};
    for (const auto& e : kWords) {
        if (e.word == v && (e.for_whitelist == whitelist || e.value == action::off)) {
            out = e.value;
            return true;
        }
    }
    return false;
}

// A DNS zone: letters, digits, '-', '_' and dots, no empty label.
bool valid_zone(std::string_view z) {
    if (z.empty() || z.size() > 200 || z.front() == '.' || z.back() == '.') return false;
    if (z.find("..") != std::string_view::npos) return false;
    for (const char c : z) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
        if (!ok) return false;
    }
    return true;
}

bool parse_list(std::string_view v, bool zones, std::vector<std::string>& out) {
    std::vector<std::string> items;
    size_t pos = 0;
    while (pos < v.size()) {
        const size_t end = v.find_first_of(", \t", pos);
        const std::string_view item =
            v.substr(pos, end == std::string_view::npos ? v.npos : end - pos);
        if (!item.empty()) {
            if (zones && !valid_zone(item)) return false;
            items.emplace_back(item);
        }
        if (end == std::string_view::npos) break;
        pos = end + 1;
    }
    out = std::move(items);
    return true;
}

bool valid_listen(std::string_view v) {
    if (v.starts_with("unix:")) return v.size() > 6 && v[5] == '/' && v.size() < 100;
    if (!v.starts_with("inet:")) return false;
    const size_t colon = v.rfind(':');
    uint32_t port = 0;
    return colon > 5 && parse_number(v.substr(colon + 1), 1, 65535, port);
}

bool is_rule(const ow_list* rules, std::string_view name) {
    for (const ow_list* e = rules; e != nullptr; e = e->next) {
        const auto* rule = static_cast<const spam_rule*>(e->data);
        if (rule != nullptr && rule->name != nullptr && name == rule->name) return true;
    }
    return false;
}

// One setting; false with why filled in when the value does not fit the key.
bool apply(std::string_view key, std::string_view value, const ow_list* rules, config& cfg,
           std::string& why) {
    struct number_key {
        std::string_view name;
        uint32_t config::*field;
        uint32_t low, high;
    };
    const number_key kNumbers[] = {
        {"workers", &config::workers, 1, 512},
        {"idle_timeout", &config::idle_timeout, 1, 86400},
        {"read_timeout", &config::read_timeout, 1, 3600},
        {"request_timeout", &config::request_timeout, 1, 3600},
        {"max_request_size", &config::max_request_size, 512, 65536},
        {"max_connections", &config::max_connections, 1, 1 << 20},
    };
    for (const auto& n : kNumbers) {
        if (key != n.name) continue;
        if (parse_number(value, n.low, n.high, cfg.*n.field)) return true;
        why = "expects a number from " + std::to_string(n.low) + " to " + std::to_string(n.high);
        return false;
    }
    struct limit_key {
        std::string_view name;
        rate_limit config::*limit;
        bool window;
    };
    constexpr limit_key kLimits[] = {{"inbound_limit", &config::inbound, false},
                                     {"inbound_window", &config::inbound, true},
                                     {"outbound_limit", &config::outbound, false},
                                     {"outbound_window", &config::outbound, true}};
    for (const auto& l : kLimits) {
        if (key != l.name) continue;
        rate_limit& r = cfg.*l.limit;
        if (l.window ? parse_number(value, 1, 7 * 86400, r.window)
                     : parse_number(value, 0, 1000000, r.limit)) {
            return true;
        }
        why = l.window ? "expects seconds from 1 to 604800" : "expects a count (0 = no limit)";
        return false;
    }
    if (key == "block_lists_zones" || key == "block_rbl_lists_zones") {
        if (parse_list(value, true,
                       key == "block_lists_zones" ? cfg.block_list_zones : cfg.rbl_zones))
            return true;
        why = "expects DNS zone names separated by blanks or commas";
        return false;
    }
    if (key == "dns_failure") {
        if (value == "dunno" || value == "defer") {
            cfg.defer_on_dns_failure = value == "defer";
            return true;
        }
        why = "expects dunno or defer";
        return false;
    }
    if (key == "list_dir") {
        if (!value.empty() && value.front() == '/') {
            cfg.list_dir = value;
            return true;
        }
        why = "expects an absolute directory";
        return false;
    }
    if (key == "user") {
        if (!value.empty() && value.find_first_of(" \t/:") == std::string_view::npos) {
            cfg.user = value;
            return true;
        }
        why = "expects a user name";
        return false;
    }
    if (key == "listen") {
        std::vector<std::string> items;
        parse_list(value, false, items);
        for (const auto& item : items) {
            if (!valid_listen(item)) {
                why = "expects unix:/PATH or inet:HOST:PORT, not " + item;
                return false;
            }
        }
        cfg.listen = std::move(items);
        return true;
    }
    if (is_rule(rules, key)) {
        const bool whitelist = is_whitelist_rule(key);
        action a = action::off;
        if (parse_action(value, whitelist, a)) {
            cfg.actions.insert_or_assign(std::string(key), a);
            return true;
        }
        why = whitelist ? "a whitelist rule is on or off" : "expects reject, defer, warn or off";
        return false;
    }
    why = "unknown setting";
    return false;
}

}  // namespace

bool is_whitelist_rule(std::string_view name) noexcept { return name.ends_with("_whitelist"); }

action action_for(const config& cfg, const spam_rule& rule) noexcept {
    const std::string_view name = rule.name;
    const auto it = cfg.actions.find(name);
    if (it != cfg.actions.end()) return it->second;
    if (!rule.enabled_by_default) return action::off;
    if (is_whitelist_rule(name)) return action::on;
    // Their notices say "try again later": a limit is a delay, not a verdict on the mail.
    if (name == "inbound" || name == "outbound") return action::defer;
    return action::reject;
}

const char* action_name(action a) noexcept {
    switch (a) {
        case action::off:
            return "off";
        case action::on:
            return "on";
        case action::reject:
            return "reject";
        case action::defer:
            return "defer";
        case action::warn:
            return "warn";
    }
    return "off";
}

bool parse_config(std::string_view text, const ow_list* rules, config& out, std::string& error) {
    config cfg;
    size_t line_no = 0;
    size_t pos = 0;
    while (pos <= text.size()) {
        const size_t nl = text.find('\n', pos);
        const std::string_view raw =
            text.substr(pos, nl == std::string_view::npos ? text.npos : nl - pos);
        pos = nl == std::string_view::npos ? text.size() + 1 : nl + 1;
        ++line_no;
        const std::string_view line = trim(raw);
        if (line.empty() || line.front() == '#') continue;
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos) {
            error = "line " + std::to_string(line_no) + ": expected key = value";
            return false;
        }
        const std::string_view key = trim(line.substr(0, eq));
        const std::string_view value = trim(line.substr(eq + 1));
        std::string why;
        if (!apply(key, value, rules, cfg, why)) {
            error = "line " + std::to_string(line_no) + ": " + std::string(key) + ": " + why;
            return false;
        }
    }
    out = std::move(cfg);
    return true;
}

bool load_config(const char* path, const ow_list* rules, config& out, std::string& error,
                 std::string* text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = std::string(path) + ": " + std::strerror(errno);
        return false;
    }
    std::string bytes;
    char chunk[4096];
    while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
        bytes.append(chunk, static_cast<size_t>(in.gcount()));
        if (bytes.size() > kMaxConfigSize) {
            error =
                std::string(path) + ": larger than " + std::to_string(kMaxConfigSize) + " bytes";
            return false;
        }
    }
    if (in.bad()) {
        error = std::string(path) + ": read error";
        return false;
    }
    if (!parse_config(bytes, rules, out, error)) {
        error = std::string(path) + ": " + error;
        return false;
    }
    if (text != nullptr) *text = std::move(bytes);
    return true;
}

}  // namespace ow::policy

// policy_request.cpp: parsing of policy requests. Everything here reads bytes a client sent,
// so it only reads within the given view and never allocates more than one entry per line.
#include "policy_request.hpp"

namespace ow::policy {

std::string_view request::get(std::string_view name) const noexcept {
    for (auto it = attributes.rbegin(); it != attributes.rend(); ++it) {
        if (it->first == name) return it->second;
    }
    return {};
}

size_t find_request_end(std::string_view buf, size_t& body_end) noexcept {
    size_t line_start = 0;
    while (line_start < buf.size()) {
        const size_t nl = buf.find('\n', line_start);
        if (nl == std::string_view::npos) return 0;
        const size_t length = nl - line_start;
        if (length == 0 || (length == 1 && buf[line_start] == '\r')) {
            body_end = line_start;
            return nl + 1;
        }
        line_start = nl + 1;
    }
    return 0;
}

bool parse_request(std::string_view body, request& out, std::string& why) {
    out.attributes.clear();
    size_t pos = 0;
    while (pos < body.size()) {
        size_t nl = body.find('\n', pos);
        if (nl == std::string_view::npos) nl = body.size();
        std::string_view line = body.substr(pos, nl - pos);
        pos = nl + 1;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos) {
            why = "attribute line without '='";
            return false;
        }
        const std::string_view name = line.substr(0, eq);
        const std::string_view value = line.substr(eq + 1);
        if (name.empty() || name.size() > 64) {
            why = "empty or overlong attribute name";
            return false;
        }
        for (const char c : name) {
            const bool ok = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
            if (!ok) {
                why = "attribute name with a byte other than a-z, 0-9, _";
                return false;
            }
        }
        for (const char c : value) {
            const auto u = static_cast<unsigned char>(c);
            // Values reach log lines and reply texts: no byte may end or forge a line there.
            if ((u < 0x20 && u != '\t') || u == 0x7f) {
                why = "control byte in the value of " + std::string(name);
                return false;
            }
        }
        if (out.attributes.size() == kMaxAttributes) {
            why = "more than " + std::to_string(kMaxAttributes) + " attributes";
            return false;
        }
        out.attributes.emplace_back(name, value);
    }
    return true;
}

std::string frame_answer(std::string_view action) {
    std::string out;
    out.reserve(action.size() + 9);
    out += "action=";
    out += action;
    out += "\n\n";
    return out;
}

}  // namespace ow::policy

// rate_limiter.cpp: each key keeps the times of its messages inside the window, at most
// `limit` of them, so memory per key is bounded by the configured limit.
#include "rate_limiter.hpp"

namespace ow::policy {

bool rate_limiter::over(std::string_view key, std::string_view instance, std::time_t now,
                        const rate_limit& limit) {
    if (limit.limit == 0 || key.empty()) return false;
    auto it = counts_.find(std::string(key));
    if (it == counts_.end()) {
        if (counts_.size() >= max_keys_) return false;
        it = counts_.emplace(std::string(key), std::deque<sent>{}).first;
    }
    auto& times = it->second;
    while (!times.empty() && now - times.front().at >= static_cast<std::time_t>(limit.window)) {
        times.pop_front();
    }
    if (!instance.empty()) {
        for (const auto& t : times) {
            if (t.instance == instance) return false;
        }
    }
    if (times.size() >= limit.limit) return true;
    times.push_back({now, std::string(instance)});
    return false;
}

void rate_limiter::expire(std::time_t now, uint32_t window) {
    for (auto it = counts_.begin(); it != counts_.end();) {
        auto& times = it->second;
        while (!times.empty() && now - times.front().at >= static_cast<std::time_t>(window)) {
            times.pop_front();
        }
        it = times.empty() ? counts_.erase(it) : std::next(it);
    }
}

}  // namespace ow::policy

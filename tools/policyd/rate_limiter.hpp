// rate_limiter.hpp: sliding-window message counts per key (a client address, a SASL user),
// kept by the service's dispatcher so that every worker sees the same counts.
#ifndef ARDVEX_RATE_LIMITER_HPP
#define ARDVEX_RATE_LIMITER_HPP

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

#include "policy_config.hpp"

namespace ow::policy {

class rate_limiter {
   public:
    // At most this many keys are tracked; beyond it new keys are let through uncounted
    // (a flood of fresh addresses must not grow the dispatcher without bound).
    explicit rate_limiter(size_t max_keys = 200000) : max_keys_(max_keys) {}

    // Counts one message of key and says whether it exceeds the limit. A message is known by
    // its instance (Postfix's per-transaction id): the second recipient of a message is not
    // a second message. Messages over the limit are not counted, so a client that waits
    // gets through again once its window has room.
    bool over(std::string_view key, std::string_view instance, std::time_t now,
              const rate_limit& limit);

    // Drops the keys whose every message has left the window.
    void expire(std::time_t now, uint32_t window);
    size_t keys() const noexcept { return counts_.size(); }

   private:
    struct sent {
        std::time_t at;
        std::string instance;
    };
    std::unordered_map<std::string, std::deque<sent>> counts_;
    size_t max_keys_;
};

}  // namespace ow::policy

#endif  // ARDVEX_RATE_LIMITER_HPP

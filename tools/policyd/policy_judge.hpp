// policy_judge.hpp: one transaction judged the way the mail server's own component would:
// a spam_session filled from a policy request, the engine's rules walked in order (with the
// rate limits and DNS block lists that the engine leaves to its host), the first whitelist
// or blocking match deciding, and the answer for Postfix.
#ifndef ARDVEX_POLICY_JUDGE_HPP
#define ARDVEX_POLICY_JUDGE_HPP

#include <string>
#include <string_view>
#include <vector>

#include "owspamrule.h"
#include "policy_config.hpp"
#include "policy_request.hpp"

namespace ow::policy {

// The rate-limit verdicts, decided by whoever keeps the counts (the service's dispatcher);
// counted = false when nobody does (a dry run), and the two rules are then skipped.
struct rate_verdicts {
    bool counted = false;
    bool inbound_over = false;
    bool outbound_over = false;
};

struct rule_step {
    enum class result { matched, not_matched, undecided, skipped, not_reached };
    std::string name;
    result what = result::not_reached;
    std::string why;  // for skipped and undecided steps, and for warn-only matches
};

struct verdict {
    std::string answer;            // what follows "action=" in the reply
    std::string rule;              // the deciding rule; empty when none decided
    action taken = action::off;    // reject, defer, on (whitelisted), warn, or off (no match)
    bool dns_deferred = false;     // deferred because a rule's DNS could not answer
    std::string notice;            // the deciding rule's rejection notice, when it blocks
    std::vector<rule_step> steps;  // every rule in order
};

// The session members a request fills (client_address -> ip and so on); see the README.
// Strings are malloc'd and owned by the holder, which frees them and whatever the rules
// store (ptr_names) when it goes.
class session_holder {
   public:
    session_holder(const request& req, const config& cfg);
    ~session_holder();
    session_holder(const session_holder&) = delete;
    session_holder& operator=(const session_holder&) = delete;
    spam_session* get() noexcept { return &s_; }

   private:
    spam_session s_{};
};

// The directory whose list files judge recipient: root/<recipient> when it exists, else
// root/<recipient's domain>, else root. Names that could leave root are never used.
std::string choose_list_dir(const std::string& root, std::string_view recipient);

// True when rule is judged for a session with these properties (its flags).
bool rule_applies(const spam_rule& rule, bool authenticated, bool ipv6) noexcept;

// Walks rules (the engine's list) for req. With log set, the verdict also goes to the
// message log and its counters (log_message), as the service does; a dry run leaves no trace.
verdict judge(const config& cfg, const ow_list* rules, const request& req,
              const rate_verdicts& rates, bool log);

// Result of asking one DNS block list about an address.
enum class dnsbl_answer { listed, not_listed, failed };
// Asks zone about ip (IPv4 or IPv6): listed when it answers an address in 127.0.0.0/24.
dnsbl_answer query_block_list(const char* ip, std::string_view zone);

const char* step_result_name(rule_step::result r) noexcept;

}  // namespace ow::policy

#endif  // ARDVEX_POLICY_JUDGE_HPP

// ardvex.cpp: engine start-up. The rule list is process-wide because the hosting mail-server
// component judges every transaction against the same fixed table; only start-up and
// shutdown write it.
#include "ardvex.h"

#include "ardvex-log.h"
#include "ardvex-rule-lists.h"
#include "ardvex-rules.h"
#include "ardvex-spam-hooks.h"
#include "ow_internal.hpp"
#include "owspamrule.h"

namespace {
ow_list* engine_rules = nullptr;
}  // namespace

extern "C" {

bool ardvex_init(void) {
    register_rule_hooks(true,                   // resolver option of every rule lookup
                        dyna_list_hook,         // dynamic-host patterns
                        spam_list_hook,         // reverse-DNS patterns
                        confirmed_list_hook,    // confirmed dynamic patterns
                        fromwhitelist_hook,     // sender whitelist
                        fromblacklist_hook,     // sender blacklist
                        nullptr,                // reserved
                        nullptr,                // reserved
                        nullptr,                // HELO whitelist: the host's
                        nullptr,                // HELO blacklist: the host's
                        ipwhitelist_hook,       // IP whitelist
                        ipblacklist_hook,       // IP blacklist
                        countryblacklist_hook,  // country blacklist
                        towhitelist_hook,       // recipient whitelist
                        log_message,            // message log
                        nullptr);               // reserved
    ardvex_shutdown();                          // a second start must not leak the first list
    engine_rules = build_rule_list();
    if (engine_rules == nullptr) {
        OW_ERROR("no rules loaded.. engine cannot be initialized");
        return false;
    }
    return true;
}

void ardvex_shutdown(void) { ow_destroy_list(&engine_rules, free_rule); }

ow_list* ardvex_rule_list(void) { return engine_rules; }

}  // extern "C"

// rule_pattern_hooks.cpp: the engine's own hooks of the pattern rules, each matching the PTR
// names against one compiled pattern file that the administrator maintains. The files are
// read at each call, so a recompiled list takes effect at once.
#include "ardvex-rules.h"
#include "ardvex_config.h"
#include "rule-internal.hpp"

extern "C" {

bool dyna_list_hook(spam_session* session) {
    return ow::rules::pattern_file_hook(session, OW_RULE_SITE,
                                        ARDVEX_DYNAREGEX_DIR "dyna.cregexes");
}

bool confirmed_list_hook(spam_session* session) {
    return ow::rules::pattern_file_hook(session, OW_RULE_SITE,
                                        ARDVEX_DYNAREGEX_DIR "confirmed.cregexes");
}

bool spam_list_hook(spam_session* session) {
    return ow::rules::pattern_file_hook(session, OW_RULE_SITE,
                                        ARDVEX_DYNAREGEX_DIR "spam.cregexes");
}

}  // extern "C"

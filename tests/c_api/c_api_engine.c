/* c_api_engine.c: the screening engine's records, rule list, hooks and address checks as the
 * mail-server component uses them from C11. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ardvex-ip-funcs.h"
#include "ardvex-ipv6.h"
#include "ardvex-spam-hooks.h"
#include "ow_list.h"
#include "ow_log.h"
#include "ow_rfc.h"
#include "owspamrule.h"

#include "c_check.h"

static bool listed(spam_session* s) { return s->helo != NULL && strcmp(s->helo, "friend") == 0; }

int main(void) {
    ow_set_log_function(count_sink);
    ow_list* rules = build_rule_list();
    CHECK(ow_list_count(rules) == SPAM_RULE_COUNT);
    ow_list* found =
        ow_list_search(rules, "require_helo", sizeof "require_helo", rule_name_compare);
    CHECK(found != NULL);

    spam_session session;
    memset(&session, 0, sizeof session);
    session.ip = "192.0.2.9";
    session.helo = malloc(sizeof "friend");
    if (session.helo != NULL) memcpy(session.helo, "friend", sizeof "friend");
    if (found != NULL) {
        const spam_rule* rule = found->data;
        CHECK(rule->applies_to_authenticated && rule->check == NULL);
        char* notice = build_rejection_notice(rule, &session, NULL);
        CHECK(notice != NULL && strncmp(notice, "Missing HELO. See ", 18) == 0);
        free(notice);
    }
    register_rule_hooks(true, NULL, NULL, NULL, NULL, NULL, NULL, NULL, listed, NULL, NULL, NULL,
                        NULL, NULL, NULL, NULL);
    CHECK(rule_hooks.dns_option && rule_hooks.helo_whitelist_hook(&session));
    free(session.helo);
    ow_destroy_list(&rules, free_rule);
    CHECK(rules == NULL);

    bool bracketed = false;
    CHECK(ow_rfc822_email_address("\"Joe\" <joe@example.com>", &bracketed) == 1 && bracketed);
    ow_list* addresses = ow_parse_addresses_from_header("A <a@x.test>, b@y.test (B)");
    CHECK(ow_list_count(addresses) == 2);
    CHECK(addresses != NULL && strcmp(ow_list_data_at(addresses, 1), "b@y.test") == 0);
    ow_destroy_list(&addresses, free);
    CHECK(ow_is_ip("2001:db8::1") == 10 && ow_is_unroutable_ip("10.1.2.3"));

    char* text = ip_number_to_string((int32_t)ip_string_to_number("10.1"));
    CHECK(text != NULL && strcmp(text, "10.0.0.1") == 0);
    free(text);
    char* v6 = compress_ipv6("0:0:0:0:0:0:0:1");
    CHECK(v6 != NULL && strcmp(v6, "::1") == 0 && is_localhost("::1"));
    free(v6);
    CHECK(errors_seen == 0);

    CHECK(ow_valid_email_address(NULL) == 0 && errors_seen == 1); /* refused, not a crash */

    if (failures == 0) printf("c api engine: all checks passed\n");
    return failures == 0 ? 0 : 1;
}

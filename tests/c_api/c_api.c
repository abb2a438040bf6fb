/* c_api.c: the library as a C11 caller sees it through its installed headers; the install
 * test also builds it against the staged installation through pkg-config. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <ardvex/ardvex-spam-hooks.h>
#include <ardvex/common_libs.h>
#include <ardvex/ow_file.h>
#include <ardvex/ow_hashmap.h>
#include <ardvex/ow_log.h>
#include <ardvex/ow_nulltermlist.h>
#include <ardvex/ow_pipe.h>
#include <ardvex/ow_rfc.h>
#include <ardvex/ow_stringutils.h>
#include <ardvex/owspamrule.h>

static int failures = 0;
static void check(bool ok, int line, const char* what) {
    if (!ok) fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, line, what);
    failures += !ok;
}
#define CHECK(cond) check((cond), __LINE__, #cond)

static int errors_seen = 0;
static void count_sink(int priority, const char* format, ...) {
    (void)format;
    if (priority == 3) ++errors_seen;
}

static bool listed(spam_session* s) { return s->helo != NULL && strcmp(s->helo, "friend") == 0; }

static void engine(void) {
    ow_list* rules = build_rule_list();
    CHECK(ow_list_count(rules) == SPAM_RULE_COUNT);
    ow_list* found =
        ow_list_search(rules, "require_helo", sizeof "require_helo", rule_name_compare);
    spam_session session = {.ip = "192.0.2.9", .helo = "friend"};
    char* notice = found != NULL ? build_rejection_notice(found->data, &session, NULL) : NULL;
    CHECK(notice != NULL && strncmp(notice, "Missing HELO. See ", 18) == 0);
    free(notice);
    register_rule_hooks(true, NULL, NULL, NULL, NULL, NULL, NULL, NULL, listed, NULL, NULL, NULL,
                        NULL, NULL, NULL, NULL);
    CHECK(rule_hooks.dns_option && rule_hooks.helo_whitelist_hook(&session));
    ow_destroy_list(&rules, free_rule);
}

int main(void) {
    ow_set_log_function(count_sink);

    ow_hashmap* map = ow_map_create(0, 0);
    CHECK(ow_map_store_ex(map, "product", "ardvex", 7, true, NULL) &&
          ow_map_store_ex(map, "edition", "mail", 5, true, NULL));
    ow_map_iterator it;
    const char* key = NULL;
    void* value = NULL;
    ow_map_iterator_init(&it, map);
    CHECK(ow_map_iterator_next(&it, &key, &value) && strcmp(key, "product") == 0 &&
          strcmp((const char*)value, "ardvex") == 0);
    ow_map_destroy(map);

    engine();
    CHECK(ow_pipe("/bin/echo", "x;y", NULL, NULL, NULL) == -1 && errors_seen == 1); /* one line */

    return failures == 0 ? 0 : 1;
}

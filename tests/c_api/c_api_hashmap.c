/* c_api_hashmap.c: the map and the log as a C11 caller sees them, the way the suite's
 * mail-server component uses them. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ow_hashmap.h"
#include "ow_log.h"

#include "c_check.h"

int main(void) {
    ow_set_log_function(count_sink);

    ow_hashmap* map = ow_map_create(0, 0);
    CHECK(map != NULL);
    CHECK(ow_map_store_ex(map, "product", "ardvex", 7, true, NULL));
    CHECK(ow_map_store_ex(map, "edition", "mail", 5, true, NULL));
    void* value = NULL;
    CHECK(ow_map_fetch(map, "product", &value) && strcmp((const char*)value, "ardvex") == 0);
    CHECK(ow_map_count(map) == 2);

    ow_map_iterator it;
    const char* key = NULL;
    ow_map_iterator_init(&it, map);
    CHECK(ow_map_iterator_next(&it, &key, &value) && strcmp(key, "product") == 0);
    CHECK(ow_map_iterator_next(&it, &key, &value) && strcmp(key, "edition") == 0);
    CHECK(!ow_map_iterator_next(&it, &key, &value));
    ow_map_destroy(map);

    ow_log_error("main", "c_api_test.c", 1, "%s", "one line");
    CHECK(errors_seen == 1);

    void* zeroed = ow_calloc("main", "c_api_test.c", 2, 4, 8);
    CHECK(zeroed != NULL);
    free(zeroed);

    if (failures == 0) printf("c api: all checks passed\n");
    return failures == 0 ? 0 : 1;
}

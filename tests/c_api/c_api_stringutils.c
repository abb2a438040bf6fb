/* c_api_stringutils.c: the string operations as a C11 caller uses them. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ow_stringutils.h"

#include "c_check.h"

int main(void) {
    char* s = NULL;
    CHECK(ow_strcat(&s, "a b"));
    CHECK(ow_ccat(&s, '/'));
    CHECK(ow_icat(&s, -12));
    CHECK(s != NULL && strcmp(s, "a b/-12") == 0);
    CHECK(ow_str_replace(&s, " ", "%20"));
    CHECK(ow_str_replace(&s, "/", "%2F"));
    CHECK(s != NULL && strcmp(s, "a%20b%2F-12") == 0);
    CHECK(ow_str_replace_smaller(s, "%20", "+"));
    CHECK(s != NULL && strcmp(s, "a+b%2F-12") == 0);
    free(s);

    char trimmed[] = "  \t padded \n";
    ow_trim_ex(trimmed, OW_TRIM_BOTH);
    CHECK(strcmp(trimmed, "padded") == 0);

    char* text = NULL;
    CHECK(ow_asprintf(&text, "%s=%d", "KEY", 7) == 5);
    CHECK(text != NULL && strcmp(text, "KEY=7") == 0);
    const char* stop = NULL;
    char* key = ow_strdup_till(text, &stop, '=');
    CHECK(key != NULL && strcmp(key, "KEY") == 0 && stop == text + 3);
    free(key);
    free(text);

    CHECK(!ow_str_replace(NULL, "a", "b")); /* refused, not a crash */

    if (failures == 0) printf("c api stringutils: all checks passed\n");
    return failures == 0 ? 0 : 1;
}

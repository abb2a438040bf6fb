/* c_api.c: the library as a C11 caller sees it through its installed headers, the way the
 * suite's mail-server component uses it: strings, a file written and read back, the map, a
 * program run two ways, and the log sink. Built in the tree and, by the install test, against
 * the staged installation through pkg-config (shared and static). */
#define _POSIX_C_SOURCE 200809L
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <ardvex/common_libs.h>
#include <ardvex/ow_file.h>
#include <ardvex/ow_hashmap.h>
#include <ardvex/ow_log.h>
#include <ardvex/ow_nulltermlist.h>
#include <ardvex/ow_pipe.h>
#include <ardvex/ow_stringutils.h>

static int failures = 0;
#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                              \
        }                                                                            \
    } while (0)

static int errors_seen = 0;
static void count_sink(int priority, const char* format, ...) {
    (void)format;
    if (priority == 3) ++errors_seen;
}

/* The reader owns the descriptor: read it to its end, then close it. */
static void read_output(int32_t fd, void* user) {
    char* out = user;
    ssize_t got = read(fd, out, 63);
    out[got > 0 ? got : 0] = '\0';
    close(fd);
}

int main(void) {
    ow_set_log_function(count_sink);

    char* s = NULL;
    CHECK(ow_strcat(&s, "a b") && ow_ccat(&s, '/') && ow_icat(&s, -12));
    CHECK(ow_str_replace(&s, " ", "%20") && s != NULL && strcmp(s, "a%20b/-12") == 0);
    free(s);

    char* name = ow_tmp_file("c_api");
    CHECK(name != NULL);
    if (name == NULL) return 1;
    unlink(name);
    int fd = ow_open_ex(name, true, O_RDWR | O_CREAT | O_EXCL, 0600);
    CHECK(fd != -1 && ow_fprintf(fd, "first %d\r\nsecond\n", 1) && ow_close(fd));
    fd = ow_open_ex(name, false, O_RDONLY, 0);
    char line[64] = {0};
    CHECK(ow_readline(fd, line, sizeof line) && strcmp(line, "first 1") == 0);
    CHECK(ow_close(fd));
    uint64_t size = 0;
    CHECK(ow_get_filesize(name, &size) && size == 16);
    unlink(name);
    free(name);

    ow_hashmap* map = ow_map_create(0, 0);
    CHECK(ow_map_store_ex(map, "product", "ardvex", 7, true, NULL));
    CHECK(ow_map_store_ex(map, "edition", "mail", 5, true, NULL));
    ow_map_iterator it;
    const char* key = NULL;
    void* value = NULL;
    ow_map_iterator_init(&it, map);
    CHECK(ow_map_iterator_next(&it, &key, &value) && strcmp(key, "product") == 0);
    CHECK(strcmp((const char*)value, "ardvex") == 0);
    ow_map_destroy(map);

    char out[64] = {0};
    CHECK(ow_pipe("/bin/echo", "a \"b  c\" d", read_output, NULL, out) == 0);
    CHECK(strcmp(out, "a b  c d\n") == 0);
    char** argv = NULL;
    CHECK(ow_lstsplode_ex(&argv, "echo hello", ' ', false) && ow_lstcount(argv) == 2);
    char buffer[16] = {0};
    int32_t code = -1;
    CHECK(execute_program("/bin/echo", argv, buffer, sizeof buffer - 1, &code) && code == 0);
    CHECK(strcmp(buffer, "hello\n") == 0);
    ow_lstfree(&argv, free);
    CHECK(errors_seen == 0);

    CHECK(ow_pipe("/bin/echo", "x;y", NULL, NULL, NULL) == -1); /* refused, one line */
    CHECK(errors_seen == 1);

    if (failures == 0) printf("c api: all checks passed\n");
    return failures == 0 ? 0 : 1;
}

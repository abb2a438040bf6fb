/* c_api_pipe.c: running a program as a C11 caller does: /bin/echo through ow_pipe with a
 * reader callback, through execute_program with a vector built by the string-array module,
 * and a refused argument string. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "common_libs.h"
#include "ow_log.h"
#include "ow_nulltermlist.h"
#include "ow_pipe.h"

#include "c_check.h"

struct output {
    char text[256];
    size_t length;
};

/* The reader owns the descriptor: read it to its end, then close it. */
static void read_output(int32_t fd, void* user) {
    struct output* out = user;
    ssize_t got;
    while (out->length < sizeof out->text - 1 &&
           (got = read(fd, out->text + out->length, sizeof out->text - 1 - out->length)) > 0) {
        out->length += (size_t)got;
    }
    out->text[out->length] = '\0';
    close(fd);
}

int main(void) {
    ow_set_log_function(count_sink);

    struct output out = {{0}, 0};
    CHECK(ow_pipe("/bin/echo", "a \"b  c\" d", read_output, NULL, &out) == 0);
    CHECK(strcmp(out.text, "a b  c d\n") == 0);
    CHECK(errors_seen == 0);

    char** argv = NULL;
    CHECK(ow_lstsplode_ex(&argv, "echo hello", ' ', false));
    CHECK(ow_lstcount(argv) == 2);
    char buffer[16] = {0};
    int32_t code = -1;
    CHECK(execute_program("/bin/echo", argv, buffer, sizeof buffer - 1, &code));
    CHECK(code == 0);
    CHECK(strcmp(buffer, "hello\n") == 0);
    ow_lstfree(&argv, free);
    CHECK(argv == NULL);
    CHECK(errors_seen == 0);

    CHECK(ow_pipe("/bin/echo", "x;y", NULL, NULL, NULL) == -1);
    CHECK(errors_seen == 1);

    if (failures == 0) printf("c api pipe: all checks passed\n");
    return failures == 0 ? 0 : 1;
}

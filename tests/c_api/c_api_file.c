/* c_api_file.c: the file module as a C11 caller sees it: a temporary file written, locked,
 * read back whole and line by line, then copied and removed. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "ow_compat.h"
#include "ow_file.h"
#include "ow_log.h"

#include "c_check.h"

int main(void) {
    ow_set_log_function(count_sink);

    char* name = ow_tmp_file("c_api_file");
    CHECK(name != NULL);
    if (name == NULL) return 1;
    unlink(name);

    int fd = ow_open_ex(name, true, O_RDWR | O_CREAT | O_EXCL, 0600);
    CHECK(fd != -1);
    CHECK(ow_fprintf(fd, "first %d\r\n", 1));
    CHECK(ow_write(fd, "second\n", 7));
    CHECK(ow_filesize(fd) == 16);
    CHECK(ow_close(fd));

    uint64_t size = 0;
    char* all = ow_file_get_contents_ex(name, &size);
    CHECK(all != NULL && size == 16 && strcmp(all, "first 1\r\nsecond\n") == 0);
    free(all);

    fd = ow_open_ex(name, false, O_RDONLY, 0);
    char line[64];
    memset(line, 0, sizeof line);
    CHECK(ow_readline(fd, line, sizeof line) && strcmp(line, "first 1") == 0);
    CHECK(ow_readline(fd, line, sizeof line) && strcmp(line, "second") == 0);
    CHECK(!ow_readline(fd, line, sizeof line));
    CHECK(ow_close(fd));

    char base[64];
    snprintf(base, sizeof base, "c_api_file.%ld.copy", (long)getpid());
    char* copy = __build_path("/tmp", base);
    CHECK(copy != NULL && ow_copyfile(copy, name));
    CHECK(ow_get_filesize(copy, &size) && size == 16);
    CHECK(ow_file_exists_ex(copy, OW_FILE_REGULAR) && !ow_file_executable(copy));
    unlink(copy);
    unlink(name);
    CHECK(!ow_file_exists_ex(name, OW_FILE_REGULAR | OW_FILE_DIRECTORY));
    free(copy);
    free(name);

    CHECK(errors_seen == 0);
    if (failures == 0) printf("c api file: all checks passed\n");
    return failures == 0 ? 0 : 1;
}

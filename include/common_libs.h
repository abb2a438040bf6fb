/* common_libs.h: services the suite's programs share: running a program with a ready
 * argument vector, and posting a form to a URL through the transfer tool.
 *
 * Conventions:
 *  1. Programs are started with fork and execv: no shell sees any argument, and the path is
 *     used as it is (no search of PATH). Children inherit the environment, the working
 *     directory and standard error.
 *  2. Calls block until the child has ended; a child that writes more than a pipe holds
 *     never makes them hang.
 *  3. Refused arguments and failing system calls write one ERROR line (ow_log.h).
 *  4. Between fork and exec the child neither allocates nor logs (so another thread's lock
 *     held at the fork cannot hang it); a program that cannot be executed is reported by
 *     the parent. Children inherit no descriptor the library opened for itself.
 *  5. Strings handed back are malloc'd; the caller frees them with free().
 */
#ifndef COMMON_LIBS_H
#define COMMON_LIBS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Runs path with the NULL-terminated vector argv (passed to execv unchanged, argv[0]
 * included). With output not NULL, the child's standard output is captured: when the
 * program exits with 0, its first min(size, total) bytes are copied to output, without a
 * terminating NUL (pass a zeroed buffer); on any other exit code output is left untouched.
 * The rest of the output is read and discarded. With exit_code not NULL the exit code is
 * stored there.
 * Returns true when the program ran and ended normally, whatever its exit code (a program
 * that cannot be executed ends with 1); false (logged) for a NULL or empty path, a NULL
 * argv, a failing pipe, fork or wait, or a child ended by a signal. */
OW_API bool execute_program(const char* path, char* const* argv, char* output, size_t size,
                            int32_t* exit_code);

/* Runs command with the shell (system(3)) and returns (status & 0xFF00) >> 8 of its wait
 * status: the command's exit code, 255 when no shell could be started, 0 when the shell was
 * ended by a signal. -1 for a NULL command. */
OW_API int32_t system_exit_code(const char* command);

/* Posts postdata to url with the transfer tool at program, and returns the answer.
 *
 * The tool gets, as separate arguments and without any shell, the words of options (split
 * at blanks; NULL means none), then "--data-binary" with "@" and the post file, "-o" with
 * the body file, "-D" with the header file, and url. The post file holds postdata byte for
 * byte, so the data never shows in the process list. The three files are the temporary
 * names of ow_tmp_file("axp"), ow_tmp_file("axd") and ow_tmp_file("axh") (ow_file.h); the
 * library creates them itself, exclusively and with mode 0600, after removing a stale
 * regular file of that name, and removes them again before returning. Anything else
 * standing at those names (a symbolic link, a directory, ...) is never written through: the
 * call fails instead. When the tool ends with a code other than 0, one ERROR line
 * "transfer tool exited with code [%d]: %s" gives the code and what the tool wrote on
 * standard error (its own reason; with curl, pass -S beside -s to have one).
 *
 * On return *response holds a new string (free() it): the response body (NULL when it could
 * not be read), or on failure "Fatal error executing remote url fetch. Exit code: [%d]" with
 * the tool's exit code (0 when it succeeded but wrote no headers, -1 when it was not started
 * because of the files, 128 + n when it was ended by signal n). A string *response held
 * before is freed. *status is the status of the last header block that starts with "HTTP/1."
 * (so a final answer after an interim 100 wins), 0 when there is none or on failure.
 *
 * True when the tool exited with 0 and wrote response headers; a status other than 200 is
 * not a failure here. False (logged, *response and *status untouched) when program, postdata,
 * url, response or status is NULL, program or url is empty, or on allocation failure. */
OW_API bool fetch_remote_url(const char* program, const char* postdata, const char* options,
                             const char* url, char** response, int32_t* status);

/* ---- Mail header folding ------------------------------------------------------------------
 * A header is "Name: value". One longer than 75 characters is folded: its value is cut into
 * pieces just before the last white-space character preceding each word, and a piece that
 * does not fit on the current line (76 characters) opens a new one after CR LF, keeping its
 * leading white space. A word (any run of bytes that are not white space) is never split, so
 * a word longer than a line stays whole, and every byte of the value is kept in order, except
 * that a value made only of white space is dropped. The result has no line break at its end. */

/* Formats the header from format and its arguments and returns it folded as a new string
 * (free() it), or NULL (logged) when it has no colon, its name with the colon is longer than
 * 76 characters, or formatting or allocation fails; NULL without a line for a NULL format.
 * When value is not NULL, *value receives the position in the result right after the colon. */
OW_API char* fold_header(char** value, const char* format, ...) OW_PRINTF(2, 3);

/* Formats, folds and writes a header to stream (no line break after it). Returns the number
 * of characters written, or -1 (logged as for fold_header; without a line for a NULL stream
 * or format, or when the stream refuses the write). */
OW_API int32_t fprintf_header(FILE* stream, const char* format, ...) OW_PRINTF(2, 3);

/* ---- Suite tool launchers -----------------------------------------------------------------
 * Each runs one installation tool of the suite's bin directory through the secure wrapper
 * ardvex-secure, as the shell command: wrapper "tool". When the tool or the wrapper is not an
 * executable regular file, a message saying which is written to standard output (no line
 * feed, the tool checked first) and 1 is returned; otherwise the raw wait status of the shell
 * run (0 on success, exit code * 256 on failure, -1 when no shell could be started). */
OW_API int32_t run_init_plugin(void);
OW_API int32_t run_activate_plugin(void);
OW_API int32_t run_deactivate_plugin(void);
OW_API int32_t run_deinit_plugin(void);

#ifdef __cplusplus
}
#endif

#endif /* COMMON_LIBS_H */

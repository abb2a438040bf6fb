/* ow_pipe.h: runs another program, without a shell, with its standard input and output on
 * two pipes, and returns its exit code.
 *
 * Conventions:
 *  1. The program path is used as it is: no search of PATH. The child inherits the
 *     environment, the working directory, standard error and the log sink.
 *  2. The argument string is split by the library: the child's vector is the program's base
 *     name followed by the words of the string. Words are separated by spaces (runs of
 *     spaces make no empty word); a stretch in double quotes is one word with its spaces
 *     kept, and a quote inside a word splits it there. Because of how quoting is carried
 *     out, the string may not contain ';' at all (refused before anything is started).
 *  3. Every failure writes one ERROR line (ow_log.h), always from the calling process: the
 *     vector is built before the child is started (a failure there starts nothing), and a
 *     program that cannot be executed is reported by the parent, while the child ends with
 *     exit status 1. Between fork and exec the child neither allocates nor logs, so a lock
 *     another thread held at the fork cannot hang it.
 *  4. Every descriptor the library opens is close-on-exec: the child inherits standard
 *     error, its two pipes as standard input and output, and nothing else of ours.
 *  5. Calls block until the child has ended. A child that writes more than a pipe holds
 *     never makes ow_pipe hang: output nobody reads is drained and discarded.
 *
 * Example:
 *     static void read_all(int32_t fd, void* user) { ...read fd to its end...; close(fd); }
 *     int32_t code = ow_pipe("/bin/echo", "a \"b c\" d", read_all, NULL, &out);
 */
#ifndef OW_PIPE_H
#define OW_PIPE_H

#include <stdint.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The parent's view of a running child. Field order and sizes are fixed. */
typedef struct ow_pipe_handle {
    int32_t out_read;  /* parent reads the child's standard output here */
    int32_t out_write; /* the child's standard output; closed in the parent */
    int32_t in_read;   /* the child's standard input; closed in the parent */
    int32_t in_write;  /* parent writes the child's standard input here */
    int32_t child;     /* process id of the child */
} ow_pipe_handle;

/* Feeds the child: gets the input write end and the caller's user pointer. It must not
 * close the descriptor; ow_pipe closes it afterwards so the child sees the end of input. */
typedef void (*ow_pipe_writer_fn)(int32_t fd, void* user);
/* Consumes the child's output: gets a descriptor to read it from and the user pointer, and
 * takes the descriptor over: it must close it. Closing it before the end of the output ends
 * the child the way a closed pipe does (SIGPIPE). */
typedef void (*ow_pipe_reader_fn)(int32_t fd, void* user);

/* Starts path with the argument string args (may be NULL or empty: the vector is then the
 * base name alone) on two new pipes. Returns a malloc'd handle for ow_clean_pipe, or NULL
 * (logged) for a NULL or empty path, an args holding ';', or when the vector, the pipes or
 * the fork fail. All four descriptors are close-on-exec in the parent. */
OW_API ow_pipe_handle* ow_init_pipe(const char* path, const char* args);

/* Waits for the child, frees the handle and returns the child's exit code. A child ended by
 * a signal gives 0 (so a killed child cannot be told from one that exited with 0). -1 for a
 * NULL handle or when the wait fails. The caller must have closed or handed over the
 * handle's descriptors before calling it. */
OW_API int32_t ow_clean_pipe(ow_pipe_handle* handle);

/* Runs path with args as ow_init_pipe does; calls writer (may be NULL) with the input end,
 * closes it, then calls reader (may be NULL) with the output end, and returns
 * ow_clean_pipe's result, or -1 when nothing could be started. Without a reader the output
 * is drained and discarded. With a writer, output the child produces while the writer runs
 * is kept in order and handed to the reader afterwards, so neither side can block the
 * other; the reader then gets a stream socket instead of a pipe. */
OW_API int32_t ow_pipe(const char* path, const char* args, ow_pipe_reader_fn reader,
                       ow_pipe_writer_fn writer, void* user);

/* The handle's input write end, or -1 (logged) for a NULL handle. */
OW_API int32_t ow_pipe_write_fd(const ow_pipe_handle* handle);
/* The handle's output read end, or -1 (logged) for a NULL handle. */
OW_API int32_t ow_pipe_read_fd(const ow_pipe_handle* handle);

#ifdef __cplusplus
}
#endif

#endif /* OW_PIPE_H */

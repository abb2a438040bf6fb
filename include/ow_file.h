/* ow_file.h: checked descriptor-level file I/O and the library's file policies: writes in
 * blocks of at most 4096 bytes retried when interrupted, whole-file reads capped at 100 MiB,
 * existence tests against a type mask, temporary file names, copying, and an optional
 * blocking whole-file write lock taken at open.
 *
 * Conventions:
 *  1. Descriptors are plain ints. -1 is refused with an ERROR line (the system's text for
 *     EINVAL); any other value is handed to the system as it is.
 *  2. Every refused argument and every failing call writes one ERROR line (ow_log.h) and the
 *     operation returns its failure value: false, NULL, -1 (or -3 for ow_tell). A missing
 *     path in ow_file_exists_ex is an ordinary false with no line.
 *  3. Strings returned are malloc'd and NUL-terminated; the caller frees them with free().
 *  4. Reads into a caller's buffer never add a NUL: pass a zeroed buffer when the result is
 *     used as a string.
 *  5. The lock of ow_open_ex (and of ow_copyfile's destination) is an advisory POSIX record
 *     write lock over the whole file, requested with F_SETLKW: the call waits until every
 *     other process has closed its locked descriptor. It lasts until the descriptor is closed
 *     (note: closing ANY descriptor of the same file in this process releases it).
 *  6. No state is kept; descriptors opened inside an operation are closed on every path.
 */
#ifndef OW_FILE_H
#define OW_FILE_H

#include <stdbool.h>
#include <stdint.h>

#include "ow_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Type bits of ow_file_exists_ex; combine them with |. */
#define OW_FILE_FIFO 1u
#define OW_FILE_CHARDEV 2u
#define OW_FILE_DIRECTORY 4u
#define OW_FILE_BLOCKDEV 8u
#define OW_FILE_REGULAR 16u
#define OW_FILE_SYMLINK 32u /* alone: the link itself is examined (lstat) */
#define OW_FILE_SOCKET 64u

/* Largest file the whole-file reads accept: 100 MiB. */
#define OW_FILE_MAX_CONTENTS 104857600u

/* Opens path with open(2) flags and mode (0 means 0666, before the umask). With lock set,
 * then waits for the whole-file write lock. Returns the descriptor, which the caller closes
 * with ow_close(), or -1 on failure. The descriptor is always close-on-exec (O_CLOEXEC is
 * added to flags), so no program the library starts inherits it. */
OW_API int ow_open_ex(const char* path, bool lock, int flags, unsigned int mode);

/* Closes fd. True on success; false for -1 or when close(2) fails. */
OW_API bool ow_close(int fd);

/* Writes all len bytes of buf in blocks of at most 4096 bytes, repeating a block interrupted
 * by a signal and continuing after a short write. True when every byte was written; on
 * failure the bytes already written stay written. buf NULL, len 0 or fd -1 are refused. */
OW_API bool ow_write(int fd, const void* buf, uint64_t len);

/* Reads up to size bytes into buf in blocks of 4096, stopping early at the first short read
 * (end of file). The count read is not returned. A negative size reads nothing and returns
 * true; size 0, buf NULL and fd -1 are refused. */
OW_API bool ow_read(int fd, void* buf, int64_t size);

/* As ow_read, but waits with select() for readability before each block. timeout_us (not 0)
 * bounds the whole call, not each block. When no data arrives in time returns false and sets
 * *timed_out to 1 (timed_out may be NULL). On success stores the number of bytes read in
 * *count (may be NULL) and returns true. */
OW_API bool ow_read_nonblock(int fd, void* buf, int64_t size, uint64_t timeout_us, int* timed_out,
                             uint32_t* count);

/* lseek(2) to offset from whence (SEEK_SET, SEEK_CUR, SEEK_END). True on success. */
OW_API bool ow_seek(int fd, int32_t offset, int whence);

/* Size of the open file in bytes, keeping the current position; -1 on failure. */
OW_API int32_t ow_filesize(int fd);

/* Cuts the file at the current position. True on success. */
OW_API bool ow_truncate(int fd);

/* The current position; -1 for fd -1, -3 when it cannot be read or exceeds 32 bits. */
OW_API int32_t ow_tell(int fd);

/* Reads the file from the current position into a malloc'd, NUL-terminated buffer of the
 * file's size + 1 bytes (the caller frees it) and stores the file's size in *size (may be
 * NULL). Files above OW_FILE_MAX_CONTENTS are refused with EFBIG. NULL on failure. */
OW_API char* ow_fd_get_contents_ex(int fd, uint64_t* size);

/* Whole contents of the file at path, as ow_fd_get_contents_ex. NULL on failure. */
OW_API char* ow_file_get_contents_ex(const char* path, uint64_t* size);

/* True when path exists and its type bit (OW_FILE_*) is in mask (low 8 bits). Links are
 * followed unless mask is exactly OW_FILE_SYMLINK. A missing path is false with no line. */
OW_API bool ow_file_exists_ex(const char* path, unsigned int mask);

/* Stores the size of the regular file at path in *size and returns true; false otherwise
 * (a path that is not a regular file is false without an ERROR line). */
OW_API bool ow_get_filesize(const char* path, uint64_t* size);

/* True when path is a regular file this process may execute. */
OW_API bool ow_file_executable(const char* path);

/* A malloc'd temporary file name "<TMPDIR or /tmp>/<prefix>.<pid>"; the caller frees it.
 * Nothing is created, and the name is the same for each call with the same prefix in one
 * process: callers that need exclusivity create the file with O_CREAT | O_EXCL.
 * NULL for a NULL or empty prefix or on allocation failure. */
OW_API char* ow_tmp_file(const char* prefix);

/* Replaces the contents of dst (created with mode 0666 when missing, locked while copying)
 * by those of src. Note the order: destination first. True on success. */
OW_API bool ow_copyfile(const char* dst, const char* src);

/* Formats like printf and writes the text to fd with ow_write. At most 1022 characters fit;
 * a longer text is refused (E2BIG) and nothing is written. True on success. */
OW_API bool ow_fprintf(int fd, const char* format, ...) OW_PRINTF(2, 3);

/* Clears the first size bytes of buf (1 .. INT32_MAX) and reads up to size bytes into it.
 * When the block holds a line feed, it is replaced by NUL (a carriage return before it is cut
 * too) and the file position is left just after it, so successive calls return successive
 * lines. Without a line feed the whole block stays in buf and the position after it; a full
 * block then has no NUL, so give buf one byte more than size when it is used as a string.
 * fd must be seekable. False at the end of the file or on failure. */
OW_API bool ow_readline(int fd, char* buf, int64_t size);

/* A malloc'd path "dir/name" (no second "/" when dir ends with one); the caller frees it.
 * NULL when either is NULL or empty, or on allocation failure. */
OW_API char* __build_path(const char* dir, const char* name);

#ifdef __cplusplus
}
#endif

#endif /* OW_FILE_H */

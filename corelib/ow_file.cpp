// ow_file: descriptor-level file I/O with argument checks, one failure line per fault, and
// the library's file policies (4096-byte blocks, writes retried on EINTR, whole-file reads
// capped at 100 MiB, an optional blocking whole-file write lock). No state is kept: every
// descriptor opened inside an operation is closed on all of its paths.
#include "ow_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ow_compat.h"
#include "ow_internal.hpp"

namespace {

constexpr std::size_t kBlockSize = 4096;
constexpr unsigned int kDefaultMode = 0666;
constexpr std::size_t kFormatBuffer = 1024;
constexpr std::size_t kFormatLimit = kFormatBuffer - 1;  // vsnprintf keeps 1022 characters
constexpr std::size_t kFormatMaxText = kFormatLimit - 1;
constexpr unsigned int kTypeMaskBits = 0xFFu;
constexpr int kVsnprintfErrno = 56;  // the error number the formatting failure line reports

// The type bit of a mode: 1 << (S_IFMT part >> 13), so FIFO = 1 ... socket = 64.
unsigned int type_bit(mode_t mode) noexcept { return 1u << ((mode & S_IFMT) >> 13); }

std::size_t block_of(uint64_t remaining) noexcept {
    return remaining < kBlockSize ? static_cast<std::size_t>(remaining) : kBlockSize;
}

// Microseconds left before a CLOCK_MONOTONIC deadline, never negative.
uint64_t micros_until(const timespec& deadline) noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t left = (static_cast<int64_t>(deadline.tv_sec) - now.tv_sec) * 1000000 +
                         (static_cast<int64_t>(deadline.tv_nsec) - now.tv_nsec) / 1000;
    return left > 0 ? static_cast<uint64_t>(left) : 0;
}

// Waits until fd is readable or the deadline passes. 1 ready, 0 timed out, -1 error (errno).
// poll rather than select: select cannot watch a descriptor at or above FD_SETSIZE, and a
// mail server may well hold that many.
int wait_readable(int fd, const timespec& deadline) noexcept {
    for (;;) {
        const uint64_t left = micros_until(deadline);
        // Round up so that a wait never ends before the deadline it was given.
        const uint64_t ms = (left + 999) / 1000;
        pollfd p{fd, POLLIN, 0};
        const int rc = poll(&p, 1, ms > INT_MAX ? INT_MAX : static_cast<int>(ms));
        if (rc > 0) return 1;  // readable, hung up or invalid: read() tells which
        if (rc == 0) {
            if (micros_until(deadline) == 0) return 0;
            continue;  // the INT_MAX cap ran out before the caller's time-out
        }
        if (errno != EINTR) return -1;
    }
}

// Closes fd keeping errno, for failure paths that report an earlier error.
void close_quietly(int fd) noexcept {
    const int saved = errno;
    close(fd);
    errno = saved;
}

}  // namespace

extern "C" {

// ---------------------------------------------------------------------------------------
// Descriptors

int ow_open_ex(const char* path, bool lock, int flags, unsigned int mode) {
    if (path == nullptr) {
        OW_EINVAL();
        return -1;
    }
    const int fd =
        open(path, flags | O_CLOEXEC, static_cast<mode_t>(mode == 0 ? kDefaultMode : mode));
    if (fd == -1) {
        OW_ERRNO(errno);
        return -1;
    }
    if (lock) {
        OW_DEBUG("request for lock");
        struct flock fl {};
        fl.l_type = F_WRLCK;
        fl.l_whence = SEEK_SET;
        fl.l_start = 0;
        fl.l_len = 0;  // the whole file, also as it grows
        fl.l_pid = getpid();
        if (fcntl(fd, F_SETLKW, &fl) == -1) {
            const int err = errno;
            close(fd);
            OW_ERROR("request for lock %s", std::strerror(err));
            return -1;
        }
    }
    return fd;
}

bool ow_close(int fd) {
    if (fd == -1) {
        OW_EINVAL();
        return false;
    }
    if (close(fd) != 0) {
        OW_ERRNO(errno);
        return false;
    }
    return true;
}

bool ow_write(int fd, const void* buf, uint64_t len) {
    if (buf == nullptr || len == 0 || fd == -1) {
        OW_EINVAL();
        return false;
    }
    const auto* p = static_cast<const unsigned char*>(buf);
    uint64_t left = len;
    while (left > 0) {
        OW_DEBUG("%" PRIu64 " bytes left to write", left);
        const std::size_t block = block_of(left);
        OW_DEBUG("Attempting to write %zu bytes", block);
        const ssize_t n = write(fd, p, block);
        if (n < 0) {
            if (errno == EINTR) {
                OW_ERROR("Write operation was interrupted... trying again...");
                continue;
            }
            OW_ERRNO(errno);
            return false;
        }
        if (n == 0) {
            // A write of a non-empty block that stores nothing would repeat forever.
            OW_ERRNO(EIO);
            return false;
        }
        OW_DEBUG("wrote %zd bytes", n);
        p += n;
        left -= static_cast<uint64_t>(n);
    }
    return true;
}

bool ow_read(int fd, void* buf, int64_t size) {
    if (fd == -1) {
        OW_ERROR("Invalid file handler!");
        return false;
    }
    if (buf == nullptr) {
        OW_ERROR("Invalid buffer parameter!");
        return false;
    }
    if (size == 0) {
        OW_ERROR("Invalid read size: %" PRId64, size);
        return false;
    }
    auto* p = static_cast<unsigned char*>(buf);
    uint64_t left = size > 0 ? static_cast<uint64_t>(size) : 0;
    while (left > 0) {
        OW_DEBUG("%" PRIu64 " bytes remaining to read", left);
        const std::size_t block = block_of(left);
        OW_DEBUG("attempting to read %zu bytes in one block", block);
        const ssize_t n = read(fd, p, block);
        if (n < 0) {
            OW_ERRNO(errno);
            return false;
        }
        OW_DEBUG("read %zd bytes", n);
        if (static_cast<std::size_t>(n) < block) break;  // end of file or a short read
        p += n;
        left -= static_cast<uint64_t>(n);
    }
    return true;
}

bool ow_read_nonblock(int fd, void* buf, int64_t size, uint64_t timeout_us, int* timed_out,
                      uint32_t* count) {
    // The count is 32 bits wide: a larger request could not report what it read.
    if (fd == -1 || buf == nullptr || size == 0 || timeout_us == 0 ||
        (count != nullptr && size > static_cast<int64_t>(UINT32_MAX))) {
        OW_EINVAL();
        return false;
    }
    // One deadline for the whole call: the time-out bounds all blocks together.
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeout_us / 1000000);
    deadline.tv_nsec += static_cast<long>(timeout_us % 1000000) * 1000;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }

    auto* p = static_cast<unsigned char*>(buf);
    uint64_t left = size > 0 ? static_cast<uint64_t>(size) : 0;
    uint64_t total = 0;
    while (left > 0) {
        OW_DEBUG("%" PRIu64 " bytes remaining to read", left);
        const std::size_t block = block_of(left);
        OW_DEBUG("attempting to read %zu bytes in one block", block);
        const int ready = wait_readable(fd, deadline);
        if (ready < 0) {
            OW_ERRNO(errno);
            return false;
        }
        if (ready == 0) {
            OW_DEBUG("no data ready to read within %" PRIu64 " microseconds", timeout_us);
            if (timed_out != nullptr) *timed_out = 1;
            return false;
        }
        const ssize_t n = read(fd, p, block);
        if (n < 0) {
            OW_ERRNO(errno);
            return false;
        }
        OW_DEBUG("read %zd bytes", n);
        total += static_cast<uint64_t>(n);
        if (static_cast<std::size_t>(n) < block) break;
        p += n;
        left -= static_cast<uint64_t>(n);
    }
    if (count != nullptr) *count = static_cast<uint32_t>(total);
    return true;
}

bool ow_seek(int fd, int32_t offset, int whence) {
    if (fd == -1) {
        OW_EINVAL();
        return false;
    }
    if (lseek(fd, offset, whence) == static_cast<off_t>(-1)) {
        OW_ERRNO(errno);
        return false;
    }
    OW_DEBUG("successfully sought %d from offset %d", offset, whence);
    return true;
}

int32_t ow_filesize(int fd) {
    // -1 is reported but handed on: lseek then fails and gives the failure value.
    if (fd == -1) OW_EINVAL();
    const off_t here = lseek(fd, 0, SEEK_CUR);
    if (here == static_cast<off_t>(-1)) {
        OW_ERRNO(errno);
        return -1;
    }
    const off_t end = lseek(fd, 0, SEEK_END);
    const int err = errno;
    if (lseek(fd, here, SEEK_SET) == static_cast<off_t>(-1) || end == static_cast<off_t>(-1)) {
        OW_ERRNO(end == static_cast<off_t>(-1) ? err : errno);
        return -1;
    }
    if (end > INT32_MAX) {
        OW_ERRNO(EOVERFLOW);
        return -1;
    }
    return static_cast<int32_t>(end);
}

bool ow_truncate(int fd) {
    if (fd == -1) {
        OW_EINVAL();
        return false;
    }
    const off_t here = lseek(fd, 0, SEEK_CUR);
    if (here == static_cast<off_t>(-1) || ftruncate(fd, here) != 0) {
        OW_ERRNO(errno);
        return false;
    }
    OW_DEBUG("file truncated");
    return true;
}

int32_t ow_tell(int fd) {
    if (fd == -1) {
        OW_EINVAL();
        return -1;
    }
    const off_t here = lseek(fd, 0, SEEK_CUR);
    if (here == static_cast<off_t>(-1)) {
        OW_ERRNO(errno);
        return -3;
    }
    if (here > INT32_MAX) {
        OW_ERRNO(EOVERFLOW);
        return -3;
    }
    return static_cast<int32_t>(here);
}

// ---------------------------------------------------------------------------------------
// Whole-file reads

char* ow_fd_get_contents_ex(int fd, uint64_t* size) {
    if (fd == -1) {
        OW_EINVAL();
        errno = EINVAL;
        return nullptr;
    }
    // The size comes from lseek directly (not ow_filesize) so that a file beyond 2 GiB is
    // refused as too large, in one line, rather than misread as a 32-bit size.
    const off_t here = lseek(fd, 0, SEEK_CUR);
    const off_t end = here == static_cast<off_t>(-1) ? here : lseek(fd, 0, SEEK_END);
    if (end == static_cast<off_t>(-1) || lseek(fd, here, SEEK_SET) == static_cast<off_t>(-1)) {
        const int err = errno;
        OW_ERRNO(err);  // a pipe or socket has no size: say so rather than "too large"
        errno = err;
        return nullptr;
    }
    if (end > static_cast<off_t>(OW_FILE_MAX_CONTENTS)) {
        OW_ERRNO(EFBIG);
        errno = EFBIG;
        return nullptr;
    }
    const auto length = static_cast<std::size_t>(end);
    ow::unique_cstr buffer(static_cast<char*>(ow::mem_calloc(length + 1, 1)));
    if (!buffer) {
        OW_OOM();
        errno = ENOMEM;
        return nullptr;
    }
    if (length > 0 && !ow_read(fd, buffer.get(), static_cast<int64_t>(length))) {
        const int err = errno;
        OW_ERROR("Cannot read content of cid history file");
        errno = err;
        return nullptr;
    }
    if (size != nullptr) *size = length;
    return buffer.release();
}

char* ow_file_get_contents_ex(const char* path, uint64_t* size) {
    if (path == nullptr || *path == '\0') {
        OW_EINVAL();
        return nullptr;
    }
    const int fd = ow_open_ex(path, false, O_RDONLY, 0);
    if (fd == -1) {
        OW_DEBUG("couldn't open file so aborting");
        return nullptr;
    }
    char* contents = ow_fd_get_contents_ex(fd, size);
    close_quietly(fd);
    if (contents == nullptr) {
        OW_ERROR("Failed to get file contents [%s]: %s", path, std::strerror(errno));
        return nullptr;
    }
    return contents;
}

// ---------------------------------------------------------------------------------------
// Paths

bool ow_file_exists_ex(const char* path, unsigned int mask) {
    if (path == nullptr || *path == '\0') {
        OW_EINVAL();
        return false;
    }
    mask &= kTypeMaskBits;
    struct stat st {};
    const int rc = mask == OW_FILE_SYMLINK ? lstat(path, &st) : stat(path, &st);
    if (rc != 0) {
        // A missing file (or a missing directory on the way to it) is an answer, not a fault.
        if (errno == ENOENT || errno == ENOTDIR) return false;
        OW_ERROR("Failed to stat [%s]: %s", path, std::strerror(errno));
        return false;
    }
    const auto type = static_cast<unsigned int>(st.st_mode & S_IFMT);
    if ((type_bit(st.st_mode) & mask) != 0) {
        OW_DEBUG("[%s] exists and is a [%o]", path, type);
        return true;
    }
    OW_DEBUG("[%s] exists but is of unexpected type [%o]", path, type);
    return false;
}

bool ow_get_filesize(const char* path, uint64_t* size) {
    if (path == nullptr || *path == '\0' || size == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (!ow_file_exists_ex(path, OW_FILE_REGULAR)) return false;
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        OW_ERROR("Failed to open file [%s]: %s", path, std::strerror(errno));
        return false;
    }
    const off_t end = lseek(fd, 0, SEEK_END);
    close_quietly(fd);
    if (end < 0) {
        OW_ERRNO(errno);
        return false;
    }
    *size = static_cast<uint64_t>(end);
    return true;
}

bool ow_file_executable(const char* path) {
    if (path == nullptr || *path == '\0') {
        OW_EINVAL();
        return false;
    }
    if (!ow_file_exists_ex(path, OW_FILE_REGULAR)) {
        OW_DEBUG("file doesn't exist - return false");
        return false;
    }
    if (access(path, X_OK) != 0) {
        OW_DEBUG("file either can't be read or can't be executed");
        return false;
    }
    OW_DEBUG("returning true");
    return true;
}

char* ow_tmp_file(const char* prefix) {
    if (prefix == nullptr || *prefix == '\0') {
        OW_EINVAL();
        return nullptr;
    }
    char* tmpdir = nullptr;
    ow::unique_cstr dir_owner;
    const char* dir = "/tmp";
    if (__getenv("TMPDIR", &tmpdir)) {
        dir_owner.reset(tmpdir);
        dir = tmpdir;
        OW_DEBUG("found environment variable %s", dir);
    } else if (std::getenv("TMPDIR") != nullptr) {
        // The variable is there but could not be copied (logged): falling back to /tmp
        // would silently put the file where the administrator said not to.
        return nullptr;
    } else {
        OW_DEBUG("TMPDIR environment variable not found: setting explicit /tmp");
    }
    const long pid = static_cast<long>(getpid());
    const int length = std::snprintf(nullptr, 0, "%s/%s.%ld", dir, prefix, pid);
    if (length < 0) {
        OW_ERRNO(errno);
        return nullptr;
    }
    ow::unique_cstr name(static_cast<char*>(ow::mem_malloc(static_cast<std::size_t>(length) + 1)));
    if (!name) {
        OW_OOM();
        return nullptr;
    }
    std::snprintf(name.get(), static_cast<std::size_t>(length) + 1, "%s/%s.%ld", dir, prefix, pid);
    OW_DEBUG("generated %s", name.get());
    return name.release();
}

char* __build_path(const char* dir, const char* name) {
    if (dir == nullptr || *dir == '\0' || name == nullptr || *name == '\0') {
        OW_EINVAL();
        return nullptr;
    }
    const std::size_t dir_len = std::strlen(dir);
    const std::size_t name_len = std::strlen(name);
    const char* separator = dir[dir_len - 1] == '/' ? "" : "/";
    std::size_t total = 0;
    if (ow::add_overflows(dir_len, name_len, &total) || ow::add_overflows(total, 2, &total)) {
        OW_OOM();
        return nullptr;
    }
    auto* path = static_cast<char*>(ow::mem_malloc(total));
    if (path == nullptr) {
        OW_OOM();
        return nullptr;
    }
    std::snprintf(path, total, "%s%s%s", dir, separator, name);
    return path;
}

// ---------------------------------------------------------------------------------------
// Copying and formatted writes

bool ow_copyfile(const char* dst, const char* src) {
    if (dst == nullptr || src == nullptr || *src == '\0' || *dst == '\0') {
        OW_EINVAL();
        return false;
    }
    OW_DEBUG("Copying file %s => %s", src, dst);
    const int in = ow_open_ex(src, false, O_RDONLY, 0);
    if (in == -1) {
        OW_ERRNO(ECANCELED);
        return false;
    }
    const int out = ow_open_ex(dst, true, O_RDWR | O_CREAT, kDefaultMode);
    if (out == -1) {
        close(in);
        OW_ERRNO(ECANCELED);
        return false;
    }
    // Both descriptors are closed on every path; on success the result of closing the
    // destination decides, since a failed close can mean the data never reached the disk.
    bool closed = false;
    auto close_both = ow::scope_guard([&]() noexcept {
        if (!closed) {
            close_quietly(in);
            close_quietly(out);
        }
    });

    // Copying a file onto itself would truncate the only copy of the data.
    struct stat in_st {};
    struct stat out_st {};
    if (fstat(in, &in_st) == 0 && fstat(out, &out_st) == 0 && in_st.st_dev == out_st.st_dev &&
        in_st.st_ino == out_st.st_ino) {
        OW_EINVAL();
        return false;
    }
    if (!ow_truncate(out)) {
        OW_ERRNO(ECANCELED);
        return false;
    }
    if (!ow_seek(in, 0, SEEK_SET)) {
        OW_ERROR("Error seeking to start of input file");
        return false;
    }
    if (!ow_seek(out, 0, SEEK_SET)) {
        OW_ERROR("Error seeking to start of output file");
        return false;
    }
    if (lseek(in, 0, SEEK_END) == static_cast<off_t>(-1) ||
        lseek(in, 0, SEEK_SET) == static_cast<off_t>(-1)) {
        OW_ERRNO(ECANCELED);
        return false;
    }

    unsigned char block[kBlockSize];
    for (;;) {
        const ssize_t got = read(in, block, sizeof block);
        if (got < 0) {
            if (errno == EINTR) continue;
            OW_ERROR("Error reading from source file %s: [%s]", src, std::strerror(errno));
            return false;
        }
        if (got == 0) break;
        ssize_t done = 0;
        while (done < got) {
            const ssize_t put = write(out, block + done, static_cast<std::size_t>(got - done));
            if (put < 0 && errno == EINTR) continue;
            if (put <= 0) {
                OW_ERROR("Error writing to output file %s: [%s]", dst,
                         std::strerror(put < 0 ? errno : EIO));
                return false;
            }
            done += put;
        }
    }
    closed = true;
    close(in);
    if (close(out) != 0) {
        OW_ERROR("Error writing to output file %s: [%s]", dst, std::strerror(errno));
        return false;
    }
    return true;
}

bool ow_fprintf(int fd, const char* format, ...) {
    if (fd == -1 || format == nullptr) {
        OW_EINVAL();
        return false;
    }
    char text[kFormatBuffer] = {};
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(text, kFormatLimit, format, args);
    va_end(args);
    if (length < 0) {
        OW_ERROR("unknown error on vsnprintf() %s", std::strerror(kVsnprintfErrno));
        return false;
    }
    if (static_cast<std::size_t>(length) > kFormatMaxText) {
        OW_ERRNO(E2BIG);
        return false;
    }
    OW_DEBUG("arguments and format converted [%s]", text);
    // An empty text is written by writing nothing; ow_write would refuse a length of 0.
    if (length == 0) return true;
    return ow_write(fd, text, static_cast<uint64_t>(length));
}

bool ow_readline(int fd, char* buf, int64_t size) {
    // Positions are 32-bit here (ow_tell, ow_seek), so a line buffer is too.
    if (fd == -1 || buf == nullptr || size <= 0 || size > INT32_MAX) {
        OW_EINVAL();
        return false;
    }
    const int32_t start = ow_tell(fd);
    OW_DEBUG("current position in file %d", start);
    if (start < 0) {
        OW_ERRNO(ECANCELED);
        return false;
    }
    // Cleared here so that nothing left from an earlier line can pass for data read now.
    std::memset(buf, 0, static_cast<std::size_t>(size));
    if (!ow_read(fd, buf, size)) {
        OW_ERRNO(ECANCELED);
        return false;
    }
    if (buf[0] == '\0') return false;

    const auto length = static_cast<std::size_t>(size);
    OW_DEBUG("read data block: [%.*s]", static_cast<int>(strnlen(buf, length)), buf);
    auto* newline = static_cast<char*>(std::memchr(buf, '\n', length));
    if (newline == nullptr) return true;

    const auto offset = static_cast<int32_t>(newline - buf);
    OW_DEBUG("newline found at character %d", offset);
    *newline = '\0';
    if (!ow_seek(fd, start, SEEK_SET) || !ow_seek(fd, offset + 1, SEEK_CUR)) {
        OW_ERRNO(ECANCELED);
        return false;
    }
    if (offset > 0 && buf[offset - 1] == '\r') buf[offset - 1] = '\0';
    return true;
}

}  // extern "C"

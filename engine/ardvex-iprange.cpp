// ardvex-iprange.cpp: the binary IPv4 range files beside the engine's IP lists. Every change
// writes a complete new file "<file>.new" under the range file's lock and renames it over the
// old one, so a reader always meets a whole file whose count agrees with its size, and a
// crash leaves either the old or the new file. Records are read in blocks through pread, so
// a corrupt count can only make a read come up short, never make us allocate or read beyond
// the file.
#include "ardvex-iprange.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ardvex-file-internal.hpp"
#include "ardvex-ip-funcs.h"
#include "ow_file.h"
#include "ow_internal.hpp"
#include "ow_rfc.h"
#include "ow_stringutils.h"

static_assert(sizeof(ipr_header) == 16);
static_assert(offsetof(ipr_header, version) == 8);
static_assert(offsetof(ipr_header, count) == 12);
static_assert(sizeof(ipr_range) == 8);
static_assert(offsetof(ipr_range, high) == 4);
static_assert(sizeof(ipr_record) == 264);
static_assert(offsetof(ipr_record, comment) == 8);

namespace {

constexpr const char* kInvalidArgs = "Invalid arguments to add";
constexpr const char* kOpenFailed = "Error opening file";
constexpr const char* kLegacy = "Legacy format detected, abort";
constexpr const char* kInvalidRange = "Invalid ip range to add";
constexpr const char* kExists = "Entry already exists";
constexpr const char* kSeekFailed = "Error traversing file";
constexpr const char* kReadFailed = "Error reading file";
constexpr const char* kWriteFailed = "Error writing file";
constexpr const char* kOutOfMemory = "Out of memory error";
constexpr const char* kOldBackup = "Error removing old backup file";
constexpr const char* kBackup = "Error creating backup file";

constexpr std::size_t kHeaderSize = sizeof(ipr_header);
constexpr std::size_t kMaxCommentLen = IPR_COMMENT_SIZE - 1;
constexpr std::size_t kBlock = 4096;  // bytes of records read at once

// 192.0.2.0/24, reserved for documentation and examples: it never holds a real client.
constexpr uint8_t kBuiltinBlock[3] = {192, 0, 2};

// An open range file; the descriptor closes with it.
struct range_file {
    int fd = -1;
    ipr_header header{};  // the count is the writer's working copy
    ow::unique_cstr path;

    range_file() = default;
    range_file(const range_file&) = delete;
    range_file& operator=(const range_file&) = delete;
    ~range_file() {
        if (fd != -1) ow_close(fd);
    }
    std::size_t record_size() const noexcept {
        return header.version == IPR_VERSION_LEGACY ? sizeof(ipr_range) : sizeof(ipr_record);
    }
};

void set_message(const char** message, const char* text) noexcept {
    if (message != nullptr) *message = text;
}

// Reads up to n bytes at offset; the count read, or -1 with errno set.
ssize_t read_at(int fd, void* buf, std::size_t n, off_t offset) noexcept {
    std::size_t done = 0;
    while (done < n) {
        const ssize_t got = ::pread(fd, static_cast<char*>(buf) + done, n - done,
                                    offset + static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) break;
        done += static_cast<std::size_t>(got);
    }
    return static_cast<ssize_t>(done);
}

uint32_t to_number(const char* text) noexcept {
    in_addr addr{};
    return ::inet_pton(AF_INET, text, &addr) == 1 ? addr.s_addr : 0;
}

void octets_of(uint32_t ip, unsigned char out[4]) noexcept { std::memcpy(out, &ip, 4); }

// Walks the records of an open file block by block, calling visit(index, record) with each
// as a version 2 record (a version 1 record gets an empty comment); visit returns false to
// stop. Returns false when a read fails or comes up short (errno 0 then).
template <typename F>
bool walk_records(const range_file& rf, F&& visit) noexcept {
    const std::size_t size = rf.record_size();
    const std::size_t per_block = kBlock / size;
    alignas(ipr_record) unsigned char block[kBlock];
    for (uint32_t done = 0; done < rf.header.count;) {
        const std::size_t n = std::min<std::size_t>(per_block, rf.header.count - done);
        const off_t at = static_cast<off_t>(kHeaderSize + std::size_t{done} * size);
        errno = 0;
        if (read_at(rf.fd, block, n * size, at) != static_cast<ssize_t>(n * size)) return false;
        for (std::size_t i = 0; i < n; ++i) {
            ipr_record rec{};
            std::memcpy(&rec, block + i * size, size);
            rec.comment[kMaxCommentLen] = '\0';  // an unterminated comment stops at 255
            if (!visit(done + static_cast<uint32_t>(i), rec)) return true;
        }
        done += static_cast<uint32_t>(n);
    }
    return true;
}

// Collects records and writes them in large blocks; the first failed write is logged by
// ow_write and makes every later call fail.
class record_writer {
   public:
    explicit record_writer(int fd) noexcept : fd_(fd) {}
    bool put(const ipr_record& rec) noexcept {
        if (used_ + sizeof rec > sizeof buf_ && !flush()) return false;
        std::memcpy(buf_ + used_, &rec, sizeof rec);
        used_ += sizeof rec;
        return true;
    }
    bool flush() noexcept {
        if (ok_ && used_ > 0) ok_ = ow_write(fd_, buf_, used_);
        used_ = 0;
        return ok_;
    }

   private:
    int fd_;
    bool ok_ = true;
    std::size_t used_ = 0;
    unsigned char buf_[sizeof(ipr_record) * 31];
};

}  // namespace

// ---------------------------------------------------------------------------------------
// File helpers, named as the rest of the suite's tools know them.

static char* __gen_full_path(const char* dir, const char* name) {
    if (dir == nullptr || *dir == '\0') {
        OW_ERROR("prefix argument is empty or NULL");
        return nullptr;
    }
    if (name == nullptr || *name == '\0') {
        OW_ERROR("file argument is empty or NULL");
        return nullptr;
    }
    char* path = nullptr;
    const bool slash = dir[std::strlen(dir) - 1] == '/';
    if (ow_asprintf(&path, "%s%s%s", dir, slash ? "" : "/", name) < 0) return nullptr;
    return path;
}

static bool __sane_ip(const char* text) {
    if (text == nullptr || *text == '\0') {
        OW_ERROR("IP address argument is empty or NULL");
        return false;
    }
    const int family = ow_is_ip(text);
    if (family == AF_INET6) {
        OW_ERROR("Sorry but this system does not yet support IPv6 range checks for address [%s]",
                 text);
        return false;
    }
    if (family != AF_INET) {
        OW_ERROR("Invalid IP address argument [%s]", text);
        return false;
    }
    const uint32_t n = to_number(text);
    if (n == 0 || n == UINT32_MAX) {
        OW_ERROR("This system does not support broadcast addresses [%s]", text);
        return false;
    }
    return true;
}

static bool ipr_valid_file_header(const ipr_header* header) {
    if (header->signature != IPR_SIGNATURE) {
        OW_DEBUG("invalid signature");
        return false;
    }
    if (header->version != IPR_VERSION_LEGACY && header->version != IPR_VERSION_CURRENT) {
        OW_DEBUG("unsupported version");
        return false;
    }
    return true;
}

// Writes the header at the start of the file: the message of the step that failed, or
// nullptr.
static const char* write_header(const range_file& rf) {
    if (!ow_seek(rf.fd, 0, SEEK_SET)) return kSeekFailed;
    if (!ow_write(rf.fd, &rf.header, kHeaderSize)) return kWriteFailed;
    return nullptr;
}

// Opens dir/name into rf; with name NULL, the file rf.path already names (a new file beside a
// locked one). Writers wait for the lock and may create the file or reset a corrupt one to an
// empty version 2 file; readers take no lock.
static bool __open_range_file(const char* dir, const char* name, bool writable, bool create,
                              range_file& rf) {
    if (name != nullptr || !rf.path) {
        rf.path.reset(__gen_full_path(dir, name));
        if (!rf.path) {
            if (dir != nullptr && *dir != '\0' && name != nullptr && *name != '\0') OW_ENOMEM();
            return false;
        }
        // A range file linked in from elsewhere stays shared: writers replace the file the
        // link names, not the link.
        if (char* real = writable ? ::realpath(rf.path.get(), nullptr) : nullptr)
            rf.path.reset(real);
    }
    const char* path = rf.path.get();
    if (writable) {
        rf.fd = ow::open_locked_current(path, O_RDWR | (create ? O_CREAT : 0));
    } else if (ow_file_exists_ex(path, OW_FILE_REGULAR)) {
        rf.fd = ow_open_ex(path, false, O_RDONLY, 0);
    }
    if (rf.fd == -1) return false;

    struct stat st {};
    if (::fstat(rf.fd, &st) != 0) {
        OW_ERRNO(errno);
        return false;
    }
    bool valid = false;
    if (st.st_size == 0) {
        if (!create) {
            OW_DEBUG("zero byte file on non initializing operation");
            return false;
        }
    } else if (st.st_size < static_cast<off_t>(kHeaderSize)) {
        if (!create) {
            OW_DEBUG("file %s is corrupt", path);
            return false;
        }
    } else {
        if (read_at(rf.fd, &rf.header, kHeaderSize, 0) != static_cast<ssize_t>(kHeaderSize)) {
            OW_ERRNO(errno != 0 ? errno : EIO);
            return false;
        }
        valid = ipr_valid_file_header(&rf.header);
        if (!valid && !create) {
            OW_DEBUG("file %s is corrupt", path);
            return false;
        }
    }
    if (!valid) {
        rf.header = ipr_header{IPR_SIGNATURE, IPR_VERSION_CURRENT, {0, 0, 0}, 0};
        if (!ow_seek(rf.fd, 0, SEEK_SET) || !ow_truncate(rf.fd) ||
            !ow_write(rf.fd, &rf.header, kHeaderSize))
            return false;
    }
    return ow_seek(rf.fd, static_cast<int32_t>(kHeaderSize), SEEK_SET);
}

// Closes and removes a new file that will not replace the old one.
static void __destroy_temp_range_file(range_file& rf) {
    if (rf.fd != -1) {
        ow_close(rf.fd);
        rf.fd = -1;
    }
    if (rf.path && ::unlink(rf.path.get()) != 0 && errno != ENOENT)
        OW_ERROR("Error removing file %s: %s", rf.path.get(), std::strerror(errno));
}

// Opens "<name>.new" beside the locked file old as a fresh, empty version 2 file. Only a
// writer holding old's lock touches it, so anything already there was left by one that died.
static const char* open_new_file(const range_file& old, range_file& out) {
    char* new_path = nullptr;
    if (ow_asprintf(&new_path, "%s.new", old.path.get()) < 0) return kOutOfMemory;
    out.path.reset(new_path);
    if (::unlink(new_path) != 0 && errno != ENOENT) OW_ERRNO(errno);
    if (!__open_range_file(nullptr, nullptr, true, true, out)) {
        __destroy_temp_range_file(out);
        return kOpenFailed;
    }
    return nullptr;
}

// Finishes the new file: header, permissions and a flush to disk.
static const char* seal_new_file(const range_file& old, range_file& fresh) {
    if (const char* failed = write_header(fresh); failed != nullptr) return failed;
    return ow::prepare_replacement(old.fd, fresh.fd) ? nullptr : kWriteFailed;
}

// Puts the sealed new file in the old one's place, keeping "<file>.bak" as a second name of
// the old file until the new one is there. The backup is a link, not a rename, so that the
// range file's name never goes missing: a reader in between would find no ranges, and a
// writer would create an empty file there for the rename to throw away.
static const char* swap_with_backup(range_file& old, range_file& fresh) {
    const char* path = old.path.get();
    char* bak_raw = nullptr;
    if (ow_asprintf(&bak_raw, "%s.bak", path) < 0) return kOutOfMemory;
    ow::unique_cstr bak(bak_raw);
    struct stat st {};
    if (::lstat(bak.get(), &st) == 0 && ::unlink(bak.get()) != 0) {
        OW_ERROR("Failed to remove old backup file %s: %s", bak.get(), std::strerror(errno));
        return kOldBackup;
    }
    if (::link(path, bak.get()) != 0) {
        OW_ERROR("Failed to rename %s to %s: %s", path, bak.get(), std::strerror(errno));
        return kBackup;
    }
    if (::rename(fresh.path.get(), path) != 0) {
        OW_ERROR("Failed to rename %s to %s: %s", fresh.path.get(), path, std::strerror(errno));
        // The old file never left its name; only its second name goes.
        if (::unlink(bak.get()) != 0) OW_ERRNO(errno);
        return kWriteFailed;
    }
    if (::unlink(bak.get()) != 0)
        OW_ERROR("Failed to remove backup file %s: %s", bak.get(), std::strerror(errno));
    return nullptr;
}

// Index of the first record of exactly r in the open file: -1 when there is none, -2 when the
// records cannot be read.
static int64_t find_range(const range_file& rf, const ipr_range& r) {
    int64_t found = -1;
    const bool read = walk_records(rf, [&](uint32_t i, const ipr_record& rec) noexcept {
        if (rec.range.low != r.low || rec.range.high != r.high) return true;
        found = i;
        return false;
    });
    return read ? found : -2;
}

extern "C" {

// ---------------------------------------------------------------------------------------
// Range arithmetic.

bool ax_ip_ge(uint32_t a, uint32_t b, int level) {
    unsigned char x[4];
    unsigned char y[4];
    octets_of(a, x);
    octets_of(b, y);
    if (level >= 1 && x[0] != y[0]) {
        OW_DEBUG("not even part of the same /8 comparing %u, %u", unsigned{x[0]}, unsigned{y[0]});
        return false;
    }
    if (level >= 2 && x[1] != y[1]) {
        OW_DEBUG("not even part of the same /16");
        return false;
    }
    if (level >= 3) {
        if (x[2] != y[2]) {
            OW_DEBUG("not even part of the same /24");
            return false;
        }
        return x[3] >= y[3];
    }
    return std::memcmp(x, y, 4) >= 0;
}

bool ax_valid_ip_range(const ipr_range* range) {
    if (range == nullptr) {
        OW_DEBUG("range is NULL, returning false");
        return false;
    }
    if (!ax_ip_ge(range->high, range->low, 2)) {
        OW_DEBUG("low range is greater than highrange - invalid range");
        return false;
    }
    return true;
}

bool ax_ip_in_range(uint32_t ip, const ipr_range* range) {
    if (ip == 0) {
        OW_DEBUG("refusing to test 0.0.0.0 ip");
        return false;
    }
    if (ip == UINT32_MAX) {
        OW_DEBUG("refusing to test 255.255.255.255 ip");
        return false;
    }
    if (!ax_valid_ip_range(range)) {
        OW_DEBUG("invalid range - returning false");
        return false;
    }
    if (ax_ip_ge(ip, range->low, 2) && ax_ip_ge(range->high, ip, 2)) return true;
    OW_DEBUG("no match");
    return false;
}

bool ip_in_builtin_range(const char* ip) {
    if (ip == nullptr || *ip == '\0') return false;
    ipr_range block{};
    unsigned char octets[4] = {kBuiltinBlock[0], kBuiltinBlock[1], kBuiltinBlock[2], 0};
    std::memcpy(&block.low, octets, 4);
    octets[3] = 255;
    std::memcpy(&block.high, octets, 4);
    return ax_ip_in_range(ip_string_to_number(ip), &block);
}

// ---------------------------------------------------------------------------------------
// Reading.

bool file_contains_ip_range_match(const char* name, const char* ip, const char* dir) {
    if (!__sane_ip(ip)) return false;
    const uint32_t number = to_number(ip);
    range_file rf;
    if (!__open_range_file(dir, name, false, false, rf) || rf.header.count == 0) return false;
    bool match = false;
    bool corrupt = false;
    const bool read = walk_records(rf, [&](uint32_t, const ipr_record& rec) noexcept {
        if (!ax_valid_ip_range(&rec.range)) {
            corrupt = true;
            return false;
        }
        match = ax_ip_in_range(number, &rec.range);
        return !match;
    });
    if (!read) {
        OW_ERROR("file %s is corrupt", rf.path.get());
        return false;
    }
    if (corrupt) {
        OW_ERROR("file %s has an invalid range - treating as corrupt", rf.path.get());
        return false;
    }
    return match;
}

bool ipr_file_contains_range(const char* path, const char* low, const char* high,
                             uint32_t* offset) {
    if (path == nullptr || *path == '\0' || low == nullptr || *low == '\0' || high == nullptr ||
        *high == '\0') {
        OW_DEBUG("Invalid parameter");
        return false;
    }
    if (!__sane_ip(low) || !__sane_ip(high) || !ow_file_exists_ex(path, OW_FILE_REGULAR))
        return false;
    range_file rf;
    rf.fd = ow_open_ex(path, false, O_RDONLY, 0);
    if (rf.fd == -1) return false;
    struct stat st {};
    if (::fstat(rf.fd, &st) != 0 || st.st_size == 0) return false;
    if (st.st_size < static_cast<off_t>(kHeaderSize)) {
        OW_ERROR("file %s is corrupt", path);
        return false;
    }
    if (read_at(rf.fd, &rf.header, kHeaderSize, 0) != static_cast<ssize_t>(kHeaderSize) ||
        !ipr_valid_file_header(&rf.header))
        return false;
    const ipr_range wanted{to_number(low), to_number(high)};
    if (!ax_ip_ge(wanted.high, wanted.low, 2)) {
        OW_ERROR("Invalid arguments for low and high range");
        return false;
    }
    const int64_t index = find_range(rf, wanted);
    if (index < 0) return false;
    if (offset != nullptr)
        *offset =
            static_cast<uint32_t>(kHeaderSize + static_cast<std::size_t>(index) * rf.record_size());
    return true;
}

void ipr_list_file(const char* dir, const char* name) {
    range_file rf;
    if (!__open_range_file(dir, name, false, false, rf)) return;
    const bool with_comments = rf.header.version == IPR_VERSION_CURRENT;
    walk_records(rf, [&](uint32_t, const ipr_record& rec) noexcept {
        ow::unique_cstr low(ip_number_to_string(static_cast<int32_t>(rec.range.low)));
        ow::unique_cstr high(ip_number_to_string(static_cast<int32_t>(rec.range.high)));
        if (!low || !high) return false;
        std::printf("%s - %s\n", low.get(), high.get());
        if (with_comments && rec.comment[0] != '\0') std::printf("\t%s\n", rec.comment);
        return true;
    });
    std::fflush(stdout);
}

// ---------------------------------------------------------------------------------------
// Writing.

// Opens dir/name under its write lock for an edit; only the current format is edited.
static bool open_for_edit(const char* dir, const char* name, bool create, range_file& file,
                          const char** message) {
    if (!__open_range_file(dir, name, true, create, file)) {
        set_message(message, kOpenFailed);
        return false;
    }
    if (file.header.version != IPR_VERSION_CURRENT) {
        set_message(message, kLegacy);
        return false;
    }
    return true;
}

bool ipr_add_range_to_file(const char* dir, const char* name, const char* low, const char* high,
                           const char* comment, const char** message) {
    if (!__sane_ip(low) || !__sane_ip(high) ||
        (comment != nullptr && std::strlen(comment) > kMaxCommentLen)) {
        set_message(message, kInvalidArgs);
        return false;
    }
    range_file old;
    if (!open_for_edit(dir, name, true, old, message)) return false;
    ipr_record added{};
    added.range = ipr_range{to_number(low), to_number(high)};
    if (!ax_valid_ip_range(&added.range)) {
        set_message(message, kInvalidRange);
        return false;
    }
    if (comment != nullptr) std::memcpy(added.comment, comment, std::strlen(comment));

    const int64_t found = find_range(old, added.range);
    if (found == -2) {
        OW_ERROR("file %s is corrupt", old.path.get());
        set_message(message, kReadFailed);
        return false;
    }
    if (found >= 0 && comment == nullptr) {
        set_message(message, kExists);
        return false;
    }
    range_file fresh;
    if (const char* failed = open_new_file(old, fresh); failed != nullptr) {
        set_message(message, failed);
        return false;
    }
    record_writer out(fresh.fd);
    const bool read = walk_records(old, [&](uint32_t i, const ipr_record& rec) noexcept {
        return out.put(static_cast<int64_t>(i) == found ? added : rec);
    });
    const char* failed = nullptr;
    if (!read) {
        OW_ERROR("file %s is corrupt", old.path.get());
        failed = kReadFailed;
    } else if ((found < 0 && !out.put(added)) || !out.flush()) {
        failed = kWriteFailed;
    } else {
        fresh.header.count = old.header.count + (found < 0 ? 1 : 0);
        failed = seal_new_file(old, fresh);
    }
    if (failed == nullptr && ::rename(fresh.path.get(), old.path.get()) != 0) {
        OW_ERROR("Failed to rename %s to %s: %s", fresh.path.get(), old.path.get(),
                 std::strerror(errno));
        failed = kWriteFailed;
    }
    if (failed != nullptr) {
        __destroy_temp_range_file(fresh);
        set_message(message, failed);
        return false;
    }
    return true;
}

bool ipr_del_range_from_file(const char* dir, const char* name, const char* low, const char* high,
                             const char** message) {
    if (!__sane_ip(low) || !__sane_ip(high)) {
        set_message(message, kInvalidArgs);
        return false;
    }
    range_file old;
    if (!open_for_edit(dir, name, false, old, message)) return false;
    const ipr_range gone{to_number(low), to_number(high)};
    const int64_t found = find_range(old, gone);
    if (found == -2) {
        OW_ERROR("file %s is corrupt", old.path.get());
        set_message(message, kReadFailed);
        return false;
    }
    if (found == -1) {
        OW_DEBUG("file %s does not contain range %s-%s - nothing to remove", old.path.get(), low,
                 high);
        return true;
    }
    range_file fresh;
    if (const char* failed = open_new_file(old, fresh); failed != nullptr) {
        set_message(message, failed);
        return false;
    }
    record_writer out(fresh.fd);
    uint32_t removed = 0;
    const bool read = walk_records(old, [&](uint32_t, const ipr_record& rec) noexcept {
        if (rec.range.low == gone.low && rec.range.high == gone.high) {
            ++removed;
            return true;
        }
        return out.put(rec);
    });
    const char* failed = nullptr;
    if (!read) {
        OW_ERROR("file %s is corrupt", old.path.get());
        failed = kReadFailed;
    } else if (!out.flush()) {
        failed = kWriteFailed;
    } else {
        fresh.header.count = old.header.count - removed;
        failed = seal_new_file(old, fresh);
    }
    if (failed == nullptr) failed = swap_with_backup(old, fresh);
    if (failed != nullptr) {
        __destroy_temp_range_file(fresh);
        set_message(message, failed);
        return false;
    }
    return true;
}

bool ipr_convert_file(const char* dir, const char* name) {
    if (dir == nullptr || *dir == '\0' || name == nullptr || *name == '\0') return false;
    ow::unique_cstr path(__gen_full_path(dir, name));
    if (!path) return false;
    struct stat st {};
    if (::stat(path.get(), &st) != 0 && errno == ENOENT) return true;  // nothing to convert
    range_file old;
    if (!__open_range_file(dir, name, true, false, old)) return false;
    if (old.header.version == IPR_VERSION_CURRENT) return true;
    range_file fresh;
    if (open_new_file(old, fresh) != nullptr) return false;
    record_writer out(fresh.fd);
    // walk_records gives each old record as a new one with an empty comment.
    const bool read =
        walk_records(old, [&](uint32_t, const ipr_record& rec) noexcept { return out.put(rec); });
    const char* failed = nullptr;
    if (!read) {
        OW_ERROR("file %s is corrupt", old.path.get());
        failed = kReadFailed;
    } else if (!out.flush()) {
        failed = kWriteFailed;
    } else {
        fresh.header.count = old.header.count;
        failed = seal_new_file(old, fresh);
    }
    if (failed == nullptr) failed = swap_with_backup(old, fresh);
    if (failed != nullptr) {
        __destroy_temp_range_file(fresh);
        return false;
    }
    return true;
}

}  // extern "C"

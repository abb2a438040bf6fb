// ardvex-file.cpp: searching and editing the engine's text list files. Lines are read in
// pieces of at most 1022 characters, the limit every program of the suite that shares these
// files reads with, so all of them agree on where a line ends. An edit never changes the list
// in place: the whole new list is written beside it and renamed over it under the list's lock,
// so a reader or a crash never meets half a list.
#include "ardvex-file.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "ardvex-file-internal.hpp"
#include "ow_file.h"
#include "ow_internal.hpp"
#include "ow_stringutils.h"
#include "tiny_rex.h"

namespace {

constexpr const char* kInvalidAdd = "Invalid arguments to add";
constexpr const char* kInvalidDel = "Invalid arguments to del";
constexpr const char* kInvalidComment = "Invalid comment to add";
constexpr const char* kOutOfMemory = "Out of memory error";
constexpr const char* kOpposite = "Entry is present in the opposite table";
constexpr const char* kOpenFailed = "Error opening file";
constexpr const char* kReadFailed = "Error reading file";
constexpr const char* kWriteFailed = "Error writing file";
constexpr const char* kExists = "Entry already exists";
constexpr const char* kNotFound = "Entry not found";

constexpr std::size_t kPiece = 1022;         // characters of one line read
constexpr std::size_t kMaxCommentLen = 255;  // what other tools of the suite display

struct opposite_pair {
    const char* list;
    const char* opposite;
};
constexpr opposite_pair kOpposites[] = {
    {"from_whitelist", "from_blacklist"},
    {"from_blacklist", "from_whitelist"},
    {"exempt_ips", "blocked_ips"},
    {"blocked_ips", "exempt_ips"},
    {"rl_whitelist.lst", "ra_whitelist.lst"},
    {"ra_whitelist.lst", "rl_whitelist.lst"},
};

// Reads a descriptor in blocks and hands out line pieces: each ends after its LF or after
// kPiece bytes, whichever comes first, and is NUL-terminated (a NUL inside a line ends the
// text the comparisons see, as it does for every C reader of the file).
class line_reader {
   public:
    enum class status { piece, end, error };
    explicit line_reader(int fd) noexcept : fd_(fd) {}

    status next() noexcept {
        len_ = 0;
        while (len_ < kPiece) {
            if (pos_ == end_) {
                if (eof_) break;
                ssize_t n = 0;
                do {
                    n = ::read(fd_, block_, sizeof block_);
                } while (n < 0 && errno == EINTR);
                if (n < 0) {
                    err_ = errno;
                    return status::error;
                }
                if (n == 0) {
                    eof_ = true;
                    break;
                }
                pos_ = 0;
                end_ = static_cast<std::size_t>(n);
            }
            const std::size_t avail = std::min(kPiece - len_, end_ - pos_);
            const auto* lf = static_cast<const char*>(std::memchr(block_ + pos_, '\n', avail));
            const std::size_t take =
                lf != nullptr ? static_cast<std::size_t>(lf - (block_ + pos_)) + 1 : avail;
            std::memcpy(piece_ + len_, block_ + pos_, take);
            len_ += take;
            pos_ += take;
            if (lf != nullptr) break;
        }
        piece_[len_] = '\0';
        return len_ == 0 ? status::end : status::piece;
    }
    char* text() noexcept { return piece_; }
    std::size_t size() const noexcept { return len_; }
    int error() const noexcept { return err_; }

   private:
    int fd_;
    char block_[4096];
    std::size_t pos_ = 0;
    std::size_t end_ = 0;
    bool eof_ = false;
    int err_ = 0;
    char piece_[kPiece + 1];
    std::size_t len_ = 0;
};

// Collects output lines and writes them in large blocks; the first failed write is logged by
// ow_write and makes every later call fail.
class line_writer {
   public:
    explicit line_writer(int fd) noexcept : fd_(fd) {}
    bool line(const char* text) noexcept { return put(text) && put("\n"); }
    bool comment(const char* text) noexcept { return put("\t") && put(text) && put("\n"); }
    bool flush() noexcept {
        if (ok_ && used_ > 0) ok_ = ow_write(fd_, buf_, used_);
        used_ = 0;
        return ok_;
    }

   private:
    bool put(std::string_view s) noexcept {
        while (ok_ && !s.empty()) {
            if (used_ == sizeof buf_ && !flush()) break;
            const std::size_t n = std::min(s.size(), sizeof buf_ - used_);
            std::memcpy(buf_ + used_, s.data(), n);
            used_ += n;
            s.remove_prefix(n);
        }
        return ok_;
    }
    int fd_;
    bool ok_ = true;
    std::size_t used_ = 0;
    char buf_[16384];
};

// Cuts a final LF and then a final CR, as the editing operations read a line.
void cut_line_end(char* line, std::size_t len) noexcept {
    if (len > 0 && line[len - 1] == '\n') line[--len] = '\0';
    if (len > 0 && line[len - 1] == '\r') line[--len] = '\0';
}

// What one pass over a list does with the lines matching the entry.
struct edit_plan {
    const char* entry;
    const char* comment;  // adding: the new comment line, or nullptr
    bool deleting;
    bool keep_entry;  // deleting: drop only the comment lines
    ow_line_compare_fn compare;
};

}  // namespace

// The opposite list's verdict for ow_add_entry: 1 free to add, 0 listed there, -1 no memory.
static int entry_in_opposite_table(const char* dir, const char* name, const char* entry,
                                   ow_line_compare_fn compare) {
    const char* opposite = nullptr;
    for (const auto& pair : kOpposites) {
        if (std::strcmp(pair.list, name) == 0) opposite = pair.opposite;
    }
    if (opposite == nullptr) return 1;
    ow::unique_cstr path(__build_path(dir, opposite));
    if (!path) return -1;
    if (compare == nullptr || !ow_file_exists_ex(path.get(), OW_FILE_REGULAR)) return 1;
    return __file_contains_line(dir, opposite, entry, compare) ? 0 : 1;
}

// Copies the list at path to "<path>.tmp" as plan says and renames the copy over the list,
// all under the list's lock. Returns nullptr or the caller's message.
static const char* edit_list(const char* list_path, const edit_plan& plan, bool create) {
    // A list linked in from elsewhere stays shared: the new list replaces the file the link
    // names, not the link.
    ow::unique_cstr real(::realpath(list_path, nullptr));
    const char* path = real ? real.get() : list_path;
    char* tmp_raw = nullptr;
    if (ow_asprintf(&tmp_raw, "%s.tmp", path) < 0) return kOutOfMemory;
    ow::unique_cstr tmp(tmp_raw);

    const int list_fd = ow::open_locked_current(path, O_RDWR | (create ? O_CREAT : 0));
    if (list_fd == -1) return kOpenFailed;
    ow::scope_guard close_list([list_fd] { ow_close(list_fd); });

    // Only a writer holding the list's lock touches its temporary file, so whatever is there
    // was left by a writer that died.
    if (::unlink(tmp.get()) != 0 && errno != ENOENT) OW_ERRNO(errno);
    const int tmp_fd = ow_open_ex(tmp.get(), true, O_RDWR | O_CREAT | O_TRUNC, 0);
    if (tmp_fd == -1) return kOpenFailed;
    bool renamed = false;
    ow::scope_guard drop_tmp([&] {
        ow_close(tmp_fd);
        if (!renamed && ::unlink(tmp.get()) != 0) OW_ERRNO(errno);
    });

    line_reader in(list_fd);
    line_writer out(tmp_fd);
    bool matched = false;
    bool after_match = false;
    for (;;) {
        const auto st = in.next();
        if (st == line_reader::status::end) break;
        if (st == line_reader::status::error) {
            OW_ERRNO(in.error());
            return kReadFailed;
        }
        char* line = in.text();
        cut_line_end(line, in.size());
        const bool was_after_match = after_match;
        after_match = false;
        if (was_after_match && line[0] == '\t') continue;  // the matched entry's old comment
        // A blank line can never be an entry, and the wildcard comparison would log a refusal.
        if (line[0] != '\0' && plan.compare(line, plan.entry) == 0) {
            matched = true;
            after_match = true;
            if (plan.deleting) {
                if (plan.keep_entry) out.line(line);
            } else {
                out.line(plan.entry);
                if (plan.comment != nullptr) out.comment(plan.comment);
            }
            continue;
        }
        out.line(line);
    }

    if (plan.deleting) {
        if (!matched) return kNotFound;
    } else if (plan.comment == nullptr) {
        if (matched) return kExists;
        out.line(plan.entry);
    } else if (!matched) {
        return kNotFound;
    }
    if (!out.flush() || !ow::prepare_replacement(list_fd, tmp_fd)) return kWriteFailed;
    if (::rename(tmp.get(), path) != 0) {
        OW_ERROR("Failed to rename %s to %s: %s", tmp.get(), path, std::strerror(errno));
        return kWriteFailed;
    }
    renamed = true;
    return nullptr;
}

namespace ow {

int open_locked_current(const char* path, int flags) noexcept {
    for (;;) {
        const int fd = ow_open_ex(path, true, flags, 0);
        if (fd == -1) return -1;
        struct stat held {};
        struct stat named {};
        if (::fstat(fd, &held) != 0) {
            OW_ERRNO(errno);
            ow_close(fd);
            return -1;
        }
        if (::stat(path, &named) == 0) {
            if (held.st_dev == named.st_dev && held.st_ino == named.st_ino) return fd;
        } else if (errno != ENOENT) {
            OW_ERRNO(errno);
            ow_close(fd);
            return -1;
        }
        ow_close(fd);  // replaced while we waited: lock the file the path names now
    }
}

bool prepare_replacement(int old_fd, int new_fd) noexcept {
    struct stat st {};
    if (::fstat(old_fd, &st) != 0) {
        OW_ERRNO(errno);
        return false;
    }
    // Owner first: changing it clears set-id bits that the mode then puts back.
    if (::geteuid() == 0 && ::fchown(new_fd, st.st_uid, st.st_gid) != 0) {
        OW_ERRNO(errno);
        return false;
    }
    if (::fchmod(new_fd, st.st_mode & 07777) != 0 || ::fdatasync(new_fd) != 0) {
        OW_ERRNO(errno);
        return false;
    }
    return true;
}

}  // namespace ow

extern "C" {

bool __file_contains_line(const char* dir, const char* name, const char* entry,
                          ow_line_compare_fn compare) {
    if (dir == nullptr || name == nullptr || *name == '\0' || entry == nullptr || *entry == '\0' ||
        compare == nullptr) {
        OW_EINVAL();
        return false;
    }
    char* raw = nullptr;
    const std::size_t dir_len = std::strlen(dir);
    if (!ow_strcat(&raw, dir) ||
        ((dir_len == 0 || dir[dir_len - 1] != '/') && !ow_strcat(&raw, "/")) ||
        !ow_strcat(&raw, name)) {
        std::free(raw);
        return false;  // logged by ow_strcat
    }
    ow::unique_cstr path(raw);
    if (!ow_file_exists_ex(path.get(), OW_FILE_REGULAR)) return false;
    const int fd = ow_open_ex(path.get(), false, O_RDONLY, 0);
    if (fd == -1) return false;
    ow::scope_guard close_fd([fd] { ow_close(fd); });

    line_reader in(fd);
    int line_no = 0;
    for (;;) {
        const auto st = in.next();
        if (st == line_reader::status::end) return false;
        if (st == line_reader::status::error) {
            OW_ERRNO(in.error());
            return false;
        }
        ++line_no;
        char* line = in.text();
        std::size_t len = in.size();
        if (line[len - 1] == '\n') line[--len] = '\0';
        while (std::isspace(static_cast<unsigned char>(*line)) != 0) ++line;
        if (*line == '\0' || *line == '#') continue;
        if (compare(line, entry) == 0) {
            OW_DEBUG("%s(%s, line %d): hit [%s][%s]", __func__, path.get(), line_no, entry, line);
            return true;
        }
    }
}

int __regexmatch(const char* regex, const char* text) {
    if (regex == nullptr || text == nullptr) {
        OW_EINVAL();
        return 1;
    }
    TRex* exp = trex_compile_ex(regex, 0);
    if (exp == nullptr) return 1;
    const bool hit = trex_match(exp, text);
    trex_free(exp);
    if (!hit) return 1;
    OW_DEBUG("got a match [%s] => [%s]", text, regex);
    return 0;
}

int __wildcardmatch(const char* pattern, const char* text) {
    if (pattern == nullptr || *pattern == '\0' || text == nullptr || *text == '\0') {
        OW_EINVAL();
        return 1;
    }
    if (std::strchr(pattern, '*') == nullptr) return ::strcasecmp(pattern, text);
    const std::size_t len = std::strlen(pattern);
    std::size_t extra = 3;  // "^", "$" and the NUL
    for (const char* p = pattern; *p != '\0'; ++p) {
        if (*p == '*' || *p == '.') ++extra;
    }
    auto* expr = static_cast<char*>(ow::mem_malloc(len + extra));
    if (expr == nullptr) {
        OW_ENOMEM();
        return 1;
    }
    ow::unique_cstr owner(expr);
    char* out = expr;
    *out++ = '^';
    for (const char* p = pattern; *p != '\0'; ++p) {
        // A run of '*' matches what one does; as ".*.*..." it would make the matcher try
        // every way of splitting the text between them.
        if (*p == '*' && p != pattern && p[-1] == '*') continue;
        if (*p == '*' || *p == '.') *out++ = *p == '*' ? '.' : '\\';
        *out++ = *p;
    }
    *out++ = '$';
    *out = '\0';
    return __regexmatch(expr, text);
}

bool ow_iterate_file(const char* dir, const char* name, ow_line_callback_fn callback) {
    if (dir == nullptr || *dir == '\0' || name == nullptr || *name == '\0' || callback == nullptr) {
        OW_EINVAL();
        return false;
    }
    ow::unique_cstr path(__build_path(dir, name));
    if (!path || !ow_file_exists_ex(path.get(), OW_FILE_REGULAR)) return false;
    const int fd = ow_open_ex(path.get(), false, O_RDONLY, 0);
    if (fd == -1) return false;
    ow::scope_guard close_fd([fd] { ow_close(fd); });
    line_reader in(fd);
    for (;;) {
        const auto st = in.next();
        if (st == line_reader::status::end) return true;
        if (st == line_reader::status::error) {
            OW_ERRNO(in.error());
            return false;
        }
        char* line = in.text();
        std::size_t len = in.size();
        while (len > 0 && (line[len - 1] == '\n' || line[len - 1] == '\r')) line[--len] = '\0';
        callback(line);
    }
}

const char* ow_add_entry(const char* dir, const char* name, const char* entry, const char* comment,
                         ow_line_compare_fn compare) {
    if (dir == nullptr || *dir == '\0' || name == nullptr || *name == '\0' || entry == nullptr ||
        *entry == '\0' || compare == nullptr) {
        OW_EINVAL();
        return kInvalidAdd;
    }
    if (comment != nullptr && (*comment == '\0' || std::strlen(comment) > kMaxCommentLen))
        return kInvalidComment;
    const int opposite = entry_in_opposite_table(dir, name, entry, compare);
    if (opposite < 0) return kOutOfMemory;
    if (opposite == 0) return kOpposite;
    ow::unique_cstr path(__build_path(dir, name));
    if (!path) return kOutOfMemory;
    return edit_list(path.get(), edit_plan{entry, comment, false, false, compare}, true);
}

const char* ow_del_entry(const char* dir, const char* name, const char* entry, bool keep_entry,
                         ow_line_compare_fn compare) {
    if (dir == nullptr || *dir == '\0' || name == nullptr || *name == '\0' || entry == nullptr ||
        *entry == '\0' || compare == nullptr) {
        OW_EINVAL();
        return kInvalidDel;
    }
    ow::unique_cstr path(__build_path(dir, name));
    if (!path) return kOutOfMemory;
    struct stat st {};
    if (::stat(path.get(), &st) != 0 && errno == ENOENT) return nullptr;  // nothing to remove
    return edit_list(path.get(), edit_plan{entry, nullptr, true, keep_entry, compare}, false);
}

ow_list* ow_file_to_list(const char* dir, const char* name) {
    if (dir == nullptr || *dir == '\0' || name == nullptr || *name == '\0') {
        OW_EINVAL();
        return nullptr;
    }
    ow::unique_cstr path(__build_path(dir, name));
    if (!path) {
        OW_ERROR("%s attempting to assemble name %s %s", std::strerror(ENOMEM), dir, name);
        return nullptr;
    }
    if (!ow_file_exists_ex(path.get(), OW_FILE_REGULAR)) {
        OW_DEBUG("file %s does not exist. Aborting", path.get());
        return nullptr;
    }
    OW_DEBUG("loading contents of file %s", path.get());
    uint64_t size = 0;
    ow::unique_cstr data(ow_file_get_contents_ex(path.get(), &size));
    if (!data) return nullptr;
    OW_DEBUG("loaded [%s]", data.get());
    if (size == 0) return nullptr;
    ow_list* head = nullptr;
    if (!ow_list_from_string_by_char(&head, data.get(), size, '\n')) {
        ow_destroy_list(&head, std::free);
        return nullptr;
    }
    OW_DEBUG("list loaded");
    return head;
}

long ow_file_to_int(const char* dir, const char* name) {
    if (dir == nullptr || *dir == '\0' || name == nullptr || *name == '\0') return 0;
    ow::unique_cstr path(__build_path(dir, name));
    if (!path) {
        OW_ENOMEM();
        return 0;
    }
    if (!ow_file_exists_ex(path.get(), OW_FILE_REGULAR)) {
        OW_DEBUG("file %s does not exist", path.get());
        return 0;
    }
    ow::unique_cstr data(ow_file_get_contents_ex(path.get(), nullptr));
    if (!data) {
        OW_DEBUG("failed to retrieve contents of file %s", path.get());
        return 0;
    }
    return std::strtol(data.get(), nullptr, 10);
}

}  // extern "C"

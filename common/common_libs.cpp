// common_libs.cpp: running a program with a ready argument vector, and the form POST
// through the transfer tool.
//
// The transfer tool is started with execv, never through a shell, so the post data reaches
// it byte for byte whatever it holds. The response files are created here, exclusively and
// without following links, before the tool writes into them.
#include "common_libs.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <string_view>

#include "ow_child.hpp"
#include "ow_file.h"
#include "ow_internal.hpp"

namespace {

// -----------------------------------------------------------------------------------------
// Children

// What a child's standard output left for execute_program: the first bytes, up to the
// caller's size, in a buffer of our own so the caller's stays untouched unless the program
// succeeds.
struct captured_output {
    ow::unique_cptr<char> data;
    std::size_t length = 0;
    std::size_t capacity = 0;
    int error = 0;  // errno of a failed read or allocation, 0 when none
};

// Keeps what still fits below limit. False (error set) when the buffer cannot grow.
bool keep_bytes(captured_output* out, const char* bytes, std::size_t n,
                std::size_t limit) noexcept {
    n = std::min(n, limit - out->length);
    if (n == 0) return true;
    if (out->length + n > out->capacity) {
        std::size_t grown = std::max<std::size_t>(out->capacity * 2, 4096);
        grown = std::min(std::max(grown, out->length + n), limit);
        auto* block = static_cast<char*>(ow::mem_realloc(out->data.get(), grown));
        if (block == nullptr) {
            out->error = ENOMEM;
            return false;
        }
        (void)out->data.release();
        out->data.reset(block);
        out->capacity = grown;
    }
    std::memcpy(out->data.get() + out->length, bytes, n);
    out->length += n;
    return true;
}

// Bytes waiting in the pipe, 0 when that cannot be told.
std::size_t bytes_pending(int fd) noexcept {
    int avail = 0;
    if (::ioctl(fd, FIONREAD, &avail) != 0 || avail < 0) return 0;
    return static_cast<std::size_t>(avail);
}

// Reads the child's output while it runs, so it can never block on a full pipe. Once the
// child has ended, only what is already in the pipe is taken: a grandchild that inherited
// the pipe must not keep us here.
void collect_output(int fd, pid_t pid, std::size_t limit, captured_output* out) noexcept {
    constexpr std::size_t kRunning = SIZE_MAX;
    char chunk[16384];
    std::size_t left = kRunning;  // once the child has ended: bytes still to take
    for (;;) {
        if (left == kRunning) {
            pollfd p{fd, POLLIN, 0};
            const int ready = ::poll(&p, 1, 100);
            if (ready < 0 && errno != EINTR) {
                out->error = errno;
                return;
            }
            if (ow::child_ended(pid)) {
                left = bytes_pending(fd);
            } else if (ready <= 0) {
                continue;
            }
        }
        if (left == 0) return;
        const ssize_t got = ::read(fd, chunk, std::min(left, sizeof chunk));
        if (got < 0) {
            if (errno == EINTR) continue;
            out->error = errno;
            return;
        }
        if (got == 0) return;
        if (out->error == 0) keep_bytes(out, chunk, static_cast<std::size_t>(got), limit);
        if (left != kRunning) left -= std::min(left, static_cast<std::size_t>(got));
    }
}

// -----------------------------------------------------------------------------------------
// The transfer

constexpr int kToolNotStarted = -1;
// How much of the tool's standard error is kept for the log line: its message is one line.
constexpr std::size_t kDiagnosticLimit = 512;

enum class prepare_result { ok, not_regular, stale_not_removed, create_failed };

// Makes an empty file at name that only this process can have created: a stale regular
// file of ours is removed first; a link or anything else standing there is left alone and
// refused, so the tool can never be made to write through it.
// With keep set, the open descriptor is stored there; otherwise it is closed.
prepare_result prepare_output_file(const char* name, int* err, int* keep = nullptr) noexcept {
    struct stat st {};
    if (::lstat(name, &st) == 0) {
        if (!S_ISREG(st.st_mode)) {
            *err = EEXIST;
            return prepare_result::not_regular;
        }
        if (::unlink(name) != 0 && errno != ENOENT) {
            *err = errno;
            return prepare_result::stale_not_removed;
        }
    } else if (errno != ENOENT) {
        *err = errno;
        return prepare_result::create_failed;
    }
    const int fd = ::open(name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        *err = errno;
        return prepare_result::create_failed;
    }
    if (keep != nullptr) {
        *keep = fd;
    } else {
        ::close(fd);
    }
    return prepare_result::ok;
}

// Runs the tool with its standard error on a pipe and returns the exit code a shell would
// have reported: its own code, 128 + the signal that ended it, 127 or 126 when it could not
// be executed, 255 when it could not be started. What it wrote on standard error, or why it
// could not be executed, goes to *diagnostic.
int run_tool(const char* program, char* const* argv, captured_output* diagnostic) noexcept {
    int err_pipe[2];
    if (!ow::make_pipe(err_pipe)) return 255;
    const int stdio[3] = {-1, -1, err_pipe[1]};
    const ow::child tool = ow::start_child(program, argv, stdio);
    ::close(err_pipe[1]);
    if (tool.pid < 0) {
        ::close(err_pipe[0]);
        return 255;
    }
    collect_output(err_pipe[0], tool.pid, kDiagnosticLimit, diagnostic);
    ::close(err_pipe[0]);
    int status = 0;
    if (ow::wait_child(tool.pid, &status) != tool.pid) return 255;
    if (tool.failed != ow::child_failure::none) {
        const char* why = std::strerror(tool.error);
        diagnostic->length = 0;
        keep_bytes(diagnostic, why, std::strlen(why), kDiagnosticLimit);
        return tool.failed == ow::child_failure::exec && tool.error == ENOENT ? 127 : 126;
    }
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return ow::exit_code(status);
}

// atoi: leading white space, an optional sign, the digits up to the first non-digit; 0 when
// there are none. Saturates instead of overflowing.
int32_t parse_status(std::string_view s) noexcept {
    std::size_t i = 0;
    while (i < s.size() && (s[i] == ' ' || (s[i] >= '\t' && s[i] <= '\r'))) ++i;
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
    int64_t value = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        value = std::min<int64_t>(value * 10 + (s[i] - '0'), int64_t{INT32_MAX} + 1);
    }
    if (negative) return static_cast<int32_t>(-value);
    return static_cast<int32_t>(std::min<int64_t>(value, INT32_MAX));
}

// The status of the last header block that starts with "HTTP/1.". Blocks end at an empty
// line ("\r\n\r\n"); a header text that separates them otherwise is read up to its first.
int32_t last_http_status(std::string_view headers) noexcept {
    constexpr std::string_view kStatusLine = "HTTP/1.";
    constexpr std::string_view kBlockEnd = "\r\n\r\n";
    int32_t status = 0;
    std::size_t pos = 0;
    while (pos < headers.size()) {
        const std::string_view block = headers.substr(pos);
        if (block.substr(0, kStatusLine.size()) == kStatusLine) {
            const std::size_t space = block.find(' ');
            status = space == std::string_view::npos ? 0 : parse_status(block.substr(space + 1));
        }
        const std::size_t end = block.find(kBlockEnd);
        if (end == std::string_view::npos) break;
        pos += end + kBlockEnd.size();
    }
    return status;
}

// The words of an options string: runs of non-blank bytes.
template <typename F>
void for_each_word(std::string_view text, F&& f) noexcept {
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
        const std::size_t start = i;
        while (i < text.size() && text[i] != ' ' && text[i] != '\t') ++i;
        if (i > start) f(text.substr(start, i - start));
    }
}

}  // namespace

extern "C" {

bool execute_program(const char* path, char* const* argv, char* output, size_t size,
                     int32_t* exit_code) {
    if (path == nullptr || *path == '\0' || argv == nullptr) {
        OW_EINVAL();
        return false;
    }
    int fds[2] = {-1, -1};
    if (output != nullptr && !ow::make_pipe(fds)) {
        const int err = errno;
        OW_ERROR("Failed to create pipe: %s", std::strerror(err));
        return false;
    }
    const int stdio[3] = {-1, fds[1], -1};
    const ow::child child = ow::start_child(path, argv, stdio);
    if (child.pid < 0) {
        const int err = errno;
        OW_ERROR("Failed to fork: %s", std::strerror(err));
        if (output != nullptr) {
            ::close(fds[0]);
            ::close(fds[1]);
        }
        return false;
    }
    // The child ends with 1 after these, as if the program had.
    if (child.failed == ow::child_failure::redirect) {
        OW_ERROR("Failed to dup pipe: %s", std::strerror(child.error));
    } else if (child.failed == ow::child_failure::exec) {
        OW_ERROR("Failed to execute program: %s", std::strerror(child.error));
    }

    captured_output captured;
    int status = 0;
    if (output != nullptr) {
        if (::close(fds[1]) != 0) {
            const int err = errno;
            OW_ERROR("Failed to close write pipe: %s", std::strerror(err));
            ::close(fds[0]);
            ow::wait_child(child.pid, &status);  // never leave a zombie behind
            return false;
        }
        collect_output(fds[0], child.pid, size, &captured);
        // Closing before the wait ends a grandchild's hold on the pipe the way a closed
        // pipe does; the child itself has ended or is about to.
        ::close(fds[0]);
    }
    if (ow::wait_child(child.pid, &status) != child.pid) {
        const int err = errno;
        OW_ERROR("Failed to wait for program: %s", std::strerror(err));
        return false;
    }
    if (!WIFEXITED(status)) {
        OW_ERROR("The program did not terminate normally");
        return false;
    }
    const int32_t code = ow::exit_code(status);
    if (output != nullptr && code == 0) {
        if (captured.error == ENOMEM) {
            OW_OOM();
            return false;
        }
        if (captured.error != 0) {
            OW_ERROR("Failed to read from pipe: %s", std::strerror(captured.error));
            return false;
        }
        if (captured.length > 0) std::memcpy(output, captured.data.get(), captured.length);
    }
    if (exit_code != nullptr) *exit_code = code;
    return true;
}

int32_t system_exit_code(const char* command) {
    if (command == nullptr) return -1;
    const int status = std::system(command);
    return ow::exit_code(status);
}

bool fetch_remote_url(const char* program, const char* postdata, const char* options,
                      const char* url, char** response, int32_t* status) {
    if (program == nullptr || *program == '\0' || postdata == nullptr || url == nullptr ||
        *url == '\0' || response == nullptr || status == nullptr) {
        OW_EINVAL();
        return false;
    }
    // The post data goes to the tool in a file of our own, never on its command line, where
    // every local user could read it.
    ow::unique_cstr post_file(ow_tmp_file("axp"));
    ow::unique_cstr body_file(ow_tmp_file("axd"));
    ow::unique_cstr header_file(ow_tmp_file("axh"));
    if (!post_file || !body_file || !header_file) return false;

    // The tool's argument vector, in the order of the command line it replaces: program,
    // options..., --data-binary, @post file, -o, body file, -D, header file, url
    // (--data-binary sends the file's bytes unchanged, as -d with the data itself did). All
    // strings live in one block.
    const std::string_view option_text = options != nullptr ? options : "";
    const std::string_view fixed[] = {"--data-binary",   "@", "-o", body_file.get(), "-D",
                                      header_file.get(), url};
    std::size_t words = 1 + std::size(fixed);
    std::size_t bytes = std::strlen(program) + std::strlen(post_file.get()) + 1;
    bool overflow = false;
    for_each_word(option_text, [&](std::string_view w) {
        ++words;
        overflow |= ow::add_overflows(bytes, w.size() + 1, &bytes);
    });
    for (std::string_view f : fixed) overflow |= ow::add_overflows(bytes, f.size() + 1, &bytes);
    if (overflow) {
        OW_OOM();
        return false;
    }
    ow::unique_cptr<char*> argv(static_cast<char**>(ow::mem_calloc(words + 1, sizeof(char*))));
    ow::unique_cstr block(static_cast<char*>(ow::mem_calloc(bytes, 1)));
    if (!argv || !block) {
        OW_OOM();
        return false;
    }
    std::size_t next_word = 0;
    char* cursor = block.get();
    auto put = [&](std::string_view w, std::string_view tail = {}) noexcept {
        if (!w.empty()) std::memcpy(cursor, w.data(), w.size());
        if (!tail.empty()) std::memcpy(cursor + w.size(), tail.data(), tail.size());
        argv.get()[next_word++] = cursor;
        cursor += w.size() + tail.size() + 1;  // the block is zeroed: the NUL is there
    };
    put(program);
    for_each_word(option_text, [&](std::string_view w) { put(w); });
    for (std::string_view f : fixed) put(f, f == "@" ? post_file.get() : std::string_view());

    // Made here, exclusively: the post file with the data, then the tool's two output files.
    const char* files[] = {post_file.get(), body_file.get(), header_file.get()};
    bool created[3] = {};
    bool files_ready = true;
    for (int i = 0; i < 3 && files_ready; ++i) {
        int err = 0;
        int fd = -1;
        switch (prepare_output_file(files[i], &err, i == 0 ? &fd : nullptr)) {
            case prepare_result::ok:
                created[i] = true;
                if (fd >= 0) {
                    const std::size_t length = std::strlen(postdata);
                    files_ready = length == 0 || ow_write(fd, postdata, length);
                    files_ready = ::close(fd) == 0 && files_ready;
                }
                break;
            case prepare_result::not_regular:
                OW_ERROR("refusing to let [%s] be written: it exists and is not a regular file",
                         files[i]);
                files_ready = false;
                break;
            case prepare_result::stale_not_removed:
                OW_ERROR("Failed to remove stale [%s]: %s", files[i], std::strerror(err));
                files_ready = false;
                break;
            case prepare_result::create_failed:
                OW_ERROR("Failed to create [%s]: %s", files[i], std::strerror(err));
                files_ready = false;
                break;
        }
    }

    char* new_response = nullptr;
    int32_t new_status = 0;
    bool ok = false;
    int exit_code = kToolNotStarted;
    if (files_ready) {
        captured_output diagnostic;
        exit_code = run_tool(program, argv.get(), &diagnostic);
        if (exit_code != 0) {
            // The tool's own reason (connection refused, certificate refused, time-out...),
            // on the one line it prints.
            std::string_view text(diagnostic.data.get(), diagnostic.length);
            while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
                text.remove_suffix(1);
            }
            OW_ERROR("transfer tool exited with code [%d]: %.*s", exit_code,
                     static_cast<int>(text.size()), text.data());
        } else if (ow_file_exists_ex(header_file.get(), OW_FILE_REGULAR)) {
            uint64_t header_size = 0;
            ow::unique_cstr headers(ow_file_get_contents_ex(header_file.get(), &header_size));
            // The file was made empty beforehand, so an empty one means the tool wrote no
            // headers, as if it had left no file.
            if (headers && header_size > 0) {
                if (ow_file_exists_ex(body_file.get(), OW_FILE_REGULAR)) {
                    new_response = ow_file_get_contents_ex(body_file.get(), nullptr);
                }
                new_status = last_http_status(
                    std::string_view(headers.get(), static_cast<std::size_t>(header_size)));
                ok = true;
            }
        }
    }
    if (!ok) {
        char text[96];
        std::snprintf(text, sizeof text, "Fatal error executing remote url fetch. Exit code: [%d]",
                      exit_code);
        new_response = ow::dup_cstr(text);
        if (new_response == nullptr) OW_OOM();
    }
    std::free(*response);
    *response = new_response;
    *status = new_status;
    for (int i = 0; i < 3; ++i) {
        if (created[i]) ::unlink(files[i]);
    }
    return ok;
}

}  // extern "C"

// =========================================================================================
// Mail header folding and the suite tool launchers.
//
// Folding never looks inside a word: the value is cut only before white space, so whatever
// bytes a word holds (control characters, bytes of 0x80 and above) travel whole and in order.

#include <cstdarg>

#include "ardvex_config.h"

namespace {

constexpr std::size_t kFoldWidth = 76;
constexpr std::size_t kUnfoldedMax = 75;

inline bool fold_space(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// printf into a new zeroed buffer, measured first. On failure returns nullptr with *err the
// error number of a failed measure, or 0 when the allocation failed; the caller logs.
char* format_header(const char* format, va_list args, int* err) noexcept {
    va_list measure;
    va_copy(measure, args);
    errno = 0;
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length < 0) {
        *err = errno != 0 ? errno : EOVERFLOW;
        return nullptr;
    }
    auto* text = static_cast<char*>(ow::mem_calloc(static_cast<std::size_t>(length) + 1, 1));
    if (text == nullptr) {
        *err = 0;
        return nullptr;
    }
    std::vsnprintf(text, static_cast<std::size_t>(length) + 1, format, args);
    return text;
}

// Where the piece starting at `from` (an index into value) ends: just before the last white
// space that precedes the next word after the piece's own word.
std::size_t piece_end(std::string_view value, std::size_t from) noexcept {
    std::size_t i = from;
    if (i < value.size() && fold_space(value[i])) ++i;  // the piece's own leading space
    while (i < value.size() && fold_space(value[i])) ++i;
    while (i < value.size() && !fold_space(value[i])) ++i;  // its word
    for (std::size_t j = i; j < value.size(); ++j) {
        if (!fold_space(value[j])) return j - 1;  // the next word begins at j
    }
    return value.size();
}

// Why a header cannot be folded; the public function logs it, so the line carries its name.
enum class fold_error { none, no_colon, long_name, no_memory };

// Folds header (a whole formatted header); nullptr and *error on failure.
char* fold_text(std::string_view header, std::size_t* value_at, fold_error* error) noexcept {
    const std::size_t colon = header.find(':');
    if (colon == std::string_view::npos) {
        *error = fold_error::no_colon;
        return nullptr;
    }
    *value_at = colon + 1;
    *error = fold_error::no_memory;
    if (header.size() <= kUnfoldedMax) return ow::dup_cstr(header);
    if (colon + 1 > kFoldWidth) {
        *error = fold_error::long_name;
        return nullptr;
    }
    const std::string_view value = header.substr(colon + 1);
    bool has_word = false;
    for (char c : value) has_word = has_word || !fold_space(c);
    // Every break adds two bytes and comes before a piece of at least one byte.
    std::size_t size = 0;
    if (ow::mul_overflows(header.size(), 3, &size)) return nullptr;
    ow::unique_cstr out(static_cast<char*>(ow::mem_calloc(size + 1, 1)));
    if (!out) return nullptr;
    char* at = out.get();
    std::memcpy(at, header.data(), colon + 1);
    at += colon + 1;
    if (has_word) {
        auto room = static_cast<int64_t>(kFoldWidth - (colon + 1));
        // The first piece holds the first word with the white space around it, up to the last
        // white space before the second word.
        std::size_t from = 0;
        std::size_t end = piece_end(value, 0);
        bool first = true;
        while (from < value.size() || first) {
            const std::string_view piece = value.substr(from, end - from);
            const auto length = static_cast<int64_t>(piece.size());
            const bool fits = room > 0 && length <= room;
            const bool breaks =
                !first && !fits && (room <= 0 || (!piece.empty() && fold_space(piece[0])));
            if (breaks) {
                *at++ = '\r';
                *at++ = '\n';
                room = static_cast<int64_t>(kFoldWidth);
            }
            std::memcpy(at, piece.data(), piece.size());
            at += piece.size();
            room -= length;
            first = false;
            from = end;
            if (from >= value.size()) break;
            end = piece_end(value, from);
        }
    }
    return out.release();
}

int32_t run_suite_tool(const char* tool, const char* command, const char* missing) noexcept {
    if (!ow_file_executable(tool)) {
        std::fputs(missing, stdout);
        std::fflush(stdout);
        return 1;
    }
    if (!ow_file_executable(ARDVEX_SECURE_WRAPPER)) {
        std::fputs("Missing ardvex-secure utility", stdout);
        std::fflush(stdout);
        return 1;
    }
    std::fflush(nullptr);  // what was buffered comes before what the tool writes
    return ::system(command);
}

}  // namespace

// The tool's path, and the fixed command that runs it through the wrapper.
#define OW_SUITE_TOOL(name) \
    ARDVEX_SUITE_BIN_DIR "/" name, ARDVEX_SECURE_WRAPPER " \"" ARDVEX_SUITE_BIN_DIR "/" name "\""

extern "C" {

char* fold_header(char** value, const char* format, ...) {
    if (format == nullptr) return nullptr;
    va_list args;
    va_start(args, format);
    int err = 0;
    ow::unique_cstr text(format_header(format, args, &err));
    va_end(args);
    if (!text) {
        if (err != 0) {
            OW_ERROR("failed to calculate length of buffer: %s", std::strerror(err));
        } else {
            OW_ENOMEM();
        }
        return nullptr;
    }
    std::size_t value_at = 0;
    fold_error error = fold_error::none;
    char* folded = fold_text(text.get(), &value_at, &error);
    if (folded == nullptr) {
        if (error == fold_error::no_colon) {
            OW_ERROR("Invalid header, no colon found");
        } else if (error == fold_error::long_name) {
            OW_ERROR("Invalid header, header name exceeds 76 characters");
        } else {
            OW_ENOMEM();
        }
        return nullptr;
    }
    if (value != nullptr) *value = folded + value_at;
    return folded;
}

int32_t fprintf_header(FILE* stream, const char* format, ...) {
    if (stream == nullptr || format == nullptr) return -1;
    va_list args;
    va_start(args, format);
    int err = 0;
    ow::unique_cstr text(format_header(format, args, &err));
    va_end(args);
    if (!text) {
        if (err != 0) {
            OW_ERROR("failed to calculate length of buffer: %s", std::strerror(err));
        } else {
            OW_ENOMEM();
        }
        return -1;
    }
    // Folded as formatted: "%s" keeps any % in the text from being read as a format again.
    ow::unique_cstr folded(fold_header(nullptr, "%s", text.get()));
    if (!folded) return -1;
    const std::size_t length = std::strlen(folded.get());
    if (length > INT32_MAX || std::fwrite(folded.get(), 1, length, stream) != length) return -1;
    return static_cast<int32_t>(length);
}

int32_t run_init_plugin(void) {
    return run_suite_tool(
        OW_SUITE_TOOL("init_plugin"),
        "Missing initialization tool. Please try re-installing the Ardvex package to repair");
}

int32_t run_activate_plugin(void) {
    return run_suite_tool(
        OW_SUITE_TOOL("activate_plugin"),
        "Missing activation tool. Please try re-installing the Ardvex package to repair");
}

int32_t run_deactivate_plugin(void) {
    return run_suite_tool(
        OW_SUITE_TOOL("deactivate_plugin"),
        "Missing deactivation tool. Please try re-installing the Ardvex package to repair");
}

int32_t run_deinit_plugin(void) {
    return run_suite_tool(
        OW_SUITE_TOOL("deinit_plugin"),
        "Missing de-init tool. Please try re-installing the Ardvex package to repair");
}

}  // extern "C"

// ow_pipe.cpp: runs a program on two pipes without a shell and returns its exit code.
//
// A child that writes more than a pipe holds blocks until someone reads, and waiting for it
// before reading would then never end. So ow_pipe always has a consumer on the output while
// the child may still write: the caller's reader, a drain that discards output nobody asked
// for, or, while the caller's writer is still feeding the child, a relay thread that keeps
// the output in order in an anonymous file and hands it to the reader afterwards.
#include "ow_pipe.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <string_view>

#include "ow_child.hpp"
#include "ow_internal.hpp"
#include "ow_nulltermlist.h"
#include "ow_stringutils.h"

static_assert(sizeof(ow_pipe_handle) == 20, "ow_pipe_handle is five 32-bit fields");
static_assert(offsetof(ow_pipe_handle, out_read) == 0);
static_assert(offsetof(ow_pipe_handle, out_write) == 4);
static_assert(offsetof(ow_pipe_handle, in_read) == 8);
static_assert(offsetof(ow_pipe_handle, in_write) == 12);
static_assert(offsetof(ow_pipe_handle, child) == 16);

namespace {

// -----------------------------------------------------------------------------------------
// Descriptors

void close_fd(int32_t& fd) noexcept {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

// Reads and discards fd until end of file, or until the child has ended (a grandchild that
// inherited the pipe may keep it open long after).
void drain_output(int fd, pid_t pid) noexcept {
    char chunk[16384];
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, 100);
        if (ready < 0 && errno != EINTR) return;
        if (ready <= 0) {
            if (ow::child_ended(pid)) return;
            continue;
        }
        const ssize_t got = ::read(fd, chunk, sizeof chunk);
        if (got == 0) return;
        if (got < 0 && errno != EINTR && errno != EAGAIN) return;
        if (ow::child_ended(pid)) return;
    }
}

// -----------------------------------------------------------------------------------------
// Output relay, used while the caller's writer runs.
//
// It runs on its own thread with every signal blocked, touches only its own descriptors and
// never logs (a sink need not be thread-safe); ow_pipe reports `error` after the join.

struct output_relay {
    int source = -1;         // the child's standard output; the relay closes it
    int sink = -1;           // our end of the reader's socket pair; -1 discards the output
    int reader_end = -1;     // the end the reader gets
    int spool = -1;          // anonymous file: output the reader has not taken yet
    int wake[2] = {-1, -1};  // written once the reader has returned
    pid_t child = 0;
    bool deliver = false;  // a reader takes the output; otherwise it is discarded
    int error = 0;         // errno of a failure inside the relay, 0 when none
    pthread_t thread{};
};

// Appends len bytes to the spool at *tail.
bool spool_append(int spool, const char* data, std::size_t len, off_t* tail) noexcept {
    while (len > 0) {
        const ssize_t put = ::pwrite(spool, data, len, *tail);
        if (put < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += put;
        len -= static_cast<std::size_t>(put);
        *tail += put;
    }
    return true;
}

void* relay_main(void* arg) {
    auto* r = static_cast<output_relay*>(arg);
    char chunk[65536];
    off_t head = 0;  // spool offset of the next byte for the reader
    off_t tail = 0;  // spool offset where the next output byte goes
    for (;;) {
        if (r->source < 0 && head == tail) break;  // everything delivered
        pollfd fds[3];
        nfds_t n = 0;
        fds[n++] = {r->wake[0], POLLIN, 0};
        int source_at = -1;
        int sink_at = -1;
        if (r->source >= 0) {
            source_at = static_cast<int>(n);
            fds[n++] = {r->source, POLLIN, 0};
        }
        if (r->sink >= 0) {
            sink_at = static_cast<int>(n);
            fds[n++] = {r->sink, static_cast<short>(head != tail ? POLLOUT : 0), 0};
        }
        const int ready = ::poll(fds, n, r->sink < 0 ? 100 : -1);
        if (ready < 0) {
            if (errno == EINTR) continue;
            r->error = errno;
            break;
        }
        if (fds[0].revents != 0) break;  // the reader has returned: nobody takes more
        if (sink_at >= 0) {
            const short ev = fds[sink_at].revents;
            if ((ev & (POLLHUP | POLLERR)) != 0) break;  // the reader closed its end
            if ((ev & POLLOUT) != 0) {
                const auto want = static_cast<std::size_t>(
                    std::min<off_t>(tail - head, static_cast<off_t>(sizeof chunk)));
                const ssize_t got = ::pread(r->spool, chunk, want, head);
                if (got <= 0) {
                    if (got < 0 && errno == EINTR) continue;
                    r->error = got < 0 ? errno : EIO;
                    break;
                }
                const ssize_t sent = ::send(r->sink, chunk, static_cast<std::size_t>(got),
                                            MSG_DONTWAIT | MSG_NOSIGNAL);
                if (sent < 0) {
                    if (errno == EINTR || errno == EAGAIN) continue;
                    if (errno != EPIPE && errno != ECONNRESET) r->error = errno;
                    break;
                }
                head += sent;
                if (head == tail) {
                    // Everything handed over: start the spool afresh so it never grows
                    // beyond what the reader is behind by.
                    if (::ftruncate(r->spool, 0) != 0) {
                        r->error = errno;
                        break;
                    }
                    head = tail = 0;
                }
            }
        }
        if (source_at >= 0 && fds[source_at].revents != 0) {
            const ssize_t got = ::read(r->source, chunk, sizeof chunk);
            if (got < 0) {
                if (errno == EINTR || errno == EAGAIN) continue;
                r->error = errno;
                break;
            }
            if (got == 0) {
                close_fd(r->source);
                continue;
            }
            if (r->sink >= 0) {
                if (!spool_append(r->spool, chunk, static_cast<std::size_t>(got), &tail)) {
                    r->error = errno;
                    break;
                }
            } else if (ow::child_ended(r->child)) {
                break;
            }
        } else if (ready == 0 && r->sink < 0 && ow::child_ended(r->child)) {
            break;
        }
    }
    // Closing the source makes further writes of the child fail as with a closed pipe;
    // closing the sink gives the reader its end of file.
    close_fd(r->source);
    close_fd(r->sink);
    return nullptr;
}

void release_relay(output_relay* r) noexcept {
    close_fd(r->sink);
    close_fd(r->reader_end);
    close_fd(r->spool);
    close_fd(r->wake[0]);
    close_fd(r->wake[1]);
}

// Takes over the child's output (source) and starts the relay. With deliver set the reader
// gets r->reader_end; otherwise the output is discarded. 0, or the errno of the failure; the
// source is then still the caller's.
int start_relay(output_relay* r, int source, pid_t child, bool deliver) noexcept {
    r->child = child;
    r->deliver = deliver;
    if (::pipe2(r->wake, O_CLOEXEC) != 0) return errno;
    if (deliver) {
        int pair[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
            const int err = errno;
            release_relay(r);
            return err;
        }
        r->sink = pair[0];
        r->reader_end = pair[1];
        r->spool = ::memfd_create("ow_pipe_spool", MFD_CLOEXEC);
        if (r->spool < 0) {
            const int err = errno;
            release_relay(r);
            return err;
        }
    }
    r->source = source;
    // The thread inherits the mask: with every signal blocked there, the process's signals
    // keep going to the threads that expect them.
    sigset_t all;
    sigset_t old;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &old);
    const int err = ::pthread_create(&r->thread, nullptr, &relay_main, r);
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    if (err != 0) {
        r->source = -1;
        release_relay(r);
        return err;
    }
    return 0;
}

// Tells a delivering relay that the reader is done, waits for the thread and releases what
// it used.
void finish_relay(output_relay* r) noexcept {
    // A discarding relay is left to run to the end of the output, so the child is never
    // cut off and its own exit code comes back.
    if (r->deliver) {
        const char byte = 1;
        while (::write(r->wake[1], &byte, 1) < 0 && errno == EINTR) {
        }
    }
    ::pthread_join(r->thread, nullptr);
    r->reader_end = -1;  // the reader owned it
    release_relay(r);
}

// The text after the last '/', or the whole path without one.
std::string_view base_name(std::string_view path) noexcept {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

}  // namespace

extern "C" {

ow_pipe_handle* ow_init_pipe(const char* path, const char* args) {
    if (path == nullptr || *path == '\0') {
        OW_EINVAL();
        return nullptr;
    }
    const bool have_args = args != nullptr && *args != '\0';
    // ';' carries the spaces of quoted words through the split below.
    if (have_args && std::strchr(args, ';') != nullptr) {
        OW_ERROR("You may not use semicolons in ow_pipe arguments");
        return nullptr;
    }
    ow::unique_cptr<ow_pipe_handle> handle(
        static_cast<ow_pipe_handle*>(ow::mem_calloc(1, sizeof(ow_pipe_handle))));
    if (!handle) {
        OW_OOM();
        return nullptr;
    }

    // The vector is built before anything is started (see ow_child.hpp). Its first element
    // is the base name as it stands; only the argument string is split, so a directory or
    // program name with spaces never turns into extra arguments.
    const std::string_view base = base_name(path);
    char* joined = nullptr;
    if ((have_args
             ? ow_asprintf(&joined, "%.*s %s", static_cast<int>(base.size()), base.data(), args)
             : ow_asprintf(&joined, "%.*s", static_cast<int>(base.size()), base.data())) < 0) {
        OW_ENOMEM();
        return nullptr;
    }
    ow::unique_cstr line(joined);
    char** argv = nullptr;
    ow::scope_guard free_argv([&argv] { ow_lstfree(&argv, std::free); });
    char* first = ow::dup_cstr(base);
    if (first == nullptr || ow_lstcat(&argv, first) == nullptr) {
        std::free(first);
        OW_ENOMEM();
        return nullptr;
    }
    if (have_args) {
        ow::unique_cstr words(ow::dup_cstr(args));
        if (!words) {
            OW_ENOMEM();
            return nullptr;
        }
        // A quote becomes a separator and toggles quoting; a space inside quotes is parked
        // as ';' so the split keeps the quoted stretch together.
        bool quoted = false;
        for (char* c = words.get(); *c != '\0'; ++c) {
            if (*c == '"') {
                *c = ' ';
                quoted = !quoted;
            } else if (*c == ' ' && quoted) {
                *c = ';';
            }
        }
        if (!ow_lstsplode_ex(&argv, words.get(), ' ', false)) {
            OW_ERROR("Failed to explode the string into a list");
            return nullptr;
        }
        for (char** word = argv + 1; *word != nullptr; ++word) {
            if (!ow_str_replace_smaller(*word, ";", " ")) {
                OW_ERROR("Failed to replace semicolons with spaces");
                return nullptr;
            }
        }
    }

    int32_t out[2] = {-1, -1};
    int32_t in[2] = {-1, -1};
    if (!ow::make_pipe(out) || !ow::make_pipe(in)) {
        const int err = errno;
        OW_ERROR("failed to create pipes: %s", std::strerror(err));
        close_fd(out[0]);
        close_fd(out[1]);
        return nullptr;
    }
    const int stdio[3] = {in[0], out[1], -1};
    const ow::child child = ow::start_child(path, argv, stdio);
    const int err = errno;
    close_fd(in[0]);
    close_fd(out[1]);
    if (child.pid < 0) {
        OW_ERROR("failed to fork: %s", std::strerror(err));
        close_fd(out[0]);
        close_fd(in[1]);
        return nullptr;
    }
    // A child that could not run the program has ended with 1, which ow_clean_pipe returns.
    if (child.failed == ow::child_failure::redirect) {
        OW_ERROR("error duplicating stdin/stdout: %s", std::strerror(child.error));
    } else if (child.failed == ow::child_failure::exec) {
        OW_ERROR("execv(%s, %s) failed: %s", path, line.get(), std::strerror(child.error));
    }
    handle->out_read = out[0];
    handle->out_write = -1;
    handle->in_read = -1;
    handle->in_write = in[1];
    handle->child = child.pid;
    return handle.release();
}

int32_t ow_clean_pipe(ow_pipe_handle* handle) {
    if (handle == nullptr) {
        OW_EINVAL();
        return -1;
    }
    int status = 0;
    if (ow::wait_child(handle->child, &status) != handle->child) {
        const int err = errno;
        OW_ERROR("Failed to waitpid(): %s", std::strerror(err));
        std::free(handle);
        return -1;
    }
    std::free(handle);
    const int code = ow::exit_code(status);
    if (WIFSIGNALED(status)) {
        OW_DEBUG("Killed with signal [%d] => [%d]", status, code);
    } else {
        OW_DEBUG("got exit code [%d] => [%d]", status, code);
    }
    return code;
}

int32_t ow_pipe(const char* path, const char* args, ow_pipe_reader_fn reader,
                ow_pipe_writer_fn writer, void* user) {
    OW_DEBUG("preparing to pipe for program [%s] with args [%s]", path != nullptr ? path : "",
             args != nullptr ? args : "");
    if (path == nullptr || *path == '\0') {
        OW_EINVAL();
        return -1;
    }
    ow_pipe_handle* handle = ow_init_pipe(path, args);
    if (handle == nullptr) return -1;

    output_relay relay;
    bool relaying = false;
    if (writer != nullptr) {
        // The child may answer while it is still being fed; without someone taking that
        // output, a full output pipe would stop it reading and leave the writer blocked.
        const int err = start_relay(&relay, handle->out_read, handle->child, reader != nullptr);
        if (err == 0) {
            relaying = true;
            handle->out_read = -1;
        } else {
            OW_DEBUG("cannot relay output while writing (%s): writing first, then reading",
                     std::strerror(err));
        }
        writer(handle->in_write, user);
    }
    close_fd(handle->in_write);

    if (relaying) {
        if (reader != nullptr) reader(relay.reader_end, user);
        finish_relay(&relay);
        if (relay.error != 0) {
            OW_ERROR("failed to pass on the program's output: %s", std::strerror(relay.error));
        }
    } else if (reader != nullptr) {
        reader(handle->out_read, user);
        handle->out_read = -1;  // the reader owns it now
    } else {
        drain_output(handle->out_read, handle->child);
        close_fd(handle->out_read);
    }
    return ow_clean_pipe(handle);
}

int32_t ow_pipe_write_fd(const ow_pipe_handle* handle) {
    if (handle == nullptr) {
        OW_EINVAL();
        return -1;
    }
    return handle->in_write;
}

int32_t ow_pipe_read_fd(const ow_pipe_handle* handle) {
    if (handle == nullptr) {
        OW_EINVAL();
        return -1;
    }
    return handle->out_read;
}

}  // extern "C"

// ow_child.cpp: starting and collecting children (see ow_child.hpp).
#include "ow_child.hpp"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace ow {

namespace {

// What a child that could not run its program writes to its parent.
struct failure_report {
    child_failure stage;
    int error;
};

// Only async-signal-safe calls: this runs in the child between fork and execv or _exit.
[[noreturn]] void report_and_exit(int fd, child_failure stage) noexcept {
    const failure_report report{stage, errno};
    while (::write(fd, &report, sizeof report) < 0 && errno == EINTR) {
    }
    ::_exit(1);
}

}  // namespace

int lift_fd(int fd) noexcept {
    if (fd > STDERR_FILENO) return fd;
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int err = errno;
    ::close(fd);
    errno = err;
    return moved;
}

bool make_pipe(int ends[2]) noexcept {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    for (int i = 0; i < 2; ++i) {
        fds[i] = lift_fd(fds[i]);
        if (fds[i] < 0) {
            const int err = errno;
            if (fds[1 - i] >= 0) ::close(fds[1 - i]);
            errno = err;
            return false;
        }
    }
    ends[0] = fds[0];
    ends[1] = fds[1];
    return true;
}

bool child_ended(pid_t pid) noexcept {
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        return errno != EINTR;  // ECHILD: nothing left to wait for
    }
    return info.si_pid == pid;
}

pid_t wait_child(pid_t pid, int* status) noexcept {
    pid_t waited = 0;
    do {
        waited = ::waitpid(pid, status, 0);
    } while (waited < 0 && errno == EINTR);
    return waited;
}

child start_child(const char* path, char* const* argv, const int stdio[3]) noexcept {
    child started;
    int report[2];
    if (!make_pipe(report)) return started;
    started.pid = ::fork();
    if (started.pid == 0) {
        for (int fd = 0; fd < 3; ++fd) {
            // dup2 leaves the copy without close-on-exec: the program keeps it.
            if (stdio[fd] >= 0 && ::dup2(stdio[fd], fd) < 0) {
                report_and_exit(report[1], child_failure::redirect);
            }
        }
        ::execv(path, argv);
        report_and_exit(report[1], child_failure::exec);
    }
    const int fork_error = errno;
    ::close(report[1]);
    if (started.pid > 0) {
        // End of file: the program runs (execv closed the child's end).
        failure_report got{};
        ssize_t n = 0;
        while ((n = ::read(report[0], &got, sizeof got)) < 0 && errno == EINTR) {
        }
        if (n == static_cast<ssize_t>(sizeof got)) {
            started.failed = got.stage;
            started.error = got.error;
        }
    }
    ::close(report[0]);
    errno = fork_error;
    return started;
}

}  // namespace ow

// ow_child.hpp: starting a program as a child and collecting it, shared by ow_pipe and
// common_libs. Internal to the library.
//
// The child of a fork in a process with other threads may find a lock (the allocator's, the
// log sink's) held for ever by a thread that no longer exists there. So everything that
// allocates or logs happens in the parent, before the fork: between fork and execv the child
// only moves descriptors, calls execv and _exits, and tells the parent why it failed over a
// close-on-exec pipe.
#ifndef OW_CHILD_HPP
#define OW_CHILD_HPP

#include <sys/types.h>

namespace ow {

// Moves fd above the standard descriptors (close-on-exec), so that a child's dup2 onto 0, 1
// or 2 can never overwrite it; the original is closed. -1 (errno set) on failure.
int lift_fd(int fd) noexcept;
// A close-on-exec pipe whose ends are both above 2; false with errno set on failure.
bool make_pipe(int ends[2]) noexcept;
// True once the child has ended; it is left for wait_child to collect.
bool child_ended(pid_t pid) noexcept;
// waitpid without options, resumed after EINTR.
pid_t wait_child(pid_t pid, int* status) noexcept;
// The exit code of a wait status: its second byte, so 0 for a child ended by a signal.
constexpr int exit_code(int status) noexcept { return (status >> 8) & 0xFF; }

// Where a started child gave up before its program ran.
enum class child_failure { none, redirect, exec };

struct child {
    pid_t pid = -1;                              // -1: nothing was started (errno set)
    child_failure failed = child_failure::none;  // otherwise the child has ended with 1
    int error = 0;                               // the errno of that failure
};

// Forks and runs path with argv; each stdio[i] that is not -1 becomes the child's descriptor
// i (pass descriptors above 2, as make_pipe gives). Returns once the program runs or the
// child has failed; either way the caller must still wait for the child.
child start_child(const char* path, char* const* argv, const int stdio[3]) noexcept;

}  // namespace ow

#endif  // OW_CHILD_HPP

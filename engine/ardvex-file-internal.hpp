// ardvex-file-internal.hpp: what the list-file and range-file modules share about replacing a
// locked file by a new one. Never installed.
#ifndef ARDVEX_FILE_INTERNAL_HPP
#define ARDVEX_FILE_INTERNAL_HPP

namespace ow {

// Opens path with flags under the whole-file write lock of ow_open_ex and returns the
// descriptor, or -1 (logged by ow_open_ex). Writers replace these files by rename while
// holding the lock, so a process that waited for the lock may hold the replaced file; this
// reopens until the locked descriptor is the file the path names now.
int open_locked_current(const char* path, int flags) noexcept;

// Readies new_fd's file to be renamed over old_fd's: gives it the old file's permission bits
// (and owner and group when running as root) and flushes it to disk, so that a crash right
// after the rename finds the whole new file. False with an ERROR line when that fails.
bool prepare_replacement(int old_fd, int new_fd) noexcept;

}  // namespace ow

#endif  // ARDVEX_FILE_INTERNAL_HPP

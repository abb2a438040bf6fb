// ow_clibs: the wall-clock stopwatch and the effective-user switch. Only the effective user
// id is ever changed, so a process started as root keeps root in its real and saved ids and
// can take it back.
#include "ow_clibs.h"

#include <pwd.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "ow_internal.hpp"

// The record is part of the ABI: callers allocate it themselves.
static_assert(sizeof(ow_stopwatch) == 32);
static_assert(offsetof(ow_stopwatch, start_sec) == 0);
static_assert(offsetof(ow_stopwatch, start_usec) == 8);
static_assert(offsetof(ow_stopwatch, stop_sec) == 16);
static_assert(offsetof(ow_stopwatch, stop_usec) == 24);

namespace {

constexpr long kMicrosPerSecond = 1000000;

// True when the real or saved user id is root, i.e. the process was started as root and has
// only lent its effective id to another account.
bool can_regain_root() noexcept {
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    if (getresuid(&real, &effective, &saved) != 0) return false;
    return real == 0 || saved == 0;
}

}  // namespace

extern "C" {

bool ow_stopwatch_start(ow_stopwatch* sw) {
    if (sw == nullptr) {
        OW_EINVAL();
        return false;
    }
    *sw = ow_stopwatch{};
    struct timeval now {};
    if (gettimeofday(&now, nullptr) != 0) {
        OW_ERRNO(errno);
        return false;
    }
    sw->start_sec = now.tv_sec;
    sw->start_usec = now.tv_usec;
    OW_DEBUG("stopwatch started");
    return true;
}

double ow_stopwatch_stop(ow_stopwatch* sw) {
    if (sw == nullptr) {
        OW_EINVAL();
        return -1.0;
    }
    if (sw->start_sec == 0) {
        OW_EINVAL();
        OW_DEBUG("timer not started");
        return -1.0;
    }
    struct timeval now {};
    if (gettimeofday(&now, nullptr) != 0) {
        OW_ERRNO(errno);
        return -1.0;
    }
    sw->stop_sec = now.tv_sec;
    sw->stop_usec = now.tv_usec;
    OW_DEBUG("timer stopped");

    long secs = static_cast<long>(sw->stop_sec - sw->start_sec);
    long usecs = static_cast<long>(sw->stop_usec - sw->start_usec);
    if (usecs < 0) {
        secs -= 1;
        usecs += kMicrosPerSecond;
    }
    OW_DEBUG("%ld secs %ld usecs", secs, usecs);
    const double elapsed = static_cast<double>(usecs) / 1000000.0 + static_cast<double>(secs);
    OW_DEBUG("elapsed %f seconds", elapsed);
    return elapsed;
}

bool ow_set_run_as(const char* user) {
    if (user == nullptr || *user == '\0') {
        OW_EINVAL();
        return false;
    }
    errno = 0;
    const struct passwd* pw = getpwnam(user);
    if (pw == nullptr) {
        // An unknown name is no system error (errno stays 0); say "no such entry" rather
        // than "Success".
        const int err = errno != 0 ? errno : ENOENT;
        OW_ERROR("Error retrieving %s UID: [%s]\n", user, std::strerror(err));
        return false;
    }
    const uid_t target = pw->pw_uid;
    const uid_t effective = geteuid();
    OW_DEBUG("UID for user %s is %d", user, static_cast<int>(target));
    OW_DEBUG("Program is running as UID %d", static_cast<int>(effective));

    if (effective == target) return true;
    if (effective != 0) {
        // Started as root and lent to another account: take root back first, so that the
        // caller can move between accounts (and back to root) as often as it needs.
        if (!can_regain_root() || seteuid(0) != 0) {
            OW_ERROR("This program must be run as 'root' or '%s' user", user);
            return false;
        }
        OW_DEBUG("Effective UID set to %d", 0);
        if (target == 0) return true;
    }
    OW_DEBUG("Attempting to set effective UID to %d", static_cast<int>(target));
    if (seteuid(target) != 0) {
        OW_ERROR("Error setting effective UID %d: [%s]", static_cast<int>(target),
                 std::strerror(errno));
        return false;
    }
    OW_DEBUG("Effective UID set to %d", static_cast<int>(target));
    return true;
}

}  // extern "C"

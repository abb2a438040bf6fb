// ardvex-log.cpp: the screening engine's message and authentication logs and its statistics.
// Every logged message is counted in a daily file per month and an hourly file per log
// directory; both are fixed-size images that other programs read, updated in place under the
// whole-file lock of ow_open_ex so that the read-modify-write of one count is atomic across
// the processes sharing a directory. Log lines are built whole and written with one call under
// the same kind of lock, so they never interleave.
#include "ardvex-log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <string>
#include <string_view>

#include "ardvex-log-internal.hpp"
#include "ardvex_config.h"
#include "ow_file.h"
#include "ow_internal.hpp"

static_assert(sizeof(ardvex_counter_record) == 32);
static_assert(offsetof(ardvex_counter_record, period_start) == 0);
static_assert(offsetof(ardvex_counter_record, ham) == 4);
static_assert(offsetof(ardvex_counter_record, spam) == 8);
static_assert(offsetof(ardvex_counter_record, exempt) == 12);
static_assert(offsetof(ardvex_counter_record, ratelimit1) == 16);
static_assert(offsetof(ardvex_counter_record, ratelimit2) == 20);
static_assert(offsetof(ardvex_counter_record, unauthenticated) == 24);
static_assert(offsetof(ardvex_counter_record, authenticated) == 28);
static_assert(ARDVEX_COUNTER_DAILY_SIZE ==
              ARDVEX_COUNTER_HEADER_SIZE + ARDVEX_COUNTER_DAILY_RECORDS * 32);
static_assert(ARDVEX_COUNTER_HOURLY_SIZE ==
              ARDVEX_COUNTER_HEADER_SIZE + ARDVEX_COUNTER_HOURLY_RECORDS * 32);

// ---------------------------------------------------------------------------------------
// Clock

namespace ow {
#ifndef ARDVEX_TESTING_SEAMS
std::time_t clock_now() noexcept { return std::time(nullptr); }
#else
namespace {
// The time a test pinned, 0 for the real clock. Plain data so that a forked child sees the
// same clock as its parent; the library is single-threaded. Only the test configuration's
// library has it: the shipped one always reads the real clock.
std::time_t g_pinned_clock = 0;
}  // namespace

std::time_t clock_now() noexcept {
    return g_pinned_clock != 0 ? g_pinned_clock : std::time(nullptr);
}
namespace testing {
void set_clock(std::time_t t) noexcept { g_pinned_clock = t; }
}  // namespace testing
#endif
}  // namespace ow

// ---------------------------------------------------------------------------------------
// File images and records

namespace {

constexpr std::size_t kRecordSize = sizeof(ardvex_counter_record);
// A record is stale after 31 days: the daily file then belongs to an earlier year's month.
constexpr int64_t kStaleAfter = 2678400;
constexpr int kSecondsPerHour = 3600;

// Fresh images are constants rather than allocations, so a reset can never fail for want of
// memory and leave a newly created file empty.
template <std::size_t N>
constexpr std::array<uint8_t, N> fresh_image() {
    std::array<uint8_t, N> image{};
    image[0] = ARDVEX_COUNTER_VERSION;
    return image;
}
constexpr auto kFreshDaily = fresh_image<ARDVEX_COUNTER_DAILY_SIZE>();
constexpr auto kFreshHourly = fresh_image<ARDVEX_COUNTER_HOURLY_SIZE>();
constexpr std::array<uint8_t, ARDVEX_COUNTER_HOURLY_RECORDS * kRecordSize> kZeroHours{};

constexpr int32_t record_offset(int index) {
    return ARDVEX_COUNTER_HEADER_SIZE + static_cast<int32_t>(kRecordSize) * index;
}

// Adds one message to a record; false (nothing but the authentication field counted) for a
// type the files have no field for.
bool count_message(ardvex_counter_record& record, uint8_t type, bool authenticated) {
    if (authenticated) {
        ++record.authenticated;
    } else {
        ++record.unauthenticated;
    }
    switch (type) {
        case 0:
        case 5:
            ++record.ham;
            return true;
        case 1:
            ++record.spam;
            return true;
        case 2:
            ++record.exempt;
            return true;
        case 3:
            ++record.ratelimit1;
            return true;
        case 4:
            ++record.ratelimit2;
            return true;
        default:
            return false;
    }
}

// A malloc'd path formatted like printf; nullptr when formatting (*format_failed set) or the
// allocation fails.
__attribute__((format(printf, 2, 3))) char* format_path(bool* format_failed, const char* format,
                                                        ...) {
    *format_failed = false;
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    char* path = nullptr;
    if (length < 0) {
        *format_failed = true;
    } else {
        path = static_cast<char*>(ow::mem_malloc(static_cast<std::size_t>(length) + 1));
        if (path != nullptr)
            std::vsnprintf(path, static_cast<std::size_t>(length) + 1, format, again);
    }
    va_end(again);
    return path;
}

bool missing(const char* s) { return s == nullptr || *s == '\0'; }

}  // namespace

char* al_get_counter_file(const char* dir, const char* base, int month) {
    if (missing(dir) || missing(base)) {
        OW_EINVAL();
        return nullptr;
    }
    bool format_failed = false;
    char* path = format_path(&format_failed, "%s/%s.%02d", dir, base, month);
    if (path == nullptr) {
        if (format_failed) {
            OW_ERROR("sprintf() failure");
        } else {
            OW_ENOMEM();
        }
    }
    return path;
}

char* al_get_counter_file_hourly(const char* dir, const char* base) {
    if (missing(dir) || missing(base)) {
        OW_EINVAL();
        return nullptr;
    }
    bool format_failed = false;
    char* path = format_path(&format_failed, "%s/%s.hourly", dir, base);
    if (path == nullptr) OW_ENOMEM();
    return path;
}

// ---------------------------------------------------------------------------------------
// Daily file

bool al_initialise_stat_file(int fd) {
    if (fd == -1) {
        OW_EINVAL();
        return false;
    }
    if (!ow_seek(fd, 0, SEEK_SET)) {
        OW_ERROR("Failed to seek in stat file prior to write");
        return false;
    }
    // Written whole, then cut: a longer file keeps no tail of its old self.
    if (!ow_write(fd, kFreshDaily.data(), kFreshDaily.size()) || !ow_truncate(fd)) {
        OW_ERROR("Failed to write to stat file");
        return false;
    }
    if (!ow_seek(fd, 0, SEEK_SET)) {
        OW_ERROR("Failed to seek in stat file after write");
        return false;
    }
    OW_DEBUG("Initialised stat file");
    return true;
}

static bool __valid_counter_file(int fd) {
    if (fd == -1) return false;
    if (ow_filesize(fd) != ARDVEX_COUNTER_DAILY_SIZE) return false;
    if (!ow_seek(fd, 0, SEEK_SET)) return false;
    uint8_t version = 0;
    if (!ow_read(fd, &version, 1)) {
        OW_ERROR("Failed to read version header from counter file");
        return false;
    }
    uint32_t reserved = 0;
    if (!ow_read(fd, &reserved, sizeof reserved)) return false;
    if (!ow_seek(fd, 0, SEEK_SET)) return false;
    if (version != ARDVEX_COUNTER_VERSION) {
        OW_ERROR("Stats counter file is wrong version: %u", static_cast<unsigned>(version));
        return false;
    }
    return reserved == 0;
}

bool al_seek_to_counter_day(int fd, int day) {
    if (fd == -1 || day < 0 || day >= ARDVEX_COUNTER_DAILY_RECORDS) {
        OW_EINVAL();
        return false;
    }
    if (!ow_seek(fd, record_offset(day), SEEK_SET)) {
        OW_ERROR("Failed to seek to counter record for day: %d", day);
        return false;
    }
    return true;
}

bool al_read_counter_day(int fd, int day, ardvex_counter_record* out) {
    if (fd == -1 || out == nullptr || day < 0 || day >= ARDVEX_COUNTER_DAILY_RECORDS) {
        OW_EINVAL();
        return false;
    }
    if (!al_seek_to_counter_day(fd, day)) return false;
    *out = ardvex_counter_record{};
    if (!ow_read(fd, out, kRecordSize)) {
        OW_ERROR("Failed to read record");
        return false;
    }
    return true;
}

ardvex_counter_record* al_read_counter_day(int fd, int day) {
    if (fd == -1 || day < 0 || day >= ARDVEX_COUNTER_DAILY_RECORDS) {
        OW_EINVAL();
        return nullptr;
    }
    ow::unique_cptr<ardvex_counter_record> record(
        static_cast<ardvex_counter_record*>(ow::mem_calloc(1, kRecordSize)));
    if (!record) {
        OW_ENOMEM();
        return nullptr;
    }
    if (!al_read_counter_day(fd, day, record.get())) return nullptr;
    return record.release();
}

bool al_write_counter_day(int fd, int day, const ardvex_counter_record* record) {
    if (fd == -1 || record == nullptr || day < 0 || day >= ARDVEX_COUNTER_DAILY_RECORDS) {
        OW_EINVAL();
        return false;
    }
    if (!al_seek_to_counter_day(fd, day)) return false;
    if (!ow_write(fd, record, kRecordSize)) {
        OW_ERROR("Failed to write counter record for day: %d", day);
        return false;
    }
    return true;
}

// Local midnight of today. The daylight-saving flag is left for mktime to settle: on the days
// the clocks change, midnight and now lie on different sides of the change, and taking now's
// flag would date the record an hour off, into the day before when clocks went forward.
static std::time_t __absolute_date(int* month, int* day) {
    ::tzset();
    const std::time_t now = ow::clock_now();
    struct tm local {};
    if (localtime_r(&now, &local) == nullptr) return -1;
    *month = local.tm_mon + 1;
    *day = local.tm_mday - 1;
    struct tm midnight {};
    midnight.tm_year = local.tm_year;
    midnight.tm_mon = local.tm_mon;
    midnight.tm_mday = local.tm_mday;
    midnight.tm_isdst = -1;
    return std::mktime(&midnight);
}

namespace {

// True when the daily file must be rewritten: invalid, unreadable, or holding a record of an
// earlier year's month. Records are read without allocating, so only a real I/O failure,
// never a short moment without memory, can cost the month its counts.
bool daily_needs_reset(int fd, std::time_t now_day) {
    if (!__valid_counter_file(fd)) return true;
    for (int day = 0; day < ARDVEX_COUNTER_DAILY_RECORDS; ++day) {
        ardvex_counter_record record{};
        if (!al_read_counter_day(fd, day, &record)) return true;
        if (record.period_start != 0 &&
            static_cast<int64_t>(now_day) - static_cast<int64_t>(record.period_start) >
                kStaleAfter) {
            return true;
        }
    }
    return false;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Hourly file

bool al_initialise_stat_file_hourly(int fd) {
    if (fd == -1) {
        OW_EINVAL();
        return false;
    }
    if (!ow_seek(fd, 0, SEEK_SET)) {
        OW_ERROR("Failed to seek in hourly stat file prior to write");
        return false;
    }
    if (!ow_write(fd, kFreshHourly.data(), kFreshHourly.size()) || !ow_truncate(fd)) {
        OW_ERROR("Failed to write to hourly stat file");
        return false;
    }
    if (!ow_seek(fd, 0, SEEK_SET)) {
        OW_ERROR("Failed to seek in hourly stat file after write");
        return false;
    }
    OW_DEBUG("Initialised hourly stat file");
    return true;
}

static bool __valid_counter_file_hourly(int fd) {
    if (fd == -1) {
        OW_EINVAL();
        return false;
    }
    if (ow_filesize(fd) != ARDVEX_COUNTER_HOURLY_SIZE || !ow_seek(fd, 0, SEEK_SET)) return false;
    uint8_t version = 0;
    if (!ow_read(fd, &version, 1)) {
        OW_ERROR("Failed to read version header from hourly stats counter file");
        return false;
    }
    if (!ow_seek(fd, 0, SEEK_SET)) return false;
    if (version != ARDVEX_COUNTER_VERSION) {
        OW_ERROR("Hourly stats counter file has wrong version: %u", static_cast<unsigned>(version));
        return false;
    }
    return true;
}

uint32_t al_read_last_update(int fd) {
    if (!ow_seek(fd, 0, SEEK_SET)) {
        OW_ERROR("Failed to rewind in hourly stats file");
        return 0;
    }
    if (!ow_seek(fd, 1, SEEK_SET)) {
        OW_ERROR("Failed to seek in hourly stats file to last update header");
        return 0;
    }
    uint32_t last = 0;
    if (!ow_read(fd, &last, sizeof last)) {
        OW_ERROR("Failed to read last update header from hourly stats file");
        return 0;
    }
    if (!ow_seek(fd, 0, SEEK_SET)) {
        OW_ERROR("Failed to rewind in hourly stats file");
        return 0;
    }
    return last;
}

bool al_seek_to_counter_hour(int fd, int hour) {
    if (fd == -1 || hour < 0 || hour >= ARDVEX_COUNTER_HOURLY_RECORDS) {
        OW_EINVAL();
        return false;
    }
    if (!ow_seek(fd, 0, SEEK_SET)) {
        OW_ERROR("Failed to rewind in hourly stats file");
        return false;
    }
    if (!ow_seek(fd, record_offset(hour), SEEK_SET)) {
        OW_ERROR("Failed to seek to counter record for hour: %d", hour);
        return false;
    }
    return true;
}

bool al_clear_counter_hour(int fd, int hour, int count) {
    if (fd == -1 || hour < 0 || hour >= ARDVEX_COUNTER_HOURLY_RECORDS || count < 0) {
        OW_EINVAL();
        return false;
    }
    if (count == 0) return true;
    if (count >= ARDVEX_COUNTER_HOURLY_RECORDS) {
        if (!ow_seek(fd, record_offset(0), SEEK_SET) ||
            !ow_write(fd, kZeroHours.data(), kZeroHours.size())) {
            OW_ERROR("Failed to empty hourly stat record for all hours");
            return false;
        }
        return true;
    }
    for (int i = 0; i < count; ++i) {
        const int h = (hour - i + ARDVEX_COUNTER_HOURLY_RECORDS) % ARDVEX_COUNTER_HOURLY_RECORDS;
        if (!ow_seek(fd, record_offset(h), SEEK_SET) ||
            !ow_write(fd, kZeroHours.data(), kRecordSize)) {
            OW_ERROR("Failed to empty hourly stat for hour: %d", h);
            return false;
        }
    }
    return true;
}

ardvex_counter_record* al_read_counter_hour(int fd, int hour) {
    if (fd == -1 || hour < 0 || hour >= ARDVEX_COUNTER_HOURLY_RECORDS) {
        OW_EINVAL();
        return nullptr;
    }
    if (!al_seek_to_counter_hour(fd, hour)) return nullptr;
    ow::unique_cptr<ardvex_counter_record> record(
        static_cast<ardvex_counter_record*>(ow::mem_calloc(1, kRecordSize)));
    if (!record) {
        OW_ENOMEM();
        return nullptr;
    }
    if (!ow_read(fd, record.get(), kRecordSize)) {
        OW_ERROR("Failed to read record");
        return nullptr;
    }
    return record.release();
}

bool al_write_counter_hour(int fd, uint32_t period_start, int hour,
                           const ardvex_counter_record* record) {
    if (fd == -1 || record == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (!ow_seek(fd, 0, SEEK_SET)) {
        OW_ERROR("Failed to rewind in hourly stats file");
        return false;
    }
    if (!ow_seek(fd, 1, SEEK_SET)) {
        OW_ERROR("Failed to seek in hourly stats file to last update header");
        return false;
    }
    if (!ow_write(fd, &period_start, sizeof period_start)) {
        OW_ERROR("Failed to write counter record for hour: %d", hour);
        return false;
    }
    if (!al_seek_to_counter_hour(fd, hour)) return false;
    if (!ow_write(fd, record, kRecordSize)) {
        OW_ERROR("Failed to write counter record for hour: %d", hour);
        return false;
    }
    return true;
}

// Start of the current local hour; 0 when it cannot be computed. Now's daylight-saving flag
// tells the two passes of the hour repeated when clocks go back apart.
static std::time_t __hour_start(int* hour) {
    ::tzset();
    const std::time_t now = ow::clock_now();
    struct tm local {};
    if (localtime_r(&now, &local) == nullptr) return 0;
    *hour = local.tm_hour;
    local.tm_min = 0;
    local.tm_sec = 0;
    const std::time_t start = std::mktime(&local);
    return start == static_cast<std::time_t>(-1) ? 0 : start;
}

namespace {

// How many records, ending with the current one, to zero when `elapsed` whole hours passed
// since the last update at hour start `last`. Within a day the records stand for hours of the
// local clock, so the count is the distance on that clock: across a daylight-saving change
// it differs from the elapsed time by one. When clocks go back, the repeated hour (one hour
// elapsed, same local hour) keeps the counts of its first pass instead of losing them; when
// they go forward, the skipped hour is zeroed instead of showing yesterday's counts.
int hours_to_clear(int elapsed, std::time_t last, int hour) {
    if (elapsed <= 0 || elapsed >= ARDVEX_COUNTER_HOURLY_RECORDS) return elapsed;
    struct tm then {};
    if (localtime_r(&last, &then) == nullptr) return elapsed;
    const int distance =
        (hour - then.tm_hour + ARDVEX_COUNTER_HOURLY_RECORDS) % ARDVEX_COUNTER_HOURLY_RECORDS;
    if (distance != 0) return distance;
    // Same local hour: the repeated hour, or a whole 23-hour day that has passed.
    return elapsed == 1 ? 0 : ARDVEX_COUNTER_HOURLY_RECORDS;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Log lines

namespace {

// A log write holds at most this many characters (ow_fprintf); longer lines are cut to fit.
constexpr std::size_t kLineLimit = 1022;
constexpr std::string_view kCutMark = "...";

constexpr const char* kMessageTypeNames[] = {"HAM",       "SPAM", "EXEMPT",    "RATELIMIT",
                                             "RATELIMIT", "NDR",  "QUARANTINE"};
constexpr uint8_t kMessageTypeCount = 7;
// Position 0 is never written: type 0 is refused.
constexpr const char* kAuthTypeNames[] = {"UNKNOWN", "PASS", "BLOCK", "EXEMPT"};

// A session string as it may appear in a log line: NULL as fallback, control bytes as '?'.
std::string field(const char* s, const char* fallback = "(null)") {
    std::string out(s != nullptr ? s : fallback);
    for (char& c : out) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) c = '?';
    }
    return out;
}

// The client's host name as the rules settled it; `timeout` stands in for a lookup that
// failed for now (the message log shows that, the authentication log does not).
std::string host_name(const spam_session& session, bool show_timeout) {
    if (session.rdns != nullptr) return field(session.rdns);
    if (session.ptr_names != nullptr) return field(session.ptr_names[0]);
    if (show_timeout && session.ptr_state == SPAM_PTR_TEMPFAIL) return "(timeout)";
    return "(null)";
}

// Cuts the longest of `fields` until `fixed` characters plus theirs fit the line limit: one
// cap for all, so a field shorter than the cap keeps every byte.
void fit_line(std::size_t fixed, std::initializer_list<std::string*> fields) {
    std::size_t total = fixed, longest = 0;
    for (const std::string* f : fields) {
        total += f->size();
        longest = std::max(longest, f->size());
    }
    if (total <= kLineLimit || fixed >= kLineLimit) return;
    const std::size_t budget = kLineLimit - fixed;
    // The largest cap whose capped lengths fit the budget.
    std::size_t low = 0, high = longest;
    while (low < high) {
        const std::size_t cap = (low + high + 1) / 2;
        std::size_t sum = 0;
        for (const std::string* f : fields) sum += std::min(f->size(), cap);
        if (sum <= budget) {
            low = cap;
        } else {
            high = cap - 1;
        }
    }
    for (std::string* f : fields) {
        if (f->size() <= low) continue;
        f->resize(low);
        if (low >= kCutMark.size()) f->replace(low - kCutMark.size(), kCutMark.size(), kCutMark);
    }
}

std::string printf_string(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string printf_string(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string out;
    if (length > 0) {
        out.resize(static_cast<std::size_t>(length));
        std::vsnprintf(out.data(), out.size() + 1, format, again);
    }
    va_end(again);
    return out;
}

// Renders a line; when it is longer than a log write may be, cuts `fields` (which the
// renderer reads) to fit and renders again.
template <typename Render>
std::string fitted_line(Render render, std::initializer_list<std::string*> fields) {
    std::string line = render();
    if (line.size() <= kLineLimit) return line;
    std::size_t variable = 0;
    for (const std::string* f : fields) variable += f->size();
    fit_line(line.size() - variable, fields);
    return render();
}

struct message_fields {
    std::string program, reason, user, ip, host, country, port, helo, from, rcpt;
};

std::string message_line(const struct tm& when, int pid, uint8_t type, bool authenticated, bool tls,
                         message_fields& f, bool show_reason) {
    if (!show_reason) f.reason.clear();
    auto render = [&] {
        return printf_string(
            "%04d-%02d-%02d %02d:%02d:%02d %s[%d]: %s%s%s%s: mua=[%s:%s],ip=[%s:%s:%s],"
            "port=<%s>,tls=<%s>,helo=<%s>,from=<%s>,rcpt=<%s>\r\n",
            when.tm_year + 1900, when.tm_mon + 1, when.tm_mday, when.tm_hour, when.tm_min,
            when.tm_sec, f.program.c_str(), pid, kMessageTypeNames[type], show_reason ? "[" : "",
            f.reason.c_str(), show_reason ? "]" : "", authenticated ? "yes" : "no", f.user.c_str(),
            f.ip.c_str(), f.host.c_str(), f.country.c_str(), f.port.c_str(), tls ? "yes" : "no",
            f.helo.c_str(), f.from.c_str(), f.rcpt.c_str());
    };
    return fitted_line(render, {&f.program, &f.reason, &f.user, &f.ip, &f.host, &f.country, &f.port,
                                &f.helo, &f.from, &f.rcpt});
}

struct auth_fields {
    std::string program, reason, ip, host, country, port, user;
};

std::string auth_line(const struct tm& when, int pid, int type, bool tls, auth_fields& f) {
    const bool show_reason = type != ARDVEX_AUTH_PASS;
    if (!show_reason) f.reason.clear();
    auto render = [&] {
        return printf_string(
            "%04d-%02d-%02d %02d:%02d:%02d %s[%d]: %s%s%s%s: ip=[%s:%s:%s],port=<%s>,tls=<%s>,"
            "auth=<%s>\r\n",
            when.tm_year + 1900, when.tm_mon + 1, when.tm_mday, when.tm_hour, when.tm_min,
            when.tm_sec, f.program.c_str(), pid, kAuthTypeNames[type], show_reason ? "[" : "",
            f.reason.c_str(), show_reason ? "]" : "", f.ip.c_str(), f.host.c_str(),
            f.country.c_str(), f.port.c_str(), tls ? "yes" : "no", f.user.c_str());
    };
    return fitted_line(render,
                       {&f.program, &f.reason, &f.ip, &f.host, &f.country, &f.port, &f.user});
}

// Appends line to the file at path under the whole-file lock. False when the file cannot be
// opened (ow_open_ex has said why); a failed seek or write is reported by ow_seek/ow_fprintf.
bool append_line(const char* path, const std::string& line) {
    const int fd = ow_open_ex(path, true, O_RDWR | O_CREAT, 0);
    if (fd == -1) return false;
    if (ow_seek(fd, 0, SEEK_END)) ow_fprintf(fd, "%s", line.c_str());
    ow_close(fd);
    return true;
}

void count_in(const char* dir, uint8_t type, bool authenticated) {
    ardvex_increment_counter(dir, type, authenticated);
    ardvex_increment_counter_hourly(dir, type, authenticated);
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Public API

extern "C" {

// Set by the hosting program (see the header); read by every log line.
const char* log_program_name = nullptr;

void log_message(spam_session* session, const char* reason, uint8_t type) {
    if (session == nullptr || type >= kMessageTypeCount) return;
    try {
        const int pid = static_cast<int>(getpid());
        const std::time_t now = ow::clock_now();
        struct tm when {};
        if (localtime_r(&now, &when) == nullptr) return;

        message_fields f{field(log_program_name),
                         field(reason, "NULL"),
                         session->authenticated ? field(session->auth_user) : "(null)",
                         field(session->ip),
                         host_name(*session, true),
                         field(session->country),
                         field(session->port, "(unknown)"),
                         field(session->helo),
                         field(session->mail_from),
                         field(session->rcpt_to)};
        const std::string line = message_line(when, pid, type, session->authenticated, session->tls,
                                              f, type != ARDVEX_LOG_HAM && type != ARDVEX_LOG_NDR);
        const uint8_t counted = type == ARDVEX_LOG_QUARANTINE ? ARDVEX_LOG_SPAM : type;

        ow::unique_cstr shared(__build_path(ARDVEX_LOG_DIR, "axlog"));
        if (!shared) {
            OW_ENOMEM();
            return;
        }
        if (!append_line(shared.get(), line)) return;
        count_in(ARDVEX_LOG_DIR, counted, session->authenticated);

        for (const ow_list* entry = session->user_log_dirs; entry != nullptr; entry = entry->next) {
            if (entry->data == nullptr || entry->size == 0) continue;
            // Entries are strings, with or without their NUL counted in size.
            const auto* text = static_cast<const char*>(entry->data);
            const std::string dir(text, strnlen(text, entry->size));
            if (dir.empty()) continue;
            ow::unique_cstr path(__build_path(dir.c_str(), "axlog"));
            if (!path) {
                OW_ENOMEM();
                return;
            }
            OW_DEBUG("attempting to log to user directory: %s", path.get());
            if (!append_line(path.get(), line)) {
                OW_ERROR("failed to open or create user log...");
                return;
            }
            count_in(dir.c_str(), counted, session->authenticated);
        }
    } catch (...) {
        OW_ENOMEM();
    }
}

void log_auth_message(spam_session* session, int type, const char* reason) {
    if (session == nullptr || type < ARDVEX_AUTH_PASS || type > ARDVEX_AUTH_EXEMPT ||
        (type != ARDVEX_AUTH_PASS && missing(reason))) {
        OW_EINVAL();
        return;
    }
    try {
        const int pid = static_cast<int>(getpid());
        const std::time_t now = ow::clock_now();
        struct tm when {};
        if (now == static_cast<std::time_t>(-1) || localtime_r(&now, &when) == nullptr) return;
        auth_fields f{field(log_program_name),  field(reason, ""),
                      field(session->ip),       host_name(*session, false),
                      field(session->country),  field(session->port, "(unknown)"),
                      field(session->auth_user)};
        const std::string line = auth_line(when, pid, type, session->tls, f);
        ow::unique_cstr path(__build_path(ARDVEX_LOG_DIR, "axauthlog"));
        if (path) append_line(path.get(), line);
    } catch (...) {
        OW_ENOMEM();
    }
}

void ardvex_increment_counter(const char* log_dir, uint8_t type, bool authenticated) {
    if (missing(log_dir) || !ow_file_exists_ex(log_dir, OW_FILE_DIRECTORY)) return;
    int month = 0, day = 0;
    const std::time_t now_day = __absolute_date(&month, &day);
    if (now_day == static_cast<std::time_t>(-1)) {
        OW_ERRNO(EOVERFLOW);
        return;
    }
    ow::unique_cstr path(al_get_counter_file(log_dir, ARDVEX_COUNTER_BASE, month));
    if (!path) {
        OW_ERROR("Failed to build path to stats counter data file");
        return;
    }
    const int fd = ow_open_ex(path.get(), true, O_RDWR | O_CREAT, 0);
    if (fd == -1) return;
    ow::scope_guard closer([fd] { ow_close(fd); });

    if (daily_needs_reset(fd, now_day) && !al_initialise_stat_file(fd)) {
        OW_ERROR("Failed to initialise stat file");
        return;
    }
    ow::unique_cptr<ardvex_counter_record> record(al_read_counter_day(fd, day));
    if (!record) return;
    // Written once, by the first message of the day.
    if (record->period_start == 0) record->period_start = static_cast<uint32_t>(now_day);
    if (!count_message(*record, type, authenticated)) OW_ERROR("Unknown log type: %d", type);
    al_write_counter_day(fd, day, record.get());
}

void ardvex_increment_counter_hourly(const char* log_dir, uint8_t type, bool authenticated) {
    if (missing(log_dir)) {
        OW_EINVAL();
        return;
    }
    if (!ow_file_exists_ex(log_dir, OW_FILE_DIRECTORY)) {
        OW_ERROR("the log directory [%s] does not exist", log_dir);
        return;
    }
    int hour = 0;
    const std::time_t now_hour = __hour_start(&hour);
    if (now_hour == 0) {
        OW_ERRNO(EOVERFLOW);
        return;
    }
    ow::unique_cstr path(al_get_counter_file_hourly(log_dir, ARDVEX_COUNTER_BASE));
    if (!path) {
        OW_ERROR("Failed to build path to hourly counter file");
        return;
    }
    const int fd = ow_open_ex(path.get(), true, O_RDWR | O_CREAT, 0);
    if (fd == -1) return;
    ow::scope_guard closer([fd] { ow_close(fd); });

    if (!__valid_counter_file_hourly(fd) && !al_initialise_stat_file_hourly(fd)) {
        OW_ERROR("Failed to initialize hourly stat file");
        return;
    }
    const uint32_t last = al_read_last_update(fd);
    if (last != 0) {
        const auto elapsed =
            static_cast<int32_t>((static_cast<int64_t>(now_hour) - last) / kSecondsPerHour);
        if (elapsed < 0) {
            OW_ERROR("A negative time difference is not allowed");
            return;
        }
        const int clear = hours_to_clear(elapsed, last, hour);
        if (clear != 0 && !al_clear_counter_hour(fd, hour, clear)) return;
    }
    ow::unique_cptr<ardvex_counter_record> record(al_read_counter_hour(fd, hour));
    if (!record) return;
    record->period_start = static_cast<uint32_t>(now_hour);
    if (!count_message(*record, type, authenticated)) OW_ERROR("Unknown log type: %d", type);
    if (!al_write_counter_hour(fd, static_cast<uint32_t>(now_hour), hour, record.get())) {
        OW_ERROR("Failed to update hourly stat file");
    }
}

}  // extern "C"

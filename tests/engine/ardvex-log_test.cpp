// Tests of the counter files: exact images, roll-over of days, months and hours on a pinned
// clock in Europe/Berlin (both daylight-saving changes), damaged files and directories, and
// every refusal of the record steps.
#include "ardvex-log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "../../engine/ardvex-log-internal.hpp"
#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

namespace fs = std::filesystem;
using ow_test::refused;
using record = ardvex_counter_record;

// Local time in Europe/Berlin; isdst picks a pass of the hour repeated in October.
std::time_t at(int y, int mo, int d, int h, int mi = 0, int isdst = -1) {
    struct tm t {};
    t.tm_year = y - 1900;
    t.tm_mon = mo - 1;
    t.tm_mday = d;
    t.tm_hour = h;
    t.tm_min = mi;
    t.tm_isdst = isdst;
    return std::mktime(&t);
}
uint32_t u32(std::time_t t) { return static_cast<uint32_t>(t); }

// A counter file as read back from disk.
struct image {
    std::size_t size = 0;
    uint8_t version = 0;
    uint32_t word = 0;
    std::vector<record> records;
};

std::string bytes_of(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

image load(const std::string& path, int count) {
    const std::string bytes = bytes_of(path);
    image out;
    out.size = bytes.size();
    if (bytes.size() < 5 + 32u * count) return out;
    out.version = static_cast<uint8_t>(bytes[0]);
    std::memcpy(&out.word, bytes.data() + 1, 4);
    out.records.resize(count);
    std::memcpy(out.records.data(), bytes.data() + 5, 32u * count);
    return out;
}

// Builds a file image by hand: version, header word, records at 5 + 32 * n.
std::string make_image(std::size_t size, uint8_t version, uint32_t word,
                       const std::vector<std::pair<int, record>>& records) {
    std::string bytes(size, '\0');
    if (size > 0) bytes[0] = static_cast<char>(version);
    if (size >= 5) std::memcpy(bytes.data() + 1, &word, 4);
    for (const auto& [n, r] : records) std::memcpy(bytes.data() + 5 + 32 * n, &r, 32);
    return bytes;
}

bool same(const record& a, const record& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

class CounterTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        ::setenv("TZ", "Europe/Berlin", 1);
        ::tzset();
        char tmpl[] = "/tmp/ardvex_log_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        ow::testing::set_clock(0);
        std::error_code ec;
        fs::permissions(dir_, fs::perms::owner_all, ec);
        fs::remove_all(dir_, ec);
        ::unsetenv("TZ");
        ::tzset();
        LogCaptureTest::TearDown();
    }
    std::string daily(int month) const {
        char name[32];
        std::snprintf(name, sizeof name, "/.counterv2.dat.%02d", month);
        return dir_ + name;
    }
    std::string hourly() const { return dir_ + "/.counterv2.dat.hourly"; }
    void put(const std::string& path, const std::string& bytes) const {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    }
    // One message at time t, counted in both files as the message log does.
    void count(std::time_t t, uint8_t type = 0, bool authenticated = false) const {
        ow::testing::set_clock(t);
        ardvex_increment_counter(dir_.c_str(), type, authenticated);
        ardvex_increment_counter_hourly(dir_.c_str(), type, authenticated);
    }
    image day_file(int month) const { return load(daily(month), 31); }
    image hour_file() const { return load(hourly(), 24); }

    std::string dir_;
};

// ---------------------------------------------------------------------------------------
// Layout and fields

TEST_F(CounterTest, FirstMessageCreatesBothFilesByteForByte) {
    count(at(2026, 3, 5, 14, 20), 1, false);
    EXPECT_NO_ERRORS();
    const record day{u32(at(2026, 3, 5, 0)), 0, 1, 0, 0, 0, 1, 0};
    EXPECT_EQ(bytes_of(daily(3)), make_image(997, 2, 0, {{4, day}}));
    const record hour{u32(at(2026, 3, 5, 14)), 0, 1, 0, 0, 0, 1, 0};
    EXPECT_EQ(bytes_of(hourly()), make_image(773, 2, u32(at(2026, 3, 5, 14)), {{14, hour}}));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 2);
}

TEST_F(CounterTest, EachTypeFillsItsFieldAndUnknownTypesOnlyTheAuthenticationField) {
    struct {
        uint8_t type;
        bool authenticated;
        record expected;  // period start left 0, compared apart
    } cases[] = {
        {0, false, {0, 1, 0, 0, 0, 0, 1, 0}}, {5, true, {0, 1, 0, 0, 0, 0, 0, 1}},
        {1, true, {0, 0, 1, 0, 0, 0, 0, 1}},  {2, false, {0, 0, 0, 1, 0, 0, 1, 0}},
        {3, true, {0, 0, 0, 0, 1, 0, 0, 1}},  {4, false, {0, 0, 0, 0, 0, 1, 1, 0}},
        {7, true, {0, 0, 0, 0, 0, 0, 0, 1}},  {200, false, {0, 0, 0, 0, 0, 0, 1, 0}},
    };
    int day = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE("type " + std::to_string(c.type));
        clear_log();
        count(at(2026, 5, day, 9), c.type, c.authenticated);
        for (auto r : {day_file(5).records[day - 1], hour_file().records[9]}) {
            r.period_start = 0;
            EXPECT_TRUE(same(r, c.expected));
        }
        if (c.type > 5) {
            const std::string msg = "Unknown log type: " + std::to_string(c.type);
            EXPECT_ERROR_LINE("ardvex_increment_counter", msg);
            EXPECT_ERROR_LINE("ardvex_increment_counter_hourly", msg);
            EXPECT_EQ(ow_test::error_count(), 2u);
        } else {
            EXPECT_NO_ERRORS();
        }
        ++day;  // a new day, and a new hour record as 24 hours pass
    }
}

// ---------------------------------------------------------------------------------------
// Roll-over

TEST_F(CounterTest, DaysAndMonthsRollOver) {
    const std::time_t mar5 = at(2026, 3, 5, 0), mar6 = at(2026, 3, 6, 0);
    count(at(2026, 3, 5, 10));
    count(at(2026, 3, 5, 23, 59));
    count(mar6);
    image march = day_file(3);
    EXPECT_TRUE(same(march.records[4], {u32(mar5), 2, 0, 0, 0, 0, 2, 0}))
        << "the period start stays that of the day's first message";
    EXPECT_TRUE(same(march.records[5], {u32(mar6), 1, 0, 0, 0, 0, 1, 0}));

    // The same day of the next month lives in the next month's file.
    const std::string march_bytes = bytes_of(daily(3));
    count(at(2026, 4, 5, 8));
    EXPECT_EQ(bytes_of(daily(3)), march_bytes);
    EXPECT_TRUE(same(day_file(4).records[4], {u32(at(2026, 4, 5, 0)), 1, 0, 0, 0, 0, 1, 0}));

    // A clock set back counts into the earlier day without resetting anything; the hourly
    // file refuses to go back in time.
    count(at(2026, 3, 3, 12), 1);
    refused("ardvex_increment_counter_hourly", "A negative time difference is not allowed", {true});
    march = day_file(3);
    EXPECT_TRUE(same(march.records[2], {u32(at(2026, 3, 3, 0)), 0, 1, 0, 0, 0, 1, 0}));
    EXPECT_EQ(march.records[4].ham, 2u);

    // March a year later: last year's records are stale and the file starts afresh.
    count(at(2027, 3, 5, 9));
    EXPECT_EQ(bytes_of(daily(3)),
              make_image(997, 2, 0, {{4, {u32(at(2027, 3, 5, 0)), 1, 0, 0, 0, 0, 1, 0}}}));
    EXPECT_NO_ERRORS();
}

TEST_F(CounterTest, DailyRecordIsStaleOnlyAfterThirtyOneDays) {
    const std::time_t today = at(2026, 7, 31, 0);
    for (const int64_t age : {2678400, 2678401}) {
        SCOPED_TRACE(age);
        put(daily(7), make_image(997, 2, 0, {{0, {u32(today - age), 7, 0, 0, 0, 0, 7, 0}}}));
        count(at(2026, 7, 31, 12));
        const image july = day_file(7);
        EXPECT_EQ(july.records[0].ham, age > 2678400 ? 0u : 7u);
        EXPECT_EQ(july.records[30].ham, 1u);
    }
}

TEST_F(CounterTest, HoursThatPassedAreZeroedUpToTheCurrentOne) {
    const record old{u32(at(2026, 3, 9, 5)), 9, 0, 0, 0, 0, 9, 0};
    std::vector<std::pair<int, record>> full;
    for (int h = 0; h < 24; ++h) full.push_back({h, old});
    const std::time_t now = at(2026, 3, 11, 1, 15);
    struct {
        const char* what;
        std::time_t last;
        std::vector<int> zeroed;  // besides the current hour 1
        bool refused;
    } cases[] = {
        {"same hour", at(2026, 3, 11, 1), {}, false},
        {"three hours, wrapping past midnight", at(2026, 3, 10, 22), {0, 23}, false},
        {"exactly a day", at(2026, 3, 10, 1), {-1}, false},
        {"more than a day", at(2026, 3, 9, 19), {-1}, false},
        {"clock set back an hour", at(2026, 3, 11, 2), {}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        clear_log();
        put(hourly(), make_image(773, 2, u32(c.last), full));
        const std::string before = bytes_of(hourly());
        ow::testing::set_clock(now);
        ardvex_increment_counter_hourly(dir_.c_str(), 0, false);
        if (c.refused) {
            refused("ardvex_increment_counter_hourly", "A negative time difference is not allowed",
                    {true});
            EXPECT_EQ(bytes_of(hourly()), before) << "nothing is counted";
            continue;
        }
        EXPECT_NO_ERRORS();
        const bool all = !c.zeroed.empty() && c.zeroed[0] == -1;
        const image file = hour_file();
        EXPECT_EQ(file.word, u32(at(2026, 3, 11, 1)));
        EXPECT_EQ(file.records[1].period_start, u32(at(2026, 3, 11, 1)));
        EXPECT_EQ(file.records[1].ham, c.last == at(2026, 3, 11, 1) ? 10u : 1u);
        for (int h = 0; h < 24; ++h) {
            if (h == 1) continue;
            bool zero = all;
            for (int z : c.zeroed) zero = zero || z == h;
            EXPECT_TRUE(same(file.records[h], zero ? record{} : old)) << "hour " << h;
        }
    }
}

// Berlin leaves summer time on 25 October 2026 (03:00 CEST becomes 02:00 CET) and enters it
// on 29 March 2026 (02:00 CET becomes 03:00 CEST).
TEST_F(CounterTest, RepeatedHourKeepsTheCountsOfBothPasses) {
    count(at(2026, 10, 25, 1, 30));
    count(at(2026, 10, 25, 2, 30, 1), 1);
    count(at(2026, 10, 25, 2, 40, 1), 1);
    count(at(2026, 10, 25, 2, 15, 0), 1);  // the second pass of 02:00
    count(at(2026, 10, 25, 3, 10));
    EXPECT_NO_ERRORS();
    const image hours = hour_file();
    EXPECT_EQ(hours.records[1].ham, 1u);
    EXPECT_EQ(hours.records[2].spam, 3u);
    EXPECT_EQ(hours.records[2].period_start, u32(at(2026, 10, 25, 2, 0, 0)));
    EXPECT_EQ(hours.records[3].ham, 1u);
    EXPECT_EQ(hours.word, u32(at(2026, 10, 25, 3)));
    const record day = day_file(10).records[24];
    EXPECT_EQ(day.ham + day.spam, 5u);
    EXPECT_EQ(day.period_start, u32(at(2026, 10, 25, 0)));
}

TEST_F(CounterTest, SkippedHourIsZeroedAndTheDayDatedToItsMidnight) {
    const record old{u32(at(2026, 3, 28, 2)), 9, 0, 0, 0, 0, 9, 0};
    std::vector<std::pair<int, record>> full;
    for (int h = 0; h < 24; ++h) full.push_back({h, old});

    put(hourly(), make_image(773, 2, u32(at(2026, 3, 29, 1)), full));
    count(at(2026, 3, 29, 3, 30));  // one hour after 01:00 CET
    image hours = hour_file();
    EXPECT_TRUE(same(hours.records[2], {})) << "02:00 did not happen today";
    EXPECT_EQ(hours.records[3].ham, 1u);
    EXPECT_TRUE(same(hours.records[1], old));
    // The first message of the day came after the change: still dated to the day's midnight.
    const std::time_t start = day_file(3).records[28].period_start;
    struct tm local {};
    localtime_r(&start, &local);
    EXPECT_EQ(start, at(2026, 3, 29, 0));
    EXPECT_EQ(local.tm_mday, 29);
    EXPECT_EQ(local.tm_hour, 0);

    // A whole 23-hour day from 03:00 to 03:00: every record is a day old.
    put(hourly(), make_image(773, 2, u32(at(2026, 3, 28, 3)), full));
    count(at(2026, 3, 29, 3, 20));
    hours = hour_file();
    for (int h = 0; h < 24; ++h) EXPECT_EQ(hours.records[h].ham, h == 3 ? 1u : 0u) << h;
    EXPECT_NO_ERRORS();
}

// ---------------------------------------------------------------------------------------
// Damaged files and directories

TEST_F(CounterTest, DamagedFilesAreRewrittenFreshBeforeCounting) {
    const record junk{1, 2, 3, 4, 5, 6, 7, 8};
    struct {
        const char* what;
        bool is_daily;
        std::string bytes;
        const char* line;  // ERROR of the validity test, or none
    } cases[] = {
        {"empty", true, "", nullptr},
        {"one byte short", true, make_image(996, 2, 0, {{3, junk}}), nullptr},
        {"one byte long", true, make_image(998, 2, 0, {{3, junk}}), nullptr},
        {"version 1", true, make_image(997, 1, 0, {{3, junk}}),
         "Stats counter file is wrong version: 1"},
        {"reserved word set", true, make_image(997, 2, 1, {{3, junk}}), nullptr},
        {"hourly short", false, make_image(772, 2, 0, {{3, junk}}), nullptr},
        {"hourly long", false, make_image(4096, 2, 0, {{3, junk}}), nullptr},
        {"hourly version 3", false, make_image(773, 3, 0, {{3, junk}}),
         "Hourly stats counter file has wrong version: 3"},
    };
    const std::time_t now = at(2026, 6, 2, 11);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        clear_log();
        put(c.is_daily ? daily(6) : hourly(), c.bytes);
        count(now, 2, true);
        if (c.line != nullptr) {
            refused(c.is_daily ? "__valid_counter_file" : "__valid_counter_file_hourly", c.line,
                    {true});
        }
        EXPECT_NO_ERRORS();
        const record one{0, 0, 0, 1, 0, 0, 0, 1};
        record d = day_file(6).records.at(1), h = hour_file().records.at(11);
        d.period_start = h.period_start = 0;
        EXPECT_EQ(fs::file_size(daily(6)), 997u);
        EXPECT_EQ(fs::file_size(hourly()), 773u);
        EXPECT_TRUE(same(d, one));
        EXPECT_TRUE(same(h, one));
        EXPECT_TRUE(same(c.is_daily ? day_file(6).records[3] : hour_file().records[3], {}));
        fs::remove(daily(6));
        fs::remove(hourly());
    }
}

TEST_F(CounterTest, DirectoriesInPlaceOfTheFilesStayAndNothingIsCounted) {
    fs::create_directory(daily(8));
    fs::create_directory(hourly());
    count(at(2026, 8, 14, 16));
    // Only the open's own line: the counting calls end there.
    EXPECT_ERROR_LINE("ow_open_ex", std::strerror(EISDIR));
    EXPECT_EQ(ow_test::error_count(), 2u) << ow_test::dump();
    EXPECT_TRUE(fs::is_directory(daily(8)));
    EXPECT_TRUE(fs::is_directory(hourly()));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 2);
}

TEST_F(CounterTest, MissingOrUnusableLogDirectories) {
    ow::testing::set_clock(at(2026, 8, 14, 16));
    const std::string file = dir_ + "/plain";
    put(file, "x");
    const std::string gone = dir_ + "/gone";
    for (const char* d : {static_cast<const char*>(nullptr), "", gone.c_str(), file.c_str()}) {
        SCOPED_TRACE(d == nullptr ? "null" : d);
        clear_log();
        ardvex_increment_counter(d, 0, false);
        EXPECT_NO_ERRORS() << "the daily count gives up silently";
        ardvex_increment_counter_hourly(d, 0, false);
        if (d == nullptr || *d == '\0') {
            refused("ardvex_increment_counter_hourly", std::strerror(EINVAL), {true});
        } else {
            refused("ardvex_increment_counter_hourly",
                    "the log directory [" + std::string(d) + "] does not exist", {true});
        }
    }
    EXPECT_FALSE(fs::exists(gone));
    EXPECT_EQ(bytes_of(file), "x");
}

TEST_F(CounterTest, UnwritableLogDirectoryAndReadOnlyFileAreLeftAsTheyAre) {
    const std::string damaged = make_image(500, 2, 0, {});
    put(hourly(), damaged);
    fs::permissions(hourly(), fs::perms::owner_read | fs::perms::group_read);
    fs::permissions(dir_, fs::perms::owner_read | fs::perms::owner_exec | fs::perms::others_read |
                              fs::perms::others_exec);
    // Root writes anywhere; as another user the permissions bite.
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(seteuid(65534), 0);
    }
    count(at(2026, 9, 1, 7));
    if (root) {
        ASSERT_EQ(seteuid(0), 0);
    }
    EXPECT_ERROR_LINE("ow_open_ex", std::strerror(EACCES));
    EXPECT_EQ(ow_test::error_count(), 2u) << ow_test::dump();
    EXPECT_FALSE(fs::exists(daily(9)));
    EXPECT_EQ(bytes_of(hourly()), damaged);
}

TEST_F(CounterTest, ShortMemoryNeverLeavesAFileOfTheWrongSize) {
    ow::testing::set_clock(at(2026, 2, 10, 10));
    const long before = ow::testing::allocation_count();
    ardvex_increment_counter(dir_.c_str(), 0, false);
    ardvex_increment_counter_hourly(dir_.c_str(), 0, false);
    const long calls = ow::testing::allocation_count() - before;
    ASSERT_GT(calls, 0);
    for (long n = 1; n <= calls; ++n) {
        SCOPED_TRACE(n);
        // Start from an empty directory and from a stale month alike.
        fs::remove(hourly());
        put(daily(2), make_image(997, 2, 0, {{0, {u32(at(2025, 2, 1, 0)), 3, 0, 0, 0, 0, 3, 0}}}));
        ow::testing::fail_allocation(n, true);
        count(at(2026, 2, 10, 10));
        ow::testing::fail_allocation(0);
        EXPECT_EQ(fs::file_size(daily(2)), 997u);
        if (fs::exists(hourly())) {
            EXPECT_EQ(fs::file_size(hourly()), 773u);
        }
    }
}

// ---------------------------------------------------------------------------------------
// The record steps refuse what they cannot do

TEST_F(CounterTest, RecordStepsRefuseBadArgumentsAndFailingDescriptors) {
    const std::string einval = std::strerror(EINVAL);
    const std::string path = dir_ + "/f";
    put(path, make_image(997, 2, 0, {}));
    const int rw = open(path.c_str(), O_RDWR);
    const int ro = open(path.c_str(), O_RDONLY);
    const int wo = open(path.c_str(), O_WRONLY);
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    const int p = pipe_fds[1];  // seeks fail (ESPIPE)
    const record r{};
    auto freed = [](record* x) {
        const bool none = x == nullptr;
        std::free(x);
        return none;
    };

    refused("al_get_counter_file", einval,
            {!al_get_counter_file(nullptr, "b", 1), !al_get_counter_file("", "b", 1),
             !al_get_counter_file("d", nullptr, 1), !al_get_counter_file("d", "", 1)});
    refused("al_get_counter_file_hourly", einval,
            {!al_get_counter_file_hourly(nullptr, "b"), !al_get_counter_file_hourly("d", "")});
    refused("al_read_counter_day", einval,
            {freed(al_read_counter_day(rw, 31)), freed(al_read_counter_day(rw, -1)),
             freed(al_read_counter_day(-1, 0))});
    refused("al_write_counter_day", einval,
            {!al_write_counter_day(rw, 31, &r), !al_write_counter_day(rw, 0, nullptr)});
    refused("al_read_counter_hour", einval,
            {freed(al_read_counter_hour(rw, 24)), freed(al_read_counter_hour(-1, 0))});
    refused("al_write_counter_hour", einval,
            {!al_write_counter_hour(-1, 1, 0, &r), !al_write_counter_hour(rw, 1, 0, nullptr)});
    refused("al_seek_to_counter_hour", einval, {!al_seek_to_counter_hour(rw, 24)});
    refused("al_clear_counter_hour", einval,
            {!al_clear_counter_hour(rw, 24, 1), !al_clear_counter_hour(rw, 0, -1),
             !al_clear_counter_hour(-1, 0, 1)});
    refused("al_initialise_stat_file", einval, {!al_initialise_stat_file(-1)});
    refused("al_initialise_stat_file_hourly", einval, {!al_initialise_stat_file_hourly(-1)});
    EXPECT_TRUE(al_clear_counter_hour(rw, 5, 0));

    const std::string enomem = std::strerror(ENOMEM);
    ow::testing::fail_allocation(1);
    const bool path_failed = al_get_counter_file("d", "b", 1) == nullptr;
    refused("al_get_counter_file", enomem, {path_failed});
    ow::testing::fail_allocation(1);
    refused("al_read_counter_day", enomem, {freed(al_read_counter_day(rw, 0))});
    ow::testing::fail_allocation(1);
    refused("al_read_counter_hour", enomem, {freed(al_read_counter_hour(rw, 0))});

    // Seeks that fail.
    refused("al_seek_to_counter_day", "Failed to seek to counter record for day: 3",
            {freed(al_read_counter_day(p, 3)), !al_write_counter_day(p, 3, &r)});
    refused("al_seek_to_counter_hour", "Failed to rewind in hourly stats file",
            {freed(al_read_counter_hour(p, 5))});
    refused("al_read_last_update", "Failed to rewind in hourly stats file",
            {al_read_last_update(p) == 0});
    refused("al_write_counter_hour", "Failed to rewind in hourly stats file",
            {!al_write_counter_hour(p, 1, 5, &r)});
    refused("al_initialise_stat_file", "Failed to seek in stat file prior to write",
            {!al_initialise_stat_file(p)});
    refused("al_initialise_stat_file_hourly", "Failed to seek in hourly stat file prior to write",
            {!al_initialise_stat_file_hourly(p)});
    refused("al_clear_counter_hour", "Failed to empty hourly stat for hour: 23",
            {!al_clear_counter_hour(p, 23, 2)});
    refused("al_clear_counter_hour", "Failed to empty hourly stat record for all hours",
            {!al_clear_counter_hour(p, 23, 24)});

    // Writes and reads that fail.
    refused("al_write_counter_day", "Failed to write counter record for day: 2",
            {!al_write_counter_day(ro, 2, &r)});
    refused("al_write_counter_hour", "Failed to write counter record for hour: 7",
            {!al_write_counter_hour(ro, 1, 7, &r)});
    refused("al_initialise_stat_file", "Failed to write to stat file",
            {!al_initialise_stat_file(ro)});
    refused("al_initialise_stat_file_hourly", "Failed to write to hourly stat file",
            {!al_initialise_stat_file_hourly(ro)});
    refused("al_clear_counter_hour", "Failed to empty hourly stat for hour: 1",
            {!al_clear_counter_hour(ro, 1, 3)});
    refused("al_read_counter_day", "Failed to read record", {freed(al_read_counter_day(wo, 0))});
    refused("al_read_counter_hour", "Failed to read record", {freed(al_read_counter_hour(wo, 0))});
    refused("al_read_last_update", "Failed to read last update header from hourly stats file",
            {al_read_last_update(wo) == 0});

    for (int fd : {rw, ro, wo, pipe_fds[0], pipe_fds[1]}) close(fd);
    EXPECT_EQ(bytes_of(path), make_image(997, 2, 0, {})) << "no failed step changed the file";
}

}  // namespace

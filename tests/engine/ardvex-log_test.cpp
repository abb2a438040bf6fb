// Counter files on a pinned clock in Europe/Berlin, and the message and authentication logs on
// a tmpfs over the suite's log directory in a private mount namespace (root only).
#include "ardvex-log.h"

#include "scratch.hpp"

#include <sched.h>
#include <sys/mount.h>

#include <ctime>
#include <deque>
#include <regex>
#include <sstream>

#include "../../engine/ardvex-log-internal.hpp"
#include "ardvex_config.h"
#include "ow_internal.hpp"
#include "ow_list.h"

// Sessions in the tables name only the members they set; the rest are zero on purpose.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

namespace fs = std::filesystem;
using ow_test::refused;
using ow_test::slurp;
using ow_test::spit;
using record = ardvex_counter_record;

// Local time in Europe/Berlin; isdst picks a pass of the hour repeated in October.
std::time_t at(int y, int mo, int d, int h, int mi = 0, int isdst = -1) {
    struct tm t {};
    t.tm_year = y - 1900, t.tm_mon = mo - 1, t.tm_mday = d, t.tm_hour = h, t.tm_min = mi;
    t.tm_isdst = isdst;
    return std::mktime(&t);
}
uint32_t u32(std::time_t t) { return static_cast<uint32_t>(t); }
bool same(const record& a, const record& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

std::string daily(const std::string& dir, int month) {
    return dir + (month < 10 ? "/.counterv2.dat.0" : "/.counterv2.dat.") + std::to_string(month);
}
std::string hourly(const std::string& dir) { return dir + "/.counterv2.dat.hourly"; }

// Record n of a counter file as it lies on disk (zero when the file is too short).
record record_at(const std::string& file, int n) {
    const std::string bytes = slurp(file);
    record r{};
    if (bytes.size() >= 5 + 32u * (n + 1)) std::memcpy(&r, bytes.data() + 5 + 32 * n, 32);
    return r;
}

// A file image built by hand: version, header word, records at 5 + 32 * n.
std::string make_image(std::size_t size, uint8_t version, uint32_t word,
                       const std::vector<std::pair<int, record>>& records) {
    std::string bytes(size, '\0');
    if (size > 0) bytes[0] = static_cast<char>(version);
    if (size >= 5) std::memcpy(bytes.data() + 1, &word, 4);
    for (const auto& [n, r] : records) std::memcpy(bytes.data() + 5 + 32 * n, &r, 32);
    return bytes;
}

class CounterTest : public ow_test::ScratchTest {
   protected:
    void SetUp() override {
        ScratchTest::SetUp();
        ::setenv("TZ", "Europe/Berlin", 1);
        ::tzset();
    }
    void TearDown() override {
        ow::testing::set_clock(0);
        ::unsetenv("TZ");
        ::tzset();
        ScratchTest::TearDown();
    }
    // One message at time t, counted in both files as the message log does.
    void count(std::time_t t, uint8_t type = 0, bool authenticated = false) const {
        ow::testing::set_clock(t);
        ardvex_increment_counter(dir_.c_str(), type, authenticated);
        ardvex_increment_counter_hourly(dir_.c_str(), type, authenticated);
    }
};

// Counter files

TEST_F(CounterTest, DaysMonthsAndYearsRollOver) {
    count(at(2026, 3, 5, 10));
    count(at(2026, 3, 5, 23, 59));
    count(at(2026, 3, 6, 0));
    EXPECT_TRUE(same(record_at(daily(dir_, 3), 4), {u32(at(2026, 3, 5, 0)), 2, 0, 0, 0, 0, 2, 0}))
        << "the period start stays that of the day's first message";
    EXPECT_TRUE(same(record_at(daily(dir_, 3), 5), {u32(at(2026, 3, 6, 0)), 1, 0, 0, 0, 0, 1, 0}));

    // The same day of the next month lives in the next month's file.
    const std::string march = slurp(daily(dir_, 3));
    count(at(2026, 4, 5, 8));
    EXPECT_EQ(slurp(daily(dir_, 3)), march);
    EXPECT_TRUE(same(record_at(daily(dir_, 4), 4), {u32(at(2026, 4, 5, 0)), 1, 0, 0, 0, 0, 1, 0}));

    // A clock set back counts into the earlier day; the hourly file refuses to go back.
    count(at(2026, 3, 3, 12));
    refused("ardvex_increment_counter_hourly", "A negative time difference is not allowed", {true});
    EXPECT_EQ(record_at(daily(dir_, 3), 2).ham, 1u);

    // March a year later: last year's records are stale and the file starts afresh.
    count(at(2027, 3, 5, 9));
    EXPECT_EQ(slurp(daily(dir_, 3)),
              make_image(997, 2, 0, {{4, {u32(at(2027, 3, 5, 0)), 1, 0, 0, 0, 0, 1, 0}}}));

    // Stale means more than 31 days before today's midnight.
    for (const int64_t age : {2678400, 2678401}) {
        SCOPED_TRACE(age);
        const record old{u32(at(2026, 7, 31, 0) - age), 7, 0, 0, 0, 0, 7, 0};
        spit(daily(dir_, 7), make_image(997, 2, 0, {{0, old}}));
        count(at(2026, 7, 31, 12));
        EXPECT_EQ(record_at(daily(dir_, 7), 0).ham, age > 2678400 ? 0u : 7u);
    }
}

// Berlin leaves summer time on 25 October 2026 (03:00 CEST becomes 02:00 CET) and enters it on
// 29 March 2026 (02:00 CET becomes 03:00 CEST).
TEST_F(CounterTest, DaylightSavingChangesKeepEveryCountInItsLocalHour) {
    count(at(2026, 10, 25, 1, 30));
    count(at(2026, 10, 25, 2, 30, 1), 1);
    count(at(2026, 10, 25, 2, 15, 0), 1);  // the second pass of 02:00
    count(at(2026, 10, 25, 3, 10));
    EXPECT_EQ(record_at(hourly(dir_), 1).ham, 1u);
    EXPECT_EQ(record_at(hourly(dir_), 2).spam, 2u) << "both passes of the repeated hour";
    EXPECT_EQ(record_at(hourly(dir_), 2).period_start, u32(at(2026, 10, 25, 2, 0, 0)));
    EXPECT_EQ(record_at(hourly(dir_), 3).ham, 1u);

    const record old{u32(at(2026, 3, 28, 2)), 9, 0, 0, 0, 0, 9, 0};
    std::vector<std::pair<int, record>> all_old;
    for (int h = 0; h < 24; ++h) all_old.push_back({h, old});
    spit(hourly(dir_), make_image(773, 2, u32(at(2026, 3, 29, 1)), all_old));
    count(at(2026, 3, 29, 3, 30));  // one hour after 01:00 CET
    EXPECT_TRUE(same(record_at(hourly(dir_), 2), {})) << "02:00 did not happen today";
    EXPECT_EQ(record_at(hourly(dir_), 3).ham, 1u);
    EXPECT_TRUE(same(record_at(hourly(dir_), 1), old));
    // The day's first message came after the change, yet the day is dated to its midnight.
    EXPECT_EQ(record_at(daily(dir_, 3), 28).period_start, at(2026, 3, 29, 0));

    // From 03:00 to 03:00 over the short day: 23 hours, and every record a day old.
    spit(hourly(dir_), make_image(773, 2, u32(at(2026, 3, 28, 3)), all_old));
    count(at(2026, 3, 29, 3, 20));
    for (int h = 0; h < 24; ++h) EXPECT_EQ(record_at(hourly(dir_), h).ham, h == 3 ? 1u : 0u) << h;
    EXPECT_NO_ERRORS();
}

// An unknown type counts only the kind of session; the known types' fields are checked through
// the message log.
TEST_F(CounterTest, DamagedFilesAreRewrittenFreshBeforeCounting) {
    const record junk{1, 2, 3, 4, 5, 6, 7, 8};
    // Which file, its bytes, and the ERROR line of the validity test if it writes one.
    const std::tuple<bool, std::string, const char*> cases[] = {
        {true, make_image(996, 2, 0, {{3, junk}}), nullptr},
        {true, make_image(997, 1, 0, {{3, junk}}), "Stats counter file is wrong version: 1"},
        {true, make_image(997, 2, 1, {{3, junk}}), nullptr},  // reserved word set
        {false, make_image(772, 2, 0, {{3, junk}}), nullptr},
        {false, make_image(773, 3, 0, {{3, junk}}),
         "Hourly stats counter file has wrong version: 3"},
    };
    const std::time_t now = at(2026, 6, 2, 11);
    for (const auto& [is_daily, bytes, line] : cases) {
        SCOPED_TRACE(bytes.size());
        for (const auto& file : {daily(dir_, 6), hourly(dir_)}) fs::remove(file);
        spit(is_daily ? daily(dir_, 6) : hourly(dir_), bytes);
        count(now, 7, true);
        if (line != nullptr) {
            EXPECT_ERROR_LINE(is_daily ? "__valid_counter_file" : "__valid_counter_file_hourly",
                              line);
        }
        EXPECT_ERROR_LINE("ardvex_increment_counter", "Unknown log type: 7");
        EXPECT_ERROR_LINE("ardvex_increment_counter_hourly", "Unknown log type: 7");
        EXPECT_EQ(ow_test::error_count(), line != nullptr ? 3u : 2u) << ow_test::dump();
        clear_log();
        EXPECT_EQ(slurp(daily(dir_, 6)),
                  make_image(997, 2, 0, {{1, {u32(at(2026, 6, 2, 0)), 0, 0, 0, 0, 0, 0, 1}}}));
        EXPECT_EQ(slurp(hourly(dir_)),
                  make_image(773, 2, u32(now), {{11, {u32(now), 0, 0, 0, 0, 0, 0, 1}}}));
    }
}

TEST_F(CounterTest, UnusablePlacesAreReportedAndLeftAsTheyWere) {
    // No usable log directory: the daily count gives up silently, the hourly one says why.
    const std::string file = path("plain"), gone = path("gone");
    spit(file, "x");
    for (const char* d : {static_cast<const char*>(nullptr), "", gone.c_str(), file.c_str()}) {
        ardvex_increment_counter(d, 0, false);
        EXPECT_NO_ERRORS();
        ardvex_increment_counter_hourly(d, 0, false);
        refused("ardvex_increment_counter_hourly",
                d == nullptr || *d == '\0'
                    ? std::strerror(EINVAL)
                    : "the log directory [" + std::string(d) + "] does not exist",
                {true});
    }
    EXPECT_FALSE(fs::exists(gone));

    // A directory and a damaged file this user may not write: both stay as they are.
    spit(hourly(dir_), "damaged", 0400);
    fs::permissions(dir_, fs::perms(0505));
    const bool root = geteuid() == 0;  // root writes anywhere: drop to another user
    ASSERT_TRUE(!root || seteuid(65534) == 0);
    count(at(2026, 9, 1, 7));
    ASSERT_TRUE(!root || seteuid(0) == 0);
    fs::permissions(dir_, fs::perms::owner_all);
    refused("ow_open_ex", std::strerror(EACCES), {true, true});
    EXPECT_FALSE(fs::exists(daily(dir_, 9)));
    EXPECT_EQ(slurp(hourly(dir_)), "damaged");
}

TEST_F(CounterTest, ShortMemoryNeverLeavesAFileOfTheWrongSize) {
    const long before = ow::testing::allocation_count();
    count(at(2026, 2, 10, 10));
    const long calls = ow::testing::allocation_count() - before;
    for (long n = 1; n <= calls; ++n) {
        SCOPED_TRACE(n);
        fs::remove(hourly(dir_));  // from no file and from a stale month alike
        spit(daily(dir_, 2),
             make_image(997, 2, 0, {{0, {u32(at(2025, 2, 1, 0)), 3, 0, 0, 0, 0, 3, 0}}}));
        ow::testing::fail_allocation(n, true);
        count(at(2026, 2, 10, 10));
        ow::testing::fail_allocation(0);
        EXPECT_EQ(fs::file_size(daily(dir_, 2)), 997u);
        EXPECT_TRUE(!fs::exists(hourly(dir_)) || fs::file_size(hourly(dir_)) == 773u);
    }
}

TEST_F(CounterTest, RecordStepsRefuseWhatTheyCannotDo) {
    const std::string file = path("f"), einval = std::strerror(EINVAL);
    spit(file, make_image(997, 2, 0, {}));
    const int rw = open(file.c_str(), O_RDWR), ro = open(file.c_str(), O_RDONLY);
    const int wo = open(file.c_str(), O_WRONLY);
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    const int p = pipe_fds[1];  // seeks fail (ESPIPE)
    const record r{};
    using none = ow::unique_cptr<record>;

    refused("al_get_counter_file", einval, {!al_get_counter_file("d", "", 1)});
    refused("al_get_counter_file_hourly", einval, {!al_get_counter_file_hourly("d", "")});
    refused("al_clear_counter_hour", einval,
            {!al_clear_counter_hour(rw, 24, 1), !al_clear_counter_hour(rw, 0, -1)});
    EXPECT_TRUE(al_clear_counter_hour(rw, 0, 1) && al_clear_counter_hour(rw, 23, 1));
    ow::testing::fail_allocation(1);
    refused("al_read_counter_hour", std::strerror(ENOMEM), {!none(al_read_counter_hour(rw, 0))});

    const std::tuple<const char*, const char*, bool> steps[] = {
        {"al_seek_to_counter_day", "Failed to seek to counter record for day: 3",
         !none(al_read_counter_day(p, 3))},
        {"al_seek_to_counter_hour", "Failed to rewind in hourly stats file",
         !none(al_read_counter_hour(p, 5))},
        {"al_initialise_stat_file", "Failed to seek in stat file prior to write",
         !al_initialise_stat_file(p)},
        {"al_initialise_stat_file_hourly", "Failed to seek in hourly stat file prior to write",
         !al_initialise_stat_file_hourly(p)},
        {"al_clear_counter_hour", "Failed to empty hourly stat record for all hours",
         !al_clear_counter_hour(p, 23, 24)},
        {"al_clear_counter_hour", "Failed to empty hourly stat for hour: 1",
         !al_clear_counter_hour(ro, 1, 3)},
        {"al_write_counter_day", "Failed to write counter record for day: 2",
         !al_write_counter_day(ro, 2, &r)},
        {"al_write_counter_hour", "Failed to write counter record for hour: 7",
         !al_write_counter_hour(ro, 1, 7, &r)},
        {"al_initialise_stat_file", "Failed to write to stat file", !al_initialise_stat_file(ro)},
        {"al_initialise_stat_file_hourly", "Failed to write to hourly stat file",
         !al_initialise_stat_file_hourly(ro)},
        {"al_read_counter_day", "Failed to read record", !none(al_read_counter_day(wo, 0))},
        {"al_read_last_update", "Failed to read last update header from hourly stats file",
         al_read_last_update(wo) == 0},
    };
    for (const auto& [func, message, failed] : steps) {
        SCOPED_TRACE(message);
        EXPECT_TRUE(failed);
        EXPECT_ERROR_LINE(func, message);
    }
    for (int fd : {rw, ro, wo, pipe_fds[0], pipe_fds[1]}) close(fd);
    EXPECT_EQ(slurp(file), make_image(997, 2, 0, {})) << "no failed step changed the file";
}

// Message and authentication logs

// Puts a tmpfs over the suite's log directory (over its deepest existing parent when this
// machine has none), seen only by this process and its children. False without root.
bool private_log_directory() {
    static const bool ready = [] {
        if (geteuid() != 0 || unshare(CLONE_NEWNS) != 0) return false;
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
        const fs::path log_dir = fs::path(ARDVEX_LOG_DIR).parent_path();  // drops the "/"
        fs::path base = log_dir;
        while (!fs::exists(base)) base = base.parent_path();
        if (base == base.root_path()) return false;
        if (mount("tmpfs", base.c_str(), "tmpfs", 0, "mode=0755") != 0) return false;
        std::error_code ec;
        return fs::create_directories(log_dir, ec) || fs::is_directory(log_dir);
    }();
    return ready;
}

const std::string kLogDir = ARDVEX_LOG_DIR;
const std::string kAxlog = kLogDir + "axlog";

class MessageLogTest : public CounterTest {
   protected:
    char* keep(const std::string& s) { return store_.emplace_back(s).data(); }
    void SetUp() override {
        CounterTest::SetUp();
        if (!private_log_directory()) GTEST_SKIP() << "needs root for a private log directory";
        std::error_code ec;
        fs::create_directories(kLogDir, ec);
        for (const auto& e : fs::directory_iterator(kLogDir)) fs::remove_all(e.path(), ec);
        ow::testing::set_clock(at(2026, 7, 4, 9, 8) + 7);
        log_program_name = "smtpd";
        s_.ip = keep("192.0.2.7"), s_.port = keep("2525"), s_.rdns = keep("mx.example.org");
        s_.helo = keep("mx.example.org"), s_.mail_from = keep("a@example.org");
        s_.rcpt_to = keep("b@example.net"), s_.country = keep("DE"), s_.tls = true;
    }
    void TearDown() override {
        log_program_name = nullptr;
        ow_destroy_list(&s_.user_log_dirs, free);
        CounterTest::TearDown();
    }
    void add_user_dir(std::string dir) {
        ow_append_list_entry(&s_.user_log_dirs, dir.data(), dir.size() + 1, true);
    }
    std::string head(const char* program = "smtpd") const {
        return "2026-07-04 09:08:07 " + std::string(program) + "[" + std::to_string(getpid()) +
               "]: ";
    }
    static constexpr const char* kTail =
        ": mua=[no:(null)],ip=[192.0.2.7:mx.example.org:DE],port=<2525>,tls=<yes>,"
        "helo=<mx.example.org>,from=<a@example.org>,rcpt=<b@example.net>";

    spam_session s_{};
    std::deque<std::string> store_;
};

TEST_F(MessageLogTest, LinesAreLaidOutPerTypeAndCounted) {
    const std::pair<const char*, const char*> cases[] = {
        {"ignored", "HAM"},          {nullptr, "SPAM[NULL]"},     {"listed", "EXEMPT[listed]"},
        {"fast", "RATELIMIT[fast]"}, {"many", "RATELIMIT[many]"}, {"bounce", "NDR"},
        {"held", "QUARANTINE[held]"}};
    std::string expected;
    for (uint8_t type = 0; type < std::size(cases); ++type) {
        log_message(&s_, cases[type].first, type);
        expected += head() + cases[type].second + kTail + "\r\n";
    }
    log_message(&s_, "x", 7);
    log_message(nullptr, "x", 1);
    EXPECT_EQ(slurp(kAxlog), expected);
    // NDR counts as ham and quarantine as spam.
    EXPECT_TRUE(same(record_at(hourly(kLogDir), 9), {u32(at(2026, 7, 4, 9)), 2, 2, 1, 1, 1, 7, 0}));
    EXPECT_NO_ERRORS();
}

TEST_F(MessageLogTest, MissingFieldsFallBackAsLaidOut) {
    // A session and part of its line.
    const std::pair<spam_session, std::string> cases[] = {
        {{.ip = s_.ip, .port = s_.port, .auth_user = keep("alice"), .ptr_state = SPAM_PTR_TEMPFAIL},
         "mua=[no:(null)],ip=[192.0.2.7:(timeout):(null)],port=<2525>"},
        {{.auth_user = keep("alice"), .authenticated = true},
         head("(null)") +
             "SPAM[r]: mua=[yes:alice],ip=[(null):(null):(null)],port=<(unknown)>,tls=<no>,"
             "helo=<(null)>,from=<(null)>,rcpt=<(null)>\r\n"},
    };
    log_program_name = nullptr;
    for (auto [session, expected] : cases) {
        SCOPED_TRACE(expected);
        fs::remove(kAxlog);
        log_message(&session, "r", 1);
        EXPECT_NE(slurp(kAxlog).find(expected), std::string::npos) << slurp(kAxlog);
    }
}

TEST_F(MessageLogTest, ControlBytesAndOverLongFieldsCannotBreakOrLoseTheLine) {
    log_program_name = "sm\ntpd";
    s_.helo = keep("evil\r\n2026-07-04 09:08:07 smtpd[1]: HAM: forged");
    s_.rcpt_to = keep("j\xc3\xb6rg@example.org");
    log_message(&s_, "a\tb\x7f", 1);
    EXPECT_EQ(slurp(kAxlog),
              head("sm?tpd") +
                  "SPAM[a?b?]: mua=[no:(null)],ip=[192.0.2.7:mx.example.org:DE],"
                  "port=<2525>,tls=<yes>,helo=<evil??2026-07-04 09:08:07 smtpd[1]: "
                  "HAM: forged>,from=<a@example.org>,rcpt=<j\xc3\xb6rg@example.org>\r\n");

    fs::remove(kAxlog);
    s_.helo = keep(std::string(5000, 'h'));
    s_.mail_from = keep(std::string(3000, 'f'));
    log_message(&s_, std::string(2000, 'r').c_str(), 1);
    const std::string line = slurp(kAxlog);
    // As long as a log write may be, but for what one cap over three fields cannot share.
    EXPECT_TRUE(line.size() >= 1020 && line.size() <= 1022) << line.size();
    static const std::regex shape(
        R"(.*: SPAM\[(r+)\.\.\.\]: mua=\[no:\(null\)\],ip=\[192\.0\.2\.7:mx\.example\.org:DE\],)"
        R"(port=<2525>,tls=<yes>,helo=<(h+)\.\.\.>,from=<(f+)\.\.\.>,rcpt=<j[^>]+>\r\n)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, shape)) << line;
    EXPECT_TRUE(m.length(1) == m.length(2) && m.length(2) == m.length(3)) << "one cap for all";

    s_.auth_user = keep(std::string(4000, 'u'));
    log_auth_message(&s_, ARDVEX_AUTH_BLOCK, "x\ry");
    const std::string auth = slurp(kLogDir + "axauthlog");
    EXPECT_EQ(auth.size(), 1022u) << "one long field takes all the room left";
    EXPECT_NO_ERRORS();
}

TEST_F(MessageLogTest, UserLogsGetTheSameLineAndTheirOwnCounts) {
    const std::string first = dir_ + "/u1/", second = dir_ + "/u2";
    for (const std::string& d : {first, second}) fs::create_directory(d);
    for (const std::string& d : {first, std::string(), second}) add_user_dir(d);
    log_message(&s_, "spam", 1);
    const std::string line = head() + "SPAM[spam]" + kTail + "\r\n";
    for (const std::string& d : {kLogDir, first, second + "/"}) {
        EXPECT_EQ(slurp(d + "axlog"), line) << d;
        EXPECT_EQ(record_at(daily(d, 7), 3).spam + record_at(hourly(d), 9).spam, 2u) << d;
    }
    EXPECT_NO_ERRORS();

    // The first directory fails: the loop ends there and the second is not written.
    ow_destroy_list(&s_.user_log_dirs, free);
    add_user_dir(dir_ + "/gone");
    add_user_dir(second);
    log_message(&s_, "spam", 1);
    refused("log_message", "failed to open or create user log...", {true});
    EXPECT_EQ(slurp(kAxlog), line + line);
    EXPECT_EQ(slurp(second + "/axlog"), line);
}

TEST_F(MessageLogTest, AuthenticationOutcomesAndRefusals) {
    s_.rdns = nullptr;
    s_.ptr_state = SPAM_PTR_TEMPFAIL;  // no "(timeout)" in this log
    s_.auth_user = keep("alice");
    log_auth_message(&s_, ARDVEX_AUTH_PASS, nullptr);
    log_auth_message(&s_, ARDVEX_AUTH_BLOCK, "bad password");
    char* names[] = {keep("c.example"), nullptr};
    s_.ptr_names = names, s_.auth_user = nullptr, s_.port = nullptr;
    log_auth_message(&s_, ARDVEX_AUTH_EXEMPT, "trusted");
    const std::string rest = ": ip=[192.0.2.7:(null):DE],port=<2525>,tls=<yes>,auth=<alice>\r\n";
    const std::string written = slurp(kLogDir + "axauthlog");
    EXPECT_EQ(written, head() + "PASS" + rest + head() + "BLOCK[bad password]" + rest + head() +
                           "EXEMPT[trusted]: ip=[192.0.2.7:c.example:DE],port=<(unknown)>,"
                           "tls=<yes>,auth=<(null)>\r\n");

    const std::tuple<spam_session*, int, const char*> invalid[] = {
        {nullptr, 1, "r"}, {&s_, 0, "r"}, {&s_, 4, "r"}, {&s_, 2, ""}, {&s_, 3, nullptr}};
    for (const auto& [s, type, reason] : invalid) log_auth_message(s, type, reason);
    refused("log_auth_message", std::strerror(EINVAL), {true, true, true, true, true});
    EXPECT_EQ(slurp(kLogDir + "axauthlog"), written);
}

TEST_F(MessageLogTest, UnusableSharedLogEndsTheCallQuietly) {
    add_user_dir(dir_);
    fs::remove(kLogDir);  // no log directory at all
    log_message(&s_, "r", 1);
    log_auth_message(&s_, ARDVEX_AUTH_BLOCK, "r");
    refused("ow_open_ex", std::strerror(ENOENT), {true, true});
    EXPECT_NO_ERRORS();
    EXPECT_TRUE(fs::is_empty(dir_)) << "neither counted nor written elsewhere";

    fs::create_directory(kLogDir);
    ow::testing::fail_allocation(1);
    log_message(&s_, "r", 1);
    refused("log_message", std::strerror(ENOMEM), {true});
    EXPECT_TRUE(fs::is_empty(kLogDir));
}

// Eight processes log at once into one directory. ARDVEX_LOAD_MESSAGES sets the messages per
// process (default 400, for the sanitizer builds); the full run uses 10000.
TEST_F(MessageLogTest, ConcurrentProcessesLoseNoCountAndTearNoLine) {
    constexpr int kProcesses = 8;
    const char* size = std::getenv("ARDVEX_LOAD_MESSAGES");
    const int per_process = size != nullptr ? std::atoi(size) : 400;
    ASSERT_GT(per_process, 0);
    const uint32_t total = kProcesses * per_process;

    ::unsetenv("VERBOSEDEBUG");  // children log quietly
    ow::testing::reset_debug_decision();
    ow_set_log_function(nullptr);
    log_program_name = "load";
    for (int p = 0; p < kProcesses; ++p) {
        if (fork() == 0) {
            spam_session s{};
            s.ip = keep("192.0.2." + std::to_string(p + 1));
            for (int i = 0; i < per_process; ++i) {
                s.mail_from = keep("p" + std::to_string(p) + "-" + std::to_string(i));
                log_message(&s, "rule", 1);
            }
            _exit(0);
        }
    }
    for (int p = 0; p < kProcesses; ++p) {
        int status = 0;
        EXPECT_TRUE(wait(&status) > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    ow_set_log_function(&ow_test::capture_sink);

    for (record r : {record_at(daily(kLogDir, 7), 3), record_at(hourly(kLogDir), 9)}) {
        r.period_start = 0;
        EXPECT_TRUE(same(r, {0, 0, total, 0, 0, 0, total, 0})) << "spam " << r.spam;
    }
    static const std::regex shape(
        R"(2026-07-04 09:08:07 load\[\d+\]: SPAM\[rule\]: mua=\[no:\(null\)\],)"
        R"(ip=\[192\.0\.2\.(\d):\(null\):\(null\)\],)"
        R"(port=<\(unknown\)>,tls=<no>,helo=<\(null\)>,from=<p(\d)-(\d+)>,rcpt=<\(null\)>\r)");
    std::vector<int> next(10);  // per process, the sequence number due next
    std::istringstream lines(slurp(kAxlog));
    uint32_t written = 0;
    for (std::string line; std::getline(lines, line); ++written) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, shape) && std::stoi(m[1]) == std::stoi(m[2]) + 1 &&
                    std::stoi(m[3]) == next[std::stoi(m[2])]++)
            << "torn or out of order: " << line;
    }
    EXPECT_EQ(written, total);
}

}  // namespace

// Tests of the stopwatch, the effective-user switch (for real, as root, with a service
// account) and the environment lookup of ow_compat.
#include "ow_clibs.h"

#include <pwd.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "log_capture.hpp"
#include "ow_compat.h"
#include "ow_internal.hpp"

namespace {

using ClibsTest = ow_test::LogCaptureTest;

TEST_F(ClibsTest, StopwatchMeasuresFromOneStart) {
    ow_stopwatch sw;
    std::memset(&sw, 0x5A, sizeof sw);
    ASSERT_TRUE(ow_stopwatch_start(&sw));
    EXPECT_EQ(sw.stop_sec, 0);  // start clears the whole record
    usleep(250000);
    const double first = ow_stopwatch_stop(&sw);
    EXPECT_GE(first, 0.25);
    EXPECT_LT(first, 1.0);
    usleep(50000);
    const double second = ow_stopwatch_stop(&sw);
    EXPECT_GE(second, first + 0.05) << "a second stop must measure from the same start";
    EXPECT_NO_ERRORS();
}

// A start late in one second and a stop early in a later one: the microseconds borrow a
// second, and the DEBUG line shows the corrected pair.
TEST_F(ClibsTest, StopwatchBorrowsASecondForMicroseconds) {
    timeval now{};
    gettimeofday(&now, nullptr);
    ow_stopwatch sw{now.tv_sec - 2, 999999, 0, 0};
    const double elapsed = ow_stopwatch_stop(&sw);
    long secs = -1;
    long usecs = -1;
    for (const auto& line : lines()) {
        std::sscanf(line.text.c_str(), "%*s DEBUG ow_stopwatch_stop(): %ld secs %ld usecs", &secs,
                    &usecs);
    }
    ASSERT_NE(secs, -1) << ow_test::dump();
    EXPECT_GE(secs, 1);
    EXPECT_GE(usecs, 0);
    EXPECT_LT(usecs, 1000000);
    EXPECT_NEAR(elapsed, static_cast<double>(secs) + usecs / 1e6, 1e-6);
    EXPECT_GE(elapsed, 1.0);
}

class RunAsTest : public ow_test::LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        if (geteuid() != 0) GTEST_SKIP() << "switching users needs root; running as " << geteuid();
        // A throwaway service account, created once and left for the next run.
        if (getpwnam(kAccount) == nullptr) {
            const std::string cmd = std::string("useradd -r -M -s /usr/sbin/nologin ") + kAccount;
            if (std::system((cmd + " >/dev/null 2>&1").c_str()) != 0 ||
                getpwnam(kAccount) == nullptr) {
                GTEST_SKIP() << "cannot create the service account " << kAccount;
            }
        }
        account_uid_ = getpwnam(kAccount)->pw_uid;
        nobody_uid_ = getpwnam("nobody")->pw_uid;
    }
    void TearDown() override {
        // Whatever a failed test left behind, the rest of the run goes on as root.
        if (geteuid() != 0) seteuid(0);
        LogCaptureTest::TearDown();
    }
    static constexpr const char* kAccount = "ardvex-test";
    uid_t account_uid_ = 0;
    uid_t nobody_uid_ = 0;
};

TEST_F(RunAsTest, RootLendsItsEffectiveIdAndTakesItBack) {
    ASSERT_TRUE(ow_set_run_as(kAccount));
    EXPECT_EQ(geteuid(), account_uid_);
    EXPECT_EQ(getuid(), 0u) << "the real id must stay root";
    // The switch is real: files are now created as the account.
    char dir[] = "/tmp/ow_runas.XXXXXX";
    ASSERT_TRUE(seteuid(0) == 0 && mkdtemp(dir) != nullptr && chmod(dir, 0777) == 0);
    ASSERT_TRUE(ow_set_run_as(kAccount));
    const std::string file = std::string(dir) + "/made";
    FILE* f = std::fopen(file.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    struct stat st {};
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, account_uid_);

    EXPECT_TRUE(ow_set_run_as(kAccount)) << "already running as the account";
    EXPECT_TRUE(ow_set_run_as("nobody")) << "from one lent account to another";
    EXPECT_EQ(geteuid(), nobody_uid_);
    EXPECT_TRUE(ow_set_run_as("root"));
    EXPECT_EQ(geteuid(), 0u);
    EXPECT_TRUE(ow_set_run_as("root")) << "root asked to stay root";
    EXPECT_NO_ERRORS();
    unlink(file.c_str());
    rmdir(dir);
}

// A process that has given root up for good can only stay what it is.
TEST_F(RunAsTest, WithoutRootOnlyTheCurrentUserIsAccepted) {
    const pid_t child = fork();
    if (child == 0) {
        ow_test::captured().clear();
        const bool dropped = setresuid(account_uid_, account_uid_, account_uid_) == 0;
        const bool same = ow_set_run_as(kAccount);
        const bool other = ow_set_run_as("nobody");
        const bool root = ow_set_run_as("root");
        const bool logged = ow_test::has_error(
            "ow_set_run_as", std::string("This program must be run as 'root' or 'nobody' user"));
        _exit(dropped && same && !other && !root && logged && geteuid() == account_uid_ ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(ClibsTest, GetenvHandsOutAPrivateCopy) {
    setenv("OW_TEST_VAR", "value one", 1);
    setenv("OW_TEST_EMPTY", "", 1);
    unsetenv("OW_TEST_MISSING");
    char* value = ow::dup_cstr("old");
    ASSERT_TRUE(__getenv("OW_TEST_VAR", &value));  // the old string is freed (ASan checks)
    EXPECT_STREQ(value, "value one");
    setenv("OW_TEST_VAR", "changed", 1);
    EXPECT_STREQ(value, "value one") << "the copy must not follow the environment";
    EXPECT_TRUE(ow_test::has_debug("__getenv", "variable [OW_TEST_VAR] found [value one]"));

    ASSERT_TRUE(__getenv("OW_TEST_EMPTY", &value));
    EXPECT_STREQ(value, "");

    char* const kept = value;
    EXPECT_FALSE(__getenv("OW_TEST_MISSING", &value));
    EXPECT_EQ(value, kept);
    EXPECT_TRUE(ow_test::has_debug("__getenv", "variable [OW_TEST_MISSING] not found"));
    EXPECT_NO_ERRORS();

    ow::testing::fail_allocation(1);
    EXPECT_FALSE(__getenv("OW_TEST_VAR", &value));
    EXPECT_EQ(value, kept) << "a failed copy must leave the caller's string alone";
    EXPECT_ERROR_LINE("__getenv", std::strerror(ENOMEM));
    std::free(value);
}

// Each refusal gives its failure value and its own ERROR line.
TEST_F(ClibsTest, RefusalsGiveTheFailureValueAndTheirLine) {
    ow_stopwatch cleared{};
    char* value = nullptr;
    const std::string inval = std::strerror(EINVAL);
    const struct {
        const char* func;
        std::string message;
        std::function<bool()> failed;
    } cases[] = {
        {"ow_stopwatch_start", inval, [] { return !ow_stopwatch_start(nullptr); }},
        {"ow_stopwatch_stop", inval, [] { return ow_stopwatch_stop(nullptr) == -1.0; }},
        {"ow_stopwatch_stop", inval, [&] { return ow_stopwatch_stop(&cleared) == -1.0; }},
        {"ow_set_run_as", inval, [] { return !ow_set_run_as(nullptr); }},
        {"ow_set_run_as", inval, [] { return !ow_set_run_as(""); }},
        // The line feed of the message is shown as '?' by the log.
        {"ow_set_run_as",
         std::string("Error retrieving ardvex-no-such-user UID: [") + std::strerror(ENOENT) + "]?",
         [] { return !ow_set_run_as("ardvex-no-such-user"); }},
        {"__getenv", inval, [&] { return !__getenv(nullptr, &value); }},
        {"__getenv", inval, [&] { return !__getenv("", &value); }},
        {"__getenv", inval, [] { return !__getenv("OW_TEST_VAR", nullptr); }},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE("row " + std::to_string(i) + ": " + cases[i].func);
        clear_log();
        EXPECT_TRUE(cases[i].failed());
        EXPECT_ERROR_LINE(cases[i].func, cases[i].message);
        EXPECT_EQ(ow_test::error_count(), 1u);
    }
    EXPECT_EQ(value, nullptr);
}

}  // namespace

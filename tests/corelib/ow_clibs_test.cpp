// The stopwatch, the effective-user switch (for real, as root) and ow_compat's getenv.
#include "ow_clibs.h"

#include "scratch.hpp"

#include <pwd.h>

#include "ow_compat.h"
#include "ow_internal.hpp"

namespace {

using ClibsTest = ow_test::LogCaptureTest;
using ow_test::refused;

// A stop early in a later second borrows one; a second stop measures from the same start.
TEST_F(ClibsTest, StopwatchMeasuresFromOneStartAndBorrowsASecond) {
    ow_stopwatch sw;
    std::memset(&sw, 0x5A, sizeof sw);
    ASSERT_TRUE(ow_stopwatch_start(&sw));
    EXPECT_EQ(sw.stop_sec, 0);                      // start clears the whole record
    sw = {sw.start_sec - 2, 999999, 0, 777777777};  // the stop must overwrite its pair
    const double elapsed = ow_stopwatch_stop(&sw);
    EXPECT_GT(elapsed, 1.0);
    EXPECT_TRUE(sw.stop_usec >= 0 && sw.stop_usec < 1000000) << sw.stop_usec;
    EXPECT_GE(ow_stopwatch_stop(&sw), elapsed);
    EXPECT_NO_ERRORS();
}

// Root lends its effective id and takes it back; without root a process stays what it is.
TEST_F(ClibsTest, RunAsLendsTheEffectiveIdOnlyFromRoot) {
    if (geteuid() != 0) GTEST_SKIP() << "switching users needs root; running as " << geteuid();
    const char* account = "daemon";  // neither root nor nobody
    if (getpwnam(account) == nullptr) GTEST_SKIP() << "no account " << account;
    const uid_t uid = getpwnam(account)->pw_uid;
    std::string euids;  // after each switch; the real id stays root throughout
    for (const char* user : {account, account, "nobody", "root", "root"}) {
        EXPECT_TRUE(ow_set_run_as(user)) << user;
        euids += std::to_string(geteuid()) + "/" + std::to_string(getuid()) + " ";
    }
    const std::string lent = std::to_string(uid) + "/0 ";
    EXPECT_EQ(euids, lent + lent + std::to_string(getpwnam("nobody")->pw_uid) + "/0 0/0 0/0 ");
    EXPECT_NO_ERRORS();

    const pid_t child = fork();
    if (child == 0) {
        clear_log();
        const bool ok = setresuid(uid, uid, uid) == 0 && ow_set_run_as(account) &&
                        !ow_set_run_as("nobody") && !ow_set_run_as("root") && geteuid() == uid &&
                        ow_test::has_error("ow_set_run_as",
                                           "This program must be run as 'root' or 'nobody' user");
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    EXPECT_TRUE(waitpid(child, &status, 0) == child && WIFEXITED(status) &&
                WEXITSTATUS(status) == 0);
    if (geteuid() != 0) seteuid(0);  // whatever went wrong, the run goes on as root
}

TEST_F(ClibsTest, GetenvHandsOutAPrivateCopyAndRefusals) {
    setenv("OW_TEST_VAR", "value one", 1);
    setenv("OW_TEST_EMPTY", "", 1);
    unsetenv("OW_TEST_MISSING");
    char* value = ow::dup_cstr("old");
    ASSERT_TRUE(__getenv("OW_TEST_VAR", &value));  // the old string is freed (ASan checks)
    setenv("OW_TEST_VAR", "changed", 1);
    EXPECT_STREQ(value, "value one") << "the copy must not follow the environment";
    ASSERT_TRUE(__getenv("OW_TEST_EMPTY", &value) && *value == '\0') << value;
    char* const kept = value;
    EXPECT_FALSE(__getenv("OW_TEST_MISSING", &value));
    EXPECT_NO_ERRORS();
    ow::testing::fail_allocation(1);
    EXPECT_FALSE(__getenv("OW_TEST_VAR", &value));
    EXPECT_ERROR_LINE("__getenv", std::strerror(ENOMEM));
    clear_log();

    ow_stopwatch cleared{};
    const std::string inval = std::strerror(EINVAL);
    refused("ow_stopwatch_start", inval, {!ow_stopwatch_start(nullptr)});
    refused("ow_stopwatch_stop", inval,
            {ow_stopwatch_stop(nullptr) == -1.0, ow_stopwatch_stop(&cleared) == -1.0});
    refused("ow_set_run_as", inval, {!ow_set_run_as("")});
    // The line feed of the message is shown as '?' by the log.
    refused(
        "ow_set_run_as",
        std::string("Error retrieving ardvex-no-such-user UID: [") + std::strerror(ENOENT) + "]?",
        {!ow_set_run_as("ardvex-no-such-user")});
    refused("__getenv", inval, {!__getenv("", &value), !__getenv("OW_TEST_VAR", nullptr)});
    EXPECT_EQ(value, kept) << "a missing variable, a failed copy or a refusal changed it";
    std::free(value);
}

}  // namespace

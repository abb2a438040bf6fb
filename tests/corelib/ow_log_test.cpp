// The diagnostic lines: format, priority, cut, printable pass, debug switch and memory failures.
#include "ow_log.h"

#include "scratch.hpp"

#include "ow_internal.hpp"

namespace {

using ow_test::captured;
using Log = ow_test::LogCaptureTest;

// The captured lines as "priority text" lines.
std::string all_lines() {
    std::string out;
    for (const auto& l : captured()) out += std::to_string(l.priority) + " " + l.text + "\n";
    return out;
}

// A message is never used as a format; the position names the file without directories.
TEST_F(Log, LinesCarryTheirFormatPriorityAndPrintableText) {
    ow_log_error("ow_demo", "ow_demo.cpp", 12, "failed: %d", 5);
    ow_log_debug("ow_demo", "ow_demo.cpp", 13, "step %s", "two");
    ow_log_info("metrics %s", "100%d\tposted");
    ow_log_info("%s", std::string(300, 'x').c_str());
    ow_log_error("f", "m.cpp", 1, "%s", "tab\there\nnew\r\x01\x7f\xc3\xa9 100%d");
    EXPECT_EQ(all_lines(),
              "3 ow_demo.cpp:12 ERROR ow_demo(): failed: 5\n"
              "7 ow_demo.cpp:13 DEBUG ow_demo(): step two\n"
              "6 metrics 100%d?posted\n6 " +
                  std::string(254, 'x') + "\n3 m.cpp:1 ERROR f(): tab?here?new????? 100%d\n");
    clear_log();
    OW_ERROR("%s", "where");
    EXPECT_EQ(all_lines().rfind("3 ow_log_test.cpp:", 0), 0u) << all_lines();
}

TEST_F(Log, MissingPiecesOrSinkWriteNothingAndDebugIsDecidedOnce) {
    ow_log_error(nullptr, "m.cpp", 1, "x");
    ow_log_error("f", "m.cpp", 1, nullptr);
    ow_log_debug(nullptr, "m.cpp", 1, "x");
    ow_log_info(nullptr);
    ::unsetenv("VERBOSEDEBUG");
    ow::testing::reset_debug_decision();
    ow_log_debug("f", "m.cpp", 1, "hidden");
    ::setenv("VERBOSEDEBUG", "", 1);  // an empty value counts, but only when next decided
    ow_log_debug("f", "m.cpp", 2, "still hidden");
    ow::testing::reset_debug_decision();
    ow_log_debug("f", "m.cpp", 3, "shown");
    ow_set_log_function(nullptr);
    ow_log_error("f", "m.cpp", 1, "x");
    ow_log_oom("f", "m.cpp", 1);
    EXPECT_EQ(all_lines(), "7 m.cpp:3 DEBUG f(): shown\n");
}

int g_handler_calls = 0;
std::size_t g_lines_when_handler_ran = 0;

TEST_F(Log, FailedCallocReportsThenCallsTheHandler) {
    ow_set_oom_handler([] {
        ++g_handler_calls;
        g_lines_when_handler_ran = captured().size();
    });
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ow_calloc("caller", "caller.cpp", 77, 4, 8), nullptr);
    EXPECT_EQ(g_lines_when_handler_ran, 1u);
    // count * size overflowing is an allocation failure, not a short block.
    EXPECT_EQ(ow_calloc("caller", "caller.cpp", 78, SIZE_MAX, 2), nullptr);
    EXPECT_EQ(g_handler_calls, 2);
    EXPECT_EQ(captured()[0].text, std::string("caller.cpp:77 ERROR caller(): ") + strerror(ENOMEM));
    void* block = ow_calloc("caller", "caller.cpp", 79, 3, 5);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(std::memcmp(block, std::string(15, '\0').data(), 15), 0);
    std::free(block);
}

TEST_F(Log, StdoutSinkPrintsTheTextAsItIs) {
    testing::internal::CaptureStdout();
    ow_log_stdout(3, "a\tb %d", 7);
    ow_log_stdout(3, "%s", std::string(300, 'y').c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "a\tb 7\n" + std::string(254, 'y') + "\n");
}

}  // namespace

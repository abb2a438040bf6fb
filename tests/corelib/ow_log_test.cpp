// Tests of the diagnostic lines: formats and priorities, the 254-character cut, the printable
// pass, the one-time VERBOSEDEBUG decision, silence without a sink, and the out-of-memory path.
#include "ow_log.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "log_capture.hpp"
#include "ow_internal.hpp"

namespace {

using ow_test::captured;
using Log = ow_test::LogCaptureTest;

// Messages are cut and made printable but never used as a format ("100%d" stays), and the
// position names the source file without its directories.
TEST_F(Log, LinesCarryTheirFormatPriorityAndPrintableText) {
    ow_log_error("ow_demo", "ow_demo.cpp", 12, "failed: %d", 5);
    ow_log_debug("ow_demo", "ow_demo.cpp", 13, "step %s", "two");
    ow_log_info("metrics %s", "100%d\tposted");
    ow_log_info("%s", std::string(300, 'x').c_str());
    ow_log_error("f", "m.cpp", 1, "%s", "tab\there\nnew\r\x01\x7f\xc3\xa9 100%d");
    OW_ERROR("%s", "where");
    ASSERT_EQ(captured().size(), 6u);
    EXPECT_EQ(captured()[0].priority, 3);
    EXPECT_EQ(captured()[0].text, "ow_demo.cpp:12 ERROR ow_demo(): failed: 5");
    EXPECT_EQ(captured()[1].priority, 7);
    EXPECT_EQ(captured()[1].text, "ow_demo.cpp:13 DEBUG ow_demo(): step two");
    EXPECT_EQ(captured()[2].priority, 6);
    EXPECT_EQ(captured()[2].text, "metrics 100%d?posted");
    EXPECT_EQ(captured()[3].text, std::string(254, 'x'));
    EXPECT_EQ(captured()[4].text, "m.cpp:1 ERROR f(): tab?here?new????? 100%d");
    EXPECT_EQ(captured()[5].text.rfind("ow_log_test.cpp:", 0), 0u) << captured()[5].text;
}

TEST_F(Log, MissingPiecesOrSinkWriteNothingAndDebugIsDecidedOnce) {
    ow_log_error(nullptr, "m.cpp", 1, "x");
    ow_log_error("f", "m.cpp", 1, nullptr);
    ow_log_debug(nullptr, "m.cpp", 1, "x");
    ow_log_info(nullptr);
    EXPECT_TRUE(captured().empty());

    ::unsetenv("VERBOSEDEBUG");
    ow::testing::reset_debug_decision();
    ow_log_debug("f", "m.cpp", 1, "hidden");
    ::setenv("VERBOSEDEBUG", "1", 1);
    ow_log_debug("f", "m.cpp", 2, "still hidden");
    EXPECT_TRUE(captured().empty());

    ::setenv("VERBOSEDEBUG", "", 1);  // an empty value counts
    ow::testing::reset_debug_decision();
    ow_log_debug("f", "m.cpp", 3, "shown");
    ASSERT_EQ(captured().size(), 1u);
    EXPECT_EQ(captured()[0].text, "m.cpp:3 DEBUG f(): shown");
    ow_set_log_function(nullptr);
    ow_log_error("f", "m.cpp", 1, "x");
    ow_log_oom("f", "m.cpp", 1);
    EXPECT_EQ(captured().size(), 1u);
}

int g_handler_calls = 0;
std::size_t g_lines_when_handler_ran = 0;

TEST_F(Log, FailedCallocReportsThenCallsTheHandler) {
    g_handler_calls = 0;
    ow_set_oom_handler([] {
        ++g_handler_calls;
        g_lines_when_handler_ran = captured().size();
    });
    ow::testing::fail_allocation(1);
    EXPECT_EQ(ow_calloc("caller", "caller.cpp", 77, 4, 8), nullptr);
    EXPECT_EQ(g_handler_calls, 1);
    EXPECT_EQ(g_lines_when_handler_ran, 1u);
    EXPECT_EQ(captured()[0].text, std::string("caller.cpp:77 ERROR caller(): ") + strerror(ENOMEM));
    // count * size overflowing is an allocation failure, not a short block.
    EXPECT_EQ(ow_calloc("caller", "caller.cpp", 78, SIZE_MAX, 2), nullptr);
    EXPECT_EQ(g_handler_calls, 2);
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

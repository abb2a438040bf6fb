// log_capture.hpp: a sink keeping every log line a test provokes, to assert their exact text.
#ifndef ARDVEX_TESTS_LOG_CAPTURE_HPP
#define ARDVEX_TESTS_LOG_CAPTURE_HPP

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace ow_test {

struct log_line {
    int priority;
    std::string text;
};

void capture_sink(int priority, const char* format, ...);
std::vector<log_line>& captured();

// True when some captured line is an ERROR (or DEBUG) line of func carrying exactly message.
bool has_error(const std::string& func, const std::string& message);
bool has_debug(const std::string& func, const std::string& message);
std::size_t error_count();
// All captured lines, one per line, for failure messages.
std::string dump();

// EXPECTs that every call failed, each with one ERROR line of func of exactly msg and no other
// line of func (its callees' lines may stand beside them); then clears the log.
void refused(const std::string& func, const std::string& msg, std::initializer_list<bool> failed);

// Installs the sink and DEBUG lines; resets the allocation failure injection at both ends.
class LogCaptureTest : public ::testing::Test {
   protected:
    void SetUp() override;
    void TearDown() override;
    const std::vector<log_line>& lines() const { return captured(); }
    void clear_log() { captured().clear(); }
};

}  // namespace ow_test

#define EXPECT_ERROR_LINE(func, msg) \
    EXPECT_TRUE(::ow_test::has_error(func, msg)) << "log was:\n" << ::ow_test::dump()
#define EXPECT_NO_ERRORS() \
    EXPECT_EQ(::ow_test::error_count(), 0u) << "log was:\n" << ::ow_test::dump()

#endif  // ARDVEX_TESTS_LOG_CAPTURE_HPP

// log_capture.cpp: the capturing sink behind the test fixture.
#include "log_capture.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <regex>

#include "ow_internal.hpp"
#include "ow_log.h"

namespace ow_test {

std::vector<log_line>& captured() {
    static std::vector<log_line> lines;
    return lines;
}

void capture_sink(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    char buffer[2048];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    captured().push_back({priority, buffer});
}

namespace {
// "<file>:<line> KIND func(): message" where file has no directory part.
bool has_line(const char* kind, const std::string& func, const std::string& message) {
    static const std::regex position(R"([A-Za-z0-9_.+-]+:[0-9]+)");
    const std::string tail = std::string(" ") + kind + " " + func + "(): " + message;
    return std::ranges::any_of(captured(), [&](const log_line& l) {
        return l.text.ends_with(tail) &&
               std::regex_match(l.text.substr(0, l.text.size() - tail.size()), position);
    });
}
}  // namespace

bool has_error(const std::string& func, const std::string& m) { return has_line("ERROR", func, m); }
bool has_debug(const std::string& func, const std::string& m) { return has_line("DEBUG", func, m); }

std::size_t error_count() {
    return std::ranges::count_if(
        captured(), [](const log_line& l) { return l.text.find(" ERROR ") != std::string::npos; });
}

std::string dump() {
    std::string out;
    for (const auto& l : captured())
        out += "  <" + std::to_string(l.priority) + "> " + l.text + "\n";
    return out;
}

void LogCaptureTest::SetUp() {
    captured().clear();
    ::setenv("VERBOSEDEBUG", "1", 1);
    ow::testing::reset_debug_decision();
    ow::testing::fail_allocation(0);
    ow_set_log_function(&capture_sink);
}

void LogCaptureTest::TearDown() {
    ow::testing::fail_allocation(0);
    ow_set_log_function(nullptr);
    ow_set_oom_handler(nullptr);
}

void refused(const std::string& func, const std::string& msg, std::initializer_list<bool> failed) {
    const std::string head = " ERROR " + func + "(): ";
    std::size_t of_func = 0, matching = 0;
    for (const auto& line : captured()) {
        of_func += line.text.find(head) != std::string::npos;
        matching += line.text.ends_with(head + msg);
    }
    EXPECT_EQ(matching, failed.size()) << head << msg << "\nlog was:\n" << dump();
    EXPECT_EQ(of_func, failed.size()) << dump();
    int call = 0;
    for (const bool f : failed) EXPECT_TRUE(f) << func << " call " << call++ << " passed";
    captured().clear();
}

}  // namespace ow_test

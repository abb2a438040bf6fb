// log_capture.cpp: the capturing sink behind the test fixture.
#include "log_capture.hpp"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
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
bool has_line(const char* kind, const std::string& func, const std::string& message) {
    const std::string middle = std::string(" ") + kind + " " + func + "(): " + message;
    for (const auto& l : captured()) {
        // "<file>:<line> KIND func(): message" where file has no directory part.
        auto pos = l.text.find(middle);
        if (pos == std::string::npos || pos + middle.size() != l.text.size()) continue;
        std::string prefix = l.text.substr(0, pos);
        static const std::regex position(R"(^[A-Za-z0-9_.+-]+:[0-9]+$)");
        if (std::regex_match(prefix, position)) return true;
    }
    return false;
}
}  // namespace

bool has_error(const std::string& func, const std::string& message) {
    return has_line("ERROR", func, message);
}
bool has_debug(const std::string& func, const std::string& message) {
    return has_line("DEBUG", func, message);
}

std::size_t error_count() {
    std::size_t n = 0;
    for (const auto& l : captured()) n += l.text.find(" ERROR ") != std::string::npos;
    return n;
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
    captured().clear();
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

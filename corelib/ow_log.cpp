// ow_log: formats diagnostic lines into a fixed stack buffer, makes them printable and hands
// them to the one replaceable sink. Nothing here touches the heap, so the out-of-memory line
// can still be written when memory is gone. The library's allocation functions live here
// too, beside ow_calloc, so that tests can make any allocation fail.
#include "ow_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ow_internal.hpp"

namespace {

// The sink and the handler are process-wide by design: the program sets them once at start.
ow_log_function_t g_sink = nullptr;
ow_oom_handler_t g_oom_handler = nullptr;
// The VERBOSEDEBUG lookup is made once, on the first DEBUG call, and remembered.
bool g_debug_decided = false;
bool g_debug_enabled = false;

#ifdef ARDVEX_TESTING_SEAMS
// Allocation failure injection, built only into the test configuration's library: a
// countdown of allocations and a sticky mode.
long g_fail_countdown = 0;
bool g_fail_sticky = false;
bool g_failing = false;
long g_allocations = 0;
#endif

constexpr std::size_t kMessageBuffer = 256;
constexpr std::size_t kMessageLimit = 255;  // vsnprintf keeps 254 characters and the NUL

void __make_printable(char* message) noexcept {
    for (unsigned char* p = reinterpret_cast<unsigned char*>(message); *p != '\0'; ++p) {
        if (*p < 0x20 || *p > 0x7E) *p = '?';
    }
}

void format_message(char (&buffer)[kMessageBuffer], const char* format, va_list args) noexcept {
    std::memset(buffer, 0, sizeof buffer);
    std::vsnprintf(buffer, kMessageLimit, format, args);
}

bool allocation_should_fail() noexcept {
#ifndef ARDVEX_TESTING_SEAMS
    return false;
#else
    ++g_allocations;
    if (g_failing) return true;
    if (g_fail_countdown > 0 && --g_fail_countdown == 0) {
        g_failing = g_fail_sticky;
        return true;
    }
    return false;
#endif
}

}  // namespace

extern "C" {

void ow_set_log_function(ow_log_function_t sink) { g_sink = sink; }

void ow_set_oom_handler(ow_oom_handler_t handler) { g_oom_handler = handler; }

void ow_log_error(const char* func, const char* file, uint32_t line, const char* format, ...) {
    if (format == nullptr || func == nullptr || g_sink == nullptr) return;
    char message[kMessageBuffer];
    va_list args;
    va_start(args, format);
    format_message(message, format, args);
    va_end(args);
    __make_printable(message);
    g_sink(3, "%s:%d ERROR %s(): %s", file != nullptr ? file : "", static_cast<int>(line), func,
           message);
}

void ow_log_debug(const char* func, const char* file, uint32_t line, const char* format, ...) {
    if (!g_debug_decided) {
        g_debug_enabled = std::getenv("VERBOSEDEBUG") != nullptr;
        g_debug_decided = true;
    }
    if (!g_debug_enabled || format == nullptr || func == nullptr || g_sink == nullptr) return;
    char message[kMessageBuffer];
    va_list args;
    va_start(args, format);
    format_message(message, format, args);
    va_end(args);
    __make_printable(message);
    g_sink(7, "%s:%d DEBUG %s(): %s", file != nullptr ? file : "", static_cast<int>(line), func,
           message);
}

void ow_log_info(const char* format, ...) {
    if (format == nullptr || g_sink == nullptr) return;
    char message[kMessageBuffer];
    va_list args;
    va_start(args, format);
    format_message(message, format, args);
    va_end(args);
    __make_printable(message);
    g_sink(6, "%s", message);
}

void ow_log_oom(const char* func, const char* file, uint32_t line) {
    if (g_sink != nullptr) {
        g_sink(3, "%s:%d ERROR %s(): %s", file != nullptr ? file : "", static_cast<int>(line),
               func != nullptr ? func : "", std::strerror(ENOMEM));
    }
    if (g_oom_handler != nullptr) g_oom_handler();
}

void* ow_calloc(const char* func, const char* file, uint32_t line, size_t count, size_t size) {
    void* block = ow::mem_calloc(count, size);
    if (block == nullptr) ow_log_oom(func, file, line);
    return block;
}

void ow_log_stdout(int /*priority*/, const char* format, ...) {
    if (format == nullptr) return;
    char message[kMessageBuffer];
    va_list args;
    va_start(args, format);
    format_message(message, format, args);
    va_end(args);
    std::fputs(message, stdout);
    std::fputc('\n', stdout);
}

}  // extern "C"

namespace ow {

void* mem_malloc(std::size_t size) noexcept {
    if (allocation_should_fail()) return nullptr;
    return std::malloc(size == 0 ? 1 : size);
}

void* mem_calloc(std::size_t count, std::size_t size) noexcept {
    std::size_t total = 0;
    if (mul_overflows(count, size, &total)) return nullptr;
    if (allocation_should_fail()) return nullptr;
    return std::calloc(total == 0 ? 1 : total, 1);
}

void* mem_realloc(void* block, std::size_t size) noexcept {
    if (allocation_should_fail()) return nullptr;
    return std::realloc(block, size == 0 ? 1 : size);
}

char* dup_cstr(std::string_view s) noexcept {
    auto* out = static_cast<char*>(mem_malloc(s.size() + 1));
    if (out == nullptr) return nullptr;
    if (!s.empty()) std::memcpy(out, s.data(), s.size());
    out[s.size()] = '\0';
    return out;
}

#ifdef ARDVEX_TESTING_SEAMS
namespace testing {

void fail_allocation(long n, bool sticky) noexcept {
    g_fail_countdown = n > 0 ? n : 0;
    g_fail_sticky = sticky;
    g_failing = false;
}

long allocation_count() noexcept { return g_allocations; }

void reset_debug_decision() noexcept {
    g_debug_decided = false;
    g_debug_enabled = false;
}

}  // namespace testing
#endif
}  // namespace ow

// stderr_sink.hpp: the log sink of the administrator's command-line tools. The library's lines
// go to standard error as the bare message, one per line, where the person who ran the tool
// sees them; the priority is not shown (DEBUG lines appear only with VERBOSEDEBUG anyway).
#ifndef ARDVEX_TOOLS_STDERR_SINK_HPP
#define ARDVEX_TOOLS_STDERR_SINK_HPP

#include <cstdarg>
#include <cstdio>

inline void to_stderr(int priority, const char* format, ...) {
    (void)priority;
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
}

#endif  // ARDVEX_TOOLS_STDERR_SINK_HPP

// ow_internal.hpp: C++ helpers shared by the modules of the ardvex library. Never installed
// and never included from include/. It gives the logging macros, the library's allocation
// functions (which a test can make fail on purpose), RAII owners for malloc'd memory, and a
// scope guard.
#ifndef OW_INTERNAL_HPP
#define OW_INTERNAL_HPP

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>
#include <utility>

#include "ow_log.h"

struct TRex;

namespace ow {

// The base name of a source path, so no build-machine directory ever reaches a log line.
constexpr const char* base_name(const char* path) noexcept {
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p) {
        if (*p == '/') base = p + 1;
    }
    return base;
}

}  // namespace ow

// Every module reports through these; the function named is the innermost enclosing
// function, so call them from the public function itself, never from a lambda.
#define OW_ERROR(...)                                                                    \
    ::ow_log_error(__func__, ::ow::base_name(__FILE__), static_cast<uint32_t>(__LINE__), \
                   __VA_ARGS__)
#define OW_DEBUG(...)                                                                    \
    ::ow_log_debug(__func__, ::ow::base_name(__FILE__), static_cast<uint32_t>(__LINE__), \
                   __VA_ARGS__)
// The system's text for an error number, the message most failure lines carry.
#define OW_ERRNO(err) OW_ERROR("%s", ::strerror(err))
#define OW_EINVAL() OW_ERRNO(EINVAL)
#define OW_ENOMEM() OW_ERRNO(ENOMEM)
#define OW_OOM() ::ow_log_oom(__func__, ::ow::base_name(__FILE__), static_cast<uint32_t>(__LINE__))

namespace ow {

// ---------------------------------------------------------------------------------------
// Allocation. Every heap block the library hands out or keeps comes from these, so that a
// test can make the n-th allocation fail and walk every out-of-memory path. Blocks are
// plain malloc blocks: callers free them with free().
void* mem_malloc(std::size_t size) noexcept;
void* mem_calloc(std::size_t count, std::size_t size) noexcept;
void* mem_realloc(void* block, std::size_t size) noexcept;

// A malloc'd NUL-terminated copy of s, or nullptr when the allocation fails (not logged).
char* dup_cstr(std::string_view s) noexcept;

// Only the test configuration's library (ardvex_testing) has these: the shipped one cannot
// be made to fail.
namespace testing {
// Makes the n-th library allocation from now fail (1 = the next one); with sticky set every
// allocation from the n-th on fails. 0 turns failures off.
void fail_allocation(long n, bool sticky = false) noexcept;
// Number of library allocations made so far (successful or not): lets a test find how many
// allocations a call makes and then fail each one in turn.
long allocation_count() noexcept;
// Forgets the one-time VERBOSEDEBUG decision so a test can decide it again.
void reset_debug_decision() noexcept;
}  // namespace testing

// ---------------------------------------------------------------------------------------
// Clock. Whatever files or stamps by date asks here, so that tests pin the time instead of
// waiting for it. The real clock unless a test pinned it.
std::time_t clock_now() noexcept;
namespace testing {
// Pins clock_now() to t (forked children inherit it); 0 returns to the real clock. Test
// configuration only, like the seams above.
void set_clock(std::time_t t) noexcept;
}  // namespace testing

// ---------------------------------------------------------------------------------------
// Ownership helpers.
struct free_deleter {
    void operator()(void* p) const noexcept { std::free(p); }
};
template <typename T>
using unique_cptr = std::unique_ptr<T, free_deleter>;
using unique_cstr = unique_cptr<char>;

// Runs a callback at scope exit unless dismissed.
template <typename F>
class scope_guard {
   public:
    explicit scope_guard(F f) noexcept : f_(std::move(f)) {}
    scope_guard(const scope_guard&) = delete;
    scope_guard& operator=(const scope_guard&) = delete;
    ~scope_guard() {
        if (active_) f_();
    }
    void dismiss() noexcept { active_ = false; }

   private:
    F f_;
    bool active_ = true;
};

// True when a * b overflows size_t; otherwise stores the product.
inline bool mul_overflows(std::size_t a, std::size_t b, std::size_t* out) noexcept {
    return __builtin_mul_overflow(a, b, out);
}
inline bool add_overflows(std::size_t a, std::size_t b, std::size_t* out) noexcept {
    return __builtin_add_overflow(a, b, out);
}

// ---------------------------------------------------------------------------------------
// Regex. The matcher keeps facts about a pattern behind the last of its nallocated nodes, in
// the node array's own block. Whoever allocates a node array leaves trex_tail_bytes(count)
// bytes of room behind count nodes (0 when a pattern that large is matched without them) and
// calls trex_prepare() once the nodes are in place; any other array takes the plain path.
std::size_t trex_tail_bytes(int32_t count) noexcept;
void trex_prepare(TRex* exp) noexcept;

}  // namespace ow

#endif  // OW_INTERNAL_HPP

// Benchmarks of ow_str_replace against a std::string replace-all on the same inputs: a
// growing replacement (one escape per word, as the POST body encoding does), the shrinking
// reverse, and a dense input where every other byte matches. Each iteration copies the input
// first, in both variants, because both consume or replace it.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "ow_log.h"
#include "ow_stringutils.h"

namespace {

// Words of `word` bytes separated by `separator`, about `size` bytes in all.
std::string make_input(std::size_t size, std::size_t word, std::string_view separator) {
    std::string s;
    s.reserve(size + word + separator.size());
    while (s.size() < size) {
        s.append(word, 'w');
        s.append(separator);
    }
    s.resize(size);
    return s;
}

std::string std_replace_all(std::string_view s, std::string_view pattern,
                            std::string_view replacement) {
    std::string out;
    out.reserve(s.size());
    std::size_t from = 0;
    for (std::size_t at; (at = s.find(pattern, from)) != std::string_view::npos;
         from = at + pattern.size()) {
        out.append(s, from, at - from);
        out.append(replacement);
    }
    out.append(s.substr(from));
    return out;
}

struct shape {
    std::size_t word;
    const char* separator;
    const char* pattern;
    const char* replacement;
};
constexpr shape kGrow = {7, " ", " ", "%20"};
constexpr shape kShrink = {7, "%20", "%20", " "};
constexpr shape kDense = {1, ".", ".", "%2E"};

void bm_ow(benchmark::State& state, shape sh) {
    ow_set_log_function(nullptr);
    const std::string input =
        make_input(static_cast<std::size_t>(state.range(0)), sh.word, sh.separator);
    for (auto _ : state) {
        char* s = static_cast<char*>(std::malloc(input.size() + 1));
        std::memcpy(s, input.c_str(), input.size() + 1);
        if (!ow_str_replace(&s, sh.pattern, sh.replacement)) state.SkipWithError("replace failed");
        benchmark::DoNotOptimize(s);
        std::free(s);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(input.size()));
}

void bm_std(benchmark::State& state, shape sh) {
    const std::string input =
        make_input(static_cast<std::size_t>(state.range(0)), sh.word, sh.separator);
    for (auto _ : state) {
        std::string s = input;
        s = std_replace_all(s, sh.pattern, sh.replacement);
        benchmark::DoNotOptimize(s.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(input.size()));
}

#define SIZES RangeMultiplier(8)->Range(1 << 10, 1 << 20)
BENCHMARK_CAPTURE(bm_ow, grow, kGrow)->SIZES;
BENCHMARK_CAPTURE(bm_std, grow, kGrow)->SIZES;
BENCHMARK_CAPTURE(bm_ow, shrink, kShrink)->SIZES;
BENCHMARK_CAPTURE(bm_std, shrink, kShrink)->SIZES;
BENCHMARK_CAPTURE(bm_ow, dense_grow, kDense)->SIZES;
BENCHMARK_CAPTURE(bm_std, dense_grow, kDense)->SIZES;
#undef SIZES

}  // namespace

BENCHMARK_MAIN();

// Base64 benchmarks: encoding and decoding 1 KiB, 64 KiB and 1 MiB of random bytes with
// ow_b64 beside GLib's g_base64_encode / g_base64_decode in the same binary.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <string>

#include "ow_b64.h"
#ifdef ARDVEX_HAVE_GLIB
#include <glib.h>
#endif

namespace {

const std::string& bytes(size_t n) {
    static std::string cache[3];
    std::string& s = cache[n == 1024 ? 0 : n == 65536 ? 1 : 2];
    if (s.size() != n) {
        std::mt19937 gen(42);
        s.resize(n);
        for (auto& c : s) c = static_cast<char>(gen());
    }
    return s;
}

std::string encoded(size_t n) {
    char* text = nullptr;
    ow_base64_encode_ex(&text, bytes(n).data(), n);
    std::string out(text);
    std::free(text);
    return out;
}

void BM_ow_encode(benchmark::State& state) {
    const std::string& in = bytes(state.range(0));
    char* out = nullptr;
    for (auto _ : state) {
        ow_base64_encode_ex(&out, in.data(), in.size());
        benchmark::DoNotOptimize(out);
    }
    std::free(out);
    state.SetBytesProcessed(state.iterations() * in.size());
}
void BM_ow_decode(benchmark::State& state) {
    const std::string text = encoded(state.range(0));
    char* out = nullptr;
    uint64_t length = 0;
    for (auto _ : state) {
        ow_base64_decode_ex(&out, text.c_str(), &length);
        benchmark::DoNotOptimize(out);
    }
    std::free(out);
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
#define SIZES ->Arg(1024)->Arg(65536)->Arg(1 << 20)
BENCHMARK(BM_ow_encode) SIZES;
BENCHMARK(BM_ow_decode) SIZES;

#ifdef ARDVEX_HAVE_GLIB
void BM_glib_encode(benchmark::State& state) {
    const std::string& in = bytes(state.range(0));
    for (auto _ : state) {
        gchar* out = g_base64_encode(reinterpret_cast<const guchar*>(in.data()), in.size());
        benchmark::DoNotOptimize(out);
        g_free(out);
    }
    state.SetBytesProcessed(state.iterations() * in.size());
}
void BM_glib_decode(benchmark::State& state) {
    const std::string text = encoded(state.range(0));
    for (auto _ : state) {
        gsize length = 0;
        guchar* out = g_base64_decode(text.c_str(), &length);
        benchmark::DoNotOptimize(out);
        g_free(out);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_glib_encode) SIZES;
BENCHMARK(BM_glib_decode) SIZES;
#endif

}  // namespace

BENCHMARK_MAIN();

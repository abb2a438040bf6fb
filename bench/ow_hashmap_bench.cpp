// Map benchmarks: store, fetch, iterate and remove string keys with ow_hashmap beside
// std::unordered_map and GLib's GHashTable in the same binary, and the map file's save and
// load speed.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unordered_map>
#include <vector>

#include "ow_hashmap.h"
#include "ow_log.h"
#ifdef ARDVEX_HAVE_GLIB
#include <glib.h>
#endif

namespace {

const std::vector<std::string>& keys(size_t n) {
    static std::unordered_map<size_t, std::vector<std::string>> cache;
    auto& v = cache[n];
    if (v.empty()) {
        v.reserve(n);
        for (size_t i = 0; i < n; ++i) v.push_back("mail.host" + std::to_string(i * 2654435761u));
    }
    return v;
}

const char kValue[] = "value";

ow_hashmap* filled(size_t n) {
    ow_hashmap* m = ow_map_create(0, 0);
    for (const auto& k : keys(n))
        ow_map_store_ex(m, k.c_str(), const_cast<char*>(kValue), 6, false, nullptr);
    return m;
}

void BM_ow_store(benchmark::State& state) {
    const auto& ks = keys(state.range(0));
    for (auto _ : state) {
        ow_hashmap* m = ow_map_create(0, 0);
        for (const auto& k : ks)
            ow_map_store_ex(m, k.c_str(), const_cast<char*>(kValue), 6, false, nullptr);
        state.PauseTiming();
        ow_map_destroy(m);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * ks.size());
}
void BM_std_store(benchmark::State& state) {
    const auto& ks = keys(state.range(0));
    for (auto _ : state) {
        auto* m = new std::unordered_map<std::string, const char*>;
        for (const auto& k : ks) m->emplace(k, kValue);
        state.PauseTiming();
        delete m;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * ks.size());
}

void BM_ow_fetch(benchmark::State& state) {
    const auto& ks = keys(state.range(0));
    ow_hashmap* m = filled(ks.size());
    for (auto _ : state) {
        for (const auto& k : ks) {
            void* v;
            benchmark::DoNotOptimize(ow_map_fetch(m, k.c_str(), &v));
        }
    }
    ow_map_destroy(m);
    state.SetItemsProcessed(state.iterations() * ks.size());
}
void BM_std_fetch(benchmark::State& state) {
    const auto& ks = keys(state.range(0));
    std::unordered_map<std::string, const char*> m;
    for (const auto& k : ks) m.emplace(k, kValue);
    for (auto _ : state) {
        // Looked up by const char* as a C caller would, so the key string is built each time.
        for (const auto& k : ks) benchmark::DoNotOptimize(m.find(k.c_str()));
    }
    state.SetItemsProcessed(state.iterations() * ks.size());
}

void BM_ow_iterate(benchmark::State& state) {
    ow_hashmap* m = filled(state.range(0));
    for (auto _ : state) {
        ow_map_iterator it;
        ow_map_iterator_init(&it, m);
        const char* k;
        void* v;
        while (ow_map_iterator_next(&it, &k, &v)) benchmark::DoNotOptimize(v);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    ow_map_destroy(m);
}
void BM_std_iterate(benchmark::State& state) {
    std::unordered_map<std::string, const char*> m;
    for (const auto& k : keys(state.range(0))) m.emplace(k, kValue);
    for (auto _ : state) {
        for (const auto& kv : m) benchmark::DoNotOptimize(kv.second);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_ow_remove(benchmark::State& state) {
    const auto& ks = keys(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        ow_hashmap* m = filled(ks.size());
        state.ResumeTiming();
        for (const auto& k : ks) ow_map_remove(m, k.c_str());
        state.PauseTiming();
        ow_map_destroy(m);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * ks.size());
}
void BM_std_remove(benchmark::State& state) {
    const auto& ks = keys(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        auto* m = new std::unordered_map<std::string, const char*>;
        for (const auto& k : ks) m->emplace(k, kValue);
        state.ResumeTiming();
        for (const auto& k : ks) m->erase(k.c_str());
        state.PauseTiming();
        delete m;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * ks.size());
}

#ifdef ARDVEX_HAVE_GLIB
GHashTable* glib_filled(size_t n) {
    GHashTable* t = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr);
    for (const auto& k : keys(n))
        g_hash_table_insert(t, g_strdup(k.c_str()), const_cast<char*>(kValue));
    return t;
}
void BM_glib_store(benchmark::State& state) {
    const auto& ks = keys(state.range(0));
    for (auto _ : state) {
        GHashTable* t = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr);
        for (const auto& k : ks)
            g_hash_table_insert(t, g_strdup(k.c_str()), const_cast<char*>(kValue));
        state.PauseTiming();
        g_hash_table_destroy(t);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * ks.size());
}
void BM_glib_fetch(benchmark::State& state) {
    const auto& ks = keys(state.range(0));
    GHashTable* t = glib_filled(ks.size());
    for (auto _ : state) {
        for (const auto& k : ks) benchmark::DoNotOptimize(g_hash_table_lookup(t, k.c_str()));
    }
    g_hash_table_destroy(t);
    state.SetItemsProcessed(state.iterations() * ks.size());
}
void BM_glib_iterate(benchmark::State& state) {
    GHashTable* t = glib_filled(state.range(0));
    for (auto _ : state) {
        GHashTableIter it;
        gpointer k, v;
        g_hash_table_iter_init(&it, t);
        while (g_hash_table_iter_next(&it, &k, &v)) benchmark::DoNotOptimize(v);
    }
    g_hash_table_destroy(t);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
void BM_glib_remove(benchmark::State& state) {
    const auto& ks = keys(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        GHashTable* t = glib_filled(ks.size());
        state.ResumeTiming();
        for (const auto& k : ks) g_hash_table_remove(t, k.c_str());
        state.PauseTiming();
        g_hash_table_destroy(t);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * ks.size());
}
#define SIZES ->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)
BENCHMARK(BM_glib_store) SIZES;
BENCHMARK(BM_glib_fetch) SIZES;
BENCHMARK(BM_glib_iterate) SIZES;
BENCHMARK(BM_glib_remove) SIZES;
#else
#define SIZES ->Arg(1000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)
#endif

BENCHMARK(BM_ow_store) SIZES;
BENCHMARK(BM_std_store) SIZES;
BENCHMARK(BM_ow_fetch) SIZES;
BENCHMARK(BM_std_fetch) SIZES;
BENCHMARK(BM_ow_iterate) SIZES;
BENCHMARK(BM_std_iterate) SIZES;
BENCHMARK(BM_ow_remove) SIZES;
BENCHMARK(BM_std_remove) SIZES;

// Map file: a metric-set-like map of string values saved and loaded whole.
void BM_ow_save(benchmark::State& state) {
    const auto& ks = keys(state.range(0));
    ow_hashmap* m = ow_map_create(0, 0);
    uint64_t raw = 0;
    for (const auto& k : ks) {
        ow_map_store_ex(m, k.c_str(), const_cast<char*>("value-of-a-metric"), 18, true, nullptr);
        raw += k.size() + 18;
    }
    const std::string path = "/tmp/ow_hashmap_bench.map";
    for (auto _ : state) benchmark::DoNotOptimize(ow_map_save(m, path.c_str(), true));
    FILE* f = std::fopen(path.c_str(), "rb");
    std::fseek(f, 0, SEEK_END);
    state.counters["file_bytes"] = static_cast<double>(std::ftell(f));
    state.counters["raw_bytes"] = static_cast<double>(raw);
    std::fclose(f);
    state.SetItemsProcessed(state.iterations() * ks.size());
    ow_map_destroy(m);
}
void BM_ow_load(benchmark::State& state) {
    const auto& ks = keys(state.range(0));
    ow_hashmap* m = ow_map_create(0, 0);
    for (const auto& k : ks)
        ow_map_store_ex(m, k.c_str(), const_cast<char*>("value-of-a-metric"), 18, true, nullptr);
    const std::string path = "/tmp/ow_hashmap_bench.map";
    ow_map_save(m, path.c_str(), true);
    ow_map_destroy(m);
    for (auto _ : state) ow_map_destroy(ow_map_load(path.c_str()));
    state.SetItemsProcessed(state.iterations() * ks.size());
}
BENCHMARK(BM_ow_save)->Arg(100)->Arg(10000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ow_load)->Arg(100)->Arg(10000)->Arg(1000000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

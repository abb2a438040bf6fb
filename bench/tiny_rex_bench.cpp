// Matching speed of tiny_rex against PCRE (studied, without JIT) on the same patterns and
// subjects: the dynamic-host pattern, and a set of 200 typical reverse-DNS patterns, over
// 100,000 generated host names. Each pair of runs also counts the matching pairs, so a
// difference in answers shows up beside the difference in speed.
#include <benchmark/benchmark.h>
#include <pcre.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "tiny_rex.h"

namespace {

constexpr const char* kDyna =
    "[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}(\\-|_|\\.)[0-9]{1,3}";

const std::vector<std::string>& isps() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> out;
        const char* stems[] = {"netco",   "fibra",    "telnet",    "wavecable", "skyline",
                               "openisp", "bluewire", "metrolink", "citynet",   "northtel"};
        for (const char* s : stems) {
            for (int i = 0; i < 4; ++i)
                out.push_back(std::string(s) + (i == 0 ? "" : std::to_string(i)));
        }
        return out;
    }();
    return names;
}

const std::vector<std::string>& tlds() {
    static const std::vector<std::string> t = {"net", "com", "de", "fr", "it", "br", "pl", "es"};
    return t;
}

// 200 patterns of the kinds administrators write for dynamic address space.
const std::vector<std::string>& rdns_patterns() {
    static const std::vector<std::string> patterns = [] {
        std::vector<std::string> out;
        const auto& names = isps();
        for (std::size_t i = 0; out.size() < 200; ++i) {
            const std::string& isp = names[i % names.size()];
            const std::string& tld = tlds()[i % tlds().size()];
            switch (i % 5) {
                case 0:
                    out.push_back(
                        "^(dsl|adsl|cable|dyn|dhcp|ppp|pool)[\\-\\.]?\\d+[\\-\\.]\\d+[\\-\\.]\\d+"
                        "[\\-\\.]\\d+\\." +
                        isp + "\\." + tld + "$");
                    break;
                case 1:
                    out.push_back("\\.(dyn|dsl|cable|pool|dialup)\\." + isp + "\\." + tld + "$");
                    break;
                case 2:
                    out.push_back(isp + "-\\d+-\\d+-\\d+-\\d+\\.");
                    break;
                case 3:
                    out.push_back("^[a-z]+\\d+-\\d+\\." + isp + "\\." + tld + "$");
                    break;
                default:
                    out.push_back("^\\d+\\.\\d+\\.\\d+\\.\\d+\\.(static|dynamic)\\." + isp);
                    break;
            }
        }
        return out;
    }();
    return patterns;
}

const std::vector<std::string>& hosts() {
    static const std::vector<std::string> list = [] {
        std::vector<std::string> out;
        std::mt19937 rng(42);
        auto num = [&rng](int max) { return std::to_string(rng() % static_cast<unsigned>(max)); };
        const char* kinds[] = {"dsl", "cable", "dyn", "pool", "mail", "smtp", "mx", "host"};
        out.reserve(100000);
        while (out.size() < 100000) {
            const std::string& isp = isps()[rng() % isps().size()];
            const std::string& tld = tlds()[rng() % tlds().size()];
            const std::string kind = kinds[rng() % 8];
            switch (rng() % 6) {
                case 0:
                    out.push_back(kind + "-" + num(256) + "-" + num(256) + "-" + num(256) + "-" +
                                  num(256) + "." + isp + "." + tld);
                    break;
                case 1:
                    out.push_back("host" + num(999) + "." + kind + "." + isp + "." + tld);
                    break;
                case 2:
                    out.push_back(isp + "-" + num(256) + "-" + num(256) + "-" + num(256) + "-" +
                                  num(256) + ".rev." + tld);
                    break;
                case 3:
                    out.push_back(kind + num(99) + ".company" + num(5000) + "." + tld);
                    break;
                case 4:
                    out.push_back(num(256) + "." + num(256) + "." + num(256) + "." + num(256) +
                                  ".static." + isp + "." + tld);
                    break;
                default:
                    out.push_back("c-" + num(256) + "-" + num(256) + "-" + num(256) + "-" +
                                  num(256) + ".hsd1.ca." + isp + "." + tld);
                    break;
            }
        }
        return out;
    }();
    return list;
}

struct pcre_pattern {
    pcre* re = nullptr;
    pcre_extra* extra = nullptr;
};

pcre_pattern pcre_compile_pattern(const std::string& p) {
    const char* error = nullptr;
    int offset = 0;
    pcre_pattern out;
    out.re = pcre_compile(p.c_str(), PCRE_CASELESS, &error, &offset, nullptr);
    if (out.re == nullptr) {
        std::fprintf(stderr, "pcre_compile(%s): %s\n", p.c_str(), error);
        std::abort();
    }
    out.extra = pcre_study(out.re, 0, &error);  // no JIT
    return out;
}

void run_trex(benchmark::State& state, const std::vector<std::string>& patterns) {
    std::vector<TRex*> compiled;
    for (const auto& p : patterns) compiled.push_back(trex_compile_ex(p.c_str(), 0));
    for (TRex* exp : compiled) {
        if (exp == nullptr) state.SkipWithError("a pattern did not compile");
    }
    long matched = 0;
    for (auto _ : state) {
        matched = 0;
        for (const auto& h : hosts()) {
            for (TRex* exp : compiled) matched += trex_match(exp, h.c_str());
        }
    }
    state.counters["matched"] = static_cast<double>(matched);
    state.counters["matches_per_s"] =
        benchmark::Counter(static_cast<double>(hosts().size() * patterns.size()),
                           benchmark::Counter::kIsIterationInvariantRate);
    for (TRex* exp : compiled) trex_free(exp);
}

void run_pcre(benchmark::State& state, const std::vector<std::string>& patterns) {
    std::vector<pcre_pattern> compiled;
    for (const auto& p : patterns) compiled.push_back(pcre_compile_pattern(p));
    long matched = 0;
    int ovector[30];
    for (auto _ : state) {
        matched = 0;
        for (const auto& h : hosts()) {
            for (const auto& c : compiled) {
                matched += pcre_exec(c.re, c.extra, h.c_str(), static_cast<int>(h.size()), 0, 0,
                                     ovector, 30) >= 0;
            }
        }
    }
    state.counters["matched"] = static_cast<double>(matched);
    state.counters["matches_per_s"] =
        benchmark::Counter(static_cast<double>(hosts().size() * patterns.size()),
                           benchmark::Counter::kIsIterationInvariantRate);
    for (auto& c : compiled) {
        pcre_free_study(c.extra);
        pcre_free(c.re);
    }
}

void BM_DynaPattern_TinyRex(benchmark::State& state) { run_trex(state, {kDyna}); }
void BM_DynaPattern_Pcre(benchmark::State& state) { run_pcre(state, {kDyna}); }
void BM_RdnsSet200_TinyRex(benchmark::State& state) { run_trex(state, rdns_patterns()); }
void BM_RdnsSet200_Pcre(benchmark::State& state) { run_pcre(state, rdns_patterns()); }

BENCHMARK(BM_DynaPattern_TinyRex)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DynaPattern_Pcre)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RdnsSet200_TinyRex)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_RdnsSet200_Pcre)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

BENCHMARK_MAIN();

// The whole rule walk for one SMTP transaction, as the hosting mail-server component runs it:
// a fresh session, every default rule plus the list and forgery rules, the notice, the
// message log line and the counters. Run it through bench/run-transaction-bench.sh, which
// provides the local name servers, the list, range, pattern and forgery files and private
// log and control directories.
//
// Three variants split the time: "full" asks the name servers (one PTR, the HELO name and the
// sender's domain); "dns_cached" starts from a session whose verdict caches already hold the
// answers (no DNS at all); "dns_cached_no_files" also points list_dir at a directory without
// list files. full - dns_cached is the DNS share, dns_cached - dns_cached_no_files the share
// of opening and reading list files; the rest is matching, the pattern and forgery files and
// the log. Each reports the median and 99th percentile of single transactions.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ardvex.h"
#include "ow_log.h"
#include "rule_walk.hpp"

namespace {

const std::set<std::string> also_on = {"from_blacklist", "from_whitelist", "known_sender_forgery"};

enum class variant { full, dns_cached, dns_cached_no_files };

void transaction(benchmark::State& state, variant v) {
    const char* lists = std::getenv("BENCH_LIST_DIR");
    const char* empty = std::getenv("BENCH_EMPTY_DIR");
    if (lists == nullptr || empty == nullptr) {
        state.SkipWithError("run through bench/run-transaction-bench.sh");
        return;
    }
    char name0[] = "mail.sender.example.test";
    char* names[] = {name0, nullptr};
    std::vector<double> micros;
    for (auto _ : state) {
        spam_session s{};
        s.ip = const_cast<char*>("203.0.113.20");
        s.port = const_cast<char*>("40123");
        s.helo = strdup("mail.sender.example.test");
        s.mail_from = strdup("anna@sender.example.test");
        s.rcpt_to = const_cast<char*>("bob@local.example.test");
        s.list_dir = const_cast<char*>(v == variant::dns_cached_no_files ? empty : lists);
        s.routable = true;
        if (v != variant::full) {
            s.ptr_state = SPAM_PTR_FOUND;
            s.ptr_names = names;
            s.helo_dns = SPAM_DNS_FOUND;
            s.from_domain_dns = SPAM_DNS_FOUND;
        }
        const auto start = std::chrono::steady_clock::now();
        const ow_test::verdict verdict = ow_test::judge(&s, also_on);
        micros.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                .count());
        if (!verdict.rule.empty())
            state.SkipWithError(("unexpected verdict " + verdict.rule).c_str());
        std::free(s.helo);
        std::free(s.mail_from);
        if (v == variant::full) {
            for (char** n = s.ptr_names; n != nullptr && *n != nullptr; ++n) std::free(*n);
            std::free(s.ptr_names);
        }
    }
    if (micros.empty()) return;
    std::sort(micros.begin(), micros.end());
    state.counters["p50_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[micros.size() * 99 / 100];
    state.counters["tx_per_s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void quiet(int, const char*, ...) {}

}  // namespace

BENCHMARK_CAPTURE(transaction, full, variant::full)->UseRealTime();
BENCHMARK_CAPTURE(transaction, dns_cached, variant::dns_cached)->UseRealTime();
BENCHMARK_CAPTURE(transaction, dns_cached_no_files, variant::dns_cached_no_files)->UseRealTime();

int main(int argc, char** argv) {
    log_program_name = "ardvex_bench";
    ow_set_log_function(quiet);
    if (!ardvex_init()) return 1;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    ardvex_shutdown();
    return 0;
}

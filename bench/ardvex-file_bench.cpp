// Lookup in a 10,000-line list file, as the list hooks do it for each transaction, beside a
// grep process asked the same question: an exact entry (grep -F -x -i) and an address against
// a list of '*' patterns (grep -E -x -i -f with the patterns turned into expressions the way
// __wildcardmatch turns them). Both lookups miss, so every line is read. Each pair of runs
// checks that both sides give the same answer before timing.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "ardvex-file.h"
#include "ow_log.h"

extern char** environ;

namespace {

constexpr int kLines = 10000;

void quiet(int, const char*, ...) {}

struct fixture {
    std::string dir;
    fixture() {
        ow_set_log_function(quiet);
        std::string tmpl = "/dev/shm/ardvex_file_bench.XXXXXX";
        if (mkdtemp(tmpl.data()) == nullptr) std::abort();
        dir = tmpl;
        std::ofstream exact(dir + "/exact"), wild(dir + "/wild"), ere(dir + "/wild.ere");
        for (int i = 0; i < kLines; ++i) {
            const std::string n = std::to_string(i);
            exact << "user" << n << "@mail" << i % 97 << ".example.com\n";
            wild << "*@relay" << n << ".example.net\n";
            ere << ".*@relay" << n << "\\.example\\.net\n";
        }
    }
    ~fixture() { std::system(("rm -rf " + dir).c_str()); }
};

const fixture& files() {
    static const fixture f;
    return f;
}

// Runs grep with args; stdin from a file when given. True when grep found a line (exit 0).
bool run_grep(const std::vector<std::string>& args, const std::string& stdin_file = "") {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!stdin_file.empty())
        posix_spawn_file_actions_addopen(&actions, 0, stdin_file.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, "/usr/bin/grep", &actions, nullptr, argv.data(), environ) != 0)
        std::abort();
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

const char* kMissingUser = "nobody@mail5.example.com";
const char* kMissingSender = "bob@relay10000.example.net";

void BM_exact_list(benchmark::State& state) {
    const char* dir = files().dir.c_str();
    if (__file_contains_line(dir, "exact", kMissingUser, strcasecmp)) state.SkipWithError("hit");
    for (auto _ : state)
        benchmark::DoNotOptimize(__file_contains_line(dir, "exact", kMissingUser, strcasecmp));
}

void BM_exact_grep(benchmark::State& state) {
    const std::vector<std::string> args = {
        "grep", "-F", "-x", "-i", "-q", kMissingUser, files().dir + "/exact"};
    if (run_grep(args)) state.SkipWithError("hit");
    for (auto _ : state) benchmark::DoNotOptimize(run_grep(args));
}

void BM_wildcard_list(benchmark::State& state) {
    const char* dir = files().dir.c_str();
    if (__file_contains_line(dir, "wild", kMissingSender, __wildcardmatch) ||
        !__file_contains_line(dir, "wild", "bob@relay9999.example.net", __wildcardmatch))
        state.SkipWithError("answers differ from the patterns");
    for (auto _ : state)
        benchmark::DoNotOptimize(
            __file_contains_line(dir, "wild", kMissingSender, __wildcardmatch));
}

void BM_wildcard_grep(benchmark::State& state) {
    const std::string subject = files().dir + "/subject";
    std::ofstream(subject) << kMissingSender << "\n";
    const std::vector<std::string> args = {
        "grep", "-E", "-x", "-i", "-q", "-f", files().dir + "/wild.ere"};
    if (run_grep(args, subject)) state.SkipWithError("hit");
    for (auto _ : state) benchmark::DoNotOptimize(run_grep(args, subject));
}

BENCHMARK(BM_exact_list)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_exact_grep)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_wildcard_list)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_wildcard_grep)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

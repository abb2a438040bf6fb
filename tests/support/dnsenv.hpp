// dnsenv.hpp: what a program run by tests/support/dnsenv.sh (any *_dnsenv_test) needs to drive
// its name servers, and the name arrays every DNS test reads. Its fixture skips unless
// inside() holds, so a stray run can never write the real /etc/hosts.
#ifndef ARDVEX_TESTS_DNSENV_HPP
#define ARDVEX_TESTS_DNSENV_HPP

#include <sstream>

#include "scratch.hpp"

namespace ow_test::dnsenv {

using strings = std::vector<std::string>;

// Takes over a name array of the DNS module: its names, and frees it.
inline strings take_names(char** names) {
    strings out;
    for (std::size_t i = 0; names != nullptr && names[i] != nullptr; ++i) {
        out.emplace_back(names[i]);
        std::free(names[i]);
    }
    std::free(names);
    return out;
}

inline std::string env(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

// True inside dnsenv.sh: its variables are set and this process's mount namespace is not
// the one of the machine's first process.
inline bool inside() {
    if (env("DNSENV_SCRIPT").empty() || env("DNSENV_QUERY_LOG").empty()) return false;
    char own[64] = {}, first[64] = {};
    if (readlink("/proc/self/ns/mnt", own, sizeof own - 1) <= 0) return false;
    if (readlink("/proc/1/ns/mnt", first, sizeof first - 1) <= 0) return true;
    return std::string(own) != first;
}

// Replaces the names the test scripted (a JSON object, the format of dns_server.py); the
// names of tests/support/dns_script.json stay unless overridden. "{}" removes them all.
inline void script(const std::string& json) { spit(env("DNSENV_SCRIPT"), json); }

// The queries the servers saw since the last reset, over UDP and TCP alike, a line
// "name<TAB>TYPE<TAB>udp|tcp" each.
inline std::string queries() { return slurp(env("DNSENV_QUERY_LOG")); }
inline void reset_queries() { spit(env("DNSENV_QUERY_LOG"), ""); }

// Queries for name (lower-case, no final dot) and, when given, type ("A", "MX", "PTR", ...).
inline std::size_t query_count(const std::string& name, const std::string& type = "") {
    const std::string key = name + "\t" + (type.empty() ? "" : type + "\t");
    std::istringstream log(queries());
    std::size_t n = 0;
    for (std::string line; std::getline(log, line);) n += line.rfind(key, 0) == 0;
    return n;
}

}  // namespace ow_test::dnsenv

#endif  // ARDVEX_TESTS_DNSENV_HPP

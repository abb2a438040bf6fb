// dnsenv.hpp: what a test program run by tests/support/dnsenv.sh needs to drive its name
// servers: add scripted names, read how many queries the servers saw, and write the private
// /etc/hosts. A test program whose name ends in _dnsenv_test runs inside dnsenv.sh; its
// fixture skips unless inside() holds, so a stray run can never write the real /etc/hosts.
//
//     ow_test::dnsenv::script(R"({"helo.scripted.test": {"A": {"rcode": 2}}})");
//     ow_test::dnsenv::reset_queries();
//     ...two lookups of helo.scripted.test...
//     EXPECT_EQ(ow_test::dnsenv::query_count("helo.scripted.test", "A"), 1u);
#ifndef ARDVEX_TESTS_DNSENV_HPP
#define ARDVEX_TESTS_DNSENV_HPP

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace ow_test::dnsenv {

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
inline void script(const std::string& json) {
    std::ofstream(env("DNSENV_SCRIPT"), std::ios::trunc) << json;
}

// Queries the servers saw since the last reset for name (lower-case, no final dot) and, when
// given, type ("A", "MX", "PTR", ...); over UDP and TCP alike.
inline std::size_t query_count(const std::string& name, const std::string& type = "") {
    std::ifstream log(env("DNSENV_QUERY_LOG"));
    std::size_t n = 0;
    for (std::string line; std::getline(log, line);) {
        std::istringstream fields(line);
        std::string qname, qtype;
        std::getline(fields, qname, '\t');
        std::getline(fields, qtype, '\t');
        n += qname == name && (type.empty() || qtype == type);
    }
    return n;
}

// The query log line by line ("name<TAB>TYPE<TAB>udp|tcp"), for failure messages.
inline std::string queries() {
    std::ifstream log(env("DNSENV_QUERY_LOG"));
    std::ostringstream out;
    out << log.rdbuf();
    return out.str();
}

inline void reset_queries() { std::ofstream(env("DNSENV_QUERY_LOG"), std::ios::trunc); }

// Replaces the private /etc/hosts.
inline void write_hosts(const std::string& text) {
    std::ofstream("/etc/hosts", std::ios::trunc | std::ios::binary) << text;
}

}  // namespace ow_test::dnsenv

#endif  // ARDVEX_TESTS_DNSENV_HPP

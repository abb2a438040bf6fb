// Starts and stops tests/support/https_endpoint.py for C++ tests.
#include "https_endpoint.hpp"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace ow_test {

namespace {

namespace fs = std::filesystem;

std::string sh_quote(const std::string& s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

}  // namespace

https_endpoint::https_endpoint(const std::string& source_dir,
                               const https_endpoint_options& options) {
    for (const char* v :
         {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
        ::unsetenv(v);
    }
    ::setenv("no_proxy", "*", 1);
    ::setenv("NO_PROXY", "*", 1);

    std::error_code ec;
    std::string pattern = (fs::temp_directory_path(ec) / "ardvex-endpoint-XXXXXX").string();
    if (ec || ::mkdtemp(pattern.data()) == nullptr) {
        error_ = "cannot make a work directory: " + std::string(std::strerror(errno));
        return;
    }
    work_dir_ = pattern;
    record_dir_ = work_dir_ + "/records";
    fs::create_directory(record_dir_, ec);

    // The shell says its pid and then becomes the endpoint, which says "ready <port>". The
    // system's interpreter starts much faster than a version manager's shim.
    const std::string support = sh_quote(source_dir + "/tests/support");
    const std::string command =
        "/bin/sh " + support + "/make_cert.sh " + sh_quote(work_dir_) + " " +
        sh_quote(options.host) +
        " >&2 && echo $$ && p=/usr/bin/python3 && { [ -x $p ] || p=python3; } && exec $p " +
        support + "/https_endpoint.py --bind 127.0.0.1 --port 0 --cert " +
        sh_quote(work_dir_ + "/cert.pem") + " --key " + sh_quote(work_dir_ + "/key.pem") +
        " --record-dir " + sh_quote(record_dir_) + " --status " + std::to_string(options.status) +
        " --reply " + sh_quote(options.reply) + (options.interim_100 ? " --interim-100" : "");
    out_ = ::popen(command.c_str(), "re");
    char line[64] = "";
    if (out_ == nullptr || std::fgets(line, sizeof line, out_) == nullptr) {
        error_ = "make_cert.sh or the shell failed";
        return;
    }
    pid_ = std::atoi(line);
    const std::string said = std::fgets(line, sizeof line, out_) != nullptr ? line : "";
    if (said.starts_with("ready ")) port_ = std::atoi(line + 6);
    if (port_ <= 0) error_ = "the endpoint did not start; it said [" + said + "]";
}

https_endpoint::~https_endpoint() {
    // Everything is recorded before the answer goes out: nothing is lost by killing it.
    if (pid_ > 0) ::kill(pid_, SIGKILL);
    if (out_ != nullptr) ::pclose(out_);
    std::error_code ec;
    if (!work_dir_.empty()) fs::remove_all(work_dir_, ec);
}

void https_endpoint::set_status(int status) const {
    // Renamed into place, so a request never sees a half-written status.
    std::ofstream(record_dir_ + "/status.tmp") << status << "\n";
    std::error_code ec;
    fs::rename(record_dir_ + "/status.tmp", record_dir_ + "/status", ec);
}

std::string https_endpoint::recorded(const char* prefix, int n, const char* suffix) const {
    std::ifstream in(record_dir_ + prefix + std::to_string(n) + suffix, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace ow_test

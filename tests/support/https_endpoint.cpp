// https_endpoint.cpp: starts and stops tests/support/https_endpoint.py for C++ tests.
#include "https_endpoint.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

namespace ow_test {

namespace {

namespace fs = std::filesystem;

// Runs argv (argv[0] is the path) with standard output on out_fd (-1: inherited). Returns
// the child's pid, or -1.
pid_t spawn(const std::vector<std::string>& args, int out_fd) {
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (out_fd >= 0) ::dup2(out_fd, STDOUT_FILENO);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    return pid;
}

int wait_exit(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// The system's interpreter starts much faster than a version manager's shim.
std::string python() {
    for (const char* p : {"/usr/bin/python3", "/usr/local/bin/python3"}) {
        if (::access(p, X_OK) == 0) return p;
    }
    return "/usr/bin/env";
}

}  // namespace

https_endpoint::https_endpoint(const std::string& source_dir, https_endpoint_options options) {
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
    cert_file_ = work_dir_ + "/cert.pem";
    fs::create_directory(record_dir_, ec);

    const std::string support = source_dir + "/tests/support";
    const pid_t cert = spawn({"/bin/sh", support + "/make_cert.sh", work_dir_, options.host}, -1);
    if (cert < 0 || wait_exit(cert) != 0) {
        error_ = "make_cert.sh failed";
        return;
    }

    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
        error_ = "pipe failed";
        return;
    }
    std::vector<std::string> args{python()};
    if (args[0] == "/usr/bin/env") args.push_back("python3");
    for (const std::string& a :
         {support + "/https_endpoint.py", std::string("--bind"), std::string("127.0.0.1"),
          std::string("--port"), std::string("0"), std::string("--cert"), cert_file_,
          std::string("--key"), work_dir_ + "/key.pem", std::string("--record-dir"), record_dir_,
          std::string("--status"), std::to_string(options.status), std::string("--reply"),
          options.reply}) {
        args.push_back(a);
    }
    if (options.interim_100) args.push_back("--interim-100");
    pid_ = spawn(args, out[1]);
    ::close(out[1]);
    if (pid_ < 0) {
        ::close(out[0]);
        error_ = "fork failed";
        return;
    }

    // "ready <port>\n", within a generous time for a loaded machine.
    std::string line;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        pollfd p{out[0], POLLIN, 0};
        if (::poll(&p, 1, 200) <= 0) continue;
        char buf[64];
        const ssize_t got = ::read(out[0], buf, sizeof buf);
        if (got <= 0) break;
        line.append(buf, static_cast<std::size_t>(got));
    }
    ::close(out[0]);
    if (line.rfind("ready ", 0) != 0) {
        error_ = "the endpoint did not start; it said [" + line + "]";
        return;
    }
    port_ = std::atoi(line.c_str() + 6);
    if (port_ <= 0) error_ = "bad ready line [" + line + "]";
}

https_endpoint::~https_endpoint() {
    if (pid_ > 0) {
        ::kill(pid_, SIGTERM);
        int status = 0;
        bool gone = false;
        for (int i = 0; i < 100 && !gone; ++i) {
            gone = ::waitpid(pid_, &status, WNOHANG) == pid_;
            if (!gone) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (!gone) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
        }
    }
    if (!work_dir_.empty()) {
        std::error_code ec;
        fs::remove_all(work_dir_, ec);
    }
}

std::string https_endpoint::url(const std::string& path) const {
    return "https://127.0.0.1:" + std::to_string(port_) + path;
}

void https_endpoint::set_status(int status) const {
    const std::string tmp = record_dir_ + "/status.tmp";
    std::ofstream(tmp) << status << "\n";
    // Renamed into place, so a request never sees a half-written status.
    std::error_code ec;
    fs::rename(tmp, record_dir_ + "/status", ec);
}

int https_endpoint::request_count() const {
    int n = 0;
    while (fs::exists(record_dir_ + "/request-" + std::to_string(n + 1) + ".txt")) ++n;
    return n;
}

std::string https_endpoint::body(int n) const {
    return read_file(record_dir_ + "/body-" + std::to_string(n) + ".bin");
}

std::string https_endpoint::request(int n) const {
    return read_file(record_dir_ + "/request-" + std::to_string(n) + ".txt");
}

}  // namespace ow_test

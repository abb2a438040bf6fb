// policyd_load: a load generator for ardvex-policyd over its unix socket. Each of N
// connections runs in its own thread and sends policy requests one after the other, as a
// Postfix smtpd does.
//
//   policyd_load SOCKET [-c CONNECTIONS] [-r RATE] [-s SECONDS] [--private]
//
// With a rate (requests per second over all connections) every request has a planned send
// time, and its latency is measured from that time, so a service that falls behind is
// charged for the wait of the requests queued behind (no coordinated omission). Without a
// rate the connections send back to back: the saturation throughput. Client addresses cycle
// through 203.0.113.1-40 with unknown names, so the engine asks DNS for each; --private
// uses 10.0.x.x instead, which the reverse-DNS rules skip.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

struct options {
    std::string socket;
    int connections = 50;
    double rate = 0;
    double seconds = 10;
    bool private_clients = false;
};

struct result {
    std::vector<double> latencies_ms;
    long errors = 0;
    long non_dunno = 0;
    std::string sample;  // the first answer that was not DUNNO
};

int connect_to(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

std::string make_request(const options& o, int conn, long n) {
    char addr[32];
    if (o.private_clients) {
        std::snprintf(addr, sizeof addr, "10.0.%d.%ld", conn % 250, 1 + n % 250);
    } else {
        std::snprintf(addr, sizeof addr, "203.0.113.%ld", 1 + (conn + n) % 40);
    }
    return std::string("request=smtpd_access_policy\nprotocol_state=RCPT\nclient_address=") + addr +
           "\nclient_name=unknown\nreverse_client_name=unknown\nhelo_name=mail.good.test\n"
           "sender=a@good.test\nrecipient=u@example.test\ninstance=" +
           std::to_string(conn) + "." + std::to_string(n) + "\n\n";
}

// Sends one request and reads its answer; false when the connection failed.
bool exchange(int fd, const std::string& req, std::string& answer) {
    if (::send(fd, req.data(), req.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(req.size())) {
        return false;
    }
    answer.clear();
    char buf[1024];
    while (answer.find("\n\n") == std::string::npos) {
        const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) return false;
        answer.append(buf, static_cast<size_t>(n));
    }
    return true;
}

void run_connection(const options& o, int conn, clock_type::time_point start,
                    clock_type::time_point end, result& out) {
    int fd = connect_to(o.socket);
    if (fd < 0) {
        ++out.errors;
        return;
    }
    const double interval = o.rate > 0 ? o.connections / o.rate : 0;  // seconds
    std::string answer;
    for (long n = 0;; ++n) {
        clock_type::time_point planned = clock_type::now();
        if (interval > 0) {
            // Connections are staggered over one interval so the load is even.
            planned =
                start +
                std::chrono::duration_cast<clock_type::duration>(
                    std::chrono::duration<double>(interval * (n + double(conn) / o.connections)));
            if (planned >= end) break;
            std::this_thread::sleep_until(planned);
        } else if (planned >= end) {
            break;
        }
        if (!exchange(fd, make_request(o, conn, n), answer)) {
            ++out.errors;
            ::close(fd);
            fd = connect_to(o.socket);
            if (fd < 0) return;
            continue;
        }
        const double ms =
            std::chrono::duration<double, std::milli>(clock_type::now() - planned).count();
        out.latencies_ms.push_back(ms);
        if (answer != "action=DUNNO\n\n" && out.non_dunno++ == 0) out.sample = answer;
    }
    ::close(fd);
}

double percentile(const std::vector<double>& sorted, double p) {
    if (sorted.empty()) return 0;
    const size_t i =
        std::min(sorted.size() - 1, static_cast<size_t>(p * (sorted.size() - 1) + 0.5));
    return sorted[i];
}

}  // namespace

int main(int argc, char** argv) {
    options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-c" && i + 1 < argc) {
            o.connections = std::atoi(argv[++i]);
        } else if (a == "-r" && i + 1 < argc) {
            o.rate = std::atof(argv[++i]);
        } else if (a == "-s" && i + 1 < argc) {
            o.seconds = std::atof(argv[++i]);
        } else if (a == "--private") {
            o.private_clients = true;
        } else if (o.socket.empty() && a[0] != '-') {
            o.socket = a;
        } else {
            std::fprintf(stderr,
                         "usage: policyd_load SOCKET [-c N] [-r RATE] [-s SECONDS] [--private]\n");
            return 2;
        }
    }
    if (o.socket.empty() || o.connections < 1) {
        std::fprintf(stderr,
                     "usage: policyd_load SOCKET [-c N] [-r RATE] [-s SECONDS] [--private]\n");
        return 2;
    }
    std::vector<result> results(static_cast<size_t>(o.connections));
    std::vector<std::thread> threads;
    const auto start = clock_type::now() + std::chrono::milliseconds(100);
    const auto end = start + std::chrono::duration_cast<clock_type::duration>(
                                 std::chrono::duration<double>(o.seconds));
    for (int c = 0; c < o.connections; ++c) {
        threads.emplace_back(run_connection, std::cref(o), c, start, end, std::ref(results[c]));
    }
    for (auto& t : threads) t.join();
    const double elapsed = std::chrono::duration<double>(clock_type::now() - start).count();

    std::vector<double> all;
    long errors = 0, non_dunno = 0;
    std::string sample;
    for (const auto& r : results) {
        if (sample.empty()) sample = r.sample;
        all.insert(all.end(), r.latencies_ms.begin(), r.latencies_ms.end());
        errors += r.errors;
        non_dunno += r.non_dunno;
    }
    std::sort(all.begin(), all.end());
    std::printf(
        "connections %d, %s, %.1f s: %zu answers (%ld not DUNNO), %ld errors, %.0f requests/s\n"
        "latency ms: p50 %.2f  p90 %.2f  p99 %.2f  max %.2f\n",
        o.connections,
        o.rate > 0 ? ("rate " + std::to_string(int(o.rate)) + "/s").c_str() : "saturation", elapsed,
        all.size(), non_dunno, errors, all.size() / elapsed, percentile(all, 0.50),
        percentile(all, 0.90), percentile(all, 0.99), all.empty() ? 0.0 : all.back());
    if (!sample.empty()) std::printf("first answer other than DUNNO: %s", sample.c_str());
    return errors == 0 ? 0 : 1;
}

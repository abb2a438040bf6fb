// ardvex-policyd: the screening engine as a Postfix policy service.
//
// One dispatcher process owns every client connection in an epoll loop: it reads and frames
// requests, keeps the rate-limit counts, enforces the size and time limits, and answers. The
// judging itself runs in a pool of worker processes, one request at a time each, because the
// engine's lookups block and the engine was written single-threaded (its files serialise
// with fcntl locks, which belong to a process, not a thread). A slow DNS answer therefore
// holds one worker, never the dispatcher or the other connections; a worker that crashes or
// overruns its time costs one DUNNO answer and is replaced.
//
// Workers are this program again (--worker), started with fork and exec; they talk to the
// dispatcher over a SOCK_SEQPACKET pair on descriptor 3:
//   dispatcher -> worker  'C' + settings file text      (at start and after each reload)
//                         'R' + flags byte + request    (flags: 1 counted, 2 inbound over,
//                                                        4 outbound over)
//   worker -> dispatcher  the answer text (what follows "action=")
#include <fcntl.h>
#include <grp.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "ardvex-log.h"
#include "ardvex.h"
#include "ardvex_config.h"
#include "ow_log.h"
#include "policy_config.hpp"
#include "policy_judge.hpp"
#include "policy_request.hpp"
#include "rate_limiter.hpp"

namespace {

using namespace ow::policy;

constexpr const char* kIdentity = "ardvex-policyd";
constexpr const char* kDefaultListen = "unix:/run/ardvex/policyd.sock";
constexpr int kWorkerFd = 3;
constexpr size_t kMaxMessage = kMaxConfigSize + 65536 + 16;

// Where the service's own lines go: syslog (facility mail) unless --stderr asked for the
// terminal. Set once in main, before anything logs.
bool g_to_stderr = false;

void say(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void say(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    if (g_to_stderr) {
        std::fprintf(stderr, "%s[%d]: ", kIdentity, static_cast<int>(::getpid()));
        std::vfprintf(stderr, format, args);
        std::fputc('\n', stderr);
    } else {
        ::vsyslog(priority, format, args);
    }
    va_end(args);
}

void stderr_sink(int priority, const char* format, ...) {
    (void)priority;
    va_list args;
    va_start(args, format);
    std::fprintf(stderr, "%s[%d]: ", kIdentity, static_cast<int>(::getpid()));
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    va_end(args);
}

void usage(FILE* out) {
    std::fputs(
        "usage: ardvex-policyd [-c FILE] [--stderr]\n"
        "       ardvex-policyd --check [-c FILE]\n"
        "Postfix policy service of the Ardvex screening engine (see ardvex-policyd(8)).\n"
        "  -c FILE    settings file (default /etc/ardvex/policyd.conf)\n"
        "  --stderr   log to standard error instead of syslog\n"
        "  --check    only check the settings file; exit 0 when it is usable\n",
        out);
}

// ---------------------------------------------------------------------------------------
// Worker.

int worker_main(const ow_list* rules) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Reloads and interrupts are the dispatcher's; a hangup of the whole process group (a
    // terminal closing) must not take the workers away from under it.
    ::signal(SIGHUP, SIG_IGN);
    ::signal(SIGINT, SIG_IGN);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    config cfg;
    std::vector<char> buf(kMaxMessage);
    for (;;) {
        const ssize_t n = ::recv(kWorkerFd, buf.data(), buf.size(), 0);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            return 0;  // the dispatcher went away
        }
        const std::string_view msg(buf.data(), static_cast<size_t>(n));
        std::string answer = "DUNNO";
        try {
            if (msg[0] == 'C') {
                std::string error;
                config fresh;
                if (parse_config(msg.substr(1), rules, fresh, error)) {
                    cfg = std::move(fresh);
                } else {
                    say(LOG_ERR, "worker: settings refused: %s", error.c_str());
                }
                continue;
            }
            if (msg[0] != 'R') continue;  // nothing waits for an answer to it
            const auto flags = msg.size() > 1 ? static_cast<unsigned char>(msg[1]) : 0;
            request req;
            std::string why;
            if (msg.size() > 1 && parse_request(msg.substr(2), req, why)) {
                rate_verdicts rates;
                rates.counted = (flags & 1) != 0;
                rates.inbound_over = (flags & 2) != 0;
                rates.outbound_over = (flags & 4) != 0;
                const verdict v = judge(cfg, rules, req, rates, true);
                answer = v.answer;
                if (v.taken == action::reject || v.taken == action::defer ||
                    v.taken == action::warn) {
                    const std::string_view id = req.get("queue_id");
                    say(LOG_INFO, "%s: %s %s from %.*s: %s",
                        v.taken == action::warn    ? "warn"
                        : v.dns_deferred           ? "dns-defer"
                        : v.taken == action::defer ? "defer"
                                                   : "reject",
                        v.rule.c_str(), id.empty() ? "-" : std::string(id).c_str(),
                        static_cast<int>(req.get("client_address").size()),
                        req.get("client_address").data(), answer.c_str());
                }
            }
        } catch (const std::exception& e) {
            say(LOG_ERR, "worker: internal failure (%s); answering DUNNO", e.what());
            answer = "DUNNO";
        }
        if (::send(kWorkerFd, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) return 0;
    }
}

// ---------------------------------------------------------------------------------------
// Dispatcher.

enum tag : uint64_t {
    kTagListener = 1ull << 56,
    kTagSignal = 2ull << 56,
    kTagTimer = 3ull << 56,
    kTagWorker = 4ull << 56,
    kTagConnection = 5ull << 56,
};
constexpr uint64_t kTagMask = 0xffull << 56;

struct connection {
    int fd = -1;
    std::string in;        // bytes of the request being read (at most max_request_size)
    std::string out;       // answer bytes not yet written
    std::string pending;   // the message for a worker, while queued
    bool waiting = false;  // a request is with a worker or queued for one
    bool discarding = false;
    int discard_state = 0;    // 1 after a line feed, 2 after a line feed and a CR
    std::time_t last_io = 0;  // last byte read or written
    std::time_t started = 0;  // first byte of the request being read, or when it was queued
};

struct worker {
    pid_t pid = 0;
    int fd = -1;
    uint64_t conn = 0;  // connection whose request it judges; 0 when idle
    std::time_t since = 0;
    std::time_t spawned = 0;
    unsigned served = 0;
};

class dispatcher {
   public:
    dispatcher(std::string config_path, const ow_list* rules, config cfg, std::string cfg_text)
        : config_path_(std::move(config_path)),
          rules_(rules),
          cfg_(std::move(cfg)),
          cfg_text_(std::move(cfg_text)) {}

    bool start(const std::vector<int>& listeners);
    int run();

   private:
    void add(int fd, uint32_t events, uint64_t data);
    void accept_all(int listener);
    void on_connection(uint64_t id, uint32_t events);
    void read_from(uint64_t id, connection& c);
    enum class taken { incomplete, queued, answered };
    taken take_request(uint64_t id, connection& c);
    void answer(connection& c, const std::string& action);
    bool flush(uint64_t id, connection& c);
    void serve(uint64_t id);
    void close_connection(uint64_t id);
    void pump();
    void on_worker(size_t slot);
    void worker_lost(size_t slot, const char* why);
    bool spawn(size_t slot);
    void on_signal();
    void reload();
    void tick();
    void rate_flags(const request& req, unsigned char& flags);
    void complain(const char* format, ...) __attribute__((format(printf, 2, 3)));

    std::string config_path_;
    const ow_list* rules_;
    config cfg_;
    std::string cfg_text_;
    std::string self_;
    int epoll_ = -1;
    int signal_fd_ = -1;
    int timer_fd_ = -1;
    std::vector<int> listeners_;
    std::unordered_map<uint64_t, connection> conns_;
    uint64_t next_id_ = 1;
    std::vector<worker> workers_;
    std::deque<uint64_t> queue_;
    rate_limiter inbound_, outbound_;
    bool stopping_ = false;
    std::time_t now_ = 0;
    std::time_t last_refusal_log_ = 0;
    std::time_t complaint_second_ = 0;  // complaints about requests: at most 10 a second
    unsigned complaints_ = 0;
};

void dispatcher::add(int fd, uint32_t events, uint64_t data) {
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = data;
    ::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &ev);
}

bool dispatcher::start(const std::vector<int>& listeners) {
    char exe[4096];
    const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) {
        say(LOG_ERR, "cannot find my own program: %s", std::strerror(errno));
        return false;
    }
    self_.assign(exe, static_cast<size_t>(n));
    epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
    sigset_t set;
    sigemptyset(&set);
    for (const int s : {SIGHUP, SIGTERM, SIGINT, SIGCHLD}) sigaddset(&set, s);
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
    signal_fd_ = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    timer_fd_ = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    itimerspec every_second{{1, 0}, {1, 0}};
    ::timerfd_settime(timer_fd_, 0, &every_second, nullptr);
    if (epoll_ < 0 || signal_fd_ < 0 || timer_fd_ < 0) {
        say(LOG_ERR, "cannot set up the event loop: %s", std::strerror(errno));
        return false;
    }
    add(signal_fd_, EPOLLIN, kTagSignal);
    add(timer_fd_, EPOLLIN, kTagTimer);
    listeners_ = listeners;
    for (size_t i = 0; i < listeners_.size(); ++i) {
        ::fcntl(listeners_[i], F_SETFD, FD_CLOEXEC);
        ::fcntl(listeners_[i], F_SETFL, ::fcntl(listeners_[i], F_GETFL) | O_NONBLOCK);
        add(listeners_[i], EPOLLIN, kTagListener | i);
    }
    now_ = std::time(nullptr);
    workers_.resize(cfg_.workers);
    for (size_t i = 0; i < workers_.size(); ++i) {
        if (!spawn(i)) return false;
    }
    return true;
}

bool dispatcher::spawn(size_t slot) {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) < 0) {
        say(LOG_ERR, "cannot make a worker channel: %s", std::strerror(errno));
        return false;
    }
    // Everything the child needs is built before the fork: it only moves a descriptor and
    // executes.
    const char* argv[] = {self_.c_str(), "--worker", g_to_stderr ? "--stderr" : nullptr, nullptr};
    const pid_t pid = ::fork();
    if (pid < 0) {
        say(LOG_ERR, "cannot start a worker: %s", std::strerror(errno));
        ::close(pair[0]);
        ::close(pair[1]);
        return false;
    }
    if (pid == 0) {
        if (pair[1] == kWorkerFd) {
            ::fcntl(kWorkerFd, F_SETFD, 0);
        } else if (::dup2(pair[1], kWorkerFd) < 0) {
            ::_exit(127);
        }
        ::execv(argv[0], const_cast<char* const*>(argv));
        ::_exit(127);
    }
    ::close(pair[1]);
    worker& w = workers_[slot];
    w = worker{};
    w.pid = pid;
    w.fd = pair[0];
    w.spawned = now_;
    add(w.fd, EPOLLIN, kTagWorker | slot);
    const std::string msg = "C" + cfg_text_;
    ::send(w.fd, msg.data(), msg.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return true;
}

void dispatcher::worker_lost(size_t slot, const char* why) {
    worker& w = workers_[slot];
    if (w.fd < 0) return;
    ::epoll_ctl(epoll_, EPOLL_CTL_DEL, w.fd, nullptr);
    ::close(w.fd);
    w.fd = -1;
    if (w.conn != 0) {
        say(LOG_ERR, "worker %d %s while judging a request; answered DUNNO",
            static_cast<int>(w.pid), why);
        const uint64_t id = w.conn;
        const auto it = conns_.find(id);
        if (it != conns_.end()) {
            answer(it->second, "DUNNO");
            w.conn = 0;
            serve(id);
        }
    } else {
        say(LOG_ERR, "worker %d %s", static_cast<int>(w.pid), why);
    }
    w.conn = 0;
    // A worker that dies at once would die again at once: its slot waits for the next tick.
    const bool young = now_ - w.spawned < 1 && w.served == 0;
    w.pid = 0;
    if (!stopping_ && !young) spawn(slot);
}

void dispatcher::on_worker(size_t slot) {
    worker& w = workers_[slot];
    char buf[4096];  // an answer is at most a reply line
    const ssize_t n = ::recv(w.fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (n <= 0) {
        worker_lost(slot, "exited");
        pump();
        return;
    }
    ++w.served;
    const uint64_t id = w.conn;
    w.conn = 0;
    const auto it = conns_.find(id);
    if (it != conns_.end()) {
        answer(it->second, std::string(buf, static_cast<size_t>(n)));
        serve(id);
    }
    pump();
}

void dispatcher::pump() {
    for (size_t i = 0; i < workers_.size() && !queue_.empty(); ++i) {
        worker& w = workers_[i];
        if (w.fd < 0 || w.conn != 0) continue;
        while (!queue_.empty()) {
            const uint64_t id = queue_.front();
            queue_.pop_front();
            const auto it = conns_.find(id);
            // A connection answered meanwhile (time-out) has no pending message any more.
            if (it == conns_.end() || it->second.pending.empty()) continue;
            connection& c = it->second;
            if (::send(w.fd, c.pending.data(), c.pending.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
                say(LOG_ERR, "cannot hand a request to worker %d: %s; answered DUNNO",
                    static_cast<int>(w.pid), std::strerror(errno));
                answer(c, "DUNNO");
                serve(id);
                continue;
            }
            c.pending.clear();
            c.pending.shrink_to_fit();
            w.conn = id;
            w.since = now_;
            break;
        }
    }
}

void dispatcher::accept_all(int listener) {
    for (;;) {
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK && now_ != last_refusal_log_) {
                say(LOG_ERR, "accept: %s", std::strerror(errno));
                last_refusal_log_ = now_;
            }
            return;
        }
        if (conns_.size() >= cfg_.max_connections || stopping_) {
            if (now_ != last_refusal_log_) {
                say(LOG_WARNING, "refusing connections: %u open (max_connections)",
                    cfg_.max_connections);
                last_refusal_log_ = now_;
            }
            ::close(fd);
            continue;
        }
        const uint64_t id = next_id_++;
        connection& c = conns_[id];
        c.fd = fd;
        c.last_io = now_;
        add(fd, EPOLLIN | EPOLLRDHUP, kTagConnection | id);
    }
}

void dispatcher::close_connection(uint64_t id) {
    const auto it = conns_.find(id);
    if (it == conns_.end()) return;
    ::close(it->second.fd);  // also leaves the epoll set
    conns_.erase(it);
}

void dispatcher::on_connection(uint64_t id, uint32_t events) {
    const auto it = conns_.find(id);
    if (it == conns_.end()) return;
    connection& c = it->second;
    if ((events & EPOLLOUT) != 0) {
        serve(id);
        return;
    }
    if ((events & (EPOLLIN | EPOLLRDHUP)) != 0 && !c.waiting) {
        read_from(id, c);
        return;
    }
    if ((events & (EPOLLHUP | EPOLLERR)) != 0) close_connection(id);
}

void dispatcher::read_from(uint64_t id, connection& c) {
    char chunk[16384];
    const ssize_t n = ::read(c.fd, chunk, sizeof chunk);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (n <= 0) {
        close_connection(id);
        return;
    }
    c.last_io = now_;
    if (c.in.empty() && !c.discarding) c.started = now_;
    std::string_view data(chunk, static_cast<size_t>(n));
    if (c.discarding) {
        // An oversized request is skipped up to its empty line and then answered.
        for (size_t i = 0; i < data.size(); ++i) {
            const char ch = data[i];
            if (ch == '\n') {
                if (c.discard_state != 0) {
                    c.discarding = false;
                    c.discard_state = 0;
                    c.in.assign(data.substr(i + 1));
                    c.started = now_;
                    answer(c, "DUNNO");
                    serve(id);
                    return;
                }
                c.discard_state = 1;
            } else {
                c.discard_state = (ch == '\r' && c.discard_state == 1) ? 2 : 0;
            }
        }
        return;
    }
    c.in.append(data);
    serve(id);
}

dispatcher::taken dispatcher::take_request(uint64_t id, connection& c) {
    size_t body_end = 0;
    const size_t end = find_request_end(c.in, body_end);
    if (end == 0) {
        if (c.in.size() > cfg_.max_request_size) {
            complain("request larger than %u bytes; skipping it and answering DUNNO",
                     cfg_.max_request_size);
            c.discarding = true;
            c.discard_state = c.in.back() == '\n' ? 1 : 0;
            if (c.in.size() >= 2 && c.in.back() == '\r' && c.in[c.in.size() - 2] == '\n') {
                c.discard_state = 2;
            }
            c.in.clear();
            c.in.shrink_to_fit();
        }
        return taken::incomplete;
    }
    if (end > cfg_.max_request_size + 2) {
        complain("request larger than %u bytes; answering DUNNO", cfg_.max_request_size);
        c.in.erase(0, end);
        answer(c, "DUNNO");
        return taken::answered;
    }
    const std::string body = c.in.substr(0, body_end);
    c.in.erase(0, end);
    request req;
    std::string why;
    if (!parse_request(body, req, why)) {
        complain("malformed request (%s); answering DUNNO", why.c_str());
        answer(c, "DUNNO");
        return taken::answered;
    }
    if (req.get("request") != "smtpd_access_policy") {
        complain("request type \"%.64s\" is not smtpd_access_policy; answering DUNNO",
                 std::string(req.get("request")).c_str());
        answer(c, "DUNNO");
        return taken::answered;
    }
    unsigned char flags = 0;
    rate_flags(req, flags);
    c.pending.clear();
    c.pending += 'R';
    c.pending += static_cast<char>(flags);
    c.pending += body;
    c.waiting = true;
    c.started = now_;
    // Nothing more is read from this client until it has its answer: one request per
    // connection is in the house at a time, which bounds a connection's memory.
    epoll_event ev{};
    ev.events = 0;
    ev.data.u64 = kTagConnection | id;
    ::epoll_ctl(epoll_, EPOLL_CTL_MOD, c.fd, &ev);
    queue_.push_back(id);
    pump();
    return taken::queued;
}

// Warnings about what a client sent; a client sending garbage in a loop must not flood the
// mail log, so each second gets ten and a count of the rest.
void dispatcher::complain(const char* format, ...) {
    if (now_ != complaint_second_) {
        if (complaints_ > 10) say(LOG_WARNING, "%u similar warnings suppressed", complaints_ - 10);
        complaint_second_ = now_;
        complaints_ = 0;
    }
    if (++complaints_ > 10) return;
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    say(LOG_WARNING, "%s", text);
}

void dispatcher::rate_flags(const request& req, unsigned char& flags) {
    const std::string_view user = req.get("sasl_username");
    const std::string_view ip = req.get("client_address");
    const bool ipv6 = ip.find(':') != std::string_view::npos;
    flags = 1;
    for (const ow_list* e = rules_; e != nullptr; e = e->next) {
        const auto* rule = static_cast<const spam_rule*>(e->data);
        if (rule == nullptr || rule->name == nullptr || rule->check != nullptr) continue;
        const std::string_view name = rule->name;
        const bool in = name == "inbound";
        if (!in && name != "outbound") continue;
        if (action_for(cfg_, *rule) == action::off || !rule_applies(*rule, !user.empty(), ipv6)) {
            continue;
        }
        const std::string_view key = in ? ip : user;
        if ((in ? inbound_ : outbound_)
                .over(key, req.get("instance"), now_, in ? cfg_.inbound : cfg_.outbound)) {
            flags |= in ? 2 : 4;
        }
    }
}

void dispatcher::answer(connection& c, const std::string& action) {
    c.waiting = false;
    c.pending.clear();
    c.out += frame_answer(action);
}

// Writes what is pending; true when all of it went out. On a full socket it waits for
// EPOLLOUT (reading nothing meanwhile); a client that left is closed, and c is gone then.
bool dispatcher::flush(uint64_t id, connection& c) {
    while (!c.out.empty()) {
        const ssize_t n = ::send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                epoll_event ev{};
                ev.events = EPOLLOUT;
                ev.data.u64 = kTagConnection | id;
                ::epoll_ctl(epoll_, EPOLL_CTL_MOD, c.fd, &ev);
                return false;
            }
            close_connection(id);  // the client left before its answer
            return false;
        }
        c.out.erase(0, static_cast<size_t>(n));
        c.last_io = now_;
    }
    return true;
}

// Moves a connection on as far as it can go now: writes its answer, then takes the next
// request it already sent (a pipelining client), one at a time, so neither the stack nor
// the pending output grows with what a client sends.
void dispatcher::serve(uint64_t id) {
    for (;;) {
        const auto it = conns_.find(id);
        if (it == conns_.end()) return;
        connection& c = it->second;
        if (!flush(id, c)) return;
        if (c.waiting) return;
        if (c.in.empty() || take_request(id, c) != taken::answered) {
            if (!c.waiting) {
                epoll_event ev{};
                ev.events = EPOLLIN | EPOLLRDHUP;
                ev.data.u64 = kTagConnection | id;
                ::epoll_ctl(epoll_, EPOLL_CTL_MOD, c.fd, &ev);
            }
            return;
        }
    }
}

void dispatcher::reload() {
    config fresh;
    std::string error, text;
    if (!load_config(config_path_.c_str(), rules_, fresh, error, &text)) {
        if (errno == ENOENT && ::access(config_path_.c_str(), F_OK) != 0) {
            fresh = config{};
            text.clear();
        } else {
            say(LOG_ERR, "settings not reloaded, keeping the previous ones: %s", error.c_str());
            return;
        }
    }
    if (fresh.workers != cfg_.workers || fresh.listen != cfg_.listen || fresh.user != cfg_.user) {
        say(LOG_WARNING, "workers, listen and user take effect at the next start only");
        fresh.workers = cfg_.workers;
        fresh.listen = cfg_.listen;
        fresh.user = cfg_.user;
    }
    cfg_ = std::move(fresh);
    cfg_text_ = std::move(text);
    const std::string msg = "C" + cfg_text_;
    for (const worker& w : workers_) {
        if (w.fd >= 0) ::send(w.fd, msg.data(), msg.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    say(LOG_INFO, "settings reloaded from %s", config_path_.c_str());
}

void dispatcher::on_signal() {
    signalfd_siginfo info;
    while (::read(signal_fd_, &info, sizeof info) == sizeof info) {
        switch (info.ssi_signo) {
            case SIGHUP:
                reload();
                break;
            case SIGTERM:
            case SIGINT:
                stopping_ = true;
                break;
            case SIGCHLD:
                for (int status = 0;;) {
                    const pid_t pid = ::waitpid(-1, &status, WNOHANG);
                    if (pid <= 0) break;
                    for (size_t i = 0; i < workers_.size(); ++i) {
                        if (workers_[i].pid != pid) continue;
                        char why[64];
                        if (WIFSIGNALED(status)) {
                            std::snprintf(why, sizeof why, "was killed by signal %d",
                                          WTERMSIG(status));
                        } else {
                            std::snprintf(why, sizeof why, "exited with status %d",
                                          WEXITSTATUS(status));
                        }
                        worker_lost(i, why);
                    }
                }
                pump();
                break;
            default:
                break;
        }
    }
}

void dispatcher::tick() {
    uint64_t expirations;
    while (::read(timer_fd_, &expirations, sizeof expirations) > 0) {
    }
    for (size_t i = 0; i < workers_.size(); ++i) {
        worker& w = workers_[i];
        if (w.fd >= 0 && w.conn != 0 && now_ - w.since >= cfg_.request_timeout) {
            // Its answer would come too late for Postfix; the worker may be stuck for good.
            ::kill(w.pid, SIGKILL);
            worker_lost(i, "overran request_timeout and was stopped");
        } else if (w.fd < 0 && w.pid == 0 && !stopping_) {
            spawn(i);
        }
    }
    std::vector<uint64_t> expired;
    for (auto& [id, c] : conns_) {
        if (c.waiting) {
            if (now_ - c.started >= cfg_.request_timeout) expired.push_back(id);
        } else if (!c.out.empty()) {
            if (now_ - c.last_io >= cfg_.idle_timeout) expired.push_back(id);
        } else if (!c.in.empty() || c.discarding) {
            if (now_ - c.started >= cfg_.read_timeout) expired.push_back(id);
        } else if (now_ - c.last_io >= cfg_.idle_timeout) {
            expired.push_back(id);
        }
    }
    for (const uint64_t id : expired) {
        const auto it = conns_.find(id);
        if (it == conns_.end()) continue;
        connection& c = it->second;
        if (c.waiting) {
            // A worker still judging it would answer later, into the next request's place:
            // it goes, and its loss answers DUNNO.
            bool at_worker = false;
            for (size_t i = 0; i < workers_.size(); ++i) {
                if (workers_[i].conn == id && workers_[i].fd >= 0) {
                    ::kill(workers_[i].pid, SIGKILL);
                    worker_lost(i, "overran request_timeout and was stopped");
                    at_worker = true;
                    break;
                }
            }
            if (!at_worker) {
                say(LOG_WARNING, "no worker free within request_timeout; answered DUNNO");
                answer(c, "DUNNO");
                serve(id);
            }
        } else {
            close_connection(id);
        }
    }
    inbound_.expire(now_, cfg_.inbound.window);
    outbound_.expire(now_, cfg_.outbound.window);
    pump();
}

int dispatcher::run() {
    say(LOG_INFO, "ready: %zu worker(s), %zu listener(s)", workers_.size(), listeners_.size());
    std::vector<epoll_event> events(256);
    while (!stopping_) {
        const int n = ::epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), 1000);
        if (n < 0 && errno != EINTR) {
            say(LOG_ERR, "epoll_wait: %s", std::strerror(errno));
            break;
        }
        now_ = std::time(nullptr);
        for (int i = 0; i < n; ++i) {
            const uint64_t data = events[i].data.u64;
            const uint64_t index = data & ~kTagMask;
            switch (data & kTagMask) {
                case kTagListener:
                    accept_all(listeners_[index]);
                    break;
                case kTagSignal:
                    on_signal();
                    break;
                case kTagTimer:
                    tick();
                    break;
                case kTagWorker:
                    if (workers_[index].fd >= 0) on_worker(index);
                    break;
                case kTagConnection:
                    on_connection(index, events[i].events);
                    break;
                default:
                    break;
            }
        }
    }
    say(LOG_INFO, "stopping");
    for (worker& w : workers_) {
        if (w.pid > 0) ::kill(w.pid, SIGTERM);
    }
    return 0;
}

// ---------------------------------------------------------------------------------------
// Start-up.

// Descriptors handed over by systemd's socket activation (LISTEN_FDS), if they are ours.
std::vector<int> inherited_listeners() {
    std::vector<int> fds;
    const char* pid = std::getenv("LISTEN_PID");
    const char* count = std::getenv("LISTEN_FDS");
    if (pid == nullptr || count == nullptr || std::atol(pid) != ::getpid()) return fds;
    const int n = std::atoi(count);
    for (int i = 0; i < n && i < 64; ++i) fds.push_back(3 + i);
    ::unsetenv("LISTEN_PID");
    ::unsetenv("LISTEN_FDS");
    ::unsetenv("LISTEN_FDNAMES");
    return fds;
}

int bind_listener(const std::string& address) {
    if (address.starts_with("unix:")) {
        const std::string path = address.substr(5);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        if (path.size() >= sizeof addr.sun_path) return -1;
        std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
        const size_t slash = path.rfind('/');
        if (slash != std::string::npos && slash > 0) ::mkdir(path.substr(0, slash).c_str(), 0755);
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ::unlink(path.c_str());  // a socket left by an earlier run
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0 ||
            ::chmod(path.c_str(), 0666) < 0 || ::listen(fd, SOMAXCONN) < 0) {
            say(LOG_ERR, "cannot listen on %s: %s", address.c_str(), std::strerror(errno));
            if (fd >= 0) ::close(fd);
            return -1;
        }
        return fd;
    }
    // inet:HOST:PORT
    const std::string rest = address.substr(5);
    const size_t colon = rest.rfind(':');
    std::string host = rest.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    const std::string port = rest.substr(colon + 1);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* ai = nullptr;
    if (::getaddrinfo(host.c_str(), port.c_str(), &hints, &ai) != 0 || ai == nullptr) {
        say(LOG_ERR, "cannot listen on %s: not a numeric address and port", address.c_str());
        return -1;
    }
    const int fd = ::socket(ai->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    if (fd >= 0) ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    const bool ok =
        fd >= 0 && ::bind(fd, ai->ai_addr, ai->ai_addrlen) == 0 && ::listen(fd, SOMAXCONN) == 0;
    ::freeaddrinfo(ai);
    if (!ok) {
        say(LOG_ERR, "cannot listen on %s: %s", address.c_str(), std::strerror(errno));
        if (fd >= 0) ::close(fd);
        return -1;
    }
    return fd;
}

// Gives up root for good, after the sockets are bound.
bool drop_root(const std::string& user) {
    if (::geteuid() != 0) return true;
    const passwd* pw = ::getpwnam(user.c_str());
    if (pw == nullptr) {
        say(LOG_ERR, "user %s does not exist; refusing to run as root (create it or set user)",
            user.c_str());
        return false;
    }
    // A fresh install has no log directory yet: it becomes the service user's. One that
    // exists belongs to whoever set it up for the suite and keeps its owner.
    if (::mkdir(ARDVEX_LOG_DIR, 0750) == 0 && ::chown(ARDVEX_LOG_DIR, pw->pw_uid, pw->pw_gid) < 0) {
        say(LOG_WARNING, "cannot hand %s to %s: %s", ARDVEX_LOG_DIR, user.c_str(),
            std::strerror(errno));
    }
    if (::setgroups(0, nullptr) < 0 || ::setgid(pw->pw_gid) < 0 || ::setuid(pw->pw_uid) < 0) {
        say(LOG_ERR, "cannot become %s: %s", user.c_str(), std::strerror(errno));
        return false;
    }
    if (::access(ARDVEX_LOG_DIR, W_OK) != 0) {
        say(LOG_WARNING, "%s is not writable for %s: verdicts will not reach the message log",
            ARDVEX_LOG_DIR, user.c_str());
    }
    return true;
}

// Enough descriptors for max_connections clients and the workers.
void raise_descriptor_limit(uint32_t wanted) {
    rlimit lim{};
    if (::getrlimit(RLIMIT_NOFILE, &lim) != 0) return;
    const rlim_t need = static_cast<rlim_t>(wanted) + 64;
    if (lim.rlim_cur < need) {
        lim.rlim_cur = lim.rlim_max == RLIM_INFINITY || lim.rlim_max > need ? need : lim.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &lim);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string config_path = kDefaultConfigPath;
    bool worker_mode = false, check_only = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-c" && i + 1 < argc) {
            config_path = argv[++i];
        } else if (arg == "--stderr") {
            g_to_stderr = true;
        } else if (arg == "--worker") {
            worker_mode = true;
        } else if (arg == "--check") {
            check_only = true;
        } else if (arg == "-h" || arg == "--help") {
            usage(stdout);
            return 0;
        } else {
            usage(stderr);
            return 64;
        }
    }
    if (!g_to_stderr) ::openlog(kIdentity, LOG_PID | LOG_NDELAY, LOG_MAIL);
    ow_set_log_function(g_to_stderr ? stderr_sink : syslog);
    log_program_name = kIdentity;
    ::signal(SIGPIPE, SIG_IGN);
    if (!ardvex_init()) {
        say(LOG_ERR, "the screening engine did not start");
        return 70;
    }
    const ow_list* rules = ardvex_rule_list();
    try {
        if (worker_mode) return worker_main(rules);

        config cfg;
        std::string error, text;
        if (!load_config(config_path.c_str(), rules, cfg, error, &text)) {
            // A fresh install has no file yet: the defaults are meant to be safe.
            if (::access(config_path.c_str(), F_OK) == 0 || check_only) {
                say(LOG_ERR, "%s", error.c_str());
                if (check_only) std::fprintf(stderr, "%s\n", error.c_str());
                return 78;
            }
            say(LOG_INFO, "%s is missing; running with the default settings", config_path.c_str());
            cfg = config{};
            text.clear();
        }
        if (check_only) return 0;
        raise_descriptor_limit(cfg.max_connections + 2 * cfg.workers);
        std::vector<int> listeners = inherited_listeners();
        if (listeners.empty()) {
            const std::vector<std::string> addresses =
                cfg.listen.empty() ? std::vector<std::string>{kDefaultListen} : cfg.listen;
            for (const auto& address : addresses) {
                const int fd = bind_listener(address);
                if (fd < 0) return 71;
                listeners.push_back(fd);
            }
        }
        if (!drop_root(cfg.user)) return 77;
        dispatcher d(config_path, rules, std::move(cfg), std::move(text));
        if (!d.start(listeners)) return 71;
        const int status = d.run();
        ardvex_shutdown();
        return status;
    } catch (const std::exception& e) {
        say(LOG_ERR, "internal failure: %s", e.what());
        return 70;
    }
}

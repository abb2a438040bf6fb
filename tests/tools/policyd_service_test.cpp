// The real ardvex-policyd fed what Postfix never sends, reloaded, and with a stuck worker.
// Clients use unroutable addresses so that no rule asks DNS; the rate limit gives answers
// other than DUNNO. As root the message log goes to a private /var/log, and the service runs
// as nobody.
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <thread>

#include "scratch.hpp"

namespace {

using ow_test::slurp;

std::string request(const std::string& client, const std::string& instance) {
    return "request=smtpd_access_policy\nprotocol_state=RCPT\nclient_address=" + client +
           "\nclient_name=unknown\nreverse_client_name=unknown\nhelo_name=mx.example.test\n"
           "sender=a@example.test\nrecipient=b@example.test\ninstance=" +
           instance + "\n\n";
}

const std::string kDunno = "action=DUNNO\n\n";

class Service : public ow_test::ScratchTest {
   protected:
    void SetUp() override {
#ifndef ARDVEX_POLICYD
        GTEST_SKIP() << "the tool's build fragment did not pass its path";
#endif
        static const bool private_log_dir =
            ::geteuid() != 0 ||
            (::unshare(CLONE_NEWNS) == 0 &&
             ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
             ::mount("policyd-test", "/var/log", "tmpfs", 0, "mode=755") == 0);
        ASSERT_TRUE(private_log_dir) << std::strerror(errno);
        ScratchTest::SetUp();
        ::chmod(dir_.c_str(), 0755);  // the service runs as nobody
    }
    void TearDown() override {
        if (pid_ > 0 && ::kill(pid_, SIGTERM) == 0) ::waitpid(pid_, nullptr, 0);
        ScratchTest::TearDown();
    }
    void write_settings(const std::string& extra) {
        ow_test::spit(path("policyd.conf"),
                      "listen = unix:" + path("policyd.sock") + "\nuser = nobody\n" + extra);
    }
    void start(const std::string& extra) {
        write_settings(extra);
#ifdef ARDVEX_POLICYD
        const std::string conf = path("policyd.conf"), err = path("stderr");
        if ((pid_ = ::fork()) == 0) {
            ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
            ::execl(ARDVEX_POLICYD, ARDVEX_POLICYD, "-c", conf.c_str(), "--stderr", nullptr);
            ::_exit(127);
        }
#endif
        for (int i = 0; i < 200 && log().find("ready:") == std::string::npos; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        ASSERT_NE(log().find("ready:"), std::string::npos) << log();
    }
    std::string log() const { return slurp(path("stderr")); }
    void reload(const std::string& extra) {
        write_settings(extra);
        ::kill(pid_, SIGHUP);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    int connect_client() const {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path("policyd.sock").c_str());
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        return fd;
    }
    // A blocking send on a stream socket returns once every byte went.
    static bool send_all(int fd, const std::string& bytes) {
        return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
    }
    // Reads until `size` bytes or an answer's end; "" when the service closed the connection
    // first, "timeout" when it said nothing for timeout_ms.
    static std::string answer(int fd, int timeout_ms = 5000, size_t size = 0) {
        std::string got;
        char buf[65536];
        while (size != 0 ? got.size() < size : got.find("\n\n") == std::string::npos) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, timeout_ms) <= 0) return "timeout";
            const ssize_t n = ::recv(fd, buf, size != 0 ? sizeof buf : 1, 0);
            if (n <= 0) return got;
            got.append(buf, static_cast<size_t>(n));
        }
        return got;
    }
    static std::string ask(int fd, const std::string& bytes) {
        return send_all(fd, bytes) ? answer(fd) : "send failed";
    }
    std::string workers() const {  // their pids, each followed by a blank
        const std::string pid = std::to_string(pid_);
        return slurp("/proc/" + pid + "/task/" + pid + "/children");
    }
    pid_t pid_ = -1;
};

TEST_F(Service, OddStalledVanishingAndManyClientsCostNothingOthersSee) {
    rlimit lim{};
    ::getrlimit(RLIMIT_NOFILE, &lim);
    lim.rlim_cur = std::max<rlim_t>(lim.rlim_cur, std::min<rlim_t>(lim.rlim_max, 4096));
    ::setrlimit(RLIMIT_NOFILE, &lim);
    start("workers = 4\nmax_request_size = 4096\nread_timeout = 1\nidle_timeout = 2\n");
    const int stalled = connect_client(), idle = connect_client(), vanishing = connect_client();
    ASSERT_TRUE(send_all(stalled, "request=smtpd_access_policy\nclient_addr"));
    std::string burst;  // many requests, and gone before reading any answer
    for (int i = 0; i < 200; ++i) burst += request("10.0.0.2", "v" + std::to_string(i));
    ASSERT_TRUE(send_all(vanishing, burst));
    ::close(vanishing);

    const int fd = connect_client();
    static constexpr char kBinary[] = "request=smtpd_access_policy\nsender=\0\xff\x01\n\n";
    const struct {
        const char* what;
        std::string bytes;
    } rows[] = {
        {"line without =", "request=smtpd_access_policy\nno equals sign\n\n"},
        {"binary bytes", std::string(kBinary, sizeof kBinary - 1)},
        {"1 MiB", "request=smtpd_access_policy\nx=" + std::string(1 << 20, 'a') + "\n\n"},
        {"another request type", "request=something_else\n\n"},
        {"empty", "\n"},
        {"ordinary after them", request("10.0.0.1", "m2")},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        EXPECT_EQ(ask(fd, r.bytes), kDunno);
    }
    // A flood of pipelined empty requests: answered one after the other as the client reads.
    constexpr size_t kFlood = 50000;
    ASSERT_TRUE(send_all(fd, std::string(kFlood, '\n')));
    EXPECT_EQ(answer(fd, 10000, kFlood * kDunno.size()).size(), kFlood * kDunno.size());
    EXPECT_EQ(answer(fd, 300), "timeout") << "an answer nobody asked for";
    const std::string l = log();
    EXPECT_NE(l.find("malformed request (control byte in the value of sender)"), std::string::npos)
        << l;
    EXPECT_NE(l.find("request larger than 4096 bytes"), std::string::npos);

    // The half request is dropped after read_timeout, the silent one after idle_timeout.
    EXPECT_EQ(answer(stalled, 4000), "");
    EXPECT_EQ(answer(idle, 4000), "");
    const int again = connect_client();
    EXPECT_EQ(ask(again, request("10.0.0.3", "m1")), kDunno);
    for (const int f : {stalled, idle, fd, again}) ::close(f);

    std::vector<int> fds;  // a thousand at once
    for (int i = 0; i < 1000; ++i) {
        fds.push_back(connect_client());
        ASSERT_TRUE(send_all(fds.back(), request("10.1.0.1", "m" + std::to_string(i))));
    }
    int answered = 0;
    for (const int f : fds) {
        answered += answer(f, 30000) == kDunno ? 1 : 0;
        ::close(f);
    }
    EXPECT_EQ(answered, 1000);
}

TEST_F(Service, ReloadsKeepConnectionsAndReachAReplacedStuckWorker) {
    const std::string one = "workers = 1\nrequest_timeout = 1\n";
    start(one);
    const int fd = connect_client();
    EXPECT_EQ(ask(fd, request("10.0.0.4", "m1")), kDunno);

    reload("inbound_limit = 1\n" + one);
    EXPECT_EQ(ask(fd, request("10.0.0.4", "m3")), kDunno);
    const std::string limited = ask(fd, request("10.0.0.4", "m4"));
    EXPECT_TRUE(limited.starts_with("action=450 4.7.1 Server 10.0.0.4 has sent too much mail."));

    reload("inbound_limit = lots\n" + one);
    EXPECT_NE(log().find("settings not reloaded, keeping the previous ones: " + dir_ +
                         "/policyd.conf: line 3: inbound_limit: expects a count (0 = no limit)"),
              std::string::npos)
        << log();
    EXPECT_EQ(ask(fd, request("10.0.0.4", "m5")), limited);

    // A stopped worker costs one DUNNO; its replacement has the reloaded settings.
    const std::string before = workers();
    ASSERT_EQ(std::count(before.begin(), before.end(), ' '), 1) << before;
    ::kill(std::stoi(before), SIGSTOP);
    EXPECT_EQ(ask(fd, request("10.0.0.4", "m6")), kDunno);
    EXPECT_NE(log().find("overran request_timeout and was stopped"), std::string::npos) << log();
    EXPECT_EQ(ask(fd, request("10.0.0.4", "m7")), limited);
    EXPECT_NE(workers(), before);
    ::close(fd);
}

}  // namespace

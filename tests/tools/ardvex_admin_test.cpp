// Runs the real ardvex-admin: the judge's rule-by-rule table and exit statuses, list and
// range edits through their refusals, and counter files written by the engine read back.
#include "ardvex-log.h"
#include "tool_run.hpp"

namespace {

#ifdef ARDVEX_ADMIN
constexpr const char* kTool = ARDVEX_ADMIN;
#else
constexpr const char* kTool = nullptr;
#endif

class AdminTool : public ow_test::ToolTest {
   protected:
    AdminTool() : ToolTest(kTool) {}
};

TEST_F(AdminTool, JudgeShowsEveryRuleAndAnswersByExitStatus) {
    ow_test::spit(path("ok.conf"), "inbound_limit = 3\nrequire_helo = reject\n");
    ow_test::spit(path("defer.conf"), "require_helo = defer\n");
    ow_test::spit(path("bad.conf"), "\nrequire_helo = maybe\n");
    const auto judge = [&](const char* conf, const std::string& more = "") {
        return run("judge -c " + path(conf) + " --client-address 10.0.0.1" + more);
    };
    const auto shows = [&](std::initializer_list<const char*> wants) {
        for (const char* w : wants) EXPECT_NE(out_.find(w), std::string::npos) << w << out_;
    };
    const std::string mail = " --helo mx.example.test --sender a@x.test --recipient b@x.test";
    ASSERT_EQ(judge("ok.conf", mail), 0) << err_;
    shows({"rates are counted by the running service only", "no block-list zones configured",
           "answer: action=DUNNO\n"});
    // One line per rule of the engine, a header and the answer.
    EXPECT_EQ(std::count(out_.begin(), out_.end(), '\n'), 31 + 2) << out_;

    // No HELO: require_helo rejects (1), or defers (2) where the settings say so.
    EXPECT_EQ(judge("ok.conf"), 1);
    shows({"require_helo                         matched", "notice: Missing HELO.",
           "answer: action=550 5.7.1 Missing HELO."});
    EXPECT_EQ(judge("defer.conf"), 2);
    EXPECT_EQ(judge("bad.conf"), 78);
    EXPECT_EQ(err_, "ardvex-admin judge: " + path("bad.conf") +
                        ": line 2: require_helo: expects reject, defer, warn or off\n");
    EXPECT_EQ(run("judge --help"), 0);
    shows({"usage: ardvex-admin judge"});
    for (const char* usage : {"judge --helo x", "judge --client-address", "frobnicate"}) {
        EXPECT_EQ(run(usage), 64) << usage;
    }
}

TEST_F(AdminTool, ListAndRangeEditsAndTheirRefusals) {
    const std::string d = "-d " + dir_ + " ";
    EXPECT_EQ(run("list add " + d + "from_whitelist '*@good.test'"), 0) << err_;
    EXPECT_EQ(run("list add " + d + "--comment partner from_whitelist '*@GOOD.test'"), 0) << err_;
    EXPECT_EQ(run("list add " + d + "from_whitelist '*@good.test'"), 1);
    EXPECT_EQ(err_, "ardvex-admin list: Entry already exists\n");
    EXPECT_EQ(run("list show " + d + "from_whitelist"), 0);
    EXPECT_EQ(out_, "*@GOOD.test\n\tpartner\n");
    EXPECT_EQ(run("list del " + d + "--comment-only from_whitelist '*@good.test'"), 0);
    EXPECT_EQ(run("list show " + d + "from_whitelist"), 0);
    EXPECT_EQ(out_, "*@GOOD.test\n");
    EXPECT_EQ(run("list show " + d + "../etc/passwd"), 64);
    EXPECT_EQ(run("list show " + d + "missing"), 66);

    EXPECT_EQ(run("range add " + d + "--comment lab blocked_ips 10.1.0.0 10.1.255.255"), 0) << err_;
    EXPECT_EQ(run("range add " + d + "blocked_ips 10.1.0.0 10.2.0.0"), 1);
    EXPECT_EQ(err_, "ardvex-admin range: Invalid ip range to add\n");
    EXPECT_EQ(run("range show " + d + "blocked_ips.range"), 0);
    EXPECT_EQ(out_, "10.1.0.0 - 10.1.255.255\n\tlab\n");
    EXPECT_EQ(run("range convert " + d + "blocked_ips"), 0);
    EXPECT_EQ(run("range del " + d + "blocked_ips 10.1.0.0 10.1.255.255"), 0) << err_;
    EXPECT_EQ(run("range show " + d + "blocked_ips"), 0);
    EXPECT_EQ(out_, "");
    EXPECT_EQ(run("range show " + d + "exempt_ips"), 66);
    EXPECT_EQ(run("range add " + d + "blocked_ips 10.1.0.0"), 64);
}

TEST_F(AdminTool, CountersReadWhatTheEngineCounted) {
    EXPECT_EQ(run("counters " + dir_), 66);
    for (const uint8_t type : {ARDVEX_LOG_HAM, ARDVEX_LOG_HAM, ARDVEX_LOG_SPAM, ARDVEX_LOG_EXEMPT,
                               ARDVEX_LOG_RATELIMIT2}) {
        ardvex_increment_counter(dir_.c_str(), type, type == ARDVEX_LOG_RATELIMIT2);
        ardvex_increment_counter_hourly(dir_.c_str(), type, type == ARDVEX_LOG_RATELIMIT2);
    }
    ASSERT_EQ(run("counters " + dir_), 0) << err_;
    // Day and hour rows alike: ham 2, spam 1, exempt 1, rate-in 0, rate-out 1, 4 + 1 auth.
    const std::string counts = "       2        1        1        0        1        4        1\n";
    const size_t day = out_.find("\nHOUR");
    ASSERT_NE(day, std::string::npos) << out_;
    EXPECT_NE(out_.substr(0, day).find(counts), std::string::npos) << out_;
    EXPECT_NE(out_.substr(day).find(counts), std::string::npos) << out_;

    ow_test::spit(path(".counterv2.dat.hourly"), "short");
    EXPECT_EQ(run("counters " + dir_), 0);
    EXPECT_NE(err_.find(".counterv2.dat.hourly is not a counter file; skipped"), std::string::npos);
    EXPECT_EQ(out_.find("HOUR"), std::string::npos);
}

}  // namespace

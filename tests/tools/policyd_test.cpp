// The policy service's shared code without the service: settings files, request framing and
// parsing, the rule walk over rules of the test's own, list directory choice and rate limits.
#include "policy_config.hpp"
#include "policy_judge.hpp"
#include "policy_request.hpp"
#include "rate_limiter.hpp"
#include "scratch.hpp"

namespace {

using namespace ow::policy;

// What the fake checks answer, by rule. The HELO lookup answers like the engine's when DNS
// fails: no match, cache left at 0.
enum { kWhitelist = 1, kHelo = 2, kHeloDomain = 4, kFromSelf = 8, kResolveHelo = 16 };
int g_matching = 0;
template <int I>
bool fake(spam_session*) {
    return (g_matching & I) != 0;
}

// A verdict as "action rule: answer" and its steps as "name: result (why)", a line each.
std::string described(const verdict& v) {
    std::string out = std::string(action_name(v.taken)) + (v.rule.empty() ? "" : " " + v.rule) +
                      (v.dns_deferred ? " after a DNS failure" : "") + ": " + v.answer + "\n";
    for (const auto& s : v.steps) {
        out += s.name + ": " + step_result_name(s.what) +
               (s.why.empty() ? "" : " (" + s.why + ")") + "\n";
    }
    return out;
}

class PolicyTest : public ow_test::ScratchTest {
   protected:
    void SetUp() override {
        ScratchTest::SetUp();
        // Flags: user_configurable, enabled_by_default, applies_to_authenticated, applies_to_ipv6.
        add("inbound", nullptr, true, true, false, false, "Server %IP% has sent too much mail.");
        add("ip_whitelist", fake<kWhitelist>, true, true, true, true, "whitelisted");
        add("block_lists", nullptr, false, true, false, false, "Server IP %IP% listed.");
        add("require_helo", fake<kHelo>, true, true, true, true, "Missing HELO.");
        add("valid_helo_domain", fake<kHeloDomain>, false, false, false, true,
            "HELO argument [%HELO%] is malformed.");
        add("block_mail_from_self", fake<kFromSelf>, true, true, false, false,
            "Recipient %RCPT% does not allow messages from themselves.");
        add("resolve_helo_domain", fake<kResolveHelo>, false, false, false, true,
            "HELO argument [%HELO%] is missing a DNS entry.");
    }
    void TearDown() override {
        ow_destroy_list(&rules_, free_rule);
        ScratchTest::TearDown();
    }
    void add(const char* name, spam_rule_check_fn check, bool a, bool b, bool c, bool d,
             const char* notice) {
        ow_append_list_entry(&rules_, new_rule(name, check, a, b, c, d, notice), sizeof(spam_rule),
                             false);
    }
    config settings(const std::string& text) {
        config cfg;
        std::string error;
        EXPECT_TRUE(parse_config(text, rules_, cfg, error)) << error;
        return cfg;
    }
    const request& parsed(const std::string& attrs) {
        text_ = attrs;
        std::string why;
        EXPECT_TRUE(parse_request(text_, req_, why)) << why;
        return req_;
    }
    verdict run(const config& cfg, const std::string& attrs, rate_verdicts rates = {}) {
        return judge(cfg, rules_, parsed("request=smtpd_access_policy\n" + attrs), rates, false);
    }
    ow_list* rules_ = nullptr;
    std::string text_;
    request req_;
};

TEST_F(PolicyTest, SettingsFileAcceptsKnownKeysAndRefusesTheRestWithItsLine) {
    const config cfg = settings(
        "# comment\n\n  workers = 3  \nrequire_helo = warn\nip_whitelist = off\n"
        "block_lists_zones = bl.example.test, zen.example.test\ninbound_limit = 5\n"
        "inbound_window=60\ndns_failure = defer\nlisten = unix:/tmp/x.sock inet:h:10031\r\n");
    EXPECT_EQ(cfg.workers, 3u);
    EXPECT_EQ(cfg.actions.at("ip_whitelist"), action::off);
    EXPECT_EQ(cfg.block_list_zones,
              (std::vector<std::string>{"bl.example.test", "zen.example.test"}));
    EXPECT_EQ(cfg.inbound.limit + cfg.inbound.window, 5u + 60u);
    EXPECT_EQ(cfg.listen.size(), 2u);

    const struct {
        const char *text, *error;
    } refused[] = {
        {"workers = 3\nno equals sign\n", "line 2: expected key = value"},
        {"require_helo = on\n", "line 1: require_helo: expects reject, defer, warn or off"},
        {"ip_whitelist = reject\n", "line 1: ip_whitelist: a whitelist rule is on or off"},
        {"no_such_rule = reject\n", "line 1: no_such_rule: unknown setting"},
        {"read_timeout = 0\n", "line 1: read_timeout: expects a number from 1 to 3600"},
        {"workers = 4x\n", "line 1: workers: expects a number from 1 to 512"},
        {"max_request_size = 1048576\n",
         "line 1: max_request_size: expects a number from 512 to 65536"},
        {"block_lists_zones = bad..zone\n",
         "line 1: block_lists_zones: expects DNS zone names separated by blanks or commas"},
        {"listen = tcp:1.2.3.4:5\n",
         "line 1: listen: expects unix:/PATH or inet:HOST:PORT, not tcp:1.2.3.4:5"},
        {"list_dir = relative/dir\n", "line 1: list_dir: expects an absolute directory"},
        {"user = no body\n", "line 1: user: expects a user name"},
        {"dns_failure = reject\n", "line 1: dns_failure: expects dunno or defer"},
    };
    for (const auto& r : refused) {
        SCOPED_TRACE(r.text);
        config cfg2;
        cfg2.workers = 99;
        std::string error;
        EXPECT_FALSE(parse_config(r.text, rules_, cfg2, error));
        EXPECT_EQ(error, r.error);
        EXPECT_EQ(cfg2.workers, 99u) << "a refused file must leave the settings alone";
    }
}

TEST_F(PolicyTest, RequestFramingAndParsing) {
    const struct {
        std::string buf;
        size_t end, body;
    } frames[] = {
        {"a=1\nb=2\n", 0, 0},                // no empty line yet
        {"a=1\nb=2\n\nc=3\n\n", 9, 8},       // the first of two requests
        {"a=1\r\n\r\n", 7, 5},               // CR LF line ends
        {"\n", 1, 0},                        // an empty request
        {"a=1\n\r", 0, 0},                   // a CR alone does not end it
        {std::string("a=\0\n\n", 5), 5, 4},  // NUL is content, judged by the parser
    };
    for (const auto& f : frames) {
        SCOPED_TRACE(f.buf);
        size_t body = 0;
        EXPECT_EQ(find_request_end(f.buf, body), f.end);
        EXPECT_EQ(f.end != 0 ? body : size_t{0}, f.body);
    }

    const request& req = parsed("sender=\nhelo_name=a b\r\nsender=x@y\nempty=\n");
    EXPECT_EQ(req.get("sender"), "x@y");  // the last one wins
    EXPECT_EQ(req.get("helo_name"), "a b");
    EXPECT_EQ(req.get("missing"), "");

    std::string many;
    for (size_t i = 0; i <= kMaxAttributes; ++i) many += "a=1\n";
    const struct {
        std::string body;
        const char* why;
    } bad[] = {
        {"no_equals\n", "attribute line without '='"},
        {"=value\n", "empty or overlong attribute name"},
        {"Upper=1\n", "attribute name with a byte other than a-z, 0-9, _"},
        {std::string("helo_name=a\0b\n", 14), "control byte in the value of helo_name"},
        {"sender=a\x1b[31m\n", "control byte in the value of sender"},
        {many, "more than 128 attributes"},
    };
    for (const auto& b : bad) {
        SCOPED_TRACE(b.why);
        std::string why;
        EXPECT_FALSE(parse_request(b.body, req_, why));
        EXPECT_EQ(why, b.why);
    }
    EXPECT_EQ(frame_answer("DUNNO"), "action=DUNNO\n\n");
}

TEST_F(PolicyTest, FirstDecidingRuleWinsOthersAreSkippedOrCannotAnswer) {
    const std::string rest =
        "helo_name=mx.example.test\nsender=a@example.test\nrecipient=b@example.test\n";
    const std::string mail = "client_address=10.0.0.7\n" + rest;
    const struct {
        const char* settings;
        int matching;
        std::string attrs;
        bool over;                   // counted, and over the inbound limit
        const char *verdict, *step;  // the start of described(), one of its step lines
    } rows[] = {
        // Without settings the rule flags decide.
        {"", 0, mail, false, "off: DUNNO\n",
         "block_lists: skipped (no block-list zones configured)\nrequire_helo: not matched\n"
         "valid_helo_domain: skipped (off)"},
        // A blocking match rejects with the expanded notice; later rules are not reached.
        {"", kHelo | kFromSelf, mail, false,
         "reject require_helo: 550 5.7.1 Missing HELO.. Protection provided by ",
         "block_mail_from_self: not reached"},
        {"require_helo = defer\n", kHelo, mail, false,
         "defer require_helo: 450 4.7.1 Missing HELO.", "require_helo: matched"},
        // Warn only lets a later rule decide, or answers WARN when none does.
        {"require_helo = warn\n", kHelo | kFromSelf, mail, false,
         "reject block_mail_from_self: 550 5.7.1 Recipient b@example.test does not allow",
         "require_helo: matched (warn only)"},
        {"require_helo = warn\nblock_mail_from_self = off\n", kHelo | kFromSelf, mail, false,
         "warn require_helo: WARN require_helo: Missing HELO.",
         "block_mail_from_self: skipped (off)"},
        // A whitelist match ends the walk without rejecting.
        {"", kWhitelist | kHelo, mail, false, "on ip_whitelist: DUNNO\n",
         "require_helo: not reached"},
        // block_mail_from_self judges unauthenticated IPv4 sessions only.
        {"", kFromSelf, mail + "sasl_username=alice\n", false, "off: DUNNO\n",
         "block_mail_from_self: skipped (not judged for authenticated sessions)"},
        {"", kFromSelf, "client_address=2001:db8::7\n" + rest, false, "off: DUNNO\n",
         "block_mail_from_self: skipped (not judged for IPv6 clients)"},
        // The HELO lookup failed: never a rejection, a deferral only when asked for.
        {"resolve_helo_domain = reject\n", 0, mail, false, "off: DUNNO\n",
         "resolve_helo_domain: undecided (DNS did not answer)"},
        {"resolve_helo_domain = reject\ndns_failure = defer\n", 0, mail, false,
         "defer resolve_helo_domain after a DNS failure: 450 4.4.3 Temporary DNS failure while "
         "checking resolve_helo_domain; try again later\n",
         "resolve_helo_domain: undecided (DNS did not answer)"},
        // The rate limit only where someone counts, and it delays.
        {"inbound_limit = 1\n", 0, mail, false, "off: DUNNO\n",
         "inbound: skipped (rates are counted by the running service only)"},
        {"inbound_limit = 1\n", 0, mail, true,
         "defer inbound: 450 4.7.1 Server 10.0.0.7 has sent too much mail.", "inbound: matched"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(std::string(r.settings) + r.attrs);
        g_matching = r.matching;
        const std::string d =
            described(run(settings(r.settings), r.attrs, {r.over, r.over, false}));
        EXPECT_TRUE(d.starts_with(r.verdict)) << d;
        EXPECT_NE(d.find("\n" + std::string(r.step) + "\n"), std::string::npos) << d;
    }

    // A client's long UTF-8 HELO: the reply line stays short and whole characters.
    g_matching = kHeloDomain;
    std::string helo;
    for (int i = 0; i < 300; ++i) helo += "\xc3\xa9";  // é
    const verdict v =
        run(settings("valid_helo_domain = reject\n"), "client_address=10.0.0.7\nhelo_name=" + helo);
    EXPECT_EQ(v.rule, "valid_helo_domain");
    EXPECT_LE(v.notice.size(), 420u);
    EXPECT_TRUE(v.notice.starts_with("HELO argument [\xc3\xa9"));
    EXPECT_EQ(static_cast<unsigned char>(v.notice.back()), 0xa9u) << "cut inside an é";
}

TEST_F(PolicyTest, SessionTakesTheRequestAttributes) {
    session_holder h(
        parsed("client_address=2001:db8::5\nclient_port=4711\n"
               "reverse_client_name=Mail.Example.TEST\nclient_name=other.example.test\n"
               "helo_name=h\nsender=\nrecipient=r@x\nsasl_username=bob\n"
               "encryption_protocol=TLSv1.3\n"),
        config{});
    const spam_session& s = *h.get();
    // The empty sender is a bounce, and still malloc'd for the rules to trim.
    EXPECT_EQ((std::vector<std::string>{s.ip, s.port, s.ptr_names[0], s.ptr_names[1], s.mail_from,
                                        s.auth_user, s.country}),
              (std::vector<std::string>{"2001:db8::5", "4711", "mail.example.test",
                                        "other.example.test", "", "bob", "**"}));
    EXPECT_EQ(s.ptr_names[2], nullptr);
    EXPECT_EQ(s.ptr_state, SPAM_PTR_FOUND);
    EXPECT_TRUE(s.is_ipv6 && s.routable && s.authenticated && s.tls);
    // No address at all is no routable one either, and nothing looks further at it.
    session_holder none(parsed("client_address=not-an-address\n"), config{});
    EXPECT_FALSE(none.get()->routable);
    EXPECT_NO_ERRORS();
}

TEST_F(PolicyTest, ListDirectoryPerRecipientNeverLeavesTheRoot) {
    ::mkdir(path("alice@example.test").c_str(), 0755);
    ::mkdir(path("example.test").c_str(), 0755);
    EXPECT_EQ(choose_list_dir(dir_, "Alice@Example.TEST"), path("alice@example.test"));
    EXPECT_EQ(choose_list_dir(dir_, "bob@example.test"), path("example.test"));
    for (const char* rcpt : {"bob@other.test", "", "../../etc/passwd", "x/../../alice@example.test",
                             "bob@..", ".hidden@example.test"}) {
        EXPECT_EQ(choose_list_dir(dir_, rcpt), dir_) << rcpt;
    }
}

TEST_F(PolicyTest, SlidingWindowCountsMessagesNotRecipients) {
    rate_limiter rl(2);
    const rate_limit lim{2, 10};
    EXPECT_FALSE(rl.over("10.0.0.1", "m1", 100, lim));
    EXPECT_FALSE(rl.over("10.0.0.1", "m1", 101, lim));  // second recipient of m1
    EXPECT_FALSE(rl.over("10.0.0.1", "m2", 102, lim));
    EXPECT_TRUE(rl.over("10.0.0.1", "m3", 103, lim));
    EXPECT_TRUE(rl.over("10.0.0.1", "m4", 109, lim));   // refused ones are not counted...
    EXPECT_FALSE(rl.over("10.0.0.1", "m5", 110, lim));  // ...so m1's slot frees at 110
    EXPECT_TRUE(rl.over("10.0.0.1", "", 111, lim));
    EXPECT_FALSE(rl.over("10.0.0.2", "x", 111, rate_limit{0, 10}));  // no limit
    // Beyond the key cap new keys pass uncounted; expiry makes room again.
    EXPECT_FALSE(rl.over("10.0.0.3", "a", 111, lim));
    for (const char* m : {"a", "b", "c"}) EXPECT_FALSE(rl.over("10.0.0.4", m, 111, lim));
    EXPECT_EQ(rl.keys(), 2u);
    rl.expire(200, 10);
    EXPECT_EQ(rl.keys(), 0u);
}

}  // namespace

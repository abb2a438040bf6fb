// ardvex-admin: the administrator's daily questions, one subcommand each.
//
//   judge     one transaction from options, judged as the policy service would, rule by rule
//   list      add, delete or show entries of a list file
//   range     add, delete, show or convert IP range files
//   counters  the daily and hourly counter files of a log directory as a table
//
// Exit status: 0 done (judge: the mail would be accepted), 1 refused (judge: rejected; list
// and range: the change was refused), 2 judge: deferred, 64 usage, 66 nothing to read,
// 70 internal failure, 78 bad settings file.
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "../stderr_sink.hpp"
#include "ardvex-file.h"
#include "ardvex-iprange.h"
#include "ardvex-log.h"
#include "ardvex.h"
#include "ardvex_config.h"
#include "ow_log.h"
#include "policy_config.hpp"
#include "policy_judge.hpp"
#include "policy_request.hpp"

namespace {

using namespace ow::policy;

constexpr int kAccepted = 0;
constexpr int kRefused = 1;
constexpr int kDeferred = 2;
constexpr int kUsage = 64;
constexpr int kNoInput = 66;
constexpr int kSoftware = 70;
constexpr int kConfig = 78;

constexpr const char* kMainHelp =
    "usage: ardvex-admin COMMAND [ARGS]\n"
    "  judge     judge one transaction as ardvex-policyd would\n"
    "  list      add, delete or show list entries\n"
    "  range     add, delete, show or convert IP range files\n"
    "  counters  show the message counters of a log directory\n"
    "ardvex-admin COMMAND --help explains each; see ardvex-admin(8).\n";

constexpr const char* kJudgeHelp =
    "usage: ardvex-admin judge --client-address IP [options]\n"
    "Judges one transaction with the rules and settings of ardvex-policyd, without logging\n"
    "or counting it, and shows each rule's verdict in order, the notice and the answer.\n"
    "  --client-address IP         the SMTP client's address (required)\n"
    "  --client-name NAME          its verified host name (default unknown)\n"
    "  --reverse-client-name NAME  its PTR name (default unknown: the rules look it up)\n"
    "  --helo NAME                 the HELO/EHLO argument\n"
    "  --sender ADDR               MAIL FROM (empty for a bounce)\n"
    "  --recipient ADDR            RCPT TO\n"
    "  --sasl-username USER        the SMTP AUTH user name (an authenticated session)\n"
    "  --tls                       the session runs over TLS\n"
    "  -c FILE                     settings file (default /etc/ardvex/policyd.conf)\n"
    "Exit status: 0 accepted, 1 rejected, 2 deferred, 64 usage, 78 bad settings file.\n";

constexpr const char* kCountersHelp =
    "usage: ardvex-admin counters [LOG_DIR]\n"
    "Shows the daily counter files (.counterv2.dat.01 to .12) and the hourly file\n"
    "(.counterv2.dat.hourly) of LOG_DIR (default " ARDVEX_LOG_DIR
    ") as tables, oldest first.\n"
    "Exit status: 0 shown, 66 no counter file found, 64 usage.\n";

constexpr const char* kListHelp =
    "usage: ardvex-admin list add [-d DIR] [--comment TEXT] LIST ENTRY\n"
    "       ardvex-admin list del [-d DIR] [--comment-only] LIST ENTRY\n"
    "       ardvex-admin list show [-d DIR] LIST\n"
    "Edits or shows a list file such as from_whitelist, from_blacklist, exempt_users,\n"
    "exempt_ips, blocked_ips or country_blacklist. DIR defaults to list_dir of the settings\n"
    "(/etc/ardvex/lists); a recipient's own lists live in DIR/<recipient>. Entries compare\n"
    "ignoring case; add with --comment sets the comment of an entry already listed, del with\n"
    "--comment-only removes only its comment.\n"
    "Exit status: 0 done, 1 refused (the reason on standard error), 64 usage, 66 no list.\n";

constexpr const char* kRangeHelp =
    "usage: ardvex-admin range add [-d DIR] [--comment TEXT] LIST LOW HIGH\n"
    "       ardvex-admin range del [-d DIR] LIST LOW HIGH\n"
    "       ardvex-admin range show [-d DIR] LIST\n"
    "       ardvex-admin range convert [-d DIR] LIST\n"
    "Edits, shows or converts the IPv4 range file LIST.range beside the list LIST\n"
    "(exempt_ips or blocked_ips). A range lies within one /16, as in 10.1.0.0 10.1.255.255.\n"
    "convert rewrites a file of the older format in the current one. DIR as for list.\n"
    "Exit status: 0 done, 1 refused (the reason on standard error), 64 usage, 66 no file.\n";

bool wants_help(int argc, char** argv) {
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) return true;
    }
    return false;
}

// ---------------------------------------------------------------------------------------
// judge

int judge_command(int argc, char** argv) {
    if (wants_help(argc, argv)) {
        std::fputs(kJudgeHelp, stdout);
        return 0;
    }
    struct option_attr {
        const char* option;
        const char* attribute;
    };
    constexpr option_attr kOptions[] = {
        {"--client-address", "client_address"},
        {"--client-name", "client_name"},
        {"--reverse-client-name", "reverse_client_name"},
        {"--helo", "helo_name"},
        {"--sender", "sender"},
        {"--recipient", "recipient"},
        {"--sasl-username", "sasl_username"},
        {"--client-port", "client_port"},
    };
    std::map<std::string, std::string> attrs = {{"request", "smtpd_access_policy"},
                                                {"protocol_state", "RCPT"},
                                                {"client_name", "unknown"},
                                                {"reverse_client_name", "unknown"}};
    std::string config_path = kDefaultConfigPath;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--tls") {
            attrs["encryption_protocol"] = "TLSv1.3";
            continue;
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "ardvex-admin judge: %s needs a value or is unknown\n%s",
                         arg.c_str(), kJudgeHelp);
            return kUsage;
        }
        if (arg == "-c") {
            config_path = argv[++i];
            continue;
        }
        bool known = false;
        for (const auto& o : kOptions) {
            if (arg == o.option) {
                attrs[o.attribute] = argv[++i];
                known = true;
            }
        }
        if (!known) {
            std::fprintf(stderr, "ardvex-admin judge: unknown option %s\n%s", arg.c_str(),
                         kJudgeHelp);
            return kUsage;
        }
    }
    if (attrs["client_address"].empty()) {
        std::fprintf(stderr, "ardvex-admin judge: --client-address is required\n%s", kJudgeHelp);
        return kUsage;
    }
    // The options become a request, so the judge reads exactly what the service would.
    std::string text;
    for (const auto& [name, value] : attrs) text += name + "=" + value + "\n";
    request req;
    std::string why;
    if (!parse_request(text, req, why)) {
        std::fprintf(stderr, "ardvex-admin judge: %s\n", why.c_str());
        return kUsage;
    }
    const ow_list* rules = ardvex_rule_list();
    config cfg;
    std::string error;
    if (!load_config(config_path.c_str(), rules, cfg, error)) {
        if (::access(config_path.c_str(), F_OK) == 0) {
            std::fprintf(stderr, "ardvex-admin judge: %s\n", error.c_str());
            return kConfig;
        }
        std::printf("(no %s: default settings)\n", config_path.c_str());
    }
    const verdict v = judge(cfg, rules, req, rate_verdicts{}, false);
    std::printf("%-36s %-12s %s\n", "RULE", "VERDICT", "WHY");
    for (const auto& step : v.steps) {
        std::printf("%-36s %-12s %s\n", step.name.c_str(), step_result_name(step.what),
                    step.why.c_str());
    }
    if (!v.notice.empty()) std::printf("notice: %s\n", v.notice.c_str());
    std::printf("answer: action=%s\n", v.answer.c_str());
    switch (v.taken) {
        case action::reject:
            return kRefused;
        case action::defer:
            return kDeferred;
        default:
            return kAccepted;
    }
}

// ---------------------------------------------------------------------------------------
// counters

bool read_file(const std::string& path, size_t size, std::vector<unsigned char>& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    out.assign(size + 1, 0);
    in.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(size + 1));
    if (static_cast<size_t>(in.gcount()) != size || out[0] != ARDVEX_COUNTER_VERSION) {
        std::fprintf(stderr, "ardvex-admin counters: %s is not a counter file; skipped\n",
                     path.c_str());
        return false;
    }
    return true;
}

ardvex_counter_record record_at(const std::vector<unsigned char>& bytes, size_t index) {
    ardvex_counter_record r{};
    std::memcpy(&r, bytes.data() + ARDVEX_COUNTER_HEADER_SIZE + index * sizeof r, sizeof r);
    return r;
}

void print_row(const char* when, const ardvex_counter_record& r) {
    std::printf("%-16s %8u %8u %8u %8u %8u %8u %8u\n", when, r.ham, r.spam, r.exempt, r.ratelimit1,
                r.ratelimit2, r.unauthenticated, r.authenticated);
}

void print_header(const char* first) {
    std::printf("%-16s %8s %8s %8s %8s %8s %8s %8s\n", first, "HAM", "SPAM", "EXEMPT", "RATE-IN",
                "RATE-OUT", "UNAUTH", "AUTH");
}

int counters_command(int argc, char** argv) {
    if (wants_help(argc, argv) || argc > 1) {
        std::fputs(kCountersHelp, argc > 1 && !wants_help(argc, argv) ? stderr : stdout);
        return wants_help(argc, argv) ? 0 : kUsage;
    }
    std::string dir = argc == 1 ? argv[0] : ARDVEX_LOG_DIR;
    if (!dir.empty() && dir.back() == '/') dir.pop_back();
    bool any = false;

    // Daily: every used record of every month file, in date order.
    std::map<uint32_t, ardvex_counter_record> days;
    for (int month = 1; month <= 12; ++month) {
        char name[32];
        std::snprintf(name, sizeof name, "/%s.%02d", ARDVEX_COUNTER_BASE, month);
        std::vector<unsigned char> bytes;
        if (!read_file(dir + name, ARDVEX_COUNTER_DAILY_SIZE, bytes)) continue;
        any = true;
        for (size_t d = 0; d < ARDVEX_COUNTER_DAILY_RECORDS; ++d) {
            const ardvex_counter_record r = record_at(bytes, d);
            if (r.period_start != 0) days[r.period_start] = r;
        }
    }
    if (!days.empty()) {
        print_header("DAY");
        for (const auto& [start, r] : days) {
            const std::time_t t = start;
            char when[32];
            std::strftime(when, sizeof when, "%Y-%m-%d", std::localtime(&t));
            print_row(when, r);
        }
    }

    // Hourly: the rolling day, oldest hour first; records of a day ago are stale.
    std::vector<unsigned char> bytes;
    if (read_file(dir + "/" ARDVEX_COUNTER_BASE ".hourly", ARDVEX_COUNTER_HOURLY_SIZE, bytes)) {
        any = true;
        std::map<uint32_t, ardvex_counter_record> hours;
        uint32_t last = 0;
        std::memcpy(&last, bytes.data() + 1, sizeof last);
        for (size_t h = 0; h < ARDVEX_COUNTER_HOURLY_RECORDS; ++h) {
            const ardvex_counter_record r = record_at(bytes, h);
            if (r.period_start != 0 && last - r.period_start < 24 * 3600) hours[r.period_start] = r;
        }
        if (!hours.empty()) {
            if (!days.empty()) std::printf("\n");
            print_header("HOUR");
            for (const auto& [start, r] : hours) {
                const std::time_t t = start;
                char when[32];
                std::strftime(when, sizeof when, "%Y-%m-%d %H:00", std::localtime(&t));
                print_row(when, r);
            }
        }
    }
    if (!any) {
        std::fprintf(stderr, "ardvex-admin counters: no counter file in %s\n", dir.c_str());
        return kNoInput;
    }
    return 0;
}

// ---------------------------------------------------------------------------------------
// list and range

// The options both share; positional arguments are left in args.
struct edit_options {
    std::string dir;
    const char* comment = nullptr;
    bool comment_only = false;
    std::vector<std::string> args;
};

bool parse_edit_options(int argc, char** argv, edit_options& o) {
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-d" && i + 1 < argc) {
            o.dir = argv[++i];
        } else if (arg == "--comment" && i + 1 < argc) {
            o.comment = argv[++i];
        } else if (arg == "--comment-only") {
            o.comment_only = true;
        } else if (!arg.empty() && arg[0] == '-') {
            return false;
        } else {
            o.args.push_back(arg);
        }
    }
    if (o.dir.empty()) {
        config cfg;
        std::string error;
        load_config(kDefaultConfigPath, ardvex_rule_list(), cfg, error);  // or the default
        o.dir = cfg.list_dir;
    }
    return true;
}

// A list is a file name inside the directory, never a path.
bool plain_name(const std::string& name) {
    return !name.empty() && name.find('/') == std::string::npos && name[0] != '.';
}

bool is_file(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

int refused(const char* command, const char* message) {
    std::fprintf(stderr, "ardvex-admin %s: %s\n", command, message);
    return kRefused;
}

void print_line(const char* line) { std::printf("%s\n", line); }

int list_command(int argc, char** argv) {
    if (argc < 1 || wants_help(argc, argv)) {
        std::fputs(kListHelp, argc < 1 ? stderr : stdout);
        return argc < 1 ? kUsage : 0;
    }
    const std::string verb = argv[0];
    edit_options o;
    const size_t want = verb == "show" ? 1 : 2;
    if (!parse_edit_options(argc - 1, argv + 1, o) || o.args.size() != want ||
        !plain_name(o.args[0]) || (verb != "add" && verb != "del" && verb != "show")) {
        std::fputs(kListHelp, stderr);
        return kUsage;
    }
    const std::string& list = o.args[0];
    if (verb == "show") {
        if (!is_file(o.dir + "/" + list)) {
            std::fprintf(stderr, "ardvex-admin list: no list %s/%s\n", o.dir.c_str(), list.c_str());
            return kNoInput;
        }
        return ow_iterate_file(o.dir.c_str(), list.c_str(), print_line) ? 0 : kSoftware;
    }
    // Edits compare exactly (ignoring case): a pattern already listed must not swallow the
    // address being added, nor a delete remove more than was named.
    const char* message =
        verb == "add"
            ? ow_add_entry(o.dir.c_str(), list.c_str(), o.args[1].c_str(), o.comment, strcasecmp)
            : ow_del_entry(o.dir.c_str(), list.c_str(), o.args[1].c_str(), o.comment_only,
                           strcasecmp);
    return message == nullptr ? 0 : refused("list", message);
}

int range_command(int argc, char** argv) {
    if (argc < 1 || wants_help(argc, argv)) {
        std::fputs(kRangeHelp, argc < 1 ? stderr : stdout);
        return argc < 1 ? kUsage : 0;
    }
    const std::string verb = argv[0];
    edit_options o;
    const size_t want = (verb == "add" || verb == "del") ? 3 : 1;
    if (!parse_edit_options(argc - 1, argv + 1, o) || o.args.size() != want ||
        !plain_name(o.args[0]) ||
        (verb != "add" && verb != "del" && verb != "show" && verb != "convert")) {
        std::fputs(kRangeHelp, stderr);
        return kUsage;
    }
    std::string file = o.args[0];
    if (!file.ends_with(".range")) file += ".range";
    const char* dir = o.dir.c_str();
    if (verb != "add" && !is_file(o.dir + "/" + file)) {
        std::fprintf(stderr, "ardvex-admin range: no range file %s/%s\n", dir, file.c_str());
        return kNoInput;
    }
    const char* message = "refused";
    if (verb == "add") {
        return ipr_add_range_to_file(dir, file.c_str(), o.args[1].c_str(), o.args[2].c_str(),
                                     o.comment, &message)
                   ? 0
                   : refused("range", message);
    }
    if (verb == "del") {
        return ipr_del_range_from_file(dir, file.c_str(), o.args[1].c_str(), o.args[2].c_str(),
                                       &message)
                   ? 0
                   : refused("range", message);
    }
    if (verb == "convert") {
        return ipr_convert_file(dir, file.c_str()) ? 0 : refused("range", "conversion failed");
    }
    std::fflush(stdout);
    ipr_list_file(dir, file.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    ow_set_log_function(to_stderr);
    if (argc < 2) {
        std::fputs(kMainHelp, stderr);
        return kUsage;
    }
    const std::string command = argv[1];
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(kMainHelp, stdout);
        return 0;
    }
    try {
        if (command == "counters") return counters_command(argc - 2, argv + 2);
        int (*const run)(int, char**) = command == "judge"   ? judge_command
                                        : command == "list"  ? list_command
                                        : command == "range" ? range_command
                                                             : nullptr;
        if (run != nullptr) {
            if (!ardvex_init()) return kSoftware;
            const int status = run(argc - 2, argv + 2);
            ardvex_shutdown();
            return status;
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "ardvex-admin: internal failure: %s\n", e.what());
        return kSoftware;
    }
    std::fprintf(stderr, "ardvex-admin: unknown command %s\n%s", command.c_str(), kMainHelp);
    return kUsage;
}

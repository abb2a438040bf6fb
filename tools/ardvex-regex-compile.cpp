// ardvex-regex-compile: turns a text file of patterns, one per line, into a compiled pattern
// file for the screening engine (dyna.cregexes, spam.cregexes, confirmed.cregexes,
// exempt.cregexes). Every pattern is compiled before anything is written, and the file is
// written under a temporary name in the target's directory and renamed over the target, so a
// bad pattern or a full disk never leaves a partial or empty file for the engine to read.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ardvex_config.h"
#include "ow_log.h"
#include "tiny_rex.h"
#include "tiny_rex_storage.h"

namespace {

constexpr const char* kProgram = "ardvex-regex-compile";

void usage(FILE* out) {
    std::fprintf(out,
                 "Usage: %s PATTERNS.txt OUTPUT.cregexes\n"
                 "\n"
                 "Compiles the patterns of PATTERNS.txt, one per line, into the compiled pattern\n"
                 "file OUTPUT.cregexes (for instance %sdyna.cregexes). Blank lines and lines\n"
                 "starting with '#' are skipped. Patterns match without regard to case; one\n"
                 "that does not start with '^' is searched anywhere in the subject, one that\n"
                 "does not end with '$' may be followed by anything.\n"
                 "\n"
                 "Every failing pattern is reported with its line number, and then nothing is\n"
                 "written: OUTPUT.cregexes keeps its old contents. Exit status: 0 when the file\n"
                 "was written, 1 on any failure, 2 on a usage error.\n",
                 kProgram, ARDVEX_DYNAREGEX_DIR);
}

// The library reports compiler errors through its log sink; the tool collects the message
// part of each ERROR line to print beside the pattern it belongs to.
std::vector<std::string>& errors() {
    static std::vector<std::string> lines;
    return lines;
}

void collect_errors(int priority, const char* format, ...) {
    if (priority != LOG_ERR) return;
    char buffer[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    std::string line(buffer);
    const std::size_t mark = line.find("(): ");
    errors().push_back(mark == std::string::npos ? line : line.substr(mark + 4));
}

std::string joined_errors() {
    std::string out;
    for (const auto& e : errors()) out += (out.empty() ? "" : "; ") + e;
    errors().clear();
    return out;
}

struct trex_deleter {
    void operator()(TRex* exp) const { trex_free(exp); }
};
using pattern_ptr = std::unique_ptr<TRex, trex_deleter>;

bool blank(const std::string& line) {
    return line.find_first_not_of(" \t\v\f") == std::string::npos;
}

// Reads and compiles every pattern; false when any of them fails (each one reported).
bool compile_patterns(const char* source, std::vector<pattern_ptr>* patterns) {
    FILE* in = std::fopen(source, "r");
    if (in == nullptr) {
        std::fprintf(stderr, "%s: cannot open %s: %s\n", kProgram, source, std::strerror(errno));
        return false;
    }
    bool ok = true;
    char* raw = nullptr;
    std::size_t capacity = 0;
    long number = 0;
    ssize_t length = 0;
    while ((length = ::getline(&raw, &capacity, in)) >= 0) {
        ++number;
        std::string line(raw, static_cast<std::size_t>(length));
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
        if (blank(line) || line[0] == '#') continue;
        if (line.find('\0') != std::string::npos) {
            std::fprintf(stderr, "%s:%ld: the pattern contains a NUL byte\n", source, number);
            ok = false;
            continue;
        }
        errors().clear();
        pattern_ptr exp(trex_compile_ex(line.c_str(), 0));
        std::string problem;
        if (!exp) {
            problem = joined_errors();
            if (problem.empty()) problem = "misplaced repetition operator";
        } else if (exp->nsize > TRS_MAX_NODES) {
            problem = "the pattern needs " + std::to_string(exp->nsize) + " nodes, at most " +
                      std::to_string(TRS_MAX_NODES) + " fit in a record";
        } else if (!trex_validate(exp.get())) {
            // The matcher would refuse it at every lookup: better reported now.
            problem = joined_errors();
        }
        if (!problem.empty()) {
            std::fprintf(stderr, "%s:%ld: cannot compile [%s]: %s\n", source, number, line.c_str(),
                         problem.c_str());
            ok = false;
            continue;
        }
        patterns->push_back(std::move(exp));
    }
    const bool read_error = std::ferror(in) != 0;
    std::free(raw);
    std::fclose(in);
    if (read_error) {
        std::fprintf(stderr, "%s: error reading %s\n", kProgram, source);
        return false;
    }
    return ok;
}

// Writes the file under a temporary name beside target and renames it into place.
bool write_patterns(const char* target, const std::vector<pattern_ptr>& patterns) {
    const std::string path(target);
    const std::size_t slash = path.find_last_of('/');
    const std::string dir = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string temp = dir + (dir.back() == '/' ? "" : "/") + "." + base + ".XXXXXX";
    const int fd = ::mkstemp(temp.data());
    if (fd < 0) {
        std::fprintf(stderr, "%s: cannot create a temporary file in %s: %s\n", kProgram,
                     dir.c_str(), std::strerror(errno));
        return false;
    }
    FILE* out = ::fdopen(fd, "w+b");
    if (out == nullptr) {
        std::fprintf(stderr, "%s: %s: %s\n", kProgram, temp.c_str(), std::strerror(errno));
        ::close(fd);
        ::unlink(temp.c_str());
        return false;
    }
    errors().clear();
    bool ok = ::fchmod(fd, 0644) == 0 && trs_set_header(out);
    for (std::size_t i = 0; ok && i < patterns.size(); ++i) ok = trs_store(out, patterns[i].get());
    ok = ok && std::fflush(out) == 0 && ::fsync(fd) == 0;
    const int saved = errno;
    ok = (std::fclose(out) == 0) && ok;
    if (ok && std::rename(temp.c_str(), target) != 0) {
        std::fprintf(stderr, "%s: cannot rename %s to %s: %s\n", kProgram, temp.c_str(), target,
                     std::strerror(errno));
        ::unlink(temp.c_str());
        return false;
    }
    if (!ok) {
        const std::string why = joined_errors();
        std::fprintf(stderr, "%s: cannot write %s: %s\n", kProgram, target,
                     why.empty() ? std::strerror(saved) : why.c_str());
        ::unlink(temp.c_str());
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        usage(stdout);
        return 0;
    }
    if (argc != 3 || argv[1][0] == '\0' || argv[2][0] == '\0') {
        usage(stderr);
        return 2;
    }
    ow_set_log_function(&collect_errors);
    std::vector<pattern_ptr> patterns;
    if (!compile_patterns(argv[1], &patterns)) {
        std::fprintf(stderr, "%s: %s not written\n", kProgram, argv[2]);
        return 1;
    }
    if (!write_patterns(argv[2], patterns)) return 1;
    std::printf("%s: %zu pattern%s written to %s\n", kProgram, patterns.size(),
                patterns.size() == 1 ? "" : "s", argv[2]);
    return 0;
}

// The list-line matcher: a wildcard pattern against a text, and a list file of arbitrary
// bytes searched for, added to and trimmed of an entry. Nothing may crash or read past the
// list; after an edit that succeeded, the list holds the added entry as a line of its own,
// and no line equal to a deleted one.
//
// Input: pattern NUL text NUL list bytes (pattern and text at most 128 bytes, the list at
// most 4096). The text is also the entry edited in the list.
#include <sys/stat.h>
#include <unistd.h>

#include <strings.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ardvex-file.h"
#include "ow_log.h"

namespace {
const std::string& scratch_dir() {
    static const std::string dir = "/dev/shm/ardvex-file_fuzz." + std::to_string(getpid());
    return dir;
}
void quiet(int, const char*, ...) {}
void ignore_line(const char*) {}
const char* wanted = nullptr;  // what count_line looks for: callbacks get no context
int seen = 0;
void count_line(const char* line) { seen += strcasecmp(line, wanted) == 0; }
int lines_equal_to(const char* dir, const char* entry) {
    wanted = entry;
    seen = 0;
    if (!ow_iterate_file(dir, "list", count_line)) abort();
    return seen;
}

// An entry the search is sure to see as written: one line, not blank-led, not a comment.
bool plain_entry(const std::string& e) {
    if (e.empty() || e.size() > 1000 || e[0] == '#') return false;
    if (e[0] == ' ' || (e[0] >= '\t' && e[0] <= '\r')) return false;
    return e.find_first_of(std::string("\n\r\0", 3)) == std::string::npos;
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    mkdir(scratch_dir().c_str(), 0700);
    ow_set_log_function(quiet);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* begin = reinterpret_cast<const char*>(data);
    const char* end = begin + size;
    const char* cut1 = static_cast<const char*>(std::memchr(begin, '\0', size));
    if (cut1 == nullptr) return 0;
    const char* cut2 = static_cast<const char*>(std::memchr(cut1 + 1, '\0', end - cut1 - 1));
    if (cut2 == nullptr) return 0;
    const std::string pattern(begin, cut1), text(cut1 + 1, cut2), list(cut2 + 1, end);
    if (pattern.size() > 128 || text.size() > 128 || list.size() > 4096) return 0;

    __wildcardmatch(pattern.c_str(), text.c_str());

    const std::string& dir = scratch_dir();
    const std::string path = dir + "/list";
    FILE* fp = std::fopen(path.c_str(), "wb");
    if (fp == nullptr) abort();
    std::fwrite(list.data(), 1, list.size(), fp);
    std::fclose(fp);
    const char* d = dir.c_str();
    const char* entry = text.c_str();
    if (!text.empty()) __file_contains_line(d, "list", entry, __wildcardmatch);
    ow_iterate_file(d, "list", ignore_line);

    if (plain_entry(text)) {
        if (ow_add_entry(d, "list", entry, nullptr, strcasecmp) == nullptr) {
            if (lines_equal_to(d, entry) == 0) abort();
            if (!__file_contains_line(d, "list", entry, strcasecmp)) abort();
        }
        if (ow_del_entry(d, "list", entry, false, strcasecmp) == nullptr &&
            lines_equal_to(d, entry) != 0)
            abort();
    }
    struct stat st {};
    if (stat((path + ".tmp").c_str(), &st) == 0) abort();
    unlink(path.c_str());
    return 0;
}

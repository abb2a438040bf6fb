// ardvex-map: shows what a map file holds, for an administrator who wants to see, for one,
// what the metrics client sent last.
//
//   ardvex-map dump FILE      every pair in insertion order, one "key=value" line each
//   ardvex-map get FILE KEY   the value of one key
//
// Values (and keys) are shown safely: printable ASCII as it is, a value's terminating NUL
// dropped, every other byte, "\" and a key's "=" escaped, so a line can never carry a
// terminal control sequence or be mistaken for two pairs. A file the loader refuses gets the
// loader's error on standard error and exit status 1; a missing key exit status 1 too.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ow_hashmap.h"
#include "ow_log.h"
#include "stderr_sink.hpp"

namespace {

constexpr int kUsage = 2;

std::string shown(const unsigned char* bytes, size_t length, bool is_key) {
    if (!is_key && length > 0 && bytes[length - 1] == '\0') --length;
    std::string out;
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = bytes[i];
        if (c == '\\' || (is_key && c == '=')) {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    return out;
}

// The bytes a loaded value stands for: behind its pointer for a copy, else the word itself.
std::string value_text(const hash_pair_t* pair) {
    const void* bytes = (pair->flags & PAIR_FLAG_COPY) != 0 ? pair->value : &pair->value;
    if (bytes == nullptr) return "";
    return shown(static_cast<const unsigned char*>(bytes), static_cast<size_t>(pair->length),
                 false);
}

int usage() {
    std::fputs("usage: ardvex-map dump FILE\n       ardvex-map get FILE KEY\n", stderr);
    return kUsage;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    const std::string command = argv[1];
    if (!((command == "dump" && argc == 3) || (command == "get" && argc == 4))) return usage();
    ow_set_log_function(to_stderr);
    ow_hashmap* map = ow_map_load(argv[2]);
    if (map == nullptr) {
        std::fprintf(stderr, "ardvex-map: cannot read a map from %s\n", argv[2]);
        return 1;
    }
    int status = 0;
    ow_map_iterator it;
    ow_map_iterator_init(&it, map);
    const char* key = nullptr;
    bool found = false;
    while (ow_map_iterator_next(&it, &key, nullptr)) {
        const hash_pair_t* pair = ow_map_iterator_cur(&it);
        if (command == "dump") {
            std::printf(
                "%s=%s\n",
                shown(reinterpret_cast<const unsigned char*>(key), std::strlen(key), true).c_str(),
                value_text(pair).c_str());
        } else if (std::strcmp(key, argv[3]) == 0) {
            std::printf("%s\n", value_text(pair).c_str());
            found = true;
            break;
        }
    }
    if (command == "get" && !found) {
        std::fprintf(stderr, "ardvex-map: no key [%s] in %s\n", argv[3], argv[2]);
        status = 1;
    }
    ow_map_destroy(map);
    if (std::fflush(stdout) != 0) status = 1;
    return status;
}

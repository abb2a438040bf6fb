// Feeds arbitrary headers to the header folder. A folded header must hold every byte of the
// original in order, with nothing added but CR LF pairs, each right before white space (so no
// word is ever split); a value made only of white space is the one thing dropped.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common_libs.h"

namespace {
bool space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string header(reinterpret_cast<const char*>(data), size);
    header.resize(std::strlen(header.c_str()));
    char* value = nullptr;
    char* folded = fold_header(&value, "%s", header.c_str());
    const size_t colon = header.find(':');
    if (folded == nullptr) {
        if (colon != std::string::npos && (header.size() <= 75 || colon < 76)) abort();
        return 0;
    }
    if (value != folded + colon + 1) abort();
    const std::string out(folded);
    std::free(folded);
    bool has_word = false;
    for (size_t i = colon + 1; i < header.size(); ++i) has_word = has_word || !space(header[i]);
    if (header.size() > 75 && !has_word) {
        if (out != header.substr(0, colon + 1)) abort();
        return 0;
    }
    // A break can only stand before the last white space ahead of a word; there the original
    // cannot hold CR LF itself (a word follows the white space), so the walk is unambiguous.
    size_t i = 0, j = 0;
    while (i < header.size() || j < out.size()) {
        const bool cut =
            i > colon && i + 1 < header.size() && space(header[i]) && !space(header[i + 1]);
        if (cut && out.compare(j, 2, "\r\n") == 0) {
            j += 2;
        } else if (i < header.size() && j < out.size() && header[i] == out[j]) {
            ++i;
            ++j;
        } else {
            abort();
        }
    }
    return 0;
}

// Fuzz target: compiles arbitrary pattern text and matches it against arbitrary subjects.
// Input layout: first byte = case mode, then the pattern, a NUL, and the subject.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tiny_rex.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const uint8_t case_mode = data[0] & 1;
    const std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::size_t split = rest.find('\0');
    const std::string pattern = rest.substr(0, split);
    const std::string subject = split == std::string::npos ? std::string() : rest.substr(split + 1);

    TRex* exp = trex_compile_ex(pattern.c_str(), case_mode);
    if (exp != nullptr) {
        trex_match(exp, subject.c_str());  // the subject stops at its first NUL
        trex_match(exp, pattern.c_str());
        trex_free(exp);
    }
    char* escaped = trex_escape(pattern.c_str());
    if (escaped != nullptr) {
        TRex* literal = trex_compile_ex(escaped, 1);
        if (literal != nullptr) {
            // An escaped printable text always finds itself.
            bool printable = true;
            for (unsigned char c : pattern) printable = printable && c >= 32 && c < 127;
            if (printable && !trex_match(literal, pattern.c_str())) std::abort();
            trex_free(literal);
        }
        std::free(escaped);
    }
    return 0;
}

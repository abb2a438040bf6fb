// Feeds arbitrary bytes to the base64 decoder as text, and round-trips them through the
// encoder: whatever the decoder accepts stays inside its buffer, and encoded bytes always
// decode back to themselves.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ow_b64.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    char* decoded = nullptr;
    uint64_t length = 0;
    if (ow_base64_decode_ex(&decoded, text.c_str(), &length)) {
        if (length > std::strlen(text.c_str()) / 4 * 3) abort();
        if (decoded[length] != '\0') abort();
    }
    std::free(decoded);

    if (size == 0) return 0;
    char* encoded = nullptr;
    if (!ow_base64_encode_ex(&encoded, data, size)) abort();
    if (std::strlen(encoded) != (size + 2) / 3 * 4) abort();
    char* back = nullptr;
    if (!ow_base64_decode_ex(&back, encoded, &length)) abort();
    if (length != size || std::memcmp(back, data, size) != 0) abort();
    std::free(encoded);
    std::free(back);
    return 0;
}

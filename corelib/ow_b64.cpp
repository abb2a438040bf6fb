// ow_b64: base64 encoding and decoding with the standard alphabet.
//
// Both directions work through lookup tables built at compile time so that the common case,
// a whole group of ordinary characters, costs a few loads and no branch per character:
// encoding looks up 12 input bits at a time as a pair of output characters, decoding or-s
// four pre-shifted 24-bit contributions and tests one marker bit for "not an ordinary
// character". Padding and bad characters leave the fast loop for the careful per-group path.
#include "ow_b64.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ow_internal.hpp"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Output character pairs for every 12-bit input value, first character in the low byte.
constexpr std::array<uint16_t, 4096> make_pairs() {
    std::array<uint16_t, 4096> t{};
    for (unsigned v = 0; v < 4096; ++v) {
        t[v] = static_cast<uint16_t>(static_cast<unsigned char>(kAlphabet[v >> 6]) |
                                     (static_cast<unsigned char>(kAlphabet[v & 63]) << 8));
    }
    return t;
}
constexpr std::array<uint16_t, 4096> kPairs = make_pairs();

// Sextet values (0..63) of each byte, kBad for characters outside the alphabet and kPad for
// "=".
constexpr uint8_t kBad = 0xFF;
constexpr uint8_t kPad = 0xFE;
constexpr std::array<uint8_t, 256> make_sextets() {
    std::array<uint8_t, 256> t{};
    for (auto& v : t) v = kBad;
    for (unsigned i = 0; i < 64; ++i)
        t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<uint8_t>(i);
    t['='] = kPad;
    return t;
}
constexpr std::array<uint8_t, 256> kSextets = make_sextets();

// The contribution of a character at position pos of a group to the group's 24 bits, or
// kSpecial for padding and bad characters.
constexpr uint32_t kSpecial = 1u << 24;
constexpr std::array<uint32_t, 256> make_place(unsigned pos) {
    std::array<uint32_t, 256> t{};
    for (unsigned c = 0; c < 256; ++c) {
        const uint8_t s = kSextets[c];
        t[c] = s >= 64 ? kSpecial : static_cast<uint32_t>(s) << (18 - 6 * pos);
    }
    return t;
}
constexpr std::array<uint32_t, 256> kPlace0 = make_place(0);
constexpr std::array<uint32_t, 256> kPlace1 = make_place(1);
constexpr std::array<uint32_t, 256> kPlace2 = make_place(2);
constexpr std::array<uint32_t, 256> kPlace3 = make_place(3);

void encode(const unsigned char* in, size_t length, char* out) noexcept {
    size_t i = 0;
    for (; i + 3 <= length; i += 3, out += 4) {
        const uint32_t v = (static_cast<uint32_t>(in[i]) << 16) |
                           (static_cast<uint32_t>(in[i + 1]) << 8) | in[i + 2];
        const uint16_t hi = kPairs[v >> 12];
        const uint16_t lo = kPairs[v & 0xFFF];
        std::memcpy(out, &hi, 2);
        std::memcpy(out + 2, &lo, 2);
    }
    const size_t rest = length - i;
    if (rest == 0) return;
    const uint32_t a = in[i];
    const uint32_t b = rest == 2 ? in[i + 1] : 0;
    out[0] = kAlphabet[a >> 2];
    out[1] = kAlphabet[((a & 3) << 4) | (b >> 4)];
    out[2] = rest == 2 ? kAlphabet[(b & 15) << 2] : '=';
    out[3] = '=';
}

// Decodes text (a multiple of 4 characters) into out. Returns the number of bytes, or -1
// when a bad character is met before decoding stops.
int64_t decode(const unsigned char* text, size_t length, unsigned char* out) noexcept {
    unsigned char* const start = out;
    for (size_t i = 0; i < length; i += 4) {
        const unsigned char* g = text + i;
        const uint32_t v = kPlace0[g[0]] | kPlace1[g[1]] | kPlace2[g[2]] | kPlace3[g[3]];
        if ((v & kSpecial) == 0) {
            out[0] = static_cast<unsigned char>(v >> 16);
            out[1] = static_cast<unsigned char>(v >> 8);
            out[2] = static_cast<unsigned char>(v);
            out += 3;
            continue;
        }
        // Padding or a bad character somewhere in this group.
        uint32_t s[4];
        for (int k = 0; k < 4; ++k) {
            const uint8_t x = kSextets[g[k]];
            if (x == kBad) return -1;
            s[k] = x == kPad ? 0 : x;
        }
        *out++ = static_cast<unsigned char>((s[0] << 2) | (s[1] >> 4));
        if (g[2] == '=') break;
        *out++ = static_cast<unsigned char>((s[1] << 4) | (s[2] >> 2));
        if (g[3] == '=') break;
        *out++ = static_cast<unsigned char>((s[2] << 6) | s[3]);
    }
    return out - start;
}

}  // namespace

extern "C" {

bool ow_base64_encode_ex(char** out, const void* input, uint64_t length) {
    if (out == nullptr || input == nullptr) {
        OW_EINVAL();
        return false;
    }
    if (length == 0) length = std::strlen(static_cast<const char*>(input));
    if (length == 0) {
        OW_EINVAL();
        return false;
    }
    size_t size = 0;
    if (length > SIZE_MAX / 2 || ow::add_overflows(static_cast<size_t>(length / 3) * 4, 5, &size)) {
        OW_OOM();
        return false;
    }
    auto* text = static_cast<char*>(ow::mem_calloc(1, size));
    if (text == nullptr) {
        OW_OOM();
        return false;
    }
    encode(static_cast<const unsigned char*>(input), static_cast<size_t>(length), text);
    std::free(*out);
    *out = text;
    OW_DEBUG("encoded [%.*s] to [%s]", static_cast<int>(length > INT32_MAX ? INT32_MAX : length),
             static_cast<const char*>(input), text);
    return true;
}

bool ow_base64_decode_ex(char** out, const char* text, uint64_t* decoded_length) {
    if (out == nullptr || text == nullptr || text[0] == '\0') {
        OW_EINVAL();
        return false;
    }
    const size_t length = std::strlen(text);
    if (length % 4 != 0) return false;
    size_t size = 0;
    if (ow::add_overflows(length, 2, &size)) {
        OW_OOM();
        return false;
    }
    auto* bytes = static_cast<unsigned char*>(ow::mem_calloc(1, size));
    if (bytes == nullptr) {
        OW_OOM();
        return false;
    }
    const int64_t n = decode(reinterpret_cast<const unsigned char*>(text), length, bytes);
    if (n < 0) {
        std::free(bytes);
        return false;
    }
    std::free(*out);
    *out = reinterpret_cast<char*>(bytes);
    if (decoded_length != nullptr) *decoded_length = static_cast<uint64_t>(n);
    OW_DEBUG("decoded [%s] to [%s]", text, *out);
    return true;
}

}  // extern "C"

#include <stdint.h>

#include "../platform.h"

namespace ssb {
namespace plat {

namespace {

const uint32_t REPLACEMENT = 0xFFFD;

// Decodes one UTF-8 sequence at s (n > 0 bytes left); *used gets its length.
// Overlong forms, surrogates and values past U+10FFFF are invalid: the first
// byte alone becomes U+FFFD and decoding resumes at the next byte.
uint32_t decode_one(const unsigned char* s, size_t n, size_t* used) {
    const unsigned char c = s[0];
    *used = 1;
    if (c < 0x80)
        return c;
    size_t len = 0;
    uint32_t value = 0;
    uint32_t min = 0;
    if (c >= 0xC2 && c <= 0xDF) {
        len = 2;
        value = c & 0x1Fu;
        min = 0x80;
    } else if (c >= 0xE0 && c <= 0xEF) {
        len = 3;
        value = c & 0x0Fu;
        min = 0x800;
    } else if (c >= 0xF0 && c <= 0xF4) {
        len = 4;
        value = c & 0x07u;
        min = 0x10000;
    } else {
        return REPLACEMENT;
    }
    if (len > n)
        return REPLACEMENT;
    for (size_t i = 1; i < len; ++i) {
        if ((s[i] & 0xC0u) != 0x80u)
            return REPLACEMENT;
        value = value << 6 | (s[i] & 0x3Fu);
    }
    if (value < min || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
        return REPLACEMENT;
    *used = len;
    return value;
}

size_t encode_one(uint32_t v, char* out) {
    if (v >= 0xD800 && v <= 0xDFFF)
        v = REPLACEMENT;
    if (v > 0x10FFFF)
        v = REPLACEMENT;
    if (v < 0x80) {
        out[0] = static_cast<char>(v);
        return 1;
    }
    if (v < 0x800) {
        out[0] = static_cast<char>(0xC0 | v >> 6);
        out[1] = static_cast<char>(0x80 | (v & 0x3F));
        return 2;
    }
    if (v < 0x10000) {
        out[0] = static_cast<char>(0xE0 | v >> 12);
        out[1] = static_cast<char>(0x80 | (v >> 6 & 0x3F));
        out[2] = static_cast<char>(0x80 | (v & 0x3F));
        return 3;
    }
    out[0] = static_cast<char>(0xF0 | v >> 18);
    out[1] = static_cast<char>(0x80 | (v >> 12 & 0x3F));
    out[2] = static_cast<char>(0x80 | (v >> 6 & 0x3F));
    out[3] = static_cast<char>(0x80 | (v & 0x3F));
    return 4;
}

}  // namespace

size_t mbs_to_wcs(const char* src, size_t len, wchar_t* dst, size_t dst_len) {
    const unsigned char* s = reinterpret_cast<const unsigned char*>(src);
    size_t count = 0;
    size_t i = 0;
    while (i < len) {
        size_t used = 0;
        const uint32_t v = decode_one(s + i, len - i, &used);
        if (dst && count < dst_len)
            dst[count] = static_cast<wchar_t>(v);
        ++count;
        i += used;
    }
    return count;
}

size_t wcs_to_mbs(const wchar_t* src, size_t len, char* dst, size_t dst_len) {
    size_t count = 0;
    for (size_t i = 0; i < len; ++i) {
        char bytes[4];
        const size_t n = encode_one(static_cast<uint32_t>(src[i]), bytes);
        for (size_t k = 0; k < n; ++k, ++count) {
            if (dst && count < dst_len)
                dst[count] = bytes[k];
        }
    }
    return count;
}

}  // namespace plat
}  // namespace ssb

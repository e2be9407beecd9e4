// Number-to-text routines: minimal decimal integers and fixed-point reals.
//
// Every log line runs through these, so they avoid the C library: values
// below 256 are one 4-byte copy from a table, larger ones are written from
// the end two digits at a time.
#include <string.h>

#include "stream.h"
#include "trace.h"

namespace ssb {
namespace auxi {

// Shared with stream.cpp, which repeats these declarations; hidden, so
// the stream reaches them without going through the export table. Each
// returns the characters written before the NUL.
unsigned int u32_text(uint32_t v, signed char* out);
unsigned int u64_text(uint64_t v, signed char* out);
unsigned int i32_text(int32_t v, signed char* out);
unsigned int i64_text(int64_t v, signed char* out);
// 0 (and the empty text) when refused.
unsigned int float_text(float value, unsigned int decimals, signed char* out);
unsigned int double_text(double value, unsigned int decimals, signed char* out);

namespace {

// Decimal texts of 0..255, NUL-padded to 4 bytes so that one copy brings
// the terminator along.
struct small_table_t {
    signed char text[256][4];
    unsigned char len[256];
};

constexpr small_table_t make_small_table() {
    small_table_t t{};
    for (int i = 0; i < 256; ++i) {
        int n = 0;
        if (i >= 100)
            t.text[i][n++] = static_cast<signed char>('0' + i / 100);
        if (i >= 10)
            t.text[i][n++] = static_cast<signed char>('0' + i / 10 % 10);
        t.text[i][n++] = static_cast<signed char>('0' + i % 10);
        t.len[i] = static_cast<unsigned char>(n);
    }
    return t;
}

// Constant-initialised: usable before init_auxi and from any thread.
constexpr small_table_t SMALL = make_small_table();

struct pair_table_t {
    signed char text[200];
};

constexpr pair_table_t make_pair_table() {
    pair_table_t t{};
    for (int i = 0; i < 100; ++i) {
        t.text[2 * i] = static_cast<signed char>('0' + i / 10);
        t.text[2 * i + 1] = static_cast<signed char>('0' + i % 10);
    }
    return t;
}

constexpr pair_table_t PAIRS = make_pair_table();

const uint32_t POW10[10] = {1u, 10u, 100u, 1000u, 10000u, 100000u, 1000000u, 10000000u, 100000000u, 1000000000u};

const unsigned int MAX_DECIMALS = 9;

inline unsigned int count_u32(uint32_t v) {
    if (v < 100000u) {
        if (v < 100u)
            return v < 10u ? 1 : 2;
        if (v < 1000u)
            return 3;
        return v < 10000u ? 4 : 5;
    }
    if (v < 10000000u)
        return v < 1000000u ? 6 : 7;
    if (v < 100000000u)
        return 8;
    return v < 1000000000u ? 9 : 10;
}

inline unsigned int count_u64(uint64_t v) {
    unsigned int n = 10;
    uint64_t limit = 10000000000ULL;
    while (n < 20 && v >= limit) {
        ++n;
        limit *= 10;
    }
    return n;
}

inline void put_pair(signed char*& end, uint32_t v) {
    end -= 2;
    memcpy(end, PAIRS.text + 2 * v, 2);
}

// Writes the digits of v (at least one) so that they end just before `end`.
inline void put_u32_backward(uint32_t v, signed char* end) {
    while (v >= 100u) {
        const uint32_t r = v % 100u;
        v /= 100u;
        put_pair(end, r);
    }
    if (v >= 10u)
        put_pair(end, v);
    else
        *--end = static_cast<signed char>('0' + v);
}

unsigned int fixed_text(double magnitude, bool negative, unsigned int decimals, signed char* out) {
    if (decimals > MAX_DECIMALS)
        decimals = MAX_DECIMALS;
    uint64_t whole = static_cast<uint64_t>(magnitude);
    const uint32_t scale = POW10[decimals];
    // (magnitude - whole) is exact; the product stays below 2^32.
    uint32_t fraction = static_cast<uint32_t>((magnitude - static_cast<double>(whole)) * scale + 0.5);
    if (fraction >= scale) {
        fraction -= scale;
        ++whole;
    }
    signed char* p = out;
    if (negative)
        *p++ = '-';
    p += u64_text(whole, p);
    *p++ = '.';
    for (unsigned int i = decimals; i-- > 0;) {
        p[i] = static_cast<signed char>('0' + fraction % 10u);
        fraction /= 10u;
    }
    p += decimals;
    *p = 0;
    return static_cast<unsigned int>(p - out);
}

}  // namespace

unsigned int u32_text(uint32_t v, signed char* out) {
    if (v < 256u) {
        memcpy(out, SMALL.text[v], 4);
        return SMALL.len[v];
    }
    const unsigned int n = count_u32(v);
    out[n] = 0;
    put_u32_backward(v, out + n);
    return n;
}

unsigned int u64_text(uint64_t v, signed char* out) {
    if (v <= 0xFFFFFFFFULL)
        return u32_text(static_cast<uint32_t>(v), out);
    const unsigned int n = count_u64(v);
    signed char* end = out + n;
    *end = 0;
    // Eight digits per 64-bit division: i686 pays a library call for each.
    while (v > 0xFFFFFFFFULL) {
        uint32_t low = static_cast<uint32_t>(v % 100000000ULL);
        v /= 100000000ULL;
        for (int i = 0; i < 4; ++i) {
            put_pair(end, low % 100u);
            low /= 100u;
        }
    }
    put_u32_backward(static_cast<uint32_t>(v), end);
    return n;
}

unsigned int i32_text(int32_t v, signed char* out) {
    if (v >= 0)
        return u32_text(static_cast<uint32_t>(v), out);
    *out = '-';
    return 1 + u32_text(0u - static_cast<uint32_t>(v), out + 1);
}

unsigned int i64_text(int64_t v, signed char* out) {
    if (v >= 0)
        return u64_text(static_cast<uint64_t>(v), out);
    *out = '-';
    return 1 + u64_text(0ULL - static_cast<uint64_t>(v), out + 1);
}

unsigned int float_text(float value, unsigned int decimals, signed char* out) {
    // The integer part must fit the signed 32-bit text; NaN fails both tests.
    if (!(value >= -2147483648.0f && value < 2147483648.0f)) {
        UTIL_ASSERT_MSG("ftoa, too bigger", "auxi", __LINE__, "");
        out[0] = 0;
        return 0;
    }
    const double v = value;
    return fixed_text(v < 0 ? -v : v, v < 0, decimals, out);
}

unsigned int double_text(double value, unsigned int decimals, signed char* out) {
    if (!(value >= -9223372036854775808.0 && value < 9223372036854775808.0)) {
        UTIL_ASSERT_MSG("lftoa too bigger", "auxi", __LINE__, "");
        out[0] = 0;
        return 0;
    }
    return fixed_text(value < 0 ? -value : value, value < 0, decimals, out);
}

}  // namespace auxi

namespace {

inline void store_len(unsigned int* len, unsigned int n) {
    if (len)
        *len = n;
}

}  // namespace

void init_auxi() {
    // Nothing left to build: the tables above are constant-initialised, which
    // also covers conversions that run before the library's start-up.
}

void ui8toa_dec(unsigned char value, signed char* out, unsigned int* len) {
    store_len(len, out ? auxi::u32_text(value, out) + 1 : 0);
}

void i8toa_dec(signed char value, signed char* out, unsigned int* len) {
    store_len(len, out ? auxi::i32_text(value, out) + 1 : 0);
}

void ui32toa_dec(unsigned int value, signed char* out, unsigned int* len) {
    store_len(len, out ? auxi::u32_text(value, out) + 1 : 0);
}

void i32toa_dec(int value, signed char* out, unsigned int* len) {
    store_len(len, out ? auxi::i32_text(value, out) + 1 : 0);
}

void ui64toa_dec(unsigned long long value, signed char* out, unsigned int* len) {
    store_len(len, out ? auxi::u64_text(value, out) + 1 : 0);
}

void i64toa_dec(long long value, signed char* out, unsigned int* len) {
    store_len(len, out ? auxi::i64_text(value, out) + 1 : 0);
}

void ftoa(float value, signed char* out, unsigned int decimals, unsigned int* len) {
    store_len(len, out ? auxi::float_text(value, decimals, out) + 1 : 0);
}

void lftoa(double value, signed char* out, unsigned int decimals, unsigned int* len) {
    store_len(len, out ? auxi::double_text(value, decimals, out) + 1 : 0);
}

}  // namespace ssb

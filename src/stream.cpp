#include "stream.h"

#include <stdio.h>
#include <string.h>

#include "date.h"
#include "platform/platform.h"
#include "timer.h"
#include "uuid.h"

namespace ssb {

namespace auxi {
// Defined in auxi.cpp (hidden). Each returns the characters written before
// the NUL; the integer forms may write up to 4 bytes for values below 256.
unsigned int u32_text(uint32_t v, signed char* out);
unsigned int u64_text(uint64_t v, signed char* out);
// 0 (and the empty text) when refused.
unsigned int float_text(float value, unsigned int decimals, signed char* out);
unsigned int double_text(double value, unsigned int decimals, signed char* out);
}  // namespace auxi

namespace {

// Room checked before an integer is written, per width (8, 16, 32, 64 bits):
// the widest text of the type in the radix, plus one.
struct width_t {
    unsigned char bin;
    unsigned char dec;
    unsigned char hex;
};
const width_t WIDTHS[4] = {{9, 4, 3}, {17, 7, 5}, {33, 12, 9}, {65, 21, 17}};

const char UPPER_DIGITS[] = "0123456789ABCDEF";
const char LOWER_DIGITS[] = "0123456789abcdef";

// The longest texts of ftoa and lftoa with their NUL.
const unsigned int FLOAT_TEXT_SIZE = 22;
const unsigned int DOUBLE_TEXT_SIZE = 31;

// Where a stream without a buffer points. Never written: with no room
// nothing reaches it, and reset() checks for it.
signed char s_no_buffer[1] = {0};

inline bool is_hex(uint32_t radix) { return radix == ORDIX_HEX || radix == ORDIX_HEX_LOWER; }

}  // namespace

// ---- text_stream_t --------------------------------------------------------

text_stream_t::text_stream_t(signed char* buf, unsigned int size)
    : m_buffer(buf && size ? buf : s_no_buffer),
      m_capacity(buf && size ? size - 1 : 0),
      m_cursor(m_buffer),
      m_remaining(m_capacity),
      m_radix(ORDIX_DEC),
      m_good(true) {
    reset();
}

text_stream_t::~text_stream_t() {}

void text_stream_t::reset() {
    m_cursor = m_buffer;
    m_remaining = m_capacity;
    m_radix = ORDIX_DEC;
    if (m_buffer != s_no_buffer) {
        m_buffer[0] = 0;
        m_buffer[m_capacity] = 0;
    }
    m_good = true;
}

void text_stream_t::put_char(char c) {
    if (!is_enough(1))
        return;
    m_cursor[0] = static_cast<signed char>(c);
    m_cursor[1] = 0;
    advance(1);
}

void text_stream_t::roll_back(signed char* cursor, uint32_t remaining) {
    if (m_cursor != cursor) {
        m_cursor = cursor;
        m_remaining = remaining;
        *m_cursor = 0;
    }
    m_good = false;
}

void text_stream_t::put_integer(uint64_t bits, unsigned int width_log2, bool negative) {
    const width_t& width = WIDTHS[width_log2];
    const unsigned int nbits = 8u << width_log2;
    switch (m_radix) {
    case ORDIX_DEC: {
        if (!is_enough(width.dec))
            return;
        signed char* p = m_cursor;
        if (negative) {
            *p++ = '-';
            bits = 0ULL - bits;
            if (nbits < 64)
                bits &= (1ULL << nbits) - 1;
        }
        if (bits >> 32)
            p += auxi::u64_text(bits, p);
        else
            p += auxi::u32_text(static_cast<uint32_t>(bits), p);
        advance(static_cast<unsigned int>(p - m_cursor));
        return;
    }
    case ORDIX_HEX:
    case ORDIX_HEX_LOWER: {
        if (!is_enough(width.hex))
            return;
        const char* digits = m_radix == ORDIX_HEX ? UPPER_DIGITS : LOWER_DIGITS;
        const unsigned int n = nbits / 4;
        for (unsigned int i = 0; i < n; ++i)
            m_cursor[i] = static_cast<signed char>(digits[(bits >> (nbits - 4 - 4 * i)) & 15u]);
        m_cursor[n] = 0;
        advance(n);
        return;
    }
    case ORDIX_BIN: {
        if (!is_enough(width.bin))
            return;
        const bin_dict_t dict;
        for (unsigned int i = 0; i < nbits / 8; ++i)
            memcpy(m_cursor + 8 * i, dict[static_cast<unsigned int>(bits >> (nbits - 8 - 8 * i)) & 0xFFu], 8);
        m_cursor[nbits] = 0;
        advance(nbits);
        return;
    }
    case ORDIX_OCT: {
        unsigned int n = 1;
        for (uint64_t rest = bits >> 3; rest; rest >>= 3)
            ++n;
        if (!is_enough(n + 1))
            return;
        m_cursor[n] = 0;
        for (unsigned int i = n; i-- > 0; bits >>= 3)
            m_cursor[i] = static_cast<signed char>('0' + (bits & 7u));
        advance(n);
        return;
    }
    default:
        return;
    }
}

text_stream_t& text_stream_t::append(const signed char* text) {
    if (!text)
        return *this;
    if (is_hex(m_radix)) {
        // The NUL goes out too, as "00".
        do {
            put_integer(static_cast<unsigned char>(*text), 0, false);
        } while (m_good && *text++ != 0);
        return *this;
    }
    const size_t n = strnlen(reinterpret_cast<const char*>(text), m_remaining);
    if (n) {
        memcpy(m_cursor, text, n);
        m_cursor[n] = 0;
        advance(static_cast<unsigned int>(n));
    }
    // text[n] is the NUL unless the text was cut.
    m_good = text[n] == 0;
    return *this;
}

text_stream_t& text_stream_t::append(const signed char* text, unsigned int len) {
    if (!text || !len)
        return *this;
    if (is_hex(m_radix)) {
        for (unsigned int i = 0; i < len && m_good; ++i)
            put_integer(static_cast<unsigned char>(text[i]), 0, false);
        return *this;
    }
    // All or nothing, unlike the NUL-terminated form: callers that count
    // their text rely on never seeing half of it.
    if (!is_enough(len))
        return *this;
    memcpy(m_cursor, text, len);
    m_cursor[len] = 0;
    advance(len);
    return *this;
}

text_stream_t& text_stream_t::operator<<(ORDIX_ENUM radix) {
    m_radix = static_cast<uint32_t>(radix);
    return *this;
}

text_stream_t& text_stream_t::operator<<(char value) { return *this << static_cast<signed char>(value); }

text_stream_t& text_stream_t::operator<<(signed char value) {
    put_integer(static_cast<unsigned char>(value), 0, value < 0);
    return *this;
}

text_stream_t& text_stream_t::operator<<(unsigned char value) {
    put_integer(value, 0, false);
    return *this;
}

text_stream_t& text_stream_t::operator<<(bool value) {
    const char* text = value ? "true" : "false";
    const unsigned int n = value ? 4 : 5;
    if (is_enough(n)) {
        memcpy(m_cursor, text, n + 1);
        advance(n);
    }
    return *this;
}

text_stream_t& text_stream_t::operator<<(short value) {
    put_integer(static_cast<unsigned short>(value), 1, value < 0);
    return *this;
}

text_stream_t& text_stream_t::operator<<(unsigned short value) {
    put_integer(value, 1, false);
    return *this;
}

text_stream_t& text_stream_t::operator<<(int value) {
    put_integer(static_cast<unsigned int>(value), 2, value < 0);
    return *this;
}

text_stream_t& text_stream_t::operator<<(unsigned int value) {
    put_integer(value, 2, false);
    return *this;
}

text_stream_t& text_stream_t::operator<<(long value) {
    if (sizeof(long) == sizeof(int))
        return *this << static_cast<int>(value);
    return *this << static_cast<long long>(value);
}

text_stream_t& text_stream_t::operator<<(unsigned long value) {
    if (sizeof(unsigned long) == sizeof(unsigned int))
        return *this << static_cast<unsigned int>(value);
    return *this << static_cast<unsigned long long>(value);
}

text_stream_t& text_stream_t::operator<<(long long value) {
    put_integer(static_cast<unsigned long long>(value), 3, value < 0);
    return *this;
}

text_stream_t& text_stream_t::operator<<(unsigned long long value) {
    put_integer(value, 3, false);
    return *this;
}

void text_stream_t::put_fallback(double value, bool is_float) {
    if (m_remaining == 0) {
        m_good = false;
        return;
    }
    char* out = reinterpret_cast<char*>(m_cursor);
    const size_t room = static_cast<size_t>(m_remaining) + 1;
    const int n = is_float ? snprintf(out, room, "%.2f", value) : snprintf(out, room, "%.2lf", value);
    if (n < 0 || static_cast<unsigned int>(n) > m_remaining) {
        *m_cursor = 0;
        m_good = false;
        return;
    }
    m_good = true;
    advance(static_cast<unsigned int>(n));
}

// The range tests include +2^31 and +2^63, which ftoa and lftoa then refuse
// (assertion line, nothing written). Kept: hosts' logs have always shown
// those two values that way.
text_stream_t& text_stream_t::operator<<(float value) {
    if (value <= 2147483648.0f && value >= -2147483648.0f) {
        if (m_remaining >= FLOAT_TEXT_SIZE) {
            m_good = true;
            advance(auxi::float_text(value, 2, m_cursor));
        } else {
            signed char text[FLOAT_TEXT_SIZE];
            const unsigned int n = auxi::float_text(value, 2, text);
            if (is_enough(n) && n) {
                memcpy(m_cursor, text, n + 1);
                advance(n);
            }
        }
        return *this;
    }
    put_fallback(value, true);
    return *this;
}

text_stream_t& text_stream_t::operator<<(double value) {
    if (value <= 9223372036854775808.0 && value >= -9223372036854775808.0) {
        if (m_remaining >= DOUBLE_TEXT_SIZE) {
            m_good = true;
            advance(auxi::double_text(value, 4, m_cursor));
        } else {
            signed char text[DOUBLE_TEXT_SIZE];
            const unsigned int n = auxi::double_text(value, 4, text);
            if (is_enough(n) && n) {
                memcpy(m_cursor, text, n + 1);
                advance(n);
            }
        }
        return *this;
    }
    put_fallback(value, false);
    return *this;
}

text_stream_t& text_stream_t::operator<<(const char* text) {
    return append(reinterpret_cast<const signed char*>(text));
}

text_stream_t& text_stream_t::operator<<(const signed char* text) { return append(text); }

text_stream_t& text_stream_t::operator<<(const unsigned char* text) {
    return append(reinterpret_cast<const signed char*>(text));
}

text_stream_t& text_stream_t::operator<<(const std::string& text) {
    return append(reinterpret_cast<const signed char*>(text.data()), static_cast<unsigned int>(text.size()));
}

text_stream_t& text_stream_t::operator<<(const void* pointer) {
    const uint64_t v = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(pointer));
    const unsigned int digits = (v >> 32) ? 16 : 8;
    if (!is_enough(digits + 3))
        return *this;
    m_cursor[0] = '0';
    m_cursor[1] = 'x';
    for (unsigned int i = 0; i < digits; ++i)
        m_cursor[2 + i] = static_cast<signed char>(LOWER_DIGITS[(v >> (4 * (digits - 1 - i))) & 15u]);
    m_cursor[2 + digits] = 0;
    advance(2 + digits);
    return *this;
}

text_stream_t& text_stream_t::operator<<(const atomic_t<int, null_lock>& value) { return *this << value.value(); }

text_stream_t& text_stream_t::operator<<(const atomic_t<unsigned int, null_lock>& value) {
    return *this << value.value();
}

text_stream_t& text_stream_t::operator<<(const atomic_t<long long, null_lock>& value) { return *this << value.value(); }

text_stream_t& text_stream_t::operator<<(const atomic_t<unsigned long long, null_lock>& value) {
    return *this << value.value();
}

template <class date_type>
void text_stream_t::put_date(const date_type& date) {
    signed char* const cursor = m_cursor;
    const uint32_t remaining = m_remaining;
    const unsigned short fields[7] = {date.m_month,  date.m_day,    date.m_year,       date.m_hour,
                                      date.m_minute, date.m_second, date.m_millisecond};
    static const char SEPARATORS[7] = {'/', '/', ' ', ':', ':', ':', 0};
    for (int i = 0; i < 7; ++i) {
        put_integer(fields[i], 1, false);
        if (m_good && SEPARATORS[i])
            put_char(SEPARATORS[i]);
        if (!m_good) {
            roll_back(cursor, remaining);
            return;
        }
    }
}

text_stream_t& text_stream_t::operator<<(const local_date_t* date) {
    if (date)
        put_date(*date);
    return *this;
}

text_stream_t& text_stream_t::operator<<(const gmt_date_t* date) {
    if (date)
        put_date(*date);
    return *this;
}

text_stream_t& text_stream_t::operator<<(const _uuid_t& id) {
    if (is_enough(_uuid_t::TEXT_LENGTH)) {
        id.to_chars(reinterpret_cast<char*>(m_cursor));
        advance(_uuid_t::TEXT_LENGTH);
    }
    return *this;
}

text_stream_t& text_stream_t::operator<<(const in6_addr& address) {
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&address);
    signed char* const cursor = m_cursor;
    const uint32_t remaining = m_remaining;
    const uint32_t radix = m_radix;
    m_radix = ORDIX_HEX;
    for (int i = 0; i < 8; ++i) {
        put_integer(static_cast<uint64_t>(bytes[2 * i]) << 8 | bytes[2 * i + 1], 1, false);
        if (m_good && i < 7)
            put_char(':');
        if (!m_good) {
            roll_back(cursor, remaining);
            break;
        }
    }
    m_radix = radix;
    return *this;
}

// ---- log_stream_t ---------------------------------------------------------

log_stream_t::log_stream_t(signed char* buf, unsigned int size, const signed char* level_name,
                           const signed char* module_name)
    : text_stream_t(buf, size) {
    flush(level_name, module_name);
}

namespace {

// The slow-changing part of the header, per thread: the date text up to the
// milliseconds and the process id, rebuilt when the second changes. The
// once-a-second refresh also lets a forked child pick up its own id.
struct header_cache_t {
    int64_t second;
    uint32_t pid;
    uint32_t date_len;
    signed char date[32];  // "m/d/y h:m:s:", at most 21 characters
};

thread_local header_cache_t s_header = {-1, 0, 0, {0}};

const header_cache_t& header_cache(uint64_t now_ms) {
    header_cache_t& cache = s_header;
    const int64_t second = static_cast<int64_t>(now_ms / 1000);
    if (cache.second == second)
        return cache;
    const local_date_t date = local_date_t::from_epoch_ms(now_ms);
    const unsigned short fields[6] = {date.m_month, date.m_day, date.m_year, date.m_hour, date.m_minute, date.m_second};
    static const char SEPARATORS[6] = {'/', '/', ' ', ':', ':', ':'};
    signed char* p = cache.date;
    for (int i = 0; i < 6; ++i) {
        p += auxi::u32_text(fields[i], p);
        *p++ = static_cast<signed char>(SEPARATORS[i]);
    }
    *p = 0;
    cache.date_len = static_cast<uint32_t>(p - cache.date);
    cache.pid = plat::current_process_id();
    cache.second = second;
    return cache;
}

// Room for the whole date column (the cached text is copied in one piece)
// and for the whole "[pid:tid]" column.
const uint32_t DATE_ROOM = sizeof(header_cache_t::date);
const uint32_t IDS_ROOM = 24;

}  // namespace

void log_stream_t::flush(const signed char* level_name, const signed char* module_name) {
    reset();
    const uint64_t now_ms = times_drv_t::now();
    const header_cache_t& cache = header_cache(now_ms);

    if (m_remaining >= DATE_ROOM) {
        signed char* p = m_cursor;
        memcpy(p, cache.date, DATE_ROOM);
        p += cache.date_len;
        p += auxi::u32_text(static_cast<uint32_t>(now_ms % 1000), p);
        *p++ = '\t';
        *p = 0;
        advance(static_cast<unsigned int>(p - m_cursor));
        m_good = true;
    } else {
        const local_date_t date = local_date_t::from_epoch_ms(now_ms);
        put_date(date);
        put_char('\t');
    }

    if (module_name) {
        append(module_name);
        put_char('\t');
    }

    const uint32_t tid = plat::current_thread_id();
    if (m_remaining >= IDS_ROOM) {
        signed char* p = m_cursor;
        *p++ = '[';
        p += auxi::u32_text(cache.pid, p);
        *p++ = ':';
        p += auxi::u32_text(tid, p);
        *p++ = ']';
        *p++ = '\t';
        *p = 0;
        advance(static_cast<unsigned int>(p - m_cursor));
        m_good = true;
    } else {
        put_char('[');
        put_integer(cache.pid, 2, false);
        put_char(':');
        put_integer(tid, 2, false);
        put_char(']');
        put_char('\t');
    }

    if (level_name) {
        append(level_name);
        put_char('\t');
    }
}

}  // namespace ssb

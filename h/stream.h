// Non-allocating text formatting: the number-to-text routines, the text
// stream that writes values into a caller's buffer, and the log stream that
// starts every line with the log header.
#ifndef SSB_STREAM_H
#define SSB_STREAM_H

#include <string>
#include <utility>

#include "lock.h"
#include "util_def.h"

// Only the 16 bytes are read; the socket headers stay out of this one.
struct in6_addr;

namespace ssb {

class local_date_t;
class gmt_date_t;
class msg_db_t;
class _uuid_t;

// ---- number-to-text routines ----------------------------------------------
//
// Each writes a NUL-terminated text at `out` and stores in `*len` (when `len`
// is not null) the characters written including the NUL. A null `out` writes
// nothing and stores 0. `out` must hold the longest text of the routine:
//   ui8toa_dec, i8toa_dec 5; ui32toa_dec, i32toa_dec 12; ui64toa_dec,
//   i64toa_dec 21; ftoa 22; lftoa 31 bytes.
// The integer routines may write zero bytes past the NUL within that room.

// Kept for hosts and for start-up: the decimal table of 0..255 is built at
// compile time, so conversions are safe before, during and after this call.
UTIL_API void init_auxi();

UTIL_API void ui8toa_dec(unsigned char value, signed char* out, unsigned int* len);
UTIL_API void i8toa_dec(signed char value, signed char* out, unsigned int* len);
UTIL_API void ui32toa_dec(unsigned int value, signed char* out, unsigned int* len);
UTIL_API void i32toa_dec(int value, signed char* out, unsigned int* len);
UTIL_API void ui64toa_dec(unsigned long long value, signed char* out, unsigned int* len);
UTIL_API void i64toa_dec(long long value, signed char* out, unsigned int* len);

// Fixed-point text: sign, integer part, ".", then exactly `decimals` digits
// (capped at 9; 0 leaves the bare "."), rounded half up on the magnitude, a
// rounded fraction carrying into the integer part (0.999995 with 2 decimals
// is "1.00"). Values from 2^31 (ftoa) or 2^63 (lftoa) up, values below the
// negatives of those, NaN and infinities are refused with an assertion line
// and give the empty text (*len = 1).
UTIL_API void ftoa(float value, signed char* out, unsigned int decimals, unsigned int* len);
UTIL_API void lftoa(double value, signed char* out, unsigned int decimals, unsigned int* len);

// ---- streams ------------------------------------------------------------------

// Radix of the integers that follow: stream it to switch, e.g. s << ORDIX_HEX.
enum ORDIX_ENUM {
    ORDIX_BIN = 2,
    ORDIX_OCT = 8,
    ORDIX_DEC = 10,
    ORDIX_HEX = 16,        // upper-case digits
    ORDIX_HEX_LOWER = 256  // lower-case digits
};

// Formats values into a caller's buffer of `size` bytes; never allocates.
// One byte is reserved, so the text is always NUL-terminated and at most
// size - 1 characters long. A value that does not fit is not written at all
// (good() turns false) and later, shorter values are still tried; the only
// value that is cut is a NUL-terminated string, which is truncated at the end
// of the buffer.
//
// Integers: radix 10 gives the minimal text with "-" for negative signed
// values; radix 2 every bit, 16 and 256 two digits per byte (leading zeros
// kept, no prefix), 8 the minimal octal digits of the bit pattern. Before
// writing, the room for the widest text of the type in that radix plus one is
// checked. Any other radix writes nothing for integers. `char` is a number
// like `signed char`; texts are `const char*` and friends.
//
// Not thread-safe: one thread at a time uses a stream.
class UTIL_API text_stream_t : public no_copy {
public:
    // `buf` holds `size` bytes. A null `buf` or a size of 0 gives a stream
    // with no room that never writes.
    text_stream_t(signed char* buf, unsigned int size);
    virtual ~text_stream_t();

    // Empties the text and sets radix 10 and good.
    virtual void reset();

    bool good() const { return m_good; }
    // good = there are at least `n` free characters.
    bool is_enough(unsigned int n) {
        m_good = m_remaining >= n;
        return m_good;
    }

    // NUL-terminated text: copied up to the end of the buffer (good turns
    // false when cut). In radix 16/256 every byte, the NUL included, is
    // written as two hexadecimal digits instead. Null writes nothing.
    text_stream_t& append(const signed char* text);
    // Counted text: all or nothing (good turns false when it does not fit).
    // In radix 16/256 the bytes are written as digit pairs, no NUL.
    text_stream_t& append(const signed char* text, unsigned int len);

    operator signed char*() const { return m_buffer; }
    // Characters written so far.
    unsigned int length() const { return static_cast<unsigned int>(m_cursor - m_buffer); }

    text_stream_t& operator<<(ORDIX_ENUM radix);

    text_stream_t& operator<<(char value);
    text_stream_t& operator<<(signed char value);
    text_stream_t& operator<<(unsigned char value);
    // "true" or "false" in any radix, all or nothing.
    text_stream_t& operator<<(bool value);
    text_stream_t& operator<<(short value);
    text_stream_t& operator<<(unsigned short value);
    text_stream_t& operator<<(int value);
    text_stream_t& operator<<(unsigned int value);
    // long is 32 bits on Windows and 64 on LP64 systems; each goes to its width.
    text_stream_t& operator<<(long value);
    text_stream_t& operator<<(unsigned long value);
    text_stream_t& operator<<(long long value);
    text_stream_t& operator<<(unsigned long long value);

    // 2 decimals while the value is within +-2^31, else "%.2f". +2^31 itself
    // is refused by ftoa and writes nothing, as it always has.
    text_stream_t& operator<<(float value);
    // 4 decimals while the value is within +-2^63, else "%.2lf" (2
    // decimals); +2^63 writes nothing.
    text_stream_t& operator<<(double value);

    text_stream_t& operator<<(const char* text);
    text_stream_t& operator<<(const signed char* text);
    text_stream_t& operator<<(const unsigned char* text);
    text_stream_t& operator<<(const std::string& text);

    // "0x" and lower-case digits: 8 when the address fits in 32 bits, 16
    // otherwise. Any radix.
    text_stream_t& operator<<(const void* pointer);

    text_stream_t& operator<<(const atomic_t<int, null_lock>& value);
    text_stream_t& operator<<(const atomic_t<unsigned int, null_lock>& value);
    text_stream_t& operator<<(const atomic_t<long long, null_lock>& value);
    text_stream_t& operator<<(const atomic_t<unsigned long long, null_lock>& value);

    // month/day/year hour:minute:second:millisecond, each field unpadded in
    // the current radix; all or nothing. Null writes nothing.
    text_stream_t& operator<<(const local_date_t* date);
    text_stream_t& operator<<(const gmt_date_t* date);

    // The identifier's 36-character text form (8-4-4-4-12, lower case) in
    // any radix; all or nothing, no allocation.
    text_stream_t& operator<<(const _uuid_t& id);

    // Eight groups of 4 upper-case hexadecimal digits joined by ":", each the
    // group's network-order value (::1 ends in 0001); all or nothing.
    text_stream_t& operator<<(const in6_addr& address);

    // Every readable byte of the chain from this node on as two upper-case
    // hexadecimal digits, nothing consumed, stopping when the stream is
    // full; the radix is restored after.
    text_stream_t& operator<<(const msg_db_t& db);

protected:
    void advance(unsigned int n) {
        m_cursor += n;
        m_remaining -= n;
    }
    // An integer of 8 << width_log2 bits, given as its zero-extended bit
    // pattern; `negative` marks a negative signed value.
    void put_integer(uint64_t bits, unsigned int width_log2, bool negative);
    void put_char(char c);
    void put_fallback(double value, bool is_float);
    template <class date_type>
    void put_date(const date_type& date);
    // Undoes a partly written compound value.
    void roll_back(signed char* cursor, uint32_t remaining);

    signed char* m_buffer;
    uint32_t m_capacity;
    signed char* m_cursor;
    uint32_t m_remaining;
    uint32_t m_radix;
    bool m_good;
};

// A text stream whose text starts with the log header:
//   date TAB module TAB [pid:tid] TAB level TAB
// with the local date in the stream's date form; a null module or level
// leaves out its column and its TAB. Log statements build their line in one
// over a 2049-byte stack buffer. Not thread-safe, like text_stream_t.
class UTIL_API log_stream_t : public text_stream_t {
public:
    log_stream_t(signed char* buf, unsigned int size, const signed char* level_name, const signed char* module_name);

    // Empties the text and writes a fresh header.
    void flush(const signed char* level_name, const signed char* module_name);

    // Every text_stream_t operator, returning the log stream.
    template <class value_type>
    log_stream_t& operator<<(value_type&& value) {
        static_cast<text_stream_t&>(*this) << std::forward<value_type>(value);
        return *this;
    }
};

}  // namespace ssb

#endif

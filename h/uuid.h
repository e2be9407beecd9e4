// 128-bit identifiers, the quick random identifier, the binary text table
// of bytes and the integer log2.
#ifndef SSB_UUID_H
#define SSB_UUID_H

#include <stdint.h>

#include <string>

#include "util_def.h"

namespace ssb {

// A 128-bit identifier held as two unsigned 64-bit halves, first and
// second, each stored as two 32-bit words, low word first. All zero is the
// null identifier. Plain value: copy it freely; one object is not for
// concurrent writers.
class UTIL_API _uuid_t {
public:
    // Characters of the text form, without the NUL.
    static const unsigned int TEXT_LENGTH = 36;

    _uuid_t() { clear(); }
    _uuid_t(const _uuid_t& other) = default;
    _uuid_t& operator=(const _uuid_t& other) = default;
    _uuid_t(uint64_t first, uint64_t second) { set(first, second); }

    void clear();
    bool is_null() const;

    // A fresh identifier from the OS generator: UuidCreate on Windows, a
    // version-4 UUID from the kernel's random source elsewhere, in the byte
    // layout of a Windows GUID. If the generator reports a failure an
    // assertion line is logged and the bytes it gave are kept.
    void generate();

    uint64_t first() const { return static_cast<uint64_t>(m_words[1]) << 32 | m_words[0]; }
    uint64_t second() const { return static_cast<uint64_t>(m_words[3]) << 32 | m_words[2]; }
    void set(uint64_t first, uint64_t second);

    // -1, 0 or 1: the first halves as unsigned numbers, then the second.
    int _compare(const _uuid_t& other) const;
    bool operator==(const _uuid_t& other) const { return _compare(other) == 0; }
    bool operator!=(const _uuid_t& other) const { return _compare(other) != 0; }
    bool operator<(const _uuid_t& other) const { return _compare(other) < 0; }
    bool operator>(const _uuid_t& other) const { return _compare(other) > 0; }

    // The two halves as 32 lower-case hexadecimal digits, first half first,
    // with "-" at 8, 13, 18 and 23: 8-4-4-4-12, 36 characters.
    std::string to_string() const;
    // The same text into `out`, NUL-terminated; no allocation.
    void to_chars(char out[TEXT_LENGTH + 1]) const;

    // Clears, then reads the 8-4-4-4-12 form; either letter case. Null or
    // shorter than 36 characters: -1, the identifier stays null. Otherwise
    // 0: the characters at 8, 13 and 23 are dropped, the first half is read
    // as hexadecimal up to the first non-digit and the second half from
    // after position 18, each like strtoull in base 16 (leading blanks, a
    // sign and a 0x are taken; no digit reads 0; too many digits read all
    // ones). The dash at 18 is what ends the first half; text after the
    // 36th character is not read. A malformed text is therefore not
    // refused: it reads what strtoull would make of it.
    int from_string(const char* text);

    // Bytes of the persisted form.
    unsigned int get_persist_size() const { return 16; }

private:
    uint32_t m_words[4];
};

// The 8-character binary text of a byte, most significant bit first, e.g.
// dict[5] is "00000101". The table behind it is built once, on first use;
// any thread may use any dictionary.
class UTIL_API bin_dict_t {
public:
    bin_dict_t();
    // `byte` above 255 gives the text of its low 8 bits. The text is
    // NUL-terminated and lives as long as the process.
    const char* operator[](unsigned int byte) const;
};

// floor(log2(n)): the right shifts that bring n down to 1; 0 for 0 and 1.
UTIL_API unsigned int log2x(unsigned int n);

}  // namespace ssb

// Four 32-bit words of cheap, non-secret randomness, each
// (rand() << 16) | rand() after seeding the C generator with the time and
// one rand() value; returns the last word. Identifiers made in the same
// second by two processes may repeat: use _uuid_t::generate for uniqueness.
// Null `out` returns 0 with an assertion line.
SSB_C_API int generate_uuid_with_rand(unsigned int out[4]);

#endif

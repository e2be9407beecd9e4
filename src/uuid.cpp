#include "uuid.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <atomic>

#include "lock.h"
#include "platform/platform.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = ".\\uuid";

const char HEX_DIGITS[] = "0123456789abcdef";

int hex_value(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

bool is_c_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// strtoull(s, NULL, 16) of the C locale, written out so every platform's
// C library reads the text the same way.
uint64_t read_hex(const char* s) {
    while (is_c_space(*s))
        ++s;
    bool negative = false;
    if (*s == '+' || *s == '-')
        negative = *s++ == '-';
    // A "0x" counts only when a digit follows; otherwise the "0" alone is read.
    if (s[0] == '0' && (s[1] == 'x' || s[1] == 'X') && hex_value(s[2]) >= 0)
        s += 2;
    uint64_t value = 0;
    bool overflow = false;
    for (int d; (d = hex_value(*s)) >= 0; ++s) {
        if (value >> 60)
            overflow = true;
        value = value << 4 | static_cast<unsigned>(d);
    }
    if (overflow)
        return ~0ULL;
    return negative ? 0 - value : value;
}

}  // namespace

void _uuid_t::clear() { memset(m_words, 0, sizeof m_words); }

bool _uuid_t::is_null() const { return (m_words[0] | m_words[1] | m_words[2] | m_words[3]) == 0; }

void _uuid_t::set(uint64_t first_half, uint64_t second_half) {
    m_words[0] = static_cast<uint32_t>(first_half);
    m_words[1] = static_cast<uint32_t>(first_half >> 32);
    m_words[2] = static_cast<uint32_t>(second_half);
    m_words[3] = static_cast<uint32_t>(second_half >> 32);
}

void _uuid_t::generate() {
    unsigned char bytes[16];
    if (plat::uuid_create(bytes) != 0)
        UTIL_ASSERT_LINE(SOURCE_PATH, __LINE__, ", this = " << log_ptr(this));
    // The generator's bytes as they lie in memory, as on Windows.
    for (int i = 0; i < 4; ++i)
        m_words[i] = static_cast<uint32_t>(bytes[4 * i]) | static_cast<uint32_t>(bytes[4 * i + 1]) << 8 |
                     static_cast<uint32_t>(bytes[4 * i + 2]) << 16 | static_cast<uint32_t>(bytes[4 * i + 3]) << 24;
}

int _uuid_t::_compare(const _uuid_t& other) const {
    if (first() != other.first())
        return first() < other.first() ? -1 : 1;
    if (second() != other.second())
        return second() < other.second() ? -1 : 1;
    return 0;
}

void _uuid_t::to_chars(char out[TEXT_LENGTH + 1]) const {
    const uint64_t halves[2] = {first(), second()};
    char* p = out;
    for (int digit = 0; digit < 32; ++digit) {
        if (digit == 8 || digit == 12 || digit == 16 || digit == 20)
            *p++ = '-';
        const uint64_t half = halves[digit / 16];
        *p++ = HEX_DIGITS[(half >> (60 - 4 * (digit % 16))) & 15u];
    }
    *p = 0;
}

std::string _uuid_t::to_string() const {
    char text[TEXT_LENGTH + 1];
    to_chars(text);
    return std::string(text, TEXT_LENGTH);
}

int _uuid_t::from_string(const char* text) {
    clear();
    if (!text || strnlen(text, TEXT_LENGTH) < TEXT_LENGTH)
        return -1;
    // The 36-character form without the dashes at 8, 13 and 23; the one at
    // 18 stays as the separator of the halves (now at 16).
    char packed[TEXT_LENGTH - 3 + 1];
    char* p = packed;
    for (unsigned int i = 0; i < TEXT_LENGTH; ++i)
        if (i != 8 && i != 13 && i != 23)
            *p++ = text[i];
    *p = 0;
    set(read_hex(packed), read_hex(packed + 17));
    return 0;
}

// ---- bin_dict_t -----------------------------------------------------------

namespace {

struct bin_node_t {
    char m_text[9];
};

bin_node_t s_bin_nodes[256];
std::atomic<bool> s_bin_ready(false);

thread_mutex_recursive& bin_build_lock() {
    static thread_mutex_recursive lock;
    return lock;
}

// Taken around every bit while the table is built, as the table has always
// done; it costs 2048 enter/leave pairs once per process.
thread_mutex_recursive& bin_bit_lock() {
    static thread_mutex_recursive lock;
    return lock;
}

void build_bin_nodes() {
    // Acquire pairs with the release below: a reader that sees ready sees
    // the whole table.
    if (s_bin_ready.load(std::memory_order_acquire))
        return;
    auto_lock_t<thread_mutex_recursive> guard(bin_build_lock());
    if (s_bin_ready.load(std::memory_order_relaxed))
        return;
    for (unsigned int byte = 0; byte < 256; ++byte) {
        for (unsigned int bit = 0; bit < 8; ++bit) {
            auto_lock_t<thread_mutex_recursive> bit_guard(bin_bit_lock());
            s_bin_nodes[byte].m_text[bit] = static_cast<char>('0' + ((byte >> (7 - bit)) & 1u));
        }
        s_bin_nodes[byte].m_text[8] = 0;
    }
    s_bin_ready.store(true, std::memory_order_release);
}

}  // namespace

bin_dict_t::bin_dict_t() { build_bin_nodes(); }

const char* bin_dict_t::operator[](unsigned int byte) const {
    build_bin_nodes();
    return s_bin_nodes[byte & 0xFFu].m_text;
}

unsigned int log2x(unsigned int n) {
    unsigned int shifts = 0;
    while (n > 1) {
        n >>= 1;
        ++shifts;
    }
    return shifts;
}

}  // namespace ssb

int generate_uuid_with_rand(unsigned int out[4]) {
    if (!out) {
        UTIL_ASSERT_LINE(ssb::SOURCE_PATH, __LINE__, "");
        return 0;
    }
    // Cheap identifiers by design: the C generator, reseeded per call.
    srand(static_cast<unsigned int>(time(nullptr)) + static_cast<unsigned int>(rand()));
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<unsigned int>(rand()) << 16 | static_cast<unsigned int>(rand());
    return static_cast<int>(out[3]);
}

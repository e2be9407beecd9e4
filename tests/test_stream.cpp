// Number text, text streams and log headers.
#include <limits.h>
#include <math.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "date.h"
#include "lock.h"
#include "stream.h"
#include "test_support.h"
#include "timer.h"

using ssb::log_stream_t;
using ssb::text_stream_t;

namespace {

const signed char* sc(const char* text) { return reinterpret_cast<const signed char*>(text); }

std::string text_of(const text_stream_t& s) {
    const signed char* buffer = s;
    return std::string(reinterpret_cast<const char*>(buffer), s.length());
}

// A stream with exactly `room` free characters, over a buffer followed by
// guard bytes that must survive every write.
class sized_stream_t {
public:
    explicit sized_stream_t(unsigned int room)
        : m_room(room), m_storage(room + 1 + GUARD, 'G'), m_stream(m_storage.data(), room + 1) {}

    text_stream_t& s() { return m_stream; }
    std::string text() const { return text_of(m_stream); }
    // NUL after the text, NUL in the reserved byte, guards untouched.
    bool intact() const {
        if (m_storage[m_stream.length()] != 0 || m_storage[m_room] != 0)
            return false;
        for (unsigned int i = m_room + 1; i < m_storage.size(); ++i)
            if (m_storage[i] != 'G')
                return false;
        return true;
    }

private:
    static const unsigned int GUARD = 16;
    unsigned int m_room;
    std::vector<signed char> m_storage;
    text_stream_t m_stream;
};

// ---- number-to-text routines ------------------------------------------------

typedef void (*dec_fn)(long long, signed char*, unsigned int*);
void u8_dec(long long v, signed char* o, unsigned int* l) { ssb::ui8toa_dec(static_cast<unsigned char>(v), o, l); }
void i8_dec(long long v, signed char* o, unsigned int* l) { ssb::i8toa_dec(static_cast<signed char>(v), o, l); }
void u32_dec(long long v, signed char* o, unsigned int* l) { ssb::ui32toa_dec(static_cast<unsigned int>(v), o, l); }
void i32_dec(long long v, signed char* o, unsigned int* l) { ssb::i32toa_dec(static_cast<int>(v), o, l); }
void i64_dec(long long v, signed char* o, unsigned int* l) { ssb::i64toa_dec(v, o, l); }

TEST(AuxiIntegers, SmallTableAndDivisionMeetAtEveryBoundary) {
    const struct {
        dec_fn fn;
        long long value;
        const char* text;
    } cases[] = {
        {u8_dec, 0, "0"}, {u8_dec, 9, "9"}, {u8_dec, 10, "10"}, {u8_dec, 99, "99"}, {u8_dec, 100, "100"},
        {u8_dec, 255, "255"}, {i8_dec, -128, "-128"}, {i8_dec, -127, "-127"}, {i8_dec, -1, "-1"},
        {i8_dec, 0, "0"}, {i8_dec, 127, "127"}, {u32_dec, 254, "254"}, {u32_dec, 255, "255"},
        {u32_dec, 256, "256"}, {u32_dec, 99999, "99999"}, {u32_dec, 100000, "100000"},
        {i32_dec, INT_MIN, "-2147483648"}, {i32_dec, -256, "-256"}, {i32_dec, -255, "-255"},
        {i32_dec, -128, "-128"}, {i32_dec, -127, "-127"}, {i32_dec, 126, "126"}, {i32_dec, 127, "127"},
        {i32_dec, INT_MAX, "2147483647"}, {i64_dec, LLONG_MIN, "-9223372036854775808"},
        {i64_dec, -4294967296LL, "-4294967296"}, {i64_dec, -4294967295LL, "-4294967295"},
        {i64_dec, 4294967296LL, "4294967296"}, {i64_dec, LLONG_MAX, "9223372036854775807"},
    };
    for (const auto& c : cases) {
        signed char out[32];
        memset(out, 'x', sizeof out);
        unsigned int len = 99;
        c.fn(c.value, out, &len);
        EXPECT_STREQ(c.text, reinterpret_cast<const char*>(out)) << c.value;
        EXPECT_EQ(strlen(c.text) + 1, len) << c.value;
    }
}

TEST(AuxiIntegers, EveryDigitCountMatchesPrintf) {
    // 10^k - 1, 10^k and 10^k + 1 for every k, and the type limits.
    std::vector<unsigned long long> values = {ULLONG_MAX, ULLONG_MAX - 1, 0xFFFFFFFFULL,
                                              0x100000000ULL};
    for (unsigned long long p = 1; p <= 10000000000000000000ULL / 10; p *= 10) {
        values.push_back(p * 10 - 1);
        values.push_back(p * 10);
        values.push_back(p * 10 + 1);
    }
    for (unsigned long long v : values) {
        char expected[32];
        signed char out[32];
        unsigned int len = 0;
        snprintf(expected, sizeof expected, "%llu", v);
        ssb::ui64toa_dec(v, out, &len);
        EXPECT_STREQ(expected, reinterpret_cast<const char*>(out));
        EXPECT_EQ(strlen(expected) + 1, len);
        if (v <= 0xFFFFFFFFULL) {
            ssb::ui32toa_dec(static_cast<unsigned int>(v), out, &len);
            EXPECT_STREQ(expected, reinterpret_cast<const char*>(out));
        }
        if (v <= static_cast<unsigned long long>(LLONG_MAX)) {
            snprintf(expected, sizeof expected, "%lld", -static_cast<long long>(v));
            ssb::i64toa_dec(-static_cast<long long>(v), out, &len);
            EXPECT_STREQ(expected, reinterpret_cast<const char*>(out));
            EXPECT_EQ(strlen(expected) + 1, len);
        }
    }
}

TEST(AuxiIntegers, NullOutputStoresZeroLength) {
    unsigned int len = 7;
    ssb::ui32toa_dec(5, nullptr, &len);
    EXPECT_EQ(0u, len);
    len = 7;
    ssb::lftoa(1.0, nullptr, 2, &len);
    EXPECT_EQ(0u, len);
    signed char out[32];
    ssb::i64toa_dec(-3, out, nullptr);
    EXPECT_STREQ("-3", reinterpret_cast<const char*>(out));
}

struct real_case_t {
    double value;
    unsigned int decimals;
    const char* text;
};

// Every row rounds, carries, or sits at a range end; the empty text with
// length 1 is the refusal.
void expect_real(const real_case_t& c, bool as_float) {
    signed char out[32] = {'x', 'x'};
    unsigned int len = 0;
    if (as_float)
        ssb::ftoa(static_cast<float>(c.value), out, c.decimals, &len);
    else
        ssb::lftoa(c.value, out, c.decimals, &len);
    EXPECT_STREQ(c.text, reinterpret_cast<const char*>(out)) << c.value << (as_float ? "f" : "");
    EXPECT_EQ(strlen(c.text) + 1, len) << c.value;
}

TEST(AuxiReals, RoundHalfUpOnTheMagnitudeCarryAndRefuseOutOfRange) {
    ssb::init_auxi();
    const real_case_t floats[] = {
        {2.005, 2, "2.01"},  // 2.005f is 2.00500011...
        {2.675, 2, "2.67"},  // 2.675f is 2.67499995...
        {0.999995, 2, "1.00"}, {-0.999995, 2, "-1.00"}, {9.995, 1, "10.0"}, {255.996, 2, "256.00"},
        {-2.25, 1, "-2.3"}, {0.05, 2, "0.05"}, {-0.001, 2, "-0.00"}, {1.5, 0, "2."}, {0.5, 3, "0.500"},
        {3.0, 12, "3.000000000"}, {123.456, 9, "123.456001282"}, {-2147483648.0, 2, "-2147483648.00"},
        {2147483520.0, 2, "2147483520.00"},  // the largest float below 2^31
        {2147483648.0, 2, ""}, {-2147483904.0, 2, ""}, {1e10, 2, ""}, {INFINITY, 2, ""},
        {-INFINITY, 2, ""}, {NAN, 2, ""},
    };
    for (const real_case_t& c : floats)
        expect_real(c, true);
    const real_case_t doubles[] = {
        {0.999995, 4, "1.0000"}, {0.99994, 4, "0.9999"}, {0.00005, 4, "0.0001"}, {-0.5, 4, "-0.5000"},
        {255.9999, 2, "256.00"}, {4294967295.99999, 4, "4294967296.0000"}, {4294967296.5, 1, "4294967296.5"},
        {1e-300, 9, "0.000000000"}, {0.123456789, 9, "0.123456789"},
        {-9223372036854775808.0, 2, "-9223372036854775808.00"},
        {9223372036854774784.0, 1, "9223372036854774784.0"},  // below 2^63
        {9223372036854775808.0, 4, ""}, {-9223372036854777856.0, 4, ""}, {1e300, 4, ""}, {NAN, 4, ""},
    };
    for (const real_case_t& c : doubles)
        expect_real(c, false);
}

// ---- text_stream_t: width checks --------------------------------------------

struct width_case_t {
    const char* name;
    ssb::ORDIX_ENUM radix;
    std::function<void(text_stream_t&)> write;
    std::string text;
    unsigned int room;  // the least room that takes the value
};

// One table row: the value is streamed as written in `expr`.
#define WIDTH_CASE(name, radix, expr, text, room) \
    width_case_t { name, radix, [](text_stream_t& s) { s << (expr); }, text, room }

std::vector<width_case_t> width_cases() {
    using namespace ssb;
    typedef unsigned char u8;
    typedef signed char i8;
    typedef unsigned short u16;
    const bool long32 = sizeof(long) == 4;
    std::vector<width_case_t> cases = {
        WIDTH_CASE("u8 dec", ORDIX_DEC, u8(255), "255", 4),
        WIDTH_CASE("i8 dec", ORDIX_DEC, i8(-128), "-128", 4),
        WIDTH_CASE("char is a number", ORDIX_DEC, 'A', "65", 4),
        WIDTH_CASE("u8 bin", ORDIX_BIN, u8(5), "00000101", 9),
        WIDTH_CASE("u8 hex", ORDIX_HEX, u8(0xAB), "AB", 3),
        WIDTH_CASE("u8 hex lower", ORDIX_HEX_LOWER, u8(0xAB), "ab", 3),
        WIDTH_CASE("i8 hex", ORDIX_HEX, i8(-1), "FF", 3),
        WIDTH_CASE("u8 oct 0", ORDIX_OCT, u8(0), "0", 2),
        WIDTH_CASE("u8 oct 7", ORDIX_OCT, u8(7), "7", 2),
        WIDTH_CASE("u8 oct 8", ORDIX_OCT, u8(8), "10", 3),
        WIDTH_CASE("i8 oct", ORDIX_OCT, i8(-128), "200", 4),
        WIDTH_CASE("i16 dec", ORDIX_DEC, short(-32768), "-32768", 7),
        WIDTH_CASE("u16 dec", ORDIX_DEC, u16(65535), "65535", 7),
        WIDTH_CASE("u16 dec small", ORDIX_DEC, u16(7), "7", 7),
        WIDTH_CASE("i16 hex", ORDIX_HEX, short(-1), "FFFF", 5),
        WIDTH_CASE("u16 bin", ORDIX_BIN, u16(1), "0000000000000001", 17),
        WIDTH_CASE("i32 dec min", ORDIX_DEC, INT_MIN, "-2147483648", 12),
        WIDTH_CASE("i32 dec small", ORDIX_DEC, -3, "-3", 12),
        WIDTH_CASE("u32 dec max", ORDIX_DEC, 4294967295u, "4294967295", 12),
        WIDTH_CASE("u32 hex", ORDIX_HEX, 255u, "000000FF", 9),
        WIDTH_CASE("u32 hex lower", ORDIX_HEX_LOWER, 255u, "000000ff", 9),
        WIDTH_CASE("i32 bin", ORDIX_BIN, -1, std::string(32, '1'), 33),
        WIDTH_CASE("i32 oct", ORDIX_OCT, -1, "37777777777", 12),
        WIDTH_CASE("u32 oct", ORDIX_OCT, 8u, "10", 3),
        WIDTH_CASE("i64 dec min", ORDIX_DEC, LLONG_MIN, "-9223372036854775808", 21),
        WIDTH_CASE("u64 dec max", ORDIX_DEC, ULLONG_MAX, "18446744073709551615", 21),
        WIDTH_CASE("i64 hex", ORDIX_HEX, -2LL, "FFFFFFFFFFFFFFFE", 17),
        WIDTH_CASE("u64 bin", ORDIX_BIN, 1ULL << 63, "1" + std::string(63, '0'), 65),
        WIDTH_CASE("u64 oct", ORDIX_OCT, ULLONG_MAX, "1777777777777777777777", 23),
        WIDTH_CASE("long", ORDIX_DEC, -5L, "-5", long32 ? 12u : 21u),
        WIDTH_CASE("unsigned long", ORDIX_HEX, 1UL, std::string(long32 ? 7 : 15, '0') + "1",
                   long32 ? 9u : 17u),
        WIDTH_CASE("bool true", ORDIX_DEC, true, "true", 4),
        WIDTH_CASE("bool false in hex", ORDIX_HEX, false, "false", 5),
        WIDTH_CASE("pointer", ORDIX_HEX, reinterpret_cast<void*>(0xff), "0x000000ff", 11),
        WIDTH_CASE("float", ORDIX_DEC, 1.5f, "1.50", 4),
        WIDTH_CASE("negative float", ORDIX_DEC, -12.345f, "-12.35", 6),
        WIDTH_CASE("float carry", ORDIX_DEC, 9.999f, "10.00", 5),
        WIDTH_CASE("double", ORDIX_DEC, 3.14159, "3.1416", 6),
        WIDTH_CASE("negative double", ORDIX_DEC, -0.5, "-0.5000", 7),
        WIDTH_CASE("float fallback", ORDIX_DEC, 1e10f, "10000000000.00", 14),
        WIDTH_CASE("negative float fallback", ORDIX_DEC, -1e10f, "-10000000000.00", 15),
        WIDTH_CASE("double fallback", ORDIX_DEC, 1e19, "10000000000000000000.00", 23),
        WIDTH_CASE("std::string", ORDIX_DEC, std::string("hello"), "hello", 5),
        WIDTH_CASE("atomic int", ORDIX_DEC, atomic_t<int>(-7), "-7", 12),
        WIDTH_CASE("atomic unsigned", ORDIX_HEX, atomic_t<unsigned int>(255), "000000FF", 9),
        WIDTH_CASE("atomic long long", ORDIX_DEC, atomic_t<long long>(LLONG_MIN),
                   "-9223372036854775808", 21),
        WIDTH_CASE("atomic unsigned long long", ORDIX_DEC, atomic_t<unsigned long long>(ULLONG_MAX),
                   "18446744073709551615", 21),
    };
    if (sizeof(void*) == 8)
        cases.push_back(WIDTH_CASE("wide pointer", ORDIX_DEC,
                                   reinterpret_cast<void*>(static_cast<uintptr_t>(0x123456789ULL)),
                                   "0x0000000123456789", 19));
    return cases;
}

TEST(TextStreamWidths, ExactRoomWritesAndOneShortWritesNothing) {
    for (const width_case_t& c : width_cases()) {
        SCOPED_TRACE(c.name);
        sized_stream_t exact(c.room);
        c.write(exact.s() << c.radix);
        EXPECT_EQ(c.text, exact.text());
        EXPECT_TRUE(exact.s().good());
        EXPECT_TRUE(exact.intact());

        sized_stream_t roomy(c.room + 40);
        c.write(roomy.s() << c.radix);
        EXPECT_EQ(c.text, roomy.text());

        // One short: the text stays as it was and good turns false.
        sized_stream_t short_one(c.room);
        short_one.s() << sc("x");
        c.write(short_one.s() << c.radix);
        EXPECT_EQ("x", short_one.text());
        EXPECT_FALSE(short_one.s().good());
        EXPECT_TRUE(short_one.intact());
    }
}

TEST(TextStreamWidths, ThroughTheLogStreamTheSameOverloadsAreChosen) {
    for (const width_case_t& c : width_cases()) {
        SCOPED_TRACE(c.name);
        signed char buffer[256];
        log_stream_t ls(buffer, sizeof buffer, nullptr, nullptr);
        const unsigned int header = ls.length();
        // Route each value through the log stream's own operator<<.
        sized_stream_t plain(c.room + 40);
        c.write(plain.s() << c.radix);
        ls << c.radix;
        text_stream_t& as_base = ls;
        c.write(as_base);
        EXPECT_EQ(plain.text(), text_of(ls).substr(header));
    }
    signed char buffer[256];
    log_stream_t ls(buffer, sizeof buffer, nullptr, nullptr);
    const unsigned int header = ls.length();
    static_assert(std::is_same<decltype(ls << 1), log_stream_t&>::value, "chains as log_stream_t");
    ls << static_cast<signed char>(-1) << ' ' << static_cast<unsigned short>(7) << ssb::ORDIX_HEX
       << 255u << ssb::ORDIX_DEC << "|" << std::string("s") << -1.5f << 2.25 << true << 'B';
    EXPECT_EQ("-1327000000FF|s-1.502.2500true66", text_of(ls).substr(header));
}

TEST(TextStreamWidths, AFailedValueDoesNotStopShorterOnes) {
    sized_stream_t s(5);
    s.s() << 123456;
    EXPECT_FALSE(s.s().good());
    EXPECT_EQ("", s.text());
    s.s() << static_cast<unsigned char>(7);
    EXPECT_TRUE(s.s().good());
    EXPECT_EQ("7", s.text());
    s.s() << 1e10f;  // the fallback does not fit either
    EXPECT_FALSE(s.s().good());
    EXPECT_EQ("7", s.text());
    s.s() << sc("ab");
    EXPECT_TRUE(s.s().good());
    EXPECT_EQ("7ab", s.text());
    EXPECT_TRUE(s.intact());
}

// ---- text_stream_t: buffers, text and radix ---------------------------------

TEST(TextStreamBuffer, SizeOneHoldsOnlyTheEmptyTextAndNoBufferNothing) {
    signed char one[1] = {'z'};
    text_stream_t s(one, 1);
    EXPECT_EQ(0, one[0]);
    s << sc("abc") << std::string("abc") << 1.5 << 1e10f << true << reinterpret_cast<void*>(1);
    EXPECT_EQ(0u, s.length());
    EXPECT_EQ(0, one[0]);
    s << sc("");
    EXPECT_TRUE(s.good());
    s << static_cast<unsigned char>(0);
    EXPECT_FALSE(s.good());

    text_stream_t none(nullptr, 10);
    signed char byte = 'z';
    text_stream_t empty(&byte, 0);
    for (text_stream_t* t : {&none, &empty}) {
        *t << sc("abc") << 1 << 1e10 << std::string("x");
        EXPECT_FALSE(t->good());
        EXPECT_EQ(0u, t->length());
        t->reset();
    }
    EXPECT_EQ('z', byte);
}

TEST(TextStreamBuffer, ResetTerminatesBothEndsAndRestoresRadixAndGood) {
    signed char buffer[16];
    memset(buffer, 'q', sizeof buffer);
    text_stream_t s(buffer, sizeof buffer);
    EXPECT_EQ(0, buffer[0]);
    EXPECT_EQ(0, buffer[15]);
    s << sc("abcdefghij") << ssb::ORDIX_HEX << 1LL;  // does not fit: good false
    EXPECT_FALSE(s.good());
    EXPECT_EQ("abcdefghij", text_of(s));
    s.reset();
    EXPECT_TRUE(s.good());
    EXPECT_EQ(0u, s.length());
    EXPECT_EQ(0, buffer[0]);
    s << 10;
    EXPECT_EQ("10", text_of(s));
    const signed char* raw = s;
    EXPECT_EQ(buffer, raw);
}

TEST(TextStreamText, CountedIsAllOrNothingWhileTerminatedIsCut) {
    const signed char* ten = sc("0123456789");
    sized_stream_t counted(9);
    counted.s().append(ten, 10);
    EXPECT_EQ("", counted.text());
    EXPECT_FALSE(counted.s().good());
    counted.s().append(ten, 9);  // exactly fills the room
    EXPECT_EQ("012345678", counted.text());
    EXPECT_TRUE(counted.s().good());
    EXPECT_TRUE(counted.intact());

    sized_stream_t terminated(9);
    terminated.s().append(ten);
    EXPECT_EQ("012345678", terminated.text());
    EXPECT_FALSE(terminated.s().good());
    EXPECT_TRUE(terminated.intact());

    sized_stream_t fits(10);
    fits.s() << "0123456789";
    EXPECT_EQ("0123456789", fits.text());
    EXPECT_TRUE(fits.s().good());

    sized_stream_t nothing(4);
    nothing.s().append(nullptr).append(nullptr, 3).append(ten, 0);
    nothing.s() << static_cast<const char*>(nullptr);
    EXPECT_EQ("", nothing.text());
    EXPECT_TRUE(nothing.s().good());

    // A counted text keeps its embedded NULs.
    sized_stream_t embedded(8);
    embedded.s() << std::string("a\0b", 3) << static_cast<const unsigned char*>(
                                                  reinterpret_cast<const unsigned char*>("c"));
    EXPECT_EQ(std::string("a\0bc", 4), embedded.text());
}

TEST(TextStreamText, HexRadixWritesDigitPairsNulIncludedOnlyWhenTerminated) {
    sized_stream_t terminated(20);
    terminated.s() << ssb::ORDIX_HEX << "AB";
    EXPECT_EQ("414200", terminated.text());

    sized_stream_t counted(20);
    counted.s() << ssb::ORDIX_HEX;
    counted.s().append(sc("AB"), 2);
    EXPECT_EQ("4142", counted.text());

    sized_stream_t lower(20);
    lower.s() << ssb::ORDIX_HEX_LOWER << "\xAB\x0f";
    EXPECT_EQ("ab0f00", lower.text());

    // Each pair needs room 3: the NUL's pair is the one that does not fit.
    sized_stream_t cut(6);
    cut.s() << ssb::ORDIX_HEX << "AB";
    EXPECT_EQ("4142", cut.text());
    EXPECT_FALSE(cut.s().good());
    EXPECT_TRUE(cut.intact());

    // Counted text is byte by byte too, so it can stop after a pair.
    sized_stream_t counted_cut(4);
    counted_cut.s() << ssb::ORDIX_HEX << std::string("AB");
    EXPECT_EQ("41", counted_cut.text());
    EXPECT_FALSE(counted_cut.s().good());

    sized_stream_t binary(20);
    binary.s() << ssb::ORDIX_BIN << "AB";  // only 16 and 256 turn text into digits
    EXPECT_EQ("AB", binary.text());
}

TEST(TextStreamRadix, SwitchesForWhatFollowsButPointerAndAddressKeepTheirOwn) {
    sized_stream_t s(120);
    s.s() << ssb::ORDIX_HEX << 255u << ssb::ORDIX_HEX_LOWER << 255u << ssb::ORDIX_OCT << 8 << ","
          << ssb::ORDIX_BIN << static_cast<unsigned char>(2) << "," << ssb::ORDIX_DEC << 255u << ","
          << ssb::ORDIX_HEX << reinterpret_cast<void*>(0xAB) << 171u;
    EXPECT_EQ("000000FF000000ff10,00000010,255,0x000000ab000000AB", s.text());

    alignas(4) unsigned char loopback[16] = {};
    loopback[15] = 1;
    sized_stream_t a(120);
    a.s() << ssb::ORDIX_HEX_LOWER << reinterpret_cast<const in6_addr&>(loopback) << 171u;
    EXPECT_EQ("0000:0000:0000:0000:0000:0000:0000:0001000000ab", a.text());

    // An unknown radix writes no integers, but text and reals still go out.
    sized_stream_t u(40);
    u.s() << static_cast<ssb::ORDIX_ENUM>(3) << 5 << 7ULL << sc("t") << 1.5;
    EXPECT_EQ("t1.5000", u.text());
}

// ---- dates and addresses ----------------------------------------------------

template <class date_type>
void set_date(date_type& d, unsigned short year, unsigned short month, unsigned short day,
              unsigned short hour, unsigned short minute, unsigned short second,
              unsigned short millisecond) {
    d.m_year = year;
    d.m_month = month;
    d.m_day = day;
    d.m_hour = hour;
    d.m_minute = minute;
    d.m_second = second;
    d.m_millisecond = millisecond;
    d.m_day_of_week = 6;
}

TEST(TextStreamDate, MonthDayYearThenTimeUnpaddedInTheCurrentRadixAllOrNothing) {
    ssb::local_date_t local = ssb::local_date_t::from_epoch_ms(0);
    set_date(local, 2024, 3, 7, 9, 5, 2, 17);
    ssb::gmt_date_t gmt(nullptr);
    set_date(gmt, 1999, 12, 31, 23, 59, 59, 999);

    sized_stream_t s(100);
    s.s() << &local << "|" << &gmt << "|" << static_cast<const ssb::local_date_t*>(nullptr) << "|";
    EXPECT_EQ("3/7/2024 9:5:2:17|12/31/1999 23:59:59:999||", s.text());

    sized_stream_t hex(100);
    hex.s() << ssb::ORDIX_HEX << &local;
    EXPECT_EQ("0003/0007/07E8 0009:0005:0002:0011", hex.text());

    // "3/7/2024 9:5:2:" is 15 characters; the milliseconds then need room 7.
    sized_stream_t exact(22);
    exact.s() << &local;
    EXPECT_EQ("3/7/2024 9:5:2:17", exact.text());
    EXPECT_TRUE(exact.s().good());
    sized_stream_t short_one(21);
    short_one.s() << &local;
    EXPECT_EQ("", short_one.text());
    EXPECT_FALSE(short_one.s().good());
    EXPECT_TRUE(short_one.intact());
}

TEST(TextStreamAddress, EightNetworkOrderGroupsAllOrNothing) {
    const unsigned char doc[16] = {0x20, 0x01, 0x0d, 0xb8, 0,    0,    0,    0,
                                   0,    0,    0xff, 0x00, 0x00, 0x42, 0x83, 0x29};
    alignas(4) unsigned char bytes[16];
    memcpy(bytes, doc, sizeof bytes);
    const in6_addr& address = reinterpret_cast<const in6_addr&>(bytes);
    const std::string expected = "2001:0DB8:0000:0000:0000:FF00:0042:8329";

    sized_stream_t exact(40);  // the last group is checked with 35 written
    exact.s() << address;
    EXPECT_EQ(expected, exact.text());
    EXPECT_TRUE(exact.intact());

    sized_stream_t short_one(39);
    short_one.s() << address;
    EXPECT_EQ("", short_one.text());
    EXPECT_FALSE(short_one.s().good());
    short_one.s() << 1;  // radix restored to 10
    EXPECT_EQ("1", short_one.text());
}

// ---- float and double out of range -------------------------------------------

TEST(TextStreamReal, FallbacksUsePrintfWithTwoDecimals) {
    const float floats[] = {1e10f, -3e38f, INFINITY, -INFINITY, NAN};
    for (float v : floats) {
        char expected[64];
        snprintf(expected, sizeof expected, "%.2f", static_cast<double>(v));
        sized_stream_t s(60);
        s.s() << v;
        EXPECT_EQ(expected, s.text());
        EXPECT_TRUE(s.intact());
    }
    const double doubles[] = {1e19, -1e19, 1e300, NAN};
    for (double v : doubles) {
        char expected[400];
        snprintf(expected, sizeof expected, "%.2lf", v);
        sized_stream_t s(380);
        s.s() << v;
        EXPECT_EQ(expected, s.text());
    }
}

TEST(TextStreamReal, ThePositiveRangeEndsAreRefusedAndWriteNothing) {
    // +2^31 and +2^63 pass the stream's range test and are then refused by
    // ftoa/lftoa; the symmetric negative ends are in range.
    sized_stream_t s(80);
    s.s() << "[" << 2147483648.0f << "|" << 9223372036854775808.0 << "|" << -2147483648.0f << "|"
          << -9223372036854775808.0 << "]";
    EXPECT_EQ("[||-2147483648.00|-9223372036854775808.0000]", s.text());
}

// ---- log_stream_t -------------------------------------------------------------

const char* const DATE_PATTERN =
    "(\\d{1,2})/(\\d{1,2})/(\\d{4}) (\\d{1,2}):(\\d{1,2}):(\\d{1,2}):(\\d{1,3})";

// A whole line: the date, then `rest` (a regular expression).
bool matches_line(const std::string& line, const std::string& rest) {
    return std::regex_match(line, std::regex(std::string("^") + DATE_PATTERN + rest + "$"));
}

std::string ids_text() {
    return "[" + std::to_string(static_cast<unsigned int>(getpid())) + ":" +
           std::to_string(ssb::get_cur_tid()) + "]";
}

std::string escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (strchr("[]\\^$.|?*+(){}", c))
            out += '\\';
        out += c;
    }
    return out;
}

// The date column of a header made between two clock readings is the date
// of one of the milliseconds between them.
bool date_between(const std::string& date, uint64_t from_ms, uint64_t to_ms) {
    for (uint64_t t = from_ms; t <= to_ms; ++t) {
        ssb::local_date_t d = ssb::local_date_t::from_epoch_ms(t);
        signed char buffer[64];
        text_stream_t s(buffer, sizeof buffer);
        s << &d;
        if (text_of(s) == date)
            return true;
    }
    return false;
}

TEST(LogStream, HeaderColumnsWithAndWithoutModuleAndLevel) {
    struct header_case_t {
        const char* level;
        const char* module;
        std::string tail;
    };
    const std::string ids = escape(ids_text());
    const header_case_t cases[] = {
        {"INFO", "UTIL", "\\tUTIL\\t" + ids + "\\tINFO\\t"},
        {nullptr, "UTIL", "\\tUTIL\\t" + ids + "\\t"},
        {"FATAL", nullptr, "\\t" + ids + "\\tFATAL\\t"},
        {nullptr, nullptr, "\\t" + ids + "\\t"},
    };
    for (const header_case_t& c : cases) {
        signed char buffer[2049];
        const uint64_t before = ssb::times_drv_t::now();
        log_stream_t ls(buffer, sizeof buffer, c.level ? sc(c.level) : nullptr,
                        c.module ? sc(c.module) : nullptr);
        const uint64_t after = ssb::times_drv_t::now();
        const std::string header = text_of(ls);
        SCOPED_TRACE(header);
        EXPECT_TRUE(matches_line(header, c.tail));
        EXPECT_TRUE(date_between(header.substr(0, header.find('\t')), before, after));
        EXPECT_TRUE(ls.good());
    }
}

TEST(LogStream, FlushStartsAFreshLineInRadixTen) {
    signed char buffer[2049];
    log_stream_t ls(buffer, sizeof buffer, sc("INFO"), sc("UTIL"));
    ls << "first" << ssb::ORDIX_HEX;
    ls.flush(sc("ERROR"), sc("MOD"));
    ls << 255 << "\n";
    const std::string line = text_of(ls);
    EXPECT_TRUE(matches_line(line, "\\tMOD\\t" + escape(ids_text()) + "\\tERROR\\t255\n")) << line;
    EXPECT_EQ(line.size(), strlen(reinterpret_cast<const char*>(buffer)));
}

TEST(LogStream, SmallBuffersStayTerminatedAndKeepTheDateWhole) {
    std::string full;
    {
        signed char buffer[2049];
        log_stream_t ls(buffer, sizeof buffer, sc("INFO"), sc("UTIL"));
        full = text_of(ls);
    }
    for (unsigned int room = 0; room <= full.size() + 24; ++room) {
        SCOPED_TRACE(room);
        std::vector<signed char> storage(room + 1 + 8, 'G');
        log_stream_t ls(storage.data(), room + 1, sc("INFO"), sc("UTIL"));
        const std::string text = text_of(ls);
        EXPECT_LE(text.size(), room);
        EXPECT_EQ(0, storage[text.size()]);
        EXPECT_EQ(std::string(8, 'G'), std::string(storage.end() - 8, storage.end()));
        // The date column is whole or absent.
        if (!text.empty() && isdigit(static_cast<unsigned char>(text[0]))) {
            EXPECT_TRUE(matches_line(text, "\\t.*"));
        }
        // Each id is checked against the widest 32-bit text before it is
        // written, so a whole header needs some room beyond its length.
        if (room >= full.size() + 24) {
            EXPECT_TRUE(matches_line(text, "\\tUTIL\\t" + escape(ids_text()) + "\\tINFO\\t"));
        }
    }
}

TEST(LogStream, EachThreadShowsItsOwnThreadId) {
    const int THREADS = 4;
    const int LINES = 300;
    std::atomic<int> mismatches(0);
    util_test::run_threads(THREADS, [&](int) {
        const std::string ids = "\t" + ids_text() + "\t";
        for (int i = 0; i < LINES; ++i) {
            signed char buffer[2049];
            log_stream_t ls(buffer, sizeof buffer, sc("DEBUG"), sc("UTIL"));
            ls << i << "\n";
            const std::string line = text_of(ls);
            if (line.find(ids) == std::string::npos ||
                line.substr(line.size() - std::to_string(i).size() - 1) != std::to_string(i) + "\n")
                mismatches.fetch_add(1, std::memory_order_relaxed);
        }
    });
    EXPECT_EQ(0, mismatches.load());
}

}  // namespace

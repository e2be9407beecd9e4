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

using ssb::log_stream_t;
using ssb::text_stream_t;

namespace {

const signed char* sc(const char* text) { return reinterpret_cast<const signed char*>(text); }

std::string text_of(const text_stream_t& s) {
    const signed char* buffer = s;
    return std::string(reinterpret_cast<const char*>(buffer), s.length());
}

std::string ids_text() {
    return "[" + std::to_string(static_cast<unsigned int>(getpid())) + ":" + std::to_string(ssb::get_cur_tid()) + "]";
}

// What follows a whole date column, or "?" when the line does not start with one.
std::string after_date(const std::string& line) {
    const size_t tab = line.find('\t');
    const std::regex date("\\d{1,2}/\\d{1,2}/\\d{4} \\d{1,2}:\\d{1,2}:\\d{1,2}:\\d{1,3}");
    return tab != std::string::npos && std::regex_match(line.substr(0, tab), date) ? line.substr(tab) : "?";
}

// A stream with exactly `room` free characters, followed by guard bytes.
struct sized_stream_t {
    explicit sized_stream_t(unsigned int r) : room(r), storage(r + 1 + 16, 'G'), stream(storage.data(), r + 1) {}
    text_stream_t& s() { return stream; }
    std::string text() const { return text_of(stream); }
    // NUL after the text, NUL in the reserved byte, guards untouched.
    bool intact() const {
        return storage[stream.length()] == 0 && storage[room] == 0 &&
               std::string(storage.begin() + room + 1, storage.end()) == std::string(16, 'G');
    }
    unsigned int room;
    std::vector<signed char> storage;
    text_stream_t stream;
};

TEST(AuxiIntegers, EveryDigitCountMatchesPrintf) {
    std::vector<unsigned long long> values = {ULLONG_MAX, 0xFFFFFFFFULL, 0x100000000ULL};
    for (unsigned long long p = 1; p <= 10000000000000000000ULL / 10; p *= 10)
        values.insert(values.end(), {p * 10 - 1, p * 10});
    for (unsigned long long v : values) {
        char expected[32];
        signed char out[32];
        unsigned int len = 0;
        snprintf(expected, sizeof expected, "%llu", v);
        ssb::ui64toa_dec(v, out, &len);
        EXPECT_STREQ(expected, reinterpret_cast<const char*>(out));
        EXPECT_EQ(strlen(expected) + 1, len);
        if (v <= static_cast<unsigned long long>(LLONG_MAX)) {
            snprintf(expected, sizeof expected, "%lld", -static_cast<long long>(v));
            ssb::i64toa_dec(-static_cast<long long>(v), out, &len);
            EXPECT_STREQ(expected, reinterpret_cast<const char*>(out));
        }
    }
    unsigned int len = 7;
    ssb::ui32toa_dec(5, nullptr, &len);
    EXPECT_EQ(0u, len);
}

// 2.675f is 2.67499995...: it rounds down.
TEST(AuxiReals, RoundHalfUpOnTheMagnitudeCarryAndRefuseOutOfRange) {
    ssb::init_auxi();
    const struct {
        bool as_float;
        double value;
        unsigned int decimals;
        const char* text;  // empty: refused
    } cases[] = {{true, 2.005, 2, "2.01"},
                 {true, 2.675, 2, "2.67"},
                 {true, -0.999995, 2, "-1.00"},
                 {true, 9.995, 1, "10.0"},
                 {true, -0.001, 2, "-0.00"},
                 {true, 1.5, 0, "2."},
                 {true, 3.0, 12, "3.000000000"},
                 {true, -2147483648.0, 2, "-2147483648.00"},
                 {true, 2147483648.0, 2, ""},
                 {true, NAN, 2, ""},
                 {true, -INFINITY, 2, ""},
                 {false, 0.00005, 4, "0.0001"},
                 {false, 4294967295.99999, 4, "4294967296.0000"},
                 {false, -9223372036854775808.0, 2, "-9223372036854775808.00"},
                 {false, 9223372036854775808.0, 4, ""},
                 {false, 1e300, 4, ""}};
    for (const auto& c : cases) {
        signed char out[32] = {'x', 'x'};
        unsigned int len = 0;
        if (c.as_float)
            ssb::ftoa(static_cast<float>(c.value), out, c.decimals, &len);
        else
            ssb::lftoa(c.value, out, c.decimals, &len);
        EXPECT_STREQ(c.text, reinterpret_cast<const char*>(out)) << c.value;
        EXPECT_EQ(strlen(c.text) + 1, len) << c.value;
    }
}

struct width_case_t {
    ssb::ORDIX_ENUM radix;
    std::function<void(text_stream_t&)> write;
    std::string text;
    unsigned int room;  // the least room that takes the value
};

#define WIDTH_CASE(radix, expr, text, room)                  \
  width_case_t {                                             \
    radix, [](text_stream_t& s) { s << (expr); }, text, room \
  }

TEST(TextStreamWidths, ExactRoomWritesAndOneShortWritesNothing) {
    using namespace ssb;
    static local_date_t date = local_date_t::from_epoch_ms(0);
    date.m_year = 2024, date.m_month = 3, date.m_day = 7;
    date.m_hour = 9, date.m_minute = 5, date.m_second = 2, date.m_millisecond = 17;
    const width_case_t cases[] = {
        WIDTH_CASE(ORDIX_DEC, static_cast<signed char>(-128), "-128", 4),
        WIDTH_CASE(ORDIX_BIN, static_cast<unsigned char>(5), "00000101", 9),
        WIDTH_CASE(ORDIX_DEC, INT_MIN, "-2147483648", 12),
        WIDTH_CASE(ORDIX_OCT, -1, "37777777777", 12),
        WIDTH_CASE(ORDIX_DEC, LLONG_MIN, "-9223372036854775808", 21),
        WIDTH_CASE(ORDIX_BIN, 1ULL << 63, "1" + std::string(63, '0'), 65),
        WIDTH_CASE(ORDIX_HEX, reinterpret_cast<void*>(0xff), "0x000000ff", 11),
        WIDTH_CASE(ORDIX_DEC, 9.999f, "10.00", 5),
        WIDTH_CASE(ORDIX_DEC, -1e10f, "-10000000000.00", 15),
        WIDTH_CASE(ORDIX_DEC, atomic_t<long long>(LLONG_MIN), "-9223372036854775808", 21),
        // A date takes its widest form's room: all or nothing.
        WIDTH_CASE(ORDIX_DEC, &date, "3/7/2024 9:5:2:17", 22),
    };
    for (const width_case_t& c : cases) {
        SCOPED_TRACE(c.text);
        sized_stream_t exact(c.room);
        c.write(exact.s() << c.radix);
        EXPECT_EQ(c.text, exact.text());
        EXPECT_TRUE(exact.s().good());
        EXPECT_TRUE(exact.intact());
        sized_stream_t short_one(c.room);
        short_one.s() << sc("x");
        c.write(short_one.s() << c.radix);
        EXPECT_EQ("x", short_one.text());
        EXPECT_FALSE(short_one.s().good());
        EXPECT_TRUE(short_one.intact());
    }
}

TEST(TextStreamWidths, AFailedValueDoesNotStopShorterOnesAndLogStreamChainsTheSame) {
    sized_stream_t s(5);
    s.s() << 123456;
    EXPECT_FALSE(s.s().good());
    s.s() << static_cast<unsigned char>(7);
    s.s() << 1e10f << sc("ab");
    EXPECT_EQ("7ab", s.text());
    EXPECT_TRUE(s.intact());

    signed char buffer[256];
    log_stream_t ls(buffer, sizeof buffer, nullptr, nullptr);
    ls << static_cast<signed char>(-1) << ' ' << static_cast<unsigned short>(7) << ssb::ORDIX_HEX << 255u
       << ssb::ORDIX_DEC << "|" << std::string("s") << -1.5f << 2.25 << true << 'B';
    EXPECT_EQ("\t" + ids_text() + "\t-1327000000FF|s-1.502.2500true66", after_date(text_of(ls)));
}

TEST(TextStreamBuffer, TinyOrMissingBuffersWriteNothingAndResetRestores) {
    signed char one[1] = {'z'};
    text_stream_t s(one, 1), none(nullptr, 10);
    for (text_stream_t* t : {&s, &none}) {
        *t << sc("abc") << 1.5 << std::string("x");
        EXPECT_FALSE(t->good());
        EXPECT_EQ(0u, t->length());
    }
    EXPECT_EQ(0, one[0]);

    signed char buffer[16];
    text_stream_t r(buffer, sizeof buffer);
    r << sc("abcdefghij") << ssb::ORDIX_HEX << 1LL;  // does not fit: good false
    r.reset();
    EXPECT_TRUE(r.good());
    r << 10;  // radix back to ten
    EXPECT_EQ("10", text_of(r));
}

TEST(TextStreamText, CountedIsAllOrNothingWhileTerminatedAndHexAreCut) {
    const signed char* ten = sc("0123456789");
    sized_stream_t counted(9), terminated(9), hex(20), hex_cut(6);
    counted.s().append(ten, 10);
    EXPECT_EQ("", counted.text());
    counted.s().append(ten, 9);
    EXPECT_EQ("012345678", counted.text());
    terminated.s().append(ten);
    EXPECT_EQ("012345678", terminated.text());
    // Hex writes digit pairs, NUL included, each needing room 3: the NUL's
    // pair is the one that does not fit.
    hex.s() << ssb::ORDIX_HEX << "AB";
    EXPECT_EQ("414200", hex.text());
    hex_cut.s() << ssb::ORDIX_HEX << "AB";
    EXPECT_EQ("4142", hex_cut.text());
    for (sized_stream_t* cut : {&terminated, &hex_cut}) {
        EXPECT_FALSE(cut->s().good());
        EXPECT_TRUE(cut->intact());
    }
}

TEST(TextStreamRadix, SwitchesForWhatFollowsButPointerAndUnknownRadixDiffer) {
    sized_stream_t s(120);
    s.s() << ssb::ORDIX_HEX << 255u << ssb::ORDIX_OCT << 8 << "," << ssb::ORDIX_DEC << 255u << "," << ssb::ORDIX_HEX
          << reinterpret_cast<void*>(0xAB) << 171u;
    EXPECT_EQ("000000FF10,255,0x000000ab000000AB", s.text());
    // An unknown radix writes no integers, but text and reals still go out;
    // a null date writes nothing.
    sized_stream_t u(40);
    u.s() << static_cast<ssb::ORDIX_ENUM>(3) << 5 << 7ULL << sc("t") << 1.5
          << static_cast<const ssb::local_date_t*>(nullptr);
    EXPECT_EQ("t1.5000", u.text());
}

TEST(LogStream, HeaderColumnsAndFlushStartsAFreshLineInRadixTen) {
    signed char buffer[2049];
    log_stream_t bare(buffer, sizeof buffer, nullptr, nullptr);
    EXPECT_EQ("\t" + ids_text() + "\t", after_date(text_of(bare)));
    log_stream_t ls(buffer, sizeof buffer, sc("INFO"), sc("UTIL"));
    ls << "first" << ssb::ORDIX_HEX;
    ls.flush(sc("ERROR"), sc("MOD"));
    ls << 255 << "\n";
    EXPECT_EQ("\tMOD\t" + ids_text() + "\tERROR\t255\n", after_date(text_of(ls)));
}

TEST(LogStream, SmallBuffersStayTerminatedAndKeepTheDateWhole) {
    signed char big[2049];
    const size_t full = text_of(log_stream_t(big, sizeof big, sc("INFO"), sc("UTIL"))).size();
    for (unsigned int room = 0; room <= full; ++room) {
        SCOPED_TRACE(room);
        std::vector<signed char> storage(room + 1 + 8, 'G');
        log_stream_t ls(storage.data(), room + 1, sc("INFO"), sc("UTIL"));
        const std::string text = text_of(ls);
        EXPECT_LE(text.size(), room);
        EXPECT_EQ(0, storage[text.size()]);
        EXPECT_EQ(std::string(8, 'G'), std::string(storage.end() - 8, storage.end()));
        if (!text.empty() && isdigit(static_cast<unsigned char>(text[0]))) {
            EXPECT_NE("?", after_date(text));  // the date column is whole or absent
        }
    }
}

TEST(LogStream, EachThreadShowsItsOwnThreadId) {
    std::atomic<int> mismatches(0);
    util_test::run_threads(4, [&](int) {
        for (int i = 0; i < 300; ++i) {
            signed char buffer[2049];
            log_stream_t ls(buffer, sizeof buffer, sc("DEBUG"), sc("UTIL"));
            ls << i << "\n";
            const std::string text = text_of(ls),
                              tail = "\tUTIL\t" + ids_text() + "\tDEBUG\t" + std::to_string(i) + "\n";
            if (text.size() < tail.size() || text.compare(text.size() - tail.size(), tail.size(), tail) != 0)
                mismatches.fetch_add(1, std::memory_order_relaxed);
        }
    });
    EXPECT_EQ(0, mismatches.load());
}

}  // namespace

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <set>
#include <string>

#include "stream.h"
#include "test_log_support.h"
#include "test_support.h"
#include "uuid.h"

using ssb::_uuid_t;

namespace {

const char NULL_TEXT[] = "00000000-0000-0000-0000-000000000000";

}  // namespace

TEST(Uuid, NullValueAndTheTextWithTheFirstHalfFirst) {
    _uuid_t id;
    EXPECT_TRUE(id.is_null());
    EXPECT_EQ(NULL_TEXT, id.to_string());
    id.set(1, 0);
    EXPECT_FALSE(id.is_null());
    id.clear();
    EXPECT_TRUE(id.is_null());
    id.set(0x0123456789ABCDEFULL, 0xFEDCBA9876543210ULL);
    char text[_uuid_t::TEXT_LENGTH + 1];
    memset(text, 'z', sizeof text);
    id.to_chars(text);
    EXPECT_STREQ("01234567-89ab-cdef-fedc-ba9876543210", text);
}

TEST(Uuid, CompareTakesTheFirstHalfThenTheSecondAsUnsigned) {
    struct {
        uint64_t a1, a2, b1, b2;
        int want;
    } const rows[] = {
        {2, 0, 1, 0xFFFFFFFFFFFFFFFFULL, 1},
        {0x8000000000000000ULL, 0, 0x7FFFFFFFFFFFFFFFULL, 0, 1},  // unsigned, not signed
        {5, 0x8000000000000000ULL, 5, 1, 1},
        {0x100000000ULL, 0, 0xFFFFFFFFULL, 0, 1},  // the high word decides before the low
        {7, 7, 7, 7, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(::testing::Message() << std::hex << r.a1 << ":" << r.a2 << " vs " << r.b1 << ":" << r.b2);
        const _uuid_t a(r.a1, r.a2), b(r.b1, r.b2);
        EXPECT_EQ(r.want, a._compare(b));
        EXPECT_EQ(-r.want, b._compare(a));
        EXPECT_EQ(r.want == 0, a == b);
        EXPECT_EQ(r.want != 0, a != b);
        EXPECT_EQ(r.want < 0, a < b);
        EXPECT_EQ(r.want > 0, a > b);
    }
}

// The reading rules are checked against strtoull by the uuid fuzz target.
TEST(Uuid, FromStringTable) {
    struct {
        const char* text;
        int rv;
        uint64_t first, second;
    } const rows[] = {
        // Text after the 36th character is not read; the dashes at 8, 13
        // and 23 are dropped whatever they are.
        {"01234567x89abxcdef-FEDCxBA9876543210ABCDEF", 0, 0x0123456789ABCDEFULL, 0xFEDCBA9876543210ULL},
        {"01234567-89ab-cdef-fedc-ba987654321", -1, 0, 0},
        // Without the dash at 18 the first half runs on and overflows.
        {"01234567-89ab-cdef0fedc-ba9876543210", 0, ~0ULL, 0xFEDCBA9876543210ULL},
        {"10000000-0000-000000000-000000000000", 0, ~0ULL, 0},  // overflows at the 17th digit
        {"0123g567-89ab-cdef-fedc-ba98765432z0", 0, 0x0123ULL, 0xFEDCBA98765432ULL},
        // White space, a sign and "0x" as strtoull reads them.
        {" -0x1234-5678-9abcd\t+0x-7fzzzzzzzzzz", 0, 0xFFFEDCBA98765433ULL, 0x7FULL},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.text);
        _uuid_t id(99, 99);
        EXPECT_EQ(r.rv, id.from_string(r.text));
        EXPECT_EQ(r.first, id.first());
        EXPECT_EQ(r.second, id.second());
    }
    _uuid_t id(1, 1);
    EXPECT_EQ(-1, id.from_string(nullptr));
    EXPECT_TRUE(id.is_null());
}

// Ids made on several threads at once are all distinct, version 4 in the
// GUID layout, and read back from their text.
TEST(Uuid, GeneratedIdsAreVersion4DistinctAcrossThreadsAndRoundTrip) {
    const int THREADS = 4, EACH = 250;
    std::vector<std::vector<_uuid_t>> made(THREADS);
    util_test::run_threads(THREADS, [&](int t) {
        for (int i = 0; i < EACH; ++i) {
            _uuid_t id;
            id.generate();
            made[t].push_back(id);
        }
    });
    std::set<std::string> all;
    for (const auto& v : made)
        for (const _uuid_t& id : v) {
            const std::string text = id.to_string();
            // Version 4 tops the third group, which the first half's high
            // word holds; variant 10 tops the fourth group.
            EXPECT_EQ(4u, static_cast<unsigned>(id.first() >> 60)) << text;
            EXPECT_EQ(0x80u, static_cast<unsigned>(id.second() & 0xC0)) << text;
            EXPECT_TRUE(all.insert(text).second) << text;
            _uuid_t back;
            ASSERT_EQ(0, back.from_string(text.c_str()));
            EXPECT_EQ(id, back);
        }
}

TEST(Uuid, StreamWritesTheTextInAnyRadixAllOrNothing) {
    const _uuid_t id(0x0123456789ABCDEFULL, 0xFEDCBA9876543210ULL);
    signed char buf[64];
    ssb::text_stream_t s(buf, sizeof buf);
    s << "id " << ssb::ORDIX_HEX << id;
    EXPECT_STREQ("id 01234567-89ab-cdef-fedc-ba9876543210", reinterpret_cast<char*>(buf));
    EXPECT_TRUE(s.good());
    // 36 characters need 36 free; 35 are not enough.
    signed char small[37];
    ssb::text_stream_t t(small, sizeof small);
    t << "x" << id;
    EXPECT_FALSE(t.good());
    EXPECT_STREQ("x", reinterpret_cast<char*>(small));
    t.reset();
    t << id;
    EXPECT_TRUE(t.good());
    EXPECT_EQ(36u, t.length());
}

// The first users of the table race to build it.
TEST(BinDict, ThreadsBuildingTheTableAllReadEightBitsMostSignificantFirst) {
    std::atomic<int> wrong(0);
    util_test::run_threads(4, [&](int) {
        const ssb::bin_dict_t dict;
        for (unsigned b = 0; b < 256; ++b) {
            const char* text = dict[b];
            for (unsigned bit = 0; bit < 8; ++bit)
                if (text[bit] != static_cast<char>('0' + ((b >> (7 - bit)) & 1u)))
                    wrong.fetch_add(1);
            if (text[8] != 0)
                wrong.fetch_add(1);
        }
    });
    EXPECT_EQ(0, wrong.load());
    EXPECT_STREQ("10100101", ssb::bin_dict_t()[0xA5]);
    EXPECT_STREQ("00000101", ssb::bin_dict_t()[0x105]);
    EXPECT_STREQ("11111111", ssb::bin_dict_t()[0xFFFFFFFFu]);
}

TEST(BinDict, StreamRadix2WritesEveryBitThroughTheTable) {
    signed char buf[128];
    ssb::text_stream_t s(buf, sizeof buf);
    s << ssb::ORDIX_BIN << static_cast<unsigned char>(5) << " " << static_cast<short>(-2) << " " << 0x80000001u;
    EXPECT_STREQ("00000101 1111111111111110 10000000000000000000000000000001", reinterpret_cast<char*>(buf));
    s.reset();
    s << ssb::ORDIX_BIN << 0x8000000000000001ULL;
    EXPECT_EQ(std::string("1") + std::string(62, '0') + "1", reinterpret_cast<char*>(buf));
}

TEST(Log2x, FloorOfLog2WithZeroForZeroAndOne) {
    struct {
        unsigned n, want;
    } const rows[] = {{0, 0}, {1, 0}, {2, 1}, {3, 1}, {1023, 9}, {1024, 10}, {0x7FFFFFFF, 30}, {0xFFFFFFFFu, 31}};
    for (const auto& r : rows)
        EXPECT_EQ(r.want, ssb::log2x(r.n)) << r.n;
}

// The exact sequence: seed with the time plus one rand(), then four words of
// two rand() calls each. Repeated if the second changed during a round.
TEST(GenerateUuidWithRand, SeedsWithTimePlusOneRandThenPacksPairs) {
    bool compared = false;
    for (int attempt = 0; attempt < 20 && !compared; ++attempt) {
        const time_t before = time(nullptr);
        srand(77);
        const unsigned seed = static_cast<unsigned>(before) + static_cast<unsigned>(rand());
        srand(seed);
        unsigned want[4];
        for (unsigned& w : want)
            w = static_cast<unsigned>(rand()) << 16 | static_cast<unsigned>(rand());
        srand(77);
        unsigned got[4] = {0, 0, 0, 0};
        const int rv = generate_uuid_with_rand(got);
        if (time(nullptr) != before)
            continue;
        compared = true;
        EXPECT_EQ(static_cast<int>(got[3]), rv);
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(want[i], got[i]) << i;
    }
    EXPECT_TRUE(compared) << "the clock's second changed in every attempt";
}

TEST(GenerateUuidWithRand, NullOutIsRefusedWithAnAssertionLine) {
    util_test::text_capture_t capture;
    util_test::capture_util_log(&capture);
    EXPECT_EQ(0, generate_uuid_with_rand(nullptr));
    EXPECT_TRUE(capture.contains("assert: file[.\\uuid], line = ["));
    util_test::restore_log_routing();
}

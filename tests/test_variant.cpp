#include <gtest/gtest.h>

#include <string.h>

#include <vector>

#include "variant.h"

using ssb::variant_t;

TEST(Variant, SingleValuesByTypeWithPersistSizes) {
    struct row_t {
        variant_t v;
        unsigned char type;
        long long value;
        unsigned size;
    };
    const row_t rows[] = {
        {variant_t(), variant_t::TYPE_NULL, 0, 3},
        {variant_t(static_cast<signed char>(-5)), variant_t::TYPE_I8, -5, 4},
        {variant_t(static_cast<short>(-30000)), variant_t::TYPE_I16, -30000, 5},
        {variant_t(0x7FFFFFFF), variant_t::TYPE_I32, 0x7FFFFFFF, 7},
        {variant_t(-0x7FFFFFFFFFFFFFFFLL - 1), variant_t::TYPE_I64, -0x7FFFFFFFFFFFFFFFLL - 1, 11},
    };
    for (const row_t& r : rows) {
        SCOPED_TRACE(static_cast<int>(r.type));
        EXPECT_EQ(r.type, r.v.get_type());
        EXPECT_EQ(r.type == variant_t::TYPE_NULL, r.v.is_null());
        EXPECT_EQ(0, r.v.get_array_size());
        EXPECT_EQ(r.size, r.v.get_persist_size());
        // Exactly one getter answers; the others give 0 and -1.
        int errs[4] = {7, 7, 7, 7};
        const long long got[4] = {r.v.get_i8(&errs[0]), r.v.get_i16(&errs[1]), r.v.get_i32(&errs[2]),
                                  r.v.get_i64(&errs[3])};
        for (int t = 0; t < 4; ++t) {
            const bool match = r.type == t + 1;
            EXPECT_EQ(match ? 0 : -1, errs[t]) << t;
            EXPECT_EQ(match ? r.value : 0, got[t]) << t;
        }
    }
}

TEST(Variant, ArraysOfEachWidthCopyAndMeasureAndSettersResetThem) {
    const signed char a8[] = {1, -2, 3};
    const short a16[] = {-1, 300, 7, 8};
    const int a32[] = {1 << 30, -7};
    const long long a64[] = {1LL << 40, -1, 5, 6, 7};
    variant_t v;
    unsigned count = 99;
    int err = 9;
    ASSERT_TRUE(v.set_i8s(a8, 3));
    EXPECT_EQ(3u + 3u, v.get_persist_size());
    const signed char* p8 = v.get_i8s(&count, &err);
    EXPECT_NE(a8, p8);  // a copy
    EXPECT_EQ(3u, count);
    EXPECT_EQ(0, err);
    EXPECT_EQ(0, memcmp(a8, p8, sizeof a8));
    // A wrong width, or the single getter on an array: null or 0 with -1.
    EXPECT_EQ(nullptr, v.get_i16s(&count, &err));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(-1, err);
    EXPECT_EQ(0, v.get_i8(&err));
    EXPECT_EQ(-1, err);

    ASSERT_TRUE(v.set_i16s(a16, 4));
    EXPECT_EQ(3u + 8u, v.get_persist_size());
    EXPECT_EQ(0, memcmp(a16, v.get_i16s(&count), sizeof a16));
    ASSERT_TRUE(v.set_i32s(a32, 2));
    EXPECT_EQ(3u + 8u, v.get_persist_size());
    EXPECT_EQ(0, memcmp(a32, v.get_i32s(&count), sizeof a32));
    ASSERT_TRUE(v.set_i64s(a64, 5));
    EXPECT_EQ(3u + 40u, v.get_persist_size());
    EXPECT_EQ(0, memcmp(a64, v.get_i64s(&count), sizeof a64));
    EXPECT_EQ(5u, count);
    EXPECT_EQ(5, v.get_array_size());
    EXPECT_EQ(variant_t::TYPE_I64, v.get_type());
    v.set_i16(12);
    EXPECT_FALSE(v.is_array());
    EXPECT_EQ(12, v.get_i16());
    v.reset();
    EXPECT_TRUE(v.is_null());
    EXPECT_EQ(3u, v.get_persist_size());
}

TEST(Variant, NullPointerOrZeroCountLeavesNull) {
    const int values[2] = {1, 2};
    variant_t v(5);
    EXPECT_FALSE(v.set_i32s(nullptr, 5));
    EXPECT_TRUE(v.is_null());
    v.set_i32(5);
    EXPECT_FALSE(v.set_i32s(values, 0));
    EXPECT_TRUE(v.is_null());
    // The count keeps its low 16 bits: 65536 is 0, 65539 is 3.
    std::vector<int> many(0x10000, 4);  // readable, so a wider count fails here rather than crashes
    EXPECT_FALSE(v.set_i32s(many.data(), 0x10000));
    EXPECT_TRUE(v.is_null());
    std::vector<short> big(0x10003, 4);
    ASSERT_TRUE(v.set_i16s(big.data(), 0x10003));
    EXPECT_EQ(3, v.get_array_size());
    EXPECT_EQ(3u + 6u, v.get_persist_size());
    EXPECT_FALSE(v.attach_i32s(nullptr, 3));
    EXPECT_FALSE(v.set_str(nullptr));
    unsigned count = 7;
    int err = 0;
    EXPECT_EQ(nullptr, v.get_i32s(&count, &err));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(-1, err);
}

TEST(Variant, CopiesAreDeepAndIndependent) {
    const long long values[3] = {1, 2, 3};
    variant_t* a = new variant_t;
    ASSERT_TRUE(a->set_i64s(values, 3));
    variant_t b(*a);
    variant_t c;
    c = *a;
    unsigned count = 0;
    delete a;  // b and c keep their own arrays (ASan would see a shared one)
    EXPECT_EQ(0, memcmp(values, b.get_i64s(&count), sizeof values));
    EXPECT_EQ(0, memcmp(values, c.get_i64s(&count), sizeof values));
    const variant_t& same = c;
    c = same;
    EXPECT_EQ(0, memcmp(values, c.get_i64s(&count), sizeof values));
    c = variant_t(static_cast<short>(9));  // frees c's array
    EXPECT_EQ(9, c.get_i16());
    b = c;
    EXPECT_FALSE(b.is_array());
    EXPECT_EQ(9, b.get_i16());
}

TEST(Variant, AttachTakesTheArrayWithoutCopying) {
    int* p = new int[4]{4, 3, 2, 1};
    variant_t v;
    ASSERT_TRUE(v.attach_i32s(p, 4));
    unsigned count = 0;
    EXPECT_EQ(p, v.get_i32s(&count));
    // Reassignment frees it; ASan reports a leak or a double free otherwise.
    signed char* q = new signed char[2]{1, 2};
    ASSERT_TRUE(v.attach_i8s(q, 2));
    short* r = new short[1]{5};
    ASSERT_TRUE(v.attach_i16s(r, 1));
    long long* s = new long long[2]{5, 6};
    ASSERT_TRUE(v.attach_i64s(s, 2));
    EXPECT_EQ(s, v.get_i64s(&count));
    // Not taken: still the caller's.
    int* kept = new int[1]{1};
    EXPECT_FALSE(v.attach_i32s(kept, 0));
    EXPECT_TRUE(v.is_null());
    delete[] kept;
}

TEST(Variant, StringsKeepTheirNul) {
    variant_t v;
    ASSERT_TRUE(v.set_str(""));
    EXPECT_EQ(1, v.get_array_size());
    EXPECT_EQ(4u, v.get_persist_size());
    ASSERT_TRUE(v.set_str("hello"));
    EXPECT_EQ(6, v.get_array_size());
    int err = 5;
    EXPECT_STREQ("hello", v.get_str(&err));
    EXPECT_EQ(0, err);
    char* owned = new char[4];
    memcpy(owned, "abc", 4);
    ASSERT_TRUE(v.attach_str(owned));
    EXPECT_EQ(owned, v.get_str());
    EXPECT_EQ(4, v.get_array_size());
    variant_t copy(v);
    EXPECT_STREQ("abc", copy.get_str());
    EXPECT_NE(owned, copy.get_str());
    v.set_i32(1);
    EXPECT_EQ(nullptr, v.get_str(&err));
    EXPECT_EQ(-1, err);
}

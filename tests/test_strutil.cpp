#include <gtest/gtest.h>

#include <stdlib.h>

#include <atomic>
#include <list>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "../fuzz/regex_model.h"
#include "strutil.h"

using namespace ssb;

// Counts heap allocations made while `s_counting` is set, to show that a
// match allocates nothing. (The library's own calls reach this replacement
// where the system resolves operator new across modules, as ELF does.)
namespace {
std::atomic<bool> s_counting{false};
std::atomic<int> s_allocations{0};
// Through a pointer, so the compiler does not pair this free with new.
void (*volatile s_free)(void*) = free;
}  // namespace

void* operator new(size_t size) {
    if (s_counting.load(std::memory_order_relaxed))
        s_allocations.fetch_add(1, std::memory_order_relaxed);
    void* p = malloc(size ? size : 1);
    if (!p)
        throw std::bad_alloc();
    return p;
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
    if (s_counting.load(std::memory_order_relaxed))
        s_allocations.fetch_add(1, std::memory_order_relaxed);
    return malloc(size ? size : 1);
}
void operator delete(void* p) noexcept { s_free(p); }
void operator delete(void* p, size_t) noexcept { s_free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { s_free(p); }

namespace {

struct match_case_t {
    const char* text;
    const char* pattern;
    bool expected;
};

TEST(RegexMatch, WildcardRulesSideBySide) {
    // The regex fuzz target checks the rules against a model; these rows are
    // the boundaries a plain unit run must still catch.
    const match_case_t cases[] = {
        {"abc", "a?c", true},    {"ab", "???", false},    {"abc", "a?*", false},
        {"a?c", "a?*", true},    {"abcbc", "*bc", true},  {"a", "*aa", false},
        {"aab", "a*ab", true},   {"aba", "ab*ba", false}, {"xabc", "abc*", false},
        {"acb", "a*b*c", false}, {"", "", true},          {"a", "", false},
        {"", "*", true},         {"a", "*a**", true},     {"caf\xC3\xA9", "*\xC3\xA9", true},
    };
    for (const match_case_t& c : cases)
        EXPECT_EQ(c.expected, regex_match(c.text, c.pattern)) << '"' << c.text << "\" vs \"" << c.pattern << '"';
}

TEST(RegexMatch, TextsWithNulBytesAndNullPointers) {
    EXPECT_TRUE(regex_match(std::string("a\0b", 3), std::string("a?b")));
    EXPECT_FALSE(regex_match(std::string("x\0y", 3), std::string("x")));
    EXPECT_TRUE(regex_match(nullptr, 0, nullptr, 0));
    EXPECT_TRUE(regex_match(nullptr, 0, "*", 1));
    EXPECT_FALSE(regex_match("a", 1, nullptr, 0));
}

using regex_model::reference_match;

std::string random_text(std::mt19937& rng, const char* alphabet, size_t max_len) {
    const size_t n = std::uniform_int_distribution<size_t>(0, max_len)(rng);
    const size_t letters = strlen(alphabet);
    std::string s;
    for (size_t i = 0; i < n; ++i)
        s += alphabet[std::uniform_int_distribution<size_t>(0, letters - 1)(rng)];
    return s;
}

TEST(RegexMatch, SearchesThatOutgrowTheQuickScanAgreeWithTheRules) {
    // Runs of one letter make every candidate a near miss, so the search
    // gives up on checking candidates in place and finishes with Two-Way.
    std::mt19937 rng(7);
    for (int i = 0; i < 6000; ++i) {
        const std::string piece = std::string(1 + rng() % 40, 'a') + random_text(rng, i % 2 ? "aaab" : "ab", 8);
        const std::string other = random_text(rng, "aab", 5);
        std::string text = random_text(rng, "aaaaaaaaaaaaaaab", 3000);
        // Whole and nearly whole copies of the piece, so Two-Way meets
        // occurrences and near misses at every shift it might take.
        for (int copies = i % 3 ? static_cast<int>(rng() % 6) : 0; copies > 0; --copies) {
            std::string copy = piece;
            if (rng() % 2)
                copy[rng() % copy.size()] ^= 'a' ^ 'b';
            text.insert(rng() % (text.size() + 1), copy);
        }
        const std::string patterns[] = {"*" + piece + "*", "*" + other + "*" + piece + "*", "*" + piece + "*" + other};
        for (const std::string& pattern : patterns) {
            ASSERT_EQ(reference_match(text, pattern), regex_match(text, pattern)) << '"' << pattern << '"';
        }
    }
}

// Where a piece's first occurrence ends decides what the rest of the
// pattern may match: "*N*" + S holds when S is the text after that end and
// fails when S reaches one byte into it. The fillers make every candidate a
// long near miss, so past the first few bytes the search runs in Two-Way
// (the periodic needle and the other one take its two branches); the ends
// are pinned against std::string::find.
TEST(RegexMatch, PieceSearchFindsTheFirstOccurrenceWhereStringFindDoes) {
    auto repeat = [](const std::string& s, int n) {
        std::string out;
        for (int i = 0; i < n; ++i)
            out += s;
        return out;
    };
    const struct {
        std::string needle, filler;
    } kinds[] = {
        {std::string(32, 'a') + "b", std::string(300, 'a')},
        // Period 3; the filler breaks the period every 35 bytes.
        {repeat("aab", 12) + "aa", repeat(repeat("aab", 11) + "ab", 9)},
    };
    std::vector<std::pair<std::string, std::string>> rows;
    for (const auto& k : kinds) {
        for (size_t offset : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 100, 257})
            for (size_t tail : {0, 50})
                rows.push_back({k.filler.substr(0, offset) + k.needle + k.filler.substr(0, tail), k.needle});
        rows.push_back({k.filler, k.needle});
        // Overlapping occurrences: the first one counts.
        rows.push_back({k.filler.substr(0, 100) + k.needle + k.needle.substr(k.needle.size() - 3) + "a", k.needle});
    }
    for (const auto& r : rows) {
        const std::string& text = r.first;
        const std::string& needle = r.second;
        const size_t at = text.find(needle);
        const std::string star = "*" + needle + "*";
        ASSERT_EQ(at != std::string::npos, regex_match(text, star)) << text;
        if (at == std::string::npos)
            continue;
        const size_t end = at + needle.size();
        EXPECT_TRUE(regex_match(text, star + text.substr(end))) << "ends at " << end << " in " << text;
        EXPECT_FALSE(regex_match(text, star + text.substr(end - 1))) << "ends at " << end << " in " << text;
    }
}

TEST(RegexMatch, PathologicalPatternsStayCorrect) {
    // Each would take a backtracking matcher far beyond CTest's time-out.
    const std::string stars(10000, '*');
    EXPECT_TRUE(regex_match("abc", stars));
    EXPECT_TRUE(regex_match("", stars));
    std::string alternating;
    for (int i = 0; i < 5000; ++i)
        alternating += "*a";
    const std::string text(200000, 'a');
    EXPECT_FALSE(regex_match(text, alternating + "*c"));
    EXPECT_TRUE(regex_match(text + "c", alternating + "*c"));
    EXPECT_TRUE(regex_match(text, alternating));
    EXPECT_FALSE(regex_match(text.substr(0, 4999), alternating));
    // A long periodic piece against a text that nearly repeats it.
    const std::string piece = std::string(1000, 'a') + "b";
    EXPECT_FALSE(regex_match(text, "*" + piece + "*"));
    EXPECT_TRUE(regex_match(text + "b" + text, "*" + piece + "*"));
}

TEST(RegexMatch, MatchingAllocatesNothing) {
    const std::string text = "build-server-17.eu.example.com";
    const std::string patterns[] = {"*.example.com", "build-*-1?.eu*", "*a*b*c*d*", "", "b??ld*", "*"};
    const std::string list = " *.test , *.example.com ,";
    // The probe shows that the library's allocations are seen here at all.
    s_allocations.store(0);
    s_counting.store(true);
    const std::string probe = trim(" a text longer than any short-string buffer ");
    s_counting.store(false);
    if (s_allocations.load() == 0)
        GTEST_SKIP() << "the library's allocations do not reach this program's operator new here";
    s_allocations.store(0);
    s_counting.store(true);
    int hits = 0;
    for (const std::string& p : patterns)
        hits += regex_match(text, p);
    hits += regex_match_pattern_list(text, list, ',');
    s_counting.store(false);
    EXPECT_EQ(0, s_allocations.load());
    EXPECT_EQ(3, hits);
}

TEST(RegexMatch, PatternListInOrderTrimmedAndSkippingEmptyPieces) {
    const match_case_t cases[] = {
        {"zoom.us", "*.example.com, zoom.* ", true},
        {"", "", false},
        {"", ",*,", true},
        {"abc", "x,y,a?*", false},
    };
    for (const match_case_t& c : cases)
        EXPECT_EQ(c.expected, regex_match_pattern_list(c.text, c.pattern, ',')) << c.text << " in " << c.pattern;
    EXPECT_TRUE(regex_match_pattern_list("b", "a;b", ';'));
    EXPECT_FALSE(regex_match_pattern_list("b", "a;b", ','));
}

struct split_case_t {
    const char* text;
    std::vector<std::string> pieces;
};

TEST(SplitString, TrimsEachPieceAndDropsEmptyOnes) {
    const split_case_t cases[] = {
        {"a, ,b", {"a", "b"}},         {"", {}}, {",,,", {}}, {" a ", {"a"}}, {"a,b,", {"a", "b"}},
        {"\ta b\r\n,c", {"a b", "c"}},
    };
    for (const split_case_t& c : cases) {
        std::vector<std::string> out;
        split_string(c.text, out, ',', true);
        EXPECT_EQ(c.pieces, out) << c.text;
        std::list<std::string> as_list;
        split_string(c.text, as_list, ',', true);
        EXPECT_EQ(c.pieces, std::vector<std::string>(as_list.begin(), as_list.end())) << c.text;
    }
}

TEST(SplitString, ClearFirstOrAppend) {
    std::vector<std::string> out = {"keep"};
    split_string("x;y", out, ';', false);
    EXPECT_EQ((std::vector<std::string>{"keep", "x", "y"}), out);
    split_string(std::string("a\0b", 3), out, '\0', true);
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), out);
}

TEST(Trim, WhiteSpaceOnEitherSide) {
    struct trim_case_t {
        const char* text;
        const char* both;
        const char* left;
        const char* right;
    };
    const trim_case_t cases[] = {
        {"", "", "", ""},
        {"   ", "", "", ""},
        {" \t\r\n\v\fa b\f\v\n\r\t ", "a b", "a b\f\v\n\r\t ", " \t\r\n\v\fa b"},
        {"x", "x", "x", "x"},
        {"\xA0x\xA0", "\xA0x\xA0", "\xA0x\xA0", "\xA0x\xA0"},
    };
    for (const trim_case_t& c : cases) {
        EXPECT_EQ(c.both, trim(c.text));
        EXPECT_EQ(c.left, trim_left(c.text));
        EXPECT_EQ(c.right, trim_right(c.text));
    }
    EXPECT_EQ(std::string("a\0", 2), trim(std::string(" a\0 ", 4)));
}

TEST(TextConversion, AsciiRoundTripsEverywhere) {
    EXPECT_EQ(std::wstring(L"host-17: port 443\t~"), mbs2wcs("host-17: port 443\t~"));
    EXPECT_EQ("host-17: port 443\t~", wcs2mbs(L"host-17: port 443\t~"));
    EXPECT_TRUE(mbs2wcs("").empty());
    EXPECT_TRUE(wcs2mbs(L"").empty());
    EXPECT_EQ(std::wstring(L"a\0b", 3), mbs2wcs(std::string("a\0b", 3)));
    EXPECT_EQ(std::string("a\0b", 3), wcs2mbs(std::wstring(L"a\0b", 3)));
}

TEST(TextConversion, Utf8WhereTheSystemTextIsUtf8) {
    if (mbs2wcs("\xC3\xA9").size() != 1)
        GTEST_SKIP() << "multibyte text here is a code page, not UTF-8";
    EXPECT_EQ(std::wstring(1, wchar_t(0xE9)), mbs2wcs("\xC3\xA9"));
    EXPECT_EQ(std::wstring(1, wchar_t(0x20AC)), mbs2wcs("\xE2\x82\xAC"));
    EXPECT_EQ(std::string("\xE2\x82\xAC"), wcs2mbs(std::wstring(1, wchar_t(0x20AC))));
    const std::wstring fffd(1, wchar_t(0xFFFD));
    // A stray continuation byte, a cut sequence, an overlong form and an
    // encoded surrogate each become U+FFFD per byte that cannot start one.
    EXPECT_EQ(L"a" + fffd + L"b", mbs2wcs("a\x80"
                                          "b"));
    EXPECT_EQ(L"a" + fffd + fffd, mbs2wcs("a\xE2\x82"));
    EXPECT_EQ(fffd + fffd, mbs2wcs("\xC0\xAF"));
    EXPECT_EQ(fffd + fffd + fffd, mbs2wcs("\xED\xA0\x80"));
    EXPECT_EQ(fffd + fffd + fffd + fffd, mbs2wcs("\xF4\x90\x80\x80"));
    if (sizeof(wchar_t) == 4) {
        const std::string four = "\xF0\x9F\x98\x80";
        EXPECT_EQ(std::wstring(1, wchar_t(0x1F600)), mbs2wcs(four));
        EXPECT_EQ(four, wcs2mbs(mbs2wcs(four)));
        EXPECT_EQ(std::string("\xEF\xBF\xBD"), wcs2mbs(std::wstring(1, wchar_t(0xD800))));
    }
}

TEST(MiniCopy, FastCopyOfEverySizeAroundTheBlocks) {
    std::vector<unsigned char> src(300);
    for (size_t i = 0; i < src.size(); ++i)
        src[i] = static_cast<unsigned char>(i * 7 + 3);
    for (size_t n = 0; n <= 260; ++n) {
        std::vector<unsigned char> dst(n + 2, 0xEE);
        EXPECT_EQ(dst.data() + 1, fast_copy32(dst.data() + 1, src.data() + 1, n));
        EXPECT_EQ(0xEE, dst[0]) << n;
        EXPECT_EQ(0, memcmp(dst.data() + 1, src.data() + 1, n)) << n;
        EXPECT_EQ(0xEE, dst[n + 1]) << n;
    }
}

}  // namespace

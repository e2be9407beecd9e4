#include "strutil.h"

#include <stdint.h>

#include "platform/platform.h"

namespace ssb {

namespace {

typedef unsigned char uchar;
const size_t NOT_FOUND = static_cast<size_t>(-1);

bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Start of the maximal suffix of x[0..m) minus one (so -1 is the whole
// needle) under the byte order, or under its reverse; *period gets that
// suffix's period. Part of the critical factorisation of the Two-Way search.
ptrdiff_t max_suffix(const uchar* x, ptrdiff_t m, ptrdiff_t* period, bool reversed) {
    ptrdiff_t ms = -1;
    ptrdiff_t j = 0;
    ptrdiff_t k = 1;
    ptrdiff_t p = 1;
    while (j + k < m) {
        const uchar a = x[j + k];
        const uchar b = x[ms + k];
        if (reversed ? a > b : a < b) {
            j += k;
            k = 1;
            p = j - ms;
        } else if (a == b) {
            if (k != p) {
                ++k;
            } else {
                j += p;
                k = 1;
            }
        } else {
            ms = j;
            j = ms + 1;
            k = p = 1;
        }
    }
    *period = p;
    return ms;
}

// Crochemore-Perrin Two-Way: the first occurrence in O(n + m) time and O(1)
// space, so a piece search never backtracks over the text and never
// allocates (KMP would need a table per piece).
size_t two_way_find(const uchar* y, ptrdiff_t n, const uchar* x, ptrdiff_t m) {
    ptrdiff_t p = 0;
    ptrdiff_t q = 0;
    const ptrdiff_t i = max_suffix(x, m, &p, false);
    const ptrdiff_t j = max_suffix(x, m, &q, true);
    const ptrdiff_t ell = i > j ? i : j;
    ptrdiff_t per = i > j ? p : q;
    if (memcmp(x, x + per, static_cast<size_t>(ell + 1)) == 0) {
        // Periodic needle: remember how much of the right half matched.
        ptrdiff_t pos = 0;
        ptrdiff_t memory = -1;
        while (pos <= n - m) {
            ptrdiff_t k = (ell > memory ? ell : memory) + 1;
            while (k < m && x[k] == y[k + pos])
                ++k;
            if (k >= m) {
                k = ell;
                while (k > memory && x[k] == y[k + pos])
                    --k;
                if (k <= memory)
                    return static_cast<size_t>(pos);
                pos += per;
                memory = m - per - 1;
            } else {
                pos += k - ell;
                memory = -1;
            }
        }
        return NOT_FOUND;
    }
    per = (ell + 1 > m - ell - 1 ? ell + 1 : m - ell - 1) + 1;
    ptrdiff_t pos = 0;
    while (pos <= n - m) {
        ptrdiff_t k = ell + 1;
        while (k < m && x[k] == y[k + pos])
            ++k;
        if (k >= m) {
            k = ell;
            while (k >= 0 && x[k] == y[k + pos])
                --k;
            if (k < 0)
                return static_cast<size_t>(pos);
            pos += per;
        } else {
            pos += k - ell;
        }
    }
    return NOT_FOUND;
}

// First occurrence of needle in hay; NOT_FOUND when absent. Candidates come
// from memchr on the first byte and are checked in place, which is fastest
// on host names and paths; once the failed checks have cost more than twice
// the text passed over, the rest goes to Two-Way, so the total stays linear.
size_t find_piece(const char* hay, size_t n, const char* needle, size_t m) {
    if (m > n)
        return NOT_FOUND;
    if (m == 1) {
        const void* hit = memchr(hay, needle[0], n);
        return hit ? static_cast<size_t>(static_cast<const char*>(hit) - hay) : NOT_FOUND;
    }
    const char* cur = hay;
    const char* const last = hay + (n - m);
    size_t wasted = 0;
    while (cur <= last) {
        const char* hit = static_cast<const char*>(memchr(cur, needle[0], static_cast<size_t>(last - cur) + 1));
        if (!hit)
            return NOT_FOUND;
        size_t k = 1;
        while (k < m && hit[k] == needle[k])
            ++k;
        if (k == m)
            return static_cast<size_t>(hit - hay);
        cur = hit + 1;
        wasted += k;
        if (wasted > 2 * static_cast<size_t>(cur - hay) + 64) {
            const size_t at = two_way_find(reinterpret_cast<const uchar*>(cur), static_cast<ptrdiff_t>(hay + n - cur),
                                           reinterpret_cast<const uchar*>(needle), static_cast<ptrdiff_t>(m));
            return at == NOT_FOUND ? NOT_FOUND : static_cast<size_t>(cur - hay) + at;
        }
    }
    return NOT_FOUND;
}

void trim_bounds(const char* s, size_t len, size_t* begin, size_t* end) {
    size_t b = 0;
    size_t e = len;
    while (b < e && is_space(s[b]))
        ++b;
    while (e > b && is_space(s[e - 1]))
        --e;
    *begin = b;
    *end = e;
}

// Calls fn(piece, length) for each trimmed, non-empty piece of `text`
// between separators, until fn returns true; whether one did.
template <class Fn>
bool for_each_piece(const std::string& text, char separator, Fn fn) {
    const char* s = text.data();
    const size_t n = text.size();
    size_t start = 0;
    while (start <= n) {
        const void* hit = memchr(s + start, separator, n - start);
        const size_t stop = hit ? static_cast<size_t>(static_cast<const char*>(hit) - s) : n;
        size_t b = 0;
        size_t e = 0;
        trim_bounds(s + start, stop - start, &b, &e);
        if (e > b && fn(s + start + b, e - b))
            return true;
        start = stop + 1;
    }
    return false;
}

template <class C>
void split_into(const std::string& text, C& out, char separator, bool clear_first) {
    if (clear_first)
        out.clear();
    for_each_piece(text, separator, [&](const char* piece, size_t len) {
        out.push_back(std::string(piece, len));
        return false;
    });
}

// The matcher behind both public forms, called directly (no exported-symbol
// indirection on the hot path).
bool match_view(const char* t, size_t n, const char* p, size_t m) {
    if (!t) {
        t = "";
        n = 0;
    }
    if (!p) {
        p = "";
        m = 0;
    }
    const char* first_star = m ? static_cast<const char*>(memchr(p, '*', m)) : nullptr;
    if (!first_star) {
        if (n != m)
            return false;
        for (size_t i = 0; i < m; ++i) {
            if (p[i] != t[i] && p[i] != '?')
                return false;
        }
        return true;
    }
    size_t last_star = m - 1;
    while (p[last_star] != '*')
        --last_star;

    // The first piece is anchored at the start unless the pattern begins
    // with a star.
    const size_t head = static_cast<size_t>(first_star - p);
    if (head > n || memcmp(t, p, head) != 0)
        return false;
    size_t pos = head;

    // Middle pieces: first occurrence, each after the previous one. Taking
    // the earliest is never worse for the pieces still to come.
    size_t i = head;
    while (i < last_star) {
        ++i;
        const char* star = static_cast<const char*>(memchr(p + i, '*', last_star + 1 - i));
        const size_t stop = static_cast<size_t>(star - p);
        const size_t len = stop - i;
        if (len) {
            const size_t at = find_piece(t + pos, n - pos, p + i, len);
            if (at == NOT_FOUND)
                return false;
            pos += at + len;
        }
        i = stop;
    }

    // The last piece must end the text; any occurrence not before the end of
    // the middle pieces does, the first one found there or a later one,
    // overlapping or not. That is a suffix test.
    const size_t tail = m - last_star - 1;
    if (tail == 0)
        return true;
    return n - pos >= tail && memcmp(t + n - tail, p + last_star + 1, tail) == 0;
}

}  // namespace

bool regex_match(const char* text, size_t text_len, const char* pattern, size_t pattern_len) {
    return match_view(text, text_len, pattern, pattern_len);
}

bool regex_match(const std::string& text, const std::string& pattern) {
    return match_view(text.data(), text.size(), pattern.data(), pattern.size());
}

bool regex_match_pattern_list(const std::string& text, const std::string& pattern_list, char separator) {
    return for_each_piece(pattern_list, separator, [&](const char* pattern, size_t len) {
        return match_view(text.data(), text.size(), pattern, len);
    });
}

void split_string(const std::string& text, std::list<std::string>& out, char separator, bool clear_first) {
    split_into(text, out, separator, clear_first);
}

void split_string(const std::string& text, std::vector<std::string>& out, char separator, bool clear_first) {
    split_into(text, out, separator, clear_first);
}

std::string trim(const std::string& text) {
    size_t b = 0;
    size_t e = 0;
    trim_bounds(text.data(), text.size(), &b, &e);
    return text.substr(b, e - b);
}

std::string trim_left(const std::string& text) {
    size_t b = 0;
    while (b < text.size() && is_space(text[b]))
        ++b;
    return text.substr(b);
}

std::string trim_right(const std::string& text) {
    size_t e = text.size();
    while (e > 0 && is_space(text[e - 1]))
        --e;
    return text.substr(0, e);
}

std::wstring mbs2wcs(const std::string& text) {
    const size_t need = plat::mbs_to_wcs(text.data(), text.size(), nullptr, 0);
    std::wstring out(need, L'\0');
    if (need)
        plat::mbs_to_wcs(text.data(), text.size(), &out[0], need);
    return out;
}

std::string wcs2mbs(const std::wstring& text) {
    const size_t need = plat::wcs_to_mbs(text.data(), text.size(), nullptr, 0);
    std::string out(need, '\0');
    if (need)
        plat::wcs_to_mbs(text.data(), text.size(), &out[0], need);
    return out;
}

void* fast_copy32(void* dst, const void* src, size_t size) {
    typedef void (*copy_fn_t)(void*, const void*);
    static const copy_fn_t TAIL[32] = {
        nullptr,     mini_copy1,  mini_copy2,  mini_copy3,  mini_copy4,  mini_copy5,  mini_copy6,  mini_copy7,
        mini_copy8,  mini_copy9,  mini_copy10, mini_copy11, mini_copy12, mini_copy13, mini_copy14, mini_copy15,
        mini_copy16, mini_copy17, mini_copy18, mini_copy19, mini_copy20, mini_copy21, mini_copy22, mini_copy23,
        mini_copy24, mini_copy25, mini_copy26, mini_copy27, mini_copy28, mini_copy29, mini_copy30, mini_copy31};
    uchar* d = static_cast<uchar*>(dst);
    const uchar* s = static_cast<const uchar*>(src);
    while (size >= 32) {
        mini_copy32(d, s);
        d += 32;
        s += 32;
        size -= 32;
    }
    if (size)
        TAIL[size](d, s);
    return dst;
}

}  // namespace ssb

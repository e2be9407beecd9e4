// Wildcard matching and small string helpers. Pure functions: any thread,
// no shared state.
#ifndef SSB_STRUTIL_H
#define SSB_STRUTIL_H

#include <stddef.h>
#include <string.h>

#include <list>
#include <string>
#include <vector>

#include "util_def.h"

namespace ssb {

// Matches `text` against a wildcard pattern (not a regular expression):
// "*" is any run of characters, "?" exactly one, anything else itself,
// case-sensitively. "?" is a wildcard only in patterns without "*"; in a
// pattern with "*" it matches a question mark (kept on purpose: hosts'
// filter lists rely on it). The pieces between stars are found in order,
// each at its first occurrence; without a leading "*" the first piece must
// start the text, without a trailing "*" the last piece must end it (any
// occurrence after the earlier pieces counts, so "aaa" matches "*aa").
// Allocates nothing; time O(text + pattern) for every pattern.
UTIL_API bool regex_match(const std::string& text, const std::string& pattern);
// The same over raw bytes.
UTIL_API bool regex_match(const char* text, size_t text_len, const char* pattern, size_t pattern_len);

// True as soon as one pattern of the `separator`-separated list matches
// `text`, in list order; the patterns are trimmed and empty ones skipped,
// as split_string cuts them. False for an empty list. Allocates nothing.
UTIL_API bool regex_match_pattern_list(const std::string& text, const std::string& pattern_list, char separator);

// Cuts `text` at every `separator`; each piece is trimmed and appended when
// not empty ("a, ,b" at ',' gives "a" and "b"). `out` is emptied first when
// `clear_first` is set.
UTIL_API void split_string(const std::string& text, std::list<std::string>& out, char separator, bool clear_first);
UTIL_API void split_string(const std::string& text, std::vector<std::string>& out, char separator, bool clear_first);

// White space here is " \t\n\v\f\r", as isspace in the C locale.
UTIL_API std::string trim(const std::string& text);
UTIL_API std::string trim_left(const std::string& text);
UTIL_API std::string trim_right(const std::string& text);

// Multibyte text to wide text and back: UTF-8 (and UTF-32 wide text) on
// Linux, the ANSI code page (and UTF-16) on Windows. On Linux a byte that
// does not start a valid UTF-8 sequence, and a wide character that is no
// Unicode scalar value, become U+FFFD; Windows substitutes as its code page
// conversion does.
UTIL_API std::wstring mbs2wcs(const std::string& text);
UTIL_API std::string wcs2mbs(const std::wstring& text);

// mini_copyN copies exactly N bytes (1 to 64); the constant size lets the
// compiler emit a few register moves instead of a call. The ranges must not
// overlap.
#define SSB_MINI_COPY(n) \
  inline void mini_copy##n(void* dst, const void* src) { memcpy(dst, src, n); }
SSB_MINI_COPY(1)
SSB_MINI_COPY(2)
SSB_MINI_COPY(3)
SSB_MINI_COPY(4)
SSB_MINI_COPY(5)
SSB_MINI_COPY(6)
SSB_MINI_COPY(7)
SSB_MINI_COPY(8)
SSB_MINI_COPY(9)
SSB_MINI_COPY(10)
SSB_MINI_COPY(11)
SSB_MINI_COPY(12)
SSB_MINI_COPY(13)
SSB_MINI_COPY(14)
SSB_MINI_COPY(15)
SSB_MINI_COPY(16)
SSB_MINI_COPY(17)
SSB_MINI_COPY(18)
SSB_MINI_COPY(19)
SSB_MINI_COPY(20)
SSB_MINI_COPY(21)
SSB_MINI_COPY(22)
SSB_MINI_COPY(23)
SSB_MINI_COPY(24)
SSB_MINI_COPY(25)
SSB_MINI_COPY(26)
SSB_MINI_COPY(27)
SSB_MINI_COPY(28)
SSB_MINI_COPY(29)
SSB_MINI_COPY(30)
SSB_MINI_COPY(31)
SSB_MINI_COPY(32)
SSB_MINI_COPY(33)
SSB_MINI_COPY(34)
SSB_MINI_COPY(35)
SSB_MINI_COPY(36)
SSB_MINI_COPY(37)
SSB_MINI_COPY(38)
SSB_MINI_COPY(39)
SSB_MINI_COPY(40)
SSB_MINI_COPY(41)
SSB_MINI_COPY(42)
SSB_MINI_COPY(43)
SSB_MINI_COPY(44)
SSB_MINI_COPY(45)
SSB_MINI_COPY(46)
SSB_MINI_COPY(47)
SSB_MINI_COPY(48)
SSB_MINI_COPY(49)
SSB_MINI_COPY(50)
SSB_MINI_COPY(51)
SSB_MINI_COPY(52)
SSB_MINI_COPY(53)
SSB_MINI_COPY(54)
SSB_MINI_COPY(55)
SSB_MINI_COPY(56)
SSB_MINI_COPY(57)
SSB_MINI_COPY(58)
SSB_MINI_COPY(59)
SSB_MINI_COPY(60)
SSB_MINI_COPY(61)
SSB_MINI_COPY(62)
SSB_MINI_COPY(63)
SSB_MINI_COPY(64)
#undef SSB_MINI_COPY

// Copies `size` bytes in 32-byte blocks, the tail through one mini_copyN.
// The ranges must not overlap. Returns dst.
UTIL_API void* fast_copy32(void* dst, const void* src, size_t size);

}  // namespace ssb

#endif

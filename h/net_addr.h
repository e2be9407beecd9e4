// IPv4 and IPv6 address text: conversions, tests and mask filters. Pure
// functions (is_local_ipv4_address asks the system); any thread.
//
// The conversions live in the namespace ssb so that they never replace the C
// library's functions of the same names in a host process.
#ifndef SSB_NET_ADDR_H
#define SSB_NET_ADDR_H

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "util_def.h"

namespace ssb {

// What inet_addr gives for a text it refuses (INADDR_NONE).
const uint32_t INET_ADDR_NONE = 0xFFFFFFFFu;
// Room for the longest text inet_ntop writes, NUL included.
const size_t INET_ADDR_TEXT = 16;
const size_t INET6_ADDR_TEXT = 46;

// The C library's inet_pton and inet_ntop for AF_INET and AF_INET6 (the
// caller's system values), accepting exactly the texts glibc accepts and
// writing exactly the texts glibc writes: dotted decimal without leading
// zeros; hexadecimal groups, the longest run of two or more zero groups
// (the first of equal runs) written "::", and "::a.b.c.d" and
// "::ffff:a.b.c.d" for IPv4-compatible and -mapped addresses. No zone ids.
// inet_pton: 1, 0 for a refused text (or a null pointer), -1 with errno
// EAFNOSUPPORT for another family. dst gets 4 or 16 bytes in network order.
UTIL_API int inet_pton(int af, const char* src, void* dst);
// dst, or null with errno ENOSPC when the text and its NUL do not fit in
// `size` (dst untouched), EAFNOSUPPORT for another family, EINVAL for a
// null pointer.
UTIL_API const char* inet_ntop(int af, const void* src, char* dst, size_t size);

// The C library's inet_addr (glibc's inet_aton rules): one to four parts
// "a", "a.b", "a.b.c", "a.b.c.d", each decimal, octal with a leading 0 or
// hexadecimal with 0x, the last part filling the remaining bytes; white
// space and anything after it end the text. Network order, or
// INET_ADDR_NONE, which 255.255.255.255 gives too.
UTIL_API uint32_t inet_addr(const char* text);

// True when inet_addr accepts the text: 255.255.255.255 is not an address.
UTIL_API bool ipv4_test(const char* text);
// True for an IPv6 text as the system's socket-address parser takes it:
// what inet_pton(AF_INET6) accepts, optionally followed by "%" and a
// decimal scope id, optionally inside "[" "]" followed by ":" and a decimal
// port up to 65535.
UTIL_API bool ipv6_test(const char* text);

// `mask_str` is an address, or an address "/" prefix length. Both sides are
// trimmed. Without a prefix the texts must be equal; with one, both must be
// addresses to inet_addr and agree in their leading prefix bits (read with
// atoi: 0 or less matches every address, more than 32 acts as 32).
UTIL_API bool ipv4_match_mask(const std::string& ip, const std::string& mask_str);
// False unless ipv4_test(ip); then true when any entry of the
// `separator`-separated list (cut as split_string does) matches.
UTIL_API bool ipv4_match_mask_list(const std::string& ip, const std::string& mask_list, char separator);

// The full form of an IPv6 text: eight groups of four lower-case hex digits
// ("::1" gives "0000:0000:0000:0000:0000:0000:0000:0001"; an embedded IPv4
// becomes two groups). A text inet_pton refuses is logged and gives "".
UTIL_API std::string fix_ipv6_adress(const std::string& text);

// True when the IPv4 text (inet_addr rules) is a loopback address (127/8) or
// held by one of this machine's interfaces. A null text is a broken
// precondition: logged as an assertion, false.
UTIL_API bool is_local_ipv4_address(const char* ip);

}  // namespace ssb

#endif

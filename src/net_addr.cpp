#include "net_addr.h"

#include <errno.h>
#include <string.h>

#include <vector>

#include "platform/platform.h"
#include "strutil.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = ".\\net_addr";

typedef unsigned char uchar;

// Hex digit values; 0xFF for every other byte.
struct hex_table_t {
    unsigned char value[256];
    constexpr hex_table_t() : value() {
        for (int i = 0; i < 256; ++i)
            value[i] = 0xFF;
        for (int i = 0; i < 10; ++i)
            value['0' + i] = static_cast<unsigned char>(i);
        for (int i = 0; i < 6; ++i) {
            value['a' + i] = static_cast<unsigned char>(10 + i);
            value['A' + i] = static_cast<unsigned char>(10 + i);
        }
    }
};
constexpr hex_table_t HEX_TABLE;

int hex_value(char c) {
    const unsigned char v = HEX_TABLE.value[static_cast<uchar>(c)];
    return v == 0xFF ? -1 : v;
}

// The texts of 0..255, each padded to four bytes so one fixed-size copy
// writes it.
struct octet_table_t {
    char text[256][4];
    unsigned char length[256];
    constexpr octet_table_t() : text(), length() {
        for (int v = 0; v < 256; ++v) {
            int n = 0;
            if (v >= 100)
                text[v][n++] = static_cast<char>('0' + v / 100);
            if (v >= 10)
                text[v][n++] = static_cast<char>('0' + v / 10 % 10);
            text[v][n++] = static_cast<char>('0' + v % 10);
            length[v] = static_cast<unsigned char>(n);
        }
    }
};
constexpr octet_table_t OCTET_TABLE;

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// isspace in the C locale.
bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Exactly four decimal parts of 0..255, no leading zero, nothing around.
// Reads no byte past the NUL: a byte is looked at only after a digit.
bool pton4(const char* text, uchar* out) {
    const uchar* p = reinterpret_cast<const uchar*>(text);
    uchar tmp[4];
    for (int k = 0; k < 4; ++k) {
        unsigned v = static_cast<unsigned>(p[0]) - '0';
        if (v > 9)
            return false;
        const unsigned d1 = static_cast<unsigned>(p[1]) - '0';
        if (d1 > 9) {
            p += 1;
        } else {
            if (v == 0)
                return false;
            v = v * 10 + d1;
            const unsigned d2 = static_cast<unsigned>(p[2]) - '0';
            if (d2 > 9) {
                p += 2;
            } else {
                v = v * 10 + d2;
                if (v > 255)
                    return false;
                p += 3;
            }
        }
        tmp[k] = static_cast<uchar>(v);
        if (k < 3) {
            if (*p != '.')
                return false;
            ++p;
        }
    }
    if (*p != '\0')
        return false;
    memcpy(out, tmp, 4);
    return true;
}

// Up to eight groups of one to four hex digits; one "::" standing for at
// least one zero group; a dotted IPv4 may take the last four bytes (it
// starts where its group started, so "::a.1.2.3" is refused).
bool pton6(const char* text, uchar* out) {
    const uchar* p = reinterpret_cast<const uchar*>(text);
    uchar tmp[16];
    int tp = 0;
    int gap = -1;
    if (p[0] == ':') {
        if (p[1] != ':')
            return false;
        gap = 0;
        p += 2;
    }
    if (*p != '\0' || gap < 0) {
        for (;;) {
            const uchar* start = p;
            unsigned v = HEX_TABLE.value[p[0]];
            if (v == 0xFF)
                return false;
            unsigned d = HEX_TABLE.value[*++p];
            if (d != 0xFF) {
                v = v << 4 | d;
                d = HEX_TABLE.value[*++p];
                if (d != 0xFF) {
                    v = v << 4 | d;
                    d = HEX_TABLE.value[*++p];
                    if (d != 0xFF) {
                        v = v << 4 | d;
                        ++p;
                    }
                }
            }
            const uchar c = *p;
            if (c == '.') {
                if (tp > 12 || !pton4(reinterpret_cast<const char*>(start), tmp + tp))
                    return false;
                tp += 4;
                break;
            }
            if (tp == 16 || HEX_TABLE.value[c] != 0xFF)
                return false;
            tmp[tp] = static_cast<uchar>(v >> 8);
            tmp[tp + 1] = static_cast<uchar>(v);
            tp += 2;
            if (c == '\0')
                break;
            if (c != ':')
                return false;
            ++p;
            if (*p == ':') {
                if (gap >= 0)
                    return false;
                gap = tp;
                ++p;
                if (*p == '\0')
                    break;
            } else if (*p == '\0') {
                return false;
            }
        }
    }
    if (gap >= 0) {
        if (tp == 16)
            return false;
        const int moved = tp - gap;
        memmove(tmp + 16 - moved, tmp + gap, static_cast<size_t>(moved));
        memset(tmp + gap, 0, static_cast<size_t>(16 - moved - gap));
    } else if (tp != 16) {
        return false;
    }
    memcpy(out, tmp, 16);
    return true;
}

// Needs three bytes of room past the text for the padded copies.
size_t ntop4(const uchar* a, char* out) {
    size_t n = 0;
    for (int i = 0; i < 4; ++i) {
        memcpy(out + n, OCTET_TABLE.text[a[i]], 4);
        n += OCTET_TABLE.length[a[i]];
        out[n] = '.';
        n += i < 3;
    }
    return n;
}

const char HEX_DIGITS[] = "0123456789abcdef";

size_t put_group(unsigned w, char* out) {
    size_t n = 0;
    if (w >= 0x1000)
        out[n++] = HEX_DIGITS[w >> 12];
    if (w >= 0x100)
        out[n++] = HEX_DIGITS[w >> 8 & 0xF];
    if (w >= 0x10)
        out[n++] = HEX_DIGITS[w >> 4 & 0xF];
    out[n++] = HEX_DIGITS[w & 0xF];
    return n;
}

size_t ntop6(const uchar* a, char* out) {
    unsigned words[8];
    for (int i = 0; i < 8; ++i)
        words[i] = static_cast<unsigned>(a[2 * i]) << 8 | a[2 * i + 1];
    // The longest run of zero groups; the first of equal runs; a lone zero
    // group is written as "0".
    int best_base = -1;
    int best_len = 0;
    int cur_base = -1;
    int cur_len = 0;
    for (int i = 0; i < 8; ++i) {
        if (words[i] == 0) {
            if (cur_base < 0) {
                cur_base = i;
                cur_len = 1;
            } else {
                ++cur_len;
            }
        } else if (cur_base >= 0) {
            if (cur_len > best_len) {
                best_base = cur_base;
                best_len = cur_len;
            }
            cur_base = -1;
        }
    }
    if (cur_base >= 0 && cur_len > best_len) {
        best_base = cur_base;
        best_len = cur_len;
    }
    if (best_len < 2)
        best_base = -1;
    size_t n = 0;
    for (int i = 0; i < 8; ++i) {
        if (best_base >= 0 && i >= best_base && i < best_base + best_len) {
            if (i == best_base)
                out[n++] = ':';
            continue;
        }
        if (i != 0)
            out[n++] = ':';
        // IPv4-compatible (::a.b.c.d) and IPv4-mapped (::ffff:a.b.c.d).
        if (i == 6 && best_base == 0 && (best_len == 6 || (best_len == 5 && words[5] == 0xFFFF))) {
            n += ntop4(a + 12, out + n);
            return n;
        }
        n += put_group(words[i], out + n);
    }
    if (best_base >= 0 && best_base + best_len == 8)
        out[n++] = ':';
    return n;
}

// glibc's inet_aton; the value in host order.
bool aton(const char* s, uint32_t* value) {
    static const uint32_t MAX_LAST[4] = {0xFFFFFFFFu, 0xFFFFFFu, 0xFFFFu, 0xFFu};
    uint32_t parts[3] = {0, 0, 0};
    int count = 0;
    uint64_t val = 0;
    for (;;) {
        if (!is_digit(*s))
            return false;
        val = 0;
        if (s[0] == '0' && (s[1] == 'x' || s[1] == 'X') && hex_value(s[2]) >= 0) {
            s += 2;
            for (int d; (d = hex_value(*s)) >= 0; ++s) {
                val = val << 4 | static_cast<unsigned>(d);
                if (val > 0xFFFFFFFFu)
                    return false;
            }
        } else if (s[0] == '0') {
            // Octal; "0x" without a hex digit is the number 0 followed by 'x'.
            for (++s; *s >= '0' && *s <= '7'; ++s) {
                val = val << 3 | static_cast<unsigned>(*s - '0');
                if (val > 0xFFFFFFFFu)
                    return false;
            }
        } else {
            for (; is_digit(*s); ++s) {
                val = val * 10 + static_cast<unsigned>(*s - '0');
                if (val > 0xFFFFFFFFu)
                    return false;
            }
        }
        if (*s != '.')
            break;
        if (count > 2 || val > 0xFF)
            return false;
        parts[count++] = static_cast<uint32_t>(val);
        ++s;
    }
    if (*s != '\0' && !is_space(*s))
        return false;
    if (val > MAX_LAST[count])
        return false;
    uint32_t v = static_cast<uint32_t>(val);
    for (int i = 0; i < count; ++i)
        v |= parts[i] << (24 - 8 * i);
    *value = v;
    return true;
}

uint32_t to_network(uint32_t host) {
    const uchar bytes[4] = {static_cast<uchar>(host >> 24), static_cast<uchar>(host >> 16),
                            static_cast<uchar>(host >> 8), static_cast<uchar>(host)};
    uint32_t out;
    memcpy(&out, bytes, 4);
    return out;
}

// inet_addr followed by ntohl: host order, INET_ADDR_NONE when refused.
uint32_t addr_host_order(const char* text) {
    uint32_t v = 0;
    return text && aton(text, &v) ? v : INET_ADDR_NONE;
}

// atoi without its undefined overflow: saturates.
long long prefix_value(const std::string& s) {
    size_t i = 0;
    while (i < s.size() && is_space(s[i]))
        ++i;
    bool negative = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-'))
        negative = s[i++] == '-';
    long long v = 0;
    for (; i < s.size() && is_digit(s[i]); ++i) {
        if (v < 1000)
            v = v * 10 + (s[i] - '0');
    }
    return negative ? -v : v;
}

bool all_digits(const char* s, size_t n, uint64_t limit) {
    if (n == 0 || n > 10)
        return false;
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) {
        if (!is_digit(s[i]))
            return false;
        v = v * 10 + static_cast<unsigned>(s[i] - '0');
    }
    return v <= limit;
}

// An IPv6 address with an optional "%" decimal scope id, s[0..n).
bool scoped_ipv6(const char* s, size_t n) {
    const char* pct = static_cast<const char*>(memchr(s, '%', n));
    const size_t addr_len = pct ? static_cast<size_t>(pct - s) : n;
    if (pct && !all_digits(pct + 1, n - addr_len - 1, 0xFFFFFFFFu))
        return false;
    char buf[INET6_ADDR_TEXT];
    if (addr_len >= sizeof(buf) || memchr(s, '\0', addr_len))
        return false;
    memcpy(buf, s, addr_len);
    buf[addr_len] = '\0';
    uchar bytes[16];
    return pton6(buf, bytes);
}

}  // namespace

int inet_pton(int af, const char* src, void* dst) {
    if (af == plat::FAMILY_INET)
        return src && dst && pton4(src, static_cast<uchar*>(dst)) ? 1 : 0;
    if (af == plat::FAMILY_INET6)
        return src && dst && pton6(src, static_cast<uchar*>(dst)) ? 1 : 0;
    errno = EAFNOSUPPORT;
    return -1;
}

const char* inet_ntop(int af, const void* src, char* dst, size_t size) {
    size_t (*format)(const uchar*, char*) = nullptr;
    if (af == plat::FAMILY_INET) {
        format = ntop4;
    } else if (af == plat::FAMILY_INET6) {
        format = ntop6;
    } else {
        errno = EAFNOSUPPORT;
        return nullptr;
    }
    if (!src || !dst) {
        errno = EINVAL;
        return nullptr;
    }
    // Formatted aside: the padded octet copies write scratch bytes past the
    // text, and the caller's buffer gets exactly the text and its NUL.
    char tmp[INET6_ADDR_TEXT + 4];
    const size_t n = format(static_cast<const uchar*>(src), tmp);
    if (n + 1 > size) {
        errno = ENOSPC;
        return nullptr;
    }
    tmp[n] = '\0';
    memcpy(dst, tmp, n + 1);
    return dst;
}

uint32_t inet_addr(const char* text) {
    uint32_t v = 0;
    return text && aton(text, &v) ? to_network(v) : INET_ADDR_NONE;
}

bool ipv4_test(const char* text) { return addr_host_order(text) != INET_ADDR_NONE; }

bool ipv6_test(const char* text) {
    if (!text)
        return false;
    const size_t n = strlen(text);
    if (n && text[0] == '[') {
        const char* close = static_cast<const char*>(memchr(text, ']', n));
        if (!close || !scoped_ipv6(text + 1, static_cast<size_t>(close - text - 1)))
            return false;
        const size_t rest = n - static_cast<size_t>(close - text) - 1;
        if (rest == 0)
            return true;
        return close[1] == ':' && all_digits(close + 2, rest - 1, 0xFFFF);
    }
    return scoped_ipv6(text, n);
}

bool ipv4_match_mask(const std::string& ip, const std::string& mask_str) {
    const size_t slash = mask_str.find('/');
    const std::string addr_part = mask_str.substr(0, slash);
    const std::string prefix_part = slash == std::string::npos ? std::string() : mask_str.substr(slash + 1);
    UTIL_LOG(LOG_INFO, "ipv4_match_mask"
                           << ", ipv4 = " << ip << ", mask_str = " << mask_str << ", mask = " << prefix_part);
    const std::string address = trim(ip);
    const std::string network = trim(addr_part);
    const std::string prefix = trim(prefix_part);
    if (prefix.empty())
        return address == network;

    long long bits = prefix_value(prefix);
    const uint32_t a = addr_host_order(address.c_str());
    const uint32_t b = addr_host_order(network.c_str());
    if (a == INET_ADDR_NONE || b == INET_ADDR_NONE) {
        const std::string& offending = a == INET_ADDR_NONE ? address : network;
        UTIL_LOG(LOG_WARNING, "ipv4_match_mask failed, ip = " << offending << ", mask_str = " << mask_str
                                                              << ", error = " << plat::last_error());
        return false;
    }
    if (bits <= 0)
        return true;
    if (bits > 32)
        bits = 32;
    const uint32_t keep = bits == 32 ? 0xFFFFFFFFu : ~(0xFFFFFFFFu >> bits);
    return (a & keep) == (b & keep);
}

bool ipv4_match_mask_list(const std::string& ip, const std::string& mask_list, char separator) {
    if (!ipv4_test(ip.c_str()))
        return false;
    std::vector<std::string> masks;
    split_string(mask_list, masks, separator, true);
    for (const std::string& mask : masks) {
        if (ipv4_match_mask(ip, mask))
            return true;
    }
    return false;
}

std::string fix_ipv6_adress(const std::string& text) {
    uchar bytes[16];
    if (text.size() >= INET6_ADDR_TEXT || !pton6(text.c_str(), bytes)) {
        UTIL_LOG(LOG_WARNING, "fix_ipv6_adress not match []"
                                  << ", ip = " << text);
        return std::string();
    }
    char out[40];
    for (int i = 0; i < 8; ++i) {
        out[5 * i] = HEX_DIGITS[bytes[2 * i] >> 4];
        out[5 * i + 1] = HEX_DIGITS[bytes[2 * i] & 0xF];
        out[5 * i + 2] = HEX_DIGITS[bytes[2 * i + 1] >> 4];
        out[5 * i + 3] = HEX_DIGITS[bytes[2 * i + 1] & 0xF];
        out[5 * i + 4] = ':';
    }
    return std::string(out, 39);
}

bool is_local_ipv4_address(const char* ip) {
    if (!ip) {
        UTIL_ASSERT_MSG("is_local_ipv4_address ip address could not be NULL", SOURCE_PATH, __LINE__, "");
        return false;
    }
    const uint32_t host = addr_host_order(ip);
    if (host == INET_ADDR_NONE)
        return false;
    if (host >> 24 == 127)
        return true;
    const uint32_t wanted = to_network(host);
    uint32_t local[64];
    int error = 0;
    int count = plat::local_ipv4_addresses(local, 64, &error);
    if (count < 0) {
        UTIL_LOG(LOG_WARNING, "is_local_ipv4_address failed, ip = " << ip << ", error = " << error);
        return false;
    }
    std::vector<uint32_t> more;
    const uint32_t* list = local;
    if (count > 64) {
        more.resize(static_cast<size_t>(count) + 16);
        count = plat::local_ipv4_addresses(more.data(), more.size(), &error);
        if (count < 0 || static_cast<size_t>(count) > more.size())
            return false;
        list = more.data();
    }
    for (int i = 0; i < count; ++i) {
        if (list[i] == wanted)
            return true;
    }
    return false;
}

}  // namespace ssb

#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>

#include <string>

#include "net_addr.h"
#include "platform/platform.h"
#include "test_log_support.h"
#include "test_support.h"

using namespace ssb;

namespace {

[[maybe_unused]] const ::testing::Environment* const s_socket_env =
    ::testing::AddGlobalTestEnvironment(new util_test::socket_environment_t);

const int V4 = plat::FAMILY_INET;
const int V6 = plat::FAMILY_INET6;

std::string hex(const unsigned char* p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

struct pton_case_t {
    int v6;  // 0 IPv4, 1 IPv6
    const char* text;
    int result;
    const char* bytes;  // hex, when accepted
};

TEST(InetPton, AcceptedTextsAndTheirBytes) {
    const pton_case_t cases[] = {
        {0, "1.2.3.4", 1, "01020304"},
        {0, "255.255.255.255", 1, "ffffffff"},
        {0, "01.2.3.4", 0, ""},
        {0, "1.2.3.4.5", 0, ""},
        {0, "1.2.3", 0, ""},
        {0, "256.1.1.1", 0, ""},
        {0, "", 0, ""},
        {1, "::1", 1, "00000000000000000000000000000001"},
        {1, "2001:DB8::Ff00:42:8329", 1, "20010db8000000000000ff0000428329"},
        {1, "1:2:3:4:5:6:7:8", 1, "00010002000300040005000600070008"},
        {1, "1:2:3:4:5:6:1.2.3.4", 1, "00010002000300040005000601020304"},
        {1, "1:2:3:4:5:6:7:8::", 0, ""},
        {1, "1:2:3:4:5:6:7:1.2.3.4", 0, ""},
        {1, "::1.2.3.04", 0, ""},
        {1, ":1::", 0, ""},
        {1, "1::2::3", 0, ""},
        {1, "1::2:", 0, ""},
        {1, "12345::", 0, ""},
        {1, "fe80::1%eth0", 0, ""},
    };
    for (const pton_case_t& c : cases) {
        unsigned char out[16];
        memset(out, 0xAA, sizeof(out));
        const int rv = inet_pton(c.v6 ? V6 : V4, c.text, out);
        EXPECT_EQ(c.result, rv) << c.text;
        if (rv == 1) {
            EXPECT_EQ(c.bytes, hex(out, c.v6 ? 16 : 4)) << c.text;
        } else {
            EXPECT_EQ(std::string(32, 'a'), hex(out, 16)) << "a refused text wrote: " << c.text;
        }
    }
}

TEST(InetPton, MisuseGivesErrors) {
    unsigned char out[16];
    errno = 0;
    EXPECT_EQ(-1, inet_pton(12345, "1.2.3.4", out));
    EXPECT_EQ(EAFNOSUPPORT, errno);
    EXPECT_EQ(0, inet_pton(V4, nullptr, out));
    EXPECT_EQ(0, inet_pton(V6, "::1", nullptr));
}

struct ntop_case_t {
    const char* bytes;
    const char* text;
};

std::string unhex(const char* s) {
    std::string out;
    for (size_t i = 0; s[i] && s[i + 1]; i += 2)
        out += static_cast<char>(std::stoi(std::string(s + i, 2), nullptr, 16));
    return out;
}

TEST(InetNtop, ZeroRunsAndEmbeddedIpv4Forms) {
    const ntop_case_t cases[] = {
        {"00000000000000000000000000000000", "::"},
        {"20010db8000000000000ff0000428329", "2001:db8::ff00:42:8329"},
        {"00010000000000020000000000000003", "1:0:0:2::3"},       // longest run wins
        {"00010000000000020000000000030004", "1::2:0:0:3:4"},     // first of equal runs
        {"00010000000200030004000500060007", "1:0:2:3:4:5:6:7"},  // a lone zero stays
        {"00000000000000000000ffff01020304", "::ffff:1.2.3.4"},   // mapped
        {"00000000000000000000000001020304", "::1.2.3.4"},        // compatible
        {"00000000000000000000000100000000", "::1:0:0"},          // no ffff: plain
        {"000000000000000000000000ffff0102", "::255.255.1.2"},    // any six leading zeros
        {"00010000000000000000ffff01020304", "1::ffff:102:304"},  // run not at 0
        {"0000abcd0000abcd0000abcd00000000", "0:abcd:0:abcd:0:abcd::"},
    };
    for (const ntop_case_t& c : cases) {
        const std::string bytes = unhex(c.bytes);
        char out[INET6_ADDR_TEXT];
        ASSERT_EQ(out, inet_ntop(V6, bytes.data(), out, sizeof(out))) << c.text;
        EXPECT_STREQ(c.text, out);
        unsigned char back[16];
        ASSERT_EQ(1, inet_pton(V6, out, back)) << out;
        EXPECT_EQ(0, memcmp(back, bytes.data(), 16)) << out;
    }
    const unsigned char v4[4] = {0, 10, 100, 255};
    char out[INET_ADDR_TEXT];
    EXPECT_STREQ("0.10.100.255", inet_ntop(V4, v4, out, sizeof(out)));
}

// Sizes, errors and untouched buffers are checked against glibc by the
// address fuzz target; these are the boundaries every system must meet.
TEST(InetNtop, BufferMustHoldTheTextAndItsNul) {
    const unsigned char v4[4] = {192, 168, 100, 200};
    char out[INET_ADDR_TEXT];
    memset(out, 'x', sizeof(out));
    errno = 0;
    EXPECT_EQ(nullptr, inet_ntop(V4, v4, out, 15));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ('x', out[0]) << "a refused call wrote into the buffer";
    EXPECT_STREQ("192.168.100.200", inet_ntop(V4, v4, out, 16));
    const std::string v6 = unhex("00000000000000000000000000000001");
    EXPECT_EQ(nullptr, inet_ntop(V6, v6.data(), out, 3));
    EXPECT_STREQ("::1", inet_ntop(V6, v6.data(), out, 4));
    errno = 0;
    EXPECT_EQ(nullptr, inet_ntop(V4, nullptr, out, sizeof(out)));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(nullptr, inet_ntop(999, v4, out, sizeof(out)));
    EXPECT_EQ(EAFNOSUPPORT, errno);
}

struct aton_case_t {
    const char* text;
    uint32_t host_order;  // INET_ADDR_NONE when refused
};

TEST(InetAddr, TheOldNumberForms) {
    const aton_case_t cases[] = {
        {"010.0x10.16.0", 0x08101000u},  // octal, hex, decimal parts
        {"0x7f.1", 0x7F000001u},         // a.b: b fills 24 bits
        {"10.1.65535", 0x0A01FFFFu},     // a.b.c: c fills 16 bits
        {"167772161", 0x0A000001u},      // one 32-bit number
        {"1.2.3.4 trailing words", 0x01020304u},
        {"255.255.255.255", INET_ADDR_NONE},  // the broadcast address reads as "none"
        {"4294967295", INET_ADDR_NONE},
        {"4294967296", INET_ADDR_NONE},
        {"0x100000000", INET_ADDR_NONE},
        {"256.1.1.1", INET_ADDR_NONE},
        {"1.2.3.4.5", INET_ADDR_NONE},
        {"1.2.65536", INET_ADDR_NONE},
        {"1.16777216", INET_ADDR_NONE},
        {"08.1.1.1", INET_ADDR_NONE},  // 8 is no octal digit
        {"0x.1.1.1", INET_ADDR_NONE},
        {" 1.2.3.4", INET_ADDR_NONE},
        {"1.2.3.4x", INET_ADDR_NONE},
    };
    for (const aton_case_t& c : cases) {
        const uint32_t net = inet_addr(c.text);
        const unsigned char* b = reinterpret_cast<const unsigned char*>(&net);
        const uint32_t host = static_cast<uint32_t>(b[0]) << 24 | b[1] << 16 | b[2] << 8 | b[3];
        EXPECT_EQ(c.host_order, host) << c.text;
        EXPECT_EQ(c.host_order != INET_ADDR_NONE, ipv4_test(c.text)) << c.text;
        if (plat::system_inet_reference()) {
            EXPECT_EQ(plat::system_inet_addr(c.text), net) << c.text;
        }
    }
    EXPECT_EQ(INET_ADDR_NONE, inet_addr(nullptr));
    EXPECT_FALSE(ipv4_test(nullptr));
}

TEST(Ipv6Test, AddressScopeAndBracketForms) {
    const struct {
        const char* text;
        bool expected;
    } cases[] = {
        {"::1", true},           {"::ffff:10.0.0.1", true},
        {"fe80::1%3", true},     {"[fe80::1%3]:443", true},
        {"[::1]", true},         {"[::1]:65535", true},
        {"[::1]:65536", false},  {"[::1]:", false},
        {"[::1", false},         {"fe80::1%", false},
        {"fe80::1%eth0", false}, {"1.2.3.4", false},
        {"1::2::3", false},      {"", false},
        {"[]", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.expected, ipv6_test(c.text)) << c.text;
    EXPECT_FALSE(ipv6_test(nullptr));
}

class MaskTest : public ::testing::Test {
protected:
    void SetUp() override { util_test::capture_util_log(&cap); }
    void TearDown() override { util_test::restore_log_routing(); }
    util_test::text_capture_t cap;
};

struct mask_case_t {
    const char* ip;
    const char* mask;
    bool expected;
};

TEST_F(MaskTest, PrefixesAndPlainAddresses) {
    const mask_case_t cases[] = {
        {"10.1.2.3", "10.1.0.0/16", true},
        {" 10.1.2.3 ", "10.1.2.3", true},
        {"10.1.2.3", "10.1.2.03", false},    // no prefix: the texts compare
        {"10.1.2.3", "10.1.2.03/32", true},  // with one: the addresses
        {"10.1.2.3", "192.168.0.1/-5", true},
        {"10.1.2.3", "10.1.2.2/33", false},  // beyond 32 acts as 32
        {"10.1.2.3", "10.1.2.2/31", true},
        {"10.1.2.3", "10.1.2.2/32", false},
        {"10.1.2.3", "10.1.2.2/31abc", true},  // atoi stops at the letters
        {"128.0.0.1", "0.0.0.0/1", false},
        {"255.255.255.255", "0.0.0.0/0", false},  // not an address to inet_addr
        {"", "", true},
    };
    for (const mask_case_t& c : cases)
        EXPECT_EQ(c.expected, ipv4_match_mask(c.ip, c.mask)) << c.ip << " / " << c.mask;
}

TEST_F(MaskTest, LogsTheCallAndTheFailure) {
    EXPECT_TRUE(ipv4_match_mask("10.1.2.3", "10.1.0.0/16"));
    EXPECT_TRUE(cap.contains("INFO\tipv4_match_mask, ipv4 = 10.1.2.3, mask_str = 10.1.0.0/16, mask = 16\n"));
    EXPECT_FALSE(cap.contains("ipv4_match_mask failed"));
    EXPECT_FALSE(ipv4_match_mask("10.1.2.3", "10.1.x.0/16"));
    EXPECT_TRUE(cap.contains("WARNING\tipv4_match_mask failed, ip = 10.1.x.0, mask_str = 10.1.x.0/16, error = "));
    cap.clear();
    EXPECT_FALSE(ipv4_match_mask(" bad ", "10.1.0.0/8"));
    EXPECT_TRUE(cap.contains("ipv4_match_mask failed, ip = bad, mask_str = 10.1.0.0/8"));
}

TEST_F(MaskTest, MaskListsNeedAnAddressAndOneMatchingEntry) {
    const mask_case_t cases[] = {
        {"10.1.2.3", "192.168.0.0/16; 10.0.0.0/8", true},
        {"10.1.2.3", "192.168.0.0/16;;  ; 172.16.0.0/12", false},
        {"10.1.2.3", " 10.1.2.3 ", true},
        {" 10.1.2.3", "0.0.0.0/0", false},  // ipv4_test sees the leading blank
        {"10.1.2.3 ", "0.0.0.0/0", true},   // inet_addr stops at trailing white space
        {"255.255.255.255", "255.255.255.255", false},
    };
    for (const mask_case_t& c : cases)
        EXPECT_EQ(c.expected, ipv4_match_mask_list(c.ip, c.mask, ';')) << c.ip << " in " << c.mask;
}

TEST_F(MaskTest, FixIpv6PadsEveryGroup) {
    const struct {
        const char* text;
        const char* fixed;
    } cases[] = {
        {"::1", "0000:0000:0000:0000:0000:0000:0000:0001"},
        {"2001:DB8::ff00:42:8329", "2001:0db8:0000:0000:0000:ff00:0042:8329"},
        {"::ffff:10.0.0.1", "0000:0000:0000:0000:0000:ffff:0a00:0001"},
        {"1:2:3:4:5:6:7:8", "0001:0002:0003:0004:0005:0006:0007:0008"},
        {"::", "0000:0000:0000:0000:0000:0000:0000:0000"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.fixed, fix_ipv6_adress(c.text)) << c.text;
    EXPECT_FALSE(cap.contains("fix_ipv6_adress not match"));
    EXPECT_EQ("", fix_ipv6_adress("1::2::3"));
    EXPECT_TRUE(cap.contains("fix_ipv6_adress not match [], ip = 1::2::3"));
    EXPECT_EQ("", fix_ipv6_adress(""));
    EXPECT_EQ("", fix_ipv6_adress(std::string(1000, ':')));
}

TEST_F(MaskTest, LocalAddresses) {
    EXPECT_TRUE(is_local_ipv4_address("127.0.0.1"));
    EXPECT_TRUE(is_local_ipv4_address("127.1.2.3"));
    EXPECT_TRUE(is_local_ipv4_address("0x7f000001"));
    EXPECT_FALSE(is_local_ipv4_address("192.0.2.1"));  // documentation range, never assigned
    EXPECT_FALSE(is_local_ipv4_address("not an address"));
    EXPECT_FALSE(is_local_ipv4_address("255.255.255.255"));
    EXPECT_FALSE(cap.contains("could not be NULL"));
    EXPECT_FALSE(is_local_ipv4_address(nullptr));
    EXPECT_TRUE(cap.contains(
        "FATAL\tassert: msg[is_local_ipv4_address ip address could not be NULL] file[.\\net_addr], line = ["));
}

}  // namespace

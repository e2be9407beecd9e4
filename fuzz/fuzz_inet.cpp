// The library's inet_pton, inet_ntop and inet_addr against glibc's: the same
// verdicts, bytes, texts and errors. Input: a text for the parsers; its
// first bytes also make an address (with zero groups and ffff spliced in
// so the compressed and IPv4 forms come up) and an output buffer size.
#include <arpa/inet.h>
#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "log.h"
#include "net_addr.h"

namespace {

void check_parse(const std::string& text) {
    const int families[2] = {AF_INET, AF_INET6};
    for (int af : families) {
        unsigned char ours[16];
        unsigned char theirs[16];
        memset(ours, 0xAA, sizeof(ours));
        memset(theirs, 0xAA, sizeof(theirs));
        const int a = ssb::inet_pton(af, text.c_str(), ours);
        const int b = ::inet_pton(af, text.c_str(), theirs);
        if (a != b || memcmp(ours, theirs, sizeof(ours)) != 0)
            abort();
    }
    if (ssb::inet_addr(text.c_str()) != ::inet_addr(text.c_str()))
        abort();
    if (ssb::ipv4_test(text.c_str()) != (::inet_addr(text.c_str()) != INADDR_NONE))
        abort();
    ssb::ipv6_test(text.c_str());
}

void check_format(const uint8_t* data, size_t size) {
    unsigned char addr[16] = {0};
    memcpy(addr, data, size < 16 ? size : 16);
    if (size > 16) {
        // Bit i of the byte clears group i; bit 0 of the next sets group 5
        // to ffff.
        for (int i = 0; i < 8; ++i) {
            if (data[16] >> i & 1)
                addr[2 * i] = addr[2 * i + 1] = 0;
        }
        if (size > 17 && (data[17] & 1))
            addr[10] = addr[11] = 0xFF;
    }
    const size_t room = size > 18 ? data[18] % 48 : ssb::INET6_ADDR_TEXT;
    const int families[2] = {AF_INET, AF_INET6};
    for (int af : families) {
        char ours[64];
        char theirs[64];
        memset(ours, 'x', sizeof(ours));
        memset(theirs, 'x', sizeof(theirs));
        errno = 0;
        const char* a = ssb::inet_ntop(af, addr, ours, room);
        const int ours_errno = errno;
        errno = 0;
        const char* b = ::inet_ntop(af, addr, theirs, static_cast<socklen_t>(room));
        const int theirs_errno = errno;
        if (!a != !b || memcmp(ours, theirs, sizeof(ours)) != 0)
            abort();
        if (!a && ours_errno != theirs_errno)
            abort();
        if (a) {
            unsigned char back[16];
            if (ssb::inet_pton(af, ours, back) != 1 || memcmp(back, addr, af == AF_INET ? 4 : 16) != 0)
                abort();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ssb::log_control_t::instance()->enable(255);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    check_parse(std::string(reinterpret_cast<const char*>(data), size).c_str());
    check_format(data, size);
    return 0;
}

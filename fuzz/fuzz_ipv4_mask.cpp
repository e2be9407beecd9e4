// ipv4_match_mask against a model written from its rules on top of glibc's
// inet_addr and atoi (with the prefix clamped before atoi can overflow), and
// ipv4_match_mask_list against split_string and a loop. Input: ip, a
// newline, mask text (or a mask list cut at ';').
#include <arpa/inet.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "log.h"
#include "net_addr.h"
#include "strutil.h"

namespace {

std::string model_trim(const std::string& s) {
    const char* ws = " \t\n\v\f\r";
    const size_t b = s.find_first_not_of(ws);
    if (b == std::string::npos)
        return std::string();
    return s.substr(b, s.find_last_not_of(ws) - b + 1);
}

bool model_match(const std::string& ip, const std::string& mask_str) {
    const size_t slash = mask_str.find('/');
    const std::string address = model_trim(ip);
    const std::string network = model_trim(mask_str.substr(0, slash));
    const std::string prefix = slash == std::string::npos ? std::string() : model_trim(mask_str.substr(slash + 1));
    if (prefix.empty())
        return address == network;
    // atoi on a sign and at most six significant digits: the same verdict as
    // atoi wherever atoi is defined.
    std::string digits;
    size_t i = 0;
    if (i < prefix.size() && (prefix[i] == '+' || prefix[i] == '-'))
        digits += prefix[i++];
    while (i + 1 < prefix.size() && prefix[i] == '0' && prefix[i + 1] >= '0' && prefix[i + 1] <= '9')
        ++i;
    while (i < prefix.size() && prefix[i] >= '0' && prefix[i] <= '9' && digits.size() < 7)
        digits += prefix[i++];
    const int bits = atoi(digits.c_str());
    if (address.find('\0') != std::string::npos || network.find('\0') != std::string::npos)
        return false;  // c_str() stops at the NUL: glibc sees a shorter text
    const in_addr_t a = ::inet_addr(address.c_str());
    const in_addr_t b = ::inet_addr(network.c_str());
    if (a == INADDR_NONE || b == INADDR_NONE)
        return false;
    if (bits <= 0)
        return true;
    const int n = bits > 32 ? 32 : bits;
    const uint32_t keep = n == 32 ? 0xFFFFFFFFu : ~(0xFFFFFFFFu >> n);
    return (ntohl(a) & keep) == (ntohl(b) & keep);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ssb::log_control_t::instance()->enable(255);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string all(reinterpret_cast<const char*>(data), size);
    const size_t nl = all.find('\n');
    const std::string ip = all.substr(0, nl);
    const std::string mask = nl == std::string::npos ? std::string() : all.substr(nl + 1);
    if (ip.find('\0') != std::string::npos || mask.find('\0') != std::string::npos)
        return 0;
    if (ssb::ipv4_match_mask(ip, mask) != model_match(ip, mask))
        abort();
    std::vector<std::string> masks;
    ssb::split_string(mask, masks, ';', true);
    bool any = false;
    for (const std::string& m : masks)
        any = any || model_match(ip, m);
    const bool listed = ::inet_addr(ip.c_str()) != INADDR_NONE && any;
    if (ssb::ipv4_match_mask_list(ip, mask, ';') != listed)
        abort();
    return 0;
}

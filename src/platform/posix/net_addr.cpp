#include <arpa/inet.h>
#include <errno.h>
#include <fnmatch.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "../platform.h"

namespace ssb {
namespace plat {

const int FAMILY_INET = AF_INET;
const int FAMILY_INET6 = AF_INET6;

int local_ipv4_addresses(uint32_t* out, size_t max, int* error) {
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        *error = errno;
        return -1;
    }
    int count = 0;
    for (struct ifaddrs* it = list; it; it = it->ifa_next) {
        if (!it->ifa_addr || it->ifa_addr->sa_family != AF_INET)
            continue;
        if (static_cast<size_t>(count) < max)
            out[count] = reinterpret_cast<const struct sockaddr_in*>(it->ifa_addr)->sin_addr.s_addr;
        ++count;
    }
    freeifaddrs(list);
    return count;
}

bool system_inet_reference() {
#if defined(__GLIBC__)
    return true;
#else
    return false;
#endif
}

int system_inet_pton(int af, const char* src, void* dst) { return ::inet_pton(af, src, dst); }

const char* system_inet_ntop(int af, const void* src, char* dst, size_t size) {
    return ::inet_ntop(af, src, dst, static_cast<socklen_t>(size));
}

uint32_t system_inet_addr(const char* text) { return ::inet_addr(text); }

int system_fnmatch(const char* pattern, const char* text) { return ::fnmatch(pattern, text, 0) == 0 ? 1 : 0; }

}  // namespace plat
}  // namespace ssb

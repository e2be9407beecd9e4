#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include "../platform.h"

namespace ssb {
namespace plat {

const int FAMILY_INET = AF_INET;
const int FAMILY_INET6 = AF_INET6;

// Windows lists the host's interface addresses under its own name, which
// needs no extra library beyond Winsock.
int local_ipv4_addresses(uint32_t* out, size_t max, int* error) {
    char host[256];
    if (gethostname(host, sizeof(host)) != 0) {
        *error = WSAGetLastError();
        return -1;
    }
    struct addrinfo hints;
    ZeroMemory(&hints, sizeof(hints));
    hints.ai_family = AF_INET;
    struct addrinfo* list = nullptr;
    const int rv = getaddrinfo(host, nullptr, &hints, &list);
    if (rv != 0) {
        *error = rv;
        return -1;
    }
    int count = 0;
    for (struct addrinfo* it = list; it; it = it->ai_next) {
        if (it->ai_family != AF_INET || !it->ai_addr)
            continue;
        if (static_cast<size_t>(count) < max)
            out[count] = reinterpret_cast<const struct sockaddr_in*>(it->ai_addr)->sin_addr.s_addr;
        ++count;
    }
    freeaddrinfo(list);
    return count;
}

bool system_inet_reference() { return false; }

int system_inet_pton(int af, const char* src, void* dst) { return ::inet_pton(af, src, dst); }

const char* system_inet_ntop(int af, const void* src, char* dst, size_t size) {
    return ::inet_ntop(af, src, dst, size);
}

uint32_t system_inet_addr(const char* text) { return ::inet_addr(text); }

int system_fnmatch(const char*, const char*) { return -1; }

}  // namespace plat
}  // namespace ssb

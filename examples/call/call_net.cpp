// The only file of the demo with OS calls: POSIX sockets or Winsock.
#include "call_net.h"

#ifdef _WIN32
#  include <winsock2.h>
#  include <ws2tcpip.h>
#  include <io.h>
#else
#  include <arpa/inet.h>
#  include <errno.h>
#  include <fcntl.h>
#  include <netinet/in.h>
#  include <sys/socket.h>
#  include <sys/uio.h>
#  include <unistd.h>
#endif

#include <string.h>

#include "msgblock.h"

namespace call {

namespace {

#ifdef _WIN32
typedef SOCKET native_t;
typedef int socklen_arg_t;
int last_error() { return WSAGetLastError(); }
bool would_block(int e) { return e == WSAEWOULDBLOCK; }
void close_native(native_t s) { closesocket(s); }
bool set_non_blocking(native_t s) {
    u_long on = 1;
    return ioctlsocket(s, FIONBIO, &on) == 0;
}
const native_t NATIVE_INVALID = INVALID_SOCKET;
#else
typedef int native_t;
typedef socklen_t socklen_arg_t;
int last_error() { return errno; }
bool would_block(int e) { return e == EAGAIN || e == EWOULDBLOCK; }
void close_native(native_t s) { close(s); }
bool set_non_blocking(native_t s) {
    const int flags = fcntl(s, F_GETFL, 0);
    return flags >= 0 && fcntl(s, F_SETFL, flags | O_NONBLOCK) == 0;
}
const native_t NATIVE_INVALID = -1;
#endif

native_t native(udp_socket_t s) { return static_cast<native_t>(s); }

// A UDP socket bound to an ephemeral port on 127.0.0.1.
native_t open_bound(sockaddr_in& addr, std::string& error) {
    native_t s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (s == NATIVE_INVALID) {
        error = "socket failed, error = " + std::to_string(last_error());
        return NATIVE_INVALID;
    }
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_arg_t len = sizeof(addr);
    if (bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        error = "bind failed, error = " + std::to_string(last_error());
        close_native(s);
        return NATIVE_INVALID;
    }
    return s;
}

}  // namespace

int udp_open_pair(udp_socket_t& sender, udp_socket_t& receiver, int recv_buffer, std::string& error) {
    sender = receiver = UDP_INVALID;
    sockaddr_in a, b;
    native_t s = open_bound(a, error);
    if (s == NATIVE_INVALID)
        return -1;
    native_t r = open_bound(b, error);
    if (r == NATIVE_INVALID) {
        close_native(s);
        return -1;
    }
    // A refusal only leaves the system's default: loopback loses nothing as
    // long as the reader keeps up, which the sender's window sees to.
    setsockopt(r, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char*>(&recv_buffer), sizeof(recv_buffer));
    if (connect(s, reinterpret_cast<sockaddr*>(&b), sizeof(b)) != 0 ||
        connect(r, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 || !set_non_blocking(r)) {
        error = "connect failed, error = " + std::to_string(last_error());
        close_native(s);
        close_native(r);
        return -1;
    }
    sender = static_cast<udp_socket_t>(s);
    receiver = static_cast<udp_socket_t>(r);
    return 0;
}

void udp_close(udp_socket_t& s) {
    if (s != UDP_INVALID)
        close_native(native(s));
    s = UDP_INVALID;
}

int udp_recv_buffer(udp_socket_t s) {
    int size = 0;
    socklen_arg_t len = sizeof(size);
    if (getsockopt(native(s), SOL_SOCKET, SO_RCVBUF, reinterpret_cast<char*>(&size), &len) != 0)
        return 0;
    return size;
}

int udp_send(udp_socket_t s, const void* data, unsigned int len, int& error) {
    const int n = static_cast<int>(send(native(s), static_cast<const char*>(data), static_cast<int>(len), 0));
    if (n < 0)
        error = last_error();
    return n;
}

int udp_send_chain(udp_socket_t s, const ssb::msg_db_t* chain, int& error) {
#ifdef _WIN32
    WSABUF pieces[UDP_MAX_PIECES];
#else
    struct iovec pieces[UDP_MAX_PIECES];
#endif
    unsigned int n = 0;
    if (chain->fill_iov(pieces, UDP_MAX_PIECES, &n) != 0) {
        error = 0;
        return -1;
    }
#ifdef _WIN32
    DWORD sent = 0;
    if (WSASend(native(s), pieces, n, &sent, 0, nullptr, nullptr) != 0) {
        error = last_error();
        return -1;
    }
    return static_cast<int>(sent);
#else
    struct msghdr message;
    memset(&message, 0, sizeof(message));
    message.msg_iov = pieces;
    message.msg_iovlen = n;
    const int sent = static_cast<int>(sendmsg(native(s), &message, 0));
    if (sent < 0)
        error = last_error();
    return sent;
#endif
}

int udp_recv(udp_socket_t s, void* buf, unsigned int cap, int& error) {
    const int n = static_cast<int>(recv(native(s), static_cast<char*>(buf), static_cast<int>(cap), 0));
    if (n >= 0)
        return n;
    error = last_error();
    return would_block(error) ? 0 : -1;
}

bool is_terminal(FILE* stream) {
#ifdef _WIN32
    return _isatty(_fileno(stream)) != 0;
#else
    return isatty(fileno(stream)) != 0;
#endif
}

}  // namespace call

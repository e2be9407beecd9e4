#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <string.h>

#include "../platform.h"

namespace ssb {
namespace plat {

static_assert(static_cast<socket_handle_t>(INVALID_SOCKET) == INVALID_SOCKET_HANDLE,
              "INVALID_SOCKET must be the invalid handle");
static_assert(sizeof(SOCKET) <= sizeof(socket_handle_t), "a SOCKET must fit the handle");

namespace {

SOCKET sock_of(socket_handle_t s) { return static_cast<SOCKET>(s); }

HANDLE handle_of(pipe_handle_t h) { return reinterpret_cast<HANDLE>(h); }

int wsa_error() { return WSAGetLastError(); }

int win_error() { return static_cast<int>(GetLastError()); }

// Sockets are inheritable by default; a child process must not keep the
// pair's ends open.
void no_inherit(SOCKET s) { SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0); }

sockaddr_in loopback(uint16_t port) {
    sockaddr_in a;
    memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

}  // namespace

int socket_startup() {
    WSADATA data;
    // WSAStartup returns its error rather than setting the last error.
    return WSAStartup(MAKEWORD(2, 2), &data);
}

int socket_cleanup() { return WSACleanup() == 0 ? 0 : wsa_error(); }

int socket_last_error() { return wsa_error(); }

bool socket_would_block(int error) { return error == WSAEWOULDBLOCK; }

bool socket_connect_pending(int error) { return error == WSAEWOULDBLOCK || error == WSAEINPROGRESS; }

bool socket_interrupted(int error) { return error == WSAEINTR; }

int socket_open_tcp4(socket_handle_t* out) {
    *out = INVALID_SOCKET_HANDLE;
    SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == INVALID_SOCKET)
        return wsa_error();
    no_inherit(s);
    *out = static_cast<socket_handle_t>(s);
    return 0;
}

int socket_close(socket_handle_t s) { return closesocket(sock_of(s)) == 0 ? 0 : wsa_error(); }

int socket_set_nonblocking(socket_handle_t s) {
    u_long on = 1;
    return ioctlsocket(sock_of(s), FIONBIO, &on) == 0 ? 0 : wsa_error();
}

int socket_set_nodelay(socket_handle_t s) {
    BOOL on = TRUE;
    return setsockopt(sock_of(s), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof(on)) == 0
               ? 0
               : wsa_error();
}

int socket_bind_loopback(socket_handle_t s, uint16_t port) {
    sockaddr_in a = loopback(port);
    return bind(sock_of(s), reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 ? 0 : wsa_error();
}

int socket_listen(socket_handle_t s, int backlog) { return listen(sock_of(s), backlog) == 0 ? 0 : wsa_error(); }

int socket_local_port(socket_handle_t s, uint16_t* port) {
    sockaddr_in a;
    int len = sizeof(a);
    if (getsockname(sock_of(s), reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return wsa_error();
    *port = ntohs(a.sin_port);
    return 0;
}

int socket_connect_loopback(socket_handle_t s, uint16_t port) {
    sockaddr_in a = loopback(port);
    return connect(sock_of(s), reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 ? 0 : wsa_error();
}

int socket_accept(socket_handle_t s, socket_handle_t* out) {
    *out = INVALID_SOCKET_HANDLE;
    SOCKET a = accept(sock_of(s), nullptr, nullptr);
    if (a == INVALID_SOCKET)
        return wsa_error();
    no_inherit(a);
    *out = static_cast<socket_handle_t>(a);
    return 0;
}

int socket_send(socket_handle_t s, const void* data, size_t size, size_t* sent) {
    *sent = 0;
    int n = send(sock_of(s), static_cast<const char*>(data), static_cast<int>(size), 0);
    if (n == SOCKET_ERROR)
        return wsa_error();
    *sent = static_cast<size_t>(n);
    return 0;
}

int socket_recv(socket_handle_t s, void* data, size_t size, size_t* received) {
    *received = 0;
    int n = recv(sock_of(s), static_cast<char*>(data), static_cast<int>(size), 0);
    if (n == SOCKET_ERROR)
        return wsa_error();
    *received = static_cast<size_t>(n);
    return 0;
}

io_wait_t socket_wait_readable(socket_handle_t s, int timeout_ms, int* error) {
    // One socket: FD_SETSIZE is never a limit here.
    fd_set readable;
    fd_set exceptional;
    FD_ZERO(&readable);
    FD_ZERO(&exceptional);
    FD_SET(sock_of(s), &readable);
    FD_SET(sock_of(s), &exceptional);
    timeval tv;
    tv.tv_sec = timeout_ms / 1000;
    tv.tv_usec = (timeout_ms % 1000) * 1000;
    int rc = select(0, &readable, nullptr, &exceptional, timeout_ms < 0 ? nullptr : &tv);
    if (rc == 0)
        return IO_TIMED_OUT;
    if (rc == SOCKET_ERROR) {
        *error = wsa_error();
        return IO_ERROR;
    }
    if (FD_ISSET(sock_of(s), &exceptional))
        return IO_EXCEPTION;
    if (FD_ISSET(sock_of(s), &readable))
        return IO_READABLE;
    return IO_NOTHING;
}

// ---- pipes --------------------------------------------------------------------

int pipe_open(pipe_handle_t* read_end, pipe_handle_t* write_end) {
    *read_end = INVALID_PIPE_HANDLE;
    *write_end = INVALID_PIPE_HANDLE;
    HANDLE r = nullptr;
    HANDLE w = nullptr;
    // No security attributes: neither end is inherited.
    if (!CreatePipe(&r, &w, nullptr, 0))
        return win_error();
    // PIPE_NOWAIT on an anonymous pipe: an empty read fails with
    // ERROR_NO_DATA and a full write completes with nothing written, so a
    // signaller never blocks on a reader that is not reading.
    DWORD read_mode = PIPE_READMODE_BYTE | PIPE_NOWAIT;
    DWORD write_mode = PIPE_NOWAIT;
    if (!SetNamedPipeHandleState(r, &read_mode, nullptr, nullptr) ||
        !SetNamedPipeHandleState(w, &write_mode, nullptr, nullptr)) {
        int error = win_error();
        CloseHandle(r);
        CloseHandle(w);
        return error;
    }
    *read_end = reinterpret_cast<pipe_handle_t>(r);
    *write_end = reinterpret_cast<pipe_handle_t>(w);
    return 0;
}

int pipe_close(pipe_handle_t h) { return CloseHandle(handle_of(h)) ? 0 : win_error(); }

int pipe_write(pipe_handle_t h, const void* data, size_t size, size_t* written) {
    *written = 0;
    DWORD n = 0;
    if (!WriteFile(handle_of(h), data, static_cast<DWORD>(size), &n, nullptr))
        return win_error();
    *written = n;
    return 0;
}

int pipe_read(pipe_handle_t h, void* data, size_t size, size_t* got) {
    *got = 0;
    DWORD n = 0;
    if (!ReadFile(handle_of(h), data, static_cast<DWORD>(size), &n, nullptr))
        return win_error();
    *got = n;
    return 0;
}

bool pipe_would_block(int error) { return error == ERROR_NO_DATA; }

bool pipe_interrupted(int) { return false; }

io_wait_t pipe_wait_readable(pipe_handle_t h, int timeout_ms, int* error) {
    // Anonymous pipes cannot be selected or waited on, so the byte count is
    // polled: a few yields first (a writer on another core is usually quick),
    // then 1 ms sleeps, which the scheduler may stretch to its tick.
    const int YIELDS = 16;
    ULONGLONG start = GetTickCount64();
    for (int round = 0;; ++round) {
        DWORD available = 0;
        if (!PeekNamedPipe(handle_of(h), nullptr, 0, nullptr, &available, nullptr)) {
            *error = win_error();
            return IO_ERROR;
        }
        if (available > 0)
            return IO_READABLE;
        if (timeout_ms >= 0 && GetTickCount64() - start >= static_cast<ULONGLONG>(timeout_ms))
            return IO_TIMED_OUT;
        if (round < YIELDS)
            SwitchToThread();
        else
            Sleep(1);
    }
}

}  // namespace plat
}  // namespace ssb

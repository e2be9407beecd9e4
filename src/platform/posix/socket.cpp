#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "../platform.h"

namespace ssb {
namespace plat {

static_assert(static_cast<socket_handle_t>(-1) == INVALID_SOCKET_HANDLE, "-1 must widen to the invalid handle");
static_assert(static_cast<pipe_handle_t>(-1) == INVALID_PIPE_HANDLE, "-1 must widen to the invalid handle");

namespace {

int fd_of(socket_handle_t s) { return static_cast<int>(s); }

socket_handle_t handle_of(int fd) { return static_cast<socket_handle_t>(static_cast<intptr_t>(fd)); }

[[maybe_unused]] int set_cloexec(int fd) { return fcntl(fd, F_SETFD, FD_CLOEXEC) == 0 ? 0 : errno; }

int set_nonblock(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0)
        return errno;
    return 0;
}

// EINTR counts as closed: Linux has released the descriptor by then, and a
// second close could hit one that another thread has just been given.
int close_fd(int fd) { return close(fd) == 0 || errno == EINTR ? 0 : errno; }

sockaddr_in loopback(uint16_t port) {
    sockaddr_in a;
    memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// Turns poll's answer into the shape select gives: a descriptor with an
// error or hang-up is readable (the read reports it), urgent data is an
// exception, and a closed descriptor is an error as select would say.
io_wait_t wait_fd(int fd, int timeout_ms, bool urgent_is_exception, int* error) {
    pollfd p;
    p.fd = fd;
    p.events = static_cast<short>(POLLIN | (urgent_is_exception ? POLLPRI : 0));
    p.revents = 0;
    int rc = poll(&p, 1, timeout_ms < 0 ? -1 : timeout_ms);
    if (rc == 0)
        return IO_TIMED_OUT;
    if (rc < 0) {
        *error = errno;
        return IO_ERROR;
    }
    if (p.revents & POLLNVAL) {
        *error = EBADF;
        return IO_ERROR;
    }
    if (urgent_is_exception && (p.revents & POLLPRI))
        return IO_EXCEPTION;
    return IO_READABLE;
}

}  // namespace

int socket_startup() { return 0; }

int socket_cleanup() { return 0; }

int socket_last_error() { return errno; }

bool socket_would_block(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

bool socket_connect_pending(int error) { return error == EINPROGRESS || socket_would_block(error); }

bool socket_interrupted(int error) { return error == EINTR; }

namespace {

// Takes a new socket fd: close-on-exec when the call could not set it, no
// SIGPIPE where the system has the option. 0 or the OS error number.
int adopt(int fd, bool cloexec_done, socket_handle_t* out) {
    if (fd < 0)
        return errno;
    if (!cloexec_done) {
        int rc = set_cloexec(fd);
        if (rc != 0) {
            close_fd(fd);
            return rc;
        }
    }
#if defined(SO_NOSIGPIPE)
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &one, sizeof(one));
#endif
    *out = handle_of(fd);
    return 0;
}

}  // namespace

int socket_open_tcp4(socket_handle_t* out) {
    *out = INVALID_SOCKET_HANDLE;
#if defined(SOCK_CLOEXEC)
    return adopt(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP), true, out);
#else
    return adopt(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP), false, out);
#endif
}

int socket_close(socket_handle_t s) { return close_fd(fd_of(s)); }

int socket_set_nonblocking(socket_handle_t s) { return set_nonblock(fd_of(s)); }

int socket_set_nodelay(socket_handle_t s) {
    int one = 1;
    return setsockopt(fd_of(s), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one)) == 0 ? 0 : errno;
}

int socket_bind_loopback(socket_handle_t s, uint16_t port) {
    sockaddr_in a = loopback(port);
    return bind(fd_of(s), reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 ? 0 : errno;
}

int socket_listen(socket_handle_t s, int backlog) { return listen(fd_of(s), backlog) == 0 ? 0 : errno; }

int socket_local_port(socket_handle_t s, uint16_t* port) {
    sockaddr_in a;
    socklen_t len = sizeof(a);
    if (getsockname(fd_of(s), reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return errno;
    *port = ntohs(a.sin_port);
    return 0;
}

int socket_connect_loopback(socket_handle_t s, uint16_t port) {
    sockaddr_in a = loopback(port);
    return connect(fd_of(s), reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 ? 0 : errno;
}

int socket_accept(socket_handle_t s, socket_handle_t* out) {
    *out = INVALID_SOCKET_HANDLE;
#if defined(__linux__)
    return adopt(accept4(fd_of(s), nullptr, nullptr, SOCK_CLOEXEC), true, out);
#else
    return adopt(accept(fd_of(s), nullptr, nullptr), false, out);
#endif
}

int socket_send(socket_handle_t s, const void* data, size_t size, size_t* sent) {
#if defined(MSG_NOSIGNAL)
    const int flags = MSG_NOSIGNAL;
#else
    const int flags = 0;
#endif
    *sent = 0;
    ssize_t n = send(fd_of(s), data, size, flags);
    if (n < 0)
        return errno;
    *sent = static_cast<size_t>(n);
    return 0;
}

int socket_recv(socket_handle_t s, void* data, size_t size, size_t* received) {
    *received = 0;
    ssize_t n = recv(fd_of(s), data, size, 0);
    if (n < 0)
        return errno;
    *received = static_cast<size_t>(n);
    return 0;
}

io_wait_t socket_wait_readable(socket_handle_t s, int timeout_ms, int* error) {
    return wait_fd(fd_of(s), timeout_ms, true, error);
}

// ---- pipes --------------------------------------------------------------------

int pipe_open(pipe_handle_t* read_end, pipe_handle_t* write_end) {
    *read_end = INVALID_PIPE_HANDLE;
    *write_end = INVALID_PIPE_HANDLE;
    int fds[2];
#if defined(__linux__)
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0)
        return errno;
#else
    if (pipe(fds) != 0)
        return errno;
    for (int fd : fds) {
        int rc = set_cloexec(fd);
        if (rc == 0)
            rc = set_nonblock(fd);
        if (rc != 0) {
            close_fd(fds[0]);
            close_fd(fds[1]);
            return rc;
        }
    }
#endif
    *read_end = static_cast<pipe_handle_t>(static_cast<intptr_t>(fds[0]));
    *write_end = static_cast<pipe_handle_t>(static_cast<intptr_t>(fds[1]));
    return 0;
}

int pipe_close(pipe_handle_t h) { return close_fd(static_cast<int>(h)); }

int pipe_write(pipe_handle_t h, const void* data, size_t size, size_t* written) {
    *written = 0;
    ssize_t n = write(static_cast<int>(h), data, size);
    if (n < 0)
        return errno;
    *written = static_cast<size_t>(n);
    return 0;
}

int pipe_read(pipe_handle_t h, void* data, size_t size, size_t* got) {
    *got = 0;
    ssize_t n = read(static_cast<int>(h), data, size);
    if (n < 0)
        return errno;
    *got = static_cast<size_t>(n);
    return 0;
}

bool pipe_would_block(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

bool pipe_interrupted(int error) { return error == EINTR; }

io_wait_t pipe_wait_readable(pipe_handle_t h, int timeout_ms, int* error) {
    return wait_fd(static_cast<int>(h), timeout_ms, false, error);
}

}  // namespace plat
}  // namespace ssb

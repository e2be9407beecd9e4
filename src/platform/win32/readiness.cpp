#include <winsock2.h>
#include <windows.h>

#include <vector>

#include "../platform.h"

namespace ssb {
namespace plat {

namespace {

// Winsock's select reads fd_count and then that many sockets, whatever
// FD_SETSIZE the caller was compiled with; a set of our own size avoids
// changing fd_set for the whole program.
struct wide_fd_set_t {
    u_int fd_count;
    SOCKET fd_array[SOCKET_WAIT_MAX];
};

fd_set* as_fd_set(wide_fd_set_t* s) { return reinterpret_cast<fd_set*>(s); }

bool in_set(const wide_fd_set_t& s, SOCKET h) {
    for (u_int i = 0; i < s.fd_count; ++i)
        if (s.fd_array[i] == h)
            return true;
    return false;
}

}  // namespace

int socket_wait_any(socket_ready_t* entries, size_t count, int timeout_ms, int* error) {
    if (count == 0 || count > SOCKET_WAIT_MAX) {
        *error = WSAEINVAL;
        return -1;
    }
    // Three sets of about 8 KiB each: kept off the stack of threads that
    // may have been given a small one.
    std::vector<wide_fd_set_t> sets(3);
    wide_fd_set_t& readable = sets[0];
    wide_fd_set_t& writable = sets[1];
    wide_fd_set_t& failed = sets[2];
    readable.fd_count = writable.fd_count = failed.fd_count = 0;
    for (size_t i = 0; i < count; ++i) {
        const SOCKET h = static_cast<SOCKET>(entries[i].handle);
        entries[i].ready = 0;
        if (entries[i].wanted & READY_READ)
            readable.fd_array[readable.fd_count++] = h;
        if (entries[i].wanted & READY_WRITE)
            writable.fd_array[writable.fd_count++] = h;
        failed.fd_array[failed.fd_count++] = h;
    }
    timeval tv;
    timeval* limit = nullptr;
    if (timeout_ms >= 0) {
        tv.tv_sec = timeout_ms / 1000;
        tv.tv_usec = (timeout_ms % 1000) * 1000;
        limit = &tv;
    }
    int rc = select(0, readable.fd_count ? as_fd_set(&readable) : nullptr,
                    writable.fd_count ? as_fd_set(&writable) : nullptr, as_fd_set(&failed), limit);
    if (rc == SOCKET_ERROR) {
        *error = WSAGetLastError();
        return -1;
    }
    int ready = 0;
    for (size_t i = 0; i < count && rc > 0; ++i) {
        const SOCKET h = static_cast<SOCKET>(entries[i].handle);
        uint32_t bits = 0;
        if ((entries[i].wanted & READY_READ) && in_set(readable, h))
            bits |= READY_READ;
        if ((entries[i].wanted & READY_WRITE) && in_set(writable, h))
            bits |= READY_WRITE;
        if (in_set(failed, h))
            bits |= READY_ERROR;
        entries[i].ready = bits;
        if (bits)
            ++ready;
    }
    return ready;
}

wait_status_t event_wait_any(const event_handle_t* events, size_t count, uint32_t timeout_ms, size_t* index,
                             int* error) {
    if (count == 0 || count > EVENT_WAIT_MAX) {
        *error = ERROR_INVALID_PARAMETER;
        return WAIT_ERROR;
    }
    HANDLE handles[EVENT_WAIT_MAX];
    for (size_t i = 0; i < count; ++i)
        handles[i] = static_cast<HANDLE>(events[i]);
    DWORD rc = WaitForMultipleObjects(static_cast<DWORD>(count), handles, FALSE,
                                      timeout_ms == WAIT_FOREVER ? INFINITE : timeout_ms);
    if (rc == WAIT_TIMEOUT)
        return WAIT_TIMED_OUT;
    if (rc < WAIT_OBJECT_0 + count) {
        *index = rc - WAIT_OBJECT_0;
        return WAIT_SIGNALLED;
    }
    if (rc >= WAIT_ABANDONED_0 && rc < WAIT_ABANDONED_0 + count) {
        *index = rc - WAIT_ABANDONED_0;
        return WAIT_OWNER_ABANDONED;
    }
    *error = static_cast<int>(GetLastError());
    return WAIT_ERROR;
}

bool pipe_waitable() { return false; }

}  // namespace plat
}  // namespace ssb

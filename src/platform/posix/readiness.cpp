#include <errno.h>
#include <poll.h>
#include <time.h>

#include <vector>

#include "../platform.h"

namespace ssb {
namespace plat {

// In sync.cpp, beside the event they look into.
int event_fd_of(event_handle_t h);
bool event_take_signal(event_handle_t h);

namespace {

int64_t monotonic_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

int socket_wait_any(socket_ready_t* entries, size_t count, int timeout_ms, int* error) {
    std::vector<pollfd> fds(count);
    for (size_t i = 0; i < count; ++i) {
        fds[i].fd = static_cast<int>(entries[i].handle);
        fds[i].events = static_cast<short>(((entries[i].wanted & READY_READ) ? POLLIN : 0) |
                                           ((entries[i].wanted & READY_WRITE) ? POLLOUT : 0));
        fds[i].revents = 0;
        entries[i].ready = 0;
    }
    int rc = poll(fds.data(), static_cast<nfds_t>(count), timeout_ms < 0 ? -1 : timeout_ms);
    if (rc < 0) {
        *error = errno;
        return -1;
    }
    int ready = 0;
    for (size_t i = 0; i < count && rc > 0; ++i) {
        const short r = fds[i].revents;
        uint32_t bits = 0;
        if (r & POLLIN)
            bits |= READY_READ;
        if (r & POLLOUT)
            bits |= READY_WRITE;
        if (r & (POLLERR | POLLHUP | POLLNVAL))
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
        *error = EINVAL;
        return WAIT_ERROR;
    }
    pollfd fds[EVENT_WAIT_MAX];
    for (size_t i = 0; i < count; ++i) {
        fds[i].fd = event_fd_of(events[i]);
        fds[i].events = POLLIN;
    }
    const int64_t deadline = timeout_ms == WAIT_FOREVER ? 0 : monotonic_ms() + timeout_ms;
    for (;;) {
        int wait_ms = -1;
        if (timeout_ms != WAIT_FOREVER) {
            const int64_t left = deadline - monotonic_ms();
            wait_ms = left > 0 ? static_cast<int>(left) : 0;
        }
        for (size_t i = 0; i < count; ++i)
            fds[i].revents = 0;
        int rc = poll(fds, static_cast<nfds_t>(count), wait_ms);
        if (rc < 0) {
            if (errno == EINTR)
                continue;
            *error = errno;
            return WAIT_ERROR;
        }
        for (size_t i = 0; i < count && rc > 0; ++i) {
            if (fds[i].revents & POLLNVAL) {
                *error = EBADF;
                return WAIT_ERROR;
            }
            // Readable only says it was signalled when polled; another
            // waiter may have taken an auto-reset signal since.
            if ((fds[i].revents & POLLIN) && event_take_signal(events[i])) {
                *index = i;
                return WAIT_SIGNALLED;
            }
        }
        if (wait_ms == 0)
            return WAIT_TIMED_OUT;
    }
}

bool pipe_waitable() { return true; }

}  // namespace plat
}  // namespace ssb

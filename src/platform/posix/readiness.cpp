#include <errno.h>
#include <poll.h>

#include <vector>

#include "../platform.h"

namespace ssb {
namespace plat {

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

// event_wait_any lives in sync.cpp, beside the event it looks into.

bool pipe_waitable() { return true; }

}  // namespace plat
}  // namespace ssb

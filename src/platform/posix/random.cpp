#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/random.h>
#include <unistd.h>

#include "platform/platform.h"

namespace ssb {
namespace plat {

namespace {

int read_urandom(unsigned char* out, size_t n) {
    const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    int error = 0;
    while (n) {
        const ssize_t got = read(fd, out, n);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            error = got < 0 ? errno : EIO;
            break;
        }
        out += got;
        n -= static_cast<size_t>(got);
    }
    close(fd);
    return error;
}

int fill_random(unsigned char* out, size_t n) {
    while (n) {
        const ssize_t got = getrandom(out, n, 0);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            // Kernels before 3.17, or a sandbox that forbids the call.
            if (errno == ENOSYS || errno == EPERM)
                return read_urandom(out, n);
            return errno;
        }
        out += got;
        n -= static_cast<size_t>(got);
    }
    return 0;
}

}  // namespace

int uuid_create(unsigned char out[16]) {
    memset(out, 0, 16);
    const int error = fill_random(out, 16);
    // Version 4 in the top nibble of the third group (a little-endian
    // 16-bit field, so byte 7), variant 10 in the top bits of byte 8.
    out[7] = static_cast<unsigned char>((out[7] & 0x0F) | 0x40);
    out[8] = static_cast<unsigned char>((out[8] & 0x3F) | 0x80);
    return error;
}

}  // namespace plat
}  // namespace ssb

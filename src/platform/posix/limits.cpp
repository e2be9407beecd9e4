#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/platform.h"

namespace ssb {
namespace plat {

bool descriptor_limit_supported() { return true; }

bool thread_terminate_supported() { return false; }

int lowest_free_descriptor() {
    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd >= 0)
        ::close(fd);
    return fd;
}

int set_descriptor_limit(unsigned long limit) {
    rlimit r;
    if (getrlimit(RLIMIT_NOFILE, &r) != 0)
        return errno;
    r.rlim_cur = static_cast<rlim_t>(limit);
    return setrlimit(RLIMIT_NOFILE, &r) == 0 ? 0 : errno;
}

unsigned long descriptor_limit() {
    rlimit r;
    return getrlimit(RLIMIT_NOFILE, &r) == 0 ? static_cast<unsigned long>(r.rlim_cur) : 0;
}

}  // namespace plat
}  // namespace ssb

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "../platform.h"

namespace ssb {
namespace plat {

namespace {

std::string posix_path(const char* path) {
    std::string p(path);
    for (size_t i = 0; i < p.size(); ++i) {
        if (p[i] == '\\')
            p[i] = '/';
    }
    return p;
}

std::atomic<unsigned> s_temp_serial(0);

int write_all(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return errno;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return 0;
}

}  // namespace

FILE* open_read_file(const char* path) {
    if (!path || !*path)
        return nullptr;
    return fopen(posix_path(path).c_str(), "rb");
}

int replace_file(const char* path, const char* data, size_t size) {
    if (!path || !*path)
        return EINVAL;
    std::string target = posix_path(path);
    // Through a link, replace what it points to and keep the link.
    if (char* real = realpath(target.c_str(), nullptr)) {
        target = real;
        free(real);
    }
    struct stat old;
    bool exists = stat(target.c_str(), &old) == 0;
    mode_t mode = 0;
    if (exists) {
        if (S_ISDIR(old.st_mode))
            return EISDIR;
        // access() says yes to root for any file; the mode bits say what the
        // owner meant.
        if ((old.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0 || access(target.c_str(), W_OK) != 0)
            return EACCES;
        mode = old.st_mode & 07777;
    }
    char suffix[48];
    snprintf(suffix, sizeof(suffix), ".%u.%u.tmp", static_cast<unsigned>(getpid()),
             s_temp_serial.fetch_add(1, std::memory_order_relaxed));
    std::string temp = target + suffix;
    // A new file gets the usual mode through the umask; an old one keeps its.
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, exists ? 0600 : 0666);
    if (fd < 0)
        return errno;
    int rc = write_all(fd, data, size);
    if (rc == 0 && exists && fchmod(fd, mode) != 0)
        rc = errno;
    if (rc == 0 && fsync(fd) != 0)
        rc = errno;
    if (close(fd) != 0 && rc == 0)
        rc = errno;
    if (rc == 0 && rename(temp.c_str(), target.c_str()) != 0)
        rc = errno;
    if (rc != 0)
        unlink(temp.c_str());
    return rc;
}

}  // namespace plat
}  // namespace ssb

#include <dirent.h>

#include "platform/platform.h"

namespace ssb {
namespace plat {

namespace {

// Entries of a /proc directory other than "." and "..", or -1.
int count_entries(const char* path) {
    DIR* dir = opendir(path);
    if (!dir)
        return -1;
    int n = 0;
    while (dirent* e = readdir(dir))
        if (e->d_name[0] != '.')
            ++n;
    closedir(dir);
    return n;
}

}  // namespace

int os_thread_count() { return count_entries("/proc/self/task"); }

// The directory's own descriptor is open while it is read: not counted.
int open_handle_count() {
    const int n = count_entries("/proc/self/fd");
    return n < 0 ? -1 : n - 1;
}

}  // namespace plat
}  // namespace ssb

#include <stdio.h>
#include <string.h>

#include <util/lock.h>
#include <util/util.h>

int main() {
    unsigned int major = 0, minor = 0;
    const char* banner = nullptr;
    util_version(&major, &minor, &banner);
    util_init(1, nullptr, nullptr, nullptr, 0, 0);
    ssb::thread_mutex_recursive lock;
    int rv = lock.acquire();
    lock.release();
    util_uninit(1);
    if (major != 1 || !banner || strncmp(banner, "UTIL", 4) != 0 || rv != ssb::RESULT_SUCCESS) {
        printf("consumer: unexpected result\n");
        return 1;
    }
    printf("consumer: %s\n", banner);
    return 0;
}

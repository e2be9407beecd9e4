// A host program using util the way a client does: two modules initialise
// the library, one tears down, the last one stops everything.
#include <stdio.h>

#include "util.h"

int main() {
    unsigned int major = 0, minor = 0;
    const char* banner = nullptr;
    util_version(&major, &minor, &banner);
    printf("util %u.%u: %s\n", major, minor, banner);

    // Module 100 (the client) and module 200 (a plug-in) both use the library.
    util_init(100, nullptr, "demo_host", "log", 0, 0);
    printf("module 100 initialised the library\n");
    util_init(200, nullptr, nullptr, nullptr, 0, 0);
    printf("module 200 initialised the library (counted, no second start-up)\n");

    util_uninit(200);
    printf("module 200 released the library; services still running\n");
    util_uninit(100);
    printf("module 100 released the library; services stopped\n");
    return 0;
}

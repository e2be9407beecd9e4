#include <pthread.h>
#include <unistd.h>

#include "../platform.h"

namespace ssb {
namespace plat {

uint32_t page_size() {
    long size = sysconf(_SC_PAGESIZE);
    return size > 0 ? static_cast<uint32_t>(size) : 4096u;
}

bool exit_slot_alloc(exit_slot_t* slot, exit_slot_fn fn) {
    pthread_key_t key;
    if (pthread_key_create(&key, fn) != 0)
        return false;
    *slot = static_cast<exit_slot_t>(key);
    return true;
}

bool exit_slot_set(exit_slot_t slot, void* value) {
    return pthread_setspecific(static_cast<pthread_key_t>(slot), value) == 0;
}

}  // namespace plat
}  // namespace ssb

#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "../platform.h"

namespace ssb {
namespace plat {

uint32_t current_thread_id() {
    // gettid is a system call; cache it per thread.
    static thread_local uint32_t s_tid = 0;
    if (s_tid == 0)
        s_tid = static_cast<uint32_t>(syscall(SYS_gettid));
    return s_tid;
}

uint32_t current_process_id() { return static_cast<uint32_t>(getpid()); }

void yield_thread() { sched_yield(); }

void sleep_ms(uint32_t ms) {
    struct timespec ts;
    ts.tv_sec = ms / 1000;
    ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

int last_error() { return errno; }

bool tls_index_alloc(tls_index_t* index) {
    pthread_key_t key;
    if (pthread_key_create(&key, nullptr) != 0)
        return false;
    *index = static_cast<tls_index_t>(key);
    return true;
}

void tls_index_free(tls_index_t index) { pthread_key_delete(static_cast<pthread_key_t>(index)); }

void* tls_index_get(tls_index_t index) { return pthread_getspecific(static_cast<pthread_key_t>(index)); }

bool tls_index_set(tls_index_t index, void* value) {
    return pthread_setspecific(static_cast<pthread_key_t>(index), value) == 0;
}

}  // namespace plat
}  // namespace ssb

#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <string>

#include "../platform.h"

namespace ssb {
namespace plat {

// Absolute CLOCK_MONOTONIC deadline `ms` from now; event.cpp's waits use
// it too.
struct timespec deadline_after(uint32_t ms) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    ts.tv_sec += ms / 1000;
    ts.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec += 1;
        ts.tv_nsec -= 1000000000L;
    }
    return ts;
}

namespace {

void init_recursive(pthread_mutex_t* m) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(m, &attr);
    pthread_mutexattr_destroy(&attr);
}

}  // namespace

// ---- critical section -------------------------------------------------------
//
// A recursive lock over one futex word, spinning briefly before it sleeps as
// a Win32 critical section with a spin count does. The queues' writers hold
// it for a few dozen instructions, so a waiter whose owner runs on another
// core is let in within the spin, where a sleeping one would cost two system
// calls and a wake-up. The word is 0 free, 1 held, 2 held with sleepers
// possible (the classic three-state futex mutex).

namespace {

const uint32_t CS_FREE = 0;
const uint32_t CS_HELD = 1;
const uint32_t CS_CONTENDED = 2;

struct cs_t {
    std::atomic<uint32_t> word;
    // The holder's pthread_self, 0 when free. Only the holder stores its
    // own identity here, so a thread that reads its own is the holder.
    std::atomic<uintptr_t> owner;
    // Entries by the holder; the holder alone touches it.
    uint32_t depth;
};

static_assert(sizeof(cs_t) <= CS_STORAGE_SIZE, "critical section storage too small");

cs_t* as_cs(void* storage) { return static_cast<cs_t*>(storage); }

uintptr_t self_id() { return static_cast<uintptr_t>(pthread_self()); }

inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
}

// Enters again, or takes a free section: true when `me` now holds it.
bool try_take(cs_t* cs, uintptr_t me) {
    if (cs->owner.load(std::memory_order_relaxed) == me) {
        ++cs->depth;
        return true;
    }
    uint32_t expected = CS_FREE;
    if (!cs->word.compare_exchange_strong(expected, CS_HELD, std::memory_order_acquire, std::memory_order_relaxed))
        return false;
    cs->owner.store(me, std::memory_order_relaxed);
    cs->depth = 1;
    return true;
}

void cs_lock_contended(cs_t* cs) {
    // Polls back off (1, 2, 4, ... pauses apart): each poll pulls the word's
    // line away from the holder, whose release then waits for it.
    for (int spent = 0, gap = 1; spent < CS_SPIN_COUNT; spent += gap, gap *= 2) {
        uint32_t seen = cs->word.load(std::memory_order_relaxed);
        if (seen == CS_FREE &&
            cs->word.compare_exchange_weak(seen, CS_HELD, std::memory_order_acquire, std::memory_order_relaxed))
            return;
        for (int i = 0; i < gap; ++i)
            cpu_relax();
    }
    // Taken as contended: the unlock that follows wakes one sleeper, which
    // may be needless once, never lost. A spinner that took the word as
    // held past a sleeper is safe too: the unlock it overtook woke one, and
    // that one marks the word contended again before it sleeps.
    while (cs->word.exchange(CS_CONTENDED, std::memory_order_acquire) != CS_FREE)
        syscall(SYS_futex, reinterpret_cast<uint32_t*>(&cs->word), FUTEX_WAIT_PRIVATE, CS_CONTENDED, nullptr, nullptr,
                0);
}

}  // namespace

void cs_init(void* storage) {
    cs_t* cs = new (storage) cs_t;
    cs->word.store(CS_FREE, std::memory_order_relaxed);
    cs->owner.store(0, std::memory_order_relaxed);
    cs->depth = 0;
}

void cs_destroy(void* storage) { as_cs(storage)->~cs_t(); }

void cs_enter(void* storage) {
    cs_t* cs = as_cs(storage);
    const uintptr_t me = self_id();
    if (try_take(cs, me))
        return;
    cs_lock_contended(cs);
    cs->owner.store(me, std::memory_order_relaxed);
    cs->depth = 1;
}

bool cs_try_enter(void* storage) { return try_take(as_cs(storage), self_id()); }

void cs_leave(void* storage) {
    cs_t* cs = as_cs(storage);
    if (--cs->depth != 0)
        return;
    cs->owner.store(0, std::memory_order_relaxed);
    if (cs->word.exchange(CS_FREE, std::memory_order_release) == CS_CONTENDED)
        syscall(SYS_futex, reinterpret_cast<uint32_t*>(&cs->word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

// ---- mutex --------------------------------------------------------------------

mutex_handle_t mutex_create() {
    pthread_mutex_t* m = new (std::nothrow) pthread_mutex_t;
    if (m)
        init_recursive(m);
    return m;
}

void mutex_close(mutex_handle_t h) {
    pthread_mutex_t* m = static_cast<pthread_mutex_t*>(h);
    pthread_mutex_destroy(m);
    delete m;
}

wait_status_t mutex_lock(mutex_handle_t h, uint32_t timeout_ms) {
    pthread_mutex_t* m = static_cast<pthread_mutex_t*>(h);
    int rc;
    if (timeout_ms == WAIT_FOREVER) {
        rc = pthread_mutex_lock(m);
    } else if (timeout_ms == 0) {
        rc = pthread_mutex_trylock(m);
    } else {
        struct timespec ts = deadline_after(timeout_ms);
        rc = pthread_mutex_clocklock(m, CLOCK_MONOTONIC, &ts);
    }
    if (rc == 0)
        return WAIT_SIGNALLED;
    if (rc == EBUSY || rc == ETIMEDOUT)
        return WAIT_TIMED_OUT;
    errno = rc;
    return WAIT_ERROR;
}

int mutex_unlock(mutex_handle_t h) { return pthread_mutex_unlock(static_cast<pthread_mutex_t*>(h)); }

// ---- semaphore ------------------------------------------------------------------
//
// Named semaphores live in the system namespace until unlinked; the object
// that created one unlinks it when it closes, the nearest match to a Win32
// named semaphore vanishing with its handles.

namespace {

struct posix_semaphore_t {
    sem_t* sem;
    sem_t unnamed;
    std::string path;
    bool owner;
};

std::string sem_path(const char* name) {
    std::string path = "/";
    for (const char* p = name; *p; ++p)
        path += (*p == '/') ? '_' : *p;
    return path;
}

}  // namespace

semaphore_handle_t semaphore_create(int initial, int maximum, const char* name, int* error) {
    (void)maximum;
    *error = 0;
    posix_semaphore_t* s = new (std::nothrow) posix_semaphore_t;
    if (!s) {
        *error = ENOMEM;
        return nullptr;
    }
    s->owner = false;
    if (!name || !*name) {
        if (sem_init(&s->unnamed, 0, static_cast<unsigned>(initial)) != 0) {
            *error = errno;
            delete s;
            return nullptr;
        }
        s->sem = &s->unnamed;
        return s;
    }
    s->path = sem_path(name);
    s->sem = sem_open(s->path.c_str(), O_CREAT | O_EXCL, 0600, static_cast<unsigned>(initial));
    if (s->sem != SEM_FAILED) {
        s->owner = true;
        return s;
    }
    if (errno == EEXIST) {
        // Like CreateSemaphore: an existing name is opened and reported.
        s->sem = sem_open(s->path.c_str(), 0);
        if (s->sem != SEM_FAILED) {
            *error = EEXIST;
            return s;
        }
    }
    *error = errno;
    delete s;
    return nullptr;
}

semaphore_handle_t semaphore_open(const char* name, int* error) {
    *error = 0;
    if (!name || !*name) {
        *error = EINVAL;
        return nullptr;
    }
    posix_semaphore_t* s = new (std::nothrow) posix_semaphore_t;
    if (!s) {
        *error = ENOMEM;
        return nullptr;
    }
    s->owner = false;
    s->path = sem_path(name);
    s->sem = sem_open(s->path.c_str(), 0);
    if (s->sem == SEM_FAILED) {
        *error = errno;
        delete s;
        return nullptr;
    }
    return s;
}

void semaphore_close(semaphore_handle_t h) {
    posix_semaphore_t* s = static_cast<posix_semaphore_t*>(h);
    if (s->sem == &s->unnamed) {
        sem_destroy(&s->unnamed);
    } else {
        sem_close(s->sem);
        if (s->owner)
            sem_unlink(s->path.c_str());
    }
    delete s;
}

wait_status_t semaphore_wait(semaphore_handle_t h, uint32_t timeout_ms) {
    sem_t* sem = static_cast<posix_semaphore_t*>(h)->sem;
    int rc;
    if (timeout_ms == WAIT_FOREVER) {
        while ((rc = sem_wait(sem)) != 0 && errno == EINTR) {
        }
    } else if (timeout_ms == 0) {
        while ((rc = sem_trywait(sem)) != 0 && errno == EINTR) {
        }
        if (rc != 0 && errno == EAGAIN)
            return WAIT_TIMED_OUT;
    } else {
        struct timespec ts = deadline_after(timeout_ms);
        while ((rc = sem_clockwait(sem, CLOCK_MONOTONIC, &ts)) != 0 && errno == EINTR) {
        }
    }
    if (rc == 0)
        return WAIT_SIGNALLED;
    return errno == ETIMEDOUT ? WAIT_TIMED_OUT : WAIT_ERROR;
}

int semaphore_post(semaphore_handle_t h, uint32_t n, int* previous) {
    sem_t* sem = static_cast<posix_semaphore_t*>(h)->sem;
    if (previous) {
        int value = 0;
        sem_getvalue(sem, &value);
        *previous = value;
    }
    for (uint32_t i = 0; i < n; ++i) {
        if (sem_post(sem) != 0)
            return errno;
    }
    return 0;
}

int semaphore_value(semaphore_handle_t h, int* value) {
    if (sem_getvalue(static_cast<posix_semaphore_t*>(h)->sem, value) != 0)
        return errno;
    return 0;
}

}  // namespace plat
}  // namespace ssb

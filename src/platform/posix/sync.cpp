#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

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

static_assert(sizeof(pthread_mutex_t) <= CS_STORAGE_SIZE, "critical section storage too small");

// ---- critical section -------------------------------------------------------

void cs_init(void* storage) { init_recursive(new (storage) pthread_mutex_t); }

void cs_destroy(void* storage) { pthread_mutex_destroy(static_cast<pthread_mutex_t*>(storage)); }

void cs_enter(void* storage) { pthread_mutex_lock(static_cast<pthread_mutex_t*>(storage)); }

bool cs_try_enter(void* storage) { return pthread_mutex_trylock(static_cast<pthread_mutex_t*>(storage)) == 0; }

void cs_leave(void* storage) { pthread_mutex_unlock(static_cast<pthread_mutex_t*>(storage)); }

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

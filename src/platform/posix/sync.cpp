#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <stdint.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <string>

#include "../platform.h"

namespace ssb {
namespace plat {

namespace {

// Absolute CLOCK_MONOTONIC deadline `ms` from now.
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

// ---- event --------------------------------------------------------------------
//
// A Win32 event built from a mutex and a condition variable. A pulse bumps
// `generation`, which releases the threads already waiting without leaving
// the event set. A wait on several events (event_wait_any) links a watcher
// into each of them; a signal wakes the watchers through their own condition
// variable, so a sleeping thread is woken with one futex call rather than a
// descriptor write, poll and read.

namespace {

struct watcher_t {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    bool fired;
    // Signallers between leaving the event's lock and signalling `cond`:
    // the waiting thread keeps the watcher until they are done.
    std::atomic<int> signallers;
};

// One watcher's link in one event's list; lives on the waiting stack.
struct watch_link_t {
    watcher_t* watcher;
    watch_link_t* prev;
    watch_link_t* next;
};

struct posix_event_t {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    bool manual;
    bool signalled;
    uint32_t generation;
    uint32_t waiters;
    watch_link_t* watchers;
};

void init_monotonic_cond(pthread_cond_t* cond) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(cond, &attr);
    pthread_condattr_destroy(&attr);
}

// The watchers woken by one signal; more than this are signalled under the
// event's lock.
const size_t WAKE_BATCH = 8;

// Under the event's lock: marks the watchers fired and returns up to
// WAKE_BATCH of them for wake_after_unlock. The watcher's lock is only ever
// taken inside an event's, never the other way round.
size_t fire_watchers(posix_event_t* e, watcher_t** batch) {
    size_t n = 0;
    for (watch_link_t* link = e->watchers; link; link = link->next) {
        watcher_t* w = link->watcher;
        pthread_mutex_lock(&w->mutex);
        const bool was_fired = w->fired;
        w->fired = true;
        pthread_mutex_unlock(&w->mutex);
        if (was_fired)
            continue;
        if (n < WAKE_BATCH) {
            w->signallers.fetch_add(1, std::memory_order_relaxed);
            batch[n++] = w;
        } else {
            pthread_cond_signal(&w->cond);
        }
    }
    return n;
}

// After the event's lock is released, so that the woken thread, which
// takes that lock to unlink itself, does not block on it at once and cost
// a second wake-up.
void wake_after_unlock(watcher_t** batch, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        pthread_cond_signal(&batch[i]->cond);
        batch[i]->signallers.fetch_sub(1, std::memory_order_release);
    }
}

// Under the event's lock: takes a signal if there is one (an auto-reset
// event resets, so it wakes one wait, as on Windows).
bool take_signal(posix_event_t* e) {
    if (!e->signalled)
        return false;
    if (!e->manual)
        e->signalled = false;
    return true;
}

}  // namespace

event_handle_t event_create(bool manual_reset, bool initially_signalled) {
    posix_event_t* e = new (std::nothrow) posix_event_t;
    if (!e)
        return nullptr;
    pthread_mutex_init(&e->mutex, nullptr);
    init_monotonic_cond(&e->cond);
    e->manual = manual_reset;
    e->signalled = initially_signalled;
    e->generation = 0;
    e->waiters = 0;
    e->watchers = nullptr;
    return e;
}

void event_close(event_handle_t h) {
    posix_event_t* e = static_cast<posix_event_t*>(h);
    pthread_cond_destroy(&e->cond);
    pthread_mutex_destroy(&e->mutex);
    delete e;
}

int event_signal(event_handle_t h) {
    posix_event_t* e = static_cast<posix_event_t*>(h);
    watcher_t* batch[WAKE_BATCH];
    pthread_mutex_lock(&e->mutex);
    e->signalled = true;
    const size_t n = fire_watchers(e, batch);
    if (e->waiters) {
        if (e->manual)
            pthread_cond_broadcast(&e->cond);
        else
            pthread_cond_signal(&e->cond);
    }
    pthread_mutex_unlock(&e->mutex);
    wake_after_unlock(batch, n);
    return 0;
}

int event_pulse(event_handle_t h) {
    posix_event_t* e = static_cast<posix_event_t*>(h);
    pthread_mutex_lock(&e->mutex);
    // Only the threads inside event_wait meet a pulse; watchers are not
    // woken by it.
    if (e->waiters == 0) {
        e->signalled = false;
    } else if (e->manual) {
        ++e->generation;
        e->signalled = false;
        pthread_cond_broadcast(&e->cond);
    } else {
        // The one waiter that wakes takes the signal and resets the event.
        e->signalled = true;
        pthread_cond_signal(&e->cond);
    }
    pthread_mutex_unlock(&e->mutex);
    return 0;
}

int event_reset(event_handle_t h) {
    posix_event_t* e = static_cast<posix_event_t*>(h);
    pthread_mutex_lock(&e->mutex);
    e->signalled = false;
    pthread_mutex_unlock(&e->mutex);
    return 0;
}

wait_status_t event_wait(event_handle_t h, uint32_t timeout_ms) {
    posix_event_t* e = static_cast<posix_event_t*>(h);
    struct timespec deadline;
    if (timeout_ms != WAIT_FOREVER)
        deadline = deadline_after(timeout_ms);
    pthread_mutex_lock(&e->mutex);
    const uint32_t generation = e->generation;
    bool timed_out = false;
    ++e->waiters;
    while (!e->signalled && e->generation == generation && !timed_out) {
        if (timeout_ms == WAIT_FOREVER)
            pthread_cond_wait(&e->cond, &e->mutex);
        else if (timeout_ms == 0)
            timed_out = true;
        else
            timed_out = pthread_cond_timedwait(&e->cond, &e->mutex, &deadline) == ETIMEDOUT;
    }
    --e->waiters;
    wait_status_t status = WAIT_TIMED_OUT;
    if (take_signal(e)) {
        status = WAIT_SIGNALLED;
    } else if (e->generation != generation) {
        status = WAIT_SIGNALLED;
    }
    pthread_mutex_unlock(&e->mutex);
    return status;
}

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

// ---- waiting on several events ----------------------------------------------------

namespace ssb {
namespace plat {

namespace {

void unlink_watch(posix_event_t* e, watch_link_t* link) {
    pthread_mutex_lock(&e->mutex);
    if (link->prev)
        link->prev->next = link->next;
    else
        e->watchers = link->next;
    if (link->next)
        link->next->prev = link->prev;
    pthread_mutex_unlock(&e->mutex);
}

// Takes the lowest signalled event; with `links`, watches every event up to
// the one found. The number of events linked, and *found (or count).
size_t scan_events(const event_handle_t* events, size_t count, watch_link_t* links, size_t* found) {
    *found = count;
    size_t linked = 0;
    for (size_t i = 0; i < count; ++i) {
        posix_event_t* e = static_cast<posix_event_t*>(events[i]);
        pthread_mutex_lock(&e->mutex);
        const bool taken = take_signal(e);
        if (!taken && links) {
            links[i].prev = nullptr;
            links[i].next = e->watchers;
            if (e->watchers)
                e->watchers->prev = &links[i];
            e->watchers = &links[i];
            ++linked;
        }
        pthread_mutex_unlock(&e->mutex);
        if (taken) {
            *found = i;
            break;
        }
    }
    return linked;
}

}  // namespace

wait_status_t event_wait_any(const event_handle_t* events, size_t count, uint32_t timeout_ms, size_t* index,
                             int* error) {
    if (count == 0 || count > EVENT_WAIT_MAX) {
        *error = EINVAL;
        return WAIT_ERROR;
    }
    struct timespec deadline;
    if (timeout_ms != WAIT_FOREVER && timeout_ms != 0)
        deadline = deadline_after(timeout_ms);
    watcher_t w;
    pthread_mutex_init(&w.mutex, nullptr);
    init_monotonic_cond(&w.cond);
    w.fired = false;
    w.signallers.store(0, std::memory_order_relaxed);
    watch_link_t links[EVENT_WAIT_MAX];
    for (size_t i = 0; i < count; ++i)
        links[i].watcher = &w;
    wait_status_t status = WAIT_TIMED_OUT;
    bool timed_out = false;
    for (;;) {
        size_t found = count;
        const size_t linked = scan_events(events, count, timeout_ms == 0 ? nullptr : links, &found);
        if (found == count && timeout_ms != 0) {
            pthread_mutex_lock(&w.mutex);
            while (!w.fired && !timed_out) {
                if (timeout_ms == WAIT_FOREVER)
                    pthread_cond_wait(&w.cond, &w.mutex);
                else
                    timed_out = pthread_cond_timedwait(&w.cond, &w.mutex, &deadline) == ETIMEDOUT;
            }
            w.fired = false;
            pthread_mutex_unlock(&w.mutex);
        }
        for (size_t i = 0; i < linked; ++i)
            unlink_watch(static_cast<posix_event_t*>(events[i]), &links[i]);
        if (found == count)
            scan_events(events, count, nullptr, &found);
        if (found != count) {
            *index = found;
            status = WAIT_SIGNALLED;
            break;
        }
        // Woken for a signal another wait took first: watch again.
        if (timed_out || timeout_ms == 0)
            break;
    }
    while (w.signallers.load(std::memory_order_acquire) != 0)
        sched_yield();
    pthread_cond_destroy(&w.cond);
    pthread_mutex_destroy(&w.mutex);
    return status;
}

}  // namespace plat
}  // namespace ssb

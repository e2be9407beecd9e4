// Win32 events on POSIX, over futexes.
//
// An event is a state word (signalled or not) and a list of the waits that
// watch it. Every wait, on one event or on many, sleeps on a word of its own
// on its stack; a signal that finds the event watched marks each watcher's
// word fired and wakes, with one futex call, those that had gone to sleep. A
// signal that finds nobody watching is one exchange and one load, without a
// lock or a system call.
//
// The watcher's word is woken after the event's lock is released, so the
// woken thread never blocks on that lock at once; it may have returned by
// then (a time-out, another event), and a futex wake on a word nobody sleeps
// on is harmless: every wait re-checks its word and sleeps again when woken
// for nothing. So no wait ever waits for its signallers to leave.
#include <errno.h>
#include <linux/futex.h>
#include <pthread.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "../platform.h"

namespace ssb {
namespace plat {

namespace {

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "a futex word is a plain 32-bit word");

// A watcher's word.
const uint32_t WATCH_ARMED = 0;
const uint32_t WATCH_SLEEPING = 1;
const uint32_t WATCH_FIRED = 2;

uint32_t* futex_address(std::atomic<uint32_t>* word) { return reinterpret_cast<uint32_t*>(word); }

// Sleeps while *word is `expected`, until the absolute CLOCK_MONOTONIC
// `deadline` (null: no limit). False only when the deadline has passed;
// true may be a spurious wake-up.
bool futex_sleep(std::atomic<uint32_t>* word, uint32_t expected, const struct timespec* deadline) {
    const long rc = syscall(SYS_futex, futex_address(word), FUTEX_WAIT_BITSET_PRIVATE, expected, deadline, nullptr,
                            FUTEX_BITSET_MATCH_ANY);
    return rc == 0 || errno != ETIMEDOUT;
}

void futex_wake_one(std::atomic<uint32_t>* word) {
    syscall(SYS_futex, futex_address(word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

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

// One sleeping wait; lives on the waiting thread's stack.
struct watcher_t {
    std::atomic<uint32_t> word;
    // event_wait's waiters meet pulses, event_wait_any's do not.
    bool takes_pulse;
    // Set by a pulse that released this waiter.
    std::atomic<bool> pulsed;
};

// One watcher's link in one event's list.
struct watch_link_t {
    watcher_t* watcher;
    watch_link_t* prev;
    watch_link_t* next;
};

struct posix_event_t {
    std::atomic<uint32_t> signalled;
    // Links in `watchers`: while 0 a signal takes no lock. Raised before a
    // watcher re-checks `signalled`, and read by a signaller after it set
    // `signalled` (both seq_cst): one of the two sees the other.
    std::atomic<uint32_t> watched;
    bool manual;
    pthread_mutex_t mutex;
    // Guarded by `mutex`.
    watch_link_t* watchers;
};

// The watchers woken after the lock by one signal; more than this are woken
// under it.
const size_t WAKE_BATCH = 8;

// Takes the event's signal if it has one; an auto-reset event resets, so a
// signal wakes one wait, as on Windows.
bool take_signal(posix_event_t* e) {
    if (e->manual)
        return e->signalled.load(std::memory_order_seq_cst) != 0;
    uint32_t one = 1;
    return e->signalled.compare_exchange_strong(one, 0, std::memory_order_seq_cst);
}

// Under the event's lock: marks a watcher fired; true when it sleeps and
// needs a futex wake.
bool fire(watcher_t* w) { return w->word.exchange(WATCH_FIRED, std::memory_order_acq_rel) == WATCH_SLEEPING; }

// Wakes the fired sleepers, after the lock.
void wake_all(watcher_t** batch, size_t n) {
    for (size_t i = 0; i < n; ++i)
        futex_wake_one(&batch[i]->word);
}

void link_watch(posix_event_t* e, watch_link_t* link) {
    pthread_mutex_lock(&e->mutex);
    link->prev = nullptr;
    link->next = e->watchers;
    if (e->watchers)
        e->watchers->prev = link;
    e->watchers = link;
    e->watched.fetch_add(1, std::memory_order_seq_cst);
    pthread_mutex_unlock(&e->mutex);
}

void unlink_watch(posix_event_t* e, watch_link_t* link) {
    pthread_mutex_lock(&e->mutex);
    if (link->prev)
        link->prev->next = link->next;
    else
        e->watchers = link->next;
    if (link->next)
        link->next->prev = link->prev;
    e->watched.fetch_sub(1, std::memory_order_relaxed);
    pthread_mutex_unlock(&e->mutex);
}

// The lowest of `count` events whose signal could be taken, or count.
size_t take_any(const event_handle_t* events, size_t count) {
    for (size_t i = 0; i < count; ++i)
        if (take_signal(static_cast<posix_event_t*>(events[i])))
            return i;
    return count;
}

// Sleeps on the watcher's word until it is fired or the deadline passes.
// False on time-out. The word is re-armed first, and `ready` re-checked
// after that, so a signal that fired the word before it was re-armed is
// still seen.
template <class ready_fn>
bool sleep_until_fired(watcher_t* w, const struct timespec* deadline, ready_fn ready) {
    for (;;) {
        w->word.store(WATCH_ARMED, std::memory_order_seq_cst);
        if (ready())
            return true;
        uint32_t armed = WATCH_ARMED;
        if (w->word.compare_exchange_strong(armed, WATCH_SLEEPING, std::memory_order_seq_cst)) {
            while (w->word.load(std::memory_order_acquire) == WATCH_SLEEPING) {
                if (!futex_sleep(&w->word, WATCH_SLEEPING, deadline)) {
                    // Awake again: a signal before the unlink needs no
                    // futex wake.
                    w->word.exchange(WATCH_ARMED, std::memory_order_acq_rel);
                    return false;
                }
            }
        }
        // Fired: the signal may have been taken by another wait, so look.
        if (ready())
            return true;
    }
}

}  // namespace

event_handle_t event_create(bool manual_reset, bool initially_signalled) {
    posix_event_t* e = new (std::nothrow) posix_event_t;
    if (!e)
        return nullptr;
    e->signalled.store(initially_signalled ? 1 : 0, std::memory_order_relaxed);
    e->watched.store(0, std::memory_order_relaxed);
    e->manual = manual_reset;
    pthread_mutex_init(&e->mutex, nullptr);
    e->watchers = nullptr;
    return e;
}

void event_close(event_handle_t h) {
    posix_event_t* e = static_cast<posix_event_t*>(h);
    pthread_mutex_destroy(&e->mutex);
    delete e;
}

int event_signal(event_handle_t h) {
    posix_event_t* e = static_cast<posix_event_t*>(h);
    // A read-modify-write even when the event is set already: the wait that
    // takes the signal reads from it, so what the signaller did before (a
    // push into a queue) is visible to that wait. Already set: whoever set
    // it wakes the watchers, and a wait not yet watching takes it itself.
    if (e->signalled.exchange(1, std::memory_order_seq_cst) != 0)
        return 0;
    if (e->watched.load(std::memory_order_seq_cst) == 0)
        return 0;
    watcher_t* batch[WAKE_BATCH];
    size_t n = 0;
    pthread_mutex_lock(&e->mutex);
    for (watch_link_t* link = e->watchers; link; link = link->next) {
        if (!fire(link->watcher))
            continue;
        if (n < WAKE_BATCH)
            batch[n++] = link->watcher;
        else
            futex_wake_one(&link->watcher->word);
    }
    pthread_mutex_unlock(&e->mutex);
    wake_all(batch, n);
    return 0;
}

int event_pulse(event_handle_t h) {
    posix_event_t* e = static_cast<posix_event_t*>(h);
    watcher_t* batch[WAKE_BATCH];
    size_t n = 0;
    pthread_mutex_lock(&e->mutex);
    // Only the threads inside event_wait meet a pulse: all of them for a
    // manual-reset event, one for an auto-reset one. The event is left reset.
    e->signalled.store(0, std::memory_order_seq_cst);
    for (watch_link_t* link = e->watchers; link; link = link->next) {
        watcher_t* w = link->watcher;
        if (!w->takes_pulse || w->pulsed.load(std::memory_order_relaxed))
            continue;
        w->pulsed.store(true, std::memory_order_relaxed);
        if (fire(w)) {
            if (n < WAKE_BATCH)
                batch[n++] = w;
            else
                futex_wake_one(&w->word);
        }
        if (!e->manual)
            break;
    }
    pthread_mutex_unlock(&e->mutex);
    wake_all(batch, n);
    return 0;
}

int event_reset(event_handle_t h) {
    static_cast<posix_event_t*>(h)->signalled.store(0, std::memory_order_seq_cst);
    return 0;
}

wait_status_t event_wait(event_handle_t h, uint32_t timeout_ms) {
    posix_event_t* e = static_cast<posix_event_t*>(h);
    if (take_signal(e))
        return WAIT_SIGNALLED;
    if (timeout_ms == 0)
        return WAIT_TIMED_OUT;
    struct timespec deadline;
    if (timeout_ms != WAIT_FOREVER)
        deadline = deadline_after(timeout_ms);
    watcher_t w;
    w.word.store(WATCH_ARMED, std::memory_order_relaxed);
    w.takes_pulse = true;
    w.pulsed.store(false, std::memory_order_relaxed);
    watch_link_t link = {&w, nullptr, nullptr};
    link_watch(e, &link);
    const bool woken = sleep_until_fired(&w, timeout_ms == WAIT_FOREVER ? nullptr : &deadline, [&] {
        // The pulse flag is read after the fired word (acquire), which the
        // pulse set after the flag.
        return w.pulsed.load(std::memory_order_relaxed) || take_signal(e);
    });
    unlink_watch(e, &link);
    // A pulse that came with the time-out still released this waiter.
    return woken || w.pulsed.load(std::memory_order_relaxed) ? WAIT_SIGNALLED : WAIT_TIMED_OUT;
}

wait_status_t event_wait_any(const event_handle_t* events, size_t count, uint32_t timeout_ms, size_t* index,
                             int* error) {
    if (count == 0 || count > EVENT_WAIT_MAX) {
        *error = EINVAL;
        return WAIT_ERROR;
    }
    size_t found = take_any(events, count);
    if (found != count || timeout_ms == 0) {
        *index = found;
        return found != count ? WAIT_SIGNALLED : WAIT_TIMED_OUT;
    }
    struct timespec deadline;
    if (timeout_ms != WAIT_FOREVER)
        deadline = deadline_after(timeout_ms);
    watcher_t w;
    w.word.store(WATCH_ARMED, std::memory_order_relaxed);
    w.takes_pulse = false;
    w.pulsed.store(false, std::memory_order_relaxed);
    watch_link_t links[EVENT_WAIT_MAX];
    for (size_t i = 0; i < count; ++i) {
        links[i].watcher = &w;
        link_watch(static_cast<posix_event_t*>(events[i]), &links[i]);
    }
    const bool woken = sleep_until_fired(&w, timeout_ms == WAIT_FOREVER ? nullptr : &deadline, [&] {
        found = take_any(events, count);
        return found != count;
    });
    for (size_t i = 0; i < count; ++i)
        unlink_watch(static_cast<posix_event_t*>(events[i]), &links[i]);
    if (!woken)
        return WAIT_TIMED_OUT;
    *index = found;
    return WAIT_SIGNALLED;
}

}  // namespace plat
}  // namespace ssb

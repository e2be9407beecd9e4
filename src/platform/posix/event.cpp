// Win32 events on POSIX, over futexes.
//
// An event is one state word: its signalled bit and the number of waits
// watching it. Every wait, on one event or on many, sleeps on a word of its
// own on its stack, linked into a process-wide table under the event's
// address. A signal sets the bit with one read-modify-write; when that
// write saw watchers, it marks each one's word fired under the table's lock
// and wakes, with one futex call, those that had gone to sleep. A signal
// that finds nobody watching takes no lock and makes no system call.
//
// The signal's write is its last touch of the event: the wait that takes
// the signal may free the event at once (a synchronous message's event
// goes with its message), so the watchers live in the table, which is never
// freed, not in the event. A signaller may then fire the watchers of a new
// event at the same address; they find no signal and sleep again.
//
// The watcher's word is woken after the table's lock is released, so the
// woken thread never blocks on that lock at once; it may have returned by
// then (a time-out, another event), and a futex wake on a word nobody sleeps
// on is harmless: every wait re-checks its word and sleeps again when woken
// for nothing. So no wait ever waits for its signallers to leave.
#include <errno.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "../platform.h"

namespace ssb {
namespace plat {

// In sync.cpp.
struct timespec deadline_after(uint32_t ms);

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

// One sleeping wait; lives on the waiting thread's stack.
struct watcher_t {
    explicit watcher_t(bool pulse) : word(WATCH_ARMED), takes_pulse(pulse), pulsed(false) {}

    std::atomic<uint32_t> word;
    // event_wait's waiters meet pulses, event_wait_any's do not.
    bool takes_pulse;
    // Set by a pulse that released this waiter.
    std::atomic<bool> pulsed;
};

// One watcher's link under one event.
struct watch_link_t {
    watcher_t* watcher;
    const void* event;
    watch_link_t* prev;
    watch_link_t* next;
};

// Bit 0: signalled. Above it, the watchers linked, in steps of WATCHER.
const uint32_t SIGNALLED = 1;
const uint32_t WATCHER = 2;

struct posix_event_t {
    std::atomic<uint32_t> state;
    bool manual;
};

// The watchers of the events whose addresses hash to it.
struct alignas(64) bucket_t {
    pthread_mutex_t mutex;
    watch_link_t* head;
};

const size_t BUCKETS = 64;

bucket_t& bucket_of(const void* event) {
    // Never freed: signallers may still reach it after every event is gone.
    static bucket_t* s_buckets = [] {
        bucket_t* b = new bucket_t[BUCKETS];
        for (size_t i = 0; i < BUCKETS; ++i) {
            pthread_mutex_init(&b[i].mutex, nullptr);
            b[i].head = nullptr;
        }
        return b;
    }();
    const uint64_t h = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(event)) * 0x9E3779B97F4A7C15ull;
    return s_buckets[h >> 58];
}

static_assert(BUCKETS == 64, "the hash keeps the top 6 bits");

// The watchers woken after the lock by one signal; more than this are woken
// under it.
const size_t WAKE_BATCH = 8;

// Takes the event's signal if it has one; an auto-reset event resets, so a
// signal wakes one wait, as on Windows.
bool take_signal(posix_event_t* e) {
    if (e->manual)
        return (e->state.load(std::memory_order_seq_cst) & SIGNALLED) != 0;
    uint32_t s = e->state.load(std::memory_order_relaxed);
    while (s & SIGNALLED) {
        if (e->state.compare_exchange_weak(s, s & ~SIGNALLED, std::memory_order_seq_cst, std::memory_order_relaxed))
            return true;
    }
    return false;
}

// Under the table's lock: marks a watcher fired; true when it sleeps and
// needs a futex wake.
bool fire(watcher_t* w) { return w->word.exchange(WATCH_FIRED, std::memory_order_acq_rel) == WATCH_SLEEPING; }

// Fires the watchers linked under `event` (only the pulse-takers for a
// pulse, and then only one unless `all`), waking the sleepers after the lock.
void fire_watchers(const void* event, bool pulse, bool all) {
    bucket_t& b = bucket_of(event);
    watcher_t* batch[WAKE_BATCH];
    size_t n = 0;
    pthread_mutex_lock(&b.mutex);
    for (watch_link_t* link = b.head; link; link = link->next) {
        watcher_t* w = link->watcher;
        if (link->event != event)
            continue;
        if (pulse) {
            if (!w->takes_pulse || w->pulsed.load(std::memory_order_relaxed))
                continue;
            w->pulsed.store(true, std::memory_order_relaxed);
        }
        if (fire(w)) {
            if (n < WAKE_BATCH)
                batch[n++] = w;
            else
                futex_wake_one(&w->word);
        }
        if (pulse && !all)
            break;
    }
    pthread_mutex_unlock(&b.mutex);
    for (size_t i = 0; i < n; ++i)
        futex_wake_one(&batch[i]->word);
}

// The link goes into the table before the count is raised, so a signaller
// whose write saw the count finds the link.
void link_watch(posix_event_t* e, watch_link_t* link) {
    bucket_t& b = bucket_of(e);
    link->event = e;
    pthread_mutex_lock(&b.mutex);
    link->prev = nullptr;
    link->next = b.head;
    if (b.head)
        b.head->prev = link;
    b.head = link;
    pthread_mutex_unlock(&b.mutex);
    e->state.fetch_add(WATCHER, std::memory_order_seq_cst);
}

void unlink_watch(posix_event_t* e, watch_link_t* link) {
    e->state.fetch_sub(WATCHER, std::memory_order_relaxed);
    bucket_t& b = bucket_of(e);
    pthread_mutex_lock(&b.mutex);
    if (link->prev)
        link->prev->next = link->next;
    else
        b.head = link->next;
    if (link->next)
        link->next->prev = link->prev;
    pthread_mutex_unlock(&b.mutex);
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

// A wait that would sleep first watches the event's word for a while: a
// signal that comes within that time costs neither side a futex call, and a
// sleeping thread woken on the other core costs tens of microseconds. The
// length adapts per thread: a spin that ends in a signal grows the next one,
// a spin that ends in sleep halves it, down to a short probe tried once in
// 16 waits, so an idle thread spends well under a microsecond per wake-up.
// A thread that can run on one CPU only never spins, and at most one thread
// fewer than the CPUs spins at a time. No pause instruction:
// hypervisors trap it, which makes one cost tens of nanoseconds here. A
// pulse, which releases the waits already watching, passes a spinning wait
// by, as PulseEvent may on Windows.
const uint64_t SPIN_MIN_NS = 4000;
const uint64_t SPIN_MAX_NS = 20000;
// Word reads between two clock reads.
const uint32_t SPIN_STRIDE = 128;

// Waits that sleep without a spin after a spin of the least length failed.
const uint32_t SPIN_SKIPS = 15;

thread_local uint64_t t_spin_ns = SPIN_MIN_NS;
thread_local uint32_t t_spin_skip = 0;
// 0 not known yet, 1 this thread may run on several CPUs, 2 on one.
thread_local uint8_t t_spin_cpus = 0;

uint64_t monotonic_ns() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

// Threads spinning now, at most one fewer than the CPUs: a spinner holds a
// CPU, and the thread that would signal it needs one.
std::atomic<int> s_spinners(0);

int spinners_allowed() {
    static const int s_allowed = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)) - 1;
    return s_allowed;
}

// A thread held to one CPU would spin away the time its signaller needs.
bool several_cpus() {
    if (t_spin_cpus == 0) {
        cpu_set_t set;
        const bool pinned = pthread_getaffinity_np(pthread_self(), sizeof(set), &set) == 0 && CPU_COUNT(&set) < 2;
        t_spin_cpus = pinned || sysconf(_SC_NPROCESSORS_ONLN) < 2 ? 2 : 1;
    }
    return t_spin_cpus == 1;
}

bool any_set(const event_handle_t* events, size_t count) {
    for (size_t i = 0; i < count; ++i)
        if (static_cast<const posix_event_t*>(events[i])->state.load(std::memory_order_relaxed) & SIGNALLED)
            return true;
    return false;
}

// True when one of the events was set within this thread's spin time (the
// signal is still to be taken, and may go to another wait).
bool spin_for_signal(const event_handle_t* events, size_t count) {
    if (t_spin_skip != 0) {
        --t_spin_skip;
        return false;
    }
    if (!several_cpus())
        return false;
    if (s_spinners.fetch_add(1, std::memory_order_relaxed) >= spinners_allowed()) {
        s_spinners.fetch_sub(1, std::memory_order_relaxed);
        return false;
    }
    const uint64_t budget = t_spin_ns;
    const uint64_t start = monotonic_ns();
    bool set = false;
    while (!set) {
        for (uint32_t i = 0; i < SPIN_STRIDE && !set; ++i)
            set = any_set(events, count);
        if (!set && monotonic_ns() - start >= budget)
            break;
    }
    s_spinners.fetch_sub(1, std::memory_order_relaxed);
    if (set) {
        const uint64_t grown = budget * 2;
        t_spin_ns = grown < SPIN_MAX_NS ? grown : SPIN_MAX_NS;
        return true;
    }
    if (budget <= SPIN_MIN_NS)
        t_spin_skip = SPIN_SKIPS;
    t_spin_ns = budget / 2 > SPIN_MIN_NS ? budget / 2 : SPIN_MIN_NS;
    return false;
}

}  // namespace

event_handle_t event_create(bool manual_reset, bool initially_signalled) {
    posix_event_t* e = new (std::nothrow) posix_event_t;
    if (!e)
        return nullptr;
    e->state.store(initially_signalled ? SIGNALLED : 0, std::memory_order_relaxed);
    e->manual = manual_reset;
    return e;
}

void event_close(event_handle_t h) { delete static_cast<posix_event_t*>(h); }

int event_signal(event_handle_t h) {
    posix_event_t* e = static_cast<posix_event_t*>(h);
    // A read-modify-write even when the event is set already: the wait that
    // takes the signal reads from it, so what the signaller did before (a
    // push into a queue) is visible to that wait. It is the last touch of
    // the event.
    uint32_t s = e->state.load(std::memory_order_relaxed);
    while (!e->state.compare_exchange_weak(s, s | SIGNALLED, std::memory_order_seq_cst, std::memory_order_relaxed)) {
    }
    // Already set: whoever set it woke the watchers of then, and a wait
    // linked since finds the bit itself.
    if ((s & SIGNALLED) || s < WATCHER)
        return 0;
    fire_watchers(e, false, true);
    return 0;
}

int event_pulse(event_handle_t h) {
    posix_event_t* e = static_cast<posix_event_t*>(h);
    // Only the threads inside event_wait meet a pulse: all of them for a
    // manual-reset event, one for an auto-reset one. The event is left reset.
    const bool manual = e->manual;
    const uint32_t s = e->state.fetch_and(~SIGNALLED, std::memory_order_seq_cst);
    if (s >= WATCHER)
        fire_watchers(e, true, manual);
    return 0;
}

int event_reset(event_handle_t h) {
    static_cast<posix_event_t*>(h)->state.fetch_and(~SIGNALLED, std::memory_order_seq_cst);
    return 0;
}

wait_status_t event_wait(event_handle_t h, uint32_t timeout_ms) {
    posix_event_t* e = static_cast<posix_event_t*>(h);
    if (take_signal(e))
        return WAIT_SIGNALLED;
    if (timeout_ms == 0)
        return WAIT_TIMED_OUT;
    // Only an untimed wait (a loop thread going idle) spins: a timed one is
    // a deliberate pause. The signal seen may go to another wait; then this
    // one sleeps.
    if (timeout_ms == WAIT_FOREVER && spin_for_signal(&h, 1) && take_signal(e))
        return WAIT_SIGNALLED;
    struct timespec deadline;
    if (timeout_ms != WAIT_FOREVER)
        deadline = deadline_after(timeout_ms);
    watcher_t w(true);
    watch_link_t link = {&w, nullptr, nullptr, nullptr};
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
    if (found == count && timeout_ms == WAIT_FOREVER && spin_for_signal(events, count))
        found = take_any(events, count);
    if (found != count || timeout_ms == 0) {
        *index = found;
        return found != count ? WAIT_SIGNALLED : WAIT_TIMED_OUT;
    }
    struct timespec deadline;
    if (timeout_ms != WAIT_FOREVER)
        deadline = deadline_after(timeout_ms);
    watcher_t w(false);
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

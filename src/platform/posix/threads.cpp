#include <errno.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <new>

#include "../platform.h"

namespace ssb {
namespace plat {

namespace {

// Shared by the handle and the thread, freed by whichever lets go last, so a
// handle released while the thread runs on (detach, an abandoned cancel)
// leaves the thread nothing to trip over.
//
// Timed waits watch m_finished rather than calling pthread_tryjoin_np or
// pthread_clockjoin_np: ThreadSanitizer loses track of a thread that was
// polled by those and later detached. Once m_finished is seen, the join
// that follows only covers the thread's last few instructions.
struct thread_block_t {
    thread_fn_t m_fn;
    void* m_arg;
    pthread_t m_thread;
    // The handle's reference and the starting thread's.
    std::atomic<int> m_refs;
    std::mutex m_lock;
    // Signalled when m_tid is published and when m_finished is set.
    std::condition_variable m_changed;
    uint32_t m_tid;   // under m_lock; 0 until published
    bool m_finished;  // under m_lock; fn has returned
    // A joined pthread cannot be joined again; later waits read this. Only
    // the one waiter of the handle touches it.
    bool m_joined;
    bool m_detached;
};

thread_block_t* block_of(thread_handle_t h) { return reinterpret_cast<thread_block_t*>(h); }

void release_block(thread_block_t* b) {
    // acq_rel: the last owner must see every write the other made before
    // it frees the block.
    if (b->m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete b;
}

extern "C" void* thread_entry(void* p) {
    thread_block_t* b = static_cast<thread_block_t*>(p);
    thread_fn_t fn = b->m_fn;
    void* arg = b->m_arg;
    {
        std::lock_guard<std::mutex> guard(b->m_lock);
        b->m_tid = current_thread_id();
        b->m_changed.notify_all();
    }
    fn(arg);
    {
        std::lock_guard<std::mutex> guard(b->m_lock);
        b->m_finished = true;
        b->m_changed.notify_all();
    }
    release_block(b);
    return nullptr;
}

// Lets go of the pthread unless it was joined, then of the block.
int let_go(thread_handle_t h) {
    if (h == INVALID_THREAD_HANDLE || h == 0)
        return EINVAL;
    thread_block_t* b = block_of(h);
    int rv = 0;
    if (!b->m_joined && !b->m_detached) {
        rv = pthread_detach(b->m_thread);
        b->m_detached = true;
    }
    release_block(b);
    return rv;
}

}  // namespace

int thread_create(thread_fn_t fn, void* arg, thread_handle_t* out, uint32_t* tid) {
    if (!fn || !out || !tid)
        return EINVAL;
    thread_block_t* b = new (std::nothrow) thread_block_t;
    if (!b)
        return ENOMEM;
    b->m_fn = fn;
    b->m_arg = arg;
    b->m_refs.store(2, std::memory_order_relaxed);
    b->m_tid = 0;
    b->m_finished = false;
    b->m_joined = false;
    b->m_detached = false;
    int rv = pthread_create(&b->m_thread, nullptr, thread_entry, b);
    if (rv != 0) {
        delete b;
        return rv;
    }
    {
        std::unique_lock<std::mutex> guard(b->m_lock);
        b->m_changed.wait(guard, [b] { return b->m_tid != 0; });
        *tid = b->m_tid;
    }
    *out = reinterpret_cast<thread_handle_t>(b);
    return 0;
}

wait_status_t thread_wait(thread_handle_t h, uint32_t timeout_ms) {
    if (h == INVALID_THREAD_HANDLE || h == 0) {
        errno = EINVAL;
        return WAIT_ERROR;
    }
    thread_block_t* b = block_of(h);
    if (b->m_joined)
        return WAIT_SIGNALLED;
    if (b->m_detached) {
        errno = EINVAL;
        return WAIT_ERROR;
    }
    if (timeout_ms != WAIT_FOREVER) {
        // steady_clock: a change of the wall clock neither cuts the wait
        // short nor stretches it.
        std::unique_lock<std::mutex> guard(b->m_lock);
        if (!b->m_changed.wait_for(guard, std::chrono::milliseconds(timeout_ms), [b] { return b->m_finished; }))
            return WAIT_TIMED_OUT;
    }
    int rv = pthread_join(b->m_thread, nullptr);
    if (rv != 0) {
        errno = rv;
        return WAIT_ERROR;
    }
    b->m_joined = true;
    return WAIT_SIGNALLED;
}

int thread_close(thread_handle_t h) { return let_go(h); }

int thread_detach(thread_handle_t h) { return let_go(h); }

int thread_terminate(thread_handle_t h, uint32_t) {
    if (h == INVALID_THREAD_HANDLE || h == 0)
        return EINVAL;
    return ENOTSUP;
}

namespace {

int set_affinity(pthread_t thread, uint64_t mask) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (unsigned int cpu = 0; cpu < 64 && cpu < CPU_SETSIZE; ++cpu)
        if (mask & (static_cast<uint64_t>(1) << cpu))
            CPU_SET(cpu, &set);
    return pthread_setaffinity_np(thread, sizeof(set), &set);
}

}  // namespace

int set_current_thread_affinity(uint64_t mask) { return set_affinity(pthread_self(), mask); }

int timer_resolution_begin() { return 0; }

int timer_resolution_end() { return 0; }

int thread_set_affinity(thread_handle_t h, uint64_t mask) {
    if (h == INVALID_THREAD_HANDLE || h == 0)
        return EINVAL;
    thread_block_t* b = block_of(h);
    if (b->m_joined)
        return ESRCH;
    return set_affinity(b->m_thread, mask);
}

}  // namespace plat
}  // namespace ssb

#include "thread_identity.h"

#include <stdint.h>

#include <atomic>
#include <vector>

#include "alloc.h"
#include "lock.h"
#include "thread.h"
#include "tls.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = "thread";

// The slot is a plain thread-local tagged with the generation of the
// manager that filled it. Each open starts a new generation and close ends
// it, so a slot left behind by a thread the library no longer runs (a
// wrapped thread whose loop was stopped from outside, its wrapper freed) is
// ignored, never dereferenced; and it costs no heap table that a thread
// gone from the library's view could leak.
struct slot_t {
    thread_wrapper_t* thr;
    uint64_t generation;
};
thread_local slot_t t_slot = {nullptr, 0};

// The open generation, 0 while closed; read by every thread without a lock.
std::atomic<uint64_t> s_generation(0);
std::atomic<uint64_t> s_last_generation(0);
std::atomic<thread_registry_it*> s_registry(nullptr);

// (waiter, waited) thread id pairs; a thread waits for one other at a time.
// A lock for the graph is cheap next to the wait it guards.
struct wait_graph_t {
    thread_mutex lock;
    std::vector<std::pair<unsigned int, unsigned int>> edges;
};

wait_graph_t& graph() {
    // Never destroyed: waits may end during static destruction.
    static wait_graph_t* s_graph = new wait_graph_t;
    return *s_graph;
}

}  // namespace

namespace identity {

int open() {
    s_generation.store(s_last_generation.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_release);
    return RESULT_SUCCESS;
}

void close() { s_generation.store(0, std::memory_order_release); }

int set(thread_wrapper_t* thr) {
    const uint64_t generation = s_generation.load(std::memory_order_acquire);
    if (generation == 0)
        return RESULT_REFUSED;
    t_slot.thr = thr;
    t_slot.generation = generation;
    return RESULT_SUCCESS;
}

thread_wrapper_t* get() {
    const uint64_t generation = s_generation.load(std::memory_order_acquire);
    return generation != 0 && t_slot.generation == generation ? t_slot.thr : nullptr;
}

}  // namespace identity

thread_registry_it* thread_registry() { return s_registry.load(std::memory_order_acquire); }

void install_thread_registry(thread_registry_it* registry) { s_registry.store(registry, std::memory_order_release); }

thread_wrapper_t* calling_thread() {
    if (thread_wrapper_t* thr = identity::get())
        return thr;
    thread_registry_it* registry = thread_registry();
    return registry ? registry->find_by_id(get_cur_tid()) : nullptr;
}

namespace waits {

int enter(unsigned int target_tid) {
    const unsigned int me = get_cur_tid();
    wait_graph_t& g = graph();
    auto_lock_t<thread_mutex> guard(g.lock);
    // Follow what the target waits for; each thread waits for at most one,
    // so the walk ends within the number of edges.
    unsigned int t = target_tid;
    for (size_t steps = 0; steps <= g.edges.size(); ++steps) {
        if (t == me)
            return RESULT_REFUSED;
        bool found = false;
        for (const std::pair<unsigned int, unsigned int>& e : g.edges) {
            if (e.first == t) {
                t = e.second;
                found = true;
                break;
            }
        }
        if (!found)
            break;
    }
    g.edges.emplace_back(me, target_tid);
    return RESULT_SUCCESS;
}

void leave() {
    const unsigned int me = get_cur_tid();
    wait_graph_t& g = graph();
    auto_lock_t<thread_mutex> guard(g.lock);
    for (size_t i = g.edges.size(); i-- > 0;) {
        if (g.edges[i].first == me) {
            g.edges.erase(g.edges.begin() + i);
            return;
        }
    }
}

}  // namespace waits

// ---- a loop's own identity ------------------------------------------------

void thread_wrapper_t::init_tls() {
    const unsigned int tid = get_cur_tid();
    if (m_mode != THREAD_MODE_WRAP || get_id() == 0)
        m_id.store(tid, std::memory_order_relaxed);
    if (get_id() != tid) {
        UTIL_ASSERT_MSG(
            "thread_wrapper_t::init_tls() should be in same thread, id = " << get_id() << ", current id = " << tid,
            SOURCE_PATH, 1657, ", this = " << log_ptr(this));
        return;
    }
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::init_tls(), m_thread_manager = " << log_ptr(m_thread_manager)
                                                                           << ", this = " << log_ptr(this));
    if (identity::set(this) != RESULT_SUCCESS)
        UTIL_ASSERT_MSG("thread_mgr_t::register_tls tls is invalid", "thread_mgr", __LINE__,
                        ", thr = " << log_ptr(this));
    // The wheel belongs to the loop's thread: made here, on it.
    open_timer();
}

void thread_wrapper_t::cleanup_tls() {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::cleanup_tls(), m_thread_manager = " << log_ptr(m_thread_manager)
                                                                              << ", this = " << log_ptr(this));
    if (!on_own_thread()) {
        UTIL_ASSERT_MSG("thread_wrapper_t::cleanup_tls() should be in same thread, current tid = " << get_cur_tid(),
                        SOURCE_PATH, __LINE__, ", this = " << log_ptr(this));
        return;
    }
    identity::set(nullptr);
    // The slot holds no table entry, so the allocator's cache is dropped
    // here rather than by tls_cleanup.
    if (ssb_allocator_t* allocator = ssb_allocator_t::peek())
        allocator->release_tls();
    tls_cleanup();
}

thread_wrapper_t* thread_wrapper_t::self() { return identity::get(); }

}  // namespace ssb

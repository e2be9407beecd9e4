#include "thread_pool.h"

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "ref_holder.h"
#include "thread.h"
#include "thread_mgr.h"
#include "toolkit.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = "thread_pool";

typedef ref_holder_t<thread_wrapper_t> thread_ref_t;

// Posts a task's message to `thr`. A managed caller without a channel to it
// goes through its control queue, which any thread may write.
int post_task(thread_wrapper_t* thr, msg_it* msg) {
    thread_wrapper_t* caller = thread_wrapper_t::self();
    if (caller && caller != thr && !caller->get_write_msgq(thr))
        return thr->post_ctrl_msg(msg, nullptr);
    return thr->post_msg(msg, nullptr);
}

}  // namespace

struct thread_pool_t::state_t {
    struct slot_t {
        thread_ref_t thr;
        uint32_t load;
        // When the load last changed: among equal loads the earliest stamp
        // comes first, so the thread that has carried its load longest is
        // picked.
        uint64_t stamp;
        // Where the slot sits in load_index.
        size_t pos;
        bool stop_with_pool;
    };
    struct task_t {
        slot_t* slot;
        uint32_t load;
    };

    // Reserved to max_num and never beyond it, so slots do not move.
    std::vector<slot_t> threads;
    // The load index: a binary min-heap of the slots by (load, stamp). The
    // least-loaded thread is at the front; a load change sifts one slot,
    // O(log n) without allocating or chasing tree nodes.
    std::vector<slot_t*> load_index;
    uint64_t next_stamp = 0;
    // Indexed by task id; ids stay dense because released ones go first.
    // A null slot is a free id.
    std::vector<task_t> tasks;
    std::deque<uint32_t> released;
    size_t live_tasks = 0;

    static bool before(const slot_t* a, const slot_t* b) {
        return a->load < b->load || (a->load == b->load && a->stamp < b->stamp);
    }
    void place(slot_t* slot, size_t pos) {
        load_index[pos] = slot;
        slot->pos = pos;
    }
    void sift(slot_t* slot) {
        size_t pos = slot->pos;
        while (pos > 0 && before(slot, load_index[(pos - 1) / 2])) {
            place(load_index[(pos - 1) / 2], pos);
            pos = (pos - 1) / 2;
        }
        const size_t n = load_index.size();
        for (;;) {
            size_t child = 2 * pos + 1;
            if (child >= n)
                break;
            if (child + 1 < n && before(load_index[child + 1], load_index[child]))
                ++child;
            if (!before(load_index[child], slot))
                break;
            place(load_index[child], pos);
            pos = child;
        }
        place(slot, pos);
    }
    slot_t* least() const { return load_index.empty() ? nullptr : load_index.front(); }
    slot_t* find(const thread_wrapper_t* thr) {
        for (slot_t& s : threads)
            if (s.thr.get() == thr)
                return &s;
        return nullptr;
    }
    void set_load(slot_t* slot, uint32_t load) {
        slot->load = load;
        slot->stamp = next_stamp++;
        sift(slot);
    }
    void enter(thread_ref_t thr, uint32_t load, bool stop_with_pool) {
        threads.push_back(slot_t{std::move(thr), load, next_stamp++, load_index.size(), stop_with_pool});
        load_index.push_back(&threads.back());
        sift(&threads.back());
    }
};

struct thread_pool_t::loads_view_t {
    const state_t* state;
};

log_stream_t& operator<<(log_stream_t& line, const thread_pool_t::loads_view_t& view) {
    // Only built when the line is logged: the heap's order is not sorted.
    std::vector<const thread_pool_t::state_t::slot_t*> sorted(view.state->load_index.begin(),
                                                              view.state->load_index.end());
    std::sort(sorted.begin(), sorted.end(), &thread_pool_t::state_t::before);
    for (const thread_pool_t::state_t::slot_t* s : sorted)
        line << ", it->first = " << s->load << ", it->second.get() = " << log_ptr(s->thr.get());
    return line;
}

unsigned int thread_pool_t::s_pool_count = 0;
thread_mutex_recursive thread_pool_t::s_global_lock;

void thread_pool_t::default_thread_counts(unsigned int cpus, unsigned int& init_num, unsigned int& max_num) {
    const unsigned int c = std::min(std::max(cpus, 1u), (MAX_THREADS_LIMIT + 1) / 2);
    max_num = 2 * c - 1;
    init_num = c - 1 < 2 ? 1 : c - 1;
}

thread_pool_t* thread_pool_t::new_instance(unsigned int init_num, unsigned int max_num, bool enable_timer,
                                           unsigned int auto_attach_mask_bits) {
    if (max_num == 0) {
        default_thread_counts(get_number_of_cpus(), init_num, max_num);
    } else if (init_num > max_num) {
        UTIL_ASSERT_MSG("thread_pool_t::new_instance"
                            << ", init_num = " << init_num << ", max_num = " << max_num,
                        SOURCE_PATH, 24, "");
        return nullptr;
    } else if (max_num < MIN_THREADS_LIMIT || max_num > MAX_THREADS_LIMIT) {
        UTIL_ASSERT_MSG("thread_pool_t::new_instance should be in limitation"
                            << ", init_num = " << init_num << ", max_num = " << max_num << ", MAX_THREADS_LIMIT = "
                            << MAX_THREADS_LIMIT << ", MIN_THREADS_LIMIT = " << MIN_THREADS_LIMIT,
                        SOURCE_PATH, 25, "");
        return nullptr;
    }
    UTIL_LOG(LOG_INFO, "thread_pool_t::new_instance, init_num = "
                           << init_num << ", max_num = " << max_num << ", enable_timer = " << enable_timer
                           << ", auto_attach_mask_bits = " << auto_attach_mask_bits);
    if (!thread_mgr_t::peek()) {
        UTIL_LOG(LOG_ERROR, "thread_pool_t::new_instance no thread manager, util_init has not been called");
        return nullptr;
    }
    ref_holder_t<thread_pool_t> pool(new thread_pool_t(init_num, max_num, enable_timer, auto_attach_mask_bits));
    return pool.detach();
}

thread_pool_t::thread_pool_t(unsigned int init_num, unsigned int max_num, bool enable_timer,
                             unsigned int auto_attach_mask_bits)
    : m_state(new state_t),
      m_init_num(init_num),
      m_max_num(max_num),
      m_ext_num(0),
      m_loads(0),
      m_next_task_id(0),
      m_pool_idx(0),
      m_enable_timer(enable_timer),
      m_auto_attach_mask_bits(auto_attach_mask_bits),
      m_closed(false) {
    UTIL_LOG(LOG_INFO,
             "thread_pool_t::thread_pool_t, m_pool_idx = "
                 << m_pool_idx << ", s_pool_count = " << s_pool_count << ", m_enable_timer = " << m_enable_timer
                 << ", m_auto_attach_mask_bits = " << m_auto_attach_mask_bits << ", this = " << log_ptr(this));
    {
        auto_lock_t<thread_mutex_recursive> guard(s_global_lock);
        m_pool_idx = s_pool_count++;
    }
    m_state->threads.reserve(max_num);
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    for (unsigned int i = 0; i < init_num; ++i)
        add_thread();
}

thread_pool_t::~thread_pool_t() {
    UTIL_LOG(LOG_INFO, "thread_pool_t::~thread_pool_t, m_loads = " << m_loads << ", this = " << log_ptr(this));
    if (!m_state->threads.empty())
        stop_all_thread();
}

bool thread_pool_t::add_thread() {
    thread_mgr_t* mgr = thread_mgr_t::peek();
    const std::string name = "pool." + std::to_string(m_pool_idx) + "." + std::to_string(m_ext_num);
    thread_wrapper_t* thr =
        mgr ? mgr->spawn(THREAD_MODE_EVENT, THREAD_POOL_QUEUE_SIZE, THREAD_POOL_TYPE, m_enable_timer,
                         reinterpret_cast<const signed char*>(name.c_str()), m_auto_attach_mask_bits)
            : nullptr;
    if (!thr) {
        UTIL_LOG(LOG_ERROR, "thread_pool_t::add_thread failed to spawn " << name << ", this = " << log_ptr(this));
        return false;
    }
    ++m_ext_num;
    m_state->enter(thread_ref_t(thr), 0, true);
    return true;
}

int thread_pool_t::add_task(msg_it* msg, unsigned int& task_id, unsigned int loads, thread_wrapper_t*& bind_thr) {
    bind_thr = nullptr;
    // The task may run, and release the pool's last reference, before this
    // call has finished with the pool: the pool then goes here, after the
    // lock.
    ref_holder_t<thread_pool_t> self(this);
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    state_t& st = *m_state;
    if (m_closed) {
        UTIL_LOG(LOG_WARNING, "thread_pool_t::add_task the pool has no thread, this = " << log_ptr(this));
        return RESULT_NOTHING_TO_DO;
    }
    const bool idle = st.least() && st.least()->load == 0;
    if (!idle && st.threads.size() < m_max_num) {
        UTIL_LOG(LOG_INFO, "thread_pool_t::add_task has no idle thread and the pool is not full, m_loads = "
                               << m_loads << ", m_idx = " << m_pool_idx << ", ext_num = " << m_ext_num);
        const size_t target = std::min<size_t>(st.threads.size() + std::max(1u, m_init_num / 2), m_max_num);
        while (st.threads.size() < target && add_thread()) {
        }
    }
    if (st.load_index.empty())
        return RESULT_CREATE_FAILED;

    state_t::slot_t* slot = st.least();
    thread_wrapper_t* thr = slot->thr.get();
    if (msg) {
        const int rv = post_task(thr, msg);
        if (rv != RESULT_SUCCESS) {
            UTIL_LOG(LOG_WARNING, "thread_pool_t::add_task failed to post the task, rv = "
                                      << rv << ", thr = " << log_ptr(thr) << ", this = " << log_ptr(this));
            return rv == RESULT_INVALID_ARG ? RESULT_NOTHING_TO_DO : rv;
        }
    }
    if (!st.released.empty()) {
        task_id = st.released.front();
        st.released.pop_front();
    } else {
        task_id = m_next_task_id++;
        st.tasks.resize(task_id + 1, state_t::task_t{nullptr, 0});
    }
    bind_thr = thr;
    st.set_load(slot, slot->load + loads);
    m_loads += loads;
    st.tasks[task_id] = state_t::task_t{slot, loads};
    ++st.live_tasks;
    UTIL_LOG(LOG_INFO, "thread_pool_t::add_task, loads = " << loads << ", bind_thr = " << log_ptr(thr)
                                                           << ", m_loads = " << m_loads);
    // dump() without taking the lock again.
    const loads_view_t view{m_state.get()};
    UTIL_LOG(LOG_INFO, "THREAD_POOL LOADS SUMMARY: [" << view << "]");
    return RESULT_SUCCESS;
}

int thread_pool_t::remove_task(msg_it* msg, unsigned int task_id) {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    state_t& st = *m_state;
    if (task_id >= st.tasks.size() || !st.tasks[task_id].slot) {
        UTIL_LOG(LOG_WARNING, "thread_pool_t::remove_task task, task_id = " << task_id << " has been not registered"
                                                                            << ", m_loads = " << m_loads);
        return RESULT_NOT_FOUND;
    }
    state_t::task_t& task = st.tasks[task_id];
    state_t::slot_t* slot = task.slot;
    if (msg) {
        const int rv = post_task(slot->thr.get(), msg);
        if (rv != RESULT_SUCCESS) {
            UTIL_LOG(LOG_WARNING, "thread_pool_t::remove_task failed to post, rv = " << rv << ", task_id = " << task_id
                                                                                     << ", this = " << log_ptr(this));
            return rv == RESULT_INVALID_ARG ? RESULT_NOTHING_TO_DO : rv;
        }
    }
    const uint32_t task_load = task.load;
    m_loads -= task_load;
    task = state_t::task_t{nullptr, 0};
    --st.live_tasks;
    st.set_load(slot, slot->load - task_load);
    UTIL_LOG(LOG_INFO, "thread load reduce, thr = " << log_ptr(slot->thr.get()) << ", pit->first = " << slot->load
                                                    << ", task_load = " << task_load);
    st.released.push_back(task_id);
    if (st.live_tasks == 0)
        UTIL_LOG(LOG_INFO, "thread_pool_t::remove_task task is empty, m_loads = " << m_loads);
    return RESULT_SUCCESS;
}

int thread_pool_t::bind_thread(thread_wrapper_t* thr, unsigned int loads, unsigned int flags) {
    UTIL_LOG(LOG_INFO, "thread_pool_t::bind_thread, thr = " << log_ptr(thr) << ", loads = " << loads
                                                            << ", flags = " << flags << ", this = " << log_ptr(this));
    if (!thr)
        return RESULT_INVALID_ARG;
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    state_t& st = *m_state;
    if (m_closed)
        return RESULT_REFUSED;
    if (st.find(thr))
        return RESULT_ALREADY_EXISTS;
    if (st.threads.size() >= m_max_num)
        return RESULT_OUT_OF_LIMIT;
    if (!thr->is_running())
        return RESULT_NOTHING_TO_DO;
    st.enter(thread_ref_t(thr), loads, (flags & POOL_BIND_STOP_WITH_POOL) != 0);
    return RESULT_SUCCESS;
}

void thread_pool_t::take_all(std::unique_ptr<state_t>& out) {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    std::unique_ptr<state_t> fresh(new state_t);
    fresh->threads.reserve(m_max_num);
    // The dropped tasks' ids go back for reuse, lowest first.
    fresh->tasks.resize(m_state->tasks.size(), state_t::task_t{nullptr, 0});
    fresh->released = m_state->released;
    for (size_t id = 0; id < m_state->tasks.size(); ++id)
        if (m_state->tasks[id].slot)
            fresh->released.push_back(static_cast<uint32_t>(id));
    m_loads = 0;
    m_closed = true;
    out.swap(m_state);
    m_state.swap(fresh);
}

int thread_pool_t::stop_all_thread() {
    UTIL_LOG(LOG_INFO, "thread_pool_t::stop_all_thread(), this = " << log_ptr(this));
    std::unique_ptr<state_t> old;
    take_all(old);
    // Outside the pool's lock: a pool thread may be waiting for it inside a
    // task, and its loop must run for the stop to finish.
    int stopped = 0;
    for (state_t::slot_t& slot : old->threads) {
        thread_wrapper_t* thr = slot.thr.get();
        if (!slot.stop_with_pool)
            continue;
        UTIL_LOG(LOG_INFO, "thread_pool_t::stop_all_thread stopping, thr = " << log_ptr(thr));
        thread_mgr_t* mgr = thread_mgr_t::peek();
        // The manager waits for the OS thread to end, which the thread
        // itself cannot do: it stops at once instead.
        if (thr == thread_wrapper_t::self() || !mgr || mgr->stop_thread_by_id(thr->get_id()) == 0) {
            if (thr->stop() == RESULT_SUCCESS)
                ++stopped;
        } else {
            ++stopped;
        }
    }
    return stopped;
}

int thread_pool_t::detach_all_thread() {
    UTIL_LOG(LOG_INFO, "thread_pool_t::detach_all_thread(), this = " << log_ptr(this));
    std::unique_ptr<state_t> old;
    take_all(old);
    return static_cast<int>(old->threads.size());
}

void thread_pool_t::dump() {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    // An lvalue, so that the stream's own operator template does not take it.
    const loads_view_t view{m_state.get()};
    UTIL_LOG(LOG_INFO, "THREAD_POOL LOADS SUMMARY: [" << view << "]");
}

void thread_pool_t::release_obj() {
    UTIL_LOG(LOG_INFO, "thread_pool_t::release_obj(), this = " << log_ptr(this));
    ref_holder_t<thread_pool_t>::adopt(this).reset();
}

void thread_pool_t::release_obj(thread_pool_t*& pool) {
    thread_pool_t* p = pool;
    pool = nullptr;
    if (p)
        p->release_obj();
}

unsigned int thread_pool_t::get_thread_count() const {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    return static_cast<unsigned int>(m_state->threads.size());
}

unsigned int thread_pool_t::get_loads() const {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    return m_loads;
}

unsigned int thread_pool_t::get_task_count() const {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    return static_cast<unsigned int>(m_state->live_tasks);
}

unsigned int thread_pool_t::get_thread_load(const thread_wrapper_t* thr) const {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    const state_t::slot_t* slot = m_state->find(thr);
    return slot ? slot->load : 0;
}

}  // namespace ssb

#include "task.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "alloc.h"
#include "ref_holder.h"
#include "thread.h"
#include "timer.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = "task";

// The owner's runs in progress on this thread, innermost first: a cancel
// from inside one of them must not wait for it.
class run_frame_t;
thread_local run_frame_t* t_frames = nullptr;

class run_frame_t {
public:
    explicit run_frame_t(task_token_t* t) : token(t), outer(t_frames) { t_frames = this; }
    ~run_frame_t() { t_frames = outer; }
    run_frame_t(const run_frame_t&) = delete;
    run_frame_t& operator=(const run_frame_t&) = delete;

    task_token_t* const token;
    run_frame_t* const outer;
};

// A delay in whole wheel ticks, rounded up so that the task is never more
// than one tick early; kept below the wheel's limit.
unsigned int ticks_up(unsigned int ms) {
    const unsigned int up = ms > timer_it::MAX_INTERVAL - 10 ? timer_it::MAX_INTERVAL - 1 : (ms + 9) / 10 * 10;
    return up;
}

}  // namespace

// Shared by an owner and the tasks posted with it. The state packs the
// current generation (high half) and the runs in progress (low half) into
// one word, so that starting a run and cancelling are ordered against each
// other by that word alone.
class task_token_t {
public:
    task_token_t() : m_state(0), m_refs(1), m_waiters(0) {}

    void add_ref() { m_refs.fetch_add(1, std::memory_order_relaxed); }
    void release() {
        // acq_rel: every holder's use happens before the delete.
        if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
    uint32_t generation() const { return static_cast<uint32_t>(m_state.load(std::memory_order_acquire) >> 32); }

    // Counts a run of `generation`; false when that generation has ended.
    bool try_enter(uint32_t generation) {
        uint64_t s = m_state.load(std::memory_order_relaxed);
        do {
            if (static_cast<uint32_t>(s >> 32) != generation)
                return false;
        } while (!m_state.compare_exchange_weak(s, s + 1, std::memory_order_acquire, std::memory_order_relaxed));
        return true;
    }

    void leave() {
        // seq_cst with the waiter count: either this sees the canceller
        // registered, or the canceller sees this run gone.
        m_state.fetch_sub(1, std::memory_order_seq_cst);
        if (m_waiters.load(std::memory_order_seq_cst) != 0) {
            std::lock_guard<std::mutex> guard(m_mutex);
            m_cv.notify_all();
        }
    }

    void cancel() {
        m_state.fetch_add(uint64_t(1) << 32, std::memory_order_acq_rel);
        uint32_t own = 0;
        for (run_frame_t* f = t_frames; f; f = f->outer)
            if (f->token == this)
                ++own;
        if (runs() <= own)
            return;
        m_waiters.fetch_add(1, std::memory_order_seq_cst);
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_cv.wait(lock, [&] { return runs() <= own; });
        }
        m_waiters.fetch_sub(1, std::memory_order_relaxed);
    }

private:
    task_token_t(const task_token_t&);
    task_token_t& operator=(const task_token_t&);

    uint32_t runs() const { return static_cast<uint32_t>(m_state.load(std::memory_order_seq_cst)); }

    std::atomic<uint64_t> m_state;
    std::atomic<uint32_t> m_refs;
    std::atomic<uint32_t> m_waiters;
    std::mutex m_mutex;
    std::condition_variable m_cv;
};

// ---- owners ------------------------------------------------------------------------

task_owner_t::task_owner_t() : m_token(new task_token_t) {}

task_owner_t::~task_owner_t() {
    m_token->cancel();
    m_token->release();
}

void task_owner_t::cancel_tasks() { m_token->cancel(); }

// ---- the wheel's handle of a delayed task ------------------------------------------

// Lives on the target thread only. A deposit to the wheel: the wheel gives
// it back (release) after the last firing or when the thread stops, and
// that drops the wheel's hold on the task.
class task_timer_t final : public timer_it, public timer_sink_it {
public:
    task_timer_t(task_msg_base_t* task, thread_wrapper_t* thr) : timer_it(0, thr), m_task(task) {}

    timer_sink_it* get_sink() const override { return const_cast<task_timer_t*>(this); }
    bool is_deposit() const override { return true; }
    void release() override { m_task->drop_hold(); }
    void timer_work(const timer_it*) override { m_task->fire(); }
    int start(unsigned int interval_ms, unsigned int times) { return arm(this, interval_ms, times, true); }

private:
    task_msg_base_t* m_task;
};

// Tells a sender whether the task it handed over is gone already: a send
// refused before the hand-over leaves the task to the sender, one dropped by
// a stopping thread does not. Held by both until the later one lets go.
class task_msg_base_t::send_mark_t {
public:
    send_mark_t() : m_refs(2), m_gone(false) {}
    void set_gone() { m_gone.store(true, std::memory_order_release); }
    bool gone() const { return m_gone.load(std::memory_order_acquire); }
    void drop() {
        if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

private:
    std::atomic<int> m_refs;
    std::atomic<bool> m_gone;
};

// ---- tasks -------------------------------------------------------------------------

void* task_msg_base_t::operator new(std::size_t size) noexcept {
    ssb_allocator_t* a = ssb_allocator_t::instance();
    return a ? a->allocate(static_cast<unsigned int>(size)) : nullptr;
}

void task_msg_base_t::operator delete(void* p, std::size_t size) noexcept {
    if (p)
        ssb_allocator_t::instance()->deallocate(static_cast<signed char*>(p), static_cast<unsigned int>(size));
}

task_msg_base_t::task_msg_base_t(const task_owner_t* owner, unsigned int delay_ms, unsigned int period_ms)
    : msg_it(MSG_TYPE_PLAIN, 1, MSG_TIMEOUT_NEVER, false),
      m_token(owner ? owner->m_token : nullptr),
      m_generation(0),
      m_delay_ms(delay_ms),
      m_period_ms(period_ms),
      m_holds(1),
      m_timer(nullptr),
      m_mark(nullptr) {
    if (m_token) {
        m_token->add_ref();
        m_generation = m_token->generation();
    }
}

task_msg_base_t::~task_msg_base_t() {
    delete m_timer;
    if (m_token)
        m_token->release();
    if (m_mark) {
        m_mark->set_gone();
        m_mark->drop();
    }
}

void task_msg_base_t::on_message() {
    if (m_delay_ms == 0)
        run_guarded();
    else
        arm();
}

void task_msg_base_t::release() { drop_hold(); }

void task_msg_base_t::drop_hold() {
    if (--m_holds != 0)
        return;
    // A delayed task is released long after it was made: no stay report.
    if (m_delay_ms == 0)
        msg_it::release();
    else
        delete this;
}

bool task_msg_base_t::run_guarded() {
    if (!m_token)
        return invoke();
    if (!m_token->try_enter(m_generation))
        return false;
    bool again;
    {
        run_frame_t frame(m_token);
        again = invoke();
    }
    m_token->leave();
    return again;
}

void task_msg_base_t::arm() {
    if (m_token && m_token->generation() != m_generation)
        return;
    thread_wrapper_t* thr = thread_wrapper_t::self();
    task_timer_t* timer = new task_timer_t(this, thr);
    const int rv = timer->start(ticks_up(m_delay_ms), m_period_ms ? 0 : 1);
    if (rv != RESULT_SUCCESS) {
        UTIL_LOG(LOG_ERROR, "task_msg_base_t::arm the task is dropped, rv = " << rv << ", delay = " << m_delay_ms
                                                                              << ", this = " << log_ptr(this));
        delete timer;
        return;
    }
    m_timer = timer;
    ++m_holds;
}

void task_msg_base_t::fire() {
    if (run_guarded() || m_period_ms == 0)
        return;
    // A repeating task that stopped leaves the wheel; an explicit removal
    // leaves the wheel's hold to the caller. The handle may be destroyed
    // from inside its call-back.
    m_timer->remove_timer();
    drop_hold();
}

int task_msg_base_t::check_interval(unsigned int ms) {
    if (ms < timer_it::MAX_INTERVAL)
        return RESULT_SUCCESS;
    UTIL_LOG(LOG_WARNING, "task_msg_base_t::check_interval out of limitation, interval = " << ms);
    return RESULT_OUT_OF_LIMIT;
}

int task_msg_base_t::post(thread_wrapper_t* thr, task_msg_base_t* task, msg_queue_sink_it* sink) {
    if (!task) {
        UTIL_LOG(LOG_ERROR, "task_msg_base_t::post no memory for the task, thr = " << log_ptr(thr));
        return RESULT_CREATE_FAILED;
    }
    msg_holder_t held(task);
    if (!thr) {
        UTIL_ASSERT_LINE(SOURCE_PATH, __LINE__, ", task = " << log_ptr(task));
        return RESULT_INVALID_ARG;
    }
    if (task->m_delay_ms != 0 && !thr->has_timer_support()) {
        UTIL_LOG(LOG_WARNING, "task_msg_base_t::post thread has no timer support, thr = " << log_ptr(thr));
        return RESULT_REFUSED;
    }
    return held.handed_over(thr->post_msg(task, sink));
}

int task_msg_base_t::send(thread_wrapper_t* thr, task_msg_base_t* task, int timeout) {
    if (!task) {
        UTIL_LOG(LOG_ERROR, "task_msg_base_t::send no memory for the task, thr = " << log_ptr(thr));
        return RESULT_CREATE_FAILED;
    }
    if (!thr) {
        UTIL_ASSERT_LINE(SOURCE_PATH, __LINE__, ", task = " << log_ptr(task));
        task->release();
        return RESULT_INVALID_ARG;
    }
    send_mark_t* mark = new send_mark_t;
    task->m_mark = mark;
    const int rv = thr->send_msg(task, nullptr, timeout);
    if (rv != RESULT_SUCCESS && rv != RESULT_BUSY && !mark->gone())
        task->release();
    mark->drop();
    return rv;
}

}  // namespace ssb

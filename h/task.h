// Closures run on message-loop threads: at once, after a delay, at a fixed
// rate, or synchronously with a result.
//
// A task is a message (type 0) that carries any callable, move-only ones
// included, in one block from the library allocator: the callable is stored
// inline whatever its size, so no capture needs an allocation of its own.
// Tasks travel the routes of post_msg: from a managed thread over its
// channel to the target (5 without one), from the target itself or an
// unmanaged thread through the target's control queue.
//
// Who owns the callable:
//   - 0: the task is the target thread's. It runs there once (or once per
//     period), then is destroyed there; a task still queued or waiting on
//     the wheel when the thread stops is destroyed by that stop, unrun.
//   - Any other result: the task was never handed over. The callable is
//     destroyed on the calling thread before the call returns; nothing is
//     kept for a retry. With a sink, 3 (queue full) registers it as
//     post_msg does; post a new task when it is called back.
//
// Cancellation: a task posted with a task_owner_t runs only while that
// owner's current generation lasts. cancel_tasks() (and the owner's
// destructor) end it: no task posted before runs afterwards, on any
// thread. A task of the owner that is running on another thread at that
// moment finishes first: the callable runs fully or not at all, and the
// owner is never touched by a task after it is gone. Cancelling from
// inside one of the owner's own tasks does not wait for that task. A task
// must therefore not wait for the thread that destroys its owner.
// Cancelled tasks are destroyed when they come up: a queued task when its
// message is taken, a delayed or repeating one at its next due time.
//
// Timing: delays and periods are on the target's wheel (10 ms ticks). A
// delayed task never runs more than one tick early; a repeating task runs
// from the schedule (start + n x period), so late runs do not push the
// next ones back.
#ifndef SSB_TASK_H
#define SSB_TASK_H

#include <cstddef>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "msg.h"
#include "msg_queue.h"
#include "util_def.h"

namespace ssb {

class thread_wrapper_t;
class task_token_t;
class timer_it;

// The cancellation handle of an object that posts tasks. Make it a member
// of that object, declared last so that it is destroyed first: its
// destructor cancels the object's tasks while the rest is still intact.
// Any thread may post with it; cancel_tasks and the destructor may run on
// any thread and wait for a task of this owner running on another one.
class UTIL_API task_owner_t {
public:
    task_owner_t();
    ~task_owner_t();

    // Drops every task posted so far with this owner; tasks posted later
    // run normally.
    void cancel_tasks();

private:
    task_owner_t(const task_owner_t&);
    task_owner_t& operator=(const task_owner_t&);

    friend class task_msg_base_t;
    task_token_t* m_token;
};

// The part of a task that does not depend on the callable. Internal: use
// the post_* and send_task functions below.
class UTIL_API task_msg_base_t : public msg_it {
public:
    // From the library allocator. Null when it has no memory.
    static void* operator new(std::size_t size) noexcept;
    static void operator delete(void* p, std::size_t size) noexcept;

    void on_message() override;
    void release() override;

    // The routes of post_msg. `task` may be null (allocation failed: 1).
    static int post(thread_wrapper_t* thr, task_msg_base_t* task, msg_queue_sink_it* sink);
    static int send(thread_wrapper_t* thr, task_msg_base_t* task, int timeout);
    // 8 at or above timer_it::MAX_INTERVAL, as for timers.
    static int check_interval(unsigned int ms);

protected:
    task_msg_base_t(const task_owner_t* owner, unsigned int delay_ms, unsigned int period_ms);
    ~task_msg_base_t() override;

    // Runs the callable; false asks a repeating task to stop.
    virtual bool invoke() = 0;

private:
    friend class task_timer_t;
    class send_mark_t;

    // The owner's check around invoke(); false when cancelled or finished.
    bool run_guarded();
    void arm();
    void fire();
    void drop_hold();

    task_token_t* m_token;
    uint32_t m_generation;
    uint32_t m_delay_ms;
    uint32_t m_period_ms;
    // Who still holds the task: its message, then the wheel once armed.
    // Both on the target thread.
    uint32_t m_holds;
    timer_it* m_timer;
    send_mark_t* m_mark;
};

namespace task_detail {

template <class F>
class task_t final : public task_msg_base_t {
public:
    static_assert(alignof(F) <= 8, "a callable aligned beyond 8 bytes cannot live in a task");

    template <class G>
    task_t(G&& fn, const task_owner_t* owner, unsigned int delay_ms, unsigned int period_ms)
        : task_msg_base_t(owner, delay_ms, period_ms), m_fn(std::forward<G>(fn)) {}

protected:
    ~task_t() override {}

private:
    bool invoke() override {
        if constexpr (std::is_same<decltype(m_fn()), bool>::value) {
            return m_fn();
        } else {
            m_fn();
            return true;
        }
    }

    F m_fn;
};

template <class F>
task_msg_base_t* make_task(F&& fn, const task_owner_t* owner, unsigned int delay_ms, unsigned int period_ms) {
    return new task_t<std::decay_t<F>>(std::forward<F>(fn), owner, delay_ms, period_ms);
}

}  // namespace task_detail

// [any thread] Runs `fn` on `thr`. 0; 1 no memory; 2 null thread; 3 queue
// full (with `sink`: registered); 5 no channel from the calling managed
// thread; 9 `thr` not running.
template <class F>
int post_task(thread_wrapper_t* thr, F&& fn, const task_owner_t* owner = nullptr, msg_queue_sink_it* sink = nullptr) {
    return task_msg_base_t::post(thr, task_detail::make_task(std::forward<F>(fn), owner, 0, 0), sink);
}

// [any thread] Runs `fn` on `thr` once, `delay_ms` after the call at the
// earliest (one tick of grace). As post_task, and 8 when the delay is at or
// above timer_it::MAX_INTERVAL; 12 when `thr` has no timers (the timer
// driver thread). A delay of 0 is post_task.
template <class F>
int post_delayed_task(thread_wrapper_t* thr, unsigned int delay_ms, F&& fn, const task_owner_t* owner = nullptr,
                      msg_queue_sink_it* sink = nullptr) {
    const int rv = task_msg_base_t::check_interval(delay_ms);
    if (rv != RESULT_SUCCESS)
        return rv;
    return task_msg_base_t::post(thr, task_detail::make_task(std::forward<F>(fn), owner, delay_ms, 0), sink);
}

// [any thread] Runs `fn` on `thr` every `period_ms` (at least 10), the
// first time one period after the call, until `owner` cancels it, `fn`
// returns false (when it returns bool) or the thread stops. An owner is
// required (2 without one): nothing else could ever stop it. Results as
// post_delayed_task.
template <class F>
int post_repeating_task(thread_wrapper_t* thr, unsigned int period_ms, const task_owner_t* owner, F&& fn,
                        msg_queue_sink_it* sink = nullptr) {
    if (!owner)
        return RESULT_INVALID_ARG;
    const int rv = task_msg_base_t::check_interval(period_ms);
    if (rv != RESULT_SUCCESS)
        return rv;
    return task_msg_base_t::post(thr, task_detail::make_task(std::forward<F>(fn), owner, period_ms, period_ms), sink);
}

// [any thread but `thr`] Runs `fn` on `thr` and waits up to `timeout` ms
// (negative: no limit) for it to finish. 0 it ran; 12 refused: `thr` is the
// caller, or `thr` waits (directly or through others) for the caller; 16
// the wait timed out (the task still runs later); 9 `thr` stopped before
// running it; otherwise as post_task.
template <class F>
int send_task(thread_wrapper_t* thr, F&& fn, int timeout = -1) {
    return task_msg_base_t::send(thr, task_detail::make_task(std::forward<F>(fn), nullptr, 0, 0), timeout);
}

// As send_task; on 0 `*result` holds what `fn` returned (untouched
// otherwise). 2 for a null `result`.
template <class R, class F>
int send_task(thread_wrapper_t* thr, F&& fn, R* result, int timeout = -1) {
    if (!result)
        return RESULT_INVALID_ARG;
    // Shared: a sender that timed out leaves while the task may still run.
    std::shared_ptr<std::optional<R>> cell = std::make_shared<std::optional<R>>();
    const int rv = send_task(
        thr, [f = std::forward<F>(fn), cell]() mutable { cell->emplace(f()); }, timeout);
    if (rv == RESULT_SUCCESS)
        *result = std::move(**cell);
    return rv;
}

}  // namespace ssb

#endif

#include "observer.h"

#include <algorithm>
#include <atomic>

#include "ref_holder.h"
#include "task.h"
#include "thread.h"
#include "trace.h"

namespace ssb {

// One observer on its thread. Notifications in flight hold a reference, so
// the entry outlives its removal until they are dropped; its owner is what
// removal cancels.
class observer_entry_t {
public:
    observer_entry_t(observer_it* observer, thread_wrapper_t* thr) : m_observer(observer), m_thread(thr), m_refs(1) {}

    uint32_t increment() { return m_refs.fetch_add(1, std::memory_order_relaxed) + 1; }
    uint32_t decrement() {
        // acq_rel: every holder's use happens before the delete.
        const uint32_t n = m_refs.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (n == 0)
            delete this;
        return n;
    }

    observer_it* const m_observer;
    const ref_holder_t<thread_wrapper_t> m_thread;
    task_owner_t m_owner;

private:
    observer_entry_t(const observer_entry_t&);
    observer_entry_t& operator=(const observer_entry_t&);

    std::atomic<uint32_t> m_refs;
};

observer_holder_t::observer_holder_t() {}

observer_holder_t::~observer_holder_t() {
    std::vector<observer_entry_t*> left;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_lock);
        left.swap(m_entries);
    }
    for (observer_entry_t* e : left) {
        e->m_owner.cancel_tasks();
        e->decrement();
    }
}

int observer_holder_t::add_observer(observer_it* observer, bool* became_non_empty) {
    if (became_non_empty)
        *became_non_empty = false;
    if (!observer)
        return RESULT_INVALID_ARG;
    thread_wrapper_t* thr = thread_wrapper_t::self();
    if (!thr || !thr->is_running()) {
        UTIL_ASSERT_MSG("observer_holder_t::add_observer should be called on a message-loop thread", "observer",
                        __LINE__, ", observer = " << log_ptr(observer) << ", this = " << log_ptr(this));
        return RESULT_REFUSED;
    }
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    for (observer_entry_t* e : m_entries)
        if (e->m_observer == observer)
            return RESULT_ALREADY_EXISTS;
    m_entries.push_back(new observer_entry_t(observer, thr));
    if (became_non_empty)
        *became_non_empty = m_entries.size() == 1;
    return RESULT_SUCCESS;
}

int observer_holder_t::remove_observer(observer_it* observer, bool* became_empty) {
    if (became_empty)
        *became_empty = false;
    if (!observer)
        return RESULT_INVALID_ARG;
    observer_entry_t* found = nullptr;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_lock);
        auto it = std::find_if(m_entries.begin(), m_entries.end(),
                               [&](observer_entry_t* e) { return e->m_observer == observer; });
        if (it == m_entries.end())
            return RESULT_NOT_FOUND;
        found = *it;
        m_entries.erase(it);
        if (became_empty)
            *became_empty = m_entries.empty();
    }
    // Outside the lock: a call-back running now on another thread may
    // notify or remove through this holder before it returns.
    found->m_owner.cancel_tasks();
    found->decrement();
    return RESULT_SUCCESS;
}

int observer_holder_t::notify(uint32_t what, ref_count_it* data) {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    if (m_entries.empty())
        return RESULT_NOTHING_TO_DO;
    int rv = RESULT_SUCCESS;
    for (observer_entry_t* e : m_entries) {
        thread_wrapper_t* thr = e->m_thread.get();
        if (!thr->is_running())
            continue;
        task_msg_base_t* task = task_detail::make_task(
            [entry = ref_holder_t<observer_entry_t>(e), what, held = ref_holder_t<ref_count_it>(data)] {
                entry->m_observer->on_notify(what, held.get());
            },
            &e->m_owner, 0, 0);
        const int posted = task ? thr->post_ctrl_msg(task, nullptr) : RESULT_CREATE_FAILED;
        if (posted != RESULT_SUCCESS) {
            if (task)
                task->release();
            UTIL_LOG(LOG_WARNING, "observer_holder_t::notify dropped for an observer, rv = "
                                      << posted << ", observer = " << log_ptr(e->m_observer)
                                      << ", this = " << log_ptr(this));
            // A thread that stopped meanwhile is not a full queue.
            if (posted != RESULT_INVALID_ARG)
                rv = RESULT_QUEUE_FULL;
        }
    }
    return rv;
}

unsigned int observer_holder_t::observer_count() const {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    return static_cast<unsigned int>(m_entries.size());
}

}  // namespace ssb

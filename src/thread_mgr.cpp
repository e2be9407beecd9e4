#include "thread_mgr.h"

#include <algorithm>
#include <list>
#include <vector>

#include "notifier.h"
#include "ref_holder.h"
#include "singleton.h"
#include "stats.h"
#include "thread_event.h"
#include "thread_identity.h"
#include "tls.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = "thread_mgr";
const unsigned int MAIN_QUEUE_SIZE = 8192;
const unsigned int TIMER_QUEUE_SIZE = 64;
const unsigned int STOP_JOIN_MS = 1000;

// Made under the class lock; closed by destroy() until reset(). Not listed
// with the singleton registry: util_uninit destroys it first of all.
lazy_singleton_t<thread_mgr_t> s_mgr(nullptr, false, &thread_mgr_t::class_lock);
// The manager being destroyed: its threads still detach from it while it
// stops them, though instance() no longer hands it out.
std::atomic<thread_mgr_t*> s_closing(nullptr);
// What a loop asks of the manager, through the registry interface: the
// manager that holds the threads now, if any.
class registry_t : public thread_registry_it {
public:
    int detach(thread_wrapper_t* thr) override {
        thread_mgr_t* mgr = thread_mgr_t::holder();
        return mgr ? mgr->detach(thr) : RESULT_NOTHING_TO_DO;
    }
    thread_wrapper_t* find_by_id(unsigned int id) override {
        thread_mgr_t* mgr = thread_mgr_t::peek();
        return mgr ? mgr->find_by_id(id) : nullptr;
    }
};

// Never destroyed: a loop that a shut-down left to end by itself may still
// detach through it while the process exits.
registry_t& registry() {
    static registry_t* s_registry = new registry_t;
    return *s_registry;
}

typedef ref_holder_t<thread_wrapper_t> thread_ref_t;

// A list entry that is `thr`.
struct same_t {
    const thread_wrapper_t* thr;
    bool operator()(const thread_ref_t& r) const { return r.get() == thr; }
};

// Whether the calling thread may wait for `thr`'s loop: its own loop, or one
// that runs on a thread of the library's.
bool loop_answers(thread_wrapper_t* thr) {
    return !(thr->get_mode() & THREAD_MODE_WRAP) || thr->get_id() == get_cur_tid();
}

}  // namespace

struct thread_mgr_t::lists_t {
    std::list<thread_ref_t> threads;
    std::vector<thread_ref_t> stopped;
};

thread_mgr_t* thread_mgr_t::peek() { return s_mgr.get(); }

thread_mgr_t* thread_mgr_t::holder() {
    thread_mgr_t* mgr = peek();
    return mgr ? mgr : s_closing.load(std::memory_order_acquire);
}

thread_mgr_t* thread_mgr_t::instance() {
    // Built under the class lock: the threads it starts never take it
    // while it is being built.
    return s_mgr.instance([] { return new thread_mgr_t; });
}

void thread_mgr_t::destroy() {
    UTIL_LOG(LOG_INFO, "thread_mgr_t::destroy()");
    // Its threads still detach from it while it stops them, though
    // instance() no longer hands it out.
    thread_mgr_t* mgr = s_mgr.take(true, [](thread_mgr_t* m) { s_closing.store(m, std::memory_order_release); });
    // Deleted outside the lock: stopping threads detach themselves, which
    // takes the lock on their own threads.
    delete mgr;
    s_closing.store(nullptr, std::memory_order_release);
}

int thread_mgr_t::reset() {
    UTIL_LOG(LOG_WARNING, "thread_mgr_t::reset(), s_mgr_release = " << s_mgr.closed()
                                                                    << ", s_thread_mgr_instance = " << log_ptr(peek()));
    if (!s_mgr.reopen()) {
        UTIL_LOG(LOG_WARNING, "thread_mgr_t::reset() already in creatable status ");
        return RESULT_ALREADY_EXISTS;
    }
    return RESULT_SUCCESS;
}

thread_mgr_t::thread_mgr_t() : m_lists(new lists_t) {
    UTIL_LOG(LOG_INFO, "thread_mgr_t ::thread_mgr_t() , this = " << log_ptr(this));
    identity::open();
    install_thread_registry(&registry());
    if (!spawn(THREAD_MODE_MAIN | THREAD_MODE_WRAP, MAIN_QUEUE_SIZE, THREAD_TYPE_MAIN, true, nullptr, 0xFFFFFFFFu) ||
        !spawn(THREAD_MODE_TIMER_DRIVER | THREAD_MODE_EVENT, TIMER_QUEUE_SIZE, THREAD_TYPE_TIMER, false,
               reinterpret_cast<const signed char*>("orca.timer.do"), 0xFFFFFFFFu))
        UTIL_ASSERT_LINE(SOURCE_PATH, 194, ", this = " << log_ptr(this));
}

thread_mgr_t::~thread_mgr_t() {
    UTIL_LOG(LOG_INFO, "thread_mgr_t::~thread_mgr_t() begin, this = " << log_ptr(this));
    // Latest first: the spawned threads, then the timer driver, then the
    // main thread, so every stop still finds its peers running.
    for (;;) {
        thread_ref_t thr;
        size_t size = 0;
        {
            auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
            if (m_lists->threads.empty())
                break;
            thr = m_lists->threads.back();
            size = m_lists->threads.size();
        }
        UTIL_LOG(LOG_INFO,
                 "thread_mgr_t::~thread_mgr_t() stop thr = " << log_ptr(thr.get()) << ", thread_queue.size = " << size);
        release_final(thr.get());
    }
    reap(true);
    identity::close();
    UTIL_LOG(LOG_INFO, "thread_mgr_t::~thread_mgr_t() done, this = " << log_ptr(this));
}

// ---- the thread-local slot ---------------------------------------------------------

int thread_mgr_t::set_tls(thread_wrapper_t* thr, thread_wrapper_t* value, const char* refusal) {
    if (identity::set(value) != RESULT_SUCCESS) {
        UTIL_ASSERT_MSG(refusal, SOURCE_PATH, __LINE__, ", thr = " << log_ptr(thr));
        return RESULT_REFUSED;
    }
    return RESULT_SUCCESS;
}

int thread_mgr_t::register_tls(thread_wrapper_t* thr) {
    return set_tls(thr, thr, "thread_mgr_t::register_tls tls is invalid");
}

int thread_mgr_t::unregister_tls(thread_wrapper_t* thr) {
    return set_tls(thr, nullptr, "thread_mgr_t::unregister_tls tls is invalid");
}

thread_wrapper_t* thread_mgr_t::tls_value() { return identity::get(); }

// ---- spawning ----------------------------------------------------------------------

thread_wrapper_t* thread_mgr_t::spawn(unsigned int mode, unsigned int w_queue_size, unsigned int type,
                                      bool interact_timer, const signed char* thr_name, unsigned int bind_mask) {
    UTIL_LOG(LOG_INFO, "thread_mgr_t::spawn, mode = " << mode << ", w_queue_size = " << w_queue_size
                                                      << ", type = " << type << ", interact_timer = " << interact_timer
                                                      << ", thr_name = "
                                                      << (thr_name ? reinterpret_cast<const char*>(thr_name) : "")
                                                      << ", bind_mask = " << bind_mask << ", this = " << log_ptr(this));
    reap(false);
    if (type == THREAD_TYPE_TIMER) {
        if (thread_wrapper_t* timer = find_by_type(THREAD_TYPE_TIMER)) {
            UTIL_LOG(LOG_INFO,
                     "thread_mgr_t::spawn timer driver thread already has been available, thr = " << log_ptr(timer));
            return timer;
        }
        mode = (mode & ~THREAD_MODE_WRAP) | THREAD_MODE_EVENT;
    }
    thread_ref_t thr;
    if (mode & THREAD_MODE_WRAP) {
        thread_wrapper_t* existing = current();
        if (existing && existing->is_running()) {
            UTIL_LOG(LOG_INFO,
                     "thread_mgr_t::spawn already has an instance for the thread, return it directly, "
                     "thread id = "
                         << get_cur_tid());
            return existing;
        }
        thr = thread_ref_t(new thread_wrapper_t(mode, type, w_queue_size, this, 1, interact_timer, thr_name));
        thr->open_notifier(1);
        thr->init_tls();
    } else if (!(mode & (THREAD_MODE_IO | THREAD_MODE_EVENT))) {
        UTIL_ASSERT_MSG("thread_mgr_t::spawn mode should have io or event bit, mode = " << mode, SOURCE_PATH, __LINE__,
                        ", this = " << log_ptr(this));
        return nullptr;
    } else {
        thread_loop_base_t* loop = nullptr;
        if (mode & THREAD_MODE_EVENT)
            loop = new thread_event_t(mode, type, w_queue_size, this, 1, interact_timer, thr_name);
        else
            loop = new thread_io_t(mode, type, w_queue_size, this, 1, interact_timer, thr_name);
        thr = thread_ref_t(loop);
        // Before the thread starts, so channels made at once can wake it. A
        // loop that cannot be woken could never run a message nor stop.
        loop->open_notifier(1);
        if (!loop->get_notifier() || !loop->get_notifier()->is_active()) {
            UTIL_LOG(LOG_ERROR, "thread_mgr_t::spawn failed to open the wake-up notifier, this = " << log_ptr(this));
            return nullptr;
        }
        if (loop->start(nullptr, nullptr, 0, 0) == 0) {
            UTIL_LOG(LOG_ERROR, "thread_mgr_t::spawn start thread failed, this = " << log_ptr(this));
            return nullptr;
        }
    }
    enlist(thr.get());
    return thr.get();
}

thread_base_t* thread_mgr_t::spawn_light(void (*fn)(void*), void* args, unsigned int stack_size,
                                         unsigned int priority) {
    UTIL_LOG(LOG_INFO, "thread_mgr_t::spawn_light, fn = " << reinterpret_cast<void*>(fn) << ", args = " << args
                                                          << ", stack size = " << stack_size
                                                          << ", priority = " << priority);
    thread_base_t* thr = new thread_base_t;
    if (!fn || thr->start(fn, args, stack_size, priority) == 0) {
        UTIL_LOG(LOG_ERROR, "thread_mgr_t::spawn start thread failed, this = " << log_ptr(this));
        delete thr;
        return nullptr;
    }
    return thr;
}

void thread_mgr_t::enlist(thread_wrapper_t* thr) {
    {
        auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
        m_lists->threads.push_back(thread_ref_t(thr));
    }
    bind_timer(thr);
}

void thread_mgr_t::bind_timer(thread_wrapper_t* thr) {
    std::vector<thread_ref_t> peers;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
        for (const thread_ref_t& t : m_lists->threads) {
            if (t.get() == thr || (thr->get_type() == THREAD_TYPE_TIMER) == (t->get_type() == THREAD_TYPE_TIMER))
                continue;
            peers.push_back(t);
        }
    }
    if (peers.empty() && thr->get_type() != THREAD_TYPE_TIMER)
        UTIL_LOG(LOG_INFO,
                 "thread_mgr_t::spawn only has control message queue for this thread, thr = " << log_ptr(thr));
    for (const thread_ref_t& ref : peers) {
        thread_wrapper_t* peer = ref.get();
        thread_wrapper_t* timer = thr->get_type() == THREAD_TYPE_TIMER ? thr : peer;
        thread_wrapper_t* other = timer == thr ? peer : thr;
        // A wrapped thread of another caller may not be pumping its loop:
        // it binds itself when it attaches.
        if (loop_answers(other) && other->is_running())
            timer->create_channel(other, TIMER_QUEUE_SIZE, TIMER_QUEUE_SIZE);
        else
            UTIL_LOG(LOG_INFO, "thread_mgr_t::spawn has not support timer, thr = " << log_ptr(other));
    }
}

int thread_mgr_t::attach(thread_wrapper_t* thr, thread_wrapper_t* owner, unsigned int flags) {
    UTIL_LOG(LOG_INFO, "thread_mgr_t::attach handle = " << log_ptr(thr) << ", thread_id = " << (thr ? thr->get_id() : 0)
                                                        << ", owner_thr = " << log_ptr(owner) << ", owner_id = "
                                                        << (owner ? owner->get_id() : 0) << ", flags = " << flags);
    if (!thr)
        return RESULT_INVALID_ARG;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
        std::list<thread_ref_t>& threads = m_lists->threads;
        if (std::find_if(threads.begin(), threads.end(), same_t{thr}) != threads.end()) {
            UTIL_LOG(LOG_WARNING, "thread_mgr_t::attach handle = " << log_ptr(thr) << " already in the queue");
            return RESULT_ALREADY_EXISTS;
        }
    }
    enlist(thr);
    return RESULT_SUCCESS;
}

int thread_mgr_t::detach(thread_wrapper_t* thr) {
    if (!thr)
        return RESULT_INVALID_ARG;
    auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
    std::list<thread_ref_t>& threads = m_lists->threads;
    std::list<thread_ref_t>::iterator it = std::find_if(threads.begin(), threads.end(), same_t{thr});
    if (it == threads.end()) {
        UTIL_LOG(LOG_WARNING, "thread_mgr_t::detach handle = " << log_ptr(thr) << " has not been in the queue");
        UTIL_ASSERT_LINE(SOURCE_PATH, 292, ", thr = " << log_ptr(thr));
        return RESULT_NOT_FOUND;
    }
    // Released later from another thread: this may be the thread itself.
    m_lists->stopped.push_back(std::move(*it));
    threads.erase(it);
    return RESULT_SUCCESS;
}

namespace {

// Detaches a thread from the manager alive when it runs.
class detach_oper_t : public deferred_op_it {
public:
    explicit detach_oper_t(thread_wrapper_t* thr) : m_thr(thr) {}
    void execute() override {
        if (thread_mgr_t* mgr = thread_mgr_t::holder())
            mgr->detach(m_thr.get());
    }

private:
    thread_ref_t m_thr;
};

}  // namespace

int thread_mgr_t::detach_deferred(thread_wrapper_t* thr, thread_wrapper_t* on) {
    if (!thr)
        return RESULT_INVALID_ARG;
    return deferred_msg_op_t::launch(on, new detach_oper_t(thr));
}

void thread_mgr_t::reap(bool all) {
    std::vector<thread_ref_t> done;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
        std::vector<thread_ref_t>& stopped = m_lists->stopped;
        for (size_t i = 0; i < stopped.size();) {
            thread_wrapper_t* thr = stopped[i].get();
            // An OS thread of ours never releases itself: its destructor
            // waits for the thread.
            const bool own = !(thr->get_mode() & THREAD_MODE_WRAP) && thr->get_id() == get_cur_tid();
            if (all || (!own && thr->has_ended())) {
                done.push_back(std::move(stopped[i]));
                stopped.erase(stopped.begin() + i);
            } else {
                ++i;
            }
        }
    }
    if (!all)
        return;
    // Detached while still running, or still ending: stopped and joined
    // within the shut-down's bound.
    for (thread_ref_t& thr : done)
        finish(thr.detach());
}

void thread_mgr_t::release_final(thread_wrapper_t* thr) {
    thread_ref_t held;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
        std::list<thread_ref_t>& threads = m_lists->threads;
        std::list<thread_ref_t>::iterator it = std::find_if(threads.begin(), threads.end(), same_t{thr});
        if (it == threads.end())
            return;
        held = std::move(*it);
        threads.erase(it);
    }
    finish(held.detach());
}

void thread_mgr_t::finish(thread_wrapper_t* thr) {
    thread_ref_t held = thread_ref_t::adopt(thr);
    // Its stop may detach it onto the stopped list: that reference is the
    // manager's too.
    const int rv = thr->stop_within(STOP_JOIN_MS);
    {
        auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
        std::vector<thread_ref_t>& stopped = m_lists->stopped;
        for (size_t i = 0; i < stopped.size(); ++i) {
            if (stopped[i].get() == thr) {
                stopped.erase(stopped.begin() + i);
                break;
            }
        }
    }
    if (rv != RESULT_SUCCESS)
        UTIL_LOG(LOG_WARNING, "thread_mgr_t::~thread_mgr_t() abandons thr = "
                                  << log_ptr(thr) << ", id = " << thr->get_id() << ", type = " << thr->get_type()
                                  << ", name = " << thr->name() << ": its loop did not stop within " << STOP_JOIN_MS
                                  << " ms; it stops when its message returns, this = " << log_ptr(this));
    // A wrapped loop has no OS thread of ours; a pass under way holds its
    // own reference.
    if (thr->get_mode() & THREAD_MODE_WRAP)
        return;
    thread_loop_base_t* loop = static_cast<thread_loop_base_t*>(thr);
    if (rv == RESULT_SUCCESS && loop->wait_ended(STOP_JOIN_MS) == RESULT_SUCCESS)
        return;
    // Its own thread (a shut-down from inside one of its messages), or one
    // still busy: nobody can join it, so it frees itself as it ends.
    if (loop->hand_over_to_thread()) {
        if (rv == RESULT_SUCCESS && thr->get_id() != get_cur_tid())
            UTIL_LOG(LOG_WARNING, "thread_mgr_t::~thread_mgr_t() abandons thr = "
                                      << log_ptr(thr) << ", id = " << thr->get_id() << ", name = " << thr->name()
                                      << ": its thread did not end within " << STOP_JOIN_MS
                                      << " ms after its stop, this = " << log_ptr(this));
        held.detach();
    }
}

// ---- finding -------------------------------------------------------------------------

thread_wrapper_t* thread_mgr_t::find_by_type(unsigned int type) {
    auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
    for (const thread_ref_t& thr : m_lists->threads)
        if (thr->get_type() == type)
            return thr.get();
    return nullptr;
}

void thread_mgr_t::collect_stats(std::vector<thread_stats_t>& out) {
    std::vector<thread_ref_t> threads;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
        threads.assign(m_lists->threads.begin(), m_lists->threads.end());
    }
    out.resize(threads.size());
    for (size_t i = 0; i < threads.size(); ++i)
        get_thread_stats(threads[i].get(), out[i]);
}

thread_wrapper_t* thread_mgr_t::find_by_id(unsigned int id) {
    auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
    for (const thread_ref_t& thr : m_lists->threads)
        if (thr->get_id() == id)
            return thr.get();
    return nullptr;
}

thread_wrapper_t* thread_mgr_t::current() {
    thread_wrapper_t* thr = tls_value();
    return thr ? thr : find_by_id(get_cur_tid());
}

unsigned int thread_mgr_t::count() {
    auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
    return static_cast<unsigned int>(m_lists->threads.size());
}

// ---- stopping ------------------------------------------------------------------------

void thread_mgr_t::stop_and_release(thread_wrapper_t* thr) {
    if (!loop_answers(thr)) {
        // Nobody may wait for another caller's loop: the stop runs at its
        // next pass.
        thr->request_stop();
    } else {
        thr->stop();
        if (!(thr->get_mode() & THREAD_MODE_WRAP)) {
            thread_loop_base_t* loop = static_cast<thread_loop_base_t*>(thr);
            if (loop->join_np(STOP_JOIN_MS) == RESULT_BUSY)
                UTIL_LOG(LOG_WARNING, "thread_mgr_t::stop_threads_by_id timeout, thr = " << log_ptr(thr));
        }
    }
    {
        // A stop that ran has detached the thread; one that only was
        // requested leaves it listed until its loop runs it.
        auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
        std::list<thread_ref_t>& threads = m_lists->threads;
        std::list<thread_ref_t>::iterator it = std::find_if(threads.begin(), threads.end(), same_t{thr});
        if (it != threads.end()) {
            if (loop_answers(thr) || thr->is_stopped()) {
                m_lists->stopped.push_back(std::move(*it));
                threads.erase(it);
            }
        }
    }
    reap(false);
}

int thread_mgr_t::stop_thread_by_id(unsigned int id) {
    UTIL_LOG(LOG_INFO, "thread_mgr_t::stop_thread_by_id, (uint32_t)id = " << id << ", this = " << log_ptr(this));
    thread_ref_t thr;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
        thr = thread_ref_t(find_by_id(id));
        if (!thr)
            return 0;
    }
    stop_and_release(thr.get());
    return 1;
}

int thread_mgr_t::stop_threads_by_type(unsigned int type) {
    std::vector<thread_ref_t> found;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
        for (const thread_ref_t& thr : m_lists->threads)
            if (thr->get_type() == type)
                found.push_back(thr);
    }
    for (const thread_ref_t& thr : found) {
        UTIL_LOG(LOG_INFO,
                 "thread_mgr_t::stop_threads_by_type stop thr = " << log_ptr(thr.get()) << ", type = " << type);
        stop_and_release(thr.get());
    }
    return static_cast<int>(found.size());
}

int thread_mgr_t::adjust_timer_precision(unsigned int ms) {
    if (ms < MIN_TIMER_PRECISION_MS || ms > MAX_TIMER_PRECISION_MS) {
        UTIL_ASSERT_MSG("thread_mgr_t::adjust_timer_precision should in scope[ticks_helper::MIN_INTERVAL, 1000ms]",
                        SOURCE_PATH, __LINE__, ", ms = " << ms);
        return RESULT_INVALID_ARG;
    }
    auto_lock_t<thread_mutex_recursive> guard(m_inner_lock);
    for (const thread_ref_t& thr : m_lists->threads)
        thr->adjust_timer_precision(ms);
    return RESULT_SUCCESS;
}

}  // namespace ssb

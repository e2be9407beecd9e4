// The channels between message-loop threads: the map each loop keeps, and
// the operations that bind and release both ends.
#include "thread_parts.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = "thread";

// Binds one end of a channel on that end's thread. Holds the queues while
// in flight; the sender waits, so it may leave its result on its stack.
class create_ch_msg_t : public msg_it {
public:
    create_ch_msg_t(thread_wrapper_t* from, thread_wrapper_t* to, r_msg_queue_it* r, w_msg_queue_it* w, int* result)
        : msg_it(MSG_TYPE_CREATE_CHANNEL, 1, MSG_TIMEOUT_NEVER, false),
          m_from(from),
          m_to(to),
          m_read(r),
          m_write(w),
          m_result(result) {}

    void on_message() override {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::create_ch_msg_t::on_message from = "
                               << log_ptr(m_from) << ", to = " << log_ptr(m_to) << ", this = " << log_ptr(this));
        if (!m_from || !m_to) {
            UTIL_ASSERT_LINE(SOURCE_PATH, 572, ", from = " << log_ptr(m_from) << ", to = " << log_ptr(m_to));
            return;
        }
        const int rv = m_to->bind_queue(m_from, m_read.get(), m_write.get());
        if (m_result)
            *m_result = rv;
    }

private:
    thread_wrapper_t* m_from;
    thread_wrapper_t* m_to;
    ref_holder_t<r_msg_queue_it> m_read;
    ref_holder_t<w_msg_queue_it> m_write;
    int* m_result;
};

// Unbinds one end of a channel on that end's thread. Holds a reference on
// the peer it names, so the key stays valid while in flight.
class release_ch_msg_t : public msg_it {
public:
    release_ch_msg_t(thread_wrapper_t* from, thread_wrapper_t* to, int* result)
        : msg_it(MSG_TYPE_RELEASE_CHANNEL, 1, MSG_TIMEOUT_NEVER, false), m_from(from), m_to(to), m_result(result) {}

    void on_message() override {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::release_ch_msg_t::on_message from = "
                               << log_ptr(m_from.get()) << ", to = " << log_ptr(m_to) << ", this = " << log_ptr(this));
        const int rv = m_to->detach_queue(m_from.get());
        if (m_result)
            *m_result = rv;
    }

private:
    ref_holder_t<thread_wrapper_t> m_from;
    thread_wrapper_t* m_to;
    int* m_result;
};

}  // namespace

// ---- the map ------------------------------------------------------------------------

void drain_queue(r_msg_queue_it* queue) {
    msg_it* msg = nullptr;
    while (queue->pop_msg(msg) == RESULT_SUCCESS)
        msg->release();
}

channel_map_t::~channel_map_t() {
    // Normally empty by now: a stop released the channels. Whatever is
    // left goes with the loop, its messages dropped.
    drain_all();
    for (ref_holder_t<r_msg_queue_it>& q : m_retired)
        drain_queue(q.get());
}

channel_map_t::channel_t* channel_map_t::find(thread_wrapper_t* peer) {
    for (channel_t& c : m_channels)
        if (c.peer.get() == peer)
            return &c;
    return nullptr;
}

bool channel_map_t::bind(thread_wrapper_t* peer, r_msg_queue_it* r, w_msg_queue_it* w) {
    if (find(peer))
        return false;
    msg_queue_base_t* queue = dynamic_cast<msg_queue_base_t*>(r);
    m_channels.push_back(channel_t{ref_holder_t<thread_wrapper_t>(peer), ref_holder_t<r_msg_queue_it>(r),
                                   ref_holder_t<w_msg_queue_it>(w), queue ? queue->counters() : nullptr});
    ++m_epoch;
    return true;
}

bool channel_map_t::detach(thread_wrapper_t* peer, bool& had_pending) {
    channel_t* c = find(peer);
    if (!c)
        return false;
    channel_t gone = std::move(*c);
    m_channels.erase(m_channels.begin() + (c - m_channels.data()));
    ++m_epoch;
    had_pending = !gone.read->is_empty();
    drain_queue(gone.read.get());
    m_retired.push_back(std::move(gone.read));
    free_retired();
    return true;
}

void channel_map_t::drain_all() {
    for (channel_t& c : m_channels)
        drain_queue(c.read.get());
}

void channel_map_t::free_retired() {
    for (size_t i = 0; i < m_retired.size();) {
        r_msg_queue_it* q = m_retired[i].get();
        // Ours is the last reference: the peer has let go of its write end,
        // so nothing can be pushed any more; drain what raced the release.
        if (q->get_count() == 1) {
            drain_queue(q);
            m_retired[i] = std::move(m_retired.back());
            m_retired.pop_back();
        } else {
            ++i;
        }
    }
}

// ---- binding both ends ----------------------------------------------------------------

int thread_wrapper_t::bind_end(thread_wrapper_t* end, thread_wrapper_t* peer, r_msg_queue_it* r, w_msg_queue_it* w) {
    if (end->on_own_thread())
        return end->bind_queue(peer, r, w);
    int result = RESULT_SUCCESS;
    msg_holder_t msg(new create_ch_msg_t(peer, end, r, w, &result));
    const int rv = msg.handed_over(end->send_ctrl_msg(msg.get(), nullptr, -1));
    if (rv != RESULT_SUCCESS) {
        UTIL_LOG(LOG_ERROR, "thread_wrapper_t::create_channel() bind_thr = " << log_ptr(end) << " failed, rv = " << rv
                                                                             << ", peer = " << log_ptr(peer));
        return rv;
    }
    return result;
}

int thread_wrapper_t::unbind_end(thread_wrapper_t* end, thread_wrapper_t* peer, bool wait) {
    if (end->on_own_thread())
        return end->detach_queue(peer);
    int result = RESULT_SUCCESS;
    msg_holder_t msg(new release_ch_msg_t(peer, end, wait ? &result : nullptr));
    const int rv =
        msg.handed_over(wait ? end->send_ctrl_msg(msg.get(), nullptr, -1) : end->post_ctrl_msg(msg.get(), nullptr));
    return rv != RESULT_SUCCESS ? rv : result;
}

int thread_wrapper_t::create_channel(thread_wrapper_t* bind_thr, unsigned int read_capacity,
                                     unsigned int write_capacity) {
    if (!bind_thr) {
        UTIL_ASSERT_MSG("thread_wrapper_t::create_channel bind thread should valid!, bind_thr = " << log_ptr(bind_thr),
                        SOURCE_PATH, __LINE__, ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    if (bind_thr == this) {
        UTIL_ASSERT_MSG("thread_wrapper_t::create_channel bind thread should not be itself", SOURCE_PATH, __LINE__,
                        ", this = " << log_ptr(this));
        return RESULT_REFUSED;
    }
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::create_channel(), bind_thr = "
                           << log_ptr(bind_thr) << ", read_capacity = " << read_capacity
                           << ", write_capacity = " << write_capacity << ", this = " << log_ptr(this));
    // Writers signal only an empty queue: the reader drains per wake-up.
    ref_holder_t<o2o_msg_queue_t> r(
        new o2o_msg_queue_t(m_notifier, bind_thr, read_capacity, MSG_QUEUE_SIGNAL_WHEN_EMPTY));
    ref_holder_t<o2o_msg_queue_t> w(
        new o2o_msg_queue_t(bind_thr->m_notifier, this, write_capacity, MSG_QUEUE_SIGNAL_WHEN_EMPTY));
    int rv = bind_end(bind_thr, this, w.get(), r.get());
    ref_holder_t<r_msg_queue_it> own_r(r.get());
    ref_holder_t<w_msg_queue_it> own_w(w.get());
    // The peer's end is bound already (a half left by a release or a
    // refused bind): this end joins its queues, or each side would write
    // where nobody reads.
    if (rv == RESULT_ALREADY_EXISTS)
        crossed_queues(bind_thr, this, own_r, own_w);
    if (rv == RESULT_SUCCESS || rv == RESULT_ALREADY_EXISTS) {
        int own = bind_end(this, bind_thr, own_r.get(), own_w.get());
        if (own == RESULT_ALREADY_EXISTS && rv == RESULT_SUCCESS) {
            // This end was the half: the peer's fresh end is swapped for
            // one over this end's queues.
            ref_holder_t<r_msg_queue_it> peer_r;
            ref_holder_t<w_msg_queue_it> peer_w;
            if (crossed_queues(this, bind_thr, peer_r, peer_w) && unbind_end(bind_thr, this, true) == RESULT_SUCCESS) {
                own = bind_end(bind_thr, this, peer_r.get(), peer_w.get());
                if (own == RESULT_SUCCESS)
                    own = RESULT_ALREADY_EXISTS;
            }
        } else if (own != RESULT_SUCCESS && own != RESULT_ALREADY_EXISTS && rv == RESULT_SUCCESS &&
                   unbind_end(bind_thr, this, true) != RESULT_SUCCESS) {
            // This end refused (a full control queue, a stop): the peer's
            // end bound just now goes too, so a retry finds neither bound.
            UTIL_LOG(LOG_WARNING, "thread_wrapper_t::create_channel() could not unbind the peer's end, bind_thr = "
                                      << log_ptr(bind_thr) << ", this = " << log_ptr(this));
        }
        if (own != RESULT_SUCCESS)
            rv = own;
    }
    return rv;
}

bool thread_wrapper_t::crossed_queues(thread_wrapper_t* end, thread_wrapper_t* peer, ref_holder_t<r_msg_queue_it>& r,
                                      ref_holder_t<w_msg_queue_it>& w) {
    auto_lock_t<thread_mutex_recursive> guard(end->m_lock);
    channel_map_t::channel_t* c = end->m_parts->channels.find(peer);
    r_msg_queue_it* read = c ? dynamic_cast<r_msg_queue_it*>(c->write.get()) : nullptr;
    w_msg_queue_it* write = c ? dynamic_cast<w_msg_queue_it*>(c->read.get()) : nullptr;
    if (!read || !write)
        return false;
    r = ref_holder_t<r_msg_queue_it>(read);
    w = ref_holder_t<w_msg_queue_it>(write);
    return true;
}

int thread_wrapper_t::release_channel(thread_wrapper_t* bind_thr) {
    UTIL_LOG(LOG_INFO,
             "thread_wrapper_t::release_channel() bind_thr = " << log_ptr(bind_thr) << ", this = " << log_ptr(this));
    if (!bind_thr)
        return RESULT_INVALID_ARG;
    ref_holder_t<thread_wrapper_t> keep(bind_thr);
    const int own = unbind_end(this, bind_thr, true);
    const int peer = unbind_end(bind_thr, this, true);
    if (own == RESULT_SUCCESS || peer == RESULT_SUCCESS)
        return RESULT_SUCCESS;
    return own == RESULT_NOT_FOUND && peer == RESULT_NOT_FOUND ? RESULT_NOT_FOUND : own;
}

int thread_wrapper_t::bind_queue(thread_wrapper_t* bind_thr, r_msg_queue_it* r_queue, w_msg_queue_it* w_queue) {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::bind_queue, self_id = "
                           << get_id() << ", bind_thr = " << log_ptr(bind_thr) << ", r_queue = " << log_ptr(r_queue)
                           << ", w_queue = " << log_ptr(w_queue) << ", this = " << log_ptr(this));
    if (!bind_thr || !r_queue || !w_queue)
        return RESULT_INVALID_ARG;
    if (!on_own_thread()) {
        UTIL_ASSERT_MSG("thread_wrapper_t::bind_queue should be in same thread, current tid = " << get_cur_tid(),
                        SOURCE_PATH, __LINE__, ", this = " << log_ptr(this));
        return RESULT_REFUSED;
    }
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    if (!m_parts->channels.bind(bind_thr, r_queue, w_queue)) {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::bind_queue bind_thr = "
                               << log_ptr(bind_thr) << " already be existed, skip it, this = " << log_ptr(this));
        return RESULT_ALREADY_EXISTS;
    }
    return RESULT_SUCCESS;
}

int thread_wrapper_t::detach_queue(thread_wrapper_t* bind_thr) {
    UTIL_LOG(LOG_INFO,
             "thread_wrapper_t::detach_queue bind_thr = " << log_ptr(bind_thr) << ", this = " << log_ptr(this));
    if (!on_own_thread()) {
        UTIL_ASSERT_MSG("thread_wrapper_t::detach_queue should be in same thread, current tid = " << get_cur_tid(),
                        SOURCE_PATH, __LINE__, ", this = " << log_ptr(this));
        return RESULT_REFUSED;
    }
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    bool had_pending = false;
    if (!m_parts->channels.detach(bind_thr, had_pending)) {
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::detach_queue has not found reader queue for bind_thr = "
                               << log_ptr(bind_thr) << ", this = " << log_ptr(this));
        return RESULT_NOT_FOUND;
    }
    if (had_pending)
        UTIL_LOG(LOG_WARNING, "thread_wrapper_t::release_channel, bind_thr = "
                                  << log_ptr(bind_thr)
                                  << " has pending message, should be release, this = " << log_ptr(this));
    return RESULT_SUCCESS;
}

// ---- sink wake-ups that found the control queue full ---------------------------------

int thread_wrapper_t::hold_sink_wakeup(msg_queue_base_t* queue) {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    if (is_stopped())
        return RESULT_NOTHING_TO_DO;
    m_parts->held_wakeups.push_back(ref_holder_t<msg_queue_base_t>(queue));
    m_parts->has_held_wakeups.store(true, std::memory_order_release);
    notify();
    return RESULT_SUCCESS;
}

void thread_wrapper_t::run_held_wakeups() {
    std::vector<ref_holder_t<msg_queue_base_t>> due;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_lock);
        due.swap(m_parts->held_wakeups);
        m_parts->has_held_wakeups.store(false, std::memory_order_relaxed);
    }
    for (const ref_holder_t<msg_queue_base_t>& queue : due)
        queue->on_sink();
}

// ---- looking channels up --------------------------------------------------------------

r_msg_queue_it* thread_wrapper_t::get_read_msgq(thread_wrapper_t* peer) {
    if (peer == this) {
        UTIL_LOG(LOG_WARNING,
                 "thread_wrapper_t::get_read_msgq() should return control message queue, this = " << log_ptr(this));
        return get_rw_msgq();
    }
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    channel_map_t::channel_t* c = m_parts->channels.find(peer);
    return c ? c->read.get() : nullptr;
}

w_msg_queue_it* thread_wrapper_t::get_write_msgq(thread_wrapper_t* peer) {
    if (peer == this) {
        UTIL_LOG(LOG_WARNING,
                 "thread_wrapper_t::get_write_msgq() should return control message queue, this = " << log_ptr(this));
        return get_rw_msgq();
    }
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    channel_map_t::channel_t* c = m_parts->channels.find(peer);
    return c ? c->write.get() : nullptr;
}

bool thread_wrapper_t::is_available(thread_wrapper_t* peer) {
    bool bound = false;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_lock);
        bound = m_parts->channels.find(peer) != nullptr;
    }
    // A bound peer is alive (the channel holds it), so asking it is safe.
    if (bound && peer->is_running())
        return true;
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::is_available, peer = "
                           << log_ptr(peer) << " already has been not availabed, this = " << log_ptr(this));
    return false;
}

unsigned int thread_wrapper_t::channel_count() {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    return static_cast<unsigned int>(m_parts->channels.size());
}

void thread_wrapper_t::dump_queue() {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::dump_queue() self_id = [" << get_id() << "], this = " << log_ptr(this));
    channel_map_t& map = m_parts->channels;
    for (size_t i = 0; i < map.size(); ++i)
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::dump_queue(), peer_thr = "
                               << log_ptr(map.at(i).peer.get()) << ", readq = " << log_ptr(map.at(i).read.get())
                               << ", writeq = " << log_ptr(map.at(i).write.get()));
}

}  // namespace ssb

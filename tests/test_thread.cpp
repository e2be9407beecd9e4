#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "ref_holder.h"
#include "stats.h"
#include "test_log_support.h"
#include "test_support.h"
#include "test_thread_support.h"
#include "thread.h"
#include "thread_mgr.h"
#include "timer.h"
#include "timer_drv.h"
#include "util.h"

using namespace ssb;

namespace {

const int MESSAGES_EACH_WAY = 1000000 / util_test::ROUNDS_SCALE;

using util_test::counting_sink_t;
using util_test::fn_msg_t;
using util_test::run_on;
using util_test::run_threads;

class Threads : public util_test::thread_test_t {
protected:
    thread_wrapper_t* spawn_event(unsigned int type = 100) {
        return m_mgr->spawn(THREAD_MODE_EVENT, 256, type, false, nullptr, 0xFFFFFFFFu);
    }
};

int post_ctrl(thread_wrapper_t* thr, std::function<void()> fn) {
    return thr->post_ctrl_msg(new fn_msg_t(std::move(fn)), nullptr);
}

// Posts empty messages to `to` until one is refused (the refused one stays
// the caller's and is released); returns how many went in.
int fill(thread_wrapper_t* to, msg_queue_sink_it* sink, bool ctrl = false, int* refusal = nullptr) {
    for (int n = 0;; ++n) {
        fn_msg_t* m = new fn_msg_t([] {});
        const int rv = ctrl ? to->post_ctrl_msg(m, sink) : to->post_msg(m, sink);
        if (rv != RESULT_SUCCESS) {
            m->release();
            if (refusal)
                *refusal = rv;
            return n;
        }
    }
}

// Holds `thr` inside a message, after `first` ran there, until `gate`
// opens; then runs `then` on it.
void hold(
    thread_wrapper_t* thr, std::atomic<bool>& gate, std::function<void()> first = [] {},
    std::function<void()> then = [] {}) {
    std::atomic<bool> inside(false);
    ASSERT_EQ(RESULT_SUCCESS, post_ctrl(thr, [&gate, &inside, first, then] {
                  first();
                  inside = true;
                  util_test::wait_until("the gate to open", [&] { return gate.load(); });
                  then();
              }));
    ASSERT_TRUE(util_test::wait_until("the loop to take the holding message", [&] { return inside.load(); }));
}

// Sends `total` numbered messages to `to` from its own thread, taking the
// back-pressure of a full channel through the queue's sink.
class producer_t : public msg_queue_sink_it {
public:
    producer_t(thread_wrapper_t* to, int total) : m_to(to), m_total(total), m_to_id(to->get_id()) {}
    void produce() {
        while (m_sent < m_total) {
            if (!m_held) {
                const int seq = m_sent;
                m_held = new fn_msg_t([this, seq] {
                    if (get_cur_tid() != m_to_id || m_next != seq)
                        ++m_wrong;
                    m_next = seq + 1;
                });
            }
            if (m_to->post_msg(m_held, this) == RESULT_QUEUE_FULL) {
                ++m_full;
                return;  // on_queue_room resumes on this thread
            }
            m_held = nullptr;
            ++m_sent;
        }
    }
    void on_queue_room(int) override { produce(); }

    thread_wrapper_t* m_to;
    int m_total, m_sent = 0, m_full = 0;
    int m_next = 0;  // the receiver's
    msg_it* m_held = nullptr;
    unsigned int m_to_id;
    std::atomic<int> m_wrong{0};
};

TEST_F(Threads, StressTwoThreadsExchangeAMillionMessagesInOrderWithBackPressure) {
    thread_wrapper_t* a = spawn_event();
    thread_wrapper_t* b = spawn_event();
    ASSERT_TRUE(a && b);
    // From a thread that is neither end: both ends are bound by messages.
    ASSERT_EQ(RESULT_SUCCESS, a->create_channel(b, 32, 32));
    EXPECT_EQ(RESULT_ALREADY_EXISTS, b->create_channel(a, 32, 32));
    EXPECT_TRUE(m_log.contains("already be existed, skip it"));
    producer_t to_b(b, MESSAGES_EACH_WAY), to_a(a, MESSAGES_EACH_WAY);
    post_ctrl(a, [&] { to_b.produce(); });
    post_ctrl(b, [&] { to_a.produce(); });
    UTIL_WAIT_UNTIL([&] {
        int done_b = 0, done_a = 0;
        run_on(b, [&] { done_b = to_b.m_next; });
        run_on(a, [&] { done_a = to_a.m_next; });
        return done_a == MESSAGES_EACH_WAY && done_b == MESSAGES_EACH_WAY;
    });
    EXPECT_EQ(0, to_b.m_wrong.load() + to_a.m_wrong.load());
    // A 32-slot channel cannot take a burst: the writers were held back.
    EXPECT_GT(to_b.m_full + to_a.m_full, 0);
}

TEST_F(Threads, AFullChannelCallsItsSinkOnceOnTheWritersThreadAndAWithdrawnOneNever) {
    thread_wrapper_t* writer = spawn_event();
    ASSERT_EQ(RESULT_SUCCESS, m_main->create_channel(writer, 32, 32));
    counting_sink_t kept, withdrawn;
    int accepted = 0, refusal = 0;
    run_on(writer, [&] {
        accepted = fill(m_main, &kept, false, &refusal);
        EXPECT_EQ(0, fill(m_main, &withdrawn));
        msg_queue_base_t* queue = dynamic_cast<msg_queue_base_t*>(writer->get_write_msgq(m_main));
        ASSERT_NE(nullptr, queue);
        EXPECT_EQ(RESULT_SUCCESS, queue->withdraw_sink(&withdrawn));
        EXPECT_EQ(RESULT_NOT_FOUND, queue->withdraw_sink(&withdrawn));
    });
    EXPECT_EQ(31, accepted);
    EXPECT_EQ(RESULT_QUEUE_FULL, refusal);
    EXPECT_TRUE(m_log.contains(" failed, no room, sink = "));
    // The main thread drains its channel; the wake-up travels back.
    EXPECT_EQ(RESULT_SUCCESS, main_heartbeat());
    UTIL_WAIT_UNTIL([&] { return kept.calls.load() == 1; });
    EXPECT_EQ(writer->get_id(), kept.tid.load());
    EXPECT_EQ(0, kept.reason.load());
    run_on(writer, [] {});
    EXPECT_EQ(1, kept.calls.load());
    EXPECT_EQ(0, withdrawn.calls.load());
}

TEST_F(Threads, APassHandlesALoadOf100AndDropsOvertimeMessages) {
    thread_wrapper_t* writer = spawn_event();
    ASSERT_EQ(RESULT_SUCCESS, m_main->create_channel(writer, 256, 32));
    std::atomic<int> ran(0);
    run_on(writer, [&] {
        for (int i = 0; i < 150; ++i)
            ASSERT_EQ(RESULT_SUCCESS, m_main->post_msg(new fn_msg_t([&] { ++ran; }), nullptr));
    });
    EXPECT_EQ(100u, m_main->process_msg(WAIT_INFINITE_MS));
    EXPECT_EQ(100, ran.load());
    EXPECT_TRUE(m_log.contains("thread_wrapper_t::process_msg, loads = 100"));
    EXPECT_EQ(50u, m_main->process_msg(WAIT_INFINITE_MS));
    // Overtime: older than its time-out when its turn comes.
    run_on(writer, [&] { m_main->post_msg(new fn_msg_t([&] { ++ran; }, 0), nullptr); });
    const uint32_t posted = ticks_drv_t::now();
    UTIL_WAIT_UNTIL([&] { return ticks_drv_t::now() - posted > 2; });
    EXPECT_EQ(0u, m_main->process_msg(WAIT_INFINITE_MS));
    EXPECT_EQ(150, ran.load());
    EXPECT_TRUE(
        m_log.contains("thread_wrapper_t::process_msg() the msg already overtime, (uint32_t)msg->get_type() = 0"));
}

TEST_F(Threads, RoutingAndMisuseReportTheirCodes) {
    thread_wrapper_t* a = spawn_event();
    thread_wrapper_t* b = spawn_event();
    EXPECT_EQ(RESULT_INVALID_ARG, a->create_channel(nullptr, 32, 32));
    EXPECT_TRUE(m_log.contains("thread_wrapper_t::create_channel bind thread should valid!"));
    EXPECT_EQ(RESULT_REFUSED, a->create_channel(a, 32, 32));
    EXPECT_EQ(RESULT_REFUSED, a->bind_queue(b, a->get_rw_msgq(), a->get_rw_msgq()));
    // A managed thread reaches only the threads it is bound to.
    int rv = -1;
    run_on(a, [&] { EXPECT_EQ(0, fill(b, nullptr, false, &rv)); });
    EXPECT_EQ(RESULT_NOT_FOUND, rv);
    EXPECT_TRUE(m_log.contains("thread_wrapper_t::post_msg_i has been not found"));
    EXPECT_FALSE(a->is_available(b));
    // send_msg returns after the target ran the message; never to itself.
    ASSERT_EQ(RESULT_SUCCESS, a->create_channel(b, 32, 32));
    EXPECT_TRUE(a->is_available(b));
    bool ran = false;
    run_on(a, [&] {
        rv = b->send_msg(new fn_msg_t([&] { ran = true; }), nullptr, -1);
        EXPECT_TRUE(ran);
        fn_msg_t* self_msg = new fn_msg_t([] {});
        EXPECT_EQ(RESULT_REFUSED, a->send_msg(self_msg, nullptr, -1));
        self_msg->release();
    });
    EXPECT_EQ(RESULT_SUCCESS, rv);
    EXPECT_TRUE(m_log.contains("thread_wrapper_t::send_msg cannot send event to self"));
    // Release unbinds both ends (each keeps its channel to the timer
    // driver); a second release finds nothing.
    EXPECT_EQ(2u, a->channel_count());
    EXPECT_EQ(RESULT_SUCCESS, b->release_channel(a));
    EXPECT_EQ(1u, a->channel_count());
    EXPECT_EQ(1u, b->channel_count());
    EXPECT_EQ(RESULT_NOT_FOUND, b->release_channel(a));
}

// A loop the library no longer names (off the manager's list, its slot
// cleared) still refuses a synchronous send to itself, which would wait for
// ever; the send's deadline turns a missing check into a failure, not a hang.
TEST_F(Threads, SendToItselfIsRefusedWhenTheLoopIsNoLongerListed) {
    thread_wrapper_t* a = spawn_event();
    int rv = -1;
    run_on(a, [&] {
        ASSERT_EQ(RESULT_SUCCESS, m_mgr->detach(a));
        ASSERT_EQ(RESULT_SUCCESS, thread_mgr_t::unregister_tls(a));
        fn_msg_t* m = new fn_msg_t([] {});
        rv = a->send_msg(m, nullptr, 2000);
        if (rv != RESULT_SUCCESS && rv != RESULT_BUSY)
            m->release();
        thread_mgr_t::register_tls(a);
    });
    EXPECT_EQ(RESULT_REFUSED, rv);
    EXPECT_TRUE(m_log.contains("thread_wrapper_t::send_msg cannot send event to self"));
    EXPECT_FALSE(m_log.contains("would wait for a thread that waits for the caller"));
}

TEST_F(Threads, StopIsSynchronousOnceAndRefusesLaterPosts) {
    thread_wrapper_t* a = spawn_event();
    thread_wrapper_t* b = spawn_event();
    ASSERT_EQ(RESULT_SUCCESS, a->create_channel(b, 32, 32));
    a->increment();
    const unsigned int a_id = a->get_id();
    EXPECT_EQ(RESULT_SUCCESS, a->stop());
    // stop_i ran before stop returned: the channel is gone at this end, and
    // the other end lets go when its loop runs the release.
    EXPECT_TRUE(a->is_stopped());
    EXPECT_EQ(0u, a->channel_count());
    UTIL_WAIT_UNTIL([&] { return b->channel_count() == 1; });
    EXPECT_EQ(nullptr, m_mgr->find_by_id(a_id));
    EXPECT_EQ(RESULT_NOTHING_TO_DO, a->stop());
    fn_msg_t* late = new fn_msg_t([] {});
    EXPECT_EQ(RESULT_NOTHING_TO_DO, a->post_msg(late, nullptr));
    EXPECT_TRUE(m_log.contains("assert: file[thread], line = [632]"));
    EXPECT_EQ(RESULT_INVALID_ARG, a->send_ctrl_msg(late, nullptr, -1));
    EXPECT_TRUE(m_log.contains("assert: file[thread], line = [740]"));
    late->release();
    a->decrement();
    // From inside one of its own messages a thread stops at once.
    std::atomic<bool> stopped_inside(false);
    post_ctrl(b, [&] {
        b->stop();
        stopped_inside = b->is_stopped();
    });
    UTIL_WAIT_UNTIL([&] { return stopped_inside.load() && m_mgr->find_by_type(100) == nullptr; });
}

TEST_F(Threads, ParkedMessageWaitsForRoomAndGoesFirst) {
    thread_wrapper_t* writer = spawn_event();
    ASSERT_EQ(RESULT_SUCCESS, m_main->create_channel(writer, 32, 32));
    std::vector<int> order;
    auto push = [&order](int v) { return new fn_msg_t([&order, v] { order.push_back(v); }); };
    int rv = -1;
    run_on(writer, [&] {
        for (int i = 0; i < 31; ++i)
            m_main->post_msg(push(0), nullptr);
        thread_wrapper_t* self = thread_wrapper_t::self();
        EXPECT_EQ(RESULT_SUCCESS, self->pend(push(1), m_main));
        EXPECT_TRUE(self->is_pending());
        // Still no room: a newer post is refused rather than overtaking.
        msg_it* newer = push(2);
        if ((rv = m_main->post_msg(newer, nullptr)) != RESULT_SUCCESS)
            newer->release();
    });
    EXPECT_EQ(RESULT_QUEUE_FULL, rv);
    m_main->process_msg(WAIT_INFINITE_MS);
    run_on(writer, [&] {
        EXPECT_EQ(RESULT_SUCCESS, m_main->post_msg(push(2), nullptr));
        EXPECT_FALSE(thread_wrapper_t::self()->is_pending());
    });
    m_main->process_msg(WAIT_INFINITE_MS);
    ASSERT_EQ(33u, order.size());
    EXPECT_EQ(1, order[31]);
    EXPECT_EQ(2, order[32]);
    // The parked message went through the channel it was refused by, not
    // the control queue, which may run it in the same pass and hide it.
    thread_stats_t stats;
    ASSERT_EQ(RESULT_SUCCESS, get_thread_stats(m_main, stats));
    uint64_t from_writer = 0;
    for (const queue_stats_t& q : stats.channels)
        from_writer += q.peer == writer->name() ? q.run : 0;
    EXPECT_EQ(33u, from_writer);
}

TEST_F(Threads, TimerPrecisionRange) {
    EXPECT_EQ(RESULT_INVALID_ARG, m_main->adjust_timer_precision(9));
    EXPECT_EQ(RESULT_INVALID_ARG, m_main->adjust_timer_precision(1001));
    EXPECT_TRUE(
        m_log.contains("assert: msg[thread_wrapper_t::adjust_timer_precision should in scope"
                       "[ticks_helper::MIN_INTERVAL, 1000ms]] file[thread], line = [1620]"));
    EXPECT_EQ(RESULT_SUCCESS, m_main->adjust_timer_precision(10));
    EXPECT_EQ(RESULT_SUCCESS, m_mgr->adjust_timer_precision(1000));
    EXPECT_EQ(1000u, m_mgr->find_by_type(THREAD_TYPE_TIMER)->get_timer_precision());
    EXPECT_EQ(0u, m_main->start(nullptr, nullptr, 0, 0));
}

TEST_F(Threads, ChannelsThatComeAndGoLeaveMemoryFlat) {
    thread_wrapper_t* a = spawn_event(100);
    thread_wrapper_t* b = spawn_event(101);
    ASSERT_TRUE(a && b);
    const int queues_before = live_msg_queues();
    const int CYCLES = 10000 / util_test::ROUNDS_SCALE;
    std::atomic<int> ran(0);
    for (int i = 0; i < CYCLES; ++i) {
        ASSERT_EQ(RESULT_SUCCESS, a->create_channel(b, 64, 64));
        // A message in flight when the channel goes is released, not kept.
        run_on(a, [&] { EXPECT_EQ(RESULT_SUCCESS, b->post_msg(new fn_msg_t([&] { ++ran; }), nullptr)); });
        ASSERT_EQ(RESULT_SUCCESS, a->release_channel(b));
        // What remains are read queues waiting for the other end to let go,
        // freed by the next pass of each loop.
        ASSERT_LE(live_msg_queues(), queues_before + 4) << "after cycle " << i;
    }
    UTIL_WAIT_UNTIL([&] {
        run_on(a, [] {});
        run_on(b, [] {});
        return live_msg_queues() == queues_before;
    });
    EXPECT_LE(ran.load(), CYCLES);
}

TEST_F(Threads, WaitsThatWouldDeadlockAreRefusedWith12) {
    thread_wrapper_t* a = spawn_event(100);
    thread_wrapper_t* b = spawn_event(101);
    ASSERT_TRUE(a && b);
    // Each stops the other from inside a message, both at once: one stop
    // waits for the other thread, which would wait back.
    std::atomic<int> inside(0), rv_a(-1), rv_b(-1);
    auto meet = [&] {
        ++inside;
        return util_test::wait_until("both messages to start", [&] { return inside.load() == 2; });
    };
    ASSERT_EQ(RESULT_SUCCESS, post_ctrl(a, [&] {
                  if (meet())
                      rv_a = b->stop();
              }));
    ASSERT_EQ(RESULT_SUCCESS, post_ctrl(b, [&] {
                  if (meet())
                      rv_b = a->stop();
              }));
    UTIL_WAIT_UNTIL([&] { return rv_a.load() != -1 && rv_b.load() != -1; });
    ASSERT_NE(a->is_stopped(), b->is_stopped());
    // The stopped one refused to wait for the other, then ran its stop.
    EXPECT_EQ(RESULT_REFUSED, a->is_stopped() ? rv_a.load() : rv_b.load());
    EXPECT_EQ(RESULT_SUCCESS, a->is_stopped() ? rv_b.load() : rv_a.load());
    EXPECT_TRUE(m_log.contains("would wait for a thread that waits for the caller"));
    // A loop that sends to its own control queue would wait for itself.
    thread_wrapper_t* alive = a->is_stopped() ? b : a;
    std::atomic<int> self_rv(-1);
    ASSERT_EQ(RESULT_SUCCESS, post_ctrl(alive, [&] {
                  fn_msg_t* m = new fn_msg_t([] {});
                  if ((self_rv = alive->send_ctrl_msg(m, nullptr, -1)) != RESULT_SUCCESS)
                      m->release();
              }));
    UTIL_WAIT_UNTIL([&] { return self_rv.load() != -1; });
    EXPECT_EQ(RESULT_REFUSED, self_rv.load());
}

TEST_F(Threads, AStopAlwaysReachesTheLoopEvenThroughAFullControlQueue) {
    // Sizes that would leave a control queue without room are clamped.
    for (unsigned int size : {0u, 1u, 4294967295u}) {
        thread_wrapper_t* odd = m_mgr->spawn(THREAD_MODE_EVENT, size, 102, false, nullptr, 0xFFFFFFFFu);
        ASSERT_NE(nullptr, odd);
        EXPECT_GE(odd->queue_size(), 32u);
        std::atomic<bool> ran(false);
        run_on(odd, [&] { ran = true; });
        EXPECT_TRUE(ran.load());
        EXPECT_EQ(1, m_mgr->stop_threads_by_type(102)) << "size " << size;
    }
    EXPECT_TRUE(m_log.contains("control queue size out of range"));
    // A busy loop whose control queue a host filled: the stop message finds
    // no room, the flag takes the stop instead, and stop() returns once the
    // loop has stopped.
    thread_wrapper_t* busy = spawn_event(103);
    ASSERT_NE(nullptr, busy);
    std::atomic<bool> gate(false);
    hold(busy, gate);
    fill(busy, nullptr, true);
    std::atomic<int> stop_rv(-1);
    std::thread stopper([&] { stop_rv = busy->stop(); });
    UTIL_WAIT_UNTIL([&] { return m_log.contains("the loop stops at its next pass"); });
    gate = true;
    stopper.join();
    EXPECT_EQ(RESULT_SUCCESS, stop_rv.load());
    EXPECT_TRUE(busy->is_stopped());
}

// The main loop is pumped by the caller: nothing but the flag a pass reads
// can carry a stop refused by its full control queue.
TEST_F(Threads, AStopThroughAFullControlQueueIsCarriedByTheNextPass) {
    fill(m_main, nullptr, true);
    std::thread requester([&] { EXPECT_EQ(RESULT_SUCCESS, m_main->request_stop()); });
    requester.join();
    EXPECT_FALSE(m_main->is_stopped());
    m_main->process_msg(WAIT_INFINITE_MS);
    EXPECT_TRUE(m_main->is_stopped());
}

TEST_F(Threads, StopThroughAFullControlQueueReturnsOnlyOnceTheLoopHasStopped) {
    fill(m_main, nullptr, true);
    std::atomic<int> stop_rv(-1);
    std::atomic<bool> stopped_at_return(false);
    std::thread stopper([&] {
        stop_rv = m_main->stop();
        stopped_at_return = m_main->is_stopped();
    });
    UTIL_WAIT_UNTIL([&] { return m_log.contains("the loop stops at its next pass"); });
    EXPECT_EQ(-1, stop_rv.load()) << "stop() returned before the loop ran a pass";
    // The line is logged before the flag is raised: pump until a pass sees it.
    UTIL_WAIT_UNTIL([&] {
        m_main->process_msg(WAIT_INFINITE_MS);
        return m_main->is_stopped();
    });
    stopper.join();
    EXPECT_EQ(RESULT_SUCCESS, stop_rv.load());
    EXPECT_TRUE(stopped_at_return.load());
}

TEST_F(Threads, ASendDroppedUnrunByAStopReports9NotSuccess) {
    thread_wrapper_t* b = spawn_event(104);
    ASSERT_NE(nullptr, b);
    // Kept past its stop: the manager releases a stopped thread.
    b->increment();
    std::atomic<bool> gate(false), ran(false);
    // b stops itself from a message, dropping what is queued behind it.
    hold(
        b, gate, [] {}, [b] { b->stop(); });
    std::atomic<int> rv(-1);
    // From a thread the manager does not know: through the control queue.
    std::thread sender([&] { rv = b->send_msg(new fn_msg_t([&] { ran = true; }), nullptr, -1); });
    UTIL_WAIT_UNTIL([&] { return !b->get_rw_msgq()->is_empty(); });
    gate = true;
    sender.join();
    EXPECT_EQ(RESULT_NOTHING_TO_DO, rv.load());
    EXPECT_FALSE(ran.load());
    // A channel to a stopped thread is refused on both sides.
    thread_wrapper_t* c = spawn_event(105);
    ASSERT_NE(nullptr, c);
    const int created = c->create_channel(b, 32, 32);
    EXPECT_NE(RESULT_SUCCESS, created);
    EXPECT_TRUE(b->is_stopped()) << created;
    EXPECT_EQ(nullptr, c->get_write_msgq(b)) << "no half channel";
    b->decrement();
}

// Keeps a channel full and, each time there is room, also talks to the
// reader synchronously: the pattern that met the reader on the queue's lock
// when sinks were called under it.
struct chatty_writer_t : msg_queue_sink_it {
    chatty_writer_t(thread_wrapper_t* reader, int rounds) : m_reader(reader), m_rounds(rounds) {}
    void on_queue_room(int) override {
        if (++m_calls > m_rounds)
            return;
        fill(m_reader, this);
        m_sent_rv = m_reader->send_ctrl_msg(new fn_msg_t([] {}), nullptr, -1);
    }
    thread_wrapper_t* m_reader;
    int m_rounds;
    std::atomic<int> m_calls{0}, m_sent_rv{-1};
};

TEST_F(Threads, ASinkMayTalkToTheReaderSynchronously) {
    thread_wrapper_t* writer = spawn_event(106);
    thread_wrapper_t* reader = spawn_event(107);
    ASSERT_TRUE(writer && reader);
    ASSERT_EQ(RESULT_SUCCESS, writer->create_channel(reader, 8, 8));
    chatty_writer_t chat(reader, 200);
    run_on(writer, [&] { fill(reader, &chat); });
    UTIL_WAIT_UNTIL([&] { return chat.m_calls.load() > chat.m_rounds; });
    EXPECT_EQ(RESULT_SUCCESS, chat.m_sent_rv.load());
}

TEST_F(Threads, ASinkWakeUpSurvivesTheWritersFullControlQueue) {
    thread_wrapper_t* writer = spawn_event(109);
    ASSERT_NE(nullptr, writer);
    ASSERT_EQ(RESULT_SUCCESS, m_main->create_channel(writer, 8, 8));
    counting_sink_t sink;
    std::atomic<bool> gate(false);
    // The writer fills its channel to the main thread, then blocks while its
    // own control queue fills up.
    hold(writer, gate, [&] { fill(m_main, &sink); });
    fill(writer, nullptr, true);
    // The main thread drains the channel: the wake-up finds no room.
    EXPECT_EQ(RESULT_SUCCESS, main_heartbeat());
    EXPECT_TRUE(m_log.contains("deferred_msg_op_t::launch failed"));
    gate = true;
    UTIL_WAIT_UNTIL([&] { return sink.calls.load() == 1; });
    EXPECT_EQ(writer->get_id(), sink.tid.load());
    run_on(writer, [] {});
    EXPECT_EQ(1, sink.calls.load());
}

// One end bound alone, as a bind refused by a full control queue or a
// release that could not reach the peer leaves it.
void bind_half(thread_wrapper_t* end, thread_wrapper_t* peer) {
    ref_holder_t<o2o_msg_queue_t> r(new o2o_msg_queue_t(end->get_notifier(), peer, 32, MSG_QUEUE_SIGNAL_WHEN_EMPTY));
    ref_holder_t<o2o_msg_queue_t> w(new o2o_msg_queue_t(peer->get_notifier(), end, 32, MSG_QUEUE_SIGNAL_WHEN_EMPTY));
    int rv = -1;
    run_on(end, [&] { rv = end->bind_queue(peer, r.get(), w.get()); });
    ASSERT_EQ(RESULT_SUCCESS, rv);
}

TEST_F(Threads, ACreateOverAHalfBoundChannelJoinsTheQueuesOfTheBoundEnd) {
    thread_wrapper_t* a = spawn_event(111);
    thread_wrapper_t* b = spawn_event(112);
    thread_wrapper_t* c = spawn_event(113);
    ASSERT_TRUE(a && b && c);
    // The half at the peer, then at the creating end itself.
    bind_half(b, a);
    EXPECT_EQ(RESULT_ALREADY_EXISTS, a->create_channel(b, 32, 32));
    bind_half(c, a);
    EXPECT_EQ(RESULT_ALREADY_EXISTS, c->create_channel(a, 32, 32));
    // Each side writes where the other reads.
    std::atomic<int> ran(0);
    const std::pair<thread_wrapper_t*, thread_wrapper_t*> pairs[] = {{a, b}, {b, a}, {a, c}, {c, a}};
    for (const auto& p : pairs)
        run_on(p.first, [&] { EXPECT_EQ(RESULT_SUCCESS, p.second->post_msg(new fn_msg_t([&] { ++ran; }), nullptr)); });
    UTIL_WAIT_UNTIL([&] { return ran.load() == 4; });
}

// Wake-ups of sleeping loops. Idle wheels get no ticks meanwhile, so only
// the test's posts wake a loop: a lost wake-up stalls, failing a named wait,
// instead of being covered up by the next tick. In turn: bursts from plain
// threads (control queue) and from a loop (channel), each burst run before
// the next so the reader sleeps in between; one message ping-ponged between
// two loops, each hop landing as its target goes back to sleep; posts from
// the test's thread a varying few microseconds apart, landing at every
// point of the loop's way to its sleep; last, stops of the sleeping loops.
TEST_F(Threads, EveryPostAndStopWakesASleepingLoop) {
    timer_drv_t::set_low_power(true);
    struct restore_t {
        ~restore_t() { timer_drv_t::set_low_power(false); }
    } restore;
    const int loops = 4;
    std::vector<thread_wrapper_t*> thr;
    for (int i = 0; i < loops; ++i) {
        thr.push_back(spawn_event(120 + i));
        ASSERT_NE(nullptr, thr.back());
    }
    thread_wrapper_t *reader = thr[0], *loop_writer = thr[1], *racer = thr[2];
    ASSERT_EQ(RESULT_SUCCESS, loop_writer->create_channel(reader, 64, 64));
    ASSERT_EQ(RESULT_SUCCESS, m_main->create_channel(racer, 32, 32));
    const int plain_writers = 4, burst = 40, bursts = 300 / util_test::ROUNDS_SCALE;
    std::atomic<int> ran(0), wrong_thread(0);
    const unsigned int reader_id = reader->get_id();
    auto counted = [&] {
        return new fn_msg_t([&, reader_id] {
            wrong_thread += get_cur_tid() != reader_id;
            ++ran;
        });
    };
    int posted = 0;
    for (int b = 0; b < bursts; ++b) {
        post_ctrl(loop_writer, [&] {
            for (int i = 0; i < burst; ++i)  // 40 fit in the channel's 63 places
                EXPECT_EQ(RESULT_SUCCESS, reader->post_msg(counted(), nullptr));
        });
        run_threads(plain_writers, [&](int) {
            for (int i = 0; i < burst; ++i) {
                msg_it* msg = counted();
                while (reader->post_msg(msg, nullptr) == RESULT_QUEUE_FULL)
                    std::this_thread::yield();
            }
        });
        posted += (plain_writers + 1) * burst;
        ASSERT_TRUE(
            util_test::wait_until("every message of the burst ran on the reader", [&] { return ran.load() == posted; }))
            << "burst " << b << ": " << ran.load() << " of " << posted << " ran";
    }
    EXPECT_EQ(0, wrong_thread.load());

    const int round_trips = 20000 / util_test::ROUNDS_SCALE;
    std::atomic<int> returned(0), refused(0);
    std::function<void()> serve_at_reader;
    std::function<void()> serve_at_writer = [&] {
        refused += reader->post_msg(new fn_msg_t(serve_at_reader), nullptr) != RESULT_SUCCESS;
    };
    serve_at_reader = [&] {
        if (++returned < round_trips)
            refused += loop_writer->post_msg(new fn_msg_t(serve_at_writer), nullptr) != RESULT_SUCCESS;
    };
    post_ctrl(reader, [&] { loop_writer->post_msg(new fn_msg_t(serve_at_writer), nullptr); });
    ASSERT_TRUE(util_test::wait_until("every round trip between the two loops",
                                      [&] { return returned.load() == round_trips || refused.load() != 0; }))
        << returned.load() << " of " << round_trips << " round trips came back";
    EXPECT_EQ(0, refused.load());

    const int posts = 100000 / util_test::ROUNDS_SCALE;
    std::atomic<int> raced(0), spin(0);
    for (int i = 0; i < posts; ++i) {
        for (int n = (i * 37) % 2048; n > 0; --n)
            spin.fetch_add(1, std::memory_order_relaxed);
        msg_it* msg = new fn_msg_t([&] { raced.fetch_add(1, std::memory_order_relaxed); });
        // Nobody runs the main loop's sink call-backs here: offered again.
        while (racer->post_msg(msg, nullptr) == RESULT_QUEUE_FULL)
            std::this_thread::yield();
    }
    ASSERT_TRUE(util_test::wait_until("the loop ran every post", [&] { return raced.load() == posts; }))
        << raced.load() << " of " << posts << " ran";

    std::atomic<int> stopped(0);
    for (thread_wrapper_t* t : thr) {
        run_on(t, [] {});  // a message run and done: the loop goes back to sleep
        t->increment();
    }
    // From another thread, so that a stop that never wakes its loop fails
    // this wait by name instead of hanging the test body.
    std::thread stopper([&] {
        for (thread_wrapper_t* t : thr)
            stopped += t->stop() == RESULT_SUCCESS && t->is_stopped();
    });
    const bool all = util_test::wait_until("every sleeping loop stopped", [&] { return stopped.load() == loops; });
    all ? stopper.join() : stopper.detach();
    ASSERT_TRUE(all) << stopped.load() << " of " << loops << " loops stopped";
    for (thread_wrapper_t* t : thr)
        t->decrement();
}

// Time is the behaviour: without a post the wait lasts at least its
// time-out (less the 10 ms by which a Windows wait may end early on a coarse
// clock tick); a post from another thread ends a wait of the test's whole
// limit long before it.
TEST_F(Threads, ALoopsTimedWaitEndsOnTimeWithoutAPostAndAtOnceWithOne) {
    using clock = std::chrono::steady_clock;
    thread_wrapper_t* loop = new thread_wrapper_t(0, 140, 64, nullptr, 1, false, nullptr);
    loop->increment();
    ASSERT_EQ(RESULT_SUCCESS, loop->open_notifier(1));
    clock::time_point start = clock::now();
    EXPECT_EQ(RESULT_SUCCESS, loop->wait(60));
    EXPECT_GE(clock::now() - start, std::chrono::milliseconds(50));
    std::atomic<bool> ran(false);
    std::thread poster([&] { EXPECT_EQ(RESULT_SUCCESS, loop->post_msg(new fn_msg_t([&] { ran = true; }), nullptr)); });
    const unsigned int limit_ms = static_cast<unsigned int>(std::chrono::milliseconds(util_test::WAIT_LIMIT).count());
    start = clock::now();
    EXPECT_EQ(RESULT_SUCCESS, loop->wait(limit_ms));
    EXPECT_LT(clock::now() - start, util_test::WAIT_LIMIT) << "the post did not wake the waiting loop";
    poster.join();
    loop->process_msg(0xFFFFFFFFu);
    EXPECT_TRUE(ran.load());
    loop->decrement();
}

}  // namespace

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "live_count.h"
#include "msg_queue.h"
#include "notifier.h"
#include "stats.h"
#include "stats_internal.h"
#include "test_support.h"
#include "test_thread_support.h"
#include "thread.h"

using namespace ssb;

namespace {

std::atomic<int> g_live(0);

// A message that counts itself and records what ran.
class counted_msg_t : public msg_it {
public:
    counted_msg_t(int writer = 0, int seq = 0, std::atomic<int>* ran = nullptr)
        : m_writer(writer), m_seq(seq), m_ran(ran) {
        ++g_live;
    }
    void on_message() override {
        if (m_ran)
            ++*m_ran;
    }
    int m_writer;
    int m_seq;

protected:
    ~counted_msg_t() override { --g_live; }

private:
    std::atomic<int>* m_ran;
};

// Counts signals; waits are not used by these tests.
class counting_notifier_t : public notifier_it {
public:
    int wait(int, bool) override { return RESULT_BUSY; }
    int signal() override { return ++m_signals, 0; }
    int pulse(bool) override { return 0; }
    int reset() override { return 0; }
    notifier_handle_t get_id() const override { return 0; }
    int open() override { return 0; }
    void close() override {}
    bool is_active() const override { return true; }
    std::atomic<int> m_signals{0};
};

using sink_t = util_test::counting_sink_t;

template <class Q>
Q* make_queue(notifier_it* n, thread_wrapper_t* writer, unsigned int capacity, unsigned int mode) {
    Q* q = new Q(n, writer, capacity, mode);
    q->increment();
    return q;
}

void release_all(r_msg_queue_it* q) {
    msg_it* m = nullptr;
    while (q->pop_msg(m) == RESULT_SUCCESS)
        m->release();
}

class MsgQueue : public ::testing::Test {
protected:
    void SetUp() override { g_live = 0; }
    void TearDown() override { EXPECT_EQ(0, g_live.load()); }
};

// ---- full queues, status and signalling -------------------------------------------

template <class Q>
void full_queue_keeps_the_message() {
    counting_notifier_t n;
    Q* q = make_queue<Q>(&n, nullptr, 32, MSG_QUEUE_SIGNAL_ALWAYS);
    EXPECT_EQ(RESULT_INVALID_ARG, q->post_msg(nullptr, nullptr));
    EXPECT_EQ(RESULT_INVALID_ARG, q->send_msg(nullptr, nullptr, 0));
    EXPECT_EQ(0, n.m_signals.load());
    for (int i = 0; i < 31; ++i)
        ASSERT_EQ(RESULT_SUCCESS, q->post_msg(new counted_msg_t, nullptr));
    EXPECT_EQ(MSG_QUEUE_STATUS_NORMAL, q->status());
    EXPECT_TRUE(q->is_full());
    counted_msg_t* extra = new counted_msg_t;
    EXPECT_EQ(RESULT_QUEUE_FULL, q->post_msg(extra, nullptr));
    EXPECT_EQ(MSG_QUEUE_STATUS_FULL, q->status());
    // Mode 0 signals on every post, the refused one included.
    EXPECT_EQ(32, n.m_signals.load());
    EXPECT_EQ(32, g_live.load());                                     // nothing released: the extra is ours
    EXPECT_EQ(RESULT_QUEUE_FULL, q->send_msg(extra, nullptr, 1000));  // no wrapper, no wait
    EXPECT_EQ(32, n.m_signals.load());
    extra->release();
    // The next pop, successful or not, returns the status to normal.
    msg_it* m = nullptr;
    ASSERT_EQ(RESULT_SUCCESS, q->pop_msg(m));
    m->release();
    EXPECT_EQ(MSG_QUEUE_STATUS_NORMAL, q->status());
    release_all(q);
    EXPECT_EQ(RESULT_QUEUE_EMPTY, q->pop_msg(m));
    q->decrement();
}

TEST_F(MsgQueue, FullQueueReturnsThreeAndKeepsTheMessage) {
    full_queue_keeps_the_message<o2o_msg_queue_t>();
    full_queue_keeps_the_message<msg_queue_t>();
}

// A non-zero mode signals only a write into an empty queue. The writer's
// copy of the read cursor lags the reader; the depth it reports for the
// high-water mark must still be what is queued, and the ring wraps in
// between.
template <class Q>
void signals_when_empty_and_high_water_follows_the_reader() {
    counting_notifier_t n;
    Q* q = make_queue<Q>(&n, nullptr, 32, MSG_QUEUE_SIGNAL_WHEN_EMPTY);
    auto post = [&](int k) {
        for (int i = 0; i < k; ++i)
            ASSERT_EQ(RESULT_SUCCESS, q->post_msg(new counted_msg_t, nullptr));
    };
    post(2);
    EXPECT_EQ(1, n.m_signals.load());
    msg_it* m = nullptr;
    q->pop_msg(m);
    m->release();
    post(1);  // one still queued: no signal
    EXPECT_EQ(1, n.m_signals.load());
    release_all(q);
    for (int round = 0; round < 20; ++round) {  // 20 x 3 laps the 32 nodes
        post(3);
        release_all(q);
    }
    EXPECT_EQ(21, n.m_signals.load());
    EXPECT_EQ(0u, q->depth());
    EXPECT_EQ(3u, q->counters()->high_water.load()) << "not the pushes since the writer last looked";
    post(2);
    EXPECT_EQ(2u, q->depth());
    EXPECT_EQ(3u, q->counters()->high_water.load());
    post(3);
    EXPECT_EQ(5u, q->counters()->high_water.load());
    post(26);
    counted_msg_t* extra = new counted_msg_t;
    EXPECT_EQ(RESULT_QUEUE_FULL, q->post_msg(extra, nullptr));
    extra->release();
    EXPECT_EQ(31u, q->depth());
    EXPECT_EQ(31u, q->counters()->high_water.load());
    release_all(q);
    q->decrement();
}

TEST_F(MsgQueue, NonZeroModeSignalsOnlyAnEmptyQueueAndHighWaterIsTheDeepestQueue) {
    stats_enable(true);
    signals_when_empty_and_high_water_follows_the_reader<o2o_msg_queue_t>();
    signals_when_empty_and_high_water_follows_the_reader<msg_queue_t>();
}

// ---- sinks ----------------------------------------------------------------------------

// The writer is a loop the library runs, so the call-back is seen on its thread.
class MsgQueueSink : public util_test::thread_test_t {};

TEST_F(MsgQueueSink, AFullPostWithASinkIsCalledBackOnceOnTheWritersThread) {
    g_live = 0;
    thread_wrapper_t* writer = m_mgr->spawn(THREAD_MODE_EVENT, 64, 100, false, nullptr, 0xFFFFFFFFu);
    ASSERT_NE(nullptr, writer);
    unsigned int writer_tid = 0;
    util_test::run_on(writer, [&] { writer_tid = get_cur_tid(); });
    counting_notifier_t n;
    o2o_msg_queue_t* q = make_queue<o2o_msg_queue_t>(&n, writer, 32, 0);
    sink_t sink;
    for (int i = 0; i < 31; ++i)
        q->post_msg(new counted_msg_t, &sink);
    counted_msg_t* extra = new counted_msg_t;
    EXPECT_EQ(RESULT_QUEUE_FULL, q->post_msg(extra, &sink));
    // Registered by the full post; unregister only reports it.
    EXPECT_EQ(RESULT_ALREADY_EXISTS, q->register_sink(&sink));
    EXPECT_EQ(RESULT_ALREADY_EXISTS, q->unregister_sink(&sink));
    EXPECT_EQ(RESULT_INVALID_ARG, q->register_sink(nullptr));
    msg_it* m = nullptr;
    ASSERT_EQ(RESULT_SUCCESS, q->pop_msg(m));
    m->release();
    UTIL_WAIT_UNTIL([&] { return sink.calls.load() == 1; });
    EXPECT_EQ(0, sink.reason.load());
    EXPECT_EQ(writer_tid, sink.tid.load());
    // Called once and forgotten.
    EXPECT_EQ(RESULT_NOT_FOUND, q->unregister_sink(&sink));
    extra->release();
    release_all(q);
    q->decrement();
    EXPECT_EQ(1, sink.calls.load());
    EXPECT_EQ(0, g_live.load());
}

TEST_F(MsgQueue, LaunchOnSinkNeedsARunningWriter) {
    counting_notifier_t n;
    msg_queue_t* q = make_queue<msg_queue_t>(&n, nullptr, 32, 0);
    EXPECT_EQ(RESULT_REFUSED, q->lanuch_on_sink(nullptr));
    thread_wrapper_t* stopped = new thread_wrapper_t(THREAD_MODE_WRAP, 100, 32, nullptr, 0, false, nullptr);
    stopped->increment();
    stopped->stop();  // on its own thread: stops at once
    sink_t sink;
    q->register_sink(&sink);
    counted_msg_t* m = new counted_msg_t;
    for (int i = 0; i < 31; ++i)
        q->post_msg(new counted_msg_t, nullptr);
    EXPECT_EQ(RESULT_QUEUE_FULL, q->post_msg(m, nullptr));
    EXPECT_EQ(RESULT_NOTHING_TO_DO, q->lanuch_on_sink(stopped));
    EXPECT_EQ(MSG_QUEUE_STATUS_NORMAL, q->status());
    EXPECT_EQ(0, sink.calls.load());
    m->release();
    release_all(q);
    q->decrement();
    stopped->decrement();
}

// ---- synchronous sends -----------------------------------------------------------------

TEST_F(MsgQueue, ATimedOutSendStillRunsAndTheWrapperIsFreedOnce) {
    counting_notifier_t n;
    msg_queue_t* q = make_queue<msg_queue_t>(&n, nullptr, 64, 0);
    std::atomic<int> ran(0);
    // Nobody reads yet: every send times out and leaves its message queued.
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(RESULT_BUSY, q->send_msg(new counted_msg_t(0, i, &ran), nullptr, 1));
    EXPECT_EQ(0, ran.load());
    EXPECT_EQ(20, g_live.load());
    msg_it* m = nullptr;
    while (q->pop_msg(m) == RESULT_SUCCESS) {
        m->on_message();
        m->release();  // the receiver drops the last reference
    }
    EXPECT_EQ(20, ran.load());
    EXPECT_EQ(0, g_live.load());
    q->decrement();
}

// ---- real threads ------------------------------------------------------------------------

// `writers` threads post `each` numbered messages; the reader sleeps whenever
// the queue is empty, so a lost wake-up hangs here. Every message must arrive
// once, in its writer's order.
template <class Q>
void deliver(int writers, int each) {
    notifier_event_t wake(true, false, false);
    Q* q = make_queue<Q>(&wake, nullptr, 256, MSG_QUEUE_SIGNAL_WHEN_EMPTY);
    std::atomic<int> bad(0);
    std::thread reader([&] {
        std::vector<int> next(writers, 0);
        for (int got = 0; got < writers * each;) {
            msg_it* m = nullptr;
            if (q->pop_msg(m) != RESULT_SUCCESS) {
                wake.wait(-1, false);
                continue;
            }
            counted_msg_t* c = static_cast<counted_msg_t*>(m);
            if (c->m_seq != next[c->m_writer]++)
                ++bad;
            ++got;
            m->release();
        }
    });
    util_test::run_threads(writers, [&](int w) {
        for (int i = 0; i < each; ++i) {
            counted_msg_t* m = new counted_msg_t(w, i);
            while (q->post_msg(m, nullptr) == RESULT_QUEUE_FULL)
                std::this_thread::yield();
        }
    });
    reader.join();
    EXPECT_EQ(0, bad.load());
    q->decrement();
}

TEST_F(MsgQueue, OneWriterOneReaderDeliversEveryMessageOnceInOrder) { deliver<o2o_msg_queue_t>(1, 200000); }
TEST_F(MsgQueue, FourWritersKeepTheirOwnOrderAndLoseNothing) { deliver<msg_queue_t>(4, 50000); }

}  // namespace

namespace {

o2o_msg_queue_t* g_draining = nullptr;

// The reader's move at the worst moment: it empties the queue and finds it
// empty after the writer's push failed but before the writer marks it full.
void reader_drains_before_the_mark(msg_queue_base_t*) {
    msg_it* m = nullptr;
    while (g_draining->pop_msg(m) == RESULT_SUCCESS)
        m->release();
    EXPECT_EQ(RESULT_QUEUE_EMPTY, g_draining->pop_msg(m));
}

TEST_F(MsgQueue, AReaderThatEmptiedTheQueueBeforeTheFullMarkDoesNotLoseTheWakeUp) {
    // No writer thread: the hand-over resets the status and goes no
    // further, so the status tells whether the wake-up was handed over.
    o2o_msg_queue_t* q = new o2o_msg_queue_t(nullptr, nullptr, 2, MSG_QUEUE_SIGNAL_WHEN_EMPTY);
    q->increment();
    counted_msg_t* first = new counted_msg_t;
    ASSERT_EQ(RESULT_SUCCESS, q->post_msg(first, nullptr));
    g_draining = q;
    set_refused_push_hook(reader_drains_before_the_mark);
    counted_msg_t* second = new counted_msg_t;
    const int rv = q->post_msg(second, nullptr);
    set_refused_push_hook(nullptr);
    EXPECT_EQ(RESULT_QUEUE_FULL, rv);
    // The reader will not pop again: the writer saw the room after its mark
    // and handed the wake-up over itself, instead of leaving the queue
    // marked full with nobody to clear it.
    EXPECT_EQ(MSG_QUEUE_STATUS_NORMAL, q->status());
    second->release();
    q->decrement();
}

}  // namespace

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "alloc.h"
#include "stats.h"
#include "task.h"
#include "test_thread_support.h"
#include "timer.h"

using namespace ssb;
using util_test::fn_msg_t;
using util_test::run_on;

namespace {

TEST(Histogram, BucketsPercentilesAndMerge) {
    const struct {
        uint64_t value;
        unsigned int bucket;
    } edges[] = {{0, 0},         {1, 1},          {2, 2}, {3, 2}, {4, 3}, {1023, 10}, {1024, 11}, {(1u << 30) - 1, 30},
                 {1u << 30, 31}, {UINT64_MAX, 31}};
    for (const auto& e : edges)
        EXPECT_EQ(e.bucket, histogram_t::bucket_of(e.value)) << e.value;

    histogram_t h;
    EXPECT_EQ(0u, h.percentile(0.5)) << "empty";
    EXPECT_EQ(0u, h.mean());
    // 90 values of 5 (bucket [4, 8)) and 10 of 1000 (bucket [512, 1024)).
    h.counts[histogram_t::bucket_of(5)] = 90;
    h.counts[histogram_t::bucket_of(1000)] = 10;
    h.sum = 90 * 5 + 10 * 1000;
    h.max = 1000;
    EXPECT_EQ(100u, h.total());
    EXPECT_EQ(7u, h.percentile(0.5));
    EXPECT_EQ(7u, h.percentile(0.9)) << "the 90th value is still a 5";
    EXPECT_EQ(1000u, h.percentile(0.91)) << "capped at the maximum, not the bucket's top";
    EXPECT_EQ(1000u, h.percentile(1.0));
    EXPECT_EQ(7u, h.percentile(0.0)) << "the first value at least";
    EXPECT_EQ(104u, h.mean());

    histogram_t other;
    other.counts[0] = 3;
    other.max = 0;
    h.merge(other);
    EXPECT_EQ(103u, h.total());
    EXPECT_EQ(1000u, h.max);
    EXPECT_EQ(0u, h.percentile(0.01));
}

class Stats : public util_test::thread_test_t {
protected:
    void TearDown() override {
        stats_enable(true);
        thread_test_t::TearDown();
    }
    thread_wrapper_t* spawn(const char* name) {
        thread_wrapper_t* thr = m_mgr->spawn(THREAD_MODE_EVENT, 64, 100, false,
                                             reinterpret_cast<signed char*>(const_cast<char*>(name)), 0xFFFFFFFF);
        EXPECT_NE(nullptr, thr);
        return thr;
    }
    static const queue_stats_t* channel_from(const thread_stats_t& s, const std::string& peer) {
        for (const queue_stats_t& q : s.channels)
            if (q.peer == peer)
                return &q;
        return nullptr;
    }
};

// The main thread runs nothing until main_heartbeat, so a writer fills its
// channel and every figure of the queue is known.
TEST_F(Stats, ChannelCountsEqualWhatWasPostedRefusedAndDroppedAsOvertime) {
    thread_wrapper_t* writer = spawn("writer");
    ASSERT_EQ(RESULT_SUCCESS, m_main->create_channel(writer, 8, 8));
    int accepted = 0, refused = 0;
    std::atomic<int> runs(0);
    const uint32_t start = ticks_drv_t::now();
    run_on(writer, [&] {
        // One message that will have waited past its time-out of 0 ms.
        fn_msg_t* late = new fn_msg_t([&] { ++runs; }, 0);
        ASSERT_EQ(RESULT_SUCCESS, m_main->post_msg(late, nullptr));
        ++accepted;
        for (;;) {
            fn_msg_t* msg = new fn_msg_t([&] { ++runs; });
            if (m_main->post_msg(msg, nullptr) != RESULT_SUCCESS) {
                msg->release();
                if (++refused == 3)
                    break;
            } else {
                ++accepted;
            }
        }
    });
    EXPECT_EQ(7, accepted) << "capacity 8 holds 7";
    thread_stats_t s;
    ASSERT_EQ(RESULT_SUCCESS, get_thread_stats(m_main, s));
    const queue_stats_t* q = channel_from(s, "writer");
    ASSERT_NE(nullptr, q);
    EXPECT_EQ(7u, q->posted);
    EXPECT_EQ(7u, q->depth);
    EXPECT_EQ(7u, q->high_water);
    EXPECT_EQ(3u, q->refused);
    EXPECT_EQ(0u, q->popped);

    // The tick clock must move on before the pass for the first message to
    // be overtime; the timed message waits at least the 2 ms after it.
    const auto posted = std::chrono::steady_clock::now();
    UTIL_WAIT_UNTIL([&] {
        return msg_it::age_of(start, ticks_drv_t::now()) > 2 &&
               std::chrono::steady_clock::now() - posted >= std::chrono::milliseconds(2);
    });
    EXPECT_EQ(RESULT_SUCCESS, main_heartbeat());
    EXPECT_EQ(6, runs.load());
    ASSERT_EQ(RESULT_SUCCESS, get_thread_stats(m_main, s));
    q = channel_from(s, "writer");
    ASSERT_NE(nullptr, q);
    EXPECT_EQ(7u, q->posted);
    EXPECT_EQ(7u, q->popped);
    EXPECT_EQ(6u, q->run);
    EXPECT_EQ(1u, q->overtime);
    EXPECT_EQ(0u, q->depth);
    EXPECT_EQ(7u, q->high_water) << "the mark stays";
    EXPECT_GE(q->delay_us.total(), 1u) << "the first message of the writer's tick is timed";
    EXPECT_LE(q->delay_us.total(), 7u);
    EXPECT_GE(q->delay_us.max, 2000u) << "it waited at least the 2 ms the test waited";
    EXPECT_GE(s.passes, 1u);
    EXPECT_GE(s.messages, 7u);
    EXPECT_EQ(s.passes, s.msgs_per_pass.total());
    EXPECT_GE(s.msgs_per_pass.max, 7u) << "one pass drained the channel";
}

TEST_F(Stats, ControlQueueCountsEveryWriterAndSnapshotsRaceSafelyWithTraffic) {
    thread_wrapper_t* thr = spawn("target");
    const int PER_WRITER = 2000;
    std::atomic<int> runs(0);
    std::atomic<bool> done(false);
    std::atomic<uint64_t> refused(0);
    // A reader of snapshots while writers post and the loop runs: the
    // sanitizers judge the sharing.
    std::thread reader([&] {
        thread_stats_t s;
        while (!done.load()) {
            get_thread_stats(thr, s);
            process_stats_t p;
            get_process_stats(p);
        }
    });
    auto write = [&] {
        for (int i = 0; i < PER_WRITER; ++i) {
            for (;;) {
                fn_msg_t* msg = new fn_msg_t([&] { ++runs; });
                if (thr->post_ctrl_msg(msg, nullptr) == RESULT_SUCCESS)
                    break;
                msg->release();
                ++refused;
                std::this_thread::yield();
            }
        }
    };
    std::thread w1(write), w2(write);
    w1.join();
    w2.join();
    UTIL_WAIT_UNTIL([&] { return runs.load() == 2 * PER_WRITER; });
    done = true;
    reader.join();
    thread_stats_t s;
    ASSERT_EQ(RESULT_SUCCESS, get_thread_stats(thr, s));
    EXPECT_EQ("target", s.name);
    EXPECT_EQ("control", s.control.peer);
    // The spawn's own control messages come on top of the test's.
    EXPECT_GE(s.control.posted, 2u * PER_WRITER);
    EXPECT_EQ(s.control.posted, s.control.popped);
    EXPECT_EQ(s.control.run, s.control.popped);
    EXPECT_EQ(refused.load(), s.control.refused);
    EXPECT_LE(s.control.high_water, 63u) << "bounded by the capacity";
    EXPECT_GE(s.control.delay_us.total(), 1u);
}

TEST_F(Stats, TimerLatenessAndTicksAreRecordedAndTheDumpHasALinePerThreadAndQueue) {
    thread_wrapper_t* thr = spawn("timers");
    std::atomic<int> fired(0);
    task_owner_t owner;
    run_on(thr, [&] { EXPECT_EQ(RESULT_SUCCESS, post_repeating_task(thr, 20, &owner, [&] { ++fired; })); });
    UTIL_WAIT_UNTIL([&] { return fired.load() >= 5; });
    run_on(thr, [&] { owner.cancel_tasks(); });
    thread_stats_t s;
    ASSERT_EQ(RESULT_SUCCESS, get_thread_stats(thr, s));
    EXPECT_GE(s.timer_late_ms.total(), 5u);
    EXPECT_GE(s.ticks, 1u);

    ASSERT_EQ(RESULT_SUCCESS, m_main->create_channel(thr, 8, 8));
    dump_stats();
    EXPECT_TRUE(m_log.contains("stats thread timers, id = " + std::to_string(thr->get_id())));
    EXPECT_TRUE(m_log.contains("stats queue timers <- control: posted = "));
    EXPECT_TRUE(m_log.contains("stats alloc class 7, bytes = 4096"));
    EXPECT_TRUE(m_log.contains("stats timer driver wakeups = "));
}

TEST_F(Stats, AllocatorTotalsKeepTheCountsOfThreadsThatEnded) {
    ssb_allocator_t* a = ssb_allocator_t::instance();
    ASSERT_NE(nullptr, a);
    const unsigned int k = alloc_class_of(200 + ssb_allocator_t::TRAILER_SIZE);
    process_stats_t before;
    get_process_stats(before);
    const int N = 100;
    std::thread([&] {
        for (int i = 0; i < N; ++i)
            a->deallocate(a->allocate(200), 200);
        a->release_tls();
    }).join();
    process_stats_t after;
    get_process_stats(after);
    EXPECT_EQ(alloc_class_bytes(k), after.alloc[k].bytes);
    EXPECT_GE(after.alloc[k].requests - before.alloc[k].requests, uint64_t(N));
    // Only the first allocation of the thread can miss.
    EXPECT_GE(after.alloc[k].hits - before.alloc[k].hits, uint64_t(N - 1));
    EXPECT_EQ(after.alloc[k].requests - after.alloc[k].hits, after.alloc[k].misses);
}

TEST_F(Stats, SwitchedOffNothingMovesAndTheDriverWakeUpsAreCounted) {
    thread_wrapper_t* thr = spawn("quiet");
    run_on(thr, [] {});
    // A pass records itself after its last message: wait for the one that
    // ran ours.
    thread_stats_t s0;
    UTIL_WAIT_UNTIL([&] {
        get_thread_stats(thr, s0);
        uint64_t popped = s0.control.popped;
        for (const queue_stats_t& q : s0.channels)
            popped += q.popped;
        return s0.messages == popped;
    });
    stats_enable(false);
    EXPECT_FALSE(stats_enabled());
    for (int i = 0; i < 10; ++i)
        run_on(thr, [] {});
    thread_stats_t s1;
    ASSERT_EQ(RESULT_SUCCESS, get_thread_stats(thr, s1));
    EXPECT_EQ(s0.control.popped, s1.control.popped);
    EXPECT_EQ(s0.control.run, s1.control.run);
    EXPECT_EQ(s0.passes, s1.passes);
    EXPECT_EQ(s0.messages, s1.messages);
    stats_enable(true);
    run_on(thr, [] {});
    ASSERT_EQ(RESULT_SUCCESS, get_thread_stats(thr, s1));
    EXPECT_EQ(s0.control.run + 1, s1.control.run);

    EXPECT_EQ(RESULT_INVALID_ARG, get_thread_stats(nullptr, s1));
    process_stats_t p0, p1;
    get_process_stats(p0);
    UTIL_WAIT_UNTIL([&] {
        get_process_stats(p1);
        return p1.driver_wakeups > p0.driver_wakeups;
    });
    bool listed = false;
    for (const thread_stats_t& t : p1.threads)
        listed = listed || t.name == "quiet";
    EXPECT_TRUE(listed);
}

}  // namespace

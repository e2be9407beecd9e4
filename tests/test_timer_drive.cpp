// Timers on real loop threads: handles, deposits, and the drive from the
// timer driver thread.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "ref_holder.h"
#include "test_thread_support.h"
#include "thread_event.h"
#include "timer_drv.h"

using namespace ssb;
using util_test::run_on;

namespace {

// Counts firings and records the thread each ran on; may act from inside.
struct counting_sink_t : timer_sink_it {
    std::atomic<int> fired{0};
    std::atomic<unsigned int> tid{0};
    std::function<void(const timer_it*)> on_fire;
    void timer_work(const timer_it* t) override {
        tid.store(get_cur_tid());
        fired.fetch_add(1);
        if (on_fire)
            on_fire(t);
    }
};

// A sink whose life is counted: freed by its last reference.
struct counted_sink_t : timer_sink_it, ref_count_t<null_lock> {
    static std::atomic<int>& live() {
        static std::atomic<int> s_live(0);
        return s_live;
    }
    std::atomic<int> fired{0};
    counted_sink_t() { ++live(); }
    ~counted_sink_t() override { --live(); }
    void* query_interface(uint64_t iid) override { return ref_count_t<null_lock>::query_interface(iid); }
    void timer_work(const timer_it*) override { fired.fetch_add(1); }
};

// Holds a loop inside one message (after `first` ran there) until release,
// so another thread may act on it without racing it.
class held_loop_t {
public:
    explicit held_loop_t(
        thread_wrapper_t* thr, std::function<void()> first = [] {})
        : m_state(new state_t) {
        std::shared_ptr<state_t> state = m_state;
        thr->post_ctrl_msg(new util_test::fn_msg_t([state, first] {
                               first();
                               state->held.signal();
                               state->go.wait(-1);
                           }),
                           nullptr);
        EXPECT_EQ(RESULT_SUCCESS, m_state->held.wait(30000)) << "the loop did not take the holding message";
    }
    ~held_loop_t() { release(); }
    void release() { m_state->go.signal(); }

private:
    // Shared with the message, which may still be leaving its wait when
    // the test ends.
    struct state_t {
        event_t held{false, false};
        event_t go{false, false};
    };
    std::shared_ptr<state_t> m_state;
};

class TimerDrive : public util_test::thread_test_t {
protected:
    void TearDown() override {
        timer_drv_t::set_low_power(false);
        thread_test_t::TearDown();
        EXPECT_EQ(0, live_timer_handles());
        EXPECT_EQ(0, live_timer_carriers());
    }
    thread_wrapper_t* spawn(const char* name) {
        thread_wrapper_t* thr = m_mgr->spawn(THREAD_MODE_EVENT, 64, 100, false,
                                             reinterpret_cast<signed char*>(const_cast<char*>(name)), 0xFFFFFFFF);
        EXPECT_NE(nullptr, thr);
        return thr;
    }
    thread_wrapper_t* driver() { return m_mgr->find_by_type(THREAD_TYPE_TIMER); }
};

TEST_F(TimerDrive, ArmingResultsAndIntervalRules) {
    thread_wrapper_t* thr = spawn("timers");
    counting_sink_t sink;
    run_on(thr, [&] {
        timer_elem_t t(7);
        EXPECT_EQ(RESULT_INVALID_ARG, t.add_timer(nullptr, 10, 1, true));
        EXPECT_EQ(RESULT_OUT_OF_LIMIT, t.add_timer(&sink, timer_it::MAX_INTERVAL, 1, true));
        EXPECT_EQ(RESULT_SUCCESS, t.add_timer(&sink, timer_it::MAX_INTERVAL - 1, 1, true));
        EXPECT_EQ(RESULT_ALREADY_EXISTS, t.add_timer(&sink, 50, 1, true)) << "armed: nothing changes";
        EXPECT_EQ((timer_it::MAX_INTERVAL - 1) / 10, t.get_interval_ticks());
        EXPECT_EQ(RESULT_SUCCESS, t.remove_timer());
        EXPECT_EQ(RESULT_NOTHING_TO_DO, t.remove_timer());
        const struct {
            unsigned int ms;
            bool exact;
            uint32_t ticks;
        } rows[] = {{0, true, 1},      {10, true, 1},     {15, false, 1},     {639, false, 63},
                    {1000, true, 100}, {1000, false, 64}, {1280, false, 128}, {1919, false, 128}};
        for (const auto& r : rows) {
            EXPECT_EQ(RESULT_SUCCESS, t.add_timer(&sink, r.ms, 0, r.exact)) << r.ms;
            EXPECT_EQ(r.ticks, t.get_interval_ticks()) << r.ms << (r.exact ? " exact" : "");
            t.remove_timer();
        }
        timer_deposit_t* deposit = timer_deposit_t::new_instance(1, nullptr);
        EXPECT_EQ(RESULT_REFUSED, deposit->add_timer(&sink, 10, 0, true));
        timer_deposit_t::release(deposit);
        EXPECT_EQ(nullptr, deposit);
    });
    EXPECT_TRUE(m_log.contains("timer_deposit_t::add_timer not allow unlimited times"));
    EXPECT_TRUE(m_log.contains("timer_it::add_timer out of limitation"));

    // No thread of the library, the driver thread, another loop's thread.
    std::thread([&] {
        timer_elem_t t(1);
        EXPECT_EQ(RESULT_NOTHING_TO_DO, t.add_timer(&sink, 10, 1, true));
    }).join();
    run_on(driver(), [&] {
        timer_elem_t t(2);
        EXPECT_EQ(RESULT_REFUSED, t.add_timer(&sink, 10, 1, true));
    });
    timer_elem_t foreign(3, thr);
    EXPECT_EQ(RESULT_REFUSED, foreign.add_timer(&sink, 10, 1, true));
    EXPECT_EQ(0, sink.fired.load());
}

TEST_F(TimerDrive, MainThreadTimersRunFromTheHeartbeat) {
    counting_sink_t sink;
    timer_elem_t once(1), twice(2);
    ASSERT_EQ(RESULT_SUCCESS, once.add_timer(&sink, 30, 1, true));
    ASSERT_EQ(RESULT_SUCCESS, twice.add_timer(&sink, 10, 2, true));
    util_test::wait_until("three firings from main_heartbeat", [&] {
        main_heartbeat();
        return sink.fired.load() == 3;
    });
    EXPECT_EQ(get_cur_tid(), sink.tid.load());
    EXPECT_FALSE(once.is_scheduled());
    EXPECT_FALSE(twice.is_scheduled());
}

TEST_F(TimerDrive, RefSinkHandleKeepsItsSinkAlive) {
    thread_wrapper_t* thr = spawn("timers");
    counted_sink_t* sink = new counted_sink_t;
    sink->increment();
    timer_elem_ref_sink_t* t = nullptr;
    run_on(thr, [&] {
        t = new timer_elem_ref_sink_t(1);
        EXPECT_EQ(RESULT_SUCCESS, t->add_timer(sink, 10, 0, true));
    });
    sink->decrement();  // the host lets go; the handle's reference remains
    UTIL_WAIT_UNTIL([&] { return sink->fired.load() >= 2; });
    EXPECT_EQ(1, counted_sink_t::live().load());
    run_on(thr, [&] {
        EXPECT_EQ(RESULT_SUCCESS, t->remove_timer());
        EXPECT_EQ(0, counted_sink_t::live().load()) << "removal drops the reference";
        delete t;
    });
}

TEST_F(TimerDrive, ForeignRemovalAndDestructionAreReportedAndStillDone) {
    thread_wrapper_t* thr = spawn("timers");
    counting_sink_t sink;
    timer_elem_t* t = nullptr;
    // The loop waits while another thread removes its timer, so the misuse
    // is reported without racing the wheel.
    held_loop_t held(thr, [&] {
        t = new timer_elem_t(5);
        t->add_timer(&sink, 10, 0, true);
    });
    EXPECT_EQ(RESULT_SUCCESS, t->remove_timer());
    EXPECT_FALSE(t->is_scheduled());
    delete t;
    held.release();
    run_on(thr, [] {});
    EXPECT_TRUE(m_log.contains("timer_it::remove_timer() should in same thread with add_timer"));
    EXPECT_TRUE(m_log.contains("timer_it::~timer_it() constructor is not in same thead with destructor"));
    EXPECT_EQ(0, sink.fired.load());
}

TEST_F(TimerDrive, AFullQueueFromTheDriverUnpausesAndTheNextPassRetries) {
    thread_wrapper_t* thr = spawn("blocked");
    counting_sink_t sink;
    timer_elem_t* t = nullptr;
    held_loop_t held(thr, [&] {
        t = new timer_elem_t(1);
        t->add_timer(&sink, 10, 0, true);
    });
    run_on(driver(), [&] {
        w_msg_queue_it* to_thr = driver()->get_write_msgq(thr);
        ASSERT_NE(nullptr, to_thr);
        int filled = 0;
        for (;;) {
            msg_it* filler = new util_test::fn_msg_t([] {});
            if (to_thr->post_msg(filler, nullptr) != RESULT_SUCCESS) {
                filler->release();
                break;
            }
            ++filled;
        }
        ASSERT_GT(filled, 0);
        // A tick sent before the queue filled would keep the thread paused.
        if (thr->is_timer_paused())
            thr->unpause_timer();
        // A tick is due once a wheel step has passed: real time is the
        // behaviour here.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        // This is the driver thread: its cached clock waits for its next
        // pass, so refresh it as the pass would.
        ticks_drv_t::s_tag.store(tick_strategy::now());
        driver()->notify_ticks(1);
        EXPECT_FALSE(thr->is_timer_paused()) << "a refused tick must not leave the thread paused";
    });
    // The refused message was released by the library; the fill is drained
    // by the loop once it runs again.
    EXPECT_TRUE(m_log.contains("is full"));
    held.release();
    UTIL_WAIT_UNTIL([&] { return sink.fired.load() >= 2; });
    run_on(thr, [&] { delete t; });
}

TEST_F(TimerDrive, AStoppedThreadAnswersThirteenAndIsUnpaused) {
    thread_wrapper_t* thr = spawn("stopping");
    ref_holder_t<thread_wrapper_t> keep(thr);
    thr->post_ctrl_msg(new util_test::fn_msg_t([thr] {
                           counting_sink_t sink;
                           timer_elem_t t(1);
                           t.add_timer(&sink, 10, 1, true);
                           // Stop with a tick outstanding.
                           util_test::wait_until("the driver's tick", [thr] { return thr->is_timer_paused(); });
                           t.remove_timer();
                           thr->stop();
                       }),
                       nullptr);
    // The wheel is let go of during the stop, after the status changes.
    UTIL_WAIT_UNTIL([&] { return thr->is_stopped() && thr->get_timer_queue() == nullptr; });
    EXPECT_TRUE(thr->is_timer_paused());
    EXPECT_EQ(RESULT_STOPPED, thr->process_timer());
    EXPECT_FALSE(thr->is_timer_paused());
}

TEST_F(TimerDrive, ALateThreadRunsFortyNineStepsAndACatchUpFinishingTheLapFiresIt) {
    thread_wrapper_t* thr = spawn("late");
    counting_sink_t sink;
    run_on(thr, [&] {
        timer_elem_t far(1);
        ASSERT_EQ(RESULT_SUCCESS, far.add_timer(&sink, 100000, 1, true));
        timer_queue_t* wheel = thr->get_timer_queue();
        const uint32_t before = wheel->position().get_ticks();
        shift_timer_stamp(thr, 5000);
        EXPECT_EQ(RESULT_SUCCESS, thr->process_timer());
        EXPECT_EQ(49u, wheel->position().get_ticks() - before);
        // Caught up: the next call finds less than a step to do.
        const uint32_t after = wheel->position().get_ticks();
        thr->process_timer();
        EXPECT_LE(wheel->position().get_ticks() - after, 2u);
    });
    EXPECT_EQ(1u, m_log.count("thread_wrapper_t::process_timer should wake up from sleep, hurry up"));

    run_on(thr, [&] {
        timer_queue_t* wheel = thr->get_timer_queue();
        // From a lap start, a timer in level-0 slot 55.
        wheel->do_timer(64 - wheel->position().digit(0));
        timer_elem_t t(1);
        ASSERT_EQ(RESULT_SUCCESS, t.add_timer(&sink, 550, 1, true));
        // 900 ms behind: 49 steps reach slot 49, and what is left is more
        // than the rest of the lap, which is then finished at once.
        shift_timer_stamp(thr, 900);
        EXPECT_EQ(RESULT_SUCCESS, thr->process_timer());
        EXPECT_EQ(0u, wheel->position().digit(0)) << "the lap was finished";
        EXPECT_EQ(1, sink.fired.load()) << "slot 55 lies in the finished lap";
    });
}

TEST_F(TimerDrive, AThreadThatStopsAnsweringIsReportedAtMostOnceASecond) {
    thread_wrapper_t* thr = spawn("hung");
    held_loop_t held(thr);
    // As if it had not been driven for four seconds.
    shift_timer_stamp(thr, 4000);
    const char* report = "has no response for ";
    UTIL_WAIT_UNTIL([&] { return m_log.contains(report); });
    // The driver passes every millisecond; the report waits a second.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(1u, m_log.count(report));
    held.release();
    run_on(thr, [] {});
}

TEST_F(TimerDrive, RestartDepositAndAliveTimerComeAndGo) {
    thread_wrapper_t* thr = spawn("restart");
    const int handles = live_timer_handles();
    run_on(thr, [&] {
        thr->restart_timer();
        EXPECT_EQ(handles + 1, live_timer_handles());
        thr->start_alive_check();
        thr->start_alive_check();
        EXPECT_EQ(handles + 2, live_timer_handles()) << "one alive timer however often started";
    });
    // The restart deposit fires after one tick and frees itself.
    UTIL_WAIT_UNTIL([&] { return live_timer_handles() == handles + 1; });
    run_on(thr, [&] { thr->stop_alive_check(); });
    EXPECT_EQ(handles, live_timer_handles());
    EXPECT_TRUE(m_log.contains("thread_wrapper_t::restart_timer()"));
    EXPECT_TRUE(m_log.contains("thread_wrapper_t::stop_alive_check() timer = "));
}

TEST_F(TimerDrive, LowPowerModeTicksOnlyWheelsThatHoldTimers) {
    thread_wrapper_t* thr = spawn("idle");
    counting_sink_t sink;
    run_on(thr, [&] {
        timer_elem_t t(1);
        t.add_timer(&sink, 10, 1, true);
        t.remove_timer();
    });
    // Default mode: an empty but started wheel is ticked every 10 ms.
    const uint64_t start = thr->timer_ticks();
    UTIL_WAIT_UNTIL([&] { return thr->timer_ticks() >= start + 3; });

    timer_drv_t::set_low_power(true);
    UTIL_WAIT_UNTIL([&] { return !thr->is_timer_paused(); });
    run_on(thr, [] {});
    const uint64_t quiet = thr->timer_ticks();
    // Nothing to fire for 200 ms: the quiet is the behaviour under test.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_LE(thr->timer_ticks(), quiet + 1) << "an empty wheel gets no ticks";

    // Timers still fire, on their thread, one tick per firing or so; an
    // unlimited one stops for good once it removes itself from inside.
    timer_elem_t* t = nullptr;
    sink.on_fire = [&](const timer_it* fired) {
        EXPECT_EQ(t, fired);
        if (sink.fired.load() == 3)
            t->remove_timer();
    };
    run_on(thr, [&] {
        t = new timer_elem_t(2);
        t->add_timer(&sink, 50, 0, true);
    });
    UTIL_WAIT_UNTIL([&] { return sink.fired.load() == 3; });
    EXPECT_EQ(thr->get_id(), sink.tid.load());
    EXPECT_LE(thr->timer_ticks(), quiet + 1 + 3 + 3);
    timer_drv_t::set_low_power(false);
    const uint64_t ticks = thr->timer_ticks();
    UTIL_WAIT_UNTIL([&] { return thr->timer_ticks() >= ticks + 5; });
    EXPECT_EQ(3, sink.fired.load());
    run_on(thr, [&] {
        EXPECT_FALSE(t->is_scheduled());
        delete t;
    });
}

}  // namespace

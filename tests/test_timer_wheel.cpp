// The timer wheel on its own (no threads): against a reference model, and
// its described edge cases.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "live_count.h"
#include "test_log_support.h"
#include "timer.h"

using namespace ssb;

namespace {

// The library's log lines for the scope of a test.
struct log_capture_t {
    util_test::text_capture_t text;
    log_capture_t() { util_test::capture_util_log(&text); }
    ~log_capture_t() { util_test::restore_log_routing(); }
    bool contains(const std::string& what) { return text.contains(what); }
};

struct firing_t {
    uint32_t id;
    uint32_t step;
    bool operator==(const firing_t& o) const { return id == o.id && step == o.step; }
};

std::ostream& operator<<(std::ostream& os, const firing_t& f) { return os << "{" << f.id << "@" << f.step << "}"; }

// Records every firing; a handler may act on the handle from inside.
struct recorder_t : timer_sink_it {
    std::vector<firing_t> fired;
    uint32_t step = 0;
    std::function<void(const timer_it*)> on_fire;
    void timer_work(const timer_it* t) override {
        fired.push_back({t->get_id(), step});
        if (on_fire)
            on_fire(t);
    }
};

// A handle placed on a wheel directly, as a loop thread's handles are.
struct test_timer_t : timer_it {
    test_timer_t(uint32_t id, timer_sink_it* sink, bool deposit = false)
        : timer_it(id, nullptr), m_sink(sink), m_deposit(deposit) {}
    timer_sink_it* get_sink() const override { return m_sink; }
    bool is_deposit() const override { return m_deposit; }
    void release() override { ++released; }
    int arm(timer_queue_t& wheel, uint32_t ticks, uint32_t times, bool exact) {
        set_schedule(ticks, times);
        get_helper().set(ticks);
        return wheel.add_timer(this, get_helper(), exact);
    }
    timer_sink_it* m_sink;
    bool m_deposit;
    int released = 0;
};

// The wheel as the algorithm describes it, over a flat list: each timer
// knows its level, slot and the order it was placed in.
class model_t {
public:
    struct entry_t {
        uint32_t interval = 0, times = 0;
        ticks_helper rem;
        int level = -1;  // -1 unscheduled, 4 immediate
        uint32_t slot = 0;
        uint64_t seq = 0;
    };

    void add(uint32_t id, uint32_t ticks, uint32_t times, bool exact) {
        entry_t& e = m_timers[id];
        e.interval = ticks;
        e.times = times;
        e.rem.set(ticks);
        rectify(e.rem, exact);
        place(e);
    }
    void remove(uint32_t id) { m_timers[id].level = -1; }
    bool scheduled(uint32_t id) { return m_timers[id].level >= 0; }
    size_t count() const {
        size_t n = 0;
        for (const auto& kv : m_timers)
            n += kv.second.level >= 0;
        return n;
    }

    void do_timer(uint32_t n, uint32_t step, std::vector<firing_t>& out) {
        run(4, 0, step, out);
        m_pos.increase(n);
        for (int k = 0; k < 4 && (m_pos.carry_mask() & (1u << k)); ++k) {
            m_cursor[k] = m_pos.digit(k);
            run(k, m_cursor[k], step, out);
        }
    }

private:
    void rectify(ticks_helper& d, bool exact) {
        if (!d.digit(1) && !d.digit(2) && !d.digit(3))
            return;
        uint32_t add = 0;
        if (exact) {
            const int top = d.digit(3) ? 2 : (d.digit(2) ? 1 : 0);
            for (int k = 0; k <= top; ++k)
                add += m_cursor[k] << (6 * k);
        } else if (d.digit(1)) {
            add = m_cursor[0] >= 32 ? 64 : 0;
        } else if (d.digit(2)) {
            add = m_cursor[1] >= 32 ? 4096 : (m_cursor[0] >= 32 ? 64 : 0);
        } else {
            add = m_cursor[2] >= 32 ? 262144 : 0;
        }
        d.increase(add);
    }
    void place(entry_t& e) {
        int k = 3;
        while (k >= 0 && e.rem.digit(k) == 0)
            --k;
        e.level = k < 0 ? 4 : k;
        e.slot = k < 0 ? 0 : (m_cursor[k] + e.rem.digit(k)) & 63;
        e.seq = ++m_seq;
    }
    void run(int level, uint32_t slot, uint32_t step, std::vector<firing_t>& out) {
        std::vector<std::pair<uint64_t, uint32_t>> due;
        for (auto& kv : m_timers)
            if (kv.second.level == level && kv.second.slot == slot)
                due.push_back({kv.second.seq, kv.first});
        std::sort(due.begin(), due.end());
        for (auto& d : due) {
            entry_t& e = m_timers[d.second];
            bool lower = false;
            for (int k = 0; k < level && level < 4; ++k)
                lower = lower || e.rem.digit(k) != 0;
            if (lower) {
                e.rem.set_digit(level, 0);
                rectify(e.rem, true);
                place(e);
                continue;
            }
            out.push_back({d.second, step});
            if (e.times == 1) {
                e.level = -1;
                continue;
            }
            if (e.times)
                --e.times;
            e.rem.set(e.interval);
            rectify(e.rem, true);
            place(e);
        }
    }

    ticks_helper m_pos;
    uint32_t m_cursor[4] = {0, 0, 0, 0};
    std::map<uint32_t, entry_t> m_timers;
    uint64_t m_seq = 0;
};

// Delays on every level and the boundaries between them; steps mostly of
// one tick, with jumps across whole slots and laps.
uint32_t random_delay(std::mt19937& rng) {
    static const uint32_t edges[] = {0, 1, 2, 31, 63, 64, 65, 127, 4095, 4096, 4097, 262143, 262144, 262145, 9000000};
    static const uint32_t spans[] = {64, 4096, 262144, 16515071};
    const uint32_t k = rng() % 5;
    return k == 0 ? edges[rng() % std::size(edges)] : rng() % spans[k - 1];
}

uint32_t random_elapsed(std::mt19937& rng) {
    switch (rng() % 10) {
    case 0:
        return 0;
    case 1:
        return rng() % 64;
    case 2:
        return (rng() % 3 + 1) * 4096 - rng() % 3;
    case 3:
        return (rng() % 3 + 1) * 262144;
    default:
        return 1;
    }
}

size_t fired_count(const recorder_t& sink, uint32_t id) {
    return std::count_if(sink.fired.begin(), sink.fired.end(), [id](const firing_t& f) { return f.id == id; });
}

TEST(TimerWheel, RandomScheduleMatchesTheModelAcrossAllLevels) {
    for (uint32_t seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        std::mt19937 rng(seed);
        recorder_t sink;
        timer_queue_t wheel(nullptr, 0);
        model_t model;
        std::vector<std::unique_ptr<test_timer_t>> timers;
        for (uint32_t id = 0; id < 40; ++id)
            timers.emplace_back(new test_timer_t(id, &sink));
        std::vector<firing_t> expected;
        for (uint32_t step = 0; step < 8000; ++step) {
            sink.step = step;
            const uint32_t op = rng() % 10;
            const uint32_t id = rng() % timers.size();
            test_timer_t& t = *timers[id];
            if (op < 3 && !t.is_scheduled()) {
                const uint32_t ticks = random_delay(rng);
                const uint32_t times = rng() % 4;
                const bool exact = rng() % 2;
                ASSERT_EQ(RESULT_SUCCESS, t.arm(wheel, ticks, times, exact));
                model.add(id, ticks, times, exact);
            } else if (op < 4 && t.is_scheduled()) {
                ASSERT_EQ(RESULT_SUCCESS, wheel.remove_timer(&t));
                model.remove(id);
            } else {
                const uint32_t n = random_elapsed(rng);
                wheel.do_timer(n);
                model.do_timer(n, step, expected);
            }
            ASSERT_EQ(model.count(), wheel.timer_count()) << "step " << step;
        }
        EXPECT_EQ(expected, sink.fired);
        EXPECT_GT(sink.fired.size(), 400u) << "the schedule must exercise the wheel";
        for (auto& t : timers)
            EXPECT_EQ(model.scheduled(t->get_id()), t->is_scheduled()) << t->get_id();
    }
}

// Which slots a step visits is checked against the model above; this pins
// the immediate list and the look-ahead the low-power driver sleeps by.
TEST(TimerWheel, ImmediateTimersAndTicksToTheNextDueSlot) {
    recorder_t sink;
    timer_queue_t wheel(nullptr, 0);
    EXPECT_EQ(UINT32_MAX, wheel.ticks_to_next()) << "an empty wheel";
    test_timer_t t0(0, &sink), t63(63, &sink), t64(64, &sink);
    // A zero delay is immediate: the next call runs it, whatever it steps.
    t0.arm(wheel, 0, 1, true);
    EXPECT_TRUE(wheel.has_immediately_timer());
    EXPECT_EQ(0u, wheel.ticks_to_next());
    wheel.do_timer(0);
    EXPECT_FALSE(wheel.has_immediately_timer());
    // 63 ticks: level-0 slot 63; 64: level-1 slot 1, reached as level 0 wraps.
    t63.arm(wheel, 63, 1, true);
    t64.arm(wheel, 64, 1, true);
    EXPECT_EQ(63u, wheel.ticks_to_next());
    sink.step = 63;
    wheel.do_timer(63);
    EXPECT_EQ(1u, wheel.ticks_to_next());
    sink.step = 64;
    wheel.do_timer(1);
    EXPECT_EQ((std::vector<firing_t>{{0, 0}, {63, 63}, {64, 64}}), sink.fired);
}

TEST(TimerWheel, CloseRectifyAndPerfValues) {
    const struct {
        uint32_t ms;
        bool shrink;
        uint32_t level, expected;
    } rows[] = {{639, false, 3, 639},       {641, false, 1, 1280},        {641, true, 1, 640},
                {2621440, false, 3, 40960}, {5000, false, 0, 5000},       {40961, false, 2, 81920},
                {40961, true, 2, 40960},    {2621441, false, 3, 5242880}, {2621441, true, 3, 40960}};
    for (const auto& r : rows)
        EXPECT_EQ(r.expected, timer_queue_t::get_close_perf(r.ms, r.shrink, r.level)) << r.ms << " " << r.level;

    timer_queue_t wheel(nullptr, 0);
    log_capture_t log;
    EXPECT_EQ(0u, wheel.get_rectify_ticks(7));
    EXPECT_EQ(0u, wheel.get_close_rectify_ticks(4));
    EXPECT_TRUE(log.contains("assert: file[.\\timer], line = [978]"));
    EXPECT_TRUE(log.contains("assert: file[.\\timer], line = [996]"));
    // Half-way through a lap, a non-exact level-1 delay snaps a slot later.
    wheel.do_timer(40);
    EXPECT_EQ(40u, wheel.get_rectify_ticks(0));
    EXPECT_EQ(64u, wheel.get_close_rectify_ticks(0));
    EXPECT_EQ(64u, wheel.get_close_rectify_ticks(1));
    EXPECT_EQ(0u, wheel.get_close_rectify_ticks(2));
    // Level 1 from exactly half-way: a whole level-2 slot.
    timer_queue_t half(nullptr, 0);
    half.do_timer(32 * 64);
    EXPECT_EQ(4096u, half.get_close_rectify_ticks(1));
    EXPECT_EQ(32u * 64u, half.get_rectify_ticks(1));
}

TEST(TimerWheel, RemovalAndDestructionFromCallbacks) {
    recorder_t sink;
    timer_queue_t wheel(nullptr, 0);
    auto a = std::make_unique<test_timer_t>(1, &sink);
    auto b = std::make_unique<test_timer_t>(2, &sink);
    auto c = std::make_unique<test_timer_t>(3, &sink);
    // Same slot, in order a, b, c: a removes b, b never fires; c destroys
    // itself inside its own call-back; a repeats until it removes itself.
    a->arm(wheel, 2, 0, true);
    b->arm(wheel, 2, 0, true);
    c->arm(wheel, 2, 0, true);
    int a_runs = 0;
    sink.on_fire = [&](const timer_it* t) {
        if (t == a.get()) {
            if (++a_runs == 3)
                a->remove_timer();
            else if (b)
                b->remove_timer();
        } else if (t == c.get()) {
            c.reset();
        }
    };
    for (int i = 0; i < 20; ++i)
        wheel.do_timer(1);
    EXPECT_EQ(3, a_runs);
    EXPECT_FALSE(a->is_scheduled());
    EXPECT_FALSE(b->is_scheduled());
    EXPECT_EQ(1u, fired_count(sink, 3));
    EXPECT_EQ(0u, fired_count(sink, 2));
    EXPECT_EQ(0u, wheel.timer_count());
    EXPECT_EQ(0, live_timer_carriers());
}

TEST(TimerWheel, LastFiringDetachesFirstAndDepositsAreReleasedOnlyByIt) {
    recorder_t sink;
    timer_queue_t wheel(nullptr, 0);
    test_timer_t once(1, &sink), deposit(2, &sink, true), kept(3, &sink, true);
    bool scheduled_inside = true;
    sink.on_fire = [&](const timer_it* t) {
        if (t == &once)
            scheduled_inside = t->is_scheduled();
    };
    once.arm(wheel, 1, 1, true);
    deposit.arm(wheel, 1, 3, true);
    kept.arm(wheel, 1, 3, true);
    wheel.do_timer(1);
    EXPECT_FALSE(scheduled_inside) << "times 1: unscheduled before its call-back";
    // An explicit removal never releases a deposit.
    kept.remove_timer();
    wheel.do_timer(1);
    EXPECT_EQ(0, deposit.released);
    wheel.do_timer(1);
    EXPECT_EQ(1, deposit.released) << "released after its third firing";
    EXPECT_EQ(0, kept.released);
    EXPECT_EQ(3u, fired_count(sink, 2));
    // A deposit still waiting when the wheel is cleared cannot fire: freed.
    deposit.arm(wheel, 5, 2, true);
    wheel.clear();
    EXPECT_EQ(2, deposit.released);
    EXPECT_FALSE(deposit.is_scheduled());
    // Removed through the wheel inside its own call-back: unscheduled at
    // once, never fired again, and not released (an explicit removal leaves
    // its life to the caller, as for one that waits in a slot).
    recorder_t inside;
    test_timer_t removed(4, &inside, true);
    bool scheduled_after_removal = true;
    inside.on_fire = [&](const timer_it*) {
        EXPECT_EQ(RESULT_SUCCESS, wheel.remove_timer(&removed));
        scheduled_after_removal = removed.is_scheduled();
    };
    removed.arm(wheel, 1, 3, true);
    for (int i = 0; i < 5; ++i)
        wheel.do_timer(1);
    EXPECT_EQ(1u, inside.fired.size());
    EXPECT_FALSE(scheduled_after_removal);
    EXPECT_EQ(0, removed.released);
    EXPECT_EQ(0u, wheel.timer_count());
    EXPECT_EQ(0, live_timer_carriers());
}

TEST(TimerWheel, MisuseIsReportedNotFatal) {
    log_capture_t log;
    timer_queue_t wheel(nullptr, 0);
    ticks_helper delay(5);
    EXPECT_EQ(RESULT_NOT_CREATED, wheel.add_timer(nullptr, delay, true));
    EXPECT_EQ(RESULT_NOT_CREATED, wheel.remove_timer(nullptr));
    EXPECT_TRUE(log.contains("assert: file[.\\timer], line = [923]"));
    EXPECT_TRUE(log.contains("assert: file[.\\timer], line = [1017]"));
    // A handle without a sink is dropped when reached, with the level's name.
    test_timer_t orphan(9, nullptr);
    orphan.arm(wheel, 70, 1, true);
    wheel.do_timer(64);
    wheel.do_timer(6);
    EXPECT_TRUE(log.contains("timer_processor_t<timer_queue_t::timer_queue_helper::LEVEL"));
    EXPECT_FALSE(orphan.is_scheduled());
    // The wheel belongs to the thread that made it: another one is told.
    EXPECT_FALSE(log.contains("does not own it"));
    std::thread([&] { wheel.do_timer(1); }).join();
    EXPECT_TRUE(log.contains("does not own it, operation = do_timer"));
}

TEST(TimerWheel, ReArmingKeepsMemoryFlat) {
    recorder_t sink;
    timer_queue_t wheel(nullptr, 0);
    test_timer_t keepalive(1, &sink);
    // A 30 s keep-alive re-armed on every packet: one live cell, always.
    for (int i = 0; i < 1000000; ++i) {
        if (keepalive.is_scheduled())
            wheel.remove_timer(&keepalive);
        keepalive.arm(wheel, 3000, 1, false);
        if (i % 1000 == 0)
            wheel.do_timer(1);
    }
    EXPECT_EQ(1u, wheel.timer_count());
    EXPECT_EQ(1, live_timer_carriers());
    wheel.clear();
    EXPECT_EQ(0, live_timer_carriers());
    EXPECT_TRUE(sink.fired.empty());
}

}  // namespace

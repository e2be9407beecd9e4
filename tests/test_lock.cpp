#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "io_repo.h"
#include "lock.h"
#include "test_support.h"

using namespace ssb;
using util_test::run_threads;
using util_test::wait_until;

namespace {

template <class L>
int tryacquire_on_other_thread(L& lock) {
    int rv = -1;
    std::thread([&] {
        if ((rv = lock.tryacquire()) == RESULT_SUCCESS)
            lock.release();
    }).join();
    return rv;
}

template <class L>
class LockContract : public ::testing::Test {};
typedef ::testing::Types<thread_mutex, thread_mutex_recursive, spin_lock> RealLocks;
TYPED_TEST_SUITE(LockContract, RealLocks);

// Both mutexes let their owner in again and others wait for the last
// release; a spin lock is busy even for its holder.
TYPED_TEST(LockContract, OtherThreadsAreBusyUntilTheLastReleaseAndOnlyMutexesReenter) {
    TypeParam lock;
    const bool spin = std::is_same<TypeParam, spin_lock>::value;
    ASSERT_EQ(RESULT_SUCCESS, lock.acquire());
    ASSERT_EQ(spin ? RESULT_BUSY : RESULT_SUCCESS, lock.tryacquire());
    if (!spin)
        lock.release();
    EXPECT_EQ(RESULT_BUSY, tryacquire_on_other_thread(lock));
    ASSERT_EQ(RESULT_SUCCESS, lock.release());
    EXPECT_EQ(RESULT_SUCCESS, tryacquire_on_other_thread(lock));
}

// Mutex holders also enter again mid-way: an inner release that let
// another thread in would show as a lost increment (and a race to TSan).
TYPED_TEST(LockContract, ExcludesWritersUnderContention) {
    TypeParam lock;
    const bool spin = std::is_same<TypeParam, spin_lock>::value;
    long long counter = 0;  // plain on purpose: the lock alone protects it
    run_threads(4, [&](int i) {
        for (int r = 0; r < 20000; ++r) {
            if ((r + i) % 3 == 0) {
                while (lock.tryacquire() != RESULT_SUCCESS)
                    thread_yield();
            } else {
                lock.acquire();
            }
            const long long seen = counter;
            if (!spin && r % 4 == 0) {
                lock.acquire();
                lock.release();
            }
            counter = seen + 1;
            lock.release();
        }
    });
    EXPECT_EQ(80000, counter);
}

// Waiters that outlast the spin go to sleep; every one must be let in once
// the holder leaves, however many released levels that takes.
TYPED_TEST(LockContract, WaitersParkedBehindALongHoldAllGetIn) {
    TypeParam lock;
    const bool spin = std::is_same<TypeParam, spin_lock>::value;
    const int WAITERS = 3;
    std::atomic<int> arrived(0), done(0);
    lock.acquire();
    if (!spin)
        lock.acquire();
    std::vector<std::thread> waiters;
    for (int i = 0; i < WAITERS; ++i)
        waiters.emplace_back([&] {
            arrived.fetch_add(1);
            lock.acquire();
            done.fetch_add(1);
            lock.release();
        });
    EXPECT_TRUE(wait_until("every waiter to reach the lock", [&] { return arrived.load() == WAITERS; }));
    // Long enough for each to spin out and sleep; nothing is timed.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(0, done.load());
    if (!spin) {
        lock.release();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(0, done.load()) << "an inner release let a waiter in";
    }
    lock.release();
    const bool all_in = wait_until("every parked waiter to get the lock", [&] { return done.load() == WAITERS; });
    for (auto& t : waiters)
        if (all_in)
            t.join();
        else
            t.detach();
    EXPECT_TRUE(all_in);
}

TEST(AtomicT, ConcurrentUpdatesAreNotLost) {
    atomic_t<int> i(0);
    atomic_t<int, thread_mutex_recursive> guarded(0);
    run_threads(4, [&](int) {
        for (int r = 0; r < 10000; ++r) {
            i += 3;
            --i;
            ++guarded;
        }
    });
    EXPECT_EQ(80000, i.value());
    EXPECT_EQ(40000, guarded.value());
    EXPECT_EQ(80000, i.exchange(-5));
}

std::atomic<int> g_destroyed(0);

struct counted_t : ref_count_t<> {
    ~counted_t() override { ++g_destroyed; }
};

TEST(RefCount, LastReferenceDroppedOnAnyThreadDestroysExactlyOnce) {
    g_destroyed = 0;
    for (int round = 0; round < 200; ++round) {
        counted_t* p = new counted_t;
        for (int i = 0; i < 4; ++i)
            p->increment();
        run_threads(4, [&](int) {
            for (int i = 0; i < 100; ++i) {
                p->increment();
                p->decrement();
            }
            p->decrement();  // one of these is the last
        });
        ASSERT_EQ(round + 1, g_destroyed.load());
    }
    ref_count_t<null_lock_checker> r;
    EXPECT_EQ(static_cast<ref_count_it*>(&r), r.query_interface(IID_REF_COUNT_IT));
    EXPECT_EQ(nullptr, r.query_interface(0x7034D58DULL));  // only the low half of the identifier
}

TEST(Event, WaitCodesAutoResetHoldsOneSignalAndResetOrPulseClearsManualReset) {
    event_t e(false, false), manual(true, true);
    EXPECT_EQ(RESULT_BUSY, e.wait(20));
    EXPECT_EQ(RESULT_SUCCESS, e.signal());
    EXPECT_EQ(RESULT_SUCCESS, e.signal());  // still one signal
    EXPECT_EQ(RESULT_SUCCESS, e.wait(0));
    EXPECT_EQ(RESULT_BUSY, e.wait(0));
    EXPECT_EQ(RESULT_SUCCESS, manual.reset());
    EXPECT_EQ(RESULT_BUSY, manual.wait(0));
    manual.signal();
    EXPECT_EQ(RESULT_SUCCESS, manual.pulse());  // no waiters: only the reset remains
    EXPECT_EQ(RESULT_BUSY, manual.wait(0));
}

TEST(Event, SignalAndPulseReleaseAllWaitersOfManualResetAndOneAtATimeOfAutoReset) {
    for (int kind = 0; kind < 4; ++kind) {
        const bool manual = kind & 1, pulse = kind & 2;
        event_t e(manual, false);
        std::atomic<int> released(0);
        std::vector<std::thread> waiters;
        for (int i = 0; i < 3; ++i)
            waiters.emplace_back([&] { released += e.wait(-1) == RESULT_SUCCESS; });
        for (int sent = 1, before = 0; before < 3; before = released.load(), ++sent) {
            EXPECT_EQ(RESULT_SUCCESS, pulse ? e.pulse() : e.signal());
            if (pulse)  // releases only the threads already waiting: repeat until all were caught
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            else  // a signal stays set until taken
                UTIL_WAIT_UNTIL([&] { return released.load() >= (manual ? 3 : before + 1); });
            // However late the released threads run, an auto-reset event
            // never releases more waiters than it was given signals.
            EXPECT_LE(released.load(), manual ? 3 : sent) << "kind " << kind;
        }
        for (std::thread& t : waiters)
            t.join();
        EXPECT_EQ(manual && !pulse ? RESULT_SUCCESS : RESULT_BUSY, e.wait(0)) << "kind " << kind;
    }
}

// A wait on `e` through the wait on several events, with `other` (never
// signalled) ahead of it in the set: 0 when `e` ended it, 16 on time-out.
class multi_wait_t : public io_handler_it {
public:
    multi_wait_t(event_t& other, event_t& e) {
        m_repo.add_event(other, this);
        m_repo.add_event(e, this);
    }
    void on_ready(io_handle_t, uint32_t) override {}
    int wait(int timeout_ms) {
        unsigned int index = 99;
        const int rv = m_repo.wait(timeout_ms, &index, nullptr);
        return rv == RESULT_SUCCESS && index != 1 ? RESULT_FAILURE : rv;
    }

private:
    events_t m_repo;
};

const int LIMIT_MS = static_cast<int>(std::chrono::milliseconds(util_test::WAIT_LIMIT).count());

// Two threads hand a turn back and forth through two auto-reset events, so
// nearly every signal lands while its waiter is between finding the event
// unset and falling asleep. A signal lost there leaves the waiter asleep
// until its long time-out, which fails the round by name. `multi` sleeps
// in the wait on several events, otherwise in the single wait.
TEST(Event, ASignalRacingWithAWaitGoingToSleepIsNeverLost) {
    const int rounds = 50000 / util_test::ROUNDS_SCALE;
    for (int multi = 0; multi < 2; ++multi) {
        event_t to_b(false, false), to_a(false, false), never(false, false);
        multi_wait_t at_a(never, to_a), at_b(never, to_b);
        auto wait_turn = [&](event_t& e, multi_wait_t& m) { return multi ? m.wait(LIMIT_MS) : e.wait(LIMIT_MS); };
        std::atomic<int> lost_at_b(-1);
        std::thread b([&] {
            for (int i = 0; i < rounds && lost_at_b.load() < 0; ++i) {
                if (wait_turn(to_b, at_b) != RESULT_SUCCESS)
                    lost_at_b = i;
                to_a.signal();
            }
        });
        for (int i = 0; i < rounds; ++i) {
            to_b.signal();
            const int rv = wait_turn(to_a, at_a);
            ASSERT_EQ(RESULT_SUCCESS, rv) << "the turn back to A was lost in round " << i << ", multi " << multi;
            ASSERT_EQ(-1, lost_at_b.load()) << "the turn to B was lost, multi " << multi;
        }
        b.join();
        EXPECT_EQ(RESULT_BUSY, never.wait(0));
    }
}

TEST(Event, TimedWaitsWithoutASignalLastTheirTime) {
    // Time is the behaviour here: a lower bound only, less the 10 ms by
    // which a Windows wait may end early on a coarse clock tick.
    using clock = std::chrono::steady_clock;
    event_t e(false, false), other(true, false);
    multi_wait_t m(other, e);
    for (int multi = 0; multi < 2; ++multi) {
        const clock::time_point start = clock::now();
        EXPECT_EQ(RESULT_BUSY, multi ? m.wait(60) : e.wait(60)) << multi;
        EXPECT_GE(clock::now() - start, std::chrono::milliseconds(50)) << multi;
    }
}

TEST(Event, AWaiterMayFreeTheEventAsSoonAsItHasTheSignal) {
    // A synchronous message's event goes with the message once its sender
    // is woken: the signaller must not touch the event after the waiter can
    // have taken the signal (the sanitizers see any such touch).
    const int rounds = 20000 / util_test::ROUNDS_SCALE;
    std::atomic<event_t*> handed(nullptr);
    std::atomic<int> freed(0), failed(0);
    std::thread waiter([&] {
        for (int i = 0; i < rounds; ++i) {
            event_t* e = nullptr;
            if (!wait_until("the next event", [&] { return (e = handed.exchange(nullptr)) != nullptr; }))
                return;
            failed += e->wait(LIMIT_MS) != RESULT_SUCCESS;
            delete e;
            ++freed;
        }
    });
    for (int i = 0; i < rounds; ++i) {
        event_t* e = new event_t(false, false);
        handed.store(e);
        e->signal();  // the waiter may be asleep, on its way to sleep, or not there yet
        ASSERT_TRUE(wait_until("the waiter freed the event", [&] { return freed.load() == i + 1; })) << i;
    }
    waiter.join();
    EXPECT_EQ(0, failed.load());
}

std::string unique_name(const char* stem) {
    return stem + std::to_string(get_cur_tid()) + "_" +
           std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

TEST(Semaphore, CodesCountsTimeoutAWakingPostAndANamedOneSharedAcrossReset) {
    semaphore_t s;
    EXPECT_EQ(RESULT_NOT_CREATED, s.post(1));
    EXPECT_EQ(0, s.create(1, nullptr));
    EXPECT_EQ(SEMAPHORE_WAIT_OBJECT_0, s.wait(0));
    EXPECT_EQ(SEMAPHORE_WAIT_TIMEOUT, s.wait(20));
    std::atomic<int> rv(-1);
    std::thread t([&] { rv = s.wait(0xFFFFFFFFu); });
    EXPECT_EQ(RESULT_SUCCESS, s.post(3));
    t.join();
    EXPECT_EQ(SEMAPHORE_WAIT_OBJECT_0, rv.load());
    EXPECT_EQ(2, s.get_value());

    const std::string name = unique_name("util_sem");
    semaphore_t creator, opener, again, missing;
    ASSERT_EQ(0, creator.create(4, name.c_str()));
    EXPECT_EQ(0, creator.reset(0));  // re-created under its name, as the sharing below shows
    EXPECT_EQ(name, creator.name());
    EXPECT_EQ(0, opener.open(name.c_str()));
    creator.post(2);
    EXPECT_EQ(SEMAPHORE_WAIT_OBJECT_0, opener.wait(0));
    EXPECT_EQ(1, creator.get_value());
    EXPECT_NE(0, again.create(5, name.c_str()));  // an existing name is opened, with "already exists"
    EXPECT_EQ(1, again.get_value());
    EXPECT_NE(0, missing.open(unique_name("util_missing").c_str()));
    EXPECT_EQ(RESULT_NOT_CREATED, missing.wait(0));
}

}  // namespace

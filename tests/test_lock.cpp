#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "lock.h"
#include "test_support.h"

using namespace ssb;
using util_test::run_threads;
using util_test::wait_until;

namespace {

// ---- the three real locks share one contract --------------------------------

template <class L>
class LockContract : public ::testing::Test {};

typedef ::testing::Types<thread_mutex, thread_mutex_recursive, spin_lock> RealLocks;
TYPED_TEST_SUITE(LockContract, RealLocks);

template <class L>
int tryacquire_on_other_thread(L& lock) {
    int rv = -1;
    std::thread t([&] {
        rv = lock.tryacquire();
        if (rv == RESULT_SUCCESS)
            lock.release();
    });
    t.join();
    return rv;
}

TYPED_TEST(LockContract, TryacquireFromOtherThreadIsBusyWhileHeldAndFreeAfterRelease) {
    TypeParam lock;
    ASSERT_EQ(RESULT_SUCCESS, lock.acquire());
    EXPECT_EQ(RESULT_BUSY, tryacquire_on_other_thread(lock));
    ASSERT_EQ(RESULT_SUCCESS, lock.release());
    EXPECT_EQ(RESULT_SUCCESS, tryacquire_on_other_thread(lock));
    EXPECT_EQ(RESULT_SUCCESS, lock.tryacquire());
    lock.release();
}

TYPED_TEST(LockContract, ExcludesWritersUnderContention) {
    TypeParam lock;
    const int THREADS = 4, ROUNDS = 20000;
    long long counter = 0;  // plain on purpose: the lock alone protects it
    run_threads(THREADS, [&](int i) {
        for (int r = 0; r < ROUNDS; ++r) {
            if ((r + i) % 3 == 0) {
                while (lock.tryacquire() != RESULT_SUCCESS)
                    thread_yield();
            } else {
                lock.acquire();
            }
            ++counter;
            lock.release();
        }
    });
    EXPECT_EQ(static_cast<long long>(THREADS) * ROUNDS, counter);
}

// ---- recursion ---------------------------------------------------------------

template <class L>
class RecursiveLock : public ::testing::Test {};

typedef ::testing::Types<thread_mutex, thread_mutex_recursive> RecursiveLocks;
TYPED_TEST_SUITE(RecursiveLock, RecursiveLocks);

TYPED_TEST(RecursiveLock, OwnerReentersAndOthersWaitForTheLastRelease) {
    TypeParam lock;
    ASSERT_EQ(RESULT_SUCCESS, lock.acquire());
    ASSERT_EQ(RESULT_SUCCESS, lock.acquire());
    ASSERT_EQ(RESULT_SUCCESS, lock.tryacquire());
    lock.release();
    lock.release();
    EXPECT_EQ(RESULT_BUSY, tryacquire_on_other_thread(lock));
    lock.release();
    EXPECT_EQ(RESULT_SUCCESS, tryacquire_on_other_thread(lock));
}

TEST(SpinLock, TryacquireOnHeldLockReturnsBusyEvenForTheHolder) {
    spin_lock lock;
    ASSERT_EQ(RESULT_SUCCESS, lock.acquire());
    EXPECT_EQ(RESULT_BUSY, lock.tryacquire());
    lock.release();
    EXPECT_EQ(RESULT_SUCCESS, lock.tryacquire());
    lock.release();
}

// ---- thread_checker ----------------------------------------------------------

TEST(ThreadChecker, OwnerIsTheCreatorAndTravelsWithCopies) {
    thread_checker mine;
    EXPECT_TRUE(mine.is_same_as_owner());

    unsigned int other_tid = 0;
    bool other_is_owner = true;
    std::thread t([&] {
        other_tid = get_cur_tid();
        other_is_owner = mine.is_same_as_owner();
    });
    t.join();
    EXPECT_FALSE(other_is_owner);
    EXPECT_NE(other_tid, get_cur_tid());

    thread_checker moved;
    moved.change_owner(other_tid);
    EXPECT_FALSE(moved.is_same_as_owner());
    thread_checker copy(moved);
    EXPECT_EQ(other_tid, copy.get_owner());
    copy = mine;
    EXPECT_TRUE(copy.is_same_as_owner());
}

// ---- atomic_t ----------------------------------------------------------------

TEST(AtomicT, ConcurrentUpdatesAreNotLost) {
    atomic_t<int> i(0);
    atomic_t<uint64_t> u(0);
    atomic_t<int, thread_mutex_recursive> guarded(0);
    run_threads(4, [&](int) {
        for (int r = 0; r < 10000; ++r) {
            ++i;
            --i;
            ++i;
            u += 3;
            ++guarded;
        }
    });
    EXPECT_EQ(40000, i.value());
    EXPECT_EQ(120000u, u.value());
    EXPECT_EQ(40000, guarded.value());
    EXPECT_EQ(40000, i.exchange(-5));
    EXPECT_EQ(-5, static_cast<int>(i));
    EXPECT_EQ(-7, i -= 2);
    atomic_t<unsigned int> u32(0);
    EXPECT_EQ(0xFFFFFFFFu, --u32);  // wraps like the underlying type
    EXPECT_EQ(0u, ++u32);
}

// ---- reference counting ------------------------------------------------------

std::atomic<int> g_live(0);
std::atomic<int> g_destroyed(0);

template <class L>
class counted_t : public ref_count_t<L> {
public:
    counted_t() { ++g_live; }
    ~counted_t() override { --g_live; }
    void on_self_destroy() override {
        ++g_destroyed;
        ref_count_t<L>::on_self_destroy();
    }
};

class RefCount : public ::testing::Test {
protected:
    void SetUp() override {
        g_live = 0;
        g_destroyed = 0;
    }
};

TEST_F(RefCount, DestroyedOnceOnTheDecrementThatReachesZero) {
    counted_t<null_lock>* p = new counted_t<null_lock>;
    EXPECT_EQ(0u, p->get_count());
    EXPECT_EQ(1u, p->increment());
    EXPECT_EQ(2u, p->increment());
    EXPECT_EQ(1u, p->decrement());
    EXPECT_EQ(0, g_destroyed.load());
    EXPECT_EQ(0u, p->decrement());
    EXPECT_EQ(1, g_destroyed.load());
    EXPECT_EQ(0, g_live.load());
}

TEST_F(RefCount, LastReferenceDroppedOnAnotherThreadDestroysOnce) {
    for (int round = 0; round < 200; ++round) {
        counted_t<null_lock>* p = new counted_t<null_lock>;
        const int THREADS = 4;
        for (int i = 0; i < THREADS; ++i)
            p->increment();
        run_threads(THREADS, [&](int) {
            for (int i = 0; i < 100; ++i) {
                p->increment();
                p->decrement();
            }
            p->decrement();  // one of these is the last
        });
        EXPECT_EQ(round + 1, g_destroyed.load());
    }
    EXPECT_EQ(0, g_live.load());
}

TEST_F(RefCount, QueryInterfaceAnswersOnlyTheTwoIdentifiers) {
    counted_t<null_lock>* p = new counted_t<null_lock>;
    p->increment();
    ref_count_it* as_it = p;
    EXPECT_EQ(static_cast<void*>(as_it), p->query_interface(0xD2714AE1ULL));
    EXPECT_EQ(static_cast<void*>(as_it), p->query_interface(0x17034D58DULL));
    EXPECT_EQ(nullptr, p->query_interface(0));
    EXPECT_EQ(nullptr, p->query_interface(0xD2714AE2ULL));
    EXPECT_EQ(nullptr, p->query_interface(0x7034D58DULL));
    p->decrement();
}

TEST_F(RefCount, CheckerCountIsPlainAndCarriesTheOwner) {
    counted_t<null_lock_checker>* p = new counted_t<null_lock_checker>;
    EXPECT_TRUE(p->is_same_as_owner());
    EXPECT_EQ(0, p->acquire());  // the checker's lock operations never block
    EXPECT_EQ(0, p->tryacquire());
    EXPECT_EQ(1u, p->increment());
    counted_t<null_lock_checker> copy(*p);
    EXPECT_EQ(1u, copy.get_count());
    EXPECT_EQ(p->get_owner(), copy.get_owner());
    EXPECT_EQ(0u, p->decrement());
    EXPECT_EQ(1, g_destroyed.load());
}

// ---- event_t -----------------------------------------------------------------

TEST(Event, WaitCodesAndAutoResetConsumesTheSignal) {
    event_t e(false, false);
    ASSERT_NE(nullptr, e.get_handle());
    EXPECT_EQ(RESULT_BUSY, e.wait(0));
    EXPECT_EQ(RESULT_BUSY, e.wait(20));
    EXPECT_EQ(RESULT_SUCCESS, e.signal());
    EXPECT_EQ(RESULT_SUCCESS, e.signal());  // still one signal
    EXPECT_EQ(RESULT_SUCCESS, e.wait(0));
    EXPECT_EQ(RESULT_BUSY, e.wait(0));

    event_t initially(false, true);
    EXPECT_EQ(RESULT_SUCCESS, initially.wait(0));
    EXPECT_EQ(RESULT_BUSY, initially.wait(0));
}

TEST(Event, ManualResetStaysSignalledUntilReset) {
    event_t e(true, false);
    e.signal();
    EXPECT_EQ(RESULT_SUCCESS, e.wait(0));
    EXPECT_EQ(RESULT_SUCCESS, e.wait(-1));
    EXPECT_EQ(RESULT_SUCCESS, e.reset());
    EXPECT_EQ(RESULT_BUSY, e.wait(0));
}

TEST(Event, ManualResetSignalReleasesEveryWaiter) {
    event_t e(true, false);
    std::atomic<int> released(0);
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] {
            if (e.wait(-1) == RESULT_SUCCESS)
                ++released;
        });
    e.signal();
    for (auto& t : waiters)
        t.join();
    EXPECT_EQ(4, released.load());
}

TEST(Event, AutoResetSignalReleasesOneWaiterPerSignal) {
    event_t e(false, false);
    std::atomic<int> released(0);
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            if (e.wait(-1) == RESULT_SUCCESS)
                ++released;
        });
    for (int i = 1; i <= 3; ++i) {
        e.signal();
        // The signal stays set until one waiter takes it.
        wait_until([&] { return released.load() >= i; });
    }
    for (auto& t : waiters)
        t.join();
    EXPECT_EQ(3, released.load());
    EXPECT_EQ(RESULT_BUSY, e.wait(0));
}

TEST(Event, ManualPulseReleasesWaitersAndLeavesTheEventReset) {
    event_t e(true, false);
    const int WAITERS = 3;
    std::atomic<int> released(0);
    std::vector<std::thread> waiters;
    for (int i = 0; i < WAITERS; ++i)
        waiters.emplace_back([&] {
            if (e.wait(-1) == RESULT_SUCCESS)
                ++released;
        });
    // A pulse releases only the threads already waiting, so repeat until
    // all have been caught waiting.
    while (released.load() < WAITERS) {
        EXPECT_EQ(RESULT_SUCCESS, e.pulse());
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    for (auto& t : waiters)
        t.join();
    EXPECT_EQ(RESULT_BUSY, e.wait(0));
}

TEST(Event, PulseWithoutWaitersLeavesNothingBehind) {
    event_t manual(true, true);
    EXPECT_EQ(RESULT_SUCCESS, manual.pulse());
    EXPECT_EQ(RESULT_BUSY, manual.wait(0));
    event_t autoreset(false, false);
    EXPECT_EQ(RESULT_SUCCESS, autoreset.pulse());
    EXPECT_EQ(RESULT_BUSY, autoreset.wait(0));
}

TEST(Event, AutoPulseReleasesAtMostOneWaiterEachTime) {
    event_t e(false, false);
    std::atomic<int> released(0);
    std::vector<std::thread> waiters;
    for (int i = 0; i < 2; ++i)
        waiters.emplace_back([&] {
            if (e.wait(-1) == RESULT_SUCCESS)
                ++released;
        });
    int before = 0;
    while (released.load() < 2) {
        e.pulse();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        int now = released.load();
        EXPECT_LE(now - before, 1);
        before = now;
    }
    for (auto& t : waiters)
        t.join();
    EXPECT_EQ(RESULT_BUSY, e.wait(0));
}

// ---- semaphore_t -------------------------------------------------------------

std::string unique_name(const char* stem) {
    return std::string(stem) + "_" + std::to_string(get_cur_tid()) + "_" +
           std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

TEST(Semaphore, OperationsBeforeCreateReturnNotCreated) {
    semaphore_t s;
    EXPECT_TRUE(!s);
    EXPECT_EQ(RESULT_NOT_CREATED, s.post(1));
    EXPECT_EQ(RESULT_NOT_CREATED, s.wait(0));
    EXPECT_EQ(0, s.get_value());
    EXPECT_EQ("", s.name());
}

TEST(Semaphore, CountsPostsAndTimesOutWhenEmpty) {
    semaphore_t s;
    EXPECT_EQ(0, s.create(1, nullptr));
    EXPECT_FALSE(!s);
    EXPECT_EQ(1, s.get_value());
    EXPECT_EQ(SEMAPHORE_WAIT_OBJECT_0, s.wait(0));
    EXPECT_EQ(SEMAPHORE_WAIT_TIMEOUT, s.wait(0));
    EXPECT_EQ(SEMAPHORE_WAIT_TIMEOUT, s.wait(20));
    EXPECT_EQ(RESULT_SUCCESS, s.post(3));
    EXPECT_EQ(3, s.get_value());
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(SEMAPHORE_WAIT_OBJECT_0, s.wait(0));
    EXPECT_EQ(SEMAPHORE_WAIT_TIMEOUT, s.wait(0));
}

TEST(Semaphore, PostWakesAWaiterOnAnotherThread) {
    semaphore_t s;
    s.create(0, nullptr);
    std::atomic<int> rv(-1);
    std::thread t([&] { rv = s.wait(0xFFFFFFFFu); });
    s.post(1);
    t.join();
    EXPECT_EQ(SEMAPHORE_WAIT_OBJECT_0, rv.load());
    EXPECT_EQ(0, s.get_value());
}

TEST(Semaphore, NamedSemaphoreIsSharedWithASecondObject) {
    const std::string name = unique_name("util_sem");
    semaphore_t creator;
    ASSERT_EQ(0, creator.create(0, name.c_str()));
    EXPECT_EQ(name, creator.name());

    semaphore_t opener;
    EXPECT_EQ(0, opener.open(name.c_str()));
    ASSERT_FALSE(!opener);
    creator.post(2);
    EXPECT_EQ(2, opener.get_value());
    EXPECT_EQ(SEMAPHORE_WAIT_OBJECT_0, opener.wait(0));
    EXPECT_EQ(1, creator.get_value());

    // Creating an existing name opens it and reports "already exists".
    semaphore_t again;
    EXPECT_NE(0, again.create(5, name.c_str()));
    ASSERT_FALSE(!again);
    EXPECT_EQ(1, again.get_value());

    semaphore_t missing;
    EXPECT_NE(0, missing.open(unique_name("util_missing").c_str()));
    EXPECT_TRUE(!missing);
    EXPECT_EQ(RESULT_NOT_CREATED, missing.wait(0));
}

TEST(Semaphore, ResetRecreatesWithTheNewCount) {
    semaphore_t s;
    s.create(4, nullptr);
    EXPECT_EQ(0, s.reset(2));
    EXPECT_EQ(2, s.get_value());
    const std::string name = unique_name("util_reset");
    semaphore_t named;
    named.create(0, name.c_str());
    EXPECT_EQ(0, named.reset(7));
    EXPECT_EQ(name, named.name());
    EXPECT_EQ(7, named.get_value());
}

}  // namespace

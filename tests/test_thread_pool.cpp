#include "thread_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <vector>

#include "ref_holder.h"
#include "test_support.h"
#include "test_thread_support.h"
#include "toolkit.h"

using namespace ssb;

namespace {

using util_test::fn_msg_t;
using util_test::run_on;

class ThreadPool : public util_test::thread_test_t {
protected:
    void TearDown() override {
        for (thread_pool_t* p : m_pools)
            thread_pool_t::release_obj(p);
        thread_test_t::TearDown();
    }
    // A pool released when the test ends.
    thread_pool_t* make(unsigned int init_num, unsigned int max_num) {
        thread_pool_t* p = thread_pool_t::new_instance(init_num, max_num, false, 0);
        EXPECT_NE(nullptr, p);
        if (p)
            m_pools.push_back(p);
        return p;
    }
    // Adds a task without a message; the id, and the thread in `thr`.
    unsigned int add(thread_pool_t* pool, unsigned int loads, thread_wrapper_t** thr = nullptr) {
        unsigned int id = 0xFFFFFFFFu;
        thread_wrapper_t* bound = nullptr;
        EXPECT_EQ(RESULT_SUCCESS, pool->add_task(nullptr, id, loads, bound));
        EXPECT_NE(nullptr, bound);
        if (thr)
            *thr = bound;
        return id;
    }
    // Adds a task running fn; the add_task result, the thread in `thr`.
    int add_fn(thread_pool_t* pool, unsigned int loads, std::function<void()> fn, thread_wrapper_t** thr = nullptr,
               unsigned int* id = nullptr) {
        unsigned int task_id = 0xFFFFFFFFu;
        thread_wrapper_t* bound = m_main;
        msg_holder_t msg(new fn_msg_t(std::move(fn)));
        const int rv = msg.handed_over(pool->add_task(msg.get(), task_id, loads, bound));
        if (thr)
            *thr = bound;
        if (id)
            *id = task_id;
        return rv;
    }
    std::vector<thread_pool_t*> m_pools;
};

TEST(ThreadPoolCounts, DefaultsFollowTheProcessorCount) {
    const unsigned int rows[][3] = {
        {0, 1, 1},  {1, 1, 1},     {2, 1, 3},        {3, 2, 5},        {4, 3, 7},
        {8, 7, 15}, {64, 63, 127}, {512, 511, 1023}, {513, 511, 1023}, {100000, 511, 1023},
    };
    for (const auto& r : rows) {
        unsigned int init_num = 99, max_num = 99;
        thread_pool_t::default_thread_counts(r[0], init_num, max_num);
        EXPECT_EQ(r[1], init_num) << "cpus = " << r[0];
        EXPECT_EQ(r[2], max_num) << "cpus = " << r[0];
    }
}

TEST_F(ThreadPool, CountsOutsideTheLimitsAreRefusedAndZeroMaxFollowsTheProcessors) {
    const struct {
        unsigned int init_num, max_num;
        const char* text;
    } rows[] = {
        {5, 4, "assert: msg[thread_pool_t::new_instance, init_num = 5, max_num = 4] file[thread_pool], line = [24]"},
        {1, 1025,
         "assert: msg[thread_pool_t::new_instance should be in limitation, init_num = 1, max_num = 1025, "
         "MAX_THREADS_LIMIT = 1024, MIN_THREADS_LIMIT = 2] file[thread_pool], line = [25]"},
        {1, 1, "should be in limitation, init_num = 1, max_num = 1,"},
        {0, 1, "should be in limitation, init_num = 0, max_num = 1,"},
    };
    const int wrappers = live_thread_wrappers();
    for (const auto& r : rows) {
        m_log.clear();
        EXPECT_EQ(nullptr, thread_pool_t::new_instance(r.init_num, r.max_num, false, 0)) << r.text;
        EXPECT_TRUE(m_log.contains(r.text)) << r.text;
    }
    EXPECT_EQ(wrappers, live_thread_wrappers());
    // The bounds themselves are accepted.
    make(0, 2);
    make(0, 1024);
    // A zero maximum sizes the pool by the processors and ignores init_num.
    const unsigned int c = get_number_of_cpus();
    ASSERT_GE(c, 1u);
    thread_pool_t* pool = make(50, 0);
    ASSERT_NE(nullptr, pool);
    const unsigned int init_num = c - 1 < 2 ? 1 : c - 1;
    EXPECT_EQ(2 * c - 1, pool->get_max_num());
    EXPECT_EQ(init_num, pool->get_init_num());
    EXPECT_EQ(init_num, pool->get_thread_count());
    EXPECT_TRUE(m_log.contains("thread_pool_t::new_instance, init_num = " + std::to_string(init_num) +
                               ", max_num = " + std::to_string(2 * c - 1)));
}

TEST_F(ThreadPool, GrowthStepIsHalfTheInitialCountAtLeastOneAndStopsAtTheMaximum) {
    const unsigned int rows[][4] = {{0, 3, 1, 1}, {0, 3, 2, 2}, {4, 5, 5, 5}, {4, 16, 5, 6}, {4, 16, 7, 8}};
    unsigned int last_idx = 0;
    for (const auto& r : rows) {
        thread_pool_t* pool = make(r[0], r[1]);
        ASSERT_NE(nullptr, pool);
        EXPECT_EQ(r[0], pool->get_thread_count());
        if (last_idx) {
            EXPECT_EQ(last_idx + 1, pool->get_pool_idx()) << "pools are numbered in creation order";
        }
        last_idx = pool->get_pool_idx();
        m_log.clear();
        thread_wrapper_t* thr = nullptr;
        for (unsigned int i = 0; i < r[2]; ++i)
            add(pool, 1, &thr);
        // Idle threads take tasks first; the pool grows once all are busy.
        const std::string grew =
            "thread_pool_t::add_task has no idle thread and the pool is not full, m_loads = " + std::to_string(r[0]) +
            ", m_idx = " + std::to_string(last_idx) + ", ext_num = " + std::to_string(r[0]);
        EXPECT_EQ(r[2] > r[0], m_log.contains(grew)) << grew;
        EXPECT_EQ(r[2] > r[0], m_log.contains("has no idle thread"));
        EXPECT_EQ(r[3], pool->get_thread_count()) << r[0] << "/" << r[1] << ", " << r[2];
        // Threads are named by pool and creation count, grown ones too.
        EXPECT_EQ("pool." + std::to_string(last_idx) + "." + std::to_string(r[2] - 1), thr->name());
    }
}

TEST_F(ThreadPool, PicksMatchAModelOfLeastLoadThenLongestAtThatLoad) {
    const int threads = 16;
    thread_pool_t* pool = make(threads, threads);
    ASSERT_NE(nullptr, pool);
    // Model: per thread its load and when it last changed.
    std::vector<thread_wrapper_t*> order;
    std::vector<unsigned int> load(threads, 0);
    std::vector<unsigned long long> stamp(threads, 0);
    unsigned long long clock = 0;
    struct task_t {
        unsigned int id, load;
        int thread;
    };
    std::vector<task_t> live;
    unsigned int seed = 7;
    auto next = [&seed] { return seed = seed * 1103515245u + 12345u, (seed >> 8) & 0xFFFF; };
    for (int step = 0; step < 3000 + threads; ++step) {
        if (step < threads || live.empty() || next() % 5 < 3) {
            int pick = 0;
            for (int i = 1; i < threads; ++i)
                if (load[i] < load[pick] || (load[i] == load[pick] && stamp[i] < stamp[pick]))
                    pick = i;
            // The first pass takes idle threads in the order they were
            // spawned; 0 still moves a thread back among its equals.
            const unsigned int l = step < threads ? 1 : next() % 40;
            thread_wrapper_t* thr = nullptr;
            const unsigned int id = add(pool, l, &thr);
            if (step < threads) {
                pick = step;
                EXPECT_EQ("pool." + std::to_string(pool->get_pool_idx()) + "." + std::to_string(step), thr->name());
                order.push_back(thr);
            }
            ASSERT_EQ(order[pick], thr) << "step " << step;
            load[pick] += l;
            stamp[pick] = clock++;
            live.push_back(task_t{id, l, pick});
        } else {
            const size_t k = next() % live.size();
            const task_t t = live[k];
            live.erase(live.begin() + static_cast<long>(k));
            ASSERT_EQ(RESULT_SUCCESS, pool->remove_task(nullptr, t.id));
            load[t.thread] -= t.load;
            stamp[t.thread] = clock++;
        }
    }
    unsigned int total = 0;
    for (int i = 0; i < threads; ++i) {
        EXPECT_EQ(load[i], pool->get_thread_load(order[i])) << "thread " << i;
        total += load[i];
    }
    EXPECT_EQ(total, pool->get_loads());
    EXPECT_FALSE(m_log.contains("has no idle thread")) << "a full pool does not grow";
}

TEST_F(ThreadPool, ReleasedIdsComeBackFirstInTheOrderReleasedAndUnknownIdsChangeNothing) {
    thread_pool_t* pool = make(1, 2);
    ASSERT_NE(nullptr, pool);
    thread_wrapper_t* thr = nullptr;
    EXPECT_EQ(0u, add(pool, 4, &thr));
    EXPECT_EQ(1u, add(pool, 1));
    EXPECT_EQ(2u, add(pool, 1));
    for (unsigned int unknown : {3u, 1000u, 0xFFFFFFFFu}) {
        m_log.clear();
        EXPECT_EQ(RESULT_NOT_FOUND, pool->remove_task(nullptr, unknown));
        EXPECT_TRUE(m_log.contains("thread_pool_t::remove_task task, task_id = " + std::to_string(unknown) +
                                   " has been not registered, m_loads = 6"));
    }
    EXPECT_EQ(RESULT_SUCCESS, pool->remove_task(nullptr, 2));
    EXPECT_EQ(RESULT_SUCCESS, pool->remove_task(nullptr, 0));
    EXPECT_TRUE(m_log.contains("thread load reduce, thr = "));
    // A second removal of the same id is unknown too; it is released once.
    EXPECT_EQ(RESULT_NOT_FOUND, pool->remove_task(nullptr, 0));
    EXPECT_EQ(RESULT_SUCCESS, pool->remove_task(nullptr, 1));
    EXPECT_TRUE(m_log.contains("task is empty"));
    EXPECT_EQ(0u, pool->get_loads());
    EXPECT_EQ(0u, pool->get_thread_load(thr));
    EXPECT_EQ(2u, add(pool, 1));
    EXPECT_EQ(0u, add(pool, 1));
    EXPECT_EQ(1u, add(pool, 1));
    EXPECT_EQ(3u, add(pool, 1));
    EXPECT_EQ(4u, pool->get_task_count());
}

TEST_F(ThreadPool, TaskMessagesRunOnTheChosenPoolThreadAlsoWhenAddedFromOne) {
    thread_pool_t* pool = make(2, 3);
    ASSERT_NE(nullptr, pool);
    std::atomic<thread_wrapper_t*> started(nullptr), ended(nullptr);
    unsigned int id = 0;
    thread_wrapper_t* thr = nullptr;
    ASSERT_EQ(RESULT_SUCCESS, add_fn(
                                  pool, 5, [&] { started = thread_wrapper_t::self(); }, &thr, &id));
    ASSERT_NE(nullptr, thr);
    UTIL_WAIT_UNTIL([&] { return started.load() != nullptr; });
    EXPECT_EQ(thr, started.load());
    EXPECT_NE(m_main, thr);
    EXPECT_TRUE(m_log.contains("thread_pool_t::add_task, loads = 5, bind_thr = "));
    EXPECT_TRUE(m_log.contains("THREAD_POOL LOADS SUMMARY: [, it->first = 0, it->second.get() = "));
    EXPECT_TRUE(m_log.contains(", it->first = 5, it->second.get() = "));
    ASSERT_EQ(RESULT_SUCCESS, pool->remove_task(new fn_msg_t([&] { ended = thread_wrapper_t::self(); }), id));
    UTIL_WAIT_UNTIL([&] { return ended.load() != nullptr; });
    EXPECT_EQ(thr, ended.load());

    // From inside a task on a pool thread: the pool's lock is re-entered
    // there, and a task for that same thread goes through its own queue.
    thread_pool_t* two = make(2, 2);
    ASSERT_NE(nullptr, two);
    thread_wrapper_t* first = nullptr;
    add(two, 1, &first);
    std::atomic<int> ran(0);
    std::vector<thread_wrapper_t*> chosen(4);
    run_on(first, [&] {
        for (thread_wrapper_t*& c : chosen)
            EXPECT_EQ(RESULT_SUCCESS, add_fn(
                                          two, 1, [&] { ++ran; }, &c));
    });
    UTIL_WAIT_UNTIL([&] { return ran.load() == 4; });
    EXPECT_EQ(2, std::count(chosen.begin(), chosen.end(), first));
}

TEST_F(ThreadPool, StopAllThreadThenReleaseLeavesNoThreadsOrQueues) {
    const int wrappers = live_thread_wrappers();
    const int queues = live_msg_queues();
    const unsigned int registered = m_mgr->count();
    thread_pool_t* pool = thread_pool_t::new_instance(3, 4, true, 0);
    ASSERT_NE(nullptr, pool);
    EXPECT_EQ(wrappers + 3, live_thread_wrappers());
    EXPECT_EQ(registered + 3, m_mgr->count());
    unsigned int id = add(pool, 2);
    add(pool, 2);
    EXPECT_EQ(3, pool->stop_all_thread());
    EXPECT_TRUE(m_log.contains("thread_pool_t::stop_all_thread()"));
    EXPECT_EQ(3u, m_log.count("thread_pool_t::stop_all_thread stopping, thr = "));
    EXPECT_EQ(registered, m_mgr->count());
    EXPECT_EQ(0u, pool->get_thread_count());
    EXPECT_EQ(0u, pool->get_loads());
    // The tasks went with their threads; a stopped pool takes no more.
    EXPECT_EQ(RESULT_NOT_FOUND, pool->remove_task(nullptr, id));
    thread_wrapper_t* thr = m_main;
    EXPECT_EQ(RESULT_NOTHING_TO_DO, add_fn(
                                        pool, 1, [] {}, &thr));
    EXPECT_EQ(nullptr, thr);
    EXPECT_EQ(RESULT_REFUSED, pool->bind_thread(m_main, 0, 0));
    EXPECT_EQ(0, pool->stop_all_thread());
    thread_pool_t::release_obj(pool);
    EXPECT_EQ(nullptr, pool);
    thread_pool_t::release_obj(pool);  // null: nothing
    // The timer driver lets go of its ends of their channels at its next pass.
    UTIL_WAIT_UNTIL([&] { return live_thread_wrappers() == wrappers && live_msg_queues() == queues; });
    EXPECT_TRUE(m_log.contains("thread_pool_t::~thread_pool_t, m_loads = 0"));
}

TEST_F(ThreadPool, TheLastReleaseStopsTheThreadsStillHeldEvenFromAPoolThread) {
    const int wrappers = live_thread_wrappers();
    const unsigned int registered = m_mgr->count();
    thread_pool_t* pool = thread_pool_t::new_instance(2, 3, false, 0);
    ASSERT_NE(nullptr, pool);
    add(pool, 3);
    add(pool, 4);
    pool->release_obj();
    EXPECT_TRUE(m_log.contains("thread_pool_t::release_obj()"));
    EXPECT_TRUE(m_log.contains("thread_pool_t::~thread_pool_t, m_loads = 7"));
    EXPECT_EQ(registered, m_mgr->count());
    UTIL_WAIT_UNTIL([&] { return live_thread_wrappers() == wrappers; });

    pool = thread_pool_t::new_instance(2, 2, false, 0);
    ASSERT_NE(nullptr, pool);
    thread_wrapper_t* thr = nullptr;
    add(pool, 1, &thr);
    ref_holder_t<thread_wrapper_t> keep(thr);
    std::atomic<bool> released(false);
    ASSERT_EQ(RESULT_SUCCESS, add_fn(pool, 1, [&] {
                  thread_pool_t::release_obj(pool);
                  released = true;
              }));
    UTIL_WAIT_UNTIL([&] { return released.load(); });
    UTIL_WAIT_UNTIL([&] { return m_mgr->count() == registered; });
    EXPECT_TRUE(keep->is_stopped() || keep->is_stopping());
    EXPECT_FALSE(m_log.contains("should be not join in same thread"));
}

TEST_F(ThreadPool, DetachedThreadsRunOnUnderTheManager) {
    const unsigned int registered = m_mgr->count();
    thread_pool_t* pool = thread_pool_t::new_instance(2, 2, false, 0);
    ASSERT_NE(nullptr, pool);
    thread_wrapper_t* thr = nullptr;
    add(pool, 1, &thr);
    EXPECT_EQ(2, pool->detach_all_thread());
    EXPECT_TRUE(m_log.contains("thread_pool_t::detach_all_thread()"));
    EXPECT_EQ(0u, pool->get_thread_count());
    thread_pool_t::release_obj(pool);
    EXPECT_EQ(registered + 2, m_mgr->count());
    ASSERT_TRUE(thr->is_running());
    bool ran = false;
    run_on(thr, [&] { ran = true; });
    EXPECT_TRUE(ran);
}

TEST_F(ThreadPool, BoundThreadsShareTasksAndStopOnlyWhenAskedTo) {
    thread_pool_t* pool = make(1, 3);
    ASSERT_NE(nullptr, pool);
    thread_wrapper_t* own = nullptr;
    add(pool, 5, &own);
    thread_wrapper_t* kept = m_mgr->spawn(THREAD_MODE_EVENT, 64, 120, false, nullptr, 0);
    thread_wrapper_t* stopped = m_mgr->spawn(THREAD_MODE_EVENT, 64, 121, false, nullptr, 0);
    ASSERT_TRUE(kept && stopped);
    ref_holder_t<thread_wrapper_t> keep_stopped(stopped);
    EXPECT_EQ(RESULT_INVALID_ARG, pool->bind_thread(nullptr, 0, 0));
    EXPECT_EQ(RESULT_SUCCESS, pool->bind_thread(kept, 2, 0));
    EXPECT_EQ(RESULT_ALREADY_EXISTS, pool->bind_thread(kept, 0, 0));
    EXPECT_EQ(RESULT_SUCCESS, pool->bind_thread(stopped, 50, POOL_BIND_STOP_WITH_POOL));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, pool->bind_thread(m_main, 0, 0));
    EXPECT_EQ(3u, pool->get_thread_count());
    EXPECT_EQ(5u, pool->get_loads());  // bound loads are not tasks
    EXPECT_EQ(50u, pool->get_thread_load(stopped));
    thread_wrapper_t* thr = nullptr;
    add(pool, 4, &thr);
    EXPECT_EQ(kept, thr);  // 2 < 5 < 50
    add(pool, 1, &thr);
    EXPECT_EQ(own, thr);  // 5 < 6
    EXPECT_EQ(2, pool->stop_all_thread());
    EXPECT_TRUE(kept->is_running());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, stopped->stop());
}

TEST_F(ThreadPool, ATaskForAThreadStoppedElsewhereIsRefusedAndNotRecorded) {
    thread_pool_t* pool = make(2, 2);
    ASSERT_NE(nullptr, pool);
    thread_wrapper_t *busy = nullptr, *idle = nullptr;
    add(pool, 9, &busy);
    unsigned int probe = add(pool, 1, &idle);
    ASSERT_EQ(RESULT_SUCCESS, pool->remove_task(nullptr, probe));
    ref_holder_t<thread_wrapper_t> keep(idle);
    ASSERT_EQ(1, m_mgr->stop_thread_by_id(idle->get_id()));
    thread_wrapper_t* thr = m_main;
    EXPECT_EQ(RESULT_NOTHING_TO_DO, add_fn(
                                        pool, 3, [] {}, &thr));  // the holder keeps the refused message
    EXPECT_EQ(nullptr, thr);
    EXPECT_EQ(1u, pool->get_task_count());
    EXPECT_EQ(9u, pool->get_loads());
    EXPECT_EQ(0u, pool->get_thread_load(idle));
    // The refused task's id was not used up.
    EXPECT_EQ(probe, add(pool, 1));
}

TEST_F(ThreadPool, ConcurrentAddAndRemoveKeepLoadsAndRunEveryMessageOnce) {
    const int writers = 4;
    const int rounds = 300 / util_test::ROUNDS_SCALE + 20;
    thread_pool_t* pool = make(2, 6);
    ASSERT_NE(nullptr, pool);
    std::atomic<int> ran(0), posted(0);
    util_test::run_threads(writers, [&](int w) {
        std::vector<unsigned int> mine;
        for (int i = 0; i < rounds; ++i) {
            unsigned int id = 0;
            EXPECT_EQ(RESULT_SUCCESS, add_fn(
                                          pool, 1 + (i + w) % 7, [&ran] { ++ran; }, nullptr, &id))
                << w;
            ++posted;
            mine.push_back(id);
            if (i % 3 == 2) {
                msg_holder_t end(new fn_msg_t([&ran] { ++ran; }));
                EXPECT_EQ(RESULT_SUCCESS, end.handed_over(pool->remove_task(end.get(), mine.front()))) << w;
                ++posted;
                mine.erase(mine.begin());
            }
        }
        for (unsigned int id : mine)
            EXPECT_EQ(RESULT_SUCCESS, pool->remove_task(nullptr, id));
    });
    EXPECT_EQ(0u, pool->get_task_count());
    EXPECT_EQ(0u, pool->get_loads());
    EXPECT_LE(pool->get_thread_count(), 6u);
    UTIL_WAIT_UNTIL([&] { return ran.load() == posted.load(); });
    // Every id went back: the next one is one of those handed out before.
    EXPECT_LT(add(pool, 1), static_cast<unsigned int>(writers * rounds));
}

}  // namespace

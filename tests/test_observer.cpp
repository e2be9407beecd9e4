// Observers on several loop threads: where and in what order they are
// called, removal (from inside a call-back and from another thread) against
// notifications already queued.
#include <gtest/gtest.h>

#include <thread>
#include <utility>
#include <vector>

#include "observer.h"
#include "task.h"
#include "test_thread_support.h"

using namespace ssb;
using util_test::run_on;

namespace {

// A notification's payload whose life is counted.
struct payload_t : ref_count_t<null_lock> {
    static std::atomic<int>& live() {
        static std::atomic<int> s_live(0);
        return s_live;
    }
    explicit payload_t(int v) : value(v) { ++live(); }
    ~payload_t() override { --live(); }
    int value;
};

// Records its call-backs; touched only on its own thread, and read by the
// test once that thread is known to have finished with it.
struct recorder_t : observer_it {
    std::vector<std::pair<uint32_t, int>> seen;
    std::vector<unsigned int> tids;
    std::function<void(uint32_t)> on_call;
    std::atomic<int> calls{0};
    void on_notify(uint32_t what, ref_count_it* data) override {
        seen.emplace_back(what, data ? static_cast<payload_t*>(data)->value : -1);
        tids.push_back(get_cur_tid());
        if (on_call)
            on_call(what);
        ++calls;
    }
};

class Observers : public util_test::thread_test_t {
protected:
    void TearDown() override {
        thread_test_t::TearDown();
        EXPECT_EQ(0, payload_t::live().load());
    }
    thread_wrapper_t* spawn(const char* name) {
        thread_wrapper_t* thr = m_mgr->spawn(THREAD_MODE_EVENT, 256, 100, false,
                                             reinterpret_cast<signed char*>(const_cast<char*>(name)), 0xFFFFFFFF);
        EXPECT_NE(nullptr, thr);
        return thr;
    }
};

TEST_F(Observers, EachObserverIsCalledOnItsOwnThreadInOrder) {
    thread_wrapper_t* threads[3] = {spawn("o1"), spawn("o2"), spawn("o3")};
    observer_holder_t holder;
    recorder_t obs[6];
    for (int i = 0; i < 6; ++i)
        run_on(threads[i % 3], [&, i] {
            bool first = false;
            EXPECT_EQ(RESULT_SUCCESS, holder.add_observer(&obs[i], &first));
            EXPECT_EQ(i == 0, first) << i;
        });
    EXPECT_EQ(6u, holder.observer_count());
    // From an unmanaged thread and from the main thread.
    std::thread([&] {
        for (int n = 0; n < 20; ++n) {
            payload_t* p = new payload_t(n);
            p->increment();
            EXPECT_EQ(RESULT_SUCCESS, holder.notify(1, p));
            p->decrement();
        }
    }).join();
    for (int n = 0; n < 20; ++n)
        EXPECT_EQ(RESULT_SUCCESS, holder.notify(2));
    for (int i = 0; i < 6; ++i)
        UTIL_WAIT_UNTIL([&] { return obs[i].calls.load() == 40; });
    for (int i = 0; i < 6; ++i) {
        run_on(threads[i % 3], [] {});
        for (unsigned int tid : obs[i].tids)
            EXPECT_EQ(threads[i % 3]->get_id(), tid) << i;
        for (int n = 0; n < 20; ++n) {
            EXPECT_EQ(std::make_pair(1u, n), obs[i].seen[n]) << i;
            EXPECT_EQ(std::make_pair(2u, -1), obs[i].seen[20 + n]) << i;
        }
    }
    EXPECT_EQ(0, payload_t::live().load());
    for (int i = 0; i < 6; ++i) {
        bool last = true;
        EXPECT_EQ(RESULT_SUCCESS, holder.remove_observer(&obs[i], &last));
        EXPECT_EQ(i == 5, last) << i;
    }
    EXPECT_EQ(RESULT_NOTHING_TO_DO, holder.notify(3));
}

TEST_F(Observers, MisuseIsRefusedWithItsCode) {
    thread_wrapper_t* thr = spawn("o");
    observer_holder_t holder;
    recorder_t a;
    std::thread([&] { EXPECT_EQ(RESULT_REFUSED, holder.add_observer(&a)); }).join();
    EXPECT_TRUE(m_log.contains("add_observer should be called on a message-loop thread"));
    run_on(thr, [&] {
        EXPECT_EQ(RESULT_INVALID_ARG, holder.add_observer(nullptr));
        EXPECT_EQ(RESULT_SUCCESS, holder.add_observer(&a));
        EXPECT_EQ(RESULT_ALREADY_EXISTS, holder.add_observer(&a));
    });
    EXPECT_EQ(1u, holder.observer_count());
    EXPECT_EQ(RESULT_INVALID_ARG, holder.remove_observer(nullptr));
    EXPECT_EQ(RESULT_SUCCESS, holder.remove_observer(&a));
    EXPECT_EQ(RESULT_NOT_FOUND, holder.remove_observer(&a));
}

TEST_F(Observers, ACallBackRemovesItselfAndALaterObserverWhoseNotificationIsQueued) {
    thread_wrapper_t* thr = spawn("o");
    observer_holder_t holder;
    recorder_t a, b, c;
    a.on_call = [&](uint32_t) {
        bool empty = true;
        EXPECT_EQ(RESULT_SUCCESS, holder.remove_observer(&a, &empty));
        EXPECT_FALSE(empty);
        EXPECT_EQ(RESULT_SUCCESS, holder.remove_observer(&b, &empty));
        EXPECT_FALSE(empty);
    };
    std::atomic<bool> go(false);
    run_on(thr, [&] {
        holder.add_observer(&a);
        holder.add_observer(&b);
        holder.add_observer(&c);
        // Held up until three notifications are queued for each.
        EXPECT_EQ(RESULT_SUCCESS, post_task(thr, [&] {
                      util_test::wait_until("three notifications queued", [&] { return go.load(); });
                  }));
    });
    for (uint32_t n = 0; n < 3; ++n)
        EXPECT_EQ(RESULT_SUCCESS, holder.notify(n, new payload_t(static_cast<int>(n))));
    go = true;
    UTIL_WAIT_UNTIL([&] { return c.calls.load() == 3; });
    run_on(thr, [] {});
    EXPECT_EQ(1, a.calls.load()) << "queued notifications of a removed observer are dropped";
    EXPECT_EQ(0, b.calls.load());
    EXPECT_EQ(1u, holder.observer_count());
    EXPECT_EQ(0, payload_t::live().load());
}

// Removal from the main thread while another thread keeps notifying: once
// it returns, the observer is never called again and may be destroyed at
// once (ASan and TSan see any late call-back).
TEST_F(Observers, RemovalFromAnotherThreadRacesQueuedNotificationsStress) {
    thread_wrapper_t* thr = spawn("o");
    // Over a channel: the notifications keep the control queue full.
    ASSERT_EQ(RESULT_SUCCESS, m_main->create_channel(thr, 32, 32));
    observer_holder_t holder;
    for (int round = 0; round < 200; ++round) {
        recorder_t* obs = new recorder_t;
        ASSERT_EQ(RESULT_SUCCESS, send_task(thr, [&] { EXPECT_EQ(RESULT_SUCCESS, holder.add_observer(obs)); }));
        std::atomic<bool> stop(false);
        std::thread notifier([&] {
            while (!stop.load())
                if (holder.notify(7) == RESULT_QUEUE_FULL)
                    std::this_thread::yield();
        });
        EXPECT_TRUE(util_test::wait_until("a first call-back", [&] { return obs->calls.load() > 0; }));
        EXPECT_EQ(RESULT_SUCCESS, holder.remove_observer(obs));
        EXPECT_GT(obs->seen.size(), 0u);
        delete obs;
        stop = true;
        notifier.join();
        ASSERT_EQ(RESULT_SUCCESS, send_task(thr, [] {}));
    }
}

}  // namespace

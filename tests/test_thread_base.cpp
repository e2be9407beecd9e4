#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "test_log_support.h"
#include "log.h"
#include "platform/platform.h"
#include "test_support.h"
#include "thread_base.h"

using namespace ssb;
using util_test::wait_until;

namespace {

struct capture_t : log_it {
    int cout(unsigned int, unsigned int, signed char* text, unsigned int length) override {
        std::lock_guard<std::mutex> guard(mutex);
        asserts += std::string(reinterpret_cast<char*>(text), length).find("\tFATAL\tassert: ") != std::string::npos;
        return 0;
    }
    std::mutex mutex;
    int asserts = 0;
};

struct probe_t {
    thread_base_t* self = nullptr;
    std::atomic<unsigned int> seen_tid{0};
    std::atomic<bool> entered{false}, release{false}, done{false};
    std::atomic<int> runs{0}, inner_rv[3] = {{-1}, {-1}, {-1}};
};

void run_once(void* p) {
    probe_t* probe = static_cast<probe_t*>(p);
    probe->seen_tid = thread_base_t::get_cur_tid();
    ++probe->runs;
}

// Runs until the test releases it, then marks itself done.
void wait_for_release(void* p) {
    probe_t* probe = static_cast<probe_t*>(p);
    probe->entered = true;
    util_test::wait_until("the test to release the thread", [probe] { return probe->release.load(); });
    probe->done = true;
}

void control_self(void* p) {
    probe_t* probe = static_cast<probe_t*>(p);
    probe->inner_rv[0] = probe->self->stop();
    probe->inner_rv[1] = probe->self->join_np(0);
    probe->inner_rv[2] = probe->self->cancel();
    wait_for_release(p);
}

class ThreadBase : public ::testing::Test {
protected:
    void SetUp() override { util_test::capture_util_log(&cap); }
    void TearDown() override { util_test::restore_log_routing(); }
    capture_t cap;
};

TEST_F(ThreadBase, StartJoinStopOnANewThreadAndTheObjectIsReusable) {
    probe_t probe;
    thread_base_t t;
    EXPECT_TRUE(t.is_stopped() && !t.is_running() && t.get_id() == 0u);
    EXPECT_EQ(RESULT_NOTHING_TO_DO, t.cancel());
    EXPECT_EQ(RESULT_SUCCESS, t.join_np(0));
    for (int i = 1; i <= 3; ++i) {
        const unsigned int id = t.start(run_once, &probe, 0, 0);
        ASSERT_NE(0u, id);
        EXPECT_NE(thread_base_t::get_cur_tid(), id);
        // A finished join leaves the thread held until stop.
        EXPECT_EQ(RESULT_SUCCESS, t.join_np(60000));
        EXPECT_TRUE(t.is_running() && t.get_id() == id);
        ASSERT_EQ(RESULT_SUCCESS, t.stop());
        EXPECT_EQ(i, probe.runs.load());
        EXPECT_EQ(id, probe.seen_tid.load());
        EXPECT_TRUE(t.is_stopped() && t.get_id() == 0u);
        EXPECT_EQ(RESULT_NOTHING_TO_DO, t.stop());
    }
}

// The destructor stops (waits for) the thread still held.
TEST_F(ThreadBase, StartWithoutFunctionOrWhileHoldingAThreadIsRefused) {
    probe_t probe, other;
    std::unique_ptr<thread_base_t> t(new thread_base_t);
    EXPECT_EQ(0u, t->start(nullptr, nullptr, 0, 0));
    EXPECT_TRUE(t->is_stopped());
    const unsigned int id = t->start(wait_for_release, &probe, 0, 0);
    ASSERT_NE(0u, id);
    EXPECT_EQ(0u, t->start(run_once, &other, 0, 0));
    EXPECT_EQ(2, cap.asserts);
    EXPECT_EQ(id, t->get_id());
    probe.release = true;
    t.reset();
    EXPECT_TRUE(probe.done.load());
    EXPECT_EQ(0, other.runs.load());
}

TEST_F(ThreadBase, StopJoinAndCancelFromTheThreadItselfAreRefused) {
    probe_t probe;
    thread_base_t t;
    probe.self = &t;
    ASSERT_NE(0u, t.start(control_self, &probe, 0, 0));
    UTIL_WAIT_UNTIL([&] { return probe.entered.load(); });
    for (const std::atomic<int>& rv : probe.inner_rv)
        EXPECT_EQ(RESULT_REFUSED, rv.load());
    EXPECT_EQ(3, cap.asserts);
    EXPECT_TRUE(t.is_running() && !probe.done.load());
    probe.release = true;
    EXPECT_EQ(RESULT_SUCCESS, t.stop());
    EXPECT_TRUE(probe.done.load());
}

// Elsewhere than Windows the thread is abandoned, not killed: it runs on.
TEST_F(ThreadBase, JoinTimeOutCancelsAndForgetsTheThreadWhichMayOutliveTheObject) {
    probe_t probe;
    std::unique_ptr<thread_base_t> t(new thread_base_t);
    ASSERT_NE(0u, t->start(wait_for_release, &probe, 0, 0));
    UTIL_WAIT_UNTIL([&] { return probe.entered.load(); });
    EXPECT_EQ(RESULT_BUSY, t->join_np(0));
    EXPECT_TRUE(t->is_stopped() && t->get_id() == 0u);
    EXPECT_EQ(RESULT_NOTHING_TO_DO, t->stop());
    t.reset();
    probe.release = true;
    if (!plat::thread_terminate_supported()) {  // abandoned, not killed: it runs on
        UTIL_WAIT_UNTIL([&] { return probe.done.load(); });
    }
}

TEST_F(ThreadBase, DetachIsOnceAndRefusesJoinButNotStop) {
    probe_t probe;
    thread_base_t t;
    ASSERT_NE(0u, t.start(wait_for_release, &probe, 0, 0));
    EXPECT_EQ(RESULT_SUCCESS, t.detach());
    EXPECT_EQ(RESULT_REFUSED, t.detach());
    EXPECT_EQ(RESULT_REFUSED, t.join_np(0));
    EXPECT_TRUE(t.is_running());
    probe.release = true;
    EXPECT_EQ(RESULT_SUCCESS, t.stop());
    EXPECT_TRUE(probe.done.load());
}

// Status reads from another thread race with start and stop; TSan judges.
TEST_F(ThreadBase, StartStopCyclesWhileAnotherThreadReadsTheStatus) {
    probe_t probe;
    thread_base_t t;
    std::thread watcher([&] {
        while (!probe.release.load()) {
            (void)(t.is_running() + t.is_stopped() + t.get_id());
            thread_base_t::yield();
        }
    });
    for (int c = 0; c < 100; ++c)
        if (t.start(run_once, &probe, 0, 0) == 0 || t.stop() != RESULT_SUCCESS)
            break;
    probe.release = true;
    watcher.join();
    EXPECT_EQ(100, probe.runs.load());
}

}  // namespace

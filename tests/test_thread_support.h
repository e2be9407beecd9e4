// Messages that run a function, for the thread tests.
#ifndef UTIL_TEST_THREAD_SUPPORT_H
#define UTIL_TEST_THREAD_SUPPORT_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>

#include "live_count.h"
#include "msg_queue.h"
#include "test_log_support.h"
#include "test_support.h"
#include "thread.h"
#include "thread_mgr.h"
#include "util.h"

namespace util_test {

// fn_msg_t objects alive now.
inline std::atomic<int>& live_fn_msgs() {
    static std::atomic<int> s_live(0);
    return s_live;
}

// Runs a function on the receiving thread.
class fn_msg_t : public ssb::msg_it {
public:
    explicit fn_msg_t(std::function<void()> fn, unsigned int timeout = ssb::MSG_TIMEOUT_NEVER)
        : ssb::msg_it(ssb::MSG_TYPE_PLAIN, 1, timeout), m_fn(std::move(fn)) {
        ++live_fn_msgs();
    }
    void on_message() override { m_fn(); }

protected:
    ~fn_msg_t() override { --live_fn_msgs(); }

private:
    std::function<void()> m_fn;
};

// A sink that records its calls. The count goes last, so a test that saw a
// call sees its reason and thread.
struct counting_sink_t : ssb::msg_queue_sink_it {
    void on_queue_room(int r) override {
        reason = r;
        tid = ssb::get_cur_tid();
        ++calls;
    }
    std::atomic<int> calls{0}, reason{-1};
    std::atomic<unsigned int> tid{0};
};

// One full cycle of the library with an event and an I/O thread, so that
// what the system makes once per process on first use (socket and timer
// services, their helper threads and handles) is there before a test
// counts threads or handles.
inline void warm_up_library() {
    ssb::thread_mgr_t::reset();
    util_init(1, nullptr, nullptr, nullptr, 0, 0);
    ssb::thread_mgr_t* mgr = ssb::thread_mgr_t::instance();
    if (mgr) {
        mgr->spawn(ssb::THREAD_MODE_EVENT, 64, 900, false, nullptr, 0);
        mgr->spawn(ssb::THREAD_MODE_IO, 64, 901, false, nullptr, 0);
    }
    util_uninit(1);
}

// Runs fn on `thr` and waits for it, through the control queue (any thread
// may write it, bound or not).
inline void run_on(ssb::thread_wrapper_t* thr, std::function<void()> fn) {
    const int limit_ms = static_cast<int>(std::chrono::milliseconds(WAIT_LIMIT).count());
    ssb::msg_it* msg = new fn_msg_t(std::move(fn));
    const int rv = thr->send_ctrl_msg(msg, nullptr, limit_ms);
    // Refused outright, the message is still ours; timed out or dropped
    // unrun (9), the queue had it.
    if (rv != ssb::RESULT_SUCCESS && rv != ssb::RESULT_BUSY && rv != ssb::RESULT_NOTHING_TO_DO)
        msg->release();
    ASSERT_EQ(ssb::RESULT_SUCCESS, rv) << "the loop " << thr->name() << " did not run a message within " << limit_ms
                                       << " ms";
}

// The library started with a fresh thread manager (the test's thread is
// the main thread) and its log captured; every fn_msg_t gone at the end.
class thread_test_t : public ::testing::Test {
protected:
    void SetUp() override {
        ssb::thread_mgr_t::reset();
        util_init(1, nullptr, nullptr, nullptr, 0, 0);
        capture_util_log(&m_log);
        m_mgr = ssb::thread_mgr_t::instance();
        ASSERT_NE(nullptr, m_mgr);
        m_main = m_mgr->find_by_type(ssb::THREAD_TYPE_MAIN);
        ASSERT_NE(nullptr, m_main);
    }
    void TearDown() override {
        util_uninit(1);
        restore_log_routing();
        EXPECT_EQ(0, live_fn_msgs().load());
        // Everything the manager made is gone with it: no loop, queue or
        // channel outlives util_uninit.
        EXPECT_EQ(0, ssb::live_thread_wrappers());
        EXPECT_EQ(0, ssb::live_msg_queues());
    }

    text_capture_t m_log;
    ssb::thread_mgr_t* m_mgr = nullptr;
    ssb::thread_wrapper_t* m_main = nullptr;
};

}  // namespace util_test

#endif

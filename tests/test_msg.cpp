#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "test_log_support.h"
#include "memlog.h"
#include "msg.h"
#include "ring_queue.h"
#include "test_support.h"
#include "timer.h"

using namespace ssb;

namespace {

struct capture_t : public log_it {
    int cout(unsigned int, unsigned int level, signed char* text, unsigned int length) override {
        lines.push_back(std::to_string(level) + ":" + std::string(reinterpret_cast<char*>(text), length));
        return 0;
    }
    std::vector<std::string> lines;
};

int SSB_STDCALL collect(void* context, signed char* text, unsigned int length) {
    static_cast<std::string*>(context)->assign(reinterpret_cast<char*>(text), length);
    return 0;
}

std::atomic<int> g_created{0}, g_destroyed{0}, g_ran{0}, g_wrappers_destroyed{0};

struct counted_msg_t : msg_it {
    explicit counted_msg_t(MSG_TYPE type = MSG_TYPE_PLAIN, unsigned int timeout = MSG_TIMEOUT_NEVER)
        : msg_it(type, 1, timeout) {
        ++g_created;
    }
    void on_message() override { ++g_ran; }
    ~counted_msg_t() override { ++g_destroyed; }
};

struct counted_sync_t : sync_msg_t {
    using sync_msg_t::sync_msg_t;
    ~counted_sync_t() override { ++g_wrappers_destroyed; }
};

// Drives the tick clock by hand, routes module 1 to a capture, starts with
// no memory log, and checks every message created was destroyed once.
class Msg : public ::testing::Test {
protected:
    void SetUp() override {
        set_now(1000);
        ticks_drv_t::s_start.store(true);
        util_test::capture_util_log(&cap);
        mem_log_file::reset(true);
        g_created = g_destroyed = g_ran = g_wrappers_destroyed = 0;
    }
    void TearDown() override {
        EXPECT_EQ(g_created.load(), g_destroyed.load()) << "messages leaked or destroyed twice";
        util_test::restore_log_routing();
        mem_log_file::reset(true);
    }
    static void set_now(uint32_t tick) { ticks_drv_t::s_tag.store(tick); }
    capture_t cap;
};

TEST_F(Msg, OvertimeIsStrictlyGreaterThanTheTimeOut) {
    const struct {
        uint32_t stamp, timeout, now;
        bool overtime;
    } cases[] = {{1000, 5000, 6000, false},       {1000, 5000, 6001, true},
                 {1000, 0, 1001, true},           {0xFFFFFFF0u, 0x1F, 0x10, false},
                 {0xFFFFFFF0u, 0x1F, 0x11, true}, {1000, MSG_TIMEOUT_NEVER, 999, false}};
    for (const auto& c : cases) {
        set_now(c.stamp);
        counted_msg_t* m = new counted_msg_t(MSG_TYPE_PLAIN, c.timeout);
        set_now(c.now);
        EXPECT_EQ(c.overtime, m->overtime()) << c.stamp << " + " << c.timeout << " at " << c.now;
        m->release();
    }
}

// 5001 ticks across the wrap is an age of 5000 (quiet), 5002 one of 5001.
TEST_F(Msg, ReleaseAfterMoreThanFiveSecondsWarnsInTheRegistryAndTheMemoryLog) {
    set_now(0xFFFFFFF0u);
    counted_msg_t* quiet = new counted_msg_t;
    counted_msg_t* loud = new counted_msg_t(MSG_TYPE_TIMER_TICK);
    set_now(0xFFFFFFF0u + 5001u);
    quiet->release();
    EXPECT_TRUE(cap.lines.empty());
    set_now(0xFFFFFFF0u + 5002u);
    loud->release();
    ASSERT_EQ(1u, cap.lines.size());
    EXPECT_EQ(std::to_string(LOG_WARNING) + ":", cap.lines[0].substr(0, 2));
    EXPECT_NE(std::string::npos, cap.lines[0].find("\tmsg_it::release the message stay in message queue over 5s, "
                                                   "used = 5001 m_ticks =4294967280, now = 4986, type = 6, this = "));
    std::string mem;
    ASSERT_NE(nullptr, mem_log_file::instance(0));
    mem_log_file::instance(0)->dump(&mem, collect);
    EXPECT_EQ(cap.lines[0].substr(2), mem);
}

TEST_F(Msg, SyncWrapperIsTypeThreeAndTheLastReferenceDestroysIt) {
    counted_sync_t* s = new counted_sync_t(new counted_msg_t);
    EXPECT_EQ(MSG_TYPE_SYNC, s->get_type());
    EXPECT_EQ(static_cast<void*>(static_cast<sync_msg_t*>(s)), s->query_interface(IID_SYNC_MSG));
    EXPECT_EQ(RESULT_BUSY, s->wait_for_finish(0));
    EXPECT_EQ(2u, s->increment());
    s->on_message();
    s->release();
    EXPECT_EQ(1, g_destroyed.load());
    EXPECT_EQ(0, g_wrappers_destroyed.load());
    // Auto-reset: the signal, kept from before the wait, wakes one wait.
    EXPECT_EQ(RESULT_SUCCESS, s->wait_for_finish(0));
    EXPECT_EQ(RESULT_BUSY, s->wait_for_finish(0));
    EXPECT_EQ(0u, s->decrement());
    EXPECT_EQ(1, g_wrappers_destroyed.load());
}

TEST_F(Msg, NullWrappedMessageIsAssertedAndOtherwiseHarmless) {
    counted_sync_t* s = new counted_sync_t(nullptr);
    ASSERT_EQ(1u, cap.lines.size());
    EXPECT_EQ(std::to_string(LOG_FATAL) + ":", cap.lines[0].substr(0, 2));
    s->increment();
    s->on_message();
    s->release();
    EXPECT_EQ(RESULT_SUCCESS, s->wait_for_finish(0));
    s->decrement();
    EXPECT_EQ(1, g_wrappers_destroyed.load());
}

// Time-outs let either side drop the last reference; an unlimited wait
// always succeeds, and a sender is woken only after the message is gone.
TEST_F(Msg, SenderAndReceiverRaceToTheLastReference) {
    const int ROUNDS = 3000;
    const int timeouts[] = {0, 1, -1};
    ring_queue_t<msg_it*> queue(8);
    std::thread receiver([&] {
        msg_it* m = nullptr;
        for (int done = 0; done < ROUNDS;)
            if (queue.pop(m) == RESULT_SUCCESS) {
                m->on_message();
                m->release();
                ++done;
            } else {
                std::this_thread::yield();
            }
    });
    int bad_results = 0;
    for (int i = 0; i < ROUNDS; ++i) {
        counted_sync_t* s = new counted_sync_t(new counted_msg_t);
        s->increment();
        while (queue.push(s) != RESULT_SUCCESS)
            std::this_thread::yield();
        const int rc = s->wait_for_finish(timeouts[i % 3]);
        bad_results += rc != RESULT_SUCCESS && !(rc == RESULT_BUSY && timeouts[i % 3] >= 0);
        bad_results += rc == RESULT_SUCCESS && g_destroyed.load() != i + 1;
        s->decrement();
    }
    receiver.join();
    EXPECT_EQ(0, bad_results);
    EXPECT_EQ(ROUNDS, g_ran.load());
    EXPECT_EQ(ROUNDS, g_wrappers_destroyed.load());
}

}  // namespace

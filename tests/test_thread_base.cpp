#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "test_log_support.h"
#include "log.h"
#include "test_support.h"
#include "thread_base.h"

using namespace ssb;
using util_test::run_threads;
using util_test::wait_until;

namespace {

struct line_t {
    unsigned int level;
    std::string message;
};

// Records the message part of every line (what follows the header's fourth
// TAB).
class capture_t : public log_it {
public:
    int cout(unsigned int, unsigned int level, signed char* text, unsigned int length) override {
        std::string line(reinterpret_cast<char*>(text), length);
        while (!line.empty() && line.back() == '\n')
            line.pop_back();
        size_t pos = 0;
        for (int tabs = 0; tabs < 4 && pos != std::string::npos; ++tabs)
            pos = line.find('\t', tabs == 0 ? 0 : pos + 1);
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.push_back(line_t{level, pos == std::string::npos ? line : line.substr(pos + 1)});
        return 0;
    }
    // Lines whose message matches `pattern` whole.
    std::vector<line_t> matching(const std::string& pattern) {
        std::regex re(pattern);
        std::lock_guard<std::mutex> guard(m_mutex);
        std::vector<line_t> out;
        for (const line_t& l : m_lines)
            if (std::regex_match(l.message, re))
                out.push_back(l);
        return out;
    }
    // The level of the single line matching `pattern`, or -1 when there is
    // not exactly one.
    int level_of(const std::string& pattern) {
        std::vector<line_t> found = matching(pattern);
        return found.size() == 1 ? static_cast<int>(found[0].level) : -1;
    }

private:
    std::mutex m_mutex;
    std::vector<line_t> m_lines;
};

const std::string PTR = "0x[0-9a-fA-F]+";

std::string assert_line(int line) {
    return "assert: file\\[thread\\], line = \\[" + std::to_string(line) + "\\].*";
}

// What a test thread function shares with the test. The function never
// reads the thread_base_t unless the case is about calling it from inside.
struct probe_t {
    thread_base_t* self = nullptr;
    std::atomic<unsigned int> seen_tid{0};
    std::atomic<bool> entered{false};
    std::atomic<bool> release{false};
    std::atomic<bool> done{false};
    std::atomic<int> inner_rv{-1};
    std::atomic<int> runs{0};
};

void run_once(void* p) { static_cast<probe_t*>(p)->runs.fetch_add(1, std::memory_order_relaxed); }

void record_tid(void* p) {
    probe_t* probe = static_cast<probe_t*>(p);
    probe->seen_tid.store(thread_base_t::get_cur_tid(), std::memory_order_release);
}

// Runs until the test releases it, then marks itself done.
void wait_for_release(void* p) {
    probe_t* probe = static_cast<probe_t*>(p);
    probe->entered.store(true, std::memory_order_release);
    wait_until([probe] { return probe->release.load(std::memory_order_acquire); });
    probe->done.store(true, std::memory_order_release);
}

void stop_self(void* p) {
    probe_t* probe = static_cast<probe_t*>(p);
    probe->inner_rv.store(probe->self->stop(), std::memory_order_release);
    wait_for_release(p);
}

void join_self(void* p) {
    probe_t* probe = static_cast<probe_t*>(p);
    probe->inner_rv.store(probe->self->join_np(0), std::memory_order_release);
    wait_for_release(p);
}

void cancel_self(void* p) {
    probe_t* probe = static_cast<probe_t*>(p);
    probe->inner_rv.store(probe->self->cancel(), std::memory_order_release);
    wait_for_release(p);
}

// Module 1 "UTIL" logs into a capture; the default logger is installed too
// because it overrides per-module loggers until the registry opens.
class ThreadBase : public ::testing::Test {
protected:
    void SetUp() override { util_test::capture_util_log(&cap); }
    void TearDown() override { util_test::restore_log_routing(); }
    capture_t cap;
};

// ---- the life of one thread ---------------------------------------------------

TEST_F(ThreadBase, NewObjectHoldsNoThread) {
    thread_base_t t;
    EXPECT_FALSE(t.is_running());
    EXPECT_TRUE(t.is_stopped());
    EXPECT_EQ(0u, t.get_id());
}

TEST_F(ThreadBase, StopWithoutThreadReturnsNineAndLogsIt) {
    thread_base_t t;
    EXPECT_EQ(RESULT_NOTHING_TO_DO, t.stop());
    EXPECT_EQ(LOG_INFO, cap.level_of("thread_base_t::stop\\(\\) stop thread id = 0, this = " + PTR));
}

TEST_F(ThreadBase, CancelAndJoinWithoutThread) {
    thread_base_t t;
    EXPECT_EQ(RESULT_NOTHING_TO_DO, t.cancel());
    EXPECT_EQ(RESULT_SUCCESS, t.join_np(0));
    EXPECT_EQ(LOG_WARNING, cap.level_of("thread_base_t::cancel\\(\\) avoid cancel thread id = 0, this = " + PTR));
    EXPECT_EQ(LOG_INFO, cap.level_of("thread_base_t::join_np, overtime = 0, m_id = 0, m_joinable = .+, this = " +
                                     PTR));
}

TEST_F(ThreadBase, StartThenStopSeesTheFunctionsWork) {
    probe_t probe;
    thread_base_t t;
    unsigned int id = t.start(run_once, &probe, 0, 0);
    ASSERT_NE(0u, id);
    EXPECT_EQ(RESULT_SUCCESS, t.stop());
    EXPECT_EQ(1, probe.runs.load());
    EXPECT_TRUE(t.is_stopped());
    EXPECT_EQ(0u, t.get_id());
    EXPECT_EQ(LOG_INFO, cap.level_of("thread_base_t::stop\\(\\) stop thread id = " + std::to_string(id) +
                                     ", this = " + PTR));
    // Nothing held any more.
    EXPECT_EQ(RESULT_NOTHING_TO_DO, t.stop());
}

TEST_F(ThreadBase, IdIsTheThreadsOwnAndKnownWhenStartReturns) {
    probe_t probe;
    thread_base_t t;
    unsigned int id = t.start(record_tid, &probe, 0, 0);
    ASSERT_NE(0u, id);
    EXPECT_EQ(id, t.get_id());
    EXPECT_NE(thread_base_t::get_cur_tid(), id);
    wait_until([&] { return probe.seen_tid.load(std::memory_order_acquire) != 0; });
    EXPECT_EQ(id, probe.seen_tid.load());
    EXPECT_EQ(RESULT_SUCCESS, t.stop());
}

TEST_F(ThreadBase, ObjectIsReusableAfterStop) {
    probe_t probe;
    thread_base_t t;
    for (int i = 0; i < 3; ++i) {
        ASSERT_NE(0u, t.start(run_once, &probe, 0, 0));
        ASSERT_EQ(RESULT_SUCCESS, t.stop());
    }
    EXPECT_EQ(3, probe.runs.load());
}

TEST_F(ThreadBase, StartWhileHoldingAThreadIsRefused) {
    probe_t probe;
    thread_base_t t;
    unsigned int id = t.start(wait_for_release, &probe, 0, 0);
    ASSERT_NE(0u, id);
    probe_t other;
    EXPECT_EQ(0u, t.start(run_once, &other, 0, 0));
    EXPECT_EQ(LOG_FATAL, cap.level_of(assert_line(103)));
    EXPECT_EQ(id, t.get_id());
    probe.release.store(true, std::memory_order_release);
    EXPECT_EQ(RESULT_SUCCESS, t.stop());
    EXPECT_TRUE(probe.done.load());
    EXPECT_EQ(0, other.runs.load());
}

TEST_F(ThreadBase, StartWithoutFunctionIsRefused) {
    thread_base_t t;
    EXPECT_EQ(0u, t.start(nullptr, nullptr, 0, 0));
    EXPECT_EQ(LOG_FATAL, cap.level_of(assert_line(103)));
    EXPECT_TRUE(t.is_stopped());
}

TEST_F(ThreadBase, DestructorStopsARunningThread) {
    probe_t probe;
    std::unique_ptr<thread_base_t> t(new thread_base_t);
    unsigned int id = t->start(wait_for_release, &probe, 0, 0);
    ASSERT_NE(0u, id);
    wait_until([&] { return probe.entered.load(std::memory_order_acquire); });
    probe.release.store(true, std::memory_order_release);
    t.reset();
    // The destructor waited for the end of the function.
    EXPECT_TRUE(probe.done.load(std::memory_order_acquire));
    EXPECT_EQ(LOG_INFO, cap.level_of("thread_base_t::stop\\(\\) stop thread id = " + std::to_string(id) +
                                     ", this = " + PTR));
}

// ---- calls from the thread itself are refused ----------------------------------

TEST_F(ThreadBase, StopFromItsOwnThreadIsRefusedAndTheThreadRunsOn) {
    probe_t probe;
    thread_base_t t;
    probe.self = &t;
    ASSERT_NE(0u, t.start(stop_self, &probe, 0, 0));
    wait_until([&] { return probe.entered.load(std::memory_order_acquire); });
    EXPECT_EQ(RESULT_REFUSED, probe.inner_rv.load());
    EXPECT_TRUE(t.is_running());
    EXPECT_FALSE(probe.done.load());
    EXPECT_EQ(LOG_ERROR,
              cap.level_of("thread_base_t::stop \\(\\) could not stop it in self thread, this = " + PTR));
    EXPECT_EQ(LOG_FATAL, cap.level_of(assert_line(115)));
    probe.release.store(true, std::memory_order_release);
    EXPECT_EQ(RESULT_SUCCESS, t.stop());
    EXPECT_TRUE(probe.done.load());
}

TEST_F(ThreadBase, JoinFromItsOwnThreadIsRefused) {
    probe_t probe;
    thread_base_t t;
    probe.self = &t;
    unsigned int id = t.start(join_self, &probe, 0, 0);
    ASSERT_NE(0u, id);
    wait_until([&] { return probe.entered.load(std::memory_order_acquire); });
    EXPECT_EQ(RESULT_REFUSED, probe.inner_rv.load());
    std::string ids = std::to_string(id);
    EXPECT_EQ(LOG_FATAL, cap.level_of("assert: msg\\[thread_base_t::join_np should be not join in same thread, "
                                      "m_id = " + ids + ", current_id = " + ids +
                                      "\\] file\\[thread\\], line = \\[169\\].*"));
    EXPECT_TRUE(t.is_running());
    probe.release.store(true, std::memory_order_release);
    EXPECT_EQ(RESULT_SUCCESS, t.stop());
}

TEST_F(ThreadBase, CancelFromItsOwnThreadIsRefused) {
    probe_t probe;
    thread_base_t t;
    probe.self = &t;
    ASSERT_NE(0u, t.start(cancel_self, &probe, 0, 0));
    wait_until([&] { return probe.entered.load(std::memory_order_acquire); });
    EXPECT_EQ(RESULT_REFUSED, probe.inner_rv.load());
    EXPECT_EQ(LOG_ERROR,
              cap.level_of("thread_base_t::cancel \\(\\) could not cancel it in self thread, this = " + PTR));
    EXPECT_EQ(LOG_FATAL, cap.level_of(assert_line(142)));
    EXPECT_TRUE(t.is_running());
    probe.release.store(true, std::memory_order_release);
    EXPECT_EQ(RESULT_SUCCESS, t.stop());
    EXPECT_TRUE(probe.done.load());
}

// ---- join, cancel and detach --------------------------------------------------

TEST_F(ThreadBase, JoinOfAnEndedThreadKeepsItHeldUntilStop) {
    probe_t probe;
    thread_base_t t;
    unsigned int id = t.start(run_once, &probe, 0, 0);
    ASSERT_NE(0u, id);
    EXPECT_EQ(RESULT_SUCCESS, t.join_np(0xFFFFFFFFu));
    EXPECT_EQ(1, probe.runs.load());
    EXPECT_TRUE(t.is_running());
    EXPECT_EQ(id, t.get_id());
    // A second wait on an ended thread reports it ended at once, even one
    // that would not wait at all.
    EXPECT_EQ(RESULT_SUCCESS, t.join_np(0));
    EXPECT_EQ(RESULT_SUCCESS, t.stop());
    EXPECT_TRUE(t.is_stopped());
}

TEST_F(ThreadBase, TimedJoinReturnsWhenTheThreadEnds) {
    probe_t probe;
    thread_base_t t;
    ASSERT_NE(0u, t.start(wait_for_release, &probe, 0, 0));
    probe.release.store(true, std::memory_order_release);
    // Generous: the limit only bounds a failure, the thread ends at once.
    EXPECT_EQ(RESULT_SUCCESS, t.join_np(60000));
    EXPECT_TRUE(probe.done.load());
    EXPECT_EQ(RESULT_SUCCESS, t.stop());
}

TEST_F(ThreadBase, JoinTimeOutCancelsAndForgetsTheThread) {
    probe_t probe;
    thread_base_t t;
    unsigned int id = t.start(wait_for_release, &probe, 0, 0);
    ASSERT_NE(0u, id);
    wait_until([&] { return probe.entered.load(std::memory_order_acquire); });
    EXPECT_EQ(RESULT_BUSY, t.join_np(0));
    EXPECT_TRUE(t.is_stopped());
    EXPECT_FALSE(t.is_running());
    EXPECT_EQ(0u, t.get_id());
    EXPECT_EQ(LOG_WARNING, cap.level_of("thread_base_t::join_np time out and canceled it, this = " + PTR));
    EXPECT_EQ(LOG_WARNING, cap.level_of("thread_base_t::cancel\\(\\) avoid cancel thread id = " +
                                        std::to_string(id) + ", this = " + PTR));
    // Nothing is held any more.
    EXPECT_EQ(RESULT_NOTHING_TO_DO, t.stop());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, t.cancel());
    probe.release.store(true, std::memory_order_release);
#if !defined(_WIN32)
    // Abandoned, not killed: the function runs to its end.
    wait_until([&] { return probe.done.load(std::memory_order_acquire); });
#endif
}

TEST_F(ThreadBase, CancelledObjectMayGoWhileTheThreadRunsOn) {
    probe_t probe;
    std::unique_ptr<thread_base_t> t(new thread_base_t);
    ASSERT_NE(0u, t->start(wait_for_release, &probe, 0, 0));
    wait_until([&] { return probe.entered.load(std::memory_order_acquire); });
    EXPECT_EQ(RESULT_SUCCESS, t->cancel());
    EXPECT_TRUE(t->is_stopped());
    t.reset();
    probe.release.store(true, std::memory_order_release);
#if !defined(_WIN32)
    wait_until([&] { return probe.done.load(std::memory_order_acquire); });
#endif
}

TEST_F(ThreadBase, DetachTwiceRefusesTheSecond) {
    thread_base_t t;
    EXPECT_EQ(RESULT_SUCCESS, t.detach());
    EXPECT_EQ(RESULT_REFUSED, t.detach());
    EXPECT_EQ(LOG_FATAL, cap.level_of(assert_line(193)));
    EXPECT_EQ(2u, cap.matching("thread_base_t::detach\\(\\), m_joinable = .+, this = " + PTR).size());
}

TEST_F(ThreadBase, DetachedThreadCannotBeJoinedButCanBeStopped) {
    probe_t probe;
    thread_base_t t;
    ASSERT_NE(0u, t.start(wait_for_release, &probe, 0, 0));
    EXPECT_EQ(RESULT_SUCCESS, t.detach());
    EXPECT_EQ(RESULT_REFUSED, t.join_np(0));
    EXPECT_EQ(LOG_FATAL, cap.level_of(assert_line(171)));
    // Refused, not cancelled.
    EXPECT_TRUE(t.is_running());
    probe.release.store(true, std::memory_order_release);
    EXPECT_EQ(RESULT_SUCCESS, t.stop());
    EXPECT_TRUE(probe.done.load());
}

// ---- concurrency ----------------------------------------------------------------

TEST_F(ThreadBase, ManyStartStopCyclesFromSeveralThreads) {
    const int THREADS = 4;
    const int CYCLES = 100;
    std::atomic<int> started{0};
    probe_t probe;
    run_threads(THREADS, [&](int) {
        thread_base_t t;
        for (int i = 0; i < CYCLES; ++i) {
            if (t.start(run_once, &probe, 0, 0) != 0)
                started.fetch_add(1, std::memory_order_relaxed);
            if (t.stop() != RESULT_SUCCESS)
                return;
        }
    });
    EXPECT_EQ(THREADS * CYCLES, started.load());
    EXPECT_EQ(THREADS * CYCLES, probe.runs.load());
}

TEST_F(ThreadBase, StatusIsReadableFromOtherThreadsWhileItChanges) {
    probe_t probe;
    thread_base_t t;
    std::atomic<bool> finished{false};
    std::thread watcher([&] {
        while (!finished.load(std::memory_order_acquire)) {
            // Either state is fine; the reads must only be race-free.
            (void)t.is_running();
            (void)t.get_id();
            thread_base_t::yield();
        }
    });
    for (int i = 0; i < 50; ++i) {
        ASSERT_NE(0u, t.start(run_once, &probe, 0, 0));
        ASSERT_EQ(RESULT_SUCCESS, t.stop());
    }
    finished.store(true, std::memory_order_release);
    watcher.join();
    EXPECT_EQ(50, probe.runs.load());
}

}  // namespace

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#if !defined(_WIN32)
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

#include "log.h"
#include "notifier.h"
#include "test_support.h"

using namespace ssb;
using util_test::run_threads;
using util_test::wait_until;

namespace {

// A wait that must end because something is pending is given this long; it
// only bounds a failure (a lost wake-up) and never decides a pass.
const int WATCHDOG_MS = 10000;

// The socket layer for the whole run: Windows refuses sockets before it.
class socket_environment_t : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_EQ(RESULT_SUCCESS, init_socket()); }
    void TearDown() override { EXPECT_EQ(RESULT_SUCCESS, cleanup_socket()); }
};

[[maybe_unused]] const ::testing::Environment* const s_socket_env =
    ::testing::AddGlobalTestEnvironment(new socket_environment_t);

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
        size_t pos = 0;
        for (int tabs = 0; tabs < 4 && pos != std::string::npos; ++tabs)
            pos = line.find('\t', tabs == 0 ? 0 : pos + 1);
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.push_back(line_t{level, pos == std::string::npos ? line : line.substr(pos + 1)});
        return 0;
    }
    std::vector<line_t> lines() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_lines;
    }
    size_t count() { return lines().size(); }
    // Lines from index `from` on whose message matches `pattern` whole.
    std::vector<line_t> matching(const std::string& pattern, size_t from = 0) {
        std::regex re(pattern);
        std::vector<line_t> out;
        std::vector<line_t> all = lines();
        for (size_t i = from; i < all.size(); ++i)
            if (std::regex_match(all[i].message, re))
                out.push_back(all[i]);
        return out;
    }

private:
    std::mutex m_mutex;
    std::vector<line_t> m_lines;
};

const std::string PTR = "0x[0-9a-fA-F]+";
const std::string NUM = "-?[0-9]+";

std::string quote(const std::string& text) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(text, special, R"(\$&)");
}

// Module 1 "UTIL" logs into a capture. Until the registry opens, the
// default logger overrides per-module loggers, so it is installed as the
// default too.
class NotifierLog : public ::testing::Test {
protected:
    void SetUp() override {
        log_control_t::destroy();
        log_control_t::set_default_logger(nullptr);
        log_control_t::set_default_mask(LOG_TO_HANDLE);
        ASSERT_NE(nullptr, log_control_t::instance());
        register_logger_handle(&cap, LOG_TO_HANDLE);
        register_logger(UTIL_MODULE_ID, "UTIL", 31, nullptr, LOG_TO_HANDLE);
    }
    void TearDown() override {
        log_control_t::destroy();
        log_control_t::set_default_logger(nullptr);
        log_control_t::set_default_mask(LOG_TO_FILE | LOG_TO_HANDLE);
    }
    capture_t cap;
};

// ---- what the socket and pipe notifiers share -------------------------------

// burst: signals enough to fill the buffer where `fills` says so (a pipe
// holds 64 KiB on Linux and 4 KiB on Windows); narrow shrinks the buffer
// where that is needed to fill it in reasonable time.
struct sock_kind {
    typedef notifier_sock_t type;
    static const char* name() { return "notifier_sock_t"; }
#if defined(_WIN32)
    static const int burst = 5000;
    static const bool fills = false;
    static void narrow(type&) {}
#else
    static const int burst = 30000;
    static const bool fills = true;
    // Loopback TCP coalesces one-byte segments and would take megabytes.
    static void narrow(type& n) {
        int size = 1;
        setsockopt(static_cast<int>(n.get_id()), SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    }
#endif
};
struct pipe_kind {
    typedef notifier_pipe_t type;
    static const char* name() { return "notifier_pipe_t"; }
#if defined(_WIN32)
    static const int burst = 5000;
#else
    static const int burst = 70000;
#endif
    static const bool fills = true;
    static void narrow(type&) {}
};

template <class K>
class ByteNotifier : public NotifierLog {};

typedef ::testing::Types<sock_kind, pipe_kind> ByteKinds;
TYPED_TEST_SUITE(ByteNotifier, ByteKinds);

TYPED_TEST(ByteNotifier, OpeningTwiceReturns10AndKeepsTheFirstHandles) {
    typename TypeParam::type n(0);
    ASSERT_TRUE(n.is_active());
    notifier_handle_t id = n.get_id();
    ASSERT_NE(INVALID_NOTIFIER_HANDLE, id);
    size_t before = this->cap.count();
    EXPECT_EQ(RESULT_ALREADY_EXISTS, n.open());
    EXPECT_EQ(id, n.get_id());
    std::vector<line_t> warned =
        this->cap.matching(quote(TypeParam::name()) + "::open\\(\\) already initialized\n", before);
    ASSERT_EQ(1u, warned.size());
    EXPECT_EQ(unsigned(LOG_WARNING), warned[0].level);
    // The first pair still carries wake-ups.
    EXPECT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
}

TYPED_TEST(ByteNotifier, WaitWithoutSignalTimesOutWith16) {
    typename TypeParam::type n(0);
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, true));
    EXPECT_EQ(RESULT_BUSY, n.wait(1, false));
}

TYPED_TEST(ByteNotifier, EachWaitConsumesOneSignal) {
    typename TypeParam::type n(0);
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
    // Signals given while nobody waits pile up, one wake-up each.
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(RESULT_SUCCESS, n.signal());
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false)) << i;
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
}

TYPED_TEST(ByteNotifier, PeekLeavesTheWakeUpInPlace) {
    typename TypeParam::type n(0);
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, true));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, true));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, true));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
}

TYPED_TEST(ByteNotifier, ClosedNotifierAnswers9ToEveryOperationAndCanBeReopened) {
    typename TypeParam::type n(0);
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    n.close();
    EXPECT_FALSE(n.is_active());
    EXPECT_EQ(INVALID_NOTIFIER_HANDLE, n.get_id());
    size_t before = this->cap.count();
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.signal());
    EXPECT_EQ(before, this->cap.count()) << "signal on a closed notifier is silent";
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.wait(0, false));
    // Never blocks, whatever the time-out.
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.wait(-1, false));
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.wait(-1, true));
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.reset());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.pulse(true));
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.pulse(false));
    n.close();
    EXPECT_FALSE(n.is_active());

    // A fresh pair: the byte signalled before the close is gone with the old one.
    ASSERT_EQ(RESULT_SUCCESS, n.open());
    EXPECT_TRUE(n.is_active());
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
    EXPECT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
}

TYPED_TEST(ByteNotifier, SignalWakesAThreadBlockedInWait) {
    typename TypeParam::type n(0);
    const int ROUNDS = 20;
    std::atomic<int> entered{0};
    std::atomic<int> woken{0};
    std::atomic<int> failures{0};
    std::thread waiter([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            entered.fetch_add(1, std::memory_order_release);
            if (n.wait(-1, false) != RESULT_SUCCESS)
                failures.fetch_add(1, std::memory_order_relaxed);
            woken.fetch_add(1, std::memory_order_release);
        }
    });
    for (int i = 1; i <= ROUNDS; ++i) {
        wait_until([&] { return entered.load(std::memory_order_acquire) == i; });
        // Give the waiter a chance to be asleep in the wait; either way the
        // signal must reach it.
        for (int y = 0; y < 50; ++y)
            std::this_thread::yield();
        ASSERT_EQ(RESULT_SUCCESS, n.signal());
        wait_until([&] { return woken.load(std::memory_order_acquire) == i; });
    }
    waiter.join();
    EXPECT_EQ(ROUNDS, woken.load());
    EXPECT_EQ(0, failures.load());
    // Every byte was taken by the waiter.
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
}

// Writers post work and signal, as a message queue does; one reader takes
// all posted work per wake-up and sleeps otherwise. Each writer waits until
// its post has been handled before the next one, so posts keep landing just
// as the reader heads back into wait, where a lost wake-up would strand
// them. A wait that ends without a wake-up while work is posted is a lost
// wake-up; the first one stops the run.
struct stress_result_t {
    uint64_t handled;
    int lost;
    int wakes;
};

stress_result_t run_signal_stress(notifier_it& n, int writers, int posts,
                                  const std::function<bool(notifier_it&)>& wait_woken) {
    const uint64_t total = uint64_t(writers) * posts;
    std::atomic<uint64_t> posted{0};
    std::atomic<uint64_t> handled{0};
    std::atomic<bool> abort{false};
    stress_result_t r = {0, 0, 0};
    std::thread reader([&] {
        unsigned int seed = 1;
        while (r.handled < total && !abort.load(std::memory_order_relaxed)) {
            uint64_t now = posted.load(std::memory_order_acquire);
            if (now > r.handled) {
                r.handled = now;
                handled.store(now, std::memory_order_release);
                continue;
            }
            // The work a real loop does between finding nothing to do and
            // going to sleep: posts landing here must still wake it.
            seed = seed * 1103515245u + 12345u;
            for (unsigned int k = (seed >> 16) % 2000; k > 0; --k)
                std::atomic_signal_fence(std::memory_order_seq_cst);
            if (wait_woken(n)) {
                ++r.wakes;
            } else if (posted.load(std::memory_order_acquire) > r.handled) {
                ++r.lost;
                abort.store(true, std::memory_order_relaxed);
            }
        }
    });
    run_threads(writers, [&](int) {
        for (int i = 0; i < posts && !abort.load(std::memory_order_relaxed); ++i) {
            uint64_t mine = posted.fetch_add(1, std::memory_order_release) + 1;
            n.signal();
            wait_until([&] {
                return handled.load(std::memory_order_acquire) >= mine || abort.load(std::memory_order_relaxed);
            });
        }
    });
    reader.join();
    return r;
}

// One signaller: nothing else's bytes can cover for a lost wake-up. Several:
// signal from many threads at once.
struct stress_case_t {
    int writers;
    int posts;
};
const stress_case_t STRESS_CASES[] = {{1, 1000}, {3, 400}};

TYPED_TEST(ByteNotifier, SignallersNeverLeaveTheReaderAsleepWithWorkPosted) {
    for (const stress_case_t& c : STRESS_CASES) {
        typename TypeParam::type n(0);
        stress_result_t r = run_signal_stress(
            n, c.writers, c.posts, [](notifier_it& x) { return x.wait(WATCHDOG_MS, false) == RESULT_SUCCESS; });
        const uint64_t total = uint64_t(c.writers) * c.posts;
        EXPECT_EQ(0, r.lost) << c.writers << " writers";
        EXPECT_EQ(total, r.handled) << c.writers << " writers";
        EXPECT_GE(r.wakes, 1);
        // Never more wake-ups than signals: each one consumed a signal's byte.
        EXPECT_LE(uint64_t(r.wakes), total);
    }
}

TYPED_TEST(ByteNotifier, SignallingIntoAFullBufferNeverBlocksAndStillWakes) {
    typename TypeParam::type n(0);
    TypeParam::narrow(n);
    const int signals = TypeParam::burst;
    for (int i = 0; i < signals; ++i)
        ASSERT_EQ(RESULT_SUCCESS, n.signal()) << i;
    int drained = 0;
    while (n.wait(0, false) == RESULT_SUCCESS)
        ++drained;
    EXPECT_GE(drained, 1);
    if (TypeParam::fills)
        EXPECT_LT(drained, signals) << "the buffer never filled, so the full case went untested";
    else
        EXPECT_LE(drained, signals);
    // The notifier carries wake-ups again.
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
}

// ---- notifier_sock_t ------------------------------------------------------------

class NotifierSock : public NotifierLog {};

TEST_F(NotifierSock, OpenLogsBeginAndTheNewPair) {
    notifier_sock_t n(0);
    ASSERT_TRUE(n.is_active());
    std::vector<line_t> begin = cap.matching("notifier_sock_t::open\\(\\) begin, this =" + PTR + "\n");
    ASSERT_EQ(1u, begin.size());
    EXPECT_EQ(unsigned(LOG_INFO), begin[0].level);
    std::vector<line_t> done = cap.matching(" notifier_sock_t::open\\(\\) successful, read handle = " +
                                            std::to_string(static_cast<long long>(n.get_id())) +
                                            ", write handle = [0-9]+, accept_times = [0-9]+, "
                                            "accept_tick\\.elapsed\\(\\) = [0-9]+, this =" +
                                            PTR + "\n");
    ASSERT_EQ(1u, done.size());
    EXPECT_EQ(unsigned(LOG_INFO), done[0].level);
}

TEST_F(NotifierSock, CloseLogsBothHandlesAndThenMinusOne) {
    notifier_sock_t n(0);
    std::string id = std::to_string(static_cast<long long>(n.get_id()));
    n.close();
    n.close();
    std::vector<line_t> closed =
        cap.matching("notifier_sock_t::close\\(\\), m_handle\\[0\\] = " + NUM + ", m_handle\\[1\\] = " + NUM +
                     ", this =" + PTR + "\n");
    ASSERT_EQ(2u, closed.size());
    EXPECT_EQ(unsigned(LOG_INFO), closed[0].level);
    EXPECT_EQ(0u, closed[0].message.find("notifier_sock_t::close(), m_handle[0] = " + id + ", "));
    EXPECT_EQ(0u, closed[1].message.find("notifier_sock_t::close(), m_handle[0] = -1, m_handle[1] = -1, "));
}

TEST_F(NotifierSock, ReadEndIsAReadableSocketOnlyWhileASignalIsPending) {
    notifier_sock_t n(0);
    EXPECT_EQ(RESULT_BUSY, wait_socket_readable(n.get_id(), 0));
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, wait_socket_readable(n.get_id(), WATCHDOG_MS));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, true));
    EXPECT_EQ(RESULT_SUCCESS, wait_socket_readable(n.get_id(), 0));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_BUSY, wait_socket_readable(n.get_id(), 0));
}

TEST_F(NotifierSock, PulseFalseWithoutWaitersHoldsItSetWithoutSendingAByte) {
    notifier_sock_t n(0);
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(false));
    // Held: waits return at once and take nothing.
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_BUSY, wait_socket_readable(n.get_id(), 0));
    // While held and nobody waits, a signal sends nothing either.
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_BUSY, wait_socket_readable(n.get_id(), 0));
    // reset acts only while somebody waits.
    EXPECT_EQ(RESULT_SUCCESS, n.reset());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    // pulse(true) leaves the flag clear and no byte behind.
    EXPECT_EQ(RESULT_SUCCESS, n.pulse(true));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
    EXPECT_EQ(RESULT_BUSY, wait_socket_readable(n.get_id(), 0));
}

TEST_F(NotifierSock, PulseTrueWithoutWaitersLeavesPendingSignalsAlone) {
    notifier_sock_t n(0);
    EXPECT_EQ(RESULT_SUCCESS, n.pulse(true));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.pulse(true));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
}

// A waiter count given to the constructor stands for a thread that is
// always waiting; it makes the waiter branches of signal, pulse and reset
// observable without a racing thread.
struct waiter_case_t {
    unsigned int waiters;
    bool reset_takes_the_byte;
};

class NotifierSockWaiters : public NotifierLog, public ::testing::WithParamInterface<waiter_case_t> {};

TEST_P(NotifierSockWaiters, ResetTakesAPendingByteOnlyWhileSomebodyWaits) {
    notifier_sock_t n(GetParam().waiters);
    EXPECT_EQ(GetParam().waiters, n.waiters());
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    ASSERT_EQ(RESULT_SUCCESS, wait_socket_readable(n.get_id(), WATCHDOG_MS));
    EXPECT_EQ(RESULT_SUCCESS, n.reset());
    EXPECT_EQ(GetParam().reset_takes_the_byte ? RESULT_BUSY : RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(GetParam().waiters, n.waiters()) << "wait restores the count";
}

INSTANTIATE_TEST_SUITE_P(Waiters, NotifierSockWaiters,
                         ::testing::Values(waiter_case_t{0, false}, waiter_case_t{1, true}));

TEST_F(NotifierSock, WithAWaiterPulseFalseSendsAByteAndResetClearsTheHold) {
    notifier_sock_t n(1);
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(false));
    EXPECT_EQ(RESULT_SUCCESS, wait_socket_readable(n.get_id(), WATCHDOG_MS));
    // Held: returns at once and leaves the byte.
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_SUCCESS, wait_socket_readable(n.get_id(), 0));
    // Held but somebody waits: signal sends anyway.
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.reset());
    // One of the two bytes is left and the hold is gone.
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
}

TEST_F(NotifierSock, PulseFalseWakesASleepingWaiter) {
    notifier_sock_t n(0);
    std::atomic<int> result{-1};
    std::thread waiter([&] { result.store(n.wait(-1, false)); });
    wait_until([&] { return n.waiters() == 1; });
    for (int y = 0; y < 50; ++y)
        std::this_thread::yield();
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(false));
    waiter.join();
    EXPECT_EQ(RESULT_SUCCESS, result.load());
    EXPECT_EQ(0u, n.waiters());
    // Either the waiter took the pulse's byte, which ends the hold, or it
    // saw the flag before sleeping and left the byte with the hold on.
    int after = n.wait(0, false);
    if (after == RESULT_SUCCESS) {
        EXPECT_EQ(RESULT_SUCCESS, wait_socket_readable(n.get_id(), 0)) << "held, so the byte must be waiting";
    } else {
        EXPECT_EQ(RESULT_BUSY, after);
        EXPECT_EQ(RESULT_BUSY, wait_socket_readable(n.get_id(), 0));
    }
}

TEST_F(NotifierSock, ResetWithASleepingWaiterDoesNotWakeItButSignalDoes) {
    notifier_sock_t n(0);
    std::atomic<bool> done{false};
    std::atomic<int> result{-1};
    std::thread waiter([&] {
        result.store(n.wait(-1, false));
        done.store(true);
    });
    wait_until([&] { return n.waiters() == 1; });
    for (int y = 0; y < 50; ++y)
        std::this_thread::yield();
    EXPECT_EQ(RESULT_SUCCESS, n.reset());
    for (int y = 0; y < 200; ++y)
        std::this_thread::yield();
    EXPECT_FALSE(done.load()) << "reset must not send a wake-up";
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    waiter.join();
    EXPECT_EQ(RESULT_SUCCESS, result.load());
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
}

TEST_F(NotifierSock, OperationsOnAClosedNotifierLogTheirOwnLinesExceptSignalAndWait) {
    notifier_sock_t n(0);
    n.close();
    size_t before = cap.count();
    n.signal();
    n.wait(0, false);
    EXPECT_EQ(before, cap.count());
    n.pulse(true);
    n.pulse(false);
    n.reset();
    EXPECT_EQ(1u, cap.matching("notifier_sock_t::reset\\(\\) handles are not initialzed, this =" + PTR + "\n",
                               before)
                      .size());
    EXPECT_EQ(2u, cap.matching("notifier_sock_t::pulse\\(\\) handles are not initialzed, this =" + PTR + "\n",
                               before)
                      .size());
}

TEST_F(NotifierSock, InitAndCleanupNestInsideTheRunningSocketLayer) {
    ASSERT_EQ(RESULT_SUCCESS, init_socket());
    EXPECT_EQ(RESULT_SUCCESS, cleanup_socket());
    // The environment's start-up still holds: a new pair opens.
    notifier_sock_t n(0);
    EXPECT_TRUE(n.is_active());
    EXPECT_TRUE(cap.matching("init_socket\\(\\) errno = .*\n").empty());
    EXPECT_TRUE(cap.matching("cleanup_socket\\(\\) failed, errno = .*\n").empty());
}

// ---- a failed open leaves the notifier closed ------------------------------------

// The closed state after a failed open: nothing acts, signal and wait say 9
// without a line, and a later open can still succeed.
void expect_failed_open_leaves_it_closed(notifier_sock_t& n, capture_t& cap) {
    EXPECT_FALSE(n.is_active());
    EXPECT_EQ(INVALID_NOTIFIER_HANDLE, n.get_id());
    size_t before = cap.count();
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.signal());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.wait(-1, false));
    EXPECT_EQ(before, cap.count());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.reset());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.pulse(true));
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.pulse(false));
}

#if defined(_WIN32)

TEST_F(NotifierSock, OpenFailsWithoutTheSocketLayerAndSucceedsOnceItRuns) {
    // Take the environment's start-up away for the duration.
    ASSERT_EQ(RESULT_SUCCESS, cleanup_socket());
    {
        notifier_sock_t n(0);
        EXPECT_EQ(1u, cap.matching(" notifier_sock_t::open\\(\\) handle failed, errno = 10093\n").size());
        EXPECT_EQ(RESULT_FAILURE, n.open());
        expect_failed_open_leaves_it_closed(n, cap);
        ASSERT_EQ(RESULT_SUCCESS, init_socket());
        EXPECT_EQ(RESULT_SUCCESS, n.open());
        EXPECT_TRUE(n.is_active());
    }
    // Without a start-up, clean-up has nothing to undo.
    ASSERT_EQ(RESULT_SUCCESS, cleanup_socket());
    EXPECT_EQ(RESULT_FAILURE, cleanup_socket());
    EXPECT_EQ(1u, cap.matching("cleanup_socket\\(\\) failed, errno = 10093\n").size());
    ASSERT_EQ(RESULT_SUCCESS, init_socket());
}

#else

// The lowest free descriptor: every new descriptor takes it.
int lowest_free_fd() {
    int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(fd);
    return fd;
}

// Each step of open fails in turn by running out of descriptors: the
// listener (0 left), the connecting socket (1 left), the accepted one (2
// left). The notifier must end closed, log the step, and leak nothing.
struct fd_failure_t {
    int spare;
    const char* line;
};

class NotifierSockFailedOpen : public NotifierLog, public ::testing::WithParamInterface<fd_failure_t> {};

TEST_P(NotifierSockFailedOpen, LeavesItClosedLogsTheStepAndLeaksNothing) {
    int first_free = lowest_free_fd();
    ASSERT_GE(first_free, 0);
    rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    rlimit low = saved;
    low.rlim_cur = static_cast<rlim_t>(first_free + GetParam().spare);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    notifier_sock_t* n = new notifier_sock_t(0);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));

    EXPECT_EQ(1u, cap.matching(quote(GetParam().line) + ".*, errno = 24\n").size()) << GetParam().line;
    EXPECT_EQ(first_free, lowest_free_fd()) << "a descriptor leaked";
    expect_failed_open_leaves_it_closed(*n, cap);
    EXPECT_EQ(RESULT_SUCCESS, n->open());
    EXPECT_TRUE(n->is_active());
    EXPECT_EQ(RESULT_SUCCESS, n->signal());
    EXPECT_EQ(RESULT_SUCCESS, n->wait(WATCHDOG_MS, false));
    delete n;
    EXPECT_EQ(first_free, lowest_free_fd());
}

INSTANTIATE_TEST_SUITE_P(
    Steps, NotifierSockFailedOpen,
    ::testing::Values(fd_failure_t{0, " notifier_sock_t::open() handle failed"},
                      fd_failure_t{1, " notifier_sock_t::open() socket_open failed, handle = -1"},
                      fd_failure_t{2, " notifier_sock_t::open() accept failed and skip it, handle = "}));

#endif

// ---- notifier_pipe_t ------------------------------------------------------------

class NotifierPipe : public NotifierLog {};

TEST_F(NotifierPipe, PulseTrueHoldsItSetUntilReset) {
    notifier_pipe_t n(0);
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(true));
    // Held: waits return at once and leave the held byte.
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_SUCCESS, n.reset());
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
    // Not held any more: reset does nothing.
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.reset());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
}

// The constructor's word decides whether signal writes while held and
// whether pulse(false) writes.
struct pipe_word_case_t {
    unsigned int waits;
    int bytes_after_signal_while_held;  // left once reset has taken the held byte
    int bytes_after_pulse_false;
};

class NotifierPipeWord : public NotifierLog, public ::testing::WithParamInterface<pipe_word_case_t> {};

int drain(notifier_it& n) {
    int count = 0;
    while (n.wait(0, false) == RESULT_SUCCESS)
        ++count;
    return count;
}

TEST_P(NotifierPipeWord, SignalWhileHeldAndPulseFalseWriteOnlyWithTheWord) {
    notifier_pipe_t n(GetParam().waits);
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(true));
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    ASSERT_EQ(RESULT_SUCCESS, n.reset());
    EXPECT_EQ(GetParam().bytes_after_signal_while_held, drain(n));

    ASSERT_EQ(RESULT_SUCCESS, n.pulse(false));
    EXPECT_EQ(GetParam().bytes_after_pulse_false, drain(n));
}

INSTANTIATE_TEST_SUITE_P(Word, NotifierPipeWord,
                         ::testing::Values(pipe_word_case_t{0, 0, 0}, pipe_word_case_t{1, 1, 1},
                                           pipe_word_case_t{7, 1, 1}));

TEST_F(NotifierPipe, PulseFalseReleasesTheHold) {
    notifier_pipe_t n(0);
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(true));
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(false));
    // The held byte is left for one wait; the hold itself is gone.
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
}

TEST_F(NotifierPipe, GetIdIsTheReadEndAndCloseLogsBothEnds) {
    notifier_pipe_t n(0);
    notifier_handle_t id = n.get_id();
    EXPECT_NE(INVALID_NOTIFIER_HANDLE, id);
    EXPECT_EQ(1u, cap.matching(" notifier_pipe_t::open\\(\\) successful, read handle = " +
                               std::to_string(static_cast<long long>(id)) + ", write handle = " + NUM +
                               ", this =" + PTR + "\n")
                      .size());
    n.close();
    EXPECT_EQ(1u, cap.matching("notifier_pipe_t::close\\(\\), read handle = " +
                               std::to_string(static_cast<long long>(id)) + ", write handle = " + NUM +
                               ", this =" + PTR + "\n")
                      .size());
}

TEST(PipeT, ReadAndWriteReportEmptyFullAndClosed) {
    pipe_t p;
    EXPECT_FALSE(p.is_open());
    unsigned int done = 99;
    char c = 'a';
    EXPECT_EQ(RESULT_NOTHING_TO_DO, p.write(&c, 1, &done));
    EXPECT_EQ(0u, done);
    EXPECT_EQ(RESULT_NOTHING_TO_DO, p.read(&c, 1, &done));
    EXPECT_EQ(RESULT_NOTHING_TO_DO, p.wait(0));
    ASSERT_EQ(RESULT_SUCCESS, p.open());
    EXPECT_EQ(RESULT_ALREADY_EXISTS, p.open());
    EXPECT_EQ(RESULT_BUSY, p.read(&c, 1, &done));
    EXPECT_EQ(RESULT_BUSY, p.wait(0));
    const char text[] = "abc";
    ASSERT_EQ(RESULT_SUCCESS, p.write(text, 3, &done));
    EXPECT_EQ(3u, done);
    EXPECT_EQ(RESULT_SUCCESS, p.wait(WATCHDOG_MS));
    char got[8] = {0};
    ASSERT_EQ(RESULT_SUCCESS, p.read(got, sizeof(got), &done));
    EXPECT_EQ(3u, done);
    EXPECT_EQ(std::string("abc"), std::string(got, 3));
    // Fill it: the write end never blocks.
    const std::string chunk(1024, 'x');
    unsigned int total = 0;
    int rv = RESULT_SUCCESS;
    for (int i = 0; i < 1024 && rv == RESULT_SUCCESS; ++i) {
        rv = p.write(chunk.data(), static_cast<unsigned int>(chunk.size()), &done);
        total += done;
    }
    EXPECT_EQ(RESULT_BUSY, rv);
    EXPECT_GT(total, 0u);
    p.close();
    EXPECT_FALSE(p.is_open());
    EXPECT_EQ(INVALID_NOTIFIER_HANDLE, p.read_handle());
    EXPECT_EQ(INVALID_NOTIFIER_HANDLE, p.write_handle());
}

// ---- notifier_event_t -----------------------------------------------------------

class NotifierEvent : public NotifierLog {};

TEST_F(NotifierEvent, OpenIsRefusedWithAnAssertionLine) {
    notifier_event_t n(false, false, false);
    EXPECT_TRUE(n.is_active());
    EXPECT_EQ(RESULT_REFUSED, n.open());
    std::vector<line_t> lines = cap.matching("assert: file\\[pipe\\], line = \\[[0-9]+\\], this = " + PTR + "\n");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(unsigned(LOG_FATAL), lines[0].level);
    // Still the same working event.
    n.close();
    EXPECT_TRUE(n.is_active());
    EXPECT_EQ(reinterpret_cast<notifier_handle_t>(n.get_event().get_handle()), n.get_id());
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.get_event().wait(0));
}

TEST_F(NotifierEvent, WaitAnswers0EvenWhenItTimesOut) {
    notifier_event_t n(true, false, false);
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(1, true));
    EXPECT_EQ(RESULT_BUSY, n.get_event().wait(0));
}

TEST_F(NotifierEvent, SignalPulseAndResetReachTheEvent) {
    notifier_event_t n(false, true, false);
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.get_event().wait(0));
    EXPECT_EQ(RESULT_SUCCESS, n.get_event().wait(0)) << "manual reset: still set";
    ASSERT_EQ(RESULT_SUCCESS, n.reset());
    EXPECT_EQ(RESULT_BUSY, n.get_event().wait(0));
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    // A pulse with nobody waiting leaves the event reset, whatever its argument.
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(true));
    EXPECT_EQ(RESULT_BUSY, n.get_event().wait(0));
}

// After a wait that succeeded: is the event still set?
struct event_case_t {
    bool reset_on_peek;
    bool manual_reset;
    bool peek;
    bool still_set;
};

class NotifierEventPeek : public NotifierLog, public ::testing::WithParamInterface<event_case_t> {};

TEST_P(NotifierEventPeek, APeekingWaitResetsTheEventOnlyWithTheFlag) {
    const event_case_t& c = GetParam();
    notifier_event_t n(c.reset_on_peek, c.manual_reset, true);
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, c.peek));
    EXPECT_EQ(c.still_set ? RESULT_SUCCESS : RESULT_BUSY, n.get_event().wait(0));
}

INSTANTIATE_TEST_SUITE_P(Cases, NotifierEventPeek,
                         ::testing::Values(event_case_t{false, true, true, true},   // flag off: peek keeps it
                                           event_case_t{true, true, true, false},   // flag on: peek resets
                                           event_case_t{true, true, false, true},   // no peek: manual stays set
                                           event_case_t{false, true, false, true},  //
                                           event_case_t{true, false, true, false},  // auto reset consumed it
                                           event_case_t{false, false, false, false}));

TEST_F(NotifierEvent, SignalWakesAThreadBlockedInWait) {
    notifier_event_t n(true, false, false);
    const int ROUNDS = 20;
    std::atomic<int> entered{0};
    std::atomic<int> woken{0};
    std::thread waiter([&] {
        for (int i = 0; i < ROUNDS; ++i) {
            entered.fetch_add(1, std::memory_order_release);
            n.wait(-1, false);
            woken.fetch_add(1, std::memory_order_release);
        }
    });
    for (int i = 1; i <= ROUNDS; ++i) {
        wait_until([&] { return entered.load(std::memory_order_acquire) == i; });
        for (int y = 0; y < 50; ++y)
            std::this_thread::yield();
        ASSERT_EQ(RESULT_SUCCESS, n.signal());
        wait_until([&] { return woken.load(std::memory_order_acquire) == i; });
    }
    waiter.join();
    EXPECT_EQ(ROUNDS, woken.load());
    // The auto-reset event was consumed by each wake-up.
    EXPECT_EQ(RESULT_BUSY, n.get_event().wait(0));
}

TEST_F(NotifierEvent, SignallersNeverLeaveTheReaderAsleepWithWorkPosted) {
    for (const stress_case_t& c : STRESS_CASES) {
        notifier_event_t n(false, false, false);
        // The event notifier answers 0 to every wait, so a wait that ran into
        // the watchdog is told by its length: it stands only for a lost
        // wake-up.
        stress_result_t r = run_signal_stress(n, c.writers, c.posts, [](notifier_it& x) {
            std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
            x.wait(WATCHDOG_MS, false);
            return std::chrono::steady_clock::now() - start < std::chrono::milliseconds(WATCHDOG_MS);
        });
        EXPECT_EQ(0, r.lost) << c.writers << " writers";
        EXPECT_EQ(uint64_t(c.writers) * c.posts, r.handled) << c.writers << " writers";
    }
}

}  // namespace

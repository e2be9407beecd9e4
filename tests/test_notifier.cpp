#include <gtest/gtest.h>

#include <stdio.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#if !defined(_WIN32)
#  include <sys/socket.h>
#endif

#include "notifier.h"
#include "platform/platform.h"
#include "test_log_support.h"
#include "test_support.h"

using namespace ssb;
using util_test::run_threads;
using util_test::wait_until;

namespace {

const int WATCHDOG_MS = 10000;

[[maybe_unused]] const ::testing::Environment* const s_socket_env =
    ::testing::AddGlobalTestEnvironment(new util_test::socket_environment_t);

// Closed with nobody waiting: what would send or take a byte answers 9.
void expect_closed(notifier_it& n) {
    EXPECT_FALSE(n.is_active());
    EXPECT_EQ(INVALID_NOTIFIER_HANDLE, n.get_id());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.signal());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.wait(-1, false));  // must not block
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.pulse(true));
}

int drain(notifier_it& n) {
    int count = 0;
    while (n.wait(0, false) == RESULT_SUCCESS)
        ++count;
    return count;
}

// Writers post, signal and wait for their post to be handled, so posts land as
// the reader heads back into wait. Returns the posts handled: fewer is a loss.
uint64_t run_signal_stress(notifier_it& n, int writers, int posts, const std::function<bool(notifier_it&)>& woke) {
    const uint64_t total = uint64_t(writers) * posts;
    std::atomic<uint64_t> posted{0}, handled{0};
    std::atomic<bool> abort{false};
    std::thread reader([&] {
        unsigned int seed = 1;  // varied work between finding nothing and sleeping
        while (handled.load() < total && !abort.load()) {
            uint64_t now = posted.load();
            if (now > handled.load()) {
                handled.store(now);
                continue;
            }
            for (unsigned int k = ((seed = seed * 1103515245u + 12345u) >> 16) % 2000; k > 0; --k)
                std::atomic_signal_fence(std::memory_order_seq_cst);
            if (!woke(n) && posted.load() > handled.load())
                abort.store(true);
        }
    });
    run_threads(writers, [&](int) {
        for (int i = 0; i < posts && !abort.load(); ++i) {
            uint64_t mine = posted.fetch_add(1) + 1;
            n.signal();
            util_test::wait_until("the reader to handle the signal",
                                  [&] { return handled.load() >= mine || abort.load(); });
        }
    });
    reader.join();
    return handled.load();
}

#if defined(_WIN32)
const bool WIN = true;  // a Windows pipe holds 4 KiB, a Linux one 64 KiB
#else
const bool WIN = false;
#endif
template <class K>
class ByteNotifier : public ::testing::Test {};
typedef ::testing::Types<notifier_sock_t, notifier_pipe_t> ByteKinds;
TYPED_TEST_SUITE(ByteNotifier, ByteKinds);

TYPED_TEST(ByteNotifier, OpenCloseCodesAndEachWaitTakesOneSignalPeekNone) {
    TypeParam n(0);
    notifier_handle_t id = n.get_id();
    EXPECT_EQ(RESULT_ALREADY_EXISTS, n.open());
    EXPECT_EQ(id, n.get_id());
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    n.close();
    expect_closed(n);
    n.close();
    ASSERT_EQ(RESULT_SUCCESS, n.open());
    EXPECT_EQ(RESULT_BUSY, n.wait(1, false)) << "the byte went with the old pair";
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, true));
    EXPECT_EQ(3, drain(n));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, true));
}

TYPED_TEST(ByteNotifier, SignalsReachAWaiterWithoutLoss) {
    for (int writers : {1, 3}) {
        TypeParam n(0);
        EXPECT_EQ(writers * 400u,
                  run_signal_stress(n, writers, 400,
                                    [](notifier_it& x) { return x.wait(WATCHDOG_MS, false) == RESULT_SUCCESS; }))
            << writers;
    }
}

TYPED_TEST(ByteNotifier, SignallingIntoAFullBufferNeverBlocksAndStillWakes) {
    TypeParam n(0);
#if !defined(_WIN32)
    int size = 1;  // else loopback TCP coalesces one-byte segments for megabytes
    setsockopt(static_cast<int>(n.get_id()), SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));  // pipe: ENOTSOCK
#endif
    const int burst = WIN ? 5000 : 70000;
    for (int i = 0; i < burst; ++i)
        ASSERT_EQ(RESULT_SUCCESS, n.signal()) << i;
    EXPECT_TRUE(WIN || drain(n) < burst) << "the buffer never filled";
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
}

TEST(NotifierSock, HeldSetSemanticsOfPulseAndReset) {
    notifier_sock_t n(0);
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(false));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false)) << "held: waits return and take nothing";
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_BUSY, wait_socket_readable(n.get_id(), 0)) << "held, nobody waits: no byte";
    EXPECT_EQ(RESULT_SUCCESS, n.reset());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false)) << "reset acts only while somebody waits";
    // A constructor count of 1 stands for a thread always waiting.
    notifier_sock_t w(1);
    ASSERT_EQ(RESULT_SUCCESS, w.pulse(false));
    ASSERT_EQ(RESULT_SUCCESS, w.signal());
    EXPECT_EQ(RESULT_SUCCESS, w.reset());
    EXPECT_EQ(RESULT_SUCCESS, w.wait(WATCHDOG_MS, false));
    EXPECT_EQ(RESULT_BUSY, w.wait(0, false)) << "pulse and signal sent a byte each, reset took one";
    EXPECT_EQ(1u, w.waiters()) << "wait restores the count";
}

// On a closed notifier only an operation that owes a byte (to a waiter, or
// the held byte of a pipe) fails; one with nothing to send or take answers 0
// and logs nothing. The pipe's `waits` word stands for the waiter count.
TEST(ClosedNotifier, OnlyAnOperationThatOwesAByteFails) {
    typedef int (*op_t)(notifier_it&);
    const op_t PULSE_FALSE = [](notifier_it& n) { return n.pulse(false); };
    const op_t PULSE_TRUE = [](notifier_it& n) { return n.pulse(true); };
    const op_t RESET = [](notifier_it& n) { return n.reset(); };
    const op_t SIGNAL = [](notifier_it& n) { return n.signal(); };
    const char* const SOCK_LINE = "notifier_sock_t::%s() handles are not initialzed";
    struct row_t {
        bool sock;
        unsigned int waiters;
        bool held;
        op_t op;
        int rv;
        const char* logged;  // the operation named in the ERROR line, or null for none
    } const rows[] = {
        {true, 0, false, PULSE_FALSE, RESULT_SUCCESS, nullptr},
        {true, 0, true, RESET, RESULT_SUCCESS, nullptr},
        {true, 0, false, RESET, RESULT_SUCCESS, nullptr},
        {true, 1, false, PULSE_FALSE, RESULT_NOTHING_TO_DO, "pulse"},
        {true, 1, false, RESET, RESULT_NOTHING_TO_DO, "reset"},
        {true, 0, false, PULSE_TRUE, RESULT_NOTHING_TO_DO, "pulse"},
        {true, 1, false, SIGNAL, RESULT_NOTHING_TO_DO, nullptr},
        {false, 0, false, PULSE_FALSE, RESULT_SUCCESS, nullptr},
        {false, 0, false, RESET, RESULT_SUCCESS, nullptr},
        {false, 1, false, PULSE_FALSE, RESULT_NOTHING_TO_DO, nullptr},
        {false, 1, false, RESET, RESULT_SUCCESS, nullptr},
        {false, 0, true, RESET, RESULT_NOTHING_TO_DO, nullptr},
        {false, 0, false, PULSE_TRUE, RESULT_NOTHING_TO_DO, nullptr},
        {false, 1, false, SIGNAL, RESULT_NOTHING_TO_DO, nullptr},
    };
    util_test::text_capture_t cap;
    util_test::capture_util_log(&cap);
    for (size_t i = 0; i < sizeof(rows) / sizeof(rows[0]); ++i) {
        const row_t& r = rows[i];
        std::unique_ptr<notifier_it> n(r.sock ? static_cast<notifier_it*>(new notifier_sock_t(r.waiters))
                                              : new notifier_pipe_t(r.waiters));
        if (r.held) {
            ASSERT_EQ(RESULT_SUCCESS, n->pulse(!r.sock)) << i;  // the socket holds with false, the pipe with true
        }
        n->close();
        cap.clear();
        EXPECT_EQ(r.rv, r.op(*n)) << "row " << i;
        char line[80];
        snprintf(line, sizeof(line), SOCK_LINE, r.logged ? r.logged : "");
        EXPECT_EQ(r.logged != nullptr, cap.contains(r.logged ? line : "handles are not initialzed")) << "row " << i;
    }
    util_test::restore_log_routing();
}

// pulse(false) holds a closed socket notifier set all the same, and a reset
// with nobody waiting leaves the hold: after reopening, waits return at once.
TEST(NotifierSock, AClosedNotifierKeepsItsHeldFlagWhenNobodyWaits) {
    for (bool pulse : {false, true}) {
        notifier_sock_t n(0);
        n.close();
        if (pulse) {
            ASSERT_EQ(RESULT_SUCCESS, n.pulse(false));
        }
        ASSERT_EQ(RESULT_SUCCESS, n.reset());
        ASSERT_EQ(RESULT_SUCCESS, n.open());
        EXPECT_EQ(pulse ? RESULT_SUCCESS : RESULT_BUSY, n.wait(0, false)) << pulse;
    }
    // With a waiter counted, a closed reset clears the hold before answering 9.
    notifier_sock_t w(1);
    w.close();
    ASSERT_EQ(RESULT_NOTHING_TO_DO, w.pulse(false));
    ASSERT_EQ(RESULT_NOTHING_TO_DO, w.reset());
    ASSERT_EQ(RESULT_SUCCESS, w.open());
    EXPECT_EQ(RESULT_BUSY, w.wait(0, false));
}

// Out of descriptors at each step of open (listener, connect, accept): it
// stays closed, leaks nothing and can be opened later.
TEST(NotifierSock, FailedOpenLeavesItClosedAndLeaksNothing) {
    if (!plat::descriptor_limit_supported())
        GTEST_SKIP() << "this system has no descriptor limit to lower";
    const unsigned long saved = plat::descriptor_limit();
    for (int spare : {0, 1, 2}) {
        const int first_free = plat::lowest_free_descriptor();
        ASSERT_EQ(0, plat::set_descriptor_limit(static_cast<unsigned long>(first_free + spare)));
        notifier_sock_t* n = new notifier_sock_t(0);
        ASSERT_EQ(0, plat::set_descriptor_limit(saved));
        EXPECT_EQ(first_free, plat::lowest_free_descriptor()) << spare << ": a descriptor leaked";
        expect_closed(*n);
        EXPECT_EQ(RESULT_SUCCESS, n->open());
        delete n;
    }
}

TEST(NotifierPipe, PulseTrueHoldsUntilResetAndTheWordDecidesExtraBytes) {
    for (unsigned int waits : {0u, 1u}) {
        notifier_pipe_t n(waits);
        ASSERT_EQ(RESULT_SUCCESS, n.pulse(true));
        EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
        ASSERT_EQ(RESULT_SUCCESS, n.signal());
        ASSERT_EQ(RESULT_SUCCESS, n.reset());
        EXPECT_EQ(waits ? 1 : 0, drain(n)) << waits << ": signal while held";
        ASSERT_EQ(RESULT_SUCCESS, n.signal());
        EXPECT_EQ(RESULT_SUCCESS, n.reset());
        EXPECT_EQ(1, drain(n)) << "not held: reset leaves a signal alone";
        ASSERT_EQ(RESULT_SUCCESS, n.pulse(true));
        ASSERT_EQ(RESULT_SUCCESS, n.pulse(false));
        EXPECT_EQ(waits ? 2 : 1, drain(n)) << waits << ": pulse(false) leaves the held byte";
    }
}

TEST(PipeT, ReadAndWriteReportEmptyFullAndClosed) {
    pipe_t p;
    unsigned int done = 99;
    char c = 'a';
    EXPECT_EQ(RESULT_NOTHING_TO_DO, p.write(&c, 1, &done));
    ASSERT_EQ(RESULT_SUCCESS, p.open());
    EXPECT_EQ(RESULT_ALREADY_EXISTS, p.open());
    EXPECT_EQ(RESULT_BUSY, p.read(&c, 1, &done));
    ASSERT_EQ(RESULT_SUCCESS, p.write("abc", 3, &done));
    char got[8] = {0};
    ASSERT_EQ(RESULT_SUCCESS, p.read(got, sizeof(got), &done));
    EXPECT_EQ(std::string("abc"), std::string(got, done));
    const std::string chunk(1024, 'x');
    int rv = RESULT_SUCCESS;
    for (int i = 0; i < 1024 && rv == RESULT_SUCCESS; ++i)
        rv = p.write(chunk.data(), static_cast<unsigned int>(chunk.size()), &done);
    EXPECT_EQ(RESULT_BUSY, rv) << "a full pipe answers 16, never blocks";
    p.close();
    EXPECT_EQ(RESULT_NOTHING_TO_DO, p.read(&c, 1, &done));
}

TEST(NotifierEvent, OpenIsRefusedAndAPeekResetsOnlyWithTheFlag) {
    for (bool reset_on_peek : {false, true}) {
        notifier_event_t n(reset_on_peek, true, false);
        EXPECT_EQ(RESULT_SUCCESS, n.wait(1, true)) << "a time-out answers 0";
        EXPECT_EQ(RESULT_REFUSED, n.open());
        n.close();
        ASSERT_TRUE(n.is_active());
        ASSERT_EQ(RESULT_SUCCESS, n.signal());
        EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
        EXPECT_EQ(RESULT_SUCCESS, n.get_event().wait(0)) << "a plain wait leaves a manual event set";
        EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, true));
        EXPECT_EQ(reset_on_peek ? RESULT_BUSY : RESULT_SUCCESS, n.get_event().wait(0)) << reset_on_peek;
        ASSERT_EQ(RESULT_SUCCESS, n.reset());
        EXPECT_EQ(RESULT_BUSY, n.get_event().wait(0));
    }
}

TEST(NotifierEvent, SignalsReachAWaiterWithoutLoss) {
    for (int writers : {1, 3}) {
        notifier_event_t n(false, false, false);
        // Every wait answers 0, so only the watchdog's length tells a loss.
        EXPECT_EQ(writers * 400u, run_signal_stress(n, writers, 400,
                                                    [](notifier_it& x) {
                                                        auto start = std::chrono::steady_clock::now();
                                                        x.wait(WATCHDOG_MS, false);
                                                        return std::chrono::steady_clock::now() - start <
                                                               std::chrono::milliseconds(WATCHDOG_MS);
                                                    }))
            << writers;
    }
}

}  // namespace

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

#include "test_log_support.h"
#include "log.h"
#include "notifier.h"
#include "test_support.h"

using namespace ssb;
using util_test::run_threads;
using util_test::wait_until;

namespace {

// Bounds a wait that must end because something is pending; only a lost
// wake-up ever runs into it, so it never decides a pass.
const int WATCHDOG_MS = 10000;

// Windows refuses sockets before the socket layer starts.
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

// Keeps the message part of every line (what follows the header's fourth TAB).
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
    size_t count() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_lines.size();
    }
    // Lines from index `from` on whose message matches `pattern` whole.
    std::vector<line_t> matching(const std::string& pattern, size_t from = 0) {
        std::regex re(pattern);
        std::vector<line_t> out;
        std::lock_guard<std::mutex> guard(m_mutex);
        for (size_t i = from; i < m_lines.size(); ++i)
            if (std::regex_match(m_lines[i].message, re))
                out.push_back(m_lines[i]);
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

std::string id_text(notifier_handle_t id) { return std::to_string(static_cast<long long>(id)); }

// Until the registry opens, the default logger overrides per-module ones,
// so the capture is installed as the default too.
class NotifierLog : public ::testing::Test {
protected:
    void SetUp() override { util_test::capture_util_log(&cap); }
    void TearDown() override { util_test::restore_log_routing(); }
    capture_t cap;
};

void yield_a_while(int times) {
    for (int y = 0; y < times; ++y)
        std::this_thread::yield();
}

// Closed: signal and wait answer 9 without a line (whatever the time-out,
// never blocking), the rest answer 9.
void expect_closed(notifier_it& n, capture_t& cap) {
    EXPECT_FALSE(n.is_active());
    EXPECT_EQ(INVALID_NOTIFIER_HANDLE, n.get_id());
    size_t before = cap.count();
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.signal());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.wait(0, false));
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.wait(-1, false));
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.wait(-1, true));
    EXPECT_EQ(before, cap.count());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.reset());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.pulse(true));
    EXPECT_EQ(RESULT_NOTHING_TO_DO, n.pulse(false));
}

// A waiter blocks in wait(-1) twenty times; each round the signal must reach
// it whether or not it is already asleep.
int wake_rounds(notifier_it& n) {
    const int ROUNDS = 20;
    std::atomic<int> entered{0}, woken{0}, failures{0};
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
        yield_a_while(50);
        EXPECT_EQ(RESULT_SUCCESS, n.signal());
        wait_until([&] { return woken.load(std::memory_order_acquire) == i; });
    }
    waiter.join();
    return failures.load();
}

// Writers post work and signal, as a message queue does; one reader takes
// all posted work per wake-up. Each writer waits for its post to be handled,
// so posts keep landing just as the reader heads back into wait. A wait
// that ends without a wake-up while work is posted is a lost wake-up.
struct stress_result_t {
    uint64_t handled;
    int lost;
    int wakes;
};

stress_result_t run_signal_stress(notifier_it& n, int writers, int posts,
                                  const std::function<bool(notifier_it&)>& wait_woken) {
    const uint64_t total = uint64_t(writers) * posts;
    std::atomic<uint64_t> posted{0}, handled{0};
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
            // A real loop's work between finding nothing and going to sleep.
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

// One signaller, where no other byte can cover for a lost one; and several.
struct stress_case_t {
    int writers;
    int posts;
};
const stress_case_t STRESS_CASES[] = {{1, 1000}, {3, 400}};

// ---- what the socket and pipe notifiers share -------------------------------

// burst fills the buffer where `fills` says so (a pipe holds 64 KiB on Linux,
// 4 KiB on Windows); narrow shrinks it where that is needed to fill it soon.
#if defined(_WIN32)
constexpr bool WIN = true;
#else
constexpr bool WIN = false;
#endif
struct sock_kind {
    typedef notifier_sock_t type;
    static const char* name() { return "notifier_sock_t"; }
    static constexpr int burst = WIN ? 5000 : 30000;
    static constexpr bool fills = !WIN;
    static void narrow(type& n) {
#if !defined(_WIN32)
        // Loopback TCP coalesces one-byte segments and would take megabytes.
        int size = 1;
        setsockopt(static_cast<int>(n.get_id()), SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
#else
        (void)n;
#endif
    }
};
struct pipe_kind {
    typedef notifier_pipe_t type;
    static const char* name() { return "notifier_pipe_t"; }
    static constexpr int burst = WIN ? 5000 : 70000;
    static constexpr bool fills = true;
    static void narrow(type&) {}
};

template <class K>
class ByteNotifier : public NotifierLog {};

typedef ::testing::Types<sock_kind, pipe_kind> ByteKinds;
TYPED_TEST_SUITE(ByteNotifier, ByteKinds);

TYPED_TEST(ByteNotifier, OpenTwiceReturns10CloseAnswers9AndReopenIsAFreshPair) {
    typename TypeParam::type n(0);
    notifier_handle_t id = n.get_id();
    ASSERT_NE(INVALID_NOTIFIER_HANDLE, id);
    size_t before = this->cap.count();
    EXPECT_EQ(RESULT_ALREADY_EXISTS, n.open());
    EXPECT_EQ(id, n.get_id());
    std::vector<line_t> warned =
        this->cap.matching(quote(TypeParam::name()) + "::open\\(\\) already initialized\n", before);
    ASSERT_EQ(1u, warned.size());
    EXPECT_EQ(unsigned(LOG_WARNING), warned[0].level);

    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    n.close();
    expect_closed(n, this->cap);
    n.close();
    ASSERT_EQ(RESULT_SUCCESS, n.open());
    EXPECT_TRUE(n.is_active());
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false)) << "the byte went with the old pair";
    EXPECT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
}

TYPED_TEST(ByteNotifier, EachWaitTakesOneSignalAndPeekTakesNone) {
    typename TypeParam::type n(0);
    EXPECT_EQ(RESULT_BUSY, n.wait(0, true));
    EXPECT_EQ(RESULT_BUSY, n.wait(1, false));
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, true));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, true));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false)) << i;
    EXPECT_EQ(RESULT_BUSY, n.wait(0, true));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
}

TYPED_TEST(ByteNotifier, SignalWakesAThreadBlockedInWait) {
    typename TypeParam::type n(0);
    EXPECT_EQ(0, wake_rounds(n));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
}

TYPED_TEST(ByteNotifier, SignallersNeverLeaveTheReaderAsleepWithWorkPosted) {
    for (const stress_case_t& c : STRESS_CASES) {
        typename TypeParam::type n(0);
        stress_result_t r = run_signal_stress(
            n, c.writers, c.posts, [](notifier_it& x) { return x.wait(WATCHDOG_MS, false) == RESULT_SUCCESS; });
        const uint64_t total = uint64_t(c.writers) * c.posts;
        EXPECT_EQ(0, r.lost) << c.writers << " writers";
        EXPECT_EQ(total, r.handled) << c.writers << " writers";
        EXPECT_GE(r.wakes, 1);
        EXPECT_LE(uint64_t(r.wakes), total) << "each wake-up consumed a signal's byte";
    }
}

TYPED_TEST(ByteNotifier, SignallingIntoAFullBufferNeverBlocksAndStillWakes) {
    typename TypeParam::type n(0);
    TypeParam::narrow(n);
    for (int i = 0; i < TypeParam::burst; ++i)
        ASSERT_EQ(RESULT_SUCCESS, n.signal()) << i;
    int drained = 0;
    while (n.wait(0, false) == RESULT_SUCCESS)
        ++drained;
    EXPECT_GE(drained, 1);
    if (TypeParam::fills) {
        EXPECT_LT(drained, TypeParam::burst) << "the buffer never filled, so the full case went untested";
    }
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
}

// ---- notifier_sock_t ------------------------------------------------------------

class NotifierSock : public NotifierLog {};

TEST_F(NotifierSock, OpenAndCloseLogTheirLines) {
    notifier_sock_t n(0);
    const std::string id = id_text(n.get_id());
    std::vector<line_t> begin = cap.matching("notifier_sock_t::open\\(\\) begin, this =" + PTR + "\n");
    ASSERT_EQ(1u, begin.size());
    EXPECT_EQ(unsigned(LOG_INFO), begin[0].level);
    std::vector<line_t> done = cap.matching(" notifier_sock_t::open\\(\\) successful, read handle = " + id +
                                            ", write handle = [0-9]+, accept_times = [0-9]+, "
                                            "accept_tick\\.elapsed\\(\\) = [0-9]+, this =" + PTR + "\n");
    ASSERT_EQ(1u, done.size());
    EXPECT_EQ(unsigned(LOG_INFO), done[0].level);

    n.close();
    n.close();
    std::vector<line_t> closed = cap.matching("notifier_sock_t::close\\(\\), m_handle\\[0\\] = " + NUM +
                                              ", m_handle\\[1\\] = " + NUM + ", this =" + PTR + "\n");
    ASSERT_EQ(2u, closed.size());
    EXPECT_EQ(unsigned(LOG_INFO), closed[0].level);
    EXPECT_EQ(0u, closed[0].message.find("notifier_sock_t::close(), m_handle[0] = " + id + ", "));
    EXPECT_EQ(0u, closed[1].message.find("notifier_sock_t::close(), m_handle[0] = -1, m_handle[1] = -1, "));

    size_t before = cap.count();
    n.pulse(true);
    n.pulse(false);
    n.reset();
    EXPECT_EQ(1u, cap.matching("notifier_sock_t::reset\\(\\) handles are not initialzed, this =" + PTR + "\n",
                               before).size());
    EXPECT_EQ(2u, cap.matching("notifier_sock_t::pulse\\(\\) handles are not initialzed, this =" + PTR + "\n",
                               before).size());
}

TEST_F(NotifierSock, ReadEndIsReadableOnlyWithAByteAndPulseWithoutWaitersSendsNone) {
    notifier_sock_t n(0);
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, wait_socket_readable(n.get_id(), WATCHDOG_MS));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, true));
    EXPECT_EQ(RESULT_SUCCESS, wait_socket_readable(n.get_id(), 0));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_BUSY, wait_socket_readable(n.get_id(), 0));

    ASSERT_EQ(RESULT_SUCCESS, n.pulse(false));
    // Held: waits return at once and take nothing; a signal sends nothing.
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_BUSY, wait_socket_readable(n.get_id(), 0));
    EXPECT_EQ(RESULT_SUCCESS, n.reset());
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false)) << "reset acts only while somebody waits";
    EXPECT_EQ(RESULT_SUCCESS, n.pulse(true));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
    EXPECT_EQ(RESULT_BUSY, wait_socket_readable(n.get_id(), 0));
    // pulse(true) leaves pending signals alone.
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.pulse(true));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
}

// A waiter count given to the constructor stands for a thread that is
// always waiting, which makes the waiter branches observable without a race.
TEST_F(NotifierSock, WithAWaiterResetTakesAByteAndPulseFalseSendsOne) {
    for (unsigned int waiters : {0u, 1u}) {
        notifier_sock_t n(waiters);
        ASSERT_EQ(RESULT_SUCCESS, n.signal());
        ASSERT_EQ(RESULT_SUCCESS, wait_socket_readable(n.get_id(), WATCHDOG_MS));
        EXPECT_EQ(RESULT_SUCCESS, n.reset());
        EXPECT_EQ(waiters ? RESULT_BUSY : RESULT_SUCCESS, n.wait(0, false)) << waiters;
        EXPECT_EQ(waiters, n.waiters()) << "wait restores the count";
    }
    notifier_sock_t n(1);
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(false));
    EXPECT_EQ(RESULT_SUCCESS, wait_socket_readable(n.get_id(), WATCHDOG_MS)) << "a waiter: pulse sends";
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_SUCCESS, wait_socket_readable(n.get_id(), 0)) << "held: the byte stays";
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.reset());
    // Of the two bytes one is left, and the hold is gone.
    EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, false));
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
}

TEST_F(NotifierSock, ResetDoesNotWakeASleepingWaiterButPulseFalseDoes) {
    notifier_sock_t n(0);
    std::atomic<bool> done{false};
    std::atomic<int> result{-1};
    std::thread waiter([&] {
        result.store(n.wait(-1, false));
        done.store(true);
    });
    wait_until([&] { return n.waiters() == 1; });
    yield_a_while(50);
    EXPECT_EQ(RESULT_SUCCESS, n.reset());
    yield_a_while(200);
    EXPECT_FALSE(done.load()) << "reset must not send a wake-up";
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(false));
    waiter.join();
    EXPECT_EQ(RESULT_SUCCESS, result.load());
    EXPECT_EQ(0u, n.waiters());
    // Either the waiter took the byte, which ends the hold, or it saw the
    // flag first and left the byte with the hold on.
    bool held = n.wait(0, false) == RESULT_SUCCESS;
    EXPECT_EQ(held ? RESULT_SUCCESS : RESULT_BUSY, wait_socket_readable(n.get_id(), 0));
}

TEST_F(NotifierSock, InitAndCleanupNestInsideTheRunningSocketLayer) {
    ASSERT_EQ(RESULT_SUCCESS, init_socket());
    EXPECT_EQ(RESULT_SUCCESS, cleanup_socket());
    notifier_sock_t n(0);
    EXPECT_TRUE(n.is_active());
    EXPECT_TRUE(cap.matching("(init|cleanup)_socket\\(\\).* errno = .*\n").empty());
}

#if defined(_WIN32)

TEST_F(NotifierSock, OpenFailsWithoutTheSocketLayerAndSucceedsOnceItRuns) {
    ASSERT_EQ(RESULT_SUCCESS, cleanup_socket());
    {
        notifier_sock_t n(0);
        EXPECT_EQ(1u, cap.matching(" notifier_sock_t::open\\(\\) handle failed, errno = 10093\n").size());
        EXPECT_EQ(RESULT_FAILURE, n.open());
        expect_closed(n, cap);
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

int lowest_free_fd() {
    int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::close(fd);
    return fd;
}

// Running out of descriptors fails each step of open in turn: the listener
// (0 spare), the connecting socket (1), the accepted one (2).
TEST_F(NotifierSock, FailedOpenLeavesItClosedLogsTheStepAndLeaksNothing) {
    const struct {
        int spare;
        const char* line;
    } steps[] = {{0, " notifier_sock_t::open() handle failed"},
                 {1, " notifier_sock_t::open() socket_open failed, handle = -1"},
                 {2, " notifier_sock_t::open() accept failed and skip it, handle = "}};
    for (const auto& step : steps) {
        SCOPED_TRACE(step.line);
        int first_free = lowest_free_fd();
        ASSERT_GE(first_free, 0);
        rlimit saved;
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
        rlimit low = saved;
        low.rlim_cur = static_cast<rlim_t>(first_free + step.spare);
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
        size_t before = cap.count();
        notifier_sock_t* n = new notifier_sock_t(0);
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));

        EXPECT_EQ(1u, cap.matching(quote(step.line) + ".*, errno = 24\n", before).size());
        EXPECT_EQ(first_free, lowest_free_fd()) << "a descriptor leaked";
        expect_closed(*n, cap);
        EXPECT_EQ(RESULT_SUCCESS, n->open());
        EXPECT_EQ(RESULT_SUCCESS, n->signal());
        EXPECT_EQ(RESULT_SUCCESS, n->wait(WATCHDOG_MS, false));
        delete n;
        EXPECT_EQ(first_free, lowest_free_fd());
    }
}

#endif

// ---- notifier_pipe_t ------------------------------------------------------------

class NotifierPipe : public NotifierLog {};

int drain(notifier_it& n) {
    int count = 0;
    while (n.wait(0, false) == RESULT_SUCCESS)
        ++count;
    return count;
}

TEST_F(NotifierPipe, PulseTrueHoldsUntilResetOrPulseFalse) {
    notifier_pipe_t n(0);
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(true));
    // Held: waits return at once and leave the held byte.
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_SUCCESS, n.wait(0, false));
    EXPECT_EQ(RESULT_SUCCESS, n.reset());
    EXPECT_EQ(RESULT_BUSY, n.wait(0, false));
    // Not held any more: reset leaves a signal alone.
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.reset());
    EXPECT_EQ(1, drain(n));
    // pulse(false) ends the hold but leaves the held byte for one wait.
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(true));
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(false));
    EXPECT_EQ(1, drain(n));
}

// The constructor's word decides whether signal writes while held and
// whether pulse(false) writes.
TEST_F(NotifierPipe, SignalWhileHeldAndPulseFalseWriteOnlyWithTheWord) {
    for (unsigned int waits : {0u, 1u, 7u}) {
        notifier_pipe_t n(waits);
        const int bytes = waits ? 1 : 0;
        ASSERT_EQ(RESULT_SUCCESS, n.pulse(true));
        ASSERT_EQ(RESULT_SUCCESS, n.signal());
        ASSERT_EQ(RESULT_SUCCESS, n.reset());
        EXPECT_EQ(bytes, drain(n)) << waits << ": left once reset took the held byte";
        ASSERT_EQ(RESULT_SUCCESS, n.pulse(false));
        EXPECT_EQ(bytes, drain(n)) << waits << ": after pulse(false)";
    }
}

TEST_F(NotifierPipe, GetIdIsTheReadEndAndOpenAndCloseLogBothEnds) {
    notifier_pipe_t n(0);
    const std::string ends = "read handle = " + id_text(n.get_id()) + ", write handle = " + NUM + ", this =" + PTR + "\n";
    EXPECT_EQ(1u, cap.matching(" notifier_pipe_t::open\\(\\) successful, " + ends).size());
    n.close();
    EXPECT_EQ(1u, cap.matching("notifier_pipe_t::close\\(\\), " + ends).size());
}

TEST(PipeT, ReadAndWriteReportEmptyFullAndClosed) {
    pipe_t p;
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
    ASSERT_EQ(RESULT_SUCCESS, p.write("abc", 3, &done));
    EXPECT_EQ(3u, done);
    EXPECT_EQ(RESULT_SUCCESS, p.wait(WATCHDOG_MS));
    char got[8] = {0};
    ASSERT_EQ(RESULT_SUCCESS, p.read(got, sizeof(got), &done));
    EXPECT_EQ(std::string("abc"), std::string(got, done));
    // The write end never blocks: a full pipe answers 16.
    const std::string chunk(1024, 'x');
    int rv = RESULT_SUCCESS;
    for (int i = 0; i < 1024 && rv == RESULT_SUCCESS; ++i)
        rv = p.write(chunk.data(), static_cast<unsigned int>(chunk.size()), &done);
    EXPECT_EQ(RESULT_BUSY, rv);
    p.close();
    EXPECT_FALSE(p.is_open());
    EXPECT_EQ(INVALID_NOTIFIER_HANDLE, p.read_handle());
    EXPECT_EQ(INVALID_NOTIFIER_HANDLE, p.write_handle());
}

// ---- notifier_event_t -----------------------------------------------------------

class NotifierEvent : public NotifierLog {};

TEST_F(NotifierEvent, OpenIsRefusedAndTheRestReachTheEvent) {
    notifier_event_t timing_out(true, false, false);
    EXPECT_EQ(RESULT_SUCCESS, timing_out.wait(1, true)) << "wait answers 0 even when it times out";
    EXPECT_EQ(RESULT_BUSY, timing_out.get_event().wait(0));

    notifier_event_t n(false, true, false);
    EXPECT_EQ(RESULT_REFUSED, n.open());
    std::vector<line_t> lines = cap.matching("assert: file\\[pipe\\], line = \\[[0-9]+\\], this = " + PTR + "\n");
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(unsigned(LOG_FATAL), lines[0].level);
    n.close();
    EXPECT_TRUE(n.is_active());
    EXPECT_EQ(reinterpret_cast<notifier_handle_t>(n.get_event().get_handle()), n.get_id());
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    EXPECT_EQ(RESULT_SUCCESS, n.get_event().wait(0));
    EXPECT_EQ(RESULT_SUCCESS, n.get_event().wait(0)) << "manual reset: still set";
    ASSERT_EQ(RESULT_SUCCESS, n.reset());
    EXPECT_EQ(RESULT_BUSY, n.get_event().wait(0));
    ASSERT_EQ(RESULT_SUCCESS, n.signal());
    // With nobody waiting a pulse leaves it reset, whatever its argument.
    ASSERT_EQ(RESULT_SUCCESS, n.pulse(true));
    EXPECT_EQ(RESULT_BUSY, n.get_event().wait(0));
}

TEST_F(NotifierEvent, APeekingWaitResetsTheEventOnlyWithTheFlag) {
    const struct {
        bool reset_on_peek, manual_reset, peek, still_set;
    } cases[] = {
        {false, true, true, true},   {true, true, true, false},    // peek resets only with the flag
        {true, true, false, true},   {false, true, false, true},   // manual reset stays set
        {true, false, true, false},  {false, false, false, false}, // auto reset consumed it
    };
    for (const auto& c : cases) {
        notifier_event_t n(c.reset_on_peek, c.manual_reset, true);
        EXPECT_EQ(RESULT_SUCCESS, n.wait(WATCHDOG_MS, c.peek));
        EXPECT_EQ(c.still_set ? RESULT_SUCCESS : RESULT_BUSY, n.get_event().wait(0))
            << c.reset_on_peek << c.manual_reset << c.peek;
    }
}

TEST_F(NotifierEvent, SignalWakesAThreadBlockedInWait) {
    notifier_event_t n(true, false, false);
    EXPECT_EQ(0, wake_rounds(n));
    EXPECT_EQ(RESULT_BUSY, n.get_event().wait(0)) << "each wake-up consumed the auto-reset event";
}

TEST_F(NotifierEvent, SignallersNeverLeaveTheReaderAsleepWithWorkPosted) {
    for (const stress_case_t& c : STRESS_CASES) {
        notifier_event_t n(false, false, false);
        // Every wait answers 0, so only the watchdog's length tells a lost
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

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "test_log_support.h"
#include "io_repo.h"
#include "log.h"
#include "notifier.h"
#include "test_support.h"

using namespace ssb;
using util_test::wait_until;

namespace {

class socket_environment_t : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_EQ(RESULT_SUCCESS, init_socket()); }
    void TearDown() override { EXPECT_EQ(RESULT_SUCCESS, cleanup_socket()); }
};

[[maybe_unused]] const ::testing::Environment* const s_socket_env =
    ::testing::AddGlobalTestEnvironment(new socket_environment_t);

// Records the message part of every line (after the header's fourth TAB).
class capture_t : public log_it {
public:
    int cout(unsigned int, unsigned int level, signed char* text, unsigned int length) override {
        std::string line(reinterpret_cast<char*>(text), length);
        size_t pos = 0;
        for (int tabs = 0; tabs < 4 && pos != std::string::npos; ++tabs)
            pos = line.find('\t', tabs == 0 ? 0 : pos + 1);
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.push_back(pos == std::string::npos ? line : line.substr(pos + 1));
        (void)level;
        return 0;
    }
    size_t count_matching(const std::string& pattern) {
        std::regex re(pattern);
        std::lock_guard<std::mutex> guard(m_mutex);
        size_t n = 0;
        for (const std::string& l : m_lines)
            if (std::regex_search(l, re))
                ++n;
        return n;
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

class IoRepo : public ::testing::Test {
protected:
    void SetUp() override { util_test::capture_util_log(&cap); }
    void TearDown() override { util_test::restore_log_routing(); }
    capture_t cap;
};

// The processing hook: counts passes, returns `wait_ms`, and stops the
// repository after `stop_after` passes (0: never).
class hook_t : public io_process_it {
public:
    explicit hook_t(int wait_ms = -1, int stop_after = 0) : m_wait_ms(wait_ms), m_stop_after(stop_after) {}
    int on_process() override {
        // Counted after m_before, so a test that sees pass n knows that
        // pass's m_before has run. Only the loop's thread writes it.
        const int n = m_passes.load(std::memory_order_relaxed) + 1;
        if (m_before)
            m_before(n);
        m_passes.store(n, std::memory_order_release);
        if (m_stop_after && n >= m_stop_after && m_repo)
            m_repo->stop();
        return m_wait_ms;
    }
    int passes() const { return m_passes.load(std::memory_order_acquire); }

    io_repo_t* m_repo = nullptr;
    std::function<void(int)> m_before;

private:
    const int m_wait_ms;
    const int m_stop_after;
    std::atomic<int> m_passes{0};
};

// Counts calls and remembers the thread and mask of the last one; runs
// `m_action` (on the loop's thread) when set.
class recorder_t : public io_handler_it {
public:
    void on_ready(io_handle_t handle, uint32_t events) override {
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            m_thread = std::this_thread::get_id();
        }
        m_events.store(events, std::memory_order_relaxed);
        m_handle.store(handle, std::memory_order_relaxed);
        m_calls.fetch_add(1, std::memory_order_acq_rel);
        if (m_action)
            m_action(handle, events);
    }
    int calls() const { return m_calls.load(std::memory_order_acquire); }

    std::function<void(io_handle_t, uint32_t)> m_action;
    std::thread::id thread() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_thread;
    }
    std::atomic<uint32_t> m_events{0};
    std::atomic<io_handle_t> m_handle{0};

private:
    std::atomic<int> m_calls{0};
    std::mutex m_mutex;
    std::thread::id m_thread;
};

// Runs repo.start() on a thread of its own and remembers that thread's id.
class loop_thread_t {
public:
    explicit loop_thread_t(io_repo_t& repo) {
        m_thread = std::thread([this, &repo] {
            {
                std::lock_guard<std::mutex> guard(m_mutex);
                m_id = std::this_thread::get_id();
            }
            m_result.store(repo.start(), std::memory_order_release);
        });
    }
    ~loop_thread_t() { join(); }
    int join() {
        if (m_thread.joinable())
            m_thread.join();
        return m_result.load(std::memory_order_acquire);
    }
    std::thread::id id() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_id;
    }

private:
    std::mutex m_mutex;
    std::thread::id m_id;
    std::atomic<int> m_result{-1};
    std::thread m_thread;
};

// ---- registration ---------------------------------------------------------------

TEST_F(IoRepo, SelectRegistrationMisuseGivesItsCodes) {
    select_t repo;
    recorder_t h;
    EXPECT_EQ(RESULT_INVALID_ARG, repo.add_fd(7, IO_READ, nullptr));
    EXPECT_EQ(RESULT_INVALID_ARG, repo.add_fd(7, 0, &h));
    EXPECT_EQ(RESULT_INVALID_ARG, repo.add_fd(7, 0x100, &h));
    EXPECT_EQ(RESULT_SUCCESS, repo.add_fd(7, IO_READ | IO_WRITE, &h));
    EXPECT_EQ(RESULT_ALREADY_EXISTS, repo.add_fd(7, IO_READ, &h));
    EXPECT_TRUE(repo.is_registered(7));
    EXPECT_EQ(RESULT_NOT_FOUND, repo.remove_fd(8));
    EXPECT_EQ(RESULT_SUCCESS, repo.remove_fd(7));
    EXPECT_EQ(RESULT_NOT_FOUND, repo.remove_fd(7));
    EXPECT_FALSE(repo.is_registered(7));
    EXPECT_EQ(0u, repo.count());
}

TEST_F(IoRepo, SelectHoldsAtMost1024Sockets) {
    EXPECT_EQ(1024u, select_t(5000).capacity());
    EXPECT_EQ(3u, select_t(3).capacity());
    select_t repo;
    ASSERT_TRUE(repo.is_valid());
    recorder_t h;
    // Registration does not touch the handles; the loop never runs here.
    for (io_handle_t i = 0; i < 1024; ++i)
        ASSERT_EQ(RESULT_SUCCESS, repo.add_fd(100000 + i, IO_READ, &h)) << i;
    EXPECT_EQ(0u, cap.count_matching("^select_t::add_fd register already full"));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, repo.add_fd(200000, IO_READ, &h));
    EXPECT_EQ(1u, cap.count_matching("^select_t::add_fd register already full"));
    EXPECT_EQ(1024u, repo.count());
    // A freed place can be taken again.
    EXPECT_EQ(RESULT_SUCCESS, repo.remove_fd(100000));
    EXPECT_EQ(RESULT_SUCCESS, repo.add_fd(200000, IO_READ, &h));
}

TEST_F(IoRepo, EventsHoldAtMost64Events) {
    events_t repo;
    recorder_t h;
    std::vector<std::unique_ptr<event_t>> events;
    for (int i = 0; i < 65; ++i)
        events.emplace_back(new event_t(false, false));
    for (int i = 0; i < 64; ++i)
        ASSERT_EQ(RESULT_SUCCESS, repo.add_event(*events[i], &h)) << i;
    EXPECT_EQ(0u, cap.count_matching("^events_t::add_fd register already full"));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, repo.add_event(*events[64], &h));
    EXPECT_EQ(1u, cap.count_matching("^events_t::add_fd register already full"));
    EXPECT_EQ(64u, repo.count());

    // The last place is waited on too, even though the wake-up event has no
    // room left.
    unsigned int index = 99;
    events[63]->signal();
    EXPECT_EQ(RESULT_SUCCESS, repo.wait(-1, &index, nullptr));
    EXPECT_EQ(63u, index);
    EXPECT_EQ(RESULT_BUSY, repo.wait(0, &index, nullptr));
}

// ---- events_t::wait ----------------------------------------------------------------

class EventsWait : public IoRepo {
protected:
    void SetUp() override {
        IoRepo::SetUp();
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(RESULT_SUCCESS, repo.add_event(autos[i], &h));
        ASSERT_EQ(RESULT_SUCCESS, repo.add_event(manual, &h));
    }
    events_t repo;
    recorder_t h;
    event_t autos[3];
    event_t manual{true, false};
};

TEST_F(EventsWait, NothingSignalledTimesOut) {
    unsigned int index = 99;
    EXPECT_EQ(RESULT_BUSY, repo.wait(0, &index, nullptr));
    // The time-out is the behaviour here; the bound is loose for coarse
    // system timers.
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(RESULT_BUSY, repo.wait(100, &index, nullptr));
    auto elapsed = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count(), 50);
    EXPECT_EQ(99u, index);
}

TEST_F(EventsWait, AutoResetIsReportedOnceAndConsumed) {
    unsigned int index = 99;
    autos[1].signal();
    EXPECT_EQ(RESULT_SUCCESS, repo.wait(-1, &index, nullptr));
    EXPECT_EQ(1u, index);
    EXPECT_EQ(RESULT_BUSY, repo.wait(0, &index, nullptr));
    // Consumed by the wait, so the event's own wait finds it reset.
    EXPECT_EQ(RESULT_BUSY, autos[1].wait(0));
}

TEST_F(EventsWait, LowestSignalledIndexWinsAndTheOtherStays) {
    unsigned int index = 99;
    autos[2].signal();
    autos[0].signal();
    EXPECT_EQ(RESULT_SUCCESS, repo.wait(-1, &index, nullptr));
    EXPECT_EQ(0u, index);
    EXPECT_EQ(RESULT_SUCCESS, repo.wait(-1, &index, nullptr));
    EXPECT_EQ(2u, index);
    EXPECT_EQ(RESULT_BUSY, repo.wait(0, &index, nullptr));
}

TEST_F(EventsWait, ManualResetStaysReportedUntilReset) {
    unsigned int index = 99;
    manual.signal();
    for (int i = 0; i < 3; ++i) {
        index = 99;
        EXPECT_EQ(RESULT_SUCCESS, repo.wait(0, &index, nullptr));
        EXPECT_EQ(3u, index);
    }
    manual.reset();
    EXPECT_EQ(RESULT_BUSY, repo.wait(0, &index, nullptr));
}

TEST_F(EventsWait, SignalFromAnotherThreadEndsAnUnlimitedWait) {
    unsigned int index = 99;
    std::thread signaller([this] { autos[2].signal(); });
    EXPECT_EQ(RESULT_SUCCESS, repo.wait(-1, &index, nullptr));
    EXPECT_EQ(2u, index);
    signaller.join();
}

TEST_F(EventsWait, DispatchCallsTheHandlerOfTheIndexUntilRemoved) {
    unsigned int index = 99;
    autos[1].signal();
    ASSERT_EQ(RESULT_SUCCESS, repo.wait(-1, &index, nullptr));
    EXPECT_EQ(RESULT_SUCCESS, repo.dispatch(index));
    EXPECT_EQ(1, h.calls());
    EXPECT_EQ(IO_READ, h.m_events.load());
    EXPECT_EQ(reinterpret_cast<io_handle_t>(autos[1].get_handle()), h.m_handle.load());
    EXPECT_EQ(RESULT_NOT_FOUND, repo.dispatch(4));
    // Removed after the wait: no call any more.
    EXPECT_EQ(RESULT_SUCCESS, repo.remove_fd(reinterpret_cast<io_handle_t>(autos[1].get_handle())));
    EXPECT_EQ(RESULT_NOT_FOUND, repo.dispatch(index));
    EXPECT_EQ(1, h.calls());
}

TEST_F(EventsWait, StopFromAnotherThreadInterruptsAWait) {
    std::atomic<bool> started{false};
    std::thread stopper([&] {
        wait_until([&] { return started.load(); });
        EXPECT_EQ(RESULT_NOTHING_TO_DO, repo.stop());  // no loop runs
    });
    started = true;
    stopper.join();
    // The wake-up of a stop outside a loop is harmless: at most one
    // interrupted wait, then time-outs.
    unsigned int index = 99;
    int rc = repo.wait(0, &index, nullptr);
    EXPECT_TRUE(rc == RESULT_BUSY || rc == RESULT_ABANDONED) << rc;
    EXPECT_EQ(RESULT_BUSY, repo.wait(0, &index, nullptr));
}

// ---- the loop -------------------------------------------------------------------------

TEST_F(IoRepo, ReadableSocketCallsItsHandlerOnTheLoopThread) {
    select_t repo;
    notifier_sock_t peer;  // a loopback pair: signal makes get_id() readable
    ASSERT_TRUE(peer.is_active());
    recorder_t h;
    h.m_action = [&](io_handle_t, uint32_t) {
        EXPECT_EQ(RESULT_SUCCESS, peer.wait(0, false));
        if (h.calls() == 2)
            repo.stop();
    };
    ASSERT_EQ(RESULT_SUCCESS, repo.add_fd(peer.get_id(), IO_READ, &h));
    hook_t hook;
    repo.set_process(&hook);
    ASSERT_EQ(RESULT_SUCCESS, peer.signal());
    loop_thread_t loop(repo);
    wait_until([&] { return h.calls() == 1; });
    ASSERT_EQ(RESULT_SUCCESS, peer.signal());
    EXPECT_EQ(RESULT_SUCCESS, loop.join());
    EXPECT_EQ(2, h.calls());
    EXPECT_EQ(loop.id(), h.thread());
    EXPECT_NE(std::this_thread::get_id(), h.thread());
    EXPECT_EQ(IO_READ, h.m_events.load());
    EXPECT_EQ(peer.get_id(), h.m_handle.load());
    EXPECT_EQ(1u, cap.count_matching("^select_t::loop \\(\\) begin with thread =[0-9]+, this = "));
    EXPECT_EQ(1u, cap.count_matching("^select_t::loop \\(\\) end with thread ="));
    EXPECT_FALSE(repo.is_running());
}

// More sockets than Windows' default select set (64) holds.
TEST_F(IoRepo, ManySocketsOnlyTheReadyOneIsCalled) {
    const int N = 150;
    select_t repo;
    std::vector<std::unique_ptr<notifier_sock_t>> peers;
    std::vector<recorder_t> handlers(N);
    for (int i = 0; i < N; ++i) {
        peers.emplace_back(new notifier_sock_t);
        ASSERT_TRUE(peers.back()->is_active()) << i;
        ASSERT_EQ(RESULT_SUCCESS, repo.add_fd(peers[i]->get_id(), IO_READ, &handlers[i]));
    }
    const int hit[] = {N - 1, 70, 0};
    int round = 0;
    for (int i : hit) {
        handlers[i].m_action = [&, i](io_handle_t, uint32_t) {
            EXPECT_EQ(RESULT_SUCCESS, peers[i]->wait(0, false));
            repo.stop();
        };
    }
    for (int i : hit) {
        ++round;
        ASSERT_EQ(RESULT_SUCCESS, peers[i]->signal());
        EXPECT_EQ(RESULT_SUCCESS, repo.start());
        EXPECT_EQ(1, handlers[i].calls()) << i;
        int total = 0;
        for (recorder_t& h : handlers)
            total += h.calls();
        EXPECT_EQ(round, total);
    }
}

TEST_F(IoRepo, WritableSocketReportsWriteOnly) {
    select_t repo;
    notifier_sock_t peer;
    ASSERT_TRUE(peer.is_active());
    recorder_t h;
    h.m_action = [&](io_handle_t, uint32_t) { repo.stop(); };
    // An idle connected socket can be written and has nothing to read.
    ASSERT_EQ(RESULT_SUCCESS, repo.add_fd(peer.get_id(), IO_WRITE, &h));
    loop_thread_t loop(repo);
    EXPECT_EQ(RESULT_SUCCESS, loop.join());
    EXPECT_EQ(1, h.calls());
    EXPECT_EQ(IO_WRITE, h.m_events.load());
}

TEST_F(IoRepo, RemovalInsideTheHandlerStopsTheCalls) {
    select_t repo;
    notifier_sock_t peer;
    recorder_t h;
    // The byte is never taken, so the socket stays readable: only the
    // removal keeps the handler from being called on every pass.
    h.m_action = [&](io_handle_t handle, uint32_t) { EXPECT_EQ(RESULT_SUCCESS, repo.remove_fd(handle)); };
    ASSERT_EQ(RESULT_SUCCESS, repo.add_fd(peer.get_id(), IO_READ, &h));
    hook_t hook(0, 5);
    hook.m_repo = &repo;
    repo.set_process(&hook);
    ASSERT_EQ(RESULT_SUCCESS, peer.signal());
    loop_thread_t loop(repo);
    EXPECT_EQ(RESULT_SUCCESS, loop.join());
    EXPECT_EQ(5, hook.passes());
    EXPECT_EQ(1, h.calls());
}

TEST_F(IoRepo, RemovalFromAnotherThreadWaitsOutTheLoopAndStopsTheCalls) {
    select_t repo;
    notifier_sock_t peer;
    recorder_t h;
    ASSERT_EQ(RESULT_SUCCESS, repo.add_fd(peer.get_id(), IO_READ, &h));
    hook_t hook(-1);
    repo.set_process(&hook);
    loop_thread_t loop(repo);
    wait_until([&] { return hook.passes() == 1; });
    // The loop sleeps (or is about to); the removal wakes it and returns
    // only once the next wait no longer holds the socket.
    EXPECT_EQ(RESULT_SUCCESS, repo.remove_fd(peer.get_id()));
    const int passes = hook.passes();
    EXPECT_GE(passes, 2);
    ASSERT_EQ(RESULT_SUCCESS, peer.signal());
    // A new handle added from here wakes the loop too and is served.
    notifier_sock_t other;
    recorder_t h2;
    h2.m_action = [&](io_handle_t, uint32_t) { repo.stop(); };
    ASSERT_EQ(RESULT_SUCCESS, other.signal());
    ASSERT_EQ(RESULT_SUCCESS, repo.add_fd(other.get_id(), IO_READ, &h2));
    EXPECT_EQ(RESULT_SUCCESS, loop.join());
    EXPECT_EQ(0, h.calls());
    EXPECT_EQ(1, h2.calls());
}

template <class repo_type>
void expect_stop_from_another_thread_ends_sleeping_loop() {
    repo_type repo;
    hook_t hook(-1);
    repo.set_process(&hook);
    loop_thread_t loop(repo);
    wait_until([&] { return hook.passes() == 1 && repo.is_running(); });
    EXPECT_EQ(RESULT_SUCCESS, repo.stop());
    EXPECT_EQ(RESULT_SUCCESS, loop.join());
    EXPECT_FALSE(repo.is_running());
    EXPECT_FALSE(repo.is_stopping());
    EXPECT_EQ(0u, repo.loop_thread());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, repo.stop());
}

TEST_F(IoRepo, StopFromAnotherThreadEndsASleepingSelectLoop) {
    expect_stop_from_another_thread_ends_sleeping_loop<select_t>();
}

TEST_F(IoRepo, StopFromAnotherThreadEndsASleepingEventsLoop) {
    expect_stop_from_another_thread_ends_sleeping_loop<events_t>();
    EXPECT_EQ(1u, cap.count_matching("^events_t::loop \\(\\) begin with thread ="));
    EXPECT_EQ(1u, cap.count_matching("^events_t::loop \\(\\) end with thread ="));
}

TEST_F(IoRepo, StopInsideAHandlerEndsTheLoopAfterIt) {
    events_t repo;
    event_t a(true, true), b(true, true);  // both stay signalled
    recorder_t ha, hb;
    ha.m_action = [&](io_handle_t, uint32_t) { EXPECT_EQ(RESULT_SUCCESS, repo.stop()); };
    ASSERT_EQ(RESULT_SUCCESS, repo.add_event(a, &ha));
    ASSERT_EQ(RESULT_SUCCESS, repo.add_event(b, &hb));
    EXPECT_EQ(RESULT_SUCCESS, repo.start());  // on this thread
    EXPECT_EQ(1, ha.calls());
    EXPECT_EQ(0, hb.calls());
    EXPECT_EQ(std::this_thread::get_id(), ha.thread());
}

TEST_F(IoRepo, SecondStartWhileRunningIsRefusedWithItsLine) {
    select_t repo;
    hook_t hook(-1);
    repo.set_process(&hook);
    loop_thread_t loop(repo);
    wait_until([&] { return hook.passes() == 1; });
    EXPECT_EQ(RESULT_ALREADY_EXISTS, repo.start());
    EXPECT_EQ(1u, cap.count_matching("^io_repo_t::start\\(\\), the thread already has been started"));
    EXPECT_NE(0u, repo.loop_thread());
    EXPECT_EQ(RESULT_SUCCESS, repo.stop());
    EXPECT_EQ(RESULT_SUCCESS, loop.join());
}

TEST_F(IoRepo, StopBeforeStartEndsTheNextLoopOnlyAndItCanRunAgain) {
    events_t repo;
    hook_t hook(0, 3);
    hook.m_repo = &repo;
    repo.set_process(&hook);
    EXPECT_EQ(RESULT_NOTHING_TO_DO, repo.stop());
    EXPECT_EQ(RESULT_SUCCESS, repo.start());
    EXPECT_EQ(0, hook.passes());
    EXPECT_EQ(RESULT_SUCCESS, repo.start());
    EXPECT_EQ(3, hook.passes());
}

TEST_F(IoRepo, AutoResetEventCallsOnceManualOnEveryPass) {
    events_t repo;
    event_t autoreset(false, true);
    event_t manual(true, true);
    recorder_t ha, hm;
    hm.m_action = [&](io_handle_t, uint32_t) {
        if (hm.calls() == 3)
            manual.reset();
    };
    ASSERT_EQ(RESULT_SUCCESS, repo.add_event(autoreset, &ha));
    ASSERT_EQ(RESULT_SUCCESS, repo.add_event(manual, &hm));
    hook_t hook(0, 8);
    hook.m_repo = &repo;
    repo.set_process(&hook);
    EXPECT_EQ(RESULT_SUCCESS, repo.start());
    // One event is reported per wait: pass 1 the auto-reset one, passes 2-4
    // the manual one until its handler resets it.
    EXPECT_EQ(1, ha.calls());
    EXPECT_EQ(3, hm.calls());
    EXPECT_EQ(IO_READ, ha.m_events.load());
}

// The processing hook runs once per pass: the first before any wait, then
// after each wake-up that the notifier handler consumed.
template <class repo_type, class notifier_type>
void expect_hook_runs_after_notifier_wakeup() {
    repo_type repo;
    notifier_type notifier;
    notifier_handler_t nh(&notifier, &repo);
    ASSERT_EQ(RESULT_SUCCESS, nh.attach());
    EXPECT_EQ(RESULT_ALREADY_EXISTS, nh.attach());
    std::atomic<int> posted{0};
    std::atomic<int> seen_at_pass[4] = {{-1}, {-1}, {-1}, {-1}};
    hook_t hook(-1);
    hook.m_before = [&](int pass) {
        if (pass <= 4)
            seen_at_pass[pass - 1] = posted.load();
        if (pass == 3)
            repo.stop();
    };
    repo.set_process(&hook);
    loop_thread_t loop(repo);
    wait_until([&] { return hook.passes() == 1; });
    for (int round = 1; round <= 2; ++round) {
        posted = round;  // "a message", seen by the hook after the wake-up
        ASSERT_EQ(RESULT_SUCCESS, notifier.signal());
        wait_until([&] { return hook.passes() == round + 1; });
        EXPECT_EQ(static_cast<uint64_t>(round), nh.wakeups());
    }
    EXPECT_EQ(RESULT_SUCCESS, loop.join());
    EXPECT_EQ(0, seen_at_pass[0].load());
    EXPECT_EQ(1, seen_at_pass[1].load());
    EXPECT_EQ(2, seen_at_pass[2].load());
    EXPECT_EQ(RESULT_SUCCESS, nh.detach());
    EXPECT_EQ(0u, repo.count());
}

TEST_F(IoRepo, HookRunsAfterSocketNotifierWakeUpInSelect) {
    expect_hook_runs_after_notifier_wakeup<select_t, notifier_sock_t>();
}

TEST_F(IoRepo, HookRunsAfterEventNotifierWakeUpInEvents) {
    expect_hook_runs_after_notifier_wakeup<events_t, notifier_event_t>();
}

TEST_F(IoRepo, NotifierHandlerRefusesAClosedNotifier) {
    select_t repo;
    notifier_sock_t notifier;
    notifier.close();
    notifier_handler_t nh(&notifier, &repo);
    EXPECT_EQ(RESULT_NOT_CREATED, nh.attach());
    EXPECT_EQ(RESULT_NOT_FOUND, nh.detach());
    notifier_handler_t none(nullptr, &repo);
    EXPECT_EQ(RESULT_INVALID_ARG, none.attach());
}

// ---- pipe_handler_t -----------------------------------------------------------------

class collecting_pipe_handler_t : public pipe_handler_t {
public:
    collecting_pipe_handler_t(pipe_t* pipe, io_repo_t* repo, size_t expected)
        : pipe_handler_t(pipe, repo), m_repo(repo), m_expected(expected) {}
    std::string m_data;
    int m_calls = 0;

protected:
    void on_data(const unsigned char* data, unsigned int size) override {
        ++m_calls;
        m_data.append(reinterpret_cast<const char*>(data), size);
        if (m_data.size() >= m_expected)
            m_repo->stop();
    }

private:
    io_repo_t* m_repo;
    size_t m_expected;
};

TEST_F(IoRepo, PipeHandlerDeliversTheBytesInOrderWherePipesCanBeWaitedOn) {
    select_t repo;
    pipe_t pipe;
    ASSERT_EQ(RESULT_SUCCESS, pipe.open());
    std::string sent;
    for (int i = 0; i < 10000; ++i)
        sent += static_cast<char>('a' + i % 26);
    collecting_pipe_handler_t h(&pipe, &repo, sent.size());
    if (!pipe_handler_t::is_supported()) {
        EXPECT_EQ(RESULT_REFUSED, h.attach());
        EXPECT_EQ(1u, cap.count_matching("^pipe_handler_t::attach\\(\\) pipes cannot be waited on here"));
        EXPECT_EQ(0u, repo.count());
        return;
    }
    ASSERT_EQ(RESULT_SUCCESS, h.attach());
    loop_thread_t loop(repo);
    size_t off = 0;
    while (off < sent.size()) {
        unsigned int done = 0;
        int rv = pipe.write(sent.data() + off, static_cast<unsigned int>(sent.size() - off), &done);
        ASSERT_TRUE(rv == RESULT_SUCCESS || rv == RESULT_BUSY) << rv;
        off += done;
        if (done == 0)
            std::this_thread::yield();
    }
    EXPECT_EQ(RESULT_SUCCESS, loop.join());
    EXPECT_EQ(sent, h.m_data);
    EXPECT_GE(h.m_calls, 1);
    EXPECT_EQ(RESULT_SUCCESS, h.detach());
}

TEST_F(IoRepo, PipeHandlerRefusesAClosedPipe) {
    select_t repo;
    pipe_t pipe;
    collecting_pipe_handler_t h(&pipe, &repo, 1);
    EXPECT_EQ(pipe_handler_t::is_supported() ? RESULT_NOT_CREATED : RESULT_REFUSED, h.attach());
}

}  // namespace

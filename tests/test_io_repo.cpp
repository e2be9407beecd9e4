#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "io_repo.h"
#include "test_support.h"

using namespace ssb;
using util_test::wait_until;

namespace {

[[maybe_unused]] const ::testing::Environment* const s_socket_env =
    ::testing::AddGlobalTestEnvironment(new util_test::socket_environment_t);

struct hook_t : io_process_it {
    int on_process() override {
        ++passes;
        return -1;
    }
    std::atomic<int> passes{0};
};

// Read thread and events only after the loop's thread has been joined.
struct recorder_t : io_handler_it {
    void on_ready(io_handle_t handle, uint32_t ready) override {
        thread = std::this_thread::get_id();
        events = ready;
        ++calls;
        if (action)
            action(handle);
    }
    std::atomic<int> calls{0};
    uint32_t events = 0;
    std::thread::id thread;
    std::function<void(io_handle_t)> action;
};

struct loop_thread_t {
    explicit loop_thread_t(io_repo_t& repo) : thread([this, &repo] { rc = repo.start(); }), id(thread.get_id()) {}
    ~loop_thread_t() {
        if (thread.joinable())
            thread.join();
    }
    int join() {
        thread.join();
        return rc;
    }
    std::atomic<int> rc{-1};
    std::thread thread;
    const std::thread::id id;
};

TEST(IoRepo, RegistrationMisuseGivesItsCodesAndTheTablesHoldTheirLimits) {
    select_t repo;
    recorder_t h;
    EXPECT_EQ(RESULT_INVALID_ARG, repo.add_fd(7, IO_READ, nullptr));
    EXPECT_EQ(RESULT_INVALID_ARG, repo.add_fd(7, 0, &h));
    EXPECT_EQ(RESULT_INVALID_ARG, repo.add_fd(7, 0x100, &h));
    EXPECT_EQ(RESULT_SUCCESS, repo.add_fd(7, IO_READ | IO_WRITE, &h));
    EXPECT_EQ(RESULT_ALREADY_EXISTS, repo.add_fd(7, IO_READ, &h));
    EXPECT_EQ(RESULT_SUCCESS, repo.remove_fd(7));
    EXPECT_EQ(RESULT_NOT_FOUND, repo.remove_fd(7));
    EXPECT_EQ(1024u, select_t(5000).capacity());
    for (io_handle_t i = 0; i < 1024; ++i)  // the loop never runs: handles are not touched
        ASSERT_EQ(RESULT_SUCCESS, repo.add_fd(100000 + i, IO_READ, &h)) << i;
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, repo.add_fd(200000, IO_READ, &h));
    EXPECT_EQ(RESULT_SUCCESS, repo.remove_fd(100000));
    EXPECT_EQ(RESULT_SUCCESS, repo.add_fd(200000, IO_READ, &h)) << "a freed place is taken again";
}

// Indexes 0-2 auto-reset, 3 manual-reset, 4-63 idle, then the table is full.
TEST(IoRepo, EventsWaitReportsTheLowestIndexConsumesAutoResetAndDispatches) {
    events_t repo;
    recorder_t h;
    event_t autos[3], manual{true, false}, rest[61];
    for (event_t& e : autos)
        ASSERT_EQ(RESULT_SUCCESS, repo.add_event(e, &h));
    ASSERT_EQ(RESULT_SUCCESS, repo.add_event(manual, &h));
    for (int i = 0; i < 60; ++i)
        ASSERT_EQ(RESULT_SUCCESS, repo.add_event(rest[i], &h)) << i;
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, repo.add_event(rest[60], &h)) << "64 at most";
    unsigned int index = 99;
    rest[59].signal();
    EXPECT_EQ(RESULT_SUCCESS, repo.wait(-1, &index, nullptr));
    EXPECT_EQ(63u, index) << "the last place is waited on though the wake-up event has no room";
    autos[2].signal();
    autos[0].signal();
    EXPECT_EQ(RESULT_SUCCESS, repo.wait(-1, &index, nullptr));
    EXPECT_EQ(0u, index);
    EXPECT_EQ(RESULT_SUCCESS, repo.wait(-1, &index, nullptr));
    EXPECT_EQ(2u, index);
    EXPECT_EQ(RESULT_BUSY, repo.wait(0, &index, nullptr));
    EXPECT_EQ(RESULT_BUSY, autos[2].wait(0)) << "the report consumed the auto-reset event";
    manual.signal();
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(RESULT_SUCCESS, repo.wait(0, &index, nullptr));
        EXPECT_EQ(3u, index) << "manual reset stays reported";
    }
    EXPECT_EQ(RESULT_SUCCESS, repo.dispatch(index));
    EXPECT_EQ(IO_READ, h.events);
    EXPECT_EQ(RESULT_NOT_FOUND, repo.dispatch(64));
    EXPECT_EQ(RESULT_SUCCESS, repo.remove_fd(reinterpret_cast<io_handle_t>(manual.get_handle())));
    EXPECT_EQ(RESULT_NOT_FOUND, repo.dispatch(index)) << "removed after the wait";
    EXPECT_EQ(1, h.calls.load());
}

TEST(IoRepo, EachAutoResetSignalWakesExactlyOneOfTwoWaits) {
    // Both waits sleep on the same event; a signal taken by one must send
    // the other back to sleep, not out of its wait. A manual-reset event
    // (index 1) ends both.
    event_t shared, stop(true, false);
    std::atomic<int> reports(0), wrong(0);
    auto waiter = [&] {
        events_t repo;
        recorder_t h;
        repo.add_event(shared, &h);
        repo.add_event(stop, &h);
        for (;;) {
            unsigned int index = 99;
            const int rv = repo.wait(-1, &index, nullptr);
            if (rv == RESULT_SUCCESS && index == 1)
                return;
            if (rv == RESULT_SUCCESS && index == 0)
                ++reports;
            else
                ++wrong;
        }
    };
    std::thread a(waiter), b(waiter);
    const int SIGNALS = 2000 / util_test::ROUNDS_SCALE;
    for (int i = 1; i <= SIGNALS; ++i) {
        shared.signal();
        UTIL_WAIT_UNTIL([&] { return reports.load() >= i; });
    }
    stop.signal();
    a.join();
    b.join();
    EXPECT_EQ(SIGNALS, reports.load());
    EXPECT_EQ(0, wrong.load());
}

// Bytes are never taken: only removal keeps a handler from every pass.
TEST(IoRepo, HandlersRunOnTheLoopThreadAndRemovalInsideOrOutsideStopsTheCalls) {
    select_t repo;
    notifier_sock_t idle, outside, late;  // loopback pairs: signal makes get_id() readable
    recorder_t w, ho, hl;
    w.action = [&](io_handle_t handle) { EXPECT_EQ(RESULT_SUCCESS, repo.remove_fd(handle)); };
    ASSERT_EQ(RESULT_SUCCESS, repo.add_fd(idle.get_id(), IO_WRITE, &w));
    ASSERT_EQ(RESULT_SUCCESS, repo.add_fd(outside.get_id(), IO_READ, &ho));
    loop_thread_t loop(repo);
    UTIL_WAIT_UNTIL([&] { return w.calls == 1; });
    EXPECT_EQ(RESULT_SUCCESS, repo.remove_fd(outside.get_id())) << "returns once no pass can use it";
    ASSERT_EQ(RESULT_SUCCESS, outside.signal());
    hl.action = [&](io_handle_t) { repo.stop(); };
    ASSERT_EQ(RESULT_SUCCESS, late.signal());
    ASSERT_EQ(RESULT_SUCCESS, repo.add_fd(late.get_id(), IO_READ, &hl)) << "an add wakes the loop too";
    EXPECT_EQ(RESULT_SUCCESS, loop.join());
    EXPECT_EQ(1, w.calls.load());
    EXPECT_EQ(IO_WRITE, w.events) << "an idle connected socket is writable only";
    EXPECT_EQ(0, ho.calls.load());
    EXPECT_EQ(1, hl.calls.load());
    EXPECT_EQ(IO_READ, hl.events);
    EXPECT_EQ(loop.id, hl.thread);
    EXPECT_EQ(loop.id, w.thread);
}

template <class repo_type>
void expect_stop_ends_a_sleeping_loop() {
    repo_type repo;
    hook_t hook;
    repo.set_process(&hook);
    loop_thread_t loop(repo);
    UTIL_WAIT_UNTIL([&] { return hook.passes == 1 && repo.is_running(); });
    EXPECT_EQ(RESULT_ALREADY_EXISTS, repo.start());
    EXPECT_EQ(RESULT_SUCCESS, repo.stop());
    EXPECT_EQ(RESULT_SUCCESS, loop.join());
    const int passes = hook.passes;
    EXPECT_EQ(0u, repo.loop_thread());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, repo.stop());
    EXPECT_EQ(RESULT_SUCCESS, repo.start());
    EXPECT_EQ(passes, hook.passes.load());
}

TEST(IoRepo, StopEndsASleepingLoopSecondStartIsRefusedEarlyStopEndsTheNextStart) {
    expect_stop_ends_a_sleeping_loop<select_t>();
    expect_stop_ends_a_sleeping_loop<events_t>();
}

// The hook runs first before any wait, then after each wake-up that the
// notifier handler consumed: a message posted with a signal is never stranded.
template <class repo_type, class notifier_type>
void expect_hook_runs_after_notifier_wakeup() {
    repo_type repo;
    notifier_type notifier;
    notifier_handler_t nh(&notifier, &repo);
    ASSERT_EQ(RESULT_SUCCESS, nh.attach());
    EXPECT_EQ(RESULT_ALREADY_EXISTS, nh.attach());
    hook_t hook;
    repo.set_process(&hook);
    loop_thread_t loop(repo);
    for (int round = 1; round <= 2; ++round) {
        UTIL_WAIT_UNTIL([&] { return hook.passes == round; });
        EXPECT_EQ(round - 1u, nh.wakeups());
        ASSERT_EQ(RESULT_SUCCESS, notifier.signal());
    }
    UTIL_WAIT_UNTIL([&] { return hook.passes == 3; });
    EXPECT_EQ(RESULT_SUCCESS, repo.stop());
    EXPECT_EQ(RESULT_SUCCESS, loop.join());
    EXPECT_EQ(2u, nh.wakeups());
    EXPECT_EQ(RESULT_SUCCESS, nh.detach());
}

TEST(IoRepo, HookRunsAfterEachNotifierWakeUp) {
    expect_hook_runs_after_notifier_wakeup<select_t, notifier_sock_t>();
    expect_hook_runs_after_notifier_wakeup<events_t, notifier_event_t>();
    select_t repo;
    notifier_sock_t closed;
    closed.close();
    EXPECT_EQ(RESULT_NOT_CREATED, notifier_handler_t(&closed, &repo).attach());
    EXPECT_EQ(RESULT_INVALID_ARG, notifier_handler_t(nullptr, &repo).attach());
}

struct collecting_pipe_handler_t : pipe_handler_t {
    collecting_pipe_handler_t(pipe_t* pipe, io_repo_t* owner) : pipe_handler_t(pipe, owner), repo(owner) {}
    void on_data(const unsigned char* data, unsigned int size) override {
        received.append(reinterpret_cast<const char*>(data), size);
        if (received.size() >= 10000)
            repo->stop();
    }
    io_repo_t* repo;
    std::string received;
};

TEST(IoRepo, PipeHandlerDeliversTheBytesInOrderWherePipesCanBeWaitedOn) {
    select_t repo;
    pipe_t pipe;
    std::string sent;  // several read chunks of 4 KiB
    for (int i = 0; i < 10000; ++i)
        sent += static_cast<char>('a' + i % 26);
    collecting_pipe_handler_t h(&pipe, &repo);
    const bool supported = pipe_handler_t::is_supported();
    EXPECT_EQ(supported ? RESULT_NOT_CREATED : RESULT_REFUSED, h.attach());
    if (!supported)
        return;
    ASSERT_EQ(RESULT_SUCCESS, pipe.open());
    ASSERT_EQ(RESULT_SUCCESS, h.attach());
    loop_thread_t loop(repo);
    unsigned int done = 0;
    ASSERT_EQ(RESULT_SUCCESS, pipe.write(sent.data(), static_cast<unsigned int>(sent.size()), &done));
    ASSERT_EQ(sent.size(), done) << "a pipe holds at least 16 KiB";
    EXPECT_EQ(RESULT_SUCCESS, loop.join());
    EXPECT_EQ(sent, h.received);
}

}  // namespace

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "notifier.h"
#include "platform/platform.h"
#include "test_log_support.h"
#include "test_support.h"
#include "test_thread_support.h"
#include "thread_event.h"
#include "thread_mgr.h"
#include "timer.h"
#include "util.h"

using namespace ssb;

namespace {

using util_test::fn_msg_t;
using util_test::run_on;

class ThreadMgr : public util_test::thread_test_t {};

TEST_F(ThreadMgr, StartWrapsTheMainThreadAndOneTimerDriverThatSpawnNeverDuplicatesUntilDestroy) {
    thread_wrapper_t* main_thr = m_mgr->find_by_type(THREAD_TYPE_MAIN);
    ASSERT_NE(nullptr, main_thr);
    EXPECT_EQ(get_cur_tid(), main_thr->get_id());
    EXPECT_EQ(main_thr, thread_wrapper_t::self());
    EXPECT_EQ(main_thr, m_mgr->find_by_id(get_cur_tid()));
    thread_wrapper_t* timer = m_mgr->find_by_type(THREAD_TYPE_TIMER);
    ASSERT_NE(nullptr, timer);
    EXPECT_EQ("orca.timer.do", timer->name());
    EXPECT_NE(timer->get_id(), main_thr->get_id());
    // The driver keeps the cached clocks while it runs.
    EXPECT_TRUE(ticks_drv_t::s_start.load());
    EXPECT_TRUE(times_drv_t::s_start.load());
    // Every thread is bound to the timer driver.
    EXPECT_TRUE(main_thr->is_available(timer));
    EXPECT_EQ(RESULT_ALREADY_EXISTS, thread_mgr_t::reset());
    // Spawn keeps one timer driver and one wrapper per thread, and needs a mode.
    EXPECT_EQ(timer, m_mgr->spawn(THREAD_MODE_EVENT, 64, THREAD_TYPE_TIMER, false, nullptr, 0));
    EXPECT_EQ(main_thr, m_mgr->spawn(THREAD_MODE_WRAP, 64, 7, false, nullptr, 0));
    EXPECT_EQ(nullptr, m_mgr->spawn(0, 64, 7, false, nullptr, 0));
    EXPECT_EQ(RESULT_ALREADY_EXISTS, m_mgr->attach(main_thr, nullptr, 0));

    // A light thread runs its function and is not registered.
    const unsigned int before = m_mgr->count();
    thread_base_t* light = m_mgr->spawn_light([](void*) {}, nullptr, 0, 0);
    ASSERT_NE(nullptr, light);
    EXPECT_EQ(before, m_mgr->count());
    EXPECT_EQ(RESULT_SUCCESS, light->stop());
    delete light;
    EXPECT_EQ(nullptr, m_mgr->spawn_light(nullptr, nullptr, 0, 0));

    // Destroy stops everything; reset makes a fresh manager.
    main_thr->increment();
    thread_mgr_t::destroy();
    EXPECT_EQ(nullptr, thread_mgr_t::instance());
    EXPECT_FALSE(ticks_drv_t::s_start.load());
    EXPECT_TRUE(main_thr->is_stopped());
    main_thr->decrement();
    EXPECT_EQ(nullptr, thread_wrapper_t::self());
    EXPECT_EQ(RESULT_SUCCESS, thread_mgr_t::reset());
    m_mgr = thread_mgr_t::instance();
    ASSERT_NE(nullptr, m_mgr);
    EXPECT_EQ(before, m_mgr->count());
    thread_wrapper_t* new_main = m_mgr->find_by_type(THREAD_TYPE_MAIN);
    ASSERT_NE(nullptr, new_main);
    EXPECT_TRUE(new_main->is_running());
    EXPECT_EQ(new_main, thread_wrapper_t::self());
    ASSERT_NE(nullptr, m_mgr->find_by_type(THREAD_TYPE_TIMER));
    EXPECT_TRUE(m_mgr->find_by_type(THREAD_TYPE_TIMER)->is_running());
}

TEST_F(ThreadMgr, ADeferredDetachHappensWhenTheChosenLoopRunsIt) {
    thread_wrapper_t* extra = m_mgr->spawn(THREAD_MODE_EVENT, 64, 9, false, nullptr, 0);
    ASSERT_NE(nullptr, extra);
    ASSERT_EQ(RESULT_SUCCESS, m_mgr->detach_deferred(extra, nullptr));
    EXPECT_EQ(extra, m_mgr->find_by_type(9));
    EXPECT_EQ(RESULT_SUCCESS, main_heartbeat());
    EXPECT_EQ(nullptr, m_mgr->find_by_type(9));
    EXPECT_EQ(RESULT_NOT_FOUND, m_mgr->detach(extra));
    EXPECT_TRUE(m_log.contains("has not been in the queue"));
    // Still running: the manager stops it when it goes (the fixture's
    // live-object check proves it is freed).
}

TEST_F(ThreadMgr, MainHeartbeatRunsTheMainQueueOnTheMainThreadOnly) {
    thread_wrapper_t* main_thr = m_mgr->find_by_type(THREAD_TYPE_MAIN);
    std::atomic<int> ran(0);
    int from_worker = -1;
    // A thread the manager does not know posts to the control queue.
    std::thread worker([&] {
        for (int i = 0; i < 3; ++i)
            main_thr->post_msg(new fn_msg_t([&] { ++ran; }), nullptr);
        from_worker = main_heartbeat();
    });
    worker.join();
    EXPECT_EQ(RESULT_REFUSED, from_worker);
    EXPECT_EQ(0, ran.load());
    EXPECT_EQ(RESULT_SUCCESS, main_heartbeat());
    EXPECT_EQ(3, ran.load());
    // Cached now: a worker is refused with the message form.
    std::thread([&] { from_worker = main_heartbeat(); }).join();
    EXPECT_EQ(RESULT_REFUSED, from_worker);
    EXPECT_TRUE(m_log.contains("assert: msg[main_heartbeat should in main thread, main_thr->get_id() = "));
    EXPECT_TRUE(m_log.contains("file[util], line = [224]"));
}

TEST(MainHeartbeat, BeforeInitOrWithoutAManagerReturns9) {
    EXPECT_EQ(RESULT_NOTHING_TO_DO, main_heartbeat());
    // A manager made before util_init: the heartbeat is still refused, and
    // the main thread's queue is left alone.
    util_test::text_capture_t log;
    util_test::capture_util_log(&log);
    thread_mgr_t::reset();
    thread_wrapper_t* main_thr = thread_mgr_t::instance()->find_by_type(THREAD_TYPE_MAIN);
    ASSERT_NE(nullptr, main_thr);
    std::atomic<int> ran(0);
    std::thread([&] { main_thr->post_msg(new fn_msg_t([&] { ++ran; }), nullptr); }).join();
    EXPECT_EQ(RESULT_NOTHING_TO_DO, main_heartbeat());
    EXPECT_EQ(0, ran.load());
    EXPECT_TRUE(log.contains("assert: file[util], line = [209]"));
    thread_mgr_t::destroy();
    util_test::restore_log_routing();
    EXPECT_EQ(0, util_test::live_fn_msgs().load());
    thread_mgr_t::reset();
    util_init(1, nullptr, nullptr, nullptr, 0, 0);
    thread_mgr_t::destroy();
    EXPECT_EQ(RESULT_NOTHING_TO_DO, main_heartbeat());
    util_uninit(1);
}

// Records the thread a readable socket was reported on, and consumes it.
class reader_t : public io_handler_it {
public:
    explicit reader_t(notifier_sock_t* sock) : m_sock(sock) {}
    void on_ready(io_handle_t, uint32_t events) override {
        if (events & IO_READ)
            m_sock->wait(0, false);
        m_tid = get_cur_tid();
        ++m_calls;
    }
    notifier_sock_t* m_sock;
    std::atomic<unsigned int> m_tid{0};
    std::atomic<int> m_calls{0};
};

TEST_F(ThreadMgr, AnIoThreadCallsItsSocketHandlerOnItsOwnThread) {
    thread_wrapper_t* thr = m_mgr->spawn(THREAD_MODE_IO, 64, 50, false, nullptr, 0);
    ASSERT_NE(nullptr, thr);
    thread_io_t* io = dynamic_cast<thread_io_t*>(thr);
    ASSERT_NE(nullptr, io);
    notifier_sock_t sock;
    ASSERT_TRUE(sock.is_active());
    reader_t reader(&sock);
    int rv = -1;
    run_on(io, [&] { rv = io->repo()->add_fd(sock.get_id(), IO_READ, &reader); });
    ASSERT_EQ(RESULT_SUCCESS, rv);
    sock.signal();
    UTIL_WAIT_UNTIL([&] { return reader.m_calls.load() >= 1; });
    EXPECT_EQ(io->get_id(), reader.m_tid.load());
    // Messages still flow between the waits.
    run_on(io, [&] { rv = io->repo()->remove_fd(sock.get_id()); });
    EXPECT_EQ(RESULT_SUCCESS, rv);

    const unsigned int id = io->get_id();
    EXPECT_EQ(1, m_mgr->stop_threads_by_type(50));
    EXPECT_EQ(nullptr, m_mgr->find_by_type(50));
    EXPECT_EQ(0, m_mgr->stop_thread_by_id(id));
}

TEST_F(ThreadMgr, StoppingAnEventThreadTwiceAndAnUnservedIoMode) {
    thread_wrapper_t* thr = m_mgr->spawn(THREAD_MODE_EVENT, 64, 51, false, nullptr, 0);
    ASSERT_NE(nullptr, thr);
    thr->increment();
    EXPECT_EQ(0u, thr->start(nullptr, nullptr, 0, 0));
    EXPECT_TRUE(thr->is_running());
    EXPECT_EQ(RESULT_SUCCESS, thr->stop());
    EXPECT_EQ(RESULT_NOTHING_TO_DO, thr->stop());
    EXPECT_TRUE(m_log.contains("assert: file[thread_event], line = [132]"));
    thr->decrement();

    // An I/O thread without mode bit 1 ends at once, refusing later stops.
    thread_io_t* io = new thread_io_t(0x10, 52, 64, nullptr, 1, false, nullptr);
    io->increment();
    io->open_notifier(1);
    ASSERT_NE(0u, io->start(nullptr, nullptr, 0, 0));
    UTIL_WAIT_UNTIL([&] { return io->has_ended(); });
    EXPECT_TRUE(m_log.contains("has been not supported"));
    EXPECT_EQ(RESULT_NOTHING_TO_DO, io->stop());
    io->decrement();
}

TEST_F(ThreadMgr, ALoopThatCouldNeverBeWokenIsNotSpawned) {
    if (!ssb::plat::descriptor_limit_supported())
        GTEST_SKIP() << "this system has no descriptor limit to lower";
    const unsigned long saved = ssb::plat::descriptor_limit();
    const int first_free = ssb::plat::lowest_free_descriptor();
    ASSERT_GT(first_free, 0);
    // No descriptor left: the I/O thread's socket-pair notifier cannot open.
    ASSERT_EQ(0, ssb::plat::set_descriptor_limit(static_cast<unsigned long>(first_free)));
    ssb::thread_wrapper_t* io = m_mgr->spawn(ssb::THREAD_MODE_IO, 256, 110, false, nullptr, 0xFFFFFFFFu);
    ASSERT_EQ(0, ssb::plat::set_descriptor_limit(saved));
    EXPECT_EQ(nullptr, io);
    EXPECT_TRUE(m_log.contains("failed to open the wake-up notifier"));
    EXPECT_EQ(first_free, ssb::plat::lowest_free_descriptor()) << "a descriptor was left behind";
    EXPECT_EQ(nullptr, m_mgr->find_by_type(110));
}

// The last util_uninit from a thread other than the main one, from inside a
// loop's own message, and while a loop is stuck in a message. Each starts
// the library itself, so that it can end it where it likes.
class ShutDown : public ::testing::Test {
protected:
    void SetUp() override {
        util_test::warm_up_library();
        m_threads = ssb::plat::os_thread_count();
        m_handles = ssb::plat::open_handle_count();
    }
    thread_mgr_t* start() {
        thread_mgr_t::reset();
        util_init(1, nullptr, nullptr, nullptr, 0, 0);
        util_test::capture_util_log(&m_log);
        return thread_mgr_t::instance();
    }
    // Everything the library made is gone: objects, OS threads and
    // descriptors (the threads it could not join end by themselves).
    void expect_all_gone() {
        UTIL_WAIT_UNTIL([] { return ssb::live_thread_wrappers() == 0; });
        UTIL_WAIT_UNTIL([] { return ssb::live_msg_queues() == 0; });
        UTIL_WAIT_UNTIL([] { return util_test::live_fn_msgs().load() == 0; });
        if (m_threads >= 0) {
            UTIL_WAIT_UNTIL([&] { return ssb::plat::os_thread_count() == m_threads; });
        }
        if (m_handles >= 0) {
            UTIL_WAIT_UNTIL([&] { return ssb::plat::open_handle_count() == m_handles; });
        }
    }
    void TearDown() override { util_test::restore_log_routing(); }

    util_test::text_capture_t m_log;
    int m_threads = -1;
    int m_handles = -1;
};

TEST_F(ShutDown, TheLastUninitOnAnotherThreadFreesTheMainLoopEveryCycle) {
    for (int cycle = 0; cycle < 3; ++cycle) {
        thread_mgr_t* mgr = start();
        ASSERT_NE(nullptr, mgr);
        thread_wrapper_t* main_thr = mgr->find_by_type(THREAD_TYPE_MAIN);
        thread_wrapper_t* worker = mgr->spawn(THREAD_MODE_EVENT, 64, 120, false, nullptr, 0);
        ASSERT_TRUE(main_thr && worker);
        ASSERT_EQ(RESULT_SUCCESS, main_thr->create_channel(worker, 32, 32));
        // Something queued for the main thread, which never pumps again.
        run_on(worker, [&] { EXPECT_EQ(RESULT_SUCCESS, main_thr->post_msg(new fn_msg_t([] {}), nullptr)); });
        ASSERT_EQ(RESULT_SUCCESS, main_heartbeat());
        main_thr->post_msg(new fn_msg_t([] {}), nullptr);
        std::thread([] { util_uninit(1); }).join();
        EXPECT_TRUE(m_log.contains("thread_wrapper_t::stop_i taken over from outside")) << "cycle " << cycle;
        expect_all_gone();
        // The main thread's stale slot names nothing now.
        EXPECT_EQ(nullptr, thread_wrapper_t::self());
        EXPECT_EQ(RESULT_NOTHING_TO_DO, main_heartbeat());
    }
}

TEST_F(ShutDown, TheLastUninitFromInsideALoopsMessageFreesThatLoopAndItsThread) {
    thread_mgr_t* mgr = start();
    ASSERT_NE(nullptr, mgr);
    thread_wrapper_t* worker = mgr->spawn(THREAD_MODE_EVENT, 64, 121, false, nullptr, 0);
    thread_wrapper_t* other = mgr->spawn(THREAD_MODE_IO, 64, 122, false, nullptr, 0);
    ASSERT_TRUE(worker && other);
    ASSERT_EQ(RESULT_SUCCESS, worker->create_channel(other, 32, 32));
    std::atomic<bool> returned(false);
    fn_msg_t* last = new fn_msg_t([&] {
        util_uninit(1);
        returned = true;
    });
    ASSERT_EQ(RESULT_SUCCESS, worker->post_ctrl_msg(last, nullptr));
    UTIL_WAIT_UNTIL([&] { return returned.load(); });
    EXPECT_EQ(nullptr, thread_mgr_t::instance());
    expect_all_gone();
}

TEST_F(ShutDown, UninitAbandonsALoopStuckInAMessageAndNamesIt) {
    thread_mgr_t* mgr = start();
    ASSERT_NE(nullptr, mgr);
    thread_wrapper_t* stuck =
        mgr->spawn(THREAD_MODE_EVENT, 64, 123, false, reinterpret_cast<const signed char*>("soak.stuck"), 0);
    ASSERT_NE(nullptr, stuck);
    std::atomic<bool> gate(false), inside(false);
    fn_msg_t* held = new fn_msg_t([&] {
        inside = true;
        util_test::wait_until("the gate to open", [&] { return gate.load(); });
    });
    ASSERT_EQ(RESULT_SUCCESS, stuck->post_ctrl_msg(held, nullptr));
    UTIL_WAIT_UNTIL([&] { return inside.load(); });
    // Returns although the loop never answers while it runs.
    util_uninit(1);
    EXPECT_TRUE(m_log.contains("thread_mgr_t::~thread_mgr_t() abandons thr = "));
    EXPECT_TRUE(m_log.contains("name = soak.stuck: its loop did not stop within 1000 ms"));
    // It lives on (with the peers its channels hold) until it can stop.
    EXPECT_LT(0, ssb::live_thread_wrappers());
    // Once its message returns, the loop stops and frees itself.
    gate = true;
    expect_all_gone();
}

}  // namespace

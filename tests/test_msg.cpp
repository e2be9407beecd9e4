#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "lock.h"
#include "log.h"
#include "memlog.h"
#include "msg.h"
#include "ring_queue.h"
#include "test_support.h"
#include "timer.h"

using namespace ssb;

namespace {

struct line_t {
    unsigned int module, level;
    std::string text;
};

class capture_t : public log_it {
public:
    int cout(unsigned int module_id, unsigned int level, signed char* text, unsigned int length) override {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.push_back(line_t{module_id, level, std::string(reinterpret_cast<char*>(text), length)});
        return 0;
    }
    std::vector<line_t> lines(unsigned int only_level = 0) {
        std::lock_guard<std::mutex> guard(m_mutex);
        std::vector<line_t> out;
        for (const line_t& l : m_lines)
            if (!only_level || l.level == only_level)
                out.push_back(l);
        return out;
    }

private:
    std::mutex m_mutex;
    std::vector<line_t> m_lines;
};

// What follows the header's fourth TAB.
std::string message_of(const std::string& line) {
    size_t pos = 0;
    for (int tabs = 0; tabs < 4 && pos != std::string::npos; ++tabs)
        pos = line.find('\t', tabs == 0 ? 0 : pos + 1);
    return pos == std::string::npos ? line : line.substr(pos + 1);
}

std::string text_of(const void* p) {
    signed char buf[32];
    text_stream_t s(buf, sizeof buf);
    s << p;
    return reinterpret_cast<char*>(buf);
}

int SSB_STDCALL collect(void* context, signed char* text, unsigned int length) {
    static_cast<std::string*>(context)->assign(reinterpret_cast<char*>(text), length);
    return 0;
}

std::string mem_log_text() {
    std::string out;
    if (mem_log_file* m = mem_log_file::instance(DEFAULT_MEM_LOG_SIZE))
        m->dump(&out, collect);
    return out;
}

struct counters_t {
    std::atomic<int> created{0}, destroyed{0}, ran{0}, wrappers_destroyed{0};
    std::atomic<unsigned int> last_wrapper_destroyer{0};
};
counters_t g_count;

class counted_msg_t : public msg_it {
public:
    explicit counted_msg_t(MSG_TYPE type = MSG_TYPE_PLAIN, unsigned int load = 1,
                           unsigned int timeout = MSG_TIMEOUT_NEVER, bool lockable = false)
        : msg_it(type, load, timeout, lockable) {
        ++g_count.created;
    }
    counted_msg_t(const counted_msg_t& other) : msg_it(other) { ++g_count.created; }
    counted_msg_t& operator=(const counted_msg_t& other) = default;
    void on_message() override { ++g_count.ran; }

protected:
    ~counted_msg_t() override { ++g_count.destroyed; }
};

class counted_sync_t : public sync_msg_t {
public:
    explicit counted_sync_t(msg_it* msg) : sync_msg_t(msg) {}

protected:
    ~counted_sync_t() override {
        g_count.last_wrapper_destroyer = get_cur_tid();
        ++g_count.wrappers_destroyed;
    }
};

// Drives the tick clock by hand, routes module 1 to a capture, starts with
// no memory log, and checks every message created was destroyed once.
class Msg : public ::testing::Test {
protected:
    void SetUp() override {
        m_saved_start = ticks_drv_t::s_start.load();
        m_saved_tag = ticks_drv_t::s_tag.load();
        set_now(1000);
        ticks_drv_t::s_start.store(true);
        log_control_t::destroy();
        log_control_t::set_default_logger(nullptr);
        log_control_t::set_default_mask(LOG_TO_HANDLE);
        register_logger_handle(&cap, LOG_TO_HANDLE);
        register_logger(UTIL_MODULE_ID, "UTIL", 31, nullptr, LOG_TO_HANDLE);
        mem_log_file::reset(true);
        g_count.created = g_count.destroyed = g_count.ran = g_count.wrappers_destroyed = 0;
        g_count.last_wrapper_destroyer = 0;
    }
    void TearDown() override {
        EXPECT_EQ(g_count.created.load(), g_count.destroyed.load()) << "messages leaked or destroyed twice";
        ticks_drv_t::s_tag.store(m_saved_tag);
        ticks_drv_t::s_start.store(m_saved_start);
        log_control_t::destroy();
        log_control_t::set_default_logger(nullptr);
        log_control_t::set_default_mask(LOG_TO_FILE | LOG_TO_HANDLE);
        mem_log_file::reset(true);
    }
    static void set_now(uint32_t tick) { ticks_drv_t::s_tag.store(tick); }
    std::vector<line_t> warnings() { return cap.lines(LOG_WARNING); }

    capture_t cap;

private:
    bool m_saved_start = false;
    uint32_t m_saved_tag = 0;
};

TEST_F(Msg, DefaultsAndStoredFieldsAndTheCreationTickWhichCopiesKeep) {
    set_now(4242);
    counted_msg_t* plain = new counted_msg_t;
    EXPECT_EQ(MSG_TYPE_PLAIN, plain->get_type());
    EXPECT_EQ(1u, plain->load());
    EXPECT_EQ(MSG_TIMEOUT_NEVER, plain->get_timeout());
    EXPECT_FALSE(plain->is_lockable());
    EXPECT_EQ(4242u, plain->get_ticks());
    EXPECT_EQ(nullptr, plain->query_interface(IID_SYNC_MSG));

    set_now(7);
    counted_msg_t* host = new counted_msg_t(static_cast<MSG_TYPE>(2), 9, 250, true);
    EXPECT_TRUE(static_cast<uint32_t>(host->get_type()) == 2u && host->load() == 9u && host->get_timeout() == 250u && host->is_lockable());
    EXPECT_EQ(7u, host->get_ticks());

    set_now(9000);
    counted_msg_t* copy = new counted_msg_t(*host);
    EXPECT_EQ(7u, copy->get_ticks());
    *copy = *plain;
    EXPECT_EQ(4242u, copy->get_ticks());
    plain->release();
    host->release();
    copy->release();
}

TEST(MsgAge, PlainDifferenceAndOneLessAcrossTheWrap) {
    const struct {
        uint32_t stamp, now, age;
    } cases[] = {
        {100, 100, 0},           {100, 5100, 5000},         {0, 0xFFFFFFFFu, 0xFFFFFFFFu},
        {0xFFFFFFF0u, 0x10, 0x1F}, {0xFFFFFFFFu, 0, 0},     {1, 0, 0xFFFFFFFEu},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.age, msg_it::age_of(c.stamp, c.now)) << std::hex << c.stamp << " -> " << c.now;
}

TEST_F(Msg, OvertimeIsStrictlyGreaterThanTheTimeOut) {
    const struct {
        uint32_t stamp, timeout, now;
        bool overtime;
    } cases[] = {
        {1000, 0, 1000, false},
        {1000, 0, 1001, true},
        {1000, 5000, 6000, false},
        {1000, 5000, 6001, true},
        {1000, MSG_TIMEOUT_NEVER, 999, false},
        {0xFFFFFFF0u, 0x1F, 0x10, false},
        {0xFFFFFFF0u, 0x1F, 0x11, true},
    };
    for (const auto& c : cases) {
        set_now(c.stamp);
        counted_msg_t* m = new counted_msg_t(MSG_TYPE_PLAIN, 1, c.timeout);
        set_now(c.now);
        EXPECT_EQ(c.overtime, m->overtime()) << c.stamp << " + " << c.timeout << " at " << c.now;
        set_now(c.stamp);
        m->release();
    }
}

TEST_F(Msg, ReleasedAfterMoreThanFiveSecondsWarnsInTheRegistryAndTheMemoryLog) {
    counted_msg_t* quiet = new counted_msg_t;
    counted_msg_t* loud = new counted_msg_t(static_cast<MSG_TYPE>(2));
    const std::string self = text_of(loud);
    set_now(6000);
    quiet->release();
    EXPECT_TRUE(warnings().empty());
    EXPECT_EQ("", mem_log_text());
    set_now(6001);
    loud->release();
    EXPECT_EQ(2, g_count.destroyed.load());

    const std::vector<line_t> lines = warnings();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(UTIL_MODULE_ID, lines[0].module);
    EXPECT_EQ("msg_it::release the message stay in message queue over 5s, used = 5001 m_ticks =1000, now = 6001, "
              "type = 2, this = " + self + "\n",
              message_of(lines[0].text));
    EXPECT_TRUE(std::regex_search(lines[0].text, std::regex("\tUTIL\t\\[[0-9]+:[0-9]+\\]\tWARNING\t")))
        << lines[0].text;
    // The memory log, asked for at 8 MiB, holds the same line byte for byte.
    EXPECT_EQ(lines[0].text, mem_log_text());
    EXPECT_EQ(DEFAULT_MEM_LOG_SIZE, mem_log_file::instance(0)->size_limit());
}

TEST_F(Msg, OverStayUsesTheWrapRule) {
    // 5002 ticks across the wrap is an age of 5001, 5001 ticks only 5000.
    set_now(0xFFFFFFF0u);
    counted_msg_t* quiet = new counted_msg_t;
    counted_msg_t* loud = new counted_msg_t(MSG_TYPE_TIMER_TICK);
    const std::string self = text_of(loud);
    set_now(0xFFFFFFF0u + 5001u);
    quiet->release();
    EXPECT_TRUE(warnings().empty());
    set_now(0xFFFFFFF0u + 5002u);
    loud->release();
    const std::vector<line_t> lines = warnings();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("msg_it::release the message stay in message queue over 5s, used = 5001 m_ticks =4294967280, "
              "now = 4986, type = 6, this = " + self + "\n",
              message_of(lines[0].text));
}

TEST_F(Msg, MemoryLogGetsTheLineEvenWhenTheRegistryFiltersItButIsNeverRecreatedOrOverfilled) {
    counted_msg_t* m = new counted_msg_t;
    set_now(1000 + 60000);
    enable_logger(255);
    m->release();
    enable_logger(31);
    EXPECT_TRUE(warnings().empty());
    EXPECT_NE(std::string::npos, mem_log_text().find("\tUTIL\t"));
    EXPECT_NE(std::string::npos, mem_log_text().find("\tWARNING\tmsg_it::release the message stay in message queue "
                                                     "over 5s, used = 60000 m_ticks =1000, now = 61000, type = 0"));

    mem_log_file::destroy();
    set_now(1000);
    m = new counted_msg_t;
    set_now(1000 + 5001);
    m->release();
    EXPECT_EQ(1u, warnings().size());
    EXPECT_EQ(nullptr, mem_log_file::instance(DEFAULT_MEM_LOG_SIZE));

    mem_log_file::reset(false);
    mem_log_file* mem = mem_log_file::instance(MIN_MEM_LOG_SIZE);
    ASSERT_NE(nullptr, mem);
    std::string filler(mem->space() - 10, 'x');
    ASSERT_EQ(RESULT_SUCCESS, mem->cout(1, 3, reinterpret_cast<signed char*>(&filler[0]),
                                        static_cast<unsigned int>(filler.size())));
    set_now(1000);
    m = new counted_msg_t;
    set_now(1000 + 5001);
    m->release();
    EXPECT_EQ(2u, warnings().size());
    EXPECT_EQ(10u, mem->space());
}

TEST_F(Msg, SyncWrapperIsATypeThreeMessageWhoseLastReferenceDestroysIt) {
    counted_sync_t* s = new counted_sync_t(new counted_msg_t(MSG_TYPE_PLAIN, 5, 10, true));
    EXPECT_EQ(MSG_TYPE_SYNC, s->get_type());
    EXPECT_EQ(1u, s->load());
    EXPECT_EQ(MSG_TIMEOUT_NEVER, s->get_timeout());
    EXPECT_FALSE(s->is_lockable());
    EXPECT_EQ(1u, s->get_count());
    EXPECT_EQ(static_cast<void*>(static_cast<sync_msg_t*>(s)), s->query_interface(IID_SYNC_MSG));
    EXPECT_EQ(static_cast<void*>(static_cast<ref_count_it*>(s)), s->query_interface(IID_REF_COUNT));
    EXPECT_EQ(static_cast<void*>(static_cast<ref_count_it*>(s)), s->query_interface(IID_REF_COUNT_IT));
    EXPECT_EQ(nullptr, s->query_interface(0));
    EXPECT_EQ(RESULT_BUSY, s->wait_for_finish(0));

    EXPECT_EQ(2u, s->increment());
    s->on_message();
    EXPECT_EQ(1, g_count.ran.load());
    s->release();
    // The wrapped message is gone; the second reference keeps the wrapper.
    EXPECT_EQ(1, g_count.destroyed.load());
    EXPECT_EQ(0, g_count.wrappers_destroyed.load());
    EXPECT_EQ(1u, s->get_count());
    // Auto-reset: the signal wakes one wait.
    EXPECT_EQ(RESULT_SUCCESS, s->wait_for_finish(0));
    EXPECT_EQ(RESULT_BUSY, s->wait_for_finish(0));
    EXPECT_EQ(0u, s->decrement());
    EXPECT_EQ(1, g_count.wrappers_destroyed.load());
}

TEST_F(Msg, NullWrappedMessageIsAssertedAndOtherwiseHarmless) {
    counted_sync_t* s = new counted_sync_t(nullptr);
    const std::vector<line_t> lines = cap.lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(unsigned(LOG_FATAL), lines[0].level);
    EXPECT_TRUE(std::regex_match(message_of(lines[0].text),
                                 std::regex("assert: msg\\[sync_msg_t::sync_msg_t, m_msg = 0x00000000\\] "
                                            "file\\[\\.\\\\msg_queue\\], line = \\[[0-9]+\\]\n")))
        << lines[0].text;
    s->on_message();
    EXPECT_EQ(0, g_count.ran.load());
    s->increment();
    s->release();
    EXPECT_EQ(RESULT_SUCCESS, s->wait_for_finish(0));
    s->decrement();
    EXPECT_EQ(1, g_count.wrappers_destroyed.load());
}

TEST_F(Msg, ReceiverReleaseWakesTheWaitingSenderAfterTheMessageIsDone) {
    counted_sync_t* s = new counted_sync_t(new counted_msg_t);
    s->increment();  // the sender's own reference
    std::atomic<bool> waiting{false};
    int rc = -1, ran_when_woken = -1, destroyed_when_woken = -1;
    std::thread sender([&] {
        waiting = true;
        rc = s->wait_for_finish(-1);
        ran_when_woken = g_count.ran.load();
        destroyed_when_woken = g_count.destroyed.load();
        s->decrement();
    });
    util_test::wait_until([&] { return waiting.load(); });
    s->on_message();
    s->release();
    sender.join();
    EXPECT_EQ(RESULT_SUCCESS, rc);
    EXPECT_EQ(1, ran_when_woken);
    EXPECT_EQ(1, destroyed_when_woken);
    EXPECT_EQ(1, g_count.wrappers_destroyed.load());
}

TEST_F(Msg, SenderThatTimedOutLeavesTheWrapperToTheReceiver) {
    counted_sync_t* s = new counted_sync_t(new counted_msg_t);
    s->increment();
    EXPECT_EQ(RESULT_BUSY, s->wait_for_finish(0));
    EXPECT_EQ(1u, s->decrement());
    unsigned int receiver_tid = 0;
    std::thread receiver([&] {
        receiver_tid = get_cur_tid();
        s->on_message();
        s->release();
    });
    receiver.join();
    EXPECT_EQ(1, g_count.ran.load());
    EXPECT_EQ(1, g_count.wrappers_destroyed.load());
    EXPECT_EQ(receiver_tid, g_count.last_wrapper_destroyer.load());
}

// Time-outs let either side drop the last reference; an unlimited wait
// always succeeds.
TEST_F(Msg, SenderAndReceiverRaceToTheLastReference) {
    const int ROUNDS = 3000;
    const int timeouts[] = {0, 1, -1};
    ring_queue_t<msg_it*> queue(8);
    std::atomic<int> bad_results{0};
    std::thread receiver([&] {
        msg_it* m = nullptr;
        for (int done = 0; done < ROUNDS;) {
            if (queue.pop(m) != RESULT_SUCCESS) {
                std::this_thread::yield();
                continue;
            }
            m->on_message();
            m->release();
            ++done;
        }
    });
    for (int i = 0; i < ROUNDS; ++i) {
        counted_sync_t* s = new counted_sync_t(new counted_msg_t);
        s->increment();
        while (queue.push(s) != RESULT_SUCCESS)
            std::this_thread::yield();
        const int timeout = timeouts[i % 3];
        const int rc = s->wait_for_finish(timeout);
        if (rc != RESULT_SUCCESS && !(rc == RESULT_BUSY && timeout >= 0))
            ++bad_results;
        s->decrement();
    }
    receiver.join();
    EXPECT_EQ(0, bad_results.load());
    EXPECT_EQ(ROUNDS, g_count.ran.load());
    EXPECT_EQ(ROUNDS, g_count.created.load());
    EXPECT_EQ(ROUNDS, g_count.wrappers_destroyed.load());
}

}  // namespace

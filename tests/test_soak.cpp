// A soak of the thread family: loops come and go while messages flow through
// small channels and control queues that fill, with sinks, synchronous sends,
// posts from threads the library does not know and the main thread pumped by
// main_heartbeat; util_uninit ends it from a random thread. Counters prove
// every message ran at most once, in order within its stream, on its loop,
// that every message a living loop accepted ran, and that all were released.
//
// UTIL_SOAK_SCALE (default 1) scales the traffic; UTIL_SOAK_SEED replays a
// run (the seed is printed); UTIL_SOAK_END picks who ends it (0 the main
// thread, 1 an outside thread, 2 a loop).
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/platform.h"
#include "test_support.h"
#include "test_thread_support.h"
#include "thread_mgr.h"
#include "util.h"

using namespace ssb;

namespace {

using util_test::fn_msg_t;

const int INITIAL_LOOPS = 8;
const int CHANNELS_PER_NEW_LOOP = 3;
// A link stops producing past this backlog: memory stays bounded whatever
// the readers' pace.
const size_t BACKLOG_CAP = 48;
const int BURST = 24;
const unsigned int CONTROL_QUEUE = 32;
const int OUTSIDE_STREAM_BASE = 1000000;

struct tally_t {
    std::atomic<long long> created{0}, released{0}, ran{0}, ran_twice{0}, out_of_order{0}, wrong_thread{0};
    std::atomic<long long> backlog{0};
    // Released unrun although neither end was leaving.
    std::atomic<long long> lost{0};
    std::atomic<bool> ending{false};
};
tally_t g_tally;

// Runs `fn` when the last copy goes: held by a message's lambda, it tells
// when the library released the message, run or not.
struct on_release_t {
    std::function<void()> fn;
    ~on_release_t() { fn(); }
};
std::shared_ptr<on_release_t> on_release(std::function<void()> fn) {
    return std::shared_ptr<on_release_t>(new on_release_t{std::move(fn)});
}

struct node_t;

// A message of stream (sender, receiver): it must run on the receiver's
// thread, once, after every earlier message of its stream. `from` is null
// for a thread that is not a loop.
struct soak_msg_t : public msg_it {
    soak_msg_t(node_t* f, node_t* t, int s, long long q)
        : msg_it(MSG_TYPE_PLAIN, 1, MSG_TIMEOUT_NEVER), from(f), to(t), stream(s), seq(q) {
        ++g_tally.created;
    }
    ~soak_msg_t() override;
    void on_message() override;
    node_t* from;
    node_t* to;
    int stream;
    long long seq;
    int runs = 0;
    bool handed = false;  // only a message the library accepted counts at its receiver
};

struct link_t;

// A loop and what the test keeps about it; fields below `expected` belong
// to the loop's own thread.
struct node_t {
    int id = 0;
    thread_wrapper_t* thr = nullptr;  // a reference of the test's own
    unsigned int tid = 0;
    // Set before a stop: what is in flight to or from it may be dropped.
    std::atomic<bool> leaving{false};
    std::atomic<long long> accepted{0}, ran{0}, dropped{0};
    std::unordered_map<int, long long> expected;
    std::vector<std::unique_ptr<link_t>> links;
    std::mt19937 rng;

    void add_link(node_t* to);
    void drop_link(node_t* to);
    void kick();
    void flush(link_t* link);
};

// A channel seen from its writer: messages waiting for room, in order,
// resumed by the sink on the writer's thread.
struct link_t : public msg_queue_sink_it {
    node_t* from = nullptr;
    node_t* to = nullptr;
    long long next_seq = 0;
    std::deque<soak_msg_t*> backlog;
    bool waiting = false, dead = false;
    void on_queue_room(int) override {
        g_tally.wrong_thread += get_cur_tid() != from->tid;
        waiting = false;
        from->flush(this);
    }
};

soak_msg_t::~soak_msg_t() {
    if (runs == 0 && handed) {
        if (!g_tally.ending.load() && !to->leaving.load() && !(from && from->leaving.load()))
            ++g_tally.lost;
        ++to->dropped;
    }
    ++g_tally.released;
}

void soak_msg_t::on_message() {
    g_tally.ran_twice += ++runs > 1;
    g_tally.wrong_thread += get_cur_tid() != to->tid;
    long long& expected = to->expected[stream];
    g_tally.out_of_order += seq != expected;
    expected = seq + 1;
    ++to->ran;
    ++g_tally.ran;
}

void node_t::add_link(node_t* to) {
    for (const std::unique_ptr<link_t>& l : links)
        if (l->to == to && !l->dead)
            return;
    links.emplace_back(new link_t);
    links.back()->from = this;
    links.back()->to = to;
    to->thr->increment();
}

void node_t::drop_link(node_t* to) {
    for (const std::unique_ptr<link_t>& l : links) {
        if (l->to != to || l->dead)
            continue;
        l->dead = true;
        g_tally.backlog -= static_cast<long long>(l->backlog.size());
        for (soak_msg_t* m : l->backlog)
            m->release();
        l->backlog.clear();
        to->thr->decrement();
    }
}

void node_t::flush(link_t* link) {
    while (!link->dead && !link->waiting && !link->backlog.empty()) {
        soak_msg_t* m = link->backlog.front();
        m->handed = true;
        const int rv = link->to->thr->post_msg(m, link);
        if (rv != RESULT_SUCCESS)
            m->handed = false;
        if (rv == RESULT_QUEUE_FULL) {
            link->waiting = true;
            return;
        }
        if (rv != RESULT_SUCCESS) {  // the reader stopped: its channel is gone
            drop_link(link->to);
            return;
        }
        link->backlog.pop_front();
        --g_tally.backlog;
        ++link->to->accepted;
    }
}

void node_t::kick() {
    for (size_t i = 0; i < links.size(); ++i) {
        link_t* l = links[i].get();
        for (int n = 0; !l->dead && n < BURST && l->backlog.size() < BACKLOG_CAP; ++n) {
            l->backlog.push_back(new soak_msg_t(this, l->to, id, l->next_seq++));
            ++g_tally.backlog;
        }
        flush(l);
    }
    // Now and then a synchronous send to a random peer, over its channel.
    link_t* l = !links.empty() && rng() % 8 == 0 ? links[rng() % links.size()].get() : nullptr;
    if (l && !l->dead) {
        const unsigned int to_tid = l->to->tid;
        std::shared_ptr<std::atomic<bool>> gone = std::make_shared<std::atomic<bool>>(false);
        ++g_tally.created;
        std::shared_ptr<on_release_t> mark = on_release([gone] {
            gone->store(true);
            ++g_tally.released;
        });
        msg_it* m = new fn_msg_t([to_tid, mark] {
            g_tally.wrong_thread += get_cur_tid() != to_tid;
            ++g_tally.ran;
        });
        mark.reset();
        const int rv = l->to->thr->send_msg(m, nullptr, 5000);
        // 9 is "dropped unrun" or "refused, still yours"; a time-out leaves
        // it queued.
        if (rv != RESULT_BUSY && !gone->load())
            m->release();
    }
}

double soak_scale() {
    const char* text = getenv("UTIL_SOAK_SCALE");
    const double scale = text ? atof(text) : 1.0;
    return scale > 0 ? scale : 1.0;
}

// Posts `m` to `node`'s control queue from any thread, again while it is
// full: false (and `m` released) when the loop stopped.
bool post_to(node_t* node, msg_it* m) {
    bool posted = false;
    util_test::wait_until("room in a loop's control queue", [&] {
        const int rv = node->thr->post_ctrl_msg(m, nullptr);
        posted = rv == RESULT_SUCCESS;
        if (rv == RESULT_QUEUE_FULL)
            std::this_thread::yield();
        return rv != RESULT_QUEUE_FULL;
    });
    if (!posted)
        m->release();
    return posted;
}

bool post_to(node_t* node, std::function<void()> fn) { return post_to(node, new fn_msg_t(std::move(fn))); }

class Soak : public ::testing::Test {
protected:
    void SetUp() override {
        const char* seed = getenv("UTIL_SOAK_SEED");
        m_seed = seed ? static_cast<unsigned int>(strtoul(seed, nullptr, 10)) : std::random_device()();
        m_rng.seed(m_seed);
        printf("soak seed %u, scale %.3g (UTIL_SOAK_SEED / UTIL_SOAK_SCALE)\n", m_seed, soak_scale());
        util_test::warm_up_library();
        m_threads_at_start = plat::os_thread_count();
        m_handles_at_start = plat::open_handle_count();
    }

    node_t* add_node(thread_wrapper_t* thr) {
        m_nodes.emplace_back(new node_t);
        node_t* node = m_nodes.back().get();
        node->id = static_cast<int>(m_nodes.size() - 1);
        node->thr = thr;
        node->tid = thr->get_id();
        node->rng.seed(m_seed + static_cast<unsigned int>(node->id));
        thr->increment();
        std::lock_guard<std::mutex> guard(m_live_lock);
        m_live.push_back(node);
        return node;
    }

    node_t* spawn_node() {
        const unsigned int mode = m_rng() % 3 == 0 ? THREAD_MODE_IO : THREAD_MODE_EVENT;
        thread_wrapper_t* thr =
            m_mgr->spawn(mode, CONTROL_QUEUE, 200 + static_cast<unsigned int>(m_nodes.size()), false, nullptr, 0);
        EXPECT_NE(nullptr, thr);
        return thr ? add_node(thr) : nullptr;
    }

    // Binds `a` and `b` and tells both loops to write to each other.
    void connect(node_t* a, node_t* b) {
        const unsigned int cap = 8u << (m_rng() % 3);
        int rv = RESULT_QUEUE_FULL;  // a full control queue refuses the bind: try again
        util_test::wait_until("a channel past full control queues",
                              [&] { return (rv = a->thr->create_channel(b->thr, cap, cap)) != RESULT_QUEUE_FULL; });
        // 10: an end left bound by a refused attempt whose undo found the
        // peer's control queue full too; this one joined its queues.
        ASSERT_TRUE(rv == RESULT_SUCCESS || rv == RESULT_ALREADY_EXISTS) << "create_channel: " << rv;
        ASSERT_NE(nullptr, a->thr->get_write_msgq(b->thr));
        ASSERT_NE(nullptr, b->thr->get_write_msgq(a->thr));
        post_to(a, [a, b] { a->add_link(b); });
        post_to(b, [a, b] { b->add_link(a); });
    }

    std::vector<node_t*> live() {
        std::lock_guard<std::mutex> guard(m_live_lock);
        return m_live;
    }

    // A loop other than the main one, at random; null when none.
    node_t* random_worker() {
        std::vector<node_t*> nodes = live();
        nodes.erase(std::remove(nodes.begin(), nodes.end(), m_main), nodes.end());
        return nodes.empty() ? nullptr : nodes[m_rng() % nodes.size()];
    }

    void stop_node(node_t* victim) {
        {
            std::lock_guard<std::mutex> guard(m_live_lock);
            m_live.erase(std::remove(m_live.begin(), m_live.end(), victim), m_live.end());
        }
        victim->leaving = true;
        // Both ways a host stops a thread: the manager's, and its own.
        if (m_rng() % 2)
            EXPECT_EQ(1, m_mgr->stop_thread_by_id(victim->tid));
        else
            EXPECT_EQ(RESULT_SUCCESS, victim->thr->stop());
        // The stop returned after its loop ran last: its backlogs go now.
        for (const std::unique_ptr<link_t>& l : victim->links)
            victim->drop_link(l->to);
        for (node_t* n : live())
            post_to(n, [n, victim] { n->drop_link(victim); });
    }

    // One driver round: every loop produces once; it ends when every kick
    // ran or was dropped with its loop.
    void kick_all() {
        std::shared_ptr<std::atomic<int>> outstanding = std::make_shared<std::atomic<int>>(0);
        for (node_t* n : live()) {
            ++*outstanding;
            std::shared_ptr<on_release_t> done = on_release([outstanding] { --*outstanding; });
            post_to(n, [n, done] { n->kick(); });
        }
        util_test::wait_until("every loop to run its kick", [&] { return outstanding->load() == 0; });
    }

    unsigned int m_seed = 0;
    std::mt19937 m_rng;
    thread_mgr_t* m_mgr = nullptr;
    node_t* m_main = nullptr;
    std::vector<std::unique_ptr<node_t>> m_nodes;
    std::mutex m_live_lock;
    std::vector<node_t*> m_live;
    int m_threads_at_start = -1;
    int m_handles_at_start = -1;
};

TEST_F(Soak, StressLoopsComeAndGoWhileMessagesFlowAndUninitEndsItFromAnyThread) {
    const int rounds = std::max(20, static_cast<int>(4000 * soak_scale()));
    const int churn_every = 10;

    thread_mgr_t::reset();
    util_init(1, nullptr, nullptr, nullptr, 0, 0);
    m_mgr = thread_mgr_t::instance();
    ASSERT_NE(nullptr, m_mgr);
    m_main = add_node(m_mgr->find_by_type(THREAD_TYPE_MAIN));

    std::atomic<bool> outside_on(true), driver_done(false), uninit_done(false);
    // Outside threads post one batch per driver round, so they never crowd
    // out the loops (Wine's yield hardly yields).
    std::mutex round_lock;
    std::condition_variable round_changed;
    int round_no = 0;

    // Threads the library does not know post their own streams into the
    // loops' control queues.
    std::vector<std::thread> outside;
    for (int p = 0; p < 2; ++p) {
        outside.emplace_back([&, p] {
            std::mt19937 rng(m_seed ^ (0x9e3779b9u * static_cast<unsigned int>(p + 1)));
            std::unordered_map<int, long long> next;
            int round_seen = -1;
            while (outside_on.load()) {
                {
                    std::unique_lock<std::mutex> guard(round_lock);
                    round_changed.wait(guard, [&] { return round_no != round_seen || !outside_on.load(); });
                    round_seen = round_no;
                }
                std::vector<node_t*> nodes = live();
                if (nodes.empty())
                    break;
                node_t* to = nodes[rng() % nodes.size()];
                if (next[to->id] < 0)
                    continue;
                to->thr->increment();
                for (int i = 0; i < 64 && outside_on.load(); ++i) {
                    soak_msg_t* m = new soak_msg_t(nullptr, to, OUTSIDE_STREAM_BASE + p, next[to->id]);
                    int rv = RESULT_QUEUE_FULL;
                    m->handed = true;
                    while ((rv = to->thr->post_msg(m, nullptr)) == RESULT_QUEUE_FULL && outside_on.load())
                        std::this_thread::yield();
                    if (rv != RESULT_SUCCESS) {
                        // The loop stopped (or the soak ends): a seq that
                        // never ran would break the stream, so it ends here.
                        m->handed = false;
                        m->release();
                        next[to->id] = -1;
                        break;
                    }
                    ++next[to->id];
                    ++to->accepted;
                }
                to->thr->decrement();
            }
        });
    }

    std::thread driver([&] {
        for (int i = 0; i < INITIAL_LOOPS; ++i)
            spawn_node();
        std::vector<node_t*> nodes = live();
        for (size_t i = 0; i < nodes.size(); ++i)
            for (size_t j = i + 1; j < nodes.size(); ++j)
                if (m_rng() % 2 || j == i + 1)
                    connect(nodes[i], nodes[j]);
        for (int r = 0; r < rounds && !::testing::Test::HasFatalFailure(); ++r) {
            {
                std::lock_guard<std::mutex> guard(round_lock);
                ++round_no;
                round_changed.notify_all();
            }
            kick_all();
            if (r % churn_every != churn_every - 1)
                continue;
            if (node_t* victim = random_worker())
                stop_node(victim);
            if (node_t* fresh = spawn_node()) {
                std::vector<node_t*> peers = live();
                std::shuffle(peers.begin(), peers.end(), m_rng);
                int bound = 0;
                for (node_t* peer : peers)
                    if (peer != fresh && bound++ < CHANNELS_PER_NEW_LOOP)
                        connect(fresh, peer);
            }
        }
        {
            std::lock_guard<std::mutex> guard(round_lock);
            outside_on = false;
            round_changed.notify_all();
        }
        driver_done = true;
    });

    // The main thread runs its loop as a host's window loop would.
    notifier_it* wake = m_main->thr->get_notifier();
    while (!driver_done.load()) {
        wake->wait(5, false);
        EXPECT_EQ(RESULT_SUCCESS, main_heartbeat());
    }
    driver.join();
    for (std::thread& t : outside)
        t.join();

    // Quiet: backlogs drain through the sinks alone, and every message a
    // living loop accepted runs.
    util_test::wait_until("every link's backlog to drain and every accepted message to run", [&] {
        wake->wait(5, false);
        main_heartbeat();
        bool settled = g_tally.backlog.load() == 0;
        for (node_t* n : live())
            settled = settled && n->ran.load() + n->dropped.load() == n->accepted.load();
        return settled;
    });
    for (node_t* n : live())
        EXPECT_EQ(n->accepted.load(), n->ran.load() + n->dropped.load()) << "loop " << n->id;
    EXPECT_EQ(0, g_tally.lost.load());
    const long long ran_in_traffic = g_tally.ran.load();
    printf("soak: %d loops made, %lld messages ran\n", static_cast<int>(m_nodes.size()), ran_in_traffic);

    // The end: util_uninit from the main thread, an outside thread, or a
    // loop's own message.
    g_tally.ending = true;
    const char* end = getenv("UTIL_SOAK_END");
    const unsigned int drawn = m_rng();
    const unsigned int how = (end ? static_cast<unsigned int>(atoi(end)) : drawn) % 3;
    node_t* host = random_worker();
    printf("soak: util_uninit from %s\n", how == 0 ? "the main thread" : how == 1 ? "an outside thread" : "a loop");
    auto uninit = [&] {
        util_uninit(1);
        uninit_done = true;
    };
    if (how == 0) {
        uninit();
    } else if (how == 1 || !host) {
        std::thread(uninit).join();
    } else {
        ASSERT_TRUE(post_to(host, uninit));
        // The main thread keeps pumping until the shut-down takes its loop.
        util_test::wait_until("util_uninit to return on a loop", [&] {
            main_heartbeat();
            return uninit_done.load();
        });
    }
    EXPECT_TRUE(uninit_done.load());
    EXPECT_EQ(nullptr, thread_mgr_t::instance());

    for (const std::unique_ptr<node_t>& n : m_nodes) {
        for (const std::unique_ptr<link_t>& l : n->links) {
            if (!l->dead)
                l->to->thr->decrement();
            for (soak_msg_t* m : l->backlog)
                m->release();
        }
        n->thr->decrement();
    }
    UTIL_WAIT_UNTIL([] { return live_thread_wrappers() == 0; });
    UTIL_WAIT_UNTIL([] { return live_msg_queues() == 0; });
    UTIL_WAIT_UNTIL([] { return g_tally.created.load() == g_tally.released.load(); });
    EXPECT_EQ(0, util_test::live_fn_msgs().load());
    // -1: the system cannot count them.
    UTIL_WAIT_UNTIL([&] { return m_threads_at_start < 0 || plat::os_thread_count() == m_threads_at_start; });
    UTIL_WAIT_UNTIL([&] { return m_handles_at_start < 0 || plat::open_handle_count() == m_handles_at_start; });
    EXPECT_EQ(0, g_tally.lost.load());
    EXPECT_EQ(0, g_tally.ran_twice.load());
    EXPECT_EQ(0, g_tally.out_of_order.load());
    EXPECT_EQ(0, g_tally.wrong_thread.load());
    EXPECT_LE(g_tally.ran.load(), g_tally.created.load());
    EXPECT_GT(ran_in_traffic, 0);
}

}  // namespace

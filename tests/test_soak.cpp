// A soak of the thread family: loop threads that come and go while messages
// flow through small channels and control queues that fill, with sinks,
// synchronous sends, posts from threads the library does not know, and the
// main thread pumped by main_heartbeat; it ends with util_uninit from a
// random thread. Counters prove that every message ran at most once, in
// order within its stream, that every message that reached a living loop
// ran, and that every message was released once.
//
// UTIL_SOAK_SCALE (default 1) scales the traffic; UTIL_SOAK_SEED replays a
// run (the seed is printed); UTIL_SOAK_END picks the thread that ends it (0
// the main thread, 1 an outside thread, 2 a loop).
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
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
// Messages a link keeps waiting for room before its loop stops producing
// for it: memory stays bounded whatever the readers' pace.
const size_t BACKLOG_CAP = 48;
const int BURST = 24;
const int SEND_TIMEOUT_MS = 5000;
const unsigned int CONTROL_QUEUE = 32;
// Stream ids of the threads that are not loops start here.
const int OUTSIDE_STREAM_BASE = 1000000;

// Every counted message, its runs and its release.
struct tally_t {
    std::atomic<long long> created{0};
    std::atomic<long long> released{0};
    std::atomic<long long> ran{0};
    std::atomic<long long> ran_twice{0};
    std::atomic<long long> out_of_order{0};
    std::atomic<long long> wrong_thread{0};
    std::atomic<long long> backlog{0};
    // Released unrun although neither end was leaving: lost.
    std::atomic<long long> lost{0};
    std::atomic<bool> ending{false};
};
tally_t g_tally;

struct node_t;

// A message of one stream (sender, receiver): it must run on the receiver's
// thread, exactly once, after every earlier message of its stream.
class soak_msg_t : public msg_it {
public:
    // `from` is null for a thread that is not a loop.
    soak_msg_t(node_t* from, node_t* to, int stream, long long seq)
        : msg_it(MSG_TYPE_PLAIN, 1, MSG_TIMEOUT_NEVER), m_from(from), m_to(to), m_stream(stream), m_seq(seq) {
        ++g_tally.created;
    }
    void on_message() override;
    // Set by the writer before each post and cleared when the post fails:
    // only a message handed to the library counts at its receiver.
    void set_handed(bool handed) { m_handed = handed; }

protected:
    ~soak_msg_t() override;

private:
    node_t* m_from;
    node_t* m_to;
    int m_stream;
    long long m_seq;
    int m_runs = 0;
    bool m_handed = false;
};

struct link_t;

// A loop thread and what the test keeps about it. Fields below `expected`
// belong to the loop's own thread.
struct node_t {
    int id = 0;
    thread_wrapper_t* thr = nullptr;  // a reference of the test's own
    unsigned int tid = 0;
    // Set before the driver stops it: what is in flight to or from it may
    // be dropped from then on.
    std::atomic<bool> leaving{false};
    std::atomic<long long> accepted{0};
    std::atomic<long long> ran{0};
    std::atomic<long long> dropped{0};
    std::unordered_map<int, long long> expected;
    std::vector<std::unique_ptr<link_t>> links;
    std::mt19937 rng;

    void add_link(node_t* to);
    void drop_link(node_t* to);
    void kick(bool produce);
    void flush(link_t* link);
};

// One channel end seen from its writer: messages waiting for room, in order.
// Its sink resumes them on the writer's thread.
struct link_t : public msg_queue_sink_it {
    node_t* from = nullptr;
    node_t* to = nullptr;
    long long next_seq = 0;
    std::deque<soak_msg_t*> backlog;
    bool waiting = false;
    bool dead = false;
    void on_queue_room(int) override {
        if (get_cur_tid() != from->tid)
            ++g_tally.wrong_thread;
        waiting = false;
        from->flush(this);
    }
};

soak_msg_t::~soak_msg_t() {
    if (m_runs == 0 && m_handed) {
        // A stop drops what is queued to the loop and what its channels
        // still carried from it.
        if (!g_tally.ending.load() && !m_to->leaving.load() && !(m_from && m_from->leaving.load()))
            ++g_tally.lost;
        ++m_to->dropped;
    }
    ++g_tally.released;
}

void soak_msg_t::on_message() {
    if (++m_runs > 1)
        ++g_tally.ran_twice;
    if (get_cur_tid() != m_to->tid)
        ++g_tally.wrong_thread;
    long long& expected = m_to->expected[m_stream];
    if (m_seq != expected)
        ++g_tally.out_of_order;
    expected = m_seq + 1;
    ++m_to->ran;
    ++g_tally.ran;
}

// A synchronous message outside every stream: counted, not ordered.
// `gone` tells the sender whether the library released it: a 9 from
// send_msg means either "dropped unrun" or "refused, still yours".
class sync_msg_t : public msg_it {
public:
    sync_msg_t(node_t* to, std::shared_ptr<std::atomic<bool>> gone)
        : msg_it(MSG_TYPE_PLAIN, 1, MSG_TIMEOUT_NEVER), m_to(to), m_gone(std::move(gone)) {
        ++g_tally.created;
    }
    void on_message() override {
        if (get_cur_tid() != m_to->tid)
            ++g_tally.wrong_thread;
        ++g_tally.ran;
    }

protected:
    ~sync_msg_t() override {
        m_gone->store(true);
        ++g_tally.released;
    }

private:
    node_t* m_to;
    std::shared_ptr<std::atomic<bool>> m_gone;
};

// Counts itself out of a driver's round whether it ran or was dropped.
class kick_msg_t : public msg_it {
public:
    kick_msg_t(node_t* to, bool produce, std::shared_ptr<std::atomic<int>> outstanding)
        : msg_it(MSG_TYPE_PLAIN, 1, MSG_TIMEOUT_NEVER),
          m_to(to),
          m_produce(produce),
          m_outstanding(std::move(outstanding)) {
        ++*m_outstanding;
    }
    void on_message() override;

protected:
    ~kick_msg_t() override { --*m_outstanding; }

private:
    node_t* m_to;
    bool m_produce;
    std::shared_ptr<std::atomic<int>> m_outstanding;
};

void node_t::add_link(node_t* to) {
    for (const std::unique_ptr<link_t>& l : links)
        if (l->to == to && !l->dead)
            return;
    std::unique_ptr<link_t> link(new link_t);
    link->from = this;
    link->to = to;
    to->thr->increment();
    links.push_back(std::move(link));
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
        m->set_handed(true);
        const int rv = link->to->thr->post_msg(m, link);
        if (rv != RESULT_SUCCESS)
            m->set_handed(false);
        if (rv == RESULT_QUEUE_FULL) {
            link->waiting = true;
            return;
        }
        if (rv != RESULT_SUCCESS) {
            // The reader stopped: its channel is gone.
            drop_link(link->to);
            return;
        }
        link->backlog.pop_front();
        --g_tally.backlog;
        ++link->to->accepted;
    }
}

void node_t::kick(bool produce) {
    for (size_t i = 0; i < links.size(); ++i) {
        link_t* l = links[i].get();
        if (l->dead)
            continue;
        if (produce) {
            for (int n = 0; n < BURST && l->backlog.size() < BACKLOG_CAP; ++n) {
                l->backlog.push_back(new soak_msg_t(this, l->to, id, l->next_seq++));
                ++g_tally.backlog;
            }
        }
        flush(l);
    }
    // Now and then a synchronous send to a random peer, over its channel.
    if (produce && !links.empty() && rng() % 8 == 0) {
        link_t* l = links[rng() % links.size()].get();
        if (!l->dead) {
            std::shared_ptr<std::atomic<bool>> gone = std::make_shared<std::atomic<bool>>(false);
            sync_msg_t* m = new sync_msg_t(l->to, gone);
            const int rv = l->to->thr->send_msg(m, nullptr, SEND_TIMEOUT_MS);
            // A time-out leaves it queued; otherwise, unless the library
            // released it, it is still ours.
            if (rv != RESULT_BUSY && !gone->load())
                m->release();
        }
    }
}

void kick_msg_t::on_message() { m_to->kick(m_produce); }

double soak_scale() {
    const char* text = getenv("UTIL_SOAK_SCALE");
    const double scale = text ? atof(text) : 1.0;
    return scale > 0 ? scale : 1.0;
}

unsigned int soak_seed() {
    const char* text = getenv("UTIL_SOAK_SEED");
    return text ? static_cast<unsigned int>(strtoul(text, nullptr, 10)) : std::random_device()();
}

// Posts `m` to `node`'s control queue from this (unmanaged) thread, again
// while the queue is full: false (and `m` released) when the loop stopped.
bool post_to(node_t* node, msg_it* m) {
    bool posted = false;
    util_test::wait_until("room in a loop's control queue", [&] {
        const int rv = node->thr->post_ctrl_msg(m, nullptr);
        if (rv == RESULT_QUEUE_FULL) {
            std::this_thread::yield();
            return false;
        }
        posted = rv == RESULT_SUCCESS;
        return true;
    });
    if (!posted)
        m->release();
    return posted;
}

bool post_to(node_t* node, std::function<void()> fn) { return post_to(node, new fn_msg_t(std::move(fn))); }

class Soak : public ::testing::Test {
protected:
    void SetUp() override {
        m_seed = soak_seed();
        m_rng.seed(m_seed);
        printf("soak seed %u, scale %.3g (UTIL_SOAK_SEED / UTIL_SOAK_SCALE)\n", m_seed, soak_scale());
        util_test::warm_up_library();
        m_threads_at_start = plat::os_thread_count();
        m_handles_at_start = plat::open_handle_count();
    }

    node_t* add_node(thread_wrapper_t* thr) {
        std::unique_ptr<node_t> node(new node_t);
        node->id = static_cast<int>(m_nodes.size());
        node->thr = thr;
        node->tid = thr->get_id();
        node->rng.seed(m_seed + static_cast<unsigned int>(m_nodes.size()));
        thr->increment();
        m_nodes.push_back(std::move(node));
        std::lock_guard<std::mutex> guard(m_live_lock);
        m_live.push_back(m_nodes.back().get());
        return m_nodes.back().get();
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
        // A full control queue refuses the bind message: a host tries again.
        int rv = RESULT_QUEUE_FULL;
        util_test::wait_until("a channel past full control queues", [&] {
            rv = a->thr->create_channel(b->thr, cap, cap);
            return rv != RESULT_QUEUE_FULL;
        });
        // 10: an end was left bound by a refused attempt whose undo found
        // the peer's control queue full too; this one joined its queues.
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
        // Its loop runs nothing any more (the stop returned after it ran):
        // what it kept waiting for room goes now.
        for (const std::unique_ptr<link_t>& l : victim->links)
            victim->drop_link(l->to);
        for (node_t* n : live())
            post_to(n, [n, victim] { n->drop_link(victim); });
    }

    // One round of the driver: every loop produces once; the round ends when
    // every kick ran (or was dropped with its loop).
    void kick_all(bool produce) {
        std::shared_ptr<std::atomic<int>> outstanding = std::make_shared<std::atomic<int>>(0);
        for (node_t* n : live())
            post_to(n, new kick_msg_t(n, produce, outstanding));
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
    const double scale = soak_scale();
    const int rounds = std::max(20, static_cast<int>(4000 * scale));
    const int churn_every = 10;

    thread_mgr_t::reset();
    util_init(1, nullptr, nullptr, nullptr, 0, 0);
    m_mgr = thread_mgr_t::instance();
    ASSERT_NE(nullptr, m_mgr);
    m_main = add_node(m_mgr->find_by_type(THREAD_TYPE_MAIN));

    std::atomic<bool> outside_on(true), driver_done(false), uninit_done(false);
    // The outside threads post one batch per driver round, so that they
    // never crowd out the loops (Wine's yield hardly yields).
    std::mutex round_lock;
    std::condition_variable round_changed;
    int round_no = 0;
    auto next_round = [&] {
        std::lock_guard<std::mutex> guard(round_lock);
        ++round_no;
        round_changed.notify_all();
    };
    long long ran_in_traffic = 0;

    // Threads the library does not know post their own streams into the
    // loops' control queues.
    std::vector<std::thread> outside;
    for (int p = 0; p < 2; ++p) {
        outside.emplace_back([&, p] {
            std::mt19937 rng(m_seed ^ (0x9e3779b9u * static_cast<unsigned int>(p + 1)));
            std::unordered_map<int, long long> next;
            const int stream = OUTSIDE_STREAM_BASE + p;
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
                    soak_msg_t* m = new soak_msg_t(nullptr, to, stream, next[to->id]);
                    int rv = RESULT_QUEUE_FULL;
                    m->set_handed(true);
                    while ((rv = to->thr->post_msg(m, nullptr)) == RESULT_QUEUE_FULL && outside_on.load())
                        std::this_thread::yield();
                    if (rv != RESULT_SUCCESS) {
                        m->set_handed(false);
                        // The loop stopped (or the soak ends): a seq that
                        // never ran would break the stream, so it ends here.
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
            next_round();
            kick_all(true);
            if (r % churn_every == churn_every - 1) {
                if (node_t* victim = random_worker())
                    stop_node(victim);
                if (node_t* fresh = spawn_node()) {
                    std::vector<node_t*> peers = live();
                    std::shuffle(peers.begin(), peers.end(), m_rng);
                    int bound = 0;
                    for (node_t* peer : peers) {
                        if (peer == fresh || bound == CHANNELS_PER_NEW_LOOP)
                            continue;
                        connect(fresh, peer);
                        ++bound;
                    }
                }
            }
        }
        {
            std::lock_guard<std::mutex> guard(round_lock);
            outside_on = false;
            round_changed.notify_all();
        }
        driver_done = true;
    });

    // The main thread runs its loop as a host's window loop would: it waits
    // on the loop's notifier and gives it a pass.
    notifier_it* wake = m_main->thr->get_notifier();
    while (!driver_done.load()) {
        wake->wait(5, false);
        EXPECT_EQ(RESULT_SUCCESS, main_heartbeat());
    }
    driver.join();
    for (std::thread& t : outside)
        t.join();

    // Quiet: no new messages; what waits for room drains through the
    // sinks alone, and every message accepted by a living loop runs.
    util_test::wait_until("every link's backlog to drain and every accepted message to run", [&] {
        wake->wait(5, false);
        main_heartbeat();
        if (g_tally.backlog.load() != 0)
            return false;
        for (node_t* n : live())
            if (n->ran.load() + n->dropped.load() != n->accepted.load())
                return false;
        return true;
    });
    for (node_t* n : live())
        EXPECT_EQ(n->accepted.load(), n->ran.load() + n->dropped.load()) << "loop " << n->id;
    EXPECT_EQ(0, g_tally.lost.load());
    ran_in_traffic = g_tally.ran.load();
    printf("soak: %d loops made, %lld messages ran\n", static_cast<int>(m_nodes.size()), ran_in_traffic);

    // The end: util_uninit from the main thread, from a thread the library
    // does not know, or from inside a loop's own message.
    g_tally.ending = true;
    unsigned int how = m_rng() % 3;
    if (const char* end = getenv("UTIL_SOAK_END"))
        how = static_cast<unsigned int>(atoi(end)) % 3;
    node_t* host = random_worker();
    printf("soak: util_uninit from %s\n", how == 0 ? "the main thread" : how == 1 ? "an outside thread" : "a loop");
    if (how == 0) {
        util_uninit(1);
        uninit_done = true;
    } else if (how == 1 || !host) {
        std::thread([&] {
            util_uninit(1);
            uninit_done = true;
        }).join();
    } else {
        ASSERT_TRUE(post_to(host, [&] {
            util_uninit(1);
            uninit_done = true;
        }));
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
    if (m_threads_at_start >= 0) {
        UTIL_WAIT_UNTIL([&] { return plat::os_thread_count() == m_threads_at_start; });
    }
    if (m_handles_at_start >= 0) {
        UTIL_WAIT_UNTIL([&] { return plat::open_handle_count() == m_handles_at_start; });
    }
    EXPECT_EQ(0, g_tally.lost.load());
    EXPECT_EQ(0, g_tally.ran_twice.load());
    EXPECT_EQ(0, g_tally.out_of_order.load());
    EXPECT_EQ(0, g_tally.wrong_thread.load());
    EXPECT_LE(g_tally.ran.load(), g_tally.created.load());
    EXPECT_GT(ran_in_traffic, 0);
}

}  // namespace

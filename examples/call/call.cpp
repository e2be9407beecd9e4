#include "call.h"

#include <math.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <memory>
#include <thread>
#include <unordered_map>

#include "call_codec.h"
#include "call_net.h"
#include "log.h"
#include "msgblock.h"
#include "observer.h"
#include "stats.h"
#include "task.h"
#include "thread_event.h"
#include "thread_mgr.h"
#include "thread_pool.h"
#include "timer.h"
#include "toolkit.h"
#include "util.h"

namespace call {

namespace {

typedef std::chrono::steady_clock steady;

const unsigned int CALL_MODULE = 100;
const char* const LIBRARY_LOG_STEM = "demo_util";
const char* const CALL_LOG_STEM = "demo_call";
const unsigned int MAIN_HZ = 60;
// Longest the end of a call waits for the pipeline to account for every
// frame; far beyond what a loaded machine or a sanitizer needs.
const std::chrono::seconds DRAIN_LIMIT(30);
// The receive buffer asked for; the system may grant less (Linux caps it
// at net.core.rmem_max), which the sender's window makes harmless.
const int RECV_BUFFER = 4 << 20;
// Datagrams read per readiness call, so the receiver's messages get turns.
const unsigned int RECV_BURST = 256;
// Sequence numbers the receiver accepts ahead of the highest one seen.
const uint32_t SEQ_JUMP_LIMIT = 1u << 20;
// A sender that waited this long for the receiver sends anyway.
const std::chrono::milliseconds WINDOW_WAIT_LIMIT(200);

#define CALL_LOG(level, expr) SSB_LOG(CALL_MODULE, level, expr)

// What a mode means in numbers.
struct profile_t {
    unsigned int audio_ms = 20;
    unsigned int video_ms = 33;
    unsigned int audio_bytes = 160;  // 20 ms of 8 kHz 8-bit samples
    unsigned int width = 320;
    unsigned int height = 180;
    unsigned int slice_rows = 16;     // rows per block of a raw video frame
    unsigned int capture_queue = 64;  // channel capture -> encoder, messages
    unsigned int send_queue = 64;     // channel encoder -> sender, packets
    unsigned int hold_limit = 96;     // packets an encoder holds before dropping video
    unsigned int packet_timeout_ms = 3000;
    unsigned int stall_ms = 1000;
    unsigned int window = 64;  // packets in flight to the receiver
    unsigned int recording_ms = 1000;
};

profile_t make_profile(const call_config_t& c) {
    profile_t p;
    if (c.stress) {
        p.video_ms = 16;
        p.width = 480;
        p.height = 270;
        p.capture_queue = 16;
        p.send_queue = 16;
        p.hold_limit = 48;
        // Shorter than the stall: packets that waited it out are overtime.
        p.packet_timeout_ms = 800;
        p.stall_ms = 2000;
    }
    return p;
}

// Counters shared between the roles. Each is written by one thread (or by
// the pool's threads with fetch_add) and read by the main thread for the
// status line and the summary: relaxed, since the summary is read after
// the waits that end the call, which order everything before them.
struct counters_t {
    std::atomic<uint64_t> captured[3] = {};  // by media_kind_t
    std::atomic<uint64_t> capture_dropped{0};
    std::atomic<uint64_t> dropped[3] = {};
    std::atomic<uint64_t> frames_held{0};
    std::atomic<uint64_t> full_events{0};
    std::atomic<uint64_t> episodes{0};
    std::atomic<uint64_t> hold_high_water{0};
    std::atomic<uint64_t> held_now{0};
    std::atomic<uint64_t> post_failures{0};
    std::atomic<uint64_t> packets_sent{0};
    std::atomic<uint64_t> send_errors{0};
    std::atomic<uint64_t> frames_sent[3] = {};
    std::atomic<uint64_t> incomplete_frames{0};
    std::atomic<uint64_t> overtime_packets{0};
    std::atomic<uint64_t> window_waits{0};
    std::atomic<bool> stalling{false};
    std::atomic<uint64_t> stall_us{0};
    std::atomic<uint64_t> datagrams{0};
    std::atomic<uint64_t> packets_received{0};
    std::atomic<uint64_t> corrupted{0};
    std::atomic<uint64_t> reordered{0};
    std::atomic<uint64_t> duplicates{0};
    std::atomic<uint64_t> frames_received[3] = {};
    std::atomic<uint64_t> recordings{0};
    std::atomic<uint64_t> recordings_done{0};
    std::atomic<uint64_t> recordings_verified{0};
    std::atomic<uint64_t> recorded_bytes{0};
    std::atomic<uint64_t> compressed_bytes{0};
};

void bump(std::atomic<uint64_t>& c, uint64_t n = 1) { c.fetch_add(n, std::memory_order_relaxed); }
uint64_t get(const std::atomic<uint64_t>& c) { return c.load(std::memory_order_relaxed); }

spread_t spread_of(std::vector<int64_t> samples) {
    spread_t s;
    s.count = samples.size();
    s.p50_us = percentile(samples, 0.5);
    s.p99_us = percentile(samples, 0.99);
    s.max_us = samples.empty() ? 0 : samples.back();
    return s;
}

class call_t;
class encoder_t;
class sender_t;

// ---- messages --------------------------------------------------------------

// A raw frame from the capture thread to an encoder. Owns its chain.
class frame_msg_t : public ssb::msg_it {
public:
    frame_msg_t(encoder_t* encoder, ssb::msg_db_t* frame, media_kind_t kind, uint32_t id, uint64_t capture_us)
        : m_encoder(encoder), m_frame(frame), m_kind(kind), m_id(id), m_capture_us(capture_us) {}
    void on_message() override;

protected:
    ~frame_msg_t() override { ssb::msg_db_t::release(m_frame); }

private:
    encoder_t* m_encoder;
    ssb::msg_db_t* m_frame;
    media_kind_t m_kind;
    uint32_t m_id;
    uint64_t m_capture_us;
};

// One packet (header node, then payload nodes sharing the encoded frame's
// block) from an encoder to the sender. A packet the sender's loop drops
// unrun (overtime) is reported to the sender from release(), on its thread.
class packet_msg_t : public ssb::msg_it {
public:
    packet_msg_t(sender_t* sender, ssb::msg_db_t* packet, media_kind_t kind, uint32_t frame, uint16_t count,
                 unsigned int timeout_ms)
        : ssb::msg_it(ssb::MSG_TYPE_PLAIN, 1, timeout_ms),
          m_sender(sender),
          m_packet(packet),
          m_kind(kind),
          m_frame(frame),
          m_count(count) {}
    void on_message() override;
    void release() override;
    uint32_t frame() const { return m_frame; }

    // Set by the encoder around a post: only an accepted packet is the
    // sender's to account for.
    bool m_accepted = false;

protected:
    ~packet_msg_t() override { ssb::msg_db_t::release(m_packet); }

private:
    friend class sender_t;
    sender_t* m_sender;
    ssb::msg_db_t* m_packet;
    media_kind_t m_kind;
    uint32_t m_frame;
    uint16_t m_count;
    bool m_ran = false;
};

// A second of one encoder's raw frames (chains sharing the capture's
// blocks), compressed and verified on a pool thread.
class recording_msg_t : public ssb::msg_it {
public:
    recording_msg_t(ssb::msg_db_t* chain, counters_t* counters, std::shared_ptr<std::atomic<bool>> done)
        : m_chain(chain), m_counters(counters), m_done(std::move(done)) {}
    void on_message() override {
        const unsigned int n = m_chain->length();
        std::vector<unsigned char> raw(n), packed(rle_bound(n)), back(n);
        if (n)
            m_chain->peek(reinterpret_cast<signed char*>(raw.data()), n, 0);
        const size_t m = rle_encode(raw.data(), n, packed.data());
        size_t written = 0;
        const bool same = rle_decode(packed.data(), m, back.data(), back.size(), written) && written == n &&
                          std::equal(raw.begin(), raw.end(), back.begin());
        bump(m_counters->recorded_bytes, n);
        bump(m_counters->compressed_bytes, m);
        if (same)
            bump(m_counters->recordings_verified);
        bump(m_counters->recordings_done);
        m_done->store(true, std::memory_order_release);
    }

protected:
    ~recording_msg_t() override { ssb::msg_db_t::release(m_chain); }

private:
    ssb::msg_db_t* m_chain;
    counters_t* m_counters;
    std::shared_ptr<std::atomic<bool>> m_done;
};

// ---- roles -----------------------------------------------------------------

// The sending end. Lives on the sending I/O thread: send() and unrun() run
// there only.
class sender_t {
public:
    sender_t(counters_t* counters, const profile_t& profile, steady::time_point t0, udp_socket_t socket)
        : m_counters(counters), m_profile(profile), m_t0(t0), m_socket(socket) {}
    // When the stall begins, in microseconds from the call's start.
    void set_stall_at(uint64_t at_us) { m_stall_at_us = at_us; }

    void send(packet_msg_t* msg) {
        maybe_stall();
        wait_window();
        unsigned char stamp[8];
        put_u32(stamp, m_next_seq++);
        msg->m_packet->update(reinterpret_cast<signed char*>(stamp), 4, PACKET_SEQ_OFFSET);
        put_u64(stamp, now_us());
        msg->m_packet->update(reinterpret_cast<signed char*>(stamp), 8, PACKET_SEND_US_OFFSET);
        // The CRC goes on as a node of its own; the datagram is gathered
        // from the chain's pieces, so the payload is never copied.
        unsigned char crc[PACKET_CRC_SIZE];
        put_u32(crc, ~msg->m_packet->get_chain_crc32_digest(0xFFFFFFFFu));
        const unsigned int len = msg->m_packet->length() + PACKET_CRC_SIZE;
        ssb::msg_db_t* trailer = ssb::msg_db_t::new_instance(PACKET_CRC_SIZE, reinterpret_cast<signed char*>(crc),
                                                             PACKET_CRC_SIZE, ssb::MSG_FLAG_NONE);
        int error = 0;
        bool ok = false;
        if (trailer) {
            ssb::msg_db_t* last = msg->m_packet;
            while (last->next())
                last = last->next();
            last->insert_behind(trailer);
            ok = udp_send_chain(m_socket, msg->m_packet, error) == static_cast<int>(len);
        }
        if (ok) {
            bump(m_counters->packets_sent);
        } else {
            bump(m_counters->send_errors);
            CALL_LOG(ssb::LOG_ERROR, "sender: send failed, error = " << error << ", frame = " << msg->m_frame);
        }
        account(msg, ok);
    }

    void unrun(packet_msg_t* msg) {
        bump(m_counters->overtime_packets);
        account(msg, false);
    }

private:
    struct frame_state_t {
        uint16_t sent = 0;
        uint16_t missing = 0;
    };

    uint64_t now_us() const {
        return static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(steady::now() - m_t0).count());
    }

    // A frame counts as sent once all its packets went out.
    void account(packet_msg_t* msg, bool sent) {
        frame_state_t& f = m_frames[msg->m_frame];
        if (sent)
            ++f.sent;
        else
            ++f.missing;
        if (f.sent + f.missing < msg->m_count)
            return;
        if (f.missing)
            bump(m_counters->incomplete_frames);
        else
            bump(m_counters->frames_sent[msg->m_kind]);
        m_frames.erase(msg->m_frame);
    }

    // The network slowed on purpose: the thread sleeps in short steps inside
    // its handling, reading none of its queues, once per call.
    void maybe_stall() {
        if (m_stalled || now_us() < m_stall_at_us)
            return;
        m_stalled = true;
        const steady::time_point begin = steady::now();
        const steady::time_point end = begin + std::chrono::milliseconds(m_profile.stall_ms);
        m_counters->stalling.store(true, std::memory_order_relaxed);
        CALL_LOG(ssb::LOG_WARNING, "sender: stalling on purpose, ms = " << m_profile.stall_ms);
        while (steady::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const uint64_t took =
            static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(steady::now() - begin).count());
        m_counters->stall_us.store(took, std::memory_order_relaxed);
        m_counters->stalling.store(false, std::memory_order_relaxed);
        CALL_LOG(ssb::LOG_WARNING, "sender: stall over, us = " << took);
    }

    // Keeps at most `window` datagrams unread by the receiver, so a burst
    // after the stall never overflows the receive buffer (loopback drops
    // silently when it is full). The receiver's count stands in for the
    // reports a real peer would send.
    void wait_window() {
        if (get(m_counters->packets_sent) + get(m_counters->send_errors) - get(m_counters->datagrams) <
            m_profile.window)
            return;
        bump(m_counters->window_waits);
        const steady::time_point limit = steady::now() + WINDOW_WAIT_LIMIT;
        while (get(m_counters->packets_sent) + get(m_counters->send_errors) - get(m_counters->datagrams) >=
                   m_profile.window &&
               steady::now() < limit)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
    }

    counters_t* m_counters;
    profile_t m_profile;
    steady::time_point m_t0;
    udp_socket_t m_socket;
    uint32_t m_next_seq = 0;
    uint64_t m_stall_at_us = 0;
    bool m_stalled = false;
    std::unordered_map<uint32_t, frame_state_t> m_frames;
};

void packet_msg_t::on_message() {
    m_ran = true;
    m_sender->send(this);
}

void packet_msg_t::release() {
    if (m_accepted && !m_ran)
        m_sender->unrun(this);
    ssb::msg_it::release();
}

// One encoder. Lives on its encoder thread: every method but the
// constructor runs there (on_queue_room too: the library calls sinks on the
// writer's thread).
//
// Back-pressure rule: packets go to the sender in order. When the sender's
// queue answers RESULT_QUEUE_FULL, that packet and every later one wait in
// the hold queue, and the queue calls on_queue_room once the sender has
// made room. A frame is held or dropped whole, decided before its first
// packet goes: while packets are held, a video frame that would take the
// hold queue past hold_limit packets is dropped, and an audio frame past
// twice that (audio is small and its gaps are heard). Every frame that
// enters the hold queue is sent later, or counted as incomplete when the
// sender drops one of its packets as overtime.
class encoder_t : public ssb::msg_queue_sink_it {
public:
    encoder_t(unsigned int index, counters_t* counters, const profile_t& profile)
        : m_index(index), m_counters(counters), m_profile(profile) {}
    ~encoder_t() override {
        for (packet_msg_t* p : m_hold)
            p->release();
        ssb::msg_db_t::release(m_recording);
    }
    void bind(ssb::thread_wrapper_t* sender_thr, sender_t* sender, ssb::thread_pool_t* pool) {
        m_sender_thr = sender_thr;
        m_sender = sender;
        m_pool = pool;
    }

    void encode(ssb::msg_db_t* frame, media_kind_t kind, uint32_t id, uint64_t capture_us) {
        record(frame, capture_us);
        const unsigned int n = frame->length();
        std::vector<unsigned char> raw(n);
        if (n)
            frame->peek(reinterpret_cast<signed char*>(raw.data()), n, 0);
        ssb::msg_db_t* coded = ssb::msg_db_t::new_instance(static_cast<unsigned int>(rle_bound(n)) + 1);
        if (!coded) {
            bump(m_counters->dropped[kind]);
            return;
        }
        const size_t m = rle_encode(raw.data(), n, reinterpret_cast<unsigned char*>(coded->get_writer_cursor()));
        coded->move_write_forward(static_cast<unsigned int>(m));
        const uint16_t count = static_cast<uint16_t>(m == 0 ? 1 : (m + PACKET_MAX_PAYLOAD - 1) / PACKET_MAX_PAYLOAD);

        if (!m_hold.empty()) {
            const size_t limit = kind == KIND_VIDEO ? m_profile.hold_limit : 2 * m_profile.hold_limit;
            if (m_hold.size() + count > limit) {
                bump(m_counters->dropped[kind]);
                CALL_LOG(ssb::LOG_DEBUG, "encoder: frame dropped by the hold rule, encoder = "
                                             << m_index << ", frame = " << id << ", kind = "
                                             << static_cast<unsigned int>(kind) << ", held = " << m_hold.size());
                ssb::msg_db_t::release(coded);
                return;
            }
        }
        bool held = false;
        for (uint16_t i = 0; i < count; ++i) {
            const unsigned int take = std::min<unsigned int>(coded->length(), PACKET_MAX_PAYLOAD);
            packet_header_t h;
            h.kind = kind;
            h.frame_id = id;
            h.index = i;
            h.count = count;
            h.capture_us = capture_us;
            h.payload_len = static_cast<uint16_t>(take);
            unsigned char head[PACKET_HEADER_SIZE];
            write_header(h, head);
            ssb::msg_db_t* packet = ssb::msg_db_t::new_instance(PACKET_HEADER_SIZE);
            packet->_write(reinterpret_cast<signed char*>(head), PACKET_HEADER_SIZE, nullptr);
            if (take)
                packet->append(coded->split(take));
            packet_msg_t* msg = new packet_msg_t(m_sender, packet, kind, id, count, m_profile.packet_timeout_ms);
            if (!m_hold.empty() || !post(msg)) {
                m_hold.push_back(msg);
                held = true;
            }
        }
        ssb::msg_db_t::release(coded);
        if (held)
            bump(m_counters->frames_held);
        publish_hold();
    }

    void on_queue_room(int) override {
        while (!m_hold.empty() && post(m_hold.front()))
            m_hold.pop_front();
        publish_hold();
    }

    // Hands what is recorded to the pool and lets go of finished tasks.
    void flush_recording() {
        hand_recording();
        sweep_tasks();
    }

    size_t held() const { return m_hold.size(); }

private:
    // True when the sender's queue took it.
    bool post(packet_msg_t* msg) {
        msg->m_accepted = true;
        const int rv = m_sender_thr->post_msg(msg, this);
        if (rv == ssb::RESULT_SUCCESS)
            return true;
        msg->m_accepted = false;
        if (rv == ssb::RESULT_QUEUE_FULL) {
            bump(m_counters->full_events);
            if (m_hold.empty())
                bump(m_counters->episodes);
            return false;
        }
        // The sender is gone: nothing will call back, so the packet ends
        // here and its frame, once, is incomplete (the sender never
        // completes it).
        bump(m_counters->post_failures);
        CALL_LOG(ssb::LOG_ERROR, "encoder: post to the sender failed, encoder = " << m_index << ", rv = " << rv);
        if (!m_any_failed || m_failed_frame != msg->frame()) {
            m_any_failed = true;
            m_failed_frame = msg->frame();
            bump(m_counters->incomplete_frames);
        }
        msg->release();
        return true;
    }

    void publish_hold() {
        const uint64_t now = m_hold.size();
        if (now > m_reported_high) {
            m_reported_high = now;
            uint64_t seen = get(m_counters->hold_high_water);
            while (now > seen && !m_counters->hold_high_water.compare_exchange_weak(seen, now))
                ;
        }
        const uint64_t before = m_published;
        m_published = now;
        if (now >= before)
            bump(m_counters->held_now, now - before);
        else
            m_counters->held_now.fetch_sub(before - now, std::memory_order_relaxed);
    }

    void record(ssb::msg_db_t* frame, uint64_t capture_us) {
        ssb::msg_db_t* copy = frame->duplicate();
        if (!copy)
            return;
        if (!m_recording) {
            m_recording = copy;
            m_recording_start_us = capture_us;
        } else {
            m_recording_tail->insert_behind(copy);
        }
        m_recording_tail = copy;
        while (m_recording_tail->next())
            m_recording_tail = m_recording_tail->next();
        if (capture_us - m_recording_start_us >= m_profile.recording_ms * 1000ull)
            hand_recording();
    }

    // A recording's load on the pool is its size in KiB.
    void hand_recording() {
        if (!m_recording)
            return;
        const unsigned int bytes = m_recording->length();
        auto done = std::make_shared<std::atomic<bool>>(false);
        recording_msg_t* msg = new recording_msg_t(m_recording, m_counters, done);
        m_recording = m_recording_tail = nullptr;
        unsigned int task_id = 0;
        ssb::thread_wrapper_t* thr = nullptr;
        const int rv = m_pool->add_task(msg, task_id, bytes / 1024 + 1, thr);
        if (rv != ssb::RESULT_SUCCESS) {
            CALL_LOG(ssb::LOG_ERROR, "encoder: the pool refused a recording, encoder = " << m_index << ", rv = " << rv);
            msg->release();
        } else {
            bump(m_counters->recordings);
            m_tasks.push_back({task_id, done});
        }
        sweep_tasks();
    }

    // Ends finished tasks so the pool's loads stay current.
    void sweep_tasks() {
        for (size_t i = 0; i < m_tasks.size();) {
            if (m_tasks[i].second->load(std::memory_order_acquire)) {
                m_pool->remove_task(nullptr, m_tasks[i].first);
                m_tasks[i] = m_tasks.back();
                m_tasks.pop_back();
            } else {
                ++i;
            }
        }
    }

    unsigned int m_index;
    counters_t* m_counters;
    profile_t m_profile;
    ssb::thread_wrapper_t* m_sender_thr = nullptr;
    sender_t* m_sender = nullptr;
    ssb::thread_pool_t* m_pool = nullptr;
    std::deque<packet_msg_t*> m_hold;
    bool m_any_failed = false;
    uint32_t m_failed_frame = 0;
    uint64_t m_published = 0;
    uint64_t m_reported_high = 0;
    ssb::msg_db_t* m_recording = nullptr;
    ssb::msg_db_t* m_recording_tail = nullptr;
    uint64_t m_recording_start_us = 0;
    std::vector<std::pair<unsigned int, std::shared_ptr<std::atomic<bool>>>> m_tasks;
};

void frame_msg_t::on_message() { m_encoder->encode(m_frame, m_kind, m_id, m_capture_us); }

// The capture device. Lives on the capture thread: start, stop and the
// timer call-backs run there.
class capture_t : public ssb::timer_sink_it {
public:
    capture_t(counters_t* counters, const profile_t& profile, steady::time_point t0, ssb::observer_holder_t* stats)
        : m_counters(counters), m_profile(profile), m_t0(t0), m_stats(stats) {}
    ~capture_t() override {
        delete m_audio;
        delete m_video;
        delete m_second;
    }
    void add_encoder(ssb::thread_wrapper_t* thr, encoder_t* encoder) { m_encoders.push_back({thr, encoder}); }

    int start() {
        m_audio = new ssb::timer_elem_t();
        m_video = new ssb::timer_elem_t();
        m_second = new ssb::timer_elem_t();
        m_start = steady::now();
        int rv = m_audio->add_timer(this, m_profile.audio_ms, 0, true);
        if (rv == ssb::RESULT_SUCCESS)
            rv = m_video->add_timer(this, m_profile.video_ms, 1, true);
        if (rv == ssb::RESULT_SUCCESS)
            rv = m_second->add_timer(this, 1000, 0, true);
        return rv;
    }

    // Removes and frees the timers here, on their own thread.
    void stop() {
        for (ssb::timer_elem_t** t : {&m_audio, &m_video, &m_second}) {
            if (*t)
                (*t)->remove_timer();
            delete *t;
            *t = nullptr;
        }
    }

    void timer_work(const ssb::timer_it* timer) override {
        const steady::time_point now = steady::now();
        if (timer == m_audio) {
            ++m_audio_n;
            m_audio_late.push_back(late_us(now, m_audio_n * m_profile.audio_ms));
            produce(KIND_AUDIO, now);
        } else if (timer == m_video) {
            ++m_video_n;
            m_video_late.push_back(late_us(now, m_video_n * m_profile.video_ms));
            produce(KIND_VIDEO, now);
            // The wheel counts 10 ms ticks: re-arming for the time left to
            // the next due point, to the nearest tick, keeps the cadence
            // exact instead of drifting by 3 ms a frame.
            const steady::time_point next = m_start + std::chrono::milliseconds((m_video_n + 1) * m_profile.video_ms);
            const long long left = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count();
            const unsigned int delay = left < 15 ? 10 : static_cast<unsigned int>((left + 5) / 10 * 10);
            m_video->add_timer(this, delay, 1, true);
        } else if (timer == m_second) {
            ++m_seconds;
            m_stats->notify(m_seconds);
        }
    }

    std::vector<int64_t> m_audio_late;
    std::vector<int64_t> m_video_late;

private:
    int64_t late_us(steady::time_point now, uint64_t due_ms) const {
        return std::chrono::duration_cast<std::chrono::microseconds>(now - m_start).count() -
               static_cast<int64_t>(due_ms) * 1000;
    }

    void produce(media_kind_t kind, steady::time_point now) {
        const uint64_t capture_us =
            static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now - m_t0).count());
        const uint32_t id = m_next_id++;
        ssb::msg_db_t* frame = kind == KIND_AUDIO ? audio_frame(id) : video_frame();
        bump(m_counters->captured[kind]);
        if (!frame) {
            bump(m_counters->capture_dropped);
            return;
        }
        const auto& target = m_encoders[m_next_encoder++ % m_encoders.size()];
        frame_msg_t* msg = new frame_msg_t(target.second, frame, kind, id, capture_us);
        // Capture never waits: a raw frame the encoder has no room for is
        // dropped here.
        if (target.first->post_msg(msg, nullptr) != ssb::RESULT_SUCCESS) {
            bump(m_counters->capture_dropped);
            msg->release();
        }
    }

    ssb::msg_db_t* audio_frame(uint32_t id) {
        std::vector<signed char> pcm(m_profile.audio_bytes);
        for (size_t i = 0; i < pcm.size(); ++i)
            pcm[i] = static_cast<signed char>(100 * sin(0.0785 * static_cast<double>(id * pcm.size() + i)));
        return ssb::msg_db_t::new_instance(m_profile.audio_bytes, pcm.data(), m_profile.audio_bytes,
                                           ssb::MSG_FLAG_NONE);
    }

    // Bands that scroll, a bright bar that moves and a patch of noise: what
    // a run-length code compresses several times, but not to nothing.
    ssb::msg_db_t* video_frame() {
        const unsigned int w = m_profile.width, rows = m_profile.slice_rows;
        std::vector<signed char> slice(static_cast<size_t>(w) * rows);
        ssb::msg_db_t* head = nullptr;
        ssb::msg_db_t* tail = nullptr;
        const unsigned int bar = (m_video_n * 4) % w;
        for (unsigned int y0 = 0; y0 < m_profile.height; y0 += rows) {
            const unsigned int n = std::min(rows, m_profile.height - y0);
            for (unsigned int dy = 0; dy < n; ++dy) {
                const unsigned int y = y0 + dy;
                signed char* row = &slice[static_cast<size_t>(dy) * w];
                std::fill(row, row + w, static_cast<signed char>(((y + m_video_n) / 12 % 8) * 28));
                for (unsigned int x = bar; x < w && x - bar < 12; ++x)
                    row[x] = static_cast<signed char>(-21);
                if (y >= m_profile.height / 4 && y < m_profile.height / 4 + m_profile.height / 6)
                    for (unsigned int x = w / 4; x < w / 4 + w / 2; ++x) {
                        m_noise = m_noise * 1103515245u + 12345u;
                        row[x] = static_cast<signed char>(m_noise >> 24);
                    }
            }
            ssb::msg_db_t* node = ssb::msg_db_t::new_instance(n * w, slice.data(), n * w, ssb::MSG_FLAG_NONE);
            if (!node) {
                ssb::msg_db_t::release(head);
                return nullptr;
            }
            if (tail)
                tail->insert_behind(node);
            else
                head = node;
            tail = node;
        }
        return head;
    }

    counters_t* m_counters;
    profile_t m_profile;
    steady::time_point m_t0;
    ssb::observer_holder_t* m_stats;
    std::vector<std::pair<ssb::thread_wrapper_t*, encoder_t*>> m_encoders;
    ssb::timer_elem_t* m_audio = nullptr;
    ssb::timer_elem_t* m_video = nullptr;
    ssb::timer_elem_t* m_second = nullptr;
    steady::time_point m_start;
    uint64_t m_audio_n = 0;
    uint64_t m_video_n = 0;
    uint32_t m_seconds = 0;
    uint32_t m_next_id = 0;
    size_t m_next_encoder = 0;
    uint32_t m_noise = 1;
};

// The receiving end. Its socket is registered with the receiving I/O
// thread's repository, so on_ready runs on that thread only.
class receiver_t : public ssb::io_handler_it {
public:
    receiver_t(counters_t* counters, steady::time_point t0, udp_socket_t socket)
        : m_counters(counters), m_t0(t0), m_socket(socket) {}

    void on_ready(ssb::io_handle_t, uint32_t) override {
        unsigned char buf[PACKET_MAX_SIZE + 64];
        for (unsigned int i = 0; i < RECV_BURST; ++i) {
            int error = 0;
            const int n = udp_recv(m_socket, buf, sizeof(buf), error);
            if (n == 0)
                return;
            if (n < 0) {
                CALL_LOG(ssb::LOG_ERROR, "receiver: recv failed, error = " << error);
                return;
            }
            take(buf, static_cast<size_t>(n));
            // Last: the sender's window reads it, and the packet's counts
            // above are in place by then.
            bump(m_counters->datagrams);
        }
    }

    std::vector<int64_t> m_end_to_end;

private:
    void take(const unsigned char* data, size_t len) {
        packet_header_t h;
        const parse_result_t rv = parse_packet(data, len, h);
        if (rv != PACKET_OK) {
            bump(m_counters->corrupted);
            CALL_LOG(ssb::LOG_ERROR, "receiver: bad packet, reason = " << static_cast<int>(rv) << ", len = " << len);
            return;
        }
        // A sequence number far past everything seen cannot be ours; it
        // would also make the seen-bitmap grow without bound.
        if (static_cast<uint64_t>(h.seq) > static_cast<uint64_t>(m_highest) + SEQ_JUMP_LIMIT) {
            bump(m_counters->corrupted);
            CALL_LOG(ssb::LOG_ERROR, "receiver: implausible sequence number, seq = " << h.seq);
            return;
        }
        if (h.seq >= m_seen.size())
            m_seen.resize(std::max<size_t>(h.seq + 1, m_seen.size() * 2), false);
        if (m_seen[h.seq]) {
            bump(m_counters->duplicates);
            return;
        }
        m_seen[h.seq] = true;
        if (m_any && h.seq < m_highest)
            bump(m_counters->reordered);
        m_highest = std::max(m_highest, h.seq);
        m_any = true;
        bump(m_counters->packets_received);
        uint16_t& got = m_frames[h.frame_id];
        if (++got < h.count)
            return;
        m_frames.erase(h.frame_id);
        bump(m_counters->frames_received[h.kind]);
        const int64_t now = std::chrono::duration_cast<std::chrono::microseconds>(steady::now() - m_t0).count();
        m_end_to_end.push_back(now - static_cast<int64_t>(h.capture_us));
    }

    counters_t* m_counters;
    steady::time_point m_t0;
    udp_socket_t m_socket;
    std::vector<bool> m_seen;
    uint32_t m_highest = 0;
    bool m_any = false;
    std::unordered_map<uint32_t, uint16_t> m_frames;
};

// The statistics observer: added on the main thread, so the library calls
// it there (from main_heartbeat) each time the capture thread's one-second
// timer notifies.
class status_observer_t : public ssb::observer_it {
public:
    explicit status_observer_t(call_t* call) : m_call(call) {}
    void on_notify(uint32_t what, ssb::ref_count_it*) override;

private:
    call_t* m_call;
};

// ---- the call --------------------------------------------------------------

// Built, run and torn down on the main thread.
class call_t {
public:
    call_t(const call_config_t& config, call_summary_t& summary)
        : m_config(config), m_profile(make_profile(config)), m_summary(summary), m_observer(this) {}

    int run();
    void print_status(uint32_t second);

private:
    bool setup();
    void run_loop();
    bool drained() const;
    void collect();
    void collect_library_stats();
    void teardown();
    void list_logs();
    ssb::thread_wrapper_t* spawn(unsigned int mode, const std::string& name);
    bool fail(const std::string& why) {
        m_summary.error = why;
        CALL_LOG(ssb::LOG_ERROR, "call: " << why.c_str());
        return false;
    }
    double elapsed_s() const { return std::chrono::duration<double>(steady::now() - m_t0).count(); }

    const call_config_t& m_config;
    profile_t m_profile;
    call_summary_t& m_summary;
    counters_t m_counters;
    steady::time_point m_t0;
    steady::time_point m_capture_started;
    std::filesystem::file_time_type m_files_since;
    bool m_initialised = false;
    bool m_terminal = false;
    std::unique_ptr<ssb::logger_file_base_t> m_log;

    ssb::thread_mgr_t* m_mgr = nullptr;
    ssb::thread_wrapper_t* m_main = nullptr;
    ssb::thread_wrapper_t* m_capture_thr = nullptr;
    std::vector<ssb::thread_wrapper_t*> m_encoder_thrs;
    ssb::thread_wrapper_t* m_sender_thr = nullptr;
    ssb::thread_io_t* m_receiver_thr = nullptr;
    ssb::thread_pool_t* m_pool = nullptr;

    udp_socket_t m_send_sock = UDP_INVALID;
    udp_socket_t m_recv_sock = UDP_INVALID;

    ssb::observer_holder_t m_stats;
    status_observer_t m_observer;
    bool m_observing = false;
    std::unique_ptr<capture_t> m_capture;
    bool m_capturing = false;
    std::vector<std::unique_ptr<encoder_t>> m_encoders;
    std::unique_ptr<sender_t> m_sender;
    std::unique_ptr<receiver_t> m_receiver;

    ssb_cpu_sample_t m_cpu_call = {};
    ssb_cpu_sample_t m_cpu_second = {};
};

void status_observer_t::on_notify(uint32_t what, ssb::ref_count_it*) { m_call->print_status(what); }

ssb::thread_wrapper_t* call_t::spawn(unsigned int mode, const std::string& name) {
    ssb::thread_wrapper_t* thr =
        m_mgr->spawn(mode, 1024, 0x43414C4Cu, false, reinterpret_cast<const signed char*>(name.c_str()), 0);
    if (!thr)
        fail("could not spawn " + name);
    return thr;
}

bool call_t::setup() {
    std::error_code ec;
    std::filesystem::create_directories(m_config.log_dir, ec);
    m_summary.log_dir = std::filesystem::absolute(m_config.log_dir, ec).string();
    m_files_since = std::filesystem::file_time_type::clock::now() - std::chrono::seconds(2);

    // The last util_uninit of an earlier call in this process leaves the
    // thread manager released until it is reset.
    if (!ssb::thread_mgr_t::peek())
        ssb::thread_mgr_t::reset();
    util_init(CALL_MODULE, m_config.log_dir.c_str(), LIBRARY_LOG_STEM, "log", 0, 0);
    m_initialised = true;
    m_log.reset(new ssb::logger_file_base_t(reinterpret_cast<const signed char*>(m_config.log_dir.c_str()),
                                            reinterpret_cast<const signed char*>(CALL_LOG_STEM),
                                            reinterpret_cast<const signed char*>("log"), ssb::MIN_LOG_SIZE,
                                            ssb::MIN_LOG_IDX));
    register_logger(CALL_MODULE, "CALL", ssb::LOG_DEBUG, m_log.get(), ssb::LOG_TO_HANDLE);
    CALL_LOG(ssb::LOG_INFO, "call: start, duration_s = " << m_config.duration_s << ", encoders = " << m_config.encoders
                                                         << ", pool = " << m_config.pool_threads
                                                         << ", stress = " << m_config.stress);

    m_mgr = ssb::thread_mgr_t::instance();
    m_main = m_mgr ? m_mgr->find_by_type(ssb::THREAD_TYPE_MAIN) : nullptr;
    if (!m_main)
        return fail("the library has no main thread");
    if (main_heartbeat() != ssb::RESULT_SUCCESS)
        return fail("main_heartbeat refused: run the call on the thread that first initialised the library");

    std::string why;
    if (udp_open_pair(m_send_sock, m_recv_sock, RECV_BUFFER, why) != 0)
        return fail("loopback UDP: " + why);
    m_summary.recv_buffer = udp_recv_buffer(m_recv_sock);

    m_pool = ssb::thread_pool_t::new_instance(1, m_config.pool_threads, false, 0);
    if (!m_pool)
        return fail("the thread pool was refused");

    m_capture_thr = spawn(ssb::THREAD_MODE_EVENT, "call.capture");
    m_sender_thr = spawn(ssb::THREAD_MODE_IO, "call.sender");
    ssb::thread_wrapper_t* receiver = spawn(ssb::THREAD_MODE_IO, "call.receiver");
    m_receiver_thr = dynamic_cast<ssb::thread_io_t*>(receiver);
    for (unsigned int i = 0; i < m_config.encoders; ++i)
        m_encoder_thrs.push_back(spawn(ssb::THREAD_MODE_EVENT, "call.encoder." + std::to_string(i)));
    if (!m_capture_thr || !m_sender_thr || !m_receiver_thr ||
        std::find(m_encoder_thrs.begin(), m_encoder_thrs.end(), nullptr) != m_encoder_thrs.end())
        return fail("could not spawn the call's threads");

    m_sender.reset(new sender_t(&m_counters, m_profile, m_t0, m_send_sock));
    m_receiver.reset(new receiver_t(&m_counters, m_t0, m_recv_sock));
    m_capture.reset(new capture_t(&m_counters, m_profile, m_t0, &m_stats));

    // Channels: main drives capture, the encoders and the receiver with
    // tasks; frames and packets flow capture -> encoder -> sender.
    if (m_capture_thr->create_channel(m_main, 16, 16) != ssb::RESULT_SUCCESS ||
        m_receiver_thr->create_channel(m_main, 16, 16) != ssb::RESULT_SUCCESS)
        return fail("could not open the main thread's channels");
    for (unsigned int i = 0; i < m_config.encoders; ++i) {
        ssb::thread_wrapper_t* enc = m_encoder_thrs[i];
        m_encoders.emplace_back(new encoder_t(i, &m_counters, m_profile));
        m_encoders.back()->bind(m_sender_thr, m_sender.get(), m_pool);
        m_capture->add_encoder(enc, m_encoders.back().get());
        if (enc->create_channel(m_main, 16, 16) != ssb::RESULT_SUCCESS ||
            m_capture_thr->create_channel(enc, m_profile.capture_queue, m_profile.capture_queue) !=
                ssb::RESULT_SUCCESS ||
            enc->create_channel(m_sender_thr, m_profile.send_queue, m_profile.send_queue) != ssb::RESULT_SUCCESS)
            return fail("could not open an encoder's channels");
    }

    int rv = -1;
    receiver_t* rx = m_receiver.get();
    ssb::thread_io_t* io = m_receiver_thr;
    const udp_socket_t sock = m_recv_sock;
    if (ssb::send_task(
            io, [io, rx, sock] { return io->repo() ? io->repo()->add_fd(sock, ssb::IO_READ, rx) : -1; }, &rv, 10000) !=
            ssb::RESULT_SUCCESS ||
        rv != ssb::RESULT_SUCCESS)
        return fail("could not register the receive socket, rv = " + std::to_string(rv));

    if (m_stats.add_observer(&m_observer) != ssb::RESULT_SUCCESS)
        return fail("could not add the statistics observer");
    m_observing = true;

    // Set before the first frame exists; the messages that carry the
    // packets order it before the sender reads it.
    const double stall_at = elapsed_s() + std::max(0.4 * m_config.duration_s, 0.3);
    m_sender->set_stall_at(static_cast<uint64_t>(stall_at * 1e6));
    capture_t* cap = m_capture.get();
    rv = -1;
    if (ssb::send_task(
            m_capture_thr, [cap] { return cap->start(); }, &rv, 10000) != ssb::RESULT_SUCCESS ||
        rv != ssb::RESULT_SUCCESS)
        return fail("could not start the capture timers, rv = " + std::to_string(rv));
    m_capture_started = steady::now();
    m_capturing = true;
    return true;
}

bool call_t::drained() const {
    const counters_t& c = m_counters;
    const uint64_t captured = get(c.captured[KIND_AUDIO]) + get(c.captured[KIND_VIDEO]);
    const uint64_t accounted = get(c.capture_dropped) + get(c.dropped[KIND_AUDIO]) + get(c.dropped[KIND_VIDEO]) +
                               get(c.frames_sent[KIND_AUDIO]) + get(c.frames_sent[KIND_VIDEO]) +
                               get(c.incomplete_frames);
    return accounted == captured && get(c.datagrams) >= get(c.packets_sent) &&
           get(c.recordings_done) == get(c.recordings);
}

void call_t::run_loop() {
    const std::chrono::microseconds beat(1000000 / MAIN_HZ);
    // The call's length counts from the first capture timer, not from the
    // set-up (slow under Wine or a sanitizer).
    const steady::time_point end =
        m_capture_started + std::chrono::milliseconds(static_cast<long long>(m_config.duration_s * 1000));
    steady::time_point drain_limit;
    bool flushed = false;
    steady::time_point next = steady::now();
    for (;;) {
        const int rv = main_heartbeat();
        if (rv != ssb::RESULT_SUCCESS) {
            fail("main_heartbeat failed, rv = " + std::to_string(rv));
            return;
        }
        const steady::time_point now = steady::now();
        if (m_capturing && now >= end) {
            capture_t* cap = m_capture.get();
            ssb::send_task(
                m_capture_thr, [cap] { cap->stop(); }, 10000);
            m_capturing = false;
            drain_limit = now + DRAIN_LIMIT;
            CALL_LOG(ssb::LOG_INFO, "call: capture stopped, draining");
        }
        if (!m_capturing) {
            // Once every frame is through, the last partial recordings go to
            // the pool; the call ends when those are done too.
            if (!flushed && drained()) {
                for (size_t i = 0; i < m_encoders.size(); ++i) {
                    encoder_t* enc = m_encoders[i].get();
                    ssb::send_task(
                        m_encoder_thrs[i], [enc] { enc->flush_recording(); }, 10000);
                }
                flushed = true;
            }
            if (flushed && drained()) {
                for (size_t i = 0; i < m_encoders.size(); ++i) {
                    encoder_t* enc = m_encoders[i].get();
                    ssb::send_task(
                        m_encoder_thrs[i], [enc] { enc->flush_recording(); }, 10000);
                }
                m_summary.drained = true;
                return;
            }
            if (now > drain_limit) {
                CALL_LOG(ssb::LOG_ERROR, "call: gave up waiting for the pipeline to drain");
                return;
            }
        }
        next += beat;
        if (next < now)
            next = now;
        std::this_thread::sleep_until(next);
    }
}

void call_t::print_status(uint32_t second) {
    typedef unsigned long long ull;
    const counters_t& c = m_counters;
    unsigned int cpu = 0;
    get_process_cpu_usage_r(&m_cpu_second, &cpu);
    // The sender's queues as the library counts them right now.
    unsigned int queued = 0;
    ssb::thread_stats_t st;
    if (ssb::get_thread_stats(m_sender_thr, st) == ssb::RESULT_SUCCESS)
        for (const ssb::queue_stats_t& q : st.channels)
            queued += q.depth;
    char line[256];
    snprintf(line, sizeof(line),
             "[%3u/%.0f s] audio %llu video %llu | packets sent %llu recv %llu | to send %u held %llu dropped %llu | "
             "full %llu%s | cpu %u%%",
             second, m_config.duration_s, static_cast<ull>(get(c.captured[KIND_AUDIO])),
             static_cast<ull>(get(c.captured[KIND_VIDEO])), static_cast<ull>(get(c.packets_sent)),
             static_cast<ull>(get(c.packets_received)), queued, static_cast<ull>(get(c.held_now)),
             static_cast<ull>(get(c.dropped[KIND_AUDIO]) + get(c.dropped[KIND_VIDEO])),
             static_cast<ull>(get(c.full_events)),
             c.stalling.load(std::memory_order_relaxed) ? " | NETWORK STALLED" : "", cpu);
    CALL_LOG(ssb::LOG_INFO, "status: " << line);
    if (m_config.quiet)
        return;
    if (m_terminal)
        fprintf(m_config.out, "\r%-130s", line);
    else
        fprintf(m_config.out, "%s\n", line);
    fflush(m_config.out);
}

void call_t::collect() {
    call_summary_t& s = m_summary;
    const counters_t& c = m_counters;
    s.captured_audio = get(c.captured[KIND_AUDIO]);
    s.captured_video = get(c.captured[KIND_VIDEO]);
    s.sent_audio = get(c.frames_sent[KIND_AUDIO]);
    s.sent_video = get(c.frames_sent[KIND_VIDEO]);
    s.received_audio = get(c.frames_received[KIND_AUDIO]);
    s.received_video = get(c.frames_received[KIND_VIDEO]);
    s.capture_dropped = get(c.capture_dropped);
    s.dropped_audio = get(c.dropped[KIND_AUDIO]);
    s.dropped_video = get(c.dropped[KIND_VIDEO]);
    s.incomplete_frames = get(c.incomplete_frames);
    s.frames_held = get(c.frames_held);
    s.packets_sent = get(c.packets_sent);
    s.packets_received = get(c.packets_received);
    s.corrupted = get(c.corrupted);
    s.reordered = get(c.reordered);
    s.duplicates = get(c.duplicates);
    s.lost = s.packets_sent > s.packets_received ? s.packets_sent - s.packets_received : 0;
    s.send_errors = get(c.send_errors) + get(c.post_failures);
    s.overtime_packets = get(c.overtime_packets);
    s.full_events = get(c.full_events);
    s.backpressure_episodes = get(c.episodes);
    s.hold_high_water = get(c.hold_high_water);
    s.held_at_end = get(c.held_now);
    s.window_waits = get(c.window_waits);
    s.recordings = get(c.recordings);
    s.recordings_verified = get(c.recordings_verified);
    s.recorded_bytes = get(c.recorded_bytes);
    s.compressed_bytes = get(c.compressed_bytes);
    s.stall_s = static_cast<double>(c.stall_us.load(std::memory_order_relaxed)) / 1e6;

    // The samples are the capture's and the receiver's: read on their
    // threads, after which the waits order them before this thread.
    std::vector<int64_t> audio, video, e2e;
    capture_t* cap = m_capture.get();
    ssb::send_task(m_capture_thr, [&] {
        audio = cap->m_audio_late;
        video = cap->m_video_late;
    });
    receiver_t* rx = m_receiver.get();
    ssb::send_task(m_receiver_thr, [&] { e2e = rx->m_end_to_end; });
    s.audio_late = spread_of(audio);
    s.video_late = spread_of(video);
    s.end_to_end = spread_of(e2e);
    if (m_pool)
        s.pool_threads_used = m_pool->get_thread_count();
    collect_library_stats();
}

void call_t::collect_library_stats() {
    if (!ssb::stats_enabled())
        return;
    ssb::histogram_t delay;
    std::vector<ssb::thread_wrapper_t*> readers(m_encoder_thrs);
    readers.push_back(m_sender_thr);
    for (ssb::thread_wrapper_t* thr : readers) {
        ssb::thread_stats_t st;
        if (ssb::get_thread_stats(thr, st) != ssb::RESULT_SUCCESS)
            continue;
        for (const ssb::queue_stats_t& q : st.channels) {
            // The data hops only: capture -> encoder, encoder -> sender.
            if (q.peer.compare(0, 5, "call.") != 0)
                continue;
            delay.merge(q.delay_us);
            m_summary.stats_refused += q.refused;
            m_summary.stats_overtime += q.overtime;
        }
    }
    m_summary.have_stats = true;
    m_summary.queue_delay.count = delay.total();
    m_summary.queue_delay.p50_us = static_cast<int64_t>(delay.percentile(0.5));
    m_summary.queue_delay.p99_us = static_cast<int64_t>(delay.percentile(0.99));
    m_summary.queue_delay.max_us = static_cast<int64_t>(delay.max);
    if (m_config.stress)
        ssb::dump_stats();
}

void call_t::teardown() {
    if (m_capturing) {
        capture_t* cap = m_capture.get();
        ssb::send_task(
            m_capture_thr, [cap] { cap->stop(); }, 10000);
        m_capturing = false;
    }
    if (m_observing)
        m_stats.remove_observer(&m_observer);
    // Also when the registration's answer never came: a socket that is not
    // registered is only refused (5).
    if (m_receiver_thr && m_receiver_thr->repo())
        m_receiver_thr->repo()->remove_fd(m_recv_sock);
    if (m_pool) {
        m_pool->stop_all_thread();
        ssb::thread_pool_t::release_obj(m_pool);
    }
    // Upstream first, so nothing is posted to a thread that has gone.
    std::vector<ssb::thread_wrapper_t*> order;
    order.push_back(m_capture_thr);
    order.insert(order.end(), m_encoder_thrs.begin(), m_encoder_thrs.end());
    order.push_back(m_sender_thr);
    order.push_back(m_receiver_thr);
    for (ssb::thread_wrapper_t* thr : order)
        if (thr && m_mgr)
            m_mgr->stop_thread_by_id(thr->get_id());
    m_capture.reset();
    m_encoders.clear();
    m_sender.reset();
    m_receiver.reset();
    udp_close(m_send_sock);
    udp_close(m_recv_sock);
    if (m_initialised) {
        CALL_LOG(ssb::LOG_INFO, "call: end, sent = " << m_summary.frames_sent()
                                                     << ", received = " << m_summary.frames_received()
                                                     << ", corrupted = " << m_summary.corrupted);
        if (ssb::log_control_t* control = ssb::log_control_t::instance())
            control->unregister_module(CALL_MODULE);
        m_log.reset();
        util_uninit(CALL_MODULE);
    }
    list_logs();
}

void call_t::list_logs() {
    std::error_code ec;
    std::vector<log_file_t> files;
    for (std::filesystem::directory_iterator it(m_config.log_dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (!it->is_regular_file(ec) || it->last_write_time(ec) < m_files_since)
            continue;
        if (name.compare(0, strlen(LIBRARY_LOG_STEM), LIBRARY_LOG_STEM) != 0 &&
            name.compare(0, strlen(CALL_LOG_STEM), CALL_LOG_STEM) != 0)
            continue;
        log_file_t f;
        f.path = it->path().string();
        f.bytes = it->file_size(ec);
        files.push_back(f);
    }
    std::sort(files.begin(), files.end(), [](const log_file_t& a, const log_file_t& b) { return a.path < b.path; });
    m_summary.logs = files;
}

int call_t::run() {
    m_t0 = steady::now();
    m_terminal = !m_config.quiet && is_terminal(m_config.out);
    m_summary.encoders = m_config.encoders;
    m_summary.pool_threads = m_config.pool_threads;
    m_summary.stress = m_config.stress;
    m_summary.stall_s = 0;
    m_summary.cpus = get_number_of_cpus();
    unsigned int cpu = 0;
    get_process_cpu_usage_r(&m_cpu_call, &cpu);
    m_cpu_second = m_cpu_call;
    if (setup()) {
        run_loop();
        if (m_terminal)
            fprintf(m_config.out, "\n");
        collect();
    }
    if (get_process_cpu_usage_r(&m_cpu_call, &cpu) == 0)
        m_summary.cpu_percent = cpu;
    m_summary.wall_s = elapsed_s();
    teardown();
    return m_summary.ok() ? 0 : 1;
}

}  // namespace

bool call_summary_t::ok() const {
    return error.empty() && drained && frames_sent() > 0 && frames_sent() == frames_received() && corrupted == 0 &&
           lost == 0;
}

int run_call(const call_config_t& config, call_summary_t& summary) {
    summary = call_summary_t();
    if (config.encoders < 1 || config.encoders > 8 || config.pool_threads < 2 || config.pool_threads > 64 ||
        !(config.duration_s > 0) || config.duration_s > 3600) {
        summary.error = "out of range: encoders 1..8, pool 2..64, duration 0..3600 s";
        return 1;
    }
    call_t call(config, summary);
    return call.run();
}

namespace {

typedef unsigned long long ull;

void print_count(FILE* out, const char* what, uint64_t n) {
    fprintf(out, "  %-34s %10llu\n", what, static_cast<ull>(n));
}

void print_spread(FILE* out, const char* what, const spread_t& s) {
    fprintf(out, "  %-34s %8.2f %8.2f %8.2f ms  (%llu)\n", what, static_cast<double>(s.p50_us) / 1000,
            static_cast<double>(s.p99_us) / 1000, static_cast<double>(s.max_us) / 1000, static_cast<ull>(s.count));
}

}  // namespace

void print_summary(const call_summary_t& s, FILE* out) {
    fprintf(out, "\nCall summary: %.1f s%s, %u encoder%s, pool up to %u threads\n", s.wall_s,
            s.stress ? ", stress" : "", s.encoders, s.encoders == 1 ? "" : "s", s.pool_threads);
    if (!s.error.empty())
        fprintf(out, "  ERROR: %s\n", s.error.c_str());
    fprintf(out, "  %-34s %10s %10s\n", "frames", "audio", "video");
    auto row = [&](const char* what, uint64_t a, uint64_t v) {
        fprintf(out, "  %-34s %10llu %10llu\n", what, static_cast<ull>(a), static_cast<ull>(v));
    };
    row("  captured", s.captured_audio, s.captured_video);
    row("  sent", s.sent_audio, s.sent_video);
    row("  received", s.received_audio, s.received_video);
    row("  dropped by the hold rule", s.dropped_audio, s.dropped_video);
    print_count(out, "  dropped at capture (queue full)", s.capture_dropped);
    print_count(out, "  incomplete (an overtime packet)", s.incomplete_frames);
    print_count(out, "  held in an encoder, then sent", s.frames_held);
    fprintf(out, "  packets\n");
    print_count(out, "  sent", s.packets_sent);
    print_count(out, "  received", s.packets_received);
    print_count(out, "  lost", s.lost);
    print_count(out, "  corrupted (CRC)", s.corrupted);
    print_count(out, "  reordered", s.reordered);
    print_count(out, "  duplicated", s.duplicates);
    print_count(out, "  send errors", s.send_errors);
    fprintf(out, "  back-pressure (network stalled %.2f s)\n", s.stall_s);
    print_count(out, "  full-queue events", s.full_events);
    print_count(out, "  episodes", s.backpressure_episodes);
    print_count(out, "  most packets held by an encoder", s.hold_high_water);
    print_count(out, "  overtime drops", s.overtime_packets);
    print_count(out, "  sends that waited for the reader", s.window_waits);
    if (s.have_stats) {
        print_count(out, "  refusals counted by the channels", s.stats_refused);
        print_count(out, "  overtime counted by the channels", s.stats_overtime);
    }
    fprintf(out, "  %-34s %8s %8s %8s\n", "timing", "p50", "p99", "max");
    print_spread(out, "  audio timer lateness", s.audio_late);
    print_spread(out, "  video timer lateness", s.video_late);
    if (s.have_stats)
        print_spread(out, "  queueing delay in channels", s.queue_delay);
    else
        fprintf(out, "  %-34s (library statistics are off)\n", "  queueing delay in channels");
    print_spread(out, "  capture to receiver", s.end_to_end);
    fprintf(out, "  recordings: %llu compressed on %u pool thread%s, %llu verified, %llu -> %llu bytes\n",
            static_cast<ull>(s.recordings), s.pool_threads_used, s.pool_threads_used == 1 ? "" : "s",
            static_cast<ull>(s.recordings_verified), static_cast<ull>(s.recorded_bytes),
            static_cast<ull>(s.compressed_bytes));
    fprintf(out, "  CPU share: %u%% of %u processors' time\n", s.cpu_percent, s.cpus);
    fprintf(out, "  log files in %s\n", s.log_dir.c_str());
    for (const log_file_t& f : s.logs)
        fprintf(out, "    %-40s %10llu bytes\n", std::filesystem::path(f.path).filename().string().c_str(),
                static_cast<ull>(f.bytes));
    fprintf(out, "  result: %s\n",
            s.ok() ? "OK: every frame sent was received, none lost or corrupted"
                   : (s.drained ? "FAILED" : "FAILED: the pipeline did not drain"));
}

}  // namespace call

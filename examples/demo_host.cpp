// A host program using util the way a client does: two modules initialise
// the library, the host registers its own log module and writes through it,
// reads back the memory log, runs two message-loop threads joined by a
// channel while driving its main thread with main_heartbeat, and the last
// module stops everything.
//
// Usage: demo_host [log folder]   (default: the per-user application-data
// folder, OrcaDecks/logs)
#include <stdio.h>
#include <string.h>

#include <chrono>
#include <functional>
#include <thread>

#include "log.h"
#include "memlog.h"
#include "thread_mgr.h"
#include "util.h"

namespace {

const unsigned int DEMO_MODULE = 100;

int SSB_STDCALL print_memory_log(void* context, signed char* text, unsigned int length) {
    const char* s = reinterpret_cast<const char*>(text);
    unsigned int lines = 0;
    for (unsigned int i = 0; i < length; ++i)
        lines += s[i] == '\n';
    printf("memory log: %u bytes, %u lines; the first one:\n  ", length, lines);
    const char* end = static_cast<const char*>(memchr(s, '\n', length));
    fwrite(s, 1, end ? static_cast<size_t>(end - s + 1) : length, stdout);
    *static_cast<unsigned int*>(context) = lines;
    return 0;
}

// Runs a function on the thread that receives it.
class call_msg_t : public ssb::msg_it {
public:
    explicit call_msg_t(std::function<void()> fn) : m_fn(std::move(fn)) {}
    void on_message() override { m_fn(); }

private:
    std::function<void()> m_fn;
};

// A media-stats sample handed from the capture thread to the encoder; the
// last one tells the main thread.
class stats_msg_t : public ssb::msg_it {
public:
    stats_msg_t(unsigned int seq, unsigned long long* sum, std::function<void()>* on_last)
        : m_seq(seq), m_sum(sum), m_on_last(on_last) {}
    void on_message() override {
        *m_sum += m_seq;
        if (m_on_last)
            (*m_on_last)();
    }

private:
    unsigned int m_seq;
    unsigned long long* m_sum;  // touched on the encoder's thread only
    std::function<void()>* m_on_last;
};

// Lives on the capture thread: posts `count` samples to the encoder over
// their channel. A full channel is not waited on: the queue calls back here,
// on the capture thread, once the encoder has made room.
class capture_t : public ssb::msg_queue_sink_it {
public:
    capture_t(ssb::thread_wrapper_t* encoder, unsigned int count, unsigned long long* sum,
              std::function<void()>* on_last)
        : m_encoder(encoder), m_count(count), m_sum(sum), m_on_last(on_last) {}

    void produce() {
        while (m_next <= m_count) {
            if (!m_held)
                m_held = new stats_msg_t(m_next, m_sum, m_next == m_count ? m_on_last : nullptr);
            if (m_encoder->post_msg(m_held, this) == ssb::RESULT_QUEUE_FULL) {
                ++m_full;
                return;
            }
            m_held = nullptr;
            ++m_next;
        }
    }
    void on_queue_room(int) override { produce(); }
    unsigned int full() const { return m_full; }

private:
    ssb::thread_wrapper_t* m_encoder;
    unsigned int m_count;
    unsigned long long* m_sum;
    std::function<void()>* m_on_last;
    unsigned int m_next = 1;
    unsigned int m_full = 0;
    ssb::msg_it* m_held = nullptr;
};

// Two message-loop threads joined by a 256-slot channel; the main thread is
// driven by main_heartbeat, as a host's window loop would. Returns true when
// every sample ran once.
bool run_thread_demo(unsigned int count) {
    ssb::thread_mgr_t* mgr = ssb::thread_mgr_t::instance();
    if (!mgr)
        return false;
    ssb::thread_wrapper_t* main_thr = mgr->find_by_type(ssb::THREAD_TYPE_MAIN);
    ssb::thread_wrapper_t* capture_thr =
        mgr->spawn(ssb::THREAD_MODE_EVENT, 256, 100, false, reinterpret_cast<const signed char*>("capture"), 0);
    ssb::thread_wrapper_t* encoder_thr =
        mgr->spawn(ssb::THREAD_MODE_EVENT, 256, 101, false, reinterpret_cast<const signed char*>("encoder"), 0);
    if (!main_thr || !capture_thr || !encoder_thr)
        return false;
    capture_thr->create_channel(encoder_thr, 256, 256);
    encoder_thr->create_channel(main_thr, 32, 32);

    unsigned long long sum = 0;
    bool done = false;  // set on the main thread, by the encoder's message
    // On the encoder, after the last sample: over its channel to main.
    std::function<void()> on_last = [&] { main_thr->post_msg(new call_msg_t([&] { done = true; }), nullptr); };
    capture_t capture(encoder_thr, count, &sum, &on_last);
    capture_thr->post_ctrl_msg(new call_msg_t([&] { capture.produce(); }), nullptr);
    unsigned int beats = 0;
    while (!done) {
        main_heartbeat();
        ++beats;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const unsigned long long expected = 1ULL * count * (count + 1) / 2;
    printf(
        "threads: %u samples from \"capture\" to \"encoder\" over a 255-slot channel, %u full answers, "
        "sum %llu (%s), main thread woke %u times\n",
        count, capture.full(), sum, sum == expected ? "all ran once" : "MISMATCH", beats);
    return sum == expected;
}

}  // namespace

int main(int argc, char** argv) {
    const char* log_dir = argc > 1 ? argv[1] : nullptr;
    unsigned int major = 0, minor = 0;
    const char* banner = nullptr;
    util_version(&major, &minor, &banner);
    printf("util %u.%u: %s\n", major, minor, banner);

    // Module 100 (the client) and module 200 (a plug-in) both use the library.
    util_init(DEMO_MODULE, log_dir, "demo_host", "log", 0, 0);
    util_init(200, nullptr, nullptr, nullptr, 0, 0);
    printf("two modules initialised the library (one start-up, counted twice)\n");

    ssb::logger_file* file = ssb::logger_file::peek();
    if (file)
        printf("log file: %s\n", file->current_path().c_str());

    // The host's own module writes to the same file and to the memory log.
    register_logger(DEMO_MODULE, "DEMO", ssb::LOG_DEBUG, nullptr, ssb::LOG_TO_FILE | ssb::LOG_TO_HANDLE);
    ssb::mem_log_file* memory = ssb::mem_log_file::instance(ssb::DEFAULT_MEM_LOG_SIZE);
    if (ssb::log_control_t* control = ssb::log_control_t::instance())
        for (unsigned int level = 0; level <= ssb::LOG_DEBUG; ++level)
            control->register_logger(DEMO_MODULE, level, memory);
    for (int i = 0; i < 5; ++i)
        SSB_LOG(DEMO_MODULE, ssb::LOG_INFO, "demo call step, step = " << i << ", jitter_ms = " << 0.25 * i);
    SSB_LOG(DEMO_MODULE, ssb::LOG_DEBUG,
            "debug lines are kept too, peer = " << ssb::ORDIX_HEX << 48879u << ssb::ORDIX_DEC << ", done = " << true);
    SSB_LOG(DEMO_MODULE, ssb::LOG_FUNC, "filtered out: above the module's level");

    unsigned int lines = 0;
    if (memory)
        memory->dump(&lines, print_memory_log);

    const bool queue_ok = run_thread_demo(100000);

    util_uninit(200);
    printf("module 200 released the library; services still running\n");
    util_uninit(DEMO_MODULE);
    printf("module 100 released the library; services stopped\n");
    return lines >= 7 && queue_ok ? 0 : 1;
}

// A host program using util the way a client does: two modules initialise
// the library, the host registers its own log module and writes through it,
// reads back the memory log, and the last module stops everything.
//
// Usage: demo_host [log folder]   (default: the per-user application-data
// folder, OrcaDecks/logs)
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <thread>

#include "log.h"
#include "memlog.h"
#include "msg_queue.h"
#include "notifier.h"
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

// A media-stats sample handed from the capture thread to a worker.
class stats_msg_t : public ssb::msg_it {
public:
    stats_msg_t(unsigned int seq, std::atomic<unsigned long long>* sum) : m_seq(seq), m_sum(sum) {}
    void on_message() override { m_sum->fetch_add(m_seq, std::memory_order_relaxed); }

private:
    unsigned int m_seq;
    std::atomic<unsigned long long>* m_sum;
};

// Posts `count` messages to a worker thread through a bounded queue; a full
// queue is retried, never blocked on. Returns true when every message ran.
bool run_queue_demo(unsigned int count) {
    ssb::notifier_event_t wake;
    ssb::msg_queue_t* queue = new ssb::msg_queue_t(&wake, nullptr, 256, ssb::MSG_QUEUE_SIGNAL_WHEN_EMPTY);
    queue->increment();
    std::atomic<unsigned long long> sum(0);
    unsigned int full = 0;
    std::thread worker([&] {
        for (unsigned int done = 0; done < count;) {
            ssb::msg_it* msg = nullptr;
            if (queue->pop_msg(msg) != ssb::RESULT_SUCCESS) {
                wake.wait(-1, false);  // the writer wakes it when it posts into an empty queue
                continue;
            }
            msg->on_message();
            msg->release();
            ++done;
        }
    });
    for (unsigned int i = 1; i <= count; ++i) {
        stats_msg_t* msg = new stats_msg_t(i, &sum);
        while (queue->post_msg(msg, nullptr) == ssb::RESULT_QUEUE_FULL) {
            ++full;  // the message is still ours: try again
            std::this_thread::yield();
        }
    }
    worker.join();
    queue->decrement();
    const unsigned long long expected = 1ULL * count * (count + 1) / 2;
    printf("queue: %u messages to a worker thread through a 255-slot queue, %u full answers, sum %llu (%s)\n",
           count, full, sum.load(), sum.load() == expected ? "all ran once" : "MISMATCH");
    return sum.load() == expected;
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
    SSB_LOG(DEMO_MODULE, ssb::LOG_DEBUG, "debug lines are kept too, peer = " << ssb::ORDIX_HEX << 48879u << ssb::ORDIX_DEC << ", done = " << true);
    SSB_LOG(DEMO_MODULE, ssb::LOG_FUNC, "filtered out: above the module's level");

    unsigned int lines = 0;
    if (memory)
        memory->dump(&lines, print_memory_log);

    const bool queue_ok = run_queue_demo(100000);

    util_uninit(200);
    printf("module 200 released the library; services still running\n");
    util_uninit(DEMO_MODULE);
    printf("module 100 released the library; services stopped\n");
    return lines >= 7 && queue_ok ? 0 : 1;
}

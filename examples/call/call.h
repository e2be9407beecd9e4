// A simulated video call on the library's threads, runnable in-process.
//
// One call: a capture thread produces 20 ms audio and 33 ms video frames
// into payload chains; encoder threads compress them and cut them into
// packets; a sending I/O thread stamps, checksums and sends them over a
// loopback UDP socket pair; a receiving I/O thread checks and counts them; a
// thread pool compresses the recordings; the calling thread is the main
// thread, pumped by main_heartbeat at 60 Hz, and prints a status line each
// second from a statistics observer. Part-way through, the sending thread
// stalls on purpose so that the encoders meet full queues.
#ifndef DEMO_CALL_H
#define DEMO_CALL_H

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

namespace call {

struct call_config_t {
    double duration_s = 10;
    // Encoder threads (1..8); capture hands them frames in turn.
    unsigned int encoders = 1;
    // Most threads of the recording pool (2..64).
    unsigned int pool_threads = 2;
    // Twice the video rate, bigger frames, queues a quarter the size, a
    // packet time-out shorter than the stall, and a two-second stall.
    bool stress = false;
    std::string log_dir = "demo-logs";
    // No status lines (run_call never prints the summary itself).
    bool quiet = false;
    FILE* out = stdout;
};

// Signed microseconds: a timer may fire up to one 10 ms tick early.
struct spread_t {
    uint64_t count = 0;
    int64_t p50_us = 0;
    int64_t p99_us = 0;
    int64_t max_us = 0;
};

struct log_file_t {
    std::string path;
    uint64_t bytes = 0;
};

struct call_summary_t {
    std::string error;  // empty unless the call could not be set up
    double wall_s = 0;
    unsigned int encoders = 0;
    unsigned int pool_threads = 0;
    bool stress = false;

    // Frames: captured = capture_dropped + dropped_by_rule + sent + incomplete_frames
    // once the call has drained.
    uint64_t captured_audio = 0, captured_video = 0;
    uint64_t sent_audio = 0, sent_video = 0;
    uint64_t received_audio = 0, received_video = 0;
    uint64_t capture_dropped = 0;  // a full encoder queue: the raw frame is dropped
    uint64_t dropped_audio = 0;    // by the hold rule of the encoders
    uint64_t dropped_video = 0;
    uint64_t incomplete_frames = 0;  // missing a packet the sender dropped as overtime
    uint64_t frames_held = 0;        // frames that waited in an encoder's hold queue

    // Packets.
    uint64_t packets_sent = 0, packets_received = 0;
    uint64_t lost = 0, corrupted = 0, reordered = 0, duplicates = 0;
    uint64_t send_errors = 0;
    uint64_t overtime_packets = 0;  // dropped unrun by the sender's loop as overtime
    uint64_t full_events = 0;       // RESULT_QUEUE_FULL answers to the encoders
    uint64_t backpressure_episodes = 0;
    uint64_t hold_high_water = 0;  // most packets held by one encoder at once
    uint64_t held_at_end = 0;      // packets still held when the call ended
    uint64_t window_waits = 0;     // sends that waited for the receiver to catch up

    spread_t audio_late, video_late;  // timer firing against start + n x period
    spread_t end_to_end;              // capture to complete frame at the receiver

    // From the library's statistics (h/stats.h).
    bool have_stats = false;
    spread_t queue_delay;         // channels capture->encoder and encoder->sender
    uint64_t stats_refused = 0;   // refusals counted by those channels
    uint64_t stats_overtime = 0;  // overtime drops counted by those channels

    // Recordings compressed by the pool.
    uint64_t recordings = 0, recordings_verified = 0;
    uint64_t recorded_bytes = 0, compressed_bytes = 0;
    unsigned int pool_threads_used = 0;

    double stall_s = 0;
    unsigned int cpu_percent = 0;  // of all processors, over the call
    unsigned int cpus = 0;
    int recv_buffer = 0;
    bool drained = false;  // everything captured was accounted for in time

    std::string log_dir;
    std::vector<log_file_t> logs;

    uint64_t captured() const { return captured_audio + captured_video; }
    uint64_t frames_sent() const { return sent_audio + sent_video; }
    uint64_t frames_received() const { return received_audio + received_video; }
    // What the exit code says: sent == received, nothing lost or corrupted.
    bool ok() const;
};

// Runs one call on the calling thread, which becomes the library's main
// thread (the first util_init of the process must not be elsewhere). 0 when
// summary.ok(), else 1; the summary is filled either way.
int run_call(const call_config_t& config, call_summary_t& summary);

void print_summary(const call_summary_t& summary, FILE* out);

}  // namespace call

#endif

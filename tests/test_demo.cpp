// The demo's simulated call: its wire format and codec, and short calls run
// in-process whose summaries must account for every frame. Parsing against
// a byte-wise model (sizes, CRC, header checks) is left to the fuzz target.
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "call.h"
#include "call_codec.h"
#include "call_net.h"
#include "msgblock.h"
#include "thread_mgr.h"
#include "util.h"
#include "test_support.h"

namespace {

using namespace call;

// Winsock must be started before the pair is opened outside a call.
[[maybe_unused]] const ::testing::Environment* const s_socket_env =
    ::testing::AddGlobalTestEnvironment(new util_test::socket_environment_t);

// A whole datagram as the sender builds it.
std::vector<unsigned char> datagram(const packet_header_t& h, const std::vector<unsigned char>& payload) {
    std::vector<unsigned char> d(PACKET_HEADER_SIZE + payload.size() + PACKET_CRC_SIZE);
    write_header(h, d.data());
    std::copy(payload.begin(), payload.end(), d.begin() + PACKET_HEADER_SIZE);
    const size_t body = d.size() - PACKET_CRC_SIZE;
    put_u32(d.data() + body, packet_crc(d.data(), body));
    return d;
}

packet_header_t sample_header(uint16_t payload_len) {
    packet_header_t h;
    h.kind = KIND_VIDEO;
    h.flags = 0x5A;
    h.seq = 0xFFFFFFFEu;
    h.frame_id = 0x01020304u;
    h.index = 6;
    h.count = 7;
    h.capture_us = 0x1122334455667788ULL;
    h.send_us = 0xFFFFFFFFFFFFFFF0ULL;
    h.payload_len = payload_len;
    return h;
}

TEST(DemoCodec, APacketReadsBackWhatWasWritten) {
    for (unsigned int len : {0u, 1u, PACKET_MAX_PAYLOAD}) {
        std::vector<unsigned char> payload(len);
        for (unsigned int i = 0; i < len; ++i)
            payload[i] = static_cast<unsigned char>(i * 7);
        const packet_header_t h = sample_header(static_cast<uint16_t>(len));
        const std::vector<unsigned char> d = datagram(h, payload);
        packet_header_t out;
        ASSERT_EQ(PACKET_OK, parse_packet(d.data(), d.size(), out)) << "payload " << len;
        EXPECT_EQ(h.kind, out.kind);
        EXPECT_EQ(h.flags, out.flags);
        EXPECT_EQ(h.seq, out.seq);
        EXPECT_EQ(h.frame_id, out.frame_id);
        EXPECT_EQ(h.index, out.index);
        EXPECT_EQ(h.count, out.count);
        EXPECT_EQ(h.capture_us, out.capture_us);
        EXPECT_EQ(h.send_us, out.send_us);
        EXPECT_EQ(h.payload_len, out.payload_len);
    }
}

TEST(DemoCodec, RunLengthCodesAtTheirBoundaries) {
    struct case_t {
        std::vector<unsigned char> in;
        std::vector<unsigned char> out;
    };
    // 128 distinct bytes are one literal; a 129th starts another.
    std::vector<unsigned char> distinct128, literal128(1, 127);
    for (int i = 0; i < 128; ++i) {
        distinct128.push_back(static_cast<unsigned char>(i));
        literal128.push_back(static_cast<unsigned char>(i));
    }
    std::vector<unsigned char> distinct129 = distinct128;
    distinct129.push_back(200);
    std::vector<unsigned char> literal129 = literal128;
    literal129.push_back(0);
    literal129.push_back(200);
    const case_t cases[] = {
        {{}, {}},
        {{9}, {0, 9}},
        {{9, 9}, {1, 9, 9}},
        {{9, 9, 9}, {128, 9}},
        {std::vector<unsigned char>(130, 4), {255, 4}},
        {std::vector<unsigned char>(131, 4), {255, 4, 0, 4}},
        {std::vector<unsigned char>(133, 4), {255, 4, 128, 4}},
        {{1, 2, 2, 2, 3}, {0, 1, 128, 2, 0, 3}},
        {distinct128, literal128},
        {distinct129, literal129},
    };
    for (const case_t& c : cases) {
        std::vector<unsigned char> out(rle_bound(c.in.size()) + 1, 0xEE);
        const size_t n = rle_encode(c.in.data(), c.in.size(), out.data());
        ASSERT_LE(n, rle_bound(c.in.size()));
        EXPECT_EQ(c.out, std::vector<unsigned char>(out.begin(), out.begin() + n)) << "input of " << c.in.size();
        EXPECT_EQ(0xEE, out[rle_bound(c.in.size())]) << "wrote past its bound";
        std::vector<unsigned char> back(c.in.size() + 1);
        size_t written = 0;
        ASSERT_TRUE(rle_decode(out.data(), n, back.data(), c.in.size(), written));
        EXPECT_EQ(c.in, std::vector<unsigned char>(back.begin(), back.begin() + written));
    }
}

TEST(DemoCodec, MalformedRunLengthInputStopsWithoutOverrun) {
    struct case_t {
        const char* what;
        std::vector<unsigned char> in;
        size_t cap;
        size_t written;
    };
    const case_t cases[] = {
        {"literal cut short", {2, 1, 2}, 16, 0},
        {"run without its byte", {0, 7, 130}, 16, 1},
        {"literal past the room", {3, 1, 2, 3, 4}, 3, 0},
        {"run past the room", {0, 7, 255, 1}, 100, 1},
    };
    for (const case_t& c : cases) {
        std::vector<unsigned char> out(c.cap + 1, 0xEE);
        size_t written = 99;
        EXPECT_FALSE(rle_decode(c.in.data(), c.in.size(), out.data(), c.cap, written)) << c.what;
        EXPECT_EQ(c.written, written) << c.what;
        EXPECT_EQ(0xEE, out[c.cap]) << c.what;
    }
}

TEST(DemoCodec, PercentilesUseTheNearestRank) {
    std::vector<int64_t> none;
    EXPECT_EQ(0, percentile(none, 0.5));
    std::vector<int64_t> one = {-7};
    EXPECT_EQ(-7, percentile(one, 0.5));
    EXPECT_EQ(-7, percentile(one, 0.99));
    std::vector<int64_t> hundred;
    for (int i = 100; i >= 1; --i)
        hundred.push_back(i);
    EXPECT_EQ(50, percentile(hundred, 0.5));
    EXPECT_EQ(99, percentile(hundred, 0.99));
    EXPECT_EQ(100, percentile(hundred, 1.0));
    EXPECT_EQ(1, percentile(hundred, 0.001));
}

TEST(DemoNet, TheLoopbackPairCarriesDatagramsInOrderAndSaysWhenNoneWait) {
    udp_socket_t tx = UDP_INVALID, rx = UDP_INVALID;
    std::string why;
    ASSERT_EQ(0, udp_open_pair(tx, rx, 1 << 20, why)) << why;
    EXPECT_GT(udp_recv_buffer(rx), 0);
    unsigned char buf[PACKET_MAX_SIZE];
    int error = 0;
    EXPECT_EQ(0, udp_recv(rx, buf, sizeof(buf), error)) << "nothing sent yet: the socket must not block";

    const unsigned int sizes[] = {1, 40, PACKET_MAX_SIZE};
    for (unsigned int i = 0; i < 3; ++i) {
        std::vector<unsigned char> d(sizes[i], static_cast<unsigned char>(i + 1));
        EXPECT_EQ(static_cast<int>(sizes[i]), udp_send(tx, d.data(), sizes[i], error)) << "error " << error;
    }
    for (unsigned int i = 0; i < 3; ++i) {
        int n = 0;
        UTIL_WAIT_UNTIL([&] { return (n = udp_recv(rx, buf, sizeof(buf), error)) != 0; });
        ASSERT_EQ(static_cast<int>(sizes[i]), n) << "datagram " << i << ", error " << error;
        EXPECT_EQ(i + 1, buf[0]);
        EXPECT_EQ(i + 1, buf[n - 1]);
    }
    EXPECT_EQ(0, udp_recv(rx, buf, sizeof(buf), error)) << "all three were read";

    udp_close(tx);
    udp_close(rx);
    EXPECT_EQ(UDP_INVALID, tx);
    udp_close(rx);  // a closed handle is left alone
    EXPECT_EQ(UDP_INVALID, rx);
}

TEST(DemoNet, AChainGoesOutAsOneDatagramOfItsReadablePieces) {
    udp_socket_t tx = UDP_INVALID, rx = UDP_INVALID;
    std::string why;
    ASSERT_EQ(0, udp_open_pair(tx, rx, 1 << 20, why)) << why;
    // A header node, then two pieces split off one payload block (shared,
    // partly read), then an empty node that must add nothing.
    std::vector<signed char> text = {'h', 'e', 'a', 'd'};
    ssb::msg_db_t* chain = ssb::msg_db_t::new_instance(16, text.data(), 4, ssb::MSG_FLAG_NONE);
    std::vector<signed char> body(300);
    for (size_t i = 0; i < body.size(); ++i)
        body[i] = static_cast<signed char>(i);
    ssb::msg_db_t* payload = ssb::msg_db_t::new_instance(300, body.data(), 300, ssb::MSG_FLAG_NONE);
    payload->move_reader_forward(10);
    chain->append(payload->split(100));
    chain->append(payload->split(50));
    chain->append(ssb::msg_db_t::new_instance(8));
    int error = 0;
    ASSERT_EQ(154, udp_send_chain(tx, chain, error)) << "error " << error;

    unsigned char buf[PACKET_MAX_SIZE];
    int n = 0;
    UTIL_WAIT_UNTIL([&] { return (n = udp_recv(rx, buf, sizeof(buf), error)) != 0; });
    ASSERT_EQ(154, n);
    EXPECT_EQ(0, memcmp(buf, "head", 4));
    for (int i = 0; i < 150; ++i)
        ASSERT_EQ(static_cast<unsigned char>(10 + i), buf[4 + i]) << "byte " << i;

    // More pieces than one send gathers: refused, nothing sent.
    for (unsigned int i = 0; i < UDP_MAX_PIECES; ++i)
        chain->append(ssb::msg_db_t::new_instance(4, text.data(), 4, ssb::MSG_FLAG_NONE));
    error = -1;
    EXPECT_EQ(-1, udp_send_chain(tx, chain, error));
    EXPECT_EQ(0, error);
    EXPECT_EQ(0, udp_recv(rx, buf, sizeof(buf), error));

    ssb::msg_db_t::release(chain);
    ssb::msg_db_t::release(payload);
    udp_close(tx);
    udp_close(rx);
}

TEST(DemoNet, AFileIsNoTerminal) {
    FILE* f = tmpfile();
    ASSERT_NE(nullptr, f);
    EXPECT_FALSE(is_terminal(f));
    fclose(f);
}

// A fresh folder under the temporary one, removed at the end.
class temp_dir_t {
public:
    explicit temp_dir_t(const char* name) {
        m_path =
            std::filesystem::temp_directory_path() /
            (std::string(name) + "-" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()));
        std::filesystem::remove_all(m_path);
    }
    ~temp_dir_t() {
        std::error_code ec;
        std::filesystem::remove_all(m_path, ec);
    }
    std::string str() const { return m_path.string(); }

private:
    std::filesystem::path m_path;
};

// Everything captured ended one way or another.
void expect_every_frame_accounted(const call_summary_t& s) {
    EXPECT_TRUE(s.drained);
    EXPECT_EQ(s.captured(),
              s.capture_dropped + s.dropped_audio + s.dropped_video + s.frames_sent() + s.incomplete_frames);
    EXPECT_EQ(0u, s.held_at_end);
    EXPECT_EQ(s.frames_sent(), s.frames_received());
    EXPECT_EQ(s.sent_audio, s.received_audio);
    EXPECT_EQ(s.sent_video, s.received_video);
    EXPECT_EQ(s.packets_sent, s.packets_received);
    EXPECT_EQ(0u, s.lost);
    EXPECT_EQ(0u, s.corrupted);
    EXPECT_EQ(0u, s.duplicates);
    EXPECT_EQ(0u, s.send_errors);
    EXPECT_EQ(s.recordings, s.recordings_verified);
    // The library's channel counters saw the same refusals and overtime
    // drops as the call's own accounting.
    ASSERT_TRUE(s.have_stats);
    EXPECT_EQ(s.full_events + s.capture_dropped, s.stats_refused);
    EXPECT_EQ(s.overtime_packets, s.stats_overtime);
    EXPECT_GT(s.queue_delay.count, 0u);
}

void expect_logs_in(const call_summary_t& s, const std::string& dir) {
    bool library = false, call_log = false;
    for (const log_file_t& f : s.logs) {
        const std::filesystem::path p(f.path);
        EXPECT_TRUE(std::filesystem::exists(p)) << f.path;
        EXPECT_EQ(std::filesystem::canonical(dir), std::filesystem::canonical(p.parent_path())) << f.path;
        EXPECT_GT(f.bytes, 0u) << f.path;
        library = library || p.filename().string().rfind("demo_util_", 0) == 0;
        call_log = call_log || p.filename().string().rfind("demo_call_", 0) == 0;
    }
    EXPECT_TRUE(library) << "the library's log file";
    EXPECT_TRUE(call_log) << "the call's own log file";
}

TEST(Demo, ATwoSecondCallDeliversEveryFrameAndRecoversFromTheStall) {
    temp_dir_t dir("util-demo");
    call_config_t config;
    config.duration_s = 2;
    config.encoders = 2;
    config.quiet = true;
    config.log_dir = dir.str();
    call_summary_t s;
    EXPECT_EQ(0, run_call(config, s)) << s.error;
    EXPECT_TRUE(s.error.empty()) << s.error;
    EXPECT_TRUE(s.ok());
    EXPECT_GT(s.sent_audio, 0u);
    EXPECT_GT(s.sent_video, 0u);
    expect_every_frame_accounted(s);
    // The stall made the encoders meet a full queue, hold packets, and
    // resume: the last frames came through after it.
    EXPECT_GE(s.stall_s, 1.0);
    EXPECT_GE(s.full_events, 1u);
    EXPECT_GE(s.backpressure_episodes, 1u);
    EXPECT_GE(s.frames_held, 1u);
    EXPECT_GT(s.hold_high_water, 0u);
    EXPECT_GT(s.recordings, 0u);
    EXPECT_EQ(s.captured_audio, s.audio_late.count);
    EXPECT_EQ(s.captured_video, s.video_late.count);
    EXPECT_EQ(s.frames_received(), s.end_to_end.count);
    expect_logs_in(s, dir.str());
    if (HasFailure())
        print_summary(s, stdout);  // the whole picture for the report
}

TEST(Demo, SettingsOutOfRangeAreRefusedBeforeAnythingStarts) {
    const struct {
        double duration;
        unsigned int encoders;
        unsigned int pool;
    } cases[] = {{0, 1, 2}, {-1, 1, 2}, {2, 0, 2}, {2, 9, 2}, {2, 1, 1}, {2, 1, 65}};
    for (const auto& c : cases) {
        call_config_t config;
        config.duration_s = c.duration;
        config.encoders = c.encoders;
        config.pool_threads = c.pool;
        config.quiet = true;
        config.log_dir = "never-made";
        call_summary_t s;
        EXPECT_EQ(1, run_call(config, s));
        EXPECT_FALSE(s.error.empty());
        EXPECT_FALSE(s.ok());
        EXPECT_EQ(0u, s.captured());
    }
    EXPECT_FALSE(std::filesystem::exists("never-made"));
}

// The library's main thread is the one that first initialised it: a call
// run from another thread cannot pump it, says so, and starts nothing.
TEST(Demo, ACallOffTheLibrarysMainThreadIsRefusedAndLeavesNoThreadBehind) {
    std::atomic<bool> initialised{false}, release{false};
    std::thread host([&] {
        // An earlier test's last util_uninit left the manager released.
        if (!ssb::thread_mgr_t::peek())
            ssb::thread_mgr_t::reset();
        util_init(200, nullptr, "demo_test", "log", 0, 0);
        initialised = true;
        util_test::wait_until("the test to finish its call", [&] { return release.load(); });
        util_uninit(200);
    });
    struct join_t {
        std::atomic<bool>& release;
        std::thread& host;
        ~join_t() {
            release = true;
            host.join();
        }
    } join{release, host};
    ASSERT_TRUE(util_test::wait_until("the host thread to initialise", [&] { return initialised.load(); }));
    ssb::thread_mgr_t* mgr = ssb::thread_mgr_t::instance();
    ASSERT_NE(nullptr, mgr);
    const unsigned int threads = mgr->count();

    temp_dir_t dir("util-demo-refused");
    call_config_t config;
    config.duration_s = 1;
    config.quiet = true;
    config.log_dir = dir.str();
    call_summary_t s;
    EXPECT_EQ(1, run_call(config, s));
    EXPECT_NE(std::string::npos, s.error.find("main_heartbeat")) << s.error;
    EXPECT_FALSE(s.ok());
    EXPECT_EQ(0u, s.captured());
    EXPECT_EQ(threads, mgr->count());
}

// Small queues, a stall twice the packets' time-out: overtime drops happen
// and the frames they cut are counted, never delivered half.
TEST(Demo, StressCallAccountsForOvertimeDropsAndHeldFrames) {
    temp_dir_t dir("util-demo-stress");
    call_config_t config;
    config.duration_s = 3;
    config.stress = true;
    config.quiet = true;
    config.log_dir = dir.str();
    call_summary_t s;
    EXPECT_EQ(0, run_call(config, s)) << s.error;
    expect_every_frame_accounted(s);
    EXPECT_GE(s.stall_s, 2.0);
    EXPECT_GE(s.full_events, 1u);
    EXPECT_GE(s.overtime_packets, 1u);
    EXPECT_GE(s.incomplete_frames, 1u);
    expect_logs_in(s, dir.str());
    if (HasFailure())
        print_summary(s, stdout);  // the whole picture for the report
}

}  // namespace

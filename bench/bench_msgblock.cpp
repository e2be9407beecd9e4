// Payload chains against what a network programmer would use instead.
//
// copy_44x1500: 44 packets of 1,500 bytes copied into a fresh buffer one by
// one and copied out again one by one; the buffer is made and freed inside
// the iteration. Ours writes into one chain of one 66,000-byte block
// (new_instance, _write, _read, release); "ours_reused" keeps that chain
// and reset()s it, the steady state of a connection's send buffer. Beast's
// multi_buffer uses prepare/commit/buffer_copy/consume; libevent's evbuffer
// evbuffer_add/evbuffer_remove.
//
// zero_copy_44x1500: 44 packets that already sit in the caller's memory are
// chained without copying, the first 10,000 bytes are split off as a packet
// of their own, and both parts are turned into iovec arrays for sendmsg.
// Ours: new_instance with MSG_FLAG_WITHOUT_COPY per packet linked by
// insert_behind on the last node, split(10000), fill_iov twice, release.
// evbuffer: evbuffer_add_reference, evbuffer_remove_buffer, evbuffer_peek.
// absl::Cord: MakeCordFromExternal + Append, Subcord + RemovePrefix, Chunks.
//
// util-bench-peers: boost event absl
#include <absl/strings/cord.h>
#include <boost/asio/buffer.hpp>
#include <boost/beast/core/multi_buffer.hpp>
#include <event2/buffer.h>
#include <sys/uio.h>

#include <vector>

#include "alloc.h"
#include "bench_support.h"
#include "msgblock.h"

namespace {

const unsigned PACKETS = 44;
const unsigned PACKET = 1500;
const unsigned TOTAL = PACKETS * PACKET;
const unsigned SPLIT = 10000;

struct payload_t {
    payload_t() : in(TOTAL), out(TOTAL) {
        for (unsigned i = 0; i < TOTAL; ++i)
            in[i] = static_cast<signed char>(i * 7);
    }
    std::vector<signed char> in;
    std::vector<signed char> out;
};

payload_t& payload() {
    static payload_t p;
    return p;
}

void check(bool ok, benchmark::State& state, const char* what) {
    if (!ok)
        state.SkipWithError(what);
}

// ---- copy in and out ----

void copy_ours(benchmark::State& state) {
    payload_t& p = payload();
    for (auto _ : state) {
        ssb::msg_db_t* db = ssb::msg_db_t::new_instance(TOTAL);
        unsigned done = 0;
        for (unsigned i = 0; i < PACKETS; ++i)
            db->_write(p.in.data() + i * PACKET, PACKET, &done);
        for (unsigned i = 0; i < PACKETS; ++i)
            db->_read(p.out.data() + i * PACKET, PACKET, &done, true);
        db->release();
        benchmark::DoNotOptimize(p.out.data());
    }
    check(p.out == p.in, state, "bytes differ");
}

void copy_ours_reused(benchmark::State& state) {
    payload_t& p = payload();
    ssb::msg_db_t* db = ssb::msg_db_t::new_instance(TOTAL);
    for (auto _ : state) {
        db->reset();
        unsigned done = 0;
        for (unsigned i = 0; i < PACKETS; ++i)
            db->_write(p.in.data() + i * PACKET, PACKET, &done);
        for (unsigned i = 0; i < PACKETS; ++i)
            db->_read(p.out.data() + i * PACKET, PACKET, &done, true);
        benchmark::DoNotOptimize(p.out.data());
    }
    db->release();
    check(p.out == p.in, state, "bytes differ");
}

void copy_beast(benchmark::State& state) {
    namespace net = boost::asio;
    payload_t& p = payload();
    for (auto _ : state) {
        boost::beast::multi_buffer b;
        for (unsigned i = 0; i < PACKETS; ++i) {
            net::buffer_copy(b.prepare(PACKET), net::buffer(p.in.data() + i * PACKET, PACKET));
            b.commit(PACKET);
        }
        for (unsigned i = 0; i < PACKETS; ++i) {
            net::buffer_copy(net::buffer(p.out.data() + i * PACKET, PACKET), b.data());
            b.consume(PACKET);
        }
        benchmark::DoNotOptimize(p.out.data());
    }
    check(p.out == p.in, state, "bytes differ");
}

void copy_evbuffer(benchmark::State& state) {
    payload_t& p = payload();
    for (auto _ : state) {
        evbuffer* b = evbuffer_new();
        for (unsigned i = 0; i < PACKETS; ++i)
            evbuffer_add(b, p.in.data() + i * PACKET, PACKET);
        for (unsigned i = 0; i < PACKETS; ++i)
            evbuffer_remove(b, p.out.data() + i * PACKET, PACKET);
        evbuffer_free(b);
        benchmark::DoNotOptimize(p.out.data());
    }
    check(p.out == p.in, state, "bytes differ");
}

BENCHMARK(copy_ours)->Name("copy_44x1500/ours");
BENCHMARK(copy_ours_reused)->Name("copy_44x1500/ours_reused");
BENCHMARK(copy_beast)->Name("copy_44x1500/beast_multi_buffer");
BENCHMARK(copy_evbuffer)->Name("copy_44x1500/evbuffer");

// ---- zero copy: build, split, scatter-gather ----

void zero_copy_ours(benchmark::State& state) {
    payload_t& p = payload();
    iovec iov[PACKETS + 1];
    size_t bytes = 0;
    for (auto _ : state) {
        ssb::msg_db_t* head = nullptr;
        ssb::msg_db_t* last = nullptr;
        for (unsigned i = 0; i < PACKETS; ++i) {
            ssb::msg_db_t* node =
                ssb::msg_db_t::new_instance(PACKET, p.in.data() + i * PACKET, PACKET, ssb::MSG_FLAG_WITHOUT_COPY);
            if (last)
                last->insert_behind(node);
            else
                head = node;
            last = node;
        }
        ssb::msg_db_t* first = head->split(SPLIT);
        unsigned n1 = 0, n2 = 0;
        first->fill_iov(iov, PACKETS + 1, &n1);
        bytes = iov[0].iov_len;
        head->fill_iov(iov, PACKETS + 1, &n2);
        bytes += iov[n2 - 1].iov_len + n1 + n2;
        benchmark::DoNotOptimize(iov);
        first->release();
        head->release();
    }
    check(bytes == 1500 + 1500 + 7 + 38, state, "unexpected pieces");
}

void zero_copy_evbuffer(benchmark::State& state) {
    payload_t& p = payload();
    evbuffer_iovec vec[PACKETS + 1];
    iovec iov[PACKETS + 1];
    size_t bytes = 0;
    for (auto _ : state) {
        evbuffer* b = evbuffer_new();
        for (unsigned i = 0; i < PACKETS; ++i)
            evbuffer_add_reference(b, p.in.data() + i * PACKET, PACKET, nullptr, nullptr);
        evbuffer* first = evbuffer_new();
        evbuffer_remove_buffer(b, first, SPLIT);
        int n1 = evbuffer_peek(first, -1, nullptr, vec, PACKETS + 1);
        for (int i = 0; i < n1; ++i)
            iov[i] = iovec{vec[i].iov_base, vec[i].iov_len};
        bytes = iov[0].iov_len;
        int n2 = evbuffer_peek(b, -1, nullptr, vec, PACKETS + 1);
        for (int i = 0; i < n2; ++i)
            iov[i] = iovec{vec[i].iov_base, vec[i].iov_len};
        bytes += iov[n2 - 1].iov_len + static_cast<size_t>(n1 + n2);
        benchmark::DoNotOptimize(iov);
        evbuffer_free(first);
        evbuffer_free(b);
    }
    check(bytes == 1500 + 1500 + 7 + 38, state, "unexpected pieces");
}

void zero_copy_cord(benchmark::State& state) {
    payload_t& p = payload();
    iovec iov[PACKETS + 1];
    size_t bytes = 0;
    for (auto _ : state) {
        absl::Cord cord;
        for (unsigned i = 0; i < PACKETS; ++i)
            cord.Append(absl::MakeCordFromExternal(
                absl::string_view(reinterpret_cast<const char*>(p.in.data() + i * PACKET), PACKET), [] {}));
        absl::Cord first = cord.Subcord(0, SPLIT);
        cord.RemovePrefix(SPLIT);
        unsigned n1 = 0, n2 = 0;
        for (absl::string_view chunk : first.Chunks())
            iov[n1++] = iovec{const_cast<char*>(chunk.data()), chunk.size()};
        bytes = iov[0].iov_len;
        for (absl::string_view chunk : cord.Chunks())
            iov[n2++] = iovec{const_cast<char*>(chunk.data()), chunk.size()};
        bytes += iov[n2 - 1].iov_len + n1 + n2;
        benchmark::DoNotOptimize(iov);
    }
    check(bytes == 1500 + 1500 + 7 + 38, state, "unexpected pieces");
}

BENCHMARK(zero_copy_ours)->Name("zero_copy_44x1500/ours");
BENCHMARK(zero_copy_evbuffer)->Name("zero_copy_44x1500/evbuffer");
BENCHMARK(zero_copy_cord)->Name("zero_copy_44x1500/absl_cord");

}  // namespace

UTIL_BENCH_MAIN()

// crc_32 against zlib, libdeflate and ISA-L, crc_16 against crcutil's
// generic CRC. Every peer is wrapped in the raw form ~peer(~c) (crcutil
// runs raw already), and each is checked against ours before timing.
//
// Groups: "crc32_hot" runs one buffer that stays in cache; "crc32_stream"
// walks a 64 MiB buffer so every call reads memory the cache has lost.
// "crc32_clmul128_*" (VEX encoding), "crc32_clmul128_sse_*" (for CPUs
// without AVX) and "crc32_portable_*" force our 128-bit folding and our table
// path, to compare each with the peers it has to beat.
// util-bench-peers: zlib deflate isal crcutil
#include <isa-l/crc.h>
#include <libdeflate.h>
#include <zlib.h>

#include <cstdlib>
#include <random>

#include "../src/crc_internal.h"
#include "bench_support.h"
#include "crc.h"
#include "generic_crc.h"

namespace {

using ssb::crc_detail::crc_path_t;

const size_t STREAM_BYTES = 64u << 20;

const std::vector<unsigned char>& buffer() {
    static const std::vector<unsigned char> data = [] {
        std::vector<unsigned char> v(STREAM_BYTES + 4096);
        std::mt19937 gen(1);
        for (auto& b : v)
            b = static_cast<unsigned char>(gen());
        return v;
    }();
    return data;
}

uint32_t ours32(uint32_t c, const unsigned char* p, size_t n) {
    unsigned int v = c;
    return crc_32(&v, p, static_cast<unsigned>(n));
}
uint32_t zlib32(uint32_t c, const unsigned char* p, size_t n) {
    return ~static_cast<uint32_t>(crc32(~c, p, static_cast<uInt>(n)));
}
uint32_t deflate32(uint32_t c, const unsigned char* p, size_t n) { return ~libdeflate_crc32(~c, p, n); }
uint32_t isal32(uint32_t c, const unsigned char* p, size_t n) {
    return ~crc32_gzip_refl(~c, p, static_cast<uint64_t>(n));
}

typedef crcutil::GenericCrc<uint64_t, uint64_t, uint64_t, 4> crcutil16_t;
const crcutil16_t& crcutil16() {
    // Reflected 0xA001, degree 16, raw (no inversion).
    static const crcutil16_t crc(0xA001, 16, false);
    return crc;
}
uint16_t ours16(uint16_t c, const unsigned char* p, size_t n) {
    unsigned short v = c;
    return crc_16(&v, p, static_cast<unsigned>(n));
}
uint16_t crcutil16_fn(uint16_t c, const unsigned char* p, size_t n) {
    return static_cast<uint16_t>(crcutil16().CrcDefault(p, n, c));
}

template <class T>
using crc_fn = T (*)(T, const unsigned char*, size_t);

// mode 0: hot, the same bytes each call; 1: streaming through 64 MiB.
template <class T>
void run(benchmark::State& state, crc_fn<T> fn, int mode, int path) {
    if (path >= 0 && !ssb::crc_detail::force_path(static_cast<crc_path_t>(path))) {
        state.SkipWithError("path not supported here");
        return;
    }
    const size_t n = static_cast<size_t>(state.range(0));
    const unsigned char* base = buffer().data();
    size_t offset = 0;
    T c = static_cast<T>(~0u);
    for (auto _ : state) {
        c = fn(c, base + offset, n);
        benchmark::DoNotOptimize(c);
        if (mode) {
            offset += (n + 63) & ~static_cast<size_t>(63);
            if (offset + n > STREAM_BYTES)
                offset = 0;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
    ssb::crc_detail::reset_path();
}

template <class T>
void check_same(const char* name, crc_fn<T> peer, crc_fn<T> ours) {
    const unsigned char* p = buffer().data();
    const size_t lens[] = {0, 1, 63, 64, 1500, 4099, 65536, 1u << 20};
    for (size_t n : lens)
        for (T start : {static_cast<T>(0), static_cast<T>(~0u), static_cast<T>(0x5A5A5A5Au)})
            if (peer(start, p + 3, n) != ours(start, p + 3, n)) {
                fprintf(stderr, "bench_crc: %s disagrees with ours at length %zu\n", name, n);
                std::exit(1);
            }
}

const int64_t SIZES[] = {64, 1500, 64 << 10, 1 << 20};

void add(const std::string& name, crc_fn<uint32_t> fn, int mode, int path) {
    for (int64_t size : SIZES)
        benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& s) {
            run<uint32_t>(s, fn, mode, path);
        })->Arg(size);
}

int register_all() {
    check_same<uint32_t>("zlib", zlib32, ours32);
    check_same<uint32_t>("libdeflate", deflate32, ours32);
    check_same<uint32_t>("isa-l", isal32, ours32);
    check_same<uint16_t>("crcutil", crcutil16_fn, ours16);

    const char* const modes[] = {"hot", "stream"};
    for (int mode = 0; mode < 2; ++mode) {
        const std::string g = std::string("crc32_") + modes[mode];
        add(g + "/ours", ours32, mode, -1);
        add(g + "/zlib", zlib32, mode, -1);
        add(g + "/libdeflate", deflate32, mode, -1);
        add(g + "/isa-l", isal32, mode, -1);
    }
    add("crc32_clmul128_hot/ours", ours32, 0, ssb::crc_detail::CRC_PATH_CLMUL128_AVX);
    add("crc32_clmul128_hot/libdeflate", deflate32, 0, -1);
    add("crc32_clmul128_sse_hot/ours", ours32, 0, ssb::crc_detail::CRC_PATH_CLMUL128);
    add("crc32_clmul128_sse_hot/libdeflate", deflate32, 0, -1);
    add("crc32_portable_hot/ours", ours32, 0, ssb::crc_detail::CRC_PATH_SLICE);
    add("crc32_portable_hot/zlib", zlib32, 0, -1);
    for (int64_t size : SIZES) {
        benchmark::RegisterBenchmark("crc16_hot/ours", [](benchmark::State& s) {
            run<uint16_t>(s, ours16, 0, -1);
        })->Arg(size);
        benchmark::RegisterBenchmark("crc16_hot/crcutil", [](benchmark::State& s) {
            run<uint16_t>(s, crcutil16_fn, 0, -1);
        })->Arg(size);
        benchmark::RegisterBenchmark("crc16_portable_hot/ours", [](benchmark::State& s) {
            run<uint16_t>(s, ours16, 0, ssb::crc_detail::CRC_PATH_SLICE);
        })->Arg(size);
        benchmark::RegisterBenchmark("crc16_portable_hot/crcutil", [](benchmark::State& s) {
            run<uint16_t>(s, crcutil16_fn, 0, -1);
        })->Arg(size);
    }
    return 0;
}

const int s_registered = register_all();

}  // namespace

UTIL_BENCH_MAIN()

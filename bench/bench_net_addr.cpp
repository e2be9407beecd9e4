// Address text conversions against glibc's inet_ntop, inet_pton and
// inet_addr, cycling through the same fixed, mixed set of addresses: one
// conversion per iteration.
#include <arpa/inet.h>

#include <random>
#include <string>
#include <vector>

#include "bench_support.h"
#include "net_addr.h"

namespace {

const size_t COUNT = 256;

// IPv6 addresses as found on a client: global ones, link-local, zero runs,
// IPv4-mapped.
std::vector<std::vector<unsigned char>> addresses(int family) {
    std::mt19937 rng(42);
    std::vector<std::vector<unsigned char>> out;
    for (size_t i = 0; i < COUNT; ++i) {
        std::vector<unsigned char> a(16);
        for (unsigned char& b : a)
            b = static_cast<unsigned char>(rng());
        if (family == AF_INET6) {
            switch (i % 4) {
            case 0:  // 2001:db8:x:x::x
                a[0] = 0x20, a[1] = 0x01, a[2] = 0x0d, a[3] = 0xb8;
                for (int k = 8; k < 14; ++k)
                    a[k] = 0;
                break;
            case 1:  // fe80::x:x:x:x
                a[0] = 0xfe, a[1] = 0x80;
                for (int k = 2; k < 8; ++k)
                    a[k] = 0;
                break;
            case 2:  // ::ffff:a.b.c.d
                for (int k = 0; k < 10; ++k)
                    a[k] = 0;
                a[10] = a[11] = 0xff;
                break;
            default:
                break;
            }
        }
        out.push_back(a);
    }
    return out;
}

std::vector<std::string> texts(int family) {
    std::vector<std::string> out;
    for (const auto& a : addresses(family)) {
        char buf[INET6_ADDRSTRLEN];
        out.push_back(::inet_ntop(family, a.data(), buf, sizeof(buf)));
    }
    return out;
}

template <int FAMILY>
void ntop_ours(benchmark::State& state) {
    const auto list = addresses(FAMILY);
    char buf[INET6_ADDRSTRLEN];
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ssb::inet_ntop(FAMILY, list[i].data(), buf, sizeof(buf)));
        i = (i + 1) % COUNT;
    }
}

template <int FAMILY>
void ntop_glibc(benchmark::State& state) {
    const auto list = addresses(FAMILY);
    char buf[INET6_ADDRSTRLEN];
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(::inet_ntop(FAMILY, list[i].data(), buf, sizeof(buf)));
        i = (i + 1) % COUNT;
    }
}

template <int FAMILY>
void pton_ours(benchmark::State& state) {
    const auto list = texts(FAMILY);
    unsigned char out[16];
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ssb::inet_pton(FAMILY, list[i].c_str(), out));
        benchmark::ClobberMemory();
        i = (i + 1) % COUNT;
    }
}

template <int FAMILY>
void pton_glibc(benchmark::State& state) {
    const auto list = texts(FAMILY);
    unsigned char out[16];
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(::inet_pton(FAMILY, list[i].c_str(), out));
        benchmark::ClobberMemory();
        i = (i + 1) % COUNT;
    }
}

void addr_ours(benchmark::State& state) {
    const auto list = texts(AF_INET);
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ssb::inet_addr(list[i].c_str()));
        i = (i + 1) % COUNT;
    }
}

void addr_glibc(benchmark::State& state) {
    const auto list = texts(AF_INET);
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(::inet_addr(list[i].c_str()));
        i = (i + 1) % COUNT;
    }
}

BENCHMARK_TEMPLATE(ntop_ours, AF_INET)->Name("ntop_v4/ours");
BENCHMARK_TEMPLATE(ntop_glibc, AF_INET)->Name("ntop_v4/glibc");
BENCHMARK_TEMPLATE(ntop_ours, AF_INET6)->Name("ntop_v6/ours");
BENCHMARK_TEMPLATE(ntop_glibc, AF_INET6)->Name("ntop_v6/glibc");
BENCHMARK_TEMPLATE(pton_ours, AF_INET)->Name("pton_v4/ours");
BENCHMARK_TEMPLATE(pton_glibc, AF_INET)->Name("pton_v4/glibc");
BENCHMARK_TEMPLATE(pton_ours, AF_INET6)->Name("pton_v6/ours");
BENCHMARK_TEMPLATE(pton_glibc, AF_INET6)->Name("pton_v6/glibc");
BENCHMARK(addr_ours)->Name("inet_addr/ours");
BENCHMARK(addr_glibc)->Name("inet_addr/glibc");

}  // namespace

UTIL_BENCH_MAIN()

// util-bench-peers:
// The default allocator against glibc malloc, jemalloc, mimalloc and
// tcmalloc, all in one process. The three peers are loaded with
// dlopen(RTLD_LOCAL) and called through function pointers (their sized
// free where they export one), so none of them replaces malloc for the rest
// of the program; a peer whose library is missing is skipped with a note.
//
// Run:  UTIL_BUILD_DIR=build-bench scripts/bench.sh alloc -- --benchmark_repetitions=5
// jemalloc needs room in the static TLS block when loaded late, i.e.
// GLIBC_TUNABLES=glibc.rtld.optional_static_tls=16384; the program sets it
// and re-executes itself when it is missing.
//
// Groups (ns per iteration; ratio = peer / ours, above 1 = ours faster):
//   pair/N     one allocation and its release of N bytes on one thread;
//   mixed      256 blocks of 16..4,096 bytes allocated, then freed in a
//              shuffled order (one iteration = all 512 calls);
//   handoff    a producer allocates mixed sizes, a consumer thread frees
//              them, through a 1,024-slot ring (one iteration = 65,536
//              blocks, wall clock).
// Then, unless --rss_seconds=0, each allocator runs the handoff for
// --rss_seconds (default 10) in a fresh process of its own, and the table
// gives the growth of resident memory over that process's start (taken
// after one allocation, so one-time set-up is not counted).
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "alloc.h"
#include "bench_support.h"

namespace {

typedef void* (*alloc_fn)(size_t);
typedef void (*free_fn)(void*, size_t);

struct peer_t {
    const char* name;
    alloc_fn alloc;
    free_fn release;
    bool loaded;
};

void* glibc_alloc(size_t n) { return malloc(n); }
void glibc_free(void* p, size_t) { free(p); }

// Filled by load_peer from the peer's own library.
void* (*s_je_malloc)(size_t);
void (*s_je_sdallocx)(void*, size_t, int);
void* je_alloc(size_t n) { return s_je_malloc(n); }
void je_free(void* p, size_t n) { s_je_sdallocx(p, n, 0); }

void* (*s_mi_malloc)(size_t);
void (*s_mi_free_size)(void*, size_t);
void* mi_alloc(size_t n) { return s_mi_malloc(n); }
void mi_free(void* p, size_t n) { s_mi_free_size(p, n); }

void* (*s_tc_malloc)(size_t);
void (*s_tc_free_sized)(void*, size_t);
void* tc_alloc(size_t n) { return s_tc_malloc(n); }
void tc_free(void* p, size_t n) { s_tc_free_sized(p, n); }

template <class F>
bool find(void* lib, const char* symbol, F& out) {
    void* p = dlsym(lib, symbol);
    out = reinterpret_cast<F>(p);
    return p != nullptr;
}

void* open_first(const char* const* names) {
    for (; *names; ++names) {
        void* lib = dlopen(*names, RTLD_NOW | RTLD_LOCAL);
        if (lib)
            return lib;
    }
    return nullptr;
}

peer_t s_peers[] = {
    {"glibc", glibc_alloc, glibc_free, true},
    {"jemalloc", je_alloc, je_free, false},
    {"mimalloc", mi_alloc, mi_free, false},
    {"tcmalloc", tc_alloc, tc_free, false},
};

void load_peer(peer_t& peer) {
    static const char* const JE[] = {"libjemalloc.so.2", "libjemalloc.so", nullptr};
    static const char* const MI[] = {"libmimalloc.so.2", "libmimalloc.so", nullptr};
    static const char* const TC[] = {"libtcmalloc_minimal.so.4", "libtcmalloc_minimal.so", nullptr};
    std::string name = peer.name;
    void* lib = nullptr;
    if (name == "jemalloc") {
        lib = open_first(JE);
        peer.loaded = lib && find(lib, "malloc", s_je_malloc) && find(lib, "sdallocx", s_je_sdallocx);
    } else if (name == "mimalloc") {
        lib = open_first(MI);
        peer.loaded = lib && find(lib, "mi_malloc", s_mi_malloc) && find(lib, "mi_free_size", s_mi_free_size);
    } else if (name == "tcmalloc") {
        lib = open_first(TC);
        peer.loaded = lib && find(lib, "tc_malloc", s_tc_malloc) && find(lib, "tc_free_sized", s_tc_free_sized);
    }
    if (!peer.loaded && name != "glibc")
        std::fprintf(stderr, "note: %s skipped (%s)\n", peer.name, lib ? "symbols missing" : dlerror());
}

// Ours through the interface a host uses, the size passed back.
struct ours_t {
    static void* alloc(size_t n) { return ssb::ssb_allocator_t::instance()->allocate(static_cast<unsigned int>(n)); }
    static void release(void* p, size_t n) {
        ssb::ssb_allocator_t::instance()->deallocate(static_cast<signed char*>(p), static_cast<unsigned int>(n));
    }
};

// Calls through a pointer, as the peers' are.
const peer_t s_ours = {"ours", ours_t::alloc, ours_t::release, true};

// ---- pair/N ----------------------------------------------------------------------

void pair(benchmark::State& state, const peer_t* peer) {
    const size_t n = static_cast<size_t>(state.range(0));
    alloc_fn a = peer->alloc;
    free_fn f = peer->release;
    for (auto _ : state) {
        void* p = a(n);
        benchmark::DoNotOptimize(p);
        f(p, n);
    }
}

// ---- mixed -------------------------------------------------------------------------

struct mixed_plan_t {
    std::vector<size_t> sizes;
    std::vector<unsigned int> order;
    mixed_plan_t() : sizes(256), order(256) {
        std::mt19937 rng(12345);
        for (size_t i = 0; i < sizes.size(); ++i) {
            sizes[i] = 16 + rng() % (4096 - 16 + 1);
            order[i] = static_cast<unsigned int>(i);
        }
        std::shuffle(order.begin(), order.end(), rng);
    }
};

void mixed(benchmark::State& state, const peer_t* peer) {
    static const mixed_plan_t plan;
    alloc_fn a = peer->alloc;
    free_fn f = peer->release;
    std::vector<void*> blocks(plan.sizes.size());
    for (auto _ : state) {
        for (size_t i = 0; i < blocks.size(); ++i) {
            blocks[i] = a(plan.sizes[i]);
            benchmark::DoNotOptimize(blocks[i]);
        }
        for (unsigned int i : plan.order)
            f(blocks[i], plan.sizes[i]);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(blocks.size()));
}

// ---- handoff -------------------------------------------------------------------------

// One producer, one consumer, 1,024 slots.
class handoff_ring_t {
public:
    static const unsigned int SLOTS = 1024;
    bool push(void* p, size_t n) {
        unsigned int w = m_write.load(std::memory_order_relaxed);
        if (w - m_read.load(std::memory_order_acquire) == SLOTS)
            return false;
        m_slots[w % SLOTS] = slot_t{p, n};
        m_write.store(w + 1, std::memory_order_release);
        return true;
    }
    bool pop(void*& p, size_t& n) {
        unsigned int r = m_read.load(std::memory_order_relaxed);
        if (r == m_write.load(std::memory_order_acquire))
            return false;
        p = m_slots[r % SLOTS].p;
        n = m_slots[r % SLOTS].n;
        m_read.store(r + 1, std::memory_order_release);
        return true;
    }

private:
    struct slot_t {
        void* p;
        size_t n;
    };
    slot_t m_slots[SLOTS];
    alignas(64) std::atomic<unsigned int> m_write{0};
    alignas(64) std::atomic<unsigned int> m_read{0};
};

// Runs the consumer thread for as long as the object lives.
class handoff_t {
public:
    explicit handoff_t(const peer_t* peer) : m_peer(peer), m_freed(0), m_stop(false), m_rng(777) {
        m_consumer = std::thread([this] {
            free_fn f = m_peer->release;
            uint64_t freed = 0;
            void* p;
            size_t n;
            for (;;) {
                if (m_ring.pop(p, n)) {
                    f(p, n);
                    m_freed.store(++freed, std::memory_order_release);
                } else if (m_stop.load(std::memory_order_acquire)) {
                    if (!m_ring.pop(p, n))
                        break;
                    f(p, n);
                    m_freed.store(++freed, std::memory_order_release);
                } else {
                    std::this_thread::yield();
                }
            }
        });
    }
    ~handoff_t() {
        m_stop.store(true, std::memory_order_release);
        m_consumer.join();
    }

    // Moves `count` blocks and waits until the consumer has freed them.
    void run(uint64_t count) {
        alloc_fn a = m_peer->alloc;
        for (uint64_t i = 0; i < count; ++i) {
            size_t n = 16 + m_rng() % 4081;
            void* p = a(n);
            memset(p, 1, n < 64 ? n : 64);
            while (!m_ring.push(p, n))
                std::this_thread::yield();
        }
        m_sent += count;
        while (m_freed.load(std::memory_order_acquire) != m_sent)
            std::this_thread::yield();
    }

private:
    const peer_t* m_peer;
    handoff_ring_t m_ring;
    std::atomic<uint64_t> m_freed;
    uint64_t m_sent = 0;
    std::atomic<bool> m_stop;
    std::minstd_rand m_rng;
    std::thread m_consumer;
};

const uint64_t HANDOFF_BLOCKS = 65536;

void handoff(benchmark::State& state, const peer_t* peer) {
    handoff_t h(peer);
    for (auto _ : state)
        h.run(HANDOFF_BLOCKS);
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(HANDOFF_BLOCKS));
}

void register_all(const peer_t* peer) {
    std::string name = peer->name;
    benchmark::RegisterBenchmark(("pair/" + name).c_str(), pair, peer)->Arg(16)->Arg(64)->Arg(512)->Arg(4000);
    benchmark::RegisterBenchmark(("mixed/" + name).c_str(), mixed, peer);
    benchmark::RegisterBenchmark(("handoff/" + name).c_str(), handoff, peer)->UseRealTime()->MinTime(0.5);
}

// ---- resident memory -----------------------------------------------------------------

long rss_kib() {
    FILE* f = std::fopen("/proc/self/status", "r");
    if (!f)
        return -1;
    char line[256];
    long kib = -1;
    while (std::fgets(line, sizeof line, f))
        if (std::sscanf(line, "VmRSS: %ld kB", &kib) == 1)
            break;
    std::fclose(f);
    return kib;
}

// Child mode: runs the handoff with one allocator and prints the growth.
int rss_child(const char* name, double seconds) {
    const peer_t* peer = nullptr;
    if (std::string(name) == "ours") {
        peer = &s_ours;
    } else {
        for (peer_t& p : s_peers)
            if (p.name == std::string(name)) {
                load_peer(p);
                if (p.loaded)
                    peer = &p;
            }
    }
    if (!peer)
        return 2;
    // One block first: what an allocator sets up once (ours: its log
    // registry and thread-local slots) is not the pattern's memory.
    peer->release(peer->alloc(64), 64);
    long start = rss_kib();
    {
        handoff_t h(peer);
        auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end)
            h.run(HANDOFF_BLOCKS);
        std::printf("%ld\n", rss_kib() - start);
    }
    return 0;
}

void rss_table(const char* self, double seconds) {
    std::printf("\nResident memory growth after %.0f s of handoff, each in a fresh process (KiB):\n", seconds);
    std::vector<std::string> names = {"ours"};
    for (peer_t& p : s_peers)
        names.push_back(p.name);
    long ours = -1;
    for (const std::string& name : names) {
        std::string cmd =
            std::string("'") + self + "' --rss_child=" + name + " --rss_seconds=" + std::to_string(seconds);
        FILE* pipe = popen(cmd.c_str(), "r");
        long kib = -1;
        if (pipe) {
            if (std::fscanf(pipe, "%ld", &kib) != 1)
                kib = -1;
            pclose(pipe);
        }
        if (kib < 0) {
            std::printf("  %-10s skipped\n", name.c_str());
            continue;
        }
        if (name == "ours")
            ours = kib;
        if (name == "ours" || ours <= 0)
            std::printf("  %-10s %8ld\n", name.c_str(), kib);
        else
            std::printf("  %-10s %8ld   ours / %s = %.2f\n", name.c_str(), kib, name.c_str(),
                        static_cast<double>(ours) / static_cast<double>(kib));
    }
}

// jemalloc loaded late needs static TLS room, which glibc reserves only when
// asked before the program starts.
void ensure_tunables(char** argv) {
    const char* t = getenv("GLIBC_TUNABLES");
    if (t && strstr(t, "optional_static_tls"))
        return;
    std::string value = "glibc.rtld.optional_static_tls=16384";
    if (t && *t)
        value = std::string(t) + ":" + value;
    setenv("GLIBC_TUNABLES", value.c_str(), 1);
    execv("/proc/self/exe", argv);
    std::fprintf(stderr, "note: could not re-execute with GLIBC_TUNABLES set; jemalloc may fail to load\n");
}

}  // namespace

int main(int argc, char** argv) {
    ensure_tunables(argv);
    double seconds = 10;
    const char* child = nullptr;
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        if (strncmp(argv[i], "--rss_seconds=", 14) == 0)
            seconds = atof(argv[i] + 14);
        else if (strncmp(argv[i], "--rss_child=", 12) == 0)
            child = argv[i] + 12;
        else
            rest.push_back(argv[i]);
    }
    if (child)
        return rss_child(child, seconds);

    for (peer_t& p : s_peers)
        load_peer(p);
    register_all(&s_ours);
    for (const peer_t& p : s_peers)
        if (p.loaded)
            register_all(&p);
    rest.push_back(nullptr);
    int rv = util_bench::run_main(static_cast<int>(rest.size() - 1), rest.data());
    char self[4096];
    ssize_t len = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (seconds > 0 && len > 0) {
        self[len] = 0;
        rss_table(self, seconds);
    }
    return rv;
}

#include "alloc.h"

#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <memory>
#include <new>
#include <vector>

#include "platform/platform.h"
#include "singleton.h"
#include "stats_internal.h"
#include "tls.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = "alloc";
const unsigned int MAX_COUNT = 0xFFFFFFFFu;
// Blocks moved between a thread's cache and the pool at a time: one lock
// per this many blocks crossing threads.
const unsigned int BATCH_BLOCKS = 32;
// Ring entries per class of a thread's cache: 64 KiB to 512 KiB of blocks
// per class, 1,984 KiB in all (within THREAD_CACHE_BYTES).
constexpr unsigned int THREAD_CACHE_SLOTS[ALLOC_CLASS_COUNT] = {2048, 2048, 2048, 1024, 512, 256, 128, 128};

constexpr unsigned int thread_cache_bytes(unsigned int k = 0) {
    return k == ALLOC_CLASS_COUNT ? 0 : THREAD_CACHE_SLOTS[k] * (ALLOC_UNIT << k) + thread_cache_bytes(k + 1);
}
static_assert(thread_cache_bytes() <= ssb_allocator_t::THREAD_CACHE_BYTES, "a thread's cache must stay in its bound");

// Class of each size in 32-byte units: 0 for 0, else floor(log2(u)) + 1.
struct class_table_t {
    uint8_t k[ALLOC_TABLE_SIZE];
    constexpr class_table_t() : k() {
        for (unsigned int u = 1; u < ALLOC_TABLE_SIZE; ++u) {
            uint8_t c = 1;
            while ((1u << c) <= u)
                ++c;
            k[u] = c;
        }
    }
};
constexpr class_table_t s_classes;

unsigned int clamp_ring(unsigned int capacity) {
    return capacity < ALLOC_MIN_RING ? ALLOC_MIN_RING : (capacity > ALLOC_MAX_RING ? ALLOC_MAX_RING : capacity);
}

// The 8-4-4-4-12 form of the marker, for the trailer assertion.
void marker_text(char (&out)[37]) {
    static const char HEX[] = "0123456789abcdef";
    unsigned int o = 0;
    for (unsigned int i = 0; i < ssb_allocator_t::TRAILER_SIZE; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            out[o++] = '-';
        out[o++] = HEX[ssb_allocator_t::CHECKER_RESULT[i] >> 4];
        out[o++] = HEX[ssb_allocator_t::CHECKER_RESULT[i] & 15];
    }
    out[o] = 0;
}

// ---- the shared pool ------------------------------------------------------
//
// Free blocks of one class, kept as a stack of batches. A batch is an array
// of block addresses, so a thread taking one copies addresses and touches
// no block: the blocks were mostly freed on another core, and walking a
// chain through them cost one dependent cache miss each. Emptied batches
// are kept for reuse, never more than the pool has held at once.
struct batch_t {
    batch_t* next;
    uint32_t length;
    signed char* blocks[BATCH_BLOCKS];
};

struct pool_t {
    struct alignas(64) class_pool_t {
        spin_lock lock;
        batch_t* top;
        batch_t* spare;
        // Changed under the lock; read without it only to skip the lock
        // when the pool is empty, where a stale answer costs one fresh block.
        std::atomic<uint32_t> blocks;
    };

    pool_t() : bytes(0), exit_slot(0), has_exit_slot(false), heap_blocks(0) {
        for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
            classes[k].top = nullptr;
            classes[k].spare = nullptr;
            classes[k].blocks.store(0, std::memory_order_relaxed);
        }
    }

    class_pool_t classes[ALLOC_CLASS_COUNT];
    // Bytes of free blocks in all classes: one budget, so that a burst of
    // one size may use what the other sizes leave. Changed with each batch
    // under its class's lock; read without a lock only to decide a trim.
    alignas(64) std::atomic<uint64_t> bytes;
    // Holds each thread's cache, so that the cache is dropped when the thread
    // ends whoever started it.
    plat::exit_slot_t exit_slot;
    bool has_exit_slot;
    // Small blocks taken from the C heap and not yet freed to it.
    std::atomic<int64_t> heap_blocks;
    // Every live thread cache, and the counts of those gone, for the
    // process statistics.
    spin_lock caches_lock;
    std::vector<const cached_allocator_helper*> caches;
    uint64_t gone_requests[ALLOC_CLASS_COUNT] = {};
    uint64_t gone_hits[ALLOC_CLASS_COUNT] = {};
};

// Lives as long as the process: thread caches dropped after the allocator's
// release (threads ending later, the exit hook) still have somewhere to go.
void drop_exit_cache(void* value);

pool_t* new_pool() {
    pool_t* p = new pool_t;
    p->has_exit_slot = plat::exit_slot_alloc(&p->exit_slot, drop_exit_cache);
    return p;
}

pool_t& pool() {
    static pool_t* s_pool = new_pool();
    return *s_pool;
}

signed char* heap_block(unsigned int k) {
    signed char* p = static_cast<signed char*>(malloc(alloc_class_bytes(k)));
    if (p)
        pool().heap_blocks.fetch_add(1, std::memory_order_relaxed);
    return p;
}

void free_blocks(signed char* const* blocks, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i)
        free(blocks[i]);
    pool().heap_blocks.fetch_sub(n, std::memory_order_relaxed);
}

// Frees a list of batches, their blocks back to the C heap.
void free_batches(batch_t* b) {
    while (b) {
        batch_t* next = b->next;
        free_blocks(b->blocks, b->length);
        delete b;
        b = next;
    }
}

// Cuts the oldest batches of the class holding the most bytes until the
// pool is back within its budget. The blocks go back to the C heap outside
// the lock. Puts racing with this may leave the pool over by a batch each;
// the next put trims again.
void trim_pool() {
    pool_t& p = pool();
    for (unsigned int round = 0; round < ALLOC_CLASS_COUNT; ++round) {
        const uint64_t total = p.bytes.load(std::memory_order_relaxed);
        if (total <= ssb_allocator_t::POOL_HIGH_WATER)
            return;
        unsigned int largest = 0;
        uint64_t largest_bytes = 0;
        for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
            const uint64_t b = uint64_t(p.classes[k].blocks.load(std::memory_order_relaxed)) * alloc_class_bytes(k);
            if (b > largest_bytes) {
                largest = k;
                largest_bytes = b;
            }
        }
        if (largest_bytes == 0)
            return;
        const uint64_t unit = alloc_class_bytes(largest);
        const uint64_t over = total - ssb_allocator_t::POOL_HIGH_WATER;
        pool_t::class_pool_t& c = p.classes[largest];
        batch_t* excess = nullptr;
        {
            auto_lock_t<spin_lock> guard(c.lock);
            const uint64_t held = uint64_t(c.blocks.load(std::memory_order_relaxed)) * unit;
            const uint64_t keep = held > over ? held - over : 0;
            // Keep the newest batches (warmest); cut the stack below them.
            batch_t** link = &c.top;
            uint64_t kept = 0;
            while (*link && kept + (*link)->length * unit <= keep) {
                kept += (*link)->length * unit;
                link = &(*link)->next;
            }
            excess = *link;
            *link = nullptr;
            c.blocks.store(static_cast<uint32_t>(kept / unit), std::memory_order_relaxed);
            p.bytes.fetch_sub(held - kept, std::memory_order_relaxed);
        }
        free_batches(excess);
    }
}

// Takes `length` blocks of class k (at most a batch), copied from `blocks`.
void pool_put(unsigned int k, signed char* const* blocks, uint32_t length) {
    pool_t& p = pool();
    pool_t::class_pool_t& c = p.classes[k];
    batch_t* b;
    {
        auto_lock_t<spin_lock> guard(c.lock);
        b = c.spare;
        if (b)
            c.spare = b->next;
    }
    if (!b)
        b = new (std::nothrow) batch_t;
    if (!b) {
        free_blocks(blocks, length);
        return;
    }
    memcpy(b->blocks, blocks, length * sizeof(blocks[0]));
    b->length = length;
    const uint64_t added = uint64_t(length) * alloc_class_bytes(k);
    uint64_t total;
    {
        auto_lock_t<spin_lock> guard(c.lock);
        b->next = c.top;
        c.top = b;
        c.blocks.store(c.blocks.load(std::memory_order_relaxed) + length, std::memory_order_relaxed);
        total = p.bytes.fetch_add(added, std::memory_order_relaxed) + added;
    }
    if (total > ssb_allocator_t::POOL_HIGH_WATER)
        trim_pool();
}

// Copies a whole batch into `out` (room for BATCH_BLOCKS) and returns its
// length; 0 when the pool of class k is empty.
uint32_t pool_get(unsigned int k, signed char** out) {
    pool_t::class_pool_t& c = pool().classes[k];
    if (c.blocks.load(std::memory_order_relaxed) == 0)
        return 0;
    auto_lock_t<spin_lock> guard(c.lock);
    batch_t* b = c.top;
    if (!b)
        return 0;
    c.top = b->next;
    c.blocks.store(c.blocks.load(std::memory_order_relaxed) - b->length, std::memory_order_relaxed);
    const uint32_t n = b->length;
    pool().bytes.fetch_sub(uint64_t(n) * alloc_class_bytes(k), std::memory_order_relaxed);
    memcpy(out, b->blocks, n * sizeof(out[0]));
    b->next = c.spare;
    c.spare = b;
    return n;
}

void pool_drain() {
    for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
        pool_t::class_pool_t& c = pool().classes[k];
        batch_t* top;
        batch_t* spare;
        {
            auto_lock_t<spin_lock> guard(c.lock);
            top = c.top;
            spare = c.spare;
            c.top = nullptr;
            c.spare = nullptr;
            pool().bytes.fetch_sub(uint64_t(c.blocks.load(std::memory_order_relaxed)) * alloc_class_bytes(k),
                                   std::memory_order_relaxed);
            c.blocks.store(0, std::memory_order_relaxed);
        }
        free_batches(top);
        while (spare) {
            batch_t* next = spare->next;
            delete spare;
            spare = next;
        }
    }
}

}  // namespace

// Moves blocks between a thread's cache and the pool.
struct alloc_internals_t {
    // Moves up to `n` of the newest blocks of ring k into the pool as one batch.
    static void spill(cached_allocator_helper::ring_t& r, unsigned int k, unsigned int n) {
        if (n > r.count)
            n = r.count;
        if (n > BATCH_BLOCKS)
            n = BATCH_BLOCKS;
        if (!n)
            return;
        r.count -= n;
        pool_put(k, r.slots + r.count, n);
    }

    // A fresh thread cache keeps one batch per class until the thread shows
    // it allocates more.
    static void start_limits(cached_allocator_helper* cache) {
        for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
            cached_allocator_helper::ring_t& r = cache->m_rings[k];
            r.limit = r.capacity < BATCH_BLOCKS ? r.capacity : BATCH_BLOCKS;
        }
    }

    // The ring is at its limit: one batch to the pool, or down to nothing when
    // the thread took less than a batch from this class since the last spill
    // (it mostly frees here), in which case the limit shrinks too.
    static void spill_full(cached_allocator_helper::ring_t& r, unsigned int k) {
        uint32_t used = r.record.hits - r.mark;
        r.mark = r.record.hits;
        if (used >= BATCH_BLOCKS) {
            spill(r, k, BATCH_BLOCKS);
            return;
        }
        if (r.limit >= 2 * BATCH_BLOCKS)
            r.limit -= BATCH_BLOCKS;
        while (r.count)
            spill(r, k, BATCH_BLOCKS);
    }

    // The thread missed in ring k: let it keep a batch more.
    static void grow(cached_allocator_helper::ring_t& r) {
        r.limit = r.limit + BATCH_BLOCKS < r.capacity ? r.limit + BATCH_BLOCKS : r.capacity;
    }

    static void enlist(const cached_allocator_helper* cache) {
        pool_t& p = pool();
        auto_lock_t<spin_lock> guard(p.caches_lock);
        p.caches.push_back(cache);
    }

    static void delist(const cached_allocator_helper* cache) {
        pool_t& p = pool();
        auto_lock_t<spin_lock> guard(p.caches_lock);
        for (size_t i = 0; i < p.caches.size(); ++i) {
            if (p.caches[i] != cache)
                continue;
            for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
                p.gone_requests[k] += cache->m_rings[k].record.requests;
                p.gone_hits[k] += cache->m_rings[k].record.hits;
            }
            p.caches[i] = p.caches.back();
            p.caches.pop_back();
            return;
        }
    }

    static void read_classes(alloc_class_stats_t* out) {
        pool_t& p = pool();
        auto_lock_t<spin_lock> guard(p.caches_lock);
        for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
            out[k].bytes = alloc_class_bytes(k);
            out[k].requests = p.gone_requests[k];
            out[k].hits = p.gone_hits[k];
            for (const cached_allocator_helper* cache : p.caches) {
                out[k].requests += cache->m_rings[k].record.requests;
                out[k].hits += cache->m_rings[k].record.hits;
            }
            out[k].misses = out[k].requests - out[k].hits;
        }
    }

    static void drop_cache(cached_allocator_helper* cache) {
        delist(cache);
        for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
            cached_allocator_helper::ring_t& r = cache->m_rings[k];
            while (r.count)
                spill(r, k, BATCH_BLOCKS);
        }
        delete cache;
    }
};

namespace {

// ---- the calling thread's cache ----------------------------------------------

// Plain thread-locals without constructors: the hot path reads the pointer
// without an initialisation guard.
thread_local cached_allocator_helper* t_cache = nullptr;
// Set once the thread's exit slot has dropped its cache: allocations made
// after that (by other thread-exit clean-ups) bypass the cache.
thread_local bool t_ended = false;

void drop_cache(cached_allocator_helper* cache) { alloc_internals_t::drop_cache(cache); }

// The clean-up of the thread-local slot, run by tls_cleanup on the thread
// itself. A slot left over from an earlier allocator holds a cache that is
// already gone: only the current one is dropped.
void SSB_STDCALL drop_slot_cache(void* value) {
    if (value && value == t_cache) {
        t_cache = nullptr;
        if (pool().has_exit_slot)
            plat::exit_slot_set(pool().exit_slot, nullptr);
        drop_cache(static_cast<cached_allocator_helper*>(value));
    }
}

// Runs as the thread ends, unless the cache was dropped before.
void drop_exit_cache(void* value) {
    t_ended = true;
    if (t_cache == value)
        t_cache = nullptr;
    drop_cache(static_cast<cached_allocator_helper*>(value));
}

std::atomic<i8_allocator_it*> s_default(nullptr);

void destroy_instance() {
    ssb_allocator_t* p = ssb_allocator_t::peek();
    if (p)
        p->release();
    else
        singleton_life_t::instance().unregist(destroy_instance);
}

}  // namespace

unsigned int alloc_class_of(unsigned int size) {
    return size < ALLOC_MAX_CACHED ? s_classes.k[size / ALLOC_UNIT] : ALLOC_CLASS_COUNT;
}

// ---- back ends ---------------------------------------------------------------

i8_allocator_it* i8_allocator_it::instance() {
    i8_allocator_it* p = s_default.load(std::memory_order_acquire);
    if (p)
        return p;
    // The constructor logs: the log registry is made (and registered with
    // the singleton registry) before the global lock is taken, as the
    // registry's clean-up takes the two locks in the other order.
    log_control_t::instance();
    auto_lock_t<thread_mutex_recursive> guard(global_lock());
    p = s_default.load(std::memory_order_relaxed);
    if (!p) {
        p = new (std::nothrow) new_i8_allocator_t;
        s_default.store(p, std::memory_order_release);
    }
    return p;
}

new_i8_allocator_t::new_i8_allocator_t() : m_page_size(plat::page_size()) {
    UTIL_LOG(LOG_INFO, "new_i8_allocator_t::new_i8_allocator_t, m_page_size = " << m_page_size);
}

signed char* new_i8_allocator_t::allocate(unsigned int count) {
    if (count == 0)
        UTIL_ASSERT_MSG("new_i8_allocator_t::allocate, count = " << count, SOURCE_PATH, 113, ", this = " << this);
    return new (std::nothrow) signed char[count];
}

void new_i8_allocator_t::deallocate(signed char* block, unsigned int) { delete[] block; }

signed char* c_i8_allocator_t::allocate(unsigned int count) {
    // malloc(0) may give null; one byte keeps "null means no memory".
    return static_cast<signed char*>(malloc(count ? count : 1));
}

void c_i8_allocator_t::deallocate(signed char* block, unsigned int) { free(block); }

signed char* std_i8_allocator_t::allocate(unsigned int count) {
    try {
        return std::allocator<signed char>().allocate(count ? count : 1);
    } catch (...) {
        return nullptr;
    }
}

void std_i8_allocator_t::deallocate(signed char* block, unsigned int count) {
    if (block)
        std::allocator<signed char>().deallocate(block, count ? count : 1);
}

// ---- cached_allocator_helper ---------------------------------------------------

cached_allocator_helper::cached_allocator_helper(unsigned int capacity, i8_allocator_it* back_end)
    : m_back_end(back_end ? back_end : i8_allocator_it::instance()), m_rings(), m_slots(nullptr) {
    unsigned int capacities[ALLOC_CLASS_COUNT];
    for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k)
        capacities[k] = capacity;
    init_rings(capacities);
}

cached_allocator_helper::cached_allocator_helper(const unsigned int* capacities, i8_allocator_it* back_end)
    : m_back_end(back_end ? back_end : i8_allocator_it::instance()), m_rings(), m_slots(nullptr) {
    init_rings(capacities);
}

void cached_allocator_helper::init_rings(const unsigned int* capacities) {
    unsigned int total = 0;
    for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k)
        total += clamp_ring(capacities[k]);
    m_slots = new (std::nothrow) signed char*[total];
    // Without slot memory every ring has capacity 0: nothing is cached and
    // every release returns 999.
    unsigned int offset = 0;
    for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
        m_rings[k].count = 0;
        m_rings[k].capacity = m_slots ? clamp_ring(capacities[k]) : 0;
        m_rings[k].limit = m_rings[k].capacity;
        m_rings[k].mark = 0;
        m_rings[k].slots = m_slots ? m_slots + offset : nullptr;
        offset += m_rings[k].capacity;
    }
}

cached_allocator_helper::~cached_allocator_helper() {
    UTIL_LOG(LOG_INFO, "cached_allocator_st::cached_allocator_helper::~cached_allocator_helper(), this = " << this);
    for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
        ring_t& r = m_rings[k];
        while (r.count)
            m_back_end->deallocate(r.slots[--r.count], alloc_class_bytes(k));
    }
    delete[] m_slots;
}

signed char* cached_allocator_helper::allocate(unsigned int size) {
    if (size >= ALLOC_MAX_CACHED)
        return m_back_end->allocate(size);
    const unsigned int first = s_classes.k[size / ALLOC_UNIT];
    for (unsigned int k = first; k < ALLOC_CLASS_COUNT; ++k) {
        ++m_rings[k].record.requests;
        ring_t& r = m_rings[k];
        if (r.count) {
            ++m_rings[k].record.hits;
            return r.slots[--r.count];
        }
    }
    return m_back_end->allocate(alloc_class_bytes(first));
}

int cached_allocator_helper::deallocate(signed char* block, unsigned int size) {
    if (size >= ALLOC_MAX_CACHED)
        return ALLOC_NOT_KEPT;
    const unsigned int k = s_classes.k[size / ALLOC_UNIT];
    ++m_rings[k].record.releases;
    ring_t& r = m_rings[k];
    if (r.count >= r.capacity)
        return ALLOC_NOT_KEPT;
    r.slots[r.count++] = block;
    return RESULT_SUCCESS;
}

void cached_allocator_helper::dump() const {
    for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
        UTIL_LOG(LOG_INFO, "cached_allocator_helper::dump(), class = "
                               << k << ", requests = " << m_rings[k].record.requests
                               << ", hits = " << m_rings[k].record.hits << ", releases = " << m_rings[k].record.releases
                               << ", cached = " << m_rings[k].count << ", capacity = " << m_rings[k].capacity
                               << ", this = " << this);
    }
}

// ---- cached_allocator_st ---------------------------------------------------------

cached_allocator_st::cached_allocator_st(unsigned int count, i8_allocator_it* back_end)
    : m_lock(), m_helper(count, back_end) {}

cached_allocator_st::~cached_allocator_st() {}

signed char* cached_allocator_st::allocate(unsigned int count) {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    return m_helper.allocate(count);
}

void cached_allocator_st::deallocate(signed char* block, unsigned int count) {
    if (!block)
        return;
    int rv;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_lock);
        rv = m_helper.deallocate(block, count);
    }
    if (rv != RESULT_SUCCESS) {
        // The helper took the block from its back end at its class's size.
        unsigned int size = count < ALLOC_MAX_CACHED ? alloc_class_bytes(alloc_class_of(count)) : count;
        m_helper.back_end()->deallocate(block, size);
    }
}

void cached_allocator_st::dump() {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    m_helper.dump();
}

// ---- ssb_allocator_t --------------------------------------------------------------

const unsigned char ssb_allocator_t::CHECKER_RESULT[ssb_allocator_t::TRAILER_SIZE] = {
    0x5b, 0x0c, 0x1a, 0x7e, 0x93, 0x4d, 0x41, 0xc2, 0xa8, 0x6f, 0x2e, 0xd1, 0x38, 0xb4, 0x75, 0xe9};

namespace {

// Two word compares rather than a memcmp call: this runs on every release.
inline bool trailer_intact(const signed char* trailer) {
    uint64_t have[2], want[2];
    memcpy(have, trailer, sizeof(have));
    memcpy(want, ssb_allocator_t::CHECKER_RESULT, sizeof(want));
    return ((have[0] ^ want[0]) | (have[1] ^ want[1])) == 0;
}

// The thread's cache, in the shape ssb_allocator_t gives it.
cached_allocator_helper* new_thread_cache() {
    unsigned int capacities[ALLOC_CLASS_COUNT];
    for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k)
        capacities[k] = THREAD_CACHE_SLOTS[k];
    static c_i8_allocator_t s_heap;
    struct thread_cache_t : cached_allocator_helper {
        explicit thread_cache_t(const unsigned int* c) : cached_allocator_helper(c, &s_heap) {}
    };
    thread_cache_t* cache = new (std::nothrow) thread_cache_t(capacities);
    if (cache)
        alloc_internals_t::start_limits(cache);
    return cache;
}

}  // namespace

std::atomic<ssb_allocator_t*> ssb_allocator_t::s_instance(nullptr);

ssb_allocator_t* ssb_allocator_t::create() {
    ssb_allocator_t* p;
    // The log registry and the slot allocator first and outside the global
    // lock: they register with the singleton registry, whose lock is taken
    // before the global one on clean-up.
    log_control_t::instance();
    tls_slots_allocator_t::instance();
    {
        auto_lock_t<thread_mutex_recursive> guard(global_lock());
        p = s_instance.load(std::memory_order_relaxed);
        if (p)
            return p;
        p = new (std::nothrow) ssb_allocator_t;
        if (!p)
            return nullptr;
        s_instance.store(p, std::memory_order_release);
    }
    singleton_life_t::instance().regist(destroy_instance);
    return p;
}

ssb_allocator_t::ssb_allocator_t() : m_key(0), m_has_key(false) {
    UTIL_LOG(LOG_INFO, "ssb_allocator_t::ssb_allocator_t() with memory pool, this = " << this);
    // The key is never given back: a thread still running after release
    // may hold an entry under it, which must not turn up under a reused key.
    m_has_key = tls_allocate_key(m_key) == RESULT_SUCCESS;
    pool();
}

ssb_allocator_t::~ssb_allocator_t() {
    UTIL_LOG(LOG_INFO, "ssb_allocator_t::~ssb_allocator_t(), this = " << this);
    release_tls();
    pool_drain();
}

void ssb_allocator_t::destroy() {
    ssb_allocator_t* p = s_instance.exchange(nullptr, std::memory_order_acq_rel);
    delete p;
    singleton_life_t::instance().unregist(destroy_instance);
}

void ssb_allocator_t::release() {
    if (s_instance.load(std::memory_order_acquire) == this)
        destroy();
}

// The hot path: a hit in the calling thread's cache. Everything else, and
// everything that logs (whose line buffer would cost every call a large
// stack frame), is out of line.
signed char* ssb_allocator_t::allocate(unsigned int count) {
    const unsigned int size = count + TRAILER_SIZE;
    cached_allocator_helper* cache = t_cache;
    if (size >= TRAILER_SIZE && size < ALLOC_MAX_CACHED && cache) {
        cached_allocator_helper::ring_t& r = cache->m_rings[s_classes.k[size / ALLOC_UNIT]];
        if (r.count) {
            ++r.record.requests;
            ++r.record.hits;
            signed char* block = r.slots[--r.count];
            memcpy(block + count, CHECKER_RESULT, TRAILER_SIZE);
            return block;
        }
    }
    return allocate_slow(count);
}

[[gnu::noinline]] signed char* ssb_allocator_t::allocate_slow(unsigned int count) {
    if (count > MAX_COUNT - TRAILER_SIZE) {
        UTIL_ASSERT_MSG("ssb_allocator_t::allocate, count = " << count, SOURCE_PATH, 113, ", this = " << this);
        return nullptr;
    }
    const unsigned int size = count + TRAILER_SIZE;
    signed char* block;
    if (size >= ALLOC_MAX_CACHED) {
        block = static_cast<signed char*>(malloc(size));
    } else {
        const unsigned int k = s_classes.k[size / ALLOC_UNIT];
        cached_allocator_helper* cache = t_cache;
        if (!cache)
            cache = thread_cache();
        if (cache) {
            cached_allocator_helper::ring_t& r = cache->m_rings[k];
            ++r.record.requests;
            if (r.count) {
                ++r.record.hits;
                block = r.slots[--r.count];
            } else {
                block = refill(cache, k);
            }
        } else {
            block = heap_block(k);
        }
    }
    if (block)
        memcpy(block + count, CHECKER_RESULT, TRAILER_SIZE);
    return block;
}

signed char* ssb_allocator_t::refill(cached_allocator_helper* cache, unsigned int k) {
    cached_allocator_helper::ring_t& r = cache->m_rings[k];
    alloc_internals_t::grow(r);
    // A ring without room for a batch (no slot memory) takes from the heap.
    const uint32_t n = r.capacity - r.count >= BATCH_BLOCKS ? pool_get(k, r.slots + r.count) : 0;
    if (n == 0)
        return heap_block(k);
    r.count += n;
    ++r.record.hits;
    return r.slots[--r.count];
}

void ssb_allocator_t::deallocate(signed char* block, unsigned int count) {
    const unsigned int size = count + TRAILER_SIZE;
    cached_allocator_helper* cache = t_cache;
    if (block && size >= TRAILER_SIZE && size < ALLOC_MAX_CACHED && cache && trailer_intact(block + count)) {
        cached_allocator_helper::ring_t& r = cache->m_rings[s_classes.k[size / ALLOC_UNIT]];
        if (r.count < r.limit) {
            ++r.record.releases;
            r.slots[r.count++] = block;
            return;
        }
    }
    deallocate_slow(block, count);
}

[[gnu::noinline]] void ssb_allocator_t::deallocate_slow(signed char* block, unsigned int count) {
    if (!block)
        return;
    if (count > MAX_COUNT - TRAILER_SIZE || !trailer_intact(block + count)) {
        char marker[37];
        marker_text(marker);
        UTIL_ASSERT_MSG("ssb_allocator_t::deallocate MUST from ssb_allocator, trailer = "
                            << log_ptr(block + count) << ", CHECKER_RESULT = " << marker,
                        SOURCE_PATH, 526, ", this = " << this);
        if (count > MAX_COUNT - TRAILER_SIZE) {
            free(block);
            return;
        }
    }
    const unsigned int size = count + TRAILER_SIZE;
    if (size >= ALLOC_MAX_CACHED) {
        free(block);
        return;
    }
    const unsigned int k = s_classes.k[size / ALLOC_UNIT];
    cached_allocator_helper* cache = t_cache;
    if (!cache)
        cache = thread_cache();
    if (!cache) {
        free(block);
        pool().heap_blocks.fetch_sub(1, std::memory_order_relaxed);
        return;
    }
    cached_allocator_helper::ring_t& r = cache->m_rings[k];
    ++r.record.releases;
    if (r.count >= r.limit)
        alloc_internals_t::spill_full(r, k);
    r.slots[r.count++] = block;
}

cached_allocator_helper* ssb_allocator_t::thread_cache() {
    if (t_ended)
        return nullptr;
    cached_allocator_helper* cache = new_thread_cache();
    if (!cache || !cache->m_slots) {
        delete cache;
        return nullptr;
    }
    alloc_internals_t::enlist(cache);
    t_cache = cache;
    if (pool().has_exit_slot)
        plat::exit_slot_set(pool().exit_slot, cache);
    // Threads the library runs have a slot table, and their tls_cleanup
    // drops the cache. Other threads are left to the exit hook: giving them
    // a table would leak it, as they never call tls_cleanup.
    void* value = nullptr;
    if (m_has_key && tls_getspecific_value(m_key, value) != RESULT_NOTHING_TO_DO)
        tls_setspecific_value(m_key, cache, drop_slot_cache);
    return cache;
}

void ssb_allocator_t::release_tls() {
    UTIL_LOG(LOG_INFO, "ssb_allocator_t::release_tls(), this = " << this);
    cached_allocator_helper* cache = t_cache;
    if (!cache)
        return;
    t_cache = nullptr;
    if (pool().has_exit_slot)
        plat::exit_slot_set(pool().exit_slot, nullptr);
    drop_cache(cache);
}

void ssb_allocator_t::dump() {
    cached_allocator_helper* cache = t_cache;
    if (cache)
        cache->dump();
    for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
        pool_t::class_pool_t& c = pool().classes[k];
        uint32_t blocks;
        {
            auto_lock_t<spin_lock> guard(c.lock);
            blocks = c.blocks.load(std::memory_order_relaxed);
        }
        UTIL_LOG(LOG_INFO, "ssb_allocator_t::dump(), pool class = " << k << ", blocks = " << blocks
                                                                    << ", bytes = " << blocks * alloc_class_bytes(k)
                                                                    << ", this = " << this);
    }
    UTIL_LOG(LOG_INFO, "ssb_allocator_t::dump(), heap blocks = "
                           << static_cast<long long>(pool().heap_blocks.load(std::memory_order_relaxed))
                           << ", this = " << this);
}

void ssb_allocator_t::stats(stats_t& out) {
    out.heap_blocks = pool().heap_blocks.load(std::memory_order_relaxed);
    out.pool_blocks = 0;
    out.pool_bytes = 0;
    for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
        pool_t::class_pool_t& c = pool().classes[k];
        auto_lock_t<spin_lock> guard(c.lock);
        uint32_t blocks = c.blocks.load(std::memory_order_relaxed);
        out.pool_blocks += blocks;
        out.pool_bytes += static_cast<int64_t>(blocks) * alloc_class_bytes(k);
    }
    out.cached_blocks = 0;
    out.cached_bytes = 0;
    cached_allocator_helper* cache = t_cache;
    if (cache) {
        for (unsigned int k = 0; k < ALLOC_CLASS_COUNT; ++k) {
            out.cached_blocks += cache->m_rings[k].count;
            out.cached_bytes += static_cast<int64_t>(cache->m_rings[k].count) * alloc_class_bytes(k);
        }
    }
}

void read_alloc_classes(alloc_class_stats_t* out) { alloc_internals_t::read_classes(out); }

}  // namespace ssb

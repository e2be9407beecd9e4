// Byte allocators with interchangeable back ends, and the library's default
// one, ssb_allocator_t: a per-thread cache of freed small blocks in eight
// power-of-two classes in front of a shared pool, so the hot path takes no
// lock.
//
// ssb_allocator_t in a few lines:
//   - each thread owns one cached_allocator_helper, reached through a
//     thread-local pointer and used by that thread only: a hit or a keep is
//     a plain array push or pop, no lock and no atomic read-modify-write;
//   - a block freed on another thread lands in the freeing thread's cache;
//     when a class there is full, a batch of blocks moves to the shared pool
//     of that class under one short lock, and an empty class refills with
//     one batch from it, so blocks crossing threads cost a lock per batch,
//     not per block;
//   - a thread's cache holds at most 2 MiB in all classes together, and
//     only as much as the thread itself allocates again: a thread that only
//     frees keeps one batch per class; the pool keeps at most
//     POOL_HIGH_WATER bytes in all classes together, so a burst of one size
//     may use what the others leave; above that, the oldest batches of the
//     fullest class go back to the C heap;
//   - a miss never takes a larger class's block: freed under the smaller
//     size it would stay in the smaller class for good, and memory would
//     drift upwards;
//   - blocks of 4,096 bytes or more (trailer included) bypass both;
//   - a thread's cache is dropped into the pool when the thread ends (by its
//     thread-local slot's clean-up or by a native thread-exit slot, whichever
//     runs first), by release_tls, and with the allocator itself.
#ifndef SSB_ALLOC_H
#define SSB_ALLOC_H

#include <stdint.h>

#include <atomic>

#include "lock.h"
#include "util_def.h"

namespace ssb {

// Byte allocation. Callers pass back to deallocate the count they asked
// allocate for. Which threads may call depends on the back end.
class UTIL_API i8_allocator_it {
public:
    virtual ~i8_allocator_it() {}
    // Null when no memory is left.
    virtual signed char* allocate(unsigned int count) = 0;
    // A null block is ignored.
    virtual void deallocate(signed char* block, unsigned int count) = 0;

    // The process default back end (a new_i8_allocator_t), created on first
    // use and kept for the life of the process. Any thread.
    static i8_allocator_it* instance();
};

// The global allocation operator. Any thread. Records the system page size.
class UTIL_API new_i8_allocator_t : public i8_allocator_it {
public:
    new_i8_allocator_t();
    // A zero count is logged as an assertion and still served.
    signed char* allocate(unsigned int count) override;
    void deallocate(signed char* block, unsigned int count) override;
    unsigned int page_size() const { return m_page_size; }

private:
    unsigned int m_page_size;
};

// The C heap (malloc/free). Any thread.
class UTIL_API c_i8_allocator_t : public i8_allocator_it {
public:
    signed char* allocate(unsigned int count) override;
    void deallocate(signed char* block, unsigned int count) override;
};

// std::allocator<signed char>. Any thread. Its deallocate needs the exact
// count, so it is not a back end for a cache (which may hand a block back
// with the count of a smaller class).
class UTIL_API std_i8_allocator_t : public i8_allocator_it {
public:
    signed char* allocate(unsigned int count) override;
    void deallocate(signed char* block, unsigned int count) override;
};

struct alloc_internals_t;

const unsigned int ALLOC_CLASS_COUNT = 8;
// Sizes in 32-byte units below this are cached; 4,096 bytes and more never.
const unsigned int ALLOC_TABLE_SIZE = 128;
const unsigned int ALLOC_UNIT = 32;
const unsigned int ALLOC_MAX_CACHED = ALLOC_TABLE_SIZE * ALLOC_UNIT;
const unsigned int ALLOC_MIN_RING = 32;
const unsigned int ALLOC_MAX_RING = 16384;
// What deallocate answers when the caller must free the block itself.
const int ALLOC_NOT_KEPT = RESULT_FAILURE;

// Class of a size in bytes below ALLOC_MAX_CACHED: 0 for 0..31, else
// floor(log2(size / 32)) + 1, so class k holds sizes below 32 << k.
UTIL_API unsigned int alloc_class_of(unsigned int size);
// The bytes of a block of class k: every size of the class fits.
inline unsigned int alloc_class_bytes(unsigned int k) { return ALLOC_UNIT << k; }

// A cache of freed blocks in front of another back end. A cache sits with
// one thread or behind its owner's lock: it takes none itself.
class UTIL_API cached_allocator_helper : no_copy {
public:
    // A count bumped by the cache's own thread and read by statistics from
    // any thread: a relaxed load and store, no read-modify-write.
    class counter32_t {
    public:
        counter32_t() = default;
        counter32_t(const counter32_t& other) : m_n(other) {}
        counter32_t& operator=(const counter32_t& other) {
            m_n.store(other, std::memory_order_relaxed);
            return *this;
        }
        operator uint32_t() const { return m_n.load(std::memory_order_relaxed); }
        counter32_t& operator++() {
            m_n.store(m_n.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            return *this;
        }

    private:
        std::atomic<uint32_t> m_n{0};
    };

    // Requests counted in every class an allocation looks at; releases
    // counted in the class a block is offered to.
    struct class_record_t {
        counter32_t requests;
        counter32_t hits;
        counter32_t releases;
    };

    // Every class ring gets `capacity` entries, clamped to 32..16,384. A null
    // back end means i8_allocator_it::instance().
    cached_allocator_helper(unsigned int capacity, i8_allocator_it* back_end);
    // Frees every cached block to the back end.
    virtual ~cached_allocator_helper();

    // A cached block of the size's class or, failing that, of any larger
    // class; else a fresh block of the class's full size from the back end
    // (the exact size from 4,096 bytes up).
    signed char* allocate(unsigned int size);
    // 0 when the block was kept; 999 (ALLOC_NOT_KEPT) when it is 4,096 bytes
    // or more, or its class ring is full: the caller then frees it.
    int deallocate(signed char* block, unsigned int size);
    // One INFO line per class with its requests, hits and cached blocks.
    void dump() const;

    const class_record_t& record(unsigned int k) const { return m_rings[k].record; }
    unsigned int cached(unsigned int k) const { return m_rings[k].count; }
    unsigned int ring_capacity(unsigned int k) const { return m_rings[k].capacity; }
    i8_allocator_it* back_end() const { return m_back_end; }

protected:
    // Per-class ring capacities (each clamped), for ssb_allocator_t.
    cached_allocator_helper(const unsigned int* capacities, i8_allocator_it* back_end);

    // Freed blocks of one class, reused newest first while they are warm,
    // with the class's counts on the same cache line. `limit` (at most
    // `capacity`) is what ssb_allocator_t lets a thread keep: it grows while
    // the thread allocates more than it frees and shrinks while it only
    // frees, so a thread that only releases blocks does not hoard them.
    // `mark` is the hit count at the last spill.
    struct ring_t {
        signed char** slots;
        uint32_t count;
        uint32_t capacity;
        uint32_t limit;
        uint32_t mark;
        class_record_t record;
    };

    void init_rings(const unsigned int* capacities);

    i8_allocator_it* m_back_end;
    ring_t m_rings[ALLOC_CLASS_COUNT];
    signed char** m_slots;

    friend class ssb_allocator_t;
    friend struct alloc_internals_t;
};

// A cached_allocator_helper shared by any threads, behind one lock.
class UTIL_API cached_allocator_st : public i8_allocator_it {
public:
    // A null back end means i8_allocator_it::instance(); it must accept a
    // block back with a smaller count than it was asked for.
    explicit cached_allocator_st(unsigned int count, i8_allocator_it* back_end = nullptr);
    ~cached_allocator_st() override;

    signed char* allocate(unsigned int count) override;
    void deallocate(signed char* block, unsigned int count) override;
    void dump();

private:
    thread_mutex_recursive m_lock;
    cached_allocator_helper m_helper;
};

// The library's default allocator. allocate and deallocate may be called
// from any thread, and a block may be freed on another thread than the one
// that allocated it. Each block carries a 16-byte marker after the caller's
// bytes; deallocate checks it.
class UTIL_API ssb_allocator_t final : public i8_allocator_it {
public:
    // Ring entries of a thread's cache per class (THREAD_CACHE_SLOTS in the
    // source): more bytes for the large classes, which a mixed working set
    // needs most, under this bound for all classes together.
    static const unsigned int THREAD_CACHE_BYTES = 2 * 1024 * 1024;
    // Bytes of free blocks the shared pool keeps in all classes together;
    // above that, the oldest batches of the class holding the most go back
    // to the C heap.
    static const unsigned int POOL_HIGH_WATER = 4 * 1024 * 1024;
    static const unsigned int TRAILER_SIZE = 16;
    static const unsigned char CHECKER_RESULT[TRAILER_SIZE];

    // Created on first use under the global lock; after release, the next
    // call makes a fresh one. Any thread.
    static ssb_allocator_t* instance() {
        // Acquire pairs with the release that publishes a new allocator.
        ssb_allocator_t* p = s_instance.load(std::memory_order_acquire);
        return p ? p : create();
    }
    // The existing allocator or null; never creates.
    static ssb_allocator_t* peek() { return s_instance.load(std::memory_order_acquire); }

    // Null, with an assertion line, for a count whose trailer would not fit
    // in 32 bits.
    signed char* allocate(unsigned int count) override;
    void deallocate(signed char* block, unsigned int count) override;

    // Destroys the allocator: the calling thread's cache and the pool go
    // back to the C heap. Caches of threads still running stay theirs and
    // keep working; they are dropped when those threads end.
    void release();
    // Drops the calling thread's cache into the pool; the thread's next
    // allocation starts a new one. Twice in a row is harmless.
    void release_tls();
    // The calling thread's class records and the pool's fill, at INFO.
    void dump();

    // Counts for tests and monitoring. heap_blocks: small blocks taken
    // from the C heap and not yet given back (held by callers, caches or
    // the pool); pool_*: free blocks in the shared pool; cached_*: in the
    // calling thread's cache. Bytes count each block at its class's size.
    struct stats_t {
        int64_t heap_blocks;
        int64_t pool_blocks;
        int64_t pool_bytes;
        int64_t cached_blocks;
        int64_t cached_bytes;
    };
    static void stats(stats_t& out);

private:
    ssb_allocator_t();
    ~ssb_allocator_t() override;
    static ssb_allocator_t* create();
    static void destroy();
    signed char* allocate_slow(unsigned int count);
    void deallocate_slow(signed char* block, unsigned int count);
    static signed char* refill(cached_allocator_helper* cache, unsigned int k);
    cached_allocator_helper* thread_cache();

    static std::atomic<ssb_allocator_t*> s_instance;
    unsigned int m_key;
    bool m_has_key;
};

}  // namespace ssb

#endif

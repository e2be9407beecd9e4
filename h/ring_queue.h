// Bounded first-in-first-out rings of pointer-sized values, built once as a
// closed cycle of linked nodes and never resized. A ring of n nodes holds
// n - 1 values: the node in front of the write cursor is kept free so that
// "empty" (read == write) and "full" (next of write == read) differ.
//
// Three variants differ only in locking:
//   ring_queue_t        one writer thread, one reader thread, no lock;
//   ring_queue_or_mw_t  any writers under the queue's lock, one reader without;
//   ring_queue_mr_mw_t  any readers and writers, each under the lock.
// push and pop never allocate.
#ifndef SSB_RING_QUEUE_H
#define SSB_RING_QUEUE_H

#include <stddef.h>

#include <atomic>
#include <new>

#include "lock.h"
#include "util_def.h"

namespace ssb {

// The recorded capacity is clamped into this range; the ring itself has
// exactly the requested number of nodes.
const uint32_t RING_QUEUE_MIN_CAPACITY = 32;
const uint32_t RING_QUEUE_MAX_CAPACITY = 16384;

namespace detail {

// The log lines of the rings, kept out of line so the header stays free of
// the log machinery.
UTIL_API void ring_queue_log_created(unsigned int requested, unsigned int recorded, const void* ring);
UTIL_API void ring_queue_log_no_nodes(unsigned int requested, const void* ring);
UTIL_API void ring_queue_log_dump(const void* write, const void* read, const void* header, unsigned int capacity);

// Padding between the two sides' cursors: at least a cache line, so the
// reader's and the writer's hot words never share one whatever the object's
// alignment.
const unsigned int RING_CACHE_LINE = 64;

}  // namespace detail

template <class T>
struct ring_node_t {
    T m_value;
    ring_node_t* m_next;
};

// One writer thread and one reader thread, no lock. Each side keeps its
// own cursor and a private copy of the other side's, refreshed only when
// the copy says full (writer) or empty (reader), so the two threads touch
// each other's cache line once per burst rather than once per value.
// is_empty, is_full and dump may be called from either side and give a
// snapshot.
template <class T>
class ring_queue_t {
public:
    typedef ring_node_t<T> node_t;

    // A request below 2 leaves a ring that is always full and always empty
    // (one node linked to itself); so does a failed allocation.
    explicit ring_queue_t(unsigned int capacity)
        : m_header(nullptr),
          m_read(nullptr),
          m_write_seen(nullptr),
          m_reader_first(nullptr),
          m_reader_last(nullptr),
          m_write(nullptr),
          m_read_seen(nullptr),
          m_writer_first(nullptr),
          m_writer_last(nullptr),
          m_capacity(capacity < RING_QUEUE_MIN_CAPACITY
                         ? RING_QUEUE_MIN_CAPACITY
                         : (capacity > RING_QUEUE_MAX_CAPACITY ? RING_QUEUE_MAX_CAPACITY : capacity)),
          m_stub() {
        detail::ring_queue_log_created(capacity, m_capacity, this);
        m_stub.m_next = &m_stub;
        node_t* nodes = nullptr;
        if (capacity >= 2) {
            nodes = new (std::nothrow) node_t[capacity]();
            if (!nodes)
                detail::ring_queue_log_no_nodes(capacity, this);
        }
        unsigned int count = capacity;
        if (nodes) {
            for (unsigned int i = 0; i + 1 < capacity; ++i)
                nodes[i].m_next = &nodes[i + 1];
            nodes[capacity - 1].m_next = &nodes[0];
        } else {
            nodes = &m_stub;
            count = 1;
        }
        m_header = nodes;
        m_read.store(nodes, std::memory_order_relaxed);
        m_write.store(nodes, std::memory_order_relaxed);
        m_write_seen = nodes;
        m_read_seen = nodes;
        m_reader_first = m_writer_first = nodes;
        m_reader_last = m_writer_last = nodes + (count - 1);
    }

    // Frees the nodes only: values still queued belong to the owner, who
    // drains them first.
    virtual ~ring_queue_t() {
        if (m_header != &m_stub)
            delete[] m_header;
    }

    // Writer side: 0, or 3 when full (nothing stored).
    int push(const T& value) {
        node_t* w = m_write.load(std::memory_order_relaxed);
        node_t* next = after(w, m_writer_first, m_writer_last);
        if (next == m_read_seen) {
            // Acquire pairs with the reader's release in pop: the reader has
            // finished copying out of every node it has passed.
            m_read_seen = m_read.load(std::memory_order_acquire);
            if (next == m_read_seen)
                return RESULT_QUEUE_FULL;
        }
        w->m_value = value;
        // Release publishes the value before the reader can see the node.
        m_write.store(next, std::memory_order_release);
        return RESULT_SUCCESS;
    }

    // Reader side: 0 with the oldest value, or 7 when empty (`value` is
    // left as it was). The slot is not cleared.
    int pop(T& value) {
        node_t* r = m_read.load(std::memory_order_relaxed);
        if (r == m_write_seen) {
            // Acquire pairs with the writer's release in push.
            m_write_seen = m_write.load(std::memory_order_acquire);
            if (r == m_write_seen)
                return RESULT_QUEUE_EMPTY;
        }
        value = r->m_value;
        m_read.store(after(r, m_reader_first, m_reader_last), std::memory_order_release);
        return RESULT_SUCCESS;
    }

    // The read cursor is loaded first: it never passes the write cursor, so
    // a later write cursor can only make the answer conservative ("not
    // empty", "full" just as the reader frees a node). Loaded the other way
    // round, a reader catching up with a fresh push would show an empty
    // queue as full.
    bool is_empty() const { return is_empty_between(no_op_t()); }
    bool is_full() const { return is_full_between(no_op_t()); }
    // The same snapshots, running `between` after the first cursor load: a
    // seam through which a test moves both sides at the worst moment.
    template <class F>
    bool is_empty_between(F between) const {
        node_t* r = m_read.load(std::memory_order_acquire);
        between();
        return r == m_write.load(std::memory_order_acquire);
    }
    template <class F>
    bool is_full_between(F between) const {
        node_t* r = m_read.load(std::memory_order_acquire);
        between();
        return after(m_write.load(std::memory_order_acquire), m_writer_first, m_writer_last) == r;
    }

    // Values queued, a snapshot from any thread (cursors loaded in the
    // order of is_empty; a side moving in between makes it approximate).
    uint32_t size() const {
        node_t* r = m_read.load(std::memory_order_acquire);
        return distance(r, m_write.load(std::memory_order_acquire));
    }

    // Writer side, after a push: the values queued, at most. Above `mark`
    // the reader's cursor is read afresh and the answer is exact, so a
    // writer tracking a high-water mark reads the reader's line only when
    // its private copy says the mark may have been passed.
    uint32_t depth_above(uint32_t mark) {
        node_t* w = m_write.load(std::memory_order_relaxed);
        uint32_t depth = distance(m_read_seen, w);
        if (depth > mark) {
            m_read_seen = m_read.load(std::memory_order_acquire);
            depth = distance(m_read_seen, w);
        }
        return depth;
    }

    // The recorded (clamped) capacity; the room is the requested count - 1.
    unsigned int capacity() const { return m_capacity; }

    // One INFO line with the cursors and the recorded capacity.
    void dump() const {
        detail::ring_queue_log_dump(m_write.load(std::memory_order_relaxed), m_read.load(std::memory_order_relaxed),
                                    m_header, m_capacity);
    }

protected:
    // The node after `n`, found from the array order the links follow rather
    // than by loading n->m_next: that load would wait for the node's cache
    // line, which the other side is writing or reading, before the cursor
    // could move; the address needs nothing from memory.
    static node_t* after(node_t* n, node_t* first, node_t* last) { return n == last ? first : n + 1; }
    // Nodes from `from` forward to `to`.
    uint32_t distance(node_t* from, node_t* to) const {
        const ptrdiff_t d = to - from;
        return static_cast<uint32_t>(d >= 0 ? d : d + (m_writer_last - m_writer_first) + 1);
    }

    node_t* m_header;
    char m_pad0[detail::RING_CACHE_LINE];
    // Reader's lines: only pop writes them. The array bounds are copied to
    // each side so neither reads a line the other side writes.
    std::atomic<node_t*> m_read;
    node_t* m_write_seen;
    node_t* m_reader_first;
    node_t* m_reader_last;
    char m_pad1[detail::RING_CACHE_LINE];
    // Writer's lines: only push writes them.
    std::atomic<node_t*> m_write;
    node_t* m_read_seen;
    node_t* m_writer_first;
    node_t* m_writer_last;
    char m_pad2[detail::RING_CACHE_LINE];
    uint32_t m_capacity;
    node_t m_stub;

private:
    struct no_op_t {
        void operator()() const {}
    };

    ring_queue_t(const ring_queue_t&);
    ring_queue_t& operator=(const ring_queue_t&);
};

// Any number of writer threads, one reader thread. Writers are serialised
// on the queue's recursive lock, held for one push; the reader pops without
// it (only the reader moves m_read, only lock holders move m_write).
template <class T>
class ring_queue_or_mw_t : public ring_queue_t<T>, public safe_obj<ring_queue_or_mw_t<T>, thread_mutex_recursive> {
public:
    explicit ring_queue_or_mw_t(unsigned int capacity) : ring_queue_t<T>(capacity) {}

    int push(const T& value) {
        auto_lock_t<thread_mutex_recursive> guard(this->m_lock);
        return ring_queue_t<T>::push(value);
    }
    // A push that also answers depth_above(mark) under the same lock (0
    // when refused).
    int push(const T& value, uint32_t mark, uint32_t& depth) {
        auto_lock_t<thread_mutex_recursive> guard(this->m_lock);
        const int rv = ring_queue_t<T>::push(value);
        depth = rv == RESULT_SUCCESS ? this->depth_above(mark) : 0;
        return rv;
    }
    // Reader thread only.
    int pop(T& value) { return ring_queue_t<T>::pop(value); }
};

// Any number of reader and writer threads; every push and pop holds the
// queue's recursive lock.
template <class T>
class ring_queue_mr_mw_t : public ring_queue_t<T>, public safe_obj<ring_queue_mr_mw_t<T>, thread_mutex_recursive> {
public:
    explicit ring_queue_mr_mw_t(unsigned int capacity) : ring_queue_t<T>(capacity) {}

    int push(const T& value) {
        auto_lock_t<thread_mutex_recursive> guard(this->m_lock);
        return ring_queue_t<T>::push(value);
    }
    int pop(T& value) {
        auto_lock_t<thread_mutex_recursive> guard(this->m_lock);
        return ring_queue_t<T>::pop(value);
    }
};

}  // namespace ssb

#endif

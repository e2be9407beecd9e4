// Message data blocks: reference-counted memory (data_block_t) viewed by the
// nodes of doubly linked chains (msg_db_t), so that packet headers can be
// prepended, frames split into packets and several packets share one block
// without copying.
//
// Sharing rule
// ------------
// A node holds one reference on its block and sees it through its own
// cursors; several nodes (in one chain or in several) may view one block.
//  - These share blocks and copy no payload: duplicate(), split(), reversal()
//    and new_instance(data_block_t*). clone() and data_block_t::clone(false)
//    never share, and combine() of two or more nodes leaves one node over a
//    private block.
//  - Bytes written into a shared block are seen by every node whose view
//    covers them: update() overwrites readable bytes in place, and _write()
//    and move_write_forward() fill the room behind the write cursor, which
//    for a head made by split() is the very memory the source chain has yet
//    to read. Reading and moving read cursors never affect another node.
//  - is_shared() says whether any block of a chain has another user. For a
//    private copy that may be written freely, take clone() (or combine() a
//    chain, which copies it into one new block).
//  - Reference counts are atomic: chains that share blocks may be released
//    from different threads. Everything else about a chain belongs to one
//    thread at a time, and a thread writing into a shared block must not
//    race with another reading the same bytes.
//
// Sizes are 32-bit. A block holds at most MSG_DB_MAX_BLOCK_SIZE bytes. Sums
// over a chain are taken in 64 bits: length() and space() saturate at
// 0xFFFFFFFF rather than wrap, and a range, count or combined size that does
// not fit is refused (2 or 8) with its log line, never acted on short.
//
// The room of a new block is not cleared: move_write_forward() over room
// that was never written exposes unspecified bytes (fill it through the
// block's memory first, then move the cursor to commit).
#ifndef SSB_MSGBLOCK_H
#define SSB_MSGBLOCK_H

#include <stddef.h>

#include "lock.h"
#include "util_def.h"

namespace ssb {

class i8_allocator_it;

// Bits given at creation; a node's flag word also carries the lock bits.
typedef uint32_t MSG_FLAG;
const MSG_FLAG MSG_FLAG_NONE = 0;
// The block uses the caller's buffer instead of copying it. The caller keeps
// that memory alive, unchanged unless through the chain, until the block's
// last reference is gone; the library never frees it.
const MSG_FLAG MSG_FLAG_WITHOUT_COPY = 1;
// Set by lock_read(): reads through the node are refused with 12.
const MSG_FLAG MSG_FLAG_READ_LOCKED = 2;
// Set by lock_write(): writes through the node are refused with 12.
const MSG_FLAG MSG_FLAG_WRITE_LOCKED = 4;

// The largest block; leaves the allocator room for its own bookkeeping
// within 32-bit sizes.
const uint32_t MSG_DB_MAX_BLOCK_SIZE = 0xFFFF0000u;

// A reference-counted piece of memory from an allocator. The object and, when
// it copies, its bytes are one allocation from that allocator, returned when
// the last reference goes. Reference counts may be changed from any thread.
class UTIL_API data_block_t : public ref_count_t<null_lock> {
public:
    // A block of `size` bytes. With MSG_FLAG_WITHOUT_COPY it is `buffer`
    // itself and `len` of it counts as written; otherwise its own memory,
    // starting with a copy of `len` bytes of `buffer`. `allocator` null means
    // ssb_allocator_t::instance(). Assertion lines, then carrying on: `len` >
    // `size` (only `size` bytes are taken), null `buffer` with `len` (taken
    // as 0), null `buffer` with the without-copy bit (the bit is dropped).
    // Null (with a log line) when the memory cannot be had or `size` is above
    // MSG_DB_MAX_BLOCK_SIZE. The caller owns the one reference it returns.
    static data_block_t* new_instance(unsigned size, const signed char* buffer, unsigned len, MSG_FLAG flags,
                                      i8_allocator_it* allocator = nullptr);
    static data_block_t* new_instance(unsigned size);

    // A new block from this one, taken from this block's allocator: with
    // `without_copy` it views this block's memory (which must outlive it),
    // otherwise it owns a copy of the memory's written part.
    data_block_t* clone(bool without_copy);
    // One more reference on this same block.
    data_block_t* duplicate() {
        increment();
        return this;
    }
    // Drops one reference; the last one frees the block.
    void release() { decrement(); }

    unsigned capacity() const { return m_capacity; }
    signed char* begin() const { return m_buffer; }
    // Bytes not filled at creation; length() = capacity() - space().
    unsigned space() const { return m_space; }
    unsigned length() const { return m_capacity - m_space; }
    MSG_FLAG get_flags() const { return m_flags; }
    i8_allocator_it* get_allocator() const { return m_allocator; }
    // Counts the writes made into the block through any node (_write, update,
    // move_write_forward), so a holder can tell that shared bytes changed.
    // A hint: writers on two threads at once may count once.
    unsigned get_latest_modified() const { return m_latest_modified.load(std::memory_order_relaxed); }

    // The count is kept here rather than in the base: a sole holder's
    // release then needs no atomic read-modify-write.
    uint32_t increment() override { return m_refs.fetch_add(1, std::memory_order_relaxed) + 1; }
    uint32_t decrement() override;
    uint32_t get_count() override { return m_refs.load(std::memory_order_relaxed); }
    void on_self_destroy() override;

private:
    friend class msg_db_t;
    data_block_t(unsigned size, signed char* buffer, unsigned space, MSG_FLAG flags, i8_allocator_it* allocator,
                 signed char* memory, unsigned allocation, uint32_t holders);
    ~data_block_t() override;
    void touch() {
        m_latest_modified.store(m_latest_modified.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    // One of the parties living in the allocation (the block, and the node
    // made with it) is done; the last one frees the memory.
    void drop_holder();
    void free_memory();

    uint32_t m_capacity;
    signed char* m_buffer;
    uint32_t m_space;
    MSG_FLAG m_flags;
    i8_allocator_it* m_allocator;
    std::atomic<uint32_t> m_latest_modified;
    std::atomic<uint32_t> m_refs;
    // 2 while the node made together with the block lives in its
    // allocation, else 1.
    std::atomic<uint32_t> m_holders;
    // The allocation: this object, or the node in front of it.
    signed char* m_memory;
    uint32_t m_allocation;
};

// One node of a chain, and through it the chain from this node to the end.
// Operations act on this node and the ones after it; a chain is held by its
// head (prev() null) and released as a whole with release().
//
// Reading consumes at the read cursor, writing appends at the write cursor
// of each node in turn: _write() fills this node's room, then the next
// node's, so bytes written after a partly filled middle node land there.
//
// Lock bits: a read-locked node refuses _read (both forms), peek, split,
// fill_iov and combine with 12; a write-locked node refuses _write (both
// forms) and update with 12. Transfers stop at the locked node, with what was
// moved before it kept. Cursor moves, CRCs, copies and stream output ignore
// the bits.
//
// Owned by one thread at a time; see the sharing rule above for blocks.
class UTIL_API msg_db_t {
public:
    // A one-node chain over a new block (see data_block_t::new_instance);
    // the readable bytes are the block's written part. A null `buffer` drops
    // the without-copy bit first, with an assertion line when it was set.
    // Null when the block or node cannot be had.
    static msg_db_t* new_instance(unsigned size, signed char* buffer, unsigned len, MSG_FLAG flags,
                                  i8_allocator_it* allocator = nullptr);
    static msg_db_t* new_instance(unsigned size);
    // A one-node chain over `block`, taking a reference of its own (the
    // caller keeps its own). Nodes come from the block's allocator.
    static msg_db_t* new_instance(data_block_t* block);

    // Releases this node and all after it, with their block references; a
    // node before this one becomes the end of its chain.
    void release();
    // Releases the chain and nulls the pointer; a null pointer is left alone.
    static void release(msg_db_t*& db);

    // ---- sizes ----
    // Readable bytes from this node to the end of the chain (at most
    // 0xFFFFFFFF).
    unsigned length() const;
    // Readable bytes of this node alone.
    unsigned get_current_db_length() const { return static_cast<unsigned>(m_write - m_read); }
    // Free room from this node to the end of the chain (at most 0xFFFFFFFF).
    unsigned space() const;
    // This node's free room.
    unsigned space_i() const { return m_block->m_capacity - static_cast<unsigned>(m_write - m_base); }
    // Nodes from this one to the end.
    unsigned node_size() const;

    msg_db_t* prev() const { return m_prev; }
    msg_db_t* next() const { return m_next; }
    signed char* get_reader_cursor() const { return m_read; }
    signed char* get_writer_cursor() const { return m_write; }
    signed char* get_base() const { return m_base; }
    data_block_t* get_data_block() const { return m_block; }
    i8_allocator_it* get_allocator() const { return m_allocator; }
    MSG_FLAG get_flags() const { return m_flags; }

    // ---- transfers ----
    // Copies up to `len` readable bytes into `dst`, moving the read cursors
    // past them when `move`. A null `dst` with `move` skips bytes; null
    // `dst` without `move` is an assertion and 2. `done` (when not null)
    // receives the count. 0 when all `len` came, 11 when the chain ran out,
    // 12 at a read-locked node.
    int _read(signed char* dst, unsigned len, unsigned* done, bool move);
    // Appends up to `len` of this chain's readable bytes to `dst` by
    // _write. Null `dst`, or `dst` with less room than `len`, is an
    // assertion and 2 with nothing moved.
    int _read(msg_db_t* dst, unsigned len, unsigned* done, bool move);
    // Copies `len` bytes into the room of this node and the ones after it.
    // Null `src` is an assertion and 2; 11 when the room ran out (after
    // writing what fitted), 12 at a write-locked node.
    int _write(const signed char* src, unsigned len, unsigned* done);
    // Copies `len` readable bytes of `src` (not consumed) into this chain.
    // Null `src`, or `src` with fewer than `len` readable bytes, is an
    // assertion and 2 with nothing moved.
    int _write(const msg_db_t* src, unsigned len, unsigned* done);
    // Copies `len` readable bytes starting `offset` bytes after the reader,
    // moving nothing. 2 (with an error line) for null `dst`, `len` 0 or a
    // range past length(); 12 at a read-locked node.
    int peek(signed char* dst, unsigned len, unsigned offset);
    // The mirror of peek: overwrites `len` readable bytes in place.
    int update(const signed char* src, unsigned len, unsigned offset);

    // ---- cursors ----
    // Move by `distance` across nodes; past the end (or start) the cursors
    // stop there, a warning is logged and the result is 8.
    int move_reader_forward(unsigned distance);
    int move_reader_backward(unsigned distance);
    int move_write_forward(unsigned distance);

    // Detaches the first `len` readable bytes as a new chain that shares the
    // blocks (no copy); this chain's reader moves past them. Null for 0, for
    // more than length() (assertion), at a read-locked node, or when a node
    // cannot be had (this chain then unchanged).
    msg_db_t* split(unsigned len);

    // crc_32 from 0 over THIS NODE's readable bytes only: the bytes of the
    // following nodes are left out. For a whole packet use
    // get_chain_crc32_digest().
    unsigned get_crc32_digest() const;
    // crc_32 from `crc` over every readable byte from this node to the end,
    // in the raw running form: start from 0xFFFFFFFF and invert the result
    // for the common CRC-32.
    unsigned get_chain_crc32_digest(unsigned crc = 0) const;

    void lock_read() { m_flags |= MSG_FLAG_READ_LOCKED; }
    void lock_write() { m_flags |= MSG_FLAG_WRITE_LOCKED; }
    void unlock_read() { m_flags &= ~MSG_FLAG_READ_LOCKED; }
    void unlock_write() { m_flags &= ~MSG_FLAG_WRITE_LOCKED; }
    bool is_read_locked() const { return (m_flags & MSG_FLAG_READ_LOCKED) != 0; }
    bool is_write_locked() const { return (m_flags & MSG_FLAG_WRITE_LOCKED) != 0; }

    // ---- chains ----
    // Deep copy from this node on: one node per node, each over a private
    // block of the same capacity holding the same bytes from its base to its
    // write cursor, with the same cursors and flags. Null when out of memory.
    msg_db_t* clone() const;
    // A chain of new nodes over the same blocks (one reference more each),
    // same cursors and flags: like split() without consuming anything.
    msg_db_t* duplicate() const;
    // Copies the readable bytes of this node and the following ones into one
    // new block whose room equals the chain's space(), which this node then
    // views alone; the other nodes are released. length(), space() and the
    // bytes are kept. 0, 12 at a read-locked node, 8 when the total is above
    // MSG_DB_MAX_BLOCK_SIZE, 999 when out of memory (chain unchanged). A
    // one-node chain is left as it is.
    int combine();
    // Releases the nodes after this one that can neither give nor take a
    // byte (no readable bytes, no room): what read-through chains leave
    // behind. Copies nothing; length(), space() and the bytes are kept.
    // Returns the number of nodes released.
    unsigned compress();
    // Links the chain headed by `other` after this chain's last node; this
    // chain takes over its nodes. Walks to the end: to build a long chain,
    // insert_behind() on its last node instead. 2 for null, for a node that
    // is not a head, or for this chain's own head.
    int append(msg_db_t* other);
    // Links the chain headed by `other` right after this node.
    int insert_behind(msg_db_t* other);
    // Links the chain headed by `other` right before this node. When this
    // node was a head, the head is now `other`.
    int insert_before(msg_db_t* other);
    // A duplicate() of this node and the following ones in reverse node
    // order (the bytes inside each node keep their order).
    msg_db_t* reversal() const;
    // Reverses the order of this node and the following ones in place and
    // returns the new first node (the former last); a node before this one
    // is linked to it.
    msg_db_t* reversal_self();

    // Node for node: same blocks, same base and cursors.
    bool is_duplicate(const msg_db_t* other) const;
    // Node for node: equal readable lengths and bytes, and no block in
    // common (what clone() gives).
    bool is_clone(const msg_db_t* other) const;
    // The same readable byte sequence, however split into nodes or shared.
    bool is_copy(const msg_db_t* other) const;
    // Some block of this chain has another user (a node or a caller): a
    // write could be seen elsewhere.
    bool is_shared() const;

    // Every node back to empty: cursors at its base, all capacity free,
    // lock bits cleared. Blocks stay (and stay shared).
    void reset();

    // Fills `iov[0..count)` with the readable pieces from this node on, one
    // entry per non-empty node, for sendmsg()/WSASend(). `iov_type` is any
    // struct with `iov_base`/`iov_len` (POSIX iovec) or `buf`/`len` (Windows
    // WSABUF), so callers pass their OS array directly. `filled` receives
    // the entries used. 0 when every piece fit; 11 when pieces remain
    // (after filling all `count`); 12 at a read-locked node (after the
    // pieces before it); 2 for a null `iov` with `count`. Nothing is copied
    // or allocated; the entries stay valid until the chain is changed.
    template <class iov_type>
    int fill_iov(iov_type* iov, unsigned count, unsigned* filled) const;

private:
    msg_db_t(i8_allocator_it* allocator, data_block_t* block, MSG_FLAG flags);
    ~msg_db_t();
    static msg_db_t* make_node(i8_allocator_it* allocator, data_block_t* block, MSG_FLAG flags);
    // A node and a new block in one allocation.
    static msg_db_t* make_with_block(unsigned size, const signed char* buffer, unsigned len, MSG_FLAG flags,
                                     i8_allocator_it* allocator);
    static void free_node(msg_db_t* node);
    msg_db_t* copy_node(bool deep) const;
    msg_db_t* copy_chain(bool deep, bool reverse) const;
    static int write_on(msg_db_t*& node, const signed char* src, unsigned len, unsigned* written);
    static int copy_chain(const msg_db_t* src, msg_db_t* at, unsigned len, unsigned* done, bool move);
    msg_db_t* tail();
    // Checks `other` and returns its last node (null when refused, with *rv).
    msg_db_t* link_check(msg_db_t* other, const char* what, int* rv) const;
    uint64_t length64() const;
    uint64_t space64() const;
    int iov_refused(unsigned count) const;

    i8_allocator_it* m_allocator;
    msg_db_t* m_prev;
    msg_db_t* m_next;
    signed char* m_read;
    signed char* m_write;
    signed char* m_base;
    MSG_FLAG m_flags;
    data_block_t* m_block;
    // The block whose allocation holds this node, or null.
    data_block_t* m_home;
};

namespace detail {

template <class iov_type>
auto set_iov(iov_type& v, signed char* data, unsigned len, int) -> decltype(v.iov_base, v.iov_len, void()) {
    v.iov_base = data;
    v.iov_len = len;
}
template <class iov_type>
auto set_iov(iov_type& v, signed char* data, unsigned len, long) -> decltype(v.buf, v.len, void()) {
    v.buf = reinterpret_cast<decltype(v.buf)>(data);
    v.len = len;
}

}  // namespace detail

template <class iov_type>
int msg_db_t::fill_iov(iov_type* iov, unsigned count, unsigned* filled) const {
    unsigned n = 0;
    int rv = RESULT_SUCCESS;
    if (!iov && count)
        rv = iov_refused(count);
    for (const msg_db_t* node = this; node && rv == RESULT_SUCCESS; node = node->m_next) {
        if (node->is_read_locked())
            rv = RESULT_REFUSED;
        else if (node->m_write == node->m_read)
            continue;
        else if (n == count)
            rv = RESULT_NOT_ENOUGH;
        else
            detail::set_iov(iov[n++], node->m_read, node->get_current_db_length(), 0);
    }
    if (filled)
        *filled = n;
    return rv;
}

}  // namespace ssb

#endif

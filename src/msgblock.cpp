// Message data blocks and their chains.
#include "msgblock.h"

#include <string.h>

#include <new>

#include "alloc.h"
#include "crc.h"
#include "stream.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = ".\\msgblock";

// The bytes of a copying block start after its object, 16-byte aligned; a
// node made with its block sits in front of both.
const uint32_t BLOCK_HEADER_SIZE = static_cast<uint32_t>((sizeof(data_block_t) + 15) & ~static_cast<size_t>(15));
const uint32_t NODE_SIZE = static_cast<uint32_t>((sizeof(msg_db_t) + 15) & ~static_cast<size_t>(15));

const uint64_t MAX_UNSIGNED = 0xFFFFFFFFull;

i8_allocator_it* default_allocator() { return ssb_allocator_t::instance(); }

inline unsigned min_of(unsigned a, unsigned b) { return a < b ? a : b; }

// Refusals kept out of line: each log line builds on a 2 KiB stack buffer
// that the hot paths should not carry.
[[gnu::cold]] [[gnu::noinline]] void log_size_refused(unsigned size) {
    UTIL_ASSERT_MSG("data_block_t::new_instance size is out of limitation, size = " << size, SOURCE_PATH, __LINE__, "");
}

[[gnu::cold]] [[gnu::noinline]] void log_out_of_memory(const char* what, unsigned size) {
    UTIL_LOG(LOG_ERROR, what << " out of memory, size = " << size);
}

[[gnu::cold]] [[gnu::noinline]] void log_bad_creation(int line, unsigned size, unsigned len, unsigned flags) {
    UTIL_ASSERT_LINE(SOURCE_PATH, line, ", size = " << size << ", len = " << len << ", flags = " << flags);
}

[[gnu::cold]] [[gnu::noinline]] void log_split_too_long(const void* self, unsigned len, unsigned total) {
    UTIL_ASSERT_MSG("msg_db_t::split, len = " << len << ", total_len = " << total, SOURCE_PATH, __LINE__,
                    ", this = " << log_ptr(self));
}

inline unsigned distance_of(const signed char* from, const signed char* to) { return static_cast<unsigned>(to - from); }

}  // namespace

// ---- data_block_t --------------------------------------------------------------

data_block_t::data_block_t(unsigned size, signed char* buffer, unsigned space, MSG_FLAG flags,
                           i8_allocator_it* allocator, signed char* memory, unsigned allocation, uint32_t holders)
    : m_capacity(size),
      m_buffer(buffer),
      m_space(space),
      m_flags(flags),
      m_allocator(allocator),
      m_latest_modified(0),
      m_refs(1),
      m_holders(holders),
      m_memory(memory),
      m_allocation(allocation) {}

data_block_t::~data_block_t() {}

uint32_t data_block_t::decrement() {
    // A count of 1 seen with acquire is the caller's own reference: no one
    // else can take another, and every other holder's writes happened
    // before their decrements, which this load synchronises with.
    uint32_t n;
    if (m_refs.load(std::memory_order_acquire) == 1) {
        m_refs.store(0, std::memory_order_relaxed);
        n = 0;
    } else {
        n = m_refs.fetch_sub(1, std::memory_order_acq_rel) - 1;
    }
    if (n == 0)
        on_self_destroy();
    return n;
}

void data_block_t::on_self_destroy() { drop_holder(); }

void data_block_t::drop_holder() {
    if (m_holders.load(std::memory_order_acquire) == 1 || m_holders.fetch_sub(1, std::memory_order_acq_rel) == 1)
        free_memory();
}

void data_block_t::free_memory() {
    i8_allocator_it* allocator = m_allocator;
    signed char* memory = m_memory;
    const uint32_t allocation = m_allocation;
    this->~data_block_t();
    allocator->deallocate(memory, allocation);
}

data_block_t* data_block_t::new_instance(unsigned size, const signed char* buffer, unsigned len, MSG_FLAG flags,
                                         i8_allocator_it* allocator) {
    if (len > size) {
        log_bad_creation(__LINE__, size, len, flags);
        len = size;
    }
    if (!buffer && len) {
        log_bad_creation(__LINE__, size, len, flags);
        len = 0;
    }
    if (!buffer && (flags & MSG_FLAG_WITHOUT_COPY)) {
        log_bad_creation(__LINE__, size, len, flags);
        flags &= ~MSG_FLAG_WITHOUT_COPY;
    }
    if (size > MSG_DB_MAX_BLOCK_SIZE) {
        log_size_refused(size);
        return nullptr;
    }
    if (!allocator)
        allocator = default_allocator();
    if (!allocator)
        return nullptr;

    const bool own = (flags & MSG_FLAG_WITHOUT_COPY) == 0;
    const uint32_t allocation = BLOCK_HEADER_SIZE + (own ? size : 0);
    signed char* memory = allocator->allocate(allocation);
    if (!memory) {
        log_out_of_memory("data_block_t::new_instance", size);
        return nullptr;
    }
    signed char* data = own ? memory + BLOCK_HEADER_SIZE : const_cast<signed char*>(buffer);
    if (own && len)
        memcpy(data, buffer, len);
    return new (memory) data_block_t(size, data, size - len, flags, allocator, memory, allocation, 1);
}

data_block_t* data_block_t::new_instance(unsigned size) {
    return new_instance(size, nullptr, 0, MSG_FLAG_NONE, nullptr);
}

data_block_t* data_block_t::clone(bool without_copy) {
    UTIL_LOG(LOG_FUNC, "data_block_t::clone withoutcopy = " << without_copy << ", this = " << log_ptr(this));
    if (without_copy)
        return new_instance(m_capacity, m_buffer, length(), m_flags | MSG_FLAG_WITHOUT_COPY, m_allocator);
    // The whole memory is copied: nodes may have written past length().
    data_block_t* block = new_instance(m_capacity, m_buffer, m_capacity, m_flags & ~MSG_FLAG_WITHOUT_COPY, m_allocator);
    if (block)
        block->m_space = m_space;
    return block;
}

// ---- msg_db_t: life ------------------------------------------------------------------

msg_db_t::msg_db_t(i8_allocator_it* allocator, data_block_t* block, MSG_FLAG flags)
    : m_allocator(allocator),
      m_prev(nullptr),
      m_next(nullptr),
      m_read(block->begin()),
      m_write(block->begin() + block->length()),
      m_base(block->begin()),
      m_flags(flags),
      m_block(block),
      m_home(nullptr) {}

msg_db_t::~msg_db_t() {}

// Takes over the caller's reference on `block`, also when it fails.
msg_db_t* msg_db_t::make_node(i8_allocator_it* allocator, data_block_t* block, MSG_FLAG flags) {
    signed char* memory = allocator->allocate(sizeof(msg_db_t));
    if (!memory) {
        UTIL_LOG(LOG_ERROR, "msg_db_t::new_instance out of memory, block = " << log_ptr(block));
        block->release();
        return nullptr;
    }
    return new (memory) msg_db_t(allocator, block, flags);
}

msg_db_t* msg_db_t::make_with_block(unsigned size, const signed char* buffer, unsigned len, MSG_FLAG flags,
                                    i8_allocator_it* allocator) {
    if (size > MSG_DB_MAX_BLOCK_SIZE) {
        UTIL_ASSERT_MSG("data_block_t::new_instance size is out of limitation, size = " << size, SOURCE_PATH, __LINE__,
                        "");
        return nullptr;
    }
    const bool own = (flags & MSG_FLAG_WITHOUT_COPY) == 0;
    const uint32_t allocation = NODE_SIZE + BLOCK_HEADER_SIZE + (own ? size : 0);
    signed char* memory = allocator->allocate(allocation);
    if (!memory) {
        log_out_of_memory("msg_db_t::new_instance", size);
        return nullptr;
    }
    signed char* data = own ? memory + NODE_SIZE + BLOCK_HEADER_SIZE : const_cast<signed char*>(buffer);
    if (own && len)
        memcpy(data, buffer, len);
    data_block_t* block = new (memory + NODE_SIZE)
        data_block_t(size, data, size - len, flags & MSG_FLAG_WITHOUT_COPY, allocator, memory, allocation, 2);
    msg_db_t* node = new (memory) msg_db_t(allocator, block, flags);
    node->m_home = block;
    return node;
}

void msg_db_t::free_node(msg_db_t* node) {
    i8_allocator_it* allocator = node->m_allocator;
    data_block_t* block = node->m_block;
    data_block_t* home = node->m_home;
    node->~msg_db_t();
    if (!home) {
        allocator->deallocate(reinterpret_cast<signed char*>(node), sizeof(msg_db_t));
        block->release();
        return;
    }
    // The node and its block die together when no other node views the
    // block: the common case, with no atomic read-modify-write.
    if (block == home && block->m_refs.load(std::memory_order_acquire) == 1) {
        block->free_memory();
        return;
    }
    block->release();
    home->drop_holder();
}

msg_db_t* msg_db_t::new_instance(unsigned size, signed char* buffer, unsigned len, MSG_FLAG flags,
                                 i8_allocator_it* allocator) {
    if (!buffer && (flags & MSG_FLAG_WITHOUT_COPY)) {
        log_bad_creation(__LINE__, size, len, flags);
        flags &= ~MSG_FLAG_WITHOUT_COPY;
    }
    if (len > size) {
        log_bad_creation(__LINE__, size, len, flags);
        len = size;
    }
    if (!buffer && len) {
        log_bad_creation(__LINE__, size, len, flags);
        len = 0;
    }
    if (!allocator)
        allocator = default_allocator();
    if (!allocator)
        return nullptr;
    return make_with_block(size, buffer, len, flags, allocator);
}

msg_db_t* msg_db_t::new_instance(unsigned size) { return new_instance(size, nullptr, 0, MSG_FLAG_NONE, nullptr); }

msg_db_t* msg_db_t::new_instance(data_block_t* block) {
    if (!block) {
        UTIL_ASSERT_MSG("msg_db_t::new_instance block should be not NULL", SOURCE_PATH, __LINE__, "");
        return nullptr;
    }
    block->increment();
    return make_node(block->get_allocator(), block, block->get_flags() & MSG_FLAG_WITHOUT_COPY);
}

void msg_db_t::release() {
    if (m_prev)
        m_prev->m_next = nullptr;
    msg_db_t* node = this;
    while (node) {
        msg_db_t* next = node->m_next;
        free_node(node);
        node = next;
    }
}

void msg_db_t::release(msg_db_t*& db) {
    if (!db)
        return;
    db->release();
    db = nullptr;
}

// ---- sizes ---------------------------------------------------------------------------

uint64_t msg_db_t::length64() const {
    uint64_t total = 0;
    for (const msg_db_t* node = this; node; node = node->m_next)
        total += node->get_current_db_length();
    return total;
}

uint64_t msg_db_t::space64() const {
    uint64_t total = 0;
    for (const msg_db_t* node = this; node; node = node->m_next)
        total += node->space_i();
    return total;
}

unsigned msg_db_t::length() const {
    const uint64_t total = length64();
    return total > MAX_UNSIGNED ? static_cast<unsigned>(MAX_UNSIGNED) : static_cast<unsigned>(total);
}

unsigned msg_db_t::space() const {
    const uint64_t total = space64();
    return total > MAX_UNSIGNED ? static_cast<unsigned>(MAX_UNSIGNED) : static_cast<unsigned>(total);
}

unsigned msg_db_t::node_size() const {
    unsigned count = 0;
    for (const msg_db_t* node = this; node; node = node->m_next)
        ++count;
    return count;
}

msg_db_t* msg_db_t::tail() {
    msg_db_t* node = this;
    while (node->m_next)
        node = node->m_next;
    return node;
}

// ---- transfers -----------------------------------------------------------------------

int msg_db_t::_write(const signed char* src, unsigned len, unsigned* done) {
    if (done)
        *done = 0;
    if (!src) {
        UTIL_ASSERT_LINE(SOURCE_PATH, __LINE__, ", len = " << len << ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    unsigned written = 0;
    int rv = RESULT_SUCCESS;
    for (msg_db_t* node = this; node && written < len; node = node->m_next) {
        if (node->is_write_locked()) {
            rv = RESULT_REFUSED;
            break;
        }
        const unsigned n = min_of(node->space_i(), len - written);
        if (!n)
            continue;
        memmove(node->m_write, src + written, n);
        node->m_write += n;
        node->m_block->touch();
        written += n;
    }
    if (rv == RESULT_SUCCESS && written < len)
        rv = RESULT_NOT_ENOUGH;
    if (done)
        *done = written;
    return rv;
}

int msg_db_t::_read(signed char* dst, unsigned len, unsigned* done, bool move) {
    if (done)
        *done = 0;
    if (!dst && !move) {
        UTIL_ASSERT_LINE(SOURCE_PATH, __LINE__, ", len = " << len << ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    unsigned copied = 0;
    int rv = RESULT_SUCCESS;
    for (msg_db_t* node = this; node && copied < len; node = node->m_next) {
        if (node->is_read_locked()) {
            rv = RESULT_REFUSED;
            break;
        }
        const unsigned n = min_of(node->get_current_db_length(), len - copied);
        if (!n)
            continue;
        if (dst)
            memcpy(dst + copied, node->m_read, n);
        if (move)
            node->m_read += n;
        copied += n;
    }
    if (rv == RESULT_SUCCESS && copied < len)
        rv = RESULT_NOT_ENOUGH;
    if (done)
        *done = copied;
    return rv;
}

int msg_db_t::_read(msg_db_t* dst, unsigned len, unsigned* done, bool move) {
    if (done)
        *done = 0;
    if (!dst) {
        UTIL_ASSERT_MSG("msg_db_t::read dst_db should be not NULL", SOURCE_PATH, __LINE__,
                        ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    if (dst->space64() < len) {
        UTIL_ASSERT_MSG("msg_db_t::read dst_db should has enough space", SOURCE_PATH, __LINE__,
                        ", len = " << len << ", space = " << dst->space() << ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    return copy_chain(this, dst, len, done, move);
}

int msg_db_t::_write(const msg_db_t* src, unsigned len, unsigned* done) {
    if (done)
        *done = 0;
    if (!src) {
        UTIL_ASSERT_MSG("msg_db_t::write src_db should be not NULL", SOURCE_PATH, __LINE__,
                        ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    if (src->length64() < len) {
        UTIL_ASSERT_MSG("msg_db_t::write src_db should has enough data", SOURCE_PATH, __LINE__,
                        ", len = " << len << ", src_len = " << src->length() << ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    return copy_chain(src, this, len, done, false);
}

// Copies `len` bytes of the chain at `src` into the room of the chain at
// `at`, consuming them from `src` when `move`: the one walk behind both
// chain-to-chain forms, which differ only in which side is this node.
int msg_db_t::copy_chain(const msg_db_t* src, msg_db_t* at, unsigned len, unsigned* done, bool move) {
    unsigned copied = 0;
    int rv = RESULT_SUCCESS;
    for (const msg_db_t* node = src; node && copied < len; node = node->m_next) {
        if (node->is_read_locked()) {
            rv = RESULT_REFUSED;
            break;
        }
        const unsigned n = min_of(node->get_current_db_length(), len - copied);
        if (!n)
            continue;
        unsigned written = 0;
        rv = write_on(at, node->m_read, n, &written);
        // Only _read moves, and its source is the caller's own chain.
        if (move)
            const_cast<msg_db_t*>(node)->m_read += written;
        copied += written;
        if (rv != RESULT_SUCCESS)
            break;
    }
    if (rv == RESULT_SUCCESS && copied < len)
        rv = RESULT_NOT_ENOUGH;
    if (done)
        *done = copied;
    return rv;
}

// Writes into the room of `node` and the ones after it, then leaves `node`
// at the first node that still has room, so a long copy does not rescan the
// filled ones.
int msg_db_t::write_on(msg_db_t*& node, const signed char* src, unsigned len, unsigned* written) {
    const int rv = node->_write(src, len, written);
    while (node->m_next && node->space_i() == 0 && !node->is_write_locked())
        node = node->m_next;
    return rv;
}

namespace {

// Visits `len` readable bytes starting `offset` bytes after the reader, as
// stretches within single nodes: piece(node, skip, done, n) covers n bytes
// at node's reader + skip, the stretch's place `done` in the range. A node
// that `locked` refuses ends the walk with 12.
template <class Locked, class Piece>
int walk_readable(msg_db_t* head, unsigned len, unsigned offset, Locked locked, Piece piece) {
    unsigned skip = offset;
    unsigned done = 0;
    for (msg_db_t* node = head; node && done < len; node = node->next()) {
        const unsigned avail = node->get_current_db_length();
        if (skip >= avail) {
            skip -= avail;
            continue;
        }
        if (locked(node))
            return RESULT_REFUSED;
        const unsigned n = min_of(avail - skip, len - done);
        piece(node, skip, done, n);
        done += n;
        skip = 0;
    }
    return RESULT_SUCCESS;
}

}  // namespace

int msg_db_t::peek(signed char* dst, unsigned len, unsigned offset) {
    const uint64_t total = length64();
    if (len == 0 || !dst || static_cast<uint64_t>(offset) + len > total) {
        UTIL_LOG(LOG_ERROR, " msg_db_t::peek dst = " << log_ptr(dst) << ", len = " << len << ", offset = " << offset
                                                     << ", db_len = " << total << ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    return walk_readable(
        this, len, offset, [](msg_db_t* node) { return node->is_read_locked(); },
        [&](msg_db_t* node, unsigned skip, unsigned done, unsigned n) { memcpy(dst + done, node->m_read + skip, n); });
}

int msg_db_t::update(const signed char* src, unsigned len, unsigned offset) {
    const uint64_t total = length64();
    if (len == 0 || !src || static_cast<uint64_t>(offset) + len > total) {
        UTIL_LOG(LOG_ERROR, " msg_db_t::update dst = " << log_ptr(src) << ", len = " << len << ", offset = " << offset
                                                       << ", db_len = " << total << ", this = " << log_ptr(this));
        return RESULT_INVALID_ARG;
    }
    return walk_readable(
        this, len, offset, [](msg_db_t* node) { return node->is_write_locked(); },
        [&](msg_db_t* node, unsigned skip, unsigned done, unsigned n) {
            memmove(node->m_read + skip, src + done, n);
            node->m_block->touch();
        });
}

// ---- cursors -------------------------------------------------------------------------

int msg_db_t::move_reader_forward(unsigned distance) {
    unsigned remaining = distance;
    for (msg_db_t* node = this; node; node = node->m_next) {
        const unsigned avail = node->get_current_db_length();
        if (avail >= remaining) {
            node->m_read += remaining;
            return RESULT_SUCCESS;
        }
        node->m_read = node->m_write;
        remaining -= avail;
    }
    UTIL_LOG(LOG_WARNING, "msg_db_t::move_reader_forward the distance["
                              << distance
                              << "] is out of limitation, and the reader cursor move to the end of db, totallen = "
                              << (distance - remaining) << ", this = " << log_ptr(this));
    return RESULT_OUT_OF_LIMIT;
}

int msg_db_t::move_reader_backward(unsigned distance) {
    msg_db_t* node = this;
    while (node->m_read == node->m_write && node->m_next)
        node = node->m_next;
    unsigned remaining = distance;
    for (;; node = node->m_prev) {
        const unsigned behind = distance_of(node->m_base, node->m_read);
        if (behind >= remaining) {
            node->m_read -= remaining;
            return RESULT_SUCCESS;
        }
        node->m_read = node->m_base;
        remaining -= behind;
        // The walk covers this node and the ones after it, never a node
        // before this one.
        if (node == this)
            break;
    }
    UTIL_LOG(LOG_WARNING,
             "msg_db_t::move__reader_backword the distance["
                 << distance
                 << "] is out of limitation, and the reader cursor move to the begin of db, this = " << log_ptr(this));
    return RESULT_OUT_OF_LIMIT;
}

int msg_db_t::move_write_forward(unsigned distance) {
    unsigned remaining = distance;
    for (msg_db_t* node = this; node; node = node->m_next) {
        const unsigned room = node->space_i();
        if (room >= remaining) {
            node->m_write += remaining;
            if (remaining)
                node->m_block->touch();
            return RESULT_SUCCESS;
        }
        if (room) {
            node->m_write += room;
            node->m_block->touch();
        }
        remaining -= room;
    }
    UTIL_LOG(LOG_WARNING,
             "msg_db_t::move_write_forward the distance["
                 << distance
                 << "] is out of limitation, and the writer cursor move to the end of db, this = " << log_ptr(this));
    return RESULT_OUT_OF_LIMIT;
}

// ---- split and copies -----------------------------------------------------------------

msg_db_t* msg_db_t::copy_node(bool deep) const {
    const unsigned used = distance_of(m_base, m_write);
    msg_db_t* node;
    if (deep) {
        node = make_with_block(m_block->m_capacity, m_base, used, m_flags & ~MSG_FLAG_WITHOUT_COPY, m_allocator);
        if (!node)
            return nullptr;
        node->m_flags = m_flags & ~MSG_FLAG_WITHOUT_COPY;
    } else {
        m_block->increment();
        node = make_node(m_allocator, m_block, m_flags);
        if (!node)
            return nullptr;
        node->m_base = m_base;
    }
    node->m_read = node->m_base + distance_of(m_base, m_read);
    node->m_write = node->m_base + used;
    return node;
}

msg_db_t* msg_db_t::split(unsigned len) {
    if (len == 0)
        return nullptr;
    // Every duplicate is made before any cursor moves, so a refusal or a
    // failure leaves this chain as it was. Only the nodes that give bytes
    // are walked; a request beyond the end is found by reaching it.
    msg_db_t* head = nullptr;
    msg_db_t* last = nullptr;
    unsigned remaining = len;
    for (const msg_db_t* node = this; node && remaining; node = node->m_next) {
        const unsigned avail = node->get_current_db_length();
        if (!avail)
            continue;
        if (node->is_read_locked()) {
            UTIL_LOG(LOG_ERROR, "msg_db_t::split the node is read locked, len = " << len << ", node = " << log_ptr(node)
                                                                                  << ", this = " << log_ptr(this));
            if (head)
                head->release();
            return nullptr;
        }
        msg_db_t* tmp_db = node->copy_node(false);
        if (!tmp_db) {
            UTIL_ASSERT_MSG("msg_db_t::split, tmp_db = " << log_ptr(tmp_db), SOURCE_PATH, __LINE__,
                            ", this = " << log_ptr(this));
            if (head)
                head->release();
            return nullptr;
        }
        const unsigned n = min_of(avail, remaining);
        tmp_db->m_write = tmp_db->m_read + n;
        tmp_db->m_flags &= ~(MSG_FLAG_READ_LOCKED | MSG_FLAG_WRITE_LOCKED);
        remaining -= n;
        if (last) {
            last->m_next = tmp_db;
            tmp_db->m_prev = last;
        } else {
            head = tmp_db;
        }
        last = tmp_db;
    }
    if (remaining) {
        if (head)
            head->release();
        log_split_too_long(this, len, len - remaining);
        return nullptr;
    }
    move_reader_forward(len);
    return head;
}

msg_db_t* msg_db_t::copy_chain(bool deep, bool reverse) const {
    msg_db_t* head = nullptr;
    msg_db_t* last = nullptr;
    for (const msg_db_t* node = this; node; node = node->m_next) {
        msg_db_t* fresh = node->copy_node(deep);
        if (!fresh) {
            if (head)
                head->release();
            return nullptr;
        }
        if (!head) {
            head = last = fresh;
        } else if (reverse) {
            fresh->m_next = head;
            head->m_prev = fresh;
            head = fresh;
        } else {
            last->m_next = fresh;
            fresh->m_prev = last;
            last = fresh;
        }
    }
    return head;
}

msg_db_t* msg_db_t::clone() const { return copy_chain(true, false); }

msg_db_t* msg_db_t::duplicate() const { return copy_chain(false, false); }

msg_db_t* msg_db_t::reversal() const { return copy_chain(false, true); }

// ---- CRC -----------------------------------------------------------------------------

unsigned msg_db_t::get_crc32_digest() const {
    unsigned int crc = 0;
    crc_32(&crc, reinterpret_cast<const unsigned char*>(m_read), get_current_db_length());
    return crc;
}

unsigned msg_db_t::get_chain_crc32_digest(unsigned crc) const {
    unsigned int value = crc;
    for (const msg_db_t* node = this; node; node = node->m_next)
        crc_32(&value, reinterpret_cast<const unsigned char*>(node->m_read), node->get_current_db_length());
    return value;
}

// ---- chains --------------------------------------------------------------------------

int msg_db_t::combine() {
    if (!m_next)
        return RESULT_SUCCESS;
    for (const msg_db_t* node = this; node; node = node->m_next) {
        if (node->is_read_locked())
            return RESULT_REFUSED;
    }
    const uint64_t total64 = length64();
    const uint64_t room64 = space64();
    if (total64 + room64 > MSG_DB_MAX_BLOCK_SIZE) {
        UTIL_LOG(LOG_ERROR, "msg_db_t::combine the size is out of limitation, len = "
                                << total64 << ", space = " << room64 << ", this = " << log_ptr(this));
        return RESULT_OUT_OF_LIMIT;
    }
    const unsigned total = static_cast<unsigned>(total64);
    const unsigned room = static_cast<unsigned>(room64);
    data_block_t* block = data_block_t::new_instance(total + room, nullptr, 0, MSG_FLAG_NONE, m_allocator);
    if (!block)
        return RESULT_FAILURE;
    signed char* out = block->begin();
    for (const msg_db_t* node = this; node; node = node->m_next) {
        const unsigned n = node->get_current_db_length();
        if (n)
            memcpy(out, node->m_read, n);
        out += n;
    }
    block->m_space = room;
    msg_db_t* rest = m_next;
    m_next = nullptr;
    rest->m_prev = nullptr;
    rest->release();
    m_block->release();
    m_block = block;
    m_base = block->begin();
    m_read = m_base;
    m_write = m_base + total;
    return RESULT_SUCCESS;
}

unsigned msg_db_t::compress() {
    unsigned released = 0;
    msg_db_t* node = m_next;
    while (node) {
        msg_db_t* next = node->m_next;
        if (node->m_read == node->m_write && node->space_i() == 0) {
            node->m_prev->m_next = next;
            if (next)
                next->m_prev = node->m_prev;
            free_node(node);
            ++released;
        }
        node = next;
    }
    return released;
}

namespace {

[[gnu::cold]] [[gnu::noinline]] void log_link_refused(const char* what, const void* other, const void* self) {
    if (!other)
        UTIL_ASSERT_MSG("msg_db_t::" << what << " db should be not NULL", SOURCE_PATH, __LINE__,
                        ", this = " << log_ptr(self));
    else
        UTIL_ASSERT_MSG("msg_db_t::" << what << " db should be the head of another chain", SOURCE_PATH, __LINE__,
                        ", db = " << log_ptr(other) << ", this = " << log_ptr(self));
}

}  // namespace

msg_db_t* msg_db_t::link_check(msg_db_t* other, const char* what, int* rv) const {
    *rv = RESULT_INVALID_ARG;
    if (!other) {
        log_link_refused(what, other, this);
        return nullptr;
    }
    // A head whose chain holds this node is this chain's own head: linking
    // it would close a loop. Only `other`'s chain is walked.
    bool own = other->m_prev != nullptr;
    msg_db_t* last = other;
    for (;; last = last->m_next) {
        own = own || last == this;
        if (!last->m_next)
            break;
    }
    if (own) {
        log_link_refused(what, other, this);
        return nullptr;
    }
    *rv = RESULT_SUCCESS;
    return last;
}

int msg_db_t::append(msg_db_t* other) {
    int rv;
    if (!link_check(other, "append", &rv))
        return rv;
    msg_db_t* last = tail();
    last->m_next = other;
    other->m_prev = last;
    return RESULT_SUCCESS;
}

int msg_db_t::insert_behind(msg_db_t* other) {
    int rv;
    msg_db_t* last = link_check(other, "insert_behind", &rv);
    if (!last)
        return rv;
    last->m_next = m_next;
    if (m_next)
        m_next->m_prev = last;
    m_next = other;
    other->m_prev = this;
    return RESULT_SUCCESS;
}

int msg_db_t::insert_before(msg_db_t* other) {
    int rv;
    msg_db_t* last = link_check(other, "insert_before", &rv);
    if (!last)
        return rv;
    other->m_prev = m_prev;
    if (m_prev)
        m_prev->m_next = other;
    last->m_next = this;
    m_prev = last;
    return RESULT_SUCCESS;
}

msg_db_t* msg_db_t::reversal_self() {
    msg_db_t* before = m_prev;
    msg_db_t* first = this;
    for (msg_db_t* node = this; node;) {
        msg_db_t* next = node->m_next;
        node->m_next = node->m_prev;
        node->m_prev = next;
        first = node;
        node = next;
    }
    m_next = nullptr;
    first->m_prev = before;
    if (before)
        before->m_next = first;
    return first;
}

bool msg_db_t::is_duplicate(const msg_db_t* other) const {
    const msg_db_t* a = this;
    const msg_db_t* b = other;
    for (; a && b; a = a->m_next, b = b->m_next) {
        if (a->m_block != b->m_block || a->m_base != b->m_base || a->m_read != b->m_read || a->m_write != b->m_write)
            return false;
    }
    return other && !a && !b;
}

bool msg_db_t::is_clone(const msg_db_t* other) const {
    const msg_db_t* a = this;
    const msg_db_t* b = other;
    for (; a && b; a = a->m_next, b = b->m_next) {
        const unsigned n = a->get_current_db_length();
        if (n != b->get_current_db_length())
            return false;
        if (n && (a->m_read == b->m_read || memcmp(a->m_read, b->m_read, n) != 0))
            return false;
        if (a->m_block == b->m_block)
            return false;
    }
    return other && !a && !b;
}

bool msg_db_t::is_copy(const msg_db_t* other) const {
    if (!other)
        return false;
    const msg_db_t* a = this;
    const msg_db_t* b = other;
    unsigned a_off = 0;
    unsigned b_off = 0;
    for (;;) {
        while (a && a_off == a->get_current_db_length()) {
            a = a->m_next;
            a_off = 0;
        }
        while (b && b_off == b->get_current_db_length()) {
            b = b->m_next;
            b_off = 0;
        }
        if (!a || !b)
            return !a && !b;
        const unsigned n = min_of(a->get_current_db_length() - a_off, b->get_current_db_length() - b_off);
        if (memcmp(a->m_read + a_off, b->m_read + b_off, n) != 0)
            return false;
        a_off += n;
        b_off += n;
    }
}

bool msg_db_t::is_shared() const {
    for (const msg_db_t* node = this; node; node = node->m_next) {
        if (node->m_block->get_count() > 1)
            return true;
    }
    return false;
}

void msg_db_t::reset() {
    for (msg_db_t* node = this; node; node = node->m_next) {
        node->m_read = node->m_base;
        node->m_write = node->m_base;
        node->m_flags &= ~(MSG_FLAG_READ_LOCKED | MSG_FLAG_WRITE_LOCKED);
    }
}

int msg_db_t::iov_refused(unsigned count) const {
    UTIL_ASSERT_LINE(SOURCE_PATH, __LINE__, ", count = " << count << ", this = " << log_ptr(this));
    return RESULT_INVALID_ARG;
}

// ---- stream output ------------------------------------------------------------------

text_stream_t& text_stream_t::operator<<(const msg_db_t& db) {
    const uint32_t radix = m_radix;
    m_radix = ORDIX_HEX;
    bool full = false;
    for (const msg_db_t* node = &db; node && !full; node = node->next()) {
        const signed char* p = node->get_reader_cursor();
        for (const signed char* end = node->get_writer_cursor(); p != end; ++p) {
            *this << static_cast<unsigned char>(*p);
            if (!m_good) {
                full = true;
                break;
            }
        }
    }
    m_radix = radix;
    return *this;
}

}  // namespace ssb

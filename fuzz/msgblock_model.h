// A plain byte-vector model of message data chains, and a driver that runs a
// byte string as a sequence of chain operations on real chains and on the
// model side by side, checking every result, count and byte. Shared by the
// libFuzzer target and the unit tests.
#ifndef UTIL_MSGBLOCK_MODEL_H
#define UTIL_MSGBLOCK_MODEL_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "alloc.h"
#include "msgblock.h"
#include "stream.h"

namespace msgblock_model {

// Fills fresh memory with one pattern (so room that was never written is
// known to the model), keeps the size in front of each block to check the
// size passed back, and counts what is live.
class pattern_allocator_t : public ssb::i8_allocator_it {
public:
    static constexpr unsigned char PATTERN = 0xA5;
    signed char* allocate(unsigned count) override {
        unsigned char* p = static_cast<unsigned char*>(malloc(static_cast<size_t>(count) + 16));
        if (!p)
            return nullptr;
        memcpy(p, &count, sizeof(count));
        memset(p + 16, PATTERN, count);
        ++m_live;
        return reinterpret_cast<signed char*>(p + 16);
    }
    void deallocate(signed char* block, unsigned count) override {
        if (!block)
            return;
        unsigned char* p = reinterpret_cast<unsigned char*>(block) - 16;
        unsigned stored;
        memcpy(&stored, p, sizeof(stored));
        if (stored != count)
            abort();
        --m_live;
        free(p);
    }
    long live() const { return m_live; }

private:
    long m_live = 0;
};

// memcpy and memcmp must not see a null pointer, which an empty vector gives.
inline void copy_bytes(void* to, const void* from, size_t n) {
    if (n)
        memmove(to, from, n);
}
inline bool same_bytes(const void* a, const void* b, size_t n) { return n == 0 || memcmp(a, b, n) == 0; }

// CRC-32 one bit at a time: independent of the library's table paths.
inline unsigned bitwise_crc32(unsigned crc, const unsigned char* p, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return crc;
}

struct block_t {
    std::vector<unsigned char> bytes;
};

struct node_t {
    std::shared_ptr<block_t> block;
    size_t base = 0;  // always 0: nodes view whole blocks
    size_t read = 0;
    size_t write = 0;
    bool rlock = false;
    bool wlock = false;
    size_t avail() const { return write - read; }
    size_t room() const { return block->bytes.size() - write; }
};

typedef std::vector<node_t> chain_t;

inline size_t length_of(const chain_t& c) {
    size_t n = 0;
    for (const node_t& x : c)
        n += x.avail();
    return n;
}
inline size_t space_of(const chain_t& c) {
    size_t n = 0;
    for (const node_t& x : c)
        n += x.room();
    return n;
}
inline size_t capacity_of(const chain_t& c) {
    size_t n = 0;
    for (const node_t& x : c)
        n += x.block->bytes.size();
    return n;
}
inline std::vector<unsigned char> bytes_of(const chain_t& c) {
    std::vector<unsigned char> out;
    for (const node_t& x : c)
        out.insert(out.end(), x.block->bytes.begin() + x.read, x.block->bytes.begin() + x.write);
    return out;
}

// Reads the input a byte (or a few) at a time; zeros past the end.
class input_t {
public:
    input_t(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool done() const { return m_pos >= m_size; }
    uint8_t u8() { return m_pos < m_size ? m_data[m_pos++] : 0; }
    unsigned u16() { return u8() | (static_cast<unsigned>(u8()) << 8); }
    // Mostly small values, sometimes near the 32-bit edge.
    unsigned size() {
        const uint8_t kind = u8();
        if (kind < 200)
            return u8() % 48;
        if (kind < 250)
            return u16() % 300;
        return 0xFFFFFFFFu - (u8() % 4);
    }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

const int SLOTS = 4;
// Copies and links could double a chain on every step; beyond this many
// nodes they are skipped.
const size_t MAX_NODES = 96;
// Combining duplicates of one block multiplies its size; larger combines and
// deep copies are skipped too.
const size_t MAX_BYTES = 1 << 16;

class driver_t {
public:
    driver_t() {
        for (int i = 0; i < SLOTS; ++i)
            m_real[i] = nullptr;
    }
    ~driver_t() {
        for (int i = 0; i < SLOTS; ++i)
            ssb::msg_db_t::release(m_real[i]);
        if (m_alloc.live() != 0)
            fail("memory left after releasing every chain");
    }

    // Runs the whole input; returns a description of the first mismatch, or
    // an empty string.
    std::string run(const uint8_t* data, size_t size) {
        input_t in(data, size);
        while (!in.done() && m_error.empty())
            step(in);
        return m_error;
    }

private:
    void fail(const std::string& what) {
        if (m_error.empty())
            m_error = what + " (step " + std::to_string(m_step) + ")";
    }
    void expect(bool ok, const char* what) {
        if (!ok)
            fail(what);
    }

    void check(int slot) {
        ssb::msg_db_t* head = m_real[slot];
        const chain_t& model = m_model[slot];
        if (!head) {
            expect(model.empty(), "empty slot has a model");
            return;
        }
        expect(head->prev() == nullptr, "head has a previous node");
        expect(head->node_size() == model.size(), "node_size");
        expect(head->length() == length_of(model), "length");
        expect(head->space() == space_of(model), "space");
        const ssb::msg_db_t* node = head;
        const ssb::msg_db_t* before = nullptr;
        for (const node_t& m : model) {
            if (!node) {
                fail("chain shorter than model");
                return;
            }
            expect(node->prev() == before, "prev link");
            expect(node->get_data_block()->capacity() == m.block->bytes.size(), "capacity");
            expect(node->get_base() == node->get_data_block()->begin(), "base");
            expect(static_cast<size_t>(node->get_reader_cursor() - node->get_base()) == m.read, "read cursor");
            expect(static_cast<size_t>(node->get_writer_cursor() - node->get_base()) == m.write, "write cursor");
            expect(node->is_read_locked() == m.rlock && node->is_write_locked() == m.wlock, "lock bits");
            // Every byte the node can see, room included.
            expect(same_bytes(node->get_base(), m.block->bytes.data(), m.block->bytes.size()), "block bytes");
            before = node;
            node = node->next();
        }
        expect(node == nullptr, "chain longer than model");
    }

    // Index of a node of a chain picked by the input.
    static size_t pick(input_t& in, const chain_t& c) { return c.empty() ? 0 : in.u8() % c.size(); }
    ssb::msg_db_t* node_at(int slot, size_t index) {
        ssb::msg_db_t* n = m_real[slot];
        while (n && index--)
            n = n->next();
        return n;
    }

    void put(int slot, ssb::msg_db_t* head, const chain_t& model) {
        ssb::msg_db_t::release(m_real[slot]);
        m_real[slot] = head;
        m_model[slot] = head ? model : chain_t();
    }

    void step(input_t& in) {
        ++m_step;
        const uint8_t op = in.u8() % 24;
        const int a = in.u8() % SLOTS;
        const int b = (a + 1 + in.u8() % (SLOTS - 1)) % SLOTS;
        if (op != 0 && !m_real[a]) {
            make(a, in);
            check(a);
            return;
        }
        switch (op) {
        case 0:
            make(a, in);
            break;
        case 1:
            do_write(a, in);
            break;
        case 2:
            do_read(a, in);
            break;
        case 3:
            do_peek_update(a, in);
            break;
        case 4:
            do_moves(a, in);
            break;
        case 5:
            do_split(a, b, in);
            break;
        case 6:
            do_copy(a, b, in);
            break;
        case 7:
            do_combine(a);
            break;
        case 8:
            do_compress(a);
            break;
        case 9:
        case 10:
            do_link(a, b, in, op == 9 ? 0 : in.u8() % 3);
            break;
        case 11:
            do_reverse(a);
            break;
        case 12:
            do_locks(a, in);
            break;
        case 13:
            do_iov(a, in);
            break;
        case 14:
            do_crc(a);
            break;
        case 15:
            do_compare(a, b);
            break;
        case 16:
            do_reset(a);
            break;
        case 17:
            put(a, nullptr, chain_t());
            break;
        case 18:
            do_chain_transfer(a, b, in);
            break;
        case 19:
            do_stream(a, in);
            break;
        default:
            // Writes and reads are the common traffic.
            if (op & 1)
                do_write(a, in);
            else
                do_read(a, in);
            break;
        }
        check(a);
        check(b);
    }

    void make(int slot, input_t& in) {
        const unsigned size = in.u8() % 40;
        const unsigned len = size ? in.u8() % (size + 1) : 0;
        const bool without_copy = (in.u8() & 1) != 0;
        unsigned char* buffer = nullptr;
        if (without_copy) {
            m_buffers.emplace_back(new unsigned char[size ? size : 1]);
            buffer = m_buffers.back().get();
        } else {
            m_scratch.assign(size ? size : 1, 0);
            buffer = m_scratch.data();
        }
        for (unsigned i = 0; i < size; ++i)
            buffer[i] = static_cast<unsigned char>(m_step * 31 + i);
        ssb::msg_db_t* db =
            ssb::msg_db_t::new_instance(size, reinterpret_cast<signed char*>(buffer), len,
                                        without_copy ? ssb::MSG_FLAG_WITHOUT_COPY : ssb::MSG_FLAG_NONE, &m_alloc);
        if (!db) {
            fail("new_instance failed");
            return;
        }
        node_t n;
        n.block = std::make_shared<block_t>();
        n.block->bytes.assign(size, pattern_allocator_t::PATTERN);
        if (without_copy)
            copy_bytes(n.block->bytes.data(), buffer, size);
        else
            copy_bytes(n.block->bytes.data(), buffer, len);
        n.write = len;
        chain_t c(1, n);
        // A fresh chain is appended to what the slot holds, or takes it.
        if (m_real[slot] && (in.u8() & 1) && m_model[slot].size() < MAX_NODES) {
            expect(m_real[slot]->append(db) == ssb::RESULT_SUCCESS, "append fresh");
            m_model[slot].push_back(n);
        } else {
            put(slot, db, c);
        }
    }

    // The room of the model from node `from` on, as _write fills it.
    static int model_write(chain_t& c, size_t from, const unsigned char* src, size_t len, size_t& done) {
        done = 0;
        for (size_t i = from; i < c.size() && done < len; ++i) {
            if (c[i].wlock)
                return ssb::RESULT_REFUSED;
            const size_t n = std::min(c[i].room(), len - done);
            copy_bytes(c[i].block->bytes.data() + c[i].write, src + done, n);
            c[i].write += n;
            done += n;
        }
        return done < len ? ssb::RESULT_NOT_ENOUGH : ssb::RESULT_SUCCESS;
    }

    static int model_read(chain_t& c, std::vector<unsigned char>* out, size_t len, bool move, size_t& done) {
        done = 0;
        for (size_t i = 0; i < c.size() && done < len; ++i) {
            if (c[i].rlock)
                return ssb::RESULT_REFUSED;
            const size_t n = std::min(c[i].avail(), len - done);
            if (out)
                out->insert(out->end(), c[i].block->bytes.begin() + c[i].read,
                            c[i].block->bytes.begin() + c[i].read + n);
            if (move)
                c[i].read += n;
            done += n;
        }
        return done < len ? ssb::RESULT_NOT_ENOUGH : ssb::RESULT_SUCCESS;
    }

    void do_write(int slot, input_t& in) {
        const unsigned len = in.size() % 512;
        std::vector<unsigned char> src(len + 1);
        for (unsigned i = 0; i < len; ++i)
            src[i] = in.u8();
        unsigned done = 12345;
        const int rv = m_real[slot]->_write(reinterpret_cast<signed char*>(src.data()), len, &done);
        size_t mdone = 0;
        const int mrv = model_write(m_model[slot], 0, src.data(), len, mdone);
        expect(rv == mrv, "_write result");
        expect(done == mdone, "_write done");
    }

    void do_read(int slot, input_t& in) {
        const unsigned len = in.size() % 512;
        const uint8_t mode = in.u8() % 3;  // 0 copy, 1 copy and move, 2 skip
        std::vector<unsigned char> dst(len + 1);
        unsigned done = 12345;
        const int rv = m_real[slot]->_read(mode == 2 ? nullptr : reinterpret_cast<signed char*>(dst.data()), len, &done,
                                           mode != 0);
        std::vector<unsigned char> expected;
        size_t mdone = 0;
        const int mrv = model_read(m_model[slot], &expected, len, mode != 0, mdone);
        expect(rv == mrv, "_read result");
        expect(done == mdone, "_read done");
        if (mode != 2)
            expect(same_bytes(dst.data(), expected.data(), mdone), "_read bytes");
    }

    void do_peek_update(int slot, input_t& in) {
        const unsigned len = in.size();
        const unsigned offset = in.size();
        const bool is_update = (in.u8() & 1) != 0;
        chain_t& c = m_model[slot];
        const size_t total = length_of(c);
        int mrv = ssb::RESULT_SUCCESS;
        if (len == 0 || static_cast<uint64_t>(offset) + len > total)
            mrv = ssb::RESULT_INVALID_ARG;
        std::vector<unsigned char> buf(mrv == ssb::RESULT_SUCCESS ? len : 1);
        for (size_t i = 0; i < buf.size(); ++i)
            buf[i] = static_cast<unsigned char>(in.u8() ^ 0x5A);
        std::vector<unsigned char> before = buf;
        if (mrv == ssb::RESULT_SUCCESS) {
            // Walk the model like the chain: skip `offset`, then touch the
            // nodes that hold the range; a locked one ends the call.
            size_t skip = offset, done = 0;
            for (size_t i = 0; i < c.size() && done < len; ++i) {
                const size_t avail = c[i].avail();
                if (skip >= avail) {
                    skip -= avail;
                    continue;
                }
                if (is_update ? c[i].wlock : c[i].rlock) {
                    mrv = ssb::RESULT_REFUSED;
                    break;
                }
                const size_t n = std::min(avail - skip, len - done);
                unsigned char* at = c[i].block->bytes.data() + c[i].read + skip;
                if (is_update)
                    copy_bytes(at, before.data() + done, n);
                else
                    copy_bytes(before.data() + done, at, n);
                done += n;
                skip = 0;
            }
        }
        const int rv = is_update ? m_real[slot]->update(reinterpret_cast<signed char*>(buf.data()), len, offset)
                                 : m_real[slot]->peek(reinterpret_cast<signed char*>(buf.data()), len, offset);
        expect(rv == mrv, is_update ? "update result" : "peek result");
        if (!is_update && rv == ssb::RESULT_SUCCESS)
            expect(buf == before, "peek bytes");
    }

    void do_moves(int slot, input_t& in) {
        const uint8_t which = in.u8() % 3;
        const unsigned d = in.size();
        chain_t& c = m_model[slot];
        int mrv = ssb::RESULT_OUT_OF_LIMIT;
        size_t left = d;
        if (which == 0) {
            for (size_t i = 0; i < c.size(); ++i) {
                if (c[i].avail() >= left) {
                    c[i].read += left;
                    mrv = ssb::RESULT_SUCCESS;
                    break;
                }
                left -= c[i].avail();
                c[i].read = c[i].write;
            }
            expect(m_real[slot]->move_reader_forward(d) == mrv, "move_reader_forward");
        } else if (which == 1) {
            size_t i = 0;
            while (c[i].read == c[i].write && i + 1 < c.size())
                ++i;
            for (;; --i) {
                if (c[i].read >= left) {
                    c[i].read -= left;
                    mrv = ssb::RESULT_SUCCESS;
                    break;
                }
                left -= c[i].read;
                c[i].read = 0;
                if (i == 0)
                    break;
            }
            expect(m_real[slot]->move_reader_backward(d) == mrv, "move_reader_backward");
        } else {
            for (size_t i = 0; i < c.size(); ++i) {
                if (c[i].room() >= left) {
                    c[i].write += left;
                    mrv = ssb::RESULT_SUCCESS;
                    break;
                }
                left -= c[i].room();
                c[i].write = c[i].block->bytes.size();
            }
            expect(m_real[slot]->move_write_forward(d) == mrv, "move_write_forward");
        }
    }

    void do_split(int slot, int to, input_t& in) {
        chain_t& c = m_model[slot];
        const size_t total = length_of(c);
        const unsigned len = (in.u8() & 3) == 0 ? in.size() : static_cast<unsigned>(total ? in.u16() % (total + 1) : 0);
        bool locked = false;
        chain_t out;
        size_t left = len;
        if (len != 0 && len <= total) {
            for (size_t i = 0; i < c.size() && left; ++i) {
                if (!c[i].avail())
                    continue;
                if (c[i].rlock) {
                    locked = true;
                    break;
                }
                node_t n = c[i];
                const size_t k = std::min(n.avail(), left);
                n.write = n.read + k;
                n.rlock = n.wlock = false;
                out.push_back(n);
                left -= k;
            }
        }
        ssb::msg_db_t* got = m_real[slot]->split(len);
        if (len == 0 || len > total || locked) {
            expect(got == nullptr, "split refused");
            return;
        }
        expect(got != nullptr, "split result");
        left = len;
        for (size_t i = 0; i < c.size() && left; ++i) {
            const size_t k = std::min(c[i].avail(), left);
            c[i].read += k;
            left -= k;
        }
        put(to, got, out);
    }

    void do_copy(int slot, int to, input_t& in) {
        const uint8_t which = in.u8() % 3;
        const chain_t& c = m_model[slot];
        chain_t out;
        ssb::msg_db_t* got = nullptr;
        if (which == 0) {
            if (capacity_of(c) > MAX_BYTES)
                return;
            got = m_real[slot]->clone();
            for (const node_t& x : c) {
                node_t n = x;
                n.block = std::make_shared<block_t>();
                n.block->bytes.assign(x.block->bytes.size(), pattern_allocator_t::PATTERN);
                copy_bytes(n.block->bytes.data(), x.block->bytes.data(), x.write);
                out.push_back(n);
            }
            if (got)
                expect(got->is_clone(m_real[slot]) && !got->is_shared(), "clone relation");
        } else {
            got = which == 1 ? m_real[slot]->duplicate() : m_real[slot]->reversal();
            out = c;
            if (which == 2)
                out.assign(c.rbegin(), c.rend());
            if (got && which == 1)
                expect(got->is_duplicate(m_real[slot]) && got->is_shared(), "duplicate relation");
        }
        expect(got != nullptr, "copy result");
        if (got) {
            if (which != 2)
                expect(got->is_copy(m_real[slot]), "copy bytes");
            put(to, got, out);
        }
    }

    void do_combine(int slot) {
        chain_t& c = m_model[slot];
        if (length_of(c) + space_of(c) > MAX_BYTES)
            return;
        int mrv = ssb::RESULT_SUCCESS;
        if (c.size() > 1) {
            for (const node_t& x : c) {
                if (x.rlock)
                    mrv = ssb::RESULT_REFUSED;
            }
        }
        const int rv = m_real[slot]->combine();
        expect(rv == mrv, "combine result");
        if (c.size() > 1 && mrv == ssb::RESULT_SUCCESS) {
            node_t n;
            n.block = std::make_shared<block_t>();
            std::vector<unsigned char> bytes = bytes_of(c);
            const size_t room = space_of(c);
            n.block->bytes = bytes;
            n.block->bytes.resize(bytes.size() + room, pattern_allocator_t::PATTERN);
            n.write = bytes.size();
            n.rlock = c[0].rlock;
            n.wlock = c[0].wlock;
            c.assign(1, n);
        }
    }

    void do_compress(int slot) {
        chain_t& c = m_model[slot];
        unsigned dropped = 0;
        for (size_t i = 1; i < c.size();) {
            if (c[i].avail() == 0 && c[i].room() == 0) {
                c.erase(c.begin() + static_cast<long>(i));
                ++dropped;
            } else {
                ++i;
            }
        }
        expect(m_real[slot]->compress() == dropped, "compress count");
    }

    void do_link(int slot, int other, input_t& in, int how) {
        if (m_model[slot].size() + m_model[other].size() > MAX_NODES)
            return;
        if (!m_real[other]) {
            // Linking a chain to itself is refused.
            expect(m_real[slot]->append(m_real[slot]) == ssb::RESULT_INVALID_ARG, "self append");
            ssb::msg_db_t* mid = m_real[slot]->next();
            if (mid)
                expect(m_real[slot]->insert_behind(mid) == ssb::RESULT_INVALID_ARG, "non-head insert");
            return;
        }
        chain_t& c = m_model[slot];
        const size_t at = pick(in, c);
        ssb::msg_db_t* node = node_at(slot, at);
        int rv;
        chain_t& o = m_model[other];
        if (how == 0) {
            rv = node->append(m_real[other]);
            c.insert(c.end(), o.begin(), o.end());
        } else if (how == 1) {
            rv = node->insert_behind(m_real[other]);
            c.insert(c.begin() + static_cast<long>(at) + 1, o.begin(), o.end());
        } else {
            rv = node->insert_before(m_real[other]);
            c.insert(c.begin() + static_cast<long>(at), o.begin(), o.end());
            if (at == 0)
                m_real[slot] = m_real[other];
        }
        expect(rv == ssb::RESULT_SUCCESS, "link result");
        m_real[other] = nullptr;
        o.clear();
    }

    void do_reverse(int slot) {
        m_real[slot] = m_real[slot]->reversal_self();
        std::reverse(m_model[slot].begin(), m_model[slot].end());
    }

    void do_locks(int slot, input_t& in) {
        const size_t at = pick(in, m_model[slot]);
        node_t& m = m_model[slot][at];
        ssb::msg_db_t* node = node_at(slot, at);
        switch (in.u8() % 4) {
        case 0:
            node->lock_read();
            m.rlock = true;
            break;
        case 1:
            node->lock_write();
            m.wlock = true;
            break;
        case 2:
            node->unlock_read();
            m.rlock = false;
            break;
        default:
            node->unlock_write();
            m.wlock = false;
            break;
        }
    }

    struct posix_iov_t {
        void* iov_base;
        size_t iov_len;
    };

    void do_iov(int slot, input_t& in) {
        const unsigned count = in.u8() % 6;
        posix_iov_t iov[6];
        unsigned filled = 99;
        const int rv = m_real[slot]->fill_iov(iov, count, &filled);
        const chain_t& c = m_model[slot];
        int mrv = ssb::RESULT_SUCCESS;
        unsigned n = 0;
        for (const node_t& x : c) {
            if (x.rlock) {
                mrv = ssb::RESULT_REFUSED;
                break;
            }
            if (!x.avail())
                continue;
            if (n == count) {
                mrv = ssb::RESULT_NOT_ENOUGH;
                break;
            }
            if (n < filled && (iov[n].iov_len != x.avail() ||
                               !same_bytes(iov[n].iov_base, x.block->bytes.data() + x.read, x.avail())))
                fail("fill_iov piece");
            ++n;
        }
        expect(rv == mrv, "fill_iov result");
        expect(filled == n, "fill_iov count");
    }

    void do_crc(int slot) {
        const chain_t& c = m_model[slot];
        const node_t& first = c[0];
        expect(
            m_real[slot]->get_crc32_digest() == bitwise_crc32(0, first.block->bytes.data() + first.read, first.avail()),
            "node crc");
        const std::vector<unsigned char> all = bytes_of(c);
        expect(m_real[slot]->get_chain_crc32_digest(0xFFFFFFFFu) == bitwise_crc32(0xFFFFFFFFu, all.data(), all.size()),
               "chain crc");
    }

    void do_compare(int slot, int other) {
        if (!m_real[other])
            return;
        expect(m_real[slot]->is_copy(m_real[other]) == (bytes_of(m_model[slot]) == bytes_of(m_model[other])),
               "is_copy");
        expect(m_real[slot]->is_copy(m_real[slot]), "is_copy of itself");
        expect(m_real[slot]->is_duplicate(m_real[slot]), "is_duplicate of itself");
        expect(!m_real[slot]->is_clone(m_real[slot]), "is_clone of itself");
    }

    void do_reset(int slot) {
        for (node_t& x : m_model[slot]) {
            x.read = x.write = 0;
            x.rlock = x.wlock = false;
        }
        m_real[slot]->reset();
    }

    void do_chain_transfer(int slot, int other, input_t& in) {
        if (!m_real[other])
            return;
        const unsigned len = in.size() % 128;
        const bool read_form = (in.u8() & 1) != 0;
        const bool move = (in.u8() & 1) != 0;
        chain_t& src = m_model[read_form ? slot : other];
        chain_t& dst = m_model[read_form ? other : slot];
        unsigned done = 777;
        int rv;
        if (read_form)
            rv = m_real[slot]->_read(m_real[other], len, &done, move);
        else
            rv = m_real[slot]->_write(m_real[other], len, &done);
        const bool refused = read_form ? space_of(dst) < len : length_of(src) < len;
        if (refused) {
            expect(rv == ssb::RESULT_INVALID_ARG && done == 0, "chain transfer refused");
            return;
        }
        // Piece by piece from the source into the destination's room.
        size_t copied = 0;
        int mrv = ssb::RESULT_SUCCESS;
        size_t at = 0;
        for (size_t i = 0; i < src.size() && copied < len; ++i) {
            if (src[i].rlock) {
                mrv = ssb::RESULT_REFUSED;
                break;
            }
            const size_t n = std::min(src[i].avail(), len - copied);
            if (!n)
                continue;
            // Straight from the live bytes, destination node by node, as the
            // chain does: blocks may be shared by source and destination.
            size_t w = 0;
            mrv = model_write(dst, at, src[i].block->bytes.data() + src[i].read, n, w);
            while (at + 1 < dst.size() && dst[at].room() == 0 && !dst[at].wlock)
                ++at;
            if (read_form && move)
                src[i].read += w;
            copied += w;
            if (mrv != ssb::RESULT_SUCCESS)
                break;
        }
        if (mrv == ssb::RESULT_SUCCESS && copied < len)
            mrv = ssb::RESULT_NOT_ENOUGH;
        expect(rv == mrv, "chain transfer result");
        expect(done == copied, "chain transfer done");
    }

    void do_stream(int slot, input_t& in) {
        const unsigned size = 1 + in.u8() % 64;
        std::vector<signed char> buf(size);
        ssb::text_stream_t s(buf.data(), size);
        s << *m_real[slot] << 7u;
        // Two digits per byte while 3 characters are free, then the number
        // in decimal (the radix restored) if 12 are free.
        std::string expected;
        const char* digits = "0123456789ABCDEF";
        unsigned remaining = size - 1;
        for (unsigned char ch : bytes_of(m_model[slot])) {
            if (remaining < 3)
                break;
            expected += digits[ch >> 4];
            expected += digits[ch & 15];
            remaining -= 2;
        }
        if (remaining >= 12)
            expected += "7";
        expect(std::string(reinterpret_cast<char*>(buf.data())) == expected, "stream text");
    }

    pattern_allocator_t m_alloc;
    ssb::msg_db_t* m_real[SLOTS];
    chain_t m_model[SLOTS];
    std::vector<std::unique_ptr<unsigned char[]>> m_buffers;
    std::vector<unsigned char> m_scratch;
    std::string m_error;
    unsigned m_step = 0;
};

}  // namespace msgblock_model

#endif

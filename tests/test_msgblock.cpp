#include <gtest/gtest.h>

#include <string.h>

#include <atomic>
#include <random>
#include <string>
#include <vector>

#include "../fuzz/msgblock_model.h"
#include "alloc.h"
#include "msgblock.h"
#include "stream.h"
#include "test_log_support.h"
#include "test_support.h"

using ssb::data_block_t;
using ssb::msg_db_t;

namespace {

// Keeps the size in front of each block to check the size passed back, and
// counts calls and live blocks; safe from any thread.
class counting_allocator_t : public ssb::i8_allocator_it {
public:
    signed char* allocate(unsigned count) override {
        unsigned* p = static_cast<unsigned*>(malloc(count + 16u));
        *p = count;
        ++m_allocations;
        ++m_live;
        return reinterpret_cast<signed char*>(p) + 16;
    }
    void deallocate(signed char* block, unsigned count) override {
        unsigned* p = reinterpret_cast<unsigned*>(block - 16);
        m_bad_frees += *p != count;
        --m_live;
        free(p);
    }
    std::atomic<int> m_allocations{0}, m_bad_frees{0}, m_live{0};
};

signed char* sc(const char* text) { return reinterpret_cast<signed char*>(const_cast<char*>(text)); }

std::string readable(const msg_db_t* db) {
    std::string out;
    for (const msg_db_t* n = db; n; n = n->next())
        out.append(reinterpret_cast<const char*>(n->get_reader_cursor()), n->get_current_db_length());
    return out;
}

// The member order of Windows' WSABUF: length first.
struct wsabuf_like_t {
    unsigned long len;
    char* buf;
};

// Bytes, result codes, cursors, lock bits, digests, links, combine, compress
// and the stream text are checked against the model on random operation
// sequences (the last test); the cases here pin log lines, the block layer,
// misuse, reference counts, costs and threads.
class MsgBlock : public ::testing::Test {
protected:
    void SetUp() override { util_test::capture_util_log(&m_log); }
    void TearDown() override {
        util_test::restore_log_routing();
        EXPECT_EQ(0, m_alloc.m_live.load()) << "blocks or nodes left unreleased";
        EXPECT_EQ(0, m_alloc.m_bad_frees.load()) << "a size passed back differs from the size asked for";
    }
    msg_db_t* make(unsigned size, const char* text) {
        return msg_db_t::new_instance(size, sc(text), static_cast<unsigned>(strlen(text)), ssb::MSG_FLAG_NONE,
                                      &m_alloc);
    }
    // Two 10-byte blocks holding 10 and 5 bytes.
    msg_db_t* ten_and_five() {
        msg_db_t* db = make(10, "0123456789");
        EXPECT_EQ(ssb::RESULT_SUCCESS, db->append(make(10, "abcde")));
        return db;
    }
    util_test::text_capture_t m_log;
    counting_allocator_t m_alloc;
};

TEST_F(MsgBlock, BlockWrapsTheBufferWithoutCopyAndCountsReferences) {
    char text[] = "hello";
    data_block_t* copy = data_block_t::new_instance(8, sc(text), 5, ssb::MSG_FLAG_NONE, &m_alloc);
    EXPECT_NE(reinterpret_cast<signed char*>(text), copy->begin());
    EXPECT_EQ(&m_alloc, copy->get_allocator());
    data_block_t* wrap = data_block_t::new_instance(6, sc(text), 5, ssb::MSG_FLAG_WITHOUT_COPY, &m_alloc);
    EXPECT_EQ(reinterpret_cast<signed char*>(text), wrap->begin());
    EXPECT_EQ(ssb::MSG_FLAG_WITHOUT_COPY, wrap->get_flags());
    EXPECT_EQ(wrap, wrap->duplicate());
    EXPECT_EQ(2u, wrap->get_count());
    wrap->release();
    EXPECT_EQ(1u, wrap->get_count());
    wrap->release();
    copy->release();
}

TEST_F(MsgBlock, BadBlockArgumentsLogAssertionsAndAreClampedOrRefused) {
    const struct {
        unsigned size;
        const char* buffer;
        unsigned len;
        ssb::MSG_FLAG flags;
        bool made;
        unsigned length;
        ssb::MSG_FLAG kept_flags;
    } cases[] = {
        {4, "abcdef", 6, ssb::MSG_FLAG_NONE, true, 4, ssb::MSG_FLAG_NONE},         // len above size: clamped
        {4, nullptr, 3, ssb::MSG_FLAG_NONE, true, 0, ssb::MSG_FLAG_NONE},          // null buffer with len
        {4, nullptr, 0, ssb::MSG_FLAG_WITHOUT_COPY, true, 0, ssb::MSG_FLAG_NONE},  // bit dropped
        {ssb::MSG_DB_MAX_BLOCK_SIZE + 1, nullptr, 0, ssb::MSG_FLAG_NONE, false, 0, 0},
        {0xFFFFFFFFu, nullptr, 0, ssb::MSG_FLAG_NONE, false, 0, 0},
    };
    for (const auto& c : cases) {
        m_log.clear();
        data_block_t* b =
            data_block_t::new_instance(c.size, c.buffer ? sc(c.buffer) : nullptr, c.len, c.flags, &m_alloc);
        EXPECT_TRUE(m_log.contains("assert: ")) << c.size;
        EXPECT_TRUE(m_log.contains("msgblock")) << c.size;
        ASSERT_EQ(c.made, b != nullptr) << c.size;
        if (!b)
            continue;
        EXPECT_EQ(c.length, b->length());
        EXPECT_EQ(c.kept_flags, b->get_flags());
        b->release();
    }
    // From the chain side: logged once, an empty node of its own memory.
    m_log.clear();
    msg_db_t* db = msg_db_t::new_instance(8, nullptr, 0, ssb::MSG_FLAG_WITHOUT_COPY, &m_alloc);
    ASSERT_NE(nullptr, db);
    EXPECT_TRUE(m_log.contains("assert: file[.\\msgblock], line = ["));
    EXPECT_EQ(8u, db->space());
    db->release();
    EXPECT_EQ(nullptr, msg_db_t::new_instance(static_cast<data_block_t*>(nullptr)));
}

TEST_F(MsgBlock, BlockCloneCopiesOrViewsAndLogsTheWithoutCopyArgument) {
    data_block_t* b = data_block_t::new_instance(8, sc("abc"), 3, ssb::MSG_FLAG_NONE, &m_alloc);
    data_block_t* deep = b->clone(false);
    data_block_t* view = b->clone(true);
    EXPECT_TRUE(m_log.contains("withoutcopy = "));
    EXPECT_NE(b->begin(), deep->begin());
    EXPECT_EQ(0, memcmp(deep->begin(), "abc", 3));
    EXPECT_EQ(b->space(), deep->space());
    EXPECT_EQ(b->begin(), view->begin());
    EXPECT_EQ(&m_alloc, deep->get_allocator());
    view->release();
    deep->release();
    b->release();
}

TEST_F(MsgBlock, CursorMovesPastTheEndLogTheirClampAndABackwardMoveKeepsToItsNode) {
    msg_db_t* db = ten_and_five();
    EXPECT_EQ(ssb::RESULT_OUT_OF_LIMIT, db->move_reader_forward(20));
    EXPECT_TRUE(m_log.contains("WARNING"));
    EXPECT_TRUE(
        m_log.contains("msg_db_t::move_reader_forward the distance[20] is out of limitation, and the reader "
                       "cursor move to the end of db, totallen = 15, this = 0x"));
    EXPECT_EQ(ssb::RESULT_SUCCESS, db->move_reader_backward(7));
    EXPECT_EQ(ssb::RESULT_OUT_OF_LIMIT, db->move_reader_backward(9));
    EXPECT_TRUE(
        m_log.contains("msg_db_t::move__reader_backword the distance[9] is out of limitation, and the reader "
                       "cursor move to the begin of db, this = 0x"));
    EXPECT_EQ(ssb::RESULT_SUCCESS, db->move_reader_forward(12));
    EXPECT_EQ(ssb::RESULT_OUT_OF_LIMIT, db->next()->move_reader_backward(3));
    EXPECT_EQ(0u, db->get_current_db_length()) << "the node before keeps its reader";
    EXPECT_EQ("abcde", readable(db->next()));
    EXPECT_EQ(ssb::RESULT_SUCCESS, db->move_write_forward(3));
    EXPECT_EQ(ssb::RESULT_OUT_OF_LIMIT, db->move_write_forward(0xFFFFFFFFu));
    EXPECT_TRUE(
        m_log.contains("msg_db_t::move_write_forward the distance[4294967295] is out of limitation, and the "
                       "writer cursor move to the end of db, this = 0x"));
    EXPECT_EQ(2u, db->next()->get_data_block()->get_latest_modified());
    db->release();
}

TEST_F(MsgBlock, SplitSharesEveryBlockAndLogsARefusal) {
    msg_db_t* db = ten_and_five();
    EXPECT_EQ(nullptr, db->split(16));
    EXPECT_TRUE(m_log.contains("assert: msg[msg_db_t::split, len = 16, total_len = 15] file[.\\msgblock], line = ["));
    msg_db_t* head = db->split(15);
    ASSERT_NE(nullptr, head);
    EXPECT_EQ(db->get_data_block(), head->get_data_block());
    EXPECT_EQ(db->next()->get_data_block(), head->next()->get_data_block());
    EXPECT_EQ(2u, db->get_data_block()->get_count());
    EXPECT_TRUE(head->is_shared());
    msg_db_t::release(head);
    EXPECT_EQ(nullptr, head);
    msg_db_t::release(head);
    EXPECT_EQ(1u, db->get_data_block()->get_count());
    EXPECT_FALSE(db->is_shared());
    db->release();
}

TEST_F(MsgBlock, NullArgumentsGiveTwoAndTheirLines) {
    msg_db_t* db = ten_and_five();
    unsigned done = 99;
    EXPECT_EQ(ssb::RESULT_INVALID_ARG, db->_write(static_cast<const signed char*>(nullptr), 3, &done));
    EXPECT_EQ(0u, done);
    EXPECT_EQ(ssb::RESULT_INVALID_ARG, db->_read(static_cast<signed char*>(nullptr), 3, &done, false));
    EXPECT_TRUE(m_log.contains("assert: file[.\\msgblock], line = ["));
    EXPECT_EQ(ssb::RESULT_SUCCESS, db->_read(static_cast<signed char*>(nullptr), 3, &done, true)) << "a skip";
    EXPECT_EQ(3u, done);
    EXPECT_EQ(ssb::RESULT_INVALID_ARG, db->_read(static_cast<msg_db_t*>(nullptr), 3, &done, true));
    EXPECT_TRUE(m_log.contains("assert: msg[msg_db_t::read dst_db should be not NULL]"));
    EXPECT_EQ(ssb::RESULT_INVALID_ARG, db->_write(static_cast<const msg_db_t*>(nullptr), 3, &done));
    EXPECT_TRUE(m_log.contains("assert: msg[msg_db_t::write src_db should be not NULL]"));
    EXPECT_EQ(ssb::RESULT_INVALID_ARG, db->peek(nullptr, 1, 0));
    EXPECT_EQ(ssb::RESULT_INVALID_ARG, db->update(nullptr, 1, 0));
    EXPECT_EQ(ssb::RESULT_INVALID_ARG, db->append(nullptr));
    EXPECT_EQ(ssb::RESULT_INVALID_ARG, db->insert_behind(nullptr));
    EXPECT_EQ(ssb::RESULT_INVALID_ARG, db->fill_iov(static_cast<wsabuf_like_t*>(nullptr), 2, &done));
    EXPECT_EQ(0u, done);
    db->release();
}

// The relations on random chains are the model's; here another chain of the
// same bytes, and null.
TEST_F(MsgBlock, CopyRelationsOfAnotherChainAndNull) {
    msg_db_t* db = ten_and_five();
    msg_db_t* other = make(20, "0123456789abcde");
    EXPECT_FALSE(db->is_duplicate(other) || db->is_clone(other));
    EXPECT_TRUE(db->is_copy(other));
    EXPECT_FALSE(db->is_duplicate(nullptr) || db->is_clone(nullptr) || db->is_copy(nullptr));
    other->release();
    db->release();
}

TEST_F(MsgBlock, RefusedChainTransfersLogWhatWasShort) {
    msg_db_t* src = ten_and_five();
    msg_db_t* dst = make(4, "");
    unsigned done = 0;
    EXPECT_EQ(ssb::RESULT_INVALID_ARG, src->_read(dst, 5, &done, true));
    EXPECT_TRUE(m_log.contains("assert: msg[msg_db_t::read dst_db should has enough space]"));
    EXPECT_EQ(ssb::RESULT_INVALID_ARG, dst->_write(src, 16, &done));
    EXPECT_TRUE(m_log.contains("assert: msg[msg_db_t::write src_db should has enough data]"));
    dst->release();
    src->release();
}

TEST_F(MsgBlock, PeekAndUpdateRefuseRangesThatWouldWrapAndLogThem) {
    msg_db_t* db = ten_and_five();
    char out[8] = {0};
    const unsigned bad[][2] = {{0, 0}, {1, 15}, {16, 0}, {2, 0xFFFFFFFFu}, {0xFFFFFFFFu, 2}};
    for (const auto& b : bad) {
        m_log.clear();
        EXPECT_EQ(ssb::RESULT_INVALID_ARG, db->peek(reinterpret_cast<signed char*>(out), b[0], b[1]));
        EXPECT_TRUE(m_log.contains("ERROR"));
        EXPECT_TRUE(m_log.contains(" msg_db_t::peek dst = 0x"));
        EXPECT_TRUE(m_log.contains(", len = " + std::to_string(b[0]) + ", offset = " + std::to_string(b[1]) +
                                   ", db_len = 15, this = 0x"));
        EXPECT_EQ(ssb::RESULT_INVALID_ARG, db->update(sc("ab"), b[0], b[1]));
        EXPECT_TRUE(m_log.contains(" msg_db_t::update dst = 0x"));
    }
    EXPECT_EQ("0123456789abcde", readable(db));
    db->release();
}

TEST_F(MsgBlock, LinkingRefusesWhatWouldBreakAChainAndReleaseFromTheMiddleCutsIt) {
    msg_db_t* db = make(2, "ab");
    ASSERT_EQ(ssb::RESULT_SUCCESS, db->append(make(2, "cd")));
    msg_db_t* front = make(2, "<<");
    ASSERT_EQ(ssb::RESULT_SUCCESS, db->insert_before(front));
    EXPECT_EQ(ssb::RESULT_INVALID_ARG, db->append(front)) << "already in this chain";
    EXPECT_EQ(ssb::RESULT_INVALID_ARG, front->append(db)) << "not a head";
    db->next()->release();
    EXPECT_EQ("<<ab", readable(front));
    front->release();

    // Sums past 32 bits saturate and a combine that cannot fit is refused;
    // the caller's byte is never touched (room only).
    static char one;
    msg_db_t* part[2];
    for (msg_db_t*& p : part)
        p = msg_db_t::new_instance(ssb::MSG_DB_MAX_BLOCK_SIZE, reinterpret_cast<signed char*>(&one), 0,
                                   ssb::MSG_FLAG_WITHOUT_COPY, &m_alloc);
    msg_db_t* huge = part[0];
    ASSERT_EQ(ssb::RESULT_SUCCESS, huge->append(part[1]));
    EXPECT_EQ(0xFFFFFFFFu, huge->space());
    EXPECT_EQ(ssb::RESULT_OUT_OF_LIMIT, huge->combine());
    EXPECT_TRUE(m_log.contains("msg_db_t::combine the size is out of limitation, len = 0, space = 8589803520"));
    EXPECT_EQ(2u, huge->node_size());
    huge->release();
}

TEST_F(MsgBlock, ReversalFromTheMiddleKeepsTheLinkBefore) {
    msg_db_t* db = make(1, "a");
    for (const char* t : {"b", "c", "d"})
        db->append(make(1, t));
    msg_db_t* second = db->next();
    msg_db_t* tail_first = second->reversal_self();
    EXPECT_EQ("adcb", readable(db));
    EXPECT_EQ(db, tail_first->prev());
    EXPECT_EQ(nullptr, second->next());
    db->release();
}

TEST_F(MsgBlock, FillIovTakesTheWsabufLayoutToo) {
    msg_db_t* db = make(4, "abcd");
    db->append(make(4, ""));
    db->append(make(4, "efg"));
    unsigned filled = 0;
    wsabuf_like_t wsa[2] = {};
    EXPECT_EQ(ssb::RESULT_SUCCESS, db->fill_iov(wsa, 2, &filled));
    ASSERT_EQ(2u, filled);
    EXPECT_EQ(reinterpret_cast<char*>(db->get_reader_cursor()), wsa[0].buf);
    EXPECT_EQ(4ul, wsa[0].len);
    EXPECT_EQ("efg", std::string(wsa[1].buf, wsa[1].len));
    db->release();
}

TEST_F(MsgBlock, TransfersAndIovFillingTakeNoMemory) {
    msg_db_t* db = msg_db_t::new_instance(1500, nullptr, 0, ssb::MSG_FLAG_NONE, &m_alloc);
    db->append(msg_db_t::new_instance(1500, nullptr, 0, ssb::MSG_FLAG_NONE, &m_alloc));
    std::vector<signed char> packet(2000, 7), out(2000);
    wsabuf_like_t iov[4] = {};
    unsigned done = 0;
    const int before = m_alloc.m_allocations.load();
    EXPECT_EQ(ssb::RESULT_SUCCESS, db->_write(packet.data(), 2000, &done));
    EXPECT_EQ(ssb::RESULT_SUCCESS, db->peek(out.data(), 100, 1450));
    EXPECT_EQ(ssb::RESULT_SUCCESS, db->update(packet.data(), 100, 1450));
    EXPECT_EQ(ssb::RESULT_SUCCESS, db->fill_iov(iov, 4, &done));
    EXPECT_EQ(ssb::RESULT_SUCCESS, db->_read(out.data(), 2000, &done, true));
    EXPECT_EQ(before, m_alloc.m_allocations.load());
    db->release();
}

TEST_F(MsgBlock, SharedBlocksReleasedFromTwoThreadsKeepExactCounts) {
    for (int round = 0; round < 2000 / util_test::ROUNDS_SCALE; ++round) {
        msg_db_t* db = ten_and_five();
        std::vector<msg_db_t*> copies[2];
        for (int i = 0; i < 8; ++i)
            copies[i & 1].push_back(i & 2 ? db->duplicate() : db->split(1));
        ASSERT_EQ(9u, db->get_data_block()->get_count());
        util_test::run_threads(2, [&](int t) {
            for (msg_db_t* c : copies[t])
                c->release();
        });
        ASSERT_EQ(1u, db->get_data_block()->get_count());
        ASSERT_EQ(1u, db->next()->get_data_block()->get_count());
        db->release();
    }
}

TEST(MsgBlockModel, RandomOperationSequencesMatchTheByteVectorModel) {
    util_test::text_capture_t quiet;
    util_test::capture_util_log(&quiet);
    std::mt19937 gen(20261123);
    for (int run = 0; run < 3000 / util_test::ROUNDS_SCALE; ++run) {
        std::vector<uint8_t> input(64 + gen() % 1500);
        for (auto& b : input)
            b = static_cast<uint8_t>(gen());
        std::string error;
        {
            msgblock_model::driver_t driver;
            error = driver.run(input.data(), input.size());
        }
        ASSERT_EQ("", error) << "run " << run;
        quiet.clear();
    }
    util_test::restore_log_routing();
}

}  // namespace

#include <gtest/gtest.h>

#include <string>

#include "memlog.h"
#include "test_support.h"

using namespace ssb;

namespace {

int SSB_STDCALL collect(void* context, signed char* text, unsigned int length) {
    static_cast<std::string*>(context)->assign(reinterpret_cast<char*>(text), length);
    return 77;
}

class MemLog : public ::testing::Test {
protected:
    void SetUp() override { mem_log_file::reset(true); }
    void TearDown() override { mem_log_file::reset(true); }
    static int add(mem_log_file* m, std::string text) {
        return m->cout(1, 3, reinterpret_cast<signed char*>(&text[0]), static_cast<unsigned int>(text.size()));
    }
    static std::string text_of(mem_log_file* m) {
        std::string out;
        EXPECT_EQ(77, m->dump(&out, collect));
        return out;
    }
};

TEST_F(MemLog, SizeIsClampedAndLaterSizesAreIgnored) {
    mem_log_file* m = mem_log_file::instance(0);
    EXPECT_EQ(MIN_MEM_LOG_SIZE, m->size_limit());
    EXPECT_EQ(MIN_MEM_LOG_SIZE, mem_log_file::instance(0x4000000)->size_limit());
    mem_log_file::reset(true);
    EXPECT_EQ(MAX_MEM_LOG_SIZE, mem_log_file::instance(0x10000000)->size_limit());
}

TEST_F(MemLog, AppendsUntilALineNoLongerFitsStrictlyAndStaysFull) {
    mem_log_file* m = mem_log_file::instance(0);
    EXPECT_EQ(RESULT_INVALID_ARG, m->dump(nullptr, nullptr));
    EXPECT_EQ(RESULT_SUCCESS, add(m, "first\n"));
    EXPECT_EQ(RESULT_SUCCESS, add(m, std::string(m->space() - 10, 'x')));
    EXPECT_EQ(1, add(m, "0123456789"));  // as long as the free space: refused
    EXPECT_TRUE(m->is_full());
    EXPECT_EQ(RESULT_SUCCESS, add(m, "012345678"));
    EXPECT_EQ(1u, m->space());
    std::string all = text_of(m);
    EXPECT_EQ(MIN_MEM_LOG_SIZE - 1, all.size());
    EXPECT_EQ("first\n", all.substr(0, 6));
    EXPECT_EQ("012345678", all.substr(all.size() - 9));
    mem_log_file::resize(0);  // trimming does not clear the full flag
    EXPECT_TRUE(m->is_full());
}

// An empty line stores nothing and succeeds, even with no text at all (the
// undefined-behaviour sanitizer checks the null source is never copied).
TEST_F(MemLog, AnEmptyLineWithNoTextIsStoredAsNothing) {
    mem_log_file* m = mem_log_file::instance(0);
    add(m, "ab");
    EXPECT_EQ(RESULT_SUCCESS, m->cout(1, 3, nullptr, 0));
    EXPECT_EQ(2u, m->used());
    EXPECT_EQ("ab", text_of(m));
}

TEST_F(MemLog, ResizeKeepsTheNewestBytes) {
    mem_log_file* m = mem_log_file::instance(0);
    add(m, "aaaa");
    add(m, "bbbb");
    add(m, "cccc");
    EXPECT_EQ(RESULT_SUCCESS, mem_log_file::resize(6));
    EXPECT_EQ("bbcccc", text_of(m));
    EXPECT_EQ(RESULT_SUCCESS, mem_log_file::resize(100));
    add(m, "d");
    EXPECT_EQ("bbccccd", text_of(m));
    EXPECT_EQ(RESULT_INVALID_ARG, mem_log_file::resize(MIN_MEM_LOG_SIZE));
    EXPECT_EQ(RESULT_SUCCESS, mem_log_file::resize(MIN_MEM_LOG_SIZE - 1));
    mem_log_file::destroy();
    EXPECT_EQ(nullptr, mem_log_file::instance(0));
    EXPECT_EQ(RESULT_NOTHING_TO_DO, mem_log_file::resize(0));
}

TEST_F(MemLog, ConcurrentAppendsAreAllKeptWhole) {
    mem_log_file* m = mem_log_file::instance(0);
    const int THREADS = 4, LINES = 2000;
    util_test::run_threads(THREADS, [&](int t) {
        for (int i = 0; i < LINES; ++i)
            add(m, "thread " + std::to_string(t) + " line\n");
    });
    const std::string all = text_of(m);
    for (int t = 0; t < THREADS; ++t) {
        const std::string line = "thread " + std::to_string(t) + " line\n";
        size_t n = 0;
        for (size_t p = all.find(line); p != std::string::npos; p = all.find(line, p + 1))
            ++n;
        EXPECT_EQ(size_t(LINES), n);
    }
    EXPECT_EQ(size_t(THREADS) * LINES * 14, all.size());
}

}  // namespace

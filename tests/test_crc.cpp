#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>

#include <random>
#include <vector>

#include "crc.h"
#include "crc_internal.h"
#include "singleton.h"
#include "test_log_support.h"
#include "test_support.h"

using namespace ssb::crc_detail;

namespace {

const unsigned char CHECK[] = "123456789";

// Bit at a time, straight from the polynomial: shares nothing with the
// library's tables or kernels.
uint32_t bitwise_step(uint32_t crc, unsigned char byte, uint32_t poly) {
    crc ^= byte;
    for (int i = 0; i < 8; ++i)
        crc = (crc >> 1) ^ ((crc & 1u) ? poly : 0u);
    return crc;
}

std::vector<unsigned char> random_bytes(size_t n, uint32_t seed) {
    std::mt19937 gen(seed);
    std::vector<unsigned char> v(n);
    for (auto& b : v)
        b = static_cast<unsigned char>(gen());
    return v;
}

std::vector<crc_path_t> supported_paths() {
    std::vector<crc_path_t> paths;
    for (int p = 0; p < CRC_PATH_COUNT; ++p)
        if (path_supported(static_cast<crc_path_t>(p)))
            paths.push_back(static_cast<crc_path_t>(p));
    return paths;
}

const char* path_name(crc_path_t p) {
    static const char* const NAMES[] = {"byte", "slice", "clmul128", "clmul128_avx", "clmul512"};
    return NAMES[p];
}

// Every test leaves the machine's own choice behind.
class CrcPaths : public ::testing::Test {
protected:
    void TearDown() override { reset_path(); }
};

}  // namespace

// Every length 0..4200 at several alignments and start values, on every
// path, against the bitwise reference over the same bytes; the result is
// the raw running value, returned and left in place.
TEST_F(CrcPaths, EveryLengthAlignmentAndStartMatchesTheBitwiseReference) {
    uint32_t check32 = 0xFFFFFFFFu, check16 = 0xFFFFu;
    for (size_t i = 0; i < 9; ++i) {
        check32 = bitwise_step(check32, CHECK[i], 0xEDB88320u);
        check16 = bitwise_step(check16, CHECK[i], 0xA001u);
    }
    ASSERT_EQ(0xCBF43926u, ~check32) << "the reference itself";
    ASSERT_EQ(0x4B37u, check16);
    const size_t MAX_LEN = 4200;
    const size_t ALIGNS[] = {0, 1, 5, 15, 63};
    const uint32_t STARTS[] = {0u, 0xFFFFFFFFu, 0x9E3779B9u};
    const std::vector<unsigned char> data = random_bytes(MAX_LEN + 64, 7);
    const std::vector<crc_path_t> paths = supported_paths();
    std::vector<uint32_t> ref32(MAX_LEN + 1), ref16(MAX_LEN + 1);
    for (size_t align : ALIGNS) {
        const unsigned char* p = data.data() + align;
        for (uint32_t start : STARTS) {
            ref32[0] = start;
            ref16[0] = start & 0xFFFFu;
            for (size_t i = 0; i < MAX_LEN; ++i) {
                ref32[i + 1] = bitwise_step(ref32[i], p[i], 0xEDB88320u);
                ref16[i + 1] = bitwise_step(ref16[i], p[i], 0xA001u);
            }
            for (crc_path_t path : paths) {
                ASSERT_TRUE(force_path(path));
                for (size_t len = 0; len <= MAX_LEN; ++len) {
                    unsigned int c32 = start;
                    unsigned short c16 = static_cast<unsigned short>(start);
                    const unsigned int r32 = crc_32(&c32, p, static_cast<unsigned>(len));
                    const unsigned short r16 = crc_16(&c16, p, static_cast<unsigned>(len));
                    if (c32 != ref32[len] || c16 != ref16[len] || r32 != c32 || r16 != c16) {
                        ADD_FAILURE() << path_name(path) << " len " << len << " align " << align << " start " << start
                                      << std::hex << ": crc32 " << c32 << " want " << ref32[len] << ", crc16 " << c16
                                      << " want " << ref16[len];
                        return;
                    }
                }
            }
        }
    }
}

// The raw running value lets a caller cut a message anywhere and even
// change paths between the pieces.
TEST_F(CrcPaths, PiecesChainToTheWholeAcrossPaths) {
    const std::vector<unsigned char> data = random_bytes(3000, 11);
    const std::vector<crc_path_t> paths = supported_paths();
    ASSERT_TRUE(force_path(CRC_PATH_BYTE));
    unsigned int whole32 = 0xFFFFFFFFu;
    unsigned short whole16 = 0xFFFF;
    crc_32(&whole32, data.data(), 3000);
    crc_16(&whole16, data.data(), 3000);
    const size_t CUTS[] = {0, 1, 15, 16, 17, 63, 64, 65, 255, 256, 257, 1023, 1024, 1500, 2999, 3000};
    for (size_t cut : CUTS)
        for (crc_path_t first : paths)
            for (crc_path_t second : paths) {
                SCOPED_TRACE(::testing::Message() << cut << " " << path_name(first) << "+" << path_name(second));
                unsigned int c32 = 0xFFFFFFFFu;
                unsigned short c16 = 0xFFFF;
                ASSERT_TRUE(force_path(first));
                crc_32(&c32, data.data(), static_cast<unsigned>(cut));
                crc_16(&c16, data.data(), static_cast<unsigned>(cut));
                ASSERT_TRUE(force_path(second));
                EXPECT_EQ(whole32, crc_32(&c32, data.data() + cut, static_cast<unsigned>(3000 - cut)));
                EXPECT_EQ(whole16, crc_16(&c16, data.data() + cut, static_cast<unsigned>(3000 - cut)));
            }
}

TEST_F(CrcPaths, UnsupportedPathIsRefusedAndLeavesTheChoice) {
    const crc_path_t before = current_path();
    EXPECT_FALSE(force_path(CRC_PATH_COUNT));
    EXPECT_EQ(before, current_path());
    for (int p = 0; p < CRC_PATH_COUNT; ++p)
        if (!path_supported(static_cast<crc_path_t>(p))) {
            EXPECT_FALSE(force_path(static_cast<crc_path_t>(p)));
            EXPECT_EQ(before, current_path());
        }
    // The automatic choice is the widest the machine has.
    reset_path();
    crc_path_t best = CRC_PATH_SLICE;
    for (int p = CRC_PATH_CLMUL128; p < CRC_PATH_COUNT; ++p)
        if (path_supported(static_cast<crc_path_t>(p)))
            best = static_cast<crc_path_t>(p);
    EXPECT_EQ(best, current_path());
}

TEST(Crc, NullArgumentsAreRefusedWithAnAssertionLine) {
    util_test::text_capture_t capture;
    util_test::capture_util_log(&capture);
    EXPECT_EQ(0u, crc_32(nullptr, CHECK, 9));
    EXPECT_TRUE(capture.contains("assert: file[.\\crc], line = ["));
    capture.clear();
    unsigned int c32 = 0x1234u;
    EXPECT_EQ(0x1234u, crc_32(&c32, nullptr, 0));
    EXPECT_FALSE(capture.contains("assert")) << "no bytes: nothing to refuse";
    EXPECT_EQ(0x1234u, crc_32(&c32, nullptr, 9));
    EXPECT_EQ(0x1234u, c32);
    EXPECT_TRUE(capture.contains(", length = 9"));
    capture.clear();
    EXPECT_EQ(0, crc_16(nullptr, CHECK, 9));
    EXPECT_TRUE(capture.contains("assert: file[.\\crc]"));
    unsigned short c16 = 0x77;
    EXPECT_EQ(0x77, crc_16(&c16, nullptr, 3));
    EXPECT_EQ(0x77, c16);
    EXPECT_TRUE(capture.contains(", length = 3"));
    util_test::restore_log_routing();
}

// The 16-bit tables live in a registered singleton: the registry's clean-up
// frees them and the next call builds them again, even when many threads
// make that first call at once.
TEST(Crc, Crc16TablesComeBackAfterRegistryCleanupUnderRacingFirstUse) {
    const std::vector<unsigned char> data = random_bytes(5000, 5);
    unsigned short want = 0;
    crc_16(&want, data.data(), 5000);
    for (int round = 0; round < 5; ++round) {
        ssb::singleton_life_t::instance().cleanup();
        EXPECT_EQ(0u, ssb::singleton_life_t::instance().size());
        std::atomic<int> wrong(0);
        util_test::run_threads(4, [&](int) {
            unsigned short c = 0;
            if (crc_16(&c, data.data(), 5000) != want)
                wrong.fetch_add(1);
        });
        EXPECT_EQ(0, wrong.load());
        EXPECT_LE(1u, ssb::singleton_life_t::instance().size());
    }
    ssb::singleton_life_t::instance().cleanup();
}

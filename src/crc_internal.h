// Internals of the CRC family shared by crc.cpp, crc_x86.cpp and the tests:
// the selectable paths and the carry-less multiply folding kernels.
#ifndef SSB_CRC_INTERNAL_H
#define SSB_CRC_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "util_def.h"

namespace ssb {
namespace crc_detail {

enum crc_path_t {
    CRC_PATH_BYTE,          // one table lookup per byte: the reference
    CRC_PATH_SLICE,         // 16 bytes per step through 16 tables; any CPU
    CRC_PATH_CLMUL128,      // PCLMULQDQ folding, 8 x 128-bit accumulators, SSE encoding
    CRC_PATH_CLMUL128_AVX,  // the same in VEX encoding, where the CPU has AVX
    CRC_PATH_CLMUL512,      // VPCLMULQDQ folding, 4 x 512-bit accumulators
    CRC_PATH_COUNT
};

// Whether this CPU (and its OS, for the vector state) can run `path`.
UTIL_API bool path_supported(crc_path_t path);
// The path both CRCs take now.
UTIL_API crc_path_t current_path();
// Test seam, not part of the public interface: every later call of both
// CRCs takes `path`. False, and nothing changed, when it is unsupported.
UTIL_API bool force_path(crc_path_t path);
// Back to the fastest path this machine supports.
UTIL_API void reset_path();

// Folding constants for one polynomial: k[i] moves a 16-byte block
// D = 128 * i bits further (i = 1..16), as the pair (x^(D+63) mod P,
// x^(D-1) mod P), each bit-reflected into 64 bits. k[0] is unused.
struct fold_keys_t {
    uint64_t k[17][2];
    // x^63 and x^95 mod P, reflected: the last block's first 8 bytes are
    // folded onto its other 8 in two halves.
    uint64_t finish[2];
    // tail[t] moves a block 8t bits on (t = 1..15), for a last partial block.
    uint64_t tail[16][2];
};

bool cpu_has_clmul128();
bool cpu_has_clmul128_avx();
bool cpu_has_clmul512();

// Fold a reflected CRC's message (its running value `crc` XORed into the
// first bytes) down to 8 bytes whose CRC from 0 equals the CRC of the
// consumed prefix from `crc`. They consume all n bytes; the caller turns
// the 8 bytes into the CRC with one table step. The 128-bit kernels need n >= 16,
// fold_clmul512 n >= 256.
size_t fold_clmul128(const fold_keys_t& keys, uint32_t crc, const unsigned char* p, size_t n, unsigned char out[8]);
size_t fold_clmul128_avx(const fold_keys_t& keys, uint32_t crc, const unsigned char* p, size_t n, unsigned char out[8]);
size_t fold_clmul512(const fold_keys_t& keys, uint32_t crc, const unsigned char* p, size_t n, unsigned char out[8]);

}  // namespace crc_detail
}  // namespace ssb

#endif

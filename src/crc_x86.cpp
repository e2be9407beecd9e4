// Carry-less multiply folding for the reflected CRCs on x86. Each kernel is
// compiled for its instruction set through a target attribute and runs only
// after the CPU check below, so the library itself stays built for the
// generic x86-64 or i686 baseline.
//
// A 16-byte block loaded little-endian holds the message's coefficients
// bit-reflected: bit i is x^(127-i). The low qword H and high qword L give
// the block as H*x^64 + L, and a carry-less product of two reflected
// qwords is the product times x. Moving a block D bits further is then
// clmul(H, x^(D+63) mod P) ^ clmul(L, x^(D-1) mod P), which stays below 96
// bits; the result is congruent to the message mod P, which is all a CRC
// sees.
#include "crc_internal.h"

#if defined(__x86_64__) || defined(__i386__)

#  include <cpuid.h>
#  include <immintrin.h>

namespace ssb {
namespace crc_detail {

namespace {

struct cpu_features_t {
    bool clmul128;
    bool clmul128_avx;
    bool clmul512;
};

// XCR0: which register states the OS saves on a context switch.
uint64_t read_xcr0() {
    uint32_t eax = 0, edx = 0;
    __asm__ volatile("xgetbv" : "=a"(eax), "=d"(edx) : "c"(0));
    return static_cast<uint64_t>(edx) << 32 | eax;
}

cpu_features_t detect() {
    cpu_features_t f = {false, false, false};
    unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx))
        return f;
    const bool sse2 = edx & (1u << 26);
    const bool pclmul = ecx & (1u << 1);
    const bool osxsave = ecx & (1u << 27);
    const bool avx = ecx & (1u << 28);
    f.clmul128 = sse2 && pclmul;
    // SSE and AVX register state saved by the OS.
    const uint64_t YMM_STATE = 0x6;
    const uint64_t xcr0 = osxsave ? read_xcr0() : 0;
    f.clmul128_avx = f.clmul128 && avx && (xcr0 & YMM_STATE) == YMM_STATE;
#  if defined(__x86_64__)
    // The 512-bit kernel is left out of 32-bit builds: with 8 vector
    // registers it would spill, and 32-bit Windows compilers do not align
    // the stack for 64-byte spills.
    if (!osxsave || !__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx))
        return f;
    const bool avx512f = ebx & (1u << 16);
    const bool vpclmul = ecx & (1u << 10);
    // SSE, AVX, opmask, and both halves of the 512-bit registers.
    const uint64_t ZMM_STATE = 0xE6;
    f.clmul512 = f.clmul128_avx && avx512f && vpclmul && (xcr0 & ZMM_STATE) == ZMM_STATE;
#  endif
    return f;
}

const cpu_features_t& features() {
    // A function-local static: thread-safe initialisation, computed once.
    static const cpu_features_t f = detect();
    return f;
}

// Read from offset t: 16 - t zero bytes, then t bytes kept.
const unsigned char TAIL_MASK[32] = {0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
                                     0,    0,    0,    0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                     0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// Legacy SSE for CPUs without AVX; the VEX form where AVX exists, since
// legacy SSE code runs slowly while another library has left the upper
// halves of the vector registers dirty, and VEX needs no register copies.
namespace sse {
#  define SSB_FOLD_TARGET __attribute__((target("sse2,pclmul")))
#  include "crc_x86_fold128.inc"
#  undef SSB_FOLD_TARGET
}  // namespace sse

namespace avx {
#  define SSB_FOLD_TARGET __attribute__((target("avx,pclmul")))
#  include "crc_x86_fold128.inc"
#  undef SSB_FOLD_TARGET
}  // namespace avx

}  // namespace

bool cpu_has_clmul128() { return features().clmul128; }
bool cpu_has_clmul128_avx() { return features().clmul128_avx; }
bool cpu_has_clmul512() { return features().clmul512; }

size_t fold_clmul128(const fold_keys_t& keys, uint32_t crc, const unsigned char* p, size_t n, unsigned char out[8]) {
    return sse::fold(keys, crc, p, n, out);
}

size_t fold_clmul128_avx(const fold_keys_t& keys, uint32_t crc, const unsigned char* p, size_t n,
                         unsigned char out[8]) {
    return avx::fold(keys, crc, p, n, out);
}

#  if defined(__x86_64__)

#    define SSB_TARGET_512 __attribute__((target("avx512f,vpclmulqdq,pclmul")))

namespace {

SSB_TARGET_512 inline __m512i key512(const fold_keys_t& keys, unsigned i) {
    const long long lo = static_cast<long long>(keys.k[i][0]);
    const long long hi = static_cast<long long>(keys.k[i][1]);
    return _mm512_set_epi64(hi, lo, hi, lo, hi, lo, hi, lo);
}

// 0x96: three-way XOR.
SSB_TARGET_512 inline __m512i xor3(__m512i a, __m512i b, __m512i c) { return _mm512_ternarylogic_epi64(a, b, c, 0x96); }

SSB_TARGET_512 inline __m512i fold512(__m512i x, __m512i key, __m512i next) {
    return xor3(_mm512_clmulepi64_epi128(x, key, 0x00), _mm512_clmulepi64_epi128(x, key, 0x11), next);
}

SSB_TARGET_512 inline __m512i shift512(__m512i x, __m512i key) {
    return _mm512_xor_si512(_mm512_clmulepi64_epi128(x, key, 0x00), _mm512_clmulepi64_epi128(x, key, 0x11));
}

SSB_TARGET_512 inline __m512i load512(const unsigned char* p) { return _mm512_loadu_si512(p); }

}  // namespace

// Four 512-bit accumulators 256 bytes apart; the four 16-byte lanes of the
// last one are folded together in one multiply with a key per lane.
SSB_TARGET_512 size_t fold_clmul512(const fold_keys_t& keys, uint32_t crc, const unsigned char* p, size_t n,
                                    unsigned char out[8]) {
    const unsigned char* const start = p;
    // Zero-masked forms throughout: GCC 12 warns about the undefined source
    // of the plain insert and extract.
    const __m512i first = _mm512_maskz_broadcast_i32x4(0x000F, _mm_cvtsi32_si128(static_cast<int>(crc)));
    __m512i z0 = _mm512_xor_si512(load512(p), first);
    __m512i z1 = load512(p + 64);
    __m512i z2 = load512(p + 128);
    __m512i z3 = load512(p + 192);
    p += 256;
    n -= 256;
    const __m512i k16 = key512(keys, 16);
    while (n >= 256) {
        z0 = fold512(z0, k16, load512(p));
        z1 = fold512(z1, k16, load512(p + 64));
        z2 = fold512(z2, k16, load512(p + 128));
        z3 = fold512(z3, k16, load512(p + 192));
        p += 256;
        n -= 256;
    }
    __m512i z = xor3(shift512(z0, key512(keys, 12)), shift512(z1, key512(keys, 8)), shift512(z2, key512(keys, 4)));
    z = _mm512_xor_si512(z, z3);
    const __m512i k4 = key512(keys, 4);
    while (n >= 64) {
        z = fold512(z, k4, load512(p));
        p += 64;
        n -= 64;
    }
    // Lanes 0, 1, 2 move 48, 32, 16 bytes on; lane 3 stays (its key is 0
    // and it is added back unmoved).
    const __m512i lane_keys =
        _mm512_set_epi64(0, 0, static_cast<long long>(keys.k[1][1]), static_cast<long long>(keys.k[1][0]),
                         static_cast<long long>(keys.k[2][1]), static_cast<long long>(keys.k[2][0]),
                         static_cast<long long>(keys.k[3][1]), static_cast<long long>(keys.k[3][0]));
    const __m512i t = xor3(_mm512_clmulepi64_epi128(z, lane_keys, 0x00), _mm512_clmulepi64_epi128(z, lane_keys, 0x11),
                           _mm512_maskz_mov_epi64(0xC0, z));
    const __m256i y =
        _mm256_xor_si256(_mm512_maskz_extracti64x4_epi64(0xF, t, 0), _mm512_maskz_extracti64x4_epi64(0xF, t, 1));
    __m128i x = _mm_xor_si128(_mm256_castsi256_si128(y), _mm256_extracti128_si256(y, 1));
    const size_t m = n / 16;
    x = avx::absorb_blocks(keys, x, p, m);
    p += 16 * m;
    if (n % 16) {
        p += n % 16;
        x = avx::absorb_tail(keys, x, p, n % 16);
    }
    avx::finish(keys, x, out);
    return static_cast<size_t>(p - start);
}

#  else

size_t fold_clmul512(const fold_keys_t&, uint32_t, const unsigned char*, size_t, unsigned char*) { return 0; }

#  endif

}  // namespace crc_detail
}  // namespace ssb

#else

namespace ssb {
namespace crc_detail {

// No folding kernels on other architectures: the table paths serve.
bool cpu_has_clmul128() { return false; }
bool cpu_has_clmul128_avx() { return false; }
bool cpu_has_clmul512() { return false; }
size_t fold_clmul128(const fold_keys_t&, uint32_t, const unsigned char*, size_t, unsigned char*) { return 0; }
size_t fold_clmul128_avx(const fold_keys_t&, uint32_t, const unsigned char*, size_t, unsigned char*) { return 0; }
size_t fold_clmul512(const fold_keys_t&, uint32_t, const unsigned char*, size_t, unsigned char*) { return 0; }

}  // namespace crc_detail
}  // namespace ssb

#endif

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
    bool clmul512;
};

#  if defined(__x86_64__)
// XCR0: which register states the OS saves on a context switch.
uint64_t read_xcr0() {
    uint32_t eax = 0, edx = 0;
    __asm__ volatile("xgetbv" : "=a"(eax), "=d"(edx) : "c"(0));
    return static_cast<uint64_t>(edx) << 32 | eax;
}
#  endif

cpu_features_t detect() {
    cpu_features_t f = {false, false};
    unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx))
        return f;
    const bool sse2 = edx & (1u << 26);
    const bool pclmul = ecx & (1u << 1);
    const bool osxsave = ecx & (1u << 27);
    f.clmul128 = sse2 && pclmul;
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
    f.clmul512 = f.clmul128 && avx512f && vpclmul && (read_xcr0() & ZMM_STATE) == ZMM_STATE;
#  else
    (void)osxsave;
#  endif
    return f;
}

const cpu_features_t& features() {
    // A function-local static: thread-safe initialisation, computed once.
    static const cpu_features_t f = detect();
    return f;
}

#  define SSB_TARGET_128 __attribute__((target("sse2,pclmul")))

SSB_TARGET_128 inline __m128i keys128(const uint64_t k[2]) {
    return _mm_set_epi64x(static_cast<long long>(k[1]), static_cast<long long>(k[0]));
}

SSB_TARGET_128 inline __m128i fold128(__m128i x, __m128i keys, __m128i next) {
    return _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(x, keys, 0x00), _mm_clmulepi64_si128(x, keys, 0x11)), next);
}

SSB_TARGET_128 inline __m128i load128(const unsigned char* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

}  // namespace

bool cpu_has_clmul128() { return features().clmul128; }
bool cpu_has_clmul512() { return features().clmul512; }

SSB_TARGET_128 size_t fold_clmul128(const fold_keys_t& keys, uint32_t crc, const unsigned char* p, size_t n,
                                    unsigned char out[16]) {
    const unsigned char* const start = p;
    __m128i x0 = _mm_xor_si128(load128(p), _mm_cvtsi32_si128(static_cast<int>(crc)));
    __m128i x1 = load128(p + 16);
    __m128i x2 = load128(p + 32);
    __m128i x3 = load128(p + 48);
    p += 64;
    n -= 64;
    const __m128i k512 = keys128(keys.k512);
    while (n >= 64) {
        x0 = fold128(x0, k512, load128(p));
        x1 = fold128(x1, k512, load128(p + 16));
        x2 = fold128(x2, k512, load128(p + 32));
        x3 = fold128(x3, k512, load128(p + 48));
        p += 64;
        n -= 64;
    }
    const __m128i k128 = keys128(keys.k128);
    x0 = fold128(x0, k128, x1);
    x0 = fold128(x0, k128, x2);
    x0 = fold128(x0, k128, x3);
    while (n >= 16) {
        x0 = fold128(x0, k128, load128(p));
        p += 16;
        n -= 16;
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), x0);
    return static_cast<size_t>(p - start);
}

#  if defined(__x86_64__)

#    define SSB_TARGET_512 __attribute__((target("avx512f,vpclmulqdq,pclmul")))

namespace {

SSB_TARGET_512 inline __m512i fold512(__m512i x, __m512i keys, __m512i next) {
    // 0x96: three-way XOR.
    return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(x, keys, 0x00), _mm512_clmulepi64_epi128(x, keys, 0x11),
                                     next, 0x96);
}

SSB_TARGET_512 inline __m512i load512(const unsigned char* p) { return _mm512_loadu_si512(p); }

SSB_TARGET_512 inline __m512i keys512(const uint64_t k[2]) {
    const long long lo = static_cast<long long>(k[0]);
    const long long hi = static_cast<long long>(k[1]);
    return _mm512_set_epi64(hi, lo, hi, lo, hi, lo, hi, lo);
}

// The zero-masked form: GCC 12 warns about the undefined source of the
// plain extract.
template <int LANE>
SSB_TARGET_512 inline __m128i lane(__m512i z) {
    return _mm512_maskz_extracti32x4_epi32(0xF, z, LANE);
}

SSB_TARGET_512 inline __m128i fold128_vex(__m128i x, __m128i keys, __m128i next) {
    return _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(x, keys, 0x00), _mm_clmulepi64_si128(x, keys, 0x11)), next);
}

}  // namespace

SSB_TARGET_512 size_t fold_clmul512(const fold_keys_t& keys, uint32_t crc, const unsigned char* p, size_t n,
                                    unsigned char out[16]) {
    const unsigned char* const start = p;
    const __m512i first = _mm512_inserti32x4(_mm512_setzero_si512(), _mm_cvtsi32_si128(static_cast<int>(crc)), 0);
    __m512i z0 = _mm512_xor_si512(load512(p), first);
    __m512i z1 = load512(p + 64);
    __m512i z2 = load512(p + 128);
    __m512i z3 = load512(p + 192);
    p += 256;
    n -= 256;
    const __m512i k2048 = keys512(keys.k2048);
    while (n >= 256) {
        z0 = fold512(z0, k2048, load512(p));
        z1 = fold512(z1, k2048, load512(p + 64));
        z2 = fold512(z2, k2048, load512(p + 128));
        z3 = fold512(z3, k2048, load512(p + 192));
        p += 256;
        n -= 256;
    }
    const __m512i k512 = keys512(keys.k512);
    z0 = fold512(z0, k512, z1);
    z0 = fold512(z0, k512, z2);
    z0 = fold512(z0, k512, z3);
    while (n >= 64) {
        z0 = fold512(z0, k512, load512(p));
        p += 64;
        n -= 64;
    }
    const __m128i k128 = _mm_set_epi64x(static_cast<long long>(keys.k128[1]), static_cast<long long>(keys.k128[0]));
    __m128i x = lane<0>(z0);
    x = fold128_vex(x, k128, lane<1>(z0));
    x = fold128_vex(x, k128, lane<2>(z0));
    x = fold128_vex(x, k128, lane<3>(z0));
    while (n >= 16) {
        x = fold128_vex(x, k128, _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
        p += 16;
        n -= 16;
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), x);
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
bool cpu_has_clmul512() { return false; }
size_t fold_clmul128(const fold_keys_t&, uint32_t, const unsigned char*, size_t, unsigned char*) { return 0; }
size_t fold_clmul512(const fold_keys_t&, uint32_t, const unsigned char*, size_t, unsigned char*) { return 0; }

}  // namespace crc_detail
}  // namespace ssb

#endif

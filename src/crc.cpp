#include "crc.h"

#include <atomic>

#include "crc_internal.h"
#include "singleton.h"
#include "trace.h"

namespace ssb {
namespace crc_detail {

namespace {

const char SOURCE_PATH[] = ".\\crc";

const uint32_t CRC32_POLY = 0xEDB88320u;
const uint16_t CRC16_POLY = 0xA001u;

// Thresholds below which folding does not pay for its set-up and finish.
const size_t CLMUL128_MIN = 32;
const size_t CLMUL512_MIN = 256;

template <class T>
constexpr T byte_step(T crc, T poly) {
    for (int bit = 0; bit < 8; ++bit)
        crc = static_cast<T>((crc & 1u) ? (crc >> 1) ^ poly : crc >> 1);
    return crc;
}

// t[0] is the classic byte table; t[k][b] is the CRC of byte b followed by
// k zero bytes, so 16 lookups advance the value over 16 bytes.
template <class T>
struct slice_tables_t {
    T t[16][256];
};

template <class T>
constexpr slice_tables_t<T> make_slice_tables(T poly) {
    slice_tables_t<T> s{};
    for (unsigned b = 0; b < 256; ++b)
        s.t[0][b] = byte_step(static_cast<T>(b), poly);
    for (unsigned k = 1; k < 16; ++k)
        for (unsigned b = 0; b < 256; ++b) {
            const T prev = s.t[k - 1][b];
            s.t[k][b] = static_cast<T>((prev >> 8) ^ s.t[0][prev & 0xFFu]);
        }
    return s;
}

// Computed by the compiler and stored as constants.
constexpr slice_tables_t<uint32_t> CRC32_TABLES = make_slice_tables<uint32_t>(CRC32_POLY);

constexpr uint64_t reflect(uint64_t v, unsigned bits) {
    uint64_t r = 0;
    for (unsigned i = 0; i < bits; ++i)
        if (v >> i & 1u)
            r |= 1ULL << (bits - 1 - i);
    return r;
}

// x^n mod P in bit-reflected 64-bit form, P of `degree` given reflected.
constexpr uint64_t fold_key(unsigned n, uint64_t reflected_poly, unsigned degree) {
    const uint64_t p = reflect(reflected_poly, degree) | (1ULL << degree);
    uint64_t r = 1;
    for (unsigned i = 0; i < n; ++i) {
        r <<= 1;
        if (r >> degree & 1u)
            r ^= p;
    }
    return reflect(r, 64);
}

constexpr fold_keys_t make_fold_keys(uint64_t reflected_poly, unsigned degree) {
    fold_keys_t keys{};
    for (unsigned i = 1; i <= 16; ++i) {
        keys.k[i][0] = fold_key(128 * i + 63, reflected_poly, degree);
        keys.k[i][1] = fold_key(128 * i - 1, reflected_poly, degree);
    }
    for (unsigned t = 1; t < 16; ++t) {
        keys.tail[t][0] = fold_key(8 * t + 63, reflected_poly, degree);
        keys.tail[t][1] = fold_key(8 * t - 1, reflected_poly, degree);
    }
    keys.finish[0] = fold_key(63, reflected_poly, degree);
    keys.finish[1] = fold_key(95, reflected_poly, degree);
    return keys;
}

constexpr fold_keys_t CRC32_KEYS = make_fold_keys(CRC32_POLY, 32);
constexpr fold_keys_t CRC16_KEYS = make_fold_keys(CRC16_POLY, 16);

// Little-endian whatever the host; compilers turn it into one load.
inline uint32_t load_le32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

// The value after 8 bytes read as two little-endian words, the running
// value already XORed into the first.
template <class T>
inline T step8(uint32_t a, uint32_t b, const T (*t)[256]) {
    return static_cast<T>(t[7][a & 0xFF] ^ t[6][a >> 8 & 0xFF] ^ t[5][a >> 16 & 0xFF] ^ t[4][a >> 24] ^ t[3][b & 0xFF] ^
                          t[2][b >> 8 & 0xFF] ^ t[1][b >> 16 & 0xFF] ^ t[0][b >> 24]);
}

template <class T>
T slice16(T crc, const unsigned char* p, size_t n, const T (*t)[256]) {
    while (n >= 16) {
        const uint32_t a = load_le32(p) ^ crc;
        const uint32_t b = load_le32(p + 4);
        const uint32_t c = load_le32(p + 8);
        const uint32_t d = load_le32(p + 12);
        crc = static_cast<T>(t[15][a & 0xFF] ^ t[14][a >> 8 & 0xFF] ^ t[13][a >> 16 & 0xFF] ^ t[12][a >> 24] ^
                             t[11][b & 0xFF] ^ t[10][b >> 8 & 0xFF] ^ t[9][b >> 16 & 0xFF] ^ t[8][b >> 24] ^
                             t[7][c & 0xFF] ^ t[6][c >> 8 & 0xFF] ^ t[5][c >> 16 & 0xFF] ^ t[4][c >> 24] ^
                             t[3][d & 0xFF] ^ t[2][d >> 8 & 0xFF] ^ t[1][d >> 16 & 0xFF] ^ t[0][d >> 24]);
        p += 16;
        n -= 16;
    }
    // A short tail in 8- and 4-byte steps: one byte at a time is a chain of
    // dependent lookups, slow enough to show at packet sizes.
    if (n >= 8) {
        crc = step8<T>(load_le32(p) ^ crc, load_le32(p + 4), t);
        p += 8;
        n -= 8;
    }
    if (n >= 4) {
        const uint32_t a = load_le32(p) ^ crc;
        crc = static_cast<T>(t[3][a & 0xFF] ^ t[2][a >> 8 & 0xFF] ^ t[1][a >> 16 & 0xFF] ^ t[0][a >> 24]);
        p += 4;
        n -= 4;
    }
    while (n--)
        crc = static_cast<T>((crc >> 8) ^ t[0][(crc ^ *p++) & 0xFF]);
    return crc;
}

// The 16-bit tables, built at first use. The byte path reads the two
// 256-byte halves; the faster paths read the 16-bytes-per-step tables.
class crc16_tables_t {
public:
    static const crc16_tables_t& instance();

    unsigned char m_low[256];
    unsigned char m_high[256];
    slice_tables_t<uint16_t> m_slice;

private:
    crc16_tables_t() : m_slice(make_slice_tables<uint16_t>(CRC16_POLY)) {
        for (unsigned b = 0; b < 256; ++b) {
            m_low[b] = static_cast<unsigned char>(m_slice.t[0][b] & 0xFF);
            m_high[b] = static_cast<unsigned char>(m_slice.t[0][b] >> 8);
        }
    }
    static void destroy();

    static std::atomic<crc16_tables_t*> s_instance;
};

std::atomic<crc16_tables_t*> crc16_tables_t::s_instance(nullptr);

const crc16_tables_t& crc16_tables_t::instance() {
    crc16_tables_t* p = s_instance.load(std::memory_order_acquire);
    if (p)
        return *p;
    {
        auto_lock_t<thread_mutex_recursive> guard(global_lock());
        p = s_instance.load(std::memory_order_relaxed);
        if (p)
            return *p;
        p = new crc16_tables_t;
        s_instance.store(p, std::memory_order_release);
    }
    // Outside the global lock: the registry's clean-up takes its own lock
    // first and then calls destroy.
    singleton_life_t::instance().regist(destroy);
    return *p;
}

void crc16_tables_t::destroy() {
    singleton_life_t::instance().unregist(destroy);
    delete s_instance.exchange(nullptr, std::memory_order_acq_rel);
}

// -1 until the first call picks the machine's best path. The value alone
// is the state, so relaxed order is enough.
std::atomic<int> s_path(-1);

crc_path_t best_path() {
    if (cpu_has_clmul512())
        return CRC_PATH_CLMUL512;
    if (cpu_has_clmul128_avx())
        return CRC_PATH_CLMUL128_AVX;
    if (cpu_has_clmul128())
        return CRC_PATH_CLMUL128;
    return CRC_PATH_SLICE;
}

inline crc_path_t path_now() {
    int path = s_path.load(std::memory_order_relaxed);
    if (path < 0) {
        path = best_path();
        s_path.store(path, std::memory_order_relaxed);
    }
    return static_cast<crc_path_t>(path);
}

template <class T>
T run(crc_path_t path, T crc, const unsigned char* p, size_t n, const T (*t)[256], const fold_keys_t& keys) {
    if (path >= CRC_PATH_CLMUL128 && n >= CLMUL128_MIN) {
        unsigned char folded[8];
        size_t done;
        if (path == CRC_PATH_CLMUL512 && n >= CLMUL512_MIN)
            done = fold_clmul512(keys, crc, p, n, folded);
        else if (path >= CRC_PATH_CLMUL128_AVX)
            done = fold_clmul128_avx(keys, crc, p, n, folded);
        else
            done = fold_clmul128(keys, crc, p, n, folded);
        crc = step8<T>(load_le32(folded), load_le32(folded + 4), t);
        p += done;
        n -= done;
        if (!n)
            return crc;
    }
    return slice16<T>(crc, p, n, t);
}

}  // namespace

bool path_supported(crc_path_t path) {
    switch (path) {
    case CRC_PATH_BYTE:
    case CRC_PATH_SLICE:
        return true;
    case CRC_PATH_CLMUL128:
        return cpu_has_clmul128();
    case CRC_PATH_CLMUL128_AVX:
        return cpu_has_clmul128_avx();
    case CRC_PATH_CLMUL512:
        return cpu_has_clmul512();
    default:
        return false;
    }
}

crc_path_t current_path() { return path_now(); }

bool force_path(crc_path_t path) {
    if (!path_supported(path))
        return false;
    s_path.store(path, std::memory_order_relaxed);
    return true;
}

void reset_path() { s_path.store(best_path(), std::memory_order_relaxed); }

uint32_t crc32_update(uint32_t crc, const unsigned char* p, size_t n) {
    const crc_path_t path = path_now();
    if (path == CRC_PATH_BYTE) {
        const uint32_t* t = CRC32_TABLES.t[0];
        while (n--)
            crc = (crc >> 8) ^ t[(crc ^ *p++) & 0xFF];
        return crc;
    }
    return run<uint32_t>(path, crc, p, n, CRC32_TABLES.t, CRC32_KEYS);
}

uint16_t crc16_update(uint16_t crc, const unsigned char* p, size_t n) {
    const crc16_tables_t& tables = crc16_tables_t::instance();
    const crc_path_t path = path_now();
    if (path == CRC_PATH_BYTE) {
        unsigned char low = static_cast<unsigned char>(crc & 0xFF);
        unsigned char high = static_cast<unsigned char>(crc >> 8);
        while (n--) {
            const unsigned char index = static_cast<unsigned char>(*p++ ^ low);
            low = static_cast<unsigned char>(tables.m_low[index] ^ high);
            high = tables.m_high[index];
        }
        return static_cast<uint16_t>(high << 8 | low);
    }
    return run<uint16_t>(path, crc, p, n, tables.m_slice.t, CRC16_KEYS);
}

}  // namespace crc_detail
}  // namespace ssb

using ssb::crc_detail::SOURCE_PATH;

namespace {

// Both entry points: a null running value gives 0, no bytes leave it as it
// is, and null bytes with a length are refused; each logs its line.
template <class T, class Update>
T checked_update(T* crc, const unsigned char* data, unsigned length, Update update) {
    if (!crc) {
        UTIL_ASSERT_LINE(SOURCE_PATH, __LINE__, ", length = " << length);
        return 0;
    }
    if (!length)
        return *crc;
    if (!data) {
        UTIL_ASSERT_LINE(SOURCE_PATH, __LINE__, ", length = " << length);
        return *crc;
    }
    *crc = update(*crc, data, length);
    return *crc;
}

}  // namespace

unsigned int crc_32(unsigned int* crc, const unsigned char* data, unsigned length) {
    return checked_update(crc, data, length, ssb::crc_detail::crc32_update);
}

unsigned short crc_16(unsigned short* crc, const unsigned char* data, unsigned length) {
    return checked_update(crc, data, length, ssb::crc_detail::crc16_update);
}

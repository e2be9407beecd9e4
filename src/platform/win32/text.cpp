#include <windows.h>

#include <limits.h>

#include "../platform.h"

namespace ssb {
namespace plat {

// The conversions take int lengths; longer texts are cut at INT_MAX.
static int clamp_int(size_t n) { return n > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(n); }

size_t mbs_to_wcs(const char* src, size_t len, wchar_t* dst, size_t dst_len) {
    if (len == 0)
        return 0;
    const int need = MultiByteToWideChar(CP_ACP, 0, src, clamp_int(len), nullptr, 0);
    if (need <= 0 || !dst || dst_len == 0)
        return need > 0 ? static_cast<size_t>(need) : 0;
    if (dst_len >= static_cast<size_t>(need))
        MultiByteToWideChar(CP_ACP, 0, src, clamp_int(len), dst, need);
    return static_cast<size_t>(need);
}

size_t wcs_to_mbs(const wchar_t* src, size_t len, char* dst, size_t dst_len) {
    if (len == 0)
        return 0;
    const int need = WideCharToMultiByte(CP_ACP, 0, src, clamp_int(len), nullptr, 0, nullptr, nullptr);
    if (need <= 0 || !dst || dst_len == 0)
        return need > 0 ? static_cast<size_t>(need) : 0;
    if (dst_len >= static_cast<size_t>(need))
        WideCharToMultiByte(CP_ACP, 0, src, clamp_int(len), dst, need, nullptr, nullptr);
    return static_cast<size_t>(need);
}

}  // namespace plat
}  // namespace ssb

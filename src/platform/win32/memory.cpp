#include <windows.h>

#include "../platform.h"

namespace ssb {
namespace plat {

uint32_t page_size() {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwPageSize;
}

}  // namespace plat
}  // namespace ssb

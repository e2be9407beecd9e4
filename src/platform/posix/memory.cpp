#include <unistd.h>

#include "../platform.h"

namespace ssb {
namespace plat {

uint32_t page_size() {
    long size = sysconf(_SC_PAGESIZE);
    return size > 0 ? static_cast<uint32_t>(size) : 4096u;
}

}  // namespace plat
}  // namespace ssb

#include <windows.h>
#include <rpc.h>
#include <string.h>

#include "platform/platform.h"

namespace ssb {
namespace plat {

int uuid_create(unsigned char out[16]) {
    UUID id;
    memset(&id, 0, sizeof id);
    const RPC_STATUS status = UuidCreate(&id);
    memcpy(out, &id, 16);
    return status == RPC_S_OK ? 0 : static_cast<int>(status);
}

}  // namespace plat
}  // namespace ssb

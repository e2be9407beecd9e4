#include "platform/platform.h"

namespace ssb {
namespace plat {

// Windows has no per-process handle limit a test could lower.
bool descriptor_limit_supported() { return false; }

bool thread_terminate_supported() { return true; }

int lowest_free_descriptor() { return -1; }

int set_descriptor_limit(unsigned long) { return 50; }  // ERROR_NOT_SUPPORTED

unsigned long descriptor_limit() { return 0; }

}  // namespace plat
}  // namespace ssb

// Counts of live library objects, so tests can prove that nothing leaks and
// that memory stays flat over any number of operations. Internal.
#ifndef SSB_LIVE_COUNT_H
#define SSB_LIVE_COUNT_H

#include "util_def.h"

namespace ssb {

UTIL_API int live_thread_wrappers();
UTIL_API int live_msg_queues();

}  // namespace ssb

#endif

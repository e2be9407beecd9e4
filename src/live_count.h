// Test seams. Counts of live library objects, so tests can prove that
// nothing leaks and that memory stays flat over any number of operations;
// hooks that let a test put the other thread's move at the worst moment.
// Internal.
#ifndef SSB_LIVE_COUNT_H
#define SSB_LIVE_COUNT_H

#include "util_def.h"

namespace ssb {

UTIL_API int live_thread_wrappers();
UTIL_API int live_msg_queues();
UTIL_API int live_timer_carriers();
UTIL_API int live_timer_handles();

class thread_wrapper_t;
// Moves a thread's last timer drive `ms` back, as if it had slept that
// long. The thread's own.
UTIL_API void shift_timer_stamp(thread_wrapper_t* thr, uint32_t ms);

class msg_queue_base_t;
// Called by a writer whose push found the queue full, before it marks the
// queue full: where a reader draining the queue would race the mark.
typedef void (*refused_push_hook_t)(msg_queue_base_t* queue);
UTIL_API void set_refused_push_hook(refused_push_hook_t hook);

}  // namespace ssb

#endif

// The library's life in a host process: counted initialisation and
// tear-down, the main thread's heartbeat, and the version banner.
//
// Every module of a process that uses the library calls util_init once and
// util_uninit once; only the outermost pair starts and stops the services.
// Both may be called from any thread.
#ifndef SSB_UTIL_H
#define SSB_UTIL_H

#include "util_def.h"

// Starts the services on the first call; later calls only count. dir,
// filename, pext, max_size and max_idx configure the rotating log file and
// are read on the first call only. Returns 0.
SSB_C_API int util_init(unsigned int module_id, const char* dir, const char* filename, const char* pext,
                        unsigned int max_size, unsigned int max_idx);

// Counts down; the last call tears everything down. A call without a
// matching util_init is logged and ignored.
SSB_C_API void util_uninit(unsigned int module_id);

// One pass of the main thread's message loop, for a host whose main thread
// runs its own window loop: 0 after the pass; 9 when the library is not
// initialised or has no main thread; 12 off the main thread. The main
// thread is the one that made the first util_init.
SSB_C_API int main_heartbeat();

// Major 1, minor 0, and the build banner; any pointer may be null.
SSB_C_API void util_version(unsigned int* major, unsigned int* minor, const char** description);

#endif

// The library's own log statement and assertion lines, in module 1 "UTIL".
#ifndef SSB_TRACE_H
#define SSB_TRACE_H

#include <stdint.h>

#include "log.h"

namespace ssb {

// A pointer as log lines show it ("0x" and its digits).
inline const void* log_ptr(const void* p) { return p; }
// A socket, pipe end or event handle as a signed number, so an invalid
// one reads -1.
inline long long log_handle(uintptr_t h) { return static_cast<long long>(static_cast<intptr_t>(h)); }

// Ends a WARNING line built by the caller and writes it to the registry
// and, as the same bytes, to the memory log, whether or not the registry
// passes the level.
void warn_into_memlog(log_stream_t& line);

}  // namespace ssb

#define UTIL_LOG(level, expr) SSB_LOG(ssb::UTIL_MODULE_ID, (level), expr)

// "assert: file[path], line = [n]" + tail, at FATAL. `tail` is empty or
// starts with a string literal: UTIL_ASSERT_LINE("util", 179, ", this = " << p).
#define UTIL_ASSERT_LINE(path, line, tail) SSB_ASSERT_LINE(ssb::UTIL_MODULE_ID, path, line, tail)

// "assert: msg[text] file[path], line = [n]" + tail, at FATAL. `msg` may
// carry its own ", name = value" pairs.
#define UTIL_ASSERT_MSG(msg, path, line, tail) SSB_ASSERT_MSG(ssb::UTIL_MODULE_ID, msg, path, line, tail)

#endif

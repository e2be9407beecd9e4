// The library's own log statement and assertion lines, in module 1 "UTIL".
#ifndef SSB_TRACE_H
#define SSB_TRACE_H

#include "log.h"

#define UTIL_LOG(level, expr) SSB_LOG(ssb::UTIL_MODULE_ID, (level), expr)

// "assert: file[path], line = [n]" + tail, at FATAL. `tail` is empty or
// starts with a string literal: UTIL_ASSERT_LINE("util", 179, ", this = " << p).
#define UTIL_ASSERT_LINE(path, line, tail) SSB_ASSERT_LINE(ssb::UTIL_MODULE_ID, path, line, tail)

// "assert: msg[text] file[path], line = [n]" + tail, at FATAL. `msg` may
// carry its own ", name = value" pairs.
#define UTIL_ASSERT_MSG(msg, path, line, tail) SSB_ASSERT_MSG(ssb::UTIL_MODULE_ID, msg, path, line, tail)

#endif

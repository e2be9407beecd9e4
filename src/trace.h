// The library's log statement and assertion lines.
//
// Every statement asks the cheap level filter first and only then builds the
// line; until the logger registry is linked in, the filter says no and the
// expression is compiled but never evaluated.
#ifndef SSB_TRACE_H
#define SSB_TRACE_H

#include "util_def.h"

namespace ssb {
namespace detail {

// Accepts anything a log line may stream.
struct null_stream_t {
    template <class T>
    null_stream_t& operator<<(const T&) { return *this; }
};

inline bool trace_gate(unsigned int, unsigned int) { return false; }

}  // namespace detail
}  // namespace ssb

// One log line in `module` at `level`: SSB_LOG(1, LOG_INFO, "x = " << x).
#define SSB_LOG(module, level, expr)                               \
    do {                                                           \
        if (ssb::detail::trace_gate((module), (level))) {          \
            ssb::detail::null_stream_t ssb_log_line_;              \
            ssb_log_line_ << expr << "\n";                         \
        }                                                          \
    } while (0)

#define UTIL_LOG(level, expr) SSB_LOG(ssb::UTIL_MODULE_ID, (level), expr)

// "assert: file[path], line = [n]" + tail, at FATAL. `tail` is empty or
// starts with a string literal: UTIL_ASSERT_LINE("util", 179, ", this = " << p).
#define UTIL_ASSERT_LINE(path, line, tail) \
    UTIL_LOG(ssb::LOG_FATAL, "assert: file[" << (path) << "], line = [" << (line) << "]" << "" tail)

// "assert: msg[text], file[path], line = [n]" + tail, at FATAL. `msg` may
// carry its own ", name = value" pairs.
#define UTIL_ASSERT_MSG(msg, path, line, tail)                                             \
    UTIL_LOG(ssb::LOG_FATAL, "assert: msg[" << msg << "] file[" << (path) << "], line = [" \
                                            << (line) << "]" << "" tail)

#endif

// Common definitions of the util library: export and calling-convention
// macros, result codes, log levels and the non-copyable base.
//
// This is the only public header with platform conditionals.
#ifndef SSB_UTIL_DEF_H
#define SSB_UTIL_DEF_H

#include <stdint.h>

#if defined(_WIN32)
#  if defined(UTIL_STATIC)
#    define UTIL_API
#  elif defined(UTIL_BUILDING)
#    define UTIL_API __declspec(dllexport)
#  else
#    define UTIL_API __declspec(dllimport)
#  endif
#  define SSB_STDCALL __stdcall
#else
#  if defined(UTIL_BUILDING) && !defined(UTIL_STATIC)
#    define UTIL_API __attribute__((visibility("default")))
#  else
#    define UTIL_API
#  endif
#  define SSB_STDCALL
#endif

#define SSB_C_API extern "C" UTIL_API

namespace ssb {

// Result codes shared by every family. 0 is success.
enum result_code_t {
    RESULT_SUCCESS = 0,
    RESULT_CREATE_FAILED = 1,
    RESULT_INVALID_ARG = 2,
    RESULT_QUEUE_FULL = 3,
    RESULT_NOT_FOUND = 5,
    RESULT_NOT_CREATED = 6,
    RESULT_QUEUE_EMPTY = 7,
    RESULT_OUT_OF_LIMIT = 8,
    RESULT_NOTHING_TO_DO = 9,
    RESULT_ALREADY_EXISTS = 10,
    RESULT_NOT_ENOUGH = 11,
    RESULT_REFUSED = 12,
    RESULT_STOPPED = 13,
    RESULT_BUSY = 16,
    RESULT_TIMER_RESTART = 21,
    RESULT_ABANDONED = 26,
    RESULT_RELEASE_FAILED = 34,
    RESULT_FAILURE = 999
};

// Log levels; lower is more severe.
enum log_level_t { LOG_FATAL = 0, LOG_ERROR = 1, LOG_WARNING = 2, LOG_INFO = 3, LOG_DEBUG = 4, LOG_FUNC = 5 };

// The library's own log module.
const unsigned int UTIL_MODULE_ID = 1;

class UTIL_API no_copy {
protected:
    no_copy() {}
    ~no_copy() {}

private:
    no_copy(const no_copy&);
    no_copy& operator=(const no_copy&);
};

}  // namespace ssb

#endif

// Clang's thread-safety annotations, empty for other compilers: they let
// `-Wthread-safety` check that guarded fields are touched under their lock.
#ifndef SSB_THREAD_ANNOTATIONS_H
#define SSB_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#  define UTIL_TSA(x) __attribute__((x))
#else
#  define UTIL_TSA(x)
#endif

#define UTIL_CAPABILITY(name) UTIL_TSA(capability(name))
#define UTIL_SCOPED_CAPABILITY UTIL_TSA(scoped_lockable)
#define UTIL_GUARDED_BY(lock) UTIL_TSA(guarded_by(lock))
#define UTIL_PT_GUARDED_BY(lock) UTIL_TSA(pt_guarded_by(lock))
#define UTIL_ACQUIRE(...) UTIL_TSA(acquire_capability(__VA_ARGS__))
#define UTIL_RELEASE(...) UTIL_TSA(release_capability(__VA_ARGS__))
#define UTIL_TRY_ACQUIRE(...) UTIL_TSA(try_acquire_capability(__VA_ARGS__))
#define UTIL_REQUIRES(...) UTIL_TSA(requires_capability(__VA_ARGS__))
#define UTIL_EXCLUDES(...) UTIL_TSA(locks_excluded(__VA_ARGS__))
#define UTIL_NO_THREAD_SAFETY_ANALYSIS UTIL_TSA(no_thread_safety_analysis)

#endif

// The operating-system layer. Every OS call of the library sits behind these
// functions; src/platform/posix and src/platform/win32 implement them.
//
// A function here does one OS thing and reports the OS error number; callers
// decide what that means (result codes, log lines). Handles are opaque.
#ifndef SSB_PLATFORM_H
#define SSB_PLATFORM_H

#include <stddef.h>
#include <stdio.h>
#include <stdint.h>

namespace ssb {
namespace plat {

const uint32_t WAIT_FOREVER = 0xFFFFFFFFu;

enum wait_status_t {
    WAIT_SIGNALLED,
    WAIT_TIMED_OUT,
    WAIT_OWNER_ABANDONED,
    WAIT_ERROR
};

// ---- threads and errors ------------------------------------------------
uint32_t current_thread_id();
uint32_t current_process_id();
void yield_thread();
void sleep_ms(uint32_t ms);
// errno on POSIX, GetLastError() on Windows.
int last_error();

// ---- recursive critical section in caller-provided storage --------------
const size_t CS_STORAGE_SIZE = 64;
void cs_init(void* storage);
void cs_destroy(void* storage);
void cs_enter(void* storage);
bool cs_try_enter(void* storage);
void cs_leave(void* storage);

// ---- process-private mutex, recursive for its owner ---------------------
typedef void* mutex_handle_t;
mutex_handle_t mutex_create();
void mutex_close(mutex_handle_t h);
wait_status_t mutex_lock(mutex_handle_t h, uint32_t timeout_ms);
// 0 or the OS error number.
int mutex_unlock(mutex_handle_t h);

// ---- events (Win32 semantics: manual/auto reset, pulse) -----------------
// An event can be waited on together with other handles: on Windows it is
// an event HANDLE, on POSIX its state is mirrored into an eventfd.
typedef void* event_handle_t;
event_handle_t event_create(bool manual_reset, bool initially_signalled);
void event_close(event_handle_t h);
int event_signal(event_handle_t h);
int event_pulse(event_handle_t h);
int event_reset(event_handle_t h);
wait_status_t event_wait(event_handle_t h, uint32_t timeout_ms);

// ---- semaphores ---------------------------------------------------------
// `error` receives the OS last-error value of the call: 0 for a fresh
// semaphore, the "already exists" code when a named one was opened instead.
typedef void* semaphore_handle_t;
semaphore_handle_t semaphore_create(int initial, int maximum, const char* name, int* error);
semaphore_handle_t semaphore_open(const char* name, int* error);
void semaphore_close(semaphore_handle_t h);
wait_status_t semaphore_wait(semaphore_handle_t h, uint32_t timeout_ms);
// 0 or the OS error number; `previous` (may be null) gets the count before.
int semaphore_post(semaphore_handle_t h, uint32_t n, int* previous);
int semaphore_value(semaphore_handle_t h, int* value);

// ---- one native thread-local index --------------------------------------
typedef uintptr_t tls_index_t;
bool tls_index_alloc(tls_index_t* index);
void tls_index_free(tls_index_t index);
void* tls_index_get(tls_index_t index);
bool tls_index_set(tls_index_t index, void* value);

// ---- clocks -------------------------------------------------------------
// High-resolution counter; false when the system has none.
bool perf_frequency(int64_t* counts_per_second);
bool perf_counter(int64_t* counts);
// Milliseconds from an arbitrary origin, wrapping at 2^32.
uint32_t tick_count_ms();
// Wall clock as 100-ns units since 1601-01-01 UTC.
uint64_t system_time_100ns();

// ---- calendar -------------------------------------------------------------
struct calendar_t {
    uint16_t year;
    uint16_t month;  // 1..12
    uint16_t day;    // 1..31
    uint16_t hour;
    uint16_t minute;
    uint16_t second;
    uint16_t millisecond;
    uint16_t day_of_week;  // 0 = Sunday
};
// The system's local time now, milliseconds included.
void local_time_now(calendar_t* out);
// Whole seconds since 1970-01-01 UTC now.
int64_t time_seconds();
// Seconds since 1970 broken down as local time or as UTC (millisecond 0);
// false when the system cannot represent the value.
bool seconds_to_local(int64_t seconds, calendar_t* out);
bool seconds_to_utc(int64_t seconds, calendar_t* out);

// ---- files and folders ------------------------------------------------------
// '\\' on Windows, '/' elsewhere.
extern const char PATH_SEPARATOR;
bool dir_exists(const char* path);
bool file_exists(const char* path);
// Creates one directory level; 0 or the OS error number.
int make_dir(const char* path);
// A per-user special folder by its Windows shell id (26 is the roaming
// application-data folder), without a trailing separator, created when asked.
// Elsewhere 26 and 28 map to $XDG_DATA_HOME (default ~/.local/share) and 5 to
// $HOME. 0 or the OS error number.
int special_folder(int folder_id, bool create, char* out, size_t size);
// Full path of the running executable; 0 or the OS error number.
int self_exe_path(char* out, size_t size);
// The current working directory; 0 or the OS error number.
int current_dir(char* out, size_t size);
// Opens a text file for writing, truncating it; null on failure.
FILE* open_text_file(const char* path);

}  // namespace plat
}  // namespace ssb

#endif

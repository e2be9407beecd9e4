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

#include "util_def.h"

namespace ssb {
namespace plat {

const uint32_t WAIT_FOREVER = 0xFFFFFFFFu;

enum wait_status_t { WAIT_SIGNALLED, WAIT_TIMED_OUT, WAIT_OWNER_ABANDONED, WAIT_ERROR };

// ---- threads and errors ------------------------------------------------
uint32_t current_thread_id();
uint32_t current_process_id();
void yield_thread();
void sleep_ms(uint32_t ms);
// errno on POSIX, GetLastError() on Windows.
int last_error();

// ---- recursive critical section in caller-provided storage --------------
const size_t CS_STORAGE_SIZE = 64;
// Polls of a held section before its waiter sleeps: a few microseconds,
// longer than the hot paths hold it, far shorter than a time slice.
const int CS_SPIN_COUNT = 128;
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
// An event can be waited on together with other events (event_wait_any):
// on Windows it is an event HANDLE; on POSIX a state word, the waits
// watching it each sleeping on a futex word of its own. A signal costs a
// system call only when a wait sleeps on the event, and touches the event
// no more once it is set, so a waiter may free it as soon as it is woken.
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

// ---- memory -------------------------------------------------------------
// The system's page size in bytes (sysconf; GetSystemInfo).
uint32_t page_size();

// A native thread-local value whose function runs on its thread as the
// thread ends, for a value that is not null: for threads the library did
// not start, which never call tls_cleanup (a pthread key destructor; a
// fiber-local storage callback). Never when the process ends (exit() runs
// no key destructor; Windows would run the callback after stopping the
// other threads wherever they were, locks held). At most EXIT_SLOT_MAX slots
// per process; they are never freed. Exported for the tests.
typedef uintptr_t exit_slot_t;
typedef void (*exit_slot_fn)(void* value);
const unsigned int EXIT_SLOT_MAX = 4;
UTIL_API bool exit_slot_alloc(exit_slot_t* slot, exit_slot_fn fn);
UTIL_API bool exit_slot_set(exit_slot_t slot, void* value);

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
// Full path of the running executable; 0 or the OS error number. Exported
// for the tests.
UTIL_API int self_exe_path(char* out, size_t size);
// The current working directory; 0 or the OS error number.
int current_dir(char* out, size_t size);
// Opens a text file for writing, truncating it; null on failure.
FILE* open_text_file(const char* path);
// True when the open file no longer has a name (it, or its folder, was
// removed while open), so what is written to it is lost. Windows never
// removes a file while the C runtime holds it open.
bool file_unlinked(FILE* file);
// The temporary folder without a trailing separator ($TMPDIR when absolute,
// else /tmp; GetTempPath on Windows); 0 or the OS error number.
int temp_folder(char* out, size_t size);

// ---- configuration files ------------------------------------------------------
// Opens a file for binary reading; null on failure. On POSIX a '\\' in the
// path is read as '/', so paths built with Windows separators work there.
FILE* open_read_file(const char* path);
// Replaces a file's contents in one step: the data goes to a temporary file
// next to it, which is then renamed over the path (keeping the old file's
// permissions; through a symbolic link, its target). A read-only file is
// refused even for a privileged user, and any failure leaves the old file as
// it was. Same '\\' reading as open_read_file. 0 or the OS error number.
int replace_file(const char* path, const char* data, size_t size);

// ---- system information -------------------------------------------------------
// What the system reports about itself. Windows fills the version fields,
// POSIX the uname and os-release ones; the shared code formats either.
struct system_raw_t {
    bool windows;
    uint32_t major;
    uint32_t minor;
    uint32_t product_type;  // 1 workstation, 2 domain controller, 3 server
    uint32_t suite_mask;
    uint32_t product;  // GetProductInfo's number; 0 without it
    int r2;            // GetSystemMetrics(SM_SERVERR2)
    char sysname[65];
    char release[65];
    char machine[65];
    char os_release[4096];  // the start of /etc/os-release (or /usr/lib/os-release)
};
enum sysinfo_status_t {
    SYSINFO_OK,
    SYSINFO_NO_SYSTEM_MODULE,  // kernel32.dll could not be loaded
    SYSINFO_FAILED
};
sysinfo_status_t system_query(system_raw_t* out);
// Whether the processor runs a 64-bit system (GetNativeSystemInfo looked up
// at run time, so a 32-bit process on a 64-bit Windows says true).
sysinfo_status_t native_64bit(bool* is_64bits);
// Processors online now, and configured.
uint32_t cpus_online();
uint32_t cpus_configured();
// CPU time the process has used, user and kernel, in microseconds.
bool process_cpu_time_us(uint64_t* out);

enum module_version_t { MODULE_VERSION_OK, MODULE_ABSENT, MODULE_NO_VERSION };
// A module's four version numbers: on Windows from the version resource of
// the named DLL (version.dll looked up at run time); on POSIX from the
// numbers after ".so." in the real file name of a loaded shared object
// whose name is `name` or starts with `name` and a '.'.
module_version_t module_version(const char* name, uint32_t parts[4]);

// ---- OS threads -------------------------------------------------------------
// A started thread: a HANDLE on Windows, a small reference-counted block on
// POSIX. The invalid value is all ones. One thread at a time may wait on,
// close or detach a given handle; any thread may hold a copy of its value.
typedef uintptr_t thread_handle_t;
const thread_handle_t INVALID_THREAD_HANDLE = ~static_cast<thread_handle_t>(0);
typedef void (*thread_fn_t)(void*);

// Runs fn(arg) once on a new thread with the default stack (_beginthreadex,
// no flags, exit code 0; pthread_create). On success *tid is the new
// thread's id, which it had already published when this returns, so the
// creator and the thread agree on it. 0 or the OS error number.
int thread_create(thread_fn_t fn, void* arg, thread_handle_t* out, uint32_t* tid);
// Waits until the thread has ended; WAIT_FOREVER waits without limit. Once a
// wait reported WAIT_SIGNALLED, later waits on the handle report it at once.
// WAIT_ERROR leaves the error number for last_error().
wait_status_t thread_wait(thread_handle_t h, uint32_t timeout_ms);
// Releases a handle, normally after a signalled wait. A thread that has not
// been waited for runs on and its resources go when it ends. 0 or the OS
// error number.
int thread_close(thread_handle_t h);
// Releases a handle without waiting: the thread runs on and its resources
// go when it ends (pthread_detach; CloseHandle). 0 or the OS error number.
int thread_detach(thread_handle_t h);
// Ends the thread at once with `exit_code` (TerminateThread). POSIX has no
// safe way to do that (pthread_cancel unwinds through code that never
// expected it; killing a thread leaves its locks held), so there this
// touches nothing and returns ENOTSUP. The handle stays to be closed or
// detached. 0 or the OS error number.
int thread_terminate(thread_handle_t h, uint32_t exit_code);
// Whether thread_terminate really ends threads here (exported for tests).
UTIL_API bool thread_terminate_supported();
// Restricts the thread to the CPUs whose bits are set in `mask` (bit n is
// CPU n; on 32-bit Windows only the low 32 bits count). 0 or the OS error
// number; a thread that has ended and been waited for gives an error.
int thread_set_affinity(thread_handle_t h, uint64_t mask);
// The same for the calling thread.
int set_current_thread_affinity(uint64_t mask);
// Asks for a 1 ms system timer resolution while the library runs
// (timeBeginPeriod/timeEndPeriod); POSIX timers need nothing. 0 or the OS
// error.
int timer_resolution_begin();
int timer_resolution_end();

// ---- readiness waits ----------------------------------------------------------
// One wait over many handles, for the I/O repository's demultiplexers.

const uint32_t READY_READ = 1u;
const uint32_t READY_WRITE = 2u;
const uint32_t READY_ERROR = 4u;

// One socket (or, where pipe_waitable() holds, a pipe read end) in a
// socket_wait_any call: `wanted` is asked, `ready` is filled in.
struct socket_ready_t {
    uintptr_t handle;
    uint32_t wanted;
    uint32_t ready;
};

// The most entries socket_wait_any takes: Windows' select is compiled for
// this many sockets. POSIX polls and has no such limit.
const size_t SOCKET_WAIT_MAX = 1040;

// Waits until an entry is ready for what it wants or has an error
// (READY_ERROR is reported whether asked or not). timeout_ms < 0 waits
// without limit. Returns the number of ready entries, 0 on time-out, -1 on
// failure with *error the OS error number. poll on POSIX, select on Windows.
int socket_wait_any(socket_ready_t* entries, size_t count, int timeout_ms, int* error);

// WaitForMultipleObjects' limit, kept on every system.
const size_t EVENT_WAIT_MAX = 64;

// Waits until one of `count` (1..EVENT_WAIT_MAX) events is signalled:
// WAIT_SIGNALLED with *index the lowest signalled one, which is reset when
// it is an auto-reset event (so it wakes one wait, as on Windows);
// WAIT_TIMED_OUT; WAIT_ERROR with *error the OS error number. A pulse meets
// only the threads inside event_wait, never this wait.
wait_status_t event_wait_any(const event_handle_t* events, size_t count, uint32_t timeout_ms, size_t* index,
                             int* error);

// Whether an anonymous pipe's read end may join socket_wait_any: true on
// POSIX; false on Windows, whose select takes sockets only.
bool pipe_waitable();

// ---- descriptor limits (fault injection in tests; exported for them) ------
// Whether this system has a per-process descriptor limit a test may lower.
UTIL_API bool descriptor_limit_supported();
// The lowest free descriptor number now; -1 where there is none.
UTIL_API int lowest_free_descriptor();
// Sets the soft limit on open descriptors: 0 or the OS error number.
UTIL_API int set_descriptor_limit(unsigned long limit);
UTIL_API unsigned long descriptor_limit();

// ---- process census (leak checks in tests; exported for them) -------------
// The process's OS threads now (/proc/self/task; a Toolhelp snapshot), or
// -1 where it cannot be counted.
UTIL_API int os_thread_count();
// The process's open descriptors or handles now (/proc/self/fd;
// GetProcessHandleCount), or -1 where they cannot be counted.
UTIL_API int open_handle_count();

// ---- sockets and pipes ------------------------------------------------------
// Functions returning int give 0 or the OS error number (WSAGetLastError on
// Windows, errno elsewhere); the shared code classifies it with the helpers
// below and never names an error value itself.

// A Windows SOCKET or a POSIX descriptor. Both systems' invalid value
// (INVALID_SOCKET, -1) is all ones in this width.
typedef uintptr_t socket_handle_t;
const socket_handle_t INVALID_SOCKET_HANDLE = ~static_cast<socket_handle_t>(0);

// WSAStartup asking for 2.2, and WSACleanup; nothing to do on POSIX.
int socket_startup();
int socket_cleanup();
// The calling thread's error number from its last failed socket call.
int socket_last_error();
// WSAEWOULDBLOCK; EAGAIN or EWOULDBLOCK.
bool socket_would_block(int error);
// A non-blocking connect still under way: WSAEWOULDBLOCK; EINPROGRESS too.
bool socket_connect_pending(int error);
// WSAEINTR; EINTR.
bool socket_interrupted(int error);

// An IPv4 TCP socket, close-on-exec (not inherited on Windows).
int socket_open_tcp4(socket_handle_t* out);
int socket_close(socket_handle_t s);
int socket_set_nonblocking(socket_handle_t s);
// Small writes leave at once instead of waiting for the peer's ACK.
int socket_set_nodelay(socket_handle_t s);
// 127.0.0.1:port; port 0 lets the system choose.
int socket_bind_loopback(socket_handle_t s, uint16_t port);
int socket_listen(socket_handle_t s, int backlog);
int socket_local_port(socket_handle_t s, uint16_t* port);
int socket_connect_loopback(socket_handle_t s, uint16_t port);
// The accepted socket is close-on-exec; it does not inherit non-blocking
// mode everywhere, so callers set it.
int socket_accept(socket_handle_t s, socket_handle_t* out);
// Never raises SIGPIPE: a closed peer is reported as an error.
int socket_send(socket_handle_t s, const void* data, size_t size, size_t* sent);
// *received is 0 when the peer has closed the connection.
int socket_recv(socket_handle_t s, void* data, size_t size, size_t* received);

enum io_wait_t {
    IO_READABLE,
    IO_EXCEPTION,  // out-of-band data or a failed connect; wins over readable
    IO_TIMED_OUT,
    IO_ERROR,   // *error has the OS error number
    IO_NOTHING  // the wait ended with neither condition
};
// Waits until the socket is readable or has an exceptional condition.
// timeout_ms < 0 waits without limit. Not limited by FD_SETSIZE on POSIX.
io_wait_t socket_wait_readable(socket_handle_t s, int timeout_ms, int* error);

// An anonymous pipe end: a Windows HANDLE or a POSIX descriptor. Both
// systems' invalid value (INVALID_HANDLE_VALUE, -1) is all ones here.
typedef uintptr_t pipe_handle_t;
const pipe_handle_t INVALID_PIPE_HANDLE = ~static_cast<pipe_handle_t>(0);

// Both ends non-blocking and close-on-exec (not inherited on Windows).
int pipe_open(pipe_handle_t* read_end, pipe_handle_t* write_end);
int pipe_close(pipe_handle_t h);
// A full pipe is either a would-block error or 0 with *written 0.
int pipe_write(pipe_handle_t h, const void* data, size_t size, size_t* written);
// An empty pipe is a would-block error.
int pipe_read(pipe_handle_t h, void* data, size_t size, size_t* got);
// ERROR_NO_DATA on a PIPE_NOWAIT handle; EAGAIN or EWOULDBLOCK.
bool pipe_would_block(int error);
// EINTR; never on Windows.
bool pipe_interrupted(int error);
// Waits until the read end has data (IO_READABLE), IO_TIMED_OUT or IO_ERROR.
// Windows cannot select on a pipe, so there it polls the byte count with
// short sleeps: a wake-up may come up to a scheduler tick late.
io_wait_t pipe_wait_readable(pipe_handle_t h, int timeout_ms, int* error);

// ---- identifiers ----------------------------------------------------------
// A fresh random (version 4) UUID in the memory layout of a Windows GUID:
// UuidCreate on Windows; elsewhere 16 bytes from the kernel's random source
// (getrandom, else /dev/urandom) with the version and variant bits placed
// where UuidCreate puts them. 0 or the error (an RPC status or errno); the
// bytes are filled, as well as the source could, either way.
int uuid_create(unsigned char out[16]);

// ---- text conversions -------------------------------------------------------
// Multibyte to wide text: UTF-8 to UTF-32 on POSIX (an invalid byte becomes
// U+FFFD), the ANSI code page to UTF-16 on Windows. Writes at most dst_len
// characters (none when dst is null) and returns how many the whole
// conversion gives.
size_t mbs_to_wcs(const char* src, size_t len, wchar_t* dst, size_t dst_len);
// The way back; a wide character that is no Unicode scalar value becomes
// U+FFFD on POSIX.
size_t wcs_to_mbs(const wchar_t* src, size_t len, char* dst, size_t dst_len);

// ---- network addresses ------------------------------------------------------
// AF_INET and AF_INET6 of this system (AF_INET6 is 10 on Linux, 23 on Windows).
extern UTIL_API const int FAMILY_INET;
extern UTIL_API const int FAMILY_INET6;
// The IPv4 addresses held by this machine's interfaces, in network order:
// fills at most `max` and returns how many there are, or -1 with *error the
// OS error number (getifaddrs; gethostname and getaddrinfo on Windows, which
// needs the socket library started).
int local_ipv4_addresses(uint32_t* out, size_t max, int* error);

// The system's own conversions, exported so that the tests can hold the
// library's against them. system_inet_reference() is true where they are
// the forms the library reproduces (glibc); elsewhere they are only
// comparable on the inputs where both systems agree. system_fnmatch gives
// fnmatch(pattern, text, 0) == 0, or -1 where the system has no fnmatch.
UTIL_API bool system_inet_reference();
UTIL_API int system_inet_pton(int af, const char* src, void* dst);
UTIL_API const char* system_inet_ntop(int af, const void* src, char* dst, size_t size);
UTIL_API uint32_t system_inet_addr(const char* text);
UTIL_API int system_fnmatch(const char* pattern, const char* text);

}  // namespace plat
}  // namespace ssb

#endif

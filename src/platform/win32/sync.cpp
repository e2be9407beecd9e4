#include <windows.h>

#include <new>

#include "../platform.h"

namespace ssb {
namespace plat {

namespace {

wait_status_t to_status(DWORD rc) {
    switch (rc) {
    case WAIT_OBJECT_0:
        return WAIT_SIGNALLED;
    case WAIT_ABANDONED:
        return WAIT_OWNER_ABANDONED;
    case WAIT_TIMEOUT:
        return WAIT_TIMED_OUT;
    default:
        return WAIT_ERROR;
    }
}

DWORD to_timeout(uint32_t ms) { return ms == WAIT_FOREVER ? INFINITE : ms; }

}  // namespace

static_assert(sizeof(CRITICAL_SECTION) <= CS_STORAGE_SIZE, "critical section storage too small");

// ---- critical section -------------------------------------------------------

// Spinning before the wait lets a writer in while the holder, on another
// core, finishes a push, instead of a sleep and a wake-up.
void cs_init(void* storage) {
    InitializeCriticalSectionAndSpinCount(new (storage) CRITICAL_SECTION, static_cast<DWORD>(CS_SPIN_COUNT));
}

void cs_destroy(void* storage) { DeleteCriticalSection(static_cast<CRITICAL_SECTION*>(storage)); }

void cs_enter(void* storage) { EnterCriticalSection(static_cast<CRITICAL_SECTION*>(storage)); }

bool cs_try_enter(void* storage) { return TryEnterCriticalSection(static_cast<CRITICAL_SECTION*>(storage)) != FALSE; }

void cs_leave(void* storage) { LeaveCriticalSection(static_cast<CRITICAL_SECTION*>(storage)); }

// ---- mutex --------------------------------------------------------------------

mutex_handle_t mutex_create() { return CreateMutexA(nullptr, FALSE, nullptr); }

void mutex_close(mutex_handle_t h) { CloseHandle(h); }

wait_status_t mutex_lock(mutex_handle_t h, uint32_t timeout_ms) {
    return to_status(WaitForSingleObject(h, to_timeout(timeout_ms)));
}

int mutex_unlock(mutex_handle_t h) { return ReleaseMutex(h) ? 0 : static_cast<int>(GetLastError()); }

// ---- event --------------------------------------------------------------------

event_handle_t event_create(bool manual_reset, bool initially_signalled) {
    return CreateEventA(nullptr, manual_reset, initially_signalled, nullptr);
}

void event_close(event_handle_t h) { CloseHandle(h); }

int event_signal(event_handle_t h) { return SetEvent(h) ? 0 : static_cast<int>(GetLastError()); }

int event_pulse(event_handle_t h) { return PulseEvent(h) ? 0 : static_cast<int>(GetLastError()); }

int event_reset(event_handle_t h) { return ResetEvent(h) ? 0 : static_cast<int>(GetLastError()); }

wait_status_t event_wait(event_handle_t h, uint32_t timeout_ms) {
    return to_status(WaitForSingleObject(h, to_timeout(timeout_ms)));
}

// ---- semaphore ------------------------------------------------------------------

semaphore_handle_t semaphore_create(int initial, int maximum, const char* name, int* error) {
    SetLastError(0);
    HANDLE h = CreateSemaphoreA(nullptr, initial, maximum, name);
    *error = static_cast<int>(GetLastError());
    return h;
}

semaphore_handle_t semaphore_open(const char* name, int* error) {
    SetLastError(0);
    HANDLE h = OpenSemaphoreA(SEMAPHORE_ALL_ACCESS, TRUE, name);
    *error = static_cast<int>(GetLastError());
    return h;
}

void semaphore_close(semaphore_handle_t h) { CloseHandle(h); }

wait_status_t semaphore_wait(semaphore_handle_t h, uint32_t timeout_ms) {
    return to_status(WaitForSingleObject(h, to_timeout(timeout_ms)));
}

int semaphore_post(semaphore_handle_t h, uint32_t n, int* previous) {
    LONG prev = 0;
    if (!ReleaseSemaphore(h, static_cast<LONG>(n), &prev))
        return static_cast<int>(GetLastError());
    if (previous)
        *previous = prev;
    return 0;
}

namespace {

struct semaphore_basic_information_t {
    LONG current;
    LONG maximum;
};

typedef LONG(WINAPI* nt_query_semaphore_fn)(HANDLE, int, PVOID, ULONG, PULONG);

}  // namespace

int semaphore_value(semaphore_handle_t h, int* value) {
    // ReleaseSemaphore refuses a count of 0, so ask the kernel directly.
    static nt_query_semaphore_fn query = reinterpret_cast<nt_query_semaphore_fn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtQuerySemaphore")));
    if (!query)
        return ERROR_NOT_SUPPORTED;
    semaphore_basic_information_t info;
    ULONG len = 0;
    if (query(h, 0, &info, sizeof(info), &len) != 0)
        return ERROR_INVALID_HANDLE;
    *value = static_cast<int>(info.current);
    return 0;
}

}  // namespace plat
}  // namespace ssb

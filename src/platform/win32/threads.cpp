#include <windows.h>
#include <mmsystem.h>

#include <errno.h>
#include <process.h>

#include <new>

#include "../platform.h"

namespace ssb {
namespace plat {

namespace {

struct thread_start_t {
    thread_fn_t m_fn;
    void* m_arg;
};

unsigned __stdcall thread_entry(void* p) {
    thread_start_t* start = static_cast<thread_start_t*>(p);
    thread_fn_t fn = start->m_fn;
    void* arg = start->m_arg;
    delete start;
    fn(arg);
    return 0;
}

HANDLE handle_of(thread_handle_t h) { return reinterpret_cast<HANDLE>(h); }

bool is_valid(thread_handle_t h) { return h != INVALID_THREAD_HANDLE && h != 0; }

}  // namespace

int thread_create(thread_fn_t fn, void* arg, thread_handle_t* out, uint32_t* tid) {
    if (!fn || !out || !tid)
        return ERROR_INVALID_PARAMETER;
    thread_start_t* start = new (std::nothrow) thread_start_t;
    if (!start)
        return ERROR_NOT_ENOUGH_MEMORY;
    start->m_fn = fn;
    start->m_arg = arg;
    unsigned int id = 0;
    // _beginthreadex hands the id back itself, so it is known before the
    // thread runs.
    uintptr_t h = _beginthreadex(nullptr, 0, thread_entry, start, 0, &id);
    if (h == 0) {
        int error = static_cast<int>(GetLastError());
        delete start;
        return error != 0 ? error : ERROR_NOT_ENOUGH_MEMORY;
    }
    *out = static_cast<thread_handle_t>(h);
    *tid = id;
    return 0;
}

wait_status_t thread_wait(thread_handle_t h, uint32_t timeout_ms) {
    if (!is_valid(h)) {
        SetLastError(ERROR_INVALID_HANDLE);
        return WAIT_ERROR;
    }
    switch (WaitForSingleObject(handle_of(h), timeout_ms)) {
    case WAIT_OBJECT_0:
        return WAIT_SIGNALLED;
    case WAIT_TIMEOUT:
        return WAIT_TIMED_OUT;
    default:
        return WAIT_ERROR;
    }
}

int thread_close(thread_handle_t h) {
    if (!is_valid(h))
        return ERROR_INVALID_HANDLE;
    return CloseHandle(handle_of(h)) ? 0 : static_cast<int>(GetLastError());
}

// A Windows thread never needs joining: dropping the handle is all.
int thread_detach(thread_handle_t h) { return thread_close(h); }

int thread_terminate(thread_handle_t h, uint32_t exit_code) {
    if (!is_valid(h))
        return ERROR_INVALID_HANDLE;
    return TerminateThread(handle_of(h), exit_code) ? 0 : static_cast<int>(GetLastError());
}

int thread_set_affinity(thread_handle_t h, uint64_t mask) {
    if (!is_valid(h))
        return ERROR_INVALID_HANDLE;
    DWORD_PTR m = static_cast<DWORD_PTR>(mask);
    return SetThreadAffinityMask(handle_of(h), m) != 0 ? 0 : static_cast<int>(GetLastError());
}

int set_current_thread_affinity(uint64_t mask) {
    DWORD_PTR m = static_cast<DWORD_PTR>(mask);
    return SetThreadAffinityMask(GetCurrentThread(), m) != 0 ? 0 : static_cast<int>(GetLastError());
}

int timer_resolution_begin() { return timeBeginPeriod(1) == TIMERR_NOERROR ? 0 : ERROR_INVALID_PARAMETER; }

int timer_resolution_end() { return timeEndPeriod(1) == TIMERR_NOERROR ? 0 : ERROR_INVALID_PARAMETER; }

}  // namespace plat
}  // namespace ssb

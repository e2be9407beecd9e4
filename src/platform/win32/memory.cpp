#include <windows.h>

#include <atomic>

#include "../platform.h"

namespace ssb {
namespace plat {

uint32_t page_size() {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwPageSize;
}

namespace {

// A fiber-local storage callback gets the value only: one trampoline per
// slot finds the function.
std::atomic<exit_slot_fn> s_exit_fns[EXIT_SLOT_MAX];
std::atomic<unsigned int> s_exit_used(0);

typedef BOOLEAN(NTAPI* shutdown_query_fn)();
// Looked up whenever a slot is made, never from a callback: at process
// exit nothing may wait on a lock (a function-local static's guard is one).
std::atomic<shutdown_query_fn> s_shutdown_query(nullptr);

template <unsigned int I>
VOID WINAPI exit_trampoline(PVOID value) {
    // The process's end runs these for the exiting thread after stopping
    // every other thread wherever it was, maybe inside a lock the function
    // takes, which would then wait for ever: the function is left out then,
    // as a pthread key destructor is at exit().
    shutdown_query_fn shutting_down = s_shutdown_query.load(std::memory_order_acquire);
    if (shutting_down && shutting_down())
        return;
    exit_slot_fn fn = s_exit_fns[I].load(std::memory_order_acquire);
    if (fn && value)
        fn(value);
}

const PFLS_CALLBACK_FUNCTION s_trampolines[EXIT_SLOT_MAX] = {exit_trampoline<0>, exit_trampoline<1>, exit_trampoline<2>,
                                                             exit_trampoline<3>};

}  // namespace

bool exit_slot_alloc(exit_slot_t* slot, exit_slot_fn fn) {
    unsigned int i = s_exit_used.fetch_add(1, std::memory_order_relaxed);
    if (i >= EXIT_SLOT_MAX)
        return false;
    s_exit_fns[i].store(fn, std::memory_order_release);
    s_shutdown_query.store(reinterpret_cast<shutdown_query_fn>(reinterpret_cast<void*>(
                               GetProcAddress(GetModuleHandleA("ntdll.dll"), "RtlDllShutdownInProgress"))),
                           std::memory_order_release);
    DWORD index = FlsAlloc(s_trampolines[i]);
    if (index == FLS_OUT_OF_INDEXES)
        return false;
    *slot = static_cast<exit_slot_t>(index);
    return true;
}

bool exit_slot_set(exit_slot_t slot, void* value) { return FlsSetValue(static_cast<DWORD>(slot), value) != FALSE; }

}  // namespace plat
}  // namespace ssb

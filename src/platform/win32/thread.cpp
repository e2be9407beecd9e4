#include <windows.h>

#include "../platform.h"

namespace ssb {
namespace plat {

uint32_t current_thread_id() { return GetCurrentThreadId(); }

uint32_t current_process_id() { return GetCurrentProcessId(); }

void yield_thread() { SwitchToThread(); }

void sleep_ms(uint32_t ms) { Sleep(ms); }

int last_error() { return static_cast<int>(GetLastError()); }

bool tls_index_alloc(tls_index_t* index) {
    DWORD i = TlsAlloc();
    if (i == TLS_OUT_OF_INDEXES)
        return false;
    *index = i;
    return true;
}

void tls_index_free(tls_index_t index) { TlsFree(static_cast<DWORD>(index)); }

void* tls_index_get(tls_index_t index) { return TlsGetValue(static_cast<DWORD>(index)); }

bool tls_index_set(tls_index_t index, void* value) { return TlsSetValue(static_cast<DWORD>(index), value) != FALSE; }

}  // namespace plat
}  // namespace ssb

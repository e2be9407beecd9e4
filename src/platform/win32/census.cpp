#include <windows.h>

#include <tlhelp32.h>

#include "platform/platform.h"

namespace ssb {
namespace plat {

int os_thread_count() {
    HANDLE snap = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snap == INVALID_HANDLE_VALUE)
        return -1;
    const DWORD pid = GetCurrentProcessId();
    THREADENTRY32 entry;
    entry.dwSize = sizeof(entry);
    int n = 0;
    for (BOOL more = Thread32First(snap, &entry); more; more = Thread32Next(snap, &entry))
        if (entry.th32OwnerProcessID == pid)
            ++n;
    CloseHandle(snap);
    return n;
}

int open_handle_count() {
    DWORD count = 0;
    return GetProcessHandleCount(GetCurrentProcess(), &count) ? static_cast<int>(count) : -1;
}

}  // namespace plat
}  // namespace ssb

#include <windows.h>

#include <stdio.h>

#include <string>

#include "../platform.h"

namespace ssb {
namespace plat {

FILE* open_read_file(const char* path) {
    if (!path || !*path)
        return nullptr;
    return fopen(path, "rb");
}

int replace_file(const char* path, const char* data, size_t size) {
    if (!path || !*path)
        return ERROR_INVALID_PARAMETER;
    DWORD attributes = GetFileAttributesA(path);
    if (attributes != INVALID_FILE_ATTRIBUTES) {
        if (attributes & FILE_ATTRIBUTE_DIRECTORY)
            return ERROR_ACCESS_DENIED;
        if (attributes & FILE_ATTRIBUTE_READONLY)
            return ERROR_ACCESS_DENIED;
    }
    static volatile LONG s_serial = 0;
    char suffix[48];
    snprintf(suffix, sizeof(suffix), ".%lu.%ld.tmp", static_cast<unsigned long>(GetCurrentProcessId()),
             static_cast<long>(InterlockedIncrement(&s_serial)));
    std::string temp = std::string(path) + suffix;
    HANDLE h = CreateFileA(temp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE)
        return static_cast<int>(GetLastError());
    int rc = 0;
    while (rc == 0 && size > 0) {
        DWORD chunk = size > 0x40000000u ? 0x40000000u : static_cast<DWORD>(size);
        DWORD written = 0;
        if (!WriteFile(h, data, chunk, &written, nullptr))
            rc = static_cast<int>(GetLastError());
        data += written;
        size -= written;
    }
    if (rc == 0 && !FlushFileBuffers(h))
        rc = static_cast<int>(GetLastError());
    CloseHandle(h);
    if (rc == 0 && !MoveFileExA(temp.c_str(), path, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        rc = static_cast<int>(GetLastError());
    if (rc != 0)
        DeleteFileA(temp.c_str());
    return rc;
}

}  // namespace plat
}  // namespace ssb

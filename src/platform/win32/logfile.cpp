#include <windows.h>

#include <io.h>
#include <stdio.h>
#include <string.h>

#include "../platform.h"

namespace ssb {
namespace plat {

bool file_unlinked(FILE* file) {
    HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
    BY_HANDLE_FILE_INFORMATION info;
    if (h == INVALID_HANDLE_VALUE || !GetFileInformationByHandle(h, &info))
        return false;
    return info.nNumberOfLinks == 0;
}

int temp_folder(char* out, size_t size) {
    char path[MAX_PATH + 1];
    DWORD n = GetTempPathA(sizeof(path), path);
    if (n == 0 || n > MAX_PATH)
        return static_cast<int>(GetLastError() ? GetLastError() : ERROR_BUFFER_OVERFLOW);
    while (n > 3 && path[n - 1] == '\\')
        path[--n] = 0;
    if (!out || n + 1 > size)
        return ERROR_BUFFER_OVERFLOW;
    memcpy(out, path, n + 1);
    return 0;
}

}  // namespace plat
}  // namespace ssb

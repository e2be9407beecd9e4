#include <windows.h>

#include <shlobj.h>
#include <stdio.h>
#include <string.h>

#include "../platform.h"

namespace ssb {
namespace plat {

const char PATH_SEPARATOR = '\\';

bool dir_exists(const char* path) {
    DWORD a = GetFileAttributesA(path);
    return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY);
}

bool file_exists(const char* path) {
    DWORD a = GetFileAttributesA(path);
    return a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY);
}

int make_dir(const char* path) {
    if (CreateDirectoryA(path, nullptr))
        return 0;
    DWORD e = GetLastError();
    return e == ERROR_ALREADY_EXISTS && dir_exists(path) ? 0 : static_cast<int>(e);
}

int special_folder(int folder_id, bool create, char* out, size_t size) {
    char buf[MAX_PATH];
    if (!SHGetSpecialFolderPathA(nullptr, buf, folder_id, create ? TRUE : FALSE))
        return static_cast<int>(GetLastError() ? GetLastError() : ERROR_PATH_NOT_FOUND);
    size_t n = strlen(buf);
    while (n > 3 && (buf[n - 1] == '\\' || buf[n - 1] == '/'))
        buf[--n] = 0;
    if (n + 1 > size)
        return ERROR_INSUFFICIENT_BUFFER;
    memcpy(out, buf, n + 1);
    return 0;
}

int self_exe_path(char* out, size_t size) {
    DWORD n = GetModuleFileNameA(nullptr, out, static_cast<DWORD>(size));
    if (n == 0)
        return static_cast<int>(GetLastError());
    if (n >= size)
        return ERROR_INSUFFICIENT_BUFFER;
    return 0;
}

int current_dir(char* out, size_t size) {
    DWORD n = GetCurrentDirectoryA(static_cast<DWORD>(size), out);
    if (n == 0)
        return static_cast<int>(GetLastError());
    if (n >= size)
        return ERROR_INSUFFICIENT_BUFFER;
    return 0;
}

FILE* open_text_file(const char* path) { return fopen(path, "w+t"); }

}  // namespace plat
}  // namespace ssb

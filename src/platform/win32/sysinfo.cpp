#include <windows.h>

#include <string.h>

#include <vector>

#include "../platform.h"

namespace ssb {
namespace plat {

namespace {

typedef BOOL(WINAPI* get_product_info_fn)(DWORD, DWORD, DWORD, DWORD, PDWORD);
typedef void(WINAPI* get_native_system_info_fn)(LPSYSTEM_INFO);
typedef DWORD(WINAPI* get_maximum_processor_count_fn)(WORD);
typedef DWORD(WINAPI* version_info_size_fn)(LPCSTR, LPDWORD);
typedef BOOL(WINAPI* version_info_fn)(LPCSTR, DWORD, DWORD, LPVOID);
typedef BOOL(WINAPI* ver_query_value_fn)(LPCVOID, LPCSTR, LPVOID*, PUINT);

// Looked up by name so the library still loads on systems without them.
template <class fn_type>
fn_type lookup(HMODULE module, const char* name) {
    FARPROC p = GetProcAddress(module, name);
    fn_type fn;
    memcpy(&fn, &p, sizeof(fn));
    return fn;
}

}  // namespace

sysinfo_status_t system_query(system_raw_t* out) {
    memset(out, 0, sizeof(*out));
    out->windows = true;
    HMODULE kernel = LoadLibraryA("kernel32.dll");
    if (!kernel)
        return SYSINFO_NO_SYSTEM_MODULE;
    OSVERSIONINFOEXA info;
    memset(&info, 0, sizeof(info));
    info.dwOSVersionInfoSize = sizeof(info);
    if (!GetVersionExA(reinterpret_cast<OSVERSIONINFOA*>(&info))) {
        FreeLibrary(kernel);
        return SYSINFO_FAILED;
    }
    out->major = info.dwMajorVersion;
    out->minor = info.dwMinorVersion;
    out->product_type = info.wProductType;
    out->suite_mask = info.wSuiteMask;
    out->r2 = GetSystemMetrics(SM_SERVERR2);
    get_product_info_fn product_info = lookup<get_product_info_fn>(kernel, "GetProductInfo");
    DWORD product = 0;
    if (product_info && product_info(info.dwMajorVersion, info.dwMinorVersion, 0, 0, &product))
        out->product = product;
    FreeLibrary(kernel);
    return SYSINFO_OK;
}

sysinfo_status_t native_64bit(bool* is_64bits) {
    HMODULE kernel = LoadLibraryA("kernel32.dll");
    if (!kernel)
        return SYSINFO_NO_SYSTEM_MODULE;
    SYSTEM_INFO si;
    memset(&si, 0, sizeof(si));
    get_native_system_info_fn native = lookup<get_native_system_info_fn>(kernel, "GetNativeSystemInfo");
    if (native)
        native(&si);
    else
        GetSystemInfo(&si);
    FreeLibrary(kernel);
    WORD arch = si.wProcessorArchitecture;
    *is_64bits = arch == PROCESSOR_ARCHITECTURE_AMD64 || arch == PROCESSOR_ARCHITECTURE_IA64 || arch == 12;  // ARM64
    return SYSINFO_OK;
}

uint32_t cpus_online() {
    SYSTEM_INFO si;
    GetSystemInfo(&si);
    return si.dwNumberOfProcessors > 0 ? si.dwNumberOfProcessors : 1;
}

uint32_t cpus_configured() {
    HMODULE kernel = GetModuleHandleA("kernel32.dll");
    get_maximum_processor_count_fn count =
        kernel ? lookup<get_maximum_processor_count_fn>(kernel, "GetMaximumProcessorCount") : nullptr;
    if (count) {
        DWORD n = count(0xFFFF);  // ALL_PROCESSOR_GROUPS
        if (n > 0)
            return n;
    }
    return cpus_online();
}

bool process_cpu_time_us(uint64_t* out) {
    FILETIME created, ended, kernel, user;
    if (!GetProcessTimes(GetCurrentProcess(), &created, &ended, &kernel, &user))
        return false;
    uint64_t k = (static_cast<uint64_t>(kernel.dwHighDateTime) << 32) | kernel.dwLowDateTime;
    uint64_t u = (static_cast<uint64_t>(user.dwHighDateTime) << 32) | user.dwLowDateTime;
    *out = (k + u) / 10u;
    return true;
}

module_version_t module_version(const char* name, uint32_t parts[4]) {
    HMODULE version = LoadLibraryA("version.dll");
    if (!version)
        return MODULE_NO_VERSION;
    version_info_size_fn info_size = lookup<version_info_size_fn>(version, "GetFileVersionInfoSizeA");
    version_info_fn info = lookup<version_info_fn>(version, "GetFileVersionInfoA");
    ver_query_value_fn query = lookup<ver_query_value_fn>(version, "VerQueryValueA");
    module_version_t result = MODULE_NO_VERSION;
    if (info_size && info && query) {
        // A loaded module is asked by its full path; otherwise the name is
        // searched for as LoadLibrary would.
        char path[MAX_PATH * 2];
        const char* file = name;
        HMODULE loaded = GetModuleHandleA(name);
        if (loaded && GetModuleFileNameA(loaded, path, sizeof(path)) > 0)
            file = path;
        DWORD ignored = 0;
        DWORD size = info_size(file, &ignored);
        if (size == 0) {
            DWORD error = GetLastError();
            result = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND || error == ERROR_MOD_NOT_FOUND
                         ? MODULE_ABSENT
                         : MODULE_NO_VERSION;
        } else {
            std::vector<char> block(size);
            VS_FIXEDFILEINFO* fixed = nullptr;
            UINT fixed_size = 0;
            if (info(file, 0, size, block.data()) &&
                query(block.data(), "\\", reinterpret_cast<LPVOID*>(&fixed), &fixed_size) && fixed &&
                fixed_size >= sizeof(VS_FIXEDFILEINFO)) {
                parts[0] = HIWORD(fixed->dwFileVersionMS);
                parts[1] = LOWORD(fixed->dwFileVersionMS);
                parts[2] = HIWORD(fixed->dwFileVersionLS);
                parts[3] = LOWORD(fixed->dwFileVersionLS);
                result = MODULE_VERSION_OK;
            }
        }
    }
    FreeLibrary(version);
    return result;
}

}  // namespace plat
}  // namespace ssb

#include <link.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "../platform.h"

namespace ssb {
namespace plat {

namespace {

void copy_text(char* out, size_t size, const char* text) { snprintf(out, size, "%s", text); }

bool read_start(const char* path, char* out, size_t size) {
    FILE* f = fopen(path, "rb");
    if (!f)
        return false;
    size_t n = fread(out, 1, size - 1, f);
    out[n] = '\0';
    fclose(f);
    return true;
}

struct module_search_t {
    const char* name;
    size_t name_len;
    std::string path;
};

bool name_fits(const char* file, const module_search_t& search) {
    const char* base = strrchr(file, '/');
    base = base ? base + 1 : file;
    return strncmp(base, search.name, search.name_len) == 0 &&
           (base[search.name_len] == '\0' || base[search.name_len] == '.');
}

int find_module(struct dl_phdr_info* info, size_t, void* context) {
    module_search_t* search = static_cast<module_search_t*>(context);
    if (!info->dlpi_name || !*info->dlpi_name)
        return 0;
    std::string real = info->dlpi_name;
    if (char* resolved = realpath(info->dlpi_name, nullptr)) {
        real = resolved;
        free(resolved);
    }
    if (name_fits(info->dlpi_name, *search) || name_fits(real.c_str(), *search)) {
        search->path = real;
        return 1;
    }
    return 0;
}

}  // namespace

sysinfo_status_t system_query(system_raw_t* out) {
    memset(out, 0, sizeof(*out));
    out->windows = false;
    struct utsname u;
    if (uname(&u) != 0)
        return SYSINFO_FAILED;
    copy_text(out->sysname, sizeof(out->sysname), u.sysname);
    copy_text(out->release, sizeof(out->release), u.release);
    copy_text(out->machine, sizeof(out->machine), u.machine);
    if (!read_start("/etc/os-release", out->os_release, sizeof(out->os_release)))
        read_start("/usr/lib/os-release", out->os_release, sizeof(out->os_release));
    return SYSINFO_OK;
}

sysinfo_status_t native_64bit(bool* is_64bits) {
    struct utsname u;
    if (uname(&u) != 0)
        return SYSINFO_FAILED;
    // x86_64, aarch64, ppc64le, riscv64, mips64, sparc64, loongarch64; s390x
    // is the one 64-bit name without "64".
    *is_64bits = strstr(u.machine, "64") != nullptr || strcmp(u.machine, "s390x") == 0;
    return SYSINFO_OK;
}

uint32_t cpus_online() {
    long n = sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? static_cast<uint32_t>(n) : 1;
}

uint32_t cpus_configured() {
    long n = sysconf(_SC_NPROCESSORS_CONF);
    return n > 0 ? static_cast<uint32_t>(n) : cpus_online();
}

bool process_cpu_time_us(uint64_t* out) {
    struct timespec ts;
    if (clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts) != 0)
        return false;
    *out = static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
    return true;
}

module_version_t module_version(const char* name, uint32_t parts[4]) {
    module_search_t search;
    search.name = name;
    search.name_len = strlen(name);
    if (search.name_len == 0 || dl_iterate_phdr(find_module, &search) == 0)
        return MODULE_ABSENT;
    const char* base = strrchr(search.path.c_str(), '/');
    base = base ? base + 1 : search.path.c_str();
    const char* so = strstr(base, ".so.");
    if (!so)
        return MODULE_NO_VERSION;
    const char* p = so + 4;
    for (int i = 0; i < 4; ++i)
        parts[i] = 0;
    for (int i = 0; i < 4; ++i) {
        if (*p < '0' || *p > '9')
            return i == 0 ? MODULE_NO_VERSION : MODULE_VERSION_OK;
        unsigned long long v = 0;
        while (*p >= '0' && *p <= '9') {
            if (v <= UINT32_MAX)
                v = v * 10 + static_cast<unsigned>(*p - '0');
            ++p;
        }
        parts[i] = v > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(v);
        if (*p != '.')
            break;
        ++p;
    }
    return MODULE_VERSION_OK;
}

}  // namespace plat
}  // namespace ssb

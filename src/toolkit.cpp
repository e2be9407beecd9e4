#include "toolkit.h"

#include <string.h>

#include <string>

#include "lock.h"
#include "platform/platform.h"
#include "stream.h"
#include "strutil.h"
#include "trace.h"

using ssb::RESULT_FAILURE;
using ssb::RESULT_INVALID_ARG;
using ssb::RESULT_NOT_FOUND;
using ssb::RESULT_SUCCESS;

namespace {

const size_t MAX_PATH_TEXT = 4096;
const char SOURCE_PATH[] = ".\\toolkit";
// get_system_info's smallest buffer.
const unsigned int MIN_SYSTEM_INFO = 65;
// "65535.65535.65535.65535" and its NUL.
const unsigned int MIN_VERSION_TEXT = 24;

bool is_separator(char c) { return c == '/' || c == '\\'; }

int copy_out(const std::string& s, char* buf, unsigned int size) {
    if (!buf || s.size() + 1 > size)
        return RESULT_INVALID_ARG;
    memcpy(buf, s.c_str(), s.size() + 1);
    return RESULT_SUCCESS;
}

}  // namespace

int get_special_path(int folder_id, char* buf, unsigned int size, int create) {
    if (!buf || size == 0)
        return RESULT_INVALID_ARG;
    char path[MAX_PATH_TEXT];
    if (ssb::plat::special_folder(folder_id, create != 0, path, sizeof(path)) != 0)
        return RESULT_NOT_FOUND;
    return copy_out(path, buf, size);
}

int get_self_process_name(char* buf, unsigned int size) {
    char path[MAX_PATH_TEXT];
    if (ssb::plat::self_exe_path(path, sizeof(path)) != 0)
        return copy_out("unknown", buf, size);
    std::string name(path);
    size_t slash = name.find_last_of("/\\");
    if (slash != std::string::npos)
        name.erase(0, slash + 1);
    if (name.size() > 4) {
        std::string ext = name.substr(name.size() - 4);
        for (size_t i = 0; i < ext.size(); ++i)
            ext[i] = static_cast<char>(ext[i] >= 'A' && ext[i] <= 'Z' ? ext[i] - 'A' + 'a' : ext[i]);
        if (ext == ".exe")
            name.erase(name.size() - 4);
    }
    return copy_out(name, buf, size);
}

int get_cur_path(char* buf, unsigned int size) {
    char path[MAX_PATH_TEXT];
    if (ssb::plat::current_dir(path, sizeof(path)) != 0)
        return RESULT_FAILURE;
    return copy_out(path, buf, size);
}

unsigned int get_cur_pid(void) { return ssb::plat::current_process_id(); }

int is_dir_exist(const char* path) { return path && *path && ssb::plat::dir_exists(path); }

int is_file_exist(const char* path) { return path && *path && ssb::plat::file_exists(path); }

int create_dir(const char* path) {
    if (!path || !*path)
        return RESULT_INVALID_ARG;
    std::string p(path);
    while (p.size() > 1 && is_separator(p[p.size() - 1]))
        p.erase(p.size() - 1);
    // Make each missing level, skipping a drive ("C:") or the root.
    for (size_t i = 1; i <= p.size(); ++i) {
        if (i != p.size() && !is_separator(p[i]))
            continue;
        std::string level = p.substr(0, i);
        if (level.size() == 2 && level[1] == ':')
            continue;
        if (!ssb::plat::dir_exists(level.c_str()) && ssb::plat::make_dir(level.c_str()) != 0)
            return RESULT_FAILURE;
    }
    return RESULT_SUCCESS;
}

int is_terminal_with_special(const char* text, char c) {
    if (!text || !*text)
        return 0;
    return text[strlen(text) - 1] == c;
}

int split_path(const char* path, char* dir, unsigned int dir_size, char* file, unsigned int file_size) {
    if (!path)
        return RESULT_INVALID_ARG;
    std::string p(path);
    size_t slash = p.find_last_of("/\\");
    std::string d = slash == std::string::npos ? std::string() : p.substr(0, slash + 1);
    std::string f = slash == std::string::npos ? p : p.substr(slash + 1);
    if (dir && copy_out(d, dir, dir_size) != RESULT_SUCCESS)
        return RESULT_INVALID_ARG;
    if (file && copy_out(f, file, file_size) != RESULT_SUCCESS)
        return RESULT_INVALID_ARG;
    return RESULT_SUCCESS;
}

// ---- system and process information ---------------------------------------------

namespace {

bool system_text_args(char* buffer, unsigned int buf_size) {
    if (buffer && buf_size >= MIN_SYSTEM_INFO)
        return true;
    UTIL_ASSERT_MSG("get_system_info INVALID ARGS", SOURCE_PATH, __LINE__,
                    ", buf = " << static_cast<const void*>(buffer) << ", buf_size = " << buf_size);
    return false;
}

const char* windows_name(unsigned int major, unsigned int minor, unsigned int product_type, unsigned int suite_mask,
                         int is_64bits, int r2) {
    const unsigned int WORKSTATION = 1;
    const unsigned int STORAGE_SERVER = 0x2000;
    if (major == 5) {
        switch (minor) {
        case 0:
            return "Windows 2000";
        case 1:
            return "Windows XP";
        case 2:
            if (product_type == WORKSTATION && is_64bits)
                return "Windows XP Professional x64 Edition";
            if (suite_mask & STORAGE_SERVER)
                return "Windows Storage Server 2003";
            return r2 ? "Windows Server 2003 R2" : "Windows Server 2003";
        default:
            return "Windows undefined";
        }
    }
    const bool ws = product_type == WORKSTATION;
    switch (minor) {
    case 0:
        return ws ? "Windows Vista" : "Windows Server 2008";
    case 1:
        return ws ? "Windows 7" : "Windows Server 2008 R2";
    case 2:
        return ws ? "Windows 8" : "Windows Server 2012";
    case 3:
        return ws ? "Windows 8.1" : "Windows Server 2012 R2";
    case 4:
        return ws ? "Windows 10 workstation" : "Windows 10 Server";
    default:
        return "Newer system";
    }
}

const char* windows_edition(unsigned int product) {
    static const char* const EDITIONS[] = {
        nullptr,
        "Ultimate Edition",
        "Home Basic Edition",
        "Home Premium Edition",
        "Enterprise Edition",
        "Home Basic Edition",
        "Business Edition",
        "Server Standard Edition (full installation)",
        "Server Datacenter Edition (full installation)",
        "Small Business Server",
        "Server Enterprise Edition (full installation)",
        "Starter Edition",
        "Server Datacenter Edition (core installation)",
        "Server Standard Edition (core installation)",
        "Server Enterprise Edition (core installation)",
        "Server Enterprise Edition for Itanium-based Systems",
        "Business Edition",
        "Web Server Edition (full installation)",
        "Cluster Server Edition",
        "Home Server Edition",
        "Storage Server Express Edition",
        "Storage Server Standard Edition",
        "Storage Server Workgroup Edition",
        "Storage Server Enterprise Edition",
        "Server for Small Business Edition",
        "Small Business Server Premium Edition",
    };
    if (product == 0 || product >= sizeof(EDITIONS) / sizeof(EDITIONS[0]))
        return "An unknown product";
    return EDITIONS[product];
}

// os-release's value of `name`, unquoted; empty when absent.
std::string os_release_value(const char* text, const char* name) {
    const size_t name_len = strlen(name);
    const char* line = text;
    while (line && *line) {
        const char* end = strchr(line, '\n');
        if (!end)
            end = line + strlen(line);
        if (static_cast<size_t>(end - line) > name_len && strncmp(line, name, name_len) == 0 && line[name_len] == '=') {
            std::string value;
            const char* p = line + name_len + 1;
            char quote = (*p == '"' || *p == '\'') ? *p++ : '\0';
            for (; p < end && *p != quote && *p != '\r'; ++p) {
                if (*p == '\\' && quote == '"' && p + 1 < end)
                    ++p;
                value += *p;
            }
            return value;
        }
        line = *end ? end + 1 : end;
    }
    return std::string();
}

uint64_t monotonic_us() {
    int64_t frequency = 0;
    int64_t counts = 0;
    if (!ssb::plat::perf_frequency(&frequency) || frequency <= 0 || !ssb::plat::perf_counter(&counts))
        return static_cast<uint64_t>(ssb::plat::tick_count_ms()) * 1000u;
    const uint64_t f = static_cast<uint64_t>(frequency);
    const uint64_t c = static_cast<uint64_t>(counts);
    return c / f * 1000000u + c % f * 1000000u / f;
}

ssb::thread_mutex s_cpu_lock;
ssb_cpu_sample_t s_cpu_sample = {0, 0};
unsigned int s_cpu_usage = 0;

}  // namespace

void windows_system_text(unsigned int major, unsigned int minor, unsigned int product_type, unsigned int suite_mask,
                         unsigned int product, int is_64bits, int r2, char* buffer, unsigned int buf_size) {
    if (!system_text_args(buffer, buf_size))
        return;
    memset(buffer, 0, buf_size);
    ssb::text_stream_t out(reinterpret_cast<signed char*>(buffer), buf_size);
    if (major == 5) {
        out << windows_name(major, minor, product_type, suite_mask, is_64bits, r2);
        return;
    }
    if (major != 6) {
        out << "Windows undefined";
        return;
    }
    out << windows_name(major, minor, product_type, suite_mask, is_64bits, r2);
    if (is_64bits)
        out << ", 64bits, ";
    out << windows_edition(product);
}

void posix_system_text(const char* os_release, const char* sysname, const char* release, int is_64bits, char* buffer,
                       unsigned int buf_size) {
    if (!system_text_args(buffer, buf_size))
        return;
    memset(buffer, 0, buf_size);
    const char* os = os_release ? os_release : "";
    std::string distribution = os_release_value(os, "PRETTY_NAME");
    if (distribution.empty()) {
        distribution = os_release_value(os, "NAME");
        std::string version = os_release_value(os, "VERSION");
        if (!distribution.empty() && !version.empty())
            distribution += " " + version;
    }
    std::string kernel = sysname ? sysname : "";
    if (release && *release)
        kernel += (kernel.empty() ? "" : " ") + std::string(release);
    if (kernel.empty())
        kernel = "unknown system";
    ssb::text_stream_t out(reinterpret_cast<signed char*>(buffer), buf_size);
    if (!distribution.empty())
        out << distribution << (is_64bits ? ", 64bits, " : ", ");
    else if (is_64bits)
        out << "64bits, ";
    out << kernel;
}

void get_system_info(char* buffer, unsigned int buf_size) {
    if (!system_text_args(buffer, buf_size))
        return;
    ssb::plat::system_raw_t raw;
    ssb::plat::sysinfo_status_t status = ssb::plat::system_query(&raw);
    if (status == ssb::plat::SYSINFO_NO_SYSTEM_MODULE)
        UTIL_LOG(ssb::LOG_ERROR, "_get_system_info failed to load kernel32.dll");
    const int is_64bits = is_64bits_system() ? 1 : 0;
    if (raw.windows)
        windows_system_text(raw.major, raw.minor, raw.product_type, raw.suite_mask, raw.product, is_64bits, raw.r2,
                            buffer, buf_size);
    else
        posix_system_text(raw.os_release, raw.sysname, raw.release, is_64bits, buffer, buf_size);
}

int _get_system_info(unsigned int* major, unsigned int* minor, unsigned int* product_type, unsigned int* suite_mask,
                     unsigned int* product) {
    if (!major || !minor || !product_type || !suite_mask || !product)
        return RESULT_INVALID_ARG;
    *major = *minor = *product_type = *suite_mask = *product = 0;
    ssb::plat::system_raw_t raw;
    ssb::plat::sysinfo_status_t status = ssb::plat::system_query(&raw);
    if (status == ssb::plat::SYSINFO_NO_SYSTEM_MODULE) {
        UTIL_LOG(ssb::LOG_ERROR, "_get_system_info failed to load kernel32.dll");
        return RESULT_FAILURE;
    }
    if (status != ssb::plat::SYSINFO_OK)
        return RESULT_FAILURE;
    if (!raw.windows)
        return RESULT_NOT_FOUND;
    *major = raw.major;
    *minor = raw.minor;
    *product_type = raw.product_type;
    *suite_mask = raw.suite_mask;
    *product = raw.product;
    return RESULT_SUCCESS;
}

bool is_64bits_system(void) {
    bool is_64bits = false;
    ssb::plat::sysinfo_status_t status = ssb::plat::native_64bit(&is_64bits);
    if (status == ssb::plat::SYSINFO_NO_SYSTEM_MODULE)
        UTIL_LOG(ssb::LOG_ERROR, "is_64bits_system failed to load kernel32.dll");
    return status == ssb::plat::SYSINFO_OK && is_64bits;
}

unsigned int get_number_of_cpus(void) { return ssb::plat::cpus_online(); }

unsigned int get_number_of_conf_cpus(void) { return ssb::plat::cpus_configured(); }

int get_process_cpu_usage_r(ssb_cpu_sample_t* last, unsigned int* usage) {
    if (!last || !usage)
        return RESULT_INVALID_ARG;
    uint64_t cpu = 0;
    if (!ssb::plat::process_cpu_time_us(&cpu))
        return RESULT_FAILURE;
    const uint64_t wall = monotonic_us();
    if (last->wall_us == 0) {
        last->wall_us = wall;
        last->cpu_us = cpu;
        *usage = 0;
        return RESULT_SUCCESS;
    }
    if (wall <= last->wall_us) {
        UTIL_ASSERT_MSG("get_process_cpu_usage_r elapsed should bigger than 0", SOURCE_PATH, __LINE__,
                        ", elapsed = " << static_cast<long long>(wall - last->wall_us));
        return RESULT_INVALID_ARG;
    }
    const uint64_t elapsed = wall - last->wall_us;
    const uint64_t used = cpu > last->cpu_us ? cpu - last->cpu_us : 0;
    const uint64_t capacity = elapsed * get_number_of_cpus();
    const uint64_t percent = (used * 100 + capacity / 2) / capacity;
    *usage = percent > 100 ? 100u : static_cast<unsigned int>(percent);
    last->wall_us = wall;
    last->cpu_us = cpu;
    return RESULT_SUCCESS;
}

unsigned int get_process_cpu_usage(void) {
    ssb::auto_lock_t<ssb::thread_mutex> guard(s_cpu_lock);
    // Two calls within the clock's resolution report the last figure again
    // instead of tripping the assertion of the _r form.
    if (s_cpu_sample.wall_us != 0 && monotonic_us() <= s_cpu_sample.wall_us)
        return s_cpu_usage;
    unsigned int usage = 0;
    if (get_process_cpu_usage_r(&s_cpu_sample, &usage) == RESULT_SUCCESS)
        s_cpu_usage = usage;
    return s_cpu_usage;
}

int match_system_info(const char* pattern) {
    if (!pattern)
        return 0;
    char info[512];
    get_system_info(info, sizeof(info));
    return ssb::regex_match(info, pattern) ? 1 : 0;
}

int get_dll_version(const char* name, unsigned int* major, unsigned int* minor, unsigned int* build_number,
                    unsigned int* revision_number) {
    if (!name || !*name || !major || !minor || !build_number || !revision_number) {
        UTIL_LOG(ssb::LOG_ERROR, "::get_dll_version invalid args");
        return RESULT_INVALID_ARG;
    }
    uint32_t parts[4] = {0, 0, 0, 0};
    switch (ssb::plat::module_version(name, parts)) {
    case ssb::plat::MODULE_VERSION_OK:
        *major = parts[0];
        *minor = parts[1];
        *build_number = parts[2];
        *revision_number = parts[3];
        return RESULT_SUCCESS;
    case ssb::plat::MODULE_ABSENT:
        return RESULT_NOT_FOUND;
    default:
        return RESULT_FAILURE;
    }
}

int get_ie_version_info(char* buffer, unsigned int size) {
    if (!buffer || size < MIN_VERSION_TEXT) {
        UTIL_LOG(ssb::LOG_ERROR, "get_ie_version_info INVALID ARGS"
                                     << ", buf = " << static_cast<const void*>(buffer) << ", size = " << size);
        return RESULT_INVALID_ARG;
    }
    memset(buffer, 0, size);
    unsigned int v[4] = {0, 0, 0, 0};
    int rc = get_dll_version("mshtml.dll", &v[0], &v[1], &v[2], &v[3]);
    ssb::text_stream_t out(reinterpret_cast<signed char*>(buffer), size);
    if (rc == RESULT_NOT_FOUND) {
        out << "not installed";
        return RESULT_SUCCESS;
    }
    if (rc != RESULT_SUCCESS) {
        UTIL_LOG(ssb::LOG_ERROR, "get_ie_version_info failed to retrieve the version information");
        return RESULT_FAILURE;
    }
    out << v[0] << "." << v[1] << "." << v[2] << "." << v[3];
    return RESULT_SUCCESS;
}

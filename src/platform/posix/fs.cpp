#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "../platform.h"

namespace ssb {
namespace plat {

const char PATH_SEPARATOR = '/';

bool dir_exists(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool file_exists(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

int make_dir(const char* path) {
    if (mkdir(path, 0755) == 0)
        return 0;
    return errno == EEXIST && dir_exists(path) ? 0 : errno;
}

namespace {

int copy_out(const std::string& s, char* out, size_t size) {
    if (s.size() + 1 > size)
        return ERANGE;
    memcpy(out, s.c_str(), s.size() + 1);
    return 0;
}

int make_dirs(const std::string& path) {
    for (size_t i = 1; i <= path.size(); ++i) {
        if (i == path.size() || path[i] == '/') {
            int rc = make_dir(path.substr(0, i).c_str());
            if (rc != 0)
                return rc;
        }
    }
    return 0;
}

}  // namespace

int special_folder(int folder_id, bool create, char* out, size_t size) {
    const char* home = getenv("HOME");
    std::string path;
    switch (folder_id) {
    case 26:  // application data
    case 28:  // local application data
        if (const char* xdg = getenv("XDG_DATA_HOME")) {
            if (*xdg == '/')
                path = xdg;
        }
        if (path.empty()) {
            if (!home || !*home)
                return ENOENT;
            path = std::string(home) + "/.local/share";
        }
        break;
    case 5:  // personal
        if (!home || !*home)
            return ENOENT;
        path = home;
        break;
    default:
        return ENOTSUP;
    }
    while (path.size() > 1 && path[path.size() - 1] == '/')
        path.erase(path.size() - 1);
    if (create && !dir_exists(path.c_str())) {
        int rc = make_dirs(path);
        if (rc != 0)
            return rc;
    }
    return copy_out(path, out, size);
}

int self_exe_path(char* out, size_t size) {
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n < 0)
        return errno;
    buf[n] = 0;
    return copy_out(buf, out, size);
}

int current_dir(char* out, size_t size) { return getcwd(out, size) ? 0 : errno; }

FILE* open_text_file(const char* path) { return fopen(path, "w+"); }

}  // namespace plat
}  // namespace ssb

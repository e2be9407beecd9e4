#include "toolkit.h"

#include <string.h>

#include <string>

#include "platform/platform.h"

using ssb::RESULT_FAILURE;
using ssb::RESULT_INVALID_ARG;
using ssb::RESULT_NOT_FOUND;
using ssb::RESULT_SUCCESS;

namespace {

const size_t MAX_PATH_TEXT = 4096;

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

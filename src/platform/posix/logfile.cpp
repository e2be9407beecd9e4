#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>

#include "../platform.h"

namespace ssb {
namespace plat {

bool file_unlinked(FILE* file) {
    struct stat st;
    return fstat(fileno(file), &st) == 0 && st.st_nlink == 0;
}

int temp_folder(char* out, size_t size) {
    std::string path = "/tmp";
    if (const char* tmp = getenv("TMPDIR")) {
        if (*tmp == '/')
            path = tmp;
    }
    while (path.size() > 1 && path[path.size() - 1] == '/')
        path.erase(path.size() - 1);
    if (!out || path.size() + 1 > size)
        return ERANGE;
    memcpy(out, path.c_str(), path.size() + 1);
    return 0;
}

}  // namespace plat
}  // namespace ssb

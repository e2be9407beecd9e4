// Process and file-system helpers. Plain C functions; any thread.
#ifndef SSB_TOOLKIT_H
#define SSB_TOOLKIT_H

#include "util_def.h"

// Windows shell folder ids understood on every platform.
#define SSB_FOLDER_PERSONAL 5
#define SSB_FOLDER_APPDATA 26
#define SSB_FOLDER_LOCAL_APPDATA 28

// A per-user special folder by shell id, without a trailing separator,
// created when `create` is non-zero. 0; 2 for a null or too small buffer;
// 5 when the folder is unknown here.
SSB_C_API int get_special_path(int folder_id, char* buf, unsigned int size, int create);
// The executable's file name without directory and without ".exe". 0 or 2.
SSB_C_API int get_self_process_name(char* buf, unsigned int size);
// The current working directory. 0 or 2.
SSB_C_API int get_cur_path(char* buf, unsigned int size);
SSB_C_API unsigned int get_cur_pid(void);
SSB_C_API int is_dir_exist(const char* path);
SSB_C_API int is_file_exist(const char* path);
// Creates the directory and any missing parents. 0; 2 for null or empty;
// 999 when a level cannot be made.
SSB_C_API int create_dir(const char* path);
// Non-zero when `text` ends in `c`.
SSB_C_API int is_terminal_with_special(const char* text, char c);
// Splits at the last '/' or '\\': `dir` keeps the separator, `file` the
// rest. Either output may be null. 0; 2 for a null path or a buffer too small.
SSB_C_API int split_path(const char* path, char* dir, unsigned int dir_size, char* file, unsigned int file_size);

// ---- system and process information ----

// One line describing the system, for logs: on Windows the version and
// edition, e.g. "Windows 7, 64bits, Ultimate Edition" (the edition follows
// the name directly on a 32-bit system); elsewhere the distribution, then
// ", 64bits, " (or ", ") and the kernel, e.g.
// "Debian GNU/Linux 12 (bookworm), 64bits, Linux 6.1.0-18-amd64". The
// buffer must be non-null and at least 65 bytes; otherwise an assertion line
// "get_system_info INVALID ARGS" is logged and nothing is written. The text
// is cut at the buffer's end.
SSB_C_API void get_system_info(char* buffer, unsigned int buf_size);
// The Windows text of get_system_info from the raw values, on any system:
// product_type 1 is a workstation; suite_mask bit 0x2000 a storage server;
// product is GetProductInfo's number; r2 is GetSystemMetrics(SM_SERVERR2).
SSB_C_API void windows_system_text(unsigned int major, unsigned int minor, unsigned int product_type,
                                   unsigned int suite_mask, unsigned int product, int is_64bits, int r2, char* buffer,
                                   unsigned int buf_size);
// The non-Windows text of get_system_info: the distribution is os-release's
// PRETTY_NAME, else NAME and VERSION, else the kernel name alone.
SSB_C_API void posix_system_text(const char* os_release, const char* sysname, const char* release, int is_64bits,
                                 char* buffer, unsigned int buf_size);
// The raw Windows values behind get_system_info (GetVersionEx, and
// GetProductInfo looked up at run time; product 0 without it). 0; 2 for a
// null output; 5 on a system that is not Windows; 999 when the query fails.
SSB_C_API int _get_system_info(unsigned int* major, unsigned int* minor, unsigned int* product_type,
                               unsigned int* suite_mask, unsigned int* product);
// Whether the machine runs a 64-bit system, whatever this process is.
SSB_C_API bool is_64bits_system(void);
// Processors online now, and configured (possibly offline).
SSB_C_API unsigned int get_number_of_cpus(void);
SSB_C_API unsigned int get_number_of_conf_cpus(void);

// The last sample of get_process_cpu_usage_r; zero it before the first call.
typedef struct ssb_cpu_sample_t {
    uint64_t wall_us;
    uint64_t cpu_us;
} ssb_cpu_sample_t;
// CPU time the process used since `last`, as a percentage of all the
// processors' time (0..100), then `last` becomes now. The first call (a
// zero sample) gives 0. 0; 2 for null arguments, or, with an assertion line,
// when no time passed since `last`; 999 when the times cannot be read.
SSB_C_API int get_process_cpu_usage_r(ssb_cpu_sample_t* last, unsigned int* usage);
// The same over one sample shared by the process: the usage since the
// previous call from any thread; 0 on the first call.
SSB_C_API unsigned int get_process_cpu_usage(void);
// Non-zero when get_system_info's text matches the wildcard pattern ("*"
// any run, "?" one character in patterns without "*"), e.g. "*64bits*".
SSB_C_API int match_system_info(const char* pattern);
// A module's version: on Windows the four numbers of the DLL's version
// resource; elsewhere the numbers after ".so." in the real file name of a
// loaded shared object named `name` or `name` plus a "." suffix
// (libstdc++.so.6 gives 6.0.30.0 when it is libstdc++.so.6.0.30). Outputs
// may not be null: otherwise "::get_dll_version invalid args" is logged and
// 2 returned. 0; 5 when the module is not there; 999 when it has no version.
SSB_C_API int get_dll_version(const char* name, unsigned int* major, unsigned int* minor, unsigned int* build_number,
                              unsigned int* revision_number);
// "major.minor.build.revision" of mshtml.dll, or "not installed" (as on every
// system without it). The buffer needs 24 bytes. 0; 2 with
// "get_ie_version_info INVALID ARGS"; 999 with "get_ie_version_info failed
// to retrieve the version information" and an empty text.
SSB_C_API int get_ie_version_info(char* buffer, unsigned int size);

#endif

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

#endif

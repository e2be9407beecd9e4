// A host program using util the way a client does: two modules initialise
// the library, the host registers its own log module and writes through it,
// reads back the memory log, and the last module stops everything.
//
// Usage: demo_host [log folder]   (default: the per-user application-data
// folder, OrcaDecks/logs)
#include <stdio.h>
#include <string.h>

#include "log.h"
#include "memlog.h"
#include "util.h"

namespace {

const unsigned int DEMO_MODULE = 100;

int SSB_STDCALL print_memory_log(void* context, signed char* text, unsigned int length) {
    const char* s = reinterpret_cast<const char*>(text);
    unsigned int lines = 0;
    for (unsigned int i = 0; i < length; ++i)
        lines += s[i] == '\n';
    printf("memory log: %u bytes, %u lines; the first one:\n  ", length, lines);
    const char* end = static_cast<const char*>(memchr(s, '\n', length));
    fwrite(s, 1, end ? static_cast<size_t>(end - s + 1) : length, stdout);
    *static_cast<unsigned int*>(context) = lines;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const char* log_dir = argc > 1 ? argv[1] : nullptr;
    unsigned int major = 0, minor = 0;
    const char* banner = nullptr;
    util_version(&major, &minor, &banner);
    printf("util %u.%u: %s\n", major, minor, banner);

    // Module 100 (the client) and module 200 (a plug-in) both use the library.
    util_init(DEMO_MODULE, log_dir, "demo_host", "log", 0, 0);
    util_init(200, nullptr, nullptr, nullptr, 0, 0);
    printf("two modules initialised the library (one start-up, counted twice)\n");

    ssb::logger_file* file = ssb::logger_file::peek();
    if (file)
        printf("log file: %s\n", file->current_path().c_str());

    // The host's own module writes to the same file and to the memory log.
    register_logger(DEMO_MODULE, "DEMO", ssb::LOG_DEBUG, nullptr, ssb::LOG_TO_FILE | ssb::LOG_TO_HANDLE);
    ssb::mem_log_file* memory = ssb::mem_log_file::instance(ssb::DEFAULT_MEM_LOG_SIZE);
    if (ssb::log_control_t* control = ssb::log_control_t::instance())
        for (unsigned int level = 0; level <= ssb::LOG_DEBUG; ++level)
            control->register_logger(DEMO_MODULE, level, memory);
    for (int i = 0; i < 5; ++i)
        SSB_LOG(DEMO_MODULE, ssb::LOG_INFO, "demo call step, step = " << i << ", jitter_ms = " << 0.25 * i);
    SSB_LOG(DEMO_MODULE, ssb::LOG_DEBUG, "debug lines are kept too, peer = " << ssb::ORDIX_HEX << 48879u << ssb::ORDIX_DEC << ", done = " << true);
    SSB_LOG(DEMO_MODULE, ssb::LOG_FUNC, "filtered out: above the module's level");

    unsigned int lines = 0;
    if (memory)
        memory->dump(&lines, print_memory_log);

    util_uninit(200);
    printf("module 200 released the library; services still running\n");
    util_uninit(DEMO_MODULE);
    printf("module 100 released the library; services stopped\n");
    return lines >= 7 ? 0 : 1;
}

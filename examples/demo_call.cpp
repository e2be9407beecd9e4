// The demo host as a simulated call: capture, encoders, a sending and a
// receiving I/O thread over loopback UDP, a recording pool and a main thread
// pumped at 60 Hz. See examples/call/call.h and README "The demo".
//
// Usage: demo_call [--duration S] [--encoders N] [--pool N] [--stress]
//                  [--log-dir D] [--quiet]
// Exit code 0 when every frame sent was received and none was corrupted.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "call.h"

namespace {

void usage(FILE* out) {
    fprintf(out,
            "usage: demo_call [options]\n"
            "  --duration S   seconds of call (default 10)\n"
            "  --encoders N   encoder threads, 1..8 (default 1)\n"
            "  --pool N       most recording-pool threads, 2..64 (default 2)\n"
            "  --stress       60 fps bigger video, small queues, packet time-outs, a 2 s stall\n"
            "  --log-dir D    where the log files go (default ./demo-logs)\n"
            "  --quiet        no status lines\n");
}

// The number after `flag`, or false after saying what is wrong.
bool number_arg(int argc, char** argv, int& i, double& value) {
    if (i + 1 >= argc) {
        fprintf(stderr, "demo_call: %s needs a value\n", argv[i]);
        return false;
    }
    char* end = nullptr;
    value = strtod(argv[++i], &end);
    if (!end || *end || end == argv[i]) {
        fprintf(stderr, "demo_call: %s: not a number: %s\n", argv[i - 1], argv[i]);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    call::call_config_t config;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        double value = 0;
        if (arg == "--duration") {
            if (!number_arg(argc, argv, i, value))
                return 2;
            config.duration_s = value;
        } else if (arg == "--encoders") {
            if (!number_arg(argc, argv, i, value))
                return 2;
            config.encoders = value < 0 ? 0 : static_cast<unsigned int>(value);
        } else if (arg == "--pool") {
            if (!number_arg(argc, argv, i, value))
                return 2;
            config.pool_threads = value < 0 ? 0 : static_cast<unsigned int>(value);
        } else if (arg == "--stress") {
            config.stress = true;
        } else if (arg == "--quiet") {
            config.quiet = true;
        } else if (arg == "--log-dir") {
            if (i + 1 >= argc) {
                fprintf(stderr, "demo_call: --log-dir needs a folder\n");
                return 2;
            }
            config.log_dir = argv[++i];
        } else if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 0;
        } else {
            fprintf(stderr, "demo_call: unknown option %s\n", arg.c_str());
            usage(stderr);
            return 2;
        }
    }
    if (!config.quiet)
        printf("simulated call for %.1f s%s; logs go to %s\n", config.duration_s, config.stress ? " (stress)" : "",
               config.log_dir.c_str());
    call::call_summary_t summary;
    const int rv = call::run_call(config, summary);
    print_summary(summary, stdout);
    return rv;
}

// The log path against spdlog and fmt: a statement filtered out by level,
// building a typical line in a stack buffer, lines written to a file with a
// flush after each, and lines appended to an in-memory log. Both sides use
// the same line layout: date, module, [pid:tid], level, message.
// util-bench-peers: spdlog fmt
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include <fmt/format.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/sinks/ringbuffer_sink.h>

#include "bench_support.h"
#include "log.h"
#include "memlog.h"

namespace {

const unsigned int FILTER_MODULE = 101;
const unsigned int FILE_MODULE = 102;
const unsigned int MEMORY_MODULE = 103;
const char* const PATTERN = "%m/%d/%Y %H:%M:%S:%e\t%n\t[%P:%t]\t%l\t%v";
const std::string USER = "alice@example.org";

std::filesystem::path bench_dir() {
    std::filesystem::path dir = std::filesystem::temp_directory_path() / "util-bench-logs";
    std::filesystem::create_directories(dir);
    return dir;
}

// A registry with the three modules; every line is routed explicitly.
struct ours_setup_t {
    ours_setup_t() {
        ssb::log_control_t* control = ssb::log_control_t::instance();
        control->open();
        const std::string dir = bench_dir().string();
        file = new ssb::logger_file_base_t(reinterpret_cast<const signed char*>(dir.c_str()),
                                           reinterpret_cast<const signed char*>("ours"),
                                           reinterpret_cast<const signed char*>("log"), ssb::MAX_LOG_SIZE, 9);
        memory = ssb::mem_log_file::instance(ssb::MAX_MEM_LOG_SIZE);
        control->register_module(FILTER_MODULE, "BENCH", ssb::LOG_INFO, nullptr, ssb::LOG_TO_HANDLE);
        control->register_module(FILE_MODULE, "BENCH", ssb::LOG_INFO, file, ssb::LOG_TO_HANDLE);
        control->register_module(MEMORY_MODULE, "BENCH", ssb::LOG_INFO, memory, ssb::LOG_TO_HANDLE);
    }
    ssb::logger_file_base_t* file;
    ssb::mem_log_file* memory;
};

ours_setup_t& ours() {
    static ours_setup_t s_setup;
    return s_setup;
}

// ---- 1. a statement filtered out by level ------------------------------------

void filtered_ours(benchmark::State& state) {
    ours();
    int i = 0;
    for (auto _ : state) {
        SSB_LOG(FILTER_MODULE, ssb::LOG_DEBUG, "dropped, i = " << i);
        ++i;
    }
}

void filtered_spdlog(benchmark::State& state) {
    spdlog::logger logger("BENCH", std::make_shared<spdlog::sinks::null_sink_mt>());
    logger.set_level(spdlog::level::info);
    int i = 0;
    for (auto _ : state) {
        logger.debug("dropped, i = {}", i);
        ++i;
    }
}

BENCHMARK(filtered_ours)->Name("filtered_statement/ours");
BENCHMARK(filtered_spdlog)->Name("filtered_statement/spdlog");

// ---- 2. building a typical line into a stack buffer -----------------------------

void build_line_ours(benchmark::State& state) {
    const signed char* level = reinterpret_cast<const signed char*>("INFO");
    const signed char* module = reinterpret_cast<const signed char*>("BENCH");
    int id = 1000;
    double rtt = 12.375;
    for (auto _ : state) {
        signed char buf[ssb::LOG_LINE_BUFFER];
        ssb::log_stream_t line(buf, sizeof(buf), level, module);
        line << "call started, user = " << USER << ", id = " << id << ", rtt = " << rtt << "\n";
        benchmark::DoNotOptimize(buf);
        ++id;
    }
}

// The same header built the way a fmt-based logger does: the broken-down
// local time cached per second, the ids fetched once.
void build_line_fmt(benchmark::State& state) {
    const int pid = static_cast<int>(getpid());
    const int tid = static_cast<int>(syscall(SYS_gettid));
    time_t cached_second = 0;
    struct tm cached_tm = {};
    int id = 1000;
    double rtt = 12.375;
    for (auto _ : state) {
        char buf[ssb::LOG_LINE_BUFFER];
        auto now = std::chrono::system_clock::now().time_since_epoch();
        long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
        time_t second = static_cast<time_t>(ms / 1000);
        if (second != cached_second) {
            localtime_r(&second, &cached_tm);
            cached_second = second;
        }
        auto result =
            fmt::format_to_n(buf, sizeof(buf) - 1,
                             "{}/{}/{} {}:{}:{}:{}\t{}\t[{}:{}]\t{}\tcall started, user = {}, id = {}, "
                             "rtt = {:.4f}\n",
                             cached_tm.tm_mon + 1, cached_tm.tm_mday, cached_tm.tm_year + 1900, cached_tm.tm_hour,
                             cached_tm.tm_min, cached_tm.tm_sec, ms % 1000, "BENCH", pid, tid, "INFO", USER, id, rtt);
        *result.out = 0;
        benchmark::DoNotOptimize(buf);
        ++id;
    }
}

BENCHMARK(build_line_ours)->Name("build_line/ours");
BENCHMARK(build_line_fmt)->Name("build_line/fmt_format_to");

// ---- 3. ~100-character lines to a file, flushed after each ----------------------

// The message part; with the ~50-character header a line is about 100.
const char MESSAGE[] = "media stats, ssrc = ";

void file_ours(benchmark::State& state) {
    ours();
    unsigned int ssrc = 0x1234abcd;
    for (auto _ : state) {
        SSB_LOG(FILE_MODULE, ssb::LOG_INFO, MESSAGE << ssrc << ", jitter = " << 3.25 << ", lost = " << 17);
        ++ssrc;
    }
}

void file_spdlog(benchmark::State& state) {
    const std::string path = (bench_dir() / "spdlog.log").string();
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true);
    spdlog::logger logger("BENCH", sink);
    logger.set_pattern(PATTERN);
    logger.flush_on(spdlog::level::trace);
    unsigned int ssrc = 0x1234abcd;
    for (auto _ : state) {
        logger.info("{}{}, jitter = {:.4f}, lost = {}", MESSAGE, ssrc, 3.25, 17);
        ++ssrc;
    }
}

BENCHMARK(file_ours)->Name("file_line_flushed/ours");
BENCHMARK(file_spdlog)->Name("file_line_flushed/spdlog_basic_file_sink_mt");

// ---- 4. lines appended to memory -------------------------------------------------

void memory_ours(benchmark::State& state) {
    ssb::mem_log_file* memory = ours().memory;
    unsigned int ssrc = 0x1234abcd;
    for (auto _ : state) {
        SSB_LOG(MEMORY_MODULE, ssb::LOG_INFO, MESSAGE << ssrc << ", jitter = " << 3.25 << ", lost = " << 17);
        // A host trims the block when it fills; the ring below drops old
        // lines on its own.
        if (memory->space() < ssb::LOG_LINE_BUFFER)
            ssb::mem_log_file::resize(0);
        ++ssrc;
    }
}

void memory_spdlog(benchmark::State& state) {
    auto sink = std::make_shared<spdlog::sinks::ringbuffer_sink_mt>(100000);
    spdlog::logger logger("BENCH", sink);
    logger.set_pattern(PATTERN);
    unsigned int ssrc = 0x1234abcd;
    for (auto _ : state) {
        logger.info("{}{}, jitter = {:.4f}, lost = {}", MESSAGE, ssrc, 3.25, 17);
        ++ssrc;
    }
}

BENCHMARK(memory_ours)->Name("memory_log_append/ours");
BENCHMARK(memory_spdlog)->Name("memory_log_append/spdlog_ringbuffer_sink_mt");

}  // namespace

UTIL_BENCH_MAIN()

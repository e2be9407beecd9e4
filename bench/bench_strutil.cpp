// Wildcard matching against glibc's fnmatch (flags 0), the call a user would
// otherwise make. Both sides get the same star-only patterns, on which they
// agree, cycling through a fixed set of texts: one match per iteration.
#include <fnmatch.h>

#include <string>
#include <vector>

#include "bench_support.h"
#include "strutil.h"

namespace {

struct job_t {
    std::string text;
    std::string pattern;
};

std::vector<job_t> host_jobs() {
    const char* hosts[] = {"www.example.com",
                           "api.eu-west-1.example.com",
                           "zoom.us",
                           "cdn7.static.example.net",
                           "mail.google.com",
                           "localhost",
                           "build-server-17.corp.example.com",
                           "example.com.evil.org"};
    const char* patterns[] = {"*.example.com", "*.corp.*", "zoom.*", "cdn*.static.*.net"};
    std::vector<job_t> jobs;
    for (const char* h : hosts) {
        for (const char* p : patterns)
            jobs.push_back({h, p});
    }
    return jobs;
}

std::vector<job_t> path_jobs() {
    const char* paths[] = {"/usr/lib/x86_64-linux-gnu/libstdc++.so.6",
                           "/home/alice/projects/client/src/video/encoder.cpp",
                           "/var/log/client/client_20261123_01.log", "C:/Program Files/Client/bin/client.exe",
                           "/home/bob/.config/client/settings.ini"};
    const char* patterns[] = {"/home/*/projects/*/src/*.cpp", "*/client/*.log", "*.exe", "/usr/lib/*/lib*.so*"};
    std::vector<job_t> jobs;
    for (const char* p : paths) {
        for (const char* q : patterns)
            jobs.push_back({p, q});
    }
    return jobs;
}

// *a*a*a*a*c on runs of a: a backtracking matcher tries every placement of
// the stars before it gives up.
std::vector<job_t> pathological_jobs() {
    return {{std::string(32, 'a'), "*a*a*a*a*c"}, {std::string(31, 'a') + "c", "*a*a*a*a*c"}};
}

template <std::vector<job_t> (*MAKE)()>
void ours(benchmark::State& state) {
    const std::vector<job_t> jobs = MAKE();
    size_t i = 0;
    int hits = 0;
    for (auto _ : state) {
        const job_t& j = jobs[i];
        hits += ssb::regex_match(j.text, j.pattern);
        i = i + 1 == jobs.size() ? 0 : i + 1;
    }
    benchmark::DoNotOptimize(hits);
}

template <std::vector<job_t> (*MAKE)()>
void peer_fnmatch(benchmark::State& state) {
    const std::vector<job_t> jobs = MAKE();
    size_t i = 0;
    int hits = 0;
    for (auto _ : state) {
        const job_t& j = jobs[i];
        hits += fnmatch(j.pattern.c_str(), j.text.c_str(), 0) == 0;
        i = i + 1 == jobs.size() ? 0 : i + 1;
    }
    benchmark::DoNotOptimize(hits);
}

// Both agree on every job, or the comparison would be of different work.
bool check(const std::vector<job_t>& jobs) {
    for (const job_t& j : jobs) {
        if (ssb::regex_match(j.text, j.pattern) != (fnmatch(j.pattern.c_str(), j.text.c_str(), 0) == 0))
            return false;
    }
    return true;
}

const bool s_checked = check(host_jobs()) && check(path_jobs()) && check(pathological_jobs());

BENCHMARK_TEMPLATE(ours, host_jobs)->Name("match_host/ours");
BENCHMARK_TEMPLATE(peer_fnmatch, host_jobs)->Name("match_host/fnmatch");
BENCHMARK_TEMPLATE(ours, path_jobs)->Name("match_path/ours");
BENCHMARK_TEMPLATE(peer_fnmatch, path_jobs)->Name("match_path/fnmatch");
BENCHMARK_TEMPLATE(ours, pathological_jobs)->Name("match_pathological/ours");
BENCHMARK_TEMPLATE(peer_fnmatch, pathological_jobs)->Name("match_pathological/fnmatch");

}  // namespace

int main(int argc, char** argv) {
    if (!s_checked) {
        fprintf(stderr, "bench_strutil: regex_match and fnmatch disagree on a job\n");
        return 1;
    }
    return util_bench::run_main(argc, argv);
}

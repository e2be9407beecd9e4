// util-bench-peers: inih simpleini boost
//
// Loading an INI file from disk into an object that answers look-ups: ours
// (ini_t::read_file), inih's INIReader, SimpleIni (CSimpleIniA) and
// Boost.PropertyTree's read_ini. Files are generated into the temporary
// folder (page cache, so this measures parsing and storing, not the disk):
// a 76-byte one, about 1 MB of 2,000 sections x 20 keys, and about 10 MB of
// 20,000 x 20 to show that loading stays linear.
#include <benchmark/benchmark.h>

#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <INIReader.h>
#include <SimpleIni.h>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include "ini.h"

namespace fs = std::filesystem;

namespace {

enum file_t { FILE_76B, FILE_1MB, FILE_10MB };

struct sample_t {
    std::string path;
    std::string section;  // a section and key near the end, looked up once
    std::string key;
    std::string value;
    size_t bytes;
};

sample_t s_files[3];

std::string write_file(const std::string& name, const std::string& text) {
    const fs::path p = fs::temp_directory_path() / name;
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << text;
    return p.string();
}

// sections x keys lines "keyNN=" plus a 19-character value.
sample_t generate(const char* name, int sections, int keys) {
    std::string text;
    text.reserve(static_cast<size_t>(sections) * (16 + static_cast<size_t>(keys) * 26));
    char line[64];
    for (int s = 0; s < sections; ++s) {
        snprintf(line, sizeof(line), "[section%05d]\n", s);
        text += line;
        for (int k = 0; k < keys; ++k) {
            snprintf(line, sizeof(line), "key%02d=value%05d_%02d_abcdef\n", k, s, k);
            text += line;
        }
        text += '\n';
    }
    sample_t out;
    out.bytes = text.size();
    out.path = write_file(name, text);
    snprintf(line, sizeof(line), "section%05d", sections - 1);
    out.section = line;
    snprintf(line, sizeof(line), "key%02d", keys - 1);
    out.key = line;
    snprintf(line, sizeof(line), "value%05d_%02d_abcdef", sections - 1, keys - 1);
    out.value = line;
    return out;
}

void setup_files() {
    // 76 bytes: a client's small settings file.
    const std::string small = "[net]\nhost=conf.example.com\nport=8801\n[log]\nlevel=3\nsize=10485760\npath=logs\n";
    s_files[FILE_76B].bytes = small.size();
    s_files[FILE_76B].path = write_file("util_bench_ini_76b.ini", small);
    s_files[FILE_76B].section = "log";
    s_files[FILE_76B].key = "path";
    s_files[FILE_76B].value = "logs";
    s_files[FILE_1MB] = generate("util_bench_ini_1mb.ini", 2000, 20);
    s_files[FILE_10MB] = generate("util_bench_ini_10mb.ini", 20000, 20);
}

// Every reader must have loaded the file before its time counts.
void check(bool ok, const char* who, benchmark::State& state) {
    if (!ok)
        state.SkipWithError(who);
}

void BM_ini_ours(benchmark::State& state) {
    const sample_t& f = s_files[state.range(0)];
    {
        ssb::ini_t ini(f.path);
        check(ini.read_file() && ini.read_string(f.section, f.key, "") == f.value, "ours did not load", state);
    }
    for (auto _ : state) {
        ssb::ini_t ini(f.path);
        benchmark::DoNotOptimize(ini.read_file());
        benchmark::DoNotOptimize(ini.num_keys());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.bytes));
}

void BM_ini_inih(benchmark::State& state) {
    const sample_t& f = s_files[state.range(0)];
    {
        INIReader r(f.path);
        check(r.ParseError() == 0 && r.Get(f.section, f.key, "") == f.value, "inih did not load", state);
    }
    for (auto _ : state) {
        INIReader r(f.path);
        benchmark::DoNotOptimize(r.ParseError());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.bytes));
}

void BM_ini_simpleini(benchmark::State& state) {
    const sample_t& f = s_files[state.range(0)];
    {
        CSimpleIniA ini;
        const bool ok = ini.LoadFile(f.path.c_str()) == SI_OK;
        const char* v = ini.GetValue(f.section.c_str(), f.key.c_str(), "");
        check(ok && f.value == v, "SimpleIni did not load", state);
    }
    for (auto _ : state) {
        CSimpleIniA ini;
        benchmark::DoNotOptimize(ini.LoadFile(f.path.c_str()));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.bytes));
}

void BM_ini_boost(benchmark::State& state) {
    const sample_t& f = s_files[state.range(0)];
    try {
        boost::property_tree::ptree pt;
        boost::property_tree::ini_parser::read_ini(f.path, pt);
        check(pt.get<std::string>(f.section + "." + f.key, "") == f.value, "Boost did not load", state);
    } catch (...) {
        check(false, "Boost threw", state);
    }
    for (auto _ : state) {
        boost::property_tree::ptree pt;
        boost::property_tree::ini_parser::read_ini(f.path, pt);
        benchmark::DoNotOptimize(pt.size());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * f.bytes));
}

void sizes(benchmark::internal::Benchmark* b) {
    b->ArgName("file")->Arg(FILE_76B)->Arg(FILE_1MB)->Arg(FILE_10MB)->Unit(benchmark::kMicrosecond);
}

BENCHMARK(BM_ini_ours)->Apply(sizes);
BENCHMARK(BM_ini_inih)->Apply(sizes);
BENCHMARK(BM_ini_simpleini)->Apply(sizes);
BENCHMARK(BM_ini_boost)->Apply(sizes);

}  // namespace

int main(int argc, char** argv) {
    setup_files();
    for (int i = 0; i < 3; ++i)
        fprintf(stderr, "file %d: %s, %zu bytes\n", i, s_files[i].path.c_str(), s_files[i].bytes);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    for (int i = 0; i < 3; ++i)
        remove(s_files[i].path.c_str());
    return 0;
}

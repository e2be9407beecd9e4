#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <string>

#include "lock.h"
#include "test_log_support.h"
#include "test_support.h"
#include "toolkit.h"

namespace fs = std::filesystem;

namespace {

struct split_case_t {
    const char* path;
    const char* dir;
    const char* file;
};

TEST(Toolkit, SplitPathAtTheLastSeparatorOfEitherKindAndTerminalCharacter) {
    const split_case_t cases[] = {
        {"C:\\a\\b.log", "C:\\a\\", "b.log"},
        {"/var/log/x.txt", "/var/log/", "x.txt"},
        {"a/b\\c", "a/b\\", "c"},
        {"name", "", "name"},
        {"dir/", "dir/", ""},
        {"", "", ""},
    };
    for (const split_case_t& c : cases) {
        char dir[64] = "junk";
        char file[64] = "junk";
        ASSERT_EQ(0, split_path(c.path, dir, sizeof(dir), file, sizeof(file))) << c.path;
        EXPECT_STREQ(c.dir, dir) << c.path;
        EXPECT_STREQ(c.file, file) << c.path;
    }
    char small[3];
    EXPECT_EQ(2, split_path("abc/def", small, sizeof(small), nullptr, 0));
    EXPECT_EQ(0, split_path("a/cd", small, sizeof(small), nullptr, 0));
    EXPECT_STREQ("a/", small);
    EXPECT_EQ(2, split_path(nullptr, small, sizeof(small), nullptr, 0));
    EXPECT_TRUE(is_terminal_with_special("/", '/'));
    EXPECT_FALSE(is_terminal_with_special("dir\\x", '\\'));
    EXPECT_FALSE(is_terminal_with_special("", '\\'));
    EXPECT_FALSE(is_terminal_with_special(nullptr, '/'));
}

TEST(Toolkit, CreateDirMakesEveryMissingLevel) {
    const fs::path base = fs::current_path() / ("toolkit_" + std::to_string(get_cur_pid()));
    fs::remove_all(base);
    const fs::path deep = base / "a" / "b" / "c";
    EXPECT_EQ(0, create_dir(deep.string().c_str()));
    EXPECT_TRUE(is_dir_exist(deep.string().c_str()));
    EXPECT_EQ(0, create_dir((deep.string() + "/").c_str()));  // exists: fine
    EXPECT_FALSE(is_file_exist(deep.string().c_str()));
    const fs::path file = deep / "f.txt";
    std::FILE* f = std::fopen(file.string().c_str(), "w");
    ASSERT_NE(nullptr, f);
    std::fclose(f);
    EXPECT_TRUE(is_file_exist(file.string().c_str()));
    EXPECT_FALSE(is_dir_exist(file.string().c_str()));
    // A file in the way cannot become a directory.
    EXPECT_NE(0, create_dir((file / "below").string().c_str()));
    EXPECT_EQ(2, create_dir(""));
    EXPECT_EQ(2, create_dir(nullptr));
    EXPECT_FALSE(is_dir_exist(nullptr));
    fs::remove_all(base);
}

TEST(Toolkit, ProcessQueriesAndTheApplicationDataFolder) {
    char name[256];
    ASSERT_EQ(0, get_self_process_name(name, sizeof(name)));
    EXPECT_STREQ("test_toolkit", name);
    char tiny[4];
    EXPECT_EQ(2, get_self_process_name(tiny, sizeof(tiny)));
    char cwd[4096];
    ASSERT_EQ(0, get_cur_path(cwd, sizeof(cwd)));
    EXPECT_TRUE(fs::equivalent(fs::current_path(), fs::path(cwd)));
    EXPECT_NE(0u, get_cur_pid());
    char path[4096];
    ASSERT_EQ(0, get_special_path(SSB_FOLDER_APPDATA, path, sizeof(path), 1));
    EXPECT_TRUE(is_dir_exist(path));
    EXPECT_FALSE(is_terminal_with_special(path, '/'));
    EXPECT_FALSE(is_terminal_with_special(path, '\\'));
    EXPECT_EQ(2, get_special_path(SSB_FOLDER_APPDATA, nullptr, 0, 0));
    EXPECT_EQ(2, get_special_path(SSB_FOLDER_APPDATA, tiny, 2, 0));
}

struct windows_row_t {
    unsigned major, minor, product_type, suite_mask, product;
    int is_64bits, r2;
    const char* text;
};

TEST(SystemInfo, WindowsTableFromRawValues) {
    const unsigned WS = 1, SERVER = 3, STORAGE = 0x2000;
    const windows_row_t rows[] = {
        {5, 0, WS, 0, 0, 0, 0, "Windows 2000"},
        {5, 1, WS, 0, 1, 1, 0, "Windows XP"},
        {5, 2, WS, 0, 0, 1, 0, "Windows XP Professional x64 Edition"},
        {5, 2, WS, STORAGE, 0, 0, 1, "Windows Storage Server 2003"},
        {5, 2, SERVER, STORAGE, 0, 1, 1, "Windows Storage Server 2003"},
        {5, 2, SERVER, 0, 0, 0, 1, "Windows Server 2003 R2"},
        {5, 2, SERVER, 0, 0, 1, 0, "Windows Server 2003"},
        {5, 3, WS, 0, 0, 0, 0, "Windows undefined"},
        {6, 1, WS, 0, 1, 1, 0, "Windows 7, 64bits, Ultimate Edition"},
        {6, 0, WS, 0, 2, 0, 0, "Windows VistaHome Basic Edition"},
        {6, 0, SERVER, 0, 7, 1, 0, "Windows Server 2008, 64bits, Server Standard Edition (full installation)"},
        {6, 1, SERVER, 0, 5, 0, 0, "Windows Server 2008 R2Home Basic Edition"},
        {6, 2, WS, 0, 6, 0, 0, "Windows 8Business Edition"},
        {6, 2, 2, 0, 16, 0, 0, "Windows Server 2012Business Edition"},
        {6, 3, WS, 0, 4, 1, 0, "Windows 8.1, 64bits, Enterprise Edition"},
        {6, 3, SERVER, 0, 25, 0, 0, "Windows Server 2012 R2Small Business Server Premium Edition"},
        {6, 4, WS, 0, 11, 0, 0, "Windows 10 workstationStarter Edition"},
        {6, 4, SERVER, 0, 15, 0, 0, "Windows 10 ServerServer Enterprise Edition for Itanium-based Systems"},
        {6, 5, WS, 0, 0, 1, 0, "Newer system, 64bits, An unknown product"},
        {6, 1, WS, 0, 0xABCD, 0, 0, "Windows 7An unknown product"},
        {10, 0, WS, 0, 1, 1, 0, "Windows undefined"},
    };
    for (const windows_row_t& r : rows) {
        char buf[128];
        memset(buf, 'x', sizeof(buf));
        windows_system_text(r.major, r.minor, r.product_type, r.suite_mask, r.product, r.is_64bits, r.r2, buf,
                            sizeof(buf));
        EXPECT_STREQ(r.text, buf) << r.major << "." << r.minor << " product " << r.product;
    }
}

class SystemInfoLog : public ::testing::Test {
protected:
    void SetUp() override { util_test::capture_util_log(&cap); }
    void TearDown() override { util_test::restore_log_routing(); }
    util_test::text_capture_t cap;
};

TEST_F(SystemInfoLog, BuffersBelow65BytesAreRefused) {
    char buf[65];
    memset(buf, 'x', sizeof(buf));
    windows_system_text(6, 1, 1, 0, 1, 1, 0, buf, 64);
    EXPECT_EQ('x', buf[0]);
    EXPECT_TRUE(cap.contains("assert: msg[get_system_info INVALID ARGS] file["));
    EXPECT_TRUE(cap.contains(", buf_size = 64"));
    cap.clear();
    get_system_info(buf, 64);
    EXPECT_EQ('x', buf[0]);
    EXPECT_TRUE(cap.contains("get_system_info INVALID ARGS"));
    cap.clear();
    get_system_info(nullptr, 1000);
    posix_system_text("", "Linux", "6", 1, nullptr, 1000);
    EXPECT_TRUE(cap.contains(", buf = 0x"));
    cap.clear();
    // 65 is enough, and a long text is cut at the buffer's end.
    windows_system_text(6, 0, 3, 0, 15, 1, 0, buf, 65);
    EXPECT_FALSE(cap.contains("INVALID ARGS"));
    EXPECT_EQ(64u, strlen(buf));
    EXPECT_EQ(0, strncmp("Windows Server 2008, 64bits, Server Enterprise Edition for Itanium", buf, 64));
}

TEST_F(SystemInfoLog, CpuUsageOfTheProcess) {
    EXPECT_GE(get_number_of_cpus(), 1u);
    EXPECT_GE(get_number_of_conf_cpus(), get_number_of_cpus());
    unsigned usage = 1234;
    ssb_cpu_sample_t sample = {0, 0};
    EXPECT_EQ(2, get_process_cpu_usage_r(&sample, nullptr));
    ASSERT_EQ(0, get_process_cpu_usage_r(&sample, &usage));
    EXPECT_EQ(0u, usage);
    EXPECT_NE(0u, sample.wall_us);
    // Spinning shows up as a non-zero share of the machine.
    const ssb_cpu_sample_t start = sample;
    volatile unsigned sink = 0;
    auto spinning_shows = [&] {
        for (int i = 0; i < 2000000; ++i)
            sink = sink + static_cast<unsigned>(i);
        ssb_cpu_sample_t s = start;
        return get_process_cpu_usage_r(&s, &usage) == 0 && usage > 0;
    };
    UTIL_WAIT_UNTIL(spinning_shows);
    EXPECT_LE(usage, 100u);
    EXPECT_FALSE(cap.contains("elapsed should bigger than 0"));
    // A sample from the future: no time has passed.
    ssb_cpu_sample_t future = {~0ull, 0};
    EXPECT_EQ(2, get_process_cpu_usage_r(&future, &usage));
    EXPECT_EQ(~0ull, future.wall_us);
    EXPECT_TRUE(cap.contains("assert: msg[get_process_cpu_usage_r elapsed should bigger than 0] file["));
}

TEST(SystemInfo, SharedCpuSampleFromManyThreads) {
    std::atomic<int> over(0);
    util_test::run_threads(4, [&](int) {
        for (int i = 0; i < 200; ++i) {
            if (get_process_cpu_usage() > 100)
                ++over;
        }
    });
    EXPECT_EQ(0, over.load());
}

TEST_F(SystemInfoLog, ModuleVersions) {
    unsigned a = 0, b = 0, c = 0, d = 0;
    EXPECT_EQ(2, get_dll_version(nullptr, &a, &b, &c, &d));
    EXPECT_EQ(2, get_dll_version("kernel32.dll", nullptr, &b, &c, &d));
    EXPECT_TRUE(cap.contains("::get_dll_version invalid args"));
    EXPECT_EQ(5, get_dll_version("no_such_module_4711.dll", &a, &b, &c, &d));
    // kernel32.dll on Windows, the C++ runtime's shared object elsewhere.
    const int windows = get_dll_version("kernel32.dll", &a, &b, &c, &d);
    const int posix = get_dll_version("libstdc++.so.6", &a, &b, &c, &d);
    EXPECT_TRUE(windows == 0 || posix == 0) << windows << " " << posix;
    EXPECT_GT(a, 0u);

    char small[23];
    EXPECT_EQ(2, get_ie_version_info(small, sizeof(small)));
    EXPECT_TRUE(cap.contains("get_ie_version_info INVALID ARGS"));
    char ie[24];
    const int rc = get_ie_version_info(ie, sizeof(ie));
    if (rc == 0) {
        unsigned v[4];
        EXPECT_TRUE(sscanf(ie, "%u.%u.%u.%u", &v[0], &v[1], &v[2], &v[3]) == 4 || std::string(ie) == "not installed")
            << ie;
    } else {
        EXPECT_EQ(999, rc);
        EXPECT_TRUE(cap.contains("get_ie_version_info failed to retrieve the version information"));
    }
}

struct posix_row_t {
    const char* os_release;
    const char* sysname;
    const char* release;
    int is_64bits;
    const char* text;
};

TEST(SystemInfo, PosixDescriptionFromUnameAndOsRelease) {
    const posix_row_t rows[] = {
        {"NAME=\"Debian GNU/Linux\"\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nVERSION=\"12\"\n", "Linux",
         "6.1.0-18-amd64", 1, "Debian GNU/Linux 12 (bookworm), 64bits, Linux 6.1.0-18-amd64"},
        {"PRETTY_NAME='Alpine v3'\r\n", "Linux", "5.10", 0, "Alpine v3, Linux 5.10"},
        {"NAME=Fedora\nVERSION=\"39 (Server)\"\n", "Linux", "6.5", 1, "Fedora 39 (Server), 64bits, Linux 6.5"},
        {"NAME=Plain\n", "Linux", "6.5", 1, "Plain, 64bits, Linux 6.5"},
        {"PRETTY_NAME=\"say \\\"hi\\\"\"\n", "Linux", "1", 0, "say \"hi\", Linux 1"},
        {"XPRETTY_NAME=no\nID=x\n", "FreeBSD", "14.0", 1, "64bits, FreeBSD 14.0"},
        {"", "Linux", "", 0, "Linux"},
        {nullptr, nullptr, nullptr, 0, "unknown system"},
    };
    for (const posix_row_t& r : rows) {
        char buf[128];
        posix_system_text(r.os_release, r.sysname, r.release, r.is_64bits, buf, sizeof(buf));
        EXPECT_STREQ(r.text, buf) << (r.os_release ? r.os_release : "null");
    }
}

TEST(SystemInfo, ThisSystem) {
    char info[256];
    memset(info, 'x', sizeof(info));
    get_system_info(info, sizeof(info));
    ASSERT_LT(strlen(info), sizeof(info));
    unsigned major = 0, minor = 0, type = 0, suite = 0, product = 0;
    EXPECT_EQ(2, _get_system_info(nullptr, &minor, &type, &suite, &product));
    const int rc = _get_system_info(&major, &minor, &type, &suite, &product);
    if (rc == 0) {
        // Windows: the description is the table's row for the raw values
        // (the R2 flag only matters for 5.2).
        char expected[256];
        windows_system_text(major, minor, type, suite, product, is_64bits_system() ? 1 : 0, 0, expected,
                            sizeof(expected));
        if (!(major == 5 && minor == 2)) {
            EXPECT_STREQ(expected, info);
        }
    } else {
        EXPECT_EQ(5, rc);
    }
    const bool has_64 = strstr(info, "64bits, ") != nullptr;
    if (rc != 0 || major == 6) {
        EXPECT_EQ(is_64bits_system(), has_64) << info;
    }

    // The wildcard rules are the matcher's; here only that the whole
    // description is what is matched.
    const std::string text(info);
    EXPECT_EQ(1, match_system_info(text.c_str()));
    EXPECT_EQ(0, match_system_info((text + "x").c_str()));
    EXPECT_EQ(0, match_system_info(nullptr));
    EXPECT_EQ(has_64 ? 1 : 0, match_system_info("*64bits*"));
}

}  // namespace

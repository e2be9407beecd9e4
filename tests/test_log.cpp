#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "log.h"
#include "singleton.h"
#include "test_support.h"
#include "toolkit.h"
#include "util.h"

using namespace ssb;
namespace fs = std::filesystem;

namespace {

struct line_t {
    unsigned int module;
    unsigned int level;
    std::string text;
};

// Records every line it is handed.
class capture_t : public log_it {
public:
    int cout(unsigned int module_id, unsigned int level, signed char* text, unsigned int length) override {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_lines.push_back(line_t{module_id, level, std::string(reinterpret_cast<char*>(text), length)});
        return 0;
    }
    std::vector<line_t> lines() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_lines;
    }
    size_t count() { return lines().size(); }
    // The message part: what follows the header's fourth TAB.
    std::vector<std::string> messages() {
        std::vector<std::string> out;
        for (const line_t& l : lines())
            out.push_back(message_of(l.text));
        return out;
    }
    static std::string message_of(const std::string& line) {
        size_t pos = 0;
        for (int tabs = 0; tabs < 4 && pos != std::string::npos; ++tabs)
            pos = line.find('\t', pos == 0 && tabs == 0 ? 0 : pos + 1);
        return pos == std::string::npos ? line : line.substr(pos + 1);
    }

private:
    std::mutex m_mutex;
    std::vector<line_t> m_lines;
};

// A fresh registry per test, routing to a capture and never to files. Until
// the first line opens the registry, the default logger and flags override
// per-module loggers, so tests install the capture as the default.
class LogControl : public ::testing::Test {
protected:
    void SetUp() override {
        log_control_t::destroy();
        log_control_t::set_default_logger(nullptr);
        log_control_t::set_default_mask(LOG_TO_HANDLE);
        control = log_control_t::instance();
        ASSERT_NE(nullptr, control);
    }
    void TearDown() override {
        log_control_t::destroy();
        log_control_t::set_default_logger(nullptr);
        log_control_t::set_default_mask(LOG_TO_FILE | LOG_TO_HANDLE);
    }
    bool passes(unsigned int module, unsigned int level) {
        signed char* m = nullptr;
        signed char* l = nullptr;
        return control->trace_enable(module, m, level, l);
    }
    log_control_t* control = nullptr;
    capture_t cap;
};

TEST_F(LogControl, TraceEnableChecksModuleAndLevelAndYieldsTheNames) {
    ASSERT_EQ(RESULT_SUCCESS, control->register_module(5, "M5", LOG_INFO, &cap, LOG_TO_HANDLE));
    signed char* m = nullptr;
    signed char* l = nullptr;
    ASSERT_TRUE(control->trace_enable(5, m, LOG_INFO, l));
    EXPECT_STREQ("M5", reinterpret_cast<char*>(m));
    EXPECT_STREQ("INFO", reinterpret_cast<char*>(l));
    EXPECT_TRUE(passes(5, LOG_FATAL));
    EXPECT_FALSE(passes(5, LOG_DEBUG));
    EXPECT_FALSE(passes(6, LOG_FATAL));
    EXPECT_FALSE(passes(256, LOG_FATAL));
    EXPECT_FALSE(passes(5, 32));
}

TEST_F(LogControl, EnableSetsTheGlobalLimitAnd255SilencesEverything) {
    register_logger_handle(&cap, LOG_TO_HANDLE);
    control->register_module(5, "M5", 31, &cap, LOG_TO_HANDLE);
    control->enable(255);
    EXPECT_FALSE(passes(5, LOG_FATAL));
    control->enable(0);
    EXPECT_TRUE(passes(5, LOG_FATAL));
    EXPECT_FALSE(passes(5, LOG_ERROR));
    control->enable(31);
    EXPECT_TRUE(passes(5, 31));
    EXPECT_EQ(RESULT_SUCCESS, enable_logger(255));
    SSB_LOG(5, LOG_FATAL, "never");
    EXPECT_EQ(0u, cap.count());
    enable_logger(32);
    SSB_LOG(5, LOG_FATAL, "now");
    EXPECT_EQ(1u, cap.count());
}

TEST_F(LogControl, RegistrationCodes) {
    EXPECT_EQ(RESULT_INVALID_ARG, control->register_module(256, "X", 3, &cap, 2));
    EXPECT_EQ(RESULT_INVALID_ARG, control->register_module(5, "X", 32, &cap, 2));
    EXPECT_EQ(RESULT_SUCCESS, control->register_module(255, "LAST", 31, &cap, 2));
    EXPECT_EQ(RESULT_INVALID_ARG, control->unregister_module(256));
    EXPECT_EQ(RESULT_NOT_FOUND, control->unregister_module(7));
    EXPECT_EQ(RESULT_NOT_FOUND, control->register_logger(7, 3, &cap));
    EXPECT_EQ(RESULT_INVALID_ARG, control->register_logger(7, 32, &cap));
    EXPECT_EQ(RESULT_NOT_FOUND, control->change_mask(7, 3));
    EXPECT_EQ(RESULT_INVALID_ARG, control->change_mask(256, 3));
    EXPECT_EQ(RESULT_SUCCESS, control->unregister_module(255));
    EXPECT_FALSE(passes(255, LOG_FATAL));
    EXPECT_EQ(RESULT_NOT_FOUND, control->unregister_module(255));
}

TEST_F(LogControl, LevelNames) {
    const char* preset[] = {"FATAL", "ERROR", "WARNING", "INFO", "DEBUG", "FUNC", "N/A"};
    for (unsigned int i = 0; i < 7; ++i)
        EXPECT_STREQ(preset[i], reinterpret_cast<const char*>(control->level_info(i))) << i;
    EXPECT_STREQ("N/A", reinterpret_cast<const char*>(control->level_info(31)));
    EXPECT_EQ(nullptr, control->level_info(32));
    EXPECT_EQ(nullptr, control->level_info(40));
    EXPECT_EQ(RESULT_SUCCESS, control->register_level(7, "TRACE"));
    EXPECT_STREQ("TRACE", reinterpret_cast<const char*>(control->level_info(7)));
    EXPECT_EQ(RESULT_SUCCESS, control->register_level(7, nullptr));
    EXPECT_STREQ("N/A", reinterpret_cast<const char*>(control->level_info(7)));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, control->register_level(32, "X"));
}

TEST_F(LogControl, TraceOutRoutesByFlagsAndNeverTwiceToTheSameLogger) {
    capture_t other;
    control->register_module(5, "M5", LOG_INFO, &cap, LOG_TO_HANDLE);
    control->open();
    control->register_logger(5, LOG_INFO, &cap);
    signed char text[] = "x\n";
    EXPECT_EQ(RESULT_NOT_FOUND, control->trace_out(6, LOG_INFO, text, 2, nullptr));
    EXPECT_EQ(RESULT_INVALID_ARG, control->trace_out(256, LOG_INFO, text, 2, nullptr));
    EXPECT_EQ(RESULT_INVALID_ARG, control->trace_out(5, 32, text, 2, nullptr));
    // Above the module's limit: filtered again here, nothing written.
    EXPECT_EQ(RESULT_SUCCESS, control->trace_out(5, LOG_DEBUG, text, 2, nullptr));
    EXPECT_EQ(0u, cap.count());
    EXPECT_EQ(RESULT_SUCCESS, control->trace_out(5, LOG_INFO, text, 2, nullptr));
    EXPECT_EQ(1u, cap.count());
    // An explicit logger alone receives the line.
    EXPECT_EQ(RESULT_SUCCESS, control->trace_out(5, LOG_INFO, text, 2, &other));
    EXPECT_EQ(1u, cap.count());
    EXPECT_EQ(1u, other.count());
    // The handle flag cleared: nothing goes to the handle logger.
    control->change_mask(5, LOG_TO_FILE);
    control->trace_out(5, LOG_INFO, text, 2, nullptr);
    EXPECT_EQ(1u, cap.count());
}

TEST_F(LogControl, StatementWritesHeaderThenMessageAndNewline) {
    ASSERT_EQ(RESULT_SUCCESS, register_logger_handle(&cap, LOG_TO_HANDLE));
    ASSERT_EQ(RESULT_SUCCESS, register_logger(100, "HOST", LOG_DEBUG, nullptr, LOG_TO_HANDLE));
    SSB_LOG(100, LOG_WARNING, "connected, peer = " << 42 << ", ok = " << true);
    SSB_LOG(100, LOG_FUNC, "filtered");
    std::vector<line_t> lines = cap.lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(100u, lines[0].module);
    EXPECT_EQ(unsigned(LOG_WARNING), lines[0].level);
    const std::string expected_ids =
        "\\[" + std::to_string(get_cur_pid()) + ":" + std::to_string(get_cur_tid()) + "\\]";
    EXPECT_TRUE(std::regex_match(lines[0].text,
                                 std::regex("[0-9]{1,2}/[0-9]{1,2}/[0-9]{4} [0-9]{1,2}:[0-9]{1,2}:[0-9]{1,2}:[0-9]{1,3}"
                                            "\tHOST\t" + expected_ids + "\tWARNING\t"
                                            "connected, peer = 42, ok = true\n")))
        << lines[0].text;
}

TEST_F(LogControl, LongLinesAreCutAndStillEndTheLine) {
    register_logger_handle(&cap, LOG_TO_HANDLE);
    register_logger(100, "HOST", LOG_INFO, nullptr, LOG_TO_HANDLE);
    std::string big(5000, 'x');
    // A NUL-terminated text is cut at the buffer's end; the line still ends.
    SSB_LOG(100, LOG_INFO, big.c_str() << " tail");
    // A counted text that does not fit is left out whole.
    SSB_LOG(100, LOG_INFO, big << " tail");
    std::vector<line_t> lines = cap.lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(2048u, lines[0].text.size());
    EXPECT_EQ('\n', lines[0].text.back());
    EXPECT_EQ(std::string(100, 'x'), capture_t::message_of(lines[0].text).substr(0, 100));
    EXPECT_EQ(" tail\n", capture_t::message_of(lines[1].text));
}

TEST_F(LogControl, ManyThreadsWriteWholeLinesAndNoneIsLost) {
    register_logger_handle(&cap, LOG_TO_HANDLE);
    register_logger(100, "HOST", LOG_INFO, nullptr, LOG_TO_HANDLE);
    const int THREADS = 4, LINES = 10000;
    util_test::run_threads(THREADS, [&](int t) {
        for (int i = 0; i < LINES; ++i)
            SSB_LOG(100, LOG_INFO, "thread = " << t << ", seq = " << i << ", end");
    });
    std::vector<std::string> messages = cap.messages();
    ASSERT_EQ(size_t(THREADS) * LINES, messages.size());
    std::vector<int> next(THREADS, 0);
    std::regex shape("thread = ([0-9]), seq = ([0-9]+), end\n");
    for (const std::string& m : messages) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(m, match, shape)) << m;
        int t = std::stoi(match[1]);
        // Each thread's lines arrive whole and in its own order.
        ASSERT_EQ(next[t], std::stoi(match[2]));
        ++next[t];
    }
}

// Logs from inside cout: the registry's lock is recursive.
class chatty_t : public capture_t {
public:
    int cout(unsigned int module_id, unsigned int level, signed char* text, unsigned int length) override {
        capture_t::cout(module_id, level, text, length);
        if (!m_inside.exchange(true)) {
            SSB_LOG(100, LOG_INFO, "from inside the logger");
            m_inside = false;
        }
        return 0;
    }

private:
    std::atomic<bool> m_inside{false};
};

TEST_F(LogControl, ALoggerMayLogWithoutDeadlock) {
    chatty_t chatty;
    register_logger_handle(&chatty, LOG_TO_HANDLE);
    register_logger(100, "HOST", LOG_INFO, nullptr, LOG_TO_HANDLE);
    util_test::run_threads(2, [&](int) {
        for (int i = 0; i < 100; ++i)
            SSB_LOG(100, LOG_INFO, "outer");
    });
    EXPECT_EQ(400u, chatty.count());
}

TEST_F(LogControl, AssertionLineForms) {
    register_logger_handle(&cap, LOG_TO_HANDLE);
    register_logger(100, "HOST", LOG_INFO, nullptr, LOG_TO_HANDLE);
    SSB_ASSERT_LINE(100, "util", 179, "");
    void* p = reinterpret_cast<void*>(0x1234);
    SSB_ASSERT_MSG(100, "something broke, n = " << 7, "tls", 93, ", this = " << p);
    std::vector<line_t> lines = cap.lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(unsigned(LOG_FATAL), lines[0].level);
    EXPECT_EQ("assert: file[util], line = [179]\n", capture_t::message_of(lines[0].text));
    EXPECT_EQ("assert: msg[something broke, n = 7] file[tls], line = [93], this = 0x00001234\n",
              capture_t::message_of(lines[1].text));
}

// ---- util_init / util_uninit lines ---------------------------------------------

TEST_F(LogControl, InitAndUninitLinesCarryTheirPairs) {
    register_logger_handle(&cap, LOG_TO_HANDLE);
    const char* banner = nullptr;
    util_version(nullptr, nullptr, &banner);
    const std::string dir = (fs::current_path() / "init_logs").string();
    util_init(7, dir.c_str(), "inittest", "log", 0x100000, 9);
    util_init(8, nullptr, nullptr, nullptr, 0, 0);
    util_uninit(8);
    util_uninit(7);
    // The tear-down unregistered module 1; bring it back to see the misuse.
    register_logger(1, "UTIL", 31, nullptr, LOG_TO_HANDLE);
    util_uninit(7);
    std::vector<std::string> m = cap.messages();
    auto has = [&](const std::string& text) { return std::find(m.begin(), m.end(), text) != m.end(); };
    EXPECT_TRUE(has("UTIL_INIT  refer s_init_times = 1, module_id = 7, description = " + std::string(banner) +
                    ", dir = " + dir + ", filename = inittest, pext = log, max_size = 1048576, max_idx = 9\n"));
    EXPECT_TRUE(has("UTIL_INIT  refer times = 2, module_id = 8, " + std::string(banner) + "\n"));
    EXPECT_TRUE(has("UTIL_UNINIT  refer times = 2, module_id = 8, description = " + std::string(banner) + "\n"));
    EXPECT_TRUE(has("UTIL_UNINIT  refer times = 1, module_id = 7, description = " + std::string(banner) + "\n"));
    EXPECT_TRUE(has("assert: file[util], line = [179]\n"));
    // The library's own lines went to its file too.
    bool found = false;
    for (const auto& entry : fs::directory_iterator(dir))
        found = found || entry.path().filename().string().rfind("inittest_", 0) == 0;
    EXPECT_TRUE(found);
}

TEST_F(LogControl, RegisterLoggerCutsArgumentsToEightBits) {
    register_logger_handle(&cap, LOG_TO_HANDLE);
    // 256 + 7 is module 7; 256 + 3 is level limit 3.
    EXPECT_EQ(RESULT_SUCCESS, register_logger(263, "CUT", 259, nullptr, LOG_TO_HANDLE));
    EXPECT_TRUE(passes(7, LOG_INFO));
    EXPECT_FALSE(passes(7, LOG_DEBUG));
    // A limit that is still out of range after the cut is refused.
    EXPECT_EQ(RESULT_INVALID_ARG, register_logger(8, "BAD", 40, nullptr, LOG_TO_HANDLE));
}

TEST_F(LogControl, ConfigureLoggerChecksTheSharedFilesLimits) {
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, configure_logger(0xFFFFF, 9));
    EXPECT_EQ(RESULT_SUCCESS, configure_logger(0x100000, 9));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, configure_logger(0x100000, 100));
    EXPECT_EQ(RESULT_SUCCESS, configure_logger(0x100000, 99));
    ASSERT_NE(nullptr, logger_file::peek());
    EXPECT_EQ(99u, logger_file::peek()->max_index());
    logger_file::release();
    EXPECT_EQ(nullptr, logger_file::peek());
}

TEST_F(LogControl, MonitorLinesGoToTheirOwnFile) {
    EXPECT_EQ(RESULT_SUCCESS, write_monitor("call", "joined", nullptr));
    EXPECT_EQ(RESULT_SUCCESS, write_monitor("call", nullptr));
    // Module 19 "MON" was registered on first use.
    signed char* m = nullptr;
    signed char* l = nullptr;
    ASSERT_TRUE(control->trace_enable(19, m, LOG_INFO, l));
    EXPECT_STREQ("MON", reinterpret_cast<char*>(m));
    char dir[4096];
    ASSERT_EQ(0, get_special_path(SSB_FOLDER_APPDATA, dir, sizeof(dir), 0));
    char process[256];
    get_self_process_name(process, sizeof(process));
    const std::string prefix = std::string("monitor_") + process + "_" + std::to_string(get_cur_pid()) + "_";
    std::string text;
    for (const auto& e : fs::directory_iterator(fs::path(dir) / "OrcaDecks" / "logs"))
        if (e.path().filename().string().rfind(prefix, 0) == 0) {
            std::ifstream in(e.path(), std::ios::binary);
            text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        }
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    EXPECT_TRUE(std::regex_match(text, std::regex("[0-9/]+ [0-9:]+\tcall\tjoined\n[0-9/]+ [0-9:]+\tcall\n"))) << text;
}

// ---- the rotating file ------------------------------------------------------------

// The file's text with line ends as written: log files are opened in text
// mode, so Windows stores "\r\n".
std::string read_file(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text;
}

// Pins the date the file logger sees.
class dated_file_t : public logger_file_base_t {
public:
    dated_file_t(const std::string& dir, local_date_t date, unsigned int max_index = 9)
        : logger_file_base_t(reinterpret_cast<const signed char*>(dir.c_str()),
                             reinterpret_cast<const signed char*>("rot"), reinterpret_cast<const signed char*>("log"),
                             0, max_index, date),
          m_now(date) {}
    local_date_t m_now;

protected:
    local_date_t today() const override { return m_now; }
};

class LoggerFile : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::current_path() / ("rot_" + std::to_string(get_cur_pid()) + "_" +
                                    ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir);
    }
    void TearDown() override { fs::remove_all(dir); }
    int write(logger_file_base_t& f, const std::string& text) {
        std::string copy = text;
        return f.cout(1, 3, reinterpret_cast<signed char*>(&copy[0]), static_cast<unsigned int>(copy.size()));
    }
    std::vector<std::string> files() {
        std::vector<std::string> names;
        for (const auto& e : fs::directory_iterator(dir))
            names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    fs::path dir;
};

local_date_t make_date(unsigned short y, unsigned short m, unsigned short d) {
    local_date_t date(nullptr);
    date.m_year = y;
    date.m_month = m;
    date.m_day = d;
    return date;
}

TEST_F(LoggerFile, ConstructorClampsAndConfigureChecksLimits) {
    const std::string d = dir.string();
    logger_file_base_t small(reinterpret_cast<const signed char*>(d.c_str()), nullptr, nullptr, 0, 5);
    EXPECT_EQ(MIN_LOG_SIZE, small.max_size());
    EXPECT_EQ(9u, small.max_index());
    logger_file_base_t big(reinterpret_cast<const signed char*>(d.c_str()), nullptr, nullptr, 0x50000000, 500);
    EXPECT_EQ(0x50000000u, big.max_size());  // no upper clamp here
    EXPECT_EQ(99u, big.max_index());

    EXPECT_EQ(RESULT_OUT_OF_LIMIT, small.configure(0xFFFFF, 9));
    EXPECT_EQ(RESULT_SUCCESS, small.configure(0x100000, 9));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, small.configure(0x100000, 100));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, small.configure(0x100000, 8));
    EXPECT_EQ(RESULT_SUCCESS, small.configure(0x100000, 99));
    EXPECT_EQ(RESULT_SUCCESS, small.configure(0x40000000, 99));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, small.configure(0x40000001, 99));
    EXPECT_EQ(0x40000000u, small.max_size());
    EXPECT_EQ(99u, small.max_index());
}

TEST_F(LoggerFile, NamesFilesStemDateIndexExtension) {
    dated_file_t f(dir.string(), make_date(2026, 11, 5));
    EXPECT_EQ(RESULT_SUCCESS, write(f, "line\n"));
    EXPECT_EQ(std::vector<std::string>({"rot_20261105_00.log"}), files());
    EXPECT_EQ(std::string("line\n"), read_file(dir / "rot_20261105_00.log").substr(0, 5));
    // No name: the process name and id; no extension: ".log" after the dot.
    logger_file_base_t anon(reinterpret_cast<const signed char*>(dir.string().c_str()), nullptr, nullptr, 0, 9);
    const std::string path = anon.current_path();
    char process[256];
    get_self_process_name(process, sizeof(process));
    EXPECT_NE(std::string::npos, path.find(std::string(process) + "_" + std::to_string(get_cur_pid()) + "_"));
    EXPECT_EQ("_00..log", path.substr(path.size() - 8));
}

TEST_F(LoggerFile, RotatesBySizeAndWrapsToATruncatedFirstFile) {
    dated_file_t f(dir.string(), make_date(2026, 3, 3));
    const std::string line(1023, 'a');
    const std::string chunk = line + "\n";  // 1 KiB
    // 1025 lines cross 1 MiB: the file rotates after the crossing write.
    for (int file = 0; file < 10; ++file)
        for (int i = 0; i < 1025; ++i)
            ASSERT_EQ(RESULT_SUCCESS, write(f, chunk));
    std::vector<std::string> names = files();
    ASSERT_EQ(10u, names.size());
    EXPECT_EQ("rot_20260303_00.log", names.front());
    EXPECT_EQ("rot_20260303_09.log", names.back());
    EXPECT_EQ(1025u * 1024u, read_file(dir / "rot_20260303_03.log").size());
    // After _09 filled, index 00 was reopened and truncated.
    EXPECT_EQ(0u, f.index());
    EXPECT_EQ("", read_file(dir / "rot_20260303_00.log"));
    write(f, "again\n");
    EXPECT_EQ("again\n", read_file(dir / "rot_20260303_00.log"));
}

TEST_F(LoggerFile, ANewDayOfTheMonthStartsAtIndexZero) {
    dated_file_t f(dir.string(), make_date(2026, 3, 3));
    write(f, "before midnight\n");
    f.m_now = make_date(2026, 3, 4);
    // The write after midnight still lands in the old file, then the day's
    // _00 is opened.
    write(f, "after midnight\n");
    write(f, "next\n");
    EXPECT_EQ("before midnight\nafter midnight\n", read_file(dir / "rot_20260303_00.log"));
    EXPECT_EQ("next\n", read_file(dir / "rot_20260304_00.log"));
    // Only the day of the month counts: 4 April continues 4 March's file.
    f.m_now = make_date(2026, 4, 4);
    write(f, "a month later\n");
    EXPECT_EQ(2u, files().size());
}

TEST_F(LoggerFile, AnUnwritableFolderFailsEveryWriteUntilItIsFixed) {
    fs::create_directories(dir);
    const fs::path blocker = dir / "not_a_dir";
    std::ofstream(blocker) << "x";
    dated_file_t f(blocker.string(), make_date(2026, 1, 1));
    EXPECT_EQ(RESULT_FAILURE, write(f, "lost\n"));
    EXPECT_EQ(RESULT_FAILURE, write(f, "lost\n"));
    fs::remove(blocker);
    fs::create_directories(blocker);
    EXPECT_EQ(RESULT_SUCCESS, write(f, "kept\n"));
    EXPECT_EQ("kept\n", read_file(blocker / "rot_20260101_00.log"));
}

TEST(LoggerFileTail, IsFifteenMarkedGroupsThenAsterisksAndNewline) {
    const std::string tail = logger_file::m_tail;
    ASSERT_EQ(141u, tail.size());
    std::string expected;
    for (int i = 0; i < 15; ++i)
        expected += "*****TAIL";
    expected += "*****\n";
    EXPECT_EQ(expected, tail);
}

}  // namespace

#include <gtest/gtest.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#if !defined(_WIN32)
#  include <sys/resource.h>
#endif

#include <algorithm>
#include <atomic>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "log.h"
#include "test_log_support.h"
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

// The message: what follows the header's last TAB.
std::string message_of(const std::string& line) { return line.substr(line.rfind('\t') + 1); }

class capture_t : public log_it {
public:
    int cout(unsigned int module_id, unsigned int level, signed char* text, unsigned int length) override {
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            m_lines.push_back(line_t{module_id, level, std::string(reinterpret_cast<char*>(text), length)});
        }
        if (m_reenter && !m_inside.exchange(true)) {
            SSB_LOG(100, LOG_INFO, "from inside the logger");
            m_inside = false;
        }
        return 0;
    }
    std::vector<line_t> lines() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_lines;
    }
    size_t count() { return lines().size(); }
    bool m_reenter = false;

private:
    std::mutex m_mutex;
    std::atomic<bool> m_inside{false};
    std::vector<line_t> m_lines;
};

// A fresh registry per test, routing to a capture and never to files.
class LogControl : public ::testing::Test {
protected:
    void SetUp() override {
        log_control_t::destroy();
        log_control_t::set_default_logger(nullptr);
        log_control_t::set_default_mask(LOG_TO_HANDLE);
        control = log_control_t::instance();
        ASSERT_NE(nullptr, control);
    }
    void TearDown() override { util_test::restore_log_routing(); }
    void route_host(unsigned int limit = LOG_INFO) {
        register_logger_handle(&cap, LOG_TO_HANDLE);
        register_logger(100, "HOST", limit, nullptr, LOG_TO_HANDLE);
    }
    bool passes(unsigned int module, unsigned int level) {
        signed char* m = nullptr;
        signed char* l = nullptr;
        return control->trace_enable(module, m, level, l);
    }
    log_control_t* control = nullptr;
    capture_t cap;
};

TEST_F(LogControl, FilterRegistrationAndLevelCodes) {
    ASSERT_EQ(RESULT_SUCCESS, control->register_module(5, "M5", LOG_INFO, &cap, LOG_TO_HANDLE));
    EXPECT_TRUE(passes(5, LOG_INFO));
    EXPECT_FALSE(passes(5, LOG_DEBUG));
    EXPECT_FALSE(passes(6, LOG_FATAL));
    EXPECT_FALSE(passes(256, LOG_FATAL));
    EXPECT_FALSE(passes(5, 32));
    EXPECT_EQ(RESULT_INVALID_ARG, control->register_module(256, "X", 3, &cap, 2));
    EXPECT_EQ(RESULT_INVALID_ARG, control->register_module(5, "X", 32, &cap, 2));
    EXPECT_EQ(RESULT_SUCCESS, control->register_module(255, "LAST", 31, &cap, 2));
    EXPECT_EQ(RESULT_INVALID_ARG, control->unregister_module(256));
    EXPECT_EQ(RESULT_NOT_FOUND, control->register_logger(7, 3, &cap));
    EXPECT_EQ(RESULT_INVALID_ARG, control->register_logger(7, 32, &cap));
    EXPECT_EQ(RESULT_NOT_FOUND, control->change_mask(7, 3));
    EXPECT_EQ(RESULT_INVALID_ARG, control->change_mask(256, 3));
    EXPECT_EQ(RESULT_SUCCESS, control->unregister_module(255));
    EXPECT_FALSE(passes(255, LOG_FATAL));
    EXPECT_EQ(RESULT_NOT_FOUND, control->unregister_module(255));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, configure_logger(0xFFFFF, 9));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, configure_logger(0x100000, 100));
    EXPECT_EQ(RESULT_SUCCESS, configure_logger(0x100000, 99));
    logger_file::release();
    // The global limit: 0 keeps FATAL only, 255 silences everything.
    control->enable(0);
    EXPECT_TRUE(passes(5, LOG_FATAL));
    EXPECT_FALSE(passes(5, LOG_ERROR));
    EXPECT_EQ(RESULT_SUCCESS, enable_logger(255));
    EXPECT_FALSE(passes(5, LOG_FATAL));
    EXPECT_EQ(nullptr, control->level_info(32));
    EXPECT_EQ(RESULT_SUCCESS, control->register_level(7, "TRACE"));
    EXPECT_STREQ("TRACE", reinterpret_cast<const char*>(control->level_info(7)));
    EXPECT_EQ(RESULT_OUT_OF_LIMIT, control->register_level(32, "X"));
}

TEST_F(LogControl, TraceOutRoutesByFlagsAndNeverTwiceToTheSameLogger) {
    capture_t other;
    control->register_module(5, "M5", LOG_INFO, &cap, LOG_TO_HANDLE);
    control->open();
    control->register_logger(5, LOG_INFO, &cap);
    control->reset_logger(&cap, LOG_TO_FILE);  // the same logger on both routes
    control->change_mask(5, LOG_TO_FILE | LOG_TO_HANDLE);
    signed char text[] = "x\n";
    EXPECT_EQ(RESULT_NOT_FOUND, control->trace_out(6, LOG_INFO, text, 2, nullptr));
    EXPECT_EQ(RESULT_INVALID_ARG, control->trace_out(256, LOG_INFO, text, 2, nullptr));
    EXPECT_EQ(RESULT_INVALID_ARG, control->trace_out(5, 32, text, 2, nullptr));
    EXPECT_EQ(RESULT_SUCCESS, control->trace_out(5, LOG_DEBUG, text, 2, nullptr));
    EXPECT_EQ(0u, cap.count());
    EXPECT_EQ(RESULT_SUCCESS, control->trace_out(5, LOG_INFO, text, 2, nullptr));
    EXPECT_EQ(1u, cap.count());
    EXPECT_EQ(RESULT_SUCCESS, control->trace_out(5, LOG_INFO, text, 2, &other));
    EXPECT_EQ(1u, cap.count());
    EXPECT_EQ(1u, other.count());
    // The file route skips a logger that is also the handle logger, even
    // when only the file route is on.
    control->change_mask(5, LOG_TO_FILE);
    control->trace_out(5, LOG_INFO, text, 2, nullptr);
    EXPECT_EQ(1u, cap.count());
}

TEST_F(LogControl, StatementWritesOneWholeLineLongTextIsCutAndALoggerMayLog) {
    route_host();
    SSB_LOG(100, LOG_WARNING, "peer = " << 42 << ", ok = " << true);
    SSB_LOG(100, LOG_DEBUG, "filtered");
    const std::string big(5000, 'x');
    SSB_LOG(100, LOG_INFO, big.c_str() << " tail");  // terminated: cut at the end
    SSB_LOG(100, LOG_INFO, big << " tail");          // counted: left out whole
    SSB_ASSERT_MSG(100, "n = " << 7, "tls", 93, ", this = " << reinterpret_cast<void*>(0x1234));
    cap.m_reenter = true;
    SSB_LOG(100, LOG_INFO, "outer");
    std::vector<line_t> lines = cap.lines();
    ASSERT_EQ(6u, lines.size());
    EXPECT_EQ(unsigned(LOG_WARNING), lines[0].level);
    const std::string ids = "[" + std::to_string(get_cur_pid()) + ":" + std::to_string(get_cur_tid()) + "]";
    EXPECT_EQ("\tHOST\t" + ids + "\tWARNING\tpeer = 42, ok = true\n", lines[0].text.substr(lines[0].text.find('\t')));
    EXPECT_EQ(2048u, lines[1].text.size());
    EXPECT_EQ('\n', lines[1].text.back());
    EXPECT_EQ(" tail\n", message_of(lines[2].text));
    EXPECT_EQ(unsigned(LOG_FATAL), lines[3].level);
    EXPECT_EQ("assert: msg[n = 7] file[tls], line = [93], this = 0x00001234\n", message_of(lines[3].text));
    // A logger that logs: the registry's lock is taken again on the same thread.
    EXPECT_EQ("from inside the logger\n", message_of(lines[5].text));
}

TEST_F(LogControl, ManyThreadsWriteWholeLinesAndNoneIsLost) {
    route_host();
    const int THREADS = 4, LINES = 10000;
    util_test::run_threads(THREADS, [&](int t) {
        for (int i = 0; i < LINES; ++i)
            SSB_LOG(100, LOG_INFO, t << " " << i << " end");
    });
    std::vector<line_t> lines = cap.lines();
    ASSERT_EQ(size_t(THREADS) * LINES, lines.size());
    std::vector<int> next(THREADS, 0);
    for (const line_t& l : lines) {
        int t = -1, i = -1, end = 0;
        ASSERT_EQ(2, sscanf(message_of(l.text).c_str(), "%d %d end\n%n", &t, &i, &end)) << l.text;
        ASSERT_EQ(message_of(l.text).size(), size_t(end));  // each thread's lines whole and in order
        ASSERT_EQ(next[t]++, i);
    }
}

TEST_F(LogControl, InitAndUninitLinesCarryTheirPairs) {
    register_logger_handle(&cap, LOG_TO_HANDLE);
    const char* banner = nullptr;
    util_version(nullptr, nullptr, &banner);
    const std::string b(banner), dir = (fs::current_path() / "init_logs").string();
    util_init(7, dir.c_str(), "inittest", "log", 0x100000, 9);
    util_init(8, nullptr, nullptr, nullptr, 0, 0);
    util_uninit(8);
    util_uninit(7);
    register_logger(1, "UTIL", 31, nullptr, LOG_TO_HANDLE);  // the tear-down unregistered it
    util_uninit(7);
    std::vector<std::string> m;
    for (const line_t& l : cap.lines())
        m.push_back(message_of(l.text));
    for (const std::string& want :
         {"UTIL_INIT  refer s_init_times = 1, module_id = 7, description = " + b + ", dir = " + dir +
              ", filename = inittest, pext = log, max_size = 1048576, max_idx = 9\n",
          "UTIL_INIT  refer times = 2, module_id = 8, " + b + "\n",
          "UTIL_UNINIT  refer times = 1, module_id = 7, description = " + b + "\n",
          std::string("assert: file[util], line = [179]\n")})
        EXPECT_NE(m.end(), std::find(m.begin(), m.end(), want)) << want;
}

// Log files are opened in text mode, so Windows stores "\r\n".
std::string read_file(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text;
}

// Threads racing to be the shared file's first user must all get one object
// that opened the file once: a second open would truncate the lines the
// winner had already written (and leave a hole before its next one).
TEST_F(LogControl, RacingFirstUsersOpenTheSharedFileOnceAndLoseNoLine) {
    const fs::path dir = fs::current_path() / ("race_" + std::to_string(get_cur_pid()));
    const std::string d = dir.string();
    const int THREADS = 8, ROUNDS = 100;
    for (int round = 0; round < ROUNDS; ++round) {
        logger_file::release();
        fs::remove_all(dir);
        std::atomic<int> ready{0};
        std::mutex write_lock;  // cout is serialised by the registry in real use
        std::atomic<logger_file*> seen[THREADS];
        util_test::run_threads(THREADS, [&](int t) {
            ++ready;
            util_test::wait_until("all racers at the start line", [&] { return ready.load() == THREADS; });
            logger_file* f =
                logger_file::instance(reinterpret_cast<const signed char*>(d.c_str()),
                                      reinterpret_cast<const signed char*>("race"), DEFAULT_EXTENSION, 0x100000, 9);
            seen[t] = f;
            std::string line = "line " + std::to_string(t) + "\n";
            std::lock_guard<std::mutex> guard(write_lock);
            f->cout(1, LOG_INFO, reinterpret_cast<signed char*>(&line[0]), static_cast<unsigned int>(line.size()));
        });
        logger_file* f = logger_file::peek();
        ASSERT_NE(nullptr, f);
        for (int t = 0; t < THREADS; ++t)
            ASSERT_EQ(f, seen[t].load()) << "racer " << t;
        const std::string text = read_file(f->current_path());
        ASSERT_EQ(std::string::npos, text.find('\0')) << "round " << round;
        for (int t = 0; t < THREADS; ++t)
            ASSERT_NE(std::string::npos, text.find("line " + std::to_string(t) + "\n"))
                << "round " << round << ": " << text;
        EXPECT_EQ(size_t(THREADS), size_t(std::count(text.begin(), text.end(), '\n')));
    }
    logger_file::release();
    fs::remove_all(dir);
}

// A file logger whose date the test sets.
class dated_file_t : public logger_file_base_t {
public:
    dated_file_t(const std::string& dir, unsigned short day)
        : logger_file_base_t(reinterpret_cast<const signed char*>(dir.c_str()),
                             reinterpret_cast<const signed char*>("rot"), reinterpret_cast<const signed char*>("log"),
                             0, 9, date(day)),
          m_now(date(day)) {}
    static local_date_t date(unsigned short day) {
        local_date_t d(nullptr);
        d.m_year = 2026, d.m_month = 3, d.m_day = day;
        return d;
    }
    int write(std::string text) {
        return cout(1, 3, reinterpret_cast<signed char*>(&text[0]), static_cast<unsigned int>(text.size()));
    }
    local_date_t m_now;

protected:
    local_date_t today() const override { return m_now; }
};

class LoggerFile : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::current_path() / ("rot_" + std::to_string(get_cur_pid()));
        fs::remove_all(dir);
    }
    void TearDown() override { fs::remove_all(dir); }
    fs::path dir;
};

TEST_F(LoggerFile, RotatesBySizeAndWrapsToATruncatedFirstFile) {
    dated_file_t f(dir.string(), 3);
    const std::string chunk = std::string(1023, 'a') + "\n";
    // 1025 lines of 1 KiB cross 1 MiB: the file rotates after the crossing write.
    for (int file = 0; file < 10; ++file)
        for (int i = 0; i < 1025; ++i)
            ASSERT_EQ(RESULT_SUCCESS, f.write(chunk));
    EXPECT_EQ(1025u * 1024u, read_file(dir / "rot_20260303_09.log").size());
    EXPECT_EQ(0u, f.index());
    EXPECT_EQ("", read_file(dir / "rot_20260303_00.log"));
    f.write("again\n");
    EXPECT_EQ("again\n", read_file(dir / "rot_20260303_00.log"));
}

TEST_F(LoggerFile, ANewDayOfTheMonthStartsAtIndexZero) {
    dated_file_t f(dir.string(), 3);
    f.write("before midnight\n");
    f.m_now = dated_file_t::date(4);
    // The write after midnight still lands in the old file.
    f.write("after midnight\n");
    f.write("next\n");
    EXPECT_EQ("before midnight\nafter midnight\n", read_file(dir / "rot_20260303_00.log"));
    EXPECT_EQ("next\n", read_file(dir / "rot_20260304_00.log"));
}

// Removing the folder under an open file: the next line makes the folder and
// a new file again.
TEST_F(LoggerFile, AFolderRemovedWhileLoggingIsMadeAgainAndLaterLinesKept) {
    const fs::path sub = dir / "nested";
    dated_file_t f(sub.string(), 3);
    ASSERT_EQ(RESULT_SUCCESS, f.write("before\n"));
    std::error_code ec;
    fs::remove_all(dir, ec);
    if (ec || fs::exists(dir))
        GTEST_SKIP() << "an open file's folder cannot be removed on this system";
    ASSERT_EQ(RESULT_SUCCESS, f.write("after\n"));
    ASSERT_EQ(RESULT_SUCCESS, f.write("later\n"));
    EXPECT_EQ("after\nlater\n", read_file(sub / "rot_20260303_00.log"));
}

#if !defined(_WIN32)
// A file-size limit stands in for a full disk: the write that crosses it is
// cut short, later ones fail until room comes back.
TEST_F(LoggerFile, ALineCutByAFullDiskIsEndedBeforeTheNextLine) {
    void (*saved_handler)(int) = signal(SIGXFSZ, SIG_IGN);
    dated_file_t f(dir.string(), 3);
    ASSERT_EQ(RESULT_SUCCESS, f.write("first line\n"));
    rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &saved));
    rlimit low = {16, saved.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &low));
    f.write("second line is long\n");
    f.write("lost while full\n");
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &saved));
    signal(SIGXFSZ, saved_handler);
    ASSERT_EQ(RESULT_SUCCESS, f.write("third\n"));
    EXPECT_EQ("first line\nsecon\nthird\n", read_file(dir / "rot_20260303_00.log"));
}
#endif

// Sets environment variables for one scope and puts them back after.
// putenv keeps the pointer, so the texts live as long as the process.
struct env_scope_t {
    void set(const char* name, const std::string& value) {
        const char* old = getenv(name);
        m_saved.push_back(keep(std::string(name) + "=" + (old ? old : "")));
        putenv(keep(std::string(name) + "=" + value));
    }
    ~env_scope_t() {
        for (char* s : m_saved)
            putenv(s);
    }
    static char* keep(const std::string& text) {
        static std::deque<std::string> s_texts;
        s_texts.push_back(text);
        return &s_texts.back()[0];
    }
    std::vector<char*> m_saved;
};

// With neither HOME nor XDG_DATA_HOME there is no per-user folder: the logs
// go to the temporary folder, never to the root of the file system.
TEST_F(LoggerFile, WithoutAUserFolderTheLogsGoToTheTemporaryFolder) {
    const fs::path tmp = dir / "tmp";
    env_scope_t env;
    for (const char* name : {"HOME", "XDG_DATA_HOME"})
        env.set(name, "");
    for (const char* name : {"TMPDIR", "TMP", "TEMP"})
        env.set(name, tmp.string());
    char probe[4096];
    if (get_special_path(SSB_FOLDER_APPDATA, probe, sizeof(probe), 0) == RESULT_SUCCESS)
        GTEST_SKIP() << "the application-data folder does not come from HOME on this system";
    logger_file_base_t f(nullptr, reinterpret_cast<const signed char*>("fallback"), DEFAULT_EXTENSION, 0, 9);
    const std::string sep(1, fs::path::preferred_separator);
    EXPECT_EQ(tmp.string() + sep + "OrcaDecks" + sep + "logs" + sep, f.directory());
    EXPECT_TRUE(fs::exists(f.current_path()));
}

}  // namespace

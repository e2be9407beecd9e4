#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

namespace {

// Ends a test that is stuck inside the library (a loop that no longer
// answers makes a synchronous call wait for ever) with its name, before
// CTest's own time-out would end the whole program without one. Waits
// written in tests give up sooner (test_support.h) and name what they
// waited for.
class watchdog_t : public testing::EmptyTestEventListener {
public:
    static constexpr std::chrono::seconds LIMIT{100};

    watchdog_t() : m_thread([this] { watch(); }) {}
    ~watchdog_t() override {
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_done = true;
        }
        m_wake.notify_all();
        m_thread.join();
    }

    void OnTestStart(const testing::TestInfo& info) override {
        std::lock_guard<std::mutex> guard(m_lock);
        m_name = std::string(info.test_suite_name()) + "." + info.name();
        m_started = std::chrono::steady_clock::now();
        m_running = true;
        m_wake.notify_all();
    }
    void OnTestEnd(const testing::TestInfo&) override {
        std::lock_guard<std::mutex> guard(m_lock);
        m_running = false;
        m_wake.notify_all();
    }

private:
    void watch() {
        std::unique_lock<std::mutex> guard(m_lock);
        while (!m_done) {
            if (!m_running) {
                m_wake.wait(guard);
                continue;
            }
            const auto deadline = m_started + LIMIT;
            if (std::chrono::steady_clock::now() >= deadline) {
                fprintf(stderr, "\nwatchdog: %s is still running after %lld s: a thread stopped answering\n",
                        m_name.c_str(), static_cast<long long>(LIMIT.count()));
                fflush(stderr);
                abort();
            }
            m_wake.wait_until(guard, deadline);
        }
    }

    std::mutex m_lock;
    std::condition_variable m_wake;
    std::string m_name;
    std::chrono::steady_clock::time_point m_started;
    bool m_running = false;
    bool m_done = false;
    std::thread m_thread;
};

constexpr std::chrono::seconds watchdog_t::LIMIT;

}  // namespace

int main(int argc, char** argv) {
    // Logs written by the tests stay in the build tree, never in the user's
    // home, even when a test binary is run by hand. (CTest sets this too; on
    // Windows the folder comes from the shell, and Wine keeps it inside its
    // prefix.)
    if (!getenv("XDG_DATA_HOME")) {
        static std::string setting = "XDG_DATA_HOME=" + (std::filesystem::current_path() / "test-home").string();
        putenv(&setting[0]);
    }
    testing::InitGoogleTest(&argc, argv);
    // Owned by gtest's listener list from here on.
    testing::UnitTest::GetInstance()->listeners().Append(new watchdog_t);
    return RUN_ALL_TESTS();
}

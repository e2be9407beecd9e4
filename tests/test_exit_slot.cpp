#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "platform/platform.h"
#include "test_support.h"

namespace {

// Set in the copy of this program that ExitSlot.NeverRunsAtProcessExit
// starts: the file its exit-slot function writes to.
const char CHILD_ENV[] = "UTIL_EXIT_SLOT_CHILD";

std::string child_marker_path() {
    const char* v = getenv(CHILD_ENV);
    return v ? std::string(v) : std::string();
}

// Appends the value (a label) to the child's file, one line per call.
void write_label(void* value) {
    FILE* f = fopen(child_marker_path().c_str(), "a");
    if (!f)
        return;
    fputs(static_cast<const char*>(value), f);
    fputs("\n", f);
    fclose(f);
}

struct record_t {
    std::atomic<int> calls{0};
    std::atomic<void*> value{nullptr};
};
record_t s_record;

void record_call(void* value) {
    s_record.value.store(value, std::memory_order_relaxed);
    s_record.calls.fetch_add(1, std::memory_order_release);
}

TEST(ExitSlot, RunsAsTheThreadEndsWithItsValueOnceAndNeverForNull) {
    ssb::plat::exit_slot_t slot;
    ASSERT_TRUE(ssb::plat::exit_slot_alloc(&slot, record_call));
    int token = 0;
    std::thread([&] { ASSERT_TRUE(ssb::plat::exit_slot_set(slot, &token)); }).join();
    UTIL_WAIT_UNTIL([] { return s_record.calls.load(std::memory_order_acquire) == 1; });
    EXPECT_EQ(&token, s_record.value.load(std::memory_order_relaxed));

    // A value set back to null, and a thread that never set one, call
    // nothing; the join is the end of the thread's clean-ups.
    std::thread([&] {
        ASSERT_TRUE(ssb::plat::exit_slot_set(slot, &token));
        ASSERT_TRUE(ssb::plat::exit_slot_set(slot, nullptr));
    }).join();
    std::thread([] {}).join();
    EXPECT_EQ(1, s_record.calls.load(std::memory_order_acquire));
}

// The body of the child: a thread that ends runs its slot function, the
// main thread's value is left as the process exits.
TEST(ExitSlot, ChildBody) {
    if (child_marker_path().empty())
        GTEST_SKIP() << "runs only in the process ExitSlot.NeverRunsAtProcessExit starts";
    ssb::plat::exit_slot_t slot;
    if (!ssb::plat::exit_slot_alloc(&slot, write_label))
        exit(3);
    static char thread_label[] = "thread";
    static char process_label[] = "process";
    std::thread([&] { ssb::plat::exit_slot_set(slot, thread_label); }).join();
    if (!ssb::plat::exit_slot_set(slot, process_label))
        exit(4);
    fflush(stdout);
    exit(0);
}

// At the process's end Windows stops every other thread wherever it is
// before it would run the exiting thread's callbacks; a function that then
// takes a lock a stopped thread held (the allocator's pool) never returns,
// and the program never exits.
TEST(ExitSlot, NeverRunsAtProcessExit) {
    char exe[1024];
    ASSERT_EQ(0, ssb::plat::self_exe_path(exe, sizeof(exe)));
    const std::filesystem::path marker =
        std::filesystem::temp_directory_path() /
        ("util_exit_slot_" + std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) + ".txt");
    std::filesystem::remove(marker);

    static std::string setting;
    setting = std::string(CHILD_ENV) + "=" + marker.string();
    putenv(&setting[0]);
    const std::string command = "\"" + std::string(exe) + "\" --gtest_filter=ExitSlot.ChildBody";
    // std::system has no deadline of its own: it runs on a thread that the
    // test waits for, and that is left behind if the child never ends.
    struct run_t {
        std::atomic<bool> done{false};
        int status = -1;
    };
    std::shared_ptr<run_t> run = std::make_shared<run_t>();
    std::thread child([run, command] {
        run->status = system(command.c_str());
        run->done.store(true, std::memory_order_release);
    });
    const bool ended =
        util_test::wait_until("the child process to exit", [&] { return run->done.load(std::memory_order_acquire); });
    static std::string cleared;
    cleared = std::string(CHILD_ENV) + "=";
    putenv(&cleared[0]);
    if (!ended) {
        child.detach();
        return;
    }
    child.join();
    EXPECT_EQ(0, run->status);

    std::ifstream in(marker);
    std::stringstream text;
    text << in.rdbuf();
    in.close();
    std::filesystem::remove(marker);
    EXPECT_EQ("thread\n", text.str());
}

}  // namespace

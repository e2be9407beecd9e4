// Small helpers shared by the tests.
#ifndef UTIL_TEST_SUPPORT_H
#define UTIL_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "notifier.h"

namespace util_test {

// Sanitized builds run long loops an order of magnitude slower: tests that
// repeat a race scale their rounds by this.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
const int ROUNDS_SCALE = 10;
#elif defined(__has_feature)
#  if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
const int ROUNDS_SCALE = 10;
#  else
const int ROUNDS_SCALE = 1;
#  endif
#else
const int ROUNDS_SCALE = 1;
#endif

// Starts the socket layer for the whole program (Winsock needs it); a test
// file registers it with ::testing::AddGlobalTestEnvironment.
class socket_environment_t : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_EQ(ssb::RESULT_SUCCESS, ssb::init_socket()); }
    void TearDown() override { EXPECT_EQ(ssb::RESULT_SUCCESS, ssb::cleanup_socket()); }
};

// Runs fn(i) on n threads and joins them.
inline void run_threads(int n, const std::function<void(int)>& fn) {
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i)
        threads.emplace_back(fn, i);
    for (auto& t : threads)
        t.join();
}

// How long a test waits for something that should happen at once before it
// calls it a fault: far beyond any honest delay (sanitizers, Wine, a loaded
// machine), far below CTest's time-out, so a broken loop fails with a name.
const std::chrono::seconds WAIT_LIMIT(30);

// Spins until pred() holds and returns true; past `limit` records a failure
// naming `what` and returns false. Tests use it instead of sleeping.
template <class Pred>
bool wait_until(const char* what, Pred pred, std::chrono::milliseconds limit = WAIT_LIMIT) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "gave up after " << limit.count() << " ms waiting for: " << what;
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

}  // namespace util_test

// In a test body: waits for the condition or ends the test, naming it.
#define UTIL_WAIT_UNTIL(...) ASSERT_TRUE(util_test::wait_until(#__VA_ARGS__, __VA_ARGS__))

#endif

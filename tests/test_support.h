// Small helpers shared by the tests.
#ifndef UTIL_TEST_SUPPORT_H
#define UTIL_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <atomic>
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
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
const int ROUNDS_SCALE = 10;
#else
const int ROUNDS_SCALE = 1;
#endif
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

// Spins until pred() holds; the tests use it instead of sleeping for a
// fixed time.
template <class Pred>
void wait_until(Pred pred) {
    while (!pred())
        std::this_thread::yield();
}

}  // namespace util_test

#endif

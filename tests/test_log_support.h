// Routing the library's own log lines into a test's capture.
#ifndef UTIL_TEST_LOG_SUPPORT_H
#define UTIL_TEST_LOG_SUPPORT_H

#include <mutex>
#include <string>

#include "log.h"

namespace util_test {

// A fresh registry whose module 1 "UTIL" writes every level to `capture`.
// Until the registry opens, the default logger overrides per-module ones, so
// the capture is installed as the default too.
inline void capture_util_log(ssb::log_it* capture) {
    ssb::log_control_t::destroy();
    ssb::log_control_t::set_default_logger(nullptr);
    ssb::log_control_t::set_default_mask(ssb::LOG_TO_HANDLE);
    ssb::log_control_t::instance();
    register_logger_handle(capture, ssb::LOG_TO_HANDLE);
    register_logger(ssb::UTIL_MODULE_ID, "UTIL", 31, nullptr, ssb::LOG_TO_HANDLE);
}

// Back to the library's defaults: no registry, no default logger, both outputs.
inline void restore_log_routing() {
    ssb::log_control_t::destroy();
    ssb::log_control_t::set_default_logger(nullptr);
    ssb::log_control_t::set_default_mask(ssb::LOG_TO_FILE | ssb::LOG_TO_HANDLE);
}

// Collects lines from any thread; tests look for a text among them.
class text_capture_t : public ssb::log_it {
public:
    int cout(unsigned int, unsigned int, signed char* text, unsigned int length) override {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_text.append(reinterpret_cast<char*>(text), length);
        return 0;
    }
    bool contains(const std::string& what) {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_text.find(what) != std::string::npos;
    }
    size_t count(const std::string& what) {
        std::lock_guard<std::mutex> guard(m_mutex);
        size_t n = 0;
        for (size_t at = m_text.find(what); at != std::string::npos; at = m_text.find(what, at + what.size()))
            ++n;
        return n;
    }
    void clear() {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_text.clear();
    }

private:
    std::mutex m_mutex;
    std::string m_text;
};

}  // namespace util_test

#endif

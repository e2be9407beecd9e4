// Routing the library's own log lines into a test's capture.
#ifndef UTIL_TEST_LOG_SUPPORT_H
#define UTIL_TEST_LOG_SUPPORT_H

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

}  // namespace util_test

#endif

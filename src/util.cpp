#include "util.h"

#include <stdio.h>

#include <atomic>

#include "alloc.h"
#include "lock.h"
#include "log.h"
#include "memlog.h"
#include "notifier.h"
#include "platform/platform.h"
#include "ref_holder.h"
#include "singleton.h"
#include "stream.h"
#include "thread_base.h"
#include "thread_mgr.h"
#include "trace.h"

namespace {

const char SOURCE_PATH[] = "util";
const unsigned int VERSION_MAJOR = 1;
const unsigned int VERSION_MINOR = 0;

// Signed so that misuse shows as a count that would go below zero.
std::atomic<int32_t> s_init_times(0);

// Serialises the first-call start-up with the last-call tear-down, so a new
// util_init never runs its start-up into a tear-down still in progress.
ssb::thread_mutex_recursive& lifecycle_lock() {
    static ssb::thread_mutex_recursive* s_lock = new ssb::thread_mutex_recursive;
    return *s_lock;
}

const char* build_banner() {
    // Built once: concurrent util_init calls must not rewrite it under a reader.
    static char s_banner[128];
    static const int s_len =
        snprintf(s_banner, sizeof(s_banner), "%s has been built on:%s at %s", "UTIL", __DATE__, __TIME__);
    (void)s_len;
    return s_banner;
}

const signed char* as_text(const char* s) { return reinterpret_cast<const signed char*>(s); }

void start_services(const char* dir, const char* filename, const char* pext, unsigned int max_size,
                    unsigned int max_idx) {
    ssb::logger_file::instance(as_text(dir), as_text(filename), as_text(pext), max_size, max_idx);
    register_logger(ssb::UTIL_MODULE_ID, "UTIL", 31, nullptr, ssb::LOG_TO_FILE | ssb::LOG_TO_HANDLE);
    ssb::plat::timer_resolution_begin();
    // A failure is logged by init_socket itself; start-up goes on.
    ssb::init_socket();
    // Wraps this thread as the main thread and starts the timer driver.
    ssb::thread_mgr_t::instance();
    ssb::ssb_allocator_t::instance();
    ssb::init_auxi();
}

// Starts the memory log with the banner, so a dump says which build wrote it.
void start_memory_log(const char* description) {
    ssb::mem_log_file::plugin_lock guard;
    ssb::mem_log_file* memory = ssb::mem_log_file::instance(ssb::DEFAULT_MEM_LOG_SIZE);
    if (!memory)
        return;
    signed char buf[ssb::LOG_LINE_BUFFER];
    ssb::log_stream_t line(buf, sizeof(buf), as_text("INFO"), as_text("ORCA"));
    line << "This " << description;
    ssb::detail::finish_line(line);
    memory->cout(ssb::UTIL_MODULE_ID, ssb::LOG_INFO, buf, line.length());
}

// The main thread's wrapper, cached by the first successful heartbeat. It
// holds a reference, so a loop stopped by util_uninit is never freed under
// a heartbeat; the last util_uninit drops it, and a cached loop that has
// stopped is looked up again (after a restart the manager wraps the main
// thread anew).
ssb::thread_wrapper_t* s_main_thr = nullptr;

// Guards s_main_thr: a heartbeat takes its own reference under it, so a
// last util_uninit on another thread never frees the loop between the
// heartbeat's read and its pass.
ssb::thread_mutex& main_cache_lock() {
    static ssb::thread_mutex* s_lock = new ssb::thread_mutex;
    return *s_lock;
}

// The cached main loop with a reference the caller drops, or null.
ssb::thread_wrapper_t* cached_main() {
    ssb::auto_lock_t<ssb::thread_mutex> guard(main_cache_lock());
    if (s_main_thr)
        s_main_thr->increment();
    return s_main_thr;
}

// Caches `thr` (null to clear), dropping the loop cached before.
void cache_main(ssb::thread_wrapper_t* thr) {
    if (thr)
        thr->increment();
    ssb::thread_wrapper_t* old = nullptr;
    {
        ssb::auto_lock_t<ssb::thread_mutex> guard(main_cache_lock());
        old = s_main_thr;
        s_main_thr = thr;
    }
    if (old)
        old->decrement();
}

void stop_services() {
    // Stops every thread while the rest still works for them.
    ssb::thread_mgr_t::destroy();
    cache_main(nullptr);
    // After the threads, whose caches went to the pool as they ended.
    ssb::ssb_allocator_t* allocator = ssb::ssb_allocator_t::instance();
    if (allocator)
        allocator->release();
    ssb::cleanup_socket();
    ssb::plat::timer_resolution_end();
    ssb::log_control_t::destroy();
    ssb::singleton_life_t::instance().cleanup();
}

}  // namespace

void util_version(unsigned int* major, unsigned int* minor, const char** description) {
    if (major)
        *major = VERSION_MAJOR;
    if (minor)
        *minor = VERSION_MINOR;
    const char* banner = build_banner();
    if (description)
        *description = banner;
}

int util_init(unsigned int module_id, const char* dir, const char* filename, const char* pext, unsigned int max_size,
              unsigned int max_idx) {
    const char* description = nullptr;
    util_version(nullptr, nullptr, &description);
    int32_t times = s_init_times.fetch_add(1, std::memory_order_acq_rel) + 1;
    if (times == 1) {
        ssb::auto_lock_t<ssb::thread_mutex_recursive> guard(lifecycle_lock());
        start_services(dir, filename, pext, max_size, max_idx);
        UTIL_LOG(ssb::LOG_INFO, "UTIL_INIT  refer "
                                    << "s_init_times = " << times << ", module_id = " << module_id << ", description = "
                                    << description << ", dir = " << dir << ", filename = " << filename
                                    << ", pext = " << pext << ", max_size = " << max_size << ", max_idx = " << max_idx);
        start_memory_log(description);
    } else {
        UTIL_LOG(ssb::LOG_INFO,
                 "UTIL_INIT  refer times = " << times << ", module_id = " << module_id << ", " << description);
    }
    return ssb::RESULT_SUCCESS;
}

void util_uninit(unsigned int module_id) {
    const char* description = nullptr;
    util_version(nullptr, nullptr, &description);
    int32_t times = s_init_times.load(std::memory_order_acquire);
    UTIL_LOG(ssb::LOG_INFO, "UTIL_UNINIT  refer times = " << times << ", module_id = " << module_id << ", "
                                                          << "description"
                                                          << " = " << description);
    // Count down without ever going below zero, even when racing.
    do {
        if (times <= 0) {
            UTIL_ASSERT_LINE(SOURCE_PATH, 179, "");
            return;
        }
    } while (
        !s_init_times.compare_exchange_weak(times, times - 1, std::memory_order_acq_rel, std::memory_order_acquire));
    if (times - 1 == 0) {
        ssb::auto_lock_t<ssb::thread_mutex_recursive> guard(lifecycle_lock());
        stop_services();
    }
}

int main_heartbeat() {
    if (s_init_times.load(std::memory_order_acquire) < 1) {
        UTIL_ASSERT_LINE(SOURCE_PATH, 209, "");
        return ssb::RESULT_NOTHING_TO_DO;
    }
    ssb::thread_mgr_t* mgr = ssb::thread_mgr_t::peek();
    if (!mgr) {
        UTIL_ASSERT_LINE(SOURCE_PATH, 211, "");
        return ssb::RESULT_NOTHING_TO_DO;
    }
    ssb::ref_holder_t<ssb::thread_wrapper_t> main_thr = ssb::ref_holder_t<ssb::thread_wrapper_t>::adopt(cached_main());
    if (!main_thr || main_thr->is_stopped()) {
        // Under the manager's class lock, which its destruction takes before
        // it deletes it: a last util_uninit on another thread cannot free
        // the manager under this lookup.
        ssb::auto_lock_t<ssb::thread_mutex_recursive> guard(ssb::thread_mgr_t::class_lock());
        mgr = ssb::thread_mgr_t::peek();
        if (!mgr) {
            UTIL_ASSERT_LINE(SOURCE_PATH, 211, "");
            return ssb::RESULT_NOTHING_TO_DO;
        }
        ssb::thread_wrapper_t* found = mgr->find_by_type(ssb::THREAD_TYPE_MAIN);
        ssb::thread_wrapper_t* mine = mgr->current();
        if (found != mine) {
            UTIL_ASSERT_LINE(SOURCE_PATH, 216,
                             ", main_thr = " << static_cast<void*>(found) << ", self = " << static_cast<void*>(mine));
            return ssb::RESULT_REFUSED;
        }
        if (!found) {
            UTIL_ASSERT_LINE(SOURCE_PATH, 218, "");
            return ssb::RESULT_NOTHING_TO_DO;
        }
        cache_main(found);
        main_thr = ssb::ref_holder_t<ssb::thread_wrapper_t>(found);
    }
    if (main_thr->get_id() != ssb::thread_base_t::get_cur_tid()) {
        UTIL_ASSERT_MSG("main_heartbeat should in main thread, main_thr->get_id() = "
                            << main_thr->get_id()
                            << ", thread_base_t::get_cur_tid() = " << ssb::thread_base_t::get_cur_tid(),
                        SOURCE_PATH, 224, "");
        return ssb::RESULT_REFUSED;
    }
    main_thr->thread_run(nullptr);
    return ssb::RESULT_SUCCESS;
}

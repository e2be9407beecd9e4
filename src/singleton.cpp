#include "singleton.h"

#include <algorithm>

#include "trace.h"

namespace ssb {

namespace {
const char SOURCE_PATH[] = "singleton";
const uint32_t MAX_SINGLETONS = 0x3FFFFFFF;
}  // namespace

thread_mutex_recursive& global_lock() {
    // Never destroyed: singletons may be torn down from static destructors.
    static thread_mutex_recursive* s_lock = new thread_mutex_recursive;
    return *s_lock;
}

singleton_life_t& singleton_life_t::instance() {
    static singleton_life_t* s_instance = new singleton_life_t;
    return *s_instance;
}

singleton_life_t::singleton_life_t() : m_count(0) {}

singleton_life_t::~singleton_life_t() {}

// regist and unregist log after leaving the lock: logging may create the
// log's own singletons, which register here.
void singleton_life_t::regist(destroy_fn fn) {
    uint32_t count;
    bool overflow = false;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_lock);
        count = m_count;
        if (std::find(m_fns.begin(), m_fns.end(), fn) == m_fns.end()) {
            if (m_count >= MAX_SINGLETONS) {
                overflow = true;
            } else {
                m_fns.push_back(fn);
                ++m_count;
            }
        }
    }
    UTIL_LOG(LOG_INFO, "singleton_life_t::regist fn = " << reinterpret_cast<void*>(fn) << ", this = " << this
                                                        << ",singleton number = " << count);
    if (overflow)
        UTIL_ASSERT_MSG("list<T> too long", SOURCE_PATH, __LINE__, ", this = " << this);
}

void singleton_life_t::unregist(destroy_fn fn) {
    uint32_t count;
    bool found = false;
    {
        auto_lock_t<thread_mutex_recursive> guard(m_lock);
        count = m_count;
        std::list<destroy_fn>::iterator it = std::find(m_fns.begin(), m_fns.end(), fn);
        if (it != m_fns.end()) {
            m_fns.erase(it);
            --m_count;
            found = true;
        }
    }
    UTIL_LOG(LOG_INFO, "singleton_life_t::unregist fn = " << reinterpret_cast<void*>(fn) << ", this = " << this
                                                          << ",singleton number = " << count);
    if (!found)
        UTIL_LOG(LOG_INFO, "singleton_life_t::unregist fn = " << reinterpret_cast<void*>(fn)
                                                              << " but not found,singleton number = " << count);
}

void singleton_life_t::cleanup() {
    UTIL_LOG(LOG_INFO, "singleton_life_t::cleanup, singleton number = " << size() << ", this = " << this);
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    while (!m_fns.empty()) {
        destroy_fn fn = m_fns.front();
        fn();
        if (!m_fns.empty() && m_fns.front() == fn) {
            // A destroy function that stays listed would be called forever.
            UTIL_ASSERT_MSG("singleton_life_t::cleanup fn did not unregist, fn = " << reinterpret_cast<void*>(fn),
                            SOURCE_PATH, __LINE__, ", this = " << this);
            m_fns.pop_front();
            --m_count;
        }
    }
    UTIL_LOG(LOG_INFO, "singleton_life_t::cleanup finished!, singleton number = " << m_count << ", this = " << this);
    m_fns.clear();
    m_count = 0;
}

uint32_t singleton_life_t::size() const {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    return m_count;
}

}  // namespace ssb

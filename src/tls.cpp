#include "tls.h"

#include <algorithm>
#include <new>
#include <vector>

#include "platform/platform.h"
#include "singleton.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = "tls";
const unsigned int NO_MORE_KEYS = 0xFFFFFFFFu;

void destroy_allocator() { tls_slots_allocator_t::destroy(); }

lazy_singleton_t<tls_slots_allocator_t> s_allocator(destroy_allocator, false);

}  // namespace

struct tls_slots_allocator_t::table_t {
    struct entry_t {
        void* value;
        tls_cleanup_fn cleanup;
        bool used;
    };
    struct page_t {
        entry_t entries[TLS_PAGE_SIZE];
    };

    ~table_t() {
        for (size_t i = 0; i < pages.size(); ++i)
            delete pages[i];
    }
    unsigned int capacity() const { return static_cast<unsigned int>(pages.size()) * TLS_PAGE_SIZE; }
    entry_t& at(unsigned int key) { return pages[key / TLS_PAGE_SIZE]->entries[key % TLS_PAGE_SIZE]; }

    // Adds pages until `key` fits; false when memory runs out.
    bool extend(unsigned int key) {
        while (capacity() <= key) {
            page_t* page = new (std::nothrow) page_t();
            if (!page)
                return false;
            try {
                pages.push_back(page);
            } catch (...) {
                delete page;
                return false;
            }
        }
        return true;
    }

    std::vector<page_t*> pages;
};

tls_slots_allocator_t* tls_slots_allocator_t::instance() {
    return s_allocator.instance([] { return new tls_slots_allocator_t; });
}

tls_slots_allocator_t* tls_slots_allocator_t::peek() { return s_allocator.get(); }

void tls_slots_allocator_t::destroy() {
    s_allocator.destroy([](tls_slots_allocator_t* p) { delete p; });
}

tls_slots_allocator_t::tls_slots_allocator_t() : m_index(0), m_usable(false), m_next_key(0) {
    plat::tls_index_t index;
    if (plat::tls_index_alloc(&index)) {
        m_index = index;
        m_usable = true;
    } else {
        UTIL_ASSERT_MSG("tls_t::tls_t() create key failed", SOURCE_PATH, __LINE__, ", this = " << this);
    }
}

tls_slots_allocator_t::~tls_slots_allocator_t() {
    UTIL_LOG(LOG_INFO, "tls_slots_allocator_t::~tls_slots_allocator_t, this = " << this);
    cleanup();
    if (m_usable)
        plat::tls_index_free(m_index);
}

tls_slots_allocator_t::table_t* tls_slots_allocator_t::table() const {
    return m_usable ? static_cast<table_t*>(plat::tls_index_get(m_index)) : nullptr;
}

int tls_slots_allocator_t::allocate_key(unsigned int& key) {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    if (!m_released.empty()) {
        key = m_released.front();
        m_released.pop_front();
        return RESULT_SUCCESS;
    }
    unsigned int next = m_next_key.load(std::memory_order_relaxed);
    if (next == NO_MORE_KEYS) {
        UTIL_ASSERT_MSG("tls_slots_allocator_t::allocate_key out of limitation", SOURCE_PATH, 47, ", this = " << this);
        return RESULT_OUT_OF_LIMIT;
    }
    key = next;
    m_next_key.store(next + 1, std::memory_order_relaxed);
    return RESULT_SUCCESS;
}

int tls_slots_allocator_t::deallocate_key(unsigned int key) {
    auto_lock_t<thread_mutex_recursive> guard(m_lock);
    // A key listed twice, or one never handed out, would later be handed
    // out to two owners.
    if (key >= m_next_key.load(std::memory_order_relaxed)) {
        UTIL_ASSERT_MSG("tls_slots_allocator_t::deallocate_key, key = "
                            << key << ", m_max_key = " << m_next_key.load(std::memory_order_relaxed) - 1,
                        SOURCE_PATH, __LINE__, ", this = " << this);
        return RESULT_OUT_OF_LIMIT;
    }
    if (std::find(m_released.begin(), m_released.end(), key) != m_released.end()) {
        UTIL_ASSERT_MSG("tls_slots_allocator_t::deallocate_key already released, key = " << key, SOURCE_PATH, __LINE__,
                        ", this = " << this);
        return RESULT_NOTHING_TO_DO;
    }
    m_released.push_back(key);
    table_t* t = table();
    if (t && key < t->capacity()) {
        table_t::entry_t& e = t->at(key);
        e.value = nullptr;
        e.cleanup = nullptr;
        e.used = false;
    }
    return RESULT_SUCCESS;
}

int tls_slots_allocator_t::setspecific_value(unsigned int key, void* value, tls_cleanup_fn cleanup_fn) {
    unsigned int max_key = m_next_key.load(std::memory_order_relaxed) - 1;
    if (key >= m_next_key.load(std::memory_order_relaxed)) {
        UTIL_ASSERT_MSG("tls_slots_allocator_t::setspecific_value, key = " << key << ", m_max_key = " << max_key,
                        SOURCE_PATH, 67, ", this = " << this);
        return RESULT_OUT_OF_LIMIT;
    }
    if (!m_usable)
        return RESULT_CREATE_FAILED;
    table_t* t = table();
    if (!t) {
        t = new (std::nothrow) table_t;
        if (!t || !plat::tls_index_set(m_index, t)) {
            delete t;
            UTIL_ASSERT_LINE(SOURCE_PATH, 72, ", this = " << this);
            return RESULT_CREATE_FAILED;
        }
    }
    if (!t->extend(key)) {
        UTIL_ASSERT_MSG("tls_slots_allocator_t::setspecific_value extend buf failed, key = " << key << ", max_key = "
                                                                                             << t->capacity(),
                        SOURCE_PATH, 80, ", this = " << this);
        return RESULT_OUT_OF_LIMIT;
    }
    table_t::entry_t& e = t->at(key);
    e.value = value;
    e.cleanup = cleanup_fn;
    e.used = true;
    return RESULT_SUCCESS;
}

int tls_slots_allocator_t::getspecific_value(unsigned int key, void*& value) {
    unsigned int next = m_next_key.load(std::memory_order_relaxed);
    if (key >= next) {
        UTIL_ASSERT_MSG("tls_slots_allocator_t::getspecific_value, key = " << key << ", m_max_key = " << next - 1,
                        SOURCE_PATH, 93, ", this = " << this);
        return RESULT_OUT_OF_LIMIT;
    }
    table_t* t = table();
    if (!t)
        return RESULT_NOTHING_TO_DO;
    if (key >= t->capacity()) {
        UTIL_ASSERT_MSG("tls_slots_allocator_t::getspecific_value, key = " << key << ", max_key = " << t->capacity(),
                        SOURCE_PATH, 97, ", this = " << this);
        return RESULT_OUT_OF_LIMIT;
    }
    const table_t::entry_t& e = t->at(key);
    if (!e.used)
        return RESULT_NOT_FOUND;
    value = e.value;
    return RESULT_SUCCESS;
}

void tls_slots_allocator_t::cleanup() {
    table_t* t = table();
    if (!t)
        return;
    UTIL_LOG(LOG_INFO, "tls_slots_allocator_t::cleanup, this = " << this);
    // Clear the index first so a clean-up function that reads its own slot
    // sees "no table" rather than a half-freed one.
    plat::tls_index_set(m_index, nullptr);
    for (size_t p = 0; p < t->pages.size(); ++p) {
        for (unsigned int i = 0; i < TLS_PAGE_SIZE; ++i) {
            table_t::entry_t& e = t->pages[p]->entries[i];
            if (e.used && e.cleanup)
                e.cleanup(e.value);
        }
    }
    delete t;
}

int tls_allocate_key(unsigned int& key) { return tls_slots_allocator_t::instance()->allocate_key(key); }

int tls_deallocate_key(unsigned int key) { return tls_slots_allocator_t::instance()->deallocate_key(key); }

int tls_setspecific_value(unsigned int key, void* value, tls_cleanup_fn cleanup) {
    return tls_slots_allocator_t::instance()->setspecific_value(key, value, cleanup);
}

int tls_getspecific_value(unsigned int key, void*& value) {
    return tls_slots_allocator_t::instance()->getspecific_value(key, value);
}

int tls_cleanup() {
    UTIL_LOG(LOG_INFO, "tls_cleanup()");
    tls_slots_allocator_t* p = tls_slots_allocator_t::peek();
    if (p)
        p->cleanup();
    return RESULT_SUCCESS;
}

}  // namespace ssb

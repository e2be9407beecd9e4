#include "memlog.h"

#include <string.h>

#include <new>

#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = ".\\memlog";

thread_mutex_recursive& memlog_lock() {
    static thread_mutex_recursive* s_lock = new thread_mutex_recursive;
    return *s_lock;
}

}  // namespace

lazy_singleton_t<mem_log_file> mem_log_file::s_instance(nullptr, false, memlog_lock);

mem_log_file::plugin_lock::plugin_lock() { memlog_lock().acquire(); }

mem_log_file::plugin_lock::~plugin_lock() { memlog_lock().release(); }

mem_log_file::mem_log_file(unsigned int size)
    : m_buffer(nullptr),
      m_size_limitation(size < MIN_MEM_LOG_SIZE ? MIN_MEM_LOG_SIZE
                                                : (size > MAX_MEM_LOG_SIZE ? MAX_MEM_LOG_SIZE : size)),
      m_used(0),
      m_full(false) {
    m_buffer = new (std::nothrow) signed char[m_size_limitation];
}

mem_log_file::~mem_log_file() { delete[] m_buffer; }

mem_log_file* mem_log_file::instance(unsigned int size) {
    plugin_lock guard;
    return s_instance.instance([size] { return new (std::nothrow) mem_log_file(size); });
}

void mem_log_file::destroy() {
    plugin_lock guard;
    if (s_instance.get())
        delete s_instance.take(true);
}

void mem_log_file::reset(bool destroy_first) {
    if (destroy_first)
        destroy();
    s_instance.reopen();
}

int mem_log_file::resize(unsigned int keep_size) {
    bool destroyed;
    unsigned int limit = 0;
    {
        plugin_lock guard;
        if (mem_log_file* p = s_instance.get()) {
            int rc = p->replacement(keep_size);
            if (rc == RESULT_SUCCESS)
                return rc;
            limit = p->m_size_limitation;
        }
        destroyed = s_instance.closed();
    }
    // Lines are logged outside the lock, so this lock is never held while
    // the registry's is taken.
    if (limit) {
        UTIL_ASSERT_MSG("mem_log_file::replacement, keep_size = " << keep_size << ", m_size_limiation = " << limit,
                        SOURCE_PATH, __LINE__, "");
        return RESULT_INVALID_ARG;
    }
    UTIL_ASSERT_MSG(
        "mem_log_file::resize already has been destory, keep_size = " << keep_size << ", s_destroyed = " << destroyed,
        SOURCE_PATH, __LINE__, "");
    return RESULT_NOTHING_TO_DO;
}

unsigned int mem_log_file::space() const {
    plugin_lock guard;
    return m_buffer ? m_size_limitation - m_used : 0;
}

unsigned int mem_log_file::used() const {
    plugin_lock guard;
    return m_used;
}

bool mem_log_file::is_full() const {
    plugin_lock guard;
    return m_buffer ? m_full : true;
}

int mem_log_file::cout(unsigned int, unsigned int, signed char* text, unsigned int length) {
    // The refusal below logs, and that line may be routed back here.
    static thread_local bool s_refusing = false;
    unsigned int left;
    {
        plugin_lock guard;
        // Strictly less: a line exactly as long as the free space is refused.
        left = space();
        if (length < left) {
            // memcpy with a null source is undefined even for 0 bytes.
            if (length > 0)
                memcpy(m_buffer + m_used, text, length);
            m_used += length;
            return RESULT_SUCCESS;
        }
        m_full = true;
    }
    // Logged outside the lock so this lock is never held while the
    // registry's is taken.
    if (!s_refusing) {
        s_refusing = true;
        UTIL_LOG(LOG_WARNING, "mem_log_file::cout out of limitation, length = " << length << ", space() = " << left
                                                                                << ", this = " << this);
        s_refusing = false;
    }
    return RESULT_CREATE_FAILED;
}

int mem_log_file::replacement(unsigned int keep_size) {
    if (keep_size >= m_size_limitation)
        return RESULT_INVALID_ARG;
    if (keep_size < m_used && m_buffer) {
        memmove(m_buffer, m_buffer + (m_used - keep_size), keep_size);
        memset(m_buffer + keep_size, 0, m_used - keep_size);
        m_used = keep_size;
    }
    return RESULT_SUCCESS;
}

int mem_log_file::dump(void* context, mem_log_dump_fn callback) {
    if (!callback) {
        UTIL_ASSERT_MSG("mem_log_file::dump callback function should be not NULL", SOURCE_PATH, __LINE__,
                        ", this = " << this);
        return RESULT_INVALID_ARG;
    }
    plugin_lock guard;
    return callback(context, m_buffer, m_used);
}

}  // namespace ssb

// Thread-local slots independent of the OS's small number of native indexes:
// one native index per process, and per thread a table of 256-entry pages.
//
// Keys are allocated and released under the allocator's lock from any
// thread; values are set and read by each thread in its own table without a
// lock. Each thread calls tls_cleanup before it ends, or its table leaks.
#ifndef SSB_TLS_H
#define SSB_TLS_H

#include <atomic>
#include <deque>

#include "lock.h"

namespace ssb {

typedef void(SSB_STDCALL* tls_cleanup_fn)(void* value);

const unsigned int TLS_PAGE_SIZE = 256;

// 0, or 8 when no more keys can be handed out.
UTIL_API int tls_allocate_key(unsigned int& key);
// 0; 9 with an assertion line when the key is already released, 8 when it
// was never handed out (either would hand one key to two owners).
UTIL_API int tls_deallocate_key(unsigned int key);
// 0; 8 for a key never handed out or a table that cannot grow; 1 when the
// thread's table cannot be made.
UTIL_API int tls_setspecific_value(unsigned int key, void* value, tls_cleanup_fn cleanup);
// 0 with value; 8 beyond the keys or the thread's table; 9 when the thread
// has no table; 5 when the entry was never set.
UTIL_API int tls_getspecific_value(unsigned int key, void*& value);
// Calls the clean-up functions of the calling thread's entries and frees its
// table.
UTIL_API int tls_cleanup();

class UTIL_API tls_slots_allocator_t : public safe_obj<tls_slots_allocator_t, thread_mutex_recursive> {
public:
    // Created on first use; destroyed by the singleton registry.
    static tls_slots_allocator_t* instance();
    // The existing allocator or null; never creates.
    static tls_slots_allocator_t* peek();
    static void destroy();

    int allocate_key(unsigned int& key);
    int deallocate_key(unsigned int key);
    int setspecific_value(unsigned int key, void* value, tls_cleanup_fn cleanup);
    int getspecific_value(unsigned int key, void*& value);
    void cleanup();

private:
    tls_slots_allocator_t();
    ~tls_slots_allocator_t();

    struct table_t;
    table_t* table() const;

    uintptr_t m_index;
    bool m_usable;
    // Next fresh key; keys below it have been handed out. Read by set/get
    // without the lock.
    std::atomic<unsigned int> m_next_key;
    std::deque<unsigned int> m_released;
};

}  // namespace ssb

#endif

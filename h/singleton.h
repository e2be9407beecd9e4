// The registry of the library's lazily created singletons. A singleton
// registers its destroy function when it is created; the last util_uninit
// runs cleanup, which destroys them earliest-registered first.
#ifndef SSB_SINGLETON_H
#define SSB_SINGLETON_H

#include <list>

#include "lock.h"

namespace ssb {

// The library's global start-up lock: guards the creation of singletons.
UTIL_API thread_mutex_recursive& global_lock();

// Any thread may call any member; all take the registry's recursive lock.
class UTIL_API singleton_life_t : public safe_obj<singleton_life_t, thread_mutex_recursive> {
public:
    typedef void (*destroy_fn)(void);

    static singleton_life_t& instance();

    // Appends fn unless it is already listed.
    void regist(destroy_fn fn);
    void unregist(destroy_fn fn);
    // Calls the front function until the list is empty. Each destroy
    // function must unregister itself while it runs (the lock is recursive
    // for that); one that does not is dropped with an assertion line.
    void cleanup();
    uint32_t size() const;

private:
    singleton_life_t();
    ~singleton_life_t();

    std::list<destroy_fn> m_fns;
    uint32_t m_count;
};

}  // namespace ssb

#endif

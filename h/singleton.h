// The registry of the library's lazily created singletons. A singleton
// registers its destroy function when it is created; the last util_uninit
// runs cleanup, which destroys them earliest-registered first.
#ifndef SSB_SINGLETON_H
#define SSB_SINGLETON_H

#include <atomic>
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

// One way for every process-wide object of the library to be made and
// unmade. The policy, the same for each:
// - Made on first use, double-checked under a creation lock (the global
//   start-up lock unless the singleton names its own class lock). Exactly one
//   object is made however many threads race to be first; the pointer is
//   published with release, so a reader that sees it sees a whole object.
// - Registered with singleton_life_t just after it is made, outside the
//   creation lock (the registry holds its own lock while destroy functions
//   run, and those may log or make other singletons), so the last
//   util_uninit destroys whatever is left, earliest registered first.
// - Torn down once per object by whichever comes first, its own destroy or
//   the registry's clean-up. Tear-down unpublishes the pointer first (an
//   instance() that starts later never returns the dying object), then runs
//   outside the creation lock, then unregisters.
// - A singleton that any thread may still hold without a lock while the
//   library tears down under load (the log registry, read by every log
//   statement) is kept: its tear-down empties it, and the next instance()
//   hands the same storage out again, so a late reader meets an empty
//   object, never freed memory. Every other one is deleted, so its users
//   must be done with it before it is destroyed.
// - After tear-down the next instance() makes a new object, unless the
//   owner closed it (take(true)): then instance() yields null until reopen().
template <class T>
class lazy_singleton_t {
public:
    typedef thread_mutex_recursive& (*lock_fn)();

    // `registered` is the destroy function listed with the registry (null
    // for a singleton its owner alone destroys); it must call destroy().
    constexpr lazy_singleton_t(singleton_life_t::destroy_fn registered, bool keep, lock_fn lock = global_lock)
        : m_object(nullptr), m_kept(nullptr), m_closed(false), m_keep(keep), m_registered(registered), m_lock(lock) {}

    // The published object or null; never makes one. Acquire pairs with the
    // release in instance().
    T* get() const { return m_object.load(std::memory_order_acquire); }

    // The object, made by `make` (T* (), called under the creation lock;
    // null means creation failed and nothing is published) when there is
    // none. Null while closed.
    template <class Make>
    T* instance(Make make) {
        T* p = get();
        return p ? p : create(make);
    }

    // Unpublishes the object and hands it to `tear_down` (void (T*)), once.
    template <class TearDown>
    void destroy(TearDown tear_down) {
        T* p = m_object.exchange(nullptr, std::memory_order_acq_rel);
        if (p)
            tear_down(p);
        if (m_registered)
            singleton_life_t::instance().unregist(m_registered);
    }
    void destroy() {
        destroy([](T* p) { delete p; });
    }

    // Unpublishes the object and returns it for the caller to tear down;
    // with `close` later instance() calls yield null until reopen().
    // `with_lock` (void (T*)) runs under the creation lock with the object,
    // for an owner that must publish "being destroyed" in the same step.
    template <class WithLock>
    T* take(bool close, WithLock with_lock) {
        T* p;
        {
            auto_lock_t<thread_mutex_recursive> guard(m_lock());
            if (close)
                m_closed.store(true, std::memory_order_relaxed);
            p = m_object.exchange(nullptr, std::memory_order_acq_rel);
            with_lock(p);
        }
        if (m_registered)
            singleton_life_t::instance().unregist(m_registered);
        return p;
    }
    T* take(bool close) {
        return take(close, [](T*) {});
    }
    // True when it was closed; instance() may make an object again.
    bool reopen() {
        auto_lock_t<thread_mutex_recursive> guard(m_lock());
        return m_closed.exchange(false, std::memory_order_relaxed);
    }
    bool closed() const { return m_closed.load(std::memory_order_relaxed); }

private:
    template <class Make>
    T* create(Make make) {
        T* p;
        {
            auto_lock_t<thread_mutex_recursive> guard(m_lock());
            p = m_object.load(std::memory_order_relaxed);
            if (p || m_closed.load(std::memory_order_relaxed))
                return p;
            p = m_kept.load(std::memory_order_relaxed);
            if (!p) {
                p = make();
                if (!p)
                    return nullptr;
                if (m_keep)
                    m_kept.store(p, std::memory_order_relaxed);
            }
            m_object.store(p, std::memory_order_release);
        }
        if (m_registered)
            singleton_life_t::instance().regist(m_registered);
        return p;
    }

    std::atomic<T*> m_object;
    // The storage of a kept singleton, made once per process.
    std::atomic<T*> m_kept;
    std::atomic<bool> m_closed;
    const bool m_keep;
    const singleton_life_t::destroy_fn m_registered;
    const lock_fn m_lock;
};

}  // namespace ssb

#endif

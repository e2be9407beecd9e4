// Locks, ownership checking, atomic values, reference counting, events and
// semaphores.
//
// The lock classes share one duck-typed interface (acquire, release,
// tryacquire: 0 when taken, 16 when busy) so containers and counters can be
// parameterised by a lock type.
#ifndef SSB_LOCK_H
#define SSB_LOCK_H

#include <atomic>
#include <mutex>
#include <string>

#include "thread_annotations.h"
#include "util_def.h"

namespace ssb {

// Calling thread's id (32-bit; gettid on Linux, GetCurrentThreadId on Windows).
UTIL_API unsigned int get_cur_tid();
// Gives up the rest of the time slice.
UTIL_API void thread_yield();

// An unnamed OS mutex; the owner may take it again. Any thread may use it.
// Not for use across processes.
class UTIL_API UTIL_CAPABILITY("mutex") thread_mutex {
public:
    thread_mutex();
    virtual ~thread_mutex();

    int acquire() UTIL_ACQUIRE();
    int release() UTIL_RELEASE();
    // Waits 0 ms: 0 when taken, 16 when another thread holds it.
    int tryacquire() UTIL_TRY_ACQUIRE(false);

private:
    thread_mutex(const thread_mutex&);
    thread_mutex& operator=(const thread_mutex&);

    void* m_handle;
};

// A recursive critical section; the default lock of safe_obj and safe_class.
// Any thread may use it; its owner may enter again. No virtual functions. A
// waiter polls for a few microseconds before it sleeps, so a short hold on
// another core costs no system call.
class UTIL_API UTIL_CAPABILITY("mutex") thread_mutex_recursive {
public:
    thread_mutex_recursive();
    ~thread_mutex_recursive();

    int acquire() UTIL_ACQUIRE();
    int release() UTIL_RELEASE();
    int tryacquire() UTIL_TRY_ACQUIRE(false);

private:
    thread_mutex_recursive(const thread_mutex_recursive&);
    thread_mutex_recursive& operator=(const thread_mutex_recursive&);

    // Holds the lock in place: a CRITICAL_SECTION, or a futex word with its
    // owner and depth.
    alignas(8) unsigned char m_cs[64];
};

// A yielding spin lock over one 32-bit counter, 0 when free. Any thread.
class UTIL_API UTIL_CAPABILITY("mutex") spin_lock {
public:
    spin_lock() : m_counter(0) {}
    virtual ~spin_lock() {}

    int acquire() UTIL_ACQUIRE() {
        if (m_counter.load(std::memory_order_relaxed) == 0) {
            if (m_counter.fetch_add(1, std::memory_order_acquire) == 0)
                return RESULT_SUCCESS;
            m_counter.fetch_sub(1, std::memory_order_relaxed);
        }
        return acquire_contended();
    }
    int release() UTIL_RELEASE() {
        m_counter.fetch_sub(1, std::memory_order_release);
        return RESULT_SUCCESS;
    }
    // 16 at once when the counter is not 0, else acquire and 0.
    int tryacquire() UTIL_TRY_ACQUIRE(false) {
        if (m_counter.load(std::memory_order_relaxed) != 0)
            return RESULT_BUSY;
        return acquire();
    }

private:
    int acquire_contended();

    spin_lock(const spin_lock&);
    spin_lock& operator=(const spin_lock&);

    std::atomic<int32_t> m_counter;
};

// No exclusion at all: for objects used by one thread only.
class UTIL_CAPABILITY("mutex") null_lock {
public:
    int acquire() UTIL_ACQUIRE() { return RESULT_SUCCESS; }
    int release() UTIL_RELEASE() { return RESULT_SUCCESS; }
    int tryacquire() UTIL_TRY_ACQUIRE(false) { return RESULT_SUCCESS; }
};

// Records an owner thread. Any thread may ask; the owner is read and written
// without a lock, so it is a relaxed atomic.
class UTIL_API thread_checker {
public:
    thread_checker() : m_owner(get_cur_tid()) {}
    thread_checker(const thread_checker& other) : m_owner(other.get_owner()) {}
    thread_checker& operator=(const thread_checker& other) {
        m_owner.store(other.get_owner(), std::memory_order_relaxed);
        return *this;
    }
    virtual ~thread_checker() {}

    void change_owner(unsigned int tid) { m_owner.store(tid, std::memory_order_relaxed); }
    unsigned int get_owner() const { return m_owner.load(std::memory_order_relaxed); }
    bool is_same_as_owner() const { return get_owner() == get_cur_tid(); }

private:
    std::atomic<unsigned int> m_owner;
};

// Marks an object as belonging to one thread; the lock operations do not
// check the owner.
class UTIL_CAPABILITY("mutex") null_lock_checker : public thread_checker {
public:
    int acquire() UTIL_ACQUIRE() { return RESULT_SUCCESS; }
    int release() UTIL_RELEASE() { return RESULT_SUCCESS; }
    int tryacquire() UTIL_TRY_ACQUIRE(false) { return RESULT_SUCCESS; }
};

// A std::mutex that clang's analysis knows as a capability, with the
// library's lock interface too (so auto_lock_t takes it); waited on with
// std::condition_variable_any, which uses lock and unlock. Any thread.
class UTIL_CAPABILITY("mutex") annotated_mutex_t {
public:
    void lock() UTIL_ACQUIRE() { m_mutex.lock(); }
    void unlock() UTIL_RELEASE() { m_mutex.unlock(); }
    int acquire() UTIL_ACQUIRE() {
        m_mutex.lock();
        return RESULT_SUCCESS;
    }
    int release() UTIL_RELEASE() {
        m_mutex.unlock();
        return RESULT_SUCCESS;
    }

private:
    std::mutex m_mutex;
};

// Holds a lock for the scope.
template <class lock_type>
class UTIL_SCOPED_CAPABILITY auto_lock_t {
public:
    explicit auto_lock_t(lock_type& lock) UTIL_ACQUIRE(lock) : m_lock(lock) { m_lock.acquire(); }
    ~auto_lock_t() UTIL_RELEASE() { m_lock.release(); }

private:
    auto_lock_t(const auto_lock_t&);
    auto_lock_t& operator=(const auto_lock_t&);

    lock_type& m_lock;
};

// A value guarded by a lock type. Over null_lock the operations are atomic
// (the value may be shared by threads); over any other lock they take it.
template <class T, class lock_type = null_lock>
class atomic_t {
public:
    explicit atomic_t(T value = T()) : m_value(value) {}

    T value() const {
        auto_lock_t<lock_type> guard(m_lock);
        return m_value;
    }
    T operator++() { return add(1); }
    T operator--() { return add(T(0) - T(1)); }
    T operator+=(T n) { return add(n); }
    T operator-=(T n) { return add(T(0) - n); }
    T exchange(T value) {
        auto_lock_t<lock_type> guard(m_lock);
        T old = m_value;
        m_value = value;
        return old;
    }
    operator T() const { return value(); }

private:
    T add(T n) {
        auto_lock_t<lock_type> guard(m_lock);
        m_value += n;
        return m_value;
    }

    mutable lock_type m_lock;
    T m_value;
};

template <class T>
class atomic_t<T, null_lock> {
public:
    explicit atomic_t(T value = T()) : m_value(value) {}
    atomic_t(const atomic_t& other) : m_value(other.value()) {}

    T value() const { return m_value.load(std::memory_order_acquire); }
    T operator++() { return m_value.fetch_add(1, std::memory_order_acq_rel) + 1; }
    T operator--() { return m_value.fetch_sub(1, std::memory_order_acq_rel) - 1; }
    T operator+=(T n) { return m_value.fetch_add(n, std::memory_order_acq_rel) + n; }
    T operator-=(T n) { return m_value.fetch_sub(n, std::memory_order_acq_rel) - n; }
    T exchange(T value) { return m_value.exchange(value, std::memory_order_acq_rel); }
    operator T() const { return value(); }

private:
    std::atomic<T> m_value;
};

// Identifiers answered by ref_count_t::query_interface.
const uint64_t IID_REF_COUNT = 0x00000000D2714AE1ULL;
const uint64_t IID_REF_COUNT_IT = 0x000000017034D58DULL;

// Interface of reference-counted objects: users release by decrement, never
// delete.
class UTIL_API ref_count_it {
public:
    virtual void* query_interface(uint64_t iid) = 0;
    virtual uint32_t increment() = 0;
    virtual uint32_t decrement() = 0;
    virtual uint32_t get_count() = 0;
    virtual void on_self_destroy() = 0;
    virtual ~ref_count_it() {}
};

namespace detail {

// Counting policy per lock type: atomic for null_lock, plain for
// null_lock_checker, guarded by the lock otherwise.
template <class lock_type>
struct ref_counter_t {
    explicit ref_counter_t(uint32_t n = 0) : m_count(n) {}
    uint32_t load() const {
        auto_lock_t<lock_type> guard(m_lock);
        return m_count;
    }
    uint32_t inc() {
        auto_lock_t<lock_type> guard(m_lock);
        return ++m_count;
    }
    uint32_t dec() {
        auto_lock_t<lock_type> guard(m_lock);
        return --m_count;
    }
    mutable lock_type m_lock;
    uint32_t m_count;
};

template <>
struct ref_counter_t<null_lock> {
    explicit ref_counter_t(uint32_t n = 0) : m_count(n) {}
    uint32_t load() const { return m_count.load(std::memory_order_relaxed); }
    uint32_t inc() { return m_count.fetch_add(1, std::memory_order_relaxed) + 1; }
    // acq_rel: every user's writes happen before the destruction that the
    // last decrement triggers. (No separate fence: ThreadSanitizer cannot
    // see fences, and on x86 the RMW is the same instruction.)
    uint32_t dec() { return m_count.fetch_sub(1, std::memory_order_acq_rel) - 1; }
    std::atomic<uint32_t> m_count;
};

template <>
struct ref_counter_t<null_lock_checker> {
    explicit ref_counter_t(uint32_t n = 0) : m_count(n) {}
    uint32_t load() const { return m_count; }
    uint32_t inc() { return ++m_count; }
    uint32_t dec() { return --m_count; }
    uint32_t m_count;
};

template <class lock_type>
struct ref_count_base_t {};
template <>
struct ref_count_base_t<null_lock_checker> : public null_lock_checker {};

}  // namespace detail

// Reference counting that destroys the object when the count reaches 0.
// Over null_lock the count is atomic and the object may be shared by
// threads; over null_lock_checker it is plain and belongs to its owner.
template <class lock_type = null_lock>
class ref_count_t : public ref_count_it, public detail::ref_count_base_t<lock_type> {
public:
    ref_count_t() : m_ref(0) {}
    ref_count_t(const ref_count_t& other)
        : ref_count_it(), detail::ref_count_base_t<lock_type>(other), m_ref(other.m_ref.load()) {}
    virtual ~ref_count_t() {}

    void* query_interface(uint64_t iid) override {
        if (iid == IID_REF_COUNT || iid == IID_REF_COUNT_IT)
            return static_cast<ref_count_it*>(this);
        return nullptr;
    }
    uint32_t increment() override { return m_ref.inc(); }
    uint32_t decrement() override {
        uint32_t n = m_ref.dec();
        if (n == 0)
            on_self_destroy();
        return n;
    }
    uint32_t get_count() override { return m_ref.load(); }
    void on_self_destroy() override { delete this; }

private:
    ref_count_t& operator=(const ref_count_t&);

    detail::ref_counter_t<lock_type> m_ref;
};

// Gives each object its own lock.
template <class T, class lock_type = thread_mutex_recursive>
class safe_obj {
public:
    safe_obj() {}
    virtual ~safe_obj() {}

protected:
    mutable lock_type m_lock;
};

// Gives the class T one lock shared by all its objects.
template <class T, class lock_type = thread_mutex_recursive>
class safe_class {
public:
    static lock_type& class_lock() { return m_inner_lock; }

protected:
    static lock_type m_inner_lock;
};

template <class T, class lock_type>
lock_type safe_class<T, lock_type>::m_inner_lock;

// One unnamed OS event. Any thread may wait, signal, pulse or reset.
class UTIL_API event_t {
public:
    explicit event_t(bool manual_reset = false, bool initially_signalled = false);
    ~event_t();

    // 0 signalled, 16 timed out, 26 abandoned, 999 never created or failed.
    int wait(int timeout_ms);
    int signal();
    // Releases the threads waiting now (all for manual reset, one for auto
    // reset) and leaves the event reset.
    int pulse();
    int reset();
    void* get_handle() const { return m_handle; }

private:
    event_t(const event_t&);
    event_t& operator=(const event_t&);

    void* m_handle;
};

// Raw wait results of semaphore_t::wait, the same on every platform.
const int SEMAPHORE_WAIT_OBJECT_0 = 0;
const int SEMAPHORE_WAIT_ABANDONED = 0x80;
const int SEMAPHORE_WAIT_TIMEOUT = 258;
const int SEMAPHORE_WAIT_FAILED = -1;
const int SEMAPHORE_MAX_COUNT = 0x7FFFFFFF;

// An OS semaphore, optionally named so other objects and processes can open
// it. Any thread. create and open return the OS last-error value of the call
// (0 for a fresh semaphore). On POSIX a named semaphore is removed from the
// system when the object that created it closes it.
class UTIL_API semaphore_t {
public:
    // Stores the name only; create or open makes the handle.
    explicit semaphore_t(int initial = 0, const char* name = nullptr);
    ~semaphore_t();

    int create(int initial, const char* name);
    int open(const char* name);
    // 6 without a handle, else the raw wait result.
    int wait(unsigned int timeout_ms);
    // 6 without a handle, 34 when the release fails, else 0.
    int post(unsigned int n = 1);
    int get_value();
    int reset(int initial);
    bool operator!() const { return m_handle == nullptr; }
    const std::string& name() const { return m_name; }

private:
    semaphore_t(const semaphore_t&);
    semaphore_t& operator=(const semaphore_t&);

    void close();

    void* m_handle;
    std::string m_name;
};

}  // namespace ssb

#endif

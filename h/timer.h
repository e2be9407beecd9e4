// Clocks and the positional counters of the timer wheel.
//
// ticks_drv_t::now() is the library's interval clock (unsigned 32-bit
// milliseconds, wrapping); times_drv_t::now() its wall clock (milliseconds
// since 1970). Both read a cached value refreshed by the timer driver thread
// while it runs, and the raw source otherwise. Any thread may read them.
#ifndef SSB_TIMER_H
#define SSB_TIMER_H

#include <atomic>

#include "lock.h"
#include "util_def.h"

namespace ssb {

// Raw millisecond tick count from the high-resolution counter. A counter
// that steps backwards freezes the result until it passes the last value.
class UTIL_API tick_strategy {
public:
    static uint32_t now();

    // Not for hosts: converts a counter reading against the previous one,
    // which is what now() does with the live counter. Exposed so the
    // backward-step rule can be exercised with chosen readings.
    static uint32_t step(uint64_t reading_ms, std::atomic<uint64_t>& last_ms);
};

// Raw wall clock: microseconds since 1970-01-01 UTC.
class UTIL_API time_strategy {
public:
    static uint64_t now();
};

class UTIL_API ticks_drv_t {
public:
    static uint32_t now();
    // Written by the timer driver thread alone; read by any thread.
    static std::atomic<bool> s_start;
    static std::atomic<uint32_t> s_tag;
};

class UTIL_API times_drv_t {
public:
    static uint64_t now();
    static std::atomic<bool> s_start;
    static std::atomic<uint64_t> s_tag;
};

// The longest interval the counters hold, in milliseconds.
const uint32_t MAX_INTERVAL = 165150710u;
const uint32_t MAX_TIMER_HELPER_TICKS = 356399990u;

// Four base-64 digits, digit 0 lowest: the index arithmetic of the timer
// wheel. Owned by one thread.
class UTIL_API ticks_helper {
public:
    explicit ticks_helper(uint32_t ticks = 0);

    void set(uint32_t ticks);
    uint32_t get_ticks() const;
    ticks_helper& operator++();
    ticks_helper operator++(int);
    void increase(uint32_t n);
    void sub(const ticks_helper& other);
    static uint32_t calc_remainder(uint32_t value, uint32_t level);

    uint32_t digit(int k) const { return m_digits[k]; }
    // The wheel's cascade zeroes the digit of the level a timer leaves.
    void set_digit(int k, uint32_t v) { m_digits[k] = v & 63u; }
    // Which digits the last step changed: 0, 1, 3, 7 or 15.
    uint32_t carry_mask() const { return m_mask; }
    uint32_t value() const { return m_ticks; }

private:
    uint32_t m_ticks;
    uint32_t m_digits[4];
    uint32_t m_mask;
};

// Centiseconds, seconds, minutes, hours: the same shape as ticks_helper with
// a mixed radix. Owned by one thread.
class UTIL_API timer_helper {
public:
    explicit timer_helper(uint32_t ticks = 0);

    void set(uint32_t ticks);
    uint32_t get_ticks() const;
    timer_helper& operator++();
    timer_helper operator++(int);
    void increase(uint32_t n);
    void sub(const timer_helper& other);
    static uint32_t calc_remainder(uint32_t value, uint32_t level);

    uint32_t digit(int k) const { return m_digits[k]; }
    uint32_t carry_mask() const { return m_mask; }
    uint32_t value() const { return m_ticks; }

private:
    uint32_t m_ticks;
    uint32_t m_digits[4];
    uint32_t m_mask;
};

// ---- timer wheel and handles ------------------------------------------------
//
// A timer_it is armed on the wheel of one message-loop thread (the thread
// that arms it, or the one given to its constructor) and its sink's
// timer_work runs there, in 10 ms ticks. Arming and cancelling cost O(1):
// a cancelled timer leaves its slot at once, so re-arming a long timer on
// every packet keeps memory flat.
//
// Threading: a wheel and the handles on it belong to their thread. Removing
// or destroying a handle on another thread is reported and still done, and
// is a data race: don't. Arming from another thread is refused (12).

class thread_wrapper_t;
class timer_it;
class timer_queue_t;
class i8_allocator_it;

// The receiver of a timer's firings.
class UTIL_API timer_sink_it {
public:
    virtual void* query_interface(uint64_t iid);
    // On the thread whose wheel holds `timer`; the handle may be removed,
    // re-armed or destroyed from inside.
    virtual void timer_work(const timer_it* timer) = 0;
    virtual ~timer_sink_it();
};

// What a wheel tells its owner (the loop thread).
class UTIL_API timer_queue_sink_it {
public:
    // The first timer was added.
    virtual void on_sync() = 0;
    // The wheel's step changed (once: to 10 ms at first use).
    virtual void update_interval(unsigned int lastest, unsigned int newest, unsigned int align) = 0;
    virtual ~timer_queue_sink_it() {}
    // A timer was armed (not a re-arm while firing).
    virtual void on_armed() {}
};

// A link of the intrusive slot lists; null links mean "in no list".
struct timer_link_t {
    timer_link_t* prev = nullptr;
    timer_link_t* next = nullptr;
};

// The cell that holds one handle in a slot list, from the library
// allocator. The handle points back to it while scheduled.
class UTIL_API timer_carrier_t : public timer_link_t, no_copy {
public:
    // Null when the cell cannot be allocated.
    static timer_carrier_t* create(timer_it* timer, timer_queue_t* queue);
    // Unlinks the cell, detaches its handle if still attached, and gives
    // the cell back.
    void release();

    timer_it* handle() const { return m_timer; }
    timer_queue_t* queue() const { return m_queue; }
    bool is_removed() const { return m_removed != 0; }
    bool is_auto_release() const { return m_auto_release != 0; }
    bool is_linked() const { return prev != nullptr; }
    void mark_removed() { m_removed = 1; }
    void clear_auto_release() { m_auto_release = 0; }
    void forget_handle() { m_timer = nullptr; }
    // Takes the cell out of its list, if any.
    void unlink();

private:
    friend class timer_queue_t;

    timer_carrier_t(i8_allocator_it* allocator, timer_it* timer, timer_queue_t* queue);
    ~timer_carrier_t() {}
    // Gives the cell back to its allocator.
    void free_cell();

    i8_allocator_it* m_allocator;
    uint8_t m_removed;
    uint8_t m_auto_release;
    timer_it* m_timer;
    timer_queue_t* m_queue;
    // Copies for log lines about a cell whose handle is gone.
    uint32_t m_id;
    uint32_t m_times;
    uint32_t m_interval_ticks;
};

// One slot: a circular list of carriers around a sentinel, so a carrier
// unlinks itself without knowing its list.
class UTIL_API timer_slot_list_t : no_copy {
public:
    timer_slot_list_t() { m_head.prev = m_head.next = &m_head; }
    bool empty() const { return m_head.next == &m_head; }
    void push_back(timer_carrier_t* carrier);
    // The first carrier, unlinked; null when empty.
    timer_carrier_t* pop_front();
    // Moves every carrier of `from` to the end of this list.
    void take_all(timer_slot_list_t& from);
    size_t size() const;

private:
    timer_link_t m_head;
};

// The slots of one level and the slot last visited.
class UTIL_API timer_slots_t : no_copy {
public:
    explicit timer_slots_t(uint32_t count);
    ~timer_slots_t();

    // Appends to slot (cursor + step) mod count.
    void add_timer(uint32_t step, timer_carrier_t* carrier);
    timer_slot_list_t& at(uint32_t slot) { return m_slots[slot & (m_count - 1)]; }
    const timer_slot_list_t& at(uint32_t slot) const { return m_slots[slot & (m_count - 1)]; }
    uint32_t get_elapsed_step() const { return m_cursor; }
    void set_cursor(uint32_t cursor) { m_cursor = cursor & (m_count - 1); }
    uint32_t count() const { return m_count; }
    bool is_empty() const;
    // Detaches and gives back every carrier.
    void clear();

private:
    timer_slot_list_t* m_slots;
    uint32_t m_count;
    uint32_t m_cursor;
};

// Fires or cascades the carriers of one slot.
class UTIL_API timer_processor_it {
public:
    virtual void do_timer(timer_slot_list_t& slot, timer_queue_t* queue) = 0;
    virtual ~timer_processor_it() {}
};

template <unsigned int LEVEL>
class timer_processor_t;

// The per-thread hierarchical wheel: 10 ms ticks, four levels of 64 slots
// and an immediate list. No lock: its owner thread alone uses it.
class UTIL_API timer_queue_t : public ref_count_t<null_lock_checker> {
public:
    struct timer_queue_helper {
        enum { LEVEL0_SLOT = 0, LEVEL1_SLOT = 1, LEVEL2_SLOT = 2, LEVEL3_SLOT = 3, IMMEDIATELY_SLOT = 4 };
    };
    static const uint32_t SLOTS_PER_LEVEL = 64;
    static const uint32_t LEVELS = 4;
    // Released cells a wheel keeps for its next arms.
    static const uint32_t SPARE_CARRIERS = 64;

    // `sink` may be null (not owned).
    timer_queue_t(timer_queue_sink_it* sink, uint32_t min_interval);
    ~timer_queue_t() override;

    // 0; 6 for a null timer. Rectifies `delay` for the part of the current
    // slots that has passed, then places the timer.
    int add_timer(timer_it* timer, ticks_helper& delay, bool is_exact);
    // 0; places the timer by the highest non-zero digit of `delay`.
    int add_timer_inc(timer_it* timer, ticks_helper& delay);
    // 0; 6 for a null timer. The timer leaves its slot at once.
    int remove_timer(timer_it* timer);
    // Runs the immediate list, advances by `elapsed_ticks` and runs the
    // slot each changed digit lands on, lower levels first.
    void do_timer(uint32_t elapsed_ticks);
    // Gives back every carrier; deposits still waiting are released.
    void clear();

    uint32_t get_interval() const { return m_interval_ms; }
    uint32_t get_interval_ticks() const { return m_interval_ticks; }
    uint32_t get_align_value() const { return m_align; }
    uint32_t get_min_interval() const { return m_min_interval; }
    bool has_immediately_timer() const { return !m_immediate.at(0).empty(); }
    uint32_t get_rectify_ticks(uint32_t level) const;
    uint32_t get_close_rectify_ticks(uint32_t level) const;
    // Snaps `ms` to the slot width of the level that would hold it.
    static uint32_t get_close_perf(uint32_t ms, bool truncate, uint32_t level);

    const ticks_helper& position() const { return m_pos; }
    // Scheduled timers in the slot lists (a timer being fired is not one).
    uint32_t timer_count() const { return m_count; }
    // Call-backs run since the wheel was made.
    uint64_t fired() const { return m_fired; }
    // Ticks from the position to the first slot, at any level, that holds
    // a timer: do_timer of at most that many ticks visits no slot that it
    // skips. 0 with an immediate timer; UINT32_MAX when empty.
    uint32_t ticks_to_next() const;
    timer_queue_sink_it* sink() const { return m_sink; }

private:
    friend class timer_carrier_t;
    friend class timer_slot_list_t;
    template <unsigned int LEVEL>
    friend class timer_processor_t;

    void update_interval(uint32_t ticks);
    // Reports use from a thread other than the one that made the wheel.
    void check_owner(const char* operation) const;
    // Places a carrier by `delay`; rectify is add_timer's adjustment.
    void place(timer_carrier_t* carrier, ticks_helper& delay);
    void rectify(ticks_helper& delay, bool is_exact) const;
    // A due or cascading carrier goes back into the wheel.
    void readd(timer_carrier_t* carrier, ticks_helper& delay);

    timer_queue_sink_it* m_sink;
    ticks_helper m_pos;
    timer_slots_t m_levels[LEVELS];
    timer_slots_t m_immediate;
    timer_processor_it* m_processors[LEVELS + 1];
    uint32_t m_start_ticks;
    uint32_t m_start_ticks_tag;
    uint32_t m_min_interval;
    uint32_t m_interval_ticks;
    uint32_t m_interval_ms;
    uint32_t m_align;
    uint8_t m_started;
    uint8_t m_interval_set;
    uint32_t m_count;
    // Bumped by clear(): a firing loop that sees it move stops.
    uint32_t m_clear_epoch;
    uint64_t m_fired = 0;
    timer_carrier_t* m_spare;
    uint32_t m_spare_count;
};

// A timer handle. Owned by the code that made it; used on its thread only.
class UTIL_API timer_it {
public:
    static const uint32_t MAX_INTERVAL = 165150710u;

    // `thread` null: the thread that first arms it.
    timer_it(uint32_t id, thread_wrapper_t* thread);
    virtual ~timer_it();

    // 0; 2 null sink; 8 interval at or above MAX_INTERVAL; 9 no thread or
    // no wheel; 10 already scheduled; 12 the thread has no timer support
    // or is not the caller. Below 11 ms the interval is 10 ms; a non-exact
    // interval of 640 ms or more is cut to a multiple of 640. `times` 0
    // repeats until removed.
    virtual int add_timer(const timer_sink_it* sink, unsigned int interval_ms, unsigned int times, bool is_exact);
    // 0; 9 when not scheduled.
    virtual int remove_timer();
    virtual ticks_helper& get_helper() { return m_helper; }
    virtual bool is_deposit() const { return false; }
    virtual timer_sink_it* get_sink() const = 0;
    virtual void dump() {}
    virtual void release() {}

    uint32_t get_id() const { return m_id; }
    uint32_t get_times() const { return m_times; }
    void dec_times() { --m_times; }
    uint32_t get_interval_ticks() const { return m_interval_ticks; }
    bool is_scheduled() const { return m_carrier != nullptr; }
    // Records the cell that holds the handle; null marks the old one removed.
    void open(timer_carrier_t* carrier);
    timer_carrier_t* carrier() const { return m_carrier; }
    thread_wrapper_t* get_own_thread() const { return m_own_thr; }
    // Takes over one reference to `obj`, dropped by the destructor.
    void own(ref_count_it* obj);

protected:
    // For handles that place themselves on a wheel directly (add_timer of
    // timer_queue_t): the interval and firings that re-arming uses.
    void set_schedule(uint32_t interval_ticks, uint32_t times) {
        m_interval_ticks = interval_ticks;
        m_times = times;
    }
    // The arming shared by every kind, without storing the sink.
    int arm(const timer_sink_it* sink, unsigned int interval_ms, unsigned int times, bool is_exact);

private:
    timer_it(const timer_it&);
    timer_it& operator=(const timer_it&);

    uint32_t m_id;
    uint32_t m_times;
    uint32_t m_interval_ticks;
    timer_carrier_t* m_carrier;
    thread_wrapper_t* m_own_thr;
    thread_wrapper_t* m_creator_thr;
    ref_count_it* m_owned;
    ticks_helper m_helper;
};

// A handle with a plain pointer to its sink.
class UTIL_API timer_elem_t : public timer_it {
public:
    explicit timer_elem_t(uint32_t id = 0, thread_wrapper_t* thread = nullptr);
    ~timer_elem_t() override;
    int add_timer(const timer_sink_it* sink, unsigned int interval_ms, unsigned int times, bool is_exact) override;
    timer_sink_it* get_sink() const override { return m_sink; }

private:
    timer_sink_it* m_sink;
};

// A handle that keeps its sink alive (a reference taken when armed,
// dropped by remove_timer and the destructor). The sink must be reference
// counted: a ref_count_it reachable by query_interface or by a cast.
class UTIL_API timer_elem_ref_sink_t : public timer_it {
public:
    explicit timer_elem_ref_sink_t(uint32_t id = 0, thread_wrapper_t* thread = nullptr);
    ~timer_elem_ref_sink_t() override;
    int add_timer(const timer_sink_it* sink, unsigned int interval_ms, unsigned int times, bool is_exact) override;
    int remove_timer() override;
    timer_sink_it* get_sink() const override { return m_sink; }

private:
    void drop_sink();

    timer_sink_it* m_sink;
    ref_count_it* m_sink_ref;
};

// A heap-only timer that frees itself after its last firing; `times` 0 is
// refused (12). An explicit removal never frees it: release() does.
class UTIL_API timer_deposit_t : public timer_elem_t, no_copy {
public:
    static timer_deposit_t* new_instance(uint32_t id, thread_wrapper_t* thread);
    // Releases a non-null deposit and clears the pointer.
    static void release(timer_deposit_t*& deposit);

    int add_timer(const timer_sink_it* sink, unsigned int interval_ms, unsigned int times, bool is_exact) override;
    bool is_deposit() const override { return true; }
    void release() override { release_i(); }
    virtual void release_i();

protected:
    timer_deposit_t(uint32_t id, thread_wrapper_t* thread);
    ~timer_deposit_t() override;
};

class UTIL_API timer_deposit_ref_sink_t : public timer_elem_ref_sink_t, no_copy {
public:
    static timer_deposit_ref_sink_t* new_instance(uint32_t id, thread_wrapper_t* thread);
    static void release(timer_deposit_ref_sink_t*& deposit);

    int add_timer(const timer_sink_it* sink, unsigned int interval_ms, unsigned int times, bool is_exact) override;
    bool is_deposit() const override { return true; }
    void release() override { release_i(); }
    virtual void release_i();

protected:
    timer_deposit_ref_sink_t(uint32_t id, thread_wrapper_t* thread);
    ~timer_deposit_ref_sink_t() override;
};

}  // namespace ssb

#endif

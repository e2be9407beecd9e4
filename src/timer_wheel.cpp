// The timer wheel: carriers, slot lists, the level processors and the queue.
#include <new>

#include "alloc.h"
#include "live_count.h"
#include "timer.h"
#include "timer_firing.h"
#include "trace.h"

namespace ssb {

namespace {

const char TIMER_PATH[] = ".\\timer";

std::atomic<int> s_live_carriers(0);

// Level k's slot width in ticks is 1 << (6 * k).
const uint32_t LEVEL_SHIFT = 6;
const uint32_t DIGIT_MASK = 63;

// The firings in progress on this thread, innermost first: a handle
// destroyed inside its own timer_work finds its cell here.
thread_local timer_firing_t* t_firing = nullptr;

}  // namespace

void timer_queue_t::check_owner(const char* operation) const {
    if (!is_same_as_owner())
        UTIL_ASSERT_MSG("timer_queue_t used from a thread that does not own it, operation = " << operation, TIMER_PATH,
                        __LINE__,
                        ", owner = " << get_owner() << ", current = " << get_cur_tid() << ", this = " << log_ptr(this));
}

int live_timer_carriers() { return s_live_carriers.load(std::memory_order_relaxed); }

// ---- firing frames ---------------------------------------------------------------

timer_firing_t::timer_firing_t(timer_carrier_t* c) : carrier(c), outer(t_firing) { t_firing = this; }

timer_firing_t::~timer_firing_t() { t_firing = outer; }

void timer_firing_t::forget(timer_it* handle) {
    for (timer_firing_t* f = t_firing; f; f = f->outer) {
        if (f->carrier->handle() == handle) {
            f->carrier->forget_handle();
            f->carrier->mark_removed();
            f->carrier->clear_auto_release();
        }
    }
}

// ---- carriers and slot lists ---------------------------------------------------------

timer_carrier_t::timer_carrier_t(i8_allocator_it* allocator, timer_it* timer, timer_queue_t* queue)
    : m_allocator(allocator),
      m_removed(0),
      m_auto_release(timer->is_deposit() ? 1 : 0),
      m_timer(timer),
      m_queue(queue),
      m_id(timer->get_id()),
      m_times(timer->get_times()),
      m_interval_ticks(timer->get_interval_ticks()) {}

timer_carrier_t* timer_carrier_t::create(timer_it* timer, timer_queue_t* queue) {
    void* cell = queue->m_spare;
    i8_allocator_it* allocator = nullptr;
    if (cell) {
        // A cell this wheel gave back: a re-arm costs no allocator call.
        timer_carrier_t* spare = static_cast<timer_carrier_t*>(cell);
        queue->m_spare = static_cast<timer_carrier_t*>(spare->next);
        --queue->m_spare_count;
        allocator = spare->m_allocator;
    } else {
        allocator = ssb_allocator_t::instance();
        cell = allocator ? allocator->allocate(sizeof(timer_carrier_t)) : nullptr;
        if (!cell)
            return nullptr;
    }
    s_live_carriers.fetch_add(1, std::memory_order_relaxed);
    return new (cell) timer_carrier_t(allocator, timer, queue);
}

void timer_carrier_t::release() {
    unlink();
    if (m_timer && m_timer->carrier() == this)
        m_timer->open(nullptr);
    s_live_carriers.fetch_sub(1, std::memory_order_relaxed);
    timer_queue_t* queue = m_queue;
    if (queue->m_spare_count < timer_queue_t::SPARE_CARRIERS) {
        // Kept for the next arm on this wheel, threaded through `next`.
        m_timer = nullptr;
        next = queue->m_spare;
        queue->m_spare = this;
        ++queue->m_spare_count;
        return;
    }
    free_cell();
}

void timer_carrier_t::free_cell() {
    i8_allocator_it* allocator = m_allocator;
    this->~timer_carrier_t();
    allocator->deallocate(reinterpret_cast<signed char*>(this), sizeof(timer_carrier_t));
}

void timer_carrier_t::unlink() {
    if (!prev)
        return;
    prev->next = next;
    next->prev = prev;
    prev = next = nullptr;
    --m_queue->m_count;
}

void timer_slot_list_t::push_back(timer_carrier_t* carrier) {
    carrier->prev = m_head.prev;
    carrier->next = &m_head;
    m_head.prev->next = carrier;
    m_head.prev = carrier;
    ++carrier->queue()->m_count;
}

timer_carrier_t* timer_slot_list_t::pop_front() {
    if (empty())
        return nullptr;
    timer_carrier_t* carrier = static_cast<timer_carrier_t*>(m_head.next);
    carrier->unlink();
    return carrier;
}

void timer_slot_list_t::take_all(timer_slot_list_t& from) {
    if (from.empty())
        return;
    timer_link_t* first = from.m_head.next;
    timer_link_t* last = from.m_head.prev;
    first->prev = m_head.prev;
    m_head.prev->next = first;
    last->next = &m_head;
    m_head.prev = last;
    from.m_head.prev = from.m_head.next = &from.m_head;
}

size_t timer_slot_list_t::size() const {
    size_t n = 0;
    for (const timer_link_t* l = m_head.next; l != &m_head; l = l->next)
        ++n;
    return n;
}

timer_slots_t::timer_slots_t(uint32_t count) : m_slots(new timer_slot_list_t[count]), m_count(count), m_cursor(0) {}

timer_slots_t::~timer_slots_t() {
    clear();
    delete[] m_slots;
}

void timer_slots_t::add_timer(uint32_t step, timer_carrier_t* carrier) {
    m_slots[(m_cursor + step) & (m_count - 1)].push_back(carrier);
}

bool timer_slots_t::is_empty() const {
    for (uint32_t i = 0; i < m_count; ++i)
        if (!m_slots[i].empty())
            return false;
    return true;
}

void timer_slots_t::clear() {
    for (uint32_t i = 0; i < m_count; ++i) {
        while (timer_carrier_t* carrier = m_slots[i].pop_front()) {
            timer_it* handle = carrier->handle();
            const bool free_deposit = handle && carrier->is_auto_release() && !carrier->is_removed();
            carrier->release();
            // A deposit handed its life to the wheel: it cannot fire now.
            if (free_deposit)
                handle->release();
        }
    }
}

// ---- level processors -------------------------------------------------------------

namespace {

const char* const SINK_EMPTY[] = {
    "timer_processor_t<timer_queue_t::timer_queue_helper::LEVEL0_SLOT>::do_timer sink is empty",
    "timer_processor_t<timer_queue_t::timer_queue_helper::LEVEL1_SLOT>::do_timer sink is empty",
    "timer_processor_t<timer_queue_t::timer_queue_helper::LEVEL2_SLOT>::do_timer sink is empty",
    "timer_processor_t<timer_queue_t::timer_queue_helper::LEVEL3_SLOT>::do_timer sink is empty",
};

}  // namespace

// The immediate list uses the level-0 processor: it has no lower digits.
template <unsigned int LEVEL>
class timer_processor_t : public timer_processor_it {
public:
    void do_timer(timer_slot_list_t& slot, timer_queue_t* queue) override {
        // The slot is emptied first: what the call-backs add to it waits
        // for the next lap, and a carrier removed meanwhile unlinks itself
        // from this list.
        timer_slot_list_t firing;
        firing.take_all(slot);
        const uint32_t epoch = queue->m_clear_epoch;
        while (timer_carrier_t* carrier = firing.pop_front()) {
            handle(carrier, queue, epoch);
            if (queue->m_clear_epoch != epoch) {
                // The wheel was cleared from a call-back: nothing more fires.
                while (timer_carrier_t* rest = firing.pop_front())
                    rest->release();
                return;
            }
        }
    }

private:
    static bool lower_digits_left(const ticks_helper& remaining) {
        for (unsigned int k = 0; k < LEVEL; ++k)
            if (remaining.digit(k) != 0)
                return true;
        return false;
    }

    void handle(timer_carrier_t* carrier, timer_queue_t* queue, uint32_t epoch) {
        timer_it* timer = carrier->handle();
        if (!timer) {
            UTIL_ASSERT_LINE(TIMER_PATH, 375, "");
            carrier->release();
            return;
        }
        if (carrier->is_removed()) {
            const bool free_deposit = carrier->is_auto_release();
            carrier->release();
            if (free_deposit)
                timer->release();
            return;
        }
        timer_sink_it* sink = timer->get_sink();
        if (!sink) {
            UTIL_ASSERT_MSG(SINK_EMPTY[LEVEL], TIMER_PATH, __LINE__, ", this = " << log_ptr(timer));
            carrier->release();
            return;
        }
        ticks_helper& remaining = timer->get_helper();
        if (LEVEL > 0 && lower_digits_left(remaining)) {
            remaining.set_digit(LEVEL, 0);
            queue->readd(carrier, remaining);
            return;
        }
        {
            timer_firing_t frame(carrier);
            if (timer->get_times() == 1)
                timer->open(nullptr);
            ++queue->m_fired;
            sink->timer_work(timer);
        }
        timer = carrier->handle();
        if (!timer) {
            carrier->release();
            return;
        }
        // A wheel cleared from the call-back (its thread stopped) takes
        // nothing back.
        if (!carrier->is_removed() && queue->m_clear_epoch == epoch) {
            if (timer->get_times() != 0)
                timer->dec_times();
            remaining.set(timer->get_interval_ticks());
            queue->readd(carrier, remaining);
            return;
        }
        // A deposit that fired for the last time (and was not armed again
        // from its call-back) frees itself.
        const bool free_deposit =
            carrier->is_auto_release() && (timer->carrier() == nullptr || timer->carrier() == carrier);
        carrier->release();
        if (free_deposit)
            timer->release();
    }
};

// ---- the wheel ----------------------------------------------------------------------

timer_queue_t::timer_queue_t(timer_queue_sink_it* sink, uint32_t min_interval)
    : m_sink(sink),
      m_pos(0),
      m_levels{timer_slots_t(SLOTS_PER_LEVEL), timer_slots_t(SLOTS_PER_LEVEL), timer_slots_t(SLOTS_PER_LEVEL),
               timer_slots_t(SLOTS_PER_LEVEL)},
      m_immediate(1),
      m_processors{new timer_processor_t<timer_queue_helper::LEVEL0_SLOT>,
                   new timer_processor_t<timer_queue_helper::LEVEL1_SLOT>,
                   new timer_processor_t<timer_queue_helper::LEVEL2_SLOT>,
                   new timer_processor_t<timer_queue_helper::LEVEL3_SLOT>,
                   new timer_processor_t<timer_queue_helper::LEVEL0_SLOT>},
      m_start_ticks(0),
      m_start_ticks_tag(0),
      m_min_interval(min_interval),
      m_interval_ticks(64),
      m_interval_ms(640),
      m_align(64),
      m_started(0),
      m_interval_set(0),
      m_count(0),
      m_clear_epoch(0),
      m_spare(nullptr),
      m_spare_count(0) {
    UTIL_LOG(LOG_INFO, "timer_queue_t::timer_queue_t() "
                           << ", "
                           << "sink"
                           << " = " << log_ptr(sink) << ", "
                           << "min_interval"
                           << " = " << min_interval << ", this = " << log_ptr(this));
}

timer_queue_t::~timer_queue_t() {
    UTIL_LOG(LOG_INFO, "timer_queue_t::~timer_queue_t()"
                           << ", this = " << log_ptr(this));
    clear();
    for (timer_processor_it* p : m_processors)
        delete p;
    // The lists are empty now: nothing gives a cell back any more.
    while (timer_carrier_t* spare = m_spare) {
        m_spare = static_cast<timer_carrier_t*>(spare->next);
        spare->free_cell();
    }
}

void timer_queue_t::clear() {
    UTIL_LOG(LOG_INFO, "timer_queue_t::clear()"
                           << ", this = " << log_ptr(this));
    ++m_clear_epoch;
    for (timer_slots_t& level : m_levels)
        level.clear();
    m_immediate.clear();
}

uint32_t timer_queue_t::get_rectify_ticks(uint32_t level) const {
    if (level > 3) {
        UTIL_ASSERT_LINE(TIMER_PATH, 978, ", level = " << level);
        level = 3;
    }
    uint32_t ticks = 0;
    for (uint32_t k = 0; k <= level; ++k)
        ticks += m_levels[k].get_elapsed_step() << (LEVEL_SHIFT * k);
    return ticks;
}

uint32_t timer_queue_t::get_close_rectify_ticks(uint32_t level) const {
    if (level > 3) {
        UTIL_ASSERT_LINE(TIMER_PATH, 996, ", level = " << level);
        level = 3;
    }
    const uint32_t half = SLOTS_PER_LEVEL / 2;
    switch (level) {
    case 0:
        return m_levels[0].get_elapsed_step() >= half ? 64u : 0u;
    case 1:
        return m_levels[1].get_elapsed_step() >= half ? 4096u : get_close_rectify_ticks(0);
    case 2:
        return m_levels[2].get_elapsed_step() >= half ? 262144u : 0u;
    default:
        return 0;
    }
}

uint32_t timer_queue_t::get_close_perf(uint32_t ms, bool truncate, uint32_t level) {
    const uint32_t W1 = 640, W2 = 40960, W3 = 2621440;
    if (ms < W1 || level == 0)
        return ms;
    if (ms < W2 || level == 1)
        return truncate || ms % W1 == 0 ? ms / W1 * W1 : (ms / W1 + 1) * W1;
    if (ms < W3 || level == 2)
        return truncate || ms % W2 == 0 ? ms / W2 * W2 : (ms / W2 + 1) * W2;
    // Level-2 width on a level-3 count: the scale mismatch is kept.
    if (truncate || ms % W3 == 0)
        return ms / W3 * W2;
    return (ms / W3 + 1) * W3;
}

void timer_queue_t::update_interval(uint32_t) {
    if (m_interval_set)
        return;
    m_interval_set = 1;
    m_interval_ticks = 1;
    m_interval_ms = 10;
    if (m_sink)
        m_sink->update_interval(10, 10, 0);
}

void timer_queue_t::rectify(ticks_helper& delay, bool is_exact) const {
    const uint32_t d1 = delay.digit(1), d2 = delay.digit(2), d3 = delay.digit(3);
    if (!d1 && !d2 && !d3)
        return;
    // Exact timers count the part of every lower slot already passed;
    // others snap to the nearest slot of their level, testing the digits
    // from the low end.
    if (is_exact)
        delay.increase(get_rectify_ticks(d3 ? 2 : (d2 ? 1 : 0)));
    else
        delay.increase(get_close_rectify_ticks(d1 ? 0 : (d2 ? 1 : 2)));
}

void timer_queue_t::place(timer_carrier_t* carrier, ticks_helper& delay) {
    int level = 3;
    while (level >= 0 && delay.digit(level) == 0)
        --level;
    if (level < 0)
        m_immediate.add_timer(0, carrier);
    else
        m_levels[level].add_timer(delay.digit(level), carrier);
}

int timer_queue_t::add_timer(timer_it* timer, ticks_helper& delay, bool is_exact) {
    if (!timer) {
        UTIL_ASSERT_LINE(TIMER_PATH, 923, ", this = " << log_ptr(this));
        return RESULT_NOT_CREATED;
    }
    check_owner("add_timer");
    if (!m_started && m_sink) {
        m_started = 1;
        m_start_ticks = m_start_ticks_tag = ticks_drv_t::now();
        m_sink->on_sync();
    }
    rectify(delay, is_exact);
    return add_timer_inc(timer, delay);
}

int timer_queue_t::add_timer_inc(timer_it* timer, ticks_helper& delay) {
    if (!timer) {
        UTIL_ASSERT_LINE(TIMER_PATH, __LINE__, ", this = " << log_ptr(this));
        return RESULT_NOT_CREATED;
    }
    update_interval(delay.get_ticks());
    // A wheel holds a timer once: arming it again moves it.
    if (timer_carrier_t* old = timer->carrier()) {
        old->mark_removed();
        old->clear_auto_release();
        if (old->is_linked())
            old->release();
        else
            timer->open(nullptr);
    }
    timer_carrier_t* carrier = timer_carrier_t::create(timer, this);
    if (!carrier) {
        UTIL_ASSERT_LINE(TIMER_PATH, __LINE__, ", no memory for a carrier, this = " << log_ptr(this));
        return RESULT_NOT_CREATED;
    }
    timer->open(carrier);
    place(carrier, delay);
    if (m_sink)
        m_sink->on_armed();
    return RESULT_SUCCESS;
}

void timer_queue_t::readd(timer_carrier_t* carrier, ticks_helper& delay) {
    rectify(delay, true);
    place(carrier, delay);
}

int timer_queue_t::remove_timer(timer_it* timer) {
    if (!timer) {
        UTIL_ASSERT_LINE(TIMER_PATH, 1017, ", this = " << log_ptr(this));
        return RESULT_NOT_CREATED;
    }
    check_owner("remove_timer");
    timer_carrier_t* carrier = timer->carrier();
    if (!carrier)
        return RESULT_SUCCESS;
    carrier->mark_removed();
    // An explicit removal never frees a deposit.
    carrier->clear_auto_release();
    timer->open(nullptr);
    // A carrier being fired is in no list: its processor drops it.
    if (carrier->is_linked())
        carrier->release();
    return RESULT_SUCCESS;
}

void timer_queue_t::do_timer(uint32_t elapsed_ticks) {
    check_owner("do_timer");
    const uint32_t epoch = m_clear_epoch;
    m_processors[timer_queue_helper::IMMEDIATELY_SLOT]->do_timer(m_immediate.at(0), this);
    if (m_clear_epoch != epoch)
        return;
    m_pos.increase(elapsed_ticks);
    const uint32_t mask = m_pos.carry_mask();
    for (uint32_t k = 0; k < LEVELS && (mask & (1u << k)); ++k) {
        m_levels[k].set_cursor(m_pos.digit(static_cast<int>(k)));
        m_processors[k]->do_timer(m_levels[k].at(m_levels[k].get_elapsed_step()), this);
        if (m_clear_epoch != epoch)
            return;
    }
}

uint32_t timer_queue_t::ticks_to_next() const {
    if (has_immediately_timer())
        return 0;
    if (m_count == 0)
        return UINT32_MAX;
    // The nearest non-empty slot ahead on each level; a level-k slot is
    // reached when the position enters it, (step << 6k) minus what the
    // lower digits already passed.
    uint32_t best = UINT32_MAX;
    uint32_t below = 0;
    for (uint32_t k = 0; k < LEVELS; ++k) {
        const uint32_t cursor = m_levels[k].get_elapsed_step();
        for (uint32_t step = 1; step < SLOTS_PER_LEVEL; ++step) {
            if (!m_levels[k].at(cursor + step).empty()) {
                const uint32_t ticks = (step << (LEVEL_SHIFT * k)) - below;
                if (ticks < best)
                    best = ticks;
                break;
            }
        }
        below += m_pos.digit(static_cast<int>(k)) << (LEVEL_SHIFT * k);
    }
    // Timers only in the slots under the cursors (a full lap away): the
    // wheel must still be stepped through the lap of level 0.
    if (best == UINT32_MAX)
        best = SLOTS_PER_LEVEL - (m_pos.digit(0) & DIGIT_MASK);
    return best;
}

}  // namespace ssb

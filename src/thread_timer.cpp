// The timer side of a message-loop thread: its wheel, the ticks the timer
// driver thread sends it, and the catch-up after a late wake-up.
#include <new>

#include "alloc.h"
#include "thread_parts.h"
#include "timer_drv.h"
#include "trace.h"

namespace ssb {

namespace {

const char SOURCE_PATH[] = "thread";

const uint32_t TICK_MS = 10;
const uint32_t LAP_TICKS = 64;
// A thread not driven for this long is reported, at most once a second.
const uint32_t NO_RESPONSE_MS = 3200;
const uint32_t REPORT_EVERY_MS = 1000;
// Behind by more than this after its catch-up steps, a thread skips ahead.
const uint32_t LATE_MS = 1000;
const unsigned int MAX_CATCH_UP_STEPS = 49;
// Steps to the next due slot that one tick may take in the low-power mode.
const unsigned int MAX_SKIP_STEPS = 1000;
const uint32_t CLOCK_JUMP_MS = 0x80000000u;
const uint32_t RESTART_TIMER_ID = 0xFFFFFFFFu;
const uint32_t ALIVE_TIMER_ID = 0xFFFFFFFEu;
const unsigned int ALIVE_CHECK_MS = 60000;
const uint32_t WHEEL_MIN_INTERVAL = 0xA000;

// Milliseconds from `stamp` to `now`; a distance beyond 2^31 is a clock
// jump, which resets the stamp to now.
uint32_t elapsed_from(uint32_t stamp, uint32_t now, bool& jumped) {
    // The messages' age rule: one less across a wrap of the counter.
    const uint32_t elapsed = msg_it::age_of(stamp, now);
    jumped = elapsed > CLOCK_JUMP_MS;
    return jumped ? 0 : elapsed;
}

uint32_t elapsed_on(uint32_t& stamp, uint32_t now) {
    bool jumped = false;
    const uint32_t elapsed = elapsed_from(stamp, now, jumped);
    if (jumped)
        stamp = now;
    return elapsed;
}

// The stamps the driver reads are written by their loop thread; no other
// data is published with them.
uint32_t elapsed_on(std::atomic<uint32_t>& stamp, uint32_t now) {
    bool jumped = false;
    const uint32_t elapsed = elapsed_from(stamp.load(std::memory_order_relaxed), now, jumped);
    if (jumped)
        stamp.store(now, std::memory_order_relaxed);
    return elapsed;
}

// Advances `wheel` by up to `ticks`, straight to each slot that holds a
// timer (the slots in between are empty, so the longer steps skip
// nothing); stops early when the thread lets go of its wheel or after
// MAX_SKIP_STEPS steps. The ticks advanced.
uint32_t advance_over_empty_slots(timer_queue_t* wheel, uint32_t ticks, const timer_drive_t& t) {
    uint32_t done = 0;
    for (unsigned int n = 0; done < ticks && n < MAX_SKIP_STEPS && t.has_wheel.load(std::memory_order_relaxed); ++n) {
        uint32_t step = wheel->ticks_to_next();
        const uint32_t left = ticks - done;
        step = step == 0 ? 1 : (step < left ? step : left);
        wheel->do_timer(step);
        done += step;
    }
    return done;
}

// Records how late a wheel step ran, for each step that fired a timer.
class late_meter_t {
public:
    late_meter_t(const timer_queue_t& wheel, thread_counters_t& counters, uint32_t now)
        : m_wheel(wheel), m_counters(counters), m_now(now), m_fired(wheel.fired()) {}

    // After the step due at tick `due`.
    void step(uint32_t due) {
        const uint64_t fired = m_wheel.fired();
        if (fired == m_fired)
            return;
        m_fired = fired;
        if (!stats_on())
            return;
        const int32_t late = static_cast<int32_t>(m_now - due);
        m_counters.timer_late_ms.add(late > 0 ? static_cast<uint64_t>(late) : 0);
    }

private:
    const timer_queue_t& m_wheel;
    thread_counters_t& m_counters;
    const uint32_t m_now;
    uint64_t m_fired;
};

}  // namespace

// The tick the driver sends to a thread whose wheel is due. From the
// library allocator: made on the driver thread, freed on the target's.
class timer_driver_msg_t : public msg_it {
public:
    static timer_driver_msg_t* create(thread_wrapper_t* target) {
        ssb_allocator_t* allocator = ssb_allocator_t::instance();
        void* cell = allocator ? allocator->allocate(sizeof(timer_driver_msg_t)) : nullptr;
        return cell ? new (cell) timer_driver_msg_t(allocator, target) : nullptr;
    }

    void on_message() override {
        if (!m_target) {
            UTIL_ASSERT_LINE(SOURCE_PATH, 1829, ", this = " << log_ptr(this));
            return;
        }
        m_target->count_tick();
        const int rv = m_target->process_timer();
        if (rv == RESULT_SUCCESS)
            return;
        UTIL_LOG(LOG_WARNING, "timer_driver_msg_t::on_message()" << rv << ", this = " << log_ptr(this));
        if (rv == RESULT_TIMER_RESTART)
            m_target->restart_timer();
    }

    void release() override {
        ssb_allocator_t* allocator = m_allocator;
        this->~timer_driver_msg_t();
        allocator->deallocate(reinterpret_cast<signed char*>(this), sizeof(timer_driver_msg_t));
    }

private:
    timer_driver_msg_t(ssb_allocator_t* allocator, thread_wrapper_t* target)
        : msg_it(MSG_TYPE_TIMER_TICK), m_allocator(allocator), m_target(target) {}
    ~timer_driver_msg_t() override {}

    ssb_allocator_t* m_allocator;
    thread_wrapper_t* m_target;
};

timer_drive_t::timer_drive_t() : last_drive(ticks_drv_t::now()), pause(RING_QUEUE_MIN_CAPACITY) {}

int timer_drive_t::set_precision(unsigned int ms, const thread_wrapper_t* owner) {
    if (ms < MIN_TIMER_PRECISION_MS || ms > MAX_TIMER_PRECISION_MS) {
        UTIL_ASSERT_MSG("thread_wrapper_t::adjust_timer_precision should in scope[ticks_helper::MIN_INTERVAL, 1000ms]",
                        SOURCE_PATH, 1620, ", ms = " << ms << ", this = " << log_ptr(owner));
        return RESULT_INVALID_ARG;
    }
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::adjust_timer_precision, m_timer_precision = "
                           << precision() << ", new_timer_precision = " << ms << ", this = " << log_ptr(owner));
    m_precision.store(ms, std::memory_order_relaxed);
    return RESULT_SUCCESS;
}

int thread_wrapper_t::adjust_timer_precision(unsigned int ms) { return m_parts->timer.set_precision(ms, this); }

unsigned int thread_wrapper_t::get_timer_precision() const { return m_parts->timer.precision(); }

timer_queue_t* thread_wrapper_t::get_timer_queue() const {
    const timer_drive_t& t = m_parts->timer;
    return t.has_wheel.load(std::memory_order_acquire) ? t.wheel.get() : nullptr;
}

// ---- the wheel's life ---------------------------------------------------------------

void thread_wrapper_t::open_timer() {
    timer_drive_t& t = m_parts->timer;
    if (!has_timer_support() || t.wheel)
        return;
    t.wheel = ref_holder_t<timer_queue_t>(new timer_queue_t(this, WHEEL_MIN_INTERVAL));
    t.last_drive.store(ticks_drv_t::now(), std::memory_order_relaxed);
    publish_timer_state();
    t.has_wheel.store(true, std::memory_order_release);
}

void thread_wrapper_t::close_timer() {
    timer_drive_t& t = m_parts->timer;
    if (!t.has_wheel.exchange(false, std::memory_order_acq_rel))
        return;
    t.alive_timer.reset();
    // Handles still armed are detached and waiting deposits freed; the
    // wheel itself stays until this object goes, for a call-back that is
    // still running on it.
    t.wheel->clear();
    publish_timer_state();
}

void thread_wrapper_t::publish_timer_state() {
    timer_drive_t& t = m_parts->timer;
    timer_queue_t* wheel = t.wheel.get();
    if (!wheel)
        return;
    t.interval_ms.store(wheel->get_interval(), std::memory_order_relaxed);
    t.digit0.store(wheel->position().digit(0), std::memory_order_relaxed);
    t.immediate.store(wheel->has_immediately_timer(), std::memory_order_relaxed);
    t.timers.store(wheel->timer_count(), std::memory_order_relaxed);
    if (timer_drv_t::low_power()) {
        const uint32_t ticks = wheel->ticks_to_next();
        const uint32_t base = t.last_drive.load(std::memory_order_relaxed);
        t.due_at.store(ticks == UINT32_MAX ? base : base + ticks * TICK_MS, std::memory_order_seq_cst);
    }
}

// ---- the driver's side ------------------------------------------------------------

void thread_wrapper_t::notify_ticks(unsigned int ticks) {
    if (!is_running()) {
        UTIL_LOG(LOG_WARNING,
                 "thread_wrapper_t::notify_ticks timer driver thread has been in stopping progress, return immedately"
                     << ", this = " << log_ptr(this));
        return;
    }
    channel_map_t& channels = m_parts->channels;
    size_t i = 0;
    while (i < channels.size()) {
        channel_map_t::channel_t& ch = channels.at(i);
        thread_wrapper_t* peer = ch.peer.get();
        if (!peer || peer->get_id() == get_id()) {
            ++i;
            continue;
        }
        if (!peer->is_running()) {
            UTIL_LOG(LOG_WARNING, "thread_wrapper_t::notify_ticks "
                                      << ", it->first->get_id() = " << peer->get_id()
                                      << "has not be active and would be removed from list, this = " << log_ptr(this));
            // The entry goes; what was at i is now another peer's.
            detach_queue(peer);
            continue;
        }
        if (peer->need_timer_drive() && ch.write) {
            timer_driver_msg_t* msg = timer_driver_msg_t::create(peer);
            if (!msg || ch.write->post_msg(msg, nullptr) != RESULT_SUCCESS) {
                UTIL_LOG(LOG_WARNING, "thread_wrapper_t::notify_ticks ticks = " << ticks << ", queue for thread["
                                                                                << peer->get_id() << "is full"
                                                                                << ", this = " << log_ptr(this));
                if (msg)
                    msg->release();
                peer->unpause_timer();
            }
            peer->notify();
        }
        ++i;
    }
}

bool thread_wrapper_t::need_timer_drive() {
    timer_drive_t& t = m_parts->timer;
    if (!t.has_wheel.load(std::memory_order_acquire))
        return false;
    const uint32_t now = ticks_drv_t::now();
    const bool low_power = timer_drv_t::low_power();
    const bool paused = !t.pause.is_empty();
    // In the low-power mode an idle wheel is not driven at all: only a tick
    // left unanswered says the thread hangs.
    const uint32_t silent = low_power ? (paused ? elapsed_on(t.tick_sent_at, now) : 0) : elapsed_on(t.last_drive, now);
    if (silent >= NO_RESPONSE_MS && elapsed_on(t.last_report, now) >= REPORT_EVERY_MS) {
        t.last_report = now;
        UTIL_LOG(LOG_WARNING, "thread_wrapper_t::need_timer_drive(), thread[" << get_id() << "] has no response for "
                                                                              << silent << " ms"
                                                                              << ", this = " << log_ptr(this));
    }
    if (paused)
        return false;
    if (!is_running()) {
        UTIL_LOG(LOG_WARNING, "thread_wrapper_t::need_timer_drive already has been stopped!"
                                  << ", m_status = " << m_status.load() << ", this = " << log_ptr(this));
        return false;
    }
    bool need = t.immediate.load(std::memory_order_relaxed);
    if (!need && low_power) {
        const uint32_t due = t.due_at.load(std::memory_order_relaxed);
        need = t.timers.load(std::memory_order_relaxed) != 0 && static_cast<int32_t>(now - due) >= 0;
    } else if (!need) {
        const uint32_t d0 = t.digit0.load(std::memory_order_relaxed);
        const uint32_t lap_rest = d0 ? (LAP_TICKS - d0) * TICK_MS : LAP_TICKS * TICK_MS;
        const uint32_t interval = t.interval_ms.load(std::memory_order_relaxed);
        need = elapsed_on(t.last_drive, now) / TICK_MS * TICK_MS >= (interval < lap_rest ? interval : lap_rest);
    }
    if (need) {
        t.pause.push(true);
        t.tick_sent_at = now;
    }
    return need;
}

unsigned int thread_wrapper_t::due_in_ms() {
    timer_drive_t& t = m_parts->timer;
    // First, and sequentially consistent: pairs with the owner's store
    // before it reads the driver's planned wake-up.
    const uint32_t due = t.due_at.load(std::memory_order_seq_cst);
    if (!t.has_wheel.load(std::memory_order_acquire) || !t.pause.is_empty())
        return WAIT_INFINITE_MS;
    if (t.immediate.load(std::memory_order_relaxed))
        return 0;
    if (t.timers.load(std::memory_order_relaxed) == 0)
        return WAIT_INFINITE_MS;
    const int32_t left = static_cast<int32_t>(due - ticks_drv_t::now());
    return left > 0 ? static_cast<unsigned int>(left) : 0;
}

unsigned int thread_wrapper_t::next_due_ms() {
    unsigned int least = WAIT_INFINITE_MS;
    channel_map_t& channels = m_parts->channels;
    for (size_t i = 0; i < channels.size(); ++i) {
        thread_wrapper_t* peer = channels.at(i).peer.get();
        if (peer && peer != this) {
            const unsigned int due = peer->due_in_ms();
            least = due < least ? due : least;
        }
    }
    return least;
}

void thread_wrapper_t::wake_timer_driver() {
    channel_map_t& channels = m_parts->channels;
    for (size_t i = 0; i < channels.size(); ++i) {
        thread_wrapper_t* peer = channels.at(i).peer.get();
        if (peer && !peer->has_timer_support()) {
            peer->notify();
            return;
        }
    }
}

// ---- the owner's side -------------------------------------------------------------

int thread_wrapper_t::process_timer() {
    timer_drive_t& t = m_parts->timer;
    if (!t.wheel) {
        UTIL_ASSERT_MSG("thread_wrapper_t::process_timer()"
                            << ", m_type = " << m_type << ", m_interact_timer = " << m_interact_timer,
                        SOURCE_PATH, __LINE__, ", this = " << log_ptr(this));
        return RESULT_NOTHING_TO_DO;
    }
    bool popped = false;
    if (is_stopped()) {
        t.pause.pop(popped);
        return RESULT_STOPPED;
    }
    // A call-back may stop this thread, which clears the wheel.
    ref_holder_t<timer_queue_t> keep(t.wheel.get());
    timer_queue_t* wheel = keep.get();
    const uint32_t now = ticks_drv_t::now();
    t.processing = true;
    late_meter_t late(*wheel, m_parts->stats, now);
    if (wheel->timer_count() == 0 && !wheel->has_immediately_timer()) {
        // Nothing to fire or cascade: an empty wheel just keeps time, and
        // one left idle (the low-power mode) needs no catch-up.
        const uint32_t elapsed = elapsed_on(t.last_drive, now);
        t.last_drive.store(now - elapsed % TICK_MS, std::memory_order_relaxed);
        t.lap_remainder = 0;
    } else if (timer_drv_t::low_power()) {
        // Straight to each slot that holds a timer: the slots in between
        // are empty, so larger steps skip nothing.
        const uint32_t lag = elapsed_on(t.last_drive, now) / TICK_MS;
        const uint32_t done = advance_over_empty_slots(wheel, lag, t);
        t.last_drive.store(t.last_drive.load(std::memory_order_relaxed) + done * TICK_MS, std::memory_order_relaxed);
        late.step(t.last_drive.load(std::memory_order_relaxed));
        if (wheel->has_immediately_timer())
            wheel->do_timer(0);
    } else {
        const uint32_t step = wheel->get_interval();
        const uint32_t step_ticks = wheel->get_interval_ticks();
        uint32_t elapsed = elapsed_on(t.last_drive, now) / TICK_MS * TICK_MS;
        for (unsigned int n = 1; elapsed >= step && n <= MAX_CATCH_UP_STEPS; ++n) {
            elapsed -= step;
            if (t.lap_remainder >= step) {
                // The wheel ran ahead to finish a lap: this step is spent.
                t.lap_remainder -= step;
                wheel->do_timer(0);
            } else if (t.lap_remainder) {
                wheel->do_timer(step_ticks - t.lap_remainder / TICK_MS);
                t.lap_remainder = 0;
            } else {
                wheel->do_timer(step_ticks);
            }
            uint32_t stamp = t.last_drive.load(std::memory_order_relaxed) + step;
            late.step(stamp);
            if (n == MAX_CATCH_UP_STEPS && elapsed > LATE_MS) {
                signed char buf[LOG_LINE_BUFFER];
                log_stream_t line(buf, LOG_LINE_BUFFER, reinterpret_cast<const signed char*>("WARNING"),
                                  reinterpret_cast<const signed char*>("ORCA"));
                line << "thread_wrapper_t::process_timer should wake up from sleep, hurry up"
                     << ", elapsed_ms = " << elapsed << ", this = " << log_ptr(this);
                warn_into_memlog(line);
                stamp += elapsed / step * step;
                t.last_drive.store(stamp, std::memory_order_relaxed);
                elapsed = elapsed_on(t.last_drive, now) / TICK_MS * TICK_MS;
            } else {
                t.last_drive.store(stamp, std::memory_order_relaxed);
            }
            if (!t.has_wheel.load(std::memory_order_relaxed))
                break;
        }
        // Finish the lap of level 0 when behind by more than its rest, so
        // the higher levels cascade; the next drive subtracts the advance.
        // The lap is walked slot by slot where timers wait: one long step
        // would pass over them and hold them back a whole lap.
        const uint32_t d0 = wheel->position().digit(0);
        const uint32_t rest = d0 ? LAP_TICKS - d0 : 0;
        if (elapsed < rest * TICK_MS || (elapsed == 0 && rest == 0)) {
            wheel->do_timer(0);
        } else {
            advance_over_empty_slots(wheel, rest, t);
            t.lap_remainder = rest * TICK_MS;
        }
        late.step(t.last_drive.load(std::memory_order_relaxed));
    }
    t.processing = false;
    publish_timer_state();
    t.pause.pop(popped);
    wake_driver_if_due_sooner();
    return RESULT_SUCCESS;
}

uint32_t thread_wrapper_t::timer_lag_ticks() {
    timer_drive_t& t = m_parts->timer;
    timer_queue_t* wheel = t.wheel.get();
    // Inside a call-back the wheel stands at the firing slot's time.
    if (!wheel || t.processing)
        return 0;
    const uint32_t now = ticks_drv_t::now();
    if (wheel->timer_count() == 0 && !wheel->has_immediately_timer()) {
        // An empty wheel's position means nothing: it starts from now.
        t.last_drive.store(now, std::memory_order_relaxed);
        t.lap_remainder = 0;
        return 0;
    }
    const uint32_t elapsed = elapsed_on(t.last_drive, now);
    return elapsed > t.lap_remainder ? (elapsed - t.lap_remainder) / TICK_MS : 0;
}

bool thread_wrapper_t::is_timer_paused() const { return !m_parts->timer.pause.is_empty(); }

uint64_t thread_wrapper_t::timer_ticks() const { return m_parts->timer.ticks_run.load(std::memory_order_relaxed); }

void thread_wrapper_t::count_tick() {
    // One writer, the loop thread: no read-modify-write needed.
    std::atomic<uint64_t>& n = m_parts->timer.ticks_run;
    n.store(n.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

struct thread_test_access {
    static std::atomic<uint32_t>& last_drive(thread_wrapper_t* thr) { return thr->m_parts->timer.last_drive; }
};

void shift_timer_stamp(thread_wrapper_t* thr, uint32_t ms) {
    std::atomic<uint32_t>& stamp = thread_test_access::last_drive(thr);
    stamp.store(stamp.load(std::memory_order_relaxed) - ms, std::memory_order_relaxed);
}

void thread_wrapper_t::unpause_timer() {
    bool popped = false;
    if (m_parts->timer.pause.is_empty()) {
        UTIL_LOG(LOG_INFO,
                 "thread_wrapper_t::unpause_timer() the timer already in unpause status, this = " << log_ptr(this));
        return;
    }
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::unpause_timer() unpause timer from pause status, this = " << log_ptr(this));
    m_parts->timer.pause.pop(popped);
}

void thread_wrapper_t::restart_timer() {
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::restart_timer()"
                           << ", this = " << log_ptr(this));
    timer_deposit_t* deposit = timer_deposit_t::new_instance(RESTART_TIMER_ID, this);
    if (deposit->add_timer(this, TICK_MS, 1, true) != RESULT_SUCCESS)
        timer_deposit_t::release(deposit);
    unpause_timer();
}

void thread_wrapper_t::timer_work(const timer_it* timer) {
    timer_drive_t& t = m_parts->timer;
    if (timer && timer == t.alive_timer.get())
        UTIL_LOG(LOG_INFO, "thread_wrapper_t::timer_work thread [" << get_id() << "] is alive"
                                                                   << ", this = " << log_ptr(this));
    if (timer && timer->get_id() == RESTART_TIMER_ID) {
        t.lap_remainder = 0;
        if (!t.pause.is_empty())
            on_sync();
        unpause_timer();
    }
}

void thread_wrapper_t::on_sync() { notify(); }

void thread_wrapper_t::on_armed() {
    publish_timer_state();
    if (!m_parts->timer.processing)
        wake_driver_if_due_sooner();
}

void thread_wrapper_t::wake_driver_if_due_sooner() {
    timer_drive_t& t = m_parts->timer;
    if (!timer_drv_t::low_power() || t.timers.load(std::memory_order_relaxed) == 0)
        return;
    if (timer_drv_t::sleeps_past(t.due_at.load(std::memory_order_seq_cst)))
        wake_timer_driver();
}

void thread_wrapper_t::update_interval(unsigned int lastest, unsigned int newest, unsigned int align) {
    timer_drive_t& t = m_parts->timer;
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::update_interval"
                           << ", lastest = " << lastest << ", newest = " << newest
                           << ", m_align_ms = " << t.align_ms.load(std::memory_order_relaxed) << ", align = " << align
                           << ", this = " << log_ptr(this));
    if (newest < lastest)
        t.align_ms.store(0, std::memory_order_relaxed);
    else if (newest > lastest)
        t.align_ms.store(align, std::memory_order_relaxed);
    t.interval_ms.store(newest, std::memory_order_relaxed);
}

void thread_wrapper_t::start_alive_check() {
    timer_drive_t& t = m_parts->timer;
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::start_alive_check() timer = " << log_ptr(t.alive_timer.get())
                                                                        << ", m_interact_timer = " << m_interact_timer
                                                                        << ", this = " << log_ptr(this));
    if (t.alive_timer || !t.has_wheel.load(std::memory_order_relaxed))
        return;
    // A fresh wheel for an interactive thread, unless timers are armed on
    // the one it has (they would be dropped).
    if (m_interact_timer && t.wheel->timer_count() == 0) {
        t.wheel = ref_holder_t<timer_queue_t>(new timer_queue_t(this, WHEEL_MIN_INTERVAL));
        publish_timer_state();
    }
    t.alive_timer.reset(new timer_elem_t(ALIVE_TIMER_ID, this));
    if (t.alive_timer->add_timer(this, ALIVE_CHECK_MS, 0, true) != RESULT_SUCCESS)
        t.alive_timer.reset();
}

void thread_wrapper_t::stop_alive_check() {
    timer_drive_t& t = m_parts->timer;
    UTIL_LOG(LOG_INFO, "thread_wrapper_t::stop_alive_check() timer = " << log_ptr(t.alive_timer.get())
                                                                       << ", this = " << log_ptr(this));
    t.alive_timer.reset();
}

}  // namespace ssb

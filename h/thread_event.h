// Event and I/O threads: an OS thread whose loop is an I/O repository.
#ifndef SSB_THREAD_EVENT_H
#define SSB_THREAD_EVENT_H

#include <atomic>

#include "io_repo.h"
#include "thread.h"
#include "thread_base.h"

namespace ssb {

// What both kinds share: the OS thread runs the repository's loop, which
// waits on the thread's notifier and the registered handles, and between
// waits runs the message pass. The repository is created on the thread and
// lives as long as the object; hosts register their handles with repo()
// from the thread itself (from a message) or from any thread once it runs.
//
// Made by thread_mgr_t::spawn. stop() from another thread stops the loop
// synchronously and waits for the OS thread; from the thread itself it
// stops the loop and the thread ends when the loop returns.
class UTIL_API thread_loop_base_t : public thread_base_t, public thread_wrapper_t, private io_process_it {
public:
    // Starts the OS thread with the class's own routine; `fn` and `arg` are
    // not used. The thread's id, or 0.
    unsigned int start(void (*fn)(void*), void* arg, unsigned int stack_size, unsigned int priority) override;
    int stop() override;
    unsigned int get_id() const override { return thread_wrapper_t::get_id(); }
    bool is_running() const override { return thread_wrapper_t::is_running(); }
    bool is_stopped() const override { return thread_wrapper_t::is_stopped(); }
    bool has_ended() const override { return !m_running.load(std::memory_order_acquire); }

    // Null until the thread has built it.
    io_repo_t* repo() const { return m_repo.load(std::memory_order_acquire); }

    // [the holder of a reference] Waits at most `timeout_ms` for the OS
    // thread to end: 0 ended (or never started), 16 not yet, 12 on the
    // thread itself.
    int wait_ended(unsigned int timeout_ms) { return wait_end(timeout_ms); }
    // [the holder of a reference] For a thread nobody can join (the caller
    // is that thread, or its loop did not stop in time): hands the caller's
    // reference to the thread, which lets go of its OS thread and drops the
    // reference as the last thing it does. False when the thread has ended
    // already: then the caller keeps its reference and joins as usual.
    bool hand_over_to_thread();

protected:
    thread_loop_base_t(const char* name, unsigned int mode, unsigned int type, unsigned int queue_size,
                       thread_mgr_t* thr_manager, unsigned int waits, bool interact_timer, const signed char* thr_name);
    ~thread_loop_base_t() override;

    // Builds the repository, runs it, returns when stopped.
    void serve(io_repo_t* repo);
    // Ends the repository's loop once the wrapper has stopped.
    void end_loop();
    // The stop shared by both kinds; `source` and `line` name the assertion
    // of a thread that is not running.
    int stop_loop(const char* source, int line);

    std::atomic<bool> m_running;
    std::atomic<io_repo_t*> m_repo;

private:
    static void routine(void* self);
    // The message pass between the repository's waits.
    int on_process() override;

    const char* m_class_name;
    // Who releases the thread at its end: EXIT_* values in thread_event.cpp.
    std::atomic<int> m_exit_owner;
};

// Waits with an event demultiplexer (events_t); the timer driver thread
// (type 2) runs timer_drv_t instead.
class UTIL_API thread_event_t : public thread_loop_base_t {
public:
    thread_event_t(unsigned int mode, unsigned int type, unsigned int queue_size, thread_mgr_t* thr_manager,
                   unsigned int waits, bool interact_timer, const signed char* name);

    void thread_run(void* args) override;
    int stop() override;
    void init_tls() override;

protected:
    ~thread_event_t() override;
};

// Waits with select_t over up to 1024 sockets and the thread's socket
// notifier. Only mode bit 1 is served.
class UTIL_API thread_io_t : public thread_loop_base_t {
public:
    thread_io_t(unsigned int mode, unsigned int type, unsigned int queue_size, thread_mgr_t* thr_manager,
                unsigned int waits, bool interact_timer, const signed char* name);

    void thread_run(void* args) override;
    int stop() override;
    void init_tls() override;
    int open_notifier(unsigned int waits) override;

protected:
    ~thread_io_t() override;
    // A socket pair: select waits on sockets only.
    notifier_it* make_notifier(unsigned int waits) override;
};

}  // namespace ssb

#endif

// Which loop the calling thread runs, and the registry of loops, below both
// the loop (src/thread.cpp) and the thread manager (src/thread_mgr.cpp), so
// that neither reaches into the other.
#ifndef SSB_THREAD_IDENTITY_H
#define SSB_THREAD_IDENTITY_H

#include "util_def.h"

namespace ssb {

class thread_wrapper_t;

namespace identity {

// The thread-local slot that names the calling thread's loop. Opened by the
// thread manager when it is made and closed when it goes; set and get are
// for any thread and take no lock.
int open();
void close();
// 0, or 12 when the slot is not open.
int set(thread_wrapper_t* thr);
// The calling thread's loop, or null.
thread_wrapper_t* get();

}  // namespace identity

// What a loop needs of whoever lists the threads: the thread manager
// implements it and installs itself while it exists.
class thread_registry_it {
public:
    // Takes a stopped loop off the list: 0, 5 when not listed.
    virtual int detach(thread_wrapper_t* thr) = 0;
    // A listed loop by its OS thread id, or null (no reference taken).
    virtual thread_wrapper_t* find_by_id(unsigned int id) = 0;
    virtual ~thread_registry_it() {}
};

// The registry in force, or null when there is no thread manager. Any
// thread; install and uninstall belong to the manager's life.
thread_registry_it* thread_registry();
void install_thread_registry(thread_registry_it* registry);

// The calling thread's loop: its slot, else the registry's lookup by id;
// null for a thread nobody knows.
thread_wrapper_t* calling_thread();

// Who waits for whom: a synchronous send, a channel change or a stop that
// waits for another loop enters here first, so a wait that would close a
// cycle (that loop already waits, directly or through others, for the
// calling thread) is refused instead of deadlocking.
namespace waits {

// The calling thread is about to wait for the thread `target_tid`: 0, or
// 12 when that would close a cycle (nothing recorded then).
int enter(unsigned int target_tid);
// The wait entered last by the calling thread is over.
void leave();

}  // namespace waits

}  // namespace ssb

#endif

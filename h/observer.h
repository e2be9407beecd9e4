// Observers notified on their own threads.
//
// The contract:
//   - An observer is added from a running message-loop thread and is called
//     back on that thread only, through its control queue, as a plain
//     message (type 0). Adding from any other thread is refused (12).
//   - Any thread may notify. Each observer gets its own message; the
//     observers of one thread are called in the order they were added, and
//     one notifier's notifications reach an observer in the order made.
//   - Any thread may remove an observer, including the observer itself (or
//     another one) from inside a call-back. Once remove_observer returns, no
//     call-back reaches that observer any more: notifications still queued
//     for it are dropped. Removing from another thread waits for a call-back
//     of that observer that is running at that moment; so a call-back must
//     not remove an observer of another thread whose call-back could be
//     removing it back at the same time.
//   - add_observer and remove_observer say whether the list became
//     non-empty or empty, for a subject that starts or stops a source.
//   - An observer whose thread stopped misses the notifications made after
//     the stop; remove it all the same.
//   - The holder must outlive its observers' removal; destroying it removes
//     whatever is left, with the same waits.
#ifndef SSB_OBSERVER_H
#define SSB_OBSERVER_H

#include <vector>

#include "lock.h"
#include "util_def.h"

namespace ssb {

class observer_entry_t;

// Called on the thread that added it. `data` is the notifier's, held for
// the call (may be null); take a reference to keep it.
class UTIL_API observer_it {
public:
    virtual void on_notify(uint32_t what, ref_count_it* data) = 0;
    virtual ~observer_it() {}
};

// A list of observers on any number of threads. Any thread; see the
// contract above.
class UTIL_API observer_holder_t : public safe_obj<observer_holder_t, thread_mutex_recursive> {
public:
    observer_holder_t();
    ~observer_holder_t() override;

    // [loop thread] 0; 2 null; 10 added already; 12 not on a running
    // message-loop thread. `became_non_empty` (optional) says whether this
    // was the first observer.
    int add_observer(observer_it* observer, bool* became_non_empty = nullptr);
    // [any thread] 0; 2 null; 5 not listed. `became_empty` (optional) says
    // whether this was the last observer.
    int remove_observer(observer_it* observer, bool* became_empty = nullptr);
    // [any thread] Queues on_notify(what, data) for every observer listed
    // now. 0; 9 no observer; 3 some observer's control queue was full (that
    // one misses this notification; the others get it).
    int notify(uint32_t what, ref_count_it* data = nullptr);
    // [any thread]
    unsigned int observer_count() const;

private:
    observer_holder_t(const observer_holder_t&);
    observer_holder_t& operator=(const observer_holder_t&);

    std::vector<observer_entry_t*> m_entries;
};

}  // namespace ssb

#endif

// The firings in progress on the calling thread, so that a handle destroyed
// inside its own call-back is forgotten by the cell that fires it. Internal.
#ifndef SSB_TIMER_FIRING_H
#define SSB_TIMER_FIRING_H

#include "timer.h"

namespace ssb {

struct timer_firing_t {
    explicit timer_firing_t(timer_carrier_t* c);
    ~timer_firing_t();
    // Called by a handle's destructor: the cells firing it drop it.
    static void forget(timer_it* handle);

    timer_carrier_t* carrier;
    timer_firing_t* outer;
};

}  // namespace ssb

#endif

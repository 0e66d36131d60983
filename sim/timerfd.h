/* Timer descriptors in board time, with the kernel's timerfd semantics. */
#ifndef VELASIM_TIMERFD_H
#define VELASIM_TIMERFD_H

#include <time.h>

#include "board.h"

namespace sim {

/* A new timer descriptor, or -errno (EINVAL for a clock or flags the kernel
 * refuses). */
int timer_create(Board& board, clockid_t clock, int flags);
/* 0 or -errno. value 0 disarms; with TFD_TIMER_ABSTIME value is a time of
 * the timer's clock. old_* (may be null) get what was set before. */
int timer_settime(OpenFile& of, int flags, ns_t value, ns_t interval, ns_t* old_value, ns_t* old_interval);
int timer_gettime(OpenFile& of, ns_t* value, ns_t* interval);

} // namespace sim

#endif

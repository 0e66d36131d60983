/* Wrapped clocks and timer descriptors: on a running board the program's
 * time is the board's. */
#include <limits>
#include <sys/time.h>

#include "timerfd.h"
#include "wrap_common.h"

using namespace sim;

namespace {

/* The board's reading of a clock, when the board runs and keeps that clock. */
bool board_clock(clockid_t id, ns_t* value)
{
    Guard g;
    return !g.nested() && Board::active() && sim::clock().read(id, value);
}

/* The board's clock in the caller's record. A 32-bit time_t cannot hold a
 * wall clock past 2038-01-19T03:14:07Z: the C library's 32-bit entry
 * points then fail with EOVERFLOW, and so do these. */
template <class Rec> int clock_core(int* r, clockid_t id, Rec* rec, void (*store)(Rec*, ns_t))
{
    ns_t v;
    if (rec == nullptr || !board_clock(id, &v))
        return 0;
    if (v / kSec > std::numeric_limits<decltype(rec->tv_sec)>::max()) {
        ErrnoKeeper e;
        return fail(r, e, EOVERFLOW);
    }
    store(rec, v);
    *r = 0;
    return 1;
}

template <class T> int time_core(T* r, T* t)
{
    ns_t v;
    if (!board_clock(CLOCK_REALTIME, &v))
        return 0;
    if (v / kSec > std::numeric_limits<T>::max()) {
        ErrnoKeeper e;
        return fail(r, e, EOVERFLOW);
    }
    *r = static_cast<T>(v / kSec);
    if (t != nullptr)
        *t = *r;
    return 1;
}

template <class Ts> bool load_ts(const Ts& ts, ns_t* ns)
{
    if (ts.tv_sec < 0 || ts.tv_nsec < 0 || ts.tv_nsec >= kSec)
        return false;
    *ns = ts_ns(ts);
    return true;
}

template <class Its> int settime_core(int* r, int fd, int flags, const Its* value, Its* old)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    ns_t v = 0, iv = 0, ov = 0, oiv = 0;
    if (value == nullptr)
        return fail(r, c.err, EFAULT);
    if (!load_ts(value->it_value, &v) || !load_ts(value->it_interval, &iv))
        return fail(r, c.err, EINVAL);
    int res = timer_settime(*c.of, flags, v, iv, &ov, &oiv);
    if (res == 0 && old != nullptr) {
        store_ts(&old->it_value, ov);
        store_ts(&old->it_interval, oiv);
    }
    return board_result(r, c.err, res);
}

template <class Its> int gettime_core(int* r, int fd, Its* cur)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    ns_t v = 0, iv = 0;
    int res = timer_gettime(*c.of, &v, &iv);
    if (res == 0) {
        store_ts(&cur->it_value, v);
        store_ts(&cur->it_interval, iv);
    }
    return board_result(r, c.err, res);
}

} // namespace

extern "C" {

int sim_clock_gettime(int* r, clockid_t id, struct timespec* ts)
{
    return clock_core(r, id, ts, store_ts);
}

int sim_gettimeofday(int* r, struct timeval* tv, void* tz)
{
    return tz == nullptr ? clock_core(r, CLOCK_REALTIME, tv, store_tv) : 0;
}

int sim_time(time_t* r, time_t* t)
{
    return time_core(r, t);
}

int sim_timerfd_create(int* r, clockid_t clock, int flags)
{
    Guard g;
    if (g.nested() || !Board::active())
        return 0;
    ErrnoKeeper e;
    Board& b = Board::get();
    std::lock_guard<std::recursive_mutex> lock(b.mutex());
    return board_result(r, e, timer_create(b, clock, flags));
}

int sim_timerfd_settime(int* r, int fd, int flags, const struct itimerspec* value, struct itimerspec* old)
{
    return settime_core(r, fd, flags, value, old);
}

int sim_timerfd_gettime(int* r, int fd, struct itimerspec* cur)
{
    return gettime_core(r, fd, cur);
}

#if __TIMESIZE == 32
int sim_clock_gettime64(int* r, clockid_t id, struct sim_timespec64* ts)
{
    return clock_core(r, id, ts, store_ts);
}

int sim_gettimeofday64(int* r, struct sim_timeval64* tv, void* tz)
{
    return tz == nullptr ? clock_core(r, CLOCK_REALTIME, tv, store_tv) : 0;
}

int sim_time64(int64_t* r, int64_t* t)
{
    return time_core(r, t);
}

int sim_timerfd_settime64(int* r, int fd, int flags, const struct sim_itimerspec64* value,
                          struct sim_itimerspec64* old)
{
    return settime_core(r, fd, flags, value, old);
}

int sim_timerfd_gettime64(int* r, int fd, struct sim_itimerspec64* cur)
{
    return gettime_core(r, fd, cur);
}
#endif

} // extern "C"

/* Wrapped waits: poll, select, the sleeps. On a running board every one of
 * them is the board's wait, in board time. */
#include <vector>

#include "wrap_common.h"

using namespace sim;

namespace sim {

bool board_sleep(ns_t duration, ns_t* left, int* res)
{
    Guard g;
    if (g.nested() || !Board::active())
        return false;
    *res = Board::get().sleep_for(duration, left);
    return true;
}

bool sleep_span(clockid_t clock, int flags, ns_t req, ns_t* span)
{
    if (!(flags & TIMER_ABSTIME)) {
        *span = req;
        return true;
    }
    ns_t now = 0;
    if (!sim::clock().read(clock, &now))
        return false;
    *span = req > now ? req - now : 0;
    return true;
}

} // namespace sim

namespace {

/* Converts between select()'s sets and poll entries, as the kernel does. */
constexpr short kSelectIn = POLLIN | POLLRDNORM | POLLHUP | POLLERR;
constexpr short kSelectOut = POLLOUT | POLLWRNORM | POLLERR;
constexpr short kSelectEx = POLLPRI;

bool valid_timespec(ns_t sec, long nsec)
{
    return sec >= 0 && nsec >= 0 && nsec < kSec;
}

/* timeout < 0: for ever. *left gets the time not slept. */
int select_core(int* r, int n, fd_set* rd, fd_set* wr, fd_set* ex, ns_t timeout, const sigset_t* mask, ns_t* left)
{
    Guard g;
    if (g.nested() || !Board::active())
        return 0;
    ErrnoKeeper e;
    if (n < 0 || n > FD_SETSIZE)
        return fail(r, e, EINVAL);
    std::vector<struct pollfd> fds;
    for (int fd = 0; fd < n; fd++) {
        short ev = 0;
        if (rd != nullptr && FD_ISSET(fd, rd))
            ev |= POLLIN;
        if (wr != nullptr && FD_ISSET(fd, wr))
            ev |= POLLOUT;
        if (ex != nullptr && FD_ISSET(fd, ex))
            ev |= POLLPRI;
        if (ev != 0)
            fds.push_back({fd, ev, 0});
    }
    ns_t start = now_ns();
    int res = Board::get().wait(fds.data(), fds.size(), timeout, mask);
    if (left != nullptr)
        *left = timeout < 0 ? 0 : std::max<ns_t>(0, timeout - (now_ns() - start));
    if (res < 0)
        return fail(r, e, -res);
    for (const struct pollfd& p : fds) {
        if (p.revents & POLLNVAL)
            return fail(r, e, EBADF);
    }
    int count = 0;
    if (rd != nullptr)
        FD_ZERO(rd);
    if (wr != nullptr)
        FD_ZERO(wr);
    if (ex != nullptr)
        FD_ZERO(ex);
    for (const struct pollfd& p : fds) {
        if ((p.events & POLLIN) && (p.revents & kSelectIn)) {
            FD_SET(p.fd, rd);
            count++;
        }
        if ((p.events & POLLOUT) && (p.revents & kSelectOut)) {
            FD_SET(p.fd, wr);
            count++;
        }
        if ((p.events & POLLPRI) && (p.revents & kSelectEx)) {
            FD_SET(p.fd, ex);
            count++;
        }
    }
    *r = count;
    return 1;
}

int poll_core(int* r, struct pollfd* fds, nfds_t n, ns_t timeout, const sigset_t* mask)
{
    Guard g;
    if (g.nested() || !Board::active())
        return 0;
    ErrnoKeeper e;
    int res = Board::get().wait(fds, n, timeout, mask);
    return board_result(r, e, res);
}

/* nanosleep and clock_nanosleep on the board; rem gets what is left when a
 * signal cut the sleep short. */
template <class Ts> int nanosleep_core(int* r, clockid_t clock, int flags, ns_t sec, long nsec, Ts* rem,
                                       bool errno_style)
{
    ns_t span = 0;
    if (!valid_timespec(sec, nsec) || !sleep_span(clock, flags, sec * kSec + nsec, &span))
        return 0; /* the real call reports it */
    ErrnoKeeper e;
    ns_t left = 0;
    int res;
    if (!board_sleep(span, &left, &res))
        return 0;
    if (res < 0 && rem != nullptr && !(flags & TIMER_ABSTIME))
        store_ts(rem, left);
    if (errno_style) /* clock_nanosleep returns the error number */
        return *r = res < 0 ? -res : 0, 1;
    return res < 0 ? fail(r, e, -res) : (*r = 0, 1);
}

bool known_sleep_clock(clockid_t c)
{
    return c == CLOCK_MONOTONIC || c == CLOCK_REALTIME || c == CLOCK_BOOTTIME || c == CLOCK_TAI;
}

} // namespace

extern "C" {

int sim_poll(int* r, struct pollfd* fds, nfds_t n, int timeout_ms, const struct timespec* ts, const sigset_t* mask)
{
    /* ppoll passes -1 here: with a null time-out it waits for ever. */
    ns_t timeout = ts != nullptr ? ts_ns(*ts) : timeout_ms < 0 ? -1 : timeout_ms * kMs;
    return poll_core(r, fds, n, timeout, mask);
}

int sim_select(int* r, int n, fd_set* rd, fd_set* wr, fd_set* ex, struct timeval* tv, const struct timespec* ts,
               const sigset_t* mask)
{
    ns_t timeout = -1;
    if (tv != nullptr)
        timeout = int64_t{tv->tv_sec} * kSec + int64_t{tv->tv_usec} * 1000;
    else if (ts != nullptr)
        timeout = ts_ns(*ts);
    ns_t left = 0;
    if (!select_core(r, n, rd, wr, ex, timeout, mask, &left))
        return 0;
    if (tv != nullptr)
        store_tv(tv, left); /* Linux leaves the time not slept in the caller's timeval */
    return 1;
}

int sim_usleep(int* r, useconds_t us)
{
    ErrnoKeeper e;
    int res;
    if (!board_sleep(int64_t{us} * 1000, nullptr, &res))
        return 0;
    return res < 0 ? fail(r, e, -res) : (*r = 0, 1);
}

int sim_nanosleep(int* r, const struct timespec* req, struct timespec* rem)
{
    if (req == nullptr)
        return 0;
    return nanosleep_core(r, CLOCK_MONOTONIC, 0, req->tv_sec, req->tv_nsec, rem, false);
}

int sim_clock_nanosleep(int* r, clockid_t clock, int flags, const struct timespec* req, struct timespec* rem)
{
    if (req == nullptr || !known_sleep_clock(clock))
        return 0;
    return nanosleep_core(r, clock, flags, req->tv_sec, req->tv_nsec, rem, true);
}

int sim_sleep(unsigned* r, unsigned seconds)
{
    ns_t left = 0;
    int res;
    if (!board_sleep(int64_t{seconds} * kSec, &left, &res))
        return 0;
    *r = static_cast<unsigned>((left + kSec - 1) / kSec);
    return 1;
}

#if __TIMESIZE == 32
int sim_nanosleep64(int* r, const struct sim_timespec64* req, struct sim_timespec64* rem)
{
    if (req == nullptr)
        return 0;
    return nanosleep_core(r, CLOCK_MONOTONIC, 0, req->tv_sec, req->tv_nsec, rem, false);
}

int sim_clock_nanosleep64(int* r, clockid_t clock, int flags, const struct sim_timespec64* req,
                          struct sim_timespec64* rem)
{
    if (req == nullptr || !known_sleep_clock(clock))
        return 0;
    return nanosleep_core(r, clock, flags, req->tv_sec, req->tv_nsec, rem, true);
}

int sim_select64(int* r, int n, fd_set* rd, fd_set* wr, fd_set* ex, struct sim_timeval64* tv)
{
    ns_t timeout = tv == nullptr ? -1 : tv->tv_sec * kSec + tv->tv_usec * 1000;
    ns_t left = 0;
    if (!select_core(r, n, rd, wr, ex, timeout, nullptr, &left))
        return 0;
    if (tv != nullptr)
        store_tv(tv, left);
    return 1;
}

int sim_pselect64(int* r, int n, fd_set* rd, fd_set* wr, fd_set* ex, const struct sim_timespec64* ts,
                  const sigset_t* mask)
{
    return select_core(r, n, rd, wr, ex, ts == nullptr ? -1 : ts_ns(*ts), mask, nullptr);
}

int sim_ppoll64(int* r, struct pollfd* fds, nfds_t n, const struct sim_timespec64* ts, const sigset_t* mask)
{
    return poll_core(r, fds, n, ts == nullptr ? -1 : ts_ns(*ts), mask);
}
#endif

} // extern "C"

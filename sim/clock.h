/*
 * The board's clock: the one source of time for the models and for the
 * program under the board.
 *
 * Board time counts from the board's creation and never stops. The program's
 * clocks derive from it as the kernel's do: CLOCK_BOOTTIME is board time,
 * CLOCK_MONOTONIC is board time less the time spent suspended, and
 * CLOCK_REALTIME is board time plus the wall-clock time at the board's
 * creation.
 *
 * Modes:
 *   real      board time follows the host's monotonic clock
 *   scaled K  it runs K times faster
 *   step      it moves only when told (advance)
 *   warp      it moves only when told, and jumps to the next due event
 *             whenever the program waits and nothing real is ready
 */
#ifndef VELASIM_CLOCK_H
#define VELASIM_CLOCK_H

#include <mutex>
#include <stdint.h>
#include <string>
#include <time.h>

namespace sim {

using ns_t = int64_t;
constexpr ns_t kNever = INT64_MAX;
constexpr ns_t kUs = 1000;
constexpr ns_t kMs = 1000000;
constexpr ns_t kSec = 1000000000;

enum class ClockMode { Real, Scaled, Step, Warp };

class Clock {
public:
    Clock();

    /* Readings, in nanoseconds. */
    ns_t now();              /* board time */
    ns_t monotonic();        /* board time less the time suspended */
    ns_t realtime();         /* since the Unix epoch */
    ns_t suspended_total();
    bool suspended();
    /* One of the program's clocks (CLOCK_*); false for clocks the board does
     * not keep (the CPU-time clocks). */
    bool read(clockid_t id, ns_t* value);
    /* Board time at which clock id reads value; kNever if that clock does
     * not move until then (a monotonic time while suspended). */
    ns_t board_time_of(clockid_t id, ns_t value);

    /* Modes: "real", "scaled K", "step", "warp". "" or an error text. */
    std::string set_mode(const std::string& text);
    std::string mode_text();
    ClockMode mode();
    /* Board time moves forward by d (any mode); never backwards. */
    void advance(ns_t d);
    void advance_to(ns_t board_time);
    /* How long the host may block for a span of board time; kNever when
     * only a command moves the clock (step, warp). */
    ns_t host_span(ns_t board_span);

    /* Suspend: the monotonic clock stops, board time goes on. */
    void begin_suspend();
    void end_suspend();

    /* Wall-clock time at board time 0, ns since the Unix epoch. */
    ns_t wall_at_boot();
    void set_wall_at_boot(ns_t wall);

    /* A new board: nothing suspended, the host's wall clock; board time
     * starts at 0 in a new process and carries on in a running one. */
    void reset();
    /* Saved and restored with the board's state. The board carries on where
     * it was saved; in real and scaled mode the host time that passed in
     * between (by the host's wall clock, which survives a reboot) counts. */
    std::string save_text();
    void restore(ns_t board_time, ns_t suspended, ns_t host_wall_at_save);

private:
    ns_t now_locked();
    void reanchor_locked();

    std::mutex mu_;
    ClockMode mode_ = ClockMode::Real;
    double rate_ = 1.0;
    ns_t anchor_board_ = 0;   /* board time at anchor_host_ */
    ns_t anchor_host_ = 0;    /* host monotonic time */
    ns_t suspended_total_ = 0;
    ns_t suspend_start_ = -1; /* board time the current suspend began, -1 = awake */
    ns_t wall_at_boot_ = 0;
};

/* The board's clock. */
Clock& clock();
/* Board time: all model time comes from here. */
inline ns_t now_ns()
{
    return clock().now();
}

/* Host clocks, through the real C library. */
ns_t host_monotonic_ns();
ns_t host_realtime_ns();

/* "10s", "150ms", "2.5s", "20us", "7ns", "3m", "1h"; a plain number is
 * seconds. False for anything else or a negative span. */
bool parse_duration(const std::string& text, ns_t* ns);
/* "2026-11-22T08:30:00Z", or seconds since the epoch. */
bool parse_wall_time(const std::string& text, ns_t* ns);
std::string format_wall_time(ns_t ns);
/* "12.345678" */
std::string format_seconds(ns_t ns);

#ifndef VELASIM_WRAPPER
/* Not for the wrappers, which may see another struct timespec than the
 * rest of the board (sim/CMakeLists.txt). */
struct timespec to_timespec(ns_t ns);
inline ns_t from_timespec(const struct timespec& ts)
{
    return int64_t{ts.tv_sec} * kSec + ts.tv_nsec;
}
#endif

} // namespace sim

#endif

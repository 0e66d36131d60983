#include "clock.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "syscalls.h"

namespace sim {

namespace {

ns_t host_clock(clockid_t id)
{
    struct timespec ts;
    SIM_REAL(clock_gettime)(id, &ts);
    return from_timespec(ts);
}

/* Offset of TAI from UTC since 2017. */
constexpr ns_t kTaiOffset = 37 * kSec;

} // namespace

ns_t host_monotonic_ns()
{
    return host_clock(CLOCK_MONOTONIC);
}

ns_t host_realtime_ns()
{
    return host_clock(CLOCK_REALTIME);
}

Clock& clock()
{
    static Clock c;
    return c;
}

Clock::Clock()
{
    anchor_host_ = host_monotonic_ns();
    wall_at_boot_ = host_realtime_ns();
    reset();
}

/* A new board starts at time 0 with the host's wall clock; a board reset
 * within a running process carries on from where its clocks are, since the
 * process's clocks must never run backwards. */
void Clock::reset()
{
    std::lock_guard<std::mutex> lock(mu_);
    anchor_board_ = now_locked();
    anchor_host_ = host_monotonic_ns();
    ns_t wall = std::max(host_realtime_ns(), anchor_board_ + wall_at_boot_);
    suspended_total_ = 0;
    suspend_start_ = -1;
    wall_at_boot_ = wall - anchor_board_;
}

ns_t Clock::now_locked()
{
    if (mode_ == ClockMode::Step || mode_ == ClockMode::Warp)
        return anchor_board_;
    ns_t elapsed = host_monotonic_ns() - anchor_host_;
    if (elapsed < 0)
        elapsed = 0;
    return anchor_board_ + (mode_ == ClockMode::Real ? elapsed : static_cast<ns_t>(static_cast<double>(elapsed) * rate_));
}

/* Board time stays continuous across a change of mode or rate. */
void Clock::reanchor_locked()
{
    anchor_board_ = now_locked();
    anchor_host_ = host_monotonic_ns();
}

ns_t Clock::now()
{
    std::lock_guard<std::mutex> lock(mu_);
    return now_locked();
}

ns_t Clock::monotonic()
{
    std::lock_guard<std::mutex> lock(mu_);
    ns_t t = now_locked();
    ns_t stopped = suspended_total_ + (suspend_start_ >= 0 ? t - suspend_start_ : 0);
    return t - stopped;
}

ns_t Clock::realtime()
{
    std::lock_guard<std::mutex> lock(mu_);
    return now_locked() + wall_at_boot_;
}

ns_t Clock::suspended_total()
{
    std::lock_guard<std::mutex> lock(mu_);
    return suspended_total_ + (suspend_start_ >= 0 ? now_locked() - suspend_start_ : 0);
}

bool Clock::suspended()
{
    std::lock_guard<std::mutex> lock(mu_);
    return suspend_start_ >= 0;
}

bool Clock::read(clockid_t id, ns_t* value)
{
    switch (id) {
    case CLOCK_MONOTONIC:
    case CLOCK_MONOTONIC_RAW:
    case CLOCK_MONOTONIC_COARSE:
        *value = monotonic();
        return true;
    case CLOCK_BOOTTIME:
    case CLOCK_BOOTTIME_ALARM:
        *value = now();
        return true;
    case CLOCK_REALTIME:
    case CLOCK_REALTIME_COARSE:
    case CLOCK_REALTIME_ALARM:
        *value = realtime();
        return true;
    case CLOCK_TAI:
        *value = realtime() + kTaiOffset;
        return true;
    default:
        return false;
    }
}

ns_t Clock::board_time_of(clockid_t id, ns_t value)
{
    ns_t current = 0;
    if (!read(id, &current))
        return kNever;
    if (current >= value)
        return now();
    bool stops = id == CLOCK_MONOTONIC || id == CLOCK_MONOTONIC_RAW || id == CLOCK_MONOTONIC_COARSE;
    if (stops && suspended())
        return kNever;
    ns_t t = now();
    return value - current > kNever - t ? kNever : t + (value - current);
}

std::string Clock::set_mode(const std::string& text)
{
    ClockMode mode;
    double rate = 1.0;
    if (text == "real") {
        mode = ClockMode::Real;
    } else if (text == "step") {
        mode = ClockMode::Step;
    } else if (text == "warp") {
        mode = ClockMode::Warp;
    } else if (text.compare(0, 7, "scaled ") == 0) {
        char* end = nullptr;
        rate = strtod(text.c_str() + 7, &end);
        if (end == text.c_str() + 7 || *end != '\0' || !std::isfinite(rate) || rate <= 0 || rate > 1e6)
            return "bad rate in '" + text + "' (a number above 0, at most 1e6)";
        mode = rate == 1.0 ? ClockMode::Real : ClockMode::Scaled;
    } else {
        return "bad clock mode '" + text + "' (real, scaled K, step or warp)";
    }
    std::lock_guard<std::mutex> lock(mu_);
    reanchor_locked();
    mode_ = mode;
    rate_ = rate;
    return {};
}

std::string Clock::mode_text()
{
    std::lock_guard<std::mutex> lock(mu_);
    switch (mode_) {
    case ClockMode::Real: return "real";
    case ClockMode::Step: return "step";
    case ClockMode::Warp: return "warp";
    case ClockMode::Scaled: break;
    }
    char buf[40];
    snprintf(buf, sizeof buf, "scaled %g", rate_);
    return buf;
}

ClockMode Clock::mode()
{
    std::lock_guard<std::mutex> lock(mu_);
    return mode_;
}

void Clock::advance(ns_t d)
{
    if (d <= 0)
        return;
    std::lock_guard<std::mutex> lock(mu_);
    reanchor_locked();
    anchor_board_ = d > kNever - anchor_board_ ? kNever - 1 : anchor_board_ + d;
}

void Clock::advance_to(ns_t board_time)
{
    ns_t t = now();
    if (board_time > t)
        advance(board_time - t);
}

ns_t Clock::host_span(ns_t board_span)
{
    std::lock_guard<std::mutex> lock(mu_);
    if (mode_ == ClockMode::Step || mode_ == ClockMode::Warp || board_span == kNever)
        return kNever;
    if (mode_ == ClockMode::Real)
        return board_span;
    /* Rounded up, so that the board's deadline has passed on waking. */
    return static_cast<ns_t>(std::ceil(static_cast<double>(board_span) / rate_));
}

void Clock::begin_suspend()
{
    std::lock_guard<std::mutex> lock(mu_);
    if (suspend_start_ < 0)
        suspend_start_ = now_locked();
}

void Clock::end_suspend()
{
    std::lock_guard<std::mutex> lock(mu_);
    if (suspend_start_ < 0)
        return;
    suspended_total_ += now_locked() - suspend_start_;
    suspend_start_ = -1;
}

ns_t Clock::wall_at_boot()
{
    std::lock_guard<std::mutex> lock(mu_);
    return wall_at_boot_;
}

void Clock::set_wall_at_boot(ns_t wall)
{
    std::lock_guard<std::mutex> lock(mu_);
    wall_at_boot_ = wall;
}

std::string Clock::save_text()
{
    std::lock_guard<std::mutex> lock(mu_);
    ns_t t = now_locked();
    ns_t suspended = suspended_total_ + (suspend_start_ >= 0 ? t - suspend_start_ : 0);
    return "time_ns = " + std::to_string(t) + "\nsuspended_ns = " + std::to_string(suspended) +
           "\nhost_wall_ns = " + std::to_string(host_realtime_ns()) + "\n";
}

void Clock::restore(ns_t board_time, ns_t suspended, ns_t host_wall_at_save)
{
    std::lock_guard<std::mutex> lock(mu_);
    ns_t gone = 0;
    if (mode_ == ClockMode::Real || mode_ == ClockMode::Scaled) {
        /* A host clock set back (or a saved time from the future) counts as
         * no time at all: board time never runs backwards. */
        gone = std::max<ns_t>(0, host_realtime_ns() - host_wall_at_save);
        if (mode_ == ClockMode::Scaled)
            gone = static_cast<ns_t>(std::min(static_cast<double>(gone) * rate_, 1e18));
    }
    anchor_board_ = std::max<ns_t>(0, board_time) + gone;
    anchor_host_ = host_monotonic_ns();
    suspended_total_ = std::clamp<ns_t>(suspended, 0, anchor_board_);
    suspend_start_ = -1;
}

bool parse_duration(const std::string& text, ns_t* ns)
{
    static const struct {
        const char* unit;
        double scale;
    } kUnits[] = {{"ns", 1}, {"us", 1e3}, {"ms", 1e6}, {"s", 1e9}, {"m", 60e9}, {"h", 3600e9}, {"", 1e9}};
    char* end = nullptr;
    double v = strtod(text.c_str(), &end);
    if (end == text.c_str() || !std::isfinite(v) || v < 0)
        return false;
    for (const auto& u : kUnits) {
        if (strcmp(end, u.unit) == 0) {
            double total = v * u.scale;
            if (total > 1e18)
                return false;
            *ns = static_cast<ns_t>(std::llround(total));
            return true;
        }
    }
    return false;
}

/* A fraction of a second is taken to the nanosecond: a board's wall clock
 * saved at exit must come back exactly, or it would run back at restart. */
static bool parse_fraction(const char* text, const char** rest, ns_t* ns)
{
    *ns = 0;
    *rest = text;
    if (*text != '.')
        return true;
    ns_t scale = kSec;
    for (text++; isdigit(static_cast<unsigned char>(*text)); text++) {
        scale /= 10;
        *ns += (*text - '0') * scale;
    }
    *rest = text;
    return scale < kSec;
}

bool parse_wall_time(const std::string& text, ns_t* ns)
{
    const char* rest = nullptr;
    ns_t frac = 0;
    char* end = nullptr;
    long long secs = strtoll(text.c_str(), &end, 10);
    if (end != text.c_str() && parse_fraction(end, &rest, &frac) && *rest == '\0') {
        if (secs < 0 || secs > 4102444800LL) /* 2100-01-01 */
            return false;
        *ns = secs * kSec + frac;
        return true;
    }
    struct tm tm = {};
    const char* after = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &tm);
    if (after == nullptr || !parse_fraction(after, &rest, &frac) || (strcmp(rest, "Z") != 0 && *rest != '\0'))
        return false;
    int64_t t = timegm(&tm);
    if (t < 0 || t > 4102444800LL)
        return false;
    *ns = t * kSec + frac;
    return true;
}

std::string format_wall_time(ns_t ns)
{
    time_t t = static_cast<time_t>(ns / kSec);
    struct tm tm;
    gmtime_r(&t, &tm);
    char buf[40];
    size_t n = strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    if (ns % kSec != 0)
        n += static_cast<size_t>(snprintf(buf + n, sizeof buf - n, ".%09lld", static_cast<long long>(ns % kSec)));
    snprintf(buf + n, sizeof buf - n, "Z");
    return buf;
}

std::string format_seconds(ns_t ns)
{
    char buf[40];
    snprintf(buf, sizeof buf, "%lld.%06lld", static_cast<long long>(ns / kSec),
             static_cast<long long>((ns % kSec) / 1000));
    return buf;
}

struct timespec to_timespec(ns_t ns)
{
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / kSec);
    ts.tv_nsec = static_cast<long>(ns % kSec);
    return ts;
}

} // namespace sim

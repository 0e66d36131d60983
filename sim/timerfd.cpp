/* Timer descriptors. Expirations are counted from the board's clock whenever
 * someone looks; the timers' model tells the wait loop when the next one is
 * due, so that a waiter sleeps exactly until then. */
#include "timerfd.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <sys/timerfd.h>

namespace sim {

namespace {

struct Timer : OpenState {
    explicit Timer(std::set<Timer*>& all, clockid_t c) : all_(all), clock(c) { all_.insert(this); }
    ~Timer() override { all_.erase(this); }

    /* Counts the expirations up to the clock's reading. */
    void fold()
    {
        ns_t now = 0;
        if (!armed || !sim::clock().read(clock, &now) || now < next)
            return;
        uint64_t n = 1 + (interval > 0 ? static_cast<uint64_t>((now - next) / interval) : 0);
        ticks += n;
        if (interval > 0)
            next += static_cast<ns_t>(n) * interval;
        else
            armed = false;
    }

    ns_t remaining()
    {
        ns_t now = 0;
        sim::clock().read(clock, &now);
        return armed ? std::max<ns_t>(0, next - now) : 0;
    }

    std::set<Timer*>& all_;
    clockid_t clock;
    bool armed = false;
    ns_t next = 0;     /* expiry, in the timer's clock */
    ns_t interval = 0;
    uint64_t ticks = 0;
};

Timer& timer_of(OpenFile& of)
{
    return static_cast<Timer&>(*of.state);
}

class TimerNode : public Node {
public:
    TimerNode() : Node("anon_inode:[timerfd]", S_IFREG | 0600) {}

    int64_t read(OpenFile& of, void* buf, size_t n) override
    {
        if (n < sizeof(uint64_t))
            return -EINVAL;
        Timer& t = timer_of(of);
        t.fold();
        if (t.ticks == 0)
            return -EAGAIN;
        memcpy(buf, &t.ticks, sizeof t.ticks);
        t.ticks = 0;
        return sizeof(uint64_t);
    }

    short poll(OpenFile& of) override
    {
        Timer& t = timer_of(of);
        t.fold();
        return t.ticks > 0 ? POLLIN | POLLRDNORM : 0;
    }

    int64_t seek(OpenFile&, int64_t, int) override { return -ESPIPE; }
};

class Timers : public Model {
public:
    TimerNode node;
    std::set<Timer*> all;

    void advance(ns_t) override
    {
        for (Timer* t : all)
            t->fold();
    }

    ns_t next_event(ns_t) override
    {
        ns_t next = kNever;
        for (Timer* t : all) {
            if (t->armed)
                next = std::min(next, clock().board_time_of(t->clock, t->next));
        }
        return next;
    }
};

Timers* g_timers = nullptr;

bool known_clock(clockid_t c)
{
    return c == CLOCK_REALTIME || c == CLOCK_MONOTONIC || c == CLOCK_BOOTTIME || c == CLOCK_REALTIME_ALARM ||
           c == CLOCK_BOOTTIME_ALARM;
}

} // namespace

void add_timers(Board& board)
{
    g_timers = board.adopt(std::make_unique<Timers>());
}

int timer_create(Board& board, clockid_t clock, int flags)
{
    if (!known_clock(clock) || (flags & ~(TFD_NONBLOCK | TFD_CLOEXEC)) != 0)
        return -EINVAL;
    auto of = std::make_shared<OpenFile>();
    of->node = &g_timers->node;
    of->flags = O_RDWR | ((flags & TFD_NONBLOCK) ? O_NONBLOCK : 0);
    of->state = std::make_unique<Timer>(g_timers->all, clock);
    return board.install(of, 0, (flags & TFD_CLOEXEC) != 0);
}

int timer_settime(OpenFile& of, int flags, ns_t value, ns_t interval, ns_t* old_value, ns_t* old_interval)
{
    if (of.node != &g_timers->node)
        return -EINVAL;
    if ((flags & ~(TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET)) != 0 || value < 0 || interval < 0)
        return -EINVAL;
    Timer& t = timer_of(of);
    t.fold();
    if (old_value != nullptr)
        *old_value = t.remaining();
    if (old_interval != nullptr)
        *old_interval = t.interval;
    ns_t now = 0;
    clock().read(t.clock, &now);
    t.ticks = 0;
    t.armed = value != 0;
    t.next = (flags & TFD_TIMER_ABSTIME) ? value : now + value;
    t.interval = interval;
    return 0;
}

int timer_gettime(OpenFile& of, ns_t* value, ns_t* interval)
{
    if (of.node != &g_timers->node)
        return -EINVAL;
    Timer& t = timer_of(of);
    t.fold();
    *value = t.remaining();
    *interval = t.interval;
    return 0;
}

} // namespace sim

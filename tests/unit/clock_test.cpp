/* The board's clock: its modes, the program's clocks, timer descriptors,
 * waits in board time, suspend and the RTC alarm. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <linux/rtc.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "client_pair.h"
#include "clock.h"
#include "simtest.h"

using testing::HasSubstr;

namespace {

constexpr int64_t kMs = 1000000;
constexpr int64_t kSec = 1000000000;

int64_t read_clock(clockid_t id)
{
    struct timespec ts;
    EXPECT_EQ(0, clock_gettime(id, &ts));
    return int64_t{ts.tv_sec} * kSec + ts.tv_nsec;
}

int timer(int64_t first_ns, int64_t period_ns, int flags = 0, clockid_t id = CLOCK_MONOTONIC)
{
    int fd = timerfd_create(id, TFD_NONBLOCK | TFD_CLOEXEC);
    EXPECT_GE(fd, 0);
    struct itimerspec its = {{static_cast<time_t>(period_ns / kSec), static_cast<long>(period_ns % kSec)},
                             {static_cast<time_t>(first_ns / kSec), static_cast<long>(first_ns % kSec)}};
    EXPECT_EQ(0, timerfd_settime(fd, flags, &its, nullptr));
    return fd;
}

/* Expirations read from a timer descriptor, 0 for EAGAIN. */
uint64_t expirations(int fd)
{
    uint64_t n = 0;
    ssize_t r = read(fd, &n, sizeof n);
    return r == sizeof n ? n : 0;
}

class Clock : public vt::SimTest {};

TEST_F(Clock, ModesDecideHowBoardTimePasses)
{
    /* step: only a command moves it, exactly. */
    ASSERT_TRUE(sim::clock_mode("step"));
    int64_t t0 = sim::board_ns();
    usleep(0);
    EXPECT_EQ(t0, sim::board_ns());
    EXPECT_THAT(sim::control("clock advance 1.5s"), testing::EndsWith("\nok\n"));
    EXPECT_EQ(t0 + 1500 * kMs, sim::board_ns());

    /* warp: a sleep with nothing real to wait for takes no host time and
     * exactly its own length of board time. */
    ASSERT_TRUE(sim::clock_mode("warp"));
    int64_t host0 = sim::host_monotonic_ns();
    t0 = sim::board_ns();
    EXPECT_EQ(0u, sleep(3600));
    EXPECT_EQ(t0 + 3600 * kSec, sim::board_ns());
    EXPECT_LT(sim::host_monotonic_ns() - host0, 5 * kSec);
}

TEST_F(Clock, TheProgramsClocksDeriveFromBoardTime)
{
    /* Kept to the nanosecond, as the board's saved state holds it. */
    ASSERT_EQ("", sim::reset("[clock]\nmode = step\nwall_at_boot = 2026-11-22T08:00:00.000000250Z\n"));
    EXPECT_EQ("2026-11-22T08:00:00.000000250Z", sim::get("clock.wall_at_boot"));
    int64_t boot = sim::board_ns();
    sim::advance_clock(90 * kSec);
    EXPECT_EQ(boot + 90 * kSec, read_clock(CLOCK_BOOTTIME));
    EXPECT_EQ(boot + 90 * kSec, read_clock(CLOCK_MONOTONIC));
    EXPECT_EQ(read_clock(CLOCK_MONOTONIC), read_clock(CLOCK_MONOTONIC_RAW));
    int64_t wall = read_clock(CLOCK_REALTIME);
    EXPECT_EQ(1795334400LL * kSec + 250 + boot + 90 * kSec, wall);
    struct timeval tv;
    ASSERT_EQ(0, gettimeofday(&tv, nullptr));
    EXPECT_EQ(wall / kSec, tv.tv_sec);
    EXPECT_EQ(wall / kSec, time(nullptr));
}

TEST_F(Clock, TimerDescriptorsFollowTheKernel)
{
    ASSERT_TRUE(sim::clock_mode("step"));
    /* Periodic: ten expirations of 100 ms in one second, counted once. */
    int periodic = timer(100 * kMs, 100 * kMs);
    EXPECT_EQ(0u, expirations(periodic));
    EXPECT_EQ(EAGAIN, errno);
    sim::advance_clock(kSec);
    EXPECT_EQ(10u, expirations(periodic));
    EXPECT_EQ(0u, expirations(periodic));

    /* One-shot, absolute: fires once at its time, then reads as disarmed. */
    int64_t at = read_clock(CLOCK_MONOTONIC) + 2 * kSec;
    int once = timer(at, 0, TFD_TIMER_ABSTIME);
    sim::advance_clock(2 * kSec - 1);
    EXPECT_EQ(0u, expirations(once));
    sim::advance_clock(1);
    EXPECT_EQ(1u, expirations(once));
    sim::advance_clock(10 * kSec);
    EXPECT_EQ(0u, expirations(once));

    /* A zero value disarms. */
    struct itimerspec zero = {};
    EXPECT_EQ(0, timerfd_settime(periodic, 0, &zero, nullptr));
    sim::advance_clock(kSec);
    EXPECT_EQ(0u, expirations(periodic));
    close(periodic);
    close(once);
}

TEST_F(Clock, SelectWakesForWhicheverComesFirst)
{
    ASSERT_TRUE(sim::clock_mode("warp"));
    vt::ClientPair sv;
    int t = timer(5 * kSec, 0);
    auto wait = [&](fd_set* rd) {
        FD_ZERO(rd);
        FD_SET(sv[0], rd);
        FD_SET(t, rd);
        struct timeval tv = {60, 0};
        return select(std::max(sv[0], t) + 1, rd, nullptr, nullptr, &tv);
    };
    fd_set rd;
    int64_t t0 = sim::board_ns();
    /* Nothing real is ready: board time jumps to the timer. */
    ASSERT_EQ(1, wait(&rd));
    EXPECT_TRUE(FD_ISSET(t, &rd));
    EXPECT_FALSE(FD_ISSET(sv[0], &rd));
    EXPECT_EQ(t0 + 5 * kSec, sim::board_ns());
    EXPECT_EQ(1u, expirations(t));

    /* The socket has data: it wins, and board time does not move. */
    close(t);
    t = timer(5 * kSec, 0);
    ASSERT_EQ(1, write(sv[1], "x", 1));
    t0 = sim::board_ns();
    ASSERT_EQ(1, wait(&rd));
    EXPECT_TRUE(FD_ISSET(sv[0], &rd));
    EXPECT_EQ(t0, sim::board_ns());

    /* Neither: the select's own time-out. */
    char c;
    ASSERT_EQ(1, read(sv[0], &c, 1));
    struct itimerspec zero = {};
    timerfd_settime(t, 0, &zero, nullptr);
    ASSERT_EQ(0, wait(&rd));
    EXPECT_EQ(t0 + 60 * kSec, sim::board_ns());
    close(t);
}

/* The calendar fields that struct rtc_time shares with struct tm. */
template <class To, class From> To calendar(const From& from)
{
    To to = {};
    to.tm_sec = from.tm_sec;
    to.tm_min = from.tm_min;
    to.tm_hour = from.tm_hour;
    to.tm_mday = from.tm_mday;
    to.tm_mon = from.tm_mon;
    to.tm_year = from.tm_year;
    return to;
}

int64_t rtc_seconds()
{
    int rtc = open("/dev/rtc0", O_RDONLY);
    struct rtc_time now = {};
    EXPECT_EQ(0, ioctl(rtc, RTC_RD_TIME, &now));
    close(rtc);
    struct tm tm = calendar<struct tm>(now);
    return timegm(&tm);
}

/* The alarm is armed the way the program does it: the RTC's time, some
 * seconds on, enabled. */
void arm_alarm(int seconds)
{
    time_t t = static_cast<time_t>(rtc_seconds() + seconds);
    struct tm tm;
    gmtime_r(&t, &tm);
    struct rtc_wkalrm alarm = {};
    alarm.enabled = 1;
    alarm.time = calendar<struct rtc_time>(tm);
    int rtc = open("/dev/rtc0", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, ioctl(rtc, RTC_WKALM_SET, &alarm));
    close(rtc);
}

TEST_F(Clock, SuspendStopsTheMonotonicClockUntilTheAlarm)
{
    ASSERT_EQ("", sim::reset("[clock]\nmode = warp\n[rtc]\noffset_s = -3600\n"));
    int64_t mono = read_clock(CLOCK_MONOTONIC), wall = read_clock(CLOCK_REALTIME), rtc = rtc_seconds();
    EXPECT_NEAR(wall / kSec - 3600, rtc, 1);
    arm_alarm(30);
    int fd = open("/sys/power/state", O_WRONLY);
    ASSERT_GE(fd, 0);
    /* Returns after the resume; its journal is checked with the program's suspend. */
    ASSERT_EQ(3, write(fd, "mem", 3));
    EXPECT_EQ(mono, read_clock(CLOCK_MONOTONIC));
    EXPECT_NEAR(30, (read_clock(CLOCK_REALTIME) - wall) / kSec, 1);
    EXPECT_NEAR(30, rtc_seconds() - rtc, 1);
    EXPECT_NEAR(30, std::stod(sim::get("clock.suspended_s")), 1);
    EXPECT_THAT(sim::get("rtc.alarm"), HasSubstr("disabled pending"));
    close(fd);
}

} // namespace

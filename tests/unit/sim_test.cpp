/* The simulated board itself, where a fault would mislead every other test. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include "board.h"
#include "gpio.h"
#include "process.h"
#include "simtest.h"
#include "sysfs.h"
#include "tempdir.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

const char kValue[] = "/sys/class/gpio/vg_anf/value";
const char kEdge[] = "/sys/class/gpio/vg_anf/edge";

short pending(int fd)
{
    struct pollfd p = {fd, POLLPRI, 0};
    EXPECT_GE(poll(&p, 1, 0), 0);
    return p.revents;
}

bool select_exception(int fd)
{
    fd_set ex;
    FD_ZERO(&ex);
    FD_SET(fd, &ex);
    struct timeval tv = {0, 0};
    return select(fd + 1, nullptr, nullptr, &ex, &tv) == 1 && FD_ISSET(fd, &ex);
}

void reread(int fd)
{
    char c[2];
    lseek(fd, 0, SEEK_SET);
    EXPECT_EQ(2, read(fd, c, sizeof c));
}

class Board : public vt::SimTest {};

TEST_F(Board, GpioEdgesFollowTheKernelsRules)
{
    int fd = open(kValue, O_RDONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    /* Never read: an event is pending at once, in poll and in select. */
    EXPECT_EQ(POLLPRI | POLLERR, pending(fd));
    EXPECT_TRUE(select_exception(fd));
    reread(fd);
    EXPECT_EQ(0, pending(fd));

    /* Not armed: a change of level announces nothing. */
    sim::set("drive.position_mm", "0");
    EXPECT_EQ(0, pending(fd));
    /* Armed for falling: the rise is quiet, the fall is announced until the
     * file is read again from the start. */
    ASSERT_EQ(0, sysfs_write_string(kEdge, "falling"));
    sim::set("drive.position_mm", "1");
    EXPECT_EQ(0, pending(fd));
    sim::set("drive.position_mm", "0");
    EXPECT_EQ(POLLPRI | POLLERR, pending(fd));
    EXPECT_TRUE(select_exception(fd));
    char c;
    lseek(fd, 1, SEEK_SET);
    EXPECT_EQ(1, read(fd, &c, 1)); /* a read past offset 0 does not clear it */
    EXPECT_EQ('\n', c);
    EXPECT_EQ(POLLPRI | POLLERR, pending(fd));
    reread(fd);
    EXPECT_EQ(0, pending(fd));
    EXPECT_FALSE(select_exception(fd));
    close(fd);
}

TEST_F(Board, ControlCommandsScenariosAndSimulatedCommands)
{
    EXPECT_EQ("3\nok\n", sim::control("get drive.position_mm"));
    EXPECT_EQ("ok\n", sim::control("set drive.position_mm 7.5"));
    EXPECT_EQ("7.5\nok\n", sim::control("get drive.position_mm"));
    EXPECT_THAT(sim::control("set drive.velocity_mm_s 1"), HasSubstr("read-only"));
    EXPECT_THAT(sim::control("fault /dev/i2c-1@0x60 write ENOPE"), HasSubstr("error: unknown errno"));
    EXPECT_THAT(sim::control("frobnicate"), HasSubstr("error: bad command"));
    EXPECT_THAT(sim::reset("[drive]\nbogus = 1\n"), HasSubstr("line 2: unknown key 'drive.bogus'"));
    EXPECT_EQ("", sim::reset("command = 3 hwclock\n[drive]\nposition_mm = 0 # at home\n"));
    EXPECT_EQ("1", sim::get("drive.at_home"));

    EXPECT_EQ(3 << 8, system("hwclock -w"));
    EXPECT_EQ(0, system("sh ./mass_storage.sh on"));
    EXPECT_THAT(sim::journal_entries(), ElementsAre("system \"hwclock -w\" 3", "system \"sh ./mass_storage.sh on\" 0"));
}

TEST_F(Board, RtcTimeIsReadAsText)
{
    char buf[32];
    ASSERT_EQ(0, query_rtc_time(buf, sizeof buf));
    ASSERT_EQ(8u, strlen(buf)); /* "hh:mm:ss", the line feed stripped */
    EXPECT_EQ(':', buf[2]);
    EXPECT_EQ(':', buf[5]);
    ASSERT_EQ(0, query_rtc_time(buf, 2)); /* one byte: left as it is */
    EXPECT_EQ(1u, strlen(buf));

    sim::control("absent /sys/class/rtc/rtc1/time");
    CaptureStderr();
    EXPECT_EQ(-1, query_rtc_time(buf, sizeof buf));
    EXPECT_EQ("ERROR: cannot open /sys/class/rtc/rtc1/time (errno=2)", GetCapturedStderr());
}

TEST_F(Board, TheDriveMovesInBoardTimeAndTheEndSwitchFollowsAtOnce)
{
    ASSERT_TRUE(sim::clock_mode("step"));
    int fd = open(kValue, O_RDONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, sysfs_write_string(kEdge, "both"));
    sim::set("drive.position_mm", "0");
    sim::advance();
    reread(fd);
    sim::set("motor.power", "1");
    sim::set("motor.dac", std::to_string(2082 + 890)); /* 1 mm/s away from home */
    sim::advance_clock(100 * 1000000);
    EXPECT_EQ("0.1", sim::get("drive.position_mm"));
    EXPECT_EQ(POLLPRI | POLLERR, pending(fd)); /* it left the switch */
    reread(fd);
    sim::set("motor.dac", "0"); /* full speed home */
    sim::advance_clock(1000000000);
    EXPECT_EQ("1", sim::get("drive.at_home"));
    EXPECT_EQ(POLLPRI | POLLERR, pending(fd)); /* and arrived */
    close(fd);
    sim::set("drive.position_mm", "19.95");
    sim::set("motor.dac", std::to_string(2082 + 890)); /* into the far end of the travel */
    sim::advance_clock(100 * 1000000);
    EXPECT_EQ("20", sim::get("drive.position_mm"));
    EXPECT_EQ(0.0, std::stod(sim::get("drive.velocity_mm_s"))); /* it stands there */
}

TEST_F(Board, ChildProcessesStayOutOfTheBoard)
{
    std::string dir = sim::sandbox();
    /* A forked child that exits runs the exit handlers of its copy of the
     * board: they must leave the parent's board alone. */
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
        exit(open(kValue, O_RDONLY) >= 0 ? 3 : 0); /* the host has no such file */
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_TRUE(vt::file_exists(dir + "/lock"));

    /* An exec'd child with the board preloaded finds the board held by its
     * parent and stays out of it, quietly. (The child is the host's shell,
     * which cannot load a board built for another machine.) */
#ifndef VELA_EMULATOR
    vt::ProcessOptions opts;
    opts.env = {"VELASIM_DIR=" + dir, std::string("LD_PRELOAD=") + VELASIM_PRELOAD};
    vt::ProcessResult r =
        vt::run_process({"/bin/sh", "-c", "test -e /sys/class/gpio/vg_anf/value || echo outside"}, opts);
    EXPECT_EQ("outside\n", r.out);
    EXPECT_EQ("", r.err);
    EXPECT_EQ(std::to_string(getpid()) + "\n", vt::read_file(dir + "/lock"));
#endif
    int fd = open(kValue, O_RDONLY);
    EXPECT_GE(fd, 0); /* and the board still works */
    close(fd);
}

/* A board descriptor closed where the board cannot see it (fclose of an
 * fdopen'ed stream closes inside the C library) must not make the next
 * descriptor with that number a device. */
TEST_F(Board, ADescriptorClosedBehindTheBoardsBackIsForgotten)
{
    int fd = open("/sys/class/gpio/motor_power/value", O_WRONLY);
    ASSERT_GE(fd, 0);
    fclose(fdopen(fd, "w"));
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    int same = sv[0] == fd ? sv[0] : sv[1] == fd ? sv[1] : -1;
    ASSERT_NE(-1, same) << "the socket did not get the number back";
    int other = same == sv[0] ? sv[1] : sv[0];
    EXPECT_EQ(2, write(same, "1\n", 2));
    char buf[4] = {};
    EXPECT_EQ(2, read(other, buf, sizeof buf));
    EXPECT_STREQ("1\n", buf);
    EXPECT_TRUE(vt::entries("motor_power").empty());
    EXPECT_EQ("0", sim::get("motor.power"));
    close(sv[0]);
    close(sv[1]);
}

/* Every path of the platform is the board's: a node, or absent, never the
 * host's file. */
TEST_F(Board, ThePlatformsPathsNeverReachTheHost)
{
    for (const char* p : {"/sys/devices/leds.4/leds/vela:green:run/trigger", "/sys/power/state",
                          "/sys/class/backlight/tps65217-bl/brightness", "/dev/input/event1", "/dev/fb0",
                          "/sys/devices/system/cpu/cpu0/cpufreq/scaling_max_freq", "/dev/mtd0"}) {
        struct stat st;
        int r = stat(p, &st);
        EXPECT_TRUE(r == 0 || errno == ENOENT) << p;
        EXPECT_TRUE(r != 0 || st.st_dev == makedev(0, 0x5e)) << p << " is the host's";
    }
}

} // namespace

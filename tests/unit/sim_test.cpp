/* The simulated board itself, where a fault would mislead every other test. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
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

    /* The edge file takes the four words only; inputs refuse values. */
    EXPECT_EQ(-1, sysfs_write_string(kEdge, "up"));
    EXPECT_EQ(0, sysfs_write_string(kEdge, "both\n"));
    EXPECT_EQ("both", sim::get("gpio.vg_anf.edge"));
    EXPECT_EQ(-1, sysfs_write_valid_int(kValue, 0, 1, 1));
    EXPECT_THAT(vt::entries("vg_anf"), ElementsAre(std::string(kEdge) + " write falling",
                                                   std::string(kEdge) + " write up -> EINVAL",
                                                   std::string(kEdge) + " write both\\n",
                                                   std::string(kValue) + " write 1 -> EPERM"));
    close(fd);
}

TEST_F(Board, DescriptorTableFollowsDupAndClose)
{
    int fd = open(kValue, O_RDONLY);
    ASSERT_GE(fd, 0);
    int copy = dup(fd);
    ASSERT_GE(copy, 0);
    char c;
    EXPECT_EQ(1, read(fd, &c, 1));
    EXPECT_EQ('1', c);
    EXPECT_EQ(0, close(fd));
    EXPECT_EQ(1, lseek(copy, 0, SEEK_CUR)); /* one open file, one offset */
    EXPECT_EQ(1, read(copy, &c, 1));
    EXPECT_EQ('\n', c);
    EXPECT_EQ(0, close(copy));
    EXPECT_EQ(-1, read(copy, &c, 1));
    EXPECT_EQ(EBADF, errno);

    /* A plain file that gets the same number afterwards is not the board's. */
    vt::TempDir dir;
    vt::write_file(dir.file("plain"), "plain text");
    int plain = open(dir.file("plain").c_str(), O_RDONLY);
    ASSERT_GE(plain, 0);
    char buf[16] = {};
    EXPECT_EQ(10, read(plain, buf, sizeof buf));
    EXPECT_STREQ("plain text", buf);
    close(plain);

    /* Devices refuse what the kernel refuses. */
    EXPECT_EQ(-1, open("/sys/class/gpio/vg_anf/direction", O_WRONLY));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(-1, open("/sys/class/gpio/nonexistent/value", O_RDONLY));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(Board, UnrelatedPathsPassThroughAndRedirectedOnesStayInTheSandbox)
{
    int null = open("/dev/null", O_WRONLY);
    ASSERT_GE(null, 0);
    EXPECT_EQ(3, write(null, "abc", 3));
    close(null);
    struct stat st;
    EXPECT_EQ(0, stat("/dev/null", &st));
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(0, stat("/dev/i2c-1", &st));
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(0, stat("/sys/class/gpio/vg_anf", &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));

    ASSERT_EQ(0, mkdir("/var/opt/Orvik", 0755));
    FILE* f = fopen("/var/opt//Orvik/x.ini", "w");
    ASSERT_NE(nullptr, f);
    fputs("[a]\n", f);
    fclose(f);
    EXPECT_EQ("[a]\n", vt::read_file(sim::sandbox() + "/fs/var/opt/Orvik/x.ini"));
    EXPECT_EQ(0, access("/var/opt/Orvik/x.ini", R_OK));
    EXPECT_EQ(0, unlink("/var/opt/Orvik/x.ini"));
    EXPECT_EQ(-1, access("/var/opt/Orvik/x.ini", F_OK));
}

TEST_F(Board, I2cNeedsAnAddressThatAnswers)
{
    int fd = open("/dev/i2c-1", O_RDWR);
    ASSERT_GE(fd, 0);
    unsigned char data[2] = {0x08, 0x22};
    EXPECT_EQ(-1, write(fd, data, 2)); /* no I2C_SLAVE yet */
    EXPECT_EQ(EREMOTEIO, errno); /* i2c-omap reports a NACK so */
    ASSERT_EQ(0, ioctl(fd, I2C_SLAVE, 0x51));
    EXPECT_EQ(-1, write(fd, data, 2));
    EXPECT_EQ(EREMOTEIO, errno); /* i2c-omap reports a NACK so */
    EXPECT_EQ(-1, ioctl(fd, I2C_SLAVE, 0x80));
    ASSERT_EQ(0, ioctl(fd, I2C_SLAVE, 0x60));
    EXPECT_EQ(2, write(fd, data, 2));
    unsigned char reg[5];
    EXPECT_EQ(5, read(fd, reg, 5));
    EXPECT_EQ(0x82, reg[1]);
    EXPECT_EQ(0x20, reg[2]);
    close(fd);
    EXPECT_THAT(sim::journal_entries(),
                ElementsAre("/dev/i2c-1@0x00 write 08 22 -> EREMOTEIO", "/dev/i2c-1@0x51 write 08 22 -> EREMOTEIO",
                            "/dev/i2c-1@0x60 write 08 22", "/dev/i2c-1@0x60 read c0 82 20 08 22"));
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
    sim::control("absent /sys/class/rtc/rtc1/time 0");
    sim::fault("/sys/class/rtc/rtc1/time", "read", EIO, 1);
    CaptureStderr();
    EXPECT_EQ(-1, query_rtc_time(buf, sizeof buf));
    EXPECT_EQ("ERROR: reading /sys/class/rtc/rtc1/time failed or incomplete (errno=5)\n", GetCapturedStderr());
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

/* A model reports each change of a line as it happens: a pulse that is over
 * before the program looks again still leaves its edge. */
TEST_F(Board, APulseBetweenTwoLooksIsSeen)
{
    static sim::GpioLine* line = sim::GpioLine::input(sim::Board::get(), "pulse_test");
    const std::string value = "/sys/class/gpio/pulse_test/value";
    ASSERT_EQ(0, sysfs_write_string("/sys/class/gpio/pulse_test/edge", "rising"));
    int fd = open(value.c_str(), O_RDONLY);
    reread(fd);
    line->drive(1);
    line->drive(0);
    EXPECT_EQ(POLLPRI | POLLERR, pending(fd));
    reread(fd);
    line->drive(0); /* no change, no edge */
    EXPECT_EQ(0, pending(fd));
    close(fd);
}

/* A program that waits on board descriptors with nothing due sleeps through
 * on the host: one wake-up, for its own time-out. */
TEST_F(Board, AWaitWithNothingDueWakesOnlyForItsTimeOut)
{
    int fd = open(kValue, O_RDONLY);
    reread(fd);
    uint64_t before = std::stoull(sim::get("board.wakeups"));
    fd_set ex;
    FD_ZERO(&ex);
    FD_SET(fd, &ex);
    struct timeval tv = {0, 50000};
    EXPECT_EQ(0, select(fd + 1, nullptr, nullptr, &ex, &tv));
    EXPECT_EQ(before + 1, std::stoull(sim::get("board.wakeups")));
    close(fd);
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

TEST_F(Board, VectoredPositionedAndNonBlockingCallsReachTheDevice)
{
    /* pread from offset 0 clears a pending edge, as a read from 0 does. */
    int fd = open(kValue, O_RDONLY);
    char c[2];
    EXPECT_EQ(POLLPRI | POLLERR, pending(fd));
    EXPECT_EQ(2, pread(fd, c, sizeof c, 0));
    EXPECT_EQ(0, pending(fd));
    EXPECT_EQ(0, lseek(fd, 0, SEEK_CUR));
    char a, b;
    struct iovec iov[2] = {{&a, 1}, {&b, 1}};
    EXPECT_EQ(2, readv(fd, iov, 2));
    EXPECT_EQ('1', a);
    EXPECT_EQ('\n', b);
    close(fd);

    /* writev is one store, as sysfs takes it. */
    fd = open(kEdge, O_WRONLY);
    struct iovec parts[2] = {{const_cast<char*>("ris"), 3}, {const_cast<char*>("ing\n"), 4}};
    EXPECT_EQ(7, writev(fd, parts, 2));
    EXPECT_EQ(-1, pwrite(fd, "x", 1, 0));
    EXPECT_EQ(EINVAL, errno);
    close(fd);
    EXPECT_THAT(vt::entries("edge"),
                ElementsAre(std::string(kEdge) + " write rising\\n", std::string(kEdge) + " write x -> EINVAL"));

    /* O_NONBLOCK reaches the pty behind the opto port. */
    fd = open("/dev/ttyO1", O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, fcntl(fd, F_SETFL, O_NONBLOCK));
    std::string info = vt::read_file("/proc/self/fdinfo/" + std::to_string(fd));
    long flags = strtol(info.substr(info.find("flags:") + 6).c_str(), nullptr, 8);
    EXPECT_TRUE(flags & O_NONBLOCK) << info;
    close(fd);
}

/* The text of an attribute is made once, at the read from offset 0: a
 * reader that takes it a byte at a time never mixes two readings. */
TEST_F(Board, AnAttributeIsReadFromOneSnapshot)
{
    ASSERT_TRUE(sim::clock_mode("step"));
    int fd = open("/sys/class/rtc/rtc1/time", O_RDONLY);
    std::string first(5, '\0'), rest(4, '\0');
    ASSERT_EQ(5, read(fd, first.data(), 5)); /* "hh:mm" */
    sim::advance_clock(60LL * 1000000000);
    ASSERT_EQ(4, read(fd, rest.data(), 4)); /* ":ss\n" of the same reading */
    lseek(fd, 0, SEEK_SET);
    std::string again(9, '\0');
    ASSERT_EQ(9, read(fd, again.data(), 9));
    EXPECT_NE(first + rest, again);
    EXPECT_EQ(again.substr(6, 2), rest.substr(1, 2)); /* a minute later, the same second */
    close(fd);
}

TEST_F(Board, ScenarioValuesAndFaultsMustMakeSense)
{
    EXPECT_THAT(sim::reset("[battery]\nvoltage = nan\n"), HasSubstr("bad value 'nan' for 'battery.voltage'"));
    EXPECT_THAT(sim::reset("[drive]\ntravel_mm = -1\n"), HasSubstr("bad value '-1'"));
    EXPECT_THAT(sim::reset("[motor]\ndac = 99999999999\n"), HasSubstr("bad value"));
    EXPECT_THAT(sim::reset("[workpiece]\nprofile = 0:1 inf:2\n"), HasSubstr("bad value"));
    EXPECT_EQ("", sim::reset());
    EXPECT_THAT(sim::control("fault /dev/i2c-1@0x61 write EIO"), HasSubstr("error: no device '/dev/i2c-1@0x61'"));
    EXPECT_THAT(sim::control("fault /dev/i2c-1@0x60 ioctl EIO"), HasSubstr("has no operation 'ioctl' (read, write)"));
    EXPECT_THAT(sim::control("fault /sys/class/gpio/vg_anf/valu read EIO"), HasSubstr("error: no device"));
    EXPECT_THAT(sim::control("fault /dev/rtc0 ioctl:RTC_BOGUS EIO"), HasSubstr("error: unknown ioctl"));
    EXPECT_THAT(sim::control("absent /dev/i2c-7"), HasSubstr("error: '/dev/i2c-7' is no device"));
    EXPECT_EQ("ok\n", sim::control("absent /sys/class/gpio/vg_anf"));
    EXPECT_EQ("ok\n", sim::control("fault /dev/i2c-1@0x60 write EREMOTEIO always"));
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

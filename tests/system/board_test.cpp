/* The launcher and a running board, seen from outside: one program per board
 * directory, the control face, suspend, and files that survive a kill. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <sstream>
#include <unistd.h>

#include "simrun.h"

using testing::HasSubstr;

namespace {

/* These run host programs (sleep, sh) under the board: a board built for
 * another machine cannot be loaded into them. */
#ifdef VELA_EMULATOR
#define SKIP_WITH_HOST_PROGRAMS() GTEST_SKIP() << "host programs cannot carry a board built for another machine"
#else
#define SKIP_WITH_HOST_PROGRAMS() (void)0
#endif

/* Any program under the launcher carries the board: a sleeping one serves
 * its control face and holds the board directory. */
TEST(Launcher, OneProgramPerBoardDirectoryWhichCtlControls)
{
    SKIP_WITH_HOST_PROGRAMS();
    vt::TempDir tmp;
    std::string dir = tmp.file("board");
    vt::ChildProcess first;
    ASSERT_TRUE(first.start(vt::under_board(dir, {"/bin/sleep", "30"})));
    ASSERT_TRUE(vt::eventually([&] { return vt::file_exists(dir + "/control.sock"); }));
    vt::ProcessResult r = vt::run_process(vt::under_board(dir, {VELATOOL_PATH, "-a"}));
    EXPECT_EQ(2, r.status);
    EXPECT_THAT(r.err, HasSubstr("velasim: the board in " + dir + " is in use by process " +
                                 std::to_string(first.pid())));

    EXPECT_EQ("3\n", vt::board_ctl(dir, {"get", "drive.position_mm"}).out);
    EXPECT_EQ(0, vt::board_ctl(dir, {"set", "drive.position_mm", "1.5"}).status);
    EXPECT_EQ("1.5\n", vt::board_ctl(dir, {"get", "drive.position_mm"}).out);
    r = vt::board_ctl(dir, {"set", "nonsense", "1"});
    EXPECT_EQ(1, r.status);
    EXPECT_THAT(r.err, HasSubstr("unknown key 'nonsense'"));
    EXPECT_THAT(vt::board_ctl(dir, {"help"}).out, HasSubstr("journal-clear"));

    first.signal(SIGTERM);
    first.wait(10000);
    EXPECT_EQ(2, vt::board_ctl(dir, {"state"}).status); /* nobody left to answer */
    EXPECT_EQ(0, vt::run_process(vt::under_board(dir, {VELATOOL_PATH, "-a"})).status);
}

TEST(Launcher, CtlGivesUpOnABoardThatDoesNotAnswer)
{
    SKIP_WITH_HOST_PROGRAMS();
    vt::TempDir tmp;
    std::string dir = tmp.file("board");
    vt::ChildProcess stopped;
    ASSERT_TRUE(stopped.start(vt::under_board(dir, {"/bin/sh", "-c", "kill -STOP $$"})));
    /* Stopped, which is after the board listens (the socket file alone
     * appears at bind, before the listen). */
    ASSERT_TRUE(vt::eventually([&] {
        std::string stat = vt::read_file("/proc/" + std::to_string(stopped.pid()) + "/stat");
        size_t end = stat.rfind(')');
        return end != std::string::npos && stat.compare(end + 2, 1, "T") == 0;
    }));
    vt::ProcessResult r = vt::run_process({VELASIM_PATH, "ctl", "--dir", dir, "--timeout", "0.3", "state"});
    EXPECT_EQ(2, r.status);
    EXPECT_THAT(r.err, HasSubstr("did not answer within 300 ms"));
    stopped.signal(SIGKILL);
    stopped.wait(10000);
}

/* A suspended program sleeps until a wake-up source fires; in step mode its
 * board time moves only by command, and the monotonic clock not at all. */
TEST(Launcher, ASuspendEndsOnAWakeUpFromTheControlFace)
{
    SKIP_WITH_HOST_PROGRAMS();
    vt::TempDir tmp;
    std::string dir = tmp.file("board");
    vt::ChildProcess sleeper;
    ASSERT_TRUE(sleeper.start(
        vt::under_board(dir, {"/bin/sh", "-c", "echo mem > /sys/power/state && echo resumed"}, "", "step")));
    ASSERT_TRUE(vt::eventually([&] { return vt::grep(vt::journal_in(dir), "power suspend").size() == 1; }));
    EXPECT_EQ(0, vt::board_ctl(dir, {"clock", "advance", "90s"}).status);
    EXPECT_THAT(vt::board_ctl(dir, {"clock"}).out, HasSubstr("\nsuspended = 90.000000\n"));
    EXPECT_EQ(1, vt::board_ctl(dir, {"wake", "button", "twice"}).status);
    EXPECT_EQ(0, vt::board_ctl(dir, {"wake", "button"}).status);
    ASSERT_TRUE(sleeper.wait(20000));
    EXPECT_EQ(0, sleeper.status());
    EXPECT_EQ("resumed\n", sleeper.out());
    EXPECT_EQ(1u, vt::grep(vt::journal_in(dir), "power resume button").size());
    std::string state = vt::read_file(dir + "/state");
    EXPECT_THAT(state, HasSubstr("suspended_ns = 90000000000\n"));
}

/* The backing files of the board are replaced whole: a program killed in
 * the middle of a write to the RTC's RAM leaves the old bytes or the new. */
TEST(Launcher, TheRtcRamSurvivesAKillInTheMiddleOfAWrite)
{
    SKIP_WITH_HOST_PROGRAMS();
    vt::TempDir tmp;
    std::string dir = tmp.file("board");
    const std::string pattern = "ABCDEFGH";
    std::string all;
    for (int i = 0; i < 7; i++)
        all += pattern;
    std::string loop = "while :; do printf " + all + " > /sys/class/rtc/rtc1/device/nvram; done";
    std::string nvram = dir + "/fs/sys/class/rtc/rtc1/device/nvram";
    int torn = 0;
    for (int round = 0; round < 40; round++) {
        vt::ChildProcess writer;
        ASSERT_TRUE(writer.start(vt::under_board(dir, {"/bin/sh", "-c", loop})));
        size_t writes = static_cast<size_t>(1 + round % 7);
        ASSERT_TRUE(vt::eventually([&] { return vt::grep(vt::journal_in(dir), "nvram write").size() >= writes; }));
        writer.signal(SIGKILL);
        writer.wait(10000);
        std::string data = vt::read_file(nvram);
        torn += data != all && data != std::string(56, '\0');
        vt::write_file(dir + "/journal", "");
    }
    EXPECT_EQ(0, torn);
}

/* A state saved "in the future" (a host whose clock went back) neither
 * stops the board nor gives negative times. */
TEST(Launcher, AStateFromTheFutureCarriesOn)
{
    vt::SimBoard board;
    ASSERT_EQ(0, board.velatool({"-m", "1"}).status);
    std::string state_file = board.dir() + "/board/state";
    std::string state = vt::read_file(state_file);
    size_t at = state.find("host_wall_ns = ");
    ASSERT_NE(std::string::npos, at);
    state.replace(at, state.find('\n', at) - at, "host_wall_ns = 9000000000000000000");
    at = state.find("time_ns = ");
    state.replace(at, state.find('\n', at) - at, "time_ns = 5000000000000");
    vt::write_file(state_file, state);
    ASSERT_EQ(0, board.velatool({"-m", "0"}).status);
    std::string journal = vt::read_file(board.dir() + "/board/journal");
    std::string last = journal.substr(journal.rfind('\n', journal.size() - 2) + 1);
    EXPECT_GE(atof(last.c_str()), 5000.0) << last;
}

} // namespace

/* The launcher and a running board, seen from outside: one program per board
 * directory, the control face, and files that survive a kill. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

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

} // namespace

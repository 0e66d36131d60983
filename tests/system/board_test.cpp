/* The launcher and a running board, seen from outside: one program per board
 * directory and the control face. */
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

    first.signal(SIGTERM);
    first.wait(10000);
    EXPECT_EQ(2, vt::board_ctl(dir, {"state"}).status); /* nobody left to answer */
    EXPECT_EQ(0, vt::run_process(vt::under_board(dir, {VELATOOL_PATH, "-a"})).status);
}

} // namespace

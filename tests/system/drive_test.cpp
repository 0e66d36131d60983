/* The drive actions of the real binary on the simulated board. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "simrun.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

TEST(DriveActions, DacWritePutsTheBytesOnTheBusOrIsRefused)
{
    vt::SimBoard board;
    vt::ProcessResult r = board.velatool({"-d", "0x822"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("Writing 0x0822 to I2C DAC (motor voltage)\n", r.out);
    EXPECT_THAT(vt::grep(board.journal(), "i2c"), ElementsAre("/dev/i2c-1@0x60 write 08 22"));

    r = board.velatool({"-d", "0x1000"});
    EXPECT_EQ(234, r.status); /* -EINVAL as an exit status */
    EXPECT_EQ("Writing 0x1000 to I2C DAC (motor voltage)\nFailed.\n", r.out);
    EXPECT_EQ(1u, vt::grep(board.journal(), "i2c").size());
}

TEST(DriveActions, MotorPowerPrintsTheStateOnlyForZeroAndOne)
{
    vt::SimBoard board;
    vt::ProcessResult r = board.velatool({"-m", "2"});
    EXPECT_EQ(234, r.status);
    EXPECT_EQ("Failed.\n", r.out);
    r = board.velatool({"-m", "1"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("Motor power: on\n", r.out);
    EXPECT_THAT(board.journal(), ElementsAre("/sys/class/gpio/motor_power/value write 1"));
}

TEST(DriveActions, EndSwitchQueryAtAndAwayFromHome)
{
    vt::SimBoard away;
    vt::ProcessResult r = away.velatool({"-a"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("Query endswitch state:\n1: endposition not reached\n", r.out);

    vt::SimBoard home("[drive]\nposition_mm = 0\n");
    r = home.velatool({"-a"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("Query endswitch state:\n0: endposition reached\n", r.out);

    vt::SimBoard broken("absent = /sys/class/gpio/vg_anf/value\n");
    r = broken.velatool({"-a"});
    EXPECT_EQ(255, r.status);
    EXPECT_EQ("Query endswitch state:\nFailed.\n", r.out);
}

/* The board outlives the program: a drive started by one call keeps moving
 * and is home when a later call looks. */
TEST(DriveActions, TheBoardCarriesOnBetweenRuns)
{
    vt::SimBoard board("[drive]\nposition_mm = 0.02\n");
    ASSERT_EQ(0, board.velatool({"-m", "1"}).status);
    ASSERT_EQ(0, board.velatool({"-d", "0"}).status); /* full speed towards home */
    vt::ProcessResult r = board.velatool({"-a"});
    EXPECT_THAT(r.out, HasSubstr("0: endposition reached"));
}

TEST(Velasim, RefusesBadScenariosAndNamesItsTemporaryBoard)
{
    vt::TempDir tmp;
    vt::write_file(tmp.file("bad.ini"), "[drive]\nwarp = 9\n");
    vt::ProcessResult r = vt::run_process({VELASIM_PATH, "run", "--dir", tmp.file("b"), "--scenario",
                                           tmp.file("bad.ini"), "--", VELATOOL_PATH, "-a"});
    EXPECT_EQ(2, r.status);
    EXPECT_THAT(r.err, HasSubstr("line 2: unknown key 'drive.warp'"));

    r = vt::run_process({VELASIM_PATH, "run", "--", VELATOOL_PATH, "-a"});
    EXPECT_EQ(0, r.status);
    EXPECT_THAT(r.err, HasSubstr("velasim: board in /tmp/velasim."));
    size_t at = r.err.find("/tmp/velasim.");
    if (at != std::string::npos)
        std::filesystem::remove_all(r.err.substr(at, r.err.find('\n', at) - at));
}

} // namespace

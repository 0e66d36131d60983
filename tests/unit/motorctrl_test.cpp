#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "motorctrl.h"
#include "simtest.h"

using testing::ElementsAre;

namespace {

class MotorDac : public vt::SimTest {};

TEST_F(MotorDac, WritesTheTwelveBitCodeInFastWriteFormat)
{
    EXPECT_EQ(0, vela_motor_dac_write(4095));
    EXPECT_EQ(0, vela_motor_dac_write(0x822));
    EXPECT_THAT(vt::entries("i2c"), ElementsAre("/dev/i2c-1@0x60 write 0f ff", "/dev/i2c-1@0x60 write 08 22"));
    EXPECT_EQ("2082", sim::get("motor.dac"));
}

TEST_F(MotorDac, RetriesFailedWritesWithTheCounterRuleAsItStands)
{
    /* One failure, then success. */
    sim::fault("/dev/i2c-1@0x60", "write", EREMOTEIO, 1);
    EXPECT_EQ(0, vela_motor_dac_write(0x100));
    EXPECT_THAT(vt::entries("i2c"), ElementsAre("/dev/i2c-1@0x60 write 01 00 -> EREMOTEIO",
                                                "/dev/i2c-1@0x60 write 01 00"));

    /* Success only on the tenth attempt is reported as failure, though the
     * DAC took the value. */
    sim::journal_clear();
    sim::fault("/dev/i2c-1@0x60", "write", ETIMEDOUT, 9);
    EXPECT_EQ(-1, vela_motor_dac_write(0x200));
    EXPECT_EQ(10u, vt::entries("i2c").size());
    EXPECT_EQ("512", sim::get("motor.dac"));

    /* Ten failures take the success path, and nothing reached the DAC. */
    sim::journal_clear();
    sim::fault("/dev/i2c-1@0x60", "write", EIO, 10);
    EXPECT_EQ(0, vela_motor_dac_write(0x300));
    EXPECT_EQ(10u, vt::entries("-> EIO").size());
    EXPECT_EQ("512", sim::get("motor.dac"));
}

TEST_F(MotorDac, ShortWritesAndBusFailuresAreNotRetried)
{
    sim::fault("/dev/i2c-1@0x60", "write", 0 /* short */, 1);
    EXPECT_EQ(-1, vela_motor_dac_write(0x822));
    EXPECT_EQ(1u, vt::entries("i2c").size());

    sim::fault("/dev/i2c-1", "open", ENOENT, 1);
    EXPECT_EQ(-1, vela_motor_dac_write(0x822));
    sim::fault("/dev/i2c-1", "ioctl", EBUSY, 1);
    EXPECT_EQ(-1, vela_motor_dac_write(0x822));
    EXPECT_EQ(1u, vt::entries("i2c").size());
}

class EndSwitch : public vt::SimTest {
protected:
    void TearDown() override { vela_motor_vganf_close(); }
};

TEST_F(EndSwitch, ReportsTheLevelOnlyWhileOpen)
{
    int state = -1;
    EXPECT_EQ(-ENODEV, vela_motor_get_vganf(&state));
    EXPECT_EQ(-ENODEV, vela_motor_vganf_wait(0));

    int fd = vela_motor_vganf_init();
    ASSERT_GE(fd, 0);
    EXPECT_THAT(vt::entries("vg_anf"), ElementsAre("/sys/class/gpio/vg_anf/edge write none"));
    EXPECT_EQ(0, vela_motor_get_vganf(&state));
    EXPECT_EQ(1, state); /* a few millimetres from home */

    sim::set("drive.position_mm", "0");
    EXPECT_EQ(0, vela_motor_get_vganf(&state));
    EXPECT_EQ(0, state);

    sim::fault("/sys/class/gpio/vg_anf/value", "read", EIO, 1);
    EXPECT_EQ(-1, vela_motor_get_vganf(&state));

    EXPECT_EQ(0, vela_motor_vganf_close());
    EXPECT_EQ(-ENODEV, vela_motor_get_vganf(&state));
    EXPECT_EQ(0, vela_motor_vganf_close());

    sim::control("absent /sys/class/gpio/vg_anf/value");
    EXPECT_EQ(-1, vela_motor_vganf_init());
}

TEST_F(EndSwitch, WaitSeesTheFallingEdgeWhenTheDriveArrivesHome)
{
    sim::set("drive.position_mm", "0.05");
    ASSERT_EQ(0, vela_motor_power_ctrl(1));
    ASSERT_GE(vela_motor_vganf_init(), 0);
    ASSERT_EQ(0, vela_motor_vganf_enable_edgeirq());
    ASSERT_EQ(0, vela_motor_dac_write(2082 - 890)); /* 1 mm/s towards home: 50 ms */

    EXPECT_EQ(0, vela_motor_vganf_wait(5000));
    EXPECT_EQ("1", sim::get("drive.at_home"));
    EXPECT_THAT(vt::entries("vg_anf/edge"), ElementsAre("/sys/class/gpio/vg_anf/edge write none",
                                                        "/sys/class/gpio/vg_anf/edge write falling",
                                                        "/sys/class/gpio/vg_anf/edge write none"));
}

TEST_F(EndSwitch, WaitTimesOutWithoutAnArmedEdge)
{
    ASSERT_GE(vela_motor_vganf_init(), 0);
    EXPECT_EQ(1, vela_motor_vganf_wait(0));
    EXPECT_EQ("none", sim::get("gpio.vg_anf.edge"));

    /* The drive reaches home, but no edge was armed: nothing to report. */
    sim::set("drive.position_mm", "0.01");
    sim::set("motor.power", "1");
    sim::set("motor.dac", "0");
    EXPECT_EQ(1, vela_motor_vganf_wait(100));
    EXPECT_EQ("1", sim::get("drive.at_home"));
}

} // namespace

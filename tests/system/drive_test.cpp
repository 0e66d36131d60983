/* The setters of the real binary on the simulated board. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "simrun.h"

namespace {

/* Every setter of the command line: a value it takes reaches its device, one
 * out of range fails with -EINVAL as the exit status and touches nothing. */
TEST(SetterActions, TakeTheirRangeAndRefuseTheRest)
{
    const struct {
        std::vector<std::string> good, bad;
        const char *good_out, *bad_out;
        std::vector<std::string> journal;
    } cases[] = {
        {{"-d", "0x822"}, {"-d", "0x1000"}, "Writing 0x0822 to I2C DAC (motor voltage)\n",
         "Writing 0x1000 to I2C DAC (motor voltage)\nFailed.\n", {"/dev/i2c-1@0x60 write 08 22"}},
        {{"-m", "1"}, {"-m", "2"}, "Motor power: on\n", "Failed.\n", {"/sys/class/gpio/motor_power/value write 1"}},
        {{"-p", "256"}, {"-p", "257"}, "Writing 0x0100 to I2C poti\n", "Writing 0x0101 to I2C poti\nFailed.\n",
         {"/dev/i2c-1@0x2e write 01 00"}},
        {{"-c", "1"}, {"-c", "2"}, "Measurement channel power: on\n", "Failed.\n",
         {"/sys/class/gpio/meas_power/value write 1"}},
        /* 300 is truncated to 8 bits: 44; 0x65 is 101 */
        {{"-b", "300"}, {"-b", "0x65"}, "Setting backlight brightness to 44\n",
         "Setting backlight brightness to 101\nFailed.\n", {"/sys/class/backlight/tps65217-bl/brightness write 44"}},
        {{"-u", "1"}, {"-u", "2"}, "USB host port power: on\n", "Failed.\n",
         {"/sys/class/gpio/usb_power/value write 1", "/sys/bus/platform/drivers/musb-dsps/unbind write 47401c00.usb",
          "/sys/bus/platform/drivers/musb-dsps/bind write 47401c00.usb"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.good[0]);
        vt::SimBoard board;
        vt::ProcessResult r = board.velatool(c.good);
        EXPECT_EQ(0, r.status);
        EXPECT_EQ(c.good_out, r.out);
        r = board.velatool(c.bad);
        EXPECT_EQ(234, r.status);
        EXPECT_EQ(c.bad_out, r.out);
        EXPECT_EQ(c.journal, board.journal());
    }
}

} // namespace

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <unistd.h>

#include "measurement.h"
#include "simtest.h"

using testing::ElementsAre;

namespace {

const char kSpi[] = "/dev/spidev1.1";

double sine_hz()
{
    return std::stod(sim::get("meas.sine_hz"));
}

class Measurement : public vt::SimTest {};

TEST_F(Measurement, TwentyKiloHertzSetUpRunsTheGeneratorUntilPowerGoesOff)
{
    ASSERT_EQ(0, vela_meas_power_ctrl(1));
    EXPECT_EQ(0.0, sine_hz());
    EXPECT_EQ(0, vela_sine_setup());
    EXPECT_THAT(vt::entries("spidev"),
                ElementsAre("/dev/spidev1.1 mode 2", "/dev/spidev1.1 transfer 2100", "/dev/spidev1.1 transfer 5eb8",
                            "/dev/spidev1.1 transfer 4014", "/dev/spidev1.1 transfer 9eb8",
                            "/dev/spidev1.1 transfer 8014", "/dev/spidev1.1 transfer 2000"));
    EXPECT_EQ("335544", sim::get("sine.freq0"));
    EXPECT_EQ("335544", sim::get("sine.freq1"));
    EXPECT_NEAR(20000.0, sine_hz(), 0.1);
    EXPECT_TRUE(sim::descriptors(kSpi).empty());

    /* Off and on again: the generator has forgotten its set-up. */
    ASSERT_EQ(0, vela_meas_power_ctrl(0));
    EXPECT_EQ(0.0, sine_hz());
    ASSERT_EQ(0, vela_meas_power_ctrl(1));
    EXPECT_EQ(0.0, sine_hz());
    EXPECT_EQ("0", sim::get("sine.freq0"));
}

TEST_F(Measurement, FrequencyIsRoundedToTheNearestRegisterStep)
{
    EXPECT_EQ(0, vela_sine_setup_ex(21010.0));
    EXPECT_THAT(vt::entries("transfer"),
                ElementsAre("/dev/spidev1.1 transfer 2100", "/dev/spidev1.1 transfer 60e9", "/dev/spidev1.1 transfer 4015",
                            "/dev/spidev1.1 transfer a0e9", "/dev/spidev1.1 transfer 8015",
                            "/dev/spidev1.1 transfer 2000"));
    EXPECT_EQ(0.0, sine_hz()); /* the channel is off: nobody listened */

    ASSERT_EQ(0, vela_meas_power_ctrl(1));
    EXPECT_EQ(0, vela_sine_setup_ex(21010.0));
    EXPECT_EQ("352489", sim::get("sine.freq0")); /* 0x560e9 */
    EXPECT_NEAR(21010.0, sine_hz(), 0.06);

    EXPECT_EQ(0, vela_sine_setup_ex(1.0)); /* 16.78 steps */
    EXPECT_EQ("17", sim::get("sine.freq0"));
}

TEST_F(Measurement, GeneratorFailuresReturnPositiveOne)
{
    sim::control(std::string("absent ") + kSpi);
    EXPECT_EQ(1, vela_sine_setup());
    sim::control("faults-clear");

    /* A refused mode leaves the device open and sends nothing. */
    sim::fault(kSpi, "ioctl", EINVAL);
    EXPECT_EQ(1, vela_sine_setup_freqreg(0x1000));
    EXPECT_TRUE(vt::entries("spidev").empty());
    std::vector<int> open_fds = sim::descriptors(kSpi);
    ASSERT_EQ(1u, open_fds.size());
    close(open_fds[0]);
}

TEST_F(Measurement, PotiSendsTheNineBitWiperOrRefusesWithoutOpeningTheBus)
{
    EXPECT_EQ(0, vela_meas_poti_write(256));
    EXPECT_EQ(0, vela_meas_poti_write(255));
    EXPECT_THAT(vt::entries("0x2e"), ElementsAre("/dev/i2c-1@0x2e write 01 00", "/dev/i2c-1@0x2e write 00 ff"));
    EXPECT_EQ("255", sim::get("meas.poti"));

    /* 257 is refused before the bus is opened: the open fault stays for the
     * next call. */
    sim::fault("/dev/i2c-1", "open", ENOENT);
    EXPECT_EQ(-EINVAL, vela_meas_poti_write(257));
    EXPECT_EQ(-1, vela_meas_poti_write(0));
    sim::fault("/dev/i2c-1", "ioctl", EBUSY);
    EXPECT_EQ(-1, vela_meas_poti_write(0));
    EXPECT_TRUE(sim::descriptors("/dev/i2c-1").empty());
    EXPECT_EQ(2u, vt::entries("0x2e").size());
}

} // namespace

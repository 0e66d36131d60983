/* The internal ADC and measurement front-end actions of the real binary on
 * the simulated board. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <utility>

#include "simrun.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

/* "-V" output: eight "%d: %25s: %1.3f" lines, then the temperature and the
 * motor voltage. Returns the battery voltage and the temperature. */
std::pair<double, double> parse_voltages(const std::string& out)
{
    static const std::regex format(
        "0:           NTC voltage \\[V\\]: [0-9.]{5}\n"
        "1:       battery voltage \\[V\\]: ([0-9.]{5})\n"
        "2:        system voltage \\[V\\]: [0-9.]{5}\n"
        "3:  motor supply voltage \\[V\\]: [0-9.]{5}\n"
        "4:        motor\\+ voltage \\[V\\]: [0-9.]{5}\n"
        "5:        motor- voltage \\[V\\]: [0-9.]{5}\n"
        "6:      USB host voltage \\[V\\]: [0-9.]{5}\n"
        "7:      NTC ref. voltage \\[V\\]: [0-9.]{5}\n"
        "Battery temperature: ([0-9]+\\.[0-9]{6})\n"
        "Motor voltage: -?[0-9]\\.[0-9]{2}\n");
    std::smatch m;
    EXPECT_TRUE(std::regex_match(out, m, format)) << out;
    return m.empty() ? std::make_pair(0.0, 0.0) : std::make_pair(std::stod(m[1]), std::stod(m[2]));
}

TEST(FrontEndActions, VoltagesDumpTheBoardAsItIs)
{
    vt::SimBoard healthy;
    vt::ProcessResult r = healthy.velatool({"-V"});
    EXPECT_EQ(0, r.status);
    auto [battery, temperature] = parse_voltages(r.out);
    EXPECT_NEAR(3.9, battery, 0.01);
    EXPECT_NEAR(25.0, temperature, 0.3);

    /* Motor+ minus motor- while the drive moves away at 0.5 mm/s. */
    vt::SimBoard moving("[adc]\nnoise_codes = 0\n[motor]\npower = 1\ndac = 2527\n");
    r = moving.velatool({"-V"});
    EXPECT_THAT(r.out, HasSubstr("\nMotor voltage: -1.25\n"));
    EXPECT_TRUE(moving.journal().empty()); /* reading changes nothing */
}

/* The register words themselves are the unit suite's; here which setting
 * each form of -s reaches: a register, a frequency (335720 = 0x51f68) or the
 * default 20 kHz. */
TEST(FrontEndActions, SineTakesARegisterAFrequencyOrNothing)
{
    const struct {
        std::vector<std::string> args;
        const char* out;
        const char* word; /* the frequency register's low word */
    } cases[] = {
        {{"-s", "0x1000"}, "Setup sine wave generator\nsine_setup with freqreg=0x00001000\n", "5000"},
        {{"-s", "20010.5"}, "Setup sine wave generator\nsine_setup with f=20010.50\n", "5f68"},
        {{"-s"}, "Setup sine wave generator\n", "5eb8"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.out);
        vt::SimBoard board;
        vt::ProcessResult r = board.velatool(c.args);
        EXPECT_EQ(0, r.status);
        EXPECT_EQ(c.out, r.out);
        EXPECT_THAT(board.journal(), testing::Contains(std::string("/dev/spidev1.1 transfer ") + c.word));
    }
}

/* One action on a board as its scenario makes it: the exit status, what it
 * prints and the error it names. A missing ADC channel fails -V with init's
 * -1, a generator whose mode is refused fails -s with the positive 1. */
TEST(Actions, ExitStatusAndOutputFollowTheBoard)
{
    const struct {
        const char* scenario;
        std::vector<std::string> action;
        int status;
        const char* out;
        const char* err;
    } cases[] = {
        {"", {"-a"}, 0, "Query endswitch state:\n1: endposition not reached\n", ""},
        {"[drive]\nposition_mm = 0\n", {"-a"}, 0, "Query endswitch state:\n0: endposition reached\n", ""},
        {"absent = /sys/class/gpio/vg_anf/value\n", {"-a"}, 255, "Query endswitch state:\nFailed.\n", ""},
        {"absent = /sys/bus/iio/devices/iio:device0/in_voltage3_raw\n", {"-V"}, 255,
         "am335x_adc_init failed (result=-1)\nFailed.\n",
         "/sys/bus/iio/devices/iio:device0/in_voltage3_raw: No such file or directory"},
        {"fault = /dev/spidev1.1 ioctl EINVAL\n", {"-s"}, 1, "Setup sine wave generator\nFailed.\n",
         "open: Invalid argument"},
        {"absent = /dev/uio0\n", {"-A", "0"}, 255, "Aquiring data:\nFailed.\n", "ERROR: aquisition_init() failed\n"},
        {"fault = /dev/i2c-0@0x6b write EREMOTEIO always\n", {"-D"}, 1,
         "Detect USB charger\ndetecting charger\ncharger_detection failed\nFailed.\n", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scenario);
        vt::SimBoard board(c.scenario);
        vt::ProcessResult r = board.velatool(c.action);
        EXPECT_EQ(c.status, r.status);
        EXPECT_EQ(c.out, r.out);
        EXPECT_THAT(r.err, HasSubstr(c.err));
    }
}

} // namespace

/* The command line of the real binary, as a technician or a script uses it. */
#include <gtest/gtest.h>

#include "process.h"

namespace {

const char kUsage[] =
    "Usage: " VELATOOL_PATH " command <options>\n"
    "commands (only one allowed at a time):\n"
    "-d --dac value          - write value to motor control dac (0..0xfff)\n"
    "-m --mpower <1|0>       - motor control power on/off\n"
    "-c --cpower <1|0>       - measurement channel power on/off\n"
    "-u --upower <1|0>       - USB host power power on/off\n"
    "-s --sine [<f>|<freqreg>] - setup sinewave generator for 20kHz output (no args)\n"
    "                          opional parameter is sine frequency as decimal number or\n"
    "                          frequency register value as 0x-prefixed hex value\n"
    "-p --poti value         - write value to dig. poti (0..0x100)\n"
    "-b --backlight value    - control display backlight (0..100)\n"
    "-V --voltages           - dump internal ADC voltages\n"
    "-S --suspend [time]     - suspend system, option: resume after time seconds\n"
    "-e --events             - monitor charger and pmic/push-button events\n"
    "-E --emctest            - test mode for emc testing\n"
    "-F --fbtest             - framebuffer test image\n"
    "-t --touch              - monitor touch screen events\n"
    "-o --opto               - Opto RS232 test (sending and break detection)\n"
    "-r --remote [tcpport]   - Start remote control server (default port=7073)\n"
    "-a --vganf              - query end switch\n"
    "-A --aquisition mode    - get samples from measurement channel ADC\n"
    "                          128kS/s, 64x oversampling, freerun\n"
    "                          mode=0: fill sample buffer for 10s\n"
    "                          mode=1: no sample buffer, monitor last data\n"
    "                          mode=2: same as mode=0, but disable pruss filter\n"
    "                          mode=3: same as mode=1, but output data on opto interface\n"
    "                          mode=4: same as mode=0, but keep pruss active after aquisition\n"
    "-X --demo               - full aquisition demo\n"
    "-Y --pmdemo             - power management demo\n"
    "-C --charger            - charger monitor\n"
    "-D --detect             - detect USB charger (interface must be unbinded)\n"
    "\n"
    "options:\n"
    " -v                     - enable debug output\n"
    " -T tracelevel          - set zfl tracelevel 0..5 (default: 3)\n"
    " -f filename            - write samples to file filename\n";

const char kBannerStart[] = "velatool 1.00-32 - ";

vt::ProcessResult velatool(std::vector<std::string> args)
{
    args.insert(args.begin(), VELATOOL_PATH);
    return vt::run_process(args);
}

/* The banner line, then the usage text byte for byte. */
void expect_usage(const std::string& out)
{
    ASSERT_EQ(0u, out.find(kBannerStart));
    size_t lf = out.find('\n');
    ASSERT_NE(std::string::npos, lf);
    EXPECT_EQ(kUsage, out.substr(lf + 1));
}

/* Every refusal exits 1 with its errors and the usage text. */
TEST(CommandLine, RefusesNoneOrTwoActionsBadTracelevelAndUnknownOptions)
{
    const std::string one = "ERROR: exactly one action is required\n", path = VELATOOL_PATH;
    const struct {
        std::vector<std::string> args;
        std::string err;
    } cases[] = {
        {{}, one},
        {{"-d", "0x800", "-m", "1"}, one},
        {{"-a", "-a"}, one}, /* the same letter twice is two actions */
        {{"-T", "6", "-V"}, "ERROR: invalid tracelevel\n"},
        {{"-T", "-1"}, one + "ERROR: invalid tracelevel\n"},
        {{"-Q", "-a"}, path + ": invalid option -- 'Q'\n"},
        {{"-d"}, path + ": option requires an argument -- 'd'\n" + one},
    };
    for (const auto& c : cases) {
        vt::ProcessResult r = velatool(c.args);
        EXPECT_EQ(1, r.status) << testing::PrintToString(c.args);
        EXPECT_EQ(c.err, r.err);
        expect_usage(r.out);
    }
}

TEST(CommandLine, VerboseEchoesTheOptionsAndOptionalArgumentsAreSeparateWords)
{
    /* Outside the simulated board the demo finds no ADC and ends at once. */
    vt::ProcessResult r = velatool({"-v", "-v", "-T", "2", "-f", "samples.txt", "-Y"});
    EXPECT_EQ(255, r.status);
    EXPECT_EQ(0u, r.out.find("action   : Y\n"
                             "verbose  : 2\n"
                             "tracelevel : 2\n"
                             "filename : samples.txt\n"
                             "arg[0]   : (null)\n"
                             "velatool 1.00-32 - "));
    EXPECT_NE(std::string::npos, r.err.find("Setting tracelevel to 2"));
    EXPECT_NE(std::string::npos, r.out.find("am335x_adc_init failed (result=-1)\n"));
    EXPECT_NE(std::string::npos, r.out.find("Failed."));

    vt::ProcessResult port = velatool({"-v", "--remote", "0x1BA2"});
    EXPECT_NE(std::string::npos, port.out.find("action   : r\n"));
    EXPECT_NE(std::string::npos, port.out.find("arg[0]   : 0x1BA2\n"));

    vt::ProcessResult noport = velatool({"-r", "-v"});
    EXPECT_NE(std::string::npos, noport.out.find("verbose  : 1\n"));
    EXPECT_NE(std::string::npos, noport.out.find("arg[0]   : (null)\n"));

    vt::ProcessResult attached = velatool({"-r7074"}); /* not an optional argument: an unknown option */
    EXPECT_EQ(1, attached.status);

    /* The long name, spelled as it is, is an action taking an argument; a
     * second action keeps the hardware out of it. */
    vt::ProcessResult longname = velatool({"-v", "--aquisition", "1", "-a"});
    EXPECT_EQ(1, longname.status);
    EXPECT_EQ("ERROR: exactly one action is required\n", longname.err);
    EXPECT_EQ(std::string::npos, longname.out.find("action   :"));
}

} // namespace

/* The command line of the real binary, as a technician or a script uses it. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "simrun.h"

namespace {

const char kBannerStart[] = "velatool 1.00-32 - ";

vt::ProcessResult velatool(std::vector<std::string> args)
{
    args.insert(args.begin(), VELATOOL_PATH);
    return vt::run_process(args);
}

/* The banner line, then the usage text: its words are the program's own
 * table, so here its frame and its size. */
void expect_usage(const std::string& out)
{
    ASSERT_EQ(0u, out.find(kBannerStart));
    std::string usage = out.substr(out.find('\n') + 1);
    EXPECT_EQ(0u, usage.find("Usage: " VELATOOL_PATH " command <options>\ncommands (only one allowed at a time):\n"));
    EXPECT_THAT(usage, testing::EndsWith("\noptions:\n -v                     - enable debug output\n"
                                         " -T tracelevel          - set zfl tracelevel 0..5 (default: 3)\n"
                                         " -f filename            - write samples to file filename\n"));
    EXPECT_EQ(36u, vt::count_of(usage, "\n"));
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

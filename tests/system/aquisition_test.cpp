/* The test acquisition of the real binary on the simulated board. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include "simrun.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

/* Channel on, sine at 20 kHz. */
const char kMeasuring[] = "[meas]\npower = 1\n[sine]\ncontrol = 0\nfreq0 = 335544\n[clock]\nmode = warp\n";

/* Journal entries that mention needle, once there are at least n of them. */
std::vector<std::string> await_entries(const vt::SimBoard& board, const std::string& needle, size_t n)
{
    vt::eventually([&] { return vt::grep(board.journal(), needle).size() >= n; });
    return vt::grep(board.journal(), needle);
}

bool await_output(vt::ChildProcess& child, const std::string& needle, size_t n = 1)
{
    return child.wait_output(20000, [&](const std::string& out, const std::string& err) {
        return vt::count_of(out + err, needle) >= n;
    });
}

/* What the acquisition prints is the unit suite's; here the action's exit
 * status and the sample file. */
TEST(Aquisition, CountedAcquisitionWritesTheSampleFile)
{
    vt::SimBoard board(std::string(kMeasuring) + "[pru]\nextram_size = 8192\n");
    std::string file = board.dir() + "/samples.txt";
    vt::ProcessResult r = board.velatool({"-A", "0", "-f", file});
    EXPECT_EQ(0, r.status); /* the histogram width is no failure */
    EXPECT_EQ(4096u, vt::count_of(vt::read_file(file), "\n"));

    r = board.velatool({"-A", "2", "-f", "/nonexistent/samples.txt"});
    EXPECT_EQ(255, r.status);
    EXPECT_THAT(r.out, HasSubstr("\nFailed.\n"));
}

/* Without a sample limit the test acquisition would run for minutes: the
 * pool is cut to 10 s at 2000 samples per second. */
TEST(Aquisition, ModeZeroIsCutToTenSeconds)
{
    vt::SimBoard board(std::string(kMeasuring) + "[pru]\nextram_size = 4194304\n");
    vt::ChildProcess child;
    ASSERT_TRUE(board.start(child, {"-v", "-A", "0"}));
    ASSERT_TRUE(await_output(child, "wait for firmware job done"));
    EXPECT_THAT(child.out(), HasSubstr("aquisition time with oversampling (x64): 1048576 ms\n"
                                       "reducing samples to: 20000 (max. aqusitiontime is 10000 ms)\n"));
    EXPECT_THAT(await_entries(board, "acquire", 1), ElementsAre(HasSubstr("acquire count=20000 interval=1562")));
    child.signal(SIGTERM);
    child.wait(10000);
}

TEST(Aquisition, MonitorRunsUntilASignal)
{
    vt::SimBoard board(kMeasuring);
    vt::ChildProcess child;
    ASSERT_TRUE(board.start(child, {"--aquisition", "1"}));
    ASSERT_TRUE(await_output(child, "aquisition: count: 1, last: 0x9b", 3));
    child.signal(SIGINT);
    ASSERT_TRUE(child.wait(10000));
    EXPECT_EQ(128 + SIGINT, child.status());
    EXPECT_EQ(0u, child.out().find("Aquiring data:\n"));
    EXPECT_THAT(vt::grep(board.journal(), "pruss"), Contains(HasSubstr("pruss acquire count=1 ")));
    EXPECT_TRUE(vt::grep(board.journal(), "pruss done").empty());
}

TEST(Aquisition, MonitorWritesTheLastSampleToTheOptoPort)
{
    vt::SimBoard board(kMeasuring);
    vt::ChildProcess child;
    ASSERT_TRUE(board.start(child, {"-A", "3"}));
    std::vector<std::string> writes = await_entries(board, "/dev/ttyO1 write", 4);
    child.signal(SIGTERM);
    child.wait(10000);
    ASSERT_GE(writes.size(), 4u);
    /* The first may come before the first sample; then readings near the
     * probe's rest position, digits only. */
    for (size_t i = 1; i < writes.size(); i++) {
        std::string digits = writes[i].substr(strlen("/dev/ttyO1 write "));
        EXPECT_EQ(std::string::npos, digits.find_first_not_of("0123456789")) << digits;
        EXPECT_NEAR(39830, atoi(digits.c_str()), 100) << digits;
    }
}

} // namespace

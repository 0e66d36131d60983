/* The power actions of the real binary on the simulated board. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

#include "simrun.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

/* Under the warp clock the ten seconds of suspend take no real time. */
TEST(PowerActions, SuspendWithAWakeUpTime)
{
    vt::SimBoard board("[clock]\nmode = warp\n");
    vt::ProcessResult r = board.velatool({"-S", "10"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("Resuming in 10 seconds ...\nSuspending ...\n", r.out);
    EXPECT_THAT(board.journal(), testing::Contains("power resume rtc"));

    /* An alarm that cannot be armed: no suspend at all. */
    vt::SimBoard broken("fault = /dev/rtc0 ioctl:RTC_WKALM_SET EIO\n");
    r = broken.velatool({"-S", "10"});
    EXPECT_EQ(255, r.status);
    EXPECT_EQ("Resuming in 10 seconds ...\nFailed.\n", r.out);
    EXPECT_TRUE(vt::grep(broken.journal(), "power").empty());
}

/* Without a time only a wake-up source ends it: here the control face. */
TEST(PowerActions, SuspendUntilWokenUp)
{
    vt::SimBoard board("[clock]\nmode = step\n");
    vt::ChildProcess child;
    ASSERT_TRUE(board.start(child, {"-S"}));
    ASSERT_TRUE(board.await_journal("power suspend"));
    EXPECT_EQ(0, board.ctl({"wake", "button"}).status);
    ASSERT_TRUE(child.wait(20000));
    EXPECT_EQ(0, child.status());
    EXPECT_EQ("Suspending ...\n", child.out());
    EXPECT_THAT(board.journal(), ElementsAre("/sys/power/state write mem", "power suspend", "power resume button",
                                             "/dev/rtc0 RTC_AIE_OFF"));
}

/* Charger detection and set-up from the command line, under the warp clock
 * (the detection takes board time). */
TEST(PowerActions, ChargerDetectionAndSetUp)
{
    vt::SimBoard board("[clock]\nmode = warp\n[supply]\nusb_v = 5\n[charger]\nusb_port = dcp\n");
    vt::ProcessResult r = board.velatool({"-D"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("Detect USB charger\ndetecting charger\nsetting up charger\n", r.out);
    EXPECT_THAT(board.journal(), testing::Contains("charger detect dcp 1500mA"));

    /* A low battery skips the detection, the set-up still runs. */
    vt::SimBoard low("[clock]\nmode = warp\n[battery]\nvoltage = 3.4\n");
    r = low.velatool({"-D"});
    EXPECT_EQ(0, r.status);
    EXPECT_THAT(r.out, HasSubstr("charger_detection skipped due to low battery (3.4"));
    EXPECT_THAT(r.out, HasSubstr("setting up charger\n"));
    EXPECT_TRUE(vt::grep(low.journal(), "charger detect").empty());
}

/* The monitor polls every 10 s of board time and reacts to the charger's
 * interrupt; it runs until it is stopped. */
TEST(PowerActions, ChargerMonitor)
{
    vt::SimBoard board("[clock]\nmode = step\n");
    vt::ChildProcess child;
    ASSERT_TRUE(board.start(child, {"-C"}));
    ASSERT_TRUE(board.await_journal("chgint/edge write both"));
    for (int i = 0; i < 2; i++)
        board.ctl({"clock", "advance", "10s"});
    board.ctl({"set", "supply.external_v", "5"});
    ASSERT_TRUE(child.wait_output(20000, [](const std::string& out, const std::string&) {
        return out.find("vela_charger_test(): gpio interrupt occurred") != std::string::npos;
    })) << child.out();
    EXPECT_THAT(child.out(), HasSubstr("vela_charger_test(): poll() timeout\n"));
    child.signal(SIGTERM);
    child.wait(10000);
}

/* The opto test answers every break with the counters and a numbered line. */
TEST(TestModes, OptoPortTestCountsBreaks)
{
    vt::SimBoard board("[clock]\nmode = step\n");
    vt::ChildProcess child;
    ASSERT_TRUE(board.start(child, {"-o"}));
    ASSERT_TRUE(child.wait_output(20000, [](const std::string& out, const std::string&) {
        return out.find("Press button on Opto-RS232 cable to generate break.\n") != std::string::npos;
    })) << child.out();
    ASSERT_EQ(0, board.ctl({"set", "opto.rx", "break"}).status);
    ASSERT_TRUE(child.wait_output(20000, [](const std::string& out, const std::string&) {
        return out.find("write result=6\n") != std::string::npos;
    })) << child.out();
    EXPECT_THAT(child.out(), HasSubstr("read result=3 ff 00 00 \nioctl(TIOCGICOUNT) result=0\n"
                                       "rx=3, tx=0, parity=0, brk=1\nwrite result=6\n"));
    EXPECT_EQ("30 2e 30 30 30 0d\n", board.ctl({"get", "opto.tx"}).out); /* "0.000\r" */
    child.signal(SIGINT);
    child.wait(10000);
}

} // namespace

/* The demo, the EMC test and the power-management demo of the real binary
 * on the simulated board, under the warp clock. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <linux/input.h>
#include <unistd.h>

#include "simrun.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

/* The demos are under test, not the firmware: its behavioural model keeps
 * their acquisitions quick under the sanitizer and the emulator. */
const char kWarp[] = "[clock]\nmode = warp\n[pru]\nengine = model\n";

/* Home at full speed, then stop, 1 mm/s, stop, 0.5 mm/s with the
 * acquisition, stop. */
TEST(Demos, DemoDrivesTheSequence)
{
    vt::SimBoard board(kWarp);
    vt::ProcessResult r = board.velatool({"-X"});
    EXPECT_EQ(0, r.status);
    EXPECT_THAT(r.out, StartsWith("Goto far end until VG_ANF does low\nMOT+=5.00V\nMOT-=0.00V\nVMOT=5.00\n"
                                  "wait result: 0\n"));
    EXPECT_THAT(r.out, HasSubstr("Pause 1s\nMOT+="));
    EXPECT_THAT(r.out, HasSubstr("Measure at 1mm/s for 5s\nMOT+="));
    EXPECT_THAT(r.out, HasSubstr("Pause 1s\nMeasure at 0.5mm/s for 10s\nMOT+="));
    EXPECT_THAT(vt::grep(board.journal(), "/dev/i2c-1@0x60 write"),
                ElementsAre(HasSubstr("00 00"), HasSubstr("08 22"), HasSubstr("0b 80"), HasSubstr("08 22"),
                            HasSubstr("09 c0"), HasSubstr("08 22")));
}

/* SIGINT lets the running pass finish with its result line; the missing
 * stick is an error in every pass, which the log counts. */
TEST(Demos, EmcTestInterrupted)
{
    vt::SimBoard board(std::string(kWarp) + "[usb]\nstick = absent\n");
    vt::ChildProcess child;
    ASSERT_TRUE(board.start(child, {"-E"}));
    ASSERT_TRUE(child.wait_output(30000, [](const std::string& out, const std::string&) {
        return out.find("Measure at 0.5mm/s for 10s") != std::string::npos;
    }));
    child.signal(SIGINT);
    ASSERT_TRUE(child.wait(30000));
    EXPECT_EQ(0, child.status());
    const std::string& out = child.out();
    size_t abort = out.find("\n\nemctest_abort_handler: shutting down after this run\n");
    ASSERT_NE(std::string::npos, abort);
    size_t result = out.rfind("[RESULT]");
    ASSERT_NE(std::string::npos, result);
    EXPECT_GT(result, abort);

    std::string line = out.substr(result + 8);
    int runs = 0, errors = 0;
    ASSERT_EQ(2, sscanf(line.c_str() + line.find(": ") + 2, "%d, %d", &runs, &errors));
    EXPECT_GE(errors, runs);
    std::string log = vt::read_file(board.dir() + "/board/fs/home/root/vela_emctest.log");
    EXPECT_THAT(log, StartsWith("velatool 1.00-32 emc test log file\n\r"
                                "TIME: loops, errors, hist_width, VMOT, VSYS, BATTEMP\n\r"));
    EXPECT_THAT(log, EndsWith(line));
    EXPECT_FALSE(vt::grep(board.journal(), "/dev/ttyO1 write").empty());
}

/* A drive whose DAC refuses every write ends the loop at once. */
TEST(Demos, EmcTestEndsOnDacFailure)
{
    vt::SimBoard board(std::string("fault = /dev/i2c-1@0x60 write short always\n") + kWarp);
    vt::ProcessResult r = board.velatool({"-E"});
    EXPECT_EQ(0, r.status);
    EXPECT_THAT(r.err, HasSubstr("ERROR: motor_dac_write failed!\n"));
    EXPECT_THAT(r.out, testing::Not(HasSubstr("[RESULT]")));
}

/* Eco state, then an RTC alarm that cannot be armed ends the demo. */
TEST(Demos, PmDemoEndsWithoutAlarm)
{
    vt::SimBoard board(std::string("fault = /dev/rtc0 ioctl:RTC_WKALM_SET EIO\n") + kWarp);
    vt::ProcessResult r = board.velatool({"-Y"});
    EXPECT_EQ(0, r.status);
    EXPECT_THAT(r.out, StartsWith("battery voltage="));
    EXPECT_THAT(r.out, EndsWith("oC\nsleeping for 5 seconds\ngoto eco state\neco state reached\n"
                                "sleeping for 5 seconds\n"));
    std::vector<std::string> bl = vt::grep(board.journal(), "backlight");
    ASSERT_EQ(10u, bl.size());
    EXPECT_THAT(bl.front(), EndsWith("write 100"));
    EXPECT_THAT(bl[8], EndsWith("write 20"));
    EXPECT_THAT(bl.back(), EndsWith("write 0"));
}

/* Woken by the alarm, nothing is pending; the START button brings the
 * backlight back. */
TEST(Demos, PmDemoSuspendsAndWakes)
{
    vt::SimBoard board("[clock]\nmode = step\n");
    vt::ChildProcess child;
    ASSERT_TRUE(board.start(child, {"-Y"}));
    auto suspended = [&](size_t n) {
        long long deadline = vt::now_ms() + 20000;
        while (vt::grep(board.journal(), "power suspend").size() < n && vt::now_ms() < deadline) {
            board.ctl({"clock", "advance", "1s"});
        }
        return vt::grep(board.journal(), "power suspend").size() >= n;
    };
    ASSERT_TRUE(suspended(1));
    ASSERT_TRUE(suspended(2)); /* the alarm's resume, then the next suspend */
    EXPECT_EQ(0, board.ctl({"button", "press"}).status);
    ASSERT_TRUE(child.wait_output(20000, [](const std::string& out, const std::string&) {
        return out.find("wake up by start button\n") != std::string::npos;
    }));
    child.signal(SIGTERM);
    child.wait(20000);
    EXPECT_THAT(child.out(), HasSubstr("goto suspend state ...\nback again ...\nn=0\nbattery voltage="));
    /* The press: scan code, key and report. */
    std::string n = "n=" + std::to_string(3 * sizeof(struct input_event));
    EXPECT_THAT(child.out(), HasSubstr("goto suspend state ...\nback again ...\n" + n + "\nwake up by start button\n"));
    std::vector<std::string> bl = vt::grep(board.journal(), "backlight");
    ASSERT_FALSE(bl.empty());
    EXPECT_THAT(bl.back(), EndsWith("write 100"));
}

/* A low battery shuts the instrument down. */
TEST(Demos, PmDemoLowBattery)
{
    vt::SimBoard board("[clock]\nmode = warp\n[battery]\nvoltage = 3.3\n");
    vt::ProcessResult r = board.velatool({"-Y"});
    EXPECT_EQ(0, r.status);
    EXPECT_THAT(r.out, EndsWith("oC\nLow battery: shutting down ...\n"));
    EXPECT_THAT(vt::grep(board.journal(), "system"), ElementsAre("system \"/sbin/shutdown -P -h now\" 0"));
}

} // namespace

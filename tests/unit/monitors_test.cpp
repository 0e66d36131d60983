/* The event and touch monitors on the simulated input devices. They read
 * until a read fails, so each test queues its events and then ends the
 * device (unplugged, or a fault). */
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "simtest.h"
#include "testmodes.h"

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

class Monitors : public vt::SimTest {};

/* The lines without their "%6d.%06d: " time stamps (checked for form). */
std::vector<std::string> untimed(const std::string& out)
{
    std::vector<std::string> lines;
    std::istringstream in(out);
    for (std::string l; std::getline(in, l);) {
        size_t colon = l.find(": ");
        if (l.compare(0, 9, "TIMESTAMP") != 0) {
            EXPECT_TRUE(colon != std::string::npos && colon >= 13 && colon == l.find_first_not_of(" 0123456789.") && l[colon - 7] == '.') << l;
            l = l.substr(std::min(colon + 2, l.size()));
        }
        lines.push_back(l);
    }
    return lines;
}

TEST_F(Monitors, TouchMonitorCountsTapsDropsAndReleaseQuadrants)
{
    ASSERT_EQ("ok\n", sim::control("touch tap 300 200"));
    ASSERT_EQ("ok\n", sim::control("touch dropped"));
    ASSERT_EQ("ok\n", sim::control("touch drag 100 50 240 136 2"));
    ASSERT_EQ("ok\n", sim::control("touch unplug"));
    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(-1, do_touchmonitor());
    std::vector<std::string> lines = untimed(GetCapturedStdout());
    EXPECT_EQ("read: No such device\n", GetCapturedStderr());
    ASSERT_EQ(36u, lines.size());
    EXPECT_EQ("TIMESTAMP        : COUNT  TYPE CODE VALUE", lines[0]);
    /* The tap's release, with its quadrant counted. */
    EXPECT_EQ("     9 0001 014a 00000000 1 1 0 2 1 0 5 300/200 1 0 1 0", lines[10]);
    /* The dropped events' report. */
    EXPECT_EQ("    11 0000 0003 00000000 1 1 0 2 2 1 5 300/200 1 0 1 0", lines[12]);
    /* The drag lifts at 240/136: just left of and above the bounds. */
    EXPECT_EQ("    34 0000 0000 00000000 2 2 0 6 6 1 18 240/136 1 1 1 1", lines.back());
}

/* A device that fails or is missing ends a monitor with its error. */
TEST_F(Monitors, MonitorsEndOnReadErrorsAndMissingDevices)
{
    const struct {
        int (*monitor)();
        const char* board;
        const char* out;
        const char* err;
    } cases[] = {
        {do_touchmonitor, "fault /dev/input/event1 read EIO", "TIMESTAMP        : COUNT  TYPE CODE VALUE\n",
         "read: Input/output error\n"},
        {do_touchmonitor, "absent /dev/input/event1", "", "open: No such file or directory\n"},
        {do_eventmonitor, "fault /dev/input/by-path/platform-44e0b000.i2c-event read EIO", "",
         "read: Input/output error\n"},
        {do_opto_rs232_test, "absent /dev/ttyO1", "", "open: No such file or directory\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.board);
        ASSERT_EQ("ok\n", sim::control(c.board));
        CaptureStdout();
        CaptureStderr();
        EXPECT_EQ(-1, c.monitor());
        EXPECT_EQ(c.out, GetCapturedStdout());
        EXPECT_EQ(c.err, GetCapturedStderr());
        sim::control("faults-clear");
    }
}

TEST_F(Monitors, EventMonitorNamesScanValues)
{
    for (const char* c : {"button press", "pmic 0x201", "pmic 0x300", "pmic 0x999", "button release"})
        ASSERT_EQ("ok\n", sim::control(c)) << c;
    /* The read after the last queued event fails. */
    ASSERT_EQ("ok\n", sim::control("fault /dev/input/by-path/platform-44e0b000.i2c-event read EIO after 12"));
    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(-1, do_eventmonitor());
    EXPECT_EQ("read: Input/output error\n", GetCapturedStderr());
    const std::vector<std::string> want = {"START pressed", "Cradle power connected", "USB power disconnected",
                                           "unknown", "START released"};
    EXPECT_EQ(want, untimed(GetCapturedStdout()));
    EXPECT_EQ("0", sim::get("button.pending"));
}

} // namespace

/* The USB stick test against the simulated stick. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "simtest.h"
#include "tempdir.h"
#include "testmodes.h"

using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class UsbTest : public vt::SimTest {};

TEST_F(UsbTest, WritesReadsAndVerifiesOnTheStick)
{
    CaptureStderr();
    EXPECT_EQ(0, do_usbtest("/media/sda1"));
    EXPECT_EQ("", GetCapturedStderr());
    std::string data = vt::read_file(sim::sandbox() + "/fs/media/sda1/storagetest");
    EXPECT_EQ(std::string(64 * 1024, 'X'), data);
    EXPECT_THAT(vt::entries("system"), testing::ElementsAre("system \"grep /media/sda1 /proc/mounts > /dev/null 2>&1\" 0"));
}

TEST_F(UsbTest, MissingStick)
{
    ASSERT_EQ("ok\n", sim::control("set usb.stick absent"));
    CaptureStderr();
    EXPECT_EQ(-1, do_usbtest("/media/sda1"));
    EXPECT_EQ("ERROR: /media/sda1 not mounted\n", GetCapturedStderr());
    EXPECT_THAT(vt::entries("system"), testing::ElementsAre(HasSubstr("/proc/mounts > /dev/null 2>&1\" 1")));
}

/* A read-only stick refuses the test file; a full one takes its name but
 * not its data. Either way the file already on the stick is kept. */
TEST_F(UsbTest, ReadOnlyAndFullSticksFailTheWrite)
{
    const std::string file = sim::sandbox() + "/fs/media/sda1/storagetest";
    struct Case {
        const char* state;
        const char* error;
    } cases[] = {
        {"read-only", "ERROR: cannot open testfile /media/sda1/storagetest for writing (errno=30)\n"},
        {"full", "ERROR: cannot write testfile /media/sda1/storagetest (errno=28)\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.state);
        ASSERT_EQ("ok\n", sim::control("set usb.stick mounted"));
        ASSERT_EQ(0, do_usbtest("/media/sda1"));
        ASSERT_EQ("ok\n", sim::control(std::string("set usb.stick ") + c.state));
        CaptureStderr();
        EXPECT_EQ(-1, do_usbtest("/media/sda1"));
        EXPECT_EQ(c.error, GetCapturedStderr());
        EXPECT_EQ(std::string(64 * 1024, 'X'), vt::read_file(file));
    }
}

} // namespace

/* The framebuffer test image on the simulated display. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <unistd.h>

#include "simtest.h"
#include "testmodes.h"

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

namespace {

class FbTest : public vt::SimTest {};

std::string pixel(int x, int y)
{
    return sim::control("pixel " + std::to_string(x) + " " + std::to_string(y));
}

std::string hex(unsigned v)
{
    char buf[16];
    snprintf(buf, sizeof buf, "0x%04x\nok\n", v);
    return buf;
}

TEST_F(FbTest, DrawsSevenBands)
{
    EXPECT_EQ(hex(0), pixel(0, 0)); /* a new board's screen is black */
    CaptureStdout();
    ASSERT_EQ(0, do_fbtest());
    EXPECT_EQ("framebuffer info: 480x272, 16bpp\n", GetCapturedStdout());
    EXPECT_TRUE(sim::descriptors("/dev/fb0").empty());

    /* Red, green and blue bit by bit, then as ramps; black and white last.
     * Each band's first and last rows (272*k/7) are checked; neighbouring
     * bands differ at the right edge. */
    const int xs[] = {0, 79, 80, 239, 240, 400, 479};
    const unsigned bands[7][7] = {
        {0x8000, 0x8000, 0x4000, 0x2000, 0x1000, 0x0000, 0x0000},
        {0x0000, 0x2800, 0x2800, 0x7800, 0x8000, 0xd000, 0xf800},
        {0x0400, 0x0200, 0x0200, 0x0080, 0x0080, 0x0020, 0x0000},
        {0x0000, 0x0140, 0x0140, 0x03e0, 0x0400, 0x06a0, 0x07e0},
        {0x0010, 0x0010, 0x0008, 0x0004, 0x0002, 0x0000, 0x0000},
        {0x0000, 0x0005, 0x0005, 0x000f, 0x0010, 0x001a, 0x001f},
        {0x0000, 0x0000, 0x0000, 0x0000, 0xffff, 0xffff, 0xffff},
    };
    const int first[8] = {0, 38, 77, 116, 155, 194, 233, 272};
    for (int k = 0; k < 7; k++) {
        for (int y : {first[k], first[k + 1] - 1}) {
            for (int i = 0; i < 7; i++)
                EXPECT_EQ(hex(bands[k][i]), pixel(xs[i], y)) << "band " << k << " x " << xs[i] << " y " << y;
        }
    }
    EXPECT_THAT(pixel(480, 0), testing::StartsWith("error: "));
}

TEST_F(FbTest, Failures)
{
    ASSERT_TRUE(sim::fault("/dev/fb0", "ioctl", EIO));
    CaptureStderr();
    EXPECT_EQ(-1, do_fbtest());
    EXPECT_EQ("error reading vinfo: Input/output error\n", GetCapturedStderr());
    EXPECT_TRUE(sim::descriptors("/dev/fb0").empty());

    sim::control("absent /dev/fb0");
    CaptureStderr();
    EXPECT_EQ(-1, do_fbtest());
    EXPECT_EQ("open(): No such file or directory\n", GetCapturedStderr());
}

} // namespace

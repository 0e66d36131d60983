/* The framebuffer test image on the simulated display. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "simtest.h"
#include "tempdir.h"
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

TEST_F(FbTest, ScreenshotIsAPng)
{
    ASSERT_TRUE(sim::set("fb.width", "320"));
    ASSERT_TRUE(sim::set("fb.height", "240"));
    EXPECT_FALSE(sim::set("fb.height", "5000"));
    CaptureStdout();
    ASSERT_EQ(0, do_fbtest());
    EXPECT_EQ("framebuffer info: 320x240, 16bpp\n", GetCapturedStdout());

    std::string path = sim::sandbox() + "/shot.png";
    ASSERT_EQ("ok\n", sim::control("screenshot " + path));
    std::string png = vt::read_file(path);
    ASSERT_GT(png.size(), 24u);
    EXPECT_EQ(std::string("\x89PNG\r\n\x1a\n", 8), png.substr(0, 8));
    EXPECT_EQ("IHDR", png.substr(12, 4));
    EXPECT_EQ(std::string("\0\0\x01\x40\0\0\0\xf0", 8), png.substr(16, 8)); /* 320 x 240 */

    /* The board makes folders inside its own directory, never outside. */
    EXPECT_EQ("ok\n", sim::control("screenshot shots/a.png"));
    EXPECT_TRUE(vt::file_exists(sim::sandbox() + "/shots/a.png"));
    vt::TempDir outside;
    EXPECT_THAT(sim::control("screenshot " + outside.file("new/a.png")), testing::StartsWith("error: "));
    EXPECT_FALSE(vt::file_exists(outside.file("new")));
}

TEST_F(FbTest, TheFileIsTheScreenMemory)
{
    int fd = open("/dev/fb0", O_RDWR);
    ASSERT_GE(fd, 0);
    const uint16_t white = 0xFFFF;
    EXPECT_EQ(2, pwrite(fd, &white, 2, (272 * 480 - 1) * 2));
    EXPECT_EQ(hex(0xFFFF), pixel(479, 271));
    uint16_t v[2] = {0, 0};
    EXPECT_EQ(2, pread(fd, v, 4, (272 * 480 - 1) * 2)); /* cut at the end */
    EXPECT_EQ(white, v[0]);
    EXPECT_EQ(-1, pwrite(fd, &white, 2, 272 * 480 * 2));
    EXPECT_EQ(ENOSPC, errno);
    close(fd);
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

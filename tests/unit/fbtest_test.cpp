/* The framebuffer test image on the simulated display. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <fstream>
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

/* The expected value of a band at x, for a width of 480. */
unsigned expected(int band, int x)
{
    const unsigned w = 480;
    const unsigned ux = static_cast<unsigned>(x);
    switch (band) {
    case 0: return (0x8000u >> (ux * 6 / w)) & 0xF800;
    case 1: return (ux * 32 / w) << 11;
    case 2: return (0x400u >> (ux * 7 / w)) & 0x07E0;
    case 3: return (ux * 64 / w) << 5;
    case 4: return 0x10u >> (ux * 6 / w);
    case 5: return ux * 32 / w;
    default: return ux < w / 2 ? 0 : 0xFFFF;
    }
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

    /* 272 rows: bands of 38 or 39 rows, boundaries at 272*k/7. */
    int first[8];
    for (int k = 0; k <= 7; k++)
        first[k] = 272 * k / 7;
    for (int k = 0; k < 7; k++) {
        EXPECT_GE(first[k + 1] - first[k], 38);
        EXPECT_LE(first[k + 1] - first[k], 39);
        for (int y : {first[k], first[k + 1] - 1}) {
            for (int x : {0, 79, 80, 160, 239, 240, 300, 420, 479})
                EXPECT_EQ(hex(expected(k, x)), pixel(x, y)) << "band " << k << " x " << x << " y " << y;
        }
    }
    /* A few exact colours: pure red, green and blue bits, full white. */
    EXPECT_EQ(hex(0x8000), pixel(0, 10));
    EXPECT_EQ(hex(0x0800), pixel(399, 10));
    EXPECT_EQ(hex(0x0000), pixel(400, 10)); /* the sixth shift leaves the red bits */
    EXPECT_EQ(hex(0xF800), pixel(479, first[1]));
    EXPECT_EQ(hex(0x07E0), pixel(479, first[3]));
    EXPECT_EQ(hex(0x001F), pixel(479, first[5]));
    EXPECT_EQ(hex(0xFFFF), pixel(240, 271));
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
    std::ifstream in(path, std::ios::binary);
    std::string png((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
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

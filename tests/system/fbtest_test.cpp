/* The framebuffer test image of the real binary on the simulated display. */
#include <gtest/gtest.h>

#include <unistd.h>

#include "simrun.h"

namespace {

/* The picture stays on the display after -F ends; a suspended second run
 * keeps the board up to look at it. */
TEST(FbTestAction, DrawsTheBandsAndTakesAScreenshot)
{
    vt::SimBoard board("[clock]\nmode = step\n[fb]\nwidth = 480\nheight = 272\n");
    vt::ProcessResult r = board.velatool({"-F"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("Display frame buffer test image\nframebuffer info: 480x272, 16bpp\n", r.out);

    vt::ChildProcess child;
    ASSERT_TRUE(board.start(child, {"-S"}));
    ASSERT_TRUE(board.await_journal("power suspend"));
    auto pixel = [&](int x, int y) { return board.ctl({"pixel", std::to_string(x), std::to_string(y)}).out; };
    /* The bands themselves are the unit suite's; here: the picture is there. */
    EXPECT_EQ("0xf800\n", pixel(479, 76));
    EXPECT_EQ("0xffff\n", pixel(240, 271));

    std::string path = board.dir() + "/shot.png";
    EXPECT_EQ(0, board.ctl({"screenshot", path}).status);
    std::string png = vt::read_file(path);
    ASSERT_GT(png.size(), 24u);
    EXPECT_EQ(std::string("\x89PNG\r\n\x1a\n", 8), png.substr(0, 8));
    EXPECT_EQ(std::string("IHDR\0\0\x01\xe0\0\0\x01\x10", 12), png.substr(12, 12)); /* 480 x 272 */

    EXPECT_EQ(0, board.ctl({"wake", "button"}).status);
    ASSERT_TRUE(child.wait(20000));
}

} // namespace

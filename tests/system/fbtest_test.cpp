/* The framebuffer test image of the real binary on the simulated display. */
#include <gtest/gtest.h>

#include <unistd.h>

#include "simrun.h"

namespace {

/* The picture stays on the display after -F ends; a suspended second run
 * keeps the board up to look at it. */
TEST(FbTestAction, DrawsTheBandsThatStayOnTheDisplay)
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

    EXPECT_EQ(0, board.ctl({"wake", "button"}).status);
    ASSERT_TRUE(child.wait(20000));
}

} // namespace

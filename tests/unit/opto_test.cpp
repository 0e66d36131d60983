/* The opto port's line set-up, and the simulated port that stands for it. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "opto.h"
#include "board.h"
#include "simtest.h"

using testing::ElementsAre;

namespace {

std::string read_bytes(int fd)
{
    unsigned char buf[32];
    ssize_t n = read(fd, buf, sizeof buf);
    return n > 0 ? sim::hex_bytes(buf, static_cast<size_t>(n)) : "";
}

bool readable(int fd)
{
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

class OptoPort : public vt::SimTest {};

TEST_F(OptoPort, SetsUpSevenBitsTwoStopBitsAndMarkedBreaks)
{
    int fd = opto_rs232_open("/dev/ttyO1");
    ASSERT_GE(fd, 0);
    struct termios t;
    ASSERT_EQ(0, tcgetattr(fd, &t));
    /* The pty keeps 8 data bits and no parity whatever is asked for. */
    EXPECT_EQ(tcflag_t(CSTOPB | CREAD | CLOCAL), t.c_cflag & (CSTOPB | CREAD | CLOCAL | CRTSCTS | HUPCL));
    EXPECT_EQ(speed_t(B4800), cfgetospeed(&t));
    EXPECT_EQ(tcflag_t(PARMRK | INPCK), t.c_iflag);
    EXPECT_EQ(0u, t.c_oflag);
    EXPECT_EQ(0u, t.c_lflag);
    EXPECT_EQ(1, t.c_cc[VMIN]);
    EXPECT_EQ(0, t.c_cc[VTIME]);

    /* A break arrives marked, exactly as three bytes; injected bytes as given. */
    EXPECT_FALSE(readable(fd));
    ASSERT_TRUE(sim::set("opto.rx", "break 41"));
    EXPECT_TRUE(readable(fd));
    EXPECT_EQ("ff 00 00 41", read_bytes(fd));
    ASSERT_TRUE(sim::set("opto.rx", "ff 00 00"));
    EXPECT_EQ("ff 00 00", read_bytes(fd));

    EXPECT_EQ(5, write(fd, "12345", 5));
    EXPECT_THAT(vt::entries("ttyO1"), ElementsAre("/dev/ttyO1 write 12345"));
    EXPECT_EQ("31 32 33 34 35", sim::get("opto.tx"));
    struct serial_icounter_struct ic = {};
    ASSERT_EQ(0, ioctl(fd, TIOCGICOUNT, &ic));
    EXPECT_EQ(7, ic.rx);
    EXPECT_EQ(5, ic.tx);
    EXPECT_EQ(1, ic.brk);
    opto_rs232_close(fd);

    /* Closing restored the terminal's settings: a break is a plain NUL. */
    fd = open("/dev/ttyO1", O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, tcgetattr(fd, &t));
    EXPECT_EQ(0u, t.c_iflag & PARMRK);
    ASSERT_TRUE(sim::set("opto.rx", "break"));
    EXPECT_EQ("00", read_bytes(fd));
    close(fd);

    opto_rs232_close(-1);
}

} // namespace

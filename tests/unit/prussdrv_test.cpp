/* Our PRU driver against the simulated uio_pruss: interrupt routing and
 * the kernel's disable-until-re-armed rule. */
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "prussdrv.h"
#include "simtest.h"
#include "uio_pruss.h"

namespace {

const tpruss_intc_initdata kIntc = {
    {17, 18, 19, 20, 21, 22, -1},
    {{17, 1}, {18, 0}, {19, 2}, {20, 3}, {21, 0}, {22, 1}, {-1, -1}},
    {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {-1, -1}},
    0xF,
};

bool readable(int fd)
{
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & POLLIN);
}

class Prussdrv : public vt::SimTest {
protected:
    void SetUp() override
    {
        vt::SimTest::SetUp();
        prussdrv_init();
        ASSERT_EQ(0, prussdrv_open(PRU_EVTOUT_0));
        ASSERT_EQ(0, prussdrv_pruintc_init(&kIntc));
    }
    void TearDown() override { prussdrv_exit(); }
};

TEST_F(Prussdrv, InterruptsReachTheirUioDeviceUntilReArmed)
{
    EXPECT_EQ(-1, prussdrv_open(PRU_EVTOUT_0)); /* already open */
    int uio0 = open("/dev/uio0", O_RDWR | O_NONBLOCK);
    int uio1 = open("/dev/uio1", O_RDWR | O_NONBLOCK);
    ASSERT_GE(uio0, 0);
    ASSERT_GE(uio1, 0);
    uint32_t count = 0;
    EXPECT_EQ(-1, read(uio0, &count, sizeof count));
    EXPECT_EQ(EAGAIN, errno);

    /* Event 19 goes through channel 2 to host 2, which is PRU_EVTOUT0. */
    ASSERT_EQ(0, prussdrv_pru_send_event(19));
    EXPECT_EQ(1, prussdrv_pru_wait_event(PRU_EVTOUT_0));
    EXPECT_TRUE(readable(uio0));
    EXPECT_FALSE(readable(uio1));
    EXPECT_EQ(4, read(uio0, &count, sizeof count));
    EXPECT_EQ(1u, count);

    /* The kernel disabled the host: nothing more until it is re-armed, and
     * re-arming after clearing the event fires nothing. */
    prussdrv_pru_send_event(19);
    EXPECT_FALSE(readable(uio0));
    prussdrv_pru_clear_event(PRU_EVTOUT_0, 19);
    EXPECT_FALSE(readable(uio0));
    prussdrv_pru_send_event(19);
    EXPECT_TRUE(readable(uio0));
    EXPECT_EQ(2, prussdrv_pru_wait_event(PRU_EVTOUT_0));
    EXPECT_EQ(4, read(uio0, &count, sizeof count)); /* each open file counts for itself */
    EXPECT_EQ(2u, count);

    /* Event 20 reaches PRU_EVTOUT1; a disabled event goes nowhere. */
    prussdrv_pru_send_event(20);
    EXPECT_TRUE(readable(uio1));
    EXPECT_EQ(4, read(uio1, &count, sizeof count));
    EXPECT_EQ(1u, count);
    prussdrv_pru_clear_event(PRU_EVTOUT_0, 19);
    prussdrv_pru_send_event(25);
    EXPECT_FALSE(readable(uio0));
    EXPECT_FALSE(readable(uio1));
    close(uio0);
    close(uio1);
}

} // namespace

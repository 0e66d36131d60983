/* Our PRU driver against the simulated uio_pruss: maps, interrupt routing
 * and the kernel's disable-until-re-armed rule. */
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
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
    EXPECT_EQ(-1, read(uio0, &count, 2));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, write(uio0, &count, sizeof count));
    EXPECT_EQ(ENOSYS, errno);
    close(uio0);
    close(uio1);
}

TEST_F(Prussdrv, MapsTranslateToPhysicalAddressesAndRefuseWhatTheKernelRefuses)
{
    void* shared = nullptr;
    void* ext = nullptr;
    void* cfg = nullptr;
    ASSERT_EQ(0, prussdrv_map_prumem(PRUSS0_SHARED_DATARAM, &shared));
    ASSERT_EQ(0, prussdrv_map_extmem(&ext));
    ASSERT_EQ(0, prussdrv_map_peripheral_io(PRUSS0_CFG, &cfg));
    EXPECT_EQ(262144u, prussdrv_extmem_size());
    EXPECT_EQ(sim::Pruss::kRegsPhys + 0x10000, prussdrv_get_phys_addr(shared));
    EXPECT_EQ(sim::Pruss::kDdrPhys + 100, prussdrv_get_phys_addr(static_cast<char*>(ext) + 100));
    EXPECT_EQ(0u, prussdrv_get_phys_addr(&cfg));
    EXPECT_EQ(0x1Au, static_cast<volatile uint32_t*>(cfg)[1]); /* SYSCFG after reset */
    EXPECT_EQ(-1, prussdrv_map_peripheral_io(PRUSS0_CFG + 1, &cfg));

    int fd = open("/dev/uio0", O_RDWR);
    ASSERT_GE(fd, 0);
    long page = sysconf(_SC_PAGESIZE);
    EXPECT_EQ(MAP_FAILED, mmap(nullptr, 0x80000 + page, PROT_READ, MAP_SHARED, fd, 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(MAP_FAILED, mmap(nullptr, page, PROT_READ, MAP_SHARED, fd, 2 * page)); /* no map2 */
    EXPECT_EQ(EINVAL, errno);
    /* Both maps are the same memory for every user. */
    void* again = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_SHARED, fd, page);
    ASSERT_NE(MAP_FAILED, again);
    static_cast<volatile uint32_t*>(ext)[3] = 0xfeedf00d;
    EXPECT_EQ(0xfeedf00du, static_cast<volatile uint32_t*>(again)[3]);
    munmap(again, page);
    close(fd);
}

} // namespace

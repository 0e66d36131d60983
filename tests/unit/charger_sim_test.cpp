/* The simulated battery charger (bq24160 at /dev/i2c-0@0x6b) as the program
 * meets it: the I2C character device, the chgint GPIO, board time. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include "clock.h"
#include "simtest.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

/* One transfer per open, as the driver does it. */
int open_chip()
{
    int fd = open("/dev/i2c-0", O_RDWR);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(0, ioctl(fd, I2C_SLAVE, 0x6b));
    return fd;
}

std::vector<int> regs(int from, int count)
{
    int fd = open_chip();
    uint8_t ptr = static_cast<uint8_t>(from);
    uint8_t buf[16] = {};
    EXPECT_EQ(1, write(fd, &ptr, 1));
    EXPECT_EQ(count, read(fd, buf, count));
    close(fd);
    return std::vector<int>(buf, buf + count);
}

int reg(int r)
{
    return regs(r, 1)[0];
}

/* 0 or the errno of the transfer. */
int put(std::vector<uint8_t> bytes)
{
    int fd = open_chip();
    ssize_t n = write(fd, bytes.data(), bytes.size());
    int err = n < 0 ? errno : 0;
    close(fd);
    return err;
}

int put(int r, int v)
{
    return put({static_cast<uint8_t>(r), static_cast<uint8_t>(v)});
}

double number(const std::string& key)
{
    return strtod(sim::get(key).c_str(), nullptr);
}

/* The interrupt line as the program watches it: edge "falling", poll POLLPRI. */
class IntLine {
public:
    IntLine()
    {
        int e = open("/sys/class/gpio/chgint/edge", O_WRONLY);
        EXPECT_EQ(8, write(e, "falling\n", 8));
        close(e);
        fd_ = open("/sys/class/gpio/chgint/value", O_RDONLY | O_NONBLOCK);
        EXPECT_GE(fd_, 0);
        value();
    }
    ~IntLine() { close(fd_); }
    bool fell()
    {
        struct pollfd p = {fd_, POLLPRI, 0};
        EXPECT_GE(poll(&p, 1, 0), 0);
        return (p.revents & POLLPRI) != 0;
    }
    /* Reading from the start also takes the edge. */
    int value()
    {
        char c[2] = {};
        lseek(fd_, 0, SEEK_SET);
        EXPECT_EQ(2, read(fd_, c, 2));
        return c[0] - '0';
    }

private:
    int fd_ = -1;
};

/* Lower case: "ctest -R charger" finds the suite. */
class charger : public vt::SimTest {
protected:
    void board(const std::string& scenario)
    {
        ASSERT_EQ("", sim::reset(scenario));
        ASSERT_TRUE(sim::clock_mode("step"));
    }
    void SetUp() override { board(""); }
};

TEST_F(charger, DetectionTakesTheDataSheetsTimeAndSetsTheLimitThePortGives)
{
    struct Case {
        const char* port;
        const char* usb_v;
        int64_t ms;
        int reg2;
    } cases[] = {{"dcp", "5", 90, 0xdc}, {"cdp", "5", 90, 0xdc}, {"sdp", "5", 90, 0x8c},
                 {"none", "5", 500, 0x8c}, {"dcp", "0", 500, 0x8c}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.port) + " at " + c.usb_v + " V");
        board(std::string("battery.voltage = 3.5\nsupply.usb_v = ") + c.usb_v + "\ncharger.usb_port = " + c.port);
        ASSERT_EQ(0, put(3, reg(3) | 1));
        int64_t t0 = sim::board_ns();
        sim::advance_clock((c.ms - 1) * sim::kMs);
        EXPECT_EQ(0x15, reg(3));
        EXPECT_EQ(0x8c, reg(2));
        /* The end of the detection is the board's next event, exactly. */
        EXPECT_THAT(sim::control("clock advance-to-next"), HasSubstr("ok"));
        EXPECT_EQ(t0 + c.ms * sim::kMs, sim::board_ns());
        EXPECT_EQ(0x14, reg(3));
        EXPECT_EQ(c.reg2, reg(2));
    }

    /* Polled without a pause, as the program polls it: board time stands
     * still, the bus time of the polls (2 x 2 bytes at 100 kHz) ends it. */
    board("battery.voltage = 3.5\nsupply.usb_v = 5\ncharger.usb_port = sdp");
    ASSERT_EQ(0, put(3, 0x15));
    int64_t t0 = sim::board_ns();
    int polls = 0;
    while (reg(3) & 1 && polls < 10000)
        polls++;
    EXPECT_EQ(249, polls);
    EXPECT_EQ(t0, sim::board_ns());

}

TEST_F(charger, TheBatteryChargesToVbregAndDischargesWithTheLoadOverAnySpan)
{
    /* 1450 mA into 1000 mAh: 4.83e-4 V/s, so 3.9 V to 4.0 V takes 206.9 s. */
    board("battery.voltage = 3.9\nbattery.capacity_mah = 1000\ncharger.watchdog = 0");
    ASSERT_EQ(0, put({2, 0x5c, 0x64, 0x40, 0x62})); /* 1500 mA USB limit, VBREG 4.0 V, ICHRG 1450 mA */
    ASSERT_TRUE(sim::set("supply.usb_v", "5"));
    int64_t t0 = sim::board_ns();
    double rate = 1450.0 / (1000 * 3600.0) * 1.2;
    sim::advance_clock(200 * sim::kSec);
    EXPECT_EQ(0x40, reg(0));
    EXPECT_NEAR(3.9 + 200 * rate, number("battery.voltage"), 1e-7); /* printed to 9 digits */
    EXPECT_EQ(0, IntLine().value()); /* INT held low while charging */

    EXPECT_THAT(sim::control("clock advance-to-next"), HasSubstr("ok"));
    EXPECT_NEAR(0.1 / rate, static_cast<double>(sim::board_ns() - t0) / sim::kSec, 1e-6);
    EXPECT_EQ(0x50, reg(0)); /* charge done */
    EXPECT_EQ("4", sim::get("battery.voltage"));
    EXPECT_EQ(1, IntLine().value());

    /* Hours in one step: nothing drifts at VBREG without a load. */
    sim::advance_clock(10 * 3600 * sim::kSec);
    EXPECT_EQ(0x50, reg(0));
    EXPECT_EQ("4", sim::get("battery.voltage"));

    /* On the battery a 500 mA load takes 0.6 V an hour from 1000 mAh. */
    board("battery.voltage = 3.9\nbattery.capacity_mah = 1000");
    ASSERT_TRUE(sim::set("supply.load_ma", "500"));
    sim::advance_clock(3600 * sim::kSec);
    EXPECT_NEAR(3.3, number("battery.voltage"), 1e-7);
    EXPECT_DOUBLE_EQ(-500, number("battery.current_ma"));
}

TEST_F(charger, IntPulsesOnAStatusChangeAndOnlyThen)
{
    board("battery.voltage = 3.5\ncharger.watchdog = 0");
    IntLine line;
    /* Register traffic and time alone change no status. */
    ASSERT_EQ(0, put(2, 0x0e)); /* charging disabled */
    regs(0, 8);
    sim::advance_clock(1 * sim::kSec);
    EXPECT_FALSE(line.fell());

    /* A plug-in: a 128 us low pulse, whose end is the next event. */
    ASSERT_TRUE(sim::set("supply.usb_v", "5"));
    int64_t t0 = sim::board_ns();
    EXPECT_TRUE(line.fell());
    EXPECT_EQ(0, line.value());
    EXPECT_THAT(sim::control("clock advance-to-next"), HasSubstr("ok"));
    EXPECT_EQ(t0 + 128 * sim::kUs, sim::board_ns());
    EXPECT_EQ(1, line.value());
    EXPECT_FALSE(line.fell());

    /* A removal: the edge waits for the program, however late it looks. */
    ASSERT_TRUE(sim::set("supply.usb_v", "0"));
    sim::advance_clock(1 * sim::kSec);
    EXPECT_TRUE(line.fell());
    EXPECT_EQ(1, line.value());
    EXPECT_THAT(vt::entries("charger int"), ElementsAre("charger int USB normal", "charger int USB below UVLO"));

    /* Charging pulls INT low and keeps it there (EN_STAT); the end of
     * charging releases it without a pulse. */
    ASSERT_EQ(0, put(2, 0x0c));
    ASSERT_TRUE(sim::set("supply.usb_v", "5"));
    sim::advance_clock(1 * sim::kMs);
    EXPECT_TRUE(line.fell());
    EXPECT_EQ(0, line.value());
    ASSERT_EQ(0, put(3, 0x00)); /* VBREG 3.5 V, reached: done */
    EXPECT_EQ(0x50, reg(0));
    EXPECT_EQ(1, line.value());
    EXPECT_FALSE(line.fell());
}

} // namespace

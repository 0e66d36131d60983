/* The platform's power controls on the simulated board: USB host port,
 * backlight, CPU frequency, run LED and RTC wake-up alarm. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <linux/rtc.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "power.h"
#include "simtest.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const char kUsbDriver[] = "/sys/bus/platform/drivers/musb-dsps/";

class Power : public vt::SimTest {};

TEST_F(Power, UsbHostPortSwitchesSupplyAndControllerRole)
{
    /* Bound as peripheral: the controller is bound again with the supply
     * on, and comes up as host. */
    ASSERT_EQ(0, vela_usbhost_power_ctrl(1));
    EXPECT_EQ("1", sim::get("usbhost.power"));
    EXPECT_EQ("1", sim::get("usb.host_role"));
    /* Already host: only the supply is written. */
    ASSERT_EQ(0, vela_usbhost_power_ctrl(1));
    /* Off: unbind, then the supply. */
    ASSERT_EQ(0, vela_usbhost_power_ctrl(0));
    EXPECT_EQ("0", sim::get("usb.bound"));
    /* Unbound: the role file is gone, so the controller is bound. */
    ASSERT_EQ(0, vela_usbhost_power_ctrl(1));
    std::string unbind = std::string(kUsbDriver) + "unbind write 47401c00.usb";
    std::string bind = std::string(kUsbDriver) + "bind write 47401c00.usb";
    EXPECT_THAT(sim::journal_entries(),
                ElementsAre("/sys/class/gpio/usb_power/value write 1", unbind, bind,
                            "/sys/class/gpio/usb_power/value write 1", unbind,
                            "/sys/class/gpio/usb_power/value write 0", "/sys/class/gpio/usb_power/value write 1", bind));

    /* Switching off twice: the second unbind is refused, which is no error. */
    ASSERT_EQ(0, vela_usbhost_power_ctrl(0));
    EXPECT_EQ(0, vela_usbhost_power_ctrl(0));
    EXPECT_THAT(sim::journal_entries().back(), HasSubstr("usb_power/value write 0"));
    EXPECT_EQ(1u, vt::entries("unbind write 47401c00.usb -> ENODEV").size());
}

TEST_F(Power, BacklightLedAndFaults)
{
    /* Out of range is the command line's case. */
    EXPECT_EQ(0, vela_backlight_set(0));
    EXPECT_EQ(0, vela_backlight_set(100));
    uint8_t b = 0;
    EXPECT_EQ(0, vela_backlight_get(&b));
    EXPECT_EQ(100, b);

    EXPECT_EQ(0, vela_led_set(2));
    EXPECT_EQ("timer", sim::get("led.trigger"));
    EXPECT_EQ(0, vela_led_set(1));
    EXPECT_EQ(0, vela_led_set(0));
    EXPECT_EQ(-EINVAL, vela_led_set(3));
    EXPECT_THAT(sim::journal_entries(),
                ElementsAre("/sys/class/backlight/tps65217-bl/brightness write 0",
                            "/sys/class/backlight/tps65217-bl/brightness write 100",
                            "/sys/devices/leds.4/leds/vela:green:run/trigger write timer",
                            "/sys/devices/leds.4/leds/vela:green:run/trigger write default-on",
                            "/sys/devices/leds.4/leds/vela:green:run/trigger write none"));

    sim::control("absent /sys/class/backlight/tps65217-bl/actual_brightness");
    EXPECT_EQ(-1, vela_backlight_get(&b));
}

/* The limits are written so that the minimum never exceeds the maximum; the
 * kernel refuses the other order. */
TEST_F(Power, CpuFrequencyLimitsInAnOrderTheKernelTakes)
{
    ASSERT_EQ(0, vela_cpufreq_set(0));
    ASSERT_EQ(0, vela_cpufreq_set(1));
    const std::string dir = "/sys/devices/system/cpu/cpu0/cpufreq/";
    EXPECT_THAT(vt::entries("cpufreq"),
                ElementsAre(dir + "scaling_min_freq write 300000", dir + "scaling_max_freq write 300000",
                            dir + "scaling_max_freq write 800000", dir + "scaling_min_freq write 600000"));
    EXPECT_EQ("600000", sim::get("cpufreq.min_khz"));
    EXPECT_EQ("800000", sim::get("cpufreq.max_khz"));

    sim::fault(dir + "scaling_max_freq", "write", EIO);
    EXPECT_EQ(-1, vela_cpufreq_set(1)); /* the first write fails: the second is not made */
    EXPECT_EQ("600000", sim::get("cpufreq.min_khz"));
}

class RtcAlarm : public vt::SimTest {
protected:
    std::string scenario() const override { return "[clock]\nmode = step\n"; }
    void SetUp() override
    {
        vt::SimTest::SetUp();
        setenv("TZ", "UTC", 1);
        tzset();
    }
    void TearDown() override
    {
        unsetenv("TZ");
        tzset();
    }

    /* The RTC at 12:00:00 on 22 November 2026. */
    void set_rtc_noon()
    {
        int fd = open("/dev/rtc0", O_RDONLY);
        struct rtc_time t = {0, 0, 12, 22, 10, 126, 0, 0, 0};
        ASSERT_EQ(0, ioctl(fd, RTC_SET_TIME, &t));
        close(fd);
        sim::journal_clear();
    }
};

TEST_F(RtcAlarm, WakesOneSecondLaterThanAsked)
{
    set_rtc_noon();
    ASSERT_EQ(0, vela_rtc_alarm(10));
    EXPECT_EQ("2026-11-22 12:00:11 enabled", sim::get("rtc.alarm"));
    ASSERT_EQ(0, vela_rtc_alarm(0));
    EXPECT_THAT(sim::journal_entries(),
                ElementsAre("/dev/rtc0 RTC_WKALM_SET 2026-11-22 12:00:11 enabled", "/dev/rtc0 RTC_AIE_OFF"));

    /* The same in another time zone: the round trip keeps the RTC's base. */
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    ASSERT_EQ(0, vela_rtc_alarm(30));
    EXPECT_EQ("2026-11-22 12:00:31 enabled", sim::get("rtc.alarm"));

    sim::fault("/dev/rtc0", "ioctl:RTC_RD_TIME", EIO);
    EXPECT_EQ(-1, vela_rtc_alarm(30));
    sim::control("absent /dev/rtc0");
    EXPECT_EQ(-1, vela_rtc_alarm(30));
}

} // namespace

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <unistd.h>

#include "am335x_adc.h"
#include "simtest.h"

using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

std::string channel_path(int ch)
{
    return "/sys/bus/iio/devices/iio:device0/in_voltage" + std::to_string(ch) + "_raw";
}

class Adc : public vt::SimTest {
protected:
    void SetUp() override
    {
        vt::SimTest::SetUp();
        ASSERT_EQ(0, am335x_adc_init(&hnd_));
    }
    void TearDown() override
    {
        am335x_adc_close(hnd_);
        for (int ch = 0; ch < VELA_ADC_CHANNELS; ch++)
            EXPECT_TRUE(sim::descriptors(channel_path(ch)).empty()) << "channel " << ch << " left open";
    }

    float read(uint8_t ch)
    {
        float v = NAN;
        EXPECT_EQ(0, am335x_adc_read_single(hnd_, ch, &v)) << "channel " << int{ch};
        return v;
    }

    adchnd_t hnd_ = nullptr;
};

TEST_F(Adc, ConvertsCodesToVoltsAtTheDividerInput)
{
    /* Without noise, the battery beyond full scale reads 4095 and the motor
     * supply 2048. */
    sim::set("adc.noise_codes", "0");
    sim::set("battery.voltage", "6");
    sim::set("motor.power", "1");
    sim::set("motor.supply_v", "3.6818");
    EXPECT_NEAR(5.508f, read(1), 0.0005f);
    EXPECT_NEAR(3.682f, read(3), 0.0005f);
    sim::set("battery.voltage", "0");
    EXPECT_EQ(0.0f, read(1));
    sim::set("motor.power", "0");
    EXPECT_EQ(0.0f, read(3));

    /* The NTC divider against its reference reads back the board's
     * temperature. */
    sim::set("battery.temp_c", "45");
    float t = NAN;
    vela_battery_temp(read(0), read(7), &t);
    EXPECT_NEAR(45.0f, t, 0.3f);
}

TEST_F(Adc, RefusesChannelsWithoutTouchingAFile)
{
    float v = 1.5f;
    /* Every channel file fails its next read: a refused channel must leave
     * all eight faults pending. Channel 8 passes the range check and is
     * refused only for want of a divider. */
    for (int ch = 0; ch < VELA_ADC_CHANNELS; ch++)
        sim::fault(channel_path(ch), "read", EIO);
    EXPECT_EQ(-EINVAL, am335x_adc_read_single(hnd_, 8, &v));
    EXPECT_EQ(-EINVAL, am335x_adc_read_single(hnd_, 9, &v));
    EXPECT_EQ(1.5f, v);

    CaptureStderr();
    for (uint8_t ch = 0; ch < VELA_ADC_CHANNELS; ch++)
        EXPECT_EQ(-EIO, am335x_adc_read_single(hnd_, ch, &v));
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("read: Input/output error"));
    EXPECT_EQ(1.5f, v);
    EXPECT_NEAR(3.9f, read(1), 0.01f); /* the handle survives */
}

TEST_F(Adc, ReadAllFillsTheTableAndCarriesAFailedChannelOver)
{
    sim::fault(channel_path(2), "read", EIO);
    struct vela_adc_s all;
    CaptureStderr();
    EXPECT_EQ(0, am335x_adc_read(hnd_, &all));
    GetCapturedStderr();
    EXPECT_STREQ("NTC voltage [V]", all.name[0]);
    EXPECT_STREQ("NTC ref. voltage [V]", all.name[7]);
    EXPECT_NEAR(3.9f, all.val[1], 0.01f);
    EXPECT_EQ(all.val[1], all.val[2]); /* channel 2 failed: channel 1's value */
    EXPECT_NEAR(3.3f, all.val[7], 0.01f);
}

class AdcInit : public vt::SimTest {};

/* A failed init closes from the failing slot down to slot 1: the failing
 * slot still holds 0, so descriptor 0 is closed, and slot 0's descriptor
 * stays open. Descriptor 0 is a pipe of our own during the call, with the
 * test's stdin parked aside and put back afterwards. */
TEST_F(AdcInit, FailedInitClosesFromTheFailingSlotDownToOne)
{
    int saved_stdin = dup(0);
    int p[2];
    ASSERT_EQ(0, pipe(p));
    ASSERT_EQ(0, dup2(p[0], 0));
    close(p[0]);

    sim::control("absent " + channel_path(3));
    adchnd_t hnd = reinterpret_cast<adchnd_t>(0x1234);
    CaptureStderr();
    EXPECT_EQ(-1, am335x_adc_init(&hnd));
    EXPECT_THAT(GetCapturedStderr(), HasSubstr(channel_path(3) + ": No such file or directory"));
    EXPECT_EQ(reinterpret_cast<adchnd_t>(0x1234), hnd);

    errno = 0;
    EXPECT_EQ(-1, fcntl(0, F_GETFD));
    EXPECT_EQ(EBADF, errno);
    EXPECT_TRUE(sim::descriptors(channel_path(1)).empty());
    EXPECT_TRUE(sim::descriptors(channel_path(2)).empty());
    std::vector<int> leaked = sim::descriptors(channel_path(0));
    EXPECT_EQ(1u, leaked.size());

    for (int fd : leaked)
        close(fd);
    close(p[1]);
    if (saved_stdin >= 0) {
        dup2(saved_stdin, 0);
        close(saved_stdin);
    }
}

} // namespace

/* The acquisition engine against the simulated PRU subsystem and firmware. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <unistd.h>

#include "aquisition.h"
#include "process.h"
#include "prussdrv.h"
#include "pru_firmware.h"
#include "uio_pruss.h"
#include "simtest.h"
#include "tempdir.h"
#include "velatool.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

/* Channel on, sine at 20 kHz, the probe travelling over the roughness
 * standard at 1 mm/s: samples swing by about 500 codes every 0.1 mm. */
const char kMeasuring[] = "[meas]\npower = 1\n[sine]\ncontrol = 0\nfreq0 = 335544\n"
                          "[motor]\npower = 1\ndac = 2972\n[clock]\nmode = warp\n";
const uint32_t kZeroRaw = 39830;

class Aquisition : public vt::SimTest {
protected:
    std::string scenario() const override { return kMeasuring; }

    void init()
    {
        ASSERT_EQ(0, aquisition_init(&info, 8));
        ASSERT_NE(nullptr, info.comm);
    }

    /* The firmware ends a counted acquisition by itself. */
    bool wait_idle()
    {
        return vt::eventually([this] { return info.comm->out_state == 0; });
    }

    pruss_info_s info = {};
};

/* The firmware model: it stands in for the PRU cores where a test needs
 * what only it can do. */
class OnTheModel : public Aquisition {
protected:
    std::string scenario() const override { return std::string(kMeasuring) + "[pru]\nengine = model\n"; }
};

/* A pool of 4 KiB: 2048 samples, a test acquisition of about one second. */
class SmallPool : public Aquisition {
protected:
    std::string scenario() const override { return std::string(kMeasuring) + "[pru]\nextram_size = 4096\n"; }
};

std::vector<int> read_samples(const std::string& path)
{
    std::istringstream in(vt::read_file(path));
    std::vector<int> v;
    int x;
    while (in >> x)
        v.push_back(x);
    return v;
}

TEST_F(Aquisition, InitLoadsAndStartsTheFirmwareAndShutdownStopsIt)
{
    init();
    EXPECT_EQ(131072, info.max_samples);
    EXPECT_EQ(sim::Pruss::kDdrPhys, info.extram_pa);
    EXPECT_EQ(sim::PruFirmware::kVersion0, info.comm->out_version0);
    EXPECT_EQ(sim::PruFirmware::kVersion1, info.comm->out_version1);
    EXPECT_EQ(8u, info.comm->in_delay);
    EXPECT_EQ(0u, info.comm->in_cmd);
    EXPECT_EQ(50000u, info.comm->out_periodtime); /* 20 kHz, in ns */
    EXPECT_THAT(vt::entries("pruss"), ElementsAre("pruss pru0 start 0x0724", "pruss pru1 start 0x0220"));
    EXPECT_EQ("idle", sim::get("pru.state"));

    sim::journal_clear();
    EXPECT_EQ(0, aquisition_shutdown(&info));
    sim::advance();
    EXPECT_THAT(vt::entries("pruss"),
                ElementsAre("pruss pru0 stop", "pruss pru1 stop", "pruss SYSCFG 0x0000001a"));
    EXPECT_EQ("off", sim::get("pru.state"));

    /* Init again, as the server does on every return to the measuring state. */
    init();
    EXPECT_EQ(sim::PruFirmware::kVersion0, info.comm->out_version0);
    aquisition_shutdown(&info);
}

TEST_F(Aquisition, WithoutTheUioDeviceInitFailsAtOnce)
{
    sim::control("absent /dev/uio0");
    EXPECT_EQ(-1, aquisition_init(&info, 8));
    EXPECT_EQ(nullptr, info.comm);
}

TEST_F(Aquisition, SamplesFromTravelLengthAndSpeed)
{
    info.max_samples = 131072;
    int samples = -1;
    EXPECT_EQ(0, aquisition_x_to_samples(&info, 10.0, 0.5, 2000, &samples));
    EXPECT_EQ(40000, samples);
    EXPECT_EQ(0, aquisition_x_to_samples(&info, 0.7, 3.0, 2000, &samples));
    EXPECT_EQ(466, samples); /* 466.67, truncated */
    EXPECT_EQ(0, aquisition_x_to_samples(&info, 0.0, 0.5, 2000, &samples));
    EXPECT_EQ(0, samples);

    samples = 7;
    EXPECT_EQ(-EINVAL, aquisition_x_to_samples(&info, 1.0, 0.0, 2000, &samples));
    EXPECT_EQ(-EINVAL, aquisition_x_to_samples(&info, -0.1, 0.5, 2000, &samples));
    EXPECT_EQ(-ENOMEM, aquisition_x_to_samples(&info, 65.537, 1.0, 2000, &samples)); /* 131074 */
    EXPECT_EQ(7, samples);
    EXPECT_EQ(0, aquisition_x_to_samples(&info, 65.536, 1.0, 2000, &samples));
    EXPECT_EQ(131072, samples);
}

TEST_F(Aquisition, StartWritesTheRequestAndIsRefusedWhileTheFirmwareRuns)
{
    init();
    EXPECT_EQ(0, aquisition_start(&info, 1, 2000, 10, 60000, 5, 6, 3, 1));
    volatile prucomm_s* c = info.comm;
    EXPECT_EQ(info.extram_pa, c->in_pextram);
    EXPECT_THAT(vt::entries("pruss acquire"),
                ElementsAre("pruss acquire count=1 interval=1562 ovs=6 filter=1 mode=9 skip=3 min=10 max=60000"));
    EXPECT_EQ(1u, c->out_state);

    /* The monitor keeps sampling into its one slot while in_cmd stays 1. */
    usleep(50000);
    EXPECT_EQ(1u, c->out_state);
    EXPECT_EQ(1u, c->out_count);
    uint32_t first = c->out_lastsample;
    usleep(50000); /* 0.05 mm further on */
    EXPECT_NE(first, c->out_lastsample);
    EXPECT_EQ(c->out_lastsample, info.p_samples[0]);
    EXPECT_EQ(0u, info.p_samples[1]);

    prucomm_s before;
    memcpy(&before, (const void*)c, sizeof before);
    EXPECT_EQ(-EBUSY, aquisition_start(&info, 500, 128000, 0, 65535, 0, 0, 0, 0));
    EXPECT_EQ(0, memcmp(&before, (const void*)c, offsetof(prucomm_s, out_count)));
    EXPECT_EQ(1u, vt::entries("pruss raise 21").size());

    EXPECT_EQ(0, aquisition_stop(&info));
    EXPECT_EQ(0u, c->in_cmd);
    EXPECT_EQ(0u, c->out_state);
    EXPECT_EQ(1u, vt::entries("pruss raise 21").size()); /* stopping raises no event */

    EXPECT_EQ(0, aquisition_start(&info, 100000, 128000, 0, 65535, 0, 0, 0, 0));
    EXPECT_THAT(vt::entries("pruss acquire").back(), HasSubstr("interval=1562 ovs=0 filter=0 mode=1"));
    EXPECT_EQ(0, aquisition_stop(&info));
    aquisition_shutdown(&info);
}

/* An hour of the idle monitor costs what the program can see of it: the
 * last sample, not 360 million conversions (the cores would run them all). */
TEST_F(OnTheModel, AMonitorOverALongSpanComputesOnlyWhatCanBeSeen)
{
    init();
    ASSERT_EQ(0, aquisition_start(&info, 1, 2000, 0, 65535, 1, 6, 0, 0));
    sim::set("motor.power", "0");
    usleep(1000);
    uint64_t before = std::stoull(sim::get("pru.conversions"));
    sleep(3600);
    EXPECT_LT(std::stoull(sim::get("pru.conversions")) - before, 1000u);
    EXPECT_EQ(1u, info.comm->out_count);
    EXPECT_NEAR(kZeroRaw, info.comm->out_lastsample, 500); /* a sample of the surface, fresh */
    EXPECT_EQ(info.comm->out_lastsample, info.p_samples[0]);
    EXPECT_EQ(0, aquisition_stop(&info));
    aquisition_shutdown(&info);
}

/* What the scan relies on: the samples in the buffer, the count, the extremes
 * with their positions, and the overflow reports. */
TEST_F(Aquisition, CountedAcquisitionFillsTheBufferAndReportsOverflows)
{
    init();
    const uint32_t count = 300; /* 0.15 mm of travel, one and a half periods */
    ASSERT_EQ(0, aquisition_start(&info, count, 2000, kZeroRaw - 100, kZeroRaw + 100, 1, 6, 5, 1));
    ASSERT_TRUE(wait_idle());
    volatile prucomm_s* c = info.comm;
    ASSERT_EQ(count, c->out_count);

    std::vector<uint32_t> s(info.p_samples, info.p_samples + count);
    EXPECT_EQ(0u, info.p_samples[count]);
    auto lo = std::min_element(s.begin(), s.end()); /* the first of equals, as the firmware */
    auto hi = std::max_element(s.begin(), s.end());
    EXPECT_GT(*hi - *lo, 300u);
    EXPECT_EQ(*lo, c->out_min);
    EXPECT_EQ(*hi, c->out_max);
    EXPECT_EQ(uint32_t(lo - s.begin()), c->out_minpos);
    EXPECT_EQ(uint32_t(hi - s.begin()), c->out_maxpos);
    EXPECT_EQ(s.back(), c->out_lastsample);
    EXPECT_EQ(uint32_t(std::count_if(s.begin(), s.end(), [](uint32_t v) { return v < kZeroRaw - 100; })),
              c->out_of_mincount);
    uint32_t first_over = *std::find_if(s.begin(), s.end(), [](uint32_t v) { return v > kZeroRaw + 100; });
    EXPECT_EQ(2u, c->out_error);
    EXPECT_EQ(first_over, c->debug[1]);
    EXPECT_THAT(vt::entries("pruss"),
                testing::Contains("pruss acquire count=300 interval=1562 ovs=6 filter=1 mode=9 skip=5 min=39730 max=39930"));
    EXPECT_THAT(vt::entries("pruss done"), ElementsAre("pruss done count=300 error=2"));
    aquisition_shutdown(&info);
}

TEST_F(Aquisition, FirmwareThatDoesNotStartOrStopOrReportsAnError)
{
    init();
    sim::set("pru.fault", "no-start");
    EXPECT_EQ(-EIO, aquisition_start(&info, 100, 2000, 0, 65535, 1, 6, 0, 0));
    EXPECT_EQ(1u, info.comm->in_cmd); /* the request stays written */
    EXPECT_EQ(100u, info.comm->in_maxcount);

    sim::set("pru.fault", "no-stop");
    ASSERT_EQ(0, aquisition_start(&info, 1, 2000, 0, 65535, 1, 6, 0, 0));
    EXPECT_EQ(-EIO, aquisition_stop(&info));
    EXPECT_EQ(0u, info.comm->in_cmd);
    EXPECT_EQ(1u, info.comm->out_state);

    sim::set("pru.fault", "none");
    ASSERT_EQ(0, aquisition_stop(&info));
    /* 1024-fold oversampling: conversions closer than the ADC allows. */
    EXPECT_EQ(-EIO, aquisition_start(&info, 200, 2000, 0, 65535, 1, 10, 0, 0));
    EXPECT_EQ(4u, info.comm->out_error);
    EXPECT_EQ(0u, info.comm->out_count);
    aquisition_shutdown(&info);
}

TEST_F(SmallPool, TestAcquisitionPrintsStatisticsHistogramAndWritesTheSamples)
{
    vt::TempDir dir;
    std::string file = dir.file("samples.txt");
    CaptureStdout();
    int width = do_aquisition(file.c_str(), 2, 1);
    std::string out = GetCapturedStdout();

    /* Mode 2: raw conversions, no filter, the whole pool. */
    EXPECT_THAT(vt::entries("acquire"), ElementsAre(HasSubstr("count=2048 interval=1562 ovs=0 filter=0 mode=9")));
    std::vector<int> s = read_samples(file);
    ASSERT_EQ(2048u, s.size());
    auto lo = std::min_element(s.begin(), s.end()); /* the first of equals, as the firmware */
    auto hi = std::max_element(s.begin(), s.end());
    EXPECT_GT(width, 0);
    EXPECT_EQ(*hi - *lo, width);
    EXPECT_THAT(out, HasSubstr("\nHistogram width: " + std::to_string(width) + "\n"));

    char status[128];
    snprintf(status, sizeof status, "aquisition: count: 2048, last: 0x%04x, min: 0x%04x @ %d, max: 0x%04x @ %d\r\n",
             s.back(), *lo, (int)(lo - s.begin()), *hi, (int)(hi - s.begin()));
    EXPECT_THAT(out, HasSubstr(status));
    EXPECT_THAT(out, HasSubstr("\ndone: error=0\ncommunication structure:\n version pru0: 21\n version pru1: 12\n"
                               " delay: 8\n periodtime: 50000\n count: 2048\n"));
    int minpos = (int)(lo - s.begin());
    char around[64];
    snprintf(around, sizeof around, "[%04x +  0]: %04x, %d\n", minpos, *lo, *lo);
    EXPECT_THAT(out, HasSubstr("Samples around minimum\n"));
    EXPECT_THAT(out, HasSubstr(around));
    EXPECT_THAT(vt::entries("pruss pru"), testing::Contains("pruss pru0 stop"));
}

TEST_F(SmallPool, SampleFileFailureAndAcquisitionWithoutSamples)
{
    sim::set("pru.fault", "no-start");
    CaptureStdout();
    EXPECT_EQ(-1, do_aquisition("/nonexistent/dir/samples.txt", 0, 0));
    std::string out = GetCapturedStdout();
    /* No sample: the status line once, and a histogram of nothing. */
    EXPECT_EQ("aquisition: count: 0, last: 0x0000, min: 0x0000 @ 0, max: 0x0000 @ 0\r\n"
              "done: error=0\n"
              "Histogram width: 0\n",
              out);
    EXPECT_THAT(vt::entries("pruss pru"), testing::Contains("pruss pru1 stop"));
}

TEST_F(SmallPool, ModeFourLeavesThePrusRunning)
{
    CaptureStdout();
    EXPECT_GE(do_aquisition(nullptr, 4, 0), 0);
    GetCapturedStdout();
    EXPECT_THAT(vt::entries("acquire"), ElementsAre(HasSubstr("count=2048 interval=1562 ovs=6 filter=1 mode=9")));
    sim::advance();
    EXPECT_TRUE(vt::entries("pruss pru0 stop").empty());
    EXPECT_EQ("idle", sim::get("pru.state"));
    prussdrv_exit();
}

} // namespace

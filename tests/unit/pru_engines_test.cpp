/* The firmware on the simulated PRU cores and the firmware model give the
 * program the same samples and the same out_ fields. */
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "aquisition.h"
#include "process.h"
#include "prussdrv.h"
#include "sim.h"
#include "simtest.h"

namespace {

/* Channel on, sine at 20 kHz, the probe over the roughness standard, no
 * noise: what the probe sees depends only on where the drive has it. The
 * longest scan ends before the end of the travel, where the drive stops
 * within a conversion interval (the engines see that stop differently). */
const char kBoard[] = "[meas]\npower = 1\n[sine]\ncontrol = 0\nfreq0 = 335544\n[motor]\npower = 1\n"
                      "[drive]\nposition_mm = 1\n[probe]\nnoise_raw = 0\n[clock]\nmode = warp\n";
const char* const kEngines[] = {"model", "firmware"};

/* What the program can see of an acquisition: the block from out_count to
 * out_of_mincount, debug word 1, the versions, the period, and the samples. */
struct Seen {
    std::vector<uint32_t> block;
    std::vector<uint16_t> samples;
    bool operator==(const Seen&) const = default;
};

struct Request {
    const char* name;
    int samples, sps, ovs, filter, skip, dac; /* dac: the drive's speed */
    uint16_t ov_min = 0, ov_max = 65535;
};

class PruEngines : public testing::Test {
protected:
    void boot(const char* engine, int dac = 2082)
    {
        ASSERT_EQ("", sim::reset(std::string(kBoard) + "[pru]\nengine = " + engine + "\n"));
        ASSERT_EQ(0, aquisition_init(&info, 8));
        /* The drive starts now: the engines take their own time to boot. */
        ASSERT_TRUE(sim::set("motor.dac", std::to_string(dac)));
    }

    Seen seen(uint32_t samples) const
    {
        volatile const uint32_t* w = reinterpret_cast<volatile const uint32_t*>(info.comm);
        Seen s;
        for (uint32_t off : {4, 44, 48, 52, 56, 60, 64, 68, 72, 76, 84, 112, 120})
            s.block.push_back(uint32_t{w[off / 4]});
        s.samples.assign(info.p_samples, info.p_samples + samples);
        return s;
    }

    /* A counted acquisition to its end. */
    Seen acquire(const char* engine, const Request& r)
    {
        boot(engine, r.dac);
        EXPECT_EQ(0, aquisition_start(&info, r.samples, r.sps, r.ov_min, r.ov_max, r.filter, r.ovs, r.skip, 1));
        /* A deadline for a hang: the 17.5 mm scan takes a while on the
         * cores under the emulator. */
        EXPECT_TRUE(vt::eventually([this] { return info.comm->out_state == 0; }, 240000)) << r.name;
        Seen s = seen(static_cast<uint32_t>(r.samples));
        aquisition_shutdown(&info);
        return s;
    }

    /* The monitor, stopped and started again, as around a scan. */
    std::vector<Seen> monitor(const char* engine)
    {
        boot(engine, 2972);
        std::vector<Seen> all;
        EXPECT_EQ(0, aquisition_start(&info, 1, 2000, 0, 65535, 1, 6, 3, 0));
        usleep(20000);
        all.push_back(seen(1));
        EXPECT_EQ(0, aquisition_stop(&info));
        all.push_back(seen(1));
        EXPECT_EQ(0, aquisition_start(&info, 1, 2000, 0, 65535, 1, 6, 3, 0));
        all.push_back(seen(1)); /* the last sample of the run before */
        usleep(30000);
        all.push_back(seen(1));
        aquisition_shutdown(&info);
        return all;
    }

    pruss_info_s info = {};
};

TEST_F(PruEngines, CountedAcquisitionsGiveTheSameSamples)
{
    /* The test acquisition's modes on a 2048-sample buffer, then scans: each
     * speed over 0.1 mm and each length (0.1, 1 and 17.5 mm) at 1 mm/s
     * (2000 samples a mm). The speed alone sets the interval and the drive,
     * the length alone the count, so the rest of the nine pairs adds board
     * time (a 17.5 mm scan at 0.1 mm/s is 175 s) and no new path. */
    const Request requests[] = {
        {"full buffer", 2048, 2000, 6, 1, 0, 2972},
        {"raw", 2048, 128000, 0, 0, 0, 2972},
        {"limits, skip", 3000, 2000, 6, 1, 5, 2972, 39730, 39930},
        {"0.1 mm at 0.1 mm/s", 200, 200, 6, 1, 0, 2171},
        {"0.1 mm at 0.5 mm/s", 200, 1000, 6, 1, 0, 2527},
        {"0.1 mm at 1 mm/s", 200, 2000, 6, 1, 0, 2972},
        {"1 mm at 1 mm/s", 2000, 2000, 6, 1, 0, 2972},
        {"17.5 mm at 1 mm/s", 35000, 2000, 6, 1, 0, 2972},
    };
    for (const Request& r : requests) {
        Seen model = acquire("model", r);
        Seen firmware = acquire("firmware", r);
        ASSERT_EQ(model.block, firmware.block) << r.name;
        /* The drive integrates its position at every board step, and the
         * engines step the board differently: depending on the compiler's
         * rounding, a rare sample ends up a code apart. */
        for (size_t i = 0; i < model.samples.size(); i++)
            ASSERT_LE(std::abs(model.samples[i] - firmware.samples[i]), 1) << r.name << ", sample " << i;
    }
}

TEST_F(PruEngines, TheMonitorKeepsItsLastSampleAcrossARestart)
{
    std::vector<Seen> model = monitor("model");
    std::vector<Seen> firmware = monitor("firmware");
    for (size_t i = 0; i < model.size(); i++)
        EXPECT_EQ(model[i], firmware[i]) << "snapshot " << i;
    ASSERT_EQ(4u, model.size());
    EXPECT_NE(0u, model[2].block[2]);               /* out_lastsample at the restart */
    EXPECT_EQ(model[1].block[2], model[2].block[2]); /* the stopped run's */
}

/* Requests the firmware refuses: out_error says why, out_state stays 0, and
 * the next good request runs. */
TEST_F(PruEngines, BadRequestsAreRefusedWithTheirReason)
{
    const struct {
        uint32_t offset, value, error;
    } bad[] = {
        {36, 17, 3},         /* in_ovsdepth */
        {16, 299, 4},        /* in_interval: closer than a conversion */
        {16, 200001, 4},     /* longer than a stop may take */
        {0, 0, 5},           /* in_pextram */
        {0, 0x4A300000, 5},  /* the PRU subsystem itself */
        {20, 0x20000001, 6}, /* in_maxcount past DDR */
    };
    for (const char* engine : kEngines) {
        boot(engine);
        volatile uint32_t* w = reinterpret_cast<volatile uint32_t*>(info.comm);
        for (const auto& b : bad) {
            ASSERT_EQ(0, aquisition_start(&info, 100, 2000, 0, 65535, 1, 6, 0, 0)) << engine << " " << b.offset;
            ASSERT_EQ(0, aquisition_stop(&info));
            w[b.offset / 4] = b.value;
            w[2] = 1; /* in_cmd */
            prussdrv_pru_send_event(21);
            usleep(1000);
            EXPECT_EQ(0u, info.comm->out_state) << engine << " " << b.offset;
            EXPECT_EQ(b.error, info.comm->out_error) << engine << " " << b.offset;
            EXPECT_EQ(0u, info.comm->out_count) << engine << " " << b.offset;
        }
        aquisition_shutdown(&info);
    }
}

} // namespace

/* Power events on the simulated board: battery state from the charger's
 * status, level with hysteresis, USB power and the gadget, charge cycles,
 * and the event lines the clients get. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <unistd.h>

#include "mtrace.h"
#include "power.h"
#include "remote.h"
#include "server.h"
#include "simtest.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

const char kChip[] = "/dev/i2c-0@0x6b";
const char kGadget[] = "system \"sh ./usb_gadget.sh ";
constexpr int64_t kMs = 1000000;

class PowerEvents : public vt::SimTest {
protected:
    /* Board time jumps over the handler's waits; the ADC reads exactly; the
     * battery barely moves while it charges. */
    virtual std::string board() const { return ""; }
    std::string scenario() const override
    {
        return "[clock]\nmode = warp\n[adc]\nnoise_codes = 0\n[battery]\ncapacity_mah = 100000\n"
               "[charger]\nwatchdog = 0\n" +
               board();
    }

    void SetUp() override
    {
        vt::SimTest::SetUp();
        /* A handler that wrongly reaches the charger's D+/D- detection
         * while board time stands still spins for ever: end it. */
        alarm(60);
        /* Event slots nobody connected to may still name descriptor 0:
         * keep the terminal out of it. */
        stdin_ = dup(0);
        int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        close(null);
        level_ = _MTrace_GetLevel(MTRACE_DOMAIN);
        _MTrace_SetLevel(MTRACE_DOMAIN, 3);

        state.vbatt_crit_threshold = 3.3;
        state.vbatt_low_threshold = 3.5;
        state.vbatt_hysteresis = 0.1;
        state.vbatt_cycle_low_threshold = 3.5;
        state.vbatt_cycle_high_threshold = 3.95;
        state.vbatt_almost_full_threshold = 3.95;
        state.batt_cycles = 0;
        state.batt_cycle_state = 0;
        state.remotetest = 0;
        state.fdopto = -1;
        ASSERT_EQ(0, am335x_adc_init(&state.adchnd));
        ASSERT_GE(vela_power_init(), 0);
        sim::journal_clear();
    }

    void TearDown() override
    {
        vela_power_close();
        am335x_adc_close(state.adchnd);
        state.adchnd = nullptr;
        _MTrace_SetLevel(MTRACE_DOMAIN, level_);
        dup2(stdin_, 0);
        close(stdin_);
        alarm(0);
    }

    /* One handler call; the events it broadcast, in order. */
    std::vector<std::string> handle(int irq = 0)
    {
        CaptureStderr();
        EXPECT_EQ(0, vela_power_handler(irq));
        trace_ = GetCapturedStderr();
        std::vector<std::string> events;
        std::istringstream in(trace_);
        const std::string tag = "remote_event(): ";
        for (std::string line; std::getline(in, line);) {
            size_t at = line.find(tag);
            if (at != std::string::npos)
                events.push_back(line.substr(at + tag.size()));
        }
        return events;
    }

    /* The charger's D+/D- detection is polled without a pause: let board
     * time run with the host meanwhile. */
    std::vector<std::string> handle_running_clock()
    {
        EXPECT_TRUE(sim::clock_mode("scaled 50"));
        std::vector<std::string> events = handle();
        EXPECT_TRUE(sim::clock_mode("warp"));
        return events;
    }

    static void battery(const std::string& volts) { ASSERT_TRUE(sim::set("battery.voltage", volts)); }
    static std::string led() { return sim::get("led.trigger"); }
    static std::vector<std::string> gadget() { return vt::entries("usb_gadget.sh"); }

    std::string trace_;

private:
    int stdin_ = -1;
    int level_ = 3;
};

/* Thresholds crit 3.3, low 3.5, hysteresis 0.1. */
TEST_F(PowerEvents, LevelMovesWithHysteresisAndAlwaysThroughLow)
{
    battery("3.2");
    /* The first call announces the state, then the level it had (none yet),
     * then the new level. */
    EXPECT_THAT(handle(), ElementsAre("on battery", "battery level unkown", "battery low"));
    EXPECT_EQ(BATT_STATE_ON_BATTERY, chgstate.state);
    EXPECT_EQ("none", led());
    EXPECT_THAT(handle(), ElementsAre("battery critical"));
    EXPECT_EQ(BATT_LEVEL_CRITICAL, chgstate.level);

    battery("3.35");
    EXPECT_THAT(handle(), IsEmpty());
    EXPECT_EQ(BATT_LEVEL_CRITICAL, chgstate.level);
    battery("3.9"); /* critical never jumps straight to good */
    EXPECT_THAT(handle(), ElementsAre("battery low"));
    battery("3.29");
    EXPECT_THAT(handle(), ElementsAre("battery critical"));
    battery("3.4");
    EXPECT_THAT(handle(), ElementsAre("battery low"));

    battery("3.55");
    EXPECT_THAT(handle(), IsEmpty());
    EXPECT_EQ(BATT_LEVEL_LOW, chgstate.level);
    battery("3.6");
    EXPECT_THAT(handle(), ElementsAre("battery good"));
    battery("3.51");
    EXPECT_THAT(handle(), IsEmpty());

    /* Good does not fall to critical in one step. */
    battery("3.1");
    EXPECT_THAT(handle(), ElementsAre("battery low"));
    EXPECT_THAT(handle(), ElementsAre("battery critical"));
    int st = 0, lv = 0;
    ASSERT_EQ(0, vela_batt_state_get(&st, &lv));
    EXPECT_EQ(BATT_STATE_ON_BATTERY, st);
    EXPECT_EQ(BATT_LEVEL_CRITICAL, lv);
}

class PowerEventsIn : public PowerEvents {
protected:
    /* Below the charger's power-on regulation voltage, so that it charges. */
    std::string board() const override { return "[supply]\nexternal_v = 5\n[battery]\nvoltage = 3.45\n"; }
};

TEST_F(PowerEventsIn, StateFollowsTheChargerAndStaysDoneWhileItStillCharges)
{
    EXPECT_THAT(handle(1), ElementsAre("charging", "battery level unkown", "battery low"));
    EXPECT_EQ(BATT_STATE_CHARGING, chgstate.state);
    EXPECT_EQ("timer", led());
    /* The charge parameters were brought to this device's values. */
    EXPECT_THAT(vt::entries(std::string(kChip) + " write 03 "), ElementsAre(HasSubstr("write 03 64")));
    EXPECT_THAT(vt::entries(std::string(kChip) + " write 05 "), ElementsAre(HasSubstr("write 05 62")));

    /* Above almost full while the charger still charges: done, with the
     * level it had, then the new one. */
    battery("3.97");
    EXPECT_THAT(sim::get("charger.state"), HasSubstr("charging from IN"));
    EXPECT_THAT(handle(), ElementsAre("charging done", "battery low", "battery good"));
    EXPECT_EQ(BATT_STATE_DONE, chgstate.state);
    EXPECT_EQ("default-on", led());
    battery("3.9");
    EXPECT_THAT(sim::get("charger.state"), HasSubstr("charging from IN"));
    EXPECT_THAT(handle(), IsEmpty());
    EXPECT_EQ(BATT_STATE_DONE, chgstate.state);

    ASSERT_TRUE(sim::set("charger.fault", "battery"));
    EXPECT_THAT(handle(1), ElementsAre("batt fault", "battery good"));
    EXPECT_EQ(BATT_STATE_FAULT, chgstate.state);
    EXPECT_EQ("none", led());
    ASSERT_TRUE(sim::set("charger.fault", "none"));
    EXPECT_THAT(handle(1), ElementsAre("charging", "battery good"));

    /* The charger's own end of charge. */
    battery("4.0");
    EXPECT_THAT(sim::get("charger.state"), HasSubstr("charge done"));
    EXPECT_THAT(handle(1), ElementsAre("charging done", "battery good"));

    ASSERT_TRUE(sim::set("supply.external_v", "0"));
    EXPECT_THAT(handle(1), ElementsAre("on battery", "battery good"));
    EXPECT_EQ("none", led());

    ASSERT_TRUE(sim::set("supply.external_v", "5"));
    ASSERT_TRUE(sim::set("charger.fault", "thermal"));
    EXPECT_THAT(handle(1), ElementsAre("batt fault", "battery good"));
    battery("3.9");
    ASSERT_TRUE(sim::set("charger.fault", "none"));
    EXPECT_THAT(handle(1), ElementsAre("charging", "battery good"));

    /* A temperature fault shows the input ready with another fault code:
     * the state stays. */
    ASSERT_TRUE(sim::set("battery.temp_c", "70"));
    EXPECT_THAT(sim::get("charger.state"), HasSubstr("IN ready, battery temperature fault"));
    EXPECT_THAT(handle(1), IsEmpty());
    EXPECT_EQ(BATT_STATE_CHARGING, chgstate.state);
}

class PowerEventsUsb : public PowerEvents {
protected:
    std::string board() const override { return "[supply]\nusb_v = 5\n[battery]\nvoltage = 3.45\n"; }
};

TEST_F(PowerEventsUsb, SlowUsbChargingSendsNoLevels)
{
    EXPECT_EQ(1, chgstate.usbpwrok);
    /* The charger came up at 100 mA and is set to 500 mA (code 2). */
    EXPECT_THAT(handle(1), ElementsAre("charging"));
    EXPECT_EQ(BATT_STATE_CHARGING_USB, chgstate.state);
    EXPECT_EQ(BATT_LEVEL_LOW, chgstate.level);
    EXPECT_EQ("timer", led());
    EXPECT_EQ(0x20, chgstate.regs[2] & 0x70);
    battery("3.2");
    EXPECT_THAT(handle(), IsEmpty());
    EXPECT_EQ(BATT_LEVEL_CRITICAL, chgstate.level);

    /* A charging port's 1500 mA (code 5) is full-speed charging. */
    ASSERT_EQ(0, charger_write(2, 0x5c));
    EXPECT_THAT(handle(1), ElementsAre("charging", "battery critical"));
    EXPECT_EQ(BATT_STATE_CHARGING, chgstate.state);
    EXPECT_THAT(gadget(), IsEmpty());
}

/* Reads 40 ms apart: a dip over by the fifth keeps the gadget; five reads
 * of under-voltage stop it and set the USB limit back to 500 mA. */
TEST_F(PowerEventsUsb, UnderVoltageStopsTheGadgetOnlyAfterFiveReadings)
{
    handle();
    ASSERT_EQ(0, charger_write(2, 0x5c));
    sim::journal_clear();

    ASSERT_EQ("ok\n", sim::control("usb-dip 150ms"));
    int64_t t0 = sim::board_ns();
    handle(1);
    EXPECT_EQ(160 * kMs, sim::board_ns() - t0); /* four reads saw it, each followed by 40 ms */
    ASSERT_EQ(1, chgstate.usbpwrok); /* else the next call would reconnect with the clock stopped */
    EXPECT_THAT(gadget(), IsEmpty());
    EXPECT_THAT(vt::entries(std::string(kChip) + " write 02 "), IsEmpty());

    ASSERT_EQ("ok\n", sim::control("usb-dip 2s"));
    t0 = sim::board_ns();
    handle(1);
    EXPECT_EQ(200 * kMs, sim::board_ns() - t0);
    EXPECT_EQ(0, chgstate.usbpwrok);
    EXPECT_THAT(gadget(), ElementsAre(std::string(kGadget) + "stop\" 0", std::string(kGadget) + "unbind\" 0"));
    EXPECT_THAT(vt::entries(std::string(kChip) + " write 02 "), ElementsAre(HasSubstr("write 02 2c")));
    /* Still under-voltage: nothing more to tear down. */
    sim::journal_clear();
    handle();
    EXPECT_THAT(gadget(), IsEmpty());
    EXPECT_EQ(0, sim::board_ns() - t0 - 200 * kMs);

    /* Power back: detection, then the gadget again. */
    sim::advance_clock(2000 * kMs);
    ASSERT_EQ("ok\n", sim::control("command 3 sh ./usb_gadget.sh start"));
    ASSERT_TRUE(sim::set("charger.usb_port", "dcp"));
    sim::journal_clear();
    /* Announced once, as fast charging at the limit the detection found. */
    EXPECT_THAT(handle_running_clock(), ElementsAre("charging", "battery low"));
    EXPECT_EQ(1, chgstate.usbpwrok);
    EXPECT_THAT(vt::entries("charger detect"), ElementsAre("charger detect start", "charger detect dcp 1500mA"));
    EXPECT_THAT(gadget(), ElementsAre(std::string(kGadget) + "bind\" 0", std::string(kGadget) + "start\" 3"));
    sim::journal_clear();
    EXPECT_THAT(handle(), IsEmpty());
    EXPECT_THAT(gadget(), IsEmpty());
}

/* Cycle thresholds 3.5 and 3.95: a cycle counts when the battery went down
 * to low and then up to high, in that order. */
TEST_F(PowerEvents, ChargeCycleIsDownToLowThenUpToHigh)
{
    const struct {
        const char* volts;
        unsigned cycles;
        int went_low;
    } steps[] = {
        {"3.7", 41, 0},  {"3.94", 41, 0}, {"3.52", 41, 0}, {"3.9", 41, 0},  {"3.5", 41, 1},
        {"3.9", 41, 1},  {"3.95", 42, 0}, {"4.1", 42, 0},  {"3.6", 42, 0},  {"3.96", 42, 0},
        {"3.3", 42, 1},  {"4.0", 43, 0},
    };
    state.batt_cycles = 41;
    for (const auto& s : steps) {
        battery(s.volts);
        handle();
        EXPECT_EQ(s.cycles, state.batt_cycles) << s.volts;
        EXPECT_EQ(s.went_low, state.batt_cycle_state) << s.volts;
    }
}

/* Asleep, the program cannot restart the charger's watchdog: it leaves the
 * charger in its stand-alone mode, and the next event programs it again. */
TEST_F(PowerEvents, ASuspendHandsTheChargerItsOwnMode)
{
    ASSERT_TRUE(sim::set("charger.watchdog", "1"));
    handle();
    ASSERT_EQ(0, vela_rtc_alarm(60));
    ASSERT_EQ(0, vela_suspend());
    EXPECT_EQ("0", sim::get("charger.watchdog_expiries"));
    EXPECT_THAT(sim::get("charger.state"), HasSubstr("default mode"));
    sim::journal_clear();
    handle();
    EXPECT_THAT(vt::entries(std::string(kChip) + " write 05 "), ElementsAre(HasSubstr("write 05 62")));
}

TEST_F(PowerEvents, ServiceLineOnTheOptoPort)
{
    int p[2];
    ASSERT_EQ(0, pipe(p));
    state.remotetest = 1;
    state.fdopto = p[1];
    battery("3.9");
    handle(1);
    handle();
    state.remotetest = 0;
    handle();
    close(p[1]);
    char buf[128] = {0};
    ASSERT_GT(read(p[0], buf, sizeof buf - 1), 0);
    close(p[0]);
    EXPECT_STREQ("DBG1: 3.90 1 0 0\nDBG1: 3.90 0 3 4\n", buf);
}

/* A charger that does not answer changes nothing it reports; the level
 * still follows the battery. A voltage that cannot be read changes no
 * level and no cycle. */
TEST_F(PowerEvents, FailedReadsKeepWhatWasKnown)
{
    battery("3.9");
    handle();
    uint8_t regs[8];
    memcpy(regs, chgstate.regs, sizeof regs);
    ASSERT_TRUE(sim::fault(kChip, "read", EREMOTEIO, -1));
    sim::journal_clear();
    battery("3.2");
    EXPECT_THAT(handle(1), ElementsAre("battery low"));
    EXPECT_EQ(BATT_STATE_ON_BATTERY, chgstate.state);
    EXPECT_EQ(0, memcmp(regs, chgstate.regs, sizeof regs));
    /* The register pointer and the watchdog only: nothing is written from
     * an old image. */
    EXPECT_THAT(vt::entries(std::string(kChip) + " write"),
                ElementsAre(std::string(kChip) + " write 00", std::string(kChip) + " write 00 80"));
    sim::control("faults-clear");

    state.batt_cycle_state = 0;
    ASSERT_TRUE(sim::fault("/sys/bus/iio/devices/iio:device0/in_voltage1_raw", "read", EIO, -1));
    battery("3.0");
    EXPECT_THAT(handle(), IsEmpty());
    EXPECT_EQ(BATT_LEVEL_LOW, chgstate.level);
    EXPECT_EQ(0, state.batt_cycle_state);
}

TEST_F(PowerEvents, MonitorEndsWhenItCannotStart)
{
    vela_power_close();
    am335x_adc_close(state.adchnd);
    state.adchnd = nullptr;

    sim::control("absent /sys/class/gpio/chgint/value");
    CaptureStderr();
    EXPECT_EQ(-1, do_chargermonitor());
    sim::control("faults-clear");
    sim::control("absent /sys/bus/iio/devices/iio:device0/in_voltage0_raw");
    EXPECT_EQ(-1, do_chargermonitor());
    GetCapturedStderr();
    EXPECT_THAT(sim::descriptors("/sys/class/gpio/chgint/value"), IsEmpty());
    EXPECT_EQ(nullptr, state.adchnd);
}

} // namespace

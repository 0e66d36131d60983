/* Power states, the suspend with its RTC wake-ups and the sleep time, on the
 * simulated board: replies are read from the client's end of a socket pair. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "client_pair.h"
#include "configtest.h"
#include "server.h"
#include "power.h"
#include "pstate.h"
#include "util.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const char kPmicDevice[] = "/dev/input/by-path/platform-44e0b000.i2c-event";

class Pstate : public vt::ConfigTest {
protected:
    void SetUp() override
    {
        vt::ConfigTest::SetUp();
        setenv("TZ", "UTC", 1);
        tzset();
        ASSERT_TRUE(sim::clock_mode("warp"));
        /* A slot of the server's table, so that events reach it too. */
        client_ = remote_client(0);
        client_->sock = sv_[0];
        client_->current_id = 7;
        ASSERT_EQ(0, util_ini_open());
        ASSERT_EQ(0, util_ini_read());
        ASSERT_EQ(0, am335x_adc_init(&state.adchnd));
        ASSERT_TRUE(sim::set("adc.noise_codes", "0"));
        /* As the server starts: ready, phase 8, the configured frequency. */
        state.pstate = 4;
        state.phase = 8;
        state.f = 20000;
        state.fdpmic = -1;
        state.vbatt_crit_threshold = 3.5;
        saved_batt_state_ = chgstate.state;
        chgstate.state = BATT_STATE_ON_BATTERY;
        sim::journal_clear();
    }
    void TearDown() override
    {
        if (state.pruss_info.comm != nullptr)
            pstate_switch(client_, 5, 4);
        if (state.fdpmic >= 0)
            close(state.fdpmic);
        chgstate.state = saved_batt_state_;
        am335x_adc_close(state.adchnd);
        client_->sock = -1;
        vt::ConfigTest::TearDown();
    }

    int set(const std::string& value) { return cb_pstate_set(client_, value.c_str()); }
    int pstate()
    {
        char value[32];
        EXPECT_EQ(1, cb_pstate_get(client_, value));
        return atoi(value);
    }
    /* Everything the client has received since the last call. */
    std::string replies() { return vt::received(sv_[1]); }
    /* The wake-up alarms as wall-clock seconds. */
    std::vector<time_t> alarms()
    {
        std::vector<time_t> out;
        for (const auto& e : vt::entries("RTC_WKALM_SET")) {
            struct tm tm = {};
            const char* p = strptime(e.c_str(), "/dev/rtc0 RTC_WKALM_SET %Y-%m-%d %H:%M:%S enabled", &tm);
            EXPECT_NE(nullptr, p) << e;
            out.push_back(timegm(&tm));
        }
        return out;
    }
    /* Index of the first journal entry containing needle at or after from. */
    static size_t find(const std::vector<std::string>& j, const std::string& needle, size_t from = 0)
    {
        for (size_t i = from; i < j.size(); i++) {
            if (j[i].find(needle) != std::string::npos)
                return i;
        }
        return std::string::npos;
    }

    struct client_s* client_ = nullptr;
    vt::ClientPair sv_;
    int saved_batt_state_ = 0;
};

TEST_F(Pstate, MeasSwitchesTheChainOnInOrderAndReadyOffAgain)
{
    EXPECT_EQ(0, set("meas"));
    EXPECT_EQ("", replies());
    EXPECT_EQ(5, pstate());
    EXPECT_EQ("1", sim::get("motor.power"));
    EXPECT_EQ("1", sim::get("meas.power"));
    EXPECT_EQ("2082", sim::get("motor.dac"));
    EXPECT_NE(nullptr, state.pruss_info.comm);

    /* Motor power, drive stopped, channel power, generator, potentiometer,
     * then the idle acquisition. */
    auto j = sim::journal_entries();
    size_t motor = find(j, "motor_power");
    size_t dac = find(j, "/dev/i2c-1@0x60 write 08 22", motor);
    size_t meas = find(j, "meas_power", dac);
    size_t sine = find(j, "/dev/spidev1.1 transfer", meas);
    size_t poti = find(j, "/dev/i2c-1@0x2e write 00 c0", sine);
    size_t acquire = find(j, "pruss acquire count=1 ", poti);
    EXPECT_NE(std::string::npos, acquire) << testing::PrintToString(j);
    EXPECT_THAT(vt::entries("pruss acquire"), ElementsAre(HasSubstr("mode=1 skip=300 min=0 max=65535")));

    /* Already there: nothing happens. */
    sim::journal_clear();
    EXPECT_EQ(0, set("5"));
    EXPECT_THAT(sim::journal_entries(), IsEmpty());

    EXPECT_EQ(0, set("ready"));
    EXPECT_EQ(4, pstate());
    EXPECT_EQ("0", sim::get("motor.power"));
    EXPECT_EQ("0", sim::get("meas.power"));
    EXPECT_EQ("off", sim::get("pru.state"));
    EXPECT_EQ(nullptr, state.pruss_info.comm);
    EXPECT_EQ("", replies());

    /* Eco to meas goes through ready; eco lowers the clock, ready raises it. */
    EXPECT_EQ(0, set("3"));
    EXPECT_EQ("300000", sim::get("cpufreq.max_khz"));
    EXPECT_EQ(0, set("meas"));
    EXPECT_EQ(5, pstate());
    EXPECT_EQ("800000", sim::get("cpufreq.max_khz"));
}

/* Without an acquisition engine that answers, meas would have no live
 * readings and nothing to stop a scan with: the way there fails and what
 * it switched on goes off again. */
TEST_F(Pstate, MeasWithoutAnAnsweringEngineIsRefusedAndSwitchedOffAgain)
{
    for (const char* fault : {"absent /dev/uio0", "set pru.fault no-signal", "set pru.fault no-start"}) {
        ASSERT_EQ("ok\n", sim::control(fault)) << fault;
        sim::journal_clear();
        EXPECT_NE(0, set("meas")) << fault;
        EXPECT_EQ("7 error action failed\n", replies()) << fault;
        EXPECT_EQ(4, pstate()) << fault;
        EXPECT_THAT(vt::entries("motor_power"), ElementsAre(HasSubstr("write 1"), HasSubstr("write 0"))) << fault;
        EXPECT_THAT(vt::entries("meas_power"), ElementsAre(HasSubstr("write 1"), HasSubstr("write 0"))) << fault;
        EXPECT_EQ("off", sim::get("pru.state")) << fault;
        EXPECT_EQ(nullptr, state.pruss_info.comm) << fault;
        sim::control("faults-clear");
        sim::set("pru.fault", "none");
    }
    /* The engine back: meas as usual. */
    EXPECT_EQ(0, set("meas"));
    EXPECT_EQ(5, pstate());
}

TEST_F(Pstate, ValuesOutsideTheStatesAndTheirNamesAreRefused)
{
    for (const char* v : {"0", "6", "READY", "", "-1", "standby"}) {
        EXPECT_EQ(-1, set(v)) << v;
        EXPECT_EQ("7 error value out of range\n", replies()) << v;
    }
    EXPECT_EQ(4, pstate());

    /* A single step that is not allowed. */
    EXPECT_NE(0, pstate_switch(client_, 4, 2));
    EXPECT_EQ("7 error invalid pstate transition\n", replies());
    EXPECT_NE(0, pstate_switch(client_, 3, 5));
    EXPECT_EQ("7 error invalid pstate transition\n", replies());
    EXPECT_EQ(4, pstate());
}

TEST_F(Pstate, OffSavesTheCountersAndHalts)
{
    EXPECT_EQ(0, set("eco"));
    sim::journal_clear();
    EXPECT_EQ(0, set("off"));
    EXPECT_EQ(1, pstate());
    EXPECT_THAT(vt::entries("cpufreq"), IsEmpty()); /* straight from eco: ready would raise the clock */
    EXPECT_THAT(vt::entries("system \""), ElementsAre("system \"halt -p\" 0"));
    /* Back from off (only in the simulation) through ready. */
    EXPECT_EQ(0, set("eco"));
    EXPECT_EQ(3, pstate());
    EXPECT_EQ("", replies());
}

class PstateExternalPower : public Pstate {
protected:
    std::string scenario() const override { return "[supply]\nexternal_v = 5\n"; }
};

TEST_F(PstateExternalPower, SuspendFromMeasWalksToEcoAndIsRefused)
{
    chgstate.state = BATT_STATE_CHARGING; /* as the power handler has it */
    /* A suspend let through ends after this, not never. */
    ASSERT_EQ(0, cb_sleep_time_set(client_, "30"));
    ASSERT_EQ(0, set("meas"));
    replies();
    EXPECT_EQ(-1, set("suspend"));
    EXPECT_EQ("7 error suspend not allowed with external power supply\n", replies());
    EXPECT_EQ(3, pstate());
    EXPECT_EQ("0", sim::get("motor.power"));
    EXPECT_EQ("300000", sim::get("cpufreq.max_khz"));
    EXPECT_THAT(vt::entries("power suspend"), IsEmpty());
}

TEST_F(Pstate, SleepTimeEndsTheSuspendWithShutdownAtTheFirstAlarmPastIt)
{
    ASSERT_TRUE(sim::set("backlight.brightness", "60"));
    ASSERT_TRUE(sim::set("usbhost.power", "1"));
    ASSERT_EQ(0, cb_sleep_time_set(client_, "30"));
    state.suspend_interval_time = 600;
    time_t t0 = time(nullptr);

    EXPECT_EQ(0, set("suspend"));
    EXPECT_EQ(2, pstate());
    EXPECT_EQ("0 event resumed shutdown\n", replies());
    /* 31 s asked for; the RTC's alarm lands one second later. */
    auto a = alarms();
    ASSERT_THAT(a, SizeIs(1));
    EXPECT_GE(a[0], t0 + 32);
    EXPECT_LE(a[0], t0 + 33);
    EXPECT_THAT(vt::entries("power "), ElementsAre("power suspend", "power resume rtc"));
    /* The counters are saved again on the way from eco (its cpufreq
     * writes) into the sleep. */
    std::vector<std::string> all = vt::entries("");
    auto suspend = std::find(all.begin(), all.end(), "power suspend");
    auto eco = std::find_if(std::make_reverse_iterator(suspend), all.rend(),
                            [](const std::string& e) { return e.find("cpufreq") != std::string::npos; });
    ASSERT_NE(all.rend(), eco);
    EXPECT_NE(suspend, std::find_if(eco.base(), suspend, [](const std::string& e) {
                  return e.find("nvram write") != std::string::npos;
              }));
    EXPECT_EQ("60", sim::get("backlight.brightness"));
    EXPECT_EQ("0", sim::get("usbhost.power"));

    /* Leaving suspend goes through ready. */
    EXPECT_EQ(0, set("eco"));
    EXPECT_EQ(3, pstate());
}

TEST_F(Pstate, AlarmsFollowTheIntervalAndNeverComeSoonerThanTenSeconds)
{
    ASSERT_EQ(0, cb_sleep_time_set(client_, "25"));
    state.suspend_interval_time = 10;
    EXPECT_EQ(0, set("suspend"));
    EXPECT_EQ("0 event resumed shutdown\n", replies());
    /* 10 s, 10 s, then 4 s left but 10 s armed. */
    auto a = alarms();
    ASSERT_THAT(a, SizeIs(3));
    EXPECT_EQ(11, a[1] - a[0]);
    EXPECT_EQ(11, a[2] - a[1]);
    EXPECT_THAT(vt::entries("power resume"), SizeIs(3));
}

TEST_F(Pstate, CriticalBatteryOrThePowerButtonEndTheSuspend)
{
    state.suspend_interval_time = 600;
    state.vbatt_crit_threshold = 3.95; /* the board's battery has 3.9 V */
    EXPECT_EQ(0, set("suspend"));
    EXPECT_EQ("0 event resumed shutdown\n", replies());
    EXPECT_THAT(alarms(), SizeIs(1));

    /* A button event waiting at the wake-up: a normal resume. */
    state.vbatt_crit_threshold = 3.5;
    state.fdpmic = open(kPmicDevice, O_RDONLY | O_NONBLOCK);
    ASSERT_GE(state.fdpmic, 0);
    ASSERT_EQ(0, set("eco"));
    sim::journal_clear();
    sim::control("button press");
    EXPECT_EQ(0, set("suspend"));
    EXPECT_EQ("0 event resumed\n", replies());
    EXPECT_EQ(2, pstate());
    EXPECT_THAT(alarms(), SizeIs(1));
}

TEST_F(Pstate, AFailingAlarmLeavesTheSystemAwakeInEco)
{
    ASSERT_TRUE(sim::fault("/dev/rtc0", "ioctl:RTC_WKALM_SET", EIO));
    EXPECT_NE(0, set("suspend"));
    EXPECT_EQ("", replies());
    EXPECT_EQ(3, pstate());
    EXPECT_THAT(vt::entries("power suspend"), IsEmpty());
}

TEST_F(Pstate, SleepTimeTakesZeroToADay)
{
    char value[32];
    for (const char* v : {"30", "0", "86400", "5"}) {
        EXPECT_EQ(0, cb_sleep_time_set(client_, v)) << v;
        EXPECT_EQ(static_cast<int>(strlen(v)), cb_sleep_time_get(client_, value));
        EXPECT_STREQ(v, value);
    }
    for (const char* v : {"-1", "86401"}) {
        EXPECT_EQ(-1, cb_sleep_time_set(client_, v)) << v;
        EXPECT_EQ("7 error value out of range\n", replies());
    }
    EXPECT_EQ(5u, state.sleep_time);
}

} // namespace

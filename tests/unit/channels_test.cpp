/* The get, set and capabilities commands and the device channels, on the
 * simulated board: replies are read from the client's end of a socket pair
 * line for line, as a client sees them. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <regex>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "channels.h"
#include "client_pair.h"
#include "configtest.h"
#include "server.h"
#include "simrun.h"
#include "mtrace.h"
#include "opto.h"
#include "power.h"
#include "util.h"
#include "velatool.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

/* Words as the dispatcher splits a command: at blanks outside double
 * quotes, the quotes kept. */
std::vector<std::string> split(const std::string& line)
{
    std::vector<std::string> words(1);
    bool quoted = false;
    for (char c : line) {
        if (c == '"')
            quoted = !quoted;
        if (c == ' ' && !quoted)
            words.emplace_back();
        else
            words.back() += c;
    }
    return words;
}

class Channels : public vt::ConfigTest {
protected:
    void SetUp() override
    {
        vt::ConfigTest::SetUp();
        client_.sock = sv_[0];
        client_.current_id = 7;
        state.fdopto = -1;
        ASSERT_EQ(0, util_ini_open());
        ASSERT_EQ(0, util_ini_read());
        ASSERT_EQ(0, am335x_adc_init(&state.adchnd));
        ASSERT_TRUE(sim::set("adc.noise_codes", "0"));
        saved_batt_state_ = chgstate.state;
        chgstate.state = BATT_STATE_ON_BATTERY;
        sim::journal_clear();
    }
    void TearDown() override
    {
        chgstate.state = saved_batt_state_;
        am335x_adc_close(state.adchnd);
        opto_rs232_close(state.fdopto);
        vt::ConfigTest::TearDown();
    }

    /* One command through its handler; the words live in args_ until the next. */
    int run(const std::string& line)
    {
        args_ = split(line);
        argv_.clear();
        for (auto& w : args_)
            argv_.push_back(w.data());
        int argc = static_cast<int>(argv_.size());
        if (args_[0] == "get")
            return cb_get(&client_, argc, argv_.data());
        if (args_[0] == "set")
            return cb_set(&client_, argc, argv_.data());
        return cb_capabilities(&client_, argc, argv_.data());
    }
    /* Everything the client has received since the last call. */
    std::string replies() { return vt::received(sv_[1]); }
    std::string get(const std::string& names)
    {
        EXPECT_EQ(0, run(names.empty() ? "get" : "get " + names));
        return replies();
    }
    std::string ini() const { return vt::read_file(product_file("velatool.ini")); }

    struct client_s client_ = {.sock = -1};
    vt::ClientPair sv_;
    int saved_batt_state_ = 0;
    std::vector<std::string> args_;
    std::vector<char*> argv_;
};

TEST_F(Channels, GetAnswersValuesInOrderOrOnlyTheError)
{
    state.batt_cycles = 12;
    state.meas_cycles = 345;
    state.uptime.tv_sec = 5400;
    state.uptime_eco.tv_sec = 36;
    snprintf(state.machine, sizeof state.machine, "VELAL");
    ASSERT_TRUE(sim::set("backlight.brightness", "50"));

    EXPECT_EQ("7 data 4 50 VELAL 12 345 1.500 0.010\n",
              get("batt_state blight machine batt_cycles meas_cycles uptime uptime_eco"));
    EXPECT_EQ("7 data\n", get(""));
    EXPECT_EQ("7 data 3.90\n", get("batt_v")) << "3.9 V is the board's default";

    /* After the first failure nothing of the data line goes out. */
    EXPECT_EQ(-1, run("get blight nosuch batt_state"));
    EXPECT_EQ("7 error unknown channel\n", replies());
    EXPECT_EQ(-1, run("get BLIGHT"));
    EXPECT_EQ("7 error unknown channel\n", replies());
    EXPECT_EQ(-1, run("get machine opto_rs232"));
    EXPECT_EQ("7 error channel not readable\n", replies());

    /* A failing getter reports once; the names after it are not read. */
    sim::control("absent /sys/class/backlight/tps65217-bl/actual_brightness");
    EXPECT_EQ(-1, run("get batt_state blight batt"));
    EXPECT_EQ("7 error error\n", replies());
    ASSERT_TRUE(sim::fault("/sys/bus/iio/devices/iio:device0/in_voltage1_raw", "read", EIO));
    CaptureStderr();
    EXPECT_EQ(-1, run("get batt_v"));
    GetCapturedStderr();
    EXPECT_EQ("7 error error\n", replies());
}

TEST_F(Channels, BatteryPercentFollowsLoadAndChargeState)
{
    state.vbatt_crit_threshold = 3.5;
    state.vbatt_almost_full_threshold = 4.1;
    ASSERT_TRUE(sim::set("battery.voltage", "3.8"));
    ASSERT_TRUE(sim::set("backlight.brightness", "100"));
    /* Full scale 4.1 - 0.1 - 0.022 = 3.978 V on battery. */
    EXPECT_EQ("7 data 62\n", get("batt"));
    /* The display's load is taken off full scale: 4.0 V when dark. */
    ASSERT_TRUE(sim::set("backlight.brightness", "0"));
    EXPECT_EQ("7 data 59\n", get("batt"));
    /* Charging: full scale 4.05 V. */
    chgstate.state = BATT_STATE_CHARGING;
    EXPECT_EQ("7 data 54\n", get("batt"));

    /* Rounded to the nearest percent: 98.6 % is 99. */
    chgstate.state = BATT_STATE_ON_BATTERY;
    ASSERT_TRUE(sim::set("backlight.brightness", "100"));
    ASSERT_TRUE(sim::set("battery.voltage", "3.976"));
    EXPECT_EQ("7 data 99\n", get("batt"));
    ASSERT_TRUE(sim::set("backlight.brightness", "0"));
    chgstate.state = BATT_STATE_CHARGING;

    /* Above full scale 99, unless the charge is done; below critical 0. */
    ASSERT_TRUE(sim::set("battery.voltage", "4.2"));
    EXPECT_EQ("7 data 99\n", get("batt"));
    chgstate.state = BATT_STATE_DONE;
    EXPECT_EQ("7 data 100\n", get("batt"));
    chgstate.state = BATT_STATE_ON_BATTERY;
    ASSERT_TRUE(sim::set("battery.voltage", "3.0"));
    EXPECT_EQ("7 data 0\n", get("batt"));

    /* Thresholds without a span (full scale 3.6 - 0.1 on critical) divide
     * zero by zero: still a number. */
    state.vbatt_almost_full_threshold = 3.6;
    EXPECT_EQ("7 data 0\n", get("batt"));
    state.vbatt_almost_full_threshold = 4.1;

    ASSERT_TRUE(sim::set("battery.temp_c", "25"));
    std::string temp = get("batt_temp");
    EXPECT_THAT(temp, MatchesRegex("7 data -?[0-9]+\\.[0-9]\n"));
    EXPECT_NEAR(25.0, std::stod(temp.substr(7)), 0.3);

    sim::control("absent /sys/class/backlight/tps65217-bl/actual_brightness");
    EXPECT_EQ(-1, run("get batt"));
    EXPECT_EQ("7 error error\n", replies());
}

TEST_F(Channels, SetAppliesPairsUntilTheFirstFailure)
{
    EXPECT_EQ(0, run("set blight=40"));
    EXPECT_EQ("40", sim::get("backlight.brightness"));
    /* No '=': skipped without a word. */
    EXPECT_EQ(0, run("set blight"));
    EXPECT_EQ("", replies());
    EXPECT_EQ("40", sim::get("backlight.brightness"));

    EXPECT_EQ(-1, run("set blight=101 usbhost=1"));
    EXPECT_EQ("7 error value out of range\n", replies());
    EXPECT_EQ("0", sim::get("usbhost.power"));

    EXPECT_EQ(-1, run("set blight=30 nosuch=1 usbhost=1"));
    EXPECT_EQ("7 error unknown channel\n", replies());
    EXPECT_EQ("30", sim::get("backlight.brightness"));
    EXPECT_EQ("0", sim::get("usbhost.power"));

    EXPECT_EQ(-1, run("set batt=5"));
    EXPECT_EQ("7 error channel not writable\n", replies());

    /* Nothing is set while a scan or move runs. */
    state.scanmove_client = &client_;
    EXPECT_EQ(-1, run("set blight=10"));
    EXPECT_EQ("7 error command already active\n", replies());
    EXPECT_EQ("30", sim::get("backlight.brightness"));
    state.scanmove_client = nullptr;

    /* The backlight refusing a write ends the command without a word. */
    ASSERT_TRUE(sim::fault("/sys/class/backlight/tps65217-bl/brightness", "write", EIO));
    EXPECT_GT(0, run("set blight=20 usbhost=1"));
    EXPECT_EQ("", replies());
    EXPECT_EQ("0", sim::get("usbhost.power"));
}

TEST_F(Channels, ConfigurationIsSavedOnceAfterAllPairs)
{
    CaptureStderr();
    EXPECT_EQ(0, run("set machine=VELAN blight=50 machine=VELAL"));
    std::string err = GetCapturedStderr();
    EXPECT_EQ(1u, vt::count_of(err, "sync_inipath(): success"));
    EXPECT_THAT(ini(), HasSubstr("[general]\nmachine=VELAL\n"));
    EXPECT_EQ(0, state.ini_changed);
    EXPECT_EQ("", replies());

    /* A channel outside the configuration does not save. */
    CaptureStderr();
    EXPECT_EQ(0, run("set blight=60"));
    EXPECT_EQ(0u, vt::count_of(GetCapturedStderr(), "sync_inipath()"));

    /* A failing pair keeps the change pending for the next good set. */
    EXPECT_EQ(-1, run("set machine=VELAN blight=200"));
    EXPECT_EQ("7 error value out of range\n", replies());
    EXPECT_EQ(1, state.ini_changed);
    EXPECT_THAT(ini(), HasSubstr("machine=VELAL\n"));
    CaptureStderr();
    EXPECT_EQ(0, run("set blight=70"));
    EXPECT_EQ(1u, vt::count_of(GetCapturedStderr(), "sync_inipath(): success"));
    EXPECT_THAT(ini(), HasSubstr("machine=VELAN\n"));
}

TEST_F(Channels, MachineFollowsTheHardwareAndMovesTheSplash)
{
    write_product_file("usb.ini", "[usb]\nmode=1\n");
    EXPECT_EQ(0, run("set machine=VELAN"));
    EXPECT_EQ("", replies());
    EXPECT_STREQ("VELAN", state.machine);
    EXPECT_EQ(MACHINE_VELAN, state.machine_type);
    EXPECT_FALSE(vt::file_exists(product_file("usb.ini")));
    EXPECT_EQ("7 data VELAN\n", get("machine"));
    /* The old link goes, or the new one could not be made. */
    EXPECT_EQ(0, run("set machine=VELAL"));
    EXPECT_THAT(vt::entries("psplash"), ElementsAre("/usr/bin/psplash symlink /opt/Orvik/vela/psplash_VELAN",
                                                    "/usr/bin/psplash symlink /opt/Orvik/vela/psplash_VELAL"));
    char link[64] = {};
    ASSERT_LT(0, readlink("/usr/bin/psplash", link, sizeof link - 1));
    EXPECT_STREQ("/opt/Orvik/vela/psplash_VELAL", link);

    EXPECT_EQ(-1, run("set machine=vela"));
    EXPECT_EQ("7 error value out of range\n", replies());

    /* The wrong board for the model: the error log only. */
    sim::journal_clear();
    CaptureStderr();
    EXPECT_EQ(-1, run("set machine=LUMA"));
    std::string err = GetCapturedStderr();
    EXPECT_THAT(err, HasSubstr("cb_machine_set: cannot set model LUMA on legacy VELA hardware"));
    EXPECT_EQ("", replies());
    EXPECT_STREQ("VELAL", state.machine);
    EXPECT_THAT(vt::entries("psplash"), IsEmpty());

    ASSERT_TRUE(sim::set("identity.model", "LUMA"));
    CaptureStderr();
    EXPECT_EQ(-1, run("set machine=VELAN"));
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("cb_machine_set: cannot set model VELAN on LUMA hardware"));
    EXPECT_EQ("", replies());
    EXPECT_EQ(0, run("set machine=NOVA"));
    EXPECT_EQ(MACHINE_NOVA, state.machine_type);
    EXPECT_THAT(ini(), HasSubstr("machine=NOVA\n"));

    sim::control("absent /proc/device-tree/model");
    EXPECT_EQ(-1, run("set machine=TALA"));
    EXPECT_EQ("", replies());
    EXPECT_STREQ("NOVA", state.machine);
}

TEST_F(Channels, OptoTextGoesOutWithoutQuotesAndWithCr)
{
    /* No port: the write fails, without a word. */
    EXPECT_EQ(-1, run("set opto_rs232=X"));
    EXPECT_EQ("", replies());

    state.fdopto = opto_rs232_open("/dev/ttyO1");
    ASSERT_LE(0, state.fdopto);
    EXPECT_EQ(0, run("set opto_rs232=\"HELLO WORLD\""));
    EXPECT_EQ("48 45 4c 4c 4f 20 57 4f 52 4c 44 0d", sim::get("opto.tx"));
    EXPECT_EQ(0, run("set opto_rs232=a=b"));
    EXPECT_EQ(0, run("set opto_rs232=\""));  /* a lone quote is text */
    EXPECT_EQ(0, run("set opto_rs232=\"\"")); /* an empty line */
    EXPECT_EQ("48 45 4c 4c 4f 20 57 4f 52 4c 44 0d 61 3d 62 0d 22 0d 0d", sim::get("opto.tx"));
    EXPECT_EQ("", replies());
}

TEST_F(Channels, UsbMassStorageAndClockReportFailedActions)
{
    EXPECT_EQ(0, run("set usbhost=1"));
    EXPECT_EQ("1", sim::get("usbhost.power"));
    EXPECT_EQ(-1, run("set usbhost=2"));
    EXPECT_EQ("7 error value out of range\n", replies());
    ASSERT_TRUE(sim::fault("/sys/class/gpio/usb_power/value", "write", EIO));
    EXPECT_EQ(-1, run("set usbhost=0"));
    EXPECT_EQ("7 error action failed\n", replies());

    EXPECT_EQ(0, run("set mass_storage=1 mass_storage=0"));
    EXPECT_EQ(-1, run("set mass_storage=2"));
    EXPECT_EQ("7 error value out of range\n", replies());
    EXPECT_EQ(-1, run("set hwclock=x"));
    EXPECT_EQ("7 error value out of range\n", replies());
    EXPECT_EQ(0, run("set hwclock=w"));
    EXPECT_EQ("", replies());
    EXPECT_THAT(vt::entries("system"),
                ElementsAre("system \"sh ./mass_storage.sh on\" 0", "system \"sh ./mass_storage.sh off\" 0",
                            "system \"hwclock -w\" 0"));

    sim::control("command 1 hwclock");
    EXPECT_EQ(-1, run("set hwclock=w"));
    EXPECT_EQ("7 error action failed\n", replies());
    sim::control("command 1 sh ./mass_storage.sh");
    EXPECT_EQ(-1, run("set mass_storage=1"));
    EXPECT_EQ("7 error action failed\n", replies());
}

TEST_F(Channels, TracelevelOutsideItsRangeIsIgnoredSilently)
{
    options.tracelevel = 3;
    EXPECT_EQ(-1, run("set tracelevel=9"));
    EXPECT_EQ(-1, run("set tracelevel=-1"));
    EXPECT_EQ("", replies());
    EXPECT_EQ(3, _MTrace_GetLevel(MTRACE_DOMAIN));

    CaptureStderr();
    EXPECT_EQ(0, run("set tracelevel=0"));
    EXPECT_EQ(0, run("set tracelevel=5"));
    GetCapturedStderr();
    EXPECT_EQ(5, _MTrace_GetLevel(MTRACE_DOMAIN));
    EXPECT_EQ(5, options.tracelevel);
    EXPECT_EQ("", replies());
    _MTrace_SetLevel(MTRACE_DOMAIN, 3);
    options.tracelevel = 0;
}

/* Every channel listed answers get and set as its access says. */
TEST_F(Channels, CapabilitiesListEveryChannelWithItsAccess)
{
    client_.current_id = 5;
    EXPECT_EQ(0, run("capabilities"));
    std::vector<std::string> listed;
    std::istringstream in(replies());
    CaptureStderr();
    for (std::string line; std::getline(in, line);) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(line, m, std::regex("5 data ([a-z0-9_]+) (read(only|write)|writeonly) .+"))) << line;
        listed.push_back(m[1]);
        const bool readable = m[2] != "writeonly", writable = m[2] != "readonly";
        run("get " + m[1].str());
        EXPECT_EQ(readable, replies().find("not readable") == std::string::npos) << line;
        run("set " + m[1].str() + "=");
        EXPECT_EQ(writable, replies().find("not writable") == std::string::npos) << line;
    }
    GetCapturedStderr();
    EXPECT_EQ(30u, listed.size());
    EXPECT_EQ(-1, run("capabilities x"));
    EXPECT_EQ("5 error axis parameter not supported\n", replies());
    EXPECT_EQ(-1, run("capabilities x y"));
    EXPECT_EQ("5 error syntax invalid\n", replies());
}

} // namespace

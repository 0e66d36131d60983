/* The measurement and calibration channels on the simulated board: the
 * idle acquisition samples a probe standing on a flat workpiece, and the
 * replies are read from the client's end of a socket pair. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <unistd.h>

#include "aquisition.h"
#include "calibration.h"
#include "client_pair.h"
#include "configtest.h"
#include "server.h"
#include "messages.h"
#include "mtrace.h"
#include "util.h"

using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

/* Channel on, sine at 20 kHz; the probe reads zero_raw + height / 10 nm. */
const char kBoard[] = "[meas]\npower = 1\n[sine]\ncontrol = 0\nfreq0 = 335544\n[clock]\nmode = warp\n"
                      "[probe]\nnoise_raw = 0\nzero_raw = 30000\nmm_per_raw = 1e-05\n"
                      "[workpiece]\nprofile = 0:0 100:0\n[drive]\nposition_mm = 3\n";

class Calibration : public vt::ConfigTest {
protected:
    std::string scenario() const override { return kBoard; }
    void SetUp() override
    {
        vt::ConfigTest::SetUp();
        client_ = remote_client(0);
        client_->sock = sv_[0];
        client_->current_id = 7;
        remote_client(1)->sock = other_[0];
        ASSERT_EQ(0, util_ini_open());
        ASSERT_EQ(0, util_ini_read());
        state.pstate = 4;
        state.phase = 8;
        state.ini_changed = 0;
        state.wref1 = 0;
        snprintf(state.hwrev, sizeof state.hwrev, "E1");
    }
    void TearDown() override
    {
        if (state.pruss_info.comm != nullptr) {
            aquisition_stop(&state.pruss_info);
            aquisition_shutdown(&state.pruss_info);
        }
        client_->sock = -1;
        remote_client(1)->sock = -1;
        vt::ConfigTest::TearDown();
    }

    /* The meas state as the power-state switch enters it: the idle
     * acquisition, with the configured skip_samples. */
    void start_meas()
    {
        state.pstate = 5;
        ASSERT_EQ(0, aquisition_init(&state.pruss_info, state.phase));
        ASSERT_EQ(0, aquisition_start(&state.pruss_info, 1, 2000, 0, 65535, 1, 6, state.skip_samples, 0));
        usleep(100000);
        /* The configured 300 leading samples take 150 ms. */
        for (int i = 0; i < 20 && state.pruss_info.comm->out_count == 0; i++)
            usleep(10000);
        ASSERT_EQ(1u, state.pruss_info.comm->out_count);
    }
    /* The probe on a flat surface at height um. */
    void place(double um)
    {
        char profile[64];
        snprintf(profile, sizeof profile, "0:%g 100:%g", um, um);
        ASSERT_TRUE(sim::set("workpiece.profile", profile));
        usleep(20000);
    }

    std::string replies() { return vt::received(sv_[1]); }
    std::string other_replies() { return vt::received(other_[1]); }

    /* A get handler's value, or "!" and its error line when it fails. */
    std::string get(int (*cb)(client_s*, char*))
    {
        char value[64] = {};
        int n = cb(client_, value);
        if (n <= 0)
            return "!" + replies();
        EXPECT_EQ(static_cast<size_t>(n), strlen(value));
        return value;
    }
    /* A set handler: what the client received, its error line on failure. */
    std::string set(int (*cb)(client_s*, const char*), const char* value)
    {
        int ret = cb(client_, value);
        std::string out = replies();
        EXPECT_EQ(out.find(" error ") == std::string::npos ? 0 : -1, ret) << value << ": " << out;
        return out;
    }
    double ini_double(const char* section, const char* key)
    {
        double v = -1;
        EXPECT_TRUE(MIniData_GetDoubleEntry(state.h_ini, section, key, &v)) << section << "/" << key;
        return v;
    }
    long ini_long(const char* section, const char* key)
    {
        long v = -1;
        EXPECT_TRUE(MIniData_GetLongEntry(state.h_ini, section, key, &v)) << section << "/" << key;
        return v;
    }

    client_s* client_ = nullptr;
    vt::ClientPair sv_;
    vt::ClientPair other_;
};

const std::string kOutOfRange = "7 error value out of range\n";

/* Limits, phase and speed are the session's; the calibration (and only it)
 * goes to the configuration. A refused value keeps the last good one. */
TEST_F(Calibration, SettersCheckTheirRangeAndOnlyTheCalibrationIsSaved)
{
    using Set = int (*)(client_s*, const char*);
    const struct {
        Set cb;
        const char* value;
        bool ok;
    } session[] = {
        {cb_w_ov_max_set, "70000", true}, {cb_w_ov_max_set, "1000", true},  {cb_w_ov_max_set, "-1", false},
        {cb_w_ov_min_set, "0", true},     {cb_w_ov_min_set, "65535", true}, {cb_w_ov_min_set, "65536", false},
        {cb_w_ov_min_set, "-5", false},   {cb_phase_set, "31", true},       {cb_phase_set, "32", false},
        {cb_phase_set, "-1", false},      {cb_speed_set, "0.09", false},    {cb_speed_set, "1.01", false},
        {cb_speed_set, "0.25", true},
    }, stored[] = {
        {cb_x_corr_set, "0.7", true},     {cb_x_corr_set, "1.3", true},      {cb_x_corr_set, "1.31", false},
        {cb_x_corr_set, "abc", false},    {cb_x_corr_set, "nan", false},     {cb_w_offset_set, "65535", true},
        {cb_w_offset_set, "65536", false}, {cb_w_offset_set, "-1", false},   {cb_w_offset_set, "0x100", false},
        {cb_w_scale_set, "0.00001", true}, {cb_w_scale_set, "1.5", false},   {cb_w_scale_set, "-0.1", false},
    };
    for (const auto& r : session)
        EXPECT_EQ(r.ok ? "" : kOutOfRange, set(r.cb, r.value)) << r.value;
    EXPECT_EQ("1000", get(cb_w_ov_max_get));
    EXPECT_EQ("65535", get(cb_w_ov_min_get));
    EXPECT_EQ("31", get(cb_phase_get));
    EXPECT_EQ("0.25", get(cb_speed_get));
    EXPECT_EQ("", set(cb_speed_set, "1.0"));
    EXPECT_EQ("1.00", get(cb_speed_get));
    EXPECT_EQ("", set(cb_w_ov_max_set, "70000"));
    EXPECT_EQ("65535", get(cb_w_ov_max_get));
    EXPECT_EQ(0, state.ini_changed);
    EXPECT_FALSE(MIniData_DoesEntryExist(state.h_ini, "channel", "w_ov_max"));

    for (const auto& r : stored)
        EXPECT_EQ(r.ok ? "" : kOutOfRange, set(r.cb, r.value)) << r.value;
    EXPECT_EQ(1, state.ini_changed);
    EXPECT_EQ("1.300000000", get(cb_x_corr_get));
    EXPECT_DOUBLE_EQ(1.3, ini_double("motor", "x_corr"));
    EXPECT_EQ("65535", get(cb_w_offset_get));
    EXPECT_EQ(65535, ini_long("channel", "w_offset"));
    EXPECT_EQ("0.000010000", get(cb_w_scale_get));
    EXPECT_DOUBLE_EQ(0.00001, ini_double("channel", "w_scale"));
    EXPECT_EQ("", set(cb_w_scale_set, "0")); /* a zero scale is accepted */
    EXPECT_EQ("0.000000000", get(cb_w_scale_get));
}

TEST_F(Calibration, LiveReadingsNeedTheMeasState)
{
    const std::string invalid = "!7 error invalid pstate\n";
    EXPECT_EQ(invalid, get(cb_w_get));
    EXPECT_EQ(invalid, get(cb_z_get));
    EXPECT_EQ(invalid, get(cb_sin_freq_get));
    EXPECT_EQ("7 error invalid pstate\n", set(cb_w_xref1_set, "10"));
    EXPECT_EQ("7 error invalid pstate\n", set(cb_w_xref2_set, "10"));
    /* The height is checked before the state. */
    EXPECT_EQ(kOutOfRange, set(cb_w_xref1_set, "101"));

    /* pstate 5 without the acquisition has no reading either. */
    state.pstate = 5;
    EXPECT_EQ(invalid, get(cb_w_get));
    EXPECT_EQ("7 error invalid pstate\n", set(cb_w_xref1_set, "10"));

    start_meas();
    EXPECT_EQ("30000", get(cb_w_get));
    state.pstate = 3;
    EXPECT_EQ(invalid, get(cb_w_get));
}

TEST_F(Calibration, LiveReadingsFollowTheProbe)
{
    start_meas();
    state.w_offset = 30000;
    state.w_scale = 0.00001;
    place(50);
    EXPECT_EQ("35000", get(cb_w_get));
    EXPECT_EQ("50.000", get(cb_z_get));

    /* Below the zero point the height is negative. */
    place(-123.45);
    EXPECT_EQ("17655", get(cb_w_get));
    EXPECT_EQ("-123.450", get(cb_z_get));
    state.w_offset = 0;
    EXPECT_EQ("176.550", get(cb_z_get));

    /* The generator's 19999.98 Hz, measured to the ns of its period; held
     * in reset it has no edges to time, and the last period stays. */
    EXPECT_EQ("20000.00", get(cb_sin_freq_get));
    ASSERT_TRUE(sim::set("sine.control", "256"));
    usleep(10000);
    EXPECT_EQ("20000.00", get(cb_sin_freq_get));
}

TEST_F(Calibration, FrequencyIsProgrammedOnlyInTheMeasState)
{
    /* Outside meas: stored and persisted, the generator left alone. */
    std::string before = sim::get("sine.freq0");
    EXPECT_EQ("", set(cb_f_set, "20500"));
    EXPECT_EQ("20500", get(cb_f_get));
    EXPECT_DOUBLE_EQ(20500.0, ini_double("channel", "f"));
    EXPECT_EQ(1, state.ini_changed);
    EXPECT_EQ(before, sim::get("sine.freq0"));
    EXPECT_EQ(kOutOfRange, set(cb_f_set, "18999"));
    EXPECT_EQ(kOutOfRange, set(cb_f_set, "21000.5"));
    EXPECT_EQ("20500", get(cb_f_get));

    start_meas();
    state.ini_changed = 0;
    EXPECT_EQ("", set(cb_f_set, "19000"));
    EXPECT_NEAR(19000.0, std::stod(sim::get("meas.sine_hz")), 0.1);
    usleep(10000);
    EXPECT_EQ("18999.85", get(cb_sin_freq_get)); /* a period of 52632 ns */
    EXPECT_EQ(1, state.ini_changed);

    /* The generator refusing: stored, but not written. */
    state.ini_changed = 0;
    sim::control("absent /dev/spidev1.1");
    CaptureStderr();
    EXPECT_EQ("7 error action failed\n", set(cb_f_set, "21000"));
    GetCapturedStderr();
    EXPECT_EQ("21000", get(cb_f_get));
    EXPECT_DOUBLE_EQ(19000.0, ini_double("channel", "f"));
    EXPECT_EQ(0, state.ini_changed);
}

TEST_F(Calibration, TwoPointCalibrationOfTheWorkedExample)
{
    start_meas();
    state.w_offset = 12345;
    state.w_scale = 0.5;

    /* 5 nm per digit: 40000 at 50 um, 20000 at -50 um. The range does not
     * reach down to -275 um. */
    ASSERT_TRUE(sim::set("probe.mm_per_raw", "5e-06"));
    place(50);
    EXPECT_EQ("40000", get(cb_w_get));
    EXPECT_EQ("", set(cb_w_xref1_set, "50.0"));
    EXPECT_EQ(40000, state.wref1);
    place(-50);
    EXPECT_EQ("7 error inappropriate calibration values\n", set(cb_w_xref2_set, "-50.0"));
    /* Refused: the first point is gone, nothing stored. */
    EXPECT_EQ("7 error set xref1 first\n", set(cb_w_xref2_set, "-50.0"));
    EXPECT_EQ(12345, state.w_offset);
    EXPECT_EQ(0.5, state.w_scale);
    EXPECT_EQ(0, state.ini_changed);
    EXPECT_EQ("", other_replies());

    /* 10 nm per digit: 35000 and 25000, accepted. */
    ASSERT_TRUE(sim::set("probe.mm_per_raw", "1e-05"));
    place(50);
    EXPECT_EQ("", set(cb_w_xref1_set, "50.0"));
    place(-50);
    EXPECT_EQ("0 event calibration updated\n", set(cb_w_xref2_set, "-50.0"));
    EXPECT_EQ("0 event calibration updated\n", other_replies());
    EXPECT_EQ(30000, state.w_offset);
    EXPECT_NEAR(0.00001, state.w_scale, 1e-15);
    EXPECT_EQ(0, state.wref1);
    EXPECT_EQ(1, state.ini_changed);
    EXPECT_NEAR(0.00001, ini_double("channel", "w_scale"), 1e-15);
    EXPECT_EQ(30000, ini_long("channel", "w_offset"));
    EXPECT_EQ(2, ini_long("channel", "calibration_rev"));
    EXPECT_EQ("-50.000", get(cb_z_get));
    EXPECT_EQ("7 error set xref1 first\n", set(cb_w_xref2_set, "-50.0"));
}

/* xmax = 124 um, xmin = -396 um: enough for the older boards only. */
TEST_F(Calibration, TheUpperLimitFollowsTheHardwareRevision)
{
    start_meas();
    ASSERT_TRUE(sim::set("probe.zero_raw", "50000"));
    ASSERT_TRUE(sim::set("probe.mm_per_raw", "8e-06"));
    auto calibrate = [this]() {
        place(50);
        EXPECT_EQ("", set(cb_w_xref1_set, "50"));
        place(-50);
        return set(cb_w_xref2_set, "-50");
    };
    EXPECT_EQ("7 error inappropriate calibration values\n", calibrate());
    for (const char* rev : {"D2", "C", "P3", ""}) {
        snprintf(state.hwrev, sizeof state.hwrev, "%s", rev);
        EXPECT_EQ("0 event calibration updated\n", calibrate()) << rev;
        EXPECT_EQ(50000, state.w_offset) << rev;
    }
    snprintf(state.hwrev, sizeof state.hwrev, "F1");
    EXPECT_EQ("7 error inappropriate calibration values\n", calibrate());
}

/* Failures before the second reading keep the first point. */
TEST_F(Calibration, TheSecondPointIsCheckedInOrder)
{
    start_meas();
    EXPECT_EQ("7 error set xref1 first\n", set(cb_w_xref2_set, "500"));
    place(50);
    EXPECT_EQ(kOutOfRange, set(cb_w_xref1_set, "-250.1"));
    EXPECT_EQ(0, state.wref1);
    EXPECT_EQ("", set(cb_w_xref1_set, "50"));
    EXPECT_EQ(35000, state.wref1);
    EXPECT_EQ(50.0, state.xref1);

    /* Out of range, or the state: kept. */
    EXPECT_EQ(kOutOfRange, set(cb_w_xref2_set, "100.5"));
    state.pstate = 4;
    EXPECT_EQ("7 error invalid pstate\n", set(cb_w_xref2_set, "0"));
    state.pstate = 5;
    EXPECT_EQ(35000, state.wref1);

    EXPECT_EQ(0, state.ini_changed);
}

/* From the second reading on, a pair of points that gives no usable scale or
 * zero point cancels the first. */
TEST_F(Calibration, ASecondPointThatMakesNoSenseCancelsTheFirst)
{
    start_meas();
    const struct { double um1; const char* x1; double um2; const char* x2; const char* reply; } cases[] = {
        {50, "50", 50, "0", "7 error value out of range\n"},          /* the same raw reading twice */
        {50, "50", -50, "60", "7 error w_scale out of range\n"},      /* higher up reads lower */
        {50, "50", -50, "50", "7 error w_offset out of range\n"},     /* both points at one height */
        {-299, "1", 299, "100", "7 error w_offset out of range\n"},   /* zero point below raw 0 */
    };
    CaptureStderr();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        place(c.um1);
        ASSERT_EQ("", set(cb_w_xref1_set, c.x1));
        place(c.um2);
        EXPECT_EQ(c.reply, set(cb_w_xref2_set, c.x2));
        EXPECT_EQ(0, state.wref1);
        EXPECT_EQ("7 error set xref1 first\n", set(cb_w_xref2_set, c.x2));
    }
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("cb_w_xref2_set(): offset=-503")); /* -503.54, rounded */
    EXPECT_EQ(0, state.ini_changed);
    EXPECT_EQ("", other_replies());
}

} // namespace

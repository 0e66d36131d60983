#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configtest.h"
#include "sim.h"
#include "util.h"

using testing::HasSubstr;

namespace {

class Config : public vt::ConfigTest {
protected:
    /* Start-up steps 2 and 10, as the server runs them. */
    void start()
    {
        MIniData_Destroy(state.h_ini);
        state = state_s{};
        ASSERT_EQ(0, util_ini_open());
        ASSERT_EQ(0, util_ini_read());
    }
    std::string ini() const { return vt::read_file(product_file("velatool.ini")); }
};

TEST_F(Config, AFreshDeviceGetsEveryDefaultAndNoPatch)
{
    start();
    EXPECT_EQ("[battery]\n"
              "low_threshold=3.6000000000000001\n"
              "crit_threshold=3.5499999999999998\n"
              "hysteresis=0.050000000000000003\n"
              "cycle_low_threshold=3.7000000000000002\n"
              "cycle_high_threshold=3.8999999999999999\n"
              "almost_full_threshold=4\n"
              "suspend_interval_time=600\n"
              "[channel]\n"
              "w_offset=39830\n"
              "w_scale=8.1859099999999997e-06\n"
              "f=20000\n"
              "calibration_rev=2\n"
              "[motor]\n"
              "x_corr=1\n"
              "skip_samples=300\n",
              ini());
    EXPECT_DOUBLE_EQ(8.18591e-06, state.w_scale);
    EXPECT_DOUBLE_EQ(4.0, state.vbatt_almost_full_threshold);
}

TEST_F(Config, AnOldCalibrationIsPatchedExactlyOnce)
{
    write_product_file("velatool.ini", "; calibrated 2019\n[channel]\nw_scale=1.0\n");
    start();
    EXPECT_DOUBLE_EQ(0.92, state.w_scale);
    EXPECT_THAT(ini(), HasSubstr("; calibrated 2019\n[battery]"));
    EXPECT_THAT(ini(), HasSubstr("[channel]\nw_scale=0.92000000000000004\ncalibration_rev=1\n"));
    /* A present section gets no defaults: these fall back as they do. */
    EXPECT_EQ(0, state.w_offset);
    EXPECT_DOUBLE_EQ(20000.0, state.f);

    start();
    EXPECT_DOUBLE_EQ(0.92, state.w_scale); /* not patched again */
}

TEST_F(Config, ValuesAreCheckedOnReadingButTheFileKeepsThem)
{
    write_product_file("velatool.ini", "[motor]\nx_corr=1.5\nskip_samples=12\n"
                                       "[battery]\nhysteresis=0.1\ncycle_low_threshold=3.5\nsuspend_interval_time=5\n"
                                       "[channel]\ncalibration_rev=2\nw_offset=70000\n"
                                       "[general]\nremotetest=1\n");
    start();
    EXPECT_DOUBLE_EQ(1.0, state.x_corr);
    EXPECT_DOUBLE_EQ(3.5, state.vbatt_cycle_low_threshold);
    EXPECT_THAT(ini(), HasSubstr("x_corr=1.5\n"));
    EXPECT_EQ(12u, state.skip_samples);
    EXPECT_EQ(10, state.suspend_interval_time);
    EXPECT_THAT(ini(), HasSubstr("suspend_interval_time=5\n"));
    EXPECT_EQ(uint16_t(70000), state.w_offset);
    EXPECT_EQ(1, state.remotetest);
    /* The battery section lacks the thresholds: zero, not the defaults. */
    EXPECT_DOUBLE_EQ(0.1, state.vbatt_hysteresis);
    EXPECT_DOUBLE_EQ(0.0, state.vbatt_low_threshold);
    EXPECT_DOUBLE_EQ(0.0, state.vbatt_almost_full_threshold);
}

/* A file that cannot be read whole is kept aside; what was read before the
 * bad line stays in force (a calibration, say) and is written anew with the
 * defaults, so that nothing the user wrote is lost and later saves work. */
TEST_F(Config, AnUnreadableFileIsKeptAsideAndWhatWasReadStays)
{
    const std::string twice = "[channel]\nw_offset=41000\n[motor]\nx_corr=1.1\n[motor]\nskip_samples=1\n";
    write_product_file("velatool.ini", twice);
    start();
    EXPECT_EQ(twice, vt::read_file(product_file("velatool.ini.bad")));
    EXPECT_DOUBLE_EQ(1.1, state.x_corr);
    EXPECT_EQ(41000, state.w_offset);
    EXPECT_EQ(300u, state.skip_samples); /* the second [motor] never came */
    EXPECT_THAT(ini(), HasSubstr("w_offset=41000"));
    EXPECT_THAT(ini(), HasSubstr("x_corr=1.1"));
    EXPECT_THAT(ini(), HasSubstr("low_threshold=3.6")); /* a missing section's defaults */
    MIniData_SetDoubleEntry(state.h_ini, "motor", "x_corr", 1.2);
    EXPECT_EQ(1, MIniData_Save(state.h_ini));
    EXPECT_THAT(ini(), HasSubstr("x_corr=1.2"));

    const std::string unreadable[] = {
        std::string("\xff\xfe[\0m\0o\0t\0o\0r\0]\0", 16), /* UTF-16 */
        "garbage before any section\n",
    };
    for (const std::string& text : unreadable) {
        write_product_file("velatool.ini", text);
        start();
        EXPECT_EQ(text, vt::read_file(product_file("velatool.ini.bad")));
        EXPECT_THAT(ini(), HasSubstr("calibration_rev=2"));
        EXPECT_DOUBLE_EQ(1.0, state.x_corr);
    }
}

/* A file the medium cannot give back (an I/O error, not its content) is
 * never replaced: the server runs on the defaults, a save while it still
 * cannot be read writes nothing, and the first save once it reads keeps
 * the calibration and adds what was changed meanwhile. */
TEST_F(Config, AFileThatCannotBeReadIsKeptAndSavedOnceItReads)
{
    root_on_board();
    const std::string calibrated = "; kept\n[channel]\nw_scale=2e-05\ncalibration_rev=2\n[motor]\nx_corr=1.1\n";
    const std::string file = "/var/opt/Orvik/vela/velatool.ini";
    for (const char* fault : {"read EIO always", "read EIO 1 after 1" /* the end-of-file check */,
                              "open EACCES always"}) {
        write_product_file("velatool.ini", calibrated);
        ASSERT_EQ("ok\n", sim::control("fault " + file + " " + fault));
        start();
        sim::control("faults-clear"); /* before the test reads the file itself */
        EXPECT_DOUBLE_EQ(1.0, state.x_corr) << fault;
        EXPECT_DOUBLE_EQ(8.18591e-06, state.w_scale) << fault;
        EXPECT_EQ(calibrated, ini()) << fault;
    }

    /* A client's change while the read still fails, then another once it
     * reads again. */
    ASSERT_EQ("ok\n", sim::control("fault " + file + " read EIO always"));
    MIniData_SetDoubleEntry(state.h_ini, "channel", "f", 19500);
    EXPECT_EQ(-1, util_ini_save());
    sim::control("faults-clear");
    EXPECT_EQ(calibrated, ini());
    MIniData_SetLongEntry(state.h_ini, "channel", "w_offset", 31000);
    EXPECT_EQ(0, util_ini_save());
    EXPECT_THAT(ini(), HasSubstr("; kept\n"));
    start();
    EXPECT_DOUBLE_EQ(1.1, state.x_corr);
    EXPECT_DOUBLE_EQ(2e-05, state.w_scale);
    EXPECT_DOUBLE_EQ(19500, state.f);
    EXPECT_EQ(31000, state.w_offset);
    EXPECT_DOUBLE_EQ(3.6, state.vbatt_low_threshold); /* the missing section's defaults */
}

TEST_F(Config, WithoutAFolderThereIsNoStart)
{
    setenv("ORVIK_CONFIGPATH", "relative/path", 1);
    EXPECT_EQ(-1, util_ini_open());
    EXPECT_EQ(-1, sync_inipath());
    setenv("ORVIK_CONFIGPATH", root.path().c_str(), 1);
    EXPECT_EQ(0, sync_inipath());
}

} // namespace

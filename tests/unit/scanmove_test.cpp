/* Scan and move on the simulated board: the handlers are called directly
 * with a client on a socket pair, and the completions as the server loop
 * calls them, from the scan/move timer and the end switch's edge. The clock
 * warps, so no test waits for real. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/select.h>
#include <unistd.h>
#include <vector>

#include "client_pair.h"
#include "configtest.h"
#include "measurement.h"
#include "motorctrl.h"
#include "scanmove.h"
#include "server.h"
#include "util.h"
#include "velatool.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

using vt::decode_samples;

class ScanMove : public vt::ConfigTest {
protected:
    /* The firmware's behavioural model: board time is cheap with it (the
     * instruction-level cores cost real seconds per board second), and it
     * reports error codes on demand. The firmware itself is held to the model
     * elsewhere. */
    std::string scenario() const override { return "[pru]\nengine = model\n"; }
    void SetUp() override
    {
        vt::ConfigTest::SetUp();
        ASSERT_TRUE(sim::clock_mode("warp"));
        ASSERT_TRUE(sim::set("adc.noise_codes", "0"));
        client_.sock = sv_[0];
        client_.idx = 0;
        client_.current_id = 7;
        state.fdscanmovetimer = -1;
        state.fdautoinfotimer = -1;
        state.fdidletimer = -1;
        state.fdopto = -1;
        state.speed = 0.5;
        state.x_corr = 1.0;
        state.w_ov_min = 0;
        state.w_ov_max = 65535;
        state.f = 20000;
        state.phase = 8; /* the server's default: the reference where the probe's signal is largest */
        ASSERT_EQ(0, am335x_adc_init(&state.adchnd));
        state.fdvganf = vela_motor_vganf_init();
        ASSERT_GE(state.fdvganf, 0);
        /* The measurement chain as the meas power state switches it on. */
        ASSERT_EQ(0, vela_motor_power_ctrl(1));
        ASSERT_EQ(0, vela_motor_dac_write(2082));
        ASSERT_EQ(0, vela_meas_power_ctrl(1));
        vela_sine_setup_ex(state.f);
        vela_meas_poti_write(192);
        ASSERT_EQ(0, aquisition_init(&state.pruss_info, state.phase));
        ASSERT_EQ(0, aquisition_start(&state.pruss_info, 1, 2000, 0, 65535, 1, 6, state.skip_samples, 0));
        state.pstate = 5;
        sim::journal_clear();
    }
    void TearDown() override
    {
        if (state.fdscanmovetimer >= 0)
            close(state.fdscanmovetimer);
        aquisition_stop(&state.pruss_info);
        aquisition_shutdown(&state.pruss_info);
        vela_motor_vganf_close();
        am335x_adc_close(state.adchnd);
        vt::ConfigTest::TearDown();
    }

    int run(const std::string& handler_line)
    {
        std::vector<std::string> words(1);
        for (char c : handler_line) {
            if (c == ' ')
                words.emplace_back();
            else
                words.back() += c;
        }
        std::vector<char*> argv;
        for (auto& w : words)
            argv.push_back(w.data());
        argv.push_back(nullptr);
        int argc = static_cast<int>(words.size());
        if (words[0] == "scan")
            return cb_scan(&client_, argc, argv.data());
        return cb_move(&client_, argc, argv.data());
    }

    /* The server loop's share: the timer's expiry read, then do_scan or
     * do_movetimeout; an end-switch edge acknowledged, then
     * do_endswitch_reached. each(ticks) runs before every timer step.
     * Returns the timer steps served. */
    int serve(const std::function<void(int)>& each = {}, int max_steps = 2000)
    {
        int ticks = 0;
        while (state.scanmove_client != nullptr && max_steps-- > 0) {
            fd_set rd, ex;
            FD_ZERO(&rd);
            FD_ZERO(&ex);
            FD_SET(state.fdscanmovetimer, &rd);
            FD_SET(state.fdvganf, &ex);
            struct timeval tv = {60, 0};
            int n = select(std::max(state.fdscanmovetimer, state.fdvganf) + 1, &rd, nullptr, &ex, &tv);
            if (n <= 0) {
                ADD_FAILURE() << "nothing happened within 60 s";
                break;
            }
            if (FD_ISSET(state.fdscanmovetimer, &rd)) {
                uint64_t expirations = 0;
                EXPECT_EQ(8, read(state.fdscanmovetimer, &expirations, sizeof expirations));
                if (each)
                    each(ticks);
                ticks++;
                if (state.scanmove_action == 2)
                    EXPECT_EQ(0, do_scan());
                else
                    EXPECT_EQ(0, do_movetimeout());
            }
            if (FD_ISSET(state.fdvganf, &ex)) {
                char c[4];
                lseek(state.fdvganf, 0, SEEK_SET);
                EXPECT_GT(read(state.fdvganf, c, sizeof c), 0);
                do_endswitch_reached();
            }
        }
        return ticks;
    }

    /* Everything the client has received since the last call, by lines. */
    std::vector<std::string> lines()
    {
        std::string text = vt::received(sv_[1]);
        std::vector<std::string> out;
        size_t at = 0;
        for (size_t nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1)
            out.push_back(text.substr(at, nl - at));
        EXPECT_EQ(at, text.size()) << "unterminated line";
        return out;
    }

    /* The samples of the data lines with the given id, in order; other lines
     * go to *rest. */
    std::vector<uint16_t> samples_of(const std::vector<std::string>& all, int id, std::vector<std::string>* rest,
                                     std::vector<size_t>* chunks = nullptr)
    {
        std::vector<uint16_t> out;
        std::string prefix = std::to_string(id) + " data ";
        for (const auto& l : all) {
            if (l.rfind(prefix, 0) != 0) {
                rest->push_back(l);
                continue;
            }
            auto s = decode_samples(l.substr(prefix.size()));
            if (chunks)
                chunks->push_back(s.size());
            out.insert(out.end(), s.begin(), s.end());
        }
        return out;
    }

    std::vector<std::string> dac_writes() { return vt::entries("/dev/i2c-1@0x60 write"); }

    vt::ClientPair sv_;
    struct client_s client_ = {};
};

/* Data lines carry 2, 4 or 6 samples: both padded tails and none. */
TEST(ScanMoveBase64, EncodesTheChunksWithTheirPadding)
{
    const unsigned char samples[12] = {0xff, 0xfe, 0x00, 0x01, 0x7f, 0x80, 0x10, 0x20, 0x30, 0x40, 0xfb, 0xef};
    const struct {
        size_t n;
        const char* out;
    } cases[] = {{4, "//4AAQ=="}, {8, "//4AAX+AECA="}, {12, "//4AAX+AECAwQPvv"}};
    char out[32];
    for (const auto& c : cases) {
        size_t len = sizeof out;
        ASSERT_EQ(out, base64_encode(samples, c.n, out, &len)) << c.out;
        EXPECT_EQ(c.out, std::string(out, len));
    }
}

TEST_F(ScanMove, RefusedScansAnswerWithTheirErrorAndStartNothing)
{
    state.pstate = 4;
    state.scanmove_ts_start = {};
    EXPECT_EQ(-1, run("scan x=1"));
    EXPECT_NE(0, state.scanmove_ts_start.tv_sec); /* stored before the checks */
    state.pstate = 5;
    for (const char* line : {"scan x5", "scan", "scan x=1 y=2", "scan len=3"})
        EXPECT_EQ(-1, run(line)) << line;
    for (const char* line : {"scan x=17.6", "scan x=0.05", "scan time=41", "scan time=0.05"})
        EXPECT_EQ(-1, run(line)) << line;
    state.pruss_info.max_samples = 1999; /* a buffer one sample short */
    EXPECT_EQ(-1, run("scan x=1"));
    EXPECT_THAT(lines(), ElementsAre("7 error invalid pstate", "7 error syntax invalid", "7 error syntax invalid",
                                     "7 error syntax invalid", "7 error syntax invalid", "7 error value out of range",
                                     "7 error value out of range", "7 error value out of range",
                                     "7 error value out of range", "7 error value out of range"));
    EXPECT_EQ(-1, state.fdscanmovetimer);
    EXPECT_EQ(nullptr, state.scanmove_client);
    EXPECT_THAT(dac_writes(), IsEmpty());
    EXPECT_THAT(vt::entries("pruss acquire"), IsEmpty());
}

TEST_F(ScanMove, DistanceScanSetsDriveRateAndBudget)
{
    ASSERT_EQ(1, run("scan x=1"));
    /* 0.5 mm/s: DAC 890 * 0.5 + 2082, 1000 samples/s for 2 s, budget 3 s. */
    EXPECT_THAT(dac_writes(), ElementsAre("/dev/i2c-1@0x60 write 09 df"));
    EXPECT_THAT(vt::entries("pruss acquire"),
                ElementsAre("pruss acquire count=2000 interval=3125 ovs=6 filter=1 mode=9 skip=0 min=0 max=65535"));
    EXPECT_EQ(3000, state.scantimeout);
    EXPECT_EQ(500, state.scandatatimeout);
    EXPECT_EQ(2, state.scanmove_action);
    EXPECT_EQ(7, state.scanmove_id);
    EXPECT_EQ(&client_, state.scanmove_client);
    EXPECT_GE(state.fdscanmovetimer, 0);

    /* One at a time, and a refused move still takes the start time. */
    client_.current_id = 8;
    struct timespec before = state.scanmove_ts_start;
    sim::advance_clock(250000000);
    EXPECT_EQ(-1, run("scan x=2"));
    EXPECT_EQ(-1, run("move x=0"));
    EXPECT_NE(before.tv_nsec, state.scanmove_ts_start.tv_nsec);
    EXPECT_THAT(lines(), ElementsAre("8 error command already active", "8 error command already active"));

    sim::journal_clear();
    EXPECT_EQ(0, scan_abort(&client_));
    EXPECT_THAT(lines(), ElementsAre("7 error aborted", MatchesRegex("7 ready 0\\.0[0-9][0-9]")));
    EXPECT_EQ(1u, state.meas_cycles);
    EXPECT_EQ(-1, state.fdscanmovetimer);
    EXPECT_EQ(nullptr, state.scanmove_client);
    EXPECT_THAT(dac_writes(), ElementsAre("/dev/i2c-1@0x60 write 08 22"));
    EXPECT_THAT(vt::entries("pruss acquire"), ElementsAre(HasSubstr("count=1 interval=1562 ovs=6 filter=1 mode=1")));
}

TEST_F(ScanMove, TimedScanAndLimitsStart)
{
    state.skip_samples = 300;
    ASSERT_EQ(1, run("scan time=40"));
    EXPECT_THAT(dac_writes(), IsEmpty());
    EXPECT_THAT(vt::entries("pruss acquire"), ElementsAre(HasSubstr("count=40000 interval=3125 ovs=6 filter=1 mode=1")));
    EXPECT_EQ(41300, state.scantimeout); /* and the 300 ms of discarded samples */
    scan_abort(&client_);
    ASSERT_EQ(1, run("scan timeout=0.1"));
    scan_abort(&client_);
    EXPECT_EQ(2u, state.meas_cycles);
    auto all = lines();
    EXPECT_EQ(2, std::count(all.begin(), all.end(), "7 error aborted"));
}

TEST_F(ScanMove, EverySampleArrivesOnceInOrder)
{
    ASSERT_TRUE(sim::set("workpiece.profile", "0:0 20:400"));
    ASSERT_EQ(1, run("scan x=1"));
    int ticks = serve();
    std::vector<std::string> rest;
    std::vector<size_t> chunks;
    std::vector<uint16_t> got = samples_of(lines(), 7, &rest, &chunks);
    ASSERT_THAT(rest, ElementsAre(MatchesRegex("7 ready 2\\.[01][0-9][0-9]")));
    EXPECT_GE(ticks, 20);
    EXPECT_LE(ticks, 22);
    ASSERT_EQ(2000u, got.size());
    for (size_t n : chunks) {
        EXPECT_EQ(0u, n % 2);
        EXPECT_LE(n, 102u);
    }
    /* Sample 0 is the idle acquisition's again by now. */
    for (size_t i = 1; i < got.size(); i++)
        ASSERT_EQ(state.pruss_info.p_samples[i], got[i]) << "sample " << i;
    EXPECT_NE(got.front(), got.back()); /* the probe followed the slope */
    EXPECT_EQ(1u, state.meas_cycles);
    EXPECT_THAT(dac_writes(), ElementsAre("/dev/i2c-1@0x60 write 09 df", "/dev/i2c-1@0x60 write 08 22"));
    EXPECT_EQ("2082", sim::get("motor.dac"));
}

TEST_F(ScanMove, OverflowLimits)
{
    /* A step of the workpiece halfway along the scan. */
    ASSERT_TRUE(sim::set("workpiece.profile", "0:0 3.5:0 3.51:100"));
    ASSERT_TRUE(sim::set("drive.position_mm", "3"));
    ASSERT_EQ(1, run("scan x=1"));
    serve();
    std::vector<std::string> rest;
    std::vector<uint16_t> plain = samples_of(lines(), 7, &rest);
    ASSERT_EQ(2000u, plain.size());
    uint16_t before = plain[100], after = plain[1900];
    ASSERT_GT(std::abs(before - after), 1000);
    uint16_t mid = static_cast<uint16_t>((before + after) / 2);

    /* Above the upper limit: the scan ends with "OF PLUS". */
    ASSERT_TRUE(sim::set("drive.position_mm", "3"));
    state.w_ov_max = mid;
    if (before > after) {
        /* The profile falls: flip it, so that the step goes up. */
        ASSERT_TRUE(sim::set("workpiece.profile", "0:100 3.5:100 3.51:0"));
    }
    ASSERT_EQ(1, run("scan x=1"));
    serve();
    rest.clear();
    std::vector<uint16_t> cut = samples_of(lines(), 7, &rest);
    EXPECT_THAT(rest, ElementsAre("7 error OF PLUS", MatchesRegex("7 ready 1\\.[0-9]{3}")));
    EXPECT_GT(cut.size(), 800u);
    EXPECT_LT(cut.size(), 1100u);

    /* Below the lower limit: one warning with the client's latest id, the
     * scan goes on to its end. */
    ASSERT_TRUE(sim::set("drive.position_mm", "3"));
    state.w_ov_max = 65535;
    state.w_ov_min = mid;
    ASSERT_EQ(1, run("scan x=1"));
    client_.current_id = 9;
    serve();
    rest.clear();
    std::vector<uint16_t> all = samples_of(lines(), 7, &rest);
    EXPECT_THAT(rest, ElementsAre("9 warning OF MINUS", MatchesRegex("7 ready 2\\.[0-9]{3}")));
    EXPECT_EQ(2000u, all.size());
    EXPECT_EQ(3u, state.meas_cycles);
}

/* Error codes other than an overflow come from requests this program never
 * makes. */
TEST_F(ScanMove, AFirmwareErrorFailsTheScan)
{
    ASSERT_TRUE(sim::set("pru.error", "5"));
    ASSERT_EQ(1, run("scan x=1"));
    EXPECT_EQ(1, serve());
    EXPECT_THAT(lines(), ElementsAre("7 error error", MatchesRegex("7 ready 0\\.1[0-9][0-9]")));
}

TEST_F(ScanMove, FirmwareFailures)
{
    /* No sample at all: fails on the sixth step, or as much later as the
     * discarded samples take (300 at 1000 samples/s). */
    ASSERT_TRUE(sim::set("pru.fault", "stall"));
    ASSERT_EQ(1, run("scan x=1"));
    EXPECT_EQ(6, serve());
    state.skip_samples = 300;
    ASSERT_EQ(1, run("scan x=1"));
    EXPECT_EQ(9, serve());
    EXPECT_THAT(lines(), ElementsAre("7 error timeout no data", MatchesRegex("7 ready 0\\.6[0-9][0-9]"),
                                     "7 error timeout no data", MatchesRegex("7 ready 0\\.9[0-9][0-9]")));
    state.skip_samples = 0;
    ASSERT_TRUE(sim::set("pru.fault", "none"));

    /* The firmware stops delivering after a second: the budget of 3 s runs
     * out, and the failing step sends no data. */
    ASSERT_EQ(1, run("scan x=1"));
    int ticks = serve([](int tick) {
        if (tick == 10)
            sim::set("pru.fault", "stall");
    });
    EXPECT_EQ(31, ticks);
    std::vector<std::string> rest;
    std::vector<uint16_t> got = samples_of(lines(), 7, &rest);
    EXPECT_THAT(rest, ElementsAre("7 error timeout", MatchesRegex("7 ready 3\\.1[0-9][0-9]")));
    EXPECT_GE(got.size(), 900u);
    EXPECT_LE(got.size(), 1100u);
    EXPECT_EQ(3u, state.meas_cycles);
    sim::set("pru.fault", "none");

    /* A count past the buffer (a firmware gone wrong) is never read past it.
     * The buffer is made shorter than the mapping, so that reading past its
     * end fails here instead of hanging the test. */
    state.pruss_info.max_samples = 3000;
    ASSERT_EQ(1, run("scan x=1"));
    serve([](int tick) {
        if (tick == 2) {
            sim::set("pru.fault", "stall");
            state.pruss_info.comm->out_count = 3500;
        }
    });
    rest.clear();
    EXPECT_EQ(3000u, samples_of(lines(), 7, &rest).size());
    EXPECT_THAT(rest, ElementsAre("7 error timeout", MatchesRegex("7 ready 3\\.[0-9]{3}")));
    sim::set("pru.fault", "none");
}

TEST_F(ScanMove, MoveHomeEndsAtTheEndSwitch)
{
    EXPECT_EQ(-1, run("move x=5"));
    EXPECT_EQ(-1, run("move"));
    state.pstate = 4;
    EXPECT_EQ(-1, run("move x=0"));
    state.pstate = 5;
    EXPECT_THAT(lines(), ElementsAre("7 error invalid arguments for move", "7 error invalid arguments for move",
                                     "7 error invalid pstate"));

    /* 3 mm at full speed home, about 2.34 mm/s. */
    ASSERT_EQ(1, run("move x=0.5"));
    EXPECT_THAT(dac_writes(), ElementsAre("/dev/i2c-1@0x60 write 00 00"));
    EXPECT_EQ(1, state.scanmove_action);
    EXPECT_EQ(1, serve()); /* the drive check after 1 s, then the edge */
    EXPECT_THAT(lines(), ElementsAre(MatchesRegex("7 ready 1\\.2[0-9][0-9]")));
    EXPECT_EQ("1", sim::get("drive.at_home"));
    EXPECT_EQ("2082", sim::get("motor.dac"));
    EXPECT_EQ(0u, state.meas_cycles);
    EXPECT_EQ(-1, state.fdscanmovetimer);
    EXPECT_EQ(-22, do_endswitch_reached());
    EXPECT_EQ(-22, do_movetimeout());

    /* At the end switch already: finished at once, nothing touched. */
    sim::journal_clear();
    EXPECT_EQ(0, run("move x=0"));
    EXPECT_EQ(-1, state.fdscanmovetimer);
    EXPECT_THAT(dac_writes(), IsEmpty());
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(ScanMove, MoveSupervision)
{
    /* No drive unit: the motor voltage tells after 1 s. */
    ASSERT_TRUE(sim::set("drive.connected", "0"));
    ASSERT_EQ(1, run("move x=0"));
    EXPECT_EQ(1, serve());
    EXPECT_THAT(lines(), ElementsAre("7 error no drive unit", MatchesRegex("7 ready 1\\.0[0-9][0-9]")));
    ASSERT_TRUE(sim::set("drive.connected", "1"));

    /* A jammed carriage never reaches the end switch. */
    ASSERT_TRUE(sim::set("drive.stuck", "1"));
    ASSERT_EQ(1, run("move x=0"));
    EXPECT_EQ(2, serve());
    EXPECT_THAT(lines(), ElementsAre("7 error endswitch timeout", MatchesRegex("7 ready 15\\.0[0-9][0-9]")));
    EXPECT_EQ("2082", sim::get("motor.dac"));

    /* An abort, and an end switch edge during a scan only disarms. */
    ASSERT_EQ(1, run("move x=0"));
    EXPECT_EQ(0, move_abort(&client_));
    EXPECT_THAT(lines(), ElementsAre("7 error aborted", MatchesRegex("7 ready 0\\.0[0-9][0-9]")));
    ASSERT_EQ(1, run("scan x=1"));
    EXPECT_EQ(0, do_endswitch_reached());
    EXPECT_EQ(&client_, state.scanmove_client);
    scan_abort(&client_);
    EXPECT_EQ(1u, state.meas_cycles);
}

/* The loop serves the timer before the end switch's edge: when a hold-up
 * makes both due at once, the switch decides. */
TEST_F(ScanMove, AMoveHeldUpPastItsTimeOutStillEndsAtTheEndSwitch)
{
    ASSERT_EQ(1, run("move x=0"));
    uint64_t expirations = 0;
    sim::advance_clock(1000000000LL + 1000); /* the drive check, before home */
    ASSERT_EQ(8, read(state.fdscanmovetimer, &expirations, sizeof expirations));
    ASSERT_EQ(0, do_movetimeout());
    ASSERT_NE(nullptr, state.scanmove_client);
    sim::advance_clock(20000000000LL); /* home after 1.3 s, the time-out due at 15 s */
    ASSERT_EQ(8, read(state.fdscanmovetimer, &expirations, sizeof expirations));
    EXPECT_EQ(0, do_movetimeout());
    EXPECT_THAT(lines(), ElementsAre(MatchesRegex("7 ready 21\\.[0-9]{3}")));
    EXPECT_EQ(nullptr, state.scanmove_client);
    EXPECT_EQ("2082", sim::get("motor.dac"));
    EXPECT_EQ(-22, do_endswitch_reached()); /* the stale edge finds nothing */
}

} // namespace

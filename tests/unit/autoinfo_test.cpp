/* The commands machine, autoinfo and abort through the server's request
 * handling, on the simulated board: two clients on socket pairs in the
 * server's slots, the autoinfo timer in warp time. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <poll.h>
#include <string>
#include <unistd.h>

/* The simulation has a commands.h of its own (simulated shell commands). */
#include "commands.h"
#include "client_pair.h"
#include "configtest.h"
#include "server.h"
#include "power.h"
#include "pstate.h"
#include "util.h"

using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

class Autoinfo : public vt::ConfigTest {
protected:
    void SetUp() override
    {
        vt::ConfigTest::SetUp();
        ASSERT_TRUE(sim::clock_mode("warp"));
        state.fdautoinfotimer = -1;
        state.fdscanmovetimer = -1;
        state.fdopto = -1;
        ASSERT_EQ(0, util_ini_open());
        ASSERT_EQ(0, util_ini_read());
        ASSERT_EQ(0, am335x_adc_init(&state.adchnd));
        ASSERT_TRUE(sim::set("adc.noise_codes", "0"));
        ASSERT_TRUE(sim::set("backlight.brightness", "50"));
        saved_batt_state_ = chgstate.state;
        chgstate.state = BATT_STATE_ON_BATTERY;
        for (int i = 0; i < 2; i++) {
            c_[i] = remote_client(i);
            c_[i]->sock = sv_[i][0];
            c_[i]->idx = i;
            setnonblocking(sv_[i][0]);
        }
    }
    void TearDown() override
    {
        for (int i = 0; i < 2; i++) {
            do_abort(c_[i], -1);
            c_[i]->sock = -1;
        }
        chgstate.state = saved_batt_state_;
        am335x_adc_close(state.adchnd);
        vt::ConfigTest::TearDown();
    }

    /* One request line from client i, handled as the server does. */
    std::string request(int i, const std::string& line)
    {
        std::string text = line + "\n";
        EXPECT_EQ(static_cast<ssize_t>(text.size()), write(sv_[i][1], text.data(), text.size()));
        deal_with_data(c_[i]);
        return replies(i);
    }
    /* Everything client i has received since the last call. */
    std::string replies(int i) { return vt::received(sv_[i][1]); }
    /* Waits for the next expiry of the autoinfo timer and serves it as the
     * main loop does; the board time that passed, ms. */
    int64_t tick()
    {
        int64_t t0 = sim::monotonic_ns();
        struct pollfd p = {state.fdautoinfotimer, POLLIN, 0};
        EXPECT_EQ(1, poll(&p, 1, 10000));
        uint64_t expirations = 0;
        EXPECT_EQ(8, read(state.fdautoinfotimer, &expirations, sizeof expirations));
        do_autoinfo();
        return (sim::monotonic_ns() - t0) / 1000000;
    }

    vt::ClientPair sv_[2];
    struct client_s* c_[2] = {nullptr, nullptr};
    int saved_batt_state_ = 0;
};

const char kReady[] = " ready [0-9]+\\.[0-9][0-9][0-9]\n";

TEST_F(Autoinfo, IntervalFromFiftyMsReportsWithItsOwnIdBetweenOtherRequests)
{
    EXPECT_THAT(request(0, "3 autoinfo 49 batt_state"),
                MatchesRegex(std::string("3 ack\n3 error value out of range\n3") + kReady));
    EXPECT_EQ(-1, state.fdautoinfotimer);

    EXPECT_EQ("4 ack\n", request(0, "4 autoinfo 50 batt_state blight"));
    EXPECT_GE(state.fdautoinfotimer, 0);
    EXPECT_EQ(50, tick());
    EXPECT_EQ("4 data 4 50\n", replies(0));

    /* Other requests keep their own ids, also after a report. */
    EXPECT_THAT(request(0, "5 get batt_state"), MatchesRegex(std::string("5 ack\n5 data 4\n5") + kReady));
    EXPECT_EQ(50, tick());
    EXPECT_EQ("4 data 4 50\n", replies(0));
    EXPECT_EQ(5, c_[0]->current_id);
    EXPECT_EQ("", replies(1));

    /* One subscription in the whole server. */
    EXPECT_THAT(request(1, "8 autoinfo 1000 batt"),
                MatchesRegex(std::string("8 ack\n8 error command already active\n8") + kReady));
    EXPECT_THAT(request(0, "6 autoinfo 1000 batt"),
                MatchesRegex(std::string("6 ack\n6 error command already active\n6") + kReady));
}

TEST_F(Autoinfo, ChannelListIsNeededAndHoldsAtMostSixteen)
{
    EXPECT_THAT(request(0, "1 autoinfo 100"),
                MatchesRegex(std::string("1 ack\n1 error no axis specified\n1") + kReady));
    EXPECT_THAT(request(0, "2 autoinfo"), MatchesRegex(std::string("2 ack\n2 error no axis specified\n2") + kReady));
    std::string seventeen = "3 autoinfo 100";
    for (int i = 0; i < 17; i++)
        seventeen += " batt_state";
    EXPECT_THAT(request(0, seventeen), MatchesRegex(std::string("3 ack\n3 error value out of range\n3") + kReady));
    EXPECT_EQ(-1, state.fdautoinfotimer);

    std::string sixteen = "4 autoinfo 1000";
    for (int i = 0; i < 16; i++)
        sixteen += " batt_state";
    EXPECT_EQ("4 ack\n", request(0, sixteen));
    EXPECT_EQ(17, state.ai_cnt);
    EXPECT_EQ(1000, tick());
    EXPECT_EQ("4 data 4 4 4 4 4 4 4 4 4 4 4 4 4 4 4 4\n", replies(0));
}

TEST_F(Autoinfo, AnUnknownChannelIsReportedAtEveryExpiryAndTheSubscriptionGoesOn)
{
    EXPECT_EQ("9 ack\n", request(0, "9 autoinfo 200 batt_state nosuch"));
    EXPECT_EQ(200, tick());
    EXPECT_EQ("9 error unknown channel\n", replies(0));
    EXPECT_EQ(200, tick());
    EXPECT_EQ("9 error unknown channel\n", replies(0));
    EXPECT_EQ(c_[0], state.autoinfo_client);
}

TEST_F(Autoinfo, AbortEndsOnlyWhatMatchesAndOnlyTheClientsOwn)
{
    EXPECT_EQ("4 ack\n", request(0, "4 autoinfo 100 batt_state"));
    /* Another id, or another client: only the abort's own ready. */
    EXPECT_THAT(request(0, "9 abort 8"), MatchesRegex(std::string("9 ack\n9") + kReady));
    EXPECT_THAT(request(1, "10 abort"), MatchesRegex(std::string("10 ack\n10") + kReady));
    EXPECT_THAT(request(1, "11 abort 4"), MatchesRegex(std::string("11 ack\n11") + kReady));
    EXPECT_EQ("", replies(0));
    EXPECT_EQ(c_[0], state.autoinfo_client);

    EXPECT_THAT(request(0, "12 abort 4"), MatchesRegex(std::string("12 ack\n4 error aborted\n4 ready\n12") + kReady));
    EXPECT_EQ(-1, state.fdautoinfotimer);
    EXPECT_EQ(nullptr, state.autoinfo_client);

    /* Without an id everything of the client ends. */
    EXPECT_EQ("13 ack\n", request(1, "13 autoinfo 100 batt_state"));
    EXPECT_THAT(request(1, "14 abort"), MatchesRegex(std::string("14 ack\n13 error aborted\n13 ready\n14") + kReady));
    EXPECT_EQ(nullptr, state.autoinfo_client);
}

TEST_F(Autoinfo, AbortByIdEndsTheClientsScan)
{
    state.pstate = 4;
    state.phase = 8;
    state.speed = 0.5;
    ASSERT_EQ(0, cb_pstate_set(c_[0], "meas"));
    EXPECT_EQ("17 ack\n", request(0, "17 scan x=4.0"));
    EXPECT_EQ("5 ack\n", request(0, "5 autoinfo 100 batt_state"));
    /* Another client's abort leaves it running. */
    EXPECT_THAT(request(1, "3 abort 17"), MatchesRegex(std::string("3 ack\n3") + kReady));
    EXPECT_EQ(c_[0], state.scanmove_client);

    EXPECT_THAT(request(0, "18 abort 17"),
                MatchesRegex(std::string("18 ack\n17 error aborted\n17") + kReady + "18" + kReady));
    EXPECT_EQ(nullptr, state.scanmove_client);
    EXPECT_EQ(c_[0], state.autoinfo_client);
    EXPECT_EQ(0, cb_pstate_set(c_[0], "ready"));
}

TEST_F(Autoinfo, TheSubscribersDisconnectEndsTheSubscription)
{
    EXPECT_EQ("4 ack\n", request(1, "4 autoinfo 100 batt_state"));
    /* The connection layer ends what the client started when the peer closes. */
    close(sv_[1][1]);
    sv_[1][1] = -1;
    deal_with_data(c_[1]);
    EXPECT_EQ(-1, c_[1]->sock);
    EXPECT_EQ(-1, state.fdautoinfotimer);
    EXPECT_EQ(nullptr, state.autoinfo_client);
    EXPECT_EQ(0, state.ai_cnt);
    sv_[1][0] = -1; /* closed by the server */

    EXPECT_EQ("5 ack\n", request(0, "5 autoinfo 100 batt_state"));
    EXPECT_EQ(100, tick());
    EXPECT_EQ("5 data 4\n", replies(0));
}

TEST_F(Autoinfo, MachineNamesModelRevisionSerialAndComponents)
{
    snprintf(state.machine, sizeof state.machine, "VELAL");
    snprintf(state.hwrev, sizeof state.hwrev, "B.2");
    std::string out = request(0, "21 machine");
    EXPECT_THAT(out, MatchesRegex(std::string("21 ack\n"
                                              "21 data machine \"VELAL\" \"B.2\"\n"
                                              "21 data serialno \"[^\"\n]*\"\n"
                                              "21 data component \"bootloader\" \"[^\"\n]*\"\n"
                                              "21 data component \"bsp\" \"[^\"\n]*\"\n"
                                              "21 data component \"velatool\" \"1.00-32\"\n"
                                              "21") +
                                  kReady));
}

TEST_F(Autoinfo, CommandsAreCaseSensitiveAndReadyTimesTruncated)
{
    EXPECT_THAT(request(0, "1 Abort"), MatchesRegex(std::string("1 ack\n1 error unknown command\n1") + kReady));
    /* 123.9 ms after the request's start: 0.123, not 0.124. */
    clock_gettime(CLOCK_MONOTONIC, &c_[0]->ts_start);
    c_[0]->ts_start.tv_nsec -= 123900000;
    if (c_[0]->ts_start.tv_nsec < 0) {
        c_[0]->ts_start.tv_nsec += 1000000000;
        c_[0]->ts_start.tv_sec--;
    }
    c_[0]->current_id = 2;
    remote_ready(c_[0]);
    EXPECT_EQ("2 ready 0.123\n", replies(0));
}

} // namespace

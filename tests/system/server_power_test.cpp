/* The server's power events over TCP: the battery's state and level as the
 * simulated battery charges and discharges, USB power coming and going, the
 * idle timer's housekeeping, with the board's clock in step mode. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "server.h"
#include "simrun.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::StartsWith;

namespace {

/* Events that arrive while board time moves on in steps. */
std::vector<std::string> events_over(vt::ServerUnderTest& server, vt::LineClient& client, const std::string& step,
                                     int steps)
{
    std::vector<std::string> events;
    for (int i = 0; i < steps; i++) {
        EXPECT_TRUE(server.advance(step) && server.settle());
        for (std::string line; client.read_line(&line, 0);)
            events.push_back(line);
    }
    return events;
}

/* A charger's interrupt line reports an event at once when it is first
 * opened, so the server's first pass already runs the power handler: a
 * client sees the battery's state and level right after start-up. */
class ServerPower : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start()) << server.err();
        ASSERT_TRUE(client.connect(server.port()));
        std::vector<std::string> greeting =
            client.read_until([](const std::string& l) { return l == "0 event battery good"; });
        EXPECT_THAT(greeting, Contains("0 event on battery"));
        ASSERT_EQ("0 event battery good", greeting.back());
    }

    vt::ServerUnderTest server;
    vt::LineClient client;
};

TEST_F(ServerPower, LevelsFollowTheBatteryWithHysteresis)
{
    server.ctl({"set", "battery.voltage", "3.58"});
    EXPECT_THAT(events_over(server, client, "10s", 1), ElementsAre("0 event battery low"));
    server.ctl({"set", "battery.voltage", "3.5"});
    EXPECT_THAT(events_over(server, client, "10s", 1), ElementsAre("0 event battery critical"));
    /* The hysteresis is the unit suite's; here: the configured thresholds,
     * polled every 10 s. */
    server.ctl({"set", "battery.voltage", "3.9"});
    EXPECT_THAT(events_over(server, client, "10s", 2), ElementsAre("0 event battery low", "0 event battery good"));
}

/* USB power: plugged in, the gadget comes up and the battery charges. The
 * charger's line, held low while it charges, tells of a supply gone at once;
 * the gadget goes down after the five readings (their count is the unit
 * suite's). */
TEST_F(ServerPower, UsbPowerComesAndGoes)
{
    events_over(server, client, "1s", 1);
    server.ctl({"set", "supply.usb_v", "5"});
    EXPECT_THAT(events_over(server, client, "1s", 3), ElementsAre("0 event charging"));
    std::vector<std::string> journal = server.journal();
    EXPECT_THAT(journal, IsSupersetOf({"system \"sh ./usb_gadget.sh bind\" 0", "system \"sh ./usb_gadget.sh start\" 0"}));
    /* A client that comes now hears of the slow charge alone: a level
     * means nothing while USB charges. */
    vt::LineClient later;
    ASSERT_TRUE(later.connect(server.port()));
    later.send("1 get batt_state");
    EXPECT_THAT(later.read_until([](const std::string& l) { return l.rfind("1 ready", 0) == 0; }),
                ElementsAre("0 event charging", "1 ack", "1 data 1", StartsWith("1 ready")));

    server.ctl({"set", "supply.usb_v", "0"});
    EXPECT_THAT(events_over(server, client, "100ms", 1), ElementsAre("0 event on battery", "0 event battery good"));
    events_over(server, client, "100ms", 5); /* the five readings */
    journal = server.journal();
    EXPECT_EQ(1u, vt::grep(journal, "system \"sh ./usb_gadget.sh stop\" 0").size());
    EXPECT_EQ(1u, vt::grep(journal, "system \"sh ./usb_gadget.sh unbind\" 0").size());
}

/* Every idle period saves the counters to the RTC's RAM and restarts the
 * charger's watchdog; charger
 * interrupts are served once each and leave no pending edge behind, so the
 * loop does not spin on them. */
TEST_F(ServerPower, TheIdleTimerKeepsHouseAndInterruptsDoNotSpin)
{
    /* Minutes: the charger keeps what it was set to, its watchdog restarted
     * at every poll. */
    events_over(server, client, "10s", 12);
    EXPECT_GE(vt::grep(server.journal(), "nvram write").size(), 12u);
    EXPECT_EQ("0\n", server.ctl({"get", "charger.watchdog_expiries"}).out);

    for (int i = 0; i < 4; i++) {
        server.ctl({"usb-dip", "10ms"});
        events_over(server, client, "50ms", 2);
    }
    size_t reads = vt::grep(server.journal(), "/dev/i2c-0@0x6b read").size();
    /* Board time stands still: a loop spinning on an edge would read the
     * charger again in every pass, and each settle takes one. */
    ASSERT_TRUE(server.settle() && server.settle());
    EXPECT_EQ(reads, vt::grep(server.journal(), "/dev/i2c-0@0x6b read").size());
    EXPECT_TRUE(server.running());
}

} // namespace

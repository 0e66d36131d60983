/* The server's power events over TCP: the battery's state and level as the
 * simulated battery charges and discharges, USB power coming and going, the
 * idle timer's housekeeping, with the board's clock in step mode. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "server.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;

namespace {

size_t count_of(const std::vector<std::string>& lines, const std::string& needle)
{
    size_t n = 0;
    for (const std::string& l : lines)
        n += l.find(needle) != std::string::npos;
    return n;
}

/* Events that arrive while board time moves on in steps. */
std::vector<std::string> events_over(vt::ServerUnderTest& server, vt::LineClient& client, const std::string& step,
                                     int steps)
{
    std::vector<std::string> events;
    for (int i = 0; i < steps; i++) {
        server.advance(step);
        /* The server answers within milliseconds; the margin is for a
         * loaded machine (sanitizers, parallel tests). */
        std::string line;
        while (client.read_line(&line, 250))
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
    server.ctl({"set", "battery.voltage", "3.62"}); /* above crit + hysteresis: low, never straight to good */
    EXPECT_THAT(events_over(server, client, "10s", 1), ElementsAre("0 event battery low"));
    server.ctl({"set", "battery.voltage", "3.64"}); /* below low + hysteresis: stays */
    EXPECT_TRUE(events_over(server, client, "10s", 1).empty());
    server.ctl({"set", "battery.voltage", "3.9"});
    EXPECT_THAT(events_over(server, client, "10s", 1), ElementsAre("0 event battery good"));

    /* A client that comes later is told at once. */
    vt::LineClient later;
    ASSERT_TRUE(later.connect(server.port()));
    EXPECT_THAT(later.read_until([](const std::string& l) { return l.find("good") != std::string::npos; }),
                ElementsAre("0 event on battery", "0 event battery good"));
}

/* USB power: plugged in, the gadget comes up and the battery charges. The
 * charger's line, held low while it charges, tells of a supply gone at once.
 * A dip shorter than the five readings leaves the gadget running, a longer
 * one takes it down and up again. */
TEST_F(ServerPower, UsbPowerComesAndGoes)
{
    events_over(server, client, "1s", 1);
    server.ctl({"set", "supply.usb_v", "5"});
    EXPECT_THAT(events_over(server, client, "1s", 3), ElementsAre("0 event charging"));
    std::vector<std::string> journal = server.journal();
    EXPECT_THAT(journal, IsSupersetOf({"system \"sh ./usb_gadget.sh bind\" 0", "system \"sh ./usb_gadget.sh start\" 0"}));

    /* The server runs at the end of each step, and each of its waits
     * between the readings takes one. */
    server.ctl({"usb-dip", "80ms"});
    EXPECT_THAT(events_over(server, client, "20ms", 6), Contains("0 event on battery"));
    EXPECT_EQ(0u, count_of(server.journal(), "usb_gadget.sh stop"));
    server.ctl({"usb-dip", "1s"});
    events_over(server, client, "100ms", 14);
    journal = server.journal();
    EXPECT_EQ(1u, count_of(journal, "system \"sh ./usb_gadget.sh stop\" 0"));
    EXPECT_EQ(2u, count_of(journal, "system \"sh ./usb_gadget.sh start\" 0"));

    server.ctl({"set", "supply.usb_v", "0"});
    EXPECT_THAT(events_over(server, client, "100ms", 1), ElementsAre("0 event on battery", "0 event battery good"));
    events_over(server, client, "100ms", 5); /* the five readings */
    journal = server.journal();
    EXPECT_EQ(2u, count_of(journal, "system \"sh ./usb_gadget.sh stop\" 0"));
    EXPECT_EQ(2u, count_of(journal, "system \"sh ./usb_gadget.sh unbind\" 0"));
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
    EXPECT_GE(count_of(server.journal(), "nvram write"), 12u);
    EXPECT_EQ("0\n", server.ctl({"get", "charger.watchdog_expiries"}).out);

    for (int i = 0; i < 4; i++) {
        server.ctl({"usb-dip", "10ms"});
        events_over(server, client, "50ms", 2);
    }
    size_t reads = count_of(server.journal(), "/dev/i2c-0@0x6b read");
    /* Board time stands still: a spinning loop would go on reading. */
    client.drain(300);
    EXPECT_EQ(reads, count_of(server.journal(), "/dev/i2c-0@0x6b read"));
    EXPECT_TRUE(server.running());
}

} // namespace

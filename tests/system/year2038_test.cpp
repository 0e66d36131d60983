/* The server running across 2038-01-19T03:14:08Z, when a signed 32-bit
 * time_t runs out: the board's wall clock and RTC start a minute before,
 * the clock in step mode. On the instrument's 32-bit build this checks that
 * every time the program keeps is 64 bits wide; natively it holds anyway. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>

#include "server.h"
#include "simrun.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

size_t journal_count(const vt::ServerUnderTest& server, const std::string& needle)
{
    return vt::grep(server.journal(), needle).size();
}

/* The time stamps of the server's trace lines ("2038-01-19 03:14:09.000000
 * [...] ..."), in order. */
std::vector<std::string> trace_stamps(const std::string& err)
{
    std::vector<std::string> stamps;
    std::istringstream in(err);
    for (std::string line; std::getline(in, line);) {
        if (line.size() > 26 && line[26] == ' ' && line[27] == '[')
            stamps.push_back(line.substr(0, 19));
    }
    return stamps;
}

class Year2038 : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC0", 1); /* the trace and the RTC alarm use local time */
        ASSERT_TRUE(server.start()) << server.err();
        ASSERT_TRUE(client.connect(server.port()));
        client.read_until([](const std::string& l) { return l == "0 event battery good"; });
    }

    /* Board time moves on by steps of 10 s, one idle period each; returns
     * once the server has saved its counters for every one. */
    void idle_periods(int n)
    {
        for (int i = 0; i < n; i++) {
            size_t saves = journal_count(server, "nvram write");
            ASSERT_TRUE(server.advance("10s"));
            ASSERT_TRUE(vt::eventually([&] { return journal_count(server, "nvram write") > saves; }));
        }
    }

    std::vector<std::string> request(int id, const std::string& command)
    {
        std::vector<std::string> lines = client.request(id, command);
        if (!lines.empty())
            lines.pop_back(); /* "<id> ready <elapsed>" */
        return lines;
    }

    vt::ServerUnderTest server{"[clock]\nwall_at_boot = 2038-01-19T03:13:08Z\n"};
    vt::LineClient client;
};

TEST_F(Year2038, TheServerRunsOnAcrossTheEndOfThe32BitTime)
{
    EXPECT_THAT(request(1, "set hwclock=w"), ElementsAre("1 ack"));
    idle_periods(3); /* ready until 03:13:38 */
    EXPECT_THAT(request(2, "set pstate=eco"), ElementsAre("2 ack"));
    idle_periods(4); /* eco until 03:14:18 */

    /* Suspended with an alarm 62 s on (sleep_time + 1, and one more second
     * so that it never lands in the current one); the alarm wakes it and
     * sleep_time has passed. */
    EXPECT_THAT(request(3, "set sleep_time=60"), ElementsAre("3 ack"));
    ASSERT_TRUE(client.send("4 set pstate=suspend"));
    ASSERT_TRUE(vt::eventually([&] { return journal_count(server, "power suspend") == 1; }));
    EXPECT_THAT(server.journal(), Contains("/dev/rtc0 RTC_WKALM_SET 2038-01-19 03:15:20 enabled"));
    ASSERT_TRUE(server.advance("62s"));
    EXPECT_THAT(client.read_until([](const std::string& l) { return vt::is_ready_line(l, 4); }),
                ElementsAre("4 ack", "0 event resumed shutdown", testing::StartsWith("4 ready")));
    EXPECT_THAT(server.journal(), Contains("/dev/rtc0 alarm 2038-01-19 03:15:20"));
    EXPECT_THAT(server.journal(), Contains("power resume rtc"));

    EXPECT_THAT(request(5, "set pstate=ready"), ElementsAre("5 ack"));
    idle_periods(3);
    EXPECT_THAT(request(6, "set hwclock=w"), ElementsAre("6 ack"));
    EXPECT_EQ(2u, journal_count(server, "system \"hwclock -w\" 0"));

    /* Monotonic time: 60 s ready, 40 s in eco, the suspend not counted. */
    EXPECT_THAT(request(7, "get uptime uptime_eco"), ElementsAre("7 ack", "7 data 0.017 0.011"));

    std::vector<std::string> stamps = trace_stamps(server.err());
    ASSERT_FALSE(stamps.empty()) << server.err();
    EXPECT_TRUE(std::is_sorted(stamps.begin(), stamps.end())) << server.err();
    EXPECT_EQ("2038-01-19 03:13:08", stamps.front());
    EXPECT_EQ("2038-01-19 03:15:50", stamps.back());
    EXPECT_THAT(server.err(), HasSubstr("wakeup using /dev/rtc0 at Tue Jan 19 03:15:20 2038"));
}

} // namespace

/* Measuring through the server, as a client sees it: power states with the
 * board's clock in step mode; scans at every speed with it warping; the
 * drive at the server's start. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "server.h"

using testing::ElementsAre;

namespace {

class Measure : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start()) << server.err();
        ASSERT_TRUE(client.connect(server.port()));
        client.read_until([](const std::string& l) { return l == "0 event battery good"; });
    }

    /* Lines of request id until its ready line, moving board time on in
     * steps while waiting. */
    std::vector<std::string> run(int id, const std::string& command, const std::string& step, int max_steps)
    {
        client.send(std::to_string(id) + " " + command);
        std::vector<std::string> lines;
        std::string line;
        for (int i = 0; i <= max_steps; i++) {
            server.settle();
            while (client.read_line(&line, 0)) {
                lines.push_back(line);
                if (vt::is_ready_line(line, id))
                    return lines;
            }
            server.advance(step);
        }
        return lines;
    }

    vt::ServerUnderTest server;
    vt::LineClient client;
};

TEST_F(Measure, TheMeasuringChainFollowsThePowerState)
{
    EXPECT_THAT(client.request(1, "scan x=1"), ElementsAre("1 ack", "1 error invalid pstate", "1 ready 0.000"));
    /* Into meas: the chain's settling pauses take board time. */
    std::vector<std::string> meas = run(2, "set pstate=meas", "20ms", 100);
    EXPECT_TRUE(!meas.empty() && vt::is_ready_line(meas.back(), 2));
    EXPECT_THAT(client.request(3, "get pstate"), ElementsAre("3 ack", "3 data 5", "3 ready 0.000"));
    EXPECT_THAT(server.ctl({"get", "meas.power"}).out, "1\n");
    EXPECT_THAT(client.request(4, "set pstate=6"), ElementsAre("4 ack", "4 error value out of range", "4 ready 0.000"));
    std::vector<std::string> ready = run(5, "set pstate=ready", "20ms", 100);
    EXPECT_TRUE(!ready.empty() && vt::is_ready_line(ready.back(), 5));
    EXPECT_THAT(server.ctl({"get", "meas.power"}).out, "0\n");
}

/* A server that died during a move left the drive running home at full
 * speed; the next one stops it and switches its power off. */
TEST(MeasureStart, TheServerStartsWithTheDriveStoppedAndUnpowered)
{
    vt::ServerUnderTest server("[motor]\npower = 1\ndac = 0\n");
    ASSERT_TRUE(server.start()) << server.err();
    EXPECT_EQ("2082\n", server.ctl({"get", "motor.dac"}).out);
    EXPECT_EQ("0\n", server.ctl({"get", "motor.power"}).out);
}

/* Every speed the speed channel offers gives one sample per 0.5 um of
 * travel (a timed scan as many as its time would travel), exactly: also at
 * the slowest speeds, where the samples the firmware discards take longer
 * than the wait for the first data, and for odd counts. A scan the sample
 * buffer (here 36864 samples) cannot hold is refused before it starts. */
TEST(MeasureScans, EverySpeedDeliversExactlyItsSamples)
{
    struct Row {
        const char* speed;
        const char* scan;
        int samples; /* -1: refused */
    };
    /* Every speed over 0.1 and 1 mm; the full travel at the slowest speed
     * (the longest budget) and the fastest (the most samples a second). */
    const Row rows[] = {
        {"0.1", "x=0.1", 200},  {"0.1", "x=1", 2000},    {"0.1", "x=17.5", 35000}, {"0.2", "x=0.1", 200},
        {"0.2", "x=1", 2000},   {"0.3", "x=0.1", 200},   {"0.3", "x=1", 2000},     {"0.5", "x=0.1", 200},
        {"0.5", "x=1", 2000},   {"1.0", "x=0.1", 200},   {"1.0", "x=1", 2000},     {"1.0", "x=17.5", 35000},
        {"0.1", "time=0.1", 20}, {"0.1", "time=0.105", 21}, {"0.1", "time=1", 200}, {"0.3", "x=0.1005", 201},
        {"1.0", "time=20", -1},
    };
    /* The time-outs are the host's; the behavioural model stands in for the
     * firmware (the engine comparison holds them to the same samples), as
     * the 220 board seconds of these scans would take minutes on the
     * simulated cores under an emulator. */
    vt::ServerUnderTest server("[pru]\nextram_size = 73728\nengine = model\n", "warp");
    ASSERT_TRUE(server.start()) << server.err();
    vt::LineClient client;
    ASSERT_TRUE(client.connect(server.port()));
    ASSERT_TRUE(vt::is_ready_line(client.request(1, "set pstate=meas").back(), 1));
    int id = 2;
    for (const Row& row : rows) {
        std::string what = std::string(row.scan) + " at " + row.speed + " mm/s";
        std::vector<std::string> set = client.request(id, std::string("set speed=") + row.speed);
        ASSERT_EQ(std::to_string(id++) + " ack", set.end()[-2]) << what;
        std::string scan_id = std::to_string(id);
        std::vector<std::string> lines = client.request(id++, std::string("scan ") + row.scan, 240000);
        size_t samples = 0;
        std::vector<std::string> others;
        for (const std::string& l : lines) {
            if (l.rfind(scan_id + " data ", 0) == 0)
                samples += vt::decode_samples(l.substr(scan_id.size() + 6)).size();
            else if (l[0] != '0')
                others.push_back(l.substr(scan_id.size() + 1, 5));
        }
        if (row.samples < 0)
            EXPECT_THAT(others, ElementsAre("ack", "error", "ready")) << what;
        else
            EXPECT_THAT(others, ElementsAre("ack", "ready")) << what;
        EXPECT_EQ(static_cast<size_t>(std::max(row.samples, 0)), samples) << what;
    }
    /* Every scan that ran counts as a measurement, the refused one not. */
    EXPECT_THAT(client.request(id, "get meas_cycles"), testing::Contains(std::to_string(id) + " data 16"));
}

} // namespace

/* Measuring through the server, as a client sees it: power states, a scan
 * streaming its samples, the move home, autoinfo and abort, with the board's
 * clock in step mode. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "server.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

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
            while (client.read_line(&line, 100)) {
                lines.push_back(line);
                if (vt::is_ready_line(line, id))
                    return lines;
            }
            server.advance(step);
        }
        return lines;
    }

    /* Into meas: the chain's settling pauses take board time. */
    void meas(int id)
    {
        std::vector<std::string> lines = run(id, "set pstate=meas", "20ms", 100);
        ASSERT_GE(lines.size(), 2u);
        EXPECT_EQ(std::to_string(id) + " ack", lines.front());
        EXPECT_TRUE(vt::is_ready_line(lines.back(), id)) << lines.back();
    }

    vt::ServerUnderTest server;
    vt::LineClient client;
};

TEST_F(Measure, TheMeasuringChainFollowsThePowerState)
{
    EXPECT_THAT(client.request(1, "scan x=1"), ElementsAre("1 ack", "1 error invalid pstate", "1 ready 0.000"));
    meas(2);
    EXPECT_THAT(client.request(3, "get pstate"), ElementsAre("3 ack", "3 data 5", "3 ready 0.000"));
    EXPECT_THAT(server.ctl({"get", "meas.power"}).out, "1\n");
    EXPECT_THAT(client.request(4, "set pstate=6"), ElementsAre("4 ack", "4 error value out of range", "4 ready 0.000"));
    std::vector<std::string> ready = run(5, "set pstate=ready", "20ms", 100);
    EXPECT_TRUE(!ready.empty() && vt::is_ready_line(ready.back(), 5));
    EXPECT_THAT(server.ctl({"get", "meas.power"}).out, "0\n");
}

/* A 1 mm scan at 0.5 mm/s: 2000 samples, every one delivered once, in data
 * lines every 100 ms, then the ready line with the time it took. */
TEST_F(Measure, AScanStreamsEverySampleOnce)
{
    meas(1);
    server.advance("1s"); /* the idle acquisition settles */
    std::vector<std::string> lines = run(7, "scan x=1", "100ms", 40);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("7 ack", lines.front());
    ASSERT_TRUE(vt::is_ready_line(lines.back(), 7)) << lines.back();
    EXPECT_THAT(lines.back(), StartsWith("7 ready 2."));
    std::vector<uint16_t> samples;
    int data_lines = 0;
    for (const std::string& l : lines) {
        if (l.compare(0, 7, "7 data ") != 0)
            continue;
        data_lines++;
        std::vector<uint16_t> chunk = vt::decode_samples(l.substr(7));
        samples.insert(samples.end(), chunk.begin(), chunk.end());
    }
    EXPECT_EQ(2000u, samples.size());
    EXPECT_GE(data_lines, 19);
    /* The probe rides the roughness standard: the samples vary around its
     * zero point. */
    EXPECT_NE(samples.front(), samples[samples.size() / 2]);
    EXPECT_THAT(client.request(8, "get meas_cycles"), ElementsAre("8 ack", "8 data 1", "8 ready 0.000"));
}

TEST_F(Measure, MoveHomeAutoinfoAndAbort)
{
    meas(1);
    std::vector<std::string> lines = run(2, "move x=0", "100ms", 40);
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(vt::is_ready_line(lines.back(), 2)) << lines.back();
    EXPECT_EQ("1\n", server.ctl({"get", "drive.at_home"}).out) << testing::PrintToString(lines);

    EXPECT_THAT(client.request(3, "autoinfo 49 batt"),
                ElementsAre("3 ack", "3 error value out of range", "3 ready 0.000"));
    client.send("4 autoinfo 100 pstate");
    std::string line;
    ASSERT_TRUE(client.read_line(&line));
    EXPECT_EQ("4 ack", line);
    std::vector<std::string> reports;
    for (int i = 0; i < 3; i++) {
        server.advance("100ms"); /* one report per expiry the loop sees */
        while (client.read_line(&line, 200))
            reports.push_back(line);
    }
    EXPECT_EQ(3u, reports.size());
    for (const std::string& r : reports)
        EXPECT_EQ("4 data 5", r);
    client.send("5 abort 4");
    std::vector<std::string> end = client.read_until([](const std::string& l) { return vt::is_ready_line(l, 5); });
    EXPECT_THAT(end, testing::Contains("4 ready"));
}

} // namespace

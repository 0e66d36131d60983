/* The remote-control server over TCP, as its clients see it, on the
 * simulated instrument with the board's clock in step mode. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <sys/socket.h>

#include "server.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

/* Connects and reads the battery events every new client gets. */
void connect_client(vt::ServerUnderTest& server, vt::LineClient& c)
{
    ASSERT_TRUE(c.connect(server.port()));
    std::vector<std::string> greeting =
        c.read_until([](const std::string& l) { return l.find("0 event batt") == 0; });
    ASSERT_FALSE(greeting.empty());
}

class Server : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start()) << server.err();
        connect_client(server, client);
    }

    vt::ServerUnderTest server;
    vt::LineClient client;
};

TEST_F(Server, RequestsAreAcknowledgedAnsweredAndReadied)
{
    /* The board's clock stands still: the elapsed time is exactly 0. */
    EXPECT_THAT(client.request(17, "get"), ElementsAre("17 ack", "17 data", "17 ready 0.000"));
    EXPECT_THAT(client.request(18, "nonsense"),
                ElementsAre("18 ack", "18 error unknown command", "18 ready 0.000"));
    /* CR LF is one request: the line feed is an empty line, ignored. */
    client.send_raw("19 get\r\n");
    EXPECT_THAT(client.read_until([](const std::string& l) { return vt::is_ready_line(l, 19); }),
                ElementsAre("19 ack", "19 data", "19 ready 0.000"));
    /* No id, no space after the id, an empty line: no reply at all, so the
     * next request's reply comes first. */
    client.send("get batt");
    client.send("17get");
    client.send("");
    EXPECT_THAT(client.request(20, "capabilities x"),
                ElementsAre("20 ack", "20 error axis parameter not supported", "20 ready 0.000"));
}

/* Requests the server cannot carry out as written are refused whole (the
 * clock in warp mode lets the meas state come by itself). */
TEST(ServerRefusals, RequestsThatCannotBeServedFaithfullyChangeNothing)
{
    vt::ServerUnderTest server("", "warp");
    ASSERT_TRUE(server.start()) << server.err();
    vt::LineClient client;
    connect_client(server, client);
    ASSERT_TRUE(vt::is_ready_line(client.request(1, "set pstate=meas blight=50").back(), 1));
    const std::vector<std::string> before = client.request(2, "get blight speed meas_cycles");

    std::string many = "set blight=70";
    for (int i = 0; i < 20; i++)
        many += " speed=0." + std::to_string(1 + i % 9);
    const struct {
        std::string request;
        std::string error; /* "": no reply at all */
    } refusals[] = {
        {"3 " + many, "3 error syntax invalid"},
        /* an overlong line: its tail, which looks like a request, must not run */
        {"16 get " + std::string(300, 'x') + " 6 get", "16 error syntax invalid"},
        {std::string(70000, 'z') + "\r", ""}, /* without an id nobody is told */
        {"4 set blight=70 opto_rs232=" + std::string(250, 'a'), "4 error syntax invalid"},
        {"15 set opto_rs232=" + std::string(238, 'a'), "15 error syntax invalid"}, /* 256 bytes: one too many */
        {"4294967296 get batt", ""},
        {"2147483648 get batt", ""},
        {"5 set blight=abc", "5 error value out of range"},
        {"6 set blight=", "6 error value out of range"},
        {"7 set blight=70x", "7 error value out of range"},
        {"8 set speed=1e999", "8 error value out of range"},
        {"9 set speed=nan", "9 error value out of range"},
        {"10 set speed=0x0.8p0", "10 error value out of range"},
        {"11 scan x=nan", "11 error value out of range"},
        {"12 scan x=inf", "12 error value out of range"},
        {"13 scan time=inf", "13 error value out of range"},
        {"14 scan time=1s", "14 error value out of range"},
    };
    for (const auto& r : refusals) {
        client.send(r.request);
        /* A request behind it shows where the refusal's reply ends. */
        std::vector<std::string> lines = client.request(99, "get");
        std::vector<std::string> expected = {"99 ack", "99 data"};
        if (!r.error.empty()) {
            std::string id = r.error.substr(0, r.error.find(' '));
            expected.insert(expected.begin(), {id + " ack", r.error, id + " ready"});
        }
        for (std::string& l : lines) {
            if (l.find(" ready ") != std::string::npos)
                l.erase(l.find(" ready ") + 6);
        }
        expected.push_back("99 ready");
        EXPECT_EQ(expected, lines) << r.request;
    }
    EXPECT_EQ(before, client.request(2, "get blight speed meas_cycles"));
    EXPECT_THAT(client.request(2147483647, "get"), Contains("2147483647 data"));
}

TEST_F(Server, ADotClosesTheConnectionAndASixthClientIsRefused)
{
    vt::LineClient others[4];
    for (vt::LineClient& c : others)
        connect_client(server, c);
    vt::LineClient sixth;
    ASSERT_TRUE(sixth.connect(server.port()));
    EXPECT_TRUE(sixth.closed_by_peer());
    EXPECT_EQ("ERROR: Sorry, server is too busy.", sixth.drain(0));
    for (vt::LineClient& c : others)
        EXPECT_THAT(c.request(3, "get"), ElementsAre("3 ack", "3 data", "3 ready 0.000"));

    others[0].send(".");
    EXPECT_TRUE(others[0].closed_by_peer());
    vt::LineClient again;
    connect_client(server, again); /* the slot is free again */
}

TEST_F(Server, StartButtonAndOptoBreakReachEveryClient)
{
    vt::LineClient second;
    connect_client(server, second);
    auto next_lines = [&](std::vector<std::string> expected) {
        for (vt::LineClient* c : {&client, &second}) {
            std::vector<std::string> got(expected.size());
            for (std::string& line : got)
                c->read_line(&line);
            EXPECT_EQ(expected, got);
        }
    };
    ASSERT_EQ(0, server.ctl({"button", "press"}).status);
    ASSERT_EQ(0, server.ctl({"button", "release"}).status);
    next_lines({"0 event START pressed", "0 event START released"});
    /* A release without a press and a USB power event say nothing: the
     * opto's break is the next thing a client hears. */
    ASSERT_EQ(0, server.ctl({"button", "release"}).status);
    ASSERT_EQ(0, server.ctl({"pmic", "0x301"}).status);
    ASSERT_EQ(0, server.ctl({"set", "opto.rx", "break"}).status);
    next_lines({"0 event START via opto"});
}

/* Clients that go away in the middle of a reply cost the others nothing. */
TEST_F(Server, ClientsThatVanishDoNotHurtTheOthers)
{
    for (int i = 0; i < 20; i++) {
        vt::LineClient gone;
        connect_client(server, gone);
        gone.send("1 capabilities");
        if (i % 2 == 1) { /* this one resets the connection */
            struct linger hard = {1, 0};
            setsockopt(gone.fd(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        }
        gone.close();
    }
    EXPECT_THAT(client.request(40, "get"), Contains("40 data"));
    /* Every slot the vanished clients held is free again. */
    vt::LineClient more[3];
    for (vt::LineClient& c : more) {
        connect_client(server, c);
        EXPECT_THAT(c.request(60, "get"), Contains(HasSubstr("60 data")));
    }
    EXPECT_TRUE(server.running());
}

/* Replies wait for a client that stops reading, whole, until it reads again
 * or lets too much pile up; the clock in warp mode runs the scan meanwhile. */
class ServerSlowReader : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start()) << server.err();
        ASSERT_TRUE(reader.connect(server.port(), 10000, 4096));
        connect_client(server, other);
    }

    /* Everything the reader gets until the server closes it or sends the
     * ready line of id; every line must be whole, none glued to another.
     * reset_may_cut: the server may reset the connection (it had unread
     * requests), and the kernel then drops what it had not sent. */
    std::vector<std::string> read_all(int id, bool reset_may_cut)
    {
        std::vector<std::string> lines =
            reader.read_until([id](const std::string& l) { return vt::is_ready_line(l, id); }, 20000);
        for (const std::string& l : lines)
            EXPECT_TRUE(vt::is_reply_line(l)) << "torn: " << l.substr(0, 80);
        std::string tail = reader.drain(0);
        if (!reset_may_cut || !reader.closed_by_peer(0)) {
            EXPECT_EQ("", tail.substr(0, 80)) << "a line without its end";
        }
        return lines;
    }

    /* A client stalls during a scan behind unread capabilities replies (~1.1 kB
     * each) and reads again once the scan has ended or was aborted (it counts
     * either way). Returns the samples it got; ready: its last line is the
     * scan's ready line. */
    size_t stalled_scan(int capabilities, bool* ready)
    {
        EXPECT_TRUE(vt::is_ready_line(reader.request(1, "set pstate=meas speed=1.0", 20000).back(), 1));
        std::string requests;
        for (int i = 0; i < capabilities; i++)
            requests += "1 capabilities\n";
        reader.send_raw(requests + "2 scan x=17.5\n");
        vt::eventually([&] {
            return other.request(3, "get meas_cycles") == std::vector<std::string>{"3 ack", "3 data 1", "3 ready 0.000"};
        });
        size_t samples = 0;
        std::vector<std::string> lines = read_all(2, false);
        for (const std::string& l : lines) {
            if (l.compare(0, 7, "2 data ") == 0)
                samples += vt::decode_samples(l.substr(7)).size();
        }
        *ready = !lines.empty() && vt::is_ready_line(lines.back(), 2);
        return samples;
    }

    /* The queue is under test, not the firmware: the behavioural model
     * keeps a 17.5 mm scan quick under the sanitizer and the emulator. */
    vt::ServerUnderTest server{"[pru]\nengine = model\n", "warp"};
    vt::LineClient reader;
    vt::LineClient other;
};

/* With 100 the scan's ~95 kB still fit in its queue. */
TEST_F(ServerSlowReader, AStalledScanClientGetsEverySample)
{
    bool ready = false;
    EXPECT_EQ(35000u, stalled_scan(100, &ready)); /* one per 0.5 um */
    EXPECT_TRUE(ready);
}

/* With 230 the queue overflows during the scan: the scan is aborted and the
 * client closed after a whole line (read_all checks that nothing is cut). */
TEST_F(ServerSlowReader, AStalledScanClientThatOverflowsIsDroppedAfterAWholeLine)
{
    bool ready = true;
    EXPECT_LT(stalled_scan(230, &ready), 35000u);
    EXPECT_FALSE(ready);
    EXPECT_TRUE(reader.closed_by_peer(0));
    EXPECT_THAT(server.err(), HasSubstr("replies unread"));
}

TEST_F(ServerSlowReader, AFloodingClientIsDroppedAndDelaysNobody)
{
    std::string burst;
    for (int i = 0; i < 20000; i++)
        burst += "1 capabilities\n";
    ASSERT_TRUE(reader.send_raw(burst)); /* and reads nothing */
    for (int i = 0; i < 10; i++)
        EXPECT_THAT(other.request(40 + i, "get"), ElementsAre(std::to_string(40 + i) + " ack", std::to_string(40 + i) + " data",
                                                            std::to_string(40 + i) + " ready 0.000"));
    vt::eventually([&] { return server.err().find("replies unread") != std::string::npos; });
    EXPECT_THAT(server.err(), HasSubstr("left more than 262144 bytes of replies unread"));
    /* Still finishing its last line, it gives its slot up to a newcomer
     * when all are taken. */
    vt::LineClient more[4];
    for (vt::LineClient& c : more)
        connect_client(server, c);
    vt::eventually([&] { return server.err().find("closed before its last line was out") != std::string::npos; });
    read_all(2, true); /* no such id: everything up to the close */
    EXPECT_TRUE(reader.closed_by_peer(0));
}

} // namespace

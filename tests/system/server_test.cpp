/* The remote-control server over TCP, as its clients see it, on the
 * simulated instrument with the board's clock in step mode. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

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
    /* No id, no space after the id, an empty line: no reply at all. */
    client.send("get batt");
    client.send("17get");
    client.send("");
    EXPECT_EQ("", client.drain(300));
    EXPECT_THAT(client.request(20, "capabilities x"),
                ElementsAre("20 ack", "20 error axis parameter not supported", "20 ready 0.000"));
}

TEST_F(Server, AnOverlongLineIsDroppedWholeAndTheConnectionStaysUsable)
{
    /* Its tail, which looks like a request, must not run. */
    client.send("5 get " + std::string(300, 'x') + " 6 get");
    client.send(std::string(1000, 'y'));
    /* Ended by CR LF, with a request right behind it in the same packet. */
    client.send_raw(std::string(70000, 'z') + "\r\n9 get\n");
    EXPECT_THAT(client.read_until([](const std::string& l) { return vt::is_ready_line(l, 9); }),
                ElementsAre("9 ack", "9 data", "9 ready 0.000"));
    EXPECT_EQ("", client.drain(300));
    EXPECT_THAT(client.request(7, "get"), ElementsAre("7 ack", "7 data", "7 ready 0.000"));
    /* More words than a request holds: the rest stays in the last word. */
    std::string many = "get";
    for (int i = 0; i < 30; i++)
        many += " w" + std::to_string(i);
    EXPECT_THAT(client.request(8, many), ElementsAre("8 ack", "8 error unknown channel", "8 ready 0.000"));
}

TEST_F(Server, ADotClosesTheConnectionAndASixthClientIsRefused)
{
    vt::LineClient others[4];
    for (vt::LineClient& c : others)
        connect_client(server, c);
    vt::LineClient sixth;
    ASSERT_TRUE(sixth.connect(server.port()));
    EXPECT_EQ("ERROR: Sorry, server is too busy.", sixth.drain(1000));
    EXPECT_TRUE(sixth.closed_by_peer());
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
    ASSERT_EQ(0, server.ctl({"button", "press"}).status);
    ASSERT_EQ(0, server.ctl({"button", "release"}).status);
    for (vt::LineClient* c : {&client, &second}) {
        std::string line;
        ASSERT_TRUE(c->read_line(&line));
        EXPECT_EQ("0 event START pressed", line);
        ASSERT_TRUE(c->read_line(&line));
        EXPECT_EQ("0 event START released", line);
    }
    /* A release without a press says nothing. */
    ASSERT_EQ(0, server.ctl({"button", "release"}).status);
    ASSERT_EQ(0, server.ctl({"pmic", "0x301"}).status);
    EXPECT_EQ("", client.drain(300));

    ASSERT_EQ(0, server.ctl({"set", "opto.rx", "break"}).status);
    std::string line;
    ASSERT_TRUE(second.read_line(&line));
    EXPECT_EQ("0 event START via opto", line);
    ASSERT_TRUE(client.read_line(&line));
    EXPECT_EQ("0 event START via opto", line);
}

/* Clients that go away in the middle of a reply, or never read, cost the
 * others nothing. */
TEST_F(Server, ClientsThatVanishOrNeverReadDoNotHurtTheOthers)
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
    vt::LineClient flood;
    connect_client(server, flood);
    std::string burst;
    for (int i = 0; i < 5000; i++)
        burst += "1 capabilities\n";
    flood.send_raw(burst); /* and never reads a reply */
    for (int i = 0; i < 10; i++)
        EXPECT_THAT(client.request(40 + i, "get"), Contains(HasSubstr(std::to_string(40 + i) + " data")));
    /* Every slot the vanished clients held is free again. */
    vt::LineClient more[3];
    for (vt::LineClient& c : more) {
        connect_client(server, c);
        EXPECT_THAT(c.request(60, "get"), Contains(HasSubstr("60 data")));
    }
    EXPECT_TRUE(server.running());
}

TEST(ServerStart, APortInUseEndsTheServerWithStatusOne)
{
    vt::ServerUnderTest first;
    ASSERT_TRUE(first.start());
    vt::ServerUnderTest second;
    /* The same port as the first: bind fails. */
    ASSERT_TRUE(second.launch({}, first.port()));
    EXPECT_EQ(1, second.wait_exit());
    EXPECT_THAT(second.err(), HasSubstr("bind: Address already in use"));
}

} // namespace

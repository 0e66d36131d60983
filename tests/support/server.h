/* Tests of the remote-control server as its clients see it: the real
 * velatool -r on a free port under the simulated board (its clock in step
 * mode unless a test asks otherwise), and a line client. */
#ifndef VELA_TEST_SERVER_H
#define VELA_TEST_SERVER_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "process.h"
#include "simrun.h"
#include "tempdir.h"

namespace vt {

class ServerUnderTest {
public:
    /* scenario: the board's scenario text; clock: its mode. */
    explicit ServerUnderTest(const std::string& scenario = "", const std::string& clock = "step");
    ~ServerUnderTest();
    ServerUnderTest(const ServerUnderTest&) = delete;
    ServerUnderTest& operator=(const ServerUnderTest&) = delete;

    /* Starts velatool -r on a free port and waits until it accepts
     * connections; false if it ended or did not listen in time. */
    bool start();
    /* Ends the server (SIGTERM, then SIGKILL) and returns its exit status. */
    int stop();
    /* Waits for the server to end by itself; its status, or -1. */
    int wait_exit(int timeout_ms = 20000);
    bool running();

    int port() const { return port_; }
    const std::string& dir() const { return board_; }
    std::string config_dir() const { return tmp_.file("config"); }
    /* What the server printed on its standard error. */
    std::string err() const;

    /* Later launches carry on with the board as the last run left it (its
     * clock, NVRAM and sandbox files) instead of a new one from the
     * scenario: the next power-up of the same instrument. */
    void carry_on(bool on = true) { carry_on_ = on; }
    /* ORVIK_CONFIGPATH of later launches; "/var/opt" keeps the files on the
     * board (under dir()/fs), where its faults reach them. */
    void set_config_root(const std::string& root) { config_root_ = root; }

    ProcessResult ctl(const std::vector<std::string>& command) const { return board_ctl(board_, command); }
    std::vector<std::string> journal() const { return journal_in(board_); }
    /* Moves board time on (step mode). */
    bool advance(const std::string& duration) const;
    /* Returns once the program waits for the board again, having done all
     * that the board time reached so far called for: in step mode it does
     * nothing more until time moves on. */
    bool settle() const;

private:
    TempDir tmp_;
    std::string board_;
    std::string clock_;
    int port_ = 0;
    bool carry_on_ = false;
    bool launched_ = false;
    std::string config_root_;
    int pid_ = -1;
    int status_ = -1;
};

class LineClient {
public:
    LineClient() = default;
    ~LineClient();
    LineClient(const LineClient&) = delete;
    LineClient& operator=(const LineClient&) = delete;

    /* Connects to the server on localhost; retries until timeout_ms.
     * rcvbuf > 0: that small a receive buffer, so that replies back up in
     * the server soon when this client does not read. */
    bool connect(int port, int timeout_ms = 10000, int rcvbuf = 0);
    void close();
    int fd() const { return fd_; }

    /* Sends text as it is (no line end added). */
    bool send_raw(const std::string& text);
    /* Sends one request line, ended by a line feed. */
    bool send(const std::string& line) { return send_raw(line + "\n"); }
    /* The next line without its line feed; false on time-out or close
     * (timeout 0: only a line that has arrived already). */
    bool read_line(std::string* line, int timeout_ms = 5000);
    /* Lines up to and including the first that pred accepts. */
    std::vector<std::string> read_until(const std::function<bool(const std::string&)>& pred, int timeout_ms = 5000);
    /* "<id> <command>", then its lines up to "<id> ready ...". */
    std::vector<std::string> request(int id, const std::string& command, int timeout_ms = 5000);
    /* Anything that arrives within timeout_ms (for "no reply at all"). */
    std::string drain(int timeout_ms = 200);
    /* True once the server has closed the connection. */
    bool closed_by_peer(int timeout_ms = 5000);

private:
    int fd_ = -1;
    std::string pending_;
    bool eof_ = false;
    bool fill(int timeout_ms);
};

/* Everything a socket has received so far, without waiting (the peer end
 * of a client slot in unit tests). */
std::string received(int fd);

/* Does line match "<id> ready <s>.<mmm>"? */
bool is_ready_line(const std::string& line, int id);

/* Is line one whole reply or event line: ack, data, error, warning, ready
 * or event, each in its own form? */
bool is_reply_line(const std::string& line);

/* The 16-bit samples (little endian) of a scan's base64 data text. */
std::vector<uint16_t> decode_samples(const std::string& text);

} // namespace vt

#endif

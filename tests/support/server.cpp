#include "server.h"

#include "base64.h"
#include "boardctl.h"
#include "emulator.h"
#include "free_port.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <netinet/in.h>
#include <poll.h>
#include <regex>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vt {

namespace {

std::string shell_quote(const std::string& s)
{
    std::string q = "'";
    for (char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

} // namespace

ServerUnderTest::ServerUnderTest(const std::string& scenario, const std::string& clock)
    : board_(tmp_.file("board")), clock_(clock)
{
    write_file(tmp_.file("scenario.ini"), scenario);
}

ServerUnderTest::~ServerUnderTest()
{
    stop();
}

/* Output goes to files, so that a chatty server never blocks on a full
 * pipe that nobody reads. */
bool ServerUnderTest::start()
{
    port_ = free_port();
    std::vector<std::string> argv = {VELATOOL_PATH, "-r", std::to_string(port_)};
    bool fresh = !carry_on_ || !launched_;
    launched_ = true;
    std::string cmd = "exec";
    for (const std::string& word : emulated(under_board(board_, argv, fresh ? tmp_.file("scenario.ini") : "", clock_)))
        cmd += " " + shell_quote(word);
    cmd += " > /dev/null 2> " + shell_quote(tmp_.file("err"));
    std::string env = "ORVIK_CONFIGPATH=" + (config_root_.empty() ? config_dir() : config_root_);
    pid_t pid = fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        putenv(env.data());
        execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    pid_ = pid;
    LineClient probe;
    long long deadline = now_ms() + 20000;
    while (now_ms() < deadline) {
        if (!running())
            return false;
        if (probe.connect(port_, 50)) {
            probe.close();
            /* Listening, the server stops the drive before its loop: the
             * DAC's settling pause needs board time in step mode. */
            return clock_ != "step" || advance("10ms");
        }
    }
    return false;
}

bool ServerUnderTest::running()
{
    if (pid_ <= 0)
        return false;
    int status;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == 0)
        return true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    pid_ = -1;
    return false;
}

int ServerUnderTest::wait_exit(int timeout_ms)
{
    long long deadline = now_ms() + timeout_ms;
    while (running() && now_ms() < deadline)
        usleep(5000);
    return running() ? -1 : status_;
}

int ServerUnderTest::stop()
{
    if (running()) {
        kill(pid_, SIGTERM);
        if (wait_exit(5000) < 0 && pid_ > 0) {
            kill(pid_, SIGKILL);
            wait_exit(5000);
        }
    }
    return status_;
}

std::string ServerUnderTest::err() const
{
    return read_file(tmp_.file("err"));
}

bool ServerUnderTest::advance(const std::string& duration) const
{
    return control_ok(board_control(board_, "clock advance " + duration));
}

/* The board serves its control face only while the program waits, and a
 * connection it accepts in one wait is answered in a later one: the answer
 * comes once the program has dealt with what woke it and waits again. */
bool ServerUnderTest::settle() const
{
    return control_ok(board_control(board_, "clock"));
}

LineClient::~LineClient()
{
    close();
}

bool LineClient::connect(int port, int timeout_ms, int rcvbuf)
{
    close();
    long long deadline = now_ms() + timeout_ms;
    do {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (rcvbuf > 0)
            setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
        struct sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd_, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0)
            return true;
        close();
        usleep(5000);
    } while (now_ms() < deadline);
    return false;
}

void LineClient::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    pending_.clear();
    eof_ = false;
}

bool LineClient::send_raw(const std::string& text)
{
    return fd_ >= 0 && ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

/* One round of reading into pending_; false on time-out or end. */
bool LineClient::fill(int timeout_ms)
{
    if (fd_ < 0 || eof_)
        return false;
    struct pollfd p = {fd_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) != 1)
        return false;
    char buf[4096];
    ssize_t n = recv(fd_, buf, sizeof buf, 0);
    if (n <= 0) {
        eof_ = true;
        return false;
    }
    pending_.append(buf, static_cast<size_t>(n));
    return true;
}

bool LineClient::read_line(std::string* line, int timeout_ms)
{
    long long deadline = now_ms() + timeout_ms;
    for (;;) {
        size_t lf = pending_.find('\n');
        if (lf != std::string::npos) {
            *line = pending_.substr(0, lf);
            pending_.erase(0, lf + 1);
            return true;
        }
        if (!fill(static_cast<int>(std::max(0LL, deadline - now_ms()))))
            return false;
    }
}

std::vector<std::string> LineClient::read_until(const std::function<bool(const std::string&)>& pred, int timeout_ms)
{
    std::vector<std::string> lines;
    long long deadline = now_ms() + timeout_ms;
    std::string line;
    while (read_line(&line, static_cast<int>(std::max(0LL, deadline - now_ms())))) {
        lines.push_back(line);
        if (pred(line))
            break;
    }
    return lines;
}

std::vector<std::string> LineClient::request(int id, const std::string& command, int timeout_ms)
{
    send(std::to_string(id) + " " + command);
    return read_until([id](const std::string& l) { return is_ready_line(l, id); }, timeout_ms);
}

std::string LineClient::drain(int timeout_ms)
{
    long long deadline = now_ms() + timeout_ms;
    while (now_ms() < deadline && fill(static_cast<int>(deadline - now_ms()))) {
    }
    std::string all = pending_;
    pending_.clear();
    return all;
}

bool LineClient::closed_by_peer(int timeout_ms)
{
    long long deadline = now_ms() + timeout_ms;
    while (!eof_ && now_ms() < deadline)
        fill(static_cast<int>(deadline - now_ms()));
    return eof_;
}

std::string received(int fd)
{
    std::string out;
    char buf[8192];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0)
        out.append(buf, static_cast<size_t>(n));
    return out;
}

bool is_ready_line(const std::string& line, int id)
{
    static const std::regex ready(R"((\d+) ready( \d+\.\d{3})?)");
    std::smatch m;
    return std::regex_match(line, m, ready) && std::stoi(m[1]) == id;
}

bool is_reply_line(const std::string& line)
{
    static const std::regex reply(
        R"(\d+ (ack|data( [!-~]+)*|(error|warning) [ -~]+|ready( \d+\.\d{3})?)|0 event [ -~]+)");
    return std::regex_match(line, reply);
}

std::vector<uint16_t> decode_samples(const std::string& text)
{
    std::string bytes;
    MBase64_Decode(text.data(), text.size(), &bytes);
    std::vector<uint16_t> samples;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        samples.push_back(static_cast<uint16_t>(static_cast<uint8_t>(bytes[i]) | static_cast<uint8_t>(bytes[i + 1]) << 8));
    return samples;
}

} // namespace vt

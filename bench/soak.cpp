/*
 * A long service day of the remote-control server on the simulated
 * instrument, with its clock scaled (board hours in wall minutes).
 *
 * While board time runs:
 *   - an operator client walks the power states (meas, eco, ready, suspend
 *     with a wake-up by the RTC or by the button), moves the probe home,
 *     scans by length and by time at two speeds, and calibrates the probe
 *     against two known heights;
 *   - a monitor client asks for the battery over and over (measuring the
 *     round trip), subscribes to autoinfo now and then and reconnects every
 *     so many requests;
 *   - the board side presses the START button, discharges the battery on a
 *     load and recharges it from the external supply or from USB, and dips
 *     the USB supply, short and long.
 * In the second half hostile clients join: one that never reads, one that
 * sends a byte per second, one that sends 1 MB without a line end, and one
 * that connects and closes N times (10 000 by default).
 *
 * Afterwards: every scan delivered the samples it asked for and they decode;
 * the server holds as many descriptors and about as much memory as before;
 * its counters (measurements, battery cycles, operating and eco time) agree
 * with what was done. The monitor's round-trip latency is printed without
 * and with the hostile clients. Exit status 1 if a check failed.
 *
 * Usage: bench_soak [--hours H] [--scale K] [--churn N] [--floods F]
 *                   [--rss-slack KIB] [--flood-cpu-ms MS] [--fd-slack N] [--seed S] [--keep] [--trace LEVEL]
 * Defaults: 6 board hours with the clock scaled 120 times (3 minutes of wall
 * time, more while the connects last), 10 000 connects, 3 floods, 512 KiB of
 * memory slack. --keep leaves the board and the server's log (traced at
 * --trace LEVEL) in /tmp.
 */
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <random>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "control_socket.h"
#include "free_port.h"

namespace {

using Clock = std::chrono::steady_clock;

/* ---- Options and results ---- */

struct Options {
    double hours = 6.0;   /* board time soaked */
    double scale = 120.0; /* board seconds per wall second */
    int churn = 10000;    /* connect-and-close cycles of the hostile phase */
    int floods = 3;       /* 1 MB lines of the hostile phase */
    long rss_slack_kib = 512;
    long flood_cpu_ms = 500; /* what skipping a 1 MB line may cost the server */
    size_t fd_slack = 0; /* descriptors the server may hold at the end beyond those at the start */
    unsigned seed = 1;
    bool keep = false; /* keep the board directory */
    int trace = 0;     /* the server's trace level (its log is kept with --keep) */
};

Options opt;
std::atomic<bool> stop_all{false};
std::atomic<bool> hostile{false};
std::mutex report_mutex;
int failures = 0;

void fail(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void fail(const char* fmt, ...)
{
    std::lock_guard<std::mutex> lock(report_mutex);
    va_list ap;
    va_start(ap, fmt);
    fputs("FAIL: ", stdout);
    vprintf(fmt, ap);
    fputs("\n", stdout);
    va_end(ap);
    fflush(stdout);
    failures++;
}

double wall_s()
{
    static const Clock::time_point t0 = Clock::now();
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

void sleep_ms(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

/* ---- The server under the simulated board ---- */

struct Server {
    pid_t pid = -1;
    int port = 0;
    std::string dir;
    std::string board;
};

Server server;

using vt::free_port;

/* One control command on the board's socket: the reply's data lines, or
 * "error: ..." when the board refused it or did not answer. */
std::string ctl(const std::string& command, std::string* status = nullptr)
{
    struct sockaddr_un addr;
    if (!sim::control_socket_address(server.board, &addr))
        return "error: path";
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
        if (fd >= 0)
            close(fd);
        return "error: no board";
    }
    std::string line = command + "\n";
    if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        close(fd);
        return "error: write";
    }
    shutdown(fd, SHUT_WR);
    std::string reply;
    struct pollfd p = {fd, POLLIN, 0};
    for (;;) {
        if (poll(&p, 1, 20000) != 1) {
            close(fd);
            return "error: no answer";
        }
        char buf[4096];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0)
            break;
        reply.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    size_t last = reply.rfind('\n', reply.size() >= 2 ? reply.size() - 2 : 0);
    std::string st = last == std::string::npos ? reply : reply.substr(last + 1);
    if (status != nullptr)
        *status = st;
    if (st.compare(0, 2, "ok") != 0)
        return "error: " + st;
    return last == std::string::npos ? "" : reply.substr(0, last + 1);
}

double ctl_number(const std::string& key)
{
    return atof(ctl("get " + key).c_str());
}

/* The server's CLOCK_MONOTONIC, in board seconds. */
double board_monotonic()
{
    return ctl_number("clock.monotonic_s");
}

double board_time()
{
    return ctl_number("clock.board_s");
}

std::string proc_path(const char* what)
{
    return "/proc/" + std::to_string(server.pid) + "/" + what;
}

long proc_status(const char* name)
{
    std::ifstream in(proc_path("status"));
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, strlen(name), name) == 0 && line[strlen(name)] == ':')
            return atol(line.c_str() + strlen(name) + 1);
    }
    return -1;
}

/* What the server's descriptors point at, one entry each. */
std::vector<std::string> server_fds()
{
    std::vector<std::string> fds;
    DIR* d = opendir(proc_path("fd").c_str());
    if (d == nullptr)
        return fds;
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] == '.')
            continue;
        char target[512];
        ssize_t n = readlink((proc_path("fd") + "/" + e->d_name).c_str(), target, sizeof target - 1);
        target[n > 0 ? n : 0] = '\0';
        fds.push_back(std::string(e->d_name) + " -> " + target);
    }
    closedir(d);
    std::sort(fds.begin(), fds.end());
    return fds;
}

/* Processor time the server has used (user and system), ms. */
double server_cpu_ms()
{
    std::ifstream in(proc_path("stat"));
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t paren = text.rfind(')');
    if (paren == std::string::npos)
        return 0;
    /* After the name: state is field 3, utime 14, stime 15. */
    unsigned long utime = 0, stime = 0;
    sscanf(text.c_str() + paren + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime, &stime);
    return static_cast<double>(utime + stime) * 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

/* For "N -> socket:[INODE]": the kernel's line on that socket. */
std::string socket_details(const std::string& fd_entry)
{
    size_t at = fd_entry.find("socket:[");
    if (at == std::string::npos)
        return "";
    std::string inode = fd_entry.substr(at + 8, fd_entry.size() - at - 9);
    for (const char* table : {"net/tcp", "net/tcp6", "net/unix"}) {
        std::ifstream in(proc_path(table));
        std::string line;
        while (std::getline(in, line)) {
            if ((" " + line + " ").find(" " + inode + " ") != std::string::npos)
                return std::string(" (") + table + ": " + line + ")";
        }
    }
    return "";
}

bool server_alive()
{
    return server.pid > 0 && kill(server.pid, 0) == 0 && waitpid(server.pid, nullptr, WNOHANG) == 0;
}

bool start_server()
{
    char dir[] = "/tmp/velasoak.XXXXXX";
    if (mkdtemp(dir) == nullptr)
        return false;
    server.dir = dir;
    server.board = server.dir + "/board";
    server.port = free_port();
    /* A small battery on a heavy load, so that a board hour sees several
     * charge cycles. The firmware model on the PRUs: the cores would execute
     * every one of the monitor's 128 000 conversions a board second, too
     * many for a clock scaled this far. */
    std::ofstream(server.dir + "/scenario") << "[battery]\ncapacity_mah = 80\n"
                                               "[supply]\nload_ma = 800\n"
                                               "[charger]\nusb_port = dcp\n"
                                               "[pru]\nengine = model\n";
    char mode[64];
    snprintf(mode, sizeof mode, "scaled %g", opt.scale);
    server.pid = fork();
    if (server.pid == 0) {
        int out = open((server.dir + "/server.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        std::string port = std::to_string(server.port), scenario = server.dir + "/scenario";
        std::string trace = std::to_string(opt.trace);
        setenv("ORVIK_CONFIGPATH", (server.dir + "/config").c_str(), 1);
#ifdef __SANITIZE_ADDRESS__
        /* Freed memory held for use-after-free checks would read as growth. */
        const char* asan = getenv("ASAN_OPTIONS");
        setenv("ASAN_OPTIONS", (std::string(asan != nullptr ? asan : "") + ":quarantine_size_mb=4").c_str(), 1);
#endif
        execl(VELASIM_PATH, VELASIM_PATH, "run", "--dir", server.board.c_str(), "--scenario", scenario.c_str(),
              "--clock", mode, "--", VELATOOL_PATH, "-T", trace.c_str(), "-r", port.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int tries = 0; tries < 2000; tries++) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(server.port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bool up = connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0;
        close(fd);
        if (up)
            return true;
        if (!server_alive())
            return false;
        sleep_ms(5);
    }
    return false;
}

void stop_server()
{
    if (server.pid > 0) {
        kill(server.pid, SIGKILL);
        waitpid(server.pid, nullptr, 0);
    }
    if (!opt.keep)
        std::filesystem::remove_all(server.dir);
    else
        printf("board and server log kept in %s\n", server.dir.c_str());
}

/* ---- A line client ---- */

int tcp_connect(int rcvbuf = 0)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (rcvbuf > 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(server.port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

const char busy_text[] = "ERROR: Sorry, server is too busy.";

class Client {
public:
    explicit Client(const char* name) : name_(name) {}
    ~Client() { close(); }

    /* Connects and takes the greeting (the battery events); retries while
     * the server is full. */
    bool connect(int timeout_ms = 20000)
    {
        close();
        double deadline = wall_s() + timeout_ms / 1000.0;
        while (wall_s() < deadline) {
            fd_ = tcp_connect();
            if (fd_ >= 0) {
                std::string line;
                if (read_line(&line, 5000)) {
                    handle_unsolicited(line);
                    connects++;
                    return true;
                }
                if (pending_.compare(0, strlen(busy_text), busy_text) == 0)
                    refusals++;
                close();
            }
            sleep_ms(2);
        }
        return false;
    }

    void close()
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
        pending_.clear();
    }

    bool connected() const { return fd_ >= 0; }

    bool send_line(const std::string& text)
    {
        std::string s = text + "\n";
        return fd_ >= 0 && ::send(fd_, s.data(), s.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(s.size());
    }

    /* The next line; false on time-out or end. */
    bool read_line(std::string* line, int timeout_ms)
    {
        double deadline = wall_s() + timeout_ms / 1000.0;
        for (;;) {
            size_t lf = pending_.find('\n');
            if (lf != std::string::npos) {
                *line = pending_.substr(0, lf);
                pending_.erase(0, lf + 1);
                return true;
            }
            int left = static_cast<int>((deadline - wall_s()) * 1000);
            struct pollfd p = {fd_, POLLIN, 0};
            if (fd_ < 0 || left <= 0 || poll(&p, 1, left) != 1)
                return false;
            char buf[65536];
            ssize_t n = recv(fd_, buf, sizeof buf, 0);
            if (n <= 0)
                return false;
            pending_.append(buf, static_cast<size_t>(n));
        }
    }

    /* "<id> <command>" and its lines up to "<id> ready"; events and other
     * ids' lines are taken aside. Empty on time-out. */
    std::vector<std::string> request(const std::string& command, int timeout_ms = 30000)
    {
        int id = next_id_++;
        std::vector<std::string> lines;
        if (!send_line(std::to_string(id) + " " + command))
            return lines;
        std::string prefix = std::to_string(id) + " ";
        std::string line;
        while (read_line(&line, timeout_ms)) {
            if (line.compare(0, prefix.size(), prefix) != 0) {
                handle_unsolicited(line);
                continue;
            }
            lines.push_back(line.substr(prefix.size()));
            if (lines.size() == 1)
                batt_at_ack = batt_state;
            if (line.compare(prefix.size(), 5, "ready") == 0)
                return lines;
        }
        fail("%s: no ready line for '%s' within %d ms (%zu lines so far)", name_, command.c_str(), timeout_ms,
             lines.size());
        lines.clear();
        return lines;
    }

    int id() const { return next_id_; }
    int take_id() { return next_id_++; }

    /* Unsolicited lines: events by text, the rest by the id they carry. */
    void handle_unsolicited(const std::string& line)
    {
        if (line.compare(0, 8, "0 event ") == 0) {
            std::string text = line.substr(8);
            events[text]++;
            if (text == "charging" || text == "charging done" || text == "on battery" || text == "batt fault")
                batt_state = text;
        }
        else if (on_other)
            on_other(line);
    }

    std::map<std::string, long> events;
    std::string batt_state, batt_at_ack; /* the last battery state announced; as of the last ack */
    std::function<void(const std::string&)> on_other;
    long connects = 0;
    long refusals = 0;

private:
    const char* name_;
    int fd_ = -1;
    int next_id_ = 1;
    std::string pending_;
};

bool has_error(const std::vector<std::string>& lines)
{
    for (const std::string& l : lines) {
        if (l.compare(0, 6, "error ") == 0)
            return true;
    }
    return false;
}

std::string joined(const std::vector<std::string>& lines)
{
    std::string s;
    for (const std::string& l : lines)
        s += (s.empty() ? "" : " | ") + l;
    return s;
}

/* ---- base64 of the samples ---- */

/* Decodes one chunk; false if it is not canonical base64 of an even number
 * of bytes. */
bool decode_samples(const std::string& text, std::vector<uint16_t>* samples)
{
    static const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (text.empty() || text.size() % 4 != 0)
        return false;
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < text.size(); i += 4) {
        uint32_t v = 0;
        int pad = 0;
        for (size_t k = 0; k < 4; k++) {
            char c = text[i + k];
            if (c == '=' && i + 4 == text.size() && k >= 2) {
                pad++;
                v <<= 6;
                continue;
            }
            size_t pos = alphabet.find(c);
            if (pos == std::string::npos || pad > 0)
                return false;
            v = (v << 6) | static_cast<uint32_t>(pos);
        }
        bytes.push_back(static_cast<uint8_t>(v >> 16));
        if (pad < 2)
            bytes.push_back(static_cast<uint8_t>(v >> 8));
        if (pad < 1)
            bytes.push_back(static_cast<uint8_t>(v));
    }
    if (bytes.size() % 2 != 0)
        return false;
    for (size_t i = 0; i < bytes.size(); i += 2)
        samples->push_back(static_cast<uint16_t>(bytes[i] | bytes[i + 1] << 8));
    return true;
}

/* ---- What the soak did, for the checks ---- */

struct Tally {
    std::mutex m;
    long scans = 0, scan_failures = 0, samples_asked = 0, samples_got = 0, bad_chunks = 0, odd_samples = 0;
    long moves = 0, moves_home_already = 0, calibrations = 0, calibrations_refused = 0;
    long eco_walks = 0, meas_walks = 0, suspends = 0, suspends_refused = 0, resumed = 0, resumed_shutdown = 0;
    long button_wakes = 0, presses = 0, own_presses = 0, swallowed = 0, usb_dips_short = 0, usb_dips_long = 0, usb_plugins = 0, in_plugins = 0;
    bool charging_at_end = false; /* a cycle under way that the server may have counted first */
    long charge_cycles = 0, autoinfo_runs = 0, autoinfo_reports = 0, monitor_requests = 0;
    long never_reader_requests = 0, slow_bytes = 0, slow_replies = 0, churn_done = 0, churn_refused = 0;
    long floods = 0, flood_recovered = 0;
    double flood_wall_ms_max = 0, flood_cpu_ms_max = 0, churn_connect_ms_max = 0;
    long churn_slow_connects = 0;
    struct Sample {
        double t0, t1; /* wall */
        bool hostile;
    };
    std::vector<Sample> latencies;
    std::vector<std::pair<double, double>> suspend_windows; /* wall */
    /* Power-state requests: board monotonic before, after, state after. */
    struct Walk {
        double before, after;
        int state;
    };
    std::vector<Walk> walks;
} tally;

std::mutex button_mutex; /* the START button and supply changes vs. a suspend */

/* Sets the power state and records when it happened. */
int walk_to(Client& c, const std::string& target, std::vector<std::string>* reply = nullptr)
{
    double before = board_monotonic();
    std::vector<std::string> lines = c.request("set pstate=" + target);
    std::vector<std::string> st = c.request("get pstate");
    double after = board_monotonic();
    int state = 0;
    for (const std::string& l : st) {
        if (l.compare(0, 5, "data ") == 0)
            state = atoi(l.c_str() + 5);
    }
    {
        std::lock_guard<std::mutex> lock(tally.m);
        tally.walks.push_back({before, after, state});
    }
    if (reply != nullptr)
        *reply = lines;
    return state;
}

/* ---- The operator ---- */

/* Waits until the live reading is near raw; false if it never gets there. */
bool await_raw(Client& c, double raw)
{
    for (int i = 0; i < 200; i++) {
        std::vector<std::string> l = c.request("get w");
        for (const std::string& s : l) {
            if (s.compare(0, 5, "data ") == 0 && std::fabs(atof(s.c_str() + 5) - raw) < 60)
                return true;
        }
        sleep_ms(5);
    }
    return false;
}

void calibrate(Client& c)
{
    /* The probe stands on a gauge of +50 um, then of -50 um. */
    const double zero_raw = 39830, mm_per_raw = 8.18591e-06;
    long before = c.events["calibration updated"];
    ctl("set workpiece.profile 0:50");
    bool ok = await_raw(c, zero_raw + 0.050 / mm_per_raw);
    std::vector<std::string> r1 = c.request("set w_xref1=50");
    ctl("set workpiece.profile 0:-50");
    ok = ok && await_raw(c, zero_raw - 0.050 / mm_per_raw);
    std::vector<std::string> r2 = c.request("set w_xref2=-50");
    ctl("set workpiece.profile roughness");
    std::lock_guard<std::mutex> lock(tally.m);
    if (!ok || has_error(r1) || has_error(r2)) {
        tally.calibrations_refused++;
        fail("calibration refused: %s / %s", joined(r1).c_str(), joined(r2).c_str());
        return;
    }
    tally.calibrations++;
    if (c.events["calibration updated"] != before + 1)
        fail("calibration accepted without exactly one 'calibration updated' event");
}

/* One scan; its samples counted and decoded. */
void scan(Client& c, double speed, bool by_time, double amount)
{
    char arg[64];
    snprintf(arg, sizeof arg, by_time ? "time=%.3f" : "x=%.3f", amount);
    c.request("set speed=" + std::to_string(speed).substr(0, 4));
    /* As the server converts the request into a sample count. */
    double value = strtod(strchr(arg, '=') + 1, nullptr);
    int sps = static_cast<int>(std::rint(speed / 0.0005));
    double length = by_time ? speed * value : value;
    int asked = static_cast<int>(sps * (length / speed));
    std::vector<std::string> lines = c.request(std::string("scan ") + arg, 120000);
    long got = 0, bad = 0, odd = 0;
    bool error = lines.empty();
    for (const std::string& l : lines) {
        if (l.compare(0, 5, "data ") == 0) {
            std::vector<uint16_t> s;
            if (!decode_samples(l.substr(5), &s)) {
                bad++;
                continue;
            }
            for (uint16_t v : s) {
                /* The roughness standard: a few um around the zero point. */
                if (v < 39830 - 2000 || v > 39830 + 2000)
                    odd++;
            }
            got += static_cast<long>(s.size());
        } else if (l.compare(0, 6, "error ") == 0 || l.compare(0, 8, "warning ") == 0) {
            error = true;
        }
    }
    std::lock_guard<std::mutex> lock(tally.m);
    tally.scans++;
    tally.samples_asked += asked;
    tally.samples_got += got;
    tally.bad_chunks += bad;
    tally.odd_samples += odd;
    if (error || got != asked || bad != 0) {
        tally.scan_failures++;
        fail("scan %s at %.1f mm/s: %ld samples of %d, %ld bad chunks; %s", arg, speed, got, asked, bad,
             joined(std::vector<std::string>(lines.begin(), lines.begin() + std::min<size_t>(lines.size(), 3)))
                 .c_str());
    }
}

void move_home(Client& c)
{
    std::vector<std::string> l = c.request("move x=0", 60000);
    std::lock_guard<std::mutex> lock(tally.m);
    if (has_error(l) || l.empty())
        fail("move home: %s", joined(l).c_str());
    else if (atof(l.back().c_str() + 6) < 0.001) /* "ready 0.000": it was home already */
        tally.moves_home_already++;
    else
        tally.moves++;
}

void suspend(Client& c, bool by_button)
{
    std::lock_guard<std::mutex> button(button_mutex);
    long resumed0 = c.events["resumed"], shutdown0 = c.events["resumed shutdown"];
    long pressed0 = c.events["START pressed"];
    /* The RTC ends it after the sleep time; the button earlier. */
    c.request("set sleep_time=120");
    double w0 = wall_s();
    std::thread presser;
    if (by_button) {
        presser = std::thread([] {
            sleep_ms(30);
            ctl("button press");
            ctl("button release");
        });
    }
    std::vector<std::string> reply;
    int state = walk_to(c, "suspend", &reply);
    if (presser.joinable())
        presser.join();
    double w1 = wall_s();
    /* The resume event comes before the request's ready line. */
    long resumed = c.events["resumed"] - resumed0, shutdown = c.events["resumed shutdown"] - shutdown0;
    long pressed = c.events["START pressed"] - pressed0;
    std::lock_guard<std::mutex> lock(tally.m);
    tally.suspend_windows.push_back({w0, w1});
    tally.own_presses += by_button;
    /* The server goes by the battery state it last announced. */
    if (c.batt_at_ack != "on battery") {
        tally.suspends_refused++;
        if (state != 3 || std::find(reply.begin(), reply.end(),
                                    "error suspend not allowed with external power supply") == reply.end())
            fail("suspend on external power: state %d, %s", state, joined(reply).c_str());
        return;
    }
    if (has_error(reply)) {
        fail("suspend refused on battery: %s", joined(reply).c_str());
        return;
    }
    tally.suspends++;
    tally.resumed += resumed;
    tally.resumed_shutdown += shutdown;
    if (by_button)
        tally.button_wakes++;
    else
        tally.swallowed += resumed; /* a board press queued just before it woke it */
    if (state != 2 || resumed + shutdown != 1)
        fail("suspend: state %d afterwards, %ld 'resumed' and %ld 'resumed shutdown' events", state, resumed,
             shutdown);
    /* A press the server woke up by is taken by the wake-up (no event); one
     * it saw awake is an event, and the release or the sleep time ends the
     * suspend. */
    if (by_button && pressed == 0 && resumed != 1)
        fail("button wake: %ld START pressed events, %ld resumed, %ld resumed shutdown", pressed, resumed, shutdown);
}

void operator_run(Client& c)
{
    std::mt19937 rng(opt.seed);
    auto pick = [&rng](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); };
    for (int round = 0; !stop_all; round++) {
        walk_to(c, "meas");
        {
            std::lock_guard<std::mutex> lock(tally.m);
            tally.meas_walks++;
        }
        move_home(c);
        double speed = round % 2 == 0 ? 0.5 : 1.0;
        if (round % 3 == 2)
            scan(c, speed, true, std::round(pick(0.2, 4.0) * 1000) / 1000);
        else
            scan(c, speed, false, std::round(pick(0.1, 17.5) * 1000) / 1000);
        move_home(c);
        if (round % 3 == 1)
            calibrate(c);
        if (round % 2 == 1) {
            walk_to(c, "eco");
            std::lock_guard<std::mutex> lock(tally.m);
            tally.eco_walks++;
        }
        if (round % 4 == 3)
            suspend(c, round % 8 == 7);
        if (round % 5 == 4)
            walk_to(c, "ready");
        sleep_ms(20);
    }
}

/* ---- The monitor: round trips, autoinfo, reconnects ---- */

void monitor_run(Client& c)
{
    long autoinfo_id = -1;
    c.on_other = [&autoinfo_id](const std::string& line) {
        if (autoinfo_id >= 0 && atol(line.c_str()) == autoinfo_id && line.find(" data ") != std::string::npos) {
            std::lock_guard<std::mutex> lock(tally.m);
            tally.autoinfo_reports++;
        }
    };
    for (long n = 0; !stop_all; n++) {
        if (n % 150 == 149) {
            c.close();
            if (!c.connect()) {
                fail("monitor: cannot reconnect");
                return;
            }
            autoinfo_id = -1;
        }
        if (n % 500 == 10) {
            autoinfo_id = c.id();
            c.take_id();
            c.send_line(std::to_string(autoinfo_id) + " autoinfo 200 batt pstate blight");
            std::lock_guard<std::mutex> lock(tally.m);
            tally.autoinfo_runs++;
        }
        if (n % 500 == 120 && autoinfo_id >= 0) {
            std::vector<std::string> l = c.request("abort " + std::to_string(autoinfo_id));
            autoinfo_id = -1;
            if (l.empty())
                fail("monitor: abort of autoinfo unanswered");
        }
        bool hostile_now = hostile;
        double t0 = wall_s();
        std::vector<std::string> l = c.request("get batt");
        double t1 = wall_s();
        if (l.empty())
            continue;
        std::lock_guard<std::mutex> lock(tally.m);
        tally.monitor_requests++;
        tally.latencies.push_back({t0, t1, hostile_now});
        sleep_ms(2);
    }
}

/* ---- The board: button, battery, USB supply ---- */

/* Board time of the server's latest access to the charger (it reads the
 * battery voltage and the charger together), from the board's journal. */
double last_charger_access()
{
    static std::streamoff offset = 0;
    static double last = -1;
    static std::string partial;
    std::ifstream in(server.board + "/journal", std::ios::binary);
    in.seekg(offset);
    std::string chunk((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    offset += static_cast<std::streamoff>(chunk.size());
    partial += chunk;
    size_t at = 0;
    for (size_t lf; (lf = partial.find('\n', at)) != std::string::npos; at = lf + 1) {
        if (partial.compare(partial.find(' ', at) + 1, 16, "/dev/i2c-0@0x6b ") == 0)
            last = atof(partial.c_str() + at);
    }
    partial.erase(0, at);
    return last;
}

void board_run()
{
    enum { Discharge, ChargeIn, ChargeUsb } phase = Discharge;
    bool was_low = false;
    double seen_at = -1;
    for (int tick = 0; !stop_all; tick++) {
        {
            std::lock_guard<std::mutex> lock(tally.m);
            tally.charging_at_end = phase != Discharge && was_low;
        }
        sleep_ms(40);
        std::lock_guard<std::mutex> button(button_mutex);
        if (tick % 10 == 3) {
            ctl("button press");
            ctl("button release");
            std::lock_guard<std::mutex> lock(tally.m);
            tally.presses++;
        }
        if (phase == ChargeUsb && tick % 25 == 7) {
            bool long_dip = tick % 50 == 7;
            ctl(long_dip ? "usb-dip 2s" : "usb-dip 100ms");
            std::lock_guard<std::mutex> lock(tally.m);
            (long_dip ? tally.usb_dips_long : tally.usb_dips_short)++;
        }
        double now = board_time();
        double v = ctl_number("battery.voltage");
        /* Each end of a cycle is held until the server has looked at the
         * battery since (its poll every 10 s, a suspend or a busy host may
         * delay that); meanwhile the voltage only goes further. */
        bool at_end = phase == Discharge ? v <= 3.66 : v >= 3.95;
        if (!at_end) {
            seen_at = -1;
            continue;
        }
        if (seen_at < 0)
            seen_at = now;
        if (last_charger_access() < seen_at + 5)
            continue;
        seen_at = -1;
        if (phase == Discharge) {
            was_low = true;
            bool usb = tally.charge_cycles % 2 == 1;
            phase = usb ? ChargeUsb : ChargeIn;
            /* A USB port gives 500 mA after a long dip: less load, so
             * that some of it charges the battery. */
            if (usb)
                ctl("set supply.load_ma 200");
            {
                std::lock_guard<std::mutex> lock(tally.m);
                (usb ? tally.usb_plugins : tally.in_plugins)++;
            }
            ctl(usb ? "set supply.usb_v 5" : "set supply.external_v 5");
        } else {
            if (was_low) {
                std::lock_guard<std::mutex> lock(tally.m);
                tally.charge_cycles++;
            }
            was_low = false;
            ctl("set supply.usb_v 0");
            ctl("set supply.external_v 0");
            ctl("set supply.load_ma 800");
            phase = Discharge;
        }
    }
}

/* ---- The hostile clients ---- */

/* Asks and asks and never reads a reply. */
void never_reader_run()
{
    int fd = tcp_connect(4096);
    if (fd < 0) {
        fail("never-reader: no connection");
        return;
    }
    for (long id = 1; !stop_all; id++) {
        std::string req = std::to_string(id) + " get batt\n";
        struct pollfd p = {fd, POLLOUT, 0};
        if (poll(&p, 1, 100) == 1 && send(fd, req.data(), req.size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0) {
            std::lock_guard<std::mutex> lock(tally.m);
            tally.never_reader_requests++;
        }
        sleep_ms(1);
    }
    close(fd);
}

/* One byte a second of wall time. */
void slow_run()
{
    int fd = tcp_connect();
    if (fd < 0) {
        fail("slow client: no connection");
        return;
    }
    const std::string req = "7 get batt\n";
    std::string got;
    for (size_t i = 0; !stop_all; i++) {
        if (send(fd, &req[i % req.size()], 1, MSG_NOSIGNAL) != 1) {
            fail("slow client: the server closed the connection");
            break;
        }
        {
            std::lock_guard<std::mutex> lock(tally.m);
            tally.slow_bytes++;
        }
        for (int k = 0; k < 100 && !stop_all; k++)
            sleep_ms(10);
        char buf[4096];
        ssize_t n;
        while ((n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0)
            got.append(buf, static_cast<size_t>(n));
    }
    std::lock_guard<std::mutex> lock(tally.m);
    for (size_t p = 0; (p = got.find("7 ready", p)) != std::string::npos; p++)
        tally.slow_replies++;
    close(fd);
}

/* 1 MB without a line end, then a request that must be answered. */
void flood_once()
{
    int fd = -1;
    for (int tries = 0; fd < 0 && tries < 1000; tries++) {
        fd = tcp_connect();
        char greeting[256];
        ssize_t g = fd < 0 ? 0 : recv(fd, greeting, sizeof greeting, 0);
        if (g <= 0 || strncmp(greeting, busy_text, strlen(busy_text)) == 0) {
            if (fd >= 0)
                close(fd);
            fd = -1;
            sleep_ms(2);
        }
    }
    if (fd < 0) {
        fail("flood: no free slot");
        return;
    }
    double t0 = wall_s();
    double cpu0 = server_cpu_ms();
    std::string junk(1 << 20, 'x');
    for (size_t i = 0; i < junk.size(); i += 997)
        junk[i] = static_cast<char>('0' + i % 10); /* digits and spaces, never a line end */
    size_t sent = 0;
    while (sent < junk.size()) {
        ssize_t n = send(fd, junk.data() + sent, junk.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            break;
        sent += static_cast<size_t>(n);
    }
    std::string tail = "\n42 get pstate\n";
    send(fd, tail.data(), tail.size(), MSG_NOSIGNAL);
    std::string got;
    bool answered = false;
    while (!answered && wall_s() - t0 < 60) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 1000) != 1)
            continue;
        char buf[4096];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0)
            break;
        got.append(buf, static_cast<size_t>(n));
        answered = got.find("42 ready") != std::string::npos;
    }
    double ms = (wall_s() - t0) * 1000, cpu = server_cpu_ms() - cpu0;
    close(fd);
    std::lock_guard<std::mutex> lock(tally.m);
    tally.floods++;
    tally.flood_wall_ms_max = std::max(tally.flood_wall_ms_max, ms);
    tally.flood_cpu_ms_max = std::max(tally.flood_cpu_ms_max, cpu);
    if (answered && got.find("42 data ") != std::string::npos)
        tally.flood_recovered++;
    else
        fail("after 1 MB without a line end the request that followed was not answered (%zu bytes back)",
             got.size());
    /* Nothing of the long line may have been taken for a request. */
    for (size_t p = 0; (p = got.find(" ack", p)) != std::string::npos; p++) {
        if (got.compare(p >= 2 ? p - 2 : 0, 2, "42") != 0) {
            fail("a piece of the 1 MB line was taken for a request");
            break;
        }
    }
}

/* Connects and closes, with a flood now and then. */
void churn_run()
{
    int floods = 0;
    for (int i = 0; i < opt.churn;) {
        if (floods < opt.floods && i >= floods * opt.churn / opt.floods) {
            flood_once();
            floods++;
        }
        double t0 = wall_s();
        int fd = tcp_connect();
        double connect_ms = (wall_s() - t0) * 1000;
        if (fd < 0) {
            sleep_ms(1);
            continue;
        }
        i++;
        {
            std::lock_guard<std::mutex> lock(tally.m);
            tally.churn_connect_ms_max = std::max(tally.churn_connect_ms_max, connect_ms);
            tally.churn_slow_connects += connect_ms > 500;
        }
        /* Mostly polite; every tenth leaves without reading (a reset). */
        if (i % 10 != 9) {
            char buf[256];
            struct pollfd p = {fd, POLLIN, 0};
            if (poll(&p, 1, 5000) == 1) {
                ssize_t n = recv(fd, buf, sizeof buf - 1, 0);
                if (n > 0 && strncmp(buf, busy_text, strlen(busy_text)) == 0) {
                    std::lock_guard<std::mutex> lock(tally.m);
                    tally.churn_refused++;
                }
            }
        }
        close(fd);
        std::lock_guard<std::mutex> lock(tally.m);
        tally.churn_done++;
    }
    for (; floods < opt.floods; floods++)
        flood_once();
}

/* ---- Figures ---- */

struct Counters {
    long meas = 0, batt = 0;
    double uptime_h = 0, eco_h = 0;
};

Counters read_counters(Client& c)
{
    Counters k;
    for (const std::string& l : c.request("get meas_cycles batt_cycles uptime uptime_eco")) {
        if (l.compare(0, 5, "data ") == 0)
            sscanf(l.c_str() + 5, "%ld %ld %lf %lf", &k.meas, &k.batt, &k.uptime_h, &k.eco_h);
    }
    return k;
}

void latency_line(const char* what, std::vector<double> v)
{
    if (v.empty()) {
        printf("  %-28s no samples\n", what);
        return;
    }
    std::sort(v.begin(), v.end());
    printf("  %-28s %6zu round trips: median %.2f ms, p99 %.2f ms, max %.1f ms\n", what, v.size(), v[v.size() / 2],
           v[v.size() * 99 / 100], v.back());
}

bool parse_args(int argc, char** argv)
{
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        bool has = i + 1 < argc;
        if (a == "--hours" && has)
            opt.hours = atof(argv[++i]);
        else if (a == "--scale" && has)
            opt.scale = atof(argv[++i]);
        else if (a == "--churn" && has)
            opt.churn = atoi(argv[++i]);
        else if (a == "--floods" && has)
            opt.floods = atoi(argv[++i]);
        else if (a == "--rss-slack" && has)
            opt.rss_slack_kib = atol(argv[++i]);
        else if (a == "--flood-cpu-ms" && has)
            opt.flood_cpu_ms = atol(argv[++i]);
        else if (a == "--fd-slack" && has)
            opt.fd_slack = static_cast<size_t>(atol(argv[++i]));
        else if (a == "--seed" && has)
            opt.seed = static_cast<unsigned>(atoi(argv[++i]));
        else if (a == "--keep")
            opt.keep = true;
        else if (a == "--trace" && has)
            opt.trace = atoi(argv[++i]);
        else
            return false;
    }
    return opt.hours > 0 && opt.scale > 0 && opt.churn >= 0 && opt.floods >= 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (!parse_args(argc, argv)) {
        fprintf(stderr, "usage: bench_soak [--hours H] [--scale K] [--churn N] [--floods F] [--rss-slack KIB] [--flood-cpu-ms MS] [--fd-slack N] "
                        "[--seed S] [--keep] [--trace LEVEL]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    wall_s();
    if (!start_server()) {
        fprintf(stderr, "bench_soak: the server did not start\n");
        stop_server();
        return 1;
    }

    /* Warm-up: a connection, the measuring state once, and the battery
     * known; then the figures everything is compared with. */
    Client op("operator");
    if (!op.connect()) {
        fprintf(stderr, "bench_soak: no connection\n");
        stop_server();
        return 1;
    }
    walk_to(op, "meas");
    move_home(op);
    walk_to(op, "eco");
    walk_to(op, "ready");
    Counters k0 = read_counters(op);
    {
        std::lock_guard<std::mutex> lock(tally.m);
        tally.walks.erase(tally.walks.begin(), tally.walks.end() - 1);
        tally.moves = tally.moves_home_already = 0;
    }
    op.close();
    sleep_ms(300);
    std::vector<std::string> fds0 = server_fds();
    long rss0 = proc_status("VmRSS");
    double board0 = board_time();
    double wall0 = wall_s();

    if (!op.connect()) {
        fail("operator: no connection");
        stop_server();
        return 1;
    }
    Client mon("monitor");
    if (!mon.connect()) {
        fail("monitor: no connection");
        stop_server();
        return 1;
    }
    std::thread t_op(operator_run, std::ref(op));
    std::thread t_mon(monitor_run, std::ref(mon));
    std::thread t_board(board_run);

    const double span = opt.hours * 3600;
    std::vector<std::thread> hostiles;
    bool churn_finished = false;
    std::thread t_churn;
    for (;;) {
        sleep_ms(200);
        if (!server_alive()) {
            fail("the server ended during the soak");
            break;
        }
        double board = board_time() - board0;
        if (!hostile && board >= span / 2) {
            hostile = true;
            hostiles.emplace_back(never_reader_run);
            hostiles.emplace_back(slow_run);
            t_churn = std::thread(churn_run);
        }
        if (hostile && !churn_finished) {
            std::lock_guard<std::mutex> lock(tally.m);
            churn_finished = tally.churn_done >= opt.churn;
        }
        if (board >= span && churn_finished)
            break;
    }
    stop_all = true;
    t_op.join();
    t_mon.join();
    t_board.join();
    if (t_churn.joinable())
        t_churn.join();
    for (std::thread& t : hostiles)
        t.join();
    double board_soaked = board_time() - board0;
    double wall_soaked = wall_s() - wall0;
    mon.close();

    /* The closing figures: the counters brought up to date by a walk
     * through eco, as at the start. */
    walk_to(op, "eco");
    walk_to(op, "ready");
    Counters k1 = read_counters(op);
    long operator_pressed = op.events["START pressed"];
    long batt_faults = op.events["batt fault"], batt_low = op.events["battery low"];
    long charging = op.events["charging"];
    long wd_expiries = std::lround(ctl_number("charger.watchdog_expiries"));
    op.close();

    bool alive = server_alive();
    std::vector<std::string> fds1;
    for (int i = 0; i < 200; i++) {
        fds1 = server_fds();
        if (fds1.size() <= fds0.size())
            break;
        sleep_ms(50);
    }
    long rss1 = proc_status("VmRSS");

    /* ---- Checks ---- */
    if (!alive)
        fail("the server is gone");
    if (fds1.size() < fds0.size() || fds1.size() > fds0.size() + opt.fd_slack) {
        fail("descriptors: %zu at the start, %zu at the end", fds0.size(), fds1.size());
        for (const std::string& f : fds1) {
            if (std::find(fds0.begin(), fds0.end(), f) == fds0.end())
                printf("  new: %s%s\n", f.c_str(), socket_details(f).c_str());
        }
    }
    if (rss1 - rss0 > opt.rss_slack_kib)
        fail("resident memory grew from %ld KiB to %ld KiB (more than %ld KiB)", rss0, rss1, opt.rss_slack_kib);
    if (tally.samples_got != tally.samples_asked)
        fail("%ld samples lost", tally.samples_asked - tally.samples_got);
    if (k1.meas - k0.meas != tally.scans)
        fail("meas_cycles went from %ld to %ld for %ld scans", k0.meas, k1.meas, tally.scans);
    /* The server counts a cycle at the upper threshold, before the board
     * side has held the battery there: the last one may be counted by the
     * server alone. */
    long batt_counted = k1.batt - k0.batt;
    if (batt_counted != tally.charge_cycles && !(tally.charging_at_end && batt_counted == tally.charge_cycles + 1))
        fail("batt_cycles went from %ld to %ld for %ld charge cycles%s", k0.batt, k1.batt, tally.charge_cycles,
             tally.charging_at_end ? " and one under way" : "");

    /* Operating time: what the board's monotonic clock spent in ready and
     * meas, and in eco, between the walks (each walk's own span is
     * uncertain: it may count either way). */
    double expect_up = 0, expect_eco = 0, blur = 0;
    auto counter_of = [&](int pstate) {
        return pstate == 4 || pstate == 5 ? &expect_up : pstate == 3 ? &expect_eco : nullptr;
    };
    for (size_t i = 0; i < tally.walks.size(); i++) {
        const Tally::Walk& w = tally.walks[i];
        double* counter = counter_of(w.state);
        /* A walk that stays with one counter (ready to meas) is all its
         * time; one that changes the counter may be split either way. */
        if (i > 0 && counter_of(tally.walks[i - 1].state) == counter) {
            if (counter != nullptr)
                *counter += w.after - w.before;
        } else if (i > 0) {
            blur += w.after - w.before;
        }
        if (i + 1 < tally.walks.size() && counter != nullptr)
            *counter += tally.walks[i + 1].before - w.after;
    }
    double up_s = (k1.uptime_h - k0.uptime_h) * 3600, eco_s = (k1.eco_h - k0.eco_h) * 3600;
    const double resolution = 2 * 3.6 + 2; /* hours with three decimals, whole seconds */
    if (up_s < expect_up - resolution || up_s > expect_up + blur + resolution)
        fail("uptime grew by %.0f s; ready and meas lasted %.0f..%.0f s", up_s, expect_up, expect_up + blur);
    if (eco_s < expect_eco - resolution || eco_s > expect_eco + blur + resolution)
        fail("uptime_eco grew by %.0f s; eco lasted %.0f..%.0f s", eco_s, expect_eco, expect_eco + blur);
    /* Every press the server takes awake is an event for every client; a
     * press that ends a suspend is not. Which of the operator's own presses
     * come before or after the suspend is a race, so they widen the range. */
    long lo = tally.presses - tally.swallowed, hi = tally.presses + tally.own_presses;
    if (operator_pressed < lo || operator_pressed > hi)
        fail("the operator saw %ld 'START pressed' events, expected %ld..%ld", operator_pressed, lo, hi);
    /* A suspended server answers nobody: those waits are not latency. */
    std::vector<double> lat_quiet, lat_hostile; /* ms */
    for (const Tally::Sample& l : tally.latencies) {
        bool in_suspend = false;
        for (auto& w : tally.suspend_windows)
            in_suspend |= l.t1 >= w.first && l.t0 <= w.second;
        if (!in_suspend)
            (l.hostile ? lat_hostile : lat_quiet).push_back((l.t1 - l.t0) * 1000);
    }
    if (tally.monitor_requests == 0 || lat_hostile.empty())
        fail("the monitor got no service while the hostile clients ran");
    if (tally.churn_done < opt.churn)
        fail("only %ld of %d connect-and-close cycles done", tally.churn_done, opt.churn);
    /* USB: a long dip takes the gadget down and up again, a short one
     * leaves it (a dip the server was too busy to see leaves it too). */
    long gadget_stops = 0, gadget_binds = 0;
    /* The charger's watchdog: restarted by every power event, handed back
     * (RESET) before a suspend. A restart more than 30 s of board time after
     * the one before is the server held up (a loaded host under a scaled
     * clock), not a restart forgotten. */
    long late_restarts = 0;
    {
        std::ifstream in(server.board + "/journal");
        std::string line;
        double restarted = -1;
        while (std::getline(in, line)) {
            gadget_stops += line.find("system \"sh ./usb_gadget.sh stop\"") != std::string::npos;
            gadget_binds += line.find("system \"sh ./usb_gadget.sh bind\"") != std::string::npos;
            bool restart = line.find(" /dev/i2c-0@0x6b write 00 8") != std::string::npos;
            bool handed_back = line.find(" /dev/i2c-0@0x6b write 02 80") != std::string::npos;
            if (!restart && !handed_back)
                continue;
            double t = atof(line.c_str());
            late_restarts += restarted >= 0 && t - restarted > 30;
            restarted = restart ? t : -1;
        }
    }
    /* Each time USB is plugged in it is bound, and stopped when unplugged. */
    long dips_down = gadget_stops - tally.usb_plugins, dips_up = gadget_binds - tally.usb_plugins;
    if (dips_down < -1 || dips_down > tally.usb_dips_long || dips_up < dips_down - 1 || dips_up > dips_down + 1)
        fail("USB gadget stopped %ld times and bound %ld times for %ld plug-ins and %ld long dips", gadget_stops,
             gadget_binds, tally.usb_plugins, tally.usb_dips_long);
    /* The charger keeps its settings: no watchdog expiry but after a late
     * restart, no fault and a "charging" only for a supply that came (a
     * plug-in or a dip's end) but after an expiry. */
    long supplies = tally.in_plugins + tally.usb_plugins + tally.usb_dips_short + tally.usb_dips_long;
    if (wd_expiries > late_restarts)
        fail("the charger's watchdog expired %ld times, %ld restarts came late", wd_expiries, late_restarts);
    if (batt_faults > wd_expiries)
        fail("'batt fault' %ld times, %ld watchdog expiries", batt_faults, wd_expiries);
    if (charging > supplies + wd_expiries)
        fail("%ld 'charging' events for %ld plug-ins and dips and %ld watchdog expiries", charging, supplies,
             wd_expiries);
    /* An over-long line is skipped, not read byte by byte. */
    if (tally.flood_cpu_ms_max > opt.flood_cpu_ms)
        fail("a 1 MB line without end cost the server %.0f ms of processor time", tally.flood_cpu_ms_max);
    if (tally.autoinfo_runs > 0 && tally.autoinfo_reports == 0)
        fail("autoinfo subscriptions sent no reports");

    /* ---- The summary ---- */
    printf("\nsoak: %.2f board hours (clock scaled %g) in %.1f s of wall time\n", board_soaked / 3600, opt.scale,
           wall_soaked);
    printf("  operations: %ld scans (%ld samples asked, %ld received, %ld lost, %ld chunks undecodable, %ld "
           "outside the standard's range), %ld moves home (+%ld already home), %ld calibrations (%ld refused)\n",
           tally.scans, tally.samples_asked, tally.samples_got, tally.samples_asked - tally.samples_got,
           tally.bad_chunks, tally.odd_samples, tally.moves, tally.moves_home_already, tally.calibrations,
           tally.calibrations_refused);
    printf("  power: %ld walks to meas, %ld to eco, %ld suspends (%ld woken by the button; events: %ld resumed, "
           "%ld resumed shutdown; %ld refused on external power), %ld START presses on the board side (%ld seen by the operator), %ld battery "
           "charge cycles ('battery low' %ld times, 'batt fault' %ld times), USB dips %ld short and %ld long "
           "(USB plugged in %ld times; gadget stopped %ld times, bound %ld times)\n",
           tally.meas_walks, tally.eco_walks, tally.suspends, tally.button_wakes, tally.resumed,
           tally.resumed_shutdown, tally.suspends_refused, tally.presses, operator_pressed, tally.charge_cycles, batt_low, batt_faults,
           tally.usb_dips_short, tally.usb_dips_long, tally.usb_plugins, gadget_stops, gadget_binds);
    printf("  charger: %ld watchdog expiries (%ld restarts more than 30 s after the one before), %ld 'charging' events for %ld plug-ins (%ld IN, %ld USB) and %ld USB "
           "dips\n",
           wd_expiries, late_restarts, charging, tally.in_plugins + tally.usb_plugins, tally.in_plugins, tally.usb_plugins,
           tally.usb_dips_short + tally.usb_dips_long);
    printf("  monitor: %ld requests over %ld connections (%ld refused as busy), %ld autoinfo subscriptions with "
           "%ld reports\n",
           tally.monitor_requests, mon.connects, mon.refusals, tally.autoinfo_runs, tally.autoinfo_reports);
    printf("  hostile: never-reader sent %ld requests; slow client %ld bytes, %ld replies; %ld connect-and-close "
           "(%ld refused as busy, %ld connects slower than 0.5 s, slowest %.0f ms); %ld floods of 1 MB, %ld "
           "answered afterwards, slowest %.0f ms of wall time and %.0f ms of the server's processor time\n",
           tally.never_reader_requests, tally.slow_bytes, tally.slow_replies, tally.churn_done, tally.churn_refused,
           tally.churn_slow_connects, tally.churn_connect_ms_max,
           tally.floods, tally.flood_recovered, tally.flood_wall_ms_max, tally.flood_cpu_ms_max);
    printf("  counters: meas_cycles %ld -> %ld, batt_cycles %ld -> %ld, uptime +%.0f s (expected %.0f..%.0f), "
           "uptime_eco +%.0f s (expected %.0f..%.0f)\n",
           k0.meas, k1.meas, k0.batt, k1.batt, up_s, expect_up, expect_up + blur, eco_s, expect_eco,
           expect_eco + blur);
    printf("  server: %.1f s of processor time; %zu descriptors at the start, %zu at the end; resident memory "
           "%ld KiB -> %ld KiB (slack %ld KiB)\n",
           server_cpu_ms() / 1000, fds0.size(), fds1.size(), rss0, rss1, opt.rss_slack_kib);
    printf("  monitor latency (wall time, suspends left out):\n");
    latency_line("without hostile clients:", lat_quiet);
    latency_line("with hostile clients:", lat_hostile);
    printf("%s\n", failures == 0 ? "soak: all checks passed" : "soak: CHECKS FAILED");
    stop_server();
    return failures == 0 ? 0 : 1;
}

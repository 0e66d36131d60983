/*
 * The remote-control server under load, on the simulated instrument.
 *
 * 1. `get batt` round trips over loopback with 1 and with 5 clients: requests
 *    per second, median and 99th-percentile latency, and the read and write
 *    system calls the server makes per request (from /proc/PID/io).
 * 2. The idle server over 60 s of board time (the clock scaled 60 times):
 *    wake-ups of its select() loop on the host.
 * 3. Its resident memory at start, after 10 000 requests and after 1 000
 *    connects and disconnects.
 * 4. A full 17.5 mm scan at 1 mm/s streamed to a client with the clock in
 *    warp mode: samples expected, received, lost; data lines and their
 *    length; wall time.
 * 5. The same scan in real time while the four other clients send `get
 *    batt` as fast as they can (five clients in all, the server's limit):
 *    the interval between data lines and the samples lost.
 *
 * With --redis, instead: the server's cost per request beside redis-server's
 * (Debian's package: apt-get install redis-server; skipped when it is not
 * installed), both driven by the same client, one request at a time (`get
 * batt` against `PING`), idle and with four other clients busy: the
 * server's CPU time (user + system, /proc/PID/stat) per request served,
 * the measured client's rate and latency percentiles.
 *
 * Usage: bench_server [requests]
 *        bench_server --redis [requests]   (20 000 by default)
 * VELATOOL and VELASIM in the environment name other binaries to measure.
 */
#include <algorithm>
#include <atomic>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <sstream>
#include <thread>
#include <unistd.h>
#include <vector>

#include "free_port.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Server {
    pid_t pid = -1;
    int port = 0;
    std::string dir;
};

using vt::free_port;

const char* binary(const char* env, const char* built)
{
    const char* path = getenv(env);
    return path != nullptr && *path != '\0' ? path : built;
}

int connect_to(int port)
{
    for (int tries = 0; tries < 2000; tries++) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0)
            return fd;
        close(fd);
        usleep(5000);
    }
    return -1;
}

Server start_server(const char* clock)
{
    Server s;
    char dir[] = "/tmp/velabench.XXXXXX";
    s.dir = mkdtemp(dir);
    s.port = free_port();
    s.pid = fork();
    if (s.pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        std::string board = s.dir + "/board", port = std::to_string(s.port);
        setenv("ORVIK_CONFIGPATH", (s.dir + "/config").c_str(), 1);
        const char* velasim = binary("VELASIM", VELASIM_PATH);
        execl(velasim, velasim, "run", "--dir", board.c_str(), "--clock", clock, "--", binary("VELATOOL", VELATOOL_PATH),
              "-T", "0", "-r", port.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int probe = connect_to(s.port);
    if (probe >= 0)
        close(probe);
    return s;
}

void stop_server(Server& s)
{
    kill(s.pid, SIGKILL);
    waitpid(s.pid, nullptr, 0);
    std::filesystem::remove_all(s.dir);
}

/* A field of /proc/PID/<file>, "name: value". */
long proc_field(pid_t pid, const char* file, const char* name)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/" + file);
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, strlen(name), name) == 0 && line[strlen(name)] == ':')
            return atol(line.c_str() + strlen(name) + 1);
    }
    return -1;
}

long server_syscalls(pid_t pid)
{
    return proc_field(pid, "io", "syscr") + proc_field(pid, "io", "syscw");
}

/* Reads until a line starting with prefix; false on end. */
bool read_until(int fd, std::string& pending, const std::string& prefix)
{
    for (;;) {
        size_t lf;
        while ((lf = pending.find('\n')) != std::string::npos) {
            std::string line = pending.substr(0, lf);
            pending.erase(0, lf + 1);
            if (line.compare(0, prefix.size(), prefix) == 0)
                return true;
        }
        char buf[4096];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0)
            return false;
        pending.append(buf, static_cast<size_t>(n));
    }
}

/* count round trips of "<id> get batt" on a new connection; latencies in us. */
void client_run(int port, int count, std::vector<double>* latencies)
{
    int fd = connect_to(port);
    std::string pending;
    for (int i = 0; i < count; i++) {
        std::string req = std::to_string(i + 1) + " get batt\n";
        auto t0 = Clock::now();
        if (write(fd, req.data(), req.size()) != static_cast<ssize_t>(req.size()) ||
            !read_until(fd, pending, std::to_string(i + 1) + " ready"))
            break;
        latencies->push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    close(fd);
}

void round_trips(const Server& s, int clients, int requests)
{
    std::vector<std::vector<double>> lat(static_cast<size_t>(clients));
    long sys0 = server_syscalls(s.pid);
    auto t0 = Clock::now();
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; c++)
        threads.emplace_back(client_run, s.port, requests / clients, &lat[static_cast<size_t>(c)]);
    for (std::thread& t : threads)
        t.join();
    double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    std::vector<double> all;
    for (auto& l : lat)
        all.insert(all.end(), l.begin(), l.end());
    std::sort(all.begin(), all.end());
    if (all.empty()) {
        printf("%d client(s): no answers\n", clients);
        return;
    }
    long sys = server_syscalls(s.pid) - sys0;
    printf("%d client(s): %zu round trips, %.0f per second, latency median %.0f us, p99 %.0f us; "
           "%.1f read/write calls of the server per request\n",
           clients, all.size(), static_cast<double>(all.size()) / seconds, all[all.size() / 2],
           all[all.size() * 99 / 100], static_cast<double>(sys) / static_cast<double>(all.size()));
}

std::string ctl(const Server& s, const std::string& command)
{
    std::string cmd = std::string(VELASIM_PATH) + " ctl --dir " + s.dir + "/board " + command;
    FILE* p = popen(cmd.c_str(), "r");
    std::string out;
    char buf[256];
    while (fgets(buf, sizeof buf, p) != nullptr)
        out += buf;
    pclose(p);
    return out;
}

/* The 16-bit samples in a base64 text. */
size_t base64_samples(const std::string& text)
{
    size_t chars = text.find('=') == std::string::npos ? text.size() : text.find('=');
    return chars * 6 / 8 / 2;
}

/* Sends "<id> <command>" and reads up to its ready line. */
std::vector<std::string> request(int fd, std::string& pending, int id, const std::string& command)
{
    std::string req = std::to_string(id) + " " + command + "\n";
    std::vector<std::string> lines;
    if (write(fd, req.data(), req.size()) != static_cast<ssize_t>(req.size()))
        return lines;
    std::string ready = std::to_string(id) + " ready";
    for (;;) {
        size_t lf;
        while ((lf = pending.find('\n')) != std::string::npos) {
            lines.push_back(pending.substr(0, lf));
            pending.erase(0, lf + 1);
            if (lines.back().compare(0, ready.size(), ready) == 0)
                return lines;
        }
        char buf[65536];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0)
            return lines;
        pending.append(buf, static_cast<size_t>(n));
    }
}

/* A 17.5 mm scan at 1 mm/s; with flooders, as many clients asking for
 * the battery meanwhile. */
void full_scan(const char* clock, int flooders)
{
    Server s = start_server(clock);
    int fd = connect_to(s.port);
    std::string pending;
    request(fd, pending, 1, "set pstate=meas speed=1.0");
    volatile bool stop = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < flooders; i++) {
        threads.emplace_back([&s, &stop] {
            int c = connect_to(s.port);
            std::string p;
            for (int id = 1; !stop; id++)
                request(c, p, id, "get batt");
            close(c);
        });
    }
    std::string req = "2 scan x=17.5\n";
    auto t0 = Clock::now();
    if (write(fd, req.data(), req.size()) != static_cast<ssize_t>(req.size()))
        return;
    size_t samples = 0, lines = 0, chars = 0;
    std::vector<double> gaps;
    auto last = Clock::now();
    std::string ready;
    for (bool done = false; !done;) {
        size_t lf;
        while ((lf = pending.find('\n')) != std::string::npos) {
            std::string line = pending.substr(0, lf);
            pending.erase(0, lf + 1);
            if (line.compare(0, 7, "2 data ") == 0) {
                auto now = Clock::now();
                if (lines > 0)
                    gaps.push_back(std::chrono::duration<double, std::milli>(now - last).count());
                last = now;
                lines++;
                chars += line.size() - 7;
                samples += base64_samples(line.substr(7));
            } else if (line.compare(0, 7, "2 ready") == 0 || line.compare(0, 7, "2 error") == 0) {
                ready = line;
                done = line.compare(0, 7, "2 ready") == 0;
            }
        }
        char buf[65536];
        ssize_t n = done ? 1 : read(fd, buf, sizeof buf);
        if (n <= 0)
            break;
        if (!done)
            pending.append(buf, static_cast<size_t>(n));
    }
    double wall = std::chrono::duration<double>(Clock::now() - t0).count();
    stop = true;
    for (std::thread& t : threads)
        t.join();
    std::sort(gaps.begin(), gaps.end());
    const size_t expected = 35000; /* one sample per 0.5 um */
    printf("scan 17.5 mm at 1 mm/s, clock %s, %d other clients: %zu samples of %zu (%zu lost), %zu data lines of "
           "%.0f base64 characters on average, %.2f s of wall time, '%s'\n",
           clock, flooders, samples, expected, samples > expected ? 0 : expected - samples, lines,
           lines ? static_cast<double>(chars) / static_cast<double>(lines) : 0.0, wall, ready.c_str());
    if (!gaps.empty())
        printf("  interval between data lines: median %.1f ms, p99 %.1f ms, max %.1f ms\n", gaps[gaps.size() / 2],
               gaps[gaps.size() * 99 / 100], gaps.back());
    close(fd);
    stop_server(s);
}

/* ---- Beside redis ---- */

const char* const kRedis = "/usr/bin/redis-server";

/* CPU time (user + system) of a process so far, in microseconds. */
double cpu_us(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    std::getline(in, stat);
    /* Behind the command's name: state, then utime and stime as the 12th
     * and 13th fields. */
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string skip;
    for (int i = 0; i < 11; i++)
        fields >> skip;
    double utime = 0, stime = 0;
    fields >> utime >> stime;
    return (utime + stime) * 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

/* One request and its answer: "<id> get batt" up to its ready line, or
 * PING up to PONG. */
bool round_trip(int fd, std::string& pending, bool redis, int id)
{
    std::string req = redis ? "PING\r\n" : std::to_string(id) + " get batt\n";
    if (write(fd, req.data(), req.size()) != static_cast<ssize_t>(req.size()))
        return false;
    return read_until(fd, pending, redis ? "+PONG" : std::to_string(id) + " ready");
}

void compare_run(const char* name, pid_t pid, int port, bool redis, int requests, int busy)
{
    std::atomic<bool> stop{false};
    std::atomic<long> served{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < busy; i++) {
        threads.emplace_back([&, port, redis] {
            int fd = connect_to(port);
            std::string pending;
            for (int id = 1; !stop && round_trip(fd, pending, redis, id); id++)
                served++;
            close(fd);
        });
    }
    int fd = connect_to(port);
    std::string pending;
    round_trip(fd, pending, redis, 1); /* past the greeting */
    while (busy > 0 && served < busy)
        usleep(1000);
    std::vector<double> lat;
    long others0 = served;
    double cpu0 = cpu_us(pid);
    auto t0 = Clock::now();
    for (int i = 0; i < requests; i++) {
        auto r0 = Clock::now();
        if (!round_trip(fd, pending, redis, i + 2))
            break;
        lat.push_back(std::chrono::duration<double, std::micro>(Clock::now() - r0).count());
    }
    double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    double cpu = cpu_us(pid) - cpu0;
    long others = served - others0;
    stop = true;
    for (std::thread& t : threads)
        t.join();
    close(fd);
    if (lat.empty()) {
        printf("%-8s %d busy: no answers\n", name, busy);
        return;
    }
    std::sort(lat.begin(), lat.end());
    double total = static_cast<double>(lat.size()) + static_cast<double>(others);
    printf("%-8s %d busy: %6.0f requests/s, latency median %5.0f us, p99 %6.0f us; server CPU %6.1f us per request "
           "(%.0f requests served)\n",
           name, busy, static_cast<double>(lat.size()) / seconds, lat[lat.size() / 2], lat[lat.size() * 99 / 100],
           cpu / total, total);
}

void versus_redis(int requests)
{
    Server s = start_server("real");
    for (int busy : {0, 4})
        compare_run("velatool", s.pid, s.port, false, requests, busy);
    stop_server(s);
    if (access(kRedis, X_OK) != 0) {
        printf("redis    skipped: %s is not installed (apt-get install redis-server)\n", kRedis);
        return;
    }
    int port = free_port();
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        execl(kRedis, kRedis, "--port", std::to_string(port).c_str(), "--bind", "127.0.0.1", "--save", "",
              "--appendonly", "no", static_cast<char*>(nullptr));
        _exit(127);
    }
    int probe = connect_to(port);
    if (probe >= 0)
        close(probe);
    for (int busy : {0, 4})
        compare_run("redis", pid, port, true, requests, busy);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

} // namespace

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_IGN);
    if (argc > 1 && strcmp(argv[1], "--redis") == 0) {
        versus_redis(argc > 2 ? atoi(argv[2]) : 20000);
        return 0;
    }
    int requests = argc > 1 ? atoi(argv[1]) : 10000;

    Server s = start_server("real");
    long rss0 = proc_field(s.pid, "status", "VmRSS");
    round_trips(s, 1, requests);
    round_trips(s, 5, requests);
    long rss1 = proc_field(s.pid, "status", "VmRSS");
    /* Each client takes its greeting before it leaves: closing on unread
     * data resets the connection, which loopback answers with a second's
     * SYN back-off now and then. */
    for (int i = 0; i < 1000; i++) {
        int fd = connect_to(s.port);
        std::string pending;
        read_until(fd, pending, "0 event");
        close(fd);
    }
    std::vector<double> unused;
    client_run(s.port, 10, &unused); /* the server has seen every close */
    long rss2 = proc_field(s.pid, "status", "VmRSS");
    printf("resident memory: %ld KiB at start, %ld KiB after %d requests, %ld KiB after 1000 connects\n", rss0, rss1,
           2 * requests, rss2);
    stop_server(s);

    /* 60 s of board time, scaled 60 times: about a second of ours. */
    s = start_server("scaled 60");
    usleep(200000);
    long wake0 = atol(ctl(s, "get board.wakeups").c_str());
    long csw0 = proc_field(s.pid, "status", "voluntary_ctxt_switches");
    double board0 = atof(ctl(s, "get clock.board_s").c_str());
    usleep(1000000);
    double board1 = atof(ctl(s, "get clock.board_s").c_str());
    long wake1 = atol(ctl(s, "get board.wakeups").c_str());
    long csw1 = proc_field(s.pid, "status", "voluntary_ctxt_switches");
    /* Each ctl is a wake-up of its own: three in the window. */
    double span = board1 - board0;
    printf("idle server over %.1f s of board time: %ld wake-ups of the wait loop (%.2f per board second, "
           "of which 3 for the control commands), %ld voluntary context switches\n",
           span, wake1 - wake0, static_cast<double>(wake1 - wake0 - 3) / span, csw1 - csw0);
    stop_server(s);

    full_scan("warp", 0);
    full_scan("real", 4);
    return 0;
}

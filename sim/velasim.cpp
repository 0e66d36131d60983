/* velasim: runs a program against the simulated board, and talks to a
 * running board.
 *
 *   velasim run [--dir DIR] [--scenario FILE] [--clock MODE] [--listen-any] -- COMMAND [ARGS...]
 *   velasim ctl [--dir DIR] [--timeout SECONDS] COMMAND...
 *
 * The launcher itself is not simulated: it prepares the board's directory,
 * preloads libvelasim.so into COMMAND and becomes it. */
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "control_socket.h"

namespace fs = std::filesystem;

namespace {

int usage()
{
    fprintf(stderr,
            "usage: velasim run [--dir DIR] [--scenario FILE] [--clock MODE] [--listen-any] -- COMMAND [ARGS...]\n"
            "       velasim ctl [--dir DIR] [--timeout SECONDS] COMMAND...   (velasim ctl --dir DIR help)\n"
            "MODE: real (default), 'scaled K', step or warp\n");
    return 2;
}

std::string preload_library()
{
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        self[n] = '\0';
        /* Beside the launcher in a build tree, in ../lib/velasim when
         * installed. */
        fs::path bin = fs::path(self).parent_path();
        for (const fs::path& lib : {bin / "libvelasim.so", bin / ".." / "lib" / "velasim" / "libvelasim.so"})
            if (fs::exists(lib))
                return fs::weakly_canonical(lib).string();
    }
#ifdef LIBVELASIM_DEFAULT
    return LIBVELASIM_DEFAULT;
#else
    return "libvelasim.so";
#endif
}

/* The pid of another process that holds the board in dir, or 0. */
long board_holder(const std::string& dir)
{
    int fd = open((dir + "/lock").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    long holder = 0;
    if (flock(fd, LOCK_SH | LOCK_NB) != 0) {
        char buf[32] = {};
        ssize_t n = read(fd, buf, sizeof buf - 1);
        holder = n > 0 ? strtol(buf, nullptr, 10) : -1;
    }
    close(fd);
    return holder;
}

int run(int argc, char** argv)
{
    std::string dir, scenario, clock;
    bool listen_any = false;
    int i = 2;
    for (; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--") {
            i++;
            break;
        }
        if (a == "--dir" && i + 1 < argc)
            dir = argv[++i];
        else if (a == "--scenario" && i + 1 < argc)
            scenario = argv[++i];
        else if (a == "--clock" && i + 1 < argc)
            clock = argv[++i];
        else if (a == "--listen-any")
            listen_any = true;
        else
            return usage();
    }
    if (i >= argc)
        return usage();

    std::string scenario_text;
    if (!scenario.empty()) {
        std::ifstream in(scenario);
        if (!in) {
            fprintf(stderr, "velasim: cannot read scenario %s: %s\n", scenario.c_str(), strerror(errno));
            return 2;
        }
        std::ostringstream ss;
        ss << in.rdbuf();
        scenario_text = ss.str();
    }

    std::error_code ec;
    if (dir.empty()) {
        char tmpl[] = "/tmp/velasim.XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            perror("velasim: mkdtemp");
            return 2;
        }
        dir = tmpl;
        fprintf(stderr, "velasim: board in %s\n", dir.c_str());
    } else {
        fs::create_directories(dir, ec);
        dir = fs::absolute(dir).string();
    }
    /* One program per board: a second one would fight the first over the
     * clock, the journal and the devices. */
    if (long holder = board_holder(dir); holder != 0) {
        fprintf(stderr, "velasim: the board in %s is in use by process %ld\n", dir.c_str(), holder);
        return 2;
    }
    if (!scenario.empty() || !fs::exists(dir + "/scenario")) {
        /* A new scenario is a new board: forget what the last one did. */
        for (const char* f : {"state", "journal"})
            fs::remove(dir + "/" + f, ec);
        fs::remove_all(dir + "/fs", ec);
        std::ofstream(dir + "/scenario") << scenario_text;
    }

    std::string preload;
#ifdef VELASIM_ASAN_RUNTIME
    /* AddressSanitizer must be the first library of the process. */
    preload = std::string(VELASIM_ASAN_RUNTIME) + ":";
#endif
    preload += preload_library();
    const char* old = getenv("LD_PRELOAD");
    if (old != nullptr && *old != '\0')
        preload += std::string(":") + old;
    setenv("VELASIM_DIR", dir.c_str(), 1);
    if (!clock.empty())
        setenv("VELASIM_CLOCK", clock.c_str(), 1);
    else
        unsetenv("VELASIM_CLOCK");
    if (listen_any)
        setenv("VELASIM_LISTEN_ANY", "1", 1);
    else
        unsetenv("VELASIM_LISTEN_ANY");
    /* A program for another machine runs under the emulator named in
     * VELASIM_EMULATOR (e.g. "qemu-arm -L /usr/arm-linux-gnueabihf"); the
     * board is preloaded into the emulated program, not the emulator. */
    std::vector<std::string> words;
    if (const char* emulator = getenv("VELASIM_EMULATOR"); emulator != nullptr && *emulator != '\0') {
        std::istringstream in(emulator);
        for (std::string w; in >> w;)
            words.push_back(w);
        words.push_back("-E");
        words.push_back("LD_PRELOAD=" + preload);
    } else {
        setenv("LD_PRELOAD", preload.c_str(), 1);
    }
    std::vector<char*> args;
    for (std::string& w : words)
        args.push_back(w.data());
    for (int k = i; k < argc; k++)
        args.push_back(argv[k]);
    args.push_back(nullptr);
    execvp(args[0], args.data());
    fprintf(stderr, "velasim: %s: %s\n", args[0], strerror(errno));
    return 127;
}

int ctl(int argc, char** argv)
{
    const char* env = getenv("VELASIM_DIR");
    std::string dir = env != nullptr ? env : "";
    int timeout_ms = 10000;
    int i = 2;
    for (; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--dir")
            dir = argv[i + 1];
        else if (a == "--timeout")
            timeout_ms = static_cast<int>(atof(argv[i + 1]) * 1000);
        else
            break;
    }
    if (dir.empty() || i >= argc)
        return usage();
    std::string line;
    for (; i < argc; i++)
        line += std::string(line.empty() ? "" : " ") + argv[i];
    line += "\n";

    struct sockaddr_un addr;
    if (!sim::control_socket_address(dir, &addr)) {
        fprintf(stderr, "velasim: %s: path too long for a socket\n", dir.c_str());
        return 2;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
        fprintf(stderr, "velasim: no running board in %s\n", dir.c_str());
        return 2;
    }
    if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        return 2;
    shutdown(fd, SHUT_WR);
    /* A board answers while its program waits; one that is busy (or stopped
     * in a debugger) is given up on. */
    std::string reply;
    char buf[4096];
    ssize_t n = 1;
    struct pollfd p = {fd, POLLIN, 0};
    while (n > 0) {
        if (poll(&p, 1, timeout_ms) != 1) {
            fprintf(stderr, "velasim: the board in %s did not answer within %d ms\n", dir.c_str(), timeout_ms);
            close(fd);
            return 2;
        }
        if ((n = read(fd, buf, sizeof buf)) > 0)
            reply.append(buf, static_cast<size_t>(n));
    }
    close(fd);

    /* Data lines to stdout; the closing "ok" is implied by the exit status. */
    size_t last = reply.rfind('\n', reply.size() >= 2 ? reply.size() - 2 : 0);
    std::string status = last == std::string::npos ? reply : reply.substr(last + 1);
    std::string data = last == std::string::npos ? "" : reply.substr(0, last + 1);
    fputs(data.c_str(), stdout);
    if (status.compare(0, 2, "ok") == 0)
        return 0;
    fputs(status.c_str(), stderr);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc >= 2 && std::string(argv[1]) == "run")
        return run(argc, argv);
    if (argc >= 2 && std::string(argv[1]) == "ctl")
        return ctl(argc, argv);
    return usage();
}

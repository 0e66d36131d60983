/* velasim: runs a program against the simulated board, and talks to a
 * running board.
 *
 *   velasim run [--dir DIR] [--scenario FILE] -- COMMAND [ARGS...]
 *   velasim ctl [--dir DIR] COMMAND...
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
            "usage: velasim run [--dir DIR] [--scenario FILE] -- COMMAND [ARGS...]\n"
            "       velasim ctl [--dir DIR] COMMAND...   (velasim ctl --dir DIR help)\n");
    return 2;
}

std::string preload_library()
{
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        self[n] = '\0';
        fs::path lib = fs::path(self).parent_path() / "libvelasim.so";
        if (fs::exists(lib))
            return lib.string();
    }
#ifdef LIBVELASIM_DEFAULT
    return LIBVELASIM_DEFAULT;
#else
    return "libvelasim.so";
#endif
}

int run(int argc, char** argv)
{
    std::string dir, scenario;
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
    if (!scenario.empty() || !fs::exists(dir + "/scenario")) {
        /* A new scenario is a new board: forget what the last one did. */
        for (const char* f : {"state", "epoch", "journal"})
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
    setenv("LD_PRELOAD", preload.c_str(), 1);
    setenv("VELASIM_DIR", dir.c_str(), 1);
    execvp(argv[i], argv + i);
    fprintf(stderr, "velasim: %s: %s\n", argv[i], strerror(errno));
    return 127;
}

int ctl(int argc, char** argv)
{
    const char* env = getenv("VELASIM_DIR");
    std::string dir = env != nullptr ? env : "";
    int i = 2;
    if (i + 1 < argc && std::string(argv[i]) == "--dir") {
        dir = argv[i + 1];
        i += 2;
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
    std::string reply;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        reply.append(buf, static_cast<size_t>(n));
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

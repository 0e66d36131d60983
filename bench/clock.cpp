/*
 * What the board's virtual clock saves.
 *
 * 1. Wall time of a full test acquisition (velatool -A 0: 20000 samples, 10 s
 *    of board time) under the launcher, with the clock in warp mode and in
 *    real mode.
 * 2. Host wake-ups of a program that blocks for 60 s of board time in
 *    select() on a board descriptor with nothing due (here with the clock
 *    scaled 60 times, so it takes a second): the wait loop's own count, and
 *    the process's voluntary context switches. The goal is one, for the
 *    select's own time-out.
 *
 * Usage: bench_clock [runs]
 */
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include "clock.h"
#include "sim.h"

namespace {

/* Wall seconds of one velatool -A 0 under the launcher, output discarded. */
double acquisition_seconds(const char* clock)
{
    char dir[] = "/tmp/velabench.XXXXXX";
    if (mkdtemp(dir) == nullptr)
        return -1;
    std::string scenario = std::string(dir) + "/scenario.ini";
    FILE* f = fopen(scenario.c_str(), "w");
    fputs("[meas]\npower = 1\n[sine]\ncontrol = 0\nfreq0 = 335544\n[motor]\npower = 1\ndac = 2527\n", f);
    fclose(f);
    int64_t start = sim::host_monotonic_ns();
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        std::string board = std::string(dir) + "/board";
        execl(VELASIM_PATH, VELASIM_PATH, "run", "--dir", board.c_str(), "--scenario", scenario.c_str(), "--clock",
              clock, "--", VELATOOL_PATH, "-A", "0", static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    double seconds = static_cast<double>(sim::host_monotonic_ns() - start) * 1e-9;
    std::filesystem::remove_all(dir);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        fprintf(stderr, "velatool -A 0 (%s) exited with %d\n", clock, status);
    return seconds;
}

long context_switches()
{
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_nvcsw;
}

} // namespace

int main(int argc, char** argv)
{
    int runs = argc > 1 ? atoi(argv[1]) : 1;
    for (int i = 0; i < runs; i++) {
        double warp = acquisition_seconds("warp");
        double real = acquisition_seconds("real");
        printf("velatool -A 0 (10 s of board time): warp %.2f s, real %.2f s of wall time (%.0fx)\n", warp, real,
               real / warp);
    }

    sim::reset("[clock]\nmode = scaled 60\n");
    int fd = open("/sys/class/gpio/vg_anf/value", O_RDONLY);
    char buf[4];
    if (fd < 0 || read(fd, buf, sizeof buf) <= 0) {
        perror("vg_anf");
        return 1;
    }
    long wakeups = std::stol(sim::get("board.wakeups"));
    long switches = context_switches();
    int64_t start = sim::board_ns();
    fd_set ex;
    FD_ZERO(&ex);
    FD_SET(fd, &ex);
    struct timeval tv = {60, 0};
    int ready = select(fd + 1, nullptr, nullptr, &ex, &tv);
    printf("select() for 60 s of board time (%.1f s passed, %d ready): %ld wake-ups of the wait loop, %ld "
           "voluntary context switches\n",
           static_cast<double>(sim::board_ns() - start) * 1e-9, ready, std::stol(sim::get("board.wakeups")) - wakeups,
           context_switches() - switches);
    close(fd);
    return 0;
}

/*
 * Host CPU time of a full-length test acquisition (20000 samples, 10 s of
 * board time) on the simulated board linked into this program.
 *
 * The process's CPU time includes the simulated firmware, which computes
 * 64 conversions per sample. A second, bare acquisition (start, wait, stop)
 * measures that share, so that the difference is what do_aquisition() itself
 * costs: status lines, histogram, and reading the samples in place.
 */
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "aquisition.h"
#include "mtrace.h"
#include "sim.h"

namespace {

const int kSamples = 20000;

double cpu_seconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

double bare_acquisition()
{
    struct pruss_info_s info = {};
    double start = cpu_seconds();
    aquisition_init(&info, 8);
    aquisition_start(&info, kSamples, 2000, 0, 65535, 1, 6, 0, 1);
    while (info.comm->out_state == 1)
        usleep(100000);
    aquisition_stop(&info);
    aquisition_shutdown(&info);
    return cpu_seconds() - start;
}

} // namespace

/* The acquisition's own status lines go to /dev/null while it is measured:
 * their cost still counts, but the report stays readable. */
class QuietStdout {
public:
    QuietStdout() : saved_(dup(STDOUT_FILENO))
    {
        fflush(stdout);
        int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    ~QuietStdout()
    {
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }

private:
    int saved_;
};

int main()
{
    _MTrace_SetLevel(MTRACE_DOMAIN, 2);
    /* The default pool holds 131072 samples; mode 0 cuts them to 20000. */
    sim::reset("[meas]\npower = 1\n[sine]\ncontrol = 0\nfreq0 = 335544\n[motor]\npower = 1\ndac = 2527\n");

    /* A short raw acquisition first: the board's and the buffers' first-use
     * costs are not the acquisition's. */
    double firmware, total;
    int width;
    {
        QuietStdout quiet;
        do_aquisition(nullptr, 2, 0);
        firmware = bare_acquisition();
        double start = cpu_seconds();
        width = do_aquisition(nullptr, 0, 0);
        total = cpu_seconds() - start;
    }

    printf("\nhistogram width %d\n", width);
    printf("do_aquisition, %d samples: %.1f ms CPU, %.2f us per sample\n", kSamples, total * 1e3,
           total * 1e6 / kSamples);
    printf("of which the simulated firmware and board: %.1f ms CPU, %.2f us per sample\n", firmware * 1e3,
           firmware * 1e6 / kSamples);
    /* The two runs are measured apart, so their difference carries the noise
     * of both (tens of ms on a busy machine): a share below it is not real. */
    if (total > firmware)
        printf("host side alone: %.1f ms CPU, %.2f us per sample\n", (total - firmware) * 1e3,
               (total - firmware) * 1e6 / kSamples);
    else
        printf("host side alone: below the difference between two runs (under %.2f us per sample)\n",
               (firmware - total) * 1e6 / kSamples);
    return 0;
}

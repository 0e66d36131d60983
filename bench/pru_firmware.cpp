/*
 * The PRU firmware on the simulated cores: its own timing, measured in PRU
 * cycles, and what it costs the simulation.
 *
 * - PRU0's worst-case cycles per conversion (the firmware keeps its worst
 *   hit in debug word 3, in ns of the IEP counter), against the 1562-cycle
 *   interval of 128 kS/s, over a raw acquisition (a sample stored at every
 *   conversion) and an oversampled one;
 * - cycles from the start event to out_state 1, and from in_cmd 0 to
 *   out_state 0 (the host allows 1 ms for each), stepping the board clock a
 *   cycle at a time;
 * - PRU instructions per host second, and the wall time of a 10 s test
 *   acquisition in warp mode with the firmware and with the model.
 */
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <string>
#include <unistd.h>

#include "aquisition.h"
#include "clock.h"
#include "prussdrv.h"
#include "sim.h"

namespace {

const char kBoard[] = "[meas]\npower = 1\n[sine]\ncontrol = 0\nfreq0 = 335544\n[motor]\npower = 1\n"
                      "dac = 2972\n[clock]\nmode = warp\n[pru]\nengine = ";
const int64_t kCycle = 5; /* ns */

/* The host's clock: the program's clocks read board time. */
double wall_seconds()
{
    return static_cast<double>(sim::host_monotonic_ns()) * 1e-9;
}

uint64_t insns()
{
    return std::stoull(sim::get("pru0.insns")) + std::stoull(sim::get("pru1.insns"));
}

double cpu_seconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void boot(pruss_info_s* info, const char* engine)
{
    sim::reset(std::string(kBoard) + engine + "\n");
    aquisition_init(info, 8);
}

void wait_idle(pruss_info_s* info)
{
    while (info->comm->out_state == 1)
        usleep(100000);
}

/* Board cycles until out_state reads `want`, the clock stepped by one cycle. */
int cycles_until(pruss_info_s* info, uint32_t want)
{
    int n = 0;
    while (info->comm->out_state != want && n < 1000000) {
        sim::advance_clock(kCycle);
        n++;
    }
    return n;
}

/* A monitor request written as aquisition_start() writes it, without its
 * 1 ms wait. */
void request_monitor(pruss_info_s* info)
{
    volatile prucomm_s* c = info->comm;
    c->in_pextram = info->extram_pa;
    c->in_maxcount = 1;
    c->in_interval = 1562;
    c->in_minvalid = 0;
    c->in_maxvalid = 65535;
    c->in_mode = 1;
    c->in_filter = 1;
    c->in_ovsdepth = 6;
    c->in_skip_samples = 0;
    c->in_cmd = 1;
    prussdrv_pru_send_event(21);
}

void worst_hit(const char* what, int samples, int sps, int ovs)
{
    pruss_info_s info = {};
    boot(&info, "firmware");
    aquisition_start(&info, samples, sps, 0, 65535, ovs > 0, ovs, 0, 1);
    wait_idle(&info);
    int cycles = static_cast<int>(info.comm->debug[3] / kCycle);
    printf("PRU0 worst hit, %-22s %5d cycles of 1562 (%.0f %% free)\n", what, cycles,
           100.0 * (1562 - cycles) / 1562.0);
    aquisition_shutdown(&info);
}

void latencies()
{
    pruss_info_s info = {};
    boot(&info, "firmware");
    sim::clock_mode("step");
    int start_worst = 0, stop_worst = 0;
    for (int phase = 0; phase < 1562; phase += 97) {
        request_monitor(&info);
        start_worst = std::max(start_worst, cycles_until(&info, 1));
        sim::advance_clock(1000000 + phase * kCycle); /* somewhere in an interval */
        info.comm->in_cmd = 0;
        stop_worst = std::max(stop_worst, cycles_until(&info, 0));
    }
    printf("start event to out_state 1: %d cycles (%.2f us)\n", start_worst, start_worst * kCycle / 1000.0);
    printf("in_cmd 0 to out_state 0:    %d cycles (%.2f us, at most one interval and the stop)\n", stop_worst,
           stop_worst * kCycle / 1000.0);
    sim::clock_mode("warp");
    aquisition_shutdown(&info);
}

/* 20000 samples at 2000 samples a second, 64-fold oversampled: 10 s. */
void ten_seconds(const char* engine)
{
    pruss_info_s info = {};
    boot(&info, engine);
    bool cores = std::string(engine) == "firmware";
    uint64_t before = cores ? insns() : 0;
    double start = wall_seconds(), cpu = cpu_seconds();
    aquisition_start(&info, 20000, 2000, 0, 65535, 1, 6, 0, 1);
    wait_idle(&info);
    double wall = wall_seconds() - start;
    cpu = cpu_seconds() - cpu;
    printf("10 s acquisition, warp, %-8s %6.2f s wall, %5.2f s CPU", engine, wall, cpu);
    if (cores)
        printf(", %.1f M PRU instructions, %.0f M per CPU second", (insns() - before) / 1e6,
               (insns() - before) / 1e6 / cpu);
    printf("\n");
    aquisition_shutdown(&info);
}

} // namespace

int main()
{
    worst_hit("raw (a store a hit):", 20000, 128000, 0);
    worst_hit("64-fold oversampled:", 2000, 2000, 6);
    latencies();
    ten_seconds("firmware");
    ten_seconds("model");
    return 0;
}

/*
 * PRU instructions per host processor second on a tight ALU and branch loop:
 *
 * 1. one core alone, against a bus that answers nothing (the interpreter);
 * 2. both cores on the simulated PRU-ICSS, each running the loop, the board
 *    clock stepped by 10 ms (the scheduler and the board around them).
 *
 * The goal is 200 million or more (a release build).
 *
 * Usage: bench_pru_core [board-seconds]
 */
#include <cstdio>
#include <cstdlib>
#include <string>
#include <time.h>

#include "board.h"
#include "clock.h"
#include "pru_core.h"
#include "sim.h"
#include "uio_pruss.h"

namespace {

/* Processor time of this process: the machine may be shared, and the goal
 * is the interpreter's own speed. */
double cpu_seconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

/* add r1, r1, 1 / xor r2, r2, r1 / lsl r4, r1, 3 / qbne 0, r1, r3 (r3 = 0: for ever) */
const uint32_t kLoop[] = {0x0101E1E1, 0x14E1E2E2, 0x0903E1E4, 0x6EE3E1FD};

struct NullBus : sim::PruBus {
    uint32_t input(int, sim::cycle_t) override { return 0; }
    sim::cycle_t input_change(int, uint32_t, sim::cycle_t) override { return sim::kNeverCycle; }
    void output(int, uint32_t, sim::cycle_t) override {}
    void event(int, int, sim::cycle_t) override {}
    bool load(int, uint32_t, uint8_t*, uint32_t, sim::cycle_t, unsigned*, const char**) override { return true; }
    bool store(int, uint32_t, const uint8_t*, uint32_t, sim::cycle_t, const char**) override { return true; }
    uint32_t constant(int, unsigned) override { return 0; }
    void halted(int, uint32_t, const std::string&) override {}
};

double bare(uint64_t cycles)
{
    static uint32_t iram[sim::PruCore::kIramWords];
    static uint32_t scratch[90];
    std::copy(std::begin(kLoop), std::end(kLoop), iram);
    NullBus bus;
    auto core = std::make_unique<sim::PruCore>(0, bus, iram, scratch);
    core->start(0, 0);
    double t0 = cpu_seconds();
    core->run(cycles, cycles);
    double s = cpu_seconds() - t0;
    return static_cast<double>(core->insns()) / s;
}

double board(double seconds)
{
    sim::reset("[pru]\nengine = firmware\n");
    sim::clock_mode("step");
    sim::Pruss& pruss = sim::Board::get().device<sim::Pruss>();
    for (int pru = 0; pru < 2; pru++) {
        for (size_t i = 0; i < std::size(kLoop); i++)
            pruss.reg((pru == 0 ? 0x34000 : 0x38000) + 4 * static_cast<uint32_t>(i)) = kLoop[i];
        pruss.reg(pru == 0 ? 0x22000 : 0x24000) = 3;
    }
    double t0 = cpu_seconds();
    for (double t = 0; t < seconds; t += 0.01)
        sim::advance_clock(10 * sim::kMs);
    double s = cpu_seconds() - t0;
    double insns = std::stod(sim::get("pru0.insns")) + std::stod(sim::get("pru1.insns"));
    return insns / s;
}

} // namespace

int main(int argc, char** argv)
{
    double seconds = argc > 1 ? atof(argv[1]) : 1.0;
    printf("one core, bare:       %.0f million instructions per host processor second\n", bare(1000000000) / 1e6);
    printf("two cores, the board: %.0f million instructions per host processor second (%.1f board s)\n",
           board(seconds) / 1e6, seconds);
    return 0;
}

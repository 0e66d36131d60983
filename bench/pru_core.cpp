/*
 * PRU instructions per host processor second on a tight ALU and branch loop:
 *
 * 1. one core alone, against a bus that answers nothing (the interpreter);
 * 2. both cores on the simulated PRU-ICSS, each running the loop, the board
 *    clock stepped by 10 ms (the scheduler and the board around them).
 *
 * 3. the cost of a paced core in board time: PRU0 waiting for an IEP compare
 *    every 1562 cycles (128 k conversions per second, the fastest the
 *    program asks for), taking it and waiting again, while the board clock
 *    moves through every wake-up as it does in warp mode.
 *
 * The goal is 200 million or more (a release build).
 *
 * Usage: bench_pru_core [board-seconds]
 */
#include <cstdio>
#include <cstdlib>
#include <string>
#include <time.h>
#include <vector>

#include "board.h"
#include "pruasm.h"
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

/* r3 = 0: for ever */
const char kLoop[] = "top: add r1, r1, 1\nxor r2, r2, r1\nlsl r4, r1, 3\nqbne top, r1, r3\n";

/* CMP0 for a hit every 1562 cycles, CMP_CFG, GLOBAL_CFG; then wait for the
 * hit on host 0, clear it in the INTC, count it. */
const char kPaced[] = "ldi r3, 1561 * 5\nldi r2, 3\nldi r1, 0x551\nsbco r3, c26, 0x48, 4\n"
                      "sbco r2, c26, 0x40, 4\nsbco r1, c26, 0, 4\n"
                      "hit: wbs r31, 30\nldi r4, 7\nsbco r4, c0, 0x24, 4\nadd r5, r5, 1\nqba hit\n";

std::vector<uint32_t> assemble(const char* source)
{
    pruasm::Output out = pruasm::assemble(source, "bench");
    if (!out.ok()) {
        fprintf(stderr, "%s\n", out.errors.front().c_str());
        exit(1);
    }
    std::vector<uint32_t> words;
    for (uint32_t a = 0; a < pruasm::kImageSize; a += 4)
        words.push_back(pruasm::word_at(out.text, a));
    return words;
}

/* A fresh board running the firmware engine, source loaded into and started
 * on the cores given. */
void load(const char* source, std::initializer_list<int> prus)
{
    sim::reset("[pru]\nengine = firmware\n");
    sim::clock_mode("step");
    sim::Pruss& pruss = sim::Board::get().device<sim::Pruss>();
    std::vector<uint32_t> words = assemble(source);
    for (int pru : prus) {
        for (size_t i = 0; i < words.size(); i++)
            pruss.reg((pru == 0 ? 0x34000 : 0x38000) + 4 * static_cast<uint32_t>(i)) = words[i];
        pruss.reg(pru == 0 ? 0x22000 : 0x24000) = 3;
    }
}

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
    std::vector<uint32_t> words = assemble(kLoop);
    std::copy(words.begin(), words.end(), iram);
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
    load(kLoop, {0, 1});
    double t0 = cpu_seconds();
    for (double t = 0; t < seconds; t += 0.01)
        sim::advance_clock(10 * sim::kMs);
    double s = cpu_seconds() - t0;
    double insns = std::stod(sim::get("pru0.insns")) + std::stod(sim::get("pru1.insns"));
    return insns / s;
}

/* Host processor seconds per board second. */
double paced(double seconds)
{
    load(kPaced, {0});
    sim::Pruss& pruss = sim::Board::get().device<sim::Pruss>();
    pruss.reg(sim::Pruss::kIntc + 0x010) = 1;  /* GER */
    pruss.reg(sim::Pruss::kIntc + 0x1500) = 1; /* HIER: host 0 */
    pruss.reg(sim::Pruss::kIntc + 0x028) = 7;  /* EISR: event 7 (channel 0, host 0) */
    double t0 = cpu_seconds();
    for (double t = 0; t < seconds; t += 0.1)
        sim::advance_clock(100 * sim::kMs);
    return (cpu_seconds() - t0) / seconds;
}

} // namespace

int main(int argc, char** argv)
{
    double seconds = argc > 1 ? atof(argv[1]) : 1.0;
    printf("one core, bare:       %.0f million instructions per host processor second\n", bare(1000000000) / 1e6);
    printf("two cores, the board: %.0f million instructions per host processor second (%.1f board s)\n",
           board(seconds) / 1e6, seconds);
    double cost = paced(seconds);
    printf("paced by the IEP:     %.3f host processor seconds per board second (%s instructions)\n", cost,
           sim::get("pru0.insns").c_str());
    return 0;
}

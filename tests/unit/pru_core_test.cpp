/* The PRU cores: instruction semantics on a bare core with a scripted bus,
 * then the cores on the simulated PRU-ICSS (memory map, events, IEP, halts,
 * idle waits). */
#include <gtest/gtest.h>
#include <gmock/gmock.h>

#include <cstring>
#include <vector>

#include "board.h"
#include "pruasm.h"
#include "prussdrv.h"
#include "pru_core.h"
#include "simtest.h"
#include "uio_pruss.h"

using sim::cycle_t;
using sim::PruCore;

namespace {

/* The instruction RAM of an assembled snippet. */
std::vector<uint32_t> assemble(const std::string& source)
{
    pruasm::Output out = pruasm::assemble(source, "snippet");
    EXPECT_TRUE(out.ok()) << testing::PrintToString(out.errors) << "\n" << source;
    std::vector<uint32_t> words;
    for (uint32_t a = 0; a < pruasm::kImageSize; a += 4)
        words.push_back(pruasm::word_at(out.text, a));
    return words;
}

/* ---- a bare core ---- */

struct ScriptedBus : sim::PruBus {
    uint8_t mem[0x10000] = {};
    uint32_t r31 = 0;
    cycle_t change = sim::kNeverCycle;
    std::string halt;

    uint32_t input(int, cycle_t) override { return r31; }
    cycle_t input_change(int, uint32_t, cycle_t) override { return change; }
    void output(int, uint32_t, cycle_t) override {}
    void event(int, int, cycle_t) override {}
    bool load(int, uint32_t a, uint8_t* d, uint32_t n, cycle_t, unsigned* cost, const char**) override
    {
        memcpy(d, mem + (a & 0xFFFF), n);
        *cost = 3;
        return true;
    }
    bool store(int, uint32_t a, const uint8_t* s, uint32_t n, cycle_t, const char**) override
    {
        memcpy(mem + (a & 0xFFFF), s, n);
        return true;
    }
    uint32_t constant(int, unsigned i) override { return i * 0x100; }
    void halted(int, uint32_t, const std::string& why) override { halt = why; }
};

class Core : public testing::Test {
protected:
    /* Runs the words from 0 with the registers given (r1, r2, ...) until
     * the core stops or `cycles` pass. */
    void run(const std::string& source, std::vector<uint32_t> regs = {}, cycle_t cycles = 100000)
    {
        std::vector<uint32_t> words = assemble(source);
        std::copy(words.begin(), words.end(), iram);
        for (size_t i = 0; i < regs.size(); i++)
            core.set_reg(static_cast<int>(i + 1), regs[i]);
        core.start(0, 0);
        core.run(cycles, cycles);
    }
    uint32_t iram[PruCore::kIramWords] = {};
    uint32_t scratch[90] = {};
    ScriptedBus bus;
    PruCore core{0, bus, iram, scratch};
};

struct AluCase {
    const char* insn;
    uint32_t r1, r2, r3;
    bool carry_in;
    uint32_t result; /* r3 */
    bool carry;
};

/* Arithmetic works on zero-extended 32-bit sources and carries out of the
 * destination's width (a borrow for subtraction); only the destination's
 * field changes. */
const AluCase kAlu[] = {
    {"add r3.b0, r1.b0, r2.b0", 0xF0, 0x20, 0xAABBCCDD, false, 0xAABBCC10, true},
    {"add r3, r1.b0, r2.b0", 0xF0, 0x20, 0, false, 0x110, false},
    {"adc r3, r1, r2", 1, 2, 0, true, 4, false},
    {"adc r3, r1, r2", 0xFFFFFFFF, 0, 0, true, 0, true},
    {"sub r3, r1, r2", 1, 2, 0, false, 0xFFFFFFFF, true},
    {"sub r3.w0, r1, r2", 0x10000, 1, 0, false, 0xFFFF, false},
    {"suc r3, r1, r2", 5, 2, 0, true, 2, false},
    {"rsb r3, r1, 10", 3, 0, 0, false, 7, false},
    {"rsc r3, r1, 10", 3, 0, 0, true, 6, false},
    {"lsl r3.b0, r1.b0, 4", 0xFF, 0, 0, false, 0xF0, false},
    {"lsl r3, r1, r2", 1, 33, 0, false, 2, false},
    {"lsr r3, r1, 8", 0x1234, 0, 0, false, 0x12, false},
    {"and r3, r1, r2", 0xF0F0, 0xFF00, 0, true, 0xF000, true},
    {"or r3, r1, r2", 0xF0, 0x0F, 0, false, 0xFF, false},
    {"xor r3, r1, r2", 0xFF, 0x0F, 0, false, 0xF0, false},
    {"not r3.w0, r1.b0", 0x0F, 0, 0, false, 0xFFF0, false},
    {"min r3, r1, r2", 0x80000000, 1, 0, false, 1, false},
    {"max r3, r1, r2", 0x80000000, 1, 0, false, 0x80000000, false},
    {"clr r3, r1, r2", 0xFF, 33, 0, false, 0xFD, false},
    {"set r3, r1, 31", 0, 0, 0, false, 0x80000000, false},
    {"mov r3.w1, r1.w1", 0x12ABCD34, 0, 0, false, 0x00ABCD00, false},
    {"lmbd r3, r1, 1", 0x00010000, 0, 0, false, 16, false},
    {"lmbd r3, r1.b0, 0", 0xFF, 0, 0, false, 32, false},
    {"lmbd r3, r1.b1, 1", 0x0100, 0, 0, false, 0, false},
    {"ldi r3.w2, 0xBEEF", 0, 0, 0x1234, false, 0xBEEF1234, false},
};

TEST_F(Core, AluSemantics)
{
    for (const AluCase& c : kAlu) {
        SCOPED_TRACE(testing::Message() << c.insn << " r1=" << std::hex << c.r1);
        core.clear();
        /* r9 = 0: subtracting 1 sets the carry, adding 0 clears it. */
        run(std::string(c.carry_in ? "sub r9, r9, 1\n" : "add r9, r9, 0\n") + c.insn + "\nhalt\n", {c.r1, c.r2, c.r3});
        EXPECT_EQ(c.result, core.reg(3));
        EXPECT_EQ(c.carry, core.carry());
    }
}

/* The third operand is compared against the second: qbgt jumps if b > s. */
TEST_F(Core, QuickBranches)
{
    const struct {
        const char* insn;
        uint32_t r1;
        bool taken;
    } cases[] = {
        {"qbgt skip, r1, 5", 4, true},   {"qbgt skip, r1, 5", 5, false}, {"qbge skip, r1, 5", 5, true},
        {"qblt skip, r1, 5", 6, true},   {"qblt skip, r1, 5", 5, false}, {"qble skip, r1, 5", 5, true},
        {"qbeq skip, r1, 5", 5, true},   {"qbne skip, r1, 5", 5, false}, {"qba skip", 0, true},
        {"qbgt skip, r1.b0, 5", 0x104, true}, /* the field, not the register */
        {"qbbs skip, r1, 1", 2, true},        {"qbbc skip, r1, 1", 2, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.insn << " r1=" << c.r1);
        core.clear();
        run(std::string(c.insn) + "\nldi r3, 1\nskip: halt\n", {c.r1});
        EXPECT_EQ(c.taken ? 0u : 1u, core.reg(3));
    }
    core.clear();
    run("back: sub r1, r1, 1\nqbne back, r1, 0\nhalt\n", {7});
    EXPECT_EQ(0u, core.reg(1));
    EXPECT_EQ(2u, core.pc());
}

TEST_F(Core, CallAndReturnThroughAField)
{
    run("call sub\nadd r1, r1, 1\nhalt\nsub: add r2, r2, 5\nret\n");
    EXPECT_EQ(1u, core.reg(3) >> 16);
    EXPECT_EQ(1u, core.reg(1));
    EXPECT_EQ(5u, core.reg(2));
}

TEST_F(Core, HardwareLoops)
{
    run("loop end, 3\nadd r1, r1, 1\nadd r2, r2, 2\nend: halt\n");
    EXPECT_EQ(3u, core.reg(1));
    EXPECT_EQ(6u, core.reg(2));

    /* A register count of 0 skips the body. */
    core.clear();
    run("loop end, r5\nadd r1, r1, 1\nend: halt\n");
    EXPECT_EQ(0u, core.reg(1));

    /* A jump to the end from inside the body ends an iteration, not the loop. */
    core.clear();
    run("loop end, r5.w0\nadd r1, r1, 1\nqba end\nend: halt\n", {0, 0, 0, 0, 4});
    EXPECT_EQ(4u, core.reg(1));
}

TEST_F(Core, BurstsWalkTheRegisterFileFromTheirStartByte)
{
    /* r0 = 0x80818283, r1 = 0x84858687: five bytes from r0.b2 to 0x1000. */
    core.set_reg(0, 0x80818283);
    run("sbbo r0.b2, r2, 0, 5\nhalt\n", {0x84858687, 0x1000});
    const uint8_t stored[] = {0x81, 0x80, 0x87, 0x86, 0x85};
    EXPECT_EQ(0, memcmp(stored, bus.mem + 0x1000, 5));

    /* A length from r0.b1, an offset through a constant. */
    core.clear();
    const uint8_t data[] = {1, 2, 3, 4, 5, 6, 7};
    memcpy(bus.mem + 0x310, data, sizeof data);
    core.set_reg(0, 6 << 8);
    run("lbco r4, c3, 0x10, r0.b1\nhalt\n");
    EXPECT_EQ(0x04030201u, core.reg(4));
    EXPECT_EQ(0x0605u, core.reg(5));

    /* A length of 0 in r0.b0 is a fault, not a no-op. */
    core.clear();
    run("lbbo r4, r1, 0, r0.b0\nhalt\n");
    EXPECT_EQ(PruCore::State::Halted, core.state());
    EXPECT_EQ("burst of length 0", bus.halt);
}

TEST_F(Core, AWaitOnAnInputCostsNothingUntilPoked)
{
    run("wbs r31, 5\nldi r3, 1\nhalt\n", {}, 1000000);
    EXPECT_EQ(PruCore::State::Waiting, core.state());
    EXPECT_EQ(1u, core.insns());
    bus.r31 = 1u << 5;
    core.poke(500);
    core.run(1000000, 1000000);
    EXPECT_EQ(1u, core.reg(3));
    EXPECT_EQ(500u + 2, core.cycles()); /* the HALT's own cycle */
}

/* ---- the cores on the PRU-ICSS ---- */

constexpr uint32_t kIram[2] = {0x34000, 0x38000};
constexpr uint32_t kControl[2] = {0x22000, 0x24000};

class Pruss : public vt::SimTest {
protected:
    std::string scenario() const override { return "[pru]\nengine = firmware\n"; }
    void SetUp() override { fresh(); }
    /* A new board, its clock moved only by the test. */
    void fresh()
    {
        ASSERT_EQ("", sim::reset(scenario()));
        ASSERT_TRUE(sim::clock_mode("step"));
        sim::advance(); /* the generator's frequency reaches the channel */
    }
    sim::Pruss& pruss() { return sim::Board::get().device<sim::Pruss>(); }
    uint32_t& reg(uint32_t off) { return pruss().reg(off); }
    void load(int pru, const std::string& source, uint32_t start = 0)
    {
        std::vector<uint32_t> words = assemble(source);
        for (size_t i = 0; i < words.size(); i++)
            reg(kIram[pru] + 4 * static_cast<uint32_t>(i)) = words[i];
        reg(kControl[pru]) = start << 16 | 3;
    }
    void run_for(int64_t ns) { sim::advance_clock(ns); }
};

TEST_F(Pruss, LocalMemoryMapAndConstantsTable)
{
    /* PRU1: its own RAM at 0, PRU0's at 0x2000, C28 set to the shared RAM,
     * C24 its own RAM. */
    reg(kControl[1] + 0x28) = 0x100;
    load(1, "ldi r1, 0x1111\nldi r2, 0x2000\nsbbo r1, r0, 8, 4\nsbbo r1, r2, 8, 4\nsbco r1, c28, 12, 4\n"
            "sbco r1, c24, 16, 4\nhalt\n");
    run_for(1000);
    EXPECT_EQ(0x1111u, reg(0x2008));        /* PRU1's data RAM */
    EXPECT_EQ(0x1111u, reg(0x0008));        /* PRU0's */
    EXPECT_EQ(0x1111u, reg(0x1000C));       /* shared */
    EXPECT_EQ(0x1111u, reg(0x2010));
    EXPECT_EQ("halted", sim::get("pru1.state"));
    EXPECT_EQ("0x0006", sim::get("pru1.pc"));
}

TEST_F(Pruss, EachHaltIsJournaledWithItsProgramCounter)
{
    const struct {
        const char* source;
        uint32_t start;
        const char* line;
    } cases[] = {
        {"nop\nhalt\n", 0, "pruss halt pru0 pc=0x0001 halt instruction"},
        {"nop\nnop\n.word 0xA0000000\n", 0, "pruss halt pru0 pc=0x0002 illegal instruction"},
        {".origin 0x1ffc\nnop\n", 0x7FF, "pruss halt pru0 pc=0x0800 fetch outside instruction RAM"},
        {"ldi32 r1, 0x9e000000\nlbbo r2, r1, 0, 4\n", 0, "pruss halt pru0 pc=0x0002 DDR access with STANDBY_INIT set"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.source);
        fresh();
        load(0, c.source, c.start);
        run_for(1000);
        EXPECT_THAT(vt::entries("halt"), testing::ElementsAre(c.line));
        EXPECT_EQ("halted", sim::get("pru0.state"));
    }
}

/* The program's interrupt table: 17 PRU0->PRU1 (host 1), 19 PRU0->ARM
 * (host 2), 21 ARM->PRU0 (host 0); and event 7, the IEP compare, on host 0
 * as the firmware maps it. */
const tpruss_intc_initdata kIntc = {
    {7, 17, 18, 19, 20, 21, 22, -1},
    {{7, 0}, {17, 1}, {18, 0}, {19, 2}, {20, 3}, {21, 0}, {22, 1}, {-1, -1}},
    {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {-1, -1}},
    0xF,
};

class Events : public Pruss {
protected:
    void SetUp() override
    {
        Pruss::SetUp();
        prussdrv_init();
        ASSERT_EQ(0, prussdrv_open(PRU_EVTOUT_0));
        ASSERT_EQ(0, prussdrv_pruintc_init(&kIntc));
    }
    void TearDown() override { prussdrv_exit(); }
    /* PRU1 waits for event 17 from PRU0, then signals the host (19; a
     * write without the strobe bit raises nothing); PRU0 waits for the
     * host's event 21, marks its data RAM and raises 17. */
    void start()
    {
        load(1, "ldi r31.b0, 3\nwbs r31, 31\nldi r31.b0, 35\nhalt\n");
        load(0, "wbs r31, 30\nldi r1, 0xAA\nsbbo r1, r0, 0, 4\nldi r31.b0, 33\nhalt\n");
        run_for(100 * sim::kUs);
    }
    uint64_t interrupts() { return pruss().interrupts(0); }
};

TEST_F(Events, R31EventsReachTheOtherCoreAndTheHost)
{
    start();
    EXPECT_EQ("waiting", sim::get("pru0.state"));
    EXPECT_EQ("waiting", sim::get("pru1.state"));
    EXPECT_EQ(0u, interrupts());
    ASSERT_EQ(0, prussdrv_pru_send_event(21));
    run_for(sim::kUs);
    EXPECT_EQ(0xAAu, reg(0));
    EXPECT_EQ("halted", sim::get("pru1.state"));
    EXPECT_EQ(1u, interrupts());
}

/* The channel on with a 20 kHz excitation over a flat workpiece, no noise. */
class Pins : public Pruss {
protected:
    std::string scenario() const override
    {
        return Pruss::scenario() + "[meas]\npower = 1\n[sine]\ncontrol = 0\nfreq0 = 335544\n"
                                   "[workpiece]\nprofile = 0:0\n[probe]\nnoise_raw = 0\n";
    }
    /* PRU0: one conversion (CONVST up and down, wait for BUSY to drop),
     * the result to its data RAM. */
    void convert()
    {
        load(0, "set r30, 0\nclr r30, 0\nwbc r31, 16\nmov r1, r31.w0\nsbbo r1, r0, 0, 4\nhalt\n");
        run_for(10 * sim::kUs);
    }
};

/* PRU1 drives the reference `delay` cycles after each rising edge of the
 * comparator (a 20 kHz period is 10000 cycles); the probe's signal follows
 * the cosine of the phase error, largest at 8/32. */
TEST_F(Pins, TheReferencePhaseScalesTheProbe)
{
    struct {
        uint32_t delay_loops; /* of two NOPs */
        const char* phase;
        uint32_t raw;
    } cases[] = {{1248, "8", 39830}, {625, "4", 28164}, {0, "0", 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.phase);
        fresh();
        load(1, "ldi r5, " + std::to_string(c.delay_loops) +
                    "\nedge: wbc r31, 0\nwbs r31, 0\nloop late, r5.w0\nnop\nnop\nlate: set r30, 0\nclr r30, 0\n"
                    "qba edge\n");
        run_for(200 * sim::kUs);
        EXPECT_EQ(c.phase, sim::get("meas.ref_phase"));
        convert();
        EXPECT_NEAR(c.raw, reg(0), 1);
    }

    /* A stalled ADC keeps BUSY up. */
    sim::set("pru.fault", "stall");
    reg(0) = 0;
    convert();
    EXPECT_EQ("waiting", sim::get("pru0.state"));
    EXPECT_EQ(0u, reg(0));
}

} // namespace

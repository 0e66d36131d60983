/* The PRU cores: instruction semantics on a bare core with a scripted bus,
 * then the cores on the simulated PRU-ICSS (memory map, events, IEP, halts,
 * idle waits). */
#include <gtest/gtest.h>
#include <gmock/gmock.h>

#include <cstring>
#include <vector>

#include "board.h"
#include "pru_core.h"
#include "simtest.h"
#include "uio_pruss.h"

using sim::cycle_t;
using sim::PruCore;

namespace {

/* ---- a small encoder: operands are register codes (selector << 5 | n) ---- */

constexpr uint32_t R(int n, int sel = 7)
{
    return static_cast<uint32_t>(sel << 5 | n);
}
enum { B0, B1, B2, B3, W0, W1, W2 };
enum Alu { ADD, ADC, SUB, SUC, LSL, LSR, RSB, RSC, AND, OR, XOR, NOT, MIN, MAX, CLR, SET };
constexpr uint32_t kHalt = 0x2A000000, kNop = 0x12E0E0E0;

uint32_t alu(Alu op, uint32_t d, uint32_t s1, uint32_t s2)
{
    return uint32_t{op} << 25 | s2 << 16 | s1 << 8 | d;
}
uint32_t alui(Alu op, uint32_t d, uint32_t s1, uint32_t imm)
{
    return alu(op, d, s1, imm) | 1u << 24;
}
uint32_t ldi(uint32_t d, uint32_t imm)
{
    return 0x24000000 | imm << 8 | d;
}
uint32_t lmbd(uint32_t d, uint32_t s1, uint32_t imm)
{
    return 0x27000000 | imm << 16 | s1 << 8 | d;
}
/* Quick branches: cond GT 4, EQ 2, LT 1; off in words. */
uint32_t qb(int cond, int off, uint32_t s1, uint32_t imm)
{
    uint32_t o = static_cast<uint32_t>(off) & 0x3FF;
    return 0x41000000 | uint32_t(cond) << 27 | (o >> 8) << 25 | imm << 16 | s1 << 8 | (o & 0xFF);
}
uint32_t qbb(bool set, int off, uint32_t s1, uint32_t bit)
{
    uint32_t o = static_cast<uint32_t>(off) & 0x3FF;
    return (set ? 0xD1000000 : 0xC9000000) | (o >> 8) << 25 | bit << 16 | s1 << 8 | (o & 0xFF);
}
uint32_t wbs(uint32_t s1, uint32_t bit)
{
    return qbb(false, 0, s1, bit);
}
uint32_t jal(uint32_t d, uint32_t target)
{
    return 0x23000000 | target << 8 | d;
}
uint32_t jmp_reg(uint32_t s2)
{
    return 0x20000000 | s2 << 16;
}
uint32_t loop(int end_off, uint32_t count)
{
    return 0x31000000 | (count - 1) << 16 | static_cast<uint32_t>(end_off);
}
uint32_t loop_reg(int end_off, uint32_t s2)
{
    return 0x30000000 | s2 << 16 | static_cast<uint32_t>(end_off);
}
/* Bursts: start register n with byte rdb; len 1..124, or 124 + N for r0.bN.
 * base is a register (xBBO) or a constant index (xBCO). */
uint32_t burst(uint32_t top, bool load, int n, int rdb, uint32_t base, uint32_t off, uint32_t len)
{
    uint32_t l = len < 124 ? len - 1 : len;
    return top | uint32_t{load} << 28 | (l >> 4) << 25 | 1u << 24 | off << 16 | ((l >> 1) & 7) << 13 | base << 8 |
           (l & 1) << 7 | uint32_t(rdb) << 5 | uint32_t(n);
}
uint32_t sbbo(int n, int rdb, uint32_t base, uint32_t off, uint32_t len) { return burst(0xE0000000, false, n, rdb, base, off, len); }
uint32_t lbbo(int n, int rdb, uint32_t base, uint32_t off, uint32_t len) { return burst(0xE0000000, true, n, rdb, base, off, len); }
uint32_t sbco(int n, uint32_t c, uint32_t off, uint32_t len) { return burst(0x80000000, false, n, 0, c, off, len); }
uint32_t lbco(int n, uint32_t c, uint32_t off, uint32_t len) { return burst(0x80000000, true, n, 0, c, off, len); }
constexpr uint32_t kFromR0B0 = 124, kFromR0B1 = 125;

/* ---- a bare core ---- */

struct ScriptedBus : sim::PruBus {
    uint8_t mem[0x10000] = {};
    uint32_t r31 = 0;
    cycle_t change = sim::kNeverCycle;
    std::vector<int> events;
    std::vector<uint32_t> outputs;
    std::string halt;

    uint32_t input(int, cycle_t) override { return r31; }
    cycle_t input_change(int, uint32_t, cycle_t) override { return change; }
    void output(int, uint32_t v, cycle_t) override { outputs.push_back(v); }
    void event(int, int e, cycle_t) override { events.push_back(e); }
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
    void run(std::vector<uint32_t> words, std::vector<uint32_t> regs = {}, cycle_t cycles = 100000)
    {
        std::copy(words.begin(), words.end(), iram);
        for (size_t i = 0; i < regs.size(); i++)
            core.set_reg(static_cast<int>(i + 1), regs[i]);
        core.start(0, 0);
        core.run(cycles);
    }
    uint32_t iram[PruCore::kIramWords] = {};
    uint32_t scratch[90] = {};
    ScriptedBus bus;
    PruCore core{0, bus, iram, scratch};
};

struct AluCase {
    const char* what;
    uint32_t insn;
    uint32_t r1, r2, r3;
    bool carry_in;
    uint32_t result; /* r3 */
    bool carry;
};

/* Arithmetic works on zero-extended 32-bit sources and carries out of the
 * destination's width (a borrow for subtraction); only the destination's
 * field changes. */
const AluCase kAlu[] = {
    {"add into a byte", alu(ADD, R(3, B0), R(1, B0), R(2, B0)), 0xF0, 0x20, 0xAABBCCDD, false, 0xAABBCC10, true},
    {"add into a word", alu(ADD, R(3), R(1, B0), R(2, B0)), 0xF0, 0x20, 0, false, 0x110, false},
    {"adc", alu(ADC, R(3), R(1), R(2)), 1, 2, 0, true, 4, false},
    {"adc carries out of 32 bits", alu(ADC, R(3), R(1), R(2)), 0xFFFFFFFF, 0, 0, true, 0, true},
    {"sub borrows", alu(SUB, R(3), R(1), R(2)), 1, 2, 0, false, 0xFFFFFFFF, true},
    {"sub into w0: bit 16", alu(SUB, R(3, W0), R(1), R(2)), 0x10000, 1, 0, false, 0xFFFF, false},
    {"suc", alu(SUC, R(3), R(1), R(2)), 5, 2, 0, true, 2, false},
    {"rsb", alui(RSB, R(3), R(1), 10), 3, 0, 0, false, 7, false},
    {"rsc", alui(RSC, R(3), R(1), 10), 3, 0, 0, true, 6, false},
    {"lsl truncates", alui(LSL, R(3, B0), R(1, B0), 4), 0xFF, 0, 0, false, 0xF0, false},
    {"shift count mod 32", alu(LSL, R(3), R(1), R(2)), 1, 33, 0, false, 2, false},
    {"lsr", alui(LSR, R(3), R(1), 8), 0x1234, 0, 0, false, 0x12, false},
    {"logic leaves carry", alu(AND, R(3), R(1), R(2)), 0xF0F0, 0xFF00, 0, true, 0xF000, true},
    {"or", alu(OR, R(3), R(1), R(2)), 0xF0, 0x0F, 0, false, 0xFF, false},
    {"xor", alu(XOR, R(3), R(1), R(2)), 0xFF, 0x0F, 0, false, 0xF0, false},
    {"not widens", alu(NOT, R(3, W0), R(1, B0), 0) | 1u << 24, 0x0F, 0, 0, false, 0xFFF0, false},
    {"min unsigned", alu(MIN, R(3), R(1), R(2)), 0x80000000, 1, 0, false, 1, false},
    {"max unsigned", alu(MAX, R(3), R(1), R(2)), 0x80000000, 1, 0, false, 0x80000000, false},
    {"clr", alui(CLR, R(3), R(1), 33), 0xFF, 0, 0, false, 0xFD, false},
    {"set", alui(SET, R(3), R(1), 31), 0, 0, 0, false, 0x80000000, false},
    {"w1 is bits 23..8", alui(OR, R(3, W1), R(1, W1), 0), 0x12ABCD34, 0, 0, false, 0x00ABCD00, false},
    {"lmbd", lmbd(R(3), R(1), 1), 0x00010000, 0, 0, false, 16, false},
    {"lmbd none: 32", lmbd(R(3), R(1, B0), 0), 0xFF, 0, 0, false, 32, false},
    {"lmbd within the field", lmbd(R(3), R(1, B1), 1), 0x0100, 0, 0, false, 0, false},
    {"ldi into a field", ldi(R(3, W2), 0xBEEF), 0, 0, 0x1234, false, 0xBEEF1234, false},
};

TEST_F(Core, AluSemantics)
{
    for (const AluCase& c : kAlu) {
        SCOPED_TRACE(c.what);
        core.clear();
        /* r9 = 0: subtracting 1 sets the carry, adding 0 clears it. */
        run({c.carry_in ? alui(SUB, R(9), R(9), 1) : alui(ADD, R(9), R(9), 0), c.insn, kHalt}, {c.r1, c.r2, c.r3});
        EXPECT_EQ(c.result, core.reg(3));
        EXPECT_EQ(c.carry, core.carry());
    }
}

struct BranchCase {
    uint32_t insn;
    uint32_t r1;
    bool taken;
};

/* The third operand is compared against the second: qbgt jumps if b > s. */
const BranchCase kBranches[] = {
    {qb(4, 2, R(1), 5), 4, true},  {qb(4, 2, R(1), 5), 5, false}, {qb(6, 2, R(1), 5), 5, true},
    {qb(1, 2, R(1), 5), 6, true},  {qb(1, 2, R(1), 5), 5, false}, {qb(3, 2, R(1), 5), 5, true},
    {qb(2, 2, R(1), 5), 5, true},  {qb(5, 2, R(1), 5), 5, false}, {qb(7, 2, 0, 0), 0, true},
    {qb(4, 2, R(1, B0), 5), 0x104, true}, /* the field, not the register */
    {qbb(true, 2, R(1), 33), 2, true},     {qbb(false, 2, R(1), 1), 2, false},
};

TEST_F(Core, QuickBranches)
{
    for (const BranchCase& c : kBranches) {
        SCOPED_TRACE(testing::Message() << std::hex << c.insn << " r1=" << c.r1);
        core.clear();
        run({c.insn, ldi(R(3), 1), kHalt}, {c.r1});
        EXPECT_EQ(c.taken ? 0u : 1u, core.reg(3));
    }
    /* Backwards: count r1 down to 0. */
    core.clear();
    run({alui(SUB, R(1), R(1), 1), qb(5, -1, R(1), 0), kHalt}, {7});
    EXPECT_EQ(0u, core.reg(1));
    EXPECT_EQ(2u, core.pc());
}

TEST_F(Core, CallAndReturnThroughAField)
{
    run({jal(R(3, W2), 3), alui(ADD, R(1), R(1), 1), kHalt, alui(ADD, R(2), R(2), 5), jmp_reg(R(3, W2))});
    EXPECT_EQ(1u, core.reg(3) >> 16);
    EXPECT_EQ(1u, core.reg(1));
    EXPECT_EQ(5u, core.reg(2));
}

TEST_F(Core, HardwareLoops)
{
    /* Three times over two instructions. */
    run({loop(3, 3), alui(ADD, R(1), R(1), 1), alui(ADD, R(2), R(2), 2), kHalt});
    EXPECT_EQ(3u, core.reg(1));
    EXPECT_EQ(6u, core.reg(2));

    /* A register count of 0 skips the body. */
    core.clear();
    run({loop_reg(2, R(5)), alui(ADD, R(1), R(1), 1), kHalt});
    EXPECT_EQ(0u, core.reg(1));

    /* A jump to the end from inside the body ends an iteration, not the loop. */
    core.clear();
    run({loop_reg(3, R(5, W0)), alui(ADD, R(1), R(1), 1), qb(7, 1, 0, 0), kHalt}, {0, 0, 0, 0, 4});
    EXPECT_EQ(4u, core.reg(1));
}

TEST_F(Core, ADelayLoopCostsItsCyclesButIsNotStepped)
{
    run({loop_reg(3, R(5)), kNop, kNop, kHalt}, {0, 0, 0, 0, 50000}, 1000000);
    EXPECT_EQ(PruCore::State::Halted, core.state());
    EXPECT_EQ(1u + 100000u, core.cycles());
    EXPECT_EQ(2u, core.insns());
}

TEST_F(Core, BurstsWalkTheRegisterFileFromTheirStartByte)
{
    /* r0 = 0x80818283, r1 = 0x84858687: five bytes from r0.b2 to 0x1000. */
    core.set_reg(0, 0x80818283);
    run({sbbo(0, 2, 2, 0, 5), kHalt}, {0x84858687, 0x1000});
    const uint8_t stored[] = {0x81, 0x80, 0x87, 0x86, 0x85};
    EXPECT_EQ(0, memcmp(stored, bus.mem + 0x1000, 5));

    /* A length from r0.b1, an offset through a constant. */
    core.clear();
    const uint8_t data[] = {1, 2, 3, 4, 5, 6, 7};
    memcpy(bus.mem + 0x310, data, sizeof data);
    core.set_reg(0, 6 << 8);
    run({lbco(4, 3, 0x10, kFromR0B1), kHalt});
    EXPECT_EQ(0x04030201u, core.reg(4));
    EXPECT_EQ(0x0605u, core.reg(5));

    /* A length of 0 in r0.b0 is a fault, not a no-op. */
    core.clear();
    run({lbbo(4, 0, 1, 0, kFromR0B0), kHalt});
    EXPECT_EQ(PruCore::State::Halted, core.state());
    EXPECT_EQ("burst of length 0", bus.halt);
}

TEST_F(Core, R31WritesRaiseEventsAndR30DrivesThePins)
{
    run({ldi(R(31, B0), 35), ldi(R(31, B0), 3), ldi(R(30), 1), alui(OR, R(30), R(30), 0), kHalt});
    EXPECT_THAT(bus.events, testing::ElementsAre(19)); /* bit 5 is the strobe */
    EXPECT_THAT(bus.outputs, testing::ElementsAre(1u)); /* only changes reach the pins */
}

TEST_F(Core, AWaitOnAnInputCostsNothingUntilPoked)
{
    run({wbs(R(31), 5), ldi(R(3), 1), kHalt}, {}, 1000000);
    EXPECT_EQ(PruCore::State::Waiting, core.state());
    EXPECT_EQ(1u, core.insns());
    bus.r31 = 1u << 5;
    core.poke(500);
    core.run(1000000);
    EXPECT_EQ(1u, core.reg(3));
    EXPECT_EQ(500u + 2, core.cycles()); /* the HALT's own cycle */
}

/* ---- the cores on the PRU-ICSS ---- */

constexpr uint32_t kIram[2] = {0x34000, 0x38000};
constexpr uint32_t kControl[2] = {0x22000, 0x24000};

class Pruss : public vt::SimTest {
protected:
    std::string scenario() const override { return "[pru]\nengine = firmware\n[clock]\nmode = step\n"; }
    sim::Pruss& pruss() { return sim::Board::get().device<sim::Pruss>(); }
    uint32_t& reg(uint32_t off) { return pruss().reg(off); }
    void load(int pru, const std::vector<uint32_t>& words, uint32_t start = 0)
    {
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
    load(1, {ldi(R(1), 0x1111), ldi(R(2), 0x2000), sbbo(1, 0, 0, 8, 4), sbbo(1, 0, 2, 8, 4), sbco(1, 28, 12, 4),
             sbco(1, 24, 16, 4), kHalt});
    run_for(1000);
    EXPECT_EQ(0x1111u, reg(0x2008));        /* PRU1's data RAM */
    EXPECT_EQ(0x1111u, reg(0x0008));        /* PRU0's */
    EXPECT_EQ(0x1111u, reg(0x1000C));       /* shared */
    EXPECT_EQ(0x1111u, reg(0x2010));
    EXPECT_EQ("halted", sim::get("pru1.state"));
    EXPECT_EQ("0x0006", sim::get("pru1.pc"));
}

struct HaltCase {
    const char* what;
    std::vector<uint32_t> words;
    const char* line;
};

TEST_F(Pruss, EachHaltIsJournaledWithItsProgramCounter)
{
    const HaltCase cases[] = {
        {"halt", {kNop, kHalt}, "pruss halt pru0 pc=0x0001 halt instruction"},
        {"illegal", {kNop, kNop, 0xA0000000}, "pruss halt pru0 pc=0x0002 illegal instruction"},
        {"outside", {0x21000000 | 0x7FF << 8}, "pruss halt pru0 pc=0x0800 fetch outside instruction RAM"},
        {"ddr", {ldi(R(1, W2), 0x9e00), lbbo(2, 0, 1, 0, 4)}, "pruss halt pru0 pc=0x0001 DDR access with STANDBY_INIT set"},
    };
    for (const HaltCase& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ("", sim::reset(scenario()));
        std::vector<uint32_t> words = c.words;
        if (std::string(c.what) == "outside")
            reg(kIram[0] + 4 * 0x7FF) = kNop;
        load(0, words);
        run_for(1000);
        EXPECT_THAT(vt::entries("halt"), testing::ElementsAre(c.line));
        EXPECT_EQ("halted", sim::get("pru0.state"));
    }
}

} // namespace

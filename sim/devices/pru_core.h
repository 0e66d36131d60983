/*
 * One PRU core executing its instruction RAM: registers, carry, program
 * counter, the hardware loop, the R30 output latch and the R31 event
 * interface. Time is the PRU-ICSS cycle (5 ns at 200 MHz), counted from board
 * time 0, so both cores and the IEP timer share one time line.
 *
 * Everything outside the register file goes through PruBus: the memory map,
 * the pins and the interrupt controller. The core runs until a given cycle
 * and stops early when it blocks: on a wait for an R31 input (a QBBC/QBBS to
 * itself reading r31, SLP 1), for ever (HALT, SLP 0, a branch to itself on
 * registers only), or when it halts on a fault. A blocked core sits at the
 * cycle its input can next change; the bus moves that earlier when something
 * else changes its input (poke). A hardware loop over NOPs only (a delay)
 * costs its cycles without being stepped.
 */
#ifndef VELASIM_PRU_CORE_H
#define VELASIM_PRU_CORE_H

#include <stdint.h>
#include <string>

namespace sim {

using cycle_t = uint64_t;
constexpr cycle_t kNeverCycle = UINT64_MAX;

class PruBus {
public:
    virtual ~PruBus() = default;
    /* R31 as the core reads it at cycle c: inputs and host interrupts 0/1. */
    virtual uint32_t input(int pru, cycle_t c) = 0;
    /* The first cycle after c at which any R31 bit in mask may change by
     * itself (a pin, the IEP timer); kNeverCycle if none. */
    virtual cycle_t input_change(int pru, uint32_t mask, cycle_t c) = 0;
    virtual void output(int pru, uint32_t r30, cycle_t c) = 0;
    /* A write to R31 with vec_valid: system event 16..31 pulsed. */
    virtual void event(int pru, int sysevent, cycle_t c) = 0;
    /* Data at a local address; false (and *why set) if the access halts the
     * core. *cost is the cycles the instruction takes. */
    virtual bool load(int pru, uint32_t addr, uint8_t* dst, uint32_t len, cycle_t c, unsigned* cost,
                      const char** why) = 0;
    virtual bool store(int pru, uint32_t addr, const uint8_t* src, uint32_t len, cycle_t c, const char** why) = 0;
    virtual uint32_t constant(int pru, unsigned index) = 0;
    virtual void halted(int pru, uint32_t pc, const std::string& why) = 0;
};

class PruCore {
public:
    static constexpr uint32_t kIramWords = 2048;

    enum class State { Off, Running, Waiting, Halted };

    PruCore(int index, PruBus& bus, const uint32_t* iram, uint32_t* scratch);

    /* Starts at word address pc at cycle c: the instruction RAM is decoded
     * again, the loop state cleared; registers keep their values. */
    void start(uint32_t pc, cycle_t c);
    void stop();
    /* Executes the instructions that start at cycles up to limit; those
     * that reach beyond the register file (memory, pins, events) only up to
     * sync: another core or the timer may act before then. */
    void run(cycle_t limit, cycle_t sync);
    /* The core's input bits `bits` may have changed at cycle c: a core
     * waiting on any of them looks again then (not before it began to
     * wait); with all bits, any waiting core does. */
    void poke(cycle_t c, uint32_t bits = 0xFFFFFFFF);
    /* Lowers the current run's sync. */
    void limit(cycle_t c)
    {
        if (c < sync_at_)
            sync_at_ = c;
    }

    State state() const { return state_; }
    bool active() const { return state_ == State::Running || state_ == State::Waiting; }
    /* The cycle of the next instruction (of the next look, when waiting). */
    cycle_t cycle() const { return cycle_; }
    void freeze_until(cycle_t c) { cycle_ = c; }
    uint32_t pc() const { return pc_; }
    uint64_t insns() const { return insns_; }
    cycle_t cycles() const { return (active() ? cycle_ : stopped_at_) - started_at_; }
    uint32_t reg(int n) const { return r_[n]; }
    void set_reg(int n, uint32_t v) { r_[n] = v; }
    bool carry() const { return carry_; }
    void clear();

    /* A decoded instruction. */
    struct Insn {
        uint8_t op;
        uint8_t flags;
        uint8_t rd, rs1, rs2;
        uint8_t dshift, s1shift, s2shift;
        uint32_t dmask, s1mask, s2mask;
        uint32_t imm;
        uint32_t word;
    };

private:
    void decode_all();
    bool burst(const Insn& in, uint32_t addr, unsigned* cost);
    bool xfr(const Insn& in);
    void wait(uint32_t mask);
    void halt(const std::string& why);
    uint32_t burst_len(const Insn& in) const;
    uint32_t src1(const Insn& in) const { return (r_[in.rs1] >> in.s1shift) & in.s1mask; }
    uint32_t src2(const Insn& in) const
    {
        return (in.flags & 1) ? in.imm : (r_[in.rs2] >> in.s2shift) & in.s2mask;
    }
    void dst(const Insn& in, uint32_t v)
    {
        r_[in.rd] = (r_[in.rd] & ~(in.dmask << in.dshift)) | ((v & in.dmask) << in.dshift);
    }

    int index_;
    PruBus& bus_;
    const uint32_t* iram_;
    uint32_t* scratch_; /* three banks of 30 registers, shared by the cores */
    Insn code_[kIramWords];

    uint32_t r_[32] = {};
    bool carry_ = false;
    uint32_t pc_ = 0;
    uint32_t r30_out_ = 0; /* the latch as the pins last saw it */
    State state_ = State::Off;
    cycle_t cycle_ = 0;
    cycle_t stop_at_ = 0;
    cycle_t sync_at_ = 0;
    cycle_t wait_from_ = 0;
    uint32_t wait_mask_ = 0; /* the R31 bits a waiting core waits on */
    cycle_t started_at_ = 0;
    cycle_t stopped_at_ = 0;
    uint64_t insns_ = 0;
    /* The hardware loop; its end is kNoLoop while none runs. */
    static constexpr uint32_t kNoLoop = UINT32_MAX;
    uint32_t loop_top_ = 0, loop_end_ = kNoLoop, loop_left_ = 0;
};

} // namespace sim

#endif

/*
 * The PRU-ICSS executing the firmware the program loaded: both cores, the
 * local memory map they see, the IEP timer, the constants table, the
 * control blocks and the chips on their pins. The interrupt controller is
 * the subsystem's (Pruss).
 *
 * The cores run in board time, interleaved in strict cycle order: the core
 * whose next instruction is earlier runs until it reaches the other's (PRU0
 * first on a tie), so an event one raises or a word it writes is seen by the
 * other at the next instruction. The IEP compare is handled at its cycle the
 * same way. A core blocked on an input costs nothing until that input can
 * change.
 */
#ifndef VELASIM_PRU_ENGINE_H
#define VELASIM_PRU_ENGINE_H

#include <stdint.h>
#include <string>

#include "board.h"
#include "drive.h"
#include "meas_channel.h"
#include "probe.h"
#include "pru_core.h"
#include "pru_firmware.h"
#include "pru_pins.h"

namespace sim {

class Pruss;

class PruEngine : public PruBus {
public:
    PruEngine(Pruss& pruss, Board& board, Probe& probe, MeasChannel& meas, Drive& drive, PruFirmware& model);

    /* Scenario key pru.engine: the firmware runs on the cores, or the model
     * stands in for it. */
    bool selected() const { return selected_; }
    std::string state() const;
    void reset();
    void advance(ns_t now);
    ns_t next_event(ns_t now) const;

    uint32_t input(int pru, cycle_t c) override;
    cycle_t input_change(int pru, uint32_t mask, cycle_t c) override;
    void output(int pru, uint32_t r30, cycle_t c) override;
    void event(int pru, int sysevent, cycle_t c) override;
    bool load(int pru, uint32_t addr, uint8_t* dst, uint32_t len, cycle_t c, unsigned* cost,
              const char** why) override;
    bool store(int pru, uint32_t addr, const uint8_t* src, uint32_t len, cycle_t c, const char** why) override;
    uint32_t constant(int pru, unsigned index) override;
    void halted(int pru, uint32_t pc, const std::string& why) override;

private:
    PruCore& core(int pru) { return pru == 0 ? core0_ : core1_; }
    const PruCore& core(int pru) const { return pru == 0 ? core0_ : core1_; }
    void take_control(cycle_t c);
    void publish();
    bool frozen() const;
    void poke_others(const PruCore* from, cycle_t c);
    void bound_running();
    uint32_t read_reg(uint32_t off, cycle_t c);
    void write_reg(int pru, uint32_t off, uint32_t v, cycle_t c);
    uint32_t control_word(int pru) const;
    uint32_t cycle_counter(int pru, cycle_t c) const;
    void recount(int pru, cycle_t c);
    uint16_t sample(cycle_t c);

    /* The IEP timer: COUNT as a function of the cycle since the last write. */
    uint32_t iep(uint32_t reg) const;
    uint32_t iep_count(cycle_t c) const;
    void iep_configured();
    cycle_t iep_hit_from(cycle_t c) const;
    void iep_write(uint32_t reg, uint32_t v, cycle_t c);
    void iep_catch_up(cycle_t before);

    Pruss& pruss_;
    Board& board_;
    Probe& probe_;
    MeasChannel& meas_;
    Drive& drive_;
    PruFirmware& model_;
    bool selected_ = false;

    uint32_t scratch_[90] = {};
    PruCore core0_;
    PruCore core1_;
    PruCore* running_ = nullptr;
    PruAdc adc_;
    Excitation excitation_;

    cycle_t done_ = 0; /* cycles up to here are executed */
    uint32_t control_seen_[2] = {};
    struct Counter {
        uint32_t base = 0;
        cycle_t at = 0;
        bool counting = false;
    } counter_[2];

    cycle_t iep_anchor_ = 0;
    uint32_t iep_count0_ = 0;
    cycle_t iep_next_ = kNeverCycle; /* the next compare hit not yet handled */
    /* From the registers as last written: the first hit after the write
     * and the period of the hits (0: no repeat). */
    cycle_t iep_first_ = kNeverCycle;
    cycle_t iep_period_ = 0;

    ns_t pos_time_ = 0; /* drive position at the last advance */
    double pos_mm_ = 0;
    ns_t now_ = 0;
    uint64_t conv_index_ = 0;
};

} // namespace sim

#endif

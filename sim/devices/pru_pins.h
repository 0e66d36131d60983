/*
 * The chips on the PRUs' pins, as the board contract in pruss/README.md
 * wires them: the parallel ADC on PRU0 (CONVST on R30 bit 0, the data bus on
 * R31 bits 15..0, BUSY on R31 bit 16) and the excitation on PRU1 (the
 * comparator on R31 bit 0, the demodulator reference on R30 bit 0). Time is
 * the PRU cycle (5 ns).
 */
#ifndef VELASIM_PRU_PINS_H
#define VELASIM_PRU_PINS_H

#include <functional>

#include "meas_channel.h"
#include "pru_core.h"

namespace sim {

class PruAdc {
public:
    static constexpr uint32_t kBusy = 1u << 16;
    static constexpr cycle_t kConversion = 200; /* 1.0 us */

    /* sample(c): the input at cycle c, as an ADC code. */
    explicit PruAdc(std::function<uint16_t(cycle_t)> sample) : sample_(std::move(sample)) {}

    void reset();
    /* R31 bits 16..0 at cycle c. */
    uint32_t pins(cycle_t c) const;
    cycle_t next_change(cycle_t c) const { return busy_until_ > c ? busy_until_ : kNeverCycle; }
    /* CONVST at cycle c; a stalled ADC never drops BUSY. */
    void convst(bool level, cycle_t c, bool stalled);

private:
    std::function<uint16_t(cycle_t)> sample_;
    bool convst_ = false;
    cycle_t busy_until_ = 0;
    uint16_t result_ = 0;   /* of the conversion under way or last finished */
    uint16_t previous_ = 0; /* on the bus until it finishes */
};

class Excitation {
public:
    explicit Excitation(MeasChannel& meas) : meas_(meas) {}

    void reset();
    /* Follows the generator: a new frequency starts a new wave at cycle c. */
    void update(cycle_t c);
    /* The comparator: high during the first half of each sine period. */
    bool comparator(cycle_t c) const;
    cycle_t next_edge(cycle_t c) const;
    /* The reference pin: a rising edge sets the channel's reference phase
     * from its position in the comparator's period, in 1/32. */
    void reference(bool level, cycle_t c);

private:
    double half_cycles() const { return 1e9 / hz_ / 2 / 5; }

    MeasChannel& meas_;
    double hz_ = 0;
    cycle_t anchor_ = 0; /* a rising edge of the comparator */
    bool ref_ = false;
};

} // namespace sim

#endif

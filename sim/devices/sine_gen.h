/* The measurement channel's DDS sine generator on SPI (16 MHz master clock,
 * 28-bit frequency registers, 16-bit words). */
#ifndef VELASIM_SINE_GEN_H
#define VELASIM_SINE_GEN_H

#include "instrument.h"
#include "spidev.h"

namespace sim {

/* Powered by the channel supply: without it the chip forgets everything and
 * comes back held in reset. Keeps meas.sine_hz current. */
class SineGenerator : public SpiChip, public Model {
public:
    SineGenerator(MeasChannel& meas, Params& params);
    void transfer(uint32_t mode, unsigned bits, const std::vector<uint32_t>& words) override;
    void reset() override;
    void advance(ns_t now) override;

private:
    void word(uint16_t w);
    void load_freq(int reg, int value14);
    double output_hz() const;

    MeasChannel& meas_;
    int control_ = 0;
    int freq_[2] = {0, 0};
    int lsb_[2] = {0, 0};           /* B28: low half waiting for its high half */
    bool half_[2] = {false, false}; /* B28: next write is the high half */
};

} // namespace sim

#endif

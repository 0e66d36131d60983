/* The measurement channel's digital potentiometer on I2C (257 taps, one
 * volatile wiper). */
#ifndef VELASIM_POTI_H
#define VELASIM_POTI_H

#include "i2c.h"
#include "instrument.h"

namespace sim {

/* A Model only so that the board owns it; its state is meas.poti. */
class DigiPot : public I2cChip, public Model {
public:
    explicit DigiPot(MeasChannel& meas) : meas_(meas) {}
    int write(const uint8_t* data, size_t n) override;
    int read(uint8_t* data, size_t n) override;

private:
    MeasChannel& meas_;
};

} // namespace sim

#endif

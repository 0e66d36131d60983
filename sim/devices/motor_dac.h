/* The motor's 12-bit I2C DAC (fast-write and register-write commands). */
#ifndef VELASIM_MOTOR_DAC_H
#define VELASIM_MOTOR_DAC_H

#include "i2c.h"
#include "instrument.h"

namespace sim {

class MotorDac : public I2cChip, public Model {
public:
    MotorDac(Drive& drive, Params& params);
    int write(const uint8_t* data, size_t n) override;
    int read(uint8_t* data, size_t n) override;
    void reset() override;

private:
    Drive& drive_;
    int eeprom_ = 2082;
    int eeprom_pd_ = 0;
};

} // namespace sim

#endif

/* The drive unit: the motor DAC's code sets a velocity, the probe carriage
 * moves in board time between the end switch (0 mm) and its mechanical end.
 * The program sees the motor power GPIO and the end switch GPIO "vg_anf"
 * ('1' away from home); the DAC is a chip of its own (motor_dac.cpp). */
#ifndef VELASIM_DRIVE_H
#define VELASIM_DRIVE_H

#include "board.h"

namespace sim {

class GpioLine;

class Drive : public Model {
public:
    explicit Drive(Board& board);

    /* State and inputs */
    double position_mm = 0;  /* distance from the end switch */
    int connected = 1;       /* drive unit plugged in */
    int stuck = 0;           /* carriage jammed: the motor is driven but nothing moves */
    int motor_power = 0;     /* motor supply switched on */
    int dac = 0;             /* DAC output register, 0..4095 */
    int dac_pd = 0;          /* DAC power-down bits; non-zero grounds the output */
    /* Characteristics */
    int standstill_dac = 2082;
    double dac_per_mm_s = 890;
    double travel_mm = 20.0;

    /* Velocity the DAC output asks for, mm/s, positive away from home. */
    double commanded_velocity() const;
    /* Velocity the carriage really has (0 unpowered, unplugged or at an end). */
    double velocity() const;
    bool at_home() const { return position_mm <= 0.0; }

    void reset() override;
    void advance(ns_t now) override;
    ns_t next_event(ns_t now) override;
    void resume_at(ns_t t) override { last_ = t; }

private:
    ns_t last_ = 0;
    GpioLine* end_switch_;
};

} // namespace sim

#endif

#include "drive.h"

#include <algorithm>
#include <cmath>

#include "device.h"
#include "gpio.h"

namespace sim {

Drive::Drive(Board& board)
{
    Params& p = board.params();
    p.add_double("drive.position_mm", &position_mm, "distance of the probe from the end switch, mm (0..travel)", 0,
                 1000);
    p.add_int("drive.connected", &connected, "1 while the drive unit is plugged in", 0, 1);
    p.add_int("drive.stuck", &stuck, "1: the carriage is jammed (the motor terminals still follow the DAC)", 0, 1);
    p.add_int("motor.power", &motor_power, "motor supply switch (motor_power GPIO)", 0, 1);
    p.add_int("motor.dac", &dac, "motor DAC output register 0..4095", 0, 4095);
    p.add_int("motor.dac_pd", &dac_pd, "motor DAC power-down bits 0..3 (non-zero: output grounded)", 0, 3);
    p.add_int("drive.standstill_dac", &standstill_dac, "DAC code at which the motor stands still (0..4095)", 0, 4095);
    p.add_double("drive.dac_per_mm_s", &dac_per_mm_s, "DAC steps per mm/s of drive speed (1..100000)", 1, 100000);
    p.add_double("drive.travel_mm", &travel_mm, "mechanical end of the travel, mm (1..1000)", 1, 1000);
    p.add_readonly("drive.velocity_mm_s", [this] { return std::to_string(velocity()); },
                   "current velocity, mm/s, positive away from home");
    p.add_readonly("drive.at_home", [this] { return std::to_string(at_home() ? 1 : 0); },
                   "1 while the carriage is at the end switch");
    GpioLine::output(board, "motor_power", &motor_power);
    end_switch_ = GpioLine::input(board, "vg_anf");
}

double Drive::commanded_velocity() const
{
    int code = dac_pd != 0 ? 0 : dac;
    return (code - standstill_dac) / dac_per_mm_s;
}

double Drive::velocity() const
{
    if (!motor_power || !connected || stuck)
        return 0.0;
    double v = commanded_velocity();
    if ((v < 0 && position_mm <= 0.0) || (v > 0 && position_mm >= travel_mm))
        return 0.0;
    return v;
}

void Drive::reset()
{
    position_mm = 3.0;
    connected = 1;
    stuck = 0;
    motor_power = 0;
    dac = standstill_dac = 2082;
    dac_pd = 0;
    dac_per_mm_s = 890;
    travel_mm = 20.0;
    last_ = now_ns();
}

/* The end switch changes the moment the carriage arrives or leaves. */
void Drive::advance(ns_t now)
{
    if (now > last_) {
        double dt = static_cast<double>(now - last_) / kSec;
        position_mm = std::clamp(position_mm + velocity() * dt, 0.0, travel_mm);
        last_ = now;
    }
    end_switch_->drive(at_home() ? 0 : 1);
}

ns_t Drive::next_event(ns_t)
{
    double v = velocity();
    double distance;
    if (v < 0)
        distance = position_mm;
    else if (v > 0)
        distance = position_mm <= 0.0 ? 0.0 : travel_mm - position_mm;
    else
        return kNever;
    /* One microsecond late, so that the end is really reached when we look. */
    return last_ + static_cast<ns_t>(std::ceil(distance / std::fabs(v) * kSec)) + kUs;
}

VELASIM_DEVICE(Drive);

} // namespace sim

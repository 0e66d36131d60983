#include "instrument.h"

#include <algorithm>
#include <cmath>

namespace sim {

Instrument& instrument()
{
    static Instrument inst;
    return inst;
}

double Drive::commanded_velocity() const
{
    int code = dac_pd != 0 ? 0 : dac;
    return (code - standstill_dac) / dac_per_mm_s;
}

double Drive::velocity() const
{
    if (!motor_power || !connected)
        return 0.0;
    double v = commanded_velocity();
    if ((v < 0 && position_mm <= 0.0) || (v > 0 && position_mm >= travel_mm))
        return 0.0;
    return v;
}

void Drive::register_params(Params& p)
{
    p.add_double("drive.position_mm", &position_mm, "distance of the probe from the end switch, mm");
    p.add_int("drive.connected", &connected, "1 while the drive unit is plugged in");
    p.add_int("motor.power", &motor_power, "motor supply switch (motor_power GPIO)");
    p.add_int("motor.dac", &dac, "motor DAC output register 0..4095");
    p.add_int("motor.dac_pd", &dac_pd, "motor DAC power-down bits (non-zero: output grounded)");
    p.add_int("drive.standstill_dac", &standstill_dac, "DAC code at which the motor stands still");
    p.add_double("drive.dac_per_mm_s", &dac_per_mm_s, "DAC steps per mm/s of drive speed");
    p.add_double("drive.travel_mm", &travel_mm, "mechanical end of the travel, mm");
    p.add_readonly("drive.velocity_mm_s", [this] { return std::to_string(velocity()); },
                   "current velocity, mm/s, positive away from home");
    p.add_readonly("drive.at_home", [this] { return std::to_string(at_home() ? 1 : 0); },
                   "1 while the carriage is at the end switch");
}

void Drive::reset()
{
    position_mm = 3.0;
    connected = 1;
    motor_power = 0;
    dac = standstill_dac = 2082;
    dac_pd = 0;
    dac_per_mm_s = 890;
    travel_mm = 20.0;
    last_ = now_ns();
}

void Drive::advance(ns_t now)
{
    if (now <= last_)
        return;
    double dt = static_cast<double>(now - last_) / kSec;
    last_ = now;
    position_mm = std::clamp(position_mm + velocity() * dt, 0.0, travel_mm);
}

ns_t Drive::next_event(ns_t now)
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
    return now + static_cast<ns_t>(std::ceil(distance / std::fabs(v) * kSec)) + 1000;
}

void MeasChannel::register_params(Params& p)
{
    p.add_int("meas.power", &power, "measurement channel supply switched on");
    p.add_double("meas.sine_hz", &sine_hz, "sine generator output frequency, Hz (0 = not running)");
    p.add_int("meas.poti", &poti, "digital potentiometer wiper, 0..256");
}

void MeasChannel::reset()
{
    power = 0;
    sine_hz = 0;
    poti = 0x80;
}

} // namespace sim

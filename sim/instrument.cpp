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
    p.add_readonly("meas.sine_hz", [this] { return std::to_string(sine_hz); },
                   "sine generator output frequency, Hz (0 = not running)");
    p.add_int("meas.poti", &poti, "digital potentiometer wiper, 0..256");
}

void MeasChannel::reset()
{
    power = 0;
    sine_hz = 0;
    poti = 0x80;
}

/* Volts across the motor per mm/s the DAC asks for; the bridge cannot go
 * beyond its supply. */
constexpr double kMotorVPerMmS = -2.5;
/* Unplugged terminals: motor+ sits on half the system rail, motor- on 0. */
constexpr double kDetectBias = 0.5;

double Supply::system_v() const
{
    return external_v > battery_v ? external_v : battery_v - 0.05;
}

double Supply::motor_supply_v(const Drive& drive) const
{
    return drive.motor_power ? motor_v : 0.0;
}

double Supply::motor_diff_v(const Drive& drive) const
{
    double supply = motor_supply_v(drive);
    return std::clamp(kMotorVPerMmS * drive.commanded_velocity(), -supply, supply);
}

double Supply::motor_plus_v(const Drive& drive) const
{
    if (!drive.connected)
        return kDetectBias * system_v();
    return (motor_supply_v(drive) + motor_diff_v(drive)) / 2;
}

double Supply::motor_minus_v(const Drive& drive) const
{
    if (!drive.connected)
        return 0.0;
    return (motor_supply_v(drive) - motor_diff_v(drive)) / 2;
}

/* NTC (10 kOhm at 25 C, B 3435 K) with 11.9 kOhm in parallel, under 5.6 kOhm
 * from the reference. */
double Supply::ntc_v() const
{
    double t = battery_temp_c + 273.15;
    double r = 10000.0 * std::exp(3435.0 * (1.0 / t - 1.0 / 298.15));
    double rp = r * 11900.0 / (r + 11900.0);
    return kNtcRefV * rp / (rp + 5600.0);
}

void Supply::register_params(Params& p)
{
    p.add_double("battery.voltage", &battery_v, "battery voltage, V");
    p.add_double("battery.temp_c", &battery_temp_c, "battery temperature, degrees Celsius");
    p.add_double("supply.external_v", &external_v, "external (USB) supply at the charger input, V; 0 = none");
    p.add_double("motor.supply_v", &motor_v, "motor supply while motor power is on, V");
    p.add_int("usbhost.power", &usbhost_power, "USB host port supply switched on");
    p.add_readonly("supply.system_v", [this] { return std::to_string(system_v()); }, "system rail, V");
}

void Supply::reset()
{
    battery_v = 3.9;
    battery_temp_c = 25.0;
    external_v = 0;
    motor_v = 5.0;
    usbhost_power = 0;
}

} // namespace sim

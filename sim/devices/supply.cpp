#include "supply.h"

#include <algorithm>
#include <cmath>

#include "device.h"

namespace sim {

namespace {

/* Volts across the motor per mm/s the DAC asks for; the bridge cannot go
 * beyond its supply. */
constexpr double kMotorVPerMmS = -2.5;
/* Unplugged terminals: motor+ sits on half the system rail, motor- on 0. */
constexpr double kDetectBias = 0.5;

} // namespace

Supply::Supply(Board& board)
{
    Params& p = board.params();
    p.add_double("battery.voltage", &battery_v, "battery voltage, V (0..20)", 0, 20);
    p.add_double("battery.temp_c", &battery_temp_c, "battery temperature, degrees Celsius (-40..100)", -40, 100);
    p.add_double("supply.external_v", &external_v, "external (USB) supply at the charger input, V (0..20); 0 = none",
                 0, 20);
    p.add_double("motor.supply_v", &motor_v, "motor supply while motor power is on, V (0..12)", 0, 12);
    p.add_int("usbhost.power", &usbhost_power, "USB host port supply switched on (0/1)", 0, 1);
    p.add_readonly("supply.system_v", [this] { return std::to_string(system_v()); }, "system rail, V");
}

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

void Supply::reset()
{
    battery_v = 3.9;
    battery_temp_c = 25.0;
    external_v = 0;
    motor_v = 5.0;
    usbhost_power = 0;
}

VELASIM_DEVICE(Supply);

} // namespace sim

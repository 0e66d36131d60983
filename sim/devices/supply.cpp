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
/* Longest span reach_time() answers, s: beyond it the battery never gets there. */
constexpr double kFarS = 1e9;

} // namespace

Supply::Supply(Board& board)
{
    Params& p = board.params();
    p.add_double("battery.voltage", &battery_v, "battery voltage, V (0..20)", 0, 20);
    p.add_double("battery.temp_c", &battery_temp_c, "battery temperature, degrees Celsius (-40..100)", -40, 100);
    p.add_double("battery.capacity_mah", &capacity_mah,
                 "charge that moves the battery from 3.0 V to 4.2 V, mAh (1..100000); linear in between", 1, 100000);
    p.add_double("supply.external_v", &external_v, "external supply at the charger's IN input, V (0..20); 0 = none",
                 0, 20);
    p.add_double("supply.usb_v", &usb_v, "supply at the charger's USB input, V (0..20); 0 = none", 0, 20);
    p.add_double("supply.load_ma", &load_ma, "current the system draws from its rail, mA (0..5000)", 0, 5000);
    p.add_double("motor.supply_v", &motor_v, "motor supply while motor power is on, V (0..12)", 0, 12);
    p.add_int("usbhost.power", &usbhost_power, "USB host port supply switched on (0/1)", 0, 1);
    p.add_readonly("supply.system_v", [this] { return std::to_string(system_v()); }, "system rail, V");
    p.add_readonly("battery.current_ma", [this] { return std::to_string(battery_ma()); },
                   "net current into the battery, mA (negative: discharging)");
}

/* The input feeds the rail while it is above the battery; otherwise the
 * battery does, through its FET. */
double Supply::system_v() const
{
    return conv_.input_v > battery_v ? conv_.input_v : battery_v - 0.05;
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

/* Power path: a live input carries the load and offers the battery the rest,
 * up to the charge current; a load beyond the input's limit is made up by
 * the battery. Without an input the battery carries the load. */
double Supply::battery_ma() const
{
    if (conv_.input_v <= 0)
        return -load_ma;
    double ma = std::min(conv_.charge_ma, conv_.input_ma - load_ma);
    return ma > 0 && battery_v >= conv_.regulation_v ? 0.0 : ma; /* held at regulation */
}

double Supply::volts_per_s() const
{
    return battery_ma() / (capacity_mah * 3600.0) * kSpanV;
}

void Supply::set_converter(const Converter& c, ns_t now)
{
    advance(now);
    conv_ = c;
}

/* Charging stops at the regulation voltage; a discharge stops at empty (or
 * where a battery set below empty already is). */
void Supply::advance(ns_t now)
{
    if (now <= last_)
        return;
    double dt = static_cast<double>(now - last_) / kSec;
    double rate = volts_per_s();
    if (rate > 0 && battery_v < conv_.regulation_v)
        battery_v = std::min(battery_v + rate * dt, conv_.regulation_v);
    else if (rate < 0)
        battery_v = std::max(battery_v + rate * dt, std::min(battery_v, kEmptyV));
    last_ = now;
}

ns_t Supply::reach_time(double v, ns_t from) const
{
    double rate = volts_per_s();
    double dv = v - battery_v;
    if (rate == 0 || (rate > 0) != (dv > 0))
        return dv == 0 ? from : kNever;
    if ((rate > 0 && v > conv_.regulation_v) || (rate < 0 && v < std::min(battery_v, kEmptyV)))
        return kNever;
    double s = dv / rate;
    if (s > kFarS)
        return kNever;
    return std::max(last_ + static_cast<ns_t>(std::ceil(s * kSec)), from);
}

void Supply::reset()
{
    battery_v = 3.9;
    battery_temp_c = 25.0;
    capacity_mah = 2000;
    external_v = 0;
    usb_v = 0;
    load_ma = 0;
    motor_v = 5.0;
    usbhost_power = 0;
    conv_ = Converter();
    last_ = now_ns();
}

VELASIM_DEVICE(Supply);

} // namespace sim

#include "instrument.h"

#include <algorithm>
#include <cmath>
#include <sstream>

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

namespace {

uint64_t splitmix64(uint64_t x)
{
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

double unit(uint64_t x)
{
    return static_cast<double>(splitmix64(x) >> 11) / static_cast<double>(1ULL << 53);
}

} // namespace

double Probe::noise(uint64_t n) const
{
    uint64_t base = static_cast<uint64_t>(static_cast<uint32_t>(seed)) << 40;
    return unit(base + 2 * n) + unit(base + 2 * n + 1) - 1.0;
}

double Probe::height_um(double x_mm) const
{
    if (points_.empty()) {
        /* The texture: value noise over a 2 um grid, a tenth of the amplitude. */
        double cell = x_mm / 0.002;
        double c = std::floor(cell);
        uint64_t k = static_cast<uint64_t>(static_cast<int64_t>(c)) + (uint64_t{1} << 62);
        double texture = noise(k) + (noise(k + 1) - noise(k)) * (cell - c);
        return amplitude_um * (std::sin(2 * M_PI * x_mm / period_mm) + 0.1 * texture);
    }
    if (x_mm <= points_.front().first)
        return points_.front().second;
    for (size_t i = 1; i < points_.size(); i++) {
        auto [x1, h1] = points_[i];
        if (x_mm <= x1) {
            auto [x0, h0] = points_[i - 1];
            return x1 > x0 ? h0 + (h1 - h0) * (x_mm - x0) / (x1 - x0) : h1;
        }
    }
    return points_.back().second;
}

int Probe::raw(const MeasChannel& meas, double x_mm, uint64_t n) const
{
    if (!meas.power || meas.sine_hz <= 0)
        return 0;
    double code = zero_raw + height_um(x_mm) / 1000.0 / mm_per_raw + noise_raw * noise(n);
    return static_cast<int>(std::clamp(std::lround(code), 0L, 65535L));
}

bool Probe::set_profile(const std::string& text)
{
    std::vector<std::pair<double, double>> points;
    if (text != "roughness") {
        std::string s = text;
        std::replace(s.begin(), s.end(), ',', ' ');
        std::istringstream in(s);
        std::string point;
        while (in >> point) {
            char* end = nullptr;
            double x = strtod(point.c_str(), &end);
            if (*end != ':')
                return false;
            const char* h_text = end + 1;
            double h = strtod(h_text, &end);
            if (end == h_text || *end != '\0' || (!points.empty() && x < points.back().first))
                return false;
            points.emplace_back(x, h);
        }
        if (points.empty())
            return false;
    }
    profile = text;
    points_ = std::move(points);
    return true;
}

void Probe::register_params(Params& p)
{
    p.add({"workpiece.profile", "'roughness' or a piecewise linear profile 'x_mm:height_um ...'",
           [this] { return profile; }, [this](const std::string& t) { return set_profile(t); }, true});
    p.add_double("workpiece.amplitude_um", &amplitude_um, "roughness standard: amplitude, um");
    p.add_double("workpiece.period_mm", &period_mm, "roughness standard: period, mm");
    p.add_double("probe.zero_raw", &zero_raw, "ADC code at height 0");
    p.add_double("probe.mm_per_raw", &mm_per_raw, "mm per ADC code");
    p.add_double("probe.noise_raw", &noise_raw, "peak electronic noise of one conversion, ADC codes");
    p.add_int("probe.seed", &seed, "seed of the deterministic noise");
}

void Probe::reset()
{
    set_profile("roughness");
    amplitude_um = 2.0;
    period_mm = 0.1;
    zero_raw = 39830;
    mm_per_raw = 8.18591e-06;
    noise_raw = 8;
    seed = 1;
}

} // namespace sim

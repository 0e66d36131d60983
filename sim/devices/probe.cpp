/* The probe on the workpiece: the surface's height along the travel, and
 * the measurement channel's conversion of it into ADC codes. */
#include "probe.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "device.h"

namespace sim {

Probe::Probe(Board& board)
{
    Params& p = board.params();
    p.add({"workpiece.profile", "'roughness' or a piecewise linear profile 'x_mm:height_um ...'",
           [this] { return profile; }, [this](const std::string& t) { return set_profile(t); }, true});
    p.add_double("workpiece.amplitude_um", &amplitude_um, "roughness standard: amplitude, um (0..1000)", 0, 1000);
    p.add_double("workpiece.period_mm", &period_mm, "roughness standard: period, mm (0.001..100)", 0.001, 100);
    p.add_double("probe.zero_raw", &zero_raw, "ADC code at height 0 (0..65535)", 0, 65535);
    p.add_double("probe.mm_per_raw", &mm_per_raw, "mm per ADC code (1e-9..1)", 1e-9, 1);
    p.add_double("probe.noise_raw", &noise_raw, "peak electronic noise of one conversion, ADC codes (0..65535)", 0, 65535);
    p.add_int("probe.seed", &seed, "seed of the deterministic noise", INT32_MIN, INT32_MAX);
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
    /* The synchronous demodulator passes the cosine of its phase error. */
    double gain = meas.ref_phase == 8 ? 1.0 : std::cos(2 * M_PI * (meas.ref_phase - 8) / 32.0);
    double code = gain * (zero_raw + height_um(x_mm) / 1000.0 / mm_per_raw) + (noise_raw != 0 ? noise_raw * noise(n) : 0);
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
            if (end == h_text || *end != '\0' || !std::isfinite(x) || !std::isfinite(h) ||
                (!points.empty() && x < points.back().first))
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

VELASIM_DEVICE(Probe);

} // namespace sim

#ifndef VELASIM_PROBE_H
#define VELASIM_PROBE_H

#include <string>
#include <utility>
#include <vector>

#include "board.h"
#include "meas_channel.h"

namespace sim {

/* The probe on the workpiece, and the measurement channel's conversion of
 * its height into ADC codes: height_mm = (raw - zero_raw) * mm_per_raw is the
 * calibration the program applies. */
class Probe : public Model {
public:
    explicit Probe(Board& board);

    /* "roughness" (the standard: a sine with a fine texture), or a
     * piecewise linear profile "x_mm:height_um x_mm:height_um ...". */
    std::string profile = "roughness";
    double amplitude_um = 2.0;      /* roughness standard: amplitude */
    double period_mm = 0.1;         /* and period */
    double zero_raw = 39830;        /* ADC code at height 0 */
    double mm_per_raw = 8.18591e-06;
    double noise_raw = 8;           /* peak electronic noise of one conversion */
    int seed = 1;

    /* Height of the surface at x_mm from the end switch. */
    double height_um(double x_mm) const;
    /* ADC code of conversion number n with the probe at x_mm; 0 (the rail)
     * unless the channel is powered and excited; scaled by the cosine of the
     * demodulator's phase error. */
    int raw(const MeasChannel& meas, double x_mm, uint64_t n) const;

    void reset() override;

private:
    bool set_profile(const std::string& text);
    double noise(uint64_t n) const; /* deterministic, -1..1 */
    std::vector<std::pair<double, double>> points_;
};

} // namespace sim

#endif

#include "pru_pins.h"

#include <cmath>

namespace sim {

void PruAdc::reset()
{
    convst_ = false;
    busy_until_ = 0;
    result_ = previous_ = 0;
}

uint32_t PruAdc::pins(cycle_t c) const
{
    return c < busy_until_ ? kBusy | previous_ : result_;
}

void PruAdc::convst(bool level, cycle_t c, bool stalled)
{
    bool rising = level && !convst_;
    convst_ = level;
    if (!stalled && busy_until_ == kNeverCycle)
        busy_until_ = c; /* the stall is over: the chip answers again */
    if (!rising || c < busy_until_) /* the chip ignores CONVST while converting */
        return;
    previous_ = result_;
    result_ = sample_(c);
    busy_until_ = stalled ? kNeverCycle : c + kConversion;
}

void Excitation::reset()
{
    hz_ = 0;
    anchor_ = 0;
    ref_ = false;
}

void Excitation::update(cycle_t c)
{
    if (meas_.sine_hz == hz_)
        return;
    hz_ = meas_.sine_hz;
    anchor_ = c;
}

bool Excitation::comparator(cycle_t c) const
{
    if (hz_ <= 0 || c < anchor_)
        return false;
    return static_cast<uint64_t>(std::floor(static_cast<double>(c - anchor_) / half_cycles())) % 2 == 0;
}

cycle_t Excitation::next_edge(cycle_t c) const
{
    if (hz_ <= 0)
        return kNeverCycle;
    if (c < anchor_)
        return anchor_;
    double half = half_cycles();
    double k = std::floor(static_cast<double>(c - anchor_) / half) + 1;
    cycle_t edge = anchor_ + static_cast<cycle_t>(std::ceil(k * half));
    while (edge <= c || comparator(edge) == comparator(c))
        edge++;
    return edge;
}

void Excitation::reference(bool level, cycle_t c)
{
    bool rising = level && !ref_;
    ref_ = level;
    if (!rising || hz_ <= 0 || c < anchor_)
        return;
    double period = 2 * half_cycles();
    double frac = std::fmod(static_cast<double>(c - anchor_), period) / period;
    meas_.ref_phase = static_cast<int>(std::lround(frac * 32)) % 32;
}

} // namespace sim

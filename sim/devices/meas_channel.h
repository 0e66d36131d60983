/* The analog measurement channel: its power switch (GPIO "meas_power"), and
 * what the sine generator and the potentiometer (chips of their own) leave
 * in it. The acquisition reads sine_hz. */
#ifndef VELASIM_MEAS_CHANNEL_H
#define VELASIM_MEAS_CHANNEL_H

#include "board.h"

namespace sim {

class MeasChannel : public Model {
public:
    explicit MeasChannel(Board& board);

    int power = 0;       /* channel supply switched on */
    double sine_hz = 0;  /* generator output, Hz; 0 while reset, asleep or unpowered */
    int poti = 0x80;     /* potentiometer wiper, 0..256 */
    /* Where the demodulator's reference sits in the excitation period, in
     * 1/32; the probe's signal is largest at 8. */
    int ref_phase = 8;

    void reset() override;
};

} // namespace sim

#endif

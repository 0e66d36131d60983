#include "meas_channel.h"

#include "device.h"
#include "gpio.h"

namespace sim {

MeasChannel::MeasChannel(Board& board)
{
    Params& p = board.params();
    p.add_int("meas.power", &power, "measurement channel supply switched on (0/1)", 0, 1);
    p.add_readonly("meas.sine_hz", [this] { return std::to_string(sine_hz); },
                   "sine generator output frequency, Hz (0 = not running)");
    p.add_readonly("meas.ref_phase", [this] { return std::to_string(ref_phase); },
                   "demodulator reference phase, 1/32 of the excitation period (best at 8)");
    p.add_int("meas.poti", &poti, "digital potentiometer wiper, 0..256", 0, 256);
    GpioLine::output(board, "meas_power", &power);
}

void MeasChannel::reset()
{
    power = 0;
    sine_hz = 0;
    poti = 0x80;
    ref_phase = 8;
}

VELASIM_DEVICE(MeasChannel);

} // namespace sim

/* The analog measurement channel as the program reaches it: the power GPIO
 * "meas_power", the sine generator on /dev/spidev1.1 and the digital
 * potentiometer at 0x2e on the second I2C bus. */
#include "devices.h"
#include "gpio.h"
#include "i2c.h"
#include "instrument.h"
#include "poti.h"
#include "sine_gen.h"
#include "spidev.h"

namespace sim {

void add_measurement(Board& board)
{
    MeasChannel& meas = instrument().meas;
    meas.register_params(board.params());
    board.add_model(&meas);
    GpioLine::output(board, "meas_power", &meas.power);

    SineGenerator* sine = board.adopt(std::make_unique<SineGenerator>(meas, board.params()));
    auto spi = std::make_unique<SpiDev>(board, "/dev/spidev1.1", sine);
    board.add_model(spi.get());
    board.add_node(std::move(spi));

    i2c_bus(board, "/dev/i2c-1")->attach(0x2e, board.adopt(std::make_unique<DigiPot>(meas)));
}

} // namespace sim

/* Registration of the board's devices, one function per device family. */
#ifndef VELASIM_DEVICES_H
#define VELASIM_DEVICES_H

#include "board.h"

namespace sim {

class I2cBus;

/* The I2C bus at path; made on first use so that each family can attach its
 * chips. */
I2cBus* i2c_bus(Board& board, const std::string& path);

/* Each adds its physics models before the devices that watch them: models are
 * advanced in the order they were added. */
void add_rtc(Board& board);
void add_supply(Board& board);
void add_drive(Board& board);
void add_measurement(Board& board);
void add_iio_adc(Board& board);
void add_pruss(Board& board);
void add_opto_port(Board& board);

} // namespace sim

#endif

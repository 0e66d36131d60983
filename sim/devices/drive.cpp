/* The drive unit as the program reaches it: motor power GPIO, motor DAC on
 * the second I2C bus, end switch GPIO "vg_anf" ('1' away from home). */
#include "devices.h"
#include "gpio.h"
#include "i2c.h"
#include "instrument.h"
#include "motor_dac.h"

namespace sim {

void add_drive(Board& board)
{
    Drive& drive = instrument().drive;
    drive.register_params(board.params());
    board.add_model(&drive);
    GpioLine::output(board, "motor_power", &drive.motor_power);
    GpioLine::input(board, "vg_anf", [&drive] { return drive.at_home() ? 0 : 1; });
    i2c_bus(board, "/dev/i2c-1")->attach(0x60, board.adopt(std::make_unique<MotorDac>(drive, board.params())));
}

} // namespace sim

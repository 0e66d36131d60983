#include "devices.h"

#include "i2c.h"

namespace sim {

I2cBus* i2c_bus(Board& board, const std::string& path)
{
    if (Node* n = board.find_node(path))
        return static_cast<I2cBus*>(n);
    auto bus = std::make_unique<I2cBus>(board, path);
    I2cBus* raw = bus.get();
    board.add_node(std::move(bus));
    return raw;
}

void register_devices(Board& board)
{
    i2c_bus(board, "/dev/i2c-0");
    i2c_bus(board, "/dev/i2c-1");
    add_supply(board);
    add_drive(board);
    add_measurement(board);
    add_iio_adc(board);
    add_pruss(board);
    add_opto_port(board);
    add_rtc(board);
}

} // namespace sim

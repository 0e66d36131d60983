#include "devices.h"

#include "i2c.h"
#include "instrument.h"

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
    add_drive(board);
    add_measurement(board);
    add_rtc(board);
}

/* The channel's devices come with their own issue; the channel's state is
 * here already so that everything that depends on it can be built. */
void add_measurement(Board& board)
{
    MeasChannel& meas = instrument().meas;
    meas.register_params(board.params());
    board.add_model(&meas);
}

} // namespace sim

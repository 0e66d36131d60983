/* Battery and supply rails: physics only, watched by the ADC (and later the
 * charger). */
#include "devices.h"
#include "instrument.h"

namespace sim {

void add_supply(Board& board)
{
    Supply& supply = instrument().supply;
    supply.register_params(board.params());
    board.add_model(&supply);
}

} // namespace sim

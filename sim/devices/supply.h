/* Battery, external supply and the board's rails: physics only, watched by
 * the internal ADC. */
#ifndef VELASIM_SUPPLY_H
#define VELASIM_SUPPLY_H

#include "board.h"
#include "drive.h"

namespace sim {

class Supply : public Model {
public:
    explicit Supply(Board& board);

    double battery_v = 3.9;
    double battery_temp_c = 25.0;
    double external_v = 0;   /* external (USB) supply at the charger's input, 0 = none */
    double motor_v = 5.0;    /* motor supply while switched on */
    int usbhost_power = 0;   /* USB host port supply switched on */

    static constexpr double kNtcRefV = 3.3;
    static constexpr double kUsbHostV = 5.0;

    double system_v() const;
    double motor_supply_v(const Drive& drive) const;
    /* Motor terminals: driven by the bridge while a drive unit is plugged in
     * and powered; unplugged, they float on the detection bias. */
    double motor_plus_v(const Drive& drive) const;
    double motor_minus_v(const Drive& drive) const;
    double usbhost_v() const { return usbhost_power ? kUsbHostV : 0.0; }
    /* The NTC divider's output at the battery temperature. */
    double ntc_v() const;

    void reset() override;

private:
    double motor_diff_v(const Drive& drive) const;
};

} // namespace sim

#endif

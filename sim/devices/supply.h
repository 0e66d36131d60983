/* Battery, the charger's two inputs and the board's rails: physics only,
 * watched by the internal ADC and steered by the charger (charger.cpp).
 *
 * The cell is linear: its voltage moves by kSpanV over capacity_mah of
 * charge, at a rate set by the net current into it. The current is constant
 * between two events of the charger, so advancing over any span is one
 * step, and the charger asks reach_time() when a level it reacts to comes. */
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
    double external_v = 0;   /* external supply at the charger's IN input, 0 = none */
    double usb_v = 0;        /* supply at the charger's USB input, 0 = none */
    double motor_v = 5.0;    /* motor supply while switched on */
    int usbhost_power = 0;   /* USB host port supply switched on */
    double capacity_mah = 2000; /* charge that moves the cell across kSpanV */
    double load_ma = 0;      /* what the system draws from its rail */

    /* The charger's converter, as the charger last set it. */
    struct Converter {
        double input_v = 0;        /* the input that feeds the system rail, 0 = none */
        double input_ma = 0;       /* current that input may deliver */
        double charge_ma = 0;      /* charge current offered to the battery, 0 while not charging */
        double regulation_v = 4.2; /* the battery voltage charging stops at */
        bool operator!=(const Converter& o) const
        {
            return input_v != o.input_v || input_ma != o.input_ma || charge_ma != o.charge_ma ||
                   regulation_v != o.regulation_v;
        }
    };
    /* Brings the battery to now under the old setting first. */
    void set_converter(const Converter& c, ns_t now);
    const Converter& converter() const { return conv_; }

    static constexpr double kNtcRefV = 3.3;
    static constexpr double kUsbHostV = 5.0;
    static constexpr double kSpanV = 1.2; /* empty (3.0 V) to full (4.2 V) */
    static constexpr double kEmptyV = 3.0;

    double system_v() const;
    double motor_supply_v(const Drive& drive) const;
    /* Motor terminals: driven by the bridge while a drive unit is plugged in
     * and powered; unplugged, they float on the detection bias. */
    double motor_plus_v(const Drive& drive) const;
    double motor_minus_v(const Drive& drive) const;
    double usbhost_v() const { return usbhost_power ? kUsbHostV : 0.0; }
    /* The NTC divider's output at the battery temperature. */
    double ntc_v() const;

    /* Net current into the battery, mA (negative: discharging). */
    double battery_ma() const;
    /* Board time at which the battery reaches v at the present rate, no
     * earlier than from; kNever if it is not heading there. */
    ns_t reach_time(double v, ns_t from) const;

    void reset() override;
    void advance(ns_t now) override;
    void resume_at(ns_t t) override { last_ = t; }

private:
    double motor_diff_v(const Drive& drive) const;
    double volts_per_s() const;

    Converter conv_;
    ns_t last_ = 0;
};

} // namespace sim

#endif

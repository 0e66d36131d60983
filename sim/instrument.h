/* The physics behind the devices, in device terms (millimetres, mm/s). */
#ifndef VELASIM_INSTRUMENT_H
#define VELASIM_INSTRUMENT_H

#include <string>
#include <utility>
#include <vector>

#include "board.h"

namespace sim {

/* The drive unit: the motor DAC's code sets a velocity, the probe carriage
 * moves in real time between the end switch (0 mm) and its mechanical end. */
class Drive : public Model {
public:
    /* State and inputs */
    double position_mm = 0;  /* distance from the end switch */
    int connected = 1;       /* drive unit plugged in */
    int motor_power = 0;     /* motor supply switched on */
    int dac = 0;             /* DAC output register, 0..4095 */
    int dac_pd = 0;          /* DAC power-down bits; non-zero grounds the output */
    /* Characteristics */
    int standstill_dac = 2082;
    double dac_per_mm_s = 890;
    double travel_mm = 20.0;

    /* Velocity the DAC output asks for, mm/s, positive away from home. */
    double commanded_velocity() const;
    /* Velocity the carriage really has (0 unpowered, unplugged or at an end). */
    double velocity() const;
    bool at_home() const { return position_mm <= 0.0; }

    void register_params(Params& params);
    void reset() override;
    void advance(ns_t now) override;
    ns_t next_event(ns_t now) override;
    void resume_at(ns_t t) override { last_ = t; }

private:
    ns_t last_ = 0;
};

/* The analog measurement channel: its power switch, the sine generator that
 * excites the probe, and the digital potentiometer. The generator's device
 * model keeps sine_hz current; the acquisition reads it. */
class MeasChannel : public Model {
public:
    int power = 0;       /* channel supply switched on */
    double sine_hz = 0;  /* generator output, Hz; 0 while reset, asleep or unpowered */
    int poti = 0x80;     /* potentiometer wiper, 0..256 */

    void register_params(Params& params);
    void reset() override;
};

/* Battery, external supply and the board's rails, as the internal ADC sees
 * them. */
class Supply : public Model {
public:
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

    void register_params(Params& params);
    void reset() override;

private:
    double motor_diff_v(const Drive& drive) const;
};

/* The probe on the workpiece, and the measurement channel's conversion of
 * its height into ADC codes: height_mm = (raw - zero_raw) * mm_per_raw is the
 * calibration the program applies. */
class Probe : public Model {
public:
    /* "roughness" (the standard: a sine with a fine texture), or a
     * piecewise linear profile "x_mm:height_um x_mm:height_um ...". */
    std::string profile = "roughness";
    double amplitude_um = 2.0;      /* roughness standard: amplitude */
    double period_mm = 0.1;         /* and period */
    double zero_raw = 39830;        /* ADC code at height 0 */
    double mm_per_raw = 8.18591e-06;
    double noise_raw = 8;           /* peak electronic noise of one conversion */
    int seed = 1;

    /* Height of the surface at x_mm from the end switch. */
    double height_um(double x_mm) const;
    /* ADC code of conversion number n with the probe at x_mm; 0 (the rail)
     * unless the channel is powered and excited. */
    int raw(const MeasChannel& meas, double x_mm, uint64_t n) const;

    void register_params(Params& params);
    void reset() override;

private:
    bool set_profile(const std::string& text);
    double noise(uint64_t n) const; /* deterministic, -1..1 */
    std::vector<std::pair<double, double>> points_;
};

class Instrument {
public:
    Drive drive;
    MeasChannel meas;
    Supply supply;
    Probe probe;
};

Instrument& instrument();

} // namespace sim

#endif

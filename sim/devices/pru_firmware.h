/*
 * What the acquisition firmware on the two PRUs does, as far as the host can
 * tell, run lazily: every advance computes all conversions due since the last
 * one in one go, publishing each sample before the count that covers it.
 *
 * It starts when both PRUs are enabled with code loaded, enters its main loop
 * and signals event 19; it latches a request on event 21 while in_cmd is 1,
 * samples the probe through the measurement channel, and returns to its main
 * loop when a counted acquisition is complete or in_cmd goes to 0. It keeps
 * pruss/pru0.asm's timing, checks and error codes, so that both engines give
 * the same samples.
 */
#ifndef VELASIM_PRU_FIRMWARE_H
#define VELASIM_PRU_FIRMWARE_H

#include <stdint.h>
#include <string>

#include "board.h"
#include "drive.h"
#include "meas_channel.h"
#include "probe.h"

namespace sim {

class Pruss;

class PruFirmware {
public:
    /* Faults on demand (param pru.fault). */
    enum class Fault { None, NoSignal, NoStart, NoStop, Stall };

    static constexpr uint32_t kVersion0 = 21;
    static constexpr uint32_t kVersion1 = 12;

    PruFirmware(Pruss& pruss, Board& board, Probe& probe, MeasChannel& meas, Drive& drive);

    void reset();
    void advance(ns_t now);
    ns_t next_event(ns_t now) const;
    std::string state() const;
    Fault fault() const { return fault_; }
    /* The journal line for the out_state the firmware just wrote. */
    static void journal_state(Board& board, Pruss& pruss);

private:
    enum class Phase { Off, Booting, MainLoop };

    /* A request as latched from the communication block. */
    struct Request {
        uint32_t pextram, maxcount, interval, minvalid, maxvalid, mode, filter, ovsdepth, skip;
    };

    uint32_t& comm(uint32_t offset);
    void enter_main_loop();
    static uint32_t check(const Request& r);
    void latch(ns_t now);
    void acquire_until(ns_t now);
    void count_conversion(uint32_t per_sample);
    void skip_overwritten(ns_t now, uint32_t per_sample);
    void store(uint32_t value);
    void finish();

    Pruss& pruss_;
    Board& board_;
    Probe& probe_;
    MeasChannel& meas_;
    Drive& drive_;
    Fault fault_ = Fault::None;
    int error_code_ = 0; /* param pru.error: reported from the first sample on */

    Phase phase_ = Phase::Off;
    ns_t main_loop_at_ = 0;
    bool acquiring_ = false;
    Request req_{};
    ns_t conv_period_ = 0;
    ns_t next_conv_ = 0;    /* CONVST of the next conversion */
    bool pending_ = false;  /* a conversion started, not yet counted */
    uint32_t conversion_ = 0; /* its value */
    uint64_t conv_index_ = 0;
    uint64_t conversions_ = 0; /* computed, not passed over */
    uint32_t in_sample_ = 0; /* conversions summed for the current sample */
    uint64_t sum_ = 0;
    uint32_t skip_left_ = 0;
    uint32_t count_ = 0;
    bool have_prev_ = false;
    uint32_t prev_ = 0;      /* previous unfiltered sample */
    ns_t pos_time_ = 0;      /* drive position at the last advance */
    double pos_mm_ = 0;
};

} // namespace sim

#endif

#include "pru_firmware.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "uio_pruss.h"

namespace sim {

namespace {

/* The communication block at the start of the shared RAM, byte offsets. */
enum : uint32_t {
    IN_PEXTRAM = 0,
    OUT_VERSION0 = 4,
    IN_CMD = 8,
    IN_MODE = 12,
    IN_INTERVAL = 16,
    IN_MAXCOUNT = 20,
    IN_MINVALID = 24,
    IN_MAXVALID = 28,
    IN_FILTER = 32,
    IN_OVSDEPTH = 36,
    IN_SKIP_SAMPLES = 40,
    OUT_COUNT = 44,
    OUT_LASTSAMPLE = 48,
    OUT_STATE = 52,
    OUT_ERROR = 56,
    OUT_MAX = 60,
    OUT_MIN = 64,
    OUT_MAXPOS = 68,
    OUT_MINPOS = 72,
    OUT_OF_MINCOUNT = 76,
    DEBUG0 = 80, /* the phase in use */
    DEBUG1 = 84, /* the sample that exceeded in_maxvalid */
    OUT_VERSION1 = 112,
    IN_DELAY = 116,
    OUT_PERIODTIME = 120,
};

constexpr int kEvtToHost = 19;
constexpr int kEvtFromHost = 21;
constexpr int kHostPru0 = 0;            /* R31 bit 30 of the PRUs */
constexpr ns_t kBootTime = 200 * 1000;  /* from enable to the main loop */
constexpr ns_t kTick = 5;               /* 200 MHz */
constexpr uint32_t kStandbyInit = 0x10;

/* What pruss/pru0.asm accepts, and its out_error codes. */
constexpr uint32_t kMaxOvsDepth = 16;
constexpr uint32_t kMinInterval = 300;
constexpr uint32_t kMaxInterval = 200000;
constexpr uint32_t kDdrStart = 0x80000000;
constexpr uint32_t kDdrEnd = 0xC0000000;
constexpr uint32_t kMaxSamples = 0x20000000;
constexpr uint32_t kErrorOverflow = 2;
constexpr uint32_t kErrorOvsDepth = 3;
constexpr uint32_t kErrorInterval = 4;
constexpr uint32_t kErrorPextram = 5;
constexpr uint32_t kErrorCount = 6;

/* The firmware's timing, in cycles from its listing: from the cycle the
 * start event arrives in to the timer's start (the wake-up and 78 cycles of
 * latching and checking), and from a compare hit to the read of the last
 * conversion and to the next CONVST. Conversion k is the probe at the
 * CONVST of hit k + 1 and is counted at hit k + 2. */
constexpr ns_t kStartDelay = 79 * kTick;
constexpr ns_t kReadDelay = 1 * kTick;
constexpr ns_t kConvstDelay = 2 * kTick;

const struct {
    PruFirmware::Fault fault;
    const char* name;
} kFaults[] = {
    {PruFirmware::Fault::None, "none"},
    {PruFirmware::Fault::NoSignal, "no-signal"},
    {PruFirmware::Fault::NoStart, "no-start"},
    {PruFirmware::Fault::NoStop, "no-stop"},
    {PruFirmware::Fault::Stall, "stall"},
};

} // namespace

PruFirmware::PruFirmware(Pruss& pruss, Board& board, Probe& probe, MeasChannel& meas, Drive& drive)
    : pruss_(pruss), board_(board), probe_(probe), meas_(meas), drive_(drive)
{
    Params& p = board.params();
    p.add({"pru.fault", "firmware fault: none, no-signal (after loading), no-start, no-stop, stall (acquiring, no new samples; a stop ends it)",
           [this] {
               for (const auto& f : kFaults) {
                   if (f.fault == fault_)
                       return std::string(f.name);
               }
               return std::string();
           },
           [this](const std::string& t) {
               for (const auto& f : kFaults) {
                   if (t == f.name) {
                       fault_ = f.fault;
                       return true;
                   }
               }
               return false;
           },
           true});
    p.add_int("pru.error", &error_code_, "error code the firmware reports in every acquisition (0: none)", 0,
              INT32_MAX);
    p.add_readonly("pru.conversions", [this] { return std::to_string(conversions_); },
                   "conversions the model computed (its cost)");
}

void PruFirmware::reset()
{
    fault_ = Fault::None;
    error_code_ = 0;
    phase_ = Phase::Off;
    acquiring_ = false;
}

std::string PruFirmware::state() const
{
    switch (phase_) {
    case Phase::Off: return "off";
    case Phase::Booting: return "booting";
    case Phase::MainLoop: break;
    }
    return acquiring_ ? "acquiring" : "idle";
}

uint32_t& PruFirmware::comm(uint32_t offset)
{
    return pruss_.reg(Pruss::kSharedRam + offset);
}

void PruFirmware::advance(ns_t now)
{
    if (!pruss_.pru_enabled(0) || !pruss_.pru_enabled(1)) {
        phase_ = Phase::Off;
        acquiring_ = false;
        return;
    }
    if (phase_ == Phase::Off) {
        if (!pruss_.code_loaded(0) || !pruss_.code_loaded(1))
            return;
        phase_ = Phase::Booting;
        main_loop_at_ = now + kBootTime;
    }
    if (phase_ == Phase::Booting) {
        if (now < main_loop_at_)
            return;
        enter_main_loop();
    }

    double hz = meas_.sine_hz;
    /* The measured sine period in nanoseconds. Without an excitation PRU1
     * waits for its next edge, so the last period stays. */
    if (hz > 0)
        comm(OUT_PERIODTIME) = static_cast<uint32_t>(std::lround(1e9 / hz));
    comm(DEBUG0) = comm(IN_DELAY) & 31;
    if (acquiring_ && fault_ == Fault::Stall) {
        /* Hung in the acquisition: nothing converted, it goes on from now when released. */
        next_conv_ = std::max(next_conv_, now + conv_period_);
        pending_ = false;
        pos_mm_ = drive_.position_mm;
        pos_time_ = now;
        if (comm(IN_CMD) == 0)
            finish();
    } else if (acquiring_) {
        acquire_until(now);
        if (acquiring_ && comm(IN_CMD) == 0 && fault_ != Fault::NoStop)
            finish();
    }
    if (!acquiring_ && pruss_.take(kHostPru0, kEvtFromHost) && comm(IN_CMD) == 1 && fault_ != Fault::NoStart)
        latch(now);
}

void PruFirmware::enter_main_loop()
{
    phase_ = Phase::MainLoop;
    /* The OCP master port, so that the PRUs reach the DDR pool. */
    pruss_.reg(Pruss::kCfg + 4) &= ~kStandbyInit;
    comm(OUT_VERSION0) = kVersion0;
    comm(OUT_VERSION1) = kVersion1;
    if (fault_ != Fault::NoSignal)
        pruss_.raise(kEvtToHost);
}

/* The error code for a request the firmware refuses, or 0. */
uint32_t PruFirmware::check(const Request& r)
{
    if (r.ovsdepth > kMaxOvsDepth)
        return kErrorOvsDepth;
    if (r.interval < kMinInterval || r.interval > kMaxInterval)
        return kErrorInterval;
    if (r.pextram < kDdrStart || r.pextram >= kDdrEnd)
        return kErrorPextram;
    /* The monitor and a request for no samples both store sample 0. */
    uint64_t samples = std::max<uint32_t>(r.maxcount, 1);
    if (samples > kMaxSamples || r.pextram + 2 * samples > kDdrEnd)
        return kErrorCount;
    return 0;
}

void PruFirmware::latch(ns_t now)
{
    req_ = {comm(IN_PEXTRAM), comm(IN_MAXCOUNT), comm(IN_INTERVAL), comm(IN_MINVALID), comm(IN_MAXVALID),
            comm(IN_MODE),    comm(IN_FILTER),   comm(IN_OVSDEPTH), comm(IN_SKIP_SAMPLES)};
    /* out_lastsample keeps the last acquisition's value until a new sample
     * replaces it: the live readings never drop to 0 at a restart. */
    for (uint32_t off : {OUT_COUNT, OUT_ERROR, OUT_MAX, OUT_MAXPOS, OUT_MINPOS, OUT_OF_MINCOUNT, DEBUG1})
        comm(off) = 0;
    comm(OUT_MIN) = 0xFFFF;

    if (uint32_t error = check(req_)) {
        comm(OUT_ERROR) = error;
        return;
    }

    conv_period_ = static_cast<ns_t>(req_.interval) * kTick;
    next_conv_ = now / kTick * kTick + kStartDelay + conv_period_ + kConvstDelay;
    pending_ = false;
    in_sample_ = 0;
    sum_ = 0;
    skip_left_ = req_.skip;
    count_ = 0;
    have_prev_ = false;
    pos_time_ = now;
    pos_mm_ = drive_.position_mm;
    comm(OUT_STATE) = 1;
    acquiring_ = true;
    journal_state(board_, pruss_);
}

/* All conversions due up to now, in the firmware's order: at each compare
 * hit the conversion started at the hit before is counted, then the next
 * one samples the probe where the drive had it then (it moved at constant
 * speed since the last advance). */
void PruFirmware::acquire_until(ns_t now)
{
    double p0 = pos_mm_;
    double p1 = drive_.position_mm;
    ns_t t0 = pos_time_;
    uint32_t per_sample = 1u << req_.ovsdepth;
    skip_overwritten(now, per_sample);
    for (;;) {
        ns_t read_at = pending_ ? next_conv_ - kConvstDelay + kReadDelay : kNever;
        if (acquiring_ && pending_ && read_at <= now) {
            pending_ = false;
            count_conversion(per_sample);
        } else if (acquiring_ && !pending_ && next_conv_ <= now) {
            double x = now > t0 ? p0 + (p1 - p0) * static_cast<double>(next_conv_ - t0) / static_cast<double>(now - t0)
                                : p1;
            conversion_ = static_cast<uint32_t>(probe_.raw(meas_, x, conv_index_++));
            conversions_++;
            next_conv_ += conv_period_;
            pending_ = true;
        } else {
            break;
        }
    }
    pos_mm_ = p1;
    pos_time_ = now;
}

void PruFirmware::count_conversion(uint32_t per_sample)
{
    sum_ += conversion_;
    if (++in_sample_ < per_sample)
        return;
    uint32_t value = static_cast<uint32_t>(sum_ >> req_.ovsdepth);
    in_sample_ = 0;
    sum_ = 0;
    if (req_.filter == 1) {
        /* A two-tap average against the previous sample. */
        uint32_t raw = value;
        value = have_prev_ ? (value + prev_ + 1) / 2 : value;
        prev_ = raw;
        have_prev_ = true;
    }
    if (skip_left_ > 0) {
        skip_left_--;
        return;
    }
    store(value);
}

/* The monitor (in_maxcount 1) overwrites sample 0 again and again: over a
 * long span only the last samples can be seen, so the conversions before
 * them are passed over (their noise index included, so that the samples
 * that are computed are the same as without the shortcut). The minimum and
 * maximum then cover the samples computed only. */
void PruFirmware::skip_overwritten(ns_t now, uint32_t per_sample)
{
    if (req_.maxcount != 1 || skip_left_ > 0 || next_conv_ > now)
        return;
    uint64_t in_flight = pending_ ? 1 : 0;
    uint64_t due = static_cast<uint64_t>((now - next_conv_) / conv_period_) + 1 + in_flight;
    uint64_t keep = 2 * uint64_t{per_sample}; /* the last sample and the one the filter looks back on */
    if (due <= keep + per_sample)
        return;
    uint64_t drop = due - keep;
    drop -= (in_sample_ + drop) % per_sample; /* to a sample boundary */
    /* The conversion in flight is the oldest of them, already computed. */
    conv_index_ += drop - in_flight;
    next_conv_ += static_cast<ns_t>(drop - in_flight) * conv_period_;
    pending_ = false;
    in_sample_ = 0;
    sum_ = 0;
    have_prev_ = false;
}

void PruFirmware::store(uint32_t value)
{
    /* The monitor keeps overwriting its one sample. */
    uint32_t index = req_.maxcount == 1 ? 0 : count_;
    if (uint8_t* p = pruss_.ddr(req_.pextram + 2 * index, 2)) {
        uint16_t v = static_cast<uint16_t>(value);
        memcpy(p, &v, sizeof v);
    }
    comm(OUT_LASTSAMPLE) = value;
    if (value > comm(OUT_MAX)) {
        comm(OUT_MAX) = value;
        comm(OUT_MAXPOS) = index;
    }
    if (value < comm(OUT_MIN)) {
        comm(OUT_MIN) = value;
        comm(OUT_MINPOS) = index;
    }
    if (value < req_.minvalid)
        comm(OUT_OF_MINCOUNT)++;
    if (comm(OUT_ERROR) == 0 && value > req_.maxvalid) {
        comm(DEBUG1) = value;
        comm(OUT_ERROR) = kErrorOverflow;
    }
    if (comm(OUT_ERROR) == 0 && error_code_ != 0)
        comm(OUT_ERROR) = static_cast<uint32_t>(error_code_);
    count_ = req_.maxcount == 1 ? 1 : count_ + 1;
    comm(OUT_COUNT) = count_;
    if (req_.maxcount != 1 && count_ >= req_.maxcount)
        finish();
}

void PruFirmware::finish()
{
    comm(OUT_STATE) = 0;
    acquiring_ = false;
    journal_state(board_, pruss_);
}

/* The request as the firmware latched it when out_state went to 1 (the host
 * leaves the in_ fields alone while it runs), the outcome when it went back. */
void PruFirmware::journal_state(Board& board, Pruss& pruss)
{
    auto word = [&pruss](uint32_t off) { return pruss.word(Pruss::kSharedRam + off); };
    if (word(OUT_STATE) == 0) {
        board.journal("pruss", "done", "count=" + std::to_string(word(OUT_COUNT)) + " error=" +
                                           std::to_string(word(OUT_ERROR)));
        return;
    }
    char text[160];
    snprintf(text, sizeof text, "count=%u interval=%u ovs=%u filter=%u mode=%u skip=%u min=%u max=%u",
             word(IN_MAXCOUNT), word(IN_INTERVAL), word(IN_OVSDEPTH), word(IN_FILTER), word(IN_MODE),
             word(IN_SKIP_SAMPLES), word(IN_MINVALID), word(IN_MAXVALID));
    board.journal("pruss", "acquire", text);
}

/* The waits need to wake for the main-loop signal and for the end of a
 * counted acquisition; samples are computed whenever anyone looks. */
ns_t PruFirmware::next_event(ns_t) const
{
    if (phase_ == Phase::Booting)
        return main_loop_at_;
    if (!acquiring_ || req_.maxcount == 1 || fault_ == Fault::Stall)
        return kNever;
    /* A request for no samples ends after the first. */
    uint64_t samples_left = std::max<uint64_t>(req_.maxcount, 1) - count_ + skip_left_;
    uint64_t conversions_left = (samples_left << req_.ovsdepth) - in_sample_;
    ns_t first_read = next_conv_ - kConvstDelay + kReadDelay + (pending_ ? 0 : conv_period_);
    return first_read + static_cast<ns_t>(conversions_left - 1) * conv_period_;
}

} // namespace sim

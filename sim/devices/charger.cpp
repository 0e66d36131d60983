/*
 * The battery charger at 0x6b on /dev/i2c-0, a TI bq24160 (switch mode,
 * two inputs: IN and USB), with its INT output on the GPIO input "chgint".
 * It steers the battery physics in Supply.
 *
 * What the model takes from the data sheet (SLUSAO0), by register:
 *
 *  0 Status/Control, reset 0xxx 0xxx
 *    B7 TMR_RST     write 1: restart the watchdog; reads 0
 *    B6-4 STAT      000 no valid source, 001 IN ready, 010 USB ready, 011 charging
 *                   from IN, 100 charging from USB, 101 charge done, 111 fault
 *    B3 SUPPLY_SEL  R/W, which input has precedence when both are there (0: IN)
 *    B2-0 FAULT     000 normal, 001 thermal shutdown, 010 battery temperature,
 *                   011 watchdog expired, 100 safety timer expired, 101 IN supply,
 *                   110 USB supply, 111 battery fault. Shows the first fault that
 *                   occurred; cleared by reading it once the fault is gone.
 *  1 Battery/Supply Status, reset xxxx 0xxx
 *    B7-6 INSTAT, B5-4 USBSTAT  00 normal, 01 supply OVP, 10 weak source (no
 *                   charging), 11 below UVLO
 *    B3 OTG_LOCK    R/W, 1: the USB input is not used
 *    B2-1 BATSTAT   00 present and normal, 01 battery OVP, 10 not present
 *    B0 EN_NOBATOP  R/W, also disables battery OVP
 *  2 Control, reset 1000 1100
 *    B7 RESET       write 1: every register to its default, DEFAULT mode, watchdog
 *                   off; reads 1 (always)
 *    B6-4 IUSB_LIMIT  100, 150, 500, 800, 900, 1500 mA (110, 111: NA)
 *    B3 EN_STAT, B2 TE (termination), B1 CE (1: charging disabled), B0 HZ_MODE
 *  3 Control/Battery Voltage, reset 0001 0100
 *    B7-2 VBREG     3.5 V + 20 mV steps (reset: 3.6 V)
 *    B1 IINLIMIT    IN input limit 1.5 A / 2.5 A
 *    B0 D+/D-_EN    1 forces a D+/D- detection; returns to 0 when it is done
 *  4 Vender/Part/Revision, reset 0100 0000, read-only
 *  5 Battery Termination/Fast Charge Current, reset 0011 0010
 *    B7-3 ICHRG     550 mA + 75 mA steps (reset 1 A); B2-0 ITERM 50 mA + 50 mA steps
 *  6 VIN-DPM Voltage/DPPM Status, reset xx00 0000
 *    B7 MINSYS_STATUS (battery below the 3.5 V minimum system voltage),
 *    B6 DPM_STATUS (read-only); B5-3 VINDPM USB, B2-0 VINDPM IN: 4.2 V + 80 mV steps
 *  7 Safety Timer/NTC Monitor, reset 1001 1xxx (the bit table says 2XTMR_EN
 *    defaults to 0; the model takes the reset state)
 *    B7 2XTMR_EN, B6-5 TMR (27 min, 6 h, 9 h, off), B4 NA (R/W), B3 TS_EN,
 *    B2-1 TS_FAULT  read-only: 01 colder than TCOLD or hotter than THOT (charging
 *                   suspended), 10 cool (half current), 11 warm (VBREG - 140 mV)
 *    B0 LOW_CHG     half the charge current
 *  Addresses past 7 read FFh.
 *
 * STAT and INT: low while charging with EN_STAT = 1, else released; a 128 us
 * low pulse on a supply status change (plug in, removal, sleep), a safety
 * timer fault, watchdog expiry, battery temperature fault, battery fault (OVP
 * or absent) and thermal shutdown, whatever EN_STAT says.
 * D+/D- detection: at a USB plug-in in DEFAULT mode, or forced by D+/D-_EN in
 * either mode; at least 90 ms; an SDP keeps 100 mA, a CDP or DCP gets
 * 1500 mA; not finished within 500 ms: 100 mA. A write to register 2 stops it.
 * Safety timer: started with charging; on expiry charging stops, the charge
 * parameters go back to their defaults and (HOST mode) CE is set; clearing CE
 * or a supply power-on starts again; a change of TMR restarts it.
 * Watchdog: 30 s in HOST mode, restarted by TMR_RST; on expiry DEFAULT mode
 * with the default register values.
 * Inputs: OVP at 6.5 V (USB) and 10.5 V (IN); USB limit by IUSB_LIMIT, IN by
 * IINLIMIT.
 *
 * Where the data sheet is silent the model assumes:
 *  - the first transfer of any kind, read or write, enters HOST mode and
 *    starts the watchdog; the register pointer moves on after every byte
 *    read or written, writes to addresses past 7 are ignored;
 *  - UVLO 3.6 V; sleep (weak source) when an input is within 40 mV of the
 *    battery; battery OVP above 1.05 x VBREG, only while an input feeds the
 *    charger (not in HZ); recharge 120 mV below VBREG; TS thresholds 0, 10,
 *    45 and 60 degrees C;
 *  - charging is constant current up to VBREG, then done at once with TE = 1
 *    (no taper; ITERM is stored only); with TE = 0 the battery is held there;
 *    input current goes to the system load first, the rest up to ICHRG to the
 *    battery (no converter losses); ICHRG codes above 2.5 A give 2.5 A;
 *  - STAT shows the source as ready (not charging) in HZ mode, after a
 *    thermal shutdown, a battery or temperature fault or the safety timer;
 *    111 only when an input is in OVP and no other is usable; HZ mode and
 *    thermal shutdown leave the system on the battery;
 *  - a forced detection restarts one already running; writing D+/D-_EN 0
 *    does not stop it; the result is written into IUSB_LIMIT (000 or 101);
 *    the bus runs at 100 kHz, and a detection also ends once the transfers
 *    to the chip since it began have taken its time on the bus (see
 *    bus_time());
 *  - the safety timer counts charging time only and resets the charge
 *    parameters VBREG, ICHRG and ITERM; 2XTMR_EN is stored only (no VIN-DPM,
 *    DPPM or thermal regulation loop is modeled; DPM_STATUS only compares
 *    the input with its VINDPM threshold);
 *  - the watchdog can be switched off for tests (charger.watchdog = 0);
 *  - the chip stays powered between two runs of the program: its registers,
 *    mode and timers are saved with the board's state and go on from there.
 */
#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "device.h"
#include "gpio.h"
#include "i2c.h"
#include "supply.h"

namespace sim {

namespace {

constexpr int kAddr = 0x6b;
constexpr int kRegs = 8;
constexpr uint8_t kDefault[kRegs] = {0x00, 0x00, 0x8c, 0x14, 0x40, 0x32, 0x00, 0x98};
/* The stored bits; TMR_RST, RESET and D+/D-_EN are actions. */
constexpr uint8_t kStored[kRegs] = {0x08, 0x09, 0x7f, 0xfe, 0x00, 0xff, 0x3f, 0xf9};

constexpr uint8_t kTmrRst = 0x80, kSupplySel = 0x08;         /* register 0 */
constexpr uint8_t kOtgLock = 0x08, kEnNoBatOp = 0x01;        /* register 1 */
constexpr uint8_t kReset = 0x80, kEnStat = 0x08, kTe = 0x04, kCe = 0x02, kHz = 0x01; /* 2 */
constexpr uint8_t kIinLimit = 0x02, kDpDmEn = 0x01;          /* register 3 */
constexpr uint8_t kTmr = 0x60, kTsEn = 0x08, kLowChg = 0x01; /* register 7 */

constexpr ns_t kIntPulse = 128 * kUs;
/* A byte on the bus at 100 kHz: 8 bits and the acknowledge. */
constexpr ns_t kBusByte = 90 * kUs;
constexpr ns_t kDetectKnown = 90 * kMs;
constexpr ns_t kDetectTimeout = 500 * kMs;
constexpr ns_t kWatchdog = 30 * kSec;
constexpr ns_t kSafety[4] = {27 * 60 * kSec, 6 * 3600 * kSec, 9 * 3600 * kSec, kNever};

constexpr double kUvloV = 3.6;
constexpr double kSleepV = 0.04;
constexpr double kUsbOvpV = 6.5;
constexpr double kInOvpV = 10.5;
constexpr double kBatOvp = 1.05;
constexpr double kRechargeV = 0.12;
constexpr double kWarmDropV = 0.14;
constexpr double kMinSysV = 3.5;
constexpr double kMaxChargeMa = 2500;
/* Comparisons with a margin, so that a level reached at the computed moment
 * counts as reached whatever the rounding. */
constexpr double kEps = 1e-9;
constexpr int kUsbLimitMa[8] = {100, 150, 500, 800, 900, 1500, 100, 100};

/* Input status codes (INSTAT, USBSTAT). */
enum { kInNormal = 0, kInOvp = 1, kInWeak = 2, kInUvlo = 3 };
/* FAULT codes. */
enum { kThermal = 1, kBatTemp = 2, kWatchdogFault = 3, kSafetyFault = 4, kInFault = 5, kUsbFault = 6, kBatFault = 7 };
/* The order a latched fault is chosen in when several are there. */
constexpr int kFaultOrder[] = {kThermal, kBatTemp, kInFault, kUsbFault, kSafetyFault, kBatFault};

const char* const kStatText[8] = {"no valid source",   "IN ready",    "USB ready", "charging from IN",
                                  "charging from USB", "charge done", "NA",        "fault"};
const char* const kFaultText[8] = {"normal",        "thermal shutdown", "battery temperature fault",
                                   "watchdog expired", "safety timer expired", "IN supply fault",
                                   "USB supply fault", "battery fault"};
const char* const kInputText[4] = {"normal", "OVP", "weak source", "below UVLO"};
const char* const kBatText[4] = {"battery normal", "battery OVP", "battery absent", "battery NA"};

std::string volts(double v)
{
    char buf[24];
    snprintf(buf, sizeof buf, "%.3fV", v);
    return buf;
}

} // namespace

class Bq24160 : public I2cChip, public Model {
public:
    Bq24160(Board& board, Supply& supply, I2c& i2c);

    int write(const uint8_t* data, size_t n) override;
    int read(uint8_t* data, size_t n) override;

    void reset() override;
    void create_files(Board&) override;
    void advance(ns_t t) override;
    ns_t next_event(ns_t now) override;
    void resume_at(ns_t t) override { last_t_ = t; }

private:
    enum class Phase { Idle, Charging, Done };

    /* What the chip sees of its inputs and settings at one moment. */
    struct Cond {
        int in = kInUvlo, usb = kInUvlo, bat = 0, ts = 0;
        int source = 0;      /* 0 none, 1 IN, 2 USB */
        bool live = false;   /* the converter runs from that source */
        bool can_charge = false;
        unsigned faults = 0; /* bit n: fault code n is there */
        bool operator==(const Cond&) const = default;
    };

    Cond evaluate() const;
    Phase next_phase(const Cond& c) const;
    bool pending() const;
    /* Brings the chip's state to its conditions at t: phase, latched fault,
     * INT, the converter's setting. */
    void apply(ns_t t);
    void settle();

    void write_reg(int reg, uint8_t v, ns_t t);
    uint8_t reg_value(int reg) const;
    void load_defaults();
    void clear_latch();
    void event(int fault, const std::string& why);
    void account(ns_t t);

    void start_detection(ns_t t, bool forced);
    void finish_detection();
    void stop_detection();
    void bus_time(size_t n, ns_t t);

    int code(double v, double ovp) const;
    double usb_in() const { return dip_end_ != kNever ? 0.0 : supply_.usb_v; }
    double input_v(int source) const { return source == 1 ? supply_.external_v : source == 2 ? usb_in() : 0.0; }
    double vbreg() const { return 3.5 + 0.02 * (regs_[3] >> 2); }
    double vreg_eff(const Cond& c) const { return vbreg() - (c.ts == 3 ? kWarmDropV : 0.0); }
    double charge_ma(const Cond& c) const;
    double input_ma(int source) const;
    int ts_code() const;
    ns_t safety_limit() const { return kSafety[(regs_[7] & kTmr) >> 5]; }
    int stat() const;
    int level() const;
    std::string state_text() const;
    std::string usb_dip(const std::vector<std::string>& w);
    void access(ns_t t);
    /* The chip's inner state between two program runs. */
    std::string saved() const;
    bool restore(const std::string& text);

    Board& board_;
    Supply& supply_;
    GpioLine* int_;

    /* Scenario */
    std::string fault_ = "none";
    std::string usb_port_ = "sdp";
    int watchdog_ = 1;

    uint8_t regs_[kRegs] = {};
    uint8_t ptr_ = 0;
    bool host_ = false;
    ns_t wd_deadline_ = kNever;
    int latch_ = 0;
    Phase phase_ = Phase::Idle;
    Cond last_;
    std::vector<std::string> events_;
    ns_t last_t_ = 0;
    ns_t safety_run_ = 0; /* charging time of this cycle */
    bool safety_expired_ = false;
    ns_t pulse_end_ = kNever;
    bool detecting_ = false;
    bool det_forced_ = false;
    std::string det_port_;
    ns_t det_end_ = kNever;
    ns_t det_left_ = 0; /* the detection's time, as the bus measures it */
    ns_t dip_end_ = kNever;
    int expiries_ = 0;       /* watchdog expiries since the board was made */
    bool restored_ = false;  /* the state came from the last run */
};

Bq24160::Bq24160(Board& board, Supply& supply, I2c& i2c) : board_(board), supply_(supply)
{
    int_ = GpioLine::input(board, "chgint", 1);
    i2c.bus(0).attach(kAddr, this);

    auto choice = [](std::string* v, std::vector<std::string> allowed) {
        return [v, allowed](const std::string& s) {
            if (std::find(allowed.begin(), allowed.end(), s) == allowed.end())
                return false;
            *v = s;
            return true;
        };
    };
    Params& p = board.params();
    p.add({"charger.fault", "charger fault: none, thermal (thermal shutdown) or battery (battery fault)",
           [this] { return fault_; }, choice(&fault_, {"none", "thermal", "battery"}), true});
    p.add({"charger.usb_port", "what the USB input is plugged into, as D+/D- detection finds it: sdp (a host "
           "port), cdp (a charging host port), dcp (a charger) or none (no data lines)",
           [this] { return usb_port_; }, choice(&usb_port_, {"sdp", "cdp", "dcp", "none"}), true});
    p.add_int("charger.watchdog", &watchdog_, "1: the charger's 30 s HOST mode watchdog runs; 0: it never expires",
              0, 1);
    p.add_readonly("charger.state", [this] { return state_text(); }, "the charger's state in words");
    p.add_readonly("charger.watchdog_expiries", [this] { return std::to_string(expiries_); },
                   "times the charger's watchdog expired and restored its defaults");
    p.add_internal("charger.chip", [this] { return saved(); }, [this](const std::string& t) { return restore(t); });
    p.add_readonly("charger.regs", [this] {
        uint8_t r[kRegs];
        for (int i = 0; i < kRegs; i++)
            r[i] = reg_value(i);
        return hex_bytes(r, kRegs);
    }, "the charger's registers 0..7 as the program would read them, hex");
    board.add_control("usb-dip", "usb-dip DURATION             the charger's USB input drops out for DURATION\n",
                      [this](const std::string&, const std::vector<std::string>& w) { return usb_dip(w); });
}

/* Power-on: every register at its default, DEFAULT mode. */
void Bq24160::reset()
{
    fault_ = "none";
    usb_port_ = "sdp";
    watchdog_ = 1;
    load_defaults();
    ptr_ = 0;
    host_ = false;
    wd_deadline_ = kNever;
    dip_end_ = kNever;
    expiries_ = 0;
    restored_ = false;
    last_t_ = now_ns();
    settle();
}

/* A chip carried over from the last run has seen its inputs already: it
 * takes them up again without an interrupt. A new one settles on them. */
void Bq24160::create_files(Board&)
{
    if (!restored_) {
        settle();
        return;
    }
    restored_ = false;
    last_ = evaluate();
    apply(last_t_);
}

/* The chip found as its inputs have it, without an interrupt. */
void Bq24160::settle()
{
    ns_t t = now_ns();
    pulse_end_ = kNever;
    events_.clear();
    safety_run_ = 0;
    safety_expired_ = false;
    phase_ = Phase::Idle;
    Cond c = evaluate();
    phase_ = next_phase(c);
    last_ = c;
    latch_ = 0;
    for (int f : kFaultOrder) {
        if (latch_ == 0 && (c.faults & (1u << f)))
            latch_ = f;
    }
    if (last_t_ < t)
        last_t_ = t;
    apply(t);
}

void Bq24160::load_defaults()
{
    for (int r = 0; r < kRegs; r++)
        regs_[r] = kDefault[r] & kStored[r];
    detecting_ = false;
    det_end_ = kNever;
}

int Bq24160::code(double v, double ovp) const
{
    if (v < kUvloV)
        return kInUvlo;
    if (v > ovp)
        return kInOvp;
    if (v <= supply_.battery_v + kSleepV + kEps)
        return kInWeak;
    return kInNormal;
}

int Bq24160::ts_code() const
{
    if (!(regs_[7] & kTsEn))
        return 0;
    double t = supply_.battery_temp_c;
    if (t < 0 || t > 60)
        return 1;
    if (t < 10)
        return 2;
    return t > 45 ? 3 : 0;
}

Bq24160::Cond Bq24160::evaluate() const
{
    Cond c;
    double vb = supply_.battery_v;
    c.in = code(supply_.external_v, kInOvpV);
    c.usb = code(usb_in(), kUsbOvpV);
    bool in_ok = c.in == kInNormal;
    bool usb_ok = c.usb == kInNormal && !(regs_[1] & kOtgLock);
    if (in_ok && usb_ok)
        c.source = (regs_[0] & kSupplySel) ? 2 : 1;
    else
        c.source = in_ok ? 1 : usb_ok ? 2 : 0;
    bool thermal = fault_ == "thermal";
    c.live = c.source != 0 && !(regs_[2] & kHz) && !thermal;
    if (fault_ == "battery")
        c.bat = 2;
    else if (c.live && !(regs_[1] & kEnNoBatOp) && vb > kBatOvp * vbreg() + kEps)
        c.bat = 1;
    c.ts = ts_code();
    if (thermal)
        c.faults |= 1u << kThermal;
    if (c.live && c.ts == 1)
        c.faults |= 1u << kBatTemp;
    if (safety_expired_)
        c.faults |= 1u << kSafetyFault;
    if (c.in == kInOvp)
        c.faults |= 1u << kInFault;
    if (c.usb == kInOvp)
        c.faults |= 1u << kUsbFault;
    if (c.bat != 0)
        c.faults |= 1u << kBatFault;
    c.can_charge = c.live && !(regs_[2] & kCe) && c.bat == 0 && c.ts != 1 && !safety_expired_;
    return c;
}

Bq24160::Phase Bq24160::next_phase(const Cond& c) const
{
    if (!c.can_charge)
        return Phase::Idle;
    double vb = supply_.battery_v;
    double vr = vreg_eff(c);
    switch (phase_) {
    case Phase::Idle:
        return vb >= vr - kEps ? Phase::Done : Phase::Charging;
    case Phase::Charging:
        return (regs_[2] & kTe) && vb >= vr - kEps ? Phase::Done : Phase::Charging;
    case Phase::Done:
        return vb <= vr - kRechargeV + kEps ? Phase::Charging : Phase::Done;
    }
    return phase_;
}

bool Bq24160::pending() const
{
    Cond c = evaluate();
    return !(c == last_) || next_phase(c) != phase_ || !events_.empty();
}

double Bq24160::charge_ma(const Cond& c) const
{
    double ma = std::min(550.0 + 75.0 * (regs_[5] >> 3), kMaxChargeMa);
    if (regs_[7] & kLowChg)
        ma /= 2;
    if (c.ts == 2)
        ma /= 2;
    return ma;
}

double Bq24160::input_ma(int source) const
{
    if (source == 1)
        return (regs_[3] & kIinLimit) ? 2500 : 1500;
    return kUsbLimitMa[(regs_[2] >> 4) & 7];
}

void Bq24160::account(ns_t t)
{
    if (t <= last_t_)
        return;
    if (phase_ == Phase::Charging)
        safety_run_ += t - last_t_;
    last_t_ = t;
}

void Bq24160::event(int fault, const std::string& why)
{
    if (latch_ == 0)
        latch_ = fault;
    events_.push_back(why);
}

void Bq24160::apply(ns_t t)
{
    Cond c = evaluate();
    if (safety_expired_ && c.source == 0) {
        safety_expired_ = false; /* a supply power-on starts over */
        c = evaluate();
    }
    std::vector<std::string> why;
    why.swap(events_);
    if (c.in != last_.in)
        why.push_back(std::string("IN ") + kInputText[c.in]);
    if (c.usb != last_.usb) {
        why.push_back(std::string("USB ") + kInputText[c.usb]);
        if (last_.usb == kInUvlo && !host_ && !detecting_)
            start_detection(t, false);
    }
    if (c.bat != last_.bat)
        why.push_back(kBatText[c.bat]);
    unsigned fresh = c.faults & ~last_.faults;
    for (int f : kFaultOrder) {
        if (fresh & (1u << f)) {
            if (latch_ == 0)
                latch_ = f;
            why.push_back(kFaultText[f]);
        }
    }
    Phase p = next_phase(c);
    if (p == Phase::Charging && phase_ != Phase::Charging)
        safety_run_ = 0; /* a new charge cycle */
    phase_ = p;
    last_ = c;

    if (!why.empty()) {
        std::string details;
        for (const std::string& w : why)
            details += (details.empty() ? "" : ", ") + w;
        board_.journal("charger", "int", details);
        pulse_end_ = t + kIntPulse;
    }
    int_->drive(level());

    Supply::Converter cv;
    if (c.live) {
        cv.input_v = input_v(c.source);
        cv.input_ma = input_ma(c.source);
    }
    cv.charge_ma = phase_ == Phase::Charging ? charge_ma(c) : 0.0;
    cv.regulation_v = vreg_eff(c);
    if (cv != supply_.converter())
        supply_.set_converter(cv, t);
}

int Bq24160::level() const
{
    if (pulse_end_ != kNever)
        return 0;
    return phase_ == Phase::Charging && (regs_[2] & kEnStat) ? 0 : 1;
}

int Bq24160::stat() const
{
    if (last_.source == 0)
        return last_.in == kInOvp || last_.usb == kInOvp ? 7 : 0;
    switch (phase_) {
    case Phase::Charging:
        return last_.source == 1 ? 3 : 4;
    case Phase::Done:
        return 5;
    case Phase::Idle:
        break;
    }
    return last_.source == 1 ? 1 : 2;
}

/* Events come in time order: the board stops at each one next_event()
 * names. */
void Bq24160::advance(ns_t t)
{
    account(t);
    if (dip_end_ != kNever && t >= dip_end_)
        dip_end_ = kNever;
    if (detecting_ && t >= det_end_)
        finish_detection();
    if (host_ && watchdog_ && t >= wd_deadline_) {
        load_defaults();
        host_ = false;
        wd_deadline_ = kNever;
        expiries_++;
        event(kWatchdogFault, kFaultText[kWatchdogFault]);
    }
    if (phase_ == Phase::Charging && !safety_expired_ && safety_run_ >= safety_limit()) {
        safety_expired_ = true;
        if (host_) {
            regs_[2] |= kCe;
            regs_[3] = static_cast<uint8_t>((regs_[3] & 0x03) | (kDefault[3] & 0xfc));
            regs_[5] = kDefault[5];
        }
    }
    if (pulse_end_ != kNever && t >= pulse_end_)
        pulse_end_ = kNever;
    apply(t);
}

ns_t Bq24160::next_event(ns_t now)
{
    if (pending())
        return now;
    ns_t next = pulse_end_;
    if (detecting_)
        next = std::min(next, det_end_);
    if (host_ && watchdog_)
        next = std::min(next, wd_deadline_);
    next = std::min(next, dip_end_);
    double vr = vreg_eff(last_);
    if (phase_ == Phase::Charging) {
        if (safety_limit() != kNever && !safety_expired_)
            next = std::min(next, last_t_ + (safety_limit() - safety_run_));
        if (regs_[2] & kTe)
            next = std::min(next, supply_.reach_time(vr, now));
    } else if (phase_ == Phase::Done) {
        next = std::min(next, supply_.reach_time(vr - kRechargeV, now));
    }
    /* The battery crossing into or out of an input's sleep band, or out of OVP. */
    for (int source = 1; source <= 2; source++) {
        int st = source == 1 ? last_.in : last_.usb;
        double thr = input_v(source) - kSleepV;
        if (st == kInNormal)
            next = std::min(next, supply_.reach_time(thr, now));
        else if (st == kInWeak)
            next = std::min(next, supply_.reach_time(thr - 2 * kEps, now));
    }
    if (last_.bat == 1)
        next = std::min(next, supply_.reach_time(kBatOvp * vbreg(), now));
    return std::max(next, now);
}

void Bq24160::start_detection(ns_t t, bool forced)
{
    detecting_ = true;
    det_forced_ = forced;
    det_port_ = code(usb_in(), kUsbOvpV) == kInUvlo ? "none" : usb_port_;
    det_left_ = det_port_ == "none" ? kDetectTimeout : kDetectKnown;
    det_end_ = t + det_left_;
    board_.journal("charger", "detect", forced ? "start" : "start (plug-in)");
}

void Bq24160::finish_detection()
{
    int limit = det_port_ == "cdp" || det_port_ == "dcp" ? 5 : 0;
    regs_[2] = static_cast<uint8_t>((regs_[2] & 0x8f) | (limit << 4));
    detecting_ = false;
    det_end_ = kNever;
    board_.journal("charger", "detect", det_port_ + " " + std::to_string(kUsbLimitMa[limit]) + "mA");
}

void Bq24160::stop_detection()
{
    detecting_ = false;
    det_end_ = kNever;
    board_.journal("charger", "detect", "stopped");
}

/* Transfers take their time on the bus, time the chip sees pass. The board
 * counts time only while the program waits, and a program that polls the
 * chip without a pause (as D+/D-_EN is polled) would never see the detection
 * end; so the detection also ends once the bus time of the transfers since
 * it began has covered it. */
void Bq24160::bus_time(size_t n, ns_t t)
{
    if (!detecting_)
        return;
    det_left_ -= static_cast<ns_t>(n + 1) * kBusByte;
    if (det_left_ <= 0 && t < det_end_)
        finish_detection();
}

/* Any transfer puts the chip in HOST mode and starts its watchdog, unless
 * it runs already: only TMR_RST restarts it. */
void Bq24160::access(ns_t t)
{
    if (!host_) {
        host_ = true;
        wd_deadline_ = t + kWatchdog;
    }
}

/* A first byte sets the register pointer; the bytes after it are written
 * from there on. */
int Bq24160::write(const uint8_t* d, size_t n)
{
    if (n == 0)
        return 0;
    ns_t t = now_ns();
    account(t);
    bus_time(n, t);
    access(t);
    ptr_ = d[0];
    for (size_t i = 1; i < n; i++) {
        access(t); /* again after a RESET in this transfer */
        write_reg(ptr_, d[i], t);
        ptr_++;
    }
    apply(t);
    return 0;
}

void Bq24160::write_reg(int reg, uint8_t v, ns_t t)
{
    if (reg >= kRegs)
        return;
    uint8_t old = regs_[reg];
    switch (reg) {
    case 0:
        if (v & kTmrRst)
            wd_deadline_ = t + kWatchdog;
        break;
    case 2:
        if (v & kReset) {
            board_.journal("charger", "reset");
            load_defaults();
            host_ = false;
            wd_deadline_ = kNever;
            return;
        }
        if (detecting_)
            stop_detection();
        if ((old & kCe) && !(v & kCe))
            safety_expired_ = false;
        break;
    case 3:
        if (v & kDpDmEn)
            start_detection(t, true);
        break;
    case 7:
        if ((old ^ v) & kTmr)
            safety_run_ = 0;
        break;
    default:
        break;
    }
    regs_[reg] = static_cast<uint8_t>(v & kStored[reg]);
}

uint8_t Bq24160::reg_value(int reg) const
{
    switch (reg) {
    case 0:
        return static_cast<uint8_t>(stat() << 4 | (regs_[0] & kSupplySel) | latch_);
    case 1:
        return static_cast<uint8_t>(last_.in << 6 | last_.usb << 4 | last_.bat << 1 | regs_[1]);
    case 2:
        return static_cast<uint8_t>(kReset | regs_[2]);
    case 3:
        return static_cast<uint8_t>(regs_[3] | (detecting_ && det_forced_ ? kDpDmEn : 0));
    case 4:
        return kDefault[4];
    case 6: {
        bool minsys = last_.live && supply_.battery_v < kMinSysV;
        int dpm_code = last_.source == 1 ? (regs_[6] & 7) : (regs_[6] >> 3) & 7;
        bool dpm = last_.live && input_v(last_.source) < 4.2 + 0.08 * dpm_code;
        return static_cast<uint8_t>(minsys << 7 | dpm << 6 | regs_[6]);
    }
    case 7:
        return static_cast<uint8_t>(regs_[7] | ts_code() << 1);
    default:
        return reg < kRegs ? regs_[reg] : 0xff;
    }
}

/* FAULT stays until it is read with its cause gone; then it shows the next
 * fault still there, if any. */
void Bq24160::clear_latch()
{
    if (latch_ != 0 && latch_ != kWatchdogFault && (last_.faults & (1u << latch_)))
        return;
    latch_ = 0;
    for (int f : kFaultOrder) {
        if (latch_ == 0 && (last_.faults & (1u << f)))
            latch_ = f;
    }
}

int Bq24160::read(uint8_t* d, size_t n)
{
    ns_t t = now_ns();
    bus_time(n, t);
    access(t);
    apply(t);
    bool status_read = false;
    for (size_t i = 0; i < n; i++) {
        d[i] = reg_value(ptr_);
        status_read |= ptr_ == 0;
        ptr_++;
    }
    if (status_read)
        clear_latch();
    return 0;
}

std::string Bq24160::state_text() const
{
    std::string s = kStatText[stat()];
    if (latch_ != 0)
        s += std::string(", ") + kFaultText[latch_];
    s += host_ ? ", host mode" : ", default mode";
    if (detecting_)
        s += ", detecting";
    if (dip_end_ != kNever)
        s += ", USB dip";
    s += ", battery " + volts(supply_.battery_v);
    return s;
}

std::string Bq24160::usb_dip(const std::vector<std::string>& w)
{
    ns_t d = 0;
    if (w.size() != 2 || !parse_duration(w[1], &d) || d <= 0)
        return "error: usage: usb-dip DURATION (200ms, 1s)\n";
    ns_t t = now_ns();
    dip_end_ = std::max(dip_end_ == kNever ? 0 : dip_end_, t + d);
    board_.journal("charger", "usb-dip", w[1]);
    apply(t);
    return "ok\n";
}

/* "key=value" words; times are board times, which go on across runs. */
std::string Bq24160::saved() const
{
    std::string regs = hex_bytes(regs_, kRegs);
    std::replace(regs.begin(), regs.end(), ' ', '.');
    std::ostringstream out;
    out << "regs=" << regs << " ptr=" << int{ptr_} << " host=" << host_
        << " wd=" << wd_deadline_ << " latch=" << latch_ << " phase=" << static_cast<int>(phase_)
        << " safety_run=" << safety_run_ << " safety_expired=" << safety_expired_ << " detecting=" << detecting_
        << " det_forced=" << det_forced_ << " det_port=" << (det_port_.empty() ? "-" : det_port_)
        << " det_end=" << det_end_ << " det_left=" << det_left_ << " dip_end=" << dip_end_
        << " expiries=" << expiries_;
    return out.str();
}

bool Bq24160::restore(const std::string& text)
{
    std::map<std::string, std::string> v;
    std::istringstream in(text);
    for (std::string word; in >> word;) {
        size_t eq = word.find('=');
        if (eq != std::string::npos)
            v[word.substr(0, eq)] = word.substr(eq + 1);
    }
    std::string regs;
    std::string hex = v["regs"];
    std::replace(hex.begin(), hex.end(), '.', ' ');
    if (!parse_hex_bytes(hex, &regs) || regs.size() != kRegs)
        return false;
    auto num = [&v](const char* key) { return strtoll(v[key].c_str(), nullptr, 10); };
    for (int r = 0; r < kRegs; r++)
        regs_[r] = static_cast<uint8_t>(regs[r]);
    ptr_ = static_cast<uint8_t>(num("ptr"));
    host_ = num("host") != 0;
    wd_deadline_ = num("wd");
    latch_ = static_cast<int>(num("latch")) & 7;
    phase_ = static_cast<Phase>(std::clamp<long long>(num("phase"), 0, 2));
    safety_run_ = num("safety_run");
    safety_expired_ = num("safety_expired") != 0;
    detecting_ = num("detecting") != 0;
    det_forced_ = num("det_forced") != 0;
    det_port_ = v["det_port"] == "-" ? "" : v["det_port"];
    det_end_ = num("det_end");
    det_left_ = num("det_left");
    dip_end_ = num("dip_end");
    expiries_ = static_cast<int>(num("expiries"));
    pulse_end_ = kNever;
    events_.clear();
    restored_ = true;
    return true;
}

VELASIM_DEVICE(Bq24160, Supply, I2c);

} // namespace sim

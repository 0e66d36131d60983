#include "pru_engine.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "uio_pruss.h"

namespace sim {

namespace {

constexpr ns_t kTick = 5;                 /* 200 MHz */
/* How often the board stops for the cores. The host sees their work in
 * shared memory whenever it looks (each advance runs them up to then); only
 * an interrupt to the host needs the board's attention, and one 1 ms late is
 * within what the program allows the firmware. Stopping at every compare
 * hit made a 10 s acquisition cost 17 s in warp mode. */
constexpr ns_t kRunQuantum = 1000 * kUs;
constexpr uint32_t kIram[2] = {0x34000, 0x38000};
constexpr uint32_t kControl[2] = {0x22000, 0x24000};
constexpr uint32_t kOtherRam = 0x2000, kRamEnd = 0x4000;
constexpr uint32_t kIntcEnd = 0x22000, kControlEnd = 0x26000;
constexpr uint32_t kIep = 0x2E000, kIepEnd = 0x2F000;
constexpr uint32_t kOcp = 0x80000;        /* from here the master port: global addresses */
constexpr uint32_t kSyscfg = Pruss::kCfg + 4;
constexpr uint32_t kStandbyInit = 1u << 4;
constexpr uint32_t kOutState = Pruss::kSharedRam + 52;

/* Control block registers and CONTROL bits. */
enum : uint32_t { CONTROL = 0x0, STATUS = 0x4, WAKEUP_EN = 0x8, CYCLE = 0xC, CTBIR0 = 0x20, CTBIR1 = 0x24,
                  CTPPR0 = 0x28, CTPPR1 = 0x2C };
constexpr uint32_t kEnable = 1u << 1, kCounterEnable = 1u << 3, kRunState = 1u << 15;

/* IEP registers. */
enum : uint32_t { GLOBAL_CFG = 0x00, GLOBAL_STATUS = 0x04, COUNT = 0x0C, CMP_CFG = 0x40, CMP_STATUS = 0x44,
                  CMP0 = 0x48 };
constexpr uint32_t kIepReset = 0x550;
constexpr int kIepEvent = 7;

/* Interrupt controller status registers the cores may read. */
constexpr uint32_t kSrsr0 = 0x200, kSecr0 = 0x280;

constexpr int kEvtToHost = 19;
constexpr uint32_t kHostBits = 3u << 30;
constexpr uint32_t kAdcPins = PruAdc::kBusy | 0xFFFF;

constexpr uint32_t kConstants[24] = {
    0x00020000, 0x48040000, 0x4802A000, 0x00030000, 0x00026000, 0x48060000, 0x48030000, 0x00028000,
    0x46000000, 0x4A100000, 0x48318000, 0x48022000, 0x48024000, 0x48310000, 0x481CC000, 0x481D0000,
    0x481A0000, 0x4819C000, 0x48300000, 0x48302000, 0x48304000, 0x00032400, 0x480C8000, 0x480CA000,
};

const char* state_name(PruCore::State s)
{
    switch (s) {
    case PruCore::State::Off: return "off";
    case PruCore::State::Running: return "running";
    case PruCore::State::Waiting: return "waiting";
    case PruCore::State::Halted: return "halted";
    }
    return "";
}

cycle_t div_up(cycle_t a, cycle_t b)
{
    return (a + b - 1) / b;
}

} // namespace

PruEngine::PruEngine(Pruss& pruss, Board& board, Probe& probe, MeasChannel& meas, Drive& drive, PruFirmware& model)
    : pruss_(pruss), board_(board), probe_(probe), meas_(meas), drive_(drive), model_(model),
      core0_(0, *this, reinterpret_cast<const uint32_t*>(pruss.mem(kIram[0])), scratch_),
      core1_(1, *this, reinterpret_cast<const uint32_t*>(pruss.mem(kIram[1])), scratch_),
      adc_([this](cycle_t c) { return sample(c); }), excitation_(meas)
{
    Params& p = board.params();
    p.add({"pru.engine", "what runs on the PRUs: firmware (the loaded images, instruction by instruction) or model",
           [this] { return std::string(selected_ ? "firmware" : "model"); },
           [this](const std::string& t) {
               if (t != "firmware" && t != "model")
                   return false;
               selected_ = t == "firmware";
               return true;
           },
           true});
    for (int pru = 0; pru < 2; pru++) {
        std::string k = "pru" + std::to_string(pru);
        p.add_readonly(k + ".state", [this, pru] { return std::string(state_name(core(pru).state())); },
                       "core: off, running, waiting (blocked on an input) or halted");
        p.add_readonly(k + ".pc", [this, pru] {
            char b[16];
            snprintf(b, sizeof b, "0x%04x", core(pru).pc());
            return std::string(b);
        }, "core: program counter (word address)");
        p.add_readonly(k + ".cycles", [this, pru] { return std::to_string(core(pru).cycles()); },
                       "core: cycles since it was started");
        p.add_readonly(k + ".insns", [this, pru] { return std::to_string(core(pru).insns()); },
                       "core: instructions executed since it was started (the host's cost)");
    }
    p.add_readonly("pru.state", [this] { return state(); }, "firmware: off, booting, idle or acquiring");
}

void PruEngine::reset()
{
    selected_ = true;
    core0_.clear();
    core1_.clear();
    std::fill(std::begin(scratch_), std::end(scratch_), 0u);
    adc_.reset();
    excitation_.reset();
    /* A new board carries on from now. */
    done_ = static_cast<cycle_t>(now_ns() / kTick);
    pos_time_ = now_ = now_ns();
    pos_mm_ = drive_.position_mm;
    for (int pru = 0; pru < 2; pru++) {
        control_seen_[pru] = pruss_.reg(kControl[pru]);
        counter_[pru] = {};
    }
    pruss_.reg(kIep + GLOBAL_CFG) = kIepReset;
    iep_anchor_ = 0;
    iep_count0_ = 0;
    iep_configured();
    iep_next_ = kNeverCycle;
    conv_index_ = 0;
}

/* The model's, or what the firmware shows of itself. */
std::string PruEngine::state() const
{
    if (!selected_)
        return model_.state();
    if (!core0_.active())
        return "off";
    return pruss_.word(kOutState) == 1 ? "acquiring" : "idle";
}

/* ---- scheduling ---- */

bool PruEngine::frozen() const
{
    /* pru.fault no-stop: PRU0 stops in the middle of an acquisition. */
    return model_.fault() == PruFirmware::Fault::NoStop && core0_.active() &&
           pruss_.word(kOutState) == 1;
}

void PruEngine::advance(ns_t now)
{
    cycle_t end = static_cast<cycle_t>(now / kTick);
    if (!selected_) {
        /* Keeps the time and the program's control words, so that a switch
         * to the firmware starts from here. */
        for (int pru = 0; pru < 2; pru++)
            control_seen_[pru] = pruss_.reg(kControl[pru]);
    }
    if (!selected_ || end < done_) {
        done_ = end;
        pos_time_ = now;
        pos_mm_ = drive_.position_mm;
        iep_anchor_ = end;
        iep_configured();
    }
    now_ = now;
    if (!selected_)
        return;
    cycle_t from = done_ + 1;
    excitation_.update(from);
    take_control(from);
    /* The program may have written anything since: blocked cores look again. */
    core0_.poke(from);
    core1_.poke(from);
    for (;;) {
        if (frozen() && core0_.cycle() <= end)
            core0_.freeze_until(end + 1);
        PruCore* a = nullptr;
        for (PruCore* c : {&core0_, &core1_}) {
            if (c->active() && c->cycle() <= end && (a == nullptr || c->cycle() < a->cycle()))
                a = c;
        }
        if (a == nullptr)
            break;
        if (iep_next_ < a->cycle()) {
            iep_catch_up(a->cycle());
            continue;
        }
        const PruCore& b = a == &core0_ ? core1_ : core0_;
        cycle_t sync = iep_next_;
        if (b.active() && b.cycle() != kNeverCycle)
            sync = std::min(sync, a == &core0_ ? b.cycle() : b.cycle() - 1);
        running_ = a;
        a->run(end, sync);
        running_ = nullptr;
    }
    done_ = end;
    pos_time_ = now;
    pos_mm_ = drive_.position_mm;
    publish();
}

/* The running core goes no further than the other core's next instruction
 * (PRU0 first on a tie). */
void PruEngine::bound_running()
{
    if (running_ == nullptr)
        return;
    const PruCore& b = running_ == &core0_ ? core1_ : core0_;
    if (b.active() && b.cycle() != kNeverCycle)
        running_->limit(running_ == &core0_ ? b.cycle() : b.cycle() - 1);
}

/* The interrupt controller or the timer changed: it reaches the other
 * cores only through their host-interrupt bits in R31. */
void PruEngine::poke_others(const PruCore* from, cycle_t c)
{
    for (PruCore* p : {&core0_, &core1_}) {
        if (p != from)
            p->poke(c, kHostBits);
    }
    bound_running();
}

ns_t PruEngine::next_event(ns_t now) const
{
    if (!selected_)
        return kNever;
    ns_t t = kNever;
    for (int pru = 0; pru < 2; pru++) {
        const PruCore& c = core(pru);
        if (!c.active() || c.cycle() == kNeverCycle || (pru == 0 && frozen()))
            continue;
        ns_t at = std::max(static_cast<ns_t>(c.cycle()) * kTick, now + kRunQuantum);
        t = std::min(t, at);
    }
    return t;
}

/* A write of CONTROL by the program (it differs from what the board left
 * there): with ENABLE the core starts at PCOUNTER_RST_VAL, without it stops. */
void PruEngine::take_control(cycle_t c)
{
    for (int pru = 0; pru < 2; pru++) {
        uint32_t ctl = pruss_.reg(kControl[pru]);
        if (ctl == control_seen_[pru])
            continue;
        control_seen_[pru] = ctl;
        counter_[pru].base = pruss_.reg(kControl[pru] + CYCLE);
        counter_[pru].at = c;
        if (ctl & kEnable)
            core(pru).start(ctl >> 16, c);
        else
            core(pru).stop();
        recount(pru, c);
    }
}

uint32_t PruEngine::control_word(int pru) const
{
    const PruCore& c = core(pru);
    uint32_t ctl = pruss_.word(kControl[pru]) & ~(kRunState | kEnable);
    if (c.active())
        ctl |= kEnable | kRunState;
    return ctl;
}

/* The registers as the program reads them between two advances. */
void PruEngine::publish()
{
    for (int pru = 0; pru < 2; pru++) {
        if (core(pru).state() == PruCore::State::Off && control_seen_[pru] == pruss_.reg(kControl[pru]))
            continue; /* never started: the program's values stay */
        uint32_t ctl = control_word(pru);
        pruss_.reg(kControl[pru]) = control_seen_[pru] = ctl;
        pruss_.reg(kControl[pru] + STATUS) = core(pru).pc();
        pruss_.reg(kControl[pru] + CYCLE) = cycle_counter(pru, done_ + 1);
    }
}

uint32_t PruEngine::cycle_counter(int pru, cycle_t c) const
{
    const Counter& k = counter_[pru];
    if (!k.counting || c <= k.at)
        return k.base;
    return static_cast<uint32_t>(std::min<cycle_t>(0xFFFFFFFF, k.base + (c - k.at)));
}

void PruEngine::recount(int pru, cycle_t c)
{
    counter_[pru].base = cycle_counter(pru, c);
    counter_[pru].at = c;
    counter_[pru].counting = core(pru).active() && (pruss_.reg(kControl[pru]) & kCounterEnable);
}

/* ---- the bus ---- */

uint32_t PruEngine::input(int pru, cycle_t c)
{
    uint32_t hosts = pruss_.r31_hosts();
    if (pru == 0)
        return hosts | adc_.pins(c);
    return hosts | (excitation_.comparator(c) ? 1u : 0u);
}

cycle_t PruEngine::input_change(int pru, uint32_t mask, cycle_t c)
{
    cycle_t t = kNeverCycle;
    if ((mask & kHostBits) && iep_next_ != kNeverCycle)
        t = std::max(iep_next_, c) + 1;
    if (pru == 0 && (mask & kAdcPins))
        t = std::min(t, adc_.next_change(c));
    if (pru == 1 && (mask & 1))
        t = std::min(t, excitation_.next_edge(c));
    return t;
}

void PruEngine::output(int pru, uint32_t r30, cycle_t c)
{
    if (pru == 0)
        adc_.convst(r30 & 1, c, model_.fault() == PruFirmware::Fault::Stall);
    else
        excitation_.reference(r30 & 1, c);
}

void PruEngine::event(int pru, int sysevent, cycle_t c)
{
    if (sysevent == kEvtToHost && model_.fault() == PruFirmware::Fault::NoSignal)
        return;
    pruss_.raise(sysevent);
    pruss_.hosts_changed();
    poke_others(&core(pru), c + 1);
}

void PruEngine::halted(int pru, uint32_t pc, const std::string& why)
{
    char text[96];
    snprintf(text, sizeof text, "pru%d pc=0x%04x ", pru, pc);
    board_.journal("pruss", "halt", text + why);
    recount(pru, core(pru).cycle());
}

uint32_t PruEngine::constant(int pru, unsigned index)
{
    if (index < 24)
        return kConstants[index];
    uint32_t ctl = kControl[pru];
    uint32_t bir0 = pruss_.reg(ctl + CTBIR0), bir1 = pruss_.reg(ctl + CTBIR1);
    uint32_t ppr0 = pruss_.reg(ctl + CTPPR0), ppr1 = pruss_.reg(ctl + CTPPR1);
    switch (index) {
    case 24: return (bir0 & 0xF) << 8;
    case 25: return 0x2000 | ((bir0 >> 16) & 0xF) << 8;
    case 26: return 0x2E000 | (bir1 & 0xF) << 8;
    case 27: return 0x32000 | ((bir1 >> 16) & 0xF) << 8;
    case 28: return (ppr0 & 0xFFFF) << 8;
    case 29: return 0x49000000 | (ppr0 >> 16) << 8;
    case 30: return 0x40000000 | (ppr1 & 0xFFFF) << 8;
    default: return 0x80000000 | (ppr1 >> 16) << 8;
    }
}

namespace {

/* The subsystem offset of a local address: each core sees its own data RAM
 * at 0 and the other's at 0x2000. */
uint32_t local_offset(int pru, uint32_t addr)
{
    return pru == 1 && addr < kRamEnd ? addr ^ kOtherRam : addr;
}

bool has_registers(uint32_t off, uint32_t len)
{
    uint32_t last = off + len - 1;
    return (last >= Pruss::kIntc && off < kControlEnd) || (last >= kIep && off < kIepEnd);
}

unsigned read_cost(uint32_t off, uint32_t words)
{
    if (off >= kIep && off < kIepEnd)
        return 11 + words;
    if (off >= kIntcEnd && off < kControlEnd)
        return 3 + words;
    return 2 + words;
}

} // namespace

bool PruEngine::load(int pru, uint32_t addr, uint8_t* dst, uint32_t len, cycle_t c, unsigned* cost,
                     const char** why)
{
    uint32_t words = (len + 3) / 4;
    if (addr >= kOcp) {
        if (pruss_.reg(kSyscfg) & kStandbyInit) {
            *why = "DDR access with STANDBY_INIT set";
            return false;
        }
        *cost = 35 + words;
        if (const uint8_t* p = pruss_.ddr(addr, len))
            memcpy(dst, p, len);
        else
            memset(dst, 0, len); /* nothing of ours answers there */
        return true;
    }
    uint32_t off = local_offset(pru, addr);
    *cost = read_cost(off, words);
    if (off + len > Pruss::kRegsSize) {
        memset(dst, 0, len);
        return true;
    }
    if (!has_registers(off, len)) {
        memcpy(dst, pruss_.mem(off), len);
        return true;
    }
    for (uint32_t i = 0; i < len;) {
        uint32_t word = (off + i) & ~3u, from = off + i - word, n = std::min(4 - from, len - i);
        uint32_t v = read_reg(word, c);
        memcpy(dst + i, reinterpret_cast<uint8_t*>(&v) + from, n);
        i += n;
    }
    return true;
}

bool PruEngine::store(int pru, uint32_t addr, const uint8_t* src, uint32_t len, cycle_t c, const char** why)
{
    if (addr >= kOcp) {
        if (pruss_.reg(kSyscfg) & kStandbyInit) {
            *why = "DDR access with STANDBY_INIT set";
            return false;
        }
        if (uint8_t* p = pruss_.ddr(addr, len))
            memcpy(p, src, len);
        return true;
    }
    uint32_t off = local_offset(pru, addr);
    if (off + len > Pruss::kRegsSize)
        return true;
    if (!has_registers(off, len)) {
        uint32_t state = pruss_.word(kOutState);
        memcpy(pruss_.mem(off), src, len);
        if (pruss_.word(kOutState) != state)
            PruFirmware::journal_state(board_, pruss_);
        if (pru == 0 && frozen())
            core0_.limit(c); /* no-stop: nothing more from PRU0 */
        return true;
    }
    for (uint32_t i = 0; i < len;) {
        uint32_t word = (off + i) & ~3u, from = off + i - word, n = std::min(4 - from, len - i);
        uint32_t v = pruss_.reg(word);
        memcpy(reinterpret_cast<uint8_t*>(&v) + from, src + i, n);
        write_reg(pru, word, v, c);
        i += n;
    }
    return true;
}

uint32_t PruEngine::read_reg(uint32_t off, cycle_t c)
{
    if (off >= Pruss::kIntc && off < kIntcEnd) {
        uint32_t r = off - Pruss::kIntc;
        if (r == kSrsr0 || r == kSrsr0 + 4)
            return static_cast<uint32_t>(pruss_.intc_status() >> (r == kSrsr0 ? 0 : 32));
        if (r == kSecr0 || r == kSecr0 + 4)
            return static_cast<uint32_t>((pruss_.intc_status() & pruss_.intc_enabled()) >> (r == kSecr0 ? 0 : 32));
    } else if (off >= kIntcEnd && off < kControlEnd) {
        int which = off < kControl[1] ? 0 : 1;
        switch (off - kControl[which]) {
        case CONTROL: return control_word(which);
        case STATUS: return core(which).pc();
        case CYCLE: return cycle_counter(which, c);
        default: break;
        }
    } else if (off == kIep + COUNT) {
        return iep_count(c);
    }
    return pruss_.reg(off);
}

void PruEngine::write_reg(int pru, uint32_t off, uint32_t v, cycle_t c)
{
    if (off >= kIep) {
        iep_write(off - kIep, v, c);
        poke_others(&core(pru), c + 1);
        return;
    }
    if (off < kIntcEnd) {
        pruss_.reg(off) = v;
        pruss_.intc_changed();
        poke_others(&core(pru), c + 1);
        return;
    }
    int which = off < kControl[1] ? 0 : 1;
    uint32_t r = off - kControl[which];
    if (r == CYCLE) {
        counter_[which].base = v;
        counter_[which].at = c;
        return;
    }
    pruss_.reg(off) = v;
    if (r != CONTROL)
        return;
    /* The core's own write (its counter bit): not a start by the program. */
    control_seen_[which] = v;
    if (!(v & kEnable))
        core(which).stop();
    recount(which, c);
}

/* ---- the IEP timer ---- */

uint32_t PruEngine::iep(uint32_t reg) const
{
    return pruss_.word(kIep + reg);
}

/* After a write: the cycle COUNT first reaches CMP0 (kNeverCycle when the
 * counter or the compare is off), and the period of the hits when CMP0
 * resets the counter: the cycle after a hit COUNT is 0, so the period is
 * CMP0 / increment + 1 cycles (0 without the reset). */
void PruEngine::iep_configured()
{
    uint32_t cfg = iep(GLOBAL_CFG), inc = (cfg >> 4) & 0xF, cmp0 = iep(CMP0);
    iep_first_ = kNeverCycle;
    iep_period_ = 0;
    if (!(cfg & 1) || inc == 0 || !(iep(CMP_CFG) & 2))
        return;
    iep_first_ = iep_anchor_ + (iep_count0_ >= cmp0 ? 0 : div_up(cmp0 - iep_count0_, inc));
    if (iep(CMP_CFG) & 1)
        iep_period_ = 1 + div_up(cmp0, inc);
}

uint32_t PruEngine::iep_count(cycle_t c) const
{
    uint32_t cfg = iep(GLOBAL_CFG), inc = (cfg >> 4) & 0xF;
    if (!(cfg & 1) || c <= iep_anchor_)
        return iep_count0_;
    if (iep_period_ == 0 || c <= iep_first_)
        return static_cast<uint32_t>(iep_count0_ + (c - iep_anchor_) * inc);
    return static_cast<uint32_t>(((c - iep_first_ - 1) % iep_period_) * inc);
}

cycle_t PruEngine::iep_hit_from(cycle_t c) const
{
    if (iep_first_ == kNeverCycle || c <= iep_first_)
        return iep_first_;
    if (iep_period_ == 0)
        return kNeverCycle;
    return iep_first_ + div_up(c - iep_first_, iep_period_) * iep_period_;
}

void PruEngine::iep_write(uint32_t reg, uint32_t v, cycle_t c)
{
    iep_count0_ = iep_count(c);
    iep_anchor_ = c;
    uint32_t& r = pruss_.reg(kIep + reg);
    if (reg == COUNT)
        iep_count0_ = v;
    else if (reg == CMP_STATUS || reg == GLOBAL_STATUS)
        r &= ~v; /* write 1 to clear */
    else
        r = v;
    iep_configured();
    iep_next_ = iep_hit_from(c);
    if (running_ != nullptr)
        running_->limit(iep_next_);
}

/* The compare hits before cycle `before`: CMP_STATUS and event 7 are
 * sticky, so the last one stands for them all. */
void PruEngine::iep_catch_up(cycle_t before)
{
    cycle_t period = iep_period_;
    cycle_t hit = iep_next_;
    if (period != 0)
        hit += (before - 1 - hit) / period * period;
    pruss_.reg(kIep + CMP_STATUS) |= 1;
    pruss_.raise(kIepEvent);
    pruss_.hosts_changed();
    iep_next_ = period != 0 ? hit + period : kNeverCycle;
    poke_others(nullptr, hit + 1);
}

uint16_t PruEngine::sample(cycle_t c)
{
    ns_t t = std::clamp(static_cast<ns_t>(c) * kTick, pos_time_, now_);
    double p1 = drive_.position_mm;
    double x = now_ > pos_time_ ? pos_mm_ + (p1 - pos_mm_) * static_cast<double>(t - pos_time_) /
                                                static_cast<double>(now_ - pos_time_)
                                : p1;
    return static_cast<uint16_t>(probe_.raw(meas_, x, conv_index_++));
}

} // namespace sim

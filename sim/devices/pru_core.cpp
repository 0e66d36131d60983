#include "pru_core.h"

#include <algorithm>
#include <cstring>

namespace sim {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the register file is addressed as little-endian bytes");

namespace {

enum Op : uint8_t {
    /* Format 1, in the order of their sub-opcodes. */
    ADD, ADC, SUB, SUC, LSL, LSR, RSB, RSC, AND, OR, XOR, NOT, MIN, MAX, CLR, SET,
    JMP, JAL, LDI, LMBD, HALT, XFR, LOOP, SLP, QB, QBBC, QBBS, SBBO, LBBO, SBCO, LBCO, BAD,
};

enum : uint8_t {
    kImm = 1,       /* the second source is the immediate */
    kReads31 = 2,   /* a source field is r31: the inputs are sampled first */
    kWrites30 = 4,  /* the destination is r30: the pins follow */
    kWrites31 = 8,  /* the destination is r31: the event interface */
    kSelf = 16,     /* a branch to itself */
    kNopBody = 32,  /* a LOOP whose body is NOPs only */
    kBus = 64,      /* reaches beyond the register file */
};

constexpr uint32_t kNop = 0x12E0E0E0; /* or r0, r0, r0 */
constexpr uint32_t kEventValid = 1u << 5;
constexpr int kFirstR31Event = 16;

void field(unsigned sel, uint8_t* shift, uint32_t* mask)
{
    if (sel < 4) {
        *shift = static_cast<uint8_t>(8 * sel);
        *mask = 0xFF;
    } else if (sel < 7) {
        *shift = static_cast<uint8_t>(8 * (sel - 4));
        *mask = 0xFFFF;
    } else {
        *shift = 0;
        *mask = 0xFFFFFFFF;
    }
}

unsigned bits(uint32_t w, int lo, int n)
{
    return (w >> lo) & ((1u << n) - 1);
}

/* The register operands of formats 1, 4 and 5: rs1 in 12..8, rs2 or imm8 in
 * 23..16, rd in 4..0, each with its field selector above it. */
void operands(uint32_t w, PruCore::Insn* in)
{
    in->flags = bits(w, 24, 1) ? kImm : 0;
    in->rs1 = static_cast<uint8_t>(bits(w, 8, 5));
    field(bits(w, 13, 3), &in->s1shift, &in->s1mask);
    in->rs2 = static_cast<uint8_t>(bits(w, 16, 5));
    field(bits(w, 21, 3), &in->s2shift, &in->s2mask);
    in->imm = bits(w, 16, 8);
    in->rd = static_cast<uint8_t>(bits(w, 0, 5));
    field(bits(w, 5, 3), &in->dshift, &in->dmask);
    if (in->rs1 == 31 || (!(in->flags & kImm) && in->rs2 == 31))
        in->flags |= kReads31;
}

void destination_flags(PruCore::Insn* in)
{
    if (in->rd == 30)
        in->flags |= kWrites30;
    if (in->rd == 31)
        in->flags |= kWrites31;
}

/* The 7-bit length code of bursts and transfers, split over three places;
 * the start byte of the register file (4 * rd + RDB) goes to rd. */
void burst_operands(uint32_t w, PruCore::Insn* in)
{
    in->dmask = bits(w, 25, 3) << 4 | bits(w, 13, 3) << 1 | bits(w, 7, 1);
    in->rd = static_cast<uint8_t>(4 * bits(w, 0, 5) + bits(w, 5, 2));
}

PruCore::Insn decode(uint32_t w, uint32_t pc)
{
    PruCore::Insn in{};
    in.word = w;
    in.op = BAD;
    switch (w >> 29) {
    case 0:
        operands(w, &in);
        destination_flags(&in);
        in.op = static_cast<uint8_t>(bits(w, 25, 4));
        break;
    case 1:
        operands(w, &in);
        switch (bits(w, 25, 4)) {
        case 0: /* JMP */
        case 1: /* JAL */
            in.op = bits(w, 25, 4) == 0 ? JMP : JAL;
            in.imm = bits(w, 8, 16);
            in.flags &= static_cast<uint8_t>(~kReads31);
            if (!(in.flags & kImm) && in.rs2 == 31)
                in.flags |= kReads31;
            if (in.op == JAL)
                destination_flags(&in);
            break;
        case 2:
            in.op = LDI;
            in.flags = 0;
            in.imm = bits(w, 8, 16);
            destination_flags(&in);
            break;
        case 3:
            in.op = LMBD;
            destination_flags(&in);
            break;
        case 5:
            in.op = w == 0x2A000000 ? HALT : BAD;
            break;
        case 7:
            in.op = XFR;
            in.rs2 = static_cast<uint8_t>(bits(w, 23, 2)); /* 1 XIN, 2 XOUT, 3 XCHG */
            in.rs1 = static_cast<uint8_t>(bits(w, 15, 8)); /* device */
            in.flags = 0;
            burst_operands(w, &in);
            in.dmask = bits(w, 7, 7); /* one field here, unlike the bursts' */
            if (in.rs2 == 0)
                in.op = BAD;
            break;
        case 8: {
            in.op = LOOP;
            uint8_t keep = in.flags & kImm;
            in.flags = keep;
            if (!keep && in.rs2 == 31)
                in.flags |= kReads31;
            in.imm = bits(w, 16, 8) + 1;
            in.dmask = pc + bits(w, 0, 8); /* the end: first word after the body */
            break;
        }
        case 15:
            in.op = SLP;
            in.flags = 0;
            in.imm = bits(w, 23, 1);
            break;
        default:
            break;
        }
        break;
    case 2:
    case 3: {
        operands(w, &in);
        in.op = QB;
        in.rd = static_cast<uint8_t>(bits(w, 27, 3)); /* GT EQ LT */
        uint32_t off = bits(w, 25, 2) << 8 | bits(w, 0, 8);
        in.dmask = (pc + off - ((off & 0x200) ? 0x400 : 0)) & 0xFFFF;
        if (off == 0)
            in.flags |= kSelf;
        break;
    }
    case 6: {
        operands(w, &in);
        unsigned bs = bits(w, 28, 1), bc = bits(w, 27, 1);
        if (bs == bc)
            break;
        in.op = bs ? QBBS : QBBC;
        uint32_t off = bits(w, 25, 2) << 8 | bits(w, 0, 8);
        in.dmask = (pc + off - ((off & 0x200) ? 0x400 : 0)) & 0xFFFF;
        if (off == 0)
            in.flags |= kSelf;
        break;
    }
    case 4:
    case 7: {
        operands(w, &in);
        in.flags &= static_cast<uint8_t>(~kReads31);
        if (!(in.flags & kImm) && in.rs2 == 31)
            in.flags |= kReads31;
        burst_operands(w, &in);
        bool load = bits(w, 28, 1);
        in.op = (w >> 29) == 7 ? (load ? LBBO : SBBO) : (load ? LBCO : SBCO);
        break;
    }
    default:
        break;
    }
    bool pure = in.op <= LOOP && in.op != XFR && in.op != SLP;
    if (!pure || (in.flags & (kReads31 | kWrites30 | kWrites31)))
        in.flags |= kBus;
    return in;
}

} // namespace

PruCore::PruCore(int index, PruBus& bus, const uint32_t* iram, uint32_t* scratch)
    : index_(index), bus_(bus), iram_(iram), scratch_(scratch)
{
    clear();
}

void PruCore::clear()
{
    std::fill(std::begin(r_), std::end(r_), 0u);
    carry_ = false;
    pc_ = 0;
    r30_out_ = 0;
    state_ = State::Off;
    cycle_ = stop_at_ = sync_at_ = wait_from_ = started_at_ = stopped_at_ = 0;
    insns_ = 0;
    loop_end_ = kNoLoop;
}

void PruCore::decode_all()
{
    for (uint32_t pc = 0; pc < kIramWords; pc++)
        code_[pc] = decode(iram_[pc], pc);
    for (uint32_t pc = 0; pc < kIramWords; pc++) {
        Insn& in = code_[pc];
        if (in.op != LOOP || in.dmask <= pc + 1 || in.dmask > kIramWords)
            continue;
        bool nops = true;
        for (uint32_t i = pc + 1; i < in.dmask && nops; i++)
            nops = iram_[i] == kNop;
        if (nops)
            in.flags |= kNopBody;
    }
}

void PruCore::start(uint32_t pc, cycle_t c)
{
    decode_all();
    pc_ = pc;
    cycle_ = started_at_ = c;
    insns_ = 0;
    loop_end_ = kNoLoop;
    state_ = State::Running;
}

void PruCore::stop()
{
    if (active())
        stopped_at_ = cycle_;
    state_ = State::Off;
}

void PruCore::poke(cycle_t c, uint32_t bits)
{
    if (bits != 0xFFFFFFFF && !(wait_mask_ & bits))
        return; /* not what it waits on: nothing to look at again */
    if (state_ == State::Waiting && c < cycle_)
        cycle_ = std::max(c, wait_from_ + 1);
}

void PruCore::halt(const std::string& why)
{
    state_ = State::Halted;
    stopped_at_ = cycle_;
    bus_.halted(index_, pc_, why);
}

/* Blocked on R31 bits (none: for ever): looked at again when they may have
 * changed. */
void PruCore::wait(uint32_t mask)
{
    wait_from_ = cycle_;
    wait_mask_ = mask;
    cycle_t wake = mask != 0 ? bus_.input_change(index_, mask, cycle_) : kNeverCycle;
    cycle_ = std::max(cycle_ + 1, wake);
    state_ = State::Waiting;
}

uint32_t PruCore::burst_len(const Insn& in) const
{
    if (in.dmask < 124)
        return in.dmask + 1;
    return (r_[0] >> (8 * (in.dmask - 124))) & 0xFF;
}

bool PruCore::burst(const Insn& in, uint32_t addr, unsigned* cost)
{
    uint32_t len = burst_len(in);
    if (len == 0 || in.rd + len > 128) {
        halt(len == 0 ? "burst of length 0" : "burst past r31");
        return false;
    }
    auto* bytes = reinterpret_cast<uint8_t*>(r_);
    const char* why = nullptr;
    bool ok;
    if (in.op == LBBO || in.op == LBCO) {
        ok = bus_.load(index_, addr, bytes + in.rd, len, cycle_, cost, &why);
    } else {
        if (in.rd + len > 124)
            r_[31] = bus_.input(index_, cycle_);
        ok = bus_.store(index_, addr, bytes + in.rd, len, cycle_, &why);
        *cost = (len + 3) / 4;
    }
    if (!ok)
        halt(why);
    return ok;
}

bool PruCore::xfr(const Insn& in)
{
    uint32_t len = burst_len(in);
    auto* bytes = reinterpret_cast<uint8_t*>(r_);
    if (len == 0 || in.rd + len > 128) {
        halt(len == 0 ? "transfer of length 0" : "transfer past r31");
        return false;
    }
    if (in.rs2 == 1 && (in.rs1 == 254 || in.rs1 == 255)) { /* FILL, ZERO */
        memset(bytes + in.rd, in.rs1 == 254 ? 0xFF : 0, len);
        return true;
    }
    if (in.rs1 < 10 || in.rs1 > 12 || in.rd + len > 120) {
        halt("transfer to device " + std::to_string(in.rs1) + " not modelled");
        return false;
    }
    /* Scratchpad banks: bytes keep their register-file position. */
    auto* bank = reinterpret_cast<uint8_t*>(scratch_ + 30 * (in.rs1 - 10)) + in.rd;
    uint8_t tmp[120];
    switch (in.rs2) {
    case 1: memcpy(bytes + in.rd, bank, len); break;
    case 2: memcpy(bank, bytes + in.rd, len); break;
    default:
        memcpy(tmp, bank, len);
        memcpy(bank, bytes + in.rd, len);
        memcpy(bytes + in.rd, tmp, len);
        break;
    }
    return true;
}

void PruCore::run(cycle_t limit, cycle_t sync)
{
    stop_at_ = limit;
    sync_at_ = sync;
    if (state_ == State::Waiting && cycle_ <= std::min(limit, sync))
        state_ = State::Running;
    if (state_ != State::Running)
        return;
    while (cycle_ <= stop_at_) {
        if (pc_ >= kIramWords) {
            halt("fetch outside instruction RAM");
            break;
        }
        const Insn& in = code_[pc_];
        unsigned touched = 0;
        if (in.flags & kBus) {
            if (cycle_ > sync_at_)
                break;
            if (in.flags & kReads31)
                r_[31] = bus_.input(index_, cycle_);
            else if (in.flags & kWrites31)
                r_[31] = 0;
            touched = in.flags & (kWrites30 | kWrites31);
        }
        uint32_t next = pc_ + 1;
        unsigned cost = 1;
        insns_++;
        switch (in.op) {
        case ADD: case ADC: case SUB: case SUC: case RSB: case RSC: {
            uint64_t s = src1(in), b = src2(in), c = carry_;
            uint64_t r;
            switch (in.op) {
            case ADD: r = s + b; break;
            case ADC: r = s + b + c; break;
            case SUB: r = s - b; break;
            case SUC: r = s - b - c; break;
            case RSB: r = b - s; break;
            default: r = b - s - c; break;
            }
            dst(in, static_cast<uint32_t>(r));
            carry_ = (r & (uint64_t{in.dmask} + 1)) != 0; /* bit W of the result, W the destination's width */
            break;
        }
        case LSL: dst(in, src1(in) << (src2(in) & 31)); break;
        case LSR: dst(in, src1(in) >> (src2(in) & 31)); break;
        case AND: dst(in, src1(in) & src2(in)); break;
        case OR: dst(in, src1(in) | src2(in)); break;
        case XOR: dst(in, src1(in) ^ src2(in)); break;
        case NOT: dst(in, ~src1(in)); break;
        case MIN: dst(in, std::min(src1(in), src2(in))); break;
        case MAX: dst(in, std::max(src1(in), src2(in))); break;
        case CLR: dst(in, src1(in) & ~(1u << (src2(in) & 31))); break;
        case SET: dst(in, (in.rs1 == 31 ? 0 : src1(in)) | 1u << (src2(in) & 31)); break; /* r31 reads 0 here */
        case JMP: next = (in.flags & kImm) ? in.imm : src2(in) & 0xFFFF; break;
        case JAL:
            next = (in.flags & kImm) ? in.imm : src2(in) & 0xFFFF;
            dst(in, pc_ + 1);
            break;
        case LDI: dst(in, in.imm); break;
        case LMBD: {
            uint32_t s = src1(in), b = src2(in) & 1, r = 32;
            for (int i = in.s1mask == 0xFF ? 7 : in.s1mask == 0xFFFF ? 15 : 31; i >= 0; i--) {
                if (((s >> i) & 1) == b) {
                    r = static_cast<uint32_t>(i);
                    break;
                }
            }
            dst(in, r);
            break;
        }
        case HALT: halt("halt instruction"); break;
        case SLP: {
            uint32_t mask = 0;
            if (in.imm) {
                uint8_t w[4];
                const char* why = nullptr;
                unsigned ignored = 0;
                bus_.load(index_, index_ == 0 ? 0x22008 : 0x24008, w, 4, cycle_, &ignored, &why);
                memcpy(&mask, w, 4); /* WAKEUP_EN */
                if (bus_.input(index_, cycle_) & mask)
                    break;
            }
            wait(mask);
            break;
        }
        case XFR:
            if (!xfr(in))
                break;
            if (in.rs2 != 2 && in.rd + burst_len(in) > 120)
                touched |= (in.rd < 124 ? kWrites30 : 0) | kWrites31;
            break;
        case LOOP: {
            uint32_t count = (in.flags & kImm) ? in.imm : src2(in) & 0xFFFF;
            if (count == 0) {
                next = in.dmask;
            } else if (in.flags & kNopBody) {
                cost += count * (in.dmask - pc_ - 1); /* a delay: its cycles pass, nothing else */
                next = in.dmask;
            } else {
                loop_top_ = pc_ + 1;
                loop_end_ = in.dmask;
                loop_left_ = count;
            }
            break;
        }
        case QB: {
            uint32_t s = src1(in), b = src2(in);
            bool taken = ((in.rd & 4) && b > s) || ((in.rd & 2) && b == s) || ((in.rd & 1) && b < s);
            if (taken && (in.flags & kSelf))
                wait(in.flags & kReads31 ? 0xFFFFFFFF : 0);
            else if (taken)
                next = in.dmask;
            break;
        }
        case QBBC: case QBBS: {
            uint32_t n = src2(in) & 31;
            bool set = (src1(in) >> n) & 1;
            bool taken = in.op == QBBS ? set : !set;
            if (taken && (in.flags & kSelf)) {
                /* WBS/WBC: waits for that bit of the field (a bit beyond the field never changes). */
                uint32_t mask = 0;
                if (in.rs1 == 31 && n < 32u - in.s1shift && ((in.s1mask >> n) & 1))
                    mask = 1u << (in.s1shift + n);
                if (!(in.flags & kImm) && in.rs2 == 31)
                    mask = 0xFFFFFFFF;
                wait(mask);
            } else if (taken) {
                next = in.dmask;
            }
            break;
        }
        case LBBO: case SBBO:
            if (burst(in, r_[in.rs1] + src2(in), &cost) && in.op == LBBO && in.rd + burst_len(in) > 120)
                touched |= (in.rd < 124 ? kWrites30 : 0) | (in.rd + burst_len(in) > 124 ? kWrites31 : 0);
            break;
        case LBCO: case SBCO:
            if (burst(in, bus_.constant(index_, in.rs1) + src2(in), &cost) && in.op == LBCO &&
                in.rd + burst_len(in) > 120)
                touched |= (in.rd < 124 ? kWrites30 : 0) | (in.rd + burst_len(in) > 124 ? kWrites31 : 0);
            break;
        default:
            halt("illegal instruction");
            break;
        }
        if (state_ != State::Running)
            break;
        if (touched) {
            if ((touched & kWrites30) && r_[30] != r30_out_) {
                r30_out_ = r_[30];
                bus_.output(index_, r30_out_, cycle_);
            }
            if ((touched & kWrites31) && (r_[31] & kEventValid))
                bus_.event(index_, kFirstR31Event + static_cast<int>(r_[31] & 0xF), cycle_);
        }
        cycle_ += cost;
        pc_ = next;
        if (pc_ == loop_end_) {
            if (--loop_left_ != 0)
                pc_ = loop_top_;
            else
                loop_end_ = kNoLoop;
        }
    }
}

} // namespace sim

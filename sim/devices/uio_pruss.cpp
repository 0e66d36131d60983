#include "uio_pruss.h"

#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

#include "attr.h"
#include "device.h"
#include "pru_engine.h"
#include "pru_firmware.h"
#include "syscalls.h"

namespace sim {

namespace {

/* Interrupt controller registers, byte offsets from its base. */
enum : uint32_t {
    GER = 0x010,
    SISR = 0x020,
    SICR = 0x024,
    EISR = 0x028,
    EICR = 0x02C,
    HIEISR = 0x034,
    HIDISR = 0x038,
    SRSR0 = 0x200,
    SECR0 = 0x280,
    ESR0 = 0x300,
    ECR0 = 0x380,
    CMR0 = 0x400,
    HMR0 = 0x800,
    HIER = 0x1500,
};

/* An index register nobody wrote since the model last looked. The chip reads
 * them as 0, but 0 is a valid index. */
constexpr uint32_t kNoIndex = 0xFFFFFFFF;
constexpr uint32_t kIndexRegs[] = {SISR, SICR, EISR, EICR, HIEISR, HIDISR};

constexpr uint32_t kControl[2] = {0x22000, 0x24000};
constexpr uint32_t kIram[2] = {0x34000, 0x38000};
constexpr uint32_t kIramSize = 0x2000;
constexpr uint32_t kControlSoftRstN = 1u << 0;
constexpr uint32_t kControlEnable = 1u << 1;
constexpr uint32_t kSyscfgReset = 0x1A;
constexpr int kDefaultPool = 256 * 1024; /* the kernel's extram_pool_sz */
constexpr int kFirstEvtoutHost = 2;      /* PRU_EVTOUT0 is INTC host 2 */
constexpr int kEvtFromHost = 21;
constexpr uint32_t kInDelay = Pruss::kSharedRam + 116;

uint8_t* map_memfd(const char* name, size_t size, int* fd)
{
    *fd = memfd_create(name, MFD_CLOEXEC);
    if (*fd < 0 || ftruncate(*fd, static_cast<off_t>(size)) != 0) {
        perror("velasim: pruss memory");
        abort();
    }
    void* p = SIM_REAL(mmap)(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, *fd, 0);
    if (p == MAP_FAILED) {
        perror("velasim: pruss memory");
        abort();
    }
    return static_cast<uint8_t*>(p);
}

void unmap_memfd(uint8_t* p, size_t size, int fd)
{
    if (p != nullptr)
        SIM_REAL(munmap)(p, size);
    if (fd >= 0)
        SIM_REAL(close)(fd);
}

std::string hex_word(uint32_t v)
{
    char buf[16];
    snprintf(buf, sizeof buf, "0x%08x", v);
    return buf;
}

/* /dev/uioN: reads block until the host interrupt fires, as the uio core
 * does; both maps are the subsystem's memory. */
class UioNode : public Node {
public:
    UioNode(Pruss& pruss, int index)
        : Node("/dev/uio" + std::to_string(index), S_IFCHR | 0660), pruss_(pruss), index_(index)
    {
    }

    struct Seen : OpenState {
        explicit Seen(uint64_t c) : count(c) {}
        uint64_t count;
    };

    int open(OpenFile& of) override
    {
        pruss_.ensure_pool();
        of.state = std::make_unique<Seen>(pruss_.interrupts(index_));
        return 0;
    }

    int64_t read(OpenFile& of, void* buf, size_t n) override
    {
        if (n != sizeof(uint32_t))
            return -EINVAL;
        auto* seen = static_cast<Seen*>(of.state.get());
        uint64_t count = pruss_.interrupts(index_);
        if (count == seen->count)
            return -EAGAIN;
        seen->count = count;
        uint32_t v = static_cast<uint32_t>(count);
        memcpy(buf, &v, sizeof v);
        return sizeof v;
    }

    int64_t write(OpenFile&, const void*, size_t) override { return -ENOSYS; } /* no irqcontrol */

    short poll(OpenFile& of) override
    {
        auto* seen = static_cast<Seen*>(of.state.get());
        return pruss_.interrupts(index_) != seen->count ? POLLIN | POLLRDNORM : 0;
    }

    void* mmap(OpenFile&, void* addr, size_t len, int prot, int flags, int64_t off, int* err) override
    {
        long page = sysconf(_SC_PAGESIZE);
        size_t size = 0;
        int fd = off % page == 0 ? pruss_.region(static_cast<int>(off / page), &size) : -1;
        if (fd < 0 || len > size) {
            *err = EINVAL;
            return MAP_FAILED;
        }
        void* p = SIM_REAL(mmap)(addr, len, prot, flags, fd, 0);
        if (p == MAP_FAILED)
            *err = errno;
        return p;
    }

    int munmap(void* addr, size_t len) override { return SIM_REAL(munmap)(addr, len) == 0 ? 0 : -errno; }

private:
    Pruss& pruss_;
    int index_;
};

} // namespace

Pruss::Pruss(Board& board, Probe& probe, MeasChannel& meas, Drive& drive)
    : board_(board), firmware_(std::make_unique<PruFirmware>(*this, board, probe, meas, drive)), meas_(meas)
{
    regs_ = map_memfd("pruss-regs", kRegsSize, &regs_fd_);
    engine_ = std::make_unique<PruEngine>(*this, board, probe, meas, drive, *firmware_);
    board.params().add_int("pru.extram_size", &pool_size_, "DDR pool of uio_pruss (map1), bytes (4096..67108864)",
                           4096, 64 << 20);
    for (int n = 0; n < 8; n++) {
        std::string dir = "/sys/class/uio/uio" + std::to_string(n);
        board.add_node(std::make_unique<UioNode>(*this, n));
        board.add_node(std::make_unique<FuncAttr>(board, dir + "/name", 0444,
                                                  [n] { return "pruss_evt" + std::to_string(n) + "\n"; }));
        for (int map = 0; map < 2; map++) {
            std::string m = dir + "/maps/map" + std::to_string(map);
            board.add_node(std::make_unique<FuncAttr>(board, m + "/addr", 0444, [map] {
                return hex_word(map == 0 ? Pruss::kRegsPhys : Pruss::kDdrPhys) + "\n";
            }));
            board.add_node(std::make_unique<FuncAttr>(board, m + "/size", 0444, [this, map] {
                size_t size = 0;
                region(map, &size);
                return hex_word(static_cast<uint32_t>(size)) + "\n";
            }));
            board.add_node(std::make_unique<FuncAttr>(board, m + "/offset", 0444, [] { return std::string("0x0\n"); }));
        }
    }
}

Pruss::~Pruss()
{
    unmap_memfd(regs_, kRegsSize, regs_fd_);
    unmap_memfd(ddr_, ddr_size_, ddr_fd_);
}

uint32_t& Pruss::reg(uint32_t offset)
{
    return *reinterpret_cast<uint32_t*>(regs_ + offset);
}

uint8_t* Pruss::ddr(uint32_t phys, size_t len)
{
    if (phys < kDdrPhys || phys - kDdrPhys > ddr_size_ || len > ddr_size_ - (phys - kDdrPhys))
        return nullptr;
    return ddr_ + (phys - kDdrPhys);
}

bool Pruss::pru_enabled(int pru)
{
    return (reg(kControl[pru]) & kControlEnable) != 0;
}

bool Pruss::code_loaded(int pru)
{
    for (uint32_t off = 0; off < kIramSize; off += 4) {
        if (reg(kIram[pru] + off) != 0)
            return true;
    }
    return false;
}

void Pruss::raise(int event)
{
    status_ |= uint64_t{1} << event;
}

/* Channel of the event (CMR), then host of the channel (HMR): one byte each,
 * four to a register. */
static int route(uint32_t* map, int index)
{
    return (map[index / 4] >> (8 * (index % 4))) & 0xF;
}

bool Pruss::host_active(int host)
{
    return (active_hosts() >> host) & 1;
}

/* The host interrupts with a pending event, one bit each; the pending events
 * only, as the cores ask at every compare hit. */
uint32_t Pruss::active_hosts()
{
    if (!(reg(kIntc + GER) & 1))
        return 0;
    uint32_t enabled = reg(kIntc + HIER), hosts = 0;
    uint32_t* cmr = &reg(kIntc + CMR0);
    uint32_t* hmr = &reg(kIntc + HMR0);
    for (uint64_t pending = status_ & enabled_; pending != 0; pending &= pending - 1)
        hosts |= 1u << route(hmr, route(cmr, __builtin_ctzll(pending)));
    return hosts & enabled;
}

bool Pruss::take(int host, int event)
{
    uint64_t bit = uint64_t{1} << event;
    if (!(status_ & enabled_ & bit) || !host_active(host) ||
        route(&reg(kIntc + HMR0), route(&reg(kIntc + CMR0), event)) != host)
        return false;
    status_ &= ~bit;
    return true;
}

int Pruss::region(int map, size_t* size)
{
    if (map == 0) {
        *size = kRegsSize;
        return regs_fd_;
    }
    if (map == 1 && ddr_ != nullptr) {
        *size = ddr_size_;
        return ddr_fd_;
    }
    return -1;
}

/* The pool is made when the kernel module would be loaded: at board start
 * or the first open after its size was changed. Mappings the program still
 * holds keep the old pages. */
void Pruss::ensure_pool()
{
    size_t want = static_cast<size_t>(pool_size_ > 0 ? pool_size_ : kDefaultPool);
    if (ddr_ != nullptr && ddr_size_ == want)
        return;
    unmap_memfd(ddr_, ddr_size_, ddr_fd_);
    ddr_size_ = want;
    ddr_ = map_memfd("pruss-ddr", ddr_size_, &ddr_fd_);
}

void Pruss::reset()
{
    memset(regs_, 0, kRegsSize);
    for (int pru = 0; pru < 2; pru++) {
        reg(kControl[pru]) = kControlSoftRstN;
        pru_was_enabled_[pru] = false;
    }
    reg(kCfg + 4) = syscfg_ = kSyscfgReset;
    for (uint32_t r : kIndexRegs)
        reg(kIntc + r) = kNoIndex;
    status_ = enabled_ = 0;
    for (uint64_t& n : interrupts_)
        n = 0;
    pool_size_ = kDefaultPool;
    if (ddr_ != nullptr)
        memset(ddr_, 0, ddr_size_);
    firmware_->reset();
    engine_->reset();
    r31_hosts_ = 0;
}

void Pruss::create_files(Board&)
{
    ensure_pool();
}

/* Acts on what the program wrote to the command registers since the last
 * look, in a fixed order: clears, disables, enables, raises, then the host
 * interrupts. Several writes to the same register in between keep only the
 * last. */
void Pruss::take_host_writes()
{
    auto mask = [this](uint32_t r, int i) {
        uint32_t& w = reg(kIntc + r + 4 * i);
        uint64_t bits = uint64_t{w} << (32 * i);
        w = 0;
        return bits;
    };
    auto index = [this](uint32_t r) {
        uint32_t& w = reg(kIntc + r);
        uint32_t v = w;
        w = kNoIndex;
        return v < 64 ? uint64_t{1} << v : 0;
    };
    uint64_t raised = 0;
    for (int i = 0; i < 2; i++) {
        status_ &= ~mask(SECR0, i);
        enabled_ &= ~mask(ECR0, i);
        enabled_ |= mask(ESR0, i);
        raised |= mask(SRSR0, i);
    }
    status_ &= ~index(SICR);
    enabled_ &= ~index(EICR);
    enabled_ |= index(EISR);
    raised |= index(SISR);
    for (uint64_t r = raised; r != 0; r &= r - 1)
        board_.journal("pruss", "raise", std::to_string(__builtin_ctzll(r)));
    /* pru.fault no-start on the firmware: the request never reaches PRU0. */
    if (engine_->selected() && firmware_->fault() == PruFirmware::Fault::NoStart)
        raised &= ~(uint64_t{1} << kEvtFromHost);
    status_ |= raised;
    uint32_t host_off = reg(kIntc + HIDISR);
    uint32_t host_on = reg(kIntc + HIEISR);
    reg(kIntc + HIDISR) = reg(kIntc + HIEISR) = kNoIndex;
    if (host_off < 32)
        reg(kIntc + HIER) &= ~(1u << host_off);
    if (host_on < 32)
        reg(kIntc + HIER) |= 1u << host_on;
}

/* PRUs started and stopped, and the configuration block, as the program left
 * them. */
void Pruss::watch_host()
{
    for (int pru = 0; pru < 2; pru++) {
        bool on = pru_enabled(pru);
        if (on == pru_was_enabled_[pru])
            continue;
        pru_was_enabled_[pru] = on;
        std::string name = "pru" + std::to_string(pru);
        char start[16];
        snprintf(start, sizeof start, "0x%04x", (reg(kControl[pru]) >> 16) * 4);
        board_.journal("pruss", name + (on ? " start" : " stop"), on ? start : "");
    }
    if (reg(kCfg + 4) != syscfg_)
        board_.journal("pruss", "SYSCFG", hex_word(reg(kCfg + 4)));
}

/* What the kernel's handler does: count the interrupt and disable the host
 * until user space re-enables it. */
void Pruss::deliver_interrupts()
{
    uint32_t active = active_hosts();
    for (int evtout = 0; evtout < 8; evtout++) {
        int host = evtout + kFirstEvtoutHost;
        if (!((active >> host) & 1))
            continue;
        interrupts_[evtout]++;
        reg(kIntc + HIER) &= ~(1u << host);
    }
}

void Pruss::intc_changed()
{
    take_host_writes();
    hosts_changed();
}

void Pruss::hosts_changed()
{
    r31_hosts_ = (active_hosts() & 3u) << 30;
    deliver_interrupts();
}

void Pruss::advance(ns_t now)
{
    intc_changed();
    watch_host();
    engine_->advance(now);
    if (!engine_->selected()) {
        firmware_->advance(now);
        /* The model's reference sits where in_delay puts it. */
        if (pru_enabled(0))
            meas_.ref_phase = static_cast<int>(reg(kInDelay) % 32);
    }
    syscfg_ = reg(kCfg + 4);
    deliver_interrupts();
}

ns_t Pruss::next_event(ns_t now)
{
    return engine_->selected() ? engine_->next_event(now) : firmware_->next_event(now);
}

VELASIM_DEVICE(Pruss, Probe, MeasChannel, Drive);

} // namespace sim

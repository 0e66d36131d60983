/*
 * The PRU-ICSS behind the kernel's uio_pruss driver: /dev/uio0..7 (one per
 * host interrupt PRU_EVTOUT0..7, sysfs name pruss_evtN) with their sysfs maps,
 * the register space (map0) and the DDR pool (map1) as real shared memory,
 * the interrupt controller, and the firmware model running on the PRUs.
 *
 * The program reaches the registers by plain memory writes, so the model
 * looks at them whenever the board advances: the command registers of the
 * interrupt controller are mailboxes that it empties after acting on them.
 */
#ifndef VELASIM_UIO_PRUSS_H
#define VELASIM_UIO_PRUSS_H

#include <memory>
#include <stdint.h>

#include "board.h"
#include "drive.h"
#include "meas_channel.h"
#include "probe.h"

namespace sim {

class PruFirmware;
class PruEngine;

class Pruss : public Model {
public:
    /* map0 */
    static constexpr uint32_t kRegsPhys = 0x4a300000;
    static constexpr uint32_t kRegsSize = 0x80000;
    static constexpr uint32_t kSharedRam = 0x10000;
    static constexpr uint32_t kIntc = 0x20000;
    static constexpr uint32_t kCfg = 0x26000;
    /* map1: where the kernel's pool sits in physical memory */
    static constexpr uint32_t kDdrPhys = 0x9e000000;

    Pruss(Board& board, Probe& probe, MeasChannel& meas, Drive& drive);
    ~Pruss() override;

    /* The PRUs' side. */
    uint32_t& reg(uint32_t offset); /* a word of map0 */
    uint32_t word(uint32_t offset) const { return *reinterpret_cast<const uint32_t*>(regs_ + offset); }
    uint8_t* mem(uint32_t offset) { return regs_ + offset; }
    /* The pool bytes at a physical address, or null outside the pool. */
    uint8_t* ddr(uint32_t phys, size_t len);
    bool pru_enabled(int pru);  /* control register ENABLE */
    bool code_loaded(int pru);  /* anything in its instruction RAM */
    void raise(int event);
    /* A PRU polling its host interrupt: true (and the event cleared) if the
     * event is pending and reaches that host. */
    bool take(int host, int event);
    /* The controller after a core raised an event or wrote its registers:
     * commands taken, host interrupts delivered, R31 bits 30/31 updated. */
    void intc_changed();
    /* The same after a core raised an event only: no commands to take. */
    void hosts_changed();
    uint32_t r31_hosts() const { return r31_hosts_; }
    uint64_t intc_status() const { return status_; }
    uint64_t intc_enabled() const { return enabled_; }

    /* The bus face. */
    int region(int map, size_t* size); /* memfd of map0 or map1, -1 for others */
    uint64_t interrupts(int evtout) const { return interrupts_[evtout]; }
    void ensure_pool();

    void reset() override;
    void create_files(Board& board) override;
    void advance(ns_t now) override;
    ns_t next_event(ns_t now) override;

private:
    void take_host_writes();
    void watch_host();
    bool host_active(int host);
    uint32_t active_hosts();
    void deliver_interrupts();

    Board& board_;
    std::unique_ptr<PruFirmware> firmware_;
    std::unique_ptr<PruEngine> engine_;
    MeasChannel& meas_;
    int regs_fd_ = -1;
    uint8_t* regs_ = nullptr;
    int ddr_fd_ = -1;
    uint8_t* ddr_ = nullptr;
    size_t ddr_size_ = 0;
    int pool_size_ = 0; /* the module parameter, applied at the next open */
    uint64_t status_ = 0;  /* raw event status */
    uint64_t enabled_ = 0;
    uint64_t interrupts_[8] = {};
    bool pru_was_enabled_[2] = {};
    uint32_t syscfg_ = 0;
    uint32_t r31_hosts_ = 0; /* host interrupts 0 and 1 as R31 bits 30 and 31 */
};

} // namespace sim

#endif

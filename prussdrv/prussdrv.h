/*
 * User-space driver of the AM335x PRU-ICSS over the kernel's uio_pruss
 * interface. There is one /dev/uioN per host interrupt PRU_EVTOUT0..7 (sysfs
 * name "pruss_evtN"); every one of them maps the subsystem's register space
 * (map0) and the DDR pool the driver reserves for the PRUs (map1).
 *
 * Calls return 0 on success and -1 on failure unless stated otherwise.
 */
#ifndef PRUSSDRV_H
#define PRUSSDRV_H

#define NUM_PRU_HOSTIRQS 8
#define NUM_PRU_CHANNELS 10
#define NUM_PRU_SYS_EVTS 64

/* Host interrupts towards the ARM (INTC hosts 2..9). */
enum {
    PRU_EVTOUT_0,
    PRU_EVTOUT_1,
    PRU_EVTOUT_2,
    PRU_EVTOUT_3,
    PRU_EVTOUT_4,
    PRU_EVTOUT_5,
    PRU_EVTOUT_6,
    PRU_EVTOUT_7,
};

/* Memories for prussdrv_map_prumem() and prussdrv_load_data(). */
enum {
    PRU0_DATARAM,
    PRU1_DATARAM,
    PRUSS0_SHARED_DATARAM,
};

/* Register blocks for prussdrv_map_peripheral_io(). */
enum {
    PRUSS0_CFG,
};

struct prussdrv_route {
    short from;
    short to;
};

/* Interrupt controller set-up. The lists end with an entry of -1. */
typedef struct {
    short sysevts_enabled[NUM_PRU_SYS_EVTS + 1];
    struct prussdrv_route sysevt_to_channel_map[NUM_PRU_SYS_EVTS + 1];
    struct prussdrv_route channel_to_host_map[NUM_PRU_CHANNELS + 1];
    unsigned int host_enable_bitmask; /* bit k enables INTC host k */
} tpruss_intc_initdata;

int prussdrv_init(void);
/* Opens the uio device of a host interrupt; the first open also maps the
 * register space and the DDR pool. */
int prussdrv_open(unsigned int host_interrupt);
int prussdrv_pruintc_init(const tpruss_intc_initdata* data);

int prussdrv_map_prumem(unsigned int ram, void** address);
int prussdrv_map_extmem(void** address);
unsigned int prussdrv_extmem_size(void);
/* Physical address of a mapped address, as a PRU reaches it; 0 if unmapped. */
unsigned int prussdrv_get_phys_addr(const void* address);
int prussdrv_map_peripheral_io(unsigned int block, void** address);

int prussdrv_load_data(unsigned int ram, const unsigned int* data, int bytes);
/* Resets the PRU, loads its instruction RAM and starts it at a byte address. */
int prussdrv_exec_code_at(unsigned int pru, const unsigned int* code, int bytes, unsigned int start_addr);
int prussdrv_pru_disable(unsigned int pru);

/* Blocks until the host interrupt fires; returns its total count, or -1. */
int prussdrv_pru_wait_event(unsigned int host_interrupt);
/* As prussdrv_pru_wait_event, giving up after time_us microseconds: the
 * event count, 0 on time-out, -1 on error. */
int prussdrv_pru_wait_event_timeout(unsigned int host_interrupt, int time_us);
/* Clears a system event and re-arms the host interrupt the kernel disabled. */
int prussdrv_pru_clear_event(unsigned int host_interrupt, unsigned int sysevent);
int prussdrv_pru_send_event(unsigned int sysevent);

int prussdrv_exit(void);

#endif

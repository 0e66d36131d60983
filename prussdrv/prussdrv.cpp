#include "prussdrv.h"

#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

/* Offsets in the register space (map0). */
enum {
    PRU0_DATARAM_OFFSET = 0x00000,
    PRU1_DATARAM_OFFSET = 0x02000,
    SHARED_DATARAM_OFFSET = 0x10000,
    INTC_OFFSET = 0x20000,
    PRU0_CONTROL_OFFSET = 0x22000,
    PRU1_CONTROL_OFFSET = 0x24000,
    CFG_OFFSET = 0x26000,
    PRU0_IRAM_OFFSET = 0x34000,
    PRU1_IRAM_OFFSET = 0x38000,
    DATARAM_SIZE = 0x2000,
    IRAM_SIZE = 0x2000,
};

/* Interrupt controller registers, byte offsets from its base. */
enum {
    INTC_GER = 0x010,
    INTC_SICR = 0x024,
    INTC_HIEISR = 0x034,
    INTC_SRSR0 = 0x200,
    INTC_SECR0 = 0x280,
    INTC_ESR0 = 0x300,
    INTC_CMR0 = 0x400,
    INTC_HMR0 = 0x800,
    INTC_SIPR0 = 0xD00,
    INTC_SITR0 = 0xD80,
    INTC_HIER = 0x1500,
};

/* PRU control register bits. */
enum {
    CONTROL_SOFT_RST_N = 1u << 0,
    CONTROL_ENABLE = 1u << 1,
};

/* The first host interrupt towards the ARM is INTC host 2. */
enum { EVTOUT_TO_HOST = 2 };

static struct {
    int fd[NUM_PRU_HOSTIRQS];
    volatile uint8_t* regs; /* map0 */
    uint32_t regs_phys;
    uint32_t regs_size;
    uint8_t* extram; /* map1 */
    uint32_t extram_phys;
    uint32_t extram_size;
} drv;

static volatile uint32_t* reg(uint32_t offset)
{
    return (volatile uint32_t*)(drv.regs + offset);
}

static volatile uint32_t* intc(uint32_t offset)
{
    return reg(INTC_OFFSET + offset);
}

static uint32_t pru_control(unsigned int pru)
{
    return pru == 0 ? PRU0_CONTROL_OFFSET : PRU1_CONTROL_OFFSET;
}

/* One line of a sysfs attribute. */
static int read_attr(const char* path, char* buf, size_t size)
{
    FILE* f = fopen(path, "r");
    if (f == NULL)
        return -1;
    char* line = fgets(buf, (int)size, f);
    fclose(f);
    return line != NULL ? 0 : -1;
}

static uint32_t read_map_value(int uio, int map, const char* what)
{
    char path[96], text[32];
    snprintf(path, sizeof path, "/sys/class/uio/uio%d/maps/map%d/%s", uio, map, what);
    if (read_attr(path, text, sizeof text) != 0)
        return 0;
    return (uint32_t)strtoul(text, 0, 0);
}

/* The uio device numbers come from the kernel's pool in registration order:
 * look the host interrupt up by name. */
static int find_uio(unsigned int host_interrupt)
{
    char want[16];
    snprintf(want, sizeof want, "pruss_evt%u\n", host_interrupt);
    for (int n = 0; n < 16; n++) {
        char path[48], name[32];
        snprintf(path, sizeof path, "/sys/class/uio/uio%d/name", n);
        if (read_attr(path, name, sizeof name) == 0 && strcmp(name, want) == 0)
            return n;
    }
    return -1;
}

static void* map_region(int fd, int map, uint32_t size)
{
    void* p = mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, (off_t)map * getpagesize());
    return p == MAP_FAILED ? NULL : p;
}

static int map_memory(int fd, int uio)
{
    drv.regs_phys = read_map_value(uio, 0, "addr");
    drv.regs_size = read_map_value(uio, 0, "size");
    drv.extram_phys = read_map_value(uio, 1, "addr");
    drv.extram_size = read_map_value(uio, 1, "size");
    if (drv.regs_size == 0 || drv.extram_size == 0)
        return -1;
    drv.regs = (volatile uint8_t*)map_region(fd, 0, drv.regs_size);
    drv.extram = (uint8_t*)map_region(fd, 1, drv.extram_size);
    return drv.regs != NULL && drv.extram != NULL ? 0 : -1;
}

int prussdrv_init(void)
{
    memset(&drv, 0, sizeof drv);
    for (int i = 0; i < NUM_PRU_HOSTIRQS; i++)
        drv.fd[i] = -1;
    return 0;
}

int prussdrv_open(unsigned int host_interrupt)
{
    if (host_interrupt >= NUM_PRU_HOSTIRQS || drv.fd[host_interrupt] >= 0)
        return -1;
    int uio = find_uio(host_interrupt);
    if (uio < 0)
        return -1;
    char path[32];
    snprintf(path, sizeof path, "/dev/uio%d", uio);
    int fd = open(path, O_RDWR | O_SYNC);
    if (fd < 0)
        return -1;
    if (drv.regs == NULL && map_memory(fd, uio) != 0) {
        close(fd);
        prussdrv_exit();
        return -1;
    }
    drv.fd[host_interrupt] = fd;
    return 0;
}

int prussdrv_pruintc_init(const tpruss_intc_initdata* data)
{
    if (drv.regs == NULL)
        return -1;
    uint32_t cmr[NUM_PRU_SYS_EVTS / 4] = {0};
    uint32_t hmr[(NUM_PRU_CHANNELS + 3) / 4] = {0};
    uint32_t enable[2] = {0, 0};

    for (const struct prussdrv_route* r = data->sysevt_to_channel_map; r->from >= 0; r++)
        cmr[r->from / 4] |= (uint32_t)(r->to & 0xF) << (8 * (r->from % 4));
    for (const struct prussdrv_route* r = data->channel_to_host_map; r->from >= 0; r++)
        hmr[r->from / 4] |= (uint32_t)(r->to & 0xF) << (8 * (r->from % 4));
    for (const short* e = data->sysevts_enabled; *e >= 0; e++)
        enable[*e / 32] |= 1u << (*e % 32);

    *intc(INTC_GER) = 0;
    for (int i = 0; i < 2; i++) {
        intc(INTC_SIPR0)[i] = 0xFFFFFFFF; /* active high */
        intc(INTC_SITR0)[i] = 0;          /* level */
    }
    for (unsigned i = 0; i < sizeof cmr / sizeof cmr[0]; i++)
        intc(INTC_CMR0)[i] = cmr[i];
    for (unsigned i = 0; i < sizeof hmr / sizeof hmr[0]; i++)
        intc(INTC_HMR0)[i] = hmr[i];
    /* Masks rather than one index write per event or host: the whole set
     * takes effect at once. */
    for (int i = 0; i < 2; i++) {
        intc(INTC_SECR0)[i] = 0xFFFFFFFF;
        intc(INTC_ESR0)[i] = enable[i];
    }
    *intc(INTC_HIER) = data->host_enable_bitmask;
    *intc(INTC_GER) = 1;
    return 0;
}

int prussdrv_map_prumem(unsigned int ram, void** address)
{
    static const uint32_t offsets[] = {PRU0_DATARAM_OFFSET, PRU1_DATARAM_OFFSET, SHARED_DATARAM_OFFSET};
    if (drv.regs == NULL || ram > PRUSS0_SHARED_DATARAM)
        return -1;
    *address = (void*)reg(offsets[ram]);
    return 0;
}

int prussdrv_map_extmem(void** address)
{
    if (drv.extram == NULL)
        return -1;
    *address = drv.extram;
    return 0;
}

unsigned int prussdrv_extmem_size(void)
{
    return drv.extram_size;
}

unsigned int prussdrv_get_phys_addr(const void* address)
{
    uintptr_t a = (uintptr_t)address;
    uintptr_t regs = (uintptr_t)drv.regs;
    uintptr_t extram = (uintptr_t)drv.extram;
    if (drv.regs != NULL && a >= regs && a - regs < drv.regs_size)
        return drv.regs_phys + (uint32_t)(a - regs);
    if (drv.extram != NULL && a >= extram && a - extram < drv.extram_size)
        return drv.extram_phys + (uint32_t)(a - extram);
    return 0;
}

int prussdrv_map_peripheral_io(unsigned int block, void** address)
{
    if (drv.regs == NULL || block != PRUSS0_CFG)
        return -1;
    *address = (void*)reg(CFG_OFFSET);
    return 0;
}

static void copy_words(volatile uint32_t* to, const unsigned int* from, int bytes)
{
    for (int i = 0; i < bytes / 4; i++)
        to[i] = from[i];
}

int prussdrv_load_data(unsigned int ram, const unsigned int* data, int bytes)
{
    void* base;
    if (ram > PRU1_DATARAM || bytes < 0 || bytes > DATARAM_SIZE || prussdrv_map_prumem(ram, &base) != 0)
        return -1;
    copy_words((volatile uint32_t*)base, data, bytes);
    return 0;
}

int prussdrv_exec_code_at(unsigned int pru, const unsigned int* code, int bytes, unsigned int start_addr)
{
    if (drv.regs == NULL || pru > 1 || bytes < 0 || bytes > IRAM_SIZE)
        return -1;
    volatile uint32_t* control = reg(pru_control(pru));
    *control = 0; /* hold in reset while the code is replaced */
    copy_words(reg(pru == 0 ? PRU0_IRAM_OFFSET : PRU1_IRAM_OFFSET), code, bytes);
    /* The program counter's reset value is a word address. */
    *control = ((start_addr >> 2) << 16) | CONTROL_ENABLE | CONTROL_SOFT_RST_N;
    return 0;
}

int prussdrv_pru_disable(unsigned int pru)
{
    if (drv.regs == NULL || pru > 1)
        return -1;
    volatile uint32_t* control = reg(pru_control(pru));
    *control = *control & ~(uint32_t)CONTROL_ENABLE;
    return 0;
}

int prussdrv_pru_wait_event(unsigned int host_interrupt)
{
    if (host_interrupt >= NUM_PRU_HOSTIRQS || drv.fd[host_interrupt] < 0)
        return -1;
    uint32_t count;
    if (read(drv.fd[host_interrupt], &count, sizeof count) != (ssize_t)sizeof count)
        return -1;
    return (int)count;
}

int prussdrv_pru_wait_event_timeout(unsigned int host_interrupt, int time_us)
{
    if (host_interrupt >= NUM_PRU_HOSTIRQS || drv.fd[host_interrupt] < 0)
        return -1;
    struct pollfd p = {drv.fd[host_interrupt], POLLIN, 0};
    int ready = poll(&p, 1, time_us < 0 ? -1 : (time_us + 999) / 1000);
    if (ready < 0)
        return -1;
    if (ready == 0)
        return 0;
    return prussdrv_pru_wait_event(host_interrupt);
}

int prussdrv_pru_clear_event(unsigned int host_interrupt, unsigned int sysevent)
{
    if (drv.regs == NULL || host_interrupt >= NUM_PRU_HOSTIRQS || sysevent >= NUM_PRU_SYS_EVTS)
        return -1;
    *intc(INTC_SICR) = sysevent;
    /* The kernel's handler disabled the host interrupt. */
    *intc(INTC_HIEISR) = host_interrupt + EVTOUT_TO_HOST;
    return 0;
}

int prussdrv_pru_send_event(unsigned int sysevent)
{
    if (drv.regs == NULL || sysevent >= NUM_PRU_SYS_EVTS)
        return -1;
    intc(INTC_SRSR0)[sysevent / 32] = 1u << (sysevent % 32);
    return 0;
}

int prussdrv_exit(void)
{
    if (drv.regs != NULL)
        munmap((void*)drv.regs, drv.regs_size);
    if (drv.extram != NULL)
        munmap(drv.extram, drv.extram_size);
    for (int i = 0; i < NUM_PRU_HOSTIRQS; i++) {
        if (drv.fd[i] >= 0)
            close(drv.fd[i]);
    }
    return prussdrv_init();
}

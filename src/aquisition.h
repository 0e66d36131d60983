/* Acquisition engine: the PRU firmware, its communication block in the
 * PRU-ICSS shared RAM, the sample buffer in the DDR pool, and the stand-alone
 * test acquisition. */
#ifndef VELA_AQUISITION_H
#define VELA_AQUISITION_H

#include <stddef.h>
#include <stdint.h>

/* Shared with the firmware at offset 0 of the shared data RAM: in_ fields are
 * written by the host, out_ fields by the firmware; every field is one 32-bit
 * little-endian word. */
struct prucomm_s {
    uint32_t in_pextram;      /* physical address of the sample buffer */
    uint32_t out_version0;    /* PRU0 firmware version */
    uint32_t in_cmd;          /* 1 = run, 0 = stop */
    uint32_t in_mode;         /* 1, or 9 while the drive travels */
    uint32_t in_interval;     /* conversion interval, 5 ns ticks */
    uint32_t in_maxcount;     /* samples to acquire; 1 = monitor */
    uint32_t in_minvalid;
    uint32_t in_maxvalid;
    uint32_t in_filter;       /* 1 = firmware filter on */
    uint32_t in_ovsdepth;     /* 2^n conversions per sample */
    uint32_t in_skip_samples; /* leading samples discarded */
    uint32_t out_count;
    uint32_t out_lastsample;
    uint32_t out_state;       /* 0 idle, 1 acquiring */
    uint32_t out_error;       /* 2: a sample above in_maxvalid */
    uint32_t out_max;
    uint32_t out_min;
    uint32_t out_maxpos;
    uint32_t out_minpos;
    uint32_t out_of_mincount; /* samples below in_minvalid */
    uint32_t debug[8];
    uint32_t out_version1;    /* PRU1 firmware version */
    uint32_t in_delay;        /* sampling phase against the sine excitation */
    uint32_t out_periodtime;
    uint32_t pdebug[17];
};

static_assert(sizeof(struct prucomm_s) == 192, "prucomm_s is the firmware's 192-byte block");
static_assert(offsetof(struct prucomm_s, in_pextram) == 0);
static_assert(offsetof(struct prucomm_s, out_version0) == 4);
static_assert(offsetof(struct prucomm_s, in_cmd) == 8);
static_assert(offsetof(struct prucomm_s, in_mode) == 12);
static_assert(offsetof(struct prucomm_s, in_interval) == 16);
static_assert(offsetof(struct prucomm_s, in_maxcount) == 20);
static_assert(offsetof(struct prucomm_s, in_minvalid) == 24);
static_assert(offsetof(struct prucomm_s, in_maxvalid) == 28);
static_assert(offsetof(struct prucomm_s, in_filter) == 32);
static_assert(offsetof(struct prucomm_s, in_ovsdepth) == 36);
static_assert(offsetof(struct prucomm_s, in_skip_samples) == 40);
static_assert(offsetof(struct prucomm_s, out_count) == 44);
static_assert(offsetof(struct prucomm_s, out_lastsample) == 48);
static_assert(offsetof(struct prucomm_s, out_state) == 52);
static_assert(offsetof(struct prucomm_s, out_error) == 56);
static_assert(offsetof(struct prucomm_s, out_max) == 60);
static_assert(offsetof(struct prucomm_s, out_min) == 64);
static_assert(offsetof(struct prucomm_s, out_maxpos) == 68);
static_assert(offsetof(struct prucomm_s, out_minpos) == 72);
static_assert(offsetof(struct prucomm_s, out_of_mincount) == 76);
static_assert(offsetof(struct prucomm_s, debug) == 80);
static_assert(offsetof(struct prucomm_s, out_version1) == 112);
static_assert(offsetof(struct prucomm_s, in_delay) == 116);
static_assert(offsetof(struct prucomm_s, out_periodtime) == 120);
static_assert(offsetof(struct prucomm_s, pdebug) == 124);

/* One user's view of the engine; the mappings stay valid from init to
 * shutdown. */
struct pruss_info_s {
    uint32_t* p_shared_data_ram;  /* PRU-ICSS shared data RAM, 12 KiB */
    uint32_t* p_extram;           /* DDR sample buffer */
    uint32_t extram_pa;           /* its physical address, for the firmware */
    int extmem_size;              /* bytes */
    int max_samples;              /* 16-bit samples the buffer holds */
    volatile uint16_t* p_samples; /* = p_extram */
    volatile struct prucomm_s* comm; /* = p_shared_data_ram */
    volatile uint32_t* p_cfg;     /* PRU-ICSS configuration registers */
};

/* How long aquisition_init waits for the firmware to reach its main loop
 * before it gives up (and returns -1); < 0, the default, waits for good. */
void aquisition_set_firmware_wait(int time_us);
int aquisition_init(struct pruss_info_s* info, int phase);
int aquisition_shutdown(struct pruss_info_s* info);
int aquisition_start(struct pruss_info_s* info, int samples, int sps, uint16_t ov_min, uint16_t ov_max, int filter,
                     int oversampling, uint32_t skip_samples, int travel);
int aquisition_stop(struct pruss_info_s* info);
/* Samples for a travel of x mm at speed mm/s. */
int aquisition_x_to_samples(struct pruss_info_s* info, double x, double speed, int sps, int* samples);

/* The stand-alone test acquisition of the command line (modes 0..4);
 * returns the histogram width, or -1 if the sample file failed. */
int do_aquisition(const char* samplefile, int mode, int verbose);
int write_to_file(const char* filename, uint32_t count, uint16_t* samples);

#endif

#include "aquisition.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "mtrace.h"
#include "opto.h"
#include "prussdrv.h"
#include "sysfs.h"
#include "velatool.h"

/* The firmware images linked into the program (pruss/). */
extern "C" const unsigned int _binary_pruss_pru0_text_bin_start[];
extern "C" const unsigned int _binary_pruss_pru0_data_bin_start[];
extern "C" const unsigned int _binary_pruss_pru1_text_bin_start[];
extern "C" const unsigned int _binary_pruss_pru1_data_bin_start[];

static const int image_size = 8192;
static const unsigned int pru0_start_addr = 0x724;
static const unsigned int pru1_start_addr = 0x220;

/* System events of the firmware's protocol. */
static const unsigned int evt_pru0_to_host = 19;
static const unsigned int evt_host_to_pru0 = 21;

static const int raw_rate = 128000; /* conversions per second of the firmware's timer */
static const long long max_aquisition_ms = 10000;
/* 16-bit counters; only the first 65536 are used. */
static const size_t histogram_bytes = 262144;

/* How long aquisition_init waits for the firmware's main loop; < 0: for good. */
static int firmware_wait_us = -1;

void aquisition_set_firmware_wait(int time_us)
{
    firmware_wait_us = time_us;
}

static void error_message(const char* text)
{
    fprintf(stderr, "ERROR: ");
    fprintf(stderr, "%s", text);
}

int aquisition_init(struct pruss_info_s* info, int phase)
{
    /* Host to PRU0 on channel 0, PRU0 to host on channel 2 (host 2 is
     * PRU_EVTOUT0); the PRU-to-PRU events on channels 0 and 1. */
    static const tpruss_intc_initdata intc_setup = {
        {17, 18, 19, 20, 21, 22, -1},
        {{17, 1}, {18, 0}, {19, 2}, {20, 3}, {21, 0}, {22, 1}, {-1, -1}},
        {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {-1, -1}},
        0xF,
    };

    prussdrv_init();
    if (prussdrv_open(PRU_EVTOUT_0) != 0) {
        MTRACE(2, "aquisition_init(): prussdrv_open open failed");
        return -1;
    }
    prussdrv_pruintc_init(&intc_setup);

    void* p;
    prussdrv_map_prumem(PRUSS0_SHARED_DATARAM, &p);
    info->p_shared_data_ram = (uint32_t*)p;
    memset(info->p_shared_data_ram, 0, 3072 * sizeof(uint32_t));

    prussdrv_map_extmem(&p);
    info->extmem_size = (int)prussdrv_extmem_size();
    if (options.verbose)
        printf("%08x byte extram mapped at %p\n", info->extmem_size, p);
    info->p_extram = (uint32_t*)p;
    info->p_samples = (volatile uint16_t*)p;
    info->max_samples = info->extmem_size >> 1;
    if (options.verbose)
        printf("max_samples: %d\n", info->max_samples);
    info->extram_pa = prussdrv_get_phys_addr(p);
    if (options.verbose)
        printf("extram py: %08x -> tell PRU\n", info->extram_pa);
    memset(info->p_extram, 0, (size_t)(info->extmem_size / 4) * sizeof(uint32_t));

    prussdrv_map_peripheral_io(PRUSS0_CFG, &p);
    info->p_cfg = (volatile uint32_t*)p;

    prussdrv_load_data(PRU0_DATARAM, _binary_pruss_pru0_data_bin_start, image_size);
    prussdrv_exec_code_at(0, _binary_pruss_pru0_text_bin_start, image_size, pru0_start_addr);
    prussdrv_load_data(PRU1_DATARAM, _binary_pruss_pru1_data_bin_start, image_size);
    prussdrv_exec_code_at(1, _binary_pruss_pru1_text_bin_start, image_size, pru1_start_addr);

    /* The firmware is in its main loop within microseconds. A command-line
     * action waits for it for good; the server, which has clients to
     * answer, gives up after a while. */
    MTRACE(3, "aquisition_init(): wait for firmware (re-)entering mainloop");
    int signalled = firmware_wait_us < 0 ? prussdrv_pru_wait_event(PRU_EVTOUT_0)
                                         : prussdrv_pru_wait_event_timeout(PRU_EVTOUT_0, firmware_wait_us);
    if (firmware_wait_us >= 0 && signalled <= 0) {
        MTRACE(2, "aquisition_init(): firmware does not answer");
        prussdrv_pru_disable(0);
        prussdrv_pru_disable(1);
        prussdrv_exit();
        return -1;
    }
    prussdrv_pru_clear_event(PRU_EVTOUT_0, evt_pru0_to_host);
    MTRACE(3, "aquisition_init(): done");

    info->comm = (volatile struct prucomm_s*)info->p_shared_data_ram;
    info->comm->in_delay = (uint32_t)phase;
    usleep(50000); /* the firmware publishes its versions */
    MTRACE(3, "aquisition_init(): phase: %d", phase);
    MTRACE(3, "aquisition_init(): version pru0: %d", (int)info->comm->out_version0);
    MTRACE(3, "aquisition_init(): version pru1: %d", (int)info->comm->out_version1);
    return 0;
}

int aquisition_shutdown(struct pruss_info_s* info)
{
    prussdrv_pru_disable(0);
    prussdrv_pru_disable(1);
    info->p_cfg[1] = info->p_cfg[1] | 0x10; /* SYSCFG: STANDBY_INIT */
    prussdrv_exit();
    return 0;
}

int aquisition_start(struct pruss_info_s* info, int samples, int sps, uint16_t ov_min, uint16_t ov_max, int filter,
                     int oversampling, uint32_t skip_samples, int travel)
{
    int interval = 200000000 / (sps << oversampling);
    if (options.verbose)
        printf("aquisition timer interval: %d x 5ns, filter=%d, ovs=%d\n", interval, filter, oversampling);

    volatile struct prucomm_s* comm = info->comm;
    if (comm->out_state != 0) {
        error_message("aquisition_start(): pruss firmware busy");
        return -EBUSY;
    }
    /* The command word last: the firmware latches the others with it. */
    comm->in_pextram = info->extram_pa;
    comm->in_maxcount = (uint32_t)samples;
    comm->in_interval = (uint32_t)interval;
    comm->in_minvalid = ov_min;
    comm->in_maxvalid = ov_max;
    comm->in_mode = travel ? 9 : 1;
    comm->in_filter = filter ? 1 : 0;
    comm->in_ovsdepth = (uint32_t)oversampling;
    comm->in_skip_samples = skip_samples;
    comm->in_cmd = 1;

    prussdrv_pru_send_event(evt_host_to_pru0);
    usleep(1000);
    if (comm->out_state == 1)
        return 0;
    error_message("aquisition_start(): firmware did not start\n");
    return -EIO;
}

int aquisition_stop(struct pruss_info_s* info)
{
    info->comm->in_cmd = 0;
    usleep(1000);
    if (info->comm->out_state != 0) {
        error_message("aquisition_stop(): firmware did not repond\n");
        return -EIO;
    }
    return 0;
}

int aquisition_x_to_samples(struct pruss_info_s* info, double x, double speed, int sps, int* samples)
{
    if (samples == NULL || x < 0 || speed <= 0)
        return -EINVAL;
    int n = (int)(sps * (x / speed));
    if (n > info->max_samples)
        return -ENOMEM;
    *samples = n;
    if (options.verbose)
        printf("aquisition_x_to_samples(): x=%1.2f mm, speed=%1.2f mm/s, samples=%d\n", x, speed, n);
    return 0;
}

int write_to_file(const char* filename, uint32_t count, uint16_t* samples)
{
    if (samples == NULL)
        return -1;
    FILE* f = fopen(filename, "w+");
    if (f == NULL)
        return -1;
    for (uint32_t i = 0; i < count; i++)
        fprintf(f, "%d\n", samples[i]);
    fclose(f);
    return 0;
}

/* The samples from pos - 4 up to pos + 4, within the acquired ones. */
static void print_samples_around(const char* title, volatile uint16_t* samples, uint32_t pos, uint32_t count)
{
    puts(title);
    uint32_t first = pos > 4 ? pos - 4 : 0;
    uint32_t end = pos + 5 < count ? pos + 5 : count;
    for (uint32_t i = first; i < end; i++)
        printf("[%04x + %2d]: %04x, %d\n", pos, (int)(i - pos), samples[i], samples[i]);
}

static void print_comm(struct pruss_info_s* info)
{
    volatile struct prucomm_s* comm = info->comm;
    puts("communication structure:");
    printf(" version pru0: %d\n", (int)comm->out_version0);
    printf(" version pru1: %d\n", (int)comm->out_version1);
    printf(" delay: %d\n", (int)comm->in_delay);
    printf(" periodtime: %d\n", (int)comm->out_periodtime);
    printf(" count: %d\n", (int)comm->out_count);
    printf(" lastsample: 0x%04x\n", comm->out_lastsample);
    printf(" state: %d\n", (int)comm->out_state);
    printf(" min: 0x%04x (%d)\n", comm->out_min, (int)comm->out_min);
    printf(" max: 0x%04x (%d)\n", comm->out_max, (int)comm->out_max);
    printf(" minpos: %d\n", (int)comm->out_minpos);
    printf(" maxpos: %d\n", (int)comm->out_maxpos);
    printf(" error: %d\n", (int)comm->out_error);
    puts("Debuginfo:");
    for (int i = 0; i < 8; i++)
        printf(" %d: 0x%08x\n", i, comm->debug[i]);
    puts("Samples:");
    for (int i = 0; i < 64; i++) {
        printf("0x%04x ", info->p_samples[i]);
        if (i % 16 == 15)
            printf("\n");
    }
    print_samples_around("Samples around minimum", info->p_samples, comm->out_minpos, comm->out_count);
    print_samples_around("Samples around maximum", info->p_samples, comm->out_maxpos, comm->out_count);
}

/* Counts each sample value in a 16-bit counter (they wrap) and returns the
 * distance between the smallest and the largest value seen; 0 without
 * samples. */
static int histogram_width(uint16_t* histogram, volatile uint16_t* samples, uint32_t count)
{
    memset(histogram, 0, histogram_bytes);
    for (uint32_t i = 0; i < count; i++)
        histogram[samples[i]]++;
    if (options.verbose)
        printf("Histogram of %d samples (value:occurrence)\n", (int)count);
    int first = -1, last = -1;
    for (int v = 0; v < 65536; v++) {
        if (histogram[v] == 0)
            continue;
        if (first < 0)
            first = v;
        last = v;
        if (options.verbose)
            printf("%04x: %d\n", v, histogram[v]);
    }
    printf("Histogram width: %d\n", last - first);
    return last - first;
}

int do_aquisition(const char* samplefile, int mode, int verbose)
{
    struct pruss_info_s info = {};
    int filter = 1;
    int oversampling = 6;
    int rate = 2000;
    int fdopto = -1;
    int samples;
    uint16_t* histogram = (uint16_t*)malloc(histogram_bytes);

    /* Without the PRU subsystem nothing is mapped: report it rather than
     * run into the unmapped block. */
    if (aquisition_init(&info, 8) != 0) {
        error_message("aquisition_init() failed\n");
        free(histogram);
        return -1;
    }
    if (mode == 3) {
        mode = 1;
        fdopto = opto_rs232_open("/dev/ttyO1");
    }
    if (options.verbose)
        printf("samples/second: %d\n", raw_rate);

    if (mode == 1) {
        samples = 1;
    } else {
        if (mode == 2) {
            filter = 0;
            oversampling = 0;
            rate = raw_rate;
        }
        samples = info.max_samples;
        if (options.verbose)
            printf("aquisition time w/o oversampling: %lld ms\n", (long long)samples * 1000 / raw_rate);
        long long time = (long long)samples * (1 << oversampling) * 1000 / raw_rate;
        if (options.verbose)
            printf("aquisition time with oversampling (x%d): %d ms\n", 1 << oversampling, (int)time);
        if ((unsigned long long)time > (unsigned long long)max_aquisition_ms) {
            samples = (int)(samples * max_aquisition_ms / time);
            if (options.verbose)
                printf("reducing samples to: %d (max. aqusitiontime is %d ms)\n", samples, (int)max_aquisition_ms);
        }
    }

    aquisition_start(&info, samples, rate, 0, 65535, filter, oversampling, 0, 1);
    struct timespec start, end, duration;
    clock_gettime(CLOCK_MONOTONIC, &start);
    if (options.verbose)
        puts("wait for firmware job done");

    volatile struct prucomm_s* comm = info.comm;
    for (;;) {
        printf("aquisition: count: %d, last: 0x%04x, min: 0x%04x @ %d, max: 0x%04x @ %d\r", (int)comm->out_count,
               comm->out_lastsample, comm->out_min, (int)comm->out_minpos, comm->out_max, (int)comm->out_maxpos);
        fflush(stdout);
        if (comm->out_state != 1)
            break;
        if (fdopto >= 0) {
            char digits[16];
            snprintf(digits, sizeof digits, "%u", comm->out_lastsample);
            ssize_t w = write(fdopto, digits, strlen(digits));
            (void)w; /* a lost reading on the service port is of no consequence */
        }
        usleep(100000);
    }
    printf("\n");
    clock_gettime(CLOCK_MONOTONIC, &end);
    printf("done: error=%d\n", (int)comm->out_error);
    clock_delta(&start, &end, &duration);
    if (options.verbose)
        printf("duration: %d.%09d\n", (int)duration.tv_sec, (int)duration.tv_nsec);

    if (options.verbose || verbose)
        print_comm(&info);

    int result = histogram_width(histogram, info.p_samples, comm->out_count);

    if (samplefile != NULL) {
        if (options.verbose)
            printf("Writing samples to file \"%s\"\n", samplefile);
        /* The requested count: a shortened acquisition leaves older buffer
         * contents at the end of the file. */
        if (write_to_file(samplefile, (uint32_t)samples, (uint16_t*)info.p_samples) != 0) {
            error_message("writing to file failed\n");
            result = -1;
        }
    }

    if (mode == 4) {
        if (options.verbose)
            puts("mode=4: aquisition_shutdown() skipped");
    } else {
        aquisition_shutdown(&info);
    }
    free(histogram);
    opto_rs232_close(fdopto);
    return result;
}

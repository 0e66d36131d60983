#include "velatool.h"

#include <getopt.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "am335x_adc.h"
#include "aquisition.h"
#include "measurement.h"
#include "motorctrl.h"
#include "mtrace.h"
#include "power.h"
#include "remote.h"
#include "testmodes.h"

struct options_s options;

static const char short_options[] = "aA:b:c:Cd:DeEf:Fm:op:rsStT:u:vVXY";

static const struct option long_options[] = {
    {"dac", required_argument, NULL, 'd'},
    {"events", no_argument, NULL, 'e'},
    {"emctest", no_argument, NULL, 'E'},
    {"fbtest", no_argument, NULL, 'F'},
    {"mpower", required_argument, NULL, 'm'},
    {"cpower", required_argument, NULL, 'c'},
    {"charger", no_argument, NULL, 'C'},
    {"detect", no_argument, NULL, 'D'},
    {"upower", required_argument, NULL, 'u'},
    {"backlight", required_argument, NULL, 'b'},
    {"remote", optional_argument, NULL, 'r'},
    {"sine", optional_argument, NULL, 's'},
    {"poti", required_argument, NULL, 'p'},
    {"voltages", no_argument, NULL, 'V'},
    {"vganf", no_argument, NULL, 'a'},
    {"aquisition", required_argument, NULL, 'A'},
    {"demo", no_argument, NULL, 'X'},
    {"pmdemo", no_argument, NULL, 'Y'},
    {"suspend", optional_argument, NULL, 'S'},
    {"touch", no_argument, NULL, 't'},
    {"opto", no_argument, NULL, 'o'},
    {NULL, 0, NULL, 0},
};

static const char usage_text[] =
    "commands (only one allowed at a time):\n"
    "-d --dac value          - write value to motor control dac (0..0xfff)\n"
    "-m --mpower <1|0>       - motor control power on/off\n"
    "-c --cpower <1|0>       - measurement channel power on/off\n"
    "-u --upower <1|0>       - USB host power power on/off\n"
    "-s --sine [<f>|<freqreg>] - setup sinewave generator for 20kHz output (no args)\n"
    "                          opional parameter is sine frequency as decimal number or\n"
    "                          frequency register value as 0x-prefixed hex value\n"
    "-p --poti value         - write value to dig. poti (0..0x100)\n"
    "-b --backlight value    - control display backlight (0..100)\n"
    "-V --voltages           - dump internal ADC voltages\n"
    "-S --suspend [time]     - suspend system, option: resume after time seconds\n"
    "-e --events             - monitor charger and pmic/push-button events\n"
    "-E --emctest            - test mode for emc testing\n"
    "-F --fbtest             - framebuffer test image\n"
    "-t --touch              - monitor touch screen events\n"
    "-o --opto               - Opto RS232 test (sending and break detection)\n"
    "-r --remote [tcpport]   - Start remote control server (default port=7073)\n"
    "-a --vganf              - query end switch\n"
    "-A --aquisition mode    - get samples from measurement channel ADC\n"
    "                          128kS/s, 64x oversampling, freerun\n"
    "                          mode=0: fill sample buffer for 10s\n"
    "                          mode=1: no sample buffer, monitor last data\n"
    "                          mode=2: same as mode=0, but disable pruss filter\n"
    "                          mode=3: same as mode=1, but output data on opto interface\n"
    "                          mode=4: same as mode=0, but keep pruss active after aquisition\n"
    "-X --demo               - full aquisition demo\n"
    "-Y --pmdemo             - power management demo\n"
    "-C --charger            - charger monitor\n"
    "-D --detect             - detect USB charger (interface must be unbinded)\n"
    "\n"
    "options:\n"
    " -v                     - enable debug output\n"
    " -T tracelevel          - set zfl tracelevel 0..5 (default: 3)\n"
    " -f filename            - write samples to file filename\n"
    ;

void print_banner(void)
{
    printf("velatool %s - service and remote control program of the measuring instrument\n",
           VELATOOL_VERSION);
}

void print_usage(const char* progname)
{
    print_banner();
    printf("Usage: %s command <options>\n", progname);
    fputs(usage_text, stdout);
}

int parse_opts(int argc, char** argv)
{
    int result = 0;
    int actions = 0;
    int c;

    while ((c = getopt_long(argc, argv, short_options, long_options, NULL)) != -1) {
        switch (c) {
        case 'A': case 'b': case 'c': case 'd': case 'm': case 'p': case 'u':
            options.action = (char)c;
            options.arg[0] = optarg;
            actions++;
            break;
        case 'C': case 'D': case 'E': case 'F': case 'V': case 'X': case 'Y':
        case 'a': case 'e': case 'o': case 't':
            options.action = (char)c;
            actions++;
            break;
        case 'S': case 'r': case 's':
            /* The optional argument is the next word unless it is an option. */
            options.action = (char)c;
            actions++;
            if (optind < argc && argv[optind][0] != '-') {
                options.arg[0] = argv[optind];
                optind++;
            }
            break;
        case 'T':
            options.tracelevel = atoi(optarg);
            break;
        case 'f':
            options.filename = optarg;
            break;
        case 'v':
            options.verbose++;
            break;
        default:
            result = -1;
            break;
        }
    }

    if (actions != 1) {
        fprintf(stderr, "ERROR: ");
        fprintf(stderr, "exactly one action is required\n");
        result = -1;
    }
    if (options.tracelevel < 0 || options.tracelevel > 5) {
        fprintf(stderr, "ERROR: ");
        fprintf(stderr, "invalid tracelevel\n");
        result = -1;
    }

    if (result == -1) {
        print_usage(argv[0]);
        return -1;
    }
    if (options.verbose) {
        /* glibc prints a null string as "(null)"; the casts keep -Wformat quiet. */
        const char* filename = options.filename;
        const char* arg = options.arg[0];
        printf("action   : %c\n", options.action);
        printf("verbose  : %d\n", options.verbose);
        printf("tracelevel : %d\n", options.tracelevel);
        printf("filename : %s\n", filename != NULL ? filename : "(null)");
        printf("arg[0]   : %s\n", arg != NULL ? arg : "(null)");
    }
    return 0;
}

static int action_dac(void)
{
    uint16_t value = (uint16_t)strtoul(options.arg[0], NULL, 0);
    printf("Writing 0x%04x to I2C DAC (motor voltage)\n", value);
    return vela_motor_dac_write(value);
}

/* The on/off words are printed for 0 and 1 only; any other value still
 * reaches the control, which refuses it. */
static void print_power(const char* what, int value)
{
    if (value == 1)
        printf("%s: on\n", what);
    else if (value == 0)
        printf("%s: off\n", what);
}

static int action_mpower(void)
{
    int value = atoi(options.arg[0]);
    print_power("Motor power", value);
    return vela_motor_power_ctrl(value);
}

static int action_cpower(void)
{
    int value = atoi(options.arg[0]);
    print_power("Measurement channel power", value);
    return vela_meas_power_ctrl(value);
}

static int action_upower(void)
{
    int value = atoi(options.arg[0]);
    print_power("USB host port power", value);
    return vela_usbhost_power_ctrl(value);
}

static int action_backlight(void)
{
    uint8_t brightness = (uint8_t)strtoul(options.arg[0], NULL, 0);
    printf("Setting backlight brightness to %d\n", brightness);
    return vela_backlight_set(brightness);
}

/* With a time, the RTC alarm is armed first; an alarm that cannot be armed
 * means no suspend, since nothing would wake the device. */
static int action_suspend(void)
{
    if (options.arg[0] != NULL) {
        int seconds = (int)strtoul(options.arg[0], NULL, 0);
        printf("Resuming in %d seconds ...\n", seconds);
        int ret = vela_rtc_alarm((uint32_t)seconds);
        if (ret != 0)
            return ret;
    }
    puts("Suspending ...");
    return vela_suspend();
}

static int action_detect(void)
{
    puts("Detect USB charger");
    return do_chargerdetect();
}

static int action_charger(void)
{
    puts("Charger monitor");
    return do_chargermonitor();
}

static int action_remote(void)
{
    uint16_t port = 7073;
    if (options.arg[0] != NULL)
        port = (uint16_t)strtoul(options.arg[0], NULL, 0);
    MTRACE_ALWAYS("Starting remote control server on port %d\n", port);
    return remotecontrol(port);
}

/* The diagnostic and test modes: a line, then the mode. */
static int action_eventmonitor(void)
{
    puts("Monitoring pmic and charger events");
    return do_eventmonitor();
}

static int action_emctest(void)
{
    puts("Entering EMC test mode");
    return do_emctest();
}

static int action_fbtest(void)
{
    puts("Display frame buffer test image");
    return do_fbtest();
}

static int action_touchmonitor(void)
{
    puts("Monitoring touchscreen events");
    return do_touchmonitor();
}

static int action_opto(void)
{
    puts("Opto RS232 test");
    return do_opto_rs232_test();
}

static int action_poti(void)
{
    uint16_t value = (uint16_t)strtoul(options.arg[0], NULL, 0);
    printf("Writing 0x%04x to I2C poti\n", value);
    return vela_meas_poti_write(value);
}

/* No argument: the fixed 20 kHz set-up; "0x..." a frequency register value;
 * anything else a frequency in Hz. */
static int action_sine(void)
{
    puts("Setup sine wave generator");
    const char* arg = options.arg[0];
    if (arg == NULL)
        return vela_sine_setup();
    if (strncmp(arg, "0x", 2) == 0) {
        uint32_t freqreg = (uint32_t)strtoul(arg, NULL, 16);
        printf("sine_setup with freqreg=0x%08x\n", freqreg);
        return vela_sine_setup_freqreg(freqreg);
    }
    double freq = atof(arg);
    printf("sine_setup with f=%.2f\n", freq);
    return vela_sine_setup_ex(freq);
}

/* Results of the read and of the temperature are not checked: a failed
 * channel shows its neighbour's value, the dump goes on. */
static int action_voltages(void)
{
    adchnd_t handle;
    int ret = am335x_adc_init(&handle);
    if (ret != 0) {
        printf("am335x_adc_init failed (result=%d)\n", ret);
        return ret;
    }
    struct vela_adc_s values;
    am335x_adc_read(handle, &values);
    for (int i = 0; i < VELA_ADC_CHANNELS; i++)
        printf("%d: %25s: %1.3f\n", i, values.name[i], values.val[i]);
    float temp = 0.0f;
    vela_battery_temp(values.val[0], values.val[7], &temp);
    printf("Battery temperature: %f\n", temp);
    printf("Motor voltage: %1.2f\n", values.val[4] - values.val[5]);
    am335x_adc_close(handle);
    return 0;
}

static int action_vganf(void)
{
    puts("Query endswitch state:");
    int ret = vela_motor_vganf_init();
    if (ret < 0)
        return ret;
    int state = 0;
    ret = vela_motor_get_vganf(&state);
    if (ret == 0)
        printf("%d: endposition %sreached\n", state, state == 0 ? "" : "not ");
    vela_motor_vganf_close();
    return ret;
}

static int action_aquisition(void)
{
    int mode = atoi(options.arg[0]);
    puts("Aquiring data:");
    int ret = do_aquisition(options.filename, mode, 1);
    return ret > 0 ? 0 : ret; /* a histogram width is no failure */
}

/* One row per action letter; a letter without a row takes the "not
 * implemented" path. */
struct action_s {
    char letter;
    int (*run)(void);
};

static const struct action_s actions[] = {
    {'V', action_voltages},
    {'A', action_aquisition},
    {'C', action_charger},
    {'D', action_detect},
    {'E', action_emctest},
    {'F', action_fbtest},
    {'S', action_suspend},
    {'X', do_demo},
    {'Y', do_pmdemo},
    {'a', action_vganf},
    {'b', action_backlight},
    {'c', action_cpower},
    {'d', action_dac},
    {'e', action_eventmonitor},
    {'m', action_mpower},
    {'o', action_opto},
    {'p', action_poti},
    {'r', action_remote},
    {'s', action_sine},
    {'t', action_touchmonitor},
    {'u', action_upower},
    {0, NULL},
};

static int run_action(char letter)
{
    for (const struct action_s* a = actions; a->run != NULL; a++) {
        if (a->letter == letter)
            return a->run();
    }
    fprintf(stderr, "ERROR: ");
    fprintf(stderr, "not implemented %c\n", letter);
    return 0;
}

int velatool_main(int argc, char** argv)
{
    options.tracelevel = 3;
    if (parse_opts(argc, argv) != 0)
        return 1;
    if (options.verbose)
        print_banner();

    MTRACE_ALWAYS("Setting tracelevel to %d\n", options.tracelevel);
    _MTrace_SetLevel(MTRACE_DOMAIN, options.tracelevel);

    int ret = run_action(options.action);
    if (ret != 0)
        printf("Failed.\n");
    return ret;
}

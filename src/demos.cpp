/* The demos and production tests of the command line: the drive and
 * measurement demo (-X), the USB stick test, the EMC test loop (-E) and the
 * power-management demo (-Y). Output is flushed line by line, since these
 * run under test rigs that read it live. */
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "am335x_adc.h"
#include "aquisition.h"
#include "measurement.h"
#include "motorctrl.h"
#include "opto.h"
#include "power.h"
#include "sysfs.h"
#include "testmodes.h"
#include "velatool.h"

namespace {

/* DAC operating points of the drive. */
const uint16_t kDacFast = 0;
const uint16_t kDacStop = 2082;
const uint16_t kDac1mm = 2944;
const uint16_t kDacHalfMm = 2496;

const int kPotiSetup = 192;
const int kEndSwitchWait = 10000;
const char kEventDevice[] = "/dev/input/by-path/platform-44e0b000.i2c-event";

__attribute__((format(printf, 1, 2))) void say(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vprintf(fmt, ap);
    va_end(ap);
    fflush(stdout);
}

void line(const char* text)
{
    puts(text);
    fflush(stdout);
}

__attribute__((format(printf, 1, 2))) void error(const char* fmt, ...)
{
    fflush(stdout);
    fprintf(stderr, "ERROR: ");
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fflush(stderr);
}

/* A failed DAC write is reported; the caller decides whether to go on. */
int dac(uint16_t val)
{
    int ret = vela_motor_dac_write(val);
    if (ret != 0)
        error("motor_dac_write failed!\n");
    return ret;
}

void print_motor_voltages(adchnd_t adc)
{
    float mp = 0, mm = 0;
    am335x_adc_read_single(adc, 4, &mp);
    am335x_adc_read_single(adc, 5, &mm);
    say("MOT+=%1.2fV\nMOT-=%1.2fV\nVMOT=%1.2f\n", mp, mm, mp - mm);
}

/* End switch open, motor and channel powered, generator and potentiometer
 * set up; then home the drive if it is not there yet. A switch that cannot
 * be read counts as reached: no blind travel at full speed. */
void prepare_and_home(adchnd_t adc)
{
    vela_motor_vganf_init();
    vela_motor_power_ctrl(1);
    vela_meas_power_ctrl(1);
    vela_sine_setup();
    vela_meas_poti_write(kPotiSetup);
    int state = 0;
    if (vela_motor_get_vganf(&state) != 0)
        state = 0;
    if (state == 0)
        return;
    line("Goto far end until VG_ANF does low");
    vela_motor_vganf_enable_edgeirq();
    dac(kDacFast);
    print_motor_voltages(adc);
    if (vela_motor_get_vganf(&state) != 0)
        state = 0;
    if (state != 0)
        say("wait result: %d\n", vela_motor_vganf_wait(kEndSwitchWait));
    print_motor_voltages(adc);
}

int open_adc(adchnd_t* adc)
{
    int ret = am335x_adc_init(adc);
    if (ret != 0) {
        say("am335x_adc_init failed (result=%d)\n", ret);
        return -1;
    }
    return 0;
}

volatile sig_atomic_t emc_done = 0;

void emctest_abort_handler(int)
{
    static const char msg[] = "\n\nemctest_abort_handler: shutting down after this run\n";
    ssize_t n = write(STDOUT_FILENO, msg, sizeof msg - 1);
    (void)n;
    emc_done = 1;
}

} // namespace

int do_demo(void)
{
    adchnd_t adc = nullptr;
    if (open_adc(&adc) != 0)
        return -1;
    prepare_and_home(adc);

    line("Pause 1s");
    dac(kDacStop);
    print_motor_voltages(adc);
    sleep(1);

    line("Measure at 1mm/s for 5s");
    dac(kDac1mm);
    print_motor_voltages(adc);
    sleep(5);

    line("Pause 1s");
    dac(kDacStop);
    sleep(1);

    line("Measure at 0.5mm/s for 10s");
    dac(kDacHalfMm);
    print_motor_voltages(adc);
    do_aquisition(options.filename, 0, 1);
    fflush(stdout);

    /* Motor and channel power stay on. */
    dac(kDacStop);
    vela_motor_vganf_close();
    am335x_adc_close(adc);
    return 0;
}

int do_usbtest(const char* mountpoint)
{
    const size_t half = 64 * 1024;
    char* buf = static_cast<char*>(malloc(2 * half));
    if (buf == nullptr)
        return -1;
    memset(buf, 'X', half);
    memset(buf + half, 0, half);

    int ret = -1;
    char path[512];
    char cmd[600];
    snprintf(path, sizeof path, "%s/storagetest", mountpoint);
    snprintf(cmd, sizeof cmd, "grep %s /proc/mounts > /dev/null 2>&1", mountpoint);
    /* Not mounted: stop here rather than fill the root file system through
     * the empty mount point. */
    if (system(cmd) != 0) {
        error("%s not mounted\n", mountpoint);
        free(buf);
        return -1;
    }

    int fd = open(path, O_RDWR | O_CREAT, 0644);
    if (fd < 0) {
        error("cannot open testfile %s for writing (errno=%d)\n", path, errno);
        goto out;
    }
    {
        ssize_t n = write(fd, buf, half);
        int err = errno;
        close(fd);
        if (n < 0) {
            error("cannot write testfile %s (errno=%d)\n", path, err);
            goto out;
        }
        if (static_cast<size_t>(n) != half) {
            error("write imcomplete\n");
            goto out;
        }
    }
    fd = open(path, O_RDONLY);
    if (fd < 0) {
        error("cannot re-open testfile %s for reading (errno=%d)\n", path, errno);
        goto out;
    }
    {
        ssize_t n = read(fd, buf + half, half);
        int err = errno;
        close(fd);
        if (n < 0) {
            error("cannot read testfile %s (errno=%d)\n", path, err);
            goto out;
        }
        if (static_cast<size_t>(n) != half) {
            error("read imcomplete\n");
            goto out;
        }
    }
    if (memcmp(buf, buf + half, half) != 0) {
        error("verify error\n");
        goto out;
    }
    ret = 0;
out:
    free(buf);
    return ret;
}

int do_emctest(void)
{
    static const char logname[] = "/home/root/vela_emctest.log";
    FILE* log = fopen(logname, "a");
    if (log == nullptr) {
        perror("fopen/log");
        return -1;
    }
    say("Writing logfile %s\n", logname);
    fprintf(log, "velatool %s emc test log file\n\r", VELATOOL_VERSION);
    fprintf(log, "TIME: loops, errors, hist_width, VMOT, VSYS, BATTEMP\n\r");
    fflush(log);

    int opto = opto_rs232_open("/dev/ttyO1");
    if (opto < 0) {
        fclose(log);
        return -1;
    }
    adchnd_t adc = nullptr;
    if (open_adc(&adc) != 0) {
        opto_rs232_close(opto);
        fclose(log);
        return -1;
    }
    int ret = vela_usbhost_power_ctrl(1);
    if (ret != 0) {
        say("vela_usbhost_power_ctrl failed (result=%d)\n", ret);
        am335x_adc_close(adc);
        opto_rs232_close(opto);
        fclose(log);
        return -1;
    }

    struct sigaction sa = {}, old = {};
    sa.sa_handler = emctest_abort_handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    emc_done = 0;
    sigaction(SIGINT, &sa, &old);

    int runs = 0, errors = 0;
    while (!emc_done) {
        prepare_and_home(adc);
        /* A drive that takes no orders ends the test, powered down. */
        bool drive_ok = dac(kDacStop) == 0;
        if (drive_ok) {
            usleep(10000);
            line("Measure at 0.5mm/s for 10s");
            drive_ok = dac(kDacHalfMm) == 0;
        }
        if (!drive_ok) {
            errors++;
            vela_motor_power_ctrl(0);
            vela_meas_power_ctrl(0);
            vela_motor_vganf_close();
            break;
        }
        usleep(10000);

        float mp = 0, mm = 0, vsys = 0, vntc = 0, vntcref = 0, temp = 0;
        am335x_adc_read_single(adc, 4, &mp);
        am335x_adc_read_single(adc, 5, &mm);
        am335x_adc_read_single(adc, 2, &vsys);
        am335x_adc_read_single(adc, 0, &vntc);
        am335x_adc_read_single(adc, 7, &vntcref);
        vela_battery_temp(vntc, vntcref, &temp);
        float vmot = mp - mm;
        if (options.verbose)
            say("MOT+=%1.2fV\nMOT-=%1.2fV\nVMOT=%1.2f\nVSYS=%1.2f\nVNTC=%1.2fV, VNTCREF=%1.2fV, BATTEMP=%1.2foC\n", mp,
                mm, vmot, vsys, vntc, vntcref, temp);

        int width = do_aquisition(options.filename, 0, 0);
        fflush(stdout);
        if (width < 0) {
            say("do_aquisition failed!\n");
            errors++;
            width = 0;
        }

        vela_motor_power_ctrl(0);
        vela_meas_power_ctrl(0);
        vela_motor_vganf_close();

        if (do_usbtest("/media/sda1") != 0) {
            say("do_usbtest failed!\n");
            errors++;
        }

        char now[32];
        if (query_rtc_time(now, sizeof now) != 0) {
            say("query_rtc_time failed!\n");
            errors++;
            snprintf(now, sizeof now, "unkown");
        }

        runs++;
        if (vmot < -1.5f || vmot > -1.0f) {
            say("invalid motor voltage: %1.2fV (valid: %1.2fV..%1.2fV)\n", vmot, -1.5, -1.0);
            errors++;
        }
        if (vsys < 3.5f || vsys > 4.3f) {
            say("invalid system voltage: %1.2fV (valid: %1.2fV..%1.2fV)\n", vsys, 3.5, 4.3);
            errors++;
        }
        if (width < 10 || width > 70) {
            say("invalid histogram width: %d (valid: %d..%d)\n", width, 10, 70);
            errors++;
        }

        char result[160];
        int len = snprintf(result, sizeof result, "%s: %d, %d, %d, %1.2f, %1.2f, %1.2f\n\r", now, runs, errors, width,
                           vmot, vsys, temp);
        if (len < 0)
            len = 0;
        if (static_cast<size_t>(len) >= sizeof result)
            len = sizeof result - 1;
        say("[RESULT]%s", result);
        if (fputs(result, log) < 0) {
            say("write to logfile failed!\n");
            errors++;
        }
        fflush(log);
        if (write(opto, result, len) != len) {
            say("write to opto_rs232 failed!\n");
            errors++;
        }
        usleep(10000);
    }
    sigaction(SIGINT, &old, nullptr);

    fclose(log);
    am335x_adc_close(adc);
    opto_rs232_close(opto);
    return 0;
}

int do_pmdemo(void)
{
    int level = 100;
    adchnd_t adc = nullptr;
    if (open_adc(&adc) != 0)
        return -1;

    for (;;) {
        float vntc = 0, vntcref = 0, temp = 0, vbat = 0;
        am335x_adc_read_single(adc, 0, &vntc);
        am335x_adc_read_single(adc, 7, &vntcref);
        vela_battery_temp(vntc, vntcref, &temp);
        am335x_adc_read_single(adc, 1, &vbat);
        say("battery voltage=%1.2fV\nbattery temperature=%1.2foC\n", vbat, temp);

        if (vbat < 3.5f) {
            line("Low battery: shutting down ...");
            /* Its result changes nothing: the system goes down or not. */
            int ret = system("/sbin/shutdown -P -h now");
            (void)ret;
            for (;;) {
                line("ping");
                sleep(1);
            }
        }

        line("sleeping for 5 seconds");
        sleep(5);

        if (level != 0) {
            line("goto eco state");
            while (level > 19) {
                vela_backlight_set(static_cast<uint8_t>(level));
                usleep(250000);
                level -= 10;
            }
            line("eco state reached");
            line("sleeping for 5 seconds");
            sleep(5);
            level = 0;
            vela_backlight_set(0);
        }

        if (vela_rtc_alarm(10) != 0)
            break;

        /* Non-blocking: after the alarm there is nothing to read. */
        int fd = open(kEventDevice, O_RDONLY | O_NONBLOCK);
        if (fd < 0) {
            perror("open");
            break;
        }
        line("goto suspend state ...");
        if (vela_suspend() != 0) {
            close(fd);
            break;
        }
        line("back again ...");
        char events[1024];
        int n = static_cast<int>(read(fd, events, sizeof events));
        if (n < 0)
            n = 0; /* nothing pending: woken by the alarm */
        say("n=%d\n", n);
        close(fd);
        if (n > 0) {
            level = 100;
            vela_backlight_set(100);
            line("wake up by start button");
        }
    }

    am335x_adc_close(adc);
    return 0;
}

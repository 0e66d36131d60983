#include "power.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/rtc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include "am335x_adc.h"
#include "mtrace.h"
#include "sysfs.h"

/* ---- Platform controls ---- */

static const char usb_power_path[] = "/sys/class/gpio/usb_power/value";
static const char usb_unbind_path[] = "/sys/bus/platform/drivers/musb-dsps/unbind";
static const char usb_bind_path[] = "/sys/bus/platform/drivers/musb-dsps/bind";
static const char usb_mode_path[] = "/sys/bus/platform/drivers/musb-dsps/47401c00.usb/musb-hdrc.1.auto/mode";
static const char usb_device[] = "47401c00.usb";
static const char backlight_path[] = "/sys/class/backlight/tps65217-bl/brightness";
static const char backlight_actual_path[] = "/sys/class/backlight/tps65217-bl/actual_brightness";
static const char rtc_device[] = "/dev/rtc0";
static const char power_state_path[] = "/sys/power/state";
static const char cpufreq_max_path[] = "/sys/devices/system/cpu/cpu0/cpufreq/scaling_max_freq";
static const char cpufreq_min_path[] = "/sys/devices/system/cpu/cpu0/cpufreq/scaling_min_freq";
static const char led_trigger_path[] = "/sys/devices/leds.4/leds/vela:green:run/trigger";

/* Off: the controller is unbound first, so that it sees its supply go. On:
 * re-binding with the supply present brings the controller up as host. */
int vela_usbhost_power_ctrl(int onoff)
{
    if (onoff == 0) {
        sysfs_write_string(usb_unbind_path, usb_device); /* already unbound is no error */
        return sysfs_write_string(usb_power_path, "0");
    }
    if (onoff != 1)
        return -EINVAL;
    int ret = sysfs_write_string(usb_power_path, "1");
    if (ret != 0)
        return ret;
    char mode[16];
    if (sysfs_read_string(usb_mode_path, mode, sizeof mode) != 0)
        return sysfs_write_string(usb_bind_path, usb_device);
    if (strcmp(mode, "a_host") == 0)
        return 0;
    sysfs_write_string(usb_unbind_path, usb_device);
    return sysfs_write_string(usb_bind_path, usb_device);
}

int vela_backlight_set(uint8_t brightness)
{
    return sysfs_write_valid_int(backlight_path, 0, 100, brightness);
}

int vela_backlight_get(uint8_t* brightness)
{
    if (brightness == NULL)
        return -EINVAL;
    char text[8];
    if (sysfs_read_string(backlight_actual_path, text, sizeof text) != 0)
        return -1;
    *brightness = (uint8_t)atoi(text);
    return 0;
}

/* The alarm is one second later than asked, so that it never lands in the
 * current second. The RTC's fields go through mktime() and back through
 * localtime(): the same interpretation both ways keeps the RTC's own time
 * base, whatever the time zone. */
int vela_rtc_alarm(uint32_t seconds)
{
    int fd = open(rtc_device, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    if (seconds == 0) {
        int ret = ioctl(fd, RTC_AIE_OFF, 0);
        close(fd);
        return ret;
    }
    struct rtc_time rtc;
    int ret = ioctl(fd, RTC_RD_TIME, &rtc);
    if (ret != 0) {
        close(fd);
        return ret;
    }
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    tm.tm_sec = rtc.tm_sec;
    tm.tm_min = rtc.tm_min;
    tm.tm_hour = rtc.tm_hour;
    tm.tm_mday = rtc.tm_mday;
    tm.tm_mon = rtc.tm_mon;
    tm.tm_year = rtc.tm_year;
    tm.tm_isdst = -1;
    time_t now = mktime(&tm);
    if (now == (time_t)-1) {
        close(fd);
        return -1;
    }
    MTRACE(3, "rtctime = %lld, (UTC) %s", (long long)now, asctime(&tm));
    time_t alarm = now + (time_t)seconds + 1;
    MTRACE(3, "wakeup using %s at %s", rtc_device, ctime(&alarm));

    struct tm at;
    localtime_r(&alarm, &at);
    struct rtc_wkalrm wake;
    memset(&wake, 0, sizeof wake);
    wake.time.tm_sec = at.tm_sec;
    wake.time.tm_min = at.tm_min;
    wake.time.tm_hour = at.tm_hour;
    wake.time.tm_mday = at.tm_mday;
    wake.time.tm_mon = at.tm_mon;
    wake.time.tm_year = at.tm_year;
    wake.time.tm_wday = -1;
    wake.time.tm_yday = -1;
    wake.time.tm_isdst = -1;
    wake.enabled = 1;
    ret = ioctl(fd, RTC_WKALM_SET, &wake);
    close(fd);
    return ret;
}

/* The write returns once the system has resumed. A charger this program
 * looks after is handed back to its stand-alone mode first: its watchdog
 * cannot be restarted while the processor sleeps, and would otherwise expire
 * 30 s into every sleep with a fault. The next power event programs it
 * again. */
int vela_suspend(void)
{
    if (chgstate.fd >= 0 && charger_write(2, REG2_RESET) != 0)
        MTRACE(3, "vela_suspend(): charger reset failed");
    int ret = sysfs_write_string(power_state_path, "mem");
    if (ret != 0)
        return ret;
    return vela_rtc_alarm(0);
}

/* The limits are written in the order that never has the minimum above the
 * maximum: the kernel refuses that. */
int vela_cpufreq_set(int high)
{
    int ret;
    if (high) {
        ret = sysfs_write_string(cpufreq_max_path, "800000");
        if (ret != 0)
            return ret;
        return sysfs_write_string(cpufreq_min_path, "600000");
    }
    ret = sysfs_write_string(cpufreq_min_path, "300000");
    if (ret != 0)
        return ret;
    return sysfs_write_string(cpufreq_max_path, "300000");
}

int vela_led_set(int mode)
{
    static const char* const triggers[] = {"none", "default-on", "timer"};
    if (mode < 0 || mode > 2)
        return -EINVAL;
    return sysfs_write_string(led_trigger_path, triggers[mode]);
}

/* ---- The bq24160 charger ---- */

struct charger_state_s chgstate = {{0}, -1, 0, 0, 0};

const char* const bq24160_stat[8] = {
    "no valid source", "IN ready", "USB ready", "charging from IN", "charging from USB", "charging done", "NA", "fault",
};

const char* const bq24160_fault[8] = {
    "normal", "thermal shutdown", "battery temperature fault", "wdg expired", "safety timer expired",
    "IN supply fault", "USB supply fault", "battery fault",
};

static const char charger_device[] = "/dev/i2c-0";
static const int charger_address = 0x6b;
static const char chgint_edge_path[] = "/sys/class/gpio/chgint/edge";
static const char chgint_value_path[] = "/sys/class/gpio/chgint/value";
static const int DETECT_POLLS_MAX = 2000; /* 1 ms apart */

/* Opens the bus at the charger's address; the name is the caller's, for its
 * traces. */
static int charger_open(const char* who)
{
    int fd = open(charger_device, O_RDWR | O_SYNC);
    if (fd < 0) {
        MTRACE(3, "%s(): open %s failed", who, charger_device);
        return -1;
    }
    if (ioctl(fd, I2C_SLAVE, charger_address) < 0) {
        MTRACE(3, "%s(): ioctl(I2C_SLAVE) failed", who);
        close(fd);
        return -1;
    }
    return fd;
}

int charger_read(uint8_t* regs, int offset, int count)
{
    if (regs == NULL || offset < 0 || count < 0 || offset + count > 8)
        return -EINVAL;
    int fd = charger_open("charger_read");
    if (fd < 0)
        return -1;
    uint8_t reg = (uint8_t)offset;
    int ret = 0;
    if (write(fd, &reg, 1) != 1) {
        MTRACE(3, "charger_read(): writing address failed");
        ret = -1;
    } else if (read(fd, regs, (size_t)count) != count) {
        MTRACE(3, "charger_read(): read incomplete");
        ret = -1;
    }
    close(fd);
    return ret;
}

/* Register 8 is one past the last and is let through to the bus. Kept so. */
int charger_write(int offset, uint8_t val)
{
    if (offset < 0 || offset > 8)
        return -EINVAL;
    MTRACE(4, "charger_write(): reg[%d]=0x%02x", offset, val);
    int fd = charger_open("charger_write");
    if (fd < 0)
        return -1;
    uint8_t buf[2] = {(uint8_t)offset, val};
    int ret = 0;
    if (write(fd, buf, sizeof buf) != (ssize_t)sizeof buf) {
        MTRACE(3, "charger_write(): failed");
        ret = -1;
    }
    close(fd);
    return ret;
}

int vela_power_init(void)
{
    MTRACE(3, "vela_power_init()");
    chgstate.fd = -1;
    chgstate.state = BATT_STATE_UNKNOWN;
    chgstate.level = BATT_LEVEL_UNKNOWN;
    chgstate.usbpwrok = 0;
    /* Both edges: the line is low while the battery charges, so a supply
     * that goes away ends the charge with a rising edge, and a pulse on a
     * status change starts with a falling one. */
    int ret = sysfs_write_string(chgint_edge_path, "both");
    MTRACE(3, "vela_power_init(): edge -> both: %d", ret);
    int fd = open(chgint_value_path, O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        MTRACE(3, "vela_power_init(): open failed");
        return -1;
    }
    if (charger_read(chgstate.regs, 0, 8) != 0)
        MTRACE(3, "vela_power_init(): charger_read() failed");
    if (vela_led_set(0) != 0)
        MTRACE(3, "vela_power_init(): vela_led_set() failed");
    chgstate.fd = fd;
    chgstate.usbpwrok = ((chgstate.regs[1] >> 4) & 3) != 3;
    return fd;
}

int vela_power_close(void)
{
    if (chgstate.fd >= 0)
        close(chgstate.fd);
    chgstate.fd = -1;
    vela_led_set(0);
    return 0;
}

int vela_batt_state_get(int* state, int* level)
{
    if (state == NULL && level == NULL)
        return -EINVAL;
    if (state != NULL)
        *state = chgstate.state;
    if (level != NULL)
        *level = chgstate.level;
    return 0;
}

/* The chip clears the detection bit when it is done. The poll waits a
 * millisecond between reads and gives up after two seconds: a chip that
 * never clears the bit must not hang the caller (the server's loop). A
 * failing read ends it too. */
int vela_charger_detect(void)
{
    MTRACE(3, "vela_charger_detect()");
    uint8_t reg3;
    int ret = charger_read(&reg3, 3, 1);
    if (ret != 0)
        return ret;
    reg3 |= REG3_DPDM_EN;
    MTRACE(3, "trigger D+/D- detection");
    charger_write(3, reg3);
    int cnt = 0;
    for (;;) {
        ret = charger_read(&reg3, 3, 1);
        if (ret != 0)
            break;
        if (!(reg3 & REG3_DPDM_EN)) {
            MTRACE(3, "vela_detect_charger(): detection done, cnt=%d", cnt);
            break;
        }
        if (++cnt >= DETECT_POLLS_MAX) {
            MTRACE(3, "vela_charger_detect(): detection not done after %d reads", cnt);
            break;
        }
        usleep(1000);
    }
    MTRACE(4, "vela_charger_detect(): pollcnt=%d", cnt);
    uint8_t r[8] = {0};
    ret = charger_read(r, 0, 8);
    MTRACE(4, "vela_charger_detect(): regs: %02x %02x %02x %02x %02x %02x %02x %02x", r[0], r[1], r[2], r[3], r[4],
           r[5], r[6], r[7]);
    return ret;
}

/* Each step writes only what is not set already, so the set-up can run at
 * every start. The regulation voltage changes only in high-impedance mode,
 * and every step that sets that mode clears it again. */
int vela_charger_setup(uint8_t* reg_state)
{
    uint8_t local[8];
    uint8_t* r = reg_state;
    if (r == NULL) {
        int ret = charger_read(local, 0, 8);
        if (ret != 0)
            return ret;
        r = local;
    }
    r[2] &= (uint8_t)~REG2_RESET;
    MTRACE(4, "vela_charger_setup(): before: %02x %02x %02x %02x %02x %02x %02x %02x", r[0], r[1], r[2], r[3], r[4],
           r[5], r[6], r[7]);
    if (((r[1] >> 1) & 3) == 1) {
        MTRACE(3, "vela_charger_setup(): battery OVP");
        r[2] |= REG2_HZ_MODE;
        charger_write(2, r[2]);
        r[2] &= (uint8_t)~REG2_HZ_MODE;
        charger_write(2, r[2]);
    }
    if ((r[3] & REG3_VBREG_MASK) != REG3_VBREG) {
        MTRACE(3, "vela_charger_setup(): setting VBREG");
        r[2] |= REG2_HZ_MODE;
        charger_write(2, r[2]);
        r[3] = (uint8_t)((r[3] & 0x03) | REG3_VBREG);
        charger_write(3, r[3]);
        r[2] &= (uint8_t)~REG2_HZ_MODE;
        charger_write(2, r[2]);
    }
    if ((r[2] & REG2_IUSB_MASK) == 0) {
        MTRACE(3, "vela_charger_setup(): setting usb Ilimit to 500mA");
        r[2] = (uint8_t)((r[2] & 0x8f) | REG2_IUSB_500MA);
        charger_write(2, r[2]);
    }
    if ((r[5] >> 3) != 12 || (r[5] & 7) != 2) {
        MTRACE(3, "vela_charger_setup(): setting Ichg/Iterm");
        r[5] = REG5_ICHG_ITERM;
        charger_write(5, r[5]);
    }
    if (r[2] & REG2_CE_DISABLE) {
        MTRACE(3, "vela_charger_setup(): charging enable");
        r[2] &= (uint8_t)~REG2_CE_DISABLE;
        charger_write(2, r[2]);
    }
    return 0;
}

/* The chip keeps the charge parameters only while its watchdog is
 * restarted within 30 s of the last restart; it starts with the first
 * access of any kind. SUPPLY_SEL is the one writable bit beside TMR_RST. */
int vela_charger_watchdog_reset(uint8_t reg0)
{
    return charger_write(0, (uint8_t)(REG0_TMR_RST | (reg0 & REG0_SUPPLY_SEL)));
}

/* Detection needs a battery that can carry the charger's switch-over. */
int do_chargerdetect(void)
{
    adchnd_t adc;
    int ret = am335x_adc_init(&adc);
    if (ret != 0) {
        printf("am335x_adc_init failed (result=%d)\n", ret);
        return 3;
    }
    float vbatt = 0.0f;
    am335x_adc_read_single(adc, 1, &vbatt);
    am335x_adc_close(adc);
    if (vbatt < 3.6f) {
        printf("charger_detection skipped due to low battery (%.2f V)\n", vbatt);
    } else {
        puts("detecting charger");
        if (vela_charger_detect() != 0) {
            puts("charger_detection failed");
            return 1;
        }
    }
    puts("setting up charger");
    if (vela_charger_setup(NULL) != 0) {
        puts("charger_setup failed");
        return 2;
    }
    return 0;
}

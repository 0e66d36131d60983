/* Power events: what a charger interrupt or the periodic poll makes of the
 * battery voltage and the charger's registers (battery state and level, USB
 * input power, charge cycles), and the events that tell the clients. */
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "am335x_adc.h"
#include "messages.h"
#include "mtrace.h"
#include "power.h"
#include "util.h"
#include "remote.h"

enum {
    ADC_CH_VBATT = 1,
    UVLO_READS = 5,
    UVLO_WAIT_US = 40000,
    MONITOR_TIMEOUT_MS = 10000,
};

/* The gadget script's exit status is only traced: without the gadget the
 * instrument still measures. */
static void gadget(const char* verb)
{
    char cmd[64];
    snprintf(cmd, sizeof cmd, "sh ./usb_gadget.sh %s", verb);
    int ret = system(cmd);
    MTRACE(3, "%s: ret=%d\n", cmd, ret);
}

static int led_mode(int batt_state)
{
    switch (batt_state) {
    case BATT_STATE_CHARGING_USB:
    case BATT_STATE_CHARGING:
        return 2;
    case BATT_STATE_DONE:
        return 1;
    default:
        return 0;
    }
}

/* The battery state the charger's status implies. Once "charging done" it
 * stays so while the charger still reports a charge phase, so that the
 * almost-full test does not flap. */
static int new_batt_state(const uint8_t* regs, float vbatt)
{
    int cur = chgstate.state;
    int almost_full = (double)vbatt > state.vbatt_almost_full_threshold;
    int fault = regs[0] & 0x07;
    switch (regs[0] & REG0_STAT_MASK) {
    case STAT_CHARGING_IN:
        if (almost_full)
            return BATT_STATE_DONE;
        return cur == BATT_STATE_DONE ? cur : BATT_STATE_CHARGING;
    case STAT_CHARGING_USB:
        if (almost_full)
            return BATT_STATE_DONE;
        if (cur == BATT_STATE_DONE)
            return cur;
        return (regs[2] & REG2_IUSB_MASK) == REG2_IUSB_CODE5 ? BATT_STATE_CHARGING : BATT_STATE_CHARGING_USB;
    case STAT_NO_SOURCE:
        return BATT_STATE_ON_BATTERY;
    case STAT_DONE:
        return BATT_STATE_DONE;
    case STAT_IN_READY:
    case STAT_USB_READY:
        if (fault == FAULT_THERMAL || fault == FAULT_BATTERY)
            return BATT_STATE_FAULT;
        return cur;
    default:
        return cur;
    }
}

/* USB power back: a D+/D- detection finds the input limit the port grants,
 * and the gadget comes up. The image is read again after the detection, so
 * that the battery state is judged on that limit: a wall charger is fast
 * charging from the start. */
static void usb_connect(uint8_t* regs)
{
    if ((regs[1] & REG1_USB_MASK) == REG1_USB_UVLO || chgstate.usbpwrok != 0)
        return;
    MTRACE(2, "vela_power_handler(): USB connect");
    MTRACE(3, "vela_power_handler(): detection");
    int ret = vela_charger_detect();
    MTRACE(3, "vela_charger_detect(): ret=%d\n", ret);
    if (charger_read(regs, 0, 8) == 0) {
        regs[2] &= (uint8_t)~REG2_RESET;
        vela_charger_setup(regs);
    }
    MTRACE(3, "vela_power_handler(): gadget bind");
    gadget("bind");
    MTRACE(3, "vela_power_handler(): gadget start");
    gadget("start");
    chgstate.usbpwrok = 1;
}

/* Under-voltage on USB tears the gadget down only when it lasts five reads
 * (about 200 ms): a short dip leaves the gadget running. */
static void usb_disconnect(uint8_t* regs)
{
    if ((regs[1] & REG1_USB_MASK) != REG1_USB_UVLO || chgstate.usbpwrok != 1)
        return;
    MTRACE(2, "vela_power_handler(): USB UVLO");
    uint8_t reg1 = regs[1];
    for (int i = 0; i < UVLO_READS; i++) {
        /* A failed read proves nothing either way: it counts as the
         * under-voltage seen before. */
        if (charger_read(&reg1, 1, 1) != 0)
            reg1 = regs[1];
        if ((reg1 & REG1_USB_MASK) != REG1_USB_UVLO) {
            MTRACE(2, "vela_power_handler(): USB PWR OK (%d)", i);
            return;
        }
        usleep(UVLO_WAIT_US);
    }
    MTRACE(2, "vela_power_handler(): USB disconnect");
    MTRACE(3, "vela_power_handler(): gadget stop");
    gadget("stop");
    MTRACE(3, "vela_power_handler(): gadget unbind");
    gadget("unbind");
    /* Back to 500 mA, so that the next host starts from a limit any USB
     * port grants. */
    regs[2] = (uint8_t)((regs[2] & 0x8f) | REG2_IUSB_500MA);
    charger_write(2, regs[2]);
    chgstate.usbpwrok = 0;
}

/* Low and critical are left only with the hysteresis above their entry
 * thresholds; good always passes through low before critical. */
static int new_batt_level(double v)
{
    double crit = state.vbatt_crit_threshold;
    double low = state.vbatt_low_threshold;
    double hyst = state.vbatt_hysteresis;
    switch (chgstate.level) {
    case BATT_LEVEL_LOW:
        if (v < crit)
            return BATT_LEVEL_CRITICAL;
        if (v >= low + hyst)
            return BATT_LEVEL_GOOD;
        return BATT_LEVEL_LOW;
    case BATT_LEVEL_CRITICAL:
        return v >= crit + hyst ? BATT_LEVEL_LOW : BATT_LEVEL_CRITICAL;
    default: {
        int level = v < low ? BATT_LEVEL_LOW : BATT_LEVEL_GOOD;
        MTRACE(5, "vela_power_handler(): DEFAULT, new_level=%d", level);
        return level;
    }
    }
}

/* One cycle: down to the cycle-low threshold, then up to the cycle-high
 * one. */
static void count_cycle(double v)
{
    if (v < state.vbatt_cycle_high_threshold) {
        if (v <= state.vbatt_cycle_low_threshold)
            state.batt_cycle_state = 1;
    } else if (state.batt_cycle_state == 1) {
        state.batt_cycle_state = 0;
        state.batt_cycles++;
        MTRACE(3, "vela_power_handler(): batt_cycles=%d", (int)state.batt_cycles);
    }
}

int vela_power_handler(int statirq)
{
    MTRACE(4, "vela_power_handler(): %s, state=%d", statirq ? "IRQ" : "POLL", chgstate.state);

    float vbatt = 0.0f;
    int vret = am335x_adc_read_single(state.adchnd, ADC_CH_VBATT, &vbatt);
    MTRACE(4, "vela_power_handler(): vbatt=%1.2f, level=%d", vbatt, chgstate.level);
    if (vret != 0)
        MTRACE(3, "vela_power_handler(): battery voltage not read (%d)", vret);

    if (state.remotetest) {
        char dbg[256];
        int n = snprintf(dbg, sizeof dbg, "DBG1: %1.2f %d %d %d\n", vbatt, statirq, chgstate.level, chgstate.state);
        if (n > 0 && write(state.fdopto, dbg, strlen(dbg)) < 0)
            MTRACE(4, "vela_power_handler(): opto write failed");
    }

    /* A failed read leaves the last image: the handler runs to its end on
     * what was known, and nothing changes on a bus that is not there. */
    uint8_t regs[8];
    memcpy(regs, chgstate.regs, sizeof regs);
    if (charger_read(regs, 0, 8) == 0)
        MTRACE(4, "vela_power_handler(): regs: %02x %02x %02x %02x %02x %02x %02x %02x", regs[0], regs[1], regs[2],
               regs[3], regs[4], regs[5], regs[6], regs[7]);
    MTRACE(4, "vela_power_handler(): STAT=%s", bq24160_stat[(regs[0] >> 4) & 7]);
    MTRACE(4, "vela_power_handler(): FAULT=%s", bq24160_fault[regs[0] & 7]);

    /* The charge parameters are checked, and repaired, at every event; the
     * poll every 10 s keeps the chip's watchdog from restoring its
     * defaults. */
    vela_charger_watchdog_reset(regs[0]);
    regs[2] &= (uint8_t)~REG2_RESET;
    vela_charger_setup(regs);

    usb_connect(regs);
    int new_state = new_batt_state(regs, vbatt);
    /* The clients learn the new state before the under-voltage on USB is
     * confirmed: that takes 200 ms, a supply gone is news at once. */
    if (new_state != chgstate.state) {
        MTRACE(3, "vela_power_handler(): batt_state changing: %d -> %d", chgstate.state, new_state);
        vela_led_set(led_mode(new_state));
        vela_send_battery_event(NULL, new_state);
        chgstate.state = new_state;
        if (new_state != BATT_STATE_CHARGING_USB)
            vela_send_battery_level_event(NULL, chgstate.level);
    }
    usb_disconnect(regs);

    memcpy(chgstate.regs, regs, sizeof regs);

    /* Without a voltage there is nothing to judge the level or a cycle by;
     * 0 V would announce a critical battery that is not. */
    if (vret != 0)
        return 0;

    int new_level = new_batt_level((double)vbatt);
    if (new_level != chgstate.level) {
        chgstate.level = new_level;
        MTRACE(5, "vela_power_handler(): new chgstate.level=%d", new_level);
        /* Slow USB charging shows no levels. */
        if (new_state != BATT_STATE_CHARGING_USB)
            vela_send_battery_level_event(NULL, new_level);
    }

    count_cycle((double)vbatt);
    return 0;
}

static int send_event(struct client_s* client, const char* text)
{
    if (client == NULL)
        remote_event(text);
    else
        remote_event_to_client(client, text);
    return 0;
}

int vela_send_battery_event(struct client_s* client, int batt_state)
{
    const char* text;
    switch (batt_state) {
    case BATT_STATE_CHARGING_USB:
    case BATT_STATE_CHARGING:
        text = msg.evt_charging;
        break;
    case BATT_STATE_DONE:
        text = msg.evt_charging_done;
        break;
    case BATT_STATE_ON_BATTERY:
        text = msg.evt_on_battery;
        break;
    case BATT_STATE_FAULT:
        text = msg.evt_batt_fault;
        break;
    default:
        text = "battery mode unknown";
        break;
    }
    return send_event(client, text);
}

int vela_send_battery_level_event(struct client_s* client, int level)
{
    MTRACE(4, "level_event %d", level);
    const char* text;
    switch (level) {
    case BATT_LEVEL_LOW:
        text = msg.evt_battery_low;
        break;
    case BATT_LEVEL_CRITICAL:
        text = msg.evt_battery_critical;
        break;
    case BATT_LEVEL_GOOD:
        text = msg.evt_battery_good;
        break;
    default:
        text = "battery level unkown";
        break;
    }
    return send_event(client, text);
}

/* The kernel clears a GPIO value file's notification only when the file is
 * read from offset 0; a read further on returns nothing and leaves the line
 * reporting for ever. */
static void chgint_ack(int fd)
{
    char buf[4];
    if (pread(fd, buf, sizeof buf, 0) < 0)
        MTRACE(4, "vela_charger_test(): reading the interrupt line failed (errno=%d)", errno);
}

int vela_charger_test(void)
{
    int fd = vela_power_init();
    if (fd < 0) {
        MERRLOG("vela_power_init() failed");
        return -1;
    }
    int ret = am335x_adc_init(&state.adchnd);
    if (ret != 0) {
        MERRLOG("am335x_adc_init failed (result=%d)", ret);
        state.adchnd = NULL;
        vela_power_close();
        return -1;
    }
    /* A value file never read reports a change at once; the first handler
     * call covers whatever is pending. */
    chgint_ack(fd);
    vela_power_handler(0);

    for (;;) {
        struct pollfd pfd = {fd, POLLPRI, 0};
        int n = poll(&pfd, 1, MONITOR_TIMEOUT_MS);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 || (n > 0 && (pfd.revents & POLLNVAL))) {
            printf("vela_charger_test(): poll() failed!\n");
            fflush(stdout);
            break;
        }
        if (n == 0) {
            printf("vela_charger_test(): poll() timeout\n");
            fflush(stdout);
            vela_power_handler(0);
            continue;
        }
        chgint_ack(fd);
        printf("vela_charger_test(): gpio interrupt occurred\n");
        fflush(stdout);
        vela_power_handler(1);
    }

    am335x_adc_close(state.adchnd);
    state.adchnd = NULL;
    vela_power_close();
    return -1;
}

/* The battery thresholds come from the configuration, as in the server:
 * with a zeroed state record every level would read "good". */
int do_chargermonitor(void)
{
    if (util_ini_open() == 0)
        util_ini_read();
    int ret = vela_charger_test();
    MIniData_Destroy(state.h_ini);
    state.h_ini = NULL;
    return ret;
}

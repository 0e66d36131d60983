#include "pstate.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "am335x_adc.h"
#include "aquisition.h"
#include "measurement.h"
#include "messages.h"
#include "motorctrl.h"
#include "mtrace.h"
#include "nv.h"
#include "power.h"
#include "scanmove.h"
#include "util.h"

/* Room for a get handler's number in tbuffer. */
#define PSTATE_VALUE_MAX 16
/* The shortest RTC wake-up interval while suspended, seconds. */
#define SUSPEND_INTERVAL_MIN 10
#define SLEEP_TIME_MAX 86400

static const char* const pstate_names[] = {"off", "suspend", "eco", "ready", "meas"};

/* The next state on the way from current to target: [target-1][current-1].
 * Every walk goes through ready, except ready <-> eco -> off/suspend. */
static const int pstate_next[5][5] = {
    /* current:  off suspend eco ready meas */
    /* off */ {0, 4, 1, 1, 4},
    /* suspend */ {4, 0, 2, 3, 4},
    /* eco */ {4, 4, 0, 3, 4},
    /* ready */ {4, 4, 4, 0, 4},
    /* meas */ {4, 4, 4, 5, 0},
};

int cb_pstate_get(struct client_s* client, char* value)
{
    (void)client;
    return snprintf(value, PSTATE_VALUE_MAX, "%d", (int)state.pstate);
}

int cb_pstate_set(struct client_s* client, const char* value)
{
    MTRACE(4, "cb_pstate_set(): %s", value);
    int target = 0;
    util_parse_int(value, &target); /* or a state's name */
    if (target < 1) {
        for (int i = 0; i < 5; i++) {
            if (strcmp(value, pstate_names[i]) == 0)
                target = i + 1;
        }
        if (target < 1) {
            remote_error(client, msg.value_out_of_range);
            return -1;
        }
    }
    if (target > 5) {
        remote_error(client, msg.value_out_of_range);
        return -1;
    }
    int ret = 0;
    for (;;) {
        int curr = (int)state.pstate;
        if (target == curr)
            return ret;
        MTRACE(3, "cb_pstate_set(): new=%d, curr=%d", target, curr);
        /* Ready is reachable from anywhere, also from a state out of range. */
        int trans = (curr >= 1 && curr <= 5) ? pstate_next[target - 1][curr - 1] : PSTATE_READY;
        MTRACE(3, "cb_pstate_set(): Switching to transitional pstate: %d\n", trans);
        ret = pstate_switch(client, curr, trans);
        if (ret != 0)
            return ret;
    }
}

static void leave_meas(void)
{
    if (state.pruss_info.comm != NULL) {
        aquisition_stop(&state.pruss_info);
        aquisition_shutdown(&state.pruss_info);
    }
    /* The mappings die with the driver (or never came); init makes new ones. */
    memset(&state.pruss_info, 0, sizeof state.pruss_info);
    vela_motor_power_ctrl(0);
    vela_meas_power_ctrl(0);
}

/* Drive stopped, channel powered, generator and potentiometer set, and the
 * idle acquisition that keeps the live reading current. A failing
 * potentiometer is only traced. Firmware that does not answer is reported:
 * meas without its engine would have neither live readings nor scans, nor
 * a way to stop an acquisition. Either way what was switched on goes off
 * again, so that ready keeps the drive and the channel unpowered. */
static int enter_meas(struct client_s* client)
{
    vela_motor_power_ctrl(1);
    vela_motor_dac_write(DAC_STANDSTILL);
    vela_meas_power_ctrl(1);
    vela_sine_setup_ex(state.f);
    int ret = vela_meas_poti_write(192);
    if (ret != 0) {
        MTRACE(2, "vela_meas_poti_write failed! (poti removed due to hardware revision?)");
    } else {
        /* Firmware that never answers must not stop the server. */
        aquisition_set_firmware_wait(1000000);
        if (aquisition_init(&state.pruss_info, state.phase) != 0)
            ret = -1;
        else
            ret = aquisition_start(&state.pruss_info, 1, 2000, 0, 65535, 1, 6, state.skip_samples, 0);
        if (ret != 0) {
            MTRACE(2, "enter_meas(): the acquisition engine does not answer (%d)", ret);
            remote_error(client, msg.err_action_failed);
        }
    }
    if (ret != 0)
        leave_meas();
    return ret;
}

int pstate_switch(struct client_s* client, int curr_pstate, int new_pstate)
{
    MTRACE(3, "pstate_switch(): curr=%d, new=%d", curr_pstate, new_pstate);
    int ret = -1;
    int allowed = 1;
    switch (new_pstate) {
    case PSTATE_OFF:
        if (curr_pstate != PSTATE_READY && curr_pstate != PSTATE_ECO) {
            allowed = 0;
            break;
        }
        uptime_counter((uint32_t)curr_pstate);
        nv_save_now(1);
        {
            int status = system("halt -p");
            MTRACE(3, "pstate_switch(): halt -p: %d", status);
        }
        ret = 0;
        break;
    case PSTATE_SUSPEND: {
        if (curr_pstate != PSTATE_ECO) {
            allowed = 0;
            break;
        }
        int batt_state = BATT_STATE_UNKNOWN;
        vela_batt_state_get(&batt_state, NULL);
        if (batt_state != BATT_STATE_ON_BATTERY) {
            remote_error(client, msg.err_suspend_not_allowed);
            break;
        }
        uptime_counter(PSTATE_ECO);
        ret = do_suspend();
        break;
    }
    case PSTATE_ECO:
        if (curr_pstate != PSTATE_READY) {
            allowed = 0;
            break;
        }
        clock_gettime(CLOCK_MONOTONIC, &state.ts_start_eco);
        uptime_counter(PSTATE_READY);
        nv_save_now(1);
        ret = vela_cpufreq_set(0);
        if (ret != 0)
            MTRACE(2, "Switching to low cpu frequency mode failed");
        break;
    case PSTATE_READY:
        /* The time spent in the state being left is counted first, so that
         * leaving meas does not lose the time since the last count. */
        uptime_counter((uint32_t)curr_pstate);
        clock_gettime(CLOCK_MONOTONIC, &state.ts_start_ready);
        if (curr_pstate == PSTATE_MEAS) {
            leave_meas();
            ret = 0;
        } else {
            ret = vela_cpufreq_set(1);
            if (ret != 0)
                MTRACE(2, "Switching to high cpu frequency mode failed");
        }
        break;
    case PSTATE_MEAS:
        if (curr_pstate != PSTATE_READY) {
            allowed = 0;
            break;
        }
        ret = enter_meas(client);
        break;
    default:
        allowed = 0;
        break;
    }
    if (!allowed) {
        remote_error(client, msg.invalid_pstate_transition);
        ret = -1;
    }
    if (ret == 0) {
        state.pstate = (uint32_t)new_pstate;
        MTRACE(3, "pstate_switch(): success");
    } else {
        MTRACE(3, "pstate_switch(): failed");
    }
    return ret;
}

int do_suspend(void)
{
    nv_save_now(1);
    uint8_t brightness = 0;
    int have_brightness = vela_backlight_get(&brightness) == 0;
    vela_backlight_set(0);
    vela_usbhost_power_ctrl(0);

    time_t resume_time = 0;
    if (state.sleep_time != 0)
        resume_time = time(NULL) + (time_t)state.sleep_time + 1;

    int shutdown = 0;
    for (;;) {
        /* Never below the minimum: an interval of 0 would switch the alarm
         * off and leave the system asleep for good. */
        long interval = state.suspend_interval_time;
        if (state.sleep_time != 0) {
            long left = (long)(resume_time - time(NULL));
            if (left < interval)
                interval = left;
        }
        if (interval < SUSPEND_INTERVAL_MIN)
            interval = SUSPEND_INTERVAL_MIN;
        MTRACE(3, "RTC alarm in %d seconds", (int)interval);
        if (vela_rtc_alarm((uint32_t)interval) != 0) {
            MTRACE(2, "do_suspend(): setting the RTC alarm failed");
            return -1;
        }

        MTRACE(3, "Suspending");
        int ret = vela_suspend();
        MTRACE(3, "Resumed");
        if (ret != 0) {
            /* The system did not sleep: going round again would spin. */
            MTRACE(2, "do_suspend(): suspend failed (%d)", ret);
            break;
        }

        char buf[128];
        int n = state.fdpmic >= 0 ? (int)read(state.fdpmic, buf, sizeof buf) : -1;
        MTRACE(3, "read(fdpmic): n=%d", n);
        if (n > 0) {
            MTRACE(3, "suspend: wake up by PMIC event");
            break;
        }

        float vbatt = 0;
        if (am335x_adc_read_single(state.adchnd, 1, &vbatt) == 0) {
            MTRACE(3, "suspend: RTC wakeup, vbatt=%1.2f", vbatt);
            if (vbatt < state.vbatt_crit_threshold) {
                MTRACE(3, "wake up by critical battery");
                shutdown = 1;
                break;
            }
        } else {
            MTRACE(2, "suspend: RTC wakeup, battery voltage unreadable");
        }

        if (state.sleep_time != 0) {
            time_t now = time(NULL);
            MTRACE(3, "checking sleep_time: now=%lld, resume_time=%lld", (long long)now, (long long)resume_time);
            if (now > resume_time) {
                MTRACE(3, "wake up elapsed sleep_time");
                shutdown = 1;
                break;
            }
        }
    }

    if (have_brightness)
        vela_backlight_set(brightness);
    remote_event(shutdown ? msg.evt_resumed_shutdown : msg.evt_resumed);
    return 0;
}

int cb_sleep_time_get(struct client_s* client, char* value)
{
    (void)client;
    MTRACE(4, "cb_sleep_time_get(): %d", (int)state.sleep_time);
    return snprintf(value, PSTATE_VALUE_MAX, "%d", (int)state.sleep_time);
}

int cb_sleep_time_set(struct client_s* client, const char* value)
{
    int v = -1;
    util_parse_int(value, &v);
    MTRACE(3, "cb_sleep_time_set(): %s -> %d", value, v);
    if (v < 0 || v > SLEEP_TIME_MAX) {
        remote_error(client, msg.value_out_of_range);
        return -1;
    }
    state.sleep_time = (uint32_t)v;
    MTRACE(3, "cb_sleep_time_set(): accepted %d", v);
    return 0;
}

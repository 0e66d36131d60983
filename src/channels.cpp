#include "channels.h"

#include <errno.h>
#include <math.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "am335x_adc.h"
#include "common_app_data.h"
#include "calibration.h"
#include "messages.h"
#include "mtrace.h"
#include "power.h"
#include "pstate.h"
#include "util.h"
#include "velatool.h"

/* Room one get handler may use in tbuffer. The longest value of any channel
 * ("%.1f" of the largest float) is about 45 characters. */

static const char psplash_link[] = "/usr/bin/psplash";

int put_value(char* value, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(value, CHANNEL_VALUE_MAX, fmt, ap);
    va_end(ap);
    if (n >= CHANNEL_VALUE_MAX)
        n = CHANNEL_VALUE_MAX - 1;
    return n;
}

/* ---- Battery ---- */

static int adc_volts(struct client_s* client, uint8_t ch, float* v)
{
    if (am335x_adc_read_single(state.adchnd, ch, v) < 0) {
        remote_error(client, msg.err_error);
        return -1;
    }
    return 0;
}

static int cb_batt_get(struct client_s* client, char* value)
{
    float vbatt;
    uint8_t brightness;
    int batt_state;

    if (adc_volts(client, 1, &vbatt) < 0)
        return -1;
    if (vela_backlight_get(&brightness) < 0) {
        remote_error(client, msg.err_error);
        return -1;
    }
    if (vela_batt_state_get(&batt_state, NULL) < 0)
        return -1;
    MTRACE(4, "cb_batt_get(): batt_state=%d", batt_state);
    MTRACE(4, "cb_batt_get(): v_batt=%1.2f", vbatt);
    MTRACE(4, "cb_batt_get(): brightness=%d", brightness);

    /* On battery the voltage sags under load: full scale comes lower. */
    double vbatt_aft;
    if (batt_state == BATT_STATE_ON_BATTERY) {
        vbatt_aft = state.vbatt_almost_full_threshold - 0.1;
        MTRACE(4, "cb_batt_get(): vbatt_aft without cabel=%1.2f", vbatt_aft);
    } else {
        vbatt_aft = state.vbatt_almost_full_threshold - 0.05;
    }
    /* The display draws up to 0.022 V off the battery at full brightness. */
    vbatt_aft -= brightness * 0.00022;

    if (vbatt < state.vbatt_crit_threshold)
        vbatt = (float)state.vbatt_crit_threshold;
    if (vbatt > vbatt_aft)
        vbatt = (float)vbatt_aft;

    /* Thresholds that leave no span (a broken configuration) give NaN here;
     * the clamp keeps the conversion to int defined. */
    float pct = rintf((float)((vbatt - state.vbatt_crit_threshold) * 99.0 / (vbatt_aft - state.vbatt_crit_threshold)));
    int batt = 0;
    if (pct > 0.0f)
        batt = pct > 99.0f ? 99 : (int)pct;
    if (batt > 98)
        batt = 99;
    /* Only a finished charge reports a full battery. */
    if (batt_state == BATT_STATE_DONE)
        batt = 100;
    MTRACE(4, "cb_batt_get(): %1.2f, %1.2f, %1.2f, %1.2f, batt=%d", vbatt, state.vbatt_crit_threshold, vbatt_aft,
           state.vbatt_almost_full_threshold, batt);
    return put_value(value, "%d", batt);
}

static int cb_batt_temp_get(struct client_s* client, char* value)
{
    float vntc, vntcref, temp;
    if (adc_volts(client, 0, &vntc) < 0 || adc_volts(client, 7, &vntcref) < 0)
        return -1;
    vela_battery_temp(vntc, vntcref, &temp);
    MTRACE(4, "cb_batt_temp_get(): %.1f", temp);
    return put_value(value, "%.1f", temp);
}

static int cb_batt_state_get(struct client_s* /*client*/, char* value)
{
    int batt_state;
    if (vela_batt_state_get(&batt_state, NULL) < 0)
        return -1;
    MTRACE(5, "cb_batt_state_get(): %d", batt_state);
    return put_value(value, "%d", batt_state);
}

static int cb_batt_v_get(struct client_s* client, char* value)
{
    float vbatt;
    if (adc_volts(client, 1, &vbatt) < 0)
        return -1;
    MTRACE(5, "cb_batt_v_get(): %.2f", vbatt);
    return put_value(value, "%.2f", vbatt);
}

/* ---- Operating counters ---- */

static int cb_batt_cycles_get(struct client_s* /*client*/, char* value)
{
    MTRACE(5, "cb_batt_cycles_get(): %d", (int)state.batt_cycles);
    return put_value(value, "%d", (int)state.batt_cycles);
}

static int cb_meas_cycles_get(struct client_s* /*client*/, char* value)
{
    MTRACE(5, "cb_meas_cycles_get(): %d", (int)state.meas_cycles);
    return put_value(value, "%d", (int)state.meas_cycles);
}

/* Hours, to the second. */
static int cb_uptime_get(struct client_s* /*client*/, char* value)
{
    MTRACE(5, "cb_uptime_get(): %lld s", (long long)state.uptime.tv_sec);
    return put_value(value, "%1.3f", (double)state.uptime.tv_sec / 3600.0);
}

static int cb_uptime_eco_get(struct client_s* /*client*/, char* value)
{
    MTRACE(5, "cb_uptime_eco_get(): %lld s", (long long)state.uptime_eco.tv_sec);
    return put_value(value, "%1.3f", (double)state.uptime_eco.tv_sec / 3600.0);
}

/* ---- Backlight ---- */

static int cb_blight_get(struct client_s* client, char* value)
{
    uint8_t brightness;
    if (vela_backlight_get(&brightness) < 0) {
        remote_error(client, msg.err_error);
        return -1;
    }
    MTRACE(5, "cb_blight_get(): %d", brightness);
    return put_value(value, "%d", brightness);
}

static int cb_blight_set(struct client_s* client, const char* value)
{
    MTRACE(4, "cb_blight_set(): %s", value);
    int v;
    if (util_parse_int(value, &v) < 0 || v < 0 || v > 100) {
        remote_error(client, msg.value_out_of_range);
        return -1;
    }
    return vela_backlight_set((uint8_t)v);
}

/* ---- Opto RS-232 output ---- */

/* The dispatcher keeps the quotes that let a text carry blanks; the port
 * gets the text without them and a CR as the line end. */
static int cb_opto_rs232_set(struct client_s* /*client*/, const char* value)
{
    MTRACE(4, "cb_opto_rs232_set(%s)", value);
    const char* text = value;
    size_t len = strlen(value);
    if (len >= 2 && value[0] == '"' && value[len - 1] == '"') {
        text++;
        len -= 2;
    }
    ssize_t ret = write(state.fdopto, text, len);
    MTRACE(3, "opto write: \"%.*s\" (ret=%d)", (int)len, text, (int)ret);
    if (ret < 0)
        return (int)ret;
    ret = write(state.fdopto, "\r", 1);
    return ret > 0 ? 0 : -1;
}

/* ---- USB, mass storage, clock ---- */

static int cb_usbhost_set(struct client_s* client, const char* value)
{
    MTRACE(4, "cb_usbhost_set(): %s", value);
    int v;
    if (util_parse_int(value, &v) < 0 || (v != 0 && v != 1)) {
        remote_error(client, msg.value_out_of_range);
        return -1;
    }
    if (vela_usbhost_power_ctrl(v) != 0) {
        remote_error(client, msg.err_action_failed);
        return -1;
    }
    return 0;
}

static int cb_mass_storage_set(struct client_s* client, const char* value)
{
    MTRACE(4, "cb_mass_storage_set(): %s", value);
    int v;
    if (util_parse_int(value, &v) < 0 || (v != 0 && v != 1)) {
        remote_error(client, msg.value_out_of_range);
        return -1;
    }
    if (system(v ? "sh ./mass_storage.sh on" : "sh ./mass_storage.sh off") != 0) {
        remote_error(client, msg.err_action_failed);
        return -1;
    }
    return 0;
}

/* Only "w": the system time goes to the hardware clock. */
static int cb_hwclock_set(struct client_s* client, const char* value)
{
    MTRACE(4, "cb_hwclock_set(): %s", value);
    if (strcmp(value, "w") != 0) {
        remote_error(client, msg.value_out_of_range);
        return -1;
    }
    if (system("hwclock -w") != 0) {
        remote_error(client, msg.err_action_failed);
        return -1;
    }
    return 0;
}

/* ---- Trace level ---- */

static int cb_tracelevel_set(struct client_s* client, const char* value)
{
    int level;
    if (util_parse_int(value, &level) < 0) {
        remote_error(client, msg.value_out_of_range);
        return -1;
    }
    if (level < MTRACE_LEVEL_MIN || level > MTRACE_LEVEL_MAX)
        return -1;
    MTRACE_ALWAYS("Setting tracelevel to %d\n", level);
    _MTrace_SetLevel(MTRACE_DOMAIN, level);
    options.tracelevel = level;
    return 0;
}

/* ---- Machine model ---- */

static int cb_machine_get(struct client_s* /*client*/, char* value)
{
    MTRACE(5, "cb_machine_get(): %.15s", state.machine);
    return put_value(value, "%.15s", state.machine);
}

/* The legacy VELA board carries only the VELA models, the LUMA board only
 * the newer ones. The splash link follows the model, and the USB settings of
 * the old model are dropped. */
static int cb_machine_set(struct client_s* client, const char* value)
{
    MTRACE(4, "cb_machine_set(%s)", value);
    int type = util_machine2type(value);
    if (type < 0) {
        remote_error(client, msg.value_out_of_range);
        return -1;
    }

    char model[33];
    if (vela_get_devicetree_model(model, sizeof model) < 0)
        return -1;
    if (strstr(model, "VELA") != NULL && type >= 3) {
        MERRLOG("cb_machine_set: cannot set model %s on legacy VELA hardware", value);
        return -1;
    }
    if (strstr(model, "LUMA") != NULL && type <= 2) {
        MERRLOG("cb_machine_set: cannot set model %s on LUMA hardware", value);
        return -1;
    }

    if (MIniData_SetStringEntry(state.h_ini, "general", "machine", value))
        state.ini_changed = 1;
    snprintf(state.machine, sizeof state.machine, "%s", value);
    state.machine_type = type;

    char path[256];
    if (GetCommonAppDataFolderProduct(path, sizeof path, "Orvik", "vela", true)) {
        size_t len = strlen(path);
        if (snprintf(path + len, sizeof path - len, "usb.ini") < (int)(sizeof path - len))
            unlink(path);
    }

    char target[64];
    snprintf(target, sizeof target, "/opt/Orvik/vela/psplash_%s", value);
    MTRACE(4, "cb_machine_get(): setting psplash symlink to %s", target);
    unlink(psplash_link);
    if (symlink(target, psplash_link) != 0)
        MTRACE(2, "cb_machine_set(): symlink %s failed (errno=%d)", psplash_link, errno);
    return 0;
}

/* ---- The table ---- */

/* Listed in this order by "capabilities". */
const struct channel_s channels[] = {
    {"batt", "0 100 1", CH_READ, 0, NULL, cb_batt_get},
    {"batt_temp", "-10 50 0.1", CH_READ, 0, NULL, cb_batt_temp_get},
    {"batt_state", "0 5 1", CH_READ, 0, NULL, cb_batt_state_get},
    {"batt_v", "3.5 4.2 0.01", CH_READ, 0, NULL, cb_batt_v_get},
    {"batt_cycles", "1 n 1", CH_READ | CH_MARK, 0, NULL, cb_batt_cycles_get},
    {"blight", "0 100 1", CH_READ | CH_WRITE, 0, cb_blight_set, cb_blight_get},
    {"meas_cycles", "0 n 1", CH_READ | CH_MARK, 0, NULL, cb_meas_cycles_get},
    {"pstate", "1 5 1 (off|suspend|eco|ready|meas)", CH_READ | CH_WRITE, 0, cb_pstate_set, cb_pstate_get},
    {"sleep_time", "10 86400 1", CH_READ | CH_WRITE, 0, cb_sleep_time_set, cb_sleep_time_get},
    {"speed", "0.1 1.0 0.1", CH_READ | CH_WRITE, 0, cb_speed_set, cb_speed_get},
    {"uptime", "0.000 x.xxx 0.001", CH_READ | CH_MARK, 0, NULL, cb_uptime_get},
    {"uptime_eco", "0.000 x.xxx 0.001", CH_READ | CH_MARK, 0, NULL, cb_uptime_eco_get},
    {"w", "0 65535 1", CH_READ, 0, NULL, cb_w_get},
    {"z", "-1000.000 +1000.000 0.001", CH_READ, 0, NULL, cb_z_get},
    {"sin_freq", "0 21010.00 0.01", CH_READ, 0, NULL, cb_sin_freq_get},
    {"f", "19000 21000 0.01", CH_READ | CH_WRITE, 0, cb_f_set, cb_f_get},
    {"x_corr", "0.7 1.3 0.0001", CH_READ | CH_WRITE | CH_MARK, 0, cb_x_corr_set, cb_x_corr_get},
    {"w_offset", "0 65536 1", CH_READ | CH_WRITE | CH_MARK, 0, cb_w_offset_set, cb_w_offset_get},
    {"w_scale", "0.000000001 1.0 0.000000001", CH_READ | CH_WRITE | CH_MARK, 0, cb_w_scale_set, cb_w_scale_get},
    {"w_ov_min", "1 65535 1", CH_READ | CH_WRITE, 0, cb_w_ov_min_set, cb_w_ov_min_get},
    {"w_ov_max", "1 65535 1", CH_READ | CH_WRITE, 0, cb_w_ov_max_set, cb_w_ov_max_get},
    {"opto_rs232", "string", CH_WRITE, 0, cb_opto_rs232_set, NULL},
    {"usbhost", "0 1 1", CH_WRITE, 0, cb_usbhost_set, NULL},
    {"mass_storage", "0 1 1", CH_WRITE, 0, cb_mass_storage_set, NULL},
    {"hwclock", "string:w", CH_WRITE, 0, cb_hwclock_set, NULL},
    {"tracelevel", "0 5 1", CH_WRITE, 0, cb_tracelevel_set, NULL},
    {"w_xref1", "-250.0 100.0 0.001", CH_WRITE, 0, cb_w_xref1_set, NULL},
    {"w_xref2", "-250.0 100.0 0.001", CH_WRITE, 0, cb_w_xref2_set, NULL},
    {"phase", "0 31 1", CH_READ | CH_WRITE, 0, cb_phase_set, cb_phase_get},
    {"machine", "string", CH_READ | CH_WRITE, 0, cb_machine_set, cb_machine_get},
    {NULL, NULL, 0, 0, NULL, NULL},
};

static const struct channel_s* find_channel(const char* name)
{
    for (const struct channel_s* ch = channels; ch->name != NULL; ch++) {
        if (strcmp(ch->name, name) == 0)
            return ch;
    }
    return NULL;
}

/* ---- get, set, capabilities ---- */

/* "<id> data v1 v2 ...": all values or, after the first failure, none. */
int cb_get(struct client_s* client, int argc, char** argv)
{
    int pos = snprintf(tbuffer, sizeof tbuffer, "%d data", client->current_id);
    for (int i = 1; i < argc; i++) {
        const struct channel_s* ch = find_channel(argv[i]);
        if (ch == NULL) {
            remote_error(client, msg.err_unknown_channel);
            return -1;
        }
        if (!(ch->flags & CH_READ) || ch->cb_get == NULL) {
            remote_error(client, msg.err_channel_not_readable);
            return -1;
        }
        /* The blank, one value, the newline and the NUL must fit. */
        if ((int)sizeof tbuffer - pos < 1 + CHANNEL_VALUE_MAX + 2) {
            MTRACE(3, "cb_get(): reply too long at %s", argv[i]);
            remote_error(client, msg.syntax_invalid);
            return -1;
        }
        tbuffer[pos++] = ' ';
        int n = ch->cb_get(client, tbuffer + pos);
        if (n <= 0)
            return -1;
        pos += n;
    }
    tbuffer[pos++] = '\n';
    tbuffer[pos] = '\0';
    sock_puts(client->sock, tbuffer);
    return 0;
}

int cb_set(struct client_s* client, int argc, char** argv)
{
    MTRACE(3, "cb_set()");
    if (state.scanmove_client != NULL) {
        remote_error(client, msg.err_command_already_active);
        return -1;
    }
    int ret = 0;
    for (int i = 1; i < argc && ret == 0; i++) {
        char* eq = strchr(argv[i], '=');
        if (eq == NULL)
            continue;
        *eq = '\0';
        const char* name = argv[i];
        const char* value = eq + 1;
        MTRACE(3, "cb_set(): channel=%s, value=%s", name, value);
        const struct channel_s* ch = find_channel(name);
        if (ch == NULL) {
            remote_error(client, msg.err_unknown_channel);
            ret = -1;
        } else if (!(ch->flags & CH_WRITE) || ch->cb_set == NULL) {
            remote_error(client, msg.err_channel_not_writable);
            ret = -1;
        } else if (ch->cb_set(client, value) < 0) {
            ret = -1;
        }
        *eq = '='; /* the caller's word as it was */
    }
    /* One save for all pairs; after an error, or a save that failed, the
     * flag stays set and the next successful set saves. */
    if (ret == 0 && state.ini_changed)
        state.ini_changed = util_ini_save() != 0;
    return ret;
}

int cb_capabilities(struct client_s* client, int argc, char** argv)
{
    (void)argv;
    if (argc > 2) {
        remote_error(client, msg.syntax_invalid);
        return -1;
    }
    if (argc == 2) {
        remote_error(client, msg.err_axis_parameter_not_supported);
        return -1;
    }
    size_t pos = 0;
    tbuffer[0] = '\0';
    for (const struct channel_s* ch = channels; ch->name != NULL; ch++) {
        if (ch->machine_mask != 0 && !(ch->machine_mask & state.machine_type))
            continue;
        const char* access = " unknown";
        if ((ch->flags & CH_READ) && (ch->flags & CH_WRITE))
            access = " readwrite";
        else if (ch->flags & CH_READ)
            access = " readonly";
        else if (ch->flags & CH_WRITE)
            access = " writeonly";
        int n = snprintf(tbuffer + pos, sizeof tbuffer - pos, "%d data %s%s%s%s\n", client->current_id, ch->name,
                         access, ch->minmaxacc != NULL ? " " : "", ch->minmaxacc != NULL ? ch->minmaxacc : "");
        /* A line that does not fit is left out whole. */
        if (n < 0 || (size_t)n >= sizeof tbuffer - pos) {
            tbuffer[pos] = '\0';
            break;
        }
        pos += (size_t)n;
    }
    sock_puts(client->sock, tbuffer);
    return 0;
}

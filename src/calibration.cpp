#include "calibration.h"

#include "channels.h"

#include <limits.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "MIniData.h"
#include "measurement.h"
#include "messages.h"
#include "mtrace.h"
#include "util.h"

/* Room a get handler may use in tbuffer, as the channel table grants it. */

/* Power state in which the probe is excited and sampled. */
#define PSTATE_MEAS 5

/* Heights of the calibration points, um. */
#define XREF_MIN -250.0
#define XREF_MAX 100.0

static int out_of_range(struct client_s* client)
{
    remote_error(client, msg.value_out_of_range);
    return -1;
}

/* Written this way so that NaN is refused as well. */
static bool within(double v, double lo, double hi)
{
    return v >= lo && v <= hi;
}

/* Live readings need the meas state, in which the idle acquisition runs. */
static int need_meas(struct client_s* client)
{
    if (state.pstate != PSTATE_MEAS || state.pruss_info.comm == NULL) {
        remote_error(client, msg.invalid_pstate);
        return -1;
    }
    return 0;
}

/* The acquisition's last sample: the raw probe reading. */
static uint16_t live_raw(void)
{
    return (uint16_t)(state.pruss_info.comm->out_lastsample & 0xffff);
}

/* ---- Drive speed ---- */

int cb_speed_get(struct client_s* /*client*/, char* value)
{
    MTRACE(5, "cb_speed_get(): %1.2f", state.speed);
    return put_value(value, "%1.2f", state.speed);
}

int cb_speed_set(struct client_s* client, const char* value)
{
    MTRACE(4, "cb_speed_set(): %s", value);
    double v;
    if (util_parse_double(value, &v) < 0 || !within(v, 0.1, 1.0))
        return out_of_range(client);
    state.speed = v;
    return 0;
}

/* ---- Live readings ---- */

int cb_w_get(struct client_s* client, char* value)
{
    if (need_meas(client) < 0)
        return -1;
    unsigned w = live_raw();
    MTRACE(4, "cb_w_get(): w=%d (0x%04x)", (int)w, w);
    return put_value(value, "%d", (int)w);
}

/* Height in um, negative below the zero point. */
int cb_z_get(struct client_s* client, char* value)
{
    if (need_meas(client) < 0)
        return -1;
    int w = live_raw();
    MTRACE(4, "cb_z_get(): w=%d (0x%04x)", w, (unsigned)w);
    double z = (double)(w - (int)state.w_offset) * state.w_scale * 1000.0;
    return put_value(value, "%.3f", z);
}

/* The firmware measures the sine's period in ns. */
int cb_sin_freq_get(struct client_s* client, char* value)
{
    if (need_meas(client) < 0)
        return -1;
    uint32_t period = state.pruss_info.comm->out_periodtime;
    double f = period == 0 ? 0.0 : 1000000000.0 / (double)period;
    MTRACE(3, "cb_sin_freq_get(): f=%f\n", f);
    return put_value(value, "%.2f", f);
}

/* ---- Sine frequency ---- */

int cb_f_get(struct client_s* /*client*/, char* value)
{
    MTRACE(5, "cb_f_get(): %.0f", state.f);
    return put_value(value, "%.0f", state.f);
}

/* Outside the meas state the generator is off: the new frequency is
 * programmed when it is entered next. */
int cb_f_set(struct client_s* client, const char* value)
{
    double v;
    if (util_parse_double(value, &v) < 0 || !within(v, 19000.0, 21000.0))
        return out_of_range(client);
    state.f = v;
    MTRACE(3, "cb_f_set(): updating sine frequency to %.0f Hz\n", state.f);
    if (state.pstate == PSTATE_MEAS && vela_sine_setup_ex(state.f) != 0) {
        remote_error(client, msg.err_action_failed);
        return -1;
    }
    if (MIniData_SetDoubleEntry(state.h_ini, "channel", "f", state.f))
        state.ini_changed = 1;
    return 0;
}

/* ---- Stored calibration ---- */

int cb_x_corr_get(struct client_s* /*client*/, char* value)
{
    MTRACE(5, "cb_x_corr_get(): %1.9f", state.x_corr);
    return put_value(value, "%1.9f", state.x_corr);
}

int cb_x_corr_set(struct client_s* client, const char* value)
{
    MTRACE(4, "cb_x_corr_set(): %s", value);
    double v;
    if (util_parse_double(value, &v) < 0 || !within(v, 0.7, 1.3))
        return out_of_range(client);
    state.x_corr = v;
    if (MIniData_SetDoubleEntry(state.h_ini, "motor", "x_corr", v))
        state.ini_changed = 1;
    return 0;
}

int cb_w_offset_get(struct client_s* /*client*/, char* value)
{
    MTRACE(5, "cb_w_offset_get(): %d", (int)state.w_offset);
    return put_value(value, "%d", (int)state.w_offset);
}

int cb_w_offset_set(struct client_s* client, const char* value)
{
    MTRACE(4, "cb_w_offset_set(): %s", value);
    int v;
    if (util_parse_int(value, &v) < 0 || v < 0 || v > 65535)
        return out_of_range(client);
    state.w_offset = (uint16_t)v;
    if (MIniData_SetLongEntry(state.h_ini, "channel", "w_offset", v))
        state.ini_changed = 1;
    return 0;
}

int cb_w_scale_get(struct client_s* /*client*/, char* value)
{
    MTRACE(5, "cb_w_scale_get(): %1.9f", state.w_scale);
    return put_value(value, "%1.9f", state.w_scale);
}

/* mm per digit; 0 is accepted. */
int cb_w_scale_set(struct client_s* client, const char* value)
{
    MTRACE(4, "cb_w_scale_set(): %s", value);
    double v;
    if (util_parse_double(value, &v) < 0 || !within(v, 0.0, 1.0))
        return out_of_range(client);
    state.w_scale = v;
    if (MIniData_SetDoubleEntry(state.h_ini, "channel", "w_scale", v))
        state.ini_changed = 1;
    return 0;
}

/* ---- Overflow limits of a scan ---- */

int cb_w_ov_min_get(struct client_s* /*client*/, char* value)
{
    MTRACE(5, "cb_w_ov_min_get(): %d", (int)state.w_ov_min);
    return put_value(value, "%d", (int)state.w_ov_min);
}

int cb_w_ov_min_set(struct client_s* client, const char* value)
{
    MTRACE(4, "cb_w_ov_min_set(): %s", value);
    int v;
    if (util_parse_int(value, &v) < 0 || v < 0 || v > 65535)
        return out_of_range(client);
    state.w_ov_min = (uint16_t)v;
    return 0;
}

int cb_w_ov_max_get(struct client_s* /*client*/, char* value)
{
    MTRACE(5, "cb_w_ov_max_get(): %d", (int)state.w_ov_max);
    return put_value(value, "%d", (int)state.w_ov_max);
}

/* Above the sample range means no upper limit. */
int cb_w_ov_max_set(struct client_s* client, const char* value)
{
    MTRACE(4, "cb_w_ov_max_set(): %s", value);
    int v;
    if (util_parse_int(value, &v) < 0 || v < 0)
        return out_of_range(client);
    if (v > 65535)
        v = 65535;
    state.w_ov_max = (uint16_t)v;
    return 0;
}

/* ---- Two-point calibration ---- */

/* The first point: its height and the raw reading there. Nothing is stored
 * before the second point completes the pair. */
int cb_w_xref1_set(struct client_s* client, const char* value)
{
    MTRACE(3, "cb_w_xref1_set(): %s", value);
    double x;
    if (util_parse_double(value, &x) < 0 || !within(x, XREF_MIN, XREF_MAX))
        return out_of_range(client);
    if (need_meas(client) < 0)
        return -1;
    state.wref1 = live_raw();
    state.xref1 = x;
    MTRACE(3, "cb_w_xref1_set(): x=%f, w=%d", state.xref1, (int)state.wref1);
    return 0;
}

/* Refuses the pair: the first point must be set again. */
static int cancel_calibration(struct client_s* client, const char* text)
{
    remote_error(client, text);
    state.wref1 = 0;
    return -1;
}

/* The double d truncated to int, saturated (NaN as INT_MIN). */
static int trunc_to_int(double d)
{
    if (d >= 2147483648.0)
        return INT_MAX;
    if (!(d > -2147483649.0))
        return INT_MIN;
    return (int)d;
}

/* The second point: scale and zero point from the pair, checked against the
 * measuring range the probe must cover. A raw reading of exactly 0 at the
 * first point counts as no first point. */
int cb_w_xref2_set(struct client_s* client, const char* value)
{
    MTRACE(3, "cb_w_xref2_set(): %s", value);
    if (need_meas(client) < 0)
        return -1;
    if (state.wref1 == 0) {
        remote_error(client, msg.err_set_xref1_first);
        return -1;
    }
    double xref2;
    if (util_parse_double(value, &xref2) < 0 || !within(xref2, XREF_MIN, XREF_MAX))
        return out_of_range(client);

    uint16_t wref2 = live_raw();
    MTRACE(3, "cb_w_xref2_set(): x=%f, w=%d", xref2, (int)wref2);
    if (wref2 == state.wref1)
        return cancel_calibration(client, msg.value_out_of_range);

    int dw = (int)state.wref1 - (int)wref2;
    double w_scale = ((state.xref1 - xref2) / dw) / 1000.0;
    MTRACE(3, "cb_w_xref2_set(): w_scale=%0.9f mm/digit", w_scale);
    if (w_scale > 1.0 || w_scale < 0.0)
        return cancel_calibration(client, msg.err_w_scale_out_of_range);

    /* The raw reading at height 0, rounded; a zero scale has none. */
    int i_offset = trunc_to_int(-xref2 / (w_scale * 1000.0) + wref2 + 0.5);
    MTRACE(3, "cb_w_xref2_set(): offset=%d", i_offset);
    if (i_offset < 0 || i_offset > 65535)
        return cancel_calibration(client, msg.err_w_offset_out_of_range);

    /* Heights of the raw readings 65534 and 500: the range must reach the
     * limits; the older boards (and prototypes) have the shorter one. */
    uint16_t w_offset = (uint16_t)i_offset;
    double xmax = (65534 - (int)w_offset) * w_scale * 1000.0;
    double xmin = (500 - (int)w_offset) * w_scale * 1000.0;
    double xmax_limit = (state.hwrev[0] == 'P' || state.hwrev[0] <= 'D') ? 100.0 : 175.0;
    double xmin_limit = -275.0;
    MTRACE(3, "cb_w_xref2_set(): xmax=%.1f, xmin=%.1f", xmax, xmin);
    MTRACE(3, "cb_w_xref2_set(): xmax_limit=%.1f, xmin_limit=%.1f", xmax_limit, xmin_limit);
    if (xmax < xmax_limit || xmin > xmin_limit)
        return cancel_calibration(client, msg.err_inappropriate_calibration);

    state.w_scale = w_scale;
    if (MIniData_SetDoubleEntry(state.h_ini, "channel", "w_scale", w_scale))
        state.ini_changed = 1;
    state.w_offset = w_offset;
    if (MIniData_SetLongEntry(state.h_ini, "channel", "w_offset", w_offset))
        state.ini_changed = 1;
    if (state.ini_changed)
        MIniData_SetLongEntry(state.h_ini, "channel", "calibration_rev", 2);
    state.wref1 = 0;
    remote_event(msg.evt_calibration_updated);
    return 0;
}

/* ---- Acquisition phase ---- */

int cb_phase_get(struct client_s* /*client*/, char* value)
{
    MTRACE(5, "cb_phase_get(): %d", state.phase);
    return put_value(value, "%d", state.phase);
}

/* Taken by the acquisition when the meas state is entered next. */
int cb_phase_set(struct client_s* client, const char* value)
{
    MTRACE(4, "cb_phase_set(): %s", value);
    int v;
    if (util_parse_int(value, &v) < 0 || v < 0 || v > 31)
        return out_of_range(client);
    state.phase = v;
    return 0;
}

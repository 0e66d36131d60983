/* The server's state record. The server loop itself comes later; the fields
 * here are those the configuration and the counters fill, in the record's
 * order. */
#ifndef VELA_REMOTE_H
#define VELA_REMOTE_H

#include <stdint.h>
#include <time.h>

#include "MIniData.h"

struct state_s {
    int run;
    MINIDATA_HANDLE h_ini;               /* the open configuration document */
    double x_corr;                       /* drive length correction, 0.7..1.3 */
    uint16_t w_offset;                   /* calibration offset, raw counts */
    double w_scale;                      /* calibration scale */
    double vbatt_crit_threshold;         /* volts */
    double vbatt_low_threshold;
    double vbatt_hysteresis;
    double vbatt_cycle_low_threshold;
    double vbatt_cycle_high_threshold;
    double vbatt_almost_full_threshold;
    struct timespec uptime;              /* time in ready and meas */
    struct timespec uptime_eco;          /* time in eco */
    uint32_t meas_cycles;
    uint32_t batt_cycles;
    uint8_t batt_cycle_state;
    uint32_t skip_samples;               /* samples the acquisition discards at the start */
    int ini_changed;                     /* configuration changed, to be saved */
    int remotetest;
    int suspend_interval_time;           /* seconds, at least 10 */
    double f;                            /* sine generator frequency, Hz */
};

extern struct state_s state;

#endif

#include "util.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "common_app_data.h"
#include "fileops.h"
#include "mtrace.h"
#include "remote.h"

static const char company[] = "Orvik";
static const char product[] = "vela";
static const char ini_file[] = "velatool.ini";

/* What a missing section gets; written per section, never per key. */
struct ini_default_s {
    const char* section;
    const char* key;
    int is_long;
    double value;
};

static const struct ini_default_s ini_defaults[] = {
    {"motor", "x_corr", 0, 1.0},
    {"motor", "skip_samples", 1, 300},
    {"channel", "w_offset", 1, 39830},
    {"channel", "w_scale", 0, 8.18591e-06},
    {"channel", "f", 0, 20000.0},
    {"channel", "calibration_rev", 1, 2},
    {"battery", "low_threshold", 0, 3.6},
    {"battery", "crit_threshold", 0, 3.55},
    {"battery", "hysteresis", 0, 0.05},
    {"battery", "cycle_low_threshold", 0, 3.7},
    {"battery", "cycle_high_threshold", 0, 3.9},
    {"battery", "almost_full_threshold", 0, 4.0},
    {"battery", "suspend_interval_time", 1, 600},
};

/* Battery thresholds: kept unchanged (zero) when the key is absent. */
struct ini_threshold_s {
    const char* key;
    const char* trace;
    double* field;
};

static const struct ini_threshold_s battery_thresholds[] = {
    {"low_threshold", "low_threshold=%f", &state.vbatt_low_threshold},
    {"crit_threshold", "crit_threshold=%f", &state.vbatt_crit_threshold},
    {"hysteresis", "hysteresis=%f", &state.vbatt_hysteresis},
    {"cycle_low_threshold", "cylce_low_threshold=%f", &state.vbatt_cycle_low_threshold},
    {"cycle_high_threshold", "cycle_high_threshold=%f", &state.vbatt_cycle_high_threshold},
    {"almost_full_threshold", "almost_full_threshold=%f", &state.vbatt_almost_full_threshold},
};

int util_appdata_path(const char* file, char* path, size_t size)
{
    char folder[256];
    if (!GetCommonAppDataFolderProduct(folder, sizeof folder, company, product, true))
        return -1;
    snprintf(path, size, "%s%s", folder, file);
    return 0;
}

int util_ini_open_file(MINIDATA_HANDLE h, const char* path)
{
    int ret = MIniData_Open(h, path);
    if (ret || !file_exists(path))
        return ret;
    char bad[300];
    snprintf(bad, sizeof bad, "%s.bad", path);
    MTRACE(2, "%s cannot be read, kept as %s, starting from defaults", path, bad);
    MERRLOG("%s cannot be read, kept as %s", path, bad);
    _MErrTrace_DumpContextToMErrLog();
    if (!file_rename(path, bad))
        return ret;
    MIniData_Open(h, path);
    return ret;
}

static int save_ini(void)
{
    MIniData_Save(state.h_ini);
    return sync_inipath();
}

int util_ini_open(void)
{
    char path[256];
    state.h_ini = MIniData_CreateWithFlags(0x18);
    if (util_appdata_path(ini_file, path, sizeof path) != 0)
        return -1;
    int ret = util_ini_open_file(state.h_ini, path);
    MTRACE(4, "MIniData_Open(%s): %d", path, ret);

    /* Decided once per section, before its first default goes in. */
    const char* section = "";
    int missing = 0;
    for (const struct ini_default_s* d = ini_defaults; d < ini_defaults + sizeof ini_defaults / sizeof *d; d++) {
        if (strcmp(d->section, section) != 0) {
            section = d->section;
            missing = !MIniData_DoesSectionExist(state.h_ini, section);
        }
        if (!missing)
            continue;
        if (d->is_long)
            MIniData_SetLongEntry(state.h_ini, d->section, d->key, (long)d->value);
        else
            MIniData_SetDoubleEntry(state.h_ini, d->section, d->key, d->value);
    }

    if (MIniData_HasNoFile(state.h_ini)) {
        MTRACE(3, "New ini-file created from defaults");
        save_ini();
    }
    return 0;
}

int util_ini_read(void)
{
    MINIDATA_HANDLE h = state.h_ini;
    double d;
    long l;

    if (MIniData_GetDoubleEntry(h, "motor", "x_corr", &d)) {
        MTRACE(4, "x_corr=%f", d);
        if (d > 1.3 || d < 0.7) {
            state.x_corr = 1.0;
            MTRACE(4, "x_corr clamped to %f", 1.0);
        } else {
            state.x_corr = d;
        }
    }
    state.skip_samples = 300;
    if (MIniData_GetLongEntry(h, "motor", "skip_samples", &l)) {
        MTRACE(4, "skip_samples=%ld", l);
        state.skip_samples = (uint32_t)l;
    }
    if (MIniData_GetLongEntry(h, "channel", "w_offset", &l)) {
        MTRACE(4, "w_offset=%ld", l);
        state.w_offset = (uint16_t)l;
    }
    if (MIniData_GetDoubleEntry(h, "channel", "w_scale", &d)) {
        MTRACE(4, "w_scale=%f", d);
        state.w_scale = d;
    }
    state.f = 20000.0;
    if (MIniData_GetDoubleEntry(h, "channel", "f", &d)) {
        MTRACE(4, "f=%f", d);
        state.f = d;
    }

    /* Files of the first calibration revision carry a scale 8 % too large. */
    long rev = 0;
    MIniData_GetLongEntry(h, "channel", "calibration_rev", &rev);
    MTRACE(4, "calibration_rev=%d", (int)rev);
    if (rev == 0) {
        MTRACE(3, "patching w_scale=%f", state.w_scale);
        state.w_scale *= 0.92;
        MTRACE(3, "new w_scale=%f", state.w_scale);
        MIniData_SetDoubleEntry(h, "channel", "w_scale", state.w_scale);
        MIniData_SetLongEntry(h, "channel", "calibration_rev", 1);
        save_ini();
    }

    for (const struct ini_threshold_s* t = battery_thresholds;
         t < battery_thresholds + sizeof battery_thresholds / sizeof *t; t++) {
        if (MIniData_GetDoubleEntry(h, "battery", t->key, &d)) {
            MTRACE(4, t->trace, d);
            *t->field = d;
        }
    }

    state.suspend_interval_time = 600;
    if (MIniData_GetLongEntry(h, "battery", "suspend_interval_time", &l)) {
        MTRACE(4, "suspend_interval_time=%ld", l);
        state.suspend_interval_time = (int)l;
    }
    if (state.suspend_interval_time < 10)
        state.suspend_interval_time = 10;

    if (MIniData_GetLongEntry(h, "general", "remotetest", &l)) {
        MTRACE(4, "remotetest=%ld", l);
        state.remotetest = (int)l;
    }
    return 0;
}

int sync_inipath(void)
{
    MTRACE(3, "sync_inipath()");
    char path[256];
    if (util_appdata_path("", path, sizeof path) != 0)
        return -1;
    int fd = open(path, O_RDONLY);
    if (fd < 0)
        return -1;
    if (fsync(fd) != 0) {
        close(fd);
        return -1;
    }
    close(fd);
    MTRACE(3, "sync_inipath(): success");
    return 0;
}

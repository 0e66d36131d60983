#include "util.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "common_app_data.h"
#include "fastfile.h"
#include "fileops.h"
#include "mtrace.h"
#include "remote.h"
#include "sysfs.h"
#include "velatool.h"

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

/* While velatool.ini exists but cannot be read (the medium failed, not its
 * content), nothing is written over it: the server runs on the values in
 * memory, and each save reads the file again first (util_ini_save).
 * ini_base is the document as start-up left it, to tell what changed since. */
static int ini_unread;
static MINIDATA_HANDLE ini_base;

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
    if (MIniData_ReadFailed(h)) {
        MTRACE(2, "%s cannot be read, kept as it is, going on with the values in memory", path);
        MERRLOG("%s cannot be read", path);
        _MErrTrace_DumpContextToMErrLog();
        return ret;
    }
    /* What was read before the bad line stays in force; the user's file is
     * kept aside, and the document is tied to the path again without a file
     * behind it, so that the caller writes the values in force anew. */
    char bad[300];
    snprintf(bad, sizeof bad, "%s.bad", path);
    MTRACE(2, "%s cannot be read, kept as %s, going on with what was read", path, bad);
    MERRLOG("%s cannot be read, kept as %s", path, bad);
    _MErrTrace_DumpContextToMErrLog();
    char* read_so_far = MIniData_GetContentString(h);
    if (!file_rename(path, bad)) {
        free(read_so_far);
        return ret;
    }
    MIniData_Open(h, path);
    if (read_so_far != NULL)
        MIniData_SetContentString(h, read_so_far);
    free(read_so_far);
    return ret;
}

/* The defaults of every missing section; decided once per section, before
 * its first default goes in. */
static void add_defaults(MINIDATA_HANDLE h)
{
    const char* section = "";
    int missing = 0;
    for (const struct ini_default_s* d = ini_defaults; d < ini_defaults + sizeof ini_defaults / sizeof *d; d++) {
        if (strcmp(d->section, section) != 0) {
            section = d->section;
            missing = !MIniData_DoesSectionExist(h, section);
        }
        if (!missing)
            continue;
        if (d->is_long)
            MIniData_SetLongEntry(h, d->section, d->key, (long)d->value);
        else
            MIniData_SetDoubleEntry(h, d->section, d->key, d->value);
    }
}

/* The configuration in a new document, completed with the defaults; null
 * when there is no folder. */
static MINIDATA_HANDLE ini_load(char* path, size_t size)
{
    if (util_appdata_path(ini_file, path, size) != 0)
        return NULL;
    MINIDATA_HANDLE h = MIniData_CreateWithFlags(0x18);
    int ret = util_ini_open_file(h, path);
    MTRACE(4, "MIniData_Open(%s): %d", path, ret);
    add_defaults(h);
    return h;
}

/* An unreadable file is read again before anything is saved. Once it reads,
 * its values are saved with the changes made since start-up on top (the
 * values in memory stay in force until the next start). Start-up's own
 * saves only hold what it took from the defaults: they wait. */
static int ini_read_again(void)
{
    char path[256];
    if (ini_base == NULL) {
        MTRACE(2, "velatool.ini could not be read: not saved");
        return -1;
    }
    MINIDATA_HANDLE h = ini_load(path, sizeof path);
    if (h == NULL || MIniData_ReadFailed(h)) {
        MTRACE(2, "%s still cannot be read: not saved", path);
        MIniData_Destroy(h);
        return -1;
    }
    MIniData_ApplyChanges(h, ini_base, state.h_ini);
    MIniData_Destroy(state.h_ini);
    state.h_ini = h;
    MIniData_Destroy(ini_base);
    ini_base = NULL;
    ini_unread = 0;
    MTRACE(2, "%s read again, saved with the changes made meanwhile", path);
    return 0;
}

int util_ini_save(void)
{
    if (ini_unread && ini_read_again() != 0)
        return -1;
    if (!MIniData_Save(state.h_ini))
        return -1;
    return sync_inipath();
}

void util_remove_leftovers(const char* path)
{
    int n = MFastFile_RemoveTemporaryFiles(path);
    if (n > 0)
        MTRACE(3, "removed %d temporary file(s) of a save of %s that was cut short", n, path);
}

int util_ini_open(void)
{
    char path[256];
    MIniData_Destroy(ini_base);
    ini_base = NULL;
    state.h_ini = ini_load(path, sizeof path);
    if (state.h_ini == NULL)
        return -1;
    util_remove_leftovers(path);
    ini_unread = MIniData_ReadFailed(state.h_ini);
    if (MIniData_HasNoFile(state.h_ini)) {
        MTRACE(3, "New ini-file created from defaults");
        util_ini_save();
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
        if (!(d >= 0.7 && d <= 1.3)) { /* NaN too */
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
        util_ini_save();
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
        /* saturated: a value beyond an int must not wrap into the range */
        state.suspend_interval_time = l > INT_MAX ? INT_MAX : l < INT_MIN ? INT_MIN : (int)l;
    }
    if (state.suspend_interval_time < 10)
        state.suspend_interval_time = 10;

    if (MIniData_GetLongEntry(h, "general", "remotetest", &l)) {
        MTRACE(4, "remotetest=%ld", l);
        state.remotetest = (int)l;
    }
    if (ini_unread && ini_base == NULL) {
        ini_base = MIniData_Create();
        char* content = MIniData_GetContentString(h);
        MIniData_SetContentString(ini_base, content != NULL ? content : "");
        free(content);
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

/* ---- Device identity ---- */

static const char mtd_table[] = "/proc/mtd";
static const char env_cache[] = "/tmp/environment.txt";
static const char env_command[] = "/usr/sbin/fw_printenv > /tmp/environment.txt";
static const char bsp_release[] = "/etc/bsp-release";
static const char dt_model[] = "/proc/device-tree/model";

static const struct {
    const char* name;
    int type;
} machines[] = {
    {"VELAL", MACHINE_VELAL}, {"VELAN", MACHINE_VELAN}, {"VELA", MACHINE_VELA},
    {"TALA", MACHINE_TALA},   {"LUMA", MACHINE_LUMA},   {"NOVA", MACHINE_NOVA},
};

/* The first line containing mtdname wins, the header included: a partition
 * whose name merely contains it, listed earlier, is taken. Kept so. */
int util_mtd_lookup_device(const char* mtdname, char* dev)
{
    if (mtdname == NULL || dev == NULL)
        return -EINVAL;
    FILE* f = fopen(mtd_table, "r");
    if (f == NULL)
        return -1;
    char line[256];
    int ret = -1;
    while (fgets(line, sizeof line, f) != NULL) {
        if (strstr(line, mtdname) == NULL)
            continue;
        char* colon = strchr(line, ':');
        if (colon != NULL) {
            *colon = '\0';
            strcpy(dev, line);
            ret = 0;
        }
        break;
    }
    fclose(f);
    return ret;
}

/* The variable's name is compared as a prefix: "serial" finds "serial#".
 * The value loses its last character whatever it is (normally the line
 * feed), and is copied as strncpy copies. Kept so. */
int util_env_lookup_var(const char* name, char* value, int maxlen)
{
    if (name == NULL || value == NULL || maxlen < 2)
        return -EINVAL;
    if (access(env_cache, F_OK) != 0) {
        if (options.verbose)
            printf("util_env_lookup_var(): %s does not exist\n", env_cache);
        int status = system(env_command);
        if (status != 0) {
            if (options.verbose)
                printf("util_env_lookup_var(): (re)creation failed (%d)\n", status);
            return -EACCES;
        }
    }
    FILE* f = fopen(env_cache, "r");
    if (f == NULL)
        return -errno;
    if (options.verbose)
        printf("util_env_lookup_var(): looking for \"%s\"\n", name);
    char line[1024];
    int ret = -1;
    while (fgets(line, sizeof line, f) != NULL) {
        if (strncmp(line, name, strlen(name)) != 0)
            continue;
        char* eq = strchr(line, '=');
        if (eq != NULL) {
            char* text = eq + 1;
            size_t len = strlen(text);
            if (len > 0)
                text[len - 1] = '\0';
            strncpy(value, text, (size_t)maxlen);
            if (options.verbose)
                printf("util_env_lookup_var(): %s=\"%s\"\n", name, text);
            ret = 0;
        }
        break;
    }
    fclose(f);
    return ret;
}

/* The straps are active low: one that reads '0' sets its bit. */
int vela_get_hardware_version(char* ver, int maxlen)
{
    if (options.verbose)
        puts("vela_get_hardware_version()");
    if (ver == NULL || maxlen < 4)
        return -EINVAL;
    memset(ver, 0, (size_t)maxlen); /* the empty text, and a terminator after a value that fills the rest */
    int value = 0;
    for (int bit = 0; bit < 4; bit++) {
        char path[64], level[8];
        snprintf(path, sizeof path, "/sys/class/gpio/hwid%d/value", bit);
        if (sysfs_read_string(path, level, sizeof level) != 0)
            return 0;
        if (level[0] == '0')
            value |= 1 << bit;
    }
    snprintf(ver, (size_t)maxlen, "%c.", 'A' + value);
    size_t len = strlen(ver);
    int extra = util_env_lookup_var("hwrev_extra", ver + len, maxlen - (int)len - 1);
    if (options.verbose)
        printf("extra: %d\n", extra);
    if (extra != 0) {
        if (options.verbose)
            puts("vela_get_hardware_version(): hwrev_extra not set");
        ver[len - 1] = '\0';
    }
    return (int)strlen(ver);
}

int vela_get_serialno(char* sn)
{
    if (options.verbose)
        puts("vela_get_serialno()");
    char buf[32] = {0};
    if (util_env_lookup_var("serial#", buf, sizeof buf) != 0) {
        if (options.verbose)
            puts("vela_get_serialno(): cannot lookup serial#");
        return 0;
    }
    buf[sizeof buf - 1] = '\0';
    strcpy(sn, buf);
    return (int)strlen(sn);
}

/* The version is the second word of the image-name field (32 bytes at
 * offset 32) of the boot loader image's header. */
int vela_get_bootloader_version(char* ver)
{
    if (options.verbose)
        puts("vela_get_bootloader_version()");
    char path[64] = "/dev/";
    if (util_mtd_lookup_device("NAND.u-boot", path + strlen(path)) != 0) {
        if (options.verbose)
            puts("vela_get_bootloader_version(): cannot lookup mtd device");
        return 0;
    }
    if (options.verbose)
        printf("vela_get_bootloader_version(): mtddev=\"%s\"\n", path);
    char s[33];
    int len = 32;
    if (sysfs_read_blob(path, s, 32, &len) != 0 || len < 32) {
        if (options.verbose)
            puts("vela_get_bootloader_version(): failed reading from bootloader image");
        return 0;
    }
    s[32] = '\0';
    if (options.verbose)
        printf("vela_get_bootloader_version(): s=\"%s\"\n", s);
    char* start = strchr(s, ' ');
    if (start == NULL) {
        if (options.verbose)
            puts("vela_get_bootloader_version(): unexpected version format");
        return 0;
    }
    start++;
    char* end = strchr(start, ' ');
    if (end != NULL)
        *end = '\0';
    if (options.verbose)
        printf("vela_get_bootloader_version(): version=\"%s\"\n", start);
    strcpy(ver, start);
    return (int)strlen(ver);
}

int vela_get_bsp_version(char* ver)
{
    if (options.verbose)
        puts("vela_get_bsp_version()");
    FILE* f = fopen(bsp_release, "r");
    if (f == NULL)
        return 0;
    char line[256];
    char* got = fgets(line, sizeof line, f);
    fclose(f);
    if (got == NULL)
        return 0;
    char* p = line;
    while (isprint((unsigned char)*p))
        p++;
    *p = '\0';
    const char* text = line[0] == 'v' ? line + 1 : line;
    strcpy(ver, text);
    return (int)strlen(ver);
}

int vela_get_devicetree_model(char* model, int maxlen)
{
    MTRACE(5, "vela_get_devicetree_model");
    FILE* f = fopen(dt_model, "r");
    if (f == NULL)
        return -1;
    char* got = fgets(model, maxlen, f);
    fclose(f);
    return got != NULL ? 0 : -1;
}

int util_machine2type(const char* machine)
{
    for (const auto& m : machines) {
        if (strcmp(machine, m.name) == 0)
            return m.type;
    }
    return -1;
}

/* Only the characters of a decimal number, with at least one digit: keeps
 * out what strtod would take besides (inf, nan, hexadecimal, blanks). */
static int decimal_chars(const char* text, const char* allowed)
{
    int digits = 0;
    for (const char* p = text; *p != '\0'; p++) {
        if (isdigit((unsigned char)*p))
            digits++;
        else if (strchr(allowed, *p) == NULL)
            return 0;
    }
    return digits > 0;
}

int util_parse_int(const char* text, int* value)
{
    if (!decimal_chars(text, "+-"))
        return -1;
    char* end;
    errno = 0;
    long v = strtol(text, &end, 10);
    if (*end != '\0' || errno == ERANGE || v < INT_MIN || v > INT_MAX)
        return -1;
    *value = (int)v;
    return 0;
}

int util_parse_double(const char* text, double* value)
{
    if (!decimal_chars(text, "+-.eE"))
        return -1;
    char* end;
    double v = strtod(text, &end);
    if (*end != '\0' || !isfinite(v))
        return -1;
    *value = v;
    return 0;
}

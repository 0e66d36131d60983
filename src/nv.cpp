#include "nv.h"

#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <zlib.h>

#include "MIniData.h"
#include "mtrace.h"
#include "remote.h"
#include "sysfs.h"
#include "util.h"
#include "velatool.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the RAM block is stored little-endian");
static_assert(sizeof(struct nv_state_s) == 28, "RAM block size");
static_assert(offsetof(nv_state_s, ver) == 4 && offsetof(nv_state_s, uptime) == 8 &&
                  offsetof(nv_state_s, uptime_eco) == 12 && offsetof(nv_state_s, meas_cycles) == 16 &&
                  offsetof(nv_state_s, batt_cycles) == 20 && offsetof(nv_state_s, batt_cycle_state) == 24,
              "RAM block layout");

static const char nvram_path[] = "/sys/class/rtc/rtc1/device/nvram";
static const char nv_file[] = "nv_state.ini";
static const int nv_size = (int)sizeof(struct nv_state_s);

static uint32_t nv_crc(const struct nv_state_s* nv)
{
    return (uint32_t)crc32(0, (const Bytef*)&nv->ver, nv_size - offsetof(nv_state_s, ver));
}

/* The five counters of the file, in the file's order. */
struct nv_key_s {
    const char* section;
    const char* key;
    const char* trace;
};

static const struct nv_key_s nv_keys[] = {
    {"uptime", "ready", "uptime=%ld\n"},
    {"uptime", "eco", "uptime_eco=%ld\n"},
    {"cyclecounter", "meas", "meas_cycles=%ld\n"},
    {"cyclecounter", "batt", "batt_cycles=%ld\n"},
    {"cyclecounter", "batts", "batt_cycle_state=%ld\n"},
};

static void nv_set_field(struct nv_state_s* nv, int i, long v)
{
    switch (i) {
    case 0: nv->uptime = (uint32_t)v; break;
    case 1: nv->uptime_eco = (uint32_t)v; break;
    case 2: nv->meas_cycles = (uint32_t)v; break;
    case 3: nv->batt_cycles = (uint32_t)v; break;
    default: nv->batt_cycle_state = (uint8_t)v; break; /* low byte */
    }
}

static long nv_get_field(const struct nv_state_s* nv, int i)
{
    const uint32_t fields[] = {nv->uptime, nv->uptime_eco, nv->meas_cycles, nv->batt_cycles, nv->batt_cycle_state};
    return (long)fields[i];
}

/* The counters file in a new document; null when there is no folder or
 * the file cannot be read. */
static MINIDATA_HANDLE nv_ini_open(int flags)
{
    char path[256];
    if (util_appdata_path(nv_file, path, sizeof path) != 0)
        return NULL;
    MINIDATA_HANDLE h = MIniData_CreateWithFlags(flags);
    int ret = util_ini_open_file(h, path);
    MTRACE(4, "MIniData_Open: %d", ret);
    /* a file the medium cannot give back is neither taken as empty nor
     * written over */
    if (MIniData_ReadFailed(h)) {
        MIniData_Destroy(h);
        return NULL;
    }
    return h;
}

int nv_update_crc(struct nv_state_s* nv)
{
    if (nv == NULL)
        return -EINVAL;
    nv->crc = nv_crc(nv);
    return 0;
}

int nv_crc_ok(struct nv_state_s* nv)
{
    if (nv == NULL)
        return -EINVAL;
    uint32_t crc = nv_crc(nv);
    if (options.verbose)
        printf("nv_update_crc(): %08x/%08x\n", crc, nv->crc);
    return crc == nv->crc;
}

int nv_read_nvram(struct nv_state_s* nv)
{
    if (nv == NULL)
        return -EINVAL;
    int len = nv_size;
    if (sysfs_read_blob(nvram_path, nv, 0, &len) != 0) {
        if (options.verbose)
            printf("nv_read_nvram(): reading nvram file failed\n");
        return -1;
    }
    if (len != nv_size) {
        if (options.verbose)
            printf("nv_read_nvram(): got invalid lenght\n");
        return -1;
    }
    if (!nv_crc_ok(nv) || nv->ver != 1)
        return -EFAULT;
    return 0;
}

int nv_write_nvram(struct nv_state_s* nv)
{
    if (nv == NULL)
        return -EINVAL;
    nv->ver = 1;
    memset(nv->pad, 0, sizeof nv->pad);
    nv_update_crc(nv);
    if (sysfs_write_blob(nvram_path, nv, nv_size) != 0) {
        if (options.verbose)
            printf("nv_write_nvram(): writing nvram file failed\n");
        return -1;
    }
    return 0;
}

int nv_read_ini(struct nv_state_s* nv)
{
    if (nv == NULL)
        return -EINVAL;
    memset(nv, 0, sizeof *nv);
    MINIDATA_HANDLE h = nv_ini_open(0);
    if (h == NULL)
        return -1;

    for (int i = 0; i < (int)(sizeof nv_keys / sizeof *nv_keys); i++) {
        long v;
        if (MIniData_GetLongEntry(h, nv_keys[i].section, nv_keys[i].key, &v)) {
            MTRACE(4, nv_keys[i].trace, v);
            nv_set_field(nv, i, v);
        }
    }

    /* From now on the folder and the file exist, even if still empty. */
    if (MIniData_HasNoFile(h)) {
        MTRACE(3, "New nv ini-file created from defaults\n");
        MIniData_Save(h);
    }
    MIniData_Destroy(h);
    return 0;
}

int nv_write_ini(struct nv_state_s* nv)
{
    if (nv == NULL)
        return -EINVAL;
    /* Read first, so that other sections and comments in the file survive;
     * replaced atomically. */
    MINIDATA_HANDLE h = nv_ini_open(MINIDATA_FLAG_FSYNC | MINIDATA_FLAG_ATOMIC_SAVE);
    if (h == NULL)
        return -1;
    for (int i = 0; i < (int)(sizeof nv_keys / sizeof *nv_keys); i++)
        MIniData_SetLongEntry(h, nv_keys[i].section, nv_keys[i].key, nv_get_field(nv, i));
    /* the new name must outlive a power cut as the data does */
    if (MIniData_Save(h))
        sync_inipath();
    MIniData_Destroy(h);
    return 0;
}

int nv_dump(struct nv_state_s* nv)
{
    if (nv == NULL)
        return -EINVAL;
    MTRACE(4, "nv_dump(): crc=%08x\n", nv->crc);
    MTRACE(4, "nv_dump(): ver=%d\n", (int)nv->ver);
    MTRACE(4, "nv_dump(): uptime=%d\n", (int)nv->uptime);
    MTRACE(4, "nv_dump(): uptime_eco=%d\n", (int)nv->uptime_eco);
    MTRACE(4, "nv_dump(): meas_cycles=%d\n", (int)nv->meas_cycles);
    MTRACE(4, "nv_dump(): batt_cycles=%d\n", (int)nv->batt_cycles);
    MTRACE(4, "nv_dump(): batt_cycle_state=%d\n", (int)nv->batt_cycle_state);
    return 0;
}

/* The RAM block wins whenever it is valid; the file is only the fall-back. */
int nv_read(void)
{
    struct nv_state_s nv;
    MTRACE(4, "nv_read()");
    char path[256];
    if (util_appdata_path(nv_file, path, sizeof path) == 0)
        util_remove_leftovers(path);
    int ret = nv_read_nvram(&nv);
    MTRACE(4, "nv_read_nvam: %d\n", ret);
    if (ret == 0) {
        nv_dump(&nv);
        nv_write_ini(&nv);
    } else {
        ret = nv_read_ini(&nv);
        MTRACE(4, "nv_read_ini: %d\n", ret);
        nv_dump(&nv);
        nv_write_nvram(&nv);
    }
    state.uptime.tv_sec = (time_t)nv.uptime;
    state.uptime.tv_nsec = 0;
    state.uptime_eco.tv_sec = (time_t)nv.uptime_eco;
    state.uptime_eco.tv_nsec = 0;
    state.meas_cycles = nv.meas_cycles;
    state.batt_cycles = nv.batt_cycles;
    state.batt_cycle_state = nv.batt_cycle_state;
    return 0;
}

int nv_save_now(int with_file)
{
    struct nv_state_s nv;
    memset(&nv, 0, sizeof nv);
    nv.ver = 1;
    nv.uptime = (uint32_t)state.uptime.tv_sec;
    nv.uptime_eco = (uint32_t)state.uptime_eco.tv_sec;
    nv.meas_cycles = state.meas_cycles;
    nv.batt_cycles = state.batt_cycles;
    nv.batt_cycle_state = state.batt_cycle_state;
    nv_write_nvram(&nv);
    if (with_file)
        nv_write_ini(&nv);
    return 0;
}

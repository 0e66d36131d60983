/* Operating counters kept across power cycles: a CRC-protected block in the
 * RTC's battery-backed RAM, mirrored in nv_state.ini. */
#ifndef VELA_NV_H
#define VELA_NV_H

#include <stdint.h>

/* Also the byte image of the RAM block (little-endian, 28 bytes). */
struct nv_state_s {
    uint32_t crc;              /* CRC-32 of the bytes from ver to the end */
    uint32_t ver;              /* layout version, 1 */
    uint32_t uptime;           /* seconds in ready and meas */
    uint32_t uptime_eco;       /* seconds in eco */
    uint32_t meas_cycles;
    uint32_t batt_cycles;
    uint8_t batt_cycle_state;
    uint8_t pad[3];
};

int nv_update_crc(struct nv_state_s* nv);
int nv_crc_ok(struct nv_state_s* nv);
int nv_read_nvram(struct nv_state_s* nv);
int nv_write_nvram(struct nv_state_s* nv);
int nv_read_ini(struct nv_state_s* nv);
int nv_write_ini(struct nv_state_s* nv);
int nv_dump(struct nv_state_s* nv);
int nv_read(void);
int nv_save_now(int with_file);

#endif

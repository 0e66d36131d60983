/* Power management: the platform's power controls (USB host port, backlight,
 * RTC wake-up alarm, suspend, CPU frequency, run LED) and the bq24160
 * battery charger on /dev/i2c-0. */
#ifndef VELA_POWER_H
#define VELA_POWER_H

#include <stdint.h>

/* Battery state codes */
enum {
    BATT_STATE_UNKNOWN = 0,
    BATT_STATE_CHARGING_USB = 1, /* slow USB charging */
    BATT_STATE_CHARGING = 2,
    BATT_STATE_DONE = 3,
    BATT_STATE_ON_BATTERY = 4,
    BATT_STATE_FAULT = 5,
};

/* Battery level codes */
enum {
    BATT_LEVEL_UNKNOWN = 0,
    BATT_LEVEL_LOW = 1,
    BATT_LEVEL_CRITICAL = 2,
    BATT_LEVEL_GOOD = 3,
};

/* bq24160 register fields the driver and the power events use */
enum {
    REG0_TMR_RST = 0x80,
    REG0_STAT_MASK = 0x70,
    REG0_SUPPLY_SEL = 0x08,
    STAT_NO_SOURCE = 0x00,
    STAT_IN_READY = 0x10,
    STAT_USB_READY = 0x20,
    STAT_CHARGING_IN = 0x30,
    STAT_CHARGING_USB = 0x40,
    STAT_DONE = 0x50,
    FAULT_THERMAL = 1,
    FAULT_BATTERY = 7,
    REG1_USB_MASK = 0x30,
    REG1_USB_UVLO = 0x30,
    REG2_RESET = 0x80,
    REG2_IUSB_MASK = 0x70,
    REG2_IUSB_500MA = 0x20,
    REG2_IUSB_CODE5 = 0x50,
    REG2_CE_DISABLE = 0x02,
    REG2_HZ_MODE = 0x01,
    REG3_VBREG_MASK = 0xfc,
    REG3_VBREG = 0x64,
    REG3_DPDM_EN = 0x01,
    REG5_ICHG_ITERM = 0x62,
};

struct charger_state_s {
    uint8_t regs[8]; /* last image of charger registers 0..7 */
    int fd;          /* charger-interrupt GPIO value file, -1 when closed */
    int state;       /* battery state code */
    int level;       /* battery level code */
    int usbpwrok;    /* 1 while USB input power is present */
};

extern struct charger_state_s chgstate;
extern const char* const bq24160_stat[8];
extern const char* const bq24160_fault[8];

/* Platform controls */
int vela_usbhost_power_ctrl(int onoff);
int vela_backlight_set(uint8_t brightness);
int vela_backlight_get(uint8_t* brightness);
int vela_rtc_alarm(uint32_t seconds);
int vela_suspend(void);
int vela_cpufreq_set(int high);
int vela_led_set(int mode);

/* The charger */
int charger_read(uint8_t* regs, int offset, int count);
int charger_write(int offset, uint8_t val);
int vela_power_init(void);
int vela_power_close(void);
int vela_batt_state_get(int* state, int* level);
int vela_charger_detect(void);
int vela_charger_setup(uint8_t* reg_state);
/* Restarts the charger's 30 s watchdog; reg0 is the last status register
 * read, whose writable bit is kept. */
int vela_charger_watchdog_reset(uint8_t reg0);
int do_chargerdetect(void);

/* Power events: the charger's interrupt (statirq non-zero) or the periodic
 * poll update battery state and level, USB power and the charge cycles, and
 * tell the clients. */
struct client_s;
int vela_power_handler(int statirq);
/* A battery state or level event: to one client, or (null) to all. */
int vela_send_battery_event(struct client_s* client, int state);
int vela_send_battery_level_event(struct client_s* client, int level);
/* The command-line charger monitor (-C). */
int vela_charger_test(void);
int do_chargermonitor(void);

#endif

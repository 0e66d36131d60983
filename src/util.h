/* Configuration file velatool.ini and the product's application-data
 * folder; the device's identity (hardware revision, serial number, boot
 * loader and BSP versions, device-tree model). */
#ifndef VELA_UTIL_H
#define VELA_UTIL_H

#include <stddef.h>

#include "MIniData.h"

/* <product folder><file> into path (at most size - 1 characters), creating
 * the folder when missing; -1 if the folder cannot be had. */
int util_appdata_path(const char* file, char* path, size_t size);

/* Opens an INI file into h. A file that exists but cannot be parsed is kept
 * aside as <path>.bad; the document keeps what was read before the bad line
 * and has no file behind it, so that the caller's save writes those values
 * (and its defaults) anew, never over the user's text. Returns what the
 * first open returned. */
int util_ini_open_file(MINIDATA_HANDLE h, const char* path);

/* Server start-up: locate and open the configuration, complete missing
 * sections with defaults, create the file if there was none (step 2); read
 * the values into the state record, patching an old calibration once
 * (step 10). */
int util_ini_open(void);
int util_ini_read(void);

/* Start-up: removes the temporary files that saves of path left behind
 * when the power went in the middle. */
void util_remove_leftovers(const char* path);

/* Saves the configuration and syncs its folder; -1 when nothing was saved.
 * A file that could not be read at start-up is read again first and never
 * written over while it cannot be. */
int util_ini_save(void);

/* Flushes the product folder's directory entries to storage. */
int sync_inipath(void);

/* Machine types: single bits, so that a mask can name several. */
enum {
    MACHINE_VELAL = 1,
    MACHINE_VELAN = 2,
    MACHINE_VELA = 4,
    MACHINE_TALA = 8,
    MACHINE_LUMA = 16,
    MACHINE_NOVA = 32,
};

/* The MTD device ("mtd4") of the first partition whose /proc/mtd line
 * contains mtdname anywhere. */
int util_mtd_lookup_device(const char* mtdname, char* dev);
/* A variable of the boot loader's environment, through the cache file
 * /tmp/environment.txt (made once by fw_printenv). */
int util_env_lookup_var(const char* name, char* value, int maxlen);
/* "B" or "B.2" from the four ID straps and hwrev_extra; the length. */
int vela_get_hardware_version(char* ver, int maxlen);
int vela_get_serialno(char* sn);
int vela_get_bootloader_version(char* ver);
int vela_get_bsp_version(char* ver);
int vela_get_devicetree_model(char* model, int maxlen);
/* The type bit of a model string, or -1. */
int util_machine2type(const char* machine);

/* A value given by a client, taken only when the whole text is a decimal
 * number: an optional sign, digits, and for util_parse_double a fraction
 * and an exponent, finite. 0, or -1 (value untouched) for anything else:
 * an empty text, trailing characters, "nan", "inf", hexadecimal, overflow. */
int util_parse_int(const char* text, int* value);
int util_parse_double(const char* text, double* value);

#endif

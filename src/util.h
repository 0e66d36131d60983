/* Configuration file velatool.ini and the product's application-data folder. */
#ifndef VELA_UTIL_H
#define VELA_UTIL_H

#include <stddef.h>

#include "MIniData.h"

/* <product folder><file> into path (at most size - 1 characters), creating
 * the folder when missing; -1 if the folder cannot be had. */
int util_appdata_path(const char* file, char* path, size_t size);

/* Opens an INI file into h. A file that exists but cannot be parsed is kept
 * aside as <path>.bad and the document starts empty, as for a missing file,
 * so that a later save never overwrites the user's text. Returns what the
 * first open returned. */
int util_ini_open_file(MINIDATA_HANDLE h, const char* path);

/* Server start-up: locate and open the configuration, complete missing
 * sections with defaults, create the file if there was none (step 2); read
 * the values into the state record, patching an old calibration once
 * (step 10). */
int util_ini_open(void);
int util_ini_read(void);

/* Flushes the product folder's directory entries to storage. */
int sync_inipath(void);

#endif

/* Attribute-file helpers (GPIO, backlight, cpufreq, power state, USB
 * controller, RTC) and struct timespec arithmetic. Each file helper opens,
 * transfers once and closes; none retries. */
#ifndef VELA_SYSFS_H
#define VELA_SYSFS_H

#include <time.h>

int sysfs_write_valid_int(const char* valuepath, int min, int max, int value);
int sysfs_write_string(const char* valuepath, const char* string);
int sysfs_read_string(const char* valuepath, char* string, int maxlen);
int sysfs_read_blob(const char* valuepath, void* blob, int offset, int* maxlen);
int sysfs_write_blob(const char* valuepath, void* blob, int len);

/* Time of day of the battery-backed RTC as "hh:mm:ss"; buf is 32 bytes. */
int query_rtc_time(char* buf, int size);

int clock_delta(struct timespec* start, struct timespec* stop, struct timespec* delta);
int clock_add(struct timespec* a, struct timespec* b);
int clock_copy(struct timespec* a, struct timespec* b);

#endif

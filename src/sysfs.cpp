#include "sysfs.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static const char rtc_time_path[] = "/sys/class/rtc/rtc1/time";

/* Writes len bytes in one call; anything short is a failure. */
static int write_all_once(const char* valuepath, const void* data, size_t len)
{
    int fd = open(valuepath, O_WRONLY);
    if (fd < 0) {
        perror("open");
        return -1;
    }
    ssize_t n = write(fd, data, len);
    if (n < 0 || (size_t)n != len) {
        perror("write");
        close(fd);
        return -1;
    }
    close(fd);
    return 0;
}

int sysfs_write_valid_int(const char* valuepath, int min, int max, int value)
{
    if (value < min || value > max || valuepath == NULL)
        return -EINVAL;
    char buf[12];
    int len = snprintf(buf, sizeof buf, "%d", value);
    return write_all_once(valuepath, buf, (size_t)len);
}

int sysfs_write_string(const char* valuepath, const char* string)
{
    if (valuepath == NULL || string == NULL)
        return -EINVAL;
    return write_all_once(valuepath, string, strlen(string));
}

int sysfs_read_string(const char* valuepath, char* string, int maxlen)
{
    if (valuepath == NULL || string == NULL || maxlen <= 0)
        return -EINVAL;
    int fd = open(valuepath, O_RDONLY);
    if (fd < 0) {
        perror("open");
        return -1;
    }
    ssize_t n = read(fd, string, (size_t)(maxlen - 1));
    if (n < 0) {
        perror("read");
        close(fd);
        return -1;
    }
    close(fd);
    string[n] = '\0';
    char* lf = strchr(string, '\n');
    if (lf != NULL)
        *lf = '\0';
    return 0;
}

int sysfs_read_blob(const char* valuepath, void* blob, int offset, int* maxlen)
{
    if (valuepath == NULL || blob == NULL || maxlen == NULL || *maxlen <= 0 || offset < 0)
        return -EINVAL;
    int fd = open(valuepath, O_RDONLY);
    if (fd < 0) {
        perror("open");
        return -1;
    }
    if (lseek(fd, offset, SEEK_SET) < 0) {
        perror("lseek");
        close(fd);
        return -1;
    }
    ssize_t n = read(fd, blob, (size_t)*maxlen);
    if (n < 0) {
        perror("read");
        close(fd);
        return -1;
    }
    close(fd);
    *maxlen = (int)n;
    return 0;
}

int sysfs_write_blob(const char* valuepath, void* blob, int len)
{
    if (valuepath == NULL || blob == NULL || len <= 0)
        return -EINVAL;
    return write_all_once(valuepath, blob, (size_t)len);
}

int query_rtc_time(char* buf, int size)
{
    int fd = open(rtc_time_path, O_RDONLY);
    if (fd < 0) {
        fprintf(stderr, "ERROR: ");
        fprintf(stderr, "cannot open %s (errno=%d)", rtc_time_path, errno);
        return -1;
    }
    ssize_t n = read(fd, buf, (size_t)(size - 1));
    if (n < 0) {
        fprintf(stderr, "ERROR: ");
        fprintf(stderr, "reading %s failed or incomplete (errno=%d)\n", rtc_time_path, errno);
        close(fd);
        return -1;
    }
    close(fd);
    buf[n] = '\0';
    /* Strip one line end only; a one-character text stays as it is. */
    if (n > 1 && (buf[n - 1] == '\r' || buf[n - 1] == '\n'))
        buf[n - 1] = '\0';
    return 0;
}

int clock_delta(struct timespec* start, struct timespec* stop, struct timespec* delta)
{
    if (start == NULL || stop == NULL || delta == NULL)
        return -EINVAL;
    delta->tv_sec = stop->tv_sec - start->tv_sec;
    delta->tv_nsec = stop->tv_nsec - start->tv_nsec;
    if (stop->tv_nsec < start->tv_nsec) {
        delta->tv_nsec += 1000000000;
        delta->tv_sec -= 1;
    }
    return 0;
}

int clock_add(struct timespec* a, struct timespec* b)
{
    if (a == NULL || b == NULL)
        return -EINVAL;
    a->tv_sec += b->tv_sec;
    a->tv_nsec += b->tv_nsec;
    if (a->tv_nsec > 999999999) {
        a->tv_nsec -= 1000000000;
        a->tv_sec += 1;
    }
    return 0;
}

int clock_copy(struct timespec* a, struct timespec* b)
{
    if (a == NULL || b == NULL)
        return -EINVAL;
    a->tv_sec = b->tv_sec;
    a->tv_nsec = b->tv_nsec;
    return 0;
}

/* Handlers behind the generated libc wrappers (C linkage). Each returns
 * non-zero when the call belonged to the board and *r holds its result (errno
 * set as the call would set it), zero when the real function is to run. */
#ifndef VELASIM_SYSCALLS_H
#define VELASIM_SYSCALLS_H

#include <dirent.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The 64-bit time layouts of a 32-bit glibc, as the program passes them to
 * the __*64 entry points (little-endian: the nanoseconds, then padding). */
struct sim_timespec64 {
    int64_t tv_sec;
    int32_t tv_nsec;
    int32_t pad;
};
struct sim_timeval64 {
    int64_t tv_sec;
    int64_t tv_usec;
};
struct sim_itimerspec64 {
    struct sim_timespec64 it_interval;
    struct sim_timespec64 it_value;
};
/* glibc's stat record for 64-bit time_t on a 32-bit target. */
struct sim_stat_time64 {
    uint64_t st_dev;
    uint64_t st_ino;
    uint32_t st_mode;
    uint32_t st_nlink;
    uint32_t st_uid;
    uint32_t st_gid;
    uint64_t st_rdev;
    int64_t st_size;
    int32_t st_blksize;
    int64_t st_blocks;
    struct sim_timespec64 st_atim;
    struct sim_timespec64 st_mtim;
    struct sim_timespec64 st_ctim;
};

#if defined __cplusplus && __TIMESIZE == 32 && defined __USE_TIME_BITS64
/* Files built with 64-bit time_t check the layouts above against the C
 * library's own. */
static_assert(sizeof(struct timespec) == sizeof(struct sim_timespec64) &&
                  sizeof(struct timeval) == sizeof(struct sim_timeval64),
              "64-bit time layouts");
static_assert(sizeof(struct stat) == sizeof(struct sim_stat_time64) &&
                  offsetof(struct stat, st_size) == offsetof(struct sim_stat_time64, st_size) &&
                  offsetof(struct stat, st_atim) == offsetof(struct sim_stat_time64, st_atim),
              "64-bit time stat layout");
#endif

/* Which record a stat call fills: struct stat, struct stat64 (as this file
 * sees them: the wrappers are built with the C library's default time_t),
 * or struct sim_stat_time64. */
enum { SIM_STAT, SIM_STAT64, SIM_STAT_TIME64 };

enum {
#define SIM_FN(ret, name, ...) SIM_IDX_##name,
#define SIM_FN_VA(ret, name, ...) SIM_IDX_##name,
#include "wrapped.def"
#undef SIM_FN
#undef SIM_FN_VA
    SIM_WRAP_COUNT
};

extern const char* const sim_wrapped_names[SIM_WRAP_COUNT];
void sim_count_call(int idx);
unsigned long sim_call_count(int idx);
void sim_resolve_real(void);

/* Pointers to the real functions, filled by sim_resolve_real(). */
#define SIM_UNPAREN(...) __VA_ARGS__
#define SIM_FN(ret, name, params, ...) extern ret(*sim_real_##name) params;
#define SIM_FN_VA(ret, name, params, ...) extern ret(*sim_real_##name)(SIM_UNPAREN params, ...);
#include "wrapped.def"
#undef SIM_FN
#undef SIM_FN_VA

/* The real function, resolved on first use (calls can arrive before any
 * constructor has run). */
#define SIM_REAL(name) (sim_real_##name ? sim_real_##name : (sim_resolve_real(), sim_real_##name))

#if defined __cplusplus && __TIMESIZE == 32 && defined __USE_TIME_BITS64
/* In a file built with 64-bit time_t and file offsets, SIM_REAL(name) is
 * the entry point of those widths that the C library's headers give name,
 * typed as the headers declare name. */
#define SIM_REAL_AS(name, real) \
    reinterpret_cast<decltype(&::name)>(sim_real_##real ? sim_real_##real : (sim_resolve_real(), sim_real_##real))
#define sim_real_lseek SIM_REAL_AS(lseek, lseek64)
#define sim_real_pread SIM_REAL_AS(pread, pread64)
#define sim_real_pwrite SIM_REAL_AS(pwrite, pwrite64)
#define sim_real_mmap SIM_REAL_AS(mmap, mmap64)
#define sim_real_fcntl SIM_REAL_AS(fcntl, __fcntl_time64)
#define sim_real_ioctl SIM_REAL_AS(ioctl, __ioctl_time64)
#define sim_real_select SIM_REAL_AS(select, __select64)
#define sim_real_pselect SIM_REAL_AS(pselect, __pselect64)
#define sim_real_ppoll SIM_REAL_AS(ppoll, __ppoll64)
#define sim_real_nanosleep SIM_REAL_AS(nanosleep, __nanosleep64)
#define sim_real_clock_nanosleep SIM_REAL_AS(clock_nanosleep, __clock_nanosleep_time64)
#define sim_real_clock_gettime SIM_REAL_AS(clock_gettime, __clock_gettime64)
#define sim_real_gettimeofday SIM_REAL_AS(gettimeofday, __gettimeofday64)
#define sim_real_time SIM_REAL_AS(time, __time64)
#define sim_real_timerfd_settime SIM_REAL_AS(timerfd_settime, __timerfd_settime64)
#define sim_real_timerfd_gettime SIM_REAL_AS(timerfd_gettime, __timerfd_gettime64)
#define sim_real_stat SIM_REAL_AS(stat, __stat64_time64)
#define sim_real_lstat SIM_REAL_AS(lstat, __lstat64_time64)
#define sim_real_fstatat SIM_REAL_AS(fstatat, __fstatat64_time64)
#define sim_real_fstat SIM_REAL_AS(fstat, __fstat64_time64)
#endif

int sim_openat(int* r, int dirfd, const char* path, int flags, unsigned mode);
int sim_fopen(FILE** r, const char* path, const char* mode);
int sim_opendir(DIR** r, const char* path);
int sim_close(int* r, int fd);
int sim_fclose(int* r, FILE* stream);
int sim_bind(int* r, int fd, const struct sockaddr* addr, socklen_t len);
int sim_dup3(int* r, int fd, int newfd, int flags, int kind);
int sim_fcntl(int* r, int fd, int cmd, void* arg);
int sim_read(ssize_t* r, int fd, void* buf, size_t n, size_t buflen);
int sim_write(ssize_t* r, int fd, const void* buf, size_t n);
int sim_pread(ssize_t* r, int fd, void* buf, size_t n, size_t buflen, off64_t off);
int sim_pwrite(ssize_t* r, int fd, const void* buf, size_t n, off64_t off);
int sim_readv(ssize_t* r, int fd, const struct iovec* iov, int count);
int sim_writev(ssize_t* r, int fd, const struct iovec* iov, int count);
int sim_lseek(off_t* r, int fd, off_t off, int whence);
int sim_lseek64(off64_t* r, int fd, off64_t off, int whence);
int sim_ioctl(int* r, int fd, unsigned long request, void* arg);
int sim_mmap(void** r, void* addr, size_t len, int prot, int flags, int fd, off64_t off);
int sim_munmap(int* r, void* addr, size_t len);
int sim_select(int* r, int n, fd_set* rd, fd_set* wr, fd_set* ex, struct timeval* tv,
               const struct timespec* ts, const sigset_t* mask);
int sim_poll(int* r, struct pollfd* fds, nfds_t n, int timeout_ms, const struct timespec* ts,
             const sigset_t* mask);
int sim_usleep(int* r, useconds_t us);
int sim_nanosleep(int* r, const struct timespec* req, struct timespec* rem);
int sim_clock_nanosleep(int* r, clockid_t clock, int flags, const struct timespec* req,
                        struct timespec* rem);
int sim_sleep(unsigned* r, unsigned seconds);
int sim_clock_gettime(int* r, clockid_t clock, struct timespec* ts);
int sim_gettimeofday(int* r, struct timeval* tv, void* tz);
int sim_time(time_t* r, time_t* t);
int sim_timerfd_create(int* r, clockid_t clock, int flags);
int sim_timerfd_settime(int* r, int fd, int flags, const struct itimerspec* value, struct itimerspec* old);
int sim_timerfd_gettime(int* r, int fd, struct itimerspec* cur);
#if __TIMESIZE == 32
int sim_clock_gettime64(int* r, clockid_t clock, struct sim_timespec64* ts);
int sim_gettimeofday64(int* r, struct sim_timeval64* tv, void* tz);
int sim_time64(int64_t* r, int64_t* t);
int sim_nanosleep64(int* r, const struct sim_timespec64* req, struct sim_timespec64* rem);
int sim_clock_nanosleep64(int* r, clockid_t clock, int flags, const struct sim_timespec64* req,
                          struct sim_timespec64* rem);
int sim_select64(int* r, int n, fd_set* rd, fd_set* wr, fd_set* ex, struct sim_timeval64* tv);
int sim_pselect64(int* r, int n, fd_set* rd, fd_set* wr, fd_set* ex, const struct sim_timespec64* ts,
                  const sigset_t* mask);
int sim_ppoll64(int* r, struct pollfd* fds, nfds_t n, const struct sim_timespec64* ts, const sigset_t* mask);
int sim_timerfd_settime64(int* r, int fd, int flags, const struct sim_itimerspec64* value,
                          struct sim_itimerspec64* old);
int sim_timerfd_gettime64(int* r, int fd, struct sim_itimerspec64* cur);
#endif
int sim_faccessat(int* r, int dirfd, const char* path, int mode, int flags);
int sim_fstatat(int* r, int dirfd, const char* path, void* st, int flags, int kind);
int sim_fstat(int* r, int fd, void* st, int kind);
int sim_unlink(int* r, const char* path, int flags);
int sim_mkdir(int* r, const char* path, mode_t mode);
int sim_symlink(int* r, const char* target, const char* path);
int sim_readlink(ssize_t* r, const char* path, char* buf, size_t n);
int sim_rename(int* r, const char* from, const char* to);
int sim_mkstemp(int* r, char* tmpl, int flags);
int sim_fsync(int* r, int fd);
int sim_system(int* r, const char* command);

#ifdef __cplusplus
}
#endif

#endif

/* Built with -O2 -D_FORTIFY_SOURCE=2, as a distribution would build the
 * program: every name in the board's table of wrapped functions must really
 * be reached, the fortified __*_chk and __*_2 forms included. */
#include <gtest/gtest.h>

#include <dirent.h>
#include <netinet/in.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include "simtest.h"
#include "syscalls.h"
#include "tempdir.h"

#if __TIMESIZE == 32
/* A 32-bit build with a 32-bit time_t never calls glibc's 64-bit time entry
 * points, which a _TIME_BITS=64 build of the program would: call them
 * directly. */
extern "C" {
int __clock_gettime64(clockid_t, struct sim_timespec64*);
int __gettimeofday64(struct sim_timeval64*, void*);
int64_t __time64(int64_t*);
int __nanosleep64(const struct sim_timespec64*, struct sim_timespec64*);
int __clock_nanosleep_time64(clockid_t, int, const struct sim_timespec64*, struct sim_timespec64*);
int __select64(int, fd_set*, fd_set*, fd_set*, struct sim_timeval64*);
int __pselect64(int, fd_set*, fd_set*, fd_set*, const struct sim_timespec64*, const sigset_t*);
int __ppoll64(struct pollfd*, nfds_t, const struct sim_timespec64*, const sigset_t*);
int __timerfd_settime64(int, int, const struct sim_itimerspec64*, struct sim_itimerspec64*);
int __timerfd_gettime64(int, struct sim_itimerspec64*);
int __fcntl_time64(int, int, ...);
int __ioctl_time64(int, unsigned long, ...);
int __stat64_time64(const char*, struct sim_stat_time64*);
int __lstat64_time64(const char*, struct sim_stat_time64*);
int __fstatat64_time64(int, const char*, struct sim_stat_time64*, int);
int __fstat64_time64(int, struct sim_stat_time64*);
}
#endif

namespace {

class Probe : public vt::SimTest {};

TEST_F(Probe, EveryWrappedNameIsIntercepted)
{
#if !defined(__OPTIMIZE__) || _FORTIFY_SOURCE < 2
    FAIL() << "the probe must be built with -O2 -D_FORTIFY_SOURCE=2";
#endif
    vt::TempDir dir;
    std::string file = dir.file("f"), other = dir.file("g"), sub = dir.file("d"), link = dir.file("l");
    vt::write_file(file, "0123456789");
    volatile int flags = O_RDONLY; /* not a constant: the fortified __open_2 forms */
    volatile size_t len = 4;
    volatile nfds_t nfds = 1;
    char buf[16];
    struct stat st;
    struct stat64 st64;

    int fd = open(file.c_str(), O_RDONLY);
    close(open(file.c_str(), flags));
    close(open64(file.c_str(), O_RDONLY));
    close(open64(file.c_str(), flags));
    close(openat(AT_FDCWD, file.c_str(), O_RDONLY));
    close(openat(AT_FDCWD, file.c_str(), flags));
    close(openat64(AT_FDCWD, file.c_str(), O_RDONLY));
    close(openat64(AT_FDCWD, file.c_str(), flags));
    fclose(fopen(file.c_str(), "r"));
    fclose(fopen64(file.c_str(), "r"));
    closedir(opendir(dir.path().c_str()));

    EXPECT_EQ(4, read(fd, buf, len));           /* __read_chk */
    ssize_t (*volatile plain_read)(int, void*, size_t) = read;
    EXPECT_EQ(2, plain_read(fd, buf, 2));
    EXPECT_EQ(4, pread(fd, buf, len, 1));        /* __pread_chk */
    EXPECT_EQ(4, pread64(fd, buf, len, 1));      /* __pread64_chk */
    ssize_t (*volatile plain_pread)(int, void*, size_t, off_t) = pread;
    ssize_t (*volatile plain_pread64)(int, void*, size_t, off64_t) = pread64;
    EXPECT_EQ(2, plain_pread(fd, buf, 2, 0));
    EXPECT_EQ(2, plain_pread64(fd, buf, 2, 0));
    struct iovec iov = {buf, 1};
    EXPECT_EQ(1, readv(fd, &iov, 1));
    EXPECT_EQ(6, lseek(fd, -1, SEEK_CUR));
    EXPECT_EQ(0, lseek64(fd, 0, SEEK_SET));
    int n = 0;
    EXPECT_EQ(0, ioctl(fd, FIONREAD, &n));
    EXPECT_GE(fcntl(fd, F_GETFL), 0);
    EXPECT_GE(fcntl64(fd, F_GETFL), 0);
    close(dup(fd));
    int hi = dup2(fd, 200);
    close(dup3(fd, 201, O_CLOEXEC));
    close(hi);
    void* m = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, fd, 0);
    munmap(m, 4096);
    munmap(mmap64(nullptr, 4096, PROT_READ, MAP_PRIVATE, fd, 0), 4096);
    EXPECT_EQ(0, fstat(fd, &st));
    EXPECT_EQ(0, fstat64(fd, &st64));

    int null = open("/dev/null", O_WRONLY);
    EXPECT_EQ(1, write(null, "x", 1));
    EXPECT_EQ(1, pwrite(null, "x", 1, 0));
    EXPECT_EQ(1, pwrite64(null, "x", 1, 0));
    struct iovec out = {const_cast<char*>("x"), 1};
    EXPECT_EQ(1, writev(null, &out, 1));
    close(null);

    struct pollfd p[1] = {{fd, POLLIN, 0}};
    EXPECT_EQ(1, poll(p, nfds, 0));             /* __poll_chk */
    int (*volatile plain_poll)(struct pollfd*, nfds_t, int) = poll;
    EXPECT_EQ(1, plain_poll(p, 1, 0));
    struct timespec zero = {0, 0};
    EXPECT_EQ(1, ppoll(p, nfds, &zero, nullptr)); /* __ppoll_chk */
    int (*volatile plain_ppoll)(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*) = ppoll;
    EXPECT_EQ(1, plain_ppoll(p, 1, &zero, nullptr));
    fd_set rd;
    FD_ZERO(&rd);
    FD_SET(fd, &rd);
    struct timeval tv = {0, 0};
    EXPECT_EQ(1, select(fd + 1, &rd, nullptr, nullptr, &tv));
    EXPECT_EQ(1, pselect(fd + 1, &rd, nullptr, nullptr, &zero, nullptr));
    close(fd);

    struct timespec now;
    EXPECT_EQ(0, clock_gettime(CLOCK_MONOTONIC, &now));
    struct timeval tv_now;
    EXPECT_EQ(0, gettimeofday(&tv_now, nullptr));
    EXPECT_GT(time(nullptr), 0);
    int timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK);
    struct itimerspec its = {{0, 0}, {1, 0}}, old;
    EXPECT_EQ(0, timerfd_settime(timer, 0, &its, &old));
    EXPECT_EQ(0, timerfd_gettime(timer, &old));
    close(timer);

#if __TIMESIZE == 32
    {
        struct sim_timespec64 ts = {}, tiny64 = {0, 1000, 0};
        struct sim_timeval64 tv64 = {};
        EXPECT_EQ(0, __clock_gettime64(CLOCK_MONOTONIC, &ts));
        EXPECT_EQ(0, __gettimeofday64(&tv64, nullptr));
        EXPECT_GT(__time64(nullptr), 0);
        EXPECT_EQ(0, __nanosleep64(&tiny64, nullptr));
        EXPECT_EQ(0, __clock_nanosleep_time64(CLOCK_MONOTONIC, 0, &tiny64, nullptr));
        struct sim_timespec64 zero64 = {};
        struct sim_timeval64 tv0 = {};
        EXPECT_EQ(0, __select64(0, nullptr, nullptr, nullptr, &tv0));
        EXPECT_EQ(0, __pselect64(0, nullptr, nullptr, nullptr, &zero64, nullptr));
        EXPECT_EQ(0, __ppoll64(nullptr, 0, &zero64, nullptr));
        int t64 = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK);
        struct sim_itimerspec64 its64 = {{}, {1, 0, 0}}, old64;
        EXPECT_EQ(0, __timerfd_settime64(t64, 0, &its64, &old64));
        EXPECT_EQ(0, __timerfd_gettime64(t64, &old64));
        close(t64);

        struct sim_stat_time64 st_t64;
        int f64 = open(file.c_str(), O_RDONLY);
        EXPECT_GE(__fcntl_time64(f64, F_GETFL), 0);
        EXPECT_EQ(0, __ioctl_time64(f64, FIONREAD, &n));
        EXPECT_EQ(0, __fstat64_time64(f64, &st_t64));
        EXPECT_EQ(10, st_t64.st_size);
        close(f64);
        EXPECT_EQ(0, __stat64_time64(file.c_str(), &st_t64));
        EXPECT_EQ(0, __lstat64_time64(file.c_str(), &st_t64));
        EXPECT_EQ(0, __fstatat64_time64(AT_FDCWD, file.c_str(), &st_t64, 0));
    }
#endif

    struct timespec tiny = {0, 1000};
    EXPECT_EQ(0, usleep(1));
    EXPECT_EQ(0, nanosleep(&tiny, nullptr));
    EXPECT_EQ(0, clock_nanosleep(CLOCK_MONOTONIC, 0, &tiny, nullptr));
    EXPECT_EQ(0u, sleep(0));

    EXPECT_EQ(0, access(file.c_str(), R_OK));
    EXPECT_EQ(0, faccessat(AT_FDCWD, file.c_str(), R_OK, 0));
    EXPECT_EQ(0, stat(file.c_str(), &st));
    EXPECT_EQ(0, stat64(file.c_str(), &st64));
    EXPECT_EQ(0, lstat(file.c_str(), &st));
    EXPECT_EQ(0, lstat64(file.c_str(), &st64));
    EXPECT_EQ(0, fstatat(AT_FDCWD, file.c_str(), &st, 0));
    EXPECT_EQ(0, fstatat64(AT_FDCWD, file.c_str(), &st64, 0));

    EXPECT_EQ(0, mkdir(sub.c_str(), 0755));
    EXPECT_EQ(0, rmdir(sub.c_str()));
    EXPECT_EQ(0, symlink(file.c_str(), link.c_str()));
    EXPECT_EQ(4, readlink(link.c_str(), buf, len));   /* __readlink_chk */
    ssize_t (*volatile plain_readlink)(const char*, char*, size_t) = readlink;
    EXPECT_EQ(2, plain_readlink(link.c_str(), buf, 2));
    EXPECT_EQ(0, unlink(link.c_str()));
    EXPECT_EQ(0, rename(file.c_str(), other.c_str()));
    std::string t1 = dir.file("tmpXXXXXX"), t2 = dir.file("tmpXXXXXX");
    close(mkstemp(t1.data()));
    close(mkstemp64(t2.data()));
    std::string t3 = dir.file("tmpXXXXXX"), t4 = dir.file("tmpXXXXXX");
    int tfd = mkostemp(t3.data(), O_CLOEXEC);
    EXPECT_EQ(0, fsync(tfd));
    EXPECT_EQ(0, fdatasync(tfd));
    close(tfd);
    close(mkostemp64(t4.data(), O_CLOEXEC));
    EXPECT_EQ(0, system("hwclock -w")); /* simulated, never run */
    int sock = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in any = {};
    any.sin_family = AF_INET;
    EXPECT_EQ(0, bind(sock, reinterpret_cast<struct sockaddr*>(&any), sizeof any));
    close(sock);

    for (int i = 0; i < SIM_WRAP_COUNT; i++)
        EXPECT_GT(sim_call_count(i), 0u) << sim_wrapped_names[i] << " was not intercepted";
}

} // namespace

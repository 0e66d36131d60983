/* What the wrapped libc calls do when they reach the board. Anything that is
 * not the board's returns 0 at once so that the real function runs. */
#include "syscalls.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <sys/mman.h>
#include <sys/sysmacros.h>

#include "board.h"
#include "guard.h"

extern "C" void __chk_fail(void) __attribute__((noreturn));

namespace sim {
bool maybe_board_path(const char* path);
}

using namespace sim;

namespace {

/* Mappings handed out by devices, to route munmap. */
std::map<uintptr_t, std::pair<size_t, Node*>> g_maps;

template <class T> int fail(T* r, ErrnoKeeper& e, int err)
{
    *r = static_cast<T>(-1);
    e.fail(err);
    return 1;
}

/* Runs a real call on behalf of the board and keeps the errno it sets. */
template <class T> int real_result(T* r, ErrnoKeeper& e, T value)
{
    *r = value;
    e.keep_current();
    return 1;
}

template <class St> void fill_stat(St* st, const std::string& path, mode_t mode, int64_t size)
{
    memset(st, 0, sizeof *st);
    st->st_mode = mode;
    st->st_nlink = 1;
    st->st_size = size;
    st->st_blksize = 4096;
    st->st_ino = std::hash<std::string>{}(path) & 0x7fffffff;
    st->st_dev = makedev(0, 0x5e);
    if (S_ISCHR(mode))
        st->st_rdev = makedev(89, st->st_ino & 0xff);
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    st->st_atim = st->st_mtim = st->st_ctim = now;
}

void fill_any_stat(void* st, int is64, const std::string& path, mode_t mode, int64_t size)
{
    if (is64)
        fill_stat(static_cast<struct stat64*>(st), path, mode, size);
    else
        fill_stat(static_cast<struct stat*>(st), path, mode, size);
}

/* Where a path goes: a node, a sandbox file, a board directory, or nothing. */
struct Resolved {
    enum Kind { NotOurs, Absent, NodeFile, Directory, Sandbox } kind = NotOurs;
    Node* node = nullptr;
    std::string path;    /* normalised board path */
    std::string sandbox; /* backing file for Sandbox */
};

Resolved resolve(int dirfd, const char* path)
{
    Resolved r;
    if (path == nullptr || (path[0] != '/' && dirfd != AT_FDCWD) || !maybe_board_path(path))
        return r;
    Board& b = Board::get();
    r.path = normalize_path(path);
    if (b.absent(r.path)) {
        r.kind = Resolved::Absent;
    } else if ((r.node = b.find_node(r.path)) != nullptr) {
        r.kind = Resolved::NodeFile;
    } else if (b.redirected(r.path)) {
        r.kind = Resolved::Sandbox;
        r.sandbox = b.fs_path(r.path);
    } else if (b.is_dir(r.path)) {
        r.kind = Resolved::Directory;
        r.sandbox = b.fs_path(r.path);
    } else if (b.owned(r.path)) {
        r.kind = Resolved::Absent;
    }
    return r;
}

/* The common start of a call on a descriptor: re-entry guard, errno keeper,
 * the board's lock and the open file; ours() is false for anything that is
 * not a board descriptor. */
struct FdCall {
    Guard guard;
    ErrnoKeeper err;
    Board* board = nullptr;
    std::unique_lock<std::recursive_mutex> lock;
    std::shared_ptr<OpenFile> of;

    explicit FdCall(int fd)
    {
        if (guard.nested() || !Board::is_board_fd(fd))
            return;
        board = &Board::get();
        lock = std::unique_lock<std::recursive_mutex>(board->mutex());
        of = board->file(fd);
        if (of != nullptr)
            board->advance();
    }
    bool ours() const { return of != nullptr; }

    /* An injected fault of op: its errno, or 0 (a "short" fault takes one
     * byte off *n; without n it is an I/O error). */
    int fault(const char* op, size_t* n = nullptr)
    {
        FaultHit f = board->take_fault(of->node->path(), op);
        if (!f.hit)
            return 0;
        if (!f.is_short)
            return f.err;
        if (n == nullptr)
            return EIO;
        if (*n > 0)
            (*n)--;
        return 0;
    }
};

/* Opens a node: access check, injected fault, the device's own open. */
int open_node(Board& b, Node* node, int flags, int min_fd = 0)
{
    int acc = flags & O_ACCMODE;
    if ((flags & O_CREAT) && (flags & O_EXCL))
        return -EEXIST;
    if (flags & O_DIRECTORY)
        return -ENOTDIR;
    if (((acc == O_WRONLY || acc == O_RDWR) && !node->writable()) ||
        ((acc == O_RDONLY || acc == O_RDWR) && !node->readable()))
        return -EACCES;
    FaultHit f = b.take_fault(node->path(), "open");
    if (f.hit)
        return -(f.err ? f.err : EIO);
    auto of = std::make_shared<OpenFile>();
    of->node = node;
    of->flags = flags;
    int err = node->open(*of);
    if (err < 0)
        return err;
    return b.install(of, min_fd, (flags & O_CLOEXEC) != 0);
}

void release_if_last(std::shared_ptr<OpenFile> of)
{
    /* The open file lives on while another descriptor refers to it. */
    if (of != nullptr && of.use_count() == 1)
        of->node->release(*of);
}

/* The common start of a call on a path: re-entry guard, errno keeper, and
 * where the path goes (not ours when nested). */
struct PathCall {
    Guard guard;
    ErrnoKeeper err;
    Resolved res;

    PathCall(int dirfd, const char* path)
    {
        if (!guard.nested())
            res = resolve(dirfd, path);
    }
    bool ours() const { return res.kind != Resolved::NotOurs; }
    /* For calls that only make sense on the sandbox's files: 0 for one of
     * those, else the error (absent: ENOENT, a device: EPERM). */
    int sandbox_only() const
    {
        return res.kind == Resolved::Sandbox ? 0 : res.kind == Resolved::Absent ? ENOENT : EPERM;
    }
};

/* fopen() of a device: a stdio stream over the board descriptor. */
ssize_t cookie_read(void* c, char* buf, size_t n)
{
    return read(static_cast<int>(reinterpret_cast<intptr_t>(c)), buf, n);
}

ssize_t cookie_write(void* c, const char* buf, size_t n)
{
    return write(static_cast<int>(reinterpret_cast<intptr_t>(c)), buf, n);
}

int cookie_seek(void* c, off64_t* pos, int whence)
{
    off64_t r = lseek64(static_cast<int>(reinterpret_cast<intptr_t>(c)), *pos, whence);
    if (r < 0)
        return -1;
    *pos = r;
    return 0;
}

int cookie_close(void* c)
{
    return close(static_cast<int>(reinterpret_cast<intptr_t>(c)));
}

int fopen_flags(const char* mode)
{
    int flags = 0;
    switch (mode[0]) {
    case 'r': flags = O_RDONLY; break;
    case 'w': flags = O_WRONLY | O_CREAT | O_TRUNC; break;
    case 'a': flags = O_WRONLY | O_CREAT | O_APPEND; break;
    default: return -1;
    }
    if (strchr(mode, '+') != nullptr)
        flags = (flags & ~O_ACCMODE) | O_RDWR;
    if (strchr(mode, 'e') != nullptr)
        flags |= O_CLOEXEC;
    return flags;
}

/* Converts between select()'s sets and poll entries, as the kernel does. */
constexpr short kSelectIn = POLLIN | POLLRDNORM | POLLHUP | POLLERR;
constexpr short kSelectOut = POLLOUT | POLLWRNORM | POLLERR;
constexpr short kSelectEx = POLLPRI;

ns_t timespec_ns(const struct timespec* ts)
{
    return int64_t{ts->tv_sec} * kSec + ts->tv_nsec;
}

struct timespec ns_timespec(ns_t ns)
{
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / kSec);
    ts.tv_nsec = static_cast<long>(ns % kSec);
    return ts;
}

/* Sleeps serve the control socket and let the models run. */
/* A sleep on the running board: it serves the control socket and lets the
 * models run. False when the board is not running or the call is the sim's
 * own (the real function then sleeps); else 0 or -errno in *res. */
bool board_sleep(ns_t duration, ns_t* left, int* res)
{
    Guard g;
    if (g.nested() || !Board::active())
        return false;
    *res = Board::get().sleep_for(duration, left);
    return true;
}

} // namespace

extern "C" {

int sim_openat(int* r, int dirfd, const char* path, int flags, unsigned mode)
{
    PathCall c(dirfd, path);
    const Resolved& res = c.res;
    switch (res.kind) {
    case Resolved::NotOurs:
        return 0;
    case Resolved::Absent:
        return fail(r, c.err, (flags & O_CREAT) ? EACCES : ENOENT);
    case Resolved::NodeFile: {
        Board& b = Board::get();
        std::lock_guard<std::recursive_mutex> lock(b.mutex());
        int fd = open_node(b, res.node, flags);
        return fd < 0 ? fail(r, c.err, -fd) : (*r = fd, 1);
    }
    case Resolved::Directory: {
        if ((flags & O_ACCMODE) != O_RDONLY)
            return fail(r, c.err, EISDIR);
        std::error_code ec;
        std::filesystem::create_directories(res.sandbox, ec);
        return real_result(r, c.err, SIM_REAL(openat)(AT_FDCWD, res.sandbox.c_str(), flags, mode));
    }
    case Resolved::Sandbox:
        return real_result(r, c.err, SIM_REAL(openat)(AT_FDCWD, res.sandbox.c_str(), flags, mode));
    }
    return 0;
}

int sim_fopen(FILE** r, const char* path, const char* mode)
{
    PathCall c(AT_FDCWD, path);
    const Resolved& res = c.res;
    switch (res.kind) {
    case Resolved::NotOurs:
        return 0;
    case Resolved::Absent:
    case Resolved::Directory:
        *r = nullptr;
        c.err.fail(res.kind == Resolved::Absent ? ENOENT : EISDIR);
        return 1;
    case Resolved::Sandbox:
        *r = SIM_REAL(fopen)(res.sandbox.c_str(), mode);
        c.err.keep_current();
        return 1;
    case Resolved::NodeFile: {
        Board& b = Board::get();
        std::lock_guard<std::recursive_mutex> lock(b.mutex());
        int flags = fopen_flags(mode);
        int fd = flags < 0 ? -EINVAL : open_node(b, res.node, flags & ~(O_CREAT | O_TRUNC));
        if (fd < 0) {
            *r = nullptr;
            c.err.fail(-fd);
            return 1;
        }
        cookie_io_functions_t io = {cookie_read, cookie_write, cookie_seek, cookie_close};
        *r = fopencookie(reinterpret_cast<void*>(static_cast<intptr_t>(fd)), mode, io);
        return 1;
    }
    }
    return 0;
}

int sim_opendir(DIR** r, const char* path)
{
    PathCall c(AT_FDCWD, path);
    const Resolved& res = c.res;
    if (!c.ours())
        return 0;
    if (res.kind == Resolved::Absent || res.kind == Resolved::NodeFile) {
        *r = nullptr;
        c.err.fail(res.kind == Resolved::Absent ? ENOENT : ENOTDIR);
        return 1;
    }
    if (res.kind == Resolved::Directory) {
        std::error_code ec;
        std::filesystem::create_directories(res.sandbox, ec);
    }
    *r = SIM_REAL(opendir)(res.sandbox.c_str());
    c.err.keep_current();
    return 1;
}

int sim_close(int* r, int fd)
{
    Guard g;
    if (g.nested() || !Board::is_board_fd(fd))
        return 0;
    ErrnoKeeper e;
    Board& b = Board::get();
    std::lock_guard<std::recursive_mutex> lock(b.mutex());
    b.advance(); /* the models see what the program did through the device last */
    release_if_last(b.forget(fd));
    return real_result(r, e, SIM_REAL(close)(fd));
}

int sim_dup3(int* r, int fd, int newfd, int flags, int kind)
{
    Guard g;
    if (g.nested() || (!Board::is_board_fd(fd) && !Board::is_board_fd(newfd)))
        return 0;
    ErrnoKeeper e;
    Board& b = Board::get();
    std::lock_guard<std::recursive_mutex> lock(b.mutex());
    std::shared_ptr<OpenFile> of = b.file(fd);
    int nfd;
    if (kind == 0)
        nfd = SIM_REAL(dup)(fd);
    else if (kind == 2)
        nfd = SIM_REAL(dup2)(fd, newfd);
    else
        nfd = SIM_REAL(dup3)(fd, newfd, flags);
    if (nfd < 0 || nfd == fd)
        return real_result(r, e, nfd);
    /* The descriptor replaced by dup2/dup3 was closed implicitly. */
    release_if_last(b.forget(nfd));
    if (of != nullptr)
        b.bind(nfd, of);
    *r = nfd;
    return 1;
}

int sim_fcntl(int* r, int fd, int cmd, void* arg)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    std::shared_ptr<OpenFile>& of = c.of;
    int value = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    switch (cmd) {
    case F_DUPFD:
    case F_DUPFD_CLOEXEC: {
        int nfd = SIM_REAL(fcntl)(fd, cmd, arg);
        if (nfd >= 0)
            c.board->bind(nfd, of);
        return real_result(r, c.err, nfd);
    }
    case F_GETFL:
        *r = of->flags;
        return 1;
    case F_SETFL: {
        const int changeable = O_APPEND | O_NONBLOCK | O_ASYNC | O_DIRECT | O_NOATIME;
        of->flags = (of->flags & ~changeable) | (value & changeable);
        *r = 0;
        return 1;
    }
    default:
        return 0;
    }
}

int sim_read(ssize_t* r, int fd, void* buf, size_t n, size_t buflen)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    if (n > buflen)
        __chk_fail();
    if ((c.of->flags & O_ACCMODE) == O_WRONLY)
        return fail(r, c.err, EBADF);
    if (int err = c.fault("read", &n))
        return fail(r, c.err, err);
    for (;;) {
        int64_t got = c.of->node->read(*c.of, buf, n);
        if (got != -EAGAIN || (c.of->flags & O_NONBLOCK))
            return got < 0 ? fail(r, c.err, static_cast<int>(-got)) : (*r = got, 1);
        /* A blocking device: wait until it has something. */
        struct pollfd p = {fd, POLLIN, 0};
        c.lock.unlock();
        int w = c.board->wait(&p, 1, -1, nullptr);
        c.lock.lock();
        if (w < 0)
            return fail(r, c.err, -w);
    }
}

int sim_write(ssize_t* r, int fd, const void* buf, size_t n)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    if ((c.of->flags & O_ACCMODE) == O_RDONLY)
        return fail(r, c.err, EBADF);
    if (int err = c.fault("write", &n))
        return fail(r, c.err, err);
    int64_t done = c.of->node->write(*c.of, buf, n);
    return done < 0 ? fail(r, c.err, static_cast<int>(-done)) : (*r = done, 1);
}

static int seek_common(int64_t* r, int fd, int64_t off, int whence)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    if (int err = c.fault("seek"))
        return fail(r, c.err, err);
    int64_t pos = c.of->node->seek(*c.of, off, whence);
    return pos < 0 ? fail(r, c.err, static_cast<int>(-pos)) : (*r = pos, 1);
}

int sim_lseek(off_t* r, int fd, off_t off, int whence)
{
    int64_t pos = 0;
    if (!seek_common(&pos, fd, off, whence))
        return 0;
    *r = static_cast<off_t>(pos);
    return 1;
}

int sim_lseek64(off64_t* r, int fd, off64_t off, int whence)
{
    int64_t pos = 0;
    if (!seek_common(&pos, fd, off, whence))
        return 0;
    *r = pos;
    return 1;
}

int sim_ioctl(int* r, int fd, unsigned long request, void* arg)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    if (int err = c.fault("ioctl"))
        return fail(r, c.err, err);
    int res = c.of->node->ioctl(*c.of, request, arg);
    return res < 0 ? fail(r, c.err, -res) : (*r = res, 1);
}

int sim_mmap(void** r, void* addr, size_t len, int prot, int flags, int fd, off64_t off)
{
    if (flags & MAP_ANONYMOUS)
        return 0;
    FdCall c(fd);
    if (!c.ours())
        return 0;
    int err = 0;
    void* p = c.of->node->mmap(*c.of, addr, len, prot, flags, off, &err);
    if (p == MAP_FAILED) {
        *r = MAP_FAILED;
        c.err.fail(err);
        return 1;
    }
    g_maps[reinterpret_cast<uintptr_t>(p)] = {len, c.of->node};
    *r = p;
    return 1;
}

int sim_munmap(int* r, void* addr, size_t len)
{
    Guard g;
    if (g.nested() || !Board::active())
        return 0;
    ErrnoKeeper e;
    Board& b = Board::get();
    std::lock_guard<std::recursive_mutex> lock(b.mutex());
    auto it = g_maps.find(reinterpret_cast<uintptr_t>(addr));
    if (it == g_maps.end())
        return 0;
    Node* node = it->second.second;
    g_maps.erase(it);
    int res = node->munmap(addr, len);
    return res < 0 ? fail(r, e, -res) : (*r = 0, 1);
}

int sim_poll(int* r, struct pollfd* fds, nfds_t n, int timeout_ms, const struct timespec* ts,
             const sigset_t* mask)
{
    Guard g;
    if (g.nested() || !Board::active())
        return 0;
    ErrnoKeeper e;
    ns_t timeout = ts != nullptr ? timespec_ns(ts) : timeout_ms < 0 ? -1 : timeout_ms * kMs;
    if (ts == nullptr && timeout_ms == -1 && mask != nullptr)
        timeout = -1; /* ppoll with a null time-out waits for ever */
    int res = Board::get().wait(fds, n, timeout, mask);
    return res < 0 ? fail(r, e, -res) : (*r = res, 1);
}

int sim_select(int* r, int n, fd_set* rd, fd_set* wr, fd_set* ex, struct timeval* tv,
               const struct timespec* ts, const sigset_t* mask)
{
    Guard g;
    if (g.nested() || !Board::active())
        return 0;
    ErrnoKeeper e;
    if (n < 0 || n > FD_SETSIZE)
        return fail(r, e, EINVAL);
    std::vector<struct pollfd> fds;
    for (int fd = 0; fd < n; fd++) {
        short ev = 0;
        if (rd != nullptr && FD_ISSET(fd, rd))
            ev |= POLLIN;
        if (wr != nullptr && FD_ISSET(fd, wr))
            ev |= POLLOUT;
        if (ex != nullptr && FD_ISSET(fd, ex))
            ev |= POLLPRI;
        if (ev != 0)
            fds.push_back({fd, ev, 0});
    }
    ns_t timeout = -1;
    if (tv != nullptr)
        timeout = int64_t{tv->tv_sec} * kSec + int64_t{tv->tv_usec} * 1000;
    else if (ts != nullptr)
        timeout = timespec_ns(ts);
    ns_t start = now_ns();
    int res = Board::get().wait(fds.data(), fds.size(), timeout, mask);
    if (tv != nullptr) {
        /* Linux leaves the time not slept in the caller's timeval. */
        ns_t left = std::max<ns_t>(0, timeout - (now_ns() - start));
        tv->tv_sec = static_cast<time_t>(left / kSec);
        tv->tv_usec = static_cast<suseconds_t>((left % kSec) / 1000);
    }
    if (res < 0)
        return fail(r, e, -res);
    for (const struct pollfd& p : fds) {
        if (p.revents & POLLNVAL)
            return fail(r, e, EBADF);
    }
    int count = 0;
    if (rd != nullptr)
        FD_ZERO(rd);
    if (wr != nullptr)
        FD_ZERO(wr);
    if (ex != nullptr)
        FD_ZERO(ex);
    for (const struct pollfd& p : fds) {
        if ((p.events & POLLIN) && (p.revents & kSelectIn)) {
            FD_SET(p.fd, rd);
            count++;
        }
        if ((p.events & POLLOUT) && (p.revents & kSelectOut)) {
            FD_SET(p.fd, wr);
            count++;
        }
        if ((p.events & POLLPRI) && (p.revents & kSelectEx)) {
            FD_SET(p.fd, ex);
            count++;
        }
    }
    *r = count;
    return 1;
}

int sim_usleep(int* r, useconds_t us)
{
    ErrnoKeeper e;
    int res;
    if (!board_sleep(int64_t{us} * 1000, nullptr, &res))
        return 0;
    return res < 0 ? fail(r, e, -res) : (*r = 0, 1);
}

int sim_nanosleep(int* r, const struct timespec* req, struct timespec* rem)
{
    if (req == nullptr || req->tv_nsec < 0 || req->tv_nsec >= kSec)
        return 0; /* the real call reports it */
    ErrnoKeeper e;
    ns_t left = 0;
    int res;
    if (!board_sleep(timespec_ns(req), &left, &res))
        return 0;
    if (res < 0 && rem != nullptr)
        *rem = ns_timespec(left);
    return res < 0 ? fail(r, e, -res) : (*r = 0, 1);
}

int sim_clock_nanosleep(int* r, clockid_t clock, int flags, const struct timespec* req, struct timespec* rem)
{
    if (clock != CLOCK_MONOTONIC || (flags & TIMER_ABSTIME) || req == nullptr)
        return 0;
    ns_t left = 0;
    int res;
    if (!board_sleep(timespec_ns(req), &left, &res))
        return 0;
    if (res < 0 && rem != nullptr)
        *rem = ns_timespec(left);
    *r = res < 0 ? -res : 0; /* clock_nanosleep returns the error number */
    return 1;
}

int sim_sleep(unsigned* r, unsigned seconds)
{
    ErrnoKeeper e;
    ns_t left = 0;
    int res;
    if (!board_sleep(int64_t{seconds} * kSec, &left, &res))
        return 0;
    *r = static_cast<unsigned>((left + kSec - 1) / kSec);
    return 1;
}

int sim_faccessat(int* r, int dirfd, const char* path, int mode, int flags)
{
    PathCall c(dirfd, path);
    const Resolved& res = c.res;
    switch (res.kind) {
    case Resolved::NotOurs:
        return 0;
    case Resolved::Absent:
        return fail(r, c.err, ENOENT);
    case Resolved::Directory:
        *r = 0;
        return 1;
    case Resolved::NodeFile:
        if (((mode & W_OK) && !res.node->writable()) || ((mode & R_OK) && !res.node->readable()) || (mode & X_OK))
            return fail(r, c.err, EACCES);
        *r = 0;
        return 1;
    case Resolved::Sandbox:
        return real_result(r, c.err, SIM_REAL(faccessat)(AT_FDCWD, res.sandbox.c_str(), mode, flags));
    }
    return 0;
}

int sim_fstatat(int* r, int dirfd, const char* path, void* st, int flags, int is64)
{
    PathCall c(dirfd, path);
    const Resolved& res = c.res;
    switch (res.kind) {
    case Resolved::NotOurs:
        return 0;
    case Resolved::Absent:
        return fail(r, c.err, ENOENT);
    case Resolved::Directory:
    case Resolved::NodeFile:
        if (res.node != nullptr)
            fill_any_stat(st, is64, res.path, res.node->mode(), res.node->size());
        else
            fill_any_stat(st, is64, res.path, S_IFDIR | 0755, 0);
        *r = 0;
        return 1;
    case Resolved::Sandbox:
        if (is64)
            return real_result(r, c.err, SIM_REAL(fstatat64)(AT_FDCWD, res.sandbox.c_str(), static_cast<struct stat64*>(st), flags));
        return real_result(r, c.err, SIM_REAL(fstatat)(AT_FDCWD, res.sandbox.c_str(), static_cast<struct stat*>(st), flags));
    }
    return 0;
}

int sim_fstat(int* r, int fd, void* st, int is64)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    fill_any_stat(st, is64, c.of->node->path(), c.of->node->mode(), c.of->node->size());
    *r = 0;
    return 1;
}

/* Path calls that only make sense for the sandbox's files. */
int sim_unlink(int* r, const char* path, int flags)
{
    PathCall c(AT_FDCWD, path);
    if (!c.ours())
        return 0;
    if (int err = c.sandbox_only())
        return fail(r, c.err, err);
    const char* sb = c.res.sandbox.c_str();
    return real_result(r, c.err, flags ? SIM_REAL(rmdir)(sb) : SIM_REAL(unlink)(sb));
}

int sim_mkdir(int* r, const char* path, mode_t mode)
{
    PathCall c(AT_FDCWD, path);
    if (!c.ours())
        return 0;
    if (int err = c.sandbox_only())
        return fail(r, c.err, err);
    return real_result(r, c.err, SIM_REAL(mkdir)(c.res.sandbox.c_str(), mode));
}

int sim_symlink(int* r, const char* target, const char* path)
{
    PathCall c(AT_FDCWD, path);
    if (!c.ours())
        return 0;
    if (int err = c.sandbox_only())
        return fail(r, c.err, err);
    Board::get().journal(c.res.path, "symlink", target);
    return real_result(r, c.err, SIM_REAL(symlink)(target, c.res.sandbox.c_str()));
}

int sim_readlink(ssize_t* r, const char* path, char* buf, size_t n)
{
    PathCall c(AT_FDCWD, path);
    if (!c.ours())
        return 0;
    if (int err = c.sandbox_only())
        return fail(r, c.err, err);
    return real_result(r, c.err, SIM_REAL(readlink)(c.res.sandbox.c_str(), buf, n));
}

int sim_rename(int* r, const char* from, const char* to)
{
    Guard g;
    if (g.nested())
        return 0;
    ErrnoKeeper e;
    Resolved a = resolve(AT_FDCWD, from);
    Resolved b = resolve(AT_FDCWD, to);
    if (a.kind == Resolved::NotOurs && b.kind == Resolved::NotOurs)
        return 0;
    if (a.kind != Resolved::Sandbox || b.kind != Resolved::Sandbox)
        return fail(r, e, a.kind == Resolved::NotOurs || b.kind == Resolved::NotOurs ? EXDEV : EPERM);
    return real_result(r, e, SIM_REAL(rename)(a.sandbox.c_str(), b.sandbox.c_str()));
}

int sim_mkstemp(int* r, char* tmpl)
{
    PathCall c(AT_FDCWD, tmpl);
    if (!c.ours())
        return 0;
    if (int err = c.sandbox_only())
        return fail(r, c.err, err);
    /* Make the file in the sandbox, then hand the chosen name back in the
     * caller's template so that its later rename() finds it. */
    const std::string& sb = c.res.sandbox;
    size_t len = strlen(tmpl);
    if (len < 6 || sb.size() < 6 || strcmp(tmpl + len - 6, "XXXXXX") != 0)
        return fail(r, c.err, EINVAL);
    std::vector<char> buf(sb.begin(), sb.end());
    buf.push_back('\0');
    int fd = SIM_REAL(mkstemp)(buf.data());
    if (fd >= 0)
        memcpy(tmpl + len - 6, buf.data() + sb.size() - 6, 6);
    return real_result(r, c.err, fd);
}

int sim_system(int* r, const char* command)
{
    Guard g;
    if (g.nested())
        return 0;
    ErrnoKeeper e;
    if (command == nullptr) {
        *r = 1; /* a shell is "available" */
        return 1;
    }
    /* Never run the board's commands on the host. */
    Board& b = Board::get();
    std::string cmd = command;
    int status = b.command_status(cmd);
    b.journal("system", "\"" + quote_text(cmd) + "\"", std::to_string(status));
    bool halt = cmd.compare(0, 7, "halt -p") == 0 || cmd.find("shutdown") != std::string::npos;
    if (halt && b.exit_on_halt()) {
        fflush(nullptr);
        _exit(0);
    }
    *r = status << 8; /* as waitpid() reports an exit status */
    return 1;
}

} // extern "C"

/* Under the launcher the board starts with the process, so that its control
 * socket is there before the program touches any device. */
__attribute__((constructor)) static void start_launched_board()
{
    const char* dir = getenv("VELASIM_DIR");
    if (dir != nullptr && *dir != '\0')
        Board::get();
}

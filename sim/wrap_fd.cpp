/* Wrapped calls on descriptors: what they do when the descriptor is the
 * board's. Anything else returns 0 at once so that the real function runs. */
#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <sys/mman.h>
#include <sys/sysmacros.h>
#include <vector>

#include "wrap_common.h"

extern "C" void __chk_fail(void) __attribute__((noreturn));

using namespace sim;

namespace sim {

int open_node(Board& b, Node* node, int flags)
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
    b.acted_on(*node);
    int err = node->open(*of);
    if (err < 0)
        return err;
    return b.install(of, 0, (flags & O_CLOEXEC) != 0);
}

void release_if_last(std::shared_ptr<OpenFile> of)
{
    /* The open file lives on while another descriptor refers to it. */
    if (of != nullptr && of.use_count() == 1)
        of->node->release(*of);
}

} // namespace sim

namespace {

/* A read as the device answers it; a blocking descriptor waits until the
 * device has something. */
int64_t read_node(FdCall& c, int fd, void* buf, size_t n)
{
    if ((c.of->flags & O_ACCMODE) == O_WRONLY)
        return -EBADF;
    if (int err = c.fault("read", &n))
        return -err;
    for (;;) {
        int64_t got = c.of->node->read(*c.of, buf, n);
        if (got != -EAGAIN || (c.of->flags & O_NONBLOCK))
            return got;
        struct pollfd p = {fd, POLLIN, 0};
        c.lock.unlock();
        int w = c.board->wait(&p, 1, -1, nullptr);
        c.lock.lock();
        if (w < 0)
            return w;
    }
}

int64_t write_node(FdCall& c, const void* buf, size_t n)
{
    if ((c.of->flags & O_ACCMODE) == O_RDONLY)
        return -EBADF;
    c.board->touch();
    const std::string& path = c.of->node->path();
    FaultHit f = c.board->take_fault(path, "write");
    if (f.cut) {
        /* the device took the first bytes when the power went */
        size_t keep = std::min(f.keep, n);
        int64_t at = c.of->pos;
        if (keep > 0)
            c.of->node->write(*c.of, buf, keep);
        /* what the program meant to write, for a test to tell old from new */
        c.board->power_cut(path, "write",
                           "@" + std::to_string(at) + " " + std::to_string(keep) + "/" + std::to_string(n) + " " +
                               hex_bytes(buf, n));
        return -EIO;
    }
    if (f.hit && !f.is_short)
        return -f.err;
    if (f.hit && n > 0)
        n--;
    return c.of->node->write(*c.of, buf, n);
}

/* A fault on a redirected file (or folder) behind a plain descriptor, as
 * when the program saves a file under /var/opt: 1 with the result in *r
 * when one struck, else 0 and the real call runs. io(n) is the real
 * transfer of n bytes, null for a call without data (fsync). Descriptors
 * are only looked up while such a fault is armed. */
int sandbox_fault(ssize_t* r, FdCall& c, int fd, const char* op, const std::function<ssize_t(size_t)>& io, size_t n)
{
    if (c.guard.nested() || !Board::sandbox_faults_armed())
        return 0;
    Board* b = Board::instance();
    if (b == nullptr)
        return 0;
    std::string path = b->sandbox_path_of(fd);
    if (path.empty())
        return 0;
    FaultHit f = b->take_fault(path, op);
    if (!f.hit)
        return 0;
    if (f.cut) {
        if (io && f.keep > 0 && strcmp(op, "write") == 0)
            io(std::min(f.keep, n));
        b->power_cut(path, op);
        return fail(r, c.err, EIO);
    }
    if (f.is_short && io)
        return real_result(r, c.err, io(n > 0 ? n - 1 : 0));
    return fail(r, c.err, f.is_short ? EIO : f.err);
}

/* pread and pwrite: at an offset, the file position left as it was. */
template <class Io> int64_t at_offset(FdCall& c, int64_t off, Io io)
{
    int64_t saved = c.of->pos;
    int64_t pos = c.of->node->seek(*c.of, off, SEEK_SET);
    if (pos < 0)
        return pos;
    int64_t res = io();
    c.of->pos = saved;
    return res;
}

size_t iov_total(const struct iovec* iov, int count)
{
    size_t total = 0;
    for (int i = 0; i < count; i++)
        total += iov[i].iov_len;
    return total;
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
    store_ts(&st->st_atim, sim::clock().realtime());
    st->st_mtim = st->st_ctim = st->st_atim;
}

int seek_common(int64_t* r, int fd, int64_t off, int whence);

} // namespace

namespace sim {

void fill_any_stat(void* st, int kind, const std::string& path, mode_t mode, int64_t size)
{
#if __TIMESIZE == 32
    if (kind == SIM_STAT_TIME64)
        return fill_stat(static_cast<struct sim_stat_time64*>(st), path, mode, size);
#endif
    if (kind == SIM_STAT64)
        fill_stat(static_cast<struct stat64*>(st), path, mode, size);
    else
        fill_stat(static_cast<struct stat*>(st), path, mode, size);
}

/* The board's side of closing fd: the models see what the program did
 * through the device last, and the entry goes. nullptr: fd is not the
 * board's. */
std::shared_ptr<OpenFile> forget_closed(Board& b, int fd)
{
    b.catch_up();
    std::shared_ptr<OpenFile> of = b.forget(fd);
    if (of != nullptr)
        b.acted_on(*of->node);
    return of;
}

} // namespace sim

extern "C" {

int sim_close(int* r, int fd)
{
    Guard g;
    if (g.nested() || !Board::is_board_fd(fd))
        return 0;
    ErrnoKeeper e;
    Board& b = Board::get();
    std::lock_guard<std::recursive_mutex> lock(b.mutex());
    std::shared_ptr<OpenFile> of = forget_closed(b, fd);
    if (of == nullptr)
        return 0; /* not the board's any more: a plain close */
    release_if_last(std::move(of));
    return real_result(r, e, SIM_REAL(close)(fd));
}

/* A stream made by fdopen() on a board descriptor closes it inside the C
 * library, where the board cannot see it: the entry goes with the stream. */
int sim_fclose(int* r, FILE* stream)
{
    Guard g;
    if (g.nested() || stream == nullptr || !Board::active())
        return 0;
    ErrnoKeeper e;
    int fd = fileno(stream); /* -1 for the board's own cookie streams */
    if (!Board::is_board_fd(fd))
        return 0;
    Board& b = Board::get();
    std::lock_guard<std::recursive_mutex> lock(b.mutex());
    std::shared_ptr<OpenFile> of = forget_closed(b, fd);
    *r = SIM_REAL(fclose)(stream);
    e.keep_current();
    release_if_last(std::move(of));
    return 1;
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
        /* The real descriptor follows, so that calls the board does not
         * wrap (on a pty, say) block or not as the program asked. */
        const int changeable = O_APPEND | O_NONBLOCK | O_ASYNC | O_DIRECT | O_NOATIME;
        of->flags = (of->flags & ~changeable) | (value & changeable);
        SIM_REAL(fcntl)(fd, F_SETFL, arg);
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
        return sandbox_fault(r, c, fd, "read", [&](size_t k) { return SIM_REAL(read)(fd, buf, k); }, n);
    if (n > buflen)
        __chk_fail();
    return board_result(r, c.err, read_node(c, fd, buf, n));
}

int sim_write(ssize_t* r, int fd, const void* buf, size_t n)
{
    FdCall c(fd);
    if (!c.ours())
        return sandbox_fault(r, c, fd, "write", [&](size_t k) { return SIM_REAL(write)(fd, buf, k); }, n);
    return board_result(r, c.err, write_node(c, buf, n));
}

int sim_pread(ssize_t* r, int fd, void* buf, size_t n, size_t buflen, off64_t off)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    if (n > buflen)
        __chk_fail();
    return board_result(r, c.err, at_offset(c, off, [&] { return read_node(c, fd, buf, n); }));
}

int sim_pwrite(ssize_t* r, int fd, const void* buf, size_t n, off64_t off)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    return board_result(r, c.err, at_offset(c, off, [&] { return write_node(c, buf, n); }));
}

/* Vectored I/O is one transfer, as a sysfs attribute or a device sees it. */
int sim_readv(ssize_t* r, int fd, const struct iovec* iov, int count)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    if (count < 0 || count > IOV_MAX)
        return fail(r, c.err, EINVAL);
    std::vector<char> buf(iov_total(iov, count));
    int64_t got = read_node(c, fd, buf.data(), buf.size());
    size_t at = 0;
    for (int i = 0; got > 0 && i < count && at < static_cast<size_t>(got); i++) {
        size_t part = std::min(iov[i].iov_len, static_cast<size_t>(got) - at);
        memcpy(iov[i].iov_base, buf.data() + at, part);
        at += part;
    }
    return board_result(r, c.err, got);
}

int sim_writev(ssize_t* r, int fd, const struct iovec* iov, int count)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    if (count < 0 || count > IOV_MAX)
        return fail(r, c.err, EINVAL);
    std::string buf;
    for (int i = 0; i < count; i++)
        buf.append(static_cast<const char*>(iov[i].iov_base), iov[i].iov_len);
    return board_result(r, c.err, write_node(c, buf.data(), buf.size()));
}

/* A device's placeholder syncs as the real call does; a redirected file
 * may have a fault armed. */
int sim_fsync(int* r, int fd)
{
    FdCall c(fd);
    if (c.ours())
        return 0;
    ssize_t res = 0;
    if (!sandbox_fault(&res, c, fd, "fsync", nullptr, 0))
        return 0;
    *r = static_cast<int>(res);
    return 1;
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
    if (int err = c.fault("ioctl", nullptr, request))
        return fail(r, c.err, err);
    return board_result(r, c.err, c.of->node->ioctl(*c.of, request, arg));
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
    c.board->add_mapping(p, c.of->node);
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
    Node* node = b.take_mapping(addr);
    if (node == nullptr)
        return 0;
    return board_result(r, e, node->munmap(addr, len));
}

int sim_fstat(int* r, int fd, void* st, int kind)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    fill_any_stat(st, kind, c.of->node->path(), c.of->node->mode(), c.of->node->size());
    *r = 0;
    return 1;
}

} // extern "C"

namespace {

int seek_common(int64_t* r, int fd, int64_t off, int whence)
{
    FdCall c(fd);
    if (!c.ours())
        return 0;
    if (int err = c.fault("seek"))
        return fail(r, c.err, err);
    return board_result(r, c.err, c.of->node->seek(*c.of, off, whence));
}

} // namespace

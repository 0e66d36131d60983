/* Wrapped calls on paths: the board's nodes, its directories and the
 * sandbox's redirected files. Anything else returns 0 at once so that the
 * real function runs. */
#include <cstring>
#include <filesystem>
#include <vector>

#include "wrap_common.h"

using namespace sim;

namespace sim {

Resolved resolve(int dirfd, const char* path)
{
    Resolved r;
    if (path == nullptr || (path[0] != '/' && dirfd != AT_FDCWD) || !maybe_board_path(path))
        return r;
    Board* board = Board::instance();
    if (board == nullptr)
        return r;
    Board& b = *board;
    r.path = normalize_path(path);
    if (b.absent(r.path)) {
        r.kind = Resolved::Absent;
    } else if ((r.node = b.find_node(r.path)) != nullptr) {
        r.kind = Resolved::NodeFile;
    } else if (b.redirected(r.path)) {
        r.kind = Resolved::Sandbox;
        r.sandbox = b.fs_path(r.path);
        r.medium = b.medium(r.path);
    } else if (b.is_dir(r.path)) {
        r.kind = Resolved::Directory;
        r.sandbox = b.fs_path(r.path);
    } else if (b.owned(r.path)) {
        r.kind = Resolved::Absent;
    }
    return r;
}

} // namespace sim

namespace {

/* A file opened for writing on a full medium: the name exists (a FAT
 * directory entry costs no cluster) but every write fails with ENOSPC, as
 * on the kernel's /dev/full, which takes the descriptor's place. */
void write_to_full_medium(const Resolved& res, int fd)
{
    if (res.medium != Board::Medium::Full)
        return;
    int full = SIM_REAL(openat)(AT_FDCWD, "/dev/full", O_WRONLY | O_CLOEXEC, 0);
    if (full < 0)
        return;
    int flags = fcntl(fd, F_GETFD);
    dup3(full, fd, (flags & FD_CLOEXEC) ? O_CLOEXEC : 0);
    close(full);
}

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

/* An armed fault on a redirected path: its errno, or 0. A power cut ends
 * the program here. */
int sandbox_fault(const std::string& path, const char* op)
{
    if (!Board::sandbox_faults_armed())
        return 0;
    Board& b = Board::get();
    FaultHit f = b.take_fault(path, op);
    if (!f.hit)
        return 0;
    if (f.cut)
        b.power_cut(path, op);
    return f.err != 0 ? f.err : EIO;
}

/* The host's stat of a sandbox file, into the record the caller passed. */
int real_fstatat(const char* path, void* st, int flags, int kind)
{
#if __TIMESIZE == 32
    if (kind == SIM_STAT_TIME64)
        return SIM_REAL(__fstatat64_time64)(AT_FDCWD, path, static_cast<struct sim_stat_time64*>(st), flags);
#endif
    if (kind == SIM_STAT64)
        return SIM_REAL(fstatat64)(AT_FDCWD, path, static_cast<struct stat64*>(st), flags);
    return SIM_REAL(fstatat)(AT_FDCWD, path, static_cast<struct stat*>(st), flags);
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
    case Resolved::Sandbox: {
        bool writes = (flags & O_ACCMODE) != O_RDONLY || (flags & O_TRUNC) != 0;
        if (writes && res.medium == Board::Medium::ReadOnly)
            return fail(r, c.err, EROFS);
        if (int err = sandbox_fault(res.path, "open"))
            return fail(r, c.err, err);
        int fd = SIM_REAL(openat)(AT_FDCWD, res.sandbox.c_str(), flags, mode);
        if (fd >= 0 && writes)
            write_to_full_medium(res, fd);
        return real_result(r, c.err, fd);
    }
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
    case Resolved::Sandbox: {
        bool writes = mode[0] != 'r' || strchr(mode, '+') != nullptr;
        if (writes && res.medium == Board::Medium::ReadOnly) {
            *r = nullptr;
            c.err.fail(EROFS);
            return 1;
        }
        *r = SIM_REAL(fopen)(res.sandbox.c_str(), mode);
        if (*r != nullptr && writes)
            write_to_full_medium(res, fileno(*r));
        c.err.keep_current();
        return 1;
    }
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

int sim_fstatat(int* r, int dirfd, const char* path, void* st, int flags, int kind)
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
            fill_any_stat(st, kind, res.path, res.node->mode(), res.node->size());
        else
            fill_any_stat(st, kind, res.path, S_IFDIR | 0755, 0);
        *r = 0;
        return 1;
    case Resolved::Sandbox:
        return real_result(r, c.err, real_fstatat(res.sandbox.c_str(), st, flags, kind));
    }
    return 0;
}

/* Path calls that only make sense for the sandbox's files. */
int sim_unlink(int* r, const char* path, int flags)
{
    PathCall c(AT_FDCWD, path);
    if (!c.ours())
        return 0;
    if (int err = c.sandbox_change(false))
        return fail(r, c.err, err);
    const char* sb = c.res.sandbox.c_str();
    return real_result(r, c.err, flags ? SIM_REAL(rmdir)(sb) : SIM_REAL(unlink)(sb));
}

int sim_mkdir(int* r, const char* path, mode_t mode)
{
    PathCall c(AT_FDCWD, path);
    if (!c.ours())
        return 0;
    if (int err = c.sandbox_change(true))
        return fail(r, c.err, err);
    return real_result(r, c.err, SIM_REAL(mkdir)(c.res.sandbox.c_str(), mode));
}

int sim_symlink(int* r, const char* target, const char* path)
{
    PathCall c(AT_FDCWD, path);
    if (!c.ours())
        return 0;
    if (int err = c.sandbox_change(true))
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
    if (int err = a.change_error(false))
        return fail(r, e, err);
    if (int err = b.change_error(false))
        return fail(r, e, err);
    if (int err = sandbox_fault(b.path, "rename"))
        return fail(r, e, err);
    return real_result(r, e, SIM_REAL(rename)(a.sandbox.c_str(), b.sandbox.c_str()));
}

int sim_mkstemp(int* r, char* tmpl, int flags)
{
    PathCall c(AT_FDCWD, tmpl);
    if (!c.ours())
        return 0;
    if (int err = c.sandbox_change(true))
        return fail(r, c.err, err);
    /* Make the file in the sandbox, then hand the chosen name back in the
     * caller's template so that its later rename() finds it. */
    const std::string& sb = c.res.sandbox;
    size_t len = strlen(tmpl);
    if (len < 6 || sb.size() < 6 || strcmp(tmpl + len - 6, "XXXXXX") != 0)
        return fail(r, c.err, EINVAL);
    if (int err = sandbox_fault(c.res.path, "open"))
        return fail(r, c.err, err);
    std::vector<char> buf(sb.begin(), sb.end());
    buf.push_back('\0');
    int fd = SIM_REAL(mkostemp)(buf.data(), flags);
    if (fd >= 0)
        memcpy(tmpl + len - 6, buf.data() + sb.size() - 6, 6);
    return real_result(r, c.err, fd);
}

} // extern "C"

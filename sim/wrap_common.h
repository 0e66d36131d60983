/* What every wrapper family shares: the start of a call on a descriptor or a
 * path, and how a result is handed back. */
#ifndef VELASIM_WRAP_COMMON_H
#define VELASIM_WRAP_COMMON_H

#include <fcntl.h>
#include <memory>
#include <mutex>
#include <string>

#include "board.h"
#include "guard.h"
#include "syscalls.h"

namespace sim {

bool maybe_board_path(const char* path); /* paths.cpp */

template <class T> int fail(T* r, ErrnoKeeper& e, int err)
{
    *r = static_cast<T>(-1);
    e.fail(err);
    return 1;
}

/* A real call made on behalf of the board keeps the errno it set. */
template <class T> int real_result(T* r, ErrnoKeeper& e, T value)
{
    *r = value;
    e.keep_current();
    return 1;
}

/* A count or -errno from the board, as the call returns it. */
template <class T> int board_result(T* r, ErrnoKeeper& e, int64_t res)
{
    return res < 0 ? fail(r, e, static_cast<int>(-res)) : (*r = static_cast<T>(res), 1);
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
        if (of != nullptr) {
            board->catch_up();
            board->acted_on(*of->node);
        }
    }
    bool ours() const { return of != nullptr; }

    /* An injected fault of op: its errno, or 0 (a "short" fault takes one
     * byte off *n; without n it is an I/O error). A power cut ends the
     * program here. */
    int fault(const char* op, size_t* n = nullptr, unsigned long request = 0)
    {
        FaultHit f = board->take_fault(of->node->path(), op, request);
        if (!f.hit)
            return 0;
        if (f.cut) {
            board->power_cut(of->node->path(), op);
            return EIO;
        }
        if (!f.is_short)
            return f.err;
        if (n == nullptr)
            return EIO;
        if (*n > 0)
            (*n)--;
        return 0;
    }
};

/* Where a path goes: a node, a sandbox file, a board directory, or nothing. */
struct Resolved {
    enum Kind { NotOurs, Absent, NodeFile, Directory, Sandbox } kind = NotOurs;
    Node* node = nullptr;
    std::string path;    /* normalised board path */
    std::string sandbox; /* backing file for Sandbox and Directory */
    Board::Medium medium = Board::Medium::Writable; /* of a Sandbox file */

    /* What changing a sandbox file costs on its medium: 0, EROFS, or
     * ENOSPC when the change needs space (a new name, data). */
    int change_error(bool needs_space) const
    {
        if (medium == Board::Medium::ReadOnly)
            return EROFS;
        return needs_space && medium == Board::Medium::Full ? ENOSPC : 0;
    }
};

Resolved resolve(int dirfd, const char* path);

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
    /* The same for calls that change a sandbox file, and what its medium
     * says to the change. */
    int sandbox_change(bool needs_space) const
    {
        int err = sandbox_only();
        return err != 0 ? err : res.change_error(needs_space);
    }
};

/* Opens a node: access check, injected fault, the device's own open. */
int open_node(Board& b, Node* node, int flags);
/* Closes the device's side when the last descriptor of an open file goes. */
void release_if_last(std::shared_ptr<OpenFile> of);

/* A stat record of a node (kind: SIM_STAT...), timestamps from the board's
 * wall clock. */
void fill_any_stat(void* st, int kind, const std::string& path, mode_t mode, int64_t size);

/* Board nanoseconds to and from the time records of either time_t width:
 * these files see the C library's own and the 64-bit ones of syscalls.h. */
template <class Ts> void store_ts(Ts* ts, ns_t ns)
{
    ts->tv_sec = ns / kSec;
    ts->tv_nsec = static_cast<decltype(ts->tv_nsec)>(ns % kSec);
}

template <class Tv> void store_tv(Tv* tv, ns_t ns)
{
    tv->tv_sec = ns / kSec;
    tv->tv_usec = static_cast<decltype(tv->tv_usec)>((ns % kSec) / 1000);
}

template <class Ts> ns_t ts_ns(const Ts& ts)
{
    return int64_t{ts.tv_sec} * kSec + ts.tv_nsec;
}

/* A sleep on the running board, in board time: false when the board is not
 * running or the call is the sim's own (the real function then sleeps);
 * else 0 or -errno in *res and the time not slept in *left. */
bool board_sleep(ns_t duration, ns_t* left, int* res);

/* The board deadline of a clock_nanosleep: relative, or absolute on clock. */
bool sleep_span(clockid_t clock, int flags, ns_t req, ns_t* span);

} // namespace sim

#endif

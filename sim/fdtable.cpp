/* The board's descriptors. Each is a real descriptor of the process, so that
 * its number is taken in the kernel and close, dup and fcntl behave; the
 * table maps it to the open file of a node. An entry lives until the board
 * sees its descriptor closed or replaced (close, dup2, fclose): the table is
 * consulted on every call on a board descriptor and every wait, so it must
 * cost no system call. */
#include <atomic>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "board.h"
#include "syscalls.h"

namespace sim {

namespace {

/* Descriptors the board owns, as a bitmap so that every read() and write()
 * of the process can tell "not ours" without a lock. */
constexpr int kFdBits = 65536;
std::atomic<uint64_t> g_fd_bits[kFdBits / 64];

void mark_fd(int fd, bool on)
{
    if (fd < 0 || fd >= kFdBits)
        return;
    uint64_t bit = uint64_t{1} << (fd % 64);
    if (on)
        g_fd_bits[fd / 64].fetch_or(bit);
    else
        g_fd_bits[fd / 64].fetch_and(~bit);
}

/* The one memfd every placeholder is a duplicate of: a dup costs the kernel
 * far less than a new memfd with an inode of its own. */
int placeholder_template()
{
    static int fd = memfd_create("velasim", MFD_CLOEXEC);
    return fd;
}

} // namespace

void clear_fd_marks()
{
    for (auto& w : g_fd_bits)
        w.store(0);
}

bool Board::is_board_fd(int fd)
{
    if (fd < 0 || !active())
        return false;
    if (fd >= kFdBits)
        return get().file(fd) != nullptr;
    return (g_fd_bits[fd / 64].load(std::memory_order_relaxed) >> (fd % 64)) & 1;
}

/* A node that needs no real object of its own gets a placeholder: a
 * duplicate of one memfd, which takes a number and behaves under close, dup
 * and fcntl as any descriptor does. */
int Board::install(std::shared_ptr<OpenFile> of, int min_fd, bool cloexec)
{
    int fd = of->backing_fd;
    of->backing_fd = -1;
    if (fd < 0) {
        int tmpl = placeholder_template();
        if (tmpl < 0)
            return -errno;
        fd = SIM_REAL(fcntl)(tmpl, cloexec ? F_DUPFD_CLOEXEC : F_DUPFD, reinterpret_cast<void*>(static_cast<intptr_t>(min_fd)));
    } else if (fd < min_fd) {
        int moved = SIM_REAL(fcntl)(fd, cloexec ? F_DUPFD_CLOEXEC : F_DUPFD, reinterpret_cast<void*>(static_cast<intptr_t>(min_fd)));
        SIM_REAL(close)(fd);
        fd = moved;
    }
    if (fd < 0)
        return -errno;
    bind(fd, std::move(of));
    return fd;
}

void Board::bind(int fd, std::shared_ptr<OpenFile> of)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    files_[fd] = std::move(of);
    mark_fd(fd, true);
}

std::shared_ptr<OpenFile> Board::file(int fd)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    auto it = files_.find(fd);
    return it == files_.end() ? nullptr : it->second;
}

std::shared_ptr<OpenFile> Board::forget(int fd)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    auto it = files_.find(fd);
    if (it == files_.end())
        return nullptr;
    std::shared_ptr<OpenFile> of = std::move(it->second);
    files_.erase(it);
    mark_fd(fd, false);
    return of;
}

std::vector<int> Board::descriptors(const std::string& path)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    std::vector<int> fds;
    for (const auto& [fd, of] : files_) {
        if (of->node->path() == path)
            fds.push_back(fd);
    }
    return fds;
}

void Board::add_mapping(void* addr, Node* node)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    maps_[addr] = node;
}

Node* Board::take_mapping(void* addr)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    auto it = maps_.find(addr);
    if (it == maps_.end())
        return nullptr;
    Node* node = it->second;
    maps_.erase(it);
    return node;
}

} // namespace sim

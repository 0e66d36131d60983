/* The board's descriptors. Each is a real descriptor of the process, so that
 * its number is taken in the kernel and close, dup and fcntl behave; the
 * table maps it to the open file of a node. */
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

bool real_identity(int fd, dev_t* dev, ino_t* ino)
{
    struct stat st;
    if (SIM_REAL(fstat)(fd, &st) != 0)
        return false;
    *dev = st.st_dev;
    *ino = st.st_ino;
    return true;
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

/* A placeholder is a memfd: each has an inode of its own, which tells the
 * board's descriptor from any other that later gets the same number. */
int Board::install(std::shared_ptr<OpenFile> of, int min_fd, bool cloexec)
{
    int fd = of->backing_fd;
    of->backing_fd = -1;
    if (fd < 0)
        fd = memfd_create("velasim", cloexec ? MFD_CLOEXEC : 0);
    if (fd < 0)
        return -errno;
    if (fd < min_fd) {
        int moved = SIM_REAL(fcntl)(fd, cloexec ? F_DUPFD_CLOEXEC : F_DUPFD, reinterpret_cast<void*>(static_cast<intptr_t>(min_fd)));
        SIM_REAL(close)(fd);
        if (moved < 0)
            return -errno;
        fd = moved;
    }
    if (!real_identity(fd, &of->real_dev, &of->real_ino)) {
        int err = errno;
        SIM_REAL(close)(fd);
        return -err;
    }
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
    if (it == files_.end())
        return nullptr;
    /* Closed behind the board's back (fclose(fdopen(fd)), close_range) and
     * the number reused: the entry is stale. */
    dev_t dev;
    ino_t ino;
    if (!real_identity(fd, &dev, &ino) || dev != it->second->real_dev || ino != it->second->real_ino) {
        std::shared_ptr<OpenFile> stale = forget(fd);
        if (stale != nullptr && stale.use_count() == 1)
            stale->node->release(*stale);
        return nullptr;
    }
    return it->second;
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
    for (auto it = files_.begin(); it != files_.end();) {
        int fd = (it++)->first; /* file() may drop a stale entry */
        std::shared_ptr<OpenFile> of = file(fd);
        if (of != nullptr && of->node->path() == path)
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

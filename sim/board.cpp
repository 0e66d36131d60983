#include "board.h"

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "guard.h"
#include "syscalls.h"

namespace sim {

thread_local int Guard::depth_ = 0;

namespace {

std::atomic<int64_t> g_epoch{0};
Board* g_board = nullptr;
std::mutex g_create_mutex;

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

int64_t monotonic_raw_ns()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t{ts.tv_sec} * kSec + ts.tv_nsec;
}

bool path_has_prefix(const std::string& path, const std::string& prefix)
{
    if (path.compare(0, prefix.size(), prefix) != 0)
        return false;
    /* "/var/opt" covers "/var/opt" and "/var/opt/x", not "/var/optx"; a
     * prefix ending in '-' or '/' is a plain string prefix; a device family
     * covers its numbered devices ("/dev/spidev" covers "/dev/spidev1.1"). */
    char last = prefix.back();
    if (path.size() == prefix.size() || last == '/' || last == '-')
        return true;
    char next = path[prefix.size()];
    return next == '/' || (next >= '0' && next <= '9');
}

std::string read_text(const std::string& path)
{
    std::string s;
    read_whole_file(path, &s);
    return s;
}

bool write_text_atomic(const std::string& path, const std::string& text)
{
    std::string tmp = path + ".tmp";
    return write_whole_file(tmp, text) && SIM_REAL(rename)(tmp.c_str(), path.c_str()) == 0;
}

std::string trim(const std::string& s)
{
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos)
        return {};
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

const struct {
    int err;
    const char* name;
} kErrnoNames[] = {
    {EPERM, "EPERM"},   {ENOENT, "ENOENT"},       {EINTR, "EINTR"},         {EIO, "EIO"},
    {ENXIO, "ENXIO"},   {EBADF, "EBADF"},         {EAGAIN, "EAGAIN"},       {ENOMEM, "ENOMEM"},
    {EACCES, "EACCES"}, {EFAULT, "EFAULT"},       {EBUSY, "EBUSY"},         {EEXIST, "EEXIST"},
    {ENODEV, "ENODEV"}, {ENOTDIR, "ENOTDIR"},     {EISDIR, "EISDIR"},       {EINVAL, "EINVAL"},
    {ENOSPC, "ENOSPC"}, {EROFS, "EROFS"},         {ENOTTY, "ENOTTY"},       {ENOSYS, "ENOSYS"},
    {ETIMEDOUT, "ETIMEDOUT"}, {EREMOTEIO, "EREMOTEIO"}, {EOPNOTSUPP, "EOPNOTSUPP"},
    {EPROTO, "EPROTO"}, {ERANGE, "ERANGE"},
};

} // namespace

bool read_whole_file(const std::string& path, std::string* content)
{
    int fd = SIM_REAL(open)(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return false;
    content->clear();
    char buf[4096];
    ssize_t n;
    while ((n = SIM_REAL(read)(fd, buf, sizeof buf)) > 0)
        content->append(buf, static_cast<size_t>(n));
    SIM_REAL(close)(fd);
    return n == 0;
}

bool write_whole_file(const std::string& path, const std::string& content)
{
    for (size_t i = 1; i < path.size(); i++) {
        if (path[i] == '/')
            SIM_REAL(mkdir)(path.substr(0, i).c_str(), 0755u);
    }
    int fd = SIM_REAL(open)(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644u);
    if (fd < 0)
        return false;
    bool ok = SIM_REAL(write)(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    SIM_REAL(close)(fd);
    return ok;
}

ns_t now_ns()
{
    return monotonic_raw_ns() - g_epoch.load(std::memory_order_relaxed);
}

std::string normalize_path(const char* path)
{
    std::string in(path != nullptr ? path : "");
    if (in.empty() || in[0] != '/')
        return in;
    std::string out;
    size_t i = 0;
    while (i < in.size()) {
        while (i < in.size() && in[i] == '/')
            i++;
        size_t j = in.find('/', i);
        if (j == std::string::npos)
            j = in.size();
        std::string comp = in.substr(i, j - i);
        if (!comp.empty() && comp != ".")
            out += "/" + comp;
        i = j;
    }
    return out.empty() ? "/" : out;
}

std::string errno_name(int err)
{
    for (const auto& e : kErrnoNames) {
        if (e.err == err)
            return e.name;
    }
    return std::to_string(err);
}

int errno_from_name(const std::string& name)
{
    for (const auto& e : kErrnoNames) {
        if (name == e.name)
            return e.err;
    }
    char* end = nullptr;
    long v = strtol(name.c_str(), &end, 10);
    return (end != name.c_str() && *end == '\0' && v > 0) ? static_cast<int>(v) : 0;
}

std::string hex_bytes(const void* data, size_t n)
{
    std::string s;
    const unsigned char* p = static_cast<const unsigned char*>(data);
    char buf[4];
    for (size_t i = 0; i < n; i++) {
        snprintf(buf, sizeof buf, i ? " %02x" : "%02x", p[i]);
        s += buf;
    }
    return s;
}

bool parse_hex_bytes(const std::string& text, std::string* bytes)
{
    std::istringstream in(text);
    std::string word, out;
    while (in >> word) {
        char* end = nullptr;
        unsigned long b = strtoul(word.c_str(), &end, 16);
        if (word.size() > 2 || *end != '\0')
            return false;
        out += static_cast<char>(b);
    }
    *bytes += out;
    return true;
}

std::string quote_text(const std::string& s)
{
    std::string out;
    for (unsigned char c : s) {
        switch (c) {
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case '\\': out += "\\\\"; break;
        default:
            if (c < 0x20 || c >= 0x7f) {
                char buf[8];
                snprintf(buf, sizeof buf, "\\x%02x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out;
}

/* ---- Node defaults: a file with no content ---- */

int Node::open(OpenFile&)
{
    return 0;
}

int64_t Node::read(OpenFile&, void*, size_t)
{
    return 0;
}

int64_t Node::write(OpenFile&, const void*, size_t)
{
    return -EINVAL;
}

int Node::ioctl(OpenFile&, unsigned long, void*)
{
    return -ENOTTY;
}

short Node::poll(OpenFile&)
{
    return POLLIN | POLLOUT | POLLRDNORM | POLLWRNORM;
}

int64_t Node::seek(OpenFile& of, int64_t off, int whence)
{
    int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? of.pos : whence == SEEK_END ? size() : -1;
    if (base < 0 || base + off < 0)
        return -EINVAL;
    of.pos = base + off;
    return of.pos;
}

void* Node::mmap(OpenFile&, void*, size_t, int, int, int64_t, int* err)
{
    *err = ENODEV;
    return MAP_FAILED;
}

/* ---- Params ---- */

void Params::add(Param p)
{
    std::string key = p.key;
    params_[key] = std::move(p);
}

void Params::add_double(const std::string& key, double* v, const std::string& doc, bool persist)
{
    add({key, doc, [v] {
             char buf[32];
             snprintf(buf, sizeof buf, "%.9g", *v);
             return std::string(buf);
         },
         [v](const std::string& s) {
             char* end = nullptr;
             double d = strtod(s.c_str(), &end);
             if (end == s.c_str() || *end != '\0')
                 return false;
             *v = d;
             return true;
         },
         persist});
}

void Params::add_int(const std::string& key, int* v, const std::string& doc, bool persist)
{
    add({key, doc, [v] { return std::to_string(*v); },
         [v](const std::string& s) {
             char* end = nullptr;
             long l = strtol(s.c_str(), &end, 0);
             if (end == s.c_str() || *end != '\0')
                 return false;
             *v = static_cast<int>(l);
             return true;
         },
         persist});
}

void Params::add_string(const std::string& key, std::string* v, const std::string& doc, bool persist)
{
    add({key, doc, [v] { return *v; },
         [v](const std::string& s) {
             *v = s;
             return true;
         },
         persist});
}

void Params::add_readonly(const std::string& key, std::function<std::string()> get, const std::string& doc)
{
    add({key, doc, std::move(get), nullptr, false});
}

const Param* Params::find(const std::string& key) const
{
    auto it = params_.find(key);
    return it == params_.end() ? nullptr : &it->second;
}

std::string Params::set(const std::string& key, const std::string& value)
{
    const Param* p = find(key);
    if (p == nullptr)
        return "unknown key '" + key + "'";
    if (!p->set)
        return "'" + key + "' is read-only";
    if (!p->set(value))
        return "bad value '" + value + "' for '" + key + "'";
    return {};
}

/* ---- The board's own namespace ----
 * Paths under a root belong to the board: a node, a directory of nodes, or
 * nothing (ENOENT); the host's files there are never touched. Redirected
 * paths are ordinary files kept in the sandbox under fs/. */

static const char* const kBoardRoots[] = {
    "/dev/i2c-", "/dev/spidev", "/dev/uio", "/dev/rtc", "/dev/input", "/dev/fb", "/dev/ttyO",
    "/dev/mtd", "/sys/class", "/sys/bus/iio", "/sys/power", "/sys/devices/system/cpu/cpu0/cpufreq",
    "/sys/devices/platform", "/sys/bus/platform",
};

static const struct {
    const char* path;
    bool is_dir;
} kRedirects[] = {
    {"/var/opt", true},         {"/home/root", true},        {"/media/sda1", true},
    {"/proc/device-tree", true}, {"/tmp/environment.txt", false}, {"/etc/bsp-release", false},
    {"/proc/mtd", false},       {"/usr/bin/psplash", false},
};

/* The sandbox's fs/ tree with the redirected folders, and the parents of the
 * redirected files, in place. */
static void make_sandbox_dirs(const std::string& fs)
{
    std::error_code ec;
    for (const auto& r : kRedirects) {
        std::string p = fs + r.path;
        std::filesystem::create_directories(r.is_dir ? p : p.substr(0, p.rfind('/')), ec);
    }
}

bool maybe_board_path(const char* path)
{
    if (path == nullptr || path[0] != '/')
        return false;
    std::string p = normalize_path(path);
    for (const char* r : kBoardRoots) {
        if (path_has_prefix(p, r))
            return true;
    }
    for (const auto& r : kRedirects) {
        if (path_has_prefix(p, r.path))
            return true;
    }
    return false;
}

/* ---- Board ---- */

void destroy_board()
{
    Guard g;
    Board* b = g_board;
    if (b == nullptr)
        return;
    if (b->control_fd_ >= 0) {
        std::string sock = b->dir_ + "/control.sock";
        SIM_REAL(unlink)(sock.c_str());
    }
    if (b->temporary_) {
        std::error_code ec;
        std::filesystem::remove_all(b->dir_, ec);
    }
}

bool Board::active()
{
    return g_board != nullptr;
}

Board& Board::get()
{
    if (g_board != nullptr)
        return *g_board;
    std::lock_guard<std::mutex> lock(g_create_mutex);
    if (g_board == nullptr) {
        Guard g;
        Board* b = new Board();
        g_board = b;
        b->start();
        atexit(destroy_board);
    }
    return *g_board;
}

Board::Board() = default;

void Board::start()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    const char* env = getenv("VELASIM_DIR");
    if (env != nullptr && *env != '\0') {
        dir_ = env;
        launched_ = true;
    } else {
        const char* tmp = getenv("TMPDIR");
        std::string tmpl = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/velasim.XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) == nullptr) {
            perror("velasim: mkdtemp");
            abort();
        }
        dir_ = buf.data();
        temporary_ = true;
    }
    make_sandbox_dirs(dir_ + "/fs");

    std::string epoch_file = dir_ + "/epoch";
    std::string epoch = read_text(epoch_file);
    if (epoch.empty()) {
        g_epoch = monotonic_raw_ns();
        write_text_atomic(epoch_file, std::to_string(g_epoch.load()) + "\n");
    } else {
        g_epoch = strtoll(epoch.c_str(), nullptr, 10);
    }
    journal_fd_ = SIM_REAL(open)((dir_ + "/journal").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644u);

    build();
    scenario_ = read_text(dir_ + "/scenario");
    for (Model* m : models_)
        m->reset();
    std::string err = apply_scenario(scenario_);
    if (!err.empty()) {
        fprintf(stderr, "velasim: scenario: %s\n", err.c_str());
        _exit(2);
    }
    load_state();
    for (Model* m : models_)
        m->create_files(*this);
    if (launched_)
        open_control_socket();
}

void Board::build()
{
    register_devices(*this);
}

std::string Board::fs_path(const std::string& board_path) const
{
    return dir_ + "/fs" + normalize_path(board_path.c_str());
}

void Board::add_node(std::unique_ptr<Node> node)
{
    nodes_[node->path()] = node.get();
    node_store_.push_back(std::move(node));
}

Node* Board::find_node(const std::string& path)
{
    auto it = nodes_.find(path);
    return it == nodes_.end() ? nullptr : it->second;
}

bool Board::owned(const std::string& path) const
{
    for (const char* r : kBoardRoots) {
        if (path_has_prefix(path, r))
            return true;
    }
    return false;
}

bool Board::redirected(const std::string& path) const
{
    for (const auto& r : kRedirects) {
        if (path_has_prefix(path, r.path))
            return true;
    }
    return false;
}

bool Board::is_dir(const std::string& path) const
{
    std::string prefix = path == "/" ? path : path + "/";
    auto it = nodes_.lower_bound(prefix);
    return it != nodes_.end() && it->first.compare(0, prefix.size(), prefix) == 0;
}

void Board::set_absent(const std::string& path, bool absent)
{
    std::string p = normalize_path(path.c_str());
    absent_.erase(std::remove(absent_.begin(), absent_.end(), p), absent_.end());
    if (absent)
        absent_.push_back(p);
}

bool Board::absent(const std::string& path) const
{
    for (const std::string& a : absent_) {
        if (path_has_prefix(path, a))
            return true;
    }
    return false;
}

bool Board::is_board_fd(int fd)
{
    if (fd < 0)
        return false;
    if (fd >= kFdBits)
        return g_board != nullptr && g_board->file(fd) != nullptr;
    return (g_fd_bits[fd / 64].load(std::memory_order_relaxed) >> (fd % 64)) & 1;
}

/* Every board descriptor is a real one (an eventfd unless the node made its
 * own) so that its number is taken in the kernel and close/dup/fcntl behave. */
int Board::install(std::shared_ptr<OpenFile> of, int min_fd, bool cloexec)
{
    int fd = of->backing_fd;
    of->backing_fd = -1;
    if (fd < 0)
        fd = eventfd(0, EFD_NONBLOCK | (cloexec ? EFD_CLOEXEC : 0));
    if (fd < 0)
        return -errno;
    if (fd < min_fd) {
        int moved = SIM_REAL(fcntl)(fd, cloexec ? F_DUPFD_CLOEXEC : F_DUPFD, reinterpret_cast<void*>(static_cast<intptr_t>(min_fd)));
        SIM_REAL(close)(fd);
        if (moved < 0)
            return -errno;
        fd = moved;
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

void Board::advance()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    ns_t t = now_ns();
    for (Model* m : models_)
        m->advance(t);
}

ns_t Board::next_event()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    ns_t t = now_ns();
    ns_t next = kNever;
    for (Model* m : models_)
        next = std::min(next, m->next_event(t));
    return next == kNever ? kNever : std::max<ns_t>(0, next - t);
}

/* ---- Journal ---- */

void Board::journal(const std::string& device, const std::string& op, const std::string& details)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    ns_t t = now_ns();
    char stamp[40];
    snprintf(stamp, sizeof stamp, "%" PRId64 ".%06" PRId64, t / kSec, (t % kSec) / 1000);
    std::string line = std::string(stamp) + " " + device + " " + op;
    if (!details.empty())
        line += " " + details;
    line += "\n";
    if (journal_fd_ >= 0) {
        ssize_t w = SIM_REAL(write)(journal_fd_, line.data(), line.size());
        (void)w;
    }
    /* Everything the program changes passes through here. */
    save_state();
}

std::vector<std::string> Board::journal_lines()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    std::vector<std::string> lines;
    std::istringstream in(read_text(dir_ + "/journal"));
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

void Board::journal_clear()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    if (journal_fd_ >= 0 && ftruncate(journal_fd_, 0) != 0)
        perror("velasim: journal");
}

/* ---- Faults ---- */

void Board::add_fault(const Fault& f)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    faults_.push_back(f);
}

FaultHit Board::take_fault(const std::string& device, const std::string& op)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if (it->device != device || it->op != op || it->count == 0)
            continue;
        FaultHit hit{true, it->err, it->is_short};
        if (it->count > 0 && --it->count == 0)
            faults_.erase(it);
        return hit;
    }
    return {};
}

void Board::clear_faults()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    faults_.clear();
    absent_.clear();
}

void Board::set_command_status(const std::string& prefix, int status)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    command_status_.emplace_back(prefix, status);
}

int Board::command_status(const std::string& command) const
{
    /* The latest matching setting wins. */
    for (auto it = command_status_.rbegin(); it != command_status_.rend(); ++it) {
        if (command.compare(0, it->first.size(), it->first) == 0)
            return it->second;
    }
    return 0;
}

/* ---- Waiting ---- */

int Board::wait(struct pollfd* fds, size_t n, ns_t timeout, const sigset_t* mask)
{
    ns_t deadline = timeout < 0 ? kNever : now_ns() + timeout;
    std::vector<struct pollfd> real;
    std::vector<size_t> real_index;
    for (;;) {
        int ready = 0;
        bool has_board_fds = false;
        real.clear();
        real_index.clear();
        {
            std::lock_guard<std::recursive_mutex> lock(mu_);
            advance();
            for (size_t i = 0; i < n; i++) {
                fds[i].revents = 0;
                if (fds[i].fd < 0)
                    continue;
                std::shared_ptr<OpenFile> of = is_board_fd(fds[i].fd) ? file(fds[i].fd) : nullptr;
                if (of != nullptr) {
                    has_board_fds = true;
                    fds[i].revents = static_cast<short>(of->node->poll(*of) & (fds[i].events | POLLERR | POLLHUP));
                    if (fds[i].revents != 0)
                        ready++;
                } else {
                    real.push_back({fds[i].fd, fds[i].events, 0});
                    real_index.push_back(i);
                }
            }
            if (control_fd_ >= 0)
                real.push_back({control_fd_, POLLIN, 0});
            for (int c : control_conns_)
                real.push_back({c, POLLIN, 0});
        }

        ns_t now = now_ns();
        ns_t slice = 0;
        if (ready == 0) {
            slice = deadline == kNever ? kNever : std::max<ns_t>(0, deadline - now);
            slice = std::min(slice, next_event());
            /* A model that misjudges its next change cannot keep a waiter
             * asleep for long. */
            if (has_board_fds)
                slice = std::min(slice, 10 * kMs);
        }
        struct timespec ts;
        if (slice != kNever) {
            ts.tv_sec = static_cast<time_t>(slice / kSec);
            ts.tv_nsec = static_cast<long>(slice % kSec);
        }
        int r = SIM_REAL(ppoll)(real.data(), real.size(), slice == kNever ? nullptr : &ts, mask);
        if (r < 0)
            return -errno;

        for (size_t k = 0; k < real_index.size(); k++) {
            fds[real_index[k]].revents = real[k].revents;
            if (real[k].revents != 0)
                ready++;
        }
        for (size_t k = real_index.size(); k < real.size(); k++) {
            if (real[k].revents != 0) {
                std::lock_guard<std::recursive_mutex> lock(mu_);
                serve_control(real[k].fd, real[k].revents);
            }
        }
        if (ready > 0 || now_ns() >= deadline) {
            /* The program resumes with the models at now: it may look at
             * shared memory next, without a call into the board. */
            std::lock_guard<std::recursive_mutex> lock(mu_);
            advance();
            return ready;
        }
    }
}

int Board::sleep_for(ns_t duration, ns_t* left)
{
    ns_t end = now_ns() + duration;
    int r = wait(nullptr, 0, duration, nullptr);
    if (left != nullptr)
        *left = std::max<ns_t>(0, end - now_ns());
    return r < 0 ? r : 0;
}

/* ---- Scenario and state ---- */

/* key = value lines; "[section]" prefixes the keys that follow with
 * "section."; '#' and ';' start comments; "fault = DEVICE OP ERR [COUNT]",
 * "absent = PATH" and "command = STATUS COMMAND" may repeat. */
std::string Board::apply_scenario(const std::string& text)
{
    std::istringstream in(text);
    std::string line, section;
    int lineno = 0;
    while (std::getline(in, line)) {
        lineno++;
        size_t hash = line.find_first_of("#;");
        if (hash != std::string::npos)
            line.erase(hash);
        line = trim(line);
        if (line.empty())
            continue;
        if (line.front() == '[' && line.back() == ']') {
            section = trim(line.substr(1, line.size() - 2));
            continue;
        }
        size_t eq = line.find('=');
        std::string where = "line " + std::to_string(lineno) + ": ";
        if (eq == std::string::npos)
            return where + "no '=' in '" + line + "'";
        std::string key = trim(line.substr(0, eq));
        std::string value = trim(line.substr(eq + 1));
        std::string err;
        if (section.empty() && (key == "fault" || key == "absent" || key == "command")) {
            std::string reply = control(key + " " + value);
            if (reply.compare(0, 6, "error:") == 0)
                err = reply.substr(7);
        } else {
            err = params_.set(section.empty() ? key : section + "." + key, value);
        }
        if (!err.empty())
            return where + err;
    }
    return {};
}

void Board::save_state()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    advance();
    std::string text = "time_ns = " + std::to_string(now_ns()) + "\n";
    for (const auto& [key, p] : params_.all()) {
        if (p.persist)
            text += key + " = " + p.get() + "\n";
    }
    write_text_atomic(dir_ + "/state", text);
}

void Board::load_state()
{
    std::string text = read_text(dir_ + "/state");
    if (text.empty())
        return;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        size_t eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        std::string key = trim(line.substr(0, eq));
        std::string value = trim(line.substr(eq + 1));
        if (key == "time_ns")
            state_time_ = strtoll(value.c_str(), nullptr, 10);
        else
            params_.set(key, value);
    }
    /* The models carry on from the moment the state was saved, so a drive
     * left running keeps moving between two runs of the program. */
    for (Model* m : models_)
        m->resume_at(state_time_);
}

std::string Board::reset(const std::string& scenario)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    faults_.clear();
    absent_.clear();
    command_status_.clear();
    scenario_ = scenario;
    write_text_atomic(dir_ + "/scenario", scenario_);
    std::error_code ec;
    std::filesystem::remove_all(dir_ + "/fs", ec);
    make_sandbox_dirs(dir_ + "/fs");
    SIM_REAL(unlink)((dir_ + "/state").c_str());
    g_epoch = monotonic_raw_ns();
    write_text_atomic(dir_ + "/epoch", std::to_string(g_epoch.load()) + "\n");
    journal_clear();
    for (Model* m : models_)
        m->reset();
    std::string err = apply_scenario(scenario_);
    for (Model* m : models_)
        m->create_files(*this);
    return err;
}

} // namespace sim

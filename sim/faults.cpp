/* Faults on demand. A fault names something real, a node and one of its
 * operations or a target a device declared (an I2C chip), so that a typo is
 * refused rather than silently injecting nothing. */
#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <unistd.h>

#include "board.h"
#include "guard.h"
#include "syscalls.h"

namespace sim {

namespace {

/* A function, not a global: faults can arrive before static initialisation
 * is over (a scenario applied from a library constructor). */
const std::vector<std::string>& node_ops()
{
    static const std::vector<std::string> ops = {"open", "read", "write", "seek", "ioctl"};
    return ops;
}

/* What can fail on the files of a redirected folder (the configuration the
 * program saves under /var/opt): the steps of writing a file safely. */
const std::vector<std::string>& sandbox_ops()
{
    static const std::vector<std::string> ops = {"open", "read", "write", "fsync", "rename"};
    return ops;
}

std::atomic<bool> g_sandbox_faults{false};

} // namespace

void Board::add_fault_target(const std::string& device, const std::vector<std::string>& ops)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    fault_targets_[device] = ops;
}

/* OP "ioctl:NAME" fails one request only. */
std::string Board::add_fault(const Fault& fault)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    Fault f = fault;
    if (f.op.compare(0, 6, "ioctl:") == 0) {
        f.request = ioctl_from_name(f.op.substr(6));
        if (f.request == 0)
            return "unknown ioctl '" + f.op.substr(6) + "'";
        f.op = "ioctl";
    }
    auto target = fault_targets_.find(f.device);
    const std::vector<std::string>* ops = nullptr;
    if (target != fault_targets_.end()) {
        ops = &target->second;
    } else if (find_node(f.device) != nullptr) {
        ops = &node_ops();
    } else if (f.device.size() > 1 && f.device[0] == '/' && redirected(normalize_path(f.device.c_str()))) {
        f.device = normalize_path(f.device.c_str());
        f.below = true;
        ops = &sandbox_ops();
    }
    if (ops == nullptr)
        return "no device '" + f.device + "' to fail";
    if (std::find(ops->begin(), ops->end(), f.op) == ops->end()) {
        std::string list;
        for (const std::string& op : *ops)
            list += (list.empty() ? "" : ", ") + op;
        return "'" + f.device + "' has no operation '" + f.op + "' (" + list + ")";
    }
    faults_.push_back(f);
    rearm_sandbox_faults();
    return {};
}

FaultHit Board::take_fault(const std::string& device, const std::string& op, unsigned long request)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        bool covers = it->device == device || (it->below && path_has_prefix(device, it->device));
        if (!covers || it->op != op || it->count == 0 || (it->request != 0 && it->request != request))
            continue;
        if (it->skip > 0) {
            it->skip--;
            return {};
        }
        FaultHit hit{true, it->err, it->is_short, it->cut, it->keep};
        if (it->count > 0 && --it->count == 0) {
            faults_.erase(it);
            rearm_sandbox_faults();
        }
        return hit;
    }
    return {};
}

void Board::clear_faults()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    faults_.clear();
    absent_.clear();
    rearm_sandbox_faults();
}

void Board::rearm_sandbox_faults()
{
    g_sandbox_faults = std::any_of(faults_.begin(), faults_.end(), [](const Fault& f) { return f.below; });
}

bool Board::sandbox_faults_armed()
{
    return g_sandbox_faults.load(std::memory_order_relaxed);
}

std::string Board::sandbox_path_of(int fd)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    if (fs_real_.empty()) {
        char* real = realpath((dir_ + "/fs").c_str(), nullptr);
        if (real == nullptr)
            return {};
        fs_real_ = real;
        free(real);
    }
    char link[32];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    char target[PATH_MAX];
    ssize_t n = SIM_REAL(readlink)(link, target, sizeof target - 1);
    if (n <= 0)
        return {};
    std::string path(target, static_cast<size_t>(n));
    if (!path_has_prefix(path, fs_real_) || path.size() == fs_real_.size())
        return {};
    return path.substr(fs_real_.size());
}

void Board::power_cut(const std::string& device, const std::string& op, const std::string& details)
{
    journal(device, "cut", details.empty() ? op : op + " " + details);
    if (!launched_)
        return;
    kill(getpid(), SIGKILL);
    _exit(128 + SIGKILL); /* not reached */
}

} // namespace sim

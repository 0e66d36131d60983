/* Faults on demand. A fault names something real, a node and one of its
 * operations or a target a device declared (an I2C chip), so that a typo is
 * refused rather than silently injecting nothing. */
#include <algorithm>

#include "board.h"

namespace sim {

namespace {

/* A function, not a global: faults can arrive before static initialisation
 * is over (a scenario applied from a library constructor). */
const std::vector<std::string>& node_ops()
{
    static const std::vector<std::string> ops = {"open", "read", "write", "seek", "ioctl"};
    return ops;
}

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
    if (target != fault_targets_.end())
        ops = &target->second;
    else if (find_node(f.device) != nullptr)
        ops = &node_ops();
    if (ops == nullptr)
        return "no device '" + f.device + "' to fail";
    if (std::find(ops->begin(), ops->end(), f.op) == ops->end()) {
        std::string list;
        for (const std::string& op : *ops)
            list += (list.empty() ? "" : ", ") + op;
        return "'" + f.device + "' has no operation '" + f.op + "' (" + list + ")";
    }
    faults_.push_back(f);
    return {};
}

FaultHit Board::take_fault(const std::string& device, const std::string& op, unsigned long request)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if (it->device != device || it->op != op || it->count == 0 || (it->request != 0 && it->request != request))
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

} // namespace sim

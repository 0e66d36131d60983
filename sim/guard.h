/* Re-entry guard and errno keeper for code that runs inside a wrapped call. */
#ifndef VELASIM_GUARD_H
#define VELASIM_GUARD_H

#include <cerrno>

namespace sim {

/* Marks this thread as inside the simulator: wrapped calls made meanwhile
 * (by the sim itself, libstdc++ or the C library) go straight through. */
class Guard {
public:
    Guard() : nested_(depth_ > 0) { depth_++; }
    ~Guard() { depth_--; }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    bool nested() const { return nested_; }

private:
    static thread_local int depth_;
    bool nested_;
};

/* Restores errno on scope exit unless a result was set with fail(). */
class ErrnoKeeper {
public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    void fail(int err) { saved_ = err; }
    void keep_current() { saved_ = errno; }

private:
    int saved_;
};

} // namespace sim

#endif

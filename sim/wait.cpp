/* The one wait behind poll, select, the sleeps, blocking reads and suspend.
 *
 * It evaluates the board's descriptors itself, hands the program's real ones
 * (and the control socket) to the host's ppoll, and sleeps exactly until the
 * earliest of the caller's deadline and the models' next event, in board
 * time: a waiter with nothing due does not wake. How board time passes
 * meanwhile is the clock's mode: with the host (real, scaled), by command
 * (step), or by jumping to what is due as soon as nothing real is ready
 * (warp). */
#include <algorithm>
#include <cerrno>

#include "board.h"
#include "syscalls.h"

namespace sim {

int Board::wait(struct pollfd* fds, size_t n, ns_t timeout, const sigset_t* mask)
{
    ns_t now = now_ns();
    ns_t deadline = timeout < 0 || timeout > kNever - now ? kNever : now + timeout;
    return wait_until(fds, n, deadline, mask, nullptr);
}

int Board::wait_until(struct pollfd* fds, size_t n, ns_t deadline, const sigset_t* mask,
                      const std::function<bool()>& done)
{
    save_state(); /* a program killed while it waits loses nothing */
    std::unique_lock<std::mutex> serving(control_serving_, std::try_to_lock);
    std::vector<struct pollfd> real;
    std::vector<size_t> real_index;
    for (;;) {
        int ready = 0;
        ns_t now, next;
        bool finished;
        real.clear();
        real_index.clear();
        {
            std::lock_guard<std::recursive_mutex> lock(mu_);
            catch_up();
            now = now_ns();
            for (size_t i = 0; i < n; i++) {
                fds[i].revents = 0;
                if (fds[i].fd < 0)
                    continue;
                std::shared_ptr<OpenFile> of = is_board_fd(fds[i].fd) ? file(fds[i].fd) : nullptr;
                if (of != nullptr) {
                    fds[i].revents = static_cast<short>(of->node->poll(*of) & (fds[i].events | POLLERR | POLLHUP));
                    ready += fds[i].revents != 0;
                } else {
                    real.push_back({fds[i].fd, fds[i].events, 0});
                    real_index.push_back(i);
                }
            }
            if (serving.owns_lock()) {
                if (control_fd_ >= 0)
                    real.push_back({control_fd_, POLLIN, 0});
                for (int c : control_conns_)
                    real.push_back({c, POLLIN, 0});
            }
            finished = ready > 0 || now >= deadline || (done && done());
            next = finished ? now : std::min(deadline, next_event());
        }

        bool warp = clock().mode() == ClockMode::Warp;
        ns_t host = finished ? 0 : (warp && next != kNever) ? 0 : clock().host_span(std::max<ns_t>(0, next - now));
        struct timespec ts = to_timespec(host);
        /* A warp step with no real descriptor to look at needs no system
         * call (on a loaded host each one may lose the processor). */
        int r = host == 0 && real.empty() && mask == nullptr
                    ? 0
                    : SIM_REAL(ppoll)(real.data(), real.size(), host == kNever ? nullptr : &ts, mask);
        if (host != 0)
            wakeups_++;
        if (r < 0)
            return -errno;

        int real_ready = 0;
        for (size_t k = 0; k < real_index.size(); k++) {
            fds[real_index[k]].revents = real[k].revents;
            real_ready += real[k].revents != 0;
        }
        bool control = false;
        for (size_t k = real_index.size(); k < real.size(); k++) {
            if (real[k].revents != 0) {
                std::lock_guard<std::recursive_mutex> lock(mu_);
                serve_control(real[k].fd, real[k].revents);
                control = true;
            }
        }
        if (finished || real_ready > 0) {
            /* The program resumes with the models at now: it may look at
             * shared memory next, without a call into the board. */
            std::lock_guard<std::recursive_mutex> lock(mu_);
            catch_up();
            return ready + real_ready;
        }
        if (warp && !control && next != kNever)
            clock().advance_to(next);
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

} // namespace sim

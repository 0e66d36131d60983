/* Runs a program as a child process with its standard output and error
 * captured, for tests that drive the real binaries from outside. */
#ifndef VELA_TEST_PROCESS_H
#define VELA_TEST_PROCESS_H

#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

namespace vt {

struct ProcessOptions {
    std::vector<std::string> env; /* "NAME=value" added to (or replacing in) the environment */
    int timeout_ms = 60000;       /* run_process: kill after this long */
};

class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool start(const std::vector<std::string>& argv, const ProcessOptions& opts = {});
    /* Collects output until the child ends or timeout_ms passes; true if it ended. */
    bool wait(int timeout_ms);
    /* Collects output for up to timeout_ms or until pred(out, err) holds. */
    template <class Pred> bool wait_output(int timeout_ms, Pred pred);
    void signal(int sig);
    bool running() const { return pid_ > 0 && !ended_; }

    /* Exit status, or 128 + signal number when killed by a signal. */
    int status() const { return status_; }
    const std::string& out() const { return out_; }
    const std::string& err() const { return err_; }
    pid_t pid() const { return pid_; }

private:
    bool pump(int timeout_ms); /* one poll round; false when both pipes are closed */
    void reap(bool block);

    pid_t pid_ = -1;
    int out_fd_ = -1;
    int err_fd_ = -1;
    bool ended_ = false;
    int status_ = -1;
    std::string out_;
    std::string err_;
};

struct ProcessResult {
    int status = -1;
    bool timed_out = false;
    std::string out;
    std::string err;
};

ProcessResult run_process(const std::vector<std::string>& argv, const ProcessOptions& opts = {});

/* Milliseconds of the monotonic clock, for deadlines in tests. */
long long now_ms();

/* Waits (host time, with a deadline) until pred holds, looking every 5 ms:
 * for what another process does, which no descriptor announces. */
template <class Pred> bool eventually(Pred pred, int timeout_ms = 20000)
{
    long long deadline = now_ms() + timeout_ms;
    while (!pred()) {
        if (now_ms() > deadline)
            return false;
        usleep(5000);
    }
    return true;
}

template <class Pred> bool ChildProcess::wait_output(int timeout_ms, Pred pred)
{
    long long deadline = now_ms() + timeout_ms;
    while (!pred(out_, err_)) {
        long long left = deadline - now_ms();
        if (left <= 0)
            return false;
        if (!pump(static_cast<int>(left > 50 ? 50 : left)) && ended_)
            return pred(out_, err_);
    }
    return true;
}

} // namespace vt

#endif

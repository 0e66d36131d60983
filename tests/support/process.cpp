#include "process.h"

#include "emulator.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char** environ;

namespace vt {

long long now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

ChildProcess::~ChildProcess()
{
    if (running()) {
        signal(SIGKILL);
        reap(true);
    }
    if (out_fd_ >= 0)
        close(out_fd_);
    if (err_fd_ >= 0)
        close(err_fd_);
}

bool ChildProcess::start(const std::vector<std::string>& argv, const ProcessOptions& opts)
{
    /* Build everything the child needs before forking. */
    std::vector<std::string> env_strings = opts.env;
    for (char** e = environ; *e != nullptr; e++) {
        std::string s(*e);
        auto same_name = [&s](const std::string& add) {
            size_t name_end = add.find('=') + 1;
            return s.compare(0, name_end, add, 0, name_end) == 0;
        };
        if (std::none_of(opts.env.begin(), opts.env.end(), same_name))
            env_strings.push_back(s);
    }
    std::vector<char*> envp;
    for (std::string& s : env_strings)
        envp.push_back(s.data());
    envp.push_back(nullptr);
    std::vector<std::string> args = emulated(argv);
    std::vector<char*> argp;
    for (std::string& s : args)
        argp.push_back(s.data());
    argp.push_back(nullptr);

    int out_pipe[2], err_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0)
        return false;
    pid_ = fork();
    if (pid_ < 0)
        return false;
    if (pid_ == 0) {
        dup2(out_pipe[1], STDOUT_FILENO);
        dup2(err_pipe[1], STDERR_FILENO);
        int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0)
            dup2(devnull, STDIN_FILENO);
        execve(argp[0], argp.data(), envp.data());
        _exit(127);
    }
    close(out_pipe[1]);
    close(err_pipe[1]);
    out_fd_ = out_pipe[0];
    err_fd_ = err_pipe[0];
    ended_ = false;
    return true;
}

bool ChildProcess::pump(int timeout_ms)
{
    struct pollfd fds[2];
    int n = 0;
    if (out_fd_ >= 0)
        fds[n++] = {out_fd_, POLLIN, 0};
    if (err_fd_ >= 0)
        fds[n++] = {err_fd_, POLLIN, 0};
    if (n == 0) {
        reap(true);
        return false;
    }
    if (poll(fds, n, timeout_ms) < 0)
        return errno == EINTR;
    for (int i = 0; i < n; i++) {
        if (fds[i].revents == 0)
            continue;
        char buf[4096];
        ssize_t got = read(fds[i].fd, buf, sizeof buf);
        std::string& target = fds[i].fd == out_fd_ ? out_ : err_;
        if (got > 0) {
            target.append(buf, static_cast<size_t>(got));
        } else if (got == 0 || errno != EINTR) {
            int& fd = fds[i].fd == out_fd_ ? out_fd_ : err_fd_;
            close(fd);
            fd = -1;
        }
    }
    if (out_fd_ < 0 && err_fd_ < 0) {
        reap(true);
        return false;
    }
    return true;
}

void ChildProcess::reap(bool block)
{
    if (pid_ <= 0 || ended_)
        return;
    int st = 0;
    pid_t r = waitpid(pid_, &st, block ? 0 : WNOHANG);
    if (r != pid_)
        return;
    ended_ = true;
    status_ = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

bool ChildProcess::wait(int timeout_ms)
{
    long long deadline = now_ms() + timeout_ms;
    while (!ended_) {
        long long left = deadline - now_ms();
        if (left <= 0)
            return false;
        if (!pump(static_cast<int>(left > 100 ? 100 : left)))
            break;
    }
    return ended_;
}

void ChildProcess::signal(int sig)
{
    if (pid_ > 0 && !ended_)
        kill(pid_, sig);
}

ProcessResult run_process(const std::vector<std::string>& argv, const ProcessOptions& opts)
{
    ProcessResult r;
    ChildProcess child;
    if (!child.start(argv, opts))
        return r;
    if (!child.wait(opts.timeout_ms)) {
        r.timed_out = true;
        child.signal(SIGKILL);
        child.wait(5000);
    }
    r.status = child.status();
    r.out = child.out();
    r.err = child.err();
    return r;
}

} // namespace vt

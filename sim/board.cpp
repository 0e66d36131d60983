/* The board's life cycle: which process owns it, how its devices are built,
 * how its models advance, suspend, and what happens at exit. */
#include "board.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <pthread.h>
#include <set>
#include <sys/file.h>
#include <unistd.h>

#include "guard.h"
#include "syscalls.h"

namespace sim {

thread_local int Guard::depth_ = 0;

void make_sandbox_dirs(const std::string& fs); /* paths.cpp */
void clear_fd_marks();                          /* fdtable.cpp */

namespace {

Board* g_board = nullptr;
/* This process stays out of the board: a forked child, or a program whose
 * board directory another process holds. */
std::atomic<bool> g_out{false};
std::mutex g_create_mutex;

std::vector<DeviceType>& device_types()
{
    static std::vector<DeviceType> types;
    return types;
}

/* The device types in an order where each comes after what it needs; ties
 * by name, so the order is the same in every build. */
std::vector<const DeviceType*> build_order()
{
    std::vector<const DeviceType*> todo;
    for (const DeviceType& t : device_types())
        todo.push_back(&t);
    std::sort(todo.begin(), todo.end(), [](const DeviceType* a, const DeviceType* b) { return strcmp(a->name, b->name) < 0; });
    std::vector<const DeviceType*> order;
    std::set<std::type_index> built;
    while (!todo.empty()) {
        auto ready = std::find_if(todo.begin(), todo.end(), [&](const DeviceType* t) {
            return std::all_of(t->needs.begin(), t->needs.end(), [&](std::type_index n) { return built.count(n) > 0; });
        });
        if (ready == todo.end()) {
            fprintf(stderr, "velasim: device %s needs a device that is not registered, or a cycle\n", todo[0]->name);
            abort();
        }
        built.insert((*ready)->type);
        order.push_back(*ready);
        todo.erase(ready);
    }
    return order;
}

void at_exit()
{
    Guard g;
    if (g_board != nullptr && !g_out)
        g_board->shutdown();
}

/* The pid written in a board directory's lock file. */
long lock_holder(const std::string& dir)
{
    std::string text;
    read_whole_file(dir + "/lock", &text);
    return strtol(text.c_str(), nullptr, 10);
}

} // namespace

void register_device_type(DeviceType t)
{
    device_types().push_back(std::move(t));
}

/* A forked child keeps a copy of the board's memory but not the board: it
 * stays out, so that it neither serves the parent's control socket nor
 * removes what the parent made, and its descriptors are plain ones. */
void forget_board_in_child()
{
    g_out = true;
    clear_fd_marks();
}

Board* Board::instance()
{
    if (g_board != nullptr || g_out)
        return g_out ? nullptr : g_board;
    std::lock_guard<std::mutex> lock(g_create_mutex);
    if (g_board == nullptr && !g_out) {
        Guard g;
        Board* b = new Board();
        if (b->start()) {
            g_board = b;
            atexit(at_exit);
            pthread_atfork(nullptr, nullptr, forget_board_in_child);
        } else {
            g_out = true; /* the half-made board is left alone */
        }
    }
    return g_out ? nullptr : g_board;
}

Board& Board::get()
{
    Board* b = instance();
    if (b == nullptr) {
        fprintf(stderr, "velasim: this process has no board\n");
        abort();
    }
    return *b;
}

bool Board::active()
{
    return g_board != nullptr && !g_out;
}

Board::Board() = default;

bool Board::start()
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

    /* One process owns a board directory. Another program started on it is
     * refused by the launcher; a child the owner exec'd stays out. */
    SIM_REAL(mkdir)(dir_.c_str(), 0755u);
    lock_fd_ = SIM_REAL(open)((dir_ + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644u);
    if (lock_fd_ < 0 || flock(lock_fd_, LOCK_EX | LOCK_NB) != 0) {
        long holder = lock_holder(dir_);
        if (holder != getppid())
            fprintf(stderr, "velasim: the board in %s is in use by process %ld; this process stays out of it\n",
                    dir_.c_str(), holder);
        if (lock_fd_ >= 0)
            SIM_REAL(close)(lock_fd_);
        return false;
    }
    owner_pid_ = getpid();
    std::string pid = std::to_string(owner_pid_) + "\n";
    if (ftruncate(lock_fd_, 0) != 0 || SIM_REAL(write)(lock_fd_, pid.data(), pid.size()) < 0)
        perror("velasim: lock");

    make_sandbox_dirs(dir_ + "/fs");
    journal_fd_ = SIM_REAL(open)((dir_ + "/journal").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644u);

    build();
    read_whole_file(dir_ + "/scenario", &scenario_);
    /* A board inside a test process starts at the host's time: the
     * process's clocks were the host's until now and must not jump back. */
    if (!launched_)
        clock().advance_to(host_monotonic_ns());
    clock().reset();
    for (Model* m : models_)
        m->reset();
    std::string err = apply_scenario(scenario_);
    if (err.empty())
        load_state();
    const char* mode = getenv("VELASIM_CLOCK");
    if (err.empty() && mode != nullptr && *mode != '\0')
        err = clock().set_mode(mode);
    if (!err.empty()) {
        fprintf(stderr, "velasim: scenario: %s\n", err.c_str());
        _exit(2);
    }
    for (Model* m : models_)
        m->create_files(*this);
    if (launched_)
        open_control_socket();
    return true;
}

void add_timers(Board& board); /* timerfd.cpp */

void Board::build()
{
    params_.add({"clock.mode", "how board time passes: real, scaled K, step or warp",
                 [] { return clock().mode_text(); },
                 [](const std::string& t) { return clock().set_mode(t).empty(); }, true});
    params_.add({"clock.wall_at_boot", "wall-clock time (UTC) at board time 0: 2026-11-22T08:00:00Z or epoch seconds",
                 [] { return format_wall_time(clock().wall_at_boot()); },
                 [](const std::string& t) {
                     ns_t wall;
                     if (!parse_wall_time(t, &wall))
                         return false;
                     clock().set_wall_at_boot(wall);
                     return true;
                 },
                 true});
    params_.add_readonly("clock.board_s", [] { return format_seconds(clock().now()); }, "board time, s");
    params_.add_readonly("clock.monotonic_s", [] { return format_seconds(clock().monotonic()); },
                         "CLOCK_MONOTONIC (stops while suspended), s");
    params_.add_readonly("clock.realtime", [] { return format_wall_time(clock().realtime()); },
                         "CLOCK_REALTIME, UTC");
    params_.add_readonly("clock.suspended_s", [] { return format_seconds(clock().suspended_total()); },
                         "time spent suspended, s");
    params_.add_readonly("board.wakeups", [this] { return std::to_string(wakeups_); },
                         "times a wait of the program woke on the host");
    add_timers(*this);
    for (const DeviceType* t : build_order())
        t->make(*this);
}

void Board::shutdown()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    if (getpid() != owner_pid_)
        return; /* only the owner removes what it made */
    save_state(true);
    if (control_fd_ >= 0) {
        SIM_REAL(unlink)((dir_ + "/control.sock").c_str());
        SIM_REAL(close)(control_fd_);
        control_fd_ = -1;
    }
    if (temporary_) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    owner_pid_ = 0;
}

std::string Board::fs_path(const std::string& board_path) const
{
    return dir_ + "/fs" + normalize_path(board_path.c_str());
}

/* The models are brought to `to` through every event in between, in order,
 * so that one model sees another's change at the moment it happened. */
void Board::advance_models(ns_t to)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    if (model_time_ >= 0)
        return; /* a model's own call back into the board */
    ns_t at = std::min(advanced_to_, to);
    for (int hop = 0; hop < 100000; hop++) {
        ns_t next = kNever;
        for (Model* m : models_)
            next = std::min(next, m->next_event(at));
        ns_t t = std::min(next, to);
        if (t <= at && hop > 0) /* a model that will not move on: go straight to the end */
            t = to;
        t = std::max(t, at);
        model_time_ = t;
        if (next <= to)
            changed_ = true; /* an event: the models' values move on by themselves */
        for (Model* m : models_)
            m->advance(t);
        model_time_ = -1;
        at = t;
        if (t >= to)
            break;
    }
    advanced_to_ = to;
}

void Board::advance()
{
    touch();
    catch_up();
}

void Board::catch_up()
{
    advance_models(now_ns());
}

ns_t Board::next_event()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    ns_t t = now_ns();
    ns_t next = kNever;
    for (Model* m : models_)
        next = std::min(next, m->next_event(t));
    return next;
}

std::string Board::suspend()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    advance();
    journal("power", "suspend");
    clock().begin_suspend();
    suspended_ = true;
    wake_reason_.clear();
    while (wake_reason_.empty()) {
        int r = wait_until(nullptr, 0, kNever, nullptr, [this] { return !wake_reason_.empty(); });
        if (r < 0 && r != -EINTR) /* a signal does not end a suspend */
            break;
    }
    clock().end_suspend();
    suspended_ = false;
    std::string reason = wake_reason_.empty() ? "error" : wake_reason_;
    journal("power", "resume", reason);
    save_state(true); /* a suspend is a wait too, and what it did to the clocks counts */
    return reason;
}

void Board::wake(const std::string& reason)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    if (suspended_ && wake_reason_.empty())
        wake_reason_ = reason;
}

} // namespace sim

/* Under the launcher the board starts with the process, so that its control
 * socket is there before the program touches any device. */
__attribute__((constructor)) static void start_launched_board()
{
    const char* dir = getenv("VELASIM_DIR");
    if (dir != nullptr && *dir != '\0')
        sim::Board::instance();
}

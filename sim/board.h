/*
 * The simulated board: path table, descriptor table, sandbox, journal, faults,
 * parameters, the devices, and the one wait loop that every blocking call goes
 * through.
 *
 * Single-threaded in spirit: the models have no threads of their own and are
 * advanced lazily to "now" whenever a wrapped call reaches the board. A
 * recursive mutex keeps the tables consistent should the host process have
 * other threads.
 *
 * The implementation is split by concern: board.cpp (life cycle, devices,
 * processes), fdtable.cpp, paths.cpp, params.cpp, journal.cpp, faults.cpp,
 * wait.cpp, scenario.cpp (scenario and saved state), control.cpp.
 */
#ifndef VELASIM_BOARD_H
#define VELASIM_BOARD_H

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <string>
#include <sys/stat.h>
#include <typeindex>
#include <vector>

#include "clock.h"

namespace sim {

class Board;
class Node;

/* Per-open state a device keeps beside the file position. */
struct OpenState {
    virtual ~OpenState() = default;
};

/* One open file description: shared by descriptors made with dup(). */
struct OpenFile {
    Node* node = nullptr;
    int flags = 0;
    int64_t pos = 0;
    uint64_t seen_event = 0; /* sysfs change notifications this open file has seen */
    std::unique_ptr<OpenState> state;
    /* A real descriptor that a node's open() made to stand for the file (the
     * serial port's pty): the program gets it instead of a placeholder, so
     * that calls the board does not wrap (termios) work on it natively. */
    int backing_fd = -1;
};

/* A file of the board: a device node or an attribute. The bus face the
 * program sees. Results are counts or -errno; -EAGAIN from read means "would
 * block" and lets the board wait for readiness on a blocking descriptor. */
class Node {
public:
    Node(std::string path, mode_t mode) : path_(std::move(path)), mode_(mode) {}
    virtual ~Node() = default;

    const std::string& path() const { return path_; }
    mode_t mode() const { return mode_; }
    bool writable() const { return (mode_ & 0222) != 0; }
    bool readable() const { return (mode_ & 0444) != 0; }

    virtual int open(OpenFile& of);
    virtual void release(OpenFile&) {}
    virtual int64_t read(OpenFile& of, void* buf, size_t n);
    virtual int64_t write(OpenFile& of, const void* buf, size_t n);
    virtual int ioctl(OpenFile& of, unsigned long request, void* arg);
    virtual short poll(OpenFile& of);
    virtual int64_t seek(OpenFile& of, int64_t off, int whence);
    virtual int64_t size() { return 0; }
    /* Opening, reading and closing the node change no value of the board (a
     * sysfs attribute's show()): such calls need no new save of the state. */
    virtual bool passive() const { return false; }
    /* Returns the address or MAP_FAILED with *err set. */
    virtual void* mmap(OpenFile& of, void* addr, size_t len, int prot, int flags, int64_t off, int* err);
    virtual int munmap(void*, size_t) { return -EINVAL; }

private:
    std::string path_;
    mode_t mode_;
};

/* Something that changes with time or holds state to reset: the physics and
 * the devices' own state. Every device is one. */
class Model {
public:
    virtual ~Model() = default;
    virtual void reset() {}                 /* back to power-on defaults */
    virtual void create_files(Board&) {}    /* default sandbox files, kept if present */
    virtual void advance(ns_t /*now*/) {}   /* bring the model up to now */
    /* The next board time at which the model changes by itself in a way the
     * program or another model can see; kNever if none. Exact: the board
     * sleeps until then. */
    virtual ns_t next_event(ns_t /*now*/) { return kNever; }
    virtual void resume_at(ns_t /*t*/) {}   /* saved state is from time t: carry on from there */
};

/* A named value of the board, set by scenarios and the control API and
 * saved across runs when persistent. */
struct Param {
    std::string key;
    std::string doc;
    std::function<std::string()> get;
    std::function<bool(const std::string&)> set; /* null: read-only */
    bool persist = false;
    /* A model's inner state that outlives a program run (a chip's registers
     * and timers): saved with the board's state, never shown or set. */
    bool internal = false;
};

/* The parameters: every device registers its values here, in its
 * constructor. Numbers are refused outside [min, max] (and NaN always). */
class Params {
public:
    void add(Param p);
    void add_double(const std::string& key, double* v, const std::string& doc, double min, double max,
                    bool persist = true);
    void add_int(const std::string& key, int* v, const std::string& doc, long min, long max, bool persist = true);
    void add_string(const std::string& key, std::string* v, const std::string& doc, bool persist = true);
    void add_readonly(const std::string& key, std::function<std::string()> get, const std::string& doc);
    void add_internal(const std::string& key, std::function<std::string()> get,
                      std::function<bool(const std::string&)> set);

    /* Neither finds nor sets an internal value. */
    const Param* find(const std::string& key) const;
    /* "" on success, else an error text. */
    std::string set(const std::string& key, const std::string& value);
    /* Any value, internal ones included, from the saved state. */
    bool restore(const std::string& key, const std::string& value);
    const std::map<std::string, Param>& all() const { return params_; }

private:
    std::map<std::string, Param> params_;
};

struct Fault {
    std::string device;
    std::string op;         /* "read", "write", "open", "seek", "ioctl"; on a
                               redirected path also "fsync" and "rename" */
    unsigned long request = 0; /* op "ioctl": only this request; 0 = any */
    int err = 0;            /* errno to fail with; 0 with is_short or cut */
    bool is_short = false;
    /* A power cut: the process dies (SIGKILL) at the call, before it takes
     * effect; a write lets `keep` bytes through first. */
    bool cut = false;
    size_t keep = 0;
    int count = 1;          /* calls left to fail; -1 = always */
    int skip = 0;           /* matching calls let through before the first failure */
    bool below = false;     /* a redirected path: covers the files below it too */
};

struct FaultHit {
    bool hit = false;
    int err = 0;
    bool is_short = false;
    bool cut = false;
    size_t keep = 0;
};

/* How a device type is made: its dependencies are built first and handed to
 * its constructor (see device.h). */
struct DeviceType {
    const char* name;
    std::type_index type;
    std::vector<std::type_index> needs;
    std::function<void(Board&)> make;
};
void register_device_type(DeviceType t);

class Board {
public:
    /* The board of this process, started on first use; null when this
     * process stays out of it (a forked child, or a second program on a
     * board directory that another process holds). */
    static Board* instance();
    static Board& get(); /* instance(), which must exist */
    static bool active();

    std::recursive_mutex& mutex() { return mu_; }

    /* Sandbox */
    const std::string& dir() const { return dir_; }
    std::string fs_path(const std::string& board_path) const; /* backing file of a board path */

    /* Devices: add() adopts one (its model is advanced in the order added,
     * which follows the dependencies); device<T>() finds one by type. */
    template <class T> T& add(std::unique_ptr<T> d)
    {
        T& ref = *d;
        devices_[std::type_index(typeid(T))] = d.get();
        adopt(std::move(d));
        return ref;
    }
    template <class T> T& device() { return *static_cast<T*>(devices_.at(std::type_index(typeid(T)))); }
    /* A model that is no device of its own (a GPIO line, the timers). */
    template <class T> T* adopt(std::unique_ptr<T> m)
    {
        T* raw = m.get();
        models_.push_back(raw);
        model_store_.push_back(std::move(m));
        return raw;
    }
    /* A node that is a model too (the board owns it as a node). */
    template <class T> T* add_node_model(std::unique_ptr<T> n)
    {
        T* raw = n.get();
        add_node(std::move(n));
        models_.push_back(raw);
        return raw;
    }

    /* Paths. The board's namespace is fixed (paths.cpp): under its roots a
     * path is a node, a directory of nodes or absent; redirected paths are
     * plain files kept in the sandbox. */
    void add_node(std::unique_ptr<Node> node);
    Node* find_node(const std::string& path);
    bool owned(const std::string& path) const;
    bool redirected(const std::string& path) const;
    bool is_dir(const std::string& path) const;  /* a directory holding nodes */
    /* "" or why path names nothing of the board. */
    std::string check_path(const std::string& path) const;
    void set_absent(const std::string& path, bool absent);
    bool absent(const std::string& path) const;
    /* The medium behind a redirected folder (a mounted stick): writable,
     * read-only (writes fail with EROFS) or full (ENOSPC). */
    enum class Medium { Writable, ReadOnly, Full };
    void set_medium(const std::string& folder, Medium m);
    Medium medium(const std::string& path) const;

    /* Descriptors */
    int install(std::shared_ptr<OpenFile> of, int min_fd = 0, bool cloexec = true);
    void bind(int fd, std::shared_ptr<OpenFile> of);
    /* The open file behind fd, if fd is the board's. */
    std::shared_ptr<OpenFile> file(int fd);
    std::shared_ptr<OpenFile> forget(int fd);
    static bool is_board_fd(int fd);
    /* The descriptors open on the node at path, lowest first. */
    std::vector<int> descriptors(const std::string& path);
    /* Memory a node mapped for the program, to route munmap; a reset
     * forgets them. */
    void add_mapping(void* addr, Node* node);
    Node* take_mapping(void* addr);

    /* Models and parameters */
    Params& params() { return params_; }
    /* Brings the models to now for a caller that may change the board's
     * values (a device call, a control command, a test): the next wait saves
     * the state. catch_up() only brings them to now; touch() only notes the
     * change, acted_on() a change through a node that can make one. */
    void advance();
    void catch_up();
    void touch() { changed_ = true; }
    void acted_on(const Node& node)
    {
        if (!node.passive())
            touch();
    }
    /* Board time of the earliest model event; kNever if none. */
    ns_t next_event();

    /* Journal: records, nothing more. Stamped with board time (the time of
     * the model event that caused it, while models advance). */
    void journal(const std::string& device, const std::string& op, const std::string& details = "");
    std::vector<std::string> journal_lines();
    void journal_clear();

    /* Faults. Devices declare what can fail beyond their nodes (an I2C chip). */
    void add_fault_target(const std::string& device, const std::vector<std::string>& ops);
    /* "" or why the fault names nothing real. */
    std::string add_fault(const Fault& f);
    FaultHit take_fault(const std::string& device, const std::string& op, unsigned long request = 0);
    void clear_faults();
    /* Whether a fault on a redirected path is armed: only then do the calls
     * on plain descriptors look up which file they are on. */
    static bool sandbox_faults_armed();
    /* The board path of the redirected file or folder behind a plain
     * descriptor; "" for anything else. */
    std::string sandbox_path_of(int fd);
    /* The power goes: journaled as "DEVICE cut OP [DETAILS]", then the
     * program dies with SIGKILL. In-process boards (unit tests) only journal
     * it and return, the caller then fails the call with EIO. */
    void power_cut(const std::string& device, const std::string& op, const std::string& details = "");

    /* Suspend: the caller sleeps, board time going on and the monotonic
     * clock stopped, until wake() names a reason. */
    std::string suspend();
    void wake(const std::string& reason);
    bool suspended() const { return suspended_; }

    /* Whether simulated commands that halt the instrument end the process
     * (under the launcher) or only return (in unit tests). */
    bool exit_on_halt() const { return launched_; }

    /* The wait behind poll, select and the sleeps: returns the number of
     * ready entries, 0 on time-out, or -errno. timeout is board time; < 0
     * waits for ever. */
    int wait(struct pollfd* fds, size_t n, ns_t timeout, const sigset_t* mask);
    int sleep_for(ns_t duration, ns_t* left);
    /* Host wake-ups of the wait loop so far (a benchmark's measure). */
    uint64_t wakeups() const { return wakeups_; }

    /* Scenarios, state and control */
    std::string apply_scenario(const std::string& text); /* "" or the first error */
    std::string reset(const std::string& scenario); /* "" or the scenario's first error */
    /* force: now, whether or not anything changed (exit, resume). */
    void save_state(bool force = false);
    std::string control(const std::string& line); /* data lines, then "ok" or "error: ..." */
    /* A device's own control command: run gets the whole line and its
     * words, and answers as control() does; help is its line(s) of 'help'. */
    void add_control(const std::string& verb, const std::string& help,
                     std::function<std::string(const std::string&, const std::vector<std::string>&)> run);

    /* The process is going away (exit, or a halt command). */
    void shutdown();

private:
    Board();
    bool start();
    void build();
    void load_state();
    void open_control_socket();
    void serve_control(int fd, short revents);
    std::string clock_command(const std::vector<std::string>& w);
    void advance_models(ns_t to);
    int wait_until(struct pollfd* fds, size_t n, ns_t deadline, const sigset_t* mask,
                   const std::function<bool()>& done);
    ns_t model_time_ = -1; /* during advance: the time the models are brought to */
    ns_t advanced_to_ = 0; /* the time the models were last brought to */
    friend void forget_board_in_child();

    std::recursive_mutex mu_;
    std::string dir_;
    bool launched_ = false;
    bool temporary_ = false;
    int owner_pid_ = 0;
    int lock_fd_ = -1;
    std::string scenario_;
    std::vector<std::unique_ptr<Node>> node_store_;
    std::map<std::string, Node*> nodes_;
    std::vector<std::string> absent_;
    std::map<std::string, Medium> media_;
    std::map<int, std::shared_ptr<OpenFile>> files_;
    std::map<void*, Node*> maps_;
    std::vector<Model*> models_;
    std::vector<std::unique_ptr<Model>> model_store_;
    std::map<std::type_index, Model*> devices_;
    Params params_;
    std::vector<Fault> faults_;
    std::map<std::string, std::vector<std::string>> fault_targets_;
    void rearm_sandbox_faults();
    std::string fs_real_; /* the sandbox's fs/ as the kernel names it (symlinks resolved) */
    int journal_fd_ = -1;
    int control_fd_ = -1;
    std::mutex control_serving_; /* one thread serves the control socket */
    std::vector<int> control_conns_;
    std::map<int, std::string> control_input_;
    bool suspended_ = false;
    std::string wake_reason_;
    uint64_t wakeups_ = 0;
    std::string saved_values_; /* what the state file holds */
    bool changed_ = true;      /* the values may differ from saved_values_ */
    ns_t saved_at_ = 0;        /* host time it was written */
};

/* Files of the sandbox, through the real libc: the whole content (false when
 * there is no file), and a write that creates the missing parent folders
 * below root (none without one) and replaces the file atomically (a
 * temporary file renamed over it). */
bool read_whole_file(const std::string& path, std::string* content);
bool write_whole_file(const std::string& path, const std::string& content, const std::string& root = {});

/* Normalises an absolute path (collapses "//" and "/./", drops a trailing
 * "/"); relative paths are returned unchanged. */
std::string normalize_path(const char* path);
/* "/var/opt" covers "/var/opt" and "/var/opt/x", not "/var/optx"; a prefix
 * ending in '-' or '/' is a plain string prefix; a device family covers its
 * numbered devices ("/dev/spidev" covers "/dev/spidev1.1"). */
bool path_has_prefix(const std::string& path, const std::string& prefix);

/* Errno names for journals and the control protocol. */
std::string errno_name(int err);
int errno_from_name(const std::string& name);
/* ioctl request names the fault command takes ("RTC_WKALM_SET"); 0 if
 * unknown. */
unsigned long ioctl_from_name(const std::string& name);

/* "08 22" */
std::string hex_bytes(const void* data, size_t n);
/* The other way: blank-separated hex bytes appended to *bytes; false (and
 * *bytes unchanged) on anything else. */
bool parse_hex_bytes(const std::string& text, std::string* bytes);
/* Printable text for the journal: escapes control characters and backslashes. */
std::string quote_text(const std::string& s);
std::string trim(const std::string& s);

} // namespace sim

#endif

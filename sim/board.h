/*
 * The simulated board: path table, descriptor table, sandbox, journal, faults,
 * parameters and the one wait loop that every blocking call goes through.
 *
 * Single-threaded in spirit: the models have no threads of their own and are
 * advanced lazily to "now" whenever a wrapped call reaches the board. A
 * recursive mutex keeps the tables consistent should the host process have
 * other threads.
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
#include <vector>

namespace sim {

using ns_t = int64_t;
constexpr ns_t kNever = INT64_MAX;
constexpr ns_t kMs = 1000000;
constexpr ns_t kSec = 1000000000;

/* The board's clock: nanoseconds since the board's epoch. All model time
 * comes from here. */
ns_t now_ns();

class Board;
struct OpenFile;

/* Per-open state a device keeps beside the file position. */
struct OpenState {
    virtual ~OpenState() = default;
};

/* One open file description: shared by descriptors made with dup(). */
struct OpenFile {
    class Node* node = nullptr;
    int flags = 0;
    int64_t pos = 0;
    uint64_t seen_event = 0; /* sysfs change notifications this open file has seen */
    std::unique_ptr<OpenState> state;
    /* A real descriptor that a node's open() made to stand for the file (the
     * serial port's pty): the program gets it instead of an eventfd, so that
     * calls the board does not wrap (termios) work on it natively. */
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
    /* Returns the address or MAP_FAILED with *err set. */
    virtual void* mmap(OpenFile& of, void* addr, size_t len, int prot, int flags, int64_t off, int* err);
    virtual int munmap(void*, size_t) { return -EINVAL; }

private:
    std::string path_;
    mode_t mode_;
};

/* Something that changes with time or holds state to reset: the physics and
 * the devices' own state. */
class Model {
public:
    virtual ~Model() = default;
    virtual void reset() {}                 /* back to power-on defaults */
    virtual void create_files(Board&) {}    /* default sandbox files, kept if present */
    virtual void advance(ns_t /*now*/) {}   /* bring the model up to now */
    virtual ns_t next_event(ns_t /*now*/) { return kNever; } /* when it may change by itself */
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
};

class Params {
public:
    void add(Param p);
    void add_double(const std::string& key, double* v, const std::string& doc, bool persist = true);
    void add_int(const std::string& key, int* v, const std::string& doc, bool persist = true);
    void add_string(const std::string& key, std::string* v, const std::string& doc, bool persist = true);
    void add_readonly(const std::string& key, std::function<std::string()> get, const std::string& doc);

    const Param* find(const std::string& key) const;
    /* "" on success, else an error text. */
    std::string set(const std::string& key, const std::string& value);
    const std::map<std::string, Param>& all() const { return params_; }

private:
    std::map<std::string, Param> params_;
};

struct Fault {
    std::string device;
    std::string op;
    int err = 0;      /* errno to fail with; 0 with is_short */
    bool is_short = false;
    int count = 1;    /* calls left to fail; -1 = always */
};

struct FaultHit {
    bool hit = false;
    int err = 0;
    bool is_short = false;
};

class Board {
public:
    /* The board of this process, started on first use. */
    static Board& get();
    static bool active();

    std::recursive_mutex& mutex() { return mu_; }

    /* Sandbox */
    const std::string& dir() const { return dir_; }
    std::string fs_path(const std::string& board_path) const; /* backing file of a board path */

    /* Paths. The board's namespace is fixed (board.cpp): under its roots a
     * path is a node, a directory of nodes or absent; redirected paths are
     * plain files kept in the sandbox. */
    void add_node(std::unique_ptr<Node> node);
    Node* find_node(const std::string& path);
    bool owned(const std::string& path) const;
    bool redirected(const std::string& path) const;
    bool is_dir(const std::string& path) const;  /* a directory holding nodes */
    void set_absent(const std::string& path, bool absent);
    bool absent(const std::string& path) const;

    /* Descriptors */
    int install(std::shared_ptr<OpenFile> of, int min_fd = 0, bool cloexec = true);
    void bind(int fd, std::shared_ptr<OpenFile> of);
    std::shared_ptr<OpenFile> file(int fd);
    std::shared_ptr<OpenFile> forget(int fd);
    static bool is_board_fd(int fd);
    /* The descriptors open on the node at path, lowest first. */
    std::vector<int> descriptors(const std::string& path);

    /* Models and parameters */
    void add_model(Model* m) { models_.push_back(m); }
    template <class T> T* adopt(std::unique_ptr<T> m)
    {
        T* raw = m.get();
        model_store_.push_back(std::move(m));
        add_model(raw);
        return raw;
    }
    Params& params() { return params_; }
    void advance();
    ns_t next_event();

    /* Journal */
    void journal(const std::string& device, const std::string& op, const std::string& details = "");
    std::vector<std::string> journal_lines();
    void journal_clear();

    /* Faults */
    void add_fault(const Fault& f);
    FaultHit take_fault(const std::string& device, const std::string& op);
    void clear_faults();

    /* Simulated shell commands */
    void set_command_status(const std::string& prefix, int status);
    int command_status(const std::string& command) const;
    bool exit_on_halt() const { return launched_; }

    /* The wait behind poll, select and the sleeps: returns the number of
     * ready entries, 0 on time-out, or -errno. timeout < 0 waits for ever. */
    int wait(struct pollfd* fds, size_t n, ns_t timeout, const sigset_t* mask);
    int sleep_for(ns_t duration, ns_t* left);

    /* Scenarios, state and control */
    std::string apply_scenario(const std::string& text); /* "" or the first error */
    std::string reset(const std::string& scenario); /* "" or the scenario's first error */
    void save_state();
    std::string control(const std::string& line); /* data lines, then "ok" or "error: ..." */

private:
    Board();
    void start();
    void build();
    void load_state();
    void open_control_socket();
    void serve_control(int fd, short revents);

    std::recursive_mutex mu_;
    std::string dir_;
    bool launched_ = false;
    bool temporary_ = false;
    std::string scenario_;
    std::vector<std::unique_ptr<Node>> node_store_;
    std::map<std::string, Node*> nodes_;
    std::vector<std::string> absent_;
    std::map<int, std::shared_ptr<OpenFile>> files_;
    std::vector<Model*> models_;
    std::vector<std::unique_ptr<Model>> model_store_;
    Params params_;
    std::vector<Fault> faults_;
    std::vector<std::pair<std::string, int>> command_status_;
    int journal_fd_ = -1;
    int control_fd_ = -1;
    std::vector<int> control_conns_;
    std::map<int, std::string> control_input_;
    ns_t state_time_ = 0;

    friend void destroy_board();
};

/* Files of the sandbox, through the real libc: the whole content (false when
 * there is no file), and a write that creates missing parent folders. */
bool read_whole_file(const std::string& path, std::string* content);
bool write_whole_file(const std::string& path, const std::string& content);

/* Normalises an absolute path (collapses "//" and "/./", drops a trailing
 * "/"); relative paths are returned unchanged. */
std::string normalize_path(const char* path);

/* Errno names for journals and the control protocol. */
std::string errno_name(int err);
int errno_from_name(const std::string& name);

/* "08 22" */
std::string hex_bytes(const void* data, size_t n);
/* The other way: blank-separated hex bytes appended to *bytes; false (and
 * *bytes unchanged) on anything else. */
bool parse_hex_bytes(const std::string& text, std::string* bytes);
/* Printable text for the journal: escapes control characters and backslashes. */
std::string quote_text(const std::string& s);

/* Registers every device and model of the board (sim/devices/devices.cpp). */
void register_devices(Board& board);

} // namespace sim

#endif

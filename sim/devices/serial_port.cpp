/*
 * The optically isolated serial port /dev/ttyO1.
 *
 * A pseudo-terminal stands for the port, so that termios calls (which the C
 * library makes as direct system calls) work natively on the program's
 * descriptor. The data does not pass through the pty: a pty cannot carry a
 * break, and its line discipline would double a marked 0xFF. What the test
 * face injects is queued and returned by read() exactly as given; a "break"
 * is rendered as the port's termios settings ask (0xFF 0x00 0x00 with
 * PARMRK). What the program writes is journaled and kept.
 */
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <linux/serial.h>
#include <sstream>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "device.h"
#include "syscalls.h"

namespace sim {

namespace {

/* The port's node, which is also its model. */
class OptoPortNode : public Node, public Model {
public:
    OptoPortNode(Board& board, std::string path) : Node(std::move(path), S_IFCHR | 0660), board_(board) {}

    int open(OpenFile& of) override
    {
        if (!make_pty())
            return -EIO;
        of.backing_fd = SIM_REAL(open)(pty_name_.c_str(), O_RDWR | O_NOCTTY | (of.flags & O_CLOEXEC), 0);
        if (of.backing_fd < 0)
            return -errno;
        if (opens_++ == 0)
            rx_.clear(); /* nothing arrived while nobody listened */
        return 0;
    }

    void release(OpenFile&) override { opens_--; }

    int64_t read(OpenFile&, void* buf, size_t n) override
    {
        if (rx_.empty())
            return -EAGAIN;
        size_t count = std::min(n, rx_.size());
        std::copy_n(rx_.begin(), count, static_cast<uint8_t*>(buf));
        rx_.erase(rx_.begin(), rx_.begin() + static_cast<std::ptrdiff_t>(count));
        return static_cast<int64_t>(count);
    }

    int64_t write(OpenFile&, const void* buf, size_t n) override
    {
        std::string text(static_cast<const char*>(buf), n);
        board_.journal(path(), "write", quote_text(text));
        tx_ += text;
        icount_.tx += static_cast<int>(n);
        return static_cast<int64_t>(n);
    }

    short poll(OpenFile&) override { return POLLOUT | POLLWRNORM | (rx_.empty() ? 0 : POLLIN | POLLRDNORM); }

    int ioctl(OpenFile&, unsigned long request, void* arg) override
    {
        if (request == TIOCGICOUNT) {
            memcpy(arg, &icount_, sizeof icount_);
            return 0;
        }
        return SIM_REAL(ioctl)(pty_, request, arg) < 0 ? -errno : 0;
    }

    void reset() override
    {
        rx_.clear();
        tx_.clear();
        icount_ = {};
    }

    void register_params(Params& p)
    {
        p.add({"opto.rx", "bytes the program will read: hex bytes and the word 'break'",
               [this] { return hex_bytes(std::string(rx_.begin(), rx_.end()).data(), rx_.size()); },
               [this](const std::string& t) { return inject(t); }, false});
        p.add_readonly("opto.tx", [this] { return hex_bytes(tx_.data(), tx_.size()); },
                       "everything the program wrote, hex");
    }

private:
    /* One pty for the board's lifetime: like a real port, it keeps its
     * settings between opens. */
    bool make_pty()
    {
        if (pty_ >= 0)
            return true;
        int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        char name[64];
        if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 || ptsname_r(master, name, sizeof name) != 0) {
            if (master >= 0)
                SIM_REAL(close)(master);
            return false;
        }
        pty_ = SIM_REAL(open)(name, O_RDWR | O_NOCTTY | O_CLOEXEC, 0);
        if (pty_ < 0) {
            SIM_REAL(close)(master);
            return false;
        }
        master_ = master;
        pty_name_ = name;
        return true;
    }

    /* The line discipline's rendering of a break (n_tty). */
    std::string break_bytes()
    {
        struct termios t;
        if (tcgetattr(pty_, &t) != 0 || (t.c_iflag & (IGNBRK | BRKINT)))
            return {};
        return (t.c_iflag & PARMRK) ? std::string("\xff\0\0", 3) : std::string(1, '\0');
    }

    bool inject(const std::string& text)
    {
        std::istringstream in(text);
        std::string word, bytes;
        int breaks = 0;
        while (in >> word) {
            if (word == "break") {
                breaks++;
                bytes += pty_ >= 0 ? break_bytes() : "";
                continue;
            }
            if (!parse_hex_bytes(word, &bytes))
                return false;
        }
        icount_.brk += breaks;
        icount_.rx += static_cast<int>(bytes.size());
        if (opens_ > 0)
            rx_.insert(rx_.end(), bytes.begin(), bytes.end());
        return true;
    }

    Board& board_;
    int master_ = -1;
    int pty_ = -1; /* the board's own descriptor of the terminal */
    std::string pty_name_;
    int opens_ = 0;
    std::deque<uint8_t> rx_;
    std::string tx_;
    struct serial_icounter_struct icount_ = {};
};

} // namespace

/* The device: /dev/ttyO1. */
class SerialPort : public Model {
public:
    explicit SerialPort(Board& board)
    {
        board.add_node_model(std::make_unique<OptoPortNode>(board, "/dev/ttyO1"))->register_params(board.params());
    }
};

VELASIM_DEVICE(SerialPort);

} // namespace sim

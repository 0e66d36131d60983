/* The board's control protocol: one text line in, data lines and a final
 * "ok" or "error: ..." out. The same interpreter serves the in-process API
 * of the unit tests and the Unix socket of a running board. */
#include <algorithm>
#include <functional>
#include <map>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "board.h"
#include "control_socket.h"
#include "syscalls.h"

namespace sim {

namespace {

const char kHelp[] =
    "reset                        back to the scenario's board, journal cleared\n"
    "get KEY                      one value\n"
    "set KEY VALUE                change an input or a state value\n"
    "state                        every value, 'key = value'\n"
    "journal                      the journal lines\n"
    "journal-clear                empty the journal\n"
    "fault DEVICE OP ERR [COUNT] [after N]\n"
    "                             the next COUNT (default 1, or 'always') OP calls of\n"
    "                             DEVICE, after N that pass, fail with errno ERR (e.g.\n"
    "                             EREMOTEIO) or, with ERR 'short', transfer one byte\n"
    "                             less; ERR 'cut' or 'cut:K' cuts the power there (a\n"
    "                             write passes K bytes first); OP 'ioctl:NAME' fails one\n"
    "                             request only (ioctl:RTC_WKALM_SET); a redirected path\n"
    "                             (/var/opt/...) covers its files, OP also fsync, rename\n"
    "absent PATH [1|0]            make a file or device disappear (or come back)\n"
    "faults-clear                 remove every fault and absence\n"
    "clock                        mode, board time, monotonic, realtime, time suspended\n"
    "clock mode MODE              real, scaled K, step or warp\n"
    "clock advance DURATION       move board time on (10s, 150ms, 2.5s, 1h)\n"
    "clock advance-to-next        move board time to the next pending event\n"
    "wake [REASON]                end a suspend (REASON default 'control')\n"
    "help                         this text\n";

std::vector<std::string> split_words(const std::string& line)
{
    std::istringstream in(line);
    std::vector<std::string> words;
    std::string w;
    while (in >> w)
        words.push_back(w);
    return words;
}

/* The text after the first n words. */
std::string rest_after(const std::string& line, size_t n)
{
    size_t pos = 0;
    for (size_t i = 0; i < n; i++) {
        pos = line.find_first_not_of(" \t", pos);
        pos = line.find_first_of(" \t", pos);
        if (pos == std::string::npos)
            return {};
    }
    pos = line.find_first_not_of(" \t", pos);
    if (pos == std::string::npos)
        return {};
    size_t end = line.find_last_not_of(" \t\r\n");
    return line.substr(pos, end - pos + 1);
}

std::string error(const std::string& text)
{
    return "error: " + text + "\n";
}

/* "" on success, else the error. */
std::string reply(const std::string& err)
{
    return err.empty() ? "ok\n" : error(err);
}

struct ControlVerb {
    std::string help;
    std::function<std::string(const std::string&, const std::vector<std::string>&)> run;
};

std::map<std::string, ControlVerb>& verbs()
{
    static std::map<std::string, ControlVerb> v;
    return v;
}

} // namespace

void Board::add_control(const std::string& verb, const std::string& help,
                        std::function<std::string(const std::string&, const std::vector<std::string>&)> run)
{
    verbs()[verb] = {help, std::move(run)};
}

std::string Board::clock_command(const std::vector<std::string>& w)
{
    Clock& c = clock();
    if (w.size() == 1) {
        return "mode = " + c.mode_text() + "\nboard = " + format_seconds(c.now()) + "\nmonotonic = " +
               format_seconds(c.monotonic()) + "\nrealtime = " + format_wall_time(c.realtime()) +
               "\nsuspended = " + format_seconds(c.suspended_total()) + "\nok\n";
    }
    if (w[1] == "mode" && w.size() >= 3) {
        std::string mode = w[2];
        for (size_t i = 3; i < w.size(); i++)
            mode += " " + w[i];
        return reply(c.set_mode(mode));
    }
    if (w[1] == "advance" && w.size() == 3) {
        ns_t d = 0;
        if (w[2] == "advance-to-next" || w[2] == "next") {
            ns_t next = next_event();
            if (next == kNever)
                return error("nothing is pending");
            c.advance_to(next);
        } else if (!parse_duration(w[2], &d)) {
            return error("bad duration '" + w[2] + "' (10s, 150ms, 2.5s, 1h)");
        } else {
            c.advance(d);
        }
        advance();
        return format_seconds(c.now()) + "\nok\n";
    }
    if (w[1] == "advance-to-next" && w.size() == 2)
        return clock_command({"clock", "advance", "next"});
    return error("bad clock command (try 'help')");
}

std::string Board::control(const std::string& line)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    advance();
    std::vector<std::string> w = split_words(line);
    if (w.empty())
        return error("empty command");
    const std::string& cmd = w[0];

    if (cmd == "help") {
        std::string text = kHelp;
        for (const auto& [verb, v] : verbs())
            text += v.help;
        return text + "ok\n";
    }
    if (cmd == "clock")
        return clock_command(w);
    if (cmd == "wake" && w.size() <= 2) {
        if (!suspended_)
            return error("the board is not suspended");
        wake(w.size() == 2 ? w[1] : "control");
        return "ok\n";
    }
    auto verb = verbs().find(cmd);
    if (verb != verbs().end())
        return verb->second.run(line, w);
    if (cmd == "reset") {
        std::string err = reset(scenario_);
        return err.empty() ? "ok\n" : error(err);
    }
    if (cmd == "get" && w.size() == 2) {
        const Param* p = params_.find(w[1]);
        return p == nullptr ? error("unknown key '" + w[1] + "'") : p->get() + "\nok\n";
    }
    if (cmd == "set" && w.size() >= 3) {
        return reply(params_.set(w[1], rest_after(line, 2)));
    }
    if (cmd == "state" && w.size() == 1) {
        std::string out;
        for (const auto& [key, p] : params_.all()) {
            if (!p.internal)
                out += key + " = " + p.get() + "\n";
        }
        return out + "ok\n";
    }
    if (cmd == "journal" && w.size() == 1) {
        std::string out;
        for (const std::string& l : journal_lines())
            out += l + "\n";
        return out + "ok\n";
    }
    if (cmd == "journal-clear" && w.size() == 1) {
        journal_clear();
        return "ok\n";
    }
    if (cmd == "fault" && w.size() >= 4 && w.size() <= 7) {
        Fault f;
        f.device = w[1];
        f.op = w[2];
        if (w[3] == "short") {
            f.is_short = true;
        } else if (w[3] == "cut" || w[3].compare(0, 4, "cut:") == 0) {
            f.cut = true;
            if (w[3].size() > 4) {
                char* end = nullptr;
                long keep = strtol(w[3].c_str() + 4, &end, 10);
                if (*end != '\0' || keep < 0 || end == w[3].c_str() + 4)
                    return error("bad byte count in '" + w[3] + "'");
                f.keep = static_cast<size_t>(keep);
            }
        } else {
            f.err = errno_from_name(w[3]);
            if (f.err == 0)
                return error("unknown errno '" + w[3] + "'");
        }
        size_t i = 4;
        if (i < w.size() && w[i] != "after") {
            f.count = w[i] == "always" ? -1 : atoi(w[i].c_str());
            if (f.count <= 0 && w[i] != "always")
                return error("bad count '" + w[i] + "'");
            i++;
        }
        if (i < w.size()) {
            if (w[i] != "after" || i + 2 != w.size())
                return error("bad command '" + line + "' (try 'help')");
            f.skip = atoi(w[i + 1].c_str());
            if (f.skip < 0 || w[i + 1].find_first_not_of("0123456789") != std::string::npos)
                return error("bad count '" + w[i + 1] + "'");
        }
        return reply(add_fault(f));
    }
    if (cmd == "absent" && (w.size() == 2 || w.size() == 3)) {
        if (std::string err = check_path(w[1]); !err.empty())
            return error(err);
        set_absent(w[1], w.size() == 2 || w[2] != "0");
        return "ok\n";
    }
    if (cmd == "faults-clear" && w.size() == 1) {
        clear_faults();
        return "ok\n";
    }
    return error("bad command '" + line + "' (try 'help')");
}

void Board::open_control_socket()
{
    struct sockaddr_un addr;
    if (!control_socket_address(dir_, &addr)) {
        fprintf(stderr, "velasim: %s: path too long for a socket, no control\n", dir_.c_str());
        return;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return;
    SIM_REAL(unlink)(addr.sun_path);
    if (::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 4) != 0) {
        perror("velasim: control socket");
        SIM_REAL(close)(fd);
        return;
    }
    control_fd_ = fd;
}

/* Called from the wait loop when the listening socket or a connection is
 * ready. One command per connection: read a line, answer, close. */
void Board::serve_control(int fd, short revents)
{
    if (fd == control_fd_) {
        int c = accept4(control_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (c >= 0)
            control_conns_.push_back(c);
        return;
    }
    std::string& in = control_input_[fd];
    char buf[512];
    ssize_t n = SIM_REAL(read)(fd, buf, sizeof buf);
    if (n > 0)
        in.append(buf, static_cast<size_t>(n));
    size_t lf = in.find('\n');
    bool closed = n == 0 || (n < 0 && errno != EAGAIN) || (revents & (POLLHUP | POLLERR));
    if (lf == std::string::npos && !closed && in.size() < 4096)
        return;
    if (lf != std::string::npos)
        in.erase(lf);
    std::string answer = in.empty() ? error("empty command") : control(in);
    int flags = SIM_REAL(fcntl)(fd, F_GETFL, nullptr);
    SIM_REAL(fcntl)(fd, F_SETFL, reinterpret_cast<void*>(static_cast<intptr_t>(flags & ~O_NONBLOCK)));
    send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
    SIM_REAL(close)(fd);
    control_input_.erase(fd);
    control_conns_.erase(std::remove(control_conns_.begin(), control_conns_.end(), fd), control_conns_.end());
}

} // namespace sim

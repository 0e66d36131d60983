/* A USB stick in the host port, mounted at /media/sda1 (a plain sandbox
 * directory). What the board simulates of it is the mount table as
 * "grep PATTERN /proc/mounts" sees it (a match while the stick is mounted)
 * and the medium's faults: a stick mounted read-only refuses changes with
 * EROFS, a full one takes new names but no data (ENOSPC). */
#include "commands.h"
#include "device.h"

namespace sim {

namespace {

const char kMountPoint[] = "/media/sda1";

/* The states of the usb.stick key, with the board's medium for each. */
struct State {
    const char* name;
    bool mounted;
    Board::Medium medium;
};
const State kStates[] = {
    {"mounted", true, Board::Medium::Writable},
    {"absent", false, Board::Medium::Writable},
    {"read-only", true, Board::Medium::ReadOnly},
    {"full", true, Board::Medium::Full},
};

} // namespace

class UsbStick : public Model {
public:
    UsbStick(Board& board, Commands& commands) : board_(board)
    {
        board.params().add({"usb.stick", "USB stick at /media/sda1: mounted, absent, read-only or full",
                            [this] { return std::string(state_->name); },
                            [this](const std::string& v) {
                                for (const State& s : kStates) {
                                    if (v == s.name) {
                                        enter(s);
                                        return true;
                                    }
                                }
                                return false;
                            },
                            true});
        commands.define("grep ", [this](const std::string& cmd, std::string* out) { return grep(cmd, out); });
    }

    void reset() override { enter(kStates[0]); }

private:
    /* "grep PATTERN /proc/mounts" (what follows is the shell's
     * redirection): 0 and the line on a match, else 1; grep of anything
     * else finds nothing. */
    int grep(const std::string& cmd, std::string* out)
    {
        std::string rest = cmd.substr(5);
        size_t sp = rest.find(' ');
        if (sp == std::string::npos)
            return 2;
        std::string pattern = rest.substr(0, sp);
        size_t file = rest.find_first_not_of(' ', sp);
        const std::string mtab = "/proc/mounts";
        if (file == std::string::npos || rest.compare(file, mtab.size(), mtab) != 0 ||
            (rest.size() > file + mtab.size() && rest[file + mtab.size()] != ' '))
            return 1;
        std::string mounts;
        if (state_->mounted)
            mounts = std::string("/dev/sda1 ") + kMountPoint + " vfat " +
                     (state_->medium == Board::Medium::ReadOnly ? "ro" : "rw") +
                     ",relatime,fmask=0022,dmask=0022 0 0\n";
        if (pattern.empty() || mounts.find(pattern) == std::string::npos)
            return 1;
        *out = mounts;
        return 0;
    }

    void enter(const State& s)
    {
        state_ = &s;
        board_.set_medium(kMountPoint, s.medium);
    }

    Board& board_;
    const State* state_ = &kStates[0];
};

VELASIM_DEVICE(UsbStick, Commands);

} // namespace sim

/* A USB stick in the host port, mounted at /media/sda1 (a plain sandbox
 * directory). What the board simulates of it is the mount table as
 * "grep PATTERN /proc/mounts" sees it: a match while the stick is mounted. */
#include "commands.h"
#include "device.h"

namespace sim {

namespace {

const char kMountLine[] = "/dev/sda1 /media/sda1 vfat rw,relatime,fmask=0022,dmask=0022 0 0\n";

} // namespace

class UsbStick : public Model {
public:
    UsbStick(Board& board, Commands& commands)
    {
        board.params().add({"usb.stick", "USB stick at /media/sda1: mounted or absent",
                            [this] { return std::string(mounted_ ? "mounted" : "absent"); },
                            [this](const std::string& v) {
                                if (v != "mounted" && v != "absent")
                                    return false;
                                mounted_ = v == "mounted";
                                return true;
                            },
                            true});
        commands.define("grep ", [this](const std::string& cmd, std::string* out) { return grep(cmd, out); });
    }

    void reset() override { mounted_ = true; }

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
        std::string mounts = mounted_ ? kMountLine : "";
        if (pattern.empty() || mounts.find(pattern) == std::string::npos)
            return 1;
        *out = mounts;
        return 0;
    }

    bool mounted_ = true;
};

VELASIM_DEVICE(UsbStick, Commands);

} // namespace sim

/* Who the board is: the four hardware-ID straps (GPIOs hwid0..3, active
 * low), the NAND partitions (/proc/mtd and /dev/mtdN) with the boot
 * loader's image, the boot loader's environment as fw_printenv prints it,
 * the BSP release file and the device tree's model. */
#include <algorithm>
#include <cstring>
#include <sstream>

#include "commands.h"
#include "device.h"
#include "gpio.h"

namespace sim {

namespace {

constexpr int64_t kPartitionSize = 0x20000; /* each partition: one erase block is enough to read from */
constexpr size_t kNameOffset = 32;          /* image name field of the boot loader image's header */
constexpr size_t kNameSize = 32;

/* A partition of the NAND: erased (0xff) but for the boot loader's header. */
class MtdNode : public Node {
public:
    MtdNode(std::string path, std::function<bool()> present, std::function<std::string()> header)
        : Node(std::move(path), S_IFCHR | 0660), present_(std::move(present)), header_(std::move(header))
    {
    }
    int open(OpenFile&) override { return present_() ? 0 : -ENOENT; }
    int64_t size() override { return kPartitionSize; }
    int64_t read(OpenFile& of, void* buf, size_t n) override
    {
        if (of.pos >= kPartitionSize)
            return 0;
        size_t count = std::min<size_t>(n, static_cast<size_t>(kPartitionSize - of.pos));
        std::string head = header_();
        for (size_t i = 0; i < count; i++) {
            size_t at = static_cast<size_t>(of.pos) + i;
            static_cast<char*>(buf)[i] = at < head.size() ? head[at] : '\xff';
        }
        of.pos += static_cast<int64_t>(count);
        return static_cast<int64_t>(count);
    }
    int64_t write(OpenFile&, const void*, size_t) override { return -EROFS; } /* nobody writes the boot loader here */

private:
    std::function<bool()> present_;
    std::function<std::string()> header_;
};

} // namespace

class Identity : public Model {
public:
    Identity(Board& board, Commands& commands) : board_(board)
    {
        Params& p = board.params();
        for (int bit = 0; bit < 4; bit++) {
            straps_[bit] = GpioLine::input(board, "hwid" + std::to_string(bit), 1);
            p.add_int("identity.hwid" + std::to_string(bit), &levels_[bit],
                      "level of ID strap " + std::to_string(bit) + " (0 sets its bit of the revision)", 0, 1);
        }
        p.add({"identity.straps", "hardware revision value 0..15 of the four straps (A = 0, B = 1, ...)",
               [this] {
                   int v = 0;
                   for (int bit = 0; bit < 4; bit++)
                       v |= levels_[bit] == 0 ? 1 << bit : 0;
                   return std::to_string(v);
               },
               [this](const std::string& t) {
                   char* end = nullptr;
                   long v = strtol(t.c_str(), &end, 0);
                   if (end == t.c_str() || *end != '\0' || v < 0 || v > 15)
                       return false;
                   for (int bit = 0; bit < 4; bit++)
                       levels_[bit] = (v >> bit) & 1 ? 0 : 1;
                   return true;
               },
               false});
        /* Values behind the redirected files rewrite them when set. */
        auto file_param = [&](const std::string& key, std::string* v, const std::string& doc) {
            p.add({key, doc, [v] { return *v; },
                   [this, v](const std::string& t) {
                       *v = t;
                       create_files(board_);
                       return true;
                   },
                   true});
        };
        file_param("mtd.partitions", &partitions_, "NAND partition names in /proc/mtd order, blank-separated");
        p.add_string("mtd.uboot_name", &uboot_name_, "image name in the header of the NAND.u-boot partition");
        p.add_string("bootenv.serial", &serial_, "serial# of the boot loader's environment (empty: not set)");
        p.add_string("bootenv.hwrev_extra", &hwrev_extra_, "hwrev_extra of the environment (empty: not set)");
        p.add_string("bootenv.more", &more_env_, "further environment lines, name=value, comma-separated");
        file_param("identity.bsp_release", &bsp_release_, "first line of /etc/bsp-release");
        file_param("identity.model", &model_, "the device tree's model");
        /* Enough nodes for any table a scenario gives; those beyond it are
         * absent. */
        for (int n = 0; n < kMaxPartitions; n++) {
            std::string path = "/dev/mtd" + std::to_string(n);
            board.add_node(std::make_unique<MtdNode>(path, [this, n] { return names().size() > static_cast<size_t>(n); },
                                                     [this, n] { return header(n); }));
        }
        commands.define("/usr/sbin/fw_printenv", [this](const std::string&, std::string* out) {
            *out = environment();
            return 0;
        });
    }

    void reset() override
    {
        std::fill(std::begin(levels_), std::end(levels_), 1); /* revision A */
        partitions_ = "NAND.SPL NAND.SPL.backup1 NAND.SPL.backup2 NAND.SPL.backup3 NAND.u-boot NAND.u-boot-env "
                      "NAND.u-boot-env.backup1 NAND.kernel NAND.file-system";
        uboot_name_ = "U-Boot 2013.10-00042 (Mar 14 2014 - 10:21:17)";
        serial_ = "V0001234";
        hwrev_extra_.clear();
        more_env_ = "baudrate=115200,bootdelay=1";
        bsp_release_ = "v3.0";
        model_ = "VELA";
    }

    void advance(ns_t) override
    {
        for (int bit = 0; bit < 4; bit++)
            straps_[bit]->drive(levels_[bit]);
    }

    /* The redirected files follow the parameters. */
    void create_files(Board& board) override
    {
        std::string table = "dev:    size   erasesize  name\n";
        std::vector<std::string> parts = names();
        for (size_t n = 0; n < parts.size(); n++) {
            char line[160];
            snprintf(line, sizeof line, "mtd%zu: %08llx %08x \"%s\"\n", n, static_cast<unsigned long long>(kPartitionSize),
                     0x20000u, parts[n].c_str());
            table += line;
        }
        write_whole_file(board.fs_path("/proc/mtd"), table);
        write_whole_file(board.fs_path("/etc/bsp-release"), bsp_release_ + "\n");
        write_whole_file(board.fs_path("/proc/device-tree/model"), model_ + std::string(1, '\0'));
    }

private:
    static constexpr int kMaxPartitions = 16;

    std::vector<std::string> names() const
    {
        std::istringstream in(partitions_);
        std::vector<std::string> v;
        std::string w;
        while (in >> w && v.size() < kMaxPartitions)
            v.push_back(w);
        return v;
    }

    /* The partition named exactly NAND.u-boot holds the image. */
    std::string header(int n) const
    {
        std::vector<std::string> parts = names();
        if (static_cast<size_t>(n) >= parts.size() || parts[n] != "NAND.u-boot")
            return {};
        std::string h(kNameOffset + kNameSize, '\0');
        const uint8_t magic[4] = {0x27, 0x05, 0x19, 0x56};
        memcpy(h.data(), magic, sizeof magic);
        memcpy(h.data() + kNameOffset, uboot_name_.data(), std::min(uboot_name_.size(), kNameSize));
        return h;
    }

    std::string environment() const
    {
        std::string env;
        std::string more = more_env_;
        std::replace(more.begin(), more.end(), ',', '\n');
        if (!more.empty())
            env += more + "\n";
        if (!hwrev_extra_.empty())
            env += "hwrev_extra=" + hwrev_extra_ + "\n";
        if (!serial_.empty())
            env += "serial#=" + serial_ + "\n";
        return env;
    }

    Board& board_;
    GpioLine* straps_[4] = {};
    int levels_[4] = {1, 1, 1, 1};
    std::string partitions_, uboot_name_, serial_, hwrev_extra_, more_env_, bsp_release_, model_;
};

VELASIM_DEVICE(Identity, Commands);

} // namespace sim

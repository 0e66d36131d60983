/* The board's own namespace. Paths under a root belong to the board: a node,
 * a directory of nodes, or nothing (ENOENT); the host's files there are
 * never touched. Redirected paths are ordinary files kept in the sandbox
 * under fs/. */
#include <algorithm>
#include <filesystem>

#include "board.h"

namespace sim {

namespace {

const char* const kBoardRoots[] = {
    "/dev/i2c-", "/dev/spidev", "/dev/uio", "/dev/rtc", "/dev/input", "/dev/fb", "/dev/ttyO",
    "/dev/mtd", "/sys/class", "/sys/bus/iio", "/sys/power", "/sys/devices/system/cpu/cpu0/cpufreq",
    "/sys/devices/platform", "/sys/bus/platform", "/sys/devices/leds.4",
};

const struct {
    const char* path;
    bool is_dir;
} kRedirects[] = {
    {"/var/opt", true},         {"/home/root", true},        {"/media/sda1", true},
    {"/proc/device-tree", true}, {"/tmp/environment.txt", false}, {"/etc/bsp-release", false},
    {"/proc/mtd", false},       {"/usr/bin/psplash", false},
};

bool under_any_root(const std::string& p)
{
    return std::any_of(std::begin(kBoardRoots), std::end(kBoardRoots),
                       [&](const char* r) { return path_has_prefix(p, r); });
}

bool under_any_redirect(const std::string& p)
{
    return std::any_of(std::begin(kRedirects), std::end(kRedirects),
                       [&](const auto& r) { return path_has_prefix(p, r.path); });
}

} // namespace

bool path_has_prefix(const std::string& path, const std::string& prefix)
{
    if (path.compare(0, prefix.size(), prefix) != 0)
        return false;
    char last = prefix.back();
    if (path.size() == prefix.size() || last == '/' || last == '-')
        return true;
    char next = path[prefix.size()];
    return next == '/' || (next >= '0' && next <= '9');
}

std::string normalize_path(const char* path)
{
    std::string in(path != nullptr ? path : "");
    if (in.empty() || in[0] != '/')
        return in;
    std::string out;
    size_t i = 0;
    while (i < in.size()) {
        while (i < in.size() && in[i] == '/')
            i++;
        size_t j = in.find('/', i);
        if (j == std::string::npos)
            j = in.size();
        std::string comp = in.substr(i, j - i);
        if (!comp.empty() && comp != ".")
            out += "/" + comp;
        i = j;
    }
    return out.empty() ? "/" : out;
}

/* The sandbox's fs/ tree with the redirected folders, and the parents of the
 * redirected files, in place. */
void make_sandbox_dirs(const std::string& fs)
{
    std::error_code ec;
    for (const auto& r : kRedirects) {
        std::string p = fs + r.path;
        std::filesystem::create_directories(r.is_dir ? p : p.substr(0, p.rfind('/')), ec);
    }
}

/* A quick first test for every path call of the process. */
bool maybe_board_path(const char* path)
{
    if (path == nullptr || path[0] != '/')
        return false;
    std::string p = normalize_path(path);
    return under_any_root(p) || under_any_redirect(p);
}

void Board::add_node(std::unique_ptr<Node> node)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    nodes_[node->path()] = node.get();
    node_store_.push_back(std::move(node));
}

Node* Board::find_node(const std::string& path)
{
    auto it = nodes_.find(path);
    return it == nodes_.end() ? nullptr : it->second;
}

bool Board::owned(const std::string& path) const
{
    return under_any_root(path);
}

bool Board::redirected(const std::string& path) const
{
    return under_any_redirect(path);
}

bool Board::is_dir(const std::string& path) const
{
    std::string prefix = path == "/" ? path : path + "/";
    auto it = nodes_.lower_bound(prefix);
    return it != nodes_.end() && it->first.compare(0, prefix.size(), prefix) == 0;
}

std::string Board::check_path(const std::string& path) const
{
    std::string p = normalize_path(path.c_str());
    if (nodes_.count(p) > 0 || is_dir(p) || redirected(p))
        return {};
    return "'" + path + "' is no device, directory or redirected file of the board";
}

void Board::set_absent(const std::string& path, bool absent)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    std::string p = normalize_path(path.c_str());
    absent_.erase(std::remove(absent_.begin(), absent_.end(), p), absent_.end());
    if (absent)
        absent_.push_back(p);
}

bool Board::absent(const std::string& path) const
{
    return std::any_of(absent_.begin(), absent_.end(), [&](const std::string& a) { return path_has_prefix(path, a); });
}

void Board::set_medium(const std::string& folder, Medium m)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    std::string p = normalize_path(folder.c_str());
    if (m == Medium::Writable)
        media_.erase(p);
    else
        media_[p] = m;
}

Board::Medium Board::medium(const std::string& path) const
{
    for (const auto& [folder, m] : media_)
        if (path_has_prefix(path, folder))
            return m;
    return Medium::Writable;
}

} // namespace sim

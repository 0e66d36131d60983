#include "attr.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "syscalls.h"

namespace sim {

int64_t AttrNode::read(OpenFile& of, void* buf, size_t n)
{
    if (of.pos == 0)
        of.seen_event = event_;
    std::string text = show();
    if (of.pos >= static_cast<int64_t>(text.size()))
        return 0;
    size_t count = std::min(n, text.size() - static_cast<size_t>(of.pos));
    memcpy(buf, text.data() + of.pos, count);
    of.pos += static_cast<int64_t>(count);
    return static_cast<int64_t>(count);
}

int64_t AttrNode::write(OpenFile&, const void* buf, size_t n)
{
    if (n == 0)
        return 0;
    std::string text(static_cast<const char*>(buf), n);
    int err = store(text);
    board_.journal(path(), "write", quote_text(text) + (err < 0 ? " -> " + errno_name(-err) : ""));
    return err < 0 ? err : static_cast<int64_t>(n);
}

short AttrNode::poll(OpenFile& of)
{
    short ev = POLLIN | POLLRDNORM | POLLOUT | POLLWRNORM;
    if (of.seen_event != event_)
        ev |= POLLPRI | POLLERR;
    return ev;
}

FileAttr::FileAttr(Board& board, std::string path, mode_t mode, std::string initial,
                   std::function<int(const std::string&)> check)
    : AttrNode(board, std::move(path), mode), initial_(std::move(initial)), check_(std::move(check))
{
}

std::string FileAttr::show()
{
    std::string file = board_.fs_path(path());
    std::string text;
    int fd = SIM_REAL(open)(file.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return initial_;
    char buf[4096];
    ssize_t n;
    while ((n = SIM_REAL(read)(fd, buf, sizeof buf)) > 0)
        text.append(buf, static_cast<size_t>(n));
    SIM_REAL(close)(fd);
    return text;
}

int FileAttr::store(const std::string& text)
{
    if (check_) {
        int err = check_(text);
        if (err < 0)
            return err;
    }
    std::string file = board_.fs_path(path());
    int fd = SIM_REAL(open)(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644u);
    if (fd < 0)
        return -EIO;
    bool ok = SIM_REAL(write)(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    SIM_REAL(close)(fd);
    return ok ? 0 : -EIO;
}

void FileAttr::create_default()
{
    std::string file = board_.fs_path(path());
    if (SIM_REAL(access)(file.c_str(), F_OK) == 0)
        return;
    std::string dir = file.substr(0, file.rfind('/'));
    for (size_t i = 1; i <= dir.size(); i++) {
        if (i == dir.size() || dir[i] == '/')
            SIM_REAL(mkdir)(dir.substr(0, i).c_str(), 0755u);
    }
    int fd = SIM_REAL(open)(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644u);
    if (fd >= 0) {
        ssize_t w = SIM_REAL(write)(fd, initial_.data(), initial_.size());
        (void)w;
        SIM_REAL(close)(fd);
    }
}

bool parse_kernel_long(const std::string& text, long* value)
{
    std::string s = text;
    if (!s.empty() && s.back() == '\n')
        s.pop_back();
    if (s.empty() || isspace(static_cast<unsigned char>(s[0])))
        return false;
    char* end = nullptr;
    errno = 0;
    long v = strtol(s.c_str(), &end, 0);
    if (errno != 0 || *end != '\0')
        return false;
    *value = v;
    return true;
}

bool sysfs_streq(const std::string& text, const char* word)
{
    std::string s = text;
    if (!s.empty() && s.back() == '\n')
        s.pop_back();
    return s == word;
}

} // namespace sim

#include "attr.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "syscalls.h"

namespace sim {

namespace {

/* The text of the last read from offset 0. */
struct AttrText : OpenState {
    std::string text;
    bool valid = false;
};

} // namespace

int AttrNode::open(OpenFile& of)
{
    of.state = std::make_unique<AttrText>();
    return 0;
}

int64_t AttrNode::read(OpenFile& of, void* buf, size_t n)
{
    auto& snap = static_cast<AttrText&>(*of.state);
    if (of.pos == 0 || !snap.valid) {
        if (of.pos == 0)
            of.seen_event = event_;
        snap.text = show();
        snap.valid = true;
    }
    const std::string& text = snap.text;
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
    std::string text;
    return read_whole_file(board_.fs_path(path()), &text) ? text : initial_;
}

int FileAttr::store(const std::string& text)
{
    if (check_) {
        int err = check_(text);
        if (err < 0)
            return err;
    }
    return write_whole_file(board_.fs_path(path()), text, board_.dir()) ? 0 : -EIO;
}

void FileAttr::create_default()
{
    std::string file = board_.fs_path(path());
    if (SIM_REAL(access)(file.c_str(), F_OK) != 0)
        write_whole_file(file, initial_, board_.dir());
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

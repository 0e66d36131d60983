/* Small helpers of the board: sandbox files, hex and text for the journal,
 * errno and ioctl names for the control protocol, and the nodes' defaults. */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/rtc.h>
#include <linux/spi/spidev.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "board.h"
#include "syscalls.h"

namespace sim {

namespace {

const struct {
    int err;
    const char* name;
} kErrnoNames[] = {
    {EPERM, "EPERM"},   {ENOENT, "ENOENT"},       {EINTR, "EINTR"},         {EIO, "EIO"},
    {ENXIO, "ENXIO"},   {EBADF, "EBADF"},         {EAGAIN, "EAGAIN"},       {ENOMEM, "ENOMEM"},
    {EACCES, "EACCES"}, {EFAULT, "EFAULT"},       {EBUSY, "EBUSY"},         {EEXIST, "EEXIST"},
    {ENODEV, "ENODEV"}, {ENOTDIR, "ENOTDIR"},     {EISDIR, "EISDIR"},       {EINVAL, "EINVAL"},
    {ENOSPC, "ENOSPC"}, {EROFS, "EROFS"},         {ENOTTY, "ENOTTY"},       {ENOSYS, "ENOSYS"},
    {ETIMEDOUT, "ETIMEDOUT"}, {EREMOTEIO, "EREMOTEIO"}, {EOPNOTSUPP, "EOPNOTSUPP"},
    {EPROTO, "EPROTO"}, {ERANGE, "ERANGE"},       {EFBIG, "EFBIG"},         {ETIME, "ETIME"},
    {EMSGSIZE, "EMSGSIZE"},
};

#define IOCTL_NAME(x) {#x, static_cast<unsigned long>(x)}
const struct {
    const char* name;
    unsigned long request;
} kIoctlNames[] = {
    IOCTL_NAME(RTC_RD_TIME),   IOCTL_NAME(RTC_SET_TIME),     IOCTL_NAME(RTC_WKALM_SET),
    IOCTL_NAME(RTC_WKALM_RD),  IOCTL_NAME(RTC_AIE_ON),       IOCTL_NAME(RTC_AIE_OFF),
    IOCTL_NAME(RTC_ALM_SET),   IOCTL_NAME(RTC_ALM_READ),     IOCTL_NAME(I2C_SLAVE),
    IOCTL_NAME(I2C_SLAVE_FORCE), IOCTL_NAME(I2C_RDWR),       IOCTL_NAME(I2C_FUNCS),
    IOCTL_NAME(SPI_IOC_WR_MODE), IOCTL_NAME(SPI_IOC_WR_BITS_PER_WORD), IOCTL_NAME(SPI_IOC_WR_MAX_SPEED_HZ),
    IOCTL_NAME(SPI_IOC_MESSAGE(1)), IOCTL_NAME(TIOCGICOUNT), IOCTL_NAME(TCGETS), IOCTL_NAME(TCSETS),
};
#undef IOCTL_NAME

} // namespace

bool read_whole_file(const std::string& path, std::string* content)
{
    int fd = SIM_REAL(open)(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return false;
    content->clear();
    char buf[4096];
    ssize_t n;
    while ((n = SIM_REAL(read)(fd, buf, sizeof buf)) > 0)
        content->append(buf, static_cast<size_t>(n));
    SIM_REAL(close)(fd);
    return n == 0;
}

/* A program killed in the middle leaves the old file or the new one, never
 * a torn one. Folders are made only below root: the board never creates
 * (or even tries to create) anything outside its own directory. */
bool write_whole_file(const std::string& path, const std::string& content, const std::string& root)
{
    if (!root.empty() && path.compare(0, root.size() + 1, root + "/") == 0) {
        for (size_t i = path.find('/', root.size() + 1); i != std::string::npos; i = path.find('/', i + 1))
            SIM_REAL(mkdir)(path.substr(0, i).c_str(), 0755u);
    }
    std::string tmp = path + ".velasim-tmp";
    int fd = SIM_REAL(open)(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644u);
    if (fd < 0)
        return false;
    bool ok = SIM_REAL(write)(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    ok = SIM_REAL(close)(fd) == 0 && ok;
    if (ok && SIM_REAL(rename)(tmp.c_str(), path.c_str()) == 0)
        return true;
    SIM_REAL(unlink)(tmp.c_str());
    return false;
}

std::string errno_name(int err)
{
    for (const auto& e : kErrnoNames) {
        if (e.err == err)
            return e.name;
    }
    return std::to_string(err);
}

int errno_from_name(const std::string& name)
{
    for (const auto& e : kErrnoNames) {
        if (name == e.name)
            return e.err;
    }
    char* end = nullptr;
    long v = strtol(name.c_str(), &end, 10);
    return (end != name.c_str() && *end == '\0' && v > 0 && v < 4096) ? static_cast<int>(v) : 0;
}

unsigned long ioctl_from_name(const std::string& name)
{
    for (const auto& i : kIoctlNames) {
        if (name == i.name)
            return i.request;
    }
    char* end = nullptr;
    unsigned long v = strtoul(name.c_str(), &end, 0);
    return (end != name.c_str() && *end == '\0') ? v : 0;
}

std::string hex_bytes(const void* data, size_t n)
{
    std::string s;
    const unsigned char* p = static_cast<const unsigned char*>(data);
    char buf[4];
    for (size_t i = 0; i < n; i++) {
        snprintf(buf, sizeof buf, i ? " %02x" : "%02x", p[i]);
        s += buf;
    }
    return s;
}

bool parse_hex_bytes(const std::string& text, std::string* bytes)
{
    std::istringstream in(text);
    std::string word, out;
    while (in >> word) {
        char* end = nullptr;
        unsigned long b = strtoul(word.c_str(), &end, 16);
        if (word.size() > 2 || *end != '\0')
            return false;
        out += static_cast<char>(b);
    }
    *bytes += out;
    return true;
}

std::string quote_text(const std::string& s)
{
    std::string out;
    for (unsigned char c : s) {
        switch (c) {
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case '\\': out += "\\\\"; break;
        default:
            if (c < 0x20 || c >= 0x7f) {
                char buf[8];
                snprintf(buf, sizeof buf, "\\x%02x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out;
}

std::string trim(const std::string& s)
{
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos)
        return {};
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

/* ---- Node defaults: a file with no content ---- */

int Node::open(OpenFile&)
{
    return 0;
}

int64_t Node::read(OpenFile&, void*, size_t)
{
    return 0;
}

int64_t Node::write(OpenFile&, const void*, size_t)
{
    return -EINVAL;
}

int Node::ioctl(OpenFile&, unsigned long, void*)
{
    return -ENOTTY;
}

short Node::poll(OpenFile&)
{
    return POLLIN | POLLOUT | POLLRDNORM | POLLWRNORM;
}

int64_t Node::seek(OpenFile& of, int64_t off, int whence)
{
    int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? of.pos : whence == SEEK_END ? size() : -1;
    if (base < 0 || base + off < 0)
        return -EINVAL;
    of.pos = base + off;
    return of.pos;
}

void* Node::mmap(OpenFile&, void*, size_t, int, int, int64_t, int* err)
{
    *err = ENODEV;
    return MAP_FAILED;
}

} // namespace sim

/* A sysfs-style attribute: text produced once on a read from offset 0 and
 * served from that copy for the reads that follow, one store per write, and
 * the kernel's change notification (poll POLLPRI|POLLERR, select exception)
 * until the file is read again from offset 0. */
#ifndef VELASIM_ATTR_H
#define VELASIM_ATTR_H

#include <functional>
#include <string>

#include "board.h"

namespace sim {

class AttrNode : public Node {
public:
    AttrNode(Board& board, std::string path, mode_t mode) : Node(std::move(path), S_IFREG | mode), board_(board) {}

    virtual std::string show() = 0;
    /* 0 or -errno, as the kernel's store callback would refuse the text. */
    virtual int store(const std::string&) { return -EIO; }

    /* A change the kernel would announce with sysfs_notify(). */
    void notify() { event_++; }

    int open(OpenFile& of) override;
    int64_t read(OpenFile& of, void* buf, size_t n) override;
    int64_t write(OpenFile& of, const void* buf, size_t n) override;
    short poll(OpenFile& of) override;
    int64_t size() override { return 4096; }
    bool passive() const override { return true; }

protected:
    Board& board_;

private:
    uint64_t event_ = 1; /* open files start at 0: a first wait returns at once */
};

/* An attribute whose show/store are given as functions. */
class FuncAttr : public AttrNode {
public:
    FuncAttr(Board& board, std::string path, mode_t mode, std::function<std::string()> show,
             std::function<int(const std::string&)> store = nullptr)
        : AttrNode(board, std::move(path), mode), show_(std::move(show)), store_(std::move(store))
    {
    }
    std::string show() override { return show_(); }
    int store(const std::string& text) override { return store_ ? store_(text) : -EIO; }

private:
    std::function<std::string()> show_;
    std::function<int(const std::string&)> store_;
};

/* A writable attribute whose value lives in a sandbox file, so that it
 * survives a restart of the simulated instrument. */
class FileAttr : public AttrNode {
public:
    FileAttr(Board& board, std::string path, mode_t mode, std::string initial,
             std::function<int(const std::string&)> check = nullptr);
    std::string show() override;
    int store(const std::string& text) override;
    void create_default();

private:
    std::string initial_;
    std::function<int(const std::string&)> check_;
};

/* kstrtol() as sysfs stores use it: whole text, one trailing newline allowed. */
bool parse_kernel_long(const std::string& text, long* value);
/* sysfs_streq(): equal but for one trailing newline. */
bool sysfs_streq(const std::string& text, const char* word);

} // namespace sim

#endif

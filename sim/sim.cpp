#include "sim.h"

#include <cstdio>

#include "board.h"
#include "guard.h"

namespace sim {

std::string reset(const std::string& scenario)
{
    Guard g;
    return Board::get().reset(scenario);
}

std::string control(const std::string& command)
{
    Guard g;
    return Board::get().control(command);
}

std::vector<std::string> journal()
{
    Guard g;
    return Board::get().journal_lines();
}

std::vector<std::string> journal_entries()
{
    std::vector<std::string> lines = journal();
    for (std::string& l : lines) {
        size_t sp = l.find(' ');
        l = sp == std::string::npos ? l : l.substr(sp + 1);
    }
    return lines;
}

void journal_clear()
{
    Guard g;
    Board::get().journal_clear();
}

std::string get(const std::string& key)
{
    Guard g;
    Board& b = Board::get();
    std::lock_guard<std::recursive_mutex> lock(b.mutex());
    b.advance();
    const Param* p = b.params().find(key);
    return p != nullptr ? p->get() : std::string();
}

bool set(const std::string& key, const std::string& value)
{
    Guard g;
    Board& b = Board::get();
    std::lock_guard<std::recursive_mutex> lock(b.mutex());
    b.advance();
    std::string err = b.params().set(key, value);
    if (!err.empty())
        fprintf(stderr, "sim::set: %s\n", err.c_str());
    return err.empty();
}

bool fault(const std::string& device, const std::string& op, int err, int count)
{
    Guard g;
    Fault f;
    f.device = device;
    f.op = op;
    f.err = err;
    f.is_short = err == 0;
    f.count = count;
    std::string why = Board::get().add_fault(f);
    if (!why.empty())
        fprintf(stderr, "sim::fault: %s\n", why.c_str());
    return why.empty();
}

bool clock_mode(const std::string& mode)
{
    Guard g;
    Board& b = Board::get();
    std::lock_guard<std::recursive_mutex> lock(b.mutex());
    b.advance();
    std::string err = clock().set_mode(mode);
    if (!err.empty())
        fprintf(stderr, "sim::clock_mode: %s\n", err.c_str());
    return err.empty();
}

void advance_clock(int64_t ns)
{
    Guard g;
    Board& b = Board::get();
    std::lock_guard<std::recursive_mutex> lock(b.mutex());
    clock().advance(ns);
    b.advance();
}

int64_t board_ns()
{
    return clock().now();
}

int64_t monotonic_ns()
{
    return clock().monotonic();
}

std::vector<int> descriptors(const std::string& path)
{
    Guard g;
    return Board::get().descriptors(path);
}

std::string sandbox()
{
    Guard g;
    return Board::get().dir();
}

void advance()
{
    Guard g;
    Board::get().advance();
}

} // namespace sim

/* The journal: what the program did to the hardware, one line each. It only
 * records; the board's state is saved when the program waits or exits. */
#include <sstream>
#include <unistd.h>

#include "board.h"
#include "syscalls.h"

namespace sim {

void Board::journal(const std::string& device, const std::string& op, const std::string& details)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    std::string line = format_seconds(model_time_ >= 0 ? model_time_ : now_ns()) + " " + device + " " + op;
    if (!details.empty())
        line += " " + details;
    line += "\n";
    if (journal_fd_ >= 0) {
        ssize_t w = SIM_REAL(write)(journal_fd_, line.data(), line.size());
        (void)w;
    }
}

std::vector<std::string> Board::journal_lines()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    std::string text;
    read_whole_file(dir_ + "/journal", &text);
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

void Board::journal_clear()
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    if (journal_fd_ >= 0 && ftruncate(journal_fd_, 0) != 0)
        perror("velasim: journal");
}

} // namespace sim

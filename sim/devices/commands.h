/* The board's shell commands: system() never runs anything on the host. A
 * command is journaled with the exit status it gets: the one a test scripted
 * for its prefix, else what the device that defined it answers, else 0.
 * Output redirected with "> PATH" lands at PATH on the board. "halt -p" and
 * "shutdown" end the simulated instrument under the launcher. */
#ifndef VELASIM_COMMANDS_H
#define VELASIM_COMMANDS_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "board.h"

namespace sim {

class Commands : public Model {
public:
    /* Runs a command (without its redirection); returns the exit status and
     * appends what it prints to *out. */
    using Handler = std::function<int(const std::string& command, std::string* out)>;

    explicit Commands(Board& board);
    /* Commands starting with prefix run handler. */
    void define(const std::string& prefix, Handler handler);
    /* system()'s answer: the wait status. */
    int run(const std::string& command);
    void reset() override { scripted_.clear(); }

private:
    Board& board_;
    std::vector<std::pair<std::string, int>> scripted_;
    std::vector<std::pair<std::string, Handler>> defined_;
};

} // namespace sim

#endif

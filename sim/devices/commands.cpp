#include "commands.h"

#include <cstdio>
#include <unistd.h>

#include "device.h"
#include "guard.h"
#include "syscalls.h"

namespace sim {

namespace {

bool starts_with(const std::string& s, const std::string& prefix)
{
    return s.compare(0, prefix.size(), prefix) == 0;
}

/* "CMD > PATH": the command and the path its output goes to. */
std::pair<std::string, std::string> split_redirection(const std::string& command)
{
    size_t gt = command.rfind('>');
    if (gt == std::string::npos)
        return {command, ""};
    return {trim(command.substr(0, gt)), trim(command.substr(gt + 1))};
}

} // namespace

Commands::Commands(Board& board) : board_(board)
{
    board.add_control("command",
                      "command STATUS PREFIX...     exit status of simulated commands starting with PREFIX\n",
                      [this](const std::string& line, const std::vector<std::string>& w) {
                          char* end = nullptr;
                          long status = w.size() >= 3 ? strtol(w[1].c_str(), &end, 10) : -1;
                          if (w.size() < 3 || *end != '\0' || status < 0 || status > 255)
                              return std::string("error: usage: command STATUS PREFIX (STATUS 0..255)\n");
                          size_t at = line.find(w[2], line.find(w[1]) + w[1].size());
                          scripted_.emplace_back(trim(line.substr(at)), static_cast<int>(status));
                          return std::string("ok\n");
                      });
}

void Commands::define(const std::string& prefix, Handler handler)
{
    defined_.emplace_back(prefix, std::move(handler));
}

int Commands::run(const std::string& command)
{
    auto [cmd, target] = split_redirection(command);
    std::string out;
    int status = 0;
    bool scripted = false;
    /* The latest matching setting wins. */
    for (auto it = scripted_.rbegin(); it != scripted_.rend() && !scripted; ++it) {
        if (starts_with(command, it->first)) {
            status = it->second;
            scripted = true;
        }
    }
    for (auto it = defined_.rbegin(); it != defined_.rend() && !scripted; ++it) {
        if (starts_with(cmd, it->first)) {
            status = it->second(cmd, &out);
            break;
        }
    }
    /* The shell creates the target before the command runs; only the
     * board's own files can be written. */
    if (!target.empty() && board_.redirected(normalize_path(target.c_str())))
        write_whole_file(board_.fs_path(target), out);
    board_.journal("system", "\"" + quote_text(command) + "\"", std::to_string(status));
    bool halt = starts_with(command, "halt -p") || command.find("shutdown") != std::string::npos;
    if (halt && board_.exit_on_halt()) {
        fflush(nullptr);
        board_.shutdown();
        _exit(0);
    }
    return status << 8; /* as waitpid() reports an exit status */
}

VELASIM_DEVICE(Commands);

} // namespace sim

extern "C" int sim_system(int* r, const char* command)
{
    using namespace sim;
    Guard g;
    if (g.nested() || Board::instance() == nullptr) /* a process that stays out of the board */
        return 0;
    ErrnoKeeper e;
    if (command == nullptr) {
        *r = 1; /* a shell is "available" */
        return 1;
    }
    Board& b = Board::get();
    std::lock_guard<std::recursive_mutex> lock(b.mutex());
    *r = b.device<Commands>().run(command);
    return 1;
}

#include "simrun.h"

#include <sstream>

namespace vt {

std::vector<std::string> under_board(const std::string& dir, const std::vector<std::string>& args,
                                     const std::string& scenario_file, const std::string& clock)
{
    std::vector<std::string> argv = {VELASIM_PATH, "run", "--dir", dir};
    if (!scenario_file.empty())
        argv.insert(argv.end(), {"--scenario", scenario_file});
    if (!clock.empty())
        argv.insert(argv.end(), {"--clock", clock});
    argv.push_back("--");
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

ProcessResult board_ctl(const std::string& dir, const std::vector<std::string>& command)
{
    std::vector<std::string> argv = {VELASIM_PATH, "ctl", "--dir", dir};
    argv.insert(argv.end(), command.begin(), command.end());
    return run_process(argv);
}

std::vector<std::string> journal_in(const std::string& dir)
{
    std::vector<std::string> lines;
    std::istringstream in(read_file(dir + "/journal"));
    std::string line;
    while (std::getline(in, line)) {
        size_t sp = line.find(' ');
        lines.push_back(sp == std::string::npos ? line : line.substr(sp + 1));
    }
    return lines;
}

SimBoard::SimBoard(const std::string& scenario)
{
    write_file(tmp_.file("scenario.ini"), scenario);
}

/* The first run hands the scenario to the launcher, which builds a new
 * board; later runs continue the same board as a restarted program would. */
std::vector<std::string> SimBoard::command(const std::vector<std::string>& args)
{
    std::vector<std::string> argv = {VELATOOL_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    bool fresh = fresh_;
    fresh_ = false;
    return under_board(tmp_.file("board"), argv, fresh ? tmp_.file("scenario.ini") : "");
}

ProcessResult SimBoard::velatool(const std::vector<std::string>& args, int timeout_ms)
{
    ProcessOptions opts;
    opts.timeout_ms = timeout_ms;
    return run_process(command(args), opts);
}

bool SimBoard::start(ChildProcess& child, const std::vector<std::string>& args)
{
    return child.start(command(args));
}

bool SimBoard::await_journal(const std::string& needle, int timeout_ms) const
{
    return eventually([&] { return !grep(journal(), needle).empty(); }, timeout_ms);
}

std::vector<std::string> grep(const std::vector<std::string>& lines, const std::string& needle)
{
    std::vector<std::string> out;
    for (const std::string& l : lines) {
        if (l.find(needle) != std::string::npos)
            out.push_back(l);
    }
    return out;
}

size_t count_of(const std::string& text, const std::string& needle)
{
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        n++;
    return n;
}

} // namespace vt

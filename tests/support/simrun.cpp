#include "simrun.h"

#include <sstream>

namespace vt {

SimBoard::SimBoard(const std::string& scenario)
{
    scenario_file_ = tmp_.file("scenario.ini");
    write_file(scenario_file_, scenario);
}

/* The first run hands the scenario to the launcher, which builds a new
 * board; later runs continue the same board as a restarted program would. */
std::vector<std::string> SimBoard::command(const std::vector<std::string>& args, bool fresh)
{
    std::vector<std::string> argv = {VELASIM_PATH, "run", "--dir", tmp_.file("board")};
    if (fresh) {
        argv.push_back("--scenario");
        argv.push_back(scenario_file_);
    }
    argv.push_back("--");
    argv.push_back(VELATOOL_PATH);
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

ProcessResult SimBoard::velatool(const std::vector<std::string>& args, int timeout_ms)
{
    ProcessOptions opts;
    opts.timeout_ms = timeout_ms;
    ProcessResult r = run_process(command(args, fresh_), opts);
    fresh_ = false;
    return r;
}

bool SimBoard::start(ChildProcess& child, const std::vector<std::string>& args)
{
    bool ok = child.start(command(args, fresh_));
    fresh_ = false;
    return ok;
}

ProcessResult SimBoard::ctl(const std::vector<std::string>& command)
{
    std::vector<std::string> argv = {VELASIM_PATH, "ctl", "--dir", tmp_.file("board")};
    argv.insert(argv.end(), command.begin(), command.end());
    return run_process(argv);
}

std::vector<std::string> SimBoard::journal() const
{
    return journal_in(tmp_.file("board"));
}

std::vector<std::string> journal_in(const std::string& board_dir)
{
    std::vector<std::string> lines;
    std::istringstream in(read_file(board_dir + "/journal"));
    std::string line;
    while (std::getline(in, line)) {
        size_t sp = line.find(' ');
        lines.push_back(sp == std::string::npos ? line : line.substr(sp + 1));
    }
    return lines;
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

} // namespace vt

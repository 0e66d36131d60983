/* Scenarios, the saved state, and reset. */
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <unistd.h>

#include "board.h"
#include "syscalls.h"

namespace sim {

void make_sandbox_dirs(const std::string& fs); /* paths.cpp */

/* key = value lines; "[section]" prefixes the keys that follow with
 * "section."; '#' and ';' start comments; "fault = DEVICE OP ERR [COUNT]",
 * "absent = PATH" and "command = STATUS COMMAND" may repeat. */
std::string Board::apply_scenario(const std::string& text)
{
    std::istringstream in(text);
    std::string line, section;
    int lineno = 0;
    while (std::getline(in, line)) {
        lineno++;
        size_t hash = line.find_first_of("#;");
        if (hash != std::string::npos)
            line.erase(hash);
        line = trim(line);
        if (line.empty())
            continue;
        if (line.front() == '[' && line.back() == ']') {
            section = trim(line.substr(1, line.size() - 2));
            continue;
        }
        size_t eq = line.find('=');
        std::string where = "line " + std::to_string(lineno) + ": ";
        if (eq == std::string::npos)
            return where + "no '=' in '" + line + "'";
        std::string key = trim(line.substr(0, eq));
        std::string value = trim(line.substr(eq + 1));
        std::string err;
        if (section.empty() && (key == "fault" || key == "absent" || key == "command")) {
            std::string reply = control(key + " " + value);
            if (reply.compare(0, 6, "error:") == 0)
                err = trim(reply.substr(6));
        } else {
            err = params_.set(section.empty() ? key : section + "." + key, value);
        }
        if (!err.empty())
            return where + err;
    }
    /* Over the scenario's choice: runs every test, also those that pick the
     * model for speed, on the simulated cores (or the other way round). */
    const char* engine = getenv("VELASIM_PRU_ENGINE");
    if (engine != nullptr && *engine != '\0') {
        std::string err = params_.set("pru.engine", engine);
        if (!err.empty())
            return "VELASIM_PRU_ENGINE: " + err;
    }
    return {};
}

/* Written when the program waits or exits (never in the middle of a
 * change), by a temporary file renamed over the old one. A program that
 * waits often (a server) rewrites it when a value changed, and otherwise
 * at most once a second for the clock's sake. */
void Board::save_state(bool force)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    catch_up();
    /* Rendering every value is the dearest part of a wait: skipped while
     * nothing has acted on the board. What only time changes (a moving
     * drive) is saved with the time it belongs to, once a second, and a
     * later run carries on from there. */
    ns_t host = host_monotonic_ns();
    if (!force && !changed_ && host - saved_at_ < kSec)
        return;
    if (getpid() != owner_pid_)
        return;
    std::string values;
    for (const auto& [key, p] : params_.all()) {
        if (p.persist)
            values += key + " = " + p.get() + "\n";
    }
    changed_ = false;
    if (!force && values == saved_values_ && host - saved_at_ < kSec)
        return;
    if (write_whole_file(dir_ + "/state", clock().save_text() + values)) {
        saved_values_ = values;
        saved_at_ = host;
    }
}

void Board::load_state()
{
    std::string text;
    if (!read_whole_file(dir_ + "/state", &text) || text.empty())
        return;
    std::istringstream in(text);
    std::string line;
    ns_t time = 0, suspended = 0, host_wall = 0;
    while (std::getline(in, line)) {
        size_t eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        std::string key = trim(line.substr(0, eq));
        std::string value = trim(line.substr(eq + 1));
        if (key == "time_ns")
            time = strtoll(value.c_str(), nullptr, 10);
        else if (key == "suspended_ns")
            suspended = strtoll(value.c_str(), nullptr, 10);
        else if (key == "host_wall_ns")
            host_wall = strtoll(value.c_str(), nullptr, 10);
        else
            params_.restore(key, value); /* a key of an older board is dropped */
    }
    /* The models carry on from the moment the state was saved, so a drive
     * left running keeps moving between two runs of the program. */
    clock().restore(time, suspended, host_wall);
    advanced_to_ = time;
    for (Model* m : models_)
        m->resume_at(time);
}

std::string Board::reset(const std::string& scenario)
{
    std::lock_guard<std::recursive_mutex> lock(mu_);
    faults_.clear();
    rearm_sandbox_faults();
    absent_.clear();
    maps_.clear();
    scenario_ = scenario;
    write_whole_file(dir_ + "/scenario", scenario_);
    std::error_code ec;
    std::filesystem::remove_all(dir_ + "/fs", ec);
    make_sandbox_dirs(dir_ + "/fs");
    SIM_REAL(unlink)((dir_ + "/state").c_str());
    saved_values_.clear();
    clock().reset();
    clock().set_mode("real");
    advanced_to_ = now_ns();
    suspended_ = false;
    journal_clear();
    for (Model* m : models_)
        m->reset();
    std::string err = apply_scenario(scenario_);
    for (Model* m : models_)
        m->create_files(*this);
    return err;
}

} // namespace sim

/* Tests of the real binaries under the simulated board: runs a command with
 * `velasim run` in a board directory of its own and reads the board's
 * journal afterwards. */
#ifndef VELA_TEST_SIMRUN_H
#define VELA_TEST_SIMRUN_H

#include <string>
#include <vector>

#include "process.h"
#include "tempdir.h"

namespace vt {

/* velasim run --dir DIR [--scenario FILE] [--clock MODE] -- ARGS... */
std::vector<std::string> under_board(const std::string& dir, const std::vector<std::string>& args,
                                     const std::string& scenario_file = "", const std::string& clock = "");
/* velasim ctl --dir DIR COMMAND... against the board's running program. */
ProcessResult board_ctl(const std::string& dir, const std::vector<std::string>& command);
/* The journal of the board in dir without timestamps:
 * "/dev/i2c-1@0x60 write 08 22". */
std::vector<std::string> journal_in(const std::string& dir);

class SimBoard {
public:
    /* A board directory with the given scenario text (empty: healthy board). */
    explicit SimBoard(const std::string& scenario = "");

    const std::string& dir() const { return tmp_.path(); }
    /* velatool ARGS... under the board; waits for it to end. */
    ProcessResult velatool(const std::vector<std::string>& args, int timeout_ms = 60000);
    /* Starts velatool ARGS... under the board and returns at once. */
    bool start(ChildProcess& child, const std::vector<std::string>& args);
    ProcessResult ctl(const std::vector<std::string>& command) const { return board_ctl(tmp_.file("board"), command); }
    std::vector<std::string> journal() const { return journal_in(tmp_.file("board")); }
    /* Waits until the journal has an entry containing needle. */
    bool await_journal(const std::string& needle, int timeout_ms = 20000) const;

private:
    std::vector<std::string> command(const std::vector<std::string>& args);
    TempDir tmp_;
    bool fresh_ = true;
};

/* Entries of a journal that mention needle, in order. */
std::vector<std::string> grep(const std::vector<std::string>& lines, const std::string& needle);

/* How often needle occurs in text. */
size_t count_of(const std::string& text, const std::string& needle);

} // namespace vt

#endif

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

class SimBoard {
public:
    /* A board directory with the given scenario text (empty: healthy board). */
    explicit SimBoard(const std::string& scenario = "");

    const std::string& dir() const { return tmp_.path(); }
    /* velatool ARGS... under the board; waits for it to end. */
    ProcessResult velatool(const std::vector<std::string>& args, int timeout_ms = 60000);
    /* Starts velatool ARGS... under the board and returns at once. */
    bool start(ChildProcess& child, const std::vector<std::string>& args);
    /* velasim ctl COMMAND... against the running board. */
    ProcessResult ctl(const std::vector<std::string>& command);
    /* Journal lines without their timestamps: "/dev/i2c-1@0x60 write 08 22". */
    std::vector<std::string> journal() const;
    /* Waits until the journal has an entry containing needle. */
    bool await_journal(const std::string& needle, int timeout_ms = 20000) const;

private:
    std::vector<std::string> command(const std::vector<std::string>& args, bool fresh);
    TempDir tmp_;
    std::string scenario_file_;
    bool fresh_ = true;
};

/* The journal of the board in board_dir, as SimBoard::journal gives it. */
std::vector<std::string> journal_in(const std::string& board_dir);

/* Entries of a journal that mention needle, in order. */
std::vector<std::string> grep(const std::vector<std::string>& lines, const std::string& needle);

} // namespace vt

#endif

/* The simulated board's API for tests that link it in (velasim_static): the
 * same commands as the control socket, plus typed shortcuts. */
#ifndef VELASIM_SIM_H
#define VELASIM_SIM_H

#include <string>
#include <vector>

#include <cstdint>

namespace sim {

/* A fresh board built from a scenario text (empty: the healthy default);
 * returns "" or the scenario's first error. */
std::string reset(const std::string& scenario = "");

/* One control command; the reply's data lines, then "ok" or "error: ...". */
std::string control(const std::string& command);

/* Journal lines with their timestamps, and without them
 * ("/dev/i2c-1@0x60 write 08 22"). */
std::vector<std::string> journal();
std::vector<std::string> journal_entries();
void journal_clear();

std::string get(const std::string& key);
/* false (with the reason on stderr) if the key or value is refused. */
bool set(const std::string& key, const std::string& value);
/* The next count OP calls of device fail with errno err, or (err 0) are
 * short by one byte; count -1 fails for ever. False (with the reason on
 * stderr) if device or op names nothing real. */
bool fault(const std::string& device, const std::string& op, int err, int count = 1);

/* The board's clock: "real", "scaled K", "step" or "warp"; false if refused. */
bool clock_mode(const std::string& mode);
/* Moves board time on by ns (the models follow through every event). */
void advance_clock(int64_t ns);
/* Board time, and the program's CLOCK_MONOTONIC, in ns. */
int64_t board_ns();
int64_t monotonic_ns();

/* The program's descriptors open on a device or attribute (leak checks). */
std::vector<int> descriptors(const std::string& path);

/* The sandbox directory of the board. */
std::string sandbox();
/* Brings every model up to now (for tests that look at the physics). */
void advance();

} // namespace sim

#endif

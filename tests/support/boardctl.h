/* A control command straight to a running board's socket (DIR/control.sock),
 * without starting `velasim ctl`: for tests that send hundreds of them. */
#ifndef VELA_TEST_BOARDCTL_H
#define VELA_TEST_BOARDCTL_H

#include <string>

namespace vt {

/* The board's answer: its data lines, then "ok" or "error: ..." (each
 * ending in a line feed); "" when no board answered within timeout_ms. */
std::string board_control(const std::string& dir, const std::string& line, int timeout_ms = 10000);

/* Whether an answer ended in "ok". */
bool control_ok(const std::string& answer);

} // namespace vt

#endif

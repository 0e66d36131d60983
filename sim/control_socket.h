/* Where a board's control socket lives: shared by the board and the
 * launcher (which is not linked with the board). */
#ifndef VELASIM_CONTROL_SOCKET_H
#define VELASIM_CONTROL_SOCKET_H

#include <cstring>
#include <string>
#include <sys/un.h>

namespace sim {

/* Fills addr for DIR/control.sock; false if the path is too long. */
inline bool control_socket_address(const std::string& dir, struct sockaddr_un* addr)
{
    std::string path = dir + "/control.sock";
    memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    if (path.size() >= sizeof addr->sun_path)
        return false;
    memcpy(addr->sun_path, path.c_str(), path.size() + 1);
    return true;
}

} // namespace sim

#endif

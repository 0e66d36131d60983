/* A loopback TCP port nobody listens on now, for a server under test. Header
 * only: the benchmarks use it without the test support library. */
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vt {

inline int free_port()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

} // namespace vt

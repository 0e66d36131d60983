/* Listening sockets of the program: on the developer's machine the
 * instrument's protocol, which has no authentication, is served on the
 * loopback interface only, unless velasim run --listen-any says otherwise
 * (VELASIM_LISTEN_ANY). */
#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>

#include "wrap_common.h"

using namespace sim;

int sim_bind(int* r, int fd, const struct sockaddr* addr, socklen_t len)
{
    Guard g;
    if (g.nested() || addr == nullptr || getenv("VELASIM_LISTEN_ANY") != nullptr)
        return 0;
    ErrnoKeeper e;
    if (addr->sa_family == AF_INET && len >= sizeof(struct sockaddr_in)) {
        struct sockaddr_in in4;
        memcpy(&in4, addr, sizeof in4);
        if (in4.sin_addr.s_addr != htonl(INADDR_ANY))
            return 0;
        in4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return real_result(r, e, SIM_REAL(bind)(fd, reinterpret_cast<struct sockaddr*>(&in4), sizeof in4));
    }
    if (addr->sa_family == AF_INET6 && len >= sizeof(struct sockaddr_in6)) {
        struct sockaddr_in6 in6;
        memcpy(&in6, addr, sizeof in6);
        if (memcmp(&in6.sin6_addr, &in6addr_any, sizeof in6.sin6_addr) != 0)
            return 0;
        in6.sin6_addr = in6addr_loopback;
        return real_result(r, e, SIM_REAL(bind)(fd, reinterpret_cast<struct sockaddr*>(&in6), sizeof in6));
    }
    return 0;
}

#include "boardctl.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "control_socket.h"
#include "process.h"

namespace vt {

std::string board_control(const std::string& dir, const std::string& line, int timeout_ms)
{
    struct sockaddr_un addr;
    if (!sim::control_socket_address(dir, &addr))
        return {};
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return {};
    std::string answer;
    long long deadline = now_ms() + timeout_ms;
    std::string request = line + "\n";
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0 &&
        send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
        /* The board answers while its program waits, then closes. */
        for (;;) {
            long long left = deadline - now_ms();
            struct pollfd p = {fd, POLLIN, 0};
            if (left <= 0 || poll(&p, 1, static_cast<int>(left)) != 1)
                break;
            char buf[4096];
            ssize_t n = recv(fd, buf, sizeof buf, 0);
            if (n <= 0)
                break;
            answer.append(buf, static_cast<size_t>(n));
        }
    }
    close(fd);
    return answer;
}

bool control_ok(const std::string& answer)
{
    return answer.size() >= 3 && answer.compare(answer.size() - 3, 3, "ok\n") == 0;
}

} // namespace vt

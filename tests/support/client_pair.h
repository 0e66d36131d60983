/* A client's connection without a network: a socket pair whose end [0]
 * goes into a client slot as the server's socket, while the test reads what
 * the client receives from end [1] (with vt::received). Both ends close
 * with the fixture. */
#ifndef VELA_TEST_CLIENT_PAIR_H
#define VELA_TEST_CLIENT_PAIR_H

#include <sys/socket.h>
#include <unistd.h>

namespace vt {

class ClientPair {
public:
    ClientPair()
    {
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fd_) != 0)
            fd_[0] = fd_[1] = -1;
    }
    ~ClientPair()
    {
        close(fd_[0]);
        close(fd_[1]);
    }
    ClientPair(const ClientPair&) = delete;
    ClientPair& operator=(const ClientPair&) = delete;

    /* A test that closes an end itself (or sees the server close it) sets
     * it to -1. */
    int& operator[](int end) { return fd_[end]; }

private:
    int fd_[2];
};

} // namespace vt

#endif
